// Production access to the closed controller library: resolved at run time,
// so that a machine without it builds, links and runs as one with no
// controllers.
#pragma once

namespace plat::megalib {

class Library {
public:
    virtual ~Library() = default;
    virtual int InitMegaLib() = 0;
    virtual int GetDllVersion(char* major, char* minor) = 0;
    virtual int MegaLibCommand(int opcode, int adapter, int channel, int target, int size, void* buffer) = 0;
};

// The installed library if one is found, else one that has no controllers.
Library& library();

} // namespace plat::megalib

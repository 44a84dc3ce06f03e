#include "platform/megalib_loader.h"

#include <cstring>
#include <dlfcn.h>

namespace plat::megalib {
namespace {

constexpr const char* kLibraryName = "libmegalib.so";

using InitFn = int (*)();
using VersionFn = int (*)(char*, char*);
using CommandFn = int (*)(int, int, int, int, int, void*);

// No library installed: no controllers, every command fails.
class Absent final : public Library {
public:
    int InitMegaLib() override { return 0; }
    int GetDllVersion(char* major, char* minor) override
    {
        if (major) std::strcpy(major, "0");
        if (minor) std::strcpy(minor, "0");
        return -1;
    }
    int MegaLibCommand(int, int, int, int, int, void*) override { return -1; }
};

class Loaded final : public Library {
public:
    Loaded(InitFn init, VersionFn version, CommandFn command) : init_(init), version_(version), command_(command) {}
    int InitMegaLib() override { return init_(); }
    int GetDllVersion(char* major, char* minor) override { return version_(major, minor); }
    int MegaLibCommand(int opcode, int adapter, int channel, int target, int size, void* buffer) override
    {
        return command_(opcode, adapter, channel, target, size, buffer);
    }

private:
    InitFn init_;
    VersionFn version_;
    CommandFn command_;
};

Library* resolve()
{
    static Absent absent;
    void* handle = ::dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (!handle) return &absent;
    auto init = reinterpret_cast<InitFn>(::dlsym(handle, "InitMegaLib"));
    auto version = reinterpret_cast<VersionFn>(::dlsym(handle, "GetDllVersion"));
    auto command = reinterpret_cast<CommandFn>(::dlsym(handle, "MegaLibCommand"));
    if (!init || !version || !command) {
        ::dlclose(handle);
        return &absent;
    }
    static Loaded loaded(init, version, command);
    return &loaded;
}

} // namespace

Library& library()
{
    static Library* lib = resolve();
    return *lib;
}

} // namespace plat::megalib

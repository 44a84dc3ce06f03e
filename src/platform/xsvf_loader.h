// Production access to an XSVF player for the NVRAM card's FPGA PROM. The
// card's driver has no JTAG request of its own, so playing a file is left to
// a player library installed beside the system; without one every file is
// one the system cannot use.
#pragma once

namespace plat::xsvf {

class Player {
public:
    virtual ~Player() = default;
    // 0 done, 1 a file it cannot use, 112 repeat once, other a failed verify.
    virtual int play(int fd, const char* filename) = 0;
};

// The installed player if one is found, else one that answers 1.
Player& player();

} // namespace plat::xsvf

// One input of the tw driver fuzz target: the first byte picks the family
// and the request, the rest is the call's buffer, made as long as its
// declared data length asks (the drivers refuse more than their maximum).
// Bit 4 of the first byte turns the firmware command into one of the unit
// task, ATA pass-through or firmware download opcodes (bits 5 and 6), so
// that those are reached often. Shared by the target and the replay test.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/platform.h"
#include "sim/tw_driver.h"

namespace twfuzz {

// `fd9` and `fd7` are open nodes of a 9000 and a 7000 driver, each on the
// platform beside it.
inline void driverInput(plat::Platform& p9, int fd9, plat::Platform& p7, int fd7, const uint8_t* data, size_t size)
{
    if (size < 1) return;
    const bool nine = data[0] & 1;
    static const unsigned long requests9[] = {262, 263, 264, 265, 264, 264, 7, 0x1F};
    static const unsigned long requests7[] = {0x1F, 0x1F, 0x1F, 264, 0, 0x1F, 0x1F, 0x20};
    const unsigned long request = (nine ? requests9 : requests7)[(data[0] >> 1) & 7];
    const size_t header = nine ? sim::tw::k9000Header : sim::tw::k7000Header;
    std::vector<uint8_t> buf(header, 0);
    std::memcpy(buf.data(), data + 1, std::min(size - 1, buf.size()));
    uint32_t declared = 0;
    std::memcpy(&declared, buf.data() + (nine ? 20 : 0), 4);
    const size_t maxData = nine ? sim::tw::k9000MaxData : sim::tw::k7000MaxData;
    buf.resize(header + std::min<size_t>(declared, maxData), 0);
    if (size - 1 > header) std::memcpy(buf.data() + header, data + 1 + header, std::min(size - 1 - header, buf.size() - header));
    if (data[0] & 0x10) {
        static const uint8_t opcodes[] = {0x18, 0x11, 0x1A, 0x18};
        uint8_t& byte0 = buf[nine ? 512 + 128 : 512];
        byte0 = static_cast<uint8_t>((byte0 & 0xE0) | opcodes[(data[0] >> 5) & 3]);
    }
    plat::ScopedPlatform scope(nine ? p9 : p7);
    plat::ioctl(nine ? fd9 : fd7, request, buf.data());
}

} // namespace twfuzz

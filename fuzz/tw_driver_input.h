// One input of the tw driver fuzz target: the first byte picks the family
// and the request, the rest is the call's buffer, made as long as its
// declared data length asks (the drivers refuse more than their maximum).
// Bit 4 of the first byte turns the firmware command into one of the unit
// task, ATA pass-through or firmware download opcodes (bits 5 and 6: 0 to
// 2), or (3) shapes a unit configuration command whole, so that those are
// reached often. Shared by the target and the replay test.
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
    unsigned long request = (nine ? requests9 : requests7)[(data[0] >> 1) & 7];
    const size_t header = nine ? sim::tw::k9000Header : sim::tw::k7000Header;
    std::vector<uint8_t> buf(header, 0);
    std::memcpy(buf.data(), data + 1, std::min(size - 1, buf.size()));
    uint32_t declared = 0;
    std::memcpy(&declared, buf.data() + (nine ? 20 : 0), 4);
    const size_t maxData = nine ? sim::tw::k9000MaxData : sim::tw::k7000MaxData;
    buf.resize(header + std::min<size_t>(declared, maxData), 0);
    if (size - 1 > header) std::memcpy(buf.data() + header, data + 1 + header, std::min(size - 1 - header, buf.size() - header));
    const int shape = (data[0] >> 5) & 3;
    if ((data[0] & 0x10) && shape < 3) {
        static const uint8_t opcodes[] = {0x18, 0x11, 0x1A};
        uint8_t& byte0 = buf[nine ? 512 + 128 : 512];
        byte0 = static_cast<uint8_t>((byte0 & 0xE0) | opcodes[shape]);
    } else if (data[0] & 0x10) {
        // A unit configuration command the driver takes whole, so that the
        // fuzzed bytes reach its record: the opcode from byte 1, the
        // command's size and scatter list as the API sends them, the
        // record's length, and the record from byte 2 on.
        static const uint8_t unitOps[] = {0x08, 0x09, 0x0A, 0x0E, 0x0C, 0x0D};
        const uint8_t op = unitOps[(size > 1 ? data[1] : 0) % 6];
        const uint32_t length = op == 0x0E ? 52 : 32;
        request = nine ? 264 : 0x1F;
        buf.assign(header + length, 0);
        const size_t command = 512 + (nine ? 128 : 0);
        buf[command] = static_cast<uint8_t>(0x40 | op);
        if (nine) {
            const uint32_t control = 264;
            std::memcpy(buf.data(), &control, 4);
            std::memcpy(buf.data() + 20, &length, 4);
            buf[512 + 124] = 128;
            buf[command + 1] = 4;  // the scatter list's size plus 2
            buf[command + 6] = 1;
        } else {
            std::memcpy(buf.data(), &length, 4);
            buf[command + 1] = 4;
            buf[command + 3] = size > 2 ? static_cast<uint8_t>(data[2] & 0x0F) : 0;
        }
        if (size > 2) std::memcpy(buf.data() + header, data + 2, std::min<size_t>(size - 2, length));
    }
    plat::ScopedPlatform scope(nine ? p9 : p7);
    plat::ioctl(nine ? fd9 : fd7, request, buf.data());
}

} // namespace twfuzz

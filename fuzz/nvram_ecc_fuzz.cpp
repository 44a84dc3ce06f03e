// Arbitrary flash pages through the ECC check: eccCheck gives -1, 0 or 1,
// and a page it corrected (1) checks clean afterwards. Each group also goes
// through checkECC against a stored code taken from the input.
//
// Input: a 2112-byte page (a shorter one zero-filled); a byte after it picks
// the handle: its low bit set, one whose inbound counters read zero, so the
// checks log and try to count (the handle is closed: the counting fails and
// is logged, with no device behind it).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "nvram/nvram_api.h"

namespace {

void quiet(const char*) {}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint8_t page[NVRAM_PAGE_LAYOUT_SIZE] = {};
    std::memcpy(page, data, size < sizeof page ? size : sizeof page);
    bool reporting = size > sizeof page && (data[sizeof page] & 1);

    alignas(4096) static uint8_t regs[NVRAM_REGISTER_SIZE];
    std::memset(regs, 0, sizeof regs);
    uint32_t inbound = reporting ? 0 : 1;
    std::memcpy(regs + NVRAM_REG_INBOUND_COUNTERS, &inbound, sizeof inbound);
    nvram_s handle{regs, NVRAM_REGISTER_SIZE, NVRAM_MODE_READ_WRITE, -1, !reporting, 0x30000, 0x50100, true, quiet};

    uint8_t before[sizeof page];
    std::memcpy(before, page, sizeof page);
    int result = eccCheck(&handle, page);
    if (result < -1 || result > 1) std::abort();
    if (result == 0 && std::memcmp(before, page, sizeof page) != 0) std::abort();
    if (result == 1 && eccCheck(&handle, page) != 0) std::abort();

    for (int g = 0; g < 8; ++g) {
        uint8_t* group = g < 4 ? page + g : page + 1024 + (g - 4);
        const uint8_t* ecc = g < 4 ? before + 2048 + g : before + 2072 + (g - 4);
        uint32_t stored = uint32_t{ecc[0]} << 16 | uint32_t{ecc[4]} << 8 | ecc[8];
        int one = checkECC(&handle, group, stored, g);
        if (one < 0 || one > 2) std::abort();
        if (one == 2 && checkECC(&handle, group, stored, g) != 0) std::abort();
    }
    return 0;
}

// Recovery of the NVRAM card over arbitrary flash pages and EEPROM geometry,
// on a simulated card made once. Each input sets the card's words and flash,
// then the library opens the card read-write and restores flash to SDRAM.
//
// Input: byte 0 holds switches: bit 0 recomputes each page's ECC and chained
// CRC over the fuzzed bytes, so that inputs reach the correction and
// write-back paths; bit 1 takes the SDRAM page size from the input instead
// of 2048. Then seven 32-bit words: SDRAM page size, flash page size, SDRAM
// pages, flash pages, pages per block, bad-block maximum, valid blocks; then
// the flash pages, 2112 bytes each.
//
// SDRAM stands as cleared since power-up, so open does not clear it. The
// card's counts and the flash page size are bounded by the card's real
// memories and pages per block is never zero: a transfer the card refuses
// and a zero block size are the library's deliberate stops, not faults.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_module.h"
#include "nvram/nvram_api.h"
#include "sim/nvram.h"
#include "sim/nvram_firmware.h"

namespace {

constexpr uint32_t kPage = 2048;
constexpr uint32_t kFlashPage = 2112;

sim::NvramGeometry geometry()
{
    sim::NvramGeometry g;
    g.sdramPages = 8;
    g.flashPages = 16;
    g.pagesPerBlock = 2;
    g.badBlockMax = 2;
    return g;
}

sim::SimPlatform& card()
{
    static sim::SimPlatform& p = [] () -> sim::SimPlatform& {
        sim::CreateOptions options;
        std::string dir = fuzzmodule::tempDir("nvram-recover-fuzz") + "/m";
        options.identityOnly = true;
        if (!sim::createModule(dir, options).empty()) std::abort();
        static sim::SimPlatform platform(dir);
        static plat::ScopedPlatform scope(platform);
        if (!sim::nvramAdd(platform.module(), geometry()).empty()) std::abort();
        return platform;
    }();
    return p;
}

uint32_t word(const uint8_t* data, size_t size, size_t& at)
{
    uint32_t v = 0;
    if (at + 4 <= size) std::memcpy(&v, data + at, 4);
    at += 4;
    return v;
}

void quiet(const char*) {}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    sim::SimPlatform& platform = card();
    const sim::NvramGeometry g = geometry();
    const bool recompute = data[0] & 1;
    size_t at = 1;
    uint32_t sdramPageSize = word(data, size, at);
    if (!(data[0] & 2)) sdramPageSize = kPage;
    uint32_t flashPageSize = word(data, size, at);
    if (flashPageSize > kFlashPage) flashPageSize = kFlashPage;
    const uint32_t sdramPages = word(data, size, at) % (g.sdramPages + 1);
    const uint32_t flashPages = word(data, size, at) % (g.flashPages + 1);
    const uint32_t perBlock = 1 + word(data, size, at) % 8;
    const uint32_t badMax = word(data, size, at) % 8;
    const uint32_t validBlocks = word(data, size, at) % 16;

    uint32_t seed = 0;
    for (uint32_t page = 0; page < g.flashPages; ++page) {
        std::vector<uint8_t> bytes(kFlashPage, 0xff);
        if (at < size) {
            size_t n = std::min<size_t>(kFlashPage, size - at);
            std::memcpy(bytes.data(), data + at, n);
            at += n;
        }
        if (recompute) {
            for (int group = 0; group < 8; ++group) {
                const uint32_t first = group < 4 ? group : 1024 + group - 4;
                const uint32_t ecc = group < 4 ? 2048 + group : 2072 + group - 4;
                uint32_t value = sim::nvram::groupEcc(bytes.data() + first);
                for (int k = 0; k < 3; ++k) bytes[ecc + 4 * k] = static_cast<uint8_t>(value >> (16 - 8 * k));
            }
            seed = sim::nvram::cardCrc(bytes.data(), kPage, seed);
            std::memcpy(bytes.data() + sim::nvram::kPageCrc, &seed, 4);
        }
        sim::nvramWriteFlash(platform.module(), page, 0, bytes);
    }
    sim::nvramUpdate(platform.module(), [&](sim::NvramCard& c) {
        c.setWord(NVRAM_EE_SDRAM_PAGE_SIZE, sdramPageSize & 0x7fffffff);
        c.setWord(NVRAM_EE_FLASH_PAGE_SIZE, flashPageSize);
        c.setWord(NVRAM_EE_SDRAM_PAGES, sdramPages);
        c.setWord(NVRAM_EE_FLASH_PAGES, flashPages);
        c.setWord(NVRAM_EE_FLASH_PAGES_PER_BLOCK, perBlock);
        c.setWord(NVRAM_EE_FLASH_BAD_BLOCK_MAX, badMax);
        c.setWord(NVRAM_EE_VALID_BLOCKS, validBlocks);
        c.setWord(NVRAM_EE_VALIDITY, NVRAM_VALIDITY_FLASH);
    });
    sim::nvramPowerCycle(platform.module());
    // SDRAM counted as cleared: the clear at open transfers pages of the
    // fuzzed size, which the card refuses, and that is a deliberate stop.
    sim::nvramUpdate(platform.module(), [](sim::NvramCard& c) {
        c.setReg(NVRAM_REG_SETUP, c.reg(NVRAM_REG_SETUP) | NVRAM_SETUP_SDRAM_CLEARED);
    });

    nvram_t handle = nullptr;
    if (nvram_open(NVRAM_DEVICE, NVRAM_MODE_READ_WRITE, &handle, quiet) == NVRAM_SUCCESS &&
        nvram_set_nvram_writable(handle, 1) == NVRAM_SUCCESS) {
        nvram_error_t e = nvram_recover_flash_to_sdram(handle);
        nvram_validity_t v = nvram_get_validity(handle);
        if ((e == NVRAM_SUCCESS) != (v == NVRAM_VALIDITY_SDRAM)) std::abort();
    }
    if (handle) nvram_close(handle);
    return 0;
}

// Checksums of data and descriptors, and the ECC of flash pages.
#include <bit>
#include <cstring>

#include "nvram/nvram_api.h"
#include "nvram/nvram_api_internal.h"

using namespace nvram_detail;

namespace {

struct CrcTable {
    uint32_t entry[256];
};

// CRC-32, polynomial 0x04C11DB7, most significant bit first. Built on first
// use and kept; the local static makes the first use safe from any thread.
const CrcTable& crcTable()
{
    static const CrcTable table = [] {
        CrcTable t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t reg = i << 24;
            for (int bit = 0; bit < 8; ++bit) reg = (reg & 0x80000000u) ? (reg << 1) ^ 0x04C11DB7u : reg << 1;
            t.entry[i] = reg;
        }
        return t;
    }();
    return table;
}

bool parity(uint32_t bits) { return std::popcount(bits) & 1; }

constexpr int GROUPS = 8;
constexpr int GROUP_BYTES = 256;
constexpr uint32_t ECC_BITS = 0x3fffff;  // 22 bits; the top two of the three bytes are no part of the code

uint8_t* groupStart(uint8_t* page, int g) { return g < 4 ? page + g : page + 1024 + (g - 4); }

const uint8_t* eccBytes(const uint8_t* page, int g) { return g < 4 ? page + 2048 + g : page + 2072 + (g - 4); }

} // namespace

uint64_t nvram_checksum_data(const void* data, uint32_t len, nvram_CRC_type_t type, uint64_t seed)
{
    if (type != NVRAM_CRC_32_ETHERNET) return 0;
    const CrcTable& table = crcTable();
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (bytes == nullptr) len = 0;
    uint32_t reg = ~static_cast<uint32_t>(seed);
    for (uint32_t i = 0; i < len; ++i) reg = (reg << 8) ^ table.entry[(bytes[i] ^ (reg >> 24)) & 0xff];
    // The high word is all ones, in a descriptor's checksum too: the card
    // expects it so.
    return 0xFFFFFFFF00000000ull | static_cast<uint32_t>(~reg);
}

void nvram_checksum_descriptor(nvramd_t* descr)
{
    uint8_t bytes[NVRAMD_CHECKSUMMED_BYTES];
    std::memcpy(bytes, descr, sizeof bytes);
    uint64_t sum = nvram_checksum_data(bytes, sizeof bytes, NVRAM_CRC_32_ETHERNET, 0);
    std::memcpy(reinterpret_cast<uint8_t*>(descr) + offsetof(nvramd_t, checksum), &sum, sizeof sum);
}

uint32_t calculateEcc(const uint8_t* group)
{
    uint32_t ecc = 0;
    for (uint32_t i = 0; i < GROUP_BYTES; ++i) {
        uint32_t b = group[4 * i];
        if (parity(b & 0xf0)) ecc ^= 1u << 5;
        if (parity(b & 0x0f)) ecc ^= 1u << 4;
        if (parity(b & 0xcc)) ecc ^= 1u << 3;
        if (parity(b & 0x33)) ecc ^= 1u << 2;
        if (parity(b & 0xaa)) ecc ^= 1u << 1;
        if (parity(b & 0x55)) ecc ^= 1u << 0;
        if (!parity(b)) continue;
        for (uint32_t k = 0; k < 8; ++k) ecc ^= 1u << ((i >> k & 1) ? 7 + 2 * k : 6 + 2 * k);
    }
    return ecc;
}

void eccCorrection(uint8_t* group, int line, int bit) { group[4 * line] ^= static_cast<uint8_t>(1u << bit); }

int checkECC(nvram_t handle, uint8_t* group, uint32_t stored, int block)
{
    uint32_t d = (stored ^ calculateEcc(group)) & ECC_BITS;
    if (d == 0) return 0;

    int differing = 0;
    for (int k = 0; k < 11; ++k) differing += ((d >> (2 * k)) ^ (d >> (2 * k + 1))) & 1;
    // Logs and counters only while the inbound counters read zero.
    bool report = handle != nullptr && handle->base_ptr != nullptr && readReg(handle, NVRAM_REG_INBOUND_COUNTERS) == 0;

    if (differing == 11) {
        int line = 0;
        for (int k = 7; k >= 0; --k) line = line << 1 | (d >> (7 + 2 * k) & 1);
        int bit = static_cast<int>((d >> 5 & 1) << 2 | (d >> 3 & 1) << 1 | (d >> 1 & 1));
        eccCorrection(group, line, bit);
        if (report) {
            logf(handle, "CORRECTABLE error at byte:bit %d:%d of block %d", line, bit, block);
            if (incrementCounter(handle, NVRAM_EE_FLASH_ECC_CORRECTABLE) != NVRAM_SUCCESS)
                logf(handle, "couldn't increment flash ecc correctable counter");
        }
        return 2;
    }
    if (differing == 1) {
        if (report) {
            logf(handle, "Error in ECC field of block %d", block);
            if (incrementCounter(handle, NVRAM_EE_FLASH_ECC_CORRECTABLE) != NVRAM_SUCCESS)
                logf(handle, "couldn't increment flash ecc correctable counter");
        }
        return 0;
    }
    if (report) {
        logf(handle, "UNCORRECTABLE error in ECC block %d", block);
        if (incrementCounter(handle, NVRAM_EE_FLASH_ECC_UNCORRECTABLE) != NVRAM_SUCCESS)
            logf(handle, "couldn't increment flash ecc uncorrectable counter");
    }
    return 1;
}

int eccCheck(nvram_t handle, uint8_t* page)
{
    int results = 0;
    for (int g = 0; g < GROUPS; ++g) {
        const uint8_t* ecc = eccBytes(page, g);
        uint32_t stored = uint32_t{ecc[0]} << 16 | uint32_t{ecc[4]} << 8 | ecc[8];
        results |= checkECC(handle, groupStart(page, g), stored, g);
    }
    if (results & 1) return -1;
    if (results & 2) return 1;
    return 0;
}

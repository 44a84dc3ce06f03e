// The parts of the NVRAM library that need no card: checksums, the ECC of a
// flash page, the texts, and the refusals of a handle that is not there.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nvram/nvram_api.h"

namespace {

// CRC-32 bit by bit, most significant bit first, not reflected: the
// reference the table-driven code must agree with.
uint32_t referenceCrc(const uint8_t* data, size_t len, uint32_t seed)
{
    uint32_t reg = ~seed;
    for (size_t i = 0; i < len; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            uint32_t in = (data[i] >> bit) & 1;
            uint32_t top = reg >> 31;
            reg <<= 1;
            if (top ^ in) reg ^= 0x04C11DB7u;
        }
    }
    return ~reg;
}

// The 22-bit code of a group, one set bit at a time: a bit at line i, column
// j toggles one bit of each of the eleven pairs.
uint32_t referenceEcc(const uint8_t* group)
{
    uint32_t ecc = 0;
    for (uint32_t i = 0; i < 256; ++i)
        for (uint32_t j = 0; j < 8; ++j) {
            if (!((group[4 * i] >> j) & 1)) continue;
            ecc ^= 1u << ((j & 4) ? 5 : 4);
            ecc ^= 1u << ((j & 2) ? 3 : 2);
            ecc ^= 1u << ((j & 1) ? 1 : 0);
            for (uint32_t k = 0; k < 8; ++k) ecc ^= 1u << (((i >> k) & 1) ? 7 + 2 * k : 6 + 2 * k);
        }
    return ecc;
}

// A 2112-byte page of random data with its ECC bytes in place.
std::vector<uint8_t> pageWithEcc(unsigned seed)
{
    std::vector<uint8_t> page(NVRAM_PAGE_LAYOUT_SIZE, 0xff);
    std::mt19937 random(seed);
    for (size_t i = 0; i < NVRAM_PAGE_DATA; ++i) page[i] = static_cast<uint8_t>(random());
    for (int g = 0; g < 8; ++g) {
        const uint8_t* group = g < 4 ? &page[g] : &page[1024 + g - 4];
        uint32_t ecc = referenceEcc(group);
        size_t at = g < 4 ? 2048 + g : 2072 + g - 4;
        page[at] = static_cast<uint8_t>(ecc >> 16);
        page[at + 4] = static_cast<uint8_t>(ecc >> 8);
        page[at + 8] = static_cast<uint8_t>(ecc);
    }
    return page;
}

// A handle over registers in memory whose inbound counters are non-zero, so
// that the ECC checks neither log nor count.
struct QuietHandle {
    alignas(4096) uint8_t regs[NVRAM_REGISTER_SIZE] = {};
    nvram_s handle{};
    QuietHandle()
    {
        uint32_t inbound = 1;
        std::memcpy(regs + NVRAM_REG_INBOUND_COUNTERS, &inbound, sizeof inbound);
        handle = nvram_s{regs, NVRAM_REGISTER_SIZE, NVRAM_MODE_MONITOR_ONLY, -1, true, 0x30000, 0x50100, true,
                         nvram_logger};
    }
};

TEST(NvramChecksum, MatchesTheBitwiseReferenceAndChainsThroughTheSeed)
{
    const char* check = "123456789";
    auto bytes = reinterpret_cast<const uint8_t*>(check);
    uint64_t crc = nvram_checksum_data(check, 9, NVRAM_CRC_32_ETHERNET, 0);
    EXPECT_EQ(crc, 0xFFFFFFFF00000000ull | referenceCrc(bytes, 9, 0));
    EXPECT_EQ(static_cast<uint32_t>(crc), 0xFC891918u);

    // A page seeded with the previous page's CRC continues the one stream.
    uint64_t first = nvram_checksum_data(check, 4, NVRAM_CRC_32_ETHERNET, 0);
    EXPECT_EQ(nvram_checksum_data(check + 4, 5, NVRAM_CRC_32_ETHERNET, first), crc);

    std::vector<uint8_t> data = pageWithEcc(7);
    EXPECT_EQ(static_cast<uint32_t>(nvram_checksum_data(data.data(), 2048, NVRAM_CRC_32_ETHERNET, 0x1234)),
              referenceCrc(data.data(), 2048, 0x1234));
}

TEST(NvramChecksum, EmptyLengthGivesTheSeedAndOtherTypesGiveZero)
{
    EXPECT_EQ(nvram_checksum_data("x", 0, NVRAM_CRC_32_ETHERNET, 0x123456789abcdef0ull), 0xFFFFFFFF9abcdef0ull);
    EXPECT_EQ(nvram_checksum_data("123", 3, static_cast<nvram_CRC_type_t>(1), 0), 0u);
}

TEST(NvramChecksum, DescriptorChecksumCoversTheFirst56Bytes)
{
    nvramd_t descr{};
    descr.op = NVRAM_OP_F2S;
    descr.length = 2112;
    descr.source_addr = 0x800;
    descr.next = 0xdeadbeef;
    descr.checksum = 0x1111;
    nvram_checksum_descriptor(&descr);
    uint8_t bytes[56];
    std::memcpy(bytes, &descr, sizeof bytes);
    EXPECT_EQ(descr.checksum, 0xFFFFFFFF00000000ull | referenceCrc(bytes, sizeof bytes, 0));
    uint64_t before = descr.checksum;
    nvram_checksum_descriptor(&descr);
    EXPECT_EQ(descr.checksum, before);
}

TEST(NvramEcc, CodeOfAGroupMatchesTheReference)
{
    std::vector<uint8_t> page = pageWithEcc(1);
    for (int g = 0; g < 8; ++g) {
        const uint8_t* group = g < 4 ? &page[g] : &page[1024 + g - 4];
        EXPECT_EQ(calculateEcc(group), referenceEcc(group)) << "group " << g;
    }
}

TEST(NvramEcc, OneFlippedDataBitIsCorrectedAndThenChecksClean)
{
    QuietHandle q;
    std::vector<uint8_t> good = pageWithEcc(2);
    EXPECT_EQ(eccCheck(&q.handle, good.data()), 0);
    // A bit in each half of the page, in groups of both ECC areas.
    for (size_t at : {0u, 1023u, 1024u, 2047u, 517u, 1530u}) {
        for (int bit : {0, 3, 7}) {
            std::vector<uint8_t> page = good;
            page[at] ^= static_cast<uint8_t>(1u << bit);
            EXPECT_EQ(eccCheck(&q.handle, page.data()), 1) << at << ":" << bit;
            EXPECT_EQ(page, good) << at << ":" << bit;
            EXPECT_EQ(eccCheck(&q.handle, page.data()), 0);
        }
    }
    // One bit in each of two groups: both corrected.
    std::vector<uint8_t> page = good;
    page[5] ^= 0x10;
    page[1030] ^= 0x01;
    EXPECT_EQ(eccCheck(&q.handle, page.data()), 1);
    EXPECT_EQ(page, good);
}

TEST(NvramEcc, AFlippedEccBitIsCleanAndTwoDataFlipsAreUncorrectable)
{
    QuietHandle q;
    std::vector<uint8_t> good = pageWithEcc(3);
    for (size_t at : {2048u, 2052u, 2059u, 2072u, 2083u}) {
        std::vector<uint8_t> page = good;
        page[at] ^= 0x04;
        EXPECT_EQ(eccCheck(&q.handle, page.data()), 0) << at;
        // The data are left alone.
        EXPECT_TRUE(std::equal(page.begin(), page.begin() + 2048, good.begin()));
    }
    std::vector<uint8_t> page = good;
    page[8] ^= 0x01;
    page[12] ^= 0x01;
    EXPECT_EQ(eccCheck(&q.handle, page.data()), -1);
    // An uncorrectable group outweighs a corrected one.
    page[1025] ^= 0x80;
    EXPECT_EQ(eccCheck(&q.handle, page.data()), -1);

    uint8_t group[1024] = {};
    group[4 * 3] = 0x01;
    uint32_t stored = calculateEcc(group);
    group[4 * 3] = 0;
    group[4 * 9] = 0x02;
    EXPECT_EQ(checkECC(&q.handle, group, stored, 0), 1);
}

TEST(NvramText, ErrorsValiditiesAndTransfersWithTheirFallBacks)
{
    EXPECT_STREQ(nvram_error_str(NVRAM_SUCCESS), "SUCCESS");
    EXPECT_STREQ(nvram_error_str(NVRAM_REFRESH_ENABLE_TIMEOUT), "NVRAM REFRESH_ENABLE_TIMEOUT");
    EXPECT_STREQ(nvram_error_str(NVRAM_33MHZ_PCI), "33MHZ_PCI");
    EXPECT_STREQ(nvram_error_str(NVRAM_INTERRUPT_INVALID), "NVRAM_INTERRUPT_INVALID");
    EXPECT_STREQ(nvram_error_str(NVRAM_MMAP_FAILURE), "MMAP_FAILURE");
    EXPECT_STREQ(nvram_error_str(NVRAM_DESCR_FLASH_WRITE_FAILED), "unknown nvram_error_t");
    EXPECT_STREQ(nvram_error_str(static_cast<nvram_error_t>(1)), "unknown nvram_error_t");
    EXPECT_STREQ(nvram_error_str(static_cast<nvram_error_t>(287)), "unknown nvram_error_t");

    EXPECT_STREQ(str_validity(NVRAM_VALIDITY_EMPTY), "empty");
    EXPECT_STREQ(str_validity(static_cast<nvram_validity_t>(3)), "unknown");
    EXPECT_STREQ(nvram_validity_str(NVRAM_VALIDITY_FLASH), "flash");
    EXPECT_STREQ(nvram_validity_str(static_cast<nvram_validity_t>(3)), "undefined");

    EXPECT_STREQ(nvram_transfer_str(NVRAM_OP_S2H), "sdram to host");
    EXPECT_STREQ(nvram_transfer_str(NVRAM_OP_F2S), "flash to sdram");
    EXPECT_STREQ(nvram_transfer_str(NVRAM_OP_F2H), "invalid transfer");
    EXPECT_STREQ(nvram_transfer_str(NVRAM_OP_H2F), "invalid transfer");
}

TEST(NvramText, DefaultLoggerWritesTheLineToStandardError)
{
    testing::internal::CaptureStderr();
    nvram_logger("STATE CHANGE from flash to sdram");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "STATE CHANGE from flash to sdram\n");
}

TEST(NvramHandle, AMissingOrClosedHandleIsRefused)
{
    nvram_s closed{};
    closed.valid = false;
    for (nvram_t handle : {static_cast<nvram_t>(nullptr), &closed}) {
        uint32_t word = 0;
        nvram_status_t status;
        nvram_interrupt_t interrupt{};
        int fd = 0, address = 0, length = 0;
        EXPECT_EQ(nvram_close(handle), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_get_fd(handle, &fd), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_soft_reset(handle), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_get_eeprom(handle, 0, &word), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_set_eeprom(handle, 0, 0), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_get_eeprom_user_space(handle, &address, &length), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_get_status(handle, &status, 0), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_get_interrupt_status(handle, &interrupt), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_SDRAM), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_set_valid_blocks(handle, 1), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_program_fpga_prom(handle, "x.xsvf"), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_push_chain(handle, 0x1000), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_set_mrm_threshold(handle, 1), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_abort_auto_copy(handle), NVRAM_INVALID_DEVICE);
        EXPECT_EQ(nvram_battery_power(handle, 1), NVRAM_INVALID_DEVICE);
    }
    nvram_t handle = nullptr;
    EXPECT_EQ(nvram_open(NVRAM_DEVICE, static_cast<nvram_mode_t>(2), &handle, nullptr), NVRAM_MODE_BAD);
    EXPECT_EQ(handle, nullptr);
}

TEST(NvramHandleDeathTest, ValidityOfAMissingHandleStopsTheProcess)
{
    EXPECT_DEATH(nvram_get_validity(nullptr), "handle != nullptr && handle->valid");
}

} // namespace

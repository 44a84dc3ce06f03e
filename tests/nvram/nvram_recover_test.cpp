// Restoring flash to SDRAM after an auto copy, and the deliberate stops of
// the library, against the simulated card.
#include <cstring>
#include <sys/mman.h>

#include "nvram/nvram_card_fixture.h"

namespace {

using nvtest::NvramCard;
using nvtest::logged;
using nvtest::loggedStarting;

constexpr uint32_t kPages = 512;  // the default card's SDRAM

// The time-out of a transfer is a billion polls: under ThreadSanitizer's
// instrumented loads that is minutes, so those tests run in the other builds.
#if defined(__SANITIZE_THREAD__)
constexpr bool kSlowPolls = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kSlowPolls = true;
#else
constexpr bool kSlowPolls = false;
#endif
#else
constexpr bool kSlowPolls = false;
#endif

TEST_F(NvramCard, RecoveryAfterAPowerFailureReturnsEveryByte)
{
    fillAndFail(11);
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_SUCCESS);
    expectRestored(11, kPages);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_SDRAM);
    EXPECT_TRUE(logged("STATE CHANGE from flash to sdram"));
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_RECOVER_RETRIED), 0u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_ECC_CORRECTABLE), 0u);
    // Nothing left to restore.
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_VALIDITY_BAD);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ABadBlockIsSkippedWithoutMovingTheSdramPage)
{
    sim::nvramBadBlock(module(), 0);
    fillAndFail(12);
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_SUCCESS);
    expectRestored(12, kPages);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, BadBlocksUpToTheMaximumGoOnAndOneMoreStops)
{
    sim::nvramBadBlock(module(), 0);
    sim::nvramBadBlock(module(), 1);
    fillAndFail(13);
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_SUCCESS);
    expectRestored(13, kPages);
    ASSERT_EQ(nvram_close(handle), NVRAM_SUCCESS);

    // The card wrote blocks 2 on; the first page of block 2 now reads bad.
    fillAndFail(14);
    change([](sim::NvramCard& c) { c.faults.badPages.insert(64); });
    handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS);
    EXPECT_TRUE(logged("Too many bad pages flash_page:0x60"));
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_INVALID);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ABadPageInMidBlockStopsAndLeavesTheCardInvalid)
{
    fillAndFail(15);
    change([](sim::NvramCard& c) { c.faults.badPages.insert(37); });
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_FLASH_BAD_PAGE_MIDBLOCK);
    EXPECT_TRUE(logged("bad page found midblock page:0x25 value:0x00000000"));
    EXPECT_TRUE(logged("STATE CHANGE from flash to invalid"));
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_INVALID);
    expectRestored(15, 37);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ACrcFailureThatRereadsWellCountsOnlyTheRetry)
{
    fillAndFail(16);
    // The stored CRC of flash page 3 reads wrong once.
    change([](sim::NvramCard& c) { c.faults.flips.push_back(sim::NvramFlip{3, NVRAM_PAGE_CRC, 0, false}); });
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_SUCCESS);
    expectRestored(16, kPages);
    EXPECT_EQ(loggedStarting("FLASH CHECKSUM BAD page:0x2 calculated crc:0x"), 1u);
    // The page in lines of eight words.
    auto at = std::find_if(nvtest::lines().begin(), nvtest::lines().end(),
                           [](const std::string& l) { return l.rfind("FLASH CHECKSUM BAD", 0) == 0; });
    ASSERT_GE(nvtest::lines().end() - at, 67);
    EXPECT_EQ(at[1].size(), 64u);
    EXPECT_EQ(at[66].size(), 64u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_RECOVER_RETRIED), 1u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_RECOVER_FAILED), 0u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_ECC_CORRECTABLE), 0u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_ECC_UNCORRECTABLE), 0u);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_SDRAM);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ACrcFailureTwiceGoesOnAndEndsInvalid)
{
    fillAndFail(17);
    // Two bits of one ECC group of page 3 read wrong every time.
    change([](sim::NvramCard& c) {
        c.faults.flips.push_back(sim::NvramFlip{3, 8, 1, true});
        c.faults.flips.push_back(sim::NvramFlip{3, 12, 1, true});
    });
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_FLASH_CHECKSUM_BAD);
    EXPECT_EQ(loggedStarting("FLASH CHECKSUM BAD page:0x2 "), 2u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_RECOVER_RETRIED), 1u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_RECOVER_FAILED), 1u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_ECC_UNCORRECTABLE), 2u);
    // The chain goes on from the stored word: the later pages pass.
    EXPECT_EQ(loggedStarting("FLASH CHECKSUM BAD"), 2u);
    expectRestored(17, 3);
    std::vector<uint8_t> page3 = sim::nvramSdramPage(module(), 3);
    EXPECT_EQ(page3[8] ^ sim::nvramPatternByte(17, 3, 8), 2);
    for (uint32_t p = 4; p < kPages; ++p) {
        std::vector<uint8_t> page = sim::nvramSdramPage(module(), p);
        ASSERT_EQ(page[2047], sim::nvramPatternByte(17, p, 2047)) << p;
    }
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_INVALID);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, OneFlippedDataBitIsCorrectedWrittenBackAndPassesTheCrc)
{
    fillAndFail(18);
    change([](sim::NvramCard& c) { c.faults.flips.push_back(sim::NvramFlip{7, 100, 3, false}); });
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_SUCCESS);
    EXPECT_TRUE(logged("CORRECTABLE error at byte:bit 25:3 of block 0"));
    EXPECT_EQ(loggedStarting("FLASH CHECKSUM BAD"), 0u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_ECC_CORRECTABLE), 1u);
    // The status keeps the uncorrectable counter before the correctable one,
    // the EEPROM the other way round.
    nvram_status_t status;
    ASSERT_EQ(nvram_get_status(handle, &status, 0), NVRAM_SUCCESS);
    EXPECT_EQ(status.count.flash_ecc_correctable, 1u);
    EXPECT_EQ(status.count.flash_ecc_uncorrectable, 0u);
    expectRestored(18, kPages);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, TwoFlippedBitsOfAGroupAreUncorrectableAndRetried)
{
    fillAndFail(19);
    change([](sim::NvramCard& c) {
        c.faults.flips.push_back(sim::NvramFlip{9, 1025, 0, false});
        c.faults.flips.push_back(sim::NvramFlip{9, 1029, 6, false});
    });
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_SUCCESS);
    EXPECT_TRUE(logged("UNCORRECTABLE error in ECC block 5"));
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_ECC_UNCORRECTABLE), 1u);
    EXPECT_EQ(eeprom(NVRAM_EE_FLASH_RECOVER_RETRIED), 1u);
    expectRestored(19, kPages);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, RecoveryRefusesOtherFpgasAndGeometriesBeforeMapping)
{
    fillAndFail(20);
    // Major 6 would pass the ECC test of the loop, but recovery wants 5.
    change([](sim::NvramCard& c) {
        c.setReg(NVRAM_REG_CARD_VERSION, 0x10000);
        c.setReg(NVRAM_REG_FPGA_REVISION, 0x60000);
        c.setReg(NVRAM_REG_BATTERY_VOLTAGE, 4100);
    });
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_VERSION_MISMATCH);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_FLASH);
    ASSERT_EQ(nvram_close(handle), NVRAM_SUCCESS);

    change([](sim::NvramCard& c) { c.setReg(NVRAM_REG_FPGA_REVISION, 0x50100); });
    handle = openWritable();
    ASSERT_NE(handle, nullptr);
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_PAGE_SIZE, 2048);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_MMAP_FAILURE);
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_PAGE_SIZE, 0x7fffffff);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_MMAP_FAILURE);
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_PAGE_SIZE, 2112);
    sim::nvramSetEeprom(module(), NVRAM_EE_SDRAM_PAGE_SIZE, 4096);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_MMAP_FAILURE);
    sim::nvramSetEeprom(module(), NVRAM_EE_SDRAM_PAGE_SIZE, 2048);
    // Blocks beyond the memories: pages to restore wider than 32 bits.
    sim::nvramSetEeprom(module(), NVRAM_EE_VALID_BLOCKS, 0x7fffffff);
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_PAGES_PER_BLOCK, 0x40000);
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_EXCESSIVE_VALID_BLOCKS);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_FLASH);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, TransferFailureReturnedWhenAskedWithItsDump)
{
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    void* descr = plat::mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd, NVRAM_MMAP_DESCRIPTOR);
    void* host = plat::mmap(nullptr, 2048, PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd, NVRAM_MMAP_HOST_PAGE);
    ASSERT_NE(descr, MAP_FAILED);
    ASSERT_NE(host, MAP_FAILED);
    uint32_t descrBus, hostBus;
    std::memcpy(&descrBus, descr, 4);
    std::memcpy(&hostBus, host, 4);
    std::memset(host, 0x5a, 2048);
    auto* d = static_cast<nvramd_t*>(descr);
    EXPECT_EQ(nvram_memcpy(handle, d, descrBus, hostBus, 2048, 2048, NVRAM_OP_H2S, 0), NVRAM_SUCCESS);
    EXPECT_EQ(sim::nvramSdramPage(module(), 1), std::vector<uint8_t>(2048, 0x5a));
    change([](sim::NvramCard& c) { c.faults.transferError = NVRAM_DESCR_DESTINATION_BAD; });
    EXPECT_EQ(nvram_memcpy(handle, d, descrBus, hostBus, 0, 2048, NVRAM_OP_H2S, 0), NVRAM_DESCR_DESTINATION_BAD);
    EXPECT_TRUE(logged(" op               = 0x21"));
    EXPECT_TRUE(logged(" complete         = 0x1"));
    EXPECT_EQ(loggedStarting("0x00 = 0x"), 1u);
    plat::munmap(host, 2048);
    plat::munmap(descr, 64);
    change([](sim::NvramCard& c) { c.faults.transferError = 0; });
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, APushTheCardRefusesEndsTheClearAndTheRecovery)
{
    change([](sim::NvramCard& c) { c.faults.fifoFull = true; });
    nvram_t handle = open(NVRAM_MODE_READ_WRITE, NVRAM_DESCR_FIFO_FULL);
    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_SDRAM_CLEARED);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_WRITE_ENABLE);
    EXPECT_EQ(eeprom(NVRAM_EE_SDRAM_CLEAR), 0u);
    change([](sim::NvramCard& c) { c.faults.fifoFull = false; });
    ASSERT_EQ(nvram_close(handle), NVRAM_SUCCESS);

    fillAndFail(21);
    handle = openWritable();
    ASSERT_NE(handle, nullptr);
    change([](sim::NvramCard& c) { c.faults.fifoFull = true; });
    EXPECT_EQ(nvram_recover_flash_to_sdram(handle), NVRAM_DESCR_FIFO_FULL);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_INVALID);
    change([](sim::NvramCard& c) { c.faults.fifoFull = false; });
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

// A card whose microengine stops when a descriptor is pushed: it never
// completes.
class HaltOnPush : public plat::ForwardingPlatform {
public:
    HaltOnPush(plat::Platform& inner, sim::Module& module) : ForwardingPlatform(inner), module_(module) {}
    void storeRegister(volatile uint32_t*, uint32_t) override
    {
        sim::nvramUpdate(module_, [](sim::NvramCard& c) { c.faults.halted = true; });
    }

private:
    sim::Module& module_;
};

TEST_F(NvramCard, TransferThatStopsOrNeverEndsIsReturnedWhenAsked)
{
    if (kSlowPolls) GTEST_SKIP() << "a billion instrumented polls";
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    void* descr = plat::mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd, NVRAM_MMAP_DESCRIPTOR);
    ASSERT_NE(descr, MAP_FAILED);
    uint32_t descrBus;
    std::memcpy(&descrBus, descr, 4);
    auto* d = static_cast<nvramd_t*>(descr);

    change([](sim::NvramCard& c) { c.faults.transferHang = true; });
    EXPECT_EQ(nvram_memcpy(handle, d, descrBus, 0, 0x40000000, 64, NVRAM_OP_S2H, 0), NVRAM_DESCR_TIMED_OUT);
    EXPECT_TRUE(logged(" op               = 0x12"));
    change([](sim::NvramCard& c) {
        c.faults.transferHang = false;
        c.faults.fifoBusy = false;
        c.setReg(NVRAM_REG_SETUP, c.reg(NVRAM_REG_SETUP) & ~NVRAM_SETUP_FIFO_BUSY);
    });
    {
        HaltOnPush halting(*platform_, module());
        plat::ScopedPlatform scope(halting);
        nvtest::lines().clear();
        EXPECT_EQ(nvram_memcpy(handle, d, descrBus, 0, 0x40000000, 64, NVRAM_OP_S2H, 0), NVRAM_MICROENGINE_HALTED);
        EXPECT_TRUE(logged(" complete         = 0x0"));
        EXPECT_EQ(nvtest::loggedStarting("0x10 = 0x"), 1u);
    }
    plat::munmap(descr, 64);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

// ---- deliberate stops ----

using NvramCardDeathTest = NvramCard;

// Opens with the default logger, which writes to standard error.
nvram_t openQuiet(nvram_mode_t mode = NVRAM_MODE_READ_WRITE)
{
    nvram_t handle = nullptr;
    nvram_open(NVRAM_DEVICE, mode, &handle, nullptr);
    return handle;
}

class FailingMmap : public plat::ForwardingPlatform {
public:
    using ForwardingPlatform::ForwardingPlatform;
    void* mmap(void*, size_t, int, int, int, off_t) override
    {
        errno = ENOMEM;
        return MAP_FAILED;
    }
};

TEST_F(NvramCardDeathTest, RegisterMappingFailure)
{
    FailingMmap failing(*platform_);
    plat::ScopedPlatform scope(failing);
    nvram_t handle = nullptr;
    EXPECT_DEATH(nvram_open(NVRAM_DEVICE, NVRAM_MODE_MONITOR_ONLY, &handle, nullptr), "ptr != \\(\\(void \\*\\) -1\\)");
}

TEST_F(NvramCardDeathTest, ValidDataLostInSdram)
{
    change([](sim::NvramCard& c) { c.faults.sdramLost = true; });
    sim::nvramFill(module(), 1);
    sim::nvramPowerCycle(module());
    EXPECT_DEATH(openQuiet(), "valid data in sdram lost");
}

TEST_F(NvramCardDeathTest, ZeroPagesPerBlock)
{
    nvram_t handle = openQuiet();
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_PAGES_PER_BLOCK, 0);
    EXPECT_DEATH(nvram_set_valid_blocks(handle, 1), "flash_pages_per_block is zero");
    fillAndFail(2);
    ASSERT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_PAGES_PER_BLOCK, 0);
    EXPECT_DEATH(nvram_recover_flash_to_sdram(handle), "flash_pages_per_block is zero");
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCardDeathTest, FailedTransferDuringRecovery)
{
    fillAndFail(3);
    nvram_t handle = openQuiet();
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);
    change([](sim::NvramCard& c) { c.faults.transferError = NVRAM_DESCR_SOURCE_BAD; });
    EXPECT_DEATH(nvram_recover_flash_to_sdram(handle), "nvram_memcpy: DESCR_SOURCE_BAD \\(flash to sdram\\)");
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCardDeathTest, TransferThatNeverCompletesWhileClearingSdram)
{
    if (kSlowPolls) GTEST_SKIP() << "a billion instrumented polls";
    change([](sim::NvramCard& c) { c.faults.transferHang = true; });
    EXPECT_DEATH(openQuiet(), "nvram_memcpy: DESCR_TIMED_OUT \\(host to sdram\\)");
}

// Setup bit 10 does not take: the library stops rather than clear again at
// every open.
class DropClearedBit : public plat::ForwardingPlatform {
public:
    using ForwardingPlatform::ForwardingPlatform;
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        if (request == NVRAM_IOCTL_SET_SETUP_BITS) {
            uint32_t bits = *static_cast<uint32_t*>(arg) & ~NVRAM_SETUP_SDRAM_CLEARED;
            return ForwardingPlatform::ioctl(fd, request, &bits);
        }
        return ForwardingPlatform::ioctl(fd, request, arg);
    }
};

TEST_F(NvramCardDeathTest, SdramClearedBitThatDoesNotReadBack)
{
    DropClearedBit dropping(*platform_);
    plat::ScopedPlatform scope(dropping);
    EXPECT_DEATH(openQuiet(), "NVRAM_SETUP_SDRAM_CLEARED");
}

TEST_F(NvramCardDeathTest, UnknownAutoCopyFlagOnOtherCards)
{
    sim::nvramSetEeprom(module(), NVRAM_EE_AUTO_COPY_STATUS, 0x40);
    nvram_t handle = openQuiet(NVRAM_MODE_MONITOR_ONLY);
    ASSERT_NE(handle, nullptr);
    nvram_status_t status;
    EXPECT_DEATH(nvram_get_status(handle, &status, 0), "status->card_version == 0x20000");
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCardDeathTest, ValidityThatCannotBeRead)
{
    nvram_t handle = openQuiet(NVRAM_MODE_MONITOR_ONLY);
    ASSERT_NE(handle, nullptr);
    change([](sim::NvramCard& c) { c.faults.eepromTimeout = true; });
    EXPECT_DEATH(nvram_get_validity(handle), "rc == NVRAM_SUCCESS");
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

} // namespace

// The library against the simulated card: opening, reset, EEPROM, validity,
// valid blocks, status, closing and the PROM.
#include <cstring>

#include "nvram/nvram_card_fixture.h"

namespace {

using nvtest::NvramCard;
using nvtest::logged;
using nvtest::loggedStarting;

TEST_F(NvramCard, MonitoringOpenLeavesTheCardAloneAndRefusesChanges)
{
    nvram_t handle = open(NVRAM_MODE_MONITOR_ONLY);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->card_version, 0x30000u);
    EXPECT_TRUE(handle->voltage_check);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_REFRESH_RUNNING);
    EXPECT_EQ(eeprom(NVRAM_EE_SDRAM_CLEAR), 0u);
    EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_FLASH), NVRAM_MODE_BAD);
    EXPECT_EQ(nvram_soft_reset(handle), NVRAM_MODE_BAD);
    EXPECT_EQ(nvram_set_eeprom(handle, 200, 1), NVRAM_MODE_BAD);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_EMPTY);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, FirstReadWriteOpenStartsRefreshAndClearsSdramOnce)
{
    // Old data in SDRAM that nothing claims.
    sim::nvramFill(module(), 0, uint8_t{0xab});
    change([](sim::NvramCard& c) {
        c.setReg(NVRAM_REG_SETUP, c.reg(NVRAM_REG_SETUP) & ~(NVRAM_SETUP_SDRAM_VALID | NVRAM_SETUP_SDRAM_CLEARED |
                                                             NVRAM_SETUP_REFRESH_RUNNING));
        c.setWord(NVRAM_EE_VALIDITY, NVRAM_VALIDITY_EMPTY);
    });
    nvram_t handle = open();
    ASSERT_NE(handle, nullptr);
    uint32_t bits = setupBits();
    EXPECT_TRUE(bits & NVRAM_SETUP_REFRESH_RUNNING);
    EXPECT_TRUE(bits & NVRAM_SETUP_SDRAM_CLEARED);
    EXPECT_TRUE(bits & NVRAM_SETUP_MICROENGINE_RUN);
    EXPECT_FALSE(bits & NVRAM_SETUP_WRITE_ENABLE);
    EXPECT_EQ(eeprom(NVRAM_EE_SDRAM_CLEAR), 1u);
    for (uint32_t page : {0u, 255u, 511u})
        EXPECT_EQ(sim::nvramSdramPage(module(), page), std::vector<uint8_t>(2048, 0)) << page;
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);

    handle = open();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(eeprom(NVRAM_EE_SDRAM_CLEAR), 1u);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, MissedRefreshIsCountedAndTheWritableStateComesBack)
{
    change([](sim::NvramCard& c) { c.faults.missedRefresh = true; });
    nvram_t handle = open();
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(logged("warning: sdram wasn't refreshed on schedule"));
    EXPECT_EQ(eeprom(NVRAM_EE_SDRAM_REFRESH_FAILED), 1u);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_WRITE_ENABLE);

    ASSERT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_soft_reset(handle), NVRAM_SUCCESS);
    EXPECT_EQ(eeprom(NVRAM_EE_SDRAM_REFRESH_FAILED), 2u);
    EXPECT_TRUE(setupBits() & NVRAM_SETUP_WRITE_ENABLE);

    // The counter cannot be written: the reset stops there.
    change([](sim::NvramCard& c) { c.faults.stuck.insert(NVRAM_EE_SDRAM_REFRESH_FAILED); });
    EXPECT_EQ(nvram_soft_reset(handle), NVRAM_EEPROM_VERIFY_FAILED);
    EXPECT_TRUE(logged("couldn't increment sdram refresh failed counter"));
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, OpenRefusesDriversAndCardsItDoesNotMatch)
{
    nvram_t handle = nullptr;
    EXPECT_EQ(nvram_open("/dev/tav_nvram9", NVRAM_MODE_READ_WRITE, &handle, nvtest::capture), NVRAM_OPEN_FAILED);
    EXPECT_EQ(handle, nullptr);

    change([](sim::NvramCard& c) { c.driverVersion = 0x20014; });
    EXPECT_EQ(open(NVRAM_MODE_MONITOR_ONLY, NVRAM_VERSION_MISMATCH), nullptr);
    EXPECT_TRUE(logged("driver_version == 0x00020014"));

    change([](sim::NvramCard& c) {
        c.driverVersion = 0x2FFFF;
        c.setReg(NVRAM_REG_CARD_VERSION, 0x20000);
    });
    EXPECT_EQ(open(NVRAM_MODE_MONITOR_ONLY, NVRAM_VERSION_MISMATCH), nullptr);
    EXPECT_TRUE(logged("card_version == 0x00020000"));
    EXPECT_TRUE(logged("fpga_version == 0x00050100"));

    // A 33 MHz slot: an error, with the handle open for the caller to close.
    change([](sim::NvramCard& c) {
        c.setReg(NVRAM_REG_CARD_VERSION, 0x30000);
        c.faults.slot33 = true;
    });
    handle = open(NVRAM_MODE_READ_WRITE, NVRAM_33MHZ_PCI);
    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_REFRESH_RUNNING);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, LowVoltageAtResetIsTriedTwentyFiveTimesFiveSecondsApart)
{
    change([](sim::NvramCard& c) {
        c.faults.autoCopy = true;
        c.setReg(NVRAM_REG_BATTERY_VOLTAGE, 3603);
    });
    time_t before = plat::time(nullptr);
    nvram_t handle = open(NVRAM_MODE_READ_WRITE, NVRAM_VOLTAGE_LOW);
    EXPECT_EQ(loggedStarting("NVRAM soft_reset failed: NVRAM_VOLTAGE_LOW"), 25u);
    EXPECT_EQ(plat::time(nullptr) - before, 24 * 5);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, VoltageLimitIsInclusiveOnTheFirstFamilyOnly)
{
    auto writableAt = [this](uint32_t card, uint32_t raw) {
        change([&](sim::NvramCard& c) {
            c.setReg(NVRAM_REG_CARD_VERSION, card);
            c.setReg(NVRAM_REG_FPGA_REVISION, card == 0x20000 ? 0x20000 : 0x50100);
            c.setReg(NVRAM_REG_BATTERY_VOLTAGE, 4100);
        });
        nvram_t handle = open();
        EXPECT_NE(handle, nullptr);
        if (!handle) return NVRAM_OPEN_FAILED;
        change([&](sim::NvramCard& c) { c.setReg(NVRAM_REG_BATTERY_VOLTAGE, raw); });
        nvram_error_t rc = nvram_set_nvram_writable(handle, 1);
        nvram_set_nvram_writable(handle, 0);
        EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
        return rc;
    };
    EXPECT_EQ(writableAt(0x10000, 4014), NVRAM_SUCCESS);
    EXPECT_EQ(writableAt(0x10000, 4013), NVRAM_VOLTAGE_LOW);
    EXPECT_EQ(writableAt(0x30000, 3604), NVRAM_SUCCESS);
    EXPECT_EQ(writableAt(0x30000, 3603), NVRAM_VOLTAGE_LOW);
    // The 0x20000 family does not check.
    EXPECT_EQ(writableAt(0x20000, 0), NVRAM_SUCCESS);
}

TEST_F(NvramCard, RefreshThatNeverStartsTimesOut)
{
    change([](sim::NvramCard& c) { c.faults.refreshNeverStarts = true; });
    nvram_t handle = open(NVRAM_MODE_READ_WRITE, NVRAM_REFRESH_ENABLE_TIMEOUT);
    EXPECT_TRUE(logged("SDRAM Initialization Completion Failure"));
    EXPECT_EQ(loggedStarting("0x10 = 0x"), 1u);
    EXPECT_EQ(loggedStarting("0xb0 = 0x"), 1u);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, EepromAddressesValuesParityAndDriverFailures)
{
    nvram_t handle = open();
    ASSERT_NE(handle, nullptr);
    uint32_t word = 0;
    EXPECT_EQ(nvram_set_eeprom(handle, 200, 5), NVRAM_NOT_WRITABLE);
    ASSERT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);

    EXPECT_EQ(nvram_get_eeprom(handle, 512, &word), NVRAM_EEPROM_ADDRESS_BAD);
    EXPECT_EQ(nvram_get_eeprom(handle, -4, &word), NVRAM_EEPROM_ADDRESS_BAD);
    EXPECT_EQ(nvram_set_eeprom(handle, 512, 1), NVRAM_EEPROM_ADDRESS_BAD);
    EXPECT_EQ(nvram_set_eeprom(handle, 200, 0x80000000u), NVRAM_EEPROM_INVALID_VALUE);
    EXPECT_TRUE(nvtest::lines().empty());

    // The driver refuses an address the library lets through.
    EXPECT_EQ(nvram_get_eeprom(handle, 510, &word), NVRAM_IOCTL_ERROR);
    EXPECT_TRUE(logged("READE2: ioctl failed: Invalid argument, errno 22"));
    EXPECT_EQ(nvram_set_eeprom(handle, 510, 1), NVRAM_IOCTL_ERROR);
    EXPECT_TRUE(logged("WRITEE2: ioctl failed: Invalid argument, errno 22"));

    EXPECT_EQ(nvram_set_eeprom(handle, 200, 0x7fffffffu), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_get_eeprom(handle, 200, &word), NVRAM_SUCCESS);
    EXPECT_EQ(word, 0x7fffffffu);

    sim::nvramSetEeprom(module(), 204, 0x80001234u);
    EXPECT_EQ(nvram_get_eeprom(handle, 204, &word), NVRAM_EEPROM_PARITY_ERROR);
    EXPECT_EQ(word, 0x1234u);

    change([](sim::NvramCard& c) { c.faults.stuck.insert(208); });
    EXPECT_EQ(nvram_set_eeprom(handle, 208, 9), NVRAM_EEPROM_VERIFY_FAILED);

    // A time-out is the request's result 22, with no line.
    nvtest::lines().clear();
    change([](sim::NvramCard& c) { c.faults.eepromTimeout = true; });
    EXPECT_EQ(nvram_get_eeprom(handle, 0, &word), NVRAM_EEPROM_TIME_OUT);
    EXPECT_EQ(nvram_set_eeprom(handle, 200, 1), NVRAM_EEPROM_TIME_OUT);
    EXPECT_TRUE(nvtest::lines().empty());
    change([](sim::NvramCard& c) { c.faults.eepromTimeout = false; });
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ValidityLivesInTheSetupRegisterAndTheEeprom)
{
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_set_validity(handle, static_cast<nvram_validity_t>(3)), NVRAM_VALIDITY_BAD);
    EXPECT_EQ(nvtest::lines(), std::vector<std::string>{"STATE CHANGE from empty to unknown"});
    EXPECT_EQ(eeprom(NVRAM_EE_VALIDITY), 4u);

    EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_SDRAM), NVRAM_SUCCESS);
    EXPECT_TRUE(logged("STATE CHANGE from empty to sdram"));
    EXPECT_TRUE(setupBits() & NVRAM_SETUP_SDRAM_VALID);
    EXPECT_EQ(eeprom(NVRAM_EE_VALIDITY), 0u);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_SDRAM);

    EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_FLASH), NVRAM_SUCCESS);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_SDRAM_VALID);
    EXPECT_EQ(eeprom(NVRAM_EE_VALIDITY), 2u);

    // No change, no line.
    nvtest::lines().clear();
    EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_FLASH), NVRAM_SUCCESS);
    EXPECT_TRUE(nvtest::lines().empty());
    EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_INVALID), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_get_validity(handle), NVRAM_VALIDITY_INVALID);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ValidBlocksUpToFlashBlocksLessTheSpareOnes)
{
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    // 1024 pages of 32 per block, 2 spare: 29 at most.
    EXPECT_EQ(nvram_set_valid_blocks(handle, 29), NVRAM_SUCCESS);
    EXPECT_EQ(eeprom(NVRAM_EE_VALID_BLOCKS), 29u);
    EXPECT_EQ(nvram_set_valid_blocks(handle, 30), NVRAM_EXCESSIVE_VALID_BLOCKS);
    EXPECT_EQ(eeprom(NVRAM_EE_VALID_BLOCKS), 29u);

    // More spare blocks than blocks: nothing is allowed, not a wrapped limit.
    sim::nvramSetEeprom(module(), NVRAM_EE_FLASH_BAD_BLOCK_MAX, 40);
    EXPECT_EQ(nvram_set_valid_blocks(handle, 0), NVRAM_EXCESSIVE_VALID_BLOCKS);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, CloseWithABusyFifoKeepsTheHandleUsable)
{
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    change([](sim::NvramCard& c) { c.faults.fifoPending = true; });
    EXPECT_EQ(nvram_close(handle), NVRAM_DESCR_FIFO_NOT_EMPTY);
    nvram_status_t status;
    EXPECT_EQ(nvram_get_status(handle, &status, 1), NVRAM_SUCCESS);
    EXPECT_EQ(status.nvramd_fifo_entries, 1u);
    change([](sim::NvramCard& c) {
        c.faults.fifoPending = false;
        c.faults.fifoBusy = true;
    });
    EXPECT_EQ(nvram_close(handle), NVRAM_DESCR_FIFO_NOT_EMPTY);
    EXPECT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_INVALID), NVRAM_SUCCESS);
    change([](sim::NvramCard& c) { c.faults.fifoBusy = false; });
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, StatusAfterAnAutoCopy)
{
    fillAndFail(3);
    nvram_t handle = open(NVRAM_MODE_MONITOR_ONLY);
    ASSERT_NE(handle, nullptr);
    nvram_status_t status;
    ASSERT_EQ(nvram_get_status(handle, &status, 0), NVRAM_SUCCESS);
    EXPECT_EQ(status.card_version, 0x30000u);
    EXPECT_EQ(status.firmware_version, 0x50100u);
    EXPECT_EQ(status.driver_version, 0x20016u);
    EXPECT_EQ(status.sdram_page_size, 2048u);
    EXPECT_EQ(status.flash_page_size, 2112u);
    EXPECT_EQ(status.flash_pages_per_block, 32u);
    EXPECT_EQ(status.validity, NVRAM_VALIDITY_FLASH);
    EXPECT_EQ(status.valid_blocks, 16u);
    EXPECT_EQ(status.auto_copy_status.value, 0u);
    EXPECT_FLOAT_EQ(status.auto_copy_final_volts, 3900 * 0.001220703125f);
    EXPECT_FLOAT_EQ(status.battery_volts, 3900 * 0.001220703125f);
    EXPECT_TRUE(status.battery_present());
    EXPECT_FALSE(status.microengine_halt());
    EXPECT_EQ(status.count.auto_copy_succeeded, 1u);
    EXPECT_EQ(status.count.nvram_power_down, 1u);

    // Flags tested from bit 0 up: the lowest set one names the result.
    sim::nvramSetEeprom(module(), NVRAM_EE_AUTO_COPY_STATUS, 0x24);
    ASSERT_EQ(nvram_get_status(handle, &status, 0), NVRAM_SUCCESS);
    EXPECT_EQ(status.auto_copy_status.detail().error, NVRAM_POWER_FAILED);
    sim::nvramSetEeprom(module(), NVRAM_EE_AUTO_COPY_STATUS, 0x21);
    ASSERT_EQ(nvram_get_status(handle, &status, 0), NVRAM_SUCCESS);
    EXPECT_EQ(status.auto_copy_status.detail().error, NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS);
    // A word with its parity bit: the read's error, no guess.
    sim::nvramSetEeprom(module(), NVRAM_EE_STATE_VERSION, 0x80000001u);
    EXPECT_EQ(nvram_get_status(handle, &status, 0), NVRAM_EEPROM_PARITY_ERROR);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, UnknownAutoCopyFlagsAreToleratedOnTheSecondFamily)
{
    change([](sim::NvramCard& c) {
        c.setReg(NVRAM_REG_CARD_VERSION, 0x20000);
        c.setReg(NVRAM_REG_FPGA_REVISION, 0x20000);
    });
    sim::nvramSetEeprom(module(), NVRAM_EE_AUTO_COPY_STATUS, 0x40);
    nvram_t handle = open(NVRAM_MODE_MONITOR_ONLY);
    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(handle->voltage_check);
    nvram_status_t status;
    ASSERT_EQ(nvram_get_status(handle, &status, 0), NVRAM_SUCCESS);
    EXPECT_EQ(status.auto_copy_status.value, 0u);
    EXPECT_FLOAT_EQ(status.battery_volts, 3900 * 0.001611328125f);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ProgrammingThePromClosesTheHandleAndMapsThePlayersAnswer)
{
    temp_.put("/etc/marrowby/nvram.xsvf", "xsvf");
    const char* file = "/etc/marrowby/nvram.xsvf";
    auto program = [&](const char* name) {
        nvram_t handle = openWritable();
        EXPECT_NE(handle, nullptr);
        return handle ? nvram_program_fpga_prom(handle, name) : NVRAM_OPEN_FAILED;
    };
    EXPECT_EQ(program(file), NVRAM_SUCCESS);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_PROM_MODE);
    EXPECT_EQ(program("/etc/marrowby/missing.xsvf"), NVRAM_PROM_FILE_ERROR);
    change([](sim::NvramCard& c) {
        c.faults.prom = 112;
        c.faults.promOnce = true;
    });
    EXPECT_EQ(program(file), NVRAM_SUCCESS);  // run again once
    change([](sim::NvramCard& c) { c.faults.prom = 112; });
    EXPECT_EQ(program(file), NVRAM_PROM_VERIFY_FAILED);
    change([](sim::NvramCard& c) { c.faults.prom = 7; });
    EXPECT_EQ(program(file), NVRAM_PROM_VERIFY_FAILED);

    // Data in SDRAM: refused, and the handle stays open.
    nvram_t handle = openWritable();
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(nvram_set_validity(handle, NVRAM_VALIDITY_SDRAM), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_program_fpga_prom(handle, file), NVRAM_VALIDITY_BAD);
    EXPECT_FALSE(setupBits() & NVRAM_SETUP_PROM_MODE);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
}

TEST_F(NvramCard, ChecksOfTheSmallCalls)
{
    nvram_t handle = open();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvram_push_chain(handle, 0x40000000), NVRAM_NOT_WRITABLE);
    EXPECT_EQ(nvram_set_mrm_threshold(handle, 64), NVRAM_NOT_WRITABLE);
    ASSERT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_set_mrm_threshold(handle, 64), NVRAM_SUCCESS);
    EXPECT_EQ(card().reg(NVRAM_REG_MRM_THRESHOLD), 64u);
    EXPECT_EQ(nvram_set_interrupt_mask(handle, nvram_interrupt_t{0x3f007f}), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_set_interrupt_mask(handle, nvram_interrupt_t{0x80}), NVRAM_INTERRUPT_INVALID);
    change([](sim::NvramCard& c) { c.faults.fifoFull = true; });
    EXPECT_EQ(nvram_push_chain(handle, 0x40000000), NVRAM_DESCR_FIFO_FULL);
    change([](sim::NvramCard& c) {
        c.faults.fifoFull = false;
        c.faults.halted = true;
        c.setReg(NVRAM_REG_SETUP, c.reg(NVRAM_REG_SETUP) & ~NVRAM_SETUP_MICROENGINE_RUN);
    });
    EXPECT_EQ(nvram_push_chain(handle, 0x40000000), NVRAM_MICROENGINE_HALTED);
    int address = 0, length = 0;
    EXPECT_EQ(nvram_get_eeprom_user_space(handle, &address, &length), NVRAM_VERSION_MISMATCH);  // card major 3
    EXPECT_EQ(nvram_battery_power(handle, 1), NVRAM_SUCCESS);
    EXPECT_TRUE(setupBits() & NVRAM_SETUP_FORCE_BATTERY);
    EXPECT_EQ(nvram_close(handle), NVRAM_SUCCESS);
    EXPECT_EQ(nvram_get_number_of_devices(), 1);
}

} // namespace

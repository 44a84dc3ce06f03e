// The two controller families through the flat functions: the command
// bytes, the transport's rules, the texts, the settings and what the 7000
// does not have.
#include <cerrno>

#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"
#include "tw_fixture.h"

using twtest::controllerId;
using twtest::Recorder;
using twtest::TwModule;

namespace {

uint16_t le16(const std::vector<uint8_t>& b, size_t at) { return uint16_t(b[at] | (b[at + 1] << 8)); }
uint32_t le32(const std::vector<uint8_t>& b, size_t at) { return le16(b, at) | uint32_t(le16(b, at + 2)) << 16; }

sim::tw::TwFault firmwareFault(uint32_t status, uint16_t code, const std::string& text)
{
    sim::tw::TwFault f;
    f.kind = sim::tw::TwFault::Kind::Firmware;
    f.status = status;
    f.code = code;
    f.text = text;
    return f;
}

} // namespace

TEST(TwController, TheCommandBytesOfAParameterReadOnBothFamilies)
{
    {
        TwModule t(2);
        t.set(1, "model", "  Ctl 4-port ");
        Recorder rec(t.p);
        plat::ScopedPlatform scope(rec);
        char model[TW_MODEL_SIZE];
        ASSERT_EQ(tw_get_model(controllerId(1), model), 0);
        EXPECT_STREQ(model, "Ctl 4-port") << "outer spaces cut, the inner one kept";
        ASSERT_EQ(rec.calls.size(), 2u) << "the compatibility read, then the model";
        for (const auto& call : rec.calls)
            EXPECT_EQ(call.request, 0x1Fu);
        const auto& b = rec.calls[1].bytes;
        EXPECT_EQ(le32(b, 0), 20u);
        EXPECT_EQ(b[512], 0x52);
        EXPECT_EQ(b[513], 4);
        EXPECT_EQ(b[515] & 0x0F, 0);
        EXPECT_EQ(le16(b, 518), 1);
        EXPECT_EQ(le16(b, 1024), 1026);
        EXPECT_EQ(b[1026], 8);
        EXPECT_EQ(b[1027], 16);
        EXPECT_EQ(rec.calls[0].bytes[1026], 11) << "compatibility";
    }
    {
        TwModule t(9);
        Recorder rec(t.p);
        plat::ScopedPlatform scope(rec);
        char model[TW_MODEL_SIZE];
        ASSERT_EQ(tw_get_model(controllerId(0), model), 0);
        ASSERT_EQ(rec.calls.size(), 2u);
        const auto& b = rec.calls[1].bytes;
        EXPECT_EQ(rec.calls[1].request, 264u);
        EXPECT_EQ(le32(b, 0), 264u);
        EXPECT_EQ(le32(b, 20), 72u);
        EXPECT_EQ(b[512 + 124], 128);
        EXPECT_EQ(b[512 + 128], 0x52);
        EXPECT_EQ(b[512 + 129], 4) << "a 2-word scatter list entry plus 2";
        EXPECT_EQ(le16(b, 512 + 134), 1);
        EXPECT_EQ(le16(b, 1536), 0x8000 | 1026);
        EXPECT_EQ(le16(b, 1538), 8);
        EXPECT_EQ(le16(b, 1540), 64);
    }
}

TEST(TwController, TextsAreTerminatedWithinTheirSizeWhateverTheControllerGives)
{
    TwModule t(9);
    const std::string longModel(80, 'M');
    t.set(0, "model", longModel);
    char model[TW_MODEL_SIZE];
    std::memset(model, 'x', sizeof model);
    ASSERT_EQ(tw_get_model(controllerId(0), model), 0);
    EXPECT_EQ(std::string(model), std::string(63, 'M'));

    t.set(0, "bbu-serial", std::string(40, 'S'));
    char serial[TW_SERIAL_NUMBER_SIZE];
    ASSERT_EQ(tw_get_bbu_serial_number(controllerId(0), serial), 0);
    EXPECT_EQ(std::string(serial), std::string(31, 'S'));

    sim::tw::TwFault garbage;
    garbage.kind = sim::tw::TwFault::Kind::Answer;
    garbage.answer = "garbage";
    t.arm(0, garbage);
    char date[TW_DATE_SIZE];
    std::memset(date, 'x', sizeof date);
    c9000.get_bbu_last_battery_test_date(controllerId(0), date);
    EXPECT_LT(std::strlen(date), sizeof date);

    char version[TW_DRIVER_VERSION_SIZE];
    ASSERT_EQ(tw_get_driver_version(controllerId(0), version), 0);
    EXPECT_EQ(std::string(version), sim::tw::twView(t.p.module()).controllers()[0].get("driver-version"));
}

TEST(TwController, ABusyNineThousandDriverIsTriedAThousandTimesThenItsStatusRead)
{
    TwModule t(9);
    char model[64];
    // 999 refusals: the thousandth try gets through.
    t.p.arm(sim::Fault::failing(sim::Op::Ioctl, "/dev/twa0", 1, EBUSY, 999));
    tw_api_clear_error();
    uint64_t start = twtest::nowMicros();
    std::memset(model, 'x', sizeof model);
    EXPECT_EQ(c9000.get_parameter(controllerId(0), model, 64, 1026, 8, 64), 0);
    EXPECT_EQ(t.ioctls("/dev/twa0"), 1000u);
    EXPECT_NE(model[0], 0);
    EXPECT_NEAR(double(twtest::nowMicros() - start), 999000.0, 20000.0);

    // 1000 refusals: the call goes on with the status in its own buffer,
    // which nobody wrote, and so without an error of its own.
    t.p.resetCalls();
    t.p.arm(sim::Fault::failing(sim::Op::Ioctl, "/dev/twa0", 1, EBUSY, 1000));
    start = twtest::nowMicros();
    std::memset(model, 'x', sizeof model);
    EXPECT_EQ(c9000.get_parameter(controllerId(0), model, 64, 1026, 8, 64), 0);
    EXPECT_EQ(t.ioctls("/dev/twa0"), 1000u);
    EXPECT_EQ(model[0], 0) << "the data of the untouched buffer";
    EXPECT_EQ(tw_api_error.valid_error_flags, 0u);
    EXPECT_NEAR(double(twtest::nowMicros() - start), 1000000.0, 20000.0);
}

TEST(TwController, DriverAndFirmwareStatusesOfBothFamilies)
{
    TwModule t(9);
    // 4099 ends the call with 0 and the caller's buffer as it was.
    sim::tw::TwFault driver;
    driver.kind = sim::tw::TwFault::Kind::Driver;
    driver.status = 4099;
    t.arm(0, driver);
    char buffer[64];
    std::memset(buffer, 0xAB, sizeof buffer);
    tw_api_clear_error();
    EXPECT_EQ(c9000.get_parameter(controllerId(0), buffer, 64, 1026, 8, 64), 0);
    EXPECT_EQ(uint8_t(buffer[0]), 0xAB);
    EXPECT_EQ(uint8_t(buffer[63]), 0xAB);
    EXPECT_EQ(tw_api_error.valid_error_flags, 0u);

    // Another driver status is the driver's error.
    driver.status = 0x1234;
    t.arm(0, driver);
    EXPECT_EQ(c9000.get_parameter(controllerId(0), buffer, 64, 1026, 8, 64), -1);
    EXPECT_EQ(tw_api_error.valid_error_flags, 0x20004u);
    EXPECT_EQ(tw_api_error.driver_error_code, 0x1234u);

    // A firmware error: its code from 22, its text from 26 even unterminated.
    tw_api_clear_error();
    t.arm(0, firmwareFault(0x0F, 0x010F, std::string(120, 'e')));
    EXPECT_EQ(c9000.get_parameter(controllerId(0), buffer, 64, 1026, 8, 64), -1);
    EXPECT_EQ(tw_api_error.valid_error_flags, 0x20008u);
    EXPECT_EQ(tw_api_error.controller_error_code, 0x010Fu);
    EXPECT_EQ(std::string(tw_api_error.additional_data), std::string(98, 'e'));

    // The 7000's status gives 1 as the controller's code, whatever it is.
    TwModule t7(2);
    tw_api_clear_error();
    t7.arm(1, firmwareFault(0xC5, 0x00C5, "bad"));
    t7.arm(1, firmwareFault(0xC5, 0x00C5, "bad"));
    char model[TW_MODEL_SIZE];
    EXPECT_EQ(c7000.get_model(controllerId(0), model), -1);
    EXPECT_EQ(tw_api_error.valid_error_flags, 0x10008u);
    EXPECT_EQ(tw_api_error.controller_error_code, 1u);
}

TEST(TwController, WhatTheSevenThousandLacksIsNotSupported)
{
    TwModule t(2);
    int value = 0;
    tw_api_set_error(TW_ERROR_FLAG_OS, 0, 5, 0, 0, nullptr);
    EXPECT_EQ(tw_bbu_is_present(controllerId(0), &value), -1);
    EXPECT_EQ(tw_api_error.valid_error_flags, TW_ERROR_FLAG_API) << "cleared first";
    EXPECT_EQ(tw_api_error.api_error_code, 2u);
    tw_task_schedule_type schedule {};
    EXPECT_EQ(tw_get_task_schedule(controllerId(0), &schedule), -1);
    EXPECT_EQ(tw_set_stagger_time(controllerId(0), 2), -1);
    EXPECT_EQ(tw_set_spinups_allowed(controllerId(0), 99), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 2u) << "not supported before out of range";
    EXPECT_EQ(tw_get_selftest_flags(controllerId(0), &value), -1);
    EXPECT_EQ(tw_enable_rebuild_task_schedule(controllerId(0)), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 2u);

    // One background task rate serves rebuild and verify.
    EXPECT_EQ(tw_set_background_rebuild_rate(controllerId(1), 4), 0);
    ASSERT_EQ(tw_get_background_verify_rate(controllerId(1), &value), 0);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(tw_set_background_verify_rate(controllerId(1), 2), 0);
    ASSERT_EQ(tw_get_background_rebuild_rate(controllerId(1), &value), 0);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(tw_set_background_rebuild_rate(controllerId(1), 6), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 45u);

    // The port scan: API code 24 at the number of ports.
    int ports = 0;
    ASSERT_EQ(tw_get_number_of_ports(controllerId(1), &ports), 0);
    tw_id_type port;
    tw_create_port_id(1, ports, &port);
    EXPECT_EQ(c7000.ioctl_portscan(port), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 24u);
    tw_create_port_id(1, ports - 1, &port);
    Recorder rec(t.p);
    plat::ScopedPlatform scope(rec);
    EXPECT_EQ(c7000.ioctl_portscan(port), 0);
    ASSERT_EQ(rec.calls.size(), 2u);
    const auto& b = rec.calls[1].bytes;
    EXPECT_EQ(b[512], 0x06);
    EXPECT_EQ(b[513], 3);
    EXPECT_EQ(le32(b, 520), 1u << (ports - 1));

    char version[TW_DRIVER_VERSION_SIZE];
    ASSERT_EQ(tw_get_driver_version(controllerId(1), version), 0);
    EXPECT_NE(version[0], 0);
}

TEST(TwController, TheNineThousandsSettingsAndScheduleRoundTrip)
{
    TwModule t(9);
    const tw_id_type c = controllerId(0);
    int value = 0;
    EXPECT_EQ(tw_set_background_rebuild_rate(c, 1), 0);
    EXPECT_EQ(tw_set_background_verify_rate(c, 5), 0);
    ASSERT_EQ(tw_get_background_rebuild_rate(c, &value), 0);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(tw_get_background_verify_rate(c, &value), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(tw_set_background_verify_rate(c, 0), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 45u);
    EXPECT_EQ(tw_set_spinups_allowed(c, 17), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 57u);
    EXPECT_EQ(tw_set_stagger_time(c, 61), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 58u);
    EXPECT_EQ(tw_set_spinups_allowed(c, 16), 0);
    EXPECT_EQ(tw_set_stagger_time(c, 0), 0);

    tw_task_schedule_type schedule {};
    for (int d = 0; d < TW_SCHEDULE_DAYS; ++d)
        schedule.day[d] = {uint16_t(d * 1440 + 3), {uint16_t(d * 1440), 60}, {uint16_t(d * 1440 + 360), 120}};
    ASSERT_EQ(tw_set_task_schedule(c, &schedule), 0);
    tw_task_schedule_type back {};
    ASSERT_EQ(tw_get_task_schedule(c, &back), 0);
    EXPECT_EQ(std::memcmp(&schedule, &back, sizeof back), 0);

    tw_task_window_type window {4320 + 30, 90};
    ASSERT_EQ(tw_set_verify_task_item(c, 3, window), 0);
    ASSERT_EQ(tw_get_task_schedule(c, &back), 0);
    schedule.day[3].verify = window;
    EXPECT_EQ(std::memcmp(&schedule, &back, sizeof back), 0) << "one day's window changed";
    EXPECT_EQ(tw_get_rebuild_task_item(c, 7, &window), -1);

    EXPECT_EQ(tw_disable_verify_task_schedule(c), 0);
    ASSERT_EQ(tw_get_verify_schedule_state(c, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(tw_set_selftest_flags(c, 0xFFFF), 0);
    ASSERT_EQ(tw_get_selftest_flags(c, &value), 0);
    EXPECT_EQ(value, 0xFFFF);

    ASSERT_EQ(tw_bbu_is_present(c, &value), 0);
    EXPECT_EQ(c9000.aquire_write_lock(c), 0);
    EXPECT_EQ(c9000.release_write_lock(c), 0);
}

TEST(TwController, TheBatteryOfTheNineThousand)
{
    TwModule t(9);
    const tw_id_type c = controllerId(0);
    t.set(0, "install-date", "15-Mar-2006");
    t.set(0, "charge-voltage", "3");
    t.set(0, "battery-capacity", "300");
    t.set(0, "test-seconds", "120");
    char date[TW_DATE_SIZE];
    ASSERT_EQ(tw_get_bbu_battery_installation_date(c, date), 0);
    EXPECT_STREQ(date, "15-Mar-2006");
    int value = -1;
    ASSERT_EQ(tw_get_bbu_battery_charge_voltage(c, &value), 0);
    EXPECT_EQ(value, 3);
    ASSERT_EQ(tw_get_bbu_battery_capacity(c, &value), 0);
    EXPECT_EQ(value, 300) << "a 16-bit number";

    EXPECT_EQ(tw_bbu_disable(c), 0);
    EXPECT_EQ(sim::tw::twView(t.p.module()).controllers()[0].get("bbu-enabled"), "0");
    EXPECT_EQ(tw_bbu_enable(c), 0);
    ASSERT_EQ(tw_bbu_test_battery(c), 0);
    ASSERT_EQ(tw_bbu_battery_test_in_progress(c, &value), 0);
    EXPECT_EQ(value, 1);
    plat::sleep(121);
    ASSERT_EQ(tw_bbu_battery_test_in_progress(c, &value), 0);
    EXPECT_EQ(value, 0);
    ASSERT_EQ(tw_get_bbu_last_battery_test_date(c, date), 0);
    EXPECT_EQ(std::string(date), sim::tw::dateText(plat::time(nullptr)));
}

TEST(TwController, TheLockIsAskedTenTimesAndTheLogsComeWhole)
{
    TwModule t(9);
    const tw_id_type c = controllerId(0);
    sim::tw::twView(t.p.module()).update(0, [](sim::tw::Controller& ctl) {
        ctl.lockHolder = "another";
        ctl.lockExpires = ~uint64_t(0) >> 1;
        return true;
    });
    t.p.resetCalls();
    tw_api_clear_error();
    EXPECT_EQ(c9000.aquire_read_lock(c), -1);
    EXPECT_EQ(t.ioctls("/dev/twa0"), 10u);
    EXPECT_EQ(tw_api_error.valid_error_flags & 0x20004u, 0x20004u);

    t.set(0, "diagnostic-log", "first line\nsecond line");
    unsigned char log[8];
    int length = sizeof log;
    ASSERT_EQ(tw_get_diagnostic_log(c, log, &length), 0);
    EXPECT_EQ(length, 8);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(log), 8), "first li");

    TwModule t7(2);
    t7.set(1, "diagnostic-log", "seven");
    unsigned char big[2048];
    length = sizeof big;
    ASSERT_EQ(tw_get_diagnostic_log(controllerId(0), big, &length), 0);
    EXPECT_EQ(length, 1024) << "the whole log record";
    EXPECT_EQ(std::string(reinterpret_cast<char*>(big)), "seven");
}

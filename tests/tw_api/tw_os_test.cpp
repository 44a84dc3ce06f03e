// The Linux side of the controller API: the scan at load, the nodes, the
// hosts of the two drivers, the compatibility check and the kernel's list
// of units.
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "sim/load_guard.h"
#include "tw_api/tw_api_osil.h"
#include "tw_fixture.h"

using twtest::controllerId;
using twtest::TwModule;

namespace {

std::string kernelList()
{
    FILE* in = plat::fopen("/proc/scsi/scsi", "r");
    if (!in) return "<none>";
    std::string text;
    char line[256];
    while (std::fgets(line, sizeof line, in))
        text += line;
    std::fclose(in);
    return text;
}

} // namespace

TEST(TwOs, TheLoadTimeScanOfATestExecutableTouchesNothingOfTheHost)
{
    // Before any module: the globals were built against the load guard.
    EXPECT_FALSE(sim::loadGuardArmed()) << "released when the tests began";
    EXPECT_EQ(sim::loadGuardRefusals(), (std::vector<std::string>{"fopen /proc/devices", "fopen /proc/devices"}));
    EXPECT_EQ(sim::loadGuardRefusalCount(), 2u);
    EXPECT_EQ(tw_api_error.valid_error_flags, TW_ERROR_FLAG_API | TW_ERROR_FLAG_OS);
    EXPECT_EQ(tw_api_error.api_error_code, 1u);
    EXPECT_EQ(tw_api_error.os_error_code, uint32_t(EACCES));
    tw_id_list_type list;
    EXPECT_EQ(tw_get_controller_id_list(&list), -1);
    EXPECT_EQ(list.length, 0);
    EXPECT_EQ(list.list[0].id[0], 0xFF);
}

TEST(TwOs, NodesAreMadeWithTheirModeAndWrongOnesMadeAnew)
{
    simtest::TempModule m(9, false);
    ASSERT_EQ(twtest::makeTw(m, 9), "");
    m.put("/dev/twa3", "stale");  // a plain file where a node belongs
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    ASSERT_EQ(plat::mknod("/dev/twa5", 8576, makedev(77, 5)), 0);  // a node of another driver
    sim::resetTwApi();

    struct stat st {};
    for (int minor = 0; minor < 16; ++minor) {
        const std::string node = "/dev/twa" + std::to_string(minor);
        ASSERT_EQ(plat::stat(node.c_str(), &st), 0) << node;
        EXPECT_EQ(st.st_mode, 8576u) << node;
        EXPECT_EQ(st.st_rdev, makedev(sim::tw::kMajor9000, minor)) << node;
    }
    EXPECT_FALSE(m.exists("/dev/twa3"));
    EXPECT_EQ(std::string(os.node(0)), "/dev/twa0");

    // Only the 9000 driver is loaded: the "twe" run left API code 1.
    EXPECT_EQ(tw_api_error.api_error_code, 1u);
    tw_id_list_type list;
    ASSERT_EQ(tw_get_controller_id_list(&list), 0);
    ASSERT_EQ(list.length, 1);
    EXPECT_EQ(std::memcmp(list.list[0].id, "\x01\x00\xFF\xFF\xFF\xFF\xFF\xFF", 8), 0);
    EXPECT_EQ(list.list[1].id[0], 0xFF);
    EXPECT_EQ(osil_instance.controllers_architecture(list.list[0]), 4);
}

TEST(TwOs, TwoSevenThousandControllersBothGetTheHighestNodeThatOpens)
{
    TwModule t(2);
    ASSERT_EQ(t.created, "");
    tw_id_list_type list;
    ASSERT_EQ(tw_get_controller_id_list(&list), 0);
    ASSERT_EQ(list.length, 2);
    // The walk starts at 15 for each host: both hosts land on minor 1.
    EXPECT_EQ(std::string(os.node(0)), "/dev/twe1");
    EXPECT_EQ(std::string(os.node(1)), "/dev/twe1");
    t.set(0, "serial", "FIRST-0");
    t.set(1, "serial", "SECOND-1");
    char serial[TW_SERIAL_NUMBER_SIZE];
    ASSERT_EQ(tw_get_serial_number(controllerId(0), serial), 0);
    EXPECT_STREQ(serial, "SECOND-1");
    ASSERT_EQ(tw_get_serial_number(controllerId(1), serial), 0);
    EXPECT_STREQ(serial, "SECOND-1");
}

TEST(TwOs, HostsComeFromSysfsWhenTheDriverHasNoProcEntryAndOddNamesAreSkipped)
{
    simtest::TempModule m(15, false);
    ASSERT_EQ(twtest::makeTw(m, 15, "", false), "");
    m.put("/sys/class/scsi_host/host16/stats", "0\n");
    m.put("/sys/class/scsi_host/hostx/stats", "0\n");
    m.put("/sys/class/scsi_host/host5/other", "0\n");  // no stats: not counted
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    sim::resetTwApi();
    tw_id_list_type list;
    ASSERT_EQ(tw_get_controller_id_list(&list), 0);
    EXPECT_EQ(list.length, 1);
    EXPECT_EQ(std::string(os.node(0)), "/dev/twa0");
    char model[TW_MODEL_SIZE];
    EXPECT_EQ(tw_get_model(list.list[0], model), 0);

    // The /proc form skips the same names.
    simtest::TempModule m2(9, false);
    ASSERT_EQ(twtest::makeTw(m2, 9), "");
    m2.put("/proc/scsi/3w-9xxx/17", "");
    m2.put("/proc/scsi/3w-9xxx/abc", "");
    sim::SimPlatform p2(m2.dir());
    plat::ScopedPlatform scope2(p2);
    sim::resetTwApi();
    ASSERT_EQ(tw_get_controller_id_list(&list), 0);
    EXPECT_EQ(list.length, 1);
}

TEST(TwOs, CompatibilityIsAcceptedOnlyBetweenTheFamiliesLimits)
{
    struct Case {
        int platform;
        const char* number;
        int result;
        uint32_t api;
    };
    const Case cases[] = {{2, "5", -1, 66}, {2, "6", 0, 0}, {2, "7", -1, 67}, {9, "22", -1, 66},
                          {9, "23", 0, 0},  {9, "27", 0, 0}, {9, "28", -1, 67}};
    for (const Case& c : cases) {
        TwModule t(c.platform);
        t.set(0, "compatibility", c.number);
        if (c.platform == 2) t.set(1, "compatibility", c.number);  // both reach the second
        tw_api_clear_error();
        char model[TW_MODEL_SIZE];
        EXPECT_EQ(tw_get_model(controllerId(0), model), c.result) << c.platform << " " << c.number;
        EXPECT_EQ(tw_api_error.api_error_code, c.api) << c.platform << " " << c.number;
    }

    // A read that fails adds API code 71 to the send's own error.
    TwModule t(9);
    t.p.arm(sim::Fault::failing(sim::Op::Ioctl, "/dev/twa0", 1, EIO));
    tw_api_clear_error();
    char model[TW_MODEL_SIZE];
    EXPECT_EQ(tw_get_model(controllerId(0), model), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 71u);
    EXPECT_EQ(tw_api_error.os_error_code, uint32_t(EIO));
    tw_api_error_type out;
    tw_get_error_information(&out);
    const std::string text = out.text;
    EXPECT_EQ(text.find("(0x0B:0x0047)"), 0u) << text;
    EXPECT_NE(text.find("\n(0x09:0x0005): "), std::string::npos) << text;
}

TEST(TwOs, TheKernelIsToldOfAUnitOnlyWhenItDoesNotAgree)
{
    TwModule t(9, "single");
    ASSERT_NE(kernelList().find("Host: scsi0 Channel: 00 Id: 00 Lun: 00"), std::string::npos);
    const uint64_t before = t.p.calls(sim::Op::Write, "/proc/scsi/scsi");

    // Already there: nothing written.
    EXPECT_EQ(osil_instance.scan_bus_for_units(0, 0, 1), 0);
    EXPECT_EQ(t.p.calls(sim::Op::Write, "/proc/scsi/scsi"), before);
    // Gone: the remove line, and the kernel forgets the disk.
    EXPECT_EQ(osil_instance.scan_bus_for_units(0, 0, 0), 0);
    EXPECT_EQ(t.p.calls(sim::Op::Write, "/proc/scsi/scsi"), before + 1);
    EXPECT_EQ(kernelList().find("Id: 00 Lun"), std::string::npos) << kernelList();
    EXPECT_EQ(osil_instance.scan_bus_for_units(0, 0, 0), 0);
    EXPECT_EQ(t.p.calls(sim::Op::Write, "/proc/scsi/scsi"), before + 1);
    // Back again.
    EXPECT_EQ(osil_instance.scan_bus_for_units(0, 0, 1), 0);
    EXPECT_EQ(t.p.calls(sim::Op::Write, "/proc/scsi/scsi"), before + 2);
    EXPECT_NE(kernelList().find("Host: scsi0 Channel: 00 Id: 00 Lun: 00"), std::string::npos);

    EXPECT_EQ(osil_instance.scan_bus_for_units(0, 0, 2), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 21u);
    // A write the kernel refuses: the unit's code with the system's.
    t.p.arm(sim::Fault::failing(sim::Op::Write, "/proc/scsi/scsi", 1, EIO));
    tw_api_clear_error();
    EXPECT_EQ(osil_instance.scan_bus_for_units(0, 0, 0), -1);
    EXPECT_EQ(tw_api_error.api_error_code, 69u);
    EXPECT_EQ(tw_api_error.os_error_code, uint32_t(EIO));
}

#include <string>

#include <gtest/gtest.h>

#include "hwlib/iosched.h"
#include "hwlib_fixture.h"

namespace {

using tavtest::HwlibTest;

std::string root(const char* device)
{
    char name[128] = "";
    return getSysFSDeviceRoot(device, name, sizeof name) == 0 ? name : "-1";
}

TEST(IoSched, DevicePathsMapToTheirSysfsDirectory)
{
    EXPECT_EQ(root("/dev/sda1"), "/sys/block/sda/");
    EXPECT_EQ(root("/dev/hdc"), "/sys/block/hdc/");
    EXPECT_EQ(root("/dev/scsi/host1/bus0/target2/lun0/part1"), "/sys/bus/scsi/devices/1:0:2:0/block/");
    EXPECT_EQ(root("/dev/ide/host0/bus1/target0/lun0/disc"), "/sys/bus/ide/devices/1.0/block/");
    EXPECT_EQ(root("/dev/scsi/host1/bus0/disc"), "-1");
    EXPECT_EQ(root("/dev/ide/hostx/bus1/target0/lun0"), "-1");
    EXPECT_EQ(root("sda"), "-1");
}

class IoSchedTest : public HwlibTest {
protected:
    void SetUp() override
    {
        HwlibTest::SetUp();
        module.put("/sys/block/sda/queue/scheduler", "noop [cfq]");
        module.put("/sys/block/sda/queue/iosched/quantum", "4");
        module.put("/sys/block/sda/queue/iosched/slice_idle", "8");
        module.put("/sys/block/sda/queue/iosched/back_seek_max", "16384");
    }
};

TEST_F(IoSchedTest, WritesTheSchedulerAndItsConfiguredKeys)
{
    module.put(kModelFeatures, "[IOSCHED]\nschedule=deadline;\n"
                               "[IOSCHED.deadline]\nquantum=8;\nslice_idle=0;\nnot_a_file=1;\n");
    EXPECT_EQ(configureIoScheduler("/dev/sda1"), 0);
    EXPECT_EQ(module.get("/sys/block/sda/queue/scheduler"), "deadline");
    EXPECT_EQ(module.get("/sys/block/sda/queue/iosched/quantum"), "8");
    EXPECT_EQ(module.get("/sys/block/sda/queue/iosched/slice_idle"), "0");
    EXPECT_EQ(module.get("/sys/block/sda/queue/iosched/back_seek_max"), "16384");
    EXPECT_FALSE(module.exists("/sys/block/sda/queue/iosched/not_a_file"));
}

TEST_F(IoSchedTest, FailuresAndAbsentDevices)
{
    EXPECT_EQ(configureIoScheduler("/dev/sdb"), 1);
    EXPECT_EQ(configureIoScheduler("/dev/scsi/host0"), -1);

    // No "schedule" setting: nothing is written.
    module.put(kModelFeatures, "[IOSCHED.deadline]\nquantum=8;\n");
    EXPECT_EQ(configureIoScheduler("/dev/sda"), -1);
    EXPECT_EQ(module.get("/sys/block/sda/queue/scheduler"), "noop [cfq]");

    // A scheduler without a tuning directory.
    module.put(kModelFeatures, "[IOSCHED]\nschedule=noop;\n");
    std::filesystem::remove_all(module.map("/sys/block/sda/queue/iosched"));
    EXPECT_EQ(configureIoScheduler("/dev/sda"), -1);
    EXPECT_EQ(module.get("/sys/block/sda/queue/scheduler"), "noop");
}

} // namespace

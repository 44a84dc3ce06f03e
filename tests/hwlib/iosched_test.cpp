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

// The second drive of the module: hdb, reached through the IDE bus directory.
constexpr const char* kDisc = "/dev/ide/host0/bus0/target1/lun0/disc";
constexpr const char* kQueue = "/sys/block/hdb/queue/";

TEST_F(HwlibTest, IoSchedulerAndItsConfiguredKeysAreWritten)
{
    put(kModelFeatures, "[IOSCHED]\nschedule=deadline;\n"
                        "[IOSCHED.deadline]\nread_expire=100;\nfifo_batch=4;\nnot_a_file=1;\n");
    EXPECT_EQ(configureIoScheduler(kDisc), 0);
    EXPECT_EQ(get(std::string(kQueue) + "scheduler"), "noop anticipatory [deadline] cfq\n");
    EXPECT_EQ(get(std::string(kQueue) + "iosched/read_expire"), "100\n");
    EXPECT_EQ(get(std::string(kQueue) + "iosched/fifo_batch"), "4\n");
    EXPECT_EQ(get(std::string(kQueue) + "iosched/write_expire"), "5000\n"); // not configured
    EXPECT_FALSE(exists(std::string(kQueue) + "iosched/not_a_file"));
    EXPECT_FALSE(exists(std::string(kQueue) + "iosched/quantum")); // the old scheduler's
    EXPECT_EQ(get("/sys/block/hda/queue/scheduler"), "noop anticipatory deadline [cfq]\n");

    // The module's common defaults, with no file of the model.
    std::filesystem::remove(map(kModelFeatures));
    EXPECT_EQ(configureIoScheduler("/dev/hda"), 0);
    EXPECT_EQ(get("/sys/block/hda/queue/iosched/read_expire"), "250\n");
}

TEST_F(HwlibTest, IoSchedulerFailuresAndAbsentDevices)
{
    EXPECT_EQ(configureIoScheduler("/dev/sdb"), 1);
    EXPECT_EQ(configureIoScheduler("/dev/scsi/host0"), -1);

    // No "schedule" setting anywhere: nothing is written.
    put(kModelFeatures, "[IOSCHED.deadline]\nread_expire=8;\n");
    put(kCommonFeatures, "[RAID]\n");
    EXPECT_EQ(configureIoScheduler(kDisc), -1);
    EXPECT_EQ(get(std::string(kQueue) + "scheduler"), "noop anticipatory deadline [cfq]\n");

    // The kernel refuses a scheduler it does not have; the code does not notice.
    put(kModelFeatures, "[IOSCHED]\nschedule=fastest;\n");
    EXPECT_EQ(configureIoScheduler(kDisc), 0);
    EXPECT_EQ(get(std::string(kQueue) + "scheduler"), "noop anticipatory deadline [cfq]\n");

    // A scheduler without tuning files.
    put(kModelFeatures, "[IOSCHED]\nschedule=noop;\n");
    EXPECT_EQ(configureIoScheduler(kDisc), 0);
    EXPECT_EQ(get(std::string(kQueue) + "scheduler"), "[noop] anticipatory deadline cfq\n");
    EXPECT_TRUE(std::filesystem::is_empty(map(std::string(kQueue) + "iosched")));
}

} // namespace

// The life of a 1U module's md RAID 5 through the manager's operations: a
// start with quorum, a drive removed (the survivors stamped newer, the array
// degraded), the drive added back while the array runs (hot added, rebuilt on
// the virtual clock, the mount-time thread stamping every drive when the
// rebuild ends), then drives removed until the array goes off.
#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

#include "driveutils/store_fixture.h"
#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavraiddevices.h"
#include "sim/md_kernel.h"
#include "sim/raid.h"

namespace lifecycletest {
namespace {

using RD = TavRaidDevice;

class Lifecycle : public storetest::ManagerTest {
protected:
    Lifecycle()
    {
        sim::RaidOptions options;
        options.level = 5;
        sim::RaidResult result;
        EXPECT_EQ(sim::configureRaid(m_.dir(), options, result), "");
        // The data array stopped, as before a start; the OS mirrors run.
        sim::visitMd(platform_.module(), [](sim::MdKernel& k) { k.stopArray(1); });
        sim::resetDriveManager();
        TavDriveMgr::init();
        TavDriveMgr::readSignatureIntoMemory();
    }
    ~Lifecycle() override { waitForThread(); }

    // The drives that pass their checks.
    std::vector<int> okDrives()
    {
        std::vector<int> ok(5, 0);
        for (int p = 1; p <= 4; ++p) ok[static_cast<size_t>(p - 1)] = TavDriveMgr::checkDrive(p) == 0;
        return ok;
    }
    long long stamp(int position) { return TavDriveMgr::findDriveDescription(position)->llLastDismountTime; }
    std::vector<long long> stamps() { return {stamp(1), stamp(2), stamp(3), stamp(4)}; }
    // The mount-time thread ends by itself; a bound keeps a fault from hanging the run.
    static void waitForThread()
    {
        for (int i = 0; i < 3000 && TavDriveMgr::checkRebuild.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_FALSE(TavDriveMgr::checkRebuild.load()) << "the mount-time thread did not end";
    }
    // The stamps on a drive's own copy.
    long long onDisk(int bay, int position) { return m_.copy(bay, 0).dismountOf(position); }
};

TEST_F(Lifecycle, RemovedDriveFallsBehindRejoinsAndTheLastMembersKeepEqualStamps)
{
    std::vector<int> ok = okDrives();
    ASSERT_EQ(TavDriveMgr::startRaid(200, ok.data()), 0);
    EXPECT_EQ(stamps(), (std::vector<long long>{200, 200, 200, 200}));
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::NOMINAL);

    // One drive leaves: the others are stamped with the old maximum plus 1.
    TavDriveMgr::removeFromRaid(2);
    EXPECT_EQ(stamps(), (std::vector<long long>{201, 200, 201, 201}));
    EXPECT_EQ(onDisk(2, 2), 200) << "the removed drive carries its older stamp";
    EXPECT_EQ(onDisk(1, 3), 201);
    EXPECT_EQ(TavDriveMgr::isActive(2), 0);
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::DEGRADED);
    EXPECT_EQ(TavDriveMgr::addToRaid(1), 16) << "an active drive";

    // Back while the array runs: hot added, rebuilt, and the thread stamps all.
    ASSERT_EQ(TavDriveMgr::addToRaid(2), 0);
    EXPECT_EQ(TavDriveMgr::isActive(2), 1);
    EXPECT_TRUE(TavDriveMgr::anyRebuilding());
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::REBUILDING);
    // The thread stamps the whole members at its start (202, the rebuilding
    // drive not yet) and every drive once the rebuild has ended (203).
    TavDriveMgr::updateMountTimeAfterRebuild();
    waitForThread();
    EXPECT_FALSE(TavDriveMgr::anyRebuilding());
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::NOMINAL);
    EXPECT_EQ(stamps(), (std::vector<long long>{203, 203, 203, 203}));
    for (int bay = 1; bay <= 4; ++bay) EXPECT_EQ(onDisk(bay, 2), 203) << bay;
    EXPECT_EQ(TavDriveMgr::findDriveDescription(1)->llLastMountTime, 102) << "whole in both OS mirrors, twice";

    // Drives leave until the array is off: the last members keep equal stamps.
    TavDriveMgr::removeFromRaid(1);
    EXPECT_EQ(stamps(), (std::vector<long long>{203, 204, 204, 204}));
    TavDriveMgr::removeFromRaid(3);
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::OFF);
    EXPECT_EQ(stamps(), (std::vector<long long>{203, 204, 204, 204}));
    EXPECT_EQ(TavMdRaidDevice::getActiveDeviceCount("/dev/md1"), 3) << "stopped: the array cannot be read";

    // No quorum: nothing starts and no stamp moves.
    std::vector<int> two{0, 1, 0, 1, 0};
    EXPECT_EQ(TavDriveMgr::startRaid(300, two.data()), 1);
    EXPECT_EQ(stamps(), (std::vector<long long>{203, 204, 204, 204}));
}

TEST_F(Lifecycle, TheLastDriveOfAMirrorStopsItWithTheStampsEqual)
{
    TavRaidDevices mirror;
    RD* top = TavRaidDevices::createDevice(1, 2, nullptr, nullptr, 5, 0);
    top->addSubdevice(-1, 0, nullptr, 3);
    top->addSubdevice(-1, 0, nullptr, 4);
    mirror.add(top);
    ASSERT_EQ(top->createArray(), 0);
    TavDriveMgr::setRaidDevices(&mirror);
    std::vector<int> ok = okDrives();
    ASSERT_EQ(TavDriveMgr::startRaid(400, ok.data()), 0);
    TavDriveMgr::removeFromRaid(3);
    EXPECT_EQ(stamp(4), 401);
    TavDriveMgr::removeFromRaid(4);
    EXPECT_EQ(stamp(3), 400);
    EXPECT_EQ(stamp(4), 401) << "the array went off: no newer stamp";
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::OFF);
}

TEST_F(Lifecycle, ADriveThatCannotBeWrittenLeavesTheOthersStamped)
{
    std::vector<int> ok = okDrives();
    ASSERT_EQ(TavDriveMgr::startRaid(200, ok.data()), 0);
    platform_.arm(sim::Fault::failing(sim::Op::Write, "/dev/ide/host0/bus1/target1/lun0/part1", 1, EIO, -1));
    TavDriveMgr::removeFromRaid(1);
    EXPECT_EQ(onDisk(2, 2), 201);
    EXPECT_EQ(onDisk(4, 4), 201);
    EXPECT_EQ(onDisk(3, 3), 100) << "the failing drive keeps its copy as signed";

    // The thread stamps what it can and ends normally; a second start only logs.
    TavDriveMgr::checkRebuild.store(true);
    testing::internal::CaptureStderr();
    TavDriveMgr::updateMountTimeAfterRebuild();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("updateMountTimeAfterRebuild called while in progress"),
              std::string::npos);
    TavDriveMgr::checkRebuild.store(false);
    ASSERT_EQ(TavDriveMgr::addToRaid(1), 0);
    TavDriveMgr::updateMountTimeAfterRebuild();
    waitForThread();
    EXPECT_EQ(onDisk(1, 1), 203);
    EXPECT_EQ(onDisk(4, 1), 203);
    EXPECT_EQ(onDisk(3, 1), 100) << "still the copy as signed";
}

TEST_F(Lifecycle, AnOsMirrorWaitingForARebuildThatDoesNotRunOverridesTheDataArray)
{
    std::vector<int> ok = okDrives();
    ASSERT_EQ(TavDriveMgr::startRaid(200, ok.data()), 0);
    ASSERT_EQ(TavDriveMgr::checkRaid(), RD::NOMINAL);
    // Bay 2's os partition leaves /dev/md200 and comes back to a mirror that
    // does not sync it.
    sim::visitMd(platform_.module(), [](sim::MdKernel& k) { k.setStalled(200, true); });
    struct stat st;
    ASSERT_EQ(plat::stat(TavDriveMgr::getDrive(2)->getOSPartitionName().c_str(), &st), 0);
    void* member = reinterpret_cast<void*>(static_cast<uintptr_t>(st.st_rdev));
    int fd = plat::open("/dev/md200", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(plat::ioctl(fd, SET_DISK_FAULTY, member), 0);
    EXPECT_EQ(plat::ioctl(fd, HOT_REMOVE_DISK, member), 0);
    EXPECT_EQ(plat::ioctl(fd, HOT_ADD_DISK, member), 0);
    plat::close(fd);
    EXPECT_EQ(TavDriveMgr::checkOsRebuilding("/dev/md200"), RD::NOT_REBUILDING);
    EXPECT_EQ(TavDriveMgr::checkDataRaid(), RD::NOMINAL);
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::NOT_REBUILDING) << "whatever the data array's state";
    EXPECT_FALSE(TavDriveMgr::raidRunning());
    sim::visitMd(platform_.module(), [](sim::MdKernel& k) { k.setStalled(200, false); });
    plat::sleep(60);
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::NOMINAL) << "the mirror synced once it could";
}

} // namespace
} // namespace lifecycletest

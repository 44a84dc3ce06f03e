// The md family against the simulated md driver: arrays made, started,
// stopped, members failed, removed and added, the status the system reads
// from the kernel's counts and member states, the rebuild rates, and the tree
// carried through the signature by updatemount.
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <sstream>

#include "driveutils/store_fixture.h"
#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavraiddevices.h"
#include "hwlib/tavhwid.h"
#include "sim/md_kernel.h"
#include "sim/raid.h"

namespace mdtest {
namespace {

using RD = TavRaidDevice;

class Md : public storetest::ManagerTest {
protected:

    // An array of `level` as configuration makes it, over `positions`.
    RD* array(int level, int number, std::vector<int> positions)
    {
        RD* top = TavRaidDevices::createDevice(level, static_cast<int>(positions.size()), nullptr, nullptr, number, 0);
        for (int p : positions) top->addSubdevice(-1, 0, nullptr, p);
        tree_.add(top);
        return top;
    }
    // The md requests logged since the last call.
    std::vector<std::string> requests()
    {
        std::istringstream all(platform_.module().readState("md.log"));
        std::vector<std::string> out;
        std::string line;
        for (size_t n = 0; std::getline(all, line); ++n)
            if (n >= seen_) out.push_back(line.substr(line.find(' ') + 1));
        seen_ += out.size();
        return out;
    }
    static std::vector<std::string> matching(const std::vector<std::string>& lines, const std::string& what)
    {
        std::vector<std::string> out;
        for (const std::string& l : lines)
            if (l.find(what) != std::string::npos) out.push_back(l);
        return out;
    }
    long now() { return platform_.module().now().tv_sec; }
    std::string mdstat()
    {
        FILE* f = plat::fopen("/proc/mdstat", "r");
        std::string text;
        for (int c; f && (c = fgetc(f)) != EOF;) text += static_cast<char>(c);
        if (f) fclose(f);
        return text;
    }
    // KiB of /dev/md1.
    uint64_t arrayKiB()
    {
        int fd = plat::open("/dev/md1", O_RDONLY);
        uint64_t bytes = 0;
        EXPECT_EQ(plat::ioctl(fd, BLKGETSIZE64, &bytes), 0);
        plat::close(fd);
        return bytes / 1024;
    }
    void setRate(const char* file, long kib)
    {
        int fd = plat::open(file, O_WRONLY);
        std::string text = std::to_string(kib) + "\n";
        ASSERT_EQ(plat::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        plat::close(fd);
    }

    TavRaidDevices tree_;
    size_t seen_ = 0;
};

TEST_F(Md, ArrayMadeFromConfigurationRunsAndAnswersItsQueries)
{
    RD* top = array(5, 1, {1, 2, 3, 4});
    EXPECT_STREQ(top->getName(), "/dev/md1");
    ASSERT_EQ(top->createArray(), 0);
    std::vector<std::string> made = requests();
    std::vector<std::string> adds = matching(made, "ADD_NEW_DISK");
    ASSERT_EQ(adds.size(), 4u);
    EXPECT_NE(adds[3].find("number=3 raid_disk=3"), std::string::npos) << adds[3];
    EXPECT_NE(adds[3].find("state=6"), std::string::npos) << adds[3];
    EXPECT_EQ(matching(made, "RUN_ARRAY").size(), 1u);

    EXPECT_EQ(top->checkRaidStatus(), RD::NOMINAL);
    EXPECT_EQ(TavMdRaidDevice::checkRaidStatusEx("/dev/md1"), RD::NOMINAL);
    EXPECT_EQ(TavMdRaidDevice::getActiveDeviceCount("/dev/md1"), 4);
    EXPECT_EQ(TavMdRaidDevice::getActiveDeviceCount("/dev/md9"), 3) << "an array that cannot be read";
    EXPECT_FALSE(top->isRebuilding());
    EXPECT_EQ(tree_.checkRaid(), RD::NOMINAL);
    RD::DiskStatus status[RD::MAX_DISKS];
    tree_.getDiskInfo(RD::MAX_DISKS, status);
    for (int i = 0; i < RD::MAX_DISKS; ++i) EXPECT_EQ(status[i], i < 4 ? RD::DISK_NOMINAL : RD::DISK_OFF) << i;
    EXPECT_EQ(top->getDisksToRebuild("md1", "Data", std::vector<char>(128).data(), 128), 0);

    // A running array starts at once, adding nothing.
    EXPECT_EQ(top->raidStart(nullptr), 0);
    EXPECT_TRUE(matching(requests(), "ADD_NEW_DISK").empty());
    EXPECT_EQ(top->raidStop(), 0);
    EXPECT_EQ(top->raidStop(), 0) << "stopped already: ENODEV counts as done";
    EXPECT_EQ(top->checkRaidStatus(), RD::OFF);
    EXPECT_EQ(tree_.checkRaid(), RD::OFF);

    // A null okDrives takes every member; the children are active again.
    top->setAllActive(0);
    requests();
    EXPECT_EQ(top->raidStart(nullptr), 0);
    EXPECT_EQ(matching(requests(), "ADD_NEW_DISK").size(), 4u);
    EXPECT_EQ(top->checkRaidStatus(), RD::NOMINAL);
    EXPECT_EQ(top->isActive(), 1);
    EXPECT_EQ(top->getSubdevice(2)->isActive(), 1);
}

TEST_F(Md, StartWithoutTheSecondDiskRunsDegradedAndItsHotAddRebuildsOnTheClock)
{
    RD* top = array(5, 1, {1, 2, 3});
    ASSERT_EQ(top->createArray(), 0);
    ASSERT_EQ(top->raidStop(), 0);
    top->setAllActive(0);
    requests();
    int ok[4] = {1, 0, 1, 1};
    ASSERT_EQ(top->raidStart(ok), 0);
    std::vector<std::string> adds = matching(requests(), "ADD_NEW_DISK");
    ASSERT_EQ(adds.size(), 2u);
    EXPECT_NE(adds[0].find("number=0 raid_disk=0"), std::string::npos) << adds[0];
    EXPECT_NE(adds[0].find("minor=2 "), std::string::npos) << "bay 1's data partition: " << adds[0];
    EXPECT_NE(adds[1].find("number=1 raid_disk=1"), std::string::npos) << adds[1];
    EXPECT_NE(adds[1].find("minor=66 "), std::string::npos) << "bay 3's data partition: " << adds[1];
    EXPECT_EQ(top->checkRaidStatus(), RD::DEGRADED);
    EXPECT_EQ(top->isActive(), 1);
    EXPECT_EQ(top->getSubdevice(0)->isActive(), 0) << "a degraded start leaves the members' flags";

    // The second disk comes back: a hot add, a rebuild at speed_limit_max,
    // 37.5 percent after three of eight seconds.
    const uint64_t component = arrayKiB() / 2;  // a RAID 5 of three holds two components
    ASSERT_EQ(component % 8, 0u);
    setRate("/proc/sys/dev/raid/speed_limit_max", static_cast<long>(component / 8));
    RD* second = top->getSubdevice(1);
    ASSERT_EQ(second->raidAdd(), 0);
    EXPECT_EQ(second->isActive(), 1);
    EXPECT_EQ(top->checkRaidStatus(), RD::REBUILDING);
    EXPECT_TRUE(top->isRebuilding());
    EXPECT_TRUE(tree_.anyRebuilding());
    EXPECT_EQ(TavMdRaidDevice::checkRaidStatusEx("/dev/md1"), RD::REBUILDING);
    plat::sleep(3);
    std::vector<char> out(128);
    EXPECT_EQ(top->getDisksToRebuild("md1", "Data", out.data(), 128), 1) << mdstat();
    EXPECT_STREQ(out.data(), "Data disk 38% complete, 1 disk(s) to go");
    EXPECT_NE(mdstat().find("recovery = 37.5%"), std::string::npos) << mdstat();
    plat::sleep(5);
    EXPECT_EQ(top->checkRaidStatus(), RD::NOMINAL);
    EXPECT_FALSE(top->isRebuilding());
    RD::DiskStatus status[RD::MAX_DISKS];
    top->getDiskInfo(RD::MAX_DISKS, status);
    EXPECT_EQ(status[1], RD::DISK_NOMINAL);
}

TEST_F(Md, MemberOperationsAndTheStatesOfMirrorsAndStripes)
{
    RD* mirror = array(1, 3, {1, 2});
    ASSERT_EQ(mirror->createArray(), 0);
    RD* first = mirror->getSubdevice(0);
    RD* second = mirror->getSubdevice(1);
    first->setActive(0);
    EXPECT_EQ(first->raidAdd(), 0) << "in place already: EBUSY counts as done";
    EXPECT_EQ(first->isActive(), 1);

    long before = now();
    EXPECT_EQ(second->raidSetFaulty(), 0);
    EXPECT_EQ(now() - before, 2) << "two seconds for the kernel to settle";
    EXPECT_EQ(mirror->checkRaidStatus(), RD::DEGRADED);
    EXPECT_EQ(second->checkRaidStatus(), RD::DEGRADED) << "a member answers with its array's status";
    EXPECT_EQ(second->raidRemove(), 0) << "a faulty member goes";
    EXPECT_NE(first->raidRemove(), 0) << "an active member stays";

    // A new member that does not sync: the mirror waits, not rebuilding.
    sim::visitMd(platform_.module(), [](sim::MdKernel& k) { k.setStalled(3, true); });
    EXPECT_EQ(second->raidAdd(), 0);
    EXPECT_EQ(mirror->checkRaidStatus(), RD::NOT_REBUILDING);
    std::vector<char> out(128);
    EXPECT_EQ(mirror->getDisksToRebuild("md3", "Mirror", out.data(), 128), -1) << mdstat();
    EXPECT_STREQ(out.data(), "Mirror array is degraded and not rebuilding");

    // A stripe with one of two members working is off.
    RD* stripe = array(0, 4, {3, 4});
    ASSERT_EQ(stripe->createArray(), 0);
    EXPECT_EQ(stripe->checkRaidStatus(), RD::NOMINAL);
    EXPECT_EQ(stripe->getSubdevice(1)->raidSetFaulty(), 0);
    EXPECT_EQ(stripe->checkRaidStatus(), RD::OFF);
    EXPECT_EQ(TavMdRaidDevice::checkRaidStatusEx("/dev/md4"), RD::OFF);
}

TEST_F(Md, ConfigurationNamesAndRebuildRates)
{
    std::unique_ptr<RD> node(TavRaidDevices::createDevice(6, 0, nullptr, nullptr, 7, 0));
    EXPECT_STREQ(node->getConfigString(), "None");
    std::unique_ptr<RD> five(TavRaidDevices::createDevice(5, 0, nullptr, nullptr, 7, 0));
    EXPECT_STREQ(five->getConfigString(), "ParityAndStripe4");
    std::unique_ptr<RD> one(TavRaidDevices::createDevice(1, 0, nullptr, nullptr, 7, 0));
    EXPECT_STREQ(one->getConfigString(), "MirrorAndStripe/Nonclustered");
    EXPECT_EQ(one->getChunkSize(), 256);
    EXPECT_FALSE(one->canStopRebuilding());

    // The configuration's rate wins and the kernel is made to agree.
    char common[256];
    ASSERT_EQ(hwid_getCommonConfigsLocation(common, sizeof common), 0);
    m_.temp().put(std::string(common) + "raid_speed_limit_min", "5000\n");
    EXPECT_EQ(one->getMinRebuildRate(), 5000);
    EXPECT_EQ(TavMdRaidDevice::getRebuildRate("/proc/sys/dev/raid/speed_limit_min"), 5000);
    // Without a configuration copy the kernel's rate is kept and copied.
    EXPECT_EQ(one->getMaxRebuildRate(), 200000);
    EXPECT_EQ(m_.temp().get(std::string(common) + "raid_speed_limit_max"), "200000\n");

    // The rate for the time being: the kernel changes, the copy does not,
    // and the empty second name gives the expected 1.
    EXPECT_EQ(setMinMdRebuildRate(1234), 1);
    EXPECT_EQ(TavMdRaidDevice::getRebuildRate("/proc/sys/dev/raid/speed_limit_min"), 1234);
    EXPECT_EQ(m_.temp().get(std::string(common) + "raid_speed_limit_min"), "5000\n");
    EXPECT_EQ(setMaxMdRebuildRate(9999), 1);
    EXPECT_EQ(TavMdRaidDevice::getRebuildRate("/proc/sys/dev/raid/speed_limit_max"), 9999);
    EXPECT_EQ(TavMdRaidDevice::getRebuildRate("/etc/marrowby/none"), -1);
}

TEST_F(Md, UpdatemountCarriesTheTreeOfAConfiguredModule)
{
    sim::RaidOptions options;
    options.level = 5;
    options.spares = 1;
    options.mountPoint = "/data";
    sim::RaidResult result;
    ASSERT_EQ(sim::configureRaid(m_.dir(), options, result), "");
    EXPECT_EQ(result.members, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(result.spares, std::vector<int>{4});
    EXPECT_EQ(result.osMirrors, (std::vector<std::string>{"/dev/md200", "/dev/md201"}));
    std::string before = std::string(reinterpret_cast<char*>(m_.copy(2, 0, 8).b.data()) + 5 * 512, 2 * 512);
    EXPECT_EQ(m_.updatemount({"2", "1000", "2000"}), 0);
    std::string after = std::string(reinterpret_cast<char*>(m_.copy(2, 0, 8).b.data()) + 5 * 512, 2 * 512);
    EXPECT_EQ(after, before) << "the device and string tables come back as they were";

    sim::resetDriveManager();
    TavDriveMgr::init();
    TavDriveMgr::readSignatureIntoMemory();
    ASSERT_NE(TavDriveMgr::devices, nullptr);
    RD* top = TavDriveMgr::devices->getNthTopLevelDev(0);
    EXPECT_STREQ(top->getName(), "/dev/md1");
    EXPECT_STREQ(top->getMountPoint(), "/data");
    EXPECT_EQ(top->getSubdeviceCount(), 3);
    // The kernel counts an idle spare as working and not active: the status
    // reads as a rebuild, the stricter one as whole.
    EXPECT_EQ(TavDriveMgr::checkRaid(), RD::REBUILDING);
    EXPECT_EQ(TavMdRaidDevice::checkRaidStatusEx("/dev/md1"), RD::NOMINAL);
    EXPECT_EQ(TavDriveMgr::isActive(3), 1);
    EXPECT_EQ(TavDriveMgr::isActive(4), 0) << "the spare is in no record";
    EXPECT_EQ(TavMdRaidDevice::getActiveDeviceCount("/dev/md200"), 4);
    EXPECT_EQ(sim::configureRaid(m_.dir(), options, result), "/dev/md1 exists already (tavsim md DIR --stop-all forgets every array)");
}

} // namespace
} // namespace mdtest

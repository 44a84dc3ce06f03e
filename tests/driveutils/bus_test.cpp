// The bus base, the IDE bus and the write cache choice on a simulated module.
#include <cerrno>

#include "driveutils/store_fixture.h"
#include "driveutils/tav_ide_bus.h"
#include "driveutils/tav_ide_drive.h"
#include "driveutils/tavhdwcache.h"

namespace storetest {
namespace {

using RaidDeviceMgmt::TavBus;
using RaidDeviceMgmt::TavIdeBus;
using RaidDeviceMgmt::TavIdeDrive;

class Bus : public testing::Test {
protected:
    Bus() : m_(1, false), platform_(m_.dir()), scope_(platform_) { sim::resetDriveManager(); }
    ~Bus() override { sim::resetDriveManager(); }

    std::string ataLog() { return platform_.module().readState("ata.log"); }
    bool cacheOn(int bay) { return platform_.module().manifest().driveInBay(bay)->writeCache; }

    StoreModule m_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
};

TEST_F(Bus, ErrorTextsSpinUpDelayAndSlots)
{
    TavIdeBus bus(0, 2);
    EXPECT_EQ(TavBus::sleepTime, 15) << "no spin-up file";
    EXPECT_EQ(bus.getErrorMessage(14), "the drive cannot be brought offline.");
    EXPECT_EQ(bus.getErrorMessage(15), "the drive cannot be read.");
    EXPECT_EQ(bus.getErrorMessage(99), "Unknown error occurred code:99");
    EXPECT_EQ(TavBus::nErrorMap, 33);

    m_.temp().put(TavBus::SLEEP_FILE, "abc\n");
    testing::internal::CaptureStderr();
    TavIdeBus bad(1, 2);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("bad value in ./configs/etc/marrowby/spinupdelay.cfg"),
              std::string::npos);
    EXPECT_EQ(TavBus::sleepTime, 15);
    m_.temp().put(TavBus::SLEEP_FILE, "3\n");
    TavIdeBus quick(1, 2);
    EXPECT_EQ(TavBus::sleepTime, 3) << "shared by every bus";

    std::string text = "x";
    EXPECT_EQ(bus.getModel(text), 1) << "nothing in slot 0";
    EXPECT_EQ(text, "");
    TavIdeDrive one(1, simtest::kDisc1), again(1, simtest::kDisc3), two(2, simtest::kDisc3), three(3, simtest::kDisc3);
    EXPECT_EQ(bus.addDrive(&one), 0);
    EXPECT_EQ(bus.addDrive(&again), -1) << "the number is taken";
    EXPECT_EQ(bus.searchDrive(1), &one);
    EXPECT_EQ(bus.getDriveCount(), 1);
    EXPECT_EQ(bus.addDrive(&two), 1);
    EXPECT_EQ(bus.addDrive(&three), -1) << "no slot left";
    EXPECT_EQ(bus.searchDrive(3), nullptr);
    EXPECT_EQ(bus.getModel(text), 0);
}

TEST_F(Bus, IdeMirrorTablesAndAnAbsentOsMirror)
{
    TavIdeBus bus(0, 2);
    EXPECT_EQ(bus.getMirrorMap(0, 1), 4);
    EXPECT_EQ(bus.getMirrorMap(1, 0), 2);
    EXPECT_EQ(bus.getMirrorMap(2, 0), -1);
    EXPECT_EQ(bus.getRaid5ArraySize(nullptr), 4);
    EXPECT_EQ(TavIdeBus::driveToIde(1), 0);
    EXPECT_EQ(TavIdeBus::driveToIde(2), 0);
    EXPECT_EQ(TavIdeBus::driveToIde(3), 1);
    // No md arrays on this module: the mirror is not whole, and the disks of
    // the other interface hold no copy.
    EXPECT_EQ(bus.osRaidComplete(), 0);
    EXPECT_EQ(bus.checkOSRaid(2), 7);
    EXPECT_EQ(bus.checkOSRaid(4), 6);
}

TEST_F(Bus, WriteCacheChoiceAndMarker)
{
    ASSERT_EQ(TavDriveMgr::init(), 0);
    EXPECT_EQ(giUserSelectedCacheValue, HD_WCACHE_OFF) << "platform 1 selects 0x82";
    // Applied, every drive of the platform ends with its cache off.
    EXPECT_EQ(SetAllHardDriveWriteCacheToSelected(), 0);
    for (int bay = 1; bay <= 4; ++bay) EXPECT_FALSE(cacheOn(bay)) << bay;
    EXPECT_NE(ataLog().find("/dev/ide/host0/bus1/target0/lun0/disc setfeatures write-cache off"), std::string::npos);
    EXPECT_EQ(ataLog().find("write-cache on"), std::string::npos);

    EXPECT_EQ(SelectHardDriveWriteCache(5), -2);
    EXPECT_EQ(giUserSelectedCacheValue, HD_WCACHE_OFF) << "an unknown value changes nothing";

    EXPECT_EQ(SelectHardDriveWriteCache(2), 0);
    EXPECT_FALSE(m_.temp().exists(HD_WCACHE_STAT_FILE)) << "the marker is never created";
    EXPECT_EQ(SetAllHardDriveWriteCacheOn(), 0);
    for (int bay = 1; bay <= 4; ++bay) EXPECT_TRUE(cacheOn(bay)) << bay;

    m_.temp().put(HD_WCACHE_STAT_FILE, "old text that is longer\n");
    EXPECT_EQ(SelectHardDriveWriteCache(2), 0);
    EXPECT_EQ(m_.temp().get(HD_WCACHE_STAT_FILE).substr(0, 17), "TAV_WCACHE_HD=ON\n");
    EXPECT_EQ(SelectHardDriveWriteCache(130), 0);
    EXPECT_FALSE(m_.temp().exists(HD_WCACHE_STAT_FILE));

    // Two drives that do not answer: both counted, all four tried.
    sim::Module(m_.dir()).pull(2);
    sim::Module(m_.dir()).pull(4);
    EXPECT_EQ(SetAllHardDriveWriteCacheOn(), 2);
    EXPECT_TRUE(cacheOn(1));
    EXPECT_TRUE(cacheOn(3));
}

TEST_F(Bus, WithoutAChoiceTheMarkerDecides)
{
    giUserSelectedCacheValue = 0;
    sim::CreateOptions options;
    TavDriveMgr::nDrives = 0;
    ASSERT_EQ(TavDriveMgr::init(), 0);
    giUserSelectedCacheValue = 0;   // as after a restart that selected nothing
    EXPECT_EQ(SetAllHardDriveWriteCacheToSelected(), 0);
    EXPECT_FALSE(cacheOn(1));
    m_.temp().put(HD_WCACHE_STAT_FILE, "TAV_WCACHE_HD=ON\n");
    EXPECT_EQ(SetAllHardDriveWriteCacheToSelected(), 0);
    EXPECT_TRUE(cacheOn(1));
    // A value the drive does not know is refused by it.
    EXPECT_NE(TavDriveMgr::getDrive(1)->SetHardDriveWriteCache(0), 0);
}

} // namespace
} // namespace storetest

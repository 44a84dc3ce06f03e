// Platform bring-up on modules of each IDE identifier.
#include "driveutils/store_fixture.h"
#include "driveutils/tav_ide_bus.h"
#include "driveutils/tavbus.h"
#include "driveutils/tavdrive.h"

namespace storetest {
namespace {

struct Bringup {
    explicit Bringup(const std::string& dir) : platform(dir), scope(platform)
    {
        sim::resetDriveManager();
        rc = TavDriveMgr::init();
    }
    ~Bringup() { sim::resetDriveManager(); }
    sim::SimPlatform platform;
    plat::ScopedPlatform scope;
    int rc = 0;
};

std::vector<std::string> driveNames()
{
    std::vector<std::string> names;
    for (int p = 1; p <= TavDriveMgr::nDrives; ++p) names.push_back(TavDriveMgr::getDrive(p)->getFile());
    return names;
}

TEST(DriveMgrInit, IdeLayoutsByIdentifier)
{
    const std::vector<std::string> oneU(hddevnames, hddevnames + 4);
    for (int id : {1, 4, 7, 13, 14}) {
        SCOPED_TRACE(id);
        StoreModule m(id, false);
        Bringup b(m.dir());
        EXPECT_EQ(b.rc, 0);
        EXPECT_EQ(TavDriveMgr::getPlatformID(), id);
        EXPECT_TRUE(TavDriveMgr::isOneU());
        EXPECT_EQ(driveNames(), oneU);
        ASSERT_EQ(TavDriveMgr::getNBuses(), 2);
        EXPECT_EQ(TavDriveMgr::getBus(2), TavDriveMgr::getNthBus(0));
        EXPECT_EQ(TavDriveMgr::getBus(3), TavDriveMgr::getNthBus(1));
        EXPECT_EQ(TavDriveMgr::getNthBus(2), nullptr);
        EXPECT_EQ(TavDriveMgr::getDrive(0), nullptr);
        EXPECT_EQ(TavDriveMgr::getDrive(5), nullptr);
        EXPECT_EQ(TavDriveMgr::getNVRam(0), nullptr);
        EXPECT_EQ(TavDriveMgr::getDriveNum("/dev/ide/host0/bus1/target1/lun0/part1"), 3);
        EXPECT_EQ(TavDriveMgr::getDriveNum("/dev/hdd2"), 3);
        EXPECT_EQ(TavDriveMgr::getDriveNum("/dev/sda"), 0);
        EXPECT_EQ(TavDriveMgr::getDriveNum(64 + 5), 2) << "minors 64 to 71 are drive 2";
        EXPECT_EQ(TavDriveMgr::getDriveNum(72), 0);
    }

    StoreModule loam(3, false);
    Bringup b(loam.dir());
    EXPECT_EQ(driveNames(), std::vector<std::string>(loamdevnames, loamdevnames + 2));
    EXPECT_EQ(TavDriveMgr::getNBuses(), 2);
    EXPECT_EQ(TavDriveMgr::getNthBus(1)->getNDrive(), 1);
    EXPECT_EQ(static_cast<RaidDeviceMgmt::TavIdeBus*>(TavDriveMgr::getNthBus(1))->getController(), 1);
}

TEST(DriveMgrInit, UnknownModelFallsBackTo1U)
{
    StoreModule m(99, false);
    testing::internal::CaptureStderr();
    Bringup b(m.dir());
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not obtain the HWID for this Product. "),
              std::string::npos);
    EXPECT_EQ(b.rc, 0);
    EXPECT_EQ(TavDriveMgr::getPlatformID(), -1);
    EXPECT_EQ(TavDriveMgr::nDrives, 4);
}

TEST(DriveMgrInit, DriveBaseAndRequiredCards)
{
    for (auto [value, base] : {std::pair<const char*, int>{"FALSE", -1}, {"no", 0}}) {
        StoreModule m(1, false);
        m.temp().put("/etc/marrowby/brand/common/features.conf",
                     std::string("[PASSIVE_REPORT]\ndrivesOneBased=") + value + ";\n");
        m.temp().put("/etc/marrowby/hwlist.conf", "PCI:NVRAM:RQDC:3\nPCI:NVRAM:RQDC:\nPCI:NVRAM\nPCI:OTHER:X:9\n");
        Bringup b(m.dir());
        EXPECT_EQ(TavDriveMgr::driveBase, base) << value;
        EXPECT_EQ(TavDriveMgr::adjDriveBase(1), 1 + base);
        ASSERT_NE(TavDriveMgr::requiredNVRamCards, nullptr);
        EXPECT_EQ(*TavDriveMgr::requiredNVRamCards, std::vector<unsigned int>{3});
        EXPECT_TRUE(TavDriveMgr::NVRamIsRequired(3));
        EXPECT_FALSE(TavDriveMgr::NVRamIsRequired(0));
    }
}

} // namespace
} // namespace storetest

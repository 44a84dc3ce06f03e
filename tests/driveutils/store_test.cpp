// The signature store in one process: which drive's tables win, what a stamp
// changes, both copies, the serial-number list and damaged signature bytes.
#include <cerrno>
#include <fcntl.h>

#include "driveutils/store_fixture.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavraiddevices.h"

namespace storetest {
namespace {

// A signed module with the drive manager brought up on it in this process.
class Store : public ManagerTest {
protected:

    // Gives bay `bay` a block read from the drive manager's memory after
    // `change`: the records as signed, changed, written by the store itself.
    template <typename Change>
    void rewrite(int bay, Change change)
    {
        sim::resetDriveManager();
        TavDriveMgr::init();
        long long stamp = -1;
        ASSERT_EQ(TavDriveMgr::readSignature(bay, &stamp), 0);
        change();
        ASSERT_EQ(TavDriveMgr::writeSignature(bay), 0);
        sim::resetDriveManager();
        TavDriveMgr::init();
    }
    static void setTree(int deviceNum, int16_t type)
    {
        SECT_DEVICE_TABLE table{};
        table.devices[0].deviceNum = static_cast<uint32_t>(deviceNum);
        table.devices[0].deviceType = type;
        SECT_STRING_TABLE strings{};
        delete TavDriveMgr::devices;
        TavDriveMgr::devices = new TavRaidDevices(&table, &strings, 1, 1);
    }
};

TEST_F(Store, NewestDismountWinsFirstPositionOnATieAndType0KeepsTheTree)
{
    // Bay 1: a tree (device 7), stamps 100. Bay 2: same stamp, other mount
    // times and tree 8. Bay 3: its own record newer (150), no tree.
    rewrite(1, [] { setTree(7, TavRaidDevice::ARRAY); TavDriveMgr::findDriveDescription(4)->llLastMountTime = 11; });
    rewrite(2, [] { setTree(8, TavRaidDevice::ARRAY); TavDriveMgr::findDriveDescription(4)->llLastMountTime = 22; });
    TavDriveMgr::readSignatureIntoMemory();
    EXPECT_EQ(TavDriveMgr::findDriveDescription(4)->llLastMountTime, 11) << "a tie keeps the earlier position";

    rewrite(3, [] {
        setTree(0, TavRaidDevice::UNKNOWN);
        TavDriveMgr::findDriveDescription(3)->llLastDismountTime = 150;
        TavDriveMgr::findDriveDescription(4)->llLastMountTime = 33;
    });
    TavDriveMgr::readSignatureIntoMemory();
    EXPECT_EQ(TavDriveMgr::findDriveDescription(4)->llLastMountTime, 33) << "the newer stamp wins";
    ASSERT_NE(TavDriveMgr::devices, nullptr) << "type 0 leaves the earlier tree";
    ASSERT_EQ(TavDriveMgr::writeSignature(4), 0);
    EXPECT_EQ(m_.copy(4, 0).u32(5 * 512), 7u) << "device 7 written back";

    // The reverse: the first drive has no tree, a later one a tree and an older stamp.
    rewrite(1, [] { setTree(0, TavRaidDevice::UNKNOWN); TavDriveMgr::findDriveDescription(1)->llLastDismountTime = 300; });
    TavDriveMgr::readSignatureIntoMemory();
    EXPECT_EQ(TavDriveMgr::devices, nullptr);
    EXPECT_EQ(TavDriveMgr::getLatestUnmountTime(), 300);
    EXPECT_EQ(TavDriveMgr::getLatestMountTime(), 100);
}

TEST_F(Store, ShortTableHeaderFromTheSecondCopyAndBothCopiesOnWrite)
{
    // Three records on disk and four positions: position 4 has no record.
    rewrite(1, [] { TavDriveMgr::numHardDriveSignatures = 3; });
    long long stamp = -1;
    ASSERT_EQ(TavDriveMgr::readSignature(1, &stamp), 0);
    EXPECT_EQ(TavDriveMgr::numHardDriveSignatures, 3);
    EXPECT_EQ(TavDriveMgr::findDriveDescription(4), nullptr);
    EXPECT_NE(TavDriveMgr::findDriveDescription(3), nullptr);
    EXPECT_EQ(TavDriveMgr::findDriveDescription(0), nullptr);

    // The first copy's header cannot be read: the header comes from the
    // second copy, the records from the first (absolute offsets).
    m_.poke(2, 0, 1 * 512 + off::mount, {0x55});
    m_.poke(2, 1, off::numDisk, {2});   // the second copy's header now says 2 (hash broken: not checked here)
    platform_.arm(sim::Fault::failing(sim::Op::Read, "/dev/ide/host0/bus0/target1/lun0/part1", 1, EIO));
    stamp = -1;
    ASSERT_EQ(TavDriveMgr::readSignature(2, &stamp), 0);
    EXPECT_EQ(TavDriveMgr::header.numDiskTables, 2u);
    EXPECT_EQ(TavDriveMgr::findDriveDescription(1)->llLastMountTime, 0x55) << "record from the first copy";

    // A failed first copy does not stop the second; the second's result counts.
    platform_.arm(sim::Fault::failing(sim::Op::Write, "/dev/ide/host0/bus1/target0/lun0/part1", 1, EIO));
    TavDriveMgr::setMountTime(1, 4242);
    EXPECT_EQ(TavDriveMgr::writeSignature(4), 0);
    EXPECT_NE(m_.copy(4, 0).mountOf(1), 4242);
    EXPECT_EQ(m_.copy(4, 1).mountOf(1), 4242);
    // Seven writes a copy: the eighth is the second copy's header.
    platform_.arm(sim::Fault::failing(sim::Op::Write, "/dev/ide/host0/bus1/target0/lun0/part1", 8, EIO));
    EXPECT_EQ(TavDriveMgr::writeSignature(4), 1) << "the second copy failed";
    platform_.arm(sim::Fault::failing(sim::Op::Fsync, "*", 1, EIO));
    int fd = plat::open("/dev/ide/host0/bus1/target0/lun0/part1", O_WRONLY);
    EXPECT_EQ(TavDriveMgr::writeSignature(4, fd), 1) << "a copy whose fsync failed is a failure";
    plat::close(fd);
}

TEST_F(Store, StampsLeaveTheRecordHashStaleAndCreateKeepsThem)
{
    TavDriveMgr::readSignatureIntoMemory();
    SECT_AUTO_RAID* record = TavDriveMgr::findDriveDescription(2);
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(tavSectorHashValid(record));
    TavDriveMgr::setUnmountTime(2, 777);
    TavDriveMgr::setMountTime(2, 666);
    EXPECT_FALSE(tavSectorHashValid(record));
    EXPECT_EQ(record->llLastDismountTime, 777);

    // A new-drive record keeps the stamps, loses owner and order.
    EXPECT_EQ(TavDriveMgr::createDriveSignature(2, 1), 0);
    EXPECT_TRUE(tavSectorHashValid(record));
    EXPECT_EQ(record->llLastMountTime, 666);
    EXPECT_EQ(record->llLastDismountTime, 777);
    EXPECT_EQ(record->uLastOrder, 0u);
    EXPECT_EQ(record->caMotherboardTag[0], 0);
    EXPECT_EQ(std::string(record->caSerialNumber), m_.serial(2));

    // Without a record: only setUnmountTime says so.
    TavDriveMgr::cleanup();
    testing::internal::CaptureStderr();
    TavDriveMgr::setMountTime(3, 1);
    TavDriveMgr::setUnmountTime(3, 1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("setMountTime: drive:3 time:1 "), std::string::npos);
    EXPECT_NE(log.find("cannot find drive desc for drive 3 "), std::string::npos);
}

TEST_F(Store, OwnStampAndTreeStraightFromDisk)
{
    rewrite(1, [] { setTree(5, TavRaidDevice::ARRAY); TavDriveMgr::setUnmountTime(2, 222); });
    long long stamp = 0;
    EXPECT_EQ(TavDriveMgr::readUmountTime(1, &stamp), 0);
    EXPECT_EQ(stamp, 100);
    EXPECT_EQ(TavDriveMgr::readUmountTime(2, &stamp), 0);
    EXPECT_EQ(stamp, 100) << "bay 2 keeps its own block";
    sim::Module(m_.dir()).overwrite("/dev/ide/host0/bus0/target0/lun0/part1", 1 * 512 + off::dismount, "\x10");
    EXPECT_EQ(TavDriveMgr::readUmountTime(1, &stamp), 0);
    EXPECT_EQ(stamp, 0x10) << "a record's own hash is never looked at";

    TavRaidDevices* tree = TavDriveMgr::readDevices(1);
    ASSERT_NE(tree, nullptr);
    delete tree;
    EXPECT_EQ(TavDriveMgr::readDevices(2), nullptr) << "type 0";

    m_.poke(1, 0, 100, {0xFF});
    m_.poke(1, 1, 100, {0xFF});
    EXPECT_EQ(TavDriveMgr::readUmountTime(1, &stamp), 2);
    EXPECT_EQ(TavDriveMgr::readDevices(1), nullptr);
    EXPECT_EQ(TavDriveMgr::readUmountTime(9, &stamp), -1);
    rewrite(3, [] { TavDriveMgr::numHardDriveSignatures = 2; });
    EXPECT_EQ(TavDriveMgr::readUmountTime(3, &stamp), 10);
}

TEST_F(Store, SerialNumberList)
{
    std::string a = m_.serial(1), b = m_.serial(2);
    EXPECT_TRUE(validSerialNumber("anything")) << "no list, no restriction";
    EXPECT_EQ(TavDriveMgr::removeFromValidList(TavDriveMgr::getDrive(1)), -1);

    std::string list(128, '\0');
    list.replace(0, a.size(), a);
    list.replace(64, b.size(), b);
    m_.temp().put(DISK_SERIALNOS_FILE, list);
    EXPECT_TRUE(validSerialNumber(b.c_str()));
    EXPECT_FALSE(validSerialNumber(m_.serial(3).c_str()));
    EXPECT_EQ(TavDriveMgr::checkDrive(3), 15);
    EXPECT_EQ(TavDriveMgr::checkDrive(2), 0);

    EXPECT_EQ(TavDriveMgr::removeFromValidList(TavDriveMgr::getDrive(1)), 0);
    EXPECT_EQ(m_.temp().get(DISK_SERIALNOS_FILE), list.substr(64));
    EXPECT_FALSE(validSerialNumber(a.c_str()));

    // A partial last record is logged and ends the walk.
    m_.temp().put(DISK_SERIALNOS_FILE, list.substr(64) + "tail");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(validSerialNumber("tail"));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("validSerialNumber: read only 4 of 64 bytes."),
              std::string::npos);
    TavDriveMgr::writeSerialNumbers();   // no running array: nothing
    EXPECT_EQ(m_.temp().get(DISK_SERIALNOS_FILE), list.substr(64) + "tail");
}

// Counts no partition can hold and texts without an end: read within the
// partition's size, written back without a fault.
TEST_F(Store, DamagedCountsAndUnterminatedTextsStayBounded)
{
    for (size_t field : {off::numDisk, off::numDevice, off::numString}) {
        SCOPED_TRACE(field);
        StoreModule fresh;
        sim::SimPlatform platform(fresh.dir());
        plat::ScopedPlatform scope(platform);
        sim::resetDriveManager();
        TavDriveMgr::init();
        for (int which : {0, 1}) {
            fresh.poke(1, which, field, {0xFF, 0xFF, 0xFF, 0xFF});
            fresh.poke(1, which, 512 + off::serial, std::vector<uint8_t>(344, 'x'));
            fresh.poke(1, which, off::headerSerial, std::vector<uint8_t>(64 + 412, 'y'));
            fresh.rehash(1, which);
        }
        // The first copy runs into the partition's end (3); the fallback then
        // finds no newer stamp: 0, with no tables taken.
        long long stamp = -1;
        EXPECT_EQ(TavDriveMgr::readSignature(1, &stamp), 0);
        EXPECT_EQ(stamp, kSignTime);
        EXPECT_EQ(TavDriveMgr::devices, nullptr);
        EXPECT_LE(TavDriveMgr::numHardDriveSignatures, 4);
        EXPECT_EQ(TavDriveMgr::readDevices(1), nullptr);
        for (int bay = 1; bay <= 4; ++bay) EXPECT_EQ(TavDriveMgr::writeSignature(bay), 0);
        EXPECT_TRUE(fresh.copy(1, 0).hashHolds(0));
    }
}

} // namespace
} // namespace storetest

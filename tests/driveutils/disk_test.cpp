#include <algorithm>
#include <fstream>
#include <sstream>
#include <linux/fs.h>
#include <sys/wait.h>

#include "driveutils/drive_fixture.h"
#include "driveutils/tavdisk.h"
#include "driveutils/tavsysutils.h"
#include "sim/ata.h"

namespace drivetest {
namespace {

using Disk = DriveModule;

size_t countOf(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST_F(Disk, IdentityQueriesAnswerFromTheDrive)
{
    sim::Manifest manifest = platform_.module().manifest();
    const sim::Drive* sim1 = manifest.driveInBay(1);
    ASSERT_NE(sim1, nullptr);
    char text[64] = "unchanged";
    EXPECT_EQ(getDriveSerialNumber(kDiscs[0], text, sizeof text), 0);
    EXPECT_EQ(text, sim1->serial);
    EXPECT_EQ(serial(1), sim1->serial);   // the IDE drive's raw identify gives the same text
    EXPECT_EQ(getDriveModel(kDiscs[0], text, sizeof text), 0);
    EXPECT_EQ(text, sim1->model);
    EXPECT_EQ(getDriveCapacity(kDiscs[0], text, sizeof text), 0);
    EXPECT_EQ(std::stoul(text), sim1->sectors);
    EXPECT_EQ(getDriveMode(kDiscs[0], text, sizeof text), 0);
    EXPECT_STREQ(text, "UDMA 100MB");

    EXPECT_EQ(getDriveModel("/dev/ide/host5/bus0/target0/lun0/disc", text, sizeof text), -10);
    platform_.arm(sim::Fault::failing(sim::Op::Ioctl, kDiscs[0], 1, EIO));
    EXPECT_EQ(getDriveSerialNumber(kDiscs[0], text, sizeof text), -11);
    char small[4];
    EXPECT_EQ(getDriveSerialNumber(kDiscs[0], small, sizeof small), 0);
    EXPECT_EQ(std::string(small), sim1->serial.substr(0, 3));
}

TEST_F(Disk, IdeDriveCommandsReachTheDrive)
{
    RaidDeviceMgmt::TavIdeDrive& d = drive(2);
    uint32_t capacity = 0;
    EXPECT_EQ(d.getCapacity(capacity), 0);
    EXPECT_EQ(capacity, simtest::kSectors);
    EXPECT_TRUE(d.pingPhysicalDrive());
    std::string model, cls;
    EXPECT_EQ(d.getModel(model), 0);
    EXPECT_EQ(d.getClass(cls), 0);
    EXPECT_EQ(cls, "UDMA 100MB");
    EXPECT_EQ(d.SetHardDriveWriteCache(130), 0);   // 0x82: off
    EXPECT_EQ(d.flushWriteCache(), 0);
    sim::Manifest manifest = platform_.module().manifest();
    const sim::Drive* state = manifest.driveInBay(2);
    EXPECT_FALSE(state->writeCache);
    EXPECT_EQ(countOf(platform_.module().readState("ata.log"), " flush-cache"), 1u);
    EXPECT_EQ(d.getMinor(), 64);

    platform_.module().pull(2);
    EXPECT_FALSE(d.pingPhysicalDrive());
    std::string serialText;
    EXPECT_NE(d.getSerialNo(serialText), 0);
    EXPECT_EQ(serialText, "--------");
}

TEST_F(Disk, NamesOfTheDrive)
{
    RaidDeviceMgmt::TavIdeDrive d(1, "/dev/scsi/host0/bus0/target0/lun0/disc");
    EXPECT_EQ(d.getBaseName(), "/dev/scsi/host0/bus0/target0/lun0/");
    EXPECT_EQ(d.getSignaturePartitionName(), "/dev/scsi/host0/bus0/target0/lun0/part1");
    EXPECT_EQ(d.getOSPartitionName(), "/dev/scsi/host0/bus0/target0/lun0/part5");
    EXPECT_EQ(d.getMinor(), -1);   // no such node
    std::ostringstream out;
    d.printPartitionNames(out);
    EXPECT_EQ(out.str(), "signaturePartition: /dev/scsi/host0/bus0/target0/lun0/part1 bootPartition: "
                         "/dev/scsi/host0/bus0/target0/lun0/part3 upgradePartition: "
                         "/dev/scsi/host0/bus0/target0/lun0/part6");
    std::string text = "old";
    d.getClass(0x0101, text);
    EXPECT_EQ(text, "UDMA 8MB");
    d.getClass(0x0100, text);
    EXPECT_EQ(text, "");
    d.getClass(0x7f7f, text);
    EXPECT_EQ(text, "UDMA 8MB");   // the first that holds wins
}

TEST_F(Disk, ShellOperationsAreRunAsCommands)
{
    drive(1).addToOsRaid();
    drive(3).initBootSector();
    RaidDeviceMgmt::TavDriveUno uno(4, kDiscs[3]);
    uno.initBootSector();   // does nothing
    mkfs("/dev/hda", "1");
    copyFS("/src", "/dev/hda", "2", "/mnt");
    std::string log = commandLog();
    EXPECT_NE(log.find("/etc/marrowby/tav_osraid start /dev/ide/host0/bus0/target0/lun0/"), std::string::npos);
    EXPECT_NE(log.find("/etc/marrowby/tav_cpboot /dev/ide/host0/bus1/target1/lun0/"), std::string::npos);
    EXPECT_NE(log.find("/etc/marrowby/tav_lilo /dev/ide/host0/bus1/target1/lun0/"), std::string::npos);
    EXPECT_EQ(log.find("bus1/target0/lun0/"), std::string::npos);   // the Uno drive ran nothing
    EXPECT_NE(log.find("echo y | mkreiserfs /dev/hda1"), std::string::npos);
    EXPECT_NE(log.find("./fscopy /src /mnt/hda2"), std::string::npos);
    const std::string bay1 = platform_.module().manifest().bay(1)->device;
    EXPECT_GE(countOf(platform_.module().readState("ata.log"), bay1 + " flush-cache"), 1u);
}

TEST_F(Disk, TavSystemRunsInAChildAndGivesTheWaitStatus)
{
    int status = tav_system("/etc/marrowby/tav_osraid stop /dev/ide/host0/bus0/target0/lun0/");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(commandLog().find("tav_osraid stop /dev/ide/host0/bus0/target0/lun0/"), std::string::npos);
    status = tav_system("no-such-tool --flag");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_NE(WEXITSTATUS(status), 0);
}

TEST_F(Disk, LiloConfigurationIsRewrittenInPlace)
{
    std::string conf = module_.host("mnt/configs/etc/lilo.conf");
    std::filesystem::create_directories(std::filesystem::path(conf).parent_path());
    {
        std::ofstream out(conf);
        out << "boot=/dev/hda\nimage=/boot/vmlinuz\n  root=/dev/hda5\nshort /dev/hd\n";
    }
    runLilo("/mnt/", "/dev/hdc");
    std::ifstream in(conf);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "boot=/dev/hdc\nimage=/boot/vmlinuz\n  root=/dev/hdc5\nshort /dev/hd\n");
    EXPECT_NE(commandLog().find("lilo -verbose=3 -C ./configs/etc/lilo.conf -r /mnt/"), std::string::npos);
}

TEST_F(Disk, ZeroSuperblockWipesTheEndOrTheStartOfAShortDevice)
{
    const std::string data = partition(1, 2);
    int fd = plat::open(data.c_str(), O_RDONLY);
    uint64_t size = 0;
    plat::ioctl(fd, BLKGETSIZE64, &size);
    plat::close(fd);
    std::vector<unsigned char> ones(65536 + 512, 0xFF);
    writeAt(data, static_cast<off_t>(size - ones.size()), ones);
    zeroSuperblock(data.c_str());
    auto tail = readAt(data, static_cast<off_t>(size - ones.size()), ones.size());
    EXPECT_EQ(std::count(tail.begin(), tail.begin() + 512, 0xFF), 512);
    EXPECT_EQ(std::count(tail.begin() + 512, tail.end(), 0), 65536);

    // The signature partition is 1 MiB: long enough. A device shorter than 64 KiB
    // is the boot partition of a tiny layout.
    ASSERT_EQ(buildPartitions(kDiscs[3], 2097152, 2097152, 0, 98304, 100, false), 0);
    const std::string boot = partition(4, 3);
    writeAt(boot, 0, std::vector<unsigned char>(512 * 100, 0xFF));
    zeroSuperblock(boot.c_str());
    auto all = readAt(boot, 0, 512 * 100);
    EXPECT_EQ(std::count(all.begin(), all.end(), 0), 512 * 100);   // written from the start, cut at the end
}

TEST(DeviceTable, OldIdeNamesAndMdEntries)
{
    EXPECT_STREQ(tavGetDeviceName(1), "/dev/hda");
    EXPECT_STREQ(tavGetDeviceName(3), "/dev/hdd");
    EXPECT_EQ(tavGetDeviceName(5), nullptr);
    EXPECT_EQ(tavGetDeviceName(0), nullptr);
    EXPECT_EQ(tavGetDriveNumber("/dev/hdc"), 4);
    EXPECT_EQ(tavGetDriveNumber("/dev/hd"), -1);
    EXPECT_EQ(getDriveMajorNum(1), 3);
    EXPECT_EQ(getDriveMajorNum(2), 22);
    EXPECT_EQ(getDriveMinorNum(1), 64);
    EXPECT_EQ(getDriveMinorNum(2), 0);

    initDriveMDs();
    setDriveMDs(2, 0, 1, 2);
    setDriveMDs(2, 3, 4, 2);
    setDriveMDs(1, 0, 1, 2);
    const p_to_md* table = getDriveMDs();
    EXPECT_EQ(table[0].driveNo, 2);
    EXPECT_EQ(table[0].mdDrives[0], 3);
    EXPECT_EQ(table[1].driveNo, 1);
    EXPECT_EQ(table[2].driveNo, -1);
    setDriveMDs(3, 0, 0, 1);
    setDriveMDs(4, 0, 0, 1);
    setDriveMDs(5, 0, 0, 1);   // full: nothing changes
    for (int i = 0; i < 4; ++i) EXPECT_NE(table[i].driveNo, 5);
}

TEST(SignatureText, EveryCodeAndOutOfRange)
{
    EXPECT_STREQ(getDriveSignatureText(0), "OK:");
    EXPECT_STREQ(getDriveSignatureText(9), "OK: the drive is a new Marrowby Networks drive");
    EXPECT_STREQ(getDriveSignatureText(14), "LUN_RSVD_OTHER:LUN reserved by other");
    EXPECT_STREQ(getDriveSignatureText(15), "OK: drive was used in VRD");
    EXPECT_STREQ(getDriveSignatureText(16), "unknown");
    EXPECT_STREQ(getDriveSignatureText(-1), "unknown");
}

} // namespace
} // namespace drivetest

namespace drivetest {
namespace {

TEST_F(Disk, ReadSignatureOfTheOldIdeNaming)
{
    Block block = ownBlock();
    std::vector<unsigned char> bytes = block.bytes("HDB-SERIAL");
    {
        std::ofstream out(module_.host("dev/hda1"), std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    SECT_INDEX_TABLE header;
    SECT_AUTO_RAID records[4];
    ASSERT_EQ(readSignature('a', &header, records, 4), &records[0]);   // the record of drive a
    EXPECT_STREQ(header.caSerialNumber, "HDB-SERIAL");
    EXPECT_EQ(std::string(records[1].caSerialNumber), serial(2));

    // More records asked than the device holds: a short read gives null.
    SECT_AUTO_RAID many[16];
    EXPECT_EQ(readSignature('a', &header, many, 16), nullptr);
    EXPECT_EQ(readSignature('e', &header, records, 4), nullptr);   // no /dev/he1
}

} // namespace
} // namespace drivetest

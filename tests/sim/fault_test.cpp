#include <cerrno>
#include <fcntl.h>
#include <linux/hdreg.h>

#include "sim_fixture.h"

using namespace simtest;

namespace {

std::string readDisc(const TempModule& m, off_t at, size_t n)
{
    std::string out(n, '\0');
    int fd = ::open(m.host("dev/ide/host0/bus0/target0/lun0/disc").c_str(), O_RDONLY);
    EXPECT_EQ(::pread(fd, out.data(), n, at), static_cast<ssize_t>(n));
    ::close(fd);
    return out;
}

// Writes four sectors one by one, "A" to "D", and gives how many were written whole.
int writeFour(sim::SimPlatform& p)
{
    int fd = p.open(kDisc1, O_WRONLY, 0);
    if (fd < 0) return -1;
    int whole = 0;
    for (char c = 'A'; c <= 'D'; ++c) {
        std::string sector(512, c);
        if (p.write(fd, sector.data(), 512) == 512) ++whole;
    }
    p.close(fd);
    return whole;
}

} // namespace

TEST(Faults, ErrnoShortCountAndEintrHitTheNamedCall)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    p.arm(sim::Fault::failing(sim::Op::Write, kDisc1, 2, EIO));
    p.arm(sim::Fault::shortening(sim::Op::Read, kDisc1, 1, 100));
    p.arm(sim::Fault::failing(sim::Op::Ioctl, std::string(kDir1) + "*", 1, EINTR));
    int fd = p.open(kDisc1, O_RDWR, 0);
    std::string sector(512, 'z');
    EXPECT_EQ(p.write(fd, sector.data(), 512), 512);
    EXPECT_EQ(p.write(fd, sector.data(), 512), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(readDisc(m, 512, 512), std::string(512, '\0')) << "the failed write changed nothing";
    EXPECT_EQ(p.lseek(fd, 0, SEEK_CUR), 512) << "nor moved the position";
    EXPECT_EQ(p.write(fd, sector.data(), 512), 512) << "the fault hit once";
    char buf[512];
    EXPECT_EQ(p.pread(fd, buf, 512, 0), 100);
    EXPECT_EQ(p.pread(fd, buf, 512, 0), 512);
    hd_geometry geo{};
    EXPECT_EQ(p.ioctl(fd, HDIO_GETGEO, &geo), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(p.ioctl(fd, HDIO_GETGEO, &geo), 0) << "a retry goes through";
    EXPECT_TRUE(p.faults().empty());
    p.close(fd);

    // A fault on open and on stat of a path that is no device.
    p.arm(sim::Fault::failing(sim::Op::Open, "/etc/marrowby/hwlist.conf", 1, ENODEV, -1));
    p.arm(sim::Fault::failing(sim::Op::Stat, "/etc/*", 1, ENOSPC));
    struct stat st;
    EXPECT_EQ(p.stat("/etc/marrowby/hwlist.conf", &st), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(p.open("/etc/marrowby/hwlist.conf", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(p.fopen("/etc/marrowby/hwlist.conf", "r"), nullptr);
    EXPECT_EQ(errno, ENODEV);
}

TEST(Faults, PowerCutLosesLaterWritesOnlyInThatProcess)
{
    TempModule m;
    {
        sim::SimPlatform p(m.dir());
        p.arm(sim::Fault::powerCut(kDisc1, 2));
        EXPECT_EQ(writeFour(p), 4) << "lost writes still report success";
        EXPECT_TRUE(p.powerIsCut());
        int fd = p.open("/etc/marrowby/after-the-cut", O_WRONLY | O_CREAT, 0644);
        EXPECT_EQ(p.write(fd, "lost", 4), 4);
        p.close(fd);
    }
    EXPECT_EQ(readDisc(m, 0, 1), "A");
    EXPECT_EQ(readDisc(m, 512, 1), "B");
    EXPECT_EQ(readDisc(m, 1024, 1), std::string(1, '\0'));
    EXPECT_EQ(readDisc(m, 1536, 1), std::string(1, '\0'));
    struct stat st;
    ASSERT_EQ(::stat(m.host("etc/marrowby/after-the-cut").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0) << "file writes after the cut are lost too";

    sim::SimPlatform next(m.dir());
    EXPECT_FALSE(next.powerIsCut()) << "the power is back for the next process";
    EXPECT_EQ(writeFour(next), 4);
    EXPECT_EQ(readDisc(m, 1536, 1), "D");
}

TEST(Faults, SweepFailsEachCallInTurn)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    ASSERT_EQ(writeFour(p), 4);
    const uint64_t n = p.calls(sim::Op::Write, kDisc1);
    ASSERT_EQ(n, 4u);
    for (uint64_t i = 1; i <= n; ++i) {
        p.resetCalls();
        p.arm(sim::Fault::failing(sim::Op::Write, kDisc1, i, EIO));
        EXPECT_EQ(writeFour(p), 3) << "failing write " << i;
        EXPECT_TRUE(p.faults().empty());
    }
}

TEST(Faults, ArmedInTheFileReachTheNextProcess)
{
    TempModule m;
    {
        sim::Module mod(m.dir());
        mod.appendState("faults", "read /dev/ide/host0/bus0/target0/lun0/disc nth=1 times=-1 errno=EIO");
        mod.appendState("faults", "garbage line that is skipped");
    }
    sim::SimPlatform p(m.dir());
    ASSERT_EQ(p.faults().size(), 1u);
    int fd = p.open(kDisc1, O_RDONLY, 0);
    char c;
    EXPECT_EQ(p.read(fd, &c, 1), -1);
    EXPECT_EQ(p.read(fd, &c, 1), -1) << "times=-1 never runs out";
    p.close(fd);
    p.clearFaults();
    EXPECT_EQ(sim::Module(m.dir()).readState("faults"), "");
}

TEST(Drives, PullSwapAndInsertMoveTheDriveWithItsIdentity)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    sim::Module& mod = p.module();
    const std::string serial1 = mod.manifest().driveInBay(1)->serial;
    const std::string serial2 = mod.manifest().driveInBay(2)->serial;
    ASSERT_EQ(writeFour(p), 4);

    int fd = p.open(kDisc1, O_RDONLY, 0);
    ASSERT_EQ(mod.pull(1), "");
    char c;
    EXPECT_EQ(p.read(fd, &c, 1), -1) << "an open descriptor of a pulled drive fails";
    EXPECT_EQ(errno, EIO);
    p.close(fd);
    EXPECT_EQ(p.open(kDisc1, O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(mod.pull(1), "") << "the bay is empty";

    ASSERT_EQ(mod.swap(1, 2), "");  // bay 2's drive into the empty bay 1
    ASSERT_EQ(mod.insert(2, serial1), "");
    unsigned char id[512];
    fd = p.open("/dev/ide/host0/bus0/target1/lun0/disc", O_RDONLY, 0);
    ASSERT_EQ(p.ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(id + 20)), serial1);
    char data = 0;
    EXPECT_EQ(p.pread(fd, &data, 1, 1536), 1);
    EXPECT_EQ(data, 'D') << "the data went with the drive";
    p.close(fd);
    EXPECT_EQ(mod.manifest().driveInBay(1)->serial, serial2);

    ASSERT_EQ(mod.pull(2), "");
    ASSERT_EQ(mod.insert(2, ""), "");
    std::string fresh = mod.manifest().driveInBay(2)->serial;
    EXPECT_NE(fresh, serial1);
    EXPECT_NE(fresh, serial2);
    EXPECT_EQ(mod.overwrite(kDisc1, 10, "xy"), "");
    EXPECT_NE(mod.overwrite(kDisc1, kSectors * 512 - 1, "xy"), "") << "past the end of the disk";
}

TEST(Manifest, GarbageIsSkippedAndTheModuleStillWorks)
{
    TempModule m;
    sim::Module mod(m.dir());
    std::string text = mod.readState("manifest");
    const std::string serial1 = mod.manifest().driveInBay(1)->serial;
    text += "bay 0 /dev/x 1 1\nbay 9 relative 1 1\nbay 1 /dev/dup 3 0\ndrive bay=2\n"
            "drive serial=TWIN bay=1 kind=ata\ndrive serial=X kind=tape\nplatform banana\n\x01\xff%%%\n";
    std::vector<std::string> warnings;
    sim::Manifest parsed = sim::Manifest::parse(text, &warnings);
    EXPECT_EQ(warnings.size(), 8u);
    EXPECT_EQ(parsed.bays.size(), 4u);
    ASSERT_NE(parsed.drive("TWIN"), nullptr);
    EXPECT_EQ(parsed.drive("TWIN")->bay, 0) << "a second drive in a bay goes to the shelf";
    EXPECT_EQ(sim::Manifest::parse(parsed.format()).format(), parsed.format());

    mod.writeState("manifest", text);
    sim::SimPlatform p(m.dir());
    unsigned char id[512];
    int fd = p.open(kDisc1, O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(p.ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(id + 20)), serial1);
    p.close(fd);
}

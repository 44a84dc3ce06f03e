#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <map>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "sim_fixture.h"

using namespace simtest;

namespace {

void writeLayout(sim::SimPlatform& p, const std::vector<TableSector>& layout)
{
    int fd = p.open(kDisc1, O_WRONLY, 0);
    ASSERT_GE(fd, 0);
    for (const TableSector& t : layout)
        ASSERT_EQ(p.pwrite(fd, t.bytes.data(), 512, static_cast<off_t>(t.sector * 512)), 512);
    ASSERT_EQ(p.ioctl(fd, BLKRRPART, nullptr), 0);
    ASSERT_EQ(p.close(fd), 0);
}

unsigned long sizeOf(sim::SimPlatform& p, const std::string& node)
{
    int fd = p.open(node.c_str(), O_RDONLY, 0);
    EXPECT_GE(fd, 0) << node;
    unsigned long sectors = 0;
    EXPECT_EQ(p.ioctl(fd, BLKGETSIZE, &sectors), 0);
    p.close(fd);
    return sectors;
}

} // namespace

TEST(BlockDevice, TableWrittenThroughDiscMakesWindowsOthersSee)
{
    TempModule m;
    const std::string part = kDir1;
    {
        sim::SimPlatform p(m.dir());
        struct stat st;
        EXPECT_EQ(p.stat((part + "part1").c_str(), &st), -1) << "a blank disk has no partitions";
        EXPECT_EQ(errno, ENOENT);
        writeLayout(p, standardLayout(4000000, 2097152, 2097152, 98304));
    }
    // A fresh platform over the same directory stands for the next process.
    sim::SimPlatform p(m.dir());
    const std::map<int, unsigned long> sizes = {{1, 2048}, {2, 4000000}, {3, 20480}, {4, 2},
                                                {5, 2097152}, {6, 2097152}, {7, 98304}};
    for (const auto& [n, size] : sizes) {
        std::string node = part + "part" + std::to_string(n);
        EXPECT_EQ(sizeOf(p, node), size) << node;
        struct stat st;
        ASSERT_EQ(p.stat(node.c_str(), &st), 0);
        EXPECT_TRUE(S_ISBLK(st.st_mode));
        EXPECT_EQ(major(st.st_rdev), 3u);
        EXPECT_EQ(minor(st.st_rdev), static_cast<unsigned>(n));
    }
    struct stat st;
    EXPECT_EQ(p.stat((part + "part8").c_str(), &st), -1);

    // part5 starts one sector behind its table sector: its bytes are there in the image.
    const uint64_t part5 = 22529 + 4000000 + 1;
    int fd = p.open((part + "part5").c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    hd_geometry geo{};
    ASSERT_EQ(p.ioctl(fd, HDIO_GETGEO, &geo), 0);
    EXPECT_EQ(geo.start, part5);
    EXPECT_EQ(p.write(fd, "window", 6), 6);
    p.close(fd);
    char buf[6] = {};
    int img = ::open(m.host("dev/ide/host0/bus0/target0/lun0/disc").c_str(), O_RDONLY);
    ASSERT_EQ(::pread(img, buf, 6, static_cast<off_t>(part5 * 512)), 6);
    ::close(img);
    EXPECT_EQ(std::string(buf, 6), "window");

    // The whole disk: the size of the drive, and device numbers by interface.
    uint64_t bytes = 0;
    fd = p.open(kDisc3, O_RDONLY, 0);
    ASSERT_EQ(p.ioctl(fd, BLKGETSIZE64, &bytes), 0);
    EXPECT_EQ(bytes, kSectors * 512);
    ASSERT_EQ(p.fstat(fd, &st), 0);
    EXPECT_EQ(major(st.st_rdev), 22u);
    EXPECT_EQ(minor(st.st_rdev), 64u);
    p.close(fd);
}

TEST(BlockDevice, WindowEndsAtItsSizeWithItsOwnPosition)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    writeLayout(p, standardLayout(4000000, 2097152, 2097152, 98304));
    const std::string part1 = std::string(kDir1) + "part1";
    const off_t end = 2048 * 512;

    int a = p.open(part1.c_str(), O_RDWR, 0);
    int b = p.open(part1.c_str(), O_RDONLY, 0);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(p.lseek(a, end - 4, SEEK_SET), end - 4);
    EXPECT_EQ(p.write(a, "12345678", 8), 4) << "a write that crosses the end is cut there";
    EXPECT_EQ(p.write(a, "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(p.pwrite(a, "x", 1, end), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(p.lseek(a, 1, SEEK_END), -1) << "no seek past the end of a block device";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(p.lseek(a, 0, SEEK_END), end);
    char c;
    EXPECT_EQ(p.read(a, &c, 1), 0);
    EXPECT_EQ(p.lseek(b, 0, SEEK_CUR), 0) << "each descriptor has its own position";
    EXPECT_EQ(p.write(b, "x", 1), -1) << "read-only descriptor";

    // The signature partition's end is the boot partition's neighbour: nothing leaked into sector 2049.
    char next[4] = {1, 1, 1, 1};
    int disc = p.open(kDisc1, O_RDONLY, 0);
    ASSERT_EQ(p.pread(disc, next, 4, 2049 * 512), 4);
    EXPECT_EQ(std::string(next, 4), std::string(4, '\0'));

    // The kernel refuses to re-read a table while partitions are open.
    EXPECT_EQ(p.ioctl(disc, BLKRRPART, nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(p.ioctl(a, BLKRRPART, nullptr), -1) << "only the whole disk re-reads";
    p.close(a);
    p.close(b);
    EXPECT_EQ(p.ioctl(disc, BLKRRPART, nullptr), 0);
    EXPECT_EQ(p.ioctl(disc, BLKFLSBUF, nullptr), 0);
    p.close(disc);
}

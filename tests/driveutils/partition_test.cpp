#include <linux/fs.h>
#include <linux/hdreg.h>

#include "driveutils/tavsysutils.h"

#include "driveutils/drive_fixture.h"

namespace drivetest {
namespace {

using Partitions = DriveModule;

struct Entry {
    uint8_t type;
    uint32_t start;
    uint32_t count;
};

// The exact 512 bytes of a table with these entries.
std::vector<unsigned char> tableBytes(std::initializer_list<Entry> entries)
{
    std::vector<unsigned char> bytes = simtest::emptyTable();
    int slot = 0;
    for (const Entry& e : entries) simtest::putEntry(bytes, slot++, e.type, e.start, e.count);
    return bytes;
}

TEST_F(Partitions, FamiliesLayoutIsWrittenByteForByte)
{
    // 8388608 sectors: data = 8388608 - 2097152 - 2097152 - 98304 - 24576 = 4071424, extended at 4093953.
    const std::string disc = kDiscs[0];
    EXPECT_EQ(readAt(disc, 0, 512), tableBytes({{0x83, 1, 2048}, {0x83, 22529, 4071424}, {0x83, 2049, 20480},
                                                {0x05, 4093953, 4292614}}));
    EXPECT_EQ(readAt(disc, 4093953LL * 512, 512), tableBytes({{0x83, 1, 2097152}, {0x05, 2097154, 2195460}}));
    EXPECT_EQ(readAt(disc, 6191107LL * 512, 512), tableBytes({{0x83, 1, 2097152}, {0x05, 4194308, 98306}}));
    EXPECT_EQ(readAt(disc, 8288261LL * 512, 512), tableBytes({{0x83, 1, 98304}}));

    // The kernel's view after the re-read: part7 is the log partition.
    int fd = plat::open(partition(1, 7).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    uint64_t bytes = 0;
    EXPECT_EQ(plat::ioctl(fd, BLKGETSIZE64, &bytes), 0);
    EXPECT_EQ(bytes, 98304ULL * 512);
    plat::close(fd);
    EXPECT_EQ(drive(1).validatePartitions(), 0);
    EXPECT_EQ(verifyDrivePartitions(kDiscs[0]), 0);
}

TEST_F(Partitions, TwoLogsAndDefaultBootSize)
{
    const std::string disc = kDiscs[1];
    ASSERT_EQ(buildPartitions(disc.c_str(), 2097152, 2097152, 1000000, 1000, 0, true), 0);
    // E = 1022529, O = 4194304, L = 2000, X = 2.
    EXPECT_EQ(readAt(disc, 0, 512), tableBytes({{0x83, 1, 2048}, {0x83, 22529, 1000000}, {0x83, 2049, 20480},
                                                {0x05, 1022529, 4196312}}));
    EXPECT_EQ(readAt(disc, 1022529LL * 512, 512), tableBytes({{0x83, 1, 2097152}, {0x05, 2097154, 2099158}}));
    EXPECT_EQ(readAt(disc, 3119683LL * 512, 512), tableBytes({{0x83, 1, 2097152}, {0x05, 4194308, 2004}}));
    EXPECT_EQ(readAt(disc, 5216837LL * 512, 512), tableBytes({{0x83, 1, 1000}, {0x05, 4195310, 1002}}));
    EXPECT_EQ(readAt(disc, 5217839LL * 512, 512), tableBytes({{0x83, 1, 1000}}));
}

sim::Fault rereadFails(const char* disc, int64_t times)
{
    sim::Fault fault = sim::Fault::failing(sim::Op::Ioctl, disc, 1, EBUSY, times);
    fault.request = BLKRRPART;
    return fault;
}

TEST_F(Partitions, RereadIsRetriedOnceAndFailuresHaveTheirCodes)
{
    const char* disc = kDiscs[2];
    platform_.arm(rereadFails(disc, 1));
    time_t before = plat::time(nullptr);
    EXPECT_EQ(buildPartitions(disc, 2097152, 2097152, 0, 98304, 20480, false), 0);
    EXPECT_GE(plat::time(nullptr) - before, 2);   // the pause before the retry
    platform_.arm(rereadFails(disc, 2));
    EXPECT_EQ(buildPartitions(disc, 2097152, 2097152, 0, 98304, 20480, false), 3);
    platform_.arm(sim::Fault::failing(sim::Op::Write, disc, 2, EIO));
    EXPECT_EQ(buildPartitions(disc, 2097152, 2097152, 0, 98304, 20480, false), 2);
    EXPECT_EQ(buildPartitions("/dev/ide/host9/bus0/target0/lun0/disc", 1, 1, 1, 1, 1, false), 1);
    EXPECT_EQ(buildDataPartition(disc, 0), 1);
}

TEST_F(Partitions, DataOnlyTableStartsAtTheTrackSize)
{
    const char* disc = kDiscs[3];
    int fd = plat::open(disc, O_RDONLY);
    hd_geometry geometry{};
    ASSERT_EQ(plat::ioctl(fd, HDIO_GETGEO, &geometry), 0);
    plat::close(fd);
    ASSERT_EQ(buildDataPartition(disc, 500000), 0);
    auto expected = simtest::emptyTable();
    simtest::putEntry(expected, 1, 0x83, geometry.sectors, 500000 - geometry.sectors);
    EXPECT_EQ(readAt(disc, 0, 512), expected);
}

TEST_F(Partitions, EachLayoutTestFailsWithItsText)
{
    auto sector0 = readAt(kDiscs[0], 0, 512);
    auto patched = sector0;
    simtest::putEntry(patched, 0, 0x83, 1, 2047);
    writeAt(kDiscs[0], 0, patched);
    testing::internal::CaptureStdout();
    EXPECT_EQ(drive(1).validatePartitions(), 8);
    tav_logstream.flush();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("signature size:2047 tavdrive.cpp:"), std::string::npos);
    testing::internal::CaptureStderr();
    EXPECT_EQ(verifyDrivePartitions(kDiscs[0]), 8);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("signature size:2047 tavdrivesig.cpp:"), std::string::npos);

    patched = sector0;
    patched[446 + 32 + 4] = 0x07;   // boot partition no longer linux
    writeAt(kDiscs[0], 0, patched);
    testing::internal::CaptureStdout();
    EXPECT_EQ(drive(1).validatePartitions(), 8);
    tav_logstream.flush();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("boot partition not linux tavdrive.cpp:"), std::string::npos);

    writeAt(kDiscs[0], 0, std::vector<unsigned char>(512, 0));
    testing::internal::CaptureStdout();
    EXPECT_EQ(drive(1).validatePartitions(), 8);
    tav_logstream.flush();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("no partition table "), std::string::npos);
}

TEST_F(Partitions, BrokenChainsGiveAVerdict)
{
    // A link that points outside the disk: the probe still seeks, so the table is at fault.
    auto sector0 = readAt(kDiscs[0], 0, 512);
    auto outside = sector0;
    simtest::putEntry(outside, 3, 0x05, 0xFFFFFFF0u, 10);
    writeAt(kDiscs[0], 0, outside);
    EXPECT_EQ(drive(1).validatePartitions(), 8);
    EXPECT_EQ(verifyDrivePartitions(kDiscs[0]), 8);

    // A chain that loops onto the first logical table: the walk ends at its
    // depth limit, and as only types are judged, the looping table passes.
    writeAt(kDiscs[0], 0, sector0);
    const off_t first = 4093953LL * 512;
    auto logical = readAt(kDiscs[0], first, 512);
    simtest::putEntry(logical, 1, 0x05, 0, 10);
    writeAt(kDiscs[0], first, logical);
    EXPECT_EQ(drive(1).validatePartitions(), 0);
    EXPECT_EQ(verifyDrivePartitions(kDiscs[0]), 0);
    simtest::putEntry(logical, 0, 0x07, 1, 10);   // now the "upgrade" table is not linux
    writeAt(kDiscs[0], first, logical);
    EXPECT_EQ(drive(1).validatePartitions(), 8);

    // A read error on the whole disk.
    platform_.arm(sim::Fault::failing(sim::Op::Read, kDiscs[1], 1, EIO));
    EXPECT_EQ(drive(2).validatePartitions(), 3);
}

TEST(Chs, SmallSectorsAndTheOverflowForm)
{
    hd_geometry geometry{};
    geometry.heads = 255;
    geometry.sectors = 63;
    uint8_t head = 0, sector = 0, cyl = 0;
    getCHS(63 * 255 * 2 + 63 + 5, &head, &sector, &cyl, &geometry, 63 * 255);
    EXPECT_EQ(head, 1);
    EXPECT_EQ(sector, 6);
    EXPECT_EQ(cyl, 2);
    getCHS(63 * 255 * 1024, &head, &sector, &cyl, &geometry, 63 * 255);
    EXPECT_EQ(head, 254);
    EXPECT_EQ(sector, 63 | 0xC0);
    EXPECT_EQ(cyl, 255);
}

} // namespace
} // namespace drivetest

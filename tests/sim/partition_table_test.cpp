#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <map>
#include <sys/stat.h>

#include "sim_fixture.h"
#include "sim/partitions.h"

using namespace simtest;

namespace {

// A disk held in memory: sectors not written read as zeros.
struct MemDisk {
    std::map<uint64_t, std::vector<unsigned char>> sectors;
    uint64_t size = 100000;
    unsigned maxPartitions = 63;

    std::vector<sim::Window> table() const
    {
        return sim::readPartitionTable(size, maxPartitions, [this](uint64_t s, unsigned char* buf) {
            auto it = sectors.find(s);
            std::memset(buf, 0, 512);
            if (it != sectors.end()) std::memcpy(buf, it->second.data(), 512);
            return s < size;
        });
    }
    std::vector<int> numbers() const
    {
        std::vector<int> out;
        for (const sim::Window& w : table()) out.push_back(w.number);
        return out;
    }
};

// The extended partition of the chains below, and its links.
constexpr uint32_t kFirst = 1000, kFirstSize = 50000;

// An extended chain of links two sectors apart: each link holds a data
// partition of one sector when its flag is set, and leads to the next.
MemDisk chain(const std::vector<bool>& data)
{
    MemDisk d;
    d.maxPartitions = 255;
    auto mbr = emptyTable();
    putEntry(mbr, 0, 0x05, kFirst, kFirstSize);
    d.sectors[0] = mbr;
    for (size_t k = 0; k < data.size(); ++k) {
        auto link = emptyTable();
        if (data[k]) putEntry(link, 0, 0x83, 1, 1);
        if (k + 1 < data.size()) putEntry(link, 1, 0x05, static_cast<uint32_t>(2 * (k + 1)), 2);
        d.sectors[kFirst + 2 * k] = link;
    }
    return d;
}

std::vector<bool> links(std::initializer_list<std::pair<size_t, bool>> runs)
{
    std::vector<bool> out;
    for (const auto& [count, data] : runs) out.insert(out.end(), count, data);
    return out;
}

std::vector<int> range(int from, int to)
{
    std::vector<int> out;
    for (int n = from; n <= to; ++n) out.push_back(n);
    return out;
}

} // namespace

TEST(PartitionTable, BadBootIndicatorInAnySlotHidesTheWholeTable)
{
    MemDisk d;
    auto base = emptyTable();
    putEntry(base, 0, 0x83, 1, 2048);
    putEntry(base, 1, 0x05, 4000, 1000);
    auto link = emptyTable();
    putEntry(link, 0, 0x83, 1, 100);
    d.sectors[4000] = link;
    d.sectors[0] = base;
    ASSERT_EQ(d.numbers(), (std::vector<int>{1, 2, 5}));

    struct Case {
        int slot;
        unsigned char boot;
        bool shown;
    };
    // Slot 4 is empty: its boot byte counts all the same.
    for (const Case& c : {Case{0, 0x80, true}, Case{3, 0x80, true}, Case{0, 0x01, false}, Case{1, 0x7f, false},
                          Case{3, 0x12, false}, Case{2, 0xff, false}}) {
        auto mbr = base;
        mbr[446 + 16 * c.slot] = c.boot;
        d.sectors[0] = mbr;
        EXPECT_EQ(d.table().empty(), !c.shown) << "slot " << c.slot + 1 << " boot 0x" << std::hex << int(c.boot);
    }
}

TEST(PartitionTable, CorruptedBootByteMakesBlkrrpartDropEveryNode)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    int fd = p.open(kDisc1, O_RDWR, 0);
    ASSERT_GE(fd, 0);
    for (const TableSector& t : standardLayout(4000000, 2097152, 2097152, 98304))
        ASSERT_EQ(p.pwrite(fd, t.bytes.data(), 512, static_cast<off_t>(t.sector * 512)), 512);
    ASSERT_EQ(p.ioctl(fd, BLKRRPART, nullptr), 0);
    struct stat st;
    const std::string part = std::string(kDir1) + "part";
    ASSERT_EQ(p.stat((part + "1").c_str(), &st), 0);

    ASSERT_EQ(callTavsim({"corrupt", m.dir(), "1", "446", "01"}), 0);
    ASSERT_EQ(p.ioctl(fd, BLKRRPART, nullptr), 0);
    for (int n = 1; n <= 7; ++n) {
        EXPECT_EQ(p.stat((part + std::to_string(n)).c_str(), &st), -1) << n;
        EXPECT_EQ(errno, ENOENT);
    }
    p.close(fd);
}

TEST(PartitionTable, ProtectiveGptEntryLeavesNoMsdosPartitions)
{
    MemDisk d;
    auto mbr = emptyTable();
    putEntry(mbr, 0, 0x83, 1, 2048);
    putEntry(mbr, 1, 0x83, 4096, 8192);
    d.sectors[0] = mbr;
    ASSERT_EQ(d.numbers(), (std::vector<int>{1, 2}));

    // A whole-disk protective entry, and an empty slot typed 0xEE beside real ones.
    auto pmbr = emptyTable();
    putEntry(pmbr, 0, 0xEE, 1, 99999);
    d.sectors[0] = pmbr;
    EXPECT_TRUE(d.table().empty());
    putEntry(mbr, 3, 0xEE, 0, 0);
    d.sectors[0] = mbr;
    EXPECT_TRUE(d.table().empty());
}

TEST(PartitionTable, ChainEndsAfter100ConsecutiveLinksWithoutData)
{
    // The 100th empty link in a row is still read; the 101st link is not.
    EXPECT_EQ(chain(links({{99, false}, {1, true}})).numbers(), (std::vector<int>{1, 5}));
    EXPECT_EQ(chain(links({{100, false}, {1, true}})).numbers(), (std::vector<int>{1}));
    // A data partition starts the count again.
    EXPECT_EQ(chain(links({{1, true}, {99, false}, {1, true}})).numbers(), (std::vector<int>{1, 5, 6}));
    EXPECT_EQ(chain(links({{1, true}, {100, false}, {1, true}})).numbers(), (std::vector<int>{1, 5}));
    // A long chain of data links runs to the minor limit, not to 100 links.
    std::vector<int> want = range(5, 124);
    want.insert(want.begin(), 1);
    EXPECT_EQ(chain(links({{120, true}})).numbers(), want);
    MemDisk sd = chain(links({{120, true}}));
    sd.maxPartitions = 15;
    EXPECT_EQ(sd.numbers().back(), 15);
}

TEST(PartitionTable, LateSlotsOfALinkStayInsideTheLinkAndTheExtendedPartition)
{
    // Extended partition 1000..1999; the second link claims 2000 sectors.
    MemDisk d;
    auto mbr = emptyTable();
    putEntry(mbr, 0, 0x05, 1000, 1000);
    d.sectors[0] = mbr;
    auto l1 = emptyTable();
    putEntry(l1, 0, 0x83, 1, 10);
    putEntry(l1, 1, 0x05, 100, 2000);
    putEntry(l1, 2, 0x83, 20, 10);     // inside: kept
    putEntry(l1, 3, 0x83, 990, 20);    // past the link's (the extended's) end: dropped
    d.sectors[1000] = l1;
    auto l2 = emptyTable();
    putEntry(l2, 0, 0x83, 1, 5000);    // slots 1 and 2 are not bounded
    putEntry(l2, 2, 0x83, 800, 100);   // ends exactly at the extended's end: kept
    putEntry(l2, 3, 0x83, 800, 101);   // inside the link, one past the extended: dropped
    d.sectors[1100] = l2;
    const std::vector<sim::Window> w = d.table();
    const std::vector<std::tuple<int, uint64_t, uint64_t>> want = {
        {1, 1000, 2}, {5, 1001, 10}, {6, 1020, 10}, {7, 1101, 5000}, {8, 1900, 100}};
    ASSERT_EQ(w.size(), want.size());
    for (size_t i = 0; i < w.size(); ++i)
        EXPECT_EQ(std::make_tuple(w[i].number, w[i].start, w[i].size), want[i]) << i;
}

TEST(PartitionTable, GarbageTablesStayBounded)
{
    MemDisk d;
    // No magic: nothing.
    d.sectors[0] = std::vector<unsigned char>(512, 0);
    EXPECT_TRUE(d.table().empty());

    // A link that points back at itself, an entry past the disk, one running over its end.
    auto p = emptyTable();
    putEntry(p, 0, 0x83, 200000, 10);       // starts beyond the disk: dropped
    putEntry(p, 1, 0x83, 99990, 1000);      // runs past the end: cut
    putEntry(p, 2, 0x05, 1000, 5000);       // extended
    d.sectors[0] = p;
    auto link = emptyTable();
    putEntry(link, 0, 0x83, 1, 10);
    putEntry(link, 1, 0x05, 0, 5000);       // to itself
    d.sectors[1000] = link;
    std::vector<sim::Window> w = d.table();
    ASSERT_FALSE(w.empty());
    EXPECT_EQ(w[0].number, 2);
    EXPECT_EQ(w[0].size, 10u);
    EXPECT_EQ(w.back().number, 63) << "the loop ends at the minor limit";
    d.maxPartitions = 15;
    EXPECT_EQ(d.table().size(), 13u);

    // A link past the device's end ends the chain, keeping what was found.
    putEntry(link, 1, 0x05, 200000, 10);
    d.sectors[1000] = link;
    d.maxPartitions = 63;
    EXPECT_EQ(d.numbers(), (std::vector<int>{2, 3, 5}));

    // Text of the stored windows survives a round trip, and garbage lines are skipped.
    std::string text = sim::formatWindows(w) + "part x 1 2\npart 0 1 1\nnonsense\npart 3 -1 4\n";
    EXPECT_EQ(sim::parseWindows(text).size(), w.size());
}

// The pieces of the module that drive hot-swap tests lean on: one bay
// partitioned alone, the OS mirror script taking a drive's members out and
// back, and a drive as a new one of the product arrives.
#include <fcntl.h>
#include <unistd.h>

#include "sim_fixture.h"
#include "sim/module.h"

using namespace simtest;

namespace {

// The bytes of an image's data extents with their offsets: a sparse image is
// compared without reading its holes.
std::string extents(const std::string& image)
{
    const int fd = ::open(image.c_str(), O_RDONLY);
    if (fd < 0) return "missing";
    std::string out;
    off_t at = 0;
    for (;;) {
        const off_t data = ::lseek(fd, at, SEEK_DATA);
        if (data < 0) break;
        const off_t hole = ::lseek(fd, data, SEEK_HOLE);
        std::string bytes(static_cast<size_t>(hole - data), '\0');
        if (::pread(fd, bytes.data(), bytes.size(), data) != static_cast<ssize_t>(bytes.size())) out += "short read";
        out += std::to_string(data) + ":" + bytes;
        at = hole;
    }
    ::close(fd);
    return out;
}

std::vector<std::string> imagesByBay(const TempModule& m)
{
    std::vector<std::string> out;
    for (const sim::Bay& b : sim::Module(m.dir()).manifest().bays) out.push_back(extents(m.map(b.device)));
    return out;
}

} // namespace

TEST(PartitionOneBay, OnlyThatBaysDriveGetsTheTableAndBadBaysAreRefused)
{
    TempModule m;
    const std::string& d = m.dir();
    const std::vector<std::string> before = imagesByBay(m);
    ASSERT_EQ(before.size(), 4u);

    Captured r = tavsim({"partition", d, "2"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "partitioned bay 2: signature, data, boot, extended, os, os2 and log\n");
    const std::vector<std::string> after = imagesByBay(m);
    for (size_t i : {0u, 2u, 3u}) EXPECT_EQ(after[i], before[i]) << "bay " << i + 1;
    EXPECT_NE(after[1], before[1]);
    Captured shown = tavsim({"show", d, "--partitions"});
    size_t unpartitioned = 0;
    for (size_t at = 0; (at = shown.out.find("no partitions\n", at)) != std::string::npos; ++at) ++unpartitioned;
    EXPECT_EQ(unpartitioned, 3u) << shown.out;
    EXPECT_NE(shown.out.find("\n7       log"), std::string::npos) << shown.out;

    // Partitioning every bay afterwards gives bay 2 the same bytes again.
    ASSERT_EQ(tavsim({"partition", d}).status, 0);
    EXPECT_EQ(imagesByBay(m)[1], after[1]);

    ASSERT_EQ(tavsim({"pull", d, "3"}).status, 0);
    const std::vector<std::string> partitioned = imagesByBay(m);
    struct Case {
        std::string bay;
        int status;
        std::string err;
    };
    for (const Case& c : {Case{"9", 1, "tavsim partition: bay 9: this module has bays 1 to 4\n"},
                          Case{"0", 1, "tavsim partition: bay 0: this module has bays 1 to 4\n"},
                          Case{"3", 1, "tavsim partition: bay 3: empty; no drive to partition\n"},
                          Case{"two", 2, "tavsim partition: bay two: not a decimal number"}}) {
        Captured bad = tavsim({"partition", d, c.bay});
        EXPECT_EQ(bad.status, c.status) << c.bay;
        EXPECT_EQ(bad.err.compare(0, c.err.size(), c.err), 0) << bad.err;
        EXPECT_EQ(bad.out, "");
    }
    EXPECT_EQ(tavsim({"partition", d, "1", "2"}).status, 2);
    EXPECT_EQ(imagesByBay(m), partitioned);
}

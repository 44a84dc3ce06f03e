#include "partitions.h"

#include <sstream>

#include "manifest.h"

namespace sim {
namespace {

// Consecutive links without a data partition before the chain is given up.
constexpr int kMaxEmptyLinks = 100;
constexpr unsigned kProtectiveGpt = 0xEE;

uint32_t le32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

struct Entry {
    unsigned boot;
    unsigned type;
    uint64_t start;
    uint64_t size;
};

Entry entry(const unsigned char* sector, int i)
{
    const unsigned char* e = sector + 446 + 16 * i;
    return Entry{e[0], e[4], le32(e + 8), le32(e + 12)};
}

bool hasMagic(const unsigned char* sector) { return sector[510] == 0x55 && sector[511] == 0xAA; }

bool isExtended(unsigned type) { return type == 0x05 || type == 0x0f || type == 0x85; }

// The primary sector is a table only with valid boot indicators and no
// protective GPT entry in any slot (partitions.h).
bool isMsdosTable(const unsigned char* sector)
{
    for (int i = 0; i < 4; ++i) {
        const Entry e = entry(sector, i);
        if ((e.boot != 0x00 && e.boot != 0x80) || e.type == kProtectiveGpt) return false;
    }
    return true;
}

class Collector {
public:
    Collector(uint64_t diskSectors, unsigned maxPartitions) : disk_(diskSectors), max_(maxPartitions) {}

    void put(int number, uint64_t start, uint64_t size)
    {
        if (static_cast<unsigned>(number) > max_ || size == 0 || start >= disk_) return;
        if (size > disk_ - start) size = disk_ - start;
        out.push_back(Window{number, start, size});
    }
    bool full(int next) const { return static_cast<unsigned>(next) > max_; }

    std::vector<Window> out;

private:
    uint64_t disk_;
    unsigned max_;
};

// Slots 3 and 4 of a link: inside the link and inside the extended partition.
bool lateSlotFits(const Entry& e, uint64_t at, uint64_t linkSize, uint64_t first, uint64_t firstSize)
{
    return e.start + e.size <= linkSize && at >= first && at + e.size <= first + firstSize;
}

void readExtended(Collector& parts, int& next, uint64_t first, uint64_t firstSize, const SectorReader& read)
{
    unsigned char sector[512];
    uint64_t thisSector = first, thisSize = firstSize;
    for (int empty = 1; empty <= kMaxEmptyLinks && !parts.full(next); ++empty) {
        if (!read(thisSector, sector) || !hasMagic(sector)) return;
        for (int i = 0; i < 4 && !parts.full(next); ++i) {
            const Entry e = entry(sector, i);
            if (e.size == 0 || isExtended(e.type)) continue;
            const uint64_t at = thisSector + e.start;
            if (i >= 2 && !lateSlotFits(e, at, thisSize, first, firstSize)) continue;
            parts.put(next++, at, e.size);
            empty = 0;
        }
        int i = 0;
        Entry link{};
        for (; i < 4; ++i) {
            link = entry(sector, i);
            if (link.size != 0 && isExtended(link.type)) break;
        }
        if (i == 4) return;
        thisSector = first + link.start;
        thisSize = link.size;
    }
}

} // namespace

std::vector<Window> readPartitionTable(uint64_t diskSectors, unsigned maxPartitions, const SectorReader& read)
{
    Collector parts(diskSectors, maxPartitions);
    unsigned char sector[512];
    if (diskSectors == 0 || !read(0, sector) || !hasMagic(sector) || !isMsdosTable(sector)) return {};
    int next = 5;
    for (int i = 0; i < 4; ++i) {
        const Entry e = entry(sector, i);
        if (e.size == 0) continue;
        if (isExtended(e.type)) {
            parts.put(i + 1, e.start, e.size < 2 ? e.size : 2);
            readExtended(parts, next, e.start, e.size, read);
        } else {
            parts.put(i + 1, e.start, e.size);
        }
    }
    return parts.out;
}

std::string formatWindows(const std::vector<Window>& windows)
{
    std::ostringstream out;
    for (const Window& w : windows) out << "part " << w.number << " " << w.start << " " << w.size << "\n";
    return out.str();
}

std::vector<Window> parseWindows(const std::string& text)
{
    std::vector<Window> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string tag, n, start, size, extra;
        uint64_t a = 0, b = 0, c = 0;
        if (!(words >> tag >> n >> start >> size) || (words >> extra) || tag != "part") continue;
        if (!parseNumber(n, a) || a == 0 || a > 255 || !parseNumber(start, b) || !parseNumber(size, c)) continue;
        if (b >= (1ULL << 40) || c >= (1ULL << 40)) continue;
        out.push_back(Window{static_cast<int>(a), b, c});
    }
    return out;
}

} // namespace sim

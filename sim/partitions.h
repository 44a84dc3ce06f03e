// The MS-DOS partition table as the kernel reads it: primary entries are
// partitions 1 to 4, the logical partitions of the extended chain are 5 on.
// Reads only the table sectors, at most 100 links of the chain; entries that
// start beyond the disk are dropped and those that run past its end are cut.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sim {

// A partition node: a window of the disk, in 512-byte sectors.
struct Window {
    int number = 0;
    uint64_t start = 0;
    uint64_t size = 0;
};

// Reads one 512-byte sector; false when it cannot.
using SectorReader = std::function<bool(uint64_t sector, unsigned char* buf)>;

std::vector<Window> readPartitionTable(uint64_t diskSectors, unsigned maxPartitions, const SectorReader& read);

// One "part N START SIZE" line each; garbage lines are skipped.
std::string formatWindows(const std::vector<Window>& windows);
std::vector<Window> parseWindows(const std::string& text);

} // namespace sim

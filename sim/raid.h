// What tavsim does with the system's own RAID tree: configure a module's data
// array as an installed appliance has it. The tree goes into every drive's
// signature through the system's flattening and signature writer, and the md
// arrays are made through the system's md nodes, so that a module shows a
// running array as the system itself would have left it.
#pragma once

#include <string>
#include <vector>

namespace sim {

struct RaidOptions {
    int level = 5;                  // 0, 1 or 5
    std::vector<int> drives;        // positions; empty: every bay with a drive
    int spares = 0;                 // the last `spares` of `drives` join as hot spares
    int md = 1;                     // the data array's number, 1 to 199
    std::string mountPoint;         // "" for none
};

struct RaidResult {
    std::vector<int> members;
    std::vector<int> spares;
    std::vector<std::string> osMirrors;   // the OS mirrors made as well
};

// The platforms whose OS mirror ("/dev/md200" on the os partitions, "/dev/md201"
// on the log partitions) lies on the data drives' own md.
bool hasOsMirror(int platform);

// "" or the reason it could not; the module must be partitioned and signed.
std::string configureRaid(const std::string& dir, const RaidOptions& options, RaidResult& result);

} // namespace sim

// The MS-DOS partition table as the kernel's MS-DOS parser reads it after
// BLKRRPART (512-byte sectors only). Each rule beside the kernel's behaviour:
//
// - No 0x55 0xAA at bytes 510-511 of sector 0: not a table, no partitions.
// - Boot indicator: any of the four primary slots, empty ones included, whose
//   byte 0 is neither 0x00 nor 0x80 makes the kernel take the sector for a
//   boot sector (or a FAT file system) and not a table: no partitions at all.
// - Protective entry: a primary slot of type 0xEE, whatever its size, marks a
//   GPT disk; with EFI partition support (assumed, as on any current kernel)
//   the MS-DOS parser then gives nothing. The GPT itself is not modelled, so
//   such a disk has no partitions here.
// - Primary slots 1 to 4 are partitions 1 to 4; an empty slot (size 0) is
//   skipped. An extended slot (0x05, 0x0F, 0x85) becomes a node covering only
//   its first 2 sectors (room for a boot loader), and its chain is walked.
// - Logical partitions are numbered from 5 in the order of the chain, across
//   every extended primary slot, up to the disk's minor limit.
// - Each link of the chain: its data entries first (non-empty, not extended),
//   starting at this link's sector plus the entry's start; slots 1 and 2 are
//   taken as they are, slots 3 and 4 (which often hold garbage) only when
//   they fit inside this link's size, do not start before the extended
//   partition, and end inside it. Then the first extended entry of the link
//   leads on, its start relative to the extended partition's start. A link
//   without magic or without an extended entry ends the chain; a link that
//   cannot be read (past the device's end) ends it too, keeping what was found.
// - The chain is cut after 100 consecutive links without a data partition
//   (the kernel's loop counter is reset by every partition found), so a
//   self-referencing link with a data entry runs only to the minor limit.
// - Found partitions are added as the kernel's block layer adds them: one
//   that starts at or beyond the disk's end is dropped, one that runs past it
//   is cut at the end.
// - Not modelled: AIX labels, and the BSD, Solaris, Unixware and Minix
//   sub-partitions the kernel finds inside primary slots of their types; the
//   appliance's drives never carry them.
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

// Partitions numbered up to `maxPartitions` (the disk's minors less one).
std::vector<Window> readPartitionTable(uint64_t diskSectors, unsigned maxPartitions, const SectorReader& read);

// One "part N START SIZE" line each; garbage lines are skipped.
std::string formatWindows(const std::vector<Window>& windows);
std::vector<Window> parseWindows(const std::string& text);

} // namespace sim

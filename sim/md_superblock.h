// The persistent md superblock, version 0.90, as the kernel keeps it on each
// member: 4096 bytes in host order (little-endian here) at the start of the
// last 64 KiB-aligned 64 KiB of the partition. What lies below it is the
// component the array uses.
#pragma once

#include <cstdint>
#include <string>

#include "md_state.h"

namespace sim {

constexpr uint64_t kMdReservedBytes = 64 * 1024;
constexpr size_t kMdSuperblockBytes = 4096;

// Where the superblock of a partition of `bytes` lies; 0 when the partition
// is too small to hold one.
uint64_t superblockOffset(uint64_t bytes);
// The component of a partition of `bytes`, in KiB: the space below the superblock.
uint64_t componentKiB(uint64_t bytes);

// What a member's superblock tells.
struct SuperblockView {
    MdSuperInfo array;
    uint32_t uuid[4] = {};
    int slot = 0;          // this member's descriptor
    int raidDisk = -1;
    MemberState state = MemberState::Spare;
};

// The superblock `member` of `a` carries now.
std::string makeSuperblock(const MdArray& a, const MdMember& member);
// False, with the reason, for bytes that are no valid 0.90 superblock (wrong
// magic or version, bad checksum, a descriptor out of range).
bool readSuperblock(const std::string& bytes, SuperblockView& out, std::string& why);

} // namespace sim

// The partition table the drive families give a data drive: buildPartitions
// with their sizes (os and os2 2097152 sectors, log 98304, boot 20480, data
// the rest, one log), the drive sizes it can be laid out on, and the role of
// each partition node it makes.
#pragma once

#include <cstdint>

#include "partitions.h"

namespace sim {

constexpr uint32_t kFamilyOsSectors = 2097152;
constexpr uint32_t kFamilyOs2Sectors = 2097152;
constexpr uint32_t kFamilyLogSectors = 98304;
constexpr int32_t kFamilyBootSectors = 20480;

// The builder takes the data partition as the disk less the others and 24576
// sectors, in 32-bit arithmetic on a 32-bit disk size: the smallest drive
// leaves the data partition one sector, the largest is the largest size 32
// bits hold. Outside these bounds the arithmetic wraps into a corrupt table.
constexpr uint64_t kFamilyMinSectors =
    uint64_t{kFamilyOsSectors} + kFamilyOs2Sectors + kFamilyLogSectors + 0x6000 + 1;  // 4317185
constexpr uint64_t kFamilyMaxSectors = 0xffffffffULL;

// "signature", "data", "boot", "extended", "os", "os2" or "log" for a node
// where the families' table puts that partition; "-" for any other.
const char* partitionRole(const Window& w);

} // namespace sim

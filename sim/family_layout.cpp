#include "family_layout.h"

#include "tavutils/tavdrivesig.h"

namespace sim {
namespace {

// Where the builder puts the primary partitions.
constexpr uint64_t kSignatureStart = 1;
constexpr uint64_t kBootStart = 2049;
constexpr uint64_t kDataStart = 22529;

// The logical chain ends 2041 sectors before the disk's end whatever its
// size, so the upper bound is the 32-bit size alone.
static_assert(kDataStart + 6 <= 0x6000);
static_assert(kFamilyMinSectors == 4317185);

} // namespace

const char* partitionRole(const Window& w)
{
    switch (w.number) {
    case 1: return w.start == kSignatureStart && w.size == SIGNATURE_PARTITION_SECTORS ? "signature" : "-";
    case 2: return w.start == kDataStart ? "data" : "-";
    case 3: return w.start == kBootStart ? "boot" : "-";
    case 4: return "extended";
    case 5: return "os";
    case 6: return "os2";
    case 7: return "log";
    case 8: return "log";  // the second log of a table built with two
    default: return "-";
    }
}

} // namespace sim

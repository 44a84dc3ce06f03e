// The drive verdicts on arbitrary disk bytes: the primary table, the first
// logical table and the signature block of one drive of a simulated module.
// The header hash is recomputed over the fuzzed bytes so that the verdict
// reaches past the hash check.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "driveutils/tav_ide_drive.h"
#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "fuzz_module.h"
#include "sim/create.h"
#include "sim/sim_platform.h"
#include "tavutils/tavdrivesig.h"

namespace {

constexpr const char* kDisc = "/dev/ide/host0/bus0/target0/lun0/disc";
constexpr const char* kSignature = "/dev/ide/host0/bus0/target0/lun0/part1";
constexpr off_t kFirstLogical = 4093953LL * 512;   // of the standard layout on 8388608 sectors
constexpr size_t kMaxSignature = 16 * 512;

using fuzzmodule::writeAt;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzmodule::install("drive-fuzz", 8388608);
    TavDriveMgr::nDrives = 4;
    if (buildPartitions(kDisc, 2097152, 2097152, 0, 98304, 20480, false) != 0) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint8_t sector0[512] = {}, logical[512] = {};
    std::memcpy(sector0, data, std::min<size_t>(size, 512));
    if (size > 512) std::memcpy(logical, data + 512, std::min<size_t>(size - 512, 512));
    std::string signature(kMaxSignature, '\0');
    if (size > 1024) std::memcpy(signature.data(), data + 1024, std::min(size - 1024, kMaxSignature));
    if (signature.size() >= 512) tavSetSectorHash(signature.data());

    // Sector 0 is written without a re-read, so the partition windows stay.
    writeAt(kDisc, 0, sector0, sizeof sector0);
    writeAt(kDisc, kFirstLogical, logical, sizeof logical);
    writeAt(kSignature, 0, signature.data(), signature.size());

    RaidDeviceMgmt::TavIdeDrive drive(1, kDisc);
    drive.validatePartitions();
    verifyDrivePartitions(kDisc);
    long long mountTime = 0;
    drive.validateSignature(&mountTime);
    int position = 0;
    drive.getPreviousPosition(&position);
    return 0;
}

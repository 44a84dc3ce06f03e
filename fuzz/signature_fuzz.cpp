// The signature store on arbitrary bytes: a signature block of fuzzed bytes
// in both copies of one drive is read into memory by the store and written
// back to every drive. The index hash is recomputed over the fuzzed bytes so
// that the readers that check it reach the counts and tables.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevices.h"
#include "platform/platform.h"
#include "fuzz_module.h"
#include "sim/create.h"
#include "sim/sign.h"
#include "sim/sim_platform.h"
#include "tavutils/tavdrivesig.h"

namespace {

constexpr const char* kSignature = "/dev/ide/host0/bus0/target0/lun0/part1";
constexpr off_t kSecondCopy = 524288;
constexpr size_t kMaxBlock = 24 * 512;

using fuzzmodule::writeAt;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    sim::SimPlatform& platform = fuzzmodule::install("signature-fuzz", 65536);
    for (const sim::Bay& bay : platform.module().manifest().bays)
        if (buildPartitions(bay.device.c_str(), 2048, 2048, 0, 2048, 20480, false) != 0) std::abort();
    sim::resetDriveManager();
    TavDriveMgr::init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string block(kMaxBlock, '\0');
    std::memcpy(block.data(), data, std::min(size, kMaxBlock));
    tavSetSectorHash(block.data());
    writeAt(kSignature, 0, block.data(), block.size());
    writeAt(kSignature, kSecondCopy, block.data(), block.size());

    // A fresh store each time, as a new process has.
    TavDriveMgr::cleanup();
    delete TavDriveMgr::devices;
    TavDriveMgr::devices = nullptr;
    long long stamp = -1;
    TavDriveMgr::readSignature(1, &stamp);
    long long own = 0;
    TavDriveMgr::readUmountTime(1, &own);
    delete TavDriveMgr::readDevices(1);
    TavDriveMgr::getLatestUnmountTime();
    TavDriveMgr::setUnmountTime(1, 5);
    TavDriveMgr::writeSignature(1);
    TavDriveMgr::writeSignature(2);
    return 0;
}

// Making a new simulated module of a platform identifier: its bays at the
// device names of the platform's layout, a blank drive of distinct serial
// number in each, the module's serial number and identity files, and the
// state files of the simulation. Families that come later add their files by
// registering a generator.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "identity.h"
#include "manifest.h"
#include "module.h"

namespace sim {

// The drive sizes createModule makes, in sectors (32 MiB to 32 TiB).
constexpr uint64_t kMinDriveSectors = 64 * 1024;
constexpr uint64_t kMaxDriveSectors = 1ULL << 36;

struct CreateOptions {
    int platform = 1;
    std::string moduleSerial;        // made from the directory's path when empty
    uint64_t sectors = 156301488;    // per drive (80 GB); images are sparse
    std::string model = "SIM-ATA 80G";
    std::string firmware = "SIM1.00";
    // Settings of the model's features.conf (identity.h).
    std::vector<FeatureSetting> features;
    // A module without bays or drives: its identity files only, for any
    // identifier 1 to 15, including the families whose drives are not
    // simulated yet.
    bool identityOnly = false;
    // The tw platforms (2, 9, 15): the units made at creation (none, single,
    // raid5, raid10, raid1; "" the platform's default), the ports of raid5
    // kept as a spare unit, and whether the driver has its /proc/scsi entry.
    std::string units;
    int spares = 0;
    bool procScsi = true;
};

struct Layout {
    const char* family;
    std::vector<const char*> devices;  // whole-disk nodes, in position order
};

// The layout of a platform identifier; null, with the reason, for a family
// the simulation does not model yet.
const Layout* layoutFor(int platform, std::string& why);

// Whether the system's layout table has a row of the identifier's own; any
// other identifier takes the layout of platform 1.
bool hasLayoutRow(int platform);

// Device numbers of a whole-disk node ("/dev/ide|scsi/hostH/busB/targetT/
// lunL/disc"): IDE by interface (3, 22, 33, 34, ...) with 64 minors a unit,
// SCSI disks 8, 65, 66, ... with 16 minors a disk by their sd index
// `scsiIndex` (0 to 255). False for a name of no known kind.
bool deviceNumbers(const std::string& device, int scsiIndex, Bay& bay);

// The IDE interface (the bus of host 0) and the device on it (the target)
// of a whole-disk node "/dev/ide/host0/busB/targetT/lun0/disc"; false for
// any other name.
bool ideUnit(const std::string& device, unsigned& interface, unsigned& unit);

// The sd index of each SCSI node among `devices`, -1 for the others: the
// kernel names disks in the order it probes them, by host, channel (bus),
// target and lun, whatever the bay order.
std::vector<int> scsiProbeOrder(const std::vector<std::string>& devices);

// Adds files to every new module after the common ones; gives "" or a reason.
using ModuleGenerator = std::function<std::string(Module&, const Manifest&)>;
void addModuleGenerator(ModuleGenerator generator);

// `dir` must be absent or empty. Gives "" or the reason it could not. An
// identifier without a model row (outside 1 to 15) makes a module whose model
// is not recognised, and takes no feature settings.
std::string createModule(const std::string& dir, const CreateOptions& options);

} // namespace sim

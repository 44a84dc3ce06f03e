// What a module answers about its hardware identity: the kernel's PCI list,
// the model table, the resource table, the feature files, the network
// interfaces and the block directories of sysfs. Every platform identifier
// 1 to 15 has one row of the table in identity.cpp; a module of that
// identifier lists the row's PCI devices, and the model table (the same in
// every module, all rows) recognises exactly that row.
//
// Files laid down in the module:
//   /proc/bus/pci/devices                  the row's devices, in the kernel's form
//   /etc/marrowby/hwid.conf                "NAME:CONFIG:ID:CONDITIONS", every row
//   /etc/marrowby/hwlist.conf              "PCI:NVRAM:KIND:INDEX", one per NVRAM card of the row
//   /etc/marrowby/brand/CONFIG/features.conf   the settings given at creation
//   /etc/marrowby/brand/common/features.conf   defaults: IOSCHED, the drive model's dma_mode
//   /sys/block/NAME/queue/scheduler, queue/iosched/*   per bay; the bus paths of
//                                          sysfs ("/sys/bus/ide/devices/0.1/block")
//                                          lead there as the kernel's links do
//   sim/interfaces                         the network interfaces (net_interfaces.h)
//
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "manifest.h"
#include "net_interfaces.h"
#include "sysfs.h"

namespace sim {

class Module;

struct ModelRow {
    int id;
    const char* name;        // model name of the table
    const char* config;      // configuration directory name
    const char* devices;     // "LOCATION ID DRIVER", ";" between devices
    const char* conditions;  // the table's condition list for the row
    const char* nvram;       // hwlist information per card, ";" between cards; "" none
};

// The row of a platform identifier; null outside 1 to 15.
const ModelRow* modelRow(int platform);
const std::vector<ModelRow>& modelRows();

// One setting of a feature file: [section] key=value;
struct FeatureSetting {
    std::string section;
    std::string key;
    std::string value;
};

// "SECTION:KEY=VALUE"; the section may hold ":" (split at the last ":" before "=").
// False, with the reason, for what the feature file could not hold.
bool parseFeature(const std::string& text, FeatureSetting& out, std::string& why);

// Text of a feature file holding `settings`, grouped by section in order.
std::string featureFile(const std::vector<FeatureSetting>& settings);

// Writes all the files above for the manifest's platform; gives "" or a
// reason. An identifier without a row gets PCI devices no row recognises.
// `driveModel` names the section of the common dma_mode default.
std::string writeIdentity(Module& module, const Manifest& m, const std::vector<FeatureSetting>& features,
                          const std::string& driveModel);

} // namespace sim

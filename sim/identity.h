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
//   sim/interfaces                         the network interfaces (below)
//
// sim/interfaces, one interface a line, fields after the name optional:
//   eth0 hwaddr=02:4F:42:00:00:01 flags=up mtu=1500 metric=0 address=10.0.0.5
//        netmask=255.255.255.0 broadcast=10.0.0.255 destination=10.0.0.5
// An interface without an address answers address queries with
// EADDRNOTAVAIL; "destination" defaults to the address and "broadcast" to none
// (0.0.0.0).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "manifest.h"

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

// ---- the kernel side, answered by SimPlatform ----

struct Interface {
    std::string name;
    unsigned char hwaddr[6] = {};
    bool up = false;
    int mtu = 1500;
    int metric = 0;
    bool hasAddress = false;
    uint32_t address = 0, netmask = 0, broadcast = 0, destination = 0;  // network order
};

// Never fails: lines it cannot read are skipped.
std::vector<Interface> parseInterfaces(const std::string& text);

// The name of a bay's disk in /sys/block ("hda", "sdb").
std::string blockName(const Bay& bay);
// The bus directory of sysfs that leads to the bay's block directory
// ("/sys/bus/ide/devices/0.1/block"), "" for a device of no bus form.
std::string busBlockPath(const Bay& bay);
// `vpath` with a bus block path of a bay replaced by "/sys/block/NAME"; as it is otherwise.
std::string sysfsCanonical(const Manifest& m, const std::string& vpath);

// A store into a sysfs attribute at host path `host` (virtual `vpath`):
// the scheduler file selects a scheduler and lays down its tuning files;
// tuning files take numbers; other files take the text. 0 or an errno.
int sysfsStore(const std::string& vpath, const std::string& host, const std::string& text);

} // namespace sim

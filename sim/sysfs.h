// sysfs of the module: the block directories of the bays under
// "/sys/block/NAME" and the bus paths that lead there as the kernel's links
// do ("/sys/bus/ide/devices/0.1/block"). Attributes are files of the module
// with the kernel's rules: none can be made or removed, a write stores the
// whole value whatever the file position, queue/scheduler takes the name of
// a scheduler (selecting another lays down its tuning files in
// queue/iosched/, the current one's name changes nothing, an unknown name is
// EINVAL), and tuning files take numbers.
#pragma once

#include <string>

#include "device_model.h"
#include "manifest.h"

namespace sim {

// The name of a bay's disk in /sys/block ("hda", "sdb").
std::string blockName(const Bay& bay);
// The bus directory of sysfs that leads to the bay's block directory
// ("/sys/bus/ide/devices/0.1/block"), "" for a device of no bus form.
std::string busBlockPath(const Bay& bay);
// `vpath` with a bus block path of a bay replaced by "/sys/block/NAME"; as it is otherwise.
std::string sysfsCanonical(const Manifest& m, const std::string& vpath);

// The queue directory of a new bay, with the default scheduler selected.
bool layDownQueue(Module& module, const Bay& bay);

class SysfsModel : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
};

} // namespace sim

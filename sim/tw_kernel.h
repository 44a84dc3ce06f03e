// The kernel's side of the tw controllers:
//
//   "/proc/devices"      the character and block majors: the tw driver of
//                        each loaded family ("twe" 254, "twa" 253), 8 "sd", 9 "md"
//   "/proc/scsi/scsi"    the SCSI disks the kernel has attached, in its
//                        format; a write of "scsi add-single-device H C I L"
//                        or "scsi remove-single-device H C I L" attaches or
//                        takes away the unit I of host H (ENXIO when the host
//                        has no such unit, or the device is not there to
//                        remove; adding one that is there changes nothing)
//   "/proc/scsi/DRIVER/H" the driver's text of host H, naming its version on
//                        the line "Driver version: V" (files of the module,
//                        written again when the controllers change)
//   "/sys/class/scsi_host/hostH/stats"  the same counters, the form a kernel
//                        without /proc/scsi gives
//
// The kernel's view, "sim/3ware/kernel": a line "disk H C I L INDEX" for
// each attached disk, INDEX its sd index (the order of attachment: host then
// target at start, a later unit the lowest free index).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "device_model.h"
#include "tw_state.h"

namespace sim {

struct CreateOptions;
struct Manifest;

namespace tw {

struct KernelDisk {
    int host = 0, channel = 0, id = 0, lun = 0;
    int index = 0;
};

// The bay numbers that stand for the units' disks (windows, locks): 1000
// plus 16 times the host plus the target.
constexpr int kUnitBayBase = 1000;
int unitBay(int host, int target);

// The node of a unit's disk or partition ("/dev/scsi/hostH/bus0/targetU/
// lun0/disc" or ".../partN") of a tw module: nullopt when the path names
// none; `present` when the kernel has the disk and its data is there.
std::optional<DeviceNode> unitNode(Module& module, const std::string& vpath, bool& present);
// The image of the unit of a unit bay, relative to the module; "" for none.
std::string unitImage(Module& module, int bay);

std::vector<KernelDisk> parseKernel(const std::string& text);
std::string formatKernel(const std::vector<KernelDisk>& disks);
std::vector<KernelDisk> kernelDisks(Module& module);

std::string procDevicesText(Module& module);
std::string procScsiText(Module& module);
// The text of the driver's "/proc/scsi/DRIVER/H" file of a controller.
std::string driverProcText(const Controller& c);
// Writes the driver's files of /proc/scsi and sysfs as the controllers stand.
void syncKernelFiles(Module& module);

// Handles one line written to "/proc/scsi/scsi": 0 or an errno.
int scsiRequest(Module& module, const std::string& line);

// The tw controllers, ports and units of a new module of platform 2, 9 or
// 15; "" or the reason it could not.
std::string createControllers(Module& module, Manifest& m, const std::string& units, int spares, bool procScsi);

class ProcDevicesFile : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
};

class ProcScsiFile : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
};

} // namespace tw
} // namespace sim

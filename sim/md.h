// The nodes and files of the md driver (md_kernel.h holds the driver):
//
//   MdDevice       "/dev/mdN", N 0 to 255: static block nodes 9:N that are
//                  always there and always open; their ioctls are the md
//                  requests, BLKGETSIZE and BLKGETSIZE64 (any other is
//                  EINVAL). No data is kept: reads and writes fail with EIO.
//                  Every request is logged in "sim/md.log":
//                  "TIME /dev/mdN REQUEST [ARGS] -> 0|ERRNO".
//   MdStatFile     "/proc/mdstat", read-only, made from the kernel's state
//                  when it is opened.
//   RaidSpeedFile  "/proc/sys/dev/raid/speed_limit_min" and "_max": KiB/s,
//                  read as "N\n"; a write stores a decimal number (anything
//                  else is EINVAL).
#pragma once

#include <string>

#include "device_model.h"
#include "md_state.h"

namespace sim {

class MdDevice : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
};

class MdStatFile : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
};

class RaidSpeedFile : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
};

// The md models by their paths.
void addMdModels(DeviceRegistry& registry);

// The minor of "/dev/mdN" (N 0 to 255, decimal without a leading zero), or -1.
int mdMinor(const std::string& vpath);

// A descriptor of an anonymous memory file holding `text`, at its start;
// -1 with errno when none can be made. The md nodes and files have no file
// of the module behind them.
int memoryFile(const char* name, const std::string& text);
// The status of a node of no file: `mode`, `rdev`, times of the virtual clock.
void nodeStat(Module& module, mode_t mode, dev_t rdev, struct ::stat* st);

// /proc/mdstat of `state`, as the kernel prints it.
std::string mdstatText(const MdState& state);

} // namespace sim

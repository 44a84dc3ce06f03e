// The two drivers of the tw controllers, reached through the nodes that
// mknod made with their majors (node_table.h): minor N is the family's Nth
// controller by host; a minor without one is ENODEV, and a driver that is
// not loaded leaves its major without a driver (ENXIO).
//
// The 7000 driver ("twe") takes request 0x1F only. Its buffer: the data
// length (32 bits) at 0, the 512-byte firmware command at 512, the data at
// 1024. It checks the opcode (get and set parameter, port scan, diagnostic
// log), the command size and the unit, and answers in the command's status
// byte (offset 4 of the command), with the data behind.
//
// The 9000 driver ("twa") takes the control codes 262 (take the lock), 263
// (give it back), 264 (a firmware command) and 265 (the driver's version) as
// the request. Its buffer: the 24-byte driver command at 0 (control code,
// status, ids, OS status, buffer length), the 1024-byte firmware command at
// 512 (a 128-byte header: controller error code at 22, its text at 26, the
// header size 128 at 124; the command at 128, its status at 132 of the whole),
// the data at 1536. A driver status other than 0 answers without the firmware.
//
// Both refuse a declared data length above their maximum with EINVAL: a
// caller must give a buffer of header plus that length. Each call is a line
// of "sim/3ware.log" (module.h), with the bytes in and out on the lines
// behind it, indented; the lines reach the file when the node is closed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device_model.h"

namespace sim::tw {

constexpr size_t k7000Header = 1024;
constexpr size_t k7000MaxData = 2048;
constexpr size_t k9000Header = 1536;
constexpr size_t k9000MaxData = 16384;
constexpr uint32_t kDriverStatusLockBusy = 4097;
constexpr uint32_t kDriverStatusNotKept = 4099;     // an event the queue no longer keeps
constexpr uint32_t kDriverStatusOutOfRange = 4100;  // past either end of the event queue

class TwDriver : public DeviceModel {
public:
    explicit TwDriver(int family) : family_(family) {}
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    void close(DeviceContext& ctx, OpenNode& n) override;
    ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;

private:
    int call7000(DeviceContext& ctx, OpenNode& n, int index, unsigned long request, uint8_t* buf);
    int call9000(DeviceContext& ctx, OpenNode& n, int index, unsigned long request, uint8_t* buf);
    int family_;
};

void addTwModels(DeviceRegistry& registry);

} // namespace sim::tw

// The hot-swap driver of a simulated IDE module, at "/dev/charon": it
// detaches an IDE interface, or one device on it, from the kernel and
// attaches it again.
//
//   CharonDevice  the character node 242:0, present while the module has
//                 "sim/charon" (the IDE platforms 1, 3 and 4). Reads and
//                 writes give EINVAL; the requests are those below, any
//                 other is ENOTTY.
//
// Each interface (0 "host0/bus0", 1 "host0/bus1") is attached or detached,
// and each device on it (by target) found or not: found means the kernel
// has the drive, and its nodes exist (bay_link.h). A detach (161) takes the
// interface and all its devices away; 209 one device. An attach (160)
// rescans: a device is found iff its bay holds a drive and the DSP has the
// bay powered (a module without a DSP counts as powered), and every bay of
// the interface has its table and identity read again as on insert, none
// for a drive that did not answer. 208 rescans one device of an attached
// interface, kNoDrive when no drive answers. The DSP is caught up to the
// virtual clock before every request.
//
// The requests that carry a Record answer in its iReturnCode; the ioctl
// itself gives 0. A code injected for the request and interface is answered
// instead, and the request does nothing. Every request and its record go to
// "sim/charon.log":
//   "TIME request R (NAME) uInterface=I uDevice=0xD iReturnCode=C -> CODE [injected]",
//   "TIME request R (NAME) -> 0" for the debug requests,
//   "TIME request R refused: ENOTTY|EFAULT".
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

#include "charon_state.h"
#include "device_model.h"
#include "module.h"

namespace sim {

constexpr const char* kCharonNode = "/dev/charon";
constexpr unsigned kCharonMajor = 242;  // of the local range, after the DSP (240) and the NVRAM card (241)
constexpr unsigned kCharonMinor = 0;

namespace charon {

struct Record {
    uint32_t uInterface;
    uint32_t uDevice;
    int32_t iReturnCode;
};
static_assert(sizeof(Record) == 12);
static_assert(offsetof(Record, uDevice) == 4);
static_assert(offsetof(Record, iReturnCode) == 8);

constexpr unsigned long kDebugOn = 21;
constexpr unsigned long kDebugOff = 22;
constexpr unsigned long kActivateIf = 160;     // attach and rescan its devices
constexpr unsigned long kDeactivateIf = 161;   // detach, with every device of it
constexpr unsigned long kActivateDev = 208;    // rescan one device of an attached interface
constexpr unsigned long kDeactivateDev = 209;  // take one device away

// uDevice of the interface requests: 28 bits set. Any other value there is
// refused with kNotWhole, so that a caller sending 32 bits is caught.
constexpr uint32_t kWholeInterface = 0xFFFFFFF;

// The driver's codes.
constexpr int kDone = 0;
constexpr int kAlreadyDown = -3;       // detaching what is detached already
constexpr int kNoSuchUnit = -ENODEV;   // an interface or device that does not exist
constexpr int kInterfaceDown = -ENXIO; // attaching a device of a detached interface
constexpr int kNoDrive = -EIO;         // attaching a device that no drive answers for
constexpr int kNotWhole = -EINVAL;     // an interface request whose uDevice is not kWholeInterface

// "activate-if", ...; null for a request the driver does not know.
const char* requestName(unsigned long request);
// The requests that carry a record, and so take injected codes.
bool takesRecord(unsigned long request);

} // namespace charon

bool charonPresent(Module& module);
// The state; no interfaces when the module has no node.
CharonState charonState(Module& module);
// Arms `code` for the next `times` requests `request` on `interface` (times
// -1: without end). Throws std::runtime_error without a node,
// std::out_of_range for an interface it lacks, std::invalid_argument for a
// request without a record or times 0 or below -1.
void charonInject(Module& module, unsigned interface, unsigned long request, int code, int64_t times = 1);
// Drops every injected code; gives how many there were.
size_t charonClearInjections(Module& module);

// The text of "sim/charon" for a new module, or "" when its platform has no
// IDE interfaces.
std::string freshCharonState(const Manifest& manifest);

class CharonDevice : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    off_t seek(DeviceContext& ctx, OpenNode& n, off_t offset, int whence) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
};

void addCharonModel(DeviceRegistry& registry);

} // namespace sim

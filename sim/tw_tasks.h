// The tw controllers' background tasks on the virtual clock: a unit's
// initialisation, rebuild and verify, the automatic rebuild onto a spare,
// the controller noticing a drive pulled from its bay, the battery test's
// events, and the firmware's unit task command.
//
// Rules of the model:
// - A task's progress is a closed form of the clock: the unit keeps the
//   percentage it had when the task last (re)started (its `percent`) and the
//   clock's microsecond of that start (controller value "task-since-N"); the
//   percentage now is that base plus the elapsed time over the task's whole
//   duration. Nothing steps through time: settling costs the same after a
//   virtual second or a virtual year.
// - A task's whole duration is one member drive's bytes over the speed of
//   its rate: rate R (1 to 5) moves R * 8 MiB a second. Rebuilds and
//   initialisations go at the rebuild rate, verifies at the verify rate; the
//   7000 uses its one background rate for all. A rate changed during a task
//   counts from its start (the base is not re-anchored).
// - A redundant unit (configuration 5 or 6) that is degraded, with no task
//   running, starts a rebuild by itself kAutoRebuildDelayUs after a spare
//   unit (13) holds a drive at least as large as its missing member (the
//   wait is kept as "task-wait-N"): the unit and the spare unit
//   both read REBUILDING (0xAF), the slot and every node above it too. At
//   its end the spare's drive takes the slot, leaves the spare unit (which
//   goes when it has no drive left), and every node reads OK.
// - A rebuild paused reads REBUILD-PAUSED (0xDF) with its percentage kept;
//   resumed, it goes on from there.
// - A unit that has lost more than its redundancy allows (a second member of
//   a parity node, both halves of a mirror, any member of a stripe or single
//   unit) becomes INOPERABLE once, with an event; no task runs on it, and
//   reads and writes of its disk fail with EIO.
// - A unit with auto-verify on starts a verify as soon as a rebuild or an
//   initialisation of it ends.
// - The controller notices at once a drive pulled from the bay of one of its
//   ports (at the next command or settling): the port is empty, its units
//   lose the member. A drive swapped behind its back (tavsim replace) is not
//   noticed: the port keeps the identity read before.
// - A battery test that ends raises code 78 when it passed, 80 when it
//   failed (value "battery-test-fails" 1); the battery is overdue, code 83,
//   once the last test is older than kBatteryTestInterval, one event each
//   time it becomes so.
// - Events are stamped with the virtual second at which the thing happened
//   (a rebuild's end at its end, even when settled later), in that order.
#pragma once

#include <cstdint>
#include <string>

#include "tw_firmware.h"
#include "tw_state.h"

namespace sim {
class Module;
struct Manifest;
struct Drive;
namespace tw {

// The event codes the tasks raise are listed in tw_state.h.

// The automatic rebuild starts this long after a unit began to wait for
// one (degraded with a spare unit there): 10 virtual seconds.
constexpr uint64_t kAutoRebuildDelayUs = 10ull * 1000000;
// A rate step's speed, bytes a second.
constexpr uint64_t kRateStepBytesPerSecond = 8ull << 20;
// The battery is overdue for a test 30 virtual days after its last one.
constexpr uint64_t kBatteryTestIntervalSeconds = 30ull * 24 * 3600;

// The unit task command (both families, opcode kOpUnitTask): the action in
// the first register byte, a port mask (little-endian 32 bits) in bytes 4
// to 7 for a rebuild and a replace.
constexpr uint8_t kOpUnitTask = 0x18;
enum class TaskAction : uint8_t {
    Rebuild = 1,       // start a rebuild; the mask names drives to rebuild onto, or 0 for those replaced in
    Pause = 2,         // a rebuild
    Resume = 3,
    Verify = 4,        // start one
    StopVerify = 5,
    Flush = 6,         // the unit's write cache
    Replace = 7,       // 7000: the drive of the mask takes the unit's first missing slot, no task yet
};
// The task command's firmware errors are the firmware's (tw_firmware.h):
// kErrUnitState, kErrTaskConfig, kErrDriveInUse, kErrDriveSmall.

// Whether the disk of a unit bay (tw_kernel.h) answers: false while its
// unit is not usable, so that its reads and writes fail with EIO.
bool unitUsable(Module& module, int unitBay);

// The percentage of the unit's running task now (its stored one otherwise).
int livePercent(const Controller& c, const Unit& u, uint64_t nowUs);

// Brings controller `c` to `nowUs`: noticed pulls, ended tasks, started
// rebuilds, unusable units, battery events. True when anything changed.
bool settleTasks(Controller& c, const Manifest& m, uint64_t nowUs);
// Whether settleTasks would change anything (cheap; read-only).
bool tasksDue(const Controller& c, const Manifest& m, uint64_t nowUs);

// A unit made in mode INITIALIZING starts its initialisation now.
void startInitialisation(Controller& c, Unit& u, uint64_t nowUs);

// The unit task command on controller `index`.
FwAnswer runUnitTask(Module& module, int index, unsigned unit, const uint8_t* registers);

// The firmware image download (7000, opcode kOpFirmwareDownload): chunk
// `chunk` of `chunks`, the image's whole size in bytes 4 to 7 of the
// registers, the chunk's bytes as data. The controller keeps the image's
// size, chunk count and a sum ("firmware-image") when the last chunk came.
constexpr uint8_t kOpFirmwareDownload = 0x1A;
constexpr uint32_t kFirmwareChunkSize = 1024;
FwAnswer runFirmwareDownload(Module& module, int index, const uint8_t* registers, const uint8_t* data, uint32_t length);

// The drivers' entry: whether `op` is one of the commands above or the ATA
// pass-through (tw_ata.h), and its answer, the registers being the 12
// bytes of the command's own data (changed in place by the pass-through).
bool isTaskOpcode(uint8_t op);
FwAnswer runTaskOpcode(Module& module, int index, uint8_t op, unsigned unit, uint8_t* registers, uint8_t* data,
                       uint32_t length);

} // namespace tw
} // namespace sim

// The ATA side of a drive behind a tw controller, shared by both families:
// the controller passes an ATA command through to the drive now in the
// port's bay and gives back its registers and one data sector.
//
// The pass-through command (opcode kOpAtaPassThrough) carries the task file
// as 16-bit registers: feature at 0, count at 2, sector at 4, cylinder low
// at 6 and high at 8, then the device byte at 10 and the command at 11 (on
// the 7000 at bytes 8 to 19 of the command, on the 9000 in the first 12
// bytes of the command's cdb). The port is the 7000's unit bits or the
// 9000's unit byte. The answer puts the drive's registers back in the same
// places: the error register at the feature, the status register at the
// command.
//
// Rules of the drive's model:
// - Identify (0xEC) gives the drive's own identify sector (ata.h): a drive
//   swapped behind the controller's back answers with its own serial.
// - SMART (0xB0) wants the cylinder bytes 0x4F and 0xC2. Features: 0xD0
//   the attribute page, 0xD1 the thresholds, 0xD5 a log sector (address in
//   the sector register: 0 the directory, 1 the summary error log, 6 the
//   self-test log), 0xD4 an off-line test (no data, nothing runs), 0xD8 and
//   0xD9 SMART on and off, 0xDA the return status: cylinder bytes 0x4F and
//   0xC2, or 0xF4 and 0x2C when a threshold is exceeded. Every page ends
//   with its checksum byte.
// - A drive keeps its SMART state (on or off, a threshold exceeded) by its
//   serial in "sim/3ware/ata", wherever it goes; SMART is on until turned
//   off. With SMART off, every SMART feature but 0xD8 is aborted. An
//   exceeded threshold shows as the reallocated-sector attribute (5) fallen
//   below its threshold.
// - An aborted command answers status 0x51 and error 0x04; a good one
//   status 0x50. Both are a good firmware answer: the caller reads the
//   registers. The firmware refuses a port it holds no drive on.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "tw_firmware.h"

namespace sim {
class Module;
namespace tw {

constexpr uint8_t kOpAtaPassThrough = 0x11;
constexpr size_t kAtaRegisterBytes = 12;
constexpr uint8_t kAtaStatusGood = 0x50;
constexpr uint8_t kAtaStatusError = 0x51;
constexpr uint8_t kAtaErrorAbort = 0x04;

struct SmartState {
    bool enabled = true;
    bool exceeded = false;
};
SmartState smartState(Module& module, const std::string& serial);
// Sets a drive's SMART state: "on", "off", "exceeded" or "ok".
bool setSmart(Module& module, const std::string& serial, const std::string& how);

// The drive's SMART pages as it would give them.
std::array<uint8_t, 512> smartPage(const std::string& serial, const SmartState& s, uint8_t feature, uint8_t sector,
                                   uint64_t nowUs, bool& ok);

// The pass-through on controller `index` to port `port`: `registers` in and
// out, `data` of `length` bytes.
FwAnswer runAtaPassThrough(Module& module, int index, unsigned port, uint8_t* registers, uint8_t* data, uint32_t length);

} // namespace tw
} // namespace sim

// The firmware's unit configuration on the simulated tw controllers: the
// commands that make, delete, import and split units and the rescan, each
// carrying one TAG_TW_Unit_Config (the rescan a TAG_TW_Rescan_Report) as its
// data, on both families.
//
// Rules of the model:
// - A unit made takes the lowest free unit number (0 to 15). Its members
//   must be drives the controller holds and no unit uses. A parity (5) or
//   mirror (6) unit starts initialising (mode INITIALIZING, percent 0,
//   startInitialisation); its disk is usable meanwhile. A stripe or single
//   unit (11) and a spare unit (13) start healthy. A unit of several drives
//   (not a spare) gets an image of its own, "sim/3ware/unitH_N.img", sparse,
//   of its capacity. Capacities, with the smallest member's sectors S: single
//   S, stripe S * n, mirror S, RAID 10 S * n / 2, parity S * (n - 1), parity
//   groups of g drives S * (g - 1) * n / g, spare S.
// - Every member carries the unit's configuration: its key (the same on
//   all members of one unit), configuration, stripe, layout, slot, member
//   count, capacity and number. The drives' configurations are kept in
//   "sim/3ware/carried", a line a drive by serial number, so that a drive
//   moved between bays or to the shelf keeps its own.
// - Destroying a unit wipes the configuration of its present members and
//   removes its image. Exporting it leaves its drives attached and free,
//   carrying the configuration; the image of a several-drive unit is kept as
//   "sim/3ware/set_KEY.img" until the unit is formed again.
// - Import and rescan form a unit from the free drives the controller holds
//   that carry one key no current unit's members carry, taking the carried
//   number when it is free, else the lowest free one. Missing members leave
//   their slot missing (mode DEGRADED, event 22): beyond the unit's redundancy (a
//   second slot of a parity group, both drives of a mirror, any of a stripe)
//   the unit is INOPERABLE. A spare unit forms from the drives present only.
// - The rescan attaches every drive in a bay of a port the controller holds
//   no drive on, reading its identity anew (event 21), then forms every unit
//   it can; it reports the ports it attached and the units it formed. A port
//   whose drive was swapped behind the controller's back is held, and not
//   read again.
// - A migration gives a healthy unit a new configuration over its drives
//   and those added, keeping its number and policies; a unit never shrinks.
//   A parity or mirror unit initialises after. A unit that had an image of
//   its own keeps it, grown to the new capacity; a single unit's data stays
//   on its drive and the migrated unit's image starts blank.
// - A split makes the two drives of a mirror two single units: the first
//   present member keeps the number, the second takes the lowest free one;
//   the mirror's image goes (the members' data does not follow, as for all
//   units of the model).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tw_firmware.h"
#include "tw_state.h"

namespace sim {
class Module;
namespace tw {

// The unit commands' controller error codes are the firmware's (tw_firmware.h).

bool isUnitOpcode(uint8_t opcode);
const char* unitOpName(uint8_t opcode);  // "opcode" for others

// Runs a unit command on controller `index` with its record in `data`
// (`length` bytes), the answer written back into the record.
FwAnswer runUnitCommand(Module& module, int index, uint8_t opcode, uint8_t* data, uint32_t length);

// The configuration a drive carries.
struct Carried {
    std::string key;
    int config = 11, stripe = 0, sub = 0, slot = 0, of = 1, unit = 0;
    uint64_t capacity = 0;
};
std::map<std::string, Carried> readCarried(Module& module);

// A new unit of configuration 5 or 6 starts initialising through
// startInitialisation (tw_tasks.h), at percent 0.

} // namespace tw
} // namespace sim

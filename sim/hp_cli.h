// The HP array controller's command-line tool as the module answers it. The
// controller of slot N is the state file sim/hpacucli/ctrlN, one "Label: Value"
// line per property as the tool shows them; without that file there is no
// controller in the slot.
//
//   /usr/sbin/hpacucli ctrl slot=N show
//       a blank line, "Smart Array SIM in Slot N", then each property as
//       "   Label: Value", and a blank line; status 0. With no controller:
//       "Error: The controller identified by "slot=N" was not detected." and
//       status 1. Other commands of the tool: "Error: syntax error", status 1.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sim {

class CommandTable;
class Module;

constexpr const char* kHpCliPath = "/usr/sbin/hpacucli";

// Adds the tool's rules to a command table.
void addHpCliRules(CommandTable& table);

// The controller's properties in order; empty when there is none.
using HpProperties = std::vector<std::pair<std::string, std::string>>;
HpProperties hpCliProperties(Module& module, int slot = 0);
bool hpCliPresent(Module& module, int slot = 0);

// Sets a property, adding it at the end when new; the controller comes to
// exist. A label may not hold ":" or a line break, nor a value a line break;
// gives "" or the reason.
std::string hpCliSet(Module& module, const std::string& label, const std::string& value, int slot = 0);
// Takes the controller out of the slot.
void hpCliRemove(Module& module, int slot = 0);

// The tool's answer to "ctrl slot=N show".
std::string hpCliShow(Module& module, int slot, int& status);

} // namespace sim

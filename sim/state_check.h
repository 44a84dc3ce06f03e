// The module's state files read as outside input: every line that cannot be
// read, and every fact that disagrees with another (a bay beyond the
// platform's layout, a drive in a bay the module lacks, a drive whose image
// is missing or of another size, a clock that is no clock), as one sentence
// beginning with the file relative to the module and its line:
// "sim/manifest:7: drive SIMX: bay 1 already holds drive SIMY (line 5); ...".
#pragma once

#include <string>
#include <vector>

namespace sim {

class Module;

// `faults` adds the lines of sim/faults that cannot be read (a SimPlatform
// logs those itself when it starts).
std::vector<std::string> checkModuleState(Module& module, bool faults);

} // namespace sim

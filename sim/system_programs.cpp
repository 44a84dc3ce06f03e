#include "system_programs.h"

#include "driveutils/updatemount.h"

namespace sim {

std::vector<std::pair<std::string, ProgramEntry>> systemPrograms() { return {{"updatemount", &::updatemount}}; }

} // namespace sim

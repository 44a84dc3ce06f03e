// The programs of the system that a module can run, by name.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "programs.h"

namespace sim {

std::vector<std::pair<std::string, ProgramEntry>> systemPrograms();

} // namespace sim

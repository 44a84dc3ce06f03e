// Programs of the system that `tavsim run` can start: each is the entry
// function of its library, `int entry(int argc, char** argv)`, registered by
// name. The program's own main is a thin caller of the same entry.
#pragma once

#include <string>
#include <vector>

namespace sim {

using ProgramEntry = int (*)(int argc, char** argv);

// A later registration of the same name replaces the earlier one.
void registerProgram(const std::string& name, ProgramEntry entry);
ProgramEntry findProgram(const std::string& name);
std::vector<std::string> programNames();

// Runs a registered program with the module at `dir` installed as the
// platform; argv[0] is the program's name. Returns its result, or 127 when no
// program has that name.
int runProgram(const std::string& dir, const std::vector<std::string>& argv);

} // namespace sim

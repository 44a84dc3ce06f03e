#include "programs.h"

#include <map>
#include <memory>

#include "platform/platform.h"
#include "sim_platform.h"
#include "system_programs.h"
#include "tw_api_state.h"

namespace sim {
namespace {

std::map<std::string, ProgramEntry>& registry()
{
    // The system's own programs are there from the first lookup on.
    static std::map<std::string, ProgramEntry> programs = [] {
        std::map<std::string, ProgramEntry> builtin;
        for (const auto& [name, entry] : systemPrograms()) builtin[name] = entry;
        return builtin;
    }();
    return programs;
}

} // namespace

void registerProgram(const std::string& name, ProgramEntry entry) { registry()[name] = entry; }

ProgramEntry findProgram(const std::string& name)
{
    auto it = registry().find(name);
    return it == registry().end() ? nullptr : it->second;
}

std::vector<std::string> programNames()
{
    std::vector<std::string> names;
    for (const auto& [name, entry] : registry()) names.push_back(name);
    return names;
}

int runProgram(const std::string& dir, const std::vector<std::string>& argv)
{
    if (argv.empty()) return 127;
    ProgramEntry entry = findProgram(argv[0]);
    if (!entry) return 127;
    std::vector<std::string> args = argv;
    std::vector<char*> cargs;
    for (std::string& a : args) cargs.push_back(a.data());
    cargs.push_back(nullptr);
    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    // The controller API scans at load, as a real process does: made anew here.
    resetTwApi();
    return entry(static_cast<int>(args.size()), cargs.data());
}

} // namespace sim

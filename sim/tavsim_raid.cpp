// tavsim raid: a module's data array configured as an installed appliance
// has it.
#include <string>
#include <vector>

#include "raid.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

// "1,2,4": bays, each a decimal number.
bool bayList(const std::string& word, std::vector<int>& out, std::string& why)
{
    out.clear();
    size_t start = 0;
    while (true) {
        size_t comma = word.find(',', start);
        std::string item = word.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        uint64_t bay = 0;
        if (!decimal("--drives " + word + ": bay", item, 1, 99, bay, why)) return false;
        out.push_back(static_cast<int>(bay));
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

std::string bays(const std::vector<int>& list)
{
    std::vector<std::string> words;
    for (int b : list) words.push_back(std::to_string(b));
    return listed(words);
}

} // namespace

int runRaid(const Call& call)
{
    Words w;
    int status = splitWords(call,
                            {{"--level", "0|1|5"}, {"--drives", "LIST"}, {"--spares", "N"}, {"--md", "N"},
                             {"--mount", "PATH"}},
                            false, w);
    if (status || (status = expectPositional(call, w, 1, 1))) return status;
    RaidOptions o;
    bool level = false;
    for (const auto& [name, value] : w.options) {
        uint64_t n = 0;
        std::string why;
        if (name == "--level") {
            if (value != "0" && value != "1" && value != "5") return badUsage(call, "--level " + value + ": 0, 1 or 5");
            o.level = std::stoi(value);
            level = true;
        } else if (name == "--drives") {
            if (!bayList(value, o.drives, why)) return badUsage(call, why);
        } else if (name == "--spares") {
            if (!decimal("--spares", value, 0, 26, n, why)) return badUsage(call, why);
            o.spares = static_cast<int>(n);
        } else if (name == "--md") {
            if (!decimal("--md", value, 1, 199, n, why)) return badUsage(call, why);
            o.md = static_cast<int>(n);
        } else if (name == "--mount") {
            if (value.empty() || value[0] != '/' || value.size() > 127)
                return badUsage(call, "--mount " + value + ": an absolute path of at most 127 bytes");
            o.mountPoint = value;
        }
    }
    if (!level) return badUsage(call, "--level is needed");
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    RaidResult result;
    if (std::string err = configureRaid(module->dir(), o, result); !err.empty()) return refused(call, err);
    std::string line = "/dev/md" + std::to_string(o.md) + " RAID " + std::to_string(o.level) + " of bays " +
                       bays(result.members);
    if (!result.spares.empty()) line += ", hot spare" + std::string(result.spares.size() > 1 ? "s " : " ") + bays(result.spares);
    if (!o.mountPoint.empty()) line += ", mounted at " + o.mountPoint;
    if (!result.osMirrors.empty()) {
        std::vector<std::string> mirrors = result.osMirrors;
        line += "; OS mirrors " + listed(mirrors);
    }
    report(line + "; the tree written into every drive's signature");
    return kDone;
}

} // namespace sim::cli

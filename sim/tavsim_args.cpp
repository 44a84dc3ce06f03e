// Arguments, errors and the opening of a module, shared by the commands.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

#include "state_check.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

void printError(const Call& call, const std::string& why)
{
    std::cerr << "tavsim " << call.command.name << ": " << why << "\n";
}

const Option* findOption(const std::vector<Option>& known, const std::string& name)
{
    for (const Option& o : known)
        if (name == o.name) return &o;
    return nullptr;
}

std::string optionList(const std::vector<Option>& known)
{
    std::vector<std::string> names;
    for (const Option& o : known) names.push_back(std::string(o.name) + (o.value ? std::string(" ") + o.value : ""));
    return names.empty() ? "no options" : listed(names);
}

} // namespace

int badUsage(const Call& call, const std::string& why)
{
    printError(call, why);
    std::string synopsis = call.command.synopsis;
    std::cerr << "usage: tavsim " << call.command.name << " " << synopsis << "\n";
    return kBadUsage;
}

int refused(const Call& call, const std::string& why)
{
    printError(call, why);
    return kRefused;
}

void report(const std::string& line) { std::cout << line << "\n"; }

std::string listed(const std::vector<std::string>& items)
{
    std::string out;
    for (size_t i = 0; i < items.size(); ++i)
        out += (i == 0 ? "" : i + 1 == items.size() ? " and " : ", ") + items[i];
    return out;
}

bool Words::has(const std::string& name) const
{
    return std::any_of(options.begin(), options.end(), [&](const auto& o) { return o.first == name; });
}

int splitWords(const Call& call, const std::vector<Option>& known, bool dashDash, Words& out)
{
    const std::vector<std::string>& a = call.args;
    for (size_t i = 0; i < a.size(); ++i) {
        const std::string& word = a[i];
        if (word == "--" && dashDash) {
            out.dashDash = true;
            out.rest.assign(a.begin() + static_cast<long>(i) + 1, a.end());
            return kDone;
        }
        if (word.size() < 3 || word.compare(0, 2, "--") != 0) {
            out.positional.push_back(word);
            continue;
        }
        const size_t eq = word.find('=');
        const std::string name = word.substr(0, eq);
        const Option* o = findOption(known, name);
        if (!o) return badUsage(call, "unknown option " + name + "; " + call.command.name + " takes " + optionList(known));
        if (!o->value && eq != std::string::npos) return badUsage(call, name + " takes no value");
        std::string value;
        if (o->value && eq != std::string::npos) value = word.substr(eq + 1);
        else if (o->value && i + 1 < a.size()) value = a[++i];
        else if (o->value) return badUsage(call, name + " needs a value: " + name + " " + o->value);
        out.options.emplace_back(name, value);
    }
    return kDone;
}

int expectPositional(const Call& call, const Words& words, size_t min, size_t max)
{
    const size_t n = words.positional.size();
    if (n == 0 && min > 0) return badUsage(call, "no module directory given");
    if (n < min) return badUsage(call, "too few arguments");
    if (n > max) return badUsage(call, "unexpected argument " + words.positional[max]);
    return kDone;
}

bool decimal(const std::string& what, const std::string& word, uint64_t min, uint64_t max, uint64_t& out,
             std::string& why)
{
    uint64_t n = 0;
    const std::string range = std::to_string(min) + " to " + std::to_string(max);
    if (!parseNumber(word, n)) {
        const bool digits = !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
        why = what + " " + word + ": " +
              (!digits            ? "not a decimal number (" + range + ")"
               : word[0] == '0'   ? "a decimal number is written without a leading zero (" + range + ")"
                                  : "out of range " + range);
        return false;
    }
    if (n < min || n > max) {
        why = what + " " + word + ": out of range " + range;
        return false;
    }
    out = n;
    return true;
}

bool isDirEmpty(const std::string& dir)
{
    DIR* d = ::opendir(dir.c_str());
    if (!d) return false;
    bool empty = true;
    while (dirent* e = ::readdir(d))
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) empty = false;
    ::closedir(d);
    return empty;
}

std::string whyNoModule(const std::string& dir)
{
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0)
        return dir + ": " + (errno == ENOENT ? std::string("no such directory") : std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) return dir + ": " + (S_ISREG(st.st_mode) ? "a file" : "not a directory") + ", not a module";
    if (Module::isModule(dir)) return "";
    if (::access(dir.c_str(), R_OK | X_OK) != 0) return dir + ": " + std::strerror(errno);
    if (isDirEmpty(dir)) return dir + ": an empty directory, no module yet (tavsim create " + dir + " --platform ID makes one)";
    return dir + ": a directory that is no module (it has no sim/manifest)";
}

std::unique_ptr<Module> openModule(const Call& call, const std::string& dir, int& status)
{
    std::string why = whyNoModule(dir);
    if (!why.empty()) {
        status = refused(call, why);
        return nullptr;
    }
    auto module = std::make_unique<Module>(dir);
    // Faults are read, and their bad lines reported, by the simulated platform.
    for (const std::string& w : checkModuleState(*module, false))
        std::cerr << "tavsim: warning: " << module->dir() << "/" << w << "\n";
    status = kDone;
    return module;
}

int bayArgument(const Call& call, const Manifest& m, const std::string& word, int& bay)
{
    uint64_t n = 0;
    std::string why;
    if (!decimal("bay", word, 0, 2147483647, n, why)) return badUsage(call, why);
    bay = static_cast<int>(n);
    if (m.bay(bay)) return kDone;
    if (m.bays.empty()) return refused(call, "bay " + word + ": this module has no bays (it was made with --no-drives)");
    int low = m.bays.front().number, high = low;
    for (const Bay& b : m.bays) {
        low = std::min(low, b.number);
        high = std::max(high, b.number);
    }
    return refused(call, "bay " + word + ": this module has bays " + std::to_string(low) + " to " + std::to_string(high));
}

std::unique_ptr<Module> openModuleCall(const Call& call, const std::vector<Option>& known, size_t min, size_t max,
                                       Words& words, int& status)
{
    status = splitWords(call, known, false, words);
    if (status || (status = expectPositional(call, words, min, max))) return nullptr;
    return openModule(call, words.positional[0], status);
}

} // namespace sim::cli

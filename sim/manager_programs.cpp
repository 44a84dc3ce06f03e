#include "manager_programs.h"

#include <sstream>
#include <vector>

#include "commands.h"
#include "module.h"

namespace sim {
namespace {

constexpr const char* kDatabases = "databases";
constexpr const char* kUdpWords = "/STORAGE/ {x=1; next} /END/ {if (x == 1) exit} {if (x == 1) print $1}";
constexpr const char* kMd5Field = "/md5/ {print $3 ;exit}";

// awk's field N of `line` split at blanks and tabs; "" when there are fewer.
std::string field(const std::string& line, size_t n)
{
    std::istringstream in(line);
    std::string word;
    for (size_t i = 1; in >> word; ++i)
        if (i == n) return word;
    return "";
}

// awk's field N with a one-character separator.
std::string fieldAt(const std::string& line, char separator, size_t n)
{
    size_t begin = 0;
    for (size_t i = 1; i < n; ++i) {
        begin = line.find(separator, begin);
        if (begin == std::string::npos) return "";
        ++begin;
    }
    return line.substr(begin, line.find(separator, begin) - begin);
}

CommandResult udpWords(CommandContext& ctx, const Words& argv)
{
    if (argv.size() != 3) return CommandResult{2, ""};
    std::string text;
    const std::string rel = argv[2][0] == '/' ? argv[2].substr(1) : argv[2];
    if (!ctx.module.host().readFile(rel, text)) return CommandResult{2, ""};
    std::string out;
    bool inside = false;
    for (const std::string& line : textLines(text)) {
        if (line.find("STORAGE") != std::string::npos) {
            inside = true;
            continue;
        }
        if (line.find("END") != std::string::npos && inside) break;
        if (inside) out += field(line, 1) + "\n";
    }
    return CommandResult{0, out};
}

CommandResult md5Field(CommandContext& ctx, const Words& argv)
{
    if (argv.size() != 2) return CommandResult{2, ""};
    for (const std::string& line : textLines(ctx.input))
        if (line.find("md5") != std::string::npos) return CommandResult{0, field(line, 3) + "\n"};
    return CommandResult{0, ""};
}

CommandResult quotedField(CommandContext& ctx, const Words& argv)
{
    if (argv.size() != 3) return CommandResult{2, ""};
    std::string out;
    for (const std::string& line : textLines(ctx.input)) out += fieldAt(line, '\'', 2) + "\n";
    return CommandResult{0, out};
}

CommandResult dbdManager(CommandContext& ctx, const Words& argv)
{
    std::string id;
    bool list = false;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "--system_id" && i + 1 < argv.size()) id = argv[++i];
        list = list || argv[i] == "--list";
    }
    if (id.empty() || !list) return CommandResult{2, "usage: dbd_manager --system_id ID --list\n"};
    const auto all = databases(ctx.module);
    const auto it = all.find(id);
    if (it == all.end()) return CommandResult{1, "no database for system " + id + "\n"};
    return CommandResult{0, "system " + id + "\ndatabase md5 '" + it->second + "'\n"};
}

} // namespace

void addManagerProgramRules(CommandTable& table)
{
    table.add({"awk", kUdpWords}, udpWords);
    table.add({"awk", kMd5Field}, md5Field);
    table.add({"awk", "-F'", "{print $2}"}, quotedField);
    table.add({kDbdManagerPath}, dbdManager);
}

std::map<std::string, std::string> databases(Module& module)
{
    std::map<std::string, std::string> out;
    for (const Words& line : stateLines(module, kDatabases))
        if (line.size() >= 2) out[line[0]] = line[1];
    return out;
}

void setDatabase(Module& module, const std::string& systemId, const std::string& md5)
{
    updateStateLines(module, kDatabases, [&](std::vector<Words>& lines) {
        std::erase_if(lines, [&](const Words& line) { return line[0] == systemId; });
        if (!md5.empty()) lines.push_back({systemId, md5});
        return true;
    });
}

} // namespace sim

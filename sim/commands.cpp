#include "commands.h"

#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <sys/stat.h>

#include "hp_cli.h"
#include "module.h"

namespace sim {
namespace {

bool isRedirection(const std::string& w, bool& takesTarget)
{
    static const char* const bare[] = {">", ">>", "<", "2>", "2>>", "&>", "1>"};
    static const char* const whole[] = {"2>&1", "1>&2", ">&2", ">&1"};
    for (const char* b : bare)
        if (w == b) {
            takesTarget = true;
            return true;
        }
    takesTarget = false;
    for (const char* b : whole)
        if (w == b) return true;
    // Attached forms: ">/dev/null", "2>/dev/null".
    return (w.size() > 1 && w[0] == '>') || (w.size() > 2 && w[0] == '2' && w[1] == '>') ||
           (w.size() > 1 && w[0] == '<');
}

CommandResult ok(std::string output = "") { return CommandResult{0, std::move(output)}; }

// The last word that is not an option.
std::string lastOperand(const Words& argv)
{
    for (size_t i = argv.size(); i-- > 1;)
        if (argv[i].empty() || argv[i][0] != '-') return argv[i];
    return "";
}

std::vector<Words> parseLines(const std::string& text)
{
    std::vector<Words> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream w(line);
        Words words;
        std::string word;
        while (w >> word) words.push_back(word);
        if (!words.empty()) out.push_back(words);
    }
    return out;
}

std::vector<Words> stateLines(Module& m, const std::string& name) { return parseLines(m.readState(name)); }

// Read-modify-write of a state file of word lines under the module's lock.
bool updateStateLines(Module& m, const std::string& name, const std::function<bool(std::vector<Words>&)>& change)
{
    return m.updateState(name, [&](std::string& text) {
        std::vector<Words> lines = parseLines(text);
        if (!change(lines)) return false;
        text.clear();
        for (const Words& l : lines) {
            for (size_t i = 0; i < l.size(); ++i) text += (i ? " " : "") + l[i];
            text += "\n";
        }
        return true;
    });
}

// A device operand must be present when it names a drive node of the module.
bool deviceUsable(Module& m, const std::string& dev)
{
    if (dev.empty()) return false;
    bool present = false;
    return !m.device(dev, present) || present;
}

// mkfs and its kin leave the magic of the file system where a reader looks.
CommandResult makeFileSystem(CommandContext& ctx, const std::string& type, const std::string& dev)
{
    bool present = false;
    if (dev.empty() || !deviceUsable(ctx.module, dev)) return CommandResult{1, ""};
    if (!ctx.module.device(dev, present)) return ok();  // ram disks, md sets: nothing to mark yet
    std::string err;
    if (type == "reiserfs") err = ctx.module.overwrite(dev, 65536 + 52, "ReIsEr2Fs");
    else if (type == "xfs") err = ctx.module.overwrite(dev, 0, "XFSB");
    else err = ctx.module.overwrite(dev, 1080, std::string("\x53\xEF", 2));
    return CommandResult{err.empty() ? 0 : 1, ""};
}

CommandResult mkfs(CommandContext& ctx, const Words& argv)
{
    std::string type = "ext2";
    for (size_t i = 1; i + 1 < argv.size(); ++i)
        if (argv[i] == "-t") type = argv[i + 1];
    return makeFileSystem(ctx, type, lastOperand(argv));
}

CommandResult mount(CommandContext& ctx, const Words& argv)
{
    std::string type = "auto";
    Words operands;
    for (size_t i = 1; i < argv.size(); ++i) {
        if ((argv[i] == "-t" || argv[i] == "-o") && i + 1 < argv.size()) {
            if (argv[i] == "-t") type = argv[i + 1];
            ++i;
        } else if (argv[i][0] != '-') {
            operands.push_back(argv[i]);
        }
    }
    std::vector<Words> mounts = stateLines(ctx.module, "mounts");
    if (operands.empty()) {
        std::string out;
        for (const Words& l : mounts)
            if (l.size() == 3) out += l[0] + " on " + l[1] + " type " + l[2] + "\n";
        return ok(out);
    }
    if (operands.size() != 2 || !deviceUsable(ctx.module, operands[0])) return CommandResult{32, ""};
    struct stat st;
    if (operands[1][0] != '/' || operands[1].find("..") != std::string::npos ||
        ctx.module.host().stat(operands[1], &st) != 0 || !S_ISDIR(st.st_mode))
        return CommandResult{32, ""};
    updateStateLines(ctx.module, "mounts", [&](std::vector<Words>& lines) {
        lines.push_back(Words{operands[0], operands[1], type});
        return true;
    });
    return ok();
}

CommandResult umount(CommandContext& ctx, const Words& argv)
{
    std::string what = lastOperand(argv);
    // The latest mount of that source or target goes.
    bool found = updateStateLines(ctx.module, "mounts", [&](std::vector<Words>& mounts) {
        for (size_t i = mounts.size(); i-- > 0;)
            if (mounts[i].size() == 3 && (mounts[i][0] == what || mounts[i][1] == what)) {
                mounts.erase(mounts.begin() + static_cast<long>(i));
                return true;
            }
        return false;
    });
    return CommandResult{found ? 0 : 1, ""};
}

CommandResult service(CommandContext& ctx, const Words& argv)
{
    if (argv.size() < 3) return CommandResult{1, ""};
    std::vector<Words> services = stateLines(ctx.module, "services");
    std::string state;
    for (const Words& l : services)
        if (l.size() == 2 && l[0] == argv[1]) state = l[1];
    const std::string& verb = argv[2];
    if (verb == "status")
        return CommandResult{state == "stopped" ? 3 : 0, argv[1] + (state == "stopped" ? " is stopped\n" : " is running\n")};
    if (verb != "start" && verb != "stop" && verb != "restart") return CommandResult{1, ""};
    updateStateLines(ctx.module, "services", [&](std::vector<Words>& lines) {
        std::vector<Words> kept;
        for (const Words& l : lines)
            if (l.empty() || l[0] != argv[1]) kept.push_back(l);
        kept.push_back(Words{argv[1], verb == "stop" ? "stopped" : "running"});
        lines = kept;
        return true;
    });
    return ok();
}

CommandResult grep(CommandContext& ctx, const Words& argv)
{
    bool invert = false, ignoreCase = false, count = false;
    std::string pattern;
    bool havePattern = false;
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (!havePattern && a.size() > 1 && a[0] == '-') {
            for (size_t j = 1; j < a.size(); ++j) {
                if (a[j] == 'v') invert = true;
                else if (a[j] == 'i') ignoreCase = true;
                else if (a[j] == 'c') count = true;
                else if (a[j] != 'E' && a[j] != 'q') return CommandResult{2, ""};
            }
        } else if (!havePattern) {
            pattern = a;
            havePattern = true;
        } else {
            return CommandResult{2, ""};  // files are not read
        }
    }
    if (!havePattern) return CommandResult{2, ""};
    std::regex re;
    try {
        auto flags = std::regex::extended | (ignoreCase ? std::regex::icase : std::regex::flag_type{});
        re = std::regex(pattern, flags);
    } catch (const std::regex_error&) {
        return CommandResult{2, ""};
    }
    std::istringstream in(ctx.input);
    std::string line, out;
    int matched = 0;
    while (std::getline(in, line))
        if (std::regex_search(line, re) != invert) {
            ++matched;
            out += line + "\n";
        }
    if (count) out = std::to_string(matched) + "\n";
    return CommandResult{matched ? 0 : 1, out};
}

CommandResult echo(CommandContext&, const Words& argv)
{
    std::string out;
    for (size_t i = 1; i < argv.size(); ++i) out += (i > 1 ? " " : "") + argv[i];
    return ok(out + "\n");
}

} // namespace

bool splitPipeline(const std::string& line, std::vector<Words>& stages)
{
    stages.assign(1, Words{});
    std::string word;
    bool inWord = false;
    bool skipNext = false;
    auto endWord = [&]() {
        if (!inWord) return;
        bool takesTarget = false;
        if (skipNext) skipNext = false;
        else if (isRedirection(word, takesTarget)) skipNext = takesTarget;
        else stages.back().push_back(word);
        word.clear();
        inWord = false;
    };
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\'' || c == '"') {
            size_t close = line.find(c, i + 1);
            if (close == std::string::npos) return false;
            std::string quoted = line.substr(i + 1, close - i - 1);
            if (c == '"' && (quoted.find('`') != std::string::npos || quoted.find("$(") != std::string::npos))
                return false;
            word += quoted;
            inWord = true;
            i = close;
        } else if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            endWord();
        } else if (c == '|') {
            if (i + 1 < line.size() && line[i + 1] == '|') return false;
            endWord();
            if (stages.back().empty()) return false;
            stages.emplace_back();
        } else if (c == ';' || c == '`' || (c == '&' && !(inWord && !word.empty() && word.back() == '>') &&
                                                     !(i + 1 < line.size() && line[i + 1] == '>'))) {
            return false;
        } else if (c == '$' && i + 1 < line.size() && line[i + 1] == '(') {
            return false;
        } else {
            word += c;
            inWord = true;
        }
    }
    endWord();
    if (skipNext) return false;
    for (const Words& s : stages)
        if (s.empty()) return false;
    return true;
}

void CommandTable::add(Words prefix, CommandHandler handler)
{
    rules_.push_back(CommandRule{std::move(prefix), std::move(handler)});
}

const CommandRule* CommandTable::find(const Words& argv) const
{
    const CommandRule* best = nullptr;
    for (const CommandRule& r : rules_) {
        if (r.prefix.size() > argv.size()) continue;
        bool match = true;
        for (size_t i = 0; i < r.prefix.size() && match; ++i) match = r.prefix[i] == argv[i];
        if (match && (!best || r.prefix.size() > best->prefix.size())) best = &r;
    }
    return best;
}

CommandResult CommandTable::run(Module& module, const std::string& line, const std::string& input, bool& known) const
{
    known = false;
    std::vector<Words> stages;
    if (!splitPipeline(line, stages)) return CommandResult{127, ""};
    std::vector<const CommandRule*> rules;
    for (const Words& s : stages) {
        const CommandRule* r = find(s);
        if (!r) return CommandResult{127, ""};
        rules.push_back(r);
    }
    known = true;
    CommandContext ctx{module, input};
    CommandResult result;
    for (size_t i = 0; i < stages.size(); ++i) {
        result = rules[i]->handler(ctx, stages[i]);
        ctx.input = result.output;
    }
    return result;
}

CommandTable CommandTable::standard()
{
    CommandTable t;
    auto succeed = [](CommandContext&, const Words&) { return ok(); };
    // Appliance scripts: the OS mirror and the boot sector of a drive.
    for (const char* script : {"/etc/marrowby/tav_osraid", "/etc/marrowby/tav_cpboot", "/etc/marrowby/tav_lilo"})
        t.add({script}, [](CommandContext& ctx, const Words& argv) {
            bool operandOk = argv.size() >= 2 && deviceUsable(ctx.module, argv.back() + "disc");
            return CommandResult{operandOk ? 0 : 1, ""};
        });
    // File systems and boot.
    for (const char* name : {"mkfs", "/sbin/mkfs"}) t.add({name}, mkfs);
    for (const char* name : {"mke2fs", "/sbin/mke2fs"})
        t.add({name}, [](CommandContext& ctx, const Words& argv) {
            bool journal = false;
            for (const std::string& a : argv) journal = journal || a == "-j";
            return makeFileSystem(ctx, journal ? "ext3" : "ext2", lastOperand(argv));
        });
    for (const char* name : {"mkreiserfs", "/sbin/mkreiserfs"})
        t.add({name}, [](CommandContext& ctx, const Words& argv) {
            return makeFileSystem(ctx, "reiserfs", lastOperand(argv));
        });
    for (const char* name : {"mount", "/bin/mount"}) t.add({name}, mount);
    for (const char* name : {"umount", "/bin/umount"}) t.add({name}, umount);
    for (const char* name : {"lilo", "/sbin/lilo", "cp", "/bin/cp", "./fscopy", "sync", "/bin/sync"})
        t.add({name}, succeed);
    // Services.
    t.add({"/sbin/service"}, service);
    for (const char* name : {"/usr/bin/killall", "killall"})
        t.add({name}, [](CommandContext&, const Words& argv) {
            return CommandResult{1, argv.size() > 1 ? argv.back() + ": no process found\n" : ""};
        });
    // Nothing holds files open in the module: lsof lists nothing and says so by 1.
    t.add({"lsof"}, [](CommandContext&, const Words&) { return CommandResult{1, ""}; });
    // Shell helpers of pipelines.
    t.add({"echo"}, echo);
    t.add({"grep"}, grep);
    // Vendor tools.
    addHpCliRules(t);
    return t;
}

} // namespace sim

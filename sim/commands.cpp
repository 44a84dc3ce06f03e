#include "commands.h"

#include <algorithm>
#include <dirent.h>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <sys/stat.h>

#include "hp_cli.h"
#include "manager_programs.h"
#include "os_mirror.h"
#include "module.h"
#include "ps_listing.h"

namespace sim {
namespace {

CommandResult ok(std::string output = "") { return CommandResult{0, std::move(output)}; }

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

// The last word that is not an option.
std::string lastOperand(const Words& argv)
{
    for (size_t i = argv.size(); i-- > 1;)
        if (argv[i].empty() || argv[i][0] != '-') return argv[i];
    return "";
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

// Where a stage's standard output goes.
struct Output {
    enum { Pass, Discard, File } to = Pass;
    int fd = -1;
};

// Opens the stage's output files in the order written, as the shell does
// before the stage runs; false when one is refused.
bool openOutput(const std::vector<Redirection>& redirections, OutputFiles* files, Output& out)
{
    auto drop = [&]() {
        if (out.to == Output::File) files->close(out.fd);
        out = Output{};
    };
    for (const Redirection& r : redirections) {
        if (r.fd != 1 && r.fd != -1) continue;  // input is not read; standard error is not modelled
        if (r.duplicate && r.target == "1") continue;
        if (r.duplicate || r.target == "/dev/null") {
            // Standard error, "-" (closed) and /dev/null keep nothing; no other descriptor is open.
            const bool open = !r.duplicate || r.target == "2" || r.target == "-";
            drop();
            if (!open) return false;
            out.to = Output::Discard;
            continue;
        }
        const int fd = files ? files->open(r.target, r.append) : -1;
        drop();
        if (fd < 0) return false;
        out = Output{Output::File, fd};
    }
    return true;
}

void deliver(const Output& out, OutputFiles* files, CommandResult& result)
{
    if (out.to == Output::File) {
        const bool written = files->write(out.fd, result.output);
        files->close(out.fd);
        if (!written && result.status == 0) result.status = 1;
    }
    if (out.to != Output::Pass) result.output.clear();
}

} // namespace

std::vector<Words> stateLines(Module& m, const std::string& name) { return parseLines(m.readState(name)); }

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

bool splitPipeline(const std::string& line, std::vector<Stage>& stages)
{
    stages.assign(1, Stage{});
    std::string word;
    bool inWord = false, quoted = false;
    std::optional<Redirection> pending;  // an operator waiting for its target
    auto endWord = [&]() {
        if (!inWord) return true;
        if (pending) {
            pending->target = word;
            if (pending->duplicate && word != "-" && word.find_first_not_of("0123456789") != std::string::npos) {
                // ">&FILE" is "&> FILE"; a copy of anything else is no descriptor.
                if (pending->fd != 1) return false;
                pending->duplicate = false;
                pending->fd = -1;
            }
            stages.back().redirections.push_back(*pending);
            pending.reset();
        } else {
            stages.back().argv.push_back(word);
        }
        word.clear();
        inWord = quoted = false;
        return true;
    };
    const size_t n = line.size();
    auto at = [&](size_t i) { return i < n ? line[i] : '\0'; };
    for (size_t i = 0; i < n; ++i) {
        const char c = line[i];
        if (c == '\'' || c == '"') {
            size_t close = line.find(c, i + 1);
            if (close == std::string::npos) return false;
            std::string text = line.substr(i + 1, close - i - 1);
            if (c == '"' && (text.find('`') != std::string::npos || text.find("$(") != std::string::npos))
                return false;
            word += text;
            inWord = quoted = true;
            i = close;
        } else if (c == '\\' && i + 1 < n) {
            word += line[++i];
            inWord = quoted = true;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (!endWord()) return false;
        } else if (c == '|') {
            if (at(i + 1) == '|' || pending || !endWord() || stages.back().argv.empty()) return false;
            stages.emplace_back();
        } else if (c == '>' || c == '<' || (c == '&' && at(i + 1) == '>')) {
            Redirection r;
            if (inWord && !quoted && (word == "0" || word == "1" || word == "2")) {
                // "2>": the descriptor's number written against the operator.
                r.fd = word[0] - '0';
                word.clear();
                inWord = false;
            } else {
                if (!endWord()) return false;
                r.fd = c == '<' ? 0 : c == '&' ? -1 : 1;
            }
            if (pending) return false;
            if (c == '&') ++i;
            if (line[i] == '<') {
                if (at(i + 1) == '<' || at(i + 1) == '&' || at(i + 1) == '>') return false;
            } else if (at(i + 1) == '>') {
                r.append = true;
                ++i;
            } else if (at(i + 1) == '|') {
                ++i;
            } else if (at(i + 1) == '&' && r.fd != -1) {
                r.duplicate = true;
                ++i;
            }
            pending = r;
        } else if (c == ';' || c == '`' || c == '&' || (c == '$' && at(i + 1) == '(')) {
            return false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (!endWord() || pending) return false;
    for (const Stage& s : stages)
        if (s.argv.empty()) return false;
    return true;
}

bool splitPipeline(const std::string& line, std::vector<Words>& stages)
{
    std::vector<Stage> full;
    const bool ok = splitPipeline(line, full);
    stages.clear();
    for (Stage& s : full) stages.push_back(std::move(s.argv));
    return ok;
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

CommandResult CommandTable::run(Module& module, const std::string& line, const std::string& input, bool& known,
                                OutputFiles* files) const
{
    known = false;
    std::vector<Stage> stages;
    if (!splitPipeline(line, stages)) return CommandResult{127, ""};
    std::vector<const CommandRule*> rules;
    for (const Stage& s : stages) {
        const CommandRule* r = find(s.argv);
        if (!r) return CommandResult{127, ""};
        rules.push_back(r);
    }
    known = true;
    CommandContext ctx{module, input};
    CommandResult result;
    for (size_t i = 0; i < stages.size(); ++i) {
        Output out;
        if (openOutput(stages[i].redirections, files, out)) {
            result = rules[i]->handler(ctx, stages[i].argv);
            deliver(out, files, result);
        } else {
            result = CommandResult{1, ""};
        }
        ctx.input = result.output;
    }
    return result;
}

// "ls DIR/*.module": the module files of a directory of the module, sorted
// bytewise as ls sorts them in the C locale, each named as the pattern gave
// its directory. Nothing and status 2 when none matches.
static CommandResult listModules(CommandContext& ctx, const Words& argv)
{
    static const std::string suffix = "/*.module";
    if (argv.size() != 2 || argv[1].size() <= suffix.size() ||
        argv[1].compare(argv[1].size() - suffix.size(), suffix.size(), suffix) != 0)
        return CommandResult{2, ""};
    const std::string dir = argv[1].substr(0, argv[1].size() - suffix.size());
    std::string rel = dir.compare(0, 2, "./") == 0 ? dir.substr(2) : dir;
    if (rel.find("..") != std::string::npos) return CommandResult{2, ""};
    DIR* d = ctx.module.host().opendir(rel);
    if (!d) return CommandResult{2, ""};
    std::vector<std::string> names;
    while (struct dirent* entry = ::readdir(d)) {
        std::string name = entry->d_name;
        if (name.size() > 7 && name[0] != '.' && name.compare(name.size() - 7, 7, ".module") == 0) names.push_back(name);
    }
    ::closedir(d);
    if (names.empty()) return CommandResult{2, ""};
    std::sort(names.begin(), names.end());
    std::string out;
    for (const std::string& name : names) out += dir + "/" + name + "\n";
    return CommandResult{0, out};
}

CommandTable CommandTable::standard()
{
    CommandTable t;
    auto succeed = [](CommandContext&, const Words&) { return ok(); };
    // Appliance scripts: the OS mirror (os_mirror.h) and the boot sector of a drive.
    addOsMirrorRules(t);
    for (const char* script : {"/etc/marrowby/tav_cpboot", "/etc/marrowby/tav_lilo"})
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
    // The module's own processes in the full format (ps_listing.h); no other
    // selection or format is modelled.
    for (const char* name : {"ps", "/bin/ps"})
        for (const char* options : {"-ewf", "-ef"})
            t.add({name, options}, [](CommandContext& ctx, const Words& argv) {
                return argv.size() == 2 ? ok(psListing(ctx.module.dir())) : CommandResult{1, ""};
            });
    // Shell helpers of pipelines.
    t.add({"echo"}, echo);
    t.add({"ls"}, listModules);
    t.add({"grep"}, grep);
    // Vendor tools.
    addHpCliRules(t);
    // The manager program and the awk stages of its md5 query.
    addManagerProgramRules(t);
    return t;
}

} // namespace sim

// Shell commands of the simulated module. Nothing runs on the host: a command
// line is split into a pipeline of words (quotes honoured), each stage is
// answered by the rule whose words are the longest prefix of it, and the
// output of one stage is the input of the next. A stage with no rule makes the
// whole command unknown: it fails with 127.
//
// Redirections of a stage's standard output ("> FILE", ">> FILE", "&> FILE",
// "1> FILE") write its output to a file of the module, through OutputFiles,
// and the stage passes nothing on; ">/dev/null" and ">&2" discard it. The
// files are opened, in order, before the stage runs; one that cannot be
// opened fails the stage with 1, and the stage does not run. Standard error
// is not modelled ("2> FILE", "2>&1" change nothing) and input redirections
// are not read.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sim {

class Module;

struct CommandResult {
    int status = 0;       // exit status
    std::string output;   // standard output
};

struct CommandContext {
    Module& module;
    std::string input;    // standard input of the stage
};

using Words = std::vector<std::string>;
using CommandHandler = std::function<CommandResult(CommandContext&, const Words& argv)>;

struct CommandRule {
    Words prefix;         // leading words the command must have
    CommandHandler handler;
};

// Where redirected output goes: files of the module, as the platform opens
// them (paths mapped and refused as every other path of the system).
class OutputFiles {
public:
    virtual ~OutputFiles() = default;
    // A descriptor of `path` opened for writing, created, and truncated or
    // appended to; -1 when refused.
    virtual int open(const std::string& path, bool append) = 0;
    virtual bool write(int fd, const std::string& data) = 0;
    virtual void close(int fd) = 0;
};

// A state file of the module as lines of blank-separated words (empty lines
// dropped), and its read-modify-write under the module's lock: `change`
// gives false to leave the file as it was.
std::vector<Words> stateLines(Module& m, const std::string& name);
bool updateStateLines(Module& m, const std::string& name, const std::function<bool(std::vector<Words>&)>& change);

class CommandTable {
public:
    // The rules of the IDE platforms: appliance scripts, file system and boot
    // commands, service commands, the shell helpers echo, grep and sync, and
    // the vendor tools modelled so far (hp_cli.h).
    static CommandTable standard();

    void add(Words prefix, CommandHandler handler);
    const CommandRule* find(const Words& argv) const;

    // Runs a command line; `known` is false when some stage had no rule.
    // Without `files`, every redirection to a file is refused.
    CommandResult run(Module& module, const std::string& line, const std::string& input, bool& known,
                      OutputFiles* files = nullptr) const;

private:
    std::vector<CommandRule> rules_;
};

struct Redirection {
    int fd = 1;              // 0 input, 1 output, 2 error, -1 output and error ("&>")
    bool append = false;     // ">>"
    bool duplicate = false;  // ">&N": `target` is the descriptor's number
    std::string target;
};

struct Stage {
    Words argv;
    std::vector<Redirection> redirections;  // in the order written
};

// The pipeline stages of a line; false on syntax the simulation does not take
// (";", "&&", "||", "&", "`", "$(", "<<", unbalanced quotes, a redirection
// without its target, an empty stage). An operator written in quotes or after
// a backslash is a plain word.
bool splitPipeline(const std::string& line, std::vector<Stage>& stages);
// The words of each stage alone.
bool splitPipeline(const std::string& line, std::vector<Words>& stages);

} // namespace sim

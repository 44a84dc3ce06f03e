// Shell commands of the simulated module. Nothing runs on the host: a command
// line is split into a pipeline of words (quotes honoured, redirections
// dropped), each stage is answered by the rule whose words are the longest
// prefix of it, and the output of one stage is the input of the next. A stage
// with no rule makes the whole command unknown: it fails with 127.
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

class CommandTable {
public:
    // The rules of the IDE platforms: appliance scripts, file system and boot
    // commands, service commands, the shell helpers echo, grep and sync, and
    // the vendor tools modelled so far (hp_cli.h).
    static CommandTable standard();

    void add(Words prefix, CommandHandler handler);
    const CommandRule* find(const Words& argv) const;

    // Runs a command line; `known` is false when some stage had no rule.
    CommandResult run(Module& module, const std::string& line, const std::string& input, bool& known) const;

private:
    std::vector<CommandRule> rules_;
};

// The pipeline stages of a line; false on syntax the simulation does not take
// (";", "&&", "&", "`", "$(", unbalanced quotes).
bool splitPipeline(const std::string& line, std::vector<Words>& stages);

} // namespace sim

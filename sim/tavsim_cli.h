// The parts of the tavsim command line: the command table, the shared
// handling of arguments and errors, and one function per command.
//
// Exit status of every command: 0 done; 1 refused or failed (the module or
// the simulation said no); 2 a bad command line (an unknown command or
// option, a missing, malformed or out-of-range argument).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemons.h"
#include "faults.h"
#include "json.h"
#include "md_state.h"
#include "module.h"

namespace sim::cli {

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kBadUsage = 2;

struct Command;

// One run of a command: the words after its name.
struct Call {
    const Command& command;
    std::vector<std::string> args;
};

struct Command {
    const char* name;
    const char* synopsis;  // the arguments, after "tavsim NAME "
    const char* summary;   // one line for the list of commands
    const char* help;      // the rest of "tavsim NAME --help"
    int (*run)(const Call& call);
};

// Each prints "tavsim NAME: why" on standard error and gives its status;
// badUsage adds the command's usage line.
int badUsage(const Call& call, const std::string& why);
int refused(const Call& call, const std::string& why);
// What a command did, one line on standard output.
void report(const std::string& line);

// The words of a command split into positional arguments and options
// ("--name VALUE", "--name=VALUE" or "--flag"). With `dashDash`, the words
// after "--" are kept apart, as they stand, in `rest`.
struct Option {
    const char* name;    // "--platform"
    const char* value;   // its value's name ("ID"), or null for a flag
};
struct Words {
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> options;  // in the order given
    bool dashDash = false;
    std::vector<std::string> rest;

    bool has(const std::string& name) const;
};
// kDone, or the status after the error was printed.
int splitWords(const Call& call, const std::vector<Option>& known, bool dashDash, Words& out);
// Exactly `min` to `max` positional words, else a usage error (status, printed).
int expectPositional(const Call& call, const Words& words, size_t min, size_t max);

// A decimal number from `min` to `max`; false with a sentence naming the
// argument: "--sectors 010: not a decimal number".
bool decimal(const std::string& what, const std::string& word, uint64_t min, uint64_t max, uint64_t& out,
             std::string& why);

// Whether `dir` is a directory with no entries.
bool isDirEmpty(const std::string& dir);
// The reason DIR holds no module, or "" when it does.
std::string whyNoModule(const std::string& dir);
// The module at DIR, after its state files' warnings went to standard error;
// null, with the status printed, when there is none.
std::unique_ptr<Module> openModule(const Call& call, const std::string& dir, int& status);
// The common start of a command on a module: its words with `known` options,
// `min` to `max` positional words, the first of them the module's directory.
std::unique_ptr<Module> openModuleCall(const Call& call, const std::vector<Option>& known, size_t min, size_t max,
                                       Words& words, int& status);

// A bay argument of the module; kDone, or the status after the error was
// printed ("bay 9: this module has bays 1 to 4").
int bayArgument(const Call& call, const Manifest& m, const std::string& word, int& bay);

// The armed faults as a table under a header line.
void printFaults(const std::vector<Fault>& faults);

// The kernel's md arrays as a table under a header line, one row an array;
// and as a JSON array (tavsim md).
void printArrayTable(const MdState& state);
void writeArraysJson(JsonWriter& j, const MdState& state, const Manifest& manifest);

// "1, 2 and 4".
std::string listed(const std::vector<std::string>& items);

// The families' table on the drive of `bay`, sizes checked first; "" or why not.
std::string partitionBay(Module& module, int bay);

int runCreate(const Call& call);
int runShow(const Call& call);
int runPartition(const Call& call);
int runSign(const Call& call);
int runRaid(const Call& call);
int runPull(const Call& call);
int runInsert(const Call& call);
int runSwap(const Call& call);
// A drive put into a bay behind the controller's back (tavsim_replace.cpp).
int runReplace(const Call& call);
int runCorrupt(const Call& call);
int runFault(const Call& call);
int runLog(const Call& call);
int runTw(const Call& call);
int runTwCall(const Call& call);
// tavsim wait: the virtual clock moved on (tavsim_wait.cpp).
int runWait(const Call& call);
// The API functions tavsim tw calls, by name, blank-separated.
std::string twFunctionNames();
int runMd(const Call& call);
int runDsp(const Call& call);
int runBay(const Call& call);
int runNvram(const Call& call);
int runKeys(const Call& call);
int runMgmt(const Call& call);
int runModules(const Call& call);
extern const char kModulesHelp[];
std::string sampleModuleNames();
int runNet(const Call& call);
int runAgent(const Call& call);
extern const char kAgentHelp[];
extern const char kNetHelp[];
extern const char kKeysHelp[];
extern const char kMgmtHelp[];
extern const char kNvramHelp[];
// Prints the help of "tavsim nvram DIR SUB --help"; false when no subcommand is named.
bool nvramSubcommandHelp(const std::vector<std::string>& args);
// tavsim nvram DIR recover | status: the system's library and card class on the card.
int nvramRecover(const Call& call, Module& module);
int nvramStatus(const Call& call, Module& module, bool json);
extern const char kDspHelp[];
int runCharon(const Call& call);
extern const char kCharonHelp[];
extern const char kBayHelp[];
int runHp(const Call& call);
extern const char kHpHelp[];
int runConsole(const Call& call);
extern const char kConsoleHelp[];
// The console's own commands, for its help.
std::string consoleCommands();
int runRun(const Call& call);
int runDaemons(const Call& call);
int runServices(const Call& call);
extern const char kServicesHelp[];
extern const char kDaemonsHelp[];
// One line for tavsim show: "daemons: installed, 0 live, system id NO_SYSTEM_ID".
std::string daemonSummary(const DaemonStatus& status);

} // namespace sim::cli

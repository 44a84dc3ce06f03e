// tavsim services: a sequence of the daemons' service commands run in one
// process on the module, as the management plane would send them, with each
// command's result and reply; the daemons it started are stopped at the end.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "daemons.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/ondraProcess.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavsysutils.h"
#include "json.h"
#include "platform/platform.h"
#include "sim_platform.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

// What a command takes after its name.
enum class Takes {
    Nothing,     // buffer empty
    Text,        // buffer = TEXT
    Type,        // (buffer, TYPE)
    TypeText,    // (buffer = TEXT, TYPE)
    StateType,   // (buffer, STATE, TYPE)
    IfaceLevel,  // initModData(buffer, IFACE, LEVEL)
};

using Plain = int (TavOndraInterface::*)(TavString&);
using Typed = int (TavOndraInterface::*)(TavString&, int);
using StateTyped = int (TavOndraInterface::*)(TavString&, int, int);

struct Service {
    const char* name;
    Takes takes;
    Plain plain = nullptr;
    Typed typed = nullptr;
    StateTyped stateTyped = nullptr;
};

const Service kServices[] = {
    {"initModData", Takes::IfaceLevel},
    {"startManagerComm", Takes::Nothing},
    {"join", Takes::Text, &TavOndraInterface::join},
    {"storeStart", Takes::Nothing, &TavOndraInterface::storeStart},
    {"managerStart", Takes::Text, &TavOndraInterface::managerStart},
    {"virtualmanagerStart", Takes::Text, &TavOndraInterface::virtualmanagerStart},
    {"managerStop", Takes::Nothing, &TavOndraInterface::managerStop},
    {"virtualmanagerStop", Takes::Nothing, &TavOndraInterface::virtualmanagerStop},
    {"removeFromSystem", Takes::Nothing, &TavOndraInterface::removeFromSystem},
    {"processStart", Takes::StateType, nullptr, nullptr, &TavOndraInterface::processStart},
    {"processStop", Takes::Type, nullptr, &TavOndraInterface::processStop},
    {"processCycle", Takes::Type, nullptr, &TavOndraInterface::processCycle},
    {"processShutdown", Takes::Type, nullptr, &TavOndraInterface::processShutdown},
    {"updateArgs", Takes::TypeText, nullptr, &TavOndraInterface::updateArgs},
    {"addArgs", Takes::TypeText, nullptr, &TavOndraInterface::addArgs},
    {"deleteArgs", Takes::TypeText, nullptr, &TavOndraInterface::deleteArgs},
    {"getArgs", Takes::Type, nullptr, &TavOndraInterface::getArgs},
    {"getRun", Takes::Type, nullptr, &TavOndraInterface::getRun},
    {"runTimeArgs", Takes::StateType, nullptr, nullptr, &TavOndraInterface::runTimeArgs},
    {"getPort", Takes::Nothing, &TavOndraInterface::getPort},
    {"getSystemId", Takes::Nothing, &TavOndraInterface::getSystemId},
    {"setSystemId", Takes::Text, &TavOndraInterface::setSystemId},
    {"getMd5", Takes::Nothing, &TavOndraInterface::getMd5},
    {"getVmgrConfigured", Takes::Nothing, &TavOndraInterface::getVmgrConfigured},
    {"getUnixDomain", Takes::Nothing, &TavOndraInterface::getUnixDomain},
    {"readUdpArgs", Takes::Nothing, &TavOndraInterface::readUdpArgs},
    {"writeUdpArgs", Takes::Text, &TavOndraInterface::writeUdpArgs},
    {"writeIfaceIpAddress", Takes::Text, &TavOndraInterface::writeIfaceIpAddress},
    {"writeRaidLevel", Takes::Text, &TavOndraInterface::writeRaidLevel},
};

const char* const kStates[3] = {"init", "daemon", "deinit"};

// One command of the sequence, as given and as it ran.
struct Step {
    const Service* service = nullptr;
    std::vector<std::string> words;  // its arguments as given
    std::string text;
    int state = 0;
    int type = 0;
    int result = 0;
    std::string reply;
};

const Service* findService(const std::string& name)
{
    for (const Service& s : kServices)
        if (name == s.name) return &s;
    return nullptr;
}

std::string serviceNames()
{
    std::string out;
    for (const Service& s : kServices) out += (out.empty() ? "" : " ") + std::string(s.name);
    return out;
}

// store, vmgr, mgr or 0 to 2 (and init, daemon, deinit or 0 to 2 for a state).
bool oneOfThree(const char* what, const std::string& word, const char* const names[3], int& out, std::string& why)
{
    for (int i = 0; i < 3; ++i)
        if (word == names[i]) {
            out = i;
            return true;
        }
    if (word.size() == 1 && word[0] >= '0' && word[0] <= '2') {
        out = word[0] - '0';
        return true;
    }
    why = std::string(what) + " " + cell(word) + ": give " + names[0] + ", " + names[1] + " or " + names[2] +
          ", or 0 to 2";
    return false;
}

// How many words a command takes after its name, and their names for a usage line.
struct Arguments {
    size_t count;
    const char* names;
};

Arguments argumentsOf(Takes takes)
{
    switch (takes) {
    case Takes::Nothing: return {0, ""};
    case Takes::Text: return {1, " TEXT"};
    case Takes::Type: return {1, " TYPE"};
    case Takes::TypeText: return {2, " TYPE TEXT"};
    case Takes::StateType: return {2, " STATE TYPE"};
    case Takes::IfaceLevel: return {2, " IFACE LEVEL"};
    }
    return {0, ""};
}

// The steps of the words after "run"; false with the reason.
bool parseSteps(const std::vector<std::string>& words, std::vector<Step>& steps, std::string& why)
{
    const char* const typeNames[3] = {daemonShortName(0), daemonShortName(1), daemonShortName(2)};
    for (size_t at = 0; at < words.size();) {
        Step step;
        step.service = findService(words[at]);
        if (!step.service) {
            why = "unknown command " + cell(words[at]) + "; give one of " + serviceNames();
            return false;
        }
        const Arguments args = argumentsOf(step.service->takes);
        const size_t count = args.count;
        if (words.size() - at - 1 < count) {
            why = std::string(step.service->name) + " takes" + args.names;
            return false;
        }
        step.words.assign(words.begin() + static_cast<long>(at) + 1,
                          words.begin() + static_cast<long>(at + 1 + count));
        switch (step.service->takes) {
        case Takes::Nothing: break;
        case Takes::Text: step.text = step.words[0]; break;
        case Takes::Type:
            if (!oneOfThree("TYPE", step.words[0], typeNames, step.type, why)) return false;
            break;
        case Takes::TypeText:
            if (!oneOfThree("TYPE", step.words[0], typeNames, step.type, why)) return false;
            step.text = step.words[1];
            break;
        case Takes::StateType:
            if (!oneOfThree("STATE", step.words[0], kStates, step.state, why) ||
                !oneOfThree("TYPE", step.words[1], typeNames, step.type, why))
                return false;
            break;
        case Takes::IfaceLevel: break;  // taken as they stand
        }
        steps.push_back(std::move(step));
        at += 1 + count;
    }
    if (steps.empty()) {
        why = "give the commands to run after run";
        return false;
    }
    return true;
}

void runStep(TavOndraInterface& services, Step& step)
{
    TavString buffer = step.text.c_str();
    const Service& s = *step.service;
    switch (s.takes) {
    case Takes::Nothing:
        step.result = s.plain ? (services.*s.plain)(buffer) : services.startManagerComm();
        break;
    case Takes::Text: step.result = (services.*s.plain)(buffer); break;
    case Takes::Type:
    case Takes::TypeText: step.result = (services.*s.typed)(buffer, step.type); break;
    case Takes::StateType: step.result = (services.*s.stateTyped)(buffer, step.state, step.type); break;
    case Takes::IfaceLevel: {
        TavString iface = step.words[0].c_str(), level = step.words[1].c_str();
        step.result = services.initModData(buffer, iface, level);
        break;
    }
    }
    step.reply = buffer;
}

std::string commandText(const Step& step)
{
    std::string out = step.service->name;
    for (const std::string& w : step.words) out += " " + (w.empty() ? std::string("\"\"") : cell(w));
    return out;
}

void printSteps(std::ostream& out, const std::vector<Step>& steps, bool json)
{
    if (json) {
        JsonWriter j(out);
        j.beginArray();
        for (const Step& s : steps) {
            j.beginObject();
            j.key("command").string(s.service->name);
            j.key("args").beginArray();
            for (const std::string& w : s.words) j.string(w);
            j.endArray();
            j.key("result").number(static_cast<int64_t>(s.result));
            j.key("reply").string(s.reply);
            j.endObject();
        }
        j.endArray();
        out << "\n";
        return;
    }
    Table t({"STEP", "COMMAND", "RESULT", "REPLY"});
    for (size_t i = 0; i < steps.size(); ++i)
        t.add({std::to_string(i + 1), commandText(steps[i]), std::to_string(steps[i].result), steps[i].reply});
    t.print(out);
}

// Stops, for good, every daemon of the sequence that still runs: manager,
// virtual manager, store.
void stopDaemons(TavOndraInterface& services)
{
    for (int type = 2; type >= 0; --type) {
        TavOndraProcess* p = services.process(type);
        if (!p || p->pId() <= 0) continue;
        TavString buffer;
        p->stop(buffer, true);
        std::cerr << "tavsim services: stopped the " << daemonShortName(type) << " daemon\n";
    }
}

// The child that runs the sequence: the system's log on standard error, the
// table on the standard output it was given. Never returns.
[[noreturn]] void runSequence(const std::string& dir, std::vector<Step>& steps, bool json, int level)
{
    const int out = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (out < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) _exit(kRefused);
    // The relay thread of the comm object never ends: the platform stays for
    // the life of the process, which leaves by _exit.
    auto* platform = new SimPlatform(dir);
    new plat::ScopedPlatform(*platform);
    tavGlobalDebugLevel = level;
    TavDriveMgr::init();
    TavDriveMgr::readSignatureIntoMemory();
    auto* services = new TavOndraInterface;
    bool allDone = true;
    for (Step& step : steps) {
        runStep(*services, step);
        std::fflush(nullptr);
        std::cerr << "tavsim services: " << commandText(step) << " -> " << step.result << ": " << step.reply
                  << std::endl;
        allDone = allDone && step.result == 0;
    }
    stopDaemons(*services);
    std::string table;
    {
        std::ostringstream text;
        printSteps(text, steps, json);
        table = text.str();
    }
    std::fflush(nullptr);
    for (size_t done = 0; done < table.size();) {
        const ssize_t n = ::write(out, table.data() + done, table.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    _exit(allDone ? kDone : kRefused);
}

} // namespace

const char kServicesHelp[] =
    "Runs COMMANDs of the daemons' service interface, one after another, in one\n"
    "process on the module, as the management plane sends them. The module needs\n"
    "its daemons (tavsim daemons DIR install). A sequence normally starts with\n"
    "initModData, which makes the daemons' table, kills strays and starts what may\n"
    "run. Each COMMAND is followed by its own arguments:\n"
    "\n"
    "  initModData IFACE LEVEL          startManagerComm\n"
    "  join TEXT                        storeStart\n"
    "  managerStart TEXT                virtualmanagerStart TEXT\n"
    "  managerStop                      virtualmanagerStop\n"
    "  removeFromSystem                 getSystemId   setSystemId TEXT\n"
    "  processStart STATE TYPE          runTimeArgs STATE TYPE\n"
    "  processStop TYPE   processCycle TYPE   processShutdown TYPE\n"
    "  getRun TYPE        getArgs TYPE\n"
    "  updateArgs TYPE TEXT   addArgs TYPE TEXT   deleteArgs TYPE TEXT\n"
    "  getPort  getMd5  getVmgrConfigured  getUnixDomain  readUdpArgs\n"
    "  writeUdpArgs TEXT  writeIfaceIpAddress TEXT  writeRaidLevel TEXT\n"
    "\n"
    "TYPE is store, vmgr or mgr (or 0 to 2), STATE init, daemon or deinit (or 0\n"
    "to 2); TEXT is one word (quote it in the shell; \"\" is an empty text).\n"
    "\n"
    "  tavsim services DIR run initModData eth0 5 join store1/sys42 \\\n"
    "      managerStart store1/sys42/mgr1/first getRun mgr removeFromSystem\n"
    "\n"
    "The system's log and a line per command go to standard error as the\n"
    "commands run; at the end every daemon the sequence left running is stopped\n"
    "(manager, virtual manager, store) and a table of the commands with their\n"
    "result and reply goes to standard output (--json: an array of objects with\n"
    "command, args, result and reply). The status is 0 when every command gave 0,\n"
    "1 otherwise. The comm object binds its fixed loopback ports.\n"
    "\n"
    "  --json          the results as one JSON document\n"
    "  --debug LEVEL   the system's global debug level, 0 to 100 (default 0)\n";

int runServices(const Call& call)
{
    // The words after "run" are the sequence; options come before it.
    std::vector<std::string> head = call.args, sequence;
    for (size_t i = 0; i < call.args.size(); ++i)
        if (call.args[i] == "run") {
            head.assign(call.args.begin(), call.args.begin() + static_cast<long>(i) + 1);
            sequence.assign(call.args.begin() + static_cast<long>(i) + 1, call.args.end());
            break;
        }
    Words w;
    int status = splitWords(Call{call.command, head}, {{"--json", nullptr}, {"--debug", "LEVEL"}}, false, w);
    if (status) return status;
    if ((status = expectPositional(call, w, 2, 2))) return status;
    if (w.positional[1] != "run") return badUsage(call, "unexpected argument " + cell(w.positional[1]) + "; give run");
    uint64_t level = 0;
    std::string why;
    for (const auto& [name, value] : w.options)
        if (name == "--debug" && !decimal("--debug", value, 0, 100, level, why)) return badUsage(call, why);
    std::vector<Step> steps;
    if (!parseSteps(sequence, steps, why)) return badUsage(call, why);
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    if (daemonStatus(*module).scriptsPresent() == 0)
        return refused(call, "no daemons in " + module->dir() + "; run tavsim daemons DIR install");

    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) return refused(call, "cannot fork");
    if (child == 0) runSequence(module->dir(), steps, w.has("--json"), static_cast<int>(level));
    int childStatus = 0;
    while (::waitpid(child, &childStatus, 0) < 0)
        if (errno != EINTR) return refused(call, "lost the process of the commands");
    if (WIFEXITED(childStatus)) return WEXITSTATUS(childStatus) == kDone ? kDone : kRefused;
    return refused(call, "the process of the commands ended by signal " + std::to_string(WTERMSIG(childStatus)));
}

} // namespace sim::cli

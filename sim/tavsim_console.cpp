// tavsim console: an interactive host of the module. It brings the drive
// manager up, starts the chassis controller's link, and reads commands from
// standard input while the link's threads run on the module's clock.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

#include "clock.h"
#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/tavbus.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavsysutils.h"
#include "platform/platform.h"
#include "sim_platform.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

struct DspCommand {
    const char* name;
    int (*run)(char* buffer, int length);
};

const DspCommand kDspCommands[] = {
    {"reset", dspReset},         {"cmdsize", dspCmdSize},         {"status", dspStatus},
    {"powerseq", dspPowerSeq},   {"powerdown", dspPowerDown},     {"powerup", dspPowerUp},
    {"abort", dspAbort},         {"lastcommand", dspLastCommand}, {"tempdrive", dspTempDrive},
    {"templimit", dspTempLimit}, {"gettemplimit", dspGetTempLimit}, {"voltage", dspVoltage},
    {"switchsrc", dspSwitchSrc}, {"firmversion", dspFirmVersion},
};

const char kConsoleCommands[] =
    "  dsp COMMAND [TEXT]   run a command of the chassis controller with TEXT as its\n"
    "                       arguments; print its result and answer. COMMAND is one\n"
    "                       of reset cmdsize status powerseq powerdown powerup abort\n"
    "                       lastcommand tempdrive templimit gettemplimit voltage\n"
    "                       switchsrc firmversion (or its function name, dspStatus)\n"
    "  bus N down [force]   power drive N down through its bus\n"
    "  bus N up             power drive N up through its bus\n"
    "  wait SECONDS         wait on the virtual clock (0 to 86400)\n"
    "  help                 this list\n"
    "  quit                 leave (end of input too)\n";

std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> words;
    size_t at = 0;
    while (true) {
        at = line.find_first_not_of(" \t", at);
        if (at == std::string::npos) break;
        size_t end = line.find_first_of(" \t", at);
        words.push_back(line.substr(at, end == std::string::npos ? std::string::npos : end - at));
        at = end;
    }
    return words;
}

std::string lower(std::string s)
{
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

const DspCommand* findDsp(const std::string& word)
{
    std::string name = lower(word);
    if (name.compare(0, 3, "dsp") == 0 && name.size() > 3) name = name.substr(3);
    for (const DspCommand& c : kDspCommands)
        if (name == c.name) return &c;
    return nullptr;
}

std::string clockText()
{
    return isoTime(plat::time(nullptr));
}

void say(const std::string& line) { std::cout << "[" << clockText() << "] " << line << std::endl; }

void runDsp(const std::string& line, const std::vector<std::string>& words)
{
    const DspCommand* c = words.size() >= 2 ? findDsp(words[1]) : nullptr;
    if (!c) {
        say("dsp: give one of the commands of \"help\"");
        return;
    }
    // The text after the command's name, as the command reads it.
    size_t at = line.find(words[1]) + words[1].size();
    std::string text = line.substr(std::min(line.size(), line.find_first_not_of(" \t", at)));
    char buffer[256] = {};
    std::strncpy(buffer, text.c_str(), sizeof buffer - 1);
    int result = c->run(buffer, sizeof buffer);
    say(std::string("dsp ") + c->name + " -> " + std::to_string(result) + ": " + buffer);
}

void runBus(const std::vector<std::string>& words)
{
    uint64_t drive = 0;
    std::string why;
    int drives = TavDriveMgr::getNDrives();
    bool down = words.size() >= 3 && words[2] == "down";
    bool up = words.size() == 3 && words[2] == "up";
    bool force = down && words.size() == 4 && words[3] == "force";
    if (!(up || (down && (words.size() == 3 || force)))) {
        say("bus: \"bus N down [force]\" or \"bus N up\"");
        return;
    }
    if (!decimal("drive", words[1], 1, static_cast<uint64_t>(std::max(drives, 1)), drive, why)) {
        say("bus: " + why + " (the module has " + std::to_string(drives) + " drives)");
        return;
    }
    int n = static_cast<int>(drive);
    RaidDeviceMgmt::TavBus* bus = TavDriveMgr::getBus(n);
    if (!bus) {
        say("bus: no bus holds drive " + words[1]);
        return;
    }
    int code = down ? bus->powerDown(n, force) : bus->powerUp(n);
    say(std::string("bus ") + words[1] + (down ? " down" : " up") + " -> " + std::to_string(code) +
        (code ? ": " + bus->getErrorMessage(code) : ""));
}

void runWait(const std::vector<std::string>& words)
{
    uint64_t seconds = 0;
    std::string why;
    if (words.size() != 2 || !decimal("SECONDS", words[1], 0, 86400, seconds, why)) {
        say("wait: " + (why.empty() ? std::string("\"wait SECONDS\"") : why));
        return;
    }
    plat::sleep(static_cast<unsigned>(seconds));
    say("waited " + words[1] + " s");
}

// True to go on.
bool runLine(const std::string& line)
{
    std::vector<std::string> words = split(line);
    if (words.empty() || words[0][0] == '#') return true;
    const std::string& verb = words[0];
    if (verb == "quit" || verb == "exit") return false;
    if (verb == "dsp")
        runDsp(line, words);
    else if (verb == "bus")
        runBus(words);
    else if (verb == "wait")
        runWait(words);
    else if (verb == "help")
        std::cout << kConsoleCommands;
    else
        say("unknown command " + cell(verb) + "; \"help\" lists them");
    return true;
}

} // namespace

const char kConsoleHelp[] =
    "Hosts the module in this process as the appliance would: brings the drive\n"
    "manager up (the platform, the drives and the signature), starts the chassis\n"
    "controller's link (its driver, the kernel reader and the reader), and reads\n"
    "commands, one a line, from standard input:\n"
    "\n"
    "@CONSOLE@"
    "\n"
    "The system's log goes to standard error at --debug LEVEL (default 10, which\n"
    "shows the link's reads and the drives going down). While the console waits\n"
    "for a line, the module's clock moves no faster than real time: a bay's lock\n"
    "opened from another terminal (tavsim bay DIR N lock open) is seen at the\n"
    "reader's next poll.\n"
    "\n"
    "  --debug LEVEL   the system's global debug level, 0 to 100\n";

std::string consoleCommands() { return kConsoleCommands; }

int runConsole(const Call& call)
{
    Words w;
    int status = splitWords(call, {{"--debug", "LEVEL"}}, false, w);
    if (status) return status;
    if ((status = expectPositional(call, w, 1, 1))) return status;
    uint64_t level = 10;
    std::string why;
    for (const auto& [name, value] : w.options)
        if (name == "--debug" && !decimal("--debug", value, 0, 100, level, why)) return badUsage(call, why);
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;

    // The link's threads never end: the platform stays for the life of the
    // process, and the console leaves by _exit, never destroying it under them.
    auto* platform = new SimPlatform(module->dir());
    auto* scope = new plat::ScopedPlatform(*platform);
    (void)scope;
    tavGlobalDebugLevel = static_cast<int>(level);
    platform->scheduler().setPacing(true);

    TavDriveMgr::init();
    TavDriveMgr::readSignatureIntoMemory();
    if (tavDspInitModData() != 0) {
        std::cerr << "tavsim console: the chassis controller's link did not come up (see the log above)\n";
        std::fflush(nullptr);
        _exit(kRefused);
    }
    say("module " + module->dir() + ": " + std::to_string(TavDriveMgr::getNDrives()) +
        " drives, the link is up; \"help\" lists the commands");
    bool prompt = ::isatty(STDIN_FILENO);
    std::string line;
    while (true) {
        if (prompt) std::cout << "> " << std::flush;
        if (!std::getline(std::cin, line) || !runLine(line)) break;
    }
    std::fflush(nullptr);
    _exit(kDone);
}

} // namespace sim::cli

// The module's three daemons (store, virtual manager, manager) as small shell
// scripts inside the module, so that the supervisor runs real processes that
// never leave the module directory.
//
// installDaemons lays into a module:
//   - one script per type, DIR/daemons/ondrastore, ondravmgr, ondramgr
//     (bash; the module's root is written into it);
//   - the nine configuration files of the three run states, each a section of
//     the type's name whose first line is the script's host path, then
//     "--mode" and "init", "daemon" or "deinit", then "--dir" and the type's
//     data directory, a path of the module ("/var/ondra/store",
//     "/var/ondra/vmgr", "/var/ondra/mgr");
//   - "/etc/marrowby/ondraretry.cfg": a comment line, then "number=5 time=60";
//   - "/etc/marrowby/comm/ondraSystemId.cfg" holding "NO_SYSTEM_ID", the id of
//     a unit that has none.
//
// Every run of a script appends one line to DIR/sim/daemons.log:
//   "start" TAB PID TAB ARGV0 then a TAB before each further argument,
// so that the vector that reached execv can be read back byte for byte (an
// argument holding a tab or newline is not expected). Then, by its --mode:
//   init    makes the data directory (inside the module) and its "ok" file;
//   deinit  removes the "ok" file;
//   daemon  reads its control file DIR/sim/daemons/TYPE ("ondrastore", ...):
//           "exit N" exits with status N at once; anything else, or no file,
//           ignores the hang-up signal and execs `sleep` with argv[0] set to
//           the script's path, so that the pid is the daemon itself and the
//           ps listing shows the script's path with one argument.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace sim {

class Module;

// The script's base name for a process type 0 to 2.
const char* daemonName(int type);

struct DaemonOptions {
    int failType = -1;  // this type's Daemon exits with status 1 at once
};

void installDaemons(Module& module, const DaemonOptions& options = {});

// The host path of a type's script.
std::string daemonScript(const Module& module, int type);

// The Daemon's behaviour of a type: status >= 0 exits with it; -1 sleeps.
void setDaemonExit(Module& module, int type, int status);

struct DaemonStart {
    pid_t pid = 0;
    std::vector<std::string> argv;  // argv[0] first
};

// Every start in the log, in order.
std::vector<DaemonStart> daemonStarts(const Module& module);

// The pids of the log that are still alive (and still the module's).
std::vector<pid_t> liveDaemonPids(const Module& module);

// Sends SIGKILL to every pid of the log that is still the module's: the
// tear-down of a test. Gives the pids signalled.
std::vector<pid_t> killDaemons(const Module& module);

// The short name of a type ("store", "vmgr", "mgr").
const char* daemonShortName(int type);
// The configuration file of a type and run state (0 Init, 1 Daemon, 2
// Deinit), a path of the module.
const char* daemonConfig(int type, int mode);
constexpr const char kSystemIdFile[] = "/etc/marrowby/comm/ondraSystemId.cfg";
constexpr const char kUdpArgsFile[] = "/etc/marrowby/comm/udpargs.cfg";

// What the module holds of its daemons, read as outside input.
struct DaemonStatus {
    struct Type {
        std::string script;            // host path
        bool scriptPresent = false;
        bool configPresent[3] = {};    // Init, Daemon, Deinit
        std::string dataDir;           // after "--dir" in the Daemon file's section; "" unknown
        bool ok = false;               // the data directory's "ok" file exists
        int exitStatus = -1;           // the Daemon's behaviour (setDaemonExit)
        std::vector<pid_t> pids;       // live processes running the script
    };
    Type types[3];
    bool hasSystemId = false;
    std::string systemId;              // the first non-empty line
    bool hasUdpArgs = false;
    std::vector<std::string> udpStorage;  // the lines of its STORAGE section

    int scriptsPresent() const;
    size_t livePids() const;
};
DaemonStatus daemonStatus(const Module& module);

} // namespace sim

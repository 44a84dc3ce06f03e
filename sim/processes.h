// The host's processes as the simulated module sees them: only those that
// belong to the module may be listed or signalled. A process belongs to the
// module when its argv[0] lies inside the module directory (a daemon script
// that sets its own argv[0]), or when it is a child of this process (a daemon
// between fork and exec, or a script not yet at its exec).
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace sim {

struct HostProcess {
    pid_t pid = 0;
    pid_t ppid = 0;
    pid_t pgid = 0;
    char state = '?';               // R, S, D, Z, T, ...
    std::vector<std::string> argv;  // from /proc/PID/cmdline, a script run by its interpreter
                                    // without the interpreter; empty for a zombie or kernel thread
    uid_t uid = 0;                  // the owner of /proc/PID
    unsigned ttyNr = 0;             // the controlling terminal's device number, 0 for none
    unsigned long long cpuTicks = 0;    // user and system time, in clock ticks
    unsigned long long startTicks = 0;  // the start, in clock ticks after boot
};

// One process of the host, false when it is gone or unreadable.
bool readHostProcess(pid_t pid, HostProcess& out);

// Every process of the host that can be read now, in pid order.
std::vector<HostProcess> hostProcesses();

// True when argv[0] is a path strictly inside `root` (an absolute, clean directory).
bool argvInside(const HostProcess& p, const std::string& root);

// The rule above, for a process of this process's module at `root`. A zombie
// still belongs (it is reaped by its parent), but is no longer alive.
bool belongsToModule(const HostProcess& p, const std::string& root);

// Alive: read now and not a zombie.
bool isAlive(const HostProcess& p);

} // namespace sim

// "ps -ewf" of the simulated module: the host's processes that are the
// module's own (argv[0] inside the module directory, processes.h), in the
// classic full-format listing.
//
//   UID        PID  PPID  C STIME TTY          TIME CMD
//   root      4242     1  0 10:04 ?        00:00:00 /tmp/m/daemons/ondrastore 100000
//
// Columns, counted from 0: UID 0..7 (left-justified), PID 9..13, PPID
// 15..19, C 21..22 (right-justified), STIME 24..28, TTY 30..37, TIME
// 39..46, then the command line, argv joined by blanks, from column 48.
// Readers take the pid at 9..13 and the command at 48.
//
// A field wider than its column (a pid of six digits or more, a day of CPU
// time) is written whole and pushes the rest of its line to the right, as the
// full-format listing does; it is never cut. A reader at fixed columns then
// finds no command at 48 and passes the line by, rather than taking five
// digits of a longer pid for a process of their own.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace sim {

struct PsRow {
    std::string uid;    // a name of at most 8 characters, else the number
    pid_t pid = 0;
    pid_t ppid = 0;
    int cpu = 0;        // C: per cent of the process's life spent on a CPU
    std::string stime;  // "HH:MM" within a day, "MonDD" within the year, else the year
    std::string tty;    // "?" for none
    std::string time;   // CPU time, "[D-]HH:MM:SS"
    std::vector<std::string> argv;
};

extern const char kPsHeader[];

// One line of the listing, without its newline. Bytes of argv outside
// printable ASCII are written as "?", so that a line stays one line.
std::string psLine(const PsRow& row);

// The header, then a line per process of the module at `root`, in pid order.
std::string psListing(const std::string& root);

} // namespace sim

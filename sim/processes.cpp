#include "processes.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

bool readWhole(const std::string& path, std::string& out)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[4096];
    ssize_t got;
    while ((got = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(got));
    ::close(fd);
    return got == 0;
}

// A script started by path runs as "INTERPRETER SCRIPT ARGS..." until it
// reaches its exec. The module's daemons are scripts standing in for
// programs, so from its first instruction such a process is seen as the
// program SCRIPT: a kill by name during a daemon's start finds it.
void standsAsItsScript(std::vector<std::string>& argv)
{
    if (argv.size() < 2 || argv[1].empty() || argv[1][0] != '/') return;
    const std::string& a0 = argv[0];
    const std::string base = a0.substr(a0.rfind('/') == std::string::npos ? 0 : a0.rfind('/') + 1);
    if (base == "bash" || base == "sh") argv.erase(argv.begin());
}

} // namespace

bool readHostProcess(pid_t pid, HostProcess& out)
{
    const std::string dir = "/proc/" + std::to_string(pid);
    std::string stat;
    if (!readWhole(dir + "/stat", stat)) return false;
    // "PID (NAME) STATE PPID PGRP ...": the name may hold anything, so read after its last ')'.
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return false;
    char state = 0;
    long ppid = 0, pgrp = 0;
    int tty = 0;
    unsigned long long utime = 0, stime = 0, start = 0;
    // Fields 3 to 5, then 7 (tty_nr), 14 and 15 (utime, stime) and 22 (starttime).
    const int got = std::sscanf(stat.c_str() + close + 1,
                                " %c %ld %ld %*d %d %*d %*u %*u %*u %*u %*u %llu %llu %*d %*d %*d %*d %*d %*d %llu",
                                &state, &ppid, &pgrp, &tty, &utime, &stime, &start);
    if (got < 3) return false;
    out = HostProcess{};
    out.pid = pid;
    out.ppid = static_cast<pid_t>(ppid);
    out.pgid = static_cast<pid_t>(pgrp);
    out.state = state;
    if (got == 7) {
        out.ttyNr = static_cast<unsigned>(tty);
        out.cpuTicks = utime + stime;
        out.startTicks = start;
    }
    struct ::stat st;
    if (::stat(dir.c_str(), &st) == 0) out.uid = st.st_uid;
    std::string cmdline;
    if (readWhole(dir + "/cmdline", cmdline)) {
        size_t pos = 0;
        while (pos < cmdline.size()) {
            size_t end = cmdline.find('\0', pos);
            if (end == std::string::npos) end = cmdline.size();
            out.argv.push_back(cmdline.substr(pos, end - pos));
            pos = end + 1;
        }
    }
    standsAsItsScript(out.argv);
    return true;
}

std::vector<HostProcess> hostProcesses()
{
    std::vector<pid_t> pids;
    if (DIR* dir = ::opendir("/proc")) {
        while (struct dirent* e = ::readdir(dir)) {
            if (!std::isdigit(static_cast<unsigned char>(e->d_name[0]))) continue;
            long pid = std::strtol(e->d_name, nullptr, 10);
            if (pid > 0) pids.push_back(static_cast<pid_t>(pid));
        }
        ::closedir(dir);
    }
    std::sort(pids.begin(), pids.end());
    std::vector<HostProcess> out;
    for (pid_t pid : pids) {
        HostProcess p;
        if (readHostProcess(pid, p)) out.push_back(std::move(p));
    }
    return out;
}

bool argvInside(const HostProcess& p, const std::string& root)
{
    if (p.argv.empty() || root.empty()) return false;
    const std::string& a0 = p.argv[0];
    return a0.size() > root.size() + 1 && a0.compare(0, root.size(), root) == 0 && a0[root.size()] == '/';
}

bool belongsToModule(const HostProcess& p, const std::string& root)
{
    return argvInside(p, root) || p.ppid == ::getpid();
}

bool isAlive(const HostProcess& p) { return p.state != 'Z' && p.state != 'X'; }

} // namespace sim

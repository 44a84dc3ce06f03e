#include "ps_listing.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include "processes.h"

namespace sim {

const char kPsHeader[] = "UID        PID  PPID  C STIME TTY          TIME CMD";

namespace {

// Padded to `width`, never cut.
std::string field(const std::string& text, size_t width, bool right)
{
    if (text.size() >= width) return text;
    const std::string pad(width - text.size(), ' ');
    return right ? pad + text : text + pad;
}

std::string hostFile(const char* path)
{
    std::string out;
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return out;
    char buf[4096];
    ssize_t got;
    while ((got = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(got));
    ::close(fd);
    return out;
}

// The host's boot and uptime, in seconds and in clock ticks.
struct HostClock {
    long ticksPerSecond = 100;
    time_t now = 0;
    time_t boot = 0;
    unsigned long long uptimeTicks = 0;
};

HostClock hostClock()
{
    HostClock c;
    const long hz = ::sysconf(_SC_CLK_TCK);
    if (hz > 0) c.ticksPerSecond = hz;
    c.now = ::time(nullptr);
    const std::string stat = hostFile("/proc/stat");
    const size_t at = stat.find("\nbtime ");
    c.boot = at == std::string::npos ? 0 : static_cast<time_t>(std::strtoll(stat.c_str() + at + 7, nullptr, 10));
    const double up = std::strtod(hostFile("/proc/uptime").c_str(), nullptr);
    if (up > 0) c.uptimeTicks = static_cast<unsigned long long>(up * static_cast<double>(c.ticksPerSecond));
    return c;
}

std::string userName(uid_t uid)
{
    struct passwd pw;
    struct passwd* found = nullptr;
    char buf[1024];
    if (::getpwuid_r(uid, &pw, buf, sizeof buf, &found) == 0 && found && std::string(found->pw_name).size() <= 8)
        return found->pw_name;
    return std::to_string(uid);
}

std::string ttyName(unsigned nr)
{
    if (nr == 0) return "?";
    const unsigned major = (nr >> 8) & 0xfff, minor = (nr & 0xff) | ((nr >> 12) & 0xfff00);
    if (major >= 136 && major <= 143) return "pts/" + std::to_string((major - 136) * 256 + minor);
    if (major == 4 && minor < 64) return "tty" + std::to_string(minor);
    if (major == 4) return "ttyS" + std::to_string(minor - 64);
    if (major == 5 && minor == 1) return "console";
    return "?";
}

std::string startTime(time_t start, time_t now)
{
    struct tm t{}, n{};
    ::localtime_r(&start, &t);
    ::localtime_r(&now, &n);
    char out[16];
    if (now - start < 24 * 3600) std::strftime(out, sizeof out, "%H:%M", &t);
    else if (t.tm_year == n.tm_year) std::strftime(out, sizeof out, "%b%d", &t);
    else std::strftime(out, sizeof out, "%Y", &t);
    return out;
}

std::string cpuTime(unsigned long long seconds)
{
    char out[48];
    const unsigned long long days = seconds / 86400, rest = seconds % 86400;
    if (days) std::snprintf(out, sizeof out, "%llu-%02llu:%02llu:%02llu", days, rest / 3600, rest / 60 % 60, rest % 60);
    else std::snprintf(out, sizeof out, "%02llu:%02llu:%02llu", rest / 3600, rest / 60 % 60, rest % 60);
    return out;
}

PsRow rowAt(const HostProcess& p, const HostClock& c)
{
    PsRow r;
    r.uid = userName(p.uid);
    r.pid = p.pid;
    r.ppid = p.ppid;
    const unsigned long long hz = static_cast<unsigned long long>(c.ticksPerSecond);
    const unsigned long long alive = c.uptimeTicks > p.startTicks ? c.uptimeTicks - p.startTicks : 0;
    r.cpu = alive ? static_cast<int>(std::min<unsigned long long>(p.cpuTicks * 100 / alive, 99)) : 0;
    r.stime = startTime(c.boot + static_cast<time_t>(p.startTicks / hz), c.now);
    r.tty = ttyName(p.ttyNr);
    r.time = cpuTime(p.cpuTicks / hz);
    r.argv = p.argv;
    return r;
}

} // namespace

std::string psLine(const PsRow& row)
{
    std::string command;
    for (size_t i = 0; i < row.argv.size(); ++i) {
        if (i) command += ' ';
        for (char ch : row.argv[i]) command += ch >= 0x20 && ch < 0x7f ? ch : '?';
    }
    return field(row.uid, 8, false) + " " + field(std::to_string(row.pid), 5, true) + " " +
           field(std::to_string(row.ppid), 5, true) + " " + field(std::to_string(row.cpu), 2, true) + " " +
           field(row.stime, 5, false) + " " + field(row.tty, 8, false) + " " + field(row.time, 8, true) + " " + command;
}

std::string psListing(const std::string& root)
{
    const HostClock clock = hostClock();
    std::string out = std::string(kPsHeader) + "\n";
    for (const HostProcess& p : hostProcesses())
        if (argvInside(p, root)) out += psLine(rowAt(p, clock)) + "\n";
    return out;
}

} // namespace sim

// /proc/mdstat and the rebuild speed limits of the md driver.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>

#include "md.h"
#include "md_kernel.h"

namespace sim {
namespace {

std::string format(const char* fmt, auto... args)
{
    char text[256];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

// " [4/3] [UUU_]": the set's size, its roles in sync, and a map of them.
std::string roleMap(const MdArray& a)
{
    std::string map;
    for (int role = 0; role < a.raidDisks; ++role) map += a.inRole(role) ? 'U' : '_';
    return format(" [%d/%d] [", a.raidDisks, a.rolesInSync()) + map + "]";
}

std::string personalityStatus(const MdArray& a)
{
    switch (a.level) {
    case 0: return format(" %dk chunks", a.chunkSize / 1024);
    case 1: return roleMap(a);
    case 5: return format(" level 5, %dk chunk, algorithm %d", a.chunkSize / 1024, a.layout) + roleMap(a);
    default: return "";
    }
}

// "[=======>.............]  recovery = 37.5% (763368/2035648) finish=0.1min speed=190842K/sec"
std::string recoveryLine(const MdRecovery& r, int rate)
{
    const unsigned perMille = std::min(recoveryPerMille(r), 999u);
    const unsigned filled = perMille / 50;
    const uint64_t seconds = (r.totalKiB - r.doneKiB) / static_cast<uint64_t>(std::max(rate, 1));
    return "[" + std::string(filled, '=') + ">" + std::string(20 - filled, '.') + "] " +
           format(" recovery =%3u.%u%% (%llu/%llu)", perMille / 10, perMille % 10,
                  static_cast<unsigned long long>(r.doneKiB), static_cast<unsigned long long>(r.totalKiB)) +
           format(" finish=%llu.%llumin speed=%dK/sec", static_cast<unsigned long long>(seconds / 60),
                  static_cast<unsigned long long>(seconds % 60 / 6), std::max(rate, 0));
}

std::string arrayText(const MdArray& a, const MdState& state)
{
    std::string text = "md" + std::to_string(a.minor) + " : " + (a.running ? "active" : "inactive");
    if (a.running) text += " raid" + std::to_string(a.level);
    // The kernel lists the members last joined first.
    uint64_t blocks = 0;
    for (auto m = a.members.rbegin(); m != a.members.rend(); ++m) {
        text += " " + m->name + "[" + std::to_string(m->slot) + "]";
        if (m->state == MemberState::Faulty) {
            text += "(F)";
            continue;
        }
        if (m->state == MemberState::Spare && m->raidDisk < 0) text += "(S)";
        blocks += m->componentKiB;
    }
    if (!a.members.empty())
        text += "\n      " + std::to_string(a.running ? a.bytes() / 1024 : blocks) + " blocks";
    if (!a.running) return text + "\n       \n";
    text += personalityStatus(a) + "\n      ";
    if (a.recovering() && !state.isStalled(a.minor)) text += recoveryLine(a.recovery, state.speedMax) + "\n      ";
    return text + "\n";
}

// The words of a speed limit store: a decimal number, blanks around it.
bool parseRate(const std::string& text, int& out)
{
    size_t start = text.find_first_not_of(" \t\n");
    size_t end = text.find_last_not_of(" \t\n");
    if (start == std::string::npos) return false;
    std::string word = text.substr(start, end - start + 1);
    const bool negative = word[0] == '-';
    uint64_t n = 0;
    if (!parseNumber(negative ? word.substr(1) : word, n) || n > static_cast<uint64_t>(INT_MAX) + (negative ? 1 : 0))
        return false;
    out = negative ? static_cast<int>(-static_cast<int64_t>(n)) : static_cast<int>(n);
    return true;
}

// "min", "max", or "" for no file of the driver.
std::string speedFile(const std::string& vpath)
{
    for (const char* which : {"min", "max"})
        if (vpath == std::string("/proc/sys/dev/raid/speed_limit_") + which) return which;
    return "";
}

} // namespace

std::string mdstatText(const MdState& state)
{
    std::string text = "Personalities : [raid0] [raid1] [raid5] \n";
    for (const MdArray& a : state.arrays)
        if (a.running || a.raidDisks > 0 || !a.members.empty()) text += arrayText(a, state);
    return text + "unused devices: <none>\n";
}

int MdStatFile::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    if (n.vpath != "/proc/mdstat") return fail((flags & O_CREAT) ? EACCES : ENOENT);
    if (n.accmode != O_RDONLY) return fail(EACCES);
    std::string text;
    visitMd(ctx.module, [&](MdKernel& k) { text = mdstatText(k.state()); });
    return memoryFile("mdstat", text);
}

int MdStatFile::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) { return stat(ctx, n.vpath, n.node, st); }

int MdStatFile::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (vpath != "/proc/mdstat") return fail(ENOENT);
    nodeStat(ctx.module, S_IFREG | 0444, 0, st);
    return 0;
}

int RaidSpeedFile::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    const std::string which = speedFile(n.vpath);
    if (which.empty()) return fail((flags & O_CREAT) ? EACCES : ENOENT);
    int rate = 0;
    visitMd(ctx.module, [&](MdKernel& k) { rate = which == "max" ? k.state().speedMax : k.state().speedMin; });
    return memoryFile("speed_limit", std::to_string(rate) + "\n");
}

// A store takes the whole value, whatever the file position.
ssize_t RaidSpeedFile::write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t, bool)
{
    if (n.accmode == O_RDONLY) return fail(EBADF);
    int rate = 0;
    if (!parseRate(std::string(static_cast<const char*>(buf), count), rate)) return fail(EINVAL);
    if (ctx.powerCut) return static_cast<ssize_t>(count);
    const bool max = speedFile(n.vpath) == "max";
    visitMd(ctx.module, [&](MdKernel& k) { k.setSpeedLimit(max, rate); });
    return static_cast<ssize_t>(count);
}

int RaidSpeedFile::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) { return stat(ctx, n.vpath, n.node, st); }

int RaidSpeedFile::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (speedFile(vpath).empty()) return fail(ENOENT);
    nodeStat(ctx.module, S_IFREG | 0644, 0, st);
    return 0;
}

} // namespace sim

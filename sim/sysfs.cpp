#include "sysfs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace sim {
namespace {

struct Scheduler {
    const char* name;
    std::vector<std::pair<const char*, const char*>> tunables;
};

const Scheduler kSchedulers[] = {
    {"noop", {}},
    {"anticipatory",
     {{"antic_expire", "6"}, {"read_expire", "125"}, {"read_batch_expire", "500"}, {"write_expire", "250"},
      {"write_batch_expire", "125"}}},
    {"deadline",
     {{"read_expire", "500"}, {"write_expire", "5000"}, {"writes_starved", "2"}, {"front_merges", "1"},
      {"fifo_batch", "16"}}},
    {"cfq",
     {{"quantum", "4"}, {"fifo_expire_sync", "125"}, {"fifo_expire_async", "250"}, {"back_seek_max", "16384"},
      {"back_seek_penalty", "2"}, {"slice_sync", "100"}, {"slice_async", "40"}, {"slice_async_rq", "2"},
      {"slice_idle", "8"}}},
};
const char kDefaultScheduler[] = "cfq";

const Scheduler* scheduler(const std::string& name)
{
    for (const Scheduler& s : kSchedulers)
        if (name == s.name) return &s;
    return nullptr;
}

// The scheduler named in brackets in the scheduler file, "" when none.
std::string currentScheduler(const std::string& line)
{
    size_t open = line.find('['), close = line.find(']');
    return open == std::string::npos || close == std::string::npos || close < open
               ? std::string()
               : line.substr(open + 1, close - open - 1);
}

// The scheduler file names every scheduler, the chosen one in brackets; its
// tuning directory holds the chosen one's files only.
bool selectScheduler(const HostDir& root, const std::string& queue, const Scheduler& chosen)
{
    std::string line;
    for (const Scheduler& s : kSchedulers)
        line += std::string(line.empty() ? "" : " ") + (&s == &chosen ? "[" + std::string(s.name) + "]" : s.name);
    if (!root.makeDirs(queue) || !root.writeFileAtomic(queue + "/scheduler", line + "\n")) return false;
    const std::string tuning = queue + "/iosched";
    if (DIR* d = root.opendir(tuning)) {
        std::vector<std::string> old;
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) old.push_back(e->d_name);
        ::closedir(d);
        for (const std::string& name : old) root.unlink(tuning + "/" + name);
    }
    if (!root.makeDirs(tuning)) return false;
    for (const auto& [name, value] : chosen.tunables)
        if (!root.writeFileAtomic(tuning + "/" + name, std::string(value) + "\n")) return false;
    return true;
}

bool endsWith(const std::string& s, const std::string& tail)
{
    return s.size() > tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// A store into the attribute at `vpath`: 0 or an errno.
int store(Module& module, const std::string& vpath, const std::string& text)
{
    const HostDir& root = module.host();
    std::string value = text;
    while (!value.empty() && (value.back() == '\n' || value.back() == ' ')) value.pop_back();
    if (endsWith(vpath, "/queue/scheduler")) {
        const Scheduler* chosen = scheduler(value);
        if (!chosen) return EINVAL;
        std::string line;
        root.readFile(vpath, line);
        if (currentScheduler(line) == chosen->name) return 0;  // the kernel returns early: tuning kept
        return selectScheduler(root, vpath.substr(0, vpath.size() - std::strlen("/scheduler")), *chosen) ? 0 : EIO;
    }
    if (vpath.find("/queue/iosched/") != std::string::npos) {
        char* end = nullptr;
        errno = 0;
        long long n = std::strtoll(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || errno != 0 || n < 0) return EINVAL;
    }
    return root.writeFileAtomic(vpath, value + "\n") ? 0 : EIO;
}

} // namespace

std::string blockName(const Bay& bay)
{
    static const unsigned kIdeMajors[] = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
    for (unsigned k = 0; k < 10; ++k)
        if (bay.major == kIdeMajors[k]) return std::string("hd") + static_cast<char>('a' + 2 * k + bay.minor / 64);
    unsigned index = bay.major == 8 ? bay.minor / 16 : (bay.major - 64) * 16 + bay.minor / 16;
    std::string letters;
    for (unsigned n = index + 1; n > 0; n = (n - 1) / 26) letters.insert(letters.begin(), static_cast<char>('a' + (n - 1) % 26));
    return "sd" + letters;
}

std::string busBlockPath(const Bay& bay)
{
    unsigned host = 0, bus = 0, target = 0, lun = 0;
    char path[96];
    if (std::sscanf(bay.device.c_str(), "/dev/ide/host%u/bus%u/target%u/lun%u/", &host, &bus, &target, &lun) == 4) {
        std::snprintf(path, sizeof path, "/sys/bus/ide/devices/%u.%u/block", host * 2 + bus, target);
        return path;
    }
    if (std::sscanf(bay.device.c_str(), "/dev/scsi/host%u/bus%u/target%u/lun%u/", &host, &bus, &target, &lun) == 4) {
        std::snprintf(path, sizeof path, "/sys/bus/scsi/devices/%u:%u:%u:%u/block", host, bus, target, lun);
        return path;
    }
    return "";
}

std::string sysfsCanonical(const Manifest& m, const std::string& vpath)
{
    for (const Bay& bay : m.bays) {
        std::string bus = busBlockPath(bay);
        if (!bus.empty() && vpath.compare(0, bus.size(), bus) == 0 &&
            (vpath.size() == bus.size() || vpath[bus.size()] == '/'))
            return "/sys/block/" + blockName(bay) + vpath.substr(bus.size());
    }
    return vpath;
}

bool layDownQueue(Module& module, const Bay& bay)
{
    return selectScheduler(module.host(), "sys/block/" + blockName(bay) + "/queue", *scheduler(kDefaultScheduler));
}

// Attributes exist or not; opening never makes or truncates one.
int SysfsModel::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    struct ::stat st;
    if (ctx.module.host().stat(n.vpath, &st) != 0) return fail((flags & O_CREAT) ? EACCES : ENOENT);
    return ctx.module.host().open(n.vpath, flags & ~(O_CREAT | O_TRUNC | O_APPEND | O_EXCL));
}

ssize_t SysfsModel::write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t, bool)
{
    if (n.accmode == O_RDONLY) return fail(EBADF);
    if (ctx.powerCut) return static_cast<ssize_t>(count);
    int error = store(ctx.module, n.vpath, std::string(static_cast<const char*>(buf), count));
    return error ? fail(error) : static_cast<ssize_t>(count);
}

} // namespace sim

// tavsim partition: the families' table on every drive (or one bay's), through the system's
// own table builder, with the drive sizes checked first and a failed build
// told by its step.
#include <cerrno>
#include <cstring>
#include <linux/fs.h>
#include <linux/hdreg.h>

#include "family_layout.h"
#include "faults.h"
#include "sim_platform.h"
#include "table.h"
#include "tw_kernel.h"
#include "sign.h"
#include "tavsim_cli.h"
#include "tavutils/tavdrivesig.h"

namespace sim::cli {
namespace {

// Watches the builder's calls and keeps those that failed, by their step.
class BuildWatch final : public plat::ForwardingPlatform {
public:
    using ForwardingPlatform::ForwardingPlatform;

    // What failed last and, if the size request failed, that first (the
    // builder then lays the table out on a size of 0); "" when nothing failed.
    std::string failure() const
    {
        if (failures_.empty()) return "";
        std::string text = sizeFailure_.empty() || sizeFailure_ == failures_.back() ? "" : sizeFailure_ + "; then ";
        return text + failures_.back() + (repeats_ == 2 ? " (twice)" : repeats_ > 2 ? " (" + std::to_string(repeats_) + " times)" : "");
    }
    bool sizeFailed() const { return !sizeFailure_.empty(); }

    int open(const char* path, int flags, mode_t mode) override
    {
        int fd = inner().open(path, flags, mode);
        if (fd < 0) note(errno, "the open of ", path);
        return fd;
    }
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        int rc = inner().ioctl(fd, request, arg);
        if (rc < 0) {
            const int error = errno;
            const char* name = requestName(request);
            note(error,
                 request == BLKGETSIZE    ? "the size request (BLKGETSIZE)"
                 : request == HDIO_GETGEO ? "the geometry request (HDIO_GETGEO)"
                 : request == BLKRRPART   ? "the re-read (BLKRRPART)"
                                          : "the ioctl ",
                 request == BLKGETSIZE || request == HDIO_GETGEO || request == BLKRRPART ? "" : name ? name : "?");
            if (request == BLKGETSIZE) sizeFailure_ = failures_.back();
        }
        return rc;
    }
    off_t lseek(int fd, off_t offset, int whence) override
    {
        off_t at = inner().lseek(fd, offset, whence);
        const int error = at < 0 ? errno : 0;
        sector_ = offset / SECTOR_SIZE;
        if (at != offset) note(error, "the seek to the table at sector ", std::to_string(sector_).c_str());
        return at;
    }
    ssize_t write(int fd, const void* buf, size_t count) override
    {
        ssize_t n = inner().write(fd, buf, count);
        const int error = n < 0 ? errno : 0;
        if (n < 0) note(error, "the table write at sector ", std::to_string(sector_).c_str());
        else if (static_cast<size_t>(n) != count)
            add("the table write at sector " + std::to_string(sector_) + " moved " + std::to_string(n) + " of " +
                std::to_string(count) + " bytes");
        return n;
    }

private:
    void note(int error, const char* step, const char* what)
    {
        const char* name = errnoName(error);
        add(std::string(step) + what + " failed: " + (error ? std::strerror(error) : "it went elsewhere") +
            (name ? std::string(" (") + name + ")" : ""));
        errno = error;
    }
    void add(const std::string& text)
    {
        repeats_ = !failures_.empty() && failures_.back() == text ? repeats_ + 1 : 1;
        failures_.push_back(text);
    }

    std::vector<std::string> failures_;
    std::string sizeFailure_;
    int repeats_ = 0;
    long long sector_ = 0;
};

const char* builderResult(int rc)
{
    switch (rc) {
    case 1: return "the disk did not open";
    case 2: return "a table write failed";
    case 3: return "the kernel did not re-read the table";
    default: return "a result it does not document";
    }
}

std::string layoutBounds()
{
    return std::to_string(kFamilyMinSectors) + " to " + std::to_string(kFamilyMaxSectors) + " sectors (" +
           humanSize(kFamilyMinSectors * 512) + " to " + humanSize(kFamilyMaxSectors * 512) + ")";
}

// Why the families' table cannot go on the drive of a bay, or "".
std::string sizeProblem(Module& module, const Bay& bay, const Drive& drive)
{
    bool present = false;
    std::optional<DeviceNode> node = module.device(bay.device, present);
    const std::string named = "bay " + std::to_string(bay.number) + " (drive " + drive.serial + "): ";
    if (!node || !present) return named + "its image is missing";
    const uint64_t sectors = node->size / 512;
    const std::string has = "the drive has " + std::to_string(sectors) + " sectors (" + humanSize(node->size) + "); ";
    if (sectors < kFamilyMinSectors) return named + has + "too small for the families' table, which fits " + layoutBounds();
    if (sectors > kFamilyMaxSectors)
        return named + has + "too large for the families' table, which fits " + layoutBounds() +
               ": the table builder reads the size in 32 bits";
    return "";
}

// Builds the table of one bay; "" or what went wrong.
std::string build(SimPlatform& platform, const Bay& bay)
{
    BuildWatch watch(platform);
    plat::ScopedPlatform scope(watch);
    int rc = buildPartitions(bay.device.c_str(), kFamilyOsSectors, kFamilyOs2Sectors, 0, kFamilyLogSectors,
                             kFamilyBootSectors, false);
    // Without its size the builder lays the table out on a size of 0.
    if (rc == 0 && !watch.sizeFailed()) return "";
    std::string why = "bay " + std::to_string(bay.number) + ": ";
    if (std::string f = watch.failure(); !f.empty()) why += f + "; ";
    return why + "the table builder gave " + std::to_string(rc) + " (" + (rc == 0 ? "done, on a wrong size" : builderResult(rc)) + ")";
}

} // namespace

std::string partitionBay(Module& module, int bay)
{
    Manifest m = module.manifest();
    const Bay* b = m.bay(bay);
    const Drive* d = m.driveInBay(bay);
    if (!b || !d) return "bay " + std::to_string(bay) + ": empty; no drive to partition";
    if (std::string p = sizeProblem(module, *b, *d); !p.empty()) return p;
    // The drive is partitioned as on a bench: a replacement is made ready
    // out of the module's power and the kernel's view.
    SimPlatform platform(module.dir());
    platform.setBench(true);
    return build(platform, *b);
}

int runSign(const Call& call)
{
    Words w;
    int status = splitWords(call, {{"--time", "T"}}, false, w);
    if (status || (status = expectPositional(call, w, 1, 1))) return status;
    std::optional<int64_t> time;
    for (const auto& [name, value] : w.options) {
        uint64_t t = 0;
        std::string why;
        if (!decimal("--time", value, 0, 2147483647, t, why)) return badUsage(call, why);
        time = static_cast<int64_t>(t);
    }
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    if (std::string err = signModule(module->dir(), time); !err.empty()) return refused(call, err);
    report("signed every drive in a bay as a freshly installed module, both stamps " +
           (time ? std::to_string(*time) : std::to_string(module->now().tv_sec)));
    return kDone;
}

int runPartition(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 1, 2, w, status);
    if (!module) return status;
    Manifest m = module->manifest();
    // A 9000 module's kernel sees its units, not its drives: their disks are partitioned.
    if (!m.bays.empty() && m.bays[0].device.compare(0, 5, "/dev/") != 0) {
        if (w.positional.size() == 2) return badUsage(call, "the disks of this module are its units: no BAY");
        SimPlatform platform(module->dir());
        std::vector<std::string> done;
        const std::vector<tw::KernelDisk> disks = tw::kernelDisks(*module);
        for (const tw::KernelDisk& d : disks) {
            Bay unit;
            unit.number = tw::unitBay(d.host, d.id);
            unit.device = "/dev/scsi/host" + std::to_string(d.host) + "/bus0/target" + std::to_string(d.id) + "/lun0/disc";
            bool present = false;
            std::optional<DeviceNode> node = module->device(unit.device, present);
            if (!node || !present) {
                refused(call, unit.device + ": the unit's data is missing");
                continue;
            }
            if (node->size / 512 < kFamilyMinSectors || node->size / 512 > kFamilyMaxSectors) {
                refused(call, unit.device + ": " + std::to_string(node->size / 512) + " sectors; the families' table fits " +
                                  layoutBounds());
                continue;
            }
            if (std::string err = build(platform, unit); !err.empty()) refused(call, err);
            else done.push_back(unit.device);
        }
        if (disks.empty()) return refused(call, "the kernel has no disk of this module");
        if (!done.empty()) report("partitioned " + listed(done) + ": signature, data, boot, extended, os, os2 and log");
        return done.size() == disks.size() ? kDone : kRefused;
    }
    int only = 0;
    if (w.positional.size() == 2) {
        if ((status = bayArgument(call, m, w.positional[1], only))) return status;
        if (!m.driveInBay(only)) return refused(call, "bay " + std::to_string(only) + ": empty; no drive to partition");
    }
    std::vector<const Bay*> bays;
    std::vector<std::string> problems;
    for (const Bay& b : m.bays)
        if (const Drive* d = m.driveInBay(b.number); d && (only == 0 || b.number == only)) {
            bays.push_back(&b);
            if (std::string p = sizeProblem(*module, b, *d); !p.empty()) problems.push_back(p);
        }
    if (bays.empty()) return refused(call, "no bay of the module holds a drive");
    for (const std::string& p : problems) refused(call, p);
    if (!problems.empty()) return refused(call, "nothing written");

    SimPlatform platform(module->dir());
    std::vector<std::string> done;
    for (const Bay* b : bays) {
        if (std::string err = build(platform, *b); !err.empty()) refused(call, err);
        else done.push_back(std::to_string(b->number));
    }
    if (!done.empty())
        report("partitioned " + std::string(done.size() == 1 ? "bay " : "bays ") + listed(done) +
               ": signature, data, boot, extended, os, os2 and log");
    return done.size() == bays.size() ? kDone : kRefused;
}

} // namespace sim::cli

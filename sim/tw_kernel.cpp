#include "tw_kernel.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "manifest.h"
#include "md.h"
#include "partitions.h"
#include "module.h"

namespace sim::tw {
namespace {

std::string format(const char* fmt, auto... args)
{
    char text[256];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

bool writeFile(Module& module, const std::string& rel, const std::string& text)
{
    const size_t slash = rel.rfind('/');
    return module.host().makeDirs(rel.substr(0, slash)) && module.host().writeFileAtomic(rel, text);
}

// A unit the kernel can see: spares (configuration 13) are not exported.
bool exported(const Unit& u) { return u.config != 13; }

bool diskBusy(Module& module, const std::string& device)
{
    const std::string dir = device.substr(0, device.rfind('/') + 1);
    for (const std::string& line : textLines(module.readState("mounts"))) {
        const std::string source = line.substr(0, line.find(' '));
        if (source == device || source.compare(0, dir.size(), dir) == 0) return true;
    }
    return module.readState("md").find(dir) != std::string::npos;
}

} // namespace

std::vector<KernelDisk> parseKernel(const std::string& text)
{
    std::vector<KernelDisk> out;
    for (const std::string& line : textLines(text)) {
        KernelDisk d;
        char tail = 0;
        if (std::sscanf(line.c_str(), "disk %d %d %d %d %d %c", &d.host, &d.channel, &d.id, &d.lun, &d.index, &tail) != 5)
            continue;
        if (d.host < 0 || d.host > 255 || d.id < 0 || d.id > 255 || d.index < 0 || d.index > 255) continue;
        out.push_back(d);
    }
    return out;
}

std::string formatKernel(const std::vector<KernelDisk>& disks)
{
    std::string out;
    for (const KernelDisk& d : disks)
        out += format("disk %d %d %d %d %d\n", d.host, d.channel, d.id, d.lun, d.index);
    return out;
}

std::vector<KernelDisk> kernelDisks(Module& module) { return parseKernel(twView(module).kernelText()); }

int unitBay(int host, int target) { return kUnitBayBase + host * 16 + target; }

namespace {

// The image of unit `u` of controller `c`: a one-drive unit's is its
// drive's, in the bay of its port; others have one of their own.
std::string imageOf(Module& module, const Controller& c, const Unit& u)
{
    if (u.ports.size() == 1 && u.ports[0] >= 0) {
        const Manifest& m = module.manifest();
        for (const Bay& b : m.bays) {
            unsigned host = 0, bus = 0, target = 0, lun = 0;
            const bool here = c.family == 7000
                                  ? std::sscanf(b.device.c_str(), "/dev/scsi/host%u/bus%u/target%u/lun%u/", &host, &bus,
                                                &target, &lun) == 4 &&
                                        static_cast<int>(host) == c.host && static_cast<int>(target) == u.ports[0]
                                  : b.number == u.ports[0] + 1;
            if (here) return m.driveInBay(b.number) ? b.device.substr(1) : "";
        }
        return "";
    }
    return "sim/3ware/unit" + std::to_string(c.host) + "_" + std::to_string(u.number) + ".img";
}

} // namespace

std::string unitImage(Module& module, int bay)
{
    if (bay < kUnitBayBase) return "";
    const int host = (bay - kUnitBayBase) / 16, target = (bay - kUnitBayBase) % 16;
    const Controller* c = twView(module).byHost(host);
    const Unit* u = c ? c->unit(target) : nullptr;
    return u ? imageOf(module, *c, *u) : "";
}

std::optional<DeviceNode> unitNode(Module& module, const std::string& vpath, bool& present)
{
    present = false;
    unsigned host = 0, target = 0;
    int used = 0;
    if (std::sscanf(vpath.c_str(), "/dev/scsi/host%u/bus0/target%u/lun0/%n", &host, &target, &used) != 2 || used <= 0 ||
        host > 255 || target > 15)
        return std::nullopt;
    if (twView(module).controllers().empty()) return std::nullopt;
    const std::string leaf = vpath.substr(static_cast<size_t>(used));
    DeviceNode node;
    node.bay = unitBay(static_cast<int>(host), static_cast<int>(target));
    if (leaf == "disc") {
        node.partition = 0;
    } else if (leaf.size() > 4 && leaf.size() <= 6 && leaf.compare(0, 4, "part") == 0 && leaf[4] != '0' &&
               leaf.find_first_not_of("0123456789", 4) == std::string::npos) {
        node.partition = std::atoi(leaf.c_str() + 4);
        if (node.partition > 15) return std::nullopt;
    } else {
        return std::nullopt;
    }
    const Controller* c = twView(module).byHost(static_cast<int>(host));
    const Unit* u = c ? c->unit(static_cast<int>(target)) : nullptr;
    int index = -1;
    for (const KernelDisk& d : kernelDisks(module))
        if (d.host == static_cast<int>(host) && d.id == static_cast<int>(target) && d.channel == 0 && d.lun == 0)
            index = d.index;
    if (!u || index < 0) return node;
    const unsigned group = static_cast<unsigned>(index) / 16;
    node.major = group == 0 ? 8 : group < 8 ? 64 + group : 120 + group;
    node.minor = 16 * (static_cast<unsigned>(index) % 16) + static_cast<unsigned>(node.partition);
    node.image = imageOf(module, *c, *u);
    struct stat st;
    if (node.image.empty() || module.host().stat(node.image, &st) != 0 || !S_ISREG(st.st_mode)) return node;
    const uint64_t diskBytes = static_cast<uint64_t>(st.st_size);
    if (node.partition == 0) {
        node.size = diskBytes;
        present = true;
        return node;
    }
    for (const Window& w : module.windows(node.bay))
        if (w.number == node.partition) {
            node.offset = w.start * 512;
            node.size = w.size * 512;
            present = node.offset + node.size <= diskBytes;
        }
    return node;
}

std::string procDevicesText(Module& module)
{
    std::string out = "Character devices:\n  1 mem\n  4 /dev/vc/0\n  4 tty\n  5 /dev/tty\n  5 /dev/console\n"
                      " 10 misc\n 21 sg\n";
    bool twe = false, twa = false;
    for (const Controller& c : twView(module).controllers()) {
        if (c.num("driver-loaded", 1) != 1) continue;
        (c.family == 7000 ? twe : twa) = true;
    }
    if (twa) out += format("%3u twa\n", kMajor9000);
    if (twe) out += format("%3u twe\n", kMajor7000);
    out += "\nBlock devices:\n  1 ramdisk\n  3 ide0\n  8 sd\n  9 md\n 22 ide1\n 65 sd\n 66 sd\n";
    return out;
}

std::string procScsiText(Module& module)
{
    std::string out = "Attached devices:\n";
    std::vector<KernelDisk> disks = kernelDisks(module);
    std::sort(disks.begin(), disks.end(), [](const KernelDisk& a, const KernelDisk& b) { return a.index < b.index; });
    for (const KernelDisk& d : disks) {
        out += format("Host: scsi%d Channel: %02d Id: %02d Lun: %02d\n", d.host, d.channel, d.id, d.lun);
        out += format("  Vendor: %-8.8s Model: %-16.16s Rev: %-4.4s\n", "SIMRAID", ("Logical Disk " + std::to_string(d.id)).c_str(),
                      "1.0");
        out += "  Type:   Direct-Access                    ANSI  SCSI revision: 00\n";
    }
    return out;
}

std::string driverProcText(const Controller& c)
{
    return format("scsi%d: RAID controller of the %d family\n", c.host, c.family) + "Driver version: " +
           c.get("driver-version") + "\n" + "Current commands posted:       0\nMax commands posted:           0\n" +
           "Current pending commands:      0\nMax pending commands:          0\n" +
           format("Last sgl length:               0\nNum of resets:                 0\nPorts:                         %zu\n",
                  c.ports.size());
}

void syncKernelFiles(Module& module)
{
    for (const Controller& c : twView(module).controllers()) {
        const std::string proc = std::string("proc/scsi/") + c.driverName() + "/" + std::to_string(c.host);
        const std::string sys = "sys/class/scsi_host/host" + std::to_string(c.host) + "/stats";
        const bool there = c.num("driver-loaded", 1) == 1 && c.num("controller-found", 1) == 1;
        if (there && c.num("proc-scsi", 1) == 1) writeFile(module, proc, driverProcText(c));
        else module.host().unlink(proc);
        if (there) writeFile(module, sys, driverProcText(c));
        else module.host().unlink(sys);
    }
    // An empty driver directory goes with its last host.
    for (const char* driver : {"3w-xxxx", "3w-9xxx"}) {
        const std::string dir = std::string("proc/scsi/") + driver;
        if (DIR* d = module.host().opendir(dir)) {
            bool empty = true;
            while (dirent* e = ::readdir(d))
                if (e->d_name[0] != '.') empty = false;
            ::closedir(d);
            if (empty) module.host().remove(dir);
        }
    }
}

int scsiRequest(Module& module, const std::string& line)
{
    int h = 0, c = 0, i = 0, l = 0, used = 0;
    bool add = false;
    if (std::sscanf(line.c_str(), "scsi add-single-device %d %d %d %d%n", &h, &c, &i, &l, &used) == 4) add = true;
    else if (std::sscanf(line.c_str(), "scsi remove-single-device %d %d %d %d%n", &h, &c, &i, &l, &used) != 4)
        return EINVAL;
    for (size_t k = static_cast<size_t>(used); k < line.size(); ++k)
        if (!std::isspace(static_cast<unsigned char>(line[k]))) return EINVAL;
    const Controller* ctl = twView(module).byHost(h);
    int error = 0;
    std::string warning;
    module.updateState("3ware/kernel", [&](std::string& text) {
        std::vector<KernelDisk> disks = parseKernel(text);
        auto it = std::find_if(disks.begin(), disks.end(), [&](const KernelDisk& d) {
            return d.host == h && d.channel == c && d.id == i && d.lun == l;
        });
        if (!add) {
            if (it == disks.end()) {
                error = ENXIO;
                return false;
            }
            const std::string device = format("/dev/scsi/host%d/bus%d/target%d/lun%d/disc", h, c, i, l);
            if (diskBusy(module, device)) warning = "warning: " + device + " removed while in use";
            disks.erase(it);
            text = formatKernel(disks);
            return true;
        }
        const Unit* u = ctl && ctl->num("driver-loaded", 1) == 1 && ctl->num("controller-found", 1) == 1
                            ? ctl->unit(i)
                            : nullptr;
        if (!u || !exported(*u) || c != 0 || l != 0) {
            error = ENXIO;
            return false;
        }
        if (it != disks.end()) return false;  // there already
        int index = 0;
        while (std::any_of(disks.begin(), disks.end(), [&](const KernelDisk& d) { return d.index == index; })) ++index;
        disks.push_back(KernelDisk{h, c, i, l, index});
        text = formatKernel(disks);
        return true;
    });
    if (add && !error) module.rereadPartitions(unitBay(h, i));
    if (!warning.empty()) logCall(module, format("%llu.%06llu /proc/scsi/scsi ", (unsigned long long)(module.nowUs() / 1000000),
                                                 (unsigned long long)(module.nowUs() % 1000000)) +
                                              warning);
    flushLog(module);
    return error;
}

std::string createControllers(Module& module, Manifest& m, const std::string& units, int spares, bool procScsi)
{
    const bool k7 = m.platform == 2;
    const int controllers = k7 ? 2 : 1;
    const int ports = m.platform == 15 ? 12 : 4;
    const std::string kind = units.empty() ? (k7 ? "single" : "raid5") : units;
    if (kind != "none" && kind != "single" && kind != "raid5" && kind != "raid10" && kind != "raid1")
        return "unknown unit layout " + kind + " (none, single, raid5, raid10, raid1)";
    // The 7000 modules keep their bays at the kernel's disk names, one
    // drive a unit: only "none" and "single" fit them.
    if (k7 && kind != "none" && kind != "single") return "platform 2 takes --units none or single";
    if (spares < 0 || (kind == "raid5" && ports - spares < 3) || (kind != "raid5" && spares != 0))
        return "--spares fits only raid5 and leaves it at least three ports";
    if (!module.host().makeDirs("sim/3ware")) return "cannot make sim/3ware";
    std::vector<KernelDisk> attached;
    for (int index = 0; index < controllers; ++index) {
        Controller c = freshController(index, k7 ? 7000 : 9000, index, ports);
        if (!procScsi) c.setNum("proc-scsi", 0);
        for (Port& p : c.ports) p.found(driveOfPort(m, c, p.number));
        auto driveSectors = [&](int port) {
            const Port* p = c.port(port);
            return p ? p->foundSectors : 0;
        };
        auto leaf = [](int port) {
            TreeNode n;
            n.port = port;
            return n;
        };
        if (kind == "single") {
            for (const Port& p : c.ports) {
                if (p.drive.empty()) continue;
                Unit u;
                u.number = p.number;
                u.config = 11;
                u.ports = {p.number};
                u.tree = leaf(p.number);
                u.capacity = p.foundSectors;
                c.units.push_back(u);
            }
        } else if (kind == "raid5") {
            Unit u;
            u.config = 5;
            u.stripe = 5;
            for (int p = 0; p < ports - spares; ++p) {
                u.ports.push_back(p);
                u.tree.children.push_back(leaf(p));
            }
            u.capacity = driveSectors(0) * static_cast<uint64_t>(ports - spares - 1);
            c.units.push_back(u);
            if (spares > 0) {
                Unit s;
                s.number = 1;
                s.config = 13;
                for (int p = ports - spares; p < ports; ++p) {
                    s.ports.push_back(p);
                    s.tree.children.push_back(leaf(p));
                }
                if (spares == 1) s.tree = leaf(ports - 1);
                s.capacity = driveSectors(ports - 1);
                c.units.push_back(s);
            }
        } else if (kind == "raid10" || kind == "raid1") {
            Unit u;
            u.config = 6;
            if (kind == "raid1") {
                u.ports = {0, 1};
                u.tree.children = {leaf(0), leaf(1)};
                u.capacity = driveSectors(0);
            } else {
                u.ports = {0, 1, 2, 3};
                u.stripe = 5;
                TreeNode a, b;
                a.children = {leaf(0), leaf(1)};
                b.children = {leaf(2), leaf(3)};
                u.tree.children = {a, b};
                u.capacity = driveSectors(0) * 2;
            }
            c.units.push_back(u);
        }
        for (const Unit& u : c.units) {
            if (!exported(u)) continue;
            attached.push_back(KernelDisk{c.host, 0, u.number, 0, 0});
            if (u.ports.size() > 1) {
                // The unit's data: a sparse image of its capacity.
                const std::string image = "sim/3ware/unit" + std::to_string(c.host) + "_" + std::to_string(u.number) + ".img";
                int fd = module.host().open(image, O_WRONLY | O_CREAT | O_EXCL, 0644);
                if (fd < 0) return "cannot make " + image;
                bool ok = ::ftruncate(fd, static_cast<off_t>(u.capacity * 512)) == 0;
                ::close(fd);
                if (!ok) return "cannot size " + image;
            }
        }
        if (!writeFile(module, Module::stateFile(stateName(index)), formatController(c)))
            return "cannot write the controller's state";
    }
    std::sort(attached.begin(), attached.end(),
              [](const KernelDisk& a, const KernelDisk& b) { return a.host != b.host ? a.host < b.host : a.id < b.id; });
    for (size_t k = 0; k < attached.size(); ++k) attached[k].index = static_cast<int>(k);
    if (!writeFile(module, Module::stateFile("3ware/kernel"), formatKernel(attached)) ||
        !writeFile(module, Module::stateFile("3ware.log"), "") || !writeFile(module, "proc/scsi/scsi", ""))
        return "cannot write the kernel's files";
    module.stateWritten();
    syncKernelFiles(module);
    for (const KernelDisk& d : attached) module.rereadPartitions(unitBay(d.host, d.id));
    return "";
}

int ProcDevicesFile::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    if (n.vpath != "/proc/devices") return fail((flags & O_CREAT) ? EACCES : ENOENT);
    if (n.accmode != O_RDONLY) return fail(EACCES);
    return memoryFile("devices", procDevicesText(ctx.module));
}

int ProcDevicesFile::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) { return stat(ctx, n.vpath, n.node, st); }

int ProcDevicesFile::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (vpath != "/proc/devices") return fail(ENOENT);
    nodeStat(ctx.module, S_IFREG | 0444, 0, st);
    return 0;
}

int ProcScsiFile::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    if (n.vpath != "/proc/scsi/scsi") return ctx.module.host().open(n.vpath, flags & ~(O_CREAT | O_TRUNC | O_APPEND | O_EXCL));
    return memoryFile("scsi", procScsiText(ctx.module));
}

// Each write is one request, as the kernel takes it.
ssize_t ProcScsiFile::write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t, bool)
{
    if (n.vpath != "/proc/scsi/scsi") return fail(EACCES);
    if (n.accmode == O_RDONLY) return fail(EBADF);
    if (count > 4096) return fail(EINVAL);
    std::string line(static_cast<const char*>(buf), count);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) line.pop_back();
    if (ctx.powerCut) return static_cast<ssize_t>(count);
    int error = scsiRequest(ctx.module, line);
    return error ? fail(error) : static_cast<ssize_t>(count);
}

int ProcScsiFile::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st)
{
    if (n.vpath != "/proc/scsi/scsi") return ::fstat(n.hostFd, st);
    return stat(ctx, n.vpath, n.node, st);
}

int ProcScsiFile::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (vpath != "/proc/scsi/scsi") return ctx.module.host().stat(vpath, st);
    nodeStat(ctx.module, S_IFREG | 0644, 0, st);
    return 0;
}

} // namespace sim::tw

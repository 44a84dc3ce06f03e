#include "sim_platform.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ata.h"
#include "identity.h"
#include "scsi.h"

static int giDebug_simplatform = 0;
#define TAV_DEBUG_FLAG giDebug_simplatform
#include "driveutils/tavlog.h"

namespace sim {
namespace {

struct DeviceCookie {
    SimPlatform* self;
    int fd;
};

bool isDirectoryPrefixOf(const std::string& dir, const std::string& path)
{
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

// Interface queries a socket of the system may make, answered from the
// module's interfaces; all only read.
bool isInterfaceQuery(unsigned long request)
{
    switch (request) {
    case SIOCGIFCONF: case SIOCGIFFLAGS: case SIOCGIFADDR: case SIOCGIFBRDADDR: case SIOCGIFNETMASK:
    case SIOCGIFDSTADDR: case SIOCGIFHWADDR: case SIOCGIFMTU: case SIOCGIFMETRIC: case SIOCGIFINDEX:
    case SIOCGIFNAME:
        return true;
    default:
        return false;
    }
}

int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace

const std::vector<std::string>& mappedRoots()
{
    static const std::vector<std::string> roots = {"dev", "etc",  "proc",    "sys",    "var",
                                                   "tmp", "mnt", "configs", "modules"};
    return roots;
}

SimPlatform::SimPlatform(const std::string& dir) : module_(dir), commands_(CommandTable::standard())
{
    std::vector<std::string> warnings;
    faults_ = parseFaults(module_.readState("faults"), &warnings);
    for (const std::string& w : warnings) TAV_LOG(0, "tavsim: %s\n", w.c_str());
}

SimPlatform::~SimPlatform()
{
    for (auto& [fd, handle] : handles_) ::close(fd);
    for (auto& [stream, pipe] : pipes_) delete pipe;
}

// ---- faults and counts ----

void SimPlatform::arm(const Fault& fault)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    faults_.push_back(fault);
    faults_.back().seen = 0;
    saveFaults();
}

void SimPlatform::clearFaults()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    faults_.clear();
    saveFaults();
}

std::vector<Fault> SimPlatform::faults()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    return faults_;
}

bool SimPlatform::powerIsCut()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    return powerCut_;
}

uint64_t SimPlatform::calls(Op op, const std::string& pattern)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    uint64_t n = 0;
    for (const auto& [key, count] : counts_)
        if (key.first == op && pathMatches(pattern, key.second)) n += count;
    return n;
}

void SimPlatform::resetCalls()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    counts_.clear();
    for (Fault& f : faults_) f.seen = 0;
}

void SimPlatform::saveFaults()
{
    Module::Lock lock(module_);
    module_.writeState("faults", formatFaults(faults_));
}

SimPlatform::Hit SimPlatform::checkFault(Op op, const std::string& vpath, unsigned long request)
{
    ++counts_[{op, vpath}];
    Hit hit;
    size_t fired = faults_.size();
    for (size_t i = 0; i < faults_.size(); ++i) {
        Fault& f = faults_[i];
        if (!f.matches(op, vpath, request)) continue;
        ++f.seen;
        if (!hit.fires && f.times != 0 && f.seen >= std::max<uint64_t>(f.nth, 1)) {
            hit = Hit{true, f.action, f.error, f.shortCount};
            fired = i;
        }
    }
    if (!hit.fires) return hit;
    Fault& f = faults_[fired];
    TAV_LOG(5, "tavsim: fault %s hits %s call %llu\n", f.format().c_str(), vpath.c_str(),
            static_cast<unsigned long long>(f.seen));
    if (f.times > 0 && --f.times == 0) faults_.erase(faults_.begin() + static_cast<long>(fired));
    saveFaults();
    if (hit.action == Fault::Action::PowerCut) powerCut_ = true;
    return hit;
}

// ---- paths ----

bool SimPlatform::normalize(const char* path, std::string& vpath)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    std::string full = path[0] == '/' ? std::string(path) : cwd_ + "/" + path;
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= full.size()) {
        size_t slash = full.find('/', pos);
        if (slash == std::string::npos) slash = full.size();
        std::string part = full.substr(pos, slash - pos);
        pos = slash + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (parts.empty()) return false;
            parts.pop_back();
        } else {
            parts.push_back(part);
        }
    }
    vpath.clear();
    for (const std::string& p : parts) vpath += "/" + p;
    if (vpath.empty()) vpath = "/";
    return true;
}

bool SimPlatform::refuse(const char* path, const char* why)
{
    TAV_LOG(0, "tavsim: refused %s: %s %s:%d\n", path, why, TAV_FILE, __LINE__);
    errno = EACCES;
    return false;
}

bool SimPlatform::resolve(const char* path, Resolved& out, bool forWriting)
{
    if (!path) {
        errno = EFAULT;
        return false;
    }
    if (!*path) {
        errno = ENOENT;
        return false;
    }
    if (!normalize(path, out.vpath)) return refuse(path, "leaves the module directory");
    const std::string self = "/proc/" + std::to_string(::getpid());
    if (out.vpath == "/proc/self" || isDirectoryPrefixOf("/proc/self", out.vpath) || out.vpath == self ||
        isDirectoryPrefixOf(self, out.vpath)) {
        if (forWriting) return refuse(path, "the process's own /proc entries are read-only");
        out.kind = Resolved::Proc;
        out.host = self + out.vpath.substr(out.vpath.compare(0, 10, "/proc/self") == 0 ? 10 : self.size());
        // Its links (root, cwd, exe, fd/N, ...) lead anywhere on the host.
        for (size_t slash = self.size(); slash != std::string::npos; slash = out.host.find('/', slash + 1)) {
            size_t next = out.host.find('/', slash + 1);
            struct stat st;
            if (::lstat(out.host.substr(0, next).c_str(), &st) == 0 && S_ISLNK(st.st_mode))
                return refuse(path, "a link of /proc/self");
            if (next == std::string::npos) break;
        }
        return true;
    }
    out.kind = Resolved::Mapped;
    // The bus directories of sysfs are links to /sys/block in the kernel.
    if (out.vpath.compare(0, 9, "/sys/bus/") == 0) out.vpath = sysfsCanonical(module_.manifest(), out.vpath);
    if (out.vpath == "/") {
        if (forWriting) return refuse(path, "the module root is read-only");
        out.host = module_.dir();
        return true;
    }
    std::string root = out.vpath.substr(1, out.vpath.find('/', 1) - 1);
    const auto& roots = mappedRoots();
    if (std::find(roots.begin(), roots.end(), root) == roots.end()) return refuse(path, "not a mapped path");
    out.host = module_.dir() + out.vpath;
    // No component may be a link (it could point out), nor the file a special one.
    std::string walk = module_.dir();
    size_t pos = 1;
    while (pos <= out.vpath.size()) {
        size_t slash = out.vpath.find('/', pos);
        if (slash == std::string::npos) slash = out.vpath.size();
        walk = module_.dir() + out.vpath.substr(0, slash);
        pos = slash + 1;
        struct stat st;
        if (::lstat(walk.c_str(), &st) != 0) break;
        if (S_ISLNK(st.st_mode)) return refuse(path, "a symbolic link inside the module");
        if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode))
            return refuse(path, "a special file inside the module");
    }
    return true;
}

bool SimPlatform::deviceGone(const Handle& h)
{
    struct stat st;
    return ::stat(h.node.image.c_str(), &st) != 0 || st.st_ino != h.ino;
}

void SimPlatform::fillDeviceStat(const DeviceNode& node, const struct ::stat& image, struct ::stat* st)
{
    *st = image;
    st->st_mode = (node.character ? S_IFCHR : S_IFBLK) | 0660;
    st->st_rdev = makedev(node.major, node.minor);
    st->st_size = 0;
    st->st_blocks = 0;
    st->st_nlink = 1;
}

// ---- descriptors ----

int SimPlatform::open(const char* path, int flags, mode_t mode)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    const int accmode = flags & O_ACCMODE;
    Resolved r;
    if (!resolve(path, r, accmode != O_RDONLY || (flags & (O_CREAT | O_TRUNC)))) return -1;
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    Handle h;
    h.vpath = r.vpath;
    h.accmode = accmode;
    int fd = -1;
    bool present = false;
    std::optional<DeviceNode> node = r.kind == Resolved::Mapped ? module_.device(r.vpath, present) : std::nullopt;
    if (r.kind == Resolved::Proc) {
        h.kind = Kind::Proc;
        fd = ::open(r.host.c_str(), flags, mode);
    } else if (node) {
        if (!present) return fail(ENOENT);
        if ((flags & O_CREAT) && (flags & O_EXCL)) return fail(EEXIST);
        h.kind = Kind::Device;
        h.node = *node;
        fd = ::open(node->image.c_str(), accmode | (flags & (O_CLOEXEC | O_NONBLOCK)) | O_NOFOLLOW);
        struct stat st;
        if (fd >= 0 && ::fstat(fd, &st) == 0) h.ino = st.st_ino;
    } else if (isDirectoryPrefixOf("/sys", r.vpath)) {
        // Attributes of sysfs: none can be made, and a write stores a whole value.
        h.kind = Kind::File;
        h.sysfs = true;
        struct stat st;
        if (::stat(r.host.c_str(), &st) != 0) return fail((flags & O_CREAT) ? EACCES : ENOENT);
        fd = ::open(r.host.c_str(), (flags & ~(O_CREAT | O_TRUNC | O_APPEND)) | O_NOFOLLOW, mode);
    } else {
        h.kind = Kind::File;
        fd = ::open(r.host.c_str(), flags | O_NOFOLLOW, mode);
    }
    if (fd >= 0) handles_[fd] = h;
    return fd;
}

int SimPlatform::close(int fd)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    handles_.erase(fd);
    return ::close(fd);
}

ssize_t SimPlatform::deviceRead(Handle& h, int fd, void* buf, size_t count, uint64_t at, bool advance)
{
    if (h.accmode == O_WRONLY) return fail(EBADF);
    if (deviceGone(h)) return fail(EIO);
    if (h.node.partition < 0) return fail(EINVAL);
    if (at >= h.node.size) return 0;
    size_t n = static_cast<size_t>(std::min<uint64_t>(count, h.node.size - at));
    ssize_t got = ::pread(fd, buf, n, static_cast<off_t>(h.node.offset + at));
    if (got > 0 && advance) h.pos = at + static_cast<uint64_t>(got);
    return got;
}

ssize_t SimPlatform::deviceWrite(Handle& h, int fd, const void* buf, size_t count, uint64_t at, bool advance)
{
    if (h.accmode == O_RDONLY) return fail(EBADF);
    if (deviceGone(h)) return fail(EIO);
    if (h.node.partition < 0) return fail(EINVAL);
    if (at >= h.node.size) return count == 0 ? 0 : fail(ENOSPC);
    size_t n = static_cast<size_t>(std::min<uint64_t>(count, h.node.size - at));
    ssize_t put = powerCut_ ? static_cast<ssize_t>(n) : ::pwrite(fd, buf, n, static_cast<off_t>(h.node.offset + at));
    if (put > 0 && advance) h.pos = at + static_cast<uint64_t>(put);
    return put;
}

ssize_t SimPlatform::read(int fd, void* buf, size_t count)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::read(fd, buf, count);
    Handle& h = it->second;
    Hit hit = checkFault(Op::Read, h.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (hit.fires && hit.action == Fault::Action::Short) count = std::min<uint64_t>(count, hit.shortCount);
    if (h.kind == Kind::Device) return deviceRead(h, fd, buf, count, h.pos, true);
    return ::read(fd, buf, count);
}

ssize_t SimPlatform::write(int fd, const void* buf, size_t count)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::write(fd, buf, count);
    Handle& h = it->second;
    Hit hit = checkFault(Op::Write, h.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (hit.fires && hit.action == Fault::Action::Short) count = std::min<uint64_t>(count, hit.shortCount);
    if (h.kind == Kind::Device) return deviceWrite(h, fd, buf, count, h.pos, true);
    if (h.sysfs) return sysfsWrite(h, buf, count);
    if (powerCut_ && h.kind == Kind::File) {
        if (h.accmode == O_RDONLY) return fail(EBADF);
        ::lseek(fd, static_cast<off_t>(count), SEEK_CUR);
        return static_cast<ssize_t>(count);
    }
    return ::write(fd, buf, count);
}

ssize_t SimPlatform::pread(int fd, void* buf, size_t count, off_t offset)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::pread(fd, buf, count, offset);
    Handle& h = it->second;
    Hit hit = checkFault(Op::Read, h.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (hit.fires && hit.action == Fault::Action::Short) count = std::min<uint64_t>(count, hit.shortCount);
    if (offset < 0) return fail(EINVAL);
    if (h.kind == Kind::Device) return deviceRead(h, fd, buf, count, static_cast<uint64_t>(offset), false);
    return ::pread(fd, buf, count, offset);
}

ssize_t SimPlatform::pwrite(int fd, const void* buf, size_t count, off_t offset)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::pwrite(fd, buf, count, offset);
    Handle& h = it->second;
    Hit hit = checkFault(Op::Write, h.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (hit.fires && hit.action == Fault::Action::Short) count = std::min<uint64_t>(count, hit.shortCount);
    if (offset < 0) return fail(EINVAL);
    if (h.kind == Kind::Device) return deviceWrite(h, fd, buf, count, static_cast<uint64_t>(offset), false);
    if (h.sysfs) return offset == 0 ? sysfsWrite(h, buf, count) : fail(EINVAL);
    if (powerCut_ && h.kind == Kind::File) return h.accmode == O_RDONLY ? fail(EBADF) : static_cast<ssize_t>(count);
    return ::pwrite(fd, buf, count, offset);
}

off_t SimPlatform::lseek(int fd, off_t offset, int whence)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::lseek(fd, offset, whence);
    Handle& h = it->second;
    Hit hit = checkFault(Op::Lseek, h.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (h.kind != Kind::Device) return ::lseek(fd, offset, whence);
    // A block device seeks within its size only.
    long long base = whence == SEEK_SET ? 0
                     : whence == SEEK_CUR ? static_cast<long long>(h.pos)
                     : whence == SEEK_END ? static_cast<long long>(h.node.size)
                                          : -1;
    if (base < 0) return fail(EINVAL);
    if ((offset > 0 && base > LLONG_MAX - offset)) return fail(EINVAL);
    long long target = base + offset;
    if (target < 0 || static_cast<unsigned long long>(target) > h.node.size) return fail(EINVAL);
    h.pos = static_cast<uint64_t>(target);
    return static_cast<off_t>(target);
}

int SimPlatform::fsync(int fd)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::fsync(fd);
    Hit hit = checkFault(Op::Fsync, it->second.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (it->second.kind == Kind::Device) return deviceGone(it->second) ? fail(EIO) : 0;
    return ::fsync(fd);
}

int SimPlatform::deviceIoctl(Handle& h, unsigned long request, void* arg)
{
    if (deviceGone(h)) return fail(EIO);
    const DeviceNode& node = h.node;
    Manifest m = module_.manifest();
    const Drive* drive = m.driveInBay(node.bay);
    if (!drive) return fail(EIO);
    const bool ata = drive->kind == "ata";
    if (node.partition < 0) {
        if (request != SG_IO) return fail(EINVAL);
        return drive->kind == "scsi" ? (scsiRequest(*drive, static_cast<sg_io_hdr_t*>(arg)) ? fail(EINVAL) : 0)
                                     : fail(EINVAL);
    }
    switch (request) {
    case BLKGETSIZE:
        if (!arg) return fail(EFAULT);
        *static_cast<unsigned long*>(arg) = static_cast<unsigned long>(node.size / 512);
        return 0;
    case BLKGETSIZE64:
        if (!arg) return fail(EFAULT);
        *static_cast<uint64_t*>(arg) = node.size;
        return 0;
    case BLKFLSBUF:
        return 0;
    case BLKRRPART:
        if (node.partition != 0) return fail(EINVAL);
        for (const auto& [fd, other] : handles_)
            if (other.kind == Kind::Device && other.node.bay == node.bay && other.node.partition > 0)
                return fail(EBUSY);
        module_.rereadPartitions(node.bay);
        return 0;
    case HDIO_GETGEO: {
        if (!arg) return fail(EFAULT);
        struct stat st;
        uint64_t diskSectors = ::stat(node.image.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) / 512 : 0;
        auto* g = static_cast<hd_geometry*>(arg);
        g->heads = 255;
        g->sectors = 63;
        g->cylinders = static_cast<unsigned short>(std::min<uint64_t>(diskSectors / (255 * 63), 65535));
        g->start = static_cast<unsigned long>(node.offset / 512);
        return 0;
    }
    case HDIO_GET_IDENTITY: {
        if (!ata) return fail(EINVAL);
        if (!arg) return fail(EFAULT);
        IdentifyBlock id = identifyData(*drive, IdentifyForm::KernelFixed);
        std::memcpy(arg, id.data(), id.size());
        return 0;
    }
    case HDIO_DRIVE_CMD: {
        if (!ata) return fail(EINVAL);
        if (!arg) return 0;
        auto* args = static_cast<unsigned char*>(arg);
        std::string note;
        int rc = 0;
        if (args[0] == kAtaIdentify) {
            Drive copy = *drive;
            unsigned char block[516];
            std::memcpy(block, args, 4);
            rc = driveCommand(copy, block, note);
            // The data comes back only for a sector count of at least one.
            std::memcpy(args, block, args[3] ? sizeof block : 4);
        } else {
            module_.updateManifest([&](Manifest& mm) {
                Drive* d = mm.driveInBay(node.bay);
                if (!d) {
                    rc = EIO;
                    return false;
                }
                rc = driveCommand(*d, args, note);
                return rc == 0;
            });
        }
        module_.logAta(h.vpath, note);
        return rc ? fail(rc) : 0;
    }
    case SG_IO:
        if (ata) return fail(EINVAL);
        {
            int rc = scsiRequest(*drive, static_cast<sg_io_hdr_t*>(arg));
            return rc ? fail(rc) : 0;
        }
    default:
        return fail(EINVAL);
    }
}

int SimPlatform::ioctl(int fd, unsigned long request, void* arg)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) {
        TAV_LOG(0, "tavsim: refused ioctl 0x%lx on descriptor %d opened outside the module %s:%d\n", request, fd,
                TAV_FILE, __LINE__);
        return fail(ENOTTY);
    }
    Handle& h = it->second;
    Hit hit = checkFault(Op::Ioctl, h.vpath, request);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    switch (h.kind) {
    case Kind::Device: return deviceIoctl(h, request, arg);
    case Kind::Socket:
        if (isInterfaceQuery(request)) return interfaceIoctl(request, arg);
        TAV_LOG(0, "tavsim: refused socket ioctl 0x%lx %s:%d\n", request, TAV_FILE, __LINE__);
        return fail(EPERM);
    default: return fail(ENOTTY);
    }
}

int SimPlatform::fstat(int fd, struct ::stat* st)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end()) return ::fstat(fd, st);
    Hit hit = checkFault(Op::Stat, it->second.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (it->second.kind != Kind::Device) return ::fstat(fd, st);
    struct stat image;
    if (::fstat(fd, &image) != 0) return -1;
    fillDeviceStat(it->second.node, image, st);
    return 0;
}

void* SimPlatform::mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if ((flags & MAP_ANONYMOUS) || (it != handles_.end() && it->second.kind == Kind::File))
        return ::mmap(addr, length, prot, flags, fd, offset);
    errno = ENODEV;
    return MAP_FAILED;
}

int SimPlatform::munmap(void* addr, size_t length) { return ::munmap(addr, length); }

// ---- paths ----

int SimPlatform::pathStat(const char* path, struct ::stat* st, bool follow)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, false)) return -1;
    Hit hit = checkFault(Op::Stat, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (r.kind == Resolved::Proc) return follow ? ::stat(r.host.c_str(), st) : ::lstat(r.host.c_str(), st);
    bool present = false;
    if (std::optional<DeviceNode> node = module_.device(r.vpath, present)) {
        struct stat image;
        if (!present || ::stat(node->image.c_str(), &image) != 0) return fail(ENOENT);
        fillDeviceStat(*node, image, st);
        return 0;
    }
    return ::lstat(r.host.c_str(), st);  // links are refused in the module, so both are one
}

int SimPlatform::stat(const char* path, struct ::stat* st) { return pathStat(path, st, true); }

int SimPlatform::lstat(const char* path, struct ::stat* st) { return pathStat(path, st, false); }

int SimPlatform::access(const char* path, int mode)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, false)) return -1;
    Hit hit = checkFault(Op::Stat, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (r.kind == Resolved::Proc) return (mode & W_OK) ? fail(EACCES) : ::access(r.host.c_str(), mode);
    bool present = false;
    if (module_.device(r.vpath, present)) return present ? 0 : fail(ENOENT);
    return ::access(r.host.c_str(), mode);
}

int SimPlatform::mkdir(const char* path, mode_t mode)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    bool present = false;
    if (module_.device(r.vpath, present)) return fail(present ? EEXIST : EPERM);
    return ::mkdir(r.host.c_str(), mode);
}

int SimPlatform::mknod(const char* path, mode_t, dev_t)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    bool present = false;
    if (module_.device(r.vpath, present)) return fail(present ? EEXIST : EPERM);
    // No real node is ever made: an empty file stands for it.
    int fd = ::open(r.host.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    ::close(fd);
    return 0;
}

int SimPlatform::unlink(const char* path)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    bool present = false;
    if (module_.device(r.vpath, present)) {
        refuse(path, "drive nodes are not removed by the system");
        return fail(EPERM);
    }
    Hit hit = checkFault(Op::Unlink, r.vpath);
    if (hit.fires) return fail(hit.action == Fault::Action::Error ? hit.error : EIO);
    return ::unlink(r.host.c_str());
}

int SimPlatform::remove(const char* path)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    bool present = false;
    if (module_.device(r.vpath, present)) {
        refuse(path, "drive nodes are not removed by the system");
        return fail(EPERM);
    }
    return ::remove(r.host.c_str());
}

int SimPlatform::rename(const char* from, const char* to)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved a, b;
    if (!resolve(from, a, true) || !resolve(to, b, true)) return -1;
    bool present = false;
    if (module_.device(a.vpath, present) || module_.device(b.vpath, present)) {
        refuse(from, "drive nodes are not renamed by the system");
        return fail(EPERM);
    }
    Hit hit = checkFault(Op::Rename, a.vpath);
    if (hit.fires) return fail(hit.action == Fault::Action::Error ? hit.error : EIO);
    return ::rename(a.host.c_str(), b.host.c_str());
}

int SimPlatform::mkstemp(char* templ)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(templ, r, true)) return -1;
    size_t len = std::strlen(templ);
    if (len < 6 || std::strcmp(templ + len - 6, "XXXXXX") != 0) return fail(EINVAL);
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    std::string host = r.host;
    int fd = ::mkstemp(host.data());
    if (fd < 0) return -1;
    std::memcpy(templ + len - 6, host.data() + host.size() - 6, 6);
    Handle h;
    h.kind = Kind::File;
    h.vpath = r.vpath.substr(0, r.vpath.size() - 6) + host.substr(host.size() - 6);
    h.accmode = O_RDWR;
    handles_[fd] = h;
    return fd;
}

DIR* SimPlatform::opendir(const char* path)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, false)) return nullptr;
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) {
        errno = hit.error;
        return nullptr;
    }
    bool present = false;
    if (r.kind == Resolved::Mapped && module_.device(r.vpath, present)) {
        errno = present ? ENOTDIR : ENOENT;
        return nullptr;
    }
    return ::opendir(r.host.c_str());
}

FILE* SimPlatform::streamOf(int fd, const char* mode)
{
    auto* cookie = new DeviceCookie{this, fd};
    cookie_io_functions_t io{cookieRead, cookieWrite, cookieSeek, cookieClose};
    FILE* f = ::fopencookie(cookie, mode, io);
    if (!f) {
        delete cookie;
        close(fd);
    }
    return f;
}

FILE* SimPlatform::fopen(const char* path, const char* mode)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (!mode || !*mode) {
        errno = EINVAL;
        return nullptr;
    }
    bool plus = std::strchr(mode, '+') != nullptr;
    int flags = 0;
    switch (mode[0]) {
    case 'r': flags = plus ? O_RDWR : O_RDONLY; break;
    case 'w': flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
    case 'a': flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND; break;
    default: errno = EINVAL; return nullptr;
    }
    Resolved r;
    if (!resolve(path, r, (flags & O_ACCMODE) != O_RDONLY)) return nullptr;
    bool present = false;
    if (r.kind == Resolved::Mapped && (module_.device(r.vpath, present) || isDirectoryPrefixOf("/sys", r.vpath))) {
        int fd = open(path, flags & (O_ACCMODE), 0);
        return fd < 0 ? nullptr : streamOf(fd, mode);
    }
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) {
        errno = hit.error;
        return nullptr;
    }
    int fd = ::open(r.host.c_str(), flags | O_NOFOLLOW, 0666);
    if (fd < 0) return nullptr;
    FILE* f = ::fdopen(fd, mode);
    if (!f) ::close(fd);
    return f;
}

int SimPlatform::chdir(const char* path)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Resolved r;
    if (!resolve(path, r, false)) return -1;
    if (r.kind == Resolved::Proc) {
        refuse(path, "no working directory in /proc");
        return -1;
    }
    struct stat st;
    if (::stat(r.host.c_str(), &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) return fail(ENOTDIR);
    cwd_ = r.vpath;
    return 0;
}

// Images are written straight through: there is nothing to flush.
void SimPlatform::sync() {}

// ---- commands ----

int SimPlatform::runCommand(const std::string& kind, const std::string& command, const std::string& input,
                            std::string& output)
{
    bool known = false;
    CommandResult result = commands_.run(module_, command, input, known);
    module_.logCommand(kind, result.status, known, command);
    if (!known) TAV_LOG(0, "tavsim: no handler for command: %s %s:%d\n", command.c_str(), TAV_FILE, __LINE__);
    output = result.output;
    return result.status;
}

int SimPlatform::system(const char* command)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (!command) return 1;  // a shell is there
    std::string output;
    int status = runCommand("system", command, "", output);
    return W_EXITCODE(status & 0xff, 0);
}

ssize_t SimPlatform::cookieRead(void* cookie, char* buf, size_t size)
{
    auto* c = static_cast<DeviceCookie*>(cookie);
    return c->self->read(c->fd, buf, size);
}

ssize_t SimPlatform::cookieWrite(void* cookie, const char* buf, size_t size)
{
    auto* c = static_cast<DeviceCookie*>(cookie);
    ssize_t n = c->self->write(c->fd, buf, size);
    return n < 0 ? 0 : n;
}

int SimPlatform::cookieSeek(void* cookie, off64_t* offset, int whence)
{
    auto* c = static_cast<DeviceCookie*>(cookie);
    off_t at = c->self->lseek(c->fd, static_cast<off_t>(*offset), whence);
    if (at < 0) return -1;
    *offset = at;
    return 0;
}

int SimPlatform::cookieClose(void* cookie)
{
    auto* c = static_cast<DeviceCookie*>(cookie);
    int rc = c->self->close(c->fd);
    delete c;
    return rc;
}

FILE* SimPlatform::popen(const char* command, const char* mode)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (!command || !mode || (mode[0] != 'r' && mode[0] != 'w')) {
        errno = EINVAL;
        return nullptr;
    }
    auto* pipe = new Pipe;
    pipe->command = command;
    pipe->writing = mode[0] == 'w';
    if (!pipe->writing) pipe->status = runCommand("popen", command, "", pipe->buffer);
    struct Io {
        static ssize_t read(void* cookie, char* buf, size_t size)
        {
            auto* p = static_cast<Pipe*>(cookie);
            size_t n = std::min(size, p->buffer.size() - p->pos);
            std::memcpy(buf, p->buffer.data() + p->pos, n);
            p->pos += n;
            return static_cast<ssize_t>(n);
        }
        static ssize_t write(void* cookie, const char* buf, size_t size)
        {
            static_cast<Pipe*>(cookie)->buffer.append(buf, size);
            return static_cast<ssize_t>(size);
        }
        static int close(void*) { return 0; }
    };
    cookie_io_functions_t io{Io::read, Io::write, nullptr, Io::close};
    FILE* f = ::fopencookie(pipe, pipe->writing ? "w" : "r", io);
    if (!f) {
        delete pipe;
        return nullptr;
    }
    pipes_[f] = pipe;
    return f;
}

int SimPlatform::pclose(FILE* stream)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = pipes_.find(stream);
    if (it == pipes_.end()) return fail(ECHILD);
    Pipe* pipe = it->second;
    pipes_.erase(it);
    ::fclose(stream);  // flushes what was written into the pipe's buffer
    int status = pipe->status;
    if (pipe->writing) {
        std::string output;
        status = runCommand("popen", pipe->command, pipe->buffer, output);
    }
    delete pipe;
    return W_EXITCODE(status & 0xff, 0);
}

// ---- time ----

time_t SimPlatform::time(time_t* out)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    time_t now = module_.now().tv_sec;
    if (out) *out = now;
    return now;
}

int SimPlatform::gettimeofday(struct timeval* tv)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (!tv) return fail(EFAULT);
    *tv = module_.now();
    return 0;
}

unsigned int SimPlatform::sleep(unsigned int seconds)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    module_.advance(static_cast<uint64_t>(seconds) * 1000000);
    return 0;
}

int SimPlatform::usleep(useconds_t usec)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    module_.advance(usec);
    return 0;
}

int SimPlatform::nanosleep(const struct timespec* req, struct timespec* rem)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (!req) return fail(EFAULT);
    if (req->tv_sec < 0 || req->tv_nsec < 0 || req->tv_nsec >= 1000000000) return fail(EINVAL);
    module_.advance(static_cast<uint64_t>(req->tv_sec) * 1000000 + static_cast<uint64_t>(req->tv_nsec) / 1000);
    if (rem) *rem = timespec{0, 0};
    return 0;
}

int SimPlatform::waitTimeout(struct timeval* timeout)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (!timeout) {
        TAV_LOG(0, "tavsim: a wait without a time-out would never end %s:%d\n", TAV_FILE, __LINE__);
        return fail(EINVAL);
    }
    if (timeout->tv_sec < 0 || timeout->tv_usec < 0) return fail(EINVAL);
    module_.advance(static_cast<uint64_t>(timeout->tv_sec) * 1000000 + static_cast<uint64_t>(timeout->tv_usec));
    *timeout = timeval{0, 0};
    return 0;
}

// ---- sockets and the controller library ----

int SimPlatform::socket(int domain, int type, int protocol)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    int fd = ::socket(domain, type, protocol);
    if (fd >= 0) {
        Handle h;
        h.kind = Kind::Socket;
        h.vpath = "socket";
        handles_[fd] = h;
    }
    return fd;
}

int SimPlatform::setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    auto it = handles_.find(fd);
    if (it == handles_.end() || it->second.kind != Kind::Socket) return fail(ENOTSOCK);
    return ::setsockopt(fd, level, name, value, length);
}

ssize_t SimPlatform::sysfsWrite(Handle& h, const void* buf, size_t count)
{
    if (h.accmode == O_RDONLY) return fail(EBADF);
    if (powerCut_) return static_cast<ssize_t>(count);
    int error = sysfsStore(h.vpath, module_.hostPath(h.vpath), std::string(static_cast<const char*>(buf), count));
    return error ? fail(error) : static_cast<ssize_t>(count);
}

// The interfaces of the module's file, answered as the kernel answers.
int SimPlatform::interfaceIoctl(unsigned long request, void* arg)
{
    if (!arg) return fail(EFAULT);
    std::vector<Interface> all = parseInterfaces(module_.readState("interfaces"));
    auto inet = [](sockaddr* to, uint32_t address) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = address;
        std::memcpy(to, &a, sizeof a);
    };
    if (request == SIOCGIFCONF) {
        auto* conf = static_cast<ifconf*>(arg);
        int need = 0;
        for (const Interface& i : all) {
            if (!i.hasAddress) continue;
            if (conf->ifc_req) {
                if (need + static_cast<int>(sizeof(ifreq)) > conf->ifc_len) break;
                ifreq* r = reinterpret_cast<ifreq*>(conf->ifc_buf + need);
                std::memset(r, 0, sizeof *r);
                std::memcpy(r->ifr_name, i.name.c_str(), i.name.size());
                inet(&r->ifr_addr, i.address);
            }
            need += static_cast<int>(sizeof(ifreq));
        }
        conf->ifc_len = need;
        return 0;
    }
    auto* req = static_cast<ifreq*>(arg);
    if (request == SIOCGIFNAME) {
        if (req->ifr_ifindex < 1 || static_cast<size_t>(req->ifr_ifindex) > all.size()) return fail(ENODEV);
        const std::string& name = all[static_cast<size_t>(req->ifr_ifindex - 1)].name;
        std::memset(req->ifr_name, 0, sizeof req->ifr_name);
        std::memcpy(req->ifr_name, name.c_str(), name.size());
        return 0;
    }
    std::string name(req->ifr_name, strnlen(req->ifr_name, sizeof req->ifr_name));
    auto it = std::find_if(all.begin(), all.end(), [&](const Interface& i) { return i.name == name; });
    if (it == all.end()) return fail(ENODEV);
    const Interface& i = *it;
    switch (request) {
    case SIOCGIFFLAGS:
        req->ifr_flags = static_cast<short>(i.up ? IFF_UP | IFF_RUNNING : 0);
        if (i.name == "lo") req->ifr_flags = static_cast<short>(req->ifr_flags | IFF_LOOPBACK);
        else req->ifr_flags = static_cast<short>(req->ifr_flags | IFF_BROADCAST | IFF_MULTICAST);
        return 0;
    case SIOCGIFHWADDR:
        std::memset(&req->ifr_hwaddr, 0, sizeof req->ifr_hwaddr);
        req->ifr_hwaddr.sa_family = i.name == "lo" ? ARPHRD_LOOPBACK : ARPHRD_ETHER;
        std::memcpy(req->ifr_hwaddr.sa_data, i.hwaddr, 6);
        return 0;
    case SIOCGIFMTU: req->ifr_mtu = i.mtu; return 0;
    case SIOCGIFMETRIC: req->ifr_metric = i.metric; return 0;
    case SIOCGIFINDEX: req->ifr_ifindex = static_cast<int>(it - all.begin()) + 1; return 0;
    case SIOCGIFADDR: case SIOCGIFNETMASK: case SIOCGIFBRDADDR: case SIOCGIFDSTADDR:
        if (!i.hasAddress) return fail(EADDRNOTAVAIL);
        inet(&req->ifr_addr, request == SIOCGIFADDR      ? i.address
                             : request == SIOCGIFNETMASK ? i.netmask
                             : request == SIOCGIFBRDADDR ? i.broadcast
                                                         : i.destination);
        return 0;
    default: return fail(EINVAL);
    }
}

// No controllers in the IDE family: the answers of an absent library.
int SimPlatform::InitMegaLib() { return 0; }

int SimPlatform::GetDllVersion(char* major, char* minor)
{
    if (major) std::strcpy(major, "0");
    if (minor) std::strcpy(minor, "0");
    return -1;
}

int SimPlatform::MegaLibCommand(int, int, int, int, int, void*) { return -1; }

} // namespace sim

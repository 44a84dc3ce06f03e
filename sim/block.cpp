#include "block.h"

#include "bay_link.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sstream>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace sim {
namespace {

std::string lockFile(int bay, int partition)
{
    return Module::stateFile("locks/bay" + std::to_string(bay) + ".part" + std::to_string(partition));
}

int openLock(Module& module, int bay, int partition)
{
    int fd = module.host().open(lockFile(bay, partition), O_RDWR | O_CREAT, 0644);
    if (fd < 0 && errno == ENOENT && module.host().makeDirs(Module::stateFile("locks")))
        fd = module.host().open(lockFile(bay, partition), O_RDWR | O_CREAT, 0644);
    return fd;
}

// A partition of the bay is mounted (sim/mounts: "SOURCE TARGET TYPE").
bool mounted(Module& module, int bay)
{
    std::istringstream in(module.readState("mounts"));
    std::string source, rest;
    while (in >> source && std::getline(in, rest)) {
        bool present = false;
        std::optional<DeviceNode> node = module.device(source, present);
        if (node && node->bay == bay && node->partition > 0) return true;
    }
    return false;
}

} // namespace

void deviceStat(const DeviceNode& node, const struct ::stat& image, struct ::stat* st)
{
    *st = image;
    st->st_mode = (node.character ? S_IFCHR : S_IFBLK) | 0660;
    st->st_rdev = makedev(node.major, node.minor);
    st->st_size = 0;
    st->st_blocks = 0;
    st->st_nlink = 1;
}

int BlockDevice::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    int fd = ctx.module.host().open(n.node.image, n.accmode | (flags & O_NONBLOCK));
    if (fd < 0) return -1;
    struct ::stat st;
    if (::fstat(fd, &st) == 0) n.ino = st.st_ino;
    if (n.node.partition > 0) {
        n.lockFd = openLock(ctx.module, n.node.bay, n.node.partition);
        if (n.lockFd >= 0)
            while (::flock(n.lockFd, LOCK_SH) != 0 && errno == EINTR) {
            }
    }
    return fd;
}

void BlockDevice::close(DeviceContext&, OpenNode& n)
{
    if (n.lockFd >= 0) ::close(n.lockFd);
    n.lockFd = -1;
}

// Images move only with a write of the manifest (pull, insert, swap): while
// its generation stands, the image found in place is still there.
bool BlockDevice::gone(DeviceContext& ctx, OpenNode& n)
{
    const uint64_t generation = ctx.module.generation(Module::stateFile("manifest"));
    if (generation == Module::kNoGeneration || generation != n.imageChecked) {
        struct ::stat st;
        if (ctx.module.host().stat(n.node.image, &st) != 0 || st.st_ino != n.ino) return true;
        n.imageChecked = generation;
    }
    return !ctx.bench && !bayAnswers(ctx.module, n.node.bay);
}

ssize_t BlockDevice::read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance)
{
    if (n.accmode == O_WRONLY) return fail(EBADF);
    if (gone(ctx, n)) return fail(EIO);
    if (n.node.partition < 0) return fail(EINVAL);
    if (at >= n.node.size) return 0;
    size_t want = static_cast<size_t>(std::min<uint64_t>(count, n.node.size - at));
    ssize_t got = ::pread(n.hostFd, buf, want, static_cast<off_t>(n.node.offset + at));
    if (got > 0 && advance) n.pos = at + static_cast<uint64_t>(got);
    return got;
}

ssize_t BlockDevice::write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance)
{
    if (n.accmode == O_RDONLY) return fail(EBADF);
    if (gone(ctx, n)) return fail(EIO);
    if (n.node.partition < 0) return fail(EINVAL);
    if (at >= n.node.size) return count == 0 ? 0 : fail(ENOSPC);
    size_t want = static_cast<size_t>(std::min<uint64_t>(count, n.node.size - at));
    ssize_t put = ctx.powerCut ? static_cast<ssize_t>(want)
                               : ::pwrite(n.hostFd, buf, want, static_cast<off_t>(n.node.offset + at));
    if (put > 0 && advance) n.pos = at + static_cast<uint64_t>(put);
    return put;
}

off_t BlockDevice::seek(DeviceContext&, OpenNode& n, off_t offset, int whence)
{
    // A block device seeks within its size only.
    long long base = whence == SEEK_SET   ? 0
                     : whence == SEEK_CUR ? static_cast<long long>(n.pos)
                     : whence == SEEK_END ? static_cast<long long>(n.node.size)
                                          : -1;
    if (base < 0) return fail(EINVAL);
    if (offset > 0 && base > LLONG_MAX - offset) return fail(EINVAL);
    long long target = base + offset;
    if (target < 0 || static_cast<unsigned long long>(target) > n.node.size) return fail(EINVAL);
    n.pos = static_cast<uint64_t>(target);
    return static_cast<off_t>(target);
}

// Images are written straight through: there is nothing to flush.
int BlockDevice::fsync(DeviceContext& ctx, OpenNode& n) { return gone(ctx, n) ? fail(EIO) : 0; }

int BlockDevice::rereadPartitions(DeviceContext& ctx, const OpenNode& n)
{
    if (n.node.partition != 0) return fail(EINVAL);
    Module::Lock lock(ctx.module);
    for (const Window& w : ctx.module.windows(n.node.bay)) {
        int fd = openLock(ctx.module, n.node.bay, w.number);
        bool busy = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        if (fd >= 0) ::close(fd);
        if (busy) return fail(EBUSY);
    }
    if (mounted(ctx.module, n.node.bay)) return fail(EBUSY);
    ctx.module.rereadPartitions(n.node.bay);
    return 0;
}

int BlockDevice::ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg)
{
    if (gone(ctx, n)) return fail(EIO);
    const DeviceNode& node = n.node;
    if (node.partition < 0) return driveIoctl(ctx, n, request, arg);
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
        return rereadPartitions(ctx, n);
    case HDIO_GETGEO: {
        if (!arg) return fail(EFAULT);
        struct ::stat st;
        uint64_t diskSectors = ::fstat(n.hostFd, &st) == 0 ? static_cast<uint64_t>(st.st_size) / 512 : 0;
        auto* g = static_cast<hd_geometry*>(arg);
        g->heads = 255;
        g->sectors = 63;
        g->cylinders = static_cast<unsigned short>(std::min<uint64_t>(diskSectors / (255 * 63), 65535));
        g->start = static_cast<unsigned long>(node.offset / 512);
        return 0;
    }
    default:
        return driveIoctl(ctx, n, request, arg);
    }
}

int BlockDevice::driveIoctl(DeviceContext&, OpenNode&, unsigned long, void*) { return fail(EINVAL); }

int BlockDevice::fstat(DeviceContext&, OpenNode& n, struct ::stat* st)
{
    struct ::stat image;
    if (::fstat(n.hostFd, &image) != 0) return -1;
    deviceStat(n.node, image, st);
    return 0;
}

int BlockDevice::stat(DeviceContext& ctx, const std::string&, const DeviceNode& node, struct ::stat* st)
{
    struct ::stat image;
    if (ctx.module.host().stat(node.image, &image) != 0) return fail(ENOENT);
    deviceStat(node, image, st);
    return 0;
}

} // namespace sim

#include "md.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "faults.h"
#include "manifest.h"
#include "md_kernel.h"

namespace sim {
namespace {

std::string diskArgs(const mdu_disk_info_t& d)
{
    return "number=" + std::to_string(d.number) + " raid_disk=" + std::to_string(d.raid_disk) +
           " major=" + std::to_string(d.major) + " minor=" + std::to_string(d.minor) + " state=" + std::to_string(d.state);
}

std::string deviceArg(void* arg)
{
    const dev_t d = static_cast<dev_t>(reinterpret_cast<uintptr_t>(arg));
    return "dev=" + std::to_string(gnu_dev_major(d)) + ":" + std::to_string(gnu_dev_minor(d));
}

std::string requestText(unsigned long request)
{
    if (const char* name = requestName(request)) return name;
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%lx", request);
    return hex;
}

// Answers one request; `args` gets what the log tells of its argument.
int answer(MdKernel& k, int minor, unsigned long request, void* arg, std::string& args)
{
    switch (request) {
    case SET_ARRAY_INFO: {
        if (!arg) {
            args = "null";
            return k.setArrayInfo(minor, nullptr);
        }
        mdu_array_info_t info;
        std::memcpy(&info, arg, sizeof info);
        args = "level=" + std::to_string(info.level) + " raid_disks=" + std::to_string(info.raid_disks) +
               " md_minor=" + std::to_string(info.md_minor) + " chunk_size=" + std::to_string(info.chunk_size) +
               " layout=" + std::to_string(info.layout);
        return k.setArrayInfo(minor, &info);
    }
    case GET_ARRAY_INFO: {
        mdu_array_info_t info{};
        int error = k.getArrayInfo(minor, info);
        if (!error && !arg) return EFAULT;
        if (!error) std::memcpy(arg, &info, sizeof info);
        return error;
    }
    case ADD_NEW_DISK: {
        if (!arg) return EFAULT;
        mdu_disk_info_t disk;
        std::memcpy(&disk, arg, sizeof disk);
        args = diskArgs(disk);
        return k.addNewDisk(minor, disk);
    }
    case RUN_ARRAY: {
        // The level comes from the array info or the superblocks: the
        // parameter is only logged.
        mdu_param_t param{};
        if (arg) std::memcpy(&param, arg, sizeof param);
        args = arg ? "personality=" + std::to_string(param.personality) + " chunk_size=" + std::to_string(param.chunk_size)
                   : "null";
        return k.runArray(minor);
    }
    case STOP_ARRAY: return k.stopArray(minor);
    case HOT_ADD_DISK:
    case HOT_REMOVE_DISK:
    case SET_DISK_FAULTY: {
        args = deviceArg(arg);
        const dev_t d = static_cast<dev_t>(reinterpret_cast<uintptr_t>(arg));
        return request == HOT_ADD_DISK      ? k.hotAddDisk(minor, d)
               : request == HOT_REMOVE_DISK ? k.hotRemoveDisk(minor, d)
                                            : k.setDiskFaulty(minor, d);
    }
    case GET_DISK_INFO: {
        if (!arg) return EFAULT;
        mdu_disk_info_t disk;
        std::memcpy(&disk, arg, sizeof disk);
        args = "number=" + std::to_string(disk.number);
        int error = k.getDiskInfo(minor, disk);
        if (!error) std::memcpy(arg, &disk, sizeof disk);
        return error;
    }
    case BLKGETSIZE:
    case BLKGETSIZE64: {
        if (!arg) return EFAULT;
        const uint64_t bytes = k.bytes(minor);
        if (request == BLKGETSIZE) *static_cast<unsigned long*>(arg) = static_cast<unsigned long>(bytes / 512);
        else *static_cast<uint64_t*>(arg) = bytes;
        return 0;
    }
    default: return EINVAL;
    }
}

} // namespace

int memoryFile(const char* name, const std::string& text)
{
    int fd = ::memfd_create(name, MFD_CLOEXEC);
    if (fd < 0) return -1;
    if (!text.empty() && ::pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        int error = errno;
        ::close(fd);
        return fail(error ? error : EIO);
    }
    return fd;
}

void nodeStat(Module& module, mode_t mode, dev_t rdev, struct ::stat* st)
{
    *st = {};
    st->st_mode = mode;
    st->st_rdev = rdev;
    st->st_nlink = 1;
    st->st_blksize = 4096;
    const timeval now = module.now();
    st->st_atim.tv_sec = st->st_mtim.tv_sec = st->st_ctim.tv_sec = now.tv_sec;
}

int mdMinor(const std::string& vpath)
{
    static const std::string prefix = "/dev/md";
    uint64_t n = 0;
    if (vpath.compare(0, prefix.size(), prefix) != 0 || !parseNumber(vpath.substr(prefix.size()), n) || n >= kMdArrays)
        return -1;
    return static_cast<int>(n);
}

int MdDevice::open(DeviceContext&, OpenNode& n, int flags)
{
    if (mdMinor(n.vpath) < 0) return fail((flags & O_CREAT) ? EACCES : ENOENT);
    return memoryFile("md", "");
}

ssize_t MdDevice::read(DeviceContext&, OpenNode&, void*, size_t, uint64_t, bool) { return fail(EIO); }

ssize_t MdDevice::write(DeviceContext&, OpenNode&, const void*, size_t, uint64_t, bool) { return fail(EIO); }

int MdDevice::ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg)
{
    const int minor = mdMinor(n.vpath);
    std::string args;
    int error = 0;
    visitMd(ctx.module, [&](MdKernel& k) { error = answer(k, minor, request, arg, args); });
    const char* result = error ? errnoName(error) : "0";
    ctx.module.appendState("md.log", std::to_string(ctx.module.now().tv_sec) + " " + n.vpath + " " + requestText(request) +
                                         (args.empty() ? "" : " " + args) + " -> " +
                                         (result ? result : "errno " + std::to_string(error)));
    return error ? fail(error) : 0;
}

int MdDevice::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st)
{
    return stat(ctx, n.vpath, n.node, st);
}

int MdDevice::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    const int minor = mdMinor(vpath);
    if (minor < 0) return fail(ENOENT);
    nodeStat(ctx.module, S_IFBLK | 0660, gnu_dev_makedev(kMdMajor, static_cast<unsigned>(minor)), st);
    return 0;
}

void addMdModels(DeviceRegistry& registry)
{
    registry.byPrefix("/dev/md", std::make_shared<MdDevice>());
    registry.byPrefix("/proc/mdstat", std::make_shared<MdStatFile>());
    registry.byPrefix("/proc/sys/dev/raid/", std::make_shared<RaidSpeedFile>());
}

} // namespace sim

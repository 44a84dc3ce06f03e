#include "raid.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/raid/md_u.h>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevices.h"
#include "module.h"
#include "platform/platform.h"
#include "sign.h"
#include "sim_platform.h"

namespace sim {
namespace {

std::string md(int number) { return "/dev/md" + std::to_string(number); }

// Whether the kernel knows the array at all: GET_ARRAY_INFO answers or says
// it does not run (EINVAL); ENODEV is an array that does not exist.
bool arrayExists(int number)
{
    int fd = plat::open(md(number).c_str(), O_RDONLY);
    if (fd < 0) return false;
    mdu_array_info_t info{};
    bool exists = plat::ioctl(fd, GET_ARRAY_INFO, &info) == 0 || errno != ENODEV;
    plat::close(fd);
    return exists;
}

// An md ioctl on an array: "" or what failed.
std::string mdIoctl(int number, unsigned long request, void* arg, const char* what)
{
    int fd = plat::open(md(number).c_str(), O_RDWR);
    if (fd < 0) return "cannot open " + md(number) + ": " + std::strerror(errno);
    int rc = plat::ioctl(fd, request, arg);
    int error = errno;
    plat::close(fd);
    return rc == 0 ? "" : std::string(what) + " on " + md(number) + ": " + std::strerror(error);
}

// The OS mirror on one partition of every drive in a bay: a RAID 1 whose
// slot i is position i + 1, made as the appliance's scripts make it.
using PartitionOf = std::string (RaidDeviceMgmt::TavDrive::*)();

std::string makeOsMirror(int number, PartitionOf partition)
{
    const int positions = TavDriveMgr::nDrives;
    mdu_array_info_t info{};
    info.minor_version = 90;
    info.ctime = info.utime = static_cast<decltype(info.ctime)>(plat::time(nullptr));
    info.level = 1;
    info.nr_disks = info.raid_disks = info.active_disks = info.working_disks = positions;
    info.md_minor = number;
    info.chunk_size = 64 * 1024;
    if (std::string err = mdIoctl(number, SET_ARRAY_INFO, &info, "SET_ARRAY_INFO"); !err.empty()) return err;
    for (int position = 1; position <= positions; ++position) {
        RaidDeviceMgmt::TavDrive* drive = TavDriveMgr::getDrive(position);
        struct stat st;
        if (!drive || plat::stat((drive->*partition)().c_str(), &st) != 0) continue;
        mdu_disk_info_t disk{};
        disk.number = disk.raid_disk = position - 1;
        disk.major = static_cast<int>(major(st.st_rdev));
        disk.minor = static_cast<int>(minor(st.st_rdev));
        disk.state = (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC);
        if (std::string err = mdIoctl(number, ADD_NEW_DISK, &disk, "ADD_NEW_DISK"); !err.empty()) return err;
    }
    mdu_param_t param{};
    param.personality = 3;
    return mdIoctl(number, RUN_ARRAY, &param, "RUN_ARRAY");
}

std::string hotAddSpare(int number, int position)
{
    RaidDeviceMgmt::TavDrive* drive = TavDriveMgr::getDrive(position);
    struct stat st;
    if (!drive || plat::stat(drive->getDataPartitionName().c_str(), &st) != 0)
        return "the data partition of bay " + std::to_string(position) + " is not there";
    return mdIoctl(number, HOT_ADD_DISK, reinterpret_cast<void*>(static_cast<uintptr_t>(st.st_rdev)), "HOT_ADD_DISK");
}

// The members and spares of the options, checked against the module.
std::string chooseDrives(const Manifest& m, const RaidOptions& o, RaidResult& result)
{
    std::vector<int> drives = o.drives;
    if (drives.empty())
        for (const Bay& b : m.bays)
            if (m.driveInBay(b.number)) drives.push_back(b.number);
    for (size_t i = 0; i < drives.size(); ++i) {
        if (drives[i] < 1 || drives[i] > TavDriveMgr::nDrives)
            return "bay " + std::to_string(drives[i]) + ": the module has positions 1 to " +
                   std::to_string(TavDriveMgr::nDrives);
        if (!m.driveInBay(drives[i])) return "bay " + std::to_string(drives[i]) + " is empty";
        if (std::count(drives.begin(), drives.end(), drives[i]) > 1)
            return "bay " + std::to_string(drives[i]) + " is named twice";
    }
    if (o.spares < 0 || static_cast<size_t>(o.spares) >= drives.size())
        return "--spares " + std::to_string(o.spares) + ": must leave members (0 to " +
               std::to_string(drives.empty() ? 0 : drives.size() - 1) + ")";
    if (o.level == 0 && o.spares > 0) return "a RAID 0 takes no spares";
    const size_t members = drives.size() - static_cast<size_t>(o.spares);
    const size_t least = o.level == 5 ? 3 : o.level == 1 ? 2 : 1;
    if (members < least)
        return "a RAID " + std::to_string(o.level) + " needs at least " + std::to_string(least) + " members, not " +
               std::to_string(members);
    result.members.assign(drives.begin(), drives.begin() + static_cast<long>(members));
    result.spares.assign(drives.begin() + static_cast<long>(members), drives.end());
    return "";
}

std::string configure(Module& module, const RaidOptions& o, RaidResult& result)
{
    if (std::string err = chooseDrives(module.manifest(), o, result); !err.empty()) return err;
    TavDriveMgr::readSignatureIntoMemory();
    if (!TavDriveMgr::hardDrives) return "no drive carries a signature: run tavsim partition and tavsim sign first";
    if (arrayExists(o.md)) return md(o.md) + " exists already (tavsim md DIR --stop-all forgets every array)";

    TavRaidDevice* top = TavRaidDevices::createDevice(o.level, static_cast<int>(result.members.size()), nullptr,
                                                      o.mountPoint.empty() ? nullptr : o.mountPoint.c_str(), o.md,
                                                      o.spares);
    for (int position : result.members) top->addSubdevice(-1, 0, nullptr, position);
    delete TavDriveMgr::devices;
    TavDriveMgr::devices = new TavRaidDevices();
    TavDriveMgr::devices->add(top);
    if (top->createArray() != 0) return "the system could not make " + md(o.md) + " (tavsim log DIR --md tells why)";
    for (int position : result.spares)
        if (std::string err = hotAddSpare(o.md, position); !err.empty()) return err;

    if (hasOsMirror(module.manifest().platform)) {
        const std::pair<int, PartitionOf> mirrors[] = {{200, &RaidDeviceMgmt::TavDrive::getOSPartitionName},
                                                       {201, &RaidDeviceMgmt::TavDrive::getLogPartitionName}};
        for (const auto& [number, partition] : mirrors) {
            if (arrayExists(number)) continue;
            if (std::string err = makeOsMirror(number, partition); !err.empty()) return err;
            result.osMirrors.push_back(md(number));
        }
    }
    std::string failed;
    Manifest m = module.manifest();
    for (int position = 1; position <= TavDriveMgr::nDrives; ++position)
        if (m.driveInBay(position) && TavDriveMgr::writeSignature(position) != 0)
            failed += " " + std::to_string(position);
    return failed.empty() ? "" : "the signature could not be written to bay" + failed;
}

} // namespace

bool hasOsMirror(int platform) { return platform == 1 || platform == 2 || platform == 4; }

std::string configureRaid(const std::string& dir, const RaidOptions& options, RaidResult& result)
{
    if (!Module::isModule(dir)) return dir + " is no simulated module";
    if (options.level != 0 && options.level != 1 && options.level != 5)
        return "--level " + std::to_string(options.level) + ": 0, 1 or 5";
    if (options.md < 1 || options.md > 199) return "--md " + std::to_string(options.md) + ": 1 to 199";
    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    std::string err;
    {
        QuietOutput quiet;
        resetDriveManager();
        TavDriveMgr::init();
        err = configure(platform.module(), options, result);
        resetDriveManager();
    }
    return err;
}

} // namespace sim

#include "driveutils/tav_md_raiddev.h"

#include <cerrno>
#include <fcntl.h>

#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"

static int giDebug_mdraid = 0;
#define TAV_DEBUG_FLAG giDebug_mdraid
#include "driveutils/tavlog.h"

namespace {

// The drive position (0-based) of a member by its device numbers; -1 for none.
int memberIndex(int major, int minor)
{
    switch (major) {
    case 3: return minor < 64 ? 0 : 1;
    case 22: return minor < 64 ? 3 : 2;
    case 33: return 0;
    case 34: return 1;
    case 56: return 2;
    case 57: return 3;
    case 104: return minor / 16;
    case 8: {
        int index = TavDriveMgr::getDriveNum(minor) - 1;
        if (index < 0 || index >= TAV_MAX_DISKS) {
            TAV_LOG(0, "drive minor:%d index:%d out of range %s:%d\n", minor, index, TAV_FILE, __LINE__);
            return -1;
        }
        return index;
    }
    default: return -1;
    }
}

DiskStatus memberStatus(int state)
{
    if (state & ((1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC))) return DISK_NOMINAL;
    return (state & (1 << MD_DISK_FAULTY)) ? DISK_FAULTY : DISK_REBUILDING;
}

} // namespace

void TavMdRaidDevice::getArrayInfo(const char* device, mdu_array_info_t* info)
{
    int fd = plat::open(device, O_RDONLY);
    if (fd < 0) {
        if (errno != EINVAL) TAV_LOG(0, "GET_ARRAY_INFO %s device:%s %s:%d\n", strerror(errno), device, TAV_FILE, __LINE__);
        return;
    }
    mdu_array_info_t got{};
    if (plat::ioctl(fd, GET_ARRAY_INFO, &got) != 0) {
        if (errno != EINVAL) TAV_LOG(0, "GET_ARRAY_INFO %s device:%s %s:%d\n", strerror(errno), device, TAV_FILE, __LINE__);
    } else {
        *info = got;
        TAV_LOG(TAV_LOG_L20, "%s level:%d raid_disks:%d active:%d working:%d failed:%d spare:%d\n", device, got.level,
                got.raid_disks, got.active_disks, got.working_disks, got.failed_disks, got.spare_disks);
    }
    plat::close(fd);
}

void TavMdRaidDevice::getDiskInfo(const char* device, int count, DiskStatus* out)
{
    for (int i = 0; i < count; ++i) out[i] = DISK_OFF;
    int fd = plat::open(device, O_RDONLY);
    if (fd < 0) return;
    for (int number = 0; number < count; ++number) {
        mdu_disk_info_t disk{};
        disk.number = number;
        if (plat::ioctl(fd, GET_DISK_INFO, &disk) != 0) {
            if (errno != EINVAL) TAV_LOG(0, "%s device:%s %s:%d\n", strerror(errno), device, TAV_FILE, __LINE__);
            break;
        }
        TAV_LOG(TAV_LOG_L10, "number:%d major:%d minor:%d raid_disk:%d state:%d\n", disk.number, disk.major,
                disk.minor, disk.raid_disk, disk.state);
        int index = memberIndex(disk.major, disk.minor);
        // Entries beyond the caller's array are not stored.
        if (index >= 0 && index < count) out[index] = memberStatus(disk.state);
    }
    plat::close(fd);
}

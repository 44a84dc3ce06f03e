#include "driveutils/tav_ide_bus.h"

#include "driveutils/tav_md_raiddev.h"

namespace RaidDeviceMgmt {

namespace {

const char* const kOsMirrors[] = {"/dev/md200", "/dev/md201"};
constexpr int kOsMirrorDisks = 4;
constexpr int kMirrorQueryDisks = 26;
const int kMirrorMap[][2] = {{1, 4}, {2, 3}};

int activeDisks(const char* set)
{
    mdu_array_info_t info{};
    TavMdRaidDevice::getArrayInfo(set, &info);
    return info.active_disks;
}

} // namespace

TavIdeBus::TavIdeBus(int controller, int count) : TavBus(count), icontroller(controller) {}

int TavIdeBus::checkOSRaid(int drive)
{
    int rc = checkOSRaid(drive, kOsMirrors[0]);
    return rc == 0 ? checkOSRaid(drive, kOsMirrors[1]) : rc;
}

int TavIdeBus::checkOSRaid(int drive, const char* set)
{
    if (activeDisks(set) > kOsMirrorDisks - 1) return 0;
    TavRaidDevice::DiskStatus status[kMirrorQueryDisks];
    TavMdRaidDevice::getDiskInfo(set, kMirrorQueryDisks, status);
    int ide = driveToIde(drive);
    if (ide == 0 && status[2] != TavRaidDevice::DISK_NOMINAL && status[3] != TavRaidDevice::DISK_NOMINAL) return 7;
    if (ide == 1 && status[0] != TavRaidDevice::DISK_NOMINAL && status[1] != TavRaidDevice::DISK_NOMINAL) return 6;
    return 0;
}

int TavIdeBus::osRaidComplete()
{
    for (const char* set : kOsMirrors)
        if (activeDisks(set) != kOsMirrorDisks) return 0;
    return 1;
}

int TavIdeBus::getMirrorMap(int row, int column)
{
    const int rows = static_cast<int>(sizeof kMirrorMap / sizeof kMirrorMap[0]);
    if (row < 0 || row >= rows || column < 0 || column > 1) return -1;
    return kMirrorMap[row][column];
}

int TavIdeBus::getRaid5ArraySize(const char*) { return 4; }

} // namespace RaidDeviceMgmt

// The drive manager's verdict on a drive and the RAID state it is asked for.
#include <cstring>

#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavlock.h"
#include "driveutils/tavraiddevices.h"

static int giDebug_tavpolicy = 0;
#define TAV_DEBUG_FLAG giDebug_tavpolicy
#include "driveutils/tavlog.h"

namespace {

const char* const kOsMirrors[] = {"/dev/md200", "/dev/md201"};
constexpr int kMirrorQueryDisks = 26;
constexpr int kSerialSize = 64;

} // namespace

int TavDriveMgr::checkDrive(int driveID) { return checkDrive(driveID, nullptr); }

int TavDriveMgr::checkDrive(int driveID, long long* mountTime)
{
    RaidDeviceMgmt::TavDrive* drive = getDrive(driveID);
    if (!drive) return -1;
    if (int rc = drive->validatePartitions()) return rc;
    if (int rc = drive->validateSignature(mountTime)) return rc;
    char serial[kSerialSize] = {};
    std::string text;
    drive->getSerialNo(text);
    std::strncpy(serial, text.c_str(), sizeof serial - 1);
    return validSerialNumber(serial) ? 0 : 15;
}

int TavDriveMgr::checkOsRebuilding(const char* mddev)
{
    mdu_array_info_t info{};
    TavMdRaidDevice::getArrayInfo(mddev, &info);
    if (!(info.active_disks < info.raid_disks && info.active_disks < info.working_disks)) return 0;
    TavRaidDevice::DiskStatus status[kMirrorQueryDisks];
    TavMdRaidDevice::getDiskInfo(mddev, kMirrorQueryDisks, status);
    if (nDrives < 1) return TavRaidDevice::NOT_REBUILDING;
    for (int i = 0; i < nDrives && i < kMirrorQueryDisks; ++i)
        if (status[i] == TavRaidDevice::DISK_REBUILDING) return 0;
    return TavRaidDevice::NOT_REBUILDING;
}

TavRaidDevices* TavDriveMgr::getRaidDevices()
{
    TavLocked lock(accessMutex);
    return devices ? new TavRaidDevices(*devices) : nullptr;
}

void TavDriveMgr::setRaidDevices(TavRaidDevices* tree)
{
    TavRaidDevices* copy = tree ? new TavRaidDevices(*tree) : nullptr;
    TavLocked lock(accessMutex);
    delete devices;
    devices = copy;
}

int TavDriveMgr::checkDataRaid()
{
    TavRaidDevices* copy = nullptr;
    {
        TavLocked lock(accessMutex);
        if (devices) copy = new TavRaidDevices(*devices);
    }
    if (!copy) return TavRaidDevice::OFF;
    int status = copy->checkRaid();
    delete copy;
    return status;
}

int TavDriveMgr::checkRaid()
{
    TAV_LOG(0, "checkRaid() devices:%p %s:%d\n", static_cast<void*>(devices), TAV_FILE, __LINE__);
    for (const char* mirror : kOsMirrors)
        if (checkOsRebuilding(mirror) == TavRaidDevice::NOT_REBUILDING) return TavRaidDevice::NOT_REBUILDING;
    return checkDataRaid();
}

bool TavDriveMgr::raidRunning()
{
    int status = checkRaid();
    return status == TavRaidDevice::NOMINAL || status == TavRaidDevice::REBUILDING || status == TavRaidDevice::DEGRADED;
}

int TavDriveMgr::isActive(int driveID)
{
    TavLocked lock(accessMutex);
    if (!devices) {
        TAV_LOG(0, "isActive(%d)  no devices %s:%d\n", driveID, TAV_FILE, __LINE__);
        return 0;
    }
    TavRaidDevice* node = devices->findDisk(driveID);
    if (!node) return 0;
    if (!node->getParent()) {
        // A drive of its own, with no array.
        RaidDeviceMgmt::TavDrive* drive = getDrive(driveID);
        if (!drive || !drive->pingLogicalDrive()) node->setActive(0);
    } else {
        TavRaidDevice::DiskStatus status[TavRaidDevice::MAX_DISKS] = {};
        devices->getDiskInfo(TavRaidDevice::MAX_DISKS, status);
        TavRaidDevice::DiskStatus entry =
            driveID >= 1 && driveID <= TavRaidDevice::MAX_DISKS ? status[driveID - 1] : TavRaidDevice::DISK_OFF;
        node->setActive(entry == TavRaidDevice::DISK_NOMINAL || entry == TavRaidDevice::DISK_REBUILDING);
    }
    return node->isActive();
}

void TavDriveMgr::addToOsRaid(int driveID)
{
    if (RaidDeviceMgmt::TavDrive* drive = getDrive(driveID)) drive->addToOsRaid();
}

void TavDriveMgr::initBootSector(int driveID)
{
    if (RaidDeviceMgmt::TavDrive* drive = getDrive(driveID)) drive->initBootSector();
}

void TavDriveMgr::addToOS(int driveID)
{
    addToOsRaid(driveID);
    initBootSector(driveID);
}

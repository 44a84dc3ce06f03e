// The drive manager's verdict on a drive and the RAID state it is asked for.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavlock.h"
#include "driveutils/tavraiddevices.h"
#include "driveutils/tavsysutils.h"
#include "platform/platform.h"
#include "tavconfig/tavassert.h"

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

int TavDriveMgr::isHotSpare(int driveID)
{
    TavLocked lock(accessMutex);
    if (!devices) {
        // The wording of isActive, here too.
        TAV_LOG(0, "isActive(%d)  no devices %s:%d\n", driveID, TAV_FILE, __LINE__);
        return 0;
    }
    TavRaidDevice* node = devices->findDisk(driveID);
    if (!node || !node->getParent()) return 0;
    return node->getParent()->isHotSpare(driveID) ? 1 : 0;
}

int TavDriveMgr::getRaidLevel()
{
    TavRaidDevices* copy = getRaidDevices();
    if (!copy) return -1;
    int level = copy->getRaidLevel();
    delete copy;
    return level;
}

const char* TavDriveMgr::getRaidStatusString(int status)
{
    switch (status) {
    case TavRaidDevice::NOMINAL: return "normal";
    case TavRaidDevice::REBUILDING: return "rebuilding";
    case TavRaidDevice::DEGRADED: return "degraded";
    case TavRaidDevice::OFF: return "off";
    case TavRaidDevice::NOT_REBUILDING: return "RAID rebuild didn't start. You must reboot to rebuild all RAID arrays.";
    default: return "unknown";
    }
}

// Every required card must answer with its serial number. The card classes
// come with the cards' own code; until a platform's class exists its list of
// cards is empty, and each required card is reported missing.
int TavDriveMgr::checkNVRam(std::string& errorMsg)
{
    errorMsg.clear();
    if (!requiredNVRamCards) return 0;
    for (unsigned int card : *requiredNVRamCards) {
        bool found = false;
        for (int i = 0; i < nNvrams && !found; ++i) found = nvramSerialNumberMatches(i, card, errorMsg);
        if (found) continue;
        if (!errorMsg.empty()) return 3;
        char text[128];
        snprintf(text, sizeof text, "RQDC card %u cannot be found. Call customer support for assistance.", card);
        TAV_LOG(0, "%s\n", text);
        errorMsg = text;
        return 3;
    }
    return 0;
}

// No card class exists yet to ask.
bool TavDriveMgr::nvramSerialNumberMatches(int, unsigned int, std::string&) { return false; }

namespace {

void runAll(std::initializer_list<const char*> commands)
{
    for (const char* command : commands) tav_system(command);
}

} // namespace

void TavDriveMgr::stopServicesOnFS(const char* fs)
{
    TAV_ASSERT(fs);
    if (std::strcmp(fs, "/var/log") != 0) {
        TAV_LOG(0, "Error: Unknow service on=%s (%s:%d)\n", fs, TAV_FILE, __LINE__);
        return;
    }
    runAll({"/sbin/service syslog stop", "/sbin/service crond stop", "/usr/bin/killall ipmitool",
            "/usr/bin/killall logrotate"});
    closelog();
    // Whatever still holds a file there.
    FILE* holders = plat::popen("lsof +D /var/log -Fp0", "r");
    if (!holders) return;
    char word[64];
    while (fscanf(holders, "%63s", word) == 1) {
        char* end = nullptr;
        long pid = word[0] == 'p' ? strtol(word + 1, &end, 10) : 0;
        if (pid > 0 && end && *end == '\0') plat::kill(static_cast<pid_t>(pid), SIGKILL);
    }
    plat::pclose(holders);
}

void TavDriveMgr::startServicesOnFS(const char* fs)
{
    TAV_ASSERT(fs);
    if (std::strcmp(fs, "/var/log") != 0) {
        TAV_LOG(0, "Error: Unknow service on=%s (%s:%d)\n", fs, TAV_FILE, __LINE__);
        return;
    }
    runAll({"/usr/bin/killall logger", "/sbin/service syslog start", "/sbin/service crond start"});
    closelog();
}

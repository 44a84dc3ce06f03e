#include "driveutils/tav_ide_bus.h"

#include <cstdio>
#include <exception>
#include <memory>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/ondraProcess.h"
#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavhdwcache.h"
#include "driveutils/tavraiddevices.h"
#include "hotswap/libcharon.h"
#include "platform/platform.h"

static int giDebug_tav_ide_bus = 0;
#define TAV_DEBUG_FLAG giDebug_tav_ide_bus
#include "driveutils/tavlog.h"

namespace RaidDeviceMgmt {

namespace {

const char* const kOsMirrors[] = {"/dev/md200", "/dev/md201"};
constexpr int kOsMirrorDisks = 4;
constexpr int kMirrorQueryDisks = 26;
const int kMirrorMap[][2] = {{1, 4}, {2, 3}};

// Codes of the error table.
constexpr int kNotDeactivated = 1;
constexpr int kNotReactivated = 2;
constexpr int kPowerDownFailed = 3;
constexpr int kPartnerNotUp = 4;
constexpr int kPowerUpFailed = 5;
constexpr int kRebuilding = 9;
constexpr int kNotOnline = 13;
constexpr int kNotOffline = 14;

// The driver's answer to detaching an interface that is down already.
constexpr int kAlreadyDown = -3;

// The chassis controller's commands take their drive lists as text and
// leave their answer in the buffer.
constexpr int kDspBuffer = 256;
constexpr int kDspShortBuffer = 64;

constexpr int kRaid5 = 5;
constexpr int kStore = ONDRA_PROC_STORE;
constexpr int kDaemonState = 1;

int activeDisks(const char* set)
{
    mdu_array_info_t info{};
    TavMdRaidDevice::getArrayInfo(set, &info);
    return info.active_disks;
}

bool detached(int rc) { return rc == 0 || rc == kAlreadyDown; }

// "%d %d" of one drive, or "%d%d %d%d" of two: the same list twice, for the
// power and the clamp.
struct DriveLists {
    char text[kDspBuffer] = {};
    explicit DriveLists(int drive) { std::snprintf(text, sizeof text, "%d %d", drive, drive); }
    DriveLists(int drive, int partner) { std::snprintf(text, sizeof text, "%d%d %d%d", drive, partner, drive, partner); }
};

// Sends a power command with `lists`, `length` bytes of buffer for the answer.
int sendPower(int (*command)(char*, int), const DriveLists& lists, int length)
{
    char buffer[kDspBuffer] = {};
    std::snprintf(buffer, sizeof buffer, "%s", lists.text);
    return command(buffer, length);
}

bool storeRunning()
{
    TavString state;
    return ondraIf.getRun(state, kStore) == 0 && state == "TRUE";
}

// What the manager knows of a drive before the bus touches it.
struct DriveState {
    int active = 0;
    bool power = false;
    int check = -1;
};

DriveState partnerState(int partner)
{
    DriveState s;
    s.active = TavDriveMgr::isActive(partner);
    s.power = TavDspDiskStatus::userSpaceHasPower(partner - 1);
    s.check = TavDriveMgr::checkDrive(partner);
    return s;
}

void takeOut(int drive)
{
    TavDriveMgr::removeFromRaid(drive);
    TavDriveMgr::removeFromOS(drive);
}

// A drive whose array is rebuilding: pulling any member now loses the array.
bool rebuilding(int drive)
{
    std::unique_ptr<TavRaidDevices> copy(TavDriveMgr::getRaidDevices());
    TavRaidDevice* disk = copy ? copy->findDisk(drive) : nullptr;
    return disk && disk->checkRaidStatus() == TavRaidDevice::REBUILDING;
}

// Into the RAID when it was active, into the OS mirror when its check was 0.
void putBack(int drive, int active, int check)
{
    if (active) TavDriveMgr::addToRaid(drive);
    if (check == 0) TavDriveMgr::addToOS(drive);
}

} // namespace

void restoreState(int drive, int active, int check, bool restart)
{
    putBack(drive, active, check);
    if (restart && TavDriveMgr::raidRunning()) {
        TavString buffer;
        ondraIf.processStart(buffer, kDaemonState, kStore);
    }
    TavDriveMgr::updateMountTimeAfterRebuild();
}

TavIdeBus::TavIdeBus(int controller, int count) : TavBus(count), icontroller(controller) {}

// --- power ---

void TavIdeBus::deactivateBus(int drive, bool force)
{
    const int ide = driveToIde(drive);
    TAV_LOG(0, "before charon_deactivate_if on %d %s:%d\n", ide, TAV_FILE, __LINE__);
    int rc = charon_deactivate_if(ide);
    if (force && !detached(rc)) {
        TAV_LOG(0, "rc:%d %s:%d\n", rc, TAV_FILE, __LINE__);
        for (;;) {
            plat::sleep(1);
            char status[kDspBuffer] = {};
            dspStatus(status, sizeof status);
            if (TavDspDiskStatus::warningClosed(drive - 1)) {
                // The bay's lock is closed again: the user changed their mind.
                TAV_LOG(0, "TavDspDiskStatus::warningClosed(%d) %s:%d\n", drive - 1, TAV_FILE, __LINE__);
                break;
            }
            rc = charon_deactivate_if(ide);
            TAV_LOG(0, "rc:%d %s:%d\n", rc, TAV_FILE, __LINE__);
            if (detached(rc)) break;
        }
    }
    TAV_LOG(0, "after charon_deactivate_if on %d rc %d %s:%d\n", ide, rc, TAV_FILE, __LINE__);
    if (!detached(rc)) throw IdeBusException{kNotDeactivated};
}

void TavIdeBus::powerDownDrives(int drive, int partner)
{
    const DriveLists lists(drive, partner);
    int rc = sendPower(dspPowerDown, lists, kDspBuffer);
    TAV_LOG(0, "after dspPowerDown on %s rc:%d %s:%d\n", lists.text, rc, TAV_FILE, __LINE__);
    if (rc != 0) {
        charon_activate_if(driveToIde(drive));
        SetAllHardDriveWriteCacheToSelected();
        throw IdeBusException{kPowerDownFailed};
    }
}

// No exception leaves the bus: one the manager lets out (memory, mostly)
// ends the operation with the table's code for the direction.
int TavIdeBus::powerDown(int drive, bool force)
{
    try {
        return powerDownSteps(drive, force);
    } catch (const std::exception& e) {
        TAV_LOG(0, "powerDown(%d): %s %s:%d\n", drive, e.what(), TAV_FILE, __LINE__);
    } catch (...) {
        TAV_LOG(0, "powerDown(%d): unknown exception %s:%d\n", drive, TAV_FILE, __LINE__);
    }
    return kNotOffline;
}

int TavIdeBus::powerUp(int drive)
{
    try {
        return powerUpSteps(drive);
    } catch (const std::exception& e) {
        TAV_LOG(0, "powerUp(%d): %s %s:%d\n", drive, e.what(), TAV_FILE, __LINE__);
    } catch (...) {
        TAV_LOG(0, "powerUp(%d): unknown exception %s:%d\n", drive, TAV_FILE, __LINE__);
    }
    return kNotOnline;
}

int TavIdeBus::powerDownSteps(int drive, bool force)
{
    const int partner = partnerOf(drive);
    const int ide = driveToIde(drive);
    // The drive's own check is remembered too, so that a failed change puts
    // it back into the OS mirror only when it was fit for it.
    DriveState self;
    self.power = TavDspDiskStatus::hasPower(drive - 1);
    self.active = TavDriveMgr::isActive(drive);
    self.check = TavDriveMgr::checkDrive(drive);

    if (TavDriveMgr::getRaidLevel() == kRaid5 && rebuilding(drive)) return kRebuilding;
    takeOut(drive);
    const DriveState other = partnerState(partner);
    takeOut(partner);

    TavDspDiskStatus::userSpaceSetPower(drive - 1, false);
    TavDspDiskStatus::userSpaceSetPower(partner - 1, false);
    try {
        deactivateBus(drive, force);
        powerDownDrives(drive, partner);
    } catch (IdeBusException e) {
        TavDspDiskStatus::userSpaceSetPower(drive - 1, self.power);
        TavDspDiskStatus::userSpaceSetPower(partner - 1, other.power);
        putBack(drive, self.active, self.check);
        putBack(partner, other.active, other.check);
        TavDriveMgr::updateMountTimeAfterRebuild();
        return e.code;
    }

    TavDspDiskStatus::userSpaceSetPower(drive - 1, false);
    TavDspDiskStatus::setBusActive(drive - 1, false);
    int result = 0;
    if (other.power) {
        if (sendPower(dspPowerUp, DriveLists(partner), kDspBuffer) == 0) {
            TavDspDiskStatus::userSpaceSetPower(partner - 1, true);
            TAV_LOG(0, "sleep %d at %s:%d\n", TavBus::sleepTime, TAV_FILE, __LINE__);
            plat::sleep(static_cast<unsigned>(TavBus::sleepTime));
        } else {
            result = kPartnerNotUp;
        }
    }
    // An interface left detached outweighs a partner left off: it holds no drive at all.
    if (charon_activate_if(ide) != 0) result = kNotReactivated;
    SetAllHardDriveWriteCacheToSelected();

    if (TavDriveMgr::checkDrive(partner) == 0) {
        TavDriveMgr::addToOS(partner);
        if (other.active) TavDriveMgr::addToRaid(partner);
    }
    TavDriveMgr::updateMountTimeAfterRebuild();
    return result;
}

int TavIdeBus::powerUpSteps(int drive)
{
    const int partner = partnerOf(drive);
    const int ide = driveToIde(drive);
    const int raid = TavDriveMgr::checkRaid();
    const long long latest = TavDriveMgr::getLatestUnmountTime();
    const DriveState other = partnerState(partner);

    bool stopped = false;
    if (TavDriveMgr::getRaidLevel() == kRaid5 && storeRunning()) {
        TavString buffer;
        ondraIf.processStop(buffer, kStore);
        stopped = true;
    }
    takeOut(partner);

    int rc = charon_deactivate_if(ide);
    TAV_LOG(0, "charon_deactivate_if ide:%d returns:%d %s:%d\n", ide, rc, TAV_FILE, __LINE__);
    if (!detached(rc)) {
        restoreState(partner, other.active, other.check, stopped);
        return kNotDeactivated;
    }

    TavDspDiskStatus::userSpaceSetPower(partner - 1, false);
    const DriveLists partnerOnly(partner);
    TAV_LOG(0, "dspPowerDown(%s) %s:%d\n", partnerOnly.text, TAV_FILE, __LINE__);
    if (sendPower(dspPowerDown, partnerOnly, kDspShortBuffer) != 0) {
        rc = charon_activate_if(ide);
        TAV_LOG(0, "charon_activate_if ide:%d returns:%d %s:%d\n", ide, rc, TAV_FILE, __LINE__);
        SetAllHardDriveWriteCacheToSelected();
        restoreState(partner, other.active, other.check, stopped);
        TavDspDiskStatus::userSpaceSetPower(partner - 1, other.power);
        return kPowerDownFailed;
    }
    TAV_LOG(0, "after dspPowerDown on %s %s:%d\n", partnerOnly.text, TAV_FILE, __LINE__);

    int result = 0;
    const DriveLists wanted = other.power ? DriveLists(drive, partner) : DriveLists(drive);
    TAV_LOG(0, "dspPowerUp(%s) %s:%d\n", wanted.text, TAV_FILE, __LINE__);
    if (sendPower(dspPowerUp, wanted, kDspShortBuffer) == 0) {
        if (TavDrive* d = TavDriveMgr::getDrive(drive)) d->setDeviceNum();
        TavDspDiskStatus::userSpaceSetPower(drive - 1, true);
        TavDspDiskStatus::setBusActive(drive - 1, true);
        if (other.power) {
            if (TavDrive* p = TavDriveMgr::getDrive(partner)) p->setDeviceNum();
            TavDspDiskStatus::userSpaceSetPower(partner - 1, true);
            TavDspDiskStatus::setBusActive(partner - 1, true);
        }
        TAV_LOG(0, "sleep %d at %s:%d\n", TavBus::sleepTime, TAV_FILE, __LINE__);
        plat::sleep(static_cast<unsigned>(TavBus::sleepTime));
    } else {
        result = kPowerUpFailed;
    }

    rc = charon_activate_if(ide);
    TAV_LOG(0, "charon_activate_if %d returns %d %s:%d\n", ide, rc, TAV_FILE, __LINE__);
    // As in powerDown: a detached interface is the failure that counts.
    if (rc != 0) result = kNotReactivated;
    SetAllHardDriveWriteCacheToSelected();
    restoreState(partner, other.active, other.check, stopped);

    const int sigrc = TavDriveMgr::checkDrive(drive, nullptr);
    TavDriveMgr::allocDriveTable(drive);
    // A drive left behind by a RAID that went off is stale: it must not
    // bring an old copy back into the array.
    long long stamp = 0;
    const bool known = TavDriveMgr::getUnmountTime(drive, stamp);
    const bool add = !(raid == TavRaidDevice::OFF && (!known || stamp != latest));
    if (add && (sigrc == 0 || sigrc == 9)) {
        TavDriveMgr::addToRaid(drive);
        TavDriveMgr::addToOS(drive);
        TavDriveMgr::createDriveSignature(drive, 0);
        TavDriveMgr::writeSignature(drive);
        TavDriveMgr::updateMountTimeAfterRebuild();
    }
    return result;
}

// --- the OS mirror ---

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

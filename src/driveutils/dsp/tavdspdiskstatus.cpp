#include "driveutils/dsp/tavdspdiskstatus.h"

#include <cstdint>

#include "driveutils/dsp/dspcommon.h"
#include "platform/platform.h"
#include "platform/tavio.h"

static int giDebug_tavdspdiskstatus = 0;
#define TAV_DEBUG_FLAG giDebug_tavdspdiskstatus
#include "driveutils/tavlog.h"

// An error-checking mutex: a thread that already holds the table and asks
// again gets a logged failure and the read default, not a deadlock.
pthread_mutex_t TavDspDiskStatus::mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
TavDspStatus TavDspDiskStatus::drives[MAX_DRIVES] = {};
int TavDspDiskStatus::changeForWorse[MAX_DRIVES] = {};
int TavDspDiskStatus::diskStatusDelta[MAX_DRIVES] = {};
int TavDspDiskStatus::statusIsAvailable = 0;

namespace {

using Table = TavDspDiskStatus;

// Runs `body` under the table's lock. A lock or unlock that fails is logged
// and gives `fallback` (for writers, whose result nobody reads, a dummy).
template <typename T, typename Body>
T underLock(T fallback, Body body)
{
    if (pthread_mutex_lock(&Table::mutex) != 0) {
        TAV_LOG(0, "Unable to lock mutex; %s:%d\n", TAV_FILE, __LINE__);
        return fallback;
    }
    T value = body();
    if (pthread_mutex_unlock(&Table::mutex) != 0) {
        TAV_LOG(0, "Unable to unlock mutex; %s:%d\n", TAV_FILE, __LINE__);
        return fallback;
    }
    return value;
}

bool validDrive(int drive)
{
    if (drive >= 0 && drive < Table::MAX_DRIVES) return true;
    TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
    return false;
}

// A read of one drive's entry under the lock; false for a drive outside the table.
template <typename Read>
bool readDrive(int drive, Read read)
{
    if (!validDrive(drive)) return false;
    return underLock(false, [&] { return read(Table::drives[drive]); });
}

template <typename Write>
void writeDrive(int drive, Write write)
{
    if (!validDrive(drive)) return;
    underLock(0, [&] {
        write(Table::drives[drive]);
        return 0;
    });
}

// The DSP's four flags of a drive's status byte (its low nibble), each 0 when all is well.
TavDspStatus flagsOf(uint8_t status)
{
    TavDspStatus s{};
    s.power = (status >> 3) & 1;
    s.criticalSwitch = !((status >> 2) & 1);
    s.clamp = (status >> 1) & 1;
    s.warningSwitch = !(status & 1);
    return s;
}

unsigned int dspFlags(const TavDspStatus& s)
{
    return s.power | s.criticalSwitch << 1 | s.clamp << 2 | s.warningSwitch << 3;
}

unsigned int allFlags(const TavDspStatus& s) { return dspFlags(s) | s.userSpacePower << 4 | s.dontCare << 5; }

// Only the bays of the unit are taken from a record: the driver leaves the
// bytes of bays a four-drive unit lacks at zero, which would read as open
// switches, so those entries stay clear (all well) as initDriveStatus left them.
void storeFlags(const tavDspKernelChar* record)
{
    int count = dspcmd::unitDrives();
    for (int d = 0; d < count; ++d) {
        TavDspStatus s = flagsOf(record->status[d]);
        TavDspStatus& entry = Table::drives[d];
        entry.power = s.power;
        entry.criticalSwitch = s.criticalSwitch;
        entry.clamp = s.clamp;
        entry.warningSwitch = s.warningSwitch;
    }
}

void clearChanges()
{
    for (int d = 0; d < Table::MAX_DRIVES; ++d) Table::changeForWorse[d] = Table::diskStatusDelta[d] = 0;
}

} // namespace

int TavDspDiskStatus::setDriveStatus(tavDspKernelChar* record)
{
    if (!record) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    return underLock(-1, [&] {
        storeFlags(record);
        return 0;
    });
}

// The deltas are cleared and set anew on every call, so only the last
// record's changes show. The reader compares a status record twice (once as
// it reads it, once while making the status text), so after a status record
// both arrays are zero again. That is how the table has always behaved.
int TavDspDiskStatus::compareDriveStatus(tavDspKernelChar* record)
{
    if (!record) {
        TAV_LOG(0, "Invalid parameters; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    return underLock(-1, [&] {
        int count = dspcmd::unitDrives();
        clearChanges();
        for (int d = 0; d < count; ++d) {
            unsigned int before = dspFlags(drives[d]);
            unsigned int after = dspFlags(flagsOf(record->status[d]));
            // Only a drive that was fully well changes for the worse.
            changeForWorse[d] = before == 0 && after != 0;
            diskStatusDelta[d] = before != after;
        }
        storeFlags(record);
        return 0;
    });
}

bool TavDspDiskStatus::statusChanged()
{
    return underLock(false, [] {
        bool changed = false;
        for (int& delta : diskStatusDelta) {
            if (delta == 1) changed = true;
            delta = 0;
        }
        return changed;
    });
}

bool TavDspDiskStatus::allDrivesOperating()
{
    return underLock(true, [] {
        for (const TavDspStatus& entry : drives)
            if (allFlags(entry) != 0) return false;
        return true;
    });
}

bool TavDspDiskStatus::driveOperating(int drive)
{
    return readDrive(drive, [](const TavDspStatus& s) { return allFlags(s) == 0; });
}

// Waits, with no time limit, for the first status record: a silent DSP keeps
// the reader here for ever, and a failing driver is asked again at once.
int TavDspDiskStatus::initDriveStatus()
{
    int fd = tavDspDriverFd();
    if (fd < 0) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    underLock(0, [] {
        for (TavDspStatus& entry : drives) entry = TavDspStatus{};
        return 0;
    });

    // Written straight to the driver: no echo of it is looked for.
    unsigned char request[TAV_DSP_CMD_LEN] = {TAV_DSP_STATUS_CMD, TAV_DSP_POWER_CLAMP_SUB};
    if (tav_write(fd, request, sizeof request) != static_cast<ssize_t>(sizeof request)) {
        TAV_LOG(0, "Unable to write cmd; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    for (;;) {
        tavDspKernelChar record{};
        int rc = plat::ioctl(fd, TAV_DSP_NEXT_MSG, &record);
        if (rc == 0) {
            plat::sleep(1);
        } else if (rc > 0 && record.type == TAV_DSP_K_DRV_STAT) {
            compareDriveStatus(&record);
            statusIsReady(1);
            break;
        }
    }
    // The first state read is no change.
    underLock(0, [] {
        clearChanges();
        return 0;
    });
    initUserSpaceFlags();
    return 0;
}

// The value is not looked at: any call marks the drive.
void TavDspDiskStatus::worseDrive(int drive, int /*value*/)
{
    if (!validDrive(drive)) return;
    underLock(0, [&] { return changeForWorse[drive] = 1; });
}

int TavDspDiskStatus::worseDrive(int drive)
{
    if (!validDrive(drive)) return 0;
    return underLock(0, [&] { return changeForWorse[drive]; });
}

bool TavDspDiskStatus::hasPower(int drive)
{
    return readDrive(drive, [](const TavDspStatus& s) { return !s.power; });
}

bool TavDspDiskStatus::busIsActive(int drive)
{
    return readDrive(drive, [](const TavDspStatus& s) { return !s.clamp; });
}

bool TavDspDiskStatus::criticalClosed(int drive)
{
    return readDrive(drive, [](const TavDspStatus& s) { return !s.criticalSwitch; });
}

bool TavDspDiskStatus::warningClosed(int drive)
{
    return readDrive(drive, [](const TavDspStatus& s) { return !s.warningSwitch; });
}

void TavDspDiskStatus::setPower(int drive, bool on)
{
    writeDrive(drive, [on](TavDspStatus& s) { s.power = !on; });
}

void TavDspDiskStatus::setBusActive(int drive, bool active)
{
    writeDrive(drive, [active](TavDspStatus& s) { s.clamp = !active; });
}

void TavDspDiskStatus::statusIsReady(int value)
{
    underLock(0, [value] { return statusIsAvailable = value; });
}

int TavDspDiskStatus::statusIsReady()
{
    return underLock(0, [] { return statusIsAvailable; });
}

void TavDspDiskStatus::initUserSpaceFlags()
{
    underLock(0, [] {
        for (TavDspStatus& entry : drives) entry.userSpacePower = entry.power;
        return 0;
    });
}

bool TavDspDiskStatus::userSpaceHasPower(int drive)
{
    return readDrive(drive, [](const TavDspStatus& s) { return !s.userSpacePower; });
}

void TavDspDiskStatus::userSpaceSetPower(int drive, bool on)
{
    writeDrive(drive, [on](TavDspStatus& s) { s.userSpacePower = !on; });
}

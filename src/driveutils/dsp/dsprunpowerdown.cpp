#include <cstdio>
#include <memory>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/tavbus.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavudpthread.h"

static int giDebug_dsprunpowerdown = 0;
#define TAV_DEBUG_FLAG giDebug_dsprunpowerdown
#include "driveutils/tavlog.h"

namespace {

constexpr int kStore = 0;        // process type of the storage service
constexpr int kDaemonState = 1;  // its supervised run

// The bus of a 1-based drive, or null. The manager's lookup ends the process
// for a drive on no bus, so a number the DSP made up is refused before it.
RaidDeviceMgmt::TavBus* busOf(int drive)
{
    if (drive < 1 || drive > TavDriveMgr::getNDrives()) return nullptr;
    return TavDriveMgr::getBus(drive);
}

} // namespace

// Takes one drive down in order: the storage service stops around the power
// change if it ran, and starts again whatever the bus did. Nothing retries.
void* runPowerDown(void* arg)
{
    std::unique_ptr<int> owned(static_cast<int*>(arg));
    if (!owned) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return nullptr;
    }
    int drive = *owned;
    RaidDeviceMgmt::TavBus* bus = busOf(drive);
    if (!bus) {
        TAV_LOG(0, "No bus holds drive %d; %s:%d\n", drive, TAV_FILE, __LINE__);
        return nullptr;
    }
    if (!TavDspDiskStatus::userSpaceHasPower(drive - 1)) {
        TAV_LOG(0, "drive is already off %s:%d\n", TAV_FILE, __LINE__);
        return nullptr;
    }
    // This line has always been logged without a line end.
    if (TavDspDiskStatus::warningClosed(drive - 1)) TAV_LOG(0, "drive already in bay (should not happen)");

    TavString state;
    bool storeRan = ondraIf.getRun(state, kStore) == 0 && state == "TRUE";
    if (storeRan) ondraIf.processStop(state, kStore);

    if (bus->powerDown(drive, true) == 0) {
        char text[64];
        snprintf(text, sizeof text, "Drive %d was powered off.", drive);
        TAV_LOG(10, "%s %s:%d\n", text, TAV_FILE, __LINE__);
    } else {
        TAV_LOG(10, "powerDown failed %s:%d\n", TAV_FILE, __LINE__);
    }

    if (storeRan) {
        ondraIf.processStart(state, kDaemonState, kStore);
        TAVUDPThread::postMessage("in management group");
    }
    return nullptr;
}

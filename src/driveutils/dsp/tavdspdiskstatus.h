// The state of each drive bay as the chassis controller last reported it,
// kept by the link's reader, and the flag that software keeps of its own
// power decisions. Drive arguments are 0-based; every operation takes the
// table's lock for itself alone.
#pragma once

#include <pthread.h>

#include "driveutils/dsp/tavdsp.h"

// Flags are 0 when all is well.
struct TavDspStatus {
    unsigned int power : 1;           // no power: status bit 3 is 1
    unsigned int criticalSwitch : 1;  // critical switch open: status bit 2 is 0
    unsigned int clamp : 1;           // bus clamped off: status bit 1 is 1
    unsigned int warningSwitch : 1;   // warning switch (the bay's lock) open: status bit 0 is 0
    unsigned int userSpacePower : 1;  // software considers the drive off
    unsigned int dontCare : 3;
};
static_assert(sizeof(TavDspStatus) == sizeof(unsigned int));

class TavDspDiskStatus {
public:
    static constexpr int MAX_DRIVES = 8;

    static int setDriveStatus(tavDspKernelChar* record);
    static int compareDriveStatus(tavDspKernelChar* record);
    static bool statusChanged();
    static bool allDrivesOperating();
    static bool driveOperating(int drive);
    static int initDriveStatus();
    static void worseDrive(int drive, int value);
    static int worseDrive(int drive);
    static bool hasPower(int drive);
    static bool busIsActive(int drive);
    static bool criticalClosed(int drive);
    static bool warningClosed(int drive);
    static void setPower(int drive, bool on);
    static void setBusActive(int drive, bool active);
    static void statusIsReady(int value);
    static int statusIsReady();
    static void initUserSpaceFlags();
    static bool userSpaceHasPower(int drive);
    static void userSpaceSetPower(int drive, bool on);

    static pthread_mutex_t mutex;
    static TavDspStatus drives[MAX_DRIVES];
    static int changeForWorse[MAX_DRIVES];
    static int diskStatusDelta[MAX_DRIVES];
    static int statusIsAvailable;
};

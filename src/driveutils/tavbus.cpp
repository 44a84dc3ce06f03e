#include "driveutils/tavbus.h"

#include <cstdio>

#include "platform/platform.h"
#include "tavutils/tav_error.h"

static int giDebug_tavbus = 0;
#define TAV_DEBUG_FLAG giDebug_tavbus
#include "driveutils/tavlog.h"

namespace RaidDeviceMgmt {

const char* const TavBus::SLEEP_FILE = "./configs/etc/marrowby/spinupdelay.cfg";
int TavBus::sleepTime = 15;

// Codes 14 and 15 stand out of turn; a lookup does not care.
const TavBusError TavBus::errorMap[] = {
    {1, "the ide bus cannot be deactivated."},
    {2, "the ide bus cannot be reactivated."},
    {3, "the dsp failed to power down the drive."},
    {4, "the dsp failed to power up the drive."},
    {5, "the dsp failed to unclamp drives."},
    {6, "neither drive 1 nor 2 has a functional operating system."},
    {7, "neither drive 3 nor 4 has a functional operating system."},
    {8, "no other drive has a functional operating system."},
    {9, "the RAID array is rebuilding."},
    {10, "disks must be populated from left to right. There is an unused bay to the left of this disk."},
    {11, "there is no disk in the specified bay."},
    {12, "the drive cannot be initialized."},
    {13, "the drive cannot be brought online."},
    {15, "the drive cannot be read."},
    {14, "the drive cannot be brought offline."},
    {16, "the ondra filesystem could not be mounted."},
    {17, "the pre-existing ondra filesystem could not be unmounted"},
    {18, "a critical ondra configuration file could not be created on the backend LUN."},
    {19, "if you power off this drive, the entire RAID set will shut down. You must first replace any failed "
         "drives, add all replacement drives to RAID, and let the replacement drives finish rebuilding before you "
         "can power off this disk."},
    {20, "drive "},
    {21, " is a new drive"},
    {22, " is in the wrong bay"},
    {23, "it has a smaller capacity than the other disks. Disks added to the RAID must have the same or greater "
         "capacity as the disks currently in the RAID."},
    {24, "there is not enough memory for the additional disk capacity. Install more memory and try again."},
    {25, "configuring RAID requires 12 usable disk drives. "},
    {26, "configuring RAID requires 8 usable disk drives. "},
    {27, "configuring RAID requires 6 usable disk drives. "},
    {28, "configuring RAID requires 4 usable disk drives. "},
    {29, "Replace the unusable drive(s) and configure RAID again."},
    {30, "the disk in bay 1 is either off or missing."},
    {31, "the disk in bay 2 is either off or missing."},
    {32, "one or more of the disks in the first"},
    {33, "bays are either off or missing."},
};
const int TavBus::nErrorMap = static_cast<int>(sizeof errorMap / sizeof errorMap[0]);
static_assert(sizeof TavBus::errorMap / sizeof TavBus::errorMap[0] == 33);

TavBus::TavBus(int count) : drives(nullptr), nDrive(count < 0 ? 0 : count)
{
    try {
        drives = new TavDrive*[static_cast<size_t>(nDrive)]();
    } catch (...) {
        throw tav_enomem("new failed");
    }
    FILE* file = plat::fopen(SLEEP_FILE, "r");
    if (!file) return;
    int value = 0;
    if (std::fscanf(file, "%d", &value) == 1)
        sleepTime = value;
    else
        TAV_LOG(0, "bad value in %s\n", SLEEP_FILE);
    std::fclose(file);
}

TavBus::~TavBus() { delete[] drives; }

int TavBus::initDrive(int) { return 0; }
void TavBus::initDrives() {}
int TavBus::powerDown(int, bool) { return 0; }
int TavBus::powerUp(int) { return 0; }
void TavBus::flushDrives() {}

int TavBus::addDrive(TavDrive* drive)
{
    int free = -1;
    for (int i = 0; i < nDrive; ++i) {
        if (!drives[i]) {
            if (free < 0) free = i;
        } else if (drives[i]->getNumber() == drive->getNumber()) {
            return -1;
        }
    }
    if (free >= 0) drives[free] = drive;
    return free;
}

std::string TavBus::getErrorMessage(int code)
{
    for (int i = 0; i < nErrorMap; ++i)
        if (errorMap[i].code == code) return errorMap[i].message;
    char text[64];
    std::snprintf(text, sizeof text, "Unknown error occurred code:%d", code);
    return text;
}

// A bus is searched once it is complete; an empty slot is passed over rather
// than followed.
TavDrive* TavBus::searchDrive(int number)
{
    for (int i = 0; i < nDrive; ++i)
        if (drives[i] && drives[i]->getNumber() == number) return drives[i];
    return nullptr;
}

int TavBus::getDriveCount() const
{
    int count = 0;
    for (int i = 0; i < nDrive; ++i)
        if (drives[i]) ++count;
    return count;
}

template <typename Ask>
int TavBus::askFirstDrive(std::string& text, Ask ask)
{
    // An empty slot 0 answers as a bus without slots does.
    if (nDrive == 0 || !drives[0]) {
        text.clear();
        return 1;
    }
    return ask(*drives[0]);
}

int TavBus::getBiosVersion(std::string& text)
{
    return askFirstDrive(text, [&](TavDrive& d) { return d.getBiosVersion(text); });
}

int TavBus::getFirmwareVersion(std::string& text)
{
    return askFirstDrive(text, [&](TavDrive& d) { return d.getFirmwareVersion(text); });
}

int TavBus::getModel(std::string& text)
{
    return askFirstDrive(text, [&](TavDrive& d) { return d.getControllerModel(text); });
}

std::ostream& operator<<(std::ostream& out, const TavBus& bus)
{
    out << " nDrive: " << bus.nDrive;
    for (int i = 0; i < bus.nDrive; ++i)
        if (bus.drives[i]) out << " " << *bus.drives[i];
    return out;
}

} // namespace RaidDeviceMgmt

// A bus of plain IDE drives: two IDE interfaces of two drives each, whose
// drives are powered by the chassis controller and detached from the kernel
// through the hot-swap driver. Two drives share a cable, so a drive goes
// down or comes up with its partner: the interface is detached, both are
// powered down, the wanted ones powered up, and the interface attached again.
//
// No lock is taken here, and every wait runs with nothing held: the manager
// and the bay table guard themselves.
#pragma once

#include "driveutils/tavbus.h"

namespace RaidDeviceMgmt {

class TavIdeBus : public TavBus {
public:
    // A step that failed part-way; thrown by value and caught in powerDown.
    struct IdeBusException {
        int code;
    };

    TavIdeBus(int icontroller, int nDrive);

    // The interface of a 1-based drive number. One rule for every platform:
    // where a channel holds one drive it names the wrong one (see powerDown).
    static int driveToIde(int drive) { return (drive - 1) / 2; }
    // The drive sharing the cable: n + 1 for odd n, n - 1 for even n.
    static int partnerOf(int drive) { return drive % 2 ? drive + 1 : drive - 1; }

    // Detaches the drive's interface; throws IdeBusException 1 when it
    // stays attached. With `force` it retries once a second until the
    // detach works or the bay's lock is closed again.
    void deactivateBus(int drive, bool force);
    // Powers down both drives of the cable; throws IdeBusException 3 after
    // attaching the interface again when the chassis controller fails.
    void powerDownDrives(int drive, int partner);

    // 0, or the code of the error table: 1, 2, 3, 4 or 9.
    int powerDown(int drive, bool force) override;
    // 0, or the code of the error table: 1, 2, 3 or 5.
    int powerUp(int drive) override;

    int checkOSRaid(int drive) override;
    // 0, or the error code (6 or 7) when the other interface's disks are the last copies.
    int checkOSRaid(int drive, const char* set);
    int osRaidComplete() override;
    // The mirror pairs (1,4) (2,3), row-major in two columns; -1 outside them.
    int getMirrorMap(int row, int column) override;
    int getRaid5ArraySize(const char* device) override;

    int getController() const { return icontroller; }

private:
    int powerDownSteps(int drive, bool force);
    int powerUpSteps(int drive);

    int icontroller;
};

// Puts a drive back as it was before a failed bay change: into the RAID
// when it was `active`, into the OS mirror when its check was 0, and the
// storage service started again when `restart` is set and the RAID runs.
void restoreState(int drive, int active, int check, bool restart);

} // namespace RaidDeviceMgmt

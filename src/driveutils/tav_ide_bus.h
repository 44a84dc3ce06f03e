// A bus of plain IDE drives: one IDE interface holding up to two drives.
// Power operations arrive with hot-swap; until then the base's apply.
#pragma once

#include "driveutils/tavbus.h"

namespace RaidDeviceMgmt {

class TavIdeBus : public TavBus {
public:
    struct IdeBusException {
        int code;
    };

    TavIdeBus(int icontroller, int nDrive);

    // The interface of a 1-based drive number.
    static int driveToIde(int drive) { return (drive - 1) / 2; }

    int checkOSRaid(int drive) override;
    // 0, or the error code (6 or 7) when the other interface's disks are the last copies.
    int checkOSRaid(int drive, const char* set);
    int osRaidComplete() override;
    // The mirror pairs (1,4) (2,3), row-major in two columns; -1 outside them.
    int getMirrorMap(int row, int column) override;
    int getRaid5ArraySize(const char* device) override;

    int getController() const { return icontroller; }

private:
    int icontroller;
};

} // namespace RaidDeviceMgmt

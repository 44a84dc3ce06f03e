// The drive manager: one per process, all static. Its members arrive with
// the parts of the manager that use them; the drive classes need the number
// of drive positions of the platform.
#pragma once

class TavDriveMgr {
public:
    TavDriveMgr() = delete;

    // Drive positions of the platform; the length of the drive table.
    static int nDrives;
};

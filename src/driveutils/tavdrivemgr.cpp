#include "driveutils/tavdrivemgr.h"

int TavDriveMgr::nDrives = 0;

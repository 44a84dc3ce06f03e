// The device-name tables of the platform layouts.
#include "driveutils/tavdrivemgr.h"

// The second bus lists target 1 before target 0, deliberately.
const char* const hddevnames[] = {
    "/dev/ide/host0/bus0/target0/lun0/disc",
    "/dev/ide/host0/bus0/target1/lun0/disc",
    "/dev/ide/host0/bus1/target1/lun0/disc",
    "/dev/ide/host0/bus1/target0/lun0/disc",
    nullptr,
};

const char* const loamdevnames[] = {
    "/dev/ide/host0/bus0/target0/lun0/disc",
    "/dev/ide/host0/bus1/target0/lun0/disc",
    nullptr,
};

const char* const sddevnames[] = {
    "/dev/scsi/host1/bus0/target3/lun0/disc",
    "/dev/scsi/host1/bus0/target2/lun0/disc",
    "/dev/scsi/host1/bus0/target1/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target3/lun0/disc",
    "/dev/scsi/host0/bus0/target2/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    nullptr,
};

const char* const unodevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host2/bus0/target0/lun0/disc",
    "/dev/scsi/host3/bus0/target0/lun0/disc",
    nullptr,
};

const char* const satadevnames[] = {
    "/dev/ide/host2/bus0/target0/lun0/disc",
    "/dev/ide/host2/bus1/target0/lun0/disc",
    "/dev/ide/host4/bus0/target0/lun0/disc",
    "/dev/ide/host4/bus1/target0/lun0/disc",
    nullptr,
};

const char* const sixportdevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host0/bus0/target2/lun0/disc",
    "/dev/scsi/host0/bus0/target3/lun0/disc",
    "/dev/scsi/host0/bus0/target4/lun0/disc",
    "/dev/scsi/host0/bus0/target5/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host1/bus0/target1/lun0/disc",
    "/dev/scsi/host1/bus0/target2/lun0/disc",
    "/dev/scsi/host1/bus0/target3/lun0/disc",
    "/dev/scsi/host1/bus0/target4/lun0/disc",
    "/dev/scsi/host1/bus0/target5/lun0/disc",
    "/dev/scsi/host2/bus0/target0/lun0/disc",
    "/dev/scsi/host2/bus0/target1/lun0/disc",
    "/dev/scsi/host2/bus0/target2/lun0/disc",
    "/dev/scsi/host2/bus0/target3/lun0/disc",
    nullptr,
};

const char* const twdevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host0/bus0/target2/lun0/disc",
    "/dev/scsi/host0/bus0/target3/lun0/disc",
    nullptr,
};

const char* const twdocedevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host0/bus0/target2/lun0/disc",
    "/dev/scsi/host0/bus0/target3/lun0/disc",
    "/dev/scsi/host0/bus0/target4/lun0/disc",
    "/dev/scsi/host0/bus0/target5/lun0/disc",
    "/dev/scsi/host0/bus0/target6/lun0/disc",
    "/dev/scsi/host0/bus0/target7/lun0/disc",
    "/dev/scsi/host0/bus0/target8/lun0/disc",
    "/dev/scsi/host0/bus0/target9/lun0/disc",
    "/dev/scsi/host0/bus0/target10/lun0/disc",
    "/dev/scsi/host0/bus0/target11/lun0/disc",
    nullptr,
};

// Target 7 is the controller's own.
const char* const eightportdevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host0/bus0/target2/lun0/disc",
    "/dev/scsi/host0/bus0/target3/lun0/disc",
    "/dev/scsi/host0/bus0/target4/lun0/disc",
    "/dev/scsi/host0/bus0/target5/lun0/disc",
    "/dev/scsi/host0/bus0/target6/lun0/disc",
    "/dev/scsi/host0/bus0/target8/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host1/bus0/target1/lun0/disc",
    "/dev/scsi/host1/bus0/target2/lun0/disc",
    "/dev/scsi/host1/bus0/target3/lun0/disc",
    "/dev/scsi/host1/bus0/target4/lun0/disc",
    "/dev/scsi/host1/bus0/target5/lun0/disc",
    "/dev/scsi/host1/bus0/target6/lun0/disc",
    "/dev/scsi/host1/bus0/target8/lun0/disc",
    nullptr,
};

const char* const sorreldevnames[] = {
    "/dev/scsi/host0/bus1/target0/lun0/disc",
    "/dev/scsi/host0/bus1/target1/lun0/disc",
    "/dev/scsi/host0/bus1/target2/lun0/disc",
    "/dev/scsi/host0/bus1/target3/lun0/disc",
    "/dev/scsi/host0/bus1/target4/lun0/disc",
    "/dev/scsi/host0/bus1/target5/lun0/disc",
    "/dev/scsi/host1/bus1/target0/lun0/disc",
    "/dev/scsi/host1/bus1/target1/lun0/disc",
    "/dev/scsi/host1/bus1/target2/lun0/disc",
    "/dev/scsi/host1/bus1/target3/lun0/disc",
    "/dev/scsi/host1/bus1/target4/lun0/disc",
    "/dev/scsi/host1/bus1/target5/lun0/disc",
    nullptr,
};

const char* const hpdevnames[] = {
    "/dev/cciss/c0d2/disc",
    "/dev/cciss/c0d2a/disc",
    "/dev/cciss/c0d2b/disc",
    "/dev/cciss/c0d2c/disc",
    "/dev/cciss/c0d2d/disc",
    "/dev/cciss/c0d2e/disc",
    nullptr,
};

const char* const dell745Ndevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus1/target0/lun0/disc",
    "/dev/scsi/host0/bus2/target0/lun0/disc",
    "/dev/scsi/host0/bus3/target0/lun0/disc",
    nullptr,
};

// Used by no layout.
const char* const sixfourportdevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host2/bus0/target0/lun0/disc",
    nullptr,
};

// Used by no layout.
const char* const oneportdevnames[] = {
    "/dev/scsi/host0/bus1/target0/lun0/disc",
    "/dev/scsi/host1/bus1/target0/lun0/disc",
    nullptr,
};

// Used by no layout.
const char* const twoportdevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host1/bus0/target1/lun0/disc",
    nullptr,
};

// Used by no layout.
const char* const fourportdevnames[] = {
    "/dev/scsi/host0/bus0/target0/lun0/disc",
    "/dev/scsi/host0/bus0/target1/lun0/disc",
    "/dev/scsi/host0/bus0/target2/lun0/disc",
    "/dev/scsi/host0/bus0/target3/lun0/disc",
    "/dev/scsi/host1/bus0/target0/lun0/disc",
    "/dev/scsi/host1/bus0/target1/lun0/disc",
    "/dev/scsi/host1/bus0/target2/lun0/disc",
    "/dev/scsi/host1/bus0/target3/lun0/disc",
    nullptr,
};

const char* const oldhddevnames[] = {
    "/dev/hda2",
    "/dev/hdb2",
    "/dev/hdd2",
    "/dev/hdc2",
    nullptr,
};

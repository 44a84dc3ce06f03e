// Status queries of kernel md arrays. The md node class of the RAID tree
// comes with the tree; these static queries are what the drive manager and
// the IDE bus ask of the OS mirror before it.
#pragma once

#include <linux/major.h>
#include <linux/raid/md_p.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>

#include "driveutils/tavraiddevices.h"

class TavMdRaidDevice {
public:
    TavMdRaidDevice() = delete;

    // GET_ARRAY_INFO; `info` stays untouched when the array cannot be asked.
    static void getArrayInfo(const char* device, mdu_array_info_t* info);
    // `count` entries: DISK_OFF, then the state of each member by its position.
    static void getDiskInfo(const char* device, int count, DiskStatus* out);
};

// Nodes of the RAID tree on the kernel's md software RAID, the family of
// every platform without a RAID controller. All contact with the engine is by
// the md ioctls on the array's node. The static queries also serve for the OS
// mirrors "/dev/md200" and "/dev/md201", whatever the data arrays run on.
#pragma once

#include <linux/major.h>
#include <linux/raid/md_p.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>

#include "driveutils/tavraiddevice.h"

class TavMdRaidDevice : public TavRaidDevice {
public:
    TavMdRaidDevice(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                    TavRaidDevice* parent, int nTables, int nStringTables = 1);
    TavMdRaidDevice(int raidLevel, int nSubdevices, char** names, const char* mountPoint, int deviceNum,
                    int nSpareDisks);
    // A copy of a node of any family, named as an md node.
    explicit TavMdRaidDevice(const TavRaidDevice& other);
    TavMdRaidDevice(const TavMdRaidDevice& other) : TavMdRaidDevice(static_cast<const TavRaidDevice&>(other)) {}

    TavRaidDevice* addSubdevice(int raidLevel, int nSubdevices, char** names, int deviceNum) override;
    int addSubdevices(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                      int nTables) override;
    int addToOS() override;
    bool canStopRebuilding() override { return false; }
    RaidStatus checkRaidStatus() override;
    RaidStatus checkRaidStatus(const char* device) override;
    int createArray() override;
    void getDiskInfo(int count, DiskStatus* out) override;
    int getChunkSize() override { return 256; }
    const char* getConfigString() override;
    bool getPersistentSB() override { return true; }
    bool isRebuilding() override;
    int raidAdd() override;
    int raidSetFaulty() override;
    int raidStart(int* okDrives) override;
    int raidStop() override;
    int raidRemove() override;
    bool isHotSpare(int) override { return false; }
    int getMinRebuildRate() override;
    int setMinRebuildRate(int rate) override;
    int getMaxRebuildRate() override;
    int setMaxRebuildRate(int rate) override;

    // The stricter status of a running array.
    static RaidStatus checkRaidStatusEx(const char* device);
    // The array's active_disks; 3 when it cannot be read.
    static int getActiveDeviceCount(const char* device);
    // GET_ARRAY_INFO; `info` stays untouched when the array cannot be asked.
    static void getArrayInfo(const char* device, mdu_array_info_t* info);
    // `count` entries by drive position: DISK_OFF, then each member's state.
    static void getDiskInfo(const char* device, int count, DiskStatus* out);
    static bool isRebuilding(const char* device);
    // SET_ARRAY_INFO on this array: 0 (also when the array stands already),
    // 1 when it cannot be opened, 2 when the kernel refused.
    int setArrayInfo(void* info);

    // The rate in a file; -1 when it cannot be opened.
    static int getRebuildRate(const char* path);
    // "%d\n" into `first`, then into `second`: 0, or 1 when either open failed.
    static int setRebuildRate(int rate, const char* first, const char* second);

private:
    void nameNode();
    // A member operation on the parent array by the member's device number:
    // the ioctl's result and errno, or `openFailure` when the parent cannot be
    // opened. `what` names the operation in the logs.
    int memberIoctl(unsigned long request, const char* what, int openFailure);
};

// The kernel's rates for the time being, without the configuration: the
// empty second name fails, so these give 1 by design.
int setMinMdRebuildRate(int rate);
int setMaxMdRebuildRate(int rate);

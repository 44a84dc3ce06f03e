// The module's RAID tree: the list of top-level RAID devices, each the root
// of its members. Built from the signature's device and string tables after
// every start, flattened back into them at every signature write.
#pragma once

#include "driveutils/tavraiddevice.h"

class TavRaidDevices {
public:
    TavRaidDevices();
    // Top-level nodes from record 0 on, each followed by its subtree, up to
    // the first record whose device number is not above 0. `nStringTables`
    // bounds the mount points' tables (the format always holds one).
    TavRaidDevices(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int nTables, int nStringTables = 1);
    // A deep copy: the top-level nodes whole; their children carry only level,
    // count and number, active and without mount point.
    TavRaidDevices(TavRaidDevices& other);
    TavRaidDevices& operator=(const TavRaidDevices&) = delete;
    ~TavRaidDevices();

    // A node of the platform's family from configuration; not added anywhere.
    static TavRaidDevice* createDevice(int raidLevel, int nSubdevices, char** names, const char* mountPoint,
                                       int deviceNum, int nSpareDisks);

    // Appends the tree's records and mount points to the vectors, which hold
    // one empty table each on entry.
    void buildTables(TavVectorP<SECT_DEVICE_TABLE>* devTables, TavVectorP<SECT_STRING_TABLE>* stringTables);
    void add(TavRaidDevice* device) { devices.add(device); }
    bool anyRebuilding();
    TavRaidDevice::RaidStatus checkRaid();
    int getRaidLevel();
    void clearDevices();
    // MAX_DISKS entries, by drive position; `count` is not looked at.
    void getDiskInfo(int count, TavRaidDevice::DiskStatus* out);
    int getNTopLevelDevs() const { return devices.size(); }
    TavRaidDevice* getNthTopLevelDev(int n) const { return devices[n]; }
    TavRaidDevice* getNthRaidDev(int n);
    int getRaidDevCount();
    int getDiskCount();
    TavRaidDevice* findDevice(const char* name);
    TavRaidDevice* findDisk(int driveID);
    bool haveQuorum(int* okDrives);
    int raidStartAll(long now, int* okDrives);
    void setAllActive(int active);

private:
    static void addSubDevices(TavRaidDevice* copy, TavRaidDevice* source);

    TavVectorP<TavRaidDevice> devices;
};

// The platform identifier by the model information, 1 when there is none.
int tavRaidPlatformId();
// The platforms whose arrays a RAID controller keeps.
bool tavRaidPlatformHasController(int platform);
// Nodes of the platform's family: from tables, and a copy of `source`.
TavRaidDevice* tavRaidNodeFromTables(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                                     int nTables, int nStringTables);
TavRaidDevice* tavRaidNodeCopy(const TavRaidDevice& source);

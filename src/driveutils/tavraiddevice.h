// One node of the module's RAID tree: a top-level RAID device, a member
// array, or a disk at a leaf. The tree is rebuilt from the signature's device
// and string tables and flattened back into them; its evaluation (status,
// quorum, what losing a disk would do) is generic, and every contact with the
// RAID engine goes through the virtual operations a family overrides.
#pragma once

#include <cstdio>
#include <string>

#include "tavutils/tavdrivesig.h"
#include "tavutils/tavvectorp.h"

class TavRaidDevice {
public:
    enum DeviceType { UNKNOWN = 0, ARRAY = 1, DISK = 2, AEBS = 3 };
    enum RaidStatus { NOMINAL = 0, REBUILDING = 1, DEGRADED = 2, OFF = 3, NOT_REBUILDING = 4 };
    enum DiskStatus { DISK_NOMINAL = 0, DISK_HOTSPARE = 1, DISK_REBUILDING = 2, DISK_FAULTY = 3, DISK_OFF = 4 };

    // Status arrays hold this many entries throughout the system: the most
    // disk positions a module has.
    static constexpr int MAX_DISKS = 27;
    // Records of one device table.
    static constexpr int RECORDS_PER_TABLE = SECT_DEVICE_TABLE::kRecords;
    // A mount point's length is one signed byte in the string table.
    static constexpr int MAX_MOUNT_POINT = 127;

    // From tables: the record `index` of the tables; one past the last table
    // reads as all zero, the end marker. `nStringTables` bounds the mount
    // point's table (the format always holds at least one).
    TavRaidDevice(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                  TavRaidDevice* parent, int nTables, int nStringTables = 1);
    // From configuration; `names` is not used here.
    TavRaidDevice(int raidLevel, int nSubdevices, char** names, const char* mountPoint, int deviceNum,
                  int nSpareDisks);
    // Takes over parent, spare count, name, mount point, description and last
    // status; the children are not copied.
    TavRaidDevice(const TavRaidDevice& other);
    TavRaidDevice& operator=(const TavRaidDevice&) = delete;

    virtual ~TavRaidDevice();

    // --- the family's operations, in this order ---
    virtual TavRaidDevice* addSubdevice(int raidLevel, int nSubdevices, char** names, int deviceNum) = 0;
    virtual int addSubdevices(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                              int nTables) = 0;
    virtual int addToOS() = 0;
    virtual bool canStopRebuilding() = 0;
    virtual RaidStatus checkRaid();
    virtual RaidStatus checkRaidStatus();
    virtual RaidStatus checkRaidStatus(const char* device) = 0;
    virtual int checkArrayStatus();
    virtual int checkArrayStatus(const char* device);
    virtual int createArray() = 0;
    virtual void getDiskInfo(int count, DiskStatus* out) = 0;
    virtual int getChunkSize() = 0;
    virtual const char* getConfigString() = 0;
    virtual int getDisksToRebuild(const char* device, const char* label, char* out, int len);
    virtual const char* getStoreName();
    virtual bool getPersistentSB() = 0;
    virtual bool isRebuilding() = 0;
    virtual int raidAdd() = 0;
    virtual int raidSetFaulty() = 0;
    virtual int raidStart(int* okDrives) = 0;
    virtual int raidStop() = 0;
    virtual int raidRemove() = 0;
    virtual bool isHotSpare(int driveID) = 0;
    virtual int getMinRebuildRate() = 0;
    virtual int setMinRebuildRate(int rate) = 0;
    virtual int getMaxRebuildRate() = 0;
    virtual int setMaxRebuildRate(int rate) = 0;
    virtual int configureHardwareOptions();

    // --- the tree ---
    // Writes this node at record `index` and its subtree behind it; gives the
    // number of records written.
    int buildTables(TavVectorP<SECT_DEVICE_TABLE>* devTables, int* tableIndex, int index,
                    TavVectorP<SECT_STRING_TABLE>* stringTables, int stringIndex);
    bool anyRebuilding();
    TavRaidDevice* findDevice(const char* name);
    TavRaidDevice* findDisk(int driveID);
    int getDiskCount();
    int getRaidDeviceCount();
    TavRaidDevice* getNthRaidDevice(int n);
    bool haveQuorum(int* okDrives);
    int raidStartAll(long now, int* okDrives);
    void setActive(int active);
    int isActive() const { return description.isActive; }
    void setAllActive(int active);
    void setMountPointTable(int table, int index);
    int willCauseFailure(TavRaidDevice* target);
    bool willEnable(TavRaidDevice* target);

    // --- readers ---
    const SECT_RAID_DEV* getDescription() const { return &description; }
    const char* getName() const { return deviceName.c_str(); }
    const char* getMountPoint() const { return mountPoint; }
    int getType() const { return description.deviceType; }
    int getRaidLevel() const { return description.raidLevel; }
    // The record's number as the signed int the system compares: a number of
    // 2^31 or more reads as negative.
    int getDeviceNum() const { return static_cast<int>(description.deviceNum); }
    int getNumDevices() const { return static_cast<int>(description.numDevices); }
    TavRaidDevice* getParent() const { return parent; }
    const char* getParentName() const { return parent ? parent->getName() : nullptr; }
    TavRaidDevice* getSubdevice(int i) const { return (*subdevices)[i]; }
    int getSubdeviceCount() const { return subdevices->size(); }
    const char* getSubdeviceName(int i) const;
    int getSubdeviceNumber(int i) const;

    // Whether the drive at `deviceNum` is marked good in `okDrives` (null:
    // every drive); a position outside the module has no good drive.
    bool okDrive(const int* okDrives) const;

    int getLastStatus() const { return iLastStatus; }
    void setLastStatus(int status) { iLastStatus = status; }
    int getSpareDiskCount() const { return nSpareDisks; }
    void setSpareDiskCount(int count) { nSpareDisks = count; }

protected:
    // Adds a child made by the family, setting its parent; gives it.
    TavRaidDevice* adopt(TavRaidDevice* child);
    // The family's addSubdevices: `make(at)` builds the child read at record
    // `at`; each child then reads its own children behind it. Gives the
    // records the subtree took.
    template <typename Make>
    int readChildren(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index, int nTables,
                     Make make);
    TavRaidDevice* parent;
    std::string deviceName;
    TavVectorP<TavRaidDevice>* subdevices;
    char* mountPoint;
    SECT_RAID_DEV description;
    int iLastStatus;
    int nSpareDisks;
    // Not on disk: the nesting depth below the top-level node, and the number
    // of string tables the tree was read from.
    int depth;
    int stringTableCount;
};

// The status section of `device` in an mdstat text: with members missing,
// `out` tells the recovery's percentage and the result is the number missing,
// or -1 with no recovery under way; 0 when nothing is missing or the section
// is not there. Lines are read into `out`, `len` bytes at a time.
int tavDisksToRebuild(FILE* mdstat, const char* device, const char* label, char* out, int len);

// Trees read from damaged tables are bounded: no node below this depth gets
// children, and children stop where the tables end.
constexpr int TAV_RAID_MAX_DEPTH = 16;

template <typename Make>
int TavRaidDevice::readChildren(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                                int nTables, Make make)
{
    if (depth >= TAV_RAID_MAX_DEPTH) return 0;
    int count = 0;
    for (uint32_t k = 0; k < description.numDevices; ++k) {
        TavRaidDevice* child = make(index + count);
        if (*tableIndex >= nTables) {
            // Past the last table: a count larger than the tables hold.
            delete child;
            break;
        }
        adopt(child);
        count += 1 + child->addSubdevices(tables, strings, tableIndex, index + count + 1, nTables);
    }
    return count;
}

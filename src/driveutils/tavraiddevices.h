// The RAID device tree of the signature.
//
// Until the tree itself is built, TavRaidDevices is a holder: it keeps the
// device and string tables it was made from and gives them back unchanged to
// buildTables, so that a signature passes through the store byte for byte.
// The tree's own nodes, their RAID operations and the table walk replace it.
#pragma once

#include <vector>

#include "tavutils/tavdrivesig.h"
#include "tavutils/tavvectorp.h"

enum RaidStatus { NOMINAL = 0, REBUILDING = 1, DEGRADED = 2, OFF = 3, NOT_REBUILDING = 4 };
enum DiskStatus { DISK_NOMINAL = 0, DISK_HOTSPARE = 1, DISK_REBUILDING = 2, DISK_FAULTY = 3, DISK_OFF = 4 };
enum DeviceType { UNKNOWN = 0, ARRAY = 1, DISK = 2, AEBS = 3 };

// Status arrays hold this many entries throughout the system.
constexpr int TAV_MAX_DISKS = 27;

class TavRaidDevices {
public:
    TavRaidDevices();
    // `nStringTables` is what the holder needs to keep the string tables; the
    // tree reads its strings through the records instead.
    TavRaidDevices(const SECT_DEVICE_TABLE* tables, const SECT_STRING_TABLE* strings, int nTables,
                   int nStringTables = 1);
    TavRaidDevices(const TavRaidDevices& other);
    TavRaidDevices& operator=(const TavRaidDevices&) = delete;
    ~TavRaidDevices();

    // Fills the vectors, each holding one zeroed table on entry: the held
    // tables go over the first one and after it, in order.
    void buildTables(TavVectorP<SECT_DEVICE_TABLE>* devTables, TavVectorP<SECT_STRING_TABLE>* stringTables);

    // The holder knows no array state: OFF.
    RaidStatus checkRaid();
    // The stored flag of the first DISK record of this position, or 0.
    int isActive(int driveID) const;

private:
    std::vector<SECT_DEVICE_TABLE> devices;
    std::vector<SECT_STRING_TABLE> strings;
};

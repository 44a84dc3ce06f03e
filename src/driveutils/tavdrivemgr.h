// The drive manager: one per process, all static. It brings the platform's
// drives and buses up from the platform identifier, keeps the in-memory
// signature (the block every data drive carries) and writes it back, and
// gives the verdict on a drive.
#pragma once

#include <atomic>
#include <pthread.h>
#include <string>
#include <vector>

#include "tavutils/tavdrivesig.h"

class TavRaidDevice;
class TavRaidDevices;

namespace RaidDeviceMgmt {
class TavDrive;
class TavBus;
class TavNVRam;
} // namespace RaidDeviceMgmt

// Device names of whole disks in position order, each null-terminated.
extern const char* const hddevnames[];
extern const char* const loamdevnames[];
extern const char* const sddevnames[];
extern const char* const unodevnames[];
extern const char* const satadevnames[];
extern const char* const sixportdevnames[];
extern const char* const twdevnames[];
extern const char* const twdocedevnames[];
extern const char* const eightportdevnames[];
extern const char* const sorreldevnames[];
extern const char* const hpdevnames[];
extern const char* const dell745Ndevnames[];
extern const char* const sixfourportdevnames[];
extern const char* const oneportdevnames[];
extern const char* const twoportdevnames[];
extern const char* const fourportdevnames[];
// The old style of name; only getDriveNum reads it.
extern const char* const oldhddevnames[];

// The list of drive serial numbers that took part in the running array:
// 64-byte NUL-terminated records, no header.
extern const char* const DISK_SERIALNOS_FILE;

// True when the list cannot be opened or holds `serial`.
bool validSerialNumber(const char* serial);

class TavDriveMgr {
public:
    TavDriveMgr() = delete;

    // --- bring-up ---
    // 0, or -1 when the write cache selection failed. The first call on the manager.
    static int init();
    static void setDriveBase();
    // The NVRAM cards this unit must have; the caller owns the vector.
    static std::vector<unsigned int>* initRequiredNVRamCards();
    static void initDrives();
    static RaidDeviceMgmt::TavDrive* getDrive(int driveID);
    static RaidDeviceMgmt::TavBus* getNthBus(int n);
    // The bus holding the drive; a position on no bus ends the process.
    static RaidDeviceMgmt::TavBus* getBus(int drive);
    static RaidDeviceMgmt::TavNVRam* getNVRam(int n);
    static bool NVRamIsRequired(unsigned int card);
    static int getDriveNum(const char* name);
    static int getDriveNum(int minor);

    static bool isOneU() { return nU == 1; }
    static bool isTwoU() { return nU == 2; }
    static bool isThreeU() { return nU == 3; }
    static int getNDrives() { return nDrives; }
    static int getNBuses() { return nBuses; }
    static int getPlatformID() { return hw_platform_id; }
    static int getNHardDrives() { return numHardDriveSignatures; }
    static int getNRequiredNVRams() { return requiredNVRamCards ? static_cast<int>(requiredNVRamCards->size()) : 0; }
    // A drive number as shown outside.
    static int adjDriveBase(int drive) { return drive + driveBase; }

    // --- signature store ---
    static void allocDriveTable(int ndrives);
    static int cleanup();
    static SECT_AUTO_RAID* findDriveDescription(int driveID);
    static void readSignatureIntoMemory();
    static int readSignature(int driveID, long long* timestamp);
    static int readSignature(int driveID, int signFD, long long* timestamp);
    static int writeSignature(int driveID);
    static int writeSignature(int driveID, int fd);
    static int createDriveSignature(int driveID, int serialNumOnly);
    static long long getLatestMountTime();
    static long long getLatestUnmountTime();
    static void setMountTime(int driveID, long long utime);
    static void setUnmountTime(int driveID, long long utime);
    // The in-memory stamp of a position, under the lock; false without a record.
    static bool getUnmountTime(int driveID, long long& utime);
    static int readUmountTime(int driveID, long long* utime);
    static int readUmountTime(int partFD, int driveID, long long* utime);
    static TavRaidDevices* readDevices(int driveID);
    static TavRaidDevices* readDevices(int partFD, int driveID);
    static void writeSerialNumbers();
    static int removeFromValidList(RaidDeviceMgmt::TavDrive* drivep);

    // --- policies the store needs ---
    static int checkDrive(int driveID);
    static int checkDrive(int driveID, long long* mountTime);
    static int checkRaid();
    static int checkDataRaid();
    static int checkOsRebuilding(const char* mddev);
    static bool raidRunning();
    static int isActive(int driveID);
    static int isHotSpare(int driveID);
    static int getRaidLevel();
    static const char* getRaidStatusString(int status);
    // 0, or 3 when a required NVRAM card is missing (the reason in `errorMsg`).
    static int checkNVRam(std::string& errorMsg);

    // --- membership ---
    static int addToRaid(int driveID);
    static int addToRaid(TavRaidDevice* drive);
    static void addToOsRaid(int driveID);
    static void initBootSector(int driveID);
    static void addToOS(int driveID);
    static void removeFromOS(int driveID);
    static void removeFromRaid(int driveID);
    static int removeFromRaid(TavRaidDevice* node);
    static void raidSetFaulty(int driveID);
    static void setDrivesActive();
    static void setDrivesInactive();
    static void setMacAddresses(TavRaidDevices* devices);
    static int startRaid(long now, int* okDrives);
    static int willCauseFailure(int driveNo);
    static int willCauseFailure(const char* devName);

    // --- stamps after a rebuild ---
    static bool anyRebuilding();
    // Starts the mount-time thread unless it runs.
    static void updateMountTimeAfterRebuild();
    static void* updateMountTimes(void*);
    static void updateNominalMountTimes();

    // --- services that hold files on a file system ---
    static void stopServicesOnFS(const char* fs);
    static void startServicesOnFS(const char* fs);

    // --- diagnostic tables: row 0 the titles, row 1 the underline ---
    using Table = std::vector<std::vector<std::string>>;
    static void dumpInMemorySignatureData();
    // A null tree: a copy of the manager's.
    static void dumpRaidDeviceTables(TavRaidDevices* devices);
    static int buildSignatureTableHeading(Table& table);
    static void buildSignatureTableRow(Table& table, int driveID);
    static int buildRaidDeviceTableHeading(Table& table);
    static void buildRaidDeviceRows(Table& table, TavRaidDevice* node);
    static void printTableData(Table& table);

    // --- the RAID tree ---
    // A deep copy of the tree for the caller to delete, or null.
    static TavRaidDevices* getRaidDevices();
    // The tree becomes a deep copy of `devices`, or null.
    static void setRaidDevices(TavRaidDevices* devices);

    static SECT_INDEX_TABLE header;
    static SECT_AUTO_RAID* hardDrives;
    static int numHardDriveSignatures;
    static RaidDeviceMgmt::TavDrive** drives;
    static int nDrives;
    static RaidDeviceMgmt::TavBus** buses;
    static int nBuses;
    static RaidDeviceMgmt::TavNVRam** nvrams;
    static int nNvrams;
    static std::vector<unsigned int>* requiredNVRamCards;
    static TavRaidDevices* devices;
    static pthread_mutex_t accessMutex;
    static int nU;
    // Set while the mount-time thread runs; clearing it cuts the wait short.
    static std::atomic<bool> checkRebuild;
    static int hw_platform_id;
    static int driveBase;

private:
    static int willCauseFailure(TavRaidDevice* node, const char* what);
    // Whether card `index` of `nvrams` gives `serial` as its serial number.
    static bool nvramSerialNumberMatches(int index, unsigned int serial, std::string& errorMsg);
    static void init1U();
    static void initLoam();
};

// The base of every physical drive: partition names, the verdict on its
// signature and partition table, and joining or leaving the OS mirror.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "tavutils/tavdrivesig.h"

namespace RaidDeviceMgmt {

// A device node: drives and NVRAM cards.
class TavDevice {
public:
    explicit TavDevice(const char* file);
    virtual ~TavDevice();

    virtual int open(int flags);
    virtual int close(int fd);

    const std::string& getFile() const { return file; }
    void setFile(const std::string& name) { file = name; }

protected:
    std::string file;
};

std::ostream& operator<<(std::ostream& out, const TavDevice& device);

class TavDrive : public TavDevice {
public:
    static const char* const signaturePartitionExtension;
    static const char* const dataPartitionExtension;
    static const char* const bootPartitionExtension;
    static const char* const activeOsPartitionExtension;
    static const char* const upgradePartitionExtension;
    static const char* const osLogPartitionExtension;
    static const char* const genericDeviceExtension;

    // Byte offset of the second signature copy in the signature partition.
    static constexpr long long kSignatureCopyOffset = 524288;

    TavDrive(int number, const char* file);
    ~TavDrive() override;

    virtual std::string constructPartitionName(const std::string& base, const std::string& extension);
    virtual int validateSignature(int fd, long long* mountTime);
    virtual long long getSignatureCopyOffset();
    virtual void addToOsRaid();
    virtual void removeFromOsRaid();
    virtual void initBootSector();
    virtual int startOsRaid();
    virtual int getSerialNo(std::string& serial) = 0;
    // Capacity in sectors (a 32-bit unsigned long on the appliance); 0 when the drive answers.
    virtual int getCapacity(uint32_t& capacity) = 0;
    virtual int getClass(std::string& text) = 0;
    virtual int getModel(std::string& text) = 0;
    virtual bool pingLogicalDrive();
    virtual bool pingPhysicalDrive();
    virtual int getBiosVersion(std::string& text);
    virtual int getFirmwareVersion(std::string& text);
    virtual int getControllerModel(std::string& text);
    virtual int getController();
    virtual int getTarget();
    virtual int validateSignature(long long* mountTime);
    virtual int validatePartitions();
    // 2 turns the write cache on, 130 (0x82) off.
    virtual int SetHardDriveWriteCache(int iWCache) = 0;
    virtual int GetHardDriveWriteCache(std::string& text);
    virtual int flushWriteCache();
    virtual bool ataPassThroughEnabled();
    virtual int ioctlSmartAtaPassThrough(unsigned char* buffer, unsigned char command, int feature, int count);
    virtual int checkReservationStatus(std::string& text);

    int getNumber() const { return number; }
    int getMinor() const { return minor; }
    std::string getBaseName() const;
    std::string getSignaturePartitionName();
    std::string getDataPartitionName();
    std::string getBootPartitionName();
    std::string getUpgradePartitionName();
    std::string getLogPartitionName();
    std::string getOSPartitionName();
    int getPreviousPosition(int* position);
    int getPreviousPosition(int fd, int* position);
    int readPartition(int fd, long long offset, _one_sector* sectors, int index, int max);
    int getClass(unsigned short capability, std::string& text);
    int setDeviceNum();
    void printPartitionNames(std::ostream& out);

protected:
    // Runs "<script> <base name>" through tav_system.
    void runScript(const char* script);

private:
    // Opens the signature partition and asks `verdict` of the first copy, and of
    // the second copy when the first could not be read (3).
    template <typename Verdict, typename OpenFailed, typename FirstFailed>
    int withSignatureCopies(Verdict verdict, OpenFailed openFailed, FirstFailed firstFailed);

    int number;
    int minor;
};

} // namespace RaidDeviceMgmt

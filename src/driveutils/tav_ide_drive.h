// Plain IDE drives, asked directly with ATA commands.
#pragma once

#include "driveutils/tavdrive.h"

namespace RaidDeviceMgmt {

class TavIdeDrive : public TavDrive {
public:
    TavIdeDrive(int number, const char* file, int target = 0);

    using TavDrive::getClass;
    int getSerialNo(std::string& serial) override;
    int getCapacity(uint32_t& capacity) override;
    int getClass(std::string& text) override;
    int getModel(std::string& text) override;
    bool pingPhysicalDrive() override;
    int SetHardDriveWriteCache(int iWCache) override;
    int flushWriteCache() override;
    int getTarget() override { return target; }

    // Sets the Ultra DMA mode that the model's "dma_mode" feature names; 0 when
    // nothing was to be done or it was done.
    int setDmaMode();

private:
    int target;
};

// An IDE drive whose boot sector is not written by the drive code.
class TavDriveUno : public TavIdeDrive {
public:
    using TavIdeDrive::TavIdeDrive;
    void initBootSector() override {}
};

} // namespace RaidDeviceMgmt

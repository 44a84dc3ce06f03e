// An IDE disk: a block device that answers the ATA requests of its driver.
// HDIO_GET_IDENTITY gives the copy of the identify data the kernel read when
// it found the drive (Module::discover), with only the transfer-mode words
// brought up to date after a mode change; HDIO_DRIVE_CMD goes to the drive
// itself (ata.h), so its identify shows the drive as it is now.
#pragma once

#include "block.h"

namespace sim {

class AtaDisk : public BlockDevice {
protected:
    int driveIoctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
};

} // namespace sim

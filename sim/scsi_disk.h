// A SCSI disk: a block device that takes SG_IO requests (scsi.h), and its
// generic node, which takes SG_IO only and has no data of its own.
#pragma once

#include "block.h"

namespace sim {

class ScsiDisk : public BlockDevice {
protected:
    int driveIoctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
};

} // namespace sim

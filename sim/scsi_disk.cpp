#include "scsi_disk.h"

#include "scsi.h"

namespace sim {

int ScsiDisk::driveIoctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg)
{
    if (request != SG_IO) return fail(EINVAL);
    Manifest m = ctx.module.manifest();
    const Drive* drive = m.driveInBay(n.node.bay);
    if (!drive) return fail(EIO);
    int rc = scsiRequest(*drive, static_cast<sg_io_hdr_t*>(arg));
    return rc ? fail(rc) : 0;
}

} // namespace sim

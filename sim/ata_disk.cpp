#include "ata_disk.h"

#include <cstring>
#include <linux/hdreg.h>

#include "ata.h"

namespace sim {
namespace {

// The kernel's copy with the words of the current transfer mode (62, 63, 88)
// taken from the drive, and the integrity word made good again.
IdentifyBlock kernelIdentity(Module& module, int bay, const Drive& drive)
{
    IdentifyBlock now = identifyData(drive, IdentifyForm::KernelFixed);
    std::string found = module.discoveredIdentity(bay);
    if (found.size() != now.size()) return now;  // a module made before the copy was kept
    IdentifyBlock kept;
    std::memcpy(kept.data(), found.data(), kept.size());
    for (int word : {62, 63, 88}) {
        kept[2 * word] = now[2 * word];
        kept[2 * word + 1] = now[2 * word + 1];
    }
    if (kept[510] == 0xA5) {
        unsigned sum = 0;
        for (int i = 0; i < 511; ++i) sum += kept[i];
        kept[511] = static_cast<unsigned char>(-sum & 0xff);
    }
    return kept;
}

} // namespace

int AtaDisk::driveIoctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg)
{
    Manifest m = ctx.module.manifest();
    const Drive* drive = m.driveInBay(n.node.bay);
    if (!drive) return fail(EIO);
    switch (request) {
    case HDIO_GET_IDENTITY: {
        if (!arg) return fail(EFAULT);
        IdentifyBlock id = kernelIdentity(ctx.module, n.node.bay, *drive);
        std::memcpy(arg, id.data(), id.size());
        return 0;
    }
    case HDIO_DRIVE_CMD: {
        if (!arg) return 0;
        auto* args = static_cast<unsigned char*>(arg);
        std::string note;
        int rc = 0;
        // A first run on a copy: identify and flush change nothing the
        // manifest keeps, and are answered without writing it.
        Drive copy = *drive;
        unsigned char block[516];
        std::memcpy(block, args, 4);
        rc = driveCommand(copy, block, note);
        if (rc != 0 || (copy.writeCache == drive->writeCache && copy.transferMode == drive->transferMode)) {
            // The data comes back only for a sector count of at least one.
            std::memcpy(args, block, args[0] == kAtaIdentify && args[3] ? sizeof block : 4);
        } else {
            ctx.module.updateManifest([&](Manifest& mm) {
                Drive* d = mm.driveInBay(n.node.bay);
                if (!d) {
                    rc = EIO;
                    return false;
                }
                rc = driveCommand(*d, args, note);
                return rc == 0;
            });
        }
        ctx.module.logAta(n.vpath, note);
        return rc ? fail(rc) : 0;
    }
    default:
        return fail(EINVAL);
    }
}

} // namespace sim

// Block devices of the drive bays: the whole disk is its image file, each
// partition a window of it at the offsets the kernel found in the table.
// Reads and writes stop at a window's end (a write there gives ENOSPC), seeks
// stay within it, and a drive pulled out of its bay, one the kernel no longer
// has (its interface detached, or absent at the last rescan) and one whose
// bay has no power fail every call with EIO (bay_link.h).
//
// The kernel refuses to read a disk's table again (BLKRRPART gives EBUSY)
// while a partition of it is open, by any process, or mounted. Each open of
// a partition holds a shared flock on "sim/locks/bayN.partM"; the re-read
// tries each exclusively, and reads sim/mounts.
#pragma once

#include "device_model.h"

namespace sim {

class BlockDevice : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    void close(DeviceContext& ctx, OpenNode& n) override;
    ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    off_t seek(DeviceContext& ctx, OpenNode& n, off_t offset, int whence) override;
    int fsync(DeviceContext& ctx, OpenNode& n) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;

protected:
    // The drive was pulled or swapped since the node was opened, or does not
    // answer the kernel now.
    static bool gone(DeviceContext& ctx, OpenNode& n);
    // Requests of the drive's own bus (ATA, SCSI); EINVAL when it has none.
    virtual int driveIoctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg);

private:
    static int rereadPartitions(DeviceContext& ctx, const OpenNode& n);
};

// Device numbers and type of a node, over the stat of its image.
void deviceStat(const DeviceNode& node, const struct ::stat& image, struct ::stat* st);

} // namespace sim

// The baseline of the updatemount benchmark: the I/O the tool must make on a
// four-drive IDE module and nothing else. For each drive: read the partition
// tables and identify the drive (the verdict), read the signature header and
// records (the verdict, then the store), and write both copies with
// synchronous writes, an fsync and a cache flush each, then sync and flush.
// No model lookup, no logging, no checks.
//
//     minimal_updatemount DIR          on the simulated module in DIR
//     minimal_updatemount --host DIR   on plain files under DIR (ioctls fail there)
#include <cstring>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <string>
#include <unistd.h>

#include "platform/platform.h"
#include "sim/sim_platform.h"

namespace {

const char* const kDrives[] = {
    "/dev/ide/host0/bus0/target0/lun0/",
    "/dev/ide/host0/bus0/target1/lun0/",
    "/dev/ide/host0/bus1/target1/lun0/",
    "/dev/ide/host0/bus1/target0/lun0/",
};
constexpr int kDriveCount = 4;
constexpr off_t kSecondCopy = 524288;
constexpr int kBlockSectors = 1 + kDriveCount + 2;

std::string root;

int openPath(const std::string& path, int flags) { return plat::open((root + path).c_str(), flags); }

void ataCommand(const std::string& disc, unsigned char command)
{
    unsigned char args[516] = {command, 0, 0, 1};
    int fd = openPath(disc, O_RDONLY | O_NONBLOCK);
    if (fd < 0) return;
    plat::ioctl(fd, HDIO_DRIVE_CMD, args);
    plat::close(fd);
}

void readSectors(int fd, int count)
{
    char buffer[512];
    for (int i = 0; i < count; ++i)
        if (plat::read(fd, buffer, sizeof buffer) != static_cast<ssize_t>(sizeof buffer)) return;
}

void verdict(const std::string& drive)
{
    int fd = openPath(drive + "disc", O_RDONLY);
    if (fd >= 0) {
        // The primary table and the chain of three logical tables.
        for (int i = 0; i < 4; ++i) {
            readSectors(fd, 1);
            plat::lseek(fd, 0, SEEK_SET);
        }
        plat::close(fd);
    }
    ataCommand(drive + "disc", 0xEC);
    fd = openPath(drive + "part1", O_RDONLY);
    if (fd >= 0) {
        readSectors(fd, 1 + kDriveCount);
        plat::close(fd);
    }
}

void readBlock(const std::string& drive)
{
    int fd = openPath(drive + "part1", O_RDONLY);
    if (fd < 0) return;
    readSectors(fd, 1);
    plat::lseek(fd, 512, SEEK_SET);
    readSectors(fd, 1);
    plat::lseek(fd, 512, SEEK_SET);
    readSectors(fd, kDriveCount + 2);
    plat::close(fd);
}

void writeCopy(int fd, const std::string& disc, const char* block)
{
    ataCommand(disc, 0xEC);
    for (int i = 0; i < kBlockSectors; ++i) plat::write(fd, block + i * 512, 512);
    plat::fsync(fd);
    ataCommand(disc, 0xE7);
}

void writeBlock(const std::string& drive, const char* block)
{
    int fd = openPath(drive + "part1", O_WRONLY | O_SYNC);
    if (fd < 0) return;
    writeCopy(fd, drive + "disc", block);
    plat::lseek(fd, kSecondCopy, SEEK_SET);
    writeCopy(fd, drive + "disc", block);
    plat::close(fd);
    plat::sync();
    ataCommand(drive + "disc", 0xE7);
}

int run()
{
    static char block[kBlockSectors * 512];
    for (const char* drive : kDrives) verdict(drive);
    for (const char* drive : kDrives) readBlock(drive);
    for (const char* drive : kDrives) writeBlock(drive, block);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--host") == 0) {
        root = argv[2];
        return run();
    }
    if (argc != 2) return 2;
    sim::SimPlatform platform(argv[1]);
    plat::ScopedPlatform scope(platform);
    return run();
}

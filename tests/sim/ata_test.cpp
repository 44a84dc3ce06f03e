#include <cerrno>
#include <fcntl.h>
#include <linux/hdreg.h>

#include "sim_fixture.h"
#include "sim/ata.h"

using namespace simtest;

namespace {

std::string text(const unsigned char* p, size_t n) { return std::string(reinterpret_cast<const char*>(p), n); }

sim::Drive driveInBay(sim::SimPlatform& p, int bay) { return *p.module().manifest().driveInBay(bay); }

} // namespace

TEST(Ata, IdentityFromTheManifestInBothForms)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    const sim::Drive d = driveInBay(p, 1);
    int fd = p.open(kDisc1, O_RDONLY, 0);
    ASSERT_GE(fd, 0);

    unsigned char id[512];
    ASSERT_EQ(p.ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(text(id + 20, d.serial.size()), d.serial);
    EXPECT_EQ(id[20 + d.serial.size()], 0) << "the kernel pads the strings with NULs";
    EXPECT_EQ(text(id + 54, 11), "SIM-ATA 80G");
    EXPECT_EQ(text(id + 46, 7), "SIM1.00");
    uint32_t lba = id[120] | id[121] << 8 | id[122] << 16 | static_cast<uint32_t>(id[123]) << 24;
    EXPECT_EQ(lba, kSectors);
    EXPECT_EQ(id[176] | id[177] << 8, 0x203f);

    // The raw identify of HDIO_DRIVE_CMD: strings in ATA order, blank-padded.
    unsigned char cmd[4 + 512] = {sim::kAtaIdentify, 0, 0, 1};
    ASSERT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, cmd), 0);
    std::string raw = text(cmd + 4 + 20, 20);
    for (size_t i = 0; i < raw.size(); i += 2) std::swap(raw[i], raw[i + 1]);
    EXPECT_EQ(raw, d.serial + std::string(20 - d.serial.size(), ' '));
    unsigned sum = 0;
    for (int i = 0; i < 512; ++i) sum += cmd[4 + i];
    EXPECT_EQ(sum & 0xff, 0u) << "integrity word";
    p.close(fd);
}

TEST(Ata, SetFeaturesAndFlushAreRecordedForTheNextProcess)
{
    TempModule m;
    {
        sim::SimPlatform p(m.dir());
        int fd = p.open(kDisc3, O_RDONLY, 0);
        unsigned char off[4] = {sim::kAtaSetFeatures, 0, sim::kFeatureWriteCacheOff, 0};
        ASSERT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, off), 0);
        unsigned char mode[4] = {sim::kAtaSetFeatures, 0x44, sim::kFeatureTransferMode, 0};
        ASSERT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, mode), 0);
        unsigned char flush[4] = {sim::kAtaFlushCache, 0, 0, 0};
        ASSERT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, flush), 0);
        unsigned char bogus[4] = {0x99, 0, 0, 0};
        EXPECT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, bogus), -1);
        EXPECT_EQ(errno, EIO);
        p.close(fd);
    }
    sim::SimPlatform p(m.dir());
    sim::Drive d = driveInBay(p, 3);
    EXPECT_FALSE(d.writeCache);
    EXPECT_EQ(d.transferMode, 0x44);
    const std::string ata = p.module().readState("ata.log");
    EXPECT_EQ(ata.find(" flush-cache"), ata.rfind(" flush-cache"));
    EXPECT_NE(ata.find(std::string(kDisc3) + " flush-cache"), std::string::npos);
    EXPECT_TRUE(driveInBay(p, 1).writeCache) << "other drives keep theirs";
    int fd = p.open(kDisc3, O_RDONLY, 0);
    unsigned char id[512];
    ASSERT_EQ(p.ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(id[170] & 0x20, 0x20) << "the kernel's copy keeps word 85 as the drive was found";
    EXPECT_EQ(id[176] | id[177] << 8, 0x103f) << "UDMA 4 selected, 0 to 5 supported: refreshed after the mode change";
    unsigned char live[516] = {sim::kAtaIdentify, 0, 0, 1};
    ASSERT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, live), 0);
    EXPECT_EQ(live[4 + 170] & 0x20, 0) << "the drive itself shows its write cache off";
    p.close(fd);
    std::string log = p.module().readState("ata.log");
    EXPECT_NE(log.find(std::string(kDisc3) + " setfeatures write-cache off"), std::string::npos) << log;
    EXPECT_NE(log.find("flush-cache"), std::string::npos);
}

TEST(Ata, TransferModeTheDriveDoesNotOfferIsAborted)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    int fd = p.open(kDisc1, O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    auto setMode = [&](unsigned char mode, unsigned char* args) {
        args[0] = sim::kAtaSetFeatures;
        args[1] = mode;
        args[2] = sim::kFeatureTransferMode;
        args[3] = 0;
        return p.ioctl(fd, HDIO_DRIVE_CMD, args);
    };
    unsigned char args[4];
    ASSERT_EQ(setMode(0x44, args), 0) << "UDMA 4 is offered";
    EXPECT_EQ(args[0], 0x50);

    // Word 88 offers UDMA 0-5, word 63 multiword DMA 0-2, word 64 PIO 3 and 4.
    for (unsigned char mode : {0x47, 0x46, 0x99, 0x23, 0x0d, 0x10, 0x02}) {
        errno = 0;
        EXPECT_EQ(setMode(mode, args), -1) << std::hex << int(mode);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(args[0], 0x51) << "status: error";
        EXPECT_EQ(args[1], 0x04) << "error: aborted";
    }
    EXPECT_EQ(driveInBay(p, 1).transferMode, 0x44) << "a refused mode leaves the drive as it was";
    unsigned char id[4 + 512] = {sim::kAtaIdentify, 0, 0, 1};
    ASSERT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, id), 0);
    EXPECT_EQ(id[4 + 176] | id[4 + 177] << 8, 0x103f) << "UDMA 4 still selected";
    std::string log = p.module().readState("ata.log");
    EXPECT_NE(log.find(std::string(kDisc1) + " setfeatures transfer-mode 0x47 refused"), std::string::npos) << log;
    EXPECT_NE(log.find("setfeatures transfer-mode 0x99 refused"), std::string::npos) << log;

    for (unsigned char mode : {0x00, 0x01, 0x08, 0x0c, 0x20, 0x22, 0x40}) {
        EXPECT_EQ(setMode(mode, args), 0) << std::hex << int(mode);
        EXPECT_EQ(driveInBay(p, 1).transferMode, mode);
    }
    p.close(fd);

    // The offer is the drive's own: one of UDMA 0-2 aborts UDMA 4.
    sim::Drive slow = driveInBay(p, 1);
    slow.udma = 0x0007;
    std::string note;
    unsigned char udma4[4] = {sim::kAtaSetFeatures, 0x44, sim::kFeatureTransferMode, 0};
    EXPECT_EQ(sim::driveCommand(slow, udma4, note), EIO);
    EXPECT_EQ(note, "setfeatures transfer-mode 0x44 refused");
    unsigned char udma2[4] = {sim::kAtaSetFeatures, 0x42, sim::kFeatureTransferMode, 0};
    EXPECT_EQ(sim::driveCommand(slow, udma2, note), 0);
    EXPECT_EQ(slow.transferMode, 0x42);
}

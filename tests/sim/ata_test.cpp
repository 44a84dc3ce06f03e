#include <cerrno>
#include <fcntl.h>
#include <linux/hdreg.h>

#include "sim_fixture.h"
#include "sim/ata.h"
#include "sim/scsi.h"

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
    EXPECT_EQ(d.flushes, 1u);
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

TEST(Scsi, InquiryAndSerialPage)
{
    sim::Drive d;
    d.kind = "scsi";
    d.serial = "SIMSCSI0001";
    d.vendor = "SIMVEND";
    d.model = "SIM-SCSI 36G";
    d.firmware = "S001";
    d.sectors = 71132960;
    unsigned char cdb[6] = {0x12, 0, 0, 0, 96, 0};
    unsigned char data[96] = {};
    unsigned char sense[32] = {};
    sg_io_hdr_t h{};
    h.interface_id = 'S';
    h.cmdp = cdb;
    h.cmd_len = 6;
    h.dxferp = data;
    h.dxfer_len = sizeof data;
    h.dxfer_direction = SG_DXFER_FROM_DEV;
    h.sbp = sense;
    h.mx_sb_len = sizeof sense;
    ASSERT_EQ(sim::scsiRequest(d, &h), 0);
    EXPECT_EQ(h.status, 0);
    EXPECT_EQ(text(data + 8, 8), "SIMVEND ");
    EXPECT_EQ(text(data + 16, 16), "SIM-SCSI 36G    ");
    EXPECT_EQ(h.resid, 96 - 36);

    cdb[1] = 1;
    cdb[2] = 0x80;
    ASSERT_EQ(sim::scsiRequest(d, &h), 0);
    EXPECT_EQ(data[1], 0x80);
    EXPECT_EQ(text(data + 4, data[3]), d.serial);

    cdb[2] = 0x83;  // not served: check condition, illegal request
    ASSERT_EQ(sim::scsiRequest(d, &h), 0);
    EXPECT_EQ(h.status, 0x02);
    EXPECT_EQ(sense[2], 0x05);
    h.interface_id = 'Q';
    EXPECT_EQ(sim::scsiRequest(d, &h), EINVAL);
}

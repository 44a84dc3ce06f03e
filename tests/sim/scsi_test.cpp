#include <cerrno>

#include "sim_fixture.h"
#include "sim/scsi.h"

namespace {

std::string text(const unsigned char* p, size_t n) { return std::string(reinterpret_cast<const char*>(p), n); }

struct Request {
    unsigned char cdb[6] = {0x12, 0, 0, 0, 96, 0};
    unsigned char data[96] = {};
    unsigned char sense[32] = {};
    sg_io_hdr_t h{};

    Request()
    {
        h.interface_id = 'S';
        h.cmdp = cdb;
        h.cmd_len = sizeof cdb;
        h.dxferp = data;
        h.dxfer_len = sizeof data;
        h.dxfer_direction = SG_DXFER_FROM_DEV;
        h.sbp = sense;
        h.mx_sb_len = sizeof sense;
    }
    void page(unsigned char code)
    {
        cdb[1] = 1;
        cdb[2] = code;
    }
};

sim::Drive scsiDrive(const std::string& serial)
{
    sim::Drive d;
    d.kind = "scsi";
    d.serial = serial;
    d.vendor = "SIMVEND";
    d.model = "SIM-SCSI 36G";
    d.firmware = "S001";
    d.sectors = 71132960;
    return d;
}

std::string numbers(const std::string& device, int index)
{
    sim::Bay bay;
    if (!sim::deviceNumbers(device, index, bay)) return "none";
    return std::to_string(bay.major) + ":" + std::to_string(bay.minor) + "/" + std::to_string(bay.maxPartitions);
}

} // namespace

TEST(Scsi, InquiryPagesAndErrors)
{
    const sim::Drive d = scsiDrive("SIMSCSI0001");
    Request r;
    ASSERT_EQ(sim::scsiRequest(d, &r.h), 0);
    EXPECT_EQ(r.h.status, 0);
    EXPECT_EQ(text(r.data + 8, 8), "SIMVEND ");
    EXPECT_EQ(text(r.data + 16, 16), "SIM-SCSI 36G    ");
    EXPECT_EQ(r.h.resid, 96 - 36);

    r.page(0x83);  // not served: check condition, illegal request
    ASSERT_EQ(sim::scsiRequest(d, &r.h), 0);
    EXPECT_EQ(r.h.status, 0x02);
    EXPECT_EQ(r.sense[2], 0x05);
    r.h.interface_id = 'Q';
    EXPECT_EQ(sim::scsiRequest(d, &r.h), EINVAL);
}

TEST(Scsi, SerialPageIsBlankPaddedToTwentyBytes)
{
    struct Case {
        std::string serial;
        std::string shown;
    };
    for (const Case& c : {Case{"SIMSCSI0001", "SIMSCSI0001         "}, Case{"", std::string(20, ' ')},
                          Case{"ABCDEFGHIJKLMNOPQRST", "ABCDEFGHIJKLMNOPQRST"},
                          Case{"3KQ1ABCD00009842X7Y8Z9", "3KQ1ABCD00009842X7Y8Z9"}}) {
        Request r;
        r.page(0x80);
        ASSERT_EQ(sim::scsiRequest(scsiDrive(c.serial), &r.h), 0);
        EXPECT_EQ(r.data[1], 0x80);
        const size_t len = static_cast<size_t>(r.data[2]) << 8 | r.data[3];
        EXPECT_EQ(text(r.data + 4, len), c.shown) << c.serial;
        EXPECT_EQ(r.h.resid, static_cast<int>(96 - 4 - len));
    }
    // The allocation length cuts the page, as it does every inquiry.
    Request r;
    r.page(0x80);
    r.cdb[4] = 10;
    ASSERT_EQ(sim::scsiRequest(scsiDrive("SIMSCSI0001"), &r.h), 0);
    EXPECT_EQ(r.h.resid, 96 - 10);
    EXPECT_EQ(text(r.data + 4, 6), "SIMSCS");
}

TEST(Scsi, DiskNumbersFollowTheProbeOrderNotTheBays)
{
    const std::vector<std::string> bays = {
        "/dev/scsi/host1/bus0/target0/lun0/disc", "/dev/scsi/host0/bus0/target10/lun0/disc",
        "/dev/ide/host0/bus0/target0/lun0/disc",  "/dev/scsi/host0/bus1/target0/lun0/disc",
        "/dev/scsi/host0/bus0/target2/lun1/disc", "/dev/scsi/host0/bus0/target2/lun0/disc",
        "/dev/scsi/host0/bus0/target3/lun0/part1"};
    // Numbers compare as numbers: target 10 comes after target 2 and 3.
    const std::vector<int> order = sim::scsiProbeOrder(bays);
    EXPECT_EQ(order, (std::vector<int>{4, 2, -1, 3, 1, 0, -1}));
    std::vector<std::string> got;
    for (size_t i = 0; i < bays.size(); ++i) got.push_back(numbers(bays[i], order[i]));
    EXPECT_EQ(got, (std::vector<std::string>{"8:64/15", "8:32/15", "3:0/63", "8:48/15", "8:16/15", "8:0/15", "none"}));

    // 16 disks a major: 8, then 65 to 71, then 128 to 135.
    const std::string disc = "/dev/scsi/host0/bus0/target0/lun0/disc";
    for (const auto& [index, want] : std::vector<std::pair<int, std::string>>{
             {15, "8:240/15"}, {16, "65:0/15"}, {127, "71:240/15"}, {128, "128:0/15"}, {255, "135:240/15"},
             {256, "none"}, {-1, "none"}})
        EXPECT_EQ(numbers(disc, index), want) << index;
    EXPECT_EQ(numbers("/dev/scsi/host0/bus0/target0/lun0/disc2", 0), "none");
    EXPECT_EQ(numbers("/dev/scsi/disc", 0), "none");
}

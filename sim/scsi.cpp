#include "scsi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace sim {
namespace {

void checkCondition(sg_io_hdr_t* hdr, unsigned char key, unsigned char asc)
{
    hdr->status = 0x02;
    hdr->masked_status = 0x01;
    hdr->resid = static_cast<int>(hdr->dxfer_len);
    unsigned char sense[18] = {0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0, asc, 0, 0, 0, 0, 0};
    size_t n = std::min<size_t>(sizeof sense, hdr->mx_sb_len);
    if (hdr->sbp && n) std::memcpy(hdr->sbp, sense, n);
    hdr->sb_len_wr = static_cast<unsigned char>(hdr->sbp ? n : 0);
    hdr->driver_status = 0x08;  // sense data present
}

void putText(std::vector<unsigned char>& out, size_t at, size_t len, const std::string& text)
{
    for (size_t i = 0; i < len; ++i) out[at + i] = i < text.size() ? static_cast<unsigned char>(text[i]) : ' ';
}

// The unit serial number page as disks give it: the serial left-justified
// in a field of 20 bytes padded with blanks; a longer serial is given whole
// (up to what the page's 16-bit length holds).
std::vector<unsigned char> serialPage(const std::string& serial)
{
    constexpr size_t kSerialField = 20;
    const size_t len = std::min<size_t>(std::max(serial.size(), kSerialField), 0xffff);
    std::vector<unsigned char> page(4 + len, ' ');
    page[0] = 0x00;  // direct-access block device
    page[1] = 0x80;
    page[2] = static_cast<unsigned char>(len >> 8);
    page[3] = static_cast<unsigned char>(len & 0xff);
    putText(page, 4, len, serial);
    return page;
}

} // namespace

int scsiRequest(const Drive& drive, sg_io_hdr_t* hdr)
{
    if (!hdr || hdr->interface_id != 'S') return EINVAL;
    if (!hdr->cmdp || hdr->cmd_len < 6 || hdr->cmd_len > 16) return EINVAL;
    if (hdr->dxfer_len && !hdr->dxferp) return EFAULT;
    hdr->status = hdr->masked_status = hdr->msg_status = 0;
    hdr->host_status = hdr->driver_status = 0;
    hdr->sb_len_wr = 0;
    hdr->resid = 0;
    hdr->duration = 0;
    hdr->info = 0;
    const unsigned char* cdb = hdr->cmdp;
    std::vector<unsigned char> data;
    switch (cdb[0]) {
    case 0x00:  // TEST UNIT READY
        break;
    case 0x12: {  // INQUIRY
        if (cdb[1] & 1) {
            if (cdb[2] == 0x00) {
                data = {0, 0x00, 0, 2, 0x00, 0x80};
            } else if (cdb[2] == 0x80) {
                data = serialPage(drive.serial);
            } else {
                checkCondition(hdr, 0x05, 0x24);  // illegal request, invalid field in CDB
                return 0;
            }
        } else if (cdb[2] != 0) {
            checkCondition(hdr, 0x05, 0x24);
            return 0;
        } else {
            data.assign(36, 0);
            data[2] = 0x05;  // SPC-3
            data[3] = 0x02;
            data[4] = 31;
            putText(data, 8, 8, drive.vendor);
            putText(data, 16, 16, drive.model);
            putText(data, 32, 4, drive.firmware);
        }
        size_t alloc = static_cast<size_t>(cdb[3]) << 8 | cdb[4];
        if (data.size() > alloc) data.resize(alloc);
        break;
    }
    case 0x25: {  // READ CAPACITY(10)
        uint64_t last = drive.sectors ? drive.sectors - 1 : 0;
        uint32_t l = last > 0xffffffffULL ? 0xffffffffU : static_cast<uint32_t>(last);
        data = {static_cast<unsigned char>(l >> 24), static_cast<unsigned char>(l >> 16),
                static_cast<unsigned char>(l >> 8), static_cast<unsigned char>(l), 0, 0, 2, 0};
        break;
    }
    default:
        checkCondition(hdr, 0x05, 0x20);  // illegal request, invalid command
        return 0;
    }
    if (!data.empty()) {
        if (hdr->dxfer_direction != SG_DXFER_FROM_DEV && hdr->dxfer_direction != SG_DXFER_TO_FROM_DEV)
            return EINVAL;
        size_t n = std::min<size_t>(data.size(), hdr->dxfer_len);
        std::memcpy(hdr->dxferp, data.data(), n);
        hdr->resid = static_cast<int>(hdr->dxfer_len - n);
    }
    return 0;
}

} // namespace sim

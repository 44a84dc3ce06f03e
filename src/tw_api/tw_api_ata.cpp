// The drives' ATA side on both families: a command passed through to the
// drive now in the port, its identify sector and its SMART attribute page.
#include <cstring>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"
#include "tw_api/tw_api_osil.h"
#include "tw_api/tw_api_private.h"

namespace {

// The task file as the command carries it: 16-bit registers, then the
// device and command bytes.
void put_registers(uint8_t (&out)[twp::kAtaRegisters], const tw_ata_registers_type& r)
{
    std::memset(out, 0, sizeof out);
    out[0] = r.feature;
    out[2] = r.count;
    out[4] = r.sector;
    out[6] = r.cylinder_low;
    out[8] = r.cylinder_high;
    out[10] = r.device;
    out[11] = r.command;
}

void get_registers(const uint8_t (&in)[twp::kAtaRegisters], tw_ata_registers_type& r)
{
    r.feature = in[0];
    r.count = in[2];
    r.sector = in[4];
    r.cylinder_low = in[6];
    r.cylinder_high = in[8];
    r.device = in[10];
    r.command = in[11];
}

} // namespace

// Takes no lock: a drive's ATA command changes no configuration.
int controller_base::ata_passthrough(tw_id_type drive_id, tw_ata_registers_type* registers, unsigned char* data)
{
    // The port holds a drive: any item of it tells.
    uint8_t status = 0;
    if (read_drive_item(drive_id, twp::Item::DriveStatus, &status, sizeof status) != 0) return -1;
    uint8_t task[twp::kAtaRegisters];
    put_registers(task, *registers);
    unsigned char sector[twp::kSectorSize] = {};
    if (send_ata(drive_id, task, sector, data ? twp::kSectorSize : 0) != 0) return -1;
    get_registers(task, *registers);
    if (data) std::memcpy(data, sector, sizeof sector);
    return 0;
}

namespace {

// A one-sector read by the pass-through; an ATA error is a drive error.
int read_sector(controller_base& c, tw_id_type drive_id, tw_ata_registers_type r, unsigned char* data)
{
    unsigned char sector[twp::kSectorSize] = {};
    if (c.ata_passthrough(drive_id, &r, sector) != 0) return -1;
    if (r.command & twp::kAtaStatusError) {
        twp::refuse_api(twp::kApiDriveError);
        return -1;
    }
    std::memcpy(data, sector, sizeof sector);
    return 0;
}

} // namespace

int controller_base::get_drive_ident_data(tw_id_type drive_id, unsigned char* data)
{
    tw_ata_registers_type r {};
    r.count = 1;
    r.command = twp::kAtaIdentify;
    return read_sector(*this, drive_id, r, data);
}

int controller_base::get_drive_smart_data(tw_id_type drive_id, unsigned char* data)
{
    tw_ata_registers_type r {};
    r.feature = twp::kSmartReadData;
    r.count = 1;
    r.cylinder_low = twp::kSmartCylinderLow;
    r.cylinder_high = twp::kSmartCylinderHigh;
    r.command = twp::kAtaSmart;
    return read_sector(*this, drive_id, r, data);
}

int controller_7000::send_ata(tw_id_type drive_id, uint8_t (&registers)[twp::kAtaRegisters], void* data, uint32_t length)
{
    TAG_GP_Command command {};
    command.byte0 = twp::byte0Of(twp::kOpAtaPassThrough, twp::kSglOffsetAta);
    command.size = twp::kSizeAta;
    command.byte3 = uint8_t(drive_id.id[2] & 0x0F);
    command.flags = 1;
    command.byte6 = twp::kAtaByte6;
    std::memcpy(command.byte8, registers, sizeof registers);
    if (send(drive_id, command, data, length) != 0) return -1;
    std::memcpy(registers, command.byte8, sizeof registers);
    return 0;
}

int controller_9000::send_ata(tw_id_type drive_id, uint8_t (&registers)[twp::kAtaRegisters], void* data, uint32_t length)
{
    int fd = -1;
    if (osil_instance.open_controller(drive_id, &fd) != 0) return -1;
    TAG_GP_Command_Driver driver {};
    driver.control_code = twp::kControlFirmwarePassThrough;
    TAG_GP_Command_Full full {};
    full.command.byte0 = twp::byte0Of(twp::kOpAtaPassThrough, twp::kSglOffsetAta);
    full.command.unit = drive_id.id[2];
    full.command.sgl_entries = length ? 1 : 0;
    std::memcpy(full.command.cdb, registers, sizeof registers);
    const int result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, data, length);
    osil_instance.close(fd);
    if (result != 0) return -1;
    std::memcpy(registers, full.command.cdb, sizeof registers);
    return 0;
}

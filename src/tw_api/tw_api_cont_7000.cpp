#include "tw_api/tw_api_cont_7000.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "platform/platform.h"
#include "tw_api/tw_api_osil.h"

namespace {

} // namespace

int controller_7000::send(tw_id_type id, TAG_GP_Command& command, void* data, uint32_t length)
{
    int fd = -1;
    if (osil_instance.open_controller(id, &fd) != 0) return -1;
    const int result = osil_instance.send_7000_ioctl_to_controller(fd, &command, data, length,
                                                                   twp::kRequest7000Firmware);
    osil_instance.close(fd);
    return result;
}

int controller_7000::param_command(tw_id_type id, bool set, int table, int parameter, int size, void* buffer,
                                   int unit)
{
    if (size <= 0 || unsigned(size) > twp::kMax7000ParamSize) {
        twp::set_api(twp::kApiInvalidConfig);
        return -1;
    }
    const uint32_t length = uint32_t(size) + sizeof(TAG_GP_Param);
    std::unique_ptr<uint8_t[]> record(new (std::nothrow) uint8_t[length]());
    if (!record) {
        twp::set_api(7);
        return -1;
    }
    TAG_GP_Param param {};
    param.table_id = uint16_t(table);
    param.parameter_id = uint8_t(parameter);
    param.parameter_size_bytes = uint8_t(size);
    std::memcpy(record.get(), &param, sizeof param);
    if (set) std::memcpy(record.get() + sizeof param, buffer, size_t(size));

    TAG_GP_Command command {};
    command.byte0 = twp::byte0Of(set ? twp::kOpSetParam : twp::kOpGetParam, twp::kSglOffsetParam);
    command.size = twp::kSizeParam;
    command.byte3 = uint8_t(unit & 0x0F);
    command.byte6 = 1;
    if (send(id, command, record.get(), length) != 0) return -1;
    if (!set) std::memcpy(buffer, record.get() + sizeof param, size_t(size));
    return 0;
}

int controller_7000::ioctl_get_param(tw_id_type id, int table, int parameter, int size, void* buffer, int unit)
{
    return param_command(id, false, table, parameter, size, buffer, unit);
}

int controller_7000::ioctl_set_param(tw_id_type id, int table, int parameter, int size, const void* value, int unit)
{
    return param_command(id, true, table, parameter, size, const_cast<void*>(value), unit);
}

int controller_7000::read_param(tw_id_type id, const twp::Param& p, int unit, void* buffer)
{
    return ioctl_get_param(id, p.table, p.parameter, p.size, buffer, unit);
}

int controller_7000::write_param(tw_id_type id, const twp::Param& p, int unit, const void* value)
{
    return ioctl_set_param(id, p.table, p.parameter, p.size, value, unit);
}

int controller_7000::ioctl_portscan(tw_id_type id)
{
    int ports = 0;
    if (get_number_of_ports(id, &ports) != 0) return -1;
    const int port = id.id[2];
    if (port >= ports) {
        twp::set_api(24);
        return -1;
    }
    TAG_GP_Command command {};
    command.byte0 = twp::byte0Of(twp::kOpPortscan, 0);
    command.size = twp::kSizePortscan;
    const uint32_t mask = port < 32 ? 1u << port : 0;
    for (size_t i = 0; i < 4; ++i)
        command.byte8[twp::kPortscanMaskOffset - 8 + i] = uint8_t(mask >> (8 * i));
    return send(id, command, nullptr, 0);
}

int controller_7000::ioctl_get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length)
{
    std::unique_ptr<uint8_t[]> log(new (std::nothrow) uint8_t[twp::kDiagnosticLogSize]());
    if (!log) {
        twp::set_api(7);
        return -1;
    }
    TAG_GP_Command command {};
    command.byte0 = twp::byte0Of(twp::kOpDiagnosticLog, twp::kSglOffsetParam);
    command.size = twp::kSizeDiagnosticLog;
    if (send(id, command, log.get(), twp::kDiagnosticLogSize) != 0) return -1;
    const int count = *length < 0 ? 0 : (*length < int(twp::kDiagnosticLogSize) ? *length : twp::kDiagnosticLogSize);
    std::memcpy(buffer, log.get(), size_t(count));
    *length = count;
    return 0;
}

int controller_7000::get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length)
{
    return ioctl_get_diagnostic_log(id, buffer, length);
}

int controller_7000::get_background_task_rate(tw_id_type id, int* rate)
{
    return get_number(id, twp::Item::BackgroundTaskRate, rate);
}

int controller_7000::set_background_task_rate(tw_id_type id, int rate)
{
    return set_checked(id, twp::Item::BackgroundTaskRate, rate, twp::kRateMin, twp::kRateMax, 45);
}

int controller_7000::get_background_rebuild_rate(tw_id_type id, int* rate) { return get_background_task_rate(id, rate); }
int controller_7000::set_background_rebuild_rate(tw_id_type id, int rate) { return set_background_task_rate(id, rate); }
int controller_7000::get_background_verify_rate(tw_id_type id, int* rate) { return get_background_task_rate(id, rate); }
int controller_7000::set_background_verify_rate(tw_id_type id, int rate) { return set_background_task_rate(id, rate); }

int controller_7000::get_driver_version(tw_id_type id, char* version)
{
    // The slot's number is the controller's SCSI host.
    char path[64];
    std::snprintf(path, sizeof path, "/proc/scsi/3w-xxxx/%d", int(id.id[1]));
    FILE* in = plat::fopen(path, "r");
    if (!in) {
        tw_api_set_error(twp::kFlagOs, 0, uint32_t(errno), 0, 0, nullptr);
        return -1;
    }
    const size_t labelLength = std::strlen(twp::kProcDriverVersionLabel);
    char line[256];
    bool found = false;
    while (!found && std::fgets(line, sizeof line, in)) {
        if (std::strncmp(line, twp::kProcDriverVersionLabel, labelLength) != 0) continue;
        char* text = line + labelLength;
        text[std::strcspn(text, "\r\n")] = '\0';
        strip_spaces(text);
        copy_text(version, TW_DRIVER_VERSION_SIZE, text);
        found = true;
    }
    std::fclose(in);
    if (!found) {
        // The driver names no version: "Feature not supported".
        twp::set_api(2);
        return -1;
    }
    return 0;
}

int controller_7000::get_7000_unit_status(tw_id_type unit_id, int* status)
{
    const int unit = unit_id.id[4];
    if (unit >= twp::kMaxUnits) {
        twp::set_api(9);
        return -1;
    }
    uint8_t bytes[twp::kMaxUnits] = {};
    if (!supported(twp::Item::UnitStatus) || table_[twp::Item::UnitStatus].size != sizeof bytes) return -1;
    if (read_param(unit_id, table_[twp::Item::UnitStatus], 0, bytes) != 0) return -1;
    if (bytes[unit] == 0xFF) {
        // No such unit: "Failed to get unit status".
        twp::set_api(16);
        return -1;
    }
    *status = bytes[unit] & 0x7F;
    return 0;
}

int controller_7000::get_unit_status(tw_id_type unit_id, int* status) { return get_7000_unit_status(unit_id, status); }

int controller_7000::get_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size)
{
    const twp::Param& p = table_[twp::Item::UnitDescriptor];
    if (size < p.size) {
        twp::set_api(twp::kApiInvalidConfig);
        return -1;
    }
    return read_param(id, p, unit, buffer);
}

int controller_7000::read_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size)
{
    return get_unit_descriptor(id, unit, buffer, size);
}

int controller_7000::get_aen(tw_id_type id, tw_event_info_type* event)
{
    std::memset(event, 0, sizeof *event);
    if (!supported(twp::Item::AenQueue)) return -1;
    TAG_TW_Aen aen {};
    if (table_[twp::Item::AenQueue].size != sizeof aen) return -1;
    if (read_param(id, table_[twp::Item::AenQueue], 0, &aen) != 0) return -1;
    if (aen.aen_code == 0) return 0;
    event->sequence_id = aen.sequence_id;
    event->time_stamp_sec = aen.time_stamp_sec;
    event->aen_code = aen.aen_code;
    event->severity = aen.severity;
    return 0;
}

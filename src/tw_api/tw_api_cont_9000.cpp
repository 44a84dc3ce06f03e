#include "tw_api/tw_api_cont_9000.h"

#include <cstring>
#include <memory>
#include <new>

#include "tw_api/tw_api_osil.h"

namespace {

constexpr int kMaxParamSize = 0xFFFF;

} // namespace

// A scatter list entry of the 32-bit machine: a 32-bit address and a 32-bit
// length, 2 words.
int controller_9000::get_sgl_size() { return 2; }

int controller_9000::param_command(tw_id_type id, bool set, int table, int parameter, int size, void* buffer,
                                   int bufferLength)
{
    if (size <= 0 || size > kMaxParamSize || bufferLength < 0) {
        twp::set_api(twp::kApiInvalidConfig);
        return -1;
    }
    const uint32_t length = uint32_t(size) + sizeof(TAG_GP_Param_Apache);
    std::unique_ptr<uint8_t[]> record(new (std::nothrow) uint8_t[length]());
    if (!record) {
        twp::set_api(7);
        return -1;
    }
    int fd = -1;
    if (osil_instance.open_controller(id, &fd) != 0) return -1;

    TAG_GP_Param_Apache param {};
    param.table_id = uint16_t(table | twp::kTableIdFlag9000);
    param.parameter_id = uint16_t(parameter);
    param.parameter_size_bytes = uint16_t(size);
    std::memcpy(record.get(), &param, sizeof param);
    const size_t count = size_t(size < bufferLength ? size : bufferLength);
    if (set) std::memcpy(record.get() + sizeof param, buffer, count);

    TAG_GP_Command_Driver driver {};
    driver.control_code = twp::kControlFirmwarePassThrough;
    TAG_GP_Command_Full full {};
    full.command.byte0 = twp::byte0Of(set ? twp::kOpSetParam : twp::kOpGetParam, twp::kSglOffsetParam);
    full.command.unit = uint8_t(get_sgl_size() + 2);
    full.command.sgl_entries = 1;
    const int result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, record.get(), length);
    // A status that ends the call with nothing copied leaves the caller's
    // buffer as it was.
    const bool answered = driver.status != twp::kDriverStatusNoEvent && driver.status != twp::kDriverStatusEventOutOfRange;
    if (result == 0 && !set && answered) std::memcpy(buffer, record.get() + sizeof param, count);
    osil_instance.close(fd);
    return result;
}

int controller_9000::get_parameter(tw_id_type id, void* buffer, int bufferLength, int table, int parameter, int size)
{
    return param_command(id, false, table, parameter, size, buffer, bufferLength);
}

int controller_9000::set_parameter(tw_id_type id, int table, int parameter, int size, const void* value)
{
    return param_command(id, true, table, parameter, size, const_cast<void*>(value), size);
}

int controller_9000::read_param(tw_id_type id, const twp::Param& p, int unit, void* buffer)
{
    // A unit's own table is the family's unit table plus the unit.
    const int table = p.table == twp::kTable9000UnitBase ? p.table + unit : p.table;
    return get_parameter(id, buffer, p.size, table, p.parameter, p.size);
}

int controller_9000::write_param(tw_id_type id, const twp::Param& p, int unit, const void* value)
{
    const int table = p.table == twp::kTable9000UnitBase ? p.table + unit : p.table;
    return set_parameter(id, table, p.parameter, p.size, value);
}

int controller_9000::lock(tw_id_type id, uint32_t control_code, int tries)
{
    int fd = -1;
    if (osil_instance.open_controller(id, &fd) != 0) return -1;
    int result = -1;
    for (int i = 0; i < tries && result != 0; ++i) {
        TAG_GP_Command_Driver driver {};
        driver.control_code = control_code;
        TAG_GP_Command_Full full {};
        TAG_GP_Lock request {};
        request.timeout_msec = control_code == twp::kControlAcquireLock ? twp::kLockTimeoutMsec : 0;
        result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, &request, sizeof request);
    }
    osil_instance.close(fd);
    return result == 0 ? 0 : -1;
}

// The controller keeps one lock: the read and write locks take it alike.
int controller_9000::aquire_read_lock(tw_id_type id) { return lock(id, twp::kControlAcquireLock, twp::kLockTries); }
int controller_9000::release_read_lock(tw_id_type id) { return lock(id, twp::kControlReleaseLock, 1); }
int controller_9000::aquire_write_lock(tw_id_type id) { return lock(id, twp::kControlAcquireLock, twp::kLockTries); }
int controller_9000::release_write_lock(tw_id_type id) { return lock(id, twp::kControlReleaseLock, 1); }

int controller_9000::get_driver_version(tw_id_type id, char* version)
{
    int fd = -1;
    if (osil_instance.open_controller(id, &fd) != 0) return -1;
    TAG_GP_Command_Driver driver {};
    driver.control_code = twp::kControlDriverVersion;
    TAG_GP_Command_Full full {};
    TAG_GP_Version answer {};
    const int result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, &answer, sizeof answer);
    osil_instance.close(fd);
    if (result != 0) return -1;
    char text[sizeof answer.text + 1] = {};
    std::memcpy(text, answer.text, sizeof answer.text);
    strip_spaces(text);
    copy_text(version, TW_DRIVER_VERSION_SIZE, text);
    return 0;
}

int controller_9000::unit_exists(tw_id_type unit_id)
{
    const int unit = unit_id.id[4];
    uint8_t units[twp::kMaxUnits];
    if (unit >= twp::kMaxUnits || read_unit_list(unit_id, units) != 0) return 0;
    return units[unit] != 0xFF;
}

int controller_9000::get_unit_status(tw_id_type unit_id, int* status)
{
    const int depth = unit_id.id[3];
    const int unit = unit_id.id[4];
    if (depth < 1 || depth > twp::kMaxUnitDepth || unit >= twp::kMaxUnits) {
        twp::set_api(9);
        return -1;
    }
    if (depth != 1) {
        *status = twp::kSubunitStatus;
        return 0;
    }
    return get_number(unit_id, twp::Item::UnitStatus, status, unit);
}

int controller_9000::get_unit_descriptors(tw_id_type id, int unit, uint8_t* buffer, size_t size)
{
    const twp::Param& p = table_[twp::Item::UnitDescriptor];
    if (size < p.size) {
        twp::set_api(twp::kApiInvalidConfig);
        return -1;
    }
    return read_param(id, p, unit, buffer);
}

int controller_9000::read_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size)
{
    return get_unit_descriptors(id, unit, buffer, size);
}

int controller_9000::find_a_unit_descriptor(tw_id_type unit_id, TAG_TW_Unit_Node* node)
{
    unit_tree tree;
    int n = 0;
    if (find_node(unit_id, tree, &n) != 0) return -1;
    *node = tree.node[n];
    return 0;
}

int controller_9000::find_drives_unit_id(tw_id_type drive_id, tw_id_type* unit_id)
{
    return get_unit_id_from_drive_id(drive_id, unit_id);
}

int controller_9000::event_command(tw_id_type id, uint32_t control_code, tw_event_info_type* event)
{
    // Next and previous start from the caller's event.
    const uint32_t from = event->sequence_id;
    std::memset(event, 0, sizeof *event);
    int fd = -1;
    if (osil_instance.open_controller(id, &fd) != 0) return -1;
    TAG_GP_Command_Driver driver {};
    driver.control_code = control_code;
    driver.sequence_id = from;
    TAG_GP_Command_Full full {};
    TAG_GP_Event answer {};
    const int result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, &answer, sizeof answer);
    osil_instance.close(fd);
    if (result != 0) return -1;
    if (driver.status == twp::kDriverStatusNoEvent || driver.status == twp::kDriverStatusEventOutOfRange) return 0;
    event->sequence_id = answer.sequence_id;
    event->time_stamp_sec = answer.time_stamp_sec;
    event->aen_code = answer.aen_code;
    event->severity = answer.severity;
    const size_t length = answer.parameter_len < sizeof answer.parameter_data ? answer.parameter_len
                                                                                : sizeof answer.parameter_data;
    event->parameter_len = uint8_t(length);
    std::memcpy(event->parameter_data, answer.parameter_data, length);
    const size_t text = strnlen(reinterpret_cast<const char*>(answer.parameter_data), length);
    std::memcpy(event->text, answer.parameter_data, text);
    event->text[text] = '\0';
    event->text_len = uint8_t(text);
    return 0;
}

int controller_9000::get_9000_first_event(tw_id_type id, tw_event_info_type* event)
{
    return event_command(id, twp::kControlFirstEvent, event);
}

int controller_9000::get_9000_last_event(tw_id_type id, tw_event_info_type* event)
{
    return event_command(id, twp::kControlLastEvent, event);
}

int controller_9000::get_9000_next_event(tw_id_type id, tw_event_info_type* event)
{
    return event_command(id, twp::kControlNextEvent, event);
}

int controller_9000::get_9000_previous_event(tw_id_type id, tw_event_info_type* event)
{
    return event_command(id, twp::kControlPreviousEvent, event);
}

#include "tw_api/tw_api_private.h"

#include <cstring>

using twp::Item;

namespace {

bool day_ok(int day)
{
    if (day >= 0 && day < TW_SCHEDULE_DAYS) return true;
    twp::set_api(twp::kApiInvalidConfig);
    return false;
}

} // namespace

void strip_spaces(char* text)
{
    size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == ' ')
        text[--length] = '\0';
    size_t lead = 0;
    while (text[lead] == ' ')
        ++lead;
    if (lead) std::memmove(text, text + lead, length - lead + 1);
}

void copy_text(char* out, size_t outSize, const char* text)
{
    if (outSize == 0) return;
    const size_t length = strnlen(text, outSize - 1);
    std::memset(out, 0, outSize);
    std::memcpy(out, text, length);
}

bool controller_base::supported(Item item)
{
    if (table_[item].present) return true;
    twp::refuse_api(twp::kApiNotSupported);
    return false;
}

int controller_base::get_text(tw_id_type id, Item item, char* out, size_t outSize)
{
    if (!supported(item)) return -1;
    const twp::Param& p = table_[item];
    char text[256] = {};
    if (p.size >= sizeof text) return -1;
    if (read_param(id, p, 0, text) != 0) return -1;
    text[p.size] = '\0';
    strip_spaces(text);
    copy_text(out, outSize, text);
    return 0;
}

int controller_base::get_number(tw_id_type id, Item item, int* out, int unit)
{
    if (!supported(item)) return -1;
    const twp::Param& p = table_[item];
    uint8_t bytes[4] = {};
    if (p.size > sizeof bytes) return -1;
    if (read_param(id, p, unit, bytes) != 0) return -1;
    uint32_t value = 0;
    for (int i = p.size - 1; i >= 0; --i)
        value = (value << 8) | bytes[i];
    *out = int(value);
    return 0;
}

int controller_base::set_number(tw_id_type id, Item item, int value)
{
    if (!supported(item)) return -1;
    const twp::Param& p = table_[item];
    uint8_t bytes[4] = {};
    if (p.size > sizeof bytes) return -1;
    for (unsigned i = 0; i < p.size; ++i)
        bytes[i] = uint8_t(uint32_t(value) >> (8 * i));
    return write_param(id, p, 0, bytes);
}

int controller_base::set_checked(tw_id_type id, Item item, int value, int low, int high, uint32_t code)
{
    if (!supported(item)) return -1;
    if (value < low || value > high) {
        twp::set_api(code);
        return -1;
    }
    return set_number(id, item, value);
}

int controller_base::get_log(tw_id_type id, Item item, unsigned char* buffer, int* length)
{
    if (!supported(item)) return -1;
    const twp::Param& p = table_[item];
    unsigned char log[twp::kDiagnosticLogSize > twp::kControllerLogSize ? twp::kDiagnosticLogSize
                                                                         : twp::kControllerLogSize] = {};
    if (p.size > sizeof log) return -1;
    if (read_param(id, p, 0, log) != 0) return -1;
    const int count = *length < 0 ? 0 : (*length < int(p.size) ? *length : int(p.size));
    std::memcpy(buffer, log, size_t(count));
    *length = count;
    return 0;
}

// Controller information.

int controller_base::get_model(tw_id_type id, char* model) { return get_text(id, Item::Model, model, TW_MODEL_SIZE); }
int controller_base::get_serial_number(tw_id_type id, char* serial_number)
{
    return get_text(id, Item::SerialNumber, serial_number, TW_SERIAL_NUMBER_SIZE);
}
int controller_base::get_pcb_revision(tw_id_type id, char* pcb_revision)
{
    return get_text(id, Item::PcbRevision, pcb_revision, TW_VERSION_SIZE);
}
int controller_base::get_a_chip_version(tw_id_type id, char* version)
{
    return get_text(id, Item::AChipVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_p_chip_version(tw_id_type id, char* version)
{
    return get_text(id, Item::PChipVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_firmware_version(tw_id_type id, char* version)
{
    return get_text(id, Item::FirmwareVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_bios_version(tw_id_type id, char* version)
{
    return get_text(id, Item::BiosVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_monitor_version(tw_id_type id, char* version)
{
    return get_text(id, Item::MonitorVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_number_of_ports(tw_id_type id, int* ports) { return get_number(id, Item::NumberOfPorts, ports); }
int controller_base::get_number_of_drives(tw_id_type id, int* drives)
{
    return get_number(id, Item::NumberOfDrives, drives);
}
int controller_base::get_number_of_units(tw_id_type id, int* units) { return get_number(id, Item::NumberOfUnits, units); }
int controller_base::get_controller_log(tw_id_type id, unsigned char* buffer, int* length)
{
    return get_log(id, Item::ControllerLog, buffer, length);
}
int controller_base::get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length)
{
    return get_log(id, Item::DiagnosticLog, buffer, length);
}
int controller_base::get_avmode(tw_id_type id, int* avmode) { return get_number(id, Item::AvMode, avmode); }
int controller_base::get_boot_unit(tw_id_type id, tw_id_type* unit_id)
{
    int unit = 0;
    if (get_number(id, Item::BootUnit, &unit) != 0) return -1;
    // 0xFF: no boot unit, an identifier with 0xFF as its unit number.
    return tw_create_unit_id(id.id[1], unit, nullptr, 0, unit_id);
}
int controller_base::get_cache_policy(tw_id_type id, int* policy) { return get_number(id, Item::CachePolicy, policy); }
int controller_base::get_jbod_policy(tw_id_type id, int* policy) { return get_number(id, Item::JbodPolicy, policy); }

// Settings and tasks.

int controller_base::get_background_rebuild_rate(tw_id_type id, int* rate)
{
    return get_number(id, Item::RebuildRate, rate);
}
int controller_base::set_background_rebuild_rate(tw_id_type id, int rate)
{
    return set_checked(id, Item::RebuildRate, rate, twp::kRateMin, twp::kRateMax, 45);
}
int controller_base::get_background_verify_rate(tw_id_type id, int* rate)
{
    return get_number(id, Item::VerifyRate, rate);
}
int controller_base::set_background_verify_rate(tw_id_type id, int rate)
{
    return set_checked(id, Item::VerifyRate, rate, twp::kRateMin, twp::kRateMax, 45);
}
int controller_base::get_selftest_flags(tw_id_type id, int* flags) { return get_number(id, Item::SelftestFlags, flags); }
int controller_base::set_selftest_flags(tw_id_type id, int flags)
{
    return set_number(id, Item::SelftestFlags, flags);
}

int controller_base::get_schedule(tw_id_type id, tw_task_schedule_type* schedule)
{
    if (!supported(Item::TaskSchedule)) return -1;
    const twp::Param& p = table_[Item::TaskSchedule];
    static_assert(sizeof(tw_task_schedule_type) == twp::kTaskScheduleSize);
    if (p.size != sizeof *schedule) return -1;
    tw_task_schedule_type read {};
    if (read_param(id, p, 0, &read) != 0) return -1;
    *schedule = read;
    return 0;
}
int controller_base::get_task_schedule(tw_id_type id, tw_task_schedule_type* schedule)
{
    return get_schedule(id, schedule);
}
int controller_base::set_task_schedule(tw_id_type id, const tw_task_schedule_type* schedule)
{
    if (!supported(Item::TaskSchedule)) return -1;
    const twp::Param& p = table_[Item::TaskSchedule];
    if (p.size != sizeof *schedule) return -1;
    return write_param(id, p, 0, schedule);
}

// A task item is one day's window of the schedule: the schedule is read,
// and for a change written back whole.
int controller_base::get_window(tw_id_type id, int day, bool rebuild, tw_task_window_type* item)
{
    if (!supported(Item::TaskSchedule)) return -1;
    if (!day_ok(day)) return -1;
    tw_task_schedule_type schedule {};
    if (get_schedule(id, &schedule) != 0) return -1;
    *item = rebuild ? schedule.day[day].rebuild : schedule.day[day].verify;
    return 0;
}
int controller_base::set_window(tw_id_type id, int day, bool rebuild, tw_task_window_type item)
{
    if (!supported(Item::TaskSchedule)) return -1;
    if (!day_ok(day)) return -1;
    tw_task_schedule_type schedule {};
    if (get_schedule(id, &schedule) != 0) return -1;
    (rebuild ? schedule.day[day].rebuild : schedule.day[day].verify) = item;
    return set_task_schedule(id, &schedule);
}
int controller_base::get_rebuild_task_item(tw_id_type id, int day, tw_task_window_type* item)
{
    return get_window(id, day, true, item);
}
int controller_base::set_rebuild_task_item(tw_id_type id, int day, tw_task_window_type item)
{
    return set_window(id, day, true, item);
}
int controller_base::get_verify_task_item(tw_id_type id, int day, tw_task_window_type* item)
{
    return get_window(id, day, false, item);
}
int controller_base::set_verify_task_item(tw_id_type id, int day, tw_task_window_type item)
{
    return set_window(id, day, false, item);
}
int controller_base::get_selftest_task_item(tw_id_type id, int day, int* start_time)
{
    if (!supported(Item::TaskSchedule)) return -1;
    if (!day_ok(day)) return -1;
    tw_task_schedule_type schedule {};
    if (get_schedule(id, &schedule) != 0) return -1;
    *start_time = schedule.day[day].selftest;
    return 0;
}
int controller_base::set_selftest_task_item(tw_id_type id, int day, int start_time)
{
    if (!supported(Item::TaskSchedule)) return -1;
    if (!day_ok(day)) return -1;
    tw_task_schedule_type schedule {};
    if (get_schedule(id, &schedule) != 0) return -1;
    schedule.day[day].selftest = uint16_t(start_time);
    return set_task_schedule(id, &schedule);
}
int controller_base::get_rebuild_schedule_state(tw_id_type id, int* state)
{
    return get_number(id, Item::RebuildScheduleState, state);
}
int controller_base::get_verify_schedule_state(tw_id_type id, int* state)
{
    return get_number(id, Item::VerifyScheduleState, state);
}
int controller_base::enable_rebuild_task_schedule(tw_id_type id) { return set_number(id, Item::RebuildScheduleState, 1); }
int controller_base::disable_rebuild_task_schedule(tw_id_type id)
{
    return set_number(id, Item::RebuildScheduleState, 0);
}
int controller_base::enable_verify_task_schedule(tw_id_type id) { return set_number(id, Item::VerifyScheduleState, 1); }
int controller_base::disable_verify_task_schedule(tw_id_type id) { return set_number(id, Item::VerifyScheduleState, 0); }
int controller_base::get_spinups_allowed(tw_id_type id, int* spinups)
{
    return get_number(id, Item::SpinupsAllowed, spinups);
}
int controller_base::set_spinups_allowed(tw_id_type id, int spinups)
{
    return set_checked(id, Item::SpinupsAllowed, spinups, twp::kSpinupsMin, twp::kSpinupsMax, 57);
}
int controller_base::get_stagger_time(tw_id_type id, int* stagger_time)
{
    return get_number(id, Item::StaggerTime, stagger_time);
}
int controller_base::set_stagger_time(tw_id_type id, int stagger_time)
{
    return set_checked(id, Item::StaggerTime, stagger_time, twp::kStaggerMin, twp::kStaggerMax, 58);
}
int controller_base::enable_avmode(tw_id_type id) { return set_number(id, Item::AvMode, 1); }
int controller_base::disable_avmode(tw_id_type id) { return set_number(id, Item::AvMode, 0); }
int controller_base::enable_jbod_online(tw_id_type id) { return set_number(id, Item::JbodPolicy, 1); }
int controller_base::disable_jbod_online(tw_id_type id) { return set_number(id, Item::JbodPolicy, 0); }
int controller_base::set_boot_unit(tw_id_type unit_id)
{
    if (unit_id.id[0] != TW_ID_KIND_UNIT) {
        twp::set_api(9);
        return -1;
    }
    return set_number(unit_id, Item::BootUnit, unit_id.id[4]);
}
// Cache policy 1: every unit's cache goes off while a unit is degraded; 0:
// each unit keeps its own cache states.
int controller_base::disable_cache_on_unit_degrade(tw_id_type id) { return set_number(id, Item::CachePolicy, 1); }
int controller_base::use_unit_cache_states(tw_id_type id) { return set_number(id, Item::CachePolicy, 0); }
int controller_base::shutdown(tw_id_type id) { return set_number(id, Item::Shutdown, 1); }
// Media scan 1: running; 0: paused.
int controller_base::pause_mediascan(tw_id_type id) { return set_number(id, Item::MediaScan, 0); }
int controller_base::resume_mediascan(tw_id_type id) { return set_number(id, Item::MediaScan, 1); }

// Battery backup unit.

int controller_base::bbu_is_present(tw_id_type id, int* present) { return get_number(id, Item::BbuPresent, present); }
int controller_base::bbu_battery_is_present(tw_id_type id, int* present)
{
    return get_number(id, Item::BbuBatteryPresent, present);
}
int controller_base::bbu_battery_test_in_progress(tw_id_type id, int* in_progress)
{
    return get_number(id, Item::BbuTestInProgress, in_progress);
}
int controller_base::bbu_battery_charge_in_progress(tw_id_type id, int* in_progress)
{
    return get_number(id, Item::BbuChargeInProgress, in_progress);
}
int controller_base::bbu_enable(tw_id_type id) { return set_number(id, Item::BbuEnabled, 1); }
int controller_base::bbu_disable(tw_id_type id) { return set_number(id, Item::BbuEnabled, 0); }
int controller_base::bbu_initialize_battery(tw_id_type id) { return set_number(id, Item::BbuInitializeBattery, 1); }
int controller_base::bbu_test_battery(tw_id_type id) { return set_number(id, Item::BbuTestBattery, 1); }
int controller_base::get_bbu_status(tw_id_type id, int* status) { return get_number(id, Item::BbuStatus, status); }
int controller_base::get_bbu_status_summary(tw_id_type id, int* summary)
{
    return get_number(id, Item::BbuStatusSummary, summary);
}
int controller_base::get_bbu_online_state(tw_id_type id, int* state) { return get_number(id, Item::BbuOnlineState, state); }
int controller_base::get_bbu_battery_voltage_status(tw_id_type id, int* status)
{
    return get_number(id, Item::BbuVoltageStatus, status);
}
int controller_base::get_bbu_battery_temperature_status(tw_id_type id, int* status)
{
    return get_number(id, Item::BbuTemperatureStatus, status);
}
int controller_base::get_bbu_battery_capacity(tw_id_type id, int* capacity)
{
    return get_number(id, Item::BbuCapacity, capacity);
}
int controller_base::get_bbu_battery_charge_voltage(tw_id_type id, int* voltage)
{
    return get_number(id, Item::BbuChargeVoltage, voltage);
}
int controller_base::get_bbu_battery_installation_date(tw_id_type id, char* date)
{
    return get_text(id, Item::BbuInstallationDate, date, TW_DATE_SIZE);
}
int controller_base::get_bbu_last_battery_test_date(tw_id_type id, char* date)
{
    return get_text(id, Item::BbuLastTestDate, date, TW_DATE_SIZE);
}
int controller_base::get_bbu_serial_number(tw_id_type id, char* serial_number)
{
    return get_text(id, Item::BbuSerialNumber, serial_number, TW_SERIAL_NUMBER_SIZE);
}
int controller_base::get_bbu_firmware_version(tw_id_type id, char* version)
{
    return get_text(id, Item::BbuFirmwareVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_bbu_boot_code_version(tw_id_type id, char* version)
{
    return get_text(id, Item::BbuBootCodeVersion, version, TW_VERSION_SIZE);
}
int controller_base::get_bbu_pcb_revision(tw_id_type id, char* pcb_revision)
{
    return get_text(id, Item::BbuPcbRevision, pcb_revision, TW_VERSION_SIZE);
}
int controller_base::get_bbu_factory_data(tw_id_type id, char* factory_data)
{
    return get_text(id, Item::BbuFactoryData, factory_data, TW_FACTORY_DATA_SIZE);
}

namespace {
int not_supported()
{
    twp::refuse_api(twp::kApiNotSupported);
    return -1;
}
} // namespace

int controller_base::get_first_event(tw_id_type, tw_event_info_type*) { return not_supported(); }
int controller_base::get_last_event(tw_id_type, tw_event_info_type*) { return not_supported(); }
int controller_base::get_next_event(tw_id_type, tw_event_info_type*) { return not_supported(); }
int controller_base::get_previous_event(tw_id_type, tw_event_info_type*) { return not_supported(); }

namespace twp {

void set_api(uint32_t code) { tw_api_set_error(kFlagApi, code, 0, 0, 0, nullptr); }

void refuse_api(uint32_t code)
{
    tw_api_clear_error();
    tw_api_set_error(kFlagApi, code, 0, 0, 0, nullptr);
}

tw_id_type unit_id_of(tw_id_type controller_id, int unit, const uint8_t* path, int depth)
{
    tw_id_type id;
    std::memset(id.id, 0xFF, sizeof id.id);
    id.id[0] = TW_ID_KIND_UNIT;
    id.id[1] = controller_id.id[1];
    id.id[3] = uint8_t(depth);
    id.id[4] = uint8_t(unit);
    for (int i = 0; i + 1 < depth; ++i)
        id.id[5 + i] = path[i];
    return id;
}

tw_id_type drive_id_of(tw_id_type controller_id, int drive)
{
    tw_id_type id;
    std::memset(id.id, 0xFF, sizeof id.id);
    id.id[0] = TW_ID_KIND_DRIVE;
    id.id[1] = controller_id.id[1];
    id.id[2] = uint8_t(drive);
    return id;
}

void clear_list(tw_id_list_type* list)
{
    if (!list) return;
    std::memset(list, 0xFF, sizeof *list);
    list->length = 0;
}

} // namespace twp

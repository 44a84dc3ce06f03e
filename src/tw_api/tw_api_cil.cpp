#include "tw_api/tw_api_cil.h"

#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"
#include "tw_api/tw_api_osil.h"

namespace {

// The identifier is of the kind the call wants (a controller, or for the
// boot unit a unit), then of a family the API speaks to.
template <class Call>
int dispatch(tw_id_type id, int kind, Call call)
{
    if (id.id[0] != kind) {
        tw_api_clear_error();
        tw_api_set_error(TW_ERROR_FLAG_API, kind == TW_ID_KIND_UNIT ? 9 : kind == TW_ID_KIND_DRIVE ? 10 : 8, 0, 0, 0, nullptr);
        return -1;
    }
    switch (osil_instance.controllers_architecture(id)) {
    case 3: return call(static_cast<controller_base&>(c7000));
    case 4: return call(static_cast<controller_base&>(c9000));
    default: return -1;
    }
}

} // namespace

int cil::get_controller_id_list(tw_id_list_type* list)
{
    osil_instance.osil_get_controller_id_list(list);
    if (list->length == 0) {
        tw_api_set_error(TW_ERROR_FLAG_API, 1, 0, 0, 0, nullptr);
        return -1;
    }
    return 0;
}

int cil::get_model(tw_id_type id, char* model)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_model(id, model); });
}

int cil::get_serial_number(tw_id_type id, char* serial_number)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_serial_number(id, serial_number); });
}

int cil::get_pcb_revision(tw_id_type id, char* pcb_revision)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_pcb_revision(id, pcb_revision); });
}

int cil::get_a_chip_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_a_chip_version(id, version); });
}

int cil::get_p_chip_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_p_chip_version(id, version); });
}

int cil::get_firmware_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_firmware_version(id, version); });
}

int cil::get_bios_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bios_version(id, version); });
}

int cil::get_monitor_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_monitor_version(id, version); });
}

int cil::get_driver_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_driver_version(id, version); });
}

int cil::get_number_of_ports(tw_id_type id, int* ports)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_number_of_ports(id, ports); });
}

int cil::get_number_of_drives(tw_id_type id, int* drives)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_number_of_drives(id, drives); });
}

int cil::get_number_of_units(tw_id_type id, int* units)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_number_of_units(id, units); });
}

int cil::get_controller_log(tw_id_type id, unsigned char* buffer, int* length)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_controller_log(id, buffer, length); });
}

int cil::get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_diagnostic_log(id, buffer, length); });
}

int cil::get_avmode(tw_id_type id, int* avmode)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_avmode(id, avmode); });
}

int cil::get_boot_unit(tw_id_type id, tw_id_type* unit_id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_boot_unit(id, unit_id); });
}

int cil::get_cache_policy(tw_id_type id, int* policy)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_cache_policy(id, policy); });
}

int cil::get_jbod_policy(tw_id_type id, int* policy)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_jbod_policy(id, policy); });
}

int cil::get_background_rebuild_rate(tw_id_type id, int* rate)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_background_rebuild_rate(id, rate); });
}

int cil::set_background_rebuild_rate(tw_id_type id, int rate)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_background_rebuild_rate(id, rate); });
}

int cil::get_background_verify_rate(tw_id_type id, int* rate)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_background_verify_rate(id, rate); });
}

int cil::set_background_verify_rate(tw_id_type id, int rate)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_background_verify_rate(id, rate); });
}

int cil::get_selftest_flags(tw_id_type id, int* flags)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_selftest_flags(id, flags); });
}

int cil::set_selftest_flags(tw_id_type id, int flags)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_selftest_flags(id, flags); });
}

int cil::get_rebuild_task_item(tw_id_type id, int day, tw_task_window_type* item)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_rebuild_task_item(id, day, item); });
}

int cil::set_rebuild_task_item(tw_id_type id, int day, tw_task_window_type item)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_rebuild_task_item(id, day, item); });
}

int cil::get_verify_task_item(tw_id_type id, int day, tw_task_window_type* item)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_verify_task_item(id, day, item); });
}

int cil::set_verify_task_item(tw_id_type id, int day, tw_task_window_type item)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_verify_task_item(id, day, item); });
}

int cil::get_selftest_task_item(tw_id_type id, int day, int* start_time)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_selftest_task_item(id, day, start_time); });
}

int cil::set_selftest_task_item(tw_id_type id, int day, int start_time)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_selftest_task_item(id, day, start_time); });
}

int cil::get_task_schedule(tw_id_type id, tw_task_schedule_type* schedule)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_task_schedule(id, schedule); });
}

int cil::set_task_schedule(tw_id_type id, const tw_task_schedule_type* schedule)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_task_schedule(id, schedule); });
}

int cil::get_rebuild_schedule_state(tw_id_type id, int* state)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_rebuild_schedule_state(id, state); });
}

int cil::get_verify_schedule_state(tw_id_type id, int* state)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_verify_schedule_state(id, state); });
}

int cil::enable_rebuild_task_schedule(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.enable_rebuild_task_schedule(id); });
}

int cil::disable_rebuild_task_schedule(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.disable_rebuild_task_schedule(id); });
}

int cil::enable_verify_task_schedule(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.enable_verify_task_schedule(id); });
}

int cil::disable_verify_task_schedule(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.disable_verify_task_schedule(id); });
}

int cil::get_spinups_allowed(tw_id_type id, int* spinups)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_spinups_allowed(id, spinups); });
}

int cil::set_spinups_allowed(tw_id_type id, int spinups)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_spinups_allowed(id, spinups); });
}

int cil::get_stagger_time(tw_id_type id, int* stagger_time)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_stagger_time(id, stagger_time); });
}

int cil::set_stagger_time(tw_id_type id, int stagger_time)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.set_stagger_time(id, stagger_time); });
}

int cil::enable_avmode(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.enable_avmode(id); });
}

int cil::disable_avmode(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.disable_avmode(id); });
}

int cil::enable_jbod_online(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.enable_jbod_online(id); });
}

int cil::disable_jbod_online(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.disable_jbod_online(id); });
}

int cil::set_boot_unit(tw_id_type unit_id)
{
    return dispatch(unit_id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.set_boot_unit(unit_id); });
}

int cil::disable_cache_on_unit_degrade(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.disable_cache_on_unit_degrade(id); });
}

int cil::use_unit_cache_states(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.use_unit_cache_states(id); });
}

int cil::shutdown(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.shutdown(id); });
}

int cil::pause_mediascan(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.pause_mediascan(id); });
}

int cil::resume_mediascan(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.resume_mediascan(id); });
}

int cil::bbu_is_present(tw_id_type id, int* present)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_is_present(id, present); });
}

int cil::bbu_battery_is_present(tw_id_type id, int* present)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_battery_is_present(id, present); });
}

int cil::bbu_battery_test_in_progress(tw_id_type id, int* in_progress)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_battery_test_in_progress(id, in_progress); });
}

int cil::bbu_battery_charge_in_progress(tw_id_type id, int* in_progress)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_battery_charge_in_progress(id, in_progress); });
}

int cil::bbu_enable(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_enable(id); });
}

int cil::bbu_disable(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_disable(id); });
}

int cil::bbu_initialize_battery(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_initialize_battery(id); });
}

int cil::bbu_test_battery(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.bbu_test_battery(id); });
}

int cil::get_bbu_status(tw_id_type id, int* status)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_status(id, status); });
}

int cil::get_bbu_status_summary(tw_id_type id, int* summary)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_status_summary(id, summary); });
}

int cil::get_bbu_online_state(tw_id_type id, int* state)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_online_state(id, state); });
}

int cil::get_bbu_battery_voltage_status(tw_id_type id, int* status)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_battery_voltage_status(id, status); });
}

int cil::get_bbu_battery_temperature_status(tw_id_type id, int* status)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_battery_temperature_status(id, status); });
}

int cil::get_bbu_battery_capacity(tw_id_type id, int* capacity)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_battery_capacity(id, capacity); });
}

int cil::get_bbu_battery_charge_voltage(tw_id_type id, int* voltage)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_battery_charge_voltage(id, voltage); });
}

int cil::get_bbu_battery_installation_date(tw_id_type id, char* date)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_battery_installation_date(id, date); });
}

int cil::get_bbu_last_battery_test_date(tw_id_type id, char* date)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_last_battery_test_date(id, date); });
}

int cil::get_bbu_serial_number(tw_id_type id, char* serial_number)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_serial_number(id, serial_number); });
}

int cil::get_bbu_firmware_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_firmware_version(id, version); });
}

int cil::get_bbu_boot_code_version(tw_id_type id, char* version)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_boot_code_version(id, version); });
}

int cil::get_bbu_pcb_revision(tw_id_type id, char* pcb_revision)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_pcb_revision(id, pcb_revision); });
}

int cil::get_bbu_factory_data(tw_id_type id, char* factory_data)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_bbu_factory_data(id, factory_data); });
}

int cil::get_unit_id_list(tw_id_type id, tw_id_list_type* unit_id_list)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_unit_id_list(id, unit_id_list); });
}

int cil::get_subunit_id_list(tw_id_type id, tw_id_list_type* subunit_id_list)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_subunit_id_list(id, subunit_id_list); });
}

int cil::get_number_of_subunits(tw_id_type id, int* number_of_subunits)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_number_of_subunits(id, number_of_subunits); });
}

int cil::get_unit_status(tw_id_type id, int* status)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_status(id, status); });
}

int cil::get_unit_mode(tw_id_type id, int* mode)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_mode(id, mode); });
}

int cil::get_unit_capacity(tw_id_type id, uint64_t* sectors)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_capacity(id, sectors); });
}

int cil::get_unit_configuration(tw_id_type id, int* configuration)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_configuration(id, configuration); });
}

int cil::get_unit_percentage_complete(tw_id_type id, int* percent)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_percentage_complete(id, percent); });
}

int cil::get_unit_stripe_size(tw_id_type id, int* stripe_size)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_stripe_size(id, stripe_size); });
}

int cil::get_unit_read_cache_state(tw_id_type id, int* state)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_read_cache_state(id, state); });
}

int cil::get_unit_write_cache_state(tw_id_type id, int* state)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_write_cache_state(id, state); });
}

int cil::get_unit_ecc_policy(tw_id_type id, int* policy)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_ecc_policy(id, policy); });
}

int cil::get_unit_auto_verify_policy(tw_id_type id, int* policy)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_auto_verify_policy(id, policy); });
}

int cil::get_unit_id_from_drive_id(tw_id_type id, tw_id_type* unit_id)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_unit_id_from_drive_id(id, unit_id); });
}

int cil::get_drive_id_list(tw_id_type id, tw_id_list_type* drive_id_list)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_drive_id_list(id, drive_id_list); });
}

int cil::get_drive_id_list_from_unit_id(tw_id_type id, tw_id_list_type* drive_id_list)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_drive_id_list_from_unit_id(id, drive_id_list); });
}

int cil::get_drive_status(tw_id_type id, int* status)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_status(id, status); });
}

int cil::get_drive_capacity(tw_id_type id, uint64_t* sectors)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_capacity(id, sectors); });
}

int cil::get_drive_model(tw_id_type id, char* model)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_model(id, model); });
}

int cil::get_drive_serial_number(tw_id_type id, char* serial_number)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_serial_number(id, serial_number); });
}

int cil::get_drive_firmware_version(tw_id_type id, char* firmware_version)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_firmware_version(id, firmware_version); });
}

int cil::get_drive_port_id(tw_id_type id, tw_id_type* port_id)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_port_id(id, port_id); });
}

int cil::get_port_id_list(tw_id_type id, tw_id_list_type* port_id_list)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_port_id_list(id, port_id_list); });
}

int cil::get_first_event(tw_id_type id, tw_event_info_type* event)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_first_event(id, event); });
}

int cil::get_last_event(tw_id_type id, tw_event_info_type* event)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_last_event(id, event); });
}

int cil::get_next_event(tw_id_type id, tw_event_info_type* event)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_next_event(id, event); });
}

int cil::get_previous_event(tw_id_type id, tw_event_info_type* event)
{
    return dispatch(id, TW_ID_KIND_CONTROLLER, [&](controller_base& c) { return c.get_previous_event(id, event); });
}

int cil::enable_unit_read_cache(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.enable_unit_read_cache(id); });
}

int cil::disable_unit_read_cache(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.disable_unit_read_cache(id); });
}

int cil::enable_unit_write_cache(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.enable_unit_write_cache(id); });
}

int cil::disable_unit_write_cache(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.disable_unit_write_cache(id); });
}

int cil::enable_unit_auto_verify(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.enable_unit_auto_verify(id); });
}

int cil::disable_unit_auto_verify(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.disable_unit_auto_verify(id); });
}

int cil::unit_set_ecc_policy_to_continue(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.unit_set_ecc_policy_to_continue(id); });
}

int cil::unit_set_ecc_policy_to_halt(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.unit_set_ecc_policy_to_halt(id); });
}

int cil::get_unit_local_unit_id(tw_id_type id, int* local_unit_id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.get_unit_local_unit_id(id, local_unit_id); });
}

int cil::unit_background_task_active(tw_id_type id, int* active)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.unit_background_task_active(id, active); });
}

int cil::unit_is_initialized(tw_id_type id, int* initialized)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.unit_is_initialized(id, initialized); });
}

int cil::remove_drive(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.remove_drive(id); });
}

int cil::add_drive(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.add_drive(id); });
}

// Unit tasks and the drives' ATA side.

int cil::rebuild_unit(tw_id_type id, const tw_id_list_type* drive_id_list)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.rebuild_unit(id, drive_id_list); });
}

int cil::pause_rebuild_unit(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.pause_rebuild_unit(id); });
}

int cil::resume_rebuild_unit(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.resume_rebuild_unit(id); });
}

int cil::verify_unit(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.verify_unit(id); });
}

int cil::stop_verify_unit(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.stop_verify_unit(id); });
}

int cil::flush_unit_write_cache(tw_id_type id)
{
    return dispatch(id, TW_ID_KIND_UNIT, [&](controller_base& c) { return c.flush_unit_write_cache(id); });
}

int cil::ata_passthrough(tw_id_type id, tw_ata_registers_type* registers, unsigned char* data)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.ata_passthrough(id, registers, data); });
}

int cil::get_drive_ident_data(tw_id_type id, unsigned char* data)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_ident_data(id, data); });
}

int cil::get_drive_smart_data(tw_id_type id, unsigned char* data)
{
    return dispatch(id, TW_ID_KIND_DRIVE, [&](controller_base& c) { return c.get_drive_smart_data(id, data); });
}

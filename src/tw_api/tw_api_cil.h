// cil: the controller interface layer. One member per controller function
// of the API: each asks which family the controller is (a compatibility read
// on the controller, one driver call more per call) and hands the call to
// c7000 (3) or c9000 (4); anything else gives -1.
#pragma once

#include "tw_api/tw_api.h"

class controller_base;

class cil {
public:
    int get_controller_id_list(tw_id_list_type* list);
    int get_model(tw_id_type id, char* model);
    int get_serial_number(tw_id_type id, char* serial_number);
    int get_pcb_revision(tw_id_type id, char* pcb_revision);
    int get_a_chip_version(tw_id_type id, char* version);
    int get_p_chip_version(tw_id_type id, char* version);
    int get_firmware_version(tw_id_type id, char* version);
    int get_bios_version(tw_id_type id, char* version);
    int get_monitor_version(tw_id_type id, char* version);
    int get_driver_version(tw_id_type id, char* version);
    int get_number_of_ports(tw_id_type id, int* ports);
    int get_number_of_drives(tw_id_type id, int* drives);
    int get_number_of_units(tw_id_type id, int* units);
    int get_controller_log(tw_id_type id, unsigned char* buffer, int* length);
    int get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length);
    int get_avmode(tw_id_type id, int* avmode);
    int get_boot_unit(tw_id_type id, tw_id_type* unit_id);
    int get_cache_policy(tw_id_type id, int* policy);
    int get_jbod_policy(tw_id_type id, int* policy);

    int get_background_rebuild_rate(tw_id_type id, int* rate);
    int set_background_rebuild_rate(tw_id_type id, int rate);
    int get_background_verify_rate(tw_id_type id, int* rate);
    int set_background_verify_rate(tw_id_type id, int rate);
    int get_selftest_flags(tw_id_type id, int* flags);
    int set_selftest_flags(tw_id_type id, int flags);
    int get_rebuild_task_item(tw_id_type id, int day, tw_task_window_type* item);
    int set_rebuild_task_item(tw_id_type id, int day, tw_task_window_type item);
    int get_verify_task_item(tw_id_type id, int day, tw_task_window_type* item);
    int set_verify_task_item(tw_id_type id, int day, tw_task_window_type item);
    int get_selftest_task_item(tw_id_type id, int day, int* start_time);
    int set_selftest_task_item(tw_id_type id, int day, int start_time);
    int get_task_schedule(tw_id_type id, tw_task_schedule_type* schedule);
    int set_task_schedule(tw_id_type id, const tw_task_schedule_type* schedule);
    int get_rebuild_schedule_state(tw_id_type id, int* state);
    int get_verify_schedule_state(tw_id_type id, int* state);
    int enable_rebuild_task_schedule(tw_id_type id);
    int disable_rebuild_task_schedule(tw_id_type id);
    int enable_verify_task_schedule(tw_id_type id);
    int disable_verify_task_schedule(tw_id_type id);
    int get_spinups_allowed(tw_id_type id, int* spinups);
    int set_spinups_allowed(tw_id_type id, int spinups);
    int get_stagger_time(tw_id_type id, int* stagger_time);
    int set_stagger_time(tw_id_type id, int stagger_time);
    int enable_avmode(tw_id_type id);
    int disable_avmode(tw_id_type id);
    int enable_jbod_online(tw_id_type id);
    int disable_jbod_online(tw_id_type id);
    int set_boot_unit(tw_id_type unit_id);
    int disable_cache_on_unit_degrade(tw_id_type id);
    int use_unit_cache_states(tw_id_type id);
    int shutdown(tw_id_type id);
    int pause_mediascan(tw_id_type id);
    int resume_mediascan(tw_id_type id);

    int bbu_is_present(tw_id_type id, int* present);
    int bbu_battery_is_present(tw_id_type id, int* present);
    int bbu_battery_test_in_progress(tw_id_type id, int* in_progress);
    int bbu_battery_charge_in_progress(tw_id_type id, int* in_progress);
    int bbu_enable(tw_id_type id);
    int bbu_disable(tw_id_type id);
    int bbu_initialize_battery(tw_id_type id);
    int bbu_test_battery(tw_id_type id);
    int get_bbu_status(tw_id_type id, int* status);
    int get_bbu_status_summary(tw_id_type id, int* summary);
    int get_bbu_online_state(tw_id_type id, int* state);
    int get_bbu_battery_voltage_status(tw_id_type id, int* status);
    int get_bbu_battery_temperature_status(tw_id_type id, int* status);
    int get_bbu_battery_capacity(tw_id_type id, int* capacity);
    int get_bbu_battery_charge_voltage(tw_id_type id, int* voltage);
    int get_bbu_battery_installation_date(tw_id_type id, char* date);
    int get_bbu_last_battery_test_date(tw_id_type id, char* date);
    int get_bbu_serial_number(tw_id_type id, char* serial_number);
    int get_bbu_firmware_version(tw_id_type id, char* version);
    int get_bbu_boot_code_version(tw_id_type id, char* version);
    int get_bbu_pcb_revision(tw_id_type id, char* pcb_revision);
    int get_bbu_factory_data(tw_id_type id, char* factory_data);

    int get_unit_id_list(tw_id_type id, tw_id_list_type* unit_id_list);
    int get_subunit_id_list(tw_id_type id, tw_id_list_type* subunit_id_list);
    int get_number_of_subunits(tw_id_type id, int* number_of_subunits);
    int get_unit_status(tw_id_type id, int* status);
    int get_unit_mode(tw_id_type id, int* mode);
    int get_unit_capacity(tw_id_type id, uint64_t* sectors);
    int get_unit_configuration(tw_id_type id, int* configuration);
    int get_unit_percentage_complete(tw_id_type id, int* percent);
    int get_unit_stripe_size(tw_id_type id, int* stripe_size);
    int get_unit_read_cache_state(tw_id_type id, int* state);
    int get_unit_write_cache_state(tw_id_type id, int* state);
    int get_unit_ecc_policy(tw_id_type id, int* policy);
    int get_unit_auto_verify_policy(tw_id_type id, int* policy);
    int get_unit_id_from_drive_id(tw_id_type id, tw_id_type* unit_id);
    int remove_drive(tw_id_type id);
    int add_drive(tw_id_type id);
    int get_unit_local_unit_id(tw_id_type id, int* local_unit_id);
    int unit_background_task_active(tw_id_type id, int* active);
    int unit_is_initialized(tw_id_type id, int* initialized);
    int enable_unit_read_cache(tw_id_type id);
    int disable_unit_read_cache(tw_id_type id);
    int enable_unit_write_cache(tw_id_type id);
    int disable_unit_write_cache(tw_id_type id);
    int enable_unit_auto_verify(tw_id_type id);
    int disable_unit_auto_verify(tw_id_type id);
    int unit_set_ecc_policy_to_continue(tw_id_type id);
    int unit_set_ecc_policy_to_halt(tw_id_type id);
    int get_first_event(tw_id_type id, tw_event_info_type* event);
    int get_last_event(tw_id_type id, tw_event_info_type* event);
    int get_next_event(tw_id_type id, tw_event_info_type* event);
    int get_previous_event(tw_id_type id, tw_event_info_type* event);
    int get_drive_id_list(tw_id_type id, tw_id_list_type* drive_id_list);
    int get_drive_id_list_from_unit_id(tw_id_type id, tw_id_list_type* drive_id_list);
    int get_drive_status(tw_id_type id, int* status);
    int get_drive_capacity(tw_id_type id, uint64_t* sectors);
    int get_drive_model(tw_id_type id, char* model);
    int get_drive_serial_number(tw_id_type id, char* serial_number);
    int get_drive_firmware_version(tw_id_type id, char* firmware_version);
    int get_drive_port_id(tw_id_type id, tw_id_type* port_id);
    int get_port_id_list(tw_id_type id, tw_id_list_type* port_id_list);

    // --- Unit configuration (tw_api_unitops.cpp).
    int create_unit(const tw_id_list_type* drives, int configuration, int stripe, int subunit_size, int notify,
                    tw_id_type* unit_id);
    int destroy_unit(tw_id_type unit_id, int notify);
    int export_unit(tw_id_type unit_id, int notify);
    int import_unit(const tw_id_list_type* drives, int notify, tw_id_type* unit_id);
    int remove_unit(tw_id_type unit_id, int notify);
    int split_mirror(tw_id_type unit_id, int notify, tw_id_list_type* units);
    int migrate_unit(tw_id_type unit_id, const tw_id_list_type* drives, int configuration, int stripe);
    int rescan_controller(tw_id_type id, int notify, tw_id_list_type* units, tw_id_list_type* drives);

    // Unit tasks and the drives' ATA side (tw_api_tasks.cpp, tw_api_ata.cpp).
    int rebuild_unit(tw_id_type id, const tw_id_list_type* drive_id_list);
    int pause_rebuild_unit(tw_id_type id);
    int resume_rebuild_unit(tw_id_type id);
    int verify_unit(tw_id_type id);
    int stop_verify_unit(tw_id_type id);
    int flush_unit_write_cache(tw_id_type id);
    int ata_passthrough(tw_id_type id, tw_ata_registers_type* registers, unsigned char* data);
    int get_drive_ident_data(tw_id_type id, unsigned char* data);
    int get_drive_smart_data(tw_id_type id, unsigned char* data);
};

extern cil controller;

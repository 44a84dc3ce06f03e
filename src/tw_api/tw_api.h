/* The controller API: a flat C interface to the RAID controllers of the 7000
 * and 9000 families. Every function that concerns an object takes that
 * object's identifier by value first, writes its results through pointers,
 * and returns 0 on success or -1 on failure, with the details in the error
 * record (tw_get_error_information). Only the version and copyright texts
 * are returned directly.
 *
 * Output texts are written into arrays of the sizes given in the
 * signatures, and are always terminated within them. */
#ifndef TW_API_TW_API_H
#define TW_API_TW_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- types */

/* An object's identifier. Byte 0 is the kind (1 controller, 2 unit,
 * 3 drive or port), byte 1 the controller number; unused bytes are 0xFF.
 * A unit holds its tree depth (1 to 4) in byte 3, its number in byte 4 and
 * up to three subunits in bytes 5 to 7; a drive or port its number in
 * byte 2. Build and read identifiers only with the functions below. */
typedef struct tw_id_type_tag {
    unsigned char id[8];
} tw_id_type;

enum {
    TW_ID_KIND_CONTROLLER = 1,
    TW_ID_KIND_UNIT = 2,
    TW_ID_KIND_DRIVE = 3
};

#define TW_MAX_CONTROLLERS 16

typedef struct tw_id_list_type_tag {
    tw_id_type list[TW_MAX_CONTROLLERS];
    int length;
} tw_id_list_type;

/* valid_error_flags bits. */
#define TW_ERROR_FLAG_API 0x1u
#define TW_ERROR_FLAG_OS 0x2u
#define TW_ERROR_FLAG_DRIVER 0x4u
#define TW_ERROR_FLAG_CONTROLLER 0x8u
#define TW_ERROR_FLAG_7000 0x10000u
#define TW_ERROR_FLAG_9000 0x20000u

#define TW_ADDITIONAL_DATA_SIZE 128
#define TW_ERROR_TEXT_SIZE 1024

/* The record of the last failure. */
typedef struct tw_api_error_type_tag {
    uint32_t valid_error_flags;
    uint32_t api_error_code;
    uint32_t os_error_code;
    uint32_t driver_error_code;
    uint32_t controller_error_code;
    char additional_data[TW_ADDITIONAL_DATA_SIZE]; /* text from the controller */
    uint32_t text_length;
    char text[TW_ERROR_TEXT_SIZE];
} tw_api_error_type;

/* One controller event. The text holds up to 254 characters and its zero
 * byte, which keeps the record at 368 bytes with no padding. */
#define TW_EVENT_PARAMETER_SIZE 98
#define TW_EVENT_TEXT_SIZE 255

typedef struct tw_event_info_type_tag {
    uint32_t sequence_id;
    uint32_t time_stamp_sec;
    uint16_t aen_code;
    uint8_t severity;
    uint8_t reserved0;
    uint8_t reserved1;
    uint8_t parameter_len;
    uint8_t parameter_data[TW_EVENT_PARAMETER_SIZE];
    uint8_t text_len;
    char text[TW_EVENT_TEXT_SIZE];
} tw_event_info_type;

/* One window of a background task: minutes from the start of Sunday, and
 * its length in minutes. */
typedef struct tw_task_window_type_tag {
    uint16_t start_time;
    uint16_t duration;
} tw_task_window_type;

/* One day of the task schedule, 10 bytes. */
typedef struct tw_day_schedule_type_tag {
    uint16_t selftest;
    tw_task_window_type rebuild;
    tw_task_window_type verify;
} tw_day_schedule_type;

#define TW_SCHEDULE_DAYS 7

/* The controller's task schedule: seven days, Sunday first, 70 bytes,
 * sent to and read from the controller byte for byte. */
typedef struct tw_task_schedule_type_tag {
    tw_day_schedule_type day[TW_SCHEDULE_DAYS];
} tw_task_schedule_type;

/* Output text sizes. */
#define TW_MODEL_SIZE 64
#define TW_VERSION_SIZE 32
#define TW_SERIAL_NUMBER_SIZE 32
#define TW_DRIVER_VERSION_SIZE 128
#define TW_DATE_SIZE 16
#define TW_FACTORY_DATA_SIZE 32

/* ------------------------------------------------- identifiers and errors */

/* controller_number 0 to 16. */
int tw_create_controller_id(int controller_number, tw_id_type* controller_id);
/* controller_number 0 to 15; unit_number below 16, or 255 and above for
 * none (stored as 0xFF); subunits: number_of_subunits (0 to 3) values,
 * each below 16; null with 0 for a unit without subunits. */
int tw_create_unit_id(int controller_number, int unit_number, const int* subunits,
                      int number_of_subunits, tw_id_type* unit_id);
int tw_create_drive_id(int controller_number, int drive_number, tw_id_type* drive_id);
int tw_create_port_id(int controller_number, int port_number, tw_id_type* port_id);

int tw_get_controller_number(tw_id_type controller_id, int* controller_number);
int tw_get_unit_number(tw_id_type unit_id, int* unit_number);
int tw_get_drive_number(tw_id_type drive_id, int* drive_number);
int tw_get_port_number(tw_id_type port_id, int* port_number);

/* 3 for the 7000 family, 4 for the 9000 family. */
int tw_get_architecture_id(tw_id_type controller_id, int* architecture_id);

int tw_get_error_information(tw_api_error_type* error);
int tw_get_error_information2(tw_api_error_type* error, int language, const char* directory);
int tw_api_clear_error(void);
int tw_api_set_error(uint32_t flags, uint32_t api_error_code, uint32_t os_error_code,
                     uint32_t driver_error_code, uint32_t controller_error_code,
                     const char* additional_data);
int tw_get_api_error(tw_api_error_type* error, const char* directory, int language);

int tw_memcpy(void* destination, const void* source, size_t length);
int tw_memset(void* destination, int value, size_t length);

const char* tw_get_api_version(void);
const char* tw_get_api_copyright(void);

/* ------------------------------------------------- controller information */

int tw_get_controller_id_list(tw_id_list_type* controller_id_list);
int tw_get_model(tw_id_type controller_id, char model[TW_MODEL_SIZE]);
int tw_get_serial_number(tw_id_type controller_id, char serial_number[TW_SERIAL_NUMBER_SIZE]);
int tw_get_pcb_revision(tw_id_type controller_id, char pcb_revision[TW_VERSION_SIZE]);
int tw_get_a_chip_version(tw_id_type controller_id, char a_chip_version[TW_VERSION_SIZE]);
int tw_get_p_chip_version(tw_id_type controller_id, char p_chip_version[TW_VERSION_SIZE]);
int tw_get_firmware_version(tw_id_type controller_id, char firmware_version[TW_VERSION_SIZE]);
int tw_get_bios_version(tw_id_type controller_id, char bios_version[TW_VERSION_SIZE]);
int tw_get_monitor_version(tw_id_type controller_id, char monitor_version[TW_VERSION_SIZE]);
int tw_get_driver_version(tw_id_type controller_id,
                          char driver_version[TW_DRIVER_VERSION_SIZE]);
int tw_get_number_of_ports(tw_id_type controller_id, int* number_of_ports);
int tw_get_number_of_drives(tw_id_type controller_id, int* number_of_drives);
int tw_get_number_of_units(tw_id_type controller_id, int* number_of_units);
/* The logs: *length holds the buffer's size on entry and the number of
 * bytes written on return. */
int tw_get_controller_log(tw_id_type controller_id, unsigned char* buffer, int* length);
int tw_get_diagnostic_log(tw_id_type controller_id, unsigned char* buffer, int* length);
int tw_get_avmode(tw_id_type controller_id, int* avmode);
int tw_get_boot_unit(tw_id_type controller_id, tw_id_type* unit_id);
int tw_get_cache_policy(tw_id_type controller_id, int* cache_policy);
int tw_get_jbod_policy(tw_id_type controller_id, int* jbod_policy);

/* ------------------------------------------- controller settings and tasks */

/* Rates 1 to 5. */
int tw_get_background_rebuild_rate(tw_id_type controller_id, int* rate);
int tw_set_background_rebuild_rate(tw_id_type controller_id, int rate);
int tw_get_background_verify_rate(tw_id_type controller_id, int* rate);
int tw_set_background_verify_rate(tw_id_type controller_id, int rate);
int tw_get_selftest_flags(tw_id_type controller_id, int* flags);
int tw_set_selftest_flags(tw_id_type controller_id, int flags);
/* Task items: one day (0 Sunday to 6 Saturday) of the schedule. */
int tw_get_rebuild_task_item(tw_id_type controller_id, int day, tw_task_window_type* item);
int tw_set_rebuild_task_item(tw_id_type controller_id, int day, tw_task_window_type item);
int tw_get_verify_task_item(tw_id_type controller_id, int day, tw_task_window_type* item);
int tw_set_verify_task_item(tw_id_type controller_id, int day, tw_task_window_type item);
int tw_get_selftest_task_item(tw_id_type controller_id, int day, int* start_time);
int tw_set_selftest_task_item(tw_id_type controller_id, int day, int start_time);
int tw_get_task_schedule(tw_id_type controller_id, tw_task_schedule_type* schedule);
int tw_set_task_schedule(tw_id_type controller_id, const tw_task_schedule_type* schedule);
/* States: 1 enabled, 0 disabled. */
int tw_get_rebuild_schedule_state(tw_id_type controller_id, int* state);
int tw_get_verify_schedule_state(tw_id_type controller_id, int* state);
int tw_enable_rebuild_task_schedule(tw_id_type controller_id);
int tw_disable_rebuild_task_schedule(tw_id_type controller_id);
int tw_enable_verify_task_schedule(tw_id_type controller_id);
int tw_disable_verify_task_schedule(tw_id_type controller_id);
int tw_get_spinups_allowed(tw_id_type controller_id, int* spinups);
int tw_set_spinups_allowed(tw_id_type controller_id, int spinups);
int tw_get_stagger_time(tw_id_type controller_id, int* stagger_time);
int tw_set_stagger_time(tw_id_type controller_id, int stagger_time);
int tw_enable_avmode(tw_id_type controller_id);
int tw_disable_avmode(tw_id_type controller_id);
int tw_enable_jbod_online(tw_id_type controller_id);
int tw_disable_jbod_online(tw_id_type controller_id);
int tw_set_boot_unit(tw_id_type unit_id);
int tw_disable_cache_on_unit_degrade(tw_id_type controller_id);
int tw_use_unit_cache_states(tw_id_type controller_id);
int tw_shutdown(tw_id_type controller_id);
int tw_pause_mediascan(tw_id_type controller_id);
int tw_resume_mediascan(tw_id_type controller_id);

/* ---------------------------------------------------- battery backup unit */

/* The yes-or-no answers are 1 or 0. */
int tw_bbu_is_present(tw_id_type controller_id, int* present);
int tw_bbu_battery_is_present(tw_id_type controller_id, int* present);
int tw_bbu_battery_test_in_progress(tw_id_type controller_id, int* in_progress);
int tw_bbu_battery_charge_in_progress(tw_id_type controller_id, int* in_progress);
int tw_bbu_enable(tw_id_type controller_id);
int tw_bbu_disable(tw_id_type controller_id);
int tw_bbu_initialize_battery(tw_id_type controller_id);
int tw_bbu_test_battery(tw_id_type controller_id);
int tw_get_bbu_status(tw_id_type controller_id, int* status);
int tw_get_bbu_status_summary(tw_id_type controller_id, int* summary);
int tw_get_bbu_online_state(tw_id_type controller_id, int* state);
int tw_get_bbu_battery_voltage_status(tw_id_type controller_id, int* status);
int tw_get_bbu_battery_temperature_status(tw_id_type controller_id, int* status);
int tw_get_bbu_battery_capacity(tw_id_type controller_id, int* capacity);
/* A code from 0 to 4. */
int tw_get_bbu_battery_charge_voltage(tw_id_type controller_id, int* voltage);
int tw_get_bbu_battery_installation_date(tw_id_type controller_id, char date[TW_DATE_SIZE]);
int tw_get_bbu_last_battery_test_date(tw_id_type controller_id, char date[TW_DATE_SIZE]);
int tw_get_bbu_serial_number(tw_id_type controller_id,
                             char serial_number[TW_SERIAL_NUMBER_SIZE]);
int tw_get_bbu_firmware_version(tw_id_type controller_id,
                                char firmware_version[TW_VERSION_SIZE]);
int tw_get_bbu_boot_code_version(tw_id_type controller_id,
                                 char boot_code_version[TW_VERSION_SIZE]);
int tw_get_bbu_pcb_revision(tw_id_type controller_id, char pcb_revision[TW_VERSION_SIZE]);
int tw_get_bbu_factory_data(tw_id_type controller_id,
                            char factory_data[TW_FACTORY_DATA_SIZE]);


/* ------------------------------------------------------------------ units */
/* Units of depth 1; a unit's subunits one level deeper. Modes: 0xFF healthy,
 * 0xFB verifying, 0xF7 initialising, 0xEF degraded, 0xAF rebuilding, 0xDF
 * rebuild paused; any other is not usable. Capacities in sectors. Stripe
 * sizes are codes, 4 to 11 for 8 to 1024 kilobytes. */
int tw_get_unit_id_list(tw_id_type controller_id, tw_id_list_type* unit_id_list);
int tw_get_subunit_id_list(tw_id_type unit_id, tw_id_list_type* subunit_id_list);
int tw_get_number_of_subunits(tw_id_type unit_id, int* number_of_subunits);
int tw_get_unit_status(tw_id_type unit_id, int* status);
int tw_get_unit_mode(tw_id_type unit_id, int* mode);
int tw_get_unit_capacity(tw_id_type unit_id, uint64_t* sectors);
int tw_get_unit_configuration(tw_id_type unit_id, int* configuration);
int tw_get_unit_percentage_complete(tw_id_type unit_id, int* percent);
int tw_get_unit_stripe_size(tw_id_type unit_id, int* stripe_size);
int tw_get_unit_read_cache_state(tw_id_type unit_id, int* state);
int tw_get_unit_write_cache_state(tw_id_type unit_id, int* state);
int tw_get_unit_ecc_policy(tw_id_type unit_id, int* policy);
int tw_get_unit_auto_verify_policy(tw_id_type unit_id, int* policy);
int tw_get_unit_id_from_drive_id(tw_id_type drive_id, tw_id_type* unit_id);


int tw_get_unit_local_unit_id(tw_id_type unit_id, int* local_unit_id);
int tw_unit_background_task_active(tw_id_type unit_id, int* active);
int tw_unit_is_initialized(tw_id_type unit_id, int* initialized);

/* Per unit of depth 1: caches, auto-verify, and ECC errors continued past or halting. */
int tw_enable_unit_read_cache(tw_id_type unit_id);
int tw_disable_unit_read_cache(tw_id_type unit_id);
int tw_enable_unit_write_cache(tw_id_type unit_id);
int tw_disable_unit_write_cache(tw_id_type unit_id);
int tw_enable_unit_auto_verify(tw_id_type unit_id);
int tw_disable_unit_auto_verify(tw_id_type unit_id);
int tw_unit_set_ecc_policy_to_continue(tw_id_type unit_id);
int tw_unit_set_ecc_policy_to_halt(tw_id_type unit_id);

/* ------------------------------------------------------- drives and ports */
/* A drive's number is its port's; a unit's missing member is drive 255.
 * Drive status: 0xFF good, 0 failed or offline, 0xFE unsupported. The serial
 * number is the one the controller read when it last found the drive. */
int tw_get_drive_id_list(tw_id_type controller_id, tw_id_list_type* drive_id_list);
int tw_get_drive_id_list_from_unit_id(tw_id_type unit_id, tw_id_list_type* drive_id_list);
int tw_get_drive_status(tw_id_type drive_id, int* status);
int tw_get_drive_capacity(tw_id_type drive_id, uint64_t* sectors);
int tw_get_drive_model(tw_id_type drive_id, char model[TW_MODEL_SIZE]);
int tw_get_drive_serial_number(tw_id_type drive_id, char serial_number[TW_SERIAL_NUMBER_SIZE]);
int tw_get_drive_firmware_version(tw_id_type drive_id, char firmware_version[TW_VERSION_SIZE]);
int tw_get_drive_port_id(tw_id_type drive_id, tw_id_type* port_id);
int tw_get_port_id_list(tw_id_type controller_id, tw_id_list_type* port_id_list);


/* ----------------------------------------------------------------- events */
/* Next and previous start from the sequence number in *event. At an end of
 * the queue the result is 0 and the event has code 0. */
int tw_get_first_event(tw_id_type controller_id, tw_event_info_type* event);
int tw_get_last_event(tw_id_type controller_id, tw_event_info_type* event);
int tw_get_next_event(tw_id_type controller_id, tw_event_info_type* event);
int tw_get_previous_event(tw_id_type controller_id, tw_event_info_type* event);

/* The controller lets go of the drive, which stays in its bay; a member
 * degrades its unit. */
int tw_remove_drive(tw_id_type drive_id);
/* The controller finds the drive in the port's bay and reads its identity. */
int tw_add_drive(tw_id_type port_id);

/* ------------------------------------------------------ unit configuration */
/* notify_os 1 tells the kernel of a unit that came or went through
 * "/proc/scsi/scsi" (API code 69 or 70 when it could not), 0 leaves the
 * kernel alone. Configurations: 5 parity, 6 mirror (four drives or more a
 * RAID 10), 11 stripe (one drive a single unit), 13 spare. Stripe codes 4 to
 * 11 for 8 to 1024 kilobytes; 11 also takes 0, a spare 0 only. A new unit
 * takes the lowest free unit number. */
int tw_create_unit(const tw_id_list_type* drive_id_list, int configuration, int stripe_size, int notify_os,
                   tw_id_type* unit_id);
/* subunit_size: drives per subunit, 2 for a RAID 10's mirrors, 3 or more for
 * parity groups striped together; 0 the usual layout. */
int tw_create_unit_with_layout(const tw_id_list_type* drive_id_list, int configuration, int stripe_size,
                               int subunit_size, int notify_os, tw_id_type* unit_id);
/* The unit's configuration wiped from its drives, its data dropped. */
int tw_destroy_unit(tw_id_type unit_id, int notify_os);
/* The unit goes; its drives stay attached and free, carrying it. */
int tw_export_unit(tw_id_type unit_id, int notify_os);
/* Forms the unit the drives carry (degraded when members are missing). */
int tw_import_unit(const tw_id_list_type* drive_id_list, int notify_os, tw_id_type* unit_id);
/* Exported, and its drives let go of: they stay in their bays. */
int tw_remove_unit(tw_id_type unit_id, int notify_os);
/* The unit takes a new configuration over its drives and those added (a
 * null list or length 0 adds none); its number and its data stay. A parity
 * or mirror unit initialises after. */
int tw_migrate_unit(tw_id_type unit_id, const tw_id_list_type* drive_id_list, int configuration, int stripe_size);
/* A two-drive mirror becomes two single units (the first keeps the number). */
int tw_split_mirror(tw_id_type unit_id, int notify_os, tw_id_list_type* unit_id_list);
/* Attaches every drive in a bay the controller does not hold, and forms the
 * units their configurations name; the lists hold what it brought. */
int tw_rescan_controller(tw_id_type controller_id, int notify_os, tw_id_list_type* unit_id_list,
                         tw_id_list_type* drive_id_list);

/* ------------------------------------------ unit tasks and the drives' ATA side */
/* A rebuild of a degraded redundant unit of depth 1 onto free drives (or
 * drives of a spare unit), one for each missing member at most; pause and
 * resume move it between 0xAF and 0xDF. A verify runs on a healthy
 * redundant unit. The progress moves with the controller's clock at the
 * background rates. */
int tw_rebuild_unit(tw_id_type unit_id, const tw_id_list_type* drive_id_list);
int tw_pause_rebuild_unit(tw_id_type unit_id);
int tw_resume_rebuild_unit(tw_id_type unit_id);
int tw_verify_unit(tw_id_type unit_id);
int tw_stop_verify_unit(tw_id_type unit_id);
int tw_flush_unit_write_cache(tw_id_type unit_id);

/* The task file of an ATA command passed through to a drive, in and out:
 * out, `feature` holds the error register and `command` the status. */
typedef struct tw_ata_registers_tag {
    unsigned char feature;
    unsigned char count;
    unsigned char sector;
    unsigned char cylinder_low;
    unsigned char cylinder_high;
    unsigned char device;
    unsigned char command;
} tw_ata_registers_type;

#define TW_SECTOR_SIZE 512

/* The command goes to the drive now in the port; `data` takes one sector,
 * or is NULL for a command without data. An ATA error is the caller's to
 * read in the registers. */
int tw_ata_passthrough(tw_id_type drive_id, tw_ata_registers_type* registers, unsigned char* data);
/* The drive's identify sector and its SMART attribute page, from the drive
 * now in the port (a drive swapped behind the controller answers). */
int tw_get_drive_ident_data(tw_id_type drive_id, unsigned char data[TW_SECTOR_SIZE]);
int tw_get_drive_smart_data(tw_id_type drive_id, unsigned char data[TW_SECTOR_SIZE]);

#ifdef __cplusplus
}

/* The process's error record (defined with the other globals of the API). */
extern tw_api_error_type tw_api_error;

static_assert(sizeof(tw_id_type) == 8);
static_assert(sizeof(tw_id_list_type) == 16 * 8 + 4);
static_assert(offsetof(tw_id_list_type, length) == 128);
static_assert(sizeof(tw_api_error_type) == 1176);
static_assert(offsetof(tw_api_error_type, valid_error_flags) == 0);
static_assert(offsetof(tw_api_error_type, api_error_code) == 4);
static_assert(offsetof(tw_api_error_type, os_error_code) == 8);
static_assert(offsetof(tw_api_error_type, driver_error_code) == 12);
static_assert(offsetof(tw_api_error_type, controller_error_code) == 16);
static_assert(offsetof(tw_api_error_type, additional_data) == 20);
static_assert(offsetof(tw_api_error_type, text_length) == 148);
static_assert(offsetof(tw_api_error_type, text) == 152);
static_assert(sizeof(tw_event_info_type) == 368);
static_assert(offsetof(tw_event_info_type, time_stamp_sec) == 4);
static_assert(offsetof(tw_event_info_type, aen_code) == 8);
static_assert(offsetof(tw_event_info_type, severity) == 10);
static_assert(offsetof(tw_event_info_type, reserved0) == 11);
static_assert(offsetof(tw_event_info_type, reserved1) == 12);
static_assert(offsetof(tw_event_info_type, parameter_len) == 13);
static_assert(offsetof(tw_event_info_type, parameter_data) == 14);
static_assert(offsetof(tw_event_info_type, text_len) == 112);
static_assert(offsetof(tw_event_info_type, text) == 113);
static_assert(sizeof(tw_task_window_type) == 4);
static_assert(sizeof(tw_day_schedule_type) == 10);
static_assert(offsetof(tw_day_schedule_type, selftest) == 0);
static_assert(offsetof(tw_day_schedule_type, rebuild) == 2);
static_assert(offsetof(tw_day_schedule_type, verify) == 6);
static_assert(sizeof(tw_task_schedule_type) == 70);
static_assert(sizeof(tw_ata_registers_type) == 7);
#endif

#endif /* TW_API_TW_API_H */

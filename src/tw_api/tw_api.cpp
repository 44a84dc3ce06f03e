// The flat functions of the controller API: identifiers, the error record
// and its texts, and (below the marker) the controller functions.
#include "tw_api/tw_api.h"

#include <cstdio>
#include <cstring>

#include "tw_api/tw_api_osil.h"
#include "tw_api/tw_msg_message.h"

namespace {

constexpr unsigned char UNUSED = 0xFF;
constexpr int MAX_SUBUNITS = 3;

// API codes of the identifier functions.
constexpr uint32_t API_INVALID_CONTROLLER_ID = 8;
constexpr uint32_t API_INVALID_UNIT_ID = 9;
constexpr uint32_t API_INVALID_DRIVE_ID = 10;
constexpr uint32_t API_INVALID_PORT_ID = 11;
// A null pointer for a controller call's result, as the controller calls do.
constexpr uint32_t API_INVALID_CONFIGURATION = 33;

int fail_api(uint32_t code) {
    tw_api_set_error(TW_ERROR_FLAG_API, code, 0, 0, 0, nullptr);
    return -1;
}

// A unit, subunit, drive or port number: below 16, or 255 and above, which
// all mean "none" and are stored as 0xFF.
bool number_ok(int number) {
    return (number >= 0 && number < 16) || number >= 255;
}

unsigned char number_byte(int number) {
    return number >= 255 ? UNUSED : static_cast<unsigned char>(number);
}

bool controller_ok(int controller_number) {
    return controller_number >= 0 && controller_number < TW_MAX_CONTROLLERS;
}

tw_id_type unused_id() {
    tw_id_type id;
    std::memset(id.id, UNUSED, sizeof id.id);
    return id;
}

int drive_like_id(int controller_number, int number, tw_id_type* out, uint32_t code) {
    if (!out || !controller_ok(controller_number) || !number_ok(number))
        return fail_api(code);
    tw_id_type id = unused_id();
    id.id[0] = TW_ID_KIND_DRIVE;
    id.id[1] = static_cast<unsigned char>(controller_number);
    id.id[2] = number_byte(number);
    *out = id;
    return 0;
}

int read_byte(const tw_id_type& id, unsigned char kind, int index, int* out, uint32_t code) {
    if (!out || id.id[0] != kind)
        return fail_api(code);
    *out = id.id[index];
    return 0;
}

// Appends one part of the error text at the record's text_length. Only the
// low 8 bits of the length are kept, so the part after a text longer than
// 255 characters writes over it: this is deliberate and kept. Nothing is
// ever written past the end of text.
void append_part(tw_api_error_type& record, const char* part) {
    uint32_t at = record.text_length & 0xFFu;
    size_t room = sizeof record.text - at;
    int n = std::snprintf(record.text + at, room, "%s%s", at != 0 ? "\n" : "", part);
    if (n < 0)
        return;
    size_t written = static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
    record.text_length = static_cast<uint32_t>(at + written) & 0xFFu;
}

// A lookup hit is a text of 1 to 1023 bytes.
bool hit(const char* text) {
    size_t length = std::strlen(text);
    return length >= 1 && length <= 1023;
}

// The controller's text, which arrives without any promise of a zero byte.
int additional_length(const tw_api_error_type& record) {
    return static_cast<int>(strnlen(record.additional_data, sizeof record.additional_data));
}

// One driver or controller part. found9000 adds the controller's text to a
// hit; not_found is the format of a miss, with the controller's text for
// the 9000 family.
void append_family_part(tw_api_error_type& record, uint32_t source, uint32_t code,
                        bool family_9000, const char* not_found, const char* directory,
                        int language) {
    // Room for a whole hit, a space and the controller's text; the part is
    // cut to the record when appended.
    char part[TW_ERROR_TEXT_SIZE + TW_ADDITIONAL_DATA_SIZE + 8];
    const char* text = msg.lookup(source, code, directory, language);
    int extra = additional_length(record);
    if (hit(text)) {
        if (family_9000)
            std::snprintf(part, sizeof part, "%s %.*s", text, extra, record.additional_data);
        else
            std::snprintf(part, sizeof part, "%s", text);
    } else if (family_9000) {
        std::snprintf(part, sizeof part, not_found, source, code, extra, record.additional_data);
    } else {
        std::snprintf(part, sizeof part, not_found, source, code);
    }
    append_part(record, part);
}

} // namespace

extern "C" {

int tw_create_controller_id(int controller_number, tw_id_type* controller_id) {
    // One more than a list can hold is accepted, as it always was.
    if (!controller_id || controller_number < 0 || controller_number > TW_MAX_CONTROLLERS)
        return fail_api(API_INVALID_CONTROLLER_ID);
    tw_id_type id = unused_id();
    id.id[0] = TW_ID_KIND_CONTROLLER;
    id.id[1] = static_cast<unsigned char>(controller_number);
    *controller_id = id;
    return 0;
}

int tw_create_unit_id(int controller_number, int unit_number, const int* subunits,
                      int number_of_subunits, tw_id_type* unit_id) {
    if (!unit_id || !controller_ok(controller_number) || !number_ok(unit_number) ||
        number_of_subunits < 0 || number_of_subunits > MAX_SUBUNITS ||
        (number_of_subunits > 0 && !subunits))
        return fail_api(API_INVALID_UNIT_ID);
    for (int i = 0; i < number_of_subunits; ++i) {
        if (!number_ok(subunits[i]))
            return fail_api(API_INVALID_UNIT_ID);
    }
    tw_id_type id = unused_id();
    id.id[0] = TW_ID_KIND_UNIT;
    id.id[1] = static_cast<unsigned char>(controller_number);
    id.id[3] = static_cast<unsigned char>(1 + number_of_subunits);
    id.id[4] = number_byte(unit_number);
    for (int i = 0; i < number_of_subunits; ++i)
        id.id[5 + i] = number_byte(subunits[i]);
    *unit_id = id;
    return 0;
}

int tw_create_drive_id(int controller_number, int drive_number, tw_id_type* drive_id) {
    return drive_like_id(controller_number, drive_number, drive_id, API_INVALID_DRIVE_ID);
}

int tw_create_port_id(int controller_number, int port_number, tw_id_type* port_id) {
    return drive_like_id(controller_number, port_number, port_id, API_INVALID_PORT_ID);
}

int tw_get_controller_number(tw_id_type controller_id, int* controller_number) {
    return read_byte(controller_id, TW_ID_KIND_CONTROLLER, 1, controller_number,
                     API_INVALID_CONTROLLER_ID);
}

int tw_get_unit_number(tw_id_type unit_id, int* unit_number) {
    return read_byte(unit_id, TW_ID_KIND_UNIT, 4, unit_number, API_INVALID_UNIT_ID);
}

int tw_get_drive_number(tw_id_type drive_id, int* drive_number) {
    return read_byte(drive_id, TW_ID_KIND_DRIVE, 2, drive_number, API_INVALID_DRIVE_ID);
}

int tw_get_port_number(tw_id_type port_id, int* port_number) {
    return read_byte(port_id, TW_ID_KIND_DRIVE, 2, port_number, API_INVALID_PORT_ID);
}

// The family of a controller identifier as its node tells it, after the controller's
// compatibility number was read and accepted: 3 or 4. A refused number or a
// failed read leaves its code (66, 67, 71) in the record.
int tw_get_architecture_id(tw_id_type controller_id, int* architecture_id) {
    if (!architecture_id)
        return fail_api(API_INVALID_CONFIGURATION);
    if (controller_id.id[0] != TW_ID_KIND_CONTROLLER)
        return fail_api(API_INVALID_CONTROLLER_ID);
    int family = osil_instance.controllers_architecture(controller_id);
    if (family != 3 && family != 4)
        return -1;
    *architecture_id = family;
    return 0;
}

int tw_memcpy(void* destination, const void* source, size_t length) {
    if (length == 0)
        return 0;
    if (!destination || !source)
        return -1;
    std::memmove(destination, source, length);
    return 0;
}

int tw_memset(void* destination, int value, size_t length) {
    if (length == 0)
        return 0;
    if (!destination)
        return -1;
    std::memset(destination, value, length);
    return 0;
}

const char* tw_get_api_version(void) {
    return "2.00.00.063+";
}

const char* tw_get_api_copyright(void) {
    return "Controller API library. Copyright (C) the authors of this drive-management "
           "system. All rights reserved.";
}

int tw_api_clear_error(void) {
    std::memset(&tw_api_error, 0, sizeof tw_api_error);
    return 0;
}

int tw_api_set_error(uint32_t flags, uint32_t api_error_code, uint32_t os_error_code,
                     uint32_t driver_error_code, uint32_t controller_error_code,
                     const char* additional_data) {
    tw_api_error.valid_error_flags |= flags;
    if (api_error_code)
        tw_api_error.api_error_code = api_error_code;
    if (os_error_code)
        tw_api_error.os_error_code = os_error_code;
    if (driver_error_code)
        tw_api_error.driver_error_code = driver_error_code;
    if (controller_error_code)
        tw_api_error.controller_error_code = controller_error_code;
    if (additional_data) {
        size_t length = strnlen(additional_data, sizeof tw_api_error.additional_data - 1);
        std::memcpy(tw_api_error.additional_data, additional_data, length);
        tw_api_error.additional_data[length] = '\0';
    }
    return 0;
}

// The family of the driver and controller parts: the 7000's texts only when
// the record says 7000 and not 9000. With both flags (errors of both
// families met since the last clear) or neither, the 9000's are used: the
// 7000's send never sets a driver code, and only the 9000's carries the
// controller's own text.
int tw_get_api_error(tw_api_error_type* error, const char* directory, int language) {
    if (!error)
        return -1;
    tw_api_error_type& record = tw_api_error;
    record.text_length = 0;
    std::memset(record.text, 0, sizeof record.text);
    bool family_7000 = (record.valid_error_flags & TW_ERROR_FLAG_7000) != 0 &&
                       (record.valid_error_flags & TW_ERROR_FLAG_9000) == 0;
    char part[TW_ERROR_TEXT_SIZE];

    if (record.api_error_code != 0) {
        const char* text = msg.lookup(TW_SOURCE_API, record.api_error_code, directory, language);
        if (!hit(text)) {
            std::snprintf(part, sizeof part, "(0x%02X:0x%04X): API message not found",
                          TW_SOURCE_API, record.api_error_code);
            text = part;
        }
        append_part(record, text);
    }
    if (record.os_error_code != 0) {
        // The looked-up text already carries "(0x09:0x%04X): ", so it is
        // written once, as it stands.
        const char* text = msg.lookup(TW_SOURCE_OS, record.os_error_code, directory, language);
        if (!hit(text)) {
            std::snprintf(part, sizeof part, "(0x%02X:0x%04X): OS message not found",
                          TW_SOURCE_OS, record.os_error_code);
            text = part;
        }
        append_part(record, text);
    }
    if (record.driver_error_code != 0) {
        if (family_7000)
            append_family_part(record, TW_SOURCE_DRIVER_7000, record.driver_error_code, false,
                               "(0x%02X:0x%04X): 7000 driver message not found", directory,
                               language);
        else
            append_family_part(record, TW_SOURCE_DRIVER_9000, record.driver_error_code, true,
                               "(0x%02X:0x%04X): 9000 driver message not found %.*s",
                               directory, language);
    }
    if (record.controller_error_code != 0) {
        if (family_7000)
            append_family_part(record, TW_SOURCE_CONTROLLER_7000, record.controller_error_code,
                               false, "(0x%02X:0x%04X): 7000 controller message not found",
                               directory, language);
        else
            append_family_part(record, TW_SOURCE_CONTROLLER_9000, record.controller_error_code,
                               true, "(0x%02X:0x%04X): 9000 controller message not found %.*s",
                               directory, language);
    }
    *error = record;
    return 0;
}

int tw_get_error_information(tw_api_error_type* error) {
    return tw_get_api_error(error, nullptr, 0);
}

int tw_get_error_information2(tw_api_error_type* error, int language, const char* directory) {
    return tw_get_api_error(error, directory, language);
}

} // extern "C"

// The controller functions and the globals follow.

#include "tw_api/tw_api_cil.h"
#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"
#include "tw_api/tw_api_osil.h"

namespace {

// A null pointer where the call writes or reads its data: "Invalid
// configuration".
int null_argument()
{
    tw_api_set_error(TW_ERROR_FLAG_API, 33, 0, 0, 0, nullptr);
    return -1;
}

} // namespace

int tw_get_controller_id_list(tw_id_list_type* controller_id_list)
{
    if (!controller_id_list) return null_argument();
    return controller.get_controller_id_list(controller_id_list);
}

int tw_get_model(tw_id_type controller_id, char* model)
{
    if (!model) return null_argument();
    return controller.get_model(controller_id, model);
}

int tw_get_serial_number(tw_id_type controller_id, char* serial_number)
{
    if (!serial_number) return null_argument();
    return controller.get_serial_number(controller_id, serial_number);
}

int tw_get_pcb_revision(tw_id_type controller_id, char* pcb_revision)
{
    if (!pcb_revision) return null_argument();
    return controller.get_pcb_revision(controller_id, pcb_revision);
}

int tw_get_a_chip_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_a_chip_version(controller_id, version);
}

int tw_get_p_chip_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_p_chip_version(controller_id, version);
}

int tw_get_firmware_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_firmware_version(controller_id, version);
}

int tw_get_bios_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_bios_version(controller_id, version);
}

int tw_get_monitor_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_monitor_version(controller_id, version);
}

int tw_get_driver_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_driver_version(controller_id, version);
}

int tw_get_number_of_ports(tw_id_type controller_id, int* ports)
{
    if (!ports) return null_argument();
    return controller.get_number_of_ports(controller_id, ports);
}

int tw_get_number_of_drives(tw_id_type controller_id, int* drives)
{
    if (!drives) return null_argument();
    return controller.get_number_of_drives(controller_id, drives);
}

int tw_get_number_of_units(tw_id_type controller_id, int* units)
{
    if (!units) return null_argument();
    return controller.get_number_of_units(controller_id, units);
}

int tw_get_controller_log(tw_id_type controller_id, unsigned char* buffer, int* length)
{
    if (!buffer || !length) return null_argument();
    return controller.get_controller_log(controller_id, buffer, length);
}

int tw_get_diagnostic_log(tw_id_type controller_id, unsigned char* buffer, int* length)
{
    if (!buffer || !length) return null_argument();
    return controller.get_diagnostic_log(controller_id, buffer, length);
}

int tw_get_avmode(tw_id_type controller_id, int* avmode)
{
    if (!avmode) return null_argument();
    return controller.get_avmode(controller_id, avmode);
}

int tw_get_boot_unit(tw_id_type controller_id, tw_id_type* unit_id)
{
    if (!unit_id) return null_argument();
    return controller.get_boot_unit(controller_id, unit_id);
}

int tw_get_cache_policy(tw_id_type controller_id, int* policy)
{
    if (!policy) return null_argument();
    return controller.get_cache_policy(controller_id, policy);
}

int tw_get_jbod_policy(tw_id_type controller_id, int* policy)
{
    if (!policy) return null_argument();
    return controller.get_jbod_policy(controller_id, policy);
}

int tw_get_background_rebuild_rate(tw_id_type controller_id, int* rate)
{
    if (!rate) return null_argument();
    return controller.get_background_rebuild_rate(controller_id, rate);
}

int tw_set_background_rebuild_rate(tw_id_type controller_id, int rate)
{
    return controller.set_background_rebuild_rate(controller_id, rate);
}

int tw_get_background_verify_rate(tw_id_type controller_id, int* rate)
{
    if (!rate) return null_argument();
    return controller.get_background_verify_rate(controller_id, rate);
}

int tw_set_background_verify_rate(tw_id_type controller_id, int rate)
{
    return controller.set_background_verify_rate(controller_id, rate);
}

int tw_get_selftest_flags(tw_id_type controller_id, int* flags)
{
    if (!flags) return null_argument();
    return controller.get_selftest_flags(controller_id, flags);
}

int tw_set_selftest_flags(tw_id_type controller_id, int flags)
{
    return controller.set_selftest_flags(controller_id, flags);
}

int tw_get_rebuild_task_item(tw_id_type controller_id, int day, tw_task_window_type* item)
{
    if (!item) return null_argument();
    return controller.get_rebuild_task_item(controller_id, day, item);
}

int tw_set_rebuild_task_item(tw_id_type controller_id, int day, tw_task_window_type item)
{
    return controller.set_rebuild_task_item(controller_id, day, item);
}

int tw_get_verify_task_item(tw_id_type controller_id, int day, tw_task_window_type* item)
{
    if (!item) return null_argument();
    return controller.get_verify_task_item(controller_id, day, item);
}

int tw_set_verify_task_item(tw_id_type controller_id, int day, tw_task_window_type item)
{
    return controller.set_verify_task_item(controller_id, day, item);
}

int tw_get_selftest_task_item(tw_id_type controller_id, int day, int* start_time)
{
    if (!start_time) return null_argument();
    return controller.get_selftest_task_item(controller_id, day, start_time);
}

int tw_set_selftest_task_item(tw_id_type controller_id, int day, int start_time)
{
    return controller.set_selftest_task_item(controller_id, day, start_time);
}

int tw_get_task_schedule(tw_id_type controller_id, tw_task_schedule_type* schedule)
{
    if (!schedule) return null_argument();
    return controller.get_task_schedule(controller_id, schedule);
}

int tw_set_task_schedule(tw_id_type controller_id, const tw_task_schedule_type* schedule)
{
    if (!schedule) return null_argument();
    return controller.set_task_schedule(controller_id, schedule);
}

int tw_get_rebuild_schedule_state(tw_id_type controller_id, int* state)
{
    if (!state) return null_argument();
    return controller.get_rebuild_schedule_state(controller_id, state);
}

int tw_get_verify_schedule_state(tw_id_type controller_id, int* state)
{
    if (!state) return null_argument();
    return controller.get_verify_schedule_state(controller_id, state);
}

int tw_enable_rebuild_task_schedule(tw_id_type controller_id)
{
    return controller.enable_rebuild_task_schedule(controller_id);
}

int tw_disable_rebuild_task_schedule(tw_id_type controller_id)
{
    return controller.disable_rebuild_task_schedule(controller_id);
}

int tw_enable_verify_task_schedule(tw_id_type controller_id)
{
    return controller.enable_verify_task_schedule(controller_id);
}

int tw_disable_verify_task_schedule(tw_id_type controller_id)
{
    return controller.disable_verify_task_schedule(controller_id);
}

int tw_get_spinups_allowed(tw_id_type controller_id, int* spinups)
{
    if (!spinups) return null_argument();
    return controller.get_spinups_allowed(controller_id, spinups);
}

int tw_set_spinups_allowed(tw_id_type controller_id, int spinups)
{
    return controller.set_spinups_allowed(controller_id, spinups);
}

int tw_get_stagger_time(tw_id_type controller_id, int* stagger_time)
{
    if (!stagger_time) return null_argument();
    return controller.get_stagger_time(controller_id, stagger_time);
}

int tw_set_stagger_time(tw_id_type controller_id, int stagger_time)
{
    return controller.set_stagger_time(controller_id, stagger_time);
}

int tw_enable_avmode(tw_id_type controller_id)
{
    return controller.enable_avmode(controller_id);
}

int tw_disable_avmode(tw_id_type controller_id)
{
    return controller.disable_avmode(controller_id);
}

int tw_enable_jbod_online(tw_id_type controller_id)
{
    return controller.enable_jbod_online(controller_id);
}

int tw_disable_jbod_online(tw_id_type controller_id)
{
    return controller.disable_jbod_online(controller_id);
}

int tw_set_boot_unit(tw_id_type unit_id)
{
    return controller.set_boot_unit(unit_id);
}

int tw_disable_cache_on_unit_degrade(tw_id_type controller_id)
{
    return controller.disable_cache_on_unit_degrade(controller_id);
}

int tw_use_unit_cache_states(tw_id_type controller_id)
{
    return controller.use_unit_cache_states(controller_id);
}

int tw_shutdown(tw_id_type controller_id)
{
    return controller.shutdown(controller_id);
}

int tw_pause_mediascan(tw_id_type controller_id)
{
    return controller.pause_mediascan(controller_id);
}

int tw_resume_mediascan(tw_id_type controller_id)
{
    return controller.resume_mediascan(controller_id);
}

int tw_bbu_is_present(tw_id_type controller_id, int* present)
{
    if (!present) return null_argument();
    return controller.bbu_is_present(controller_id, present);
}

int tw_bbu_battery_is_present(tw_id_type controller_id, int* present)
{
    if (!present) return null_argument();
    return controller.bbu_battery_is_present(controller_id, present);
}

int tw_bbu_battery_test_in_progress(tw_id_type controller_id, int* in_progress)
{
    if (!in_progress) return null_argument();
    return controller.bbu_battery_test_in_progress(controller_id, in_progress);
}

int tw_bbu_battery_charge_in_progress(tw_id_type controller_id, int* in_progress)
{
    if (!in_progress) return null_argument();
    return controller.bbu_battery_charge_in_progress(controller_id, in_progress);
}

int tw_bbu_enable(tw_id_type controller_id)
{
    return controller.bbu_enable(controller_id);
}

int tw_bbu_disable(tw_id_type controller_id)
{
    return controller.bbu_disable(controller_id);
}

int tw_bbu_initialize_battery(tw_id_type controller_id)
{
    return controller.bbu_initialize_battery(controller_id);
}

int tw_bbu_test_battery(tw_id_type controller_id)
{
    return controller.bbu_test_battery(controller_id);
}

int tw_get_bbu_status(tw_id_type controller_id, int* status)
{
    if (!status) return null_argument();
    return controller.get_bbu_status(controller_id, status);
}

int tw_get_bbu_status_summary(tw_id_type controller_id, int* summary)
{
    if (!summary) return null_argument();
    return controller.get_bbu_status_summary(controller_id, summary);
}

int tw_get_bbu_online_state(tw_id_type controller_id, int* state)
{
    if (!state) return null_argument();
    return controller.get_bbu_online_state(controller_id, state);
}

int tw_get_bbu_battery_voltage_status(tw_id_type controller_id, int* status)
{
    if (!status) return null_argument();
    return controller.get_bbu_battery_voltage_status(controller_id, status);
}

int tw_get_bbu_battery_temperature_status(tw_id_type controller_id, int* status)
{
    if (!status) return null_argument();
    return controller.get_bbu_battery_temperature_status(controller_id, status);
}

int tw_get_bbu_battery_capacity(tw_id_type controller_id, int* capacity)
{
    if (!capacity) return null_argument();
    return controller.get_bbu_battery_capacity(controller_id, capacity);
}

int tw_get_bbu_battery_charge_voltage(tw_id_type controller_id, int* voltage)
{
    if (!voltage) return null_argument();
    return controller.get_bbu_battery_charge_voltage(controller_id, voltage);
}

int tw_get_bbu_battery_installation_date(tw_id_type controller_id, char* date)
{
    if (!date) return null_argument();
    return controller.get_bbu_battery_installation_date(controller_id, date);
}

int tw_get_bbu_last_battery_test_date(tw_id_type controller_id, char* date)
{
    if (!date) return null_argument();
    return controller.get_bbu_last_battery_test_date(controller_id, date);
}

int tw_get_bbu_serial_number(tw_id_type controller_id, char* serial_number)
{
    if (!serial_number) return null_argument();
    return controller.get_bbu_serial_number(controller_id, serial_number);
}

int tw_get_bbu_firmware_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_bbu_firmware_version(controller_id, version);
}

int tw_get_bbu_boot_code_version(tw_id_type controller_id, char* version)
{
    if (!version) return null_argument();
    return controller.get_bbu_boot_code_version(controller_id, version);
}

int tw_get_bbu_pcb_revision(tw_id_type controller_id, char* pcb_revision)
{
    if (!pcb_revision) return null_argument();
    return controller.get_bbu_pcb_revision(controller_id, pcb_revision);
}

int tw_get_bbu_factory_data(tw_id_type controller_id, char* factory_data)
{
    if (!factory_data) return null_argument();
    return controller.get_bbu_factory_data(controller_id, factory_data);
}

// The globals, built at load time in this order: the Linux form first (its
// construction makes the nodes and finds the controllers), the layers on it,
// the families, the messages, and the error record.
linux_os os;
osil osil_instance;
cil controller;
controller_7000 c7000;
controller_9000 c9000;
tw_message msg;
tw_api_error_type tw_api_error;

int tw_get_unit_id_list(tw_id_type controller_id, tw_id_list_type* unit_id_list)
{
    if (!unit_id_list) return null_argument();
    return controller.get_unit_id_list(controller_id, unit_id_list);
}

int tw_get_subunit_id_list(tw_id_type unit_id, tw_id_list_type* subunit_id_list)
{
    if (!subunit_id_list) return null_argument();
    return controller.get_subunit_id_list(unit_id, subunit_id_list);
}

int tw_get_number_of_subunits(tw_id_type unit_id, int* number_of_subunits)
{
    if (!number_of_subunits) return null_argument();
    return controller.get_number_of_subunits(unit_id, number_of_subunits);
}

int tw_get_unit_status(tw_id_type unit_id, int* status)
{
    if (!status) return null_argument();
    return controller.get_unit_status(unit_id, status);
}

int tw_get_unit_mode(tw_id_type unit_id, int* mode)
{
    if (!mode) return null_argument();
    return controller.get_unit_mode(unit_id, mode);
}

int tw_get_unit_capacity(tw_id_type unit_id, uint64_t* sectors)
{
    if (!sectors) return null_argument();
    return controller.get_unit_capacity(unit_id, sectors);
}

int tw_get_unit_configuration(tw_id_type unit_id, int* configuration)
{
    if (!configuration) return null_argument();
    return controller.get_unit_configuration(unit_id, configuration);
}

int tw_get_unit_percentage_complete(tw_id_type unit_id, int* percent)
{
    if (!percent) return null_argument();
    return controller.get_unit_percentage_complete(unit_id, percent);
}

int tw_get_unit_stripe_size(tw_id_type unit_id, int* stripe_size)
{
    if (!stripe_size) return null_argument();
    return controller.get_unit_stripe_size(unit_id, stripe_size);
}

int tw_get_unit_read_cache_state(tw_id_type unit_id, int* state)
{
    if (!state) return null_argument();
    return controller.get_unit_read_cache_state(unit_id, state);
}

int tw_get_unit_write_cache_state(tw_id_type unit_id, int* state)
{
    if (!state) return null_argument();
    return controller.get_unit_write_cache_state(unit_id, state);
}

int tw_get_unit_ecc_policy(tw_id_type unit_id, int* policy)
{
    if (!policy) return null_argument();
    return controller.get_unit_ecc_policy(unit_id, policy);
}

int tw_get_unit_auto_verify_policy(tw_id_type unit_id, int* policy)
{
    if (!policy) return null_argument();
    return controller.get_unit_auto_verify_policy(unit_id, policy);
}

int tw_get_unit_id_from_drive_id(tw_id_type drive_id, tw_id_type* unit_id)
{
    if (!unit_id) return null_argument();
    return controller.get_unit_id_from_drive_id(drive_id, unit_id);
}

int tw_get_drive_id_list(tw_id_type controller_id, tw_id_list_type* drive_id_list)
{
    if (!drive_id_list) return null_argument();
    return controller.get_drive_id_list(controller_id, drive_id_list);
}

int tw_get_drive_id_list_from_unit_id(tw_id_type unit_id, tw_id_list_type* drive_id_list)
{
    if (!drive_id_list) return null_argument();
    return controller.get_drive_id_list_from_unit_id(unit_id, drive_id_list);
}

int tw_get_drive_status(tw_id_type drive_id, int* status)
{
    if (!status) return null_argument();
    return controller.get_drive_status(drive_id, status);
}

int tw_get_drive_capacity(tw_id_type drive_id, uint64_t* sectors)
{
    if (!sectors) return null_argument();
    return controller.get_drive_capacity(drive_id, sectors);
}

int tw_get_drive_model(tw_id_type drive_id, char* model)
{
    if (!model) return null_argument();
    return controller.get_drive_model(drive_id, model);
}

int tw_get_drive_serial_number(tw_id_type drive_id, char* serial_number)
{
    if (!serial_number) return null_argument();
    return controller.get_drive_serial_number(drive_id, serial_number);
}

int tw_get_drive_firmware_version(tw_id_type drive_id, char* firmware_version)
{
    if (!firmware_version) return null_argument();
    return controller.get_drive_firmware_version(drive_id, firmware_version);
}

int tw_get_drive_port_id(tw_id_type drive_id, tw_id_type* port_id)
{
    if (!port_id) return null_argument();
    return controller.get_drive_port_id(drive_id, port_id);
}

int tw_get_port_id_list(tw_id_type controller_id, tw_id_list_type* port_id_list)
{
    if (!port_id_list) return null_argument();
    return controller.get_port_id_list(controller_id, port_id_list);
}

int tw_get_first_event(tw_id_type controller_id, tw_event_info_type* event)
{
    if (!event) return null_argument();
    return controller.get_first_event(controller_id, event);
}

int tw_get_last_event(tw_id_type controller_id, tw_event_info_type* event)
{
    if (!event) return null_argument();
    return controller.get_last_event(controller_id, event);
}

int tw_get_next_event(tw_id_type controller_id, tw_event_info_type* event)
{
    if (!event) return null_argument();
    return controller.get_next_event(controller_id, event);
}

int tw_get_previous_event(tw_id_type controller_id, tw_event_info_type* event)
{
    if (!event) return null_argument();
    return controller.get_previous_event(controller_id, event);
}

int tw_enable_unit_read_cache(tw_id_type unit_id) { return controller.enable_unit_read_cache(unit_id); }

int tw_disable_unit_read_cache(tw_id_type unit_id) { return controller.disable_unit_read_cache(unit_id); }

int tw_enable_unit_write_cache(tw_id_type unit_id) { return controller.enable_unit_write_cache(unit_id); }

int tw_disable_unit_write_cache(tw_id_type unit_id) { return controller.disable_unit_write_cache(unit_id); }

int tw_enable_unit_auto_verify(tw_id_type unit_id) { return controller.enable_unit_auto_verify(unit_id); }

int tw_disable_unit_auto_verify(tw_id_type unit_id) { return controller.disable_unit_auto_verify(unit_id); }

int tw_unit_set_ecc_policy_to_continue(tw_id_type unit_id) { return controller.unit_set_ecc_policy_to_continue(unit_id); }

int tw_unit_set_ecc_policy_to_halt(tw_id_type unit_id) { return controller.unit_set_ecc_policy_to_halt(unit_id); }

int tw_get_unit_local_unit_id(tw_id_type unit_id, int* local_unit_id)
{
    if (!local_unit_id) return null_argument();
    return controller.get_unit_local_unit_id(unit_id, local_unit_id);
}

int tw_unit_background_task_active(tw_id_type unit_id, int* active)
{
    if (!active) return null_argument();
    return controller.unit_background_task_active(unit_id, active);
}

int tw_unit_is_initialized(tw_id_type unit_id, int* initialized)
{
    if (!initialized) return null_argument();
    return controller.unit_is_initialized(unit_id, initialized);
}

int tw_remove_drive(tw_id_type drive_id) { return controller.remove_drive(drive_id); }

int tw_add_drive(tw_id_type port_id) { return controller.add_drive(port_id); }

// Unit tasks and the drives' ATA side.

int tw_rebuild_unit(tw_id_type unit_id, const tw_id_list_type* drive_id_list)
{
    return controller.rebuild_unit(unit_id, drive_id_list);
}

int tw_pause_rebuild_unit(tw_id_type unit_id) { return controller.pause_rebuild_unit(unit_id); }

int tw_resume_rebuild_unit(tw_id_type unit_id) { return controller.resume_rebuild_unit(unit_id); }

int tw_verify_unit(tw_id_type unit_id) { return controller.verify_unit(unit_id); }

int tw_stop_verify_unit(tw_id_type unit_id) { return controller.stop_verify_unit(unit_id); }

int tw_flush_unit_write_cache(tw_id_type unit_id) { return controller.flush_unit_write_cache(unit_id); }

int tw_ata_passthrough(tw_id_type drive_id, tw_ata_registers_type* registers, unsigned char* data)
{
    if (!registers) return null_argument();
    return controller.ata_passthrough(drive_id, registers, data);
}

int tw_get_drive_ident_data(tw_id_type drive_id, unsigned char data[TW_SECTOR_SIZE])
{
    if (!data) return null_argument();
    return controller.get_drive_ident_data(drive_id, data);
}

int tw_get_drive_smart_data(tw_id_type drive_id, unsigned char data[TW_SECTOR_SIZE])
{
    if (!data) return null_argument();
    return controller.get_drive_smart_data(drive_id, data);
}

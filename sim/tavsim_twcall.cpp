// tavsim tw: one call of the controller API against the module, its result,
// its outputs and the error record's text.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>

#include "sim_platform.h"
#include "table.h"
#include "tavsim_cli.h"
#include "tw_api/tw_api.h"
#include "tw_api_state.h"

namespace sim::cli {
namespace {

using Args = std::vector<std::string>;
// A call: the words after the function's name, the output; the result or,
// for arguments it cannot read, a reason in `why`.
using Caller = std::function<int(const Args&, std::string&, std::string&)>;

bool number(const std::string& word, int& out)
{
    char* end = nullptr;
    long v = std::strtol(word.c_str(), &end, 0);
    if (word.empty() || *end || v < -2147483647L || v > 2147483647L) return false;
    out = static_cast<int>(v);
    return true;
}

tw_id_type controllerId(const Args& a, std::string& why)
{
    tw_id_type id;
    std::memset(&id, 0xff, sizeof id);
    int n = 0;
    if (a.empty() || !number(a[0], n)) why = "expected CONTROLLER";
    else tw_create_controller_id(n, &id);
    return id;
}

std::string text(const char* t, size_t size) { return std::string(t, strnlen(t, size)); }

template <size_t N>
Caller textGetter(int (*f)(tw_id_type, char*), const char* name)
{
    return [f, name](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = controllerId(a, why);
        if (!why.empty()) return 0;
        char buf[N];
        std::memset(buf, 0, sizeof buf);
        int rc = f(id, buf);
        out = std::string(name) + ": " + text(buf, N);
        return rc;
    };
}

Caller intGetter(int (*f)(tw_id_type, int*), const char* name)
{
    return [f, name](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = controllerId(a, why);
        if (!why.empty()) return 0;
        int v = 0;
        int rc = f(id, &v);
        out = std::string(name) + ": " + std::to_string(v);
        return rc;
    };
}

Caller intSetter(int (*f)(tw_id_type, int))
{
    return [f](const Args& a, std::string&, std::string& why) {
        tw_id_type id = controllerId(a, why);
        int v = 0;
        if (!why.empty() || a.size() != 2 || !number(a[1], v)) {
            why = "expected CONTROLLER VALUE";
            return 0;
        }
        return f(id, v);
    };
}

Caller action(int (*f)(tw_id_type))
{
    return [f](const Args& a, std::string&, std::string& why) {
        tw_id_type id = controllerId(a, why);
        return why.empty() ? f(id) : 0;
    };
}

Caller logGetter(int (*f)(tw_id_type, unsigned char*, int*))
{
    return [f](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = controllerId(a, why);
        if (!why.empty()) return 0;
        unsigned char buf[4096] = {};
        int length = sizeof buf;
        int rc = f(id, buf, &length);
        const size_t n = length > 0 && static_cast<size_t>(length) <= sizeof buf ? static_cast<size_t>(length) : 0;
        out = "length: " + std::to_string(length) + "\nlog: " + text(reinterpret_cast<char*>(buf), n);
        return rc;
    };
}

// A day's window of the schedule: CONTROLLER DAY, and for a set START DURATION.
Caller windowGetter(int (*f)(tw_id_type, int, tw_task_window_type*))
{
    return [f](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = controllerId(a, why);
        int day = 0;
        if (!why.empty() || a.size() != 2 || !number(a[1], day)) {
            why = "expected CONTROLLER DAY";
            return 0;
        }
        tw_task_window_type item{};
        int rc = f(id, day, &item);
        out = "start_time: " + std::to_string(item.start_time) + "\nduration: " + std::to_string(item.duration);
        return rc;
    };
}

Caller windowSetter(int (*f)(tw_id_type, int, tw_task_window_type))
{
    return [f](const Args& a, std::string&, std::string& why) {
        tw_id_type id = controllerId(a, why);
        int day = 0, start = 0, duration = 0;
        if (!why.empty() || a.size() != 4 || !number(a[1], day) || !number(a[2], start) || !number(a[3], duration) ||
            start < 0 || start > 0xffff || duration < 0 || duration > 0xffff) {
            why = "expected CONTROLLER DAY START DURATION (START and DURATION 0 to 65535 minutes)";
            return 0;
        }
        tw_task_window_type item{};
        item.start_time = static_cast<uint16_t>(start);
        item.duration = static_cast<uint16_t>(duration);
        return f(id, day, item);
    };
}

// Bytes as lower-case hex, and back; false for a text of another length or
// with other characters.
std::string hexText(const void* data, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

bool fromHex(const std::string& text, void* data, size_t size)
{
    if (text.size() != 2 * size) return false;
    auto* bytes = static_cast<unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) {
        unsigned v = 0;
        for (int k = 0; k < 2; ++k) {
            const char c = text[2 * i + k];
            const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
            if (d < 0) return false;
            v = v * 16 + static_cast<unsigned>(d);
        }
        bytes[i] = static_cast<unsigned char>(v);
    }
    return true;
}

// An identifier made by one of the four constructors from NUMBERS, with its
// bytes and what the reader of its kind gives back.
Caller idMaker(int (*make)(int, int, tw_id_type*), int (*read)(tw_id_type, int*), const char* label)
{
    return [make, read, label](const Args& a, std::string& out, std::string& why) {
        int c = 0, n = 0;
        if (a.size() != 2 || !number(a[0], c) || !number(a[1], n)) {
            why = "expected CONTROLLER NUMBER";
            return 0;
        }
        tw_id_type id;
        std::memset(&id, 0, sizeof id);
        int rc = make(c, n, &id);
        int back = -1;
        if (rc == 0) read(id, &back);
        out = "id: " + hexText(id.id, sizeof id.id) + "\n" + label + ": " + std::to_string(back);
        return rc;
    };
}


// A unit: CONTROLLER UNIT[.SUBUNIT[.SUBUNIT[.SUBUNIT]]].
tw_id_type unitId(const Args& a, std::string& why)
{
    tw_id_type id;
    std::memset(&id, 0xff, sizeof id);
    int c = 0;
    int path[4] = {};
    int depth = 0;
    if (a.size() < 2 || !number(a[0], c)) {
        why = "expected CONTROLLER UNIT[.SUBUNIT...]";
        return id;
    }
    size_t at = 0;
    const std::string& w = a[1];
    while (depth < 4) {
        const size_t dot = w.find('.', at);
        if (!number(w.substr(at, dot == std::string::npos ? std::string::npos : dot - at), path[depth++])) break;
        if (dot == std::string::npos) {
            if (tw_create_unit_id(c, path[0], path + 1, depth - 1, &id) != 0) break;
            return id;
        }
        at = dot + 1;
    }
    why = "expected CONTROLLER UNIT[.SUBUNIT...] (up to three subunits)";
    return id;
}

tw_id_type driveId(const Args& a, std::string& why)
{
    tw_id_type id;
    std::memset(&id, 0xff, sizeof id);
    int c = 0, d = 0;
    if (a.size() != 2 || !number(a[0], c) || !number(a[1], d) || tw_create_drive_id(c, d, &id) != 0)
        why = "expected CONTROLLER DRIVE";
    return id;
}

tw_id_type portId(const Args& a, std::string& why)
{
    tw_id_type id;
    std::memset(&id, 0xff, sizeof id);
    int c = 0, d = 0;
    if (a.size() != 2 || !number(a[0], c) || !number(a[1], d) || tw_create_port_id(c, d, &id) != 0)
        why = "expected CONTROLLER PORT";
    return id;
}

std::string idText(const tw_id_type& id)
{
    std::string out;
    if (id.id[0] == TW_ID_KIND_UNIT) {
        out = std::to_string(id.id[4]);
        for (int i = 5; i < 8 && id.id[i] != 0xFF; ++i) out += "." + std::to_string(id.id[i]);
    } else {
        out = std::to_string(id.id[2]);
    }
    return out;
}

using IdOf = tw_id_type (*)(const Args&, std::string&);

template <class T>
Caller idGetter(IdOf idOf, int (*f)(tw_id_type, T*), const char* name)
{
    return [idOf, f, name](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = idOf(a, why);
        if (!why.empty()) return 0;
        T v{};
        int rc = f(id, &v);
        out = std::string(name) + ": " + std::to_string(v);
        return rc;
    };
}

template <size_t N>
Caller idTextGetter(IdOf idOf, int (*f)(tw_id_type, char*), const char* name)
{
    return [idOf, f, name](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = idOf(a, why);
        if (!why.empty()) return 0;
        char buf[N] = {};
        int rc = f(id, buf);
        out = std::string(name) + ": " + text(buf, N);
        return rc;
    };
}

Caller listGetter(IdOf idOf, int (*f)(tw_id_type, tw_id_list_type*), const char* name)
{
    return [idOf, f, name](const Args& a, std::string& out, std::string& why) {
        tw_id_type id = idOf(a, why);
        if (!why.empty()) return 0;
        tw_id_list_type list;
        std::memset(&list, 0, sizeof list);
        int rc = f(id, &list);
        out = "length: " + std::to_string(list.length);
        for (int i = 0; i < list.length && i < TW_MAX_CONTROLLERS; ++i) out += "\n" + std::string(name) + ": " + idText(list.list[i]);
        return rc;
    };
}

Caller idAction(IdOf idOf, int (*f)(tw_id_type))
{
    return [idOf, f](const Args& a, std::string&, std::string& why) {
        tw_id_type id = idOf(a, why);
        return why.empty() ? f(id) : 0;
    };
}

// An event getter: CONTROLLER, and for next and previous the SEQUENCE to start from.
Caller eventGetter(int (*f)(tw_id_type, tw_event_info_type*), bool from)
{
    return [f, from](const Args& a, std::string& out, std::string& why) {
        tw_event_info_type e;
        std::memset(&e, 0, sizeof e);
        int seq = 0;
        if (a.size() != (from ? 2u : 1u) || (from && !number(a[1], seq))) {
            why = from ? "expected CONTROLLER SEQUENCE" : "expected CONTROLLER";
            return 0;
        }
        tw_id_type id = controllerId(a, why);
        if (!why.empty()) return 0;
        e.sequence_id = static_cast<uint32_t>(seq);
        int rc = f(id, &e);
        out = "sequence_id: " + std::to_string(e.sequence_id) + "\ntime_stamp_sec: " + std::to_string(e.time_stamp_sec) +
              "\naen_code: " + std::to_string(e.aen_code) + "\nseverity: " + std::to_string(e.severity) +
              "\ntext: " + text(e.text, sizeof e.text);
        return rc;
    };
}

tw_id_type controllerOnly(const Args& a, std::string& why) { return controllerId(a, why); }

// --- Unit configuration.

// The drives of controller `c` named from a[from] on; false for a word that
// is no drive number, or more than 16.
bool driveList(int c, const Args& a, size_t from, tw_id_list_type& list)
{
    std::memset(&list, 0xff, sizeof list);
    list.length = 0;
    if (a.size() <= from || a.size() - from > 16) return false;
    for (size_t i = from; i < a.size(); ++i) {
        int d = 0;
        if (!number(a[i], d) || tw_create_drive_id(c, d, &list.list[list.length]) != 0) return false;
        ++list.length;
    }
    return true;
}

// CONTROLLER CONFIG STRIPE [SUBUNIT_SIZE] NOTIFY DRIVE...
Caller unitMaker(bool layout)
{
    return [layout](const Args& a, std::string& out, std::string& why) {
        const size_t fixed = layout ? 5 : 4;
        int c = 0, config = 0, stripe = 0, sub = 0, notify = 0;
        tw_id_list_type list;
        if (a.size() <= fixed || !number(a[0], c) || !number(a[1], config) || !number(a[2], stripe) ||
            (layout && !number(a[3], sub)) || !number(a[fixed - 1], notify) || !driveList(c, a, fixed, list)) {
            why = layout ? "expected CONTROLLER CONFIG STRIPE SUBUNIT_SIZE NOTIFY DRIVE... (1 to 16 drives)"
                         : "expected CONTROLLER CONFIG STRIPE NOTIFY DRIVE... (1 to 16 drives)";
            return 0;
        }
        tw_id_type unit;
        std::memset(&unit, 0xff, sizeof unit);
        int rc = layout ? tw_create_unit_with_layout(&list, config, stripe, sub, notify, &unit)
                        : tw_create_unit(&list, config, stripe, notify, &unit);
        if (rc == 0) out = "unit: " + idText(unit);
        return rc;
    };
}

// CONTROLLER UNIT NOTIFY
Caller unitChange(int (*f)(tw_id_type, int))
{
    return [f](const Args& a, std::string&, std::string& why) {
        tw_id_type id = unitId(a, why);
        int notify = 0;
        if (why.empty() && (a.size() != 3 || !number(a[2], notify))) why = "expected CONTROLLER UNIT NOTIFY";
        return why.empty() ? f(id, notify) : 0;
    };
}

const std::map<std::string, Caller>& callers()
{
    static const std::map<std::string, Caller> all = {
        {"tw_get_controller_id_list",
         [](const Args& a, std::string& out, std::string& why) {
             if (!a.empty()) why = "takes no arguments";
             tw_id_list_type list;
             std::memset(&list, 0, sizeof list);
             int rc = tw_get_controller_id_list(&list);
             out = "length: " + std::to_string(list.length);
             for (int i = 0; i < list.length && i < TW_MAX_CONTROLLERS; ++i) {
                 int n = -1;
                 tw_get_controller_number(list.list[i], &n);
                 out += "\ncontroller: " + std::to_string(n);
             }
             return rc;
         }},
        {"tw_get_model", textGetter<TW_MODEL_SIZE>(tw_get_model, "model")},
        {"tw_get_serial_number", textGetter<TW_SERIAL_NUMBER_SIZE>(tw_get_serial_number, "serial_number")},
        {"tw_get_pcb_revision", textGetter<TW_VERSION_SIZE>(tw_get_pcb_revision, "pcb_revision")},
        {"tw_get_a_chip_version", textGetter<TW_VERSION_SIZE>(tw_get_a_chip_version, "a_chip_version")},
        {"tw_get_p_chip_version", textGetter<TW_VERSION_SIZE>(tw_get_p_chip_version, "p_chip_version")},
        {"tw_get_firmware_version", textGetter<TW_VERSION_SIZE>(tw_get_firmware_version, "firmware_version")},
        {"tw_get_bios_version", textGetter<TW_VERSION_SIZE>(tw_get_bios_version, "bios_version")},
        {"tw_get_monitor_version", textGetter<TW_VERSION_SIZE>(tw_get_monitor_version, "monitor_version")},
        {"tw_get_driver_version", textGetter<TW_DRIVER_VERSION_SIZE>(tw_get_driver_version, "driver_version")},
        {"tw_get_number_of_ports", intGetter(tw_get_number_of_ports, "number_of_ports")},
        {"tw_get_number_of_drives", intGetter(tw_get_number_of_drives, "number_of_drives")},
        {"tw_get_number_of_units", intGetter(tw_get_number_of_units, "number_of_units")},
        {"tw_get_controller_log", logGetter(tw_get_controller_log)},
        {"tw_get_diagnostic_log", logGetter(tw_get_diagnostic_log)},
        {"tw_get_avmode", intGetter(tw_get_avmode, "avmode")},
        {"tw_get_cache_policy", intGetter(tw_get_cache_policy, "cache_policy")},
        {"tw_get_jbod_policy", intGetter(tw_get_jbod_policy, "jbod_policy")},
        {"tw_get_architecture_id", intGetter(tw_get_architecture_id, "architecture_id")},
        {"tw_get_background_rebuild_rate", intGetter(tw_get_background_rebuild_rate, "rate")},
        {"tw_set_background_rebuild_rate", intSetter(tw_set_background_rebuild_rate)},
        {"tw_get_background_verify_rate", intGetter(tw_get_background_verify_rate, "rate")},
        {"tw_set_background_verify_rate", intSetter(tw_set_background_verify_rate)},
        {"tw_get_selftest_flags", intGetter(tw_get_selftest_flags, "flags")},
        {"tw_set_selftest_flags", intSetter(tw_set_selftest_flags)},
        {"tw_get_rebuild_schedule_state", intGetter(tw_get_rebuild_schedule_state, "state")},
        {"tw_get_verify_schedule_state", intGetter(tw_get_verify_schedule_state, "state")},
        {"tw_enable_rebuild_task_schedule", action(tw_enable_rebuild_task_schedule)},
        {"tw_disable_rebuild_task_schedule", action(tw_disable_rebuild_task_schedule)},
        {"tw_enable_verify_task_schedule", action(tw_enable_verify_task_schedule)},
        {"tw_disable_verify_task_schedule", action(tw_disable_verify_task_schedule)},
        {"tw_get_spinups_allowed", intGetter(tw_get_spinups_allowed, "spinups")},
        {"tw_set_spinups_allowed", intSetter(tw_set_spinups_allowed)},
        {"tw_get_stagger_time", intGetter(tw_get_stagger_time, "stagger_time")},
        {"tw_set_stagger_time", intSetter(tw_set_stagger_time)},
        {"tw_enable_avmode", action(tw_enable_avmode)},
        {"tw_disable_avmode", action(tw_disable_avmode)},
        {"tw_enable_jbod_online", action(tw_enable_jbod_online)},
        {"tw_disable_jbod_online", action(tw_disable_jbod_online)},
        {"tw_disable_cache_on_unit_degrade", action(tw_disable_cache_on_unit_degrade)},
        {"tw_use_unit_cache_states", action(tw_use_unit_cache_states)},
        {"tw_shutdown", action(tw_shutdown)},
        {"tw_pause_mediascan", action(tw_pause_mediascan)},
        {"tw_resume_mediascan", action(tw_resume_mediascan)},
        {"tw_bbu_is_present", intGetter(tw_bbu_is_present, "present")},
        {"tw_bbu_battery_is_present", intGetter(tw_bbu_battery_is_present, "present")},
        {"tw_bbu_battery_test_in_progress", intGetter(tw_bbu_battery_test_in_progress, "in_progress")},
        {"tw_bbu_battery_charge_in_progress", intGetter(tw_bbu_battery_charge_in_progress, "in_progress")},
        {"tw_bbu_enable", action(tw_bbu_enable)},
        {"tw_bbu_disable", action(tw_bbu_disable)},
        {"tw_bbu_initialize_battery", action(tw_bbu_initialize_battery)},
        {"tw_bbu_test_battery", action(tw_bbu_test_battery)},
        {"tw_get_bbu_status", intGetter(tw_get_bbu_status, "status")},
        {"tw_get_bbu_status_summary", intGetter(tw_get_bbu_status_summary, "summary")},
        {"tw_get_bbu_online_state", intGetter(tw_get_bbu_online_state, "state")},
        {"tw_get_bbu_battery_voltage_status", intGetter(tw_get_bbu_battery_voltage_status, "status")},
        {"tw_get_bbu_battery_temperature_status", intGetter(tw_get_bbu_battery_temperature_status, "status")},
        {"tw_get_bbu_battery_capacity", intGetter(tw_get_bbu_battery_capacity, "capacity")},
        {"tw_get_bbu_battery_charge_voltage", intGetter(tw_get_bbu_battery_charge_voltage, "voltage")},
        {"tw_get_bbu_battery_installation_date", textGetter<TW_DATE_SIZE>(tw_get_bbu_battery_installation_date, "date")},
        {"tw_get_bbu_last_battery_test_date", textGetter<TW_DATE_SIZE>(tw_get_bbu_last_battery_test_date, "date")},
        {"tw_get_bbu_serial_number", textGetter<TW_SERIAL_NUMBER_SIZE>(tw_get_bbu_serial_number, "serial_number")},
        {"tw_get_bbu_firmware_version", textGetter<TW_VERSION_SIZE>(tw_get_bbu_firmware_version, "firmware_version")},
        {"tw_get_bbu_boot_code_version", textGetter<TW_VERSION_SIZE>(tw_get_bbu_boot_code_version, "boot_code_version")},
        {"tw_get_bbu_pcb_revision", textGetter<TW_VERSION_SIZE>(tw_get_bbu_pcb_revision, "pcb_revision")},
        {"tw_get_bbu_factory_data", textGetter<TW_FACTORY_DATA_SIZE>(tw_get_bbu_factory_data, "factory_data")},
        {"tw_get_first_event", eventGetter(tw_get_first_event, false)},
        {"tw_get_last_event", eventGetter(tw_get_last_event, false)},
        {"tw_get_next_event", eventGetter(tw_get_next_event, true)},
        {"tw_get_previous_event", eventGetter(tw_get_previous_event, true)},
        // The identifier readers, on identifiers made of the arguments.
        {"tw_get_controller_number", idGetter(controllerId, tw_get_controller_number, "controller_number")},
        {"tw_get_unit_number", idGetter(unitId, tw_get_unit_number, "unit_number")},
        {"tw_get_drive_number", idGetter(driveId, tw_get_drive_number, "drive_number")},
        {"tw_get_port_number", idGetter(portId, tw_get_port_number, "port_number")},
        {"tw_get_unit_id_list", listGetter(controllerOnly, tw_get_unit_id_list, "unit")},
        {"tw_get_subunit_id_list", listGetter(unitId, tw_get_subunit_id_list, "unit")},
        {"tw_get_number_of_subunits", idGetter<int>(unitId, tw_get_number_of_subunits, "number_of_subunits")},
        {"tw_get_unit_status", idGetter<int>(unitId, tw_get_unit_status, "status")},
        {"tw_get_unit_mode", idGetter<int>(unitId, tw_get_unit_mode, "mode")},
        {"tw_get_unit_capacity", idGetter<uint64_t>(unitId, tw_get_unit_capacity, "capacity")},
        {"tw_get_unit_configuration", idGetter<int>(unitId, tw_get_unit_configuration, "configuration")},
        {"tw_get_unit_percentage_complete", idGetter<int>(unitId, tw_get_unit_percentage_complete, "percent")},
        {"tw_get_unit_stripe_size", idGetter<int>(unitId, tw_get_unit_stripe_size, "stripe_size")},
        {"tw_get_unit_read_cache_state", idGetter<int>(unitId, tw_get_unit_read_cache_state, "state")},
        {"tw_get_unit_write_cache_state", idGetter<int>(unitId, tw_get_unit_write_cache_state, "state")},
        {"tw_get_unit_ecc_policy", idGetter<int>(unitId, tw_get_unit_ecc_policy, "policy")},
        {"tw_get_unit_auto_verify_policy", idGetter<int>(unitId, tw_get_unit_auto_verify_policy, "policy")},
        {"tw_get_unit_local_unit_id", idGetter<int>(unitId, tw_get_unit_local_unit_id, "local_unit_id")},
        {"tw_unit_background_task_active", idGetter<int>(unitId, tw_unit_background_task_active, "active")},
        {"tw_unit_is_initialized", idGetter<int>(unitId, tw_unit_is_initialized, "initialized")},
        {"tw_get_unit_id_from_drive_id",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = driveId(a, why);
             if (!why.empty()) return 0;
             tw_id_type unit;
             std::memset(&unit, 0xff, sizeof unit);
             int rc = tw_get_unit_id_from_drive_id(id, &unit);
             out = "unit: " + idText(unit);
             return rc;
         }},
        {"tw_enable_unit_read_cache", idAction(unitId, tw_enable_unit_read_cache)},
        {"tw_disable_unit_read_cache", idAction(unitId, tw_disable_unit_read_cache)},
        {"tw_enable_unit_write_cache", idAction(unitId, tw_enable_unit_write_cache)},
        {"tw_disable_unit_write_cache", idAction(unitId, tw_disable_unit_write_cache)},
        {"tw_enable_unit_auto_verify", idAction(unitId, tw_enable_unit_auto_verify)},
        {"tw_disable_unit_auto_verify", idAction(unitId, tw_disable_unit_auto_verify)},
        {"tw_unit_set_ecc_policy_to_continue", idAction(unitId, tw_unit_set_ecc_policy_to_continue)},
        {"tw_unit_set_ecc_policy_to_halt", idAction(unitId, tw_unit_set_ecc_policy_to_halt)},
        {"tw_get_drive_id_list", listGetter(controllerOnly, tw_get_drive_id_list, "drive")},
        {"tw_get_drive_id_list_from_unit_id", listGetter(unitId, tw_get_drive_id_list_from_unit_id, "drive")},
        {"tw_get_port_id_list", listGetter(controllerOnly, tw_get_port_id_list, "port")},
        {"tw_remove_drive", idAction(driveId, tw_remove_drive)},
        {"tw_add_drive", idAction(driveId, tw_add_drive)},
        {"tw_get_drive_status", idGetter<int>(driveId, tw_get_drive_status, "status")},
        {"tw_get_drive_capacity", idGetter<uint64_t>(driveId, tw_get_drive_capacity, "capacity")},
        {"tw_get_drive_model", idTextGetter<TW_MODEL_SIZE>(driveId, tw_get_drive_model, "model")},
        {"tw_get_drive_serial_number", idTextGetter<TW_SERIAL_NUMBER_SIZE>(driveId, tw_get_drive_serial_number, "serial_number")},
        {"tw_get_drive_firmware_version", idTextGetter<TW_VERSION_SIZE>(driveId, tw_get_drive_firmware_version, "firmware_version")},
        {"tw_get_drive_port_id",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = driveId(a, why);
             if (!why.empty()) return 0;
             tw_id_type port;
             std::memset(&port, 0xff, sizeof port);
             int rc = tw_get_drive_port_id(id, &port);
             out = "port: " + idText(port);
             return rc;
         }},
        {"tw_get_boot_unit",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = controllerId(a, why);
             if (!why.empty()) return 0;
             tw_id_type unit;
             std::memset(&unit, 0xff, sizeof unit);
             int rc = tw_get_boot_unit(id, &unit);
             int n = -1;
             tw_get_unit_number(unit, &n);
             out = "boot_unit: " + std::to_string(n);
             return rc;
         }},
        {"tw_set_boot_unit",
         [](const Args& a, std::string&, std::string& why) {
             int c = 0, u = 0;
             tw_id_type unit;
             if (a.size() != 2 || !number(a[0], c) || !number(a[1], u) ||
                 tw_create_unit_id(c, u, nullptr, 0, &unit) != 0) {
                 why = "expected CONTROLLER UNIT";
                 return 0;
             }
             return tw_set_boot_unit(unit);
         }},
        {"tw_get_task_schedule",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = controllerId(a, why);
             if (!why.empty()) return 0;
             tw_task_schedule_type schedule;
             std::memset(&schedule, 0, sizeof schedule);
             int rc = tw_get_task_schedule(id, &schedule);
             out = "schedule: " + hexText(&schedule, sizeof schedule);
             return rc;
         }},
        {"tw_set_task_schedule",
         [](const Args& a, std::string&, std::string& why) {
             tw_id_type id = controllerId(a, why);
             tw_task_schedule_type schedule;
             if (!why.empty() || a.size() != 2 || !fromHex(a[1], &schedule, sizeof schedule)) {
                 why = "expected CONTROLLER SCHEDULE (140 hex digits, as tw_get_task_schedule prints it)";
                 return 0;
             }
             return tw_set_task_schedule(id, &schedule);
         }},
        {"tw_get_rebuild_task_item", windowGetter(tw_get_rebuild_task_item)},
        {"tw_set_rebuild_task_item", windowSetter(tw_set_rebuild_task_item)},
        {"tw_get_verify_task_item", windowGetter(tw_get_verify_task_item)},
        {"tw_set_verify_task_item", windowSetter(tw_set_verify_task_item)},
        {"tw_get_selftest_task_item",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = controllerId(a, why);
             int day = 0;
             if (!why.empty() || a.size() != 2 || !number(a[1], day)) {
                 why = "expected CONTROLLER DAY";
                 return 0;
             }
             int start = 0;
             int rc = tw_get_selftest_task_item(id, day, &start);
             out = "start_time: " + std::to_string(start);
             return rc;
         }},
        {"tw_set_selftest_task_item",
         [](const Args& a, std::string&, std::string& why) {
             tw_id_type id = controllerId(a, why);
             int day = 0, start = 0;
             if (!why.empty() || a.size() != 3 || !number(a[1], day) || !number(a[2], start)) {
                 why = "expected CONTROLLER DAY START";
                 return 0;
             }
             return tw_set_selftest_task_item(id, day, start);
         }},
        {"tw_create_controller_id",
         [](const Args& a, std::string& out, std::string& why) {
             int c = 0;
             if (a.size() != 1 || !number(a[0], c)) {
                 why = "expected CONTROLLER";
                 return 0;
             }
             tw_id_type id;
             std::memset(&id, 0, sizeof id);
             int rc = tw_create_controller_id(c, &id);
             int back = -1;
             if (rc == 0) tw_get_controller_number(id, &back);
             out = "id: " + hexText(id.id, sizeof id.id) + "\ncontroller: " + std::to_string(back);
             return rc;
         }},
        {"tw_create_unit_id",
         [](const Args& a, std::string& out, std::string& why) {
             int c = 0, u = 0;
             int subunits[4] = {};
             const size_t count = a.size() < 2 ? 0 : a.size() - 2;
             bool ok = a.size() >= 2 && count <= 4 && number(a[0], c) && number(a[1], u);
             for (size_t i = 0; ok && i < count; ++i) ok = number(a[2 + i], subunits[i]);
             if (!ok) {
                 why = "expected CONTROLLER UNIT [SUBUNIT...] (at most 4 subunits)";
                 return 0;
             }
             tw_id_type id;
             std::memset(&id, 0, sizeof id);
             int rc = tw_create_unit_id(c, u, subunits, static_cast<int>(count), &id);
             int back = -1;
             if (rc == 0) tw_get_unit_number(id, &back);
             out = "id: " + hexText(id.id, sizeof id.id) + "\nunit: " + std::to_string(back);
             return rc;
         }},
        {"tw_create_drive_id", idMaker(tw_create_drive_id, tw_get_drive_number, "drive")},
        {"tw_create_port_id", idMaker(tw_create_port_id, tw_get_port_number, "port")},
        {"tw_get_api_copyright",
         [](const Args&, std::string& out, std::string&) {
             out = std::string("copyright: ") + tw_get_api_copyright();
             return 0;
         }},
        {"tw_get_api_version",
         [](const Args&, std::string& out, std::string&) {
             out = std::string("version: ") + tw_get_api_version();
             return 0;
         }},
        // --- Unit configuration. NOTIFY 1 tells the kernel, 0 leaves it alone.
        {"tw_create_unit", unitMaker(false)},
        {"tw_create_unit_with_layout", unitMaker(true)},
        {"tw_destroy_unit", unitChange(tw_destroy_unit)},
        {"tw_export_unit", unitChange(tw_export_unit)},
        {"tw_remove_unit", unitChange(tw_remove_unit)},
        {"tw_import_unit",
         [](const Args& a, std::string& out, std::string& why) {
             int c = 0, notify = 0;
             tw_id_list_type list;
             if (a.size() < 3 || !number(a[0], c) || !number(a[1], notify) || !driveList(c, a, 2, list)) {
                 why = "expected CONTROLLER NOTIFY DRIVE... (1 to 16 drives)";
                 return 0;
             }
             tw_id_type unit;
             std::memset(&unit, 0xff, sizeof unit);
             int rc = tw_import_unit(&list, notify, &unit);
             if (rc == 0) out = "unit: " + idText(unit);
             return rc;
         }},
        {"tw_split_mirror",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = unitId(a, why);
             int notify = 0;
             if (why.empty() && (a.size() != 3 || !number(a[2], notify))) why = "expected CONTROLLER UNIT NOTIFY";
             if (!why.empty()) return 0;
             tw_id_list_type units;
             std::memset(&units, 0, sizeof units);
             int rc = tw_split_mirror(id, notify, &units);
             out = "length: " + std::to_string(units.length);
             for (int i = 0; i < units.length && i < TW_MAX_CONTROLLERS; ++i) out += "\nunit: " + idText(units.list[i]);
             return rc;
         }},
        {"tw_migrate_unit",
         [](const Args& a, std::string&, std::string& why) {
             tw_id_type id = unitId(a, why);
             int c = 0, config = 0, stripe = 0;
             tw_id_list_type list;
             std::memset(&list, 0xff, sizeof list);
             list.length = 0;
             if (why.empty() && (a.size() < 4 || !number(a[0], c) || !number(a[2], config) || !number(a[3], stripe) ||
                                 (a.size() > 4 && !driveList(c, a, 4, list))))
                 why = "expected CONTROLLER UNIT CONFIG STRIPE [DRIVE...] (at most 16 drives)";
             return why.empty() ? tw_migrate_unit(id, &list, config, stripe) : 0;
         }},
        {"tw_rescan_controller",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = controllerId(a, why);
             int notify = 0;
             if (why.empty() && (a.size() != 2 || !number(a[1], notify))) why = "expected CONTROLLER NOTIFY";
             if (!why.empty()) return 0;
             tw_id_list_type units, drives;
             std::memset(&units, 0, sizeof units);
             std::memset(&drives, 0, sizeof drives);
             int rc = tw_rescan_controller(id, notify, &units, &drives);
             out = "units: " + std::to_string(units.length);
             for (int i = 0; i < units.length && i < TW_MAX_CONTROLLERS; ++i) out += "\nunit: " + idText(units.list[i]);
             out += "\ndrives: " + std::to_string(drives.length);
             for (int i = 0; i < drives.length && i < TW_MAX_CONTROLLERS; ++i) out += "\ndrive: " + idText(drives.list[i]);
             return rc;
         }},
        // Unit tasks and the drives' ATA side.
        {"tw_rebuild_unit",
         [](const Args& a, std::string&, std::string& why) {
             // CONTROLLER UNIT DRIVE...
             int c = 0, u = 0;
             tw_id_type unit;
             tw_id_list_type drives;
             std::memset(&drives, 0xff, sizeof drives);
             drives.length = 0;
             bool ok = a.size() >= 2 && a.size() <= 2 + 16 && number(a[0], c) && number(a[1], u) &&
                       tw_create_unit_id(c, u, nullptr, 0, &unit) == 0;
             for (size_t i = 2; ok && i < a.size(); ++i) {
                 int d = 0;
                 ok = number(a[i], d) && tw_create_drive_id(c, d, &drives.list[drives.length++]) == 0;
             }
             if (!ok) {
                 why = "expected CONTROLLER UNIT [DRIVE...] (at most 16 drives)";
                 return 0;
             }
             return tw_rebuild_unit(unit, &drives);
         }},
        {"tw_pause_rebuild_unit", idAction(unitId, tw_pause_rebuild_unit)},
        {"tw_resume_rebuild_unit", idAction(unitId, tw_resume_rebuild_unit)},
        {"tw_verify_unit", idAction(unitId, tw_verify_unit)},
        {"tw_stop_verify_unit", idAction(unitId, tw_stop_verify_unit)},
        {"tw_flush_unit_write_cache", idAction(unitId, tw_flush_unit_write_cache)},
        {"tw_get_drive_ident_data",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = driveId(a, why);
             if (!why.empty()) return 0;
             unsigned char data[TW_SECTOR_SIZE] = {};
             int rc = tw_get_drive_ident_data(id, data);
             out = "ident_data: " + hexText(data, sizeof data);
             return rc;
         }},
        {"tw_get_drive_smart_data",
         [](const Args& a, std::string& out, std::string& why) {
             tw_id_type id = driveId(a, why);
             if (!why.empty()) return 0;
             unsigned char data[TW_SECTOR_SIZE] = {};
             int rc = tw_get_drive_smart_data(id, data);
             out = "smart_data: " + hexText(data, sizeof data);
             return rc;
         }},
        {"tw_ata_passthrough",
         [](const Args& a, std::string& out, std::string& why) {
             // CONTROLLER DRIVE FEATURE COUNT SECTOR CYL_LOW CYL_HIGH DEVICE COMMAND [data]
             int c = 0, d = 0, r[7] = {};
             bool ok = (a.size() == 9 || (a.size() == 10 && a[9] == "data")) && number(a[0], c) && number(a[1], d);
             for (int i = 0; ok && i < 7; ++i) ok = number(a[2 + static_cast<size_t>(i)], r[i]) && r[i] >= 0 && r[i] <= 255;
             tw_id_type id;
             if (!ok || tw_create_drive_id(c, d, &id) != 0) {
                 why = "expected CONTROLLER DRIVE FEATURE COUNT SECTOR CYL_LOW CYL_HIGH DEVICE COMMAND [data] (registers 0 to 255)";
                 return 0;
             }
             tw_ata_registers_type regs{static_cast<unsigned char>(r[0]), static_cast<unsigned char>(r[1]),
                                        static_cast<unsigned char>(r[2]), static_cast<unsigned char>(r[3]),
                                        static_cast<unsigned char>(r[4]), static_cast<unsigned char>(r[5]),
                                        static_cast<unsigned char>(r[6])};
             unsigned char data[TW_SECTOR_SIZE] = {};
             int rc = tw_ata_passthrough(id, &regs, a.size() == 10 ? data : nullptr);
             out = "registers: error " + std::to_string(regs.feature) + " count " + std::to_string(regs.count) +
                   " sector " + std::to_string(regs.sector) + " cylinder_low " + std::to_string(regs.cylinder_low) +
                   " cylinder_high " + std::to_string(regs.cylinder_high) + " device " + std::to_string(regs.device) +
                   " status " + std::to_string(regs.command);
             if (a.size() == 10) out += "\ndata: " + hexText(data, sizeof data);
             return rc;
         }},
    };
    return all;
}

} // namespace

std::string twFunctionNames()
{
    // Wrapped for the help text, which it ends.
    std::string out, line;
    for (const auto& [name, caller] : callers()) {
        if (!line.empty() && line.size() + 1 + name.size() > 76) {
            out += line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + name;
    }
    return out + line;
}

int runTwCall(const Call& call)
{
    Words w;
    int status = splitWords(call, {}, false, w);
    if (status) return status;
    if ((status = expectPositional(call, w, 2, SIZE_MAX))) return status;
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    const std::string& name = w.positional[1];
    auto it = callers().find(name);
    if (it == callers().end()) return badUsage(call, "no function " + cell(name) + " (tavsim tw --help lists them)");
    const Args args(w.positional.begin() + 2, w.positional.end());
    SimPlatform platform(module->dir());
    plat::ScopedPlatform scope(platform);
    resetTwApi();
    std::string out, why;
    const int rc = it->second(args, out, why);
    if (!why.empty()) return badUsage(call, name + ": " + why);
    std::cout << name << " = " << rc << "\n";
    if (!out.empty()) std::cout << out << "\n";
    tw_api_error_type error;
    std::memset(&error, 0, sizeof error);
    tw_get_error_information(&error);
    const std::string text(error.text, strnlen(error.text, sizeof error.text));
    std::cout << "error: flags 0x" << std::hex << error.valid_error_flags << std::dec << " api " << error.api_error_code
              << " os " << error.os_error_code << " driver " << error.driver_error_code << " controller "
              << error.controller_error_code << "\n";
    if (!text.empty()) std::cout << text << "\n";
    return rc == 0 ? kDone : kRefused;
}

} // namespace sim::cli

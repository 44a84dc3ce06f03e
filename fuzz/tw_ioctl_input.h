// One input of tw_ioctl_fuzz, also replayed by the tests: every getter of
// the controller API on both families, against drivers that overwrite the
// whole call buffer with fuzzed bytes and fail with fuzzed errors, busy runs
// of any length included; then the error text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_osil.h"
#include "tw_fuzz_platform.h"

namespace twfuzz {

// The unit and drive getters over whatever lists the controller gives, and
// a walk of the events, which has to end.
inline void unitsAndDrives(tw_id_type c)
{
    tw_id_list_type units, subunits, drives;
    int value = 0;
    uint64_t sectors = 0;
    tw_id_type id;
    char text[TW_MODEL_SIZE];
    if (tw_get_unit_id_list(c, &units) == 0)
        for (int i = 0; i < units.length && i < 16; ++i) {
            const tw_id_type u = units.list[i];
            tw_get_unit_status(u, &value);
            tw_get_unit_mode(u, &value);
            tw_get_unit_capacity(u, &sectors);
            tw_get_unit_percentage_complete(u, &value);
            tw_get_drive_id_list_from_unit_id(u, &drives);
            if (tw_get_subunit_id_list(u, &subunits) == 0)
                for (int j = 0; j < subunits.length && j < 16; ++j) {
                    tw_get_unit_configuration(subunits.list[j], &value);
                    tw_get_drive_id_list_from_unit_id(subunits.list[j], &drives);
                }
        }
    if (tw_get_drive_id_list(c, &drives) == 0)
        for (int i = 0; i < drives.length && i < 16; ++i) {
            tw_get_drive_status(drives.list[i], &value);
            tw_get_drive_serial_number(drives.list[i], text);
            tw_get_drive_capacity(drives.list[i], &sectors);
            tw_get_unit_id_from_drive_id(drives.list[i], &id);
        }
    tw_get_port_id_list(c, &drives);
    tw_event_info_type e;
    if (tw_get_first_event(c, &e) == 0)
        while (e.aen_code != 0 && tw_get_next_event(c, &e) == 0) {
        }
}

inline void everyGetter(tw_id_type c)
{
    char text[TW_DRIVER_VERSION_SIZE];
    int value = 0;
    tw_id_type unit;
    unsigned char log[2048];
    int length = sizeof log;
    tw_task_schedule_type schedule;
    tw_task_window_type window;
    tw_get_model(c, text);
    tw_get_serial_number(c, text);
    tw_get_pcb_revision(c, text);
    tw_get_a_chip_version(c, text);
    tw_get_p_chip_version(c, text);
    tw_get_firmware_version(c, text);
    tw_get_bios_version(c, text);
    tw_get_monitor_version(c, text);
    tw_get_driver_version(c, text);
    tw_get_number_of_ports(c, &value);
    tw_get_number_of_drives(c, &value);
    tw_get_number_of_units(c, &value);
    tw_get_controller_log(c, log, &length);
    length = sizeof log;
    tw_get_diagnostic_log(c, log, &length);
    tw_get_avmode(c, &value);
    tw_get_boot_unit(c, &unit);
    tw_get_cache_policy(c, &value);
    tw_get_jbod_policy(c, &value);
    tw_get_background_rebuild_rate(c, &value);
    tw_get_background_verify_rate(c, &value);
    tw_get_selftest_flags(c, &value);
    tw_get_rebuild_task_item(c, 2, &window);
    tw_get_verify_task_item(c, 6, &window);
    tw_get_selftest_task_item(c, 0, &value);
    tw_get_task_schedule(c, &schedule);
    tw_get_rebuild_schedule_state(c, &value);
    tw_get_verify_schedule_state(c, &value);
    tw_get_spinups_allowed(c, &value);
    tw_get_stagger_time(c, &value);
    tw_bbu_is_present(c, &value);
    tw_bbu_battery_is_present(c, &value);
    tw_bbu_battery_test_in_progress(c, &value);
    tw_bbu_battery_charge_in_progress(c, &value);
    tw_get_bbu_status(c, &value);
    tw_get_bbu_status_summary(c, &value);
    tw_get_bbu_online_state(c, &value);
    tw_get_bbu_battery_voltage_status(c, &value);
    tw_get_bbu_battery_temperature_status(c, &value);
    tw_get_bbu_battery_capacity(c, &value);
    tw_get_bbu_battery_charge_voltage(c, &value);
    tw_get_bbu_battery_installation_date(c, text);
    tw_get_bbu_last_battery_test_date(c, text);
    tw_get_bbu_serial_number(c, text);
    tw_get_bbu_firmware_version(c, text);
    tw_get_bbu_boot_code_version(c, text);
    tw_get_bbu_pcb_revision(c, text);
    tw_get_bbu_factory_data(c, text);
    unitsAndDrives(c);
}


inline int ioctlInput(const uint8_t* data, size_t size)
{
    static twfuzz::Platform platform;
    static bool made = false;
    plat::ScopedPlatform scope(platform);
    if (!made) {
        // A 7000 on host 0 and a 9000 on host 1.
        platform.files["/proc/devices"] = "Character devices:\n254 twe\n253 twa\nBlock devices:\n  8 sd\n";
        platform.files["/proc/scsi/3w-xxxx/0"] = "Driver version: 1.0\n";
        platform.setDir("/proc/scsi/3w-xxxx", {"0"});
        platform.setDir("/proc/scsi/3w-9xxx", {"1"});
        made = true;
    }
    platform.nodes.clear();
    os = linux_os();

    twfuzz::Input in(data, size);
    int busy = 0;
    platform.driver = [&in, &busy](unsigned long request, uint8_t* buffer) {
        // The buffer's size is what its header declares, as the caller built it.
        uint32_t length = 0;
        size_t head = 0;
        if (request == 0x1F) {
            std::memcpy(&length, buffer, 4);
            head = 1024;
        } else {
            std::memcpy(&length, buffer + 20, 4);
            head = 1536;
        }
        if (busy > 0) {
            --busy;
            errno = EBUSY;
            return -1;
        }
        // A busy driver leaves the buffer alone (the caller sends it again
        // as it is); any other answer may have written all of it.
        const uint8_t how = in.byte();
        if (how % 8 == 0) {
            busy = (in.byte() << 3) + (how >> 3);  // up to 2047 busy answers
            errno = EBUSY;
            return -1;
        }
        in.fill(buffer, head + length);
        switch (how % 8) {
        case 1: errno = EIO; return -1;
        case 2: errno = EINTR; return -1;
        case 3: errno = (how >> 3) == EBUSY ? EAGAIN : how >> 3; return -1;  // busy runs come from case 0
        default: return 0;
        }
    };
    tw_api_clear_error();
    for (int controller : {0, 1}) {
        tw_id_type c;
        tw_create_controller_id(controller, &c);
        everyGetter(c);
    }
    tw_api_error_type out;
    tw_get_api_error(&out, nullptr, 0);
    platform.driver = [](unsigned long, uint8_t*) {
        errno = ENODEV;
        return -1;
    };
    return 0;
}

} // namespace twfuzz

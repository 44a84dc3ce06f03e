// One input of tw_os_fuzz, also replayed by the tests: the controller API's
// Linux side on kernel files of any text: "/proc/devices" (any word counts
// and lengths), the names under "/proc/scsi/<driver>" or sysfs (numbers or
// not, hosts of any size), node states, and a "/proc/scsi/scsi" of any
// lines, through the construction of linux_os and scan_bus_for_units.
// Input: devices text, 0, entry names by newline, 0, the SCSI list, 0, then
// control bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sstream>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_osil.h"
#include "tw_fuzz_platform.h"

namespace twfuzz {

inline int osInput(const uint8_t* data, size_t size)
{
    static twfuzz::Platform platform;
    plat::ScopedPlatform scope(platform);
    twfuzz::Input in(data, size);

    platform.files.clear();
    platform.nodes.clear();
    platform.clearDirs();
    platform.files["/proc/devices"] = in.until(0);
    std::vector<std::string> names;
    std::istringstream list(in.until(0));
    for (std::string name; std::getline(list, name);)
        names.push_back(name);
    platform.files["/proc/scsi/scsi"] = in.until(0);

    const uint8_t form = in.byte();
    if (form & 1) platform.setDir("/proc/scsi/3w-xxxx", names);
    if (form & 2) platform.setDir("/proc/scsi/3w-9xxx", names);
    if (form & 4) {
        platform.setDir("/sys/class/scsi_host", names);
        for (const std::string& name : names)
            if (!name.empty() && (name.back() & 1)) platform.nodes["/sys/class/scsi_host/" + name + "/stats"] = {S_IFREG, 0};
    }
    // Stale or foreign nodes already there.
    const uint8_t stale = in.byte();
    for (int minor = 0; minor < 16; ++minor) {
        if (stale & (1 << (minor % 8)))
            platform.nodes["/dev/twe" + std::to_string(minor)] = {mode_t(minor & 1 ? S_IFREG : S_IFCHR), makedev(7, 7)};
    }
    const uint8_t openMask = in.byte();
    platform.opens = [openMask](const std::string& path) { return (path.back() + openMask) % 3 == 0; };

    tw_api_clear_error();
    os = linux_os();
    tw_id_list_type ids;
    tw_get_controller_id_list(&ids);
    for (int i = 0; i < 4 && !in.done(); ++i) {
        const int host = in.byte() % 20;
        const int unit = in.byte() % 20;
        const int add = in.byte() % 3;
        osil_instance.scan_bus_for_units(host, unit, add);
    }
    tw_api_error_type out;
    tw_get_api_error(&out, nullptr, 0);
    return 0;
}

} // namespace twfuzz

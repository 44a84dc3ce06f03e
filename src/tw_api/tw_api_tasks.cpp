// Unit tasks: rebuild, pause and resume, verify and its stop, and the flush
// of a unit's write cache, on both families; the 7000's rebuild, replace
// and firmware download commands.
#include <cstring>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"
#include "tw_api/tw_api_osil.h"
#include "tw_api/tw_api_private.h"

namespace {

bool redundant(int configuration) { return configuration == 5 || configuration == 6; }

uint32_t api_code()
{
    tw_api_error_type e;
    tw_get_error_information(&e);
    return e.api_error_code;
}

} // namespace

int controller_base::task_unit(tw_id_type unit_id, unit_tree& tree, int* root)
{
    // Tasks run on whole units: depth 1.
    if (unit_id.id[3] != 1 || unit_id.id[4] >= twp::kMaxUnits) {
        twp::refuse_api(twp::kApiInvalidUnit);
        return -1;
    }
    uint8_t units[twp::kMaxUnits];
    if (read_unit_list(unit_id, units) != 0) return -1;
    if (units[unit_id.id[4]] == 0xFF) {
        twp::refuse_api(twp::kApiNoUnit);
        return -1;
    }
    return find_node(unit_id, tree, root);
}

int controller_base::check_rebuild(tw_id_type unit_id, const tw_id_list_type* drives, uint32_t* ports)
{
    unit_tree tree;
    int root = 0;
    if (task_unit(unit_id, tree, &root) != 0) return -1;
    const TAG_TW_Unit_Node& u = tree.node[root];
    if (!redundant(u.configuration)) {
        twp::refuse_api(twp::kApiRebuildConfig);
        return -1;
    }
    switch (u.mode) {
    case twp::kModeDegraded: break;
    case twp::kModeOk: twp::refuse_api(twp::kApiUnitOk); return -1;
    case twp::kModeRebuilding:
    case twp::kModeRebuildPaused: twp::refuse_api(twp::kApiRebuilding); return -1;
    default: twp::refuse_api(twp::kApiUnitBusy); return -1;
    }
    if (!drives || drives->length == 0) {
        twp::refuse_api(twp::kApiNoDrives);
        return -1;
    }
    // The unit's missing slots and the size a member needs.
    int missing = 0;
    uint64_t need = 0;
    for (int i = 0; i < tree.count; ++i) {
        if (tree.node[i].children != 0) continue;
        if (tree.node[i].drive == twp::kNoDrive) ++missing;
        else if (tree.node[i].capacity > need) need = tree.node[i].capacity;
    }
    if (drives->length < 0 || drives->length > twp::kMaxPorts || drives->length > missing) {
        twp::refuse_api(twp::kApiDriveCount);
        return -1;
    }
    uint32_t mask = 0;
    for (int i = 0; i < drives->length; ++i) {
        const tw_id_type& d = drives->list[i];
        if (d.id[0] != TW_ID_KIND_DRIVE || d.id[2] >= twp::kMaxPorts) {
            twp::refuse_api(twp::kApiInvalidDrive);
            return -1;
        }
        if (d.id[1] != unit_id.id[1]) {
            twp::refuse_api(twp::kApiTwoControllers);
            return -1;
        }
        if (mask & (1u << d.id[2])) {
            twp::refuse_api(twp::kApiDuplicate);
            return -1;
        }
        mask |= 1u << d.id[2];
        uint64_t sectors = 0;
        if (read_drive_item(d, twp::Item::DriveCapacity, &sectors, sizeof sectors) != 0) {
            if (api_code() == twp::kApiPortEmpty) twp::refuse_api(twp::kApiPortEmpty);
            return -1;
        }
        // A drive of a spare unit may go; one of any other unit may not.
        tw_id_type holder;
        if (get_unit_id_from_drive_id(d, &holder) == 0) {
            int configuration = 0;
            if (get_unit_configuration(holder, &configuration) != 0) return -1;
            if (configuration != 13) {
                twp::refuse_api(twp::kApiReplacementConfig);
                return -1;
            }
        } else if (api_code() != 34) {
            return -1;
        }
        if (sectors < need) {
            twp::refuse_api(twp::kApiReplacementSmall);
            return -1;
        }
    }
    tw_api_clear_error();
    *ports = mask;
    return 0;
}

// Starting, pausing and resuming a rebuild, and starting and stopping a
// verify, hold the controller's write lock as other changes to units do.
int controller_base::rebuild_unit(tw_id_type unit_id, const tw_id_list_type* drives)
{
    uint32_t mask = 0;
    if (check_rebuild(unit_id, drives, &mask) != 0) return -1;
    return locked(unit_id, [&] { return send_unit_task(unit_id, unit_id.id[4], uint8_t(twp::TaskAction::Rebuild), mask); });
}

int controller_base::pause_rebuild_unit(tw_id_type unit_id)
{
    unit_tree tree;
    int root = 0;
    if (task_unit(unit_id, tree, &root) != 0) return -1;
    if (tree.node[root].mode != twp::kModeRebuilding) {
        twp::refuse_api(twp::kApiNotRebuilding);
        return -1;
    }
    return locked(unit_id, [&] { return send_unit_task(unit_id, unit_id.id[4], uint8_t(twp::TaskAction::Pause), 0); });
}

int controller_base::resume_rebuild_unit(tw_id_type unit_id)
{
    unit_tree tree;
    int root = 0;
    if (task_unit(unit_id, tree, &root) != 0) return -1;
    if (tree.node[root].mode != twp::kModeRebuildPaused) {
        twp::refuse_api(twp::kApiNotRebuilding);
        return -1;
    }
    return locked(unit_id, [&] { return send_unit_task(unit_id, unit_id.id[4], uint8_t(twp::TaskAction::Resume), 0); });
}

int controller_base::verify_unit(tw_id_type unit_id)
{
    unit_tree tree;
    int root = 0;
    if (task_unit(unit_id, tree, &root) != 0) return -1;
    if (!redundant(tree.node[root].configuration)) {
        twp::refuse_api(twp::kApiVerifyConfig);
        return -1;
    }
    if (tree.node[root].mode != twp::kModeOk) {
        twp::refuse_api(twp::kApiVerifyMode);
        return -1;
    }
    return locked(unit_id, [&] { return send_unit_task(unit_id, unit_id.id[4], uint8_t(twp::TaskAction::Verify), 0); });
}

int controller_base::stop_verify_unit(tw_id_type unit_id)
{
    unit_tree tree;
    int root = 0;
    if (task_unit(unit_id, tree, &root) != 0) return -1;
    if (tree.node[root].mode != twp::kModeVerifying) {
        twp::refuse_api(twp::kApiVerifyMode);
        return -1;
    }
    return locked(unit_id, [&] { return send_unit_task(unit_id, unit_id.id[4], uint8_t(twp::TaskAction::StopVerify), 0); });
}

// A flush takes no lock: it changes no configuration.
int controller_base::flush_unit_write_cache(tw_id_type unit_id)
{
    unit_tree tree;
    int root = 0;
    if (task_unit(unit_id, tree, &root) != 0) return -1;
    return send_unit_task(unit_id, unit_id.id[4], uint8_t(twp::TaskAction::Flush), 0);
}

// ---------------------------------------------------------------------------
// The 7000.

namespace {

TAG_GP_Command task_command_7000(int unit, uint8_t action, uint32_t ports)
{
    TAG_GP_Command command {};
    command.byte0 = twp::byte0Of(twp::kOpUnitTask, 0);
    command.size = twp::kSizeUnitTask;
    command.byte3 = uint8_t(unit & 0x0F);
    command.byte8[0] = action;
    for (int i = 0; i < 4; ++i) command.byte8[4 + i] = uint8_t(ports >> (8 * i));
    return command;
}

} // namespace

int controller_7000::send_unit_task(tw_id_type unit_id, int unit, uint8_t action, uint32_t ports)
{
    TAG_GP_Command command = task_command_7000(unit, action, ports);
    return send(unit_id, command, nullptr, 0);
}

int controller_7000::ioctl_rebuild_unit(tw_id_type id, int unit)
{
    return send_unit_task(id, unit, uint8_t(twp::TaskAction::Rebuild), 0);
}

int controller_7000::ioctl_replace_drive(tw_id_type id, int unit, int port)
{
    if (port < 0 || port >= twp::kMaxPorts) {
        twp::refuse_api(twp::kApiInvalidDrive);
        return -1;
    }
    return send_unit_task(id, unit, uint8_t(twp::TaskAction::Replace), 1u << port);
}

// The 7000 has no rebuild onto named drives: it replaces each into the
// unit, then rebuilds. The checks are the common ones.
int controller_7000::rebuild_unit(tw_id_type unit_id, const tw_id_list_type* drives)
{
    uint32_t mask = 0;
    if (check_rebuild(unit_id, drives, &mask) != 0) return -1;
    for (int port = 0; port < twp::kMaxPorts; ++port)
        if ((mask & (1u << port)) && ioctl_replace_drive(unit_id, unit_id.id[4], port) != 0) return -1;
    return ioctl_rebuild_unit(unit_id, unit_id.id[4]);
}

int controller_7000::firmware_download(tw_id_type id, const unsigned char* image, uint32_t size)
{
    const uint32_t chunk = twp::kFirmwareChunkSize7000;
    const uint32_t chunks = (size + chunk - 1) / chunk;
    if (!image || size == 0 || chunks > 0xFFFF) {
        twp::refuse_api(33);  // "Invalid configuration"
        return -1;
    }
    unsigned char buffer[twp::kFirmwareChunkSize7000];
    for (uint32_t n = 0; n < chunks; ++n) {
        const uint32_t length = size - n * chunk < chunk ? size - n * chunk : chunk;
        std::memcpy(buffer, image + size_t(n) * chunk, length);
        TAG_GP_Command command {};
        command.byte0 = twp::byte0Of(twp::kOpFirmwareDownload, twp::kSglOffsetParam);
        command.size = twp::kSizeUnitTask;
        command.byte8[0] = uint8_t(n);
        command.byte8[1] = uint8_t(n >> 8);
        command.byte8[2] = uint8_t(chunks);
        command.byte8[3] = uint8_t(chunks >> 8);
        for (int i = 0; i < 4; ++i) command.byte8[4 + i] = uint8_t(size >> (8 * i));
        if (send(id, command, buffer, length) != 0) return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// The 9000.

int controller_9000::send_unit_task(tw_id_type unit_id, int unit, uint8_t action, uint32_t ports)
{
    int fd = -1;
    if (osil_instance.open_controller(unit_id, &fd) != 0) return -1;
    TAG_GP_Command_Driver driver {};
    driver.control_code = twp::kControlFirmwarePassThrough;
    TAG_GP_Command_Full full {};
    full.command.byte0 = twp::byte0Of(twp::kOpUnitTask, 0);
    full.command.unit = uint8_t(unit);
    full.command.cdb[0] = action;
    for (int i = 0; i < 4; ++i) full.command.cdb[4 + i] = uint8_t(ports >> (8 * i));
    uint8_t none[1] = {};
    const int result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, none, 0);
    osil_instance.close(fd);
    return result;
}

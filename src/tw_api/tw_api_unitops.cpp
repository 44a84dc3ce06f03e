// Configuration of units: making, destroying, exporting, importing and
// splitting units, and the rescan that finds drives and units anew. The
// checks before a command goes out are the API's; the firmware refuses with
// a controller error what still breaks its rules. Every change holds the
// controller's write lock where the family has one.
#include <cstring>

#include "tw_api/tw_api_cil.h"
#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"
#include "tw_api/tw_api_osil.h"

using twp::clear_list;
using twp::drive_id_of;
using twp::unit_id_of;

namespace {

// A caller's list of drives: its length, the kind and controller of each,
// no drive twice. The codes differ between a create and an import.
struct list_codes {
    uint32_t two_controllers, duplicate;
};
int check_list(const tw_id_list_type* drives, const list_codes& codes)
{
    if (!drives || drives->length == 0) {
        twp::refuse_api(twp::kApiNoDrives);
        return -1;
    }
    if (drives->length < 0 || drives->length > 16) {
        twp::refuse_api(twp::kApiDriveCount);
        return -1;
    }
    for (int i = 0; i < drives->length; ++i) {
        const tw_id_type& d = drives->list[i];
        if (d.id[0] != TW_ID_KIND_DRIVE || d.id[2] >= twp::kMaxPorts) {
            twp::refuse_api(twp::kApiInvalidDrive);
            return -1;
        }
        if (d.id[1] != drives->list[0].id[1]) {
            twp::refuse_api(codes.two_controllers);
            return -1;
        }
        for (int j = 0; j < i; ++j)
            if (drives->list[j].id[2] == d.id[2]) {
                twp::refuse_api(codes.duplicate);
                return -1;
            }
    }
    return 0;
}

// Every drive is one the controller holds, and in no unit.
int check_free(controller_base& c, const tw_id_list_type* drives, uint32_t empty_code, uint32_t in_unit_code)
{
    tw_id_list_type held;
    if (c.get_drive_id_list(drives->list[0], &held) != 0) return -1;
    for (int i = 0; i < drives->length; ++i) {
        bool found = false;
        for (int j = 0; j < held.length; ++j)
            if (held.list[j].id[2] == drives->list[i].id[2]) found = true;
        if (!found) {
            twp::refuse_api(empty_code);
            return -1;
        }
    }
    for (int i = 0; i < drives->length; ++i) {
        tw_id_type unit;
        if (c.get_unit_id_from_drive_id(drives->list[i], &unit) == 0) {
            twp::refuse_api(in_unit_code);
            return -1;
        }
        tw_api_error_type e;
        tw_get_error_information(&e);
        if (e.api_error_code != twp::kApiNoUnitId) return -1;
    }
    tw_api_clear_error();
    return 0;
}

// Tells the kernel of a unit that came (add 1) or went. Whatever failed on
// the way (the kernel's list unreadable included), the record then names
// the side that could not follow: API code 70 for an add, 69 for a removal.
int tell_kernel(int controller, int unit, int add)
{
    if (osil_instance.scan_bus_for_units(controller, unit, add) == 0) return 0;
    tw_api_set_error(twp::kFlagApi, add ? 70 : 69, 0, 0, 0, nullptr);
    return -1;
}

} // namespace

// ---------------------------------------------------------------------------
// The checks.

bool controller_base::isFeatureValid(int configuration, int subunit_size)
{
    switch (configuration) {
    case twp::kConfigStripe:
    case twp::kConfigSpare: return subunit_size == 0;
    case twp::kConfigMirror: return subunit_size == 0 || subunit_size == 2;
    case twp::kConfigParity: return subunit_size == 0 || subunit_size >= 3;
    default: return false;
    }
}

// Counts taken: a stripe or single unit and a spare unit 1 to 16 drives; a
// mirror 2, and an even count of 4 or more a RAID 10 of two-drive mirrors;
// a parity unit 3 or more, or groups of `subunit_size` (3 or more drives,
// at least two groups) that stripe over parity subunits.
bool controller_base::isDriveCountValid(int configuration, int count, int subunit_size)
{
    if (count < 1 || count > 16) return false;
    switch (configuration) {
    case twp::kConfigStripe:
    case twp::kConfigSpare: return true;
    case twp::kConfigMirror: return subunit_size == 0 ? count == 2 || (count >= 4 && count % 2 == 0)
                                                      : count >= 4 && count % 2 == 0;
    case twp::kConfigParity:
        return subunit_size == 0 ? count >= 3 : count % subunit_size == 0 && count / subunit_size >= 2;
    default: return false;
    }
}

bool controller_base::isStripeSizeValid(int configuration, int stripe)
{
    const bool code = stripe >= twp::kStripeMin && stripe <= twp::kStripeMax;
    switch (configuration) {
    case twp::kConfigSpare: return stripe == 0;
    case twp::kConfigStripe: return stripe == 0 || code;
    default: return code;
    }
}

int controller_base::check_new_unit(const tw_id_list_type* drives, int configuration, int stripe, int subunit_size,
                                    TAG_TW_Unit_Config& out)
{
    if (check_list(drives, {twp::kApiTwoControllers, twp::kApiDuplicate}) != 0) return -1;
    if (!isFeatureValid(configuration, subunit_size)) {
        twp::refuse_api(twp::kApiConfigNotSupported);
        return -1;
    }
    if (!isDriveCountValid(configuration, drives->length, subunit_size)) {
        twp::refuse_api(twp::kApiDriveCount);
        return -1;
    }
    if (stripe != 0 && (stripe < twp::kStripeMin || stripe > twp::kStripeMax)) {
        twp::refuse_api(twp::kApiStripe);
        return -1;
    }
    if (!isStripeSizeValid(configuration, stripe)) {
        twp::refuse_api(twp::kApiStripeForConfig);
        return -1;
    }
    if (check_free(*this, drives, twp::kApiPortEmpty, twp::kApiOtherUnit) != 0) return -1;
    std::memset(&out, 0, sizeof out);
    out.configuration = uint8_t(configuration);
    out.stripe = uint8_t(stripe);
    out.subunit_size = uint8_t(subunit_size);
    out.count = uint8_t(drives->length);
    for (int i = 0; i < drives->length; ++i)
        out.ports[i] = drives->list[i].id[2];
    return 0;
}

int controller_base::unit_present(tw_id_type unit_id)
{
    if (unit_id.id[0] != TW_ID_KIND_UNIT || unit_id.id[3] != 1 || unit_id.id[4] >= twp::kMaxUnits) {
        twp::refuse_api(twp::kApiInvalidUnit);
        return -1;
    }
    tw_id_list_type units;
    if (get_unit_id_list(unit_id, &units) != 0) return -1;
    for (int i = 0; i < units.length; ++i)
        if (units.list[i].id[4] == unit_id.id[4]) return 0;
    return 1;
}

// ---------------------------------------------------------------------------
// Making and deleting.

int controller_base::send_create(tw_id_type id, TAG_TW_Unit_Config& record)
{
    return unit_command(id, twp::kOpCreateUnit, &record, sizeof record);
}

int controller_base::send_import(tw_id_type id, TAG_TW_Unit_Config& record)
{
    return unit_command(id, twp::kOpImportUnit, &record, sizeof record);
}

int controller_base::make_unit(tw_id_type controller_id, uint8_t opcode, TAG_TW_Unit_Config& record, int notify,
                               tw_id_type* unit_id)
{
    if (notify != 0 && notify != 1) {
        twp::refuse_api(21);
        return -1;
    }
    const int sent = locked(controller_id, [&] {
        return opcode == twp::kOpCreateUnit ? send_create(controller_id, record) : send_import(controller_id, record);
    });
    if (sent != 0) return -1;
    if (record.unit >= twp::kMaxUnits) {
        twp::refuse_api(twp::kApiNoUnitId);
        return -1;
    }
    if (unit_id) *unit_id = unit_id_of(controller_id, record.unit);
    // The unit stands on the controller; a kernel that could not be told
    // is the caller's to know (API code 70). A spare unit has no disk.
    if (notify && record.configuration != twp::kConfigSpare && tell_kernel(controller_id.id[1], record.unit, 1) != 0)
        return -1;
    return 0;
}

int controller_base::create_unit(const tw_id_list_type* drives, int configuration, int stripe, int subunit_size,
                                 int notify, tw_id_type* unit_id)
{
    TAG_TW_Unit_Config record;
    if (check_new_unit(drives, configuration, stripe, subunit_size, record) != 0) return -1;
    return make_unit(drives->list[0], twp::kOpCreateUnit, record, notify, unit_id);
}

int controller_base::delete_unit(tw_id_type unit_id, int notify, bool keep, uint32_t no_unit_code)
{
    if (notify != 0 && notify != 1) {
        twp::refuse_api(21);
        return -1;
    }
    const int present = unit_present(unit_id);
    if (present < 0) return -1;
    if (present > 0) {
        twp::refuse_api(no_unit_code);
        return -1;
    }
    // The kernel lets go of the disk first: a unit the kernel still uses
    // stays on the controller (API code 69).
    if (notify && tell_kernel(unit_id.id[1], unit_id.id[4], 0) != 0) return -1;
    TAG_TW_Unit_Config record {};
    record.unit = unit_id.id[4];
    record.flags = keep ? twp::kDeleteKeepConfig : 0;
    if (locked(unit_id, [&] { return unit_command(unit_id, twp::kOpDeleteUnit, &record, sizeof record); }) == 0)
        return 0;
    // The unit stays: the kernel gets its disk back (70 when it cannot).
    if (notify && unit_present(unit_id) == 0) tell_kernel(unit_id.id[1], unit_id.id[4], 1);
    return -1;
}

int controller_base::destroy_unit(tw_id_type unit_id, int notify)
{
    return delete_unit(unit_id, notify, false, twp::kApiNoUnitToDelete);
}

int controller_base::export_unit(tw_id_type unit_id, int notify) { return delete_unit(unit_id, notify, true, twp::kApiNoUnit); }

int controller_base::remove_unit(tw_id_type unit_id, int notify)
{
    tw_id_list_type members;
    const int present = unit_present(unit_id);
    if (present != 0) {
        if (present > 0) twp::refuse_api(twp::kApiNoUnit);
        return -1;
    }
    if (get_drive_id_list_from_unit_id(unit_id, &members) != 0) return -1;
    if (export_unit(unit_id, notify) != 0) return -1;
    for (int i = 0; i < members.length; ++i)
        if (members.list[i].id[2] != twp::kNoDrive && remove_drive(members.list[i]) != 0) return -1;
    return 0;
}

int controller_base::import_unit(const tw_id_list_type* drives, int notify, tw_id_type* unit_id)
{
    if (check_list(drives, {twp::kApiImportTwoControllers, twp::kApiImportDuplicate}) != 0) return -1;
    if (drives->length > max_import_drives()) {
        twp::refuse_api(twp::kApiImportMultiple);
        return -1;
    }
    if (check_free(*this, drives, twp::kApiImportPortEmpty, twp::kApiImportInUse) != 0) return -1;
    TAG_TW_Unit_Config record {};
    record.count = uint8_t(drives->length);
    for (int i = 0; i < drives->length; ++i)
        record.ports[i] = drives->list[i].id[2];
    return make_unit(drives->list[0], twp::kOpImportUnit, record, notify, unit_id);
}

int controller_base::split_mirror(tw_id_type, int, tw_id_list_type*)
{
    twp::refuse_api(twp::kApiNotSupported);
    return -1;
}

int controller_base::migrate_unit(tw_id_type, const tw_id_list_type*, int, int)
{
    twp::refuse_api(twp::kApiNotSupported);
    return -1;
}

int controller_base::rescan_controller(tw_id_type id, int notify, tw_id_list_type* units, tw_id_list_type* drives)
{
    clear_list(units);
    clear_list(drives);
    if (notify != 0 && notify != 1) {
        twp::refuse_api(21);
        return -1;
    }
    TAG_TW_Rescan_Report report {};
    if (locked(id, [&] { return unit_command(id, twp::kOpRescan, &report, sizeof report); }) != 0) return -1;
    // What the controller claims is bounded by the lists and the numbers an
    // identifier can carry.
    for (int i = 0; i < report.drive_count && i < 16; ++i)
        if (drives && report.drives[i] < twp::kMaxPorts) drives->list[drives->length++] = drive_id_of(id, report.drives[i]);
    int result = 0;
    for (int i = 0; i < report.unit_count && i < 16; ++i) {
        if (report.units[i] >= twp::kMaxUnits) continue;
        if (units) units->list[units->length++] = unit_id_of(id, report.units[i]);
        // Every new unit is offered to the kernel; one refused leaves the
        // result -1 with API code 70, the others told all the same.
        if (notify && report.configurations[i] != twp::kConfigSpare && tell_kernel(id.id[1], report.units[i], 1) != 0)
            result = -1;
    }
    return result;
}

// ---------------------------------------------------------------------------
// The 7000.

int controller_7000::unit_command(tw_id_type id, uint8_t opcode, void* record, uint32_t length)
{
    TAG_GP_Command command {};
    command.byte0 = twp::byte0Of(opcode, twp::kSglOffsetParam);
    command.size = twp::kSizeUnitCommand;
    command.byte6 = 1;
    // A delete names its unit in the unit bits as well.
    if (opcode == twp::kOpDeleteUnit) command.byte3 = uint8_t(static_cast<TAG_TW_Unit_Config*>(record)->unit & 0x0F);
    return send(id, command, record, length);
}

int controller_7000::ioctl_hotswap(tw_id_type port_id, int add)
{
    if (get_port_id(port_id) != 0) return -1;
    twp::Param p = table_[add ? twp::Item::DriveAdd : twp::Item::DriveRemove];
    p.table = uint16_t(p.table + port_id.id[2]);
    const uint8_t one = 1;
    return write_param(port_id, p, 0, &one);
}

int controller_7000::ioctl_create_unit(tw_id_type id, TAG_TW_Unit_Config& record)
{
    return unit_command(id, twp::kOpCreateUnit, &record, sizeof record);
}

int controller_7000::ioctl_delete_unit(tw_id_type unit_id, bool keep_config)
{
    TAG_TW_Unit_Config record {};
    record.unit = unit_id.id[4];
    record.flags = keep_config ? twp::kDeleteKeepConfig : 0;
    return unit_command(unit_id, twp::kOpDeleteUnit, &record, sizeof record);
}

int controller_7000::ioctl_import_unit(tw_id_type id, TAG_TW_Unit_Config& record)
{
    return unit_command(id, twp::kOpImportUnit, &record, sizeof record);
}

int controller_7000::create_jbod(tw_id_type id, TAG_TW_Unit_Config& record)
{
    record.configuration = twp::kConfigStripe;
    return ioctl_create_unit(id, record);
}

int controller_7000::create_raid_zero(tw_id_type id, TAG_TW_Unit_Config& record)
{
    record.configuration = twp::kConfigStripe;
    return ioctl_create_unit(id, record);
}

int controller_7000::create_twinstor(tw_id_type id, TAG_TW_Unit_Config& record)
{
    record.configuration = twp::kConfigMirror;
    return ioctl_create_unit(id, record);
}

int controller_7000::create_raid_five(tw_id_type id, TAG_TW_Unit_Config& record)
{
    record.configuration = twp::kConfigParity;
    return ioctl_create_unit(id, record);
}

// Mirrors of two drives, striped.
int controller_7000::create_raid_ten(tw_id_type id, TAG_TW_Unit_Config& record)
{
    record.configuration = twp::kConfigMirror;
    record.subunit_size = 2;
    return ioctl_create_unit(id, record);
}

int controller_7000::send_create(tw_id_type id, TAG_TW_Unit_Config& record)
{
    switch (record.configuration) {
    case twp::kConfigStripe: return record.count == 1 ? create_jbod(id, record) : create_raid_zero(id, record);
    case twp::kConfigMirror: return record.count == 2 ? create_twinstor(id, record) : create_raid_ten(id, record);
    case twp::kConfigParity: return create_raid_five(id, record);
    default: return ioctl_create_unit(id, record);  // the spare unit
    }
}

int controller_7000::send_import(tw_id_type id, TAG_TW_Unit_Config& record) { return ioctl_import_unit(id, record); }

// The 7000 takes no layout of its own, a mirror of two or a RAID 10 of four,
// and a parity unit of 3 to 16 drives.
bool controller_7000::isFeatureValid(int configuration, int subunit_size)
{
    return subunit_size == 0 && controller_base::isFeatureValid(configuration, 0);
}

bool controller_7000::isDriveCountValid(int configuration, int count, int subunit_size)
{
    if (configuration == twp::kConfigMirror) return count == 2 || count == 4;
    return controller_base::isDriveCountValid(configuration, count, subunit_size);
}

int controller_7000::unit_exists(tw_id_type unit_id)
{
    const int present = unit_present(unit_id);
    if (present > 0) twp::refuse_api(twp::kApiNoUnit);
    return present == 0 ? 0 : -1;
}

int controller_7000::drive_exists(tw_id_type drive_id)
{
    tw_id_list_type held;
    if (drive_id.id[2] >= twp::kMaxPorts) {
        twp::refuse_api(twp::kApiInvalidDrive);
        return -1;
    }
    if (get_drive_id_list(drive_id, &held) != 0) return -1;
    for (int i = 0; i < held.length; ++i)
        if (held.list[i].id[2] == drive_id.id[2]) return 0;
    twp::refuse_api(twp::kApiPortEmpty);
    return -1;
}

// ---------------------------------------------------------------------------
// The 9000.

int controller_9000::unit_command(tw_id_type id, uint8_t opcode, void* record, uint32_t length)
{
    int fd = -1;
    if (osil_instance.open_controller(id, &fd) != 0) return -1;
    TAG_GP_Command_Driver driver {};
    driver.control_code = twp::kControlFirmwarePassThrough;
    TAG_GP_Command_Full full {};
    full.command.byte0 = twp::byte0Of(opcode, twp::kSglOffsetParam);
    full.command.unit = uint8_t(get_sgl_size() + 2);
    full.command.sgl_entries = 1;
    const int result = osil_instance.send_9000_ioctl_to_controller(fd, &driver, &full, record, length);
    osil_instance.close(fd);
    // A status that ends the call with nothing copied answers nothing: the
    // command did not run.
    if (result == 0 && (driver.status == twp::kDriverStatusNoEvent || driver.status == twp::kDriverStatusEventOutOfRange)) {
        twp::refuse_api(twp::kApiNoUnitId);
        return -1;
    }
    return result;
}

int controller_9000::split_mirror(tw_id_type unit_id, int notify, tw_id_list_type* units)
{
    clear_list(units);
    if (notify != 0 && notify != 1) {
        twp::refuse_api(21);
        return -1;
    }
    const int present = unit_present(unit_id);
    if (present != 0) {
        if (present > 0) twp::refuse_api(twp::kApiNoUnit);
        return -1;
    }
    int configuration = 0;
    tw_id_list_type members;
    if (get_unit_configuration(unit_id, &configuration) != 0 || get_drive_id_list_from_unit_id(unit_id, &members) != 0)
        return -1;
    if (configuration != twp::kConfigMirror || members.length != 2) {
        twp::refuse_api(twp::kApiNotMirror);
        return -1;
    }
    TAG_TW_Unit_Config record {};
    record.unit = unit_id.id[4];
    if (locked(unit_id, [&] { return unit_command(unit_id, twp::kOpSplitMirror, &record, sizeof record); }) != 0)
        return -1;
    if (units) units->list[units->length++] = unit_id;
    if (record.count < 2 || record.unit >= twp::kMaxUnits) return 0;  // a degraded mirror gives one unit
    const tw_id_type second = unit_id_of(unit_id, record.unit);
    if (units) units->list[units->length++] = second;
    if (notify && tell_kernel(unit_id.id[1], record.unit, 1) != 0) return -1;
    return 0;
}

// A migration: the unit healthy (API code 51 otherwise), the configuration
// and the count of its present and added drives taken, the added drives
// free drives of its controller.
int controller_9000::migrate_unit(tw_id_type unit_id, const tw_id_list_type* drives, int configuration, int stripe)
{
    const int present = unit_present(unit_id);
    if (present != 0) {
        if (present > 0) twp::refuse_api(twp::kApiNoUnit);
        return -1;
    }
    const bool adding = drives && drives->length != 0;
    if (adding && check_list(drives, {twp::kApiTwoControllers, twp::kApiDuplicate}) != 0) return -1;
    if (adding && drives->list[0].id[1] != unit_id.id[1]) {
        twp::refuse_api(twp::kApiTwoControllers);
        return -1;
    }
    tw_id_list_type members;
    int mode = 0;
    if (get_drive_id_list_from_unit_id(unit_id, &members) != 0 || get_unit_mode(unit_id, &mode) != 0) return -1;
    if (mode != twp::kModeOk) {
        twp::refuse_api(51);
        return -1;
    }
    const int count = members.length + (adding ? drives->length : 0);
    if (configuration == twp::kConfigSpare || !isFeatureValid(configuration, 0)) {
        twp::refuse_api(twp::kApiConfigNotSupported);
        return -1;
    }
    if (!isDriveCountValid(configuration, count, 0)) {
        twp::refuse_api(twp::kApiDriveCount);
        return -1;
    }
    if (stripe != 0 && (stripe < twp::kStripeMin || stripe > twp::kStripeMax)) {
        twp::refuse_api(twp::kApiStripe);
        return -1;
    }
    if (!isStripeSizeValid(configuration, stripe)) {
        twp::refuse_api(twp::kApiStripeForConfig);
        return -1;
    }
    if (adding && check_free(*this, drives, twp::kApiPortEmpty, twp::kApiOtherUnit) != 0) return -1;
    TAG_TW_Unit_Config record {};
    record.unit = unit_id.id[4];
    record.configuration = uint8_t(configuration);
    record.stripe = uint8_t(stripe);
    for (int i = 0; adding && i < drives->length; ++i)
        record.ports[record.count++] = drives->list[i].id[2];
    return locked(unit_id, [&] { return unit_command(unit_id, twp::kOpMigrateUnit, &record, sizeof record); });
}

// ---------------------------------------------------------------------------
// The controller interface layer and the flat functions.

namespace {

template <class Call>
int by_family(tw_id_type id, Call call)
{
    switch (osil_instance.controllers_architecture(id)) {
    case 3: return call(static_cast<controller_base&>(c7000));
    case 4: return call(static_cast<controller_base&>(c9000));
    default: return -1;
    }
}

// A unit identifier the unit commands take: a unit's.
template <class Call>
int on_unit(tw_id_type unit_id, Call call)
{
    if (unit_id.id[0] != TW_ID_KIND_UNIT) {
        twp::refuse_api(twp::kApiInvalidUnit);
        return -1;
    }
    return by_family(unit_id, call);
}

// A list of drives: the family of its first drive's controller.
template <class Call>
int on_drives(const tw_id_list_type* drives, Call call)
{
    if (check_list(drives, {twp::kApiTwoControllers, twp::kApiDuplicate}) != 0) return -1;
    return by_family(drives->list[0], call);
}

} // namespace

int cil::create_unit(const tw_id_list_type* drives, int configuration, int stripe, int subunit_size, int notify,
                     tw_id_type* unit_id)
{
    return on_drives(drives, [&](controller_base& c) {
        return c.create_unit(drives, configuration, stripe, subunit_size, notify, unit_id);
    });
}

int cil::destroy_unit(tw_id_type unit_id, int notify)
{
    return on_unit(unit_id, [&](controller_base& c) { return c.destroy_unit(unit_id, notify); });
}

int cil::export_unit(tw_id_type unit_id, int notify)
{
    return on_unit(unit_id, [&](controller_base& c) { return c.export_unit(unit_id, notify); });
}

int cil::import_unit(const tw_id_list_type* drives, int notify, tw_id_type* unit_id)
{
    if (check_list(drives, {twp::kApiImportTwoControllers, twp::kApiImportDuplicate}) != 0) return -1;
    return by_family(drives->list[0], [&](controller_base& c) { return c.import_unit(drives, notify, unit_id); });
}

int cil::remove_unit(tw_id_type unit_id, int notify)
{
    return on_unit(unit_id, [&](controller_base& c) { return c.remove_unit(unit_id, notify); });
}

int cil::split_mirror(tw_id_type unit_id, int notify, tw_id_list_type* units)
{
    return on_unit(unit_id, [&](controller_base& c) { return c.split_mirror(unit_id, notify, units); });
}

int cil::migrate_unit(tw_id_type unit_id, const tw_id_list_type* drives, int configuration, int stripe)
{
    return on_unit(unit_id, [&](controller_base& c) { return c.migrate_unit(unit_id, drives, configuration, stripe); });
}

int cil::rescan_controller(tw_id_type id, int notify, tw_id_list_type* units, tw_id_list_type* drives)
{
    if (id.id[0] != TW_ID_KIND_CONTROLLER) {
        twp::refuse_api(8);
        return -1;
    }
    return by_family(id, [&](controller_base& c) { return c.rescan_controller(id, notify, units, drives); });
}

int tw_create_unit(const tw_id_list_type* drive_id_list, int configuration, int stripe_size, int notify_os,
                   tw_id_type* unit_id)
{
    return controller.create_unit(drive_id_list, configuration, stripe_size, 0, notify_os, unit_id);
}

int tw_create_unit_with_layout(const tw_id_list_type* drive_id_list, int configuration, int stripe_size,
                               int subunit_size, int notify_os, tw_id_type* unit_id)
{
    return controller.create_unit(drive_id_list, configuration, stripe_size, subunit_size, notify_os, unit_id);
}

int tw_destroy_unit(tw_id_type unit_id, int notify_os) { return controller.destroy_unit(unit_id, notify_os); }

int tw_export_unit(tw_id_type unit_id, int notify_os) { return controller.export_unit(unit_id, notify_os); }

int tw_import_unit(const tw_id_list_type* drive_id_list, int notify_os, tw_id_type* unit_id)
{
    return controller.import_unit(drive_id_list, notify_os, unit_id);
}

int tw_remove_unit(tw_id_type unit_id, int notify_os) { return controller.remove_unit(unit_id, notify_os); }

int tw_migrate_unit(tw_id_type unit_id, const tw_id_list_type* drive_id_list, int configuration, int stripe_size)
{
    return controller.migrate_unit(unit_id, drive_id_list, configuration, stripe_size);
}

int tw_split_mirror(tw_id_type unit_id, int notify_os, tw_id_list_type* unit_id_list)
{
    return controller.split_mirror(unit_id, notify_os, unit_id_list);
}

int tw_rescan_controller(tw_id_type controller_id, int notify_os, tw_id_list_type* unit_id_list,
                         tw_id_list_type* drive_id_list)
{
    return controller.rescan_controller(controller_id, notify_os, unit_id_list, drive_id_list);
}

// The drive and port read family, shared by both families: the port's
// items sit at the port table plus the port.
#include <cstring>

#include "tw_api/tw_api_private.h"

using twp::clear_list;
using twp::drive_id_of;

int controller_base::read_drive_item(tw_id_type drive_id, twp::Item item, void* buffer, size_t size)
{
    const int port = drive_id.id[2];
    int ports = 0;
    if (port >= twp::kMaxPorts) {
        twp::refuse_api(twp::kApiInvalidDrive);
        return -1;
    }
    if (!supported(item) || !supported(twp::Item::DriveList)) return -1;
    if (get_number_of_ports(drive_id, &ports) != 0) return -1;
    if (port >= ports) {
        twp::refuse_api(twp::kApiInvalidDrive);
        return -1;
    }
    uint8_t held[twp::kMaxPorts];
    const twp::Param& list = table_[twp::Item::DriveList];
    if (list.size != sizeof held || read_param(drive_id, list, 0, held) != 0) return -1;
    if (held[port] != 1) {
        twp::refuse_api(twp::kApiPortEmpty);
        return -1;
    }
    twp::Param p = table_[item];
    if (p.size > size) return -1;
    p.table = uint16_t(p.table + port);
    return read_param(drive_id, p, 0, buffer);
}

int controller_base::get_drive_text(tw_id_type drive_id, twp::Item item, char* out, size_t outSize)
{
    char text[256] = {};
    if (read_drive_item(drive_id, item, text, sizeof text - 1) != 0) return -1;
    strip_spaces(text);
    copy_text(out, outSize, text);
    return 0;
}

int controller_base::get_drive_id_list(tw_id_type id, tw_id_list_type* list)
{
    uint8_t held[twp::kMaxPorts];
    int ports = 0;
    if (!supported(twp::Item::DriveList)) return -1;
    if (get_number_of_ports(id, &ports) != 0) return -1;
    const twp::Param& p = table_[twp::Item::DriveList];
    if (p.size != sizeof held || read_param(id, p, 0, held) != 0) return -1;
    clear_list(list);
    for (int port = 0; port < ports && port < twp::kMaxPorts; ++port)
        if (held[port] == 1) list->list[list->length++] = drive_id_of(id, port);
    return 0;
}

// One identifier per member slot below the node, in the tree's order; a
// missing member is drive 255.
int controller_base::get_drive_id_list_from_unit_id(tw_id_type unit_id, tw_id_list_type* list)
{
    unit_tree tree;
    int n = 0;
    if (find_node(unit_id, tree, &n) != 0) return -1;
    clear_list(list);
    // The subtree of node n is the run of nodes after it that lie deeper.
    for (int i = n; i < tree.count && list->length < TW_MAX_CONTROLLERS; ++i) {
        if (i > n && tree.depth[i] <= tree.depth[n]) break;
        if (tree.node[i].children != 0) continue;
        const uint8_t d = tree.node[i].drive;
        if (d != twp::kNoDrive && d >= twp::kMaxPorts) {
            twp::refuse_api(twp::kApiNoDriveList);
            return -1;
        }
        list->list[list->length++] = drive_id_of(unit_id, d);
    }
    return 0;
}

int controller_base::get_drive_status(tw_id_type drive_id, int* status)
{
    uint8_t b = 0;
    if (read_drive_item(drive_id, twp::Item::DriveStatus, &b, sizeof b) != 0) return -1;
    *status = b;
    return 0;
}

int controller_base::get_drive_capacity(tw_id_type drive_id, uint64_t* sectors)
{
    uint8_t b[8] = {};
    if (read_drive_item(drive_id, twp::Item::DriveCapacity, b, sizeof b) != 0) return -1;
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i)
        v = (v << 8) | b[i];
    *sectors = v;
    return 0;
}

int controller_base::get_drive_model(tw_id_type drive_id, char* model)
{
    return get_drive_text(drive_id, twp::Item::DriveModel, model, TW_MODEL_SIZE);
}

int controller_base::get_drive_serial_number(tw_id_type drive_id, char* serial_number)
{
    return get_drive_text(drive_id, twp::Item::DriveSerial, serial_number, TW_SERIAL_NUMBER_SIZE);
}

int controller_base::get_drive_firmware_version(tw_id_type drive_id, char* version)
{
    return get_drive_text(drive_id, twp::Item::DriveFirmware, version, TW_VERSION_SIZE);
}

// The port of an identifier lies below the number of ports.
int controller_base::get_port_id(tw_id_type id)
{
    int ports = 0;
    if (id.id[2] >= twp::kMaxPorts) {
        twp::refuse_api(twp::kApiInvalidDrive);
        return -1;
    }
    if (get_number_of_ports(id, &ports) != 0) return -1;
    if (id.id[2] >= ports) {
        twp::refuse_api(twp::kApiInvalidDrive);
        return -1;
    }
    return 0;
}

// A port's identifier carries the same bytes as its drive's.
int controller_base::get_drive_port_id(tw_id_type drive_id, tw_id_type* port_id)
{
    if (get_port_id(drive_id) != 0) return -1;
    *port_id = drive_id_of(drive_id, drive_id.id[2]);
    return 0;
}

int controller_base::get_port_id_list(tw_id_type id, tw_id_list_type* list)
{
    int ports = 0;
    if (get_number_of_ports(id, &ports) != 0) return -1;
    clear_list(list);
    for (int port = 0; port < ports && port < twp::kMaxPorts; ++port)
        list->list[list->length++] = drive_id_of(id, port);
    return 0;
}

namespace {

// Whether the unit's data outlives the slot `leaf`: its parent is a mirror
// with another healthy member, or a parity node with all others healthy.
bool survives(const unit_tree& tree, int leaf)
{
    int parent = -1;
    for (int i = 0; i < tree.count && parent < 0; ++i)
        for (int c = tree.first_child[i]; c >= 0; c = tree.next_peer[c])
            if (c == leaf) parent = i;
    if (parent < 0) return false;
    const int config = tree.node[parent].configuration;
    int healthy = 0, others = 0;
    for (int c = tree.first_child[parent]; c >= 0; c = tree.next_peer[c]) {
        if (c == leaf) continue;
        ++others;
        const bool missing = tree.node[c].children == 0 && tree.node[c].drive == twp::kNoDrive;
        if (!missing && tree.node[c].mode == twp::kModeOk) ++healthy;
    }
    if (config == 6) return healthy > 0;
    if (config == 5) return others > 0 && healthy == others;
    return false;
}

} // namespace

int controller_base::remove_drive(tw_id_type drive_id)
{
    uint8_t status = 0;
    if (read_drive_item(drive_id, twp::Item::DriveStatus, &status, sizeof status) != 0) return -1;
    tw_id_type unit_id;
    if (get_unit_id_from_drive_id(drive_id, &unit_id) == 0) {
        unit_tree tree;
        int root = 0;
        if (find_node(unit_id, tree, &root) != 0) return -1;
        if (tree.node[root].mode == twp::kModeVerifying) {
            twp::refuse_api(56);
            return -1;
        }
        int leaf = -1;
        for (int i = 0; i < tree.count; ++i)
            if (tree.node[i].children == 0 && tree.node[i].drive == drive_id.id[2]) leaf = i;
        if (leaf < 0 || !survives(tree, leaf)) {
            twp::refuse_api(48);
            return -1;
        }
    } else {
        // A drive in no unit goes freely; any other failure stands.
        tw_api_error_type e;
        tw_get_error_information(&e);
        if (e.api_error_code != 34) return -1;
    }
    tw_api_clear_error();
    twp::Param p = table_[twp::Item::DriveRemove];
    if (!supported(twp::Item::DriveRemove) || p.size != 1) return -1;
    p.table = uint16_t(p.table + drive_id.id[2]);
    const uint8_t one = 1;
    return locked(drive_id, [&] { return write_param(drive_id, p, 0, &one); });
}

int controller_base::add_drive(tw_id_type port_id)
{
    tw_id_list_type held;
    if (get_port_id(port_id) != 0 || get_drive_id_list(port_id, &held) != 0) return -1;
    for (int i = 0; i < held.length; ++i)
        if (held.list[i].id[2] == port_id.id[2]) {
            twp::refuse_api(23);
            return -1;
        }
    twp::Param p = table_[twp::Item::DriveAdd];
    if (!supported(twp::Item::DriveAdd) || p.size != 1) return -1;
    p.table = uint16_t(p.table + port_id.id[2]);
    const uint8_t one = 1;
    return locked(port_id, [&] { return write_param(port_id, p, 0, &one); });
}

// controller_7000: the commands of the 7000 family, sent to the "3w-xxxx"
// driver through nodes "/dev/twe%d". Each command opens the node and closes
// it on every path.
#pragma once

#include <cstdint>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_private.h"

class controller_7000 : public controller_base {
public:
    controller_7000() : controller_base(twp::kTable7000) {}

    // A parameter of `size` bytes (at most 255) of table and parameter, of
    // unit `unit` (0 for the controller's own), into or from `buffer`.
    int ioctl_get_param(tw_id_type id, int table, int parameter, int size, void* buffer, int unit);
    int ioctl_set_param(tw_id_type id, int table, int parameter, int size, const void* value, int unit);
    // Scans the port of a port identifier (byte 2): API code 24 when it is
    // not below the number of ports.
    int ioctl_portscan(tw_id_type id);
    // The controller's diagnostic log: as much as fits in *length, which
    // then holds the count.
    int ioctl_get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length);
    // The one background task rate, 1 to 5, serving both rebuild and verify.
    int get_background_task_rate(tw_id_type id, int* rate);
    int set_background_task_rate(tw_id_type id, int rate);

    // The oldest AEN, taken off the controller's queue; code 0 when it is
    // empty. First and next events are both the next AEN; the queue is read
    // once, so last and previous give API code 2.
    int get_aen(tw_id_type id, tw_event_info_type* event);
    int get_first_event(tw_id_type id, tw_event_info_type* event) override { return get_aen(id, event); }
    int get_next_event(tw_id_type id, tw_event_info_type* event) override { return get_aen(id, event); }

    // The unit's status: the low 7 bits of its byte of the status table.
    int get_7000_unit_status(tw_id_type unit_id, int* status);
    int get_unit_status(tw_id_type unit_id, int* status) override;
    // The unit's descriptor tree, `size` bytes.
    int get_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size);

    // From the driver's text "/proc/scsi/3w-xxxx/<host>".
    int get_driver_version(tw_id_type id, char* version) override;
    int get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length) override;
    int get_background_rebuild_rate(tw_id_type id, int* rate) override;
    int set_background_rebuild_rate(tw_id_type id, int rate) override;
    int get_background_verify_rate(tw_id_type id, int* rate) override;
    int set_background_verify_rate(tw_id_type id, int rate) override;

protected:
    int read_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size) override;
    int read_param(tw_id_type id, const twp::Param& p, int unit, void* buffer) override;
    int write_param(tw_id_type id, const twp::Param& p, int unit, const void* value) override;

private:
    // Sends a firmware command with `length` bytes of data through the
    // controller's node, opened and closed here.
    int send(tw_id_type id, TAG_GP_Command& command, void* data, uint32_t length);
    int param_command(tw_id_type id, bool set, int table, int parameter, int size, void* buffer, int unit);

    // --- Unit configuration (tw_api_unitops.cpp).
public:
    // The controller lets go of the port's drive (add 0) or finds the drive
    // in its bay (add 1).
    int ioctl_hotswap(tw_id_type port_id, int add);
    int ioctl_create_unit(tw_id_type id, TAG_TW_Unit_Config& record);
    int ioctl_delete_unit(tw_id_type unit_id, bool keep_config);
    int ioctl_import_unit(tw_id_type id, TAG_TW_Unit_Config& record);
    // The unit builders, chosen by configuration and drive count: 11 with
    // one drive the single unit, 11 with more the stripe, 6 with two the
    // mirror, 6 with four the RAID 10, 5 the parity unit.
    int create_jbod(tw_id_type id, TAG_TW_Unit_Config& record);
    int create_raid_zero(tw_id_type id, TAG_TW_Unit_Config& record);
    int create_twinstor(tw_id_type id, TAG_TW_Unit_Config& record);
    int create_raid_five(tw_id_type id, TAG_TW_Unit_Config& record);
    int create_raid_ten(tw_id_type id, TAG_TW_Unit_Config& record);
    int unit_exists(tw_id_type unit_id);
    // The controller holds a drive on the drive identifier's port.
    int drive_exists(tw_id_type drive_id);

protected:
    int unit_command(tw_id_type id, uint8_t opcode, void* record, uint32_t length) override;
    bool isFeatureValid(int configuration, int subunit_size) override;
    bool isDriveCountValid(int configuration, int count, int subunit_size) override;
    // The builder the configuration and drive count choose.
    int send_create(tw_id_type id, TAG_TW_Unit_Config& record) override;
    int send_import(tw_id_type id, TAG_TW_Unit_Config& record) override;
    // One drive: the unit its configuration names, formed from every drive of it.
    int max_import_drives() override { return 1; }

    // ---- Unit tasks and the ATA side (tw_api_tasks.cpp, tw_api_ata.cpp).
public:
    // Starts the rebuild of unit `unit` onto the drives replaced into it.
    int ioctl_rebuild_unit(tw_id_type id, int unit);
    // The drive of port `port` takes the unit's first missing member slot.
    int ioctl_replace_drive(tw_id_type id, int unit, int port);
    // Sends a firmware image in chunks of twp::kFirmwareChunkSize7000; the
    // controller takes it when the last chunk came.
    int firmware_download(tw_id_type id, const unsigned char* image, uint32_t size);
    // Each drive replaced into the unit, then the rebuild.
    int rebuild_unit(tw_id_type unit_id, const tw_id_list_type* drives) override;

protected:
    int send_unit_task(tw_id_type unit_id, int unit, uint8_t action, uint32_t ports) override;
    int send_ata(tw_id_type drive_id, uint8_t (&registers)[12], void* data, uint32_t length) override;
};

extern controller_7000 c7000;

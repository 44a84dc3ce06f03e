// controller_9000: the commands of the 9000 family, sent to the "3w-9xxx"
// driver through nodes "/dev/twa%d". Each command opens the node and closes
// it on every path.
#pragma once

#include <cstdint>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_private.h"

class controller_9000 : public controller_base {
public:
    controller_9000() : controller_base(twp::kTable9000) {}

    // A parameter of `size` bytes of table and parameter into `buffer`,
    // which holds `bufferLength` bytes.
    int get_parameter(tw_id_type id, void* buffer, int bufferLength, int table, int parameter, int size);
    int set_parameter(tw_id_type id, int table, int parameter, int size, const void* value);
    // The size of one scatter list entry in 32-bit words.
    int get_sgl_size();
    // The controller's lock, taken with up to 10 requests, and given back.
    int aquire_read_lock(tw_id_type id);
    int release_read_lock(tw_id_type id);
    int aquire_write_lock(tw_id_type id);
    int release_write_lock(tw_id_type id);

    // Depth 1: the unit's byte of its table; other depths 127.
    int get_unit_status(tw_id_type unit_id, int* status) override;
    // The unit exists when the list of units names it.
    int unit_exists(tw_id_type unit_id);
    // The unit's descriptor tree, `size` bytes.
    int get_unit_descriptors(tw_id_type id, int unit, uint8_t* buffer, size_t size);
    // The node of the identifier's tree, walked down with the stack.
    int find_a_unit_descriptor(tw_id_type unit_id, TAG_TW_Unit_Node* node);
    // The unit of depth 1 holding the drive.
    int find_drives_unit_id(tw_id_type drive_id, tw_id_type* unit_id);

    // The driver's event queue by sequence number. The caller's record is
    // zeroed first: an end of the queue reads as an event of code 0.
    int get_9000_first_event(tw_id_type id, tw_event_info_type* event);
    int get_9000_last_event(tw_id_type id, tw_event_info_type* event);
    int get_9000_next_event(tw_id_type id, tw_event_info_type* event);
    int get_9000_previous_event(tw_id_type id, tw_event_info_type* event);
    int get_first_event(tw_id_type id, tw_event_info_type* event) override { return get_9000_first_event(id, event); }
    int get_last_event(tw_id_type id, tw_event_info_type* event) override { return get_9000_last_event(id, event); }
    int get_next_event(tw_id_type id, tw_event_info_type* event) override { return get_9000_next_event(id, event); }
    int get_previous_event(tw_id_type id, tw_event_info_type* event) override
    {
        return get_9000_previous_event(id, event);
    }

    // By the driver's version request.
    int get_driver_version(tw_id_type id, char* version) override;

protected:
    int begin_change(tw_id_type id) override { return aquire_write_lock(id); }
    void end_change(tw_id_type id) override { release_write_lock(id); }
    int read_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size) override;
    int read_param(tw_id_type id, const twp::Param& p, int unit, void* buffer) override;
    int write_param(tw_id_type id, const twp::Param& p, int unit, const void* value) override;

private:
    int event_command(tw_id_type id, uint32_t control_code, tw_event_info_type* event);
    int param_command(tw_id_type id, bool set, int table, int parameter, int size, void* buffer, int bufferLength);
    int lock(tw_id_type id, uint32_t control_code, int tries);

    // --- Unit configuration (tw_api_unitops.cpp).
public:
    // A mirror of two drives becomes two single units: the first keeps the
    // unit's number, `units` names both.
    int split_mirror(tw_id_type unit_id, int notify, tw_id_list_type* units) override;
    int migrate_unit(tw_id_type unit_id, const tw_id_list_type* drives, int configuration, int stripe) override;

protected:
    int unit_command(tw_id_type id, uint8_t opcode, void* record, uint32_t length) override;

    // ---- Unit tasks and the ATA side (tw_api_tasks.cpp, tw_api_ata.cpp).
protected:
    int send_unit_task(tw_id_type unit_id, int unit, uint8_t action, uint32_t ports) override;
    int send_ata(tw_id_type drive_id, uint8_t (&registers)[12], void* data, uint32_t length) override;
};

extern controller_9000 c9000;

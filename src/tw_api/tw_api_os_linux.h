// linux_os: the controllers as the Linux drivers show them. It makes the
// driver nodes, finds which SCSI host each controller is, sends the two
// families' driver calls and tells the kernel of units that came or went.
// Every contact with the system goes through the platform seam.
#pragma once

#include <cstdint>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_private.h"

class linux_os {
public:
    static constexpr int kSlots = 16;
    static constexpr int kSlotSize = 32;

    // Clears the slots, then sets up the nodes of both drivers: "twe" with
    // "3w-xxxx", then "twa" with "3w-9xxx". No controller found: API code 1.
    linux_os();

    // One controller identifier per non-empty slot, in slot order; the
    // unused entries are 0xFF bytes. Always 0.
    int os_get_controller_id_list(tw_id_list_type* list);
    // Opens the controller's node for reading and writing.
    int open_controller(tw_id_type id, int* fd);
    // 3 for the 7000 family, 4 for the 9000 family, after checking the
    // controller's compatibility number; -1 otherwise.
    int controllers_architecture(tw_id_type id);
    int send_7000_ioctl_to_controller(int fd, TAG_GP_Command* command, void* data, uint32_t length,
                                      unsigned long code);
    int send_9000_ioctl_to_controller(int fd, TAG_GP_Command_Driver* driver, TAG_GP_Command_Full* firmware,
                                      void* data, uint32_t length);
    // Tells the kernel that unit `unit` of the controller came (add 1) or
    // went (add 0) through "/proc/scsi/scsi".
    int scan_bus_for_units(int controller, int unit, int add);
    int close(int fd);

    int found_controllers() const { return found_controllers_; }
    // The node of a slot ("" when empty, or for a number out of range).
    const char* node(int controller) const;

private:
    int setup_nodes(const char* prefix, const char* driver);
    bool make_node(const char* path, unsigned major, unsigned minor);
    // present: whether "/proc/scsi/scsi" lists host `host`, target `id`.
    int wasOSNotified(int host, int id, bool* present);
    // The slot of an identifier's controller, or -1 (API code 8 set).
    int slot_of(tw_id_type id);

    char nodes_[kSlots][kSlotSize];
    int found_controllers_ = 0;
};

// osil: the operating system's side of the API, as the controller classes
// see it. Each member hands the call to the Linux form, `os`.
#pragma once

#include <cstdint>

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_os_linux.h"

class osil {
public:
    int osil_get_controller_id_list(tw_id_list_type* list);
    int open_controller(tw_id_type id, int* fd);
    int controllers_architecture(tw_id_type id);
    int send_7000_ioctl_to_controller(int fd, TAG_GP_Command* command, void* data, uint32_t length,
                                      unsigned long code);
    int send_9000_ioctl_to_controller(int fd, TAG_GP_Command_Driver* driver, TAG_GP_Command_Full* firmware,
                                      void* data, uint32_t length);
    int scan_bus_for_units(int controller, int unit, int add);
    int close(int fd);
};

extern linux_os os;
extern osil osil_instance;

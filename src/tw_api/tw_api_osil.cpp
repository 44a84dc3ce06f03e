#include "tw_api/tw_api_osil.h"

int osil::osil_get_controller_id_list(tw_id_list_type* list) { return os.os_get_controller_id_list(list); }
int osil::open_controller(tw_id_type id, int* fd) { return os.open_controller(id, fd); }
int osil::controllers_architecture(tw_id_type id) { return os.controllers_architecture(id); }
int osil::send_7000_ioctl_to_controller(int fd, TAG_GP_Command* command, void* data, uint32_t length,
                                        unsigned long code)
{
    return os.send_7000_ioctl_to_controller(fd, command, data, length, code);
}
int osil::send_9000_ioctl_to_controller(int fd, TAG_GP_Command_Driver* driver, TAG_GP_Command_Full* firmware,
                                        void* data, uint32_t length)
{
    return os.send_9000_ioctl_to_controller(fd, driver, firmware, data, length);
}
int osil::scan_bus_for_units(int controller, int unit, int add) { return os.scan_bus_for_units(controller, unit, add); }
int osil::close(int fd) { return os.close(fd); }

#include "hotswap/libcharon.h"

#include <cerrno>
#include <fcntl.h>

#include "platform/platform.h"

namespace {

// One request on a descriptor of its own. `record` is null for the requests
// that carry none; they give 0 when the driver took them.
int charonRequest(unsigned long request, CHARON_ACTIVATE_IOCTL_STRUCT* record)
{
    const int fd = plat::open(CHARON_DEVICE, O_RDONLY);
    if (fd < 0) return -1;
    const int rc = plat::ioctl(fd, request, record);
    plat::close(fd);
    if (rc < 0) return -E2BIG;
    return record ? record->iReturnCode : 0;
}

int onDevice(unsigned long request, int interface, unsigned int device)
{
    CHARON_ACTIVATE_IOCTL_STRUCT record{};
    record.uInterface = static_cast<unsigned int>(interface);
    record.uDevice = device;
    record.iReturnCode = 0;
    return charonRequest(request, &record);
}

} // namespace

int charon_activate_if(int interface) { return onDevice(CHARON_IOCTL_ACTIVATE_IF, interface, CHARON_ALL_DEVICES); }

int charon_deactivate_if(int interface) { return onDevice(CHARON_IOCTL_DEACTIVATE_IF, interface, CHARON_ALL_DEVICES); }

int charon_activate_dev(int interface, int device)
{
    return onDevice(CHARON_IOCTL_ACTIVATE_DEV, interface, static_cast<unsigned int>(device));
}

int charon_deactivate_dev(int interface, int device)
{
    return onDevice(CHARON_IOCTL_DEACTIVATE_DEV, interface, static_cast<unsigned int>(device));
}

int charon_debug_on() { return charonRequest(CHARON_IOCTL_DEBUG_ON, nullptr); }

int charon_debug_off() { return charonRequest(CHARON_IOCTL_DEBUG_OFF, nullptr); }

int charon_get_debuglevel() { return 0; }

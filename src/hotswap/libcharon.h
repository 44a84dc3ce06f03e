// libcharon: the calls of the hot-swap driver "/dev/charon", which detaches
// an IDE interface (or one device on it) from the kernel and attaches it
// again. Each call opens the node read-only for itself alone, sends one
// request and closes it.
//
// Results: the driver's iReturnCode; -1 when the node cannot be opened;
// -E2BIG when the request itself fails. The driver's codes are passed on as
// they are: any int. A deactivation giving -3 found the interface already down.
#pragma once

#include <cstddef>

// The record of the activate and deactivate requests.
typedef struct {
    unsigned int uInterface;
    unsigned int uDevice;
    int iReturnCode;
} CHARON_ACTIVATE_IOCTL_STRUCT;
static_assert(sizeof(CHARON_ACTIVATE_IOCTL_STRUCT) == 12);
static_assert(offsetof(CHARON_ACTIVATE_IOCTL_STRUCT, uInterface) == 0);
static_assert(offsetof(CHARON_ACTIVATE_IOCTL_STRUCT, uDevice) == 4);
static_assert(offsetof(CHARON_ACTIVATE_IOCTL_STRUCT, iReturnCode) == 8);

typedef struct {
    unsigned int uMajor;
    unsigned int uMinor;
    char caName[255];
} CHARON_INFO_STRUCT;
static_assert(sizeof(CHARON_INFO_STRUCT) == 264);
static_assert(offsetof(CHARON_INFO_STRUCT, uMajor) == 0);
static_assert(offsetof(CHARON_INFO_STRUCT, uMinor) == 4);
static_assert(offsetof(CHARON_INFO_STRUCT, caName) == 8);

#define CHARON_DEVICE "/dev/charon"

// The driver's requests.
#define CHARON_IOCTL_DEBUG_ON 21
#define CHARON_IOCTL_DEBUG_OFF 22
#define CHARON_IOCTL_ACTIVATE_IF 160
#define CHARON_IOCTL_DEACTIVATE_IF 161
#define CHARON_IOCTL_ACTIVATE_DEV 208
#define CHARON_IOCTL_DEACTIVATE_DEV 209

// uDevice of a request on a whole interface. 28 bits, not 32: the driver
// compares against this value as it stands.
#define CHARON_ALL_DEVICES 0xFFFFFFFu

// Interfaces are numbered as the kernel numbers the IDE channels
// (0 is host0/bus0, 1 is host0/bus1); devices as their targets.
int charon_activate_if(int interface);
int charon_deactivate_if(int interface);
int charon_activate_dev(int interface, int device);
int charon_deactivate_dev(int interface, int device);
int charon_debug_on();
int charon_debug_off();
// Always 0; the driver is not asked.
int charon_get_debuglevel();

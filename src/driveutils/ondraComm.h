// The module's small network side: the unit's system id on disk, a
// well-known unix socket from which the module sends status messages to local
// clients, and a relay that lets the management GUIs reach the manager (a GUI
// connects to a well-known TCP port; the relay connects to the manager on the
// loopback address and copies bytes both ways). Only static members: one of
// each thing in the program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <pthread.h>
#include <sys/select.h>

#include "tavutils/tavstring.h"

enum TavOndraMsgType {
    TAV_ONDRA_MSG_INVALID = 0,
    TAV_ONDRA_MSG_DEVICE_STATUS = 1,
    TAV_ONDRA_MSG_GUI_LOGIN = 2,
    TAV_ONDRA_MSG_MAX = 3,
};

enum TavOndraDeviceStatus {
    TAV_ONDRA_DEVICE_STATUS_INVALID = 0,
    TAV_ONDRA_DEVICE_STATUS_OK = 1,
    TAV_ONDRA_DEVICE_STATUS_FAILING = 2,
    TAV_ONDRA_DEVICE_STATUS_DEGRADED = 3,
    TAV_ONDRA_DEVICE_STATUS_FAILED = 4,
    TAV_ONDRA_DEVICE_STATUS_REMOVED = 5,
    TAV_ONDRA_DEVICE_STATUS_MAX = 6,
};

// The messages of the unix socket, as they go on the wire: host byte order
// (little-endian) through the tav_htorn* points, padding zero. The 32-bit
// machine aligns a 64-bit field on 4 bytes, so a message is 412 bytes, not 416.
#pragma pack(push, 4)
struct TavOndraMsgHeader {
    uint8_t id;  // TavOndraMsgType
    uint8_t pad[3];
    uint32_t length;
    uint64_t sequence;
};
static_assert(sizeof(TavOndraMsgHeader) == 16);
static_assert(offsetof(TavOndraMsgHeader, id) == 0);
static_assert(offsetof(TavOndraMsgHeader, length) == 4);
static_assert(offsetof(TavOndraMsgHeader, sequence) == 8);

struct TavOndraDevice {
    uint32_t major;
    uint32_t minor;
    uint8_t status;  // TavOndraDeviceStatus
    char description[256];
    char devicePath[128];
    uint8_t pad[3];
};
static_assert(sizeof(TavOndraDevice) == 396);
static_assert(offsetof(TavOndraDevice, major) == 0);
static_assert(offsetof(TavOndraDevice, minor) == 4);
static_assert(offsetof(TavOndraDevice, status) == 8);
static_assert(offsetof(TavOndraDevice, description) == 9);
static_assert(offsetof(TavOndraDevice, devicePath) == 265);
static_assert(offsetof(TavOndraDevice, pad) == 393);

struct TavOndraDeviceMsg {
    TavOndraDevice device;
};
static_assert(sizeof(TavOndraDeviceMsg) == 396);

struct TavOndraTemplateMsg {
    int32_t temp;
};
static_assert(sizeof(TavOndraTemplateMsg) == 4);

struct TavOndraMsg {
    TavOndraMsgHeader header;
    union {
        TavOndraDeviceMsg device;
        TavOndraTemplateMsg templ;
        uint8_t raw[396];
    } body;
};
#pragma pack(pop)
static_assert(sizeof(TavOndraMsg) == 412);
static_assert(alignof(TavOndraMsg) == 4);
static_assert(offsetof(TavOndraMsg, body) == 16);

constexpr const char* ONDRA_SYSTEM_ID_FILE = "/etc/marrowby/comm/ondraSystemId.cfg";
constexpr int ONDRA_PAIRING_SIZE = 1024;  // the relay's pairing table, by descriptor

// The first line of `stream` that is not empty (lines read 1024 characters at
// a time): true with it in `line`, false when the stream ends or fails first.
bool ondraFirstNonEmptyLine(FILE* stream, TavString& line);

class TavOndraComm {
public:
    static int init(TavString& buffer);
    static void closeSockets();
    static int unixDomainGet(TavString& buffer);
    static int writeSystemIdToFile(TavString& buffer);
    static const TavString& systemID() { return systemId; }
    static void systemID(const TavString& id) { systemId = id; }
    static int16_t port2Mgr() { return portToMgr; }
    static int16_t port2VMgr() { return portToVMgr; }
    static int16_t portFromGuis() { return portWkTcp; }
    static int sendMsg(const void* msg, size_t length);

    // The inner operations.
    static int openUnixSocket();
    static int openWkPortForGuis();
    static void* connectGuisToMgr(void* arg);
    static int guiAccept(int* fdArray);
    static int connectToMgr();
    static int passThroughMsg();
    static int passThrough(int index, int* fdArray);
    static void socketClose(int fd);
    static int writeToFile(TavString& buffer, const char* file);
    static int readFromFile(TavString& buffer, const char* file);
    static int getSystemIdFromFile(TavString& buffer);

    static pthread_mutex_t pthreadMutex;
    static TavString unixDomain;
    static int fdWkUnix;
    static int maxFdUnix;
    static fd_set fdSetUnix;
    static int16_t portWkTcp;
    static int fdWkTcp;
    static int maxFdTcp;
    static fd_set fdSetTcp;
    static int16_t portToMgr;
    static int16_t portToVMgr;
    static int fdClient2Mgr;
    static TavString systemId;
    static bool initialized;
};

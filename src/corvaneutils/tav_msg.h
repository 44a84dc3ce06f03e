// The message that carries a command between the agent, the session and the
// inter-process layer, and the enumerations of that layer.
#pragma once

#include <cstddef>

enum IpcCommType {
    IPC_COMM_TCP_OUTSIDE = 0,
    IPC_COMM_TCP_INSIDE = 1,
    IPC_COMM_UNIX = 2,
};

enum IpcListTypes {
    IPC_CRYPT_IN = 0,
    IPC_CLEAR_IN = 1,
    IPC_CLEAR_OUT = 2,
    IPC_CRYPT_OUT = 3,
    IPC_LIST_TYPE_MAX = 4,
};

enum IpcXformTypes {
    IPC_XOR = 0,
    IPC_0X04 = 1,
    IPC_CATFISH = 2,
    IPC_XFORM_TYPES_MAX = 3,
};

enum _tav_msg_type {
    IPC_ULP = 0,
    IPC_RAW = 1,
    IPC_NEW_CONNECTION_REQUEST = 2,
    IPC_NEW_CONNECTION_COMPLETE = 3,
    IPC_NEW_CONNECTION_FAILED = 4,
    IPC_END_CONNECTION_REQUEST = 5,
    IPC_END_CONNECTION_COMPLETE = 6,
    IPC_END_CONNECTION_FAILED = 7,
    IPC_NEW_CLIENT_STARTED = 8,
    IPC_NEW_CLIENT_COMPLETE = 9,
    IPC_NEW_CLIENT_FAILED = 10,
    IPC_XFORM_AVAILABLE = 11,
    IPC_XFORM_REQUIRED = 12,
    IPC_XFORM_NEGOTIATION_REQ = 13,
    IPC_XFORM_NEGOTIATION_OK = 14,
    IPC_XFORM_NEGOTIATION_REJ = 15,
    IPC_XFORM_REQUEST = 16,
    IPC_XFORM_ACK = 17,
    IPC_XFORM_COMPLETE = 18,
    IPC_XFORM_REJECT = 19,
    IPC_MSG_TO_CORE = 20,
    IPC_TYPE_UNKNOWN = 21,
    IPC_ULP_CRYPT = 22,
    IPC_ULP_CLEAR = 23,
    IPC_MAX_TYPES = 24,
};

class tav_msg {
public:
    tav_msg();
    tav_msg(_tav_msg_type type, size_t size, const void* data, long sid, int status);
    tav_msg(const tav_msg&) = delete;
    tav_msg& operator=(const tav_msg&) = delete;
    ~tav_msg();

    long GetSid() const { return tavSid; }
    void SetSid(long sid) { tavSid = sid; }
    _tav_msg_type GetType() const { return emtType; }
    void SetType(_tav_msg_type type) { emtType = type; }
    int GetStatus() const { return iStatus; }
    void SetStatus(int status) { iStatus = status; }
    size_t GetSize() const { return sSize; }
    void SetSize(size_t size) { sSize = size; }
    int GetDirection() const { return iDirection; }
    void* GetData() const { return vpData; }
    // Copies size bytes: -1 for null data; 0, or status 2 and size 0 when
    // the copy cannot be allocated.
    int SetData(size_t size, const void* data);

private:
    long tavSid;
    _tav_msg_type emtType;
    int iDirection;
    int iStatus;
    size_t sSize;
    void* vpData;
};

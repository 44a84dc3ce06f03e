#include "corvaneutils/tav_msg.h"

#include <cstdlib>
#include <cstring>

static int giDebug_tav_msg = 0;
#define TAV_DEBUG_FLAG giDebug_tav_msg
#include "driveutils/tavlog.h"

tav_msg::tav_msg() : tavSid(-1), emtType(IPC_TYPE_UNKNOWN), iDirection(3), iStatus(1), sSize(0), vpData(nullptr) {}

tav_msg::tav_msg(_tav_msg_type type, size_t size, const void* data, long sid, int status)
    : tavSid(sid), emtType(type), iDirection(3), iStatus(status), sSize(0), vpData(nullptr)
{
    SetData(size, data);
}

tav_msg::~tav_msg()
{
    if (vpData) {
        TAV_LOG(TAV_LOG_L90, "FREEING");
        free(vpData);
    }
}

int tav_msg::SetData(size_t size, const void* data)
{
    if (!data) return -1;
    free(vpData);
    // One zero byte more than asked, behind the data: a command made on the
    // message reads its data as a text and must find an end.
    vpData = size < SIZE_MAX ? malloc(size + 1) : nullptr;
    if (!vpData) {
        iStatus = 2;
        sSize = 0;
        return 0;
    }
    std::memcpy(vpData, data, size);
    static_cast<char*>(vpData)[size] = '\0';
    sSize = size;
    return 0;
}

#include "driveutils/tavudpthread.h"

static int giDebug_tavudpthread = 0;
#define TAV_DEBUG_FLAG giDebug_tavudpthread
#include "driveutils/tavlog.h"

// No agent thread runs yet, so there is no pipe to wake one: every alert is dropped.
int TAVUDPThread::postMessage(const char* msg)
{
    TAV_LOG(0, "postMessage() Message [%s] dropped because udp thread is inactive\n", msg ? msg : "");
    return -1;
}

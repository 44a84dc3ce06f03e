// The posting half of the agent: the queue of alerts and the pipe that wakes
// the agent's thread. Any thread may post; only the agent's thread reads.
#include "driveutils/tavudpthread.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static int giDebug_tavudpthread = 0;
#define TAV_DEBUG_FLAG giDebug_tavudpthread
#include "driveutils/tavlog.h"

namespace {

// The pipe's two descriptors, -1 while no agent runs, and the queue: all
// under queueAccessMutex.
int postMessagePipe[2] = {-1, -1};
std::mutex queueAccessMutex;
udp_queue_msg_s* queueHead = nullptr;
udp_queue_msg_s* queueTail = nullptr;
std::atomic<bool> stopFlag{false};

void freeEntry(udp_queue_msg_s* entry)
{
    if (!entry) return;
    free(entry->mesg);
    free(entry);
}

} // namespace

std::atomic<UDP_DATA*> TAVUDPThread::udpInfo{nullptr};
std::mutex TAVUDPThread::clientAccessMutex;
pthread_t TAVUDPThread::udpThread{};

int setNonblock(int fd)
{
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        TAV_LOG(0, "Could not set nonblock %d ( %s:%d )\n", fd, TAV_FILE, __LINE__);
        return -1;
    }
    return 0;
}

int TAVUDPThread::postMessage(const char* msg)
{
    {
        std::lock_guard<std::mutex> hold(queueAccessMutex);
        if (postMessagePipe[1] < 0) {
            TAV_LOG(0, "postMessage() Message [%s] dropped because udp thread is inactive\n", msg ? msg : "");
            return -1;
        }
    }
    if (!msg) return -1;
    auto* entry = static_cast<udp_queue_msg_s*>(calloc(1, sizeof(udp_queue_msg_s)));
    if (!entry) return -1;
    entry->mesg = strdup(msg);
    if (!entry->mesg) {
        freeEntry(entry);
        return -1;
    }
    if (queueMessage(entry) != 0) {
        // The agent stopped between the test above and now.
        TAV_LOG(0, "postMessage() Message [%s] dropped because udp thread is inactive\n", msg);
        freeEntry(entry);
        return -1;
    }
    return 0;
}

int TAVUDPThread::queueMessage(udp_queue_msg_s* entry)
{
    std::lock_guard<std::mutex> hold(queueAccessMutex);
    if (postMessagePipe[1] < 0) return -1;
    entry->entries.next = nullptr;
    entry->entries.prev = queueTail;
    if (queueTail)
        queueTail->entries.next = entry;
    else
        queueHead = entry;
    queueTail = entry;
    // Both ends are non-blocking: a full pipe already holds a wake that the
    // agent has not read, so this one is not needed.
    const char wake = 1;
    while (::write(postMessagePipe[1], &wake, 1) < 0 && errno == EINTR) {
    }
    return 0;
}

udp_queue_msg_s* TAVUDPThread::nextMessage()
{
    std::lock_guard<std::mutex> hold(queueAccessMutex);
    udp_queue_msg_s* entry = queueHead;
    if (!entry) return nullptr;
    queueHead = entry->entries.next;
    if (queueHead)
        queueHead->entries.prev = nullptr;
    else
        queueTail = nullptr;
    entry->entries.next = entry->entries.prev = nullptr;
    return entry;
}

int TAVUDPThread::openPostPipe()
{
    int fds[2];
    if (::pipe(fds) != 0) return -1;
    setNonblock(fds[0]);
    setNonblock(fds[1]);
    std::lock_guard<std::mutex> hold(queueAccessMutex);
    postMessagePipe[0] = fds[0];
    postMessagePipe[1] = fds[1];
    return 0;
}

int TAVUDPThread::postPipeReadEnd()
{
    std::lock_guard<std::mutex> hold(queueAccessMutex);
    return postMessagePipe[0];
}

void TAVUDPThread::closePostPipe()
{
    std::lock_guard<std::mutex> hold(queueAccessMutex);
    for (int& fd : postMessagePipe) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    while (queueHead) {
        udp_queue_msg_s* next = queueHead->entries.next;
        freeEntry(queueHead);
        queueHead = next;
    }
    queueTail = nullptr;
}

bool TAVUDPThread::stopRequested() { return stopFlag.load(std::memory_order_acquire); }

void TAVUDPThread::clearStopRequest() { stopFlag.store(false, std::memory_order_release); }

void TAVUDPThread::udpThreadCancel()
{
    stopFlag.store(true, std::memory_order_release);
    std::lock_guard<std::mutex> hold(queueAccessMutex);
    if (postMessagePipe[1] < 0) return;
    const char wake = 0;
    while (::write(postMessagePipe[1], &wake, 1) < 0 && errno == EINTR) {
    }
}

void TAVUDPThread::setUDPThread(pthread_t thread) { udpThread = thread; }

pthread_t TAVUDPThread::getUDPThread() { return udpThread; }

// The management agent's thread: one per process, all static. So far only the
// entry by which other threads hand it an alert; the agent itself (its
// sockets, clients, queue and the pipe that wakes it) comes later.
#pragma once

class TAVUDPThread {
public:
    TAVUDPThread() = delete;

    // 0 when the alert was queued for the agent, -1 when it was dropped.
    static int postMessage(const char* msg);
};

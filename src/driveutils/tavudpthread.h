// The management agent: one thread per process, all static. Consoles find
// the unit with a request datagram (or a TCP connection) on port 27491 and
// get a description of it back; any thread may post an alert, which the
// agent's thread sends to every console it remembered.
//
// The posting half (postMessage and the queue) lives with the drive code,
// which posts; the thread itself is the library target tavagent.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <netinet/in.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/socket.h>

#include "tavutils/tavstring.h"

class TavUdpList;
class TAVSession;

// The thread's argument.
struct UDP_DATA {
    TavUdpList* list;
    TAVSession* session;
};

// An element of the queue of alerts.
struct udp_queue_msg_s {
    char* mesg;  // from strdup, owned
    struct {
        udp_queue_msg_s* next;
        udp_queue_msg_s* prev;
    } entries;
};

class TAVUDPThread {
public:
    TAVUDPThread() = delete;

    static constexpr int kAgentPort = 27491;
    static constexpr int kDescriptionPort = 13838;
    static constexpr int kLocalClientPort = 13842;
    static constexpr int kMessageSize = 1024;

    // The thread's body; arg is the UDP_DATA*. Returns when cancelled.
    static void* runUdpThread(void* arg);

    // 0 when the alert was queued for the agent, -1 when it was dropped.
    // Never blocks.
    static int postMessage(const char* msg);
    // The old form: logs that it is deprecated and posts the message.
    static int sendMessageToClients(const char* msg);
    static int sendMessageToClients(const char* msg, const char* header);
    static int sendReplyMessageToClients(const char* msg);
    static int sendMessageToLocalClient(const char* msg);

    // A key's value read past the session's grants; empty when it has none.
    static TavString getCorvaneKey(const char* key);
    static TavString getCorvaneKey(TAVSession* session, const char* key);
    static TavString setCorvaneKey(TAVSession* session, const char* key);
    static TavString sendCorvaneKey(TAVSession* session, const char* key, const char* type);

    static void setUDPThread(pthread_t thread);
    static pthread_t getUDPThread();
    // Asks the thread to stop after its current pass; the host joins it. A
    // cancel while no thread runs stops the next one at its start.
    static void udpThreadCancel();

    // The inner steps, public for the tests.
    static int createSocket(int port, int type);
    static int createUdpSocket(int port);
    static int createTcpSocket(int port);
    static void answerUDP();
    static int doUDPReply(int socket, sockaddr_in* addr);
    static int doTCPReply(int socket, sockaddr_in* addr);
    static int sendReply(int socket, sockaddr_in* addr, socklen_t addrLen, int bytes, char* buffer, int useUdp);
    // Composes the description into msg (kMessageSize bytes); its length
    // goes to length. 0.
    static int buildMessage(char* msg, const char* header, int socket, const char* msgText, int* length = nullptr);
    static int udp_sendto(const void* data, size_t length, int flags, const sockaddr* addr, socklen_t addrLen);
    // 0 when queued; -1 when the agent's pipe is closed (nothing queued).
    static int queueMessage(udp_queue_msg_s* entry);
    static udp_queue_msg_s* nextMessage();
    static void postMessageFromQueue();
    // Copies text at offset position of start when it stays within
    // kMessageSize bytes; the next position either way. Offsets, not
    // pointers, so that no pointer past the buffer is ever formed.
    static size_t appendToMessage(char* start, size_t position, const char* text);

    // The agent's own handling of the pipe that wakes it.
    static int openPostPipe();
    static int postPipeReadEnd();
    // Closes the pipe (-1 under the queue lock) and frees what is queued.
    static void closePostPipe();
    static bool stopRequested();
    static void clearStopRequest();

    static std::atomic<UDP_DATA*> udpInfo;
    static std::mutex clientAccessMutex;

private:
    static pthread_t udpThread;
};

// The address of the first of bond4, bond2, bond1, bond0 that has one, as
// dotted text in buffer; null when none has. device, when given, gets the
// interface's name (IFNAMSIZ bytes).
char* getAddress(char* buffer, int size, char* device = nullptr);
char* getAddressFromDevice(const char* sLogicalName, char* buffer, int len);
// An interface query on the agent's query socket.
int if_ioctl(unsigned long request, ifreq* ifr);
// The name and address of the local interface number index; -1 past the end.
int enumInterfacesAddresses(int index, ifreq* ifr);
int setNonblock(int fd);

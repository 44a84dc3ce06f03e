// The agent's thread: the sockets on port 27491, the replies that describe
// the unit, the consoles it remembers and the alerts it sends them.
#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "corvaneutils/tavcommand.h"
#include "corvaneutils/tavsession.h"
#include "driveutils/tavudplist.h"
#include "driveutils/tavudpthread.h"
#include "hwlib/tavethutils.h"
#include "platform/platform.h"
#include "tavutils/tavobxinfo.h"

static int giDebug_tavudpthread_agent = 0;
#define TAV_DEBUG_FLAG giDebug_tavudpthread_agent
#include "driveutils/tavlog.h"

// The lines written for every request and every datagram sent are trace, so
// that a busy unit does not log four lines a request; failures stay at 0.
#define UDP_TRACE TAV_LOG_L20

namespace {

const char kRequestHeader[] = "OBXrequest:ver0.01";
const char kReplyHeader[] = "OBXreply:ver0.01";
const char kAlertHeader[] = "OBXAlert:ver0.01";

// "%s: %s, %s:%d\n" with the failing call's name and the error.
#define UDP_LOG_ERRNO(call)                                                                 \
    do {                                                                                    \
        int udp_errno_ = errno;                                                             \
        TAV_LOG(0, "%s: %s, %s:%d\n", (call), strerror(udp_errno_), TAV_FILE, __LINE__);    \
    } while (0)

// One socket for every interface query, made when first needed and closed
// when the thread ends: the queries of each request cost no socket.
std::mutex queryMutex;
int querySocket = -1;

void closeQuerySocket()
{
    std::lock_guard<std::mutex> hold(queryMutex);
    if (querySocket >= 0) plat::close(querySocket);
    querySocket = -1;
}

// strtol of the 32-bit machine, base 10: saturates at the limits of a
// 32-bit long.
long strtol32(const char* text)
{
    const char* p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    long long value = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        value = value * 10 + (*p - '0');
        if (value > 2147483648LL) value = 2147483648LL;
    }
    if (negative) return static_cast<long>(-value);
    return static_cast<long>(value > 2147483647LL ? 2147483647LL : value);
}

std::string dotted(uint32_t address)
{
    char text[INET_ADDRSTRLEN] = "";
    in_addr in{};
    in.s_addr = address;
    inet_ntop(AF_INET, &in, text, sizeof text);
    return text;
}

// The local interfaces with an address, as SIOCGIFCONF lists them.
std::vector<ifreq> localInterfaces()
{
    std::vector<ifreq> out;
    ifreq entries[64];
    ifconf conf{};
    conf.ifc_len = sizeof entries;
    conf.ifc_req = entries;
    {
        std::lock_guard<std::mutex> hold(queryMutex);
        if (querySocket < 0) querySocket = plat::socket(AF_INET, SOCK_DGRAM, 0);
        if (querySocket < 0 || plat::ioctl(querySocket, SIOCGIFCONF, &conf) < 0) return out;
    }
    int count = conf.ifc_len / static_cast<int>(sizeof(ifreq));
    for (int i = 0; i < count && i < 64; ++i) out.push_back(entries[i]);
    return out;
}

} // namespace

int if_ioctl(unsigned long request, ifreq* ifr)
{
    std::lock_guard<std::mutex> hold(queryMutex);
    if (querySocket < 0) querySocket = plat::socket(AF_INET, SOCK_DGRAM, 0);
    if (querySocket < 0) {
        UDP_LOG_ERRNO("socket");
        return -1;
    }
    return plat::ioctl(querySocket, request, ifr);
}

int enumInterfacesAddresses(int index, ifreq* ifr)
{
    if (!ifr || index < 0) return -1;
    std::vector<ifreq> all = localInterfaces();
    if (static_cast<size_t>(index) >= all.size()) return -1;
    *ifr = all[static_cast<size_t>(index)];
    return 0;
}

char* getAddressFromDevice(const char* sLogicalName, char* buffer, int len)
{
    assert(sLogicalName);
    assert(buffer);
    assert(len);
    snprintf(buffer, static_cast<size_t>(len), "%s", "0.0.0.0");
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", sLogicalName);
    if (if_ioctl(SIOCGIFADDR, &ifr) < 0) return nullptr;
    const auto* in = reinterpret_cast<const sockaddr_in*>(&ifr.ifr_addr);
    snprintf(buffer, static_cast<size_t>(len), "%s", dotted(in->sin_addr.s_addr).c_str());
    return buffer;
}

char* getAddress(char* buffer, int size, char* device)
{
    for (const char* name : {"bond4", "bond2", "bond1", "bond0"}) {
        if (getAddressFromDevice(name, buffer, size)) {
            if (device) snprintf(device, IFNAMSIZ, "%s", name);
            return buffer;
        }
    }
    return nullptr;
}

int TAVUDPThread::createSocket(int port, int type)
{
    int s = plat::socket(AF_INET, type, 0);
    if (s < 0) {
        UDP_LOG_ERRNO("socket");
        return -1;
    }
    int one = 1;
    if (plat::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0)
        TAV_LOG(0, "Unable to SO_REUSEADDR socket\n");
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(static_cast<uint16_t>(port));
    if (plat::bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
        UDP_LOG_ERRNO("bind");
        plat::close(s);
        return -1;
    }
    if (type == SOCK_STREAM && ::listen(s, 20) < 0) {
        UDP_LOG_ERRNO("listen");
        plat::close(s);
        return -1;
    }
    return s;
}

int TAVUDPThread::createUdpSocket(int port) { return createSocket(port, SOCK_DGRAM); }

int TAVUDPThread::createTcpSocket(int port) { return createSocket(port, SOCK_STREAM); }

void* TAVUDPThread::runUdpThread(void* arg)
{
    auto* info = static_cast<UDP_DATA*>(arg);
    udpInfo.store(info, std::memory_order_release);
    TAV_LOG(0, "runUdpThread\n");
    // clientAccessMutex is made with the program: nothing to initialise.
    TavUdpList* list = info ? info->list : nullptr;
    int udp = createUdpSocket(kAgentPort);
    if (udp < 0)
        TAV_LOG(0, "TAVUDPThread:: Unable to open UDP socket\n");
    else
        TAV_LOG(0, "UDP socket:%d\n", udp);
    int tcp = createTcpSocket(kAgentPort);
    if (tcp < 0)
        TAV_LOG(0, "TAVUDPThread:: Unable to open TCP socket\n");
    else
        TAV_LOG(0, "TCP socket:%d\n", tcp);
    if (list) {
        list->setUdpSocket(udp);
        list->setTcpSocket(tcp);
    }
    if (openPostPipe() != 0) {
        TAV_LOG(0, "Unable to open postMessagePipe ( %s:%d )\n", TAV_FILE, __LINE__);
        exit(-1);
    }
    if (udp >= 0 && list) answerUDP();

    if (list) {
        if (list->udpsocket >= 0) plat::close(list->udpsocket);
        if (list->tcpSocket >= 0) plat::close(list->tcpSocket);
        list->setUdpSocket(-1);
        list->setTcpSocket(-1);
    } else {
        if (udp >= 0) plat::close(udp);
        if (tcp >= 0) plat::close(tcp);
    }
    closePostPipe();
    closeQuerySocket();
    udpInfo.store(nullptr, std::memory_order_release);
    clearStopRequest();
    return nullptr;
}

void TAVUDPThread::answerUDP()
{
    TavUdpList* list = udpInfo.load(std::memory_order_acquire)->list;
    const int wake = postPipeReadEnd();
    while (!stopRequested()) {
        if (list->tcpSocket < 0) {
            list->setTcpSocket(createTcpSocket(kAgentPort));
            if (list->tcpSocket < 0)
                TAV_LOG(0, "TAVUDPThread:: Unable to open TCP socket post initialization\n");
            else
                TAV_LOG(0, "TAVUDPThread::Notice:Succesfully Created TCP socket post initialization\n");
        }
        if (list->udpsocket < 0) {
            list->setUdpSocket(createUdpSocket(kAgentPort));
            // Kept as it was: the word is chosen by the TCP socket.
            if (list->tcpSocket < 0)
                TAV_LOG(0, "TAVUDPThread:: Unable to open UDP socket post initialization\n");
            else
                TAV_LOG(0, "TAVUDPThread::Notice:Succesfully Created UDP socket post initialization\n");
        }
        // poll in place of select: the same wait, with no limit on the
        // descriptors' numbers.
        pollfd fds[3];
        nfds_t n = 0;
        int udpAt = -1, tcpAt = -1;
        if (list->udpsocket >= 0) udpAt = static_cast<int>(n), fds[n++] = {list->udpsocket, POLLIN, 0};
        if (list->tcpSocket >= 0) tcpAt = static_cast<int>(n), fds[n++] = {list->tcpSocket, POLLIN, 0};
        const int wakeAt = static_cast<int>(n);
        fds[n++] = {wake, POLLIN, 0};
        int ready = ::poll(fds, n, -1);
        if (ready == 0) continue;
        if (ready < 0) {
            if (errno != EINTR) UDP_LOG_ERRNO("select");
            continue;
        }
        if (fds[wakeAt].revents) postMessageFromQueue();
        if (stopRequested()) break;
        sockaddr_in addr{};
        int result = -1;
        bool served = false;
        if (udpAt >= 0 && fds[udpAt].revents) {
            result = doUDPReply(list->udpsocket, &addr);
            served = true;
        } else if (tcpAt >= 0 && fds[tcpAt].revents) {
            result = doTCPReply(list->tcpSocket, &addr);
            served = true;
        }
        if (served && result == 0) {
            std::lock_guard<std::mutex> hold(clientAccessMutex);
            list->addClient(addr.sin_port, addr.sin_addr.s_addr);
        }
    }
}

int TAVUDPThread::doUDPReply(int socket, sockaddr_in* addr)
{
    char buffer[kMessageSize + 1];
    socklen_t length = sizeof(sockaddr_in);
    errno = 0;
    ssize_t bytes = ::recvfrom(socket, buffer, kMessageSize, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(addr), &length);
    buffer[bytes > 0 ? bytes : 0] = '\0';
    return sendReply(socket, addr, length, static_cast<int>(bytes), buffer, 1);
}

int TAVUDPThread::doTCPReply(int socket, sockaddr_in* addr)
{
    socklen_t length = sizeof(sockaddr_in);
    int connection = ::accept4(socket, reinterpret_cast<sockaddr*>(addr), &length, SOCK_CLOEXEC);
    if (connection < 0) {
        UDP_LOG_ERRNO("accept");
        return -1;
    }
    // A console that sends nothing within a second reads as no bytes: one
    // idle connection must not stop the agent.
    char buffer[kMessageSize + 1];
    ssize_t bytes = 0;
    pollfd wait{connection, POLLIN, 0};
    int ready;
    while ((ready = ::poll(&wait, 1, 1000)) < 0 && errno == EINTR) {
    }
    errno = 0;
    if (ready > 0)
        bytes = ::recvfrom(connection, buffer, kMessageSize, MSG_DONTWAIT, nullptr, nullptr);
    else
        errno = ready == 0 ? ETIMEDOUT : errno;
    buffer[bytes > 0 ? bytes : 0] = '\0';
    int result = sendReply(connection, addr, length, static_cast<int>(bytes), buffer, 0);
    ::close(connection);
    return result;
}

int TAVUDPThread::sendReply(int socket, sockaddr_in* addr, socklen_t addrLen, int bytes, char* buffer, int useUdp)
{
    int error = errno;
    TAV_LOG(UDP_TRACE, "read %d bytes %s\n", bytes, bytes > 0 ? buffer : "");
    if (bytes < 1) {
        TAV_LOG(0, "%s: %s, %s:%d\n", "recvfrom", strerror(error), TAV_FILE, __LINE__);
        return -1;
    }
    // buffer holds bytes bytes and a terminator behind them.
    if (strcasecmp(buffer, kRequestHeader) != 0) {
        TAV_LOG(0, "msg not %s\n", kRequestHeader);
        return -1;
    }
    size_t headerLength = std::strlen(buffer);
    // Only the bytes received: nothing behind the zero byte is port 0.
    const char* portText = static_cast<int>(headerLength) + 1 < bytes ? buffer + headerLength + 1 : "";
    char description[kMessageSize];
    int length = 0;
    if (buildMessage(description, kReplyHeader, socket, "", &length) != 0) {
        TAV_LOG(0, "build msg failed\n");
        return -1;
    }
    long port = strtol32(portText);
    addr->sin_port = htons(static_cast<uint16_t>(static_cast<unsigned long>(port) & 0xFFFF));
    TAV_LOG(UDP_TRACE, "sending %s to port %s\n", dotted(addr->sin_addr.s_addr).c_str(), portText);
    if (useUdp)
        udp_sendto(description, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr*>(addr), addrLen);
    else if (::sendto(socket, description, static_cast<size_t>(length), MSG_NOSIGNAL, nullptr, 0) < 0)
        UDP_LOG_ERRNO("sendto");
    return 0;
}

size_t TAVUDPThread::appendToMessage(char* start, size_t position, const char* text)
{
    const char* t = text ? text : "";
    size_t length = std::strlen(t);
    if (position + length + 1 <= static_cast<size_t>(kMessageSize)) std::memcpy(start + position, t, length + 1);
    return position + length + 1;
}

int TAVUDPThread::buildMessage(char* msg, const char* header, int /*socket*/, const char* msgText, int* length)
{
    char port[16];
    snprintf(port, sizeof port, "%d", kDescriptionPort);
    char hostname[513] = "";
    if (plat::gethostname(hostname, 512) != 0) {
        TAV_LOG(0, "Warning: cannot get hostname\n");
        hostname[0] = '\0';
    }
    hostname[512] = '\0';
    char address[513] = "";
    char device[IFNAMSIZ] = "";
    if (!getAddress(address, 512, device)) {
        TAV_LOG(0, "Warning: Could not get OBX local IP\n");
        address[0] = '\0';
    }
    // The MAC of the interface whose address was found, asked on the
    // agent's query socket: an accepted TCP connection is no socket of the
    // platform's, and would not be answered as the others are.
    char mac[257] = "";
    int macResult = -1;
    if (device[0]) {
        ifreq ifr{};
        snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", device);
        std::lock_guard<std::mutex> hold(queryMutex);
        if (querySocket < 0) querySocket = plat::socket(AF_INET, SOCK_DGRAM, 0);
        macResult = eth_getMACFromSocket(querySocket, mac, 256, &ifr);
    }
    if (macResult != 0) {
        TAV_LOG(0, "Warning: cannot get MAC addr, %d\n", macResult);
        mac[0] = '\0';
    }
    const char* serial = TavObxInfo::getSerialNumber();

    TavString status = getCorvaneKey("tav/public/storage/raid/status");
    TavString config = getCorvaneKey("tav/public/storage/raid/config");
    TavString description = getCorvaneKey("tav/public/storage/raid/config_description");
    TavString version = getCorvaneKey("tav/public/system/info/software/version");
    TavString systemId = getCorvaneKey("tav/public/system/ondra/system_id");
    TavString guiPort = getCorvaneKey("tav/public/system/ondra/gui2mgrPort");
    TavString model = getCorvaneKey("tav/public/system/info/model");
    TavString vmgr = getCorvaneKey("tav/public/system/ondra/virtualmgrConfigured");
    TavString partner = getCorvaneKey("tav/public/system/info/partner/sn");
    std::string raid = config + "\t" + description;

    std::memset(msg, 0, kMessageSize);
    size_t at = 0;
    // The position moves on whether or not a field fitted.
    const char* const fields[] = {header, address, port, serial ? serial : "", "block", hostname, status.c_str(), mac,
                              raid.c_str(), version.c_str(), msgText ? msgText : "", systemId.c_str(), guiPort.c_str(),
                              model.c_str(), vmgr.c_str(), partner.c_str()};
    for (const char* field : fields) at = appendToMessage(msg, at, field);
    if (length) *length = static_cast<int>(at < static_cast<size_t>(kMessageSize) ? at : kMessageSize);
    return 0;
}

int TAVUDPThread::udp_sendto(const void* data, size_t length, int flags, const sockaddr* addr, socklen_t addrLen)
{
    const std::string to = addr && addr->sa_family == AF_INET
                               ? dotted(reinterpret_cast<const sockaddr_in*>(addr)->sin_addr.s_addr)
                               : std::string("?");
    for (const ifreq& ifr : localInterfaces()) {
        int s = plat::socket(AF_INET, SOCK_DGRAM, 0);
        if (s < 0) {
            UDP_LOG_ERRNO("socket");
            continue;
        }
        int one = 1;
        plat::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr = reinterpret_cast<const sockaddr_in*>(&ifr.ifr_addr)->sin_addr;
        local.sin_port = 0;
        const std::string from = dotted(local.sin_addr.s_addr);
        if (plat::bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
            TAV_LOG(0, "UDPTHREAD: could not bind to %s\n", from.c_str());
            plat::close(s);
            continue;
        }
        ssize_t sent = ::sendto(s, data, length, flags | MSG_NOSIGNAL, addr, addrLen);
        TAV_LOG(UDP_TRACE, "UDPTHREAD:: Sent packet to %s ( ret = %i )\n", to.c_str(), static_cast<int>(sent));
        TAV_LOG(UDP_TRACE, " ORIGIN-S:: %s(%s)\n", ifr.ifr_name, from.c_str());
        plat::close(s);
        if (sent >= 0) return 0;
    }
    return 0;
}

void TAVUDPThread::postMessageFromQueue()
{
    const int wake = postPipeReadEnd();
    char byte;
    while (wake >= 0) {
        ssize_t got = ::read(wake, &byte, 1);
        if (got == 1) continue;
        if (got < 0 && errno == EINTR) continue;
        break;
    }
    while (udp_queue_msg_s* entry = nextMessage()) {
        sendMessageToClients(entry->mesg, kAlertHeader);
        free(entry->mesg);
        free(entry);
    }
}

int TAVUDPThread::sendMessageToClients(const char* msg)
{
    TAV_LOG(0, "Warning: This API is deprecated please use postMessage(msg)\n");
    // Posted, so that only the agent's thread sends.
    return postMessage(msg);
}

int TAVUDPThread::sendMessageToClients(const char* msg, const char* header)
{
    int s = createUdpSocket(0);
    if (s < 0) return -1;
    char description[kMessageSize];
    int length = 0;
    buildMessage(description, header, s, msg, &length);
    UDP_DATA* info = udpInfo.load(std::memory_order_acquire);
    {
        std::lock_guard<std::mutex> hold(clientAccessMutex);
        TavUdpList* list = info ? info->list : nullptr;
        for (int i = 0; list && i < list->list->size(); ++i) {
            TavClientUDP* client = (*list->list)[i];
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = client->port;
            to.sin_addr.s_addr = client->address;
            udp_sendto(description, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        }
    }
    plat::close(s);
    return 0;
}

int TAVUDPThread::sendReplyMessageToClients(const char* msg) { return sendMessageToClients(msg, kReplyHeader); }

int TAVUDPThread::sendMessageToLocalClient(const char* msg)
{
    int s = createUdpSocket(0);
    if (s < 0) return -1;
    char description[kMessageSize];
    int length = 0;
    buildMessage(description, kAlertHeader, s, msg, &length);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kLocalClientPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    udp_sendto(description, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    plat::close(s);
    return 0;
}

TavString TAVUDPThread::getCorvaneKey(const char* key)
{
    UDP_DATA* info = udpInfo.load(std::memory_order_acquire);
    return getCorvaneKey(info ? info->session : nullptr, key);
}

TavString TAVUDPThread::getCorvaneKey(TAVSession* session, const char* key) { return sendCorvaneKey(session, key, "get"); }

TavString TAVUDPThread::setCorvaneKey(TAVSession* session, const char* key) { return sendCorvaneKey(session, key, "set"); }

TavString TAVUDPThread::sendCorvaneKey(TAVSession* session, const char* key, const char* type)
{
    std::string k = key ? key : "";
    std::string kind = type ? type : "get";
    if (k.empty() || k[0] != '/') k = std::string("/") + k;
    if (kind == "get" && k.back() != '/') k += '/';
    std::string text = kind + ":" + k;
    TAVCommand command(text.c_str());
    if (command.CheckSyntax() != 0) {
        TAV_LOG(0, "SYNTAX FAILURE, key='%s'\n", k.c_str());
        return TavString();
    }
    if (!session) return TavString();
    {
        std::lock_guard<std::mutex> hold(clientAccessMutex);
        session->HandleAllMessage(&command, kind == "get" ? 4 : 2);
    }
    int count = command.GetReturnCount();
    if (count == 0) {
        TAV_LOG(0, "No Response, key='%s'\n", k.c_str());
        return TavString();
    }
    if (count > 1) {
        TAV_LOG(0, "Extended Response, key='%s'\n", k.c_str());
        return TavString();
    }
    // Within the reply's size: a listener may have left out the terminator.
    std::string reply(command.GetReturnValue(0), static_cast<size_t>(command.GetReturnValueSize(0)));
    reply.resize(strnlen(reply.c_str(), reply.size()));
    if (reply.compare(0, 3, "OK:") == 0) return TavString(reply.c_str() + 3);
    TAV_LOG(0, "Key: '%s' %s\n", k.c_str(), reply.c_str());
    return TavString();
}

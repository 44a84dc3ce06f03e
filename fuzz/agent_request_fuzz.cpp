// The agent's request parse and description with arbitrary bytes: the
// request datagram, and the values that the nine keys of the description
// answer. The reply goes down one end of a local socket pair, never to the
// network. The description never passes 1024 bytes, and the reply port is
// the low 16 bits of the text's 32-bit conversion.
#include <arpa/inet.h>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "corvaneutils/tavsession.h"
#include "driveutils/tavudplist.h"
#include "driveutils/tavudpthread.h"
#include "tavutils/tavmodparam.h"

namespace {

struct Value {
    std::string bytes;
    bool raw;
};

int answer(TavModParam* param, int, int, void* session)
{
    auto* value = static_cast<const Value*>(session);
    if (value->raw)
        param->appendData(value->bytes.data(), static_cast<int>(value->bytes.size()));
    else
        param->appendMessage(value->bytes.c_str());
    return 0;
}

const char* const kKeys[] = {"/tav/public/storage/raid/status/", "/tav/public/storage/raid/config/",
                             "/tav/public/storage/raid/config_description/", "/tav/public/system/info/software/version/",
                             "/tav/public/system/ondra/system_id/", "/tav/public/system/ondra/gui2mgrPort/",
                             "/tav/public/system/info/model/", "/tav/public/system/ondra/virtualmgrConfigured/",
                             "/tav/public/system/info/partner/sn/"};

// strtol of a 32-bit machine, for the check.
long long expectedPort(const char* text)
{
    char* end = nullptr;
    long long value = std::strtoll(text, &end, 10);
    if (value > INT_MAX) value = INT_MAX;
    if (value < INT_MIN) value = INT_MIN;
    return value;
}

} // namespace

int agentRequestFuzzOne(const uint8_t* data, size_t size)
{
    std::string input(reinterpret_cast<const char*>(data), size);
    size_t split = input.find('\xff');
    std::string datagram = input.substr(0, split == std::string::npos ? input.size() : split);
    if (datagram.size() > 1024) datagram.resize(1024);
    std::vector<Value> values(9);
    if (split != std::string::npos) {
        std::string rest = input.substr(split + 1);
        size_t at = 0;
        for (int i = 0; i < 9 && at <= rest.size(); ++i) {
            size_t end = rest.find('\n', at);
            if (end == std::string::npos) end = rest.size();
            values[static_cast<size_t>(i)] = {rest.substr(at, end - at), (i % 3) == 2};
            at = end + 1;
        }
    }

    TAVSession session;
    for (int i = 0; i < 9; ++i) session.RegisterListener(kKeys[i], i + 1, answer, 4, &values[static_cast<size_t>(i)]);
    TavUdpList list;
    UDP_DATA info{&list, &session};
    TAVUDPThread::udpInfo.store(&info);

    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 0;
    char buffer[1025];
    std::memcpy(buffer, datagram.data(), datagram.size());
    buffer[datagram.size()] = '\0';
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    int result = TAVUDPThread::sendReply(pair[0], &addr, sizeof addr, static_cast<int>(datagram.size()), buffer, 0);
    TAVUDPThread::udpInfo.store(nullptr);

    char reply[4096];
    ssize_t got = ::recv(pair[1], reply, sizeof reply, MSG_DONTWAIT);
    ::close(pair[0]);
    ::close(pair[1]);
    if (result == 0) {
        if (got < 17 || got > 1024) std::abort();
        if (std::memcmp(reply, "OBXreply:ver0.01", 17) != 0) std::abort();
        size_t header = std::strlen(buffer);
        const char* portText = header + 1 < datagram.size() ? buffer + header + 1 : "";
        uint16_t port = static_cast<uint16_t>(static_cast<unsigned long long>(expectedPort(portText)) & 0xFFFF);
        if (addr.sin_port != htons(port)) std::abort();
    } else if (got > 0) {
        std::abort();
    }
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return agentRequestFuzzOne(data, size); }
#endif

// The agent on a simulated module, in a private network namespace: its
// session has the module's key source attached; consoles are real sockets
// on loopback addresses.
#pragma once

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "corvaneutils/tavsession.h"
#include "driveutils/tavudplist.h"
#include "driveutils/tavudpthread.h"
#include "netns.h"
#include "sim/mgmt_keys.h"
#include "sim/sim_fixture.h"
#include "sim/sim_platform.h"

namespace tavtest {

struct PrivateNetwork {
    PrivateNetwork() : why(enterPrivateNetwork()) {}
    std::string why;
};

// A console: a datagram socket on ADDRESS:PORT of loopback.
class Console {
public:
    Console(const char* address, uint16_t port)
    {
        fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        int big = 4 << 20;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(port);
        inet_pton(AF_INET, address, &local.sin_addr);
        bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    }
    ~Console() { ::close(fd_); }
    bool bound() const { return bound_; }

    void send(const std::string& bytes, uint16_t port = TAVUDPThread::kAgentPort) const
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    // The next datagram, or nothing within timeoutMs.
    std::optional<std::string> receive(int timeoutMs = 3000) const
    {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0) return std::nullopt;
        char buffer[4096];
        ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
        if (got < 0) return std::nullopt;
        return std::string(buffer, static_cast<size_t>(got));
    }

private:
    int fd_ = -1;
    bool bound_ = false;
};

// "OBXrequest:ver0.01\0PORT\0".
// A TCP connection to the agent on loopback; -1 when none could be made.
inline int connectAgent()
{
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(TAVUDPThread::kAgentPort);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(s, reinterpret_cast<sockaddr*>(&agent), sizeof agent);
    return s;
}

inline std::string request(const std::string& port, const std::string& header = "OBXrequest:ver0.01")
{
    return header + std::string(1, '\0') + port + std::string(1, '\0');
}

// The zero-terminated fields of a description.
inline std::vector<std::string> fields(const std::string& datagram)
{
    std::vector<std::string> out;
    size_t at = 0;
    while (at < datagram.size()) {
        size_t end = datagram.find('\0', at);
        if (end == std::string::npos) end = datagram.size();
        out.push_back(datagram.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

class AgentTest : public ::testing::Test {
protected:
    PrivateNetwork net;  // first of all, before any thread
    simtest::TempModule temp;
    sim::SimPlatform platform{temp.dir()};
    plat::ScopedPlatform scope{platform};
    sim::KeySource keys{platform.module()};
    TAVSession session;
    TavUdpList list;
    UDP_DATA data{&list, &session};
    pthread_t thread{};
    bool running = false;

    void SetUp() override
    {
        ASSERT_EQ(net.why, "");
        keys.attach(session);
    }
    void TearDown() override
    {
        if (running) stop();
    }

    // Starts the agent and waits, at most five seconds, until it listens.
    void start()
    {
        ASSERT_EQ(pthread_create(&thread, nullptr, TAVUDPThread::runUdpThread, &data), 0);
        TAVUDPThread::setUDPThread(thread);
        running = true;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (TAVUDPThread::postPipeReadEnd() < 0 && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ASSERT_GE(TAVUDPThread::postPipeReadEnd(), 0) << "the agent did not start";
    }
    void stop()
    {
        TAVUDPThread::udpThreadCancel();
        pthread_join(thread, nullptr);
        running = false;
    }

    // The remembered consoles, "ADDRESS:PORT", read between passes of a
    // stopped agent or under the lock.
    std::vector<std::string> clients()
    {
        std::lock_guard<std::mutex> hold(TAVUDPThread::clientAccessMutex);
        std::vector<std::string> out;
        for (int i = 0; i < list.list->size(); ++i) {
            char text[INET_ADDRSTRLEN];
            in_addr a{};
            a.s_addr = (*list.list)[i]->address;
            inet_ntop(AF_INET, &a, text, sizeof text);
            out.push_back(std::string(text) + ":" + std::to_string(ntohs((*list.list)[i]->port)));
        }
        return out;
    }

    // The remembered consoles once they are `expected`, or as they are after
    // three seconds: the agent remembers a console after its reply.
    std::vector<std::string> clientsBecome(const std::vector<std::string>& expected)
    {
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        std::vector<std::string> now = clients();
        while (now != expected && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            now = clients();
        }
        return now;
    }

    // A request answered, retried at most three times: loopback UDP may
    // drop under load.
    std::optional<std::string> ask(const Console& console, const std::string& bytes, int timeoutMs = 2000)
    {
        for (int attempt = 0; attempt < 3; ++attempt) {
            console.send(bytes);
            if (auto reply = console.receive(timeoutMs)) return reply;
        }
        return std::nullopt;
    }

    std::string hwaddrOf(const std::string& name)
    {
        std::string text = platform.module().readState("interfaces");
        size_t at = text.find(name + " hwaddr=");
        if (at == std::string::npos) return "";
        at += name.size() + 8;
        return text.substr(at, text.find(' ', at) - at);
    }
};

} // namespace tavtest

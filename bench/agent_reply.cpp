// The agent's replies against a minimal responder, in one process and one
// private network namespace, on one simulated module (run by
// agent_reply_bench.sh):
//   responder  a thread of this program on port 27491: receive, check the
//              header and the port, send back a description of the agent's
//              length with one sendto on its listening socket;
//   agent      the system's agent thread, its session holding 200 keys.
// Rounds alternate between the two. Loads: one console with one request
// outstanding (rate, p50, p99), and one console with 16 outstanding (rate,
// requests lost).
//
//     agent_reply DIR [REQUESTS_1] [REQUESTS_16]     DIR: a module (tavsim create)
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <strings.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "corvaneutils/tavsession.h"
#include "driveutils/tavsysutils.h"
#include "driveutils/tavudplist.h"
#include "driveutils/tavudpthread.h"
#include "platform/platform.h"
#include "sim/mgmt_keys.h"
#include "sim/sim_platform.h"
#include "tavutils/tavmodparam.h"
#include "tests/netns.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 4;
constexpr int kConsolePort = 47000;

int dummyKey(TavModParam* param, int, int, void*)
{
    param->appendMessage("x");
    return 0;
}

std::string request()
{
    std::string r = "OBXrequest:ver0.01";
    r += '\0';
    r += std::to_string(kConsolePort);
    r += '\0';
    return r;
}

// The minimal responder.
class Responder {
public:
    explicit Responder(size_t length) : reply_(length, 'r')
    {
        fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        int one = 1;
        ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(TAVUDPThread::kAgentPort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::perror("responder bind");
        thread_ = std::thread([this] { run(); });
    }
    ~Responder()
    {
        stop_ = true;
        thread_.join();
        ::close(fd_);
    }

private:
    void run()
    {
        char buffer[1025];
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            sockaddr_in from{};
            socklen_t length = sizeof from;
            ssize_t got = ::recvfrom(fd_, buffer, 1024, 0, reinterpret_cast<sockaddr*>(&from), &length);
            if (got < 1) continue;
            buffer[got] = '\0';
            if (strcasecmp(buffer, "OBXrequest:ver0.01") != 0) continue;
            size_t header = std::strlen(buffer);
            long port = header + 1 < static_cast<size_t>(got) ? std::strtol(buffer + header + 1, nullptr, 10) : 0;
            from.sin_port = htons(static_cast<uint16_t>(port & 0xFFFF));
            ::sendto(fd_, reply_.data(), reply_.size(), 0, reinterpret_cast<sockaddr*>(&from), length);
        }
    }

    std::string reply_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class Console {
public:
    Console()
    {
        fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        int big = 8 << 20;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(kConsolePort);
        inet_pton(AF_INET, "127.0.0.2", &a.sin_addr);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        to_.sin_family = AF_INET;
        to_.sin_port = htons(TAVUDPThread::kAgentPort);
        to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~Console() { ::close(fd_); }
    void send(const std::string& r) { ::sendto(fd_, r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&to_), sizeof to_); }
    bool receive(int timeoutMs)
    {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0) return false;
        char buffer[2048];
        return ::recv(fd_, buffer, sizeof buffer, 0) > 0;
    }
    void drain()
    {
        while (receive(20)) {
        }
    }

private:
    int fd_;
    sockaddr_in to_{};
};

struct Figures {
    double seconds = 0;
    long answered = 0;
    long lost = 0;
    std::vector<double> latencies;  // microseconds
};

// One request outstanding; a lost one is sent again after 200 ms and counted.
void oneOutstanding(Console& console, long requests, Figures& f)
{
    const std::string r = request();
    auto start = Clock::now();
    for (long i = 0; i < requests; ++i) {
        for (;;) {
            auto sent = Clock::now();
            console.send(r);
            if (console.receive(200)) {
                f.latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
                ++f.answered;
                break;
            }
            ++f.lost;
        }
    }
    f.seconds += std::chrono::duration<double>(Clock::now() - start).count();
}

// Sixteen outstanding: each answer sends the next; a pause of 200 ms with
// nothing answered counts what is in flight as lost and refills.
void sixteenOutstanding(Console& console, long requests, Figures& f)
{
    const std::string r = request();
    auto start = Clock::now();
    long sent = 0, inFlight = 0;
    while (sent < requests || inFlight > 0) {
        while (inFlight < 16 && sent < requests) {
            console.send(r);
            ++sent;
            ++inFlight;
        }
        if (console.receive(200)) {
            ++f.answered;
            --inFlight;
        } else {
            f.lost += inFlight;
            inFlight = 0;
        }
    }
    f.seconds += std::chrono::duration<double>(Clock::now() - start).count();
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: agent_reply DIR [REQUESTS_1] [REQUESTS_16]\n");
        return 2;
    }
    if (std::string why = tavtest::enterPrivateNetwork(); !why.empty()) {
        std::fprintf(stderr, "agent_reply: %s\n", why.c_str());
        return 1;
    }
    const long requests1 = argc > 2 ? std::atol(argv[2]) : 20000;
    const long requests16 = argc > 3 ? std::atol(argv[3]) : 100000;
    tavGlobalDebugLevel = -1;  // the flood of a benchmark is not to be logged

    sim::SimPlatform platform(argv[1]);
    plat::ScopedPlatform scope(platform);
    sim::KeySource keys(platform.module());
    TAVSession session;
    int registered = keys.attach(session);
    for (int i = registered; i < 200; ++i)
        session.RegisterListener(("/tav/public/bench/key" + std::to_string(i) + "/").c_str(), 1000 + i, dummyKey, 4,
                                 nullptr);
    TavUdpList list;
    UDP_DATA data{&list, &session};

    TAVUDPThread::udpInfo.store(&data);
    char description[TAVUDPThread::kMessageSize];
    int length = 0;
    TAVUDPThread::buildMessage(description, "OBXreply:ver0.01", -1, "", &length);
    TAVUDPThread::udpInfo.store(nullptr);

    Figures agent1, base1, agent16, base16;
    Console console;
    for (int round = 0; round < kRounds; ++round) {
        {
            Responder responder(static_cast<size_t>(length));
            console.drain();
            oneOutstanding(console, requests1 / kRounds, base1);
            sixteenOutstanding(console, requests16 / kRounds, base16);
        }
        pthread_t thread;
        pthread_create(&thread, nullptr, TAVUDPThread::runUdpThread, &data);
        while (TAVUDPThread::postPipeReadEnd() < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        console.drain();
        oneOutstanding(console, requests1 / kRounds, agent1);
        sixteenOutstanding(console, requests16 / kRounds, agent16);
        TAVUDPThread::udpThreadCancel();
        pthread_join(thread, nullptr);
    }

    auto rate = [](const Figures& f) { return f.seconds > 0 ? static_cast<double>(f.answered) / f.seconds : 0.0; };
    auto lostShare = [](const Figures& f) {
        long all = f.answered + f.lost;
        return all ? 100.0 * static_cast<double>(f.lost) / static_cast<double>(all) : 0.0;
    };
    std::printf("description: %d bytes; keys in the session: 200\n", length);
    std::printf("1 outstanding, agent: %ld requests, %.0f req/s, p50 %.1f us, p99 %.1f us\n", agent1.answered,
                rate(agent1), percentile(agent1.latencies, 0.5), percentile(agent1.latencies, 0.99));
    std::printf("1 outstanding, responder: %ld requests, %.0f req/s, p50 %.1f us, p99 %.1f us\n", base1.answered,
                rate(base1), percentile(base1.latencies, 0.5), percentile(base1.latencies, 0.99));
    std::printf("1 outstanding, rate agent / responder: %.2f (target at least 0.3)\n", rate(agent1) / rate(base1));
    std::printf("1 outstanding, p99 agent / responder: %.2f (target at most 5)\n",
                percentile(agent1.latencies, 0.99) / percentile(base1.latencies, 0.99));
    std::printf("16 outstanding, agent: %ld answered, %.0f req/s, %ld lost (%.3f%%)\n", agent16.answered, rate(agent16),
                agent16.lost, lostShare(agent16));
    std::printf("16 outstanding, responder: %ld answered, %.0f req/s, %ld lost (%.3f%%)\n", base16.answered,
                rate(base16), base16.lost, lostShare(base16));
    std::printf("16 outstanding, rate agent / responder: %.2f (target at least 0.1)\n", rate(agent16) / rate(base16));
    std::printf("16 outstanding, agent lost: %.3f%% (target below 0.1%%)\n", lostShare(agent16));
    return 0;
}

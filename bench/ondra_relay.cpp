// Throughput of the GUI relay against a minimal relay, on one simulated
// module, on loopback (run by ondra_relay_bench.sh):
//   baseline  a thread of this program: select on the two sockets, recv up to
//             1024 bytes, send them to the other side;
//   relay     the system's relay thread (connectGuisToMgr) between a GUI and
//             the manager's port.
// Both carry ROUNDS round trips of SIZE bytes from a GUI to an echoing fake
// manager and back, in alternating slices of a new GUI connection each.
// Prints both, and the throughput ratio relay / baseline.
//
//     ondra_relay DIR [ROUNDS] [SIZE]     DIR: a module (tavsim create)
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <random>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "driveutils/ondraComm.h"
#include "platform/platform.h"
#include "sim/sim_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSlices = 8;

sockaddr_in loopback(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

// A listening loopback socket on a free port below 32768 (the relay's ports
// are 16-bit signed); the port in `port`.
int listenFree(int& port)
{
    static std::mt19937 pick(static_cast<unsigned>(::getpid()));
    for (;;) {
        port = 20000 + static_cast<int>(pick() % 12000);
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(port);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && ::listen(fd, 5) == 0) return fd;
        ::close(fd);
    }
}

int connectRetrying(int port)
{
    for (int i = 0; i < 2000; ++i) {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(port);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
        ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::fprintf(stderr, "ondra_relay: nothing listens on %d\n", port);
    std::exit(1);
}

bool sendAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// The fake manager: echoes each connection to its end, one after the other.
void echoManager(int listener)
{
    std::thread([listener] {
        char buffer[4096];
        for (;;) {
            int fd = ::accept(listener, nullptr, nullptr);
            ssize_t n;
            while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
                if (!sendAll(fd, buffer, static_cast<size_t>(n))) break;
            ::close(fd);
        }
    }).detach();
}

// The minimal relay: one GUI at a time and its manager connection, until
// either closes.
void minimalRelay(int listener, int managerPort)
{
    std::thread([listener, managerPort] {
        char buffer[1024];
        for (;;) {
            int gui = ::accept(listener, nullptr, nullptr);
            int mgr = connectRetrying(managerPort);
            for (bool open = true; open;) {
                fd_set ready;
                FD_ZERO(&ready);
                FD_SET(gui, &ready);
                FD_SET(mgr, &ready);
                timeval timeout{2, 0};
                if (::select(std::max(gui, mgr) + 1, &ready, nullptr, nullptr, &timeout) < 0) break;
                for (auto [from, to] : {std::pair{gui, mgr}, std::pair{mgr, gui}}) {
                    if (!open || !FD_ISSET(from, &ready)) continue;
                    ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
                    open = n > 0 && ::send(to, buffer, static_cast<size_t>(n), MSG_NOSIGNAL) == n;
                }
            }
            ::close(gui);
            ::close(mgr);
        }
    }).detach();
}

// The GUI's side: ROUNDS round trips; milliseconds, or a negative on a loss.
double roundTrips(int port, int rounds, size_t size)
{
    int fd = connectRetrying(port);
    std::string out(size, '\0'), in(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(i * 7);
    auto trip = [&] {
        if (!sendAll(fd, out.data(), size)) return false;
        for (size_t got = 0; got < size;) {
            ssize_t n = ::recv(fd, in.data() + got, size - got, 0);
            if (n <= 0) return false;
            got += static_cast<size_t>(n);
        }
        return in == out;
    };
    auto t0 = Clock::now();
    bool whole = true;
    for (int r = 0; r < rounds && whole; ++r) whole = trip();
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    ::close(fd);  // ends the relay's pair and the echo
    return whole ? ms : -1;
}

void report(const char* name, int rounds, size_t size, double ms)
{
    double mb = 2.0 * rounds * static_cast<double>(size) / 1e6;
    std::printf("%-9s %d round trips of %zu bytes in %.1f ms (%.1f MB/s relayed)\n", name, rounds, size, ms,
                mb / (ms / 1000.0));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 4) {
        std::fprintf(stderr, "usage: %s DIR [ROUNDS] [SIZE]\n", argv[0]);
        return 2;
    }
    int rounds = argc > 2 ? std::atoi(argv[2]) : 20000;
    long size = argc > 3 ? std::atol(argv[3]) : 512;
    if (rounds < kSlices || rounds > 10000000 || size < 1 || size > 1 << 20) {
        std::fprintf(stderr, "%s: ROUNDS 8 to 10000000, SIZE 1 to 1048576\n", argv[0]);
        return 2;
    }
    // Left to the end of the process, as the relay threads that never end.
    auto* platform = new sim::SimPlatform(argv[1]);
    new plat::ScopedPlatform(*platform);

    int mgrPort = 0, minimalPort = 0, relayPort = 0;
    echoManager(listenFree(mgrPort));
    minimalRelay(listenFree(minimalPort), mgrPort);
    ::close(listenFree(relayPort));  // a port free a moment ago, for the relay to bind
    TavOndraComm::portToMgr = static_cast<int16_t>(mgrPort);
    TavOndraComm::portWkTcp = static_cast<int16_t>(relayPort);
    std::thread(TavOndraComm::connectGuisToMgr, nullptr).detach();

    // In alternating slices, so that both see the same load of the machine.
    double baseline = 0, system = 0;
    for (int slice = 0; slice < kSlices && baseline >= 0 && system >= 0; ++slice) {
        int part = rounds / kSlices + (slice < rounds % kSlices ? 1 : 0);
        double b = roundTrips(minimalPort, part, static_cast<size_t>(size));
        double r = roundTrips(relayPort, part, static_cast<size_t>(size));
        baseline = b < 0 ? -1 : baseline + b;
        system = r < 0 ? -1 : system + r;
    }
    if (baseline < 0 || system < 0) {
        std::fprintf(stderr, "%s: bytes lost or changed on the way\n", argv[0]);
        return 1;
    }
    report("baseline", rounds, static_cast<size_t>(size), baseline);
    report("relay", rounds, static_cast<size_t>(size), system);
    std::printf("relay / minimal relay throughput: %.2f (target: at least 0.5)\n", baseline / system);
    return 0;
}

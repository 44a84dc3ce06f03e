// A private network namespace for a test that binds the agent's fixed ports:
// only loopback, brought up, and no datagram can reach another address or
// another test. Call before any thread starts: a namespace is per thread.
#pragma once

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavtest {

// "" when the test now runs in a namespace of its own with lo up; else why
// not, naming the privilege it lacks.
inline std::string enterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0)
        return std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno) +
               ": a private network namespace needs CAP_SYS_ADMIN (run the tests as root)";
    int s = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0) return std::string("socket: ") + std::strerror(errno);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, "lo", sizeof ifr.ifr_name - 1);
    std::string why;
    if (::ioctl(s, SIOCGIFFLAGS, &ifr) != 0) {
        why = std::string("SIOCGIFFLAGS lo: ") + std::strerror(errno);
    } else {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        if (::ioctl(s, SIOCSIFFLAGS, &ifr) != 0)
            why = std::string("SIOCSIFFLAGS lo up: ") + std::strerror(errno) + ": needs CAP_NET_ADMIN";
    }
    ::close(s);
    return why;
}

} // namespace tavtest

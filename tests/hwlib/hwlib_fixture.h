// A module with a PCI list, a model table that recognises it as "Test Box"
// (configuration "testbox", number 7), and network interfaces answered to
// the socket ioctls.
#pragma once

#include <cstdio>
#include <cstring>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/ioctl.h>

#include <gtest/gtest.h>

#include "support/mapped_platform.h"

namespace tavtest {

struct Interface {
    unsigned char mac[6];
    const char* address;
    bool up;
    int mtu;
};

class NetPlatform : public MappedPlatform {
public:
    static constexpr int kSocket = 4242;

    std::map<std::string, Interface> interfaces;
    bool noSocket = false;
    int opened = 0;
    int closed = 0;

    int socket(int, int, int) override { return noSocket ? -1 : (++opened, kSocket); }
    int close(int fd) override { return fd == kSocket ? (++closed, 0) : MappedPlatform::close(fd); }
    int setsockopt(int fd, int, int, const void*, socklen_t) override { return fd == kSocket ? 0 : -1; }
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        if (fd != kSocket) return MappedPlatform::ioctl(fd, request, arg);
        auto* req = static_cast<ifreq*>(arg);
        auto it = interfaces.find(req->ifr_name);
        if (it == interfaces.end()) return -1;
        const Interface& i = it->second;
        switch (request) {
        case SIOCGIFHWADDR:
            std::memcpy(req->ifr_hwaddr.sa_data, i.mac, 6);
            return 0;
        case SIOCGIFFLAGS:
            req->ifr_flags = i.up ? IFF_UP : 0;
            return 0;
        case SIOCGIFMTU:
            req->ifr_mtu = i.mtu;
            return 0;
        case SIOCGIFADDR: {
            sockaddr_in a{};
            a.sin_family = i.address ? AF_INET : AF_UNSPEC;
            if (i.address) {
                unsigned b[4];
                std::sscanf(i.address, "%u.%u.%u.%u", &b[0], &b[1], &b[2], &b[3]);
                auto* p = reinterpret_cast<unsigned char*>(&a.sin_addr.s_addr);
                for (int k = 0; k < 4; ++k) p[k] = static_cast<unsigned char>(b[k]);
            }
            std::memcpy(&req->ifr_addr, &a, sizeof a);
            return 0;
        }
        default:
            return -1;
        }
    }
};

class HwlibTest : public ::testing::Test {
protected:
    NetPlatform module;
    plat::ScopedPlatform scope{module};

    static constexpr const char* kPci = "0000\t80861237\t0\n"
                                        "0008\t10000021\t5\n"
                                        "0010\t13c11001\t9\n";
    static constexpr const char* kModelFeatures = "/etc/marrowby/brand/testbox/features.conf";
    static constexpr const char* kCommonFeatures = "/etc/marrowby/brand/common/features.conf";

    void SetUp() override
    {
        module.put("/proc/bus/pci/devices", kPci);
        module.put("/etc/marrowby/hwid.conf", "Test Box:testbox:7:80861237,13c11001-0010\n");
        module.interfaces["eth0"] = {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}, "10.0.0.5", true, 1500};
        module.interfaces["eth1"] = {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5F}, nullptr, false, 9000};
        module.interfaces["bond0"] = {{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}, "10.0.0.9", true, 1500};
    }
};

} // namespace tavtest

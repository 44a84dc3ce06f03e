// A simulated module of platform 1 whose PCI list and model table are
// replaced by ones that recognise it as "Test Box" (configuration "testbox",
// number 7), with network interfaces of known addresses.
#pragma once

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "sim/sim_fixture.h"
#include "sim/sim_platform.h"

namespace tavtest {

// Counts the sockets the code opens and closes; `noSocket` makes every socket fail.
class NetPlatform : public sim::SimPlatform {
public:
    using SimPlatform::SimPlatform;

    bool noSocket = false;
    int opened = 0;
    int closed = 0;

    int socket(int domain, int type, int protocol) override
    {
        if (noSocket) {
            errno = EMFILE;
            return -1;
        }
        int fd = SimPlatform::socket(domain, type, protocol);
        if (fd >= 0) ++opened, sockets_.insert(fd);
        return fd;
    }
    int close(int fd) override
    {
        if (sockets_.erase(fd)) ++closed;
        return SimPlatform::close(fd);
    }

private:
    std::set<int> sockets_;
};

class HwlibTest : public ::testing::Test {
protected:
    simtest::TempModule temp;
    NetPlatform module{temp.dir()};
    plat::ScopedPlatform scope{module};

    static constexpr const char* kPci = "0000\t80861237\t0\n"
                                        "0008\t10000021\t5\n"
                                        "0010\t13c11001\t9\n";
    static constexpr const char* kModelFeatures = "/etc/marrowby/brand/testbox/features.conf";
    static constexpr const char* kCommonFeatures = "/etc/marrowby/brand/common/features.conf";

    void SetUp() override
    {
        put("/proc/bus/pci/devices", kPci);
        put("/etc/marrowby/hwid.conf", "Test Box:testbox:7:80861237,13c11001-0010\n");
        module.module().writeState("interfaces",
                                   "eth0 hwaddr=00:1A:2B:3C:4D:5E flags=up mtu=1500 address=10.0.0.5\n"
                                   "eth1 hwaddr=00:1A:2B:3C:4D:5F flags=down mtu=9000\n"
                                   "bond0 hwaddr=00:1A:2B:3C:4D:5E flags=up mtu=1500 address=10.0.0.9\n");
    }

    std::string map(const std::string& path) const { return temp.map(path); }
    void put(const std::string& path, const std::string& text) const { temp.put(path, text); }
    bool exists(const std::string& path) const { return temp.exists(path); }
    std::string get(const std::string& path) const { return temp.get(path); }
};

} // namespace tavtest

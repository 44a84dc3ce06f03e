// A simulated module with tw controllers, its platform installed and the
// controller API's state made anew against it.
#pragma once

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "sim/tw_api_state.h"
#include "sim/tw_state.h"
#include "sim_fixture.h"
#include "tw_api/tw_api.h"

namespace twtest {

inline std::string makeTw(simtest::TempModule& m, int platform, const std::string& units = "", bool procScsi = true)
{
    sim::CreateOptions o;
    o.platform = platform;
    o.sectors = simtest::kSectors;
    o.units = units;
    o.procScsi = procScsi;
    return sim::createModule(m.dir(), o);
}

inline tw_id_type controllerId(int n)
{
    tw_id_type id;
    tw_create_controller_id(n, &id);
    return id;
}

// Records what each driver call was given, before the driver sees it.
class Recorder : public plat::ForwardingPlatform {
public:
    struct Call {
        unsigned long request;
        std::vector<uint8_t> bytes;
    };
    explicit Recorder(plat::Platform& inner) : ForwardingPlatform(inner) {}
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        const auto* b = static_cast<const uint8_t*>(arg);
        uint32_t length = 0;
        size_t head = 0;
        if (request == 0x1F) {
            std::memcpy(&length, b, 4);
            head = 1024;
        } else if (request >= 262 && request <= 269) {
            std::memcpy(&length, b + 20, 4);
            head = 1536;
        }
        calls.push_back({request, std::vector<uint8_t>(b, b + head + length)});
        return inner().ioctl(fd, request, arg);
    }
    std::vector<Call> calls;
};

class TwModule {
public:
    explicit TwModule(int platform, const std::string& units = "", bool procScsi = true)
        : m(platform, false), created(makeTw(m, platform, units, procScsi)), p(m.dir()), scope(p)
    {
        sim::resetTwApi();
    }
    // Changes controller `index`'s state: a key of its file.
    void set(int index, const std::string& key, const std::string& value)
    {
        sim::tw::twView(p.module()).update(index, [&](sim::tw::Controller& c) {
            c.set(key, value);
            return true;
        });
    }
    void arm(int index, const sim::tw::TwFault& fault)
    {
        sim::tw::twView(p.module()).update(index, [&](sim::tw::Controller& c) {
            c.faults.push_back(fault);
            return true;
        });
    }
    uint64_t ioctls(const std::string& node) { return p.calls(sim::Op::Ioctl, node); }

    simtest::TempModule m;
    std::string created;
    sim::SimPlatform p;
    plat::ScopedPlatform scope;
};

inline uint64_t nowMicros()
{
    struct timeval tv {};
    plat::gettimeofday(&tv);
    return uint64_t(tv.tv_sec) * 1000000u + uint64_t(tv.tv_usec);
}

// The API code of the error record.
inline uint32_t apiCode()
{
    tw_api_error_type e;
    tw_get_error_information(&e);
    return e.api_error_code;
}

// Keeps the descriptors of driver nodes that are open, for the fault sweeps.
class OpenNodes : public plat::ForwardingPlatform {
public:
    explicit OpenNodes(plat::Platform& inner) : ForwardingPlatform(inner) {}
    int open(const char* path, int flags, mode_t mode) override
    {
        const int fd = inner().open(path, flags, mode);
        if (fd >= 0 && std::string(path).rfind("/dev/tw", 0) == 0) open_.insert(fd);
        return fd;
    }
    int close(int fd) override
    {
        open_.erase(fd);
        return inner().close(fd);
    }
    size_t count() const { return open_.size(); }

private:
    std::set<int> open_;
};

} // namespace twtest

// A simulated module with the three daemons installed, and the helpers of the
// daemon tests: captured log output, bounded real waits, the start log.
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "driveutils/ondraProcess.h"
#include "platform/platform.h"
#include "sim/daemons.h"
#include "sim/module.h"
#include "sim/sim_fixture.h"

namespace ondratest {

inline const char* const kDataDirs[3] = {"/var/ondra/store", "/var/ondra/vmgr", "/var/ondra/mgr"};

class OndraModule : public testing::Test {
protected:
    OndraModule() : platform_(temp_.dir()), scope_(platform_)
    {
        sim::installDaemons(platform_.module());
        for (int type = 0; type < 3; ++type) setDataPath(kDataDirs[type], type);
    }
    ~OndraModule() override { sim::killDaemons(platform_.module()); }

    sim::Module& module() { return platform_.module(); }
    std::string script(int type) { return sim::daemonScript(platform_.module(), type); }

    // The argument vectors of the starts in `mode` ("init", "daemon", "deinit"), in order.
    std::vector<sim::DaemonStart> starts(const char* mode)
    {
        std::vector<sim::DaemonStart> out;
        for (sim::DaemonStart& s : sim::daemonStarts(platform_.module()))
            if (s.argv.size() > 2 && s.argv[2] == mode) out.push_back(s);
        return out;
    }

    // Waits in real time, bounded, until `done` holds.
    static bool eventually(const std::function<bool()>& done, int seconds = 60)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (!done()) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }

    simtest::TempModule temp_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
};

// The log stream (standard output) and the diagnostics (standard error) of `run`.
struct Captured {
    std::string out;
    std::string err;
};

inline Captured capture(const std::function<void()>& run)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    run();
    std::fflush(nullptr);
    Captured c;
    c.err = testing::internal::GetCapturedStderr();
    c.out = testing::internal::GetCapturedStdout();
    return c;
}

} // namespace ondratest

// One bay change on a simulated 1U module, against updatemount on the same
// module (run by hot_swap_cycle_bench.sh):
//   baseline  updatemount run as the program it is, in this process: the
//             signatures of all four drives written;
//   cycle     the IDE bus takes drive 3 down and brings it back (powerDown,
//             powerUp) with the chassis controller's link running, until the
//             mount-time thread the cycle starts has ended.
// Every wait of the cycle (the DSP's rounds, the spin-up delay, the rebuild)
// is on the virtual clock; the store is not started, since its processes
// are real and run on the host's clock. Prints the medians of RUNS runs,
// their ratio and the virtual time of one cycle.
//
//     hot_swap_cycle DIR [RUNS]   DIR: a partitioned, signed module with its RAID
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "driveutils/dsp/tavdsp.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/tavbus.h"
#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "sim/programs.h"
#include "sim/sign.h"
#include "sim/sim_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

long long virtualSeconds()
{
    timeval tv{};
    plat::gettimeofday(&tv);
    return tv.tv_sec;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s DIR [RUNS]\n", argv[0]);
        return 2;
    }
    const int runs = argc == 3 ? std::atoi(argv[2]) : 5;
    if (runs < 1 || runs > 1000) {
        std::fprintf(stderr, "%s: RUNS must be 1 to 1000\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];

    std::vector<double> base;
    for (int i = 0; i <= runs; ++i) {
        sim::QuietOutput quiet;
        const auto t0 = Clock::now();
        const int rc = sim::runProgram(dir, {"updatemount", "2", "1000", "2000"});
        if (rc != 0) {
            std::fprintf(stderr, "%s: updatemount gave %d\n", argv[0], rc);
            return 1;
        }
        if (i > 0) base.push_back(millisSince(t0));  // the first warms the caches
    }

    // Left to the end of the process: the link's threads never end.
    auto* platform = new sim::SimPlatform(dir);
    new plat::ScopedPlatform(*platform);
    std::vector<double> cycle, calls;
    long long virtualCycle = 0;
    {
        sim::QuietOutput quiet;
        sim::resetDriveManager();
        TavDriveMgr::init();
        TavDriveMgr::readSignatureIntoMemory();
        if (tavDspInitModData() != 0) return 1;
        const auto until = Clock::now() + std::chrono::seconds(20);
        while (platform->scheduler().threads() < 3 && Clock::now() < until) std::this_thread::yield();
        plat::sleep(2);
        while (TavDriveMgr::checkRebuild.load()) plat::sleep(1);
        RaidDeviceMgmt::TavBus* bus = TavDriveMgr::getBus(3);
        for (int i = 0; i < runs; ++i) {
            const long long v0 = virtualSeconds();
            const auto t0 = Clock::now();
            const int down = bus->powerDown(3, false);
            const int up = bus->powerUp(3);
            calls.push_back(millisSince(t0));
            while (TavDriveMgr::checkRebuild.load()) plat::sleep(1);
            cycle.push_back(millisSince(t0));
            virtualCycle = virtualSeconds() - v0;
            if (down != 0 || up != 0) {
                std::fprintf(stderr, "%s: powerDown gave %d, powerUp %d\n", argv[0], down, up);
                return 1;
            }
        }
    }
    const double b = median(base), c = median(cycle);
    std::printf("power cycle / updatemount, same simulated module: %.2f (target <= 10)\n", c / b);
    std::printf("power cycle wall time: %.2f ms for %lld virtual seconds; %.2f ms until powerUp returned\n", c,
                virtualCycle, median(calls));
    std::printf("updatemount wall time: %.2f ms (4 drives written)\n", b);
    std::fflush(stdout);
    platform->scheduler().park();
    std::_Exit(0);
}

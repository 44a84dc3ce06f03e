// The chassis controller's link at rest, against a plain loop, on one
// simulated module (run by dsp_idle_bench.sh):
//   baseline  one thread: SECONDS times a record poll and a one-second sleep;
//   link      the kernel reader and the reader against a DSP that sends
//             nothing, while this thread sleeps SECONDS on the virtual clock.
// Prints the real times, their ratio, and the real time of one status command
// against a DSP that answers at once (median of 21).
//
//     dsp_idle DIR [SECONDS]     DIR: a module of an IDE platform (tavsim create)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "sim/sim_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s DIR [SECONDS]\n", argv[0]);
        return 2;
    }
    unsigned seconds = argc == 3 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 600;
    if (seconds < 1 || seconds > 86400) {
        std::fprintf(stderr, "%s: SECONDS must be 1 to 86400\n", argv[0]);
        return 2;
    }
    // Left to the end of the process: the link's threads never end.
    auto* platform = new sim::SimPlatform(argv[1]);
    new plat::ScopedPlatform(*platform);
    TavDriveMgr::nDrives = 4;

    // Baseline: the same polls and sleeps by one thread.
    int fd = plat::open("/dev/tav_dsp_1", O_RDWR);
    if (fd < 0) {
        std::fprintf(stderr, "%s: %s has no chassis controller\n", argv[0], argv[1]);
        return 1;
    }
    auto t0 = Clock::now();
    for (unsigned i = 0; i < seconds; ++i) {
        tavDspKernelChar record{};
        plat::ioctl(fd, TAV_DSP_NEXT_MSG, &record);
        plat::sleep(1);
    }
    double baseline = millisSince(t0);
    plat::close(fd);

    // The link: both readers up, the first status taken, then idle.
    if (tavDspInitModData() != 0) return 1;
    while (platform->scheduler().threads() < 3) std::this_thread::yield();
    plat::sleep(2);
    t0 = Clock::now();
    plat::sleep(seconds);
    double link = millisSince(t0);

    std::vector<double> status;
    for (int i = 0; i < 21; ++i) {
        char buffer[64] = {};
        auto s0 = Clock::now();
        if (dspStatus(buffer, sizeof buffer) != 0) {
            std::fprintf(stderr, "%s: dspStatus failed: %s\n", argv[0], buffer);
            return 1;
        }
        status.push_back(millisSince(s0));
    }
    std::sort(status.begin(), status.end());

    std::printf("idle link / plain loop, %u virtual seconds: %.2f (target <= 4)\n", seconds, link / baseline);
    std::printf("idle link: %.1f ms real; plain loop: %.1f ms real\n", link, baseline);
    std::printf("one dspStatus against a DSP that answers at once: %.3f ms real, 1 s virtual (for information)\n",
                status[status.size() / 2]);
    std::fflush(stdout);
    platform->scheduler().park();
    _exit(0);
}

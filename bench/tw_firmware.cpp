// The simulated 9000 firmware's parameter reads against reads of a plain
// file of the module, through the same simulated platform: 10,000 reads of
// the model name (table 1026, parameter 8, 64 bytes) by the driver's control
// code 264, and 10,000 reads of 1,536 bytes of a file. The controller's state
// is parsed again only when its file changed, so a read costs the driver's
// checks, the firmware's lookup and its log line.
//
//     tw_firmware [CALLS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/sysmacros.h>
#include <vector>

#include "platform/platform.h"
#include "sim/create.h"
#include "sim/sim_platform.h"
#include "sim/tw_state.h"

int main(int argc, char** argv)
{
    const int calls = argc > 1 ? std::atoi(argv[1]) : 10000;
    std::string templ = "/tmp/tw-firmware-bench.XXXXXX";
    if (!mkdtemp(templ.data())) return 1;
    const std::string dir = templ + "/m";
    sim::CreateOptions options;
    options.platform = 9;
    options.sectors = 65536;
    if (std::string err = sim::createModule(dir, options); !err.empty()) {
        std::fprintf(stderr, "tw_firmware: %s\n", err.c_str());
        return 1;
    }
    int status = 0;
    {
        sim::SimPlatform platform(dir);
        plat::ScopedPlatform scope(platform);
        plat::mknod("/dev/twa0", 8576, makedev(sim::tw::kMajor9000, 0));
        const int node = plat::open("/dev/twa0", O_RDWR, 0);
        std::vector<char> plain(1536, 'x');
        int file = plat::open("/var/log/plain", O_RDWR | O_CREAT, 0644);
        plat::write(file, plain.data(), plain.size());
        if (node < 0 || file < 0) return 1;

        std::vector<uint8_t> buf(1536 + 8 + 64, 0);
        auto prepare = [&] {
            std::memset(buf.data(), 0, buf.size());
            const uint32_t control = 264, length = 8 + 64;
            std::memcpy(&buf[0], &control, 4);
            std::memcpy(&buf[20], &length, 4);
            buf[512 + 124] = 128;
            buf[640] = 0x52;
            buf[641] = 4;
            buf[646] = 1;
            const uint16_t table = 0x8000 | 1026, param = 8, size = 64;
            std::memcpy(&buf[1536], &table, 2);
            std::memcpy(&buf[1538], &param, 2);
            std::memcpy(&buf[1540], &size, 2);
        };
        // Interleaved in ten rounds, so that a busy machine weighs on both alike.
        using Clock = std::chrono::steady_clock;
        double firmware = 0, baseline = 0;
        const int rounds = 10;
        for (int round = 0; round < rounds; ++round) {
            const int n = calls / rounds + (round < calls % rounds ? 1 : 0);
            auto t0 = Clock::now();
            for (int i = 0; i < n; ++i) {
                prepare();
                if (plat::ioctl(node, 264, buf.data()) != 0 || buf[512 + 132] != 0) status = 1;
            }
            auto t1 = Clock::now();
            for (int i = 0; i < n; ++i)
                if (plat::pread(file, plain.data(), plain.size(), 0) != 1536) status = 1;
            auto t2 = Clock::now();
            firmware += std::chrono::duration<double>(t1 - t0).count();
            baseline += std::chrono::duration<double>(t2 - t1).count();
        }
        std::printf("firmware: %d parameter reads in %.3f s (%.2f us each)\n", calls, firmware, firmware * 1e6 / calls);
        std::printf("baseline: %d reads of 1536 bytes in %.3f s (%.2f us each)\n", calls, baseline, baseline * 1e6 / calls);
        std::printf("ratio %.2f (target at most 3)\n", firmware / baseline);
        plat::close(node);
        plat::close(file);
    }
    std::string rm = "rm -rf " + templ;
    if (std::system(rm.c_str()) != 0) status = 1;
    return status;
}

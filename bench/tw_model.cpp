// tw_get_model on a simulated 9000 controller against a baseline that makes
// the same driver calls (open, compatibility request, close, open, model
// request, close) with buffers built once, through the same simulated
// platform (run by tw_model_bench.sh). Each side is the best of RUNS runs
// of CALLS calls.
//
//     tw_model [CALLS] [RUNS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "sim/create.h"
#include "sim/load_guard.h"
#include "sim/sim_platform.h"
#include "sim/tw_api_state.h"
#include "tw_api/tw_api.h"
#include "tw_api/tw_api_private.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void die(const std::string& why)
{
    std::fprintf(stderr, "tw_model: %s\n", why.c_str());
    std::exit(1);
}

// A parameter request of the 9000 family, as the driver wants it.
std::vector<uint8_t> request(uint16_t table, uint16_t parameter, uint16_t size)
{
    std::vector<uint8_t> b(1536 + 8 + size);
    TAG_TW_Ioctl_Apache head {};
    head.driver_command.control_code = twp::kControlFirmwarePassThrough;
    head.driver_command.buffer_length = 8u + size;
    head.firmware_command.header.header_desc[0] = twp::kHeaderDescSize;
    head.firmware_command.command.byte0 = twp::byte0Of(twp::kOpGetParam, twp::kSglOffsetParam);
    head.firmware_command.command.unit = 4;
    head.firmware_command.command.sgl_entries = 1;
    std::memcpy(b.data(), &head, sizeof head);
    TAG_GP_Param_Apache param {uint16_t(table | twp::kTableIdFlag9000), parameter, size, 0};
    std::memcpy(b.data() + 1536, &param, sizeof param);
    return b;
}

double baseline(int calls)
{
    const twp::Param& compat = twp::kTable9000[twp::Item::Compatibility];
    const twp::Param& model = twp::kTable9000[twp::Item::Model];
    const std::vector<uint8_t> compatRequest = request(compat.table, compat.parameter, compat.size);
    const std::vector<uint8_t> modelRequest = request(model.table, model.parameter, model.size);
    std::vector<uint8_t> work(modelRequest.size());
    const auto t0 = Clock::now();
    for (int i = 0; i < calls; ++i) {
        for (const auto* r : {&compatRequest, &modelRequest}) {
            const int fd = plat::open("/dev/twa0", O_RDWR);
            if (fd < 0) die("open /dev/twa0");
            std::memcpy(work.data(), r->data(), r->size());
            if (plat::ioctl(fd, twp::kControlFirmwarePassThrough, work.data()) != 0) die("ioctl");
            plat::close(fd);
        }
    }
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

double api(int calls)
{
    tw_id_type c;
    tw_create_controller_id(0, &c);
    char model[TW_MODEL_SIZE];
    const auto t0 = Clock::now();
    for (int i = 0; i < calls; ++i)
        if (tw_get_model(c, model) != 0) die("tw_get_model");
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

} // namespace

int main(int argc, char** argv)
{
    sim::releaseLoadGuard();
    const int calls = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
    char templ[] = "/tmp/tw-model-bench.XXXXXX";
    if (!::mkdtemp(templ)) die("mkdtemp");
    const std::string dir = std::string(templ) + "/m";
    sim::CreateOptions options;
    options.platform = 9;
    const std::string err = sim::createModule(dir, options);
    if (!err.empty()) die(err);
    double best = 1e300, bestBase = 1e300;
    {
        sim::SimPlatform platform(dir);
        plat::ScopedPlatform scope(platform);
        sim::resetTwApi();
        for (int r = 0; r < runs; ++r) {
            bestBase = std::min(bestBase, baseline(calls));
            best = std::min(best, api(calls));
        }
    }
    std::filesystem::remove_all(templ);
    std::printf("tw_get_model: %d calls %.1f ms, baseline %.1f ms, ratio %.3f (target <= 1.25)\n", calls, best,
                bestBase, best / bestBase);
    return 0;
}

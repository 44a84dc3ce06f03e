// The controller status poll (controller list and number, unit list, per
// unit its number, mode and configuration, drive list, per drive its
// number, serial number and identify data) on a simulated 9000 controller.
//
//     tw_poll status [POLLS] [RUNS]
//         the poll in tw_* calls against a baseline that makes the same
//         driver calls (recorded from one poll) with buffers built once,
//         through the same simulated platform; best of RUNS.
//     tw_poll rebuild [POLLS] [RUNS]
//         POLLS polls while a twelve-drive parity unit rebuilds, the clock
//         moving 10 virtual hours in all, against POLLS polls over 10
//         virtual seconds: the model's cost must not grow with virtual time.
//         Best of RUNS (2) for each.
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
#include "sim/module.h"
#include "sim/sim_platform.h"
#include "sim/tw_api_state.h"
#include "sim/tw_state.h"
#include "tw_api/tw_api.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void die(const std::string& why)
{
    std::fprintf(stderr, "tw_poll: %s\n", why.c_str());
    std::exit(1);
}

void poll()
{
    tw_id_list_type controllers, units, drives;
    if (tw_get_controller_id_list(&controllers) != 0) die("tw_get_controller_id_list");
    int number = 0;
    if (tw_get_controller_number(controllers.list[0], &number) != 0) die("tw_get_controller_number");
    if (tw_get_unit_id_list(controllers.list[0], &units) != 0) die("tw_get_unit_id_list");
    for (int i = 0; i < units.length; ++i) {
        int n = 0, mode = 0, config = 0;
        if (tw_get_unit_number(units.list[i], &n) != 0 || tw_get_unit_mode(units.list[i], &mode) != 0 ||
            tw_get_unit_configuration(units.list[i], &config) != 0)
            die("unit");
    }
    if (tw_get_drive_id_list(controllers.list[0], &drives) != 0) die("tw_get_drive_id_list");
    for (int i = 0; i < drives.length; ++i) {
        int n = 0;
        char serial[TW_SERIAL_NUMBER_SIZE];
        unsigned char ident[TW_SECTOR_SIZE];
        if (tw_get_drive_number(drives.list[i], &n) != 0 || tw_get_drive_serial_number(drives.list[i], serial) != 0 ||
            tw_get_drive_ident_data(drives.list[i], ident) != 0)
            die("drive");
    }
}

// Records the driver calls of the API: each request with its whole buffer.
class Recorder : public plat::ForwardingPlatform {
public:
    struct Call {
        unsigned long request;
        std::vector<uint8_t> bytes;
    };
    explicit Recorder(plat::Platform& inner) : ForwardingPlatform(inner) {}
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        uint32_t length = 0;
        std::memcpy(&length, static_cast<const uint8_t*>(arg) + 20, 4);
        const auto* b = static_cast<const uint8_t*>(arg);
        calls.push_back({request, std::vector<uint8_t>(b, b + 1536 + length)});
        return inner().ioctl(fd, request, arg);
    }
    std::vector<Call> calls;
};

double timePolls(int polls)
{
    const auto t0 = Clock::now();
    for (int i = 0; i < polls; ++i) poll();
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

double replay(const std::vector<Recorder::Call>& calls, int polls)
{
    std::vector<uint8_t> work;
    const auto t0 = Clock::now();
    for (int i = 0; i < polls; ++i)
        for (const Recorder::Call& c : calls) {
            const int fd = plat::open("/dev/twa0", O_RDWR);
            if (fd < 0) die("open /dev/twa0");
            work = c.bytes;
            if (plat::ioctl(fd, c.request, work.data()) != 0) die("ioctl");
            plat::close(fd);
        }
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

std::string makeModule(const std::string& dir, uint64_t sectors)
{
    sim::CreateOptions options;
    options.platform = 15;
    options.sectors = sectors;
    options.units = "raid5";
    const std::string err = sim::createModule(dir, options);
    if (!err.empty()) die(err);
    return dir;
}

int status(const std::string& root, int polls, int runs)
{
    const std::string dir = makeModule(root + "/status", 156301488);
    double best = 1e300, bestBase = 1e300;
    size_t perPoll = 0;
    {
        sim::SimPlatform platform(dir);
        plat::ScopedPlatform scope(platform);
        sim::resetTwApi();
        Recorder rec(platform);
        {
            plat::ScopedPlatform recording(rec);
            poll();
        }
        perPoll = rec.calls.size();
        for (int r = 0; r < runs; ++r) {
            bestBase = std::min(bestBase, replay(rec.calls, polls));
            best = std::min(best, timePolls(polls));
        }
    }
    std::printf("status poll: %d polls of %zu driver calls, tw_* %.1f ms, baseline %.1f ms, ratio %.3f (target <= 1.3)\n",
                polls, perPoll, best, bestBase, best / bestBase);
    return 0;
}

// POLLS polls while the clock moves `totalSeconds` in equal steps.
double rebuildRun(const std::string& dir, int polls, double totalSeconds, std::string& end)
{
    sim::SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    sim::resetTwApi();
    sim::tw::twView(platform.module()).update(0, [](sim::tw::Controller& c) {
        c.setNum("rebuild-rate", 1);
        return true;
    });
    tw_id_type drive, unit;
    tw_create_drive_id(0, 11, &drive);
    tw_create_unit_id(0, 0, nullptr, 0, &unit);
    if (tw_remove_drive(drive) != 0 || tw_add_drive(drive) != 0) die("remove and add port 11");
    tw_id_list_type list{};
    list.list[0] = drive;
    list.length = 1;
    if (tw_rebuild_unit(unit, &list) != 0) die("tw_rebuild_unit");
    const uint64_t step = static_cast<uint64_t>(totalSeconds * 1e6 / polls);
    const auto t0 = Clock::now();
    for (int i = 0; i < polls; ++i) {
        poll();
        platform.module().advance(step);
    }
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    int mode = 0, percent = 0;
    tw_get_unit_mode(unit, &mode);
    tw_get_unit_percentage_complete(unit, &percent);
    char text[64];
    std::snprintf(text, sizeof text, "mode 0x%02X, %d%%", mode, percent);
    end = text;
    return ms;
}

int rebuild(const std::string& root, int polls, int runs)
{
    // Rate 1 moves 8 MiB a virtual second: 580,000,000 sectors take about
    // 9.8 virtual hours, so that the rebuild ends within the long run.
    const uint64_t sectors = 580000000;
    std::string endLong, endShort;
    double shortMs = 1e300, longMs = 1e300;
    // Each side the best of RUNS, on fresh modules, in turns.
    for (int r = 0; r < runs; ++r) {
        const std::string n = std::to_string(r);
        shortMs = std::min(shortMs, rebuildRun(makeModule(root + "/short" + n, sectors), polls, 10, endShort));
        longMs = std::min(longMs, rebuildRun(makeModule(root + "/long" + n, sectors), polls, 36000, endLong));
    }
    std::printf("rebuild poll: %d polls over 10 virtual hours %.1f ms (%s), over 10 virtual seconds %.1f ms (%s), "
                "ratio %.3f (target <= 1.2)\n",
                polls, longMs, endLong.c_str(), shortMs, endShort.c_str(), longMs / shortMs);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    sim::releaseLoadGuard();
    const std::string mode = argc > 1 ? argv[1] : "status";
    const int polls = argc > 2 ? std::atoi(argv[2]) : (mode == "rebuild" ? 3600 : 200);
    const int runs = argc > 3 ? std::atoi(argv[3]) : (mode == "rebuild" ? 2 : 3);
    if ((mode != "status" && mode != "rebuild") || polls <= 0 || runs <= 0)
        die("usage: tw_poll status [POLLS] [RUNS] | tw_poll rebuild [POLLS] [RUNS]");
    char templ[] = "/tmp/tw-poll-bench.XXXXXX";
    if (!::mkdtemp(templ)) die("mkdtemp");
    const int rc = mode == "status" ? status(templ, polls, runs) : rebuild(templ, polls, runs);
    std::filesystem::remove_all(templ);
    return rc;
}

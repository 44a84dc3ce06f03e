// Recovery of the NVRAM card after a power failure, against a baseline that
// makes the same transfers, on one simulated card (run by
// nvram_recover_bench.sh):
//   recovery  nvram_recover_flash_to_sdram: per page a flash-to-SDRAM and an
//             SDRAM-to-host transfer, the ECC check and the chained CRC;
//   baseline  the same two transfers per page with nvram_memcpy and one
//             nvram_checksum_data pass over the page;
//   memcpy    a plain memcpy of the same bytes, page by page.
// Each is the best of RUNS; the card is filled and power-failed again before
// each recovery (not timed).
//
//     nvram_recover MIB [RUNS]          times and ratios on a card of MIB MiB
//     nvram_recover --rss MIB           peak resident memory of one recovery
//     nvram_recover --recover-only DIR  (the process whose memory --rss reads)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "nvram/nvram_api.h"
#include "platform/platform.h"
#include "sim/create.h"
#include "sim/nvram.h"
#include "sim/sim_platform.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kPage = 2048;
constexpr uint32_t kFlashPage = 2112;
constexpr uint32_t kPagesPerBlock = 32;

double millisSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

void quiet(const char*) {}

[[noreturn]] void die(const std::string& why)
{
    std::fprintf(stderr, "nvram_recover: %s\n", why.c_str());
    std::exit(1);
}

// A module with a card of `mib` MiB of SDRAM, filled and power-failed.
std::string makeCard(const std::string& dir, uint32_t mib)
{
    sim::CreateOptions options;
    options.identityOnly = true;
    std::string err = sim::createModule(dir, options);
    if (!err.empty()) die(err);
    sim::NvramGeometry g;
    g.sdramPages = mib * (1024 * 1024 / kPage);
    // Room for the data, the spare blocks and the one block the count keeps free.
    g.flashPages = g.sdramPages + (g.badBlockMax + 2) * kPagesPerBlock;
    sim::SimPlatform platform(dir);
    err = sim::nvramAdd(platform.module(), g);
    if (!err.empty()) die(err);
    return dir;
}

void powerFail(sim::SimPlatform& platform)
{
    sim::nvramFill(platform.module(), 7);
    if (sim::nvramPowerFail(platform.module()) != 0) die("the auto copy failed");
}

nvram_t openCard()
{
    nvram_t h = nullptr;
    nvram_error_t e = nvram_open(NVRAM_DEVICE, NVRAM_MODE_READ_WRITE, &h, quiet);
    if (e != NVRAM_SUCCESS) die(std::string("open: ") + nvram_error_str(e));
    return h;
}

double timeRecovery(sim::SimPlatform& platform)
{
    powerFail(platform);
    nvram_t h = openCard();
    if (nvram_set_nvram_writable(h, 1) != NVRAM_SUCCESS) die("cannot make the card writable");
    auto t0 = Clock::now();
    nvram_error_t e = nvram_recover_flash_to_sdram(h);
    double ms = millisSince(t0);
    if (e != NVRAM_SUCCESS) die(std::string("recovery: ") + nvram_error_str(e));
    nvram_close(h);
    return ms;
}

// The same transfers as recovery, and one CRC pass per page.
double timeBaseline(sim::SimPlatform& platform, uint32_t pages)
{
    powerFail(platform);
    nvram_t h = openCard();
    if (nvram_set_nvram_writable(h, 1) != NVRAM_SUCCESS) die("cannot make the card writable");
    int fd = -1;
    nvram_get_fd(h, &fd);
    void* d = plat::mmap(nullptr, sizeof(nvramd_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, NVRAM_MMAP_DESCRIPTOR);
    void* p = plat::mmap(nullptr, kFlashPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, NVRAM_MMAP_HOST_PAGE);
    if (d == MAP_FAILED || p == MAP_FAILED) die("mmap");
    uint32_t descrBus = 0, hostBus = 0;
    std::memcpy(&descrBus, d, 4);
    std::memcpy(&hostBus, p, 4);
    auto* descr = static_cast<nvramd_t*>(d);
    uint64_t seed = 0;
    auto t0 = Clock::now();
    for (uint32_t page = 0; page < pages; ++page) {
        uint64_t at = uint64_t{page} * kPage;
        nvram_memcpy(h, descr, descrBus, at, at, kFlashPage, NVRAM_OP_F2S, 256);
        nvram_memcpy(h, descr, descrBus, at, hostBus, kFlashPage, NVRAM_OP_S2H, 256);
        seed = nvram_checksum_data(p, kPage, NVRAM_CRC_32_ETHERNET, seed) & 0xffffffffu;
    }
    double ms = millisSince(t0);
    if (seed == 0x12345678) std::puts("");  // keeps the CRC from being optimised away
    plat::munmap(d, sizeof(nvramd_t));
    plat::munmap(p, kFlashPage);
    nvram_close(h);
    return ms;
}

double timeMemcpy(uint32_t pages)
{
    std::vector<uint8_t> from(uint64_t{pages} * kFlashPage, 0x5a), to(from.size());
    auto t0 = Clock::now();
    for (int pass = 0; pass < 2; ++pass)
        for (uint64_t at = 0; at < from.size(); at += kFlashPage) std::memcpy(to.data() + at, from.data() + at, kFlashPage);
    double ms = millisSince(t0);
    if (to[from.size() / 2] != 0x5a) die("memcpy");
    return ms;
}

int recoverOnly(const char* dir)
{
    sim::SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    nvram_t h = openCard();
    if (nvram_set_nvram_writable(h, 1) != NVRAM_SUCCESS) die("cannot make the card writable");
    nvram_error_t e = nvram_recover_flash_to_sdram(h);
    nvram_close(h);
    return e == NVRAM_SUCCESS ? 0 : 1;
}

// Peak resident memory, in KiB, of a fresh process recovering a card of `mib` MiB.
long peakOfRecovery(const char* self, const std::string& work, uint32_t mib)
{
    std::string dir = work + "/rss" + std::to_string(mib);
    makeCard(dir, mib);
    {
        sim::SimPlatform platform(dir);
        powerFail(platform);
    }
    pid_t pid = fork();
    if (pid == 0) {
        execl(self, self, "--recover-only", dir.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    struct rusage usage {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("the recovery of " + std::to_string(mib) + " MiB failed");
    return usage.ru_maxrss;
}

uint32_t parseMib(const char* word)
{
    char* end = nullptr;
    unsigned long v = std::strtoul(word, &end, 10);
    if (!*word || *end || v < 1 || v > 256) die(std::string("MIB must be 1 to 256, not ") + word);
    return static_cast<uint32_t>(v);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--recover-only") == 0) return recoverOnly(argv[2]);
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s MIB [RUNS] | --rss MIB\n", argv[0]);
        return 2;
    }
    char templ[] = "/tmp/nvram-bench.XXXXXX";
    if (!mkdtemp(templ)) die("mkdtemp");
    std::string work = templ;
    if (std::strcmp(argv[1], "--rss") == 0) {
        if (argc != 3) die("--rss needs MIB");
        uint32_t mib = parseMib(argv[2]);
        long small = peakOfRecovery(argv[0], work, 1);
        long large = peakOfRecovery(argv[0], work, mib);
        std::filesystem::remove_all(work);
        std::printf("peak resident memory of recovery: 1 MiB card %ld KiB, %u MiB card %ld KiB, difference %ld KiB\n",
                    small, mib, large, large - small);
        return 0;
    }
    uint32_t mib = parseMib(argv[1]);
    int runs = argc == 3 ? std::atoi(argv[2]) : 3;
    if (runs < 1 || runs > 100) die("RUNS must be 1 to 100");
    std::string dir = makeCard(work + "/m", mib);
    const uint32_t pages = mib * (1024 * 1024 / kPage);
    double recovery = 1e300, baseline = 1e300, plain = 1e300;
    {
        sim::SimPlatform platform(dir);
        plat::ScopedPlatform scope(platform);
        for (int i = 0; i < runs; ++i) {
            recovery = std::min(recovery, timeRecovery(platform));
            baseline = std::min(baseline, timeBaseline(platform, pages));
            plain = std::min(plain, timeMemcpy(pages));
        }
    }
    std::filesystem::remove_all(work);
    std::printf("card: %u MiB, %u pages\n", mib, pages);
    std::printf("recovery: %.2f ms\nbaseline (transfers and one CRC pass): %.2f ms\nplain memcpy: %.2f ms\n", recovery,
                baseline, plain);
    std::printf("recovery / baseline: %.3f\nrecovery / plain memcpy: %.1f\n", recovery / baseline, recovery / plain);
    return 0;
}

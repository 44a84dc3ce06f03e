// Fault sweep of a recovery: one run counts the calls on the card (opens,
// ioctls, mappings, register stores); then each call in turn is made to fail
// in a fresh copy of the card, in a child process. After each run: the child
// ended by itself or by one of the library's deliberate stops with its text,
// within the time limit, and the card says SDRAM only if every page of the
// data came back.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "nvram/nvram_api.h"
#include "nvram_card_fixture.h"
#include "platform/platform.h"
#include "sim/create.h"
#include "sim/nvram.h"
#include "sim/sim_platform.h"

namespace {

constexpr uint32_t kSeed = 11;
constexpr int kLimitSeconds = 60;

// Three blocks of data after a factory-bad first block, and a CRC word that
// reads wrong once.
sim::NvramGeometry sweepGeometry()
{
    sim::NvramGeometry g;
    g.sdramPages = 6;
    g.pagesPerBlock = 2;
    g.badBlockMax = 1;
    g.flashPages = 12;
    return g;
}

class Sweep {
public:
    Sweep()
    {
        char templ[] = "/tmp/nvram-sweep.XXXXXX";
        if (!mkdtemp(templ)) std::abort();
        work_ = templ;
        sim::CreateOptions options;
        options.identityOnly = true;
        EXPECT_EQ(sim::createModule(work_ + "/template", options), "");
        sim::SimPlatform p(work_ + "/template");
        EXPECT_EQ(sim::nvramAdd(p.module(), sweepGeometry()), "");
        sim::nvramBadBlock(p.module(), 0);
        sim::nvramFill(p.module(), kSeed);
        EXPECT_EQ(sim::nvramPowerFail(p.module()), 0u);
        sim::nvramUpdate(p.module(), [](sim::NvramCard& c) {
            c.faults.flips.push_back(sim::NvramFlip{3, 2108, 5, false});  // the CRC of data page 1
        });
    }
    ~Sweep() { std::filesystem::remove_all(work_); }

    std::string fresh()
    {
        std::string dir = work_ + "/run";
        std::filesystem::remove_all(dir);
        std::filesystem::copy(work_ + "/template", dir, std::filesystem::copy_options::recursive);
        return dir;
    }

    // Calls on the card of one whole recovery, by operation.
    uint64_t count(sim::Op op)
    {
        std::string dir = fresh();
        sim::SimPlatform p(dir);
        plat::ScopedPlatform scope(p);
        EXPECT_EQ(recover(quiet), NVRAM_SUCCESS);
        return p.calls(op, sim::kNvramNode);
    }

    static void quiet(const char*) {}

    static nvram_error_t recover(nvram_logger_fn logger = nvram_logger)
    {
        nvram_t h = nullptr;
        nvram_error_t e = nvram_open(NVRAM_DEVICE, NVRAM_MODE_READ_WRITE, &h, logger);
        if (e == NVRAM_SUCCESS) e = nvram_set_nvram_writable(h, 1);
        if (e == NVRAM_SUCCESS) e = nvram_recover_flash_to_sdram(h);
        if (h) nvram_close(h);
        return e;
    }

    // Runs the recovery with call `nth` of `op` failing; "" or what broke the rule.
    std::string failing(sim::Op op, uint64_t nth)
    {
        std::string dir = fresh();
        {
            sim::SimPlatform p(dir);
            sim::Fault f;
            f.op = op;
            f.path = sim::kNvramNode;
            f.nth = nth;
            f.times = 1;
            f.error = EIO;
            p.arm(f);
        }
        std::string errFile = work_ + "/stderr";
        pid_t pid = fork();
        if (pid == 0) {
            if (!std::freopen(errFile.c_str(), "w", stderr)) _exit(120);
            sim::SimPlatform p(dir);
            plat::ScopedPlatform scope(p);
            nvram_error_t e = recover();
            std::fprintf(stderr, "result %s\n", nvram_error_str(e));
            std::fflush(stderr);
            _exit(0);
        }
        int status = 0;
        for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; ++waited) {
            if (waited > kLimitSeconds * 100) {
                ::kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                return "hung";
            }
            usleep(10000);
        }
        std::ifstream in(errFile);
        std::stringstream text;
        text << in.rdbuf();
        std::string err = text.str();
        if (WIFSIGNALED(status)) {
            if (WTERMSIG(status) != SIGABRT) return "killed by signal " + std::to_string(WTERMSIG(status));
            if (!deliberate(err)) return "an abort that is no deliberate stop:\n" + err;
        } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            return "exit status " + std::to_string(status);
        }
        return cardHolds(dir);
    }

    static bool deliberate(const std::string& err)
    {
        // The library's always-on checks print "nvram check failed: EXPR".
        for (const char* text : {"nvram_memcpy: ", "nvram check failed: ", "valid data in sdram lost",
                                 "flash_pages_per_block is zero"})
            if (err.find(text) != std::string::npos) return true;
        return false;
    }

    // SDRAM validity only with every page of the data back.
    static std::string cardHolds(const std::string& dir)
    {
        sim::SimPlatform p(dir);
        sim::NvramCard card = sim::nvramState(p.module());
        if (card.validity() != 1) return "";
        sim::NvramGeometry g = card.geometry;
        for (uint32_t page = 0; page < g.sdramPages; ++page) {
            std::vector<uint8_t> bytes = sim::nvramSdramPage(p.module(), page);
            for (uint32_t at = 0; at < g.sdramPageSize; ++at)
                if (bytes[at] != sim::nvramPatternByte(kSeed, page, at))
                    return "validity SDRAM with page " + std::to_string(page) + " wrong at byte " + std::to_string(at);
        }
        return "";
    }

private:
    std::string work_;
};

void sweep(sim::Op op, uint64_t minimum)
{
    Sweep s;
    uint64_t n = s.count(op);
    EXPECT_GE(n, minimum);
    for (uint64_t k = 1; k <= n; ++k) {
        std::string broken = s.failing(op, k);
        EXPECT_EQ(broken, "") << sim::opName(op) << " call " << k << " of " << n;
    }
    std::printf("fault sweep: %llu %s points\n", static_cast<unsigned long long>(n), sim::opName(op));
    testing::Test::RecordProperty(std::string("points_") + sim::opName(op), static_cast<int>(n));
}

TEST(NvramFaultSweep, OpenAndMappings)
{
    sweep(sim::Op::Open, 1);
    sweep(sim::Op::Mmap, 3);
}

TEST(NvramFaultSweep, Ioctls) { sweep(sim::Op::Ioctl, 20); }

// A lost store leaves its transfer to time out after a billion polls.
TEST(NvramFaultSweep, RegisterStores)
{
    if (nvtest::kSlowPolls) GTEST_SKIP() << "a billion instrumented polls per point";
    sweep(sim::Op::Store, 12);
}

} // namespace

// Threads that share the module's virtual clock: waits block until their
// end, the clock moves only when every thread waits, in a fixed order.
#include <atomic>
#include <cstdlib>
#include <chrono>
#include <mutex>
#include <string>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "sim_fixture.h"

namespace {

using simtest::TempModule;
using RealClock = std::chrono::steady_clock;

long long seconds(sim::SimPlatform& p) { return static_cast<long long>(p.time(nullptr)); }

// A trace of "who at what virtual second", kept in the order of events.
struct Trace {
    std::mutex m;
    std::vector<std::string> lines;
    void add(sim::SimPlatform& p, const std::string& who)
    {
        long long t = seconds(p);
        std::lock_guard<std::mutex> lock(m);
        lines.push_back(who + "@" + std::to_string(t));
    }
};

TEST(Scheduler, ALoneThreadsSleepReturnsAtOnceAndWaitsEndInDeadlineOrder)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    long long start = seconds(p);
    auto real = RealClock::now();
    p.sleep(3600);
    EXPECT_EQ(seconds(p), start + 3600);
    EXPECT_LT(RealClock::now() - real, std::chrono::seconds(2)) << "virtual, not real time";

    // Three threads sleep different lengths: each wakes at its own end, in order.
    Trace trace;
    long long t0 = seconds(p);
    std::vector<std::thread> threads;
    for (int s : {5, 2, 9})
        threads.emplace_back([&, s] {
            p.sleep(static_cast<unsigned>(s));
            trace.add(p, std::to_string(s));
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(trace.lines, (std::vector<std::string>{"2@" + std::to_string(t0 + 2), "5@" + std::to_string(t0 + 5),
                                                     "9@" + std::to_string(t0 + 9)}));
    EXPECT_EQ(p.scheduler().threads(), 1u) << "the threads that ended left; the test's own remains";
}

// A poller looks at a flag once a second; a worker sets it after 2.5 s. The
// poller sees it at the end of its third second, every run alike.
std::vector<std::string> pingPong(sim::SimPlatform& p)
{
    Trace trace;
    std::atomic<bool> flag{false};
    std::thread poller([&] {
        int rounds = 0;
        while (!flag.load()) {
            p.usleep(1000000);
            ++rounds;
        }
        trace.add(p, "poller saw it after " + std::to_string(rounds));
    });
    std::thread worker([&] {
        p.usleep(2500000);
        flag = true;
        trace.add(p, "worker");
    });
    worker.join();
    poller.join();
    return trace.lines;
}

TEST(Scheduler, ThreadsWaitingOnEachOtherStayInOrderAndRunsRepeatExactly)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    std::vector<std::string> first = pingPong(p);
    long long t0 = seconds(p) - 3;
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(first[0], "worker@" + std::to_string(t0 + 2));
    EXPECT_EQ(first[1], "poller saw it after 3@" + std::to_string(t0 + 3));
    for (int run = 0; run < 20; ++run) {
        long long before = seconds(p);
        std::vector<std::string> again = pingPong(p);
        ASSERT_EQ(again.size(), 2u);
        EXPECT_EQ(again[1], "poller saw it after 3@" + std::to_string(before + 3)) << run;
    }
}

TEST(Scheduler, AThreadBlockedOutsideThePlatformDoesNotFreezeTheClock)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    p.time(nullptr);  // the test's thread is counted from now on
    std::mutex programLock;
    std::unique_lock<std::mutex> held(programLock);
    std::atomic<bool> done{false};
    long long start = seconds(p);
    std::thread sleeper([&] {
        for (int i = 0; i < 5; ++i) p.sleep(10);
        done = true;
    });
    // The test's thread makes no call of the platform: after the grace, the clock moves on.
    auto real = RealClock::now();
    while (!done && RealClock::now() - real < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    sleeper.join();
    EXPECT_TRUE(done.load());
    EXPECT_EQ(seconds(p), start + 50);

    // A thread that never waits still lets the others that are ready run
    // (time, though, stands still while it runs).
    std::atomic<bool> stop{false};
    std::thread spinner([&] {
        struct ::stat st;
        while (!stop) p.stat("/etc", &st);
    });
    struct ::stat st;
    for (uint64_t i = 0; i < 3 * sim::Scheduler::kSlice; ++i) p.stat("/etc", &st);
    stop = true;
    spinner.join();
}

// A thread waiting for a real child process (a supervised daemon) is outside
// the platform, but waits on the host: the others' clock runs at full speed.
TEST(Scheduler, AThreadWaitingForAChildProcessDoesNotSlowTheClock)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    p.time(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::sleep(3);
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    std::thread waiter([&] {
        p.time(nullptr);  // counted, then blocked outside in the wait
        int status = 0;
        ::waitpid(child, &status, 0);
    });
    // One grace period a step would take 10 s: the child would be gone.
    const long long start = seconds(p);
    for (int i = 0; i < 500; ++i) p.sleep(1);
    EXPECT_EQ(seconds(p), start + 500);
    EXPECT_EQ(::kill(child, 0), 0) << "the child, which lives 3 s, still runs";
    ::kill(child, SIGKILL);
    waiter.join();
}

// A thread busy with its own work (or only short of a core) is not blocked:
// it keeps its turn and the clock waits for it, however long it takes.
TEST(Scheduler, ABusyThreadKeepsItsTurnAndTheClock)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    long long start = seconds(p);
    std::atomic<long long> woke{0};
    std::thread sleeper([&] {
        p.sleep(1);
        woke = seconds(p);
    });
    auto real = RealClock::now();
    volatile unsigned long spin = 0;
    while (RealClock::now() - real < 10 * sim::Scheduler::kGrace) spin = spin + 1;
    EXPECT_EQ(seconds(p), start) << "the clock moved while the thread was busy";
    EXPECT_EQ(woke.load(), 0);
    p.sleep(2);
    EXPECT_EQ(seconds(p), start + 2);
    sleeper.join();
    EXPECT_EQ(woke.load(), start + 1);
}

// Parked: the other threads stay where they wait, whatever the clock does.
TEST(Scheduler, ParkedThreadsNeverRunAgain)
{
    TempModule m;
    // Left to the end of the process, as the poller that never returns needs.
    auto& p = *new sim::SimPlatform(m.dir());
    long long start = seconds(p);
    std::atomic<int> rounds{0};
    std::thread([&p, &rounds] {
        for (;;) {
            p.sleep(1);
            ++rounds;
        }
    }).detach();
    p.sleep(3);
    p.scheduler().park();
    int seen = rounds.load();
    EXPECT_EQ(seen, 2) << "at second 3 both are due; this thread began its wait first";
    p.sleep(100);
    EXPECT_EQ(seconds(p), start + 103) << "the parker's own waits end at once";
    std::this_thread::sleep_for(5 * sim::Scheduler::kGrace);
    EXPECT_EQ(rounds.load(), seen);
}

TEST(Scheduler, FaultedWaitsFailAtOnce)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    p.arm(sim::Fault::failing(sim::Op::Wait, "*", 1, EINTR, 2));
    long long start = seconds(p);
    struct timeval tv{4, 0};
    EXPECT_EQ(p.waitTimeout(&tv), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(p.waitTimeout(&tv), -1);
    EXPECT_EQ(seconds(p), start) << "an interrupted wait takes no time";
    EXPECT_EQ(p.waitTimeout(&tv), 0);
    EXPECT_EQ(seconds(p), start + 4);
}

} // namespace

// A child forked while another thread holds the turn (and may hold the
// platform's lock) is alone: its calls go through at once.
TEST(Scheduler, AForkedChildNeverWaitsForAThreadThatStayedBehind)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        struct ::stat st;
        while (!stop) p.stat("/etc", &st);  // holds the turn, and the lock in every call
    });
    for (int round = 0; round < 20; ++round) {
        pid_t child = ::fork();
        if (child < 0) break;
        if (child == 0) {
            struct ::stat st;
            time_t before = p.time(nullptr);
            p.sleep(30);
            _exit(p.stat("/etc", &st) == 0 && p.time(nullptr) == before + 30 ? 0 : 1);
        }
        int status = -1;
        auto deadline = RealClock::now() + std::chrono::seconds(10);
        pid_t got = 0;
        while ((got = ::waitpid(child, &status, WNOHANG)) == 0 && RealClock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (got == 0) ::kill(child, SIGKILL), ::waitpid(child, &status, 0);
        EXPECT_EQ(got, child) << "round " << round << ": the child hung";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "round " << round;
        if (got != child) break;
    }
    stop = true;
    busy.join();
}

// A static object's destructor may still call the platform at process exit,
// after the thread-locals of the main thread are gone (the service facade
// closes its sockets so): the call runs, outside the turns.
sim::SimPlatform* gExitPlatform = nullptr;

TEST(SchedulerDeathTest, ACallFromAStaticDestructorAfterTheThreadsSlotsRuns)
{
    TempModule m;
    EXPECT_EXIT(
        {
            gExitPlatform = new sim::SimPlatform(m.dir());
            struct ::stat st;
            gExitPlatform->stat("/etc", &st);  // the main thread's slot exists now
            std::atexit([] {
                struct ::stat st;
                gExitPlatform->sleep(5);
                std::_Exit(gExitPlatform->stat("/etc", &st) == 0 ? 7 : 8);
            });
            std::exit(0);
        },
        testing::ExitedWithCode(7), "");
}

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "infr/stacktrace.h"
#include "infr/string.h"
#include "infr/sys.h"
#include "infr_fixture.h"

#if defined(__SANITIZE_THREAD__)
#define TSAN_BUILD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TSAN_BUILD 1
#endif
#endif
#ifndef TSAN_BUILD
#define TSAN_BUILD 0
#endif

namespace {

using infrtest::aborted;
using infrtest::exitedWith;
using infrtest::linesWith;

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(SysExit, ExitsAndPanicsSayWhy)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [] { sys_exit(3); });
    EXPECT_TRUE(exitedWith(o.status, 3));
    EXPECT_EQ(o.err, "SYS:exit code=3\n");

    o = infrtest::run(m, [] { sys_exit_really(4); });
    EXPECT_TRUE(exitedWith(o.status, 4));
    EXPECT_EQ(o.err, "SYS:exit (really) code=4\n");

    o = infrtest::run(m, [] {
        errno = ENOSPC;
        sys_do_panic_perror("SYS:thing %d", 7);
    });
    EXPECT_TRUE(aborted(o.status));
    EXPECT_EQ(o.err.rfind("SYS:thing 7: No space left on device\nSYS:aborting\nSTACKTRACE:dump\n  frame=00 pc=", 0), 0u)
        << o.err;

    o = infrtest::run(m, [] { sys_time_of_ymd(INT_MIN, 1, 1); });
    EXPECT_TRUE(aborted(o.status));
    EXPECT_TRUE(has(o.err, "SYS:time_of_ymd:mktime error\n")) << o.err;

    o = infrtest::run(m, [] { sys_getpassword("Password: "); });  // the module has no terminal
    EXPECT_TRUE(aborted(o.status));
    EXPECT_TRUE(has(o.err, "SYS:getpass: ")) << o.err;
}

TEST(SysExit, SuicideReplacesTheProcess)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [] {
        char self[] = "/proc/self/exe", list[] = "--gtest_list_tests", none[] = "--gtest_filter=None";
        char* argv[] = {self, list, none, nullptr};
        sys_suicide(3, argv);
    });
    EXPECT_TRUE(exitedWith(o.status, 0));
    EXPECT_EQ(o.err, "SYS:suicide\n");

    o = infrtest::run(m, [] {
        char missing[] = "/nonexistent/program";
        char* argv[] = {missing, nullptr};
        sys_suicide(1, argv);
    });
    EXPECT_TRUE(aborted(o.status));
    EXPECT_TRUE(has(o.err, "SYS:suicide\nSYS:suicide:execve: No such file or directory\n")) << o.err;
}

TEST(SysSyslog, MessagesGoToTheModulesLog)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [&] {
        sys_eprintf("before\n");
        sys_syslog("corvane", "local3");
        std::string cwd;
        if (!dynamic_cast<sim::SimPlatform&>(plat::current()).normalize("x", cwd) || cwd != "/x") _exit(9);
        sys_eprintf("hello %d\n", 5);
        sys_syslog_priority_critical();
        sys_syslog_priority_critical();
        sys_exit(6);
    });
    EXPECT_TRUE(exitedWith(o.status, 6));
    EXPECT_EQ(o.err, "before\n");  // everything after went to the log
    auto log = linesWith(m, "syslog.log", "corvane");
    ASSERT_EQ(log.size(), 3u);
    EXPECT_TRUE(log[0].ends_with(" 152 6 hello 5")) << log[0];  // LOG_LOCAL3, LOG_INFO
    EXPECT_TRUE(log[1].ends_with(" 152 6 SYS:syslog_priority_critical:setting priority to critical")) << log[1];
    EXPECT_TRUE(log[2].ends_with(" 152 2 SYS:exit code=6")) << log[2];

    // An unknown facility is the default one; a second call panics.
    o = infrtest::run(m, [] {
        sys_syslog("tav2", "nonesuch");
        sys_syslog("tav2", "daemon");
    });
    EXPECT_TRUE(aborted(o.status));
    log = linesWith(m, "syslog.log", " tav2 ");
    ASSERT_GE(log.size(), 3u);
    EXPECT_TRUE(log[0].ends_with(" 40 6 SYS: cannot find facility nonesuch, using syslog")) << log[0];
    EXPECT_TRUE(log[1].ends_with(" 40 6 SYS:syslog:has already been called")) << log[1];
    EXPECT_TRUE(log[2].ends_with(" 40 6 SYS:syslog_priority_critical:setting priority to critical")) << log[2];
}

TEST(SysSyslog, DaemonOnceOnly)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [] {
        sys_daemon("corvane");
        sys_eprintf("detached\n");
        sys_daemon("corvane");
    });
    EXPECT_TRUE(aborted(o.status));
    EXPECT_EQ(o.err, "");  // standard error went to the null device
    EXPECT_EQ(linesWith(m, "commands.log", " daemon 0 daemon 0 0").size(), 1u);
    auto log = linesWith(m, "syslog.log", " corvane ");
    ASSERT_GE(log.size(), 2u);
    EXPECT_TRUE(log[0].ends_with(" 24 6 detached")) << log[0];  // LOG_DAEMON
    EXPECT_TRUE(log[1].ends_with(" 24 6 SYS:daemon:has already been called")) << log[1];
}

TEST(SysSystem, CommandsGoThroughThePlatform)
{
    simtest::TempModule m;
    sim::SimPlatform platform(m.dir());
    plat::ScopedPlatform scope(platform);
    EXPECT_EQ(sys_sprintf_system("echo %d", 5), 0);
    EXPECT_EQ(sys_system("no-such-program --now"), 127);
    EXPECT_EQ(linesWith(m, "commands.log", " system 0 echo 5").size(), 1u);
    EXPECT_EQ(linesWith(m, "commands.log", " system 127 unknown no-such-program --now").size(), 1u);
}

// The debugger loop: stopped by the test after three debugger commands.
TEST(SysPreExit, RunsTheDebuggerEveryTenSeconds)
{
    simtest::TempModule m;
    infrtest::Child c = infrtest::start(m, [] {
        sys_dont_really_exit();
        sys_exit(5);
    });
    const std::string pid = std::to_string(c.pid);
    const std::string command = "/usr/bin/gdb /proc/" + pid + "/exe " + pid;
    ASSERT_TRUE(infrtest::waitFor([&] { return linesWith(m, "commands.log", command).size() >= 3; }));
    ::kill(c.pid, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(infrtest::wait(c)));
    auto runs = linesWith(m, "commands.log", command);
    EXPECT_EQ(std::stol(runs[2]) - std::stol(runs[0]), 20);  // 10 virtual seconds apart
    const std::string err = infrtest::readFile(c.errPath);
    EXPECT_EQ(err.rfind("SYS:exit code=5\nSYS:pre_exit:stopping rather than exiting\nSTACKTRACE:dump\n", 0), 0u)
        << err;
}

// A signal while the first one's abort waits for a debugger ends at once;
// signal 12 exits with 0, SIGPIPE and SIGTTIN do nothing.
TEST(SysSignals, CaughtOnceThenAbortAtOnce)
{
#if TSAN_BUILD
    // The handlers print and wait from the signal: ThreadSanitizer holds the
    // second signal back until the first handler returns, which it never does.
    GTEST_SKIP() << "signal handlers that never return";
#endif
    simtest::TempModule m;
    auto o = infrtest::run(m, [] {
        sys_catch_sigint();
        ::raise(SIGPIPE);
        ::raise(SIGTTIN);
        ::raise(12);
        _exit(3);
    });
    EXPECT_TRUE(exitedWith(o.status, 0));

    ::setenv("DEBUGGER", "/opt/dbg", 1);
    infrtest::Child c = infrtest::start(m, [] {
        sys_catch_sigint();
        sys_dont_really_exit();
        ::raise(SIGINT);
    });
    ::unsetenv("DEBUGGER");
    ASSERT_TRUE(infrtest::waitFor([&] { return !linesWith(m, "commands.log", "/opt/dbg /proc/").empty(); }));
    ::kill(c.pid, SIGHUP);
    EXPECT_TRUE(aborted(infrtest::wait(c)));
    const std::string err = infrtest::readFile(c.errPath);
    EXPECT_EQ(err.rfind("SYS:caught SIGINT\nSYS:aborting\nSYS:pre_exit:stopping rather than exiting\n", 0), 0u) << err;
    EXPECT_TRUE(err.ends_with("SYS:caught SIGHUP\nSYS:2nd signal, immediately aborting\n")) << err;
}

// ---- threads ----

TEST(SysThreads, ErrnoSlotPerThread)
{
    int* mine = sys_errno_location();
    EXPECT_EQ(sys_errno_location(), mine);
    *mine = 11;
    std::vector<int*> seen(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&seen, i] {
            int* slot = sys_errno_location();
            *slot = i;
            seen[i] = sys_errno_location() == slot ? slot : nullptr;
        });
    for (auto& t : threads) t.join();
    for (int i = 0; i < 8; ++i) {
        ASSERT_NE(seen[i], nullptr);
        EXPECT_NE(seen[i], mine);
        EXPECT_EQ(*seen[i], i);
    }
    EXPECT_EQ(*mine, 11);

    std::atomic<long> lock{1};
    long counter = 0;
    threads.clear();
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 10000; ++n) {
                spinlock_acquire(&lock);
                ++counter;
                spinlock_release(&lock);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 40000);
    EXPECT_EQ(lock.load(), 1);
}

TEST(SysThreads, TheSlotAfterTheLastPanics)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [] {
        std::atomic<int> holding{0};
        std::atomic<bool> release{false};
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < SYS_ERRNO_SLOTS; ++i)
            threads.emplace_back([&] {
                sys_errno_location();
                holding.fetch_add(1);
                while (!release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            });
        while (holding.load() < static_cast<int>(SYS_ERRNO_SLOTS)) std::this_thread::yield();
        sys_errno_location();  // the 257th thread alive
        _exit(7);
    });
    EXPECT_TRUE(aborted(o.status));
    EXPECT_EQ(o.err.rfind("SYS:exhausted all the ERRNO slots\nSYS:aborting\n", 0), 0u) << o.err;
}

struct CloneRun {
    std::atomic<int> done{0};
    uintptr_t local = 0;
    int errnoSeen = -1, slotSeen = -1;
};

int cloneBody(void* arg)
{
    auto* run = static_cast<CloneRun*>(arg);
    int here = 0;
    run->local = reinterpret_cast<uintptr_t>(&here);
    run->errnoSeen = errno;
    run->slotSeen = *sys_errno_location();
    run->done.store(1);
    return 0;
}

TEST(SysThreads, CloneRunsOnTheCallersStack)
{
    constexpr size_t kStack = 256 * 1024;
    std::vector<char> stack(kStack);
    CloneRun run;
    errno = EIO;
    sys_clone(cloneBody, &run, stack.data(), kStack, 0);
    while (!run.done.load()) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the thread leave the stack
    const uintptr_t base = reinterpret_cast<uintptr_t>(stack.data());
    EXPECT_GE(run.local, base);
    EXPECT_LT(run.local, base + kStack - 128);
    EXPECT_EQ(run.errnoSeen, 0);
    EXPECT_EQ(run.slotSeen, 0);
}

int returnAtOnce(void*) { return 0; }

// Slots are never given back: this needs a process of its own, as ctest runs it.
TEST(SysThreads, TheCountStopsAtTheLimit)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [] {
        constexpr size_t kStack = 256 * 1024;
        for (unsigned i = 1; i < SYS_MAX_THREADS; ++i)
            sys_clone(returnAtOnce, nullptr, sys_alloc_help(kStack), kStack, 0);
        sys_eprintf("made %u\n", SYS_MAX_THREADS - 1);
        sys_clone(returnAtOnce, nullptr, sys_alloc_help(kStack), kStack, 0);
    });
    EXPECT_TRUE(aborted(o.status));
    EXPECT_EQ(o.err.rfind("made 255\nSYS:clone exceeded SYS_MAX_THREADS(256)\nSYS:aborting\n", 0), 0u) << o.err;
}

// ---- stack traces ----

int deep(int n, pcset* trace);
// Called through a pointer the compiler cannot see through: no recursion
// turned into a loop.
int (*volatile deeper)(int, pcset*) = deep;

int deep(int n, pcset* trace)
{
    if (n == 0) {
        stacktrace_get(trace);
        return 0;
    }
    return deeper(n - 1, trace) + 1;
}

TEST(StackTrace, FramesMapsAndDump)
{
    simtest::TempModule m;
    sim::SimPlatform platform(m.dir());
    plat::ScopedPlatform scope(platform);

    pcset maps[STACKTRACE_MAPS];
    int n = readmaps(maps, STACKTRACE_MAPS);
    ASSERT_GE(n, 2);
    EXPECT_EQ(maps[0].obj, nullptr);
    const uintptr_t here = reinterpret_cast<uintptr_t>(&deep);
    EXPECT_LE(maps[0].pc, here);
    for (int i = 1; i < n; ++i) EXPECT_EQ(maps[i].obj[0], '/');
    EXPECT_EQ(readmaps(maps, 1), 1);

    pcset trace[STACKTRACE_FRAMES];
    deep(40, trace);
    for (const pcset& frame : trace) EXPECT_NE(frame.pc, 0u);
    deep(0, trace);
    int frames = 0;
    while (frames < STACKTRACE_FRAMES && trace[frames].pc) ++frames;
    EXPECT_LT(frames, STACKTRACE_FRAMES);
    EXPECT_EQ(trace[0].obj, nullptr);

    testing::internal::CaptureStderr();
    stacktrace_dump(trace);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("STACKTRACE:dump\n  frame=00 pc=", 0), 0u) << err;
    EXPECT_TRUE(has(err, "runtime_test.cpp:")) << err;
    EXPECT_TRUE(has(err, "FramesMapsAndDump")) << err;
    stacktrace_close();
    auto kills = linesWith(m, "commands.log", " kill 0 kill -9 ");
    EXPECT_EQ(kills.size(), 1u);  // the addr2line child, ended and reaped
}

// Shared objects are asked by a command of their own; here the platform answers.
class Addr2lineAnswers : public plat::ForwardingPlatform {
public:
    using ForwardingPlatform::ForwardingPlatform;
    std::string answer;
    std::vector<std::string> asked;
    FILE* popen(const char* command, const char* mode) override
    {
        asked.push_back(command);
        return ::fmemopen(answer.data(), answer.size(), mode);
    }
    int pclose(FILE* stream) override { return ::fclose(stream); }
};

TEST(StackTrace, ObjectFramesAndTheSignalFrame)
{
    simtest::TempModule m;
    sim::SimPlatform platform(m.dir());
    Addr2lineAnswers answers(platform);
    plat::ScopedPlatform scope(answers);
    char text[128];
    const char* libc = "/lib/libc-2.2.4.so";
    pcset frame{0x40012345, 0x40000000, libc};

    answers.answer = "??\n??:0\n";
    EXPECT_EQ(addr2line_obj_dump(&frame, text, sizeof text), 0);
    ASSERT_EQ(answers.asked.size(), 2u);  // the offset, then the plain address
    EXPECT_EQ(answers.asked[0], "/usr/bin/addr2line --functions -e /lib/libc-2.2.4.so 0x12345");
    EXPECT_EQ(answers.asked[1], "/usr/bin/addr2line --functions -e /lib/libc-2.2.4.so 0x40012345");

    answers.answer = "__restore\nsigaction.c:149\n";
    EXPECT_EQ(addr2line_obj_dump(&frame, text, sizeof text), 2);
    frame.obj = "/lib/libother.so";
    EXPECT_EQ(addr2line_obj_dump(&frame, text, sizeof text), 1);
    EXPECT_STREQ(text, "sigaction.c:149 __restore");

    answers.answer = std::string(100000, 'f') + "\n" + std::string(50000, 'p') + "\n";
    EXPECT_EQ(addr2line_obj_dump(&frame, text, sizeof text), 1);
    EXPECT_EQ(std::strlen(text), sizeof text - 1);
    answers.answer = "only one line";
    EXPECT_EQ(addr2line_obj_dump(&frame, text, sizeof text), 0);
}

TEST(StackTrace, TheSimulationAnswersUnknown)
{
    simtest::TempModule m;
    sim::SimPlatform platform(m.dir());
    plat::ScopedPlatform scope(platform);
    char text[64];
    pcset frame{0x7000, 0x1000, "/lib/x.so"};
    EXPECT_EQ(addr2line_obj_dump(&frame, text, sizeof text), 0);
    EXPECT_EQ(linesWith(m, "commands.log", "popen 127 unknown /usr/bin/addr2line --functions -e /lib/x.so 0x").size(),
              2u);
}

} // namespace

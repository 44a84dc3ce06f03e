// The supervisor with real daemons: scripts of the module, restarted in
// virtual time.
#include <csignal>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "ondra_fixture.h"
#include "sim/processes.h"

using ondratest::capture;
using ondratest::OndraModule;

namespace {

class OndraSupervisor : public OndraModule {
protected:
    OndraSupervisor()
    {
        store_.type(ONDRA_PROC_STORE);
        TavString buffer;
        EXPECT_EQ(store_.init(buffer), 0) << buffer;
    }
    ~OndraSupervisor() override
    {
        // No supervising thread may outlive the module's platform.
        TavString buffer;
        store_.stop(buffer, true);
    }

    // Starts the store's Daemon and waits for its pid.
    pid_t startDaemon()
    {
        TavString buffer;
        const size_t before = starts("daemon").size();
        EXPECT_EQ(store_.daemon(buffer), 0) << buffer;
        // Returns once the script has logged its start, so a kill can't beat it.
        const pid_t pid = store_.pId();
        eventually([&] { return starts("daemon").size() > before; });
        return pid;
    }
    bool supervised() { return store_.state() == ONDRA_RUN_DAEMON; }
    bool waitIdle() { return eventually([&] { return store_.state() == ONDRA_RUN_IDLE; }); }
    // Waits for the next daemon after `previous`, and for its start log, and
    // returns its pid.
    pid_t nextDaemon(pid_t previous)
    {
        pid_t next = -1;
        eventually([&] {
            next = store_.pId();
            return next > 0 && next != previous;
        });
        eventually([&] {
            for (const sim::DaemonStart& s : starts("daemon"))
                if (s.pid == next) return true;
            return false;
        });
        return next;
    }
    std::string giveUpLine(int starts, int seconds)
    {
        return "tried to start " + script(0) + " " + std::to_string(starts) + " times in " + std::to_string(seconds) +
               " seconds, giving up. ondraSupervisor.cpp:";
    }

    TavOndraProcess store_;
};

TEST_F(OndraSupervisor, InitAndDeinitRunOnceAndNeverRestart)
{
    EXPECT_TRUE(temp_.exists("/var/ondra/store/ok"));
    ASSERT_EQ(starts("init").size(), 1u);
    TavString buffer;
    EXPECT_EQ(store_.init(buffer), 0);  // prepared already
    EXPECT_EQ(starts("init").size(), 1u);
    EXPECT_EQ(store_.state(), ONDRA_RUN_IDLE);
    EXPECT_EQ(store_.pId(), -1);

    EXPECT_EQ(store_.deinit(buffer), 0);
    EXPECT_FALSE(temp_.exists("/var/ondra/store/ok"));
    EXPECT_EQ(store_.deinit(buffer), 0);  // nothing to undo
    EXPECT_EQ(starts("deinit").size(), 1u);
    EXPECT_EQ(store_.state(), ONDRA_RUN_IDLE);

    EXPECT_EQ(store_.daemon(buffer), -1);
    EXPECT_EQ(buffer, "Ok file does not exist");
    EXPECT_TRUE(starts("daemon").empty());
}

TEST_F(OndraSupervisor, TheVectorReachesExecvByteForByte)
{
    TavString udp = "--udp flag\n";
    ASSERT_EQ(TavOndraProcess::writeUdpArgs(udp), 0);
    TavString buffer = " --serial_number AB12 --system_id \"my unit\" --raid_type 5";
    const pid_t pid = startDaemon();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(eventually([&] { return starts("daemon").size() == 1; }));
    // The start log is written before the exec of sleep: same pid, the script's vector.
    const sim::DaemonStart s = starts("daemon")[0];
    EXPECT_EQ(s.pid, pid);
    EXPECT_EQ(s.argv, (std::vector<std::string>{script(0), "--mode", "daemon", "--dir", "/var/ondra/store",
                                                "--udp flag"}));
    EXPECT_EQ(starts("init")[0].argv,
              (std::vector<std::string>{script(0), "--mode", "init", "--dir", "/var/ondra/store"}));

    // A daemon that runs already is not started again.
    EXPECT_EQ(store_.daemon(buffer), 0);
    EXPECT_EQ(store_.pId(), pid);
}

TEST_F(OndraSupervisor, ADaemonThatCannotLiveIsGivenUpOnUnderTheDefaults)
{
    const pid_t first = startDaemon();
    ASSERT_GT(first, 0);
    sim::setDaemonExit(module(), ONDRA_PROC_STORE, 1);
    auto c = capture([&] {
        ::kill(first, SIGKILL);
        ASSERT_TRUE(waitIdle());
    });
    // Starts at 0, 5, ... 25 seconds: the sixth death inside 60 seconds ends it.
    EXPECT_EQ(starts("daemon").size(), 6u);
    EXPECT_NE(c.err.find(giveUpLine(6, 25)), std::string::npos) << c.err;
    EXPECT_EQ(store_.pId(), -1);
    EXPECT_TRUE(sim::liveDaemonPids(module()).empty());
}

TEST_F(OndraSupervisor, TheRetryFileSetsTheLimits)
{
    temp_.put("/etc/marrowby/ondraretry.cfg", "# two in thirty\nnumber=2 time=30\nnumber=9 time=9\n");
    sim::setDaemonExit(module(), ONDRA_PROC_STORE, 3);
    TavString buffer;
    auto c = capture([&] {
        store_.daemon(buffer);  // its pid may come and go before the poll sees it
        ASSERT_TRUE(waitIdle());
    });
    EXPECT_EQ(starts("daemon").size(), 3u);
    EXPECT_NE(c.err.find(giveUpLine(3, 10)), std::string::npos) << c.err;

    // A file with no such line keeps the defaults, and says so.
    temp_.put("/etc/marrowby/ondraretry.cfg", "# nothing\nnumber=99999999999 time=1\n");
    c = capture([&] {
        store_.daemon(buffer);
        ASSERT_TRUE(waitIdle());
    });
    EXPECT_EQ(starts("daemon").size(), 3u + 6u);
    EXPECT_NE(c.err.find("invalid contents of /etc/marrowby/ondraretry.cfg  expected number=N time=M "
                         "ondraSupervisor.cpp:"),
              std::string::npos);
    EXPECT_NE(c.err.find(giveUpLine(6, 25)), std::string::npos);
}

TEST_F(OndraSupervisor, ALimitThatIsNeverReached)
{
    // Twelve starts take 55 seconds; the thirteenth comes at 60, which neither
    // resets nor gives up, and the fourteenth opens a new period.
    temp_.put("/etc/marrowby/ondraretry.cfg", "number=12 time=60\n");
    sim::setDaemonExit(module(), ONDRA_PROC_STORE, 0);
    TavString buffer;
    auto c = capture([&] {
        store_.daemon(buffer);
        ASSERT_TRUE(eventually([&] { return starts("daemon").size() >= 20; }));
    });
    EXPECT_EQ(c.err.find("giving up"), std::string::npos);
    EXPECT_TRUE(supervised());
    sim::setDaemonExit(module(), ONDRA_PROC_STORE, -1);
    ASSERT_GT(nextDaemon(-1), 0);
    store_.stop(buffer, true);
    EXPECT_EQ(store_.state(), ONDRA_RUN_IDLE);
}

TEST_F(OndraSupervisor, RemovingTheOkFileEndsSupervisionAtTheNextDeath)
{
    const pid_t pid = startDaemon();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(::unlink(temp_.map("/var/ondra/store/ok").c_str()), 0);
    ::kill(pid, SIGKILL);
    ASSERT_TRUE(waitIdle());
    EXPECT_EQ(starts("daemon").size(), 1u);
    EXPECT_EQ(store_.pId(), -1);
}

TEST_F(OndraSupervisor, StopByCommandEndsTheThreadAndOtherStopsCountAgainstTheLimits)
{
    TavString buffer;
    EXPECT_EQ(store_.stop(buffer, true), 0);
    EXPECT_EQ(buffer, "Process is not running");

    temp_.put("/etc/marrowby/ondraretry.cfg", "number=2 time=30\n");
    pid_t pid = startDaemon();
    ASSERT_GT(pid, 0);
    // Two stops that allow a restart: each death counts.
    for (int stop = 1; stop <= 2; ++stop) {
        ASSERT_EQ(store_.stop(buffer, false), 0);
        EXPECT_TRUE(eventually([&] { return ::kill(pid, 0) != 0; }));
        pid = nextDaemon(pid);
        ASSERT_GT(pid, 0) << "restart " << stop;
    }
    auto c = capture([&] {
        ASSERT_EQ(store_.stop(buffer, false), 0);
        ASSERT_TRUE(waitIdle());
    });
    EXPECT_NE(c.err.find(giveUpLine(3, 10)), std::string::npos) << c.err;

    // By command: stop returns once the thread has ended, and nothing follows.
    pid = startDaemon();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(store_.stop(buffer, true), 0);
    EXPECT_EQ(store_.state(), ONDRA_RUN_IDLE);
    EXPECT_EQ(store_.pId(), -1);
    EXPECT_TRUE(sim::liveDaemonPids(module()).empty());
    const size_t count = starts("daemon").size();
    EXPECT_EQ(count, 4u);
}

TEST_F(OndraSupervisor, NewArgsSendsTheHangUpSignalAndDoesNotRestart)
{
    const pid_t pid = startDaemon();
    ASSERT_GT(pid, 0);
    TavString buffer = "--reload";
    auto c = capture([&] { ASSERT_EQ(store_.newargs(buffer), 0); });
    EXPECT_NE(c.out.find("Ondra module: RECONFIGURE pid " + std::to_string(pid)), std::string::npos);
    EXPECT_NE(module().readState("commands.log").find("kill -1 " + std::to_string(pid)), std::string::npos);
    ASSERT_EQ(store_.getArgs(buffer), 0);
    EXPECT_NE(buffer.find("--reload"), std::string::npos);
    EXPECT_EQ(store_.pId(), pid);  // the daemon ignores the signal and lives on
    EXPECT_EQ(starts("daemon").size(), 1u);
}

TEST_F(OndraSupervisor, AddArgRestartsARunningDaemonWithTheNewVector)
{
    const pid_t pid = startDaemon();
    ASSERT_GT(pid, 0);
    TavString args = "/--extra/x";
    TavString runTime = "--run";
    ASSERT_EQ(store_.addArg(args, runTime), 0);
    // The kill by name may also catch a daemon restarted while the listing is
    // read; whatever starts after the change has the new vector.
    const std::vector<std::string> changed{script(0), "--mode", "daemon", "--dir", "/var/ondra/store",
                                           "--extra", "x", "--run"};
    ASSERT_TRUE(eventually([&] { return starts("daemon").size() >= 2; }));
    const std::vector<sim::DaemonStart> all = starts("daemon");
    for (size_t i = 1; i < all.size(); ++i) EXPECT_EQ(all[i].argv, changed) << "start " << i;
    EXPECT_EQ(::kill(pid, 0), -1);
}

// A process of the module, started by the test with the script's path as its argv[0].
pid_t stray(const std::string& path, const char* program, const char* arg, int stdinFd)
{
    pid_t pid = fork();
    if (pid == 0) {
        if (stdinFd >= 0) dup2(stdinFd, 0);
        const char* argv[] = {path.c_str(), arg, nullptr};
        execv(program, const_cast<char**>(argv));
        _exit(127);
    }
    return pid;
}

TEST_F(OndraSupervisor, LeftOversWithArgumentsAreKilledAndOnesWithoutAreSpared)
{
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const pid_t withArgs = stray(script(0), "/bin/sleep", "1000", -1);
    const pid_t withoutArgs = stray(script(0), "/bin/cat", nullptr, pipeFds[0]);
    const pid_t otherName = stray(script(2), "/bin/sleep", "1000", -1);
    ::close(pipeFds[0]);
    // Each listed only once it has exec'd.
    for (pid_t pid : {withArgs, withoutArgs, otherName})
        ASSERT_TRUE(eventually([&] {
            sim::HostProcess p;
            return sim::readHostProcess(pid, p) && !p.argv.empty() && p.argv[0].find("/daemons/") != std::string::npos;
        }));

    TavOndraProcess fresh;
    fresh.type(ONDRA_PROC_STORE);
    EXPECT_EQ(fresh.killLeftOverProcess(), 0);
    EXPECT_EQ(fresh.state(), ONDRA_RUN_DAEMON);  // left so
    EXPECT_EQ(fresh.argCount(), 0);
    int status = 0;
    ASSERT_EQ(waitpid(withArgs, &status, 0), withArgs);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(waitpid(withoutArgs, &status, WNOHANG), 0);
    EXPECT_EQ(waitpid(otherName, &status, WNOHANG), 0);
    EXPECT_FALSE(temp_.exists("/etc/marrowby/store/ondraRunningFile.dat"));
    ::kill(withoutArgs, SIGKILL);
    ::kill(otherName, SIGKILL);
    ::close(pipeFds[1]);
    waitpid(withoutArgs, &status, 0);
    waitpid(otherName, &status, 0);
}

TEST(OndraPsLine, ColumnsNineAndFortyEight)
{
    const std::string prefix = "root     12345     1  0 10:00 ?        00:00:00 ";
    ASSERT_EQ(prefix.size(), 48u);
    int pid = 0;
    bool error = false;
    EXPECT_TRUE(ondraPsLineMatches((prefix + "/m/daemons/ondrastore 100000\n").c_str(), "ondrastore", pid, error));
    EXPECT_EQ(pid, 12345);
    // The name is compared over its own length.
    EXPECT_TRUE(ondraPsLineMatches((prefix + "/m/ondrastorex a").c_str(), "ondrastore", pid, error));
    for (const std::string& line : {prefix + "/m/daemons/ondrastore\n", prefix + "ondrastore 1",
                                    prefix + "/m/daemons/ondramgr 1", prefix, std::string("short"),
                                    std::string("")}) {
        EXPECT_FALSE(ondraPsLineMatches(line.c_str(), "ondrastore", pid, error)) << line;
        EXPECT_FALSE(error);
    }
    // A matching line whose pid column is not a pid.
    for (const char* column : {"   ab", "    0", "-1234"}) {
        std::string line = prefix + "/m/ondrastore 1";
        line.replace(9, 5, column);
        EXPECT_FALSE(ondraPsLineMatches(line.c_str(), "ondrastore", pid, error));
        EXPECT_TRUE(error) << column;
    }
}

TEST(OndraRetryLimits, TheFirstMatchingLineAfterComments)
{
    struct Case {
        const char* text;
        bool found;
        int number, time;
    } cases[] = {
        {"# c\nnumber=2 time=30\n", true, 2, 30},
        {"#number=1 time=1\n\nnumber=3   time=4", true, 3, 4},
        {"number= -2 time=+7\nnumber=1 time=1\n", true, -2, 7},
        {"number=2147483648 time=1\n", false, 5, 60},
        {"number=2time=3\nnumber=x time=1\n", true, 2, 3},
        {"", false, 5, 60},
    };
    for (const Case& c : cases) {
        FILE* in = fmemopen(const_cast<char*>(c.text), std::strlen(c.text), "r");
        if (!*c.text) in = fmemopen(nullptr, 1, "r");
        ASSERT_NE(in, nullptr);
        int number = 5, time = 60;
        EXPECT_EQ(ondraReadRetryLimits(in, number, time), c.found) << c.text;
        EXPECT_EQ(number, c.number) << c.text;
        EXPECT_EQ(time, c.time) << c.text;
        std::fclose(in);
    }
}

} // namespace

// The module's daemons as real processes: the scripts run as the supervisor
// runs them, the "ps -ewf" listing read at the supervisor's fixed columns,
// redirected output landing in files of the module, and tavsim daemons.
#include <csignal>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim_fixture.h"
#include "sim/daemons.h"
#include "sim/processes.h"
#include "sim/ps_listing.h"

using namespace simtest;
using sim::textLines;

namespace {

// The argument vector of a type's section in a configuration file, as the
// supervisor loads it.
std::vector<std::string> configArgs(const TempModule& m, int type, int mode)
{
    static const char* const sections[3] = {"STORAGE", "VIRTUALMANAGER", "MANAGER"};
    std::istringstream in(m.get(sim::daemonConfig(type, mode)));
    std::vector<std::string> args;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line == "END") break;
        if (inside) args.push_back(line);
        inside = inside || line == sections[type];
    }
    return args;
}

pid_t spawn(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

// Runs a one-shot command to its end; its exit status, or -1.
int runToEnd(const std::vector<std::string>& args)
{
    int status = 0;
    pid_t pid = spawn(args);
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Waits (in real time) until the process runs with `argv`.
bool waitForArgv(pid_t pid, const std::vector<std::string>& argv)
{
    for (int i = 0; i < 500; ++i) {
        sim::HostProcess p;
        if (sim::readHostProcess(pid, p) && p.argv == argv) return true;
        ::usleep(10000);
    }
    return false;
}

// Starts a type's Daemon; its pid once it runs as the daemon, else -1.
pid_t startDaemon(const TempModule& m, const sim::Module& mod, int type)
{
    pid_t pid = spawn(configArgs(m, type, 1));
    return waitForArgv(pid, {sim::daemonScript(mod, type), "100000"}) ? pid : -1;
}

int reap(pid_t pid)
{
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid ? status : -1;
}

// The supervisor's reading of a listing line: the command at column 48, cut
// at its first blank, must hold a slash and end in NAME; then the pid is the
// number of columns 9 to 13.
std::optional<long> readerPid(const std::string& line, const std::string& name)
{
    if (line.size() < 48) return std::nullopt;
    std::string command = line.substr(48);
    const size_t blank = command.find(' ');
    if (blank == std::string::npos) return std::nullopt;
    command.resize(blank);
    const size_t slash = command.rfind('/');
    if (slash == std::string::npos || command.compare(slash + 1, name.size(), name) != 0) return std::nullopt;
    return std::strtol(line.substr(9, 5).c_str(), nullptr, 10);
}

std::string readPipe(sim::SimPlatform& p, const std::string& command, int& status)
{
    FILE* f = p.popen(command.c_str(), "r");
    if (!f) return "<no pipe>";
    std::string out;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    status = p.pclose(f);
    return out;
}

} // namespace

TEST(Daemons, ScriptsRunAsTheSupervisorRunsThem)
{
    TempModule m;
    sim::Module mod(m.dir());
    sim::installDaemons(mod);
    EXPECT_EQ(m.get("/etc/marrowby/comm/ondraSystemId.cfg"), "NO_SYSTEM_ID\n");
    EXPECT_EQ(m.get("/etc/marrowby/ondraretry.cfg"), "# restarts allowed within a period of seconds\nnumber=5 time=60\n");

    // Init makes the data directory and its ok file; Deinit takes the file away.
    const std::vector<std::string> init = configArgs(m, 0, 0);
    ASSERT_EQ(init, (std::vector<std::string>{sim::daemonScript(mod, 0), "--mode", "init", "--dir", "/var/ondra/store"}));
    EXPECT_EQ(runToEnd(init), 0);
    EXPECT_TRUE(m.exists("/var/ondra/store/ok"));

    // The Daemon is the process the supervisor forked: the same pid, its
    // script as argv[0], the hang-up signal ignored.
    const pid_t store = startDaemon(m, mod, 0);
    ASSERT_GT(store, 0);
    ASSERT_EQ(::kill(store, SIGHUP), 0);
    ::usleep(50000);
    EXPECT_EQ(::waitpid(store, nullptr, WNOHANG), 0) << "a hang-up does not end the daemon";
    EXPECT_EQ(sim::liveDaemonPids(mod), std::vector<pid_t>{store});
    const std::vector<sim::DaemonStart> starts = sim::daemonStarts(mod);
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[0].argv, init);
    EXPECT_EQ(starts[1].pid, store);
    EXPECT_EQ(starts[1].argv, configArgs(m, 0, 1)) << "the vector that reached execv, read back";

    EXPECT_EQ(sim::killDaemons(mod), std::vector<pid_t>{store});
    const int status = reap(store);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(sim::liveDaemonPids(mod).empty());
    EXPECT_EQ(runToEnd(configArgs(m, 0, 2)), 0);
    EXPECT_FALSE(m.exists("/var/ondra/store/ok"));

    // A Daemon told to fail exits at once with its status; installing again
    // with --fail sets that of one type and clears the others'.
    sim::setDaemonExit(mod, 1, 3);
    EXPECT_EQ(runToEnd(configArgs(m, 1, 1)), 3);
    sim::installDaemons(mod, sim::DaemonOptions{2});
    EXPECT_EQ(runToEnd(configArgs(m, 2, 1)), 1);
    EXPECT_EQ(sim::daemonStatus(mod).types[1].exitStatus, -1);

    // Init touches nothing outside the module, whatever its --dir.
    const std::string outside = std::filesystem::path(m.dir()).parent_path().string() + "/escape";
    for (const char* dir : {"/../escape", "var/ondra/store", ""})
        EXPECT_EQ(runToEnd({sim::daemonScript(mod, 0), "--mode", "init", "--dir", dir}), 1) << dir;
    EXPECT_FALSE(std::filesystem::exists(outside));
    EXPECT_FALSE(std::filesystem::exists(m.host("ok")));
}

TEST(Ps, ListsTheModulesOwnProcessesAtTheReadersColumns)
{
    TempModule m;
    sim::Module mod(m.dir());
    sim::installDaemons(mod);
    const pid_t store = startDaemon(m, mod, 0);
    ASSERT_GT(store, 0);
    const pid_t host = spawn({"/bin/sleep", "100000"});  // a process of the host, outside the module
    ASSERT_TRUE(waitForArgv(host, {"/bin/sleep", "100000"}));

    // The supervisor's command, then its reading of the file.
    sim::SimPlatform p(m.dir());
    const char* file = "/etc/marrowby/store/ondraRunningFile.dat";
    EXPECT_EQ(p.system(("ps -ewf | grep \"ondrastore\" > " + std::string(file)).c_str()), 0);
    const std::vector<std::string> found = textLines(m.get(file));
    ASSERT_EQ(found.size(), 1u) << m.get(file);
    EXPECT_EQ(readerPid(found[0], "ondrastore"), std::optional<long>(store)) << found[0];
    EXPECT_EQ(found[0].substr(48), sim::daemonScript(mod, 0) + " 100000");
    EXPECT_EQ(found[0].substr(0, 9), "root     ");

    // The whole listing: the header and the module's one process; neither the
    // host's sleep nor this test is in it.
    int status = -1;
    const std::vector<std::string> listed = textLines(readPipe(p, "ps -ewf", status));
    EXPECT_EQ(status, 0);
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[0], sim::kPsHeader);
    EXPECT_EQ(std::strtol(listed[1].substr(9, 5).c_str(), nullptr, 10), store);
    EXPECT_EQ(std::strtol(listed[1].substr(15, 5).c_str(), nullptr, 10), ::getpid()) << listed[1];
    EXPECT_EQ(listed[1].substr(30, 9), "?" + std::string(8, ' ')) << "no terminal";

    // A name of no process of the module: grep finds nothing, the file is empty.
    EXPECT_EQ(p.system("ps -ewf | grep \"sleep\" > /etc/marrowby/store/ondraRunningFile.dat"), W_EXITCODE(1, 0));
    EXPECT_EQ(m.get(file), "");

    ::kill(host, SIGKILL);
    reap(host);
    sim::killDaemons(mod);
    reap(store);
    const std::vector<std::string> after = textLines(readPipe(p, "ps -ewf", status));
    EXPECT_EQ(after.size(), 1u) << "a reaped daemon is gone from the listing";
}

// A daemon caught before its exec (still "/bin/bash SCRIPT ARGS") is listed
// as the program it stands for, so a kill by name during its start finds it;
// the interpreter's own children are not the module's.
TEST(Ps, AScriptNotYetAtItsExecIsListedAsItsProgram)
{
    TempModule m;
    const std::string script = m.dir() + "/daemons/ondraslow";
    m.put("/daemons/ondraslow", "#!/bin/bash\nsleep 100000\n");
    ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
    // In a group of its own, so that its sleep goes with it.
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        ::execl(script.c_str(), script.c_str(), "--mode", "daemon", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::setpgid(pid, pid);
    if (!waitForArgv(pid, {script, "--mode", "daemon"})) ::kill(-pid, SIGKILL);
    ASSERT_TRUE(waitForArgv(pid, {script, "--mode", "daemon"}));

    sim::SimPlatform p(m.dir());
    int status = -1;
    const std::vector<std::string> listed = textLines(readPipe(p, "ps -ewf", status));
    if (listed.size() != 2u) ::kill(-pid, SIGKILL);
    ASSERT_EQ(listed.size(), 2u) << "the script and nothing of its sleep";
    EXPECT_EQ(readerPid(listed[1], "ondraslow"), std::optional<long>(pid)) << listed[1];
    EXPECT_EQ(listed[1].substr(48), script + " --mode daemon");
    ::kill(-pid, SIGKILL);
    reap(pid);
}

TEST(Ps, AFieldWiderThanItsColumnShiftsTheLineSoTheReaderPassesItBy)
{
    sim::PsRow row{"root", 99999, 1, 0, "10:04", "?", "00:00:00", {"/m/daemons/ondrastore", "100000"}};
    std::string line = sim::psLine(row);
    EXPECT_EQ(line, "root     99999     1  0 10:04 ?        00:00:00 /m/daemons/ondrastore 100000");
    EXPECT_EQ(readerPid(line, "ondrastore"), std::optional<long>(99999));

    // A pid, parent pid or CPU time too wide is written whole, never cut: a
    // pid of 123456 must not be read as 12345.
    for (auto widen : std::vector<std::function<void(sim::PsRow&)>>{
             [](sim::PsRow& r) { r.pid = 123456; },
             [](sim::PsRow& r) { r.pid = 4194303; },
             [](sim::PsRow& r) { r.ppid = 100000; },
             [](sim::PsRow& r) { r.time = "1-02:03:04"; },
             [](sim::PsRow& r) { r.uid = "4294967294"; },
         }) {
        sim::PsRow wide = row;
        widen(wide);
        line = sim::psLine(wide);
        EXPECT_EQ(readerPid(line, "ondrastore"), std::nullopt) << line;
        EXPECT_NE(line.find(" " + std::to_string(wide.pid) + " "), std::string::npos) << line;
    }

    // Bytes that would break the line or the terminal are shown as "?".
    row.argv = {"/m/daemons/ondra\nstore", "\x1b[2J\xff"};
    EXPECT_EQ(sim::psLine(row).substr(48), "/m/daemons/ondra?store ?[2J?");
}

TEST(Commands, RedirectedOutputLandsInAFileOfTheModule)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    int status = -1;

    EXPECT_EQ(p.system("echo one > /tmp/out"), 0);
    EXPECT_EQ(p.system("echo 'two  words' >>/tmp/out"), 0);
    EXPECT_EQ(p.system("echo three four | grep \"three f\" 1>> /tmp/out"), 0);
    EXPECT_EQ(m.get("/tmp/out"), "one\ntwo  words\nthree four\n");
    EXPECT_EQ(readPipe(p, "echo hidden &> /tmp/out", status), "") << "a redirected pipe reads nothing";
    EXPECT_EQ(m.get("/tmp/out"), "hidden\n");
    EXPECT_EQ(readPipe(p, "echo attached>/tmp/attached", status), "");
    EXPECT_EQ(m.get("/tmp/attached"), "attached\n");
    // In a middle stage the output goes to the file and the next stage reads nothing.
    EXPECT_EQ(readPipe(p, "echo mid > /tmp/mid | grep -c mid", status), "0\n");
    EXPECT_EQ(m.get("/tmp/mid"), "mid\n");
    // Every file named is made, the last one gets the output.
    EXPECT_EQ(p.system("echo last > /tmp/first > /tmp/last"), 0);
    EXPECT_EQ(m.get("/tmp/first"), "");
    EXPECT_EQ(m.get("/tmp/last"), "last\n");

    // Operators in quotes are words; standard error is not modelled;
    // /dev/null and standard output sent to standard error keep nothing.
    EXPECT_EQ(readPipe(p, "echo \">\" '2>' \\> x", status), "> 2> > x\n");
    EXPECT_EQ(readPipe(p, "echo kept 2>/dev/null 2>&1", status), "kept\n");
    EXPECT_EQ(readPipe(p, "echo gone >/dev/null", status), "");
    EXPECT_EQ(readPipe(p, "echo gone 1>&2", status), "");
    EXPECT_FALSE(m.exists("/dev/null"));
    EXPECT_FALSE(m.exists("/tmp/x"));

    // A path outside the mapped roots, or above the module, is refused: the
    // stage does not run and fails with 1; nothing is written anywhere.
    const std::string stray = "tavsim-redirect-" + std::to_string(::getpid());
    for (const std::string& target : {"/" + stray, "/root/" + stray, "../../" + stray, std::string("/sim/manifest")}) {
        EXPECT_EQ(p.system(("echo stray > " + target).c_str()), W_EXITCODE(1, 0)) << target;
        EXPECT_EQ(readPipe(p, "echo stray >> " + target, status), "") << target;
        EXPECT_EQ(status, W_EXITCODE(1, 0)) << target;
    }
    EXPECT_FALSE(std::filesystem::exists("/" + stray));
    EXPECT_FALSE(std::filesystem::exists("/root/" + stray));
    EXPECT_FALSE(m.exists("/" + stray));
    EXPECT_EQ(m.get("/sim/manifest").find("stray"), std::string::npos);
    // So does a directory that is not there, and a fault on the open.
    EXPECT_EQ(p.system("echo x > /etc/missing/file"), W_EXITCODE(1, 0));
    p.arm(sim::Fault::failing(sim::Op::Open, "/tmp/full", 1, ENOSPC));
    EXPECT_EQ(p.system("echo x > /tmp/full"), W_EXITCODE(1, 0));

    // Redirections without a target, here-documents and background jobs are
    // no command the simulation takes.
    for (const char* line : {"echo x >", "echo x > | grep x", "echo x 2>", "grep x << EOF", "echo x &", "echo x 2>&y"})
        EXPECT_EQ(p.system(line), W_EXITCODE(127, 0)) << line;
    EXPECT_EQ(p.system("echo x >&3"), W_EXITCODE(1, 0)) << "no descriptor 3";
}

// The md5 query of the system as one pipeline, and the memory device.
TEST(ManagerPrograms, TheMd5QueryReadsTheManagersListing)
{
    TempModule m;
    const std::string d = m.dir();
    EXPECT_EQ(tavsim({"daemons", d, "database", "sys42", "0123abcd"}).status, 0);
    EXPECT_EQ(tavsim({"daemons", d, "umem", "on"}).status, 0);
    sim::SimPlatform p(d);
    m.put("/etc/marrowby/comm/udpargs.cfg", "END\nSTORAGE\n--port 9\n\n7\nEND\nMANAGER\n--other\nEND\n");
    int status = -1;
    const std::string words =
        "awk '/STORAGE/ {x=1; next} /END/ {if (x == 1) exit} {if (x == 1) print $1}' /etc/marrowby/comm/udpargs.cfg";
    EXPECT_EQ(readPipe(p, words, status), "--port\n\n7\n");
    const std::string query = "/etc/marrowby/system/dbd_manager --port 7 --system_id ID --list --terminate 15"
                              "|awk '/md5/ {print $3 ;exit}' | awk -F\\' '{print $2}'";
    auto ask = [&](const std::string& id) {
        std::string q = query;
        q.replace(q.find("ID"), 2, id);
        return readPipe(p, q, status);
    };
    EXPECT_EQ(ask("sys42"), "0123abcd\n");
    EXPECT_EQ(ask("sys43"), "");
    EXPECT_EQ(readPipe(p, "/etc/marrowby/system/dbd_manager --system_id sys43 --list", status),
              "no database for system sys43\n");
    EXPECT_EQ(status, W_EXITCODE(1, 0));
    EXPECT_EQ(readPipe(p, "awk '{print}' /etc/marrowby/comm/udpargs.cfg", status), "");
    EXPECT_EQ(status, W_EXITCODE(127, 0)) << "no other awk program";

    struct ::stat st;
    EXPECT_EQ(p.stat("/dev/umem/disc0/disc", &st), 0);
    EXPECT_EQ(tavsim({"daemons", d, "umem", "off"}).status, 0);
    EXPECT_EQ(p.stat("/dev/umem/disc0/disc", &st), -1);
    EXPECT_EQ(tavsim({"daemons", d, "database", "sys42", "--remove"}).status, 0);
    EXPECT_EQ(ask("sys42"), "");
}

TEST(TavsimDaemons, InstallShowAndKillTheModulesDaemons)
{
    TempModule m;
    const std::string d = m.dir();
    sim::Module mod(d);
    Captured r = tavsim({"daemons", d, "show"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.compare(0, 23, "daemons: not installed\n"), 0) << r.out;
    EXPECT_NE(tavsim({"show", d}).out.find("\ndaemons: not installed\n"), std::string::npos);

    r = tavsim({"daemons", d, "install", "--fail=mgr"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "installed the daemons: scripts in " + mod.dir() + "/daemons, the Daemon of mgr exits with status 1\n");
    ASSERT_EQ(runToEnd(configArgs(m, 0, 0)), 0);
    const pid_t store = startDaemon(m, mod, 0);
    ASSERT_GT(store, 0);
    m.put("/etc/marrowby/comm/udpargs.cfg", "STORAGE\n--udp\n7 8\nEND\nMANAGER\n--udp\n7 8\nEND\n");

    r = tavsim({"daemons", d, "show"});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::vector<std::string> out = textLines(r.out);
    if (out.size() != 12u) sim::killDaemons(mod);
    ASSERT_EQ(out.size(), 12u) << r.out;
    EXPECT_EQ(out[0], "daemons: installed, 1 live, system id NO_SYSTEM_ID");
    const std::string pid = std::to_string(store);
    auto row = [&](const std::string& line) {
        std::istringstream in(line);
        std::vector<std::string> fields;
        for (std::string f; in >> f;) fields.push_back(f);
        return fields;
    };
    EXPECT_EQ(row(out[2]), (std::vector<std::string>{"TYPE", "SCRIPT", "INIT", "DAEMON", "DEINIT", "DATA", "OK",
                                                     "BEHAVIOUR", "PIDS", "PATH"}));
    EXPECT_EQ(row(out[3]), (std::vector<std::string>{"store", "yes", "yes", "yes", "yes", "/var/ondra/store", "yes",
                                                     "runs", pid, sim::daemonScript(mod, 0)}));
    EXPECT_EQ(row(out[4]), (std::vector<std::string>{"vmgr", "yes", "yes", "yes", "yes", "/var/ondra/vmgr", "no",
                                                     "runs", "-", sim::daemonScript(mod, 1)}));
    EXPECT_EQ(row(out[5])[7], "exit=1");
    EXPECT_EQ(out[3].find(pid), out[2].find("PIDS")) << "aligned columns\n" << r.out;
    EXPECT_EQ(out[7], "udp arguments: 2 lines in the STORAGE section of /etc/marrowby/comm/udpargs.cfg");
    EXPECT_EQ(out[8], "  --udp");
    EXPECT_EQ(out[9], "  7 8");
    EXPECT_EQ(out[10], "memory device /dev/umem/disc0/disc: absent");
    EXPECT_EQ(out[11], "databases: none");

    const std::string json = tavsim({"daemons", d, "show", "--json"}).out;
    for (const std::string& part : {"\"pids\": [\n        " + pid + "\n      ]", std::string("\"exit\": 1"),
                                    std::string("\"system_id\": \"NO_SYSTEM_ID\""),
                                    std::string("\"path\": \"/etc/marrowby/manager/ondraMgrDeinit.cfg\"")})
        EXPECT_NE(json.find(part), std::string::npos) << part << "\n" << json;
    EXPECT_NE(tavsim({"show", d}).out.find("\ndaemons: installed, 1 live, system id NO_SYSTEM_ID\n"), std::string::npos);
    EXPECT_NE(tavsim({"show", d, "--json"}).out.find(
                  "\"daemons\": {\n    \"scripts\": 3,\n    \"live\": 1,\n    \"system_id\": \"NO_SYSTEM_ID\"\n  }"),
              std::string::npos);

    // The data directory is the one the Daemon file names, the system id the
    // file's first line with text.
    m.put(sim::daemonConfig(1, 1), "VIRTUALMANAGER\n/x\n--dir\n/var/ondra/store\nEND\n");
    m.put("/etc/marrowby/comm/ondraSystemId.cfg", "\n\nUNIT 7\nNEXT\n");
    std::filesystem::remove(m.map(sim::daemonConfig(2, 0)));
    r = tavsim({"daemons", d, "show"});
    EXPECT_EQ(textLines(r.out)[0], "daemons: installed, 1 live, system id \"UNIT 7\"");
    EXPECT_EQ(row(textLines(r.out)[4])[5], "/var/ondra/store");
    EXPECT_EQ(row(textLines(r.out)[4])[6], "yes");
    EXPECT_EQ(row(textLines(r.out)[5])[2], "no") << "mgr's Init file is gone";

    EXPECT_EQ(tavsim({"daemons", d, "kill"}).out, "killed 1 daemon: " + pid + "\n");
    reap(store);
    EXPECT_EQ(tavsim({"daemons", d, "kill"}).out, "no daemon of the module was running\n");
    std::filesystem::remove(m.map("/etc/marrowby/comm/ondraSystemId.cfg"));
    std::filesystem::remove(m.host("daemons/ondravmgr"));
    EXPECT_EQ(textLines(tavsim({"daemons", d, "show"}).out)[0],
              "daemons: partly installed (2 of 3 scripts), 0 live, no system id");
}

TEST(TavsimDaemons, RefusalsNameTheArgumentAndItsRange)
{
    TempModule m;
    const std::string d = m.dir();
    const std::string none = std::filesystem::path(d).parent_path().string() + "/none";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    for (const Case& c : std::vector<Case>{
             {{"daemons", d}, 2, "tavsim daemons: give install, show, kill, database or umem\nusage: tavsim daemons DIR install"},
             {{"daemons", d, "start"}, 2, "tavsim daemons: unexpected argument start; give install, show, kill, database or umem"},
             {{"daemons", d, "umem", "maybe"}, 2, "tavsim daemons: umem maybe: give on or off"},
             {{"daemons", d, "database", "sys42"}, 2, "tavsim daemons: database takes SYSTEMID and MD5, or SYSTEMID and --remove"},
             {{"daemons", d, "database", "sys42", "a'b"}, 2, "tavsim daemons: MD5 a'b: give a word without blanks or quotes"},
             {{"daemons", d, "show", "--remove"}, 2, "tavsim daemons: --remove goes with database only"},
             {{"daemons", d, "show", "extra"}, 2, "tavsim daemons: unexpected argument extra"},
             {{"daemons", d, "install", "--fail", "3"}, 2, "tavsim daemons: --fail 3: out of range 0 to 2"},
             {{"daemons", d, "install", "--fail", "disk"}, 2, "tavsim daemons: --fail disk: give store, vmgr or mgr, or 0 to 2"},
             {{"daemons", d, "install", "--fail"}, 2, "tavsim daemons: --fail needs a value: --fail TYPE"},
             {{"daemons", d, "show", "--fail", "1"}, 2, "tavsim daemons: --fail goes with install only"},
             {{"daemons", d, "kill", "--json"}, 2, "tavsim daemons: --json goes with show only"},
             {{"daemons", d, "show", "--all"}, 2, "tavsim daemons: unknown option --all; daemons takes --fail TYPE, --json and --remove"},
             {{"daemons", none, "show"}, 1, "tavsim daemons: " + none + ": no such directory"},
         }) {
        Captured r = tavsim(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back() << "\n" << r.err;
        EXPECT_EQ(r.err.compare(0, c.message.size(), c.message), 0) << r.err;
        EXPECT_EQ(r.out, "");
    }
    // The scripts' directory taken by a file: nothing can be laid in.
    m.put("/daemons", "x");
    Captured r = tavsim({"daemons", d, "install"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "tavsim daemons: cannot write daemons\n");
    r = tavsim({"daemons", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(textLines(r.out)[0], "usage: tavsim daemons DIR install [--fail TYPE] | show [--json] | kill | database "
                               "SYSTEMID MD5|--remove | umem on|off");
}

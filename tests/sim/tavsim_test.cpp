#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include "sim_fixture.h"
#include "sim/programs.h"
#include "sim/tavsim.h"

using namespace simtest;

namespace {

// Runs the built tavsim; gives its exit status and standard output.
int tavsim(const std::string& args, std::string& out)
{
    FILE* f = ::popen((std::string(TAVSIM_BINARY) + " " + args + " 2>&1").c_str(), "r");
    if (!f) return -1;
    out.clear();
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    int status = ::pclose(f);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Serial numbers of the drive rows of `tavsim show` ("BAY DEVICE MAJ:MIN SERIAL ...").
std::vector<std::string> shownSerials(const std::string& show)
{
    std::vector<std::string> serials;
    std::istringstream in(show);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream w(line);
        std::string bay, device, numbers, serial;
        if (!(w >> bay >> device >> numbers >> serial) || bay.find_first_not_of("0123456789") != std::string::npos ||
            serial == "-")
            continue;
        serials.push_back(serial);
    }
    return serials;
}

// The program of a test: reads its module's serial number and stops a service.
int probeProgram(int argc, char** argv)
{
    if (argc != 2 || std::string(argv[1]) != "go") return 3;
    int fd = plat::open("./configs/etc/marrowby/system/.serialnumber", O_RDONLY);
    if (fd < 0) return 4;
    plat::close(fd);
    plat::sleep(100);
    return plat::system("/sbin/service crond stop") == 0 ? 0 : 5;
}

} // namespace

TEST(Tavsim, CreateThenShowInAnotherProcess)
{
    TempModule m(1, false);
    std::string out;
    ASSERT_EQ(tavsim("create " + m.dir() + " --platform 1 --sectors 8388608", out), 0) << out;
    ASSERT_EQ(tavsim("show " + m.dir(), out), 0) << out;
    std::vector<std::string> serials = shownSerials(out);
    EXPECT_EQ(serials.size(), 4u) << out;
    EXPECT_EQ(std::set<std::string>(serials.begin(), serials.end()).size(), 4u) << out;
    EXPECT_NE(out.find("\n1    /dev/ide/host0/bus0/target0/lun0/disc  3:0      "), std::string::npos) << out;
    EXPECT_NE(out.find("\n4    /dev/ide/host0/bus1/target0/lun0/disc  22:0     "), std::string::npos) << out;

    ASSERT_EQ(tavsim("pull " + m.dir() + " 3", out), 0) << out;
    EXPECT_EQ(out.find("pulled drive " + serials[2] + " from bay 3 to the shelf\n"), 0u) << out;
    ASSERT_EQ(tavsim("fault " + m.dir() + " write '/dev/ide/*' nth=2 errno=EIO", out), 0) << out;
    EXPECT_EQ(tavsim("fault " + m.dir() + " write /x errno=ENOTANERRNO", out), 2);
    ASSERT_EQ(tavsim("corrupt " + m.dir() + " 1 0 deadbeef", out), 0) << out;
    ASSERT_EQ(tavsim("show " + m.dir(), out), 0);
    EXPECT_EQ(shownSerials(out).size(), 3u) << out;
    EXPECT_NE(out.find("\nshelf  " + serials[2] + "  8388608  4G "), std::string::npos) << out;
    EXPECT_NE(out.find("\nfault  write  /dev/ide/*  2    1      -        errno=EIO\n"), std::string::npos) << out;
    ASSERT_EQ(tavsim("--help", out), 0);
    for (const char* cmd : {"create", "show", "pull", "insert", "swap", "corrupt", "fault", "log", "run"})
        EXPECT_NE(out.find(std::string("  ") + cmd + " "), std::string::npos) << cmd;

    EXPECT_EQ(tavsim("create " + m.dir() + " --platform 1", out), 1) << "the directory is taken";
    TempModule other(1, false);
    EXPECT_EQ(tavsim("create " + other.dir() + " --platform 5", out), 1) << "LSI comes later";
    ASSERT_EQ(tavsim("create " + other.dir() + " --platform 3 --sectors 8388608", out), 0) << out;
    ASSERT_EQ(tavsim("show " + other.dir(), out), 0);
    EXPECT_EQ(shownSerials(out).size(), 2u) << out;
}

TEST(Tavsim, RunCallsARegisteredProgramWithTheModuleInstalled)
{
    TempModule m;
    sim::registerProgram("probe", probeProgram);
    plat::Platform* before = &plat::current();
    EXPECT_EQ(callTavsim({"run", m.dir(), "--", "probe", "go"}), 0);
    EXPECT_EQ(callTavsim({"run", m.dir(), "--", "probe"}), 3);
    EXPECT_NE(callTavsim({"run", m.dir(), "--", "nonesuch"}), 0);
    EXPECT_EQ(&plat::current(), before) << "the host platform is back";
    sim::Module mod(m.dir());
    EXPECT_NE(mod.readState("commands.log").find("system 0 /sbin/service crond stop"), std::string::npos);
    EXPECT_EQ(mod.now().tv_sec, 1136073600 + 100);
}

namespace {

using Snapshot = std::map<std::string, long long>;

// Names and modification times of a directory's entries; terminals and logs
// change their times by themselves, so with `times` false only names count.
Snapshot snapshot(const std::string& dir, bool times = true)
{
    Snapshot s;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        struct stat st;
        long long& mtime = s[e.path().filename().string()];
        if (::lstat(e.path().c_str(), &st) != 0) mtime = -1;
        else if (times && !S_ISCHR(st.st_mode)) mtime = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    }
    return s;
}

} // namespace

TEST(Tavsim, NothingOutsideTheModuleChanges)
{
    const Snapshot dev = snapshot("/dev"), etc = snapshot("/etc"), varLog = snapshot("/var/log", false);
    const bool hadLogBak = std::filesystem::exists("/var/log.bak");
    const std::string probe = "tavsim-probe-" + std::to_string(::getpid());
    {
        TempModule m;
        sim::SimPlatform p(m.dir());
        plat::ScopedPlatform scope(p);
        // What the system does to a module, and what it must never do to the host.
        plat::mkdir("/var/log.bak", 0755);
        plat::system("/sbin/service syslog stop");
        plat::system("cp -r /var/log/* /var/log.bak");
        plat::system(("rm -rf /tmp/" + probe).c_str());
        int fd = plat::open(("/tmp/" + probe).c_str(), O_WRONLY | O_CREAT, 0644);
        plat::write(fd, "x", 1);
        plat::close(fd);
        char templ[64];
        snprintf(templ, sizeof templ, "/tmp/%s.XXXXXX", probe.c_str());
        fd = plat::mkstemp(templ);
        plat::close(fd);
        plat::mknod("/dev/tavsim-probe-node", S_IFBLK | 0600, makedev(8, 0));
        plat::open("/dev/sda", O_RDONLY);
        plat::open(("/../../tmp/" + probe + "-escape").c_str(), O_WRONLY | O_CREAT, 0644);
        plat::mkdir(("/etc/../../tmp/" + probe + "-dir").c_str(), 0755);
        FILE* f = plat::fopen("/etc/marrowby/written", "w");
        if (f) fclose(f);
        plat::sleep(30);
        EXPECT_TRUE(std::filesystem::exists(m.host("tmp/" + probe)));
        EXPECT_NE(m.get("/sim/nodes").find("/dev/tavsim-probe-node b 8 0 0600"), std::string::npos);
    }
    EXPECT_EQ(snapshot("/dev"), dev);
    EXPECT_EQ(snapshot("/etc"), etc);
    EXPECT_EQ(snapshot("/var/log", false), varLog);
    EXPECT_EQ(std::filesystem::exists("/var/log.bak"), hadLogBak);
    for (const auto& [name, mtime] : snapshot("/tmp")) EXPECT_EQ(name.find(probe), std::string::npos) << name;
}

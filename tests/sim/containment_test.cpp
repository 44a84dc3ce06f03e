// The seal of the module and one state for many processes. Every escape is
// tried against a decoy directory beside the module, which must stay byte for
// byte as it was.
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <map>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "hwlib/iosched.h"
#include "sim/ata.h"
#include "sim/md_kernel.h"
#include "tavutils/tavdrivesig.h"
#include "sim_fixture.h"

using namespace simtest;
namespace fs = std::filesystem;

namespace {

class Decoy {
public:
    explicit Decoy(const TempModule& m) : dir_(fs::path(m.dir()).parent_path() / "decoy")
    {
        fs::create_directories(dir_ / "lun0");
        write("file", "decoy file\n");
        write("lun0/disc", std::string(4096, 'D'));
        before_ = contents();
    }
    std::string path(const std::string& rel) const { return (dir_ / rel).string(); }
    void write(const std::string& rel, const std::string& text) const { std::ofstream(dir_ / rel) << text; }
    std::map<std::string, std::string> contents() const
    {
        std::map<std::string, std::string> out;
        for (const auto& e : fs::recursive_directory_iterator(dir_)) {
            std::ifstream in(e.path(), std::ios::binary);
            std::stringstream text;
            if (e.is_regular_file()) text << in.rdbuf();
            out[e.path().string()] = text.str();
        }
        return out;
    }
    bool unchanged() const { return contents() == before_; }

private:
    fs::path dir_;
    std::map<std::string, std::string> before_;
};

// Runs `body` in a child process; gives its exit status.
template <typename F>
int inChild(F body)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

int countLines(const std::string& text, const std::string& start)
{
    int n = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) n += line.compare(0, start.size(), start) == 0;
    return n;
}

} // namespace

TEST(Seal, NoModuleNoRootAndNoEmptyDirectory)
{
    TempModule m(1, false);
    fs::create_directories(m.dir());
    fs::create_symlink("/", m.dir() + "-root");
    for (const std::string& dir : {std::string("/"), m.dir() + "-root", m.dir(), std::string("/tmp")}) {
        EXPECT_THROW(sim::Module{dir}, sim::NotAModule) << dir;
        EXPECT_THROW(sim::SimPlatform{dir}, std::exception) << dir;
    }
    sim::CreateOptions options;
    options.sectors = kSectors;
    EXPECT_NE(sim::createModule("/", options), "");
    EXPECT_NE(sim::createModule(m.dir() + "-root", options), "");
    EXPECT_EQ(sim::createModule(m.dir(), options), "") << "an empty directory may be made a module";
    EXPECT_NO_THROW(sim::Module{m.dir()});
}

TEST(Seal, LinkedDirectoriesInsideLeadNowhere)
{
    TempModule m;
    Decoy decoy(m);
    // The queue's tuning directory replaced by a link to the decoy.
    const std::string queue = m.host("sys/block/hda/queue");
    fs::remove_all(queue + "/iosched");
    fs::create_directory_symlink(decoy.path(""), queue + "/iosched");
    // Bay 1's lun0 replaced by a link to the decoy's.
    const std::string lun = m.host("dev/ide/host0/bus0/target0/lun0");
    fs::rename(lun, lun + ".moved");
    fs::create_directory_symlink(decoy.path("lun0"), lun);
    {
        sim::SimPlatform p(m.dir());
        plat::ScopedPlatform scope(p);
        configureIoScheduler("/dev/ide/host0/bus0/target0/lun0/disc");  // selects the feature's deadline
        int fd = plat::open("/sys/bus/ide/devices/0.0/block/queue/scheduler", O_WRONLY, 0);
        if (fd >= 0) {
            plat::write(fd, "anticipatory", 12);
            plat::close(fd);
        }
        plat::system("mkfs -t ext2 /dev/ide/host0/bus0/target0/lun0/disc");
        plat::system("mkreiserfs /dev/ide/host0/bus0/target0/lun0/disc");
        EXPECT_LT(plat::open(kDisc1, O_RDWR, 0), 0) << "the node's image lies behind a link: no node";
    }
    sim::Module module(m.dir());
    EXPECT_NE(module.overwrite(kDisc1, 0, "XXXX"), "");
    EXPECT_NE(callTavsim({"corrupt", m.dir(), "1", "0", "58585858"}), 0);
    EXPECT_NE(module.pull(1), "") << "the image lies behind a link";
    // The shelf replaced by a link: nothing is moved to it or made in it.
    const std::string serial3 = module.manifest().driveInBay(3)->serial;
    ASSERT_EQ(module.pull(3), "");
    fs::rename(m.host("sim/shelf"), m.host("sim/shelf.moved"));
    fs::create_directory_symlink(decoy.path("lun0"), m.host("sim/shelf"));
    EXPECT_NE(module.pull(2), "");
    EXPECT_NE(module.insert(3, ""), "");
    EXPECT_NE(module.insert(3, serial3), "");
    EXPECT_TRUE(decoy.unchanged());
}

TEST(Seal, HardLinksAndALinkSwappedInDuringTheOpen)
{
    TempModule m;
    Decoy decoy(m);
    fs::create_hard_link(decoy.path("file"), m.host("tmp/x"));
    sim::SimPlatform p(m.dir());
    EXPECT_LT(p.open("/tmp/x", O_WRONLY | O_TRUNC, 0), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(p.fopen("/tmp/x", "w"), nullptr);
    EXPECT_EQ(p.fopen("/tmp/x", "a"), nullptr);
    int fd = p.open("/tmp/x", O_RDONLY, 0);
    EXPECT_GE(fd, 0) << "reading through a hard link is harmless";
    p.close(fd);

    // A thread swaps a link to the decoy in and out of /tmp/y while files are opened there.
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        const std::string y = m.host("tmp/y"), plain = m.host("tmp/y.plain"), link = m.host("tmp/y.link");
        for (int i = 0; !stop; ++i) {
            std::ofstream(plain) << "plain";
            fs::create_symlink(decoy.path("file"), link);
            fs::rename(i % 2 ? link : plain, y);
            std::error_code ignored;
            fs::remove(link, ignored);
            fs::create_hard_link(decoy.path("file"), link, ignored);
            fs::rename(link, y, ignored);
        }
    });
    for (int i = 0; i < 400; ++i) {
        int w = p.open("/tmp/y", O_WRONLY | O_TRUNC, 0);
        if (w >= 0) {
            p.write(w, "overwritten", 11);
            p.close(w);
        }
    }
    stop = true;
    swapper.join();
    EXPECT_TRUE(decoy.unchanged());
}

TEST(Seal, HandEditedManifestCannotLeadOut)
{
    TempModule m;
    Decoy decoy(m);
    std::string manifest = m.get("/sim/manifest");
    size_t at = manifest.find("/dev/ide/host0/bus0/target0/lun0/disc");
    manifest.replace(at, std::strlen(kDisc1), "/dev/../../decoy/lun0/disc");
    m.put("/sim/manifest", manifest);
    sim::Module module(m.dir());
    module.overwrite("/dev/../../decoy/lun0/disc", 0, "XXXX");
    module.pull(1);
    module.insert(1, "");
    callTavsim({"corrupt", m.dir(), "1", "0", "58585858"});
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    int fd = plat::open("/dev/../../decoy/lun0/disc", O_RDWR, 0);
    EXPECT_LT(fd, 0);
    EXPECT_TRUE(decoy.unchanged());
}

TEST(Sharing, TwoProcessesLoseNoServiceMountOrFault)
{
    TempModule m;
    std::vector<pid_t> children;
    for (int k = 0; k < 2; ++k) {
        pid_t pid = ::fork();
        if (pid == 0) {
            sim::SimPlatform p(m.dir());
            plat::ScopedPlatform scope(p);
            for (int i = 0; i < 300; ++i) {
                std::string tag = std::to_string(k) + "_" + std::to_string(i);
                plat::system(("/sbin/service svc" + tag + " start").c_str());
                plat::system(("mount src" + tag + " /mnt").c_str());
                if (i < 100) p.arm(sim::Fault::failing(sim::Op::Read, "/tmp/f" + tag, 1, EIO));
            }
            ::_exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) ::waitpid(pid, nullptr, 0);
    sim::Module module(m.dir());
    EXPECT_EQ(countLines(module.readState("services"), "svc"), 600);
    EXPECT_EQ(countLines(module.readState("mounts"), "src"), 600);
    EXPECT_EQ(countLines(module.readState("faults"), "read /tmp/f"), 200);
}

// Changes come quicker than the file system's clock ticks: each must still
// be seen by a view kept elsewhere, in this process or another.
TEST(Sharing, ViewsKeptElsewhereSeeEveryChangeAtOnce)
{
    TempModule m;
    sim::Module writer(m.dir()), reader(m.dir());
    const timeval start = reader.now();
    reader.manifest();
    sim::mdState(reader);
    for (int i = 1; i <= 5; ++i) {
        writer.advance(1);
        EXPECT_EQ(reader.now().tv_usec, start.tv_usec + i);
        writer.updateManifest([&](sim::Manifest& mm) {
            mm.driveInBay(1)->transferMode = 0x40 + i;
            return true;
        });
        EXPECT_EQ(reader.manifest().driveInBay(1)->transferMode, 0x40 + i);
        sim::visitMd(writer, [&](sim::MdKernel& k) { k.setSpeedLimit(true, 1000 * i); });
        EXPECT_EQ(sim::mdState(reader).speedMax, 1000 * i);
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        sim::Module child(m.dir());
        child.advance(1000000);
        sim::visitMd(child, [](sim::MdKernel& k) { k.setSpeedLimit(false, 77); });
        ::_exit(0);
    }
    ::waitpid(pid, nullptr, 0);
    EXPECT_EQ(reader.now().tv_sec, start.tv_sec + 1);
    EXPECT_EQ(sim::mdState(reader).speedMin, 77);
}

TEST(Sharing, ALogReplacedOrRemovedIsWrittenWhereItNowIs)
{
    TempModule m;
    sim::Module module(m.dir());
    module.appendState("md.log", "one");
    module.writeState("md.log", "");
    module.appendState("md.log", "two");
    EXPECT_EQ(module.readState("md.log"), "two\n");
    fs::remove(m.host("sim/md.log"));
    module.appendState("md.log", "three");
    EXPECT_EQ(module.readState("md.log"), "three\n");
}

TEST(Seal, StateWritesReplaceLinksNotTheirTargetsAndLeaveNoTemporaries)
{
    TempModule m;
    Decoy decoy(m);
    sim::Module module(m.dir());
    fs::create_symlink(decoy.path("file"), m.host("sim/linked"));
    EXPECT_TRUE(module.host().writeFileAtomic("sim/linked", "mine\n"));
    EXPECT_FALSE(fs::is_symlink(m.host("sim/linked")));
    EXPECT_EQ(module.readState("linked"), "mine\n");
    fs::create_directory(m.host("sim/dir"));
    EXPECT_FALSE(module.host().writeFileAtomic("sim/dir", "x"));
    EXPECT_TRUE(fs::is_directory(m.host("sim/dir")));
    // A log kept open and then linked out is not written again.
    module.appendState("ata.log", "first");
    fs::create_hard_link(m.host("sim/ata.log"), decoy.path("ata.log"));
    module.appendState("ata.log", "second");
    EXPECT_EQ(m.get("/sim/ata.log").find("second"), std::string::npos);
    fs::remove(decoy.path("ata.log"));
    for (const auto& entry : fs::directory_iterator(m.host("sim")))
        EXPECT_EQ(entry.path().string().find(".tmp"), std::string::npos) << entry.path();
    EXPECT_TRUE(decoy.unchanged());
}

TEST(Sharing, AFaultArmedElsewhereHitsARunningProgramAndOthersStay)
{
    TempModule m;
    m.put("/tmp/data", "data");
    sim::SimPlatform running(m.dir());
    int fd = running.open("/tmp/data", O_RDONLY, 0);
    char buf[8];
    EXPECT_EQ(running.pread(fd, buf, 4, 0), 4);
    EXPECT_EQ(inChild([&] {
                  ::_exit(callTavsim({"fault", m.dir(), "read", "/tmp/data", "errno=EIO"}) == 0 &&
                                  callTavsim({"fault", m.dir(), "write", "/tmp/other", "errno=ENOSPC"}) == 0
                              ? 0
                              : 1);
              }),
              0);
    EXPECT_EQ(running.pread(fd, buf, 4, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(running.pread(fd, buf, 4, 0), 4) << "it hit its one call";
    std::string left = sim::Module(m.dir()).readState("faults");
    EXPECT_EQ(countLines(left, "read"), 0) << left;
    EXPECT_EQ(countLines(left, "write /tmp/other"), 1) << left;
    running.close(fd);
}

TEST(Sharing, StreamsCarryFaultsAndPowerCuts)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    p.arm(sim::Fault::failing(sim::Op::Write, "/etc/marrowby/saved", 1, ENOSPC));
    FILE* f = p.fopen("/etc/marrowby/saved", "w");
    ASSERT_NE(f, nullptr);
    std::fputs("settings\n", f);
    EXPECT_NE(std::fclose(f), 0) << "the failed write shows at the close";
    p.arm(sim::Fault::powerCut("/etc/marrowby/other", 0));
    f = p.fopen("/etc/marrowby/other", "w");
    ASSERT_NE(f, nullptr);
    std::fputs("lost\n", f);
    EXPECT_EQ(std::fclose(f), 0);
    EXPECT_EQ(m.get("/etc/marrowby/other"), "") << "written after the power went";
}

TEST(Kernel, RereadIsRefusedWhilePartitionsAreOpenElsewhereOrMounted)
{
    TempModule m;
    ASSERT_EQ(callTavsim({"partition", m.dir()}), 0);
    const std::string part1 = std::string(kDir1) + "part1";
    int ready[2], release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    pid_t holder = ::fork();
    if (holder == 0) {
        sim::SimPlatform other(m.dir());
        int fd = other.open(part1.c_str(), O_RDONLY, 0);
        char c = fd >= 0 ? 'y' : 'n';
        (void)!::write(ready[1], &c, 1);
        (void)!::read(release[0], &c, 1);
        ::_exit(0);
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    sim::SimPlatform p(m.dir());
    {
        // The table builder's re-read, and its retry after a pause, meet the busy disk.
        plat::ScopedPlatform scope(p);
        EXPECT_EQ(buildPartitions(kDisc1, 2097152, 2097152, 0, 98304, 20480, false), 3);
    }
    int disc = p.open(kDisc1, O_RDONLY, 0);
    EXPECT_EQ(p.ioctl(disc, BLKRRPART, nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    (void)!::write(release[1], "x", 1);
    ::waitpid(holder, nullptr, 0);
    EXPECT_EQ(p.ioctl(disc, BLKRRPART, nullptr), 0) << "the other process let go";

    ASSERT_EQ(p.system(("mount " + part1 + " /mnt").c_str()), 0);
    EXPECT_EQ(p.ioctl(disc, BLKRRPART, nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(p.system("umount /mnt"), 0);
    EXPECT_EQ(p.ioctl(disc, BLKRRPART, nullptr), 0);
    p.close(disc);
}

TEST(Kernel, IdentityIsTheCopyFoundWithTheDrive)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    auto serialOf = [&](const char* disc, bool live) {
        int fd = p.open(disc, O_RDONLY, 0);
        unsigned char block[516] = {sim::kAtaIdentify, 0, 0, 1};
        std::string serial;
        if (live) {
            EXPECT_EQ(p.ioctl(fd, HDIO_DRIVE_CMD, block), 0);
            for (int i = 20; i < 40; i += 2) serial += {static_cast<char>(block[4 + i + 1]), static_cast<char>(block[4 + i])};
            serial.erase(serial.find_last_not_of(' ') + 1);
        } else {
            EXPECT_EQ(p.ioctl(fd, HDIO_GET_IDENTITY, block), 0);
            serial = std::string(reinterpret_cast<char*>(block) + 20, strnlen(reinterpret_cast<char*>(block) + 20, 20));
        }
        p.close(fd);
        return serial;
    };
    const std::string first = p.module().manifest().driveInBay(1)->serial;
    const std::string second = p.module().manifest().driveInBay(2)->serial;
    const char* disc2 = "/dev/ide/host0/bus0/target1/lun0/disc";
    ASSERT_EQ(p.module().swap(1, 2), "");
    EXPECT_EQ(serialOf(kDisc1, false), first) << "swapped behind the kernel's back";
    EXPECT_EQ(serialOf(kDisc1, true), second) << "the drive itself answers with its own";
    ASSERT_EQ(p.module().pull(1), "");
    ASSERT_EQ(p.module().insert(1, second), "");
    EXPECT_EQ(serialOf(kDisc1, false), second) << "found again when inserted";
    EXPECT_EQ(serialOf(disc2, false), second) << "bay 2 still has the copy of the drive it found";
}

TEST(Kernel, SchedulerAndAttributeStoresAndTheBond)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    const std::string queue = "/sys/block/hda/queue/";
    auto store = [&](const std::string& file, const std::string& text, off_t at) {
        int fd = p.open((queue + file).c_str(), O_WRONLY, 0);
        ssize_t n = p.pwrite(fd, text.data(), text.size(), at);
        p.close(fd);
        return n;
    };
    ASSERT_EQ(store("iosched/quantum", "9", 0), 1);
    EXPECT_EQ(store("scheduler", "cfq", 0), 3) << "the current scheduler";
    EXPECT_EQ(m.get(queue + "iosched/quantum"), "9\n") << "its tuning is kept";
    EXPECT_EQ(store("scheduler", "deadline", 7), 8) << "the position of a store is ignored";
    EXPECT_NE(m.get(queue + "scheduler").find("[deadline]"), std::string::npos);
    EXPECT_FALSE(m.exists(queue + "iosched/quantum"));
    EXPECT_EQ(store("scheduler", "bogus", 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(p.open((queue + "new").c_str(), O_WRONLY | O_CREAT, 0644), 0) << "attributes are not made";

    int sock = p.socket(AF_INET, SOCK_DGRAM, 0);
    ifreq req{};
    std::strcpy(req.ifr_name, "bond0");
    ASSERT_EQ(p.ioctl(sock, SIOCGIFFLAGS, &req), 0);
    EXPECT_TRUE(req.ifr_flags & IFF_MASTER);
    std::strcpy(req.ifr_name, "eth0");
    ASSERT_EQ(p.ioctl(sock, SIOCGIFFLAGS, &req), 0);
    EXPECT_FALSE(req.ifr_flags & IFF_MASTER);
    ::close(sock);
}

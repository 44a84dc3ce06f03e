#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/wait.h>

#include "sim_fixture.h"

using namespace simtest;

TEST(Paths, SystemPathsMapIntoTheModuleAndNothingLeavesIt)
{
    TempModule m;
    sim::SimPlatform p(m.dir());

    // "./configs" is relative to the module root, and so is a relative path after chdir.
    FILE* f = p.fopen("./configs/etc/marrowby/system/.serialnumber", "r");
    ASSERT_NE(f, nullptr);
    char line[64] = {};
    ASSERT_NE(fgets(line, sizeof line, f), nullptr);
    fclose(f);
    EXPECT_EQ(std::string(line), p.module().manifest().moduleSerial + "\n");
    ASSERT_EQ(p.mkdir("/var/log.bak", 0755), 0);
    EXPECT_TRUE(std::filesystem::is_directory(m.host("var/log.bak")));
    ASSERT_EQ(p.chdir("/etc/marrowby"), 0);
    EXPECT_EQ(p.access("hwlist.conf", R_OK), 0);

    for (const char* escape : {"/../../etc/passwd", "../../../tmp", "/usr/bin/env", "/sim/manifest",
                               "/etc/../../x", "/root", "/dev/../../../../dev/sda"}) {
        struct stat st;
        errno = 0;
        EXPECT_EQ(p.stat(escape, &st), -1) << escape;
        EXPECT_EQ(errno, EACCES) << escape;
        EXPECT_EQ(p.open(escape, O_RDONLY, 0), -1) << escape;
        EXPECT_EQ(p.fopen(escape, "w"), nullptr) << escape;
        EXPECT_EQ(p.opendir(escape), nullptr) << escape;
    }
    EXPECT_EQ(p.mkdir("/home/tavsim-probe", 0755), -1);
    EXPECT_EQ(p.rename("/etc/marrowby/hwlist.conf", "/../hwlist.conf"), -1);
    char templ[] = "/../tavsim-probe.XXXXXX";
    EXPECT_EQ(p.mkstemp(templ), -1);

    // A link planted in the module could point anywhere: it is refused.
    ASSERT_EQ(::symlink("/etc", m.host("etc/marrowby/link").c_str()), 0);
    EXPECT_EQ(p.open("/etc/marrowby/link/hostname", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EACCES);

    // The process's own /proc entries read through, and only read.
    int fd = p.open("/proc/self/status", O_RDONLY, 0);
    EXPECT_GE(fd, 0);
    p.close(fd);
    EXPECT_EQ(p.open("/proc/self/status", O_WRONLY, 0), -1);
    for (const char* link : {"/proc/self/root/etc/hostname", "/proc/self/cwd", "/proc/self/fd/0", "/proc/self/exe"}) {
        EXPECT_EQ(p.open(link, O_RDONLY, 0), -1) << link;
        EXPECT_EQ(errno, EACCES) << link;
    }
    DIR* fds = p.opendir(("/proc/" + std::to_string(::getpid()) + "/fd").c_str());
    EXPECT_NE(fds, nullptr);
    if (fds) ::closedir(fds);

    // The drive nodes stay: the system cannot remove or rename them.
    EXPECT_EQ(p.unlink(kDisc1), -1);
    EXPECT_EQ(p.rename(kDisc1, "/tmp/x"), -1);
    EXPECT_TRUE(std::filesystem::exists(m.host("dev/ide/host0/bus0/target0/lun0/disc")));
}

TEST(Commands, LoggedAnsweredAndNeverRun)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    const std::string marker = "/tmp/tavsim-never-run-" + std::to_string(::getpid());

    EXPECT_EQ(p.system("/sbin/service syslog stop"), 0);
    EXPECT_EQ(p.system(("touch " + marker).c_str()), W_EXITCODE(127, 0));
    EXPECT_EQ(p.system(("/etc/marrowby/tav_osraid start " + std::string(kDir1)).c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(marker));
    EXPECT_NE(p.module().readState("services").find("syslog stopped"), std::string::npos);

    // lsof lists nothing; a pipe still reads to its end and closes with the status.
    FILE* f = p.popen("lsof +D /var/log -Fp0", "r");
    ASSERT_NE(f, nullptr);
    char word[32];
    EXPECT_EQ(fscanf(f, "%31s", word), EOF);
    EXPECT_EQ(p.pclose(f), W_EXITCODE(1, 0));
    f = p.popen("echo one two | grep -v three", "r");
    ASSERT_NE(f, nullptr);
    ASSERT_NE(fgets(word, sizeof word, f), nullptr);
    EXPECT_EQ(std::string(word), "one two\n");
    EXPECT_EQ(p.pclose(f), 0);

    std::string log = p.module().readState("commands.log");
    EXPECT_NE(log.find("1136073600 system 0 /sbin/service syslog stop\n"), std::string::npos) << log;
    EXPECT_NE(log.find("system 127 unknown touch " + marker), std::string::npos) << log;
    EXPECT_NE(log.find("popen 1 lsof +D /var/log -Fp0"), std::string::npos) << log;
}

TEST(Commands, FileSystemsAndMountsLeaveTheirTraces)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    int fd = p.open(kDisc1, O_WRONLY, 0);
    for (const TableSector& t : standardLayout(4000000, 2097152, 2097152, 98304))
        ASSERT_EQ(p.pwrite(fd, t.bytes.data(), 512, static_cast<off_t>(t.sector * 512)), 512);
    ASSERT_EQ(p.ioctl(fd, BLKRRPART, nullptr), 0);
    p.close(fd);
    const std::string part2 = std::string(kDir1) + "part2", part5 = std::string(kDir1) + "part5";

    EXPECT_EQ(p.system(("echo y | mkreiserfs " + part2).c_str()), 0);
    EXPECT_EQ(p.system(("/sbin/mkfs -t ext3 -F " + part5 + " 2>&1 > /dev/null").c_str()), 0);
    char magic[10] = {};
    fd = p.open(part2.c_str(), O_RDONLY, 0);
    ASSERT_EQ(p.pread(fd, magic, 9, 65536 + 52), 9);
    EXPECT_EQ(std::string(magic), "ReIsEr2Fs");
    p.close(fd);
    fd = p.open(part5.c_str(), O_RDONLY, 0);
    ASSERT_EQ(p.pread(fd, magic, 2, 1080), 2);
    EXPECT_EQ(magic[0] & 0xff, 0x53);
    EXPECT_EQ(magic[1] & 0xff, 0xEF);
    p.close(fd);
    EXPECT_NE(p.system((std::string("mke2fs ") + kDir1 + "part9").c_str()), 0) << "no such partition";

    ASSERT_EQ(p.mkdir("/mnt/data", 0755), 0);
    EXPECT_EQ(p.system(("/bin/mount -t ext3 " + part5 + " /mnt/data").c_str()), 0);
    EXPECT_EQ(p.system(("mount " + part5 + " /mnt/missing").c_str()), W_EXITCODE(32, 0));
    EXPECT_NE(p.module().readState("mounts").find(part5 + " /mnt/data ext3"), std::string::npos);
    EXPECT_EQ(p.system("umount /mnt/data"), 0);
    EXPECT_EQ(p.system("umount /mnt/data"), W_EXITCODE(1, 0)) << "not mounted any more";
    EXPECT_EQ(p.system("lilo -verbose=3 -C ./configs/etc/lilo.conf -r /mnt/data"), 0);
    EXPECT_EQ(p.system("a; b"), W_EXITCODE(127, 0)) << "sequences are not taken";
}

TEST(Clock, SleepsAdvanceTheVirtualClockAtOnce)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    const time_t start = p.time(nullptr);
    const time_t realStart = ::time(nullptr);
    EXPECT_EQ(p.sleep(3600), 0u);
    EXPECT_EQ(p.usleep(1500000), 0);
    timespec ns{2, 500000000}, rem{9, 9};
    EXPECT_EQ(p.nanosleep(&ns, &rem), 0);
    EXPECT_EQ(rem.tv_sec, 0);
    timeval wait{10, 0};
    EXPECT_EQ(p.waitTimeout(&wait), 0);
    EXPECT_EQ(p.waitTimeout(nullptr), -1) << "an endless wait would hang the test";
    EXPECT_LE(::time(nullptr) - realStart, 2);
    timeval tv{};
    sim::SimPlatform other(m.dir());
    ASSERT_EQ(other.gettimeofday(&tv), 0);
    EXPECT_EQ(tv.tv_sec, start + 3614);
    EXPECT_EQ(tv.tv_usec, 0);
}

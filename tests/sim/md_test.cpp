// The md driver of the simulated module as the system meets it: requests on
// /dev/mdN through the platform, /proc/mdstat, the speed limits, superblocks
// on the members, recovery on the virtual clock, and tavsim's view of it all.
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/major.h>
#include <linux/raid/md_p.h>
#include <linux/raid/md_u.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim_fixture.h"
#include "sim/md_kernel.h"
#include "sim/table.h"

using namespace simtest;

namespace {

// The bays' directories in the layout of platform 1 and the kernel's names of their disks.
const char* const kBayDir[] = {"", "/dev/ide/host0/bus0/target0/lun0/", "/dev/ide/host0/bus0/target1/lun0/",
                               "/dev/ide/host0/bus1/target1/lun0/", "/dev/ide/host0/bus1/target0/lun0/"};
const char* const kDisk[] = {"", "hda", "hdb", "hdd", "hdc"};
constexpr int kData = 2, kOs = 5, kOs2 = 6, kLog = 7;

struct Part {
    int bay;
    int number = kData;
    std::string path() const { return kBayDir[bay] + std::string("part") + std::to_string(number); }
    std::string name() const { return kDisk[bay] + std::to_string(number); }
};

// A partitioned module of four bays with its platform in place.
class Md : public testing::Test {
protected:
    Md()
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(callTavsim({"partition", m.dir()}), 0);
        testing::internal::GetCapturedStdout();
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
    }

    // 0 or the errno of one request on /dev/mdN.
    int call(int minor, unsigned long request, void* arg = nullptr)
    {
        int fd = plat::open(("/dev/md" + std::to_string(minor)).c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        int rc = plat::ioctl(fd, request, arg);
        int error = rc == 0 ? 0 : errno;
        plat::close(fd);
        return error;
    }
    static void* value(dev_t d) { return reinterpret_cast<void*>(static_cast<uintptr_t>(d)); }
    dev_t dev(Part p)
    {
        struct stat st {};
        EXPECT_EQ(plat::stat(p.path().c_str(), &st), 0) << p.path();
        return st.st_rdev;
    }
    uint64_t bytes(const std::string& path)
    {
        int fd = plat::open(path.c_str(), O_RDONLY);
        uint64_t n = 0;
        EXPECT_EQ(plat::ioctl(fd, BLKGETSIZE64, &n), 0) << path;
        plat::close(fd);
        return n;
    }
    // The component of a partition, worked out from its size: below the last 64 KiB-aligned 64 KiB.
    uint64_t componentKiB(Part p) { return ((bytes(p.path()) & ~65535ULL) - 65536) / 1024; }

    int addDisk(int minor, Part p, int number, int raidDisk, int state)
    {
        mdu_disk_info_t d{number, static_cast<int>(major(dev(p))), static_cast<int>(minor(dev(p))), raidDisk, state};
        return call(minor, ADD_NEW_DISK, &d);
    }
    // A new array of `parts`, all in sync, as the system makes one.
    void create(int minor, int level, const std::vector<Part>& parts, int raidDisks = 0)
    {
        mdu_array_info_t info{};
        info.minor_version = 90;
        info.level = level;
        info.raid_disks = raidDisks ? raidDisks : static_cast<int>(parts.size());
        info.md_minor = minor;
        info.chunk_size = 256 * 1024;
        info.layout = 2;
        ASSERT_EQ(call(minor, SET_ARRAY_INFO, &info), 0);
        for (size_t i = 0; i < parts.size(); ++i)
            ASSERT_EQ(addDisk(minor, parts[i], static_cast<int>(i), static_cast<int>(i), 6), 0);
        mdu_param_t param{level == 0 ? 2 : level == 1 ? 3 : 4, 256 * 1024, 0};
        ASSERT_EQ(call(minor, RUN_ARRAY, &param), 0);
    }
    // Assembly from superblocks, the numbers given being of no account.
    int assemble(int minor, const std::vector<Part>& parts)
    {
        EXPECT_EQ(call(minor, SET_ARRAY_INFO), 0);
        for (const Part& p : parts) EXPECT_EQ(addDisk(minor, p, 9, 9, 0), 0) << p.name();
        return call(minor, RUN_ARRAY);
    }
    mdu_array_info_t info(int minor)
    {
        mdu_array_info_t i{};
        EXPECT_EQ(call(minor, GET_ARRAY_INFO, &i), 0);
        return i;
    }
    // "active working failed spare nr".
    std::string counts(int minor)
    {
        mdu_array_info_t i = info(minor);
        return std::to_string(i.active_disks) + " " + std::to_string(i.working_disks) + " " +
               std::to_string(i.failed_disks) + " " + std::to_string(i.spare_disks) + " " + std::to_string(i.nr_disks);
    }
    mdu_disk_info_t disk(int minor, int number)
    {
        mdu_disk_info_t d{};
        d.number = number;
        EXPECT_EQ(call(minor, GET_DISK_INFO, &d), 0);
        return d;
    }
    std::string read(const std::string& path)
    {
        int fd = plat::open(path.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0) << path;
        std::string text;
        char buf[512];
        for (ssize_t n; (n = plat::read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
        plat::close(fd);
        return text;
    }
    int write(const std::string& path, const std::string& text)
    {
        int fd = plat::open(path.c_str(), O_WRONLY | O_TRUNC);
        ssize_t n = plat::write(fd, text.data(), text.size());
        int error = n == static_cast<ssize_t>(text.size()) ? 0 : errno;
        plat::close(fd);
        return error;
    }
    std::string mdstat() { return read("/proc/mdstat"); }
    // The superblock on a partition, at the kernel's place for it.
    mdp_super_t superblock(Part p)
    {
        mdp_super_t sb{};
        int fd = plat::open(p.path().c_str(), O_RDONLY);
        EXPECT_EQ(plat::pread(fd, &sb, sizeof sb, static_cast<off_t>((bytes(p.path()) & ~65535ULL) - 65536)),
                  static_cast<ssize_t>(sizeof sb));
        plat::close(fd);
        return sb;
    }

    TempModule m;
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;
};

std::string line(const std::string& text, const std::string& containing)
{
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        if (l.find(containing) != std::string::npos) return l;
    return "";
}


} // namespace

TEST_F(Md, LevelsZeroOneAndFiveRunWithTheKernelsCountsSizesAndStatus)
{
    EXPECT_EQ(read("/proc/mdstat"), "Personalities : [raid0] [raid1] [raid5] \nunused devices: <none>\n");
    create(0, 0, {{3}, {4}});
    create(1, 1, {{1, kOs2}, {2, kOs2}});
    create(2, 5, {{1, kOs}, {2, kOs}, {3, kOs}});

    const uint64_t data3 = componentKiB({3}), data4 = componentKiB({4}), os = componentKiB({1, kOs});
    EXPECT_EQ(os, 1024 * 1024 - 64) << "a 1 GiB partition keeps its last 64 KiB for the superblock";
    struct Expect {
        int minor, level;
        uint64_t kib;
    };
    for (const Expect& e : {Expect{0, 0, data3 + data4}, Expect{1, 1, os}, Expect{2, 5, 2 * os}}) {
        mdu_array_info_t i = info(e.minor);
        EXPECT_EQ(i.level, e.level);
        EXPECT_EQ(i.md_minor, e.minor);
        EXPECT_EQ(i.major_version * 100 + i.minor_version, 90);
        EXPECT_EQ(i.chunk_size, 256 * 1024);
        EXPECT_EQ(bytes("/dev/md" + std::to_string(e.minor)), e.kib * 1024) << "md" << e.minor;
        unsigned long sectors = 0;
        EXPECT_EQ(call(e.minor, BLKGETSIZE, &sectors), 0);
        EXPECT_EQ(sectors, e.kib * 2);
    }
    EXPECT_EQ(counts(2), "3 3 0 0 3");
    EXPECT_EQ(mdstat(), "Personalities : [raid0] [raid1] [raid5] \n"
                        "md0 : active raid0 hdc2[1] hdd2[0]\n"
                        "      " + std::to_string(data3 + data4) + " blocks 256k chunks\n"
                        "      \n"
                        "md1 : active raid1 hdb6[1] hda6[0]\n"
                        "      1048512 blocks [2/2] [UU]\n"
                        "      \n"
                        "md2 : active raid5 hdd5[2] hdb5[1] hda5[0]\n"
                        "      2097024 blocks level 5, 256k chunk, algorithm 2 [3/3] [UUU]\n"
                        "      \n"
                        "unused devices: <none>\n");

    // The node is 9:N; GET_DISK_INFO tells members and empty slots apart.
    struct stat st {};
    ASSERT_EQ(plat::stat("/dev/md2", &st), 0);
    EXPECT_TRUE(S_ISBLK(st.st_mode));
    EXPECT_EQ(st.st_rdev, makedev(9, 2));
    EXPECT_EQ(plat::stat("/dev/md256", &st), -1);
    mdu_disk_info_t d = disk(2, 1);
    EXPECT_EQ(makedev(d.major, d.minor), dev({2, kOs}));
    EXPECT_EQ(d.raid_disk, 1);
    EXPECT_EQ(d.state, (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC));
    d = disk(2, 3);
    EXPECT_EQ(d.major * 1000 + d.minor, 0);
    EXPECT_EQ(d.raid_disk, -1);
    EXPECT_EQ(d.state, 1 << MD_DISK_REMOVED);

    // Fresh 0.90 superblocks at the end of every member: one set, event count 1, each its own descriptor.
    mdp_super_t a = superblock({1, kOs}), c = superblock({3, kOs});
    EXPECT_EQ(a.md_magic, MD_SB_MAGIC);
    EXPECT_EQ(a.minor_version, 90u);
    EXPECT_EQ(a.level, 5u);
    EXPECT_EQ(a.raid_disks, 3u);
    EXPECT_EQ(a.events_lo, 1u);
    EXPECT_EQ(a.set_uuid0, c.set_uuid0);
    EXPECT_EQ(a.set_uuid3, c.set_uuid3);
    EXPECT_NE(a.set_uuid0, superblock({1, kOs2}).set_uuid0) << "each set has its own uuid";
    EXPECT_EQ(c.this_disk.number, 2u);
    EXPECT_EQ(c.this_disk.raid_disk, 2u);

    // The log tells what the system asked.
    std::string log = sim::Module(m.dir()).readState("md.log");
    EXPECT_NE(log.find(" /dev/md1 ADD_NEW_DISK number=1 raid_disk=1 major=3 minor=70 state=6 -> 0\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" /dev/md0 SET_ARRAY_INFO level=0 raid_disks=2 md_minor=0 chunk_size=262144 layout=2 -> 0\n"),
              std::string::npos) << log;
    EXPECT_NE(log.find(" /dev/md2 RUN_ARRAY personality=4 chunk_size=262144 -> 0\n"), std::string::npos) << log;
}

TEST_F(Md, RequestsAreRefusedWithTheErrorsTheSystemReliesOn)
{
    create(0, 1, {{1}, {2}});
    create(1, 0, {{3, kOs}, {4, kOs}});
    mdu_array_info_t blank{};
    blank.raid_disks = 2;
    blank.chunk_size = 65536;
    ASSERT_EQ(call(5, SET_ARRAY_INFO, &blank), 0);  // allocated, not running
    mdu_array_info_t i{};
    mdu_disk_info_t d{};
    d.number = 27;
    mdu_disk_info_t stranger{0, 3, 62, 0, 6};      // a partition no table has
    sim::Module(m.dir()).appendState("mounts", "/dev/md1 /mnt/data ext3");
    struct Case {
        const char* what;
        int minor;
        unsigned long request;
        void* arg;
        int error;
    };
    const Case cases[] = {
        {"info of no array", 7, GET_ARRAY_INFO, &i, ENODEV},
        {"info of one that does not run", 5, GET_ARRAY_INFO, &i, EINVAL},
        {"set info twice", 0, SET_ARRAY_INFO, &blank, EEXIST},
        {"set info on an allocated array", 5, SET_ARRAY_INFO, nullptr, EEXIST},
        {"add to no array", 7, ADD_NEW_DISK, &stranger, ENODEV},
        {"add to a running array", 0, ADD_NEW_DISK, &stranger, EBUSY},
        {"add a partition that is not there", 5, ADD_NEW_DISK, &stranger, ENODEV},
        {"run no array", 7, RUN_ARRAY, nullptr, ENODEV},
        {"run twice", 0, RUN_ARRAY, nullptr, EBUSY},
        {"run without members", 5, RUN_ARRAY, nullptr, EINVAL},
        {"stop no array", 7, STOP_ARRAY, nullptr, ENODEV},
        {"stop a mounted array", 1, STOP_ARRAY, nullptr, EBUSY},
        {"hot add to no array", 7, HOT_ADD_DISK, value(dev({3})), ENODEV},
        {"hot add to one that does not run", 5, HOT_ADD_DISK, value(dev({3})), EINVAL},
        {"hot add no device", 0, HOT_ADD_DISK, value(makedev(3, 62)), ENXIO},
        {"hot add a member", 0, HOT_ADD_DISK, value(dev({2})), EBUSY},
        {"hot add another array's member", 0, HOT_ADD_DISK, value(dev({3, kOs})), EBUSY},
        {"hot add to level 0", 1, HOT_ADD_DISK, value(dev({3})), EINVAL},
        {"hot add a smaller partition", 0, HOT_ADD_DISK, value(dev({3, kLog})), ENOSPC},
        {"hot remove from one that does not run", 5, HOT_REMOVE_DISK, value(dev({1})), ENODEV},
        {"hot remove a stranger", 0, HOT_REMOVE_DISK, value(dev({3})), ENXIO},
        {"hot remove an active member", 0, HOT_REMOVE_DISK, value(dev({1})), EBUSY},
        {"fail in no array", 7, SET_DISK_FAULTY, value(dev({1})), ENODEV},
        {"fail a stranger", 0, SET_DISK_FAULTY, value(dev({3})), ENODEV},
        {"disk info of one that does not run", 5, GET_DISK_INFO, &d, EINVAL},
        {"disk info beyond the descriptors", 0, GET_DISK_INFO, &d, EINVAL},
        {"a request of no md kind", 0, BLKFLSBUF, nullptr, EINVAL},
    };
    for (const Case& c : cases) EXPECT_EQ(call(c.minor, c.request, c.arg), c.error) << c.what;
    EXPECT_EQ(counts(0), "2 2 0 0 2") << "nothing refused changed the mirror";
    uint64_t size = 1;
    EXPECT_EQ(call(5, BLKGETSIZE64, &size), 0);
    EXPECT_EQ(size, 0u) << "an array that does not run has no size";

    // A member of another array, and a partition too small for a superblock (the extended node).
    EXPECT_EQ(addDisk(5, {3, kOs}, 0, 0, 6), EBUSY);
    EXPECT_EQ(addDisk(5, {3, 4}, 0, 0, 6), EINVAL);
    ASSERT_EQ(addDisk(5, {3, kOs2}, 0, 0, 6), 0);
    EXPECT_EQ(addDisk(5, {4, kOs2}, 0, 1, 6), EBUSY) << "slot 0 is taken";

    // A level 0 run that lacks a member stays allocated.
    EXPECT_EQ(call(5, RUN_ARRAY), EINVAL);
    EXPECT_EQ(call(5, GET_ARRAY_INFO, &i), EINVAL);
    EXPECT_NE(mdstat().find("md5 : inactive hdd6[0]\n"), std::string::npos) << mdstat();

    // The refusals were logged with their error names.
    std::string log = sim::Module(m.dir()).readState("md.log");
    EXPECT_NE(log.find(" /dev/md0 HOT_ADD_DISK dev=3:62 -> ENXIO\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" /dev/md5 SET_ARRAY_INFO null -> EEXIST\n"), std::string::npos) << log;

    sim::Module(m.dir()).writeState("mounts", "");
    EXPECT_EQ(call(1, STOP_ARRAY), 0);
    EXPECT_EQ(call(1, GET_ARRAY_INFO, &i), ENODEV) << "a stopped array is forgotten";
}

TEST_F(Md, ArraysAreAssembledFromTheirSuperblocksAfterAReboot)
{
    create(0, 1, {{1}, {2}});
    create(1, 5, {{1, kOs}, {2, kOs}, {3, kOs}});
    create(2, 0, {{1, kOs2}, {2, kOs2}});
    // Each loses a member, one change before the reboot.
    ASSERT_EQ(call(0, SET_DISK_FAULTY, value(dev({2}))), 0);
    ASSERT_EQ(call(1, SET_DISK_FAULTY, value(dev({3, kOs}))), 0);
    const uint32_t ctime = info(1).ctime;
    EXPECT_EQ(superblock({3, kOs}).events_lo, 1u) << "a faulty member keeps its old count";
    EXPECT_EQ(superblock({1, kOs}).events_lo, 2u);
    EXPECT_EQ(tavsim({"md", m.dir(), "--stop-all"}).status, 0);
    mdu_array_info_t i{};
    EXPECT_EQ(call(0, GET_ARRAY_INFO, &i), ENODEV);

    // The mirror's failed member is one change older than its partner: kicked, not used.
    EXPECT_EQ(assemble(0, {{2}, {1}}), 0);
    EXPECT_EQ(counts(0), "1 1 0 0 1");
    EXPECT_NE(mdstat().find("md0 : active raid1 hda2[0]\n      " + std::to_string(componentKiB({1})) +
                            " blocks [2/1] [U_]\n"),
              std::string::npos)
        << mdstat();
    EXPECT_EQ(call(0, HOT_ADD_DISK, value(dev({2}))), 0) << "the kicked partition is free again";

    // Slots and roles come from the superblocks, not from the numbers given.
    EXPECT_EQ(assemble(1, {{2, kOs}, {1, kOs}}), 0);
    EXPECT_EQ(info(1).ctime, ctime);
    mdu_disk_info_t d = disk(1, 1);
    EXPECT_EQ(makedev(d.major, d.minor), dev({2, kOs}));
    EXPECT_EQ(d.raid_disk, 1);
    EXPECT_NE(mdstat().find("algorithm 2 [3/2] [UU_]\n"), std::string::npos) << "degraded: " << mdstat();

    // A stripe set missing a member does not run, and stays allocated.
    EXPECT_EQ(assemble(2, {{1, kOs2}}), EINVAL);
    EXPECT_EQ(call(2, GET_ARRAY_INFO, &i), EINVAL);
    EXPECT_NE(mdstat().find("md2 : inactive hda6[0]\n"), std::string::npos) << mdstat();

    // No superblock, or another set's, is refused.
    ASSERT_EQ(call(3, SET_ARRAY_INFO), 0);
    EXPECT_EQ(addDisk(3, {4}, 0, 0, 0), EINVAL) << "a blank partition";
    ASSERT_EQ(addDisk(3, {2, kOs2}, 0, 0, 0), 0);
    EXPECT_EQ(addDisk(3, {3, kOs}, 0, 0, 0), EINVAL) << "a member of the level 5 set";

    // A superblock that does not add up is no superblock.
    ASSERT_EQ(call(3, STOP_ARRAY), 0);
    const uint64_t at = (bytes(Part{2, kOs2}.path()) & ~65535ULL) - 65536;
    ASSERT_EQ(sim::Module(m.dir()).overwrite(Part{2, kOs2}.path(), at + 40, "\x07"), "");
    ASSERT_EQ(call(3, SET_ARRAY_INFO), 0);
    EXPECT_EQ(addDisk(3, {2, kOs2}, 0, 0, 0), EINVAL) << "checksum";
}

TEST_F(Md, AHotAddedSpareRebuildsOnTheVirtualClock)
{
    create(0, 1, {{1}, {2}});
    const uint64_t total = componentKiB({1});
    // 37.5% of the component after 4 seconds.
    const int rate = static_cast<int>(total * 3 / 8 / 4);
    ASSERT_EQ(total * 3 % 32, 0u) << "the rate must hit 37.5% on the second";
    EXPECT_EQ(read("/proc/sys/dev/raid/speed_limit_max"), "200000\n");
    EXPECT_EQ(read("/proc/sys/dev/raid/speed_limit_min"), "1000\n");
    EXPECT_EQ(write("/proc/sys/dev/raid/speed_limit_max", "fast\n"), EINVAL);
    ASSERT_EQ(write("/proc/sys/dev/raid/speed_limit_max", std::to_string(rate) + "\n"), 0);
    EXPECT_EQ(read("/proc/sys/dev/raid/speed_limit_max"), std::to_string(rate) + "\n");

    ASSERT_EQ(call(0, SET_DISK_FAULTY, value(dev({2}))), 0);
    EXPECT_EQ(counts(0), "1 1 1 0 2");
    ASSERT_EQ(call(0, HOT_REMOVE_DISK, value(dev({2}))), 0);
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({3}))), 0);
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({4}))), 0);
    EXPECT_EQ(counts(0), "1 3 0 2 3");
    mdu_disk_info_t d = disk(0, 2);
    EXPECT_EQ(makedev(d.major, d.minor), dev({3}));
    EXPECT_EQ(d.state, 0) << "rebuilding";
    EXPECT_EQ(d.raid_disk, 1);
    EXPECT_EQ(disk(0, 3).raid_disk, -1) << "the second spare waits its turn";

    plat::sleep(4);
    const std::string recovery = "      [=======>.............]  recovery = 37.5% (" + std::to_string(total * 3 / 8) + "/" +
                                 std::to_string(total) + ") finish=0.1min speed=" + std::to_string(rate) + "K/sec";
    EXPECT_EQ(mdstat(), "Personalities : [raid0] [raid1] [raid5] \n"
                        "md0 : active raid1 hdc2[3](S) hdd2[2] hda2[0]\n"
                        "      " + std::to_string(total) + " blocks [2/1] [U_]\n" + recovery + "\n"
                        "      \n"
                        "unused devices: <none>\n");

    // Half the rate from the moment it is written.
    ASSERT_EQ(write("/proc/sys/dev/raid/speed_limit_max", std::to_string(rate / 2)), 0);
    plat::sleep(2);
    const uint64_t done = total * 3 / 8 + 2 * static_cast<uint64_t>(rate / 2);
    EXPECT_NE(line(mdstat(), "recovery").find("(" + std::to_string(done) + "/"), std::string::npos) << mdstat();
    ASSERT_EQ(write("/proc/sys/dev/raid/speed_limit_max", std::to_string(rate)), 0);
    const uint64_t left = (total - done + rate - 1) / rate;  // whole seconds to the end
    plat::sleep(static_cast<unsigned>(left - 1));
    EXPECT_EQ(disk(0, 2).state, 0) << "a second before the end";
    plat::sleep(1);
    d = disk(0, 2);
    EXPECT_EQ(d.state, (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC));
    EXPECT_EQ(d.raid_disk, 1);
    EXPECT_EQ(counts(0), "2 3 0 1 3");
    EXPECT_EQ(line(mdstat(), "recovery"), "");
    EXPECT_NE(mdstat().find("[2/2] [UU]"), std::string::npos);
    EXPECT_EQ(superblock({3}).this_disk.state, (1u << MD_DISK_ACTIVE) | (1u << MD_DISK_SYNC)) << "written when it finished";
}

TEST_F(Md, OneRecoveryAfterAnotherCarriesTheTimeOver)
{
    // A three-way mirror with two roles to fill: the second spare starts the moment the first finishes.
    create(0, 1, {{1}}, 3);
    EXPECT_EQ(counts(0), "1 1 0 0 1");
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({2}))), 0);
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({3}))), 0);
    const uint64_t total = componentKiB({1});
    const int rate = 100000;
    ASSERT_EQ(write("/proc/sys/dev/raid/speed_limit_max", std::to_string(rate)), 0);
    const uint64_t firstUs = (total * 1000000 + rate - 1) / rate;
    plat::usleep(static_cast<useconds_t>(firstUs + 3000000));
    EXPECT_EQ(disk(0, 3).state, (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC));
    EXPECT_EQ(disk(0, 4).raid_disk, 2) << "rebuilding the last role";
    EXPECT_NE(line(mdstat(), "recovery").find("(" + std::to_string(3 * rate) + "/"), std::string::npos) << mdstat();
}

TEST_F(Md, FailuresAsEachLevelTakesThem)
{
    create(0, 5, {{1}, {2}, {3}});
    create(1, 1, {{1, kOs}, {2, kOs}});
    create(2, 0, {{1, kOs2}, {2, kOs2}});
    ASSERT_EQ(call(0, SET_DISK_FAULTY, value(dev({1}))), 0);
    EXPECT_EQ(counts(0), "2 2 1 0 3");
    EXPECT_NE(mdstat().find("[3/2] [_UU]"), std::string::npos);
    ASSERT_EQ(call(0, SET_DISK_FAULTY, value(dev({2}))), 0);
    EXPECT_EQ(counts(0), "1 1 2 0 3");
    EXPECT_NE(mdstat().find("md0 : active raid5 hdd2[2] hdb2[1](F) hda2[0](F)\n"), std::string::npos) << mdstat();
    EXPECT_NE(mdstat().find("[3/1] [__U]"), std::string::npos);
    EXPECT_EQ(call(0, HOT_ADD_DISK, value(dev({4}))), 0);
    EXPECT_EQ(line(mdstat(), "recovery"), "") << "a failed level 5 does not recover";

    // The mirror refuses to lose its last in-sync member, and says nothing.
    ASSERT_EQ(call(1, SET_DISK_FAULTY, value(dev({1, kOs}))), 0);
    ASSERT_EQ(call(1, SET_DISK_FAULTY, value(dev({2, kOs}))), 0);
    EXPECT_EQ(counts(1), "1 1 1 0 2");
    EXPECT_EQ(disk(1, 1).state, (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC));
    EXPECT_EQ(disk(1, 0).state, 1 << MD_DISK_FAULTY);

    ASSERT_EQ(call(2, SET_DISK_FAULTY, value(dev({2, kOs2}))), 0);
    EXPECT_EQ(counts(2), "1 1 1 0 2");
    sim::Module module(m.dir());
    sim::MdState s = sim::mdState(module);
    EXPECT_EQ(sim::arrayCondition(*s.array(0), false), "failed");
    EXPECT_EQ(sim::arrayCondition(*s.array(1), false), "degraded");
    EXPECT_EQ(sim::arrayCondition(*s.array(2), false), "failed");
}

TEST_F(Md, AStalledMirrorKeepsItsNewMemberWaiting)
{
    create(0, 1, {{1}, {2}});
    Captured r = tavsim({"md", m.dir(), "--stall", "md0"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "stalled the recovery of /dev/md0: a new member of it never syncs\n");
    ASSERT_EQ(call(0, SET_DISK_FAULTY, value(dev({2}))), 0);
    ASSERT_EQ(call(0, HOT_REMOVE_DISK, value(dev({2}))), 0);
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({3}))), 0);
    plat::sleep(100000);
    mdu_disk_info_t d = disk(0, 2);
    EXPECT_EQ(d.state, 1 << MD_DISK_SYNC) << "the in-sync flag without the active one";
    EXPECT_EQ(counts(0), "1 2 0 1 2") << "working, not active";
    EXPECT_NE(mdstat().find("[2/1] [U_]\n      \n"), std::string::npos) << mdstat();
    EXPECT_EQ(line(mdstat(), "recovery"), "");
    r = tavsim({"md", m.dir()});
    EXPECT_NE(r.out.find("\n2     1          hdd2    3    "), std::string::npos) << r.out;
    EXPECT_NE(line(r.out, "hdd2").find("waiting"), std::string::npos) << r.out;

    // Unstalled, the recovery starts from that moment.
    ASSERT_EQ(write("/proc/sys/dev/raid/speed_limit_max", "1000"), 0);
    EXPECT_EQ(tavsim({"md", m.dir(), "--unstall", "/dev/md0"}).out, "unstalled /dev/md0: its recovery runs\n");
    plat::sleep(3);
    EXPECT_NE(line(mdstat(), "recovery").find("(3000/"), std::string::npos) << mdstat();
    EXPECT_EQ(disk(0, 2).state, 0);
}

TEST_F(Md, ADriveThatLeavesItsBayFailsItsMember)
{
    create(0, 1, {{1}, {2}});
    create(1, 5, {{1, kOs}, {3, kOs}, {4, kOs}});
    create(2, 1, {{1, kOs2}, {2, kOs2}});
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({3}))), 0);
    EXPECT_EQ(counts(0), "2 3 0 1 3") << "a hot spare";
    sim::Module module(m.dir());
    ASSERT_EQ(module.pull(2), "");
    EXPECT_EQ(counts(0), "1 2 1 1 3");
    EXPECT_EQ(disk(0, 1).state, 1 << MD_DISK_FAULTY);
    EXPECT_EQ(disk(0, 2).raid_disk, 1) << "the spare rebuilds the lost role";
    EXPECT_NE(mdstat().find("hdb2[1](F)"), std::string::npos) << mdstat();
    EXPECT_NE(mdstat().find("hdb6[1](F)"), std::string::npos) << "every array on the drive";
    EXPECT_EQ(counts(1), "3 3 0 0 3");

    // Drives that changed places are not the members either.
    ASSERT_EQ(module.swap(3, 4), "");
    EXPECT_EQ(counts(1), "1 1 2 0 3");
    EXPECT_EQ(counts(0), "1 1 2 0 3") << "the spare under recovery is lost too";
    EXPECT_EQ(line(mdstat(), "recovery"), "");
    ASSERT_EQ(module.pull(1), "");
    EXPECT_EQ(counts(2), "1 1 1 0 2") << "the mirror keeps its last member whatever became of its drive";
}

TEST_F(Md, ProcessesShareOneKernel)
{
    auto child = [&](int k) {
        pid_t pid = ::fork();
        if (pid == 0) {
            sim::SimPlatform p(m.dir());
            plat::ScopedPlatform inChild(p);
            mdu_array_info_t info{};
            info.raid_disks = 1;
            int bad = 0;
            for (int minor = k * 100; minor < k * 100 + 60; ++minor) {
                int fd = plat::open(("/dev/md" + std::to_string(minor)).c_str(), O_RDWR);
                bad += plat::ioctl(fd, SET_ARRAY_INFO, &info) != 0;
                plat::close(fd);
            }
            ::_exit(bad);
        }
        return pid;
    };
    pid_t a = child(0), b = child(1);
    int sa = 0, sb = 0;
    ::waitpid(a, &sa, 0);
    ::waitpid(b, &sb, 0);
    EXPECT_EQ(WEXITSTATUS(sa) + WEXITSTATUS(sb), 0);
    sim::Module module(m.dir());
    EXPECT_EQ(sim::mdState(module).arrays.size(), 120u) << "no change was lost";

    // An array made in one process runs in another's view.
    pid_t maker = ::fork();
    if (maker == 0) {
        sim::SimPlatform p(m.dir());
        plat::ScopedPlatform inChild(p);
        create(250, 1, {{1}, {2}});
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ::waitpid(maker, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(counts(250), "2 2 0 0 2");
}

TEST_F(Md, TavsimShowsTheArraysAndForgetsThemOnRequest)
{
    EXPECT_EQ(sim::Module(m.dir()).readState("md"), "speed_limit_min 1000\nspeed_limit_max 200000\n") << "as create leaves it";
    Captured r = tavsim({"md", m.dir()});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "no md arrays\n\nspeed_limit_min 1000 KiB/s, speed_limit_max 200000 KiB/s\n");
    create(0, 5, {{1}, {2}, {3}});
    ASSERT_EQ(call(0, SET_DISK_FAULTY, value(dev({3}))), 0);
    ASSERT_EQ(call(0, HOT_ADD_DISK, value(dev({4}))), 0);
    ASSERT_EQ(write("/proc/sys/dev/raid/speed_limit_max", "100000"), 0);
    timeval start{};
    plat::gettimeofday(&start);
    plat::sleep(5);
    r = tavsim({"md", m.dir()});
    const uint64_t total = componentKiB({1});
    const std::string size = sim::humanSize(2 * total * 1024);
    EXPECT_EQ(line(r.out, "/dev/md0"),
              "/dev/md0 raid5 recovering: raid disks 3, active 2, working 3, failed 1, spare 1, size " + size + ", chunk 256K");
    EXPECT_EQ(line(r.out, "SLOT"), "SLOT  RAID_DISK  DEVICE  BAY  SERIAL        STATE");
    EXPECT_NE(line(r.out, "hdd2").find("faulty"), std::string::npos) << r.out;
    EXPECT_NE(line(r.out, "hdc2").find("rebuilding"), std::string::npos) << r.out;
    const uint64_t perMille = 500000 * 1000 / total;
    EXPECT_EQ(line(r.out, "recovery"), "recovery " + std::to_string(perMille / 10) + "." + std::to_string(perMille % 10) +
                                           "% (500000 of " + std::to_string(total) + " KiB) at 100000K/sec, " +
                                           std::to_string((total - 1) / 100000 + 1 - 5) + " s to finish (clock " +
                                           std::to_string((static_cast<uint64_t>(start.tv_sec) * 1000000 +
                                                           static_cast<uint64_t>(start.tv_usec) + total * 10) /
                                                          1000000) +
                                           ")")
        << r.out;

    Captured shown = tavsim({"show", m.dir()});
    EXPECT_NE(shown.out.find("\nARRAY     LEVEL  STATE       DISKS  ACTIVE  WORKING  FAILED  SPARE  SIZE"), std::string::npos)
        << shown.out;
    EXPECT_NE(line(shown.out, "/dev/md0").find("hda2[0] hdb2[1] hdd2[2](F) hdc2[3]"), std::string::npos) << shown.out;
    Captured json = tavsim({"show", m.dir(), "--json"});
    EXPECT_NE(json.out.find("\"state\": \"recovering\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"per_mille\": " + std::to_string(perMille)), std::string::npos) << json.out;

    // Refusals, then the reboot.
    for (const auto& [args, status, message] : std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
             {{"md", m.dir(), "--stall", "md256"}, 2, "tavsim md: --stall md256: give an array md0 to md255"},
             {{"md", m.dir(), "--stall", "sda"}, 2, "tavsim md: --stall sda: give an array md0 to md255"},
             {{"md", m.dir(), "--stall"}, 2, "tavsim md: --stall needs a value: --stall ARRAY"},
             {{"md", m.dir(), "--json", "--stop-all"}, 2, "tavsim md: --json and --stop-all exclude each other"},
             {{"md", m.dir() + "/none"}, 1, "tavsim md: " + m.dir() + "/none: no such directory"},
             {{"log", m.dir(), "--md", "--ata"}, 2, "tavsim log: --ata and --md exclude each other"},
         }) {
        Captured c = tavsim(args);
        EXPECT_EQ(c.status, status) << message;
        EXPECT_EQ(c.err.compare(0, message.size(), message), 0) << c.err;
    }
    EXPECT_EQ(tavsim({"md", m.dir(), "--stop-all"}).out, "the kernel forgot /dev/md0; the superblocks stay on the drives\n");
    EXPECT_EQ(tavsim({"md", m.dir(), "--stop-all"}).out, "no md array to forget\n");
    EXPECT_NE(tavsim({"log", m.dir(), "--md"}).out.find(" /dev/md0 HOT_ADD_DISK dev=22:2 -> 0\n"), std::string::npos);
}

TEST_F(Md, AStateFileThatCannotBeReadIsAKernelWithoutArrays)
{
    create(0, 1, {{1}, {2}});
    sim::Module module(m.dir());
    module.writeState("md", "speed_limit_max 5000\narray 0 running=1 level=1 raid_disks=2\nmember slot=0 dev=3:2\n");
    mdu_array_info_t i{};
    EXPECT_EQ(call(0, GET_ARRAY_INFO, &i), ENODEV);
    EXPECT_EQ(read("/proc/sys/dev/raid/speed_limit_max"), "200000\n");
    Captured r = tavsim({"md", m.dir()});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.err.find("sim/md:3: "), std::string::npos) << r.err;
    EXPECT_EQ(assemble(0, {{1}, {2}}), 0) << "the superblocks are still on the drives";
    EXPECT_EQ(counts(0), "2 2 0 0 2");
}

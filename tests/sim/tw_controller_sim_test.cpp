// The simulated tw controllers from the device's side: the node table, the
// kernel's files, the drivers' answers and the controller log.
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "sim_fixture.h"
#include "sim/tw_kernel.h"
#include "sim/tw_state.h"

using simtest::TempModule;

namespace {

std::string makeTw(TempModule& m, int platform, const std::string& units = "", int spares = 0, bool procScsi = true)
{
    sim::CreateOptions o;
    o.platform = platform;
    o.sectors = simtest::kSectors;
    o.units = units;
    o.spares = spares;
    o.procScsi = procScsi;
    return sim::createModule(m.dir(), o);
}

std::string readAll(const char* path)
{
    int fd = plat::open(path, O_RDONLY, 0);
    if (fd < 0) return "<" + std::string(std::strerror(errno)) + ">";
    std::string out;
    char buf[512];
    for (ssize_t n; (n = plat::read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    plat::close(fd);
    return out;
}

int writeLine(const char* path, const std::string& line)
{
    int fd = plat::open(path, O_WRONLY, 0);
    if (fd < 0) return errno;
    ssize_t n = plat::write(fd, line.data(), line.size());
    int error = n < 0 ? errno : 0;
    plat::close(fd);
    return error;
}

} // namespace

TEST(TwKernel, MknodKeepsNodesInTheTableAndOpensReachTheDriverOfTheMajor)
{
    TempModule m(9, false);
    ASSERT_EQ(makeTw(m, 9), "");
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);

    ASSERT_EQ(plat::mknod("/dev/twa0", 8576, makedev(sim::tw::kMajor9000, 0)), 0);
    ASSERT_EQ(plat::mknod("/dev/twa1", 8576, makedev(sim::tw::kMajor9000, 1)), 0);
    ASSERT_EQ(plat::mknod("/dev/twe0", 8576, makedev(sim::tw::kMajor7000, 0)), 0);
    ASSERT_EQ(plat::mknod("/dev/odd0", 8576, makedev(77, 0)), 0);
    EXPECT_EQ(plat::mknod("/dev/twa0", 8576, makedev(sim::tw::kMajor9000, 0)), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(m.exists("/dev/twa0")) << "no file stands for a node";
    EXPECT_EQ(m.get("/sim/nodes"), "/dev/twa0 c 253 0 0600\n/dev/twa1 c 253 1 0600\n/dev/twe0 c 254 0 0600\n"
                                   "/dev/odd0 c 77 0 0600\n");

    struct stat st;
    ASSERT_EQ(plat::stat("/dev/twa1", &st), 0);
    EXPECT_EQ(st.st_mode, 8576u);
    EXPECT_EQ(st.st_rdev, makedev(253, 1));

    int fd = plat::open("/dev/twa0", O_RDWR, 0);
    EXPECT_GE(fd, 0);
    plat::close(fd);
    EXPECT_EQ(plat::open("/dev/twa1", O_RDWR, 0), -1) << "one controller: minor 1 has none";
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(plat::open("/dev/twe0", O_RDWR, 0), -1) << "no 7000 controller either";
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(plat::open("/dev/odd0", O_RDWR, 0), -1);
    EXPECT_EQ(errno, ENXIO);

    // A stale plain file stays a plain file until it is unlinked.
    m.put("/dev/twa2", "stale");
    EXPECT_EQ(plat::mknod("/dev/twa2", 8576, makedev(253, 2)), -1);
    EXPECT_EQ(errno, EEXIST);
    ASSERT_EQ(plat::stat("/dev/twa2", &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    fd = plat::open("/dev/twa2", O_RDWR, 0);
    ASSERT_GE(fd, 0);
    unsigned char buf[2048] = {};
    EXPECT_EQ(plat::ioctl(fd, 264, buf), -1);
    EXPECT_EQ(errno, ENOTTY);
    plat::close(fd);
    ASSERT_EQ(plat::unlink("/dev/twa2"), 0);
    ASSERT_EQ(plat::mknod("/dev/twa2", 8576, makedev(253, 2)), 0);
    ASSERT_EQ(plat::stat("/dev/twa2", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));

    // A node of the wrong number is taken away by unlink.
    ASSERT_EQ(plat::unlink("/dev/odd0"), 0);
    EXPECT_EQ(plat::stat("/dev/odd0", &st), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(TwKernel, ProcDevicesAndTheDriversEntriesFollowTheFamilies)
{
    TempModule m9(9, false), m2(2, false), bare(9, false);
    ASSERT_EQ(makeTw(m9, 9), "");
    ASSERT_EQ(makeTw(m2, 2), "");
    ASSERT_EQ(makeTw(bare, 15, "none", 0, false), "");
    {
        sim::SimPlatform p(m9.dir());
        plat::ScopedPlatform scope(p);
        const std::string devices = readAll("/proc/devices");
        EXPECT_EQ(devices.find("Character devices:\n"), 0u) << devices;
        EXPECT_NE(devices.find("\n253 twa\n"), std::string::npos) << devices;
        EXPECT_EQ(devices.find("twe"), std::string::npos) << devices;
        EXPECT_NE(devices.find("\nBlock devices:\n"), std::string::npos);
        EXPECT_NE(devices.find("\n  8 sd\n"), std::string::npos);
        EXPECT_NE(devices.find("\n  9 md\n"), std::string::npos);
        EXPECT_NE(readAll("/proc/scsi/3w-9xxx/0").find("Driver version: 2.26.02.008\n"), std::string::npos);
        EXPECT_NE(readAll("/sys/class/scsi_host/host0/stats").find("Driver version: "), std::string::npos);
        EXPECT_EQ(readAll("/proc/scsi/scsi"), "Attached devices:\n"
                                              "Host: scsi0 Channel: 00 Id: 00 Lun: 00\n"
                                              "  Vendor: SIMRAID  Model: Logical Disk 0   Rev: 1.0 \n"
                                              "  Type:   Direct-Access                    ANSI  SCSI revision: 00\n");
    }
    {
        sim::SimPlatform p(m2.dir());
        plat::ScopedPlatform scope(p);
        EXPECT_NE(readAll("/proc/devices").find("\n254 twe\n"), std::string::npos);
        EXPECT_NE(readAll("/proc/scsi/3w-xxxx/0").find("Driver version: 1.26.02.001"), std::string::npos);
        EXPECT_NE(readAll("/proc/scsi/3w-xxxx/1").find("scsi1:"), std::string::npos);
        // Eight single units, host then target.
        const std::string scsi = readAll("/proc/scsi/scsi");
        EXPECT_NE(scsi.find("Host: scsi0 Channel: 00 Id: 00 Lun: 00\n"), std::string::npos);
        EXPECT_NE(scsi.find("Host: scsi1 Channel: 00 Id: 03 Lun: 00\n"), std::string::npos);
        EXPECT_LT(scsi.find("scsi0 Channel: 00 Id: 03"), scsi.find("scsi1 Channel: 00 Id: 00"));
    }
    {
        sim::SimPlatform p(bare.dir());
        plat::ScopedPlatform scope(p);
        struct stat st;
        EXPECT_EQ(plat::stat("/proc/scsi/3w-9xxx", &st), -1) << "--no-proc-scsi";
        EXPECT_EQ(readAll("/sys/class/scsi_host/host0/stats").find("Ports:                         12\n") !=
                      std::string::npos,
                  true);
        EXPECT_EQ(readAll("/proc/scsi/scsi"), "Attached devices:\n");
    }
}

TEST(TwKernel, CreationLaysOutTheUnitsAsAsked)
{
    struct Case {
        int platform;
        const char* units;
        int spares;
        std::vector<std::string> lines;
    } cases[] = {
        {9, "", 0, {"unit 0 config=5 mode=OK ports=0,1,2,3 tree=OK(OK@0,OK@1,OK@2,OK@3) stripe=5 capacity=25165824 "}},
        {15, "raid5", 2, {"unit 0 config=5 mode=OK ports=0,1,2,3,4,5,6,7,8,9 tree=OK(",
                          "unit 1 config=13 mode=OK ports=10,11 tree=OK(OK@10,OK@11) stripe=0 capacity=8388608 "}},
        {9, "raid10", 0, {"unit 0 config=6 mode=OK ports=0,1,2,3 tree=OK(OK(OK@0,OK@1),OK(OK@2,OK@3)) stripe=5 capacity=16777216 "}},
        {9, "raid1", 0, {"unit 0 config=6 mode=OK ports=0,1 tree=OK(OK@0,OK@1) stripe=0 capacity=8388608 "}},
        {9, "single", 0, {"unit 3 config=11 mode=OK ports=3 tree=OK@3 stripe=0 capacity=8388608 "}},
        {2, "none", 0, {}},
    };
    for (const Case& c : cases) {
        TempModule m(c.platform, false);
        ASSERT_EQ(makeTw(m, c.platform, c.units, c.spares), "") << c.units;
        const std::string state = m.get("/sim/3ware/c0");
        for (const std::string& line : c.lines) EXPECT_NE(state.find("\n" + line), std::string::npos) << state;
        if (c.lines.empty()) EXPECT_EQ(state.find("\nunit "), std::string::npos) << state;
        EXPECT_NE(state.find("found-serial=SIM"), std::string::npos) << "the identity read at discovery is kept";
    }
    TempModule bad(9, false), bad2(2, false);
    EXPECT_NE(makeTw(bad, 9, "raid5", 2), "") << "raid5 keeps three ports";
    EXPECT_NE(makeTw(bad2, 2, "raid5"), "");
}

TEST(TwKernel, ProcScsiScsiTakesAddAndRemoveLines)
{
    TempModule m(2, false);
    ASSERT_EQ(makeTw(m, 2), "");
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi remove-single-device 0 0 2 0\n"), 0);
    EXPECT_EQ(readAll("/proc/scsi/scsi").find("scsi0 Channel: 00 Id: 02"), std::string::npos);
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi remove-single-device 0 0 2 0"), ENXIO) << "not there";
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi add-single-device 0 0 9 0"), ENXIO) << "no unit 9";
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi add-single-device 5 0 0 0"), ENXIO) << "no host 5";
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi frobnicate 0 0 2 0"), EINVAL);
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi add-single-device 0 0 2 0"), 0);
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi add-single-device 0 0 2 0"), 0) << "there already: nothing changes";
    EXPECT_NE(m.get("/sim/3ware/kernel").find("disk 0 0 2 0 2\n"), std::string::npos) << "the freed index is taken again";

    // A mounted disk goes as the kernel lets it, with a warning.
    m.put("/sim/mounts", "/dev/scsi/host1/bus0/target0/lun0/part1 /mnt/x ext3\n");
    p.module().stateWritten();
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi remove-single-device 1 0 0 0"), 0);
    EXPECT_NE(m.get("/sim/3ware.log").find("warning: /dev/scsi/host1/bus0/target0/lun0/disc removed while in use"),
              std::string::npos);
}

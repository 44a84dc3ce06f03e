// The simulated tw controllers from the device's side: the node table, the
// kernel's files, the drivers' answers and the controller log.
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <linux/fs.h>

#include "sim_fixture.h"
#include "sim/tw_driver.h"
#include "sim/tw_firmware.h"
#include "sim/tw_kernel.h"
#include "sim/tw_state.h"
#include "sim/node_table.h"

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
    EXPECT_EQ(plat::open("/dev/twe0", O_RDWR, 0), -1) << "the 7000 driver is not loaded";
    EXPECT_EQ(errno, ENXIO);
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
        EXPECT_NE(readAll("/proc/scsi/3w-9xxx/0").find("Driver version: 9.4.1.12\n"), std::string::npos);
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
        EXPECT_NE(readAll("/proc/scsi/3w-xxxx/0").find("Driver version: 7.2.0.3"), std::string::npos);
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
        if (c.lines.empty()) {
            EXPECT_EQ(state.find("\nunit "), std::string::npos) << state;
        }
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

namespace {

// A 9000 parameter call as the driver takes it.
std::vector<uint8_t> call9000(uint32_t control, uint8_t op, uint16_t table, uint16_t param, uint16_t size,
                              const std::vector<uint8_t>& value = {})
{
    std::vector<uint8_t> b(1536 + 8 + size, 0);
    auto put16 = [&](size_t at, uint16_t v) {
        b[at] = static_cast<uint8_t>(v);
        b[at + 1] = static_cast<uint8_t>(v >> 8);
    };
    b[0] = static_cast<uint8_t>(control);
    b[1] = static_cast<uint8_t>(control >> 8);
    const uint32_t length = 8u + size;
    std::memcpy(&b[20], &length, 4);
    b[512 + 124] = 128;
    b[640] = static_cast<uint8_t>(0x40 | op);
    b[641] = 4;
    put16(646, 1);
    put16(1536, table);
    put16(1538, param);
    put16(1540, size);
    std::copy(value.begin(), value.end(), b.begin() + 1544);
    return b;
}

std::vector<uint8_t> call7000(uint8_t op, uint8_t size, uint16_t table, uint8_t param, uint8_t psize, unsigned unit = 0)
{
    std::vector<uint8_t> b(1024 + 4 + psize, 0);
    const uint32_t length = 4u + psize;
    std::memcpy(&b[0], &length, 4);
    b[512] = static_cast<uint8_t>(0x40 | op);
    b[513] = size;
    b[515] = static_cast<uint8_t>(unit);
    b[518] = 1;
    b[1024] = static_cast<uint8_t>(table);
    b[1025] = static_cast<uint8_t>(table >> 8);
    b[1026] = param;
    b[1027] = psize;
    return b;
}

// The text of a field, without the blanks that pad it.
std::string text(const std::vector<uint8_t>& b, size_t at, size_t n)
{
    std::string t(reinterpret_cast<const char*>(&b[at]), strnlen(reinterpret_cast<const char*>(&b[at]), n));
    while (!t.empty() && t.back() == ' ') t.pop_back();
    return t;
}

struct Tw9 {
    TempModule m{9, false};
    std::unique_ptr<sim::SimPlatform> p;
    std::unique_ptr<plat::ScopedPlatform> scope;
    int fd = -1;
    Tw9()
    {
        EXPECT_EQ(makeTw(m, 9), "");
        p = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*p);
        plat::mknod("/dev/twa0", 8576, makedev(sim::tw::kMajor9000, 0));
        fd = plat::open("/dev/twa0", O_RDWR, 0);
    }
    ~Tw9() { plat::close(fd); }
    void set(const std::string& line)
    {
        std::string state = m.get("/sim/3ware/c0");
        m.put("/sim/3ware/c0", state + line + "\n");
        p->module().stateWritten();
    }
};

} // namespace

TEST(TwDriver9000, ParameterReadsAnswerFromTheStateAndBadCommandsGetStatuses)
{
    Tw9 t;
    ASSERT_GE(t.fd, 0);
    auto b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[4], 0) << "driver status";
    EXPECT_EQ(b[512 + 132], 0);
    EXPECT_EQ(text(b, 1544, 64), "SIMRAID 9K-4");
    EXPECT_EQ(b[1542] | (b[1543] << 8), 64) << "actual size";

    b = call9000(264, 0x12, 0x8000 | 1026, 11, 2);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[1544] | (b[1545] << 8), 25) << "compatibility";

    b = call9000(264, 0x12, 0x8000 | 768, 3, 1);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 132], 0);
    EXPECT_EQ(b[1544], 0) << "unit 0 is OK";

    // What the driver checks: each gives a status, a code at 22 and a text at 26.
    struct Bad {
        const char* what;
        std::function<void(std::vector<uint8_t>&)> spoil;
        uint16_t code;
    } bad[] = {
        {"header", [](auto& v) { v[512 + 124] = 0; }, sim::tw::kErrHeader},
        {"opcode", [](auto& v) { v[640] = 0x40 | 0x07; }, sim::tw::kErrOpcode},
        {"sgl entries", [](auto& v) { v[646] = 2; }, sim::tw::kErrSgl},
        {"unit", [](auto& v) { v[641] = 0; }, sim::tw::kErrSgl},
        {"flag", [](auto& v) { v[1537] = 1026 >> 8; }, sim::tw::kErrTableFlag},
        {"size", [](auto& v) { v[1540] = 16; }, sim::tw::kErrParamSize},
        {"table", [](auto& v) { v[1536] = 0x55; }, sim::tw::kErrTable},
        {"parameter", [](auto& v) { v[1538] = 99; }, sim::tw::kErrParameter},
    };
    for (const Bad& x : bad) {
        b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
        x.spoil(b);
        ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0) << x.what;
        EXPECT_EQ(b[512 + 132], x.code & 0xff) << x.what;
        EXPECT_EQ(b[512 + 22] | (b[512 + 23] << 8), x.code) << x.what;
        EXPECT_EQ(text(b, 512 + 26, 98), sim::tw::fwErrorText(x.code)) << x.what;
    }
    b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    EXPECT_EQ(plat::ioctl(t.fd, 300, b.data()), -1);
    EXPECT_EQ(errno, EINVAL) << "not a control code of the family";
    const uint32_t huge = 1u << 20;
    std::memcpy(&b[20], &huge, 4);
    EXPECT_EQ(plat::ioctl(t.fd, 264, b.data()), -1);
    EXPECT_EQ(errno, EINVAL) << "a length above the driver's maximum";

    EXPECT_EQ(t.m.get("/sim/3ware.log"), "") << "the lines wait for the node's close";
    plat::close(t.fd);
    t.fd = -1;
    const std::string log = t.m.get("/sim/3ware.log");
    EXPECT_NE(log.find("1136073600.000000 /dev/twa0 264 get-param unit=4 table=0x8402 param=8 size=64 -> status 0\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("/dev/twa0 300 -> EINVAL\n"), std::string::npos);
    EXPECT_NE(log.find("\n  in  08010000"), std::string::npos) << "the bytes follow, indented";
}

TEST(TwDriver9000, SettingsWriteTheStateAndTheBatteryTestEndsOnTheClock)
{
    Tw9 t;
    auto b = call9000(264, 0x13, 0x8000 | 1027, 5, 1, {5});
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 132], 0);
    EXPECT_NE(t.m.get("/sim/3ware/c0").find("\nrebuild-rate 5\n"), std::string::npos);
    b = call9000(264, 0x13, 0x8000 | 1027, 5, 1, {6});
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 22], sim::tw::kErrValue) << "rates are 1 to 5";
    b = call9000(264, 0x13, 0x8000 | 1026, 8, 64);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 22], sim::tw::kErrReadOnly);

    std::vector<uint8_t> schedule(70);
    for (size_t i = 0; i < schedule.size(); ++i) schedule[i] = static_cast<uint8_t>(i * 3 + 1);
    b = call9000(264, 0x13, 0x8000 | 1028, 5, 70, schedule);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    b = call9000(264, 0x12, 0x8000 | 1028, 5, 70);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_TRUE(std::equal(schedule.begin(), schedule.end(), b.begin() + 1544)) << "back byte for byte";

    b = call9000(264, 0x13, 0x8000 | 1029, 7, 1, {1});
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    b = call9000(264, 0x12, 0x8000 | 1029, 3, 1);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[1544], 1) << "the test runs";
    plat::sleep(3599);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[1544], 1);
    plat::sleep(86400 * 3);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[1544], 0) << "over after an hour";
    b = call9000(264, 0x12, 0x8000 | 1029, 16, 16);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(text(b, 1544, 16), "01-Jan-2006") << "the date the clock gave at its end";

    t.set("bbu-present 0");
    b = call9000(264, 0x12, 0x8000 | 1029, 3, 1);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 22], sim::tw::kErrNoBattery);
}

TEST(TwDriver9000, TheLockExpiresOnTheVirtualClockAndFaultsTakeTheirTurn)
{
    Tw9 t;
    auto lock = [&](uint32_t code, uint32_t timeout) {
        std::vector<uint8_t> b(1536 + 12, 0);
        std::memcpy(&b[0], &code, 4);
        const uint32_t length = 12;
        std::memcpy(&b[20], &length, 4);
        std::memcpy(&b[1536], &timeout, 4);
        EXPECT_EQ(plat::ioctl(t.fd, code, b.data()), 0);
        return b[4] | (b[5] << 8);
    };
    EXPECT_EQ(lock(262, 5000), 0);
    EXPECT_EQ(lock(262, 5000), 0) << "its holder takes it again";
    t.set("lock someone-else 9999999999999999");
    EXPECT_EQ(lock(262, 5000), static_cast<int>(sim::tw::kDriverStatusLockBusy));
    t.set("lock someone-else 1136073605000000");
    EXPECT_EQ(lock(262, 5000), static_cast<int>(sim::tw::kDriverStatusLockBusy));
    plat::sleep(6);
    EXPECT_EQ(lock(262, 5000), 0) << "expired";
    EXPECT_EQ(lock(263, 0), 0);
    EXPECT_EQ(t.m.get("/sim/3ware/c0").find("\nlock "), std::string::npos);

    // A driver status on the next two calls, then the firmware again.
    t.set("fault driver times=2 status=4099");
    auto b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
        EXPECT_EQ(b[4] | (b[5] << 8), 4099);
        EXPECT_EQ(b[1544], 0) << "no data";
    }
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[4], 0);
    EXPECT_EQ(text(b, 1544, 64), "SIMRAID 9K-4");

    t.set("fault firmware times=1 table=1026 param=11 status=3 code=299 text=no%20luck");
    b = call9000(264, 0x12, 0x8000 | 1026, 11, 2);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 132], 3);
    EXPECT_EQ(b[512 + 22] | (b[512 + 23] << 8), 299);
    EXPECT_EQ(text(b, 512 + 26, 98), "no luck");

    t.set("fault answer times=1 answer=oversize");
    b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[1542] | (b[1543] << 8), 80) << "claims more than it was asked";
    t.set("fault answer times=1 answer=garbage");
    b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 132], 0) << "garbage under a good status";
    EXPECT_NE(text(b, 1544, 64).rfind("SIMRAID", 0), 0u);
    t.set("fault answer times=1 answer=unterminated");
    b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(std::count(b.begin() + 1544, b.begin() + 1544 + 64, 0), 0);
}

TEST(TwDriver7000, TheSevenThousandTakesOneRequestAndAnswersInTheStatusByte)
{
    TempModule m(2, false);
    ASSERT_EQ(makeTw(m, 2), "");
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    ASSERT_EQ(plat::mknod("/dev/twe0", 8576, makedev(sim::tw::kMajor7000, 0)), 0);
    ASSERT_EQ(plat::mknod("/dev/twe1", 8576, makedev(sim::tw::kMajor7000, 1)), 0);
    ASSERT_EQ(plat::mknod("/dev/twe2", 8576, makedev(sim::tw::kMajor7000, 2)), 0);
    int fd = plat::open("/dev/twe1", O_RDWR, 0);
    ASSERT_GE(fd, 0) << "two controllers";
    EXPECT_EQ(plat::open("/dev/twe2", O_RDWR, 0), -1);
    EXPECT_EQ(errno, ENODEV);

    auto b = call7000(0x12, 4, 1026, 8, 16);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&b[1028]), 16), "SIMRAID 7K-4    ") << "blank-padded, no zero";
    b = call7000(0x12, 4, 1026, 11, 2);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[1028], 6);
    b = call7000(0x12, 4, 2, 3, 16);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[1028], 0);
    EXPECT_EQ(b[1032], 0xff) << "no unit 4";

    EXPECT_EQ(plat::ioctl(fd, 0x20, b.data()), -1);
    EXPECT_EQ(errno, EINVAL);
    b = call7000(0x12, 5, 1026, 8, 16);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], sim::tw::kErrSize);
    b = call7000(0x12, 4, 1026, 8, 12);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], sim::tw::kErrParamSize) << "a read of the wrong size";
    b = call7000(0x12, 4, 1026, 8, 16, 9);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], sim::tw::kErrUnit);
    b = call7000(0x0B, 4, 1026, 8, 16);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], sim::tw::kErrOpcode);
    b = call7000(0x12, 4, 1029, 1, 1);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], sim::tw::kErrTable) << "no battery table on the 7000";

    // The port scan: one mask bit below the number of ports.
    std::vector<uint8_t> scan(1024, 0);
    scan[512] = 0x40 | 0x06;
    scan[513] = 3;
    scan[520] = 1 << 3;
    ASSERT_EQ(plat::ioctl(fd, 0x1F, scan.data()), 0);
    EXPECT_EQ(scan[516], 0);
    scan[520] = 0;
    scan[521] = 1;  // port 8
    ASSERT_EQ(plat::ioctl(fd, 0x1F, scan.data()), 0);
    EXPECT_EQ(scan[516], sim::tw::kErrPort);
    plat::close(fd);
    EXPECT_NE(m.get("/sim/3ware.log").find("/dev/twe1 31 get-param unit=0 table=1026 param=8 size=16 -> status 0\n"),
              std::string::npos);
}

TEST(TwTavsim, ThreeWareSetArmsFaultsThatTheApiMeetsAndTheLogShows)
{
    TempModule m(9, false);
    ASSERT_EQ(makeTw(m, 9), "");
    const std::string d = m.dir();
    auto r = simtest::tavsim({"3ware", d, "set", "c0.stagger=12",
                              "fault=firmware:times=1,table=1026,param=8,status=3,code=299,text=no%20luck"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "nonsense=1"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "stagger=soon"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "charge-voltage=5"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "c4.stagger=1"}).status, 1) << "no controller 4";

    r = simtest::tavsim({"tw", d, "tw_get_stagger_time", "0"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("tw_get_stagger_time = 0\nstagger_time: 12\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_model", "0"});
    EXPECT_EQ(r.status, 1);
    // API code 1 stays from the search for 7000 controllers at the start.
    EXPECT_NE(r.out.find("error: flags 0x20009 api 1 os 0 driver 0 controller 299\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(0x03:0x012B): 9000 controller message not found no luck\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_model", "0"});
    EXPECT_NE(r.out.find("model: SIMRAID 9K-4\n"), std::string::npos) << "the fault is spent: " << r.out;
    EXPECT_EQ(simtest::tavsim({"tw", d, "tw_no_such_thing", "0"}).status, 2);

    // The schedule goes out and comes back as the 140 hex digits it prints.
    const std::string schedule = "2c01" + std::string(136, '0');
    ASSERT_EQ(simtest::tavsim({"tw", d, "tw_set_task_schedule", "0", schedule}).status, 0);
    EXPECT_NE(simtest::tavsim({"tw", d, "tw_get_task_schedule", "0"}).out.find("schedule: " + schedule + "\n"),
              std::string::npos);
    EXPECT_EQ(simtest::tavsim({"tw", d, "tw_set_task_schedule", "0", "2c01"}).status, 2);
    ASSERT_EQ(simtest::tavsim({"tw", d, "tw_set_verify_task_item", "0", "3", "100", "60"}).status, 0);
    EXPECT_NE(simtest::tavsim({"tw", d, "tw_get_verify_task_item", "0", "3"}).out.find("start_time: 100\nduration: 60\n"),
              std::string::npos);
    r = simtest::tavsim({"tw", d, "tw_create_unit_id", "0", "2", "1"});
    EXPECT_NE(r.out.find("id: 0200ff020201ffff\nunit: 2\n"), std::string::npos) << r.out;

    // driver-loaded=0 takes "twa" out of /proc/devices: no controller for the API.
    ASSERT_EQ(simtest::tavsim({"3ware", d, "set", "driver-loaded=0"}).status, 0);
    EXPECT_FALSE(m.exists("/proc/scsi/3w-9xxx/0"));
    r = simtest::tavsim({"tw", d, "tw_get_controller_id_list"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("api 1 "), std::string::npos) << r.out;

    r = simtest::tavsim({"log", d, "--3ware"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(" /dev/twa0 264 get-param unit=4 table=0x8402 param=8 size=64 -> status 3 code 299\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("\n  in "), std::string::npos) << "bytes only with --hex";
    EXPECT_NE(simtest::tavsim({"log", d, "--3ware", "--hex"}).out.find("\n  in  08010000"), std::string::npos);
    const std::string whole = simtest::tavsim({"3ware", d}).out;
    EXPECT_NE(whole.find("stagger              12\n"), std::string::npos) << whole;
    EXPECT_NE(whole.find("\nkernel:\nAttached devices:\nHost: scsi0 Channel: 00 Id: 00 Lun: 00\n"), std::string::npos);
    const std::string shown = simtest::tavsim({"show", d}).out;
    EXPECT_NE(shown.find("\nBAY  CONTROLLER  PORT  DRIVE         UNIT\n1    0           0     SIM"), std::string::npos) << shown;
    EXPECT_NE(simtest::tavsim({"show", d, "--json"}).out.find("\"tree\": \"OK(OK@0,OK@1,OK@2,OK@3)\""), std::string::npos);
}

TEST(TwKernel, UnitsAreTheKernelsDisksWithPartitionWindows)
{
    TempModule m(9, false), single(9, false);
    ASSERT_EQ(makeTw(m, 9, "raid5", 1), "");
    ASSERT_EQ(makeTw(single, 9, "single"), "");
    {
        sim::SimPlatform p(m.dir());
        plat::ScopedPlatform scope(p);
        const char* disc = "/dev/scsi/host0/bus0/target0/lun0/disc";
        struct stat st;
        ASSERT_EQ(plat::stat(disc, &st), 0);
        EXPECT_TRUE(S_ISBLK(st.st_mode));
        EXPECT_EQ(st.st_rdev, makedev(8, 0));
        EXPECT_EQ(plat::stat("/dev/scsi/host0/bus0/target1/lun0/disc", &st), -1) << "the spare unit is not exported";
        EXPECT_EQ(errno, ENOENT);
        int fd = plat::open(disc, O_RDWR, 0);
        ASSERT_GE(fd, 0);
        uint64_t bytes = 0;
        ASSERT_EQ(plat::ioctl(fd, BLKGETSIZE64, &bytes), 0);
        EXPECT_EQ(bytes, 2 * simtest::kSectors * 512) << "three drives of raid 5";
        auto table = simtest::emptyTable();
        simtest::putEntry(table, 0, 0x83, 2048, 4096);
        ASSERT_EQ(plat::pwrite(fd, table.data(), table.size(), 0), 512);
        ASSERT_EQ(plat::ioctl(fd, BLKRRPART, nullptr), 0);
        plat::close(fd);
        ASSERT_EQ(plat::stat("/dev/scsi/host0/bus0/target0/lun0/part1", &st), 0);
        EXPECT_EQ(st.st_rdev, makedev(8, 1));
        EXPECT_EQ(plat::stat("/dev/scsi/host0/bus0/target0/lun0/part2", &st), -1);
        EXPECT_TRUE(std::filesystem::file_size(m.host("sim/3ware/unit0_0.img")) == 2 * simtest::kSectors * 512);

        EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi remove-single-device 0 0 0 0"), 0);
        EXPECT_EQ(plat::open(disc, O_RDONLY, 0), -1) << "the kernel let it go";
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi add-single-device 0 0 0 0"), 0);
        ASSERT_EQ(plat::stat("/dev/scsi/host0/bus0/target0/lun0/part1", &st), 0) << "the table read again at attachment";
    }
    {
        // A one-drive unit's data is its drive's.
        sim::SimPlatform p(single.dir());
        plat::ScopedPlatform scope(p);
        int fd = plat::open("/dev/scsi/host0/bus0/target2/lun0/disc", O_RDWR, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(plat::pwrite(fd, "unit2", 5, 4096), 5);
        plat::close(fd);
        std::ifstream port(single.host("sim/3ware/ports/c0p2"), std::ios::binary);
        port.seekg(4096);
        char got[6] = {};
        port.read(got, 5);
        EXPECT_STREQ(got, "unit2");
        struct stat st;
        ASSERT_EQ(plat::stat("/dev/scsi/host0/bus0/target3/lun0/disc", &st), 0);
        EXPECT_EQ(st.st_rdev, makedev(8, 48)) << "the fourth disk attached";
    }
}

TEST(TwKernel, ADriverWithoutItsControllerAndOneNotLoaded)
{
    Tw9 t;
    ASSERT_GE(t.fd, 0);
    t.set("controller-found 0");
    sim::tw::syncKernelFiles(t.p->module());
    auto b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    EXPECT_EQ(plat::ioctl(t.fd, 264, b.data()), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(plat::open("/dev/twa0", O_RDWR, 0), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_NE(readAll("/proc/devices").find("253 twa\n"), std::string::npos) << "the driver is there";
    struct stat st;
    EXPECT_EQ(plat::stat("/proc/scsi/3w-9xxx", &st), -1) << "with no host";
    EXPECT_EQ(plat::stat("/sys/class/scsi_host/host0/stats", &st), -1);
    EXPECT_EQ(writeLine("/proc/scsi/scsi", "scsi add-single-device 0 0 1 0"), ENXIO);

    t.set("controller-found 1\ndriver-loaded 0");
    EXPECT_EQ(readAll("/proc/devices").find("twa"), std::string::npos);
    EXPECT_EQ(plat::open("/dev/twa0", O_RDWR, 0), -1);
    EXPECT_EQ(errno, ENXIO);

    t.set("driver-loaded 1\ncompatibility 22");
    int fd = plat::open("/dev/twa0", O_RDWR, 0);
    ASSERT_GE(fd, 0);
    b = call9000(264, 0x12, 0x8000 | 1026, 11, 2);
    ASSERT_EQ(plat::ioctl(fd, 264, b.data()), 0);
    EXPECT_EQ(b[1544], 22);
    plat::close(fd);
}

TEST(TwState, FilesOfAnyTextAreReadWithoutHarm)
{
    // Lines that cannot be read are skipped; the rest stands.
    std::vector<std::string> warnings;
    const sim::tw::Controller c = sim::tw::parseController(
        "family 9000\nhost 999\nport x\nport 3 drive=S3 found-sectors=-5\nunit 40 config=5\n"
        "unit 1 config=6 ports=0,-,2 tree=OK(OK@0,DEGRADED,OK@2)\nunit 2 tree=OK((\nevent 7 100 4 2 disk%20gone\n"
        "lock holder 12\nfault nonsense times=1\nfault firmware times=0 opcode=18 status=9\nmodel A%20B\n",
        0, &warnings);
    EXPECT_EQ(c.family, 9000);
    EXPECT_EQ(c.host, 0) << "a host above 255 is refused";
    ASSERT_EQ(c.ports.size(), 1u);
    EXPECT_EQ(c.ports[0].foundSectors, 0u);
    ASSERT_EQ(c.units.size(), 2u);
    EXPECT_EQ(c.units[0].ports, (std::vector<int>{0, -1, 2}));
    EXPECT_EQ(sim::tw::treePorts(c.units[0].tree), (std::vector<int>{0, -1, 2}));
    EXPECT_EQ(sim::tw::formatTree(c.units[0].tree), "OK(OK@0,DEGRADED,OK@2)");
    ASSERT_EQ(c.events.size(), 1u);
    EXPECT_EQ(c.events[0].text, "disk gone");
    ASSERT_EQ(c.faults.size(), 1u);
    EXPECT_EQ(c.faults[0].times, 0) << "every command";
    EXPECT_EQ(c.get("model"), "A B");
    EXPECT_EQ(warnings.size(), 5u);
    // What is written is read back the same.
    const std::string text = sim::tw::formatController(c);
    EXPECT_EQ(sim::tw::formatController(sim::tw::parseController(text, 0)), text);

    sim::tw::TreeNode deep;
    EXPECT_FALSE(sim::tw::parseTree(std::string(40, '(') , deep));
    EXPECT_FALSE(sim::tw::parseTree("OK(" + std::string(20, 'A') + "(" , deep));
    EXPECT_FALSE(sim::tw::parseTree("OK@999", deep));

    const auto nodes = sim::parseNodeTable("/dev/twa0 c 253 0 0600\nrelative c 1 1 0600\n/dev/x q 1 1 0600\n"
                                           "/dev/y c 99999 0 0600\n/dev/z b 8 0 9999\n/dev/w b 8 16 0640 extra\n");
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[1].path, "/dev/w");
    EXPECT_FALSE(nodes[1].character);
    EXPECT_EQ(nodes[1].perm, 0640u);

    const auto disks = sim::tw::parseKernel("disk 0 0 1 0 3\ndisk 0 0 1 0\ndisk -1 0 0 0 0\ndisk 0 0 2 0 4 x\n");
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].index, 3);
}

TEST(TwDriver7000, APortScanReadsTheNewDriveAndFaultsBreakTheAnswers)
{
    TempModule m(2, false);
    ASSERT_EQ(makeTw(m, 2), "");
    // Bay 8 is port 0 of the controller on host 0.
    const std::string before = m.get("/sim/3ware/c0");
    ASSERT_EQ(simtest::tavsim({"pull", m.dir(), "8"}).status, 0);
    ASSERT_EQ(simtest::tavsim({"insert", m.dir(), "8"}).status, 0);
    // The pull is noticed at once; the drive put in is not, until a scan.
    EXPECT_NE(before.find("port 0 drive=SIM"), std::string::npos);
    EXPECT_NE(m.get("/sim/3ware/c0").find("port 0 drive= "), std::string::npos) << "the controller has not looked yet";
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    ASSERT_EQ(plat::mknod("/dev/twe0", 8576, makedev(sim::tw::kMajor7000, 0)), 0);
    int fd = plat::open("/dev/twe0", O_RDWR, 0);
    ASSERT_GE(fd, 0);
    std::vector<uint8_t> scan(1024, 0);
    scan[512] = 0x40 | 0x06;
    scan[513] = 3;
    scan[520] = 1;
    ASSERT_EQ(plat::ioctl(fd, 0x1F, scan.data()), 0);
    EXPECT_EQ(scan[516], 0);
    const std::string after = m.get("/sim/3ware/c0");
    const std::string fresh = p.module().manifest().driveInBay(8)->serial;
    EXPECT_NE(after.find("port 0 drive=" + fresh + " found-model=SIM-ATA%2080G found-serial=" + fresh), std::string::npos)
        << after;

    auto arm = [&](const std::string& line) {
        m.put("/sim/3ware/c0", m.get("/sim/3ware/c0") + line + "\n");
        p.module().stateWritten();
    };
    arm("fault answer times=1 answer=oversize");
    auto b = call7000(0x12, 4, 1026, 8, 16);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[1027], 32) << "a size above the one asked";
    arm("fault answer times=1 answer=unterminated");
    b = call7000(0x12, 4, 1026, 8, 16);
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(std::count(b.begin() + 1028, b.begin() + 1044, ' '), 0);
    arm("fault firmware times=2 opcode=18 status=7");
    for (int i = 0; i < 2; ++i) {
        b = call7000(0x12, 4, 1026, 11, 2);
        ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
        EXPECT_EQ(b[516], 7);
        EXPECT_EQ(b[1028], 0) << "no data with the error";
    }
    ASSERT_EQ(plat::ioctl(fd, 0x1F, b.data()), 0);
    EXPECT_EQ(b[516], 0);
    EXPECT_EQ(b[1028], 6);
    plat::close(fd);
}

TEST(TwDriver, BuffersOfAnyBytesGetAnAnswerOrAnError)
{
    Tw9 t;
    TempModule m7(2, false);
    ASSERT_EQ(makeTw(m7, 2), "");
    uint32_t x = 12345;
    auto next = [&] {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        return x;
    };
    for (int round = 0; round < 400; ++round) {
        const bool nine = round % 2 == 0;
        const size_t header = nine ? sim::tw::k9000Header : sim::tw::k7000Header;
        std::vector<uint8_t> b(header);
        for (uint8_t& byte : b) byte = static_cast<uint8_t>(next());
        // Mostly well-formed heads, so that the checks behind them are reached.
        uint32_t declared = next() % 3 == 0 ? next() : next() % 300;
        if (nine) {
            const uint32_t codes[] = {262, 263, 264, 265};
            const uint32_t code = codes[next() % 4];
            std::memcpy(&b[0], &code, 4);
            std::memcpy(&b[20], &declared, 4);
            if (next() % 2) b[512 + 124] = 128;
            b.resize(header + std::min<size_t>(declared, sim::tw::k9000MaxData));
            plat::ioctl(t.fd, code, b.data());
        } else {
            std::memcpy(&b[0], &declared, 4);
            b.resize(header + std::min<size_t>(declared, sim::tw::k7000MaxData));
            sim::SimPlatform p7(m7.dir());
            plat::ScopedPlatform scope(p7);
            if (round == 1) plat::mknod("/dev/twe0", 8576, makedev(sim::tw::kMajor7000, 0));
            int fd = plat::open("/dev/twe0", O_RDWR, 0);
            ASSERT_GE(fd, 0);
            plat::ioctl(fd, 0x1F, b.data());
            plat::close(fd);
        }
    }
    auto b = call9000(264, 0x12, 0x8000 | 1026, 8, 64);
    ASSERT_EQ(plat::ioctl(t.fd, 264, b.data()), 0);
    EXPECT_EQ(b[512 + 132], 0) << "the controller still answers";
}

TEST(TwTavsim, TwCallsReachUnitsDrivesAndEvents)
{
    TempModule m(9, false);
    ASSERT_EQ(makeTw(m, 9, "raid10"), "");
    const std::string d = m.dir();
    auto r = simtest::tavsim({"tw", d, "tw_get_subunit_id_list", "0", "0.1"});
    EXPECT_EQ(r.status, 0) << r.err << r.out;
    EXPECT_NE(r.out.find("length: 2\nunit: 0.1.0\nunit: 0.1.1\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_unit_status", "0", "0.1"});
    EXPECT_NE(r.out.find("status: 127\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_drive_id_list_from_unit_id", "0", "0"});
    EXPECT_NE(r.out.find("length: 4\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_drive_capacity", "0", "3"});
    EXPECT_NE(r.out.find("capacity: 8388608\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_first_event", "0"});
    EXPECT_NE(r.out.find("sequence_id: 1\n"), std::string::npos) << r.out;
    EXPECT_EQ(simtest::tavsim({"tw", d, "tw_get_unit_mode", "0", "0.1.2.3.4"}).status, 2);

    r = simtest::tavsim({"3ware", d, "set", "unit0.mode=DEGRADED", "unit0.tree=DEGRADED(DEGRADED(OK@0,DEGRADED),OK(OK@2,OK@3))",
                         "unit0.percent=30", "port3.status=0", "event=9:2:drive gone"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = simtest::tavsim({"tw", d, "tw_get_unit_mode", "0", "0.0.1"});
    EXPECT_NE(r.out.find("mode: 239\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_unit_percentage_complete", "0", "0"});
    EXPECT_NE(r.out.find("percent: 30\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_drive_status", "0", "3"});
    EXPECT_NE(r.out.find("status: 0\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"tw", d, "tw_get_last_event", "0"});
    EXPECT_NE(r.out.find("aen_code: 9\nseverity: 2\ntext: drive gone\n"), std::string::npos) << r.out;
    r = simtest::tavsim({"3ware", d});
    EXPECT_NE(r.out.find(" code 9 severity 2 drive gone\n"), std::string::npos) << r.out;
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "unit5.mode=OK"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "event=0:2:x"}).status, 2);
}

TEST(TwEvents, TheQueueKeepsTheNewestWithRisingNumbers)
{
    sim::tw::Controller c;
    for (int i = 0; i < 200; ++i) sim::tw::raiseEvent(c, 5000000u + uint64_t(i) * 1000000u, 20, 2, "x");
    ASSERT_EQ(c.events.size(), sim::tw::kMaxEvents);
    EXPECT_EQ(c.events.front().sequence, 200u - sim::tw::kMaxEvents + 1);
    EXPECT_EQ(c.events.back().sequence, 200u);
    EXPECT_EQ(c.events.back().time, 204u);
}

TEST(TwFirmware, DrivesComeAndGoByThePortTablesAndTheLastCopyStays)
{
    TempModule m(9, false);
    ASSERT_EQ(makeTw(m, 9, "single"), "");
    sim::SimPlatform p(m.dir());
    auto write = [&](uint16_t table, uint16_t param) {
        sim::tw::ParamRequest r;
        r.family = 9000;
        r.table = table;
        r.parameter = param;
        r.size = 1;
        r.set = true;
        r.value = {1};
        std::vector<uint8_t> out;
        uint16_t declared = 0;
        return sim::tw::runParam(p.module(), 0, r, out, declared);
    };
    // Units 0 to 3 each hold one drive: none may go.
    EXPECT_EQ(write(512 + 3, 6).code, sim::tw::kErrValue);
    EXPECT_EQ(write(512 + 2, 7).code, sim::tw::kErrPort) << "the port holds its drive already";
    EXPECT_EQ(write(512 + 9, 6).code, sim::tw::kErrPort) << "no such port";
    EXPECT_NE(m.get("/sim/3ware/c0").find("port 3 drive=SIM"), std::string::npos);
}

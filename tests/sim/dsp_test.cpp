// The chassis controller of the simulated module as the system meets it:
// commands written to /dev/tav_dsp_1 through the platform, the reads that
// drive the receive side, the records of TAV_DSP_NEXT_MSG, the wiring of the
// bays, the firmware on the virtual clock, its behaviours, its log, and
// tavsim's view of it.
#include <cstring>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "sim/dsp.h"
#include "sim/dsp_driver.h"
#include "sim_fixture.h"

using namespace simtest;
using sim::dsp::Record;

namespace {

constexpr unsigned long kFirmwareVersion = 1, kNextMsg = 4, kDeviceConfig = 7;
constexpr time_t kStart = 1136073600;

// The configurations the system gives the driver, as its text tells them.
const uint8_t kMasks[8] = {15, 240, 15, 240, 15, 240, 15, 240};
const uint8_t kBytes4[4] = {0, 0, 1, 1};
const uint8_t kBytes8[8] = {2, 2, 3, 3, 0, 0, 1, 1};

std::string buffOf(const Record& r) { return std::string(r.buff, static_cast<size_t>(std::max<int>(r.length, 0))); }
std::string bytes(std::initializer_list<int> b)
{
    std::string out;
    for (int x : b) out += static_cast<char>(x);
    return out;
}
std::vector<int> statusOf(const Record& r) { return std::vector<int>(r.status, r.status + 8); }

// A module with the chassis controller's node open through its platform.
struct Unit {
    TempModule m;
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;
    int fd = -1;

    explicit Unit(int id = 1, bool noDrives = false) : m(id, !noDrives)
    {
        if (noDrives) {
            sim::CreateOptions o;
            o.platform = id;
            o.identityOnly = true;
            EXPECT_EQ(sim::createModule(m.dir(), o), "");
        }
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
        fd = plat::open(sim::kDspNode, O_RDWR);
        EXPECT_GE(fd, 0);
    }
    sim::Module& module() { return platform->module(); }

    int configure(int drives, const uint8_t* masks, const uint8_t* byteNumbers)
    {
        sim::dsp::Config c{};
        c.numDrives = drives;
        std::memcpy(c.driveMasks, masks, static_cast<size_t>(std::min(drives, 16)));
        std::memcpy(c.driveBytes, byteNumbers, static_cast<size_t>(std::min(drives, 16)));
        std::strcpy(c.serialDeviceName, "/dev/ttyS1");
        return plat::ioctl(fd, kDeviceConfig, &c);
    }
    void configureAsTheSystem(bool eight) { ASSERT_EQ(configure(eight ? 8 : 4, kMasks, eight ? kBytes8 : kBytes4), 0); }

    // A command of up to three bytes, zero-padded to ten.
    ssize_t send(std::initializer_list<int> b)
    {
        uint8_t cmd[10] = {};
        size_t i = 0;
        for (int x : b) cmd[i++] = static_cast<uint8_t>(x);
        return plat::write(fd, cmd, sizeof cmd);
    }
    // The kernel reader's read: blocks until the firmware sent something.
    ssize_t pump()
    {
        char buf[1024];
        return plat::read(fd, buf, sizeof buf);
    }
    std::vector<Record> take()
    {
        std::vector<Record> out;
        Record r;
        while (plat::ioctl(fd, kNextMsg, &r) == 1) out.push_back(r);
        return out;
    }
    // Pumps once and takes what came.
    std::vector<Record> next()
    {
        EXPECT_GT(pump(), 0);
        return take();
    }
    time_t clock() { return plat::time(nullptr); }
    // Nothing on the line: a read of a descriptor that does not block.
    bool quiet()
    {
        int nb = plat::open(sim::kDspNode, O_RDWR | O_NONBLOCK);
        char buf[64];
        ssize_t got = plat::read(nb, buf, sizeof buf);
        int error = errno;
        plat::close(nb);
        return got == -1 && error == EWOULDBLOCK;
    }
};

void setBays(sim::Module& m, const std::vector<sim::DspBay>& bays)
{
    sim::dspUpdate(m, [&](sim::DspState& s) { s.bays = bays; });
}

sim::DspBay bay(bool powered, bool clamped, bool lockOpen, bool criticalOpen, int temp = 30)
{
    return sim::DspBay{powered, clamped, lockOpen, criticalOpen, static_cast<int8_t>(temp)};
}


} // namespace

TEST(Dsp, TheNodeIsInIdeModulesAndAnEightBayModuleWithoutDrives)
{
    Unit u;
    struct stat st {};
    ASSERT_EQ(plat::stat(sim::kDspNode, &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, makedev(240, 1));
    EXPECT_EQ(sim::dspState(u.module()).bays.size(), 4u);

    TempModule loam(3);
    sim::Module two(loam.dir());
    EXPECT_EQ(sim::dspState(two).bays.size(), 4u);

    Unit eight(2, true);
    EXPECT_EQ(sim::dspState(eight.module()).bays.size(), 8u);

    TempModule lsi(5, false);
    sim::CreateOptions o;
    o.platform = 5;
    o.identityOnly = true;
    ASSERT_EQ(sim::createModule(lsi.dir(), o), "");
    sim::SimPlatform p(lsi.dir());
    plat::ScopedPlatform scope(p);
    EXPECT_FALSE(sim::dspPresent(p.module()));
    EXPECT_EQ(plat::open(sim::kDspNode, O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

// Nibbles: bit 3 no power, bit 2 critical closed, bit 1 clamped, bit 0 lock closed.
TEST(Dsp, FourBayNibblesLieInTheRawBytesAndTheConfigurationSplitsThem)
{
    Unit u;
    // Before a configuration every status byte is zero.
    ASSERT_EQ(u.send({2, 1}), 10);
    for (const Record& r : u.next()) EXPECT_EQ(statusOf(r), std::vector<int>(8, 0));

    setBays(u.module(), {bay(true, false, false, false), bay(true, false, true, false), bay(true, true, false, false),
                         bay(false, false, false, true)});
    // Every raw byte whole: bays 1 and 2 in byte 0, low nibble first; 3 and 4 in byte 1.
    const uint8_t whole[4] = {0xff, 0xff, 0xff, 0xff}, identity[4] = {0, 1, 2, 3};
    ASSERT_EQ(u.configure(4, whole, identity), 0);
    u.send({2, 1});
    std::vector<Record> rs = u.next();
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(statusOf(rs[1]), (std::vector<int>{0x45, 0x97, 0, 0, 0, 0, 0, 0}));

    u.configureAsTheSystem(false);
    u.send({2, 1});
    rs = u.next();
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(statusOf(rs[0]), statusOf(rs[1]));  // every record carries them
    EXPECT_EQ(statusOf(rs[1]), (std::vector<int>{5, 4, 7, 9, 0, 0, 0, 0}));

    // A bay without a drive reports no power, whatever the DSP's switch.
    setBays(u.module(), std::vector<sim::DspBay>(4, bay(true, false, false, false)));
    ASSERT_EQ(u.module().pull(3), "");
    u.send({2, 1});
    EXPECT_EQ(statusOf(u.next()[1]), (std::vector<int>{5, 5, 13, 5, 0, 0, 0, 0}));
}

TEST(Dsp, EightBayNibblesReportBaysFiveToEightFirst)
{
    Unit u(2, true);
    setBays(u.module(), {bay(true, false, false, false), bay(true, false, true, false), bay(true, true, false, false),
                         bay(true, false, false, true), bay(false, false, false, false), bay(true, false, true, true),
                         bay(true, true, true, false), bay(true, true, false, true)});
    const uint8_t whole[4] = {0xff, 0xff, 0xff, 0xff}, identity[4] = {0, 1, 2, 3};
    ASSERT_EQ(u.configure(4, whole, identity), 0);
    u.send({2, 1});
    EXPECT_EQ(statusOf(u.next()[1]), (std::vector<int>{0x0d, 0x36, 0x45, 0x17, 0, 0, 0, 0}));
    u.configureAsTheSystem(true);
    u.send({2, 1});
    EXPECT_EQ(statusOf(u.next()[1]), (std::vector<int>{5, 4, 7, 1, 13, 0, 6, 3}));
}

TEST(Dsp, TemperaturesComeInTheFirmwaresOrderAndReadBackByBay)
{
    for (int bays : {4, 8}) {
        SCOPED_TRACE(bays);
        Unit u(bays == 8 ? 2 : 1, bays == 8);
        sim::dspUpdate(u.module(), [](sim::DspState& s) {
            for (size_t i = 0; i < s.bays.size(); ++i) s.bays[i].temperature = static_cast<int8_t>(41 + i);
            s.bays[1].temperature = -12;
            s.limit = 57;
        });
        u.send({2, 2});
        std::vector<Record> rs = u.next();
        ASSERT_EQ(rs.size(), 2u);
        ASSERT_EQ(rs[1].type, 6);
        EXPECT_EQ(static_cast<uint8_t>(rs[1].buff[1]), 57);
        const std::string temps(rs[1].buff + 2, 8);
        EXPECT_EQ(temps, bays == 8 ? bytes({45, 46, 48, 47, 41, -12, 43, 44}) : bytes({41, -12, 44, 43, 0, 0, 0, 0}));
        // The system's reading: 8 bays exchange 7 and 8, then above 4 index
        // number-5, else number+3; 4 bays exchange 3 and 4, index number-1.
        for (int n = 1; n <= bays; ++n) {
            int k = n, index;
            if (bays == 8) {
                if (k == 7 || k == 8) k = 15 - k;
                index = k > 4 ? k - 5 : k + 3;
            } else {
                if (k == 3 || k == 4) k = 7 - k;
                index = k - 1;
            }
            EXPECT_EQ(static_cast<int8_t>(temps[static_cast<size_t>(index)]), n == 2 ? -12 : 40 + n) << "bay " << n;
        }
    }
}

TEST(Dsp, EchoesAndAnswersCarryTheirBytesOnlyWhileAReadIsPending)
{
    Unit u;
    u.configureAsTheSystem(false);
    sim::dspUpdate(u.module(), [](sim::DspState& s) {
        const uint8_t v[4] = {10, 20, 30, 40};  // 3.3V, 5V, 5V standby, 12V
        std::memcpy(s.volts, v, 4);
    });
    ASSERT_EQ(u.send({2, 3}), 10);
    Record r;
    EXPECT_EQ(plat::ioctl(u.fd, kNextMsg, &r), 0);  // nothing is made without a read
    EXPECT_EQ(u.pump(), 21 + 19);                    // two frames: ten bytes of header, payload, checksum
    std::vector<Record> rs = u.take();
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(rs[0].type, 0);
    EXPECT_EQ(buffOf(rs[0]), bytes({2, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(rs[0].version, 'A');
    EXPECT_EQ(rs[0].change, 0);
    EXPECT_EQ(rs[0].pwrDwn, 0);
    EXPECT_EQ(rs[1].type, 7);
    EXPECT_EQ(rs[1].buff[2], 10);
    EXPECT_EQ(rs[1].buff[3], 40);
    EXPECT_EQ(rs[1].buff[6], 30);
    EXPECT_EQ(rs[1].buff[7], 20);

    auto answer = [&](std::initializer_list<int> cmd) {
        u.send(cmd);
        std::vector<Record> got = u.next();
        if (got.empty() || got[0].type != 0) {
            ADD_FAILURE() << "no echo first";
            return got;
        }
        return std::vector<Record>(got.begin() + 1, got.end());
    };
    rs = answer({2, 1});
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 3);
    EXPECT_EQ(rs[0].buff[3], 'P');
    rs = answer({2, 4});
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(rs[0].type, 8);
    EXPECT_EQ(rs[1].type, 5);
    EXPECT_EQ(rs[1].buff[3], 'S');
    EXPECT_TRUE(answer({2, 5, 44}).empty());
    EXPECT_EQ(sim::dspState(u.module()).limit, 44);
    rs = answer({2, 8});
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 15);
    EXPECT_EQ(buffOf(rs[0]), "A107112801");
    rs = answer({2, 0});
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 2);
    EXPECT_EQ(std::string(rs[0].buff + 4, 4), "DONE");
    EXPECT_TRUE(answer({1}).empty());

    int version = 0;
    EXPECT_EQ(plat::ioctl(u.fd, kFirmwareVersion, &version), 0);
    EXPECT_EQ(version, 'A');
    for (unsigned long request : {0ul, 2ul, 5ul, 8ul}) {
        EXPECT_EQ(plat::ioctl(u.fd, request, &version), -1) << request;
        EXPECT_EQ(errno, EINVAL);
    }
    const uint8_t eleven[11] = {2, 1};
    for (size_t n : {9ul, 11ul}) {
        EXPECT_EQ(plat::write(u.fd, eleven, n), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(u.quiet());
}

TEST(Dsp, PowerCommandsChangeTheBaysAfterTheirTimeOnTheVirtualClock)
{
    Unit u;
    u.configureAsTheSystem(false);
    // Power down bays 2 and 3 (wire bits 0x04 and 0x08 clear), clamping none.
    ASSERT_EQ(u.send({4, 0x03, 0x0f}), 10);
    std::vector<Record> rs = u.next();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 0);
    EXPECT_TRUE(sim::dspState(u.module()).bays[1].powered);
    rs = u.next();
    EXPECT_EQ(u.clock(), kStart + 2 * sim::kDspSecondsPerBay);
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 12);
    EXPECT_EQ(statusOf(rs[0]), (std::vector<int>{5, 13, 13, 5, 0, 0, 0, 0}));
    u.send({2, 0});
    EXPECT_EQ(std::string(u.next()[1].buff + 4, 3), "OFF");

    // A sequence powers bay 2, then bay 3, and unclamps nothing that is not clamped.
    u.send({3, 0x0c, 0});
    u.next();
    plat::sleep(sim::kDspSecondsPerBay);
    sim::DspState s = sim::dspState(u.module());
    EXPECT_TRUE(s.bays[1].powered);
    EXPECT_FALSE(s.bays[2].powered);
    rs = u.next();
    EXPECT_EQ(u.clock(), kStart + 4 * sim::kDspSecondsPerBay);
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(statusOf(rs[0]), (std::vector<int>{5, 5, 5, 5, 0, 0, 0, 0}));

    // Clamp bay 4 (clear in the second mask), then unclamp it by power up.
    u.send({4, 0x0f, 0x0d});
    u.next();
    EXPECT_EQ(u.next()[0].status[3], 7);
    u.send({6, 0, 0x02});
    u.next();
    EXPECT_EQ(u.next()[0].status[3], 5);

    // An abort drops what a power command has not done yet.
    const time_t before = u.clock();
    u.send({4, 0, 0x0f});
    u.next();
    plat::sleep(sim::kDspSecondsPerBay);
    u.send({5});
    rs = u.next();
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(rs[1].type, 12);
    plat::sleep(10);
    s = sim::dspState(u.module());
    for (const sim::DspBay& b : s.bays) EXPECT_TRUE(b.powered);
    EXPECT_EQ(u.clock(), before + 11);
    u.send({2, 0});
    EXPECT_EQ(std::string(u.next()[1].buff + 4, 4), "HALT");
}

TEST(Dsp, AResetIsNotEchoedAndAnswersOffThenDoneLater)
{
    Unit u;
    ASSERT_EQ(u.send({0}), 10);
    std::vector<Record> rs = u.next();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 13);
    rs = u.next();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 12);
    EXPECT_EQ(u.clock(), kStart + sim::kDspResetSeconds);
}

TEST(Dsp, SilentLateAndWrongEcho)
{
    Unit u;
    sim::dspUpdate(u.module(), [](sim::DspState& s) { s.behaviours.silent = true; });
    ASSERT_EQ(u.send({6, 0x0f, 0x0f}), 10);
    EXPECT_TRUE(u.quiet());
    EXPECT_EQ(sim::dspPending(u.module()).events, 0u);  // the command is lost

    sim::dspUpdate(u.module(), [](sim::DspState& s) {
        s.behaviours.silent = false;
        s.behaviours.lateSeconds = 5;
        s.behaviours.wrongEcho = true;
    });
    u.send({2, 1});
    EXPECT_TRUE(u.quiet());
    std::vector<Record> rs = u.next();
    EXPECT_EQ(u.clock(), kStart + 5);
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(buffOf(rs[0]), bytes({0xfd, 0xfe, -1, -1, -1, -1, -1, -1, -1, -1}));
    EXPECT_EQ(rs[1].type, 3);

    // The second command from now is lost alone, and the count survives the state file.
    sim::dspUpdate(u.module(), [](sim::DspState& s) {
        s.behaviours = sim::DspBehaviours{};
        s.behaviours.loseNth = 2;
    });
    u.send({2, 1});
    EXPECT_EQ(u.next().size(), 2u);
    EXPECT_EQ(sim::dspState(u.module()).behaviours.loseNth, 1u);
    u.send({2, 1});
    EXPECT_TRUE(u.quiet());
    EXPECT_EQ(sim::dspState(u.module()).behaviours.loseNth, 0u);
    u.send({2, 1});
    EXPECT_EQ(u.next().size(), 2u);
    EXPECT_NE(u.module().readState("dsp.log").find("(status: power and clamp) lost\n"), std::string::npos);
}

TEST(Dsp, HaltNoopAndAnInjectedRecord)
{
    Unit u;
    u.configureAsTheSystem(false);
    sim::dspUpdate(u.module(), [](sim::DspState& s) { s.behaviours.halt = true; });
    u.send({4, 0, 0});
    std::vector<Record> rs = u.next();
    ASSERT_EQ(rs.size(), 2u);
    EXPECT_EQ(rs[1].type, 14);
    EXPECT_EQ(u.clock(), kStart);
    EXPECT_TRUE(sim::dspState(u.module()).bays[0].powered);
    u.send({2, 0});
    EXPECT_EQ(std::string(u.next()[1].buff + 4, 4), "HALT");

    sim::dspUpdate(u.module(), [](sim::DspState& s) {
        s.behaviours.halt = false;
        s.behaviours.powerNoop = true;
    });
    u.send({4, 0x0e, 0x0f});  // bay 1 down, as done
    u.next();
    rs = u.next();
    EXPECT_EQ(u.clock(), kStart + sim::kDspSecondsPerBay);
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 12);
    EXPECT_EQ(rs[0].status[0], 5);
    EXPECT_TRUE(sim::dspState(u.module()).bays[0].powered);

    uint8_t raw[112];
    for (size_t i = 0; i < sizeof raw; ++i) raw[i] = static_cast<uint8_t>(0xf0 - i);
    sim::dspInject(u.module(), raw);
    rs = u.next();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(std::memcmp(&rs[0], raw, sizeof raw), 0);
}

TEST(Dsp, ASwitchMovedByTavsimInAnotherProcessReachesAPendingRead)
{
    Unit u;
    u.configureAsTheSystem(false);
    ASSERT_EQ(u.clock(), kStart);  // counted before the reader starts
    ssize_t got = 0;
    std::thread reader([&] { got = u.pump(); });
    const std::string command = std::string(TAVSIM_BINARY) + " bay " + u.m.dir() + " 2 lock open >/dev/null 2>&1";
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 0);
    reader.join();
    EXPECT_GT(got, 0);
    std::vector<Record> rs = u.take();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].type, 4);
    EXPECT_EQ(rs[0].change, 0x02);
    EXPECT_EQ(rs[0].pwrDwn, 0x02);
    EXPECT_EQ(buffOf(rs[0]), bytes({2, 1, 1}));
    EXPECT_EQ(rs[0].status[1], 4);

    // The critical switch, and the lock of a bay without power, change only.
    sim::dspSetSwitch(u.module(), 3, true, true);
    rs = u.next();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].change, 0x04);
    EXPECT_EQ(rs[0].pwrDwn, 0);
    sim::dspUpdate(u.module(), [](sim::DspState& s) { s.bays[3].powered = false; });
    sim::dspSetSwitch(u.module(), 4, false, true);
    rs = u.next();
    ASSERT_EQ(rs.size(), 1u);
    EXPECT_EQ(rs[0].change, 0x08);
    EXPECT_EQ(rs[0].pwrDwn, 0);
    sim::dspSetSwitch(u.module(), 4, false, true);  // stands so already
    EXPECT_TRUE(u.quiet());
    EXPECT_THROW(sim::dspSetSwitch(u.module(), 5, false, true), std::out_of_range);
}

TEST(Dsp, FaultsOfTheOpenWriteAndRequestReachTheNode)
{
    Unit u;
    u.platform->arm(sim::Fault::failing(sim::Op::Open, sim::kDspNode, 1, ENODEV));
    EXPECT_EQ(plat::open(sim::kDspNode, O_RDWR), -1);
    EXPECT_EQ(errno, ENODEV);

    sim::Fault request = sim::Fault::failing(sim::Op::Ioctl, sim::kDspNode, 1, EIO);
    request.request = kNextMsg;
    u.platform->arm(request);
    Record r;
    EXPECT_EQ(plat::ioctl(u.fd, kNextMsg, &r), -1);
    EXPECT_EQ(errno, EIO);
    u.configureAsTheSystem(false);  // another request passes

    u.platform->arm(sim::Fault::shortening(sim::Op::Write, sim::kDspNode, 1, 5));
    EXPECT_NE(u.send({2, 1}), 10);
    EXPECT_TRUE(u.quiet());  // nothing reached the firmware
    EXPECT_EQ(u.send({2, 1}), 10);
}

TEST(Dsp, TheLogTellsCommandsRecordsAndRefusalsWithTheTime)
{
    Unit u;
    u.configureAsTheSystem(false);
    u.send({2, 1});
    u.next();
    const uint8_t nine[9] = {};
    plat::write(u.fd, nine, sizeof nine);
    const std::string log = u.m.get("/sim/dsp.log");
    EXPECT_NE(log.find("1136073600 config drives 4 masks 0f f0 0f f0 00 00 00 00 00 00 00 00 00 00 00 00 bytes 00 00 01 "
                       "01 00 00 00 00 00 00 00 00 00 00 00 00 serial /dev/ttyS1\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("1136073600 command 02 01 00 00 00 00 00 00 00 00 (status: power and clamp)\n"), std::string::npos);
    EXPECT_NE(log.find("1136073600 record type 0 (echo) length 10 change 00 pwrDwn 00 version A status 05 05 05 05 00 00 00 "
                       "00 buff 02010000000000000000\n"),
              std::string::npos);
    EXPECT_NE(log.find("1136073600 record type 3 (drive status) length 4 change 00 pwrDwn 00 version A status 05 05 05 05 00 "
                       "00 00 00 buff 02010450\n"),
              std::string::npos);
    EXPECT_NE(log.find("1136073600 refused a write of 9 bytes: EINVAL\n"), std::string::npos);
    Captured c = tavsim({"log", u.m.dir(), "--dsp"});
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out, log);
}

TEST(Dsp, TavsimShowsSetsAndMovesSwitches)
{
    Unit u;
    u.configureAsTheSystem(false);
    const std::string d = u.m.dir();
    Captured c = tavsim({"bay", d, "2", "lock", "open"});
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out, "opened the lock of bay 2: reported as a type 4 record, the drive going down\n");
    EXPECT_EQ(tavsim({"bay", d, "2", "lock", "open"}).out, "the lock of bay 2 was open already\n");
    EXPECT_EQ(tavsim({"dsp", d, "set", "temp", "3", "-7"}).status, 0);
    EXPECT_EQ(tavsim({"dsp", d, "set", "late", "4"}).status, 0);
    EXPECT_EQ(tavsim({"dsp", d, "set", "halt", "on"}).status, 0);
    const sim::DspState s = sim::dspState(u.module());
    EXPECT_EQ(s.bays[2].temperature, -7);
    EXPECT_EQ(s.behaviours.lateSeconds, 4u);
    EXPECT_TRUE(s.behaviours.halt);

    c = tavsim({"dsp", d});
    EXPECT_EQ(c.status, 0);
    EXPECT_NE(c.out.find("BAY  POWER  CLAMP  LOCK    CRITICAL  TEMP_C  STATUS  DRIVE\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("\n2    on     off    open    closed    33      0100    SIM"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("driver: configured for 4 drives, masks 0f f0 0f f0, bytes 00 00 01 01, serial line /dev/ttyS1\n"),
              std::string::npos);
    EXPECT_NE(c.out.find("behaviours: late 4 s and halt\n"), std::string::npos);
    c = tavsim({"dsp", d, "--json"});
    EXPECT_EQ(c.status, 0);
    EXPECT_NE(c.out.find("\"temperature\": -7"), std::string::npos);
    EXPECT_NE(c.out.find("\"late_seconds\": 4"), std::string::npos);
    EXPECT_NE(tavsim({"show", d}).out.find(" POWER  CLAMP  KERNEL  MODEL"), std::string::npos);

    const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
        {{"dsp", d, "set", "temp", "9", "30"}, "tavsim dsp: bay 9: the chassis controller has bays 1 to 4\n"},
        {{"bay", d, "5", "lock", "open"}, "tavsim bay: bay 5: the chassis controller has bays 1 to 4\n"},
    };
    for (const auto& [args, err] : refusals) {
        c = tavsim(args);
        EXPECT_EQ(c.status, 1);
        EXPECT_EQ(c.err, err);
    }
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"dsp", d, "set", "temp", "2", "200"},
                                               {"dsp", d, "set", "late", "86401"},
                                               {"dsp", d, "set", "silent", "maybe"},
                                               {"dsp", d, "set", "inject", "zz"},
                                               {"dsp", d, "set", "volts", "1", "2", "3"},
                                               {"dsp", d, "set", "colour", "red"},
                                               {"dsp", d, "set"},
                                               {"dsp", d, "--json", "set", "limit", "4"},
                                               {"bay", d, "2", "lock", "ajar"},
                                               {"bay", d, "x", "lock", "open"}}) {
        c = tavsim(args);
        EXPECT_EQ(c.status, 2) << args[2] << " " << (args.size() > 3 ? args[3] : "");
        EXPECT_NE(c.err.find("usage: tavsim"), std::string::npos);
    }
    EXPECT_NE(tavsim({"dsp", d, "set", "late", "86401"}).err.find("late 86401: out of range 0 to 86400"), std::string::npos);

    TempModule none(5, false);
    sim::CreateOptions o;
    o.platform = 5;
    o.identityOnly = true;
    ASSERT_EQ(sim::createModule(none.dir(), o), "");
    EXPECT_EQ(tavsim({"dsp", none.dir()}).status, 1);
    EXPECT_EQ(tavsim({"bay", none.dir(), "1", "lock", "open"}).status, 1);
    EXPECT_EQ(tavsim({"log", none.dir(), "--dsp"}).status, 1);
}

TEST(Dsp, AStateFileThatCannotBeReadIsReportedAndTheUnitStartsAfresh)
{
    Unit u;
    u.m.put("/sim/dsp", "bays 4\nbay 1 power=1 clamp=0 lock=ajar critical=closed temp=30\n");
    Captured c = tavsim({"dsp", u.m.dir()});
    EXPECT_EQ(c.status, 0);
    EXPECT_NE(c.err.find("sim/dsp:2: lock=ajar: give open or closed"), std::string::npos) << c.err;
    EXPECT_EQ(sim::dspState(u.module()).bays.size(), 4u);
    u.send({2, 1});
    EXPECT_EQ(u.next().size(), 2u);
}

// The chassis controller's link against the simulated DSP: the bytes on the
// wire, the list of commands not yet echoed, the answers and their virtual
// durations, and a bay's lock opened while the readers run.
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/store_fixture.h"
#include "driveutils/tavsysutils.h"
#include "sim/create.h"
#include "sim/dsp.h"
#include "sim/sim_platform.h"

namespace {

using Bays = TavDspDiskStatus;

// Reachable to the end of the process, for the leak check too.
plat::ScopedPlatform* gScope = nullptr;

// A module hosted in this process with the link up. The link's threads never
// end: the platform is left to the end of the process and they are parked
// when the test ends, so nothing runs while the module is taken away.
class Link : public testing::Test {
protected:
    // A signed four-drive module of platform 1 with its manager up.
    Link() : store_(std::make_unique<storetest::StoreModule>()) { start(store_->dir(), true); }
    // A module of platform 2 made without drives: the eight-bay wiring.
    struct EightBays {};
    explicit Link(EightBays) : temp_(std::make_unique<simtest::TempModule>(2, false))
    {
        sim::CreateOptions options;
        options.platform = 2;
        options.identityOnly = true;
        EXPECT_EQ(sim::createModule(temp_->dir(), options), "");
        start(temp_->dir(), false);
    }

    ~Link() override
    {
        platform_->scheduler().park();
        tavGlobalDebugLevel = 0;
        if (manager_) sim::resetDriveManager();
    }

    void start(const std::string& dir, bool manager)
    {
        dir_ = dir;
        // Reachable to the end of the process, for the leak check too.
        platform_ = new sim::SimPlatform(dir);
        gScope = new plat::ScopedPlatform(*platform_);
        control_ = std::make_unique<sim::Module>(dir);
        manager_ = manager;
        sim::resetDriveManager();
        if (manager)
            TavDriveMgr::init();
        else
            TavDriveMgr::nDrives = 8;
        ASSERT_EQ(tavDspInitModData(), 0);
        // This thread holds the turn: the readers queue behind it as they start.
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (platform_->scheduler().threads() < 3 && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        ASSERT_EQ(platform_->scheduler().threads(), 3u);
        plat::sleep(2);  // the reader's first status
        ASSERT_TRUE(Bays::statusIsReady());
    }

    uint64_t micros()
    {
        timeval tv{};
        plat::gettimeofday(&tv);
        return static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec);
    }

    struct Answer {
        int result;
        std::string text;
        uint64_t micros;  // virtual time taken
        bool operator==(const Answer&) const = default;
    };
    Answer run(int (*command)(char*, int), const std::string& args = "")
    {
        char buffer[128] = {};
        std::strncpy(buffer, args.c_str(), sizeof buffer - 1);
        uint64_t t0 = micros();
        int result = command(buffer, sizeof buffer);
        return Answer{result, buffer, micros() - t0};
    }

    void behave(const std::function<void(sim::DspBehaviours&)>& change)
    {
        sim::dspUpdate(*control_, [&](sim::DspState& s) { change(s.behaviours); });
    }

    // Commands the DSP received, as their hex, from its log.
    std::vector<std::string> commandsSeen()
    {
        std::ifstream in(dir_ + "/sim/dsp.log");
        std::vector<std::string> out;
        std::string line;
        while (std::getline(in, line)) {
            size_t at = line.find(" command ");
            if (at != std::string::npos) out.push_back(line.substr(at + 9, 29));
        }
        return out;
    }

    static void record(uint8_t (&raw)[112], int type, const std::vector<uint8_t>& buff = {})
    {
        std::memset(raw, 0, sizeof raw);
        raw[0] = static_cast<uint8_t>(buff.size());
        raw[1] = static_cast<uint8_t>(type);
        for (int d = 0; d < 8; ++d) raw[18 + d] = 0x05;  // every bay well: no change seen
        if (!buff.empty()) std::memcpy(raw + 26, buff.data(), std::min<size_t>(buff.size(), 80));
    }
    void inject(int type, const std::vector<uint8_t>& buff = {})
    {
        uint8_t raw[112];
        record(raw, type, buff);
        sim::dspInject(*control_, raw);
    }

    std::unique_ptr<storetest::StoreModule> store_;
    std::unique_ptr<simtest::TempModule> temp_;
    std::string dir_;
    sim::SimPlatform* platform_ = nullptr;
    std::unique_ptr<sim::Module> control_;
    bool manager_ = false;
};

const std::vector<uint8_t> kStatusCmd = {2, 1, 0, 0, 0, 0, 0, 0, 0, 0};

TEST_F(Link, CommandsAnswerWithTheDspsValuesAfterWholeRounds)
{
    sim::dspUpdate(*control_, [](sim::DspState& s) {
        s.bays[1].temperature = -7;
        s.bays[2].temperature = 44;
        s.volts[2] = 170;  // 5 V standby
        s.limit = 48;
        std::memcpy(s.date, "1107250A1U", 10);
    });
    Answer status = run(dspStatus);
    EXPECT_EQ(status, (Answer{0, "PCPCPCPC", 1000000})) << "an answer early in a round waits for its end";

    EXPECT_EQ(run(dspTempDrive, "2"), (Answer{0, "-7", 1000000}));
    EXPECT_EQ(run(dspTempDrive, "3").text, "44") << "the DSP's own order of bays 3 and 4";
    EXPECT_EQ(run(dspTempDrive, "0"), (Answer{-1, "Unable to get drive argument", 0}));
    EXPECT_EQ(run(dspTempDrive, "5").text, "Unable to get drive argument");
    char volts[32];
    std::snprintf(volts, sizeof volts, "Voltage = %f", 170 * 0.0297f);
    EXPECT_EQ(run(dspVoltage, "5.0SB").text, volts);
    EXPECT_EQ(run(dspGetTempLimit), (Answer{0, "48", 1000000}));
    EXPECT_EQ(run(dspFirmVersion).text, "Date: 25/0A/2007, 1U U") << "bytes 4 5 6 7 2 3 1 9 of the date";
    EXPECT_EQ(run(dspLastCommand).result, 0);
    EXPECT_EQ(run(dspCmdSize), (Answer{-1, "Command length resizing is not supported", 0}));

    std::vector<std::string> wire = commandsSeen();
    ASSERT_GE(wire.size(), 5u);
    EXPECT_EQ(wire[0], "02 01 00 00 00 00 00 00 00 00") << "the reader's first status, written directly";
    EXPECT_EQ(wire[1], "02 01 00 00 00 00 00 00 00 00");
    EXPECT_EQ(wire[2], "02 02 00 00 00 00 00 00 00 00");
    EXPECT_EQ(TavDspMsg::counter, 0) << "every command was echoed";

    // The same command, again and again: the same answer in the same virtual time.
    for (int i = 0; i < 200; ++i) ASSERT_EQ(run(dspStatus), status) << i;
}

TEST_F(Link, PowerCommandsMapTheDrivesToWireBitsAndTakeTheirTime)
{
    Answer down = run(dspPowerDown, "1 1");
    EXPECT_EQ(down.result, 0);
    EXPECT_EQ(down.text, "OCPCPCPC") << "drive 1 off, its lock closed";
    EXPECT_EQ(commandsSeen().at(1), "04 0e 0e 00 00 00 00 00 00 00") << "all bits but drive 1's, remapped";
    EXPECT_EQ(sim::dspState(*control_).bays[0].powered, false);
    EXPECT_TRUE(sim::dspState(*control_).bays[0].clamped);

    EXPECT_EQ(run(dspPowerDown, "").text, "Invalid argument for drives");
    EXPECT_EQ(run(dspPowerUp, "13 1").result, 0);
    EXPECT_EQ(commandsSeen().back(), "02 01 00 00 00 00 00 00 00 00");
    EXPECT_TRUE(sim::dspState(*control_).bays[0].powered);

    // A DSP that halts instead: the waiter is released, and the compare fails.
    behave([](sim::DspBehaviours& b) { b.halt = true; });
    testing::internal::CaptureStderr();
    Answer halted = run(dspPowerUp, "2 2");
    EXPECT_EQ(halted.result, 0);
    EXPECT_EQ(run(dspLastCommand).text, "DSP was halted");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("DEBUG:  DSP:  Compare message was not successful\n"),
              std::string::npos);
}

TEST_F(Link, ResetEmptiesTheListAndOnlyItsCompletionReleasesTheWaiter)
{
    behave([](sim::DspBehaviours& b) { b.silent = true; });
    char cmd[13] = {2, 1};
    EXPECT_EQ(sendMessage(cmd, 9), -1) << "nine bytes";
    size_t before = commandsSeen().size();
    EXPECT_EQ(commandsSeen().size(), before) << "nothing written";

    // Two identical commands pending: an echo removes the older.
    ASSERT_EQ(sendMessage(cmd, 10), 0);
    TavDspMsg* older = TavDspMsg::headOfList;
    ASSERT_EQ(sendMessage(cmd, 10), 0);
    TavDspMsg* newer = older->next;
    ASSERT_EQ(TavDspMsg::counter, 2);
    testing::internal::CaptureStderr();
    inject(TAV_DSP_K_REFLECTN, kStatusCmd);
    plat::sleep(2);
    EXPECT_EQ(TavDspMsg::counter, 1);
    EXPECT_EQ(TavDspMsg::headOfList, newer);
    // An echo of nothing pending, and a type without a case.
    inject(TAV_DSP_K_REFLECTN, {6, 1, 1});
    inject(TAV_DSP_K_CMD_SIZE, {'x'});
    plat::sleep(2);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Unable to find msg that was reflected: \x06\x01\x01; "), std::string::npos) << log;
    EXPECT_NE(log.find("Couldn't find message type: x; "), std::string::npos);
    EXPECT_EQ(TavDspMsg::counter, 1);

    // A silent DSP keeps every command listed; a reset, never listed, empties the list.
    for (int i = 0; i < 10000; ++i) ASSERT_EQ(sendMessage(cmd, 10), 0);
    EXPECT_EQ(TavDspMsg::counter, 10001);
    char reset[13] = {};
    ASSERT_EQ(sendMessage(reset, 10), 0);
    EXPECT_EQ(TavDspMsg::counter, 0);
    EXPECT_EQ(TavDspMsg::headOfList, nullptr);
    EXPECT_EQ(commandsSeen().back(), "00 00 00 00 00 00 00 00 00 00");

    // During a reset "off" does not release the waiter; "done" does, and ends the reset.
    TavDspMsg::dspResetFlag = 1;
    inject(TAV_DSP_K_PC_OFF);
    uint64_t t0 = micros();
    EXPECT_EQ(dspGetDspResponse(cmd, 13, 1), -1);
    EXPECT_EQ(micros() - t0, 5000000u) << "five rounds";
    inject(TAV_DSP_K_PC_DONE);
    EXPECT_EQ(dspGetDspResponse(cmd, 13, 1), 0);
    EXPECT_EQ(TavDspMsg::dspResetFlag, 0);

    // The DSP's own reset: off, then done some seconds later; then the status.
    behave([](sim::DspBehaviours& b) { b.silent = false; });
    Answer reset2 = run(dspReset);
    EXPECT_EQ(reset2, (Answer{0, "PCPCPCPC", 5000000})) << "a round of 4 s, then one of 1 s";
    EXPECT_EQ(TavDspMsg::counter, 0);
}

TEST_F(Link, SilenceLateAnswersAndInterruptedWaitsOnTheClock)
{
    behave([](sim::DspBehaviours& b) { b.silent = true; });
    EXPECT_EQ(run(dspStatus), (Answer{-1, "Unable to get status command response", 5000000}));
    platform_->arm(sim::Fault::failing(sim::Op::Wait, "*", 1, EINTR, 3));
    EXPECT_EQ(run(dspStatus).micros, 5000000u) << "an interrupted wait is no round";

    // A limit of 51 asks for the date version too; a silent DSP leaves it "Unavailable".
    inject(TAV_DSP_K_TEMPRTUR, {0, 51});
    EXPECT_EQ(run(dspGetTempLimit), (Answer{0, "Unavailable", 6000000}));

    behave([](sim::DspBehaviours& b) {
        b.silent = false;
        b.lateSeconds = 2;
    });
    Answer late = run(dspStatus);
    EXPECT_EQ(late.result, 0);
    EXPECT_EQ(late.micros, 3000000u) << "answered at 2 s, seen at the end of the third round";
}

TEST_F(Link, ABaysLockOpenedTakesItsDriveDown)
{
    tavGlobalDebugLevel = 10;
    testing::internal::CaptureStderr();
    sim::dspSetSwitch(*control_, 2, false, true);
    plat::sleep(40);  // the report, the bus's detach, power-down, partner power-up and spin-up
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Notify clients of status change in drives 2 \n"), std::string::npos) << log;
    EXPECT_NE(log.find("Drive 2 is going down\n"), std::string::npos);
    EXPECT_NE(log.find("Drive 2 was powered off. "), std::string::npos);
    EXPECT_EQ(log.find("drive already in bay"), std::string::npos);
    EXPECT_FALSE(Bays::warningClosed(1));

    // A drive that software already holds off is left alone.
    Bays::userSpaceSetPower(2, false);
    testing::internal::CaptureStderr();
    sim::dspSetSwitch(*control_, 3, false, true);
    plat::sleep(3);
    log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Drive 3 is going down\n"), std::string::npos);
    EXPECT_NE(log.find("drive is already off "), std::string::npos);
    EXPECT_EQ(log.find("Drive 3 was powered off."), std::string::npos);

    // Bad records are logged and change nothing: a bit beyond the unit, an unknown type.
    testing::internal::CaptureStderr();
    uint8_t raw[112];
    record(raw, 99, std::vector<uint8_t>(80, 'z'));
    raw[0] = 0x7f;
    raw[3] = static_cast<uint8_t>(0x80);  // pwrDwn of drive 8 on a four-drive unit
    raw[2] = static_cast<uint8_t>(0x80);
    sim::dspInject(*control_, raw);
    plat::sleep(2);
    log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Couldn't find message type: "), std::string::npos);
    EXPECT_EQ(log.find("Notify clients of status change"), std::string::npos) << "bit 7 tested as a sign";
    EXPECT_EQ(log.find("Drive 8 is going down"), std::string::npos);
}

class EightBayLink : public Link {
protected:
    EightBayLink() : Link(EightBays{}) {}
};

TEST_F(EightBayLink, DrivesOfTheEightBayWiring)
{
    sim::DspState s = sim::dspState(*control_);
    ASSERT_TRUE(s.configured);
    EXPECT_EQ(s.numDrives, 8);
    EXPECT_EQ(run(dspPowerUp, "18 18").result, 0);
    EXPECT_EQ(commandsSeen().at(1), "06 12 12 00 00 00 00 00 00 00");
    sim::dspUpdate(*control_, [](sim::DspState& st) {
        for (int b = 0; b < 8; ++b) st.bays[static_cast<size_t>(b)].temperature = static_cast<int8_t>(20 + b);
    });
    for (int drive = 1; drive <= 8; ++drive)
        EXPECT_EQ(run(dspTempDrive, std::to_string(drive)).text, std::to_string(19 + drive)) << drive;
    EXPECT_EQ(run(dspStatus).text.size(), 16u);
}

} // namespace

// A drive swapped on an IDE cable: the bay's lock, the power operations of
// the bus against the chassis controller and the hot-swap driver, and the
// drives, arrays and stamps they leave. Every assertion on the arrays and
// stamps comes after the system's own threads have ended.
#include "driveutils/hot_swap_fixture.h"
#include "driveutils/tavbus.h"
#include "driveutils/tavraiddevice.h"
#include "hotswap/libcharon.h"

namespace hotswaptest {
namespace {

using Ide = RaidDeviceMgmt::TavIdeBus;

const char kDetach1[] = "request 161 (deactivate-if) uInterface=1 uDevice=0xfffffff iReturnCode=0 -> 0";
const char kAttach1[] = "request 160 (activate-if) uInterface=1 uDevice=0xfffffff iReturnCode=0 -> 0";
// Drives 3 and 4 off and clamped (the command keeps bays 1 and 2); drive 4 on.
const char kDown34[] = "command 04 05 05 00 00 00 00 00 00 00 (power down: power 0x05 clamp 0x05)";
const char kUp4[] = "command 06 02 02 00 00 00 00 00 00 00 (power up: power 0x02 clamp 0x02)";
const char kDown4[] = "command 04 0d 0d 00 00 00 00 00 00 00 (power down: power 0x0d clamp 0x0d)";
const char kUp34[] = "command 06 0a 0a 00 00 00 00 00 00 00 (power up: power 0x0a clamp 0x0a)";

// Virtual seconds from a power-up command to its answer: the bay's change and
// the status request behind it, each seen at the reader's next poll.
constexpr long long kPowerUpRound = 3;

std::vector<std::string> texts(const std::vector<Appliance::Line>& lines, size_t from = 0)
{
    std::vector<std::string> out;
    for (size_t i = from; i < lines.size(); ++i) out.push_back(lines[i].text);
    return out;
}

// The power commands among the DSP's commands (the status requests left out).
std::vector<Appliance::Line> powerCommands(const std::vector<Appliance::Line>& lines)
{
    std::vector<Appliance::Line> out;
    for (const Appliance::Line& l : lines)
        if (l.text.find("(power ") != std::string::npos) out.push_back(l);
    return out;
}

class HotSwap : public testing::TestWithParam<int> {
protected:
    HotSwap() : temp_(GetParam(), false)
    {
        shelf_ = buildModule(temp_.dir(), GetParam());
        app_ = std::make_unique<Appliance>(temp_.dir());
    }

    Appliance& app() { return *app_; }
    Ide& bus() { return *dynamic_cast<Ide*>(app_->bus(3)); }

    // Bay 3's drive leaves for the shelf and `kind` takes its place.
    void replace3(Shelf kind)
    {
        ASSERT_EQ(app().control().pull(3), "");
        ASSERT_EQ(app().control().insert(3, shelf_.at(kind)), "");
    }
    // The drive of bay 3 goes down as its lock opens; the lock stays open.
    void openLock3()
    {
        const size_t before = app().charonRequests().size();
        sim::dspSetSwitch(app().control(), 3, false, true);
        ASSERT_TRUE(app().waitFor([&] { return app().charonRequests().size() >= before + 2; }, 600));
        ASSERT_TRUE(app().waitIdle());
    }

    simtest::TempModule temp_;
    std::map<Shelf, std::string> shelf_;
    std::unique_ptr<Appliance> app_;
};

TEST_P(HotSwap, ABaysLockOpenedTakesItsDriveDownAndBringsThePartnerBack)
{
    ASSERT_TRUE(app().started());
    ASSERT_TRUE(app().storeRunning());
    for (int bay = 1; bay <= 4; ++bay) ASSERT_TRUE(app().inRaid(bay) && app().inOsMirror(bay)) << bay;
    const size_t dspBefore = app().dspCommands().size();
    const long long opened = app().now();

    openLock3();

    // In order: detach, both drives down, the partner up, attach after the spin-up delay.
    const std::vector<Appliance::Line> charon = app().charonRequests();
    ASSERT_EQ(texts(charon), (std::vector<std::string>{kDetach1, kAttach1}));
    std::vector<Appliance::Line> dsp = app().dspCommands();
    dsp.erase(dsp.begin(), dsp.begin() + static_cast<long>(dspBefore));
    const std::vector<Appliance::Line> power = powerCommands(dsp);
    ASSERT_EQ(texts(power), (std::vector<std::string>{kDown34, kUp4}));
    EXPECT_LE(charon[0].time, power[0].time);
    EXPECT_LE(power[0].time, power[1].time);
    EXPECT_EQ(charon[1].time - power[1].time, kPowerUpRound + 15) << "the spin-up delay, after the power-up's answer";
    EXPECT_LE(charon[1].time - opened, 30);

    const sim::DspBay b3 = app().dspBay(3), b4 = app().dspBay(4);
    EXPECT_TRUE(!b3.powered && b3.clamped);
    EXPECT_TRUE(b4.powered && !b4.clamped);
    EXPECT_TRUE(sim::charonState(app().control()).interfaces.at(1).active);
    EXPECT_FALSE(TavDspDiskStatus::userSpaceHasPower(2));
    EXPECT_TRUE(TavDspDiskStatus::userSpaceHasPower(3));

    // Drive 4 is back in the OS mirror and the array, which runs without drive 3.
    EXPECT_TRUE(app().inOsMirror(4));
    EXPECT_TRUE(app().inRaid(4));
    EXPECT_EQ(app().member(kDataMd, 3), "");
    EXPECT_EQ(app().array(kDataMd), "degraded");
    EXPECT_TRUE(app().storeRunning()) << "started again after the power-down";
    for (int bay : {1, 2, 4}) EXPECT_GT(app().dismount(bay), app().dismount(3)) << bay;

    // The partner forgot its write cache with its power; the selection is back on every drive.
    for (int bay : {1, 2, 4}) EXPECT_FALSE(app().writeCache(bay)) << bay;
    const std::string ata = app().control().readState("ata.log");
    EXPECT_NE(ata.find(std::to_string(charon[1].time) + " /dev/ide/host0/bus1/target0/lun0/disc setfeatures write-cache off"),
              std::string::npos)
        << ata;
    EXPECT_TRUE(app().hazards().empty());
}

TEST_P(HotSwap, ANewDriveOfTheProductComesUpSignedAndRebuilds)
{
    openLock3();
    replace3(Shelf::NewProduct);
    sim::dspSetSwitch(app().control(), 3, false, false);
    const size_t dspBefore = app().dspCommands().size();
    const size_t charonBefore = app().charonRequests().size();

    EXPECT_EQ(bus().powerUp(3), 0);
    EXPECT_EQ(texts(app().charonRequests(), charonBefore), (std::vector<std::string>{kDetach1, kAttach1}));
    std::vector<Appliance::Line> dsp = app().dspCommands();
    dsp.erase(dsp.begin(), dsp.begin() + static_cast<long>(dspBefore));
    EXPECT_EQ(texts(powerCommands(dsp)), (std::vector<std::string>{kDown4, kUp34}));

    ASSERT_TRUE(app().waitIdle());
    EXPECT_EQ(TavDriveMgr::checkDrive(3), 0) << "signed as the module's own drive 3";
    EXPECT_TRUE(app().inRaid(3));
    EXPECT_TRUE(app().inRaid(4));
    EXPECT_EQ(app().array(kDataMd), "active");
    EXPECT_TRUE(app().inOsMirror(3));
    EXPECT_TRUE(app().inOsMirror(4));
    EXPECT_TRUE(app().storeRunning()) << "stopped around the change and started again";
    // Nominal: every drive holds the same stamps once the rebuild is over.
    for (int bay = 1; bay <= 4; ++bay) {
        EXPECT_EQ(app().dismount(bay), app().dismount(1)) << bay;
        EXPECT_EQ(app().mount(bay), app().mount(1)) << bay;
    }
    for (int bay = 1; bay <= 4; ++bay) EXPECT_FALSE(app().writeCache(bay)) << bay;
    EXPECT_TRUE(app().hazards().empty());
}

// A drive that is not the product's new drive nor the module's own comes up
// powered and is left as it is: no array, no mirror, not a byte written.
TEST_P(HotSwap, ADriveOfAnyOtherKindComesUpUntouched)
{
    openLock3();
    for (Shelf kind : {Shelf::PartitionedOnly, Shelf::Foreign, Shelf::Damaged, Shelf::Blank}) {
        SCOPED_TRACE(static_cast<int>(kind));
        replace3(kind);
        const std::string image = app().image(3);
        EXPECT_EQ(bus().powerUp(3), 0);
        ASSERT_TRUE(app().waitIdle());
        const int verdict = TavDriveMgr::checkDrive(3);
        EXPECT_TRUE(verdict != 0 && verdict != 9) << verdict;
        if (kind == Shelf::PartitionedOnly) {
            EXPECT_EQ(verdict, 7) << "no signature";
        }
        EXPECT_EQ(app().member(kDataMd, 3), "");
        EXPECT_EQ(app().member(200, 3), "");
        EXPECT_TRUE(app().image(3) == image) << "the drive was written";
        EXPECT_TRUE(app().inRaid(4) && app().inOsMirror(4));
        // Down again for the next one.
        EXPECT_EQ(bus().powerDown(3, false), 0);
        ASSERT_TRUE(app().waitIdle());
    }
    EXPECT_TRUE(app().hazards().empty());
}

// Drive 1 goes (with drive 2 on its cable), then drive 3: the array goes
// off. Drive 1 is stale and stays out; drive 3 is as new as the survivors,
// and the array starts again with it.
TEST_P(HotSwap, AStaleDriveNeverRejoinsAnArrayThatWentOff)
{
    const size_t charonBefore = app().charonRequests().size();
    EXPECT_EQ(bus().powerDown(1, false), 0);
    ASSERT_TRUE(app().waitIdle());
    const std::vector<std::string> first = texts(app().charonRequests(), charonBefore);
    ASSERT_EQ(first.size(), 2u);
    EXPECT_NE(first[0].find("(deactivate-if) uInterface=0 "), std::string::npos) << "drives 1 and 2 share interface 0";
    EXPECT_FALSE(app().dspBay(1).powered);
    EXPECT_TRUE(app().dspBay(2).powered);
    EXPECT_EQ(bus().powerDown(3, false), 0);
    ASSERT_TRUE(app().waitIdle());
    ASSERT_EQ(TavDriveMgr::checkRaid(), TavRaidDevice::OFF);
    const int64_t stale = app().dismount(1);
    const int64_t latest = app().dismount(2);
    ASSERT_LT(stale, latest);
    EXPECT_EQ(app().dismount(3), latest);

    // The store stops for the change and stays down: no array runs to serve.
    EXPECT_EQ(bus().powerUp(1), 0);
    ASSERT_TRUE(app().waitIdle(false));
    EXPECT_EQ(app().member(kDataMd, 1), "");
    EXPECT_EQ(app().dismount(1), stale);
    EXPECT_LT(app().dismount(1), app().dismount(2));

    EXPECT_EQ(bus().powerUp(3), 0);
    ASSERT_TRUE(app().waitIdle(false));
    EXPECT_TRUE(app().inRaid(3));
    EXPECT_NE(app().array(kDataMd), "inactive");
    EXPECT_NE(TavDriveMgr::checkRaid(), TavRaidDevice::OFF);
    EXPECT_NE(app().member(kDataMd, 1), "in-sync");
    EXPECT_TRUE(app().hazards().empty());
}

// --- each way a change can fail, and what it leaves ---

using Failures = HotSwap;

std::vector<std::string> requestsOf(Appliance& app, size_t from, const std::string& kind)
{
    std::vector<std::string> out;
    for (const std::string& t : texts(app.charonRequests(), from))
        if (t.find(kind) != std::string::npos) out.push_back(t);
    return out;
}

// Both drives of interface 1 in service, as before the change.
void expectBothBack(Appliance& app)
{
    for (int bay : {3, 4}) {
        EXPECT_TRUE(app.inRaid(bay)) << bay;
        EXPECT_TRUE(app.inOsMirror(bay)) << bay;
        EXPECT_TRUE(app.dspBay(bay).powered) << bay;
        EXPECT_TRUE(TavDspDiskStatus::userSpaceHasPower(bay - 1)) << bay;
    }
    EXPECT_EQ(app.array(kDataMd), "active");
    EXPECT_TRUE(sim::charonState(app.control()).interfaces.at(1).active);
}

TEST_P(Failures, ADetachThatFailsWithoutForceGivesOneAndPutsBothDrivesBack)
{
    const size_t from = app().charonRequests().size();
    sim::charonInject(app().control(), 1, CHARON_IOCTL_DEACTIVATE_IF, 5);
    EXPECT_EQ(bus().powerDown(3, false), 1);
    EXPECT_EQ(texts(app().charonRequests(), from),
              (std::vector<std::string>{"request 161 (deactivate-if) uInterface=1 uDevice=0xfffffff iReturnCode=0 -> 5 injected"}))
        << "no retry";
    ASSERT_TRUE(app().waitIdle());
    expectBothBack(app());
    EXPECT_TRUE(powerCommands(app().dspCommands()).empty());
}

// The lock opens, the detach keeps failing and is retried once a second;
// the lock closes again, the user changed their mind, and the code decides.
TEST_P(Failures, AForcedDetachRetriesUntilTheLockClosesAgain)
{
    const size_t from = app().charonRequests().size();
    sim::charonInject(app().control(), 1, CHARON_IOCTL_DEACTIVATE_IF, 5, -1);
    sim::dspSetSwitch(app().control(), 3, false, true);
    ASSERT_TRUE(app().waitFor([&] { return requestsOf(app(), from, "(deactivate-if)").size() >= 4; }, 600));
    sim::dspSetSwitch(app().control(), 3, false, false);
    ASSERT_TRUE(app().waitIdle());
    const std::vector<Appliance::Line> lines = app().charonRequests();
    ASSERT_GE(lines.size() - from, 4u);
    // Each turn: a second's sleep, then the status request and its round.
    for (size_t i = from + 1; i < lines.size(); ++i) EXPECT_EQ(lines[i].time - lines[i - 1].time, 2);
    EXPECT_TRUE(requestsOf(app(), from, "(activate-if)").empty());
    EXPECT_EQ(sim::charonClearInjections(app().control()), 1u);
    expectBothBack(app());
    EXPECT_TRUE(app().storeRunning());

    // A detach that finds the interface down already (-3) is done: no retry.
    ASSERT_EQ(charon_deactivate_if(1), 0);
    const size_t again = app().charonRequests().size();
    EXPECT_EQ(bus().powerDown(3, true), 0);
    EXPECT_EQ(requestsOf(app(), again, "(deactivate-if)"),
              (std::vector<std::string>{"request 161 (deactivate-if) uInterface=1 uDevice=0xfffffff iReturnCode=0 -> -3"}));
    ASSERT_TRUE(app().waitIdle());
    EXPECT_TRUE(app().inRaid(4) && app().inOsMirror(4));
}

TEST_P(Failures, AChassisControllerThatFailsAPowerCommandGivesItsCode)
{
    // Power-down of both drives lost (code 3): the interface comes back and so do both drives.
    sim::dspUpdate(app().control(), [](sim::DspState& s) { s.behaviours.silent = true; });
    size_t from = app().charonRequests().size();
    EXPECT_EQ(bus().powerDown(3, false), 3);
    sim::dspUpdate(app().control(), [](sim::DspState& s) { s.behaviours.silent = false; });
    EXPECT_EQ(texts(app().charonRequests(), from), (std::vector<std::string>{kDetach1, kAttach1}));
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    expectBothBack(app());

    // The partner's power-up lost (code 4): the interface is back, the partner stays off.
    auto loseAt = [&](unsigned n) { sim::dspUpdate(app().control(), [&](sim::DspState& s) { s.behaviours.loseNth = n; }); };
    loseAt(3);  // the power-down and its status request go through
    EXPECT_EQ(bus().powerDown(3, false), 4);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_FALSE(app().dspBay(4).powered);
    EXPECT_TRUE(sim::charonState(app().control()).interfaces.at(1).active);
    EXPECT_EQ(app().member(kDataMd, 4), "");

    // A power-up whose first command is lost (code 3): the partner keeps its state.
    const bool partnerPower = TavDspDiskStatus::userSpaceHasPower(3);
    loseAt(1);
    from = app().charonRequests().size();
    EXPECT_EQ(bus().powerUp(3), 3);
    EXPECT_EQ(texts(app().charonRequests(), from), (std::vector<std::string>{kDetach1, kAttach1}));
    EXPECT_EQ(TavDspDiskStatus::userSpaceHasPower(3), partnerPower);
    ASSERT_TRUE(app().waitIdle(std::nullopt));

    // The power-up itself lost (code 5): the interface is back all the same.
    loseAt(3);
    EXPECT_EQ(bus().powerUp(3), 5);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_FALSE(app().dspBay(3).powered);
    EXPECT_TRUE(sim::charonState(app().control()).interfaces.at(1).active);
    EXPECT_TRUE(app().hazards().empty());

    // A working power-up brings drive 3 alone: its partner's flag says off.
    EXPECT_EQ(bus().powerUp(3), 0);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_TRUE(app().dspBay(3).powered);
    EXPECT_FALSE(app().dspBay(4).powered);
    EXPECT_EQ(bus().powerUp(4), 0);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_TRUE(app().dspBay(3).powered && app().dspBay(4).powered);
}

TEST_P(Failures, AnAttachThatFailsGivesTwoAndTheNextChangeFindsTheInterfaceDown)
{
    sim::charonInject(app().control(), 1, CHARON_IOCTL_ACTIVATE_IF, -5);
    EXPECT_EQ(bus().powerDown(3, false), 2);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_FALSE(sim::charonState(app().control()).interfaces.at(1).active);
    EXPECT_EQ(app().member(kDataMd, 4), "");

    // Drive 4, absent while the interface was down, lost its place; drive 3
    // went first and is stale. Both come up, neither rejoins the dead array.
    const size_t from = app().charonRequests().size();
    EXPECT_EQ(bus().powerUp(3), 0);
    EXPECT_NE(texts(app().charonRequests(), from).at(0).find("-> -3"), std::string::npos);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_TRUE(app().dspBay(3).powered && app().dspBay(4).powered);
    EXPECT_TRUE(sim::charonState(app().control()).interfaces.at(1).active);
    EXPECT_EQ(TavDriveMgr::checkRaid(), TavRaidDevice::OFF);

    // Drive 4 is as new as the survivors: its own power-up starts the array again.
    EXPECT_EQ(bus().powerUp(4), 0);
    ASSERT_TRUE(app().waitIdle(std::nullopt));
    EXPECT_TRUE(app().inRaid(4));
    EXPECT_NE(app().member(kDataMd, 3), "in-sync");
    EXPECT_EQ(app().array(kDataMd), "degraded");
    EXPECT_TRUE(app().hazards().empty());
}

// A power-down while the array rebuilds is refused and changes nothing; a
// power-up with the store stopped leaves it stopped.
TEST_P(Failures, ARebuildingArrayRefusesAndAStoppedStoreStaysStopped)
{
    openLock3();
    replace3(Shelf::NewProduct);
    sim::dspSetSwitch(app().control(), 3, false, false);
    TavString buffer;
    ASSERT_EQ(ondraIf.processStop(buffer, 0), 0);
    ASSERT_FALSE(app().storeRunning());
    // A slow rebuild, so that it is still running when the drive is asked to go.
    const int fd = plat::open("/proc/sys/dev/raid/speed_limit_max", O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(plat::write(fd, "100\n", 4), 4);
    plat::close(fd);

    EXPECT_EQ(bus().powerUp(3), 0);
    EXPECT_FALSE(app().storeRunning());
    ASSERT_EQ(app().member(kDataMd, 3), "rebuilding");
    const size_t charon = app().charonRequests().size(), powers = powerCommands(app().dspCommands()).size();
    EXPECT_EQ(bus().powerDown(3, false), 9);
    EXPECT_EQ(app().charonRequests().size(), charon);
    EXPECT_EQ(powerCommands(app().dspCommands()).size(), powers);
    EXPECT_EQ(app().member(kDataMd, 3), "rebuilding");
    ASSERT_TRUE(app().waitIdle(false));
    EXPECT_TRUE(app().inRaid(3));
    EXPECT_FALSE(app().storeRunning());
}

INSTANTIATE_TEST_SUITE_P(OneU, Failures, testing::Values(1), [](const testing::TestParamInfo<int>& i) {
    return "Platform" + std::to_string(i.param);
});

INSTANTIATE_TEST_SUITE_P(OneU, HotSwap, testing::Values(1, 4), [](const testing::TestParamInfo<int>& i) {
    return "Platform" + std::to_string(i.param);
});

} // namespace
} // namespace hotswaptest

// The NVRAM card classes: the texts of the common face, the HP controller's
// cache read through the simulated array tool, and the RQDC card read through
// its library on the simulated card.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "driveutils/tav_hp_nvram.h"
#include "driveutils/tav_nvram.h"
#include "driveutils/tav_rqdc_nvram.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavsysutils.h"
#include "sim/hp_cli.h"
#include "sim/nvram.h"
#include "sim_fixture.h"

using RaidDeviceMgmt::TavHPNVRam;
using RaidDeviceMgmt::TavNVRam;

namespace {

// A card whose state, overdue answer and battery are set by the test.
class FixedCard : public TavNVRam {
public:
    FixedCard() : TavNVRam(0, "") {}
    using TavNVRam::getBatteryVoltage;
    int getDriverVersion(std::string&) override { return 0; }
    int getHWVersion(std::string&) override { return 0; }
    int getFWVersion(std::string&) override { return 0; }
    int getMemorySize(std::string&) override { return 0; }
    int getSerialNo(unsigned int*, std::string&) override { return 0; }
    int getSerialNoString(std::string&) override { return 0; }
    int getBatteryVoltage(float& v, std::string& error) override
    {
        v = volts;
        error = batteryOk ? "" : "no battery";
        return batteryOk ? 0 : 1;
    }
    int getModel(std::string&) override { return 0; }
    int getValidity(std::string&) override { return 0; }
    NVRamStatus getState() override { return static_cast<NVRamStatus>(state); }
    BBUCapacityTestOverdue getBBUCapacityTestOverdue() override
    {
        return overdueValue < 0 ? TavNVRam::getBBUCapacityTestOverdue() : static_cast<BBUCapacityTestOverdue>(overdueValue);
    }

    int state = 0;
    int overdueValue = -1;  // -1: the base answer
    float volts = 0;
    bool batteryOk = true;
};

TEST(NVRamTexts, StateAndOverdueTextsWithValuesOutsideTheirTables)
{
    FixedCard card;
    std::string text;
    const char* states[] = {"unknown", "foreign", "normal", "corrupt", "unavailable", "unknown"};
    for (int s = 0; s <= 5; ++s) {
        card.state = s;
        EXPECT_EQ(card.getStateString(text), 0);
        EXPECT_EQ(text, states[s]) << "state " << s;
    }
    card.state = -1;
    card.getStateString(text);
    EXPECT_EQ(text, "unknown");

    EXPECT_EQ(card.getBBUCapacityTestOverdueString(text), 0);
    EXPECT_EQ(text, "unsupported") << "the base answer";
    const char* overdue[] = {"up_to_date", "overdue", "unsupported", "unsupported"};
    for (int o = 0; o <= 3; ++o) {
        card.overdueValue = o;
        card.getBBUCapacityTestOverdueString(text);
        EXPECT_EQ(text, overdue[o]) << "value " << o;
    }
}

TEST(NVRamTexts, BatteryVoltageText)
{
    FixedCard card;
    std::string text, error;
    card.volts = 3.256f;
    EXPECT_EQ(card.getBatteryVoltage(text, error), 0);
    EXPECT_EQ(text, "3.26 Volts");
    card.batteryOk = false;
    EXPECT_NE(card.getBatteryVoltage(text, error), 0);
    EXPECT_EQ(text, "N/A");
    EXPECT_EQ(error, "no battery");
}

TEST(NVRamTexts, LastCardConstructedSetsTheCardType)
{
    EXPECT_EQ(TavNVRam::getNVRamCardType(), TavNVRam::NVRAM_CARD_NONE);
    TavHPNVRam hp(0);
    EXPECT_EQ(TavNVRam::getNVRamCardType(), TavNVRam::NVRAM_CARD_HP);
    EXPECT_EQ(hp.getFile(), "");
}

// A module of `platform` without drives, hosted in this process.
struct Hosted {
    simtest::TempModule m;
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;

    explicit Hosted(int id) : m(id, false)
    {
        sim::CreateOptions o;
        o.platform = id;
        o.identityOnly = true;
        EXPECT_EQ(sim::createModule(m.dir(), o), "");
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
    }
    sim::Module& module() { return platform->module(); }
    void set(const std::string& label, const std::string& value)
    {
        EXPECT_EQ(sim::hpCliSet(module(), label, value), "");
    }
    // A typical controller of slot 0.
    void controller()
    {
        set("Bus Interface", "PCI");
        set("Serial Number", "P61620F9SUP0FG");
        set("Cache Serial Number", "P98690G9SVA0BE");
        set("Cache serialnumber", "PA82C0H9SUV5CG");
        set("Controller Status", "OK");
        set("Hardware Revision", "Rev D");
        set("Firmware Version", "1.18");
        set("Cache Board Present", "True");
        set("Cache Status", "OK");
        set("Total Cache Size", "256 MB");
        set("Battery/Capacitor Count", "1");
    }
};

struct Values {
    std::string driver, hw, fw, memory, serial, model, validity, battery;
};

Values read(TavHPNVRam& card)
{
    Values v;
    std::string error;
    EXPECT_EQ(card.getDriverVersion(v.driver), 0);
    EXPECT_EQ(card.getHWVersion(v.hw), 0);
    EXPECT_EQ(card.getFWVersion(v.fw), 0);
    EXPECT_EQ(card.getMemorySize(v.memory), 0);
    EXPECT_EQ(card.getSerialNoString(v.serial), 0);
    EXPECT_EQ(card.getModel(v.model), 0);
    EXPECT_EQ(card.getValidity(v.validity), 0);
    EXPECT_NE(card.getBatteryVoltage(v.battery, error), 0);
    return v;
}

TEST(HPNVRam, AnswersFromTheControllerOfModelTen)
{
    Hosted h(10);
    h.controller();
    TavHPNVRam card(0);
    Values v = read(card);
    EXPECT_EQ(v.hw, "Rev D");
    EXPECT_EQ(v.fw, "1.18");
    EXPECT_EQ(v.memory, "262144") << "the size's number shifted left 10";
    EXPECT_EQ(v.serial, "PA82C0H9SUV5CG") << "the label is matched as it is spelled";
    EXPECT_EQ(v.driver, "N/A");
    EXPECT_EQ(v.model, "N/A");
    EXPECT_EQ(v.validity, "true");
    EXPECT_EQ(v.battery, "N/A");
    EXPECT_EQ(card.getState(), TavNVRam::normal);

    std::string log = h.module().readState("commands.log");
    EXPECT_NE(log.find(" popen 0 /usr/sbin/hpacucli ctrl slot=0 show | grep \"Firmware Version\"\n"), std::string::npos)
        << log;
}

TEST(HPNVRam, CacheErrorMessageMakesItCorrupt)
{
    Hosted h(10);
    h.controller();
    TavHPNVRam card(0);
    const std::string message = "A cache error was detected. Run Array Diagnostic Utity";
    h.set("Controller Messages", "Warning: " + message + " now");
    tavGlobalDebugLevel = 10;
    testing::internal::CaptureStderr();
    EXPECT_EQ(card.getState(), TavNVRam::corrupt);
    std::string err = testing::internal::GetCapturedStderr();
    tavGlobalDebugLevel = 0;
    EXPECT_NE(err.find("### value:Warning: " + message + " now"), std::string::npos) << err;

    h.set("Controller Messages", "A cache error was detected. Run Array Diagnostic Utility");
    EXPECT_EQ(card.getState(), TavNVRam::normal) << "only the text as the controller spells it";
}

TEST(HPNVRam, ValueIsBoundedAndKeptWhenTheControllerGoes)
{
    Hosted h(10);
    h.controller();
    TavHPNVRam card(0);
    const std::string longValue(300, 'x');
    h.set("Firmware Version", longValue);
    char value[TavHPNVRam::kValueSize + 2];
    std::memset(value, '#', sizeof value);
    EXPECT_EQ(card.getFWVersionAPI(value), 0);
    EXPECT_EQ(std::string(value), longValue.substr(0, 128));
    EXPECT_EQ(value[TavHPNVRam::kValueSize + 1], '#') << "nothing written past the 129 bytes";

    h.set("Hardware Revision", "");
    EXPECT_EQ(card.getHWVersionAPI(value), 0);
    EXPECT_STREQ(value, "") << "an empty value stays inside its line";
    EXPECT_EQ(card.getControllerPramAPI("No Such Label", value), -1) << "grep finds nothing";
    EXPECT_EQ(card.getControllerPramAPI(nullptr, value), -1);
    EXPECT_EQ(card.getControllerPramAPI("Cache Status", nullptr), -1);

    h.set("Firmware Version", "2.00");
    std::string text;
    card.getFWVersion(text);
    EXPECT_EQ(text, "2.00");
    sim::hpCliRemove(h.module());
    EXPECT_EQ(card.getFWVersion(text), 0);
    EXPECT_EQ(text, "2.00") << "a failed refresh keeps the last value";
    EXPECT_EQ(card.getState(), TavNVRam::unavailable);
}

TEST(HPNVRam, TavsimSetsAndRemovesTheController)
{
    Hosted h(10);
    EXPECT_EQ(simtest::callTavsim({"hp", h.m.dir(), "set", "Cache Status=OK", "Total Cache Size=512 MB"}), 0);
    TavHPNVRam card(0);
    std::string text;
    card.getMemorySize(text);
    EXPECT_EQ(text, "524288");
    EXPECT_EQ(card.getState(), TavNVRam::normal);
    EXPECT_EQ(simtest::callTavsim({"hp", h.m.dir(), "set", "Cache Status"}), 2) << "no value";
    EXPECT_EQ(simtest::callTavsim({"hp", h.m.dir(), "remove"}), 0);
    EXPECT_EQ(card.getState(), TavNVRam::unavailable);
    EXPECT_EQ(simtest::callTavsim({"hp", h.m.dir()}), 1) << "the tool finds no controller";
}

TEST(HPNVRam, OtherModelGivesEveryDefault)
{
    Hosted h(2);
    h.controller();  // a controller answers, but this is not its model
    TavHPNVRam card(0);
    Values v = read(card);
    EXPECT_EQ(v.driver, "N/A");
    EXPECT_EQ(v.hw, "unknown");
    EXPECT_EQ(v.fw, "unknown");
    EXPECT_EQ(v.memory, "unknown");
    EXPECT_EQ(v.serial, "N/A");
    EXPECT_EQ(v.model, "N/A");
    EXPECT_EQ(v.validity, "true");
    EXPECT_EQ(v.battery, "N/A");
    EXPECT_EQ(card.getState(), TavNVRam::unavailable);
    EXPECT_EQ(h.module().readState("commands.log").find("hpacucli"), std::string::npos) << "the tool is never run";
}

// ---- the RQDC card ----

constexpr const char* kMissing = "RQDC card /dev/tav_nvram0 cannot be opened. Call customer support for assistance.";
constexpr const char* kBroken = "RQDC card /dev/tav_nvram0 is not working. Call customer support for assistance.";

// A module of platform 2, whose card's serial number hwlist.conf names, with
// the drive manager's list of required cards read from it.
struct CardModule : Hosted {
    explicit CardModule(int id = 2) : Hosted(id)
    {
        TavDriveMgr::requiredNVRamCards = TavDriveMgr::initRequiredNVRamCards();
    }
    ~CardModule()
    {
        delete TavDriveMgr::requiredNVRamCards;
        TavDriveMgr::requiredNVRamCards = nullptr;
    }
    void change(const std::function<void(sim::NvramCard&)>& f) { sim::nvramUpdate(module(), f); }
};

// The card's register pages mapped into this process.
size_t registerMappings()
{
    std::ifstream maps("/proc/self/maps");
    size_t n = 0;
    for (std::string line; std::getline(maps, line);)
        if (line.find("nvram0/registers") != std::string::npos) ++n;
    return n;
}

size_t openDescriptors()
{
    size_t n = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd"); it != std::filesystem::directory_iterator(); ++it)
        ++n;
    return n;
}

TEST(RqdcNVRam, RequiredCardIsNormalAndAnswersItsStatus)
{
    CardModule h;
    ASSERT_TRUE(h.m.get("/etc/marrowby/hwlist.conf").find("PCI:NVRAM:rqdc:" + std::to_string(sim::kNvramDefaultSerial)) !=
                std::string::npos);
    h.change([](sim::NvramCard& c) {
        c.setReg(0xa0, 0x00030002);  // card 3.2
        c.setReg(0x70, 0x00050104);  // FPGA 5.260
    });
    RaidDeviceMgmt::TavRqdcNVRam card(0);
    EXPECT_EQ(card.getFile(), "/dev/tav_nvram0");
    EXPECT_EQ(TavNVRam::getNVRamCardType(), TavNVRam::NVRAM_CARD_RQDC);

    std::string text;
    EXPECT_EQ(card.getState(), TavNVRam::normal);
    EXPECT_EQ(card.getDriverVersion(text), 0);
    EXPECT_EQ(text, "2.22");
    EXPECT_EQ(card.getHWVersion(text), 0);
    EXPECT_EQ(text, "3.2");
    EXPECT_EQ(card.getFWVersion(text), 0);
    EXPECT_EQ(text, "5.260");
    EXPECT_EQ(card.getMemorySize(text), 0);
    EXPECT_EQ(text, "1024.0") << "2048-byte pages, 512 of them, in KiB";
    EXPECT_EQ(card.getSerialNoString(text), 0);
    EXPECT_EQ(text, std::to_string(sim::kNvramDefaultSerial));
    EXPECT_EQ(card.getValidity(text), 0);
    EXPECT_EQ(text, "empty");
    EXPECT_EQ(card.getModel(text), 0);
    EXPECT_EQ(text, "Marrowby Networks RQDC Card");
    std::string error;
    EXPECT_EQ(card.getBatteryVoltage(text, error), 0);
    EXPECT_NE(text.find(" Volts"), std::string::npos) << text;
}

TEST(RqdcNVRam, CardOfAnotherSerialIsForeign)
{
    CardModule h;
    sim::nvramSetEeprom(h.module(), 0, 1234567u);
    RaidDeviceMgmt::TavRqdcNVRam card(0);
    EXPECT_EQ(card.getState(), TavNVRam::foreign);
    std::string text;
    card.getSerialNoString(text);
    EXPECT_EQ(text, std::to_string(1234567u));
}

TEST(RqdcNVRam, MissingCardGivesTheOperatorsSentences)
{
    CardModule h(1);  // platform 1 has no card
    RaidDeviceMgmt::TavRqdcNVRam card(0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(card.getState(), TavNVRam::unknown);
    std::string text, error;
    EXPECT_NE(card.getDriverVersion(text), 0);
    EXPECT_EQ(text, kMissing);
    unsigned int serial = 7;
    EXPECT_NE(card.getSerialNo(&serial, error), 0);
    EXPECT_EQ(error, kMissing);
    EXPECT_EQ(serial, 7u);
    EXPECT_NE(card.getBatteryVoltage(text, error), 0);
    EXPECT_EQ(text, "N/A");
    EXPECT_EQ(error, kMissing);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.find("RQDC card /dev/tav_nvram0 cannot be opened tav_rqdc_nvram.cpp:"), 0u) << log;
}

TEST(RqdcNVRam, CardThatCannotBeReadIsNotWorking)
{
    CardModule h;
    h.change([](sim::NvramCard& c) { c.faults.eepromTimeout = true; });
    RaidDeviceMgmt::TavRqdcNVRam card(0);
    testing::internal::CaptureStderr();
    std::string text;
    EXPECT_NE(card.getValidity(text), 0);
    EXPECT_EQ(text, kBroken);
    EXPECT_EQ(card.getState(), TavNVRam::unknown);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("RQDC card /dev/tav_nvram0 isn't working tav_rqdc_nvram.cpp:"), std::string::npos) << log;
}

TEST(RqdcNVRam, RefusedSlotLeaksNoDescriptorNorMapping)
{
    CardModule h;
    h.change([](sim::NvramCard& c) { c.faults.slot33 = true; });
    RaidDeviceMgmt::TavRqdcNVRam card(0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(card.getState(), TavNVRam::unknown);  // the first query opens what stays open for good
    const size_t before = openDescriptors();
    const size_t mapped = registerMappings();
    std::string text;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(card.getState(), TavNVRam::unknown);
        EXPECT_NE(card.getSerialNoString(text), 0);
    }
    const size_t after = openDescriptors();
    const size_t mappedAfter = registerMappings();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(text, kMissing);
    EXPECT_EQ(after, before);
    EXPECT_EQ(mapped, 0u);
    EXPECT_EQ(mappedAfter, 0u);
}

} // namespace

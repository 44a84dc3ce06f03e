// The NVRAM card classes: the texts of the common face, the HP controller's
// cache read through the simulated array tool, and the RQDC card read through
// its library on the simulated card.
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "driveutils/tav_hp_nvram.h"
#include "driveutils/tav_nvram.h"
#include "driveutils/tavsysutils.h"
#include "sim/hp_cli.h"
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

} // namespace

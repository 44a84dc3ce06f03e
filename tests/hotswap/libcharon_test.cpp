// libcharon against the simulated hot-swap driver: the request and record
// each call sends, the codes it gives back, and its failures.
#include <cerrno>
#include <climits>
#include <memory>

#include "hotswap/libcharon.h"
#include "sim/charon.h"
#include "sim/faults.h"
#include "sim/sim_fixture.h"

using namespace simtest;

namespace {

const std::string kAt = "1136073600 ";  // the virtual clock of a new module

struct Unit {
    TempModule m;
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;

    explicit Unit(int id = 1) : m(id)
    {
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
    }
    sim::CharonState state() { return sim::charonState(platform->module()); }
    std::string log() { return platform->module().readState("charon.log"); }
};

std::string line(const std::string& text) { return kAt + text + "\n"; }

} // namespace

TEST(Libcharon, EachCallSendsItsRequestAndRecord)
{
    Unit u;
    EXPECT_EQ(charon_deactivate_if(1), 0);
    EXPECT_EQ(charon_activate_if(1), 0);
    EXPECT_EQ(charon_deactivate_dev(0, 1), 0);
    EXPECT_EQ(charon_activate_dev(0, 1), 0);
    EXPECT_EQ(charon_debug_on(), 0);
    EXPECT_TRUE(u.state().debug);
    EXPECT_EQ(charon_debug_off(), 0);
    EXPECT_FALSE(u.state().debug);
    EXPECT_EQ(u.log(),
              line("request 161 (deactivate-if) uInterface=1 uDevice=0xfffffff iReturnCode=0 -> 0") +
                  line("request 160 (activate-if) uInterface=1 uDevice=0xfffffff iReturnCode=0 -> 0") +
                  line("request 209 (deactivate-dev) uInterface=0 uDevice=0x1 iReturnCode=0 -> 0") +
                  line("request 208 (activate-dev) uInterface=0 uDevice=0x1 iReturnCode=0 -> 0") +
                  line("request 21 (debug-on) -> 0") + line("request 22 (debug-off) -> 0"));

    // The debug level opens nothing: the open fault armed is left for the next call.
    const std::string before = u.log();
    u.platform->arm(sim::Fault::failing(sim::Op::Open, "/dev/charon", 1, ENOENT));
    EXPECT_EQ(charon_get_debuglevel(), 0);
    EXPECT_EQ(u.log(), before);
    EXPECT_EQ(charon_debug_on(), -1);
    EXPECT_EQ(charon_debug_on(), 0);
}

TEST(Libcharon, DetachTwiceGivesMinusThreeAndAttachRescans)
{
    Unit u(3);
    EXPECT_EQ(charon_deactivate_if(0), 0);
    EXPECT_EQ(charon_deactivate_if(0), -3);
    sim::CharonState s = u.state();
    EXPECT_FALSE(s.interfaces[0].active);
    EXPECT_EQ(s.interfaces[0].devices, std::vector<bool>({false, false}));
    EXPECT_TRUE(s.interfaces[1].active);

    // A device of a detached interface is down already and cannot come alone.
    EXPECT_EQ(charon_deactivate_dev(0, 1), -3);
    EXPECT_EQ(charon_activate_dev(0, 1), -ENXIO);
    EXPECT_EQ(charon_activate_if(0), 0);
    EXPECT_EQ(charon_activate_if(0), 0);  // a rescan again
    // The rescan finds the drive on target 0; platform 3 has none on target 1.
    EXPECT_EQ(u.state().interfaces[0].devices, std::vector<bool>({true, false}));

    EXPECT_EQ(charon_deactivate_dev(1, 0), 0);
    EXPECT_EQ(charon_deactivate_dev(1, 0), -3);
    s = u.state();
    EXPECT_TRUE(s.interfaces[1].active);
    EXPECT_EQ(s.interfaces[1].devices, std::vector<bool>({false, true}));
    EXPECT_EQ(charon_activate_dev(1, 0), 0);
    EXPECT_EQ(u.state().interfaces[1].devices, std::vector<bool>({true, true}));
}

TEST(Libcharon, InterfacesAndDevicesThatDoNotExistGiveNegativeCodes)
{
    Unit u;
    EXPECT_LT(charon_deactivate_if(2), 0);
    EXPECT_LT(charon_activate_if(-1), 0);
    EXPECT_LT(charon_deactivate_dev(0, 2), 0);
    EXPECT_LT(charon_activate_dev(7, 0), 0);
    for (const sim::CharonInterface& i : u.state().interfaces) {
        EXPECT_TRUE(i.active);
        EXPECT_EQ(i.devices, std::vector<bool>({true, true}));
    }
    EXPECT_NE(u.log().find("uInterface=4294967295 uDevice=0xfffffff iReturnCode=0 -> -19"), std::string::npos);
}

TEST(Libcharon, FailedOpenGivesMinusOneAndFailedRequestMinusE2big)
{
    Unit u;
    u.platform->arm(sim::Fault::failing(sim::Op::Open, "/dev/charon", 1, EACCES, 6));
    EXPECT_EQ(charon_activate_if(0), -1);
    EXPECT_EQ(charon_deactivate_if(0), -1);
    EXPECT_EQ(charon_activate_dev(0, 0), -1);
    EXPECT_EQ(charon_deactivate_dev(0, 0), -1);
    EXPECT_EQ(charon_debug_on(), -1);
    EXPECT_EQ(charon_debug_off(), -1);

    u.platform->arm(sim::Fault::failing(sim::Op::Ioctl, "/dev/charon", 1, EIO, 6));
    EXPECT_EQ(charon_activate_if(0), -E2BIG);
    EXPECT_EQ(charon_deactivate_if(0), -E2BIG);
    EXPECT_EQ(charon_activate_dev(0, 0), -E2BIG);
    EXPECT_EQ(charon_deactivate_dev(0, 0), -E2BIG);
    EXPECT_EQ(charon_debug_on(), -E2BIG);
    EXPECT_EQ(charon_debug_off(), -E2BIG);
    EXPECT_EQ(u.log(), "");
    EXPECT_TRUE(u.state().interfaces[0].active);

    // Each call closes its descriptor: far more calls than descriptors a process has.
    for (int i = 0; i < 1500; ++i) ASSERT_EQ(charon_debug_off(), 0) << "call " << i;
}

TEST(Libcharon, NoNodeOnAModuleWithoutIdeInterfaces)
{
    TempModule m(2, false);
    ASSERT_EQ(createIdentityOnly(m, 2), "");
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    EXPECT_EQ(charon_deactivate_if(0), -1);
    EXPECT_EQ(charon_debug_on(), -1);
}

TEST(Libcharon, InjectedCodesArePassedOnAsTheyAre)
{
    Unit u;
    sim::Module& mod = u.platform->module();
    sim::charonInject(mod, 0, 161, INT_MIN);
    sim::charonInject(mod, 1, 208, INT_MAX, 2);
    sim::charonInject(mod, 0, 209, -E2BIG);
    sim::charonInject(mod, 1, 160, 3);
    EXPECT_EQ(charon_deactivate_if(1), 0);  // another interface: not matched
    EXPECT_EQ(charon_deactivate_if(0), INT_MIN);
    EXPECT_TRUE(u.state().interfaces[0].active);  // an injected code does nothing
    EXPECT_EQ(charon_deactivate_if(0), 0);  // spent
    EXPECT_EQ(charon_activate_dev(1, 0), INT_MAX);
    EXPECT_EQ(charon_activate_dev(1, 5), INT_MAX);  // answered before the device is looked at
    EXPECT_EQ(charon_activate_dev(1, 0), -ENXIO);
    EXPECT_EQ(charon_deactivate_dev(0, 0), -E2BIG);
    EXPECT_EQ(charon_activate_if(1), 3);
    EXPECT_FALSE(u.state().interfaces[1].active);
    EXPECT_TRUE(u.state().injections.empty());
    EXPECT_NE(u.log().find(line("request 161 (deactivate-if) uInterface=0 uDevice=0xfffffff iReturnCode=0 -> -2147483648 injected")),
              std::string::npos);
}

TEST(Libcharon, TwoPlatformsOnOneModuleShareTheDriver)
{
    Unit u;
    sim::SimPlatform other(u.m.dir());
    EXPECT_EQ(charon_deactivate_if(0), 0);
    {
        plat::ScopedPlatform scope(other);
        EXPECT_EQ(charon_deactivate_if(0), -3);
        EXPECT_EQ(charon_debug_on(), 0);
        sim::charonInject(other.module(), 1, 209, 42);
    }
    EXPECT_TRUE(u.state().debug);
    EXPECT_EQ(charon_deactivate_dev(1, 1), 42);
}

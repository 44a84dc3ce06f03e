// The hot-swap driver of the simulated module as a program meets it through
// the platform (raw requests, not the system's library), its state file read
// as outside input, and tavsim charon.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/sysmacros.h>

#include "sim/charon.h"
#include "sim/charon_state.h"
#include "sim_fixture.h"

using namespace simtest;
using sim::charon::Record;

namespace {

struct Unit {
    TempModule m;
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;
    int fd = -1;

    explicit Unit(int id = 1) : m(id)
    {
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
        fd = plat::open(sim::kCharonNode, O_RDONLY);
        EXPECT_GE(fd, 0);
    }
    ~Unit() { plat::close(fd); }
    sim::Module& module() { return platform->module(); }
    // iReturnCode of a request; the ioctl itself must succeed.
    int request(unsigned long r, uint32_t iface, uint32_t device, int32_t sent = 0)
    {
        Record rec{iface, device, sent};
        EXPECT_EQ(plat::ioctl(fd, r, &rec), 0);
        return rec.iReturnCode;
    }
    std::string log() { return module().readState("charon.log"); }
};

std::string run(const std::string& args)
{
    FILE* f = ::popen((std::string(TAVSIM_BINARY) + " " + args + " 2>&1").c_str(), "r");
    std::string out;
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    const int status = ::pclose(f);
    return std::to_string(WEXITSTATUS(status)) + ":" + out;
}

} // namespace

TEST(Charon, NodeOfTheIdePlatformsOnly)
{
    for (int id : {1, 3, 4}) {
        Unit u(id);
        struct ::stat st {};
        ASSERT_EQ(plat::stat(sim::kCharonNode, &st), 0);
        EXPECT_TRUE(S_ISCHR(st.st_mode));
        EXPECT_EQ(st.st_rdev, gnu_dev_makedev(sim::kCharonMajor, sim::kCharonMinor));
        char c = 0;
        EXPECT_EQ(plat::read(u.fd, &c, 1), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(sim::charonState(u.module()).interfaces.size(), 2u);
    }
    TempModule m(2, false);
    ASSERT_EQ(createIdentityOnly(m, 2), "");
    sim::SimPlatform p(m.dir());
    plat::ScopedPlatform scope(p);
    EXPECT_EQ(plat::open(sim::kCharonNode, O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(sim::charonPresent(p.module()));
    EXPECT_THROW(sim::charonInject(p.module(), 0, 161, 1), std::runtime_error);
}

TEST(Charon, RequestsTheDriverRefuses)
{
    Unit u;
    Record r{0, sim::charon::kWholeInterface, 0};
    EXPECT_EQ(plat::ioctl(u.fd, 99, &r), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(plat::ioctl(u.fd, 0x100 | sim::charon::kDeactivateIf, &r), -1);  // no request but by its number
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(plat::ioctl(u.fd, sim::charon::kActivateIf, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    // An interface request wants 28 bits of device, not 32.
    EXPECT_EQ(u.request(sim::charon::kDeactivateIf, 0, 0xFFFFFFFF), -EINVAL);
    EXPECT_EQ(u.request(sim::charon::kDeactivateIf, 0, 0), -EINVAL);
    EXPECT_TRUE(sim::charonState(u.module()).interfaces[0].active);
    // The record is logged as it came, its code written back.
    EXPECT_EQ(u.request(sim::charon::kDeactivateDev, 1, 1, 77), 0);
    EXPECT_EQ(u.log(), "1136073600 request 99 refused: ENOTTY\n"
                       "1136073600 request 417 refused: ENOTTY\n"
                       "1136073600 request 160 (activate-if) refused: EFAULT\n"
                       "1136073600 request 161 (deactivate-if) uInterface=0 uDevice=0xffffffff iReturnCode=0 -> -22\n"
                       "1136073600 request 161 (deactivate-if) uInterface=0 uDevice=0x0 iReturnCode=0 -> -22\n"
                       "1136073600 request 209 (deactivate-dev) uInterface=1 uDevice=0x1 iReturnCode=77 -> 0\n");
    // The log follows the virtual clock.
    u.module().advance(5000000);
    EXPECT_EQ(plat::ioctl(u.fd, sim::charon::kDebugOn), 0);
    EXPECT_NE(u.log().find("1136073605 request 21 (debug-on) -> 0\n"), std::string::npos);
}

TEST(Charon, InjectedCodesAreSpentInTheOrderArmed)
{
    Unit u;
    using namespace sim::charon;
    sim::charonInject(u.module(), 0, kDeactivateIf, 5, 2);
    sim::charonInject(u.module(), 0, kDeactivateIf, 6, -1);
    EXPECT_EQ(u.request(kDeactivateIf, 0, kWholeInterface), 5);
    EXPECT_EQ(u.request(kDeactivateIf, 0, kWholeInterface), 5);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(u.request(kDeactivateIf, 0, kWholeInterface), 6);
    EXPECT_EQ(u.request(kActivateIf, 0, kWholeInterface), 0);  // another request
    EXPECT_EQ(sim::charonState(u.module()).injections.size(), 1u);
    EXPECT_EQ(sim::charonClearInjections(u.module()), 1u);
    EXPECT_EQ(u.request(kDeactivateIf, 0, kWholeInterface), 0);
    EXPECT_EQ(u.request(kDeactivateIf, 0, kWholeInterface), kAlreadyDown);

    EXPECT_THROW(sim::charonInject(u.module(), 2, kDeactivateIf, 1), std::out_of_range);
    EXPECT_THROW(sim::charonInject(u.module(), 0, kDebugOn, 1), std::invalid_argument);
    EXPECT_THROW(sim::charonInject(u.module(), 0, kDeactivateIf, 1, 0), std::invalid_argument);
    EXPECT_THROW(sim::charonInject(u.module(), 0, kDeactivateIf, 1, -2), std::invalid_argument);
}

TEST(Charon, StateFileIsOutsideInput)
{
    sim::CharonState s = sim::freshCharon();
    s.interfaces[1].active = false;
    s.interfaces[1].devices = {false, true};
    s.debug = true;
    s.injections.push_back({1, 209, INT_MIN, -1});
    s.injections.push_back({0, 160, INT_MAX, 3});
    const std::string text = s.format();
    EXPECT_EQ(text, "debug 1\ninterface 0 active active active\ninterface 1 detached detached active\n"
                    "inject 1 209 -2147483648 -1\ninject 0 160 2147483647 3\n");
    sim::CharonState again;
    std::string why;
    ASSERT_TRUE(sim::CharonState::parse(text, again, why)) << why;
    EXPECT_EQ(again.format(), text);

    const char* bad[] = {
        "",                                                                            // nothing
        "debug 0\ninterface 0 active active active\n",                                 // an interface missing
        "debug 0\ninterface 1 active active active\ninterface 0 active active active\n",  // out of order
        "debug 0\ninterface 0 active active active\ninterface 0 active active active\n",
        "debug 2\ninterface 0 active active active\ninterface 1 active active active\n",
        "debug 0\ninterface 0 up active active\ninterface 1 active active active\n",
        "debug 0\ninterface 0 active active\ninterface 1 active active active\n",
        "debug 0\ninterface 0 active active active\ninterface 1 active active active\ninject 0 161 2147483648 1\n",
        "debug 0\ninterface 0 active active active\ninterface 1 active active active\ninject 0 161 -3 0\n",
        "debug 0\ninterface 0 active active active\ninterface 1 active active active\ninject 2 161 -3 1\n",
        "debug 0\ninterface 0 active active active\ninterface 1 active active active\ninject 0 161 -03 1\n",
    };
    for (const char* b : bad) {
        sim::CharonState out = s;
        EXPECT_FALSE(sim::CharonState::parse(b, out, why)) << b;
        EXPECT_EQ(out.format(), text) << "untouched";
    }

    // A driver whose file cannot be read starts afresh, and works.
    Unit u;
    u.module().writeState("charon", "interface 0 gone\n");
    EXPECT_EQ(u.request(sim::charon::kDeactivateIf, 1, sim::charon::kWholeInterface), 0);
    EXPECT_EQ(u.module().readState("charon"),
              "debug 0\ninterface 0 active active active\ninterface 1 detached detached detached\n");
}

TEST(Charon, TavsimShowsAndInjectsAcrossProcesses)
{
    Unit u;
    const std::string dir = u.m.dir();
    EXPECT_EQ(u.request(sim::charon::kDeactivateIf, 1, sim::charon::kWholeInterface), 0);
    EXPECT_EQ(run("charon " + dir + " fail 0 209 -2147483648 times=2"),
              "0:request 209 (deactivate-dev) on interface 0 answers -2147483648, 2 times; the request does nothing "
              "meanwhile\n");
    EXPECT_EQ(u.request(sim::charon::kDeactivateDev, 0, 1), INT_MIN);

    const std::string shown = run("charon " + dir);
    EXPECT_NE(shown.find("1          host0/bus1  detached  detached  detached\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("0          209      -2147483648  1\n"), std::string::npos) << shown;
    const std::string json = run("charon " + dir + " --json");
    EXPECT_NE(json.find("\"code\": -2147483648,\n      \"times\": 1"), std::string::npos) << json;
    EXPECT_EQ(run("charon " + dir + " fail --clear"), "0:dropped 1 injected code\n");
    EXPECT_EQ(run("log " + dir + " --charon").substr(0, 2), "0:");
    EXPECT_NE(run("log " + dir + " --charon").find("-> -2147483648 injected"), std::string::npos);

    // Bad command lines name the argument and its range.
    const std::pair<const char*, const char*> usage[] = {
        {" fail 2 161 1", "IF 2: out of range 0 to 1"},
        {" fail 0 21 1", "REQUEST 21: give 160, 161, 208 or 209"},
        {" fail 0 161 2147483648", "CODE 2147483648: give a decimal int, -2147483648 to 2147483647"},
        {" fail 0 161 -2147483649", "CODE -2147483649: give a decimal int"},
        {" fail 0 161 1 times=0", "times 0: out of range 1 to 2147483647, or -1 without end"},
        {" fail 0 161", "fail: give IF REQUEST CODE [times=K], or --clear"},
        {" fail 0 161 1 --clear", "--clear goes alone"},
        {" fail --json", "--json goes with the state"},
        {" show", "unexpected argument show"},
    };
    for (const auto& [args, why] : usage) {
        const std::string out = run("charon " + dir + args);
        EXPECT_EQ(out.substr(0, 2), "2:") << args << out;
        EXPECT_NE(out.find(why), std::string::npos) << args << out;
    }
    TempModule none(2, false);
    ASSERT_EQ(createIdentityOnly(none, 2), "");
    EXPECT_EQ(run("charon " + none.dir()).substr(0, 2), "1:");
    EXPECT_EQ(run("charon " + dir + " --help").substr(0, 2), "0:");
}

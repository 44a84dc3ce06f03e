// tavsim services: the daemons' service commands run in one process on a
// module, the daemons they start real scripts. The comm object binds its
// fixed loopback ports, so these tests hold the ports' resource lock.
#include <sstream>

#include "sim_fixture.h"
#include "sim/daemons.h"
#include "sim/manager_programs.h"

using namespace simtest;
using sim::textLines;

namespace {

// A JSON text without the blanks and newlines between its tokens.
std::string compact(const std::string& json)
{
    std::string out;
    bool inString = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (inString && c == '\\' && i + 1 < json.size()) {
            out += c;
            out += json[++i];
            continue;
        }
        if (c == '"') inString = !inString;
        if (inString || (c != ' ' && c != '\n')) out += c;
    }
    return out;
}

// "TYPE MODE" of each start in the daemons' log, in order.
std::vector<std::string> startOrder(const sim::Module& mod)
{
    std::vector<std::string> out;
    for (const sim::DaemonStart& s : sim::daemonStarts(mod)) {
        const std::string name = s.argv[0].substr(s.argv[0].rfind('/') + 1);
        out.push_back(name + " " + (s.argv.size() > 2 ? s.argv[2] : std::string("?")));
    }
    return out;
}

class Services : public testing::Test {
protected:
    Services() : mod_(m_.dir())
    {
        EXPECT_EQ(tavsim({"daemons", m_.dir(), "install"}).status, 0);
    }
    ~Services() override { sim::killDaemons(mod_); }

    TempModule m_{};
    sim::Module mod_;
};

TEST_F(Services, AUnitsLifeInOneSequence)
{
    EXPECT_EQ(tavsim({"daemons", m_.dir(), "database", "sys42", "0123abcd"}).status, 0);
    const Captured r = tavsim({"services", m_.dir(), "--json", "run", "initModData", "eth0", "5", "join", "store1/sys42",
                               "managerStart", "store1/sys42/mgr1/first", "virtualmanagerStart",
                               "store1/sys42/vmgr1/0123abcd", "getRun", "store", "getRun", "2", "writeUdpArgs",
                               "--port\n7\n", "getMd5", "getSystemId", "removeFromSystem", "getSystemId", "getRun",
                               "mgr"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string expected =
        "[{\"command\":\"initModData\",\"args\":[\"eth0\",\"5\"],\"result\":0,\"reply\":\"\"},"
        "{\"command\":\"join\",\"args\":[\"store1/sys42\"],\"result\":0,\"reply\":\"\"},"
        "{\"command\":\"managerStart\",\"args\":[\"store1/sys42/mgr1/first\"],\"result\":0,\"reply\":\"\"},"
        "{\"command\":\"virtualmanagerStart\",\"args\":[\"store1/sys42/vmgr1/0123abcd\"],\"result\":0,\"reply\":\"\"},"
        "{\"command\":\"getRun\",\"args\":[\"store\"],\"result\":0,\"reply\":\"TRUE\"},"
        "{\"command\":\"getRun\",\"args\":[\"2\"],\"result\":0,\"reply\":\"TRUE\"},"
        "{\"command\":\"writeUdpArgs\",\"args\":[\"--port\\n7\\n\"],\"result\":0,\"reply\":\"--port\\n7\\n\"},"
        "{\"command\":\"getMd5\",\"args\":[],\"result\":0,\"reply\":\"0123abcd\"},"
        "{\"command\":\"getSystemId\",\"args\":[],\"result\":0,\"reply\":\"sys42\"},"
        "{\"command\":\"removeFromSystem\",\"args\":[],\"result\":0,\"reply\":\"\"},"
        "{\"command\":\"getSystemId\",\"args\":[],\"result\":0,\"reply\":\"NO_SYSTEM_ID\"},"
        "{\"command\":\"getRun\",\"args\":[\"mgr\"],\"result\":0,\"reply\":\"FALSE\"}]";
    EXPECT_EQ(compact(r.out), expected);
    EXPECT_EQ(startOrder(mod_),
              (std::vector<std::string>{"ondrastore init", "ondrastore daemon", "ondramgr init", "ondramgr daemon",
                                        "ondravmgr init", "ondravmgr daemon", "ondramgr deinit", "ondravmgr deinit",
                                        "ondrastore deinit"}));
    EXPECT_TRUE(sim::liveDaemonPids(mod_).empty());
    EXPECT_NE(mod_.readState("commands.log").find("/etc/marrowby/system/dbd_manager --port 7 --system_id sys42 --list"),
              std::string::npos);
    EXPECT_NE(r.err.find("tavsim services: getMd5 -> 0: 0123abcd"), std::string::npos) << r.err;
}

// The daemons a sequence leaves running are stopped before the process ends;
// a command that gives -1 makes the status 1.
TEST_F(Services, DaemonsLeftRunningAreStoppedAndAFailureIsTheStatus)
{
    Captured r = tavsim({"services", m_.dir(), "run", "initModData", "eth0", "5", "join", "store1/sys42",
                         "managerStart", "store1/sys42/mgr1/sometimes", "getRun", "store"});
    EXPECT_EQ(r.status, 1) << r.err;
    const std::vector<std::string> table = textLines(r.out);
    ASSERT_EQ(table.size(), 5u) << r.out;
    EXPECT_EQ(table[0].substr(0, 4), "STEP");
    EXPECT_NE(table[3].find("-1"), std::string::npos) << table[3];
    EXPECT_NE(table[4].find("TRUE"), std::string::npos) << table[4];
    EXPECT_NE(r.err.find("tavsim services: stopped the store daemon"), std::string::npos) << r.err;
    EXPECT_TRUE(sim::liveDaemonPids(mod_).empty());
    EXPECT_TRUE(m_.exists("/var/ondra/store/ok")) << "stopped, not undone";
}

TEST_F(Services, RefusalsNameTheArgument)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    const std::string d = m_.dir();
    for (const Case& c : std::vector<Case>{
             {{"services", d}, 2, "tavsim services: too few arguments"},
             {{"services", d, "run"}, 2, "tavsim services: give the commands to run after run"},
             {{"services", d, "go"}, 2, "tavsim services: unexpected argument go; give run"},
             {{"services", d, "run", "jump"}, 2, "tavsim services: unknown command jump; give one of initModData"},
             {{"services", d, "run", "join"}, 2, "tavsim services: join takes TEXT"},
             {{"services", d, "run", "getRun", "disk"}, 2,
              "tavsim services: TYPE disk: give store, vmgr or mgr, or 0 to 2"},
             {{"services", d, "run", "processStart", "up", "store"}, 2,
              "tavsim services: STATE up: give init, daemon or deinit, or 0 to 2"},
             {{"services", d, "--debug", "101", "run", "getPort"}, 2,
              "tavsim services: --debug 101: out of range 0 to 100"},
         }) {
        const Captured r = tavsim(c.args);
        EXPECT_EQ(r.status, c.status) << c.message;
        EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
    }
    TempModule bare;
    const Captured r = tavsim({"services", bare.dir(), "run", "getPort"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("run tavsim daemons DIR install"), std::string::npos) << r.err;
}

} // namespace

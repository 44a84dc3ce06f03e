#include <string>

#include <gtest/gtest.h>

#include "corvaneutils/tavsession.h"
#include "sim/mgmt_keys.h"
#include "sim_fixture.h"

namespace {

using simtest::Captured;
using simtest::TempModule;
using simtest::tavsim;

std::string local(TAVSession& session, const char* key)
{
    char buffer[256];
    return session.processLocalCorvaneKey(key, buffer, sizeof buffer);
}

TEST(KeySource, NewModuleAnswersTheNineKeysAndTheFaults)
{
    TempModule m;
    sim::Module module(m.dir());
    std::vector<sim::KeyLine> keys = sim::parseKeys(module.readState("keys"));
    ASSERT_EQ(keys.size(), 9u);
    EXPECT_EQ(keys[0].key, "tav/public/storage/raid/status");
    EXPECT_EQ(keys[0].value, "NOMINAL");
    EXPECT_EQ(keys[6].value, "OBX 1U");   // the model name of platform 1's row

    sim::setKeyLine(module, {"tav/public/f", sim::KeyLine::Fail, "disk gone", ""});
    sim::setKeyLine(module, {"tav/public/t", sim::KeyLine::Twice, "one two", "three"});
    sim::setKeyLine(module, {"tav/public/r", sim::KeyLine::Raw, "abc", ""});
    sim::setKeyLine(module, {"tav/public/e", sim::KeyLine::Value, " tab\there\nline ", ""});
    sim::KeySource source(module);
    TAVSession session;
    EXPECT_EQ(source.attach(session), 14);

    EXPECT_EQ(local(session, "get:/tav/public/storage/raid/status/"), "OK:NOMINAL");
    EXPECT_EQ(local(session, "get:/tav/public/f/"), "FAILED:disk gone");
    EXPECT_EQ(local(session, "get:/tav/public/t/"), "Extended Response, key='get:/tav/public/t/'\n");
    EXPECT_EQ(local(session, "get:/tav/public/e/"), "OK: tab\there\nline ");

    TAVCommand raw("get:/tav/public/r/");
    ASSERT_EQ(raw.CheckSyntax(), 0);
    session.HandleAllMessage(&raw);
    ASSERT_EQ(raw.GetReturnCount(), 1);
    EXPECT_EQ(std::string(raw.GetReturnValue(0), raw.GetReturnValueSize(0)), "OK:abc");

    // A set stores the value in the file; a later get, and other processes, see it.
    EXPECT_EQ(local(session, "set:/tav/public/storage/raid/status/DEGRADED"), "OK:");
    EXPECT_EQ(local(session, "get:/tav/public/storage/raid/status/"), "OK:DEGRADED");
    EXPECT_NE(m.get("/sim/keys").find("tav/public/storage/raid/status DEGRADED\n"), std::string::npos);
    sim::unsetKeyLine(module, "tav/public/f");
    EXPECT_EQ(local(session, "get:/tav/public/f/"), "FAILED:no such key");
}

TEST(KeySource, FileFormatRoundTrips)
{
    std::vector<sim::KeyLine> lines = {{"a", sim::KeyLine::Value, "!x \\y\t", ""},
                                       {"b", sim::KeyLine::Twice, " a b ", "c d"},
                                       {"c", sim::KeyLine::Fail, "", ""},
                                       {"d", sim::KeyLine::Value, std::string(2000, 'v'), ""}};
    std::vector<sim::KeyLine> back = sim::parseKeys(sim::formatKeys(lines) + "\n# a note\n   \n");
    ASSERT_EQ(back.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(back[i].key, lines[i].key);
        EXPECT_EQ(back[i].kind, lines[i].kind);
        EXPECT_EQ(back[i].value, lines[i].value);
        EXPECT_EQ(back[i].value2, lines[i].value2);
    }
}

TEST(TavsimMgmt, KeysAndCommandsFromTheCommandLine)
{
    TempModule m;
    const std::string& d = m.dir();
    EXPECT_EQ(tavsim({"keys", d, "set", "tav/public/security/admin/user/access-int/kim", "/tav/public/storage/:2"}).status, 0);
    EXPECT_EQ(tavsim({"keys", d, "twice", "tav/public/two", "x"}).status, 2);
    EXPECT_EQ(tavsim({"keys", d, "unset", "tav/public/none"}).status, 1);
    EXPECT_EQ(tavsim({"keys", d, "bogus"}).status, 2);
    Captured listed = tavsim({"keys", d});
    EXPECT_EQ(listed.out.rfind("KEY ", 0), 0u);
    EXPECT_NE(listed.out.find("tav/public/system/info/partner/sn "), std::string::npos);
    EXPECT_NE(listed.out.find(" value  /tav/public/storage/:2\n"), std::string::npos);
    EXPECT_NE(tavsim({"keys", d, "--json"}).out.find("\"key\": \"tav/public/storage/raid/status\""), std::string::npos);

    Captured local = tavsim({"mgmt", d, "--local", "get:/tav/public/storage/raid/config/",
                             "set:/tav/public/storage/raid/config/RAID1"});
    EXPECT_EQ(local.status, 0);
    EXPECT_EQ(local.out,
              "get:/tav/public/storage/raid/config/\n  OK: No Errors\n  OK:RAID5\n"
              "set:/tav/public/storage/raid/config/RAID1\n  OK: No Errors\n  FAILED: Permission denied.\n");

    // kim may set the storage keys and get none.
    Captured kim = tavsim({"mgmt", d, "--user", "kim", "set:/tav/public/storage/raid/config/RAID1",
                           "get:/tav/public/storage/raid/config/", "get:/x"});
    EXPECT_EQ(kim.status, 1);
    EXPECT_EQ(kim.out,
              "set:/tav/public/storage/raid/config/RAID1\n  OK: No Errors\n  OK:\n"
              "get:/tav/public/storage/raid/config/\n  OK: No Errors\n  FAILED: Permission denied.\n"
              "get:/x\n  ERR: Non terminated key in get message\n");
    EXPECT_NE(tavsim({"mgmt", d, "--json", "get:/tav/public/storage/raid/config/"}).out.find("\"OK:RAID1\""),
              std::string::npos);
    EXPECT_EQ(tavsim({"mgmt", d}).status, 2);
    EXPECT_EQ(tavsim({"mgmt", d, "--local", "--user", "x", "get:/a/"}).status, 2);
}

} // namespace

namespace {

TEST(TavsimNet, ShowsAndChangesTheInterfaces)
{
    TempModule m;
    const std::string& d = m.dir();
    EXPECT_EQ(tavsim({"net", d, "set", "eth0", "address=10.9.9.9", "down"}).status, 0);
    EXPECT_EQ(tavsim({"net", d, "add", "bond1", "address=10.3.0.1", "hwaddr=02:00:00:00:00:07", "up"}).status, 0);
    EXPECT_EQ(tavsim({"net", d, "add", "bond1"}).status, 1);
    EXPECT_EQ(tavsim({"net", d, "del", "eth1"}).status, 0);
    EXPECT_EQ(tavsim({"net", d, "del", "eth1"}).status, 1);
    EXPECT_EQ(tavsim({"net", d, "set", "eth0", "address=300.1.1.1"}).status, 2);
    EXPECT_EQ(tavsim({"net", d, "set", "eth0", "hwaddr=02:00"}).status, 2);
    EXPECT_EQ(tavsim({"net", d, "frob"}).status, 2);
    Captured shown = tavsim({"net", d});
    EXPECT_NE(shown.out.find("eth0   down       10.9.9.9"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("bond1  up         10.3.0.1      0.0.0.0        02:00:00:00:00:07"), std::string::npos);
    EXPECT_EQ(shown.out.find("eth1"), std::string::npos);
    EXPECT_NE(tavsim({"net", d, "--json"}).out.find("\"address\": \"10.3.0.1\""), std::string::npos);
}

// Runs the agent in a namespace of this test's process.
TEST(TavsimAgent, ConsolesDescriptionsAlertsAndTheLog)
{
    TempModule m;
    const std::string& d = m.dir();
    EXPECT_EQ(tavsim({"agent", d, "--from", "10.0.0.1"}).status, 2);
    EXPECT_EQ(tavsim({"agent", d, "--port", "0"}).status, 2);
    Captured run = tavsim({"agent", d, "--from", "127.0.0.2", "--from", "127.0.0.3", "--alert", "bay 2 is empty",
                           "--local-client", "--flood", "20"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("7      raid_status       NOMINAL\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("consoles remembered\nCONSOLE\n127.0.0.2:40000\n127.0.0.3:40000\n"), std::string::npos);
    EXPECT_NE(run.out.find("127.0.0.3        bay 2 is empty\n127.0.0.1:13842  bay 2 is empty\n"), std::string::npos);
    EXPECT_NE(run.out.find("agent log\n  runUdpThread\n"), std::string::npos);
    EXPECT_NE(run.out.find("  msg not OBXrequest:ver0.01\n"), std::string::npos);

    // Over TCP, with a header the agent does not know: no description.
    Captured wrong = tavsim({"agent", d, "--tcp", "--header", "OBXrequest:ver9", "--json"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.out.find("\"remembered\": []"), std::string::npos) << wrong.out;
}

} // namespace

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corvaneutils/tavcommand.h"
#include "corvaneutils/tavkeyregistry.h"
#include "driveutils/tavsysutils.h"
#include "tavutils/tavmodparam.h"

namespace {

// What a listener saw, and what it answers.
struct Probe {
    std::string reply = "value";
    int result = 0;
    bool raw = false;
    std::vector<std::string> keys, values;
    std::vector<int> actions;
};

int probeListener(TavModParam* param, int /*keyId*/, int action, void* session)
{
    auto* probe = static_cast<Probe*>(session);
    probe->keys.push_back(param->getKey(0));
    probe->values.push_back(param->getValue(0));
    probe->actions.push_back(action);
    if (probe->raw)
        param->appendData(probe->reply.data(), static_cast<int>(probe->reply.size()));
    else if (!probe->reply.empty())
        param->appendMessage(probe->reply.c_str());
    return probe->result;
}

// Every reply of a command, each within its size.
std::vector<std::string> replies(const TAVCommand& command)
{
    std::vector<std::string> out;
    for (int i = 0; i < command.GetReturnCount(); ++i)
        out.emplace_back(command.GetReturnValue(i), static_cast<size_t>(command.GetReturnValueSize(i)));
    return out;
}

std::vector<std::string> run(TAVKeyRegistry& registry, const char* text)
{
    TAVCommand command(text);
    EXPECT_EQ(command.CheckSyntax(), 0) << text;
    registry.Dispatch(&command);
    return replies(command);
}

using Replies = std::vector<std::string>;
const std::string kNul(1, '\0');

TEST(KeyRegistry, OwnKeysAndTheThreeRefusals)
{
    TAVKeyRegistry registry;
    registry.MergeKeys();
    EXPECT_EQ(run(registry, "get:/noperm/test/"), Replies{"FAILED: Permission denied." + kNul});
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(registry, "get:/global/nobody/"), Replies{"FAILED: attribute not available." + kNul});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "SET FAILED: ATTR NA (/global/nobody/)\n");
    EXPECT_EQ(run(registry, "refresh:/global/"), Replies{"FAILED: Functionality NOT Implemented" + kNul});

    EXPECT_EQ(run(registry, "get:/global/security/entries/count/"), Replies{"OK:0" + kNul});
    EXPECT_EQ(registry.AddSecurityKey("/tav/a/", "the a key", 3), 0);
    EXPECT_EQ(registry.AddSecurityKey(nullptr, "x", 0), -4);
    EXPECT_EQ(registry.AddSecurityKey(std::string(2000, 'k').c_str(), "long", 0), 0);
    EXPECT_EQ(std::string(registry.GetSecurityEntKey(1)).size(), 1023u);
    EXPECT_STREQ(registry.GetSecurityEntKey(2), "NULL");
    EXPECT_STREQ(registry.GetSecurityEntDescription(-1), "NULL");
    EXPECT_EQ(run(registry, "get:/global/security/entries/count/"), Replies{"OK:2" + kNul});
    EXPECT_EQ(run(registry, "get:/global/security/entries/item/0/"), Replies{"OK:/tav/a//the a key/" + kNul});
    EXPECT_EQ(run(registry, "get:/global/security/entries/item/0x0/"), Replies{"OK:/tav/a//the a key/" + kNul});
    EXPECT_EQ(run(registry, "get:/global/security/entries/item/7/"), Replies{"OK:NULL/NULL/" + kNul});
    EXPECT_EQ(run(registry, "get:/global/security/entries/item/99999999999999/"), Replies{"OK:NULL/NULL/" + kNul});
    EXPECT_EQ(run(registry, "get:/global/security/entries/item/x/"), Replies{"OK:Bad Code" + kNul});
    TavModParam param("/noperm/test/", "", 8);
    EXPECT_EQ(tav_gethandler(&param, TAVKEYREG_COUNT, LISTEN_GET, nullptr), -3);
    EXPECT_EQ(tav_gethandler(&param, 1, LISTEN_GET, &registry), -3);
}

TEST(KeyRegistry, RegistrationRulesAndPrefixes)
{
    TAVKeyRegistry registry;
    Probe a, b;
    EXPECT_EQ(registry.Add("/global/ab", 1, LISTEN_GET | LISTEN_SET, probeListener, &a), 0);
    EXPECT_EQ(registry.Add("/global/ab", 2, LISTEN_GET, probeListener, &b), -3);
    EXPECT_EQ(registry.Add("/global/ab", 2, LISTEN_SET, probeListener, &b), 0);
    EXPECT_EQ(registry.Add(nullptr, 2, LISTEN_SET, probeListener, &b), -4);
    EXPECT_TRUE(registry.Exists("/global/ab", LISTEN_SET));
    EXPECT_FALSE(registry.Exists("/global/ab", LISTEN_DEL));
    // Only the first 500 characters are compared.
    std::string longKey = "/global/" + std::string(600, 'x');
    registry.Add(longKey.c_str(), 3, LISTEN_DEL, probeListener, &b);
    EXPECT_TRUE(registry.Exists((longKey.substr(0, 500) + "different").c_str(), LISTEN_DEL));

    Probe late;
    registry.Add("/global/late/", 4, LISTEN_GET, probeListener, &late);
    registry.MergeKeys();
    // The key merely begins with the registered text: it still reaches it.
    EXPECT_EQ(run(registry, "get:/global/abc/"), Replies{"OK:value" + kNul});
    EXPECT_EQ(a.keys, std::vector<std::string>{"/global/abc/"});
    // A set hands each listener the rest of the key as its value; both
    // answered alike and leave one reply.
    EXPECT_EQ(run(registry, "set:/global/ab/new"), Replies{"OK:value" + kNul});
    EXPECT_EQ(a.values.back(), "/new");
    EXPECT_EQ(b.values.back(), "/new");
    EXPECT_EQ(b.actions.back(), LISTEN_SET);

    // A key added after the merge answers only after the next one.
    Probe later;
    registry.Add("/global/later/", 5, LISTEN_GET, probeListener, &later);
    EXPECT_EQ(run(registry, "get:/global/later/"), Replies{"FAILED: attribute not available." + kNul});
    registry.MergeKeys();
    EXPECT_EQ(run(registry, "get:/global/later/"), Replies{"OK:value" + kNul});

    registry.Clear();
    EXPECT_EQ(registry.GetKeyCount(), 0);
    EXPECT_EQ(registry.GetMergedKeyCount(), 0);
    EXPECT_EQ(run(registry, "get:/global/abc/"), Replies{"FAILED: attribute not available." + kNul});
}

TEST(KeyRegistry, MergeFollowsTheGrantsAlongTheKey)
{
    TAVKeyRegistry registry;
    Probe top, below, outside, deny, raw;
    registry.Add("/tav/public/", 1, LISTEN_GET, probeListener, &top);
    registry.Add("/tav/public/x/", 2, LISTEN_GET | LISTEN_SET, probeListener, &below);
    registry.Add("/elsewhere/", 3, LISTEN_GET, probeListener, &outside);
    registry.Add("/tav/public/deny/", 4, LISTEN_GET, probeListener, &deny);
    registry.Add("/tav/public/raw/", 5, LISTEN_GET, probeListener, &raw);
    deny.result = 1;
    deny.reply = "";
    raw.raw = true;
    raw.reply = "bytes";
    // A grant below a key covers nothing above: "/tav/public/" stays out of
    // the set grant.
    EXPECT_EQ(registry.AddUserSecurityKey("/tav/public/", TavCmd::GET), 0);
    EXPECT_EQ(registry.AddUserSecurityKey("/tav/public/x/", TavCmd::SET), 0);
    for (const char* bad : {"", "/", "tav/"}) EXPECT_EQ(registry.AddUserSecurityKey(bad, TavCmd::GET), -1) << bad;
    testing::internal::CaptureStderr();
    EXPECT_EQ(registry.AddUserSecurityKey(nullptr, TavCmd::GET), -1);
    registry.MergeKeys();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Did not add security key pcKey==NULL\n"), std::string::npos);
    EXPECT_NE(log.find("Reject Key:[/elsewhere/][3]\n"), std::string::npos);
    EXPECT_EQ(log.find("Reject Key:[/tav/"), std::string::npos);
    EXPECT_EQ(registry.GetMergedKeyCount(), 7);   // three own keys, four of /tav/public/
    EXPECT_EQ(registry.GetMergedKey(4)->getMode(), TavCmd::GET | TavCmd::SET);

    EXPECT_EQ(run(registry, "get:/elsewhere/"), Replies{"FAILED: attribute not available." + kNul});
    // The get of x reaches both listeners whose key is a prefix.
    EXPECT_EQ(run(registry, "get:/tav/public/x/"), (Replies{"OK:value" + kNul}));
    EXPECT_EQ(top.keys.size(), 1u);
    EXPECT_EQ(below.keys.size(), 1u);
    EXPECT_EQ(run(registry, "set:/tav/public/x/v"), Replies{"OK:value" + kNul});
    EXPECT_EQ(run(registry, "set:/tav/public/v"), Replies{"FAILED: Permission denied." + kNul});
    EXPECT_EQ(run(registry, "get:/tav/public/deny/"), (Replies{"OK:value" + kNul, "FAILED:" + kNul}));
    // Raw bytes come back without a terminator, within the reply's size.
    EXPECT_EQ(run(registry, "get:/tav/public/raw/"), (Replies{"OK:value" + kNul, "OK:bytes"}));

    // Merged twice, a holder stands twice; the replies hide it.
    registry.MergeKeys();
    EXPECT_EQ(registry.GetMergedKeyCount(), 14);
    EXPECT_EQ(run(registry, "get:/tav/public/x/"), (Replies{"OK:value" + kNul}));
    EXPECT_EQ(top.keys.size(), 5u);   // three gets before, and called twice now
}

TEST(KeyRegistry, CommitGoesToEveryCommitListener)
{
    TAVKeyRegistry registry;
    Probe one, two, getter;
    one.reply = "one";
    two.reply = "two";
    registry.Add("/global/a/", 1, LISTEN_COMMIT, probeListener, &one);
    registry.Add("/global/b/", 2, LISTEN_COMMIT | LISTEN_GET, probeListener, &two);
    registry.Add("/global/c/", 3, LISTEN_GET, probeListener, &getter);
    registry.MergeKeys();
    tavGlobalDebugLevel = 5;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(registry, "commit:/unrelated/"), (Replies{"OK:one" + kNul, "OK:two" + kNul}));
    std::string log = testing::internal::GetCapturedStderr();
    tavGlobalDebugLevel = 0;
    EXPECT_EQ(log, "Committing /global/a/\nCOMMIT RETURNED: OK:one\nCommitting /global/b/\nCOMMIT RETURNED: OK:two\n");
    EXPECT_EQ(one.keys, std::vector<std::string>{"/global/a/"});
    EXPECT_EQ(one.actions, std::vector<int>{LISTEN_COMMIT});
    EXPECT_TRUE(getter.keys.empty());
}

TEST(KeyRegistry, SecurityKeysStayOutOfTheGetLog)
{
    TAVKeyRegistry registry;
    registry.MergeKeys();
    tavGlobalDebugLevel = 5;
    testing::internal::CaptureStderr();
    run(registry, "get:/global/security/entries/count/");
    run(registry, "get:/global/other/");
    std::string log = testing::internal::GetCapturedStderr();
    tavGlobalDebugLevel = 0;
    EXPECT_EQ(log.find("Get:[/global/security"), std::string::npos);
    EXPECT_NE(log.find("Get:[/global/other/]\n"), std::string::npos);
    EXPECT_FALSE(isAllowed("/x/tav/private/security/admin/y/"));
    EXPECT_TRUE(isAllowed("/tav/private/security/"));
}

} // namespace

#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "corvaneutils/tavsession.h"
#include "tavutils/tavmodparam.h"

namespace {

struct Answer {
    explicit Answer(std::string t, bool r = false) : text(std::move(t)), raw(r) {}
    std::string text;
    bool raw;
    std::string lastKey;
};

int answer(TavModParam* param, int, int, void* session)
{
    auto* a = static_cast<Answer*>(session);
    a->lastKey = param->getKey(0);
    if (a->raw)
        param->appendData(a->text.data(), static_cast<int>(a->text.size()));
    else
        param->appendMessage(a->text.c_str());
    return 0;
}

std::string ask(TAVSession& session, const char* text)
{
    TAVCommand command(text);
    EXPECT_EQ(command.CheckSyntax(), 0) << text;
    session.HandleMessage(&command);
    std::string out;
    for (int i = 0; i < command.GetReturnCount(); ++i) {
        if (i) out += "|";
        out += command.GetReturnValue(i);
    }
    return out;
}

TEST(Session, LocalUserMayGetButNotSetPublicKeys)
{
    TAVSession session;
    EXPECT_STREQ(session.getpModulePath(), "./modules");
    Answer model("OBX-7");
    EXPECT_EQ(session.RegisterListener("/tav/public/system/info/model", 1, answer, LISTEN_GET | LISTEN_SET, &model), 0);
    EXPECT_EQ(session.RegisterListener("/tav/public/system/info/model", 2, answer, LISTEN_GET, &model), -3);
    EXPECT_EQ(session.RegisterSecurity("/tav/public/", "public keys", 0), 0);
    session.RegisterUser("anyone", true);
    EXPECT_EQ(ask(session, "get:/tav/public/system/info/model/"), "OK:OBX-7");
    EXPECT_EQ(ask(session, "set:/tav/public/system/info/model/X"), "FAILED: Permission denied.");
    EXPECT_EQ(ask(session, "get:/global/security/entries/item/0/"), "OK:/tav/public//public keys/");
    EXPECT_EQ(session.HandleMessage(nullptr), -1);
    EXPECT_EQ(session.HandleAllMessage(nullptr), -1);
}

TEST(Session, RemoteUserGetsWhatTheAccessKeyGrants)
{
    TAVSession session;
    // The registry puts the "OK:" in front of the pairs.
    Answer access("/tav/public/a/:3:/tav/public/b/:1:/tav/public/c/");
    Answer a("A"), b("B"), c("C");
    session.RegisterListener("/tav/public/security/admin/user/access-int/", 1, answer, LISTEN_GET, &access);
    session.RegisterListener("/tav/public/a/", 2, answer, LISTEN_GET | LISTEN_SET, &a);
    session.RegisterListener("/tav/public/b/", 3, answer, LISTEN_GET | LISTEN_SET, &b);
    session.RegisterListener("/tav/public/c/", 4, answer, LISTEN_GET, &c);
    // The access key itself must be readable for the question to be asked.
    session.getKeyRegistry().AddUserSecurityKey("/tav/public/security/admin/user/access-int/", TavCmd::GET);
    session.getKeyRegistry().MergeKeys();
    session.RegisterUser("kim", false);
    EXPECT_EQ(access.lastKey, "/tav/public/security/admin/user/access-int/kim/");
    EXPECT_EQ(ask(session, "set:/tav/public/a/1"), "OK:A");
    EXPECT_EQ(ask(session, "set:/tav/public/b/1"), "FAILED: Permission denied.");
    EXPECT_EQ(ask(session, "get:/tav/public/b/"), "OK:B");
    // The last key came without its mode and granted nothing.
    EXPECT_EQ(ask(session, "get:/tav/public/c/"), "FAILED: attribute not available.");
}

TEST(Session, GrantRepliesOfAnyShapeStayWithinTheirSize)
{
    for (const char* reply : {"", ":", "::", "/:1", ":7:/x/:99999999999999999999:", "nolead/:1",
                              "/tav/public/security/:-1", " Permission denied."}) {
        TAVSession session;
        Answer access(reply, true);
        session.RegisterListener("/tav/public/security/admin/user/access-int/", 1, answer, LISTEN_GET, &access);
        session.getKeyRegistry().AddUserSecurityKey("/tav/public/security/", TavCmd::GET);
        session.getKeyRegistry().MergeKeys();
        session.RegisterUser("u", false);
        // Three own keys and the access key, merged again after the reply.
        EXPECT_EQ(session.getKeyRegistry().GetMergedKeyCount(), 8) << reply;
    }
}

TEST(Session, LocalKeyIntoSmallBuffers)
{
    TAVSession session;
    Answer one("first"), two("second"), raw("0123456789", true);
    session.RegisterListener("/tav/public/one/", 1, answer, LISTEN_GET | LISTEN_SET, &one);
    session.RegisterListener("/tav/public/two/", 2, answer, LISTEN_GET, &two);
    session.RegisterListener("/tav/public/two/", 3, answer, LISTEN_SET, &one);
    session.RegisterListener("/tav/public/raw/", 4, answer, LISTEN_GET, &raw);

    char buffer[64];
    // No grants at all: the local path goes past security.
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/tav/public/one/", buffer, sizeof buffer), "OK:first");
    EXPECT_STREQ(session.processLocalCorvaneKey("set:/tav/public/one/x", buffer, sizeof buffer), "OK:first");
    EXPECT_EQ(one.lastKey, "/tav/public/one/x");
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/tav/public/one", buffer, sizeof buffer),
                 "SYNTAX FAILURE, key='get:/tav/public/one'\n");
    EXPECT_STREQ(session.processLocalCorvaneKey(nullptr, buffer, sizeof buffer), "SYNTAX FAILURE, key=''\n");
    // The refusal is a reply too, so "No Response" does not come from the registry.
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/tav/public/none/", buffer, sizeof buffer),
                 "FAILED: attribute not available.");
    EXPECT_STREQ(session.processLocalCorvaneKey("set:/tav/public/two/v", buffer, sizeof buffer), "OK:first");
    session.RegisterListener("/tav/public/one/", 5, answer, LISTEN_SET, &two);
    EXPECT_STREQ(session.processLocalCorvaneKey("set:/tav/public/one/v", buffer, sizeof buffer),
                 "Extended Response, key='set:/tav/public/one/v'\n");

    char small[6];
    std::memset(small, 'z', sizeof small);
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/tav/public/raw/", small, sizeof small), "OK:01");
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/x", small, sizeof small), "SYNTA");
    char tiny[1] = {'z'};
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/tav/public/one/", tiny, 1), "");
    EXPECT_EQ(session.processLocalCorvaneKey("get:/tav/public/one/", nullptr, 8), nullptr);
}

} // namespace

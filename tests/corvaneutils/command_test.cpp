#include <string>

#include <gtest/gtest.h>

#include "corvaneutils/tav_msg.h"
#include "corvaneutils/tavcommand.h"

namespace {

int syntax(const char* text)
{
    TAVCommand command(text);
    return command.CheckSyntax();
}

TEST(CheckSyntax, WordThenTrailingSlashThenSlashBehindWord)
{
    EXPECT_EQ(syntax(nullptr), -8);
    EXPECT_EQ(syntax("fetch:/a/"), -3);
    EXPECT_EQ(syntax(""), -3);
    EXPECT_EQ(syntax("get:/tav/public"), -6);
    EXPECT_EQ(syntax("commit:/x"), -6);
    EXPECT_EQ(syntax("cookie:/x"), -6);
    EXPECT_EQ(syntax("set:/tav/x/"), -5);
    EXPECT_EQ(syntax("exec:/run/"), -5);
    EXPECT_EQ(syntax("login:/me/"), -9);
    // The trailing-slash test comes before the slash behind the word.
    EXPECT_EQ(syntax("get:tav/"), -4);
    EXPECT_EQ(syntax("get:"), -6);
    EXPECT_EQ(syntax("set:x"), -4);
    EXPECT_EQ(syntax("refresh:"), -4);
    EXPECT_EQ(syntax("refresh:/"), 0);
    EXPECT_EQ(syntax("core:/a/b"), 0);

    TAVCommand get("get:/tav/public/");
    ASSERT_EQ(get.CheckSyntax(), 0);
    EXPECT_EQ(get.GetCommand(), 0);
    EXPECT_STREQ(get.GetCommandString(), "get:");
    EXPECT_STREQ(get.GetKey(), "/tav/public/");
    EXPECT_TRUE(get.IsSubKey("/tav/pub"));
    EXPECT_FALSE(get.IsSubKey("/tav/public/x"));
    EXPECT_FALSE(get.IsSubKey(nullptr));

    TAVCommand bad("nope:/");
    EXPECT_EQ(bad.CheckSyntax(), -3);
    EXPECT_STREQ(bad.GetCommandString(), "error:");
    EXPECT_FALSE(bad.IsSubKey("/"));
}

TEST(CheckSyntax, ErrorTexts)
{
    EXPECT_STREQ(TAVCommand::GetSyntaxError(0), "OK: No Errors");
    EXPECT_STREQ(TAVCommand::GetSyntaxError(-4), "ERR: Bad Tree Format (Missing leading '/')");
    EXPECT_STREQ(TAVCommand::GetSyntaxError(-9), "ERR: Invalid Login Request");
    EXPECT_STREQ(TAVCommand::GetSyntaxError(-10), "ERR: Bad Error Number");
    EXPECT_STREQ(TAVCommand::GetSyntaxError(3), "ERR: Bad Error Number");
}

TEST(TAVCommand, ReturnValuesAndTheMessageItOwns)
{
    auto* message = new tav_msg();
    EXPECT_EQ(message->GetSid(), -1);
    EXPECT_EQ(message->GetType(), IPC_TYPE_UNKNOWN);
    EXPECT_EQ(message->GetDirection(), 3);
    EXPECT_EQ(message->GetStatus(), 1);
    EXPECT_EQ(message->SetData(4, nullptr), -1);
    // Data without a terminator still reads as a text of its size.
    ASSERT_EQ(message->SetData(6, "get:/x/ and more"), 0);
    EXPECT_EQ(message->GetSize(), 6u);

    TAVCommand command(message);   // deleted with the command
    EXPECT_EQ(command.CheckSyntax(), -6);
    EXPECT_STREQ(command.GetData(), "get:/x");

    command.AddReturnValue("OK:a");
    command.AddReturnValue("OK:a");
    command.AddReturnValue("OK:b", 4);
    command.AddReturnValue(nullptr, 3);
    EXPECT_EQ(command.GetReturnCount(), 2);
    EXPECT_EQ(command.GetReturnValueSize(0), 5);
    EXPECT_EQ(command.GetReturnValueSize(1), 4);
    EXPECT_STREQ(command.GetReturnValue(5), "ERR: Internal Error");
    EXPECT_STREQ(command.GetReturnValue(-1), "ERR: Internal Error");

    command.SetValue("v");
    EXPECT_STREQ(command.GetValue(), "v");
    testing::internal::CaptureStderr();
    command.SetValue(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");   // only above level 9
    EXPECT_EQ(command.GetValue(), nullptr);

    tav_msg typed(IPC_RAW, 3, "abc", 7, 5);
    EXPECT_EQ(typed.GetSid(), 7);
    EXPECT_EQ(typed.GetStatus(), 5);
    EXPECT_EQ(std::string(static_cast<char*>(typed.GetData()), typed.GetSize()), "abc");
}

} // namespace

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driveutils/tavsysutils.h"
#include "tavstring/tavstrtokenize.h"

namespace {

using Tokenizer = char* (*)(char*, const char*, char**);

std::vector<std::string> tokens(Tokenizer next, std::string text, const char* delims)
{
    std::vector<std::string> out;
    char* state = nullptr;
    for (char* t = next(text.data(), delims, &state); t; t = next(nullptr, delims, &state)) out.emplace_back(t);
    return out;
}

TEST(Tokenize, StrTokSkipsEmptyFieldsTokenizeKeepsThem)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(tokens(tavStrTok_r, ",,a,,b", ","), (V{"a", "b"}));
    EXPECT_EQ(tokens(tavTokenize_r, ",,a,,b", ","), (V{"", "", "a", "", "b"}));
    EXPECT_EQ(tokens(tavStrTok_r, "", ","), V{});
    EXPECT_EQ(tokens(tavStrTok_r, ",,,", ","), V{});
    EXPECT_EQ(tokens(tavTokenize_r, "a b\tc", " \t"), (V{"a", "b", "c"}));
    EXPECT_EQ(tokens(tavTokenize_r, "a,", ","), V{"a"});
}

TEST(Tokenize, StateBecomesNullAtTheEnd)
{
    char text[] = "one two";
    char* state = nullptr;
    EXPECT_STREQ(tavStrTok_r(text, " ", &state), "one");
    EXPECT_STREQ(state, "two");
    EXPECT_STREQ(tavStrTok_r(nullptr, " ", &state), "two");
    EXPECT_EQ(state, nullptr);
    EXPECT_EQ(tavStrTok_r(nullptr, " ", &state), nullptr);
}

TEST(Tokenize, PlainFormsKeepHiddenStateAndWarnAtLevel99)
{
    char text[] = "x:y";
    testing::internal::CaptureStderr();
    EXPECT_STREQ(tavStrTok(text, ":"), "x");
    EXPECT_STREQ(tavStrTok(nullptr, ":"), "y");
    EXPECT_EQ(tavStrTok(nullptr, ":"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    tavGlobalDebugLevel = 99;
    char fields[] = "p::q";
    testing::internal::CaptureStderr();
    EXPECT_STREQ(tavTokenize(fields, ":"), "p");
    EXPECT_STREQ(tavTokenize(nullptr, ":"), "");
    EXPECT_STREQ(tavTokenize(nullptr, ":"), "q");
    std::string err = testing::internal::GetCapturedStderr();
    tavGlobalDebugLevel = 0;
    EXPECT_NE(err.find("WARNING:  tavTokenize() is not thread safe\n"), std::string::npos);
}

} // namespace

#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tavstring/tavparseutil.h"

namespace {

// Runs readChars over an in-memory stream; returns the result and what was stored.
std::pair<int, std::string> readFrom(const std::string& input, int size, const char* stops, int* next = nullptr)
{
    std::string copy = input;
    FILE* f = fmemopen(copy.data(), copy.size(), "r");
    char buf[64];
    int n = readChars(buf, size, stops, f);
    if (next) *next = fgetc(f);
    fclose(f);
    return {n, buf};
}

TEST(ParseUtil, CleanDropsEveryListedCharacter)
{
    char s[] = " a\rb\n c ";
    EXPECT_EQ(clean(s, " \r\n"), 0);
    EXPECT_STREQ(s, "abc");
    char empty[] = "";
    EXPECT_EQ(clean(empty, "x"), 0);
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(clean(nullptr, "x"), 0);
}

TEST(ParseUtil, SplitCutsTheCallersLine)
{
    char line[] = " my key = value x\r\n";
    char left[32], right[32];
    EXPECT_EQ(split(line, "=", left, right), 0);
    EXPECT_STREQ(left, "mykey");          // spaces inside the key go too
    EXPECT_STREQ(right, " value x");      // only line ends leave the value
    EXPECT_STREQ(line, " my key ");       // the line ends at the separator

    char none[] = "no separator";
    strcpy(left, "old");
    strcpy(right, "old");
    split(none, "=", left, right);
    EXPECT_STREQ(left, "");
    EXPECT_STREQ(right, "");
}

TEST(ParseUtil, CleanLeadingAndTrailingWorkWithinMax)
{
    char a[] = "   value\n";
    EXPECT_EQ(cleanleading(a, 100), 0);
    EXPECT_STREQ(a, "value");
    char b[] = "  abcdef";
    cleanleading(b, 5);   // only "  abc" is looked at
    EXPECT_STREQ(b, "abc");
    char c[] = "value   ";
    EXPECT_EQ(cleantrailing(c, 100), 0);
    EXPECT_STREQ(c, "value");
    char spaces[] = "    ";
    cleantrailing(spaces, 100);
    EXPECT_STREQ(spaces, "    ");   // only spaces: unchanged
    EXPECT_EQ(cleanleading(nullptr, 1), -1);
    EXPECT_EQ(cleantrailing(nullptr, 1), -1);
}

TEST(ParseUtil, ReadCharsStopsAndReportsAValueTooLong)
{
    int next = 0;
    EXPECT_EQ(readFrom("abc\n", 4, "", &next), std::make_pair(-1, std::string("abc")));
    EXPECT_EQ(next, '\n');   // not consumed: the buffer was full
    EXPECT_EQ(readFrom("ab\nz", 4, "", &next), std::make_pair(2, std::string("ab")));
    EXPECT_EQ(next, 'z');    // the newline was consumed
    EXPECT_EQ(readFrom("key=val", 16, "=", &next), std::make_pair(3, std::string("key")));
    EXPECT_EQ(next, 'v');
    EXPECT_EQ(readFrom(std::string("ab\0cd", 5), 16, ",").first, 2);
    EXPECT_EQ(readFrom("", 16, ","), std::make_pair(0, std::string()));
}

} // namespace

#include <gtest/gtest.h>

#include "tavutils/tav_error.h"
#include "tavutils/tavstring.h"
#include "tavutils/tavvectorp.h"

namespace {

TEST(TavError, CopiesItsTextDeeplyAndAllowsNull)
{
    char text[] = "new failed";
    tav_error e(text);
    text[0] = 'X';
    EXPECT_STREQ(e.getMsg(), "new failed");
    tav_error copy(e);
    EXPECT_NE(copy.getMsg(), e.getMsg());
    EXPECT_STREQ(copy.getMsg(), "new failed");

    tav_error none(nullptr);
    EXPECT_EQ(none.getMsg(), nullptr);
    tav_error noneCopy(none);
    EXPECT_EQ(noneCopy.getMsg(), nullptr);
    EXPECT_EQ(tav_error().getMsg(), nullptr);
}

TEST(TavError, EnomemIsCaughtAsTavError)
{
    try {
        throw tav_enomem("new failed");
    } catch (tav_error& e) {
        EXPECT_STREQ(e.getMsg(), "new failed");
        EXPECT_NE(dynamic_cast<tav_enomem*>(&e), nullptr);
    }
}

TEST(TavVectorP, GrowsByChunkKeepingPointersAndZeroingNewSlots)
{
    int values[11];
    TavVectorP<int> v(10);
    EXPECT_EQ(v.capacity(), 10);
    for (int i = 0; i < 10; ++i) v.add(&values[i]);
    EXPECT_EQ(v.capacity(), 10);
    v.add(&values[10]);
    EXPECT_EQ(v.capacity(), 20);
    EXPECT_EQ(v.size(), 11);
    for (int i = 0; i < 11; ++i) EXPECT_EQ(v[i], &values[i]);
    for (int i = 0; i < 22; ++i) v.add(&values[0]);
    EXPECT_EQ(v.capacity(), 40);   // a constant step, never doubling
}

TEST(TavVectorP, IndexOutsideTheItemsGivesNull)
{
    int a = 1;
    TavVectorP<int> v(10);
    v.add(&a);
    EXPECT_EQ(v[-1], nullptr);
    EXPECT_EQ(v[v.size()], nullptr);
    EXPECT_EQ(v.remove(1), nullptr);
    EXPECT_EQ(v.remove(-1), nullptr);
    EXPECT_EQ(v.size(), 1);
}

TEST(TavVectorP, RemoveClosesTheGapInAFullArray)
{
    int values[3];
    TavVectorP<int> v(3);
    for (int& value : values) v.add(&value);
    EXPECT_EQ(v.remove(0), &values[0]);
    EXPECT_EQ(v.size(), 2);
    EXPECT_EQ(v[0], &values[1]);
    EXPECT_EQ(v[1], &values[2]);
    EXPECT_EQ(v[2], nullptr);
    v.add(&values[0]);   // fits again without growing
    EXPECT_EQ(v.capacity(), 3);
    EXPECT_EQ(v.remove(2), &values[0]);
    EXPECT_EQ(v.remove(1), &values[2]);
    EXPECT_EQ(v.remove(0), &values[1]);
    EXPECT_EQ(v.size(), 0);
}

TEST(TavString, IsAStandardString)
{
    TavString s("abc");
    TavString copy(s);
    copy += "d";
    EXPECT_EQ(s, "abc");
    EXPECT_EQ(copy, "abcd");
    EXPECT_TRUE(TavString(nullptr).empty());
}

} // namespace

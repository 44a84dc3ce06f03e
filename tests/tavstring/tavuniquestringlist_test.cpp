#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "tavstring/tavuniquestringlist.h"

namespace {

TEST(UniqueStringList, AddKeepsTextsDistinct)
{
    TAVUniqueStringList list;
    EXPECT_EQ(list.Add("alpha"), 0);
    EXPECT_EQ(list.Add("alpha"), -2);
    EXPECT_EQ(list.Count(), 1);
    EXPECT_EQ(list.Add(static_cast<const char*>(nullptr)), -4);
    EXPECT_EQ(list.Add(nullptr, 3), -4);

    // A text holds its terminator: "a" and the one byte 'a' differ.
    EXPECT_EQ(list.Add("a"), 0);
    EXPECT_EQ(list.Add("a", 1), 0);
    EXPECT_EQ(list.GetSize(1), 2);
    EXPECT_EQ(list.GetSize(2), 1);
    EXPECT_EQ(list.IndexOf("a", 1), 2);
    EXPECT_EQ(list.IndexOf("a"), 1);
    EXPECT_EQ(list.IndexOf("zzz"), -1);
    EXPECT_EQ(list.Exists("alpha"), 1);
    EXPECT_EQ(list.Exists("beta"), 0);
    EXPECT_EQ(list.Exists(static_cast<const char*>(nullptr)), -1);
    EXPECT_EQ(list.Exists(0), 1);
    EXPECT_EQ(list.Exists(3), 0);
    EXPECT_EQ(list.Get(3), nullptr);
    EXPECT_EQ(list.GetSize(3), 0);
}

TEST(UniqueStringList, FullListRefusesWithMinus3)
{
    TAVUniqueStringList list;
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(list.Add(std::to_string(i).c_str()), 0);
    EXPECT_EQ(list.Add("one more"), -3);
    EXPECT_EQ(list.Count(), 1000);
    EXPECT_EQ(list.IndexOf("one more"), -1);
}

TEST(UniqueStringList, DeleteMovesLaterEntriesDown)
{
    TAVUniqueStringList list;
    list.Add("a");
    list.Add("b");
    list.Add("c");
    EXPECT_EQ(list.Delete("b"), 0);
    EXPECT_EQ(list.Count(), 2);
    EXPECT_STREQ(list.Get(1), "c");
    EXPECT_EQ(list.Delete("missing"), -1);
    EXPECT_EQ(list.Delete(static_cast<const char*>(nullptr)), -1);
    EXPECT_EQ(list.Delete(2), -1);
    EXPECT_EQ(list.Delete(0), 0);
    EXPECT_STREQ(list.Get(0), "c");
    EXPECT_EQ(list.Add("b"), 0);   // the freed slot is reused cleanly
    EXPECT_EQ(list.Count(), 2);
}

TEST(UniqueStringList, GetCopyIsTheCallersOwn)
{
    TAVUniqueStringList list;
    list.Add("text");
    char* copy = list.GetCopy(0);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "text");
    EXPECT_NE(copy, list.Get(0));
    std::free(copy);
    EXPECT_EQ(list.GetCopy(1), nullptr);
}

TEST(UniqueStringList, SetWritesPastTheCountAndLeavesItsSlotDead)
{
    TAVUniqueStringList list;
    list.Add("a");
    list.Add("b");
    EXPECT_EQ(list.Set(0, nullptr), -1);
    EXPECT_EQ(list.Set(0, "b"), -2);   // already held
    EXPECT_EQ(list.Set(5, "z"), -1);   // not below the count
    EXPECT_EQ(list.Set(0, "z"), 0);
    EXPECT_EQ(list.Count(), 2);        // not raised
    EXPECT_EQ(list.IndexOf("z"), -1);  // stored past the count, unseen
    EXPECT_EQ(list.IndexOf("a"), -1);  // slot 0 no longer holds its text
    EXPECT_EQ(list.Exists(0), 1);      // but keeps its pointer
    EXPECT_EQ(list.GetSize(0), 2);
    EXPECT_EQ(list.Add("c"), 0);       // takes the slot Set wrote
    EXPECT_STREQ(list.Get(2), "c");
    EXPECT_EQ(list.Delete(0), 0);      // the dead slot leaves without a second free
    EXPECT_STREQ(list.Get(0), "b");
}

} // namespace

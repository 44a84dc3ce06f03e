#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim/sim_fixture.h"
#include "sim/sim_platform.h"
#include "tavconfig/regfile.h"

namespace {

const char* const kFile = "/etc/marrowby/test.conf";

// Records the order of the calls that make a save safe.
class SavePlatform : public sim::SimPlatform {
public:
    using SimPlatform::SimPlatform;
    int unlink(const char* path) override
    {
        calls.push_back("unlink");
        return SimPlatform::unlink(path);
    }
    int rename(const char* from, const char* to) override
    {
        calls.push_back("rename");
        return SimPlatform::rename(from, to);
    }
    void sync() override
    {
        calls.push_back("sync");
        SimPlatform::sync();
    }
    std::vector<std::string> calls;
};

class RegFileTest : public ::testing::Test {
protected:
    simtest::TempModule temp;
    SavePlatform module{temp.dir()};
    plat::ScopedPlatform scope{module};

    std::string map(const std::string& path) const { return temp.map(path); }
    void put(const std::string& path, const std::string& text) const { temp.put(path, text); }
    bool exists(const std::string& path) const { return temp.exists(path); }
    std::string get(const std::string& path) const { return temp.get(path); }

    // Opens kFile written with text.
    void open(URegFile& reg, const std::string& text)
    {
        put(kFile, text);
        ASSERT_TRUE(reg.Open(kFile));
    }
    // All lines, each closed by "|".
    static std::string lines(const URegFile& reg)
    {
        std::string all;
        for (int i = 0; i < reg.pList->Count; ++i) all += std::string(reg.pList->Line(i) ? reg.pList->Line(i) : "") + "|";
        return all;
    }
    std::string value(URegFile& reg, const char* key, int strip = 0)
    {
        char v[URegFile::kMaxValue + 1];
        return reg.getValue(key, v, strip) ? v : "<miss>";
    }
};

TEST_F(RegFileTest, LoadingSplitsAtLineEndsAndStopsAtFFOrAThousandLines)
{
    TStringList list;
    put(kFile, "a\r\nb\rc\nlost");
    ASSERT_TRUE(list.LoadFromFile(kFile));
    ASSERT_EQ(list.Count, 4); // CR and LF each end a line; the unended last one is lost
    EXPECT_STREQ(list.Line(1), "");
    EXPECT_STREQ(list.Line(3), "c");

    put(kFile, std::string("one\ntwo\xFFthree\n"));
    ASSERT_TRUE(list.LoadFromFile(kFile));
    EXPECT_EQ(list.Count, 1);

    std::string text;
    for (int i = 0; i < 1001; ++i) text += "line" + std::to_string(i) + "\n";
    put(kFile, text);
    ASSERT_TRUE(list.LoadFromFile(kFile));
    EXPECT_EQ(list.Count, 1000);
    EXPECT_STREQ(list.Line(999), "line999");
    EXPECT_EQ(list.Add("more"), -1);

    put(kFile, "");
    EXPECT_TRUE(list.LoadFromFile(kFile));
    EXPECT_EQ(list.Count, 0);
    EXPECT_FALSE(list.LoadFromFile("/etc/marrowby/absent.conf"));
}

TEST_F(RegFileTest, OverlongLinesAndBinaryTextAreCutNotOverrun)
{
    URegFile reg;
    std::string binary;
    for (int i = 0; i < 4096; ++i) binary += static_cast<char>(i % 255);
    open(reg, std::string(5000, 'k') + "=v\n" + binary + "\n");
    EXPECT_EQ(std::strlen(reg.pList->Line(0)), 999u);
    EXPECT_FALSE(reg.isKey("k"));
    reg.goHead();
    reg.setValue(std::string(300, 'q').c_str(), "x");
    EXPECT_EQ(std::strlen(reg.pList->Line(0)), 255u);
}

TEST_F(RegFileTest, SaveGoesThroughTheBackupAndSurvivesAFailedRename)
{
    put(kFile, "[A]\nkey=old;\n");

    URegFile reg;
    ASSERT_TRUE(reg.Open(kFile));
    ASSERT_TRUE(reg.GoTo("A"));
    reg.setValue("key", "new");
    EXPECT_TRUE(reg.pList->SaveToFile(kFile));
    EXPECT_EQ(module.calls, (std::vector<std::string>{"unlink", "rename", "sync"}));
    EXPECT_EQ(get(kFile), "[A]\nkey=new;\n");
    EXPECT_FALSE(exists(std::string(kFile) + ".backup"));

    // Interrupted between unlink and rename: only the backup is left, and it is complete.
    module.arm(sim::Fault::failing(sim::Op::Rename, std::string(kFile) + ".backup", 1, EIO, 2));
    reg.setValue("key", "newer");
    EXPECT_FALSE(reg.pList->SaveToFile(kFile));
    EXPECT_TRUE(reg.SaveNow()); // SaveNow never reports the failure
    EXPECT_FALSE(exists(kFile));

    URegFile again;
    ASSERT_TRUE(again.Open(kFile));
    ASSERT_TRUE(again.GoTo("A"));
    char v[URegFile::kMaxValue + 1];
    ASSERT_TRUE(again.getValue("key", v, 0));
    EXPECT_STREQ(v, "newer");
    // The next save puts the main name back.
    EXPECT_TRUE(again.SaveNow());
    EXPECT_EQ(get(kFile), "[A]\nkey=newer;\n");
}

TEST_F(RegFileTest, ValuesStripsRemarksAndQuotes)
{
    URegFile reg;
    open(reg, "[S]\n"
              "  plain \t= value ; remark\n"
              "semis=;;after;x\n"
              "eq=a=b;\n"
              "quoted=x\"in ner\"y;\n"
              "cut=\"a;b\";\n"
              "empty\n"
              "# comment=c\n");
    ASSERT_TRUE(reg.GoTo("S"));
    EXPECT_EQ(value(reg, "plain"), " value ");
    EXPECT_EQ(value(reg, "plain", 1), "value ");
    EXPECT_EQ(value(reg, "plain", 2), " value");
    EXPECT_EQ(value(reg, "plain", 3), "value");
    EXPECT_EQ(value(reg, "quoted"), "in ner");
    EXPECT_EQ(value(reg, "quoted", 4), "inner"); // quotes come off after the strip
    EXPECT_EQ(value(reg, "semis"), "after");
    EXPECT_EQ(value(reg, "eq"), "a=b");
    EXPECT_EQ(value(reg, "cut"), "\"a"); // cut at ";" before quotes are looked at
    EXPECT_EQ(value(reg, "empty"), "");
    EXPECT_EQ(value(reg, "# comment"), "c"); // reads treat comments as any line
    EXPECT_EQ(value(reg, "plai"), "<miss>");

    char v[URegFile::kMaxValue + 1];
    EXPECT_FALSE(reg.getValue("nokey", v, "fallback", 0));
    EXPECT_STREQ(v, "fallback");
    EXPECT_TRUE(reg.isKey("eq"));
}

TEST_F(RegFileTest, SectionsEndAtAnyBracketAndSearchFromTheirHead)
{
    URegFile reg;
    open(reg, "[ONE] trailing text\nk=1;\nnote=see [TWO]\nlate=2;\n[TWO]\nk=2;\n");
    EXPECT_FALSE(reg.GoTo("THREE"));
    EXPECT_EQ(reg.iLastLoc, 0);
    ASSERT_TRUE(reg.GoTo("ONE"));
    EXPECT_EQ(value(reg, "k"), "1");
    EXPECT_EQ(value(reg, "late"), "<miss>"); // the "[" in a value ended the section
    ASSERT_TRUE(reg.GoTo("TWO"));
    EXPECT_EQ(value(reg, "k"), "2");
}

TEST_F(RegFileTest, BadKeysAreRecordedAtASectionEndOnlyAndStopAtNineteen)
{
    URegFile reg;
    open(reg, "[A]\na=1;\n[B]\nb=2;\n");
    ASSERT_TRUE(reg.GoTo("A"));
    EXPECT_EQ(value(reg, "b"), "<miss>");
    EXPECT_EQ(reg.getBadKeyCount(), 1);
    EXPECT_STREQ(reg.getBadKey(0), "b");
    ASSERT_TRUE(reg.GoTo("B"));
    EXPECT_EQ(value(reg, "a"), "<miss>"); // the end of the file is no section end
    EXPECT_EQ(reg.getBadKeyCount(), 1);

    ASSERT_TRUE(reg.GoTo("A"));
    for (int i = 1; i < 25; ++i) reg.isKey(("miss" + std::to_string(i)).c_str());
    EXPECT_EQ(reg.getBadKeyCount(), 19);
    EXPECT_STREQ(reg.getBadKey(18), "miss18");
    EXPECT_STREQ(reg.getBadKey(19), "miss24");
    EXPECT_EQ(reg.getBadKey(20), nullptr);

    reg.isKey(std::string(80, 'z').c_str());
    EXPECT_EQ(std::strlen(reg.getBadKey(19)), 49u);
    ASSERT_TRUE(reg.Open(kFile));
    EXPECT_EQ(reg.getBadKeyCount(), 0);
}

TEST_F(RegFileTest, TypedReadsScanLikeThe32BitMachine)
{
    URegFile reg;
    open(reg, "[N]\nhex=0x1F;\nneg=-1;\nbig=4294967296;\nhuge=99999999999;\nword=abc;\nt=t;\nF= f ;\nmaybe=yes;\n");
    ASSERT_TRUE(reg.GoTo("N"));
    int i = 0;
    EXPECT_TRUE(reg.getValue("hex", &i) && i == 31);
    EXPECT_TRUE(reg.getValue("huge", &i) && i == 2147483647);
    unsigned long ul = 0;
    EXPECT_TRUE(reg.getValue("neg", &ul) && ul == 4294967295UL);
    EXPECT_TRUE(reg.getValue("big", &ul) && ul == 4294967295UL);
    unsigned int u = 7;
    EXPECT_FALSE(reg.getValue("word", &u));
    EXPECT_EQ(u, 7u);
    EXPECT_FALSE(reg.getValue("word", &u, 9u));
    EXPECT_EQ(u, 9u);

    bool b = false;
    EXPECT_TRUE(reg.getValue("t", &b) && b);
    EXPECT_TRUE(reg.getValue("F", &b) && !b);
    b = true;
    EXPECT_FALSE(reg.getValue("maybe", &b));
    EXPECT_TRUE(b); // untouched
}

TEST_F(RegFileTest, SetValueReplacesBySubstringAndReportsASectionEnd)
{
    URegFile reg;
    open(reg, "[A]\nspeed_max=10;\n[B]\n");
    ASSERT_TRUE(reg.GoTo("A"));
    EXPECT_TRUE(reg.setValue("speed", 5)); // part of an earlier key: that line goes
    EXPECT_FALSE(reg.setValue("fresh", "v")); // stored at the head of A all the same
    ASSERT_TRUE(reg.GoTo("B"));
    EXPECT_TRUE(reg.setValue("last", true)); // the empty last section
    EXPECT_TRUE(reg.setValue("d", 1.5));
    EXPECT_TRUE(reg.setValue("u", 4000000000u));
    EXPECT_EQ(lines(reg), "[A]|fresh=v;|speed=5;|[B]|u=4000000000;|d=1.500000;|last=TRUE;|");
}

TEST_F(RegFileTest, EditingSections)
{
    URegFile reg;
    open(reg, "[A]\na=1;\n# remark\n[B]\n[BB]\n");
    EXPECT_TRUE(reg.addSection("C"));
    EXPECT_TRUE(reg.addKey("c1", 7));
    EXPECT_TRUE(reg.addKey("c2", "x"));
    EXPECT_FALSE(reg.renameSection("B ", "X")); // the whole line must match
    EXPECT_TRUE(reg.renameSection("BB", "D"));
    EXPECT_EQ(lines(reg), "[A]|a=1;|# remark|[B]|[D]|[C]|c1=7|c2=x||");
    EXPECT_TRUE(reg.removeSection("A")); // comments go with it
    EXPECT_FALSE(reg.removeSection("A"));
    EXPECT_EQ(lines(reg), "[B]|[D]|[C]|c1=7|c2=x||");
}

TEST_F(RegFileTest, SectionWalkSkipsCommentsAndEndsAtTheHead)
{
    URegFile reg;
    open(reg, "[ONE]\n  # [not]\n; [no]\n/[nor]\nx=[two;\n[THREE]x\n");
    std::vector<std::string> names;
    char name[URegFile::kMaxName + 1];
    reg.goTail();
    while (reg.getNextSection(name)) names.push_back(name);
    EXPECT_EQ(reg.iLastLoc, 0);
    EXPECT_EQ(names, (std::vector<std::string>{"THREE]"}));
    names.clear();
    while (reg.getNextSection(name)) names.push_back(name);
    EXPECT_EQ(names, (std::vector<std::string>{"ONE", "two", "THREE]"}));
}

TEST_F(RegFileTest, NextValueMovesTheCursorByOne)
{
    URegFile reg;
    open(reg, "[L]\nother=0;\nitem=a;rest\nitem=b\n[M]\n");
    ASSERT_TRUE(reg.GoTo("L"));
    std::string seen;
    char v[URegFile::kMaxValue + 1];
    while (reg.getNextValue("item", v)) seen += std::string(v) + "|";
    EXPECT_EQ(seen, "a;rest|a;rest|b|"); // the same line until the cursor passes it
}

TEST_F(RegFileTest, OpenWithDirectoryUsesABackslash)
{
    put("/etc/marrowby/dir\\name.conf", "[S]\n");
    URegFile reg;
    EXPECT_TRUE(reg.Open("name.conf", "/etc/marrowby/dir"));
    EXPECT_STREQ(reg.pFileName, "/etc/marrowby/dir\\name.conf");
    EXPECT_FALSE(reg.Open("name.conf", "/etc/marrowby/dir/"));
    EXPECT_FALSE(reg.isOpen());
    EXPECT_EQ(reg.pList->Count, 1); // a failed open keeps the lines
}

TEST_F(RegFileTest, NullKeyIsAnAssertionFailure)
{
    URegFile reg;
    char v[URegFile::kMaxValue + 1];
    EXPECT_DEATH(reg.getValue(nullptr, v, 0), "pKey");
}

} // namespace

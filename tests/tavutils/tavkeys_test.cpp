#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tavutils/tav_error.h"
#include "tavutils/tavcmd.h"
#include "tavutils/tavkeymode.h"
#include "tavutils/tavkeymodenode.h"
#include "tavutils/tavmodparam.h"

namespace {

struct Stream {
    explicit Stream(const std::string& text) : data(text)
    {
        file = fmemopen(data.data(), data.size(), "r");
    }
    ~Stream() { fclose(file); }
    int rest()
    {
        std::string out;
        for (int c; (c = fgetc(file)) != EOF;) out += static_cast<char>(c);
        return out.empty() ? EOF : out[0];
    }
    std::string data;
    FILE* file;
};

std::string written(const TavKeyMode& mode)
{
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    mode.write(out);
    fclose(out);
    std::string text(buffer, size);
    free(buffer);
    return text;
}

std::string segment(const TavKeyMode& mode, int index)
{
    std::unique_ptr<char[]> text(mode.getKeySegment(index));
    return text ? std::string(text.get()) : std::string("<null>");
}

TEST(TavCmd, ReadsDigitsAndPushesBackTheFirstOther)
{
    TavCmd cmd(7);
    Stream none("x12");
    EXPECT_EQ(cmd.read(none.file), 0);
    EXPECT_EQ(cmd.flags, 7u);
    EXPECT_EQ(none.rest(), 'x');

    Stream number("19:/tav/");
    EXPECT_EQ(cmd.read(number.file), 1);
    EXPECT_EQ(cmd, TavCmd::GET | TavCmd::SET | TavCmd::COMMIT);
    EXPECT_EQ(number.rest(), ':');

    // A number beyond 32 bits saturates.
    Stream big("99999999999999999999");
    EXPECT_EQ(cmd.read(big.file), 1);
    EXPECT_EQ(cmd.flags, UINT_MAX);

    // At the limit of 511 digits the next character is not pushed back: it
    // stays unread, as the 512th digit.
    Stream longer(std::string(511, '0') + "5:");
    EXPECT_EQ(cmd.read(longer.file), 1);
    EXPECT_EQ(cmd.flags, 0u);
    EXPECT_EQ(longer.rest(), '5');
}

TEST(TavKeyMode, LineFormatRoundTripsAndRefusesBadLines)
{
    TavKeyMode mode("/tav/public/", TavCmd::GET | TavCmd::SET);
    EXPECT_EQ(written(mode), "3:/tav/public/\n");
    EXPECT_EQ(written(TavKeyMode(nullptr, TavCmd::SET)), "2");

    TavKeyMode back;
    Stream line("5:/a/b/c\n2:/x/\n");
    ASSERT_EQ(back.read(line.file), 1);
    EXPECT_STREQ(back.getKey(), "/a/b/c");
    EXPECT_EQ(back.getMode(), TavCmd::GET | TavCmd::ADD);
    EXPECT_EQ(back.numKeySegments(), 3);
    ASSERT_EQ(back.read(line.file), 1);
    EXPECT_STREQ(back.getKey(), "/x/");

    Stream noDigit("get:/a/\n");
    EXPECT_EQ(back.read(noDigit.file), 0);
    EXPECT_EQ(back.getKey(), nullptr);
    Stream noKey("1:\n");
    EXPECT_EQ(back.read(noKey.file), 0);
    Stream noSegment("1:/\n");
    EXPECT_EQ(back.read(noSegment.file), 0);
    EXPECT_EQ(back.getKey(), nullptr);

    Stream tooLong("1:/" + std::string(300, 'k') + "\n");
    try {
        back.read(tooLong.file);
        FAIL() << "no throw";
    } catch (const tav_enomem& e) {
        EXPECT_STREQ(e.getMsg(), "TavKeyMode::read buffer filled");
    }
}

TEST(TavKeyMode, SegmentsCountAndIndex)
{
    TavKeyMode trailing("/tav/public/");
    EXPECT_EQ(trailing.numKeySegments(), 2);
    EXPECT_EQ(segment(trailing, 0), "tav");
    EXPECT_EQ(segment(trailing, 1), "public");
    EXPECT_EQ(segment(trailing, 2), "");   // the end-of-walk marker
    EXPECT_EQ(segment(trailing, 3), "<null>");
    EXPECT_EQ(segment(trailing, -1), "<null>");

    TavKeyMode plain("/tav/public");
    EXPECT_EQ(plain.numKeySegments(), 2);
    EXPECT_EQ(segment(plain, 1), "public");
    EXPECT_EQ(segment(plain, 2), "<null>");

    TavKeyMode noLeading("tav/public/");
    EXPECT_EQ(noLeading.numKeySegments(), 1);
    EXPECT_EQ(segment(noLeading, 0), "public");
    EXPECT_EQ(segment(TavKeyMode("tav"), 0), "<null>");
    EXPECT_EQ(TavKeyMode("/").numKeySegments(), 0);
}

TEST(TavKeyMode, ComparesAtSegmentBoundaries)
{
    TavKeyMode tav("/tav");
    EXPECT_TRUE(tav.equals("/tav/"));
    EXPECT_TRUE(TavKeyMode("/tav/").equals("/tav"));
    EXPECT_FALSE(tav.equals("/tavx/"));
    EXPECT_TRUE(tav.lessThanOrEquals("/tav/public/"));
    EXPECT_TRUE(tav.lessThanOrEquals("/tav"));
    EXPECT_FALSE(TavKeyMode("/tav/").lessThanOrEquals("/tavx/"));
    EXPECT_FALSE(TavKeyMode("/tav/public/").lessThanOrEquals("/tav/"));
    EXPECT_FALSE(tav.equals(nullptr));

    // Keys far beyond the 1024 characters of the old copies compare whole.
    std::string longKey = "/" + std::string(5000, 'a');
    TavKeyMode big(longKey.c_str());
    EXPECT_TRUE(big.equals((longKey + "/").c_str()));
    EXPECT_FALSE(big.equals((longKey + "b").c_str()));
    EXPECT_TRUE(big.lessThanOrEquals((longKey + "/x/").c_str()));
}

std::string flattened(const TavKeyModeNode& root)
{
    TavVectorP<TavKeyMode> out(10);
    root.flatten(&out);
    std::string text;
    for (int i = 0; i < out.size(); ++i) {
        text += std::to_string(out[i]->getMode().flags) + ":" + out[i]->getKey() + "\n";
        delete out[i];
    }
    return text;
}

TEST(TavKeyModeNode, AddAccumulatesModesAndFlattenListsInnerNodes)
{
    TavKeyModeNode root;
    TavKeyMode get("/tav/public/", TavCmd::GET);
    TavKeyMode set("/tav/public", TavCmd::SET);
    EXPECT_EQ(root.addNode(&get, 0), 0);
    EXPECT_EQ(flattened(root), "0:/tav/\n1:/tav/public/\n");
    EXPECT_EQ(root.addNode(&set, 0), 0);
    TavKeyMode other("/tav/private/x/", TavCmd::DEL);
    TavKeyModeNode holder(&other);
    EXPECT_EQ(root.addNode(&holder), 0);
    EXPECT_EQ(flattened(root), "0:/tav/\n3:/tav/public/\n0:/tav/private/\n8:/tav/private/x/\n");
    EXPECT_EQ(root.numChildren(), 1);

    // Keys of no segment are refused and add nothing.
    for (const char* bad : {"", "/", "tav"}) {
        TavKeyMode none(bad, TavCmd::GET);
        EXPECT_EQ(root.addNode(&none, 0), -1) << bad;
    }
    TavKeyMode nullKey(nullptr, TavCmd::GET);
    EXPECT_EQ(root.addNode(&nullKey, 0), -1);
    EXPECT_EQ(root.numChildren(), 1);

    TavKeyModeNode copy(root);
    EXPECT_EQ(flattened(copy), flattened(root));
}

std::string path(TavKeyModeNode& root, const char* key)
{
    TavKeyMode mode(key);
    TavKeyModeNode node(&mode);
    std::unique_ptr<TavVectorP<TavTreeNode>> found(root.getPath(&node));
    std::string text;
    for (int i = 0; i < found->size(); ++i) {
        auto* hit = static_cast<TavKeyModeNode*>((*found)[i]);
        text += std::string(hit->getKeyMode()->getKey()) + "=" + std::to_string(hit->getMode().flags) + " ";
    }
    return text;
}

TEST(TavKeyModeNode, PathWalksDownTheKeyOnly)
{
    TavKeyModeNode root;
    TavKeyMode global("/global/", TavCmd::GET | TavCmd::SET);
    TavKeyMode noperm("/noperm/", TavCmd::SET);
    TavKeyMode deep("/global/security/admin/", TavCmd::DEL);
    root.addNode(&global, 0);
    root.addNode(&noperm, 0);
    root.addNode(&deep, 0);

    EXPECT_EQ(path(root, "/global/security/x/"), "global=3 security=0 ");
    EXPECT_EQ(path(root, "/global/security/admin/user/"), "global=3 security=0 admin=8 ");
    EXPECT_EQ(path(root, "/noperm/test/"), "noperm=2 ");
    EXPECT_EQ(path(root, "/globalx/"), "");
    // A grant below a key covers nothing above it: the walk stops at the
    // key's end with a trailing slash.
    EXPECT_EQ(path(root, "/global/"), "global=3 ");
    // Without the trailing slash the walk goes on below but adds nothing more.
    EXPECT_EQ(path(root, "/global"), "global=3 ");
}

TEST(TavModParam, SplitsKeyAndValue)
{
    TavModParam param("/tav/public/x/", "a//b/", 16);
    EXPECT_STREQ(param.getKey(0), "/tav/public/x/");
    EXPECT_STREQ(param.getKey(1), "tav");
    EXPECT_STREQ(param.getKey(3), "x");
    EXPECT_EQ(param.getNumKeyParts(), 3);
    EXPECT_EQ(param.getKey(4), nullptr);
    EXPECT_EQ(param.getKey(-1), nullptr);
    // "a//b/": three positions by the slashes, two filled.
    EXPECT_EQ(param.getNumValueParts(), 3);
    EXPECT_STREQ(param.getValue(1), "a");
    EXPECT_STREQ(param.getValue(2), "b");
    EXPECT_EQ(param.getValue(3), nullptr);

    TavModParam empty(nullptr, "", 0);
    EXPECT_STREQ(empty.getKey(0), "");
    EXPECT_STREQ(empty.getValue(0), "");
    int count = -1;
    EXPECT_EQ(parseString("/", 1, &count), nullptr);
    EXPECT_EQ(count, 0);
}

TEST(TavModParam, MessageGrowsByTheOneStepAndThenToWhatItNeeds)
{
    TavModParam param("/k/", "", 8);
    EXPECT_EQ(param.getMessageSize(), 8);
    param.appendMessage("abc", 4);
    param.appendMessage("def");
    int used = 0;
    EXPECT_STREQ(param.getMessage(&used), "abcdef");
    EXPECT_EQ(used, 7);
    EXPECT_EQ(param.getMessageID(), 4);

    // 7 used + 3 > 8: the step is 8 * (3 % 8 + 1) = 32.
    param.appendData("xyz", 3, 9);
    EXPECT_EQ(param.getMessageSize(), 40);
    EXPECT_EQ(param.getMessageUsed(), 10);
    EXPECT_EQ(param.getMessageID(), 9);
    // Raw bytes are no terminator: the next text keeps them.
    param.appendMessage("!");
    EXPECT_EQ(std::string(param.getMessage(&used), 12), std::string("abcdef\0xyz!\0", 12));

    // 12 + 100 > 40; the step gives 8 * (100 % 8 + 1) = 40, not enough:
    // the buffer grows to exactly 112.
    std::string big(100, 'q');
    param.appendData(big.data(), 100);
    EXPECT_EQ(param.getMessageSize(), 112);
    EXPECT_EQ(param.getMessageUsed(), 112);

    param.setMessage("hi", 2);
    EXPECT_EQ(std::string(param.getMessage(&used), 3), std::string("hi\0", 3));
    EXPECT_EQ(used, 2);
    param.setMessageSize(4);
    EXPECT_EQ(param.getMessageSize(), 112);

    // An allocation size below 1 is taken as 1.
    TavModParam tiny("/k/", "", 0);
    EXPECT_EQ(tiny.getMessageSize(), 1);
    tiny.appendMessage("hello");
    EXPECT_STREQ(tiny.getMessage(&used), "hello");
}

} // namespace

// Message lookups: the built-in tables, the ring of results and message
// files read through a simulated module.
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "sim/sim_platform.h"
#include "tests/sim/sim_fixture.h"
#include "tw_api/tw_api.h"
#include "tw_api/tw_msg_message.h"

namespace {

constexpr int GERMAN = 1;
constexpr int FRENCH = 5;
constexpr const char* DIRECTORY = "/etc/tw_messages";

TEST(TwMessage, BuiltInTextsAndTheirFormats) {
    tw_message m;
    EXPECT_STREQ(m.lookup(0, 1, nullptr, 0), "");
    EXPECT_STREQ(m.lookup(20, 1, nullptr, 0), "");
    EXPECT_STREQ(m.lookup(11, 8, nullptr, 0), "(0x0B:0x0008): Invalid controller ID");
    EXPECT_STREQ(m.lookup(11, 80, nullptr, 0), "(0x0B:0x0050): Unit configuration is not a mirror");
    EXPECT_STREQ(m.lookup(11, 81, nullptr, 0), "");
    EXPECT_STREQ(m.lookup(11, 14, nullptr, 0), "");  // an empty text is a miss
    EXPECT_STREQ(m.lookup(15, 2, nullptr, 0), "1(0x0F:0x0002): Unit became degraded");
    EXPECT_STREQ(m.lookup(19, 2, nullptr, 0), "Degraded");
    EXPECT_STREQ(m.lookup(2, 4, nullptr, 0), "(0x02:0x0004): DEBUG");
    EXPECT_STREQ(m.lookup(2, 5, nullptr, 0), "");
    EXPECT_STREQ(m.lookup(2, 0, nullptr, 0), "");
    EXPECT_EQ(std::string(m.lookup(9, EACCES, nullptr, 0)),
              std::string("(0x09:0x000D): ") + std::strerror(EACCES));
    EXPECT_STREQ(m.lookup(17, 1, nullptr, 0), "");  // a table of no rows
    EXPECT_STREQ(m.lookup(5, 1, nullptr, 0), "");   // a source of no table
    EXPECT_STREQ(m.lookup_in_array(11, 0xFFFFFFFFu), "");
}

TEST(TwMessage, ATextOutlivesTheNextNineLookups) {
    tw_message m;
    const char* first = m.lookup(11, 1, nullptr, 0);
    for (int i = 0; i < 9; ++i) {
        m.lookup(11, 2, nullptr, 0);
        m.lookup(20, 2, nullptr, 0);  // misses take no slot
    }
    EXPECT_STREQ(first, "(0x0B:0x0001): No controller");
}

// Counts the files the lookups open.
class CountingPlatform : public plat::ForwardingPlatform {
public:
    using plat::ForwardingPlatform::ForwardingPlatform;
    FILE* fopen(const char* path, const char* mode) override {
        ++opened;
        return plat::ForwardingPlatform::fopen(path, mode);
    }
    int opened = 0;
};

class TwMessageFiles : public ::testing::Test {
protected:
    TwMessageFiles() : module_(1, false), sim_((prepare(), module_.dir())), counting_(sim_),
                       scope_(counting_) {}

    void prepare() {
        ASSERT_EQ(simtest::createIdentityOnly(module_, 1), "");
        const std::string dir = std::string(DIRECTORY) + "/";
        module_.put(dir + "tw_msg_de",
                    "first line is no header\n"
                    "#0x03:1\n"
                    "0x0008:\"wrong source\"\n"
                    "#0x0B:9\n"
                    "0x0007:no quote\n"
                    "0x0008:\"\n"
                    "0x000B:\"" + std::string(700, 'a') + "\"\n"
                    "0x0008:\"Controller-Kennung ungueltig\" trailing\n"
                    "0x0009:\"Einheit ungueltig\"\n"
                    "0x0050:\"" + std::string(300, 'L') + "\"\n"
                    "0x0047:\"\"\n"
                    "0x01:\"short code\"\n"
                    "0x000D:\"Kein Rueckweg\"\n"
                    "#0x0F:1\n"
                    "0x0002:\"2Einheit beeintraechtigt\"\n"
                    "#0x0B:-3\n"
                    "0x000A:\"never searched\"\n"
                    "#0x0B:1\n"
                    "0x000C:\"Treiber fehlt\"\n"
                    "#0x11:99999999999999999999\n"
                    "0x000E:\"a block longer than the file\"");
        module_.put(dir + "tw_msg_en", "#0x0B:1\n0x0008:\"never read for language 0\"\n");
        module_.put(dir + "tdm_msg_de", "#0x0C:1\n0x0001:\"Gestartet\"\n#0x13:1\n0x0002:\"Herabgestuft\"\n");
    }

    simtest::TempModule module_;
    sim::SimPlatform sim_;
    CountingPlatform counting_;
    plat::ScopedPlatform scope_;
};

TEST_F(TwMessageFiles, TextsOfALanguageFileAndTheirFallbacks) {
    tw_message m;
    EXPECT_STREQ(m.lookup(11, 8, DIRECTORY, GERMAN), "(0x0B:0x0008): Controller-Kennung ungueltig");
    EXPECT_STREQ(m.lookup(11, 9, DIRECTORY, GERMAN), "(0x0B:0x0009): Einheit ungueltig");
    EXPECT_STREQ(m.lookup(15, 2, DIRECTORY, GERMAN), "2(0x0F:0x0002): Einheit beeintraechtigt");
    EXPECT_STREQ(m.lookup(12, 1, DIRECTORY, GERMAN), "(0x0C:0x0001): Gestartet");
    EXPECT_STREQ(m.lookup(19, 2, DIRECTORY, GERMAN), "Herabgestuft");
    EXPECT_STREQ(m.lookup(11, 12, DIRECTORY, GERMAN), "(0x0B:0x000C): Treiber fehlt");
    // The last block claims more lines than the file has, and its last line
    // has no newline.
    EXPECT_STREQ(m.lookup(17, 14, DIRECTORY, GERMAN),
                 "(0x11:0x000E): a block longer than the file");
    EXPECT_STREQ(m.lookup(11, 14, DIRECTORY, GERMAN), "");
    // Lines without two quotes, cut before their closing quote, with an empty
    // text, or in a block of no lines are passed over: the built-in text.
    EXPECT_STREQ(m.lookup(11, 7, DIRECTORY, GERMAN), "(0x0B:0x0007): Memory allocation failed");
    EXPECT_STREQ(m.lookup(11, 11, DIRECTORY, GERMAN), "(0x0B:0x000B): Invalid port ID");
    EXPECT_STREQ(m.lookup(11, 71, DIRECTORY, GERMAN),
                 "(0x0B:0x0047): Need to upgrade controller's driver or firmware");
    EXPECT_STREQ(m.lookup(11, 10, DIRECTORY, GERMAN), "(0x0B:0x000A): Invalid drive ID");
    EXPECT_STREQ(m.lookup(11, 1, DIRECTORY, GERMAN), "(0x0B:0x0001): No controller");
    // A language with no file.
    EXPECT_STREQ(m.lookup(11, 8, DIRECTORY, FRENCH), "(0x0B:0x0008): Invalid controller ID");
}

TEST_F(TwMessageFiles, LanguageZeroBadLanguagesAndNoDirectoryOpenNothing) {
    tw_message m;
    for (int language : {0, -1, 8, 1000}) {
        EXPECT_STREQ(m.lookup(11, 8, DIRECTORY, language), "(0x0B:0x0008): Invalid controller ID");
    }
    EXPECT_STREQ(m.lookup(11, 8, nullptr, GERMAN), "(0x0B:0x0008): Invalid controller ID");
    EXPECT_STREQ(m.lookup(9, 5, DIRECTORY, GERMAN),  // the system's texts have no files
                 (std::string("(0x09:0x0005): ") + std::strerror(5)).c_str());
    EXPECT_EQ(counting_.opened, 0);
    m.lookup(11, 8, DIRECTORY, GERMAN);
    EXPECT_EQ(counting_.opened, 1);
}

TEST_F(TwMessageFiles, ErrorInformationTakesLanguageAndDirectory) {
    tw_api_clear_error();
    tw_api_set_error(TW_ERROR_FLAG_API, 8, 0, 0, 0, nullptr);
    tw_api_error_type e;
    ASSERT_EQ(tw_get_error_information2(&e, GERMAN, DIRECTORY), 0);
    EXPECT_STREQ(e.text, "(0x0B:0x0008): Controller-Kennung ungueltig");
    ASSERT_EQ(tw_get_api_error(&e, DIRECTORY, GERMAN), 0);
    EXPECT_STREQ(e.text, "(0x0B:0x0008): Controller-Kennung ungueltig");
    ASSERT_EQ(tw_get_error_information(&e), 0);
    EXPECT_STREQ(e.text, "(0x0B:0x0008): Invalid controller ID");
}

TEST_F(TwMessageFiles, ALongTextIsOverwrittenAtItsEightBitLength) {
    tw_api_clear_error();
    tw_api_set_error(TW_ERROR_FLAG_API | TW_ERROR_FLAG_OS, 80, EIO, 0, 0, nullptr);
    tw_api_error_type e;
    ASSERT_EQ(tw_get_error_information2(&e, GERMAN, DIRECTORY), 0);
    const std::string api = "(0x0B:0x0050): " + std::string(300, 'L');  // 315 bytes
    const std::string os = std::string("(0x09:0x0005): ") + std::strerror(EIO);
    const size_t at = api.size() & 0xFF;
    EXPECT_EQ(std::string(e.text, std::strlen(e.text)), api.substr(0, at) + "\n" + os);
    EXPECT_EQ(e.text_length, (at + 1 + os.size()) & 0xFF);
}

} // namespace

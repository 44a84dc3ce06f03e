#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "sim/sim_fixture.h"
#include "tavutils/tav_elf.h"
#include "tavutils/tav_error.h"

namespace {

struct Section {
    uint32_t type;
    uint64_t offset;
    uint64_t size;
};

void put(std::string& bytes, size_t at, uint64_t value, size_t width)
{
    if (bytes.size() < at + width) bytes.resize(at + width, '\0');
    for (size_t i = 0; i < width; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

// An ELF image of either class: header, `dataSize` bytes of data, then the
// section table (or at `shoff` when given), with `shnum` as written.
std::string image(bool wide, uint16_t type, const std::vector<Section>& sections, size_t dataSize,
                  uint64_t shoff = 0, int shnum = -1)
{
    const size_t hdr = wide ? 64 : 52, ent = wide ? 64 : 40;
    std::string bytes(hdr + dataSize, '\x5a');
    std::memcpy(bytes.data(), "\x7f" "ELF", 4);
    bytes[4] = wide ? 2 : 1;
    bytes[5] = 1;
    for (size_t i = 6; i < 16; ++i) bytes[i] = 0;
    put(bytes, 16, type, 2);
    const uint64_t table = shoff ? shoff : bytes.size();
    put(bytes, wide ? 40 : 32, table, wide ? 8 : 4);
    put(bytes, wide ? 60 : 48, shnum < 0 ? sections.size() : static_cast<size_t>(shnum), 2);
    if (shoff) return bytes;
    for (size_t i = 0; i < sections.size(); ++i) {
        size_t at = table + i * ent;
        put(bytes, at + ent - 1, 0, 1);
        put(bytes, at + 4, sections[i].type, 4);
        put(bytes, at + (wide ? 24 : 16), sections[i].offset, wide ? 8 : 4);
        put(bytes, at + (wide ? 32 : 20), sections[i].size, wide ? 8 : 4);
    }
    return bytes;
}

class Elf : public ::testing::Test {
protected:
    Elf() : platform_(m_.dir()), scope_(platform_) {}
    const char* file(const std::string& bytes)
    {
        m_.put("./modules/x.module", bytes);
        return "./modules/x.module";
    }
    // The text thrown by init, or "" when it returned.
    std::string failure(const std::string& bytes)
    {
        try {
            elf_.init(file(bytes));
        } catch (const tav_error& e) {
            return e.getMsg();
        }
        return "";
    }

    simtest::TempModule m_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
    tav_elf elf_;
};

TEST_F(Elf, DataEndsAtTheLastSectionWithFileBytesInBothClasses)
{
    for (bool wide : {false, true}) {
        SCOPED_TRACE(wide ? "ELF64" : "ELF32");
        // A NOBITS section reaching further does not count, nor does the table.
        std::vector<Section> sections = {{0, 0, 0}, {1, 100, 300}, {8, 200, 5000}, {3, 400, 50}};
        ASSERT_EQ(failure(image(wide, 3, sections, 500)), "");
        EXPECT_TRUE(elf_.isElfFormat());
        EXPECT_TRUE(elf_.isSharedObject());
        EXPECT_EQ(elf_.size(), 450u);
    }
    tav_elf executable;
    m_.put("./modules/exe", image(true, 2, {{1, 64, 10}}, 10));
    executable.init("./modules/exe");
    EXPECT_TRUE(executable.isElfFormat());
    EXPECT_FALSE(executable.isSharedObject());
    EXPECT_EQ(executable.size(), 74u);

    // Not ELF at all, yet header-sized with an empty table: read, flagged.
    tav_elf text;
    m_.put("./modules/text", std::string(52, '\0'));
    text.init("./modules/text");
    EXPECT_FALSE(text.isElfFormat());
    EXPECT_EQ(text.size(), 0u);
}

TEST_F(Elf, EndsBeyond32BitsSaturateWithoutWrapping)
{
    // 32-bit fields whose sum leaves 32 bits, and 64-bit ones whose sum wraps.
    EXPECT_EQ(failure(image(false, 3, {{1, 0xFFFFFF00u, 0x200}}, 0)), "");
    EXPECT_EQ(elf_.size(), UINT32_MAX);
    EXPECT_EQ(failure(image(true, 3, {{1, UINT64_MAX - 4, 16}, {1, 10, 10}}, 0)), "");
    EXPECT_EQ(elf_.size(), UINT32_MAX);
}

TEST_F(Elf, ShortFilesAndBadTablesThrowTheirTexts)
{
    tav_elf none;
    try {
        none.init("./modules/missing.module");
        ADD_FAILURE() << "no throw";
    } catch (const tav_error& e) {
        EXPECT_STREQ(e.getMsg(), "fopen error");
    }
    EXPECT_EQ(failure(std::string(51, 'x')), "fread elf_hdr error");
    // A 64-bit class byte wants the longer header.
    EXPECT_EQ(failure(image(true, 3, {}, 0).substr(0, 60)), "fread elf_hdr error");

    std::string good = image(false, 3, {{1, 52, 8}, {1, 60, 8}}, 16);
    testing::internal::CaptureStderr();
    EXPECT_EQ(failure(good.substr(0, good.size() - 1)), "failed reading elf tables");
    EXPECT_EQ(failure(image(true, 3, {{1, 64, 8}}, 8, 0, 65535)), "failed reading elf tables");
    EXPECT_EQ(failure(image(true, 3, {}, 8, 1u << 30, 1)), "failed reading elf tables");
    EXPECT_EQ(failure(image(true, 3, {}, 8, UINT64_MAX, 1)), "failed reading elf tables");
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("./modules/x.module has bad elf tables"), std::string::npos) << log;
}

} // namespace

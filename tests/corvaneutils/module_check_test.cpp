// The signature and version checks of modules, against modules signed and
// forged by the simulation's own signer.
#include <cstdint>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "corvaneutils/tavmodule.h"
#include "platform/platform.h"
#include "sim/module_signer.h"
#include "sim/sim_fixture.h"
#include "signed_module_fixture.h"

namespace {

void put(std::string& bytes, size_t at, uint64_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

// A 64-bit ELF image of `type` with `dataSize` bytes of sections and the
// section table behind them, as a linker leaves it.
std::string object(size_t dataSize, uint16_t type = 3)
{
    std::string bytes(64 + dataSize + 3 * 64, '\0');
    std::memcpy(bytes.data(), "\x7f" "ELF\x02\x01\x01", 7);
    for (size_t i = 64; i < 64 + dataSize; ++i) bytes[i] = static_cast<char>(i * 7);
    put(bytes, 16, type, 2);
    put(bytes, 40, 64 + dataSize, 8);
    put(bytes, 60, 3, 2);
    const size_t table = 64 + dataSize;
    put(bytes, table + 64 + 4, 1, 4);  // data from 64 on
    put(bytes, table + 64 + 24, 64, 8);
    put(bytes, table + 64 + 32, dataSize, 8);
    put(bytes, table + 128 + 4, 8, 4);  // bss, beyond everything: no file bytes
    put(bytes, table + 128 + 24, 64, 8);
    put(bytes, table + 128 + 32, 1 << 20, 8);
    return bytes;
}

class ModuleCheck : public SignedModuleTest {
protected:
    ModuleCheck() { writeAndReadKeys(); }
    // The result of CheckSignature on `bytes`, with the log in `log_`.
    int check(const std::string& bytes)
    {
        m_.put("./modules/a.module", bytes);
        TAVModule module(nullptr);
        testing::internal::CaptureStderr();
        int rc = module.CheckSignature("./modules/a.module", &tavKey_, &vendorKey_);
        log_ = testing::internal::GetCapturedStderr();
        return rc;
    }
    int sign(size_t dataSize, sim::Forge forge)
    {
        std::string error;
        std::string signed_ = sim::signModule(object(dataSize), maker_, vendor_, forge, &error);
        EXPECT_EQ(error, "");
        return check(signed_);
    }
};

TEST_F(ModuleCheck, SignedModulesPassWhateverTheirLastBlock)
{
    // E = 64 + data + table once grown: a partial last block, and one under 1024 bytes.
    for (size_t dataSize : {3000u, 100u, 1024u * 3 - 64 - 192}) {
        SCOPED_TRACE(dataSize);
        EXPECT_EQ(sign(dataSize, sim::Forge::kNone), 0) << log_;
        const std::string e = std::to_string(64 + dataSize + 192);
        EXPECT_TRUE(logged("elf data:" + e + " >  file size:")) << log_;
        EXPECT_TRUE(logged("data signature is valid\n"));
        EXPECT_TRUE(logged("key signature is valid\n"));
        EXPECT_TRUE(logged("Module ./modules/a.module is certified\n"));
    }
}

TEST_F(ModuleCheck, EachForgeryIsRefusedWithItsText)
{
    struct Case {
        sim::Forge forge;
        const char* text;
    } cases[] = {
        {sim::Forge::kData, "ERROR:  data signature isn't valid\n"},
        {sim::Forge::kDataSig, "ERROR:  data signature isn't valid\n"},
        {sim::Forge::kExactDigest, "ERROR:  data signature isn't valid\n"},
        {sim::Forge::kKeySig, "ERROR:  key signature isn't valid\n"},
        {sim::Forge::kMaker, "ERROR:  key signature isn't valid\n"},
        {sim::Forge::kVendor, "Warning: Key for Module ./modules/a.module is unknown\n"},
        {sim::Forge::kTruncate, "ERROR:  fread of signature failed\n"},
        {sim::Forge::kNoTrailer, "ERROR:  elf data:3256 == file size:3256 => can't be signed\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(sign(3000, c.forge), -4);
        EXPECT_TRUE(logged(c.text)) << log_;
        EXPECT_EQ(logged("Warning: Module ./modules/a.module is NOT certified\n"), c.forge != sim::Forge::kVendor);
    }
    // The table left behind the sections: the trailer is read from the table.
    EXPECT_EQ(sign(3000, sim::Forge::kNoCover), -4);
    EXPECT_TRUE(logged("NOT certified"));
}

// A trailer cut inside each of its fields: the check stops at that field with
// its text, and the whole module still passes.
TEST_F(ModuleCheck, ATrailerCutInEachFieldIsRefusedWithThatFieldsText)
{
    std::string error;
    const std::string whole = sim::signModule(object(3000), maker_, vendor_, sim::Forge::kNone, &error);
    ASSERT_EQ(error, "");
    auto length = [&](size_t at) {
        uint32_t n = 0;
        for (size_t i = 4; i > 0; --i) n = n << 8 | static_cast<unsigned char>(whole[at + i - 1]);
        return n;
    };
    // The data signature, the vendor's p, q, g and public key, the key
    // signature: each a 32-bit length and its bytes, cut in both.
    const char* const texts[][2] = {{"fread of length failed", "fread of signature failed"},
                                    {"fread of dsa p failed", "fread of dsa p failed"},
                                    {"fread of dsa q failed", "fread of dsa q failed"},
                                    {"fread of dsa g failed", "fread of dsa g failed"},
                                    {"fread of dsa pub_key failed", "fread of dsa pub_key failed"},
                                    {"fread of length failed", "fread of signature failed"}};
    size_t at = 3256;  // E of object(3000), grown over its table
    int points = 0;
    for (const auto& text : texts) {
        const uint32_t n = length(at);
        const size_t cuts[2] = {at + 2, at + 4 + n / 2};
        for (int part = 0; part < 2; ++part) {
            SCOPED_TRACE(std::string(text[part]) + " at " + std::to_string(cuts[part]));
            EXPECT_EQ(check(whole.substr(0, cuts[part])), -4);
            EXPECT_TRUE(logged(std::string("ERROR:  ") + text[part] + "\n")) << log_;
            ++points;
        }
        at += 4 + n;
    }
    EXPECT_EQ(at, whole.size());
    EXPECT_EQ(points, 12);
    EXPECT_EQ(check(whole), 0) << log_;
}

TEST_F(ModuleCheck, FilesThatAreNoSignedModuleAreRefused)
{
    // The section table is read whatever the magic says: garbage fails there.
    EXPECT_EQ(check("just text, long enough to hold an ELF header's fifty-two bytes"), -4);
    EXPECT_TRUE(logged("ERROR:  failed reading elf tables\n")) << log_;
    EXPECT_EQ(check(std::string(64, '\0') + "text"), -4);
    EXPECT_TRUE(logged("ERROR:  ./modules/a.module is not Elf Format\n")) << log_;
    EXPECT_EQ(check(object(100, 2) + "trailer"), -4);
    EXPECT_TRUE(logged("ERROR:  ./modules/a.module is not SharedObject\n")) << log_;
    EXPECT_EQ(check(object(2000).substr(0, 1500)), -4);
    EXPECT_TRUE(logged("ERROR:  failed reading elf tables\n")) << log_;

    // Fresh from the linker: its "trailer" is its own section table.
    EXPECT_EQ(check(object(2000)), -4);
    EXPECT_TRUE(logged("NOT certified")) << log_;

    std::string grown = sim::signModule(object(2000), maker_, vendor_, sim::Forge::kNoTrailer, nullptr);
    std::string end = grown.substr(0, 64 + 2000 + 192);
    EXPECT_EQ(check(end + std::string(4, '\xff') + "short"), -4);
    EXPECT_TRUE(logged("ERROR:  fread of signature failed\n")) << log_;
    EXPECT_EQ(check(end + std::string(600, '\0')), -4);  // a trailer of zeros
    EXPECT_TRUE(logged("NOT certified")) << log_;
    EXPECT_EQ(check(end + std::string(4, '\0') + std::string(4, '\0') + "\xff\xff\xff\x7f"), -4);
    EXPECT_TRUE(logged("ERROR:  fread of dsa q failed\n")) << log_;
}

TEST_F(ModuleCheck, NoKeysVerifyNothing)
{
    std::string signed_ = sim::signModule(object(3000), maker_, vendor_, sim::Forge::kNone, nullptr);
    m_.put("./modules/a.module", signed_);
    tav_cryptoKey unreadMaker, unreadVendor;
    TAVModule module(nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(module.CheckSignature("./modules/a.module", &unreadMaker, &unreadVendor), -4);
    EXPECT_EQ(module.CheckSignature("./modules/a.module", &tavKey_, &unreadVendor), -4);
    EXPECT_EQ(module.CheckSignature(nullptr, &tavKey_, &vendorKey_), -4);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("ERROR:  key signature isn't valid\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Warning: Key for Module ./modules/a.module is unknown\n"), std::string::npos) << log;
}

TEST_F(ModuleCheck, VersionsPassAt65OrWhatTheVersionsFileRequires)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(checkVersion("6.5.9", "vendorx", "hello"), 0);
    EXPECT_EQ(checkVersion("6.5", "vendorx", "hello"), 0);
    EXPECT_EQ(checkVersion("6.4.2", "vendorx", "hello"), -1);
    EXPECT_EQ(checkVersion(nullptr, "vendorx", "hello"), -1);
    EXPECT_EQ(checkVersion("99999999999999999999.5.1", nullptr, nullptr), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("WARNING: version <6.4.2> should be <6.5.x>\n"), std::string::npos) << log;
    EXPECT_NE(log.find("WARNING: version not supplied, should be <6.5.x>\n"), std::string::npos) << log;

    const std::string longName(3000, 'n');
    m_.put("./configs/etc/sysconfig/module_versions",
           std::string("\xff\x01:garbage\n") + "vendorx." + longName + ":1.0.0\n" + "vendorx.hello:6.4.2\n" +
               "vendorx.older:6.4\nvendorx.newer:6.4.3\nvendorx.hello:9.9.9\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(checkVersion("6.4.2", "vendorx", "hello"), 0);  // the first line of the module decides
    EXPECT_EQ(checkVersion("6.4.0", "vendorx", "hello"), -1);
    EXPECT_EQ(checkVersion("6.3.9", "vendorx", "older"), -1);
    EXPECT_EQ(checkVersion("6.4.2", "vendorx", "newer"), -1);
    EXPECT_EQ(checkVersion("6.4.2", "vendorx", longName.c_str()), -1);  // no line matches it whole
    log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("WARNING: version <6.4.0> should be <6.4.2>\n"), std::string::npos) << log;
    EXPECT_NE(log.find("WARNING: version <6.3.9> should be <6.4.x>\n"), std::string::npos) << log;
    EXPECT_NE(log.find("WARNING: version <6.4.2> should be <6.4.3>\n"), std::string::npos) << log;
}

TEST(ModuleTables, ErrorsInfoAndExports)
{
    TAVModule module(nullptr);
    EXPECT_STREQ(module.GetError(-4), "Module has an invalid signature.");
    EXPECT_STREQ(module.GetError(0), "No Error.");
    EXPECT_EQ(module.GetError(-5), nullptr);
    EXPECT_EQ(module.GetError(1), nullptr);
    EXPECT_STREQ(module.GetInfo(4), "No Such Key");
    EXPECT_STREQ(module.GetInfo(-1), "No Such Key");
    EXPECT_STREQ(module.GetInfo(0), "");
    EXPECT_EQ(module.GetExtendedError(), nullptr);
    CORE_EXPORT_STRUCT data{};
    EXPECT_EQ(module.Import(&data), -1);
    EXPECT_EQ(module.Export(&data), -1);
}

} // namespace

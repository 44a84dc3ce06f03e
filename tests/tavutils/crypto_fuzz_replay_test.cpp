// The kept inputs of the module readers' fuzz targets, seeds and former
// crashes alike, run again through the same bodies.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "fuzz_replay.h"

#include "corvaneutils/tavmodule.h"
#include "module_fixture.h"

int elfFuzzOne(const uint8_t* data, size_t size);
int cryptoKeyFuzzOne(const uint8_t* data, size_t size);
int moduleVersionFuzzOne(const uint8_t* data, size_t size);
int moduleFileFuzzOne(const uint8_t* data, size_t size);
int moduleTrailerFuzzOne(const uint8_t* data, size_t size);

namespace {

int replay(const char* target, int (*body)(const uint8_t*, size_t))
{
    return fuzzreplay::replay(TAV_FUZZ_CORPUS, target, body);
}

TEST(CryptoFuzzReplay, ElfFiles) { EXPECT_GT(replay("elf", elfFuzzOne), 0); }
TEST(CryptoFuzzReplay, KeyRecords) { EXPECT_GT(replay("crypto_key", cryptoKeyFuzzOne), 0); }
TEST(CryptoFuzzReplay, ModuleVersions) { EXPECT_GT(replay("module_version", moduleVersionFuzzOne), 0); }
TEST(CryptoFuzzReplay, ModuleFiles) { EXPECT_GT(replay("module_file", moduleFileFuzzOne), 0); }

// The trailer target's seeds reach both verifications only while the kept
// keys and the fixed data part still match them: the signed seed passes.
TEST(CryptoFuzzReplay, ModuleTrailersAndTheirSignedSeed)
{
    EXPECT_GT(replay("module_trailer", moduleTrailerFuzzOne), 0);
    std::ifstream in(std::filesystem::path(TAV_FUZZ_CORPUS) / "module_trailer" / "signed", std::ios::binary);
    const std::string trailer((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(trailer.empty());
    modulefuzz::writeModule(modulefuzz::elfData() + trailer);  // the platform the targets installed
    TAVModule module(nullptr);
    EXPECT_EQ(module.CheckSignature("./modules/fuzz.module", &modulefuzz::keys().maker, &modulefuzz::keys().vendor), 0);
}

} // namespace

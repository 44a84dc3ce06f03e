// The kept inputs of the module readers' fuzz targets, seeds and former
// crashes alike, run again through the same bodies.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

int elfFuzzOne(const uint8_t* data, size_t size);
int cryptoKeyFuzzOne(const uint8_t* data, size_t size);
int moduleVersionFuzzOne(const uint8_t* data, size_t size);

namespace {

int replay(const char* target, int (*body)(const uint8_t*, size_t))
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(TAV_FUZZ_CORPUS) / target)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(entry.path().string());
        EXPECT_EQ(body(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0);
        ++count;
    }
    return count;
}

TEST(CryptoFuzzReplay, ElfFiles) { EXPECT_GT(replay("elf", elfFuzzOne), 0); }
TEST(CryptoFuzzReplay, KeyRecords) { EXPECT_GT(replay("crypto_key", cryptoKeyFuzzOne), 0); }
TEST(CryptoFuzzReplay, ModuleVersions) { EXPECT_GT(replay("module_version", moduleVersionFuzzOne), 0); }

} // namespace

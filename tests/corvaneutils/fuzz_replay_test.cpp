// Every kept input of the management plane's fuzz targets, seeds and former
// crashes alike, runs again through the same bodies.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

int keymodeFuzzOne(const uint8_t* data, size_t size);
int modparamFuzzOne(const uint8_t* data, size_t size);
int commandFuzzOne(const uint8_t* data, size_t size);
int agentRequestFuzzOne(const uint8_t* data, size_t size);

namespace {

int replay(const char* target, int (*body)(const uint8_t*, size_t))
{
    int count = 0;
    std::filesystem::path dir = std::filesystem::path(TAV_FUZZ_CORPUS) / target;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(entry.path().string());
        EXPECT_EQ(body(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0);
        ++count;
    }
    return count;
}

TEST(FuzzReplay, KeyModeLines) { EXPECT_GT(replay("keymode", keymodeFuzzOne), 0); }
TEST(FuzzReplay, ModParam) { EXPECT_GT(replay("modparam", modparamFuzzOne), 0); }
TEST(FuzzReplay, CommandTexts) { EXPECT_GT(replay("command", commandFuzzOne), 0); }
TEST(FuzzReplay, AgentRequests) { EXPECT_GT(replay("agent_request", agentRequestFuzzOne), 0); }

} // namespace

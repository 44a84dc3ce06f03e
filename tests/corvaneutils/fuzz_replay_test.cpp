// Every kept input of the management plane's fuzz targets, seeds and former
// crashes alike, runs again through the same bodies.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "fuzz_replay.h"

int keymodeFuzzOne(const uint8_t* data, size_t size);
int modparamFuzzOne(const uint8_t* data, size_t size);
int commandFuzzOne(const uint8_t* data, size_t size);
int agentRequestFuzzOne(const uint8_t* data, size_t size);

namespace {

int replay(const char* target, int (*body)(const uint8_t*, size_t))
{
    return fuzzreplay::replay(TAV_FUZZ_CORPUS, target, body);
}

TEST(FuzzReplay, KeyModeLines) { EXPECT_GT(replay("keymode", keymodeFuzzOne), 0); }
TEST(FuzzReplay, ModParam) { EXPECT_GT(replay("modparam", modparamFuzzOne), 0); }
TEST(FuzzReplay, CommandTexts) { EXPECT_GT(replay("command", commandFuzzOne), 0); }
TEST(FuzzReplay, AgentRequests) { EXPECT_GT(replay("agent_request", agentRequestFuzzOne), 0); }

} // namespace

// Replays the kept inputs of a fuzz target, seeds and former crashes alike,
// through the target's body: each must return 0.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace fuzzreplay {

// The number of inputs under CORPUS/TARGET run through `body`.
inline int replay(const std::string& corpus, const char* target, int (*body)(const uint8_t*, size_t))
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(corpus) / target)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(entry.path().string());
        EXPECT_EQ(body(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0);
        ++count;
    }
    return count;
}

} // namespace fuzzreplay

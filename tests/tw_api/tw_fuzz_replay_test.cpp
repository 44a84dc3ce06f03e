// The kept inputs of the controller API's fuzz targets, replayed: each runs
// to its end and leaves an error text terminated within its record.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz/tw_ioctl_input.h"
#include "fuzz/tw_os_input.h"

namespace {

std::vector<std::vector<uint8_t>> corpus(const std::string& name)
{
    std::vector<std::vector<uint8_t>> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(std::string(TW_FUZZ_CORPUS) + "/" + name)) {
        std::ifstream in(entry.path(), std::ios::binary);
        inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return inputs;
}

void expectTerminatedText()
{
    tw_api_error_type out;
    tw_get_api_error(&out, nullptr, 0);
    EXPECT_LT(strnlen(out.text, sizeof out.text), sizeof out.text);
}

} // namespace

TEST(TwFuzzReplay, KeptInputsOfBothTargetsRunToTheirEnd)
{
    const auto os = corpus("tw_os");
    const auto ioctl = corpus("tw_ioctl");
    ASSERT_FALSE(os.empty());
    ASSERT_FALSE(ioctl.empty());
    for (const auto& input : os) {
        EXPECT_EQ(twfuzz::osInput(input.data(), input.size()), 0);
        expectTerminatedText();
    }
    for (const auto& input : ioctl) {
        EXPECT_EQ(twfuzz::ioctlInput(input.data(), input.size()), 0);
        expectTerminatedText();
    }
}

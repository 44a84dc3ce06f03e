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

// The driver target's kept inputs, on a 9000 and a 7000 module.
#include <fcntl.h>
#include <sys/sysmacros.h>

#include "fuzz/tw_driver_input.h"
#include "tw_fixture.h"

TEST(TwFuzzReplay, KeptInputsOfTheDriverTargetRunToTheirEnd)
{
    const auto inputs = corpus("tw_driver");
    ASSERT_FALSE(inputs.empty());
    twtest::TwModule k9(9), k7(2);
    int fd9 = -1, fd7 = -1;
    {
        plat::ScopedPlatform scope(k9.p);
        fd9 = plat::open("/dev/twa0", O_RDWR, 0);
    }
    {
        plat::ScopedPlatform scope(k7.p);
        fd7 = plat::open("/dev/twe0", O_RDWR, 0);
    }
    ASSERT_GE(fd9, 0);
    ASSERT_GE(fd7, 0);
    for (const auto& input : inputs) twfuzz::driverInput(k9.p, fd9, k7.p, fd7, input.data(), input.size());
    // The drivers still answer after all of it.
    plat::ScopedPlatform scope(k9.p);
    sim::resetTwApi();
    tw_id_type c;
    tw_create_controller_id(0, &c);
    char model[TW_MODEL_SIZE];
    EXPECT_EQ(tw_get_model(c, model), 0);
    plat::close(fd9);
    {
        plat::ScopedPlatform s7(k7.p);
        plat::close(fd7);
    }
}

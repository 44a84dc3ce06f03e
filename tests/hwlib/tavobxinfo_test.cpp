#include <gtest/gtest.h>

#include "hwlib_fixture.h"
#include "tavutils/tavobxinfo.h"

namespace {

using tavtest::HwlibTest;

constexpr const char* kSerialFile = "./configs/etc/marrowby/system/.serialnumber";

TEST_F(HwlibTest, ObxInfoReadsTheSerialNumberFile)
{
    put(kSerialFile, "OBX-0042\nsecond line\n");
    EXPECT_STREQ(TavObxInfo::getSerialNumber(), "OBX-0042");
    EXPECT_STREQ(TavObxInfo::getModelName(), "Test Box");
    EXPECT_EQ(TavObxInfo::getModelId(), 7);
    EXPECT_STREQ(TavObxInfo::getPartnerSerialNumber(), "");
    TavObxInfo::setPartnerSerialNumber("OBX-0043");
    EXPECT_STREQ(TavObxInfo::getPartnerSerialNumber(), "OBX-0043");
}

TEST_F(HwlibTest, ObxInfoFallsBackToTheMacOfEth0)
{
    std::filesystem::remove(map(kSerialFile));
    EXPECT_TRUE(TavObxInfo::loadData());
    EXPECT_STREQ(TavObxInfo::getSerialNumber(), "00:1A:2B:3C:4D:5E");
}

TEST_F(HwlibTest, ObxInfoWithNothingToGo)
{
    module.noSocket = true;
    std::filesystem::remove(map(kSerialFile));
    put("/etc/marrowby/hwid.conf", "");
    EXPECT_FALSE(TavObxInfo::loadData());
    EXPECT_STREQ(TavObxInfo::getSerialNumber(), "Unknown");
    EXPECT_STREQ(TavObxInfo::getModelName(), "UNKNOWN");
    EXPECT_EQ(TavObxInfo::getModelId(), 0);
}

} // namespace

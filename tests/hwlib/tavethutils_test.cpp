#include <cstring>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "hwlib/tavethutils.h"
#include "hwlib_fixture.h"
#include "platform/platform.h"

namespace {

using tavtest::HwlibTest;

TEST_F(HwlibTest, TextFormsAndMinimumLengths)
{
    char text[32];
    EXPECT_EQ(eth_getMAC(0, text, 14), -2);
    EXPECT_EQ(eth_getMAC(0, text, 18), 0);
    EXPECT_STREQ(text, "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(eth_getMAC(1, text, 15), 0);
    EXPECT_STREQ(text, "00:1A:2B:3C:4D"); // cut by the length
    EXPECT_EQ(eth_getAddress(0, text, 15), -2);
    EXPECT_EQ(eth_getAddress(0, text, 16), 0);
    EXPECT_STREQ(text, "10.0.0.5");
    EXPECT_EQ(eth_getBroadcastAddress(0, text, 16), 0);
    EXPECT_STREQ(text, "0.0.0.0");
    EXPECT_EQ(eth_getAddress(1, text, 16), -4); // no address: the call fails
    EXPECT_EQ(eth_getMTU(1, text, 16), 0);
    EXPECT_STREQ(text, "9000");
    EXPECT_EQ(eth_getMetric(0, text, 16), 0);
    EXPECT_STREQ(text, "0");
    EXPECT_EQ(module.opened, module.closed);
}

TEST_F(HwlibTest, InfoFromSocketResultCodes)
{
    int sock = plat::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(sock, 0);
    char text[32] = "stale";
    ifreq data{};
    std::strcpy(data.ifr_name, "eth0");
    EXPECT_EQ(eth_getInfoFromSocket(-1, text, 32, SIOCGIFADDR, &data), -1);
    EXPECT_EQ(eth_getInfoFromSocket(sock, nullptr, 32, SIOCGIFADDR, &data), -3);
    EXPECT_EQ(eth_getInfoFromSocket(sock, text, 32, SIOCGIFFLAGS, &data), -5);
    EXPECT_EQ(eth_getInfoFromSocket(sock, text, 15, SIOCGIFADDR, &data), -2);
    std::strcpy(data.ifr_name, "eth7");
    EXPECT_EQ(eth_getInfoFromSocket(sock, text, 32, SIOCGIFADDR, &data), -4);
    EXPECT_STREQ(text, ""); // cleared before the call
    std::strcpy(data.ifr_name, "bond0");
    EXPECT_EQ(eth_getMACFromSocket(sock, text, 32, &data), 0);
    EXPECT_STREQ(text, "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(eth_getAddressFromSocket(sock, text, 32, &data), 0);
    EXPECT_STREQ(text, "10.0.0.9");
    plat::close(sock);

    module.noSocket = true;
    EXPECT_EQ(eth_getMAC(0, text, 32), -1);
    EXPECT_EQ(eth_getCount(), -1);
    EXPECT_EQ(eth_getStatus(0), -1);
}

TEST_F(HwlibTest, CountAndStatusOfTheEthInterfaces)
{
    EXPECT_EQ(eth_getCount(), 2);
    EXPECT_EQ(eth_getStatus(0), 1);
    EXPECT_EQ(eth_getStatus(1), 0);
    EXPECT_EQ(eth_getStatus(2), -4);
    EXPECT_EQ(eth_getStatus(-1), -4);
    EXPECT_EQ(module.opened, module.closed);
}

TEST(HwlibModule, CreatedModuleHasTwoEthInterfacesAndABond)
{
    simtest::TempModule temp;
    sim::SimPlatform platform(temp.dir());
    plat::ScopedPlatform scope(platform);
    char mac0[32], mac1[32], address[32];
    EXPECT_EQ(eth_getCount(), 2);
    ASSERT_EQ(eth_getMAC(0, mac0, sizeof mac0), 0);
    ASSERT_EQ(eth_getMAC(1, mac1, sizeof mac1), 0);
    EXPECT_STRNE(mac0, mac1);
    EXPECT_EQ(std::string(mac0, 3), "02:"); // locally administered

    int sock = plat::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq data{};
    std::strcpy(data.ifr_name, "bond0");
    EXPECT_EQ(eth_getAddressFromSocket(sock, address, sizeof address, &data), 0);
    EXPECT_STREQ(address, "192.168.50.5");
    plat::close(sock);
}

} // namespace

#include <arpa/inet.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "hwlib/tavhwid.h"
#include "sim/tavsim.h"
#include "sim_fixture.h"

using namespace simtest;

TEST(Identity, EveryPlatformIsRecognisedWithItsNvramRows)
{
    // NVRAM cards per platform: the RAID families have them, the IDE ones none.
    const std::map<int, int> cards = {{2, 1}, {5, 3}, {6, 1}, {8, 2}, {9, 1}, {10, 1}, {11, 2}, {15, 1}};
    std::set<std::string> configs;
    for (int id = 1; id <= 15; ++id) {
        SCOPED_TRACE("platform " + std::to_string(id));
        TempModule m(id, false);
        sim::CreateOptions options;
        options.platform = id;
        options.identityOnly = true;
        ASSERT_EQ(sim::createModule(m.dir(), options), "");
        sim::SimPlatform platform(m.dir());
        plat::ScopedPlatform scope(platform);
        EXPECT_EQ(hwid_getModelId(nullptr), id);
        char config[64] = "", location[256] = "";
        EXPECT_EQ(hwid_getModelConfigName(nullptr, config, sizeof config), 0);
        configs.insert(config);
        ASSERT_EQ(hwid_getConfigsLocation(location, sizeof location), 0);
        struct stat st;
        EXPECT_EQ(plat::stat((std::string(location) + "features.conf").c_str(), &st), 0);
        hwidResource resource;
        EXPECT_EQ(resource.GetNResources("PCI", "NVRAM"), cards.count(id) ? cards.at(id) : 0);
    }
    EXPECT_EQ(configs.size(), 15u);

    TempModule none(99);
    sim::SimPlatform platform(none.dir());
    plat::ScopedPlatform scope(platform);
    EXPECT_EQ(hwid_getModelId(nullptr), 0) << "an identifier without a model is not recognised";
}

TEST(Identity, FeatureSettingsOfCreateAreReadBackAndShowNamesTheModel)
{
    TempModule m(1, false);
    ASSERT_EQ(callTavsim({"create", m.dir(), "--platform", "4", "--sectors", "1000000", "--any-size", "--feature",
                          "RAID:chunk_size=128", "--feature", "SIM-ATA 80G:dma_mode=5", "--feature",
                          "RAID:auto_rebuild=no"}),
              0);
    {
        sim::SimPlatform platform(m.dir());
        plat::ScopedPlatform scope(platform);
        char value[32] = "";
        EXPECT_EQ(hwid_getFeatureSetting("RAID", "chunk_size", value, sizeof value), 0);
        EXPECT_STREQ(value, "128");
        EXPECT_EQ(hwid_getFeatureSetting("RAID", "auto_rebuild", value, sizeof value), 0);
        EXPECT_STREQ(value, "no");
        EXPECT_EQ(hwid_getFeatureSetting("SIM-ATA 80G", "dma_mode", value, sizeof value), 0);
        EXPECT_STREQ(value, "5") << "the model's setting wins over the common default";
        testing::internal::CaptureStdout();
        EXPECT_EQ(hwid_getFeatureSetting("IOSCHED", "schedule", value, sizeof value), 0);
        testing::internal::GetCapturedStdout();
        EXPECT_STREQ(value, "deadline") << "the common default";
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(callTavsim({"show", m.dir()}), 0);
    std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_NE(shown.find("\nmodel 4 obx1ub OBX 1U Rev B\n"), std::string::npos) << shown;

    TempModule bad(1, false);
    EXPECT_NE(callTavsim({"create", bad.dir(), "--platform", "1", "--feature", "RAID=x"}), 0);
    EXPECT_NE(callTavsim({"create", bad.dir(), "--platform", "1", "--feature", "RAID:k=a;b"}), 0);
    EXPECT_NE(callTavsim({"create", bad.dir(), "--platform", "5"}), 0) << "drives of the family come later";
    EXPECT_EQ(callTavsim({"create", bad.dir(), "--platform", "2", "--no-drives"}), 0);
}

TEST(Identity, InterfacesAnswerTheSocketQueries)
{
    TempModule m;
    sim::SimPlatform platform(m.dir());
    plat::ScopedPlatform scope(platform);
    platform.module().writeState("interfaces", "lo hwaddr=00:00:00:00:00:00 flags=up address=127.0.0.1\n"
                                               "eth0 hwaddr=00:1A:2B:3C:4D:5E flags=up mtu=1500 metric=3 "
                                               "address=10.0.0.5 netmask=255.255.255.0 broadcast=10.0.0.255\n"
                                               "eth1 hwaddr=zz flags=up\n"
                                               "bond0 hwaddr=00:1A:2B:3C:4D:5E flags=down address=10.0.0.9\n");
    int sock = plat::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(sock, 0);
    auto address = [](const ifreq& r) {
        sockaddr_in a;
        std::memcpy(&a, &r.ifr_addr, sizeof a);
        return std::string(inet_ntoa(a.sin_addr));
    };
    ifreq r{};
    std::strcpy(r.ifr_name, "eth0");
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFNETMASK, &r), 0);
    EXPECT_EQ(address(r), "255.255.255.0");
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFDSTADDR, &r), 0);
    EXPECT_EQ(address(r), "10.0.0.5");
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFMETRIC, &r), 0);
    EXPECT_EQ(r.ifr_metric, 3);
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFINDEX, &r), 0);
    EXPECT_EQ(r.ifr_ifindex, 2);
    std::strcpy(r.ifr_name, "eth1");
    EXPECT_EQ(plat::ioctl(sock, SIOCGIFHWADDR, &r), -1) << "a line that cannot be read is no interface";
    EXPECT_EQ(errno, ENODEV);
    std::strcpy(r.ifr_name, "bond0");
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFFLAGS, &r), 0);
    EXPECT_FALSE(r.ifr_flags & IFF_UP);

    // The list of configured interfaces, first its length alone.
    ifconf conf{};
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFCONF, &conf), 0);
    EXPECT_EQ(conf.ifc_len, static_cast<int>(3 * sizeof(ifreq)));
    ifreq list[2];
    conf.ifc_len = sizeof list;
    conf.ifc_req = list;
    ASSERT_EQ(plat::ioctl(sock, SIOCGIFCONF, &conf), 0);
    ASSERT_EQ(conf.ifc_len, static_cast<int>(sizeof list));
    EXPECT_STREQ(list[1].ifr_name, "eth0");
    EXPECT_EQ(address(list[1]), "10.0.0.5");
    plat::close(sock);
}

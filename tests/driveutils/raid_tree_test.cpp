// The RAID tree on its own: records in and out of the tables, the deep copy,
// and the generic evaluation (status, quorum, what losing a disk would do)
// over a family whose engine answers are set by the test.
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "driveutils/store_fixture.h"
#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavraiddevices.h"

namespace raidtest {
namespace {

using RD = TavRaidDevice;

// An md node whose engine is the test: array states by name, the members
// that rebuild, and the members it was told to fail.
class Scripted : public TavMdRaidDevice {
public:
    using TavMdRaidDevice::TavMdRaidDevice;
    static inline std::map<std::string, RaidStatus> arrays;
    static inline std::set<std::string> rebuilding;
    static inline std::vector<std::string> failed;

    TavRaidDevice* addSubdevice(int level, int n, char** names, int num) override
    {
        return adopt(new Scripted(level, n, names, nullptr, num, 0));
    }
    RaidStatus checkRaidStatus(const char* device) override
    {
        auto it = arrays.find(device);
        return it == arrays.end() ? NOMINAL : it->second;
    }
    bool isRebuilding() override { return rebuilding.count(deviceName) > 0; }
    int raidSetFaulty() override
    {
        failed.push_back(deviceName);
        return 0;
    }
};

// Tables as the signature holds them.
struct Tables {
    std::vector<SECT_DEVICE_TABLE> devices;
    std::vector<SECT_STRING_TABLE> strings;
};

Tables flatten(TavRaidDevices& tree)
{
    TavVectorP<SECT_DEVICE_TABLE> devices(10);
    TavVectorP<SECT_STRING_TABLE> strings(10);
    devices.add(new SECT_DEVICE_TABLE());
    strings.add(new SECT_STRING_TABLE());
    tree.buildTables(&devices, &strings);
    Tables out;
    for (int i = 0; i < devices.size(); ++i) out.devices.push_back(*devices[i]), delete devices[i];
    for (int i = 0; i < strings.size(); ++i) out.strings.push_back(*strings[i]), delete strings[i];
    return out;
}

TavRaidDevices* read(Tables& t)
{
    return new TavRaidDevices(t.devices.data(), t.strings.data(), static_cast<int>(t.devices.size()),
                              static_cast<int>(t.strings.size()));
}

SECT_RAID_DEV rec(uint32_t num, int16_t type, int16_t level, uint32_t n, int16_t active = 1)
{
    SECT_RAID_DEV r{};
    r.deviceNum = num;
    r.deviceType = type;
    r.raidLevel = level;
    r.numDevices = n;
    r.isActive = active;
    r.stringTable = -1;
    r.stringIndex = -1;
    return r;
}

// An array of `level` over disks at `positions`, as configuration makes it.
template <typename Node = TavMdRaidDevice>
RD* array(int level, int number, std::vector<int> positions, const char* mount = nullptr, int spares = 0)
{
    RD* top = new Node(level, static_cast<int>(positions.size()), nullptr, mount, number, spares);
    for (int p : positions) top->addSubdevice(-1, 0, nullptr, p);
    return top;
}

std::string bytes(const Tables& t)
{
    return std::string(reinterpret_cast<const char*>(t.devices.data()), t.devices.size() * 512) +
           std::string(reinterpret_cast<const char*>(t.strings.data()), t.strings.size() * 512);
}

class Tree : public storetest::ManagerTest {
protected:
    Tree()
    {
        Scripted::arrays.clear();
        Scripted::rebuilding.clear();
        Scripted::failed.clear();
    }
};

TEST_F(Tree, RaidFiveOfFourDisksIsFiveRecordsAndRebuildsToTheSameShape)
{
    TavRaidDevices tree;
    tree.add(array(5, 3, {1, 2, 3, 4}, "/data"));
    Tables t = flatten(tree);
    ASSERT_EQ(t.devices.size(), 1u);
    ASSERT_EQ(t.strings.size(), 1u);
    EXPECT_EQ(t.devices[0].devices[0].deviceNum, 3u);
    EXPECT_EQ(t.devices[0].devices[0].stringTable, 0);
    EXPECT_EQ(t.devices[0].devices[0].stringIndex, 0);
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(t.devices[0].devices[i].deviceType, RD::DISK);
        EXPECT_EQ(t.devices[0].devices[i].deviceNum, static_cast<uint32_t>(i));
        EXPECT_EQ(t.devices[0].devices[i].raidLevel, -1);
        EXPECT_EQ(t.devices[0].devices[i].stringTable, -1);
    }
    EXPECT_EQ(t.devices[0].devices[5].deviceNum, 0u) << "five records, then the end";
    EXPECT_EQ(std::string(reinterpret_cast<char*>(t.strings[0].data), 6), std::string("\x05/data", 6));

    std::unique_ptr<TavRaidDevices> back(read(t));
    ASSERT_EQ(back->getNTopLevelDevs(), 1);
    RD* top = back->getNthTopLevelDev(0);
    EXPECT_STREQ(top->getName(), "/dev/md3");
    EXPECT_STREQ(top->getMountPoint(), "/data");
    ASSERT_EQ(top->getSubdeviceCount(), 4);
    EXPECT_EQ(top->getSubdevice(1)->getParent(), top);
    EXPECT_STREQ(top->getSubdeviceName(1), "/dev/ide/host0/bus0/target1/lun0/part2");
    EXPECT_EQ(top->getSubdeviceNumber(3), 4);
    EXPECT_EQ(back->getDiskCount(), 4);
    EXPECT_EQ(back->getRaidDevCount(), 1);
    EXPECT_EQ(back->findDisk(4), top->getSubdevice(3));
    EXPECT_EQ(back->findDevice("/dev/md3"), top);
    EXPECT_EQ(back->getRaidLevel(), 5);
    EXPECT_EQ(bytes(flatten(*back)), bytes(t)) << "the same records and strings again";
}

TEST_F(Tree, TwentyTwoNodesTakeTwoTablesAndTheIndexRunOfTopLevelDevices)
{
    std::vector<int> disks;
    for (int i = 1; i <= 21; ++i) disks.push_back(i);
    TavRaidDevices tree;
    tree.add(array(0, 1, disks));
    tree.add(array(1, 2, {1, 2}));
    Tables t = flatten(tree);
    ASSERT_EQ(t.devices.size(), 2u);
    EXPECT_EQ(t.devices[0].devices[20].deviceNum, 20u);
    EXPECT_EQ(t.devices[1].devices[0].deviceNum, 21u) << "the 22nd record stands in slot 0 of the second table";
    EXPECT_EQ(t.devices[1].devices[1].deviceNum, 2u) << "the next top-level device right behind";
    EXPECT_EQ(t.devices[1].devices[1].deviceType, RD::ARRAY);

    std::unique_ptr<TavRaidDevices> back(read(t));
    ASSERT_EQ(back->getNTopLevelDevs(), 2);
    EXPECT_EQ(back->getNthTopLevelDev(0)->getSubdeviceCount(), 21);
    EXPECT_EQ(back->getNthTopLevelDev(1)->getSubdeviceCount(), 2);
    EXPECT_EQ(back->getNthRaidDev(1), back->getNthTopLevelDev(1)) << "disks under an array are no RAID devices";
    EXPECT_EQ(bytes(flatten(*back)), bytes(t));

    // With only the first table the list ends where the tables do.
    std::unique_ptr<TavRaidDevices> cut(new TavRaidDevices(t.devices.data(), t.strings.data(), 1, 1));
    ASSERT_EQ(cut->getNTopLevelDevs(), 1);
    EXPECT_EQ(cut->getNthTopLevelDev(0)->getSubdeviceCount(), 20);
}

TEST_F(Tree, MountPointsOfASecondTopLevelDeviceAndOfChildrenFollowTheStringRules)
{
    TavRaidDevices tree;
    tree.add(array(1, 1, {1, 2}, "/first"));
    tree.add(array(1, 2, {3, 4}, "/two"));
    Tables t = flatten(tree);
    ASSERT_EQ(t.strings.size(), 1u);
    EXPECT_EQ(t.devices[0].devices[3].stringIndex, 0) << "each top-level device starts at offset 0";
    std::unique_ptr<TavRaidDevices> back(read(t));
    EXPECT_STREQ(back->getNthTopLevelDev(0)->getMountPoint(), "/two") << "the second text overwrote the first";
    EXPECT_STREQ(back->getNthTopLevelDev(1)->getMountPoint(), "/two");

    // A child with a mount point of its own sits one parent text further on
    // per sibling.
    Tables in;
    in.devices.resize(1);
    in.strings.resize(1);
    in.devices[0].devices[0] = rec(9, RD::ARRAY, 1, 2);
    in.devices[0].devices[1] = rec(7, RD::ARRAY, 5, 0);
    in.devices[0].devices[2] = rec(8, RD::ARRAY, 5, 0);
    for (int i = 0; i < 3; ++i) {
        in.devices[0].devices[i].stringTable = 0;
        in.devices[0].devices[i].stringIndex = 100 + 10 * i;
        std::memcpy(in.strings[0].data + 100 + 10 * i, i == 0 ? "\x02/m" : "\x02/c", 3);
    }
    std::unique_ptr<TavRaidDevices> nested(read(in));
    Tables n = flatten(*nested);
    EXPECT_EQ(n.devices[0].devices[0].stringIndex, 0);
    EXPECT_EQ(n.devices[0].devices[1].stringIndex, 3);
    EXPECT_EQ(n.devices[0].devices[2].stringIndex, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(n.strings[0].data), 9), std::string("\x02/m\x02/c\x02/c", 9));

    std::string longName(RD::MAX_MOUNT_POINT + 40, 'x');
    TavRaidDevices many;
    for (int i = 1; i <= 5; ++i) many.add(new TavMdRaidDevice(-1, 0, nullptr, ("/" + longName).c_str(), i, 0));
    Tables m = flatten(many);
    EXPECT_EQ(m.strings.size(), 1u) << "top-level devices all start at offset 0";
    EXPECT_EQ(m.strings[0].data[0], RD::MAX_MOUNT_POINT) << "a mount point is kept to one signed length byte";
    std::unique_ptr<TavRaidDevices> mb(read(m));
    EXPECT_EQ(std::strlen(mb->getNthTopLevelDev(4)->getMountPoint()), static_cast<size_t>(RD::MAX_MOUNT_POINT));
}

TEST_F(Tree, DeepCopyKeepsTheTopRecordAndReducesTheChildren)
{
    TavRaidDevices tree;
    RD* top = array(5, 4, {1, 2, 3}, "/data", 1);
    top->setActive(0);
    top->getSubdevice(1)->setActive(0);
    top->setLastStatus(RD::DEGRADED);
    tree.add(top);
    TavRaidDevices copy(tree);
    RD* c = copy.getNthTopLevelDev(0);
    ASSERT_NE(c, top);
    EXPECT_EQ(std::memcmp(c->getDescription(), top->getDescription(), sizeof(SECT_RAID_DEV)), 0);
    EXPECT_STREQ(c->getMountPoint(), "/data");
    EXPECT_NE(c->getMountPoint(), top->getMountPoint());
    EXPECT_EQ(c->getSpareDiskCount(), 1);
    EXPECT_EQ(c->getLastStatus(), RD::DEGRADED);
    ASSERT_EQ(c->getSubdeviceCount(), 3);
    EXPECT_EQ(c->getSubdevice(1)->isActive(), 1) << "a copied child is active whatever the live one says";
    EXPECT_EQ(c->getSubdevice(1)->getParent(), c);
    EXPECT_STREQ(c->getSubdevice(1)->getName(), top->getSubdevice(1)->getName());
    copy.clearDevices();
    EXPECT_EQ(copy.getNTopLevelDevs(), 0);
    EXPECT_EQ(copy.getRaidLevel(), -1);
    EXPECT_EQ(copy.checkRaid(), RD::NOMINAL) << "an empty tree";
}

TEST_F(Tree, DamagedTablesBuildABoundedTreeThatFlattensAgain)
{
    // A count of 2^32-1, a chain nested as deep as the records go, and
    // mount points out of bounds, past the table end, or of negative length.
    Tables t;
    t.devices.resize(100);
    t.strings.resize(2);
    t.devices[0].devices[0] = rec(1, RD::ARRAY, 5, 0xffffffffu);
    for (int i = 1; i < 100 * 21; ++i) t.devices[i / 21].devices[i % 21] = rec(2, RD::ARRAY, 1, 1);
    t.devices[0].devices[0].stringTable = 1;
    t.devices[0].devices[0].stringIndex = 510;
    t.strings[1].data[510] = 100;
    t.strings[1].data[511] = 'z';
    t.devices[0].devices[1].stringTable = 7;
    t.devices[0].devices[1].stringIndex = 0;
    t.devices[0].devices[2].stringTable = 0;
    t.devices[0].devices[2].stringIndex = 0;
    t.strings[0].data[0] = 0x80;
    std::unique_ptr<TavRaidDevices> tree(read(t));
    ASSERT_EQ(tree->getNTopLevelDevs(), 1);
    RD* top = tree->getNthTopLevelDev(0);
    EXPECT_STREQ(top->getMountPoint(), "z") << "cut at the end of its table";
    EXPECT_EQ(top->getSubdevice(0)->getMountPoint(), nullptr) << "a table that does not exist";
    EXPECT_STREQ(top->getSubdevice(0)->getSubdevice(0)->getMountPoint(), "") << "a negative length";
    int depth = 0;
    for (RD* n = top; n->getSubdeviceCount() > 0; n = n->getSubdevice(0)) ++depth;
    EXPECT_EQ(depth, TAV_RAID_MAX_DEPTH);
    Tables again = flatten(*tree);
    EXPECT_GE(again.devices.size(), 1u);
    std::unique_ptr<TavRaidDevices> back(read(again));
    EXPECT_EQ(back->getRaidDevCount(), tree->getRaidDevCount());

    // A count past the last table stops at the end of the tables.
    Tables small;
    small.devices.resize(1);
    small.strings.resize(1);
    small.devices[0].devices[0] = rec(4, RD::ARRAY, 0, 0xffffffffu);
    for (int i = 1; i < 21; ++i) small.devices[0].devices[i] = rec(static_cast<uint32_t>(i), RD::DISK, -1, 0);
    std::unique_ptr<TavRaidDevices> wide(read(small));
    EXPECT_EQ(wide->getNthTopLevelDev(0)->getSubdeviceCount(), 20);
    EXPECT_EQ(flatten(*wide).devices.size(), 1u);

    // A device number of 2^31 or more ends the list as 0 does.
    small.devices[0].devices[0].deviceNum = 0x80000000u;
    std::unique_ptr<TavRaidDevices> none(read(small));
    EXPECT_EQ(none->getNTopLevelDevs(), 0);
}

TEST_F(Tree, CheckRaidCountsASecondDeadDiskUnlessASpareIsConfigured)
{
    // Bays 2 and 3 pulled: their drives answer no ping.
    sim::Module module(m_.dir());
    ASSERT_EQ(module.pull(2), "");
    TavRaidDevices tree;
    tree.add(array<Scripted>(5, 1, {1, 2, 3, 4}));
    EXPECT_EQ(tree.checkRaid(), RD::DEGRADED);
    EXPECT_EQ(Scripted::failed, std::vector<std::string>{"/dev/ide/host0/bus0/target1/lun0/part2"});
    EXPECT_EQ(tree.getNthTopLevelDev(0)->getSubdevice(1)->isActive(), 0);
    EXPECT_EQ(tree.checkRaid(), RD::DEGRADED);
    EXPECT_EQ(Scripted::failed.size(), 1u) << "an inactive disk is not failed again";

    ASSERT_EQ(module.pull(3), "");
    EXPECT_EQ(tree.checkRaid(), RD::OFF) << "the second dead disk";
    tree.getNthTopLevelDev(0)->setSpareDiskCount(1);
    EXPECT_EQ(tree.checkRaid(), RD::DEGRADED) << "a spare is configured";

    // The array's own status counts, and OFF there ends the walk.
    Scripted::arrays["/dev/md1"] = RD::REBUILDING;
    EXPECT_EQ(tree.checkRaid(), RD::DEGRADED);
    Scripted::arrays["/dev/md1"] = RD::OFF;
    EXPECT_EQ(tree.checkRaid(), RD::OFF);

    // A RAID 0 is off with one disk gone; a lone disk of level below 1 too.
    TavRaidDevices stripe;
    stripe.add(array<Scripted>(0, 2, {1, 2}));
    stripe.add(new Scripted(-1, 0, nullptr, nullptr, 4, 0));
    EXPECT_EQ(stripe.checkRaid(), RD::OFF);
    TavRaidDevices lone;
    lone.add(new Scripted(-1, 0, nullptr, nullptr, 3, 0));
    EXPECT_EQ(lone.checkRaid(), RD::OFF);
    lone.add(new Scripted(-1, 0, nullptr, nullptr, 1, 0));
    EXPECT_EQ(lone.checkRaid(), RD::OFF) << "the list stops at the first OFF";
}

TEST_F(Tree, QuorumNeedsAllButOneOfARaidFiveAndOneBranchOfAMirror)
{
    TavRaidDevices tree;
    tree.add(array<Scripted>(5, 1, {1, 2, 3, 4}));
    int ok[5] = {1, 1, 1, 0, 0};
    EXPECT_TRUE(tree.haveQuorum(ok)) << "three of four";
    ok[2] = 0;
    EXPECT_FALSE(tree.haveQuorum(ok)) << "two of four";

    // A RAID 1 of RAID 5 arrays: one good branch is enough.
    RD* mirror = new Scripted(1, 2, nullptr, nullptr, 10, 0);
    RD* left = mirror->addSubdevice(5, 2, nullptr, 11);
    left->addSubdevice(-1, 0, nullptr, 1);
    left->addSubdevice(-1, 0, nullptr, 2);
    RD* right = mirror->addSubdevice(5, 2, nullptr, 12);
    right->addSubdevice(-1, 0, nullptr, 3);
    right->addSubdevice(-1, 0, nullptr, 4);
    TavRaidDevices nested;
    nested.add(mirror);
    int branch[5] = {0, 0, 1, 0, 0};
    EXPECT_TRUE(nested.haveQuorum(branch));
    int neither[5] = {1, 0, 0, 0, 0};
    EXPECT_TRUE(nested.haveQuorum(neither)) << "a RAID 5 of two lives with one member";
    int none[5] = {0, 0, 0, 0, 0};
    EXPECT_FALSE(nested.haveQuorum(none));

    // A disk marked good whose node is gone has no quorum; nor has a level 6.
    sim::Module(m_.dir()).pull(1);
    TavRaidDevices lone;
    lone.add(new Scripted(-1, 0, nullptr, nullptr, 1, 0));
    int all[5] = {1, 1, 1, 1, 1};
    EXPECT_FALSE(lone.haveQuorum(all));
    TavRaidDevices six;
    six.add(array<Scripted>(6, 2, {2, 3}));
    EXPECT_FALSE(six.haveQuorum(all));
    EXPECT_TRUE(TavRaidDevices().haveQuorum(all)) << "an empty list";
}

TEST_F(Tree, WhatLosingAMemberWouldDo)
{
    TavRaidDevices tree;
    RD* mirror = array<Scripted>(1, 1, {1, 2});
    RD* parity = array<Scripted>(5, 2, {1, 2, 3, 4});
    tree.add(mirror);
    tree.add(parity);
    RD* m1 = mirror->getSubdevice(0);
    RD* m2 = mirror->getSubdevice(1);
    EXPECT_EQ(mirror->willCauseFailure(m1), 0) << "the partner is active";
    Scripted::rebuilding.insert(m2->getName());
    EXPECT_EQ(mirror->willCauseFailure(m1), 1) << "a rebuilding partner is not safe";
    Scripted::rebuilding.clear();

    EXPECT_EQ(parity->willCauseFailure(parity->getSubdevice(0)), 0);
    parity->getSubdevice(2)->setActive(0);
    EXPECT_EQ(parity->willCauseFailure(parity->getSubdevice(0)), 1) << "one other member gone, no spare";
    parity->setSpareDiskCount(1);
    EXPECT_EQ(parity->willCauseFailure(parity->getSubdevice(0)), 0);
    EXPECT_EQ(parity->willCauseFailure(mirror), 0) << "not a member";

    RD* stripe = array<Scripted>(0, 3, {1, 2});
    tree.add(stripe);
    EXPECT_EQ(stripe->willCauseFailure(stripe->getSubdevice(0)), 1);
    EXPECT_FALSE(stripe->willEnable(stripe->getSubdevice(0))) << "active already";
    stripe->setActive(0);
    stripe->getSubdevice(1)->setActive(0);
    EXPECT_FALSE(stripe->willEnable(stripe->getSubdevice(0))) << "the other member is down";
    EXPECT_TRUE(stripe->willEnable(stripe->getSubdevice(1)));
    mirror->setActive(0);
    EXPECT_TRUE(mirror->willEnable(m1));
}

TEST(Mdstat, TheSectionOfTheArrayTellsTheMembersToGoAndTheRecovery)
{
    const char text[] =
        "Personalities : [raid1] [raid5]\n"
        "md200 : active raid1 hdc5[1] hda5[0]\n"
        "      2096384 blocks [4/2] [UU__]\n"
        "\n"
        "md0 : active raid5 hdg2[4] hde2[2] hdc2[1] hda2[0]\n"
        "      234436352 blocks level 5, 256k chunk, algorithm 2 [4/3] [UUU_]\n"
        "      [=======>.............]  recovery = 37.5% (29304544/78145536) finish=4.1min speed=200000K/sec\n"
        "unused devices: <none>\n";
    auto ask = [&](const char* device, int len, std::string& out) {
        FILE* f = fmemopen(const_cast<char*>(text), sizeof text - 1, "r");
        std::vector<char> buffer(static_cast<size_t>(std::max(len, 1)));
        int rc = tavDisksToRebuild(f, device, "Data", buffer.data(), len);
        fclose(f);
        out = len > 0 ? buffer.data() : "";
        return rc;
    };
    std::string out;
    EXPECT_EQ(ask("md0", 256, out), 1);
    EXPECT_EQ(out, "Data disk 38% complete, 1 disk(s) to go");
    EXPECT_EQ(ask("md200", 256, out), -1);
    EXPECT_EQ(out, "Data array is degraded and not rebuilding");
    EXPECT_EQ(ask("md7", 256, out), 0) << "no such section";
    EXPECT_EQ(ask("Personalities", 256, out), 0) << "the next line holds no member map";
    EXPECT_EQ(ask("md0", 1, out), 0) << "no room for a line";
    EXPECT_EQ(ask("md0", 16, out), 0) << "short reads cut the lines; the result stays defined";
}

} // namespace
} // namespace raidtest

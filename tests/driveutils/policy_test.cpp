// The manager's diagnostic tables and the policies that need no running
// array: the texts, the answers without a tree, NVRAM and services.
#include <sstream>

#include "driveutils/store_fixture.h"
#include "driveutils/tavraiddevices.h"

namespace policytest {
namespace {

using RD = TavRaidDevice;

class Policy : public storetest::ManagerTest {
protected:

    // The lines a call logs.
    template <typename Call>
    static std::vector<std::string> logged(Call call)
    {
        testing::internal::CaptureStderr();
        call();
        std::istringstream in(testing::internal::GetCapturedStderr());
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
};

TEST_F(Policy, TablesAreRightAlignedUnderADashedLine)
{
    TavDriveMgr::Table table{{"a", "title"}, {"", ""}, {"longer", "x"}};
    EXPECT_EQ(logged([&] { TavDriveMgr::printTableData(table); }),
              (std::vector<std::string>{"     a   title", "------   -----", "longer       x"}));
    TavDriveMgr::Table empty;
    EXPECT_EQ(logged([&] { TavDriveMgr::printTableData(empty); })[0].rfind("TavDriveMgr::printSignatureData no rows ", 0), 0u);
    TavDriveMgr::Table noColumns{{}};
    EXPECT_EQ(logged([&] { TavDriveMgr::printTableData(noColumns); })[0].rfind("TavDriveMgr::printSignatureData no cols ", 0), 0u);

    TavDriveMgr::Table filled{{"x"}};
    std::vector<std::string> log = logged([&] { EXPECT_EQ(TavDriveMgr::buildSignatureTableHeading(filled), 0); });
    EXPECT_EQ(log, std::vector<std::string>{"buildSignatureTableHeading() should only be call with an empty vector."});
    EXPECT_EQ(filled.size(), 1u);
    EXPECT_EQ(TavDriveMgr::buildRaidDeviceTableHeading(filled), 0);
}

TEST_F(Policy, SignatureTableShowsMemoryBesideTheVerdict)
{
    TavDriveMgr::readSignatureIntoMemory();
    TavDriveMgr::nDrives = 1;
    std::vector<std::string> lines;
    for (const std::string& l : logged([] { TavDriveMgr::dumpInMemorySignatureData(); }))
        if (l.rfind("isActive(1)  no devices", 0) != 0) lines.push_back(l);
    TavDriveMgr::nDrives = 4;  // the manager owns four drives, to be freed
    ASSERT_EQ(lines.size(), 3u) << "titles, dashes, one drive";
    EXPECT_NE(lines[0].find("drive   os-tstamp   data-tstamp   Order"), std::string::npos) << lines[0];
    std::istringstream row(lines[2]);
    std::vector<std::string> cells;
    for (std::string c; row >> c;) cells.push_back(c);
    ASSERT_GE(cells.size(), 6u);
    EXPECT_EQ(cells[0], "1");
    EXPECT_EQ(cells[1], "100");
    EXPECT_EQ(cells[3], "1") << "the order";
    EXPECT_EQ(cells[5], m_.serial(1));
    EXPECT_EQ(lines[0].size(), lines[2].size());

    // A position without a drive or record: dashes and the verdict on no drive.
    TavDriveMgr::Table table;
    TavDriveMgr::numHardDriveSignatures = 0;
    TavDriveMgr::buildSignatureTableRow(table, 9);
    EXPECT_EQ(table[0], (std::vector<std::string>{"9", "-", "-", "-", "-", "-", "unknown", "0"}));
}

TEST_F(Policy, RaidTableListsEveryTopLevelDeviceWithItsSubtree)
{
    TavRaidDevices tree;
    RD* first = TavRaidDevices::createDevice(1, 2, nullptr, "/data", 3, 0);
    first->addSubdevice(-1, 0, nullptr, 1);
    first->addSubdevice(-1, 0, nullptr, 2);
    tree.add(first);
    tree.add(TavRaidDevices::createDevice(-1, 0, nullptr, nullptr, 4, 0));
    TavDriveMgr::Table table;
    ASSERT_EQ(TavDriveMgr::buildRaidDeviceTableHeading(table), 1);
    for (int i = 0; i < tree.getNTopLevelDevs(); ++i) TavDriveMgr::buildRaidDeviceRows(table, tree.getNthTopLevelDev(i));
    ASSERT_EQ(table.size(), 6u);
    EXPECT_EQ(table[2], (std::vector<std::string>{"/dev/md3", "3", "Array", "NULL", "1", "2", "1", "-1", "-1"}));
    EXPECT_EQ(table[3][0], "/dev/ide/host0/bus0/target0/lun0/part2");
    EXPECT_EQ(table[3][2], "Disk");
    EXPECT_EQ(table[3][3], "/dev/md3");
    EXPECT_EQ(table[5][1], "4");
    EXPECT_EQ(table[5][3], "NULL");
    EXPECT_EQ(logged([&] { TavDriveMgr::dumpRaidDeviceTables(&tree); }).size(), 6u);
    EXPECT_EQ(logged([] { TavDriveMgr::dumpRaidDeviceTables(nullptr); }).size(), 2u) << "no tree: the heading";
}

TEST_F(Policy, AnswersWithoutATreeAndTheStatusTexts)
{
    EXPECT_EQ(TavDriveMgr::addToRaid(1), 19);
    EXPECT_EQ(TavDriveMgr::startRaid(100, nullptr), 1);
    EXPECT_EQ(TavDriveMgr::getRaidLevel(), -1);
    EXPECT_EQ(TavDriveMgr::checkDataRaid(), RD::OFF);
    EXPECT_EQ(TavDriveMgr::getRaidDevices(), nullptr);
    EXPECT_EQ(TavDriveMgr::willCauseFailure(1), 0);
    EXPECT_EQ(logged([] { TavDriveMgr::setDrivesActive(); })[0].rfind(" setDrivesActive: no device table ", 0), 0u);

    EXPECT_STREQ(TavDriveMgr::getRaidStatusString(RD::NOMINAL), "normal");
    EXPECT_STREQ(TavDriveMgr::getRaidStatusString(RD::NOT_REBUILDING),
                 "RAID rebuild didn't start. You must reboot to rebuild all RAID arrays.");
    EXPECT_STREQ(TavDriveMgr::getRaidStatusString(7), "unknown");

    // A disk standing alone in the tree: losing it takes it down.
    TavRaidDevices tree;
    tree.add(TavRaidDevices::createDevice(-1, 0, nullptr, nullptr, 2, 0));
    TavDriveMgr::setRaidDevices(&tree);
    EXPECT_EQ(TavDriveMgr::willCauseFailure(2), 1);
    EXPECT_EQ(TavDriveMgr::willCauseFailure("/dev/ide/host0/bus0/target1/lun0/part2"), 1);
    EXPECT_EQ(TavDriveMgr::willCauseFailure("/dev/none"), 0);
    EXPECT_EQ(TavDriveMgr::getRaidLevel(), -1) << "the level of a disk";
    TavDriveMgr::setRaidDevices(nullptr);
    EXPECT_EQ(TavDriveMgr::devices, nullptr);
}

TEST_F(Policy, MissingNvramCardsAndServicesOfAFileSystem)
{
    std::string why;
    EXPECT_EQ(TavDriveMgr::checkNVRam(why), 0) << "platform 1 requires no card";
    TavDriveMgr::requiredNVRamCards->assign({7, 8});
    std::vector<std::string> log = logged([&] { EXPECT_EQ(TavDriveMgr::checkNVRam(why), 3); });
    EXPECT_EQ(why, "RQDC card 7 cannot be found. Call customer support for assistance.");
    EXPECT_EQ(log, std::vector<std::string>{why});

    log = logged([] { TavDriveMgr::stopServicesOnFS("/tmp"); });
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].rfind("Error: Unknow service on=/tmp (", 0), 0u);
    TavDriveMgr::stopServicesOnFS("/var/log");
    TavDriveMgr::startServicesOnFS("/var/log");
    std::string commands = platform_.module().readState("commands.log");
    size_t at = 0;
    for (const char* c : {"/sbin/service syslog stop", "/sbin/service crond stop", "/usr/bin/killall ipmitool",
                          "/usr/bin/killall logrotate", "lsof +D /var/log -Fp0", "/usr/bin/killall logger",
                          "/sbin/service syslog start", "/sbin/service crond start"}) {
        size_t found = commands.find(c, at);
        ASSERT_NE(found, std::string::npos) << c << " in order in\n" << commands;
        at = found;
    }
}

} // namespace
} // namespace policytest

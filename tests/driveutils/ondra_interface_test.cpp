// The service commands that run the module's daemons: run-time arguments, the
// system id, join and the manager starts, stops, cycles and the removal from
// the system, with the module's script daemons as real processes.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <string>
#include <thread>
#include <vector>

#include "driveutils/ondraComm.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevice.h"
#include "ondra_fixture.h"
#include "sim/faults.h"
#include "sim/manager_programs.h"
#include "sim/nvram.h"
#include "sim/raid.h"
#include "sim/sign.h"
#include "tavutils/tavdrivesig.h"
#include "tavutils/tavobxinfo.h"

using ondratest::capture;
using ondratest::kDataDirs;
using ondratest::OndraModule;

namespace {

std::string hostFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

using Argv = std::vector<std::string>;

class OndraService : public OndraModule {
protected:
    OndraService()
    {
        // The relay and the local socket stay closed: the commands need only
        // the id file, which a started comm object writes.
        TavOndraComm::initialized = true;
        TavOndraComm::systemID("NO_SYSTEM_ID");
        temp_.put("/etc/marrowby/comm/ondraSystemId.cfg", "NO_SYSTEM_ID\n");
    }
    ~OndraService() override
    {
        TavString buffer;
        if (if_.tavOndraProcs)
            for (int type = 0; type < 3; ++type) if_.tavOndraProcs[type].stop(buffer, true);
        TavOndraComm::initialized = false;
        TavOndraComm::systemID("NO_SYSTEM_ID");
    }

    void initModData()
    {
        TavString buffer, iface = "eth0", level = "5";
        ASSERT_EQ(if_.initModData(buffer, iface, level), 0) << buffer;
        TavString address;
        ASSERT_EQ(if_.resolveIfaceName("eth0", address), 0);
        ip_ = address;
    }
    std::string idFile() { return temp_.get("/etc/marrowby/comm/ondraSystemId.cfg"); }
    bool ok(int type) { return temp_.exists(std::string(kDataDirs[type]) + "/ok"); }

    // The argument vectors (after the script's own) of `type`'s runs in `mode`.
    std::vector<Argv> runs(int type, const char* mode)
    {
        std::vector<Argv> out;
        for (const sim::DaemonStart& s : starts(mode))
            if (s.argv[0] == script(type)) out.emplace_back(s.argv.begin() + 5, s.argv.end());
        return out;
    }
    bool running(int type) { return if_.process(type) && if_.process(type)->pId() > 0; }
    std::string reply(int (TavOndraInterface::*command)(TavString&), const char* text = "")
    {
        TavString buffer = text;
        last_ = (if_.*command)(buffer);
        return buffer;
    }

    TavOndraInterface if_;
    std::string ip_;
    int last_ = 0;
};

TEST_F(OndraService, RunTimeArgumentsOfEachTypeAndState)
{
    initModData();
    TavString id = "sys42";
    ASSERT_EQ(if_.setSystemId(id), 0);
    if_.process(0)->storeName("store1");
    if_.process(2)->mgrName("mgr1");
    if_.process(2)->first(true);
    if_.process(1)->mgrName("vmgr1");
    if_.process(1)->initMd5("abc");
    const std::string serial = TavObxInfo::getSerialNumber();
    const std::string partner = TavObxInfo::getPartnerSerialNumber();

    auto args = [&](int state, int type) {
        TavString text = "input";
        EXPECT_EQ(if_.runTimeArgs(text, state, type), 0);
        return std::string(text);
    };
    // No NVRAM and no memory device: no device option at all.
    EXPECT_EQ(args(0, 0), " --name store1 --system_id \"sys42\" --ip_address " + ip_);
    EXPECT_EQ(args(1, 0), " --serial_number " + serial + partner + " --ip_address " + ip_ + " --raid_type 5");
    EXPECT_EQ(args(0, 2), " --name mgr1 --system_id \"sys42\" --ip_address " + ip_ + " --first");
    EXPECT_EQ(args(0, 1), " --name vmgr1 --system_id \"sys42\" --ip_address " + ip_ + " --md5 abc");
    // The brand directory follows when the model's configuration is found.
    const std::string daemonTail = " --serial_number " + serial + " --ip_address " + ip_;
    EXPECT_EQ(args(1, 2).rfind(" --server_bin " + std::to_string(TavOndraComm::port2Mgr()) + daemonTail, 0), 0u);
    EXPECT_EQ(args(1, 1).rfind(" --server_bin " + std::to_string(TavOndraComm::port2VMgr()) + daemonTail, 0), 0u);
    for (int type = 0; type < 3; ++type) EXPECT_EQ(args(2, type), "");

    // The memory device of a unit without NVRAM.
    temp_.put("/dev/umem/disc0/disc", "");
    EXPECT_EQ(args(0, 0), " --name store1 --system_id \"sys42\" --ip_address " + ip_ +
                              " --cache /dev/umem/disc0/disc --cacheio_clone");
    EXPECT_EQ(args(1, 0).substr(args(1, 0).size() - 15), " --cacheio_umem");

    TavString text;
    EXPECT_EQ(if_.runTimeArgs(text, 1, 3), -1);
    EXPECT_EQ(text, "Invalid process type");
    EXPECT_EQ(if_.runTimeArgs(text, 3, 0), -1);
    EXPECT_EQ(text, "Invalid process state");
}

TEST_F(OndraService, TheSystemIdMovesOnlyThroughNoSystemId)
{
    initModData();
    EXPECT_EQ(reply(&TavOndraInterface::setSystemId, "sys42"), "");
    EXPECT_EQ(last_, 0);
    EXPECT_EQ(idFile(), "sys42\n");
    for (const char* other : {"sys42", "sys43"}) {
        EXPECT_EQ(reply(&TavOndraInterface::setSystemId, other), "System id exists") << other;
        EXPECT_EQ(last_, -1);
    }
    EXPECT_EQ(reply(&TavOndraInterface::getSystemId), "sys42");
    EXPECT_EQ(reply(&TavOndraInterface::setSystemId, "NO_SYSTEM_ID"), "");
    EXPECT_EQ(reply(&TavOndraInterface::setSystemId, "NO_SYSTEM_ID"), "");
    EXPECT_EQ(last_, 0);
    EXPECT_EQ(idFile(), "NO_SYSTEM_ID\n");
}

// A unit's life: strays killed, join, the managers, a cycle and a shut-down
// form, then the removal that undoes everything in order.
TEST_F(OndraService, AUnitJoinsRunsItsManagersAndLeaves)
{
    const pid_t strayPid = fork();
    if (strayPid == 0) {
        const std::string path = script(0);
        execl("/bin/sleep", path.c_str(), "1000", static_cast<char*>(nullptr));
        _exit(127);
    }
    const std::string cmdline = "/proc/" + std::to_string(strayPid) + "/cmdline";
    ASSERT_TRUE(eventually([&] { return hostFile(cmdline).rfind(script(0), 0) == 0; }));
    initModData();
    ASSERT_TRUE(eventually([&] { return ::kill(strayPid, 0) != 0 || ::waitpid(strayPid, nullptr, WNOHANG) > 0; }));

    EXPECT_EQ(reply(&TavOndraInterface::getPort), "-1");
    EXPECT_EQ(reply(&TavOndraInterface::join, "store1/sys42"), "");
    ASSERT_EQ(last_, 0);
    EXPECT_EQ(idFile(), "sys42\n");
    EXPECT_EQ(runs(0, "init"), (std::vector<Argv>{{"--name", "store1", "--system_id", "sys42", "--ip_address", ip_}}));
    ASSERT_TRUE(eventually([&] { return runs(0, "daemon").size() == 1; }));

    EXPECT_EQ(reply(&TavOndraInterface::managerStart, "store1/sys42/mgr1/first"), "");
    ASSERT_EQ(last_, 0);
    EXPECT_EQ(runs(2, "init"),
              (std::vector<Argv>{{"--name", "mgr1", "--system_id", "sys42", "--ip_address", ip_, "--first"}}));
    ASSERT_TRUE(eventually([&] { return runs(2, "daemon").size() == 1; }));
    EXPECT_EQ(runs(2, "daemon")[0][1], std::to_string(TavOndraComm::port2Mgr()));
    // The store was a member already: its Init found its ok file and ran no more.
    EXPECT_EQ(runs(0, "init").size(), 1u);

    EXPECT_EQ(reply(&TavOndraInterface::virtualmanagerStart, "store1/sys42/vmgr1/0123abcd"), "");
    EXPECT_EQ(runs(1, "init"), (std::vector<Argv>{{"--name", "vmgr1", "--system_id", "sys42", "--ip_address", ip_,
                                                    "--md5", "0123abcd"}}));
    for (int type = 0; type < 3; ++type) {
        TavString buffer;
        EXPECT_EQ(if_.getRun(buffer, type), 0);
        EXPECT_EQ(buffer, "TRUE") << type;
    }
    EXPECT_EQ(reply(&TavOndraInterface::getPort), std::to_string(TavOndraComm::portFromGuis()));
    EXPECT_EQ(reply(&TavOndraInterface::getVmgrConfigured), "TRUE");

    // A cycle starts the Daemon anew; the shut-down form carries its flag.
    const pid_t before = if_.process(0)->pId();
    TavString buffer;
    ASSERT_EQ(if_.processCycle(buffer, 0), 0) << buffer;
    EXPECT_NE(if_.process(0)->pId(), before);
    ASSERT_TRUE(eventually([&] { return runs(0, "daemon").size() == 2; }));
    ASSERT_EQ(if_.processShutdown(buffer, 0), 0) << buffer;
    ASSERT_TRUE(eventually([&] { return runs(0, "daemon").size() == 3; }));
    const Argv last = runs(0, "daemon")[2];
    EXPECT_NE(std::find(last.begin(), last.end(), "--shutdownhack"), last.end());

    EXPECT_EQ(reply(&TavOndraInterface::removeFromSystem), "");
    ASSERT_EQ(last_, 0);
    EXPECT_EQ(idFile(), "NO_SYSTEM_ID\n");
    for (int type = 0; type < 3; ++type) {
        EXPECT_FALSE(ok(type)) << type;
        EXPECT_FALSE(running(type)) << type;
    }
    EXPECT_TRUE(sim::liveDaemonPids(module()).empty());
    // The Deinit runs: manager, virtual manager, store.
    std::vector<std::string> order;
    for (const sim::DaemonStart& s : starts("deinit")) order.push_back(s.argv[0]);
    EXPECT_EQ(order, (std::vector<std::string>{script(2), script(1), script(0)}));
}

TEST_F(OndraService, JoinKeepsAMembersIdAndGivesItBackWhenTheStoreFails)
{
    initModData();
    // A member: the store starts, the id of the text is not looked at.
    reply(&TavOndraInterface::setSystemId, "sys42");
    EXPECT_EQ(reply(&TavOndraInterface::join, "store1/sys99"), "");
    EXPECT_EQ(last_, 0);
    EXPECT_EQ(reply(&TavOndraInterface::getSystemId), "sys42");
    EXPECT_TRUE(running(0));
    TavString buffer;
    ASSERT_EQ(if_.processStop(buffer, 0), 0);

    // Not a member, and the store cannot initialise: the id goes back.
    reply(&TavOndraInterface::setSystemId, "NO_SYSTEM_ID");
    ::unlink(temp_.map("/var/ondra/store/ok").c_str());
    ::unlink(temp_.map("/etc/marrowby/store/ondraStoreInit.cfg").c_str());
    EXPECT_EQ(reply(&TavOndraInterface::join, "store1/sys42"),
              "the storage server could not be started. First, save the log files store.info and store.error "
              "using the instructions for \"Saving log files\" in the online help. Then call customer support for "
              "further assistance.");
    EXPECT_EQ(last_, -1);
    EXPECT_EQ(idFile(), "NO_SYSTEM_ID\n");
    EXPECT_FALSE(running(0));
}

TEST_F(OndraService, AManagerStartWithAnUnknownWordFailsAfterTheJoin)
{
    initModData();
    const std::string text = reply(&TavOndraInterface::managerStart, "store1/sys42/mgr1/second");
    EXPECT_EQ(last_, -1);
    EXPECT_EQ(text, "Invalid token in start managersecond");
    EXPECT_TRUE(running(0));
    EXPECT_TRUE(runs(2, "init").empty());
    EXPECT_EQ(reply(&TavOndraInterface::virtualmanagerStart, "store1/sys42/vmgr1/md5/more"),
              "Too many tokens to start manager");
    EXPECT_TRUE(runs(1, "init").empty());
}

TEST_F(OndraService, StoppedProcessesAndATableNotYetMade)
{
    TavString buffer;
    // Before initModData: no process runs, and the commands say why they can't.
    EXPECT_EQ(if_.getRun(buffer, 0), 0);
    EXPECT_EQ(buffer, "FALSE");
    EXPECT_EQ(if_.processStart(buffer, 1, 0), -1);
    EXPECT_EQ(buffer, "Process data not initialized");
    for (int type : {-1, 3}) {
        EXPECT_EQ(if_.processStop(buffer, type), -1);
        EXPECT_EQ(buffer, "Invalid type");
        auto c = capture([&] { EXPECT_EQ(if_.addArgs(buffer, type), -1); });
        EXPECT_NE(c.err.find("addArgs invalid type:" + std::to_string(type)), std::string::npos) << c.err;
    }

    initModData();
    // A stopped process: the shut-down form does nothing, a cycle starts it.
    EXPECT_EQ(if_.processShutdown(buffer, 2), 0);
    EXPECT_TRUE(runs(2, "daemon").empty());
    reply(&TavOndraInterface::setSystemId, "sys42");
    ASSERT_EQ(if_.processStart(buffer, 0, 2), 0) << buffer;
    ASSERT_EQ(if_.processCycle(buffer, 2), 0) << buffer;
    EXPECT_TRUE(running(2));
    EXPECT_TRUE(eventually([&] { return runs(2, "daemon").size() == 1; }));
    // A changed Daemon file restarts the running daemon with it.
    buffer = "/--extra/x";
    ASSERT_EQ(if_.addArgs(buffer, 2), 0);
    ASSERT_TRUE(eventually([&] { return runs(2, "daemon").size() >= 2; }));
    EXPECT_EQ(runs(2, "daemon").back()[0], "--extra");
    buffer = "/--extra/1";
    ASSERT_EQ(if_.deleteArgs(buffer, 2), 0);
    EXPECT_EQ(temp_.get("/etc/marrowby/manager/ondraMgrDaemon.cfg").find("--extra"), std::string::npos);
    EXPECT_EQ(reply(&TavOndraInterface::managerStop), "");
    EXPECT_FALSE(ok(2));
    EXPECT_EQ(reply(&TavOndraInterface::getVmgrConfigured), "FALSE");
}

TEST_F(OndraService, TheMd5CommandIsBuiltFromTheUdpArgumentsAndTheId)
{
    initModData();
    EXPECT_EQ(reply(&TavOndraInterface::getMd5), "");  // no id: nothing asked
    reply(&TavOndraInterface::setSystemId, "sys42");
    reply(&TavOndraInterface::writeUdpArgs, "--port\n7\n");  // a word a line, as the awk stage reads them
    EXPECT_EQ(reply(&TavOndraInterface::getMd5), "");  // the manager knows no database of it
    EXPECT_EQ(last_, 0);
    sim::setDatabase(module(), "sys42", "0123abcd");
    EXPECT_EQ(reply(&TavOndraInterface::getMd5), "0123abcd");
    const std::string log = module().readState("commands.log");
    EXPECT_NE(log.find("/etc/marrowby/system/dbd_manager --port 7 --system_id sys42"), std::string::npos) << log;
    EXPECT_NE(log.find("--system_id sys42 --list --terminate 15|awk '/md5/ {print $3 ;exit}' | awk -F\\' "
                       "'{print $2}'"),
              std::string::npos)
        << log;

    // The listing that cannot be opened gives no text; so does an id of none.
    platform_.arm(sim::Fault::failing(sim::Op::Popen, "/etc/marrowby/system/dbd_manager", 1, EMFILE));
    EXPECT_EQ(reply(&TavOndraInterface::getMd5, "old"), "");
    EXPECT_EQ(last_, -1);
}

TEST_F(OndraService, TheAddressComesFromTheFirstEightInterfaces)
{
    std::string list;
    for (int i = 0; i < 9; ++i)
        list += "eth" + std::to_string(i) + " flags=up address=192.168.1." + std::to_string(10 + i) + "\n";
    module().writeState("interfaces", list);
    TavString address = "untouched";
    EXPECT_EQ(if_.resolveIfaceName("eth7", address), 0);
    EXPECT_EQ(address, "192.168.1.17");
    address = "untouched";
    EXPECT_EQ(if_.resolveIfaceName("eth8", address), -1);  // the ninth is out of reach
    EXPECT_EQ(if_.resolveIfaceName("eth", address), -1);
    EXPECT_EQ(address, "untouched");

    // The address goes to the three processes, the RAID level to the store.
    initModData();
    TavString iface = "eth3", level = "1";
    EXPECT_EQ(if_.writeIfaceIpAddress(iface), 0);
    EXPECT_EQ(if_.writeRaidLevel(level), 0);
    for (int type = 0; type < 3; ++type) EXPECT_EQ(if_.process(type)->ipAddressString(), "192.168.1.13");
    EXPECT_EQ(if_.process(0)->raidLevelString(), "1");
    EXPECT_EQ(if_.process(2)->raidLevelString(), "unknown");
}

// A start-up waits for a join; then the managers start, and the store only
// while its RAID runs (a module with no array configured has none running).
TEST_F(OndraService, TheStartOfAUnitWithoutItsRaidLeavesTheStoreDown)
{
    initModData();
    EXPECT_EQ(if_.isManagerCommStarted(), 0);
    reply(&TavOndraInterface::setSystemId, "sys42");
    for (int type = 0; type < 3; ++type) {
        TavString buffer;
        ASSERT_EQ(if_.processStart(buffer, 0, type), 0) << buffer;
    }
    ASSERT_EQ(TavDriveMgr::checkRaid(), TavRaidDevice::OFF);
    EXPECT_EQ(if_.startManagerComm(), 0);
    EXPECT_EQ(if_.isManagerCommStarted(), 1);
    EXPECT_FALSE(running(0));
    EXPECT_TRUE(running(1));
    EXPECT_TRUE(running(2));
    TavString buffer;
    ASSERT_EQ(if_.processStop(buffer, 2), 0);
    EXPECT_EQ(if_.startManagerComm(), 0);  // once only
    EXPECT_FALSE(running(2));
}

// With the RAID running the store starts too, unless a required NVRAM card
// is not normal: a card the layout builds no object for counts as unavailable.
class OndraStartUp : public OndraService {
protected:
    void startWithRaid(bool requiredCard)
    {
        for (const sim::Bay& bay : module().manifest().bays)
            ASSERT_EQ(buildPartitions(bay.device.c_str(), 2048, 2048, 0, 2048, 20480, false), 0);
        ASSERT_EQ(sim::signModule(temp_.dir(), 100), "");
        sim::RaidResult result;
        ASSERT_EQ(sim::configureRaid(temp_.dir(), sim::RaidOptions{}, result), "");
        if (requiredCard) {
            // The card is there and the unit's list requires it; the IDE
            // layout builds no card object for it.
            ASSERT_EQ(sim::nvramAdd(module()), "");
            const std::string hwlist = "/etc/marrowby/hwlist.conf";
            temp_.put(hwlist, temp_.get(hwlist) + "PCI:NVRAM:rqdc:" + std::to_string(sim::kNvramDefaultSerial) + "\n");
        }
        sim::resetDriveManager();
        TavDriveMgr::init();
        TavDriveMgr::readSignatureIntoMemory();
        ASSERT_NE(TavDriveMgr::checkRaid(), TavRaidDevice::OFF);
        ASSERT_EQ(TavDriveMgr::getNRequiredNVRams(), requiredCard ? 1 : 0);
        initModData();
        reply(&TavOndraInterface::setSystemId, "sys42");
        for (int type = 0; type < 3; ++type) {
            TavString buffer;
            ASSERT_EQ(if_.processStart(buffer, 0, type), 0) << buffer;
        }
        EXPECT_EQ(if_.startManagerComm(), 0);
        EXPECT_TRUE(running(1));
        EXPECT_TRUE(running(2));
    }
    ~OndraStartUp() override { sim::resetDriveManager(); }
};

TEST_F(OndraStartUp, ARunningRaidStartsTheStore)
{
    startWithRaid(false);
    EXPECT_TRUE(running(0));
}

TEST_F(OndraStartUp, ARequiredCardThatIsUnavailableKeepsTheStoreDown)
{
    startWithRaid(true);
    EXPECT_FALSE(running(0));
}

// The hot-swap path stops and starts the store from its own thread while the
// commands run on the managers.
TEST_F(OndraService, TheHotSwapThreadMeetsTheCommands)
{
    initModData();
    reply(&TavOndraInterface::join, "store1/sys42");
    ASSERT_EQ(last_, 0);
    std::atomic<bool> done{false};
    std::thread hotSwap([&] {
        for (int i = 0; i < 3; ++i) {
            TavString state;
            if_.getRun(state, 0);
            if (state == "TRUE") if_.processStop(state, 0);
            if_.processStart(state, 1, 0);
        }
        done = true;
    });
    for (int i = 0; i < 2; ++i) {
        TavString buffer;
        EXPECT_EQ(if_.processStart(buffer, 0, 2), 0) << buffer;
        EXPECT_EQ(if_.processStart(buffer, 1, 2), 0) << buffer;
        EXPECT_EQ(if_.getRun(buffer, 0), 0);
        EXPECT_EQ(reply(&TavOndraInterface::managerStop), "");
    }
    hotSwap.join();
    EXPECT_TRUE(done);
    EXPECT_TRUE(running(0));
    EXPECT_FALSE(running(2));
}

} // namespace

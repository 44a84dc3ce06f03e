// The system id file, the local status socket and the GUI relay, on a
// simulated module with loopback sockets: a fake manager is a listening
// socket of the test, a GUI a connected one. The relay is driven one pass at
// a time through passThroughMsg, except where its own thread is the subject.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "driveutils/ondraComm.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/ondra_fixture.h"

namespace {

using ondratest::capture;
using ondratest::Captured;

const std::string kIdFile = ONDRA_SYSTEM_ID_FILE;
const std::string kIdTemp = kIdFile + ".tmp";

// A port of loopback that binds now. The ports are 16-bit signed, so
// ephemeral ports (32768 and up) would read as invalid: take one below.
int16_t freePort(int16_t other = 0)
{
    static std::mt19937 pick(static_cast<unsigned>(::getpid()));
    for (;;) {
        auto port = static_cast<int16_t>(20000 + pick() % 12000);
        if (port == other) continue;
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(port));
        bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        ::close(fd);
        if (ok) return port;
    }
}

sockaddr_in loopback(int16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

int listenOn(int16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a = loopback(port);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(::listen(fd, 5), 0);
    return fd;
}

int connectTo(int16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(port);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    return fd;
}

bool readable(int fd, int millis = 2000)
{
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, millis) == 1;
}

// What arrives within the wait, up to `most` bytes; "" when nothing does.
std::string receive(int fd, size_t most = 4096)
{
    std::string got(most, '\0');
    ssize_t n = readable(fd) ? ::recv(fd, got.data(), most, 0) : -1;
    got.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return got;
}

bool closedByPeer(int fd)
{
    char c;
    return readable(fd) && ::recv(fd, &c, 1, 0) == 0;
}

size_t count(const std::string& text, const std::string& word)
{
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
    return n;
}

class OndraComm : public testing::Test {
protected:
    OndraComm() : platform_(temp_.dir()), scope_(platform_)
    {
        TavOndraComm::fdWkUnix = TavOndraComm::fdWkTcp = -1;
        TavOndraComm::maxFdUnix = TavOndraComm::maxFdTcp = 0;
        FD_ZERO(&TavOndraComm::fdSetUnix);
        FD_ZERO(&TavOndraComm::fdSetTcp);
        TavOndraComm::systemID("NO_SYSTEM_ID");
        TavOndraComm::initialized = false;
        TavOndraComm::portWkTcp = freePort();
        TavOndraComm::portToMgr = freePort(TavOndraComm::portWkTcp);
    }
    ~OndraComm() override
    {
        TavOndraComm::initialized = true;
        TavOndraComm::closeSockets();
        for (int fd : own_) ::close(fd);
    }
    int keep(int fd) { return own_.push_back(fd), fd; }

    // A GUI relayed to the fake manager: {gui, manager's end}.
    std::pair<int, int> relayedGui(int manager)
    {
        int gui = keep(connectTo(TavOndraComm::portWkTcp));
        EXPECT_EQ(TavOndraComm::passThroughMsg(), 0);
        EXPECT_TRUE(readable(manager));
        return {gui, keep(::accept(manager, nullptr, nullptr))};
    }

    simtest::TempModule temp_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
    std::vector<int> own_;
};

TEST_F(OndraComm, InitNeedsTheIdFileAndNamesIt)
{
    TavString buffer;
    Captured log = capture([&] { EXPECT_EQ(TavOndraComm::init(buffer), -1); });
    EXPECT_EQ(buffer, "Unable to get system id from " + kIdFile);
    EXPECT_NE(log.out.find("Ondra module: Unable to open cfg file: " + kIdFile), std::string::npos);
    EXPECT_NE(log.out.find("Ondra module: Unable to get system id from " + kIdFile), std::string::npos);
    EXPECT_FALSE(TavOndraComm::initialized);
    EXPECT_EQ(TavOndraComm::systemID(), "NO_SYSTEM_ID");
}

TEST_F(OndraComm, TheIdIsTheFirstLineThatIsNotEmptyAsItStands)
{
    TavString buffer;
    temp_.put(kIdFile, "\n\n unit 42\t\nother\n");
    ASSERT_EQ(TavOndraComm::getSystemIdFromFile(buffer), 0);
    EXPECT_EQ(TavOndraComm::systemID(), " unit 42\t");
    temp_.put(kIdFile, "LAST");  // no newline at the end
    ASSERT_EQ(TavOndraComm::getSystemIdFromFile(buffer), 0);
    EXPECT_EQ(TavOndraComm::systemID(), "LAST");

    temp_.put(kIdFile, "\n\n");
    EXPECT_EQ(TavOndraComm::getSystemIdFromFile(buffer), -1);
    EXPECT_EQ(buffer, "Unable to get line from " + kIdFile);
    EXPECT_EQ(TavOndraComm::systemID(), "LAST");

    // readFromFile takes the first line with anything left after white space goes.
    const char* file = "/etc/marrowby/comm/value.cfg";
    temp_.put(file, " \t\r\n\v\f\n  a b\tc \r\n d\n");
    ASSERT_EQ(TavOndraComm::readFromFile(buffer, file), 0);
    EXPECT_EQ(buffer, "abc");
    temp_.put(file, " \n\t\n");
    buffer = "kept";
    EXPECT_EQ(TavOndraComm::readFromFile(buffer, file), -1);
    EXPECT_EQ(buffer, "kept");
    EXPECT_EQ(TavOndraComm::readFromFile(buffer, "/etc/marrowby/comm/none.cfg"), -1);
    EXPECT_EQ(buffer, "Unable to open /etc/marrowby/comm/none.cfg");
}

TEST_F(OndraComm, TheIdIsWrittenOnlyOnceInitializedAndWhole)
{
    TavString buffer;
    TavOndraComm::systemID("UNIT-7");
    EXPECT_EQ(TavOndraComm::writeSystemIdToFile(buffer), -1);
    EXPECT_EQ(buffer, "TavOndraComm class not initialized");
    EXPECT_FALSE(temp_.exists(kIdFile));

    TavOndraComm::initialized = true;
    temp_.put("/etc/marrowby/comm/udpargs.cfg", "");  // the directory of the appliance
    ASSERT_EQ(TavOndraComm::writeSystemIdToFile(buffer), 0);
    EXPECT_EQ(buffer, "");
    EXPECT_EQ(temp_.get(kIdFile), "UNIT-7\n");
    EXPECT_FALSE(temp_.exists(kIdTemp));
    TavOndraComm::systemID("other");
    ASSERT_EQ(TavOndraComm::getSystemIdFromFile(buffer), 0);
    EXPECT_EQ(TavOndraComm::systemID(), "UNIT-7");
}

TEST_F(OndraComm, AFailedReplacementLeavesTheOldFile)
{
    temp_.put(kIdFile, "OLD\n");
    TavString buffer = "NEW";
    platform_.arm(sim::Fault::failing(sim::Op::Write, kIdTemp, 1, EIO));
    EXPECT_EQ(TavOndraComm::writeToFile(buffer, kIdFile.c_str()), -1);
    EXPECT_EQ(buffer, "Write failed to " + kIdTemp);
    EXPECT_EQ(temp_.get(kIdFile), "OLD\n");

    buffer = "NEW";
    platform_.arm(sim::Fault::failing(sim::Op::Rename, kIdTemp, 1, EIO));
    EXPECT_EQ(TavOndraComm::writeToFile(buffer, kIdFile.c_str()), -1);
    EXPECT_EQ(buffer, "Unable to rename " + kIdTemp);
    EXPECT_EQ(temp_.get(kIdFile), "OLD\n");

    buffer = "NEW";
    platform_.arm(sim::Fault::failing(sim::Op::Open, kIdTemp, 1, EACCES));
    EXPECT_EQ(TavOndraComm::writeToFile(buffer, kIdFile.c_str()), -1);
    EXPECT_EQ(buffer, "Unable to open " + kIdTemp);
    EXPECT_EQ(temp_.get(kIdFile), "OLD\n");
}

TEST_F(OndraComm, NoMemoryOrSpaceEndsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    temp_.put(kIdFile, "OLD\n");
    EXPECT_EXIT(
        {
            platform_.arm(sim::Fault::failing(sim::Op::Write, kIdTemp, 1, ENOSPC));
            TavString buffer = "NEW";
            TavOndraComm::writeToFile(buffer, kIdFile.c_str());
        },
        testing::ExitedWithCode(ENOSPC), "");
    EXPECT_EXIT(tavOndraErrno(ENOMEM), testing::ExitedWithCode(ENOMEM), "");
    tavOndraErrno(EACCES);
    tavOndraErrno(5000);
    tavOndraErrno(-1);
}

TEST_F(OndraComm, TheUnixSocketReplacesAStaleOneInsideTheModule)
{
    const std::string host = temp_.map("/tmp/tav.ondra.unix");
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, host.c_str());
    int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ::close(stale);

    ASSERT_EQ(TavOndraComm::openUnixSocket(), 0);
    const int listener = TavOndraComm::fdWkUnix;
    ASSERT_GE(listener, 0);
    EXPECT_TRUE(FD_ISSET(listener, &TavOndraComm::fdSetUnix));
    EXPECT_EQ(TavOndraComm::openUnixSocket(), 0);
    EXPECT_EQ(TavOndraComm::fdWkUnix, listener);

    int client = keep(::socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_TRUE(readable(listener));
    TavString path;
    TavOndraComm::unixDomainGet(path);
    EXPECT_EQ(path, "/tmp/tav.ondra.unix");
}

TEST_F(OndraComm, StatusMessagesReachEveryLiveClientInTheirWireLayout)
{
    ASSERT_EQ(TavOndraComm::openUnixSocket(), 0);
    TavOndraMsg msg{};
    msg.header.id = TAV_ONDRA_MSG_DEVICE_STATUS;
    msg.header.length = tav_htorn32(sizeof msg);
    msg.header.sequence = tav_htorn64(0x0102030405060708ull);
    msg.body.device.device.major = tav_htorn32(9);
    msg.body.device.device.minor = tav_htorn32(0x10203);
    msg.body.device.device.status = TAV_ONDRA_DEVICE_STATUS_DEGRADED;
    std::strcpy(msg.body.device.device.description, "md0 degraded");
    std::strcpy(msg.body.device.device.devicePath, "/dev/md0");

    EXPECT_EQ(TavOndraComm::sendMsg(&msg, sizeof msg), 0);  // no client yet
    EXPECT_EQ(TavOndraComm::sendMsg(nullptr, sizeof msg), -1);

    // Two clients, as the module that owns the socket accepts them; one dies.
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, temp_.map("/tmp/tav.ondra.unix").c_str());
    int served[2], peer[2];
    for (int i = 0; i < 2; ++i) {
        peer[i] = keep(::socket(AF_UNIX, SOCK_STREAM, 0));
        ASSERT_EQ(::connect(peer[i], reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        served[i] = ::accept(TavOndraComm::fdWkUnix, nullptr, nullptr);
        FD_SET(served[i], &TavOndraComm::fdSetUnix);
        TavOndraComm::maxFdUnix = std::max(TavOndraComm::maxFdUnix, served[i] + 1);
    }
    ::close(peer[0]);
    own_.erase(std::find(own_.begin(), own_.end(), peer[0]));

    Captured log = capture([&] { EXPECT_EQ(TavOndraComm::sendMsg(&msg, sizeof msg), 0); });
    EXPECT_NE(log.out.find("Ondra module: send failure; count = -1; socket closed; errno = " + std::to_string(EPIPE)),
              std::string::npos);
    EXPECT_NE(log.out.find("Ondra module: close socket = " + std::to_string(served[0])), std::string::npos);
    EXPECT_FALSE(FD_ISSET(served[0], &TavOndraComm::fdSetUnix));
    EXPECT_TRUE(FD_ISSET(served[1], &TavOndraComm::fdSetUnix));

    std::string wire = receive(peer[1]);
    ASSERT_EQ(wire.size(), 412u);
    auto at = [&wire](size_t offset, size_t width) { return wire.substr(offset, width); };
    EXPECT_EQ(at(0, 4), std::string("\x01\0\0\0", 4));
    EXPECT_EQ(at(4, 4), std::string("\x9c\x01\0\0", 4));  // 412
    EXPECT_EQ(at(8, 8), "\x08\x07\x06\x05\x04\x03\x02\x01");
    EXPECT_EQ(at(16, 8), std::string("\x09\0\0\0\x03\x02\x01\0", 8));
    EXPECT_EQ(at(24, 1), "\x03");
    EXPECT_EQ(at(25, 13), std::string("md0 degraded\0", 13));
    EXPECT_EQ(at(281, 9), std::string("/dev/md0\0", 9));
    EXPECT_EQ(at(409, 3), std::string(3, '\0'));
}

TEST_F(OndraComm, TheRelayCopiesBytesBothWaysInOrder)
{
    int manager = keep(listenOn(TavOndraComm::portToMgr));
    ASSERT_EQ(TavOndraComm::openWkPortForGuis(), 0);
    auto [gui, mgrEnd] = relayedGui(manager);

    ASSERT_EQ(::send(gui, "hello", 5, 0), 5);
    EXPECT_EQ(TavOndraComm::passThroughMsg(), 0);
    EXPECT_EQ(receive(mgrEnd), "hello");

    // More than one pass carries: the relay moves 1024 bytes at a time.
    std::string reply(3000, '\0');
    for (size_t i = 0; i < reply.size(); ++i) reply[i] = static_cast<char>('a' + i % 26);
    ASSERT_EQ(::send(mgrEnd, reply.data(), reply.size(), 0), 3000);
    std::string got;
    for (int pass = 0; pass < 10 && got.size() < reply.size(); ++pass) {
        EXPECT_EQ(TavOndraComm::passThroughMsg(), 0);
        got += receive(gui);
    }
    EXPECT_EQ(got, reply);
}

TEST_F(OndraComm, AGuiIsClosedWhenTheManagerRefuses)
{
    ASSERT_EQ(TavOndraComm::openWkPortForGuis(), 0);
    int gui = keep(connectTo(TavOndraComm::portWkTcp));
    Captured log = capture([] { EXPECT_EQ(TavOndraComm::passThroughMsg(), -1); });
    EXPECT_EQ(count(log.out, "Ondra module: unable to connect on client socket to mgr; errno = " +
                                 std::to_string(ECONNREFUSED) + ";"),
              5u);
    EXPECT_EQ(count(log.out, "Ondra module: unable to connect to dbd_manager; "), 1u);
    EXPECT_EQ(count(log.out, "Ondra module: unable to accept gui; "), 1u);
    EXPECT_TRUE(closedByPeer(gui));

    // The listener stays: once the manager is up a GUI is served.
    int manager = keep(listenOn(TavOndraComm::portToMgr));
    auto [next, mgrEnd] = relayedGui(manager);
    ASSERT_EQ(::send(next, "up", 2, 0), 2);
    EXPECT_EQ(TavOndraComm::passThroughMsg(), 0);
    EXPECT_EQ(receive(mgrEnd), "up");
}

TEST_F(OndraComm, OnePairClosingLeavesTheOtherRelayed)
{
    int manager = keep(listenOn(TavOndraComm::portToMgr));
    ASSERT_EQ(TavOndraComm::openWkPortForGuis(), 0);
    auto [gui1, mgr1] = relayedGui(manager);
    auto [gui2, mgr2] = relayedGui(manager);

    ::shutdown(gui1, SHUT_RDWR);
    Captured log = capture([] { EXPECT_EQ(TavOndraComm::passThroughMsg(), -1); });
    EXPECT_NE(log.out.find("Ondra module: socket closed on other end; "), std::string::npos);
    EXPECT_TRUE(closedByPeer(mgr1));

    ASSERT_EQ(::send(gui2, "still", 5, 0), 5);
    EXPECT_EQ(TavOndraComm::passThroughMsg(), 0);
    EXPECT_EQ(receive(mgr2), "still");

    // The manager's side closing ends its GUI the same way.
    ::shutdown(mgr2, SHUT_RDWR);
    EXPECT_EQ(TavOndraComm::passThroughMsg(), -1);
    EXPECT_TRUE(closedByPeer(gui2));
}

TEST_F(OndraComm, AGuiDescriptorBeyondTheSetIsDroppedAtOnce)
{
    int manager = keep(listenOn(TavOndraComm::portToMgr));
    ASSERT_EQ(TavOndraComm::openWkPortForGuis(), 0);
    int gui = keep(connectTo(TavOndraComm::portWkTcp));
    // Every descriptor below the set's size taken: accept hands out 1024.
    std::vector<int> fillers;
    int spare;
    while ((spare = ::dup(manager)) >= 0 && spare < FD_SETSIZE) fillers.push_back(spare);
    ::close(spare);
    if (spare < FD_SETSIZE) {
        for (int fd : fillers) ::close(fd);
        GTEST_SKIP() << "the descriptor limit is below " << FD_SETSIZE;
    }
    Captured log = capture([] { EXPECT_EQ(TavOndraComm::passThroughMsg(), -1); });
    for (int fd : fillers) ::close(fd);
    // (capturing the log takes descriptors of its own: the number is not known)
    EXPECT_NE(log.out.find("Ondra module: gui socket beyond the descriptor set; fd = "), std::string::npos);
    EXPECT_TRUE(closedByPeer(gui));
    EXPECT_FALSE(readable(manager, 50));  // no manager connection for it
    EXPECT_LT(TavOndraComm::maxFdTcp, FD_SETSIZE + 1);
}

TEST_F(OndraComm, CloseSocketsFromAnotherThreadEndsTheRelayedPairs)
{
    int manager = keep(listenOn(TavOndraComm::portToMgr));
    ASSERT_EQ(TavOndraComm::openWkPortForGuis(), 0);
    std::atomic<bool> stop{false};
    std::thread relay([&] {
        while (!stop) TavOndraComm::passThroughMsg();
    });
    int gui = keep(connectTo(TavOndraComm::portWkTcp));
    ASSERT_TRUE(readable(manager));
    int mgrEnd = keep(::accept(manager, nullptr, nullptr));
    ASSERT_EQ(::send(gui, "x", 1, 0), 1);
    EXPECT_EQ(receive(mgrEnd), "x");

    // The relay is back in select, on a copy of the set, when the sockets go.
    stop = true;
    TavOndraComm::initialized = true;
    TavOndraComm::closeSockets();
    EXPECT_TRUE(closedByPeer(gui));
    EXPECT_TRUE(closedByPeer(mgrEnd));
    relay.join();
}

// init end to end, in a child of its own: the relay thread it starts lives
// for the rest of the process.
TEST_F(OndraComm, InitStartsTheRelayThread)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    temp_.put(kIdFile, "\nUNIT-9\n");
    EXPECT_EXIT(
        {
            int manager = listenOn(TavOndraComm::portToMgr);
            TavString buffer;
            if (TavOndraComm::init(buffer) != 0) std::exit(10);
            if (TavOndraComm::systemID() != "UNIT-9" || !temp_.exists("/tmp/tav.ondra.unix")) std::exit(11);
            int gui = -1;
            for (int i = 0; i < 200 && gui < 0; ++i) {
                gui = ::socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in a = loopback(TavOndraComm::portWkTcp);
                if (::connect(gui, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
                    ::close(gui);
                    gui = -1;
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
            }
            if (gui < 0 || !readable(manager)) std::exit(12);
            int mgrEnd = ::accept(manager, nullptr, nullptr);
            ::send(mgrEnd, "pong", 4, 0);
            std::exit(receive(gui) == "pong" ? 0 : 13);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace

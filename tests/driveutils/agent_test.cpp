#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <sys/ioctl.h>

#include "agent_fixture.h"
#include "driveutils/tavsysutils.h"
#include "tavutils/tavobxinfo.h"

namespace {

using tavtest::AgentTest;
using tavtest::connectAgent;
using tavtest::Console;
using tavtest::fields;
using tavtest::request;

TEST(TavUdpList, ReplacesThePortAtAnAddressAndNeverRemoves)
{
    TavUdpList list;
    EXPECT_EQ(list.udpsocket, -1);
    EXPECT_EQ(list.tcpSocket, -1);
    list.addClient(htons(1), htonl(0x7f000002));
    list.addClient(htons(2), htonl(0x7f000003));
    list.addClient(htons(3), htonl(0x7f000002));
    list.addClient(0, htonl(0x7f000004));
    ASSERT_EQ(list.list->size(), 3);
    EXPECT_EQ((*list.list)[0]->port, htons(3));
    EXPECT_EQ((*list.list)[1]->port, htons(2));
    EXPECT_EQ((*list.list)[2]->port, 0);
    EXPECT_EQ((*list.list)[2]->address, htonl(0x7f000004));
}

TEST_F(AgentTest, DescribesTheModuleOverUdpAndTcp)
{
    start();
    Console a("127.0.0.2", 40001);
    ASSERT_TRUE(a.bound());
    auto reply = ask(a, request("40001"));
    ASSERT_TRUE(reply);
    std::vector<std::string> f = fields(*reply);
    std::string host = platform.module().readState("hostname");
    host.pop_back();
    const std::vector<std::string> expected = {"OBXreply:ver0.01", "192.168.50.5", "13838", TavObxInfo::getSerialNumber(),
                                               "block", host, "NOMINAL", hwaddrOf("bond0"),
                                               "RAID5\tRAID 5 over all data drives", "3.2.1", "", "NO_SYSTEM_ID",
                                               "13841", "OBX 1U", "0", "NONE"};
    EXPECT_EQ(f, expected);
    EXPECT_FALSE(std::string(TavObxInfo::getSerialNumber()).empty());

    // A header in another case is answered; another header is not, and its
    // sender is not remembered.
    Console b("127.0.0.3", 40002);
    ASSERT_TRUE(ask(b, request("40002", "obxREQUEST:VER0.01")));
    Console c("127.0.0.4", 40003);
    c.send(request("40003", "OBXrequest:ver0.02"));
    EXPECT_FALSE(c.receive(300));

    // Over TCP the reply comes down the connection, and the console is
    // remembered at the port of its text.
    int tcp = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.5", &local.sin_addr);
    ASSERT_EQ(::bind(tcp, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(TAVUDPThread::kAgentPort);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(tcp, reinterpret_cast<sockaddr*>(&agent), sizeof agent), 0);
    std::string req = request("40005");
    ASSERT_EQ(::send(tcp, req.data(), req.size(), 0), static_cast<ssize_t>(req.size()));
    std::string got;
    char buffer[2048];
    pollfd p{tcp, POLLIN, 0};
    while (::poll(&p, 1, 3000) > 0) {
        ssize_t n = ::recv(tcp, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        got.append(buffer, static_cast<size_t>(n));
    }
    ::close(tcp);
    EXPECT_EQ(fields(got), expected);

    // A second request from a with another port replaces its port.
    Console a2("127.0.0.2", 40011);
    ASSERT_TRUE(ask(a2, request("40011")));
    EXPECT_EQ(clientsBecome({"127.0.0.2:40011", "127.0.0.3:40002", "127.0.0.5:40005"}),
              (std::vector<std::string>{"127.0.0.2:40011", "127.0.0.3:40002", "127.0.0.5:40005"}));

    // An alert reaches every remembered console, with its text in field 11.
    Console tcpConsole("127.0.0.5", 40005);
    ASSERT_EQ(TAVUDPThread::postMessage("drive 3 is gone"), 0);
    for (const Console* console : {&a2, &b, &tcpConsole}) {
        auto alert = console->receive();
        ASSERT_TRUE(alert);
        std::vector<std::string> af = fields(*alert);
        ASSERT_EQ(af.size(), 16u);
        EXPECT_EQ(af[0], "OBXAlert:ver0.01");
        EXPECT_EQ(af[10], "drive 3 is gone");
    }
    EXPECT_FALSE(a.receive(200)) << "the old port got the alert";
}

TEST_F(AgentTest, AlertsFromFourThreadsKeepEachPostersOrder)
{
    start();
    Console one("127.0.0.2", 41001), two("127.0.0.3", 41002);
    ASSERT_TRUE(ask(one, request("41001")));
    ASSERT_TRUE(ask(two, request("41002")));
    constexpr int kPosters = 4, kEach = 25;
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; ++p)
        posters.emplace_back([p] {
            for (int i = 0; i < kEach; ++i)
                EXPECT_EQ(TAVUDPThread::postMessage((std::to_string(p) + ":" + std::to_string(i)).c_str()), 0);
        });
    for (std::thread& t : posters) t.join();
    for (const Console* console : {&one, &two}) {
        int next[kPosters] = {};
        for (int n = 0; n < kPosters * kEach; ++n) {
            auto alert = console->receive();
            ASSERT_TRUE(alert) << "alert " << n;
            std::string text = fields(*alert)[10];
            int poster = text[0] - '0';
            ASSERT_TRUE(poster >= 0 && poster < kPosters) << text;
            EXPECT_EQ(text.substr(2), std::to_string(next[poster]++));
        }
    }
}

TEST_F(AgentTest, StopsRestartsAndDropsPostsWhileStopped)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(TAVUDPThread::postMessage("early"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "postMessage() Message [early] dropped because udp thread is inactive\n");
    start();
    Console console("127.0.0.2", 42001);
    ASSERT_TRUE(ask(console, request("42001")));
    stop();
    testing::internal::CaptureStderr();
    EXPECT_EQ(TAVUDPThread::postMessage("late"), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("[late] dropped"), std::string::npos);

    // A new thread in the same process serves again; the old list of
    // consoles is the host's and stays.
    start();
    ASSERT_TRUE(ask(console, request("42001")));
    ASSERT_EQ(TAVUDPThread::postMessage("back"), 0);
    auto alert = console.receive();
    ASSERT_TRUE(alert);
    EXPECT_EQ(fields(*alert)[10], "back");

    // The local client on 13842 gets an alert without being remembered.
    Console localClient("127.0.0.1", TAVUDPThread::kLocalClientPort);
    EXPECT_EQ(TAVUDPThread::sendMessageToLocalClient("to the host"), 0);
    auto local = localClient.receive();
    ASSERT_TRUE(local);
    EXPECT_EQ(fields(*local)[0], "OBXAlert:ver0.01");
    EXPECT_EQ(fields(*local)[10], "to the host");

    // The deprecated form posts.
    testing::internal::CaptureStderr();
    EXPECT_EQ(TAVUDPThread::sendMessageToClients("old way"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: This API is deprecated please use postMessage(msg)\n");
    alert = console.receive();
    ASSERT_TRUE(alert);
    EXPECT_EQ(fields(*alert)[10], "old way");
}

TEST_F(AgentTest, MalformedInputLeavesTheAgentServing)
{
    start();
    Console bad("127.0.0.9", 43001);
    std::vector<std::string> inputs = {
        std::string(),
        "OBXrequest:ver0.01",                                   // no zero byte
        std::string("OBXrequest:ver0.01\0", 19),                // no port
        request("-1"), request("70000"), request("99999999999999999999"), request("abc"),
        request("1", "OBXrequest:ver0.0"),                      // one short
        std::string(1024, 'x'),
        std::string(2000, '\0'),
    };
    for (int i = 0; i < 200; ++i) {
        std::string junk;
        for (int n = 0; n < 1 + (i * 37) % 1500; ++n) junk += static_cast<char>((i * 131 + n * 7) & 0xff);
        inputs.push_back(junk);
    }
    for (const std::string& input : inputs) bad.send(input);
    // TCP: one that closes at once, one with junk, one silent past the time-out.
    ::close(connectAgent());
    int junk = connectAgent();
    ::send(junk, "garbage", 7, 0);
    int silent = connectAgent();
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    ::close(junk);
    ::close(silent);

    Console good("127.0.0.2", 43002);
    auto reply = ask(good, request("43002"));
    ASSERT_TRUE(reply);
    EXPECT_EQ(fields(*reply).size(), 16u);
    // Only the right header is remembered; "-1", "70000", "abc" had it, and
    // their sender too: its port is that of the last one with it.
    std::vector<std::string> remembered = clientsBecome({"127.0.0.9:1", "127.0.0.2:43002"});
    std::set<std::string> addresses;
    for (const std::string& c : remembered) addresses.insert(c.substr(0, c.find(':')));
    EXPECT_EQ(addresses, (std::set<std::string>{"127.0.0.9", "127.0.0.2"}));
}

// The description built on the test's thread, with the session published
// as the running agent would.
class Description : public AgentTest {
protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        TAVUDPThread::udpInfo.store(&data);
    }
    void TearDown() override { TAVUDPThread::udpInfo.store(nullptr); }

    std::string built(std::string* log = nullptr, const char* text = "")
    {
        char msg[TAVUDPThread::kMessageSize];
        int length = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(TAVUDPThread::buildMessage(msg, "OBXAlert:ver0.01", -1, text, &length), 0);
        std::string logged = testing::internal::GetCapturedStderr();
        if (log) *log = logged;
        EXPECT_GE(length, 0);
        EXPECT_LE(length, TAVUDPThread::kMessageSize);
        return std::string(msg, static_cast<size_t>(length));
    }
};

TEST_F(Description, MissingPartsLeaveEmptyFieldsInTheirPlaces)
{
    sim::unsetKeyLine(platform.module(), "tav/public/system/ondra/system_id");
    sim::unsetKeyLine(platform.module(), "tav/public/storage/raid/config_description");
    std::string log;
    std::vector<std::string> f = fields(built(&log, "the alert"));
    ASSERT_EQ(f.size(), 16u);
    EXPECT_EQ(f[8], "RAID5\t");
    EXPECT_EQ(f[10], "the alert");
    EXPECT_EQ(f[11], "");
    EXPECT_EQ(f[12], "13841");
    EXPECT_EQ(f[15], "NONE");
    EXPECT_NE(log.find("Key: '/tav/public/system/ondra/system_id/' FAILED:"), std::string::npos);

    // No bond with an address: no address and no MAC, and the description
    // still goes out.
    platform.module().writeState("interfaces", "lo hwaddr=00:00:00:00:00:00 flags=up address=127.0.0.1\n"
                                               "bond0 hwaddr=02:00:00:00:00:01 flags=up,master mtu=9000\n");
    f = fields(built(&log));
    EXPECT_EQ(f[1], "");
    EXPECT_EQ(f[7], "");
    EXPECT_NE(log.find("Warning: Could not get OBX local IP\n"), std::string::npos);
    EXPECT_NE(log.find("Warning: cannot get MAC addr, -1\n"), std::string::npos);

    // bond1 comes before bond0, and its MAC is the one sent.
    platform.module().writeState("interfaces",
                                 "bond0 hwaddr=02:00:00:00:00:01 flags=up,master address=10.1.0.1\n"
                                 "bond1 hwaddr=02:00:00:00:00:02 flags=up,master address=10.2.0.1\n");
    f = fields(built());
    EXPECT_EQ(f[1], "10.2.0.1");
    EXPECT_EQ(f[7], "02:00:00:00:00:02");

    platform.arm(sim::Fault::failing(sim::Op::Read, "/proc/sys/kernel/hostname", 1, EIO));
    sim::Fault mac = sim::Fault::failing(sim::Op::Ioctl, "socket", 1, EIO);
    mac.request = SIOCGIFHWADDR;
    platform.arm(mac);
    f = fields(built(&log));
    EXPECT_EQ(f[5], "");
    EXPECT_EQ(f[7], "");
    EXPECT_NE(log.find("Warning: cannot get hostname\n"), std::string::npos);
    EXPECT_NE(log.find("Warning: cannot get MAC addr, -4\n"), std::string::npos);

    // Address queries that fail: no bond has an address.
    sim::Fault address = sim::Fault::failing(sim::Op::Ioctl, "socket", 1, EIO, -1);
    address.request = SIOCGIFADDR;
    platform.arm(address);
    f = fields(built(&log));
    EXPECT_EQ(f[1], "");
    EXPECT_EQ(f[7], "");
    EXPECT_NE(log.find("Warning: Could not get OBX local IP\n"), std::string::npos);
}

TEST_F(Description, LongValuesNeverPassTheBuffer)
{
    // A value of 2000 characters is skipped, and every field after it lies
    // past the end: the length stops at 1024.
    sim::setKeyLine(platform.module(), {"tav/public/system/info/model", sim::KeyLine::Value, std::string(2000, 'm'), ""});
    std::string d = built();
    EXPECT_EQ(d.size(), 1024u);
    std::vector<std::string> f = fields(d);
    EXPECT_EQ(f[12], "13841");
    EXPECT_EQ(f[13], "");   // the model did not fit, and nothing behind it
    EXPECT_EQ(d.find_first_not_of('\0', d.find("13841") + 6), std::string::npos);

    // A reply without a terminator, and one of two listeners, give what
    // fits and an empty field.
    sim::setKeyLine(platform.module(), {"tav/public/system/info/model", sim::KeyLine::Raw, "RAWMODEL", ""});
    sim::setKeyLine(platform.module(), {"tav/public/storage/raid/status", sim::KeyLine::Twice, "A", "B"});
    TAVSession fresh;
    sim::KeySource source(platform.module());
    source.attach(fresh);
    UDP_DATA other{&list, &fresh};
    TAVUDPThread::udpInfo.store(&other);
    std::string log;
    f = fields(built(&log));
    TAVUDPThread::udpInfo.store(&data);
    EXPECT_EQ(f[13], "RAWMODEL");
    EXPECT_EQ(f[6], "");
    EXPECT_NE(log.find("Extended Response, key='/tav/public/storage/raid/status/'"), std::string::npos);
}

TEST_F(Description, KeysAreReadAndSetPastTheGrants)
{
    // The session grants nobody anything; the agent reads past that.
    EXPECT_EQ(TAVUDPThread::getCorvaneKey("tav/public/storage/raid/status"), "NOMINAL");
    EXPECT_EQ(TAVUDPThread::setCorvaneKey(&session, "tav/public/storage/raid/status/DEGRADED"), "");
    EXPECT_EQ(TAVUDPThread::getCorvaneKey(&session, "/tav/public/storage/raid/status/"), "DEGRADED");
    testing::internal::CaptureStderr();
    EXPECT_EQ(TAVUDPThread::setCorvaneKey(&session, "tav/public/storage/raid/status/"), "");
    EXPECT_EQ(TAVUDPThread::getCorvaneKey("tav/public/nothing"), "");
    EXPECT_EQ(TAVUDPThread::getCorvaneKey(nullptr, "tav/public/storage/raid/status"), "");
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("SYNTAX FAILURE, key='/tav/public/storage/raid/status/'\n"), std::string::npos);
    EXPECT_NE(log.find("Key: '/tav/public/nothing/' FAILED: attribute not available."), std::string::npos);
}

TEST_F(AgentTest, RepliesFromTheFirstInterfaceThatBinds)
{
    // 10.0.0.5 is no address of this host: the walk goes on to lo.
    platform.module().writeState("interfaces",
                                 "eth0 hwaddr=02:00:00:00:00:05 flags=up address=10.0.0.5\n"
                                 "lo hwaddr=00:00:00:00:00:00 flags=up address=127.0.0.1\n"
                                 "bond0 hwaddr=02:00:00:00:00:01 flags=up,master address=10.1.0.1\n");
    testing::internal::CaptureStderr();
    start();
    Console console("127.0.0.2", 44001);
    auto reply = ask(console, request("44001"));
    stop();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(reply);
    EXPECT_EQ(fields(*reply)[1], "10.1.0.1");
    EXPECT_NE(log.find("UDPTHREAD: could not bind to 10.0.0.5\n"), std::string::npos);
}

// A port held by another socket of this namespace.
int holdPort(int type)
{
    int s = ::socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(TAVUDPThread::kAgentPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || (type == SOCK_STREAM && ::listen(s, 1) != 0)) {
        ::close(s);
        return -1;
    }
    return s;
}

TEST_F(AgentTest, MakesAFailedTcpSocketAgainAtEachPass)
{
    int held = holdPort(SOCK_STREAM);
    ASSERT_GE(held, 0);
    testing::internal::CaptureStderr();
    start();
    Console console("127.0.0.2", 46001);
    ASSERT_TRUE(ask(console, request("46001")));
    ::close(held);
    // The pass that serves the first of these may have begun before the
    // port was free; the one after it makes the socket.
    ASSERT_TRUE(ask(console, request("46001")));
    ASSERT_TRUE(ask(console, request("46001")));
    int tcp = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(TAVUDPThread::kAgentPort);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(tcp, reinterpret_cast<sockaddr*>(&agent), sizeof agent), 0);
    ::close(tcp);
    stop();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("TAVUDPThread:: Unable to open TCP socket\n"), std::string::npos);
    EXPECT_NE(log.find("TAVUDPThread:: Unable to open TCP socket post initialization\n"), std::string::npos);
    EXPECT_NE(log.find("TAVUDPThread::Notice:Succesfully Created TCP socket post initialization\n"), std::string::npos);
    EXPECT_NE(log.find("bind: "), std::string::npos);
}

TEST_F(AgentTest, EndsWhenItsUdpSocketCannotBeMade)
{
    int held = holdPort(SOCK_DGRAM);   // without SO_REUSEADDR: the agent's bind fails
    ASSERT_GE(held, 0);
    testing::internal::CaptureStderr();
    ASSERT_EQ(pthread_create(&thread, nullptr, TAVUDPThread::runUdpThread, &data), 0);
    pthread_join(thread, nullptr);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("TAVUDPThread:: Unable to open UDP socket\n"), std::string::npos);
    EXPECT_NE(log.find("TCP socket:"), std::string::npos);
    // The pipe is closed again: a post is dropped.
    EXPECT_EQ(TAVUDPThread::postMessage("nobody"), -1);
    EXPECT_EQ(TAVUDPThread::postPipeReadEnd(), -1);
    ::close(held);
}

} // namespace

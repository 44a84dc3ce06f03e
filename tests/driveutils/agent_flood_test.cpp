// Survival: a flood of malformed datagrams and TCP connections, good
// requests and alerts throughout, bounded in count and in time.
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "agent_fixture.h"

namespace {

using tavtest::AgentTest;
using tavtest::connectAgent;
using tavtest::Console;
using tavtest::fields;
using tavtest::request;

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

TEST_F(AgentTest, SurvivesAFloodAndRemembersOnlyTheRightHeader)
{
    start();
    Console good("127.0.0.2", 45001);
    ASSERT_TRUE(ask(good, request("45001")));
    const long before = residentKiB();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(45);

    std::atomic<bool> flooding{true};
    std::vector<std::thread> posters;
    for (int p = 0; p < 2; ++p)
        posters.emplace_back([&flooding, p] {
            for (int i = 0; flooding && i < 2000; ++i) {
                TAVUDPThread::postMessage(("alert " + std::to_string(p) + "/" + std::to_string(i)).c_str());
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });

    // Senders of the right header with a bad port are remembered (port 0 or
    // what the text converts to); the others never are.
    Console junk("127.0.0.20", 45020), badPort("127.0.0.21", 45021);
    const std::string nul(1, '\0');
    const std::vector<std::string> headed = {
        "OBXrequest:ver0.01",          // no zero byte
        "OBXrequest:ver0.01" + nul,    // no port
        request("-1"), request("70000"), request(std::string(20, '9')), request("abc"),
    };
    const std::vector<std::string> unheaded = {
        std::string(), request("1", "OBXrequest:ver0.0"), std::string(1024, 'x'),
    };
    std::mt19937 random(20);
    int sent = 0;
    for (; sent < 20000 && std::chrono::steady_clock::now() < deadline; ++sent) {
        switch (sent % 4) {
        case 0: badPort.send(headed[static_cast<size_t>(sent / 4) % headed.size()]); break;
        case 1: junk.send(unheaded[static_cast<size_t>(sent / 4) % unheaded.size()]); break;
        default: {
            std::string bytes(1 + random() % 2000, '\0');
            for (char& c : bytes) c = static_cast<char>(random());
            junk.send(bytes);
        }
        }
        if (sent % 2000 == 0) good.send(request("45001"));
        if (sent % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // 300 connections: closed at once, junk, and a few silent past the
    // agent's second.
    std::vector<int> silent;
    for (int i = 0; i < 300 && std::chrono::steady_clock::now() < deadline; ++i) {
        int s = connectAgent();
        if (i % 30 == 0) {
            silent.push_back(s);
            continue;
        }
        if (i % 2) ::send(s, "\x01\x02junk", 6, MSG_NOSIGNAL);
        ::close(s);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    for (int s : silent) ::close(s);
    flooding = false;
    for (std::thread& t : posters) t.join();
    EXPECT_EQ(sent, 20000) << "the flood ran out of time";

    // Good requests are answered afterwards, each tried at most three times.
    // The silent connections may still hold the agent for a second each.
    for (int i = 0; i < 5; ++i) {
        auto reply = ask(good, request("45001"), 4000);
        ASSERT_TRUE(reply) << "request " << i;
        EXPECT_EQ(fields(*reply).size(), 16u);
    }
    std::set<std::string> addresses;
    for (const std::string& c : clients()) addresses.insert(c.substr(0, c.find(':')));
    EXPECT_EQ(addresses, (std::set<std::string>{"127.0.0.2", "127.0.0.21"}));

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#if defined(__has_feature)
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
    EXPECT_LT(residentKiB() - before, 8 * 1024) << "resident size grew";
#endif
#else
    EXPECT_LT(residentKiB() - before, 8 * 1024) << "resident size grew";
#endif
#endif
    (void)before;
}

} // namespace

// tavsim agent: the system's management agent on the module, inside a
// private network namespace of its own, with consoles played from loopback
// addresses: the descriptions they got, the consoles the agent remembered,
// the alerts each received, and the agent's log.
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "corvaneutils/tavsession.h"
#include "driveutils/tavudplist.h"
#include "driveutils/tavudpthread.h"
#include "json.h"
#include "mgmt_keys.h"
#include "platform/platform.h"
#include "sim_platform.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

const char kAgentHelp[] =
    "Runs the system's management agent on the module inside a private network\n"
    "namespace of its own, where the only addresses are loopback ones: the agent\n"
    "binds every local address on 27491. Each console (--from, default\n"
    "127.0.0.2) asks for the unit's description with a request datagram, or\n"
    "over TCP with --tcp, giving --port (default 40000) as its reply port and\n"
    "--header (default OBXrequest:ver0.01) as the header; each description is\n"
    "printed as a table of field number, name and value. Then every --alert is\n"
    "posted, and with --local-client also sent to the local client on\n"
    "127.0.0.1:13842. The output ends with the consoles the agent remembered,\n"
    "the alerts each console received and the agent's log; then the agent is\n"
    "stopped. --flood N sends N malformed datagrams first. --json gives all of\n"
    "it as one JSON document.\n"
    "\n"
    "Status 1 when no namespace can be made (it needs root), or a console got\n"
    "no description.\n";

namespace {

const char* const kFieldNames[] = {"header", "address", "port", "serial", "kind", "hostname", "raid_status", "mac",
                                   "raid_config", "software_version", "message", "system_id", "gui_port", "model",
                                   "vmgr_configured", "partner_serial"};

std::string enterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0) return std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
    int s = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0) return std::string("socket: ") + std::strerror(errno);
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, "lo", sizeof ifr.ifr_name - 1);
    std::string why;
    if (::ioctl(s, SIOCGIFFLAGS, &ifr) == 0) {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        if (::ioctl(s, SIOCSIFFLAGS, &ifr) != 0) why = std::string("bringing lo up: ") + std::strerror(errno);
    } else {
        why = std::string("SIOCGIFFLAGS lo: ") + std::strerror(errno);
    }
    ::close(s);
    return why;
}

sockaddr_in at(const std::string& address, int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    return a;
}

std::vector<std::string> fieldsOf(const std::string& datagram)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < datagram.size()) {
        size_t end = datagram.find('\0', pos);
        if (end == std::string::npos) end = datagram.size();
        out.push_back(datagram.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

std::string receiveOn(int fd, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0) return "";
    char buffer[4096];
    ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
}

struct Console {
    std::string address;
    int udp = -1;
    std::string description;
    std::vector<std::string> alerts;
};

} // namespace

int runAgent(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call,
                                 {{"--tcp", nullptr}, {"--from", "ADDRESS"}, {"--port", "P"}, {"--header", "TEXT"},
                                  {"--alert", "TEXT"}, {"--local-client", nullptr}, {"--flood", "N"}, {"--json", nullptr}},
                                 1, 1, w, status);
    if (!module) return status;
    std::vector<std::string> from, alerts;
    std::string header = "OBXrequest:ver0.01";
    uint64_t port = 40000, flood = 0;
    for (const auto& [name, value] : w.options) {
        std::string why;
        if (name == "--from") {
            in_addr a{};
            if (inet_pton(AF_INET, value.c_str(), &a) != 1 || (ntohl(a.s_addr) >> 24) != 127)
                return badUsage(call, "--from " + cell(value) + ": give a loopback address 127.0.0.N");
            from.push_back(value);
        } else if (name == "--port" && !decimal("--port", value, 1, 65535, port, why)) {
            return badUsage(call, why);
        } else if (name == "--flood" && !decimal("--flood", value, 0, 1000000, flood, why)) {
            return badUsage(call, why);
        } else if (name == "--header") {
            header = value;
        } else if (name == "--alert") {
            alerts.push_back(value);
        }
    }
    if (from.empty()) from.push_back("127.0.0.2");
    const bool json = w.has("--json"), tcp = w.has("--tcp"), localClient = w.has("--local-client");
    const std::string dir = module->dir();
    module.reset();

    if (std::string why = enterPrivateNetwork(); !why.empty())
        return refused(call, "cannot make a private network namespace (" + why +
                                 "): the agent binds every local address on 27491 and is run only where those are "
                                 "loopback alone; run as root");

    // The agent's log goes to a file of its own while it runs.
    FILE* logFile = std::tmpfile();
    std::fflush(stderr);
    const int savedErr = ::dup(2);
    if (logFile) ::dup2(::fileno(logFile), 2);

    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    KeySource keys(platform.module());
    TAVSession session;
    keys.attach(session);
    TavUdpList list;
    UDP_DATA data{&list, &session};
    pthread_t thread;
    pthread_create(&thread, nullptr, TAVUDPThread::runUdpThread, &data);
    for (int i = 0; i < 5000 && TAVUDPThread::postPipeReadEnd() < 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    const sockaddr_in agent = at("127.0.0.1", TAVUDPThread::kAgentPort);
    if (flood) {
        int s = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in junkFrom = at("127.0.0.250", 0);
        ::bind(s, reinterpret_cast<const sockaddr*>(&junkFrom), sizeof junkFrom);
        std::mt19937 random(static_cast<unsigned>(flood));
        for (uint64_t i = 0; i < flood; ++i) {
            std::string bytes(random() % 1500, '\0');
            for (char& c : bytes) c = static_cast<char>(random());
            ::sendto(s, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&agent), sizeof agent);
            if (i % 64 == 63) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::close(s);
    }

    std::string requestText = header;
    requestText += '\0';
    requestText += std::to_string(port);
    requestText += '\0';
    std::vector<Console> consoles;
    int result = kDone;
    for (const std::string& address : from) {
        Console c;
        c.address = address;
        c.udp = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in local = at(address, static_cast<int>(port));
        ::bind(c.udp, reinterpret_cast<const sockaddr*>(&local), sizeof local);
        for (int attempt = 0; attempt < 3 && c.description.empty(); ++attempt) {
            if (tcp) {
                int s = ::socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in source = at(address, 0);
                ::bind(s, reinterpret_cast<const sockaddr*>(&source), sizeof source);
                if (::connect(s, reinterpret_cast<const sockaddr*>(&agent), sizeof agent) == 0 &&
                    ::send(s, requestText.data(), requestText.size(), MSG_NOSIGNAL) > 0) {
                    for (std::string part; !(part = receiveOn(s, 2000)).empty();) c.description += part;
                }
                ::close(s);
            } else {
                ::sendto(c.udp, requestText.data(), requestText.size(), 0, reinterpret_cast<const sockaddr*>(&agent),
                         sizeof agent);
                c.description = receiveOn(c.udp, 2000);
            }
        }
        if (c.description.empty()) result = kRefused;
        consoles.push_back(std::move(c));
    }
    // The agent remembers a console just after its reply.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    Console local;
    local.address = "127.0.0.1:13842";
    if (localClient) {
        local.udp = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in l = at("127.0.0.1", TAVUDPThread::kLocalClientPort);
        ::bind(local.udp, reinterpret_cast<const sockaddr*>(&l), sizeof l);
    }
    for (const std::string& text : alerts) {
        TAVUDPThread::postMessage(text.c_str());
        if (localClient) TAVUDPThread::sendMessageToLocalClient(text.c_str());
    }
    std::vector<Console*> receivers;
    for (Console& c : consoles) receivers.push_back(&c);
    if (localClient) receivers.push_back(&local);
    for (Console* c : receivers)
        for (size_t n = 0; n < alerts.size(); ++n) {
            std::string alert = receiveOn(c->udp, 1000);
            if (alert.empty()) break;
            std::vector<std::string> f = fieldsOf(alert);
            c->alerts.push_back(f.size() > 10 ? f[10] : "");
        }
    std::vector<std::string> remembered;
    {
        std::lock_guard<std::mutex> hold(TAVUDPThread::clientAccessMutex);
        for (int i = 0; i < list.list->size(); ++i) {
            char text[INET_ADDRSTRLEN];
            in_addr a{};
            a.s_addr = (*list.list)[i]->address;
            inet_ntop(AF_INET, &a, text, sizeof text);
            remembered.push_back(std::string(text) + ":" + std::to_string(ntohs((*list.list)[i]->port)));
        }
    }
    TAVUDPThread::udpThreadCancel();
    pthread_join(thread, nullptr);
    for (Console* c : receivers) ::close(c->udp);

    std::fflush(stderr);
    ::dup2(savedErr, 2);
    ::close(savedErr);
    std::vector<std::string> log;
    if (logFile) {
        std::rewind(logFile);
        char line[4096];
        while (std::fgets(line, sizeof line, logFile)) {
            std::string l(line);
            if (!l.empty() && l.back() == '\n') l.pop_back();
            log.push_back(l);
        }
        std::fclose(logFile);
    }

    if (json) {
        JsonWriter j(std::cout);
        j.beginObject().key("descriptions").beginArray();
        for (const Console& c : consoles) {
            j.beginObject().key("console").string(c.address + ":" + std::to_string(port)).key("fields").beginArray();
            for (const std::string& f : fieldsOf(c.description)) j.string(f);
            j.endArray().endObject();
        }
        j.endArray().key("remembered").beginArray();
        for (const std::string& r : remembered) j.string(r);
        j.endArray().key("alerts").beginArray();
        for (const Console* c : receivers)
            for (const std::string& a : c->alerts)
                j.beginObject().key("console").string(c->address).key("text").string(a).endObject();
        j.endArray().key("log").beginArray();
        for (const std::string& l : log) j.string(l);
        j.endArray().endObject();
        return result;
    }
    for (const Console& c : consoles) {
        std::cout << "description to " << c.address << ":" << port << (tcp ? " over TCP" : "") << "\n";
        if (c.description.empty()) {
            std::cout << "  no answer\n";
            continue;
        }
        Table t({"FIELD", "NAME", "VALUE"});
        std::vector<std::string> f = fieldsOf(c.description);
        for (size_t i = 0; i < f.size(); ++i) t.add({std::to_string(i + 1), i < 16 ? kFieldNames[i] : "-", f[i]});
        t.print(std::cout);
    }
    std::cout << "consoles remembered\n";
    Table r({"CONSOLE"});
    for (const std::string& c : remembered) r.add({c});
    r.print(std::cout);
    std::cout << "alerts received\n";
    Table a({"CONSOLE", "TEXT"});
    for (const Console* c : receivers)
        for (const std::string& text : c->alerts) a.add({c->address, text});
    a.print(std::cout);
    std::cout << "agent log\n";
    for (const std::string& l : log) std::cout << "  " << lastCell(l) << "\n";
    return result;
}

} // namespace sim::cli

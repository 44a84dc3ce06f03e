#include "net_interfaces.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>

static int giDebug_netif = 0;
#define TAV_DEBUG_FLAG giDebug_netif
#include "driveutils/tavlog.h"

namespace sim {
namespace {

std::vector<std::string> split(const std::string& text, char by)
{
    std::vector<std::string> out;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, by)) out.push_back(part);
    return out;
}

std::string macText(uint32_t seed, unsigned last)
{
    char text[18];
    std::snprintf(text, sizeof text, "02:4F:%02X:%02X:%02X:%02X", (seed >> 16) & 0xff, (seed >> 8) & 0xff, seed & 0xff,
                  last & 0xff);
    return text;
}

void putInet(sockaddr* to, uint32_t address)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = address;
    std::memcpy(to, &a, sizeof a);
}

void putName(ifreq* r, const std::string& name)
{
    std::memset(r->ifr_name, 0, sizeof r->ifr_name);
    std::memcpy(r->ifr_name, name.c_str(), std::min(name.size(), sizeof r->ifr_name - 1));
}

int interfaceList(const std::vector<Interface>& all, ifconf* conf)
{
    int need = 0;
    for (const Interface& i : all) {
        if (!i.hasAddress) continue;
        if (conf->ifc_req) {
            if (need + static_cast<int>(sizeof(ifreq)) > conf->ifc_len) break;
            ifreq* r = reinterpret_cast<ifreq*>(conf->ifc_buf + need);
            std::memset(r, 0, sizeof *r);
            putName(r, i.name);
            putInet(&r->ifr_addr, i.address);
        }
        need += static_cast<int>(sizeof(ifreq));
    }
    conf->ifc_len = need;
    return 0;
}

short flagsOf(const Interface& i)
{
    int flags = i.up ? IFF_UP | IFF_RUNNING : 0;
    flags |= i.name == "lo" ? IFF_LOOPBACK : IFF_BROADCAST | IFF_MULTICAST;
    if (i.master) flags |= IFF_MASTER;
    return static_cast<short>(flags);
}

} // namespace

std::vector<Interface> parseInterfaces(const std::string& text)
{
    std::vector<Interface> out;
    auto ip = [](const std::string& v, uint32_t& to) { return ::inet_pton(AF_INET, v.c_str(), &to) == 1; };
    for (const std::string& line : split(text, '\n')) {
        std::stringstream in(line);
        Interface i;
        if (!(in >> i.name) || i.name.size() >= 16) continue;
        bool ok = true, haveDestination = false;
        std::string field;
        while (ok && in >> field) {
            size_t eq = field.find('=');
            std::string key = field.substr(0, eq), value = eq == std::string::npos ? "" : field.substr(eq + 1);
            unsigned b[6];
            char end;
            if (key == "hwaddr")
                ok = std::sscanf(value.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
                                 &end) == 6;
            if (key == "hwaddr" && ok)
                for (int k = 0; k < 6; ++k) i.hwaddr[k] = static_cast<unsigned char>(b[k]);
            else if (key == "flags") {
                for (const std::string& flag : split(value, ','))
                    if (flag == "up") i.up = true;
                    else if (flag == "master") i.master = true;
                    else if (flag != "down") ok = false;
            }
            else if (key == "mtu") ok = std::sscanf(value.c_str(), "%d%c", &i.mtu, &end) == 1;
            else if (key == "metric") ok = std::sscanf(value.c_str(), "%d%c", &i.metric, &end) == 1;
            else if (key == "address") ok = i.hasAddress = ip(value, i.address);
            else if (key == "netmask") ok = ip(value, i.netmask);
            else if (key == "broadcast") ok = ip(value, i.broadcast);
            else if (key == "destination") ok = haveDestination = ip(value, i.destination);
        }
        if (!ok) continue;
        if (!haveDestination) i.destination = i.address;
        out.push_back(i);
    }
    return out;
}

std::string defaultInterfaces(uint32_t seed)
{
    std::string text = "lo hwaddr=00:00:00:00:00:00 flags=up mtu=16436 address=127.0.0.1 netmask=255.0.0.0\n";
    text += "eth0 hwaddr=" + macText(seed, 1) +
            " flags=up mtu=1500 address=10.0.0.5 netmask=255.255.255.0 broadcast=10.0.0.255\n";
    text += "eth1 hwaddr=" + macText(seed, 2) + " flags=down mtu=1500\n";
    text += "bond0 hwaddr=" + macText(seed, 3) +
            " flags=up,master mtu=9000 address=192.168.50.5 netmask=255.255.255.0 broadcast=192.168.50.255\n";
    return text;
}

int NetModel::open(DeviceContext&, OpenNode&, int) { return fail(ENODEV); }

int NetModel::ioctl(DeviceContext& ctx, OpenNode&, unsigned long request, void* arg)
{
    switch (request) {
    case SIOCGIFCONF: case SIOCGIFFLAGS: case SIOCGIFADDR: case SIOCGIFBRDADDR: case SIOCGIFNETMASK:
    case SIOCGIFDSTADDR: case SIOCGIFHWADDR: case SIOCGIFMTU: case SIOCGIFMETRIC: case SIOCGIFINDEX:
    case SIOCGIFNAME:
        break;
    default:
        TAV_LOG(0, "tavsim: refused socket ioctl 0x%lx %s:%d\n", request, TAV_FILE, __LINE__);
        return fail(EPERM);
    }
    if (!arg) return fail(EFAULT);
    std::vector<Interface> all;
    {
        // Parsed once and again only when the file changed: the agent asks
        // several times a request.
        std::lock_guard<std::mutex> hold(cacheMutex_);
        if (cachedFor_ != &ctx.module || ctx.module.stateChanged("interfaces", stamp_)) {
            cachedFor_ = &ctx.module;
            cached_ = parseInterfaces(ctx.module.readState("interfaces"));
        }
        all = cached_;
    }
    if (request == SIOCGIFCONF) return interfaceList(all, static_cast<ifconf*>(arg));
    auto* req = static_cast<ifreq*>(arg);
    if (request == SIOCGIFNAME) {
        if (req->ifr_ifindex < 1 || static_cast<size_t>(req->ifr_ifindex) > all.size()) return fail(ENODEV);
        putName(req, all[static_cast<size_t>(req->ifr_ifindex - 1)].name);
        return 0;
    }
    std::string name(req->ifr_name, strnlen(req->ifr_name, sizeof req->ifr_name));
    auto it = std::find_if(all.begin(), all.end(), [&](const Interface& i) { return i.name == name; });
    if (it == all.end()) return fail(ENODEV);
    const Interface& i = *it;
    switch (request) {
    case SIOCGIFFLAGS: req->ifr_flags = flagsOf(i); return 0;
    case SIOCGIFHWADDR:
        std::memset(&req->ifr_hwaddr, 0, sizeof req->ifr_hwaddr);
        req->ifr_hwaddr.sa_family = i.name == "lo" ? ARPHRD_LOOPBACK : ARPHRD_ETHER;
        std::memcpy(req->ifr_hwaddr.sa_data, i.hwaddr, 6);
        return 0;
    case SIOCGIFMTU: req->ifr_mtu = i.mtu; return 0;
    case SIOCGIFMETRIC: req->ifr_metric = i.metric; return 0;
    case SIOCGIFINDEX: req->ifr_ifindex = static_cast<int>(it - all.begin()) + 1; return 0;
    default:
        if (!i.hasAddress) return fail(EADDRNOTAVAIL);
        putInet(&req->ifr_addr, request == SIOCGIFADDR      ? i.address
                                : request == SIOCGIFNETMASK ? i.netmask
                                : request == SIOCGIFBRDADDR ? i.broadcast
                                                            : i.destination);
        return 0;
    }
}

} // namespace sim

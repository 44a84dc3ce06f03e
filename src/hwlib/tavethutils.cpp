#include "hwlib/tavethutils.h"

#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "platform/platform.h"

namespace {

enum Form { DOTTED, NUMBER, MAC };

struct Request {
    unsigned int request;
    int minimum;
    Form form;
};

const Request kRequests[] = {
    {SIOCGIFADDR, 16, DOTTED},    {SIOCGIFDSTADDR, 16, DOTTED}, {SIOCGIFBRDADDR, 16, DOTTED},
    {SIOCGIFNETMASK, 16, DOTTED}, {SIOCGIFMETRIC, 16, NUMBER},  {SIOCGIFMTU, 16, NUMBER},
    // The text needs 18 bytes and is cut by the length; 15 is the program's own minimum.
    {SIOCGIFHWADDR, 15, MAC},
};

static_assert(SIOCGIFADDR == 35093 && SIOCGIFHWADDR == 35111 && SIOCGIFMTU == 35105);

void nameInterface(ifreq* data, int interface)
{
    std::memset(data, 0, sizeof *data);
    std::snprintf(data->ifr_name, sizeof data->ifr_name, "eth%i", interface);
}

} // namespace

int eth_getInfoFromSocket(int socket, char* text, int length, unsigned int request, ifreq* data)
{
    if (socket < 0) return -1;
    if (!text) return -3;
    const Request* known = nullptr;
    for (const Request& r : kRequests)
        if (r.request == request) known = &r;
    if (!known) return -5;
    if (length < known->minimum) return -2;
    std::memset(text, 0, static_cast<size_t>(length));
    if (!data || plat::ioctl(socket, request, data) < 0) return -4;

    size_t size = static_cast<size_t>(length);
    switch (known->form) {
    case DOTTED: {
        sockaddr_in address;
        std::memcpy(&address, &data->ifr_addr, sizeof address);
        if (address.sin_family != AF_INET) {
            std::snprintf(text, size, "0.0.0.0");
        } else {
            const auto* b = reinterpret_cast<const unsigned char*>(&address.sin_addr.s_addr);
            std::snprintf(text, size, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
        }
        break;
    }
    case NUMBER:
        std::snprintf(text, size, "%u",
                      static_cast<unsigned int>(request == SIOCGIFMTU ? data->ifr_mtu : data->ifr_metric));
        break;
    case MAC: {
        const auto* b = reinterpret_cast<const unsigned char*>(data->ifr_hwaddr.sa_data);
        std::snprintf(text, size, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
        break;
    }
    }
    return 0;
}

int eth_getInfo(int interface, char* text, int length, unsigned int request)
{
    int sock = plat::socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return -1;
    int on = 1;
    if (plat::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) std::perror("Unable to SO_REUSEADDR socket");
    ifreq data;
    nameInterface(&data, interface);
    int result = eth_getInfoFromSocket(sock, text, length, request, &data);
    plat::close(sock);
    return result;
}

int eth_getCount()
{
    int sock = plat::socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return -1;
    int count = 0;
    for (;; ++count) {
        ifreq data;
        nameInterface(&data, count);
        if (plat::ioctl(sock, SIOCGIFHWADDR, &data) < 0) break;
    }
    plat::close(sock);
    return count;
}

int eth_getStatus(int interface)
{
    int count = eth_getCount();
    if (count < 0) return -1;
    if (interface < 0 || interface >= count) return -4;
    int sock = plat::socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return -1;
    ifreq data;
    nameInterface(&data, interface);
    int result = plat::ioctl(sock, SIOCGIFFLAGS, &data) < 0 ? -4 : ((data.ifr_flags & IFF_UP) ? 1 : 0);
    plat::close(sock);
    return result;
}

int eth_getMAC(int interface, char* text, int length) { return eth_getInfo(interface, text, length, SIOCGIFHWADDR); }
int eth_getAddress(int interface, char* text, int length) { return eth_getInfo(interface, text, length, SIOCGIFADDR); }
int eth_getNetmask(int interface, char* text, int length)
{
    return eth_getInfo(interface, text, length, SIOCGIFNETMASK);
}
int eth_getDestinationAddress(int interface, char* text, int length)
{
    return eth_getInfo(interface, text, length, SIOCGIFDSTADDR);
}
int eth_getBroadcastAddress(int interface, char* text, int length)
{
    return eth_getInfo(interface, text, length, SIOCGIFBRDADDR);
}
int eth_getMTU(int interface, char* text, int length) { return eth_getInfo(interface, text, length, SIOCGIFMTU); }
int eth_getMetric(int interface, char* text, int length) { return eth_getInfo(interface, text, length, SIOCGIFMETRIC); }

int eth_getMACFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFHWADDR, data);
}
int eth_getAddressFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFADDR, data);
}
int eth_getNetmaskFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFNETMASK, data);
}
int eth_getDestinationAddressFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFDSTADDR, data);
}
int eth_getBroadcastAddressFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFBRDADDR, data);
}
int eth_getMTUFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFMTU, data);
}
int eth_getMetricFromSocket(int socket, char* text, int length, ifreq* data)
{
    return eth_getInfoFromSocket(socket, text, length, SIOCGIFMETRIC, data);
}

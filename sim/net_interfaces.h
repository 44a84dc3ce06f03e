// The network interfaces of the module, answered to the interface queries
// of a socket as the kernel answers them. Nothing of the host's network is
// seen.
//
// sim/interfaces, one interface a line, fields after the name optional:
//   eth0 hwaddr=02:4F:42:00:00:01 flags=up mtu=1500 metric=0 address=10.0.0.5
//        netmask=255.255.255.0 broadcast=10.0.0.255 destination=10.0.0.5
// An interface without an address answers address queries with
// EADDRNOTAVAIL; "destination" defaults to the address and "broadcast" to none
// (0.0.0.0).
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "device_model.h"
#include "module.h"

namespace sim {

struct Interface {
    std::string name;
    unsigned char hwaddr[6] = {};
    bool up = false;
    bool master = false;     // a bond: IFF_MASTER
    int mtu = 1500;
    int metric = 0;
    bool hasAddress = false;
    uint32_t address = 0, netmask = 0, broadcast = 0, destination = 0;  // network order
};

// Never fails: lines it cannot read are skipped.
std::vector<Interface> parseInterfaces(const std::string& text);

// The interfaces of a new module: lo, eth0 with an address, eth1 down
// without one, and bond0; MAC addresses made from `seed`.
std::string defaultInterfaces(uint32_t seed);

// Sockets: SIOCGIFCONF, SIOCGIFFLAGS, SIOCGIFADDR, SIOCGIFBRDADDR,
// SIOCGIFNETMASK, SIOCGIFDSTADDR, SIOCGIFHWADDR, SIOCGIFMTU, SIOCGIFMETRIC,
// SIOCGIFINDEX and SIOCGIFNAME; any other request is refused with EPERM.
class NetModel : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;

private:
    std::mutex cacheMutex_;
    const Module* cachedFor_ = nullptr;
    Module::Stamp stamp_;
    std::vector<Interface> cached_;
};

} // namespace sim

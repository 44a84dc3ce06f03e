// The simulated tw drivers fed call buffers of any bytes: the first byte
// picks the family and the request, the rest is the buffer, made as long as
// its declared data length asks (the drivers refuse more than their maximum).
// One bit of the first byte turns the command into one of the tasks' and
// the ATA side's opcodes, so that those are reached often.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <vector>

#include "platform/platform.h"
#include "sim/create.h"
#include "sim/sim_platform.h"
#include "sim/tw_driver.h"
#include "sim/tw_state.h"

namespace {

struct Target {
    sim::SimPlatform* platform = nullptr;
    int fd = -1;
};

Target make(int platform, const char* node, unsigned major)
{
    std::string templ = "/tmp/tw-driver-fuzz.XXXXXX";
    if (!mkdtemp(templ.data())) std::abort();
    sim::CreateOptions options;
    options.platform = platform;
    options.sectors = 65536;
    if (!sim::createModule(templ + "/m", options).empty()) std::abort();
    Target t;
    t.platform = new sim::SimPlatform(templ + "/m");
    plat::ScopedPlatform scope(*t.platform);
    plat::mknod(node, 8576, makedev(major, 0));
    t.fd = plat::open(node, O_RDWR, 0);
    if (t.fd < 0) std::abort();
    return t;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Target k9 = make(9, "/dev/twa0", sim::tw::kMajor9000);
    static Target k7 = make(2, "/dev/twe0", sim::tw::kMajor7000);
    if (size < 1) return 0;
    const bool nine = data[0] & 1;
    static const unsigned long requests9[] = {262, 263, 264, 265, 264, 264, 7, 0x1F};
    static const unsigned long requests7[] = {0x1F, 0x1F, 0x1F, 264, 0, 0x1F, 0x1F, 0x20};
    const unsigned long request = (nine ? requests9 : requests7)[(data[0] >> 1) & 7];
    const size_t header = nine ? sim::tw::k9000Header : sim::tw::k7000Header;
    std::vector<uint8_t> buf(header, 0);
    std::memcpy(buf.data(), data + 1, std::min(size - 1, buf.size()));
    uint32_t declared = 0;
    std::memcpy(&declared, buf.data() + (nine ? 20 : 0), 4);
    const size_t maxData = nine ? sim::tw::k9000MaxData : sim::tw::k7000MaxData;
    buf.resize(header + std::min<size_t>(declared, maxData), 0);
    if (size - 1 > header) std::memcpy(buf.data() + header, data + 1 + header, std::min(size - 1 - header, buf.size() - header));
    // Bit 4 of the first byte steers the firmware command to the unit task,
    // ATA pass-through or firmware download opcodes, by bits 5 and 6.
    if (data[0] & 0x10) {
        static const uint8_t opcodes[] = {0x18, 0x11, 0x1A, 0x18};
        uint8_t& byte0 = buf[nine ? 512 + 128 : 512];
        byte0 = static_cast<uint8_t>((byte0 & 0xE0) | opcodes[(data[0] >> 5) & 3]);
    }
    Target& t = nine ? k9 : k7;
    plat::ScopedPlatform scope(*t.platform);
    plat::ioctl(t.fd, request, buf.data());
    return 0;
}

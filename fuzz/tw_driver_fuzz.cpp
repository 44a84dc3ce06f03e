// The simulated tw drivers fed call buffers of any bytes (tw_driver_input.h).
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
#include "fuzz_module.h"
#include "tw_driver_input.h"

namespace {

struct Target {
    sim::SimPlatform* platform = nullptr;
    int fd = -1;
};

Target make(int platform, const char* node, unsigned major)
{
    const std::string templ = fuzzmodule::tempDir("tw-driver-fuzz");
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
    twfuzz::driverInput(*k9.platform, k9.fd, *k7.platform, k7.fd, data, size);
    return 0;
}

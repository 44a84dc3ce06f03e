// A fixed, correctly signed ELF data part followed by a fuzzed trailer: the
// seeds carry the right trailer, so that mutations reach the data
// signature's check, the vendor key's reading and the key signature's check.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "corvaneutils/tavmodule.h"
#include "fuzz_module.h"
#include "module_fixture.h"

int moduleTrailerFuzzOne(const uint8_t* data, size_t size)
{
    static sim::SimPlatform& platform = fuzzmodule::install("module-trailer-fuzz", 1 << 16);
    static const std::string elf = modulefuzz::elfData();
    (void)platform;
    modulefuzz::Keys& keys = modulefuzz::keys();
    modulefuzz::writeModule(elf + std::string(reinterpret_cast<const char*>(data), size));
    TAVModule module(nullptr);
    const int rc = module.CheckSignature("./modules/fuzz.module", &keys.maker, &keys.vendor);
    if (rc != 0 && rc != -4) std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return moduleTrailerFuzzOne(data, size); }
#endif

// A whole ".module" file of fuzzed bytes, checked with fixed keys: the ELF
// reading, both signatures and the trailer's lengths must come out as a
// refusal or a pass, never a crash or a read past the file.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "corvaneutils/tavmodule.h"
#include "fuzz_module.h"
#include "module_fixture.h"
#include "tavutils/tav_elf.h"
#include "tavutils/tav_error.h"

int moduleFileFuzzOne(const uint8_t* data, size_t size)
{
    static sim::SimPlatform& platform = fuzzmodule::install("module-file-fuzz", 1 << 16);
    (void)platform;
    modulefuzz::Keys& keys = modulefuzz::keys();
    modulefuzz::writeModule(std::string(reinterpret_cast<const char*>(data), size));
    tav_elf elf;
    try {
        elf.init("./modules/fuzz.module");
    } catch (const tav_error&) {
    }
    TAVModule module(nullptr);
    const int rc = module.CheckSignature("./modules/fuzz.module", &keys.maker, &keys.vendor);
    if (rc != 0 && rc != -4) std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return moduleFileFuzzOne(data, size); }
#endif

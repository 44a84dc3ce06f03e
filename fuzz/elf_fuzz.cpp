// A file of fuzzed bytes read as a module's ELF part: the header, the section
// table and the end of the data must come out defined, or a tav_error.
#include <cstdint>
#include <cstdlib>

#include "fuzz_module.h"
#include "tavutils/tav_elf.h"
#include "tavutils/tav_error.h"

int elfFuzzOne(const uint8_t* data, size_t size)
{
    static sim::SimPlatform& platform = fuzzmodule::install("elf-fuzz", 1 << 16);
    (void)platform;
    FILE* out = plat::fopen("./modules/fuzz.module", "w");
    if (!out) std::abort();
    if (size && std::fwrite(data, size, 1, out) != 1) std::abort();
    std::fclose(out);
    tav_elf elf;
    try {
        elf.init("./modules/fuzz.module");
    } catch (const tav_error&) {
        return 0;
    }
    if (elf.isElfFormat() != 0 && elf.isElfFormat() != 1) std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return elfFuzzOne(data, size); }
#endif

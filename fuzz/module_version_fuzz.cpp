// checkVersion with a fuzzed version text and a fuzzed versions file: the
// input up to its first zero byte is the version, the rest the file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "corvaneutils/tavmodule.h"
#include "fuzz_module.h"

int moduleVersionFuzzOne(const uint8_t* data, size_t size)
{
    static sim::SimPlatform& platform = fuzzmodule::install("version-fuzz", 1 << 16);
    static const int made = plat::mkdir("./configs/etc/sysconfig", 0755);
    (void)platform;
    (void)made;
    const char* bytes = reinterpret_cast<const char*>(data);
    const void* zero = std::memchr(bytes, 0, size);
    const size_t split = zero ? static_cast<size_t>(static_cast<const char*>(zero) - bytes) : size;
    const std::string version(bytes, split);
    const std::string file = split < size ? std::string(bytes + split + 1, size - split - 1) : std::string();
    FILE* out = plat::fopen("./configs/etc/sysconfig/module_versions", "w");
    if (!out) std::abort();
    if (!file.empty() && std::fwrite(file.data(), file.size(), 1, out) != 1) std::abort();
    std::fclose(out);
    const int rc = checkVersion(version.c_str(), "vendorx", "hello");
    if (rc != 0 && rc != -1) std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return moduleVersionFuzzOne(data, size); }
#endif

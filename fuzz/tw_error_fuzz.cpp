// The error text built from a record of any bytes, in any language, with a
// fixed message file served from memory.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "tw_api/tw_api.h"

namespace {

class MemoryPlatform : public plat::ForwardingPlatform {
public:
    MemoryPlatform() : ForwardingPlatform(plat::hostPlatform()) {}
    std::string file = "#0x0B:2\n0x0008:\"" + std::string(400, 'L') +
                       "\"\n0x0047:\"kurz\"\n#0x03:1\n0x0001:\"" + std::string(500, 'C') +
                       "\"\n#0x09:1\n0x0005:\"no file for the system\"\n";
    FILE* fopen(const char*, const char* mode) override {
        if (mode[0] != 'r')
            return nullptr;
        return fmemopen(file.data(), file.size(), "r");
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MemoryPlatform memory;
    static plat::ScopedPlatform scope(memory);
    if (size < 1)
        return 0;
    int language = static_cast<int8_t>(data[0]);
    std::memset(&tw_api_error, 0, sizeof tw_api_error);
    std::memcpy(&tw_api_error, data + 1,
                size - 1 < sizeof tw_api_error ? size - 1 : sizeof tw_api_error);

    tw_api_error_type out;
    if (tw_get_error_information2(&out, language, "/etc/msgs") != 0)
        std::abort();
    if (out.text_length > 0xFF || strnlen(out.text, sizeof out.text) == sizeof out.text)
        std::abort();
    if (std::memcmp(&out, &tw_api_error, sizeof out) != 0)
        std::abort();
    tw_get_error_information(&out);
    if (strnlen(out.text, sizeof out.text) == sizeof out.text)
        std::abort();
    return 0;
}

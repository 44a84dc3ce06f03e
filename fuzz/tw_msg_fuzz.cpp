// Message files of any bytes, looked up over any source, code and language.
// Input: source (1 byte), code (4 bytes, little-endian), language (1 byte,
// signed), buffer size for lookup_in_file (1 byte), then the file. The file
// is served from memory for every message file path.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "tw_api/tw_msg_message.h"

namespace {

class MemoryPlatform : public plat::ForwardingPlatform {
public:
    MemoryPlatform() : ForwardingPlatform(plat::hostPlatform()) {}
    std::string file;
    FILE* fopen(const char*, const char* mode) override {
        if (mode[0] != 'r' || file.empty())
            return nullptr;
        return fmemopen(file.data(), file.size(), "r");
    }
};

MemoryPlatform& platform() {
    static MemoryPlatform memory;
    static plat::ScopedPlatform scope(memory);
    return memory;
}

// Every text is terminated, and no longer than a file line and its prefix.
void check(const char* text) {
    if (std::strlen(text) > TW_MSG_LINE_SIZE + 32)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 7)
        return 0;
    MemoryPlatform& memory = platform();
    uint32_t source = data[0];
    uint32_t code = static_cast<uint32_t>(data[1]) | static_cast<uint32_t>(data[2]) << 8 |
                    static_cast<uint32_t>(data[3]) << 16 | static_cast<uint32_t>(data[4]) << 24;
    int language = static_cast<int8_t>(data[5]);
    size_t buffer_size = data[6];
    memory.file.assign(reinterpret_cast<const char*>(data + 7), size - 7);

    static tw_message messages;
    const char* held = messages.lookup(source, code, "/etc/msgs", language);
    std::string copy = held;
    check(held);
    for (uint32_t s = 0; s < 8; ++s)
        check(messages.lookup((source + s) % 22, code + s, "/etc/msgs", language ? language : 1));
    if (copy != held)
        std::abort();  // a text stays good while nine more lookups are made

    char* buffer = static_cast<char*>(std::malloc(buffer_size ? buffer_size : 1));
    if (messages.lookup_in_file(buffer, buffer_size, source, code, "/etc/msgs", language) &&
        std::strlen(buffer) >= buffer_size)
        std::abort();
    std::free(buffer);
    check(messages.lookup_in_array(source, code));
    return 0;
}

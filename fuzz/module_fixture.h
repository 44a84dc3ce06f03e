// What the two module-file fuzz targets share: a fixed 64-bit ELF data part
// that already ends at its last section (the section table lies in front of
// the sections), and the keys its committed seeds were signed with.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "tavutils/tav_cryptokey.h"

namespace modulefuzz {

// Header, three section headers (null, data, bss), then 1500 bytes of data
// ending the file: E is 1756, a whole block and a partial one.
inline std::string elfData()
{
    std::string bytes(64 + 3 * 64 + 1500, '\0');
    auto put = [&](size_t at, uint64_t value, size_t width) {
        for (size_t i = 0; i < width; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
    };
    std::memcpy(bytes.data(), "\x7f" "ELF\x02\x01\x01", 7);
    put(16, 3, 2);       // a shared object
    put(40, 64, 8);      // section table right behind the header
    put(58, 64, 2);
    put(60, 3, 2);
    put(64 + 64 + 4, 1, 4);
    put(64 + 64 + 24, 256, 8);
    put(64 + 64 + 32, 1500, 8);
    put(64 + 128 + 4, 8, 4);  // bss: no file bytes
    put(64 + 128 + 24, 256, 8);
    put(64 + 128 + 32, 4096, 8);
    for (size_t i = 256; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 13 + 5);
    return bytes;
}

// The keys of fuzz/data/module_keys, read once: the maker's and the vendor's.
struct Keys {
    tav_cryptoKey maker, vendor;
};

inline Keys& keys()
{
    static Keys* k = [] {
        auto* made = new Keys;
        FILE* in = std::fopen(TAV_FUZZ_MODULE_KEYS, "r");
        if (!in) std::abort();
        made->maker.readBothKeys(in);
        made->vendor.readDecoderKey(in);
        std::fclose(in);
        return made;
    }();
    return *k;
}

inline void writeModule(const std::string& bytes)
{
    FILE* out = plat::fopen("./modules/fuzz.module", "w");
    if (!out) std::abort();
    if (!bytes.empty() && std::fwrite(bytes.data(), bytes.size(), 1, out) != 1) std::abort();
    std::fclose(out);
}

} // namespace modulefuzz

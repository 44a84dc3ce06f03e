#include "tavutils/tav_elf.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/types.h>

#include "platform/platform.h"
#include "tavutils/tav_error.h"

static int giDebug_tav_elf = 0;
#define TAV_DEBUG_FLAG giDebug_tav_elf
#include "driveutils/tavlog.h"

// Record sizes by class. The first modules were 32-bit objects (52-byte
// header, 40-byte section headers); this host builds and loads 64-bit ones
// (64 and 64). The class byte picks the layout, and E follows the same rule
// in both. Any class byte other than 64-bit is read as 32-bit, as before.
namespace {

constexpr size_t kHeader32 = 52;
constexpr size_t kHeader64 = 64;
constexpr size_t kSection32 = 40;
constexpr size_t kSection64 = 64;
constexpr unsigned char kClass64 = 2;
constexpr uint32_t kNoBits = 8;
constexpr uint16_t kSharedObject = 3;

uint64_t le(const unsigned char* p, size_t n)
{
    uint64_t v = 0;
    for (size_t i = n; i > 0; --i) v = v << 8 | p[i - 1];
    return v;
}

struct FileCloser {
    FILE* f;
    ~FileCloser() { std::fclose(f); }
};

} // namespace

tav_elf::tav_elf() : _isElfFormat(0), _isSharedObject(0), _size(0) {}

void tav_elf::init(const char* filename)
{
    FILE* file = plat::fopen(filename, "r");
    if (!file) throw tav_error("fopen error");
    FileCloser closer{file};

    unsigned char header[kHeader64] = {};
    if (std::fread(header, kHeader32, 1, file) != 1) throw tav_error("fread elf_hdr error");
    const bool wide = header[4] == kClass64;
    if (wide && std::fread(header + kHeader32, kHeader64 - kHeader32, 1, file) != 1)
        throw tav_error("fread elf_hdr error");

    _isElfFormat = std::memcmp(header, "\x7f" "ELF", 4) == 0;
    _isSharedObject = le(header + 16, 2) == kSharedObject;

    const uint64_t shoff = wide ? le(header + 40, 8) : le(header + 32, 4);
    const uint64_t shnum = wide ? le(header + 60, 2) : le(header + 48, 2);
    const size_t entry = wide ? kSection64 : kSection32;

    // E is kept in 32 bits as the trailer's lengths are; an end beyond that
    // saturates, so that it can never match or undercut a real file's size.
    uint64_t end = 0;
    bool bad = shoff > static_cast<uint64_t>(INT64_MAX) || ::fseeko(file, static_cast<off_t>(shoff), SEEK_SET) != 0;
    unsigned char section[kSection64];
    for (uint64_t i = 0; !bad && i < shnum; ++i) {
        if (std::fread(section, entry, 1, file) != 1) {
            bad = true;
            break;
        }
        if (le(section + 4, 4) == kNoBits) continue;
        const uint64_t offset = wide ? le(section + 24, 8) : le(section + 16, 4);
        const uint64_t size = wide ? le(section + 32, 8) : le(section + 20, 4);
        const uint64_t last = size > UINT64_MAX - offset ? UINT64_MAX : offset + size;
        if (last > end) end = last;
    }
    if (bad) {
        TAV_LOG(0, "%s has bad elf tables", filename);
        throw tav_error("failed reading elf tables");
    }
    _size = end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
}

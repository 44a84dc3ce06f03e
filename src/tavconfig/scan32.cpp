#include "tavconfig/scan32.h"

#include <cctype>

namespace tavscan {
namespace {

int digitValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 99;
}

// Reads sign and digits; the magnitude saturates at 2^32 so that every
// overflow of a 32-bit long is still seen as one.
const char* scanMagnitude(const char* p, int base, bool* negative, uint64_t* magnitude)
{
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    *negative = false;
    if (*p == '+' || *p == '-') {
        *negative = *p == '-';
        ++p;
    }
    if (base == 0) {
        if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digitValue(p[2]) < 16) {
            base = 16;
            p += 2;
        } else if (p[0] == '0') {
            base = 8;
        } else {
            base = 10;
        }
    } else if (base == 16 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digitValue(p[2]) < 16) {
        p += 2;
    }
    if (digitValue(*p) >= base) return nullptr;
    uint64_t value = 0;
    for (; digitValue(*p) < base; ++p) {
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digitValue(*p));
        if (value > 0x100000000ULL) value = 0x100000000ULL;
    }
    *magnitude = value;
    return p;
}

} // namespace

const char* scanUnsigned32(const char* text, int base, uint32_t* out)
{
    bool negative;
    uint64_t magnitude;
    const char* end = scanMagnitude(text, base, &negative, &magnitude);
    if (!end) return nullptr;
    if (magnitude > 0xFFFFFFFFULL)
        *out = 0xFFFFFFFFU;
    else
        *out = negative ? static_cast<uint32_t>(0x100000000ULL - magnitude) : static_cast<uint32_t>(magnitude);
    return end;
}

const char* scanInt32(const char* text, int32_t* out)
{
    bool negative;
    uint64_t magnitude;
    const char* end = scanMagnitude(text, 0, &negative, &magnitude);
    if (!end) return nullptr;
    if (negative)
        *out = magnitude >= 0x80000000ULL ? INT32_MIN : -static_cast<int32_t>(magnitude);
    else
        *out = magnitude >= 0x7FFFFFFFULL ? INT32_MAX : static_cast<int32_t>(magnitude);
    return end;
}

} // namespace tavscan

// Number scans as the 32-bit machine made them with sscanf: "%u", "%lu",
// "%i" and "%x" go through a 32-bit strtoul or strtol, which saturates on
// overflow and wraps a negative unsigned value. Leading white space is
// skipped. Each returns the position behind the number, or null when no
// digit was read (the item was not scanned).
#pragma once

#include <cstdint>

namespace tavscan {

// "%u" and "%lu" (base 10) or "%x" (base 16) into an unsigned 32-bit value.
const char* scanUnsigned32(const char* text, int base, uint32_t* out);

// "%i": base 0 (decimal, octal with a leading 0, hex with 0x), into int32.
const char* scanInt32(const char* text, int32_t* out);

} // namespace tavscan

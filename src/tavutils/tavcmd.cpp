#include "tavutils/tavcmd.h"

#include <climits>

namespace {
constexpr int kMaxDigits = 511;
}

int TavCmd::read(FILE* stream)
{
    if (!stream) return 0;
    int digits = 0;
    // A number beyond 32 bits saturates at UINT_MAX rather than wrapping.
    unsigned long long value = 0;
    int c = EOF;
    while (digits < kMaxDigits) {
        c = fgetc(stream);
        if (c < '0' || c > '9') break;
        ++digits;
        if (value <= UINT_MAX) value = value * 10 + static_cast<unsigned>(c - '0');
        c = EOF;
    }
    // The first non-digit goes back, unless the limit ended the read.
    if (digits < kMaxDigits && c != EOF) ungetc(c, stream);
    if (digits == 0) return 0;
    flags = value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
    return 1;
}

void TavCmd::write(FILE* stream) const
{
    if (stream) fprintf(stream, "%d", static_cast<int>(flags));
}

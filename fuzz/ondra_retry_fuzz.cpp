// The supervisor's retry file of arbitrary bytes: a match sets both numbers,
// no match leaves them as they were.
#include <cstdio>
#include <cstdlib>

#include "driveutils/ondraProcess.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    FILE* stream = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (!stream) return 0;
    int number = -7;
    int time = -7;
    if (!ondraReadRetryLimits(stream, number, time) && (number != -7 || time != -7)) std::abort();
    std::fclose(stream);
    return 0;
}

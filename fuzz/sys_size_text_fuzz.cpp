// sys_uint64_to_string_alloc on any value: the text's number times its unit
// comes back within the rounding of its decimals.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "infr/string.h"
#include "infr/sys.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint64_t value = 0;
    std::memcpy(&value, data, size < sizeof value ? size : sizeof value);
    char* text = sys_uint64_to_string_alloc(value);
    char* end = nullptr;
    const double number = std::strtod(text, &end);
    const char* dot = std::strchr(text, '.');
    const int decimals = dot ? static_cast<int>(end - dot - 1) : 0;
    double unit = 0;
    if (std::strcmp(end, "B") == 0) unit = 1;
    else if (std::strcmp(end, "KB") == 0) unit = 0x1p10;
    else if (std::strcmp(end, "MB") == 0) unit = 0x1p20;
    else if (std::strcmp(end, "GB") == 0) unit = 0x1p30;
    else if (std::strcmp(end, "TB") == 0) unit = 0x1p40;
    if (unit == 0 || end == text) std::abort();
    if (unit == 1 && (dot || static_cast<uint64_t>(number) != value)) std::abort();
    const double v = static_cast<double>(value);
    const double slack = 0.5 * std::pow(10.0, -decimals) * unit * (1 + 1e-9) + v * 1e-15;
    if (std::fabs(number * unit - v) > slack) std::abort();
    // The unit is the largest that leaves at least 1 (TB for everything above).
    if (unit < 0x1p40 && number > 1024) std::abort();
    if (unit > 1 && number < 1) std::abort();
    string_free(text);
    return 0;
}

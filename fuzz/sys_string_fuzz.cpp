// sys_string_to_uint64 and its narrower forms on any text: a defined result,
// and the narrow forms agree with the wide one.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <arpa/inet.h>

#include "infr/sys.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    uint64_t v64 = 1;
    uint32_t v32 = 1;
    uint16_t v16 = 1, port = 1;
    const int ok64 = sys_string_to_uint64(text.c_str(), &v64);
    const int ok32 = sys_string_to_uint32(text.c_str(), &v32);
    const int ok16 = sys_string_to_uint16(text.c_str(), &v16);
    const int okPort = sys_string_to_net_port(text.c_str(), &port);
    if (ok64 != 0 && ok64 != 1) std::abort();
    if (!ok64 && v64 != 0) std::abort();
    if (ok32 != (ok64 && v64 <= UINT32_MAX) || v32 != (ok32 ? v64 : 0)) std::abort();
    if (ok16 != (ok64 && v64 <= UINT16_MAX) || v16 != (ok16 ? v64 : 0)) std::abort();
    if (okPort != ok16 || port != htons(v16)) std::abort();
    return 0;
}

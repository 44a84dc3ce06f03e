// Arbitrary text to the chassis controller's argument readers: a number, one
// or two drive lists in both forms, and the voltage selector. The text ends
// at its first zero byte, as a command buffer's does.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"

namespace {

// The reader may only move forward, and not past the text's end.
void checkMoved(const std::string& text, const char* at)
{
    const char* begin = text.c_str();
    if (at < begin || at > begin + std::strlen(begin)) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);

    std::string number = input;
    char* at = number.data();
    getNumber(&at);
    checkMoved(number, at);

    for (int plain : {0, 1}) {
        std::string lists = input;
        char* text = lists.data();
        for (int list = 0; list < 2; ++list) {
            int mask = getDrives(text, plain);
            if (mask < -1 || mask > 0xff) std::abort();
            checkMoved(lists, text);
            if (mask >= 0 && *text >= '0' && *text <= '9') std::abort();
        }
    }

    int which = dspVoltageSelector(input.c_str());
    if (which < -1 || which > TAV_DSP_VOLTAGE_12_0) std::abort();
    return 0;
}

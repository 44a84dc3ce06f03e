#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// The limit goes to the DSP as given, with no scale, and no answer is awaited.
int dspTempLimit(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    std::string args = dspcmd::argumentText(buffer, length);
    char* text = args.data();
    int limit = getNumber(&text);
    // The limit travels in one byte: a larger one would reach the DSP as another limit.
    if (limit < 1 || limit > 255) return dspcmd::reply(buffer, length, -1, "Unable to get temp limit argument");
    if (!dspcmd::send(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_TEMP_LIMIT_SUB, static_cast<unsigned char>(limit)}))
        return dspcmd::reply(buffer, length, -1, "Unable to set temp limit");
    return dspcmd::reply(buffer, length, 0, "Temperature limit = %d sent to Dsp", limit);
}

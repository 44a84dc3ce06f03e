#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// A limit of 51 counts only when the DSP also answers a firmware date
// request; one that does not has no limit to give.
constexpr int kDoubtfulLimit = 51;

int dspGetTempLimit(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    if (!dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_DRIVE_TEMP_SUB}, 1))
        return dspcmd::reply(buffer, length, -1, "Unable to get temp limit response");
    int limit = dspStatusTempLimit();
    if (limit == kDoubtfulLimit && !dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_VERSION_DATE_SUB}, 1))
        return dspcmd::reply(buffer, length, 0, "Unavailable");
    return dspcmd::reply(buffer, length, 0, "%d", limit);
}

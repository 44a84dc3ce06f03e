#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"
#include "driveutils/dsp/tavdspdiskstatus.h"

int dspStatus(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    TavDspDiskStatus::statusIsReady(0);
    if (!dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_POWER_CLAMP_SUB}, 1))
        return dspcmd::reply(buffer, length, -1, "Unable to get status command response");
    if (dspStatusPowerClamp(buffer, length) < 0) return dspcmd::reply(buffer, length, -1, "Unable to get drive status");
    return 0;
}

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

int dspLastCommand(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    if (!dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_LAST_COMMAND_SUB}, 1))
        return dspcmd::reply(buffer, length, -1, "Unable to get last command response");
    if (dspStatusLastCommand(buffer, length) < 0)
        return dspcmd::reply(buffer, length, -1, "Unable to get last command in DSP");
    return 0;
}

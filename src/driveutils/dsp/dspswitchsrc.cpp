#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// Sent without waiting: the DSP's acknowledgement comes to the reader.
int dspSwitchSrc(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    if (!dspcmd::send(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_SWITCH_PWR_SUB}))
        return dspcmd::reply(buffer, length, -1, "Unable to switch power source");
    return dspcmd::reply(buffer, length, 0, "Switch power source message sent");
}

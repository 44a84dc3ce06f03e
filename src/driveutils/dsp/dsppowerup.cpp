#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// Two lists of drives: those to power, those to unclamp.
int dspPowerUp(char* buffer, int length)
{
    return dspcmd::powerCommand(buffer, length, TAV_DSP_POWER_UP_CMD, 1, 2);
}

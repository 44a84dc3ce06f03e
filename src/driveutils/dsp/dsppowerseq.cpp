#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// Two lists of drives: those to power, those to unclamp.
int dspPowerSeq(char* buffer, int length)
{
    return dspcmd::powerCommand(buffer, length, TAV_DSP_POWER_SEQ_CMD, 1, 4);
}

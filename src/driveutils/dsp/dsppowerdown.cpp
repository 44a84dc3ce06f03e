#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// Two lists of drives, each naming the drives to leave alone: the command
// carries their complements (power, clamp).
int dspPowerDown(char* buffer, int length)
{
    return dspcmd::powerCommand(buffer, length, TAV_DSP_POWER_DOWN_CMD, 0, 1);
}

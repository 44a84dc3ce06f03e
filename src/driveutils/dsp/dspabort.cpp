#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

static int giDebug_dspabort = 0;
#define TAV_DEBUG_FLAG giDebug_dspabort
#include "driveutils/tavlog.h"

int dspAbort(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    if (dspcmd::askStatus(buffer, length, {TAV_DSP_ABORT_CMD}, 1)) return 0;
    TAV_LOG(0, "Unable to get status (%s)\n", TAV_FILE);
    return dspcmd::reply(buffer, length, -1, "Unable to get status");
}

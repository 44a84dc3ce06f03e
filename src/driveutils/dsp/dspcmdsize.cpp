#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// Commands keep their ten bytes: the request is refused, and nothing is sent.
int dspCmdSize(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    return dspcmd::reply(buffer, length, -1, "Command length resizing is not supported");
}

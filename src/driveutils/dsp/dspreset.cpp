#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// The DSP answers a reset with a power-off before it is done; the flag keeps
// that power-off from ending the wait.
int dspReset(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    TavDspMsg::dspResetFlag = 1;
    int rc = dspcmd::askStatus(buffer, length, {TAV_DSP_RESET_CMD}, 4)
                 ? 0
                 : dspcmd::reply(buffer, length, -1, "Unable to get status after Reset");
    TavDspMsg::reinitMsgList();
    return rc;
}

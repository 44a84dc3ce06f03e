#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// The argument is a 1-based drive of the unit.
int dspTempDrive(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    std::string args = dspcmd::argumentText(buffer, length);
    char* text = args.data();
    int drive = getNumber(&text);
    if (drive < 1 || drive > dspcmd::unitDrives()) return dspcmd::reply(buffer, length, -1, "Unable to get drive argument");
    if (!dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_DRIVE_TEMP_SUB}, 1))
        return dspcmd::reply(buffer, length, -1, "Unable to get temp drive response");
    return dspcmd::reply(buffer, length, 0, "%d", dspStatusTempDrive(drive));
}

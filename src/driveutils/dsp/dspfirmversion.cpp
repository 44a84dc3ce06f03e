#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

// The date version when the DSP answers for it, else the driver's version character.
int dspFirmVersion(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    if (dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_VERSION_DATE_SUB}, 1)) {
        char d[11];
        if (dspStatusDateVersion(d, sizeof d) < 0)
            return dspcmd::reply(buffer, length, -1, "Unable to get DSP firmware date version");
        return dspcmd::reply(buffer, length, 0, "Date: %c%c/%c%c/20%c%c, %cU %c", d[4], d[5], d[6], d[7], d[2], d[3],
                             d[1], d[9]);
    }
    int version = dspStatusFirmVersion();
    if (version < 0) return dspcmd::reply(buffer, length, -1, "Unable to get DSP firmware version");
    return dspcmd::reply(buffer, length, 0, "Dsp firmware version: %c (%d)", version, version);
}

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/dspcommon.h"

int dspVoltage(char* buffer, int length)
{
    if (!dspcmd::validBuffer(buffer, length)) return -1;
    int which = dspVoltageSelector(dspcmd::argumentText(buffer, length).c_str());
    if (which < 0) return dspcmd::reply(buffer, length, -1, "Unable to determine argument");
    if (!dspcmd::ask(buffer, length, {TAV_DSP_STATUS_CMD, TAV_DSP_VOLTAGE_SUB}, 1))
        return dspcmd::reply(buffer, length, -1, "Unable to get voltage command response");
    return dspcmd::reply(buffer, length, 0, "Voltage = %f", static_cast<double>(dspStatusVoltage(which)));
}

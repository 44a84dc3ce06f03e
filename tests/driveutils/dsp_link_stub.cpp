// TEMPORARY: stands in for the chassis controller's link until the link is
// in the tree; removed then. A link whose driver never opened.
#include <cstdlib>

#include "driveutils/dsp/tavdsp.h"

std::atomic<int> tavDspNumDrives{0};
std::atomic<int> TavDspMsg::dspResetFlag{0};
int TavDspMsg::reinitMsgList() { return 0; }
int tavDspDriverFd() { return -1; }
unsigned char tavDspDriveByte(unsigned char) { return 0; }
int sendMessage(char*, int) { return -1; }
int dspGetDspResponse(char*, int, int) { return -1; }
int getNumber(char** text)
{
    char* end = nullptr;
    long value = std::strtol(*text, &end, 10);
    if (end == *text) return -1;
    *text = end;
    return static_cast<int>(value);
}
int dspStatusPowerClamp(char*, int) { return -1; }
int dspStatusLastCommand(char*, int) { return -1; }
int dspStatusTempDrive(int) { return 0; }
unsigned char dspStatusTempLimit() { return 0; }
float dspStatusVoltage(int) { return 0; }
int dspStatusDateVersion(char*, int) { return -1; }
int dspStatusFirmVersion() { return -1; }

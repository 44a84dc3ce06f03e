// The chassis controller's commands. Each takes its arguments as text in
// `buffer` and leaves its answer there as text; `length` is the buffer's
// size and must be at least 17. The result is 0 or -1.
#pragma once

#include "driveutils/dsp/tavdsp.h"

constexpr int TAV_DSP_MIN_BUFFER = 17;

int dspReset(char* buffer, int length);
int dspCmdSize(char* buffer, int length);
int dspStatus(char* buffer, int length);
int dspPowerSeq(char* buffer, int length);
int dspPowerDown(char* buffer, int length);
int dspPowerUp(char* buffer, int length);
int dspAbort(char* buffer, int length);
int dspLastCommand(char* buffer, int length);
int dspTempDrive(char* buffer, int length);
int dspTempLimit(char* buffer, int length);
int dspGetTempLimit(char* buffer, int length);
int dspVoltage(char* buffer, int length);
int dspSwitchSrc(char* buffer, int length);
int dspFirmVersion(char* buffer, int length);

// The voltage a text asks for ("3.3", "5.0SB", "5.0", "12.0", looked for in
// this order anywhere in it) as a tavDspVoltageType; -1 for none.
int dspVoltageSelector(const char* text);

// One drive list ("134": drives 1, 3 and 4) as a mask with bit d-1 for digit
// d; the text moves behind the digits. -1 when there is no list; with plain 0
// the 8-bit complement of the mask.
int getDrives(char*& text, int plain);

// Sends a command, then a status request, and copies the answer by kind:
// 0 the last command's text, 1 the drive status text.
int dspGetDspStatus(char* msg, int length, int seconds, int kind);

// The drive status text of a status record: two characters a drive.
int dspGetStatusValue(tavDspKernelChar* record, char* text, int length);

// The thread of a drive going down; arg is a new int with the 1-based drive.
void* runPowerDown(void* arg);

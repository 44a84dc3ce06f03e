// Arbitrary records from the chassis controller's driver, as the reader takes
// them: each goes to parseInput and to the bay table's comparison, with the
// list of pending commands filled from the input first; then every value
// reader and the status text are read back.
//
// Input: byte 0 picks the unit (its low bit: eight drives or four) and the
// count of pending commands (bits 1-3); then ten bytes per command; then
// records of 112 bytes, a shorter tail zero-filled.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/dsp/tavdspdiskstatus.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    TavDspMsg::reinitMsgList();
    tavDspNumDrives = (data[0] & 1) ? 8 : 4;
    size_t pending = (data[0] >> 1) & 7, at = 1;
    for (size_t i = 0; i < pending && at + TAV_DSP_CMD_LEN <= size; ++i, at += TAV_DSP_CMD_LEN) {
        char command[TAV_DSP_CMD_LEN];
        std::memcpy(command, data + at, sizeof command);
        TavDspMsg::addMessage(command, sizeof command);
    }
    while (at < size) {
        tavDspKernelChar record;
        std::memset(&record, 0, sizeof record);
        size_t n = size - at < sizeof record ? size - at : sizeof record;
        std::memcpy(&record, data + at, n);
        at += n;
        TavDspDiskStatus::compareDriveStatus(&record);
        if (parseInput(&record) != 0) std::abort();
    }

    char text[80];
    dspStatusPowerClamp(text, sizeof text);
    dspStatusLastCommand(text, sizeof text);
    dspStatusDateVersion(text, sizeof text);
    dspStatusTempLimit();
    for (int v = -1; v <= 4; ++v) dspStatusVoltage(v);
    for (int d = -1; d <= 9; ++d) dspStatusTempDrive(d);
    tavDspKernelChar last;
    std::memset(&last, 0xff, sizeof last);
    dspGetStatusValue(&last, text, sizeof text);
    if (std::memchr(text, 0, sizeof text) == nullptr) std::abort();
    if (TavDspMsg::counter < 0 || TavDspMsg::counter > 7) std::abort();
    return 0;
}

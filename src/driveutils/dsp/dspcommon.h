// What the command units and the bay table share: the unit's drive count and
// the one pattern of every command (check the buffer, lay the command bytes
// into it, send or ask, write the answer or the failure text). Not an
// interface of the library.
#pragma once

#include <string>

#include "driveutils/dsp/tavdsp.h"

namespace dspcmd {

// Bays of the unit: 8 on an eight-drive unit, 4 for any other count.
int unitDrives();

// The three bytes that matter of a command; the rest of its 13 are zero.
struct Command {
    unsigned char code;
    unsigned char arg1 = 0;
    unsigned char arg2 = 0;
};

// A logical drive mask as the DSP wants it, bit by bit through tavDspDriveByte.
unsigned char wireMask(int logical);

// False for a null buffer or one shorter than TAV_DSP_MIN_BUFFER: logged, and
// "Invalid parameter" written where at least one byte may be.
bool validBuffer(char* buffer, int length);

// The argument text the caller left in the buffer, cut at `length` when it
// carries no zero byte.
std::string argumentText(const char* buffer, int length);

// Writes the formatted answer, never more than `length` bytes, and returns `result`.
int reply(char* buffer, int length, int result, const char* format, ...) __attribute__((format(printf, 4, 5)));

// Lays the command into the buffer and sends it without waiting.
bool send(char* buffer, int length, Command command);
// Lays the command into the buffer and waits `seconds` a round for the answer.
bool ask(char* buffer, int length, Command command, int seconds);
// Lays the command into the buffer; on success the buffer holds the drive status text.
bool askStatus(char* buffer, int length, Command command, int seconds);

// The three power commands: two drive lists in the buffer (taken as
// complements when plain is 0), the status text back.
int powerCommand(char* buffer, int length, tavDspCommand code, int plain, int seconds);

} // namespace dspcmd

// The mount-time tool: stamps the mount and dismount times of one drive into
// the in-memory signature and writes it to every drive.
//
//     updatemount <drivenum> <mounttime> [<unmounttime>]
//
// Exit status 1 for a wrong argument count or drive number, 0 otherwise.
#pragma once

#include <cstdint>

// The program's entry; its main is a thin caller.
int updatemount(int argc, char** argv);

void usage(const char* name);
// True for a position from 1 to the platform's drive count.
bool isdrivenumber(const char* text);

// The C library's string-to-long of a 32-bit machine: base 10, text behind
// the digits ignored, no digits 0, saturating at the 32-bit limits.
int32_t tavStrtol32(const char* text);

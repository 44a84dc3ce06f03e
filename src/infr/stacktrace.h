// Stack traces of the running thread, translated by an addr2line child.
#pragma once

#include <cstddef>
#include <cstdint>

// One frame of a trace, or one executable mapping of the process. `start` is
// the load address of the object (what its own addresses are offset by: 0
// for a program linked at a fixed address); `obj` is null for the program.
struct pcset {
    uintptr_t pc;
    uintptr_t start;
    const char* obj;
};

constexpr int STACKTRACE_FRAMES = 20;
constexpr int STACKTRACE_MAPS = 64;

// Fills `buffer` (STACKTRACE_FRAMES entries) with the frames of the calling
// thread, innermost first, ended by a null pc when there are fewer.
void stacktrace_get(pcset* buffer);
void stacktrace_dump(const pcset* buffer);
void stacktrace_close();

// The executable mappings of "/proc/PID/maps": at most `max` entries in
// `buffer`, the program's first; the count. Paths are owned by the table.
int readmaps(pcset* buffer, int max);

// Starts the addr2line child once; false when it could not be started.
bool addr2line_init();
// "place function" of an address of the program (relative to its load
// address) into `text`; false when unknown.
bool addr2line_dump(uintptr_t pc, char* text, size_t length);
// The same for an address in a shared object, by a command of its own.
// 1 translated, 2 a signal frame, 0 unknown.
int addr2line_obj_dump(const pcset* entry, char* text, size_t length);

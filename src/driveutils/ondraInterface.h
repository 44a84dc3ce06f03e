// The facade through which the module drives its three daemons (store,
// virtual manager, manager), and the one object `ondraIf` that serves the
// program. Only the calls of the power path stand here so far, over a process
// table that does not exist yet; the service commands complete the class later.
#pragma once

#include <cstdint>

#include "tavutils/tavstring.h"

// Logs the current error and, for ENOMEM and ENOSPC, ends the program with the
// error as its status (the module's supervisor starts it anew).
void tavOndraErrno(int errNumber);
// Removes blanks, form feeds, newlines, carriage returns and tabs; null does nothing.
void tavOndraStripWhiteSpace(char* str);
// Host order to wire order: the wire is the host's own little-endian order.
inline uint64_t tav_htorn64(uint64_t v) { return v; }
inline uint32_t tav_htorn32(uint32_t v) { return v; }
inline uint16_t tav_htorn16(uint16_t v) { return v; }

class TavOndraInterface {
public:
    // "TRUE" when the process of `type` runs, else "FALSE"; 0, or -1 for a bad type.
    int getRun(TavString& buffer, int type);
    // 0, or -1 with the reason in buffer.
    int processStop(TavString& buffer, int type);
    // Runs the command of run state `state` of the process of `type`: 0, or -1 with the reason in buffer.
    int processStart(TavString& buffer, int state, int type);

private:
    // False (with the log and "Invalid type" in buffer) for a type outside 0 to 2.
    static bool validType(TavString& buffer, int type, int line);
};

extern TavOndraInterface ondraIf;

// The controller library's three entry points, answered by the active platform.
#pragma once

#include "platform/platform.h"

inline int InitMegaLib() { return plat::current().InitMegaLib(); }
inline int GetDllVersion(char* major, char* minor) { return plat::current().GetDllVersion(major, minor); }
inline int MegaLibCommand(int opcode, int adapter, int channel, int target, int size, void* buffer)
{
    return plat::current().MegaLibCommand(opcode, adapter, channel, target, size, buffer);
}

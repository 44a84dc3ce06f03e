// Every getter of the controller API against drivers that answer with
// fuzzed bytes and errors (tw_ioctl_input.h).
#include "tw_ioctl_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return twfuzz::ioctlInput(data, size); }

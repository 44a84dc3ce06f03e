// The controller API's Linux side on kernel files of any text (tw_os_input.h).
#include "tw_os_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return twfuzz::osInput(data, size); }

// One line of a process listing against a process name: the pid column and
// the command column of arbitrary text. The name comes first, up to a NUL.
#include <cstdlib>
#include <cstring>
#include <string>

#include "driveutils/ondraProcess.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t nul = input.find('\0');
    const std::string name = nul == std::string::npos ? "ondrastore" : input.substr(0, nul);
    const std::string line = nul == std::string::npos ? input : input.substr(nul + 1);
    int pid = -1;
    bool error = false;
    if (ondraPsLineMatches(line.c_str(), name.c_str(), pid, error) && !error && pid <= 0) std::abort();
    return 0;
}

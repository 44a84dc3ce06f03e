#include "driveutils/updatemount.h"

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "driveutils/tavdrivemgr.h"

int32_t tavStrtol32(const char* text)
{
    long long value = std::strtoll(text, nullptr, 10);
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

void usage(const char* name)
{
    // "1 to 8" is the fixed text on every platform; the check uses the live count.
    std::printf("usage:%s <drivenum> <mounttime> [<unmounttime>]\n", name);
    std::printf("where <drivenum> is 1 to 8\n");
    std::printf("and <mounttime> and <unmounttime> are numbers.\n");
    std::printf("use -1 to not set mounttime\n");
    std::fflush(stdout);
}

bool isdrivenumber(const char* text)
{
    int32_t drive = tavStrtol32(text);
    return drive > 0 && drive <= TavDriveMgr::nDrives;
}

// The platform comes up before the arguments are looked at, so that the
// drive count is known. What single drives do never changes the status.
int updatemount(int argc, char** argv)
{
    TavDriveMgr::init();
    const char* name = argc > 0 ? argv[0] : "updatemount";
    if ((argc != 3 && argc != 4) || !isdrivenumber(argv[1])) {
        usage(name);
        return 1;
    }
    const int drive = tavStrtol32(argv[1]);
    // 32-bit times, sign-extended to the stored 64 bits; only the sign decides.
    const long long mountTime = tavStrtol32(argv[2]);
    const long long unmountTime = argc == 4 ? tavStrtol32(argv[3]) : -1;

    TavDriveMgr::readSignatureIntoMemory();
    if (mountTime >= 0) TavDriveMgr::setMountTime(drive, mountTime);
    if (unmountTime >= 0) TavDriveMgr::setUnmountTime(drive, unmountTime);
    for (int i = 1; i <= TavDriveMgr::nDrives; ++i) TavDriveMgr::writeSignature(i);
    return 0;
}

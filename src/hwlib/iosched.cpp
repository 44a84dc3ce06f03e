#include "hwlib/iosched.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>

#include "hwlib/tavhwid.h"
#include "platform/platform.h"
#include "tavconfig/scan32.h"
#include "tavconfig/tavassert.h"

namespace {

// "host%u/bus%u/target%u/lun%u": the number of values scanned.
int scanAddress(const char* text, unsigned int out[4])
{
    static const char* const kWords[4] = {"host", "bus", "target", "lun"};
    const char* p = text;
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            if (*p != '/') return i;
            ++p;
        }
        size_t n = std::strlen(kWords[i]);
        if (std::strncmp(p, kWords[i], n) != 0) return i;
        uint32_t value;
        const char* end = tavscan::scanUnsigned32(p + n, 10, &value);
        if (!end) return i;
        out[i] = value;
        p = end;
    }
    return 4;
}

} // namespace

int getSysFSDeviceRoot(const char* device, char* systemName, unsigned int length)
{
    TAV_ASSERT(device);
    TAV_ASSERT(systemName);
    std::string path(device);
    unsigned int a[4];
    size_t at;
    if ((at = path.find("/scsi/")) != std::string::npos) {
        if (scanAddress(path.c_str() + at + 6, a) != 4) return -1;
        std::snprintf(systemName, length, "/sys/bus/scsi/devices/%u:%u:%u:%u/block/", a[0], a[1], a[2], a[3]);
        return 0;
    }
    if ((at = path.find("/ide/")) != std::string::npos) {
        if (scanAddress(path.c_str() + at + 5, a) != 4) return -1;
        std::snprintf(systemName, length, "/sys/bus/ide/devices/%u.%u/block/", a[1], a[2]);
        return 0;
    }
    if (path.compare(0, 5, "/dev/") == 0) {
        // Three characters behind the second "/": partition digits fall away.
        std::snprintf(systemName, length, "/sys/block/%s/", path.substr(5, 3).c_str());
        return 0;
    }
    return -1;
}

int writeOnce(const char* directory, const char* file, const char* value)
{
    TAV_ASSERT(directory);
    TAV_ASSERT(file);
    TAV_ASSERT(value);
    std::string path = std::string(directory) + file;
    FILE* out = plat::fopen(path.c_str(), "w");
    if (!out) return -1;
    int written = std::fprintf(out, "%s", value);
    std::fclose(out);
    return written == static_cast<int>(std::strlen(value)) ? 0 : -1;
}

int configureIoScheduler(const char* device)
{
    char root[1024];
    int result = getSysFSDeviceRoot(device, root, sizeof root);
    if (result != 0) return result;
    struct stat st;
    if (plat::stat(root, &st) != 0) return 1;

    char scheduler[256];
    if (hwid_getFeatureSetting("IOSCHED", "schedule", scheduler, sizeof scheduler) != 0) return -1;
    if (writeOnce(root, "queue/scheduler", scheduler) != 0) return -1;
    plat::usleep(1000);

    std::string tuning = std::string(root) + "queue/iosched/";
    DIR* dir = plat::opendir(tuning.c_str());
    if (!dir) return -1;
    std::string section = std::string("IOSCHED.") + scheduler;
    // "." and ".." are looked up too, like every other entry.
    while (dirent* entry = readdir(dir)) {
        char value[256];
        if (hwid_getFeatureSetting(section.c_str(), entry->d_name, value, sizeof value) == 0)
            writeOnce(tuning.c_str(), entry->d_name, value);
    }
    closedir(dir);
    return 0;
}

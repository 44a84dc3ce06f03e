#include "driveutils/tavhdwcache.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "platform/tavio.h"

static int giDebug_tavhdwcache = 0;
#define TAV_DEBUG_FLAG giDebug_tavhdwcache
#include "driveutils/tavlog.h"

const char* const HD_WCACHE_STAT_FILE = "./configs/etc/marrowby/HD_WCACHE_STAT";

pthread_mutex_t gpmThreadLock = PTHREAD_MUTEX_INITIALIZER;
int giUserSelectedCacheValue = 0;

namespace {

const char kMarkerText[] = "TAV_WCACHE_HD=ON\n";

// Runs `body` under gpmThreadLock; -3 when the lock cannot be taken.
template <typename Body>
int underLock(const char* function, Body body)
{
    if (pthread_mutex_lock(&gpmThreadLock) != 0) {
        TAV_LOG(0, "WriteCache ERROR:  %s(): Unable to lock mutex\n", function);
        return -3;
    }
    int rc = body();
    if (pthread_mutex_unlock(&gpmThreadLock) != 0)
        TAV_LOG(0, "WriteCache ERROR:  %s(): Unable to unlock mutex\n", function);
    return rc;
}

// Rewrites an existing marker; an absent one stays absent.
void refreshMarker()
{
    int fd = plat::open(HD_WCACHE_STAT_FILE, O_RDWR);
    if (fd < 0) return;
    if (tav_write(fd, kMarkerText, sizeof kMarkerText - 1) != static_cast<ssize_t>(sizeof kMarkerText - 1))
        TAV_LOG_SYSFAIL("write", "SelectHardDriveWriteCache");
    plat::close(fd);
}

} // namespace

int SelectHardDriveWriteCache(int iChoice)
{
    return underLock("SelectHardDriveWriteCache", [&] {
        switch (iChoice) {
        case HD_WCACHE_ON:
            giUserSelectedCacheValue = iChoice;
            refreshMarker();
            return 0;
        case HD_WCACHE_OFF:
            giUserSelectedCacheValue = iChoice;
            plat::unlink(HD_WCACHE_STAT_FILE);
            return 0;
        default:
            TAV_LOG(0, "WriteCache ERROR:  SelectHardDriveWriteCache(%d): Unknown Selection\n", iChoice);
            return -2;
        }
    });
}

int SetAllHardDriveWriteCacheToSelected()
{
    return underLock("SetAllHardDriveWriteCacheToSelected", [] {
        int value = giUserSelectedCacheValue;
        // Without a choice the marker decides, and the choice stays unmade.
        if (value == 0) {
            struct stat st;
            value = plat::stat(HD_WCACHE_STAT_FILE, &st) == 0 ? HD_WCACHE_ON : HD_WCACHE_OFF;
        }
        return SetAllHardDriveWriteCache(value);
    });
}

int SetAllHardDriveWriteCache(int iWCache)
{
    int failed = 0;
    for (int drive = 1; drive <= TavDriveMgr::nDrives; ++drive) {
        RaidDeviceMgmt::TavDrive* d = TavDriveMgr::getDrive(drive);
        int rc = d ? d->SetHardDriveWriteCache(iWCache) : -1;
        if (rc != 0) {
            // This wording for both directions.
            TAV_LOG(0, "WriteCache ERROR:  SetHardDriveWriteCacheOff(%d): Failed %d\n", drive, rc);
            ++failed;
        }
    }
    return failed;
}

int SetAllHardDriveWriteCacheOn() { return SetAllHardDriveWriteCache(HD_WCACHE_ON); }

int SetAllHardDriveWriteCacheOff() { return SetAllHardDriveWriteCache(HD_WCACHE_OFF); }

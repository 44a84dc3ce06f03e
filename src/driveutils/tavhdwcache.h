// The drives' write cache setting: the choice of the platform, kept across
// restarts by a marker file, and its application to every drive.
#pragma once

#include <pthread.h>

// 2 turns a drive's write cache on, 130 (0x82) turns it off: the ATA
// set-features subcommands themselves.
constexpr int HD_WCACHE_ON = 2;
constexpr int HD_WCACHE_OFF = 130;

// Present means "on"; laid down by the system's image, never created here.
extern const char* const HD_WCACHE_STAT_FILE;

extern pthread_mutex_t gpmThreadLock;
// 0 until a choice is made.
extern int giUserSelectedCacheValue;

// 0, -2 for a value other than 2 or 130, -3 when the lock fails.
int SelectHardDriveWriteCache(int iChoice);
// The number of drives that failed, or -3 when the lock fails.
int SetAllHardDriveWriteCacheToSelected();
// The number of drives that failed; every drive is tried.
int SetAllHardDriveWriteCache(int iWCache);
int SetAllHardDriveWriteCacheOn();
int SetAllHardDriveWriteCacheOff();

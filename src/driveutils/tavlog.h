// The logging macros. A source file that logs declares its own debug flag and
// names it before including this header:
//
//     static int giDebug_sample = 0;
//     #define TAV_DEBUG_FLAG giDebug_sample
//     #include "driveutils/tavlog.h"
//
// TAV_LOG(level, format, ...) prints when the file's flag or
// tavGlobalDebugLevel is at or above the level: through syslog as "corvane"
// when tavGlobalUseSyslog is set, else to stderr with a flush. There is no
// function behind it; the format carries its own location ("%s:%d").
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <syslog.h>

#include "driveutils/tavsysutils.h"

#ifndef TAV_DEBUG_FLAG
#error "define TAV_DEBUG_FLAG to the file's debug flag before including tavlog.h"
#endif

// Trace levels in use. Level 0 is always on unless both flags are negative.
enum TavLogLevel {
    TAV_LOG_ALWAYS = 0,
    TAV_LOG_L3 = 3,
    TAV_LOG_L5 = 5,
    TAV_LOG_L10 = 10,
    TAV_LOG_L20 = 20,
    TAV_LOG_L50 = 50,
    TAV_LOG_L90 = 90,
    TAV_LOG_THREADSAFETY = 99,
    TAV_LOG_L100 = 100,
};

// The base name of a source path, for the "%s:%d" of a log site.
constexpr const char* tav_basename(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/') base = p + 1;
    return base;
}

#define TAV_FILE tav_basename(__FILE__)

#define TAV_LOG(level, ...)                                                                \
    do {                                                                                   \
        if (TAV_DEBUG_FLAG >= (level) || tavGlobalDebugLevel >= (level)) {                 \
            if (tavGlobalUseSyslog) {                                                      \
                ::openlog("corvane", LOG_CONS | LOG_NDELAY, LOG_LOCAL4);                   \
                ::syslog(LOG_LOCAL4 | LOG_NOTICE, __VA_ARGS__);                            \
            } else {                                                                       \
                fprintf(stderr, __VA_ARGS__);                                              \
                fflush(stderr);                                                            \
            }                                                                              \
        }                                                                                  \
    } while (0)

// "<call> failed in <function> error:<errno>:<text> <file>:<line>", for a
// negative result of a system call; errno is read at the site.
#define TAV_LOG_SYSFAIL(call, function)                                                    \
    do {                                                                                   \
        int tav_log_errno_ = errno;                                                        \
        TAV_LOG(0, "%s failed in %s error:%d:%s %s:%d\n", (call), (function), tav_log_errno_, \
                strerror(tav_log_errno_), TAV_FILE, __LINE__);                             \
    } while (0)

// "<function>: <call> only <got> of <wanted> bytes. <file>:<line>", for a short count.
#define TAV_LOG_SHORT(function, call, got, wanted)                                         \
    TAV_LOG(0, "%s: %s only %d of %d bytes. %s:%d\n", (function), (call), static_cast<int>(got), \
            static_cast<int>(wanted), TAV_FILE, __LINE__)

#include "driveutils/tavsysutils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

int tavGlobalDebugLevel = 0;
int tavGlobalUseSyslog = 0;

tav_syslogbuf::tav_syslogbuf() { setp(buffer, buffer + kBufferSize); }

// One last sync, so that text still pending at exit is not lost.
tav_syslogbuf::~tav_syslogbuf() { sync(); }

int tav_syslogbuf::sync()
{
    std::ptrdiff_t length = pptr() - pbase();
    if (length <= 0) return 0;
    // The allocation is not checked: a failed malloc here would only lose a log line.
    char* block = static_cast<char*>(std::malloc(static_cast<size_t>(length) + 1));
    if (block) {
        std::memcpy(block, pbase(), static_cast<size_t>(length));
        block[length] = '\0';
        if (tavGlobalUseSyslog) {
            openlog("corvane", LOG_CONS | LOG_NDELAY, LOG_LOCAL4);
            syslog(LOG_LOCAL4 | LOG_NOTICE, "%s", block);
        } else {
            // Standard output, not flushed here: unlike TAV_LOG, which goes to stderr.
            printf("%s", block);
        }
        std::free(block);
    }
    setp(buffer, buffer + kBufferSize);
    return 0;
}

tav_syslogbuf::int_type tav_syslogbuf::overflow(int_type c)
{
    this->sync();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return c;
}

tav_syslogbuf sbuf;
std::ostream tav_logstream(&sbuf);

#include "driveutils/tavsysutils.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "platform/platform.h"

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

thread_local tav_syslogbuf sbuf;
thread_local std::ostream tav_logstream(&sbuf);

int closeFileDescriptors(int pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/fd", pid);
    DIR* dir = plat::opendir(path);
    if (!dir) return -1;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        int fd = atoi(entry->d_name);
        if (fd > STDERR_FILENO) plat::close(fd);
    }
    // Deliberately not closed: its own descriptor was among those just closed.
    return 0;
}

int tav_system(const char* command)
{
    pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        // _exit: the child must not flush the parent's stdio or log buffers a second time.
        if (closeFileDescriptors(getpid()) != 0) _exit(-1);
        int status = plat::system(command);
        if (status == -1) _exit(-1);
        if (WIFSIGNALED(status)) _exit(WTERMSIG(status));
        _exit(WEXITSTATUS(status));
    }
    int status = 0;
    for (;;) {
        if (waitpid(child, &status, 0) >= 0) return status;
        if (errno != EINTR) return -1;
    }
}

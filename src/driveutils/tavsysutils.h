// Process-wide logging state and the log stream of the drive code.
#pragma once

#include <ostream>
#include <streambuf>

// Debug level and syslog switch of the whole process; a host program sets them.
extern int tavGlobalDebugLevel;
extern int tavGlobalUseSyslog;

// A stream buffer that hands each flushed run of text on as one message: to
// syslog as "corvane" when tavGlobalUseSyslog is set, else to standard output.
class tav_syslogbuf : public std::streambuf {
public:
    static constexpr int kBufferSize = 2048;

    tav_syslogbuf();
    ~tav_syslogbuf() override;

protected:
    int sync() override;
    int_type overflow(int_type c) override;

private:
    char buffer[kBufferSize];
};

// One stream and buffer per thread: the supervising threads log beside the
// caller's, and a line is handed on whole from the thread that wrote it.
extern thread_local tav_syslogbuf sbuf;
extern thread_local std::ostream tav_logstream;

// Closes every descriptor of the process except the standard three, as listed
// in "/proc/<pid>/fd". 0, or -1 when that directory does not open.
int closeFileDescriptors(int pid);

// Runs a command in a child with only the standard descriptors: the raw wait
// status, or -1 when fork or waitpid fails.
int tav_system(const char* command);

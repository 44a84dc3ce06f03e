// read, write and lseek through the platform, repeated while they fail with
// EINTR. Their result is the call's own: a count, an offset or -1 with errno.
// A short count is returned as it came; callers log it with TAV_LOG_SHORT.
#pragma once

#include <sys/types.h>

ssize_t tav_read(int fd, void* buf, size_t count);
ssize_t tav_write(int fd, const void* buf, size_t count);
ssize_t tav_pread(int fd, void* buf, size_t count, off_t offset);
ssize_t tav_pwrite(int fd, const void* buf, size_t count, off_t offset);
off_t tav_lseek(int fd, off_t offset, int whence);

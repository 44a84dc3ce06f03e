#include "platform/tavio.h"

#include <cerrno>

#include "platform/platform.h"

namespace {

template <typename Call>
auto retryOnEintr(Call call)
{
    for (;;) {
        auto result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

} // namespace

ssize_t tav_read(int fd, void* buf, size_t count)
{
    return retryOnEintr([&] { return plat::read(fd, buf, count); });
}

ssize_t tav_write(int fd, const void* buf, size_t count)
{
    return retryOnEintr([&] { return plat::write(fd, buf, count); });
}

ssize_t tav_pread(int fd, void* buf, size_t count, off_t offset)
{
    return retryOnEintr([&] { return plat::pread(fd, buf, count, offset); });
}

ssize_t tav_pwrite(int fd, const void* buf, size_t count, off_t offset)
{
    return retryOnEintr([&] { return plat::pwrite(fd, buf, count, offset); });
}

off_t tav_lseek(int fd, off_t offset, int whence)
{
    return retryOnEintr([&] { return plat::lseek(fd, offset, whence); });
}

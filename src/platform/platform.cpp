#include "platform/platform.h"

#include <csignal>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <syslog.h>

#include "platform/megalib_loader.h"
#include "platform/xsvf_loader.h"

namespace plat {
namespace {

// Production: each call is the libc call of the same name, unchanged.
class HostPlatform final : public Platform {
public:
    int open(const char* path, int flags, mode_t mode) override { return ::open(path, flags, mode); }
    int close(int fd) override { return ::close(fd); }
    ssize_t read(int fd, void* buf, size_t count) override { return ::read(fd, buf, count); }
    ssize_t write(int fd, const void* buf, size_t count) override { return ::write(fd, buf, count); }
    ssize_t pread(int fd, void* buf, size_t count, off_t offset) override { return ::pread(fd, buf, count, offset); }
    ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) override
    {
        return ::pwrite(fd, buf, count, offset);
    }
    off_t lseek(int fd, off_t offset, int whence) override { return ::lseek(fd, offset, whence); }
    int fsync(int fd) override { return ::fsync(fd); }
    int ioctl(int fd, unsigned long request, void* arg) override { return ::ioctl(fd, request, arg); }
    int fstat(int fd, struct ::stat* st) override { return ::fstat(fd, st); }
    void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) override
    {
        return ::mmap(addr, length, prot, flags, fd, offset);
    }
    int munmap(void* addr, size_t length) override { return ::munmap(addr, length); }
    // The plain store: the mapping is the device's own memory.
    void storeRegister(volatile uint32_t* reg, uint32_t value) override { *reg = value; }
    int nvramPromDownload(int fd, const char* filename) override { return xsvf::player().play(fd, filename); }
    int stat(const char* path, struct ::stat* st) override { return ::stat(path, st); }
    int lstat(const char* path, struct ::stat* st) override { return ::lstat(path, st); }
    int access(const char* path, int mode) override { return ::access(path, mode); }
    int mkdir(const char* path, mode_t mode) override { return ::mkdir(path, mode); }
    int mknod(const char* path, mode_t mode, dev_t dev) override { return ::mknod(path, mode, dev); }
    int unlink(const char* path) override { return ::unlink(path); }
    int rename(const char* from, const char* to) override { return ::rename(from, to); }
    int remove(const char* path) override { return ::remove(path); }
    int mkstemp(char* templ) override { return ::mkstemp(templ); }
    DIR* opendir(const char* path) override { return ::opendir(path); }
    FILE* fopen(const char* path, const char* mode) override { return ::fopen(path, mode); }
    int chdir(const char* path) override { return ::chdir(path); }
    void sync() override { ::sync(); }
    int system(const char* command) override { return ::system(command); }
    FILE* popen(const char* command, const char* mode) override { return ::popen(command, mode); }
    int pclose(FILE* stream) override { return ::pclose(stream); }
    int kill(pid_t pid, int signal) override { return ::kill(pid, signal); }
    int daemon(int nochdir, int noclose) override { return ::daemon(nochdir, noclose); }
    FILE* freopen(const char* path, const char* mode, FILE* stream) override
    {
        return ::freopen(path, mode, stream);
    }
    void openlog(const char* ident, int option, int facility) override { ::openlog(ident, option, facility); }
    void syslog(int priority, const char* text) override { ::syslog(priority, "%s", text); }
    void closelog() override { ::closelog(); }
    void* dlopen(const char* path, int flags) override { return ::dlopen(path, flags); }
    void* dlsym(void* handle, const char* symbol) override { return ::dlsym(handle, symbol); }
    int dlclose(void* handle) override { return ::dlclose(handle); }
    char* dlerror() override { return ::dlerror(); }
    time_t time(time_t* out) override { return ::time(out); }
    int gettimeofday(struct timeval* tv) override { return ::gettimeofday(tv, nullptr); }
    unsigned int sleep(unsigned int seconds) override { return ::sleep(seconds); }
    int usleep(useconds_t usec) override { return ::usleep(usec); }
    int nanosleep(const struct timespec* req, struct timespec* rem) override { return ::nanosleep(req, rem); }
    int waitTimeout(struct timeval* timeout) override { return ::select(0, nullptr, nullptr, nullptr, timeout); }
    int socket(int domain, int type, int protocol) override { return ::socket(domain, type, protocol); }
    int bind(int fd, const struct sockaddr* address, socklen_t length) override
    {
        return ::bind(fd, address, length);
    }
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override
    {
        return ::setsockopt(fd, level, name, value, length);
    }
    int gethostname(char* name, size_t length) override { return ::gethostname(name, length); }
    int InitMegaLib() override { return megalib::library().InitMegaLib(); }
    int GetDllVersion(char* major, char* minor) override { return megalib::library().GetDllVersion(major, minor); }
    int MegaLibCommand(int opcode, int adapter, int channel, int target, int size, void* buffer) override
    {
        return megalib::library().MegaLibCommand(opcode, adapter, channel, target, size, buffer);
    }
};

HostPlatform theHost;
std::atomic<Platform*> active{&theHost};

} // namespace

Platform& hostPlatform() { return theHost; }

Platform& current() { return *active.load(std::memory_order_acquire); }

ScopedPlatform::ScopedPlatform(Platform& platform)
    : previous_(active.exchange(&platform, std::memory_order_acq_rel))
{
}

ScopedPlatform::~ScopedPlatform() { active.store(previous_, std::memory_order_release); }

} // namespace plat

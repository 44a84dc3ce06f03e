// The platform seam: every contact of the system with devices, kernel
// interfaces, appliance files, shell commands and the clock goes through the
// active Platform. Production's platform is a plain pass-through to libc;
// another one (the simulated appliance, a fault-injecting test platform) can
// be installed for the life of a scope with ScopedPlatform.
//
// Code outside src/platform/ calls the free functions of namespace plat below
// (plat::open, plat::ioctl, ...) and never the libc functions of the same name.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

namespace plat {

class Platform {
public:
    virtual ~Platform() = default;

    // File descriptors.
    virtual int open(const char* path, int flags, mode_t mode) = 0;
    virtual int close(int fd) = 0;
    virtual ssize_t read(int fd, void* buf, size_t count) = 0;
    virtual ssize_t write(int fd, const void* buf, size_t count) = 0;
    virtual ssize_t pread(int fd, void* buf, size_t count, off_t offset) = 0;
    virtual ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) = 0;
    virtual off_t lseek(int fd, off_t offset, int whence) = 0;
    virtual int fsync(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    virtual int fstat(int fd, struct ::stat* st) = 0;
    virtual void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* addr, size_t length) = 0;
    // A 32-bit store into a device's registers mapped with mmap. A device acts
    // on such a store at once (a descriptor pushed, a threshold written), so it
    // is a call; loads from the mapping stay plain reads of memory.
    virtual void storeRegister(volatile uint32_t* reg, uint32_t value) = 0;
    // Plays an XSVF file into the PROM of the NVRAM card open on `fd`: 0 done,
    // 1 a file it cannot use, 112 a run to be repeated once, anything else a
    // failed verification.
    virtual int nvramPromDownload(int fd, const char* filename) = 0;

    // Paths.
    virtual int stat(const char* path, struct ::stat* st) = 0;
    virtual int lstat(const char* path, struct ::stat* st) = 0;
    virtual int access(const char* path, int mode) = 0;
    virtual int mkdir(const char* path, mode_t mode) = 0;
    virtual int mknod(const char* path, mode_t mode, dev_t dev) = 0;
    virtual int unlink(const char* path) = 0;
    virtual int rename(const char* from, const char* to) = 0;
    virtual int remove(const char* path) = 0;
    virtual int mkstemp(char* templ) = 0;
    virtual DIR* opendir(const char* path) = 0;
    virtual FILE* fopen(const char* path, const char* mode) = 0;
    virtual int chdir(const char* path) = 0;
    // Writes every file system's buffers out (the system-wide sync).
    virtual void sync() = 0;

    // Processes and commands.
    virtual int system(const char* command) = 0;
    virtual FILE* popen(const char* command, const char* mode) = 0;
    virtual int pclose(FILE* stream) = 0;
    // A signal to a process by its number.
    virtual int kill(pid_t pid, int signal) = 0;
    // Detaches the process from its terminal (daemon(3)).
    virtual int daemon(int nochdir, int noclose) = 0;
    // Reopens a standard stream on a path (freopen(3)).
    virtual FILE* freopen(const char* path, const char* mode, FILE* stream) = 0;

    // The system log. `text` is the whole message, already formatted.
    virtual void openlog(const char* ident, int option, int facility) = 0;
    virtual void syslog(int priority, const char* text) = 0;
    virtual void closelog() = 0;

    // Shared objects loaded into the program (the management modules).
    virtual void* dlopen(const char* path, int flags) = 0;
    virtual void* dlsym(void* handle, const char* symbol) = 0;
    virtual int dlclose(void* handle) = 0;
    virtual char* dlerror() = 0;

    // Time. waitTimeout is a wait that is only a wait: a select on no descriptors.
    virtual time_t time(time_t* out) = 0;
    virtual int gettimeofday(struct timeval* tv) = 0;
    virtual unsigned int sleep(unsigned int seconds) = 0;
    virtual int usleep(useconds_t usec) = 0;
    virtual int nanosleep(const struct timespec* req, struct timespec* rem) = 0;
    virtual int waitTimeout(struct timeval* timeout) = 0;

    // Sockets: one that queries network interfaces by ioctl (SIOCGIFCONF,
    // SIOCGIFADDR, SIOCGIFHWADDR, ...), and the listeners of the services. A
    // socket's options, ioctls, bind and close go through the seam; listen,
    // accept, connect, select, send and recv on it are the kernel's own.
    virtual int socket(int domain, int type, int protocol) = 0;
    virtual int setsockopt(int fd, int level, int name, const void* value, socklen_t length) = 0;
    virtual int bind(int fd, const struct sockaddr* address, socklen_t length) = 0;
    // The host's name, as gethostname(2).
    virtual int gethostname(char* name, size_t length) = 0;

    // The closed vendor controller library.
    virtual int InitMegaLib() = 0;
    virtual int GetDllVersion(char* major, char* minor) = 0;
    virtual int MegaLibCommand(int opcode, int adapter, int channel, int target, int size,
                               void* buffer) = 0;
};

// The pass-through to the host's libc and, for the vendor library, to a copy
// of it found at run time (none installed: no controllers).
Platform& hostPlatform();

// The platform now in force.
Platform& current();

// Installs a platform for the life of the scope and restores the previous one.
class ScopedPlatform {
public:
    explicit ScopedPlatform(Platform& platform);
    ~ScopedPlatform();
    ScopedPlatform(const ScopedPlatform&) = delete;
    ScopedPlatform& operator=(const ScopedPlatform&) = delete;

private:
    Platform* previous_;
};

// A platform that hands every call to another; derive from it to change a few.
class ForwardingPlatform : public Platform {
public:
    explicit ForwardingPlatform(Platform& inner) : inner_(inner) {}

    int open(const char* path, int flags, mode_t mode) override { return inner_.open(path, flags, mode); }
    int close(int fd) override { return inner_.close(fd); }
    ssize_t read(int fd, void* buf, size_t count) override { return inner_.read(fd, buf, count); }
    ssize_t write(int fd, const void* buf, size_t count) override { return inner_.write(fd, buf, count); }
    ssize_t pread(int fd, void* buf, size_t count, off_t offset) override
    {
        return inner_.pread(fd, buf, count, offset);
    }
    ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) override
    {
        return inner_.pwrite(fd, buf, count, offset);
    }
    off_t lseek(int fd, off_t offset, int whence) override { return inner_.lseek(fd, offset, whence); }
    int fsync(int fd) override { return inner_.fsync(fd); }
    int ioctl(int fd, unsigned long request, void* arg) override { return inner_.ioctl(fd, request, arg); }
    int fstat(int fd, struct ::stat* st) override { return inner_.fstat(fd, st); }
    void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) override
    {
        return inner_.mmap(addr, length, prot, flags, fd, offset);
    }
    int munmap(void* addr, size_t length) override { return inner_.munmap(addr, length); }
    void storeRegister(volatile uint32_t* reg, uint32_t value) override { inner_.storeRegister(reg, value); }
    int nvramPromDownload(int fd, const char* filename) override { return inner_.nvramPromDownload(fd, filename); }
    int stat(const char* path, struct ::stat* st) override { return inner_.stat(path, st); }
    int lstat(const char* path, struct ::stat* st) override { return inner_.lstat(path, st); }
    int access(const char* path, int mode) override { return inner_.access(path, mode); }
    int mkdir(const char* path, mode_t mode) override { return inner_.mkdir(path, mode); }
    int mknod(const char* path, mode_t mode, dev_t dev) override { return inner_.mknod(path, mode, dev); }
    int unlink(const char* path) override { return inner_.unlink(path); }
    int rename(const char* from, const char* to) override { return inner_.rename(from, to); }
    int remove(const char* path) override { return inner_.remove(path); }
    int mkstemp(char* templ) override { return inner_.mkstemp(templ); }
    DIR* opendir(const char* path) override { return inner_.opendir(path); }
    FILE* fopen(const char* path, const char* mode) override { return inner_.fopen(path, mode); }
    int chdir(const char* path) override { return inner_.chdir(path); }
    void sync() override { inner_.sync(); }
    int system(const char* command) override { return inner_.system(command); }
    FILE* popen(const char* command, const char* mode) override { return inner_.popen(command, mode); }
    int pclose(FILE* stream) override { return inner_.pclose(stream); }
    int kill(pid_t pid, int signal) override { return inner_.kill(pid, signal); }
    int daemon(int nochdir, int noclose) override { return inner_.daemon(nochdir, noclose); }
    FILE* freopen(const char* path, const char* mode, FILE* stream) override
    {
        return inner_.freopen(path, mode, stream);
    }
    void openlog(const char* ident, int option, int facility) override { inner_.openlog(ident, option, facility); }
    void syslog(int priority, const char* text) override { inner_.syslog(priority, text); }
    void closelog() override { inner_.closelog(); }
    void* dlopen(const char* path, int flags) override { return inner_.dlopen(path, flags); }
    void* dlsym(void* handle, const char* symbol) override { return inner_.dlsym(handle, symbol); }
    int dlclose(void* handle) override { return inner_.dlclose(handle); }
    char* dlerror() override { return inner_.dlerror(); }
    time_t time(time_t* out) override { return inner_.time(out); }
    int gettimeofday(struct timeval* tv) override { return inner_.gettimeofday(tv); }
    unsigned int sleep(unsigned int seconds) override { return inner_.sleep(seconds); }
    int usleep(useconds_t usec) override { return inner_.usleep(usec); }
    int nanosleep(const struct timespec* req, struct timespec* rem) override { return inner_.nanosleep(req, rem); }
    int waitTimeout(struct timeval* timeout) override { return inner_.waitTimeout(timeout); }
    int socket(int domain, int type, int protocol) override { return inner_.socket(domain, type, protocol); }
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override
    {
        return inner_.setsockopt(fd, level, name, value, length);
    }
    int bind(int fd, const struct sockaddr* address, socklen_t length) override
    {
        return inner_.bind(fd, address, length);
    }
    int gethostname(char* name, size_t length) override { return inner_.gethostname(name, length); }
    int InitMegaLib() override { return inner_.InitMegaLib(); }
    int GetDllVersion(char* major, char* minor) override { return inner_.GetDllVersion(major, minor); }
    int MegaLibCommand(int opcode, int adapter, int channel, int target, int size, void* buffer) override
    {
        return inner_.MegaLibCommand(opcode, adapter, channel, target, size, buffer);
    }

protected:
    Platform& inner() { return inner_; }

private:
    Platform& inner_;
};

// The calls of the system: each goes to the platform now in force.
inline int open(const char* path, int flags, mode_t mode = 0) { return current().open(path, flags, mode); }
inline int close(int fd) { return current().close(fd); }
inline ssize_t read(int fd, void* buf, size_t count) { return current().read(fd, buf, count); }
inline ssize_t write(int fd, const void* buf, size_t count) { return current().write(fd, buf, count); }
inline ssize_t pread(int fd, void* buf, size_t count, off_t offset) { return current().pread(fd, buf, count, offset); }
inline ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset)
{
    return current().pwrite(fd, buf, count, offset);
}
inline off_t lseek(int fd, off_t offset, int whence) { return current().lseek(fd, offset, whence); }
inline int fsync(int fd) { return current().fsync(fd); }
inline int ioctl(int fd, unsigned long request, void* arg = nullptr) { return current().ioctl(fd, request, arg); }
inline int fstat(int fd, struct ::stat* st) { return current().fstat(fd, st); }
inline void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    return current().mmap(addr, length, prot, flags, fd, offset);
}
inline int munmap(void* addr, size_t length) { return current().munmap(addr, length); }
inline void storeRegister(volatile uint32_t* reg, uint32_t value) { current().storeRegister(reg, value); }
inline int nvramPromDownload(int fd, const char* filename) { return current().nvramPromDownload(fd, filename); }
inline int stat(const char* path, struct ::stat* st) { return current().stat(path, st); }
inline int lstat(const char* path, struct ::stat* st) { return current().lstat(path, st); }
inline int access(const char* path, int mode) { return current().access(path, mode); }
inline int mkdir(const char* path, mode_t mode) { return current().mkdir(path, mode); }
inline int mknod(const char* path, mode_t mode, dev_t dev) { return current().mknod(path, mode, dev); }
inline int unlink(const char* path) { return current().unlink(path); }
inline int rename(const char* from, const char* to) { return current().rename(from, to); }
inline int remove(const char* path) { return current().remove(path); }
inline int mkstemp(char* templ) { return current().mkstemp(templ); }
inline DIR* opendir(const char* path) { return current().opendir(path); }
inline FILE* fopen(const char* path, const char* mode) { return current().fopen(path, mode); }
inline int chdir(const char* path) { return current().chdir(path); }
inline void sync() { current().sync(); }
inline int system(const char* command) { return current().system(command); }
inline FILE* popen(const char* command, const char* mode) { return current().popen(command, mode); }
inline int pclose(FILE* stream) { return current().pclose(stream); }
inline int kill(pid_t pid, int signal) { return current().kill(pid, signal); }
inline int daemon(int nochdir, int noclose) { return current().daemon(nochdir, noclose); }
inline FILE* freopen(const char* path, const char* mode, FILE* stream)
{
    return current().freopen(path, mode, stream);
}
inline void openlog(const char* ident, int option, int facility) { current().openlog(ident, option, facility); }
inline void syslog(int priority, const char* text) { current().syslog(priority, text); }
inline void closelog() { current().closelog(); }
inline void* dlopen(const char* path, int flags) { return current().dlopen(path, flags); }
inline void* dlsym(void* handle, const char* symbol) { return current().dlsym(handle, symbol); }
inline int dlclose(void* handle) { return current().dlclose(handle); }
inline char* dlerror() { return current().dlerror(); }
inline time_t time(time_t* out) { return current().time(out); }
inline int gettimeofday(struct timeval* tv) { return current().gettimeofday(tv); }
inline unsigned int sleep(unsigned int seconds) { return current().sleep(seconds); }
inline int usleep(useconds_t usec) { return current().usleep(usec); }
inline int nanosleep(const struct timespec* req, struct timespec* rem) { return current().nanosleep(req, rem); }
inline int waitTimeout(struct timeval* timeout) { return current().waitTimeout(timeout); }
inline int socket(int domain, int type, int protocol) { return current().socket(domain, type, protocol); }
inline int setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    return current().setsockopt(fd, level, name, value, length);
}
inline int bind(int fd, const struct sockaddr* address, socklen_t length)
{
    return current().bind(fd, address, length);
}
inline int gethostname(char* name, size_t length) { return current().gethostname(name, length); }

} // namespace plat

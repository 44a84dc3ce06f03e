#include "sim/load_guard.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <sys/mman.h>

#include "platform/platform.h"

namespace sim {
namespace {

// Refuses every call with EACCES and keeps a note of it.
class RefusingPlatform : public plat::Platform {
public:
    static constexpr size_t kKept = 32;
    char kept[kKept][96] = {};
    std::atomic<size_t> count{0};

    int open(const char* path, int, mode_t) override { return refused<int>("open", path, -1); }
    int close(int) override { return refused<int>("close", nullptr, -1); }
    ssize_t read(int, void*, size_t) override { return refused<ssize_t>("read", nullptr, -1); }
    ssize_t write(int, const void*, size_t) override { return refused<ssize_t>("write", nullptr, -1); }
    ssize_t pread(int, void*, size_t, off_t) override { return refused<ssize_t>("pread", nullptr, -1); }
    ssize_t pwrite(int, const void*, size_t, off_t) override { return refused<ssize_t>("pwrite", nullptr, -1); }
    off_t lseek(int, off_t, int) override { return refused<off_t>("lseek", nullptr, -1); }
    int fsync(int) override { return refused<int>("fsync", nullptr, -1); }
    int ioctl(int, unsigned long, void*) override { return refused<int>("ioctl", nullptr, -1); }
    int fstat(int, struct ::stat*) override { return refused<int>("fstat", nullptr, -1); }
    void* mmap(void*, size_t, int, int, int, off_t) override { return refused<void*>("mmap", nullptr, MAP_FAILED); }
    int munmap(void*, size_t) override { return refused<int>("munmap", nullptr, -1); }
    void storeRegister(volatile uint32_t*, uint32_t) override { refuse("storeRegister", nullptr); }
    int nvramPromDownload(int, const char* filename) override { return refused<int>("nvramPromDownload", filename, -1); }
    int stat(const char* path, struct ::stat*) override { return refused<int>("stat", path, -1); }
    int lstat(const char* path, struct ::stat*) override { return refused<int>("lstat", path, -1); }
    int access(const char* path, int) override { return refused<int>("access", path, -1); }
    int mkdir(const char* path, mode_t) override { return refused<int>("mkdir", path, -1); }
    int mknod(const char* path, mode_t, dev_t) override { return refused<int>("mknod", path, -1); }
    int unlink(const char* path) override { return refused<int>("unlink", path, -1); }
    int rename(const char* from, const char*) override { return refused<int>("rename", from, -1); }
    int remove(const char* path) override { return refused<int>("remove", path, -1); }
    int mkstemp(char* templ) override { return refused<int>("mkstemp", templ, -1); }
    DIR* opendir(const char* path) override { return refused<DIR*>("opendir", path, nullptr); }
    FILE* fopen(const char* path, const char*) override { return refused<FILE*>("fopen", path, nullptr); }
    int chdir(const char* path) override { return refused<int>("chdir", path, -1); }
    void sync() override { refuse("sync", nullptr); }
    int system(const char* command) override { return refused<int>("system", command, -1); }
    FILE* popen(const char* command, const char*) override { return refused<FILE*>("popen", command, nullptr); }
    int pclose(FILE*) override { return refused<int>("pclose", nullptr, -1); }
    int kill(pid_t, int) override { return refused<int>("kill", nullptr, -1); }
    int daemon(int, int) override { return refused<int>("daemon", nullptr, -1); }
    FILE* freopen(const char* path, const char*, FILE*) override { return refused<FILE*>("freopen", path, nullptr); }
    void openlog(const char*, int, int) override { refuse("openlog", nullptr); }
    void syslog(int, const char*) override { refuse("syslog", nullptr); }
    void closelog() override { refuse("closelog", nullptr); }
    void* dlopen(const char* path, int) override { return refused<void*>("dlopen", path, nullptr); }
    void* dlsym(void*, const char* symbol) override { return refused<void*>("dlsym", symbol, nullptr); }
    int dlclose(void*) override { return refused<int>("dlclose", nullptr, -1); }
    char* dlerror() override { return refused<char*>("dlerror", nullptr, nullptr); }
    time_t time(time_t*) override { return refused<time_t>("time", nullptr, -1); }
    int gettimeofday(struct timeval*) override { return refused<int>("gettimeofday", nullptr, -1); }
    unsigned int sleep(unsigned int) override { return refused<unsigned int>("sleep", nullptr, 0); }
    int usleep(useconds_t) override { return refused<int>("usleep", nullptr, -1); }
    int nanosleep(const struct timespec*, struct timespec*) override { return refused<int>("nanosleep", nullptr, -1); }
    int waitTimeout(struct timeval*) override { return refused<int>("waitTimeout", nullptr, -1); }
    int socket(int, int, int) override { return refused<int>("socket", nullptr, -1); }
    int setsockopt(int, int, int, const void*, socklen_t) override { return refused<int>("setsockopt", nullptr, -1); }
    int bind(int, const struct sockaddr*, socklen_t) override { return refused<int>("bind", nullptr, -1); }
    int gethostname(char*, size_t) override { return refused<int>("gethostname", nullptr, -1); }
    int InitMegaLib() override { return refused<int>("InitMegaLib", nullptr, -1); }
    int GetDllVersion(char*, char*) override { return refused<int>("GetDllVersion", nullptr, -1); }
    int MegaLibCommand(int, int, int, int, int, void*) override { return refused<int>("MegaLibCommand", nullptr, -1); }

private:
    void refuse(const char* call, const char* path)
    {
        const size_t n = count.fetch_add(1);
        if (n < kKept) std::snprintf(kept[n], sizeof kept[n], "%s %s", call, path ? path : "-");
        errno = EACCES;
    }
    template <class T>
    T refused(const char* call, const char* path, T result)
    {
        refuse(call, path);
        return result;
    }
};

struct Guard {
    RefusingPlatform platform;
    std::optional<plat::ScopedPlatform> scope;
    Guard() { scope.emplace(platform); }
};

// Built before any other static object of the program.
__attribute__((init_priority(101))) Guard guard;

} // namespace

void releaseLoadGuard() { guard.scope.reset(); }

bool loadGuardArmed() { return guard.scope.has_value(); }

std::vector<std::string> loadGuardRefusals()
{
    std::vector<std::string> out;
    const size_t n = guard.platform.count.load();
    for (size_t i = 0; i < n && i < RefusingPlatform::kKept; ++i)
        out.emplace_back(guard.platform.kept[i]);
    return out;
}

size_t loadGuardRefusalCount() { return guard.platform.count.load(); }

} // namespace sim

// A fuzz target without an initializer of its own releases the guard when
// fuzzing begins; one with its own installs its platforms itself.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int*, char***)
{
    sim::releaseLoadGuard();
    return 0;
}

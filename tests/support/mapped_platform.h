// A small stand-in for the simulated module: a temporary directory that
// the module's absolute paths ("/etc/marrowby/...", "/proc/...", "/sys/...",
// "/dev/...", "./configs/...") are mapped into. Any other path is refused,
// so the code under test never reaches the host. Sleeps return at once and
// a system-wide sync is only counted.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/platform.h"

namespace tavtest {

class MappedPlatform : public plat::ForwardingPlatform {
public:
    MappedPlatform() : ForwardingPlatform(plat::hostPlatform())
    {
        char templ[] = "/tmp/tavtest.XXXXXX";
        const char* made = ::mkdtemp(templ);
        if (!made) std::abort();
        root_ = made;
    }
    ~MappedPlatform() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

    const std::string& root() const { return root_; }

    // The host path of a module path, empty when the path is refused.
    std::string map(const char* path) const
    {
        if (!path) return {};
        static const char* const kRoots[] = {"/etc/marrowby/", "/proc/", "/sys/", "/dev/", "/var/log/"};
        std::string p(path);
        if (p.find("..") != std::string::npos) return {};
        for (const char* r : kRoots)
            if (p.rfind(r, 0) == 0) return root_ + p;
        if (p.rfind("./configs/", 0) == 0) return root_ + "/" + p.substr(2);
        return {};
    }

    // Writes a module file, making its directories.
    void put(const std::string& path, const std::string& text) const
    {
        std::filesystem::path host = map(path.c_str());
        std::filesystem::create_directories(host.parent_path());
        std::ofstream(host, std::ios::binary) << text;
    }
    void makeDir(const std::string& path) const { std::filesystem::create_directories(map(path.c_str())); }
    bool exists(const std::string& path) const { return std::filesystem::exists(map(path.c_str())); }
    std::string get(const std::string& path) const
    {
        std::ifstream in(map(path.c_str()), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    int open(const char* path, int flags, mode_t mode) override
    {
        return refused(path) ? -1 : inner().open(map(path).c_str(), flags, mode);
    }
    int stat(const char* path, struct ::stat* st) override
    {
        return refused(path) ? -1 : inner().stat(map(path).c_str(), st);
    }
    int lstat(const char* path, struct ::stat* st) override
    {
        return refused(path) ? -1 : inner().lstat(map(path).c_str(), st);
    }
    int access(const char* path, int mode) override
    {
        return refused(path) ? -1 : inner().access(map(path).c_str(), mode);
    }
    int mkdir(const char* path, mode_t mode) override
    {
        return refused(path) ? -1 : inner().mkdir(map(path).c_str(), mode);
    }
    int unlink(const char* path) override { return refused(path) ? -1 : inner().unlink(map(path).c_str()); }
    int remove(const char* path) override { return refused(path) ? -1 : inner().remove(map(path).c_str()); }
    int rename(const char* from, const char* to) override
    {
        return refused(from) || refused(to) ? -1 : inner().rename(map(from).c_str(), map(to).c_str());
    }
    DIR* opendir(const char* path) override { return refused(path) ? nullptr : inner().opendir(map(path).c_str()); }
    FILE* fopen(const char* path, const char* mode) override
    {
        return refused(path) ? nullptr : inner().fopen(map(path).c_str(), mode);
    }
    int mknod(const char*, mode_t, dev_t) override { return deny(); }
    int mkstemp(char*) override { return deny(); }
    int chdir(const char*) override { return deny(); }
    int system(const char*) override { return deny(); }
    FILE* popen(const char*, const char*) override
    {
        deny();
        return nullptr;
    }
    int socket(int, int, int) override { return deny(); }
    void sync() override { ++syncs; }
    unsigned int sleep(unsigned int) override { return 0; }
    int usleep(useconds_t) override { return 0; }

    int syncs = 0;

private:
    static int deny()
    {
        errno = EACCES;
        return -1;
    }
    bool refused(const char* path) const
    {
        if (!map(path).empty()) return false;
        errno = EACCES;
        return true;
    }

    std::string root_;
};

} // namespace tavtest

// The platform of the controller API's fuzz targets: kernel files from
// memory, driver nodes that exist only here, directories of host entries
// made in a temporary directory of the target's own, and driver calls
// answered by a function of the target. Nothing else is reached.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "platform/platform.h"

namespace twfuzz {

class Platform : public plat::ForwardingPlatform {
public:
    Platform() : ForwardingPlatform(plat::hostPlatform())
    {
        char templ[] = "/tmp/tw-fuzz.XXXXXX";
        if (!::mkdtemp(templ)) std::abort();
        root_ = templ;
    }
    ~Platform() override { clearDirs(); ::rmdir(root_.c_str()); }

    std::map<std::string, std::string> files;  // read as text
    // The entries of a directory, by its path; names with '/' are left out.
    void setDir(const std::string& path, const std::vector<std::string>& names)
    {
        const std::string dir = root_ + "/" + std::to_string(dirs_.size());
        ::mkdir(dir.c_str(), 0700);
        for (const std::string& name : names) {
            if (name.empty() || name == "." || name == ".." || name.size() > 64 || name.find('/') != std::string::npos ||
                name.find('\0') != std::string::npos)
                continue;
            const int fd = ::open((dir + "/" + name).c_str(), O_WRONLY | O_CREAT, 0600);
            if (fd >= 0) ::close(fd);
        }
        dirs_[path] = dir;
    }
    void clearDirs()
    {
        for (const auto& [path, dir] : dirs_) {
            if (DIR* d = ::opendir(dir.c_str())) {
                while (dirent* e = ::readdir(d))
                    if (e->d_name[0] != '.') ::unlink((dir + "/" + e->d_name).c_str());
                ::closedir(d);
            }
            ::rmdir(dir.c_str());
        }
        dirs_.clear();
    }
    // Paths that stat finds: the driver nodes as made, and others given.
    struct Node {
        mode_t mode;
        dev_t dev;
    };
    std::map<std::string, Node> nodes;
    std::function<bool(const std::string&)> opens = [](const std::string&) { return true; };
    std::function<int(unsigned long, uint8_t*)> driver = [](unsigned long, uint8_t*) { return -1; };
    uint64_t sleeps = 0;

    FILE* fopen(const char* path, const char* mode) override
    {
        auto it = files.find(path);
        if (it == files.end() || mode[0] != 'r') return fail<FILE*>(ENOENT, nullptr);
        if (it->second.empty()) return std::fopen("/dev/null", "r");
        return fmemopen(const_cast<char*>(it->second.data()), it->second.size(), "r");
    }
    DIR* opendir(const char* path) override
    {
        auto it = dirs_.find(path);
        if (it == dirs_.end()) return fail<DIR*>(ENOENT, nullptr);
        return ::opendir(it->second.c_str());
    }
    int stat(const char* path, struct ::stat* st) override
    {
        auto it = nodes.find(path);
        if (it == nodes.end()) return fail(ENOENT, -1);
        std::memset(st, 0, sizeof *st);
        st->st_mode = it->second.mode;
        st->st_rdev = it->second.dev;
        return 0;
    }
    int lstat(const char* path, struct ::stat* st) override { return stat(path, st); }
    int mknod(const char* path, mode_t mode, dev_t dev) override
    {
        if (nodes.count(path)) return fail(EEXIST, -1);
        nodes[path] = {mode, dev};
        return 0;
    }
    int unlink(const char* path) override { return nodes.erase(path) ? 0 : fail(ENOENT, -1); }
    int open(const char* path, int, mode_t) override
    {
        const std::string p = path;
        if (p == "/proc/scsi/scsi") return kScsiFd;
        if (!nodes.count(p) || !opens(p)) return fail(ENODEV, -1);
        return kNodeFd;
    }
    int close(int fd) override { return fd == kNodeFd || fd == kScsiFd ? 0 : fail(EBADF, -1); }
    ssize_t write(int fd, const void*, size_t count) override { return fd == kScsiFd ? ssize_t(count) : fail(EBADF, -1); }
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        if (fd != kNodeFd) return fail(EBADF, -1);
        return driver(request, static_cast<uint8_t*>(arg));
    }
    int usleep(useconds_t) override
    {
        ++sleeps;
        return 0;
    }

private:
    static constexpr int kNodeFd = 900;
    static constexpr int kScsiFd = 901;
    template <class T = int>
    static T fail(int error, T result)
    {
        errno = error;
        return result;
    }
    std::string root_;
    std::map<std::string, std::string> dirs_;
};

// Reads the fuzz input piece by piece; past its end, zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    // Up to the next byte `end` (not included) or the end.
    std::string until(uint8_t end)
    {
        std::string out;
        while (pos_ < size_ && data_[pos_] != end)
            out += char(data_[pos_++]);
        if (pos_ < size_) ++pos_;
        return out;
    }
    void fill(uint8_t* out, size_t count)
    {
        for (size_t i = 0; i < count; ++i)
            out[i] = size_ ? data_[(pos_ + i) % size_] : 0;
        pos_ += size_ ? 1 : 0;
    }
    bool done() const { return pos_ >= size_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

} // namespace twfuzz

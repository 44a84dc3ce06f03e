// Host-side file access of the simulation, sealed beneath the module
// directory. Every path is relative to an open descriptor of the directory
// and resolved by the kernel beneath it in one step, refusing links of every
// kind (openat2 with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS |
// RESOLVE_NO_MAGICLINKS; where the kernel lacks openat2, a walk of openat
// with O_NOFOLLOW on every component). A file is first opened as a path,
// checked, and then reopened through that very descriptor, so that no gap lies
// between the check and the open: special files are refused, and so is a file
// opened for writing that has more than one link (a hard link could lead out).
//
// Refusals fail with EACCES and a log line "tavsim: refused PATH: WHY".
#pragma once

#include <atomic>
#include <cstdint>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace sim {

class HostDir {
public:
    // Opens `dir`; throws std::runtime_error when it cannot be opened, is no
    // directory, or is the host's root directory.
    explicit HostDir(const std::string& dir);
    ~HostDir();
    HostDir(const HostDir&) = delete;
    HostDir& operator=(const HostDir&) = delete;

    // The program under test may have closed or replaced descriptors it did
    // not open (a child closing all but the standard three): every HostDir
    // checks its own descriptor again before the next use. Until then none
    // is checked, which spares a syscall on every access.
    static void descriptorsChanged();
    static uint64_t descriptorEpoch();

    // The directory as it was resolved when opened (for messages only).
    const std::string& path() const { return path_; }

    // `rel` is relative to the directory; a leading "/" is ignored, "" or "/"
    // is the directory itself. Results and errno as the libc call's.
    int open(const std::string& rel, int flags, mode_t mode = 0644) const;
    int stat(const std::string& rel, struct ::stat* st) const;  // links are refused, not followed
    bool exists(const std::string& rel) const;
    int mkdir(const std::string& rel, mode_t mode = 0755) const;
    bool makeDirs(const std::string& rel) const;
    int unlink(const std::string& rel) const;
    int remove(const std::string& rel) const;  // a file or an empty directory
    int rename(const std::string& from, const std::string& to) const;
    DIR* opendir(const std::string& rel) const;
    // `rel` ends in "XXXXXX", which is replaced by the name made.
    int mkstemp(std::string& rel) const;

    bool readFile(const std::string& rel, std::string& out) const;
    // Through a temporary file of a unique name in the same directory.
    bool writeFileAtomic(const std::string& rel, const std::string& text) const;
    bool appendFile(const std::string& rel, const std::string& text) const;

private:
    // `out`, when given, gets the file's stat.
    int pathFd(const std::string& rel, bool mustBeDir, struct ::stat* out = nullptr) const;
    int parentFd(const std::string& rel, std::string& leaf) const;
    int refuse(const std::string& rel, const char* why) const;

    // The directory's descriptor, opened again when it was closed behind our
    // back (a child that closes every descriptor before it runs a command).
    int dirFd() const;

    mutable int fd_ = -1;
    mutable std::atomic<uint64_t> checked_{0};  // descriptorEpoch() when fd_ was last found ours
    std::string path_;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
};

// Writes all of `text` to `fd`; false on an error or a write of nothing.
bool writeAll(int fd, const std::string& text);

// True when `dir` resolves to the host's root directory.
bool isHostRoot(const std::string& dir);

} // namespace sim

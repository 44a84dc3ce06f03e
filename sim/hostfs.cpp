#include "hostfs.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

static int giDebug_hostfs = 0;
#define TAV_DEBUG_FLAG giDebug_hostfs
#include "driveutils/tavlog.h"

namespace sim {
namespace {

constexpr uint64_t kResolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;

// -1 with ENOSYS where the kernel has no openat2.
int openat2Beneath(int dirfd, const char* rel, int flags, mode_t mode)
{
    static std::atomic<bool> missing{false};
    if (missing.load(std::memory_order_relaxed)) {
        errno = ENOSYS;
        return -1;
    }
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) ? mode : 0;
    how.resolve = kResolve;
    for (;;) {
        long fd = ::syscall(SYS_openat2, dirfd, rel, &how, sizeof how);
        if (fd >= 0) return static_cast<int>(fd);
        if (errno == EAGAIN || errno == EINTR) continue;  // a rename raced the lookup
        if (errno == ENOSYS) missing.store(true, std::memory_order_relaxed);
        return -1;
    }
}

// The same without openat2: one component at a time, never following a link.
int walkBeneath(int dirfd, const std::string& rel, int flags, mode_t mode)
{
    int cur = ::fcntl(dirfd, F_DUPFD_CLOEXEC, 0);
    size_t pos = 0;
    while (cur >= 0) {
        size_t slash = rel.find('/', pos);
        std::string part = rel.substr(pos, slash == std::string::npos ? std::string::npos : slash - pos);
        if (part == "..") {
            ::close(cur);
            errno = EXDEV;
            return -1;
        }
        bool last = slash == std::string::npos;
        int next = last ? ::openat(cur, part.empty() ? "." : part.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode)
                        : ::openat(cur, part.empty() ? "." : part.c_str(),
                                   O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int saved = errno;
        ::close(cur);
        errno = saved;
        if (last || next < 0) {
            // A link as a middle component shows as ENOTDIR with O_NOFOLLOW.
            if (next < 0 && !last && errno == ENOTDIR) errno = ELOOP;
            return next;
        }
        cur = next;
        pos = slash + 1;
    }
    return -1;
}

int openBeneath(int dirfd, const std::string& rel, int flags, mode_t mode)
{
    const char* p = rel.empty() ? "." : rel.c_str();
    int fd = openat2Beneath(dirfd, p, flags, mode);
    if (fd < 0 && errno == ENOSYS) fd = walkBeneath(dirfd, rel.empty() ? "." : rel, flags, mode);
    return fd;
}

std::string relative(const std::string& rel)
{
    size_t start = rel.find_first_not_of('/');
    if (start == std::string::npos) return "";
    std::string out = rel.substr(start);
    while (!out.empty() && out.back() == '/') out.pop_back();
    return out;
}

bool isWriting(int flags) { return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_TRUNC | O_CREAT)); }

std::atomic<unsigned> gTempCounter{0};

// A name no other process or thread of this one makes at the same moment.
std::string uniqueSuffix()
{
    char text[48];
    std::snprintf(text, sizeof text, ".%d.%u.tmp", static_cast<int>(::getpid()),
                  gTempCounter.fetch_add(1, std::memory_order_relaxed));
    return text;
}

} // namespace

bool isHostRoot(const std::string& dir)
{
    struct ::stat a, b;
    return ::stat(dir.c_str(), &a) == 0 && ::stat("/", &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

HostDir::HostDir(const std::string& dir)
{
    char resolved[PATH_MAX];
    path_ = ::realpath(dir.c_str(), resolved) ? resolved : dir;
    fd_ = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error(dir + ": " + std::strerror(errno));
    struct ::stat mine, root;
    if (::fstat(fd_, &mine) != 0 || ::stat("/", &root) != 0 ||
        (mine.st_dev == root.st_dev && mine.st_ino == root.st_ino)) {
        ::close(fd_);
        throw std::runtime_error(dir + ": the host's root directory is never a module");
    }
    dev_ = mine.st_dev;
    ino_ = mine.st_ino;
}

namespace {
std::atomic<uint64_t> gDescriptorEpoch{1};
} // namespace

void HostDir::descriptorsChanged() { gDescriptorEpoch.fetch_add(1, std::memory_order_acq_rel); }

uint64_t HostDir::descriptorEpoch() { return gDescriptorEpoch.load(std::memory_order_acquire); }

int HostDir::dirFd() const
{
    const uint64_t epoch = descriptorEpoch();
    if (checked_.load(std::memory_order_acquire) == epoch) return fd_;
    struct ::stat st;
    if (::fstat(fd_, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) {
        checked_.store(epoch, std::memory_order_release);
        return fd_;
    }
    // Closed, or its number now belongs to another file, which is not ours to close.
    int fd = ::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) {
        fd_ = fd;
        checked_.store(epoch, std::memory_order_release);
        return fd_;
    }
    if (fd >= 0) ::close(fd);
    errno = ENOENT;
    return -1;
}

HostDir::~HostDir()
{
    struct ::stat st;
    if (fd_ >= 0 && ::fstat(fd_, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) ::close(fd_);
}

int HostDir::refuse(const std::string& rel, const char* why) const
{
    TAV_LOG(0, "tavsim: refused %s/%s: %s %s:%d\n", path_.c_str(), rel.c_str(), why, TAV_FILE, __LINE__);
    errno = EACCES;
    return -1;
}

// An O_PATH descriptor of `rel` itself (a link is not followed, and refused).
int HostDir::pathFd(const std::string& rel, bool mustBeDir, struct ::stat* out) const
{
    int fd = openBeneath(dirFd(), rel, O_PATH | O_NOFOLLOW | (mustBeDir ? O_DIRECTORY : 0), 0);
    if (fd < 0) {
        if (errno == ELOOP) return refuse(rel, "a link inside the module");
        if (errno == EXDEV) return refuse(rel, "leaves the module directory");
        return -1;
    }
    struct ::stat st;
    if (::fstat(fd, &st) != 0 || S_ISLNK(st.st_mode)) {
        ::close(fd);
        return refuse(rel, "a link inside the module");
    }
    if (out) *out = st;  // the callers' own checks need no second fstat
    return fd;
}

int HostDir::parentFd(const std::string& rel, std::string& leaf) const
{
    std::string r = relative(rel);
    size_t slash = r.rfind('/');
    leaf = slash == std::string::npos ? r : r.substr(slash + 1);
    if (leaf.empty() || leaf == "." || leaf == "..") {
        errno = EINVAL;
        return -1;
    }
    return pathFd(slash == std::string::npos ? "" : r.substr(0, slash), true);
}

int HostDir::open(const std::string& relIn, int flags, mode_t mode) const
{
    const std::string rel = relative(relIn);
    for (int attempt = 0; attempt < 8; ++attempt) {
        struct ::stat st;
        int pfd = pathFd(rel, false, &st);
        if (pfd < 0) {
            if (errno != ENOENT || !(flags & O_CREAT)) return -1;
            // A new file: made beneath the directory, so it is ours alone.
            int fd = openBeneath(dirFd(), rel, (flags | O_EXCL | O_NOFOLLOW) & ~O_TRUNC, mode);
            if (fd >= 0 || errno != EEXIST || (flags & O_EXCL)) {
                if (fd < 0 && errno == ELOOP) return refuse(rel, "a link inside the module");
                if (fd < 0 && errno == EXDEV) return refuse(rel, "leaves the module directory");
                return fd;
            }
            continue;  // made by another process meanwhile: open what is there
        }
        if ((flags & O_CREAT) && (flags & O_EXCL)) {
            ::close(pfd);
            errno = EEXIST;
            return -1;
        }
        if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
            ::close(pfd);
            return refuse(rel, "a special file inside the module");
        }
        if (isWriting(flags) && S_ISREG(st.st_mode) && st.st_nlink > 1) {
            ::close(pfd);
            return refuse(rel, "a file of more than one link");
        }
        // Reopen the very file checked: the descriptor's own entry in /proc.
        char self[64];
        std::snprintf(self, sizeof self, "/proc/self/fd/%d", pfd);
        int fd = ::open(self, (flags & ~(O_CREAT | O_EXCL | O_TRUNC | O_NOFOLLOW)) | O_CLOEXEC);
        int saved = errno;
        ::close(pfd);
        if (fd >= 0 && (flags & O_TRUNC) && S_ISREG(st.st_mode) && (flags & O_ACCMODE) != O_RDONLY &&
            ::ftruncate(fd, 0) != 0) {
            saved = errno;
            ::close(fd);
            fd = -1;
        }
        errno = saved;
        return fd;
    }
    errno = EAGAIN;
    return -1;
}

int HostDir::stat(const std::string& rel, struct ::stat* st) const
{
    int fd = pathFd(relative(rel), false, st);
    if (fd < 0) return -1;
    ::close(fd);
    return 0;
}

bool HostDir::exists(const std::string& rel) const
{
    struct ::stat st;
    return stat(rel, &st) == 0;
}

int HostDir::mkdir(const std::string& rel, mode_t mode) const
{
    std::string leaf;
    int parent = parentFd(rel, leaf);
    if (parent < 0) return -1;
    int rc = ::mkdirat(parent, leaf.c_str(), mode);
    int saved = errno;
    ::close(parent);
    errno = saved;
    return rc;
}

bool HostDir::makeDirs(const std::string& relIn) const
{
    const std::string rel = relative(relIn);
    for (size_t slash = rel.find('/'); slash != std::string::npos; slash = rel.find('/', slash + 1))
        if (mkdir(rel.substr(0, slash)) != 0 && errno != EEXIST) return false;
    if (!rel.empty() && mkdir(rel) != 0 && errno != EEXIST) return false;
    struct ::stat st;
    return stat(rel, &st) == 0 && S_ISDIR(st.st_mode);
}

int HostDir::unlink(const std::string& rel) const
{
    std::string leaf;
    int parent = parentFd(rel, leaf);
    if (parent < 0) return -1;
    int rc = ::unlinkat(parent, leaf.c_str(), 0);
    int saved = errno;
    ::close(parent);
    errno = saved;
    return rc;
}

int HostDir::remove(const std::string& rel) const
{
    std::string leaf;
    int parent = parentFd(rel, leaf);
    if (parent < 0) return -1;
    int rc = ::unlinkat(parent, leaf.c_str(), 0);
    if (rc != 0 && (errno == EISDIR || errno == EPERM)) rc = ::unlinkat(parent, leaf.c_str(), AT_REMOVEDIR);
    int saved = errno;
    ::close(parent);
    errno = saved;
    return rc;
}

int HostDir::rename(const std::string& from, const std::string& to) const
{
    std::string leafFrom, leafTo;
    int a = parentFd(from, leafFrom);
    if (a < 0) return -1;
    int b = parentFd(to, leafTo);
    if (b < 0) {
        int saved = errno;
        ::close(a);
        errno = saved;
        return -1;
    }
    int rc = ::renameat(a, leafFrom.c_str(), b, leafTo.c_str());
    int saved = errno;
    ::close(a);
    ::close(b);
    errno = saved;
    return rc;
}

DIR* HostDir::opendir(const std::string& rel) const
{
    int fd = open(rel, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return nullptr;
    DIR* d = ::fdopendir(fd);
    if (!d) ::close(fd);
    return d;
}

int HostDir::mkstemp(std::string& rel) const
{
    if (rel.size() < 6 || rel.compare(rel.size() - 6, 6, "XXXXXX") != 0) {
        errno = EINVAL;
        return -1;
    }
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    uint64_t seed = static_cast<uint64_t>(::getpid()) * 0x9E3779B97F4A7C15ULL ^
                    gTempCounter.fetch_add(1, std::memory_order_relaxed) * 0xBF58476D1CE4E5B9ULL;
    for (int attempt = 0; attempt < 100; ++attempt) {
        seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
        uint64_t bits = seed >> 16;
        for (size_t i = rel.size() - 6; i < rel.size(); ++i, bits /= 62) rel[i] = kLetters[bits % 62];
        int fd = open(rel, O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    errno = EEXIST;
    return -1;
}

bool HostDir::readFile(const std::string& rel, std::string& out) const
{
    int fd = open(rel, O_RDONLY);
    if (fd < 0) return false;
    out.clear();
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            return n == 0;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

bool writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// The new file is made beside the old and traded places with it by one
// exchange, so that the name always holds a whole file. An exchange does not
// make the file system write the new file's data out at once, as a rename
// over an existing file does (ext4's auto_da_alloc), which is most of the
// cost of a state write; a rename is left for a new name and anything but a
// regular file.
bool HostDir::writeFileAtomic(const std::string& rel, const std::string& text) const
{
    std::string leaf;
    const int parent = parentFd(rel, leaf);
    if (parent < 0) return false;
    const std::string tmp = leaf + uniqueSuffix();
    // A name of our own making in a directory checked above: no link to follow.
    const int fd = openBeneath(parent, tmp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0644);
    const bool written = fd >= 0 && writeAll(fd, text);
    if (fd >= 0) ::close(fd);
    bool exchanged = false, placed = false;
    if (written) {
        struct ::stat st;
        exchanged = ::fstatat(parent, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
                    ::syscall(SYS_renameat2, parent, tmp.c_str(), parent, leaf.c_str(), RENAME_EXCHANGE) == 0;
        placed = exchanged || ::renameat(parent, tmp.c_str(), parent, leaf.c_str()) == 0;
    }
    // The old file after an exchange, or the new one that could not be put in place.
    if (fd >= 0 && (exchanged || !placed)) ::unlinkat(parent, tmp.c_str(), 0);
    ::close(parent);
    return placed;
}

bool HostDir::appendFile(const std::string& rel, const std::string& text) const
{
    int fd = open(rel, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) return false;
    bool ok = writeAll(fd, text);
    ::close(fd);
    return ok;
}

} // namespace sim

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

#include <gtest/gtest.h>

#include "platform/megalib.h"
#include "platform/platform.h"
#include "platform/tavio.h"

namespace {

// A temporary directory of the test's own, removed at the end.
class TempDir {
public:
    TempDir()
    {
        char templ[] = "/tmp/tavplat.XXXXXX";
        path_ = ::mkdtemp(templ);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    std::string file(const char* name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Fails the first `failures` calls of read, write, pread, pwrite and lseek with EINTR.
class EintrPlatform : public plat::ForwardingPlatform {
public:
    explicit EintrPlatform(int failures) : ForwardingPlatform(plat::hostPlatform()), left_(failures) {}

    ssize_t read(int fd, void* buf, size_t n) override { return interrupted() ? -1 : inner().read(fd, buf, n); }
    ssize_t write(int fd, const void* buf, size_t n) override
    {
        return interrupted() ? -1 : inner().write(fd, buf, n);
    }
    ssize_t pread(int fd, void* buf, size_t n, off_t off) override
    {
        return interrupted() ? -1 : inner().pread(fd, buf, n, off);
    }
    ssize_t pwrite(int fd, const void* buf, size_t n, off_t off) override
    {
        return interrupted() ? -1 : inner().pwrite(fd, buf, n, off);
    }
    off_t lseek(int fd, off_t off, int whence) override { return interrupted() ? -1 : inner().lseek(fd, off, whence); }

    int calls = 0;

private:
    bool interrupted()
    {
        ++calls;
        if (left_ == 0) return false;
        --left_;
        errno = EINTR;
        return true;
    }
    int left_;
};

class CountingPlatform : public plat::ForwardingPlatform {
public:
    CountingPlatform() : ForwardingPlatform(plat::hostPlatform()) {}
    int access(const char* path, int mode) override
    {
        ++accesses;
        return inner().access(path, mode);
    }
    int accesses = 0;
};

TEST(Platform, ScopedPlatformInstallsAndRestores)
{
    EXPECT_EQ(&plat::current(), &plat::hostPlatform());
    CountingPlatform outer;
    {
        plat::ScopedPlatform scope(outer);
        EXPECT_EQ(&plat::current(), &outer);
        plat::access("/tmp", F_OK);
        CountingPlatform inner;
        {
            plat::ScopedPlatform nested(inner);
            plat::access("/tmp", F_OK);
        }
        EXPECT_EQ(&plat::current(), &outer);
        EXPECT_EQ(inner.accesses, 1);
    }
    EXPECT_EQ(outer.accesses, 1);
    EXPECT_EQ(&plat::current(), &plat::hostPlatform());
}

TEST(Platform, HostPassThroughKeepsResultsAndErrno)
{
    TempDir dir;
    std::string path = dir.file("data");
    int fd = plat::open(path.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(plat::write(fd, "abcdef", 6), 6);
    EXPECT_EQ(plat::pwrite(fd, "XY", 2, 1), 2);
    char buf[8] = {};
    EXPECT_EQ(plat::pread(fd, buf, 6, 0), 6);
    EXPECT_STREQ(buf, "aXYdef");
    struct stat st;
    ASSERT_EQ(plat::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 6);
    EXPECT_EQ(plat::close(fd), 0);

    errno = 0;
    EXPECT_EQ(plat::open(dir.file("missing").c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(plat::unlink(path.c_str()), 0);
    EXPECT_EQ(plat::access(path.c_str(), F_OK), -1);
}

TEST(Platform, HelpersRetryInjectedEintrWithoutChangingTheResult)
{
    TempDir dir;
    std::string path = dir.file("data");
    int fd = ::open(path.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);

    EintrPlatform eintr(3);
    plat::ScopedPlatform scope(eintr);
    EXPECT_EQ(tav_write(fd, "hello world", 11), 11);
    EXPECT_EQ(eintr.calls, 4);   // three interrupted, one through

    EintrPlatform again(2);
    plat::ScopedPlatform scope2(again);
    EXPECT_EQ(tav_lseek(fd, 6, SEEK_SET), 6);
    char buf[16] = {};
    EXPECT_EQ(tav_read(fd, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "world");
    EXPECT_EQ(tav_pwrite(fd, "W", 1, 6), 1);
    EXPECT_EQ(tav_pread(fd, buf, 5, 6), 5);
    EXPECT_EQ(std::string(buf, 5), "World");
    ::close(fd);
}

TEST(Platform, HelpersReturnOtherErrorsAtOnce)
{
    EintrPlatform none(0);
    plat::ScopedPlatform scope(none);
    char buf[4];
    errno = 0;
    EXPECT_EQ(tav_read(-1, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(none.calls, 1);
}

TEST(Platform, ControllerLibraryAbsentMeansNoControllers)
{
    EXPECT_EQ(InitMegaLib(), 0);
    char major[16], minor[16];
    GetDllVersion(major, minor);
    EXPECT_STREQ(major, "0");
    char buffer[4];
    EXPECT_NE(MegaLibCommand(1, 0, 0, 0, sizeof buffer, buffer), 0);
}

} // namespace

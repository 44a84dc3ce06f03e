#include <cerrno>
#include <string>

#include <gtest/gtest.h>

static int giDebug_sample = 0;
#define TAV_DEBUG_FLAG giDebug_sample
#include "driveutils/tavlog.h"

namespace {

class Levels : public testing::Test {
protected:
    void TearDown() override
    {
        giDebug_sample = 0;
        tavGlobalDebugLevel = 0;
    }

    static std::string logged(int level)
    {
        testing::internal::CaptureStderr();
        TAV_LOG(level, "site %d\n", level);
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(Levels, LevelZeroIsSilentOnlyWithBothFlagsNegative)
{
    EXPECT_EQ(logged(0), "site 0\n");
    tavGlobalDebugLevel = -1;
    EXPECT_EQ(logged(0), "site 0\n");   // the file flag at 0 still reaches level 0
    giDebug_sample = -1;
    EXPECT_EQ(logged(0), "");
    tavGlobalDebugLevel = 0;
    EXPECT_EQ(logged(0), "site 0\n");
}

TEST_F(Levels, TraceNeedsEitherFlagAtItsLevel)
{
    EXPECT_EQ(logged(5), "");
    tavGlobalDebugLevel = 5;
    EXPECT_EQ(logged(5), "site 5\n");
    EXPECT_EQ(logged(10), "");
    tavGlobalDebugLevel = 0;
    giDebug_sample = 10;
    EXPECT_EQ(logged(10), "site 10\n");
    EXPECT_EQ(logged(99), "");
}

TEST(GenericForms, SystemCallFailureAndShortCount)
{
    testing::internal::CaptureStderr();
    errno = ENOSPC;
    TAV_LOG_SYSFAIL("write", "writeSignature");
    int line = __LINE__ - 1;
    TAV_LOG_SHORT("validateSignature", "read", 100, 512);
    std::string err = testing::internal::GetCapturedStderr();
    std::string expected = "write failed in writeSignature error:" + std::to_string(ENOSPC) + ":" +
                           strerror(ENOSPC) + " tavlog_test.cpp:" + std::to_string(line) + "\n" +
                           "validateSignature: read only 100 of 512 bytes. tavlog_test.cpp:" +
                           std::to_string(line + 2) + "\n";
    EXPECT_EQ(err, expected);
}

TEST(LogStream, GoesToStandardOutputAtEachFlush)
{
    testing::internal::CaptureStdout();
    tav_logstream << "Ondra module: " << 42;
    std::string before = testing::internal::GetCapturedStdout();
    EXPECT_EQ(before, "");   // still in the put area
    testing::internal::CaptureStdout();
    tav_logstream << std::endl;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Ondra module: 42\n");
}

TEST(LogStream, ALongLineIsCutAtTheBufferSize)
{
    // Count the separate messages by putting a marker around each sync.
    struct Counting : tav_syslogbuf {
        int syncs = 0;
        int sync() override
        {
            ++syncs;
            return tav_syslogbuf::sync();
        }
    } buf;
    std::ostream out(&buf);
    testing::internal::CaptureStdout();
    out << std::string(2048, 'a') << std::string(10, 'b');
    EXPECT_EQ(buf.syncs, 1);   // the full area went out on the 2049th character
    out.flush();
    EXPECT_EQ(buf.syncs, 2);
    std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(text, std::string(2048, 'a') + std::string(10, 'b'));
}

} // namespace

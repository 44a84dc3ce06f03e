// The chassis controller's bay table, drive lists, status text and the
// command arguments that are refused before anything reaches the DSP; the
// power-down thread on a simulated module.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/store_fixture.h"
#include "driveutils/tavsysutils.h"
#include "driveutils/tavudpthread.h"

namespace {

using Bays = TavDspDiskStatus;

// Status bytes of a bay as the DSP sends them (bits 3 to 0: power off, critical
// switch closed, clamped, warning switch closed).
constexpr uint8_t kWell = 0x05;
constexpr uint8_t kWarningOpen = 0x04;
constexpr uint8_t kCriticalOpen = 0x01;
constexpr uint8_t kNoPower = 0x0d;

tavDspKernelChar statusRecord(std::vector<uint8_t> bytes)
{
    tavDspKernelChar r{};
    r.type = TAV_DSP_K_DRV_STAT;
    for (size_t d = 0; d < 8; ++d) r.status[d] = d < bytes.size() ? bytes[d] : kWell;
    return r;
}

class Dsp : public testing::Test {
protected:
    Dsp() { tavDspNumDrives = 8; }
};

TEST_F(Dsp, BayTableFollowsTheRecordsAndFlagsOnlyAWellDriveGettingWorse)
{
    tavDspKernelChar clean = statusRecord({0xf5});  // the high nibble is not the bay's
    ASSERT_EQ(Bays::compareDriveStatus(&clean), 0);
    EXPECT_TRUE(Bays::allDrivesOperating());
    EXPECT_FALSE(Bays::statusChanged());

    tavDspKernelChar warning = statusRecord({kWell, kWarningOpen});
    Bays::compareDriveStatus(&warning);
    EXPECT_EQ(Bays::worseDrive(1), 1);
    EXPECT_EQ(Bays::worseDrive(0), 0);
    EXPECT_FALSE(Bays::warningClosed(1));
    EXPECT_TRUE(Bays::hasPower(1));
    EXPECT_FALSE(Bays::driveOperating(1));
    EXPECT_FALSE(Bays::allDrivesOperating());

    tavDspKernelChar worse = statusRecord({kWell, kWarningOpen | 0x08});
    Bays::compareDriveStatus(&worse);
    EXPECT_EQ(Bays::worseDrive(1), 0) << "already unwell: not flagged again";
    EXPECT_FALSE(Bays::hasPower(1));
    EXPECT_TRUE(Bays::statusChanged()) << "yet it is a change";
    EXPECT_FALSE(Bays::statusChanged()) << "reading the change clears it";

    // The reader compares a status record twice: the second finds nothing new.
    tavDspKernelChar clamped = statusRecord({kWell | 0x02, kWarningOpen | 0x08});
    Bays::compareDriveStatus(&clamped);
    Bays::compareDriveStatus(&clamped);
    EXPECT_FALSE(Bays::busIsActive(0));
    EXPECT_EQ(Bays::worseDrive(0), 0);
    EXPECT_FALSE(Bays::statusChanged());

    Bays::worseDrive(3, 0);
    EXPECT_EQ(Bays::worseDrive(3), 1) << "any value marks the drive";

    tavDspKernelChar critical = statusRecord({kCriticalOpen, kNoPower});
    Bays::setDriveStatus(&critical);
    EXPECT_FALSE(Bays::criticalClosed(0));
    EXPECT_TRUE(Bays::warningClosed(0));
    EXPECT_EQ(Bays::worseDrive(3), 1) << "set without comparing";

    // Software's own power flag: taken from the DSP's once, then left to software.
    Bays::initUserSpaceFlags();
    tavDspKernelChar well = statusRecord({});
    Bays::compareDriveStatus(&well);
    EXPECT_TRUE(Bays::hasPower(1));
    EXPECT_FALSE(Bays::userSpaceHasPower(1));
    EXPECT_FALSE(Bays::driveOperating(1)) << "it counts against the drive";
    EXPECT_FALSE(Bays::allDrivesOperating());
    Bays::userSpaceSetPower(1, true);
    EXPECT_TRUE(Bays::allDrivesOperating());
}

TEST_F(Dsp, BayTableRefusesBadDrivesAndALockItCannotTake)
{
    testing::internal::CaptureStderr();
    EXPECT_FALSE(Bays::warningClosed(-1));
    Bays::worseDrive(8, 1);
    EXPECT_EQ(Bays::compareDriveStatus(nullptr), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Invalid parameter; "), std::string::npos);
    EXPECT_NE(log.find("Invalid parameters; "), std::string::npos);

    // A thread that holds the table and asks again is refused, not stuck.
    tavDspKernelChar r = statusRecord({kNoPower});
    Bays::setDriveStatus(&r);
    ASSERT_EQ(pthread_mutex_lock(&Bays::mutex), 0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(Bays::userSpaceHasPower(5)) << "reads give 0";
    EXPECT_TRUE(Bays::allDrivesOperating()) << "but this one 1";
    EXPECT_EQ(Bays::statusIsReady(), 0);
    log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(pthread_mutex_unlock(&Bays::mutex), 0);
    EXPECT_NE(log.find("Unable to lock mutex; "), std::string::npos);
    EXPECT_FALSE(Bays::allDrivesOperating());
}

TEST_F(Dsp, StatusTextHasTwoCharactersADriveWhileThreeBytesRemain)
{
    // A four-drive unit: the driver leaves the absent bays' bytes at zero.
    tavDspNumDrives = 4;
    char text[64];
    tavDspKernelChar r{};
    r.status[0] = r.status[1] = r.status[2] = kWell;
    r.status[3] = kNoPower;
    ASSERT_EQ(dspGetStatusValue(&r, text, sizeof text), 0);
    EXPECT_STREQ(text, "PCPCPCOC");
    r.status[3] = kWell;
    Bays::compareDriveStatus(&r);
    EXPECT_TRUE(Bays::allDrivesOperating()) << "the absent bays are no open switches";

    tavDspNumDrives = 8;
    r = statusRecord({});
    ASSERT_EQ(dspGetStatusValue(&r, text, sizeof text), 0);
    EXPECT_STREQ(text, "PCPCPCPCPCPCPCPC");

    r = statusRecord({kWell, kWarningOpen | 0x08, kCriticalOpen, kCriticalOpen & ~0x01, kNoPower});
    ASSERT_EQ(dspGetStatusValue(&r, text, sizeof text), 0);
    EXPECT_STREQ(text, "PCO1P2P2OCPCPCPC") << "an open critical switch hides the warning switch";
    EXPECT_FALSE(Bays::hasPower(4)) << "the table took the record";

    std::memset(text, 'Z', sizeof text);
    EXPECT_EQ(dspGetStatusValue(&r, text, 5), 0);
    EXPECT_STREQ(text, "PCO1");
    EXPECT_EQ(text[5], 'Z');
    dspGetStatusValue(&r, text, 3);
    EXPECT_STREQ(text, "PC");
    dspGetStatusValue(&r, text, 2);
    EXPECT_STREQ(text, "");

}

// A list read by getDrives: the mask, and what is left of the text.
std::pair<int, std::string> drives(const char* input, int plain)
{
    std::string copy = input;
    char* text = copy.data();
    int mask = getDrives(text, plain);
    return {mask, text};
}

TEST_F(Dsp, DriveListsAsMasksAndComplements)
{
    EXPECT_EQ(drives("134 2", 1), std::make_pair(0x0d, std::string(" 2")));
    EXPECT_EQ(drives(" \t8", 1).first, 0x80);
    EXPECT_EQ(drives("1", 0).first, 0xfe);
    EXPECT_EQ(drives("12345678", 0).first, 0) << "every drive named: nothing left";
    EXPECT_EQ(drives("09", 1), std::make_pair(0, std::string())) << "a list, with no drive in it";
    EXPECT_EQ(drives("0", 0).first, 0xff);
    EXPECT_EQ(drives(std::string(5000, '3').append("x").c_str(), 1), std::make_pair(0x04, std::string("x")));

    for (const char* missing : {"", "   ", "x12", "-1", "+2"}) {
        EXPECT_EQ(drives(missing, 1).first, -1) << missing;
        EXPECT_EQ(drives(missing, 0).first, -1) << missing;
    }
    char* none = nullptr;
    EXPECT_EQ(getDrives(none, 1), -1);
}

TEST_F(Dsp, VoltageSelectorTriesStandbyBeforePlainFive)
{
    EXPECT_EQ(dspVoltageSelector("5.0SB"), TAV_DSP_VOLTAGE_5_0_SB);
    EXPECT_EQ(dspVoltageSelector(" 5.0 "), TAV_DSP_VOLTAGE_5_0);
    EXPECT_EQ(dspVoltageSelector("5.0SB and 3.3"), TAV_DSP_VOLTAGE_3_3) << "3.3 is looked for first";
    EXPECT_EQ(dspVoltageSelector("5,0"), -1);
}

using Command = int (*)(char*, int);

// The answer of a command given `text` in a buffer of `length` bytes (more
// bytes behind it, which must stay as they were).
struct Answer {
    int rc;
    std::string text;
    bool overran;
};

Answer run(Command command, const std::string& text, int length = 64)
{
    std::vector<char> buffer(static_cast<size_t>(length) + 16, 'Z');
    std::memcpy(buffer.data(), text.c_str(), std::min(text.size() + 1, static_cast<size_t>(length)));
    int rc = command(buffer.data(), length);
    bool overran = false;
    for (size_t i = static_cast<size_t>(length); i < buffer.size(); ++i) overran |= buffer[i] != 'Z';
    return {rc, std::string(buffer.data(), strnlen(buffer.data(), static_cast<size_t>(length))), overran};
}

const Command kAllCommands[] = {dspReset,       dspCmdSize,   dspStatus,      dspPowerSeq,  dspPowerDown,
                                dspPowerUp,     dspAbort,     dspLastCommand, dspTempDrive, dspTempLimit,
                                dspGetTempLimit, dspVoltage,  dspSwitchSrc,   dspFirmVersion};

TEST_F(Dsp, EveryCommandRefusesANullOrShortBufferWithinItsLength)
{
    testing::internal::CaptureStderr();
    for (Command command : kAllCommands) {
        EXPECT_EQ(command(nullptr, 64), -1);
        Answer a = run(command, "1 1", 16);
        EXPECT_EQ(a.rc, -1);
        EXPECT_EQ(a.text, "Invalid paramet") << "cut to the buffer";
        EXPECT_FALSE(a.overran);
        EXPECT_EQ(run(command, "1 1", 0).overran, false);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Invalid parameter; "), std::string::npos);
}

TEST_F(Dsp, ArgumentsRefusedBeforeTheDspIsAsked)
{
    struct Case {
        Command command;
        const char* text;
        const char* answer;
    } cases[] = {
        {dspCmdSize, "", "Command length resizing is not supported"},
        {dspPowerDown, "", "Invalid argument for drives"},
        {dspPowerDown, "  1", "Invalid argument for drives"},
        {dspPowerSeq, "12 x", "Invalid argument for drives"},
        {dspPowerUp, "-1 2", "Invalid argument for drives"},
        {dspTempDrive, "0", "Unable to get drive argument"},
        {dspTempDrive, "9", "Unable to get drive argument"},
        {dspTempDrive, "-2", "Unable to get drive argument"},
        {dspTempDrive, "", "Unable to get drive argument"},
        {dspTempDrive, "99999999999999999999", "Unable to get drive argument"},
        {dspTempLimit, "0", "Unable to get temp limit argument"},
        {dspTempLimit, "256", "Unable to get temp limit argument"},
        {dspTempLimit, "hot", "Unable to get temp limit argument"},
        {dspVoltage, "7.5", "Unable to determine argument"},
        {dspPowerDown, "12 3", "Unable to communicate w/ DSP driver"},  // no driver opened
    };
    testing::internal::CaptureStderr();
    for (const Case& c : cases) {
        Answer a = run(c.command, c.text);
        EXPECT_EQ(a.rc, -1) << c.text;
        EXPECT_EQ(a.text, c.answer) << c.text;
        EXPECT_FALSE(a.overran);
    }
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Unable to get drives for power/clamp; "), std::string::npos);
    EXPECT_NE(log.find("Unable to communicate w/ DSP driver; "), std::string::npos);

    tavDspNumDrives = 4;
    EXPECT_EQ(run(dspTempDrive, "5").text, "Unable to get drive argument") << "beyond a four-drive unit";

    // An argument with no zero byte is read within the buffer alone.
    std::vector<char> exact(TAV_DSP_MIN_BUFFER, '1');
    EXPECT_EQ(dspPowerUp(exact.data(), TAV_DSP_MIN_BUFFER), -1);
    EXPECT_EQ(std::string(exact.data()), "Invalid argument") << "and answered within it";
}

TEST_F(Dsp, ServiceFacadeAndAgentBeforeTheyRun)
{
    TavString buffer;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ondraIf.processStart(buffer, 1, 3), -1);
    EXPECT_EQ(buffer, "Invalid type");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Ondra module: invalid type; "), std::string::npos);
    EXPECT_EQ(ondraIf.getRun(buffer, 0), 0);
    EXPECT_EQ(buffer, "FALSE") << "no process runs yet";

    testing::internal::CaptureStderr();
    EXPECT_EQ(TAVUDPThread::postMessage("in management group"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "postMessage() Message [in management group] dropped because udp thread is inactive\n");
}

// The power-down thread on a signed four-drive module with its manager up.
class PowerDownThread : public storetest::ManagerTest {
protected:
    std::string runFor(int drive)
    {
        testing::internal::CaptureStderr();
        runPowerDown(new int(drive));
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(PowerDownThread, DriveAlreadyOffIsLeftAlone)
{
    tavGlobalDebugLevel = 10;
    tavDspKernelChar r = statusRecord({});
    Bays::setDriveStatus(&r);
    Bays::initUserSpaceFlags();

    Bays::userSpaceSetPower(1, false);
    std::string log = runFor(2);
    EXPECT_NE(log.find("drive is already off "), std::string::npos);
    EXPECT_EQ(log.find("powered off"), std::string::npos) << log;

    log = runFor(1);
    EXPECT_EQ(log.find("drive is already off"), std::string::npos);
    EXPECT_NE(log.find("drive already in bay (should not happen)"), std::string::npos);
    // The link is not up here: the bus cannot power the drives down and puts them back.
    EXPECT_NE(log.find("powerDown failed "), std::string::npos) << log;
    EXPECT_EQ(log.find("postMessage"), std::string::npos) << "the store did not run";

    log = runFor(9);
    EXPECT_NE(log.find("No bus holds drive 9"), std::string::npos) << "refused, not ended";
    tavGlobalDebugLevel = 0;
}

} // namespace

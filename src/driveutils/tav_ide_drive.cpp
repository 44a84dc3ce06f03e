#include "driveutils/tav_ide_drive.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/hdreg.h>

#include "hwlib/tavhwid.h"
#include "platform/platform.h"

static int giDebug_sample = 0;
#define TAV_DEBUG_FLAG giDebug_sample
#include "driveutils/tavlog.h"

namespace RaidDeviceMgmt {

namespace {

constexpr unsigned char kAtaIdentify = 0xEC;
constexpr unsigned char kAtaSetFeatures = 0xEF;
constexpr unsigned char kAtaFlushCache = 0xE7;
constexpr unsigned char kFeatureTransferMode = 0x03;
constexpr unsigned char kUltraDmaModeBase = 0x40;

const char* const kNoAnswer = "--------";

// The four command bytes and the 512 bytes of data that come back.
struct DriveCommand {
    unsigned char args[4];
    unsigned char data[512];
};
static_assert(sizeof(DriveCommand) == 516);

// Identify words by byte offset in the raw data.
constexpr int kIdSerial = 20, kIdSerialLen = 20;
constexpr int kIdModel = 54, kIdModelLen = 40;
constexpr int kIdLbaCapacity = 120;
constexpr int kIdUltraDma = 176;

// A raw ATA text: two characters a word in swapped order, blank-padded.
std::string ataText(const unsigned char* field, int length)
{
    std::string text;
    for (int i = 0; i + 1 < length; i += 2) {
        text += static_cast<char>(field[i + 1]);
        text += static_cast<char>(field[i]);
    }
    size_t end = text.find_last_not_of(" \0", std::string::npos, 2);
    size_t begin = text.find_first_not_of(' ');
    if (end == std::string::npos || begin == std::string::npos) return "";
    return text.substr(begin, end - begin + 1);
}

} // namespace

TavIdeDrive::TavIdeDrive(int driveNumber, const char* name, int driveTarget)
    : TavDrive(driveNumber, name), target(driveTarget)
{
}

namespace {

// How one ATA command went, with the errno of the failed call.
struct CommandResult {
    enum { Done, OpenFailed, IoctlFailed } outcome;
    int error;
    bool ok() const { return outcome == Done; }
};

// Opens the disk and sends one ATA command.
CommandResult sendCommand(const std::string& disk, DriveCommand& command)
{
    int fd = plat::open(disk.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) return {CommandResult::OpenFailed, errno};
    // An interrupted command is sent again, as an interrupted read is read
    // again: a signal must not cost a drive its serial number.
    int rc;
    do {
        rc = plat::ioctl(fd, HDIO_DRIVE_CMD, &command);
    } while (rc < 0 && errno == EINTR);
    int error = errno;
    plat::close(fd);
    return {rc < 0 ? CommandResult::IoctlFailed : CommandResult::Done, error};
}

// A command whose failures log "<word>: <error>, <file>:<line>"; 0 or -1.
int sendLogged(const std::string& disk, DriveCommand& command, const char* ioctlWord = "ioctl")
{
    CommandResult result = sendCommand(disk, command);
    if (result.ok()) return 0;
    const char* word = result.outcome == CommandResult::OpenFailed ? "Open" : ioctlWord;
    TAV_LOG(0, "%s: %s, %s:%d\n", word, strerror(result.error), TAV_FILE, __LINE__);
    return -1;
}

int identify(const std::string& disk, DriveCommand& command, const char* ioctlWord = "ioctl")
{
    std::memset(&command, 0, sizeof command);
    command.args[0] = kAtaIdentify;
    command.args[3] = 1;
    return sendLogged(disk, command, ioctlWord);
}

// A text field of the identify data, or "--------" when the drive does not answer.
int identifyText(const std::string& disk, int offset, int length, std::string& text)
{
    DriveCommand command;
    if (identify(disk, command) != 0) {
        text = kNoAnswer;
        return -1;
    }
    text = ataText(command.data + offset, length);
    return 0;
}

} // namespace

int TavIdeDrive::getSerialNo(std::string& serial) { return identifyText(file, kIdSerial, kIdSerialLen, serial); }

int TavIdeDrive::getModel(std::string& text) { return identifyText(file, kIdModel, kIdModelLen, text); }

int TavIdeDrive::getClass(std::string& text)
{
    DriveCommand command;
    if (identify(file, command) != 0) {
        text = kNoAnswer;
        return -1;
    }
    unsigned short capability = static_cast<unsigned short>(command.data[kIdUltraDma] | command.data[kIdUltraDma + 1] << 8);
    getClass(capability, text);
    setDmaMode();
    return 0;
}

int TavIdeDrive::getCapacity(uint32_t& capacity)
{
    DriveCommand command;
    if (identify(file, command, "ioctl failed") != 0) return -1;
    const unsigned char* p = command.data + kIdLbaCapacity;
    capacity = static_cast<uint32_t>(p[0] | p[1] << 8 | p[2] << 16) | static_cast<uint32_t>(p[3]) << 24;
    return 0;
}

bool TavIdeDrive::pingPhysicalDrive()
{
    uint32_t capacity = 0;
    return getCapacity(capacity) == 0;
}

int TavIdeDrive::setDmaMode()
{
    std::string model;
    if (getModel(model) != 0) {
        TAV_LOG(0, "Warning: Could not get Model Number. %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    if (model.compare(0, 4, "----") == 0) return 0;
    int mode = -1;
    char value[32] = {};
    if (hwid_getFeatureSetting(model.c_str(), "dma_mode", value, sizeof value) != 0) {
        TAV_LOG(0, "Warning: Could not get setting for DMA Mode for Model [%s]. %s:%d\n", model.c_str(), TAV_FILE,
                __LINE__);
        return 0;
    }
    mode = static_cast<int>(strtol(value, nullptr, 10));
    if (mode == -1) return 0;
    TAV_LOG(0, "Attempting to set dma mode to udma mode %d\n", mode);
    DriveCommand command{};
    command.args[0] = kAtaSetFeatures;
    command.args[1] = static_cast<unsigned char>(kUltraDmaModeBase + mode);
    command.args[2] = kFeatureTransferMode;
    if (sendLogged(file, command) != 0) return -1;
    TAV_LOG(0, "Successfully set dma mode to udma mode %d\n", mode);
    return 0;
}

// The value is the set-features subcommand itself: 2 (0x02) turns the cache
// on, 130 (0x82) off; any other goes to the drive as it is.
int TavIdeDrive::SetHardDriveWriteCache(int iWCache)
{
    DriveCommand command{};
    command.args[0] = kAtaSetFeatures;
    command.args[2] = static_cast<unsigned char>(iWCache);
    CommandResult result = sendCommand(file, command);
    if (result.outcome == CommandResult::OpenFailed) {
        TAV_LOG(0, " WARNING:  SetHardDriveWriteCache(%s): open() Failed\n", file.c_str());
        return -1;
    }
    if (result.outcome == CommandResult::IoctlFailed) {
        TAV_LOG(0, " ERROR:  SetHardDriveWriteCache(%s): ioctl() Failed\n", file.c_str());
        TAV_LOG(0, " HDIO_DRIVE_CMD(setcache) failed");
        return -1;
    }
    return 0;
}

int TavIdeDrive::flushWriteCache()
{
    DriveCommand command{};
    command.args[0] = kAtaFlushCache;
    CommandResult result = sendCommand(file, command);
    if (result.outcome == CommandResult::OpenFailed) {
        TAV_LOG(0, "can't open %s for purpose of flushing the write cache. %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return -1;
    }
    if (result.outcome == CommandResult::IoctlFailed) {
        TAV_LOG(0, "Flush Hard Drive Cache ioctl() failed on drive: %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return -1;
    }
    return 0;
}

} // namespace RaidDeviceMgmt

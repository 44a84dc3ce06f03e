// The chassis controller's kernel driver as the model sees it: the records it
// hands up, the configuration it is given, its requests, and the frames the
// firmware sends it on the serial line.
//
// The driver takes a command as one write of ten bytes. The firmware's
// messages arrive on the line as frames; the driver turns them into records
// only while a read is pending on it (the program's kernel reader), and hands
// the records up one per TAV_DSP_NEXT_MSG. Each record carries the status
// byte of every drive, made from the frame's raw drive bytes with the masks
// and byte numbers of the configuration, and the firmware's version.
//
// A frame on the line:
//
//   0      kFrameStart
//   1      message type
//   2      firmware version character
//   3      change bits (bit bay-1)
//   4      power-down bits (bit bay-1)
//   5..8   the four raw drive bytes
//   9      payload length N, 0 to 80
//   10..   N payload bytes
//   last   checksum: the sum of all bytes before it, modulo 256
//
// A raw record of a test travels as kFrameRawRecord and its 112 bytes, and
// is handed up as it stands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim::dsp {

// The record the driver hands up.
struct Record {
    int8_t length;
    int8_t type;
    int8_t change;
    int8_t pwrDwn;
    uint8_t version;
    uint8_t tempLmt;
    uint8_t voltage[4];
    uint8_t tempDrive[8];
    uint8_t status[8];
    char buff[80];
    uint8_t pad[2];
    uint32_t next;   // the driver's own link, a 32-bit pointer there
};
static_assert(sizeof(Record) == 112);
static_assert(offsetof(Record, version) == 4);
static_assert(offsetof(Record, tempLmt) == 5);
static_assert(offsetof(Record, voltage) == 6);
static_assert(offsetof(Record, tempDrive) == 10);
static_assert(offsetof(Record, status) == 18);
static_assert(offsetof(Record, buff) == 26);
static_assert(offsetof(Record, next) == 108);

constexpr size_t kRecordBytes = sizeof(Record);
constexpr size_t kPayloadMax = sizeof(Record::buff);
using RecordBytes = std::array<uint8_t, kRecordBytes>;

// The configuration the program gives.
struct Config {
    int32_t numDrives;
    uint8_t driveMasks[16];
    uint8_t driveBytes[16];
    char serialDeviceName[256];
};
static_assert(sizeof(Config) == 292);
static_assert(offsetof(Config, driveMasks) == 4);
static_assert(offsetof(Config, driveBytes) == 20);
static_assert(offsetof(Config, serialDeviceName) == 36);

constexpr int kMaxConfigDrives = 16;

// Requests: the ioctl numbers are these values; any other is EINVAL.
constexpr unsigned long kFirmwareVersion = 1;  // writes an int, the version character
constexpr unsigned long kNextMsg = 4;          // fills a Record: 1 a record, 0 none
constexpr unsigned long kDeviceConfig = 7;     // takes a Config

constexpr size_t kCommandBytes = 10;

// Message types.
enum MsgType : int {
    kEcho = 0,
    kLastCommand = 2,
    kDriveStatus = 3,
    kSwitchMoved = 4,
    kPowerBoard = 5,
    kTemperatures = 6,
    kVoltages = 7,
    kSourceChanged = 8,
    kDone = 12,
    kOff = 13,
    kHalted = 14,
    kDateVersion = 15,
};

constexpr uint8_t kFrameStart = 0xa5;
constexpr uint8_t kFrameRawRecord = 0x5a;
constexpr size_t kFrameHeader = 10;
constexpr size_t kRawBytes = 4;

// A frame of the firmware.
struct Frame {
    uint8_t type = 0;
    uint8_t version = 0;
    uint8_t change = 0;
    uint8_t pwrDwn = 0;
    uint8_t raw[kRawBytes] = {};
    std::string payload;  // at most kPayloadMax bytes
};

std::string encodeFrame(const Frame& f);
std::string encodeRawRecord(const RecordBytes& record);

// The driver's configuration as it keeps it.
struct DriverConfig {
    bool configured = false;
    int numDrives = 0;
    uint8_t masks[16] = {};
    uint8_t bytes[16] = {};
    std::string serialDevice;
};

// Status byte of each drive from the raw drive bytes: the drive's mask
// applied to its byte, shifted down to the low bits. All zero before a
// configuration.
void statusBytes(const DriverConfig& config, const uint8_t raw[kRawBytes], uint8_t out[8]);

// The records of the bytes taken from the line, in order. A byte that starts
// no frame, and a frame whose checksum fails, are dropped.
void recordsOfLine(const DriverConfig& config, const std::string& line, std::vector<RecordBytes>& out);

} // namespace sim::dsp

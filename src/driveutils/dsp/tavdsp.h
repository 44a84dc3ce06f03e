// The chassis controller's link: the records of its kernel driver, the
// command bytes, the list of commands not yet echoed, the reader threads and
// the values they post.
//
// The driver "/dev/tav_dsp_1" owns the serial line. A command is ten bytes
// given by one write; the driver hands up one tavDspKernelChar per message
// that arrives (request TAV_DSP_NEXT_MSG). A caller clears the response flag,
// sends, and looks at the flag at the end of each of up to five waits; the
// reader thread sets it when the answer comes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// ---- the driver's records (wire formats of a 32-bit driver) ----

struct tavDspKernelChar {
    int8_t length;          // bytes of payload in buff
    int8_t type;            // tavDspMsgType
    int8_t change;          // bit per drive: its status changed
    int8_t pwrDwn;          // bit per drive: it must go down
    uint8_t version;        // firmware version character
    uint8_t tempLmt;        // temperature limit
    uint8_t voltage[4];     // raw voltage bytes
    uint8_t tempDrive[8];   // raw drive temperatures
    uint8_t status[8];      // one status byte per drive, flags in the low nibble
    char buff[80];          // the payload as received
    uint8_t pad_[2];
    uint32_t next;          // the driver's own link; never a pointer here
};
static_assert(sizeof(tavDspKernelChar) == 112);
static_assert(offsetof(tavDspKernelChar, version) == 4);
static_assert(offsetof(tavDspKernelChar, tempLmt) == 5);
static_assert(offsetof(tavDspKernelChar, voltage) == 6);
static_assert(offsetof(tavDspKernelChar, tempDrive) == 10);
static_assert(offsetof(tavDspKernelChar, status) == 18);
static_assert(offsetof(tavDspKernelChar, buff) == 26);
static_assert(offsetof(tavDspKernelChar, next) == 108);

struct tavDspDeviceConfig {
    int32_t numDrives;
    uint8_t driveMasks[16];       // mask of each drive's nibble in its raw byte
    uint8_t driveBytes[16];       // raw byte that holds each drive
    char serialDeviceName[256];
};
static_assert(sizeof(tavDspDeviceConfig) == 292);
static_assert(offsetof(tavDspDeviceConfig, driveMasks) == 4);
static_assert(offsetof(tavDspDeviceConfig, driveBytes) == 20);
static_assert(offsetof(tavDspDeviceConfig, serialDeviceName) == 36);

// Argument of TAV_DSP_DRIVE_VALUES; declared, never sent.
struct tavDspDriveUserValues {
    unsigned int drive;
    unsigned int mdType;
    unsigned int hdType;
};
static_assert(sizeof(tavDspDriveUserValues) == 12);

// A row of a table binding keys to command functions; the host fills it.
struct tavDspRegisterKey {
    char keyName[80];
    int keyId;
    int (*cback)(char* buffer, int length);
    int type;
    void* instance;
};

// ---- enumerations ----

enum tavDspCommand {
    TAV_DSP_RESET_CMD = 0,
    TAV_DSP_CMD_SIZE_CMD = 1,
    TAV_DSP_STATUS_CMD = 2,
    TAV_DSP_POWER_SEQ_CMD = 3,
    TAV_DSP_POWER_DOWN_CMD = 4,
    TAV_DSP_ABORT_CMD = 5,
    TAV_DSP_POWER_UP_CMD = 6,
};

enum tavDspSubCommand {
    TAV_DSP_LAST_COMMAND_SUB = 0,
    TAV_DSP_POWER_CLAMP_SUB = 1,
    TAV_DSP_DRIVE_TEMP_SUB = 2,
    TAV_DSP_VOLTAGE_SUB = 3,
    TAV_DSP_SWITCH_PWR_SUB = 4,
    TAV_DSP_TEMP_LIMIT_SUB = 5,
    TAV_DSP_FAN_SPEED_SUB = 6,
    TAV_DSP_FAN_SPEED_MAX_SUB = 7,
    TAV_DSP_VERSION_DATE_SUB = 8,
};

enum tavDspMsgType {
    TAV_DSP_K_REFLECTN = 0,
    TAV_DSP_K_CMD_SIZE = 1,
    TAV_DSP_K_LAST_CMD = 2,
    TAV_DSP_K_DRV_STAT = 3,
    TAV_DSP_K_QDRV_STAT = 4,
    TAV_DSP_K_POWER_BD = 5,
    TAV_DSP_K_TEMPRTUR = 6,
    TAV_DSP_K_VOLTG_OK = 7,
    TAV_DSP_K_CHG_POWR = 8,
    TAV_DSP_K_OVR_TEMP = 9,
    TAV_DSP_K_VIBRTION = 10,
    TAV_DSP_K_PC_BUSY = 11,
    TAV_DSP_K_PC_DONE = 12,
    TAV_DSP_K_PC_OFF = 13,
    TAV_DSP_K_PC_HALT = 14,
    TAV_DSP_K_VERSION_DATE = 15,
};

// The driver's requests: the ioctl request numbers are these values.
enum tavDspIoctlType {
    TAV_DSP_CHANGE_DEBUG = 0,
    TAV_DSP_FIRMWARE_VERSION = 1,   // writes an int
    TAV_DSP_INT_FLAG = 2,
    TAV_DSP_SERIAL_FD = 3,
    TAV_DSP_NEXT_MSG = 4,           // fills a tavDspKernelChar: >0 a record, 0 none, <0 failure
    TAV_DSP_DRIVE_BYTE = 5,
    TAV_DSP_DRIVE_VALUES = 6,
    TAV_DSP_DEVICE_CONFIG = 7,      // takes a tavDspDeviceConfig
    TAV_DSP_MAX_IOCTL_CALLS = 8,
};

enum tavDspKeys {
    TAV_DSP_LAST_COMMAND_KEY,
    TAV_DSP_PC_STATUS_KEY,
    TAV_DSP_DRIVE_STATUS_KEY,
    TAV_DSP_FIRMWARE_VER_KEY,
    TAV_DSP_POWER_SUPPLY_KEY,
    TAV_DSP_TEMP_DRIVE_KEY,
    TAV_DSP_VOLT_PWR_SRC_KEY,
    TAV_DSP_RESET_KEY,
    TAV_DSP_CMD_SIZE_CMD_KEY,
    TAV_DSP_SWITCH_POWER_KEY,
    TAV_DSP_SET_TEMP_LMT_KEY,
    TAV_DSP_POWER_SEQ_KEY,
    TAV_DSP_POWER_DOWN_KEY,
    TAV_DSP_ABORT_KEY,
    TAV_DSP_POWER_UP_KEY,
    TAV_DSP_MAX_NUM_KEYS,
};
static_assert(TAV_DSP_MAX_NUM_KEYS == 15);

enum tavDspVoltageType {
    TAV_DSP_VOLTAGE_3_3 = 0,
    TAV_DSP_VOLTAGE_5_0 = 1,
    TAV_DSP_VOLTAGE_5_0_SB = 2,
    TAV_DSP_VOLTAGE_12_0 = 3,
};

// Bytes of a command on the wire, and of a caller's command buffer (the
// three bytes of a command and ten zero bytes).
constexpr int TAV_DSP_CMD_LEN = 10;
constexpr int TAV_DSP_CMD_BUFFER = 13;

// A text of N bytes that one thread writes and others read without a lock:
// every byte is an atomic of its own, so a reader may see a mix of two texts
// (as the values may tear) but never a data race.
template <size_t N>
class TavDspText {
public:
    void store(const char* text, size_t length)
    {
        for (size_t i = 0; i < N; ++i)
            bytes_[i].store(i < length ? text[i] : '\0', std::memory_order_relaxed);
    }
    // Copies the N bytes into out (at least N bytes).
    void load(char* out) const
    {
        for (size_t i = 0; i < N; ++i) out[i] = bytes_[i].load(std::memory_order_relaxed);
    }
    char at(size_t i) const { return i < N ? bytes_[i].load(std::memory_order_relaxed) : '\0'; }

private:
    std::atomic<char> bytes_[N]{};
};

// ---- the list of commands not yet echoed, and the link's state ----

class TavDspMsg {
public:
    TavDspMsg(char* msg, int size);
    ~TavDspMsg();
    TavDspMsg(const TavDspMsg&) = delete;
    TavDspMsg& operator=(const TavDspMsg&) = delete;

    TavDspMsg* next = nullptr;
    char* message = nullptr;   // owned copy with a zero byte behind it
    int length = 0;

    static int addMessage(char* msg, int len);
    static int deleteMessage(TavDspMsg* node);
    static int deleteMessageUnprotected(TavDspMsg* node);
    static int reinitMsgList();
    static int compareMsg(tavDspKernelChar* record);
    static void listOfMessages(TavDspMsg* head);
    static void printMessages();
    static void dspResponseReceived(unsigned int value);
    static int dspResponseReceived();

    // Guarded by dataMutex.
    static TavDspMsg* headOfList;
    static int counter;
    static int dspRespRecd;

    // Written by the reader, read by anyone, without the lock.
    static std::atomic<char> dspVersion;
    static std::atomic<unsigned char> dspTempLimit;
    static std::atomic<float> dspVolt[4];
    static TavDspText<8> dspTmpDrive;
    static TavDspText<80> dspStatusPC;
    static TavDspText<80> dspStatusLC;
    static std::atomic<char> dspPowerSupply;
    static std::atomic<int> dspResetFlag;
    static TavDspText<80> dspVersionDate;
};

// ---- the link ----

int tavDspDriverFd();
int tavDspOpenDriver();
int tavDspInitModData();
unsigned char tavDspDriveByte(unsigned char logical);
int sendMessage(char* msg, int len);
int dspGetDspResponse(char* msg, int len, int seconds);
int dspStartThread(void* (*routine)(void*), void* arg);
int getNumber(char** text);

void* dspKernelReader(void* arg);
void* dspReader(void* arg);
int parseInput(tavDspKernelChar* record);
int tavDspReadDspSerial(tavDspKernelChar* record);

// The drive count the link was opened with (the manager's count).
extern std::atomic<int> tavDspNumDrives;

// ---- value readers ----

// Reads the version from the driver into dspVersion: 0, or -1 when the request fails.
int dspReadFirmwareVersionFromDriver();
// The version character, read from the driver once per process; -1 when that read failed.
int dspStatusFirmVersion();
// The ten bytes of the date version and a zero byte; -1 for a null or short buffer (below 11).
int dspStatusDateVersion(char* out, int length);
unsigned char dspStatusTempLimit();
// A voltage by tavDspVoltageType; 0 for another selector.
float dspStatusVoltage(int which);
// The temperature of a 1-based drive as a signed byte; 0 for a drive beyond the unit.
int dspStatusTempDrive(int drive);
// The drive status text; -1 while the status is not ready, or for a null or empty buffer.
int dspStatusPowerClamp(char* out, int length);
// The last command's text; -1 for a null or empty buffer.
int dspStatusLastCommand(char* out, int length);

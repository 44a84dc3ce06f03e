// The list of commands not yet echoed, the reader's handling of each record,
// and the values the records leave behind.
#include <cstring>
#include <new>
#include <pthread.h>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/dsp/tavdsp_internal.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "platform/platform.h"

// The link has no debug flag of its own: only the global level counts.
#define TAV_DEBUG_FLAG tavGlobalDebugLevel
#include "driveutils/tavlog.h"

TavDspMsg* TavDspMsg::headOfList = nullptr;
int TavDspMsg::counter = 0;
int TavDspMsg::dspRespRecd = 0;
std::atomic<char> TavDspMsg::dspVersion{0};
std::atomic<unsigned char> TavDspMsg::dspTempLimit{0};
std::atomic<float> TavDspMsg::dspVolt[4]{};
TavDspText<8> TavDspMsg::dspTmpDrive;
TavDspText<80> TavDspMsg::dspStatusPC;
TavDspText<80> TavDspMsg::dspStatusLC;
std::atomic<char> TavDspMsg::dspPowerSupply{0};
std::atomic<int> TavDspMsg::dspResetFlag{0};
TavDspText<80> TavDspMsg::dspVersionDate;

namespace tavdsp {

pthread_mutex_t dataMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

int lockData(const char* file, int line)
{
    if (pthread_mutex_lock(&dataMutex) == 0) return 0;
    TAV_LOG(0, "Unable to lock mutex; %s:%d\n", file, line);
    return -1;
}

int unlockData(const char* file, int line)
{
    if (pthread_mutex_unlock(&dataMutex) == 0) return 0;
    TAV_LOG(0, "Unable to unlock mutex; %s:%d\n", file, line);
    return -1;
}

} // namespace tavdsp

using tavdsp::lockData;
using tavdsp::unlockData;

namespace {

constexpr int kBuff = sizeof(tavDspKernelChar::buff);

// The record's payload as a text: never read past buff, whatever it holds.
struct BuffText {
    explicit BuffText(const tavDspKernelChar* record)
    {
        std::memcpy(text, record->buff, kBuff);
        text[kBuff] = '\0';
    }
    char text[kBuff + 1];
};

// Raw voltage bytes of a type 7 record and their factors, by tavDspVoltageType.
struct VoltageByte {
    int offset;
    float factor;
};
constexpr VoltageByte kVoltages[4] = {{2, 0.0196f}, {7, 0.0295f}, {6, 0.0297f}, {3, 0.0591f}};

// Outcome words of a type 2 record, looked for in this order from buff byte 4.
struct Outcome {
    const char* word;
    const char* text;
};
constexpr Outcome kOutcomes[] = {
    {"DONE", "DSP was powered up"}, {"HALT", "DSP was halted"}, {"OFF", "DSP was powered off"}};

int reflected(tavDspKernelChar* record)
{
    if (lockData(TAV_FILE, __LINE__) != 0) return -1;
    TavDspMsg* hit = TavDspMsg::headOfList;
    while (hit && std::memcmp(hit->message, record->buff, TAV_DSP_CMD_LEN) != 0) hit = hit->next;
    if (hit) TavDspMsg::deleteMessageUnprotected(hit);
    unlockData(TAV_FILE, __LINE__);
    if (hit) return 0;
    TAV_LOG(0, "Unable to find msg that was reflected: %s; %s:%d\n", BuffText(record).text, TAV_FILE, __LINE__);
    return -1;
}

void lastCommand(tavDspKernelChar* record)
{
    BuffText payload(record);
    const char* text = "This command is not supported";
    for (const Outcome& o : kOutcomes) {
        if (std::strstr(payload.text + 4, o.word)) {
            text = o.text;
            break;
        }
    }
    std::memset(record->buff, 0, kBuff);
    std::strncpy(record->buff, text, kBuff - 1);
    TavDspMsg::dspStatusLC.store(text, std::strlen(text));
}

int driveStatus(tavDspKernelChar* record)
{
    TavDspMsg::dspPowerSupply.store(record->buff[3], std::memory_order_relaxed);
    char text[80] = {};
    int result = dspGetStatusValue(record, text, sizeof text);
    TavDspMsg::dspStatusPC.store(text, sizeof text);
    TavDspDiskStatus::statusIsReady(1);
    return result;
}

void powerBoard(const tavDspKernelChar* record)
{
    TAV_LOG(10, "Notify client that power has changed: ");
    if (record->buff[3] == 'P')
        TAV_LOG(10, "Primary power used\n");
    else
        TAV_LOG(10, "Secondary power used\n");
}

void temperatures(const tavDspKernelChar* record)
{
    TavDspMsg::dspTmpDrive.store(record->buff + 2, 8);
    TavDspMsg::dspTempLimit.store(static_cast<unsigned char>(record->buff[1]), std::memory_order_relaxed);
}

void voltages(const tavDspKernelChar* record)
{
    for (int i = 0; i < 4; ++i) {
        const VoltageByte& v = kVoltages[i];
        float volts = static_cast<float>(static_cast<unsigned char>(record->buff[v.offset])) * v.factor;
        TavDspMsg::dspVolt[i].store(volts, std::memory_order_relaxed);
    }
}

// Copies a text value into a caller's buffer of `length` bytes, ended by a zero byte.
template <size_t N>
int copyText(const TavDspText<N>& value, char* out, int length)
{
    if (!out || length < 1) return -1;
    char text[N + 1];
    value.load(text);
    text[N] = '\0';
    std::strncpy(out, text, static_cast<size_t>(length) - 1);
    out[length - 1] = '\0';
    return 0;
}

} // namespace

// ---- the list ----

TavDspMsg::TavDspMsg(char* msg, int size) : length(size)
{
    message = new (std::nothrow) char[static_cast<size_t>(size)];
    if (!message) {
        TAV_LOG(0, "Unable to create char array; %s:%d\n", TAV_FILE, __LINE__);
        return;
    }
    std::memcpy(message, msg, static_cast<size_t>(size - 1));
    message[size - 1] = '\0';
}

TavDspMsg::~TavDspMsg() { delete[] message; }

int TavDspMsg::addMessage(char* msg, int len)
{
    if (lockData(TAV_FILE, __LINE__) != 0) return -1;
    int result = 0;
    if (!msg || len < TAV_DSP_CMD_LEN) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        result = -1;
    } else if (msg[0] != TAV_DSP_RESET_CMD) {
        // An allocation failure is logged and still counts as done.
        TavDspMsg* node = new (std::nothrow) TavDspMsg(msg, len + 1);
        if (!node) {
            TAV_LOG(0, "Unable to create TavDspMsg; %s:%d\n", TAV_FILE, __LINE__);
        } else if (!node->message) {
            delete node;
        } else {
            TavDspMsg** tail = &headOfList;
            while (*tail) tail = &(*tail)->next;
            *tail = node;
            ++counter;
        }
    }
    unlockData(TAV_FILE, __LINE__);
    return result;
}

int TavDspMsg::deleteMessage(TavDspMsg* node)
{
    // The lock is taken and deliberately never released: the only caller is
    // the failure path of sendMessage, after which the link stays stopped.
    if (lockData(TAV_FILE, __LINE__) != 0) return -1;
    return deleteMessageUnprotected(node);
}

int TavDspMsg::deleteMessageUnprotected(TavDspMsg* node)
{
    TavDspMsg** link = &headOfList;
    while (*link && *link != node) link = &(*link)->next;
    if (!*link) return 0;
    *link = node->next;
    delete node;
    --counter;
    return 0;
}

int TavDspMsg::reinitMsgList()
{
    if (lockData(TAV_FILE, __LINE__) != 0) return -1;
    while (headOfList) {
        TavDspMsg* node = headOfList;
        headOfList = node->next;
        delete node;
        --counter;
    }
    if (counter != 0) {
        TAV_LOG(0, "Count != 0; resetting\n");
        counter = 0;
    }
    unlockData(TAV_FILE, __LINE__);
    const char text[] = "DSP was reset";
    dspStatusLC.store(text, sizeof text - 1);
    return 0;
}

void TavDspMsg::listOfMessages(TavDspMsg* head)
{
    int n = 0;
    for (TavDspMsg* node = head; node && n < 100; node = node->next) {
        printf("%s:", node->message);
        if (++n % 6 == 0) printf("\n");
    }
    printf("\n\n");
    fflush(stdout);
}

void TavDspMsg::printMessages()
{
    if (lockData(TAV_FILE, __LINE__) != 0) return;
    listOfMessages(headOfList);
    unlockData(TAV_FILE, __LINE__);
}

void TavDspMsg::dspResponseReceived(unsigned int value)
{
    if (lockData(TAV_FILE, __LINE__) != 0) return;
    dspRespRecd = static_cast<int>(value);
    unlockData(TAV_FILE, __LINE__);
}

int TavDspMsg::dspResponseReceived()
{
    if (lockData(TAV_FILE, __LINE__) != 0) return 0;
    int value = dspRespRecd;
    unlockData(TAV_FILE, __LINE__);
    return value;
}

// ---- a record from the reader ----

int TavDspMsg::compareMsg(tavDspKernelChar* record)
{
    if (!record) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    dspVersion.store(static_cast<char>(record->version), std::memory_order_relaxed);
    int result = 0;
    switch (record->type) {
    case TAV_DSP_K_REFLECTN:
        return reflected(record);
    case TAV_DSP_K_LAST_CMD:
        lastCommand(record);
        break;
    case TAV_DSP_K_DRV_STAT:
        result = driveStatus(record);
        break;
    case TAV_DSP_K_QDRV_STAT:
    case TAV_DSP_K_OVR_TEMP:
    case TAV_DSP_K_VIBRTION:
    case TAV_DSP_K_PC_BUSY:
        return 0;
    case TAV_DSP_K_POWER_BD:
        powerBoard(record);
        return 0;
    case TAV_DSP_K_TEMPRTUR:
        temperatures(record);
        break;
    case TAV_DSP_K_VOLTG_OK:
        voltages(record);
        break;
    case TAV_DSP_K_CHG_POWR:
        break;
    case TAV_DSP_K_PC_DONE:
        dspResetFlag.store(0, std::memory_order_relaxed);
        break;
    case TAV_DSP_K_PC_OFF:
        // During a reset the waiter is kept for the PC_DONE that follows.
        if (dspResetFlag.load(std::memory_order_relaxed)) return 0;
        break;
    case TAV_DSP_K_PC_HALT:
        result = -1;
        break;
    case TAV_DSP_K_VERSION_DATE:
        dspVersionDate.store(record->buff, TAV_DSP_CMD_LEN);
        break;
    default:  // TAV_DSP_K_CMD_SIZE included: there is no case for it
        TAV_LOG(0, "Couldn't find message type: %s; %s:%d\n", BuffText(record).text, TAV_FILE, __LINE__);
        return -1;
    }
    dspResponseReceived(1);
    return result;
}

// ---- value readers ----

namespace {

int versionRead = -1;
pthread_once_t versionOnce = PTHREAD_ONCE_INIT;

void readVersionOnce() { versionRead = dspReadFirmwareVersionFromDriver(); }

} // namespace

int dspReadFirmwareVersionFromDriver()
{
    int version = 0;
    if (plat::ioctl(tavDspDriverFd(), TAV_DSP_FIRMWARE_VERSION, &version) < 0) return -1;
    TavDspMsg::dspVersion.store(static_cast<char>(version), std::memory_order_relaxed);
    return 0;
}

int dspStatusFirmVersion()
{
    pthread_once(&versionOnce, readVersionOnce);
    if (versionRead != 0) return -1;
    return static_cast<unsigned char>(TavDspMsg::dspVersion.load(std::memory_order_relaxed));
}

int dspStatusDateVersion(char* out, int length)
{
    if (!out || length < TAV_DSP_CMD_LEN + 1) return -1;
    char date[80];
    TavDspMsg::dspVersionDate.load(date);
    std::memcpy(out, date, TAV_DSP_CMD_LEN);
    out[TAV_DSP_CMD_LEN] = '\0';
    return 0;
}

unsigned char dspStatusTempLimit() { return TavDspMsg::dspTempLimit.load(std::memory_order_relaxed); }

float dspStatusVoltage(int which)
{
    if (which < TAV_DSP_VOLTAGE_3_3 || which > TAV_DSP_VOLTAGE_12_0) return 0.0f;
    return TavDspMsg::dspVolt[which].load(std::memory_order_relaxed);
}

int dspStatusTempDrive(int drive)
{
    // The DSP reports its temperatures in an order of its own.
    int index;
    if (tavDspNumDrives.load(std::memory_order_relaxed) == 8) {
        if (drive == 7 || drive == 8) drive = 15 - drive;
        index = drive > 4 ? drive - 5 : drive + 3;
    } else {
        if (drive > 4) return 0;
        if (drive == 3 || drive == 4) drive = 7 - drive;
        index = drive - 1;
    }
    if (drive < 1 || index < 0 || index > 7) return 0;
    return static_cast<int8_t>(TavDspMsg::dspTmpDrive.at(static_cast<size_t>(index)));
}

int dspStatusPowerClamp(char* out, int length)
{
    if (!TavDspDiskStatus::statusIsReady()) return -1;
    return copyText(TavDspMsg::dspStatusPC, out, length);
}

int dspStatusLastCommand(char* out, int length) { return copyText(TavDspMsg::dspStatusLC, out, length); }

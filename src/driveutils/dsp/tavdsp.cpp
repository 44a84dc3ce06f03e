// The link to the chassis controller's driver: opening and configuring it,
// sending commands, waiting for their answers, and the two reader threads.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>

#include "driveutils/dsp/dspcommands.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/dsp/tavdsp_internal.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/updatemount.h"
#include "platform/platform.h"
#include "platform/tavio.h"

// The link has no debug flag of its own: only the global level counts.
#define TAV_DEBUG_FLAG tavGlobalDebugLevel
#include "driveutils/tavlog.h"

std::atomic<int> tavDspNumDrives{0};

namespace {

const char* const kDriverPath = "/dev/tav_dsp_1";
const char* const kSerialDevice = "/dev/ttyS1";

std::atomic<int> dspFd{-1};
pthread_t threadReader;
pthread_t kernelThread;
pthread_t powerDownThread;
const int timeoutSeconds = 1;  // the reader's poll
const int retries = 5;

// Wire bit of each logical drive bit, by unit.
constexpr unsigned char kWire8[8] = {0x10, 0x40, 0x80, 0x20, 0x01, 0x04, 0x08, 0x02};
constexpr unsigned char kWire4[4] = {0x01, 0x04, 0x08, 0x02};

// The driver's wiring of the status nibbles, by unit.
constexpr unsigned char kMasks8[8] = {15, 240, 15, 240, 15, 240, 15, 240};
constexpr unsigned char kBytes8[8] = {2, 2, 3, 3, 0, 0, 1, 1};
constexpr unsigned char kMasks4[4] = {15, 240, 15, 240};
constexpr unsigned char kBytes4[4] = {0, 0, 1, 1};

// A detached thread: the link's threads never end and nothing joins the
// threads of drives going down.
int startThread(void* (*routine)(void*), void* arg, pthread_t& id)
{
    if (!routine) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int rc = pthread_create(&id, &attr, routine, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        TAV_LOG(0, "Unable to create thread\n");
        return -1;
    }
    return 0;
}

void notifyChange(int8_t change)
{
    TAV_LOG(10, "Notify clients of status change in drives ");
    for (int bit = 0; bit < 8; ++bit)
        if (change & (1 << bit)) TAV_LOG(10, "%d ", bit + 1);
    TAV_LOG(10, "\n");
}

void startPowerDowns(uint8_t pwrDwn)
{
    int count = tavDspNumDrives.load(std::memory_order_relaxed);
    for (int bit = 0; bit < 8; ++bit) {
        if (!(pwrDwn & (1 << bit))) continue;
        int drive = bit + 1;
        // The manager would end the process for a drive it does not have.
        if (drive > count) {
            TAV_LOG(0, "DSP: drive %d beyond the unit's %d drives cannot go down; ignored\n", drive, count);
            continue;
        }
        TAV_LOG(10, "Drive %d is going down\n", drive);
        int* arg = new int(drive);
        if (startThread(runPowerDown, arg, powerDownThread) != 0) delete arg;
    }
}

} // namespace

int tavDspDriverFd() { return dspFd.load(std::memory_order_relaxed); }

unsigned char tavDspDriveByte(unsigned char logical)
{
    bool eight = tavDspNumDrives.load(std::memory_order_relaxed) == 8;
    const unsigned char* wire = eight ? kWire8 : kWire4;
    int bits = eight ? 8 : 4;
    unsigned char out = 0;
    for (int bit = 0; bit < bits; ++bit)
        if (logical & (1 << bit)) out |= wire[bit];
    return out;
}

int tavDspOpenDriver()
{
    int fd = plat::open(kDriverPath, O_RDWR);
    if (fd < 0) {
        TAV_LOG(0, "Unable to open DSP driver\n");
        return -1;
    }
    int drives = TavDriveMgr::getNDrives();
    tavDspNumDrives.store(drives, std::memory_order_relaxed);

    // Eight drives, or any other count as a four-drive unit.
    tavDspDeviceConfig config;
    std::memset(&config, 0, sizeof config);
    bool eight = drives == 8;
    config.numDrives = eight ? 8 : 4;
    std::memcpy(config.driveMasks, eight ? kMasks8 : kMasks4, eight ? 8 : 4);
    std::memcpy(config.driveBytes, eight ? kBytes8 : kBytes4, eight ? 8 : 4);
    std::strncpy(config.serialDeviceName, kSerialDevice, sizeof config.serialDeviceName - 1);
    if (plat::ioctl(fd, TAV_DSP_DEVICE_CONFIG, &config) < 0) {
        TAV_LOG(0, "%s:%d Unable to configure DSP driver\n", TAV_FILE, __LINE__);
        // An unconfigured driver reports no drive: the link is not up.
        plat::close(fd);
        return -1;
    }
    dspFd.store(fd, std::memory_order_relaxed);
    return 0;
}

int tavDspInitModData()
{
    int result = 0;
    if (tavDspOpenDriver() != 0) {
        TAV_LOG(0, "ERROR:  DSP: Unable to open dsp driver\n");
        result = -1;
    }
    if (startThread(dspKernelReader, nullptr, kernelThread) != 0) {
        TAV_LOG(0, "ERROR:  DSP: Unable to start kernel reader thread\n");
        result = -1;
    }
    if (startThread(dspReader, nullptr, threadReader) != 0) {
        TAV_LOG(0, "ERROR:  DSP: Unable to start dsp thread\n");
        result = -1;
    }
    if (std::getenv("TAV_DSP_DEBUG")) TAV_LOG(0, "DEBUG:  DSP: Module initialized\n");
    return result;
}

int dspStartThread(void* (*routine)(void*), void* arg)
{
    pthread_t id;
    return startThread(routine, arg, id);
}

void* dspKernelReader(void*)
{
    int fd = tavDspDriverFd();
    if (fd < 0) {
        TAV_LOG(10, "Unable to start kernel reader\n");
        return nullptr;
    }
    // The read drives the driver's receive side; what it reads is not used.
    char buffer[1024];
    for (;;) {
        ssize_t got = tav_read(fd, buffer, sizeof buffer);
        TAV_LOG(10, "DSP Kernel read call returned: %d\n", static_cast<int>(got));
    }
}

void* dspReader(void*)
{
    if (TavDspDiskStatus::initDriveStatus() != 0) {
        TAV_LOG(0, "DSP:  Unable to initialize the drive status; %s:%d\n", TAV_FILE, __LINE__);
        return nullptr;
    }
    for (;;) {
        tavDspKernelChar record;
        int result = tavDspReadDspSerial(&record);
        if (result == 0) {
            TAV_LOG(10, "Socket closed on other end; %s:%d\n", TAV_FILE, __LINE__);
        } else if (result < 0) {
            TAV_LOG(10, "Unable to read socket; %s:%d\n", TAV_FILE, __LINE__);
        } else if (parseInput(&record) != 0) {
            TAV_LOG(0, "ERROR:  DSP:  Error in parseInput; %s:%d\n", TAV_FILE, __LINE__);
        }
    }
}

int parseInput(tavDspKernelChar* record)
{
    if (!record) {
        TAV_LOG(10, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    if (TavDspMsg::compareMsg(record) != 0) TAV_LOG(0, "DEBUG:  DSP:  Compare message was not successful\n");
    return 0;
}

int tavDspReadDspSerial(tavDspKernelChar* record)
{
    int fd = tavDspDriverFd();
    if (!record || fd < 0) return -1;
    for (;;) {
        std::memset(record, 0, sizeof *record);
        int result = plat::ioctl(fd, TAV_DSP_NEXT_MSG, record);
        if (result == 0) {
            plat::sleep(timeoutSeconds);
            continue;
        }
        if (result < 0) {
            TAV_LOG(10, "Error reading serial port; %s:%d\n", TAV_FILE, __LINE__);
            return result;
        }
        TavDspDiskStatus::compareDriveStatus(record);
        // Tested as a signed byte: a change of drive 8 alone passes unseen. Kept.
        if (record->change > 0) notifyChange(record->change);
        startPowerDowns(static_cast<uint8_t>(record->pwrDwn));
        return result;
    }
}

int sendMessage(char* msg, int len)
{
    if (!msg || len < TAV_DSP_CMD_LEN) {
        TAV_LOG(0, "Invalid parameter\n");
        return -1;
    }
    char work[16] = {};
    std::memcpy(work, msg, TAV_DSP_CMD_LEN);
    int fd = tavDspDriverFd();
    if (fd < 0) {
        TAV_LOG(0, "File descriptor %d is not valid\n", fd);
        return -1;
    }
    if (TavDspMsg::addMessage(work, TAV_DSP_CMD_LEN) != 0) {
        TAV_LOG(0, "Unable to add message; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    ssize_t sent = tav_write(fd, work, TAV_DSP_CMD_LEN);
    if (sent != TAV_DSP_CMD_LEN) {
        TAV_LOG(0, "Unable to send all of the bytes: %d %d; %s:%d\n", static_cast<int>(sent), TAV_DSP_CMD_LEN,
                TAV_FILE, __LINE__);
        // Deliberate: the entry stays listed (its node is not known here, so
        // nothing is found to delete) and deleteMessage keeps dataMutex held,
        // which stops the link from then on.
        TavDspMsg::deleteMessage(nullptr);
        return -1;
    }
    if (work[0] == TAV_DSP_RESET_CMD && TavDspMsg::reinitMsgList() != 0)
        TAV_LOG(0, "Unable to reinit; %s:%d\n", TAV_FILE, __LINE__);
    return 0;
}

int dspGetDspResponse(char* msg, int len, int seconds)
{
    TavDspMsg::dspResponseReceived(0);
    if (sendMessage(msg, len) != 0) {
        TAV_LOG(0, "Unable to send message; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    // The flag is looked at only when a whole wait has passed; a wait cut
    // short by a signal is not a round.
    for (int round = 0; round < retries;) {
        struct timeval wait{seconds, 0};
        if (plat::waitTimeout(&wait) < 0) {
            if (errno == EINTR) continue;
            TAV_LOG(0, "Unable to select: %s:%d\n", TAV_FILE, __LINE__);
        }
        ++round;
        if (TavDspMsg::dspResponseReceived()) return 0;
    }
    return -1;
}

int getNumber(char** text)
{
    if (!text || !*text) return -1;
    char* p = *text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    const char* digits = p + (*p == '+' || *p == '-');
    if (!std::isdigit(static_cast<unsigned char>(*digits))) return -1;
    int32_t value = tavStrtol32(p);
    while (*p && !std::isspace(static_cast<unsigned char>(*p))) ++p;
    *text = p;
    return value;
}

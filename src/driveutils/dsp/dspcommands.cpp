#include "driveutils/dsp/dspcommands.h"

#include <cctype>
#include <cstdarg>
#include <cstring>

#include "driveutils/dsp/dspcommon.h"
#include "driveutils/dsp/tavdspdiskstatus.h"

static int giDebug_dspcommands = 0;
#define TAV_DEBUG_FLAG giDebug_dspcommands
#include "driveutils/tavlog.h"

int getDrives(char*& text, int plain)
{
    if (!text) return -1;
    char* p = text;
    while (*p && std::isspace(static_cast<unsigned char>(*p))) ++p;
    if (!std::isdigit(static_cast<unsigned char>(*p))) return -1;
    int mask = 0;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        int drive = *p - '0';
        if (drive >= 1 && drive <= 8) mask |= 1 << (drive - 1);
    }
    text = p;
    return plain ? mask : ~mask & 0xff;
}

int dspVoltageSelector(const char* text)
{
    if (!text) return -1;
    // "5.0SB" before "5.0", which it contains.
    static const struct {
        const char* name;
        int which;
    } kSelectors[] = {
        {"3.3", TAV_DSP_VOLTAGE_3_3},
        {"5.0SB", TAV_DSP_VOLTAGE_5_0_SB},
        {"5.0", TAV_DSP_VOLTAGE_5_0},
        {"12.0", TAV_DSP_VOLTAGE_12_0},
    };
    for (const auto& s : kSelectors)
        if (std::strstr(text, s.name)) return s.which;
    return -1;
}

int dspGetDspStatus(char* msg, int length, int seconds, int kind)
{
    // The status request is laid over the message's first 13 bytes.
    if (!msg || seconds < 1 || length < TAV_DSP_CMD_BUFFER) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    TavDspDiskStatus::statusIsReady(0);
    if (dspGetDspResponse(msg, length, seconds) != 0) {
        TAV_LOG(0, "Unable to get response from command\n");
        return -1;
    }
    std::memset(msg, 0, TAV_DSP_CMD_BUFFER);
    msg[0] = TAV_DSP_STATUS_CMD;
    msg[1] = TAV_DSP_POWER_CLAMP_SUB;
    if (dspGetDspResponse(msg, length, 1) != 0) {
        TAV_LOG(0, "Unable to get response from status request\n");
        return -1;
    }
    switch (kind) {
    case 0:
        if (dspStatusLastCommand(msg, length) < 0) {
            TAV_LOG(0, "Unable to get last command status\n");
            return -1;
        }
        return 0;
    case 1:
        if (dspStatusPowerClamp(msg, length) < 0) {
            TAV_LOG(0, "Unable to get power-clamp status\n");
            return -1;
        }
        return 0;
    default:
        TAV_LOG(0, "Unable to determine this type of response\n");
        return -1;
    }
}

int dspGetStatusValue(tavDspKernelChar* record, char* text, int length)
{
    if (!record || !text || length < 1) {
        TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
        return -1;
    }
    TavDspDiskStatus::compareDriveStatus(record);
    std::memset(text, 0, static_cast<size_t>(length));
    int used = 0;
    for (int d = 0; d < dspcmd::unitDrives() && length - used >= 3; ++d) {
        text[used++] = TavDspDiskStatus::hasPower(d) ? 'P' : 'O';
        text[used++] = !TavDspDiskStatus::criticalClosed(d) ? '2' : TavDspDiskStatus::warningClosed(d) ? 'C' : '1';
    }
    return 0;
}

namespace dspcmd {

int unitDrives() { return tavDspNumDrives.load(std::memory_order_relaxed) == 8 ? 8 : 4; }

unsigned char wireMask(int logical)
{
    unsigned char wire = 0;
    for (int bit = 0; bit < 8; ++bit)
        if (logical & (1 << bit)) wire |= tavDspDriveByte(static_cast<unsigned char>(1 << bit));
    return wire;
}

bool validBuffer(char* buffer, int length)
{
    if (buffer && length >= TAV_DSP_MIN_BUFFER) return true;
    TAV_LOG(0, "Invalid parameter; %s:%d\n", TAV_FILE, __LINE__);
    if (buffer && length > 0) reply(buffer, length, -1, "Invalid parameter");
    return false;
}

std::string argumentText(const char* buffer, int length)
{
    return std::string(buffer, strnlen(buffer, static_cast<size_t>(length)));
}

int reply(char* buffer, int length, int result, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, static_cast<size_t>(length), format, args);
    va_end(args);
    return result;
}

namespace {

void lay(char* buffer, Command command)
{
    std::memset(buffer, 0, TAV_DSP_CMD_BUFFER);
    buffer[0] = static_cast<char>(command.code);
    buffer[1] = static_cast<char>(command.arg1);
    buffer[2] = static_cast<char>(command.arg2);
}

} // namespace

bool send(char* buffer, int length, Command command)
{
    lay(buffer, command);
    return sendMessage(buffer, length) == 0;
}

bool ask(char* buffer, int length, Command command, int seconds)
{
    lay(buffer, command);
    return dspGetDspResponse(buffer, length, seconds) == 0;
}

bool askStatus(char* buffer, int length, Command command, int seconds)
{
    lay(buffer, command);
    return dspGetDspStatus(buffer, length, seconds, 1) == 0;
}

int powerCommand(char* buffer, int length, tavDspCommand code, int plain, int seconds)
{
    if (!validBuffer(buffer, length)) return -1;
    std::string args = argumentText(buffer, length);
    char* text = args.data();
    int power = getDrives(text, plain);
    int clamp = power < 0 ? -1 : getDrives(text, plain);
    if (power < 0 || clamp < 0) {
        TAV_LOG(0, "Unable to get drives for power/clamp; %s:%d\n", TAV_FILE, __LINE__);
        return reply(buffer, length, -1, "Invalid argument for drives");
    }
    // A link that never opened its driver cannot carry the command.
    if (tavDspDriverFd() < 0) {
        TAV_LOG(0, "Unable to communicate w/ DSP driver; %s:%d\n", TAV_FILE, __LINE__);
        return reply(buffer, length, -1, "Unable to communicate w/ DSP driver");
    }
    if (!askStatus(buffer, length, {static_cast<unsigned char>(code), wireMask(power), wireMask(clamp)}, seconds)) {
        TAV_LOG(0, "Unable to get status; %s:%d\n", TAV_FILE, __LINE__);
        return reply(buffer, length, -1, "Unable to get status");
    }
    return 0;
}

} // namespace dspcmd

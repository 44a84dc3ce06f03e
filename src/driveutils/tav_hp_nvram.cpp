#include "driveutils/tav_hp_nvram.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hwlib/tavhwid.h"
#include "platform/platform.h"

static int giDebug_hpnvram = 0;
#define TAV_DEBUG_FLAG giDebug_hpnvram
#include "driveutils/tavlog.h"

namespace RaidDeviceMgmt {

namespace {

constexpr int kHPModel = 10;
constexpr const char* kControllerTool = "/usr/sbin/hpacucli";
constexpr const char* kCacheError = "A cache error was detected. Run Array Diagnostic Utity";  // spelled so

} // namespace

TavHPNVRam::TavHPNVRam(int number)
    : TavNVRam(number, ""),
      driverVersion("N/A"),
      hwVersion("unknown"),
      fwVersion("unknown"),
      memorySize("unknown"),
      serialNo("N/A"),
      batteryVoltage(0),
      model("N/A"),
      validity("true"),
      statNVRAM(unavailable)
{
    nvRamCardType = NVRAM_CARD_HP;
}

TavHPNVRam::~TavHPNVRam() = default;

int TavHPNVRam::getControllerPramAPI(const char* label, char* value)
{
    if (hwid_getModelId(nullptr) != kHPModel || !label || !value) return -1;

    const char* format = "%s ctrl slot=0 show | grep \"%s\"";
    int length = std::snprintf(nullptr, 0, format, kControllerTool, label);
    if (length < 0) return -1;
    std::vector<char> command(static_cast<size_t>(length) + 1);
    std::snprintf(command.data(), command.size(), format, kControllerTool, label);

    FILE* pipe = plat::popen(command.data(), "r");
    if (!pipe) return -1;
    // The first line, however long: its first ":" may lie anywhere.
    std::string line;
    for (int c; (c = std::fgetc(pipe)) != EOF && c != '\n';) line += static_cast<char>(c);
    plat::pclose(pipe);

    // An empty answer, or a line without a label, gives nothing.
    size_t colon = line.find(':');
    if (colon == std::string::npos) return -1;
    // Two characters behind the colon skip ": ", never past the line's end.
    size_t start = std::min(colon + 2, line.size());
    size_t n = 0;
    while (n < static_cast<size_t>(kValueSize) && start + n < line.size() && line[start + n] != '\0') ++n;
    std::memcpy(value, line.data() + start, n);
    value[n] = '\0';
    return 0;
}

int TavHPNVRam::getSerialNumberAPI(char* value) { return getControllerPramAPI("Cache serialnumber", value); }

int TavHPNVRam::getCacheStatusAPI(char* value) { return getControllerPramAPI("Cache Status", value); }

int TavHPNVRam::getHWVersionAPI(char* value) { return getControllerPramAPI("Hardware Revision", value); }

int TavHPNVRam::getFWVersionAPI(char* value) { return getControllerPramAPI("Firmware Version", value); }

int TavHPNVRam::getMemorySizeAPI(char* value) { return getControllerPramAPI("Total Cache Size", value); }

int TavHPNVRam::getDriverVersion(std::string& text)
{
    text = driverVersion;
    return 0;
}

int TavHPNVRam::refreshOrKeep(int (TavHPNVRam::*api)(char*), std::string& stored, std::string& text)
{
    char value[kValueSize + 1];
    if ((this->*api)(value) == 0) stored = value;
    text = stored;
    return 0;
}

int TavHPNVRam::getHWVersion(std::string& text) { return refreshOrKeep(&TavHPNVRam::getHWVersionAPI, hwVersion, text); }

int TavHPNVRam::getFWVersion(std::string& text) { return refreshOrKeep(&TavHPNVRam::getFWVersionAPI, fwVersion, text); }

int TavHPNVRam::getMemorySize(std::string& text)
{
    char value[kValueSize + 1];
    int size = 0;
    if (getMemorySizeAPI(value) == 0 && std::sscanf(value, "%d", &size) == 1) {
        // The shift of the appliance's 32-bit int, wrapping as it did.
        int32_t kib = static_cast<int32_t>(static_cast<uint32_t>(size) << 10);
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "%d", kib);
        memorySize = buffer;
    }
    text = memorySize;
    return 0;
}

// The controller's serial number is no number: the text is the stored one,
// and the number is given only when the text is a decimal number.
int TavHPNVRam::getSerialNo(unsigned int* serial, std::string& text)
{
    text = serialNo;
    if (serial) {
        char* end = nullptr;
        unsigned long n = std::strtoul(serialNo.c_str(), &end, 10);
        *serial = !serialNo.empty() && end && *end == '\0' ? static_cast<unsigned int>(n) : 0;
    }
    return 0;
}

int TavHPNVRam::getSerialNoString(std::string& text)
{
    return refreshOrKeep(&TavHPNVRam::getSerialNumberAPI, serialNo, text);
}

int TavHPNVRam::getBatteryVoltage(float& volts, std::string& text)
{
    volts = batteryVoltage;
    text = "N/A";
    return 1;
}

int TavHPNVRam::getModel(std::string& text)
{
    text = model;
    return 0;
}

int TavHPNVRam::getValidity(std::string& text)
{
    text = validity;
    return 0;
}

TavNVRam::NVRamStatus TavHPNVRam::getState()
{
    char value[kValueSize + 1];
    if (getCacheStatusAPI(value) != 0) {
        statNVRAM = unavailable;
        return statNVRAM;
    }
    statNVRAM = normal;
    if (getControllerPramAPI("Controller Messages", value) == 0) {
        TAV_LOG(TAV_LOG_L10, "### value:%s", value);
        if (std::strstr(value, kCacheError)) statNVRAM = corrupt;
    }
    return statNVRAM;
}

} // namespace RaidDeviceMgmt

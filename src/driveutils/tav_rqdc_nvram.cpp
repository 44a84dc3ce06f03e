#include "driveutils/tav_rqdc_nvram.h"

#include <cstdio>
#include <new>

#include "driveutils/tavdrivemgr.h"
#include "tavutils/tav_error.h"

static int giDebug_rqdcnvram = 0;
#define TAV_DEBUG_FLAG giDebug_rqdcnvram
#include "driveutils/tavlog.h"

namespace RaidDeviceMgmt {

namespace {

constexpr const char* kDevicePrefix = "/dev/tav_nvram";
constexpr const char* kSupport = " Call customer support for assistance.";

std::string deviceName(int devnum)
{
    char name[64];
    std::snprintf(name, sizeof name, "%s%d", kDevicePrefix, devnum);
    return name;
}

} // namespace

TavRqdcNVRam::TavRqdcNVRam(int number) : TavNVRam(number, deviceName(number).c_str())
{
    nvRamCardType = NVRAM_CARD_RQDC;
}

TavRqdcNVRam::~TavRqdcNVRam() = default;

std::unique_ptr<nvram_status_t> TavRqdcNVRam::readStatus(std::string device, std::string& error)
{
    nvram_t handle = nullptr;
    nvram_error_t rc = nvram_open(device.c_str(), NVRAM_MODE_MONITOR_ONLY, &handle, nvram_logger);
    if (rc != NVRAM_SUCCESS) {
        // A card in a 33 MHz slot (or a driver that does not answer) is
        // refused after the handle was made: close it, or a query repeated
        // every minute would leak a descriptor and a mapping each time. The
        // library leaves no handle set on the other failures.
        if (handle) nvram_close(handle);
        TAV_LOG(TAV_LOG_ALWAYS, "RQDC card %s cannot be opened %s:%d\n", device.c_str(), TAV_FILE, __LINE__);
        error = "RQDC card " + device + " cannot be opened." + kSupport;
        return nullptr;
    }

    std::unique_ptr<nvram_status_t> status;
    try {
        status.reset(new nvram_status_t{});
    } catch (const std::bad_alloc&) {
        nvram_close(handle);
        throw tav_enomem("new failed");
    }
    rc = nvram_get_status(handle, status.get(), 0);
    // The handle is closed on this path too, for the same reason as above.
    nvram_close(handle);
    if (rc != NVRAM_SUCCESS) {
        TAV_LOG(TAV_LOG_ALWAYS, "RQDC card %s isn't working %s:%d\n", device.c_str(), TAV_FILE, __LINE__);
        error = "RQDC card " + device + " is not working." + kSupport;
        return nullptr;
    }
    return status;
}

std::string TavRqdcNVRam::getVersionString(uint32_t version)
{
    char text[32];
    std::snprintf(text, sizeof text, "%d.%d", static_cast<int>(version >> 16), static_cast<int>(version & 0xffff));
    return text;
}

int TavRqdcNVRam::versionOf(uint32_t nvram_status_t::*field, std::string& text)
{
    std::unique_ptr<nvram_status_t> status = readStatus(file, text);
    if (!status) return -1;
    text = getVersionString((*status).*field);
    return 0;
}

int TavRqdcNVRam::getDriverVersion(std::string& text) { return versionOf(&nvram_status_t::driver_version, text); }

int TavRqdcNVRam::getHWVersion(std::string& text) { return versionOf(&nvram_status_t::card_version, text); }

int TavRqdcNVRam::getFWVersion(std::string& text) { return versionOf(&nvram_status_t::firmware_version, text); }

int TavRqdcNVRam::getMemorySize(std::string& text)
{
    std::unique_ptr<nvram_status_t> status = readStatus(file, text);
    if (!status) return -1;
    // In double: the product of two 32-bit words would wrap at 4 GiB.
    double kib = static_cast<double>(status->sdram_page_size) * status->sdram_pages / 1024;
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%0.1f", kib);
    text = buffer;
    return 0;
}

int TavRqdcNVRam::getSerialNo(unsigned int* serial, std::string& error)
{
    std::unique_ptr<nvram_status_t> status = readStatus(file, error);
    if (!status) return -1;
    if (serial) *serial = status->card_serial_number;
    return 0;
}

int TavRqdcNVRam::getSerialNoString(std::string& text)
{
    unsigned int serial = 0;
    if (getSerialNo(&serial, text) != 0) return -1;
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%u", serial);
    text = buffer;
    return 0;
}

int TavRqdcNVRam::getBatteryVoltage(float& volts, std::string& error)
{
    std::unique_ptr<nvram_status_t> status = readStatus(file, error);
    if (!status) return -1;
    volts = status->battery_volts;
    return 0;
}

int TavRqdcNVRam::getModel(std::string& text)
{
    text = "Marrowby Networks RQDC Card";
    return 0;
}

int TavRqdcNVRam::getValidity(std::string& text)
{
    std::unique_ptr<nvram_status_t> status = readStatus(file, text);
    if (!status) return -1;
    text = str_validity(status->validity);
    return 0;
}

TavNVRam::NVRamStatus TavRqdcNVRam::getState()
{
    std::string error;
    std::unique_ptr<nvram_status_t> status = readStatus(file, error);
    if (!status) return unknown;
    return TavDriveMgr::NVRamIsRequired(status->card_serial_number) ? normal : foreign;
}

} // namespace RaidDeviceMgmt

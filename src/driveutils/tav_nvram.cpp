#include "driveutils/tav_nvram.h"

#include <cstdio>

namespace RaidDeviceMgmt {

int TavNVRam::nvRamCardType = TavNVRam::NVRAM_CARD_NONE;

TavNVRam::TavNVRam(int number, const char* name) : TavDevice(name), devnum(number) {}

TavNVRam::~TavNVRam() = default;

int TavNVRam::getStateString(std::string& text)
{
    switch (getState()) {
    case foreign: text = "foreign"; break;
    case normal: text = "normal"; break;
    case corrupt: text = "corrupt"; break;
    case unavailable: text = "unavailable"; break;
    default: text = "unknown"; break;
    }
    return 0;
}

int TavNVRam::getBatteryVoltage(std::string& text, std::string& error)
{
    float volts = 0;
    int rc = getBatteryVoltage(volts, error);
    if (rc != 0) {
        text = "N/A";
        return rc;
    }
    char buffer[64];  // the widest float prints 39 digits before the point
    std::snprintf(buffer, sizeof buffer, "%2.2f Volts", static_cast<double>(volts));
    text = buffer;
    return 0;
}

int TavNVRam::getBBUCapacityTestOverdueString(std::string& text)
{
    switch (getBBUCapacityTestOverdue()) {
    case up_to_date: text = "up_to_date"; break;
    case overdue: text = "overdue"; break;
    default: text = "unsupported"; break;
    }
    return 0;
}

TavNVRam::BBUCapacityTestOverdue TavNVRam::getBBUCapacityTestOverdue() { return unsupported; }

void TavNVRam::setNVRamState(NVRamStatus) {}

} // namespace RaidDeviceMgmt

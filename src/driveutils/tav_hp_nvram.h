// The cache of the HP array controller in slot 0, read from the controller
// tool's text. Values that cannot be read keep their display defaults.
#pragma once

#include <string>

#include "driveutils/tav_nvram.h"

namespace RaidDeviceMgmt {

class TavHPNVRam : public TavNVRam {
public:
    // The longest value taken from a line; value buffers hold one more byte.
    static constexpr int kValueSize = 128;

    explicit TavHPNVRam(int devnum);
    ~TavHPNVRam() override;

    // The value of the controller's line holding `label` into `value`, which
    // holds kValueSize + 1 bytes; 0, or -1 on a model other than 10, a null
    // argument or no answer.
    int getControllerPramAPI(const char* label, char* value);
    int getSerialNumberAPI(char* value);
    int getCacheStatusAPI(char* value);
    int getHWVersionAPI(char* value);
    int getFWVersionAPI(char* value);
    int getMemorySizeAPI(char* value);

    using TavNVRam::getBatteryVoltage;

    int getDriverVersion(std::string& text) override;
    int getHWVersion(std::string& text) override;
    int getFWVersion(std::string& text) override;
    int getMemorySize(std::string& text) override;
    int getSerialNo(unsigned int* serial, std::string& text) override;
    int getSerialNoString(std::string& text) override;
    int getBatteryVoltage(float& volts, std::string& text) override;
    int getModel(std::string& text) override;
    int getValidity(std::string& text) override;
    NVRamStatus getState() override;

private:
    // The wrapper's value when it answers, else the stored one, in `text`.
    int refreshOrKeep(int (TavHPNVRam::*api)(char*), std::string& stored, std::string& text);

    std::string driverVersion;
    std::string hwVersion;
    std::string fwVersion;
    std::string memorySize;
    std::string serialNo;
    float batteryVoltage;
    std::string model;
    std::string validity;
    NVRamStatus statNVRAM;
};

} // namespace RaidDeviceMgmt

// The unit's own NVRAM card, read through the card's library at every call:
// it keeps nothing of its own.
#pragma once

#include <memory>
#include <string>

#include "driveutils/tav_nvram.h"
#include "nvram/nvram_api.h"

namespace RaidDeviceMgmt {

class TavRqdcNVRam : public TavNVRam {
public:
    // The card "/dev/tav_nvramN".
    explicit TavRqdcNVRam(int devnum);
    ~TavRqdcNVRam() override;

    // The card's status, or null with the operator's sentences in `error`.
    std::unique_ptr<nvram_status_t> readStatus(std::string device, std::string& error);

    using TavNVRam::getBatteryVoltage;

    // Each query reads the card; on failure its string holds the sentences.
    int getDriverVersion(std::string& text) override;
    int getHWVersion(std::string& text) override;
    int getFWVersion(std::string& text) override;
    int getMemorySize(std::string& text) override;
    int getSerialNo(unsigned int* serial, std::string& error) override;
    int getSerialNoString(std::string& text) override;
    int getBatteryVoltage(float& volts, std::string& error) override;
    int getModel(std::string& text) override;
    int getValidity(std::string& text) override;
    NVRamStatus getState() override;

private:
    // "%d.%d" of the top and the low 16 bits.
    static std::string getVersionString(uint32_t version);
    // One of the version words of the status, as text.
    int versionOf(uint32_t nvram_status_t::*field, std::string& text);
};

} // namespace RaidDeviceMgmt

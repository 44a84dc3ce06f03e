// The one face of a unit's protected write cache, whatever holds it: the RQDC
// card or the cache of a RAID controller. Each family fills the version
// texts, memory size, serial number, battery, model, validity and state from
// its own source.
#pragma once

#include <string>

#include "driveutils/tavdrive.h"

namespace RaidDeviceMgmt {

class TavNVRam : public TavDevice {
public:
    enum cardType {
        NVRAM_CARD_NONE = 0,
        NVRAM_CARD_RQDC = 1,
        NVRAM_CARD_LSI = 2,
        NVRAM_CARD_3WARE = 3,
        NVRAM_CARD_HP = 4,
    };

    enum NVRamStatus {
        unknown = 0,
        foreign = 1,
        normal = 2,
        corrupt = 3,
        unavailable = 4,
    };

    enum BBUCapacityTestOverdue {
        up_to_date = 0,
        overdue = 1,
        unsupported = 2,
    };

    TavNVRam(int devnum, const char* file);
    ~TavNVRam() override;

    // The kind of the card constructed last.
    static int getNVRamCardType() { return nvRamCardType; }

    // The getters' strings are outputs; 0 on success, non-zero on failure.
    // The order of the virtual operations is the family's interface.
    virtual int getStateString(std::string& text);
    virtual int getDriverVersion(std::string& text) = 0;
    virtual int getHWVersion(std::string& text) = 0;
    virtual int getFWVersion(std::string& text) = 0;
    virtual int getMemorySize(std::string& text) = 0;
    virtual int getSerialNo(unsigned int* serial, std::string& text) = 0;
    virtual int getSerialNoString(std::string& text) = 0;
    virtual int getBatteryVoltage(float& volts, std::string& text) = 0;
    // "%2.2f Volts" from the float form, "N/A" when that fails; its result.
    virtual int getBatteryVoltage(std::string& text, std::string& error);
    virtual int getModel(std::string& text) = 0;
    virtual int getValidity(std::string& text) = 0;
    virtual NVRamStatus getState() = 0;
    virtual int getBBUCapacityTestOverdueString(std::string& text);
    virtual BBUCapacityTestOverdue getBBUCapacityTestOverdue();
    virtual void setNVRamState(NVRamStatus state);

    int devnum;

protected:
    // Written by each family's constructor: the last card constructed sets it.
    static int nvRamCardType;
};

} // namespace RaidDeviceMgmt

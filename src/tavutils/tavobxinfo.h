// The unit's identity, filled on first use and kept for the process: serial
// number, model name and number, and the partner's serial number.
#pragma once

class TavObxInfo {
public:
    TavObxInfo() = delete;

    // Fills model and serial number; true when the model was recognised.
    static bool loadData();

    static const char* getSerialNumber();
    static const char* getModelName();
    static int getModelId();

    static void setPartnerSerialNumber(const char* serial);
    static const char* getPartnerSerialNumber();

    static char caSerialNumber[256];
    static char caPartnerSerialNumber[256];
    static char caModelName[256];
    static int iModelId;
};

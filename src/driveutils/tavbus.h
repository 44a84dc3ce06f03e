// The base of every controller or channel that holds drives: its slots, the
// spin-up delay after a power-up, the operator-facing error texts, and the
// virtual operations by which a family powers drives down and up.
#pragma once

#include <ostream>
#include <string>

#include "driveutils/tavdrive.h"

namespace RaidDeviceMgmt {

struct TavBusError {
    int code;
    std::string message;
};

class TavBus {
public:
    static const char* const SLEEP_FILE;
    static int sleepTime;
    static const TavBusError errorMap[];
    static const int nErrorMap;

    explicit TavBus(int nDrive);
    virtual ~TavBus();
    TavBus(const TavBus&) = delete;
    TavBus& operator=(const TavBus&) = delete;

    virtual int initDrive(int drive);
    virtual void initDrives();
    // The slot index the drive took, or -1 when its number is taken or no slot is free.
    virtual int addDrive(TavDrive* drive);
    virtual std::string getErrorMessage(int code);
    // Codes of the error table, 0 for success.
    virtual int powerDown(int drive, bool force);
    virtual int powerUp(int drive);
    virtual int checkOSRaid(int drive) = 0;
    virtual int osRaidComplete() = 0;
    virtual int getMirrorMap(int row, int column) = 0;
    virtual int getRaid5ArraySize(const char* device) = 0;
    virtual void flushDrives();

    TavDrive* searchDrive(int number);
    int getDriveCount() const;
    int getNDrive() const { return nDrive; }
    int getBiosVersion(std::string& text);
    int getFirmwareVersion(std::string& text);
    int getModel(std::string& text);

    friend std::ostream& operator<<(std::ostream& out, const TavBus& bus);

protected:
    TavDrive** drives;
    int nDrive;

private:
    // The drive in slot 0 answers for the bus; 1 with an empty text when there is none.
    template <typename Ask>
    int askFirstDrive(std::string& text, Ask ask);
};

} // namespace RaidDeviceMgmt

#include "sign.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <fcntl.h>
#include <unistd.h>

#include "driveutils/tavbus.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevices.h"
#include "driveutils/tavsysutils.h"
#include "module.h"
#include "sim_platform.h"
#include "tavutils/tavdrivesig.h"
#include "tavutils/tavobxinfo.h"

namespace sim {

QuietOutput::QuietOutput()
{
    flushAll();
    int null = ::open("/dev/null", O_WRONLY);
    for (int fd : {1, 2}) {
        saved_[fd - 1] = ::dup(fd);
        if (null >= 0) ::dup2(null, fd);
    }
    if (null >= 0) ::close(null);
}

QuietOutput::~QuietOutput()
{
    flushAll();
    for (int fd : {1, 2}) {
        if (saved_[fd - 1] < 0) continue;
        ::dup2(saved_[fd - 1], fd);
        ::close(saved_[fd - 1]);
    }
}

void QuietOutput::flushAll()
{
    tav_logstream.flush();
    std::cout.flush();
    std::fflush(stdout);
    std::fflush(stderr);
}

namespace {

// The word of a verdict: its text up to the colon.
std::string verdictWord(int code)
{
    if (code < 0) return "-";
    std::string text = getDriveSignatureText(code);
    return text.substr(0, text.find(':'));
}

} // namespace

void resetDriveManager()
{
    TavDriveMgr::cleanup();
    delete TavDriveMgr::devices;
    TavDriveMgr::devices = nullptr;
    std::memset(&TavDriveMgr::header, 0, sizeof TavDriveMgr::header);
    for (int i = 0; i < TavDriveMgr::nDrives && TavDriveMgr::drives; ++i) delete TavDriveMgr::drives[i];
    delete[] TavDriveMgr::drives;
    TavDriveMgr::drives = nullptr;
    TavDriveMgr::nDrives = 0;
    for (int i = 0; i < TavDriveMgr::nBuses && TavDriveMgr::buses; ++i) delete TavDriveMgr::buses[i];
    delete[] TavDriveMgr::buses;
    TavDriveMgr::buses = nullptr;
    TavDriveMgr::nBuses = 0;
    delete TavDriveMgr::requiredNVRamCards;
    TavDriveMgr::requiredNVRamCards = nullptr;
    TavDriveMgr::nvrams = nullptr;
    TavDriveMgr::nNvrams = 0;
    TavDriveMgr::nU = 1;
    TavDriveMgr::hw_platform_id = -1;
    TavDriveMgr::driveBase = 0;
    TavObxInfo::caSerialNumber[0] = '\0';
    TavObxInfo::caModelName[0] = '\0';
}

std::string signModule(const std::string& dir, std::optional<int64_t> time)
{
    if (!Module::isModule(dir)) return dir + " is no simulated module";
    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    const int64_t stamp = time ? *time : static_cast<int64_t>(platform.module().now().tv_sec);
    resetDriveManager();
    TavDriveMgr::init();
    Manifest m = platform.module().manifest();
    TavDriveMgr::allocDriveTable(TavDriveMgr::nDrives);
    for (int position = 1; position <= TavDriveMgr::nDrives; ++position) {
        SECT_AUTO_RAID* record = TavDriveMgr::findDriveDescription(position);
        if (!record) continue;
        record->llLastMountTime = stamp;
        record->llLastDismountTime = stamp;
        TavDriveMgr::createDriveSignature(position, 0);
    }
    std::string failed;
    for (int position = 1; position <= TavDriveMgr::nDrives; ++position) {
        if (!m.driveInBay(position)) continue;
        if (TavDriveMgr::writeSignature(position) != 0) failed += " " + std::to_string(position);
    }
    resetDriveManager();
    return failed.empty() ? "" : "the signature could not be written to bay" + failed;
}

std::vector<BayVerdict> bayVerdicts(const std::string& dir)
{
    std::vector<BayVerdict> out;
    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    QuietOutput quiet;
    resetDriveManager();
    TavDriveMgr::init();
    Manifest m = platform.module().manifest();
    for (const Bay& b : m.bays) {
        BayVerdict v;
        v.bay = b.number;
        if (!m.driveInBay(b.number) || b.number > TavDriveMgr::nDrives) {
            v.verdict = "-";
            out.push_back(v);
            continue;
        }
        long long mount = 0, dismount = 0;
        int code = TavDriveMgr::checkDrive(b.number, &mount);
        v.verdict = verdictWord(code);
        if (TavDriveMgr::readUmountTime(b.number, &dismount) == 0) {
            v.mount = mount;
            v.dismount = dismount;
        }
        out.push_back(v);
    }
    resetDriveManager();
    return out;
}

namespace {

// What `print` writes on standard error, kept from the terminal.
template <typename Print>
std::string capturedStderr(Print print)
{
    std::fflush(stderr);
    int saved = ::dup(2);
    FILE* into = std::tmpfile();
    if (saved < 0 || !into) {
        if (saved >= 0) ::close(saved);
        if (into) std::fclose(into);
        return "";
    }
    ::dup2(::fileno(into), 2);
    print();
    std::fflush(stderr);
    ::dup2(saved, 2);
    ::close(saved);
    std::string text;
    std::rewind(into);
    for (int c; (c = std::fgetc(into)) != EOF;) text += static_cast<char>(c);
    std::fclose(into);
    return text;
}

} // namespace

std::string managerTables(const std::string& dir)
{
    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    TavDriveMgr::Table signature, raid;
    {
        QuietOutput quiet;
        resetDriveManager();
        TavDriveMgr::init();
        TavDriveMgr::readSignatureIntoMemory();
        TavDriveMgr::buildSignatureTableHeading(signature);
        for (int position = 1; position <= TavDriveMgr::nDrives; ++position)
            TavDriveMgr::buildSignatureTableRow(signature, position);
        TavDriveMgr::buildRaidDeviceTableHeading(raid);
        if (TavRaidDevices* tree = TavDriveMgr::getRaidDevices()) {
            for (int i = 0; i < tree->getNTopLevelDevs(); ++i)
                TavDriveMgr::buildRaidDeviceRows(raid, tree->getNthTopLevelDev(i));
            delete tree;
        }
    }
    std::string text = capturedStderr([&] { TavDriveMgr::printTableData(signature); }) + "\n" +
                       capturedStderr([&] { TavDriveMgr::printTableData(raid); });
    resetDriveManager();
    return text;
}

std::string formatVerdict(const BayVerdict& v)
{
    auto stamp = [](const std::optional<int64_t>& s) { return s ? std::to_string(*s) : std::string("-"); };
    return v.verdict + " " + stamp(v.mount) + " " + stamp(v.dismount);
}

} // namespace sim

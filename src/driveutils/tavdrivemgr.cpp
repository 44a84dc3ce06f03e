// Platform bring-up: the platform identifier chooses the drives, buses and
// write cache setting of the unit.
#include "driveutils/tavdrivemgr.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "driveutils/tav_ide_bus.h"
#include "driveutils/tav_ide_drive.h"
#include "driveutils/tavhdwcache.h"
#include "driveutils/tavraiddevices.h"
#include "hwlib/tavhwid.h"
#include "tavconfig/tavassert.h"
#include "tavutils/tav_error.h"

static int giDebug_tavdrivemgr = 0;
#define TAV_DEBUG_FLAG giDebug_tavdrivemgr
#include "driveutils/tavlog.h"

using RaidDeviceMgmt::TavBus;
using RaidDeviceMgmt::TavDrive;
using RaidDeviceMgmt::TavIdeBus;
using RaidDeviceMgmt::TavIdeDrive;
using RaidDeviceMgmt::TavNVRam;

SECT_INDEX_TABLE TavDriveMgr::header{};
SECT_AUTO_RAID* TavDriveMgr::hardDrives = nullptr;
int TavDriveMgr::numHardDriveSignatures = 0;
TavDrive** TavDriveMgr::drives = nullptr;
int TavDriveMgr::nDrives = 0;
TavBus** TavDriveMgr::buses = nullptr;
int TavDriveMgr::nBuses = 0;
TavNVRam** TavDriveMgr::nvrams = nullptr;
int TavDriveMgr::nNvrams = 0;
std::vector<unsigned int>* TavDriveMgr::requiredNVRamCards = nullptr;
TavRaidDevices* TavDriveMgr::devices = nullptr;
pthread_mutex_t TavDriveMgr::accessMutex = PTHREAD_MUTEX_INITIALIZER;
int TavDriveMgr::nU = 1;
std::atomic<bool> TavDriveMgr::checkRebuild{false};
int TavDriveMgr::hw_platform_id = -1;
int TavDriveMgr::driveBase = 0;

namespace {

constexpr int kFeatureValueSize = 32;
constexpr int kOldNameLength = 8;
constexpr int kMinorsPerDrive = 8;

// An alarm only interrupts a blocking call.
void onalarm(int) {}

template <typename T>
T* allocate(size_t count)
{
    try {
        return new T[count]();
    } catch (...) {
        throw tav_enomem("new failed");
    }
}

// One row of the layout table. A row whose family is not part of this build
// has no layout function: the unit then comes up with no drives, rather than
// with IDE drives on names it does not have.
struct LayoutRow {
    int id;
    int nU;
    void (*layout)();
    int writeCache;  // 0: no selection
};

} // namespace

// Drives of `names` in positions 1..n, handed to the buses in table order:
// `perBus[b]` drives on bus b.
template <typename Drive, size_t N>
static void buildLayout(const char* const* names, const int (&perBus)[N], TavBus* (*makeBus)(int index, int count))
{
    int total = 0;
    for (int count : perBus) total += count;
    TavDriveMgr::nDrives = total;
    TavDriveMgr::drives = allocate<TavDrive*>(static_cast<size_t>(total));
    TavDriveMgr::nBuses = static_cast<int>(N);
    TavDriveMgr::buses = allocate<TavBus*>(N);
    int position = 0;
    for (size_t b = 0; b < N; ++b) {
        TavBus* bus = makeBus(static_cast<int>(b), perBus[b]);
        TavDriveMgr::buses[b] = bus;
        for (int i = 0; i < perBus[b]; ++i, ++position) {
            TavDrive* drive;
            try {
                drive = new Drive(position + 1, names[position]);
            } catch (...) {
                throw tav_enomem("new failed");
            }
            TavDriveMgr::drives[position] = drive;
            bus->addDrive(drive);
        }
    }
}

static TavBus* makeIdeBus(int index, int count)
{
    try {
        return new TavIdeBus(index, count);
    } catch (...) {
        throw tav_enomem("new failed");
    }
}

void TavDriveMgr::init1U()
{
    static const int perBus[] = {2, 2};
    buildLayout<TavIdeDrive>(hddevnames, perBus, makeIdeBus);
}

void TavDriveMgr::initLoam()
{
    static const int perBus[] = {1, 1};
    buildLayout<TavIdeDrive>(loamdevnames, perBus, makeIdeBus);
}

int TavDriveMgr::init()
{
    static const LayoutRow kRows[] = {
        {1, 1, &TavDriveMgr::init1U, HD_WCACHE_OFF},
        {2, 2, nullptr, HD_WCACHE_ON},
        {3, 1, &TavDriveMgr::initLoam, 0},
        {4, 1, &TavDriveMgr::init1U, HD_WCACHE_OFF},
        {5, 3, nullptr, HD_WCACHE_OFF},
        {6, 1, nullptr, HD_WCACHE_ON},
        {8, 3, nullptr, 0},
        {9, 1, nullptr, HD_WCACHE_ON},
        {10, 2, nullptr, HD_WCACHE_OFF},
        {11, 3, nullptr, 0},
        {12, 1, nullptr, 0},  // nU stays at its start value
        {15, 1, nullptr, HD_WCACHE_ON},
    };
    static const LayoutRow kAnyOther = {0, 1, &TavDriveMgr::init1U, 0};

    hwid_model_id* model = hwid_getModelInfo(nullptr);
    pthread_mutex_init(&accessMutex, nullptr);
    std::memset(&header, 0, sizeof header);
    struct sigaction action {};
    action.sa_handler = onalarm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    setDriveBase();
    requiredNVRamCards = initRequiredNVRamCards();

    if (!model) {
        TAV_LOG(0, "Could not obtain the HWID for this Product. %s:%d\n", TAV_FILE, __LINE__);
        nU = 1;
        init1U();
        return 0;
    }

    hw_platform_id = static_cast<int>(model->id);
    const LayoutRow* row = &kAnyOther;
    for (const LayoutRow& r : kRows)
        if (r.id == hw_platform_id) row = &r;
    nU = row->nU;
    if (row->layout)
        row->layout();
    else
        TAV_LOG(0, "no drive layout for platform %d in this build %s:%d\n", hw_platform_id, TAV_FILE, __LINE__);

    int rc = 0;
    if (row->writeCache && SelectHardDriveWriteCache(row->writeCache) != 0) {
        TAV_LOG(0, "SelectHardDriveWriteCache failed (%s/%d\n", TAV_FILE, __LINE__);
        rc = -1;
    }
    hwid_freeModelInfo(model);
    return rc;
}

void TavDriveMgr::setDriveBase()
{
    char value[kFeatureValueSize] = {};
    if (hwid_getFeatureSetting("PASSIVE_REPORT", "drivesOneBased", value, sizeof value) != 0) return;
    value[sizeof value - 1] = '\0';
    driveBase = strcasecmp(value, "false") == 0 ? -1 : 0;
}

std::vector<unsigned int>* TavDriveMgr::initRequiredNVRamCards()
{
    std::vector<unsigned int>* cards;
    try {
        cards = new std::vector<unsigned int>();
    } catch (...) {
        throw tav_enomem("new failed");
    }
    hwidResource resource;
    for (int rc = resource.Find("PCI", "NVRAM"); rc == 0; rc = resource.Next()) {
        size_t colon = resource.sObjectInfo.find(':');
        if (colon == std::string::npos) continue;
        std::string number = resource.sObjectInfo.substr(colon + 1);
        if (number.empty()) continue;
        cards->push_back(static_cast<unsigned int>(std::strtoul(number.c_str(), nullptr, 10)));
    }
    return cards;
}

void TavDriveMgr::initDrives()
{
    for (int i = 0; i < nBuses; ++i) buses[i]->initDrives();
}

TavDrive* TavDriveMgr::getDrive(int driveID)
{
    if (driveID < 1 || driveID > nDrives || !drives) return nullptr;
    return drives[driveID - 1];
}

TavBus* TavDriveMgr::getNthBus(int n) { return n < 0 || n >= nBuses ? nullptr : buses[n]; }

TavBus* TavDriveMgr::getBus(int drive)
{
    for (int i = 0; i < nBuses; ++i)
        if (buses[i]->searchDrive(drive)) return buses[i];
    TAV_ASSERT(!"drive on a bus");
    return nullptr;
}

TavNVRam* TavDriveMgr::getNVRam(int n) { return n < 0 || n >= nNvrams ? nullptr : nvrams[n]; }

bool TavDriveMgr::NVRamIsRequired(unsigned int card)
{
    if (!requiredNVRamCards) return false;
    for (unsigned int c : *requiredNVRamCards)
        if (c == card) return true;
    return false;
}

int TavDriveMgr::getDriveNum(const char* name)
{
    for (int position = 1; position <= nDrives; ++position) {
        std::string base = drives[position - 1]->getBaseName();
        if (std::strncmp(name, base.c_str(), base.size()) == 0) return position;
    }
    if (std::strstr(name, "hd"))
        for (int row = 0; oldhddevnames[row]; ++row)
            if (std::strncmp(name, oldhddevnames[row], kOldNameLength) == 0) return row + 1;
    return 0;
}

// Eight minor numbers a drive is the assumption here.
int TavDriveMgr::getDriveNum(int minor)
{
    for (int position = 1; position <= nDrives; ++position) {
        TavDrive* drive = drives[position - 1];
        int first = drive->getMinor();
        if (minor >= first && minor <= first + kMinorsPerDrive - 1) {
            TAV_LOG(TAV_LOG_L10, "zz drive:%s minor:%d index:%d\n", drive->getFile().c_str(), minor, position);
            return position;
        }
    }
    return 0;
}

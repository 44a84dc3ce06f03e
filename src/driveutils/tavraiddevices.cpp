#include "driveutils/tavraiddevices.h"

#include <new>

#include "driveutils/tav_md_raiddev.h"
#include "hwlib/tavhwid.h"
#include "tavutils/tav_error.h"


namespace {

constexpr int kVectorGrowth = 10;

} // namespace

// --- the family of the platform ---

int tavRaidPlatformId()
{
    hwid_model_id* model = hwid_getModelInfo(nullptr);
    int id = model ? static_cast<int>(model->id) : 1;
    hwid_freeModelInfo(model);
    return id;
}

bool tavRaidPlatformHasController(int platform)
{
    return platform == 8 || platform == 9 || platform == 10 || platform == 11 || platform == 15;
}

namespace {

enum class RaidFamily { Md, Lsi, Tw, HP, TwDoce };

RaidFamily familyOf(int platform)
{
    switch (platform) {
    case 8:
    case 11: return RaidFamily::Lsi;
    case 9: return RaidFamily::Tw;
    case 10: return RaidFamily::HP;
    case 15: return RaidFamily::TwDoce;
    default: return RaidFamily::Md;
    }
}

// Builds a node of the platform's family: `md` makes the md form. The LSI,
// 3ware and HP node classes are not built yet; until they are, their
// platforms get md nodes, whose queries find no md array there and say OFF.
template <typename MakeMd>
TavRaidDevice* makeNode(MakeMd md)
{
    try {
        switch (familyOf(tavRaidPlatformId())) {
        case RaidFamily::Lsi:
        case RaidFamily::Tw:
        case RaidFamily::HP:
        case RaidFamily::TwDoce:
        case RaidFamily::Md: return md();
        }
        return md();
    } catch (const std::bad_alloc&) {
        throw tav_enomem("new failed");
    }
}

} // namespace

TavRaidDevice* tavRaidNodeFromTables(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                                     int nTables, int nStringTables)
{
    return makeNode([&] { return new TavMdRaidDevice(tables, strings, tableIndex, index, nullptr, nTables, nStringTables); });
}

TavRaidDevice* tavRaidNodeCopy(const TavRaidDevice& source)
{
    return makeNode([&] { return new TavMdRaidDevice(source); });
}

TavRaidDevice* TavRaidDevices::createDevice(int raidLevel, int nSubdevices, char** names, const char* mountPoint,
                                            int deviceNum, int nSpareDisks)
{
    return makeNode([&] { return new TavMdRaidDevice(raidLevel, nSubdevices, names, mountPoint, deviceNum, nSpareDisks); });
}

// --- the list ---

TavRaidDevices::TavRaidDevices() : devices(kVectorGrowth) {}

TavRaidDevices::TavRaidDevices(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int nTables,
                               int nStringTables)
    : devices(kVectorGrowth)
{
    int tableIndex = 0;
    int index = 0;
    TavRaidDevice* node = tavRaidNodeFromTables(tables, strings, &tableIndex, index++, nTables, nStringTables);
    while (node->getDeviceNum() > 0) {
        devices.add(node);
        index += node->addSubdevices(tables, strings, &tableIndex, index, nTables);
        node = tavRaidNodeFromTables(tables, strings, &tableIndex, index++, nTables, nStringTables);
    }
    // The end marker.
    delete node;
}

TavRaidDevices::TavRaidDevices(TavRaidDevices& other) : devices(kVectorGrowth)
{
    for (int i = 0; i < other.devices.size(); ++i) {
        TavRaidDevice* source = other.devices[i];
        TavRaidDevice* copy = tavRaidNodeCopy(*source);
        devices.add(copy);
        addSubDevices(copy, source);
    }
}

TavRaidDevices::~TavRaidDevices() { clearDevices(); }

void TavRaidDevices::addSubDevices(TavRaidDevice* copy, TavRaidDevice* source)
{
    for (int i = 0; i < source->getSubdeviceCount(); ++i) {
        TavRaidDevice* child = source->getSubdevice(i);
        TavRaidDevice* made =
            copy->addSubdevice(child->getRaidLevel(), child->getNumDevices(), nullptr, child->getDeviceNum());
        addSubDevices(made, child);
    }
}

void TavRaidDevices::clearDevices()
{
    while (devices.size() > 0) delete devices.remove(devices.size() - 1);
}

void TavRaidDevices::buildTables(TavVectorP<SECT_DEVICE_TABLE>* devTables, TavVectorP<SECT_STRING_TABLE>* stringTables)
{
    int tableIndex = 0;
    int index = 0;
    // Every top-level device starts at offset 0 of the newest string table:
    // a second one's mount point overwrites the first's. Kept as designed for
    // a module of one top-level device.
    for (int i = 0; i < devices.size(); ++i)
        index += devices[i]->buildTables(devTables, &tableIndex, index, stringTables, 0);
}

bool TavRaidDevices::anyRebuilding()
{
    for (int i = 0; i < devices.size(); ++i)
        if (devices[i]->anyRebuilding()) return true;
    return false;
}

TavRaidDevice::RaidStatus TavRaidDevices::checkRaid()
{
    TavRaidDevice::RaidStatus worst = TavRaidDevice::NOMINAL;
    for (int i = 0; i < devices.size(); ++i) {
        TavRaidDevice::RaidStatus status = devices[i]->checkRaid();
        if (status == TavRaidDevice::OFF) return status;
        if (status > worst) worst = status;
    }
    return worst;
}

int TavRaidDevices::getRaidLevel() { return devices.size() == 0 ? -1 : devices[0]->getRaidLevel(); }

void TavRaidDevices::getDiskInfo(int, TavRaidDevice::DiskStatus* out)
{
    for (int i = 0; i < TavRaidDevice::MAX_DISKS; ++i) out[i] = TavRaidDevice::DISK_OFF;
    for (int d = 0; d < devices.size(); ++d) {
        if (d == 0) {
            devices[0]->getDiskInfo(TavRaidDevice::MAX_DISKS, out);
            continue;
        }
        TavRaidDevice::DiskStatus scratch[TavRaidDevice::MAX_DISKS];
        devices[d]->getDiskInfo(TavRaidDevice::MAX_DISKS, scratch);
        for (int i = 0; i < TavRaidDevice::MAX_DISKS; ++i)
            if (scratch[i] != TavRaidDevice::DISK_OFF) out[i] = scratch[i];
    }
}

TavRaidDevice* TavRaidDevices::getNthRaidDev(int n)
{
    for (int i = 0; i < devices.size(); ++i) {
        if (TavRaidDevice* found = devices[i]->getNthRaidDevice(n)) return found;
        n -= devices[i]->getRaidDeviceCount();
    }
    return nullptr;
}

int TavRaidDevices::getRaidDevCount()
{
    int count = 0;
    for (int i = 0; i < devices.size(); ++i) count += devices[i]->getRaidDeviceCount();
    return count;
}

int TavRaidDevices::getDiskCount()
{
    int count = 0;
    for (int i = 0; i < devices.size(); ++i) count += devices[i]->getDiskCount();
    return count;
}

TavRaidDevice* TavRaidDevices::findDevice(const char* name)
{
    for (int i = 0; i < devices.size(); ++i)
        if (TavRaidDevice* found = devices[i]->findDevice(name)) return found;
    return nullptr;
}

TavRaidDevice* TavRaidDevices::findDisk(int driveID)
{
    for (int i = 0; i < devices.size(); ++i)
        if (TavRaidDevice* found = devices[i]->findDisk(driveID)) return found;
    return nullptr;
}

bool TavRaidDevices::haveQuorum(int* okDrives)
{
    for (int i = 0; i < devices.size(); ++i)
        if (!devices[i]->haveQuorum(okDrives)) return false;
    return true;
}

int TavRaidDevices::raidStartAll(long now, int* okDrives)
{
    if (devices.size() == 0) return 0;
    bool anyStarted = false;
    for (int i = 0; i < devices.size(); ++i)
        if (devices[i]->raidStartAll(now, okDrives) == 0) anyStarted = true;
    return anyStarted ? 0 : 1;
}

void TavRaidDevices::setAllActive(int active)
{
    for (int i = 0; i < devices.size(); ++i) devices[i]->setAllActive(active);
}

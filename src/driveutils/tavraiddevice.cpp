#include "driveutils/tavraiddevice.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <sys/stat.h>

#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevices.h"
#include "platform/platform.h"

static int giDebug_raiddevice = 0;
#define TAV_DEBUG_FLAG giDebug_raiddevice
#include "driveutils/tavlog.h"

namespace {

constexpr int kVectorGrowth = 10;
constexpr int kStringTableSize = static_cast<int>(sizeof(SECT_STRING_TABLE));

TavVectorP<TavRaidDevice>* emptyChildren() { return new TavVectorP<TavRaidDevice>(kVectorGrowth); }

// A fresh copy of `text`, at most `max` bytes of it; null for null.
char* duplicate(const char* text, size_t max)
{
    if (!text) return nullptr;
    size_t length = strnlen(text, max);
    char* copy;
    try {
        copy = new char[length + 1];
    } catch (const std::bad_alloc&) {
        throw tav_enomem("new failed");
    }
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

// The mount point stored for a record: null when the record names none or
// names a place outside the string tables. A negative length reads as 0, and
// a text that runs past its table's end is cut there.
char* readMountPoint(const SECT_RAID_DEV& d, const SECT_STRING_TABLE* strings, int nStringTables)
{
    if (d.stringTable < 0 || d.stringIndex < 0 || !strings) return nullptr;
    if (d.stringTable >= nStringTables || d.stringIndex >= kStringTableSize) return nullptr;
    const uint8_t* table = strings[d.stringTable].data;
    int length = static_cast<int8_t>(table[d.stringIndex]);
    if (length < 0) length = 0;
    if (length > kStringTableSize - 1 - d.stringIndex) length = kStringTableSize - 1 - d.stringIndex;
    return duplicate(reinterpret_cast<const char*>(table + d.stringIndex + 1), static_cast<size_t>(length));
}

template <typename T>
T* zeroedTable()
{
    try {
        return new T();
    } catch (const std::bad_alloc&) {
        throw tav_enomem("new failed");
    }
}

} // namespace

// --- construction ---

TavRaidDevice::TavRaidDevice(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                             TavRaidDevice* parentNode, int nTables, int nStringTables)
    : parent(parentNode), subdevices(emptyChildren()), mountPoint(nullptr), description(), iLastStatus(0),
      nSpareDisks(0), depth(parentNode ? parentNode->depth + 1 : 0), stringTableCount(nStringTables)
{
    if (index >= *tableIndex * RECORDS_PER_TABLE + RECORDS_PER_TABLE) ++*tableIndex;
    if (*tableIndex < nTables && tables) {
        int record = index - *tableIndex * RECORDS_PER_TABLE;
        TAV_LOG(TAV_LOG_L10, "TavRaidDevice:table:%d index:%d newindex:%d\n", *tableIndex, index, record);
        // An index far behind the current table has no record of its own.
        if (record >= 0 && record < RECORDS_PER_TABLE) description = tables[*tableIndex].devices[record];
        TAV_LOG(TAV_LOG_L10, "devnum:%d type:%d raid:%d nsubdevs:%d act:%d \n", description.deviceNum,
                description.deviceType, description.raidLevel, description.numDevices, description.isActive);
        mountPoint = readMountPoint(description, strings, nStringTables);
        if (mountPoint) TAV_LOG(TAV_LOG_L10, "mountpt:%s ", mountPoint);
    }
    if (*tableIndex >= nTables) description = SECT_RAID_DEV{};
}

TavRaidDevice::TavRaidDevice(int raidLevel, int nSubdevices, char**, const char* mount, int deviceNum,
                             int nSpares)
    : parent(nullptr), subdevices(emptyChildren()), mountPoint(duplicate(mount, MAX_MOUNT_POINT)), description(),
      iLastStatus(0), nSpareDisks(nSpares), depth(0), stringTableCount(1)
{
    description.deviceNum = static_cast<uint32_t>(deviceNum);
    description.deviceType = static_cast<int16_t>(raidLevel >= 0 ? ARRAY : DISK);
    description.raidLevel = static_cast<int16_t>(raidLevel);
    description.numDevices = static_cast<uint32_t>(nSubdevices);
    description.isActive = 1;
    description.stringTable = -1;
    description.stringIndex = -1;
}

TavRaidDevice::TavRaidDevice(const TavRaidDevice& other)
    : parent(other.parent), deviceName(other.deviceName), subdevices(emptyChildren()),
      mountPoint(duplicate(other.mountPoint, MAX_MOUNT_POINT)), description(other.description),
      iLastStatus(other.iLastStatus), nSpareDisks(other.nSpareDisks), depth(other.depth),
      stringTableCount(other.stringTableCount)
{
}

TavRaidDevice::~TavRaidDevice()
{
    delete[] mountPoint;
    for (int i = 0; i < subdevices->size(); ++i) delete (*subdevices)[i];
    delete subdevices;
}

TavRaidDevice* TavRaidDevice::adopt(TavRaidDevice* child)
{
    child->parent = this;
    child->depth = depth + 1;
    child->stringTableCount = stringTableCount;
    subdevices->add(child);
    return child;
}

// --- base forms of the family's operations ---

TavRaidDevice::RaidStatus TavRaidDevice::checkRaidStatus()
{
    if (description.deviceType != ARRAY) return OFF;
    return checkRaidStatus(deviceName.c_str());
}

int TavRaidDevice::checkArrayStatus() { return checkRaidStatus(); }

int TavRaidDevice::checkArrayStatus(const char* device) { return checkRaidStatus(device); }

const char* TavRaidDevice::getStoreName() { return deviceName.c_str(); }

int TavRaidDevice::configureHardwareOptions() { return 0; }

TavRaidDevice::RaidStatus TavRaidDevice::checkRaid()
{
    TAV_LOG(TAV_LOG_L10, "checkRaid dev:%s type:%d %s:%d\n", deviceName.c_str(), description.deviceType, TAV_FILE,
            __LINE__);
    int status = NOMINAL;
    int arrayStatus = NOMINAL;
    if (description.deviceType == ARRAY) {
        arrayStatus = checkRaidStatus();
        TAV_LOG(TAV_LOG_L10, "status: [array] %d %s:%d\n", arrayStatus, TAV_FILE, __LINE__);
        if (arrayStatus == OFF) return OFF;
    } else {
        RaidDeviceMgmt::TavDrive* drive = TavDriveMgr::getDrive(getDeviceNum());
        // A position with no drive object answers as a drive that is gone.
        if (!drive || !drive->pingPhysicalDrive()) {
            if (description.isActive) {
                setActive(0);
                raidSetFaulty();
            }
            if (!parent) {
                status = description.raidLevel < 1 ? OFF : DEGRADED;
                TAV_LOG(TAV_LOG_L10, "status: [disknp] %d rl=%d%s:%d\n", status, description.raidLevel, TAV_FILE,
                        __LINE__);
            } else {
                status = parent->description.raidLevel == 0 ? OFF : DEGRADED;
                TAV_LOG(TAV_LOG_L10, "status: [disk] %d sdc=%d %s:%d\n", status, parent->nSpareDisks, TAV_FILE,
                        __LINE__);
            }
        }
    }
    for (int i = 0; i < subdevices->size(); ++i) {
        TavRaidDevice* child = (*subdevices)[i];
        int previous = i == 0 ? NOMINAL : status;
        int current = child->checkRaid();
        TAV_LOG(TAV_LOG_L10, "subdev:%s status:%d %s:%d\n", child->getName(), current, TAV_FILE, __LINE__);
        if (current > previous) {
            status = current;
        } else {
            status = previous;
            if (child->description.deviceType == DISK && current == DEGRADED && previous == DEGRADED) {
                // A second failed member.
                TAV_LOG(TAV_LOG_L10, "checkraid: OFF %s status:%d -> %d %s:%d\n", deviceName.c_str(), previous, OFF,
                        TAV_FILE, __LINE__);
                if (!parent) {
                    if (nSpareDisks < 1) status = OFF;
                } else if (parent->nSpareDisks < 1) {
                    status = OFF;
                } else {
                    status = parent->checkRaidStatus();
                    TAV_LOG(TAV_LOG_L10, "checkraid: parent RAID status = %d\n", status);
                }
            }
        }
        if (status == OFF) return OFF;
    }
    return static_cast<RaidStatus>(status > arrayStatus ? status : arrayStatus);
}

int TavRaidDevice::getDisksToRebuild(const char* device, const char* label, char* out, int len)
{
    FILE* mdstat = plat::fopen("/proc/mdstat", "r");
    if (!mdstat) return 0;
    int rc = tavDisksToRebuild(mdstat, device, label, out, len);
    fclose(mdstat);
    return rc;
}

// The status section of `device` in an mdstat text: its member map tells the
// members missing, and a recovery line the percentage done.
int tavDisksToRebuild(FILE* mdstat, const char* device, const char* label, char* out, int len)
{
    // fgets needs room for a character and the terminator.
    if (!out || len < 2 || !device) return 0;
    bool found = false;
    while (fgets(out, len, mdstat))
        if (strstr(out, device)) {
            found = true;
            break;
        }
    if (!found || !fgets(out, len, mdstat) || !strchr(out, '_')) return 0;
    int missing = 0;
    for (const char* p = out; *p; ++p)
        if (*p == '_') ++missing;
    if (fgets(out, len, mdstat) && strstr(out, "recovery")) {
        float percent = 0;
        if (sscanf(out, "%*s %*s %*s %f%%", &percent) != 1) percent = 0;
        snprintf(out, static_cast<size_t>(len), "%s disk %.0f%% complete, %d disk(s) to go", label ? label : "",
                 static_cast<double>(percent), missing);
        return missing;
    }
    snprintf(out, static_cast<size_t>(len), "%s array is degraded and not rebuilding", label ? label : "");
    return -1;
}

// --- tables ---

int TavRaidDevice::buildTables(TavVectorP<SECT_DEVICE_TABLE>* devTables, int* tableIndex, int index,
                               TavVectorP<SECT_STRING_TABLE>* stringTables, int stringIndex)
{
    TAV_LOG(TAV_LOG_L20, "buildTables: devIndex:%d stringIndex:%d\n", index, stringIndex);
    while (index >= *tableIndex * RECORDS_PER_TABLE + RECORDS_PER_TABLE) {
        TAV_LOG(TAV_LOG_L20, "buildTables: creating new device table for index:%d %s:%d\n", index, TAV_FILE,
                __LINE__);
        devTables->add(zeroedTable<SECT_DEVICE_TABLE>());
        ++*tableIndex;
    }
    SECT_DEVICE_TABLE* table = (*devTables)[devTables->size() - 1];
    const int mountLength = mountPoint ? static_cast<int>(strlen(mountPoint)) : 0;
    if (mountPoint && mountLength + 1 + stringIndex > kStringTableSize) {
        TAV_LOG(TAV_LOG_L20, "buildTables: creating new string table for index:%d %s:%d\n", index, TAV_FILE,
                __LINE__);
        stringTables->add(zeroedTable<SECT_STRING_TABLE>());
        stringIndex = 0;
    }
    SECT_STRING_TABLE* strings = (*stringTables)[stringTables->size() - 1];
    if (mountPoint) {
        TAV_LOG(TAV_LOG_L20, "buildTables: setting mount point table %s:%d\n", TAV_FILE, __LINE__);
        setMountPointTable(stringTables->size() - 1, stringIndex);
    }
    table->devices[index - *tableIndex * RECORDS_PER_TABLE] = description;
    if (mountPoint) {
        strings->data[stringIndex] = static_cast<uint8_t>(mountLength);
        std::memcpy(strings->data + stringIndex + 1, mountPoint, static_cast<size_t>(mountLength));
    }
    int count = 1;
    for (int i = 0; i < subdevices->size(); ++i) {
        // Anew for each child: every sibling gets an offset further on.
        if (mountPoint) stringIndex += mountLength + 1;
        count += (*subdevices)[i]->buildTables(devTables, tableIndex, index + count, stringTables, stringIndex);
    }
    return count;
}

void TavRaidDevice::setMountPointTable(int table, int index)
{
    description.stringTable = table;
    description.stringIndex = index;
}

// --- walks of the tree ---

bool TavRaidDevice::anyRebuilding()
{
    if (isRebuilding()) return true;
    for (int i = 0; i < subdevices->size(); ++i)
        if ((*subdevices)[i]->anyRebuilding()) return true;
    return false;
}

TavRaidDevice* TavRaidDevice::findDevice(const char* name)
{
    if (name && deviceName == name) return this;
    for (int i = 0; i < subdevices->size(); ++i)
        if (TavRaidDevice* found = (*subdevices)[i]->findDevice(name)) return found;
    return nullptr;
}

TavRaidDevice* TavRaidDevice::findDisk(int driveID)
{
    if (description.deviceType == DISK && getDeviceNum() == driveID) return this;
    for (int i = 0; i < subdevices->size(); ++i)
        if (TavRaidDevice* found = (*subdevices)[i]->findDisk(driveID)) return found;
    return nullptr;
}

int TavRaidDevice::getDiskCount()
{
    int count = description.deviceType == DISK ? 1 : 0;
    for (int i = 0; i < subdevices->size(); ++i) count += (*subdevices)[i]->getDiskCount();
    return count;
}

// A child disk is no RAID device; a top-level disk stands for one.
static bool countsAsRaidDevice(const TavRaidDevice* node)
{
    return !(node->getParent() && node->getRaidLevel() < 0);
}

int TavRaidDevice::getRaidDeviceCount()
{
    int count = countsAsRaidDevice(this) ? 1 : 0;
    for (int i = 0; i < subdevices->size(); ++i) count += (*subdevices)[i]->getRaidDeviceCount();
    return count;
}

TavRaidDevice* TavRaidDevice::getNthRaidDevice(int n)
{
    if (countsAsRaidDevice(this)) {
        if (n == 0) return this;
        --n;
    }
    for (int i = 0; i < subdevices->size(); ++i) {
        TavRaidDevice* child = (*subdevices)[i];
        if (TavRaidDevice* found = child->getNthRaidDevice(n)) return found;
        n -= child->getRaidDeviceCount();
    }
    return nullptr;
}

void TavRaidDevice::setActive(int active)
{
    TAV_LOG(TAV_LOG_L20, "setActive %s %d\n", deviceName.c_str(), active);
    description.isActive = static_cast<int16_t>(active);
}

void TavRaidDevice::setAllActive(int active)
{
    setActive(active);
    for (int i = 0; i < subdevices->size(); ++i) (*subdevices)[i]->setAllActive(active);
}

const char* TavRaidDevice::getSubdeviceName(int i) const
{
    TavRaidDevice* child = (*subdevices)[i];
    return child ? child->getName() : nullptr;
}

int TavRaidDevice::getSubdeviceNumber(int i) const
{
    TavRaidDevice* child = (*subdevices)[i];
    return child ? child->getDeviceNum() : -1;
}

bool TavRaidDevice::okDrive(const int* okDrives) const
{
    if (!okDrives) return true;
    int position = getDeviceNum();
    if (position < 1 || position > TavDriveMgr::nDrives) return false;
    return okDrives[position - 1] != 0;
}

// --- evaluation ---

bool TavRaidDevice::haveQuorum(int* okDrives)
{
    if (tavRaidPlatformHasController(tavRaidPlatformId())) {
        if (description.deviceType != ARRAY) return true;
        int status = checkRaidStatus();
        TAV_LOG(TAV_LOG_L10, "status: [array] %d %s:%d\n", status, TAV_FILE, __LINE__);
        return status != OFF;
    }
    if (description.raidLevel < 0) {
        TAV_LOG(TAV_LOG_L10, "haveQuorum dev num:%d %s:%d\n", getDeviceNum(), TAV_FILE, __LINE__);
        if (!okDrives || !okDrive(okDrives)) {
            TAV_LOG(TAV_LOG_L10, "haveQuorum okDrives[]:%d %s:%d\n", getDeviceNum(), TAV_FILE, __LINE__);
            return false;
        }
        struct stat st;
        int rc = plat::stat(deviceName.c_str(), &st);
        if (rc != 0) TAV_LOG(0, "haveQuorum: stat %s: %s %s:%d\n", deviceName.c_str(), strerror(errno), TAV_FILE, __LINE__);
        TAV_LOG(TAV_LOG_L20, "haveQuorum stat:%d %s:%d\n", rc, TAV_FILE, __LINE__);
        return rc == 0;
    }
    TAV_LOG(TAV_LOG_L10, "haveQuorum dev :%d level:%d %s:%d\n", getDeviceNum(), description.raidLevel, TAV_FILE,
            __LINE__);
    const int children = subdevices->size();
    switch (description.raidLevel) {
    case 0:
        for (int i = 0; i < children; ++i)
            if (!(*subdevices)[i]->haveQuorum(okDrives)) return false;
        return true;
    case 1:
        for (int i = 0; i < children; ++i)
            if ((*subdevices)[i]->haveQuorum(okDrives)) return true;
        return false;
    case 5: {
        // One member may be absent.
        long long present = 0;
        for (int i = 0; i < children; ++i)
            if ((*subdevices)[i]->haveQuorum(okDrives)) ++present;
        return present + 1 >= static_cast<long long>(description.numDevices);
    }
    default:
        return false;
    }
}

int TavRaidDevice::raidStartAll(long now, int* okDrives)
{
    int rc = 0;
    for (int i = 0; i < subdevices->size(); ++i) rc = (*subdevices)[i]->raidStartAll(now, okDrives);
    if (description.deviceType == ARRAY)
        rc = raidStart(okDrives);
    else if (description.deviceType == DISK && !parent)
        setActive(1);
    // The configured options go out on every start.
    configureHardwareOptions();
    return rc;
}

int TavRaidDevice::willCauseFailure(TavRaidDevice* target)
{
    bool child = false;
    for (int i = 0; i < subdevices->size() && !child; ++i)
        child = target && (*subdevices)[i]->deviceName == target->deviceName;
    if (!child) {
        TAV_LOG(TAV_LOG_L10, "not subdevice %s %s:%d\n", target ? target->getName() : "(null)", TAV_FILE, __LINE__);
        return 0;
    }
    switch (description.raidLevel) {
    case 0:
        return 1;
    case 1:
        for (int i = 0; i < subdevices->size(); ++i) {
            TavRaidDevice* other = (*subdevices)[i];
            if (other->deviceName == target->deviceName) continue;
            if (other->isActive() && !other->isRebuilding()) {
                TAV_LOG(TAV_LOG_L10, "other active drive %s %s:%d\n", other->getName(), TAV_FILE, __LINE__);
                return 0;
            }
        }
        TAV_LOG(TAV_LOG_L10, "last active device %s %s:%d\n", target->getName(), TAV_FILE, __LINE__);
        return 1;
    case 5: {
        int lost = 0;
        for (int i = 0; i < subdevices->size(); ++i) {
            TavRaidDevice* other = (*subdevices)[i];
            if (other->deviceName == target->deviceName) continue;
            if (!other->isActive() || other->isRebuilding()) {
                TAV_LOG(TAV_LOG_L10, "inactive drive %s %s:%d\n", other->getName(), TAV_FILE, __LINE__);
                ++lost;
            }
        }
        return lost > nSpareDisks ? 1 : 0;
    }
    default:
        return 0;
    }
}

bool TavRaidDevice::willEnable(TavRaidDevice* target)
{
    if (isActive() || !target) return false;
    bool child = false;
    for (int i = 0; i < subdevices->size() && !child; ++i) child = (*subdevices)[i]->deviceName == target->deviceName;
    if (!child) return false;
    switch (description.raidLevel) {
    case 0:
        for (int i = 0; i < subdevices->size(); ++i) {
            TavRaidDevice* other = (*subdevices)[i];
            if (other->deviceName != target->deviceName && !other->isActive()) return false;
        }
        return true;
    case 1:
        return true;
    default:
        return false;
    }
}

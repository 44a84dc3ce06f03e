#include "driveutils/tav_md_raiddev.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "hwlib/tavhwid.h"
#include "platform/platform.h"
#include "platform/tavio.h"

static int giDebug_mdraid = 0;
#define TAV_DEBUG_FLAG giDebug_mdraid
#include "driveutils/tavlog.h"

namespace {

// Queries of array members read this many entries.
constexpr int kMemberEntries = 26;
constexpr int kPathSize = 256;

const char kProcMinRate[] = "/proc/sys/dev/raid/speed_limit_min";
const char kProcMaxRate[] = "/proc/sys/dev/raid/speed_limit_max";
const char kConfigMinRate[] = "raid_speed_limit_min";
const char kConfigMaxRate[] = "raid_speed_limit_max";

// The drive position (0-based) of a member by its device numbers; -1 for none.
int memberIndex(int major, int minor)
{
    switch (major) {
    case 3: return minor < 64 ? 0 : 1;
    case 22: return minor < 64 ? 3 : 2;
    case 33: return 0;
    case 34: return 1;
    case 56: return 2;
    case 57: return 3;
    case 104: return minor / 16;
    case 8: {
        int index = TavDriveMgr::getDriveNum(minor) - 1;
        if (index < 0 || index >= TavRaidDevice::MAX_DISKS) {
            TAV_LOG(0, "drive minor:%d index:%d out of range %s:%d\n", minor, index, TAV_FILE, __LINE__);
            return -1;
        }
        return index;
    }
    default: return -1;
    }
}

TavRaidDevice::DiskStatus memberStatus(int state)
{
    if (state & ((1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC))) return TavRaidDevice::DISK_NOMINAL;
    return (state & (1 << MD_DISK_FAULTY)) ? TavRaidDevice::DISK_FAULTY : TavRaidDevice::DISK_REBUILDING;
}

// GET_ARRAY_INFO of a status query: false, logged, when the array cannot be asked.
bool queryArray(const char* device, mdu_array_info_t& info, const char* openFormat, const char* ioctlFormat)
{
    int fd = plat::open(device, O_RDONLY);
    if (fd < 0) {
        if (openFormat) TAV_LOG(0, openFormat, device, TAV_FILE, __LINE__);
        return false;
    }
    bool ok = plat::ioctl(fd, GET_ARRAY_INFO, &info) == 0;
    if (!ok) TAV_LOG(0, ioctlFormat, errno, device, TAV_FILE, __LINE__);
    plat::close(fd);
    return ok;
}

// The query of both status readings; a failure means OFF.
bool statusQuery(const char* device, mdu_array_info_t& info)
{
    return queryArray(device, info, "checkRaid: can't open %s for reading %s:%d\n",
                      "ioctl GET_ARRAY_INFO errno:%d dev:%s %s:%d\n");
}

bool hasEntry(const TavRaidDevice::DiskStatus* entries, int count, TavRaidDevice::DiskStatus wanted)
{
    for (int i = 0; i < count; ++i)
        if (entries[i] == wanted) return true;
    return false;
}

// Entries other than DISK_OFF of `from` over `into`.
void overlay(TavRaidDevice::DiskStatus* into, const TavRaidDevice::DiskStatus* from)
{
    for (int i = 0; i < TavRaidDevice::MAX_DISKS; ++i)
        if (from[i] != TavRaidDevice::DISK_OFF) into[i] = from[i];
}

// The device number of a member's node as the md ioctls take it by value.
void* deviceArg(dev_t device) { return reinterpret_cast<void*>(static_cast<uintptr_t>(device)); }

// A member's numbers as the md records carry them, 8 bits each.
void fillMemberNumbers(mdu_disk_info_t& disk, const struct stat& st)
{
    disk.major = static_cast<int>(major(st.st_rdev) & 0xff);
    disk.minor = static_cast<int>(minor(st.st_rdev) & 0xff);
}

struct RateNames {
    const char* proc;
    const char* config;
    const char* noPathFormat;
};

const RateNames kMinRate{kProcMinRate, kConfigMinRate,
                         "cannot locate common configs path to set min rebuild rate %d, %s:%d\n"};
const RateNames kMaxRate{kProcMaxRate, kConfigMaxRate,
                         "cannot locate common configs path to set max rebuild rate %d, %s:%d\n"};

// The configuration's rate if it has one, else the kernel's.
int currentRate(const RateNames& names)
{
    char path[kPathSize] = {};
    int rate = -1;
    if (hwid_getConfigFileWithPath(path, sizeof path, names.config) >= 0) rate = TavMdRaidDevice::getRebuildRate(path);
    if (rate < 0) rate = TavMdRaidDevice::getRebuildRate(names.proc);
    return rate;
}

// The kernel's rate and the configuration's copy.
int storeRate(const RateNames& names, int rate)
{
    char path[kPathSize] = {};
    if (hwid_getConfigFileWithPath(path, sizeof path, names.config) < 0) {
        TAV_LOG(0, "cannot locate common configs rebuild rate file %s, %s:%d\n", names.config, TAV_FILE, __LINE__);
        if (hwid_getCommonConfigsLocation(path, sizeof path) != 0) {
            TAV_LOG(0, names.noPathFormat, rate, TAV_FILE, __LINE__);
            return -1;
        }
        size_t used = strlen(path);
        snprintf(path + used, sizeof path - used, "%s", names.config);
    }
    return TavMdRaidDevice::setRebuildRate(rate, names.proc, path);
}

} // namespace

// --- construction ---

TavMdRaidDevice::TavMdRaidDevice(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                                 TavRaidDevice* parentNode, int nTables, int nStringTables)
    : TavRaidDevice(tables, strings, tableIndex, index, parentNode, nTables, nStringTables)
{
    nameNode();
}

TavMdRaidDevice::TavMdRaidDevice(int raidLevel, int nSubdevices, char** names, const char* mount, int deviceNum,
                                 int nSpares)
    : TavRaidDevice(raidLevel, nSubdevices, names, mount, deviceNum, nSpares)
{
    nameNode();
}

TavMdRaidDevice::TavMdRaidDevice(const TavRaidDevice& other) : TavRaidDevice(other) { nameNode(); }

void TavMdRaidDevice::nameNode()
{
    if (description.deviceType == DISK) {
        if (RaidDeviceMgmt::TavDrive* drive = TavDriveMgr::getDrive(getDeviceNum()))
            deviceName = drive->getDataPartitionName();
    } else if (description.deviceType == ARRAY) {
        deviceName = "/dev/md" + std::to_string(description.deviceNum);
    }
    TAV_LOG(TAV_LOG_L10, "devname:%s\n", deviceName.c_str());
}

TavRaidDevice* TavMdRaidDevice::addSubdevice(int raidLevel, int nSubdevices, char** names, int deviceNum)
{
    TavRaidDevice* child;
    try {
        child = new TavMdRaidDevice(raidLevel, nSubdevices, names, nullptr, deviceNum, 0);
    } catch (const std::bad_alloc&) {
        throw tav_enomem("new failed");
    }
    return adopt(child);
}

int TavMdRaidDevice::addSubdevices(SECT_DEVICE_TABLE* tables, SECT_STRING_TABLE* strings, int* tableIndex, int index,
                                   int nTables)
{
    return readChildren(tables, strings, tableIndex, index, nTables, [&](int at) -> TavRaidDevice* {
        try {
            return new TavMdRaidDevice(tables, strings, tableIndex, at, this, nTables, stringTableCount);
        } catch (const std::bad_alloc&) {
            throw tav_enomem("new failed");
        }
    });
}

// --- configuration ---

const char* TavMdRaidDevice::getConfigString()
{
    switch (description.raidLevel) {
    case 0: return "Stripe/Nonclustered";
    case 1: return "MirrorAndStripe/Nonclustered";
    case 5:
        switch (hwid_getModelId(nullptr)) {
        case 2: return "ParityAndStripe8";
        case 5: return "ParityAndStripe";
        default: return "ParityAndStripe4";
        }
    default: return "None";
    }
}

// --- making and starting arrays ---

int TavMdRaidDevice::setArrayInfo(void* info)
{
    int fd = plat::open(deviceName.c_str(), O_RDWR);
    if (fd < 0) {
        TAV_LOG(0, "can't open %s %s:%d\n", deviceName.c_str(), TAV_FILE, __LINE__);
        return 1;
    }
    if (plat::ioctl(fd, SET_ARRAY_INFO, info) == 0) {
        plat::close(fd);
        return 0;
    }
    int error = errno;
    TAV_LOG(0, "SET_ARRAY_INFO errno:%d %s dev:%s %s:%d\n", error, strerror(error), deviceName.c_str(), TAV_FILE,
            __LINE__);
    plat::close(fd);
    // The array stands already.
    return error == EEXIST ? 0 : 2;
}

int TavMdRaidDevice::createArray()
{
    if (description.raidLevel < 0) return 0;
    const int members = getNumDevices();
    const int chunk = getChunkSize() * 1024;
    mdu_array_info_t info{};
    info.major_version = 0;
    info.minor_version = 90;
    info.ctime = static_cast<decltype(info.ctime)>(plat::time(nullptr));
    info.utime = info.ctime;
    info.level = description.raidLevel;
    info.nr_disks = info.raid_disks = info.active_disks = info.working_disks = members;
    info.md_minor = getDeviceNum();
    info.chunk_size = chunk;
    setArrayInfo(&info);
    TavDriveMgr::initDrives();

    int fd = plat::open(deviceName.c_str(), O_RDONLY);
    if (fd < 0) return 1;
    for (int i = 0; i < members; ++i) {
        TavRaidDevice* member = getSubdevice(i);
        struct stat st;
        if (!member || plat::stat(member->getName(), &st) != 0) continue;
        mdu_disk_info_t disk{};
        disk.number = disk.raid_disk = i;
        fillMemberNumbers(disk, st);
        disk.state = (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC);
        TAV_LOG(TAV_LOG_L10, "maj:%d min:%d %s:%d\n", disk.major, disk.minor, TAV_FILE, __LINE__);
        if (plat::ioctl(fd, ADD_NEW_DISK, &disk) != 0)
            TAV_LOG(0, "errno:%d %s %s:%d\n", errno, strerror(errno), TAV_FILE, __LINE__);
    }
    plat::close(fd);

    mdu_param_t param{};
    switch (description.raidLevel) {
    case 0: param.personality = 2; break;
    case 1: param.personality = 3; break;
    case 5: param.personality = 4; break;
    default: return 1;
    }
    param.chunk_size = chunk;
    fd = plat::open(deviceName.c_str(), O_RDONLY);
    if (fd < 0) return 1;
    int rc = plat::ioctl(fd, RUN_ARRAY, &param);
    if (rc != 0) TAV_LOG(0, "RUN_ARRAY on %s rc:%d %s %s:%d\n", deviceName.c_str(), rc, strerror(errno), TAV_FILE, __LINE__);
    plat::close(fd);
    return rc == 0 ? 0 : 1;
}

int TavMdRaidDevice::raidStart(int* okDrives)
{
    if (setArrayInfo(nullptr) != 0) {
        TAV_LOG(0, "can't create raid device %s:%d\n", TAV_FILE, __LINE__);
        return 19;
    }
    int fd = plat::open(deviceName.c_str(), O_RDWR);
    if (fd < 0) {
        TAV_LOG(0, "raidStart: can't open %s for reading\n", deviceName.c_str());
        return 19;
    }
    int rc = 0;
    mdu_array_info_t running{};
    if (plat::ioctl(fd, GET_ARRAY_INFO, &running) == 0) {
        // Running already.
        setActive(1);
    } else {
        int number = 0;
        for (int i = 0; i < getSubdeviceCount(); ++i) {
            TavRaidDevice* member = getSubdevice(i);
            bool taken = !okDrives || member->getRaidLevel() >= 0;
            if (!taken) {
                taken = member->okDrive(okDrives);
                int position = member->getDeviceNum();
                TAV_LOG(TAV_LOG_L10, "okDrives[%d]:%d %s:%d\n", position - 1, taken ? 1 : 0, TAV_FILE, __LINE__);
            }
            struct stat st;
            if (!taken || plat::stat(member->getName(), &st) != 0) continue;
            mdu_disk_info_t disk{};
            disk.number = disk.raid_disk = number++;
            fillMemberNumbers(disk, st);
            disk.state = 0;
            TAV_LOG(TAV_LOG_L10, "maj:%d min:%d %s:%d\n", disk.major, disk.minor, TAV_FILE, __LINE__);
            if (plat::ioctl(fd, ADD_NEW_DISK, &disk) != 0)
                TAV_LOG(0, "errno:%d %s %s:%d\n", errno, strerror(errno), TAV_FILE, __LINE__);
        }
        if (checkRaidStatus() != OFF || plat::ioctl(fd, RUN_ARRAY, nullptr) == 0) {
            setActive(1);
        } else {
            rc = errno;
            TAV_LOG(0, "RUN_ARRAY on %s errno:%d %s %s:%d\n", deviceName.c_str(), rc, strerror(rc), TAV_FILE, __LINE__);
        }
    }
    plat::close(fd);

    TAV_LOG(TAV_LOG_L10, "rc:%d level:%d %s:%d\n", rc, description.raidLevel, TAV_FILE, __LINE__);
    if (rc != 0) return rc;
    bool childrenActive = description.raidLevel == 0;
    if (description.raidLevel == 1 || description.raidLevel == 5) {
        RaidStatus status = checkRaidStatus();
        TAV_LOG(TAV_LOG_L10, "status for %s is %d %s:%d\n", deviceName.c_str(), status, TAV_FILE, __LINE__);
        childrenActive = status == NOMINAL || status == REBUILDING;
    }
    if (childrenActive)
        for (int i = 0; i < getSubdeviceCount(); ++i) getSubdevice(i)->setActive(1);
    return 0;
}

int TavMdRaidDevice::raidStop()
{
    if (description.deviceType != ARRAY) return 0;
    TAV_LOG(TAV_LOG_L10, "raidStop: opening:%s\n", deviceName.c_str());
    int fd = plat::open(deviceName.c_str(), O_RDONLY);
    if (fd < 0) {
        TAV_LOG(0, "raidStop: can't open %s for reading\n", deviceName.c_str());
        return -1;
    }
    int rc = plat::ioctl(fd, STOP_ARRAY, nullptr);
    if (rc != 0) {
        int error = errno;
        TAV_LOG(0, "raidStop: ioctl(mdFD, STOP_ARRAY errno:%d %s %s:%d\n", error, strerror(error), TAV_FILE, __LINE__);
        // Stopped already.
        if (error == ENODEV) rc = 0;
    }
    plat::close(fd);
    return rc;
}

// --- members ---

namespace {

// How one member operation differs from the others.
struct MemberOp {
    unsigned long request;
    const char* statFormat;  // the member's stat failed: strerror, name (and file, line)
    const char* openFormat;  // the parent could not be opened: its name
    int openFailure;
};

const MemberOp kAdd{HOT_ADD_DISK, "raidAdd: stat : %s opening:%s %s:%d\n", "raidAdd: can't open %s for reading\n", 19};
const MemberOp kFaulty{SET_DISK_FAULTY, "raidSetFaulty: stat : %s opening:%s\n",
                       "raidSetFaulty: can't open %s for reading\n", -1};
const MemberOp kRemove{HOT_REMOVE_DISK, "raidRemove: stat : %s opening:%s\n", "raidRemove: can't open %s for reading\n",
                       -1};

// The member's stat failing does not stop the call: the kernel then names
// device 0, which no array holds.
int memberCall(const MemberOp& op, const std::string& member, const char* parentName, bool& opened)
{
    struct stat st {};
    if (plat::stat(member.c_str(), &st) != 0) {
        TAV_LOG(0, op.statFormat, strerror(errno), member.c_str(), TAV_FILE, __LINE__);
        st.st_rdev = 0;
    }
    opened = false;
    int fd = parentName ? plat::open(parentName, O_RDONLY) : -1;
    if (fd < 0) {
        TAV_LOG(0, op.openFormat, parentName ? parentName : "(no parent)");
        return op.openFailure;
    }
    opened = true;
    int rc = plat::ioctl(fd, op.request, deviceArg(st.st_rdev));
    int error = errno;
    plat::close(fd);
    errno = error;
    return rc;
}

} // namespace

int TavMdRaidDevice::raidAdd()
{
    bool opened = false;
    int rc = memberCall(kAdd, deviceName, getParentName(), opened);
    if (!opened) return rc;
    if (rc != 0) {
        rc = errno;
        TAV_LOG(0, "rc:%d errno:%d %s:%d\n", rc, rc, TAV_FILE, __LINE__);
        if (rc == EBUSY || rc == EEXIST) {
            // In place already.
            TAV_LOG(0, "rc == EBUSY || rc == EEXIST %s:%d\n", TAV_FILE, __LINE__);
            rc = 0;
        }
    }
    if (rc == 0) setActive(1);
    return rc;
}

int TavMdRaidDevice::raidSetFaulty()
{
    bool opened = false;
    int rc = memberCall(kFaulty, deviceName, getParentName(), opened);
    if (!opened) return rc;
    if (rc != 0) TAV_LOG(0, "raidSetFaulty: SET_DISK_FAULTY errno:%d %s %s:%d\n", errno, strerror(errno), TAV_FILE, __LINE__);
    // The kernel settles.
    plat::sleep(2);
    return rc;
}

int TavMdRaidDevice::raidRemove()
{
    bool opened = false;
    int rc = memberCall(kRemove, deviceName, getParentName(), opened);
    if (opened && rc != 0)
        TAV_LOG(0, "raidRemove: HOT_REMOVE_DISK errno:%d %s %s:%d\n", errno, strerror(errno), TAV_FILE, __LINE__);
    return rc;
}

int TavMdRaidDevice::addToOS()
{
    for (int i = 0; i < getSubdeviceCount(); ++i) getSubdevice(i)->addToOS();
    if (description.deviceType == DISK) TavDriveMgr::addToOS(getDeviceNum());
    return 0;
}

// --- status ---

TavRaidDevice::RaidStatus TavMdRaidDevice::checkRaidStatus()
{
    if (description.deviceType == ARRAY) return checkRaidStatus(deviceName.c_str());
    return parent ? parent->checkRaidStatus() : OFF;
}

TavRaidDevice::RaidStatus TavMdRaidDevice::checkRaidStatus(const char* device)
{
    mdu_array_info_t info{};
    if (!statusQuery(device, info)) return OFF;
    if (info.working_disks == 0) return OFF;
    if (info.level == 0 && info.working_disks < info.raid_disks) return OFF;
    if (info.level == 1 && info.active_disks < info.working_disks) {
        // A new member waiting that does not sync.
        DiskStatus entries[kMemberEntries];
        getDiskInfo(device, kMemberEntries, entries);
        if (!hasEntry(entries, kMemberEntries, DISK_REBUILDING)) return NOT_REBUILDING;
    }
    if (info.working_disks >= info.raid_disks && info.failed_disks == 0)
        return info.active_disks < info.working_disks ? REBUILDING : NOMINAL;
    return DEGRADED;
}

TavRaidDevice::RaidStatus TavMdRaidDevice::checkRaidStatusEx(const char* device)
{
    mdu_array_info_t info{};
    if (!statusQuery(device, info)) return OFF;
    if (info.active_disks == 0) return OFF;
    if (info.level == 0 && info.active_disks < info.raid_disks) return OFF;
    if ((info.level == 1 || info.level == 5) && info.active_disks < info.raid_disks) {
        DiskStatus entries[kMemberEntries];
        getDiskInfo(device, kMemberEntries, entries);
        int inSync = 0;
        bool rebuilding = false;
        for (DiskStatus entry : entries) {
            if (entry == DISK_NOMINAL)
                ++inSync;
            else if (entry != DISK_FAULTY && entry != DISK_OFF)
                rebuilding = true;
        }
        if (inSync == info.raid_disks) return NOMINAL;
        if (inSync < info.raid_disks && rebuilding) return REBUILDING;
    }
    return info.active_disks < info.raid_disks ? DEGRADED : NOMINAL;
}

int TavMdRaidDevice::getActiveDeviceCount(const char* device)
{
    mdu_array_info_t info{};
    info.active_disks = 3;
    getArrayInfo(device, &info);
    return info.active_disks;
}

bool TavMdRaidDevice::isRebuilding()
{
    return description.raidLevel > 0 && isRebuilding(deviceName.c_str());
}

bool TavMdRaidDevice::isRebuilding(const char* device)
{
    mdu_array_info_t info{};
    if (!queryArray(device, info, nullptr, "errno:%d dev:%s %s:%d\n")) return false;
    if (!((info.level == 1 || info.level == 5) && info.active_disks < info.raid_disks)) return false;
    DiskStatus entries[kMemberEntries];
    getDiskInfo(device, kMemberEntries, entries);
    return hasEntry(entries, kMemberEntries, DISK_REBUILDING);
}

void TavMdRaidDevice::getArrayInfo(const char* device, mdu_array_info_t* info)
{
    int fd = plat::open(device, O_RDONLY);
    if (fd < 0) {
        if (errno != EINVAL) TAV_LOG(0, "GET_ARRAY_INFO %s device:%s %s:%d\n", strerror(errno), device, TAV_FILE, __LINE__);
        return;
    }
    mdu_array_info_t got{};
    if (plat::ioctl(fd, GET_ARRAY_INFO, &got) != 0) {
        // EINVAL: an array that is not running.
        if (errno != EINVAL) TAV_LOG(0, "GET_ARRAY_INFO %s device:%s %s:%d\n", strerror(errno), device, TAV_FILE, __LINE__);
    } else {
        *info = got;
        TAV_LOG(TAV_LOG_L20,
                "%s major:%d minor:%d patch:%d ctime:%d level:%d size:%d nr:%d raid:%d md_minor:%d not_persistent:%d "
                "utime:%d state:%d active:%d working:%d failed:%d spare:%d layout:%d chunk:%d\n",
                device, got.major_version, got.minor_version, got.patch_version, got.ctime, got.level, got.size,
                got.nr_disks, got.raid_disks, got.md_minor, got.not_persistent, got.utime, got.state,
                got.active_disks, got.working_disks, got.failed_disks, got.spare_disks, got.layout, got.chunk_size);
    }
    plat::close(fd);
}

void TavMdRaidDevice::getDiskInfo(const char* device, int count, DiskStatus* out)
{
    for (int i = 0; i < count; ++i) out[i] = DISK_OFF;
    int fd = plat::open(device, O_RDONLY);
    if (fd < 0) return;
    for (int number = 0; number < count; ++number) {
        mdu_disk_info_t disk{};
        disk.number = number;
        if (plat::ioctl(fd, GET_DISK_INFO, &disk) != 0) {
            if (errno != EINVAL) TAV_LOG(0, "%s device:%s %s:%d\n", strerror(errno), device, TAV_FILE, __LINE__);
            break;
        }
        TAV_LOG(TAV_LOG_L10, "number:%d major:%d minor:%d raid_disk:%d state:%d\n", disk.number, disk.major,
                disk.minor, disk.raid_disk, disk.state);
        int index = memberIndex(disk.major, disk.minor);
        // Entries beyond the caller's array are not stored.
        if (index >= 0 && index < count) out[index] = memberStatus(disk.state);
    }
    plat::close(fd);
}

void TavMdRaidDevice::getDiskInfo(int, DiskStatus* out)
{
    getDiskInfo(deviceName.c_str(), MAX_DISKS, out);
    for (int i = 0; i < getSubdeviceCount(); ++i) {
        DiskStatus scratch[MAX_DISKS];
        getSubdevice(i)->getDiskInfo(MAX_DISKS, scratch);
        overlay(out, scratch);
    }
}

// --- rebuild rates ---

int TavMdRaidDevice::getRebuildRate(const char* path)
{
    int fd = plat::open(path, O_RDONLY);
    if (fd < 0) {
        TAV_LOG(0, "cannot open %s for reading %s:%d\n", path, TAV_FILE, __LINE__);
        return -1;
    }
    char text[256] = {};
    ssize_t got = tav_read(fd, text, sizeof text - 1);
    plat::close(fd);
    if (got < 0) return -1;
    return static_cast<int>(strtol(text, nullptr, 10));
}

int TavMdRaidDevice::setRebuildRate(int rate, const char* first, const char* second)
{
    char text[32];
    int length = snprintf(text, sizeof text, "%d\n", rate);
    for (const char* path : {first, second}) {
        int fd = plat::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) {
            TAV_LOG(0, "cannot open %s for writing %s:%d\n", path, TAV_FILE, __LINE__);
            return 1;
        }
        tav_write(fd, text, static_cast<size_t>(length));
        plat::close(fd);
    }
    return 0;
}

int TavMdRaidDevice::getMinRebuildRate()
{
    int rate = currentRate(kMinRate);
    setMinRebuildRate(rate);
    return rate;
}

int TavMdRaidDevice::getMaxRebuildRate()
{
    int rate = currentRate(kMaxRate);
    setMaxRebuildRate(rate);
    return rate;
}

int TavMdRaidDevice::setMinRebuildRate(int rate) { return storeRate(kMinRate, rate); }

int TavMdRaidDevice::setMaxRebuildRate(int rate) { return storeRate(kMaxRate, rate); }

int setMinMdRebuildRate(int rate) { return TavMdRaidDevice::setRebuildRate(rate, kProcMinRate, ""); }

int setMaxMdRebuildRate(int rate) { return TavMdRaidDevice::setRebuildRate(rate, kProcMaxRate, ""); }

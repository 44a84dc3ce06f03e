// The signature store of the drive manager: the in-memory signature, read
// from the freshest drive, changed in memory, and written back to both copies
// on every drive.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <unistd.h>

#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavlock.h"
#include "driveutils/tavraiddevices.h"
#include "hwlib/tavhwid.h"
#include "platform/platform.h"
#include "platform/tavio.h"
#include "tavutils/tav_error.h"
#include "tavutils/tavobxinfo.h"
#include "tavutils/tavvectorp.h"

static int giDebug_tavsignature = 0;
#define TAV_DEBUG_FLAG giDebug_tavsignature
#include "driveutils/tavlog.h"

using RaidDeviceMgmt::TavDrive;

const char* const DISK_SERIALNOS_FILE = "/etc/marrowby/disk.serialnos";

namespace {

constexpr int kSerialRecord = 64;
constexpr int kModuleTag = 32;
constexpr int kTableGrowth = 10;

// A copy stands in the signature partition, read from its start: no count of
// a header can name more sectors than the partition holds behind the header.
// Larger counts come only from damaged or foreign bytes; they are cut here so
// that nothing is allocated beyond that, and the read then fails at the end
// of the partition as it would have without the cut.
constexpr uint32_t kMaxSignatureSectors = SIGNATURE_PARTITION_SECTORS - 1;

int cappedCount(uint32_t count) { return static_cast<int>(std::min(count, kMaxSignatureSectors)); }

template <typename T>
std::vector<T> zeroedTables(int count)
{
    try {
        return std::vector<T>(static_cast<size_t>(count));
    } catch (const std::bad_alloc&) {
        throw tav_enomem("new failed");
    }
}

// Reads `size` bytes; false after logging a short or failed read.
bool readAll(int fd, void* data, size_t size, const char* function)
{
    ssize_t got = tav_read(fd, data, size);
    if (got == static_cast<ssize_t>(size)) return true;
    if (got < 0)
        TAV_LOG_SYSFAIL("read", function);
    else
        TAV_LOG_SHORT(function, "read", got, size);
    return false;
}

bool writeAll(int fd, const void* data, size_t size, const char* function)
{
    ssize_t got = tav_write(fd, data, size);
    if (got == static_cast<ssize_t>(size)) return true;
    if (got < 0)
        TAV_LOG_SYSFAIL("write", function);
    else
        TAV_LOG_SHORT(function, "write", got, size);
    return false;
}

// An absolute seek that must land where asked.
bool seekTo(int fd, off_t offset, const char* function)
{
    off_t at = tav_lseek(fd, offset, SEEK_SET);
    if (at == offset) return true;
    if (at < 0)
        TAV_LOG_SYSFAIL("lseek", function);
    else
        TAV_LOG(0, "%s: lseek to %lld landed at %lld %s:%d\n", function, static_cast<long long>(offset),
                static_cast<long long>(at), TAV_FILE, __LINE__);
    return false;
}

// Fixed-width text: copied up to the field's size, the rest zero.
void copyText(char* field, size_t size, const std::string& text)
{
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

// The tables of one copy, after the header and the records.
struct RaidTables {
    std::vector<SECT_DEVICE_TABLE> devices;
    std::vector<SECT_STRING_TABLE> strings;

    bool read(int fd, const SECT_INDEX_TABLE& h, const char* function)
    {
        devices = zeroedTables<SECT_DEVICE_TABLE>(cappedCount(h.numDeviceTables));
        strings = zeroedTables<SECT_STRING_TABLE>(cappedCount(h.numStringTables));
        return readAll(fd, devices.data(), devices.size() * SECTOR_SIZE, function) &&
               readAll(fd, strings.data(), strings.size() * SECTOR_SIZE, function);
    }
    // The type of the first device record; a block without device tables
    // describes no devices, as a type of 0 does.
    int firstDeviceType() const { return devices.empty() ? 0 : devices[0].devices[0].deviceType; }
    TavRaidDevices* tree()
    {
        try {
            return new TavRaidDevices(devices.data(), strings.data(), static_cast<int>(devices.size()),
                                      static_cast<int>(strings.size()));
        } catch (const std::bad_alloc&) {
            throw tav_enomem("new failed");
        }
    }
};

// The tables a copy is written from: always one zeroed table of each, then
// what the device tree adds. The vectors own their tables here.
struct OutTables {
    TavVectorP<SECT_DEVICE_TABLE> devices{kTableGrowth};
    TavVectorP<SECT_STRING_TABLE> strings{kTableGrowth};

    ~OutTables()
    {
        for (int i = 0; i < devices.size(); ++i) delete devices[i];
        for (int i = 0; i < strings.size(); ++i) delete strings[i];
    }
    template <typename T>
    static T* zeroed()
    {
        try {
            return new T();
        } catch (const std::bad_alloc&) {
            throw tav_enomem("new failed");
        }
    }
    template <typename T>
    static bool write(int fd, const TavVectorP<T>& tables, const char* function)
    {
        for (int i = 0; i < tables.size(); ++i)
            if (!writeAll(fd, tables[i], sizeof(T), function)) return false;
        return true;
    }
};

// Opens a drive's signature partition read-only, asks `attempt` of the first
// copy, and when that fails logs `retryText` and asks it of the second copy.
// `failed(rc)` tells a failed attempt; the result is the last attempt's.
template <typename Result, typename Attempt, typename Failed>
Result withBothCopies(int driveID, const char* function, const char* retryText, Result none, Attempt attempt,
                      Failed failed)
{
    TavDrive* drive = TavDriveMgr::getDrive(driveID);
    if (!drive) {
        TAV_LOG(0, "cannot find drive %d %s:%d\n", driveID, TAV_FILE, __LINE__);
        return none;
    }
    std::string partition = drive->getSignaturePartitionName();
    int fd = plat::open(partition.c_str(), O_RDONLY);
    if (fd < 0) {
        TAV_LOG(0, "can't open %s for reading %s:%d\n", partition.c_str(), TAV_FILE, __LINE__);
        return none;
    }
    Result result = attempt(fd);
    if (failed(result)) {
        TAV_LOG(0, retryText, partition.c_str(), TAV_FILE, __LINE__);
        if (!seekTo(fd, static_cast<off_t>(drive->getSignatureCopyOffset()), function)) {
            plat::close(fd);
            return none;
        }
        result = attempt(fd);
    }
    plat::close(fd);
    return result;
}

// The header of a copy, from the descriptor's position, with its hash checked.
bool readCheckedHeader(int fd, SECT_INDEX_TABLE& h, const char* function, const char* hashText)
{
    if (!readAll(fd, &h, sizeof h, function)) return false;
    if (!tavSectorHashValid(&h)) {
        TAV_LOG(0, hashText, TAV_FILE, __LINE__);
        return false;
    }
    return true;
}

} // namespace

// --- the in-memory table ---------------------------------------------------------

void TavDriveMgr::allocDriveTable(int ndrives)
{
    if (ndrives <= numHardDriveSignatures) return;
    SECT_AUTO_RAID* grown;
    try {
        grown = new SECT_AUTO_RAID[static_cast<size_t>(ndrives)]();
    } catch (...) {
        throw tav_enomem("new failed");
    }
    if (hardDrives) std::memcpy(grown, hardDrives, sizeof(SECT_AUTO_RAID) * static_cast<size_t>(numHardDriveSignatures));
    delete[] hardDrives;
    hardDrives = grown;
    // A signature may claim more records than the platform has drives: the
    // surplus is held and never looked at.
    numHardDriveSignatures = std::min(ndrives, nDrives);
}

int TavDriveMgr::cleanup()
{
    delete[] hardDrives;
    hardDrives = nullptr;
    numHardDriveSignatures = 0;
    return 0;
}

// A position below 1 has no record either.
SECT_AUTO_RAID* TavDriveMgr::findDriveDescription(int driveID)
{
    if (driveID > numHardDriveSignatures || driveID < 1 || !hardDrives) return nullptr;
    return &hardDrives[driveID - 1];
}

// --- reading -------------------------------------------------------------------

// The tables end up from the first drive, in position order, holding the
// largest llLastDismountTime: only a strictly newer stamp replaces them.
void TavDriveMgr::readSignatureIntoMemory()
{
    long long timestamp = -1;
    for (int position = 1; position <= nDrives; ++position)
        if (checkDrive(position) == 0) readSignature(position, &timestamp);
}

int TavDriveMgr::readSignature(int driveID, long long* timestamp)
{
    TavDrive* drive = getDrive(driveID);
    if (!drive) {
        TAV_LOG(0, "cannot find drive %d %s:%d\n", driveID, TAV_FILE, __LINE__);
        return -1;
    }
    std::string partition = drive->getSignaturePartitionName();
    int fd = plat::open(partition.c_str(), O_RDONLY);
    if (fd < 0) {
        TAV_LOG(0, "can't open persistent signature source %s for reading %s:%d\n", partition.c_str(), TAV_FILE,
                __LINE__);
        return -1;
    }
    if (readSignature(driveID, fd, timestamp) == 0) {
        plat::close(fd);
        return 0;
    }
    TAV_LOG(0, "failed to read 1st signature block on %s %s:%d\n", partition.c_str(), TAV_FILE, __LINE__);
    if (!seekTo(fd, static_cast<off_t>(drive->getSignatureCopyOffset()), "readSignature")) {
        plat::close(fd);
        return -1;
    }
    int rc = readSignature(driveID, fd, timestamp);
    if (rc != 0) TAV_LOG(0, "failed to read 2nd signature block on %s %s:%d\n", partition.c_str(), TAV_FILE, __LINE__);
    plat::close(fd);
    return rc;
}

// The header comes from the descriptor's position, everything else from
// absolute offsets of the partition: on the fallback to the second copy the
// header is the second copy's and the rest the first's. Kept as it stands.
int TavDriveMgr::readSignature(int driveID, int signFD, long long* timestamp)
{
    static const char* const kFunction = "readSignature";
    TavLocked lock(accessMutex);
    std::memset(&header, 0, sizeof header);
    if (!readAll(signFD, &header, sizeof header, kFunction)) return 3;
    const int diskTables = cappedCount(header.numDiskTables);
    allocDriveTable(diskTables);

    SECT_AUTO_RAID record{};
    if (!seekTo(signFD, static_cast<off_t>(driveID) * SECTOR_SIZE, kFunction) ||
        !readAll(signFD, &record, sizeof record, kFunction))
        return 3;
    if (record.llLastDismountTime <= *timestamp) return 0;
    *timestamp = record.llLastDismountTime;

    if (!seekTo(signFD, SECTOR_SIZE, kFunction)) return 3;
    for (int i = 0; i < diskTables; ++i)
        if (!readAll(signFD, &hardDrives[i], sizeof(SECT_AUTO_RAID), kFunction)) return 3;
    RaidTables tables;
    if (!tables.read(signFD, header, kFunction)) return 3;
    // A block with no device type keeps an older tree.
    if (tables.firstDeviceType() == 0) return 0;
    TAV_LOG(TAV_LOG_L10, "readSignature: device type:%d %s:%d\n", tables.firstDeviceType(), TAV_FILE, __LINE__);
    delete devices;
    devices = tables.tree();
    return 0;
}

int TavDriveMgr::readUmountTime(int driveID, long long* utime)
{
    return withBothCopies<int>(
        driveID, "readUmountTime", "readUmountTime failed for %s %s:%d\n", -1,
        [&](int fd) { return readUmountTime(fd, driveID, utime); }, [](int rc) { return rc != 0; });
}

int TavDriveMgr::readUmountTime(int partFD, int driveID, long long* utime)
{
    static const char* const kFunction = "readUmountTime";
    SECT_INDEX_TABLE h;
    if (!readAll(partFD, &h, sizeof h, kFunction)) return 3;
    if (!tavSectorHashValid(&h)) {
        TAV_LOG(0, "signature hash incorrect %s:%d\n", TAV_FILE, __LINE__);
        return 2;
    }
    for (uint32_t count = 1; count <= h.numDiskTables; ++count) {
        SECT_AUTO_RAID record;
        if (!readAll(partFD, &record, sizeof record, kFunction)) return 3;
        if (static_cast<int64_t>(count) == driveID) {
            *utime = record.llLastDismountTime;
            return 0;
        }
    }
    return 10;
}

TavRaidDevices* TavDriveMgr::readDevices(int driveID)
{
    return withBothCopies<TavRaidDevices*>(
        driveID, "readDevices", "readDevices failed for %s %s:%d\n", nullptr,
        [&](int fd) { return readDevices(fd, driveID); }, [](TavRaidDevices* tree) { return tree == nullptr; });
}

// Sequential reads: works on either copy.
TavRaidDevices* TavDriveMgr::readDevices(int partFD, int)
{
    static const char* const kFunction = "readDevices";
    SECT_INDEX_TABLE h;
    if (!readCheckedHeader(partFD, h, kFunction, "signatureIndex hash incorrect %s:%d\n")) return nullptr;
    std::vector<SECT_AUTO_RAID> records = zeroedTables<SECT_AUTO_RAID>(cappedCount(h.numDiskTables));
    if (!readAll(partFD, records.data(), records.size() * SECTOR_SIZE, kFunction)) return nullptr;
    RaidTables tables;
    if (!tables.read(partFD, h, kFunction) || tables.firstDeviceType() == 0) return nullptr;
    TAV_LOG(TAV_LOG_L10, "%s: device type:%d %s:%d\n", kFunction, tables.firstDeviceType(), TAV_FILE, __LINE__);
    return tables.tree();
}

// --- writing -------------------------------------------------------------------

// The first copy's failure does not stop the second; the result is the second's.
int TavDriveMgr::writeSignature(int driveID)
{
    TavDrive* drive = getDrive(driveID);
    if (!drive) {
        TAV_LOG(0, "cannot find drive %d %s:%d\n", driveID, TAV_FILE, __LINE__);
        return 1;
    }
    std::string partition = drive->getSignaturePartitionName();
    int fd = plat::open(partition.c_str(), O_WRONLY | O_SYNC);
    if (fd < 0) {
        int error = errno;
        TAV_LOG(0, "can't open %s to write error:%d:%s %s:%d\n", partition.c_str(), error, strerror(error), TAV_FILE,
                __LINE__);
        return 1;
    }
    int rc = writeSignature(driveID, fd);
    if (rc != 0) TAV_LOG(0, "writeSignature failed on %s ec:%d %s:%d\n", partition.c_str(), rc, TAV_FILE, __LINE__);
    if (!seekTo(fd, static_cast<off_t>(drive->getSignatureCopyOffset()), "writeSignature")) {
        plat::close(fd);
        return -1;
    }
    rc = writeSignature(driveID, fd);
    plat::close(fd);
    plat::sync();
    drive->flushWriteCache();
    return rc;
}

int TavDriveMgr::writeSignature(int driveID, int fd)
{
    static const char* const kFunction = "writeSignature";
    OutTables tables;
    TavLocked lock(accessMutex);
    tables.devices.add(OutTables::zeroed<SECT_DEVICE_TABLE>());
    tables.strings.add(OutTables::zeroed<SECT_STRING_TABLE>());
    if (devices) devices->buildTables(&tables.devices, &tables.strings);

    header.numDiskTables = static_cast<uint32_t>(numHardDriveSignatures);
    header.numDeviceTables = static_cast<uint32_t>(tables.devices.size());
    header.numStringTables = static_cast<uint32_t>(tables.strings.size());
    TavDrive* drive = getDrive(driveID);
    std::string serial;
    // Without an answer the serial number already in the header stays.
    if (drive && drive->getSerialNo(serial) == 0) {
        TAV_LOG(TAV_LOG_L10, "writeSignature:updating header Serial number [%d] %s\n", driveID, serial.c_str());
        copyText(header.caSerialNumber, sizeof header.caSerialNumber, serial);
    }
    tavSetSectorHash(&header);

    bool ok = writeAll(fd, &header, sizeof header, kFunction);
    TAV_LOG(TAV_LOG_L50, "writing %d drives:\n", numHardDriveSignatures);
    for (int i = 0; ok && i < numHardDriveSignatures; ++i)
        ok = writeAll(fd, &hardDrives[i], sizeof(SECT_AUTO_RAID), kFunction);
    TAV_LOG(TAV_LOG_L50, "writing %d device tables\n", tables.devices.size());
    ok = ok && OutTables::write(fd, tables.devices, kFunction);
    TAV_LOG(TAV_LOG_L50, "writing %d string tables\n", tables.strings.size());
    ok = ok && OutTables::write(fd, tables.strings, kFunction);
    // A copy whose fsync failed is not known to be on the disk: a failure too.
    if (ok && plat::fsync(fd) != 0) {
        TAV_LOG_SYSFAIL("fsync", kFunction);
        ok = false;
    }
    if (drive) drive->flushWriteCache();
    return ok ? 0 : 1;
}

int TavDriveMgr::createDriveSignature(int driveID, int serialNumOnly)
{
    TavDrive* drive = getDrive(driveID);
    if (!drive) {
        TAV_LOG(0, "cannot find drive %d %s:%d\n", driveID, TAV_FILE, __LINE__);
        return -1;
    }
    TavLocked lock(accessMutex);
    allocDriveTable(driveID);
    SECT_AUTO_RAID& record = hardDrives[driveID - 1];
    const int64_t mounted = record.llLastMountTime, dismounted = record.llLastDismountTime;
    std::memset(&record, 0, sizeof record);
    record.llLastMountTime = mounted;
    record.llLastDismountTime = dismounted;
    if (serialNumOnly == 0) record.uLastOrder = static_cast<uint32_t>(driveID);

    std::string serial;
    int rc = drive->getSerialNo(serial);
    if (rc != 0) return rc;
    copyText(record.caSerialNumber, sizeof record.caSerialNumber, serial);
    TAV_LOG(TAV_LOG_L5, "%d ser #:%s ", driveID, serial.c_str());
    if (serialNumOnly == 0) {
        const char* module = TavObxInfo::getSerialNumber();
        copyText(record.caMotherboardTag, kModuleTag, std::string(module, strnlen(module, kModuleTag)));
    }
    tavSetSectorHash(&record);
    return 0;
}

// --- stamps ----------------------------------------------------------------------

namespace {

template <typename Field>
long long latestStamp(Field field)
{
    long long latest = 0;
    for (int position = 1; position <= TavDriveMgr::numHardDriveSignatures; ++position) {
        if (TavDriveMgr::checkDrive(position) != 0) continue;
        SECT_AUTO_RAID* record = TavDriveMgr::findDriveDescription(position);
        if (record && field(*record) > latest) latest = field(*record);
    }
    return latest;
}

} // namespace

long long TavDriveMgr::getLatestMountTime()
{
    return latestStamp([](const SECT_AUTO_RAID& r) { return r.llLastMountTime; });
}

long long TavDriveMgr::getLatestUnmountTime()
{
    return latestStamp([](const SECT_AUTO_RAID& r) { return r.llLastDismountTime; });
}

// Neither stamp setter renews the record's hash: it goes stale, and no reader
// looks at it. Only setUnmountTime reports a missing record.
void TavDriveMgr::setMountTime(int driveID, long long utime)
{
    TAV_LOG(0, "setMountTime: drive:%d time:%lld %s:%d\n", driveID, utime, TAV_FILE, __LINE__);
    TavLocked lock(accessMutex);
    if (SECT_AUTO_RAID* record = findDriveDescription(driveID)) record->llLastMountTime = utime;
}

void TavDriveMgr::setUnmountTime(int driveID, long long utime)
{
    TavLocked lock(accessMutex);
    if (SECT_AUTO_RAID* record = findDriveDescription(driveID))
        record->llLastDismountTime = utime;
    else
        TAV_LOG(0, "cannot find drive desc for drive %d %s:%d\n", driveID, TAV_FILE, __LINE__);
}

bool TavDriveMgr::getUnmountTime(int driveID, long long& utime)
{
    TavLocked lock(accessMutex);
    const SECT_AUTO_RAID* record = findDriveDescription(driveID);
    if (record) utime = record->llLastDismountTime;
    return record != nullptr;
}

// --- the serial-number list --------------------------------------------------------

namespace {

// A temporary file beside the list; -1 after logging.
int makeTemporary(std::string& name)
{
    std::string templ = std::string(DISK_SERIALNOS_FILE) + "XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    int fd = plat::mkstemp(buffer.data());
    if (fd < 0) {
        TAV_LOG(0, "cannot open %s for writing %s %s:%d\n", buffer.data(), strerror(errno), TAV_FILE, __LINE__);
        return -1;
    }
    name = buffer.data();
    return fd;
}

void replaceList(const std::string& temporary)
{
    if (plat::rename(temporary.c_str(), DISK_SERIALNOS_FILE) != 0) TAV_LOG_SYSFAIL("rename", "writeSerialNumbers");
    plat::sync();
}

bool sameSerial(const char* record, const char* serial) { return std::strncmp(record, serial, kSerialRecord) == 0; }

} // namespace

void TavDriveMgr::writeSerialNumbers()
{
    if (!raidRunning()) return;
    hwid_model_id* model = hwid_getModelInfo(nullptr);
    int id = model ? static_cast<int>(model->id) : -1;
    hwid_freeModelInfo(model);
    if (id != 5 && id != 8 && id != 11) return;
    std::string temporary;
    int fd = makeTemporary(temporary);
    if (fd < 0) return;
    for (int position = 1; position <= nDrives; ++position) {
        if (!isActive(position)) continue;
        allocDriveTable(position);
        writeAll(fd, hardDrives[position - 1].caSerialNumber, kSerialRecord, "writeSerialNumbers");
    }
    plat::close(fd);
    replaceList(temporary);
}

int TavDriveMgr::removeFromValidList(TavDrive* drivep)
{
    static const char* const kFunction = "removeFromValidList";
    int in = plat::open(DISK_SERIALNOS_FILE, O_RDONLY);
    if (in < 0) {
        TAV_LOG(0, "cannot open %s for writing %s %s:%d\n", DISK_SERIALNOS_FILE, strerror(errno), TAV_FILE, __LINE__);
        return -1;
    }
    std::string temporary;
    int out = makeTemporary(temporary);
    if (out < 0) {
        plat::close(in);
        return -1;
    }
    std::string target;
    drivep->getSerialNo(target);
    char wanted[kSerialRecord] = {};
    std::memcpy(wanted, target.data(), std::min(target.size(), sizeof wanted));

    bool ok = true;
    char record[kSerialRecord];
    for (;;) {
        ssize_t got = tav_read(in, record, sizeof record);
        if (got == 0) break;
        if (got != static_cast<ssize_t>(sizeof record)) {
            if (got < 0)
                TAV_LOG_SYSFAIL("read", kFunction);
            else
                TAV_LOG_SHORT(kFunction, "read", got, sizeof record);
            ok = false;
            break;
        }
        if (sameSerial(record, wanted)) continue;
        if (!writeAll(out, record, sizeof record, kFunction)) {
            ok = false;
            break;
        }
    }
    plat::close(in);
    plat::close(out);
    // On failure the temporary file stays behind.
    if (!ok) return -1;
    replaceList(temporary);
    return 0;
}

bool validSerialNumber(const char* serial)
{
    int fd = plat::open(DISK_SERIALNOS_FILE, O_RDONLY);
    if (fd < 0) return true;
    bool found = false;
    char record[kSerialRecord];
    for (;;) {
        ssize_t got = tav_read(fd, record, sizeof record);
        if (got != static_cast<ssize_t>(sizeof record)) {
            if (got > 0) TAV_LOG_SHORT("validSerialNumber", "read", got, sizeof record);
            break;
        }
        if (sameSerial(record, serial)) {
            found = true;
            break;
        }
    }
    plat::close(fd);
    return found;
}

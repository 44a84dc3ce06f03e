#include "driveutils/tavdrive.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "platform/tavio.h"
#include "tavutils/tavobxinfo.h"

static int giDebug_sample = 0;
#define TAV_DEBUG_FLAG giDebug_sample
#include "driveutils/tavlog.h"

namespace RaidDeviceMgmt {

namespace {

constexpr int kDebug = 5;
constexpr int kTrace = 10;
constexpr int kPingBytes = 5000;
constexpr int kModuleSerialSize = 32;

bool allZero(const void* data, size_t size)
{
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i)
        if (bytes[i]) return false;
    return true;
}

// A fixed-width text field of a record, which need not be terminated.
std::string fieldText(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

// Reads one sector; false after logging a short or failed read.
bool readSector(int fd, void* sector, const char* function)
{
    ssize_t got = tav_read(fd, sector, SECTOR_SIZE);
    if (got == SECTOR_SIZE) return true;
    if (got < 0)
        TAV_LOG_SYSFAIL("read", function);
    else
        TAV_LOG_SHORT(function, "read", got, SECTOR_SIZE);
    return false;
}

// Failures of validatePartitions go to the log stream with file and line.
class StreamReporter final : public TavPartitionReporter {
public:
    void noTable() override { report("no partition table ", __LINE__); }
    void failed(const TavPartitionCheck& check) override { report(check.failure, __LINE__); }
    void wrongSignatureSize(uint32_t count) override
    {
        tav_logstream << "signature size:" << count << " " << TAV_FILE << ":" << __LINE__ << std::endl;
    }

private:
    static void report(const char* text, int line) { tav_logstream << text << TAV_FILE << ":" << line << std::endl; }
};

} // namespace

// --- TavDevice ---------------------------------------------------------------

TavDevice::TavDevice(const char* name) : file(name ? name : "") {}

TavDevice::~TavDevice() = default;

int TavDevice::open(int flags) { return plat::open(file.c_str(), flags); }

int TavDevice::close(int fd) { return plat::close(fd); }

std::ostream& operator<<(std::ostream& out, const TavDevice& device) { return out << device.getFile(); }

// --- TavDrive ----------------------------------------------------------------

const char* const TavDrive::signaturePartitionExtension = "part1";
const char* const TavDrive::dataPartitionExtension = "part2";
const char* const TavDrive::bootPartitionExtension = "part3";
const char* const TavDrive::activeOsPartitionExtension = "part5";
const char* const TavDrive::upgradePartitionExtension = "part6";
const char* const TavDrive::osLogPartitionExtension = "part7";
const char* const TavDrive::genericDeviceExtension = "generic";

TavDrive::TavDrive(int driveNumber, const char* name) : TavDevice(name), number(driveNumber), minor(-1)
{
    setDeviceNum();
}

TavDrive::~TavDrive() = default;

std::string TavDrive::constructPartitionName(const std::string& base, const std::string& extension)
{
    size_t slash = base.rfind('/');
    return base.substr(0, slash == std::string::npos ? 0 : slash) + "/" + extension;
}

long long TavDrive::getSignatureCopyOffset() { return kSignatureCopyOffset; }

void TavDrive::runScript(const char* script)
{
    std::string command = std::string(script) + " " + getBaseName();
    tav_system(command.c_str());
}

void TavDrive::addToOsRaid()
{
    runScript("/etc/marrowby/tav_osraid start");
    flushWriteCache();
}

void TavDrive::removeFromOsRaid() { runScript("/etc/marrowby/tav_osraid stop"); }

void TavDrive::initBootSector()
{
    runScript("/etc/marrowby/tav_cpboot");
    flushWriteCache();
    runScript("/etc/marrowby/tav_lilo");
    flushWriteCache();
}

int TavDrive::startOsRaid() { return 0; }

bool TavDrive::pingLogicalDrive()
{
    int fd = plat::open(getOSPartitionName().c_str(), O_RDONLY);
    if (fd < 0) return false;
    char buffer[kPingBytes];
    ssize_t got = tav_read(fd, buffer, sizeof buffer);
    plat::close(fd);
    return got == kPingBytes;
}

bool TavDrive::pingPhysicalDrive()
{
    uint32_t capacity = 0;
    return getCapacity(capacity) == 0;
}

int TavDrive::getBiosVersion(std::string& text)
{
    text.clear();
    return 0;
}

int TavDrive::getFirmwareVersion(std::string& text)
{
    text.clear();
    return 0;
}

int TavDrive::getControllerModel(std::string& text)
{
    text.clear();
    return 0;
}

int TavDrive::getController() { return 0; }
int TavDrive::getTarget() { return 0; }
int TavDrive::GetHardDriveWriteCache(std::string&) { return 1; }
int TavDrive::flushWriteCache() { return 0; }
bool TavDrive::ataPassThroughEnabled() { return false; }
int TavDrive::ioctlSmartAtaPassThrough(unsigned char*, unsigned char, int, int) { return -1; }
int TavDrive::checkReservationStatus(std::string&) { return 0; }

std::string TavDrive::getBaseName() const
{
    std::string base = file;
    size_t at = base.find("disc");
    if (at != std::string::npos) base.erase(at, 4);
    return base;
}

std::string TavDrive::getSignaturePartitionName() { return constructPartitionName(file, signaturePartitionExtension); }
std::string TavDrive::getDataPartitionName() { return constructPartitionName(file, dataPartitionExtension); }
std::string TavDrive::getBootPartitionName() { return constructPartitionName(file, bootPartitionExtension); }
std::string TavDrive::getUpgradePartitionName() { return constructPartitionName(file, upgradePartitionExtension); }
std::string TavDrive::getLogPartitionName() { return constructPartitionName(file, osLogPartitionExtension); }
std::string TavDrive::getOSPartitionName() { return constructPartitionName(file, activeOsPartitionExtension); }

int TavDrive::setDeviceNum()
{
    struct stat st;
    int rc = plat::stat(file.c_str(), &st);
    minor = rc == 0 ? static_cast<int>(st.st_rdev & 0xFF) : -1;
    return rc;
}

void TavDrive::printPartitionNames(std::ostream& out)
{
    out << "signaturePartition: " << getSignaturePartitionName() << " bootPartition: " << getBootPartitionName()
        << " upgradePartition: " << getUpgradePartitionName();
}

int TavDrive::getClass(unsigned short capability, std::string& text)
{
    text = tavCapabilityClass(capability);
    return 0;
}

int TavDrive::readPartition(int fd, long long offset, _one_sector* sectors, int index, int max)
{
    return tavWalkPartitions(fd, offset, sectors, index, max);
}

// --- Signature verdicts --------------------------------------------------------

template <typename Verdict, typename OpenFailed, typename FirstFailed>
int TavDrive::withSignatureCopies(Verdict verdict, OpenFailed openFailed, FirstFailed firstFailed)
{
    std::string partition = getSignaturePartitionName();
    int fd = plat::open(partition.c_str(), O_RDONLY);
    if (fd < 0) {
        openFailed(partition);
        return 3;
    }
    int rc = verdict(fd);
    // Only a failed read falls back to the second copy, never a wrong verdict.
    if (rc == 3) {
        firstFailed(partition);
        off_t offset = static_cast<off_t>(getSignatureCopyOffset());
        off_t at = tav_lseek(fd, offset, SEEK_SET);
        if (at != offset) {
            if (at < 0)
                TAV_LOG_SYSFAIL("lseek", "validateSignature");
            else
                TAV_LOG(0, "lseek to %lld gave %lld on %s %s:%d\n", static_cast<long long>(offset),
                        static_cast<long long>(at), partition.c_str(), TAV_FILE, __LINE__);
            close(fd);
            return 3;
        }
        rc = verdict(fd);
    }
    close(fd);
    return rc;
}

int TavDrive::validateSignature(long long* mountTime)
{
    return withSignatureCopies(
        [&](int fd) { return validateSignature(fd, mountTime); },
        [&](const std::string& partition) {
            TAV_LOG(0, "can't open signature partition %s %s:%d\n", partition.c_str(), TAV_FILE, __LINE__);
        },
        [&](const std::string&) {
            TAV_LOG(0, "validateSignature failed on %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        });
}

int TavDrive::getPreviousPosition(int* position)
{
    return withSignatureCopies(
        [&](int fd) { return getPreviousPosition(fd, position); },
        [&](const std::string& partition) { TAV_LOG(0, "can't open signature partition %s\n", partition.c_str()); },
        [&](const std::string&) {
            TAV_LOG(0, "getPreviousPosition failed on %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        });
}

// The order of these tests defines the codes.
int TavDrive::validateSignature(int fd, long long* mountTime)
{
    std::string serial;
    if (getSerialNo(serial) != 0) {
        TAV_LOG(0, "getSerialNo failed for %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return 4;
    }
    TAV_LOG(kDebug, "verifyDriveSignature %d ser #: %s %s:%d\n", number, serial.c_str(), TAV_FILE, __LINE__);

    char moduleSerial[kModuleSerialSize] = {};
    if (const char* text = TavObxInfo::getSerialNumber())
        std::memcpy(moduleSerial, text, strnlen(text, sizeof moduleSerial));

    SECT_INDEX_TABLE header;
    if (!readSector(fd, &header, "validateSignature")) return 3;

    // The bound is the platform's drive count, not the header's: the loop may
    // read on into device tables, which never match.
    SECT_AUTO_RAID record{};
    bool hit = false;
    for (int i = 1; i <= TavDriveMgr::nDrives && !hit; ++i) {
        if (!readSector(fd, &record, "validateSignature")) return 3;
        hit = fieldText(record.caSerialNumber, sizeof record.caSerialNumber) == serial;
    }
    if (!hit) TAV_LOG(0, "no entry matches %s %s:%d\n", serial.c_str(), TAV_FILE, __LINE__);
    if (mountTime) *mountTime = record.llLastMountTime;

    if (allZero(&header, sizeof header) && allZero(&record, sizeof record)) {
        TAV_LOG(0, "no signature on %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return 7;
    }
    if (!tavSectorHashValid(&header)) {
        TAV_LOG(0, "signatureIndex hash incorrect on %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return 2;
    }
    std::string headerSerial = fieldText(header.caSerialNumber, sizeof header.caSerialNumber);
    if (headerSerial != serial) {
        TAV_LOG(0, "sig sn:%s drive sn:%s on %s %s:%d\n", headerSerial.c_str(), serial.c_str(), file.c_str(),
                TAV_FILE, __LINE__);
        return 1;
    }
    if (!hit) {
        TAV_LOG(0, "drive %s not in signature table %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return 10;
    }
    if (allZero(record.caMotherboardTag, sizeof record.caMotherboardTag) && record.uLastOrder == 0) return 9;
    if (std::memcmp(record.caMotherboardTag, moduleSerial, sizeof moduleSerial) != 0) return 5;
    return static_cast<int>(record.uLastOrder) == number ? 0 : 6;
}

// Like validateSignature, with differences that are kept: the loop follows the
// header's count, no hit is a foreign drive before the hash is looked at, and
// the module's serial number plays no part.
int TavDrive::getPreviousPosition(int fd, int* position)
{
    std::string serial;
    if (getSerialNo(serial) != 0) {
        TAV_LOG(0, "getSerialNo failed for %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return 4;
    }
    TAV_LOG(kDebug, "%s %s ser #: %s %s:%d\n", "getPreviousPosition", file.c_str(), serial.c_str(), TAV_FILE,
            __LINE__);

    SECT_INDEX_TABLE header;
    if (!readSector(fd, &header, "getPreviousPosition")) return 3;

    SECT_AUTO_RAID record{};
    bool hit = false;
    // A header may claim any count: the loop ends at the first short read.
    for (uint64_t i = 1; i <= header.numDiskTables && !hit; ++i) {
        if (!readSector(fd, &record, "getPreviousPosition")) return 3;
        std::string recordSerial = fieldText(record.caSerialNumber, sizeof record.caSerialNumber);
        TAV_LOG(kTrace, "sig serial #:%s %s:%d\n", recordSerial.c_str(), TAV_FILE, __LINE__);
        hit = recordSerial == serial;
    }
    if (!hit) {
        TAV_LOG(0, "no entry matches %s %s:%d\n", serial.c_str(), TAV_FILE, __LINE__);
        return 1;
    }
    if (allZero(&header, sizeof header) && allZero(&record, sizeof record)) return 7;
    if (!tavSectorHashValid(&header)) {
        TAV_LOG(0, "signatureIndex hash incorrect\n");
        return 2;
    }
    if (allZero(record.caMotherboardTag, 8) && record.uLastOrder == 0) return 9;
    *position = static_cast<int>(record.uLastOrder);
    return 0;
}

int TavDrive::validatePartitions()
{
    int fd = open(O_RDONLY);
    if (fd < 0) {
        TAV_LOG(0, "validatePartitions open %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return 3;
    }
    _one_sector sectors[PARTITION_WALK_MAX] = {};
    int rc = readPartition(fd, 0, sectors, 0, PARTITION_WALK_MAX);
    close(fd);
    if (rc != 0) {
        TAV_LOG(0, "validatePartitions readPartition %s %s:%d\n", file.c_str(), TAV_FILE, __LINE__);
        return rc;
    }
    StreamReporter report;
    return tavCheckPartitionLayout(sectors, report);
}

} // namespace RaidDeviceMgmt

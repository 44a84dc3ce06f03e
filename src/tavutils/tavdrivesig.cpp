#include "tavutils/tavdrivesig.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <nettle/md2.h>
#include <unistd.h>

#include "platform/platform.h"
#include "platform/tavio.h"

static int giDebug_sample = 0;
#define TAV_DEBUG_FLAG giDebug_sample
#include "driveutils/tavlog.h"

void tavSectorHash(const void* sector, uint8_t hash[SECTOR_HASH_SIZE])
{
    md2_ctx ctx;
    md2_init(&ctx);
    md2_update(&ctx, SECTOR_SIZE - SECTOR_HASH_SIZE, static_cast<const uint8_t*>(sector) + SECTOR_HASH_SIZE);
    md2_digest(&ctx, SECTOR_HASH_SIZE, hash);
}

void tavSetSectorHash(void* sector)
{
    uint8_t hash[SECTOR_HASH_SIZE];
    tavSectorHash(sector, hash);
    std::memcpy(sector, hash, SECTOR_HASH_SIZE);
}

bool tavSectorHashValid(const void* sector)
{
    uint8_t hash[SECTOR_HASH_SIZE];
    tavSectorHash(sector, hash);
    return std::memcmp(sector, hash, SECTOR_HASH_SIZE) == 0;
}

namespace {

constexpr int kDebug = 10;

// "<call>: <error text>, <file>:<line>", the failure form of this unit.
#define LOG_CALL_FAILED(call) TAV_LOG(0, "%s: %s, %s:%d\n", (call), strerror(errno), TAV_FILE, __LINE__)

// Offsets in the 512 bytes of ATA identify data.
constexpr int kIdentifySize = 512;
constexpr int kIdSerial = 20, kIdSerialLen = 20;
constexpr int kIdModel = 54, kIdModelLen = 40;
constexpr int kIdLbaCapacity = 120;
constexpr int kIdUltraDma = 176;

const char* const kSignatureTexts[] = {
    "OK:",
    "FOREIGNUNIT: incorrect serial number",
    "FOREIGNUNIT: incorrect hash of data",
    "UNKNOWNUNIT: read failure",
    "UNKNOWNUNIT: a system call failed",
    "TAVUNIT_OBX: incorrect ethernet id ",
    "TAVUNIT_POSITION: position changed",
    "FOREIGNUNIT: no signature",
    "FOREIGNUNIT: incorrect partition table",
    "OK: the drive is a new Marrowby Networks drive",
    "unknown",
    "UNINITIALIZEDUNIT: drive not used in VRD",
    "LUN_UNKWN: LUN reservation status unknown",
    "LUN_NOT_RSVD: LUN not reserved-enabled",
    "LUN_RSVD_OTHER:LUN reserved by other",
    "OK: drive was used in VRD",
};

// Reads the identify data of dev: 0, -10 or -11.
int readIdentity(const char* dev, uint8_t (&id)[kIdentifySize])
{
    std::memset(id, 0, sizeof id);
    int fd = plat::open(dev, O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        LOG_CALL_FAILED("Open");
        return -10;
    }
    int rc = plat::ioctl(fd, HDIO_GET_IDENTITY, id);
    if (rc < 0) LOG_CALL_FAILED("ioctl");
    plat::close(fd);
    return rc < 0 ? -11 : 0;
}

// Copies a fixed-width identity text, bounded by the field and by len.
void copyIdText(char* out, int len, const uint8_t* field, int fieldLen)
{
    if (len <= 0) return;
    int n = 0;
    while (n < fieldLen && n < len - 1 && field[n]) {
        out[n] = static_cast<char>(field[n]);
        ++n;
    }
    out[n] = '\0';
}

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t* p) { return le16(p) | static_cast<uint32_t>(le16(p + 2)) << 16; }

bool allZero(const void* data, size_t size)
{
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i)
        if (bytes[i]) return false;
    return true;
}

void setEntry(_part_info& entry, uint8_t type, uint32_t start, uint32_t count)
{
    entry.ucOSType = type;
    entry.ulAbsoluteSectorOffset = start;
    entry.ulAbsoluteSectorCount = count;
}

// One table sector to write at a sector of the disk.
struct TableWrite {
    long long sector;
    _one_sector table;
};

} // namespace

const char* getDriveSignatureText(int code)
{
    constexpr int count = static_cast<int>(sizeof kSignatureTexts / sizeof kSignatureTexts[0]);
    return (code >= 0 && code < count) ? kSignatureTexts[code] : "unknown";
}

const char* tavCapabilityClass(unsigned short capability)
{
    struct ClassBits {
        unsigned short bits;
        const char* text;
    };
    static const ClassBits classes[] = {
        {0x0101, "UDMA 8MB"},  {0x0202, "UDMA 16MB"},  {0x0404, "UDMA 33MB"},  {0x0808, "UDMA 45MB"},
        {0x1010, "UDMA 66MB"}, {0x2020, "UDMA 100MB"}, {0x4040, "UDMA 133MB"},
    };
    for (const ClassBits& c : classes)
        if ((capability & c.bits) == c.bits) return c.text;
    return "";
}

int getDriveCapacity(const char* dev, char* out, int len)
{
    uint8_t id[kIdentifySize];
    int rc = readIdentity(dev, id);
    if (rc == 0 && len > 0) snprintf(out, static_cast<size_t>(len), "%d", static_cast<int>(le32(id + kIdLbaCapacity)));
    return rc;
}

int getDriveMode(const char* dev, char* out, int len)
{
    uint8_t id[kIdentifySize];
    int rc = readIdentity(dev, id);
    if (rc != 0) return rc;
    const char* mode = tavCapabilityClass(le16(id + kIdUltraDma));
    if (*mode && len > 0) snprintf(out, static_cast<size_t>(len), "%s", mode);
    return 0;
}

int getDriveModel(const char* dev, char* out, int len)
{
    uint8_t id[kIdentifySize];
    int rc = readIdentity(dev, id);
    if (rc == 0) copyIdText(out, len, id + kIdModel, kIdModelLen);
    return rc;
}

int getDriveSerialNumber(const char* dev, char* out, int len)
{
    uint8_t id[kIdentifySize];
    int rc = readIdentity(dev, id);
    if (rc == 0) copyIdText(out, len, id + kIdSerial, kIdSerialLen);
    return rc;
}

// --- Writing tables ----------------------------------------------------------

namespace {

// Opens the disk for writing and reads its size and geometry; -1 when it does not open.
int openDiskForTables(const char* diskID, uint32_t& sectors, hd_geometry& geometry)
{
    int fd = plat::open(diskID, O_WRONLY);
    if (fd < 0) {
        LOG_CALL_FAILED("open");
        TAV_LOG(0, "can't open %s for writing\n", diskID);
        return -1;
    }
    unsigned long size = 0;
    if (plat::ioctl(fd, BLKGETSIZE, &size) < 0) size = 0;
    sectors = static_cast<uint32_t>(size);   // a 32-bit unsigned long on the appliance
    std::memset(&geometry, 0, sizeof geometry);
    if (plat::ioctl(fd, HDIO_GETGEO, &geometry) < 0) std::memset(&geometry, 0, sizeof geometry);
    return fd;
}

// Writes the tables in order; 0, or 2 after logging a failed write.
int writeTables(int fd, const TableWrite* tables, int count)
{
    for (int i = 0; i < count; ++i) {
        off_t at = static_cast<off_t>(tables[i].sector) * SECTOR_SIZE;
        if (tav_lseek(fd, at, SEEK_SET) != at ||
            tav_write(fd, &tables[i].table, SECTOR_SIZE) != SECTOR_SIZE) {
            LOG_CALL_FAILED("write");
            return 2;
        }
    }
    return 0;
}

// Asks the kernel to re-read the table, once more after a sync and a pause; 0 or 3.
int rereadTable(int fd)
{
    if (plat::ioctl(fd, BLKRRPART) == 0) return 0;
    LOG_CALL_FAILED("BLKRRPART 1st try");
    plat::sync();
    plat::sleep(2);
    if (plat::ioctl(fd, BLKRRPART) == 0) return 0;
    LOG_CALL_FAILED("sd ioctl - BLKRRPART");
    return 3;
}

// Writes the tables, re-reads them and closes: 0, 2 or 3.
int finishTables(int fd, const TableWrite* tables, int count)
{
    int rc = writeTables(fd, tables, count);
    if (rc == 0) rc = rereadTable(fd);
    plat::close(fd);
    return rc;
}

_one_sector emptyTable()
{
    _one_sector table{};
    table.usSignature = PARTITION_TABLE_MAGIC;
    return table;
}

} // namespace

int buildPartitions(const char* diskID, uint32_t osPartitionSize, uint32_t os2PartitionSize,
                    uint32_t dataPartitionSize, uint32_t logPartitionSize, int32_t bootPartitionSize, bool twologs)
{
    uint32_t diskSectors = 0;
    hd_geometry geometry;
    int fd = openDiskForTables(diskID, diskSectors, geometry);
    if (fd < 0) return 1;
    TAV_LOG(kDebug, "creating partitions...\n");

    // 32-bit arithmetic throughout, as on the appliance.
    if (dataPartitionSize == 0)
        dataPartitionSize = diskSectors - osPartitionSize - os2PartitionSize - logPartitionSize - 0x6000u;
    if (bootPartitionSize < 1) bootPartitionSize = 20480;
    const uint32_t os = osPartitionSize;
    const uint32_t os2 = os2PartitionSize;
    const uint32_t log = logPartitionSize;
    const uint32_t O = os + os2;
    const uint32_t L = twologs ? 2 * log : log;
    const uint32_t X = twologs ? 2 : 0;
    const uint32_t E = 22529 + dataPartitionSize;

    TableWrite tables[5];
    int count = 0;
    auto next = [&](long long sector) -> _one_sector& {
        tables[count].sector = sector;
        tables[count].table = emptyTable();
        return tables[count++].table;
    };

    _one_sector& primary = next(0);
    setEntry(primary.spiaPartitions[0], PARTITION_TYPE_LINUX, 1, SIGNATURE_PARTITION_SECTORS);
    setEntry(primary.spiaPartitions[1], PARTITION_TYPE_LINUX, 22529, dataPartitionSize);
    setEntry(primary.spiaPartitions[2], PARTITION_TYPE_LINUX, 2049, static_cast<uint32_t>(bootPartitionSize));
    setEntry(primary.spiaPartitions[3], PARTITION_TYPE_EXTENDED, E, 6 + O + L + X);

    _one_sector& first = next(E);
    setEntry(first.spiaPartitions[0], PARTITION_TYPE_LINUX, 1, os);
    setEntry(first.spiaPartitions[1], PARTITION_TYPE_EXTENDED, os + 2, 4 + os2 + L + X);

    _one_sector& second = next(static_cast<long long>(E) + os + 2);
    setEntry(second.spiaPartitions[0], PARTITION_TYPE_LINUX, 1, os2);
    setEntry(second.spiaPartitions[1], PARTITION_TYPE_EXTENDED, O + 4, L + 2 + X);

    _one_sector& third = next(static_cast<long long>(E) + O + 4);
    setEntry(third.spiaPartitions[0], PARTITION_TYPE_LINUX, 1, log);
    if (twologs) {
        setEntry(third.spiaPartitions[1], PARTITION_TYPE_EXTENDED, log + 6 + O, log + 2);
        _one_sector& fourth = next(static_cast<long long>(E) + O + 6 + log);
        setEntry(fourth.spiaPartitions[0], PARTITION_TYPE_LINUX, 1, log);
    }
    return finishTables(fd, tables, count);
}

int buildDataPartition(const char* diskID, uint32_t dataPartitionSize)
{
    uint32_t diskSectors = 0;
    hd_geometry geometry;
    int fd = openDiskForTables(diskID, diskSectors, geometry);
    if (fd < 0) return 1;
    TAV_LOG(kDebug, "Creating data partition with size %lu", static_cast<unsigned long>(dataPartitionSize));
    TAV_LOG(kDebug, "creating data partition...\n");
    if (dataPartitionSize == 0) {
        TAV_LOG(0, "invalid data partition size");
        plat::close(fd);
        return 1;
    }
    TableWrite table{0, emptyTable()};
    const uint32_t start = geometry.sectors;
    setEntry(table.table.spiaPartitions[1], PARTITION_TYPE_LINUX, start, dataPartitionSize - start);
    return finishTables(fd, &table, 1);
}

// --- Reading tables ----------------------------------------------------------

namespace {

// The walk shared by the drive classes (with a result) and the free form
// (which logs the table signature and stops silently).
int walk(int fd, long long offset, _one_sector* sectors, int index, int max, bool freeForm)
{
    if (index >= max) return 0;
    ssize_t got = tav_read(fd, &sectors[index], SECTOR_SIZE);
    if (got != SECTOR_SIZE) {
        if (freeForm) return 0;
        if (got < 0)
            TAV_LOG_SYSFAIL("read", "readPartition");
        else
            TAV_LOG_SHORT("readPartition", "read", got, SECTOR_SIZE);
        return 3;
    }
    const _one_sector& table = sectors[index];
    if (freeForm) TAV_LOG(kDebug, "table signature:%x\n", table.usSignature);
    for (const _part_info& part : table.spiaPartitions)
        TAV_LOG(kDebug, "fs:%d start:%lu size:%lu\n", part.ucOSType,
                static_cast<unsigned long>(part.ulAbsoluteSectorOffset / 2),
                static_cast<unsigned long>(part.ulAbsoluteSectorCount / 2));

    const _part_info* link = nullptr;
    for (const _part_info& part : table.spiaPartitions)
        if (part.ucOSType == PARTITION_TYPE_EXTENDED) {
            link = &part;
            break;
        }
    if (!link) return 0;

    long long current = static_cast<long long>(link->ulAbsoluteSectorOffset) * SECTOR_SIZE + offset;
    TAV_LOG(kDebug, "last offset:%lld current offset:%lld\n", offset, current);
    if (tav_lseek(fd, static_cast<off_t>(current), SEEK_SET) != static_cast<off_t>(current)) {
        if (freeForm) return 0;
        // Probe the device: if it still seeks, the table pointed outside it.
        return tav_lseek(fd, 1, SEEK_SET) == 1 ? 8 : 3;
    }
    // Logical links are relative to the start of the extended partition.
    long long nextOffset = offset == 0 ? current : offset;
    walk(fd, nextOffset, sectors, index + 1, max, freeForm);
    return 0;
}

} // namespace

void readPartition(int fd, long long offset, _one_sector* sectors, int index, int max)
{
    walk(fd, offset, sectors, index, max, true);
}

int tavWalkPartitions(int fd, long long offset, _one_sector* sectors, int index, int max)
{
    return walk(fd, offset, sectors, index, max, false);
}

const TavPartitionCheck tavPartitionChecks[] = {
    {0, 2, PARTITION_TYPE_LINUX, false, "boot partition not linux ", "boot type:%d offset:%ld count:%ld\n"},
    {0, 1, PARTITION_TYPE_LINUX, false, "data partition not linux ", "data type:%d offset:%ld count:%ld\n"},
    {0, 0, PARTITION_TYPE_LINUX, true, "signature partition not linux ", "signature type:%d offset:%ld count:%ld\n"},
    {0, 3, PARTITION_TYPE_EXTENDED, false, "extended partition not extended ", "extended type:%d offset:%ld count:%ld\n"},
    {1, 0, PARTITION_TYPE_LINUX, false, "os partition not linux ", "os type:%d offset:%ld count:%ld\n"},
    {1, 1, PARTITION_TYPE_EXTENDED, false, "extended partition not extended ", "extended type:%d offset:%ld count:%ld\n"},
    {2, 0, PARTITION_TYPE_LINUX, false, "upgrade partition not linux ", "upgrade type:%d offset:%ld count:%ld\n"},
    {2, 1, PARTITION_TYPE_EXTENDED, false, "extended partition not extended ", "extended type:%d offset:%ld count:%ld\n"},
    {3, 0, PARTITION_TYPE_LINUX, false, "log partition not linux ", "log type:%d offset:%ld count:%ld\n"},
};

int tavCheckPartitionLayout(const _one_sector* sectors, TavPartitionReporter& report)
{
    if (allZero(&sectors[0], SECTOR_SIZE)) {
        report.noTable();
        return 8;
    }
    for (const TavPartitionCheck& check : tavPartitionChecks) {
        const _part_info& part = sectors[check.sector].spiaPartitions[check.entry];
        if (part.ucOSType != check.type) {
            report.failed(check);
            return 8;
        }
        if (check.signatureSize && part.ulAbsoluteSectorCount != SIGNATURE_PARTITION_SECTORS) {
            report.wrongSignatureSize(part.ulAbsoluteSectorCount);
            return 8;
        }
        TAV_LOG(kDebug, check.debugLine, part.ucOSType, static_cast<long>(part.ulAbsoluteSectorOffset),
                static_cast<long>(part.ulAbsoluteSectorCount));
    }
    return 0;
}

namespace {

// Failures of verifyDrivePartitions go to the log with file and line.
class LogReporter final : public TavPartitionReporter {
public:
    void noTable() override { TAV_LOG(0, "no partition table %s:%d\n", TAV_FILE, __LINE__); }
    void failed(const TavPartitionCheck& check) override
    {
        TAV_LOG(0, "%s%s:%d\n", check.failure, TAV_FILE, __LINE__);
    }
    void wrongSignatureSize(uint32_t count) override
    {
        TAV_LOG(0, "signature size:%ld %s:%d\n", static_cast<long>(count), TAV_FILE, __LINE__);
    }
};

} // namespace

int verifyDrivePartitions(const char* dev)
{
    int fd = plat::open(dev, O_RDONLY);
    if (fd < 0) {
        LOG_CALL_FAILED("open");
        return 3;
    }
    _one_sector sectors[PARTITION_WALK_MAX] = {};
    readPartition(fd, 0, sectors, 0, PARTITION_WALK_MAX);
    plat::close(fd);
    LogReporter report;
    return tavCheckPartitionLayout(sectors, report);
}

void getCHS(uint32_t size, uint8_t* head, uint8_t* sector, uint8_t* cyl, const hd_geometry* diskGeometry,
            uint32_t cylSize)
{
    const uint32_t H = diskGeometry->heads;
    const uint32_t S = diskGeometry->sectors;
    // A zero geometry has no CHS form: give the overflow form instead of dividing by zero.
    if (S != 0 && H != 0 && cylSize != 0) {
        uint32_t s = size % S + 1;
        uint32_t h = (size / S) % H;
        uint32_t c = size / cylSize;
        if (h < 256 && s < 64 && c < 1024) {
            *head = static_cast<uint8_t>(h);
            *sector = static_cast<uint8_t>(s | ((c >> 2) & 0xC0));
            *cyl = static_cast<uint8_t>(c & 0xFF);
            return;
        }
    }
    *head = static_cast<uint8_t>(H - 1);
    *sector = static_cast<uint8_t>(S | 0xC0);
    *cyl = 255;
}

SECT_AUTO_RAID* readSignature(char letter, SECT_INDEX_TABLE* header, SECT_AUTO_RAID* records, int count)
{
    TAV_LOG(kDebug, "readSignature drive:%c \n", letter);
    char device[16];
    snprintf(device, sizeof device, "/dev/hd%c1", letter);
    std::memset(header, 0, sizeof *header);
    if (count > 0) std::memset(records, 0, sizeof *records * static_cast<size_t>(count));
    int fd = plat::open(device, O_RDONLY);
    if (fd < 0) return nullptr;
    ssize_t got = tav_read(fd, header, SECTOR_SIZE);
    if (got != SECTOR_SIZE) {
        TAV_LOG(0, "readSignature: only read %d table header bytes from %s\n", static_cast<int>(got), device);
        plat::close(fd);
        return nullptr;
    }
    ssize_t want = static_cast<ssize_t>(count) * SECTOR_SIZE;
    got = count > 0 ? tav_read(fd, records, static_cast<size_t>(want)) : 0;
    plat::close(fd);
    if (got != want) {
        TAV_LOG(0, "readSignature: only read %d drive info bytes from %s\n", static_cast<int>(got), device);
        return nullptr;
    }
    int index = letter - 'a';
    // A letter past the records read has no record.
    return (index >= 0 && index < count) ? &records[index] : nullptr;
}

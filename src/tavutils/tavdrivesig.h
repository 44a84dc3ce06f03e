// On-disk records of the drive signature and the MS-DOS partition table.
// All integers are little-endian; every record is one 512-byte sector unless
// noted. The records are packed so that their layout is exactly the disk's.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "records are stored in host order");

#pragma pack(push, 1)

// Header of one signature copy.
struct SECT_INDEX_TABLE {
    uint8_t caSectorHash[16];    // MD2 of bytes 16..511
    uint32_t numDiskTables;      // SECT_AUTO_RAID sectors that follow
    uint32_t numDeviceTables;
    uint32_t numStringTables;
    char caSerialNumber[64];     // serial number of the drive this copy stands on
    uint8_t pad[412];            // carried along as read
    int64_t llNext;              // never set or followed
};

// The record of one drive position.
struct SECT_AUTO_RAID {
    uint8_t caSectorHash[16];    // written, never verified
    char caUniqueTag[64];
    char caCpuTag[32];
    char caMotherboardTag[32];   // serial number of the owning module
    int64_t llLastMountTime;
    int64_t llLastDismountTime;
    uint32_t uLastOrder;         // 1-based position when the record was made
    uint32_t uCleanDismount;
    char caSerialNumber[64];     // serial number of the drive at this position
    uint8_t pad[280];
};

// One node of the RAID device tree, 24 bytes.
struct SECT_RAID_DEV {
    uint32_t deviceNum;
    int16_t deviceType;
    int16_t raidLevel;
    uint32_t numDevices;
    int16_t isActive;
    int16_t reserved;
    int32_t stringTable;
    int32_t stringIndex;
};

struct SECT_DEVICE_TABLE {
    static constexpr int kRecords = 21;
    SECT_RAID_DEV devices[kRecords];
    uint8_t pad[8];
};

// Entries of one length byte and that many bytes of text, no terminator.
struct SECT_STRING_TABLE {
    uint8_t data[512];
};

// Declared in the format, used by nothing; a reader must not expect it.
struct SECT_RAID_DISK_SET {
    uint8_t caSectorHash[16];
    char caDiskSerialNo[16][30];
    uint8_t caReserved[8];
    int64_t llNext;
};

// A standard MS-DOS partition entry, 16 bytes.
struct _part_info {
    uint8_t ucBootFlag;
    uint8_t ucStartHead;
    uint8_t ucStartSector;
    uint8_t ucStartCylinder;
    uint8_t ucOSType;
    uint8_t ucEndHead;
    uint8_t ucEndSector;
    uint8_t ucEndCylinder;
    uint32_t ulAbsoluteSectorOffset;
    uint32_t ulAbsoluteSectorCount;
};

// A partition table sector.
struct _one_sector {
    uint8_t ucaBootCode[446];
    _part_info spiaPartitions[4];
    uint16_t usSignature;
};

#pragma pack(pop)

constexpr int SECTOR_SIZE = 512;
constexpr uint16_t PARTITION_TABLE_MAGIC = 0xAA55;

static_assert(sizeof(SECT_INDEX_TABLE) == 512);
static_assert(offsetof(SECT_INDEX_TABLE, numDiskTables) == 16);
static_assert(offsetof(SECT_INDEX_TABLE, numDeviceTables) == 20);
static_assert(offsetof(SECT_INDEX_TABLE, numStringTables) == 24);
static_assert(offsetof(SECT_INDEX_TABLE, caSerialNumber) == 28);
static_assert(offsetof(SECT_INDEX_TABLE, pad) == 92);
static_assert(offsetof(SECT_INDEX_TABLE, llNext) == 504);

static_assert(sizeof(SECT_AUTO_RAID) == 512);
static_assert(offsetof(SECT_AUTO_RAID, caUniqueTag) == 16);
static_assert(offsetof(SECT_AUTO_RAID, caCpuTag) == 80);
static_assert(offsetof(SECT_AUTO_RAID, caMotherboardTag) == 112);
static_assert(offsetof(SECT_AUTO_RAID, llLastMountTime) == 144);
static_assert(offsetof(SECT_AUTO_RAID, llLastDismountTime) == 152);
static_assert(offsetof(SECT_AUTO_RAID, uLastOrder) == 160);
static_assert(offsetof(SECT_AUTO_RAID, uCleanDismount) == 164);
static_assert(offsetof(SECT_AUTO_RAID, caSerialNumber) == 168);
static_assert(offsetof(SECT_AUTO_RAID, pad) == 232);

static_assert(sizeof(SECT_RAID_DEV) == 24);
static_assert(offsetof(SECT_RAID_DEV, deviceType) == 4);
static_assert(offsetof(SECT_RAID_DEV, raidLevel) == 6);
static_assert(offsetof(SECT_RAID_DEV, numDevices) == 8);
static_assert(offsetof(SECT_RAID_DEV, isActive) == 12);
static_assert(offsetof(SECT_RAID_DEV, stringTable) == 16);
static_assert(offsetof(SECT_RAID_DEV, stringIndex) == 20);

static_assert(sizeof(SECT_DEVICE_TABLE) == 512);
static_assert(offsetof(SECT_DEVICE_TABLE, pad) == 504);
static_assert(sizeof(SECT_STRING_TABLE) == 512);

static_assert(sizeof(SECT_RAID_DISK_SET) == 512);
static_assert(offsetof(SECT_RAID_DISK_SET, caDiskSerialNo) == 16);
static_assert(offsetof(SECT_RAID_DISK_SET, caReserved) == 496);
static_assert(offsetof(SECT_RAID_DISK_SET, llNext) == 504);

static_assert(sizeof(_part_info) == 16);
static_assert(offsetof(_part_info, ucOSType) == 4);
static_assert(offsetof(_part_info, ulAbsoluteSectorOffset) == 8);
static_assert(offsetof(_part_info, ulAbsoluteSectorCount) == 12);
static_assert(sizeof(_one_sector) == 512);
static_assert(offsetof(_one_sector, spiaPartitions) == 446);
static_assert(offsetof(_one_sector, usSignature) == 510);

// The hash of a signature sector: MD2 of the 496 bytes behind its 16-byte
// hash field.
constexpr int SECTOR_HASH_SIZE = 16;
void tavSectorHash(const void* sector, uint8_t hash[SECTOR_HASH_SIZE]);
// Stores the hash in the sector's first 16 bytes.
void tavSetSectorHash(void* sector);
// Whether the first 16 bytes are the hash of the rest.
bool tavSectorHashValid(const void* sector);

// --- Signature codes -------------------------------------------------------

// The verdict texts of the signature codes; "unknown" for any other value.
const char* getDriveSignatureText(int code);

// --- ATA identity queries ----------------------------------------------------
// 0 on success, -10 when the device does not open, -11 when the ioctl fails.

int getDriveCapacity(const char* dev, char* out, int len);
int getDriveMode(const char* dev, char* out, int len);
int getDriveModel(const char* dev, char* out, int len);
int getDriveSerialNumber(const char* dev, char* out, int len);

// The transfer class named by an identify capability word ("UDMA 100MB"),
// or the empty text when none applies.
const char* tavCapabilityClass(unsigned short capability);

// --- Partition tables --------------------------------------------------------

// Sizes in sectors. 0 good; 1 the disk did not open (or a bad size); 2 a
// table write failed; 3 the kernel did not re-read the table.
int buildPartitions(const char* diskID, uint32_t osPartitionSize, uint32_t os2PartitionSize,
                    uint32_t dataPartitionSize, uint32_t logPartitionSize, int32_t bootPartitionSize,
                    bool twologs);
int buildDataPartition(const char* diskID, uint32_t dataPartitionSize);

// Walks the table chain from the descriptor's position into sectors[index..max).
// The free form keeps no result; tavWalkPartitions gives 0, 3 (read failure)
// or 8 (a link that leads outside the device).
void readPartition(int fd, long long offset, _one_sector* sectors, int index, int max);
int tavWalkPartitions(int fd, long long offset, _one_sector* sectors, int index, int max);

// The expected layout, tested in order on the table sectors of a walk.
constexpr int PARTITION_WALK_MAX = 12;
constexpr uint32_t SIGNATURE_PARTITION_SECTORS = 2048;
constexpr uint8_t PARTITION_TYPE_LINUX = 0x83;
constexpr uint8_t PARTITION_TYPE_EXTENDED = 0x05;

struct TavPartitionCheck {
    int sector;              // table sector of the walk
    int entry;               // 0-based entry
    uint8_t type;            // required type byte
    bool signatureSize;      // the entry must also be SIGNATURE_PARTITION_SECTORS long
    const char* failure;     // text of a failed type check
    const char* debugLine;   // format with type, offset and count, logged on a pass
};

class TavPartitionReporter {
public:
    virtual ~TavPartitionReporter() = default;
    virtual void noTable() = 0;
    virtual void failed(const TavPartitionCheck& check) = 0;
    virtual void wrongSignatureSize(uint32_t count) = 0;
};

// 0 when every check passes, else 8 after one report. Passes log their debug line.
int tavCheckPartitionLayout(const _one_sector* sectors, TavPartitionReporter& report);

// 0, 3 (open failed) or 8, with the checks above and log-format messages.
int verifyDrivePartitions(const char* dev);

// Converts a sector number to CHS bytes of a table entry.
struct hd_geometry;
void getCHS(uint32_t size, uint8_t* head, uint8_t* sector, uint8_t* cyl, const hd_geometry* diskGeometry,
            uint32_t cylSize);

// Reads the header and `count` records of the old IDE naming "/dev/hd<letter>1";
// the record of the letter's position, or null.
SECT_AUTO_RAID* readSignature(char letter, SECT_INDEX_TABLE* header, SECT_AUTO_RAID* records, int count);

// The wire records between the controller API and the two controller
// drivers, their request and control codes, the firmware opcodes, and each
// family's parameter table: for every information item, the table number,
// the parameter number and the size on the wire, or "absent" where the
// family has no such item.
//
// Everything here is fixed layout, little-endian, and constexpr, so that the
// simulated firmware can answer from the same numbers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tw_api/tw_api.h"

// ---------------------------------------------------------------------------
// Firmware commands.

// The 512-byte command of the 7000 family.
struct TAG_GP_Command {
    uint8_t byte0;       // opcode in the low 5 bits, scatter list offset in the high 3
    uint8_t size;        // command size in 32-bit words
    uint8_t request_id;
    uint8_t byte3;       // unit in the low 4 bits
    uint8_t status;      // set by the controller
    uint8_t flags;       // set by the controller
    uint16_t byte6;      // parameter count, and others by opcode
    uint8_t byte8[504];  // the opcode's own data
};
static_assert(sizeof(TAG_GP_Command) == 512);
static_assert(offsetof(TAG_GP_Command, byte0) == 0);
static_assert(offsetof(TAG_GP_Command, size) == 1);
static_assert(offsetof(TAG_GP_Command, request_id) == 2);
static_assert(offsetof(TAG_GP_Command, byte3) == 3);
static_assert(offsetof(TAG_GP_Command, status) == 4);
static_assert(offsetof(TAG_GP_Command, flags) == 5);
static_assert(offsetof(TAG_GP_Command, byte6) == 6);
static_assert(offsetof(TAG_GP_Command, byte8) == 8);

// The buffer of a 7000 driver call. The data follows the record at offset
// 1024 (sizeof(TAG_TW_New_Ioctl)).
struct TAG_TW_New_Ioctl {
    uint32_t data_buffer_length;
    uint8_t padding[508];
    TAG_GP_Command firmware_command;
};
static_assert(sizeof(TAG_TW_New_Ioctl) == 1024);
static_assert(offsetof(TAG_TW_New_Ioctl, data_buffer_length) == 0);
static_assert(offsetof(TAG_TW_New_Ioctl, padding) == 4);
static_assert(offsetof(TAG_TW_New_Ioctl, firmware_command) == 512);

// The 9000 driver's own command, at the head of every 9000 call.
struct TAG_GP_Command_Driver {
    uint32_t control_code;
    uint32_t status;
    uint32_t unique_id;
    uint32_t sequence_id;
    uint32_t os_status;
    uint32_t buffer_length;
};
static_assert(sizeof(TAG_GP_Command_Driver) == 24);
static_assert(offsetof(TAG_GP_Command_Driver, control_code) == 0);
static_assert(offsetof(TAG_GP_Command_Driver, status) == 4);
static_assert(offsetof(TAG_GP_Command_Driver, unique_id) == 8);
static_assert(offsetof(TAG_GP_Command_Driver, sequence_id) == 12);
static_assert(offsetof(TAG_GP_Command_Driver, os_status) == 16);
static_assert(offsetof(TAG_GP_Command_Driver, buffer_length) == 20);

// The status block of the 9000 header: the controller's error word sits at
// offset 4 of it, 22 of the full command.
struct TAG_GP_Status_Block {
    uint8_t status_flags[4];
    uint16_t error;
    uint8_t reserved[2];
};
static_assert(sizeof(TAG_GP_Status_Block) == 8);
static_assert(offsetof(TAG_GP_Status_Block, error) == 4);

// The 128-byte header in front of a 9000 command.
struct TAG_GP_Header_Apache {
    uint8_t sense_data[18];
    TAG_GP_Status_Block status_block;
    char err_specific_desc[98];  // the error's text, not always terminated
    uint8_t header_desc[4];      // byte 0: the header's size, 128
};
static_assert(sizeof(TAG_GP_Header_Apache) == 128);
static_assert(offsetof(TAG_GP_Header_Apache, sense_data) == 0);
static_assert(offsetof(TAG_GP_Header_Apache, status_block) == 18);
static_assert(offsetof(TAG_GP_Header_Apache, err_specific_desc) == 26);
static_assert(offsetof(TAG_GP_Header_Apache, header_desc) == 124);

// The 512-byte command of the 9000 family.
struct TAG_GP_Command_Apache {
    uint8_t byte0;  // opcode in the low 5 bits, scatter list offset in the high 3
    uint8_t unit;
    uint16_t request_id;
    uint8_t status;
    uint8_t sgl_offset;
    uint16_t sgl_entries;
    uint8_t cdb[16];
    uint8_t padding[488];
};
static_assert(sizeof(TAG_GP_Command_Apache) == 512);
static_assert(offsetof(TAG_GP_Command_Apache, byte0) == 0);
static_assert(offsetof(TAG_GP_Command_Apache, unit) == 1);
static_assert(offsetof(TAG_GP_Command_Apache, request_id) == 2);
static_assert(offsetof(TAG_GP_Command_Apache, status) == 4);
static_assert(offsetof(TAG_GP_Command_Apache, sgl_offset) == 5);
static_assert(offsetof(TAG_GP_Command_Apache, sgl_entries) == 6);
static_assert(offsetof(TAG_GP_Command_Apache, cdb) == 8);
static_assert(offsetof(TAG_GP_Command_Apache, padding) == 24);

// The 1024-byte full command of the 9000 family.
struct TAG_GP_Command_Full {
    TAG_GP_Header_Apache header;
    TAG_GP_Command_Apache command;
    uint8_t padding[384];
};
static_assert(sizeof(TAG_GP_Command_Full) == 1024);
static_assert(offsetof(TAG_GP_Command_Full, header) == 0);
static_assert(offsetof(TAG_GP_Command_Full, command) == 128);
static_assert(offsetof(TAG_GP_Command_Full, padding) == 640);
// The places the transport reads by number.
static_assert(offsetof(TAG_GP_Command_Full, header.status_block.error) == 22);
static_assert(offsetof(TAG_GP_Command_Full, header.err_specific_desc) == 26);
static_assert(offsetof(TAG_GP_Command_Full, header.header_desc) == 124);
static_assert(offsetof(TAG_GP_Command_Full, command.status) == 132);

// The buffer of a 9000 driver call. The data follows the record at offset
// 1536 (sizeof(TAG_TW_Ioctl_Apache)).
struct TAG_TW_Ioctl_Apache {
    TAG_GP_Command_Driver driver_command;
    uint8_t padding[488];
    TAG_GP_Command_Full firmware_command;
};
static_assert(sizeof(TAG_TW_Ioctl_Apache) == 1536);
static_assert(offsetof(TAG_TW_Ioctl_Apache, driver_command) == 0);
static_assert(offsetof(TAG_TW_Ioctl_Apache, padding) == 24);
static_assert(offsetof(TAG_TW_Ioctl_Apache, firmware_command) == 512);
static_assert(offsetof(TAG_TW_Ioctl_Apache, firmware_command.header.status_block.error) == 512 + 22);
static_assert(offsetof(TAG_TW_Ioctl_Apache, firmware_command.command.status) == 512 + 132);

// ---------------------------------------------------------------------------
// Data records.

// The header of a 7000 parameter; the value follows at offset 4.
struct TAG_GP_Param {
    uint16_t table_id;
    uint8_t parameter_id;
    uint8_t parameter_size_bytes;
};
static_assert(sizeof(TAG_GP_Param) == 4);
static_assert(offsetof(TAG_GP_Param, table_id) == 0);
static_assert(offsetof(TAG_GP_Param, parameter_id) == 2);
static_assert(offsetof(TAG_GP_Param, parameter_size_bytes) == 3);

// The header of a 9000 parameter; the value follows at offset 8. The table
// number goes out or-ed with 0x8000.
struct TAG_GP_Param_Apache {
    uint16_t table_id;
    uint16_t parameter_id;
    uint16_t parameter_size_bytes;
    uint16_t actual_parameter_size_bytes;
};
static_assert(sizeof(TAG_GP_Param_Apache) == 8);
static_assert(offsetof(TAG_GP_Param_Apache, table_id) == 0);
static_assert(offsetof(TAG_GP_Param_Apache, parameter_id) == 2);
static_assert(offsetof(TAG_GP_Param_Apache, parameter_size_bytes) == 4);
static_assert(offsetof(TAG_GP_Param_Apache, actual_parameter_size_bytes) == 6);

// The data of a 9000 lock request.
struct TAG_GP_Lock {
    uint32_t timeout_msec;
    uint32_t time_remaining_msec;
    uint32_t force_flag;
};
static_assert(sizeof(TAG_GP_Lock) == 12);
static_assert(offsetof(TAG_GP_Lock, timeout_msec) == 0);
static_assert(offsetof(TAG_GP_Lock, time_remaining_msec) == 4);
static_assert(offsetof(TAG_GP_Lock, force_flag) == 8);

// One 9000 event. Widths chosen here: the code 16 bits, the small counts one
// byte each, 98 bytes of parameter data as in the API's event record.
struct TAG_GP_Event {
    uint32_t sequence_id;
    uint32_t time_stamp_sec;
    uint16_t aen_code;
    uint8_t severity;
    uint8_t retrieved;
    uint8_t repeat_count;
    uint8_t parameter_len;
    uint8_t parameter_data[98];
};
static_assert(sizeof(TAG_GP_Event) == 112);
static_assert(offsetof(TAG_GP_Event, sequence_id) == 0);
static_assert(offsetof(TAG_GP_Event, time_stamp_sec) == 4);
static_assert(offsetof(TAG_GP_Event, aen_code) == 8);
static_assert(offsetof(TAG_GP_Event, severity) == 10);
static_assert(offsetof(TAG_GP_Event, retrieved) == 11);
static_assert(offsetof(TAG_GP_Event, repeat_count) == 12);
static_assert(offsetof(TAG_GP_Event, parameter_len) == 13);
static_assert(offsetof(TAG_GP_Event, parameter_data) == 14);

// A version in numbers: a 16-byte name (not always terminated) and eight
// 16-bit fields.
struct GP_VersionEx_S {
    char name[16];
    uint16_t Major;
    uint16_t Minor;
    uint16_t Branch;
    uint16_t Build;
    uint16_t LowCcode;
    uint16_t HighCcode;
    uint16_t FrmCcode;
    uint16_t CardNum;
};
static_assert(sizeof(GP_VersionEx_S) == 32);
static_assert(offsetof(GP_VersionEx_S, name) == 0);
static_assert(offsetof(GP_VersionEx_S, Major) == 16);
static_assert(offsetof(GP_VersionEx_S, Minor) == 18);
static_assert(offsetof(GP_VersionEx_S, Branch) == 20);
static_assert(offsetof(GP_VersionEx_S, Build) == 22);
static_assert(offsetof(GP_VersionEx_S, LowCcode) == 24);
static_assert(offsetof(GP_VersionEx_S, HighCcode) == 26);
static_assert(offsetof(GP_VersionEx_S, FrmCcode) == 28);
static_assert(offsetof(GP_VersionEx_S, CardNum) == 30);

// The 9000 driver's answer to its version request: the version as text (32
// bytes, not always terminated), then the same in numbers.
struct TAG_GP_Version {
    char text[32];
    GP_VersionEx_S driver;
};
static_assert(sizeof(TAG_GP_Version) == 64);
static_assert(offsetof(TAG_GP_Version, text) == 0);
static_assert(offsetof(TAG_GP_Version, driver) == 32);

// One node of a unit's descriptor tree. The tree goes out in preorder behind
// a 16-byte head whose first byte is the node count; each node names how
// many children follow it. A node with no children is a drive's slot.
struct TAG_TW_Unit_Node {
    uint8_t configuration;  // 5 parity, 6 mirror, 11 stripe or single, 13 spare
    uint8_t mode;           // twp::kMode...
    uint8_t percent;        // of the task the mode names
    uint8_t stripe;         // stripe code
    uint8_t children;
    uint8_t drive;          // a slot's port; 255 a missing member or an inner node
    uint8_t policy;         // twp::kPolicy... bits
    uint8_t reserved;
    uint64_t capacity;      // sectors
};
static_assert(sizeof(TAG_TW_Unit_Node) == 16);
static_assert(offsetof(TAG_TW_Unit_Node, children) == 4);
static_assert(offsetof(TAG_TW_Unit_Node, capacity) == 8);

// One AEN of the 7000's queue; an empty queue answers code 0.
struct TAG_TW_Aen {
    uint32_t sequence_id;
    uint32_t time_stamp_sec;
    uint16_t aen_code;
    uint8_t severity;
    uint8_t reserved;
};
static_assert(sizeof(TAG_TW_Aen) == 12);
static_assert(offsetof(TAG_TW_Aen, aen_code) == 8);

// --- Unit configuration: the records and opcodes of the commands that make,
// delete, import and find units (both families carry the same records).

// A unit to make, delete or import. Create: `configuration`, `stripe`,
// `count` ports and `subunit_size` (drives per subunit, 0 the family's
// usual layout); the firmware answers the unit made in `unit`. Delete:
// `unit`, and `flags` bit 0 keeps the configuration on the drives (export).
// Import: `count` ports whose drives carry one unit; the unit formed in
// `unit` and its configuration in `configuration`.
struct TAG_TW_Unit_Config {
    uint8_t unit;
    uint8_t configuration;
    uint8_t stripe;
    uint8_t count;
    uint8_t subunit_size;
    uint8_t flags;
    uint8_t reserved[2];
    uint8_t ports[16];
    uint8_t reserved2[8];
};
static_assert(sizeof(TAG_TW_Unit_Config) == 32);
static_assert(offsetof(TAG_TW_Unit_Config, count) == 3);
static_assert(offsetof(TAG_TW_Unit_Config, ports) == 8);

// What a rescan brought: the ports of drives the controller did not hold
// before, and the units it formed from the drives' configurations.
struct TAG_TW_Rescan_Report {
    uint8_t drive_count;
    uint8_t unit_count;
    uint8_t reserved[2];
    uint8_t drives[16];
    uint8_t units[16];
    uint8_t configurations[16];  // of each unit formed
};
static_assert(sizeof(TAG_TW_Rescan_Report) == 52);
static_assert(offsetof(TAG_TW_Rescan_Report, configurations) == 36);
static_assert(offsetof(TAG_TW_Rescan_Report, drives) == 4);
static_assert(offsetof(TAG_TW_Rescan_Report, units) == 20);

namespace twp {
// Opcodes of the unit commands, chosen among those the families leave
// free (0x07 and 0x0B stay unknown to both); each carries one record as its data, with the parameter commands'
// size and scatter list offset.
constexpr uint8_t kOpCreateUnit = 0x08;   // TAG_TW_Unit_Config
constexpr uint8_t kOpDeleteUnit = 0x09;   // TAG_TW_Unit_Config
constexpr uint8_t kOpImportUnit = 0x0A;   // TAG_TW_Unit_Config
constexpr uint8_t kOpRescan = 0x0E;       // TAG_TW_Rescan_Report, answered
constexpr uint8_t kOpSplitMirror = 0x0C;  // TAG_TW_Unit_Config: the mirror in, the second unit out
constexpr uint8_t kOpMigrateUnit = 0x0D;  // TAG_TW_Unit_Config: the unit, its new configuration, the drives added
constexpr uint8_t kSizeUnitCommand = 4;
constexpr uint8_t kDeleteKeepConfig = 1;  // TAG_TW_Unit_Config::flags of an export
// Unit configurations.
constexpr int kConfigParity = 5;
constexpr int kConfigMirror = 6;
constexpr int kConfigStripe = 11;  // one drive: a single unit
constexpr int kConfigSpare = 13;
// Stripe codes 4 to 11 stand for 8 to 1024 kilobytes; a stripe or single
// unit also takes 0, and a spare unit takes 0 only.
constexpr int kStripeMin = 4;
constexpr int kStripeMax = 11;
} // namespace twp

// ---------------------------------------------------------------------------
// Codes.

namespace twp {

// Offsets of the data behind the two call records.
constexpr size_t k7000DataOffset = sizeof(TAG_TW_New_Ioctl);     // 1024
constexpr size_t k9000DataOffset = sizeof(TAG_TW_Ioctl_Apache);  // 1536

// The 7000 driver takes firmware commands under this one request.
constexpr unsigned long kRequest7000Firmware = 0x1F;

// 9000 control codes (the request of the driver call is the control code).
constexpr uint32_t kControlFirmwarePassThrough = 264;
constexpr uint32_t kControlAcquireLock = 262;  // read and write locks alike: the controller has one lock
constexpr uint32_t kControlReleaseLock = 263;
constexpr uint32_t kControlDriverVersion = 265;  // answers a TAG_GP_Version
// The driver's event queue, one TAG_GP_Event an answer; next and previous
// start from the driver command's sequence_id. An event's text is its
// parameter data up to the first zero.
constexpr uint32_t kControlFirstEvent = 266;
constexpr uint32_t kControlLastEvent = 267;
constexpr uint32_t kControlNextEvent = 268;
constexpr uint32_t kControlPreviousEvent = 269;

// 9000 driver statuses that end a call with 0 and nothing copied: no event
// there, and a sequence number beyond the queue.
constexpr uint32_t kDriverStatusNoEvent = 4099;
constexpr uint32_t kDriverStatusEventOutOfRange = 4100;

// Firmware opcodes; byte0 carries the scatter list offset (2) in its high bits.
constexpr uint8_t kOpPortscan = 0x06;
constexpr uint8_t kOpGetParam = 0x12;
constexpr uint8_t kOpSetParam = 0x13;
constexpr uint8_t kOpDiagnosticLog = 0x1D;
constexpr uint8_t kSglOffsetParam = 2;
constexpr uint8_t byte0Of(uint8_t opcode, uint8_t sglOffset) { return uint8_t((sglOffset << 5) | (opcode & 0x1F)); }
static_assert(byte0Of(kOpGetParam, kSglOffsetParam) == 0x52);

// Command sizes in 32-bit words. A port scan carries the port's mask bit as a
// little-endian 32-bit word at bytes 8 to 11 of the command.
constexpr uint8_t kSizeParam = 4;
constexpr uint8_t kSizePortscan = 3;
constexpr uint8_t kSizeDiagnosticLog = 4;
constexpr size_t kPortscanMaskOffset = 8;

// The 9000 header size written into byte 124 of every full command.
constexpr uint8_t kHeaderDescSize = 128;
// Or-ed into the table number of every 9000 parameter request.
constexpr uint16_t kTableIdFlag9000 = 0x8000;
// The lock request's time-out and how many sends it makes.
constexpr uint32_t kLockTimeoutMsec = 5000;
constexpr int kLockTries = 10;
// The 9000 busy loop: tries and the wait between them.
constexpr int kBusyTries = 1000;
constexpr unsigned kBusyWaitUsec = 1000;

// The error record's flags.
constexpr uint32_t kFlagApi = 1;
constexpr uint32_t kFlagOs = 2;
constexpr uint32_t kFlagDriver = 4;
constexpr uint32_t kFlagController = 8;
constexpr uint32_t kFlag7000 = 0x10000;
constexpr uint32_t kFlag9000 = 0x20000;

// Compatibility numbers accepted: above the low and below the high limit.
constexpr int kCompat7000Low = 5;
constexpr int kCompat7000High = 7;
constexpr int kCompat9000Low = 22;
constexpr int kCompat9000High = 28;

// The largest 7000 parameter: its size field is one byte.
constexpr unsigned kMax7000ParamSize = 255;

// The 7000 driver's text "/proc/scsi/3w-xxxx/<host>" names its version on the
// line that begins with this label; the version is the rest of that line.
constexpr const char kProcDriverVersionLabel[] = "Driver version:";

// The descriptor tree: a 16-byte head, then nodes. The 7000's one-byte size
// field holds 14 nodes, enough for its four-drive RAID 10 and a twelve-drive
// parity unit; the 9000 holds 31.
constexpr size_t kUnitHeadSize = 16;
constexpr uint16_t kUnitDescriptorSize7000 = kUnitHeadSize + 14 * sizeof(TAG_TW_Unit_Node);
constexpr uint16_t kUnitDescriptorSize9000 = kUnitHeadSize + 31 * sizeof(TAG_TW_Unit_Node);
constexpr int kMaxUnitDepth = 4;

// Unit and subunit modes.
constexpr uint8_t kModeOk = 0xFF;
constexpr uint8_t kModeVerifying = 0xFB;
constexpr uint8_t kModeInitializing = 0xF7;
constexpr uint8_t kModeDegraded = 0xEF;
constexpr uint8_t kModeRebuilding = 0xAF;
constexpr uint8_t kModeRebuildPaused = 0xDF;
constexpr uint8_t kModeInoperable = 0x00;  // any other byte is not usable either
constexpr bool modeHasPercent(uint8_t m)
{
    return m == kModeDegraded || m == kModeRebuilding || m == kModeRebuildPaused || m == kModeInitializing ||
           m == kModeVerifying;
}
constexpr uint8_t kPolicyReadCache = 1;
constexpr uint8_t kPolicyWriteCache = 2;
constexpr uint8_t kPolicyEcc = 4;  // set: continue on ECC errors
constexpr uint8_t kPolicyAutoVerify = 8;
// A member slot with no drive.
constexpr uint8_t kNoDrive = 255;
// Drive status bytes.
constexpr uint8_t kDriveGood = 0xFF;
constexpr uint8_t kDriveFailed = 0x00;  // failed or offline
constexpr uint8_t kDriveUnsupported = 0xFE;
// The status of a 9000 unit at a depth other than 1.
constexpr int kSubunitStatus = 127;

// Limits of the settings: rates take 1 to 5, spinups 1 to 16 drives at a
// time, the stagger time 0 to 60 seconds between spin-up groups.
constexpr int kRateMin = 1;
constexpr int kRateMax = 5;
constexpr int kSpinupsMin = 1;
constexpr int kSpinupsMax = 16;
constexpr int kStaggerMin = 0;
constexpr int kStaggerMax = 60;

// The task schedule: seven days of five 16-bit words. The task items are
// the days' windows of it, read and written through the whole schedule.
constexpr unsigned kTaskScheduleSize = 70;

// ---------------------------------------------------------------------------
// The families' parameter tables.

enum class Item : uint8_t {
    // Controller information.
    Model,
    SerialNumber,
    PcbRevision,
    AChipVersion,
    PChipVersion,
    FirmwareVersion,
    BiosVersion,
    MonitorVersion,
    Compatibility,
    NumberOfPorts,
    NumberOfDrives,
    NumberOfUnits,
    ControllerLog,
    DiagnosticLog,
    UnitStatus,  // 7000: one status byte a unit; 9000: one unit's byte, table plus the unit
    UnitList,    // one byte a unit number, 0xFF where there is no unit
    UnitDescriptor,  // a unit's descriptor tree (TAG_TW_Unit_Node)
    UnitPolicy,      // a unit's twp::kPolicy... bits, read and written
    AenQueue,        // 7000: a read takes the oldest AEN off the queue (TAG_TW_Aen)
    DriveList,       // one byte a port: 1 the controller holds a drive there, 0 not
    // A port's drive, at the port table plus the port.
    DriveStatus,     // twp::kDrive... byte
    DriveModel,
    DriveSerial,     // as the controller read it when it found the drive
    DriveFirmware,
    DriveCapacity,   // sectors, 64 bits
    DriveRemove,     // written 1: the controller lets go of the port's drive
    DriveAdd,        // written 1: the controller finds the drive in the port's bay
    // Settings and tasks.
    AvMode,
    BootUnit,
    CachePolicy,
    JbodPolicy,
    BackgroundTaskRate,  // the 7000's one rate
    RebuildRate,
    VerifyRate,
    SelftestFlags,
    TaskSchedule,
    RebuildScheduleState,
    VerifyScheduleState,
    SpinupsAllowed,
    StaggerTime,
    MediaScan,
    Shutdown,
    // Battery backup unit.
    BbuPresent,
    BbuBatteryPresent,
    BbuTestInProgress,
    BbuChargeInProgress,
    BbuEnabled,
    BbuInitializeBattery,
    BbuTestBattery,
    BbuStatus,
    BbuStatusSummary,
    BbuOnlineState,
    BbuVoltageStatus,
    BbuTemperatureStatus,
    BbuCapacity,
    BbuChargeVoltage,
    BbuInstallationDate,
    BbuLastTestDate,
    BbuSerialNumber,
    BbuFirmwareVersion,
    BbuBootCodeVersion,
    BbuPcbRevision,
    BbuFactoryData,
    Count
};
constexpr size_t kItemCount = size_t(Item::Count);

// One row: where an item lives. `present` false: the family has no such item.
struct Param {
    bool present;
    uint16_t table;
    uint16_t parameter;
    uint16_t size;
};
constexpr Param absent() { return Param{false, 0, 0, 0}; }
constexpr Param at(uint16_t table, uint16_t parameter, uint16_t size) { return Param{true, table, parameter, size}; }

// Tables of both families: 1026 identity, 1027 settings, 1028 tasks and
// schedules, 1029 the battery backup unit, 1030 logs; 2 the 7000's unit
// statuses; 768 plus the unit a 9000 unit.
constexpr uint16_t kTableIdentity = 1026;
constexpr uint16_t kTableSettings = 1027;
constexpr uint16_t kTableTasks = 1028;
constexpr uint16_t kTableBattery = 1029;
constexpr uint16_t kTableLogs = 1030;
constexpr uint16_t kTable7000UnitStatus = 2;
constexpr uint16_t kTable9000UnitBase = 768;
constexpr uint16_t kTable7000UnitDescriptor = 3;
constexpr uint16_t kTableAen7000 = 1025;
constexpr uint16_t kMaxUnits = 16;
// Both families: a port's drive items sit at this table plus the port.
constexpr uint16_t kTablePortBase = 512;
constexpr uint16_t kMaxPorts = 16;

// Sizes of the logs. The 7000's diagnostic log comes by its own opcode.
constexpr uint16_t kControllerLogSize = 255;
constexpr uint16_t kDiagnosticLogSize = 1024;

// Texts are not terminated on the wire; each size is the whole field. Numbers
// are little-endian of the given size. Flags and states are one byte, 0 or 1,
// unless said otherwise.
struct FamilyTable {
    Param rows[kItemCount];
    constexpr const Param& operator[](Item item) const { return rows[size_t(item)]; }
};

namespace detail {
constexpr FamilyTable make7000()
{
    FamilyTable t{};
    for (auto& r : t.rows)
        r = absent();
    auto set = [&t](Item i, Param p) { t.rows[size_t(i)] = p; };
    set(Item::FirmwareVersion, at(kTableIdentity, 3, 16));
    set(Item::BiosVersion, at(kTableIdentity, 4, 16));
    set(Item::MonitorVersion, at(kTableIdentity, 5, 16));
    set(Item::PcbRevision, at(kTableIdentity, 6, 8));
    set(Item::AChipVersion, at(kTableIdentity, 7, 8));
    set(Item::Model, at(kTableIdentity, 8, 16));
    set(Item::PChipVersion, at(kTableIdentity, 9, 8));
    set(Item::SerialNumber, at(kTableIdentity, 10, 16));
    set(Item::Compatibility, at(kTableIdentity, 11, 2));
    set(Item::NumberOfPorts, at(kTableIdentity, 12, 1));
    set(Item::NumberOfDrives, at(kTableIdentity, 13, 1));
    set(Item::NumberOfUnits, at(kTableIdentity, 14, 1));
    set(Item::UnitStatus, at(kTable7000UnitStatus, 3, 16));
    set(Item::UnitList, at(kTable7000UnitStatus, 3, 16));  // the status bytes: 0xFF no unit
    set(Item::UnitDescriptor, at(kTable7000UnitDescriptor, 1, kUnitDescriptorSize7000));  // unit in byte3
    set(Item::UnitPolicy, at(kTable7000UnitDescriptor, 2, 1));
    set(Item::AenQueue, at(kTableAen7000, 2, sizeof(TAG_TW_Aen)));
    set(Item::DriveList, at(kTableIdentity, 16, kMaxPorts));
    set(Item::DriveStatus, at(kTablePortBase, 1, 1));
    set(Item::DriveModel, at(kTablePortBase, 2, 40));
    set(Item::DriveSerial, at(kTablePortBase, 3, 20));
    set(Item::DriveFirmware, at(kTablePortBase, 4, 8));
    set(Item::DriveCapacity, at(kTablePortBase, 5, 8));
    set(Item::DriveRemove, at(kTablePortBase, 6, 1));
    set(Item::DriveAdd, at(kTablePortBase, 7, 1));
    set(Item::ControllerLog, at(kTableLogs, 1, kControllerLogSize));
    set(Item::AvMode, at(kTableSettings, 1, 1));
    set(Item::BootUnit, at(kTableSettings, 2, 1));
    set(Item::CachePolicy, at(kTableSettings, 3, 1));
    set(Item::JbodPolicy, at(kTableSettings, 4, 1));
    set(Item::BackgroundTaskRate, at(kTableSettings, 5, 1));
    set(Item::MediaScan, at(kTableSettings, 9, 1));
    set(Item::Shutdown, at(kTableSettings, 10, 1));
    return t;
}

constexpr FamilyTable make9000()
{
    FamilyTable t{};
    for (auto& r : t.rows)
        r = absent();
    auto set = [&t](Item i, Param p) { t.rows[size_t(i)] = p; };
    set(Item::FirmwareVersion, at(kTableIdentity, 3, 32));
    set(Item::BiosVersion, at(kTableIdentity, 4, 32));
    set(Item::MonitorVersion, at(kTableIdentity, 5, 32));
    set(Item::PcbRevision, at(kTableIdentity, 6, 32));
    set(Item::AChipVersion, at(kTableIdentity, 7, 32));
    set(Item::Model, at(kTableIdentity, 8, 64));
    set(Item::PChipVersion, at(kTableIdentity, 9, 32));
    set(Item::SerialNumber, at(kTableIdentity, 10, 32));
    set(Item::Compatibility, at(kTableIdentity, 11, 2));
    set(Item::NumberOfPorts, at(kTableIdentity, 12, 1));
    set(Item::NumberOfDrives, at(kTableIdentity, 13, 1));
    set(Item::NumberOfUnits, at(kTableIdentity, 14, 1));
    set(Item::UnitStatus, at(kTable9000UnitBase, 3, 1));  // table: 768 plus the unit
    set(Item::UnitList, at(kTableIdentity, 15, kMaxUnits));
    set(Item::UnitDescriptor, at(kTable9000UnitBase, 10, kUnitDescriptorSize9000));
    set(Item::UnitPolicy, at(kTable9000UnitBase, 11, 1));
    set(Item::DriveList, at(kTableIdentity, 16, kMaxPorts));
    set(Item::DriveStatus, at(kTablePortBase, 1, 1));
    set(Item::DriveModel, at(kTablePortBase, 2, 40));
    set(Item::DriveSerial, at(kTablePortBase, 3, 20));
    set(Item::DriveFirmware, at(kTablePortBase, 4, 8));
    set(Item::DriveCapacity, at(kTablePortBase, 5, 8));
    set(Item::DriveRemove, at(kTablePortBase, 6, 1));
    set(Item::DriveAdd, at(kTablePortBase, 7, 1));
    set(Item::ControllerLog, at(kTableLogs, 1, kControllerLogSize));
    set(Item::DiagnosticLog, at(kTableLogs, 2, kDiagnosticLogSize));
    set(Item::AvMode, at(kTableSettings, 1, 1));
    set(Item::BootUnit, at(kTableSettings, 2, 1));
    set(Item::CachePolicy, at(kTableSettings, 3, 1));
    set(Item::JbodPolicy, at(kTableSettings, 4, 1));
    set(Item::RebuildRate, at(kTableSettings, 5, 1));
    set(Item::VerifyRate, at(kTableSettings, 6, 1));
    set(Item::SpinupsAllowed, at(kTableSettings, 7, 1));
    set(Item::StaggerTime, at(kTableSettings, 8, 1));
    set(Item::MediaScan, at(kTableSettings, 9, 1));
    set(Item::Shutdown, at(kTableSettings, 10, 1));
    set(Item::SelftestFlags, at(kTableTasks, 1, 2));  // 16-bit flag word
    set(Item::TaskSchedule, at(kTableTasks, 5, kTaskScheduleSize));
    set(Item::RebuildScheduleState, at(kTableTasks, 6, 1));
    set(Item::VerifyScheduleState, at(kTableTasks, 7, 1));
    set(Item::BbuPresent, at(kTableBattery, 1, 1));
    set(Item::BbuBatteryPresent, at(kTableBattery, 2, 1));
    set(Item::BbuTestInProgress, at(kTableBattery, 3, 1));
    set(Item::BbuChargeInProgress, at(kTableBattery, 4, 1));
    set(Item::BbuEnabled, at(kTableBattery, 5, 1));
    set(Item::BbuInitializeBattery, at(kTableBattery, 6, 1));  // written 1 to start
    set(Item::BbuTestBattery, at(kTableBattery, 7, 1));        // written 1 to start
    set(Item::BbuStatus, at(kTableBattery, 8, 1));
    set(Item::BbuStatusSummary, at(kTableBattery, 9, 1));
    set(Item::BbuOnlineState, at(kTableBattery, 10, 1));
    set(Item::BbuVoltageStatus, at(kTableBattery, 11, 1));
    set(Item::BbuTemperatureStatus, at(kTableBattery, 12, 1));
    set(Item::BbuCapacity, at(kTableBattery, 13, 2));       // hours, 16 bits
    set(Item::BbuChargeVoltage, at(kTableBattery, 14, 1));  // a code, 0 to 4
    set(Item::BbuInstallationDate, at(kTableBattery, 15, 16));  // text like "15-Mar-2006"
    set(Item::BbuLastTestDate, at(kTableBattery, 16, 16));
    set(Item::BbuSerialNumber, at(kTableBattery, 17, 32));
    set(Item::BbuFirmwareVersion, at(kTableBattery, 18, 32));
    set(Item::BbuBootCodeVersion, at(kTableBattery, 19, 32));
    set(Item::BbuPcbRevision, at(kTableBattery, 20, 32));
    set(Item::BbuFactoryData, at(kTableBattery, 21, 32));
    return t;
}
}  // namespace detail

constexpr FamilyTable kTable7000 = detail::make7000();
constexpr FamilyTable kTable9000 = detail::make9000();

// The numbers written by hand elsewhere are the ones these tables hold.
static_assert(kTable7000[Item::Model].table == 1026 && kTable7000[Item::Model].parameter == 8 &&
              kTable7000[Item::Model].size == 16);
static_assert(kTable7000[Item::FirmwareVersion].parameter == 3 && kTable7000[Item::BiosVersion].parameter == 4);
static_assert(kTable7000[Item::Compatibility].table == 1026 && kTable7000[Item::Compatibility].parameter == 11);
static_assert(kTable7000[Item::UnitStatus].table == 2 && kTable7000[Item::UnitStatus].parameter == 3);
static_assert(kTable9000[Item::UnitStatus].table == 768 && kTable9000[Item::UnitStatus].parameter == 3 &&
              kTable9000[Item::UnitStatus].size == 1);
static_assert(kTable9000[Item::Model].size == 64);
static_assert(!kTable7000[Item::BbuPresent].present && !kTable7000[Item::TaskSchedule].present);

constexpr bool sizesFit7000()
{
    for (const auto& r : kTable7000.rows)
        if (r.present && (r.size == 0 || r.size > kMax7000ParamSize))
            return false;
    return true;
}
static_assert(sizesFit7000());
static_assert(kTable7000[Item::UnitDescriptor].size <= kMax7000ParamSize);

}  // namespace twp

// ---------------------------------------------------------------------------
// The pattern both families share: an item is read or written whole through
// the family's table; what differs between the families is the table and the
// two parameter calls.

// A unit's descriptor tree as read from the controller, checked: every
// node's children lie inside the count, no branch is deeper than a unit
// identifier can name, and each node knows its first child and next peer.
struct unit_tree {
    static constexpr int kMaxNodes = (twp::kUnitDescriptorSize9000 - twp::kUnitHeadSize) / sizeof(TAG_TW_Unit_Node);
    TAG_TW_Unit_Node node[kMaxNodes];
    int first_child[kMaxNodes];
    int next_peer[kMaxNodes];
    int depth[kMaxNodes];  // the root 1
    int count = 0;
    // Reads a descriptor of `size` bytes; false for one that cannot be read.
    bool parse(const uint8_t* bytes, size_t size);
};

// Cuts the leading and trailing spaces of a text, not the inner ones.
void strip_spaces(char* text);
// Writes `text` into `out` of `outSize` bytes, cut to fit, zero-filled behind.
void copy_text(char* out, size_t outSize, const char* text);

class controller_base {
public:
    virtual ~controller_base() = default;
    controller_base(const controller_base&) = delete;
    controller_base& operator=(const controller_base&) = delete;

    // Controller information.
    int get_model(tw_id_type id, char* model);
    int get_serial_number(tw_id_type id, char* serial_number);
    int get_pcb_revision(tw_id_type id, char* pcb_revision);
    int get_a_chip_version(tw_id_type id, char* version);
    int get_p_chip_version(tw_id_type id, char* version);
    int get_firmware_version(tw_id_type id, char* version);
    int get_bios_version(tw_id_type id, char* version);
    int get_monitor_version(tw_id_type id, char* version);
    virtual int get_driver_version(tw_id_type id, char* version) = 0;
    int get_number_of_ports(tw_id_type id, int* ports);
    int get_number_of_drives(tw_id_type id, int* drives);
    int get_number_of_units(tw_id_type id, int* units);
    int get_controller_log(tw_id_type id, unsigned char* buffer, int* length);
    virtual int get_diagnostic_log(tw_id_type id, unsigned char* buffer, int* length);
    int get_avmode(tw_id_type id, int* avmode);
    int get_boot_unit(tw_id_type id, tw_id_type* unit_id);
    int get_cache_policy(tw_id_type id, int* policy);
    int get_jbod_policy(tw_id_type id, int* policy);

    // Settings and tasks.
    virtual int get_background_rebuild_rate(tw_id_type id, int* rate);
    virtual int set_background_rebuild_rate(tw_id_type id, int rate);
    virtual int get_background_verify_rate(tw_id_type id, int* rate);
    virtual int set_background_verify_rate(tw_id_type id, int rate);
    int get_selftest_flags(tw_id_type id, int* flags);
    int set_selftest_flags(tw_id_type id, int flags);
    int get_rebuild_task_item(tw_id_type id, int day, tw_task_window_type* item);
    int set_rebuild_task_item(tw_id_type id, int day, tw_task_window_type item);
    int get_verify_task_item(tw_id_type id, int day, tw_task_window_type* item);
    int set_verify_task_item(tw_id_type id, int day, tw_task_window_type item);
    int get_selftest_task_item(tw_id_type id, int day, int* start_time);
    int set_selftest_task_item(tw_id_type id, int day, int start_time);
    int get_task_schedule(tw_id_type id, tw_task_schedule_type* schedule);
    int set_task_schedule(tw_id_type id, const tw_task_schedule_type* schedule);
    int get_rebuild_schedule_state(tw_id_type id, int* state);
    int get_verify_schedule_state(tw_id_type id, int* state);
    int enable_rebuild_task_schedule(tw_id_type id);
    int disable_rebuild_task_schedule(tw_id_type id);
    int enable_verify_task_schedule(tw_id_type id);
    int disable_verify_task_schedule(tw_id_type id);
    int get_spinups_allowed(tw_id_type id, int* spinups);
    int set_spinups_allowed(tw_id_type id, int spinups);
    int get_stagger_time(tw_id_type id, int* stagger_time);
    int set_stagger_time(tw_id_type id, int stagger_time);
    int enable_avmode(tw_id_type id);
    int disable_avmode(tw_id_type id);
    int enable_jbod_online(tw_id_type id);
    int disable_jbod_online(tw_id_type id);
    int set_boot_unit(tw_id_type unit_id);
    int disable_cache_on_unit_degrade(tw_id_type id);
    int use_unit_cache_states(tw_id_type id);
    int shutdown(tw_id_type id);
    int pause_mediascan(tw_id_type id);
    int resume_mediascan(tw_id_type id);

    // Battery backup unit.
    int bbu_is_present(tw_id_type id, int* present);
    int bbu_battery_is_present(tw_id_type id, int* present);
    int bbu_battery_test_in_progress(tw_id_type id, int* in_progress);
    int bbu_battery_charge_in_progress(tw_id_type id, int* in_progress);
    int bbu_enable(tw_id_type id);
    int bbu_disable(tw_id_type id);
    int bbu_initialize_battery(tw_id_type id);
    int bbu_test_battery(tw_id_type id);
    int get_bbu_status(tw_id_type id, int* status);
    int get_bbu_status_summary(tw_id_type id, int* summary);
    int get_bbu_online_state(tw_id_type id, int* state);
    int get_bbu_battery_voltage_status(tw_id_type id, int* status);
    int get_bbu_battery_temperature_status(tw_id_type id, int* status);
    int get_bbu_battery_capacity(tw_id_type id, int* capacity);
    int get_bbu_battery_charge_voltage(tw_id_type id, int* voltage);
    int get_bbu_battery_installation_date(tw_id_type id, char* date);
    int get_bbu_last_battery_test_date(tw_id_type id, char* date);
    int get_bbu_serial_number(tw_id_type id, char* serial_number);
    int get_bbu_firmware_version(tw_id_type id, char* version);
    int get_bbu_boot_code_version(tw_id_type id, char* version);
    int get_bbu_pcb_revision(tw_id_type id, char* pcb_revision);
    int get_bbu_factory_data(tw_id_type id, char* factory_data);

    // Events. A family without them gives API code 2.
    virtual int get_first_event(tw_id_type id, tw_event_info_type* event);
    virtual int get_last_event(tw_id_type id, tw_event_info_type* event);
    virtual int get_next_event(tw_id_type id, tw_event_info_type* event);
    virtual int get_previous_event(tw_id_type id, tw_event_info_type* event);

    // Units. Modes, percentages and the other unit items answer at every
    // depth from the unit's descriptor tree.
    int get_unit_id_list(tw_id_type id, tw_id_list_type* list);
    int get_subunit_id_list(tw_id_type unit_id, tw_id_list_type* list);
    int get_number_of_subunits(tw_id_type unit_id, int* count);
    virtual int get_unit_status(tw_id_type unit_id, int* status) = 0;
    int get_unit_mode(tw_id_type unit_id, int* mode);
    int get_unit_capacity(tw_id_type unit_id, uint64_t* sectors);
    int get_unit_configuration(tw_id_type unit_id, int* configuration);
    int get_unit_percentage_complete(tw_id_type unit_id, int* percent);
    int get_unit_stripe_size(tw_id_type unit_id, int* stripe);
    int get_unit_read_cache_state(tw_id_type unit_id, int* state);
    int get_unit_write_cache_state(tw_id_type unit_id, int* state);
    int get_unit_ecc_policy(tw_id_type unit_id, int* policy);
    int get_unit_auto_verify_policy(tw_id_type unit_id, int* policy);
    int get_unit_id_from_drive_id(tw_id_type drive_id, tw_id_type* unit_id);
    // The unit's number on its controller.
    int get_unit_local_unit_id(tw_id_type unit_id, int* local_id);
    // 1 while the unit verifies, initialises or rebuilds (paused included).
    int unit_background_task_active(tw_id_type unit_id, int* active);
    // 0 while the unit initialises, else 1.
    int unit_is_initialized(tw_id_type unit_id, int* initialized);

    // A unit's caches and policies, on units of depth 1: the unit's policy
    // bits read, changed and written back.
    int enable_unit_read_cache(tw_id_type unit_id);
    int disable_unit_read_cache(tw_id_type unit_id);
    int enable_unit_write_cache(tw_id_type unit_id);
    int disable_unit_write_cache(tw_id_type unit_id);
    int enable_unit_auto_verify(tw_id_type unit_id);
    int disable_unit_auto_verify(tw_id_type unit_id);
    int unit_set_ecc_policy_to_continue(tw_id_type unit_id);
    int unit_set_ecc_policy_to_halt(tw_id_type unit_id);

    // Drives and ports. A drive's number is its port's.
    int get_drive_id_list(tw_id_type id, tw_id_list_type* list);
    int get_drive_id_list_from_unit_id(tw_id_type unit_id, tw_id_list_type* list);
    int get_drive_status(tw_id_type drive_id, int* status);
    int get_drive_capacity(tw_id_type drive_id, uint64_t* sectors);
    int get_drive_model(tw_id_type drive_id, char* model);
    int get_drive_serial_number(tw_id_type drive_id, char* serial_number);
    int get_drive_firmware_version(tw_id_type drive_id, char* version);
    int get_drive_port_id(tw_id_type drive_id, tw_id_type* port_id);
    int get_port_id_list(tw_id_type id, tw_id_list_type* list);
    // Lets go of a drive; a member degrades its unit. Refused for the last
    // copy of a unit's data (API code 48) and during a verify (56).
    int remove_drive(tw_id_type drive_id);
    // The controller finds the drive in the port's bay, its identity read
    // anew: API code 23 when it holds one there already.
    int add_drive(tw_id_type port_id);

protected:
    explicit controller_base(const twp::FamilyTable& table) : table_(table) {}

    // The descriptor of unit `unit` as the family reads it, `size` bytes.
    virtual int read_unit_descriptor(tw_id_type id, int unit, uint8_t* buffer, size_t size) = 0;
    // The units' numbers, one byte each, 0xFF where there is none.
    int read_unit_list(tw_id_type id, uint8_t (&units)[twp::kMaxUnits]);
    // Changes to units and drives hold the controller's write lock where the
    // family has one; reads take no lock, each being one command.
    virtual int begin_change(tw_id_type) { return 0; }
    virtual void end_change(tw_id_type) {}
    template <class Change>
    int locked(tw_id_type id, Change change)
    {
        if (begin_change(id) != 0) return -1;
        const int result = change();
        end_change(id);
        return result;
    }

    // An item of the port's drive: the port below the number of ports and
    // holding a drive; `buffer` takes the item's size.
    int read_drive_item(tw_id_type drive_id, twp::Item item, void* buffer, size_t size);
    int get_drive_text(tw_id_type drive_id, twp::Item item, char* out, size_t outSize);
    int change_unit_policy(tw_id_type unit_id, uint8_t bit, bool on);
    // 0 when the identifier's port lies below the number of ports.
    int get_port_id(tw_id_type id);
    // The checked tree of the unit `unit_id` names, and the index of its node.
    int find_node(tw_id_type unit_id, unit_tree& tree, int* node);

    // The walk down a tree: a stack of node indices, never deeper than the
    // four levels of a unit identifier. Each gives false where the tree or
    // the stack has no room for the step.
    struct walk_stack {
        int at[twp::kMaxUnitDepth];
        int size = 0;
    };
    static bool push_root(const unit_tree& tree, walk_stack& stack);
    static bool push_parent(const unit_tree& tree, walk_stack& stack);  // the top's first child
    static bool push_peer(const unit_tree& tree, walk_stack& stack);    // the top's next peer, in its place
    static bool pop(walk_stack& stack);

    // One parameter of the family, read into `buffer` (p.size bytes) or
    // written from `value` (p.size bytes).
    virtual int read_param(tw_id_type id, const twp::Param& p, int unit, void* buffer) = 0;
    virtual int write_param(tw_id_type id, const twp::Param& p, int unit, const void* value) = 0;

    // The family has the item; if not, the error is cleared and set to API
    // code 2, "Feature not supported".
    bool supported(twp::Item item);
    // A text item into `out` of `outSize` bytes, spaces stripped, terminated.
    int get_text(tw_id_type id, twp::Item item, char* out, size_t outSize);
    // A little-endian number of 1 to 4 bytes.
    int get_number(tw_id_type id, twp::Item item, int* out, int unit = 0);
    int set_number(tw_id_type id, twp::Item item, int value);
    // A number in [low, high], else `code` set and -1.
    int set_checked(tw_id_type id, twp::Item item, int value, int low, int high, uint32_t code);
    // A log item: as much as fits in *length, which then holds the count.
    int get_log(tw_id_type id, twp::Item item, unsigned char* buffer, int* length);

    const twp::FamilyTable& table_;

private:
    int get_schedule(tw_id_type id, tw_task_schedule_type* schedule);
    int get_window(tw_id_type id, int day, bool rebuild, tw_task_window_type* item);
    int set_window(tw_id_type id, int day, bool rebuild, tw_task_window_type item);

    // --- Unit configuration (tw_api_unitops.cpp). `notify` 1 tells the
    // kernel of the unit that came or went, 0 leaves it alone.
public:
    int create_unit(const tw_id_list_type* drives, int configuration, int stripe, int subunit_size, int notify,
                    tw_id_type* unit_id);
    int destroy_unit(tw_id_type unit_id, int notify);
    int export_unit(tw_id_type unit_id, int notify);
    int import_unit(const tw_id_list_type* drives, int notify, tw_id_type* unit_id);
    // The unit exported and its drives let go: they stay in their bays.
    int remove_unit(tw_id_type unit_id, int notify);
    virtual int split_mirror(tw_id_type unit_id, int notify, tw_id_list_type* units);
    // The unit takes a new configuration over its drives and those added
    // (none: a null list or length 0); its number stays.
    virtual int migrate_unit(tw_id_type unit_id, const tw_id_list_type* drives, int configuration, int stripe);
    int rescan_controller(tw_id_type id, int notify, tw_id_list_type* units, tw_id_list_type* drives);

protected:
    // One unit command with its record, `length` bytes, copied back.
    virtual int unit_command(tw_id_type id, uint8_t opcode, void* record, uint32_t length) = 0;
    // The create and import commands as the family sends them.
    virtual int send_create(tw_id_type id, TAG_TW_Unit_Config& record);
    virtual int send_import(tw_id_type id, TAG_TW_Unit_Config& record);
    // How many drives an import names at most.
    virtual int max_import_drives() { return 16; }
    // The checks before a unit is made: API code and -1 on the first that fails.
    int check_new_unit(const tw_id_list_type* drives, int configuration, int stripe, int subunit_size,
                       TAG_TW_Unit_Config& out);
    // Whether the family takes the configuration, its drive count, its stripe code.
    virtual bool isFeatureValid(int configuration, int subunit_size);
    virtual bool isDriveCountValid(int configuration, int count, int subunit_size);
    bool isStripeSizeValid(int configuration, int stripe);
    // The unit of depth 1 exists on the controller.
    int unit_present(tw_id_type unit_id);
    // Sends a create, tells the kernel when asked.
    int make_unit(tw_id_type controller_id, uint8_t opcode, TAG_TW_Unit_Config& record, int notify, tw_id_type* unit_id);
    int delete_unit(tw_id_type unit_id, int notify, bool keep, uint32_t no_unit_code);

    // ---- Unit tasks and the drives' ATA side (tw_api_tasks.cpp, tw_api_ata.cpp).
public:
    // Checked here with their API codes before any command goes out; the
    // firmware refuses what still breaks its rules.
    virtual int rebuild_unit(tw_id_type unit_id, const tw_id_list_type* drives);
    int pause_rebuild_unit(tw_id_type unit_id);
    int resume_rebuild_unit(tw_id_type unit_id);
    int verify_unit(tw_id_type unit_id);
    int stop_verify_unit(tw_id_type unit_id);
    int flush_unit_write_cache(tw_id_type unit_id);
    // The 12 register bytes of the pass-through: see twp::kAta...
    int ata_passthrough(tw_id_type drive_id, tw_ata_registers_type* registers, unsigned char* data);
    int get_drive_ident_data(tw_id_type drive_id, unsigned char* data);
    int get_drive_smart_data(tw_id_type drive_id, unsigned char* data);

protected:
    // One unit task command of the family (twp::TaskAction) with a port mask.
    virtual int send_unit_task(tw_id_type unit_id, int unit, uint8_t action, uint32_t ports) = 0;
    // The ATA pass-through to the drive's port: 12 register bytes in and
    // out, `length` bytes of data (0 or 512).
    virtual int send_ata(tw_id_type drive_id, uint8_t (&registers)[12], void* data, uint32_t length) = 0;
    // The unit of depth 1 checked for a task: its tree and root node.
    int task_unit(tw_id_type unit_id, unit_tree& tree, int* root);
    // The checks of a rebuild; the drives' ports as a mask.
    int check_rebuild(tw_id_type unit_id, const tw_id_list_type* drives, uint32_t* ports);
};

// ---- Unit tasks and the ATA pass-through: the command layouts.
namespace twp {
// The unit task command (both families): the action in the first byte of
// the command's own data (the 7000's byte 8, the 9000's cdb), a port mask
// in bytes 4 to 7; the unit in the 7000's unit bits or the 9000's unit byte.
constexpr uint8_t kOpUnitTask = 0x18;
constexpr uint8_t kSizeUnitTask = 4;
enum class TaskAction : uint8_t { Rebuild = 1, Pause = 2, Resume = 3, Verify = 4, StopVerify = 5, Flush = 6, Replace = 7 };
// The ATA pass-through: opcode 0x11 with a scatter list offset of 5; the
// task file as 16-bit registers from byte 8 of the 7000's command (the
// 9000's cdb): feature, count, sector, cylinder low, cylinder high, then
// the device byte and the command byte. The 7000 also sets flags 1 and
// byte 6 to 13, and its size is 7 words.
constexpr uint8_t kOpAtaPassThrough = 0x11;
constexpr uint8_t kSglOffsetAta = 5;
constexpr uint8_t kSizeAta = 7;
constexpr uint8_t kAtaByte6 = 13;
static_assert(byte0Of(kOpAtaPassThrough, kSglOffsetAta) == 0xB1);
constexpr size_t kAtaRegisters = 12;
constexpr uint8_t kAtaIdentify = 0xEC;
constexpr uint8_t kAtaSmart = 0xB0;
constexpr uint8_t kSmartReadData = 0xD0;
constexpr uint8_t kSmartCylinderLow = 0x4F;
constexpr uint8_t kSmartCylinderHigh = 0xC2;
constexpr uint8_t kAtaStatusError = 0x01;  // the status register's error bit
constexpr uint32_t kSectorSize = 512;
// The 7000's firmware download: chunk number and count (16 bits each) and
// the image's size (32 bits) in the command's own data, the chunk as data.
constexpr uint8_t kOpFirmwareDownload = 0x1A;
constexpr uint32_t kFirmwareChunkSize7000 = 1024;
}  // namespace twp

// ---- API codes the calls set (their texts are tw_message's), and the two
// ways of setting one.
namespace twp {
constexpr uint32_t kApiNotSupported = 2;
constexpr uint32_t kApiInvalidUnit = 9;
constexpr uint32_t kApiInvalidDrive = 10;
constexpr uint32_t kApiBadDescriptor = 13;
constexpr uint32_t kApiNoDriveList = 19;
constexpr uint32_t kApiConfigNotSupported = 25;
constexpr uint32_t kApiDriveCount = 26;
constexpr uint32_t kApiStripe = 27;
constexpr uint32_t kApiTwoControllers = 28;
constexpr uint32_t kApiDuplicate = 29;
constexpr uint32_t kApiPortEmpty = 30;
constexpr uint32_t kApiOtherUnit = 31;
constexpr uint32_t kApiDriveError = 32;
constexpr uint32_t kApiInvalidConfig = 33;
constexpr uint32_t kApiNoUnitId = 34;
constexpr uint32_t kApiNoDrives = 36;
constexpr uint32_t kApiImportMultiple = 37;
constexpr uint32_t kApiImportTwoControllers = 38;
constexpr uint32_t kApiImportPortEmpty = 39;
constexpr uint32_t kApiImportInUse = 41;
constexpr uint32_t kApiNoUnit = 43;
constexpr uint32_t kApiUnitOk = 49;
constexpr uint32_t kApiRebuilding = 50;
constexpr uint32_t kApiUnitBusy = 51;
constexpr uint32_t kApiRebuildConfig = 52;
constexpr uint32_t kApiReplacementConfig = 53;
constexpr uint32_t kApiReplacementSmall = 54;
constexpr uint32_t kApiPercentConfig = 55;
constexpr uint32_t kApiNoUnitToDelete = 59;
constexpr uint32_t kApiStripeForConfig = 60;
constexpr uint32_t kApiNotRebuilding = 64;
constexpr uint32_t kApiImportDuplicate = 65;
constexpr uint32_t kApiVerifyMode = 72;
constexpr uint32_t kApiVerifyConfig = 73;
constexpr uint32_t kApiNotMirror = 81;
// Adds the API code to the error record: flags and codes of errors met
// before stay, as the frame's calls keep them.
void set_api(uint32_t code);
// The record cleared, then the API code: a check that refuses a call before
// any command goes out leaves no code of an earlier call behind.
void refuse_api(uint32_t code);

// Identifiers the API makes of numbers it has checked, on the controller of
// `controller_id`; unused bytes 0xFF. A unit of depth D takes D - 1 subunit
// bytes from `path`.
tw_id_type unit_id_of(tw_id_type controller_id, int unit, const uint8_t* path = nullptr, int depth = 1);
tw_id_type drive_id_of(tw_id_type controller_id, int drive);
// An output list emptied: length 0, every identifier unused. A null list is left alone.
void clear_list(tw_id_list_type* list);
} // namespace twp

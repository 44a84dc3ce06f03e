// The NVRAM card's user-space library: plain functions over a handle to the
// card's driver ("/dev/tav_nvram0"). It opens the card, checks its versions,
// brings SDRAM up, keeps the validity state in EEPROM and a register, moves
// data with descriptors, and restores flash to SDRAM page by page with ECC
// and CRC checks. Results are nvram_error_t codes; all text goes through the
// handle's logger.
//
// The card's records are fixed little-endian layouts; their bit fields are
// explicit shifts and masks, so the layout does not depend on the compiler.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "the card's records are little-endian");

// ---- enumerations ----

enum nvram_mode_t : int {
    NVRAM_MODE_MONITOR_ONLY = 0,
    NVRAM_MODE_READ_WRITE = 1,
};

enum nvram_validity_t : int {
    NVRAM_VALIDITY_INVALID = 0,
    NVRAM_VALIDITY_SDRAM = 1,
    NVRAM_VALIDITY_FLASH = 2,
    NVRAM_VALIDITY_EMPTY = 4,
};

// Destination in the high nibble, source in the low: host 1, SDRAM 2, flash 4.
enum nvram_op_t : uint16_t {
    NVRAM_OP_H2S = 0x21,
    NVRAM_OP_S2H = 0x12,
    NVRAM_OP_S2F = 0x42,
    NVRAM_OP_F2S = 0x24,
    NVRAM_OP_F2H = 0x14,
    NVRAM_OP_H2F = 0x41,
};

enum nvram_CRC_type_t : uint8_t {
    NVRAM_CRC_32_ETHERNET = 0,
};

enum nvram_warning_t : int {
    NVRAM_SDRAM_ECC_CORRECTED = 1,
    NVRAM_FLASH_ECC_CORRECTED = 2,
};

enum nvram_error_t : int {
    NVRAM_SUCCESS = 0,
    NVRAM_DESCR_OP_BAD = 2,
    NVRAM_DESCR_SOURCE_BAD = 4,
    NVRAM_DESCR_DESTINATION_BAD = 8,
    NVRAM_DESCR_CRC_TYPE_BAD = 16,
    NVRAM_DESCR_FLASH_WRITE_FAILED = 32,
    NVRAM_DESCR_TIMED_OUT = 33,
    NVRAM_POWER_FAILED = 49,
    NVRAM_VOLTAGE_LOW = 50,
    NVRAM_REFRESH_ENABLE_TIMEOUT = 51,
    NVRAM_SDRAM_ECC_UNCORRECTABLE = 64,
    NVRAM_FLASH_ECC_UNCORRECTABLE = 80,
    NVRAM_FLASH_CHECKSUM_BAD = 81,
    NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS = 82,
    NVRAM_FLASH_BAD_PAGE_MIDBLOCK = 83,
    NVRAM_EEPROM_PARITY_ERROR = 96,
    NVRAM_EEPROM_VERIFY_FAILED = 97,
    NVRAM_EEPROM_TIME_OUT = 98,
    NVRAM_EEPROM_FATAL_PARITY_ERROR = 99,
    NVRAM_PROM_VERIFY_FAILED = 112,
    NVRAM_PROM_FILE_ERROR = 113,
    NVRAM_33MHZ_PCI = 128,
    NVRAM_ABORTED = 256,
    NVRAM_UNNECESSARY = 257,
    NVRAM_DESCR_FIFO_FULL = 272,
    NVRAM_MICROENGINE_HALTED = 273,
    NVRAM_INTERRUPT_INVALID = 274,
    NVRAM_EEPROM_ADDRESS_BAD = 275,
    NVRAM_EEPROM_INVALID_VALUE = 276,
    NVRAM_MODE_BAD = 277,
    NVRAM_DESCR_FIFO_NOT_EMPTY = 278,
    NVRAM_INVALID_DEVICE = 279,
    NVRAM_VALIDITY_BAD = 280,
    NVRAM_EXCESSIVE_VALID_BLOCKS = 281,
    NVRAM_NOT_WRITABLE = 282,
    NVRAM_OPEN_FAILED = 283,
    NVRAM_VERSION_MISMATCH = 284,
    NVRAM_IOCTL_ERROR = 285,
    NVRAM_MMAP_FAILURE = 286,
};

// ---- the driver ----

constexpr const char* NVRAM_DEVICE = "/dev/tav_nvram0";

// Requests; each passes a pointer to a 32-bit value, the EEPROM ones a pair.
constexpr unsigned long NVRAM_IOCTL_GET_INTERRUPT_STATUS = 0x80044701;
constexpr unsigned long NVRAM_IOCTL_GET_DRIVER_VERSION = 0x80044705;
constexpr unsigned long NVRAM_IOCTL_GET_NUMBER_OF_DEVICES = 0x80044706;
constexpr unsigned long NVRAM_IOCTL_SET_INTERRUPT_MASK = 0x40044707;
constexpr unsigned long NVRAM_IOCTL_SET_SETUP_BITS = 0x40044708;
constexpr unsigned long NVRAM_IOCTL_CLEAR_SETUP_BITS = 0x40044709;
constexpr unsigned long NVRAM_IOCTL_READ_EEPROM = 0x8004470b;
constexpr unsigned long NVRAM_IOCTL_WRITE_EEPROM = 0x4004470c;
constexpr int NVRAM_EEPROM_TIMEOUT_RESULT = 22;  // the EEPROM requests' time-out

// The pair of the EEPROM requests.
struct nvram_eeprom_access_t {
    uint32_t address;
    uint32_t value;
};
static_assert(sizeof(nvram_eeprom_access_t) == 8);

// File offsets of the mappings.
constexpr long NVRAM_MMAP_REGISTERS = 0;
constexpr long NVRAM_MMAP_DESCRIPTOR = 4096;
constexpr long NVRAM_MMAP_HOST_PAGE = 8192;
constexpr uint32_t NVRAM_REGISTER_SIZE = 4096;

// Register offsets.
enum nvram_register_t : uint32_t {
    NVRAM_REG_DESCRIPTOR_FIFO = 0x00,
    NVRAM_REG_SETUP = 0x10,
    NVRAM_REG_BATTERY_VOLTAGE = 0x20,
    NVRAM_REG_INTERRUPT_STATUS = 0x30,
    NVRAM_REG_INTERRUPT_MASK = 0x40,
    NVRAM_REG_FIFO_ENTRIES = 0x50,
    NVRAM_REG_FIFO_MAX = 0x60,
    NVRAM_REG_FPGA_REVISION = 0x70,
    NVRAM_REG_EEPROM_CTL = 0x80,
    NVRAM_REG_EEPROM_DATA = 0x90,
    NVRAM_REG_CARD_VERSION = 0xa0,
    NVRAM_REG_MRM_THRESHOLD = 0xb0,
    NVRAM_REG_INBOUND_COUNTERS = 0xd0,
    NVRAM_REG_OUTBOUND_COUNTERS = 0xe0,
    NVRAM_REG_DIAGNOSTIC = 0xf0,
};

// Setup register bits.
constexpr uint32_t NVRAM_SETUP_RESET = 1u << 0;
constexpr uint32_t NVRAM_SETUP_RESET_GROUP = 0x41002;   // bits 1, 12, 18
constexpr uint32_t NVRAM_SETUP_MICROENGINE_RUN = 1u << 2;
constexpr uint32_t NVRAM_SETUP_WRITE_ENABLE = 1u << 5;
constexpr uint32_t NVRAM_SETUP_START_REFRESH = 1u << 6;
constexpr uint32_t NVRAM_SETUP_REFRESH_RUNNING = 1u << 7;
constexpr uint32_t NVRAM_SETUP_SDRAM_VALID = 1u << 8;
constexpr uint32_t NVRAM_SETUP_SDRAM_CLEARED = 1u << 10;
constexpr uint32_t NVRAM_SETUP_MISSED_REFRESH = 1u << 15;
constexpr uint32_t NVRAM_SETUP_FORCE_BATTERY = 1u << 16;
constexpr uint32_t NVRAM_SETUP_FORCE_POWER_FAIL = 1u << 17;
constexpr uint32_t NVRAM_SETUP_PROM_MODE = 1u << 24;
constexpr uint32_t NVRAM_SETUP_33MHZ = 1u << 26;
constexpr uint32_t NVRAM_SETUP_FIFO_BUSY = 1u << 28;
constexpr uint32_t NVRAM_SETUP_FIFO_FULL = 1u << 29;
constexpr uint32_t NVRAM_SETUP_FIFO_PENDING = 1u << 30;
constexpr uint32_t NVRAM_SETUP_AUTO_COPY = 1u << 31;

// EEPROM byte addresses of the card's own words; the counters follow in
// nvram_counter_address.
enum nvram_eeprom_address_t : int {
    NVRAM_EE_CARD_SERIAL_NUMBER = 0,
    NVRAM_EE_SDRAM_PAGE_SIZE = 4,
    NVRAM_EE_FLASH_PAGE_SIZE = 8,
    NVRAM_EE_SDRAM_PAGES = 12,
    NVRAM_EE_FLASH_PAGES = 16,
    NVRAM_EE_FLASH_BAD_BLOCK_MAX = 20,
    NVRAM_EE_VALIDITY = 24,
    NVRAM_EE_VALID_BLOCKS = 28,
    NVRAM_EE_AUTO_COPY_STATUS = 32,
    NVRAM_EE_AUTO_COPY_FINAL_VOLTS = 36,
    NVRAM_EE_FLASH_PAGES_PER_BLOCK = 40,
    NVRAM_EE_STATE_VERSION = 44,
    NVRAM_EE_SDRAM_CLEAR = 64,
    NVRAM_EE_FLASH_ECC_CORRECTABLE = 108,
    NVRAM_EE_FLASH_ECC_UNCORRECTABLE = 112,
    NVRAM_EE_FLASH_RECOVER_RETRIED = 144,
    NVRAM_EE_FLASH_RECOVER_FAILED = 148,
    NVRAM_EE_SDRAM_REFRESH_FAILED = 176,
    NVRAM_EE_LAST = 511,
};
constexpr uint32_t NVRAM_EEPROM_PARITY = 0x80000000u;  // a read's parity status

// Flash page layout as read back into the host page.
constexpr uint32_t NVRAM_PAGE_DATA = 2048;
constexpr uint32_t NVRAM_PAGE_GOOD_MARK = 2068;        // all ones on a good page
constexpr uint32_t NVRAM_PAGE_CRC = 2108;
constexpr uint32_t NVRAM_PAGE_LAYOUT_SIZE = 2112;      // the bytes the layout reads

// ---- records ----

// A transfer's status: the error in the low half, warnings in the high.
struct nvram_op_status_t {
    struct detail_t {
        uint16_t error;
        uint16_t warning;
    };
    uint32_t value;

    detail_t detail() const { return {static_cast<uint16_t>(value & 0xffff), static_cast<uint16_t>(value >> 16)}; }
};
static_assert(sizeof(nvram_op_status_t) == 4);

// Interrupt bits; a mask may hold only those of NVRAM_INTERRUPT_MASK_VALID.
struct nvram_interrupt_t {
    enum flag_t : uint32_t {
        descriptor_checksum_error = 1u << 0,
        descriptor_failed = 1u << 1,
        memory_failure = 1u << 2,
        auto_copy_started = 1u << 3,
        uengine_eeprom_par_err = 1u << 4,
        pci_eeprom_par_err = 1u << 5,
        pci_eeprom_access_done = 1u << 6,
        descriptor_succeeded = 1u << 16,
        correctable_memory_error = 1u << 17,
        pci_grant_was_slow = 1u << 18,
        nvram_power_failed = 1u << 19,
        pci_power_failed = 1u << 20,
        unsafe_voltage = 1u << 21,
    };
    uint32_t value;

    bool flag(flag_t f) const { return (value & f) != 0; }
};
static_assert(sizeof(nvram_interrupt_t) == 4);
constexpr uint32_t NVRAM_INTERRUPT_MASK_VALID = 0x3f007f;

// The 64-byte descriptor, in memory that the card reaches.
struct nvramd_t {
    uint16_t op;                 // nvram_op_t
    uint8_t control;             // bit 0 interrupt, bits 1-6 reserved0, bit 7 init_CRC_seed
    uint8_t CRC_type;
    uint32_t length;
    uint64_t source_addr;
    uint64_t destination_addr;
    uint64_t CRC_seed;
    uint64_t CRC_result;
    nvram_op_status_t status;
    uint32_t reserved1_complete; // bits 0-30 reserved1, bit 31 (bit 7 of byte 47) complete
    uint64_t next;
    uint64_t checksum;           // over bytes 0 to 55

    static constexpr uint8_t INTERRUPT = 1u << 0;
    static constexpr uint8_t RESERVED0 = 0x7e;
    static constexpr uint8_t INIT_CRC_SEED = 1u << 7;
    static constexpr uint32_t COMPLETE = 1u << 31;
    static constexpr uint32_t RESERVED1 = 0x7fffffff;
};
static_assert(sizeof(nvramd_t) == 64);
static_assert(offsetof(nvramd_t, op) == 0);
static_assert(offsetof(nvramd_t, control) == 2);
static_assert(offsetof(nvramd_t, CRC_type) == 3);
static_assert(offsetof(nvramd_t, length) == 4);
static_assert(offsetof(nvramd_t, source_addr) == 8);
static_assert(offsetof(nvramd_t, destination_addr) == 16);
static_assert(offsetof(nvramd_t, CRC_seed) == 24);
static_assert(offsetof(nvramd_t, CRC_result) == 32);
static_assert(offsetof(nvramd_t, status) == 40);
static_assert(offsetof(nvramd_t, reserved1_complete) == 44);
static_assert(offsetof(nvramd_t, next) == 48);
static_assert(offsetof(nvramd_t, checksum) == 56);
constexpr size_t NVRAMD_CHECKSUMMED_BYTES = 56;

// The card's counters, in this structure's own order (not the EEPROM's).
struct nvram_counters_t {
    uint32_t descriptor_checksum_error;
    uint32_t descriptor_failed;
    uint32_t pci_power_down;
    uint32_t simulated_pci_power_down;
    uint32_t sdram_clear;
    uint32_t nvram_power_down;
    uint32_t nvram_power_failed;
    uint32_t auto_copy_succeeded;
    uint32_t auto_copy_failed;
    uint32_t auto_copy_aborted;
    uint32_t auto_copy_unnecessary;
    uint32_t sdram_ecc_correctable;
    uint32_t sdram_ecc_uncorrectable;
    uint32_t flash_ecc_uncorrectable;
    uint32_t flash_ecc_correctable;
    uint32_t flash_bad_blocks;
    uint32_t sdram_read_retried;
    uint32_t sdram_read_failed;
    uint32_t flash_erase_failed;
    uint32_t flash_write_failed;
    uint32_t flash_verify_retried;
    uint32_t flash_verify_failed;
    uint32_t flash_recover_retried;
    uint32_t flash_recover_failed;
    uint32_t flash_fade_erase_failed;
    uint32_t flash_fade_write_failed;
    uint32_t flash_fade_verify_retried;
    uint32_t flash_fade_verify_failed;
    uint32_t eeprom_fatal_parity;
    uint32_t eeprom_nonfatal_parity;
    uint32_t sdram_refresh_failed;
};
static_assert(sizeof(nvram_counters_t) == 31 * 4);
static_assert(offsetof(nvram_counters_t, flash_ecc_uncorrectable) < offsetof(nvram_counters_t, flash_ecc_correctable));

// The EEPROM address of each counter, by its index in nvram_counters_t.
extern const int nvram_counter_address[31];

// The card's state as nvram_get_status reads it.
struct nvram_status_t {
    uint16_t nvramd_fifo_max;
    uint16_t nvramd_fifo_entries;
    uint32_t flags;              // the 1-bit fields below
    float battery_volts;
    uint32_t interrupt_mask;
    uint32_t card_serial_number;
    uint32_t firmware_version;
    uint32_t driver_version;
    uint32_t state_version;
    uint32_t card_version;
    uint32_t sdram_pages;
    uint32_t sdram_page_size;
    uint32_t flash_pages;
    uint32_t flash_page_size;
    uint32_t flash_pages_per_block;
    uint32_t flash_bad_block_max;
    uint32_t mrm_threshold;
    nvram_validity_t validity;
    uint32_t valid_blocks;
    nvram_op_status_t auto_copy_status;
    float auto_copy_final_volts;
    nvram_counters_t count;

    static constexpr uint32_t MICROENGINE_HALT = 1u << 0;
    static constexpr uint32_t WRITE_ENABLE = 1u << 1;
    static constexpr uint32_t AUTO_COPY_IN_PROGRESS = 1u << 2;
    static constexpr uint32_t FORCE_BATTERY_POWER = 1u << 3;
    static constexpr uint32_t FORCE_POWER_FAIL_DETECT = 1u << 4;
    static constexpr uint32_t BATTERY_PRESENT = 1u << 5;

    bool microengine_halt() const { return flags & MICROENGINE_HALT; }
    bool write_enable() const { return flags & WRITE_ENABLE; }
    bool auto_copy_in_progress() const { return flags & AUTO_COPY_IN_PROGRESS; }
    bool force_battery_power() const { return flags & FORCE_BATTERY_POWER; }
    bool force_power_fail_detect() const { return flags & FORCE_POWER_FAIL_DETECT; }
    bool battery_present() const { return flags & BATTERY_PRESENT; }
};

// ---- the handle ----

typedef void (*nvram_logger_fn)(const char* text);

struct nvram_s {
    uint8_t* base_ptr;           // the card's registers, mapped
    uint32_t addr_size;          // 4096
    nvram_mode_t mode;
    int fd;
    bool valid;                  // cleared at close
    uint32_t card_version;       // register 0xa0
    uint32_t fpga_version;       // register 0x70
    bool voltage_check;          // true unless card_version is 0x20000
    nvram_logger_fn logger;      // never null
};
typedef nvram_s* nvram_t;

// Writes the text and a newline to standard error.
void nvram_logger(const char* text);

// ---- functions ----

int nvram_get_number_of_devices();
nvram_error_t nvram_open(const char* pathname, nvram_mode_t mode, nvram_t* pHandle, nvram_logger_fn logger);
nvram_error_t nvram_close(nvram_t handle);
nvram_error_t nvram_get_fd(nvram_t handle, int* fd);
nvram_error_t nvram_abort_auto_copy(nvram_t handle);
nvram_error_t nvram_set_nvram_writable(nvram_t handle, int writable);
nvram_error_t nvram_simulate_pci_power_down(nvram_t handle);
nvram_error_t nvram_battery_power(nvram_t handle, int battery);
nvram_error_t nvram_soft_reset(nvram_t handle);
void nvram_checksum_descriptor(nvramd_t* descr);
uint64_t nvram_checksum_data(const void* data, uint32_t len, nvram_CRC_type_t type, uint64_t seed);
nvram_error_t nvram_push_chain(nvram_t handle, uint64_t descriptor);
nvram_error_t nvram_get_status(nvram_t handle, nvram_status_t* status, int skip_eeprom);
nvram_error_t nvram_set_interrupt_mask(nvram_t handle, nvram_interrupt_t mask);
nvram_error_t nvram_get_interrupt_status(nvram_t handle, nvram_interrupt_t* status);
nvram_error_t nvram_get_eeprom(nvram_t handle, int address, uint32_t* data);
nvram_error_t nvram_get_eeprom_user_space(nvram_t handle, int* address, int* length);
nvram_error_t nvram_set_eeprom(nvram_t handle, int address, uint32_t data);
nvram_error_t nvram_set_validity(nvram_t handle, nvram_validity_t validity);
nvram_validity_t nvram_get_validity(nvram_t handle);
nvram_error_t nvram_set_valid_blocks(nvram_t handle, uint32_t blocks);
nvram_error_t nvram_program_fpga_prom(nvram_t handle, const char* filename);
nvram_error_t nvram_recover_flash_to_sdram(nvram_t handle);
nvram_error_t nvram_memcpy(nvram_t handle, nvramd_t* descr_p, uint32_t descr_physical, uint64_t src, uint64_t dst,
                           uint32_t len, nvram_op_t nvop, int abortOrReturn);
nvram_error_t nvram_set_mrm_threshold(nvram_t handle, uint32_t threshold);
void dump_nvramd(nvram_t handle, const nvramd_t* descr);
void nvram_dump_regs(nvram_t handle);

const char* nvram_error_str(nvram_error_t error);
const char* nvram_validity_str(nvram_validity_t validity);
const char* str_validity(nvram_validity_t validity);
const char* nvram_transfer_str(nvram_op_t op);

// The card's FPGA PROM: plays an XSVF file (nvram_api_download). 0 done, 1 a
// file it cannot use, 112 repeat once, anything else a failed verification.
int nvram_prom_download(nvram_t handle, const char* filename);

// ---- ECC of a flash page: 22 bits per group of 256 bytes ----

// The ECC of the group whose first byte is `group`, its bytes 4 apart.
uint32_t calculateEcc(const uint8_t* group);
// Compares a group with its stored ECC: 0 clean or an error in the ECC field,
// 2 one data bit corrected in place, 1 uncorrectable. `block` names the group
// in the log lines.
int checkECC(nvram_t handle, uint8_t* group, uint32_t stored, int block);
// Flips bit `bit` of line `line` of the group.
void eccCorrection(uint8_t* group, int line, int bit);
// The eight groups of a 2112-byte page: -1 uncorrectable, 1 corrected, 0 clean.
int eccCheck(nvram_t handle, uint8_t* page);

// The NVRAM card library: the handle, the setup register, EEPROM, validity,
// status, and the texts.
#include "nvram/nvram_api.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

#include "nvram/nvram_api_internal.h"

using namespace nvram_detail;

const int nvram_counter_address[31] = {
    48,  52,  56,  60,  64,                     // descriptor_checksum_error .. sdram_clear
    68,                                         // nvram_power_down
    76,  80,  84,  88,  92,                     // nvram_power_failed .. auto_copy_unnecessary
    100, 104, 112, 108, 116,                    // sdram_ecc_*, flash_ecc_uncorrectable, _correctable, bad blocks
    120, 124, 128, 132, 136, 140, 144, 148,     // sdram_read_retried .. flash_recover_failed
    160, 164, 168, 172,                         // flash_fade_*
    152, 156,                                   // eeprom_fatal_parity, eeprom_nonfatal_parity
    176,                                        // sdram_refresh_failed
};

namespace {

uint32_t nvram_counters_t::* const counterFields[31] = {
    &nvram_counters_t::descriptor_checksum_error, &nvram_counters_t::descriptor_failed,
    &nvram_counters_t::pci_power_down,            &nvram_counters_t::simulated_pci_power_down,
    &nvram_counters_t::sdram_clear,               &nvram_counters_t::nvram_power_down,
    &nvram_counters_t::nvram_power_failed,        &nvram_counters_t::auto_copy_succeeded,
    &nvram_counters_t::auto_copy_failed,          &nvram_counters_t::auto_copy_aborted,
    &nvram_counters_t::auto_copy_unnecessary,     &nvram_counters_t::sdram_ecc_correctable,
    &nvram_counters_t::sdram_ecc_uncorrectable,   &nvram_counters_t::flash_ecc_uncorrectable,
    &nvram_counters_t::flash_ecc_correctable,     &nvram_counters_t::flash_bad_blocks,
    &nvram_counters_t::sdram_read_retried,        &nvram_counters_t::sdram_read_failed,
    &nvram_counters_t::flash_erase_failed,        &nvram_counters_t::flash_write_failed,
    &nvram_counters_t::flash_verify_retried,      &nvram_counters_t::flash_verify_failed,
    &nvram_counters_t::flash_recover_retried,     &nvram_counters_t::flash_recover_failed,
    &nvram_counters_t::flash_fade_erase_failed,   &nvram_counters_t::flash_fade_write_failed,
    &nvram_counters_t::flash_fade_verify_retried, &nvram_counters_t::flash_fade_verify_failed,
    &nvram_counters_t::eeprom_fatal_parity,       &nvram_counters_t::eeprom_nonfatal_parity,
    &nvram_counters_t::sdram_refresh_failed,
};

uint32_t major(uint32_t version) { return version >> 16; }

nvram_error_t eepromResult(nvram_t handle, int rc, int err, const char* tag)
{
    if (rc == 0) return NVRAM_SUCCESS;
    if (rc == NVRAM_EEPROM_TIMEOUT_RESULT) return NVRAM_EEPROM_TIME_OUT;
    // -1 with errno, or any other result the driver should not give.
    logf(handle, "%s: ioctl failed: %s, errno %d", tag, std::strerror(err), err);
    return NVRAM_IOCTL_ERROR;
}

} // namespace

// ---- helpers ----

namespace nvram_detail {

void checkFailed(const char* expression, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: nvram check failed: %s\n", file, line, expression);
    std::fflush(stderr);
    std::abort();
}

nvram_error_t setBits(nvram_t handle, uint32_t bits)
{
    if (plat::ioctl(handle->fd, NVRAM_IOCTL_SET_SETUP_BITS, &bits) == -1) return NVRAM_IOCTL_ERROR;
    return NVRAM_SUCCESS;
}

nvram_error_t clearBits(nvram_t handle, uint32_t bits)
{
    if (plat::ioctl(handle->fd, NVRAM_IOCTL_CLEAR_SETUP_BITS, &bits) == -1) return NVRAM_IOCTL_ERROR;
    return NVRAM_SUCCESS;
}

void logf(nvram_t handle, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    nvram_logger_fn logger = handle && handle->logger ? handle->logger : nvram_logger;
    logger(text);
}

bool voltageLow(nvram_t handle)
{
    if (!handle->voltage_check) return false;
    uint32_t raw = readReg(handle, NVRAM_REG_BATTERY_VOLTAGE);
    // Inclusive on the first family, exclusive on the others: kept as the
    // cards were qualified.
    switch (handle->card_version) {
    case 0x10000: return raw < 4014;
    case 0x20000: return raw <= 3039;
    default: return raw <= 3603;
    }
}

float scaleVolts(uint32_t cardVersion, uint32_t raw)
{
    switch (cardVersion) {
    case 0x10000:
    case 0x30000: return static_cast<float>(raw * 0.001220703125);
    case 0x20000: return static_cast<float>(raw * 0.001611328125);
    default: return 0.0f;
    }
}

nvram_error_t incrementCounter(nvram_t handle, int address)
{
    uint32_t value = 0;
    nvram_error_t rc = nvram_get_eeprom(handle, address, &value);
    if (rc != NVRAM_SUCCESS) return rc;
    return nvram_set_eeprom(handle, address, value + 1);
}

void releaseHandle(nvram_t handle)
{
    handle->valid = false;
    plat::close(handle->fd);
    plat::munmap(handle->base_ptr, handle->addr_size);
    delete handle;
}

} // namespace nvram_detail

// ---- the handle ----

void nvram_logger(const char* text)
{
    std::fprintf(stderr, "%s\n", text ? text : "");
    std::fflush(stderr);
}

int nvram_get_number_of_devices()
{
    int fd = plat::open(NVRAM_DEVICE, O_RDONLY);
    if (fd < 0) return 0;
    uint32_t count = 0;
    int rc = plat::ioctl(fd, NVRAM_IOCTL_GET_NUMBER_OF_DEVICES, &count);
    plat::close(fd);
    if (rc == -1) return -1;
    return static_cast<int>(count);
}

namespace {

// Steps 13 to 19 of opening: clears SDRAM once after power-up. Writing is on
// from here and off again at every way out.
nvram_error_t clearSdram(nvram_t handle)
{
    setBits(handle, NVRAM_SETUP_WRITE_ENABLE);
    // The claim of SDRAM data lives in setup bit 8 alone; any claim is lost.
    if (nvram_get_validity(handle) & NVRAM_VALIDITY_SDRAM) {
        logf(handle, "valid data in sdram lost");
        nvram_dump_regs(handle);
        nvram_set_validity(handle, NVRAM_VALIDITY_INVALID);
        std::abort();
    }

    auto done = [handle](nvram_error_t rc) {
        clearBits(handle, NVRAM_SETUP_WRITE_ENABLE);
        return rc;
    };

    uint32_t pageSize = 0, pages = 0;
    nvram_error_t rc = nvram_get_eeprom(handle, NVRAM_EE_SDRAM_PAGE_SIZE, &pageSize);
    if (rc == NVRAM_SUCCESS) rc = nvram_get_eeprom(handle, NVRAM_EE_SDRAM_PAGES, &pages);
    if (rc != NVRAM_SUCCESS) return done(rc);
    if (pageSize < 512 || pageSize > 32768) {
        logf(handle, "bogus sdram page size %u, skipping sdram_clear", pageSize);
        return done(NVRAM_SUCCESS);
    }
    if (pages > 0x200000) {
        logf(handle, "bogus number of sdram pages %u, skipping sdram_clear", pages);
        return done(NVRAM_SUCCESS);
    }

    void* descr = plat::mmap(nullptr, sizeof(nvramd_t), PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd,
                             NVRAM_MMAP_DESCRIPTOR);
    if (descr == MAP_FAILED) {
        logf(handle, "mmap failed errno:%u", static_cast<unsigned>(errno));
        return done(NVRAM_MMAP_FAILURE);
    }
    void* host = plat::mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd, NVRAM_MMAP_HOST_PAGE);
    if (host == MAP_FAILED) {
        logf(handle, "mmap failed errno:%u", static_cast<unsigned>(errno));
        plat::munmap(descr, sizeof(nvramd_t));
        return done(NVRAM_MMAP_FAILURE);
    }
    uint32_t descrPhysical = 0, hostPhysical = 0;
    std::memcpy(&descrPhysical, descr, sizeof descrPhysical);
    std::memcpy(&hostPhysical, host, sizeof hostPhysical);

    std::memset(host, 0, pageSize);
    // A failed transfer ends the process; a push the card refuses (FIFO
    // full, microengine halted) comes back, and SDRAM is not cleared.
    for (uint64_t page = 0; page < pages && rc == NVRAM_SUCCESS; ++page)
        rc = nvram_memcpy(handle, static_cast<nvramd_t*>(descr), descrPhysical, hostPhysical, page * pageSize,
                          pageSize, NVRAM_OP_H2S, ABORT_ON_FAILURE);

    plat::munmap(host, pageSize);
    plat::munmap(descr, sizeof(nvramd_t));
    if (rc != NVRAM_SUCCESS) return done(rc);
    setBits(handle, NVRAM_SETUP_SDRAM_CLEARED);
    NVRAM_CHECK(setup(handle) & NVRAM_SETUP_SDRAM_CLEARED);

    rc = incrementCounter(handle, NVRAM_EE_SDRAM_CLEAR);
    if (rc != NVRAM_SUCCESS) {
        logf(handle, "couldn't increment sdram clear counter");
        return done(rc);
    }
    return done(NVRAM_SUCCESS);
}

} // namespace

nvram_error_t nvram_open(const char* pathname, nvram_mode_t mode, nvram_t* pHandle, nvram_logger_fn logger)
{
    if (mode != NVRAM_MODE_MONITOR_ONLY && mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    // No place for a handle is a caller's error like a bad device.
    if (pHandle == nullptr) return NVRAM_INVALID_DEVICE;
    *pHandle = nullptr;
    if (pathname == nullptr) pathname = NVRAM_DEVICE;

    bool readWrite = mode == NVRAM_MODE_READ_WRITE;
    int fd = plat::open(pathname, readWrite ? O_RDWR : O_RDONLY);
    if (fd < 0) return NVRAM_OPEN_FAILED;

    void* ptr = plat::mmap(nullptr, NVRAM_REGISTER_SIZE, readWrite ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED,
                           fd, NVRAM_MMAP_REGISTERS);
    NVRAM_CHECK(ptr != ((void *) -1));

    nvram_t handle = new nvram_s;
    handle->base_ptr = static_cast<uint8_t*>(ptr);
    handle->addr_size = NVRAM_REGISTER_SIZE;
    handle->mode = mode;
    handle->fd = fd;
    handle->valid = true;
    handle->card_version = readReg(handle, NVRAM_REG_CARD_VERSION);
    handle->fpga_version = readReg(handle, NVRAM_REG_FPGA_REVISION);
    handle->voltage_check = handle->card_version != 0x20000;
    handle->logger = logger ? logger : nvram_logger;
    *pHandle = handle;

    uint32_t driverVersion = 0;
    if (plat::ioctl(fd, NVRAM_IOCTL_GET_DRIVER_VERSION, &driverVersion) == -1) return NVRAM_IOCTL_ERROR;
    if (driverVersion < 0x20015 || driverVersion > 0x2FFFF) {
        logf(handle, "driver_version == 0x%08x", driverVersion);
        releaseHandle(handle);
        *pHandle = nullptr;
        return NVRAM_VERSION_MISMATCH;
    }

    uint32_t cardMajor = major(handle->card_version), fpgaMajor = major(handle->fpga_version);
    bool mismatch = (cardMajor == 2 && fpgaMajor != 2) || (cardMajor == 3 && (fpgaMajor < 3 || fpgaMajor > 5));
    if (mismatch) {
        logf(handle, "card_version == 0x%08x", handle->card_version);
        logf(handle, "fpga_version == 0x%08x", handle->fpga_version);
        releaseHandle(handle);
        *pHandle = nullptr;
        return NVRAM_VERSION_MISMATCH;
    }

    // The handle stays open and set: the caller closes it.
    if (setup(handle) & NVRAM_SETUP_33MHZ) return NVRAM_33MHZ_PCI;
    if (!readWrite) return NVRAM_SUCCESS;

    nvram_error_t rc = NVRAM_SUCCESS;
    for (int attempt = 1; attempt <= 25; ++attempt) {
        rc = nvram_soft_reset(handle);
        if (rc == NVRAM_SUCCESS) break;
        logf(handle, "NVRAM soft_reset failed: %s", nvram_error_str(rc));
        if (rc != NVRAM_VOLTAGE_LOW) return rc;
        if (attempt < 25) plat::sleep(5);
    }
    if (rc != NVRAM_SUCCESS) return rc;

    nvram_interrupt_t pending{};
    if (plat::ioctl(fd, NVRAM_IOCTL_GET_INTERRUPT_STATUS, &pending.value) == -1) return NVRAM_IOCTL_ERROR;

    bool refreshStarted = false;
    if (!(setup(handle) & NVRAM_SETUP_REFRESH_RUNNING)) {
        setBits(handle, NVRAM_SETUP_START_REFRESH);
        clearBits(handle, NVRAM_SETUP_START_REFRESH);
        bool running = false;
        for (uint32_t reads = 0; reads < 10000000 && !running; ++reads)
            running = setup(handle) & NVRAM_SETUP_REFRESH_RUNNING;
        if (!running) {
            logf(handle, "SDRAM Initialization Completion Failure");
            nvram_dump_regs(handle);
            return NVRAM_REFRESH_ENABLE_TIMEOUT;
        }
        plat::usleep(100);
        refreshStarted = true;
    }

    bool clear = handle->card_version > 0x2FFFF ? !(setup(handle) & NVRAM_SETUP_SDRAM_CLEARED)
                                                : handle->card_version == 0x20000 && refreshStarted;
    if (!clear) return NVRAM_SUCCESS;
    return clearSdram(handle);
}

nvram_error_t nvram_close(nvram_t handle)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode == NVRAM_MODE_READ_WRITE && (setup(handle) & (NVRAM_SETUP_FIFO_BUSY | NVRAM_SETUP_FIFO_PENDING)))
        return NVRAM_DESCR_FIFO_NOT_EMPTY;
    releaseHandle(handle);
    return NVRAM_SUCCESS;
}

nvram_error_t nvram_get_fd(nvram_t handle, int* fd)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (fd) *fd = handle->fd;
    return NVRAM_SUCCESS;
}

// ---- the setup register ----

nvram_error_t nvram_abort_auto_copy(nvram_t handle)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if ((setup(handle) & NVRAM_SETUP_AUTO_COPY) && voltageLow(handle)) return NVRAM_VOLTAGE_LOW;
    return clearBits(handle, NVRAM_SETUP_AUTO_COPY | NVRAM_SETUP_FORCE_POWER_FAIL);
}

nvram_error_t nvram_set_nvram_writable(nvram_t handle, int writable)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (voltageLow(handle)) return NVRAM_VOLTAGE_LOW;
    return writable ? setBits(handle, NVRAM_SETUP_WRITE_ENABLE) : clearBits(handle, NVRAM_SETUP_WRITE_ENABLE);
}

nvram_error_t nvram_simulate_pci_power_down(nvram_t handle)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    nvram_error_t rc = setBits(handle, NVRAM_SETUP_FORCE_POWER_FAIL);
    if (rc != NVRAM_SUCCESS) return rc;
    plat::sleep(1);
    return NVRAM_SUCCESS;
}

nvram_error_t nvram_battery_power(nvram_t handle, int battery)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    return battery ? setBits(handle, NVRAM_SETUP_FORCE_BATTERY) : clearBits(handle, NVRAM_SETUP_FORCE_BATTERY);
}

nvram_error_t nvram_soft_reset(nvram_t handle)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if ((setup(handle) & NVRAM_SETUP_AUTO_COPY) && voltageLow(handle)) return NVRAM_VOLTAGE_LOW;

    if (setup(handle) & NVRAM_SETUP_MISSED_REFRESH) {
        logf(handle, "warning: sdram wasn't refreshed on schedule");
        bool wasWritable = setup(handle) & NVRAM_SETUP_WRITE_ENABLE;
        setBits(handle, NVRAM_SETUP_WRITE_ENABLE);
        nvram_error_t rc = incrementCounter(handle, NVRAM_EE_SDRAM_REFRESH_FAILED);
        // The former writable state comes back on the failure too.
        if (!wasWritable) clearBits(handle, NVRAM_SETUP_WRITE_ENABLE);
        if (rc != NVRAM_SUCCESS) {
            logf(handle, "couldn't increment sdram refresh failed counter");
            return rc;
        }
    }

    nvram_error_t rc = clearBits(handle, NVRAM_SETUP_AUTO_COPY | NVRAM_SETUP_FORCE_POWER_FAIL);
    if (rc != NVRAM_SUCCESS) return rc;
    plat::usleep(100000);
    setBits(handle, NVRAM_SETUP_RESET);
    clearBits(handle, NVRAM_SETUP_RESET);
    setBits(handle, NVRAM_SETUP_RESET_GROUP);
    clearBits(handle, NVRAM_SETUP_RESET_GROUP);
    return setBits(handle, NVRAM_SETUP_MICROENGINE_RUN);
}

nvram_error_t nvram_push_chain(nvram_t handle, uint64_t descriptor)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    uint32_t bits = setup(handle);
    if (!(bits & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;
    if (!(bits & NVRAM_SETUP_MICROENGINE_RUN)) return NVRAM_MICROENGINE_HALTED;
    if (bits & NVRAM_SETUP_FIFO_FULL) return NVRAM_DESCR_FIFO_FULL;
    storeReg(handle, NVRAM_REG_DESCRIPTOR_FIFO, static_cast<uint32_t>(descriptor));
    return NVRAM_SUCCESS;
}

nvram_error_t nvram_set_interrupt_mask(nvram_t handle, nvram_interrupt_t mask)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;
    if (mask.value & ~NVRAM_INTERRUPT_MASK_VALID) return NVRAM_INTERRUPT_INVALID;
    if (plat::ioctl(handle->fd, NVRAM_IOCTL_SET_INTERRUPT_MASK, &mask.value) == -1) return NVRAM_IOCTL_ERROR;
    return NVRAM_SUCCESS;
}

nvram_error_t nvram_get_interrupt_status(nvram_t handle, nvram_interrupt_t* status)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    uint32_t value = 0;
    if (plat::ioctl(handle->fd, NVRAM_IOCTL_GET_INTERRUPT_STATUS, &value) == -1) return NVRAM_IOCTL_ERROR;
    // Reserved bits are handed on as the card set them.
    if (status) status->value = value;
    return NVRAM_SUCCESS;
}

nvram_error_t nvram_set_mrm_threshold(nvram_t handle, uint32_t threshold)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;
    storeReg(handle, NVRAM_REG_MRM_THRESHOLD, threshold);
    return NVRAM_SUCCESS;
}

// ---- EEPROM ----

nvram_error_t nvram_get_eeprom(nvram_t handle, int address, uint32_t* data)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    // A negative address is as far outside the EEPROM as one above 511.
    if (address < 0 || address > NVRAM_EE_LAST) return NVRAM_EEPROM_ADDRESS_BAD;
    nvram_eeprom_access_t access{static_cast<uint32_t>(address), 0};
    int rc = plat::ioctl(handle->fd, NVRAM_IOCTL_READ_EEPROM, &access);
    int err = errno;
    nvram_error_t result = eepromResult(handle, rc, err, "READE2");
    if (result != NVRAM_SUCCESS) return result;
    if (data) *data = access.value & ~NVRAM_EEPROM_PARITY;
    return (access.value & NVRAM_EEPROM_PARITY) ? NVRAM_EEPROM_PARITY_ERROR : NVRAM_SUCCESS;
}

nvram_error_t nvram_get_eeprom_user_space(nvram_t handle, int* address, int* length)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    uint32_t cardMajor = major(handle->card_version);
    if (major(handle->fpga_version) != 5 || (cardMajor != 1 && cardMajor != 2)) return NVRAM_VERSION_MISMATCH;
    if (address) *address = 128;
    if (length) *length = 384;
    return NVRAM_SUCCESS;
}

nvram_error_t nvram_set_eeprom(nvram_t handle, int address, uint32_t data)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;
    if (address < 0 || address > NVRAM_EE_LAST) return NVRAM_EEPROM_ADDRESS_BAD;
    if (data & NVRAM_EEPROM_PARITY) return NVRAM_EEPROM_INVALID_VALUE;
    nvram_eeprom_access_t access{static_cast<uint32_t>(address), data};
    int rc = plat::ioctl(handle->fd, NVRAM_IOCTL_WRITE_EEPROM, &access);
    int err = errno;
    nvram_error_t result = eepromResult(handle, rc, err, "WRITEE2");
    if (result != NVRAM_SUCCESS) return result;
    uint32_t back = 0;
    result = nvram_get_eeprom(handle, address, &back);
    if (result != NVRAM_SUCCESS) return result;
    return back == data ? NVRAM_SUCCESS : NVRAM_EEPROM_VERIFY_FAILED;
}

// ---- validity ----

nvram_validity_t nvram_get_validity(nvram_t handle)
{
    NVRAM_CHECK(handle != nullptr && handle->valid);
    uint32_t word = 0;
    nvram_error_t rc = nvram_get_eeprom(handle, NVRAM_EE_VALIDITY, &word);
    NVRAM_CHECK(rc == NVRAM_SUCCESS);
    uint32_t sdram = (setup(handle) & NVRAM_SETUP_SDRAM_VALID) ? NVRAM_VALIDITY_SDRAM : 0;
    return static_cast<nvram_validity_t>(static_cast<int>(word | sdram));
}

nvram_error_t nvram_set_validity(nvram_t handle, nvram_validity_t validity)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;

    nvram_validity_t old = nvram_get_validity(handle);
    if (old != validity) logf(handle, "STATE CHANGE from %s to %s", str_validity(old), str_validity(validity));

    uint32_t word;
    switch (validity) {
    case NVRAM_VALIDITY_SDRAM: word = 0; break;
    case NVRAM_VALIDITY_INVALID: word = 0; break;
    case NVRAM_VALIDITY_FLASH: word = 2; break;
    case NVRAM_VALIDITY_EMPTY: word = 4; break;
    default: return NVRAM_VALIDITY_BAD;
    }
    nvram_error_t rc = validity == NVRAM_VALIDITY_SDRAM ? setBits(handle, NVRAM_SETUP_SDRAM_VALID)
                                                        : clearBits(handle, NVRAM_SETUP_SDRAM_VALID);
    if (rc != NVRAM_SUCCESS) return rc;
    return nvram_set_eeprom(handle, NVRAM_EE_VALIDITY, word);
}

nvram_error_t nvram_set_valid_blocks(nvram_t handle, uint32_t blocks)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (voltageLow(handle)) return NVRAM_VOLTAGE_LOW;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;

    uint32_t perBlock = 0, flashPages = 0, badMax = 0;
    nvram_error_t rc = nvram_get_eeprom(handle, NVRAM_EE_FLASH_PAGES_PER_BLOCK, &perBlock);
    if (rc != NVRAM_SUCCESS) return rc;
    if (perBlock == 0) {
        logf(handle, "flash_pages_per_block is zero");
        std::abort();
    }
    rc = nvram_get_eeprom(handle, NVRAM_EE_FLASH_PAGES, &flashPages);
    if (rc == NVRAM_SUCCESS) rc = nvram_get_eeprom(handle, NVRAM_EE_FLASH_BAD_BLOCK_MAX, &badMax);
    if (rc != NVRAM_SUCCESS) return rc;
    // Signed and wide: a card whose bad-block allowance eats all of its
    // blocks allows none, rather than wrapping round to a huge limit.
    int64_t limit = int64_t{flashPages / perBlock} - int64_t{badMax} - 1;
    if (int64_t{blocks} > limit) return NVRAM_EXCESSIVE_VALID_BLOCKS;
    return nvram_set_eeprom(handle, NVRAM_EE_VALID_BLOCKS, blocks);
}

// ---- status ----

nvram_error_t nvram_get_status(nvram_t handle, nvram_status_t* status, int skip_eeprom)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (status == nullptr) return NVRAM_SUCCESS;
    *status = nvram_status_t{};

    uint32_t bits = setup(handle);
    status->nvramd_fifo_max = static_cast<uint16_t>(readReg(handle, NVRAM_REG_FIFO_MAX));
    uint16_t entries = static_cast<uint16_t>(readReg(handle, NVRAM_REG_FIFO_ENTRIES));
    if (bits & NVRAM_SETUP_FIFO_PENDING) entries = static_cast<uint16_t>(entries + 1);
    if (bits & NVRAM_SETUP_AUTO_COPY) entries = static_cast<uint16_t>(entries - 1);
    status->nvramd_fifo_entries = entries;
    uint32_t raw = readReg(handle, NVRAM_REG_BATTERY_VOLTAGE);
    uint32_t flags = 0;
    if (!(bits & NVRAM_SETUP_MICROENGINE_RUN)) flags |= nvram_status_t::MICROENGINE_HALT;
    if (bits & NVRAM_SETUP_WRITE_ENABLE) flags |= nvram_status_t::WRITE_ENABLE;
    if (bits & NVRAM_SETUP_AUTO_COPY) flags |= nvram_status_t::AUTO_COPY_IN_PROGRESS;
    if (bits & NVRAM_SETUP_FORCE_BATTERY) flags |= nvram_status_t::FORCE_BATTERY_POWER;
    if (bits & NVRAM_SETUP_FORCE_POWER_FAIL) flags |= nvram_status_t::FORCE_POWER_FAIL_DETECT;
    if (raw > 256) flags |= nvram_status_t::BATTERY_PRESENT;
    status->flags = flags;
    status->card_version = readReg(handle, NVRAM_REG_CARD_VERSION);
    status->battery_volts = scaleVolts(status->card_version, raw);
    status->interrupt_mask = readReg(handle, NVRAM_REG_INTERRUPT_MASK);
    status->firmware_version = readReg(handle, NVRAM_REG_FPGA_REVISION);
    status->mrm_threshold = readReg(handle, NVRAM_REG_MRM_THRESHOLD);
    if (plat::ioctl(handle->fd, NVRAM_IOCTL_GET_DRIVER_VERSION, &status->driver_version) == -1)
        return NVRAM_IOCTL_ERROR;
    if (skip_eeprom) return NVRAM_SUCCESS;

    // The first word that cannot be read ends the reading with its error.
    struct Word {
        int address;
        uint32_t* field;
    };
    uint32_t validity = 0, autoCopy = 0, finalRaw = 0;
    const Word words[] = {
        {NVRAM_EE_CARD_SERIAL_NUMBER, &status->card_serial_number},
        {NVRAM_EE_SDRAM_PAGE_SIZE, &status->sdram_page_size},
        {NVRAM_EE_FLASH_PAGE_SIZE, &status->flash_page_size},
        {NVRAM_EE_SDRAM_PAGES, &status->sdram_pages},
        {NVRAM_EE_FLASH_PAGES, &status->flash_pages},
        {NVRAM_EE_FLASH_BAD_BLOCK_MAX, &status->flash_bad_block_max},
        {NVRAM_EE_VALIDITY, &validity},
        {NVRAM_EE_VALID_BLOCKS, &status->valid_blocks},
        {NVRAM_EE_AUTO_COPY_STATUS, &autoCopy},
        {NVRAM_EE_AUTO_COPY_FINAL_VOLTS, &finalRaw},
        {NVRAM_EE_FLASH_PAGES_PER_BLOCK, &status->flash_pages_per_block},
        {NVRAM_EE_STATE_VERSION, &status->state_version},
    };
    for (const Word& w : words) {
        nvram_error_t rc = nvram_get_eeprom(handle, w.address, w.field);
        if (rc != NVRAM_SUCCESS) return rc;
    }
    for (int i = 0; i < 31; ++i) {
        nvram_error_t rc = nvram_get_eeprom(handle, nvram_counter_address[i], &(status->count.*counterFields[i]));
        if (rc != NVRAM_SUCCESS) return rc;
    }

    // As nvram_get_validity, from the word already read.
    if (bits & NVRAM_SETUP_SDRAM_VALID) validity |= NVRAM_VALIDITY_SDRAM;
    status->validity = static_cast<nvram_validity_t>(static_cast<int>(validity));

    uint16_t error = 0;
    if (autoCopy == 0) error = 0;
    else if (autoCopy & (1u << 0)) error = NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS;
    else if (autoCopy & (1u << 1)) error = NVRAM_UNNECESSARY;
    else if (autoCopy & (1u << 2)) error = NVRAM_POWER_FAILED;
    else if (autoCopy & (1u << 3)) error = NVRAM_ABORTED;
    else if (autoCopy & (1u << 4)) error = NVRAM_SDRAM_ECC_UNCORRECTABLE;
    else if (autoCopy & (1u << 5)) error = NVRAM_EEPROM_FATAL_PARITY_ERROR;
    else NVRAM_CHECK(status->card_version == 0x20000);  // flags this card family leaves as they are: 0
    status->auto_copy_status.value = error;
    status->auto_copy_final_volts = scaleVolts(status->card_version, finalRaw);
    return NVRAM_SUCCESS;
}

// ---- dumps ----

void nvram_dump_regs(nvram_t handle)
{
    if (handle == nullptr || handle->base_ptr == nullptr) return;
    static const struct {
        uint32_t offset;
        const char* format;
    } lines[] = {
        {0x00, "0x00 = 0x%08X Descriptor FIFO"},   {0x10, "0x10 = 0x%08X Setup Reg"},
        {0x20, "0x20 = 0x%08X Battery Voltage"},   {0x30, "0x30 = 0x%08X Interrupt Status"},
        {0x40, "0x40 = 0x%08X Interrupt Mask"},    {0x50, "0x50 = 0x%08X Descr FIFO Entries"},
        {0x60, "0x60 = 0x%08X Descr FIFO Max"},    {0x70, "0x70 = 0x%08X FPGA Revision"},
        {0x80, "0x80 = 0x%08X EEPROM Ctl"},        {0x90, "0x90 = 0x%08X EEPROM Data"},
        {0xa0, "0xa0 = 0x%08X NVRAM Card Version"}, {0xb0, "0xb0 = 0x%08X PCI MRM Threshhold"},
        {0xd0, "0xd0 = 0x%08X Inbound Counters"},  {0xe0, "0xe0 = 0x%08X Outbound Counters"},
        {0xf0, "0xf0 = 0x%08X Diagnostic"},
    };
    char text[80];
    for (const auto& line : lines) {
        std::snprintf(text, sizeof text, line.format, readReg(handle, line.offset));
        handle->logger(text);
    }
}

void dump_nvramd(nvram_t handle, const nvramd_t* descr)
{
    if (descr == nullptr) return;
    nvramd_t d;
    std::memcpy(&d, descr, sizeof d);
    using ull = unsigned long long;
    logf(handle, " op               = 0x%X", unsigned{d.op});
    logf(handle, " interrupt        = 0x%X", static_cast<unsigned>(d.control & nvramd_t::INTERRUPT));
    logf(handle, " reserved0        = 0x%X", static_cast<unsigned>((d.control & nvramd_t::RESERVED0) >> 1));
    logf(handle, " init_CRC_seed    = 0x%X", static_cast<unsigned>((d.control & nvramd_t::INIT_CRC_SEED) >> 7));
    logf(handle, " CRC_type         = 0x%X", unsigned{d.CRC_type});
    logf(handle, " length           = 0x%X", d.length);
    logf(handle, " source_addr      = 0x%llX", ull{d.source_addr});
    logf(handle, " destination_addr = 0x%llX", ull{d.destination_addr});
    logf(handle, " CRC_seed         = 0x%llX", ull{d.CRC_seed});
    logf(handle, " CRC_result       = 0x%llX", ull{d.CRC_result});
    logf(handle, " status           = 0x%X", d.status.value);
    logf(handle, " reserved1        = 0x%X", d.reserved1_complete & nvramd_t::RESERVED1);
    logf(handle, " complete         = 0x%X", d.reserved1_complete >> 31);
    logf(handle, " next             = 0x%llX", ull{d.next});
    logf(handle, " checksum         = 0x%llX", ull{d.checksum});
}

// ---- texts ----

const char* nvram_error_str(nvram_error_t error)
{
    switch (error) {
    case NVRAM_SUCCESS: return "SUCCESS";
    case NVRAM_DESCR_OP_BAD: return "DESCR_OP_BAD";
    case NVRAM_DESCR_SOURCE_BAD: return "DESCR_SOURCE_BAD";
    case NVRAM_DESCR_DESTINATION_BAD: return "DESCR_DESTINATION_BAD";
    case NVRAM_DESCR_CRC_TYPE_BAD: return "DESCR_CRC_TYPE_BAD";
    case NVRAM_DESCR_TIMED_OUT: return "DESCR_TIMED_OUT";
    case NVRAM_POWER_FAILED: return "NVRAM_POWER_FAILED";
    case NVRAM_VOLTAGE_LOW: return "NVRAM_VOLTAGE_LOW";
    case NVRAM_REFRESH_ENABLE_TIMEOUT: return "NVRAM REFRESH_ENABLE_TIMEOUT";
    case NVRAM_SDRAM_ECC_UNCORRECTABLE: return "SDRAM_ECC_UNCORRECTABLE";
    case NVRAM_FLASH_ECC_UNCORRECTABLE: return "FLASH_ECC_UNCORRECTABLE";
    case NVRAM_FLASH_CHECKSUM_BAD: return "FLASH_CHECKSUM_BAD";
    case NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS: return "FLASH_EXCESSIVE_BAD_BLOCKS";
    case NVRAM_FLASH_BAD_PAGE_MIDBLOCK: return "FLASH_BAD_PAGE_MIDBLOCK";
    case NVRAM_EEPROM_PARITY_ERROR: return "EEPROM_PARITY_ERROR";
    case NVRAM_EEPROM_VERIFY_FAILED: return "EEPROM_VERIFY_FAILED";
    case NVRAM_EEPROM_TIME_OUT: return "EEPROM_TIME_OUT";
    case NVRAM_EEPROM_FATAL_PARITY_ERROR: return "EEPROM_FATAL_PARITY_ERROR";
    case NVRAM_PROM_VERIFY_FAILED: return "PROM_VERIFY_FAILED";
    case NVRAM_PROM_FILE_ERROR: return "PROM_FILE_ERROR";
    case NVRAM_33MHZ_PCI: return "33MHZ_PCI";
    case NVRAM_ABORTED: return "ABORTED";
    case NVRAM_UNNECESSARY: return "UNNECESSARY";
    case NVRAM_DESCR_FIFO_FULL: return "DESCR_FIFO_FULL";
    case NVRAM_MICROENGINE_HALTED: return "MICROENGINE_HALTED";
    case NVRAM_INTERRUPT_INVALID: return "NVRAM_INTERRUPT_INVALID";
    case NVRAM_EEPROM_ADDRESS_BAD: return "EEPROM_ADDRESS_BAD";
    case NVRAM_EEPROM_INVALID_VALUE: return "EEPROM_INVALID_VALUE";
    case NVRAM_MODE_BAD: return "MODE_BAD";
    case NVRAM_DESCR_FIFO_NOT_EMPTY: return "DESCR_FIFO_NOT_EMPTY";
    case NVRAM_INVALID_DEVICE: return "NVRAM_INVALID_DEVICE";
    case NVRAM_VALIDITY_BAD: return "VALIDITY_BAD";
    case NVRAM_EXCESSIVE_VALID_BLOCKS: return "EXCESSIVE_VALID_BLOCKS";
    case NVRAM_NOT_WRITABLE: return "NOT_WRITABLE";
    case NVRAM_OPEN_FAILED: return "OPEN_FAILED";
    case NVRAM_VERSION_MISMATCH: return "VERSION_MISMATCH";
    case NVRAM_IOCTL_ERROR: return "IOCTL_ERROR";
    case NVRAM_MMAP_FAILURE: return "MMAP_FAILURE";
    // NVRAM_DESCR_FLASH_WRITE_FAILED has no text of its own.
    default: return "unknown nvram_error_t";
    }
}

const char* nvram_validity_str(nvram_validity_t validity)
{
    switch (validity) {
    case NVRAM_VALIDITY_INVALID: return "invalid";
    case NVRAM_VALIDITY_SDRAM: return "sdram";
    case NVRAM_VALIDITY_FLASH: return "flash";
    case NVRAM_VALIDITY_EMPTY: return "empty";
    default: return "undefined";
    }
}

const char* str_validity(nvram_validity_t validity)
{
    switch (validity) {
    case NVRAM_VALIDITY_INVALID: return "invalid";
    case NVRAM_VALIDITY_SDRAM: return "sdram";
    case NVRAM_VALIDITY_FLASH: return "flash";
    case NVRAM_VALIDITY_EMPTY: return "empty";
    default: return "unknown";
    }
}

const char* nvram_transfer_str(nvram_op_t op)
{
    switch (op) {
    case NVRAM_OP_H2S: return "host to sdram";
    case NVRAM_OP_S2H: return "sdram to host";
    case NVRAM_OP_S2F: return "sdram to flash";
    case NVRAM_OP_F2S: return "flash to sdram";
    default: return "invalid transfer";
    }
}

// The card's status from arbitrary registers and EEPROM words: a small
// platform answers open, the driver's requests and the register mapping from
// the input, then the card is opened for monitoring and read with and without
// its EEPROM.
//
// Input: 16 register words (offsets 0x00 to 0xf0, one per 0x10); a control
// byte; a word for the driver's version; then up to 128 EEPROM words, the
// rest zero. Control bit 0 makes the card 0x20000, which tolerates unknown
// auto copy flags; without it the flags are kept to the six the library
// knows, since others on other cards are a deliberate stop. Bits 1-2 make
// EEPROM reads time out (1), fail (2) or succeed; bit 3 passes the driver's
// version unchanged rather than inside the range the library accepts.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/mman.h>

#include "nvram/nvram_api.h"
#include "platform/platform.h"

namespace {

constexpr int kFd = 1000;

struct Card {
    alignas(4096) uint8_t regs[NVRAM_REGISTER_SIZE];
    uint32_t eeprom[128];
    uint32_t driverVersion;
    int eepromMode;
};
Card card;

class FuzzPlatform : public plat::ForwardingPlatform {
public:
    FuzzPlatform() : ForwardingPlatform(plat::hostPlatform()) {}
    int open(const char* path, int, mode_t) override
    {
        if (std::string_view(path) != NVRAM_DEVICE) {
            errno = ENOENT;
            return -1;
        }
        return kFd;
    }
    int close(int fd) override { return fd == kFd ? 0 : -1; }
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        if (fd != kFd) return errno = EBADF, -1;
        auto* word = static_cast<uint32_t*>(arg);
        switch (request) {
        case NVRAM_IOCTL_GET_DRIVER_VERSION: *word = card.driverVersion; return 0;
        case NVRAM_IOCTL_GET_NUMBER_OF_DEVICES: *word = 1; return 0;
        case NVRAM_IOCTL_GET_INTERRUPT_STATUS: *word = 0; return 0;
        case NVRAM_IOCTL_READ_EEPROM: {
            if (card.eepromMode == 1) return NVRAM_EEPROM_TIMEOUT_RESULT;
            if (card.eepromMode == 2) return errno = EIO, -1;
            nvram_eeprom_access_t access;
            std::memcpy(&access, arg, sizeof access);
            if (access.address > 508 || access.address % 4) return errno = EINVAL, -1;
            access.value = card.eeprom[access.address / 4];
            std::memcpy(arg, &access, sizeof access);
            return 0;
        }
        default: return errno = EINVAL, -1;
        }
    }
    void* mmap(void*, size_t length, int, int, int fd, off_t offset) override
    {
        if (fd != kFd || offset != NVRAM_MMAP_REGISTERS || length > sizeof card.regs) return errno = EINVAL, MAP_FAILED;
        return card.regs;
    }
    int munmap(void* addr, size_t) override { return addr == card.regs ? 0 : -1; }
    void storeRegister(volatile uint32_t* reg, uint32_t value) override { *reg = value; }
    unsigned int sleep(unsigned int) override { return 0; }
    int usleep(useconds_t) override { return 0; }
};

void quiet(const char*) {}

uint32_t word(const uint8_t* data, size_t size, size_t at)
{
    uint8_t bytes[4] = {};
    for (size_t i = 0; i < 4 && at + i < size; ++i) bytes[i] = data[at + i];
    uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static FuzzPlatform platform;
    static plat::ScopedPlatform scope(platform);

    std::memset(&card, 0, sizeof card);
    for (uint32_t i = 0; i < 16; ++i) {
        uint32_t value = word(data, size, 4 * i);
        std::memcpy(card.regs + 0x10 * i, &value, sizeof value);
    }
    uint8_t control = size > 64 ? data[64] : 0;
    uint32_t version = word(data, size, 65);
    card.driverVersion = (control & 8) ? version : 0x20015 + version % (0x2FFFF - 0x20015 + 1);
    card.eepromMode = (control >> 1) & 3;
    for (uint32_t i = 0; i < 128; ++i) card.eeprom[i] = word(data, size, 69 + 4 * i);
    if (control & 1) {
        uint32_t family = 0x20000;
        std::memcpy(card.regs + NVRAM_REG_CARD_VERSION, &family, sizeof family);
    } else {
        card.eeprom[NVRAM_EE_AUTO_COPY_STATUS / 4] &= NVRAM_EEPROM_PARITY | 0x3f;
    }

    nvram_t handle = nullptr;
    nvram_error_t rc = nvram_open(NVRAM_DEVICE, NVRAM_MODE_MONITOR_ONLY, &handle, quiet);
    if (rc != NVRAM_SUCCESS && rc != NVRAM_33MHZ_PCI) {
        if (handle != nullptr) nvram_close(handle);
        return 0;
    }
    if (handle == nullptr) std::abort();
    nvram_status_t status;
    nvram_get_status(handle, &status, 1);
    rc = nvram_get_status(handle, &status, 0);
    if (rc == NVRAM_SUCCESS && status.auto_copy_status.value != 0 &&
        std::strcmp(nvram_error_str(static_cast<nvram_error_t>(status.auto_copy_status.value)),
                    "unknown nvram_error_t") == 0)
        std::abort();
    (void)nvram_error_str(rc);
    int address = 0, length = 0;
    nvram_get_eeprom_user_space(handle, &address, &length);
    nvram_dump_regs(handle);
    if (nvram_close(handle) != NVRAM_SUCCESS) std::abort();
    return 0;
}

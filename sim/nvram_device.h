// The NVRAM card's driver, "/dev/tav_nvram0" (character node 241:0):
//
//   requests   0x80044701 read the interrupt status (and clear it),
//              0x80044705 the driver's version, 0x80044706 the number of
//              devices (1), 0x40044707 write the interrupt mask, 0x40044708
//              and 0x40044709 set and clear bits of the setup register,
//              0x8004470b and 0x4004470c read and write an EEPROM word by
//              its byte address ({uint32 address; uint32 value}). An EEPROM
//              address that is negative as an int, not a multiple of 4 or
//              above 508 is EINVAL; a time-out is the positive result 22.
//              Others are EINVAL.
//   mmap       offset 0: the register page (at most 4096 bytes), the state
//              file mapped shared, read-only without PROT_WRITE (which a
//              read-only descriptor cannot ask: EACCES). Offsets 4096 (a
//              descriptor area, at least 64 bytes) and 8192 (a host page):
//              fresh zeroed memory whose first word holds its bus address,
//              0x40000000 + k * 0x100000, unique among the process's live
//              areas; above 1 MiB is ENOMEM, other offsets EINVAL.
//   stores     at 0x00 a descriptor is pushed and runs at once; at 0xb0 the
//              MRM threshold; elsewhere the plain word. A store into a
//              read-only register mapping is lost (and logged).
//   PROM       outside PROM mode (setup bit 24) the player's verify fails
//              (3); a file the module lacks is 1; else the fault's answer.
//
// One model per platform, that is per process: it keeps the process's areas.
#pragma once

#include <cstdint>
#include <map>

#include "device_model.h"
#include "nvram_firmware.h"

namespace sim {

class NvramDevice : public DeviceModel, private nvram::HostMemory {
public:
    ~NvramDevice() override;

    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    off_t seek(DeviceContext& ctx, OpenNode& n, off_t offset, int whence) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
    void* mapRegion(DeviceContext& ctx, OpenNode& n, size_t length, int prot, off_t offset) override;
    int unmapRegion(DeviceContext& ctx, void* addr, size_t length) override;
    void storeRegister(DeviceContext& ctx, void* base, size_t offset, uint32_t value) override;
    int promDownload(DeviceContext& ctx, OpenNode& n, const char* filename) override;

private:
    uint8_t* find(uint64_t bus, uint64_t length) override;

    struct Area {
        uint8_t* memory = nullptr;
        size_t length = 0;    // usable by the card
        size_t mapped = 0;    // whole pages
    };
    std::map<uint32_t, Area> areas_;            // by bus address
    std::map<uintptr_t, uint32_t> areaBases_;   // mapping -> bus address
    std::map<uintptr_t, bool> registerMaps_;    // mapping -> writable
    uint32_t nextSlot_ = 0;
};

void addNvramModel(DeviceRegistry& registry);

} // namespace sim

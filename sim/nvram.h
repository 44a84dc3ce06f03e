// The module's NVRAM card as tests and tavsim reach it: a PCI card with
// battery-backed SDRAM, flash, an EEPROM and a page of registers, behind its
// driver at "/dev/tav_nvram0" (character node 241:0, present while the module
// has "sim/nvram0").
//
// State under "sim/nvram0/" (nvram_state.h): "card" (identity, geometry,
// EEPROM, bad blocks, faults; text), "registers" (the 4096-byte register page,
// binary, mapped shared by the system), "sdram.img" and "flash.img" (sparse
// images). Every change is made under the module's lock, so that separate
// processes see one card.
//
// The device model is NvramDevice (nvram_device.h); the card's own behaviour,
// the descriptor engine and the auto copy, is in nvram_firmware.h.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sim {

class Module;

constexpr const char* kNvramNode = "/dev/tav_nvram0";
constexpr unsigned kNvramMajor = 241;    // of the local range: the driver is the appliance's own
constexpr unsigned kNvramMinor = 0;
constexpr uint32_t kNvramDefaultSerial = 0x5A17;
constexpr uint32_t kNvramRegisterBytes = 4096;
constexpr uint32_t kNvramEepromWords = 128;

// The card as built. The page sizes are fixed: the flash page layout (ECC
// groups, good mark, CRC) is one of 2048 data bytes and 64 spare.
struct NvramGeometry {
    uint32_t sdramPageSize = 2048;
    uint32_t flashPageSize = 2112;
    uint32_t sdramPages = 512;
    uint32_t flashPages = 1024;
    uint32_t pagesPerBlock = 32;
    uint32_t badBlockMax = 2;
    uint32_t serial = kNvramDefaultSerial;

    // The SDRAM holds one page's spare beyond its last page: the system
    // reads a whole flash page (data and spare) into an SDRAM page, so the
    // last page's spare must land inside SDRAM.
    uint64_t sdramBytes() const
    {
        return uint64_t{sdramPages} * sdramPageSize + (flashPageSize - sdramPageSize);
    }
    uint64_t flashBytes() const { return uint64_t{flashPages} * flashPageSize; }
    uint32_t flashBlocks() const { return flashPages / pagesPerBlock; }
    // "" or what is wrong: counts out of range, blocks that do not divide
    // the pages, or a flash too small for SDRAM and the spare blocks.
    std::string check() const;
};

// A bit that flips when the card reads flash page `page`: once, or on
// every read.
struct NvramFlip {
    uint32_t page = 0;
    uint32_t offset = 0;     // in the flash page: data 0-2047, ECC 2048.., CRC 2108
    uint8_t bit = 0;
    bool every = false;
    bool operator==(const NvramFlip&) const = default;
};

// Faults of the card. The status bits (missed refresh, 33 MHz, FIFO, auto
// copy) stand in the setup register while their fault stands.
struct NvramFaults {
    bool autoCopy = false;            // bit 31
    bool missedRefresh = false;       // bit 15
    bool slot33 = false;              // bit 26
    bool fifoBusy = false;            // bit 28
    bool fifoPending = false;         // bit 30
    bool fifoFull = false;            // bit 29
    bool halted = false;              // bit 2 stays clear
    bool refreshNeverStarts = false;  // bit 6 does not set bit 7
    bool sdramLost = false;           // power-cycle keeps bit 8: valid data in SDRAM lost
    bool eepromTimeout = false;       // EEPROM requests give 22
    bool transferHang = false;        // descriptors never complete
    uint16_t transferError = 0;       // descriptors complete with this error (0: none)
    std::set<uint32_t> stuck;         // EEPROM addresses that ignore writes
    std::vector<NvramFlip> flips;
    std::set<uint32_t> badPages;      // flash pages whose good mark reads 0 when read
    int prom = 0;                     // the PROM player's answer
    bool promOnce = false;            // `prom` once, then 0
    bool operator==(const NvramFaults&) const = default;
    bool any() const { return *this != NvramFaults{}; }
};

// The whole card: identity, registers, EEPROM, bad blocks and faults.
struct NvramCard {
    NvramGeometry geometry;
    uint32_t driverVersion = 0x00020016;
    uint32_t regs[kNvramRegisterBytes / 4] = {};
    uint32_t eeprom[kNvramEepromWords] = {};  // words with their parity bit (31)
    std::set<uint32_t> badBlocks;              // factory bad blocks of flash
    NvramFaults faults;

    uint32_t reg(uint32_t offset) const { return regs[offset / 4]; }
    void setReg(uint32_t offset, uint32_t value) { regs[offset / 4] = value; }
    uint32_t word(uint32_t address) const { return eeprom[address / 4]; }
    void setWord(uint32_t address, uint32_t value) { eeprom[address / 4] = value; }
    // Adds one to an EEPROM counter, keeping its parity bit.
    void count(uint32_t address);
    uint32_t setup() const;
    // EEPROM 24 (without parity) or-ed with SDRAM's setup bit 8, as 1.
    uint32_t validity() const;
};

// Names of the card's EEPROM words (the fields and the 31 counters) and of
// its registers, in address order.
struct NvramName {
    const char* name;
    uint32_t address;
};
const std::vector<NvramName>& nvramEepromNames();   // fields first, then counters
const std::vector<NvramName>& nvramCounterNames();  // the 31 counters alone
const std::vector<NvramName>& nvramRegisterNames();
const char* nvramValidityText(uint32_t validity);   // "invalid" "sdram" "flash" "empty", else "unknown"

// ---- the API ----

bool nvramPresent(Module& module);
// The card; throws std::runtime_error when the module has none.
NvramCard nvramState(Module& module);
// Read-modify-write of the card under the module's lock (identity,
// registers, EEPROM words, faults). Status bits of faults removed are
// cleared, those of faults set are set. The geometry and the bad blocks
// stay: see nvramAdd and nvramBadBlock. Throws when there is no card.
void nvramUpdate(Module& module, const std::function<void(NvramCard&)>& change);
// Puts a card of `geometry` in the module, as at power-up: validity EMPTY,
// refresh not running, SDRAM and flash blank. "" or why not (a card is
// there already, a bad geometry, a file that could not be written).
std::string nvramAdd(Module& module, const NvramGeometry& geometry = {});
// The running system's data: every SDRAM page takes the pattern (the byte
// `byte` throughout, or else nvramPatternByte of `seed`), the validity
// becomes SDRAM (setup bit 8, EEPROM 24 = 0), refresh runs (bits 7 and 10).
void nvramFill(Module& module, uint32_t seed, std::optional<uint8_t> byte = std::nullopt);
// The pattern of nvramFill: byte `offset` of SDRAM page `page`.
uint8_t nvramPatternByte(uint32_t seed, uint32_t page, uint32_t offset);
// Host power lost: the card runs its auto copy and powers down; SDRAM is
// lost. Gives the result flags it stored at EEPROM 32.
uint32_t nvramPowerFail(Module& module);
// The card powered off and on without an auto copy: SDRAM lost, refresh
// stopped, bits 7, 8 and 10 clear (bit 8 stays with the sdramLost fault).
void nvramPowerCycle(Module& module);
// Marks flash block `block` bad: its pages' good marks are written 0, and
// the auto copy skips it from now on.
void nvramBadBlock(Module& module, uint32_t block);
// Raw pages, faults not applied: sdramPageSize bytes of SDRAM page `page`,
// flashPageSize bytes of flash page `page`. Throw std::out_of_range.
std::vector<uint8_t> nvramSdramPage(Module& module, uint32_t page);
std::vector<uint8_t> nvramFlashPage(Module& module, uint32_t page);
void nvramWriteFlash(Module& module, uint32_t page, uint32_t offset, const std::vector<uint8_t>& bytes);
// EEPROM words with their parity bit; std::out_of_range outside 0 to 508.
uint32_t nvramEeprom(Module& module, uint32_t address);
void nvramSetEeprom(Module& module, uint32_t address, uint32_t value);

} // namespace sim

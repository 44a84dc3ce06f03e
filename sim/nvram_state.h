// The NVRAM card's state under "sim/nvram0/":
//
//   card        text, one record a line, numbers in hex where written 0x:
//                 geometry sdram-page-size=2048 flash-page-size=2112 sdram-pages=512
//                          flash-pages=1024 pages-per-block=32 bad-block-max=2 serial=0x5a17
//                 driver-version 0x00020016
//                 eeprom ADDR W0 W1 ... W7     eight words from byte address ADDR
//                 bad-block N                  a factory bad block, repeatable
//                 fault NAME[=VALUE]           auto-copy missed-refresh 33mhz fifo-busy
//                                              fifo-pending fifo-full halted refresh-never-starts
//                                              sdram-lost eeprom-timeout transfer-hang
//                                              transfer-error=N prom=N prom-once=N
//                                              stuck=ADDR bad-page=PAGE
//                 flip page=P offset=O bit=B every=0|1
//   registers   the 4096-byte register page, little-endian words, mapped
//               shared by the system; changed in place (pwrite), never replaced
//   sdram.img   SDRAM, sparse: sdram pages and one page's spare
//   flash.img   flash, sparse: flash pages of flash-page-size bytes
//
// A card file that cannot be read in full is no card state: the model then
// reports the node absent rather than guess.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "nvram.h"

namespace sim {

class Module;

namespace nvram {

// The card's register offsets, as its hardware has them.
constexpr uint32_t kRegFifo = 0x00;
constexpr uint32_t kRegSetup = 0x10;
constexpr uint32_t kRegBattery = 0x20;
constexpr uint32_t kRegIntStatus = 0x30;
constexpr uint32_t kRegIntMask = 0x40;
constexpr uint32_t kRegFifoEntries = 0x50;
constexpr uint32_t kRegFifoMax = 0x60;
constexpr uint32_t kRegFpga = 0x70;
constexpr uint32_t kRegEepromCtl = 0x80;
constexpr uint32_t kRegEepromData = 0x90;
constexpr uint32_t kRegCardVersion = 0xa0;
constexpr uint32_t kRegMrm = 0xb0;
constexpr uint32_t kRegInbound = 0xd0;
constexpr uint32_t kRegOutbound = 0xe0;
constexpr uint32_t kRegDiagnostic = 0xf0;

// Setup register bits.
constexpr uint32_t kSetupReset = 1u << 0;
constexpr uint32_t kSetupResetGroup = (1u << 1) | (1u << 12) | (1u << 18);
constexpr uint32_t kSetupRun = 1u << 2;
constexpr uint32_t kSetupWriteEnable = 1u << 5;
constexpr uint32_t kSetupStartRefresh = 1u << 6;
constexpr uint32_t kSetupRefreshing = 1u << 7;
constexpr uint32_t kSetupSdramValid = 1u << 8;
constexpr uint32_t kSetupCleared = 1u << 10;
constexpr uint32_t kSetupMissedRefresh = 1u << 15;
constexpr uint32_t kSetupForceBattery = 1u << 16;
constexpr uint32_t kSetupPowerFail = 1u << 17;
constexpr uint32_t kSetupPromMode = 1u << 24;
constexpr uint32_t kSetup33Mhz = 1u << 26;
constexpr uint32_t kSetupFifoBusy = 1u << 28;
constexpr uint32_t kSetupFifoFull = 1u << 29;
constexpr uint32_t kSetupFifoPending = 1u << 30;
constexpr uint32_t kSetupAutoCopy = 1u << 31;
// Bits only the card sets: requests to set or clear them change nothing.
constexpr uint32_t kSetupStatusBits = kSetupRefreshing | kSetupMissedRefresh | kSetup33Mhz | kSetupFifoBusy |
                                      kSetupFifoFull | kSetupFifoPending | kSetupAutoCopy;

// Interrupt status bits the card raises.
constexpr uint32_t kIntChecksumError = 1u << 0;
constexpr uint32_t kIntDescriptorFailed = 1u << 1;
constexpr uint32_t kIntAutoCopyStarted = 1u << 3;
constexpr uint32_t kIntDescriptorSucceeded = 1u << 16;

// EEPROM byte addresses.
constexpr uint32_t kEeSerial = 0;
constexpr uint32_t kEeSdramPageSize = 4;
constexpr uint32_t kEeFlashPageSize = 8;
constexpr uint32_t kEeSdramPages = 12;
constexpr uint32_t kEeFlashPages = 16;
constexpr uint32_t kEeBadBlockMax = 20;
constexpr uint32_t kEeValidity = 24;
constexpr uint32_t kEeValidBlocks = 28;
constexpr uint32_t kEeAutoCopyStatus = 32;
constexpr uint32_t kEeFinalVolts = 36;
constexpr uint32_t kEePagesPerBlock = 40;
constexpr uint32_t kEeStateVersion = 44;
constexpr uint32_t kEeChecksumErrors = 48;
constexpr uint32_t kEeDescriptorFailed = 52;
constexpr uint32_t kEePciPowerDown = 56;
constexpr uint32_t kEeSimulatedPowerDown = 60;
constexpr uint32_t kEeNvramPowerDown = 68;
constexpr uint32_t kEeNvramPowerFailed = 76;
constexpr uint32_t kEeAutoCopySucceeded = 80;
constexpr uint32_t kEeAutoCopyFailed = 84;
constexpr uint32_t kEeAutoCopyUnnecessary = 92;
constexpr uint32_t kEeFlashBadBlocks = 116;
constexpr uint32_t kEeFatalParity = 152;
constexpr uint32_t kEeLastWord = 508;
constexpr uint32_t kEeParity = 0x80000000u;

constexpr uint32_t kValidityInvalid = 0, kValiditySdram = 1, kValidityFlash = 2, kValidityEmpty = 4;

const char kDir[] = "nvram0";
const char kCardFile[] = "nvram0/card";        // under sim/
std::string registersFile();                   // "sim/nvram0/registers"
std::string sdramFile();
std::string flashFile();

// The card file's text and back; false with `why` naming the line.
bool parseCard(const std::string& text, NvramCard& out, std::string& why);
std::string formatCard(const NvramCard& card);

// A card as built, at power-up.
NvramCard freshCard(const NvramGeometry& geometry);

// The setup bits that the faults hold set.
uint32_t faultBits(const NvramFaults& faults);

// The card's images, opened when first used and closed at the end.
class Images {
public:
    explicit Images(Module& module) : module_(module) {}
    ~Images();
    Images(const Images&) = delete;
    Images& operator=(const Images&) = delete;

    // Whole reads and writes; a short read of a sparse image's end gives zeros.
    bool read(bool flash, uint64_t at, void* buf, size_t count);
    bool write(bool flash, uint64_t at, const void* buf, size_t count);
    // SDRAM forgets: every byte reads zero, `bytes` long.
    bool clearSdram(uint64_t bytes);

private:
    int fd(bool flash);
    Module& module_;
    int sdram_ = -1;
    int flash_ = -1;
};

// Runs `visit` on the card under the module's lock and saves what changed:
// the card file atomically, the register page in place, word by word. False
// when the module has no card (or its file cannot be read).
bool visitCard(Module& module, const std::function<void(NvramCard&, Images&)>& visit);

} // namespace nvram
} // namespace sim

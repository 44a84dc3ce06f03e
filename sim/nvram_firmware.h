// The NVRAM card's own behaviour, written from the card's side: its
// descriptor engine, its setup register, its power-up and its auto copy of
// SDRAM to flash with ECC and a chained CRC in each flash page's spare.
//
// A flash page as the auto copy writes it: 2048 data bytes (one SDRAM page),
// then the spare: the ECC of the eight groups of 256 bytes (group g of 0 to
// 3 takes every fourth byte from byte g, its three ECC bytes at 2048+g,
// 2052+g, 2056+g, most significant first; groups 4 to 7 take every fourth
// byte from 1024+g-4, ECC at 2072+g-4, 2076+g-4, 2080+g-4), the good mark
// 0xffffffff at 2068, the CRC at 2108 (little-endian), 0xff elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>

#include "nvram.h"
#include "nvram_state.h"

namespace sim::nvram {

// The descriptor's layout, as the card reads it.
constexpr uint32_t kDescriptorBytes = 64;
constexpr uint32_t kDescrOp = 0, kDescrCrcType = 3, kDescrLength = 4, kDescrSource = 8, kDescrDestination = 16;
constexpr uint32_t kDescrStatus = 40, kDescrComplete = 44, kDescrChecksum = 56;
constexpr uint32_t kDescrCompleteBit = 1u << 31;

// Transfer errors, the low half of `status`: one bit each.
constexpr uint16_t kErrChecksum = 1;
constexpr uint16_t kErrOp = 2;
constexpr uint16_t kErrSource = 4;
constexpr uint16_t kErrDestination = 8;
constexpr uint16_t kErrCrcType = 16;
constexpr uint16_t kErrFlashWrite = 32;

// Flash page spare.
constexpr uint32_t kGoodMark = 2068;
constexpr uint32_t kPageCrc = 2108;

// Auto copy result flags at EEPROM 32.
constexpr uint32_t kCopyBadBlocks = 1u << 0;
constexpr uint32_t kCopyUnnecessary = 1u << 1;
constexpr uint32_t kCopyPowerFailed = 1u << 2;
constexpr uint32_t kCopyEepromParity = 1u << 5;

// CRC-32, polynomial 0x04c11db7 from the most significant bit, not
// reflected; the register starts at the complement of `seed` and the result
// is its complement.
uint32_t cardCrc(const uint8_t* data, size_t length, uint32_t seed);
// The 22-bit ECC of the 256 bytes at `first`, `first`+4, ...
uint32_t groupEcc(const uint8_t* first);
// A flash page (flashPageSize bytes at `page`) of `data` (2048 bytes) with `crc`.
void buildFlashPage(const uint8_t* data, uint32_t crc, uint8_t* page, uint32_t flashPageSize);

// Memory of the host that the card reaches by bus address.
class HostMemory {
public:
    virtual ~HostMemory() = default;
    // `length` bytes at bus address `bus`, or null when no area holds them.
    virtual uint8_t* find(uint64_t bus, uint64_t length) = 0;
};

// A store to the descriptor FIFO: the descriptor at bus address `bus` runs
// at once.
void pushDescriptor(NvramCard& card, Images& images, HostMemory& host, uint32_t bus);
// The driver's requests on the setup register.
void setSetupBits(NvramCard& card, Images& images, uint32_t bits);
void clearSetupBits(NvramCard& card, Images& images, uint32_t bits);

// Power lost: the auto copy, then the card is off and comes up again.
// `simulated` when the system forced it (setup bit 17). Gives the flags.
uint32_t powerFail(NvramCard& card, Images& images, bool simulated);
// Powered off and on without an auto copy.
void powerCycle(NvramCard& card, Images& images);
// As at power-up: SDRAM lost, refresh stopped, bits 7, 8 and 10 clear
// (bit 8 kept with `keepValid`), interrupts and the FIFO empty.
void powerUp(NvramCard& card, Images& images, bool keepValid);
// Writes zero good marks into every page of flash block `block`.
void markBlockBad(NvramCard& card, Images& images, uint32_t block);

} // namespace sim::nvram

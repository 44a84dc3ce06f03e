#include "nvram_firmware.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <vector>

namespace sim::nvram {
namespace {

std::array<uint32_t, 256> crcTable()
{
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t r = i << 24;
        for (int k = 0; k < 8; ++k) r = (r & 0x80000000u) ? (r << 1) ^ 0x04c11db7u : r << 1;
        t[i] = r;
    }
    return t;
}

int parity(unsigned v)
{
    v ^= v >> 4;
    v ^= v >> 2;
    v ^= v >> 1;
    return static_cast<int>(v & 1);
}

// Per byte value: its column parities (ECC bits 0 to 5) and its parity (bit 6).
std::array<uint8_t, 256> columnTable()
{
    std::array<uint8_t, 256> t{};
    for (unsigned b = 0; b < 256; ++b)
        t[b] = static_cast<uint8_t>(parity(b & 0xf0) << 5 | parity(b & 0x0f) << 4 | parity(b & 0xcc) << 3 |
                                    parity(b & 0x33) << 2 | parity(b & 0xaa) << 1 | parity(b & 0x55) | parity(b) << 6);
    return t;
}

uint32_t load32(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
uint64_t load64(const uint8_t* p)
{
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The limit below which the battery cannot carry an auto copy, by card.
bool batteryLow(const NvramCard& c)
{
    const uint32_t raw = c.reg(kRegBattery), version = c.reg(kRegCardVersion);
    if (version == 0x10000) return raw < 4014;
    if (version == 0x20000) return raw <= 3039;
    return raw <= 3603;
}

bool blockBad(const NvramCard& c, uint32_t flashPage)
{
    return c.badBlocks.count(flashPage / c.geometry.pagesPerBlock) != 0;
}

// Where a transfer's end lies: an offset into an image, or host memory.
struct Place {
    bool ok = false;
    bool flash = false;
    uint8_t* host = nullptr;
    uint64_t at = 0;
    uint32_t flashPage = 0;
};

bool within(uint64_t addr, uint64_t length, uint64_t size) { return addr <= size && length <= size - addr; }

Place place(const NvramCard& c, HostMemory& host, unsigned memory, uint64_t addr, uint32_t length)
{
    Place p;
    const NvramGeometry& g = c.geometry;
    switch (memory) {
    case 1:
        p.host = host.find(addr, length);
        p.ok = p.host != nullptr;
        break;
    case 2:
        p.at = addr;
        p.ok = within(addr, length, g.sdramBytes());
        break;
    case 4: {
        // A flash address is a page number times the SDRAM page size; a
        // transfer stays within one flash page (data and spare).
        const uint64_t page = addr / g.sdramPageSize, in = addr % g.sdramPageSize;
        p.flash = true;
        p.flashPage = static_cast<uint32_t>(std::min<uint64_t>(page, UINT32_MAX));
        p.at = page * g.flashPageSize + in;
        p.ok = page < g.flashPages && within(in, length, g.flashPageSize);
        break;
    }
    }
    return p;
}

// Reads `length` bytes at byte `in` of flash page `page`, as the card sees
// them: a bad page's good mark reads 0, flipped bits flip (a flip of once
// is then spent).
bool readFlash(NvramCard& c, Images& images, uint32_t page, uint32_t in, uint8_t* out, uint32_t length)
{
    if (!images.read(true, uint64_t{page} * c.geometry.flashPageSize + in, out, length)) return false;
    const uint64_t end = uint64_t{in} + length;
    if (c.faults.badPages.count(page))
        for (uint32_t o = kGoodMark; o < kGoodMark + 4; ++o)
            if (o >= in && o < end) out[o - in] = 0;
    auto& flips = c.faults.flips;
    for (auto it = flips.begin(); it != flips.end();) {
        if (it->page == page && it->offset >= in && it->offset < end) {
            out[it->offset - in] ^= static_cast<uint8_t>(1u << it->bit);
            if (!it->every) {
                it = flips.erase(it);
                continue;
            }
        }
        ++it;
    }
    return true;
}

void finish(uint8_t* d, uint16_t error)
{
    const uint32_t status = error;
    std::memcpy(d + kDescrStatus, &status, sizeof status);
    // The system polls `complete`: the status must be seen first.
    std::atomic_ref<uint32_t> complete(*reinterpret_cast<uint32_t*>(d + kDescrComplete));
    complete.store(complete.load(std::memory_order_relaxed) | kDescrCompleteBit, std::memory_order_release);
}

void raise(NvramCard& c, uint32_t bits) { c.setReg(kRegIntStatus, c.reg(kRegIntStatus) | bits); }

// The whole transfer: one read of the source and one write of the
// destination. Gives the error.
uint16_t move(NvramCard& c, Images& images, const Place& from, const Place& to, uint32_t length)
{
    if (to.flash && blockBad(c, to.flashPage)) {
        c.count(132);  // flash_write_failed
        return kErrFlashWrite;
    }
    std::vector<uint8_t> bytes(length);
    if (from.host) std::memcpy(bytes.data(), from.host, length);
    else if (from.flash) {
        if (!readFlash(c, images, from.flashPage, static_cast<uint32_t>(from.at % c.geometry.flashPageSize), bytes.data(), length))
            return kErrSource;
    } else if (!images.read(false, from.at, bytes.data(), length))
        return kErrSource;
    if (to.host) std::memcpy(to.host, bytes.data(), length);
    else if (!images.write(to.flash, to.at, bytes.data(), length))
        return to.flash ? kErrFlashWrite : kErrDestination;
    return 0;
}

} // namespace

uint32_t cardCrc(const uint8_t* data, size_t length, uint32_t seed)
{
    static const std::array<uint32_t, 256> table = crcTable();
    uint32_t r = ~seed;
    for (size_t i = 0; i < length; ++i) r = (r << 8) ^ table[(data[i] ^ (r >> 24)) & 0xff];
    return ~r;
}

// Column bits 0 to 5 are the xor of the bytes' column parities. Line bit
// 7+2k is the parity, over the bytes of odd parity, of bit k of their
// index, and so bit k of the xor of those indices; line bit 6+2k the same
// of the complemented index.
uint32_t groupEcc(const uint8_t* first)
{
    static const std::array<uint8_t, 256> columns = columnTable();
    uint32_t ecc = 0, lines = 0, notLines = 0;
    for (unsigned i = 0; i < 256; ++i) {
        const uint8_t t = columns[first[4 * i]];
        ecc ^= t & 0x3f;
        if (t & 0x40) {
            lines ^= i;
            notLines ^= ~i & 0xff;
        }
    }
    for (unsigned k = 0; k < 8; ++k) {
        ecc |= ((lines >> k) & 1u) << (7 + 2 * k);
        ecc |= ((notLines >> k) & 1u) << (6 + 2 * k);
    }
    return ecc;
}

void buildFlashPage(const uint8_t* data, uint32_t crc, uint8_t* page, uint32_t flashPageSize)
{
    std::memset(page, 0xff, flashPageSize);
    std::memcpy(page, data, 2048);
    for (unsigned g = 0; g < 8; ++g) {
        const uint32_t e = groupEcc(g < 4 ? data + g : data + 1024 + (g - 4));
        const uint32_t at = g < 4 ? 2048 + g : 2072 + (g - 4);
        page[at] = static_cast<uint8_t>(e >> 16);
        page[at + 4] = static_cast<uint8_t>(e >> 8);
        page[at + 8] = static_cast<uint8_t>(e);
    }
    std::memcpy(page + kPageCrc, &crc, sizeof crc);
}

void pushDescriptor(NvramCard& c, Images& images, HostMemory& host, uint32_t bus)
{
    c.setReg(kRegFifo, bus);
    // A halted microengine takes nothing from the FIFO.
    if (!(c.setup() & kSetupRun)) return;
    // An address in no area of the host (or not 8-aligned) cannot be read:
    // the card drops it, counts it and raises descriptor_failed; the system
    // never sees it complete.
    uint8_t* d = bus % 8 ? nullptr : host.find(bus, kDescriptorBytes);
    if (!d) {
        c.count(kEeDescriptorFailed);
        raise(c, kIntDescriptorFailed);
        return;
    }
    if (c.faults.transferHang) {
        c.setReg(kRegFifoEntries, std::min(c.reg(kRegFifoEntries) + 1, c.reg(kRegFifoMax)));
        c.setReg(kRegSetup, c.setup() | kSetupFifoBusy);
        return;
    }
    // A descriptor whose checksum fails is not trusted in any field: nothing
    // moves, and it completes with error 1, the lowest of the error bits
    // (which the system has no name for).
    const uint64_t expected = uint64_t{0xffffffffu} << 32 | cardCrc(d, kDescrChecksum, 0);
    if (load64(d + kDescrChecksum) != expected) {
        c.count(kEeChecksumErrors);
        raise(c, kIntChecksumError);
        finish(d, kErrChecksum);
        return;
    }
    const unsigned op = d[kDescrOp] | unsigned{d[kDescrOp + 1]} << 8;
    const uint32_t length = load32(d + kDescrLength);
    uint16_t error = 0;
    if (op != 0x21 && op != 0x12 && op != 0x24 && op != 0x42) error = kErrOp;
    else if (d[kDescrCrcType] != 0) error = kErrCrcType;
    Place from, to;
    if (!error) {
        from = place(c, host, op & 0xf, load64(d + kDescrSource), length);
        to = place(c, host, op >> 4, load64(d + kDescrDestination), length);
        if (!from.ok) error = kErrSource;
        else if (!to.ok) error = kErrDestination;
    }
    if (!error && c.faults.transferError) error = c.faults.transferError;
    if (!error) error = move(c, images, from, to, length);
    if (error) {
        c.count(kEeDescriptorFailed);
        raise(c, kIntDescriptorFailed);
    } else {
        raise(c, kIntDescriptorSucceeded);
    }
    finish(d, error);
}

void setSetupBits(NvramCard& c, Images& images, uint32_t bits)
{
    bits &= ~kSetupStatusBits;
    // Pulses: the reset bits, the start of refresh and power-fail detect act
    // and read back clear.
    uint32_t s = c.setup() | (bits & ~(kSetupReset | kSetupResetGroup | kSetupStartRefresh | kSetupPowerFail));
    if ((bits & kSetupStartRefresh) && !c.faults.refreshNeverStarts) s |= kSetupRefreshing;
    if (c.faults.halted) s &= ~kSetupRun;
    c.setReg(kRegSetup, s);
    if (bits & kSetupPowerFail) powerFail(c, images, true);
}

void clearSetupBits(NvramCard& c, Images&, uint32_t bits)
{
    c.setReg(kRegSetup, c.setup() & ~(bits & ~kSetupStatusBits));
}

void powerUp(NvramCard& c, Images& images, bool keepValid)
{
    images.clearSdram(c.geometry.sdramBytes());
    uint32_t s = (c.faults.halted ? 0 : kSetupRun) | faultBits(c.faults);
    if (keepValid) s |= c.setup() & kSetupSdramValid;
    c.setReg(kRegSetup, s);
    for (uint32_t r : {kRegFifo, kRegIntStatus, kRegIntMask, kRegFifoEntries}) c.setReg(r, 0);
}

void powerCycle(NvramCard& c, Images& images)
{
    c.count(kEePciPowerDown);
    c.count(kEeNvramPowerDown);
    powerUp(c, images, c.faults.sdramLost);
}

void markBlockBad(NvramCard& c, Images& images, uint32_t block)
{
    c.badBlocks.insert(block);
    const uint32_t zero = 0;
    for (uint32_t p = 0; p < c.geometry.pagesPerBlock; ++p)
        images.write(true, (uint64_t{block} * c.geometry.pagesPerBlock + p) * c.geometry.flashPageSize + kGoodMark, &zero,
                     sizeof zero);
}

// Counters: pci_power_down counts host power lost, simulated_pci_power_down
// the system's bit 17, nvram_power_down every power-down of the card, and
// nvram_power_failed an auto copy the battery could not carry.
// flash_bad_blocks holds the number of bad blocks the card knows.
uint32_t powerFail(NvramCard& c, Images& images, bool simulated)
{
    const NvramGeometry& g = c.geometry;
    c.count(simulated ? kEeSimulatedPowerDown : kEePciPowerDown);
    c.count(kEeNvramPowerDown);
    bool parityBad = false;
    for (uint32_t a = 0; a <= kEeStateVersion; a += 4) parityBad = parityBad || (c.word(a) & kEeParity);
    uint32_t flags = 0;
    if (!(c.setup() & kSetupSdramValid)) {
        // Nothing to save; the validity in EEPROM stays (FLASH stays FLASH).
        flags = kCopyUnnecessary;
        c.count(kEeAutoCopyUnnecessary);
    } else if (parityBad) {
        flags = kCopyEepromParity;
        c.count(kEeFatalParity);
    } else if (batteryLow(c)) {
        flags = kCopyPowerFailed;
        c.count(kEeNvramPowerFailed);
    } else {
        std::vector<uint8_t> data(g.sdramPageSize), page(g.flashPageSize);
        const uint32_t needed = g.sdramPages / g.pagesPerBlock;
        uint32_t written = 0, bad = 0, crc = 0;
        for (uint32_t b = 0; b < g.flashBlocks() && written < needed; ++b) {
            if (c.badBlocks.count(b)) {
                if (++bad > g.badBlockMax) break;
                continue;
            }
            for (uint32_t p = 0; p < g.pagesPerBlock; ++p) {
                const uint64_t s = uint64_t{written} * g.pagesPerBlock + p;
                images.read(false, s * g.sdramPageSize, data.data(), data.size());
                crc = cardCrc(data.data(), data.size(), crc);
                buildFlashPage(data.data(), crc, page.data(), g.flashPageSize);
                images.write(true, (uint64_t{b} * g.pagesPerBlock + p) * g.flashPageSize, page.data(), page.size());
            }
            ++written;
        }
        c.setWord(kEeValidBlocks, written);
        if (written < needed) flags = kCopyBadBlocks;
        else {
            c.setWord(kEeValidity, kValidityFlash);
            c.count(kEeAutoCopySucceeded);
        }
    }
    if (flags && flags != kCopyUnnecessary) {
        c.count(kEeAutoCopyFailed);
        c.setWord(kEeValidity, kValidityInvalid);
    }
    c.setWord(kEeAutoCopyStatus, flags);
    c.setWord(kEeFinalVolts, c.reg(kRegBattery));
    c.setWord(kEeFlashBadBlocks, static_cast<uint32_t>(c.badBlocks.size()));
    powerUp(c, images, false);
    return flags;
}

} // namespace sim::nvram

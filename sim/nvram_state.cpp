#include "nvram_state.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <unistd.h>

#include "module.h"

namespace sim {
namespace nvram {
namespace {

bool fail(std::string& why, const std::string& text)
{
    why = text;
    return false;
}

// Decimal, or 0x and hex; at most `max`.
bool number(const std::string& word, uint64_t max, uint64_t& out)
{
    const bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    const std::string digits = hex ? word.substr(2) : word;
    if (digits.empty() || digits.size() > 16) return false;
    uint64_t n = 0;
    for (char c : digits) {
        int d = -1;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (hex && c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (hex && c >= 'A' && c <= 'F') d = c - 'A' + 10;
        if (d < 0) return false;
        const uint64_t base = hex ? 16 : 10;
        if (n > (UINT64_MAX - static_cast<uint64_t>(d)) / base) return false;
        n = n * base + static_cast<uint64_t>(d);
    }
    if (n > max) return false;
    out = n;
    return true;
}

std::string hex32(uint32_t v)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
}

// KEY=VALUE words, each key once, each a number.
bool readFields(std::istringstream& in, std::map<std::string, uint64_t>& out, std::string& why)
{
    for (std::string word; in >> word;) {
        const size_t eq = word.find('=');
        uint64_t n = 0;
        if (eq == std::string::npos || eq == 0 || !number(word.substr(eq + 1), UINT32_MAX, n))
            return fail(why, word + ": not KEY=NUMBER");
        if (!out.emplace(word.substr(0, eq), n).second) return fail(why, word.substr(0, eq) + " given twice");
    }
    return true;
}

bool take(std::map<std::string, uint64_t>& fields, const char* key, uint32_t& out, std::string& why)
{
    auto it = fields.find(key);
    if (it == fields.end()) return fail(why, std::string(key) + "= is needed");
    out = static_cast<uint32_t>(it->second);
    fields.erase(it);
    return true;
}

struct FlagFault {
    const char* name;
    bool NvramFaults::*member;
};
const FlagFault kFlagFaults[] = {
    {"auto-copy", &NvramFaults::autoCopy},
    {"missed-refresh", &NvramFaults::missedRefresh},
    {"33mhz", &NvramFaults::slot33},
    {"fifo-busy", &NvramFaults::fifoBusy},
    {"fifo-pending", &NvramFaults::fifoPending},
    {"fifo-full", &NvramFaults::fifoFull},
    {"halted", &NvramFaults::halted},
    {"refresh-never-starts", &NvramFaults::refreshNeverStarts},
    {"sdram-lost", &NvramFaults::sdramLost},
    {"eeprom-timeout", &NvramFaults::eepromTimeout},
    {"transfer-hang", &NvramFaults::transferHang},
};

bool readFault(const std::string& word, NvramCard& c, std::string& why)
{
    const size_t eq = word.find('=');
    const std::string name = word.substr(0, eq);
    for (const FlagFault& f : kFlagFaults)
        if (name == f.name && eq == std::string::npos) {
            c.faults.*f.member = true;
            return true;
        }
    uint64_t n = 0;
    if (eq == std::string::npos || !number(word.substr(eq + 1), UINT32_MAX, n))
        return fail(why, "fault " + word + ": unknown");
    if (name == "transfer-error" && n >= 1 && n <= 0xffff) c.faults.transferError = static_cast<uint16_t>(n);
    else if (name == "prom" || name == "prom-once") {
        c.faults.prom = static_cast<int>(n & 0x7fffffff);
        c.faults.promOnce = name == "prom-once";
    } else if (name == "stuck" && n <= kEeLastWord && n % 4 == 0) c.faults.stuck.insert(static_cast<uint32_t>(n));
    else if (name == "bad-page" && n < c.geometry.flashPages) c.faults.badPages.insert(static_cast<uint32_t>(n));
    else return fail(why, "fault " + word + ": unknown or out of range");
    return true;
}

} // namespace

std::string registersFile() { return Module::stateFile(std::string(kDir) + "/registers"); }
std::string sdramFile() { return Module::stateFile(std::string(kDir) + "/sdram.img"); }
std::string flashFile() { return Module::stateFile(std::string(kDir) + "/flash.img"); }

uint32_t faultBits(const NvramFaults& f)
{
    return (f.autoCopy ? kSetupAutoCopy : 0) | (f.missedRefresh ? kSetupMissedRefresh : 0) |
           (f.slot33 ? kSetup33Mhz : 0) | (f.fifoBusy ? kSetupFifoBusy : 0) | (f.fifoPending ? kSetupFifoPending : 0) |
           (f.fifoFull ? kSetupFifoFull : 0);
}

bool parseCard(const std::string& text, NvramCard& out, std::string& why)
{
    NvramCard c;
    bool geometry = false, driver = false;
    bool words[kNvramEepromWords] = {};
    std::istringstream lines(text);
    std::string line;
    int lineNumber = 0;
    auto bad = [&](const std::string& what) {
        why = std::string("sim/") + kCardFile + ":" + std::to_string(lineNumber) + ": " + what;
        return false;
    };
    while (std::getline(lines, line)) {
        ++lineNumber;
        std::istringstream in(line);
        std::string kind, word, problem;
        if (!(in >> kind)) continue;
        if (kind != "geometry" && !geometry) return bad(kind + " before the geometry line");
        if (kind == "geometry") {
            std::map<std::string, uint64_t> f;
            NvramGeometry& g = c.geometry;
            if (geometry) return bad("geometry given twice");
            if (!readFields(in, f, problem) || !take(f, "sdram-page-size", g.sdramPageSize, problem) ||
                !take(f, "flash-page-size", g.flashPageSize, problem) || !take(f, "sdram-pages", g.sdramPages, problem) ||
                !take(f, "flash-pages", g.flashPages, problem) || !take(f, "pages-per-block", g.pagesPerBlock, problem) ||
                !take(f, "bad-block-max", g.badBlockMax, problem) || !take(f, "serial", g.serial, problem))
                return bad("geometry: " + problem);
            if (!f.empty()) return bad("geometry: unknown key " + f.begin()->first);
            if (std::string w = g.check(); !w.empty()) return bad("geometry: " + w);
            geometry = true;
        } else if (kind == "driver-version") {
            uint64_t n = 0;
            if (driver || !(in >> word) || !number(word, UINT32_MAX, n)) return bad("driver-version: give one number");
            c.driverVersion = static_cast<uint32_t>(n);
            driver = true;
        } else if (kind == "eeprom") {
            uint64_t at = 0;
            if (!(in >> word) || !number(word, kEeLastWord, at) || at % 32 != 0)
                return bad("eeprom: give the address, a multiple of 32 from 0 to 480");
            for (uint64_t i = at / 4; i < at / 4 + 8; ++i) {
                uint64_t v = 0;
                if (!(in >> word) || !number(word, UINT32_MAX, v)) return bad("eeprom: give eight words");
                if (words[i]) return bad("eeprom word " + std::to_string(i * 4) + " twice");
                words[i] = true;
                c.eeprom[i] = static_cast<uint32_t>(v);
            }
            if (in >> word) return bad("eeprom: give eight words");
        } else if (kind == "bad-block") {
            uint64_t n = 0;
            if (!(in >> word) || !number(word, c.geometry.flashBlocks() - 1, n))
                return bad("bad-block: give a block 0 to " + std::to_string(c.geometry.flashBlocks() - 1));
            c.badBlocks.insert(static_cast<uint32_t>(n));
        } else if (kind == "fault") {
            if (!(in >> word) || !readFault(word, c, problem)) return bad(problem.empty() ? "fault: give a name" : problem);
        } else if (kind == "flip") {
            std::map<std::string, uint64_t> f;
            NvramFlip x;
            uint32_t bit = 0, every = 0;
            if (!readFields(in, f, problem) || !take(f, "page", x.page, problem) || !take(f, "offset", x.offset, problem) ||
                !take(f, "bit", bit, problem) || !take(f, "every", every, problem))
                return bad("flip: " + problem);
            if (!f.empty() || x.page >= c.geometry.flashPages || x.offset >= c.geometry.flashPageSize || bit > 7 || every > 1)
                return bad("flip: out of range");
            x.bit = static_cast<uint8_t>(bit);
            x.every = every != 0;
            c.faults.flips.push_back(x);
        } else {
            return bad("unknown record " + kind);
        }
    }
    if (!geometry) return bad("no geometry line");
    for (uint32_t i = 0; i < kNvramEepromWords; ++i)
        if (!words[i]) return bad("eeprom word " + std::to_string(i * 4) + " is missing");
    out = c;
    return true;
}

std::string formatCard(const NvramCard& c)
{
    const NvramGeometry& g = c.geometry;
    std::string out = "geometry sdram-page-size=" + std::to_string(g.sdramPageSize) +
                      " flash-page-size=" + std::to_string(g.flashPageSize) + " sdram-pages=" + std::to_string(g.sdramPages) +
                      " flash-pages=" + std::to_string(g.flashPages) + " pages-per-block=" + std::to_string(g.pagesPerBlock) +
                      " bad-block-max=" + std::to_string(g.badBlockMax) + " serial=" + hex32(g.serial) + "\n";
    out += "driver-version " + hex32(c.driverVersion) + "\n";
    for (uint32_t i = 0; i < kNvramEepromWords; i += 8) {
        out += "eeprom " + std::to_string(i * 4);
        for (uint32_t k = i; k < i + 8; ++k) out += " " + hex32(c.eeprom[k]);
        out += "\n";
    }
    for (uint32_t b : c.badBlocks) out += "bad-block " + std::to_string(b) + "\n";
    const NvramFaults& f = c.faults;
    for (const FlagFault& x : kFlagFaults)
        if (f.*x.member) out += std::string("fault ") + x.name + "\n";
    if (f.transferError) out += "fault transfer-error=" + std::to_string(f.transferError) + "\n";
    if (f.prom || f.promOnce) out += std::string("fault ") + (f.promOnce ? "prom-once=" : "prom=") + std::to_string(f.prom) + "\n";
    for (uint32_t a : f.stuck) out += "fault stuck=" + std::to_string(a) + "\n";
    for (uint32_t p : f.badPages) out += "fault bad-page=" + std::to_string(p) + "\n";
    for (const NvramFlip& x : f.flips)
        out += "flip page=" + std::to_string(x.page) + " offset=" + std::to_string(x.offset) +
               " bit=" + std::to_string(x.bit) + " every=" + (x.every ? "1" : "0") + "\n";
    return out;
}

NvramCard freshCard(const NvramGeometry& g)
{
    NvramCard c;
    c.geometry = g;
    c.setReg(kRegSetup, kSetupRun);  // the microengine runs; refresh waits for the system
    c.setReg(kRegBattery, 3900);     // 4.76 V, above every card's limit
    c.setReg(kRegFifoMax, 16);
    c.setReg(kRegFpga, 0x00050100);  // major 5, minor 0x100: flash pages carry ECC
    c.setReg(kRegCardVersion, 0x30000);
    c.setWord(kEeSerial, g.serial);
    c.setWord(kEeSdramPageSize, g.sdramPageSize);
    c.setWord(kEeFlashPageSize, g.flashPageSize);
    c.setWord(kEeSdramPages, g.sdramPages);
    c.setWord(kEeFlashPages, g.flashPages);
    c.setWord(kEeBadBlockMax, g.badBlockMax);
    c.setWord(kEeValidity, kValidityEmpty);
    c.setWord(kEePagesPerBlock, g.pagesPerBlock);
    c.setWord(kEeStateVersion, 1);
    return c;
}

// ---- images ----

Images::~Images()
{
    if (sdram_ >= 0) ::close(sdram_);
    if (flash_ >= 0) ::close(flash_);
}

int Images::fd(bool flash)
{
    int& fd = flash ? flash_ : sdram_;
    if (fd < 0) fd = module_.host().open(flash ? flashFile() : sdramFile(), O_RDWR | O_CLOEXEC);
    return fd;
}

bool Images::read(bool flash, uint64_t at, void* buf, size_t count)
{
    const int f = fd(flash);
    if (f < 0) return false;
    auto* p = static_cast<char*>(buf);
    size_t done = 0;
    while (done < count) {
        const ssize_t n = ::pread(f, p + done, count - done, static_cast<off_t>(at + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) {
            std::memset(p + done, 0, count - done);
            break;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool Images::write(bool flash, uint64_t at, const void* buf, size_t count)
{
    const int f = fd(flash);
    if (f < 0) return false;
    const auto* p = static_cast<const char*>(buf);
    size_t done = 0;
    while (done < count) {
        const ssize_t n = ::pwrite(f, p + done, count - done, static_cast<off_t>(at + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool Images::clearSdram(uint64_t bytes)
{
    const int f = fd(false);
    return f >= 0 && ::ftruncate(f, 0) == 0 && ::ftruncate(f, static_cast<off_t>(bytes)) == 0;
}

// ---- the visit ----

namespace {

bool readRegisters(Module& module, uint32_t (&regs)[kNvramRegisterBytes / 4])
{
    const int fd = module.host().open(registersFile(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    unsigned char bytes[kNvramRegisterBytes] = {};
    const ssize_t n = ::pread(fd, bytes, sizeof bytes, 0);
    ::close(fd);
    if (n != static_cast<ssize_t>(sizeof bytes)) return false;
    std::memcpy(regs, bytes, sizeof bytes);
    return true;
}

// Only the words that changed, so that a word the system stored meanwhile
// through its own mapping is not written back over.
void writeRegisters(Module& module, const uint32_t (&before)[kNvramRegisterBytes / 4],
                    const uint32_t (&after)[kNvramRegisterBytes / 4])
{
    int fd = -1;
    for (uint32_t i = 0; i < kNvramRegisterBytes / 4; ++i) {
        if (before[i] == after[i]) continue;
        if (fd < 0 && (fd = module.host().open(registersFile(), O_RDWR | O_CLOEXEC)) < 0) return;
        const uint32_t v = after[i];
        while (::pwrite(fd, &v, sizeof v, static_cast<off_t>(i * 4)) < 0 && errno == EINTR) {
        }
    }
    if (fd >= 0) ::close(fd);
}

} // namespace

bool visitCard(Module& module, const std::function<void(NvramCard&, Images&)>& visit)
{
    Module::Lock lock(module);
    std::string text;
    if (!module.host().readFile(Module::stateFile(kCardFile), text)) return false;
    // The text seldom changes between two visits (a transfer changes only
    // registers): the last parse is kept.
    thread_local std::string lastText;
    thread_local NvramCard lastCard;
    NvramCard card;
    std::string why;
    if (text == lastText && !text.empty()) card = lastCard;
    else if (!parseCard(text, card, why)) return false;
    else {
        lastText = text;
        lastCard = card;
    }
    if (!readRegisters(module, card.regs)) return false;
    uint32_t before[kNvramRegisterBytes / 4];
    std::memcpy(before, card.regs, sizeof before);
    {
        Images images(module);
        visit(card, images);
    }
    writeRegisters(module, before, card.regs);
    const std::string after = formatCard(card);
    if (after != text) module.host().writeFileAtomic(Module::stateFile(kCardFile), after);
    return true;
}

} // namespace nvram

// ---- the card's plain parts ----

std::string NvramGeometry::check() const
{
    if (sdramPageSize != 2048 || flashPageSize != 2112) return "the page sizes are 2048 (SDRAM) and 2112 (flash)";
    if (sdramPages < 1 || sdramPages > (1u << 20)) return "sdram pages " + std::to_string(sdramPages) + ": give 1 to 1048576";
    if (flashPages < 1 || flashPages > (1u << 21)) return "flash pages " + std::to_string(flashPages) + ": give 1 to 2097152";
    if (pagesPerBlock < 1 || pagesPerBlock > 1024)
        return "pages per block " + std::to_string(pagesPerBlock) + ": give 1 to 1024";
    if (sdramPages % pagesPerBlock || flashPages % pagesPerBlock)
        return "pages per block " + std::to_string(pagesPerBlock) + " must divide the SDRAM and flash pages";
    if (badBlockMax > flashBlocks()) return "bad block max " + std::to_string(badBlockMax) + " is above the flash's blocks";
    // The system allows at most flash blocks - bad-block max - 1 valid blocks.
    if (uint64_t{sdramPages} / pagesPerBlock + badBlockMax + 1 > flashBlocks())
        return "flash of " + std::to_string(flashBlocks()) + " blocks cannot hold " +
               std::to_string(sdramPages / pagesPerBlock) + " blocks of SDRAM, " + std::to_string(badBlockMax) +
               " spare and one more";
    return "";
}

void NvramCard::count(uint32_t address)
{
    const uint32_t w = word(address);
    setWord(address, (w & nvram::kEeParity) | ((w + 1) & ~nvram::kEeParity));
}

uint32_t NvramCard::setup() const { return reg(nvram::kRegSetup); }

uint32_t NvramCard::validity() const
{
    return (word(nvram::kEeValidity) & ~nvram::kEeParity) | ((setup() & nvram::kSetupSdramValid) ? nvram::kValiditySdram : 0);
}

const std::vector<NvramName>& nvramCounterNames()
{
    static const std::vector<NvramName> names = {
        {"descriptor_checksum_error", 48}, {"descriptor_failed", 52},        {"pci_power_down", 56},
        {"simulated_pci_power_down", 60},  {"sdram_clear", 64},              {"nvram_power_down", 68},
        {"nvram_power_failed", 76},        {"auto_copy_succeeded", 80},      {"auto_copy_failed", 84},
        {"auto_copy_aborted", 88},         {"auto_copy_unnecessary", 92},    {"sdram_ecc_correctable", 100},
        {"sdram_ecc_uncorrectable", 104},  {"flash_ecc_correctable", 108},   {"flash_ecc_uncorrectable", 112},
        {"flash_bad_blocks", 116},         {"sdram_read_retried", 120},      {"sdram_read_failed", 124},
        {"flash_erase_failed", 128},       {"flash_write_failed", 132},      {"flash_verify_retried", 136},
        {"flash_verify_failed", 140},      {"flash_recover_retried", 144},   {"flash_recover_failed", 148},
        {"eeprom_fatal_parity", 152},      {"eeprom_nonfatal_parity", 156},  {"flash_fade_erase_failed", 160},
        {"flash_fade_write_failed", 164},  {"flash_fade_verify_retried", 168}, {"flash_fade_verify_failed", 172},
        {"sdram_refresh_failed", 176},
    };
    return names;
}

const std::vector<NvramName>& nvramEepromNames()
{
    static const std::vector<NvramName> names = [] {
        std::vector<NvramName> n = {
            {"card_serial_number", 0}, {"sdram_page_size", 4},        {"flash_page_size", 8},
            {"sdram_pages", 12},       {"flash_pages", 16},           {"flash_bad_block_max", 20},
            {"validity", 24},          {"valid_blocks", 28},          {"auto_copy_status", 32},
            {"auto_copy_final_volts", 36}, {"flash_pages_per_block", 40}, {"state_version", 44},
        };
        for (const NvramName& c : nvramCounterNames()) n.push_back(c);
        return n;
    }();
    return names;
}

const std::vector<NvramName>& nvramRegisterNames()
{
    static const std::vector<NvramName> names = {
        {"descriptor_fifo", 0x00}, {"setup", 0x10},        {"battery", 0x20},       {"interrupt_status", 0x30},
        {"interrupt_mask", 0x40},  {"fifo_entries", 0x50}, {"fifo_max", 0x60},      {"fpga_version", 0x70},
        {"eeprom_ctl", 0x80},      {"eeprom_data", 0x90},  {"card_version", 0xa0},  {"mrm_threshold", 0xb0},
        {"inbound_counters", 0xd0}, {"outbound_counters", 0xe0}, {"diagnostic", 0xf0},
    };
    return names;
}

const char* nvramValidityText(uint32_t v)
{
    switch (v) {
    case 0: return "invalid";
    case 1: return "sdram";
    case 2: return "flash";
    case 4: return "empty";
    }
    return "unknown";
}

} // namespace sim

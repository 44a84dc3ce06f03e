// tavsim nvram: the module's NVRAM card as a technician reads it, its
// registers, EEPROM words and faults set by hand, the running system's data
// put into SDRAM, and the host's power taken away.
#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "json.h"
#include "manifest.h"
#include "nvram.h"
#include "nvram_firmware.h"
#include "nvram_state.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

using namespace nvram;

struct Sub {
    const char* name;
    const char* synopsis;
    const char* help;
};

const Sub kSubs[] = {
    {"add", "[--sdram-pages N] [--flash-pages N] [--pages-per-block N] [--bad-block-max N] [--serial N]",
     "Puts an NVRAM card in the module, as at power-up: validity empty, refresh\n"
     "not running, SDRAM and flash blank (sparse images). Pages are 2048 bytes in\n"
     "SDRAM and 2112 in flash. Defaults: 512 SDRAM pages (1M), 1024 flash pages\n"
     "in blocks of 32, bad block max 2, serial 23063 (0x5a17). Pages per block\n"
     "(1 to 1024) must divide both counts; SDRAM 1 to 1048576 pages, flash 1 to\n"
     "2097152; the flash must hold SDRAM's blocks, bad-block-max spare and one\n"
     "more. Numbers in decimal or 0x and hex. The hwlist.conf rows are left as\n"
     "they are: platforms 2 and 6 get their card, of the default serial, at\n"
     "creation.\n"},
    {"show", "[--json]",
     "Prints the card: identity, geometry, validity, battery; its registers by\n"
     "name with the setup bits spelled out; the EEPROM fields and the 31\n"
     "counters; the bad blocks and the faults. --json: the same as one JSON\n"
     "document.\n"},
    {"set", "FIELD=VALUE...",
     "Sets words of the card as they stand, with no effect of the card's own:\n"
     "  registers  descriptor_fifo setup battery interrupt_status interrupt_mask\n"
     "             fifo_entries fifo_max fpga_version eeprom_ctl eeprom_data\n"
     "             card_version mrm_threshold inbound_counters outbound_counters\n"
     "             diagnostic\n"
     "  driver     driver_version\n"
     "  EEPROM     any field or counter by name (card_serial_number, validity,\n"
     "             valid_blocks, sdram_clear, ...), or eeprom.ADDR (0 to 508 by\n"
     "             4); the value is the raw word, bit 31 the parity error\n"
     "  validity   also invalid, sdram, flash or empty (sdram sets setup bit 8)\n"
     "VALUE in decimal or 0x and hex, 0 to 0xffffffff.\n"},
    {"fault", "NAME [ARGS] | clear",
     "Without a name, lists the faults. Names:\n"
     "  auto-copy | missed-refresh | 33mhz | fifo-busy | fifo-pending | fifo-full\n"
     "                        setup bit 31, 15, 26, 28, 30 or 29 stands set\n"
     "  halted                the microengine is halted: bit 2 stays clear\n"
     "  refresh-never-starts  pulsing bit 6 does not start refresh (bit 7)\n"
     "  sdram-lost            power-cycle keeps setup bit 8: valid data lost\n"
     "  eeprom-timeout        the EEPROM requests answer 22\n"
     "  transfer-hang         descriptors stay in the FIFO, never complete\n"
     "  transfer-error N      descriptors complete with error N, 1 to 65535\n"
     "  parity ADDR           the EEPROM word's parity bit is set\n"
     "  stuck ADDR            the EEPROM word ignores writes\n"
     "  flip PAGE OFFSET BIT [every]\n"
     "                        the bit flips when the card reads the flash page\n"
     "                        (once, or every read); OFFSET 0-2047 data, ECC at\n"
     "                        2048-2059 and 2072-2083, CRC at 2108-2111\n"
     "  bad-page PAGE         the page's good mark (2068) reads 0\n"
     "  bad-block BLOCK       a factory bad block: marks written 0, the auto\n"
     "                        copy skips it (not undone by clear)\n"
     "  prom 0|1|112|112-once|N   the PROM player's answer\n"
     "  clear                 removes every fault but the bad blocks\n"},
    {"fill", "[--pattern BYTE | --seed N]",
     "The running system's data: every SDRAM page takes the byte BYTE (0 to 255)\n"
     "or a pattern of seed N (default 1); the validity becomes sdram (setup bit\n"
     "8, EEPROM 24 = 0) and refresh runs (bits 7 and 10), as the system leaves\n"
     "them.\n"},
    {"powerfail", "",
     "The host loses power: the card runs its auto copy (SDRAM to flash, block\n"
     "by block, skipping bad blocks) when the validity is sdram, records the\n"
     "result at EEPROM 32, and comes up again with SDRAM lost.\n"},
    {"power-cycle", "",
     "The card is powered off and on without an auto copy: SDRAM is lost, bits\n"
     "7, 8 and 10 clear (bit 8 stays with the sdram-lost fault).\n"},
    {"recover", "",
     "Runs the system's own recovery on the card, as the storage server does at\n"
     "start-up: opens it read-write (clearing SDRAM after a power-up), allows\n"
     "writing, brings every flash page back to SDRAM with its ECC and CRC checks,\n"
     "and closes it. The library's log lines are printed as they come. Exit 0\n"
     "when the data came back (validity sdram), 1 when it did not or when the\n"
     "library stopped the process on purpose.\n"},
    {"status", "[--json]",
     "The card as the monitoring reads it through the system's card class: model,\n"
     "serial, versions, memory, battery, validity and state (normal when the\n"
     "module's hwlist.conf requires the card's serial, else foreign).\n"}, 
};

const Sub* findSub(const std::string& name)
{
    for (const Sub& s : kSubs)
        if (name == s.name) return &s;
    return nullptr;
}

std::string hex(uint32_t v)
{
    char t[16];
    std::snprintf(t, sizeof t, "0x%08x", v);
    return t;
}

// A 32-bit value in decimal or as "0x" and hex digits.
bool value32(const std::string& word, uint32_t& out)
{
    const bool isHex = word.size() > 1 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    uint64_t n = 0;
    if (!(isHex ? parseHexNumber(word, n) : parseNumber(word, n)) || n > UINT32_MAX) return false;
    out = static_cast<uint32_t>(n);
    return true;
}

// A number of `what` from `min` to `max`: kDone, or the status printed.
int argument(const Call& call, const std::string& what, const std::string& word, uint32_t min, uint32_t max, uint32_t& out)
{
    if (!value32(word, out) || out < min || out > max)
        return badUsage(call, what + " " + cell(word) + ": give " + std::to_string(min) + " to " + std::to_string(max));
    return kDone;
}

double volts(uint32_t raw, uint32_t cardVersion)
{
    if (cardVersion == 0x10000 || cardVersion == 0x30000) return raw * 0.001220703125;
    if (cardVersion == 0x20000) return raw * 0.001611328125;
    return 0;
}

std::string setupBits(uint32_t s)
{
    static const std::pair<uint32_t, const char*> names[] = {
        {kSetupRun, "running"},          {kSetupWriteEnable, "writable"},    {kSetupRefreshing, "refresh"},
        {kSetupSdramValid, "sdram-valid"}, {kSetupCleared, "cleared"},       {kSetupMissedRefresh, "missed-refresh"},
        {kSetupForceBattery, "battery"}, {kSetupPowerFail, "power-fail"},    {kSetupPromMode, "prom-mode"},
        {kSetup33Mhz, "33mhz"},          {kSetupFifoBusy, "fifo-busy"},      {kSetupFifoFull, "fifo-full"},
        {kSetupFifoPending, "fifo-pending"}, {kSetupAutoCopy, "auto-copy"},
    };
    std::string out;
    for (const auto& [bit, name] : names)
        if (s & bit) out += (out.empty() ? "" : " ") + std::string(name);
    if (!(s & kSetupRun)) out = "HALTED" + std::string(out.empty() ? "" : " ") + out;
    return out;
}

std::vector<std::string> faultList(const NvramCard& c)
{
    const NvramFaults& f = c.faults;
    std::vector<std::string> out;
    const std::pair<bool, const char*> flags[] = {
        {f.autoCopy, "auto-copy"}, {f.missedRefresh, "missed-refresh"}, {f.slot33, "33mhz"}, {f.fifoBusy, "fifo-busy"},
        {f.fifoPending, "fifo-pending"}, {f.fifoFull, "fifo-full"}, {f.halted, "halted"},
        {f.refreshNeverStarts, "refresh-never-starts"}, {f.sdramLost, "sdram-lost"}, {f.eepromTimeout, "eeprom-timeout"},
        {f.transferHang, "transfer-hang"}};
    for (const auto& [on, name] : flags)
        if (on) out.push_back(name);
    if (f.transferError) out.push_back("transfer-error " + std::to_string(f.transferError));
    for (uint32_t a : f.stuck) out.push_back("stuck " + std::to_string(a));
    for (const NvramFlip& x : f.flips)
        out.push_back("flip " + std::to_string(x.page) + " " + std::to_string(x.offset) + " " + std::to_string(x.bit) +
                      (x.every ? " every" : ""));
    for (uint32_t p : f.badPages) out.push_back("bad-page " + std::to_string(p));
    if (f.prom || f.promOnce) out.push_back("prom " + std::to_string(f.prom) + (f.promOnce ? "-once" : ""));
    for (uint32_t a = 0; a <= kEeLastWord; a += 4)
        if (c.word(a) & kEeParity) out.push_back("parity " + std::to_string(a));
    return out;
}

void printCard(const NvramCard& c)
{
    const NvramGeometry& g = c.geometry;
    const uint32_t card = c.reg(kRegCardVersion), fpga = c.reg(kRegFpga), battery = c.reg(kRegBattery);
    char line[160];
    std::snprintf(line, sizeof line, "%u (0x%x)", c.word(kEeSerial) & ~kEeParity, c.word(kEeSerial) & ~kEeParity);
    std::cout << "NVRAM card " << kNvramNode << " (" << kNvramMajor << ":" << kNvramMinor << "): serial " << line
              << ", card version " << hex(card) << ", FPGA " << hex(fpga) << " (major " << (fpga >> 16) << ", minor 0x"
              << std::hex << (fpga & 0xffff) << std::dec << "), driver " << hex(c.driverVersion) << "\n";
    std::cout << "SDRAM " << g.sdramPages << " pages of " << g.sdramPageSize << " bytes (" << humanSize(uint64_t{g.sdramPages} * g.sdramPageSize)
              << ", and one page's spare); flash " << g.flashPages << " pages of " << g.flashPageSize << " bytes ("
              << humanSize(g.flashBytes()) << ") in " << g.flashBlocks() << " blocks of " << g.pagesPerBlock
              << " pages; bad block max " << g.badBlockMax << "\n";
    const uint32_t v = c.validity();
    std::cout << "validity " << nvramValidityText(v) << " (EEPROM 24 = " << (c.word(kEeValidity) & ~kEeParity)
              << ", setup bit 8 " << ((c.setup() & kSetupSdramValid) ? "set" : "clear") << "); valid blocks "
              << (c.word(kEeValidBlocks) & ~kEeParity) << "; refresh " << ((c.setup() & kSetupRefreshing) ? "running" : "not running") << "\n";
    std::snprintf(line, sizeof line, "%.2f", volts(battery, card));
    std::cout << "battery raw " << battery << " (" << line << " V)\n\n";
    Table regs({"REGISTER", "OFFSET", "VALUE", "MEANING"});
    for (const NvramName& r : nvramRegisterNames()) {
        std::string meaning;
        if (r.address == kRegSetup) meaning = setupBits(c.reg(r.address));
        else if (r.address == kRegBattery) meaning = std::string(line) + " V";
        char off[8];
        std::snprintf(off, sizeof off, "0x%02x", r.address);
        regs.add({r.name, off, hex(c.reg(r.address)), meaning});
    }
    regs.print(std::cout);
    std::cout << "\n";
    Table ee({"EEPROM", "ADDRESS", "VALUE", "PARITY"});
    for (const NvramName& e : nvramEepromNames()) {
        if (e.address >= 48) break;
        const uint32_t w = c.word(e.address);
        std::string value = std::to_string(w & ~kEeParity);
        if (e.address == kEeValidity) value += " (" + std::string(nvramValidityText(w & ~kEeParity)) + ")";
        if (e.address == kEeFinalVolts && (w & ~kEeParity)) {
            char t[32];
            std::snprintf(t, sizeof t, " (%.2f V)", volts(w & ~kEeParity, card));
            value += t;
        }
        if (e.address == kEeAutoCopyStatus) value = hex(w & ~kEeParity);
        ee.add({e.name, std::to_string(e.address), value, (w & kEeParity) ? "error" : "ok"});
    }
    ee.print(std::cout);
    std::cout << "\n";
    Table counters({"COUNTER", "ADDRESS", "VALUE", "PARITY"});
    for (const NvramName& e : nvramCounterNames()) {
        const uint32_t w = c.word(e.address);
        counters.add({e.name, std::to_string(e.address), std::to_string(w & ~kEeParity), (w & kEeParity) ? "error" : "ok"});
    }
    counters.print(std::cout);
    std::vector<std::string> bad;
    for (uint32_t b : c.badBlocks) bad.push_back(std::to_string(b));
    std::cout << "\nbad blocks: " << (bad.empty() ? "none" : listed(bad)) << "\n";
    const std::vector<std::string> faults = faultList(c);
    std::cout << "faults: " << (faults.empty() ? "none" : listed(faults)) << "\n";
}

void writeJson(const NvramCard& c)
{
    const NvramGeometry& g = c.geometry;
    JsonWriter j(std::cout);
    j.beginObject();
    j.key("node").string(kNvramNode);
    j.key("driver_version").unsignedNumber(c.driverVersion);
    j.key("geometry").beginObject();
    j.key("sdram_page_size").unsignedNumber(g.sdramPageSize).key("flash_page_size").unsignedNumber(g.flashPageSize);
    j.key("sdram_pages").unsignedNumber(g.sdramPages).key("flash_pages").unsignedNumber(g.flashPages);
    j.key("pages_per_block").unsignedNumber(g.pagesPerBlock).key("bad_block_max").unsignedNumber(g.badBlockMax);
    j.key("serial").unsignedNumber(g.serial);
    j.endObject();
    j.key("validity").string(nvramValidityText(c.validity()));
    j.key("registers").beginObject();
    for (const NvramName& r : nvramRegisterNames()) j.key(r.name).unsignedNumber(c.reg(r.address));
    j.endObject();
    j.key("eeprom").beginObject();
    for (const NvramName& e : nvramEepromNames()) j.key(e.name).unsignedNumber(c.word(e.address) & ~kEeParity);
    j.endObject();
    j.key("parity_errors").beginArray();
    for (uint32_t a = 0; a <= kEeLastWord; a += 4)
        if (c.word(a) & kEeParity) j.unsignedNumber(a);
    j.endArray();
    j.key("bad_blocks").beginArray();
    for (uint32_t b : c.badBlocks) j.unsignedNumber(b);
    j.endArray();
    j.key("faults").beginArray();
    for (const std::string& f : faultList(c)) j.string(f);
    j.endArray();
    j.endObject();
}

int add(const Call& call, Module& module, const Words& w)
{
    NvramGeometry g;
    const std::pair<const char*, uint32_t NvramGeometry::*> options[] = {
        {"--sdram-pages", &NvramGeometry::sdramPages}, {"--flash-pages", &NvramGeometry::flashPages},
        {"--pages-per-block", &NvramGeometry::pagesPerBlock}, {"--bad-block-max", &NvramGeometry::badBlockMax},
        {"--serial", &NvramGeometry::serial}};
    for (const auto& [name, value] : w.options) {
        if (name == "--json") return badUsage(call, "--json goes with show");
        for (const auto& [option, member] : options)
            if (name == option && !value32(value, g.*member))
                return badUsage(call, name + " " + cell(value) + ": not a number (decimal, or 0x and hex) 0 to 4294967295");
    }
    if (std::string why = g.check(); !why.empty()) return badUsage(call, "add: " + why);
    if (std::string why = nvramAdd(module, g); !why.empty()) return refused(call, module.dir() + ": " + why);
    report("added an NVRAM card of serial " + std::to_string(g.serial) + ": " + std::to_string(g.sdramPages) +
           " SDRAM pages (" + humanSize(uint64_t{g.sdramPages} * g.sdramPageSize) + "), " + std::to_string(g.flashPages) +
           " flash pages (" + humanSize(g.flashBytes()) + ") in blocks of " + std::to_string(g.pagesPerBlock));
    return kDone;
}

int set(const Call& call, Module& module, const std::vector<std::string>& a)
{
    if (a.empty()) return badUsage(call, "set: give FIELD=VALUE (tavsim nvram DIR set --help lists the fields)");
    struct Change {
        std::string name;
        enum { Reg, Eeprom, Driver, SdramValid } kind;
        uint32_t address = 0;
        uint32_t value = 0;
    };
    std::vector<Change> changes;
    for (const std::string& word : a) {
        const size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0) return badUsage(call, "set " + cell(word) + ": give FIELD=VALUE");
        Change ch{word.substr(0, eq), Change::Reg};
        const std::string v = word.substr(eq + 1);
        bool known = false;
        for (const NvramName& r : nvramRegisterNames())
            if (ch.name == r.name) known = true, ch.address = r.address;
        for (const NvramName& e : nvramEepromNames())
            if (ch.name == e.name) known = true, ch.kind = Change::Eeprom, ch.address = e.address;
        if (ch.name == "driver_version") known = true, ch.kind = Change::Driver;
        if (ch.name.compare(0, 7, "eeprom.") == 0) {
            uint32_t at = 0;
            if (!value32(ch.name.substr(7), at) || at % 4 || at > kEeLastWord)
                return badUsage(call, "set " + cell(ch.name) + ": give an EEPROM address 0 to 508, a multiple of 4");
            known = true, ch.kind = Change::Eeprom, ch.address = at;
        }
        if (!known) return badUsage(call, "set " + cell(ch.name) + ": no such field (tavsim nvram DIR set --help lists them)");
        if (ch.name == "validity" && (v == "invalid" || v == "flash" || v == "empty" || v == "sdram")) {
            ch.value = v == "flash" ? kValidityFlash : v == "empty" ? kValidityEmpty : kValidityInvalid;
            if (v == "sdram") ch.kind = Change::SdramValid;
        } else if (!value32(v, ch.value)) {
            return badUsage(call, "set " + ch.name + "=" + cell(v) + ": give a number 0 to 0xffffffff (decimal, or 0x and hex)" +
                                      (ch.name == "validity" ? ", or invalid, sdram, flash or empty" : ""));
        }
        changes.push_back(ch);
    }
    nvramUpdate(module, [&](NvramCard& c) {
        for (const Change& ch : changes) {
            std::string was;
            switch (ch.kind) {
            case Change::Reg: was = hex(c.reg(ch.address)); c.setReg(ch.address, ch.value); break;
            case Change::Eeprom: was = hex(c.word(ch.address)); c.setWord(ch.address, ch.value); break;
            case Change::Driver: was = hex(c.driverVersion); c.driverVersion = ch.value; break;
            case Change::SdramValid:
                was = nvramValidityText(c.validity());
                c.setWord(kEeValidity, kValidityInvalid);
                c.setReg(kRegSetup, c.setup() | kSetupSdramValid);
                break;
            }
            report(ch.name + " " + (ch.kind == Change::SdramValid ? "sdram" : hex(ch.value)) + " (was " + was + ")");
        }
    });
    return kDone;
}

int fault(const Call& call, Module& module, const std::vector<std::string>& a)
{
    const NvramCard card = nvramState(module);
    const NvramGeometry& g = card.geometry;
    if (a.empty()) {
        const std::vector<std::string> faults = faultList(card);
        std::cout << "faults: " << (faults.empty() ? "none" : listed(faults)) << "\n";
        return kDone;
    }
    const std::string& name = a[0];
    auto count = [&](size_t min, size_t max) {
        if (a.size() >= min + 1 && a.size() <= max + 1) return kDone;
        return badUsage(call, "fault " + name + ": give " + std::to_string(min) +
                                  (max > min ? " to " + std::to_string(max) : "") + (max == 1 ? " argument" : " arguments"));
    };
    struct Flag {
        const char* name;
        bool NvramFaults::*member;
    };
    static const Flag flags[] = {
        {"auto-copy", &NvramFaults::autoCopy}, {"missed-refresh", &NvramFaults::missedRefresh},
        {"33mhz", &NvramFaults::slot33}, {"fifo-busy", &NvramFaults::fifoBusy},
        {"fifo-pending", &NvramFaults::fifoPending}, {"fifo-full", &NvramFaults::fifoFull},
        {"halted", &NvramFaults::halted}, {"refresh-never-starts", &NvramFaults::refreshNeverStarts},
        {"sdram-lost", &NvramFaults::sdramLost}, {"eeprom-timeout", &NvramFaults::eepromTimeout},
        {"transfer-hang", &NvramFaults::transferHang}};
    for (const Flag& f : flags)
        if (name == f.name) {
            if (int st = count(0, 0)) return st;
            nvramUpdate(module, [&](NvramCard& c) { c.faults.*f.member = true; });
            report("fault " + name + " set");
            return kDone;
        }
    uint32_t n = 0, m = 0, bit = 0;
    int st = kDone;
    if (name == "clear") {
        if ((st = count(0, 0))) return st;
        nvramUpdate(module, [](NvramCard& c) {
            c.faults = NvramFaults{};
            for (uint32_t& w : c.eeprom) w &= ~kEeParity;
        });
        report("faults cleared" + std::string(card.badBlocks.empty() ? "" : "; the bad blocks stay"));
    } else if (name == "transfer-error") {
        if ((st = count(1, 1)) || (st = argument(call, "transfer-error", a[1], 1, 65535, n))) return st;
        nvramUpdate(module, [&](NvramCard& c) { c.faults.transferError = static_cast<uint16_t>(n); });
        report("descriptors complete with error " + std::to_string(n));
    } else if (name == "parity" || name == "stuck") {
        if ((st = count(1, 1)) || (st = argument(call, name + " address", a[1], 0, kEeLastWord, n))) return st;
        if (n % 4) return badUsage(call, name + " address " + a[1] + ": give a multiple of 4 from 0 to 508");
        nvramUpdate(module, [&](NvramCard& c) {
            if (name == "parity") c.setWord(n, c.word(n) | kEeParity);
            else c.faults.stuck.insert(n);
        });
        report("EEPROM word " + std::to_string(n) + (name == "parity" ? " has its parity bit set" : " ignores writes"));
    } else if (name == "flip") {
        if ((st = count(3, 4)) || (st = argument(call, "flip page", a[1], 0, g.flashPages - 1, n)) ||
            (st = argument(call, "flip offset", a[2], 0, g.flashPageSize - 1, m)) || (st = argument(call, "flip bit", a[3], 0, 7, bit)))
            return st;
        if (a.size() == 5 && a[4] != "every") return badUsage(call, "flip " + cell(a[4]) + ": give every, or nothing for once");
        const NvramFlip x{n, m, static_cast<uint8_t>(bit), a.size() == 5};
        nvramUpdate(module, [&](NvramCard& c) { c.faults.flips.push_back(x); });
        report("bit " + std::to_string(bit) + " of byte " + std::to_string(m) + " of flash page " + std::to_string(n) +
               (x.every ? " flips on every read" : " flips on the next read"));
    } else if (name == "bad-page") {
        if ((st = count(1, 1)) || (st = argument(call, "bad-page", a[1], 0, g.flashPages - 1, n))) return st;
        nvramUpdate(module, [&](NvramCard& c) { c.faults.badPages.insert(n); });
        report("flash page " + std::to_string(n) + " reads as bad" +
               (n % g.pagesPerBlock ? " (mid-block)" : " (at the start of block " + std::to_string(n / g.pagesPerBlock) + ")"));
    } else if (name == "bad-block") {
        if ((st = count(1, 1)) || (st = argument(call, "bad-block", a[1], 0, g.flashBlocks() - 1, n))) return st;
        nvramBadBlock(module, n);
        report("flash block " + std::to_string(n) + " is bad");
    } else if (name == "prom") {
        if ((st = count(1, 1))) return st;
        const bool once = a[1] == "112-once";
        if (!once && (st = argument(call, "prom", a[1], 0, 2147483647, n))) return st;
        nvramUpdate(module, [&](NvramCard& c) {
            c.faults.prom = once ? 112 : static_cast<int>(n);
            c.faults.promOnce = once;
        });
        report(once ? "the PROM player answers 112 once, then 0" : "the PROM player answers " + a[1]);
    } else {
        return badUsage(call, "fault " + cell(name) + ": no such fault (tavsim nvram DIR fault --help lists them)");
    }
    return kDone;
}

int fill(const Call& call, Module& module, const Words& w)
{
    std::optional<uint8_t> byte;
    uint32_t seed = 1, n = 0;
    for (const auto& [name, value] : w.options) {
        if (name == "--pattern") {
            if (int st = argument(call, "--pattern", value, 0, 255, n)) return st;
            byte = static_cast<uint8_t>(n);
        } else if (name == "--seed") {
            if (int st = argument(call, "--seed", value, 0, UINT32_MAX, seed)) return st;
        } else {
            return badUsage(call, name + " does not go with fill");
        }
    }
    if (w.has("--pattern") && w.has("--seed")) return badUsage(call, "give --pattern or --seed, not both");
    nvramFill(module, seed, byte);
    const NvramCard c = nvramState(module);
    char b[8];
    std::snprintf(b, sizeof b, "0x%02x", byte.value_or(0));
    report("filled " + std::to_string(c.geometry.sdramPages) + " SDRAM pages (" +
           humanSize(uint64_t{c.geometry.sdramPages} * c.geometry.sdramPageSize) + ") with " +
           (byte ? std::string("the byte ") + b : "the pattern of seed " + std::to_string(seed)) +
           "; validity sdram, refresh running");
    return kDone;
}

int powerfail(Module& module)
{
    const uint32_t flags = nvramPowerFail(module);
    const NvramCard c = nvramState(module);
    const uint32_t blocks = c.word(kEeValidBlocks) & ~kEeParity;
    std::string what;
    if (flags == 0) what = "auto copy done: " + std::to_string(blocks) + " blocks written to flash; validity flash";
    else if (flags == kCopyUnnecessary) what = "auto copy unnecessary: the validity was not sdram";
    else if (flags == kCopyBadBlocks) what = "auto copy failed: too many bad blocks (" + std::to_string(blocks) + " written); validity invalid";
    else if (flags == kCopyPowerFailed) what = "auto copy failed: the battery could not carry it; validity invalid";
    else what = "auto copy failed: an EEPROM word of the card's own has a parity error; validity invalid";
    report(what + " (result flags " + hex(flags) + "); SDRAM lost");
    return kDone;
}

} // namespace

const char kNvramHelp[] =
    "The module's NVRAM card (the RQDC card at /dev/tav_nvram0): its registers,\n"
    "EEPROM, SDRAM and flash, its faults, and the host's power.\n"
    "\n"
    "Subcommands (tavsim nvram DIR SUBCOMMAND --help tells more of each):\n"
    "  add [--sdram-pages N] [--flash-pages N] [--pages-per-block N]\n"
    "      [--bad-block-max N] [--serial N]    put a card in the module\n"
    "  show [--json]                           the card (the default)\n"
    "  set FIELD=VALUE...                      registers, EEPROM words, driver version\n"
    "  fault [NAME [ARGS] | clear]             list, set or clear the card's faults\n"
    "  fill [--pattern BYTE | --seed N]        the running system's data in SDRAM\n"
    "  powerfail                               the host loses power: the auto copy\n"
    "  power-cycle                             off and on without an auto copy\n"
    "  recover                                 the system's recovery of flash to SDRAM\n"
    "  status [--json]                         the card through the system's card class\n";

bool nvramSubcommandHelp(const std::vector<std::string>& args)
{
    std::vector<std::string> positional;
    for (const std::string& a : args)
        if (a.compare(0, 2, "--") != 0 && a != "-h") positional.push_back(a);
    const Sub* s = positional.size() >= 2 ? findSub(positional[1]) : nullptr;
    if (!s) return false;
    std::cout << "usage: tavsim nvram DIR " << s->name << (*s->synopsis ? " " : "") << s->synopsis << "\n\n" << s->help;
    return true;
}

int runNvram(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call,
                                 {{"--json", nullptr}, {"--sdram-pages", "N"}, {"--flash-pages", "N"}, {"--pages-per-block", "N"},
                                  {"--bad-block-max", "N"}, {"--serial", "N"}, {"--pattern", "BYTE"}, {"--seed", "N"}},
                                 1, SIZE_MAX, w, status);
    if (!module) return status;
    const std::string sub = w.positional.size() > 1 ? w.positional[1] : "show";
    const Sub* s = findSub(sub);
    if (!s) return badUsage(call, "no subcommand " + cell(sub) + "; give add, show, set, fault, fill, powerfail, power-cycle, recover or status");
    const std::vector<std::string> rest(w.positional.begin() + std::min<size_t>(2, w.positional.size()), w.positional.end());
    const bool geometryOptions = w.has("--sdram-pages") || w.has("--flash-pages") || w.has("--pages-per-block") ||
                                 w.has("--bad-block-max") || w.has("--serial");
    if (geometryOptions && sub != "add") return badUsage(call, "--sdram-pages, --flash-pages, --pages-per-block, --bad-block-max and --serial go with add");
    if ((w.has("--pattern") || w.has("--seed")) && sub != "fill") return badUsage(call, "--pattern and --seed go with fill");
    if (w.has("--json") && sub != "show" && sub != "status") return badUsage(call, "--json goes with show and status");
    if (sub == "add") {
        if (!rest.empty()) return badUsage(call, "unexpected argument " + cell(rest[0]));
        return add(call, *module, w);
    }
    if (!nvramPresent(*module))
        return refused(call, module->dir() + ": this module has no NVRAM card (platforms 2 and 6 have one; tavsim nvram DIR add puts one in)");
    if ((sub == "recover" || sub == "status") && !rest.empty()) return badUsage(call, "unexpected argument " + cell(rest[0]));
    if (sub == "recover") return nvramRecover(call, *module);
    if (sub == "status") return nvramStatus(call, *module, w.has("--json"));
    if (sub == "set") return set(call, *module, rest);
    if (sub == "fault") return fault(call, *module, rest);
    if (!rest.empty()) return badUsage(call, "unexpected argument " + cell(rest[0]));
    if (sub == "show") {
        const NvramCard c = nvramState(*module);
        if (w.has("--json")) writeJson(c);
        else printCard(c);
        return kDone;
    }
    if (sub == "fill") return fill(call, *module, w);
    if (sub == "powerfail") return powerfail(*module);
    nvramPowerCycle(*module);
    const NvramCard c = nvramState(*module);
    report(std::string("power-cycled without an auto copy: SDRAM lost; validity ") + nvramValidityText(c.validity()));
    return kDone;
}

} // namespace sim::cli

// tavsim dsp and tavsim bay: the chassis controller as a technician reads
// it, its sensors and behaviours set, and its bays' switches moved by hand.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "dsp.h"
#include "dsp_firmware.h"
#include "dsp_state.h"
#include "json.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

struct Voltage {
    const char* name;
    int index;       // in DspState::volts
    double factor;   // volts a raw unit, as the program converts them
};
const Voltage kVoltages[] = {
    {"3.3V", 0, 0.0196}, {"5V", 1, 0.0295}, {"5V-standby", 2, 0.0297}, {"12V", 3, 0.0591}};

std::string onOff(bool b) { return b ? "on" : "off"; }
std::string switchText(bool open) { return open ? "open" : "closed"; }

std::string bits(uint8_t n)
{
    std::string out;
    for (int bit = 3; bit >= 0; --bit) out += (n >> bit) & 1 ? '1' : '0';
    return out;
}

std::string hexList(const uint8_t* bytes, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i) out += (i ? " " : "") + hexText(std::string(1, static_cast<char>(bytes[i])));
    return out;
}

std::string volts(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", v);
    return text;
}

std::string behaviourList(const DspBehaviours& b)
{
    std::vector<std::string> set;
    if (b.silent) set.push_back("silent");
    if (b.lateSeconds) set.push_back("late " + std::to_string(b.lateSeconds) + " s");
    if (b.wrongEcho) set.push_back("wrong echo");
    if (b.halt) set.push_back("halt");
    if (b.powerNoop) set.push_back("power no-op");
    if (b.loseNth) set.push_back("command " + std::to_string(b.loseNth) + " from now lost");
    return set.empty() ? "none" : listed(set);
}

std::string charText(char c)
{
    const auto u = static_cast<unsigned char>(c);
    if (u > 0x20 && u < 0x7f) return std::string(1, c);
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", u);
    return text;
}


// The drive of each bay of the chassis controller ("" for none), and
// whether the bay holds one.
struct BayDrive {
    std::string serial;
    bool occupied = false;
};
std::vector<BayDrive> bayDrives(const Manifest& m, size_t bays)
{
    std::vector<BayDrive> out(bays);
    for (size_t i = 0; i < bays; ++i) {
        const Drive* d = m.driveInBay(static_cast<int>(i) + 1);
        out[i].serial = d ? d->serial : "";
        out[i].occupied = m.bays.empty() || d;
    }
    return out;
}

int noController(const Call& call, const Module& module, int platform)
{
    return refused(call, module.dir() + ": this module has no chassis controller (platform " + std::to_string(platform) +
                             "; the IDE platforms have one, and platform 2 made with --no-drives)");
}

void printState(const Module& module, const DspState& s, const DspPending& p, const Manifest& m, uint64_t nowUs)
{
    (void)module;
    std::cout << "chassis controller " << kDspNode << ": " << s.bays.size() << " bays, firmware " << charText(s.firmware)
              << ", date " << cell(std::string(s.date, sizeof s.date)) << ", temperature limit " << unsigned(s.limit)
              << ", power source " << s.source << (s.source == 'P' ? " (primary)" : " (secondary)") << "\n\n";
    const std::vector<BayDrive> drives = bayDrives(m, s.bays.size());
    Table t({"BAY", "POWER", "CLAMP", "LOCK", "CRITICAL", "TEMP_C", "STATUS", "DRIVE"});
    for (size_t i = 0; i < s.bays.size(); ++i) {
        const DspBay& b = s.bays[i];
        const BayDrive& d = drives[i];
        t.add({std::to_string(i + 1), onOff(b.powered), onOff(b.clamped), switchText(b.lockOpen), switchText(b.criticalOpen),
               std::to_string(b.temperature), bits(dsp::nibble(b, d.occupied)),
               d.occupied ? (d.serial.empty() ? "(a drive of a family not simulated)" : d.serial)
                          : "(empty: reports no power)"});
    }
    t.print(std::cout);
    std::cout << "\n";
    Table v({"VOLTAGE", "RAW", "VOLTS"});
    for (const Voltage& x : kVoltages)
        v.add({x.name, std::to_string(s.volts[x.index]), volts(s.volts[x.index] * x.factor)});
    v.print(std::cout);
    std::cout << "\ndriver: ";
    if (s.configured)
        std::cout << "configured for " << s.numDrives << " drives, masks " << hexList(s.masks, s.numDrives) << ", bytes "
                  << hexList(s.bytes, s.numDrives) << ", serial line " << (s.serialDevice.empty() ? "-" : cell(s.serialDevice))
                  << "\n";
    else
        std::cout << "not configured (every status byte reads 0)\n";
    std::cout << "behaviours: " << behaviourList(s.behaviours) << "\n";
    std::cout << "last power command: " << p.outcome << "\n";
    std::cout << "pending: " << p.events << (p.events == 1 ? " event" : " events");
    if (p.nextUs)
        std::cout << ", the next at clock " << *p.nextUs / 1000000 << " (in "
                  << (*p.nextUs > nowUs ? (*p.nextUs - nowUs + 999999) / 1000000 : 0) << " s)";
    std::cout << "; " << p.lineBytes << " bytes on the line; " << p.records << (p.records == 1 ? " record" : " records")
              << " for the reader\n";
}

void writeJson(const DspState& s, const DspPending& p, const Manifest& m)
{
    JsonWriter j(std::cout);
    j.beginObject();
    j.key("node").string(kDspNode);
    j.key("bays").beginArray();
    const std::vector<BayDrive> drives = bayDrives(m, s.bays.size());
    for (size_t i = 0; i < s.bays.size(); ++i) {
        const DspBay& b = s.bays[i];
        j.beginObject();
        j.key("bay").number(static_cast<int64_t>(i) + 1).key("drive");
        if (drives[i].serial.empty()) j.null();
        else j.string(drives[i].serial);
        j.key("occupied").boolean(drives[i].occupied);
        j.key("powered").boolean(b.powered).key("clamped").boolean(b.clamped);
        j.key("lock").string(switchText(b.lockOpen)).key("critical").string(switchText(b.criticalOpen));
        j.key("temperature").number(b.temperature).key("status").number(dsp::nibble(b, drives[i].occupied));
        j.endObject();
    }
    j.endArray();
    j.key("voltages").beginArray();
    for (const Voltage& x : kVoltages) {
        j.beginObject();
        j.key("name").string(x.name).key("raw").number(s.volts[x.index]);
        j.key("volts").string(volts(s.volts[x.index] * x.factor));
        j.endObject();
    }
    j.endArray();
    j.key("source").string(std::string(1, s.source));
    j.key("firmware").string(std::string(1, s.firmware));
    j.key("date").string(std::string(s.date, sizeof s.date));
    j.key("limit").number(s.limit);
    j.key("driver").beginObject();
    j.key("configured").boolean(s.configured);
    if (s.configured) {
        j.key("drives").number(s.numDrives);
        j.key("masks").beginArray();
        for (uint8_t x : s.masks) j.number(x);
        j.endArray();
        j.key("bytes").beginArray();
        for (uint8_t x : s.bytes) j.number(x);
        j.endArray();
        j.key("serial").string(s.serialDevice);
    }
    j.endObject();
    const DspBehaviours& b = s.behaviours;
    j.key("behaviours").beginObject();
    j.key("silent").boolean(b.silent).key("late_seconds").number(b.lateSeconds).key("wrong_echo").boolean(b.wrongEcho);
    j.key("halt").boolean(b.halt).key("power_noop").boolean(b.powerNoop).key("lose").number(b.loseNth);
    j.endObject();
    j.key("last_power_command").string(p.outcome);
    j.key("pending").beginObject();
    j.key("events").unsignedNumber(p.events).key("next_us");
    if (p.nextUs) j.unsignedNumber(*p.nextUs);
    else j.null();
    j.key("line_bytes").unsignedNumber(p.lineBytes).key("records").unsignedNumber(p.records);
    j.endObject();
    j.endObject();
}

bool onOffWord(const std::string& what, const std::string& word, bool& out, std::string& why)
{
    if (word == "on" || word == "off") {
        out = word == "on";
        return true;
    }
    why = what + " " + cell(word) + ": give on or off";
    return false;
}

// A bay of the chassis controller: kDone, or the status after the error was printed.
int dspBay(const Call& call, size_t bays, const std::string& word, int& bay)
{
    uint64_t n = 0;
    std::string why;
    if (!decimal("bay", word, 0, 2147483647, n, why)) return badUsage(call, why);
    if (n < 1 || n > bays)
        return refused(call, "bay " + word + ": the chassis controller has bays 1 to " + std::to_string(bays));
    bay = static_cast<int>(n);
    return kDone;
}

const char kSettings[] = "temp, volts, source, firmware, date, limit, silent, late, wrong-echo, halt, power-noop, lose or inject";

// tavsim dsp DIR set WHAT VALUE...
int set(const Call& call, Module& module, const std::vector<std::string>& a)
{
    if (a.empty()) return badUsage(call, "set: give what to set: " + std::string(kSettings));
    const std::string& what = a[0];
    const DspState s = dspState(module);
    auto count = [&](size_t n) {
        if (a.size() == n + 1) return kDone;
        return badUsage(call, "set " + what + ": give " + std::to_string(n) + (n == 1 ? " value" : " values"));
    };
    std::string why;
    uint64_t n = 0;
    if (what == "temp") {
        if (int st = count(2)) return st;
        int bay = 0;
        if (int st = dspBay(call, s.bays.size(), a[1], bay)) return st;
        const bool negative = a[2].size() > 1 && a[2][0] == '-';
        if (!decimal("temp", negative ? a[2].substr(1) : a[2], 0, negative ? 128 : 127, n, why))
            return badUsage(call, "temp " + a[2] + ": give degrees -128 to 127");
        const int c = negative ? -static_cast<int>(n) : static_cast<int>(n);
        dspUpdate(module, [&](DspState& x) { x.bays[static_cast<size_t>(bay - 1)].temperature = static_cast<int8_t>(c); });
        report("bay " + std::to_string(bay) + " reads " + std::to_string(c) + " degrees (was " +
               std::to_string(s.bays[static_cast<size_t>(bay - 1)].temperature) + ")");
        return kDone;
    }
    if (what == "volts") {
        if (int st = count(4)) return st;
        uint8_t raw[4];
        for (int i = 0; i < 4; ++i) {
            if (!decimal(std::string("volts ") + kVoltages[i].name, a[static_cast<size_t>(i) + 1], 0, 255, n, why))
                return badUsage(call, why + "; give four raw bytes: 3.3V 5V 5V-standby 12V");
            raw[i] = static_cast<uint8_t>(n);
        }
        dspUpdate(module, [&](DspState& x) { std::memcpy(x.volts, raw, sizeof raw); });
        std::string line = "raw voltages:";
        for (const Voltage& x : kVoltages) line += " " + std::string(x.name) + " " + std::to_string(raw[x.index]) + " (" + volts(raw[x.index] * x.factor) + ")";
        report(line);
        return kDone;
    }
    if (what == "source") {
        if (int st = count(1)) return st;
        if (a[1] != "P" && a[1] != "S") return badUsage(call, "source " + cell(a[1]) + ": give P (primary) or S (secondary)");
        dspUpdate(module, [&](DspState& x) { x.source = a[1][0]; });
        report("power source " + a[1] + (a[1] == "P" ? " (primary)" : " (secondary)"));
        return kDone;
    }
    if (what == "firmware") {
        if (int st = count(1)) return st;
        const std::string& c = a[1];
        if (c.size() != 1 || static_cast<unsigned char>(c[0]) <= 0x20 || static_cast<unsigned char>(c[0]) >= 0x7f)
            return badUsage(call, "firmware " + cell(c) + ": give one printable character");
        dspUpdate(module, [&](DspState& x) { x.firmware = c[0]; });
        report("firmware version " + c);
        return kDone;
    }
    if (what == "date") {
        if (int st = count(1)) return st;
        const std::string& d = a[1];
        bool printable = d.size() == sizeof s.date;
        for (char c : d) printable = printable && static_cast<unsigned char>(c) > 0x20 && static_cast<unsigned char>(c) < 0x7f;
        if (!printable) return badUsage(call, "date " + cell(d) + ": give ten printable characters (A107112801)");
        dspUpdate(module, [&](DspState& x) { std::memcpy(x.date, d.data(), sizeof x.date); });
        report("date version " + d);
        return kDone;
    }
    if (what == "limit") {
        if (int st = count(1)) return st;
        if (!decimal("limit", a[1], 0, 255, n, why)) return badUsage(call, why);
        dspUpdate(module, [&](DspState& x) { x.limit = static_cast<uint8_t>(n); });
        report("temperature limit " + a[1]);
        return kDone;
    }
    if (what == "late") {
        if (int st = count(1)) return st;
        if (!decimal("late", a[1], 0, kDspMaxLateSeconds, n, why)) return badUsage(call, why);
        dspUpdate(module, [&](DspState& x) { x.behaviours.lateSeconds = static_cast<unsigned>(n); });
        report(n ? "echoes and answers come " + a[1] + " virtual seconds late" : "echoes and answers come at once");
        return kDone;
    }
    if (what == "lose") {
        if (int st = count(1)) return st;
        if (!decimal("lose", a[1], 0, kDspMaxLose, n, why)) return badUsage(call, why);
        dspUpdate(module, [&](DspState& x) { x.behaviours.loseNth = static_cast<unsigned>(n); });
        report(n ? "command " + a[1] + " from now is lost, as when silent" : "no command is lost");
        return kDone;
    }
    struct Flag {
        const char* name;
        bool DspBehaviours::*member;
        const char* on;
        const char* off;
    };
    static const Flag flags[] = {
        {"silent", &DspBehaviours::silent, "silent: no echo, no answer; commands are lost", "no longer silent"},
        {"wrong-echo", &DspBehaviours::wrongEcho, "echoes are inverted: they match no command", "echoes are right"},
        {"halt", &DspBehaviours::halt, "commands halt: type 14 and HALT instead of done", "commands finish"},
        {"power-noop", &DspBehaviours::powerNoop, "power commands answer done and change nothing", "power commands work"},
    };
    for (const Flag& f : flags) {
        if (what != f.name) continue;
        if (int st = count(1)) return st;
        bool on = false;
        if (!onOffWord(what, a[1], on, why)) return badUsage(call, why);
        dspUpdate(module, [&](DspState& x) { x.behaviours.*f.member = on; });
        report(on ? f.on : f.off);
        return kDone;
    }
    if (what == "inject") {
        if (int st = count(1)) return st;
        std::string bytes;
        if (!hexBytes(a[1], bytes) || bytes.empty() || bytes.size() > 112)
            return badUsage(call, "inject " + cell(a[1].substr(0, 40)) + ": give 1 to 112 bytes in hex (two digits a byte; the rest is zero)");
        uint8_t record[112] = {};
        std::memcpy(record, bytes.data(), bytes.size());
        dspInject(module, record);
        report("injected a record of type " + std::to_string(static_cast<int8_t>(record[1])) +
               ": it is handed up as it stands at the driver's next read");
        return kDone;
    }
    return badUsage(call, "set " + cell(what) + ": give one of " + kSettings);
}

} // namespace

const char kDspHelp[] =
    "Prints the chassis controller (the DSP at /dev/tav_dsp_1): its firmware\n"
    "version and date, temperature limit and power source; a table of its bays\n"
    "(BAY POWER CLAMP LOCK CRITICAL TEMP_C STATUS DRIVE: STATUS is the bay's\n"
    "nibble as the DSP reports it, bit 3 no power, bit 2 critical switch closed,\n"
    "bit 1 clamped, bit 0 lock closed; a bay without a drive reports no power);\n"
    "the voltages, raw and as the system converts them; the driver's\n"
    "configuration; the behaviours set; the outcome of the last power command;\n"
    "the work the firmware has scheduled on the virtual clock, the bytes on the\n"
    "line and the records waiting for the system's reader.\n"
    "\n"
    "  --json               the same as one JSON document\n"
    "\n"
    "tavsim dsp DIR set WHAT VALUE... sets a sensor or a behaviour:\n"
    "  temp BAY C           bay's temperature, -128 to 127 degrees\n"
    "  volts A B C D        raw voltage bytes 0 to 255: 3.3V 5V 5V-standby 12V\n"
    "  source P|S           the power source, primary or secondary\n"
    "  firmware CHAR        the firmware version, one printable character\n"
    "  date TEXT            the date version, ten printable characters\n"
    "  limit N              the temperature limit, 0 to 255\n"
    "  silent on|off        no echo and no answer; commands are lost\n"
    "  late SECONDS         echoes and answers come 0 to 86400 virtual seconds late\n"
    "  wrong-echo on|off    echoes are inverted, so that they match no command\n"
    "  halt on|off          commands halt: type 14 and HALT instead of done\n"
    "  power-noop on|off    power commands answer done and change nothing\n"
    "  lose N               the Nth command from now (1 the next) is lost, as when\n"
    "                       silent; 0 loses none\n"
    "  inject HEX           a record of 1 to 112 bytes (the rest zero), handed up\n"
    "                       as it stands at the driver's next read\n"
    "A power command takes @PERBAY@ s of virtual time a bay changed; a reset\n"
    "answers type 13 at once and type 12 @RESET@ s later.\n";

const char kBayHelp[] =
    "Moves a switch of bay N of the chassis controller: its lock (the warning\n"
    "switch) or its critical switch. The DSP reports the move unasked as a type 4\n"
    "record with the bay's change bit, and with its power-down bit when the lock\n"
    "of a powered bay opens; a running host sees it at its next poll. A switch\n"
    "that already stands so is left, and nothing is reported.\n";

int runDsp(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}}, 1, SIZE_MAX, w, status);
    if (!module) return status;
    const Manifest m = module->manifest();
    const bool setting = w.positional.size() > 1;
    if (setting && w.positional[1] != "set")
        return badUsage(call, "unexpected argument " + cell(w.positional[1]) + "; tavsim dsp DIR set WHAT VALUE...");
    if (setting && w.has("--json")) return badUsage(call, "--json goes with the state, not with set");
    if (!dspPresent(*module)) return noController(call, *module, m.platform);
    if (setting) return set(call, *module, std::vector<std::string>(w.positional.begin() + 2, w.positional.end()));
    const DspState s = dspState(*module);
    const DspPending p = dspPending(*module);
    if (w.has("--json")) writeJson(s, p, m);
    else printState(*module, s, p, m, module->nowUs());
    return kDone;
}

int runBay(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 4, 4, w, status);
    if (!module) return status;
    const std::string& which = w.positional[2];
    const std::string& how = w.positional[3];
    if (which != "lock" && which != "critical") return badUsage(call, cell(which) + ": give lock or critical");
    if (how != "open" && how != "close") return badUsage(call, which + " " + cell(how) + ": give open or close");
    if (!dspPresent(*module)) return noController(call, *module, module->manifest().platform);
    const DspState s = dspState(*module);
    int bay = 0;
    if ((status = dspBay(call, s.bays.size(), w.positional[1], bay))) return status;
    const bool critical = which == "critical", open = how == "open";
    const DspBay& b = s.bays[static_cast<size_t>(bay - 1)];
    const std::string name = std::string(critical ? "the critical switch" : "the lock") + " of bay " + std::to_string(bay);
    if ((critical ? b.criticalOpen : b.lockOpen) == open) {
        report(name + " was " + switchText(open) + " already");
        return kDone;
    }
    dspSetSwitch(*module, bay, critical, open);
    const DspState after = dspState(*module);
    const bool goesDown = !critical && open && b.powered && bayDrives(module->manifest(), s.bays.size())[static_cast<size_t>(bay - 1)].occupied;
    report((open ? "opened " : "closed ") + name +
           (after.behaviours.silent ? ": the DSP is silent and reports nothing"
                                    : std::string(": reported as a type 4 record") + (goesDown ? ", the drive going down" : "")));
    return kDone;
}

} // namespace sim::cli

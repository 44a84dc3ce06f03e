#include "dsp_state.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "manifest.h"

namespace sim {
namespace {

constexpr size_t kMaxLineFrame = 1 + dsp::kRecordBytes;   // the longest frame, a raw record
constexpr uint64_t kMaxDueUs = UINT64_MAX / 2;

bool fail(std::string& why, const std::string& text)
{
    why = text;
    return false;
}

// The KEY=VALUE words of a line, each key once.
class Fields {
public:
    bool read(std::istringstream& in, std::string& why)
    {
        for (std::string word; in >> word;) {
            const size_t eq = word.find('=');
            if (eq == std::string::npos || eq == 0) return fail(why, word + ": not KEY=VALUE");
            if (!values_.emplace(word.substr(0, eq), word.substr(eq + 1)).second)
                return fail(why, word.substr(0, eq) + " given twice");
        }
        return true;
    }
    std::optional<std::string> take(const std::string& key)
    {
        auto it = values_.find(key);
        if (it == values_.end()) return std::nullopt;
        std::string v = it->second;
        values_.erase(it);
        return v;
    }
    // A number `min` to `max`; `needed` when it must be there.
    bool number(const std::string& key, int64_t min, int64_t max, int64_t& out, bool needed, std::string& why)
    {
        std::optional<std::string> word = take(key);
        if (!word) return !needed || fail(why, key + "= is needed");
        if (!parseSigned(*word, min, max, out))
            return fail(why, key + "=" + *word + ": not a decimal number " + std::to_string(min) + " to " + std::to_string(max));
        return true;
    }
    bool big(const std::string& key, uint64_t max, uint64_t& out, std::string& why)
    {
        std::optional<std::string> word = take(key);
        if (!word) return fail(why, key + "= is needed");
        if (!parseNumber(*word, out) || out > max)
            return fail(why, key + "=" + *word + ": not a decimal number 0 to " + std::to_string(max));
        return true;
    }
    bool flag(const std::string& key, bool& out, std::string& why)
    {
        int64_t v = 0;
        if (!number(key, 0, 1, v, true, why)) return false;
        out = v != 0;
        return true;
    }
    bool hex(const std::string& key, size_t min, size_t max, std::optional<std::string>& out, std::string& why)
    {
        std::optional<std::string> word = take(key);
        if (!word) return true;
        std::string bytes;
        if (!hexBytes(*word, bytes) || bytes.size() < min || bytes.size() > max)
            return fail(why, key + "=" + *word + ": give " + std::to_string(min) + " to " + std::to_string(max) +
                                 " bytes in hex");
        out = bytes;
        return true;
    }
    bool done(std::string& why) const { return values_.empty() || fail(why, "unknown key " + values_.begin()->first); }

private:
    std::map<std::string, std::string> values_;
};

bool switchWord(const std::string& word, bool& open)
{
    if (word != "open" && word != "closed") return false;
    open = word == "open";
    return true;
}

bool outcomeWord(const std::string& w) { return w == "DONE" || w == "OFF" || w == "HALT"; }

// One word after the record's name, and nothing more.
bool oneWord(std::istringstream& in, std::string& word)
{
    std::string extra;
    return static_cast<bool>(in >> word) && !(in >> extra);
}

bool readBay(std::istringstream& in, int bays, std::set<int>& seen, std::vector<DspBay>& out, std::string& why)
{
    std::string number;
    int64_t n = 0;
    if (!(in >> number) || !parseSigned(number, 1, bays, n))
        return fail(why, "bay: give its number 1 to " + std::to_string(bays));
    if (!seen.insert(static_cast<int>(n)).second) return fail(why, "bay " + number + " twice");
    Fields f;
    DspBay b;
    int64_t temp = 0;
    if (!f.read(in, why) || !f.flag("power", b.powered, why) || !f.flag("clamp", b.clamped, why) ||
        !f.number("temp", INT8_MIN, INT8_MAX, temp, true, why))
        return false;
    for (const char* key : {"lock", "critical"}) {
        const std::string word = f.take(key).value_or("");
        bool open = false;
        if (!switchWord(word, open)) return fail(why, std::string(key) + "=" + word + ": give open or closed");
        (std::strcmp(key, "lock") == 0 ? b.lockOpen : b.criticalOpen) = open;
    }
    if (!f.done(why)) return false;
    b.temperature = static_cast<int8_t>(temp);
    out[static_cast<size_t>(n - 1)] = b;
    return true;
}

bool readConfig(std::istringstream& in, DspState& s, std::string& why)
{
    Fields f;
    int64_t drives = 0;
    std::optional<std::string> masks, bytes;
    if (!f.read(in, why) || !f.number("drives", 1, dsp::kMaxConfigDrives, drives, true, why) ||
        !f.hex("masks", 16, 16, masks, why) || !f.hex("bytes", 16, 16, bytes, why))
        return false;
    if (!masks || !bytes) return fail(why, "config: masks= and bytes= are needed");
    s.serialDevice = percentDecode(f.take("serial").value_or(""));
    if (!f.done(why)) return false;
    s.configured = true;
    s.numDrives = static_cast<int>(drives);
    std::memcpy(s.masks, masks->data(), 16);
    std::memcpy(s.bytes, bytes->data(), 16);
    return true;
}

bool readEvent(std::istringstream& in, int bays, DspEvent& e, std::string& why)
{
    Fields f;
    int64_t command = 0, bay = 0, frame = -1;
    std::optional<std::string> change, pwrDwn;
    if (!f.read(in, why) || !f.big("due", kMaxDueUs, e.dueUs, why) || !f.big("seq", UINT64_MAX, e.seq, why) ||
        !f.number("cmd", 0, 255, command, true, why) || !f.number("bay", 1, bays, bay, false, why) ||
        !f.number("frame", 0, 127, frame, false, why) || !f.hex("payload", 0, dsp::kPayloadMax, e.payload, why) ||
        !f.hex("change", 1, 1, change, why) || !f.hex("pwrdwn", 1, 1, pwrDwn, why))
        return false;
    e.command = static_cast<int>(command);
    e.bay = static_cast<int>(bay);
    e.frame = static_cast<int>(frame);
    if (e.bay && (!f.flag("power", e.power, why) || !f.flag("clamp", e.clamp, why))) return false;
    if (std::optional<std::string> o = f.take("outcome")) {
        if (!outcomeWord(*o)) return fail(why, "outcome=" + *o + ": give DONE, OFF or HALT");
        e.outcome = *o;
    }
    if (!f.done(why)) return false;
    if (e.frame < 0 && (e.payload || change || pwrDwn)) return fail(why, "payload=, change= and pwrdwn= go with frame=");
    if (!e.bay && e.frame < 0 && e.outcome.empty()) return fail(why, "an event does nothing");
    e.change = change ? static_cast<uint8_t>((*change)[0]) : 0;
    e.pwrDwn = pwrDwn ? static_cast<uint8_t>((*pwrDwn)[0]) : 0;
    return true;
}

bool eventBefore(const DspEvent& a, const DspEvent& b)
{
    return a.dueUs != b.dueUs ? a.dueUs < b.dueUs : a.seq < b.seq;
}

std::string hexByte(uint8_t b) { return hexText(std::string(1, static_cast<char>(b))); }

} // namespace

std::string hexText(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

bool hexBytes(const std::string& text, std::string& out)
{
    if (text.size() % 2) return false;
    auto value = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = value(text[i]), lo = value(text[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes += static_cast<char>(hi << 4 | lo);
    }
    out = bytes;
    return true;
}

bool DspUnit::parse(const std::string& text, DspUnit& out, std::string& why)
{
    DspUnit u;
    int bays = 0;
    std::set<int> seenBays;
    std::set<std::string> seen;  // records that come once
    std::set<uint64_t> seqs;
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto bad = [&](const std::string& what) {
        why = "sim/dsp:" + std::to_string(number) + ": " + what;
        return false;
    };
    while (std::getline(lines, line)) {
        ++number;
        std::istringstream in(line);
        std::string kind, word, problem;
        if (!(in >> kind)) continue;
        const bool repeatable = kind == "bay" || kind == "event" || kind == "line" || kind == "record";
        if (!repeatable && !seen.insert(kind).second) return bad(kind + " given twice");
        if (kind == "bays") {
            int64_t n = 0;
            if (!oneWord(in, word) || !parseSigned(word, 4, 8, n) || (n != 4 && n != 8)) return bad("bays: give 4 or 8");
            bays = static_cast<int>(n);
            u.state.bays.assign(static_cast<size_t>(bays), DspBay{});
        } else if (kind == "bay" || kind == "event") {
            if (bays == 0) return bad(kind + " before the bays line");
            if (kind == "bay") {
                if (!readBay(in, bays, seenBays, u.state.bays, problem)) return bad(problem);
            } else {
                DspEvent e;
                if (!readEvent(in, bays, e, problem)) return bad(problem);
                if (!seqs.insert(e.seq).second) return bad("seq=" + std::to_string(e.seq) + " twice");
                u.events.push_back(e);
            }
        } else if (kind == "volts") {
            std::string extra;
            for (uint8_t& v : u.state.volts) {
                int64_t n = 0;
                if (!(in >> word) || !parseSigned(word, 0, 255, n)) return bad("volts: give four raw bytes 0 to 255");
                v = static_cast<uint8_t>(n);
            }
            if (in >> extra) return bad("volts: give four raw bytes 0 to 255");
        } else if (kind == "source") {
            if (!oneWord(in, word) || (word != "P" && word != "S")) return bad("source: give P or S");
            u.state.source = word[0];
        } else if (kind == "firmware") {
            const std::string c = oneWord(in, word) ? percentDecode(word) : "";
            if (c.size() != 1) return bad("firmware: give one character");
            u.state.firmware = c[0];
        } else if (kind == "date") {
            const std::string d = oneWord(in, word) ? percentDecode(word) : "";
            if (d.size() != sizeof u.state.date) return bad("date: give ten bytes");
            std::memcpy(u.state.date, d.data(), sizeof u.state.date);
        } else if (kind == "limit") {
            int64_t n = 0;
            if (!oneWord(in, word) || !parseSigned(word, 0, 255, n)) return bad("limit: give a number 0 to 255");
            u.state.limit = static_cast<uint8_t>(n);
        } else if (kind == "behaviours") {
            Fields f;
            DspBehaviours& b = u.state.behaviours;
            int64_t late = 0, lose = 0;
            if (!f.read(in, problem) || !f.flag("silent", b.silent, problem) ||
                !f.number("late", 0, kDspMaxLateSeconds, late, true, problem) ||
                !f.flag("wrong-echo", b.wrongEcho, problem) || !f.flag("halt", b.halt, problem) ||
                !f.flag("power-noop", b.powerNoop, problem) ||
                !f.number("lose", 0, kDspMaxLose, lose, false, problem) || !f.done(problem))
                return bad("behaviours: " + problem);
            b.lateSeconds = static_cast<unsigned>(late);
            b.loseNth = static_cast<unsigned>(lose);
        } else if (kind == "outcome") {
            std::string command, extra;
            int64_t n = 0;
            if (!(in >> word >> command) || (in >> extra) || !outcomeWord(word) || !parseSigned(command, 0, 255, n))
                return bad("outcome: give DONE, OFF or HALT and the command 0 to 255");
            u.outcome = word;
            u.outcomeCommand = static_cast<int>(n);
        } else if (kind == "config") {
            if (!readConfig(in, u.state, problem)) return bad("config: " + problem);
        } else if (kind == "seq") {
            if (!oneWord(in, word) || !parseNumber(word, u.seq)) return bad("seq: give a decimal number");
        } else if (kind == "line" || kind == "record") {
            std::string bytes;
            const size_t min = kind == "line" ? 1 : dsp::kRecordBytes;
            const size_t max = kind == "line" ? kMaxLineFrame : dsp::kRecordBytes;
            if (!oneWord(in, word) || !hexBytes(word, bytes) || bytes.size() < min || bytes.size() > max)
                return bad(kind + ": give " + (min == max ? std::to_string(min) : std::to_string(min) + " to " + std::to_string(max)) +
                           " bytes in hex");
            if (kind == "line") {
                u.line.push_back(bytes);
            } else {
                dsp::RecordBytes r;
                std::memcpy(r.data(), bytes.data(), r.size());
                u.records.push_back(r);
            }
        } else {
            return bad("unknown record " + kind);
        }
    }
    if (bays == 0) return bad("no bays line");
    if (seenBays.size() != static_cast<size_t>(bays))
        for (int b = 1; b <= bays; ++b)
            if (!seenBays.count(b)) return bad("bay " + std::to_string(b) + " is missing");
    for (const DspEvent& e : u.events)
        if (e.seq >= u.seq) return bad("event seq=" + std::to_string(e.seq) + " is not below seq " + std::to_string(u.seq));
    std::stable_sort(u.events.begin(), u.events.end(), eventBefore);
    out = u;
    return true;
}

std::string DspUnit::format() const
{
    const DspState& s = state;
    std::string out = "bays " + std::to_string(s.bays.size()) + "\n";
    for (size_t i = 0; i < s.bays.size(); ++i) {
        const DspBay& b = s.bays[i];
        out += "bay " + std::to_string(i + 1) + " power=" + (b.powered ? "1" : "0") + " clamp=" + (b.clamped ? "1" : "0") +
               " lock=" + (b.lockOpen ? "open" : "closed") + " critical=" + (b.criticalOpen ? "open" : "closed") +
               " temp=" + std::to_string(b.temperature) + "\n";
    }
    out += "volts";
    for (uint8_t v : s.volts) out += " " + std::to_string(v);
    out += std::string("\nsource ") + s.source + "\nfirmware " + percentEncode(std::string(1, s.firmware)) + "\ndate " +
           percentEncode(std::string(s.date, sizeof s.date)) + "\nlimit " + std::to_string(s.limit) + "\n";
    const DspBehaviours& b = s.behaviours;
    out += std::string("behaviours silent=") + (b.silent ? "1" : "0") + " late=" + std::to_string(b.lateSeconds) +
           " wrong-echo=" + (b.wrongEcho ? "1" : "0") + " halt=" + (b.halt ? "1" : "0") +
           " power-noop=" + (b.powerNoop ? "1" : "0") + (b.loseNth ? " lose=" + std::to_string(b.loseNth) : "") + "\n";
    out += "outcome " + outcome + " " + std::to_string(outcomeCommand) + "\n";
    if (s.configured)
        out += "config drives=" + std::to_string(s.numDrives) +
               " masks=" + hexText(std::string(reinterpret_cast<const char*>(s.masks), 16)) +
               " bytes=" + hexText(std::string(reinterpret_cast<const char*>(s.bytes), 16)) +
               (s.serialDevice.empty() ? "" : " serial=" + percentEncode(s.serialDevice)) + "\n";
    out += "seq " + std::to_string(seq) + "\n";
    for (const DspEvent& e : events) {
        out += "event due=" + std::to_string(e.dueUs) + " seq=" + std::to_string(e.seq) + " cmd=" + std::to_string(e.command);
        if (e.bay)
            out += " bay=" + std::to_string(e.bay) + " power=" + (e.power ? "1" : "0") + " clamp=" + (e.clamp ? "1" : "0");
        if (e.frame >= 0) {
            out += " frame=" + std::to_string(e.frame);
            if (e.payload) out += " payload=" + hexText(*e.payload);
            if (e.change) out += " change=" + hexByte(e.change);
            if (e.pwrDwn) out += " pwrdwn=" + hexByte(e.pwrDwn);
        }
        if (!e.outcome.empty()) out += " outcome=" + e.outcome;
        out += "\n";
    }
    for (const std::string& f : line) out += "line " + hexText(f) + "\n";
    for (const dsp::RecordBytes& r : records)
        out += "record " + hexText(std::string(reinterpret_cast<const char*>(r.data()), r.size())) + "\n";
    return out;
}

dsp::DriverConfig DspUnit::driverConfig() const
{
    dsp::DriverConfig c;
    c.configured = state.configured;
    c.numDrives = state.numDrives;
    std::memcpy(c.masks, state.masks, sizeof c.masks);
    std::memcpy(c.bytes, state.bytes, sizeof c.bytes);
    c.serialDevice = state.serialDevice;
    return c;
}

DspUnit freshDspUnit(int bays, const std::vector<bool>& occupied)
{
    DspUnit u;
    u.state.bays.resize(static_cast<size_t>(bays));
    for (int i = 0; i < bays; ++i) {
        DspBay& b = u.state.bays[static_cast<size_t>(i)];
        b.powered = static_cast<size_t>(i) < occupied.size() && occupied[static_cast<size_t>(i)];
        b.temperature = static_cast<int8_t>(32 + i);
    }
    // 3.29V, 5.02V, 4.99V and 12.0V by the factors the program applies.
    const uint8_t volts[4] = {168, 170, 168, 203};
    std::memcpy(u.state.volts, volts, sizeof volts);
    std::memcpy(u.state.date, "A107112801", sizeof u.state.date);
    u.state.limit = 50;
    return u;
}

} // namespace sim

#include "md_state.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <map>
#include <sstream>

#include "manifest.h"

namespace sim {
namespace {

constexpr uint64_t kMicro = 1000000;
constexpr uint64_t kMaxKiB = 1ULL << 40;  // far beyond any drive of a module

// ---- reading ----

// The key=value words of a record, each key once. Each reader leaves its
// target alone when the key is absent.
class Fields {
public:
    bool read(std::istringstream& in, std::string& why)
    {
        for (std::string word; in >> word;) {
            size_t eq = word.find('=');
            if (eq == std::string::npos || eq == 0) return fail(why, word + ": not KEY=VALUE");
            if (!values_.emplace(word.substr(0, eq), word.substr(eq + 1)).second)
                return fail(why, word.substr(0, eq) + " given twice");
        }
        return true;
    }
    template <typename T>
    bool number(const char* key, int64_t min, int64_t max, T& out, std::string& why)
    {
        std::optional<std::string> word = take(key);
        if (!word) return true;
        int64_t v = 0;
        if (!parseSigned(*word, min, max, v))
            return fail(why, std::string(key) + "=" + *word + ": not a decimal number " + std::to_string(min) + " to " +
                                 std::to_string(max));
        out = static_cast<T>(v);
        return true;
    }
    bool unsignedNumber(const char* key, uint64_t max, uint64_t& out, std::string& why)
    {
        std::optional<std::string> word = take(key);
        if (!word) return true;
        uint64_t v = 0;
        if (!parseNumber(*word, v) || v > max)
            return fail(why, std::string(key) + "=" + *word + ": not a decimal number 0 to " + std::to_string(max));
        out = v;
        return true;
    }
    bool flag(const char* key, bool& out, std::string& why)
    {
        int v = out;
        if (!number(key, 0, 1, v, why)) return false;
        out = v != 0;
        return true;
    }
    bool text(const char* key, std::string& out, std::string& why)
    {
        std::optional<std::string> word = take(key);
        if (!word) return true;
        out = percentDecode(*word);
        return !out.empty() || fail(why, std::string(key) + ": empty");
    }
    std::optional<std::string> take(const char* key)
    {
        auto it = values_.find(key);
        if (it == values_.end()) return std::nullopt;
        std::string v = it->second;
        values_.erase(it);
        return v;
    }
    bool done(std::string& why) const
    {
        return values_.empty() || fail(why, "unknown key " + values_.begin()->first);
    }
    static bool fail(std::string& why, const std::string& text)
    {
        why = text;
        return false;
    }

private:
    std::map<std::string, std::string> values_;
};

bool parseUuid(const std::string& text, uint32_t uuid[4])
{
    if (text.size() != 35) return false;
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && text[static_cast<size_t>(i) * 9 - 1] != ':') return false;
        uint64_t v = 0;
        if (!parseHexNumber("0x" + text.substr(static_cast<size_t>(i) * 9, 8), v)) return false;
        uuid[i] = static_cast<uint32_t>(v);
    }
    return true;
}

std::string formatUuid(const uint32_t uuid[4])
{
    char text[40];
    std::snprintf(text, sizeof text, "%08x:%08x:%08x:%08x", uuid[0], uuid[1], uuid[2], uuid[3]);
    return text;
}

bool parseMemberState(const std::string& word, MemberState& s)
{
    for (MemberState c : {MemberState::InSync, MemberState::Spare, MemberState::Faulty})
        if (word == memberStateName(c)) {
            s = c;
            return true;
        }
    return false;
}

bool parseSuper(const std::string& text, MdSuperInfo& s)
{
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string p; std::getline(in, p, ':');) parts.push_back(p);
    int64_t level = 0, raid = 0, layout = 0, chunk = 0, ctime = 0;
    if (parts.size() != 6 || !parseNumber(parts[0], s.events) || !parseSigned(parts[1], INT_MIN, INT_MAX, level) ||
        !parseSigned(parts[2], 1, kMdSlots, raid) || !parseSigned(parts[3], INT_MIN, INT_MAX, layout) ||
        !parseSigned(parts[4], 0, INT_MAX, chunk) || !parseSigned(parts[5], 0, UINT32_MAX, ctime))
        return false;
    s.level = static_cast<int>(level);
    s.raidDisks = static_cast<int>(raid);
    s.layout = static_cast<int>(layout);
    s.chunkSize = static_cast<int>(chunk);
    s.ctime = static_cast<uint32_t>(ctime);
    return true;
}

bool readArray(std::istringstream& in, MdArray& a, std::string& why)
{
    std::string minorWord;
    int64_t minor = 0;
    if (!(in >> minorWord) || !parseSigned(minorWord, 0, kMdArrays - 1, minor))
        return Fields::fail(why, "array: give its minor 0 to " + std::to_string(kMdArrays - 1));
    a.minor = static_cast<int>(minor);
    Fields f;
    if (!f.read(in, why) || !f.flag("running", a.running, why) || !f.flag("info", a.hasInfo, why) ||
        !f.number("level", INT_MIN, INT_MAX, a.level, why) || !f.number("raid_disks", 0, kMdSlots, a.raidDisks, why) ||
        !f.number("layout", INT_MIN, INT_MAX, a.layout, why) || !f.number("chunk", 0, INT_MAX, a.chunkSize, why) ||
        !f.number("ctime", 0, UINT32_MAX, a.ctime, why) || !f.number("utime", 0, UINT32_MAX, a.utime, why) ||
        !f.unsignedNumber("events", UINT64_MAX, a.events, why) || !f.unsignedNumber("size", kMaxKiB, a.sizeKiB, why))
        return false;
    std::optional<std::string> uuid = f.take("uuid");
    if (uuid && !parseUuid(*uuid, a.uuid)) return Fields::fail(why, "uuid=" + *uuid + ": not four groups of 8 hex digits");
    if (!f.done(why)) return false;
    if (a.running && (a.raidDisks < 1 || (a.level != 0 && a.level != 1 && a.level != 5)))
        return Fields::fail(why, "a running array needs level 0, 1 or 5 and raid disks 1 to " + std::to_string(kMdSlots));
    return true;
}

bool readMember(std::istringstream& in, MdMember& m, std::string& why)
{
    Fields f;
    if (!f.read(in, why) || !f.number("slot", 0, kMdSlots - 1, m.slot, why) ||
        !f.number("raid_disk", -1, kMdSlots - 1, m.raidDisk, why) || !f.number("bay", 1, 4096, m.bay, why) ||
        !f.number("partition", 1, 255, m.partition, why) || !f.text("serial", m.serial, why) ||
        !f.text("name", m.name, why) || !f.unsignedNumber("component", kMaxKiB, m.componentKiB, why))
        return false;
    const std::string dev = f.take("dev").value_or("");
    unsigned major = 0, minor = 0;
    char extra = 0;
    if (std::sscanf(dev.c_str(), "%u:%u%c", &major, &minor, &extra) != 2 || major > 4095 || minor > 1048575 ||
        dev != std::to_string(major) + ":" + std::to_string(minor))
        return Fields::fail(why, "dev=" + dev + ": give MAJOR:MINOR in decimal");
    m.major = major;
    m.minor = minor;
    const std::string state = f.take("state").value_or("");
    if (!parseMemberState(state, m.state)) return Fields::fail(why, "state=" + state + ": give in-sync, spare or faulty");
    if (std::optional<std::string> super = f.take("sb")) {
        MdSuperInfo s;
        if (!parseSuper(*super, s)) return Fields::fail(why, "sb=" + *super + ": give EVENTS:LEVEL:RAID_DISKS:LAYOUT:CHUNK:CTIME");
        m.super = s;
    }
    if (!f.done(why)) return false;
    if (m.serial.empty() || m.name.empty()) return Fields::fail(why, "a member needs serial= and name=");
    if (m.state == MemberState::InSync && m.raidDisk < 0) return Fields::fail(why, "an in-sync member needs a raid_disk");
    return true;
}

bool readRecovery(std::istringstream& in, MdRecovery& r, std::string& why)
{
    Fields f;
    return f.read(in, why) && f.number("slot", 0, kMdSlots - 1, r.slot, why) &&
           f.number("role", 0, kMdSlots - 1, r.role, why) && f.unsignedNumber("done", kMaxKiB, r.doneKiB, why) &&
           f.unsignedNumber("total", kMaxKiB, r.totalKiB, why) && f.unsignedNumber("carry", kMicro - 1, r.carry, why) &&
           f.unsignedNumber("since", UINT64_MAX / 2, r.sinceUs, why) && f.done(why) &&
           (r.doneKiB <= r.totalKiB || Fields::fail(why, "done is beyond total"));
}

// What the records say together: slots and devices once, a recovery onto a
// spare of a running array into a role that is missing.
bool consistent(const MdState& s, std::string& why)
{
    std::set<std::pair<unsigned, unsigned>> devices;
    for (const MdArray& a : s.arrays) {
        const std::string named = "md" + std::to_string(a.minor) + ": ";
        std::set<int> slots, roles;
        for (const MdMember& m : a.members) {
            if (!slots.insert(m.slot).second) return Fields::fail(why, named + "slot " + std::to_string(m.slot) + " twice");
            if (!devices.insert({m.major, m.minor}).second)
                return Fields::fail(why, named + "device " + m.name + " is a member twice");
            if (a.running && m.state == MemberState::InSync &&
                (m.raidDisk >= a.raidDisks || !roles.insert(m.raidDisk).second))
                return Fields::fail(why, named + m.name + ": role " + std::to_string(m.raidDisk) + " taken or beyond the set");
        }
        if (!a.recovering()) continue;
        const MdMember* target = a.member(a.recovery.slot);
        if (!a.running || (a.level != 1 && a.level != 5) || !target || target->state != MemberState::Spare ||
            a.recovery.role >= a.raidDisks || a.inRole(a.recovery.role))
            return Fields::fail(why, named + "the recovery fits no spare and missing role");
    }
    return true;
}

// ---- writing ----

std::string memberLine(const MdMember& m)
{
    std::string line = "member slot=" + std::to_string(m.slot) + " raid_disk=" + std::to_string(m.raidDisk) +
                       " dev=" + std::to_string(m.major) + ":" + std::to_string(m.minor) + " bay=" + std::to_string(m.bay) +
                       " partition=" + std::to_string(m.partition) + " serial=" + percentEncode(m.serial) +
                       " name=" + percentEncode(m.name) + " state=" + memberStateName(m.state) +
                       " component=" + std::to_string(m.componentKiB);
    if (m.super)
        line += " sb=" + std::to_string(m.super->events) + ":" + std::to_string(m.super->level) + ":" +
                std::to_string(m.super->raidDisks) + ":" + std::to_string(m.super->layout) + ":" +
                std::to_string(m.super->chunkSize) + ":" + std::to_string(m.super->ctime);
    return line;
}

uint64_t mulDiv(uint64_t a, uint64_t b, uint64_t c) { return static_cast<uint64_t>(static_cast<unsigned __int128>(a) * b / c); }

} // namespace

const char* memberStateName(MemberState s)
{
    switch (s) {
    case MemberState::InSync: return "in-sync";
    case MemberState::Spare: return "spare";
    case MemberState::Faulty: return "faulty";
    }
    return "?";
}

MdMember* MdArray::member(int slot)
{
    for (MdMember& m : members)
        if (m.slot == slot) return &m;
    return nullptr;
}

const MdMember* MdArray::member(int slot) const { return const_cast<MdArray*>(this)->member(slot); }

MdMember* MdArray::memberByDevice(unsigned major, unsigned minor)
{
    for (MdMember& m : members)
        if (m.major == major && m.minor == minor) return &m;
    return nullptr;
}

MdCounts MdArray::counts() const
{
    MdCounts c;
    for (const MdMember& m : members) {
        ++c.nr;
        if (m.state == MemberState::Faulty) {
            ++c.failed;
            continue;
        }
        ++c.working;
        if (m.state == MemberState::InSync) ++c.active;
        else ++c.spare;
    }
    return c;
}

const MdMember* MdArray::inRole(int role) const
{
    for (const MdMember& m : members)
        if (m.state == MemberState::InSync && m.raidDisk == role) return &m;
    return nullptr;
}

int MdArray::rolesInSync() const
{
    int n = 0;
    for (int role = 0; role < raidDisks; ++role) n += inRole(role) != nullptr;
    return n;
}

bool MdArray::failed() const
{
    const int have = rolesInSync();
    switch (level) {
    case 0: return have < raidDisks;
    case 1: return have == 0;
    case 5: return have < raidDisks - 1;
    default: return true;
    }
}

uint64_t MdArray::bytes() const
{
    if (!running) return 0;
    uint64_t kib = 0;
    if (level == 0) {
        for (const MdMember& m : members) kib += m.componentKiB;
    } else if (level == 1) {
        kib = sizeKiB;
    } else if (level == 5 && raidDisks > 1) {
        kib = sizeKiB * static_cast<uint64_t>(raidDisks - 1);
    }
    return kib * 1024;
}

MdArray* MdState::array(int minor)
{
    for (MdArray& a : arrays)
        if (a.minor == minor) return &a;
    return nullptr;
}

const MdArray* MdState::array(int minor) const { return const_cast<MdState*>(this)->array(minor); }

MdArray& MdState::allocate(int minor)
{
    if (MdArray* a = array(minor)) return *a;
    auto at = std::find_if(arrays.begin(), arrays.end(), [&](const MdArray& a) { return a.minor > minor; });
    MdArray fresh;
    fresh.minor = minor;
    return *arrays.insert(at, fresh);
}

void MdState::forget(int minor)
{
    arrays.erase(std::remove_if(arrays.begin(), arrays.end(), [&](const MdArray& a) { return a.minor == minor; }),
                 arrays.end());
}

bool MdState::parse(const std::string& text, MdState& out, std::string& why)
{
    MdState s;
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    int current = -1;  // the minor of the latest array line
    auto fail = [&](const std::string& what) {
        why = "sim/md:" + std::to_string(number) + ": " + what;
        out = MdState{};
        return false;
    };
    while (std::getline(lines, line)) {
        ++number;
        std::istringstream in(line);
        std::string kind, problem;
        if (!(in >> kind)) continue;
        if (kind == "speed_limit_min" || kind == "speed_limit_max" || kind == "made" || kind == "stalled") {
            std::string word, extra;
            int64_t v = 0;
            const bool isMade = kind == "made", isStalled = kind == "stalled";
            const int64_t min = isMade || isStalled ? 0 : INT_MIN;
            const int64_t max = isMade ? INT64_MAX : isStalled ? kMdArrays - 1 : INT_MAX;
            if (!(in >> word) || (in >> extra) || !parseSigned(word, min, max, v))
                return fail(kind + ": give one decimal number " + std::to_string(min) + " to " + std::to_string(max));
            if (kind == "speed_limit_min") s.speedMin = static_cast<int>(v);
            else if (kind == "speed_limit_max") s.speedMax = static_cast<int>(v);
            else if (isMade) s.made = static_cast<uint64_t>(v);
            else s.stalled.insert(static_cast<int>(v));
        } else if (kind == "array") {
            MdArray a;
            if (!readArray(in, a, problem)) return fail(problem);
            if (s.array(a.minor)) return fail("md" + std::to_string(a.minor) + " twice");
            s.allocate(a.minor) = a;
            current = a.minor;
        } else if (kind == "member" || kind == "recovery") {
            MdArray* a = s.array(current);
            if (!a) return fail(kind + " before any array");
            if (kind == "member") {
                MdMember m;
                if (!readMember(in, m, problem)) return fail(problem);
                a->members.push_back(m);
            } else {
                if (a->recovering()) return fail("a second recovery of md" + std::to_string(current));
                if (!readRecovery(in, a->recovery, problem)) return fail(problem);
            }
        } else {
            return fail("unknown record " + kind);
        }
    }
    if (!consistent(s, why)) {
        why = "sim/md: " + why;
        out = MdState{};
        return false;
    }
    out = s;
    return true;
}

std::string MdState::format() const
{
    std::string out = "speed_limit_min " + std::to_string(speedMin) + "\nspeed_limit_max " + std::to_string(speedMax) + "\n";
    if (made) out += "made " + std::to_string(made) + "\n";
    for (int minor : stalled) out += "stalled " + std::to_string(minor) + "\n";
    for (const MdArray& a : arrays) {
        out += "array " + std::to_string(a.minor) + " running=" + (a.running ? "1" : "0") + " info=" + (a.hasInfo ? "1" : "0") +
               " level=" + std::to_string(a.level) + " raid_disks=" + std::to_string(a.raidDisks) +
               " layout=" + std::to_string(a.layout) + " chunk=" + std::to_string(a.chunkSize) +
               " ctime=" + std::to_string(a.ctime) + " utime=" + std::to_string(a.utime) + " uuid=" + formatUuid(a.uuid) +
               " events=" + std::to_string(a.events) + " size=" + std::to_string(a.sizeKiB) + "\n";
        for (const MdMember& m : a.members) out += memberLine(m) + "\n";
        if (a.recovering()) {
            const MdRecovery& r = a.recovery;
            out += "recovery slot=" + std::to_string(r.slot) + " role=" + std::to_string(r.role) +
                   " done=" + std::to_string(r.doneKiB) + " total=" + std::to_string(r.totalKiB) +
                   " carry=" + std::to_string(r.carry) + " since=" + std::to_string(r.sinceUs) + "\n";
        }
    }
    return out;
}

std::string memberCondition(const MdArray& a, const MdMember& m, bool stalled)
{
    if (m.state != MemberState::Spare) return memberStateName(m.state);
    if (a.recovery.slot == m.slot) return stalled ? "waiting" : "rebuilding";
    return "spare";
}

std::string arrayCondition(const MdArray& a, bool stalled)
{
    if (!a.running) return "inactive";
    if (a.failed()) return "failed";
    if (a.recovering() && !stalled) return "recovering";
    return a.degraded() ? "degraded" : "active";
}

bool startRecovery(MdArray& a, uint64_t atUs)
{
    if (!a.running || (a.level != 1 && a.level != 5) || a.recovering() || a.failed() || !a.degraded()) return false;
    const MdMember* spare = nullptr;
    for (const MdMember& m : a.members)
        if (m.state == MemberState::Spare && (!spare || m.slot < spare->slot)) spare = &m;
    int role = 0;
    while (role < a.raidDisks && a.inRole(role)) ++role;
    if (!spare || role >= a.raidDisks) return false;
    a.member(spare->slot)->raidDisk = role;
    a.recovery = MdRecovery{spare->slot, role, 0, a.sizeKiB, 0, atUs};
    return true;
}

uint64_t recoveryRemainingUs(const MdRecovery& r, int rate)
{
    if (rate <= 0) return UINT64_MAX;
    const unsigned __int128 need = static_cast<unsigned __int128>(r.totalKiB - r.doneKiB) * kMicro;
    const unsigned __int128 left = need > r.carry ? need - r.carry : 0;
    const unsigned __int128 us = (left + static_cast<unsigned>(rate) - 1) / static_cast<unsigned>(rate);
    return us > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(us);
}

bool advanceRecovery(MdArray& a, uint64_t nowUs, int rate, bool stalled)
{
    bool finished = false;
    while (a.recovering()) {
        MdRecovery& r = a.recovery;
        if (nowUs <= r.sinceUs) break;
        if (stalled || rate <= 0) {
            r.sinceUs = nowUs;
            break;
        }
        const uint64_t elapsed = nowUs - r.sinceUs;
        const uint64_t toEnd = recoveryRemainingUs(r, rate);
        if (elapsed < toEnd) {
            const unsigned __int128 moved = static_cast<unsigned __int128>(elapsed) * static_cast<unsigned>(rate) + r.carry;
            r.doneKiB += static_cast<uint64_t>(moved / kMicro);
            r.carry = static_cast<uint64_t>(moved % kMicro);
            r.sinceUs = nowUs;
            break;
        }
        const uint64_t endUs = r.sinceUs + toEnd;
        MdMember* m = a.member(r.slot);
        if (m) {
            m->state = MemberState::InSync;
            m->raidDisk = r.role;
        }
        a.recovery = MdRecovery{};
        ++a.events;
        a.utime = static_cast<uint32_t>(endUs / kMicro);
        finished = true;
        startRecovery(a, endUs);
    }
    return finished;
}

unsigned recoveryPerMille(const MdRecovery& r)
{
    return r.totalKiB == 0 ? 1000 : static_cast<unsigned>(mulDiv(r.doneKiB, 1000, r.totalKiB));
}

} // namespace sim

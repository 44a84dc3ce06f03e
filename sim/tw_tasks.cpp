#include "tw_tasks.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>

#include "manifest.h"
#include "module.h"
#include "tw_ata.h"
#include "tw_kernel.h"

namespace sim::tw {
namespace {

std::string sinceKey(int unit) { return "task-since-" + std::to_string(unit); }
std::string ontoKey(int unit) { return "task-onto-" + std::to_string(unit); }
std::string waitKey(int unit) { return "task-wait-" + std::to_string(unit); }

bool isTaskMode(const std::string& mode) { return mode == "INITIALIZING" || mode == "REBUILDING" || mode == "VERIFYING"; }
bool redundant(const Unit& u) { return u.config == 5 || u.config == 6; }

std::string unitText(const Unit& u) { return "unit " + std::to_string(u.number); }

int rateOf(const Controller& c, const std::string& mode)
{
    const int64_t r = c.family == 7000 ? c.num("background-rate", 3)
                      : mode == "VERIFYING" ? c.num("verify-rate", 3)
                                            : c.num("rebuild-rate", 3);
    return static_cast<int>(std::clamp<int64_t>(r, 1, 5));
}

// One member's size: the largest drive the controller found among the
// unit's members, else the unit's own capacity.
uint64_t memberSectors(const Controller& c, const Unit& u)
{
    uint64_t most = 0;
    for (int p : u.ports)
        if (const Port* q = p >= 0 ? c.port(p) : nullptr) most = std::max(most, q->foundSectors);
    return most ? most : std::max<uint64_t>(u.capacity, 1);
}

uint64_t durationUs(const Controller& c, const Unit& u)
{
    const uint64_t bytes = memberSectors(c, u) * 512;
    const uint64_t speed = kRateStepBytesPerSecond * static_cast<uint64_t>(rateOf(c, u.mode));
    return std::max<uint64_t>(1000000, bytes / speed * 1000000 + bytes % speed * 1000000 / speed);
}

// The clock's microsecond at which the unit's running task started from
// its stored percentage; false when none runs.
bool taskSince(const Controller& c, const Unit& u, uint64_t& since)
{
    if (!isTaskMode(u.mode)) return false;
    auto it = c.values.find(sinceKey(u.number));
    if (it == c.values.end()) return false;
    int64_t v = c.num(sinceKey(u.number), -1);
    if (v < 0) return false;
    since = static_cast<uint64_t>(v);
    return true;
}

uint64_t taskEnd(const Controller& c, const Unit& u, uint64_t since)
{
    const int base = std::clamp(u.percent, 0, 100);
    return since + durationUs(c, u) / 100 * static_cast<uint64_t>(100 - base);
}

void setAll(TreeNode& t, const std::string& mode)
{
    t.mode = mode;
    for (TreeNode& child : t.children) setAll(child, mode);
}

// Modes from the members: a missing member, or a node with one below it, is
// DEGRADED; all else OK.
void recompute(TreeNode& t)
{
    if (t.children.empty()) {
        t.mode = t.port < 0 ? "DEGRADED" : "OK";
        return;
    }
    bool ok = true;
    for (TreeNode& child : t.children) {
        recompute(child);
        ok = ok && child.mode == "OK";
    }
    t.mode = ok ? "OK" : "DEGRADED";
}

// Marks the first leaf that `pick` takes, and every node above it, `mode`.
bool markFirst(TreeNode& t, const std::function<bool(const TreeNode&)>& pick, const std::string& mode)
{
    if (t.children.empty()) {
        if (!pick(t)) return false;
        t.mode = mode;
        return true;
    }
    for (TreeNode& child : t.children)
        if (markFirst(child, pick, mode)) {
            t.mode = mode;
            return true;
        }
    return false;
}

void renameModes(TreeNode& t, const std::string& from, const std::string& to)
{
    if (t.mode == from) t.mode = to;
    for (TreeNode& child : t.children) renameModes(child, from, to);
}

void forLeaves(TreeNode& t, const std::function<void(TreeNode&)>& f)
{
    if (t.children.empty()) f(t);
    for (TreeNode& child : t.children) forLeaves(child, f);
}

// Whether a node's data is lost: a parity node missing two, a mirror
// missing all, a stripe or single node missing any.
bool lost(const TreeNode& t, int config)
{
    if (t.children.empty()) return t.port < 0;
    int gone = 0;
    bool inner = false;
    for (const TreeNode& child : t.children) {
        inner = inner || !child.children.empty();
        gone += lost(child, 6) ? 1 : 0;
    }
    if (inner) return gone > 0;  // a stripe over mirrors
    if (config == 5) return gone > 1;
    if (config == 6) return gone == static_cast<int>(t.children.size());
    return gone > 0;
}

// A unit that can still lose its data: not a spare, not already lost, with members.
bool usable(const Unit& u) { return u.mode != "INOPERABLE" && u.config != 13 && !u.ports.empty(); }

void endTask(Controller& c, Unit& u)
{
    c.values.erase(sinceKey(u.number));
    c.values.erase(ontoKey(u.number));
    c.values.erase(waitKey(u.number));
}

void startTask(Controller& c, Unit& u, const std::string& mode, uint64_t at)
{
    endTask(c, u);  // nothing kept of an earlier task or unit of this number
    u.mode = mode;
    u.percent = 0;
    c.setNum(sinceKey(u.number), static_cast<int64_t>(at));
}

// A spare unit lets go of `port`; the unit goes with its last drive.
void leaveSpare(Controller& c, int port)
{
    for (size_t i = 0; i < c.units.size(); ++i) {
        Unit& s = c.units[i];
        if (s.config != 13 || std::find(s.ports.begin(), s.ports.end(), port) == s.ports.end()) continue;
        auto& kids = s.tree.children;
        kids.erase(std::remove_if(kids.begin(), kids.end(), [&](const TreeNode& t) { return t.children.empty() && t.port == port; }),
                   kids.end());
        if (s.tree.children.empty() && s.tree.port == port) s.tree.port = -1;
        s.ports = treePorts(s.tree);
        s.ports.erase(std::remove(s.ports.begin(), s.ports.end(), -1), s.ports.end());
        if (s.ports.empty()) {
            endTask(c, s);
            c.units.erase(c.units.begin() + static_cast<long>(i));
            return;
        }
        s.mode = "OK";
        setAll(s.tree, "OK");
        return;
    }
}

Unit* spareUnitOf(Controller& c, int port)
{
    for (Unit& s : c.units)
        if (s.config == 13 && std::find(s.ports.begin(), s.ports.end(), port) != s.ports.end()) return &s;
    return nullptr;
}

void startVerify(Controller& c, Unit& u, uint64_t at)
{
    startTask(c, u, "VERIFYING", at);
    setAll(u.tree, "VERIFYING");
    raiseEvent(c, at, kEventVerifyStarted, 3, "verify of " + unitText(u) + " started");
}

void finish(Controller& c, Unit& u, uint64_t at)
{
    const std::string mode = u.mode;
    if (mode == "REBUILDING") {
        const int onto = static_cast<int>(c.num(ontoKey(u.number), -1));
        bool placed = false;
        forLeaves(u.tree, [&](TreeNode& leaf) {
            if (leaf.mode != "REBUILDING") return;
            if (leaf.port < 0 && onto >= 0 && !placed) {
                leaf.port = onto;
                placed = true;
            }
        });
        if (placed) leaveSpare(c, onto);
    }
    // leaveSpare may have moved the units: find ours again.
    Unit* self = c.unit(u.number);
    if (!self) return;
    endTask(c, *self);
    recompute(self->tree);
    self->ports = treePorts(self->tree);
    self->mode = self->tree.mode;
    self->percent = self->mode == "OK" ? 100 : 0;
    const uint16_t code = mode == "REBUILDING" ? kEventRebuildEnded : mode == "VERIFYING" ? kEventVerifyEnded : kEventInitEnded;
    const char* what = mode == "REBUILDING" ? "rebuild" : mode == "VERIFYING" ? "verify" : "initialisation";
    raiseEvent(c, at, code, 3, std::string(what) + " of " + unitText(*self) + " ended");
    if (mode != "VERIFYING" && self->autoVerify && self->mode == "OK" && redundant(*self)) startVerify(c, *self, at);
}

bool pulled(const Manifest& m, const Controller& c, const Port& p)
{
    if (p.drive.empty()) return false;
    const Bay* b = bayOfPort(m, c, p.number);
    return b && !m.driveInBay(b->number);
}

// A free drive for a rebuild of `u`: in a spare unit, healthy, big enough.
int spareFor(const Controller& c, const Unit& u)
{
    const uint64_t need = memberSectors(c, u);
    for (const Unit& s : c.units) {
        if (s.config != 13 || s.mode != "OK") continue;
        for (int p : s.ports) {
            const Port* q = p >= 0 ? c.port(p) : nullptr;
            if (q && !q->drive.empty() && q->status == 0xFF && q->foundSectors >= need) return p;
        }
    }
    return -1;
}

bool hasMissing(const TreeNode& t)
{
    if (t.children.empty()) return t.port < 0;
    return std::any_of(t.children.begin(), t.children.end(), hasMissing);
}

bool waitsForRebuild(const Controller& c, const Unit& u)
{
    return redundant(u) && u.mode == "DEGRADED" && hasMissing(u.tree) && spareFor(c, u) >= 0;
}

void startRebuildOnto(Controller& c, Unit& u, int port, uint64_t at)
{
    startTask(c, u, "REBUILDING", at);
    c.setNum(ontoKey(u.number), port);
    markFirst(u.tree, [](const TreeNode& t) { return t.port < 0; }, "REBUILDING");
    if (Unit* s = spareUnitOf(c, port)) {
        s->mode = "REBUILDING";
        setAll(s->tree, "REBUILDING");
    }
    raiseEvent(c, at, kEventRebuildStarted, 3,
               "rebuild of " + unitText(u) + " started onto port " + std::to_string(port));
}

int64_t lastTestSeconds(const Controller& c)
{
    if (c.values.count("last-test-time")) return c.num("last-test-time");
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    int day = 0, year = 0;
    char mon[4] = {};
    if (std::sscanf(c.get("last-test-date").c_str(), "%2d-%3s-%4d", &day, mon, &year) != 3) return -1;
    struct tm tm {};
    for (int i = 0; i < 12; ++i)
        if (std::string(mon) == months[i]) tm.tm_mon = i;
    tm.tm_mday = day;
    tm.tm_year = year - 1900;
    return static_cast<int64_t>(timegm(&tm));
}

bool batteryDue(const Controller& c, uint64_t nowUs)
{
    if (c.family != 9000 || c.num("bbu-present") != 1) return false;
    if (c.num("test-in-progress") == 1) return static_cast<uint64_t>(c.num("test-ends")) <= nowUs;
    const int64_t last = lastTestSeconds(c);
    if (last < 0) return false;
    return static_cast<int64_t>(nowUs / 1000000) > last + static_cast<int64_t>(kBatteryTestIntervalSeconds) &&
           c.num("overdue-raised", -1) != last;
}

void settleBattery(Controller& c, uint64_t nowUs)
{
    if (c.num("test-in-progress") == 1 && static_cast<uint64_t>(c.num("test-ends")) <= nowUs) {
        const int64_t ended = c.num("test-ends");
        c.setNum("test-in-progress", 0);
        c.values.erase("test-ends");
        c.set("last-test-date", dateText(ended / 1000000));
        c.setNum("last-test-time", ended / 1000000);
        const bool failed = c.num("battery-test-fails") == 1;
        raiseEvent(c, static_cast<uint64_t>(ended), failed ? kEventBatteryTestFailed : kEventBatteryTestPassed,
                   failed ? 1 : 3, failed ? "battery test failed" : "battery test passed");
    }
    const int64_t last = lastTestSeconds(c);
    const int64_t due = last + static_cast<int64_t>(kBatteryTestIntervalSeconds);
    if (c.num("test-in-progress") != 1 && last >= 0 && static_cast<int64_t>(nowUs / 1000000) > due &&
        c.num("overdue-raised", -1) != last) {
        c.setNum("overdue-raised", last);
        raiseEvent(c, static_cast<uint64_t>(due) * 1000000, kEventBatteryOverdue, 2, "battery test overdue");
    }
}

// Task ends and automatic rebuild starts up to `nowUs`, in the order of
// their times; each may bring the next. Units that begin to wait for a
// rebuild count their wait from `since`, the time of the step that let
// them (the settling's own time at first).
void runClock(Controller& c, uint64_t since, uint64_t nowUs)
{
    uint64_t at = since;
    for (int guard = 0; guard < 256; ++guard) {
        for (Unit& u : c.units) {
            const bool waits = waitsForRebuild(c, u);
            if (waits && !c.values.count(waitKey(u.number))) c.setNum(waitKey(u.number), static_cast<int64_t>(at));
            if (!waits) c.values.erase(waitKey(u.number));
        }
        Unit* first = nullptr;
        uint64_t firstAt = 0;
        bool start = false;
        for (Unit& u : c.units) {
            uint64_t t = 0;
            bool isStart = false;
            if (taskSince(c, u, t)) {
                t = taskEnd(c, u, t);
            } else if (c.values.count(waitKey(u.number))) {
                t = static_cast<uint64_t>(std::max<int64_t>(0, c.num(waitKey(u.number)))) + kAutoRebuildDelayUs;
                isStart = true;
            } else {
                continue;
            }
            if (t <= nowUs && (!first || t < firstAt)) {
                first = &u;
                firstAt = t;
                start = isStart;
            }
        }
        if (!first) return;
        if (start) {
            c.values.erase(waitKey(first->number));
            startRebuildOnto(c, *first, spareFor(c, *first), firstAt);
        } else {
            finish(c, *first, firstAt);
        }
        at = firstAt;
    }
}

} // namespace

bool unitUsable(Module& module, int unitBay)
{
    const int host = (unitBay - kUnitBayBase) / 16, target = (unitBay - kUnitBayBase) % 16;
    const Controller* c = twView(module).byHost(host);
    const Unit* u = c ? c->unit(target) : nullptr;
    return !u || u->mode != "INOPERABLE";
}

int livePercent(const Controller& c, const Unit& u, uint64_t nowUs)
{
    // A spare unit in a rebuild shows the rebuild's progress.
    if (u.config == 13 && (u.mode == "REBUILDING" || u.mode == "REBUILD-PAUSED"))
        for (const Unit& other : c.units) {
            const int onto = static_cast<int>(c.num(ontoKey(other.number), -1));
            if (&other != &u && onto >= 0 && std::find(u.ports.begin(), u.ports.end(), onto) != u.ports.end())
                return livePercent(c, other, nowUs);
        }
    uint64_t since = 0;
    if (!taskSince(c, u, since)) return u.percent;
    const int base = std::clamp(u.percent, 0, 100);
    const uint64_t elapsed = nowUs > since ? nowUs - since : 0;
    const uint64_t done = elapsed / std::max<uint64_t>(1, durationUs(c, u) / 100);
    return static_cast<int>(std::min<uint64_t>(100, static_cast<uint64_t>(base) + done));
}

bool tasksDue(const Controller& c, const Manifest& m, uint64_t nowUs)
{
    for (const Port& p : c.ports)
        if (pulled(m, c, p)) return true;
    for (const Unit& u : c.units) {
        uint64_t since = 0;
        if (taskSince(c, u, since) && taskEnd(c, u, since) <= nowUs) return true;
        if (usable(u) && lost(u.tree, u.config)) return true;
        const bool waits = waitsForRebuild(c, u);
        if (waits != (c.values.count(waitKey(u.number)) > 0)) return true;
        if (waits && static_cast<uint64_t>(std::max<int64_t>(0, c.num(waitKey(u.number)))) + kAutoRebuildDelayUs <= nowUs)
            return true;
        if (u.mode == "REBUILDING") {
            const int onto = static_cast<int>(c.num(ontoKey(u.number), -1));
            if (onto >= 0 && (!c.port(onto) || c.port(onto)->drive.empty())) return true;
        }
    }
    return batteryDue(c, nowUs);
}

bool settleTasks(Controller& c, const Manifest& m, uint64_t nowUs)
{
    if (!tasksDue(c, m, nowUs)) return false;
    // What ended before now, then what happens now.
    runClock(c, nowUs, nowUs);
    // Drives pulled from their bays: noticed now.
    for (Port& p : c.ports) {
        if (!pulled(m, c, p)) continue;
        p.drive.clear();
        raiseEvent(c, nowUs, kEventDriveRemoved, 2, "drive removed from port " + std::to_string(p.number));
        for (Unit& u : c.units) {
            bool hit = false;
            forLeaves(u.tree, [&](TreeNode& leaf) {
                if (leaf.port != p.number) return;
                leaf.port = -1;
                hit = true;
            });
            if (!hit || u.config == 13) continue;
            const bool running = u.mode == "REBUILDING" || u.mode == "REBUILD-PAUSED";
            u.ports = treePorts(u.tree);
            if (!running) {
                endTask(c, u);
                recompute(u.tree);
                u.mode = "DEGRADED";
                u.percent = 0;
                // A unit past its redundancy is reported unusable below instead.
                if (!lost(u.tree, u.config)) raiseEvent(c, nowUs, kEventUnitDegraded, 2, unitText(u) + " degraded");
            }
        }
        leaveSpare(c, p.number);
    }
    // Rebuilds whose spare went: back to degraded.
    for (Unit& u : c.units) {
        const int onto = static_cast<int>(c.num(ontoKey(u.number), -1));
        if (u.mode != "REBUILDING" && u.mode != "REBUILD-PAUSED") continue;
        if (onto >= 0 && (!c.port(onto) || c.port(onto)->drive.empty())) {
            endTask(c, u);
            recompute(u.tree);
            u.mode = "DEGRADED";
            u.percent = 0;
        }
    }
    // Units past their redundancy.
    for (Unit& u : c.units)
        if (usable(u) && lost(u.tree, u.config)) {
            endTask(c, u);
            u.mode = "INOPERABLE";
            u.tree.mode = "INOPERABLE";
            raiseEvent(c, nowUs, kEventUnitUnusable, 1, unitText(u) + " is not usable");
        }
    runClock(c, nowUs, nowUs);
    settleBattery(c, nowUs);
    return true;
}

void startInitialisation(Controller& c, Unit& u, uint64_t nowUs)
{
    startTask(c, u, "INITIALIZING", nowUs);
    setAll(u.tree, "INITIALIZING");
    raiseEvent(c, nowUs, kEventInitStarted, 3, "initialisation of " + unitText(u) + " started");
}

namespace {
FwAnswer taskError(uint16_t code) { return fwError(code); }
} // namespace

FwAnswer runUnitTask(Module& module, int index, unsigned unit, const uint8_t* registers)
{
    TwView& view = twView(module);
    view.settle();
    const uint64_t now = module.nowUs();
    const auto action = static_cast<TaskAction>(registers[0]);
    const uint32_t mask = registers[4] | (registers[5] << 8) | (registers[6] << 16) | (static_cast<uint32_t>(registers[7]) << 24);
    FwAnswer answer;
    const bool found = view.update(index, [&](Controller& c) {
        Unit* u = c.unit(static_cast<int>(unit));
        if (!u) {
            answer = fwError(kErrUnit);
            return false;
        }
        switch (action) {
        case TaskAction::Rebuild:
        case TaskAction::Replace: {
            if (!redundant(*u)) {
                answer = taskError(kErrTaskConfig);
                return false;
            }
            if (u->mode != "DEGRADED") {
                answer = taskError(kErrUnitState);
                return false;
            }
            std::vector<int> ports;
            for (int p = 0; p < 32; ++p)
                if (mask & (1u << p)) ports.push_back(p);
            int missing = 0;
            forLeaves(u->tree, [&](TreeNode& leaf) { missing += leaf.port < 0 ? 1 : 0; });
            if (static_cast<int>(ports.size()) > missing || (action == TaskAction::Replace && ports.size() != 1)) {
                answer = fwError(kErrValue);
                return false;
            }
            const uint64_t need = memberSectors(c, *u);
            for (int p : ports) {
                const Port* q = c.port(p);
                if (!q || q->drive.empty()) {
                    answer = fwError(kErrPort);
                    return false;
                }
                for (const Unit& other : c.units)
                    if (other.config != 13 && std::find(other.ports.begin(), other.ports.end(), p) != other.ports.end()) {
                        answer = taskError(kErrDriveInUse);
                        return false;
                    }
                if (q->foundSectors < need) {
                    answer = taskError(kErrDriveSmall);
                    return false;
                }
            }
            // The drives take the first missing slots; a replaced one waits.
            for (int p : ports) {
                leaveSpare(c, p);
                u = c.unit(static_cast<int>(unit));
                forLeaves(u->tree, [&](TreeNode& leaf) {
                    if (leaf.port >= 0 || p < 0) return;
                    leaf.port = p;
                    leaf.mode = "DEGRADED";
                    p = -1;
                });
            }
            u->ports = treePorts(u->tree);
            if (action == TaskAction::Replace) return true;
            bool any = false;
            forLeaves(u->tree, [&](TreeNode& leaf) { any = any || (leaf.port >= 0 && leaf.mode == "DEGRADED"); });
            if (!any) {
                answer = fwError(kErrValue);
                return false;
            }
            startTask(c, *u, "REBUILDING", now);
            for (int guard = 0; guard < 16 && markFirst(u->tree, [](const TreeNode& t) { return t.port >= 0 && t.mode == "DEGRADED"; },
                                                      "REBUILDING");
                 ++guard) {
            }
            raiseEvent(c, now, kEventRebuildStarted, 3, "rebuild of " + unitText(*u) + " started");
            return true;
        }
        case TaskAction::Pause:
        case TaskAction::Resume: {
            const bool pause = action == TaskAction::Pause;
            if (u->mode != (pause ? "REBUILDING" : "REBUILD-PAUSED")) {
                answer = taskError(kErrUnitState);
                return false;
            }
            const int onto = static_cast<int>(c.num(ontoKey(u->number), -1));
            if (pause) {
                u->percent = livePercent(c, *u, now);
                c.values.erase(sinceKey(u->number));
            } else {
                c.setNum(sinceKey(u->number), static_cast<int64_t>(now));
            }
            const std::string from = pause ? "REBUILDING" : "REBUILD-PAUSED", to = pause ? "REBUILD-PAUSED" : "REBUILDING";
            u->mode = to;
            renameModes(u->tree, from, to);
            if (Unit* s = onto >= 0 ? spareUnitOf(c, onto) : nullptr) {
                s->mode = to;
                renameModes(s->tree, from, to);
            }
            raiseEvent(c, now, pause ? kEventRebuildPaused : kEventRebuildResumed, 3,
                       "rebuild of " + unitText(*u) + (pause ? " paused" : " resumed"));
            return true;
        }
        case TaskAction::Verify:
            if (!redundant(*u)) {
                answer = taskError(kErrTaskConfig);
                return false;
            }
            if (u->mode != "OK") {
                answer = taskError(kErrUnitState);
                return false;
            }
            startVerify(c, *u, now);
            return true;
        case TaskAction::StopVerify:
            if (u->mode != "VERIFYING") {
                answer = taskError(kErrUnitState);
                return false;
            }
            endTask(c, *u);
            recompute(u->tree);
            u->mode = u->tree.mode;
            u->percent = 100;
            raiseEvent(c, now, kEventVerifyStopped, 3, "verify of " + unitText(*u) + " stopped");
            return true;
        case TaskAction::Flush:
            if (u->mode == "INOPERABLE") {
                answer = taskError(kErrUnitState);
                return false;
            }
            c.setNum("flushes-" + std::to_string(u->number), c.num("flushes-" + std::to_string(u->number)) + 1);
            return true;
        }
        answer = fwError(kErrValue);
        return false;
    });
    if (!found && answer.ok()) return fwError(kErrUnit);
    return answer;
}

FwAnswer runFirmwareDownload(Module& module, int index, const uint8_t* registers, const uint8_t* data, uint32_t length)
{
    const unsigned chunk = registers[0] | (registers[1] << 8);
    const unsigned chunks = registers[2] | (registers[3] << 8);
    const uint32_t total = registers[4] | (registers[5] << 8) | (registers[6] << 16) | (static_cast<uint32_t>(registers[7]) << 24);
    if (chunks == 0 || chunk >= chunks || length == 0 || length > kFirmwareChunkSize ||
        static_cast<uint64_t>(chunks) * kFirmwareChunkSize < total)
        return fwError(kErrValue);
    FwAnswer answer;
    twView(module).update(index, [&](Controller& c) {
        // Chunks come in order; a chunk out of order starts nothing.
        if (chunk != static_cast<unsigned>(c.num("download-next", 0))) {
            answer = fwError(kErrValue);
            c.values.erase("download-next");
            c.values.erase("download-sum");
            c.values.erase("download-bytes");
            return true;
        }
        uint32_t sum = static_cast<uint32_t>(c.num("download-sum", 0));
        for (uint32_t i = 0; i < length; ++i) sum = sum * 31 + data[i];
        const int64_t bytes = c.num("download-bytes", 0) + length;
        if (chunk + 1 == chunks) {
            c.values.erase("download-next");
            c.values.erase("download-sum");
            c.values.erase("download-bytes");
            if (bytes != total) {
                answer = fwError(kErrValue);
                return true;
            }
            char text[64];
            std::snprintf(text, sizeof text, "bytes=%u chunks=%u sum=%08x", total, chunks, sum);
            c.set("firmware-image", text);
            return true;
        }
        c.setNum("download-next", chunk + 1);
        c.setNum("download-sum", sum);
        c.setNum("download-bytes", bytes);
        return true;
    });
    return answer;
}

bool isTaskOpcode(uint8_t op) { return op == kOpUnitTask || op == kOpAtaPassThrough || op == kOpFirmwareDownload; }

FwAnswer runTaskOpcode(Module& module, int index, uint8_t op, unsigned unit, uint8_t* registers, uint8_t* data,
                       uint32_t length)
{
    if (op == kOpAtaPassThrough) return runAtaPassThrough(module, index, unit, registers, data, length);
    if (op == kOpFirmwareDownload) return runFirmwareDownload(module, index, registers, data, length);
    return runUnitTask(module, index, unit, registers);
}

} // namespace sim::tw

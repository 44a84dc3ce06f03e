#include "tw_firmware.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>

#include "manifest.h"
#include "module.h"
#include "tw_tasks.h"
#include "src/tw_api/tw_api_private.h"

namespace sim::tw {
namespace {

using twp::Item;

enum class Kind {
    Text,      // a text of the state, blank-padded to the size
    Number,    // a number of the state, little-endian of the size
    Flag,      // a number 0 or 1 of the state
    Ports,     // counts the firmware keeps itself
    Drives,
    Units,
    UnitStatus,
    UnitList,  // a byte a unit number: its status, 0xFF none
    UnitTree,  // the unit's descriptor tree
    UnitPolicy,  // the unit's cache and policy bits
    Aen,         // 7000: the oldest event, taken off the queue by the read
    DriveList,     // a byte a port: 1 a drive the controller holds
    DriveStatus,   // the port's drive's status byte
    DriveText,     // what the controller read of the port's drive when it found it
    DriveSectors,
    DriveRemove,   // written 1: the controller lets go of the port's drive
    DriveAdd,      // written 1: the controller finds the drive in the port's bay
    Schedule,  // bytes of the state in hex
    Action,    // written 1 to start; reads 0
};

struct ItemKey {
    Item item;
    const char* key;
    Kind kind;
    bool writable;
    int min = 0, max = 0;  // writable numbers: the range taken
};

// What each item holds. The numbers are the family's table's.
const ItemKey kItems[] = {
    {Item::Model, "model", Kind::Text, false},
    {Item::SerialNumber, "serial", Kind::Text, false},
    {Item::PcbRevision, "pcb", Kind::Text, false},
    {Item::AChipVersion, "achip", Kind::Text, false},
    {Item::PChipVersion, "pchip", Kind::Text, false},
    {Item::FirmwareVersion, "firmware", Kind::Text, false},
    {Item::BiosVersion, "bios", Kind::Text, false},
    {Item::MonitorVersion, "monitor", Kind::Text, false},
    {Item::Compatibility, "compatibility", Kind::Number, false},
    {Item::NumberOfPorts, "", Kind::Ports, false},
    {Item::NumberOfDrives, "", Kind::Drives, false},
    {Item::NumberOfUnits, "", Kind::Units, false},
    {Item::ControllerLog, "controller-log", Kind::Text, false},
    {Item::DiagnosticLog, "diagnostic-log", Kind::Text, false},
    {Item::UnitStatus, "", Kind::UnitStatus, false},
    {Item::UnitList, "", Kind::UnitList, false},
    {Item::UnitDescriptor, "", Kind::UnitTree, false},
    {Item::UnitPolicy, "", Kind::UnitPolicy, true, 0, 15},
    {Item::AenQueue, "", Kind::Aen, false},
    {Item::DriveList, "", Kind::DriveList, false},
    {Item::DriveStatus, "", Kind::DriveStatus, false},
    {Item::DriveModel, "model", Kind::DriveText, false},
    {Item::DriveSerial, "serial", Kind::DriveText, false},
    {Item::DriveFirmware, "firmware", Kind::DriveText, false},
    {Item::DriveCapacity, "", Kind::DriveSectors, false},
    {Item::DriveRemove, "", Kind::DriveRemove, true, 1, 1},
    {Item::DriveAdd, "", Kind::DriveAdd, true, 1, 1},
    {Item::AvMode, "av-mode", Kind::Flag, true, 0, 1},
    {Item::BootUnit, "boot-unit", Kind::Number, true, 0, 255},
    {Item::CachePolicy, "cache-policy", Kind::Flag, true, 0, 1},
    {Item::JbodPolicy, "jbod-policy", Kind::Flag, true, 0, 1},
    {Item::BackgroundTaskRate, "background-rate", Kind::Number, true, 1, 5},
    {Item::RebuildRate, "rebuild-rate", Kind::Number, true, 1, 5},
    {Item::VerifyRate, "verify-rate", Kind::Number, true, 1, 5},
    {Item::SelftestFlags, "selftest-flags", Kind::Number, true, 0, 0xffff},
    {Item::TaskSchedule, "schedule", Kind::Schedule, true},
    {Item::RebuildScheduleState, "rebuild-schedule", Kind::Flag, true, 0, 1},
    {Item::VerifyScheduleState, "verify-schedule", Kind::Flag, true, 0, 1},
    {Item::SpinupsAllowed, "spinups", Kind::Number, true, 1, 16},
    {Item::StaggerTime, "stagger", Kind::Number, true, 0, 60},
    {Item::MediaScan, "mediascan", Kind::Flag, true, 0, 1},
    {Item::Shutdown, "shutdown", Kind::Flag, true, 0, 1},
    {Item::BbuPresent, "bbu-present", Kind::Flag, false},
    {Item::BbuBatteryPresent, "battery-present", Kind::Flag, false},
    {Item::BbuTestInProgress, "test-in-progress", Kind::Flag, false},
    {Item::BbuChargeInProgress, "charge-in-progress", Kind::Flag, false},
    {Item::BbuEnabled, "bbu-enabled", Kind::Flag, true, 0, 1},
    {Item::BbuInitializeBattery, "", Kind::Action, true, 1, 1},
    {Item::BbuTestBattery, "", Kind::Action, true, 1, 1},
    {Item::BbuStatus, "bbu-status", Kind::Number, false},
    {Item::BbuStatusSummary, "bbu-summary", Kind::Number, false},
    {Item::BbuOnlineState, "bbu-online", Kind::Number, false},
    {Item::BbuVoltageStatus, "battery-voltage", Kind::Number, false},
    {Item::BbuTemperatureStatus, "battery-temperature", Kind::Number, false},
    {Item::BbuCapacity, "battery-capacity", Kind::Number, false},
    {Item::BbuChargeVoltage, "charge-voltage", Kind::Number, false},
    {Item::BbuInstallationDate, "install-date", Kind::Text, false},
    {Item::BbuLastTestDate, "last-test-date", Kind::Text, false},
    {Item::BbuSerialNumber, "bbu-serial", Kind::Text, false},
    {Item::BbuFirmwareVersion, "bbu-firmware", Kind::Text, false},
    {Item::BbuBootCodeVersion, "bbu-boot-code", Kind::Text, false},
    {Item::BbuPcbRevision, "bbu-pcb", Kind::Text, false},
    {Item::BbuFactoryData, "bbu-factory", Kind::Text, false},
};

const twp::FamilyTable& tableOf(int family) { return family == 7000 ? twp::kTable7000 : twp::kTable9000; }

// The item at (table, parameter) of a family, with the unit of a 9000
// unit table; null when the firmware has no such parameter.
const ItemKey* find(int family, uint16_t table, uint16_t parameter, bool& tableKnown, unsigned& unit)
{
    const twp::FamilyTable& t = tableOf(family);
    tableKnown = false;
    for (const ItemKey& k : kItems) {
        const twp::Param& p = t[k.item];
        if (!p.present) continue;
        uint16_t want = p.table;
        if ((family == 9000 && p.table == twp::kTable9000UnitBase) || p.table == twp::kTablePortBase) {
            // Tables of one unit or one port: the base plus its number.
            if (table < p.table || table >= p.table + 16) continue;
            unit = table - p.table;
            want = table;
        }
        if (want != table) continue;
        tableKnown = true;
        if (p.parameter == parameter) return &k;
    }
    return nullptr;
}

bool isBattery(Item i) { return i >= Item::BbuBatteryPresent && i <= Item::BbuFactoryData; }

// A unit's status byte: the low 7 bits by mode.
uint8_t unitStatus(const Unit& u)
{
    if (u.mode == "OK") return 0x00;
    if (u.mode == "VERIFYING") return 0x01;
    if (u.mode == "INITIALIZING") return 0x02;
    if (u.mode == "DEGRADED") return 0x04;
    if (u.mode == "REBUILDING") return 0x05;
    if (u.mode == "INOPERABLE") return 0x06;
    return 0x7E;
}

// A mode of the state as the descriptor's byte: "OK", "VERIFYING",
// "INITIALIZING", "DEGRADED", "REBUILDING", "REBUILD-PAUSED"; any other
// name (such as "INOPERABLE") is a unit that cannot be used.
uint8_t modeByte(const std::string& mode)
{
    if (mode == "OK") return twp::kModeOk;
    if (mode == "VERIFYING") return twp::kModeVerifying;
    if (mode == "INITIALIZING") return twp::kModeInitializing;
    if (mode == "DEGRADED") return twp::kModeDegraded;
    if (mode == "REBUILDING") return twp::kModeRebuilding;
    if (mode == "REBUILD-PAUSED") return twp::kModeRebuildPaused;
    return twp::kModeInoperable;
}

// The controller reads the drive now in the port's bay, or finds none.
void attachDrive(const Manifest& m, const Controller& c, Port* p) { p->found(driveOfPort(m, c, p->number)); }

// A unit loses the member on `port`: its slot goes missing and reads the
// degraded mode, as does every node above it and the unit; the healthy
// members keep theirs. A spare unit simply loses the drive.
bool loseMember(Unit& u, int port)
{
    std::function<bool(TreeNode&)> walk = [&](TreeNode& t) {
        if (t.children.empty()) {
            if (t.port != port) return false;
            t.port = -1;
            t.mode = "DEGRADED";
            return true;
        }
        bool hit = false;
        for (TreeNode& child : t.children) hit = walk(child) || hit;
        if (hit) t.mode = "DEGRADED";
        return hit;
    };
    if (!walk(u.tree)) return false;
    u.ports = treePorts(u.tree);
    u.mode = "DEGRADED";
    u.percent = 0;
    return true;
}

uint8_t policyBits(const Unit& u)
{
    return static_cast<uint8_t>((u.readCache ? twp::kPolicyReadCache : 0) | (u.writeCache ? twp::kPolicyWriteCache : 0) |
                                (u.ecc ? twp::kPolicyEcc : 0) | (u.autoVerify ? twp::kPolicyAutoVerify : 0));
}

// The descriptor tree of a unit, in preorder, as far as `size` holds.
// Inner nodes below the root are mirrors (6) of a RAID 10, or take the
// unit's configuration; a member slot is a single drive (11) with the
// capacity its drive had when the controller found it; the percentage of
// the unit's task shows on every node whose mode has one.
void unitTree(const Controller& c, const Unit& u, std::vector<uint8_t>& out, uint64_t nowUs)
{
    const int percent = livePercent(c, u, nowUs);  // a running task's, on the clock (tw_tasks.h)
    const size_t room = (out.size() - twp::kUnitHeadSize) / sizeof(TAG_TW_Unit_Node);
    size_t count = 0;
    const uint8_t policy = policyBits(u);
    std::function<void(const TreeNode&, int)> put = [&](const TreeNode& t, int depth) {
        if (count >= room) return;
        TAG_TW_Unit_Node n{};
        const bool leaf = t.children.empty();
        n.configuration = static_cast<uint8_t>(depth == 1 ? u.config : leaf ? 11 : u.config == 6 ? 6 : u.config);
        n.mode = modeByte(t.mode);
        n.percent = twp::modeHasPercent(n.mode) ? static_cast<uint8_t>(std::clamp(percent, 0, 100)) : 100;
        n.stripe = static_cast<uint8_t>(u.stripe);
        n.children = static_cast<uint8_t>(std::min<size_t>(t.children.size(), 255));
        n.drive = leaf && t.port >= 0 && t.port < 255 ? static_cast<uint8_t>(t.port) : twp::kNoDrive;
        n.policy = policy;
        if (depth == 1) n.capacity = u.capacity;
        else if (leaf) n.capacity = t.port >= 0 && c.port(t.port) ? c.port(t.port)->foundSectors : 0;
        else n.capacity = u.tree.children.empty() ? u.capacity : u.capacity / u.tree.children.size();
        std::memcpy(out.data() + twp::kUnitHeadSize + count * sizeof n, &n, sizeof n);
        ++count;
        for (const TreeNode& child : t.children) put(child, depth + 1);
    };
    put(u.tree, 1);
    out[0] = static_cast<uint8_t>(count);
}

std::vector<uint8_t> fromHex(const std::string& hex, size_t size)
{
    std::vector<uint8_t> out(size, 0);
    for (size_t i = 0; i < size && 2 * i + 1 < hex.size(); ++i) {
        auto nib = [](char c) { return c >= 'a' ? c - 'a' + 10 : c >= 'A' ? c - 'A' + 10 : c - '0'; };
        out[i] = static_cast<uint8_t>((nib(hex[2 * i]) << 4) | (nib(hex[2 * i + 1]) & 15));
    }
    return out;
}

std::string toHex(const uint8_t* bytes, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

bool faultMatches(const TwFault& f, int opcode, int table, int parameter)
{
    if (f.kind != TwFault::Kind::Firmware) return false;
    if (f.opcode >= 0 && f.opcode != opcode) return false;
    if (f.table >= 0 && f.table != table) return false;
    if (f.param >= 0 && f.param != parameter) return false;
    return true;
}

// Spends the first fault of `kind` that `match` takes; false when none.
bool spend(Module& module, int index, TwFault::Kind kind, const std::function<bool(const TwFault&)>& match, TwFault& hit)
{
    const Controller* kept = nullptr;
    for (const Controller& c : twView(module).controllers())
        if (c.index == index) kept = &c;
    if (!kept || std::none_of(kept->faults.begin(), kept->faults.end(),
                              [&](const TwFault& f) { return f.kind == kind && match(f); }))
        return false;
    bool found = false;
    twView(module).update(index, [&](Controller& c) {
        for (size_t i = 0; i < c.faults.size(); ++i) {
            TwFault& f = c.faults[i];
            if (f.kind != kind || !match(f)) continue;
            hit = f;
            found = true;
            if (f.times > 0 && --f.times == 0) c.faults.erase(c.faults.begin() + static_cast<long>(i));
            return true;
        }
        return false;
    });
    return found;
}

} // namespace

const char* fwErrorText(uint16_t code)
{
    switch (code) {
    case kErrOpcode: return "Invalid opcode";
    case kErrSize: return "Invalid command size";
    case kErrUnit: return "Invalid unit";
    case kErrTable: return "Invalid table";
    case kErrParameter: return "Invalid parameter";
    case kErrParamSize: return "Parameter size mismatch";
    case kErrReadOnly: return "Parameter is read-only";
    case kErrValue: return "Value out of range";
    case kErrPort: return "Invalid port";
    case kErrNoBattery: return "No battery backup unit";
    case kErrHeader: return "Invalid command header";
    case kErrSgl: return "Invalid scatter list";
    case kErrTableFlag: return "Table number lacks its flag";
    case kErrUnitConfig: return "Invalid unit configuration";
    case kErrDriveInUse: return "Drive belongs to a unit";
    case kErrNoDrive: return "No drive on port";
    case kErrNoUnitRoom: return "No free unit number";
    case kErrNotCarried: return "Drive carries no unit to form";
    case kErrUnitState: return "Unit state does not allow the task";
    case kErrTaskConfig: return "Unit configuration does not allow the task";
    case kErrDriveSmall: return "Drive too small";
    default: return "Firmware error";
    }
}

FwAnswer fwError(uint16_t code) { return FwAnswer{static_cast<uint8_t>(code & 0xff), code, fwErrorText(code)}; }

bool takeFirmwareFault(Module& module, int index, int opcode, int table, int parameter, FwAnswer& answer)
{
    TwFault hit;
    if (!spend(module, index, TwFault::Kind::Firmware,
               [&](const TwFault& f) { return faultMatches(f, opcode, table, parameter); }, hit))
        return false;
    answer.status = static_cast<uint8_t>(hit.status ? hit.status : 1);
    answer.code = hit.code;
    answer.text = hit.text;
    return true;
}

bool takeDriverFault(Module& module, int index, uint32_t& status)
{
    TwFault hit;
    if (!spend(module, index, TwFault::Kind::Driver, [](const TwFault&) { return true; }, hit)) return false;
    status = hit.status;
    return true;
}

std::string takeAnswerFault(Module& module, int index)
{
    TwFault hit;
    if (!spend(module, index, TwFault::Kind::Answer, [](const TwFault&) { return true; }, hit)) return "";
    return hit.answer;
}

FwAnswer runParam(Module& module, int index, const ParamRequest& r, std::vector<uint8_t>& out, uint16_t& declared)
{
    out.clear();
    declared = r.size;
    TwView& view = twView(module);
    view.settle();
    const Controller* c = nullptr;
    for (const Controller& each : view.controllers())
        if (each.index == index) c = &each;
    if (!c) return fwError(kErrUnit);
    bool tableKnown = false;
    unsigned unit = 0;
    const ItemKey* k = find(c->family, r.table, r.parameter, tableKnown, unit);
    if (!tableKnown) return fwError(kErrTable);
    if (!k) return fwError(kErrParameter);
    const twp::Param& p = tableOf(c->family)[k->item];
    if (r.size != p.size) return fwError(kErrParamSize);
    if (isBattery(k->item) && c->num("bbu-present") != 1) return fwError(kErrNoBattery);
    const bool drive = k->kind == Kind::DriveStatus || k->kind == Kind::DriveText || k->kind == Kind::DriveSectors ||
                       k->kind == Kind::DriveRemove;
    const Port* port = drive ? c->port(static_cast<int>(unit)) : nullptr;
    if (drive && (!port || port->drive.empty())) return fwError(kErrPort);
    if (k->kind == Kind::DriveAdd && (!c->port(static_cast<int>(unit)) || !c->port(static_cast<int>(unit))->drive.empty()))
        return fwError(kErrPort);
    // The 7000's unit tables name the unit in the command's unit bits.
    const bool perUnit = k->item == Item::UnitDescriptor || k->item == Item::UnitPolicy;
    if (c->family == 7000 && perUnit) unit = r.unit;
    if ((k->item == Item::UnitStatus && c->family == 9000) || perUnit)
        if (!c->unit(static_cast<int>(unit))) return fwError(kErrUnit);

    if (r.set) {
        if (!k->writable) return fwError(kErrReadOnly);
        // The last copy of a unit's data stays: a member of a unit without
        // redundancy is not let go.
        if (k->kind == Kind::DriveRemove)
            for (const Unit& u : c->units)
                if (u.config != 5 && u.config != 6 && u.config != 13 &&
                    std::count(u.ports.begin(), u.ports.end(), static_cast<int>(unit)) > 0)
                    return fwError(kErrValue);
        if (r.value.size() < p.size) return fwError(kErrParamSize);
        int64_t value = 0;
        for (size_t i = 0; i < p.size && i < 8; ++i) value |= static_cast<int64_t>(r.value[i]) << (8 * i);
        if (k->kind != Kind::Schedule && (value < k->min || value > k->max)) return fwError(kErrValue);
        const uint64_t now = module.nowUs();
        view.update(index, [&](Controller& s) {
            if (k->kind == Kind::Schedule) s.set(k->key, toHex(r.value.data(), p.size));
            else if (k->kind == Kind::DriveAdd) {
                Port* q = s.port(static_cast<int>(unit));
                attachDrive(module.manifest(), s, q);
                if (!q->drive.empty())
                    raiseEvent(s, now, kEventDriveFound, 3, "drive found on port " + std::to_string(q->number));
            } else if (k->kind == Kind::DriveRemove) {
                Port& q = *s.port(static_cast<int>(unit));
                q.drive.clear();
                raiseEvent(s, now, kEventDriveRemoved, 2, "drive removed from port " + std::to_string(q.number));
                for (Unit& u : s.units)
                    if (loseMember(u, q.number))
                        raiseEvent(s, now, kEventUnitDegraded, 2, "unit " + std::to_string(u.number) + " degraded");
            } else if (k->kind == Kind::UnitPolicy) {
                Unit& u = *s.unit(static_cast<int>(unit));
                u.readCache = (value & twp::kPolicyReadCache) != 0;
                u.writeCache = (value & twp::kPolicyWriteCache) != 0;
                u.ecc = (value & twp::kPolicyEcc) != 0;
                u.autoVerify = (value & twp::kPolicyAutoVerify) != 0;
            }
            else if (k->item == Item::BbuTestBattery) {
                s.setNum("test-in-progress", 1);
                s.setNum("test-ends", static_cast<int64_t>(now + static_cast<uint64_t>(s.num("test-seconds", 3600)) * 1000000));
                raiseEvent(s, now, kEventBatteryTestStarted, 3, "battery test started");
            } else if (k->item == Item::BbuInitializeBattery) {
                s.setNum("charge-in-progress", 1);
            } else {
                s.setNum(k->key, value);
            }
            return true;
        });
        return FwAnswer{};
    }

    out.assign(p.size, 0);
    if (k->kind == Kind::Aen) {
        // The 7000 hands out its events once, oldest first.
        view.update(index, [&](Controller& s) {
            if (s.events.empty()) return false;
            const Event e = s.events.front();
            s.events.erase(s.events.begin());
            TAG_TW_Aen aen{};
            aen.sequence_id = e.sequence;
            aen.time_stamp_sec = e.time;
            aen.aen_code = e.code;
            aen.severity = e.severity;
            std::memcpy(out.data(), &aen, std::min(out.size(), sizeof aen));
            return true;
        });
        return FwAnswer{};
    }
    switch (k->kind) {
    case Kind::Text: {
        const std::string text = c->get(k->key);
        std::fill(out.begin(), out.end(), static_cast<uint8_t>(' '));
        // Blank-padded to the field, without a zero.
        std::memcpy(out.data(), text.data(), std::min<size_t>(text.size(), out.size()));
        break;
    }
    case Kind::Number:
    case Kind::Flag: {
        const uint64_t v = static_cast<uint64_t>(c->num(k->key));
        for (size_t i = 0; i < out.size() && i < 8; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
        break;
    }
    case Kind::Ports: out[0] = static_cast<uint8_t>(c->ports.size()); break;
    case Kind::Drives:
        out[0] = static_cast<uint8_t>(std::count_if(c->ports.begin(), c->ports.end(), [](const Port& q) { return !q.drive.empty(); }));
        break;
    case Kind::Units: out[0] = static_cast<uint8_t>(c->units.size()); break;
    case Kind::UnitStatus:
        if (c->family == 9000) {
            out[0] = unitStatus(*c->unit(static_cast<int>(unit)));
        } else {
            // One byte a unit number; 0xFF where there is none.
            std::fill(out.begin(), out.end(), 0xff);
            for (const Unit& u : c->units)
                if (static_cast<size_t>(u.number) < out.size()) out[static_cast<size_t>(u.number)] = unitStatus(u);
        }
        break;
    case Kind::UnitList:
        std::fill(out.begin(), out.end(), 0xff);
        for (const Unit& u : c->units)
            if (static_cast<size_t>(u.number) < out.size()) out[static_cast<size_t>(u.number)] = unitStatus(u);
        break;
    case Kind::UnitPolicy: out[0] = policyBits(*c->unit(static_cast<int>(unit))); break;
    case Kind::UnitTree: unitTree(*c, *c->unit(static_cast<int>(unit)), out, module.nowUs()); break;
    case Kind::DriveList:
        for (const Port& q : c->ports)
            if (q.number >= 0 && static_cast<size_t>(q.number) < out.size() && !q.drive.empty())
                out[static_cast<size_t>(q.number)] = 1;
        break;
    case Kind::DriveStatus: out[0] = static_cast<uint8_t>(port->status); break;
    case Kind::DriveText: {
        const std::string key = k->key;
        const std::string& text = key == "model" ? port->foundModel : key == "serial" ? port->foundSerial : port->foundFirmware;
        std::fill(out.begin(), out.end(), static_cast<uint8_t>(' '));
        std::memcpy(out.data(), text.data(), std::min<size_t>(text.size(), out.size()));
        break;
    }
    case Kind::DriveSectors:
        for (size_t i = 0; i < out.size() && i < 8; ++i) out[i] = static_cast<uint8_t>(port->foundSectors >> (8 * i));
        break;
    case Kind::Schedule: out = fromHex(c->get(k->key), p.size); break;
    case Kind::Action:
    case Kind::DriveRemove:
    case Kind::DriveAdd:
    case Kind::Aen: break;
    }
    return FwAnswer{};
}

FwAnswer runPortscan(Module& module, int index, unsigned port)
{
    const Manifest m = module.manifest();
    bool known = false;
    twView(module).update(index, [&](Controller& c) {
        Port* p = c.port(static_cast<int>(port));
        if (!p) return false;
        known = true;
        attachDrive(m, c, p);
        return true;
    });
    return known ? FwAnswer{} : fwError(kErrPort);
}

FwAnswer runDiagnosticLog(Module& module, int index, uint16_t size, std::vector<uint8_t>& out)
{
    out.assign(size, 0);
    for (const Controller& c : twView(module).controllers())
        if (c.index == index) {
            const std::string text = c.get("diagnostic-log");
            // A log asked with no room gets nothing (no copy of zero bytes to nowhere).
            if (size && !text.empty()) std::memcpy(out.data(), text.data(), std::min<size_t>(text.size(), size));
            return FwAnswer{};
        }
    return fwError(kErrUnit);
}

} // namespace sim::tw

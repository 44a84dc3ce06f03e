#include "tw_config.h"
#include "tw_tasks.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "manifest.h"
#include "module.h"
#include "src/tw_api/tw_api_private.h"

namespace sim::tw {
namespace {

constexpr const char* kCarriedState = "3ware/carried";
constexpr int kMaxUnitNumbers = 16;

FwAnswer refuse(uint16_t code) { return fwError(code); }

std::string formatCarried(const std::map<std::string, Carried>& all)
{
    std::string out;
    for (const auto& [serial, k] : all)
        out += percentEncode(serial) + " key=" + percentEncode(k.key) + " config=" + std::to_string(k.config) +
               " stripe=" + std::to_string(k.stripe) + " sub=" + std::to_string(k.sub) + " slot=" +
               std::to_string(k.slot) + " of=" + std::to_string(k.of) + " unit=" + std::to_string(k.unit) +
               " capacity=" + std::to_string(k.capacity) + "\n";
    return out;
}

std::map<std::string, Carried> parseCarried(const std::string& text)
{
    std::map<std::string, Carried> out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream in(line);
        std::string serial, word;
        if (!(in >> serial)) continue;
        Carried k;
        bool ok = true;
        while (in >> word) {
            const size_t eq = word.find('=');
            if (eq == std::string::npos) continue;
            const std::string name = word.substr(0, eq), value = percentDecode(word.substr(eq + 1));
            uint64_t n = 0;
            if (name == "key") {
                k.key = value;
                continue;
            }
            if (!parseNumber(value, n)) {
                ok = false;
                continue;
            }
            if (name == "capacity") k.capacity = n;
            else if (n > 255) ok = false;
            else if (name == "config") k.config = static_cast<int>(n);
            else if (name == "stripe") k.stripe = static_cast<int>(n);
            else if (name == "sub") k.sub = static_cast<int>(n);
            else if (name == "slot") k.slot = static_cast<int>(n);
            else if (name == "of") k.of = static_cast<int>(n);
            else if (name == "unit") k.unit = static_cast<int>(n);
        }
        // A line that cannot be read carries nothing. Keys name files
        // (set_KEY.img): letters, digits, '-' and '_' only.
        const bool plainKey = std::all_of(k.key.begin(), k.key.end(), [](char ch) {
            return std::isalnum(static_cast<unsigned char>(ch)) || ch == '-' || ch == '_';
        });
        if (ok && plainKey && k.key.size() <= 64 && !k.key.empty() && k.of >= 1 && k.of <= 16 && k.slot < k.of) out[percentDecode(serial)] = k;
    }
    return out;
}

bool memberOfAny(const Controller& c, int port)
{
    for (const Unit& u : c.units)
        if (std::count(u.ports.begin(), u.ports.end(), port) > 0) return true;
    return false;
}

int lowestFree(const Controller& c, int preferred = -1)
{
    if (preferred >= 0 && preferred < kMaxUnitNumbers && !c.unit(preferred)) return preferred;
    for (int n = 0; n < kMaxUnitNumbers; ++n)
        if (!c.unit(n)) return n;
    return -1;
}

bool countValid(int config, int n, int sub)
{
    if (n < 1 || n > 16) return false;
    switch (config) {
    case 11:
    case 13: return sub == 0;
    case 6: return sub == 0 ? n == 2 || (n >= 4 && n % 2 == 0) : sub == 2 && n >= 4 && n % 2 == 0;
    case 5: return sub == 0 ? n >= 3 : sub >= 3 && n % sub == 0 && n / sub >= 2;
    default: return false;
    }
}

bool stripeValid(int config, int stripe)
{
    const bool code = stripe >= 4 && stripe <= 11;
    return config == 13 ? stripe == 0 : config == 11 ? stripe == 0 || code : code;
}

// The drives per subunit of a layout: RAID 10 mirrors of two, parity groups.
int groupSize(int config, int n, int sub)
{
    if (config == 6 && n >= 4) return 2;
    if (config == 5 && sub >= 3) return sub;
    return 0;
}

// The tree of a unit over its slots' ports (-1 missing): the mode of each
// node from what it lost, and whether the unit's data is all there.
TreeNode buildTree(int config, const std::vector<int>& slots, int sub, bool& usable, bool& degraded)
{
    usable = true;
    degraded = false;
    auto leaf = [&](int port) {
        TreeNode t;
        t.port = port;
        if (port < 0) t.mode = "DEGRADED";
        return t;
    };
    const int n = static_cast<int>(slots.size());
    // A set of leaves under one redundant node: how many it may lose.
    auto group = [&](int from, int count, int tolerated) {
        TreeNode g;
        int lost = 0;
        for (int i = from; i < from + count; ++i) {
            g.children.push_back(leaf(slots[static_cast<size_t>(i)]));
            if (slots[static_cast<size_t>(i)] < 0) ++lost;
        }
        if (lost > 0) {
            g.mode = "DEGRADED";
            degraded = true;
        }
        if (lost > tolerated) {
            g.mode = "INOPERABLE";
            usable = false;
        }
        return g;
    };
    if (n == 1) {
        TreeNode t = leaf(slots[0]);
        if (slots[0] < 0) usable = false;
        return t;
    }
    const int g = groupSize(config, n, sub);
    if (g > 0) {
        TreeNode root;
        for (int i = 0; i < n; i += g) root.children.push_back(group(i, g, config == 6 ? g - 1 : 1));
        if (degraded) root.mode = "DEGRADED";
        return root;
    }
    const int tolerated = config == 6 ? n - 1 : config == 5 ? 1 : config == 13 ? n : 0;
    TreeNode root = group(0, n, tolerated);
    return root;
}

uint64_t capacityOf(int config, int n, int sub, uint64_t smallest)
{
    const uint64_t s = smallest, count = static_cast<uint64_t>(n);
    switch (config) {
    case 11: return s * count;
    case 6: return n == 2 ? s : s * count / 2;
    case 5: return sub >= 3 ? s * static_cast<uint64_t>(sub - 1) * (count / static_cast<uint64_t>(sub)) : s * (count - 1);
    default: return s;
    }
}

std::string imageName(const Controller& c, int unit)
{
    return "sim/3ware/unit" + std::to_string(c.host) + "_" + std::to_string(unit) + ".img";
}

bool hasOwnImage(const Unit& u) { return u.config != 13 && u.ports.size() > 1; }

void makeImage(Module& module, const std::string& name, uint64_t sectors)
{
    module.host().unlink(name);
    const int fd = module.host().open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return;
    if (::ftruncate(fd, static_cast<off_t>(sectors * 512)) != 0) {
        // An image that cannot take its size is no image.
        ::close(fd);
        module.host().unlink(name);
        return;
    }
    ::close(fd);
}

void growImage(Module& module, const std::string& name, uint64_t sectors)
{
    const int fd = module.host().open(name, O_WRONLY, 0644);
    if (fd < 0) return;
    struct stat st;
    if (::fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) < sectors * 512 &&
        ::ftruncate(fd, static_cast<off_t>(sectors * 512)) != 0) {
        // Left at its old size: the unit's disk reads short past it.
    }
    ::close(fd);
}

// A parity or mirror unit initialises, its inner nodes with it; the drives'
// slots stay healthy.
void initialise(Controller& c, Unit& u, uint64_t now)
{
    if (u.config != 5 && u.config != 6) return;
    std::function<void(TreeNode&)> mark = [&](TreeNode& t) {
        if (t.children.empty()) return;
        t.mode = "INITIALIZING";
        for (TreeNode& child : t.children) mark(child);
    };
    mark(u.tree);
    u.mode = "INITIALIZING";
    u.percent = 0;
    startInitialisation(c, u, now);
}

std::string newKey(const Controller& c, int unit, uint64_t nowUs)
{
    return "h" + std::to_string(c.host) + "u" + std::to_string(unit) + "t" + std::to_string(nowUs);
}

// The keys the members of the controller's units carry now.
std::set<std::string> keysInUse(const Controller& c, const std::map<std::string, Carried>& carried)
{
    std::set<std::string> keys;
    for (const Unit& u : c.units)
        for (int port : u.ports) {
            const Port* p = port >= 0 ? c.port(port) : nullptr;
            if (!p || p->drive.empty()) continue;
            auto it = carried.find(p->drive);
            if (it != carried.end()) keys.insert(it->second.key);
        }
    return keys;
}

// Forms the unit of `key` from the free held drives carrying it; -1 when
// none does, or no number is free.
int formUnit(Module& module, Controller& c, const std::map<std::string, Carried>& carried, const std::string& key)
{
    const Carried* first = nullptr;
    std::vector<int> slots;
    for (const Port& p : c.ports) {
        if (p.drive.empty() || memberOfAny(c, p.number)) continue;
        auto it = carried.find(p.drive);
        if (it == carried.end() || it->second.key != key) continue;
        if (!first) {
            first = &it->second;
            slots.assign(static_cast<size_t>(first->of), -1);
        }
        const size_t slot = static_cast<size_t>(it->second.slot);
        if (slot < slots.size() && slots[slot] < 0) slots[slot] = p.number;
    }
    if (!first) return -1;
    const int number = lowestFree(c, first->unit);
    if (number < 0) return -1;
    Unit u;
    u.number = number;
    u.config = first->config;
    u.stripe = first->stripe;
    u.capacity = first->capacity;
    if (u.config == 13) slots.erase(std::remove(slots.begin(), slots.end(), -1), slots.end());
    bool usable = true, degraded = false;
    u.tree = buildTree(u.config, slots, first->sub, usable, degraded);
    u.ports = treePorts(u.tree);
    u.mode = !usable ? "INOPERABLE" : degraded ? "DEGRADED" : "OK";
    u.percent = degraded || !usable ? 0 : 100;
    const std::string kept = "sim/3ware/set_" + key + ".img";
    struct stat st;
    if (hasOwnImage(u) && module.host().stat(kept, &st) == 0) module.host().rename(kept, imageName(c, number));
    c.units.push_back(u);
    std::sort(c.units.begin(), c.units.end(), [](const Unit& a, const Unit& b) { return a.number < b.number; });
    if (u.mode == "DEGRADED")
        raiseEvent(c, module.nowUs(), kEventUnitDegraded, 2, "unit " + std::to_string(number) + " degraded");
    return number;
}

FwAnswer create(Module& module, Controller& c, TAG_TW_Unit_Config& r, std::map<std::string, Carried>& carried)
{
    const int n = r.count;
    if (!countValid(r.configuration, n, r.subunit_size) || !stripeValid(r.configuration, r.stripe))
        return refuse(kErrUnitConfig);
    std::vector<int> slots;
    uint64_t smallest = 0;
    for (int i = 0; i < n; ++i) {
        const int port = r.ports[i];
        const Port* p = c.port(port);
        if (!p || p->drive.empty()) return refuse(kErrNoDrive);
        if (memberOfAny(c, port) || std::count(slots.begin(), slots.end(), port) > 0) return refuse(kErrDriveInUse);
        slots.push_back(port);
        smallest = i == 0 ? p->foundSectors : std::min(smallest, p->foundSectors);
    }
    const int number = lowestFree(c);
    if (number < 0) return refuse(kErrNoUnitRoom);
    Unit u;
    u.number = number;
    u.config = r.configuration;
    u.stripe = r.stripe;
    const int sub = groupSize(u.config, n, r.subunit_size);
    bool usable = true, degraded = false;
    u.tree = buildTree(u.config, slots, sub, usable, degraded);
    u.ports = slots;
    u.capacity = capacityOf(u.config, n, sub, smallest);
    const uint64_t now = module.nowUs();
    const std::string key = newKey(c, number, now);
    for (int i = 0; i < n; ++i)
        carried[c.port(slots[static_cast<size_t>(i)])->drive] = Carried{key, u.config, u.stripe, sub, i, n, number, u.capacity};
    if (hasOwnImage(u)) makeImage(module, imageName(c, number), u.capacity);
    c.units.push_back(u);
    std::sort(c.units.begin(), c.units.end(), [](const Unit& a, const Unit& b) { return a.number < b.number; });
    initialise(c, *c.unit(number), now);
    r.unit = static_cast<uint8_t>(number);
    return FwAnswer{};
}

// A migration keeps the unit's number, policies and (in its own image) its
// data; it never shrinks the unit.
FwAnswer migrate(Module& module, Controller& c, TAG_TW_Unit_Config& r, std::map<std::string, Carried>& carried)
{
    Unit* found = c.unit(r.unit);
    if (!found) return refuse(kErrUnit);
    if (found->mode != "OK" || found->config == 13 || r.configuration == 13 || r.count > 16) return refuse(kErrUnitConfig);
    std::vector<int> slots = found->ports;
    if (std::count(slots.begin(), slots.end(), -1) > 0) return refuse(kErrUnitConfig);
    for (int i = 0; i < r.count; ++i) {
        const int port = r.ports[i];
        const Port* p = c.port(port);
        if (!p || p->drive.empty()) return refuse(kErrNoDrive);
        if (memberOfAny(c, port) || std::count(slots.begin(), slots.end(), port) > 0) return refuse(kErrDriveInUse);
        slots.push_back(port);
    }
    const int n = static_cast<int>(slots.size());
    if (!countValid(r.configuration, n, 0) || !stripeValid(r.configuration, r.stripe)) return refuse(kErrUnitConfig);
    uint64_t smallest = c.port(slots[0])->foundSectors;
    for (int port : slots) smallest = std::min(smallest, c.port(port)->foundSectors);
    const int sub = groupSize(r.configuration, n, 0);
    const uint64_t capacity = capacityOf(r.configuration, n, sub, smallest);
    if (capacity < found->capacity) return refuse(kErrUnitConfig);
    const bool hadImage = hasOwnImage(*found);
    Unit& u = *found;
    u.config = r.configuration;
    u.stripe = r.stripe;
    u.ports = slots;
    bool usable = true, degraded = false;
    u.tree = buildTree(u.config, slots, sub, usable, degraded);
    u.capacity = capacity;
    u.mode = "OK";
    u.percent = 100;
    const std::string image = imageName(c, u.number);
    if (hasOwnImage(u) && hadImage) growImage(module, image, capacity);
    else if (hasOwnImage(u)) makeImage(module, image, capacity);
    const uint64_t now = module.nowUs();
    const std::string key = newKey(c, u.number, now);
    for (int i = 0; i < n; ++i)
        carried[c.port(slots[static_cast<size_t>(i)])->drive] = Carried{key, u.config, u.stripe, sub, i, n, u.number, capacity};
    initialise(c, u, now);
    return FwAnswer{};
}

FwAnswer remove(Module& module, Controller& c, TAG_TW_Unit_Config& r, std::map<std::string, Carried>& carried)
{
    const Unit* found = c.unit(r.unit);
    if (!found) return refuse(kErrUnit);
    const Unit u = *found;
    const bool keep = (r.flags & twp::kDeleteKeepConfig) != 0;
    std::vector<std::string> members;
    for (int port : u.ports) {
        const Port* p = port >= 0 ? c.port(port) : nullptr;
        members.push_back(p ? p->drive : "");
    }
    const std::string image = imageName(c, u.number);
    if (keep) {
        // The members carry the unit as it stands: the key its drives
        // already share, or a new one.
        std::string key;
        for (const std::string& s : members)
            if (!s.empty() && carried.count(s) && key.empty()) key = carried[s].key;
        if (key.empty()) key = newKey(c, u.number, module.nowUs());
        const int sub = u.tree.children.empty() || u.tree.children[0].children.empty()
                            ? 0
                            : static_cast<int>(u.tree.children[0].children.size());
        for (size_t i = 0; i < members.size(); ++i)
            if (!members[i].empty())
                carried[members[i]] = Carried{key, u.config, u.stripe, sub, static_cast<int>(i),
                                              static_cast<int>(members.size()), u.number, u.capacity};
        struct stat st;
        if (hasOwnImage(u) && module.host().stat(image, &st) == 0)
            module.host().rename(image, "sim/3ware/set_" + key + ".img");
    } else {
        for (const std::string& s : members)
            if (!s.empty()) carried.erase(s);
        if (hasOwnImage(u)) module.host().unlink(image);
    }
    c.units.erase(std::remove_if(c.units.begin(), c.units.end(), [&](const Unit& x) { return x.number == u.number; }),
                  c.units.end());
    return FwAnswer{};
}

FwAnswer import(Module& module, Controller& c, TAG_TW_Unit_Config& r, std::map<std::string, Carried>& carried)
{
    if (r.count < 1 || r.count > 16) return refuse(kErrUnitConfig);
    const std::set<std::string> inUse = keysInUse(c, carried);
    std::string key;
    for (int i = 0; i < r.count; ++i) {
        const Port* p = c.port(r.ports[i]);
        if (!p || p->drive.empty()) return refuse(kErrNoDrive);
        if (memberOfAny(c, p->number)) return refuse(kErrDriveInUse);
        auto it = carried.find(p->drive);
        if (it == carried.end() || inUse.count(it->second.key) || (!key.empty() && it->second.key != key))
            return refuse(kErrNotCarried);
        key = it->second.key;
    }
    const int number = formUnit(module, c, carried, key);
    if (number < 0) return refuse(kErrNoUnitRoom);
    r.unit = static_cast<uint8_t>(number);
    r.configuration = static_cast<uint8_t>(c.unit(number)->config);
    return FwAnswer{};
}

FwAnswer rescan(Module& module, Controller& c, TAG_TW_Rescan_Report& report, std::map<std::string, Carried>& carried)
{
    std::memset(&report, 0, sizeof report);
    const Manifest m = module.manifest();
    const uint64_t now = module.nowUs();
    for (Port& p : c.ports) {
        if (!p.drive.empty()) continue;
        const Drive* d = driveOfPort(m, c, p.number);
        if (!d) continue;
        p.found(d);
        raiseEvent(c, now, kEventDriveFound, 3, "drive found on port " + std::to_string(p.number));
        if (report.drive_count < 16) report.drives[report.drive_count++] = static_cast<uint8_t>(p.number);
    }
    // Units form in the order of their lowest free drive's port.
    for (const Port& p : c.ports) {
        if (p.drive.empty() || memberOfAny(c, p.number)) continue;
        auto it = carried.find(p.drive);
        if (it == carried.end() || keysInUse(c, carried).count(it->second.key)) continue;
        const int number = formUnit(module, c, carried, it->second.key);
        if (number >= 0 && report.unit_count < 16) {
            report.units[report.unit_count] = static_cast<uint8_t>(number);
            report.configurations[report.unit_count++] = static_cast<uint8_t>(c.unit(number)->config);
        }
    }
    return FwAnswer{};
}

FwAnswer split(Module& module, Controller& c, TAG_TW_Unit_Config& r, std::map<std::string, Carried>& carried)
{
    const Unit* found = c.unit(r.unit);
    if (!found) return refuse(kErrUnit);
    if (found->config != 6 || found->ports.size() != 2) return refuse(kErrUnitConfig);
    const Unit mirror = *found;
    c.units.erase(std::remove_if(c.units.begin(), c.units.end(), [&](const Unit& x) { return x.number == mirror.number; }),
                  c.units.end());
    module.host().unlink(imageName(c, mirror.number));
    const uint64_t now = module.nowUs();
    r.count = 0;
    for (int port : mirror.ports) {
        const Port* p = port >= 0 ? c.port(port) : nullptr;
        if (!p || p->drive.empty()) continue;
        const int number = r.count == 0 ? mirror.number : lowestFree(c);
        if (number < 0) break;
        Unit u;
        u.number = number;
        u.config = 11;
        u.ports = {port};
        u.tree.port = port;
        u.capacity = p->foundSectors;
        c.units.push_back(u);
        carried[p->drive] = Carried{newKey(c, number, now), 11, 0, 0, 0, 1, number, u.capacity};
        if (r.count++ == 1) r.unit = static_cast<uint8_t>(number);
    }
    std::sort(c.units.begin(), c.units.end(), [](const Unit& a, const Unit& b) { return a.number < b.number; });
    return FwAnswer{};
}

} // namespace

bool isUnitOpcode(uint8_t opcode)
{
    return opcode == twp::kOpCreateUnit || opcode == twp::kOpDeleteUnit || opcode == twp::kOpImportUnit ||
           opcode == twp::kOpRescan || opcode == twp::kOpSplitMirror || opcode == twp::kOpMigrateUnit;
}

const char* unitOpName(uint8_t opcode)
{
    switch (opcode) {
    case twp::kOpCreateUnit: return "create-unit";
    case twp::kOpDeleteUnit: return "delete-unit";
    case twp::kOpImportUnit: return "import-unit";
    case twp::kOpRescan: return "rescan";
    case twp::kOpSplitMirror: return "split-mirror";
    case twp::kOpMigrateUnit: return "migrate-unit";
    default: return "opcode";
    }
}

std::map<std::string, Carried> readCarried(Module& module) { return parseCarried(module.readState(kCarriedState)); }

FwAnswer runUnitCommand(Module& module, int index, uint8_t opcode, uint8_t* data, uint32_t length)
{
    const bool isRescan = opcode == twp::kOpRescan;
    const size_t need = isRescan ? sizeof(TAG_TW_Rescan_Report) : sizeof(TAG_TW_Unit_Config);
    if (!isUnitOpcode(opcode)) return fwError(kErrOpcode);
    if (length < need) return fwError(kErrParamSize);
    TAG_TW_Unit_Config record {};
    TAG_TW_Rescan_Report report {};
    if (isRescan) std::memcpy(&report, data, sizeof report);
    else std::memcpy(&record, data, sizeof record);
    FwAnswer answer = fwError(kErrUnit);
    TwView& view = twView(module);
    view.settle();
    // The controller and the drives' configurations change together; the
    // carried file is written under the module's lock after the controller.
    std::map<std::string, Carried> carried = readCarried(module);
    bool changed = false;
    view.update(index, [&](Controller& c) {
        switch (opcode) {
        case twp::kOpCreateUnit: answer = create(module, c, record, carried); break;
        case twp::kOpDeleteUnit: answer = remove(module, c, record, carried); break;
        case twp::kOpImportUnit: answer = import(module, c, record, carried); break;
        case twp::kOpRescan: answer = rescan(module, c, report, carried); break;
        case twp::kOpMigrateUnit: answer = migrate(module, c, record, carried); break;
        default: answer = split(module, c, record, carried); break;
        }
        changed = answer.ok();
        return changed;
    });
    if (!changed) return answer;
    module.updateState(kCarriedState, [&](std::string& text) {
        text = formatCarried(carried);
        return true;
    });
    if (isRescan) std::memcpy(data, &report, sizeof report);
    else std::memcpy(data, &record, sizeof record);
    return answer;
}

} // namespace sim::tw

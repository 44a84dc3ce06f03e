#include "tw_state.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <ctime>
#include <sstream>

#include "manifest.h"
#include "module.h"
#include "tw_tasks.h"

namespace sim::tw {
namespace {

std::map<std::string, std::string> fields(std::istringstream& in)
{
    std::map<std::string, std::string> out;
    std::string word;
    while (in >> word) {
        size_t eq = word.find('=');
        if (eq == std::string::npos) continue;
        out[word.substr(0, eq)] = percentDecode(word.substr(eq + 1));
    }
    return out;
}

int64_t toNum(const std::string& text, int64_t fallback)
{
    int64_t v = 0;
    return parseSigned(text, INT64_MIN + 1, INT64_MAX, v) ? v : fallback;
}

std::string portsText(const std::vector<int>& ports)
{
    std::string out;
    for (size_t i = 0; i < ports.size(); ++i) out += (i ? "," : "") + (ports[i] < 0 ? std::string("-") : std::to_string(ports[i]));
    return out;
}

bool parsePorts(const std::string& text, std::vector<int>& out)
{
    out.clear();
    if (text.empty()) return true;
    std::string item;
    std::istringstream in(text);
    while (std::getline(in, item, ',')) {
        if (item == "-") {
            out.push_back(-1);
            continue;
        }
        uint64_t n = 0;
        if (!parseNumber(item, n) || n > 255) return false;
        out.push_back(static_cast<int>(n));
    }
    return true;
}

bool treeAt(const std::string& t, size_t& pos, TreeNode& node, int depth)
{
    if (depth > 8) return false;
    size_t start = pos;
    while (pos < t.size() && (std::isalnum(static_cast<unsigned char>(t[pos])) || t[pos] == '-' || t[pos] == '_')) ++pos;
    if (pos == start) return false;
    node.mode = t.substr(start, pos - start);
    if (pos < t.size() && t[pos] == '@') {
        size_t d = ++pos;
        while (pos < t.size() && std::isdigit(static_cast<unsigned char>(t[pos]))) ++pos;
        uint64_t n = 0;
        if (!parseNumber(t.substr(d, pos - d), n) || n > 255) return false;
        node.port = static_cast<int>(n);
        return true;
    }
    if (pos < t.size() && t[pos] == '(') {
        ++pos;
        for (;;) {
            TreeNode child;
            if (!treeAt(t, pos, child, depth + 1)) return false;
            node.children.push_back(child);
            if (pos < t.size() && t[pos] == ',') {
                ++pos;
                continue;
            }
            if (pos < t.size() && t[pos] == ')') {
                ++pos;
                return true;
            }
            return false;
        }
    }
    return true;
}

} // namespace

std::string TwFault::format() const
{
    std::string out = "fault ";
    out += kind == Kind::Firmware ? "firmware" : kind == Kind::Driver ? "driver" : "answer";
    out += " times=" + std::to_string(times);
    if (kind == Kind::Firmware) {
        if (opcode >= 0) out += " opcode=" + std::to_string(opcode);
        if (table >= 0) out += " table=" + std::to_string(table);
        if (param >= 0) out += " param=" + std::to_string(param);
        out += " status=" + std::to_string(status) + " code=" + std::to_string(code) + " text=" + percentEncode(text);
    } else if (kind == Kind::Driver) {
        out += " status=" + std::to_string(status);
    } else {
        out += " answer=" + percentEncode(answer);
    }
    return out;
}

std::string Controller::get(const std::string& key) const
{
    auto it = values.find(key);
    return it == values.end() ? std::string() : it->second;
}

int64_t Controller::num(const std::string& key, int64_t fallback) const
{
    auto it = values.find(key);
    return it == values.end() ? fallback : toNum(it->second, fallback);
}

const Unit* Controller::unit(int number) const
{
    for (const Unit& u : units)
        if (u.number == number) return &u;
    return nullptr;
}

Unit* Controller::unit(int number)
{
    for (Unit& u : units)
        if (u.number == number) return &u;
    return nullptr;
}

const Port* Controller::port(int number) const
{
    for (const Port& p : ports)
        if (p.number == number) return &p;
    return nullptr;
}

Port* Controller::port(int number)
{
    for (Port& p : ports)
        if (p.number == number) return &p;
    return nullptr;
}

const std::vector<KeyInfo>& keys()
{
    static const std::vector<KeyInfo> all = {
        {"model", "model name"},
        {"serial", "serial number"},
        {"pcb", "PCB revision"},
        {"achip", "A chip version"},
        {"pchip", "P chip version"},
        {"firmware", "firmware version"},
        {"bios", "BIOS version"},
        {"monitor", "monitor version"},
        {"driver-version", "the driver's version"},
        {"compatibility", "compatibility number"},
        {"driver-loaded", "1: the driver is in the kernel"},
        {"controller-found", "1: the driver found the controller"},
        {"av-mode", "AV mode, 0 or 1"},
        {"boot-unit", "boot unit, 255 none"},
        {"cache-policy", "1: unit caches off while a unit is degraded"},
        {"jbod-policy", "1: JBOD units online"},
        {"background-rate", "the 7000's background task rate, 1 to 5"},
        {"rebuild-rate", "rebuild rate, 1 to 5"},
        {"verify-rate", "verify rate, 1 to 5"},
        {"selftest-flags", "self-test flags"},
        {"schedule", "the task schedule, 70 bytes in hex"},
        {"rebuild-schedule", "rebuild schedule enabled, 0 or 1"},
        {"verify-schedule", "verify schedule enabled, 0 or 1"},
        {"spinups", "drives spun up at a time"},
        {"stagger", "seconds between spin-up groups"},
        {"mediascan", "1: media scan running, 0 paused"},
        {"shutdown", "1: the controller was shut down"},
        {"bbu-present", "1: a battery backup unit is there"},
        {"battery-present", "1: it holds a battery"},
        {"bbu-enabled", "1: the unit is enabled"},
        {"bbu-online", "online state"},
        {"bbu-status", "status"},
        {"bbu-summary", "status summary"},
        {"battery-voltage", "voltage status"},
        {"battery-temperature", "temperature status"},
        {"battery-capacity", "capacity in hours"},
        {"charge-voltage", "charge voltage code, 0 to 4"},
        {"install-date", "installation date"},
        {"last-test-date", "date of the last battery test"},
        {"test-in-progress", "1: a battery test runs"},
        {"test-ends", "when the running test ends, microseconds of the clock"},
        {"test-seconds", "how long a battery test runs, virtual seconds"},
        {"charge-in-progress", "1: the battery charges"},
        {"bbu-serial", "the unit's serial number"},
        {"bbu-firmware", "the unit's firmware version"},
        {"bbu-boot-code", "the unit's boot code version"},
        {"bbu-pcb", "the unit's PCB revision"},
        {"bbu-factory", "the unit's factory data"},
        {"controller-log", "the controller's log text"},
        {"diagnostic-log", "the diagnostic log text"},
    };
    return all;
}

bool parseTree(const std::string& text, TreeNode& out)
{
    size_t pos = 0;
    TreeNode node;
    if (!treeAt(text, pos, node, 0) || pos != text.size()) return false;
    out = node;
    return true;
}

std::string formatTree(const TreeNode& node)
{
    std::string out = node.mode;
    if (node.port >= 0) return out + "@" + std::to_string(node.port);
    if (node.children.empty()) return out;
    out += "(";
    for (size_t i = 0; i < node.children.size(); ++i) out += (i ? "," : "") + formatTree(node.children[i]);
    return out + ")";
}

std::vector<int> treePorts(const TreeNode& node)
{
    if (node.children.empty()) return {node.port};
    std::vector<int> out;
    for (const TreeNode& c : node.children) {
        std::vector<int> sub = treePorts(c);
        out.insert(out.end(), sub.begin(), sub.end());
    }
    return out;
}

Controller parseController(const std::string& text, int index, std::vector<std::string>* warnings)
{
    Controller c;
    c.index = index;
    int lineNo = 0;
    auto warn = [&](const std::string& what) {
        if (warnings)
            warnings->push_back("sim/" + stateName(index) + " line " + std::to_string(lineNo) + ": " + what);
    };
    for (const std::string& line : textLines(text)) {
        ++lineNo;
        std::istringstream in(line);
        std::string key;
        if (!(in >> key)) continue;
        if (key == "family" || key == "host") {
            std::string v;
            in >> v;
            int64_t n = toNum(v, -1);
            if (key == "family" && (n == 7000 || n == 9000)) c.family = static_cast<int>(n);
            else if (key == "host" && n >= 0 && n < 256) c.host = static_cast<int>(n);
            else warn("bad " + key);
        } else if (key == "port") {
            std::string num;
            in >> num;
            uint64_t n = 0;
            if (!parseNumber(num, n) || n > 31) {
                warn("bad port");
                continue;
            }
            auto f = fields(in);
            Port p;
            p.number = static_cast<int>(n);
            p.drive = f["drive"];
            p.foundModel = f["found-model"];
            p.foundSerial = f["found-serial"];
            p.foundFirmware = f["found-firmware"];
            p.foundSectors = static_cast<uint64_t>(std::max<int64_t>(0, toNum(f["found-sectors"], 0)));
            p.status = static_cast<int>(std::clamp<int64_t>(toNum(f["status"], 0xFF), 0, 0xFF));
            c.ports.push_back(p);
        } else if (key == "unit") {
            std::string num;
            in >> num;
            uint64_t n = 0;
            if (!parseNumber(num, n) || n > 15) {
                warn("bad unit");
                continue;
            }
            auto f = fields(in);
            Unit u;
            u.number = static_cast<int>(n);
            u.config = static_cast<int>(toNum(f["config"], 11));
            u.mode = f["mode"].empty() ? "OK" : f["mode"];
            if (!parsePorts(f["ports"], u.ports)) warn("bad ports of unit " + num);
            if (!f["tree"].empty() && !parseTree(f["tree"], u.tree)) warn("bad tree of unit " + num);
            u.stripe = static_cast<int>(toNum(f["stripe"], 0));
            u.capacity = static_cast<uint64_t>(std::max<int64_t>(0, toNum(f["capacity"], 0)));
            u.readCache = static_cast<int>(toNum(f["rcache"], 1));
            u.writeCache = static_cast<int>(toNum(f["wcache"], 1));
            u.ecc = static_cast<int>(toNum(f["ecc"], 0));
            u.autoVerify = static_cast<int>(toNum(f["autoverify"], 0));
            u.percent = static_cast<int>(toNum(f["percent"], 100));
            c.units.push_back(u);
        } else if (key == "event") {
            std::string seq, time, code, sev, rest;
            in >> seq >> time >> code >> sev;
            std::getline(in, rest);
            if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
            Event e;
            e.sequence = static_cast<uint32_t>(toNum(seq, 0));
            e.time = static_cast<uint32_t>(toNum(time, 0));
            e.code = static_cast<uint16_t>(toNum(code, 0));
            e.severity = static_cast<uint8_t>(toNum(sev, 3));
            e.text = percentDecode(rest);
            c.events.push_back(e);
        } else if (key == "lock") {
            std::string holder, expires;
            in >> holder >> expires;
            c.lockHolder = percentDecode(holder);
            c.lockExpires = static_cast<uint64_t>(std::max<int64_t>(0, toNum(expires, 0)));
        } else if (key == "fault") {
            std::string kind;
            in >> kind;
            auto f = fields(in);
            TwFault t;
            if (kind == "firmware") t.kind = TwFault::Kind::Firmware;
            else if (kind == "driver") t.kind = TwFault::Kind::Driver;
            else if (kind == "answer") t.kind = TwFault::Kind::Answer;
            else {
                warn("unknown fault " + kind);
                continue;
            }
            t.times = static_cast<int>(toNum(f["times"], 1));
            t.opcode = static_cast<int>(toNum(f.count("opcode") ? f["opcode"] : "", -1));
            t.table = static_cast<int>(toNum(f.count("table") ? f["table"] : "", -1));
            t.param = static_cast<int>(toNum(f.count("param") ? f["param"] : "", -1));
            t.status = static_cast<uint32_t>(toNum(f["status"], 0));
            t.code = static_cast<uint16_t>(toNum(f["code"], 0));
            t.text = f["text"];
            t.answer = f["answer"];
            c.faults.push_back(t);
        } else {
            std::string value;
            std::getline(in, value);
            if (!value.empty() && value[0] == ' ') value.erase(0, 1);
            c.values[key] = percentDecode(value);
        }
    }
    return c;
}

std::string formatController(const Controller& c)
{
    std::string out = "family " + std::to_string(c.family) + "\nhost " + std::to_string(c.host) + "\n";
    std::vector<std::string> done;
    for (const KeyInfo& k : keys()) {
        auto it = c.values.find(k.key);
        if (it == c.values.end()) continue;
        out += std::string(k.key) + " " + percentEncode(it->second) + "\n";
        done.push_back(k.key);
    }
    for (const auto& [key, value] : c.values)
        if (std::find(done.begin(), done.end(), key) == done.end()) out += key + " " + percentEncode(value) + "\n";
    for (const Port& p : c.ports)
        out += "port " + std::to_string(p.number) + " drive=" + percentEncode(p.drive) +
               " found-model=" + percentEncode(p.foundModel) + " found-serial=" + percentEncode(p.foundSerial) +
               " found-firmware=" + percentEncode(p.foundFirmware) + " found-sectors=" + std::to_string(p.foundSectors) +
               " status=" + std::to_string(p.status) + "\n";
    for (const Unit& u : c.units)
        out += "unit " + std::to_string(u.number) + " config=" + std::to_string(u.config) + " mode=" +
               percentEncode(u.mode) + " ports=" + portsText(u.ports) + " tree=" + formatTree(u.tree) +
               " stripe=" + std::to_string(u.stripe) + " capacity=" + std::to_string(u.capacity) +
               " rcache=" + std::to_string(u.readCache) + " wcache=" + std::to_string(u.writeCache) +
               " ecc=" + std::to_string(u.ecc) + " autoverify=" + std::to_string(u.autoVerify) +
               " percent=" + std::to_string(u.percent) + "\n";
    for (const Event& e : c.events)
        out += "event " + std::to_string(e.sequence) + " " + std::to_string(e.time) + " " + std::to_string(e.code) + " " +
               std::to_string(e.severity) + " " + percentEncode(e.text) + "\n";
    if (!c.lockHolder.empty())
        out += "lock " + percentEncode(c.lockHolder) + " " + std::to_string(c.lockExpires) + "\n";
    for (const TwFault& f : c.faults) out += f.format() + "\n";
    return out;
}

std::string stateName(int index) { return "3ware/c" + std::to_string(index); }

// Only the files there and the next one are watched: controllers are
// numbered from 0 without gaps.
void TwView::refresh()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (int i = 0; i < kMaxControllers; ++i) all.push_back(Module::stateFile(stateName(i)));
        return all;
    }();
    if (loaded_ && pinned_) return;
    if (loaded_) {
        const size_t watched = std::min(controllers_.size() + 1, names.size());
        bool same = stamps_.size() == watched;
        for (size_t i = 0; same && i < watched; ++i) {
            const uint64_t g = module_.generation(names[i]);
            same = g != Module::kNoGeneration && g == stamps_[i];
        }
        if (same) return;
    }
    controllers_.clear();
    stamps_.clear();
    for (int i = 0; i < kMaxControllers; ++i) {
        stamps_.push_back(module_.generation(names[static_cast<size_t>(i)]));
        std::string text;
        if (!module_.host().readFile(names[static_cast<size_t>(i)], text)) break;
        controllers_.push_back(parseController(text, i));
    }
    loaded_ = true;
}

const std::vector<Controller>& TwView::controllers()
{
    refresh();
    return controllers_;
}

const Controller* TwView::byMinor(int family, unsigned minor)
{
    refresh();
    std::vector<const Controller*> mine;
    for (const Controller& c : controllers_)
        if (c.family == family) mine.push_back(&c);
    std::stable_sort(mine.begin(), mine.end(), [](const Controller* a, const Controller* b) { return a->host < b->host; });
    return minor < mine.size() ? mine[minor] : nullptr;
}

const Controller* TwView::byHost(int host)
{
    refresh();
    for (const Controller& c : controllers_)
        if (c.host == host) return &c;
    return nullptr;
}

bool TwView::update(int index, const std::function<bool(Controller&)>& change)
{
    bool done = module_.updateState(stateName(index), [&](std::string& text) {
        if (text.empty()) return false;
        Controller c = parseController(text, index);
        if (!change(c)) return false;
        // What the change set going on the clock starts at once (tw_tasks.h).
        settleTasks(c, module_.manifest(), module_.nowUs());
        text = formatController(c);
        return true;
    });
    loaded_ = false;
    return done;
}

void TwView::settle()
{
    refresh();
    const uint64_t now = module_.nowUs();
    std::vector<int> due;
    for (const Controller& c : controllers_) {
        bool testDone = c.num("test-in-progress") == 1 && static_cast<uint64_t>(c.num("test-ends")) <= now;
        bool lockGone = !c.lockHolder.empty() && c.lockExpires <= now;
        // Tasks on the clock, pulls noticed, battery events (tw_tasks.h).
        const bool tasks = tasksDue(c, module_.manifest(), now);
        if (testDone || lockGone || tasks) due.push_back(c.index);
    }
    for (int index : due)
        update(index, [&](Controller& c) {
            settleTasks(c, module_.manifest(), now);
            if (c.num("test-in-progress") == 1 && static_cast<uint64_t>(c.num("test-ends")) <= now) {
                const int64_t ended = c.num("test-ends");
                c.setNum("test-in-progress", 0);
                c.values.erase("test-ends");
                c.set("last-test-date", dateText(ended / 1000000));
            }
            if (!c.lockHolder.empty() && c.lockExpires <= now) {
                c.lockHolder.clear();
                c.lockExpires = 0;
            }
            return true;
        });
}

TwView& twView(Module& module)
{
    auto& kept = module.twCache();
    if (!kept) kept = std::make_shared<TwView>(module);
    return *kept;
}

bool isTwModule(Module& module) { return !twView(module).controllers().empty(); }

void raiseEvent(Controller& c, uint64_t nowUs, uint16_t code, uint8_t severity, const std::string& text)
{
    Event e;
    e.sequence = c.events.empty() ? 1 : c.events.back().sequence + 1;
    e.time = static_cast<uint32_t>(nowUs / 1000000);
    e.code = code;
    e.severity = severity;
    e.text = text;
    c.events.push_back(e);
    if (c.events.size() > kMaxEvents) c.events.erase(c.events.begin(), c.events.end() - static_cast<long>(kMaxEvents));
}

std::string dateText(int64_t seconds)
{
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    time_t t = static_cast<time_t>(seconds);
    struct tm tm {};
    if (!gmtime_r(&t, &tm)) return "01-Jan-1970";
    char text[32];
    std::snprintf(text, sizeof text, "%02d-%s-%04d", tm.tm_mday, months[tm.tm_mon % 12], tm.tm_year + 1900);
    return text;
}

Controller freshController(int index, int family, int host, int ports)
{
    Controller c;
    c.index = index;
    c.family = family;
    c.host = host;
    const bool k9 = family == 9000;
    char serial[32];
    std::snprintf(serial, sizeof serial, "SIMC%04d%06d", family / 1000, 100 + index * 7 + host);
    c.set("model", k9 ? "SIMRAID 9K-" + std::to_string(ports) : "SIMRAID 7K-" + std::to_string(ports));
    c.set("serial", serial);
    c.set("pcb", k9 ? "P9-C" : "P7-B");
    c.set("achip", k9 ? "A9.2" : "A7.1");
    c.set("pchip", k9 ? "P9.1" : "P7.3");
    c.set("firmware", k9 ? "SF9 4.11.03.021" : "SF7 2.04.01.007");
    c.set("bios", k9 ? "SB9 4.10.00.006" : "SB7 2.02.00.011");
    c.set("monitor", k9 ? "SM9 4.01.00.002" : "SM7 2.01.00.004");
    c.set("driver-version", k9 ? "9.4.1.12" : "7.2.0.3");
    c.setNum("compatibility", k9 ? 25 : 6);
    c.setNum("driver-loaded", 1);
    c.setNum("controller-found", 1);
    c.setNum("av-mode", 0);
    c.setNum("boot-unit", 0);
    c.setNum("cache-policy", 1);
    c.setNum("jbod-policy", 0);
    if (!k9) c.setNum("background-rate", 3);
    if (k9) {
        c.setNum("rebuild-rate", 3);
        c.setNum("verify-rate", 3);
        c.setNum("selftest-flags", 3);
        c.set("schedule", std::string(140, '0'));
        c.setNum("rebuild-schedule", 0);
        c.setNum("verify-schedule", 0);
        c.setNum("spinups", 1);
        c.setNum("stagger", 6);
        c.setNum("bbu-present", 1);
        c.setNum("battery-present", 1);
        c.setNum("bbu-enabled", 1);
        c.setNum("bbu-online", 1);
        c.setNum("bbu-status", 0);
        c.setNum("bbu-summary", 0);
        c.setNum("battery-voltage", 0);
        c.setNum("battery-temperature", 0);
        c.setNum("battery-capacity", 72);
        c.setNum("charge-voltage", 2);
        c.set("install-date", "15-Mar-2006");
        c.set("last-test-date", "15-Mar-2006");
        c.setNum("test-in-progress", 0);
        c.setNum("test-seconds", 3600);
        c.setNum("charge-in-progress", 0);
        c.set("bbu-serial", "SIMB" + std::string(serial + 4));
        c.set("bbu-firmware", "SBU 1.2.7");
        c.set("bbu-boot-code", "SBB 1.0.3");
        c.set("bbu-pcb", "U-2");
        c.set("bbu-factory", "cells=4 maker-lot=0612");
    }
    c.set("diagnostic-log", "diagnostics: all tests passed");
    c.setNum("mediascan", 1);
    c.setNum("shutdown", 0);
    c.set("controller-log", "controller started");
    // The queue starts with the controller's own start; the clock's start is
    // the module's (1 January 2006).
    c.events.push_back(Event{1, 1136073600, 1, 3, "Controller started"});
    for (int p = 0; p < ports; ++p) {
        Port port;
        port.number = p;
        c.ports.push_back(port);
    }
    return c;
}

TwView::~TwView() { flushLog(); }

const std::string& TwView::kernelText()
{
    static const std::string name = Module::stateFile("3ware/kernel");
    const uint64_t g = module_.generation(name);
    if (g == Module::kNoGeneration || g != kernelStamp_) {
        kernel_.clear();
        module_.host().readFile(name, kernel_);
        kernelStamp_ = g;
    }
    return kernel_;
}

void TwView::log(const std::string& line)
{
    pending_ += line;
    pending_ += '\n';
    if (pending_.size() >= 16384) flushLog();
}

void TwView::flushLog()
{
    if (pending_.empty()) return;
    pending_.pop_back();  // appendState ends the last line
    module_.appendState("3ware.log", pending_);
    pending_.clear();
}

void logCall(Module& module, const std::string& line) { twView(module).log(line); }

void flushLog(Module& module) { twView(module).flushLog(); }

void Port::found(const Drive* d)
{
    drive = d ? d->serial : "";
    foundModel = d ? d->model : "";
    foundSerial = d ? d->serial : "";
    foundFirmware = d ? d->firmware : "";
    foundSectors = d ? d->sectors : 0;
}

const Bay* bayOfPort(const Manifest& m, const Controller& c, int port)
{
    for (const Bay& b : m.bays) {
        unsigned host = 0, bus = 0, target = 0, lun = 0;
        if (c.family == 7000) {
            if (std::sscanf(b.device.c_str(), "/dev/scsi/host%u/bus%u/target%u/lun%u/", &host, &bus, &target, &lun) == 4 &&
                static_cast<int>(host) == c.host && static_cast<int>(target) == port)
                return &b;
        } else if (b.number == port + 1) {
            return &b;
        }
    }
    return nullptr;
}

const Drive* driveOfPort(const Manifest& m, const Controller& c, int port)
{
    const Bay* b = bayOfPort(m, c, port);
    return b ? m.driveInBay(b->number) : nullptr;
}

} // namespace sim::tw

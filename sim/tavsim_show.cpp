// tavsim show: the module as text tables, as JSON, or its partitions.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <iostream>

#include "charon.h"
#include "clock.h"
#include "create.h"
#include "dsp.h"
#include "family_layout.h"
#include "hwlib/tavhwid.h"
#include "json.h"
#include "md_kernel.h"
#include "sim_platform.h"
#include "state_check.h"
#include "table.h"
#include "tw_state.h"
#include "sign.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

struct ModelInfo {
    bool known = false;
    int id = 0;
    std::string config, name;
};

struct BayView {
    Bay bay;
    std::optional<Drive> drive;  // none: the bay is empty
    std::vector<Window> windows;
    BayVerdict verdict;          // the drive manager's verdict and the drive's own stamps
    std::optional<DspBay> dsp;   // the chassis controller's bay, if there is one
    struct Interface {
        unsigned number = 0;
        bool attached = false;
        bool found = false;      // the kernel has the bay's device
    };
    std::optional<Interface> interface;  // the hot-swap driver's, for an IDE unit
};

// What show prints, read once.
struct ModuleView {
    std::string dir;
    Manifest manifest;
    ModelInfo model;
    timeval clock{};
    std::vector<BayView> bays;
    std::vector<Fault> faults;
    MdState md;
    DaemonStatus daemons;
    std::vector<std::string> warnings;  // of every state file, faults included
};

// The model as the system's identity code sees it in the module.
ModelInfo recognisedModel(SimPlatform& platform)
{
    plat::ScopedPlatform scope(platform);
    ModelInfo info;
    char name[256] = "", config[256] = "";
    if (hwid_getModelName(nullptr, name, sizeof name - 1) != 0) return info;
    hwid_getModelConfigName(nullptr, config, sizeof config - 1);
    info = {true, hwid_getModelId(nullptr), config, name};
    return info;
}

ModuleView readModule(Module& module)
{
    ModuleView v;
    v.dir = module.dir();
    v.manifest = module.manifest();
    SimPlatform platform(module.dir());
    v.model = recognisedModel(platform);
    v.clock = module.now();
    std::vector<BayVerdict> verdicts = bayVerdicts(module.dir());
    const DspState dsp = dspState(module);
    const std::optional<CharonState> charon =
        charonPresent(module) ? std::optional<CharonState>(charonState(module)) : std::nullopt;
    for (const Bay& b : v.manifest.bays) {
        const Drive* d = v.manifest.driveInBay(b.number);
        BayView bay{b, d ? std::optional<Drive>(*d) : std::nullopt,
                    d ? module.windows(b.number) : std::vector<Window>{}, {}, std::nullopt, std::nullopt};
        for (const BayVerdict& verdict : verdicts)
            if (verdict.bay == b.number) bay.verdict = verdict;
        if (b.number >= 1 && static_cast<size_t>(b.number) <= dsp.bays.size()) bay.dsp = dsp.bays[static_cast<size_t>(b.number - 1)];
        unsigned interface = 0, unit = 0;
        if (charon && ideUnit(b.device, interface, unit) && interface < charon->interfaces.size()) {
            const CharonInterface& i = charon->interfaces[interface];
            bay.interface = BayView::Interface{interface, i.active, i.active && unit < i.devices.size() && i.devices[unit]};
        }
        v.bays.push_back(bay);
    }
    v.faults = parseFaults(module.readState("faults"));
    v.md = mdState(module);
    v.daemons = daemonStatus(module);
    v.warnings = checkModuleState(module, true);
    return v;
}

std::string layoutText(int platform)
{
    if (hasLayoutRow(platform)) return "";
    return "layout of platform 1 (no row of its own)";
}

std::string partitionList(const std::vector<Window>& windows)
{
    std::string out;
    for (const Window& w : windows) out += (out.empty() ? "" : ",") + std::to_string(w.number);
    return out;
}

// The columns of the bay table, in order; the free-text column stays last.
// A column added later (a verdict) goes in before MODEL.
struct BayColumn {
    const char* header;
    std::function<std::string(const BayView&)> text;
};

std::string stamp(const std::optional<int64_t>& t) { return t ? std::to_string(*t) : std::string(); }

// Power as the chassis controller reports it: a bay without a drive has none.
bool reportsPower(const BayView& v) { return v.dsp && v.dsp->powered && v.drive; }

// The bay's device as the hot-swap driver has it: "found" or "absent" on an
// attached interface, "detached" with its interface.
std::string kernelText(const BayView& v)
{
    if (!v.interface) return "";
    return !v.interface->attached ? "detached" : v.interface->found ? "found" : "absent";
}

const std::vector<BayColumn>& bayColumns()
{
    auto drive = [](std::function<std::string(const Drive&)> f) {
        return [f](const BayView& v) { return v.drive ? f(*v.drive) : std::string(); };
    };
    static const std::vector<BayColumn> columns = {
        {"BAY", [](const BayView& v) { return std::to_string(v.bay.number); }},
        {"DEVICE", [](const BayView& v) { return v.bay.device; }},
        {"MAJ:MIN", [](const BayView& v) { return std::to_string(v.bay.major) + ":" + std::to_string(v.bay.minor); }},
        {"SERIAL", drive([](const Drive& d) { return d.serial; })},
        {"SECTORS", drive([](const Drive& d) { return std::to_string(d.sectors); })},
        {"SIZE", drive([](const Drive& d) { return humanSize(d.sectors * 512); })},
        {"PARTITIONS", [](const BayView& v) { return partitionList(v.windows); }},
        {"FIRMWARE", drive([](const Drive& d) { return d.firmware; })},
        {"VERDICT", [](const BayView& v) { return v.drive ? v.verdict.verdict : std::string(); }},
        {"MOUNTED", [](const BayView& v) { return stamp(v.verdict.mount); }},
        {"DISMOUNTED", [](const BayView& v) { return stamp(v.verdict.dismount); }},
        {"POWER", [](const BayView& v) { return v.dsp ? std::string(reportsPower(v) ? "on" : "off") : std::string(); }},
        {"CLAMP", [](const BayView& v) { return v.dsp ? std::string(v.dsp->clamped ? "on" : "off") : std::string(); }},
        {"KERNEL", kernelText},
        {"MODEL", [](const BayView& v) { return v.drive ? v.drive->model : std::string("(empty)"); }},
    };
    return columns;
}

std::string requestText(const Fault& f)
{
    if (f.request == 0) return "";
    const char* name = requestName(f.request);
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%lx", f.request);
    return name ? name : hex;
}

std::string actionText(const Fault& f)
{
    switch (f.action) {
    case Fault::Action::Error: {
        const char* name = errnoName(f.error);
        return "errno=" + (name ? std::string(name) : std::to_string(f.error));
    }
    case Fault::Action::Short: return "short=" + std::to_string(f.shortCount);
    case Fault::Action::PowerCut: return "powercut";
    }
    return "";
}

// The tw controllers of the module, and per bay the port, its drive and the
// unit that holds it.
void printTwBays(const ModuleView& v)
{
    Module module(v.dir);
    const std::vector<tw::Controller>& controllers = tw::twView(module).controllers();
    if (controllers.empty()) return;
    std::cout << "\n";
    Table ctls({"CONTROLLER", "FAMILY", "HOST", "PORTS", "UNITS", "MODEL"});
    for (const tw::Controller& c : controllers)
        ctls.add({std::to_string(c.index), std::to_string(c.family), std::to_string(c.host), std::to_string(c.ports.size()),
                  std::to_string(c.units.size()), c.get("model")});
    ctls.print(std::cout);
    Table ports({"BAY", "CONTROLLER", "PORT", "DRIVE", "UNIT"});
    for (const BayView& b : v.bays)
        for (const tw::Controller& c : controllers)
            for (const tw::Port& p : c.ports) {
                unsigned host = 0, bus = 0, target = 0, lun = 0;
                const bool here = c.family == 7000
                                      ? std::sscanf(b.bay.device.c_str(), "/dev/scsi/host%u/bus%u/target%u/lun%u/", &host,
                                                    &bus, &target, &lun) == 4 &&
                                            static_cast<int>(host) == c.host && static_cast<int>(target) == p.number
                                      : b.bay.number == p.number + 1;
                if (!here) continue;
                std::string unit;
                for (const tw::Unit& u : c.units)
                    if (std::find(u.ports.begin(), u.ports.end(), p.number) != u.ports.end()) unit = std::to_string(u.number);
                ports.add({std::to_string(b.bay.number), std::to_string(c.index), std::to_string(p.number), p.drive, unit});
            }
    std::cout << "\n";
    ports.print(std::cout);
}

void printText(const ModuleView& v)
{
    const Manifest& m = v.manifest;
    std::cout << "module " << cell(v.dir) << "\n";
    std::string layout = layoutText(m.platform);
    std::cout << "platform " << m.platform << (layout.empty() ? "" : " " + layout) << "\n";
    if (v.model.known) std::cout << "model " << v.model.id << " " << cell(v.model.config) << " " << lastCell(v.model.name) << "\n";
    else std::cout << "model UNKNOWN\n";
    std::cout << "serial " << cell(m.moduleSerial) << "\n";
    std::cout << "clock " << v.clock.tv_sec << " " << isoTime(v.clock.tv_sec) << "\n";
    std::cout << daemonSummary(v.daemons) << "\n";

    std::vector<std::string> headers;
    for (const BayColumn& c : bayColumns()) headers.push_back(c.header);
    Table bays(headers);
    for (const BayView& b : v.bays) {
        std::vector<std::string> cells;
        for (const BayColumn& c : bayColumns()) cells.push_back(c.text(b));
        bays.add(cells);
    }
    std::cout << "\n";
    bays.print(std::cout);
    printTwBays(v);

    Table shelf({"SHELF", "SERIAL", "SECTORS", "SIZE", "FIRMWARE", "MODEL"});
    for (const Drive& d : m.drives)
        if (d.bay == 0) shelf.add({"shelf", d.serial, std::to_string(d.sectors), humanSize(d.sectors * 512), d.firmware, d.model});
    std::cout << "\n";
    shelf.print(std::cout);
    std::cout << "\n";
    printFaults(v.faults);
    std::cout << "\n";
    printArrayTable(v.md);
}

void writeJson(const ModuleView& v)
{
    const Manifest& m = v.manifest;
    JsonWriter j(std::cout);
    j.beginObject();
    j.key("module").string(v.dir);
    j.key("platform").number(m.platform);
    j.key("layout").beginObject();
    j.key("platform").number(hasLayoutRow(m.platform) ? m.platform : 1);
    j.key("own_row").boolean(hasLayoutRow(m.platform));
    j.endObject();
    j.key("model");
    if (v.model.known) {
        j.beginObject();
        j.key("id").number(v.model.id).key("config").string(v.model.config).key("name").string(v.model.name);
        j.endObject();
    } else {
        j.null();
    }
    j.key("serial").string(m.moduleSerial);
    j.key("clock").beginObject();
    j.key("seconds").number(v.clock.tv_sec).key("microseconds").number(v.clock.tv_usec);
    j.key("utc").string(isoTime(v.clock.tv_sec));
    j.endObject();
    j.key("daemons").beginObject();
    j.key("scripts").number(v.daemons.scriptsPresent());
    j.key("live").unsignedNumber(v.daemons.livePids());
    j.key("system_id");
    if (v.daemons.hasSystemId) j.string(v.daemons.systemId);
    else j.null();
    j.endObject();

    auto optional = [&](const std::string& key, const Drive* d, const std::function<void(const Drive&)>& value) {
        j.key(key);
        if (d) value(*d);
        else j.null();
    };
    j.key("bays").beginArray();
    for (const BayView& b : v.bays) {
        const Drive* d = b.drive ? &*b.drive : nullptr;
        j.beginObject();
        j.key("bay").number(b.bay.number).key("device").string(b.bay.device);
        j.key("major").number(b.bay.major).key("minor").number(b.bay.minor);
        optional("serial", d, [&](const Drive& x) { j.string(x.serial); });
        optional("sectors", d, [&](const Drive& x) { j.unsignedNumber(x.sectors); });
        j.key("partitions").beginArray();
        for (const Window& w : b.windows) {
            j.beginObject();
            j.key("number").number(w.number).key("role").string(partitionRole(w));
            j.key("start").unsignedNumber(w.start).key("sectors").unsignedNumber(w.size);
            j.endObject();
        }
        j.endArray();
        optional("firmware", d, [&](const Drive& x) { j.string(x.firmware); });
        optional("model", d, [&](const Drive& x) { j.string(x.model); });
        optional("verdict", d, [&](const Drive&) { j.string(b.verdict.verdict); });
        optional("mount", b.verdict.mount ? d : nullptr, [&](const Drive&) { j.number(*b.verdict.mount); });
        optional("dismount", b.verdict.dismount ? d : nullptr, [&](const Drive&) { j.number(*b.verdict.dismount); });
        j.key("power");
        if (b.dsp) j.boolean(reportsPower(b));
        else j.null();
        j.key("clamp");
        if (b.dsp) j.boolean(b.dsp->clamped);
        else j.null();
        j.key("interface");
        if (b.interface) {
            j.beginObject();
            j.key("number").unsignedNumber(b.interface->number).key("attached").boolean(b.interface->attached);
            j.key("found").boolean(b.interface->found);
            j.endObject();
        } else {
            j.null();
        }
        j.endObject();
    }
    j.endArray();

    // The tw controllers: empty on modules of other families.
    {
        Module module(v.dir);
        j.key("controllers").beginArray();
        for (const tw::Controller& c : tw::twView(module).controllers()) {
            j.beginObject();
            j.key("index").number(c.index).key("family").number(c.family).key("host").number(c.host);
            j.key("model").string(c.get("model"));
            j.key("ports").beginArray();
            for (const tw::Port& p : c.ports) {
                j.beginObject();
                j.key("port").number(p.number).key("drive").string(p.drive).key("found_serial").string(p.foundSerial);
                j.endObject();
            }
            j.endArray();
            j.key("units").beginArray();
            for (const tw::Unit& u : c.units) {
                j.beginObject();
                j.key("unit").number(u.number).key("config").number(u.config).key("mode").string(u.mode);
                j.key("ports").beginArray();
                for (int p : u.ports) p < 0 ? j.null() : j.number(p);
                j.endArray();
                j.key("tree").string(tw::formatTree(u.tree)).key("sectors").unsignedNumber(u.capacity);
                j.endObject();
            }
            j.endArray();
            j.endObject();
        }
        j.endArray();
    }

    j.key("shelf").beginArray();
    for (const Drive& d : m.drives)
        if (d.bay == 0) {
            j.beginObject();
            j.key("serial").string(d.serial).key("sectors").unsignedNumber(d.sectors);
            j.key("firmware").string(d.firmware).key("model").string(d.model);
            j.endObject();
        }
    j.endArray();

    j.key("faults").beginArray();
    for (const Fault& f : v.faults) {
        j.beginObject();
        j.key("op").string(opName(f.op)).key("path").string(f.path);
        j.key("nth").unsignedNumber(f.nth).key("times").number(f.times);
        j.key("request");
        if (f.request) j.string(requestText(f));
        else j.null();
        j.key("action").string(actionText(f));
        j.endObject();
    }
    j.endArray();

    j.key("arrays");
    writeArraysJson(j, v.md, m);

    j.key("warnings").beginArray();
    for (const std::string& w : v.warnings) j.string(w);
    j.endArray();
    j.endObject();
}

void printPartitions(const ModuleView& v)
{
    bool first = true;
    for (const BayView& b : v.bays) {
        if (!first) std::cout << "\n";
        first = false;
        std::cout << "bay " << b.bay.number << ": " << cell(b.bay.device);
        if (!b.drive) {
            std::cout << ", empty\n";
            continue;
        }
        const uint64_t sectors = b.drive->sectors;
        std::cout << ", drive " << cell(b.drive->serial) << ", " << sectors << " sectors, " << humanSize(sectors * 512);
        if (b.windows.empty()) {
            std::cout << ", no partitions\n";
            continue;
        }
        std::cout << "\n";
        Table t({"NUMBER", "ROLE", "START", "SECTORS", "SIZE"});
        for (const Window& w : b.windows)
            t.add({std::to_string(w.number), partitionRole(w), std::to_string(w.start), std::to_string(w.size),
                   humanSize(w.size * 512)});
        t.print(std::cout);
    }
}

} // namespace

void printFaults(const std::vector<Fault>& faults)
{
    Table t({"FAULT", "OP", "PATH", "NTH", "TIMES", "REQUEST", "ACTION"});
    for (const Fault& f : faults)
        t.add({"fault", opName(f.op), f.path, std::to_string(f.nth), std::to_string(f.times), requestText(f), actionText(f)});
    t.print(std::cout);
}

int runShow(const Call& call)
{
    Words w;
    int status =
        splitWords(call, {{"--json", nullptr}, {"--partitions", nullptr}, {"--signature", nullptr}}, false, w);
    if (status || (status = expectPositional(call, w, 1, 1))) return status;
    const bool json = w.has("--json"), partitions = w.has("--partitions"), signature = w.has("--signature");
    if (json + partitions + signature > 1) return badUsage(call, "--json, --partitions and --signature exclude each other");
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    if (signature) {
        std::cout << managerTables(module->dir());
        return kDone;
    }
    ModuleView view = readModule(*module);
    if (json) writeJson(view);
    else if (partitions) printPartitions(view);
    else printText(view);
    return kDone;
}

} // namespace sim::cli

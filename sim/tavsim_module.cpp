// The commands that make a module and change its drives, faults and logs.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <iostream>
#include <sys/stat.h>

#include "create.h"
#include "faults.h"
#include "family_layout.h"
#include "product_drive.h"
#include "programs.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

// The module serial number goes into a 32-byte field of every drive's
// signature, terminator included.
constexpr size_t kMaxModuleSerial = 31;

std::string sectorsAndSize(uint64_t sectors)
{
    return std::to_string(sectors) + " sectors (" + humanSize(sectors * 512) + ")";
}

std::string serialProblem(const std::string& serial)
{
    const std::string named = "--serial " + cell(serial) + ": ";
    if (serial.empty()) return "--serial: empty; give printable ASCII without blanks";
    for (size_t i = 0; i < serial.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(serial[i]);
        if (c <= ' ' || c >= 0x7f)
        {
            const char* what = c == ' '               ? "holds a blank"
                               : c < ' ' || c == 0x7f ? "holds a control character"
                                                      : "holds a byte beyond ASCII";
            return named + what + " at character " + std::to_string(i + 1) + "; give printable ASCII without blanks";
        }
    }
    if (serial.size() > kMaxModuleSerial)
        return named + std::to_string(serial.size()) + " characters; at most " + std::to_string(kMaxModuleSerial) +
               " (a drive's signature keeps the module serial number in 32 bytes)";
    return "";
}

// Why a module cannot be made at `dir`, or "".
std::string createTargetProblem(const std::string& dir)
{
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) return dir + ": " + (S_ISREG(st.st_mode) ? "a file" : "not a directory") + " is there";
        if (Module::isModule(dir)) return dir + ": holds a module already";
        if (!isDirEmpty(dir)) return dir + ": a directory that is not empty; create needs an absent or empty one";
        return "";
    }
    if (errno != ENOENT && errno != ENOTDIR) return dir + ": " + std::strerror(errno);
    // The nearest ancestor that exists must be a directory.
    for (std::string up = dir; !up.empty();) {
        size_t slash = up.find_last_of('/', up.size() - 1);
        while (slash != std::string::npos && slash > 0 && up[slash - 1] == '/') --slash;
        up = slash == std::string::npos ? std::string(".") : slash == 0 ? std::string("/") : up.substr(0, slash);
        if (::stat(up.c_str(), &st) == 0) {
            if (S_ISDIR(st.st_mode)) return "";
            return dir + ": its parent " + up + " is " + (S_ISREG(st.st_mode) ? "a file, not a directory" : "not a directory");
        }
        if (up == "." || up == "/") break;
    }
    return "";
}

std::string sectorsProblem(const std::string& word, bool anySize, uint64_t& sectors)
{
    std::string why;
    if (!decimal("--sectors", word, 0, UINT64_MAX, sectors, why)) return why;
    const std::string layoutRange = std::to_string(kFamilyMinSectors) + " to " + std::to_string(kFamilyMaxSectors) +
                                    " sectors (" + humanSize(kFamilyMinSectors * 512) + " to " +
                                    humanSize(kFamilyMaxSectors * 512) + ")";
    const std::string anyRange = std::to_string(kMinDriveSectors) + " to " + std::to_string(kMaxDriveSectors);
    if (anySize && (sectors < kMinDriveSectors || sectors > kMaxDriveSectors))
        return "--sectors " + word + ": out of range " + anyRange + ", even with --any-size";
    if (!anySize && (sectors < kFamilyMinSectors || sectors > kFamilyMaxSectors))
        return "--sectors " + word + ": the families' partition table fits drives of " + layoutRange +
               "; --any-size allows " + anyRange;
    return "";
}

std::string layoutText(int platform)
{
    return hasLayoutRow(platform) ? "platform " + std::to_string(platform)
                                  : "platform " + std::to_string(platform) + " (layout of platform 1)";
}

} // namespace

int runCreate(const Call& call)
{
    const std::vector<Option> known = {{"--platform", "ID"}, {"--serial", "S"},          {"--sectors", "N"},
                                       {"--any-size", nullptr}, {"--feature", "SECTION:KEY=VALUE"},
                                       {"--no-drives", nullptr}, {"--units", "LAYOUT"},  {"--spares", "N"},
                                       {"--no-proc-scsi", nullptr}};
    Words w;
    if (int s = splitWords(call, known, false, w)) return s;
    if (int s = expectPositional(call, w, 1, 1)) return s;
    const std::string& dir = w.positional[0];
    CreateOptions options;
    options.identityOnly = w.has("--no-drives");
    options.procScsi = !w.has("--no-proc-scsi");
    std::optional<std::string> platformWord, serialWord, sectorsWord;
    for (const auto& [name, value] : w.options) {
        std::optional<std::string>* once = name == "--platform" ? &platformWord
                                           : name == "--serial" ? &serialWord
                                           : name == "--sectors" ? &sectorsWord
                                                                 : nullptr;
        if (once && once->has_value())
            return badUsage(call, name + " given twice (" + cell(**once) + " and " + cell(value) + ")");
        if (once) *once = value;
        std::string why;
        uint64_t n = 0;
        if (name == "--platform") {
            if (!decimal("--platform", value, 0, 999999, n, why)) return badUsage(call, why);
            options.platform = static_cast<int>(n);
        } else if (name == "--serial") {
            if (std::string p = serialProblem(value); !p.empty()) return badUsage(call, p);
            options.moduleSerial = value;
        } else if (name == "--units") {
            options.units = value;
        } else if (name == "--spares") {
            if (!decimal("--spares", value, 0, 11, n, why)) return badUsage(call, why);
            options.spares = static_cast<int>(n);
        } else if (name == "--feature") {
            FeatureSetting f;
            if (!parseFeature(value, f, why)) return badUsage(call, "--feature: " + why);
            options.features.push_back(f);
        }
    }
    if (!platformWord) return badUsage(call, "--platform ID is needed");
    if (sectorsWord) {
        if (options.identityOnly) return badUsage(call, "--sectors: a module made with --no-drives has no drives");
        if (std::string p = sectorsProblem(*sectorsWord, w.has("--any-size"), options.sectors); !p.empty())
            return badUsage(call, p);
    }
    if (std::string p = createTargetProblem(dir); !p.empty()) return refused(call, p);
    if (std::string err = createModule(dir, options); !err.empty()) return refused(call, err);
    Module module(dir);
    Manifest m = module.manifest();
    report("created " + module.dir() + ": " + layoutText(m.platform) + ", module serial " + m.moduleSerial + ", " +
           (options.identityOnly ? std::string("no bays")
                                 : std::to_string(m.bays.size()) + " drives of " + sectorsAndSize(options.sectors)));
    return kDone;
}

int runPull(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 2, 2, w, status);
    if (!module) return status;
    int bay = 0;
    Manifest m = module->manifest();
    if ((status = bayArgument(call, m, w.positional[1], bay))) return status;
    const Drive* d = m.driveInBay(bay);
    if (!d) return refused(call, "bay " + std::to_string(bay) + ": empty, nothing to pull");
    const std::string serial = d->serial;
    if (std::string err = module->pull(bay); !err.empty()) return refused(call, err);
    report("pulled drive " + serial + " from bay " + std::to_string(bay) + " to the shelf");
    return kDone;
}

int runInsert(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--new-product", nullptr}}, 2, 3, w, status);
    if (!module) return status;
    const bool product = w.has("--new-product");
    if (product && w.positional.size() == 3) return badUsage(call, "--new-product puts a new drive, not one of the shelf");
    int bay = 0;
    Manifest m = module->manifest();
    if ((status = bayArgument(call, m, w.positional[1], bay))) return status;
    const std::string bayText = "bay " + std::to_string(bay);
    if (const Drive* d = m.driveInBay(bay)) return refused(call, bayText + ": holds drive " + d->serial + "; pull it first");
    const std::string serial = w.positional.size() == 3 ? w.positional[2] : "";
    if (!serial.empty()) {
        std::vector<std::string> shelf;
        for (const Drive& d : m.drives)
            if (d.bay == 0) shelf.push_back(d.serial);
        const Drive* d = m.drive(serial);
        if (d && d->bay != 0)
            return refused(call, "drive " + serial + ": in bay " + std::to_string(d->bay) + ", not on the shelf");
        if (!d)
            return refused(call, "drive " + cell(serial) + ": not on the shelf; " +
                                     (shelf.empty() ? "the shelf is empty" : "the shelf holds " + listed(shelf)));
    }
    if (std::string err = module->insert(bay, serial); !err.empty()) return refused(call, err);
    const Manifest after = module->manifest();
    const Drive* d = after.driveInBay(bay);
    const std::string put = d ? d->serial : serial;
    if (product) {
        std::string err = partitionBay(*module, bay);
        if (err.empty()) err = signAsNewProduct(*module, bay);
        if (!err.empty()) return refused(call, "inserted a new blank drive " + put + " into " + bayText + ", but " + err);
        report("inserted a new drive of the product " + put + " of " + sectorsAndSize(d ? d->sectors : 0) + " into " +
               bayText + ": partitioned, signed with no owner and order 0");
        return kDone;
    }
    report(serial.empty() ? "inserted a new blank drive " + put + " of " + sectorsAndSize(d ? d->sectors : 0) + " into " + bayText
                          : "inserted drive " + put + " from the shelf into " + bayText);
    return kDone;
}

int runSwap(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 3, 3, w, status);
    if (!module) return status;
    int a = 0, b = 0;
    Manifest m = module->manifest();
    if ((status = bayArgument(call, m, w.positional[1], a)) || (status = bayArgument(call, m, w.positional[2], b)))
        return status;
    if (a == b) return badUsage(call, "bay " + std::to_string(a) + " twice: swap takes two different bays");
    if (std::string err = module->swap(a, b); !err.empty()) return refused(call, err);
    Manifest after = module->manifest();
    auto holds = [&](int bay) {
        const Drive* d = after.driveInBay(bay);
        return "bay " + std::to_string(bay) + (d ? " holds drive " + d->serial : std::string(" is empty"));
    };
    report("swapped bays " + std::to_string(a) + " and " + std::to_string(b) + ": " + holds(a) + ", " + holds(b));
    return kDone;
}

namespace {

bool parseHexBytes(const std::string& hex, std::string& bytes)
{
    if (hex.empty() || hex.size() % 2) return false;
    bytes.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        uint64_t v = 0;
        if (!parseHexNumber("0x" + hex.substr(i, 2), v)) return false;
        bytes += static_cast<char>(v);
    }
    return true;
}

} // namespace

int runCorrupt(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 4, 4, w, status);
    if (!module) return status;
    const std::string& target = w.positional[1];
    std::string device = target, where, why, bytes;
    if (!target.empty() && target.find_first_not_of("0123456789") == std::string::npos) {
        int bay = 0;
        Manifest m = module->manifest();
        if ((status = bayArgument(call, m, target, bay))) return status;
        if (!m.driveInBay(bay)) return refused(call, "bay " + target + ": empty, nothing to overwrite");
        device = m.bay(bay)->device;
        where = " (bay " + std::to_string(bay) + ")";
    } else if (target.empty() || target[0] != '/') {
        return badUsage(call, "BAY|DEVICE " + cell(target) +
                                  ": give a bay number or a device path such as /dev/ide/host0/bus0/target0/lun0/part1");
    }
    uint64_t offset = 0;
    if (!decimal("offset", w.positional[2], 0, INT64_MAX, offset, why)) return badUsage(call, why);
    if (!parseHexBytes(w.positional[3], bytes))
        return badUsage(call, "bytes " + cell(w.positional[3]) + ": give an even number of hex digits (deadbeef)");
    bool present = false;
    std::optional<DeviceNode> node = module->device(device, present);
    if (node && present && (offset > node->size || bytes.size() > node->size - offset))
        return refused(call, "offset " + w.positional[2] + ": " + std::to_string(bytes.size()) + " bytes there run past the end of " +
                                 device + ", which has " + std::to_string(node->size) + " bytes");
    if (std::string err = module->overwrite(device, offset, bytes); !err.empty()) return refused(call, err);
    report("wrote " + std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte" : " bytes") + " at byte " +
           std::to_string(offset) + " of " + device + where);
    return kDone;
}

int runFault(const Call& call)
{
    Words w;
    int status = splitWords(call, {{"--list", nullptr}, {"--clear", nullptr}}, false, w);
    if (status) return status;
    const bool list = w.has("--list"), clear = w.has("--clear");
    if (list && clear) return badUsage(call, "--list and --clear exclude each other");
    if ((list || clear) && (status = expectPositional(call, w, 1, 1))) return status;
    if (!list && !clear && (status = expectPositional(call, w, 3, SIZE_MAX))) return status;
    Fault fault;
    std::string why;
    if (!list && !clear && !Fault::parseWords({w.positional.begin() + 1, w.positional.end()}, fault, why))
        return badUsage(call, why);
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    if (list) {
        printFaults(parseFaults(module->readState("faults")));
        return kDone;
    }
    Module::Lock lock(*module);
    if (clear) {
        size_t count = parseFaults(module->readState("faults")).size();
        module->writeState("faults", "");
        report(count == 0 ? "no fault was armed" : "cleared " + std::to_string(count) + (count == 1 ? " fault" : " faults"));
        return kDone;
    }
    // A change of state, not a log line: views of the faults must see it.
    module->updateState("faults", [&](std::string& text) {
        if (!text.empty() && text.back() != '\n') text += '\n';
        text += fault.format() + "\n";
        return true;
    });
    report("armed fault " + fault.format());
    return kDone;
}

int runLog(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call,
                                 {{"--ata", nullptr}, {"--md", nullptr}, {"--dsp", nullptr}, {"--charon", nullptr},
                                  {"--3ware", nullptr}, {"--hex", nullptr}},
                                 1, 1, w, status);
    if (!module) return status;
    if (w.has("--hex") && !w.has("--3ware")) return badUsage(call, "--hex goes with --3ware");
    if (w.has("--3ware")) {
        if (!module->host().exists(Module::stateFile("3ware.log")))
            return refused(call, module->dir() + ": this module has no tw controller, so no log of it");
        for (const std::string& line : textLines(module->readState("3ware.log")))
            if (w.has("--hex") || line.compare(0, 2, "  ") != 0) std::cout << line << "\n";
        return kDone;
    }
    std::vector<std::string> given;
    for (const char* name : {"--ata", "--md", "--dsp", "--charon"})
        if (w.has(name)) given.push_back(name);
    if (given.size() > 1) return badUsage(call, listed(given) + " exclude each other");
    if (w.has("--dsp") && !module->host().exists(Module::stateFile("dsp.log")))
        return refused(call, module->dir() + ": this module has no chassis controller, so no log of it");
    if (w.has("--charon") && !module->host().exists(Module::stateFile("charon.log")))
        return refused(call, module->dir() + ": this module has no hot-swap driver, so no log of it");
    std::cout << module->readState(w.has("--ata") ? "ata.log" : w.has("--md") ? "md.log" : w.has("--dsp") ? "dsp.log" : w.has("--charon") ? "charon.log" : "commands.log");
    return kDone;
}

int runRun(const Call& call)
{
    Words w;
    int status = splitWords(call, {}, true, w);
    if (status) return status;
    if (w.dashDash && (status = expectPositional(call, w, 1, 1))) return status;
    if (!w.dashDash && (status = expectPositional(call, w, 2, SIZE_MAX))) return status;
    std::vector<std::string> program = w.dashDash ? w.rest : std::vector<std::string>(w.positional.begin() + 1, w.positional.end());
    if (program.empty()) return badUsage(call, "no program given");
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    if (!findProgram(program[0])) {
        std::vector<std::string> names = programNames();
        return refused(call, "no program " + cell(program[0]) + "; " +
                                 (names.empty() ? "no program of the system is built into this tavsim yet"
                                                : "this tavsim can run " + listed(names)));
    }
    return runProgram(module->dir(), program);
}

} // namespace sim::cli

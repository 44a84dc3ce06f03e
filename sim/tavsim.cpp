#include "tavsim.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "create.h"
#include "faults.h"
#include "hwlib/tavhwid.h"
#include "module.h"
#include "programs.h"
#include "sim_platform.h"
#include "sign.h"
#include "tavutils/tavdrivesig.h"

namespace sim {
namespace {

const char kHelp[] =
    "usage: tavsim COMMAND DIR [ARGS]\n"
    "\n"
    "A simulated module is one directory DIR. Commands:\n"
    "\n"
    "  create DIR --platform ID [--serial S] [--sectors N] [--feature SECTION:KEY=VALUE]...\n"
    "         [--no-drives]\n"
    "      Make a module of platform ID (1, 3, 4 and identifiers without a layout of\n"
    "      their own; the other families come later) in DIR, which must be absent or\n"
    "      empty: a blank drive of its own serial number in every bay, N sectors each\n"
    "      (default 156301488), the module serial number S in\n"
    "      configs/etc/marrowby/system/.serialnumber, and the model's identity: PCI\n"
    "      list, model table, NVRAM rows, feature files, network interfaces, sysfs.\n"
    "      Each --feature goes into the model's features.conf. --no-drives makes a\n"
    "      module of any ID 1 to 15 with its identity files and no bays.\n"
    "  show DIR\n"
    "      Platform, the model the system recognises (ID CONFIG NAME), module\n"
    "      serial number, clock, each bay with its device, numbers,\n"
    "      drive serial number, size, partitions, firmware and model; drives on the\n"
    "      shelf;\n"
    "      armed faults.\n"
    "  pull DIR BAY\n"
    "      Take the drive out of BAY and put it on the shelf.\n"
    "  insert DIR BAY [SERIAL]\n"
    "      Put drive SERIAL from the shelf into the empty BAY, or a new blank drive.\n"
    "  swap DIR BAY1 BAY2\n"
    "      Exchange the drives of two bays (either may be empty).\n"
    "  corrupt DIR BAY|DEVICE OFFSET HEX\n"
    "      Overwrite bytes at OFFSET of the disk of BAY or of a device node such as\n"
    "      /dev/ide/host0/bus0/target0/lun0/part1, HEX giving the bytes (\"deadbeef\").\n"
    "  fault DIR OP PATH [nth=N] [times=K] [request=R] errno=E|short=N|powercut\n"
    "      Arm a fault on calls OP (open read write lseek fsync ioctl stat unlink\n"
    "      rename, the last by its source) of PATH\n"
    "      (a path, a prefix ending in *, or *): from the Nth matching call of a\n"
    "      process (default 1) K calls (default 1, -1 all) fail with errno E (EIO,\n"
    "      EINTR, ENOSPC, ENODEV, ...), transfer at most N bytes, or (write only)\n"
    "      cut the power: that write and all later ones of the process are lost.\n"
    "  fault DIR --list | --clear\n"
    "      List or remove the armed faults.\n"
    "  partition DIR\n"
    "      Partition every drive in a bay with the system's own table builder and\n"
    "      the families' sizes (os 2097152, os2 2097152, log 98304, boot 20480\n"
    "      sectors, data the rest), ready for signatures.\n"
    "  sign DIR [--time T]\n"
    "      Give every drive in a bay the signature of a freshly installed module,\n"
    "      both stamps T (default: the virtual clock).\n"
    "  log DIR [--ata]\n"
    "      Print the command log (\"TIME system|popen STATUS [unknown] COMMAND\"), or\n"
    "      the ATA command log.\n"
    "  run DIR -- PROGRAM [ARGS...]\n"
    "      Run a program of the system in this process with the module as its\n"
    "      platform; exits with its result.\n"
    "  --help\n"
    "      This text.\n";

int usage(const std::string& why)
{
    std::cerr << "tavsim: " << why << "\n(tavsim --help tells the commands)\n";
    return 2;
}

bool toInt(const std::string& s, int& out)
{
    uint64_t n = 0;
    if (s == "-1") {
        out = -1;
        return true;
    }
    if (!parseNumber(s, n) || n > 1000000) return false;
    out = static_cast<int>(n);
    return true;
}

// The model as the system's identity code sees it in the module.
std::string recognisedModel(Module& module)
{
    SimPlatform platform(module.dir());
    plat::ScopedPlatform scope(platform);
    char name[256] = "", config[256] = "";
    if (hwid_getModelName(nullptr, name, sizeof name - 1) != 0) return "UNKNOWN";
    hwid_getModelConfigName(nullptr, config, sizeof config - 1);
    return std::to_string(hwid_getModelId(nullptr)) + " " + config + " " + name;
}

int show(Module& module)
{
    Manifest m = module.manifest();
    std::cout << "module " << module.dir() << "\n"
              << "platform " << m.platform << "\n"
              << "model " << recognisedModel(module) << "\n"
              << "serial " << m.moduleSerial << "\n"
              << "clock " << module.now().tv_sec << "\n"
              << "BAY DEVICE MAJOR:MINOR SERIAL SECTORS PARTITIONS FIRMWARE MODEL\n";
    for (const Bay& b : m.bays) {
        const Drive* d = m.driveInBay(b.number);
        std::cout << b.number << " " << b.device << " " << b.major << ":" << b.minor << " ";
        if (!d) {
            std::cout << "- - - - (empty)\n";
            continue;
        }
        std::string parts;
        for (const Window& w : module.windows(b.number)) parts += (parts.empty() ? "" : ",") + std::to_string(w.number);
        std::cout << d->serial << " " << d->sectors << " " << (parts.empty() ? "-" : parts) << " "
                  << (d->firmware.empty() ? "-" : d->firmware) << " " << d->model << "\n";
    }
    for (const BayVerdict& v : bayVerdicts(module.dir()))
        std::cout << "verdict " << v.bay << " " << formatVerdict(v) << "\n";
    for (const Drive& d : m.drives)
        if (d.bay == 0) std::cout << "shelf " << d.serial << " " << d.sectors << " " << d.model << "\n";
    for (const Fault& f : parseFaults(module.readState("faults"))) std::cout << "fault " << f.format() << "\n";
    return 0;
}

bool parseHex(const std::string& hex, std::string& bytes)
{
    if (hex.empty() || hex.size() % 2) return false;
    bytes.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        char pair[3] = {hex[i], hex[i + 1], 0};
        char* end = nullptr;
        long v = std::strtol(pair, &end, 16);
        if (*end != '\0' || pair[0] == '-' || pair[0] == '+' || pair[0] == ' ') return false;
        bytes += static_cast<char>(v);
    }
    return true;
}

// Every drive in a bay gets the families' table, through the system's own code.
int partition(Module& module)
{
    Manifest m = module.manifest();
    SimPlatform platform(module.dir());
    plat::ScopedPlatform scope(platform);
    int failed = 0;
    for (const Bay& b : m.bays) {
        if (!m.driveInBay(b.number)) continue;
        int rc = buildPartitions(b.device.c_str(), 2097152, 2097152, 0, 98304, 20480, false);
        if (rc != 0) {
            std::cerr << "tavsim: bay " << b.number << ": the table builder gave " << rc << "\n";
            failed = 1;
        }
    }
    return failed;
}

int report(const std::string& err)
{
    if (err.empty()) return 0;
    std::cerr << "tavsim: " << err << "\n";
    return 1;
}

} // namespace

int tavsimMain(int argc, char** argv)
{
    std::vector<std::string> a(argv + 1, argv + argc);
    if (a.empty()) return usage("no command");
    if (a[0] == "--help" || a[0] == "-h" || a[0] == "help") {
        std::cout << kHelp;
        return 0;
    }
    if (a.size() < 2) return usage("no module directory");
    const std::string& cmd = a[0];
    const std::string& dir = a[1];

    if (cmd == "create") {
        CreateOptions options;
        bool havePlatform = false;
        for (size_t i = 2; i < a.size(); ++i) {
            uint64_t n = 0;
            if (a[i] == "--platform" && i + 1 < a.size() && toInt(a[i + 1], options.platform)) havePlatform = true, ++i;
            else if (a[i] == "--serial" && i + 1 < a.size() && !a[i + 1].empty()) options.moduleSerial = a[++i];
            else if (a[i] == "--sectors" && i + 1 < a.size() && parseNumber(a[i + 1], n)) options.sectors = n, ++i;
            else if (a[i] == "--no-drives") options.identityOnly = true;
            else if (a[i] == "--feature" && i + 1 < a.size()) {
                FeatureSetting f;
                std::string why;
                if (!parseFeature(a[++i], f, why)) return usage("create: " + why);
                options.features.push_back(f);
            } else return usage("create: bad argument " + a[i]);
        }
        if (!havePlatform) return usage("create: --platform ID is needed");
        return report(createModule(dir, options));
    }

    if (!Module::isModule(dir)) return report(dir + " is no simulated module");
    Module module(dir);
    int bay = 0, other = 0;
    if (cmd == "show" && a.size() == 2) return show(module);
    if (cmd == "partition" && a.size() == 2) return partition(module);
    if (cmd == "sign" && a.size() == 2) return report(signModule(dir, std::nullopt));
    if (cmd == "sign" && a.size() == 4 && a[2] == "--time") {
        uint64_t t = 0;
        if (!parseNumber(a[3], t) || t > INT64_MAX) return usage("sign: bad time " + a[3]);
        return report(signModule(dir, static_cast<int64_t>(t)));
    }
    if (cmd == "pull" && a.size() == 3 && toInt(a[2], bay)) return report(module.pull(bay));
    if (cmd == "insert" && (a.size() == 3 || a.size() == 4) && toInt(a[2], bay))
        return report(module.insert(bay, a.size() == 4 ? a[3] : ""));
    if (cmd == "swap" && a.size() == 4 && toInt(a[2], bay) && toInt(a[3], other)) return report(module.swap(bay, other));
    if (cmd == "corrupt" && a.size() == 5) {
        std::string device = a[2], bytes;
        uint64_t offset = 0;
        if (toInt(a[2], bay)) {
            Manifest m = module.manifest();
            const Bay* b = m.bay(bay);
            if (!b) return report("no bay " + a[2]);
            device = b->device;
        }
        if (!parseNumber(a[3], offset)) return usage("corrupt: bad offset " + a[3]);
        if (!parseHex(a[4], bytes)) return usage("corrupt: bad bytes " + a[4]);
        return report(module.overwrite(device, offset, bytes));
    }
    if (cmd == "fault" && a.size() == 3 && (a[2] == "--list" || a[2] == "--clear")) {
        if (a[2] == "--clear") {
            Module::Lock lock(module);
            module.writeState("faults", "");
        } else {
            std::cout << module.readState("faults");
        }
        return 0;
    }
    if (cmd == "fault" && a.size() >= 4) {
        std::string line;
        for (size_t i = 2; i < a.size(); ++i) line += (i > 2 ? " " : "") + a[i];
        Fault f;
        std::string why;
        if (!Fault::parse(line, f, why)) return usage("fault: " + why);
        Module::Lock lock(module);
        module.appendState("faults", f.format());
        return 0;
    }
    if (cmd == "log" && (a.size() == 2 || (a.size() == 3 && a[2] == "--ata"))) {
        std::cout << module.readState(a.size() == 3 ? "ata.log" : "commands.log");
        return 0;
    }
    if (cmd == "run" && a.size() >= 4 && a[2] == "--") {
        std::vector<std::string> args(a.begin() + 3, a.end());
        if (!findProgram(args[0])) {
            std::string known;
            for (const std::string& n : programNames()) known += " " + n;
            return report("no program " + args[0] + (known.empty() ? " (none is registered)" : "; known:" + known));
        }
        return runProgram(dir, args);
    }
    return usage("bad command line for " + cmd);
}

} // namespace sim

// tavsim 3ware: the tw controllers whole, and changes to them.
#include <cctype>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <map>

#include "manifest.h"
#include "table.h"
#include "tavsim_cli.h"
#include "tw_config.h"
#include "tw_kernel.h"
#include "tw_ata.h"
#include "tw_state.h"
#include "tw_tasks.h"

namespace sim::cli {
namespace {

// The serial of the drive now in the port's bay (tw_state.h), "" none.
std::string realSerial(const Manifest& m, const tw::Controller& c, int port)
{
    const Drive* d = tw::driveOfPort(m, c, port);
    return d ? d->serial : "";
}

void printController(const tw::Controller& c, const std::vector<tw::KernelDisk>& disks, const Manifest& m, uint64_t nowUs)
{
    std::cout << "controller " << c.index << ": family " << c.family << ", host " << c.host << ", driver "
              << c.driverName() << " (" << c.nodePrefix() << ", major " << c.major() << ")\n\n";
    Table values({"KEY", "VALUE"});
    for (const tw::KeyInfo& k : tw::keys())
        if (c.values.count(k.key)) values.add({k.key, c.get(k.key)});
    for (const auto& [key, value] : c.values) {
        bool known = false;
        for (const tw::KeyInfo& k : tw::keys()) known = known || key == k.key;
        if (!known) values.add({key, value});
    }
    values.print(std::cout);
    std::cout << "\n";
    Table ports({"PORT", "DRIVE", "STATUS", "FOUND-SERIAL", "FOUND-FIRMWARE", "FOUND-SECTORS", "FOUND-MODEL", "REAL-SERIAL"});
    for (const tw::Port& p : c.ports)
        ports.add({std::to_string(p.number), p.drive, p.drive.empty() ? "" : std::to_string(p.status), p.foundSerial,
                   p.foundFirmware, p.foundSerial.empty() ? "" : std::to_string(p.foundSectors), p.foundModel,
                   realSerial(m, c, p.number)});
    ports.print(std::cout);
    std::cout << "\n";
    Table units({"UNIT", "CONFIG", "MODE", "PORTS", "STRIPE", "CAPACITY", "RCACHE", "WCACHE", "ECC", "AUTOVERIFY",
                 "PERCENT", "KERNEL", "TREE"});
    for (const tw::Unit& u : c.units) {
        std::string ports;
        for (int p : u.ports) ports += (ports.empty() ? "" : ",") + (p < 0 ? std::string("-") : std::to_string(p));
        std::string kernel;
        for (const tw::KernelDisk& d : disks)
            if (d.host == c.host && d.id == u.number) kernel = "sd" + std::string(1, static_cast<char>('a' + d.index % 26));
        units.add({std::to_string(u.number), std::to_string(u.config), u.mode, ports, std::to_string(u.stripe),
                   std::to_string(u.capacity), std::to_string(u.readCache), std::to_string(u.writeCache),
                   std::to_string(u.ecc), std::to_string(u.autoVerify), std::to_string(tw::livePercent(c, u, nowUs)), kernel,
                   tw::formatTree(u.tree)});
    }
    units.print(std::cout);
    std::cout << "\nlock: " << (c.lockHolder.empty() ? "none" : c.lockHolder + " until " + std::to_string(c.lockExpires))
              << "\nevents: " << c.events.size() << "\n";
    for (const tw::Event& e : c.events)
        std::cout << "  " << e.sequence << " time " << e.time << " code " << e.code << " severity " << int(e.severity)
                  << " " << e.text << "\n";
    for (const tw::TwFault& f : c.faults) std::cout << f.format() << "\n";
    std::cout << "\n";
}

// KEY=VALUE on controller C ("c1.KEY=VALUE"; c0 when not given).
int applySet(const Call& call, Module& module, const std::string& word)
{
    std::string key = word.substr(0, word.find('='));
    if (key.size() == word.size()) return badUsage(call, cell(word) + ": not KEY=VALUE");
    std::string value = word.substr(key.size() + 1);
    int index = 0;
    if (key.size() > 2 && key[0] == 'c' && std::isdigit(static_cast<unsigned char>(key[1])) && key.find('.') != std::string::npos) {
        index = std::atoi(key.c_str() + 1);
        key = key.substr(key.find('.') + 1);
    }
    std::string why;
    // portN.smart=on|off|exceeded|ok: the drive's own state, not the controller's.
    if (key.rfind("port", 0) == 0 && key.size() > 10 && key.substr(key.size() - 6) == ".smart") {
        uint64_t port = 0;
        const tw::Controller* c = nullptr;
        for (const tw::Controller& each : tw::twView(module).controllers())
            if (each.index == index) c = &each;
        const Manifest m = module.manifest();
        const Drive* d = c && parseNumber(key.substr(4, key.size() - 10), port) && port < 32
                             ? tw::driveOfPort(m, *c, static_cast<int>(port))
                             : nullptr;
        if (!d) return badUsage(call, key + ": no such port, or no drive in its bay");
        if (!tw::setSmart(module, d->serial, value)) return badUsage(call, key + "=" + cell(value) + ": on, off, exceeded or ok");
        report("drive " + d->serial + " of port " + std::to_string(port) + ": SMART " + value);
        return kDone;
    }
    bool ok = tw::twView(module).update(index, [&](tw::Controller& c) {
        if (key == "fault") {
            // fault=firmware:times=N,status=S,... as the state file's line has it
            std::string line = "fault " + value;
            for (char& ch : line)
                if (ch == ',' || ch == ':') ch = ' ';
            tw::Controller parsed = tw::parseController(line, index);
            if (parsed.faults.empty()) {
                why = cell(value) + ": not a fault (firmware|driver|answer:FIELD=VALUE,...)";
                return false;
            }
            c.faults.push_back(parsed.faults[0]);
        } else if (key.rfind("port", 0) == 0 && key.size() > 11 && key.substr(key.size() - 7) == ".status") {
            // portN.status=B: the drive's status byte (255 good, 0 failed, 254 unsupported)
            uint64_t port = 0, b = 0;
            tw::Port* p = parseNumber(key.substr(4, key.size() - 11), port) && port < 32 ? c.port(static_cast<int>(port)) : nullptr;
            if (!p || !parseNumber(value, b) || b > 255) {
                why = key + "=" + cell(value) + ": no such port, or not a byte";
                return false;
            }
            p->status = static_cast<int>(b);
        } else if (key.rfind("unit", 0) == 0 && key.find('.') != std::string::npos) {
            // unitN.mode=M, unitN.tree=T, unitN.percent=P
            uint64_t number = 0;
            const std::string field = key.substr(key.find('.') + 1);
            tw::Unit* u = parseNumber(key.substr(4, key.find('.') - 4), number) && number < 16
                              ? c.unit(static_cast<int>(number))
                              : nullptr;
            uint64_t percent = 0;
            tw::TreeNode tree;
            if (!u) {
                why = key + ": no such unit";
                return false;
            } else if (field == "mode" && !value.empty()) {
                u->mode = value;
            } else if (field == "tree" && tw::parseTree(value, tree)) {
                u->tree = tree;
                u->ports = tw::treePorts(tree);
            } else if (field == "percent" && parseNumber(value, percent) && percent <= 100) {
                u->percent = static_cast<int>(percent);
            } else {
                why = key + "=" + cell(value) + ": a unit takes mode=M, tree=T or percent=0..100";
                return false;
            }
        } else if (key == "event") {
            // event=CODE:SEVERITY:TEXT, raised now with the next sequence number
            const size_t a = value.find(':'), b = a == std::string::npos ? a : value.find(':', a + 1);
            uint64_t code = 0, severity = 0;
            if (b == std::string::npos || !parseNumber(value.substr(0, a), code) || code == 0 || code > 0xFFFF ||
                !parseNumber(value.substr(a + 1, b - a - 1), severity) || severity < 1 || severity > 4) {
                why = cell(value) + ": not CODE:SEVERITY:TEXT (code 1 to 65535, severity 1 to 4)";
                return false;
            }
            tw::raiseEvent(c, module.nowUs(), static_cast<uint16_t>(code), static_cast<uint8_t>(severity), value.substr(b + 1));
        } else if (key == "faults" && value == "none") {
            c.faults.clear();
        } else if (key == "lock") {
            // HOLDER:SECONDS from now, or none
            if (value == "none") {
                c.lockHolder.clear();
                c.lockExpires = 0;
            } else {
                size_t colon = value.find(':');
                uint64_t seconds = 0;
                if (colon == std::string::npos || !parseNumber(value.substr(colon + 1), seconds)) {
                    why = cell(value) + ": not HOLDER:SECONDS";
                    return false;
                }
                c.lockHolder = value.substr(0, colon);
                c.lockExpires = module.nowUs() + seconds * 1000000;
            }
        } else {
            bool known = false;
            for (const tw::KeyInfo& k : tw::keys()) known = known || key == k.key;
            if (!known && key != "proc-scsi") {
                why = cell(key) + ": no such key";
                return false;
            }
            // A number stays a number; the charge voltage is a code 0 to 4.
            const std::string was = c.get(key);
            int64_t n = 0;
            const bool numeric = !was.empty() && parseSigned(was, INT64_MIN + 1, INT64_MAX, n);
            if ((numeric || key == "proc-scsi") && !parseSigned(value, INT64_MIN + 1, INT64_MAX, n)) {
                why = key + "=" + cell(value) + ": not a decimal number";
                return false;
            }
            if (key == "charge-voltage" && (n < 0 || n > 4)) {
                why = "charge-voltage=" + value + ": a code 0 to 4";
                return false;
            }
            c.set(key, value);
        }
        return true;
    });
    if (!why.empty()) return badUsage(call, why);
    if (!ok) return refused(call, "no controller " + std::to_string(index));
    report("controller " + std::to_string(index) + ": " + key + " = " + value);
    return kDone;
}

} // namespace

int runTw(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 1, SIZE_MAX, w, status);
    if (!module) return status;
    if (tw::twView(*module).controllers().empty()) return refused(call, module->dir() + ": this module has no tw controller");
    if (w.positional.size() > 1) {
        if (w.positional[1] != "set" || w.positional.size() < 3) return badUsage(call, "expected: set KEY=VALUE...");
        for (size_t i = 2; i < w.positional.size(); ++i)
            if (int s = applySet(call, *module, w.positional[i])) return s;
        tw::syncKernelFiles(*module);
        return kDone;
    }
    tw::twView(*module).settle();
    const std::vector<tw::KernelDisk> disks = tw::kernelDisks(*module);
    const Manifest m = module->manifest();
    for (const tw::Controller& c : tw::twView(*module).controllers()) printController(c, disks, m, module->nowUs());
    std::cout << "kernel:\n" << tw::procScsiText(*module);
    // The units the drives carry (tw_config.h), wherever the drives are.
    const std::map<std::string, tw::Carried> carried = tw::readCarried(*module);
    if (!carried.empty()) {
        Table table({"DRIVE", "UNIT", "CONFIG", "STRIPE", "SLOT", "OF", "CAPACITY", "KEY"});
        for (const auto& [serial, k] : carried)
            table.add({serial, std::to_string(k.unit), std::to_string(k.config), std::to_string(k.stripe),
                       std::to_string(k.slot), std::to_string(k.of), std::to_string(k.capacity), k.key});
        std::cout << "\ncarried:\n";
        table.print(std::cout);
    }
    return kDone;
}

} // namespace sim::cli

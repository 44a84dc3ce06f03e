// tavsim charon: the hot-swap driver as a technician reads it, and return
// codes injected for its coming requests.
#include <climits>
#include <iostream>
#include <stdexcept>

#include "charon.h"
#include "json.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

std::string attachment(bool active) { return active ? "active" : "detached"; }
// A device is found or absent as the last rescan left it, while its
// interface is attached.
std::string deviceText(bool interfaceActive, bool found)
{
    return !interfaceActive ? "detached" : found ? "found" : "absent";
}
std::string channel(size_t i) { return "host0/bus" + std::to_string(i); }

std::string requestText(unsigned long request)
{
    const char* name = charon::requestName(request);
    return std::to_string(request) + (name ? std::string(" (") + name + ")" : "");
}

std::string timesText(int64_t times) { return times < 0 ? "without end" : std::to_string(times); }

void printState(const CharonState& s)
{
    std::cout << "hot-swap driver " << kCharonNode << ": debug " << (s.debug ? "on" : "off") << "\n\n";
    std::vector<std::string> headers = {"INTERFACE", "CHANNEL", "STATE"};
    for (unsigned d = 0; d < kCharonDevicesPerInterface; ++d) headers.push_back("DEVICE" + std::to_string(d));
    Table t(headers);
    for (size_t i = 0; i < s.interfaces.size(); ++i) {
        const bool active = s.interfaces[i].active;
        std::vector<std::string> row = {std::to_string(i), channel(i), attachment(active)};
        for (bool d : s.interfaces[i].devices) row.push_back(deviceText(active, d));
        t.add(row);
    }
    t.print(std::cout);
    std::cout << "\n";
    if (s.injections.empty()) {
        std::cout << "injected codes: none\n";
        return;
    }
    std::cout << "injected codes, the first match answered:\n";
    Table j({"INTERFACE", "REQUEST", "CODE", "TIMES"});
    for (const CharonInjection& x : s.injections)
        j.add({std::to_string(x.interface), std::to_string(x.request), std::to_string(x.code), timesText(x.times)});
    j.print(std::cout);
}

void writeJson(const CharonState& s)
{
    JsonWriter j(std::cout);
    j.beginObject();
    j.key("node").string(kCharonNode);
    j.key("debug").boolean(s.debug);
    j.key("interfaces").beginArray();
    for (size_t i = 0; i < s.interfaces.size(); ++i) {
        j.beginObject();
        j.key("interface").unsignedNumber(i).key("channel").string(channel(i));
        j.key("active").boolean(s.interfaces[i].active);
        j.key("devices").beginArray();
        for (size_t d = 0; d < s.interfaces[i].devices.size(); ++d) {
            j.beginObject();
            j.key("device").unsignedNumber(d).key("found").boolean(s.interfaces[i].active && s.interfaces[i].devices[d]);
            j.endObject();
        }
        j.endArray();
        j.endObject();
    }
    j.endArray();
    j.key("injected").beginArray();
    for (const CharonInjection& x : s.injections) {
        j.beginObject();
        j.key("interface").unsignedNumber(x.interface).key("request").unsignedNumber(x.request);
        j.key("code").number(x.code).key("times").number(x.times);
        j.endObject();
    }
    j.endArray();
    j.endObject();
}

// tavsim charon DIR fail IF REQUEST CODE [times=K]
int inject(const Call& call, Module& module, const std::vector<std::string>& a)
{
    if (a.size() < 3 || a.size() > 4) return badUsage(call, "fail: give IF REQUEST CODE [times=K], or --clear");
    std::string why;
    uint64_t iface = 0, request = 0, magnitude = 0, times = 1;
    if (!decimal("IF", a[0], 0, kCharonInterfaces - 1, iface, why)) return badUsage(call, why + " (the interfaces)");
    if (!decimal("REQUEST", a[1], 0, UINT32_MAX, request, why) || !charon::takesRecord(request))
        return badUsage(call, "REQUEST " + cell(a[1]) +
                                  ": give 160, 161, 208 or 209 (the requests with a record; the debug requests "
                                  "fail with tavsim fault)");
    const bool negative = a[2].size() > 1 && a[2][0] == '-';
    if (!decimal("CODE", negative ? a[2].substr(1) : a[2], 0, negative ? 2147483648u : 2147483647u, magnitude, why))
        return badUsage(call, "CODE " + cell(a[2]) + ": give a decimal int, -2147483648 to 2147483647");
    const int code = negative ? static_cast<int>(-static_cast<int64_t>(magnitude)) : static_cast<int>(magnitude);
    bool endless = false;
    if (a.size() == 4) {
        if (a[3].rfind("times=", 0) != 0) return badUsage(call, "unexpected argument " + cell(a[3]) + "; give times=K");
        const std::string k = a[3].substr(6);
        endless = k == "-1";
        if (!endless && !decimal("times", k, 1, INT_MAX, times, why)) return badUsage(call, why + ", or -1 without end");
    }
    const int64_t count = endless ? -1 : static_cast<int64_t>(times);
    charonInject(module, static_cast<unsigned>(iface), request, code, count);
    report("request " + requestText(request) + " on interface " + a[0] + " answers " + std::to_string(code) + ", " +
           (endless ? "without end" : timesText(count) + (count == 1 ? " time" : " times")) +
           "; the request does nothing meanwhile");
    return kDone;
}

} // namespace

const char kCharonHelp[] =
    "Prints the hot-swap driver (/dev/charon): its debug flag, each IDE interface\n"
    "(0 is host0/bus0, 1 host0/bus1), active or detached, and each device on it\n"
    "(by target): found or absent as the last rescan left it, or detached with\n"
    "its interface; and the return codes injected.\n"
    "\n"
    "  --json               the same as one JSON document\n"
    "\n"
    "tavsim charon DIR fail IF REQUEST CODE [times=K] makes the driver answer\n"
    "CODE (any int, -2147483648 to 2147483647) to the next K requests REQUEST\n"
    "(160 activate-if, 161 deactivate-if, 208 activate-dev, 209 deactivate-dev)\n"
    "on interface IF (0 or 1), instead of doing them. K is 1 to 2147483647, or -1\n"
    "without end; default 1. The first code armed for a request and interface is\n"
    "answered first. tavsim charon DIR fail --clear drops every code injected.\n"
    "The node's open and ioctl fail with an errno through tavsim fault.\n"
    "\n"
    "The driver's own answers: 0 done; -3 a detach of what is detached already;\n"
    "-19 an interface or device that does not exist; -6 an attach of a device\n"
    "whose interface is detached; -5 an attach of a device that no drive answers\n"
    "for; -22 an interface request whose device is not 0xfffffff. A detach takes\n"
    "the drives' nodes away. An attach of an interface rescans it: a device is\n"
    "found iff its bay holds a drive that the DSP has powered, and its table and\n"
    "identity are read again. A request the driver does not know fails with\n"
    "ENOTTY. Every request and its record go to sim/charon.log.\n";

int runCharon(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}, {"--clear", nullptr}}, 1, 6, w, status);
    if (!module) return status;
    const bool failing = w.positional.size() > 1;
    if (failing && w.positional[1] != "fail")
        return badUsage(call, "unexpected argument " + cell(w.positional[1]) + "; tavsim charon DIR fail ...");
    if (w.has("--json") && (failing || w.has("--clear"))) return badUsage(call, "--json goes with the state, not with fail");
    if (w.has("--clear") && (!failing || w.positional.size() > 2))
        return badUsage(call, "--clear goes alone after fail: tavsim charon DIR fail --clear");
    if (!charonPresent(*module))
        return refused(call, module->dir() + ": this module has no hot-swap driver (platform " +
                                 std::to_string(module->manifest().platform) + "; the IDE platforms 1, 3 and 4 have one)");
    if (w.has("--clear")) {
        const size_t n = charonClearInjections(*module);
        report(n ? "dropped " + std::to_string(n) + (n == 1 ? " injected code" : " injected codes") : "no code was injected");
        return kDone;
    }
    if (failing) return inject(call, *module, std::vector<std::string>(w.positional.begin() + 2, w.positional.end()));
    const CharonState s = charonState(*module);
    if (w.has("--json")) writeJson(s);
    else printState(s);
    return kDone;
}

} // namespace sim::cli

// tavsim net: the module's network interfaces (sim/interfaces) as a table,
// or one interface changed, added or taken away.
#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "json.h"
#include "net_interfaces.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

const char kNetHelp[] =
    "Without more arguments, prints the module's network interfaces as the\n"
    "system's interface queries see them: a table NAME STATE ADDRESS NETMASK\n"
    "HWADDR MTU (--json: an array). Their addresses are only texts to the\n"
    "system: nothing is ever sent to them.\n"
    "\n"
    "set IFACE [address=A] [netmask=M] [hwaddr=H] [up|down]   changes IFACE\n"
    "add IFACE [address=A] [netmask=M] [hwaddr=H] [up|down]   adds it, at the end\n"
    "del IFACE                                                 takes it away\n"
    "\n"
    "A and M are dotted IPv4 addresses, H six hex bytes (02:4F:00:00:00:01). An\n"
    "interface without an address answers address queries with EADDRNOTAVAIL.\n";

namespace {

std::string dotted(uint32_t address)
{
    char text[INET_ADDRSTRLEN] = "";
    in_addr in{};
    in.s_addr = address;
    inet_ntop(AF_INET, &in, text, sizeof text);
    return text;
}

std::string mac(const unsigned char* bytes)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                  bytes[5]);
    return text;
}

bool isMac(const std::string& text)
{
    if (text.size() != 17) return false;
    for (size_t i = 0; i < 17; ++i)
        if (i % 3 == 2 ? text[i] != ':' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    return true;
}

std::vector<std::string> words(const std::string& line)
{
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// The line's KEY=VALUE words changed by `changes` (up/down change the "up"
// of its flags and keep the others).
std::string changed(const std::vector<std::string>& line, const std::vector<std::string>& changes)
{
    std::vector<std::string> out = line;
    for (const std::string& c : changes) {
        if (c == "up" || c == "down") {
            std::string flags;
            size_t at = out.size();
            for (size_t i = 1; i < out.size(); ++i)
                if (out[i].rfind("flags=", 0) == 0) at = i, flags = out[i].substr(6);
            std::string kept;
            std::istringstream in(flags);
            for (std::string f; std::getline(in, f, ',');)
                if (f != "up" && f != "down" && !f.empty()) kept += (kept.empty() ? "" : ",") + f;
            if (c == "up") kept = kept.empty() ? "up" : "up," + kept;
            std::string word = "flags=" + (kept.empty() ? std::string("down") : kept);
            if (at == out.size())
                out.push_back(word);
            else
                out[at] = word;
            continue;
        }
        std::string key = c.substr(0, c.find('=') + 1);
        bool found = false;
        for (size_t i = 1; i < out.size(); ++i)
            if (out[i].rfind(key, 0) == 0) out[i] = c, found = true;
        if (!found) out.push_back(c);
    }
    std::string text;
    for (const std::string& w : out) text += (text.empty() ? "" : " ") + w;
    return text;
}

} // namespace

int runNet(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}}, 1, SIZE_MAX, w, status);
    if (!module) return status;
    const std::vector<std::string>& p = w.positional;
    if (p.size() == 1) {
        std::vector<Interface> all = parseInterfaces(module->readState("interfaces"));
        if (w.has("--json")) {
            JsonWriter j(std::cout);
            j.beginArray();
            for (const Interface& i : all) {
                j.beginObject().key("name").string(i.name).key("up").boolean(i.up).key("master").boolean(i.master);
                j.key("address").string(i.hasAddress ? dotted(i.address) : "");
                j.key("netmask").string(i.hasAddress ? dotted(i.netmask) : "");
                j.key("hwaddr").string(mac(i.hwaddr)).key("mtu").number(i.mtu).endObject();
            }
            j.endArray();
            return kDone;
        }
        Table t({"NAME", "STATE", "ADDRESS", "NETMASK", "HWADDR", "MTU"});
        for (const Interface& i : all)
            t.add({i.name, std::string(i.up ? "up" : "down") + (i.master ? ",master" : ""),
                   i.hasAddress ? dotted(i.address) : "", i.hasAddress ? dotted(i.netmask) : "", mac(i.hwaddr),
                   std::to_string(i.mtu)});
        t.print(std::cout);
        return kDone;
    }
    const std::string& verb = p[1];
    if (verb != "set" && verb != "add" && verb != "del")
        return badUsage(call, "unexpected argument " + cell(verb) + "; give set, add or del");
    if (p.size() < 3) return badUsage(call, verb + ": give IFACE");
    const std::string& name = p[2];
    if (name.size() >= 16 || name.find_first_of(" \t=/") != std::string::npos)
        return badUsage(call, cell(name) + ": an interface name is at most 15 characters, without blanks, = or /");
    std::vector<std::string> changes(p.begin() + 3, p.end());
    if (verb == "del" && !changes.empty()) return badUsage(call, "del: give IFACE alone");
    for (const std::string& c : changes) {
        if (c == "up" || c == "down") continue;
        size_t eq = c.find('=');
        std::string key = eq == std::string::npos ? c : c.substr(0, eq);
        std::string value = eq == std::string::npos ? "" : c.substr(eq + 1);
        in_addr ignored{};
        if ((key == "address" || key == "netmask") && inet_pton(AF_INET, value.c_str(), &ignored) == 1) continue;
        if (key == "hwaddr" && isMac(value)) continue;
        return badUsage(call, cell(c) + ": give address=A, netmask=M (dotted IPv4), hwaddr=H (six hex bytes), up or down");
    }
    std::string why;
    module->updateState("interfaces", [&](std::string& text) {
        std::istringstream in(text);
        std::string out, line;
        bool found = false;
        while (std::getline(in, line)) {
            std::vector<std::string> ws = words(line);
            if (ws.empty() || ws[0] != name) {
                out += line + "\n";
                continue;
            }
            found = true;
            if (verb == "set") out += changed(ws, changes) + "\n";
            if (verb == "add") out += line + "\n";
        }
        if (verb == "add") {
            if (found) {
                why = "the module has an interface " + name;
                return false;
            }
            std::vector<std::string> fresh = {name, "hwaddr=02:00:00:00:00:00", "flags=down", "mtu=1500"};
            out += changed(fresh, changes) + "\n";
        } else if (!found) {
            why = "the module has no interface " + name;
            return false;
        }
        text = out;
        return true;
    });
    if (!why.empty()) return refused(call, why);
    report(std::string(verb == "del" ? "took away" : verb == "add" ? "added" : "changed") + " interface " + name);
    return kDone;
}

} // namespace sim::cli

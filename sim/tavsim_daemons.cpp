// tavsim daemons: the module's three daemons laid in, shown and killed.
#include <iostream>

#include "daemons.h"
#include "manager_programs.h"
#include "json.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

const char kDaemonsHelp[] =
    "The module's three daemons, store, vmgr and mgr, are bash scripts inside the\n"
    "module that the system's process supervisor runs as real processes.\n"
    "\n"
    "install [--fail TYPE]\n"
    "            lays in the scripts (DIR/daemons/ondrastore, ondravmgr, ondramgr),\n"
    "            the Init, Daemon and Deinit configuration files of each type\n"
    "            (under /etc/marrowby/store, virtualmanager and manager), the\n"
    "            restart limits /etc/marrowby/ondraretry.cfg (number=5 time=60)\n"
    "            and the system id NO_SYSTEM_ID. Init makes the type's data\n"
    "            directory and its ok file, Deinit removes the file, and the\n"
    "            Daemon runs until killed, its script's path as its command.\n"
    "            With --fail, the Daemon of TYPE (store, vmgr or mgr, or 0 to 2)\n"
    "            exits with status 1 at once.\n"
    "show [--json]\n"
    "            a row a type: whether the script and each configuration file\n"
    "            are there, the data directory (the argument after --dir in the\n"
    "            Daemon file), whether its ok file is, what the Daemon does (runs,\n"
    "            or exit=N), the live pids and the script's path; then the\n"
    "            system id (the first non-empty line of\n"
    "            /etc/marrowby/comm/ondraSystemId.cfg) and the STORAGE section of\n"
    "            /etc/marrowby/comm/udpargs.cfg, as the system reads them.\n"
    "kill        sends SIGKILL to every live daemon of the module.\n"
    "database SYSTEMID MD5 | database SYSTEMID --remove\n"
    "            sets or drops the md5 that the manager program\n"
    "            (/etc/marrowby/system/dbd_manager --system_id ID --list) lists\n"
    "            for the database of SYSTEMID.\n"
    "umem on|off makes /dev/umem/disc0/disc exist or not: the memory device the\n"
    "            store uses on a unit without NVRAM cards.\n";

namespace {

const char* const kModeNames[3] = {"init", "daemon", "deinit"};

const char* yesNo(bool b) { return b ? "yes" : "no"; }

std::string behaviour(int exitStatus) { return exitStatus < 0 ? "runs" : "exit=" + std::to_string(exitStatus); }

std::string pidList(const std::vector<pid_t>& pids)
{
    std::string out;
    for (pid_t pid : pids) out += (out.empty() ? "" : ",") + std::to_string(pid);
    return out;
}

// store, vmgr, mgr, or 0 to 2.
bool typeArgument(const std::string& word, int& type, std::string& why)
{
    for (int t = 0; t < 3; ++t)
        if (word == daemonShortName(t)) {
            type = t;
            return true;
        }
    uint64_t n = 0;
    if (!word.empty() && word.find_first_not_of("0123456789") == std::string::npos) {
        if (!decimal("--fail", word, 0, 2, n, why)) return false;
        type = static_cast<int>(n);
        return true;
    }
    why = "--fail " + cell(word) + ": give store, vmgr or mgr, or 0 to 2";
    return false;
}

int install(const Call& call, Module& module, int failType)
{
    try {
        installDaemons(module, DaemonOptions{failType});
    } catch (const std::exception& e) {
        return refused(call, e.what());
    }
    report("installed the daemons: scripts in " + module.dir() + "/daemons" +
           (failType >= 0 ? std::string(", the Daemon of ") + daemonShortName(failType) + " exits with status 1"
                          : std::string()));
    return kDone;
}

void printStatus(const DaemonStatus& st)
{
    std::cout << daemonSummary(st) << "\n\n";
    Table t({"TYPE", "SCRIPT", "INIT", "DAEMON", "DEINIT", "DATA", "OK", "BEHAVIOUR", "PIDS", "PATH"});
    for (int type = 0; type < 3; ++type) {
        const DaemonStatus::Type& d = st.types[type];
        t.add({daemonShortName(type), yesNo(d.scriptPresent), yesNo(d.configPresent[0]), yesNo(d.configPresent[1]),
               yesNo(d.configPresent[2]), d.dataDir, d.dataDir.empty() ? "" : yesNo(d.ok), behaviour(d.exitStatus),
               pidList(d.pids), d.script});
    }
    t.print(std::cout);
    std::cout << "\n";
    if (!st.hasUdpArgs) {
        std::cout << "udp arguments: none (" << kUdpArgsFile << " absent)\n";
        return;
    }
    std::cout << "udp arguments: " << st.udpStorage.size() << " line" << (st.udpStorage.size() == 1 ? "" : "s")
              << " in the STORAGE section of " << kUdpArgsFile << "\n";
    for (const std::string& line : st.udpStorage) std::cout << "  " << lastCell(line) << "\n";
}

bool umemPresent(const Module& module) { return module.host().exists(std::string(kUmemDevice).substr(1)); }

void writeStatusJson(Module& module, const DaemonStatus& st)
{
    JsonWriter j(std::cout);
    j.beginObject();
    j.key("module").string(module.dir());
    j.key("daemons").beginArray();
    for (int type = 0; type < 3; ++type) {
        const DaemonStatus::Type& d = st.types[type];
        j.beginObject();
        j.key("type").number(type).key("name").string(daemonShortName(type));
        j.key("script").string(d.script).key("script_present").boolean(d.scriptPresent);
        j.key("config").beginArray();
        for (int mode = 0; mode < 3; ++mode) {
            j.beginObject();
            j.key("mode").string(kModeNames[mode]).key("path").string(daemonConfig(type, mode));
            j.key("present").boolean(d.configPresent[mode]);
            j.endObject();
        }
        j.endArray();
        j.key("data_dir");
        if (d.dataDir.empty()) j.null();
        else j.string(d.dataDir);
        j.key("ok").boolean(d.ok);
        j.key("exit");
        if (d.exitStatus < 0) j.null();
        else j.number(d.exitStatus);
        j.key("pids").beginArray();
        for (pid_t pid : d.pids) j.number(pid);
        j.endArray();
        j.endObject();
    }
    j.endArray();
    j.key("system_id");
    if (st.hasSystemId) j.string(st.systemId);
    else j.null();
    j.key("umem").boolean(umemPresent(module));
    j.key("databases").beginObject();
    for (const auto& [id, md5] : databases(module)) j.key(id).string(md5);
    j.endObject();
    j.key("udp_args");
    if (st.hasUdpArgs) {
        j.beginArray();
        for (const std::string& line : st.udpStorage) j.string(line);
        j.endArray();
    } else {
        j.null();
    }
    j.endObject();
}

void printExtras(Module& module)
{
    const auto all = databases(module);
    std::cout << "memory device " << kUmemDevice << ": " << (umemPresent(module) ? "present" : "absent") << "\n";
    if (all.empty()) {
        std::cout << "databases: none\n";
        return;
    }
    Table t({"SYSTEM ID", "MD5"});
    for (const auto& [id, md5] : all) t.add({id, md5});
    std::cout << "databases:\n";
    t.print(std::cout);
}

int setUmem(const Call& call, Module& module, const std::string& word)
{
    if (word != "on" && word != "off") return badUsage(call, "umem " + cell(word) + ": give on or off");
    const std::string rel = std::string(kUmemDevice).substr(1);
    const bool on = word == "on";
    if (on && !(module.host().makeDirs("dev/umem/disc0") && module.host().writeFileAtomic(rel, "")))
        return refused(call, std::string("cannot make ") + kUmemDevice + " in the module");
    if (!on && module.host().exists(rel) && module.host().unlink(rel) != 0)
        return refused(call, std::string("cannot remove ") + kUmemDevice + " from the module");
    report(std::string(kUmemDevice) + (on ? " exists" : " is absent"));
    return kDone;
}

int setDatabaseOf(const Call& call, Module& module, const Words& w)
{
    const bool remove = w.has("--remove");
    if (w.positional.size() != (remove ? 3u : 4u))
        return badUsage(call, "database takes SYSTEMID and MD5, or SYSTEMID and --remove");
    const std::string& id = w.positional[2];
    const std::string md5 = remove ? "" : w.positional[3];
    auto blank = [](const std::string& s) { return s.empty() || s.find_first_of(" \t\n'") != std::string::npos; };
    if (blank(id)) return badUsage(call, "SYSTEMID " + cell(id) + ": give a word without blanks or quotes");
    if (!remove && blank(md5)) return badUsage(call, "MD5 " + cell(md5) + ": give a word without blanks or quotes");
    setDatabase(module, id, md5);
    report(remove ? "no database for system " + id : "database of system " + id + ": md5 " + md5);
    return kDone;
}

int killAll(Module& module)
{
    const std::vector<pid_t> killed = killDaemons(module);
    if (killed.empty()) report("no daemon of the module was running");
    else report("killed " + std::to_string(killed.size()) + " daemon" + (killed.size() == 1 ? "" : "s") + ": " +
                pidList(killed));
    return kDone;
}

} // namespace

std::string daemonSummary(const DaemonStatus& st)
{
    const int scripts = st.scriptsPresent();
    const size_t live = st.livePids();
    if (scripts == 0 && live == 0) return "daemons: not installed";
    std::string out = scripts == 3 ? "daemons: installed"
                                   : "daemons: partly installed (" + std::to_string(scripts) + " of 3 scripts)";
    out += ", " + std::to_string(live) + " live, ";
    return out + (st.hasSystemId && !st.systemId.empty() ? "system id " + cell(st.systemId) : "no system id");
}

int runDaemons(const Call& call)
{
    Words w;
    int status = splitWords(call, {{"--fail", "TYPE"}, {"--json", nullptr}, {"--remove", nullptr}}, false, w);
    if (status || (status = expectPositional(call, w, 1, 4))) return status;
    const char* verbs = "give install, show, kill, database or umem";
    if (w.positional.size() < 2) return badUsage(call, verbs);
    const std::string& verb = w.positional[1];
    const bool plain = verb == "install" || verb == "show" || verb == "kill";
    if (!plain && verb != "database" && verb != "umem")
        return badUsage(call, "unexpected argument " + cell(verb) + "; " + verbs);
    if (plain && w.positional.size() > 2) return badUsage(call, "unexpected argument " + cell(w.positional[2]));
    if (verb == "umem" && w.positional.size() != 3) return badUsage(call, "umem takes on or off");
    if (w.has("--remove") && verb != "database") return badUsage(call, "--remove goes with database only");
    if (w.has("--fail") && verb != "install") return badUsage(call, "--fail goes with install only");
    if (w.has("--json") && verb != "show") return badUsage(call, "--json goes with show only");
    int failType = -1;
    for (const auto& [name, value] : w.options) {
        std::string why;
        if (name == "--fail" && !typeArgument(value, failType, why)) return badUsage(call, why);
    }
    auto module = openModule(call, w.positional[0], status);
    if (!module) return status;
    if (verb == "install") return install(call, *module, failType);
    if (verb == "kill") return killAll(*module);
    if (verb == "umem") return setUmem(call, *module, w.positional[2]);
    if (verb == "database") return setDatabaseOf(call, *module, w);
    const DaemonStatus st = daemonStatus(*module);
    if (w.has("--json")) {
        writeStatusJson(*module, st);
    } else {
        printStatus(st);
        printExtras(*module);
    }
    return kDone;
}

} // namespace sim::cli

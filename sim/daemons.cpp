#include "daemons.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <sstream>

#include "module.h"
#include "processes.h"

namespace sim {

namespace {

struct TypeInfo {
    const char* name;     // the script
    const char* section;  // the configuration's section
    const char* dataDir;  // a path of the module
    const char* cfg[3];   // Init, Daemon, Deinit
};

const TypeInfo kTypes[3] = {
    {"ondrastore", "STORAGE", "/var/ondra/store",
     {"/etc/marrowby/store/ondraStoreInit.cfg", "/etc/marrowby/store/ondraStoreDaemon.cfg",
      "/etc/marrowby/store/ondraStoreDeinit.cfg"}},
    {"ondravmgr", "VIRTUALMANAGER", "/var/ondra/vmgr",
     {"/etc/marrowby/virtualmanager/ondraVMgrInit.cfg", "/etc/marrowby/virtualmanager/ondraVMgrDaemon.cfg",
      "/etc/marrowby/virtualmanager/ondraVMgrDeinit.cfg"}},
    {"ondramgr", "MANAGER", "/var/ondra/mgr",
     {"/etc/marrowby/manager/ondraMgrInit.cfg", "/etc/marrowby/manager/ondraMgrDaemon.cfg",
      "/etc/marrowby/manager/ondraMgrDeinit.cfg"}},
};

const char* const kModes[3] = {"init", "daemon", "deinit"};

const char kLog[] = "sim/daemons.log";

std::string shellQuoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string script(const std::string& root, const char* name)
{
    std::ostringstream s;
    s << "#!/bin/bash\n"
      << "# A daemon of the simulated module: logs its start, then acts by its --mode.\n"
      << "ROOT=" << shellQuoted(root) << "\n"
      << "NAME=" << name << "\n"
      << "line=\"start\t$$\t$0\"\n"
      << "for a in \"$@\"; do line=\"$line\t$a\"; done\n"
      << "printf '%s\\n' \"$line\" >> \"$ROOT/" << kLog << "\"\n"
      << "mode= dir=\n"
      << "while [ $# -gt 0 ]; do\n"
      << "    case \"$1\" in\n"
      << "        --mode) mode=$2; shift ;;\n"
      << "        --dir) dir=$2; shift ;;\n"
      << "    esac\n"
      << "    [ $# -gt 0 ] && shift\n"
      << "done\n"
      << "# The data directory is an absolute path of the module, never above it.\n"
      << "case \"$mode:$dir\" in\n"
      << "    init:*..*|deinit:*..*|init:|deinit:|init:[!/]*|deinit:[!/]*) exit 1 ;;\n"
      << "esac\n"
      << "case \"$mode\" in\n"
      << "    init) mkdir -p \"$ROOT$dir\" && : > \"$ROOT$dir/ok\"; exit 0 ;;\n"
      << "    deinit) rm -f \"$ROOT$dir/ok\"; exit 0 ;;\n"
      << "esac\n"
      << "ctl=$(cat \"$ROOT/sim/daemons/$NAME\" 2>/dev/null)\n"
      << "case \"$ctl\" in\n"
      << "    exit\\ *) exit \"${ctl#exit }\" ;;\n"
      << "esac\n"
      << "# The pid stays the daemon's, and the listing shows the script's path.\n"
      << "trap '' HUP\n"
      << "exec -a \"$0\" sleep 100000\n";
    return s.str();
}

void require(bool ok, const std::string& what)
{
    if (!ok) throw std::runtime_error("cannot write " + what);
}

} // namespace

const char* daemonName(int type) { return type >= 0 && type < 3 ? kTypes[type].name : ""; }

std::string daemonScript(const Module& module, int type)
{
    return module.dir() + "/daemons/" + daemonName(type);
}

void installDaemons(Module& module, const DaemonOptions& options)
{
    const HostDir& host = module.host();
    for (const char* dir : {"daemons", "sim/daemons", "etc/marrowby/store", "etc/marrowby/virtualmanager",
                            "etc/marrowby/manager", "etc/marrowby/comm"})
        require(host.makeDirs(dir), dir);
    for (int type = 0; type < 3; ++type) {
        const TypeInfo& t = kTypes[type];
        const std::string rel = std::string("daemons/") + t.name;
        require(host.writeFileAtomic(rel, script(module.dir(), t.name)), rel);
        int fd = host.open(rel, O_RDONLY);
        require(fd >= 0 && ::fchmod(fd, 0755) == 0, rel);
        ::close(fd);
        for (int mode = 0; mode < 3; ++mode) {
            std::string text = std::string(t.section) + "\n" + daemonScript(module, type) + "\n--mode\n" +
                               kModes[mode] + "\n--dir\n" + t.dataDir + "\nEND\n";
            require(host.writeFileAtomic(t.cfg[mode], text), t.cfg[mode]);
        }
        setDaemonExit(module, type, type == options.failType ? 1 : -1);
    }
    require(host.writeFileAtomic("etc/marrowby/ondraretry.cfg",
                                 "# restarts allowed within a period of seconds\nnumber=5 time=60\n"),
            "ondraretry.cfg");
    require(host.writeFileAtomic("etc/marrowby/comm/ondraSystemId.cfg", "NO_SYSTEM_ID\n"), "ondraSystemId.cfg");
}

void setDaemonExit(Module& module, int type, int status)
{
    const std::string rel = std::string("sim/daemons/") + daemonName(type);
    if (status < 0) {
        module.host().unlink(rel);
        return;
    }
    require(module.host().writeFileAtomic(rel, "exit " + std::to_string(status) + "\n"), rel);
}

std::vector<DaemonStart> daemonStarts(const Module& module)
{
    std::vector<DaemonStart> out;
    std::string text;
    if (!module.host().readFile(kLog, text)) return out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        size_t pos = 0;
        for (;;) {
            size_t tab = line.find('\t', pos);
            fields.push_back(line.substr(pos, tab == std::string::npos ? std::string::npos : tab - pos));
            if (tab == std::string::npos) break;
            pos = tab + 1;
        }
        if (fields.size() < 3 || fields[0] != "start") continue;
        DaemonStart start;
        start.pid = static_cast<pid_t>(std::atoi(fields[1].c_str()));
        if (start.pid <= 0) continue;
        start.argv.assign(fields.begin() + 2, fields.end());
        out.push_back(std::move(start));
    }
    return out;
}

std::vector<pid_t> liveDaemonPids(const Module& module)
{
    std::set<pid_t> pids;
    for (const DaemonStart& s : daemonStarts(module)) pids.insert(s.pid);
    std::vector<pid_t> out;
    for (pid_t pid : pids) {
        HostProcess p;
        if (readHostProcess(pid, p) && isAlive(p) && belongsToModule(p, module.dir())) out.push_back(pid);
    }
    return out;
}

std::vector<pid_t> killDaemons(const Module& module)
{
    std::vector<pid_t> killed;
    for (pid_t pid : liveDaemonPids(module))
        if (::kill(pid, SIGKILL) == 0) killed.push_back(pid);
    return killed;
}

const char* daemonShortName(int type)
{
    static const char* const names[3] = {"store", "vmgr", "mgr"};
    return type >= 0 && type < 3 ? names[type] : "";
}

const char* daemonConfig(int type, int mode)
{
    return type >= 0 && type < 3 && mode >= 0 && mode < 3 ? kTypes[type].cfg[mode] : "";
}

int DaemonStatus::scriptsPresent() const
{
    int n = 0;
    for (const Type& t : types) n += t.scriptPresent;
    return n;
}

size_t DaemonStatus::livePids() const
{
    size_t n = 0;
    for (const Type& t : types) n += t.pids.size();
    return n;
}

namespace {

// The argument after "--dir" in the section of a configuration file.
std::string dataDirOf(const std::string& text, const char* section)
{
    const std::vector<std::string> all = textLines(text);
    size_t i = 0;
    while (i < all.size() && all[i] != section) ++i;
    for (++i; i < all.size() && all[i] != "END"; ++i)
        if (all[i - 1] == "--dir") return all[i];
    return "";
}

// "exit N" of a control file, as the script reads it; -1 for anything else.
int controlExit(const std::string& text)
{
    const std::vector<std::string> all = textLines(text);
    if (all.size() != 1 || all[0].compare(0, 5, "exit ") != 0) return -1;
    const std::string n = all[0].substr(5);
    if (n.empty() || n.size() > 3 || n.find_first_not_of("0123456789") != std::string::npos) return -1;
    return std::atoi(n.c_str());
}

} // namespace

DaemonStatus daemonStatus(const Module& module)
{
    const HostDir& host = module.host();
    DaemonStatus st;
    std::vector<HostProcess> live;
    for (pid_t pid : liveDaemonPids(module)) {
        HostProcess p;
        if (readHostProcess(pid, p)) live.push_back(p);
    }
    for (int type = 0; type < 3; ++type) {
        DaemonStatus::Type& t = st.types[type];
        t.script = daemonScript(module, type);
        t.scriptPresent = host.exists(std::string("daemons/") + kTypes[type].name);
        for (int mode = 0; mode < 3; ++mode) t.configPresent[mode] = host.exists(kTypes[type].cfg[mode]);
        std::string text;
        if (host.readFile(kTypes[type].cfg[1], text)) t.dataDir = dataDirOf(text, kTypes[type].section);
        t.ok = !t.dataDir.empty() && host.exists(t.dataDir + "/ok");
        if (host.readFile(std::string("sim/daemons/") + kTypes[type].name, text)) t.exitStatus = controlExit(text);
        // A daemon shows the script as argv[0]; a script still in bash, as argv[1].
        for (const HostProcess& p : live)
            if ((!p.argv.empty() && p.argv[0] == t.script) || (p.argv.size() > 1 && p.argv[1] == t.script))
                t.pids.push_back(p.pid);
    }
    std::string text;
    if ((st.hasSystemId = host.readFile(kSystemIdFile, text)))
        for (const std::string& line : textLines(text))
            if (!line.empty()) {
                st.systemId = line;
                break;
            }
    if ((st.hasUdpArgs = host.readFile(kUdpArgsFile, text))) {
        // As the system reads it: from a line holding "STORAGE" to one holding "END".
        bool in = false;
        for (const std::string& line : textLines(text)) {
            if (in && line.find("END") != std::string::npos) break;
            if (in) st.udpStorage.push_back(line);
            else in = line.find("STORAGE") != std::string::npos;
        }
    }
    return st;
}

} // namespace sim

#include "daemons.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <set>
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

void killDaemons(const Module& module)
{
    for (pid_t pid : liveDaemonPids(module)) ::kill(pid, SIGKILL);
}

} // namespace sim

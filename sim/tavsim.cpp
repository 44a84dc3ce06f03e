#include "tavsim.h"

#include <iostream>
#include <string>
#include <vector>

#include "dsp.h"
#include "faults.h"
#include "programs.h"
#include "tavsim_cli.h"

#ifndef TAVSIM_VERSION
#define TAVSIM_VERSION "unknown"
#endif

namespace sim {
namespace cli {
namespace {

const char kExitStatus[] =
    "Exit status: 0 done; 1 refused or failed (the module or the simulation said\n"
    "no); 2 a bad command line (an unknown command or option, a missing, malformed\n"
    "or out-of-range argument).\n";

const char kCreateHelp[] =
    "Makes a module of platform ID in DIR, which must be absent or an empty\n"
    "directory (missing parents are made). Every bay of the platform's layout gets\n"
    "a blank sparse drive image with a serial number of its own.\n"
    "\n"
    "  --platform ID    a decimal platform id, 0 to 999999. 1 and 4 (four IDE\n"
    "                   drives) and 3 (two) are simulated, and the tw controller\n"
    "                   platforms 2 (two 7000 controllers of 4 ports), 9 (one\n"
    "                   9000 of 4) and 15 (one 9000 of 12); 5, 6, 8, 10, 11 and\n"
    "                   12 are families that come later and are refused;\n"
    "                   any other id has no layout row of its own and takes the\n"
    "                   layout of platform 1, as the system does.\n"
    "  --serial S       the module serial number: printable ASCII without blanks,\n"
    "                   at most 31 characters; by default one made from DIR.\n"
    "  --sectors N      the size of every drive, default 156301488 (74.5G). The\n"
    "                   families' partition table fits 4317185 to 4294967295\n"
    "                   sectors (2.1G to 2T); other sizes need --any-size.\n"
    "  --any-size       allow any --sectors from 65536 to 68719476736 (32M to 32T).\n"
    "  --feature SECTION:KEY=VALUE\n"
    "                   a setting of the model's features.conf, repeatable; the\n"
    "                   section is split off at the last \":\" before \"=\".\n"
    "  --no-drives      the identity files only, no bays, for any ID 1 to 15.\n"
    "  --units LAYOUT   the tw platforms' units made at creation and known to the\n"
    "                   kernel: none; single (one unit a port, platform 2's\n"
    "                   default); raid5 (all ports but the --spares last, which\n"
    "                   make one spare unit; the default of 9 and 15); raid10\n"
    "                   (four ports); raid1 (two). Platform 2 takes none|single.\n"
    "  --spares N       the ports raid5 leaves to the spare unit, default 0.\n"
    "  --no-proc-scsi   the driver has no /proc/scsi entry: only sysfs tells its hosts.\n"
    "Platforms 2 and 6 also get their NVRAM card (tavsim nvram).\n";

const char kShowHelp[] =
    "Prints the module: its directory, platform (and the layout it takes), the\n"
    "model the system's identity code recognises (ID CONFIG NAME, or UNKNOWN), the\n"
    "module serial number, the clock (seconds, and ISO 8601 UTC) and a line on the\n"
    "daemons (installed or not, how many live, the system id: tavsim daemons);\n"
    "then a table of the bays, one of the drives on the shelf and one of the armed\n"
    "faults, each under a header line. A field that holds blanks is quoted, but for the last\n"
    "column, which is free text. Sizes are 1024-based, as lsblk gives them.\n"
    "POWER and CLAMP are the chassis controller's; KERNEL is the hot-swap\n"
    "driver's: found or absent on an attached interface, or detached.\n"
    "State files that cannot be read are reported on standard error with their\n"
    "file and line; what could be read is shown.\n"
    "\n"
    "  --json           the same as one JSON document\n"
    "  --partitions     each drive's partitions: NUMBER ROLE START SECTORS SIZE,\n"
    "                   the role where the families' table puts it (signature,\n"
    "                   data, boot, extended, os, os2, log; \"-\" for none). These\n"
    "                   are the kernel's nodes: an extended partition's node\n"
    "                   covers its first two sectors.\n"
    "  --signature      the drive manager's own diagnostic tables: the in-memory\n"
    "                   signature (a row a position, its verdict beside it) and\n"
    "                   the RAID tree (a row a node), as it logs them.\n";

const char kPartitionHelp[] =
    "Gives every drive in a bay (with BAY, only the drive of that bay; the other\n"
    "drives are not touched) the families' partition table through the system's\n"
    "own table builder: signature 2048 sectors, boot 20480, data the rest, then\n"
    "in the extended partition os 2097152, os2 2097152 and log 98304. The builder\n"
    "works on 32-bit sizes: unless every drive to partition has 4317185 to\n"
    "4294967295 sectors nothing is written. A failed build names the step (the\n"
    "open, the size or geometry request, a table write, the re-read) with its\n"
    "errno and the builder's result. An empty BAY is refused.\n";

const char kFaultHelp[] =
    "Arms a fault on the calls OP of PATH that the system makes:\n"
    "\n"
    "  OP         open read write lseek fsync ioctl stat unlink rename (by source)\n"
    "             popen (by the command's first word)\n"
    "  PATH       an absolute path of the module, a prefix ending in *, or *;\n"
    "             socket: the interface queries on every socket (ioctl); the\n"
    "             module's host name is read /proc/sys/kernel/hostname\n"
    "  nth=N      from the Nth matching call of each process on (default 1)\n"
    "  times=K    K calls (default 1), or -1: every call from then on\n"
    "  request=R  ioctl only: @REQUESTS@,\n"
    "             or a number (decimal, or 0x and hex)\n"
    "  errno=E    the calls fail with E: @ERRNOS@,\n"
    "             or a number 1 to 4095\n"
    "  short=N    read or write only: the calls move at most N bytes\n"
    "  powercut   write only: that write and every later one of the process are\n"
    "             lost, though they report success\n"
    "\n"
    "One of errno=, short= and powercut is needed; words that could never fire\n"
    "are refused. --list prints the armed faults, --clear removes them.\n";

const char kRaidHelp[] =
    "Configures the module's data array as an installed appliance has it, through\n"
    "the system's own RAID tree and md nodes: the array /dev/mdN of LEVEL is made\n"
    "on the data partitions (part2) of the bays in LIST, the last N of them join\n"
    "it as hot spares, and the tree is written into every drive's signature. On\n"
    "platforms 1, 2 and 4 the OS mirrors are made too, if they do not stand yet:\n"
    "/dev/md200 (RAID 1 of the os partitions, part5) and /dev/md201 (of the log\n"
    "partitions, part7), slot i holding position i + 1. The module must be\n"
    "partitioned and signed; the array must not exist yet.\n"
    "\n"
    "  --level 0|1|5   the RAID level; needed\n"
    "  --drives LIST   bays, comma-separated (1,2,3,4); default every bay with a\n"
    "                  drive. A RAID 5 needs 3 members, a RAID 1 2, a RAID 0 1.\n"
    "  --spares N      the last N bays of LIST are hot spares (not in a RAID 0)\n"
    "  --md N          the array's number, 1 to 199; default 1\n"
    "  --mount PATH    the array's mount point in the tree, an absolute path of\n"
    "                  at most 127 bytes; default none\n";
const char kMdHelp[] =
    "Prints the md arrays the module's kernel knows, each as a line (device,\n"
    "level, state: active, degraded, recovering, failed or inactive; raid disks,\n"
    "active, working, failed and spare members; size, 1024-based; chunk), then a\n"
    "table of its members (SLOT RAID_DISK DEVICE BAY SERIAL STATE, the state\n"
    "in-sync, spare, rebuilding, waiting or faulty) and, during recovery, the\n"
    "part done and the virtual time to finish; last the speed limits. Recovery\n"
    "moves on the virtual clock at speed_limit_max.\n"
    "\n"
    "  --json           the same as one JSON document\n"
    "  --stall ARRAY    recovery onto a new member of ARRAY (md0 to md255, or\n"
    "                   /dev/md0 to /dev/md255) never runs: the member waits with\n"
    "                   the in-sync flag of its old superblock and is never made\n"
    "                   active, as in a mirror whose new member does not sync. The\n"
    "                   fault stays until --unstall, over --stop-all too.\n"
    "  --unstall ARRAY  recovery of ARRAY runs again, from where it stood\n"
    "  --stop-all       the kernel forgets every array, as after a reboot; the\n"
    "                   superblocks stay on the drives, to be assembled again\n";

const char kRunHelp[] =
    "Runs a program of the system in this process with the module as its\n"
    "platform, and exits with the program's result; the statuses below are those\n"
    "of tavsim itself, before the program starts. The programs this tavsim can\n"
    "run: @PROGRAMS@.\n";

const std::vector<Command> kCommands = {
    {"create", "DIR --platform ID [--serial S] [--sectors N [--any-size]] [--feature SECTION:KEY=VALUE]... [--no-drives]\n"
               "       [--units none|single|raid5|raid10|raid1] [--spares N] [--no-proc-scsi]",
     "make a module in DIR", kCreateHelp, runCreate},
    {"show", "DIR [--json | --partitions | --signature]", "platform, model, clock, bays, shelf, faults", kShowHelp, runShow},
    {"partition", "DIR [BAY]", "give every drive, or BAY's, the families' partition table", kPartitionHelp, runPartition},
    {"sign", "DIR [--time T]", "sign every drive as a freshly installed module",
     "Gives every drive in a bay the signature of a freshly installed module of\n"
     "this serial number, through the system's own signature code: a record per\n"
     "position with owner and order, both stamps T (seconds, 0 to 2147483647;\n"
     "default the virtual clock's time), empty device and string tables, both\n"
     "copies. With partition, it makes a module ready for updatemount.\n",
     runSign},
    {"raid", "DIR --level 0|1|5 [--drives LIST] [--spares N] [--md N] [--mount PATH]",
     "configure the data array as an installed module has it", kRaidHelp, runRaid},
    {"pull", "DIR BAY", "move the drive of BAY to the shelf",
     "Takes the drive out of BAY and puts it on the shelf; its data goes with it.\n", runPull},
    {"insert", "DIR BAY [SERIAL | --new-product]", "put a shelf drive, or a new one, into an empty bay",
     "Puts drive SERIAL from the shelf into the empty BAY; without SERIAL, a new\n"
     "blank drive like the module's others. With --new-product the new drive\n"
     "arrives as the product ships it: the families' partition table, and a\n"
     "signature whose header carries its own serial number and whose one record\n"
     "names it with no owner and order 0, so that the drive manager's verdict is\n"
     "a new drive of the product.\n",
     runInsert},
    {"swap", "DIR BAY1 BAY2", "exchange the drives of two bays",
     "Exchanges the drives of two bays; either may be empty.\n", runSwap},
    {"corrupt", "DIR BAY|DEVICE OFFSET HEX", "overwrite bytes of a disk or partition",
     "Overwrites bytes at byte OFFSET (decimal) of the disk in BAY, or of a disk or\n"
     "partition node such as /dev/ide/host0/bus0/target0/lun0/part1. HEX gives\n"
     "the bytes, two hex digits each (deadbeef).\n",
     runCorrupt},
    {"fault", "DIR OP PATH [nth=N] [times=K] [request=R] errno=E|short=N|powercut\n       tavsim fault DIR --list | --clear",
     "arm, list or clear faults", kFaultHelp, runFault},
    {"log", "DIR [--ata | --md | --dsp | --charon | --3ware [--hex]]",
     "print the command log, the ATA, md, chassis controller, hot-swap or tw controller log",
     "Prints the command log, a line a command: TIME system|popen STATUS [unknown]\n"
     "COMMAND. With --ata, the ATA command log: TIME DEVICE WHAT. With --md, the md\n"
     "request log: TIME /dev/mdN REQUEST [ARGS] -> 0|ERRNO. With --dsp, the chassis\n"
     "controller's log: every command as it arrived (TIME command HEX (WHAT)),\n"
     "every record handed up (TIME record type T (NAME) length L change C pwrDwn P\n"
     "version V status S... buff HEX), the driver's configuration, switches moved,\n"
     "what was refused, and TIME hazard: bay N lost power while interface I is\n"
     "attached, when a drive the kernel still had lost power other than by its\n"
     "critical switch. With --charon, the hot-swap driver's log: every request\n"
     "and its record (TIME request R (NAME) uInterface=I uDevice=0xD\n"
     "iReturnCode=C -> CODE [injected]) and what was refused. With --3ware, the tw\n"
     "controllers' log: a line a driver call, TIME NODE REQUEST [OPERATION unit=U\n"
     "table=T param=P size=S] -> status S [code C] | driver status S | ok | ERRNO;\n"
     "with --hex also the bytes given and given back, on the indented lines behind.\n",
     runLog},
    {"run", "DIR [--] PROGRAM [ARGS...]", "run a program of the system on the module", kRunHelp, runRun},
    {"md", "DIR [--json | --stall ARRAY | --unstall ARRAY | --stop-all]", "the md arrays; stall a recovery; forget all",
     kMdHelp, runMd},
    {"dsp", "DIR [--json]\n       tavsim dsp DIR set WHAT VALUE...",
     "the chassis controller: bays, sensors, driver, behaviours; set them", kDspHelp, runDsp},
    {"charon", "DIR [--json]\n       tavsim charon DIR fail IF REQUEST CODE [times=K] | --clear",
     "the hot-swap driver: interfaces and devices attached or detached; inject return codes", kCharonHelp, runCharon},
    {"nvram", "DIR [add|show|set|fault|fill|powerfail|power-cycle|recover|status] [ARGS...]",
     "the NVRAM card: registers, EEPROM, faults; fill SDRAM, take the power away", kNvramHelp, runNvram},
    {"bay", "DIR N lock|critical open|close", "open or close a bay's lock or critical switch", kBayHelp, runBay},
    {"3ware", "DIR [set [cN.]KEY=VALUE...]", "the tw controllers whole; set their state and arm faults",
     "Prints each tw controller of the module whole: its identity, compatibility,\n"
     "settings, schedule and battery (KEY VALUE), ports with their drive and the\n"
     "identity read when it was found, units with their subunit tree and the disk\n"
     "the kernel has of them, the lock and the armed faults, then the kernel's\n"
     "/proc/scsi/scsi. With set, each KEY=VALUE changes controller N (cN., default\n"
     "c0): any key printed; lock=HOLDER:SECONDS or lock=none; faults=none; and\n"
     "fault=KIND:FIELD=VALUE,... to arm one, where KIND is firmware (times=N,\n"
     "opcode=O, table=T, param=P, status=S, code=C, text=T: an error on the next N\n"
     "commands that match, times=0 every one), driver (times=N,status=S: a 9000\n"
     "driver status) or answer (times=N,answer=unterminated|oversize|garbage).\n"
     "driver-loaded=0 unloads the driver, controller-found=0 leaves it without\n"
     "its controller, compatibility=N changes the number the firmware gives.\n"
     "portN.smart=on|off|exceeded|ok sets the SMART state of the drive now in\n"
     "the port's bay (exceeded: a threshold is passed). The PERCENT of a unit\n"
     "whose task runs is the one the clock has reached; REAL-SERIAL is the\n"
     "serial of the drive now in the port's bay, which differs from\n"
     "FOUND-SERIAL after a drive was swapped behind the controller's back.\n",
     runTw},
    {"tw", "DIR FUNCTION [ARGS...]", "call one function of the controller API against the module",
     "Calls one function of the controller API in this process, against the\n"
     "module, after the API's state is made anew (its nodes made and its\n"
     "controllers found, as at a program's start), and prints FUNCTION = RESULT,\n"
     "the outputs (NAME: VALUE), and the error record: its flags and codes, then\n"
     "the text tw_get_error_information gives. ARGS are the controller's number\n"
     "and what the function takes after it: a setter the VALUE to set,\n"
     "tw_set_boot_unit a unit number, a task item DAY (and START DURATION, or\n"
     "START for the self-test), tw_set_task_schedule the 140 hex digits that\n"
     "tw_get_task_schedule prints; the identifier makers take CONTROLLER and a\n"
     "number (and SUBUNITS for a unit) and print the identifier's bytes. Exit\n"
     "status 0 when the function gave 0, 1 when it gave -1, 2 for arguments it\n"
     "cannot take. The functions:\n@TWFUNCTIONS@\n",
     runTwCall},
    {"wait", "DIR SECONDS [--json]", "move the virtual clock on; the tw controllers' tasks follow",
     "Moves the module's virtual clock on by SECONDS (0 to 316,224,000) and lets\n"
     "the tw controllers catch up: a drive pulled is noticed, a rebuild,\n"
     "verify or initialisation moves on or ends, a degraded unit starts its\n"
     "rebuild onto a spare 10 seconds after the spare is there, a battery test\n"
     "ends. Prints the clock and each unit's mode and percentage; --json gives\n"
     "{\"clock\", \"units\": [{\"controller\", \"unit\", \"config\", \"mode\",\n"
     "\"percent\"}], \"events\"}.\n",
     runWait},
    {"hp", "DIR [set LABEL=VALUE... | remove]", "the HP array controller of slot 0 as its tool shows it; set it",
     kHpHelp, runHp},
    {"console", "DIR [--debug LEVEL]", "host the module: the drive manager up, the chassis controller's link running",
     kConsoleHelp, runConsole},
    {"daemons", "DIR install [--fail TYPE] | show [--json] | kill | database SYSTEMID MD5|--remove | umem on|off",
     "lay in, show or kill the module's daemons (store, vmgr, mgr)", kDaemonsHelp, runDaemons},
    {"services", "DIR [--json] [--debug LEVEL] run COMMAND [ARGS]...",
     "run the daemons' service commands in one process: join, start, stop, leave", kServicesHelp, runServices},
    {"keys", "DIR [--json] [set KEY VALUE | unset KEY | fail KEY TEXT | twice KEY V1 V2 | raw KEY VALUE]",
     "the key source that answers the management plane; change a key", kKeysHelp, runKeys},
    {"mgmt", "DIR [--local | --user NAME] [--json] [--load [--verify 0|1]] COMMAND...", "run management commands through a session",
     kMgmtHelp, runMgmt},
    {"modules", "DIR [--json] | keys [--force] | add NAME [--forge KIND] [--as FILE] | require VENDOR.NAME VERSION",
     "signed management modules: keys, sign or forge sample modules, required versions, list", kModulesHelp,
     runModules},
    {"net", "DIR [--json] [set|add|del IFACE [address=A] [netmask=M] [hwaddr=H] [up|down]]",
     "the module's network interfaces; change one", kNetHelp, runNet},
    {"agent",
     "DIR [--tcp] [--from 127.0.0.N]... [--port P] [--header TEXT] [--alert TEXT]... [--local-client] [--flood N] [--json]",
     "run the management agent in a private network namespace with consoles on loopback", kAgentHelp, runAgent},
    {"replace", "DIR BAY [SERIAL]", "put another drive into BAY behind the controller's back",
     "Takes the drive out of BAY to the shelf and puts drive SERIAL from the shelf,\n"
     "or a new blank drive, in its place, in one step. A tw controller is not told:\n"
     "it keeps the port listed with the serial number it read before, while the\n"
     "bay answers identify and SMART as the new drive, until the controller finds\n"
     "the drive anew (tw_rescan_controller after tw_remove_drive, or tw_add_drive).\n",
     runReplace},
};

std::string joined(const std::vector<std::string>& words)
{
    std::string out;
    for (const std::string& w : words) out += (out.empty() ? "" : " ") + w;
    return out;
}

std::string replaced(std::string text, const std::string& mark, const std::string& by)
{
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + by.size()))
        text.replace(at, mark.size(), by);
    return text;
}

std::string programList()
{
    std::vector<std::string> names = programNames();
    return names.empty() ? "none, for no program of the system is built into it yet" : listed(names);
}

void printCommandHelp(const Command& c)
{
    std::string help = replaced(c.help, "@ERRNOS@", joined(errnoNames()));
    help = replaced(help, "@REQUESTS@", joined(requestNames()));
    help = replaced(help, "@PROGRAMS@", programList());
    help = replaced(help, "@CONSOLE@", consoleCommands());
    help = replaced(help, "@TWFUNCTIONS@", twFunctionNames());
    help = replaced(help, "@SAMPLES@", sampleModuleNames());
    help = replaced(help, "@PERBAY@", std::to_string(kDspSecondsPerBay));
    help = replaced(help, "@RESET@", std::to_string(kDspResetSeconds));
    std::cout << "usage: tavsim " << c.name << " " << c.synopsis << "\n\n" << help << "\n" << kExitStatus;
}

void printHelp()
{
    std::cout << "usage: tavsim COMMAND DIR [ARGS...]\n"
                 "       tavsim COMMAND --help\n"
                 "       tavsim --help | --version\n"
                 "\n"
                 "Makes and handles simulated modules: a whole module kept in one directory DIR.\n"
                 "\n"
                 "Commands:\n";
    for (const Command& c : kCommands) {
        std::string synopsis = c.synopsis;
        synopsis = synopsis.substr(0, synopsis.find('\n'));
        std::cout << "  " << c.name << " " << synopsis << "\n      " << c.summary << "\n";
    }
    std::cout << "\n" << kExitStatus << "\n\"tavsim COMMAND --help\" tells more of a command; \"man tavsim\" tells all.\n";
}

void printVersion() { std::cout << "tavsim " << TAVSIM_VERSION << "\n"; }

std::string commandNames()
{
    std::vector<std::string> names;
    for (const Command& c : kCommands) names.push_back(c.name);
    return joined(names);
}

const Command* findCommand(const std::string& name)
{
    for (const Command& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

int topLevelError(const std::string& why)
{
    std::cerr << "tavsim: " << why << "\nthe commands: " << commandNames() << "\n(tavsim --help tells more)\n";
    return kBadUsage;
}

bool isHelp(const std::string& word) { return word == "--help" || word == "-h"; }

} // namespace

} // namespace cli

int tavsimMain(int argc, char** argv)
{
    using namespace cli;
    std::vector<std::string> a(argv + 1, argv + argc);
    if (a.empty()) return topLevelError("no command");
    if (isHelp(a[0]) || a[0] == "help") {
        const Command* c = a.size() > 1 ? findCommand(a[1]) : nullptr;
        if (a.size() > 1 && !c) return topLevelError("unknown command " + a[1]);
        if (c) printCommandHelp(*c);
        else printHelp();
        return kDone;
    }
    if (a[0] == "--version") {
        printVersion();
        return kDone;
    }
    const Command* command = findCommand(a[0]);
    if (!command) return topLevelError(a[0][0] == '-' ? "unknown option " + a[0] : "unknown command " + a[0]);
    Call call{*command, std::vector<std::string>(a.begin() + 1, a.end())};
    for (const std::string& word : call.args) {
        if (word == "--") break;
        if (isHelp(word)) {
            if (command->run == runNvram && nvramSubcommandHelp(call.args)) return kDone;
            printCommandHelp(*command);
            return kDone;
        }
        if (word == "--version") {
            printVersion();
            return kDone;
        }
    }
    return command->run(call);
}

} // namespace sim

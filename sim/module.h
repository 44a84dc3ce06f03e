// A simulated module: one directory holding the module's file tree and the
// state of the simulation. The system's paths map into the tree ("/dev/x" is
// DIR/dev/x, "./configs/x" is DIR/configs/x); the simulation's own files lie
// in DIR/sim, which no mapped path reaches:
//
//   sim/manifest       platform, module serial number, bays and drives (manifest.h)
//   sim/clock          virtual time: "SECONDS MICROSECONDS"
//   sim/faults         armed faults, one a line (faults.h)
//   sim/commands.log   every command run: "TIME system|popen STATUS [unknown] COMMAND"
//   sim/ata.log        ATA commands: "TIME DEVICE WHAT"
//   sim/mounts         mounted file systems: "SOURCE TARGET TYPE"
//   sim/services       "NAME running|stopped"
//   sim/interfaces     the network interfaces (net_interfaces.h)
//   sim/hostname       the module's host name (gethostname)
//   sim/keys           the key source of the management plane: "KEY VALUE" lines
//                      and fault markers (mgmt_keys.h)
//   sim/tables/bayN    the partitions of bay N as last read: "part N START SIZE" (sectors)
//   sim/identify/bayN  the identify data the kernel read when it found bay N's
//                      drive, in hex (ATA drives; empty for none)
//   sim/locks/bayN.partM  a shared flock while partition M of bay N is open (block.h)
//   sim/md             the kernel's md arrays, the rebuild speed limits and the
//                      arrays whose recovery is stalled (md_state.h)
//   sim/md.log         every md request: "TIME /dev/mdN REQUEST [ARGS] -> RESULT"
//   sim/dsp            the chassis controller: bays, sensors, behaviours, the
//                      driver's configuration, the firmware's scheduled work, the
//                      frames on the line and the records not yet handed up (dsp_state.h)
//   sim/charon         the hot-swap driver: debug flag, interfaces attached or
//                      detached, devices found by the last rescan or not,
//                      injected codes (charon_state.h)
//   sim/charon.log     every request to /dev/charon and its record:
//                      "TIME request R (NAME) uInterface=I uDevice=0xD iReturnCode=C -> CODE"
//   sim/dsp.log        every DSP command as it arrived and every record handed up:
//                      "TIME command HEX (WHAT)", "TIME record type T (NAME) ...",
//                      and power cut from under the kernel:
//                      "TIME hazard: bay N lost power while interface I is attached"
//   sim/hpacucli/ctrlN the HP array controller of slot N: "Label: Value" lines as
//                      its tool shows them; absent, no controller (hp_cli.h)
//   sim/nvram0/        the NVRAM card: "card" (identity, geometry, EEPROM, bad
//                      blocks, faults), "registers" (the register page, mapped
//                      shared and changed in place), "sdram.img", "flash.img"
//                      (nvram_state.h)
//   sim/shelf/SERIAL.img  images of drives out of their bays
//   sim/daemons.log    every run of a daemon script: "start", its pid and its
//                      arguments, separated by tabs (daemons.h)
//   sim/daemons/NAME   the control file of daemon NAME ("ondrastore", ...):
//                      "exit N" makes its Daemon exit with N; absent, it runs
//   sim/databases      "SYSTEMID MD5": the databases the manager program lists
//                      (manager_programs.h)
//   sim/syslog.log     every message to the system log:
//                      "TIME IDENT PID FACILITY PRIORITY TEXT" (numbers in
//                      decimal, line ends of TEXT made spaces); nothing
//                      reaches the host's log
//   sim/null           what the system wrote to "/dev/null" through freopen or
//                      daemon (reading it gives end of file at once)
//   sim/lock           taken (flock) around every read-modify-write of a state file
//   sim/nodes          the device nodes mknod made: "PATH c|b MAJOR MINOR MODE"
//                      (node_table.h); no special file is made on the host
//   sim/3ware/cN       the tw controller N: family, host, identity,
//                      compatibility, settings, schedule, battery, ports with
//                      their drive and the identity read at discovery, units
//                      with their subunit tree, lock, events, armed faults
//                      (tw_state.h)
//   sim/3ware/kernel   the SCSI disks the kernel attached: "disk H C I L INDEX" (tw_kernel.h)
//   sim/3ware/ports/c0pN  the image of the drive on port N of a 9000 module
//                      (its bays are ports; no system path leads there)
//   sim/3ware/unitH_U.img the sparse image of a unit of several drives
//   sim/3ware/ata      the SMART state of each drive by serial: "SERIAL
//                      enabled=0|1 exceeded=0|1" (tw_ata.h)
//   sim/3ware.log      every call of a tw driver: "TIME NODE REQUEST [OPERATION
//                      unit=U table=T param=P size=S] -> RESULT", then the
//                      bytes in and out on indented lines (tw_driver.h)
//   sim/module_vendor_key  the vendor's private DSA key, five length-prefixed
//                      numbers, kept by tavsim modules to sign with (module_signer.h)
//   sim/generation     counters, mapped shared, that every write of a state file
//                      through Module moves on, one for each few files: views see
//                      at no cost that their file did not change
//
// Signed management modules, as ordinary files of the module tree:
//   modules/NAME.module  a shared object with its signature trailer; "ls
//                      ./modules/*.module" is answered from this directory,
//                      and dlopen loads these files through a descriptor
//                      opened beneath the directory, links refused
//   configs/etc/marrowby/module_keys  the maker's five numbers, the vendor's four
//   configs/etc/sysconfig/module_versions  "vendor.name:VERSION" lines
// tavsim modules makes the keys, signs or forges the sample modules of
// sim/modules/ into modules/ (module_signer.h), and lists them.
//
// The module's three daemons (daemons.h, tavsim daemons), which the system's
// supervisor runs as real processes:
//   daemons/ondrastore, ondravmgr, ondramgr
//                      the scripts (bash), outside sim/ and outside every
//                      mapped root, so that the system cannot change them
//   /etc/marrowby/store/ondraStore{Init,Daemon,Deinit}.cfg, and the same
//   under virtualmanager/ (ondraVMgr...) and manager/ (ondraMgr...)
//                      their configuration: a section naming the script,
//                      --mode and --dir with the data directory
//   /etc/marrowby/ondraretry.cfg, /etc/marrowby/comm/ondraSystemId.cfg
//                      restart limits and the system id
//   /var/ondra/TYPE/ok the ok file that a script's Init makes
// A module's processes are those whose argv[0] lies inside the directory (a
// script still run by its interpreter counts by its own path, the program it
// stands for), and this process's own children; only they are signalled (sim_platform.h).
// "ps -ewf" lists the first kind (ps_listing.h). They are real processes: they run on
// the host's clock, not the virtual one, and the listing's times are the host's.
//
// A drive's image is a sparse file at its bay's device path. Every state file
// is changed only under the lock, through a temporary file of a unique name,
// and read afresh when it changed, so that separate processes see one module
// and lose nothing. Every host-side file operation resolves beneath the
// directory and refuses links of every kind (hostfs.h).
//
// Devices are answered by their models (device_model.h). Kernel behaviours
// deliberately left out:
// - The kernel caches a whole disk and its partitions apart until BLKFLSBUF;
//   here every node reads and writes the image at once, so a stale cache is
//   never seen. The system under test flushes where it must; a model of the
//   caches would only hide what it writes.
// - Partition tables of other kinds than MS-DOS (GPT, BSD labels) are not
//   read: a disk with a protective 0xEE entry shows no partitions (partitions.h).
// - Nothing is ever mounted for real: a mount is a line of sim/mounts, which
//   holds the disk busy for BLKRRPART and an md array busy for STOP_ARRAY,
//   and nothing else.
// - md keeps no data: an array's node reads and writes nothing (EIO), and a
//   rebuild is a count of KiB moving on the virtual clock at speed_limit_max
//   (the maximum, as for an idle array; speed_limit_min is kept, not used).
//   The model exists for the requests, counts, superblocks and status texts
//   the system reads, not for the blocks.
// - A new array whose members are added in sync is clean at once: there is
//   no initial resync. There are no write-intent bitmaps, no superblocks but
//   version 0.90, no levels but 0, 1 and 5, no reshape, no read-only arrays,
//   no checkpoint of a rebuild (one cut short by a reboot starts again) and
//   no autodetection at boot: arrays come back only when they are assembled.
// - Assembly kicks every member whose event count is below the freshest one,
//   without the one-event grace of some kernels.
// - A member whose drive left its bay is failed the next time the md state is
//   touched (any request, /proc/mdstat, tavsim), not at the first I/O error.
// - The OS mirror script "/etc/marrowby/tav_osraid start|stop BASE"
//   (os_mirror.h) is not a shell script running mdadm: it makes the md
//   driver's own fail, remove and hot-add steps on the members BASE + "part5"
//   of md200 and BASE + "part7" of md201. Its other work on a real appliance
//   (boot files of the OS partition) is not modelled.
//
// The chassis controller (dsp.h) leaves out, of a real DSP and its driver:
// - The framing on the serial line is the model's own (dsp_driver.h): the
//   system never sees the line, only the driver's records, so the real
//   framing would test nothing. "/dev/ttyS1" of the configuration is kept,
//   never opened.
// - The records' tempLmt, voltage and tempDrive fields stay zero: the system
//   reads those values from the payload alone.
// - Fans (sub-commands 6 and 7), over-temperature, vibration and busy
//   messages (types 9, 10, 11) and the command size (1) are echoed or never
//   sent: no sensor of the model drives them, and the system ignores them.
//   The temperature limit is kept and reported, never acted on.
// - The driver's other requests (0, 2, 3, 5, 6) are EINVAL: the system makes
//   none of them. Its records wait without a bound on their number.
// - A drive pulled or inserted moves no switch and no power: drive presence
//   is the manifest's, and a bay without a drive reports no power. Power
//   reaches the drives (a bay without it answers nothing) but no model draws
//   current: the supply's voltages do not move with the bays powered.
// - Only the firmware's power work makes a drive forget its settings; a
//   bay's power changed through tavsim dsp set does not.
// - A module made without bays (platform 2 with --no-drives) stands for drives
//   of a family not simulated: every bay of its DSP holds a drive.
//
// The hot-swap driver (charon.h) and the bays' power (bay_link.h): a device
// is found or not as the last rescan left it, and a drive's nodes exist only
// while the kernel has its device found on an attached interface (open and
// stat give ENOENT, descriptors already open EIO); a drive whose bay the DSP
// has not powered answers nothing (EIO on I/O and drive requests). `tavsim
// partition` and `tavsim insert --new-product` reach a drive as on a bench,
// outside the module: whatever its bay's power and the kernel's view, so that
// a replacement is made ready before it is powered. They leave out:
// - Hot-plug without a rescan: a drive inserted into a bay whose device the
//   kernel has found answers at once (it stands for a drive swapped behind
//   the kernel's back, as the module always had it), and one pulled leaves
//   the device found with no drive; only a rescan (160, 208) changes what is
//   found. A drive in a powered bay of an absent device waits for one.
// - A rescan probes at once: there is no spin-up time, and no timeout on a
//   drive that is slow to answer; the callers' own sleeps stand for it.
// - A device taken away (161, 209) keeps its table in sim/tables: nothing
//   reads it until the device is found again, and the rescan reads it anew.
// - md members on a drive that stops answering are not failed for it: md
//   keeps no data, and fails a member only when its drive leaves the bay
//   (above) or the system asks.
// - The debug flag is kept and shown, and changes no output.
// - CHARON_INFO_STRUCT is used by no request of the system, and so by none
//   of the model.
//
// The NVRAM card (nvram.h) leaves out, of a real card and its driver:
// - Time: a descriptor runs to the end within the store that pushes it, and
//   the auto copy within the request or command that starts it. The FIFO is
//   never seen busy but through faults (and a hung transfer). The system
//   polls without sleeping, so only the outcome can be tested, not the speed.
// - Interrupts are latched in the status register and never delivered; the
//   mask is kept, not applied. The system only reads and clears the status.
// - Write enable (setup bit 5) is kept, not enforced: the system checks it
//   before each change, and a card's refusal would show only as a verify
//   failure. SDRAM also answers while refresh is stopped.
// - Flash is written without an erase, and wears only by the bad blocks and
//   faults given. Its ECC is written by the auto copy, never checked by the
//   card: the system checks it on the way back.
// - CRC seeds and results of descriptors (init_CRC_seed, CRC_seed,
//   CRC_result) and chained descriptors (`next`) are not served: the system
//   uses neither. Page sizes are fixed at 2048 and 2112 bytes.
// - The PROM player reads no XSVF: it wants PROM mode and the file, and then
//   gives the answer the fault sets. The EEPROM's own control and data
//   registers (0x80, 0x90) do nothing; the driver's requests are the way in.
//
// daemon(3) does not fork or leave the session: the process goes on as it was
// (a test runs in it), with its working directory at the module's root and
// its standard descriptors on the null device; the call is a line of
// commands.log ("daemon 0 daemon NOCHDIR NOCLOSE").
//
// The tw controllers (tw_state.h, tw_driver.h, tw_firmware.h, tw_kernel.h,
// tw_config.h, tw_tasks.h, tw_ata.h) leave out, of real controllers and their drivers:
// - The drivers' majors are fixed (254 "twe", 253 "twa"); a kernel gives
//   them out at load. Nodes of the table answer by major whatever their path.
// - A drive pulled from a port's bay is noticed at the controller's next
//   command (or tavsim's next look), not by an interrupt; an inserted or
//   swapped drive changes the port's bay only: the controller keeps the
//   identity it read until a port scan, an add or a rescan reads it again.
//   A unit degrades, rebuilds onto a spare and ends its tasks on the clock
//   as tw_tasks.h writes down, in closed form: a task's data are never read
//   or written, so a rebuild cannot meet a bad sector of another member.
// - Units of several drives keep their data in an image of their own: the
//   members' images are not striped and a member's data does not follow it.
//   The kernel's disks of the units answer as block devices with partition
//   windows (their tables under sim/tables/bayN, N 1000 + 16 * host +
//   target); platform 2's single units are its bays. A unit's disk answers
//   no SCSI request of its own (SG_IO): the system asks the controller.
// - The unit a drive carries is kept beside the model, in sim/3ware/carried
//   by the drive's serial number, not in a reserved area of its image: a
//   write over the whole image does not wipe it. An exported unit's own
//   image waits as sim/3ware/set_KEY.img until the unit is formed again.
// - Unit commands are the model's own opcodes and records (tw_config.h):
//   the system's calls are what is tested, not the real firmware's layout.
// - A battery test ends when the firmware is next asked after its end, with
//   the date of its end and its event stamped then; an expired lock goes the
//   same way. A test passes unless "battery-test-fails" is 1.
// - The drives' ATA side (tw_ata.h) answers identify and SMART only: other
//   ATA commands are aborted, the off-line test runs nothing, and the SMART
//   attributes move only with the clock's power-on hours and the
//   exceeded-threshold switch.
// - A downloaded firmware image is kept as its size, chunk count and sum;
//   the controller's version does not change.
// - Commands run within the call that carries them: no controller is ever
//   busy but through an EBUSY fault of the platform.
//
// The HP array tool (hp_cli.h) knows one command, "ctrl slot=N show", and
// prints the controller's properties as they are set: no property follows
// from another (a cache status of its own, a battery that ages), and a new
// module has no controller until a test or tavsim sets one.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/time.h>
#include <vector>

#include "hostfs.h"
#include "manifest.h"
#include "partitions.h"

namespace sim {

namespace tw {
class TwView;
}

// A device node of a bay: the whole disk, a partition window, or the SCSI
// generic node. Offsets and sizes in bytes.
struct DeviceNode {
    int bay = 0;
    int partition = 0;       // 0 the disk, N a partition, -1 the generic node
    std::string image;       // the image file, relative to the module directory
    uint64_t offset = 0;
    uint64_t size = 0;
    unsigned major = 0;
    unsigned minor = 0;
    bool character = false;
};

// Thrown when a directory is no module (no sim/manifest), or is the host's
// root: nothing of the host is ever mapped.
class NotAModule : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Module {
public:
    // `dir` must hold a module (sim/manifest); throws NotAModule otherwise.
    explicit Module(const std::string& dir);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    // A module being made: `dir` must exist; no manifest is needed yet.
    struct Creating {};
    Module(const std::string& dir, Creating);

    // The directory, resolved (for messages); every file operation goes
    // through host(), which keeps them beneath it.
    const std::string& dir() const { return root_.path(); }
    const HostDir& host() const { return root_; }
    static std::string stateFile(const std::string& name) { return "sim/" + name; }
    static bool isModule(const std::string& dir);

    Manifest manifest();
    // Read-modify-write of the manifest under the lock; `change` returns false to abandon.
    bool updateManifest(const std::function<bool(Manifest&)>& change);
    void writeManifest(const Manifest& m);

    // The node at `vpath` when it names a node of some bay (present or not):
    // nullopt when it is no device path; `present` false when the bay is empty
    // or the partition does not exist.
    std::optional<DeviceNode> device(const std::string& vpath, bool& present);

    std::vector<Window> windows(int bay);
    // The kernel's re-read of a bay's table: reads the image, stores and
    // returns. A drive that does not answer (`answering` false) has none.
    std::vector<Window> rereadPartitions(int bay, bool answering = true);
    // The kernel finds the drive of a bay: its identify data is read and kept
    // until the drive is found again (ATA drives; "" for others, none, or a
    // drive that does not answer).
    void discover(int bay, bool answering = true);
    std::string discoveredIdentity(int bay);

    timeval now();
    // The same in microseconds.
    uint64_t nowUs();
    void advance(uint64_t microseconds);

    void logCommand(const std::string& kind, int status, bool known, const std::string& command);
    void logAta(const std::string& device, const std::string& what);
    std::string readState(const std::string& name);
    void writeState(const std::string& name, const std::string& text);
    // For logs: no view is kept of them, so the generation stays.
    void appendState(const std::string& name, const std::string& line);
    // Read-modify-write of a state file under the module's lock; `change`
    // returns false to leave the file as it is.
    bool updateState(const std::string& name, const std::function<bool(std::string&)>& change);
    // True once when the state file changed since the last call with `stamp`.
    // While the file's generation stands still, no file is looked at.
    struct Stamp {
        struct timespec mtime {};
        off_t size = -2;
        ino_t ino = 0;
        uint64_t generation = kNoGeneration;
    };
    bool stateChanged(const std::string& name, Stamp& stamp);
    // Counts the state files this process has written, any module: a view
    // cached on stamps is also stale when this moved, since two writes within
    // one tick of the file system's clock can leave a stamp as it was.
    static uint64_t stateWrites();

    // The generation of a file (`rel` to the directory), shared by every
    // process: it moves on after each write of the file through Module, and
    // of some others (files share a few counters). kNoGeneration when it
    // cannot be kept (no sim/ yet), and then views check their files' stamps.
    static constexpr uint64_t kNoGeneration = ~uint64_t{0};
    uint64_t generation(const std::string& rel);
    void stateWritten(const std::string& rel);
    // Every generation moves on, after state files were written another way.
    void stateWritten();

    // The hot-swap view of the bays kept for this module (bay_link.h).
    std::shared_ptr<struct BayLinkCache>& bayLinkCache() { return bayLink_; }
    // The md kernel's state kept for this module (md_kernel.h).
    std::shared_ptr<struct MdCache>& mdCache() { return md_; }
    // The chassis controller's unit kept for this module (dsp.cpp).
    std::shared_ptr<struct DspCache>& dspCache() { return dsp_; }
    // The tw controllers' state kept for this module (tw_state.h).
    std::shared_ptr<tw::TwView>& twCache() { return tw_; }

    // Drive handling; each gives "" or the reason it could not.
    // A tw controller notices a pull at once; `noticed` false leaves that to
    // its next look, for a drive put back into the bay before it (tavsim replace).
    std::string pull(int bay, bool noticed = true);
    std::string insert(int bay, const std::string& serial);  // serial "" makes a blank new drive
    std::string swap(int bayA, int bayB);
    // Writes `bytes` at `offset` of a device node (disk or partition), bounded by it.
    std::string overwrite(const std::string& vpath, uint64_t offset, const std::string& bytes);

    std::string shelfImage(const std::string& serial) const;
    // A serial number no drive of the manifest has, for a new drive.
    std::string newDriveSerial(const Manifest& m, int hint);

    // Holds the module's lock for a scope: an flock of sim/lock against other
    // processes and a mutex against other threads; a thread that holds it
    // may take it again.
    class Lock {
    public:
        explicit Lock(Module& m);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        struct Shared;

    private:
        Shared* shared_;
    };

private:
    bool changed(const std::string& rel, Stamp& stamp);
    bool imageStat(const std::string& image, struct stat& st);

    HostDir root_;
    uint64_t* mapGenerations();
    uint64_t* generations_ = nullptr;  // sim/generation, mapped shared
    Stamp manifestStamp_;
    Stamp clockStamp_;
    timeval clock_{};
    Manifest manifest_;
    struct TableCache {
        Stamp stamp;
        std::vector<Window> windows;
    };
    std::vector<TableCache> tables_;
    struct ImageStat {
        uint64_t generation = kNoGeneration;
        bool found = false;
        struct stat st {};
    };
    std::map<std::string, ImageStat> images_;
    std::shared_ptr<BayLinkCache> bayLink_;
    struct LogFile {
        int fd = -1;
        dev_t dev = 0;
        ino_t ino = 0;
    };
    std::map<std::string, LogFile> logs_;
    std::mutex logsMutex_;
    std::shared_ptr<MdCache> md_;
    std::shared_ptr<DspCache> dsp_;
    std::shared_ptr<tw::TwView> tw_;
};

} // namespace sim

// The simulated RAID controllers of the tw families (the 7000 on the "twe"
// driver, the 9000 on the "twa" driver): their state, one text file a
// controller under "sim/3ware/" (module.h lists the files). Lines of a
// controller file, values percent-encoded (manifest.h):
//
//   family 7000|9000        host N          (the SCSI host of the controller)
//   KEY VALUE               identity, compatibility, settings, battery (kKeys)
//   port N drive=SERIAL found-model=M found-serial=S found-firmware=F found-sectors=N status=B
//                           the drive on port N ("" none) and the identity the
//                           controller read when it found it
//   unit N config=C mode=M ports=0,1,- tree=T stripe=S capacity=SECTORS
//          rcache=0|1 wcache=0|1 ecc=0|1 autoverify=0|1 percent=P
//                           ports "-" for a missing member; the tree is a mode
//                           per node: "OK(OK@0,OK@1,DEGRADED)" (leaves carry
//                           their port after "@", a missing one none)
//   event SEQ TIME CODE SEVERITY TEXT    the event queue, oldest first
//   lock HOLDER EXPIRES     the controller's lock: the holding process and
//                           the end of its time-out, microseconds of the clock
//   fault ...               armed faults of the firmware and driver (tw_faults)
//
// A line that cannot be read is skipped with a warning; a controller file
// that is not there is no controller.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sim {

class Module;
struct Manifest;
struct Bay;
struct Drive;

namespace tw {

// Driver majors of the simulated kernel; the real ones are given out at load.
constexpr unsigned kMajor7000 = 254;
constexpr unsigned kMajor9000 = 253;
constexpr int kMaxControllers = 16;

struct Port {
    int number = 0;
    std::string drive;  // serial of the drive on the port, "" none
    std::string foundModel, foundSerial, foundFirmware;
    uint64_t foundSectors = 0;
    // The controller finds `d` on the port and reads its identity; null
    // leaves the port empty.
    void found(const Drive* d);
    int status = 0xFF;  // the drive's status byte: 0xFF good, 0 failed or offline, 0xFE unsupported
};

struct TreeNode {
    std::string mode = "OK";
    int port = -1;  // a leaf's port, -1 for a missing member or an inner node
    std::vector<TreeNode> children;
};

struct Unit {
    int number = 0;
    int config = 11;
    std::string mode = "OK";
    std::vector<int> ports;  // -1 for a missing member
    TreeNode tree;
    int stripe = 0;          // stripe code
    uint64_t capacity = 0;   // sectors
    int readCache = 1, writeCache = 1, ecc = 0, autoVerify = 0, percent = 100;
};

struct Event {
    uint32_t sequence = 0;
    uint32_t time = 0;
    uint16_t code = 0;
    uint8_t severity = 3;
    std::string text;
};

// A firmware or driver fault armed on a controller.
struct TwFault {
    enum class Kind { Firmware, Driver, Answer } kind = Kind::Firmware;
    int times = 1;          // calls it still hits; 0 for every call
    int opcode = -1;        // firmware: only commands of this opcode
    int table = -1, param = -1;  // firmware: only this parameter
    uint32_t status = 0;    // firmware: the command's status; driver: the driver status
    uint16_t code = 0;      // firmware: the controller's error code
    std::string text;       // firmware: the error text
    std::string answer;     // Answer: unterminated, oversize or garbage
    std::string format() const;
};

struct Controller {
    int index = 0;        // the file's number: "sim/3ware/cN"
    int family = 9000;
    int host = 0;
    std::map<std::string, std::string> values;
    std::vector<Port> ports;
    std::vector<Unit> units;
    std::vector<Event> events;
    std::string lockHolder;
    uint64_t lockExpires = 0;
    std::vector<TwFault> faults;

    std::string get(const std::string& key) const;
    int64_t num(const std::string& key, int64_t fallback = 0) const;
    void set(const std::string& key, const std::string& value) { values[key] = value; }
    void setNum(const std::string& key, int64_t value) { values[key] = std::to_string(value); }
    const Unit* unit(int number) const;
    Unit* unit(int number);
    const Port* port(int number) const;
    Port* port(int number);
    const char* driverName() const { return family == 7000 ? "3w-xxxx" : "3w-9xxx"; }
    const char* nodePrefix() const { return family == 7000 ? "twe" : "twa"; }
    unsigned major() const { return family == 7000 ? kMajor7000 : kMajor9000; }
};

// The bay of a controller's port: platform 2 by host and target of the
// bay's device path, the others in port order (port N is bay N + 1); null
// when no bay is wired to it.
const Bay* bayOfPort(const Manifest& m, const Controller& c, int port);
// The drive now in that bay, null none.
const Drive* driveOfPort(const Manifest& m, const Controller& c, int port);

// The keys a controller file holds, with their meaning, in the order written.
struct KeyInfo {
    const char* key;
    const char* what;
};
const std::vector<KeyInfo>& keys();

Controller parseController(const std::string& text, int index, std::vector<std::string>* warnings = nullptr);
std::string formatController(const Controller& c);
std::string formatTree(const TreeNode& node);
bool parseTree(const std::string& text, TreeNode& out);
// The ports of the tree's leaves, -1 for a missing member, in order.
std::vector<int> treePorts(const TreeNode& node);

std::string stateName(int index);  // "3ware/cN"

// The controllers of a module, read again only when their files changed.
// Changes go through update(), under the module's lock.
class TwView {
public:
    explicit TwView(Module& module) : module_(module) {}
    ~TwView();
    TwView(const TwView&) = delete;
    TwView& operator=(const TwView&) = delete;
    // The controller log: lines wait here until a node is closed, the view
    // goes, or they fill 16 KiB, so that a call costs no write of its own.
    void log(const std::string& line);
    void flushLog();
    const std::vector<Controller>& controllers();
    // The controller of a family by its minor (the order of the family's
    // controllers by host); null when there is none.
    const Controller* byMinor(int family, unsigned minor);
    const Controller* byHost(int host);
    // Read-modify-write of controller `index`; `change` returns false to leave it.
    bool update(int index, const std::function<bool(Controller&)>& change);
    // Within one driver call the files are looked at once: a Pin keeps the
    // view as it was read (changes of the call itself are read again).
    class Pin {
    public:
        explicit Pin(TwView& v) : v_(v)
        {
            v_.refresh();
            ++v_.pinned_;
        }
        ~Pin() { --v_.pinned_; }
        Pin(const Pin&) = delete;
        Pin& operator=(const Pin&) = delete;

    private:
        TwView& v_;
    };
    // The kernel's view, "sim/3ware/kernel", as it stands.
    const std::string& kernelText();
    // Ends what the virtual clock has finished (a battery test, an expired lock).
    void settle();

private:
    void refresh();
    Module& module_;
    std::vector<Controller> controllers_;
    std::vector<uint64_t> stamps_;
    bool loaded_ = false;
    std::string pending_;
    int pinned_ = 0;
    std::string kernel_;
    uint64_t kernelStamp_ = ~uint64_t{0};
};

// The view kept for a module (one per Module object).
TwView& twView(Module& module);
bool isTwModule(Module& module);

// The event queue: rising sequence numbers, stamped with the virtual clock,
// at most kMaxEvents kept, the oldest dropped first. Codes the model raises
// (37, 78, 80, 83 and 95 keep the meanings the battery and cache checks read):
constexpr size_t kMaxEvents = 128;
constexpr uint16_t kEventDriveRemoved = 20;
constexpr uint16_t kEventDriveFound = 21;
constexpr uint16_t kEventUnitDegraded = 22;
// Codes of the tasks on the clock and the battery (tw_tasks.h); the five
// the checks read keep their meanings: 37 and 95 cache errors (raised only
// through tavsim), 78 a battery test passed, 80 one failed, 83 a test overdue.
constexpr uint16_t kEventRebuildStarted = 41;
constexpr uint16_t kEventRebuildEnded = 42;
constexpr uint16_t kEventVerifyStarted = 43;
constexpr uint16_t kEventVerifyEnded = 44;
constexpr uint16_t kEventInitStarted = 45;
constexpr uint16_t kEventInitEnded = 46;
constexpr uint16_t kEventUnitUnusable = 47;
constexpr uint16_t kEventRebuildPaused = 48;
constexpr uint16_t kEventRebuildResumed = 49;
constexpr uint16_t kEventVerifyStopped = 50;
constexpr uint16_t kEventBatteryTestStarted = 51;
constexpr uint16_t kEventCacheError = 37;
constexpr uint16_t kEventBatteryTestPassed = 78;
constexpr uint16_t kEventBatteryTestFailed = 80;
constexpr uint16_t kEventBatteryOverdue = 83;
constexpr uint16_t kEventCacheDataLost = 95;
void raiseEvent(Controller& c, uint64_t nowUs, uint16_t code, uint8_t severity, const std::string& text);

// "15-Mar-2006" of a time in seconds since the epoch (UTC).
std::string dateText(int64_t seconds);

// A fresh controller of a family with `ports` ports on `host`.
Controller freshController(int index, int family, int host, int ports);

// The controller log "sim/3ware.log": a line, and all lines waiting written.
void logCall(Module& module, const std::string& line);
void flushLog(Module& module);

} // namespace tw
} // namespace sim

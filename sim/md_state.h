// The kernel's md state of a simulated module: the arrays it knows, their
// members and recoveries, the rebuild speed limits, and the arrays whose
// recovery is held back by a fault. All of it lives in the state file
// "sim/md", so that every process sees one kernel. One record a line,
// numbers in decimal, member and recovery lines belonging to the array line
// above them:
//
//   speed_limit_min 1000
//   speed_limit_max 200000
//   made 2
//   stalled 3
//   array 0 running=1 info=1 level=5 raid_disks=4 layout=2 chunk=262144 ctime=1136073600
//         utime=1136073610 uuid=1a2b3c4d:5e6f7a8b:9c0d1e2f:3a4b5c6d events=4 size=2035648
//   member slot=0 raid_disk=0 dev=3:2 bay=1 partition=2 serial=SIMA001 name=hda2 state=in-sync
//          component=2035648 [sb=EVENTS:LEVEL:RAID_DISKS:LAYOUT:CHUNK:CTIME]
//   recovery slot=4 role=3 done=763368 total=2035648 carry=0 since=1136073614000000
//
// (an array and a member are one line each). "sb" is what a member's own
// superblock said when it was added for assembly. A file that cannot be
// read in full is no state at all: the kernel then knows no arrays.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sim {

constexpr int kMdArrays = 256;   // md0 to md255
constexpr int kMdSlots = 27;     // descriptors in a superblock
constexpr unsigned kMdMajor = 9;
constexpr int kDefaultSpeedMin = 1000;    // KiB/s
constexpr int kDefaultSpeedMax = 200000;  // KiB/s

enum class MemberState { InSync, Spare, Faulty };

// The array as a member's own superblock describes it.
struct MdSuperInfo {
    uint64_t events = 0;
    int level = 0;
    int raidDisks = 0;
    int layout = 0;
    int chunkSize = 0;
    uint32_t ctime = 0;

    bool operator==(const MdSuperInfo&) const = default;
};

struct MdMember {
    int slot = 0;            // descriptor number, shown as hda2[slot]
    int raidDisk = -1;       // role in the set; -1 none
    unsigned major = 0;
    unsigned minor = 0;
    int bay = 0;
    int partition = 0;
    std::string serial;      // of the drive when the member joined
    std::string name;        // the kernel's name of the partition ("hda2")
    MemberState state = MemberState::Spare;
    uint64_t componentKiB = 0;
    std::optional<MdSuperInfo> super;

    bool operator==(const MdMember&) const = default;
};

// Recovery onto one spare, in KiB; `carry` holds the KiB·µs below one KiB
// that the last step left over, so that progress is exact however often it
// is brought up to date.
struct MdRecovery {
    int slot = -1;           // the member being rebuilt; -1 none
    int role = -1;           // the raid disk it will fill
    uint64_t doneKiB = 0;
    uint64_t totalKiB = 0;
    uint64_t carry = 0;
    uint64_t sinceUs = 0;    // virtual time `doneKiB` holds for

    bool operator==(const MdRecovery&) const = default;
};

struct MdCounts {
    int nr = 0;       // members
    int active = 0;   // in sync
    int working = 0;  // not faulty
    int failed = 0;   // faulty
    int spare = 0;    // working, not in sync
};

struct MdArray {
    int minor = 0;
    bool running = false;
    bool hasInfo = false;    // made by SET_ARRAY_INFO with info: a new array
    int level = 0;
    int raidDisks = 0;
    int layout = 0;
    int chunkSize = 0;       // bytes
    uint32_t ctime = 0;
    uint32_t utime = 0;
    uint32_t uuid[4] = {};
    uint64_t events = 0;
    uint64_t sizeKiB = 0;    // component size in use
    std::vector<MdMember> members;  // in the order they joined
    MdRecovery recovery;

    // SET_ARRAY_INFO refuses an array that has info, members or runs.
    bool exists() const { return running || hasInfo || !members.empty(); }
    bool operator==(const MdArray&) const = default;
    MdMember* member(int slot);
    const MdMember* member(int slot) const;
    MdMember* memberByDevice(unsigned major, unsigned minor);

    MdCounts counts() const;
    // The in-sync member in role `role`, or null.
    const MdMember* inRole(int role) const;
    int rolesInSync() const;
    // Too few in-sync members to serve I/O: any loss for level 0, two for
    // level 5, all for level 1.
    bool failed() const;
    bool degraded() const { return rolesInSync() < raidDisks; }
    bool recovering() const { return recovery.slot >= 0; }
    // Bytes of the running array: level 0 the sum of its components, 1 the
    // smallest, 5 (n-1) times the smallest; 0 when not running.
    uint64_t bytes() const;
};

struct MdState {
    int speedMin = kDefaultSpeedMin;
    int speedMax = kDefaultSpeedMax;
    uint64_t made = 0;       // arrays made so far: part of each new set's uuid
    std::set<int> stalled;   // minors whose recovery never runs
    std::vector<MdArray> arrays;  // by rising minor

    MdArray* array(int minor);
    const MdArray* array(int minor) const;
    MdArray& allocate(int minor);
    void forget(int minor);
    bool isStalled(int minor) const { return stalled.count(minor) != 0; }

    // False, with `out` the empty state and `why` naming the line, when the
    // text is not a state in full.
    static bool parse(const std::string& text, MdState& out, std::string& why);
    std::string format() const;
    bool operator==(const MdState&) const = default;
};

// The word of a member state in the state file and in tavsim ("in-sync", ...).
const char* memberStateName(MemberState s);

// The member's state as tavsim tells it: in-sync, spare, rebuilding (recovery
// onto it runs), waiting (recovery onto it is stalled) or faulty.
std::string memberCondition(const MdArray& a, const MdMember& m, bool stalled);
// The array's: active, degraded, recovering, failed or inactive.
std::string arrayCondition(const MdArray& a, bool stalled);

// Starts recovery at `atUs` when a running level 1 or 5 array is degraded
// but not failed and has a spare: the spare of the lowest slot rebuilds the
// lowest missing role. True when it started.
bool startRecovery(MdArray& a, uint64_t atUs);
// Brings recovery up to `nowUs` at `rate` KiB/s (none while stalled or at a
// rate of 0 or less). A finished member goes in sync in its role, the event
// count goes up, and the next spare starts at the moment it finished. True
// when a member finished (its superblocks need writing).
bool advanceRecovery(MdArray& a, uint64_t nowUs, int rate, bool stalled);
// The per-mille figure of a recovery, as the kernel's status prints it.
unsigned recoveryPerMille(const MdRecovery& r);
// Microseconds to the end of a recovery at `rate`.
uint64_t recoveryRemainingUs(const MdRecovery& r, int rate);

} // namespace sim

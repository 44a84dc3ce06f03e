#include "md_kernel.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/raid/md_p.h>
#include <sstream>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "md_superblock.h"
#include "sysfs.h"

static int giDebug_mdkernel = 0;
#define TAV_DEBUG_FLAG giDebug_mdkernel
#include "driveutils/tavlog.h"

namespace sim {
namespace {

std::string dirName(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string partitionPath(const Bay& bay, int partition) { return dirName(bay.device) + "/part" + std::to_string(partition); }

uint32_t fnv(uint32_t h, const std::string& text)
{
    for (unsigned char c : text) h = (h ^ c) * 16777619u;
    return h;
}

bool isPowerOfTwo(int n) { return n > 0 && (n & (n - 1)) == 0; }

// A device number as the kernel decodes the argument of the HOT_* requests.
unsigned devMajor(dev_t d) { return gnu_dev_major(d); }
unsigned devMinor(dev_t d) { return gnu_dev_minor(d); }

} // namespace

struct MdKernel::Partition {
    int bay = 0;
    int number = 0;
    std::string vpath;
    std::string serial;
    std::string name;
    DeviceNode node;
};

MdKernel::MdKernel(Module& module, MdState& state) : module_(module), state_(state), manifest_(module.manifest())
{
    const timeval now = module.now();
    nowUs_ = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

// ---- devices ----

bool MdKernel::findPartition(unsigned major, unsigned minor, Partition& out)
{
    for (const Bay& bay : manifest_.bays) {
        if (bay.major != major || minor <= bay.minor || minor > bay.minor + bay.maxPartitions) continue;
        const Drive* drive = manifest_.driveInBay(bay.number);
        if (!drive) return false;
        out.bay = bay.number;
        out.number = static_cast<int>(minor - bay.minor);
        out.vpath = partitionPath(bay, out.number);
        out.serial = drive->serial;
        out.name = blockName(bay) + std::to_string(out.number);
        bool present = false;
        std::optional<DeviceNode> node = module_.device(out.vpath, present);
        if (!node || !present) return false;
        out.node = *node;
        return true;
    }
    return false;
}

bool MdKernel::memberOfAny(unsigned major, unsigned minor) const
{
    for (MdArray& a : state_.arrays)
        if (a.memberByDevice(major, minor)) return true;
    return false;
}

bool MdKernel::driveStillThere(const MdMember& m)
{
    const Drive* d = manifest_.driveInBay(m.bay);
    return d && d->serial == m.serial;
}

// sim/mounts: "SOURCE TARGET TYPE".
bool MdKernel::mounted(int minor)
{
    std::istringstream in(module_.readState("mounts"));
    const std::string node = "/dev/md" + std::to_string(minor);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string source;
        if (words >> source && source == node) return true;
    }
    return false;
}

// ---- changes ----

bool MdKernel::failMember(MdArray& a, MdMember& m)
{
    if (m.state == MemberState::Faulty) return false;
    // The mirror keeps its last in-sync member whatever happens to it.
    if (a.level == 1 && m.state == MemberState::InSync && a.rolesInSync() == 1) {
        TAV_LOG(3, "tavsim: md%d: %s is the last in-sync member of the mirror: not failed\n", a.minor, m.name.c_str());
        return false;
    }
    if (a.recovery.slot == m.slot) a.recovery = MdRecovery{};
    m.state = MemberState::Faulty;
    return true;
}

void MdKernel::writeSuperblocks(const MdArray& a)
{
    for (const MdMember& m : a.members) {
        if (m.state == MemberState::Faulty || !driveStillThere(m)) continue;
        const Bay* bay = manifest_.bay(m.bay);
        if (!bay) continue;
        const std::string vpath = partitionPath(*bay, m.partition);
        bool present = false;
        std::optional<DeviceNode> node = module_.device(vpath, present);
        const uint64_t at = node && present ? superblockOffset(node->size) : 0;
        if (at == 0) continue;
        if (std::string err = module_.overwrite(vpath, at, makeSuperblock(a, m)); !err.empty())
            TAV_LOG(0, "tavsim: md%d: superblock of %s not written: %s\n", a.minor, m.name.c_str(), err.c_str());
    }
}

void MdKernel::commit(MdArray& a)
{
    ++a.events;
    a.utime = static_cast<uint32_t>(nowUs_ / 1000000);
    writeSuperblocks(a);
}

void MdKernel::changed(MdArray& a)
{
    commit(a);
    startRecovery(a, nowUs_);
}

void MdKernel::catchUp()
{
    for (MdArray& a : state_.arrays) {
        if (!a.running) continue;
        bool lost = false;
        for (MdMember& m : a.members)
            if (m.state != MemberState::Faulty && !driveStillThere(m) && failMember(a, m)) {
                TAV_LOG(1, "tavsim: md%d: the drive of %s left bay %d: member failed\n", a.minor, m.name.c_str(), m.bay);
                lost = true;
            }
        if (lost) changed(a);
        if (advanceRecovery(a, nowUs_, state_.speedMax, state_.isStalled(a.minor))) writeSuperblocks(a);
    }
}

// ---- requests ----

int MdKernel::setArrayInfo(int minor, const mdu_array_info_t* info)
{
    MdArray* existing = state_.array(minor);
    if (existing && existing->exists()) return EEXIST;
    // Only the 0.90 family of superblocks is kept; a set holds at most 27 disks.
    if (info && (info->major_version != 0 || info->raid_disks < 1 || info->raid_disks > kMdSlots || info->chunk_size < 0))
        return EINVAL;
    MdArray& a = state_.allocate(minor);
    a = MdArray{};
    a.minor = minor;
    if (!info) return 0;
    a.hasInfo = true;
    a.level = info->level;
    a.raidDisks = info->raid_disks;
    a.layout = info->layout;
    a.chunkSize = info->chunk_size;
    // The kernel stamps its own time; the caller's ctime is not taken.
    a.ctime = a.utime = static_cast<uint32_t>(nowUs_ / 1000000);
    return 0;
}

int MdKernel::getArrayInfo(int minor, mdu_array_info_t& info)
{
    const MdArray* a = state_.array(minor);
    if (!a) return ENODEV;
    if (!a->running) return EINVAL;
    const MdCounts c = a->counts();
    info = mdu_array_info_t{};
    info.major_version = 0;
    info.minor_version = 90;
    info.ctime = a->ctime;
    info.level = a->level;
    // As the kernel's: the size used of each component, in KiB.
    info.size = static_cast<int>(std::min<uint64_t>(a->sizeKiB, INT_MAX));
    info.nr_disks = c.nr;
    info.raid_disks = a->raidDisks;
    info.md_minor = minor;
    info.utime = a->utime;
    info.state = 1 << MD_SB_CLEAN;
    info.active_disks = c.active;
    info.working_disks = c.working;
    info.failed_disks = c.failed;
    info.spare_disks = c.spare;
    info.layout = a->layout;
    info.chunk_size = a->chunkSize;
    return 0;
}

int MdKernel::addNewDisk(int minor, const mdu_disk_info_t& disk)
{
    MdArray* a = state_.array(minor);
    if (!a) return ENODEV;
    if (a->running) return EBUSY;
    Partition p;
    if (disk.major < 0 || disk.minor < 0 ||
        !findPartition(static_cast<unsigned>(disk.major), static_cast<unsigned>(disk.minor), p))
        return ENODEV;
    if (memberOfAny(static_cast<unsigned>(disk.major), static_cast<unsigned>(disk.minor))) return EBUSY;
    const uint64_t sbAt = superblockOffset(p.node.size);
    if (sbAt == 0) return EINVAL;  // too small to hold a superblock
    MdMember m;
    m.major = static_cast<unsigned>(disk.major);
    m.minor = static_cast<unsigned>(disk.minor);
    m.bay = p.bay;
    m.partition = p.number;
    m.serial = p.serial;
    m.name = p.name;
    m.componentKiB = componentKiB(p.node.size);
    if (a->hasInfo) {
        if (disk.number < 0 || disk.number >= kMdSlots) return EINVAL;
        if (a->member(disk.number)) return EBUSY;
        m.slot = disk.number;
        // The sync bit puts a member in its role; the other bits are not taken.
        const bool inSync = (disk.state & (1 << MD_DISK_SYNC)) && disk.raid_disk >= 0 && disk.raid_disk < a->raidDisks;
        m.state = inSync ? MemberState::InSync : MemberState::Spare;
        m.raidDisk = inSync ? disk.raid_disk : -1;
    } else {
        // Persistent superblocks: the numbers given are not looked at.
        std::string bytes, why;
        const int fd = module_.host().open(p.node.image, O_RDONLY);
        bytes.resize(kMdSuperblockBytes);
        const ssize_t got = fd < 0 ? -1 : ::pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(p.node.offset + sbAt));
        if (fd >= 0) ::close(fd);
        SuperblockView sb;
        if (got != static_cast<ssize_t>(bytes.size()) || !readSuperblock(bytes, sb, why)) {
            TAV_LOG(1, "tavsim: md%d: %s: %s\n", minor, p.name.c_str(), why.empty() ? "cannot read the superblock" : why.c_str());
            return EINVAL;
        }
        if (!a->members.empty() && !std::equal(sb.uuid, sb.uuid + 4, a->uuid)) {
            TAV_LOG(1, "tavsim: md%d: %s belongs to another set than %s\n", minor, p.name.c_str(), a->members[0].name.c_str());
            return EINVAL;
        }
        if (a->member(sb.slot)) return EBUSY;
        if (a->members.empty()) std::copy(sb.uuid, sb.uuid + 4, a->uuid);
        m.slot = sb.slot;
        m.state = sb.state;
        m.raidDisk = sb.raidDisk;
        m.super = sb.array;
    }
    a->members.push_back(m);
    return 0;
}

// The freshest superblock defines the set; members with an older event
// count are kicked and not used.
void MdKernel::takeFreshest(MdArray& a)
{
    const MdMember* freshest = &a.members[0];
    for (const MdMember& m : a.members)
        if (m.super && (!freshest->super || m.super->events > freshest->super->events)) freshest = &m;
    const MdSuperInfo s = freshest->super.value_or(MdSuperInfo{});
    auto stale = [&](const MdMember& m) { return !m.super || m.super->events < s.events; };
    for (const MdMember& m : a.members)
        if (stale(m)) TAV_LOG(1, "tavsim: md%d: kicking non-fresh %s from array\n", a.minor, m.name.c_str());
    a.members.erase(std::remove_if(a.members.begin(), a.members.end(), stale), a.members.end());
    a.level = s.level;
    a.raidDisks = s.raidDisks;
    a.layout = s.layout;
    a.chunkSize = s.chunkSize;
    a.ctime = s.ctime;
    a.events = s.events;
}

// Members in their roles (an in-sync one beyond the set becomes a spare);
// 0, or EINVAL when the personality cannot run them.
int MdKernel::placeMembers(MdArray& a)
{
    if (a.level != 0 && a.level != 1 && a.level != 5) return EINVAL;  // no such personality
    if (a.level != 1 && (!isPowerOfTwo(a.chunkSize) || a.chunkSize < 4096)) return EINVAL;
    if (a.level == 5 && a.raidDisks < 2) return EINVAL;
    std::vector<int> roles;
    for (MdMember& m : a.members) {
        if (m.state == MemberState::InSync && m.raidDisk >= a.raidDisks) {
            m.state = MemberState::Spare;
            m.raidDisk = -1;
        }
        if (m.state != MemberState::InSync) continue;
        if (std::find(roles.begin(), roles.end(), m.raidDisk) != roles.end()) return EINVAL;
        roles.push_back(m.raidDisk);
    }
    const int have = static_cast<int>(roles.size());
    const int need = a.level == 0 ? a.raidDisks : a.level == 1 ? 1 : a.raidDisks - 1;
    return have >= need ? 0 : EINVAL;
}

int MdKernel::runArray(int minor)
{
    MdArray* a = state_.array(minor);
    if (!a) return ENODEV;
    if (a->running) return EBUSY;
    if (a->members.empty()) return EINVAL;
    if (!a->hasInfo) takeFreshest(*a);
    if (int error = placeMembers(*a)) {
        TAV_LOG(1, "tavsim: md%d: cannot run level %d with %zu members\n", minor, a->level, a->members.size());
        return error;
    }
    if (a->hasInfo) {
        // A new set: a uuid of its own, the event count starting at 1.
        const std::string seed = manifest_.moduleSerial + "/" + std::to_string(minor) + "/" + std::to_string(nowUs_) + "/" +
                                 std::to_string(++state_.made);
        for (int i = 0; i < 4; ++i) a->uuid[i] = fnv(2166136261u + static_cast<uint32_t>(i) * 0x9e3779b9u, seed);
        a->events = 0;
    }
    a->sizeKiB = 0;
    for (const MdMember& m : a->members)
        if (m.state == MemberState::InSync && (a->sizeKiB == 0 || m.componentKiB < a->sizeKiB)) a->sizeKiB = m.componentKiB;
    a->running = true;
    changed(*a);
    return 0;
}

int MdKernel::stopArray(int minor)
{
    MdArray* a = state_.array(minor);
    if (!a) return ENODEV;
    if (mounted(minor)) return EBUSY;
    if (a->running) commit(*a);
    state_.forget(minor);
    return 0;
}

int MdKernel::hotAddDisk(int minor, dev_t device)
{
    MdArray* a = state_.array(minor);
    if (!a) return ENODEV;
    if (!a->running) return EINVAL;
    Partition p;
    if (!findPartition(devMajor(device), devMinor(device), p)) return ENXIO;
    if (memberOfAny(devMajor(device), devMinor(device))) return EBUSY;
    if (a->level == 0) return EINVAL;
    if (componentKiB(p.node.size) < a->sizeKiB || superblockOffset(p.node.size) == 0) return ENOSPC;
    int slot = a->raidDisks;
    while (slot < kMdSlots && a->member(slot)) ++slot;
    if (slot >= kMdSlots) return ENOSPC;  // no descriptor left
    MdMember m;
    m.slot = slot;
    m.major = devMajor(device);
    m.minor = devMinor(device);
    m.bay = p.bay;
    m.partition = p.number;
    m.serial = p.serial;
    m.name = p.name;
    m.componentKiB = componentKiB(p.node.size);
    a->members.push_back(m);
    changed(*a);
    return 0;
}

int MdKernel::hotRemoveDisk(int minor, dev_t device)
{
    MdArray* a = state_.array(minor);
    if (!a || !a->running) return ENODEV;
    MdMember* m = a->memberByDevice(devMajor(device), devMinor(device));
    if (!m) return ENXIO;
    if (m->state == MemberState::InSync) return EBUSY;
    if (a->recovery.slot == m->slot) a->recovery = MdRecovery{};
    const int slot = m->slot;
    a->members.erase(std::remove_if(a->members.begin(), a->members.end(), [&](const MdMember& x) { return x.slot == slot; }),
                     a->members.end());
    changed(*a);
    return 0;
}

int MdKernel::setDiskFaulty(int minor, dev_t device)
{
    MdArray* a = state_.array(minor);
    if (!a || !a->running) return ENODEV;
    MdMember* m = a->memberByDevice(devMajor(device), devMinor(device));
    if (!m) return ENODEV;
    if (failMember(*a, *m)) changed(*a);
    return 0;
}

int MdKernel::getDiskInfo(int minor, mdu_disk_info_t& disk)
{
    const MdArray* a = state_.array(minor);
    if (!a) return ENODEV;
    if (!a->running || disk.number < 0 || disk.number >= kMdSlots) return EINVAL;
    const MdMember* m = a->member(disk.number);
    if (!m) {
        disk.major = disk.minor = 0;
        disk.raid_disk = -1;
        disk.state = 1 << MD_DISK_REMOVED;
        return 0;
    }
    disk.major = static_cast<int>(m->major);
    disk.minor = static_cast<int>(m->minor);
    disk.raid_disk = m->raidDisk;
    disk.state = m->state == MemberState::Faulty   ? 1 << MD_DISK_FAULTY
                 : m->state == MemberState::InSync ? (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC)
                                                   : 0;
    // A spare whose recovery is stalled carries the in-sync flag of its old
    // superblock, but is never made active.
    if (a->recovery.slot == m->slot && state_.isStalled(minor)) disk.state = 1 << MD_DISK_SYNC;
    return 0;
}

uint64_t MdKernel::bytes(int minor)
{
    const MdArray* a = state_.array(minor);
    return a ? a->bytes() : 0;
}

void MdKernel::setSpeedLimit(bool max, int kibPerSecond) { (max ? state_.speedMax : state_.speedMin) = kibPerSecond; }

void MdKernel::setStalled(int minor, bool stalled)
{
    if (stalled) state_.stalled.insert(minor);
    else state_.stalled.erase(minor);
}

void MdKernel::forgetAll() { state_.arrays.clear(); }

// ---- visits ----

// The state as last read or written, kept per Module so that a request that
// changes nothing reads and parses no file.
struct MdCache {
    Module::Stamp stamp;
    bool valid = false;
    bool readable = false;
    std::string why;
    MdState state;
    std::string before;  // the text that stands for `state` on disk
};

void visitMd(Module& module, const std::function<void(MdKernel&)>& visit)
{
    Module::Lock lock(module);
    std::shared_ptr<MdCache>& slot = module.mdCache();
    if (!slot) slot = std::make_shared<MdCache>();
    MdCache& c = *slot;
    if (module.stateChanged("md", c.stamp) || !c.valid || module.generation(Module::stateFile("md")) == Module::kNoGeneration) {
        const std::string text = module.readState("md");
        c.state = MdState{};
        c.readable = MdState::parse(text, c.state, c.why);
        // A file that cannot be read stays as it is until the kernel changes.
        c.before = c.readable ? text : c.state.format();
        c.valid = true;
    }
    if (!c.readable) {
        thread_local std::string reported;
        if (c.why != reported) TAV_LOG(0, "tavsim: %s; the kernel knows no md arrays\n", c.why.c_str());
        reported = c.why;
    }
    MdState state = c.state;
    MdKernel kernel(module, state);
    kernel.catchUp();
    visit(kernel);
    if (c.readable && state == c.state) return;  // most requests only read
    std::string after = state.format();
    if (after == c.before) return;
    module.writeState("md", after);
    c.valid = false;  // read back once: the write may have failed
}

MdState mdState(Module& module)
{
    MdState out;
    visitMd(module, [&](MdKernel& k) { out = k.state(); });
    return out;
}

std::string freshMdState() { return MdState{}.format(); }

} // namespace sim

#include "md_superblock.h"

#include <cstddef>
#include <cstring>
#include <linux/raid/md_p.h>

namespace sim {
namespace {

static_assert(sizeof(mdp_super_t) == kMdSuperblockBytes);
static_assert(sizeof(mdp_disk_t) == MD_SB_DESCRIPTOR_WORDS * 4);
static_assert(offsetof(mdp_super_t, set_uuid0) == 5 * 4);
static_assert(offsetof(mdp_super_t, set_uuid1) == 13 * 4);
static_assert(offsetof(mdp_super_t, utime) == MD_SB_GENERIC_CONSTANT_WORDS * 4);
static_assert(offsetof(mdp_super_t, sb_csum) == (MD_SB_GENERIC_CONSTANT_WORDS + 6) * 4);
static_assert(offsetof(mdp_super_t, events_lo) == (MD_SB_GENERIC_CONSTANT_WORDS + 7) * 4);
static_assert(offsetof(mdp_super_t, layout) == MD_SB_PERSONALITY_OFFSET * 4);
static_assert(offsetof(mdp_super_t, disks) == MD_SB_DISKS_OFFSET * 4);
static_assert(offsetof(mdp_super_t, this_disk) == MD_SB_DESCRIPTOR_OFFSET * 4);
static_assert(MD_SB_DISKS == kMdSlots);
static_assert(MD_RESERVED_BYTES == kMdReservedBytes);

constexpr uint32_t kSlots = kMdSlots;
constexpr uint32_t kStateFaulty = 1u << MD_DISK_FAULTY;
constexpr uint32_t kStateInSync = (1u << MD_DISK_ACTIVE) | (1u << MD_DISK_SYNC);

// The sum of the superblock's words with the checksum word taken as 0,
// its carry folded back once.
uint32_t checksum(const mdp_super_t& sb)
{
    mdp_super_t copy = sb;
    copy.sb_csum = 0;
    uint32_t words[kMdSuperblockBytes / 4];
    std::memcpy(words, &copy, sizeof words);
    uint64_t sum = 0;
    for (uint32_t w : words) sum += w;
    return static_cast<uint32_t>((sum & 0xffffffffu) + (sum >> 32));
}

mdp_disk_t descriptor(const MdMember& m)
{
    mdp_disk_t d{};
    d.number = static_cast<uint32_t>(m.slot);
    d.major = m.major;
    d.minor = m.minor;
    // A spare's descriptor names its own slot as its place, as older kernels wrote it.
    d.raid_disk = static_cast<uint32_t>(m.raidDisk >= 0 ? m.raidDisk : m.slot);
    d.state = m.state == MemberState::Faulty ? kStateFaulty : m.state == MemberState::InSync ? kStateInSync : 0;
    return d;
}

} // namespace

uint64_t superblockOffset(uint64_t bytes)
{
    const uint64_t aligned = bytes & ~(kMdReservedBytes - 1);
    return aligned >= kMdReservedBytes ? aligned - kMdReservedBytes : 0;
}

uint64_t componentKiB(uint64_t bytes) { return superblockOffset(bytes) / 1024; }

std::string makeSuperblock(const MdArray& a, const MdMember& member)
{
    mdp_super_t sb{};
    sb.md_magic = MD_SB_MAGIC;
    sb.major_version = 0;
    sb.minor_version = 90;
    sb.set_uuid0 = a.uuid[0];
    sb.set_uuid1 = a.uuid[1];
    sb.set_uuid2 = a.uuid[2];
    sb.set_uuid3 = a.uuid[3];
    sb.ctime = a.ctime;
    sb.level = static_cast<uint32_t>(a.level);
    sb.size = static_cast<uint32_t>(a.sizeKiB);
    sb.nr_disks = static_cast<uint32_t>(a.members.size());
    sb.raid_disks = static_cast<uint32_t>(a.raidDisks);
    sb.md_minor = static_cast<uint32_t>(a.minor);
    sb.utime = a.utime;
    sb.state = 1u << MD_SB_CLEAN;
    const MdCounts c = a.counts();
    sb.active_disks = static_cast<uint32_t>(c.active);
    sb.working_disks = static_cast<uint32_t>(c.working);
    sb.failed_disks = static_cast<uint32_t>(c.failed);
    sb.spare_disks = static_cast<uint32_t>(c.spare);
    sb.events_lo = static_cast<uint32_t>(a.events);
    sb.events_hi = static_cast<uint32_t>(a.events >> 32);
    sb.cp_events_lo = sb.events_lo;
    sb.cp_events_hi = sb.events_hi;
    sb.recovery_cp = 0xffffffffu;  // clean: nothing to resync
    sb.layout = static_cast<uint32_t>(a.layout);
    sb.chunk_size = static_cast<uint32_t>(a.chunkSize);
    for (const MdMember& m : a.members)
        if (m.slot >= 0 && m.slot < kMdSlots) sb.disks[m.slot] = descriptor(m);
    sb.this_disk = descriptor(member);
    sb.sb_csum = checksum(sb);
    return std::string(reinterpret_cast<const char*>(&sb), sizeof sb);
}

bool readSuperblock(const std::string& bytes, SuperblockView& out, std::string& why)
{
    if (bytes.size() != sizeof(mdp_super_t)) {
        why = "short superblock";
        return false;
    }
    mdp_super_t sb;
    std::memcpy(&sb, bytes.data(), sizeof sb);
    const char* problem = sb.md_magic != MD_SB_MAGIC                            ? "no md superblock"
                          : sb.major_version != 0 || sb.minor_version != 90     ? "superblock version is not 0.90"
                          : sb.sb_csum != checksum(sb)                          ? "superblock checksum is wrong"
                          : sb.this_disk.number >= kSlots                       ? "descriptor number out of range"
                          : sb.raid_disks < 1 || sb.raid_disks > kSlots         ? "raid disks out of range"
                          : sb.chunk_size > 0x7fffffffu                         ? "chunk size out of range"
                                                                                : nullptr;
    if (problem) {
        why = problem;
        return false;
    }
    const mdp_disk_t& self = sb.disks[sb.this_disk.number];
    out.array.events = (static_cast<uint64_t>(sb.events_hi) << 32) | sb.events_lo;
    out.array.level = static_cast<int>(sb.level);
    out.array.raidDisks = static_cast<int>(sb.raid_disks);
    out.array.layout = static_cast<int>(sb.layout);
    out.array.chunkSize = static_cast<int>(sb.chunk_size);
    out.array.ctime = sb.ctime;
    out.uuid[0] = sb.set_uuid0;
    out.uuid[1] = sb.set_uuid1;
    out.uuid[2] = sb.set_uuid2;
    out.uuid[3] = sb.set_uuid3;
    out.slot = static_cast<int>(sb.this_disk.number);
    // The member's place comes from the descriptor of its own number, as the kernel takes it.
    out.state = (self.state & kStateFaulty) ? MemberState::Faulty
                : ((self.state & (1u << MD_DISK_SYNC)) && self.raid_disk < sb.raid_disks) ? MemberState::InSync
                                                                                         : MemberState::Spare;
    out.raidDisk = out.state == MemberState::InSync ? static_cast<int>(self.raid_disk) : -1;
    return true;
}

} // namespace sim

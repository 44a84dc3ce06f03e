// tavsim md: the kernel's md arrays as a storage engineer reads them, the
// stalled-recovery fault, and the reboot that makes the kernel forget them.
#include <algorithm>
#include <cstdio>
#include <iostream>

#include "json.h"
#include "md.h"
#include "md_kernel.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

std::string device(int minor) { return "/dev/md" + std::to_string(minor); }

bool levelKnown(const MdArray& a) { return a.running || a.hasInfo; }

std::string levelText(const MdArray& a) { return levelKnown(a) ? "raid" + std::to_string(a.level) : ""; }

bool hasChunk(const MdArray& a) { return levelKnown(a) && (a.level == 0 || a.level == 5); }

std::string perMilleText(unsigned perMille)
{
    return std::to_string(perMille / 10) + "." + std::to_string(perMille % 10) + "%";
}

uint64_t finishSeconds(const MdRecovery& r, int rate) { return (recoveryRemainingUs(r, rate) + 999999) / 1000000; }

std::string recoveryCell(const MdArray& a, bool stalled)
{
    if (!a.recovering()) return "";
    return stalled ? "stalled" : perMilleText(recoveryPerMille(a.recovery));
}

std::vector<const MdMember*> membersBySlot(const MdArray& a)
{
    std::vector<const MdMember*> out;
    for (const MdMember& m : a.members) out.push_back(&m);
    std::sort(out.begin(), out.end(), [](const MdMember* x, const MdMember* y) { return x->slot < y->slot; });
    return out;
}

// "hda2[0] hdc2[1](F) hde2[2](S)", by slot, marked as /proc/mdstat marks them.
std::string memberList(const MdArray& a)
{
    std::string out;
    for (const MdMember* m : membersBySlot(a))
        out += (out.empty() ? "" : " ") + m->name + "[" + std::to_string(m->slot) + "]" +
               (m->state == MemberState::Faulty ? "(F)" : m->state == MemberState::Spare && m->raidDisk < 0 ? "(S)" : "");
    return out;
}

// One line of an array: what it is and how many of its disks do what.
std::string summary(const MdArray& a, bool stalled)
{
    const MdCounts c = a.counts();
    const std::string members = std::to_string(c.nr) + (c.nr == 1 ? " member" : " members");
    std::string line = device(a.minor) + (levelKnown(a) ? " " + levelText(a) : "") + " " + arrayCondition(a, stalled) + ": ";
    if (!a.running)
        return line + (a.hasInfo ? "raid disks " + std::to_string(a.raidDisks) + ", " + members + ", not running"
                                 : members + ", to be assembled from the members' superblocks");
    line += "raid disks " + std::to_string(a.raidDisks) + ", active " + std::to_string(c.active) + ", working " +
            std::to_string(c.working) + ", failed " + std::to_string(c.failed) + ", spare " + std::to_string(c.spare) +
            ", size " + humanSize(a.bytes());
    if (hasChunk(a)) line += ", chunk " + humanSize(static_cast<uint64_t>(a.chunkSize));
    return line + (stalled ? ", recovery stalled" : "");
}

std::string recoverySentence(const MdArray& a, const MdState& s, uint64_t nowUs)
{
    const MdRecovery& r = a.recovery;
    const std::string done = perMilleText(recoveryPerMille(r)) + " (" + std::to_string(r.doneKiB) + " of " +
                             std::to_string(r.totalKiB) + " KiB)";
    if (s.isStalled(a.minor)) return "recovery stalled at " + done + ": the new member waits and never syncs";
    if (s.speedMax <= 0) return "recovery " + done + " at speed_limit_max " + std::to_string(s.speedMax) + ": it does not move";
    const uint64_t seconds = finishSeconds(r, s.speedMax);
    return "recovery " + done + " at " + std::to_string(s.speedMax) + "K/sec, " + std::to_string(seconds) +
           " s to finish (clock " + std::to_string((nowUs + recoveryRemainingUs(r, s.speedMax)) / 1000000) + ")";
}

void printArray(const MdArray& a, const MdState& s, uint64_t nowUs)
{
    const bool stalled = s.isStalled(a.minor);
    std::cout << summary(a, stalled) << "\n";
    if (!a.members.empty()) {
        Table t({"SLOT", "RAID_DISK", "DEVICE", "BAY", "SERIAL", "STATE"});
        for (const MdMember* m : membersBySlot(a))
            t.add({std::to_string(m->slot), m->raidDisk < 0 ? "" : std::to_string(m->raidDisk), m->name,
                   std::to_string(m->bay), m->serial, memberCondition(a, *m, stalled)});
        t.print(std::cout);
    }
    if (a.recovering()) std::cout << recoverySentence(a, s, nowUs) << "\n";
}

std::string memberPath(const Manifest& m, const MdMember& member)
{
    const Bay* bay = m.bay(member.bay);
    if (!bay) return "";
    return bay->device.substr(0, bay->device.rfind('/')) + "/part" + std::to_string(member.partition);
}

// ARRAY: "md0" or "/dev/md0"; false with the sentence of a bad one.
bool arrayArgument(const std::string& option, const std::string& word, int& minor, std::string& why)
{
    minor = mdMinor(word.compare(0, 5, "/dev/") == 0 ? word : "/dev/" + word);
    if (minor >= 0) return true;
    why = option + " " + cell(word) + ": give an array md0 to md" + std::to_string(kMdArrays - 1) + " (or /dev/md0 to /dev/md" +
          std::to_string(kMdArrays - 1) + ")";
    return false;
}

int stall(Module& module, int minor, bool on)
{
    bool was = false, exists = false;
    visitMd(module, [&](MdKernel& k) {
        was = k.state().isStalled(minor);
        exists = k.state().array(minor) != nullptr;
        k.setStalled(minor, on);
    });
    const std::string name = device(minor);
    if (on)
        report((was ? name + " was stalled already" : "stalled the recovery of " + name) +
               ": a new member of it never syncs" + (exists ? "" : " (no array " + name + " yet)"));
    else
        report(was ? "unstalled " + name + ": its recovery runs" : name + " was not stalled");
    return kDone;
}

int stopAll(Module& module)
{
    std::vector<std::string> names;
    visitMd(module, [&](MdKernel& k) {
        for (const MdArray& a : k.state().arrays) names.push_back(device(a.minor));
        k.forgetAll();
    });
    report(names.empty() ? "no md array to forget"
                         : "the kernel forgot " + listed(names) + "; the superblocks stay on the drives");
    return kDone;
}

} // namespace

void printArrayTable(const MdState& s)
{
    Table t({"ARRAY", "LEVEL", "STATE", "DISKS", "ACTIVE", "WORKING", "FAILED", "SPARE", "SIZE", "CHUNK", "RECOVERY", "MEMBERS"});
    for (const MdArray& a : s.arrays) {
        const bool stalled = s.isStalled(a.minor);
        const MdCounts c = a.counts();
        t.add({device(a.minor), levelText(a), arrayCondition(a, stalled), levelKnown(a) ? std::to_string(a.raidDisks) : "",
               std::to_string(c.active), std::to_string(c.working), std::to_string(c.failed), std::to_string(c.spare),
               a.running ? humanSize(a.bytes()) : "", hasChunk(a) ? humanSize(static_cast<uint64_t>(a.chunkSize)) : "",
               recoveryCell(a, stalled), memberList(a)});
    }
    t.print(std::cout);
}

void writeArraysJson(JsonWriter& j, const MdState& s, const Manifest& m)
{
    auto maybe = [&](bool known, int64_t value) {
        if (known) j.number(value);
        else j.null();
    };
    j.beginArray();
    for (const MdArray& a : s.arrays) {
        const bool stalled = s.isStalled(a.minor);
        const MdCounts c = a.counts();
        j.beginObject();
        j.key("device").string(device(a.minor)).key("minor").number(a.minor);
        j.key("level");
        maybe(levelKnown(a), a.level);
        j.key("state").string(arrayCondition(a, stalled)).key("running").boolean(a.running);
        j.key("raid_disks");
        maybe(levelKnown(a), a.raidDisks);
        j.key("active").number(c.active).key("working").number(c.working).key("failed").number(c.failed);
        j.key("spare").number(c.spare);
        j.key("size");
        if (a.running) j.unsignedNumber(a.bytes());
        else j.null();
        j.key("chunk");
        maybe(hasChunk(a), a.chunkSize);
        j.key("layout").number(a.layout).key("events").unsignedNumber(a.events).key("stalled").boolean(stalled);
        j.key("members").beginArray();
        for (const MdMember* member : membersBySlot(a)) {
            j.beginObject();
            j.key("slot").number(member->slot).key("raid_disk");
            maybe(member->raidDisk >= 0, member->raidDisk);
            j.key("device").string(member->name).key("path").string(memberPath(m, *member));
            j.key("bay").number(member->bay).key("serial").string(member->serial);
            j.key("state").string(memberCondition(a, *member, stalled));
            j.endObject();
        }
        j.endArray();
        j.key("recovery");
        if (a.recovering()) {
            const MdRecovery& r = a.recovery;
            j.beginObject();
            j.key("slot").number(r.slot).key("raid_disk").number(r.role);
            j.key("per_mille").number(recoveryPerMille(r)).key("done_kib").unsignedNumber(r.doneKiB);
            j.key("total_kib").unsignedNumber(r.totalKiB).key("stalled").boolean(stalled);
            j.key("finish_seconds");
            if (stalled || s.speedMax <= 0) j.null();
            else j.unsignedNumber(finishSeconds(r, s.speedMax));
            j.endObject();
        } else {
            j.null();
        }
        j.endObject();
    }
    j.endArray();
}

int runMd(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}, {"--stall", "ARRAY"}, {"--unstall", "ARRAY"}, {"--stop-all", nullptr}},
                                 1, 1, w, status);
    if (!module) return status;
    if (w.options.size() > 1)
        return badUsage(call, w.options[0].first + " and " + w.options[1].first + " exclude each other; give one at a time");
    if (!w.options.empty() && w.options[0].first != "--json") {
        const auto& [name, value] = w.options[0];
        if (name == "--stop-all") return stopAll(*module);
        int minor = 0;
        std::string why;
        if (!arrayArgument(name, value, minor, why)) return badUsage(call, why);
        return stall(*module, minor, name == "--stall");
    }
    MdState s;
    uint64_t nowUs = 0;
    visitMd(*module, [&](MdKernel& k) {
        s = k.state();
        nowUs = k.nowUs();
    });
    if (w.has("--json")) {
        JsonWriter j(std::cout);
        j.beginObject();
        j.key("speed_limit_min").number(s.speedMin).key("speed_limit_max").number(s.speedMax);
        j.key("stalled").beginArray();
        for (int minor : s.stalled) j.string(device(minor));
        j.endArray();
        j.key("arrays");
        writeArraysJson(j, s, module->manifest());
        j.endObject();
        return kDone;
    }
    if (s.arrays.empty()) std::cout << "no md arrays\n";
    for (size_t i = 0; i < s.arrays.size(); ++i) {
        if (i) std::cout << "\n";
        printArray(s.arrays[i], s, nowUs);
    }
    std::vector<std::string> idle;
    for (int minor : s.stalled)
        if (!s.array(minor)) idle.push_back(device(minor));
    if (!idle.empty()) std::cout << "\nstalled without an array: " << listed(idle) << "\n";
    std::cout << "\nspeed_limit_min " << s.speedMin << " KiB/s, speed_limit_max " << s.speedMax << " KiB/s\n";
    return kDone;
}

} // namespace sim::cli

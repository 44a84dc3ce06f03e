#include "os_mirror.h"

#include <cerrno>
#include <cstring>
#include <sys/sysmacros.h>

#include "commands.h"
#include "md_kernel.h"
#include "module.h"

namespace sim {
namespace {

// The OS mirrors and the partition each takes of every drive.
struct Mirror {
    int minor;
    int partition;
};
constexpr Mirror kMirrors[] = {{200, 5}, {201, 7}};

std::string name(int minor) { return "md" + std::to_string(minor); }

// Takes the member out; "" or why not.
std::string stopMember(MdKernel& k, const MdArray& a, dev_t device)
{
    const MdMember* m = nullptr;
    for (const MdMember& x : a.members)
        if (x.major == gnu_dev_major(device) && x.minor == gnu_dev_minor(device)) m = &x;
    if (!m) return "";  // already out
    const std::string member = m->name;
    int rc = k.setDiskFaulty(a.minor, device);
    if (rc == 0) rc = k.hotRemoveDisk(a.minor, device);
    if (rc == EBUSY) return member + ": the last in-sync member of the mirror stays";
    return rc == 0 ? "" : member + ": " + std::strerror(rc);
}

// Puts the member back as a spare; "" or why not.
std::string startMember(MdKernel& k, const MdArray& a, dev_t device, const std::string& partition)
{
    for (const MdMember& x : a.members) {
        if (x.major != gnu_dev_major(device) || x.minor != gnu_dev_minor(device)) continue;
        if (x.state != MemberState::Faulty) return "";  // already in
        if (int rc = k.hotRemoveDisk(a.minor, device); rc != 0) return x.name + ": " + std::strerror(rc);
        break;
    }
    const int rc = k.hotAddDisk(a.minor, device);
    if (rc == ENXIO) return partition + ": no such partition (is the drive in its bay and partitioned?)";
    if (rc == ENOSPC) return partition + ": too small for the array";
    return rc == 0 ? "" : partition + ": " + std::strerror(rc);
}

CommandResult osMirror(CommandContext& ctx, const Words& argv)
{
    if (argv.size() != 3 || (argv[1] != "start" && argv[1] != "stop"))
        return CommandResult{2, std::string("usage: ") + kOsMirrorScript + " start|stop BASE\n"};
    const bool start = argv[1] == "start";
    const std::string& base = argv[2];
    const Manifest manifest = ctx.module.manifest();
    const Bay* bay = manifest.bayOfDevice(base + "disc");
    if (!bay) return CommandResult{1, base + " is no drive bay of the module\n"};

    std::string refusals;
    visitMd(ctx.module, [&](MdKernel& k) {
        for (const Mirror& mirror : kMirrors) {
            const MdArray* a = k.state().array(mirror.minor);
            if (!a || !a->running) continue;
            const dev_t device = gnu_dev_makedev(bay->major, bay->minor + static_cast<unsigned>(mirror.partition));
            const std::string partition = base + "part" + std::to_string(mirror.partition);
            const std::string why = start ? startMember(k, *a, device, partition) : stopMember(k, *a, device);
            if (!why.empty()) refusals += name(mirror.minor) + ": " + why + "\n";
        }
    });
    return CommandResult{refusals.empty() ? 0 : 1, refusals};
}

} // namespace

void addOsMirrorRules(CommandTable& table) { table.add({kOsMirrorScript}, osMirror); }

} // namespace sim

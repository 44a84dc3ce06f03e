// The fault sweep of unit configuration on a 9000: a unit made with the
// kernel told, exported with the kernel told, its drive let go, and a rescan
// that brings both back. One run counts the calls through the seam; then
// each driver call, node open, and open and write of "/proc/scsi/scsi" fails
// with EIO in turn, on a fresh module.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <set>

#include "sim/tw_kernel.h"
#include "tw_fixture.h"

using twtest::controllerId;
using twtest::OpenNodes;
using twtest::TwModule;

namespace {

// The sequence; the step that failed (1 to 4), or 0.
int sequence()
{
    tw_id_type drive, unit;
    tw_create_drive_id(0, 2, &drive);
    tw_id_list_type list {};
    list.list[list.length++] = drive;
    if (tw_create_unit(&list, 11, 0, 1, &unit) != 0) return 1;
    if (tw_export_unit(unit, 1) != 0) return 2;
    if (tw_remove_drive(drive) != 0) return 3;
    tw_id_list_type units, drives;
    if (tw_rescan_controller(controllerId(0), 1, &units, &drives) != 0) return 4;
    return 0;
}

std::set<int> kernelTargets(TwModule& t)
{
    std::set<int> out;
    for (const sim::tw::KernelDisk& d : sim::tw::kernelDisks(t.p.module()))
        if (d.host == 0) out.insert(d.id);
    return out;
}

} // namespace

TEST(TwUnitOpsSweep, EveryCallOfMakeExportRemoveAndRescanFailsCleanly)
{
    struct Target {
        sim::Op op;
        const char* path;
        uint64_t count;
    };
    std::vector<Target> targets = {{sim::Op::Ioctl, "/dev/tw*", 0},
                                   {sim::Op::Open, "/dev/tw*", 0},
                                   {sim::Op::Open, "/proc/scsi/scsi", 0},
                                   {sim::Op::Write, "/proc/scsi/scsi", 0}};
    {
        TwModule t(9, "raid1");
        ASSERT_EQ(t.created, "");
        t.p.resetCalls();
        ASSERT_EQ(sequence(), 0);
        for (Target& target : targets) target.count = t.p.calls(target.op, target.path);
        EXPECT_EQ(kernelTargets(t), (std::set<int>{0, 1}));
    }
    ASSERT_GT(targets[0].count, 10u);
    ASSERT_EQ(targets[3].count, 3u) << "add, remove, add";

    int points = 0, failed = 0;
    for (const Target& target : targets)
        for (uint64_t n = 1; n <= target.count; ++n) {
            SCOPED_TRACE(std::string(sim::opName(target.op)) + " " + target.path + " call " + std::to_string(n));
            ++points;
            TwModule t(9, "raid1");
            OpenNodes watch(t.p);
            plat::ScopedPlatform scope(watch);
            t.p.arm(sim::Fault::failing(target.op, target.path, n, EIO));
            tw_api_clear_error();
            const int step = sequence();
            const tw_api_error_type e = tw_api_error;
            t.p.clearFaults();
            EXPECT_EQ(watch.count(), 0u) << "a node left open";
            if (step != 0) {
                ++failed;
                // The errno itself, or the kernel's side that could not follow.
                const bool named = (e.valid_error_flags & TW_ERROR_FLAG_OS && e.os_error_code == uint32_t(EIO)) ||
                                   e.api_error_code == 69 || e.api_error_code == 70;
                EXPECT_TRUE(named) << "step " << step << " flags " << e.valid_error_flags << " api " << e.api_error_code
                                   << " os " << e.os_error_code;
            }
            // No half-made unit: every unit's members are drives it holds,
            // and the unit is whole.
            const sim::tw::Controller c = sim::tw::twView(t.p.module()).controllers()[0];
            std::set<int> units;
            for (const sim::tw::Unit& u : c.units) {
                units.insert(u.number);
                EXPECT_TRUE(u.mode == "OK" || u.mode == "INITIALIZING") << "unit " << u.number << " " << u.mode;
                for (int port : u.ports) {
                    ASSERT_GE(port, 0);
                    EXPECT_FALSE(c.port(port)->drive.empty()) << "unit " << u.number << " port " << port;
                }
            }
            // The kernel differs from the controller only where the result said so.
            if (kernelTargets(t) != units) {
                EXPECT_TRUE(step != 0 && (e.api_error_code == 69 || e.api_error_code == 70))
                    << "step " << step << " api " << e.api_error_code;
            }
        }
    std::printf("unit configuration fault sweep: %d injection points (%llu ioctl, %llu node opens, %llu opens and "
                "%llu writes of /proc/scsi/scsi), %d failed runs\n",
                points, (unsigned long long)targets[0].count, (unsigned long long)targets[1].count,
                (unsigned long long)targets[2].count, (unsigned long long)targets[3].count, failed);
    EXPECT_GT(failed, points / 2);
}

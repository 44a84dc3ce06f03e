// Configuration of units over the simulated controllers: the 7000's
// builders, the checks before a command goes out, export and rescan in the
// power-down and power-up path, and what a rescan reports.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tw_api/tw_api_cont_7000.h"
#include "tw_fixture.h"

namespace {

using twtest::apiCode;

using twtest::controllerId;
using twtest::TwModule;

tw_id_type driveId(int n, int controller = 0)
{
    tw_id_type id;
    EXPECT_EQ(tw_create_drive_id(controller, n, &id), 0);
    return id;
}

tw_id_type unitId(int n, int controller = 0)
{
    tw_id_type id;
    EXPECT_EQ(tw_create_unit_id(controller, n, nullptr, 0, &id), 0);
    return id;
}

tw_id_list_type drives(std::vector<int> ports, int controller = 0)
{
    tw_id_list_type list {};
    for (int p : ports) list.list[list.length++] = driveId(p, controller);
    return list;
}

std::vector<int> unitNumbers(int controller = 0)
{
    tw_id_list_type list;
    EXPECT_EQ(tw_get_unit_id_list(controllerId(controller), &list), 0);
    std::vector<int> out;
    for (int i = 0; i < list.length; ++i) out.push_back(list.list[i].id[4]);
    return out;
}

std::vector<int> driveNumbers(const tw_id_list_type& list)
{
    std::vector<int> out;
    for (int i = 0; i < list.length; ++i) out.push_back(list.list[i].id[2]);
    return out;
}

std::vector<int> heldDrives(int controller = 0)
{
    tw_id_list_type list;
    EXPECT_EQ(tw_get_drive_id_list(controllerId(controller), &list), 0);
    return driveNumbers(list);
}

std::vector<int> members(int unit, int controller = 0)
{
    tw_id_list_type list;
    EXPECT_EQ(tw_get_drive_id_list_from_unit_id(unitId(unit, controller), &list), 0);
    return driveNumbers(list);
}

int configOf(int unit, int controller = 0)
{
    int c = -1;
    EXPECT_EQ(tw_get_unit_configuration(unitId(unit, controller), &c), 0);
    return c;
}

int modeOf(tw_id_type unit)
{
    int m = -1;
    EXPECT_EQ(tw_get_unit_mode(unit, &m), 0);
    return m;
}

// The targets of host `host` the kernel has attached.
std::vector<int> kernelTargets(int host = 0)
{
    std::vector<int> out;
    FILE* in = plat::fopen("/proc/scsi/scsi", "r");
    if (!in) return out;
    char line[256];
    while (std::fgets(line, sizeof line, in)) {
        int h = 0, c = 0, id = 0;
        if (std::sscanf(line, "Host: scsi%d Channel: %d Id: %d", &h, &c, &id) == 3 && h == host) out.push_back(id);
    }
    std::fclose(in);
    return out;
}

std::string controllerLog(TwModule& t)
{
    sim::tw::flushLog(t.p.module());
    return t.p.module().readState("3ware.log");
}

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(TwUnitOps, EachBuilderOfThe7000MakesItsUnitAtTheLowestFreeNumber)
{
    TwModule t(2, "none");
    ASSERT_EQ(t.created, "");
    ASSERT_EQ(unitNumbers(), std::vector<int>{});
    tw_id_type made;
    tw_id_list_type list = drives({0});
    ASSERT_EQ(tw_create_unit(&list, 11, 0, 0, &made), 0) << apiCode();
    EXPECT_EQ(made.id[4], 0);
    EXPECT_EQ(made.id[3], 1);
    list = drives({1, 2});
    ASSERT_EQ(tw_create_unit(&list, 11, 7, 0, &made), 0) << apiCode();
    EXPECT_EQ(made.id[4], 1);
    EXPECT_EQ(unitNumbers(), (std::vector<int>{0, 1}));
    EXPECT_EQ(configOf(0), 11);
    EXPECT_EQ(members(1), (std::vector<int>{1, 2}));
    int status = -1;
    ASSERT_EQ(tw_get_unit_status(unitId(1), &status), 0);
    EXPECT_EQ(status, 0) << "a stripe starts healthy";

    // A freed number is the next one given.
    ASSERT_EQ(tw_destroy_unit(unitId(0), 0), 0) << apiCode();
    list = drives({0, 3});
    ASSERT_EQ(tw_create_unit(&list, 6, 5, 0, &made), 0) << apiCode();
    EXPECT_EQ(made.id[4], 0);
    EXPECT_EQ(modeOf(made), 0xF7) << "a mirror initialises";
    ASSERT_EQ(tw_get_unit_status(made, &status), 0);
    EXPECT_EQ(status, 2) << "the low 7 bits of the unit's status byte";
    int percent = -1;
    ASSERT_EQ(tw_get_unit_percentage_complete(made, &percent), 0);
    EXPECT_EQ(percent, 0);

    // RAID 10 of four and a parity unit of three, after the others went.
    ASSERT_EQ(tw_destroy_unit(unitId(0), 0), 0);
    ASSERT_EQ(tw_destroy_unit(unitId(1), 0), 0);
    list = drives({0, 1, 2, 3});
    ASSERT_EQ(tw_create_unit(&list, 6, 9, 0, &made), 0) << apiCode();
    int subunits = 0;
    ASSERT_EQ(tw_get_number_of_subunits(made, &subunits), 0);
    EXPECT_EQ(subunits, 2) << "two mirrors";
    tw_id_list_type subs;
    ASSERT_EQ(tw_get_subunit_id_list(made, &subs), 0);
    ASSERT_EQ(subs.length, 2);
    tw_id_list_type pair;
    ASSERT_EQ(tw_get_drive_id_list_from_unit_id(subs.list[1], &pair), 0);
    EXPECT_EQ(driveNumbers(pair), (std::vector<int>{2, 3}));
    ASSERT_EQ(tw_destroy_unit(made, 0), 0);
    list = drives({1, 2, 3});
    ASSERT_EQ(tw_create_unit(&list, 5, 4, 0, &made), 0) << apiCode();
    EXPECT_EQ(configOf(made.id[4]), 5);
    uint64_t sectors = 0, drive = 0;
    ASSERT_EQ(tw_get_unit_capacity(made, &sectors), 0);
    ASSERT_EQ(tw_get_drive_capacity(driveId(1), &drive), 0);
    EXPECT_EQ(sectors, 2 * drive);

    const std::string log = controllerLog(t);
    EXPECT_EQ(count(log, " create-unit "), 5u) << log;
    EXPECT_EQ(count(log, " delete-unit "), 4u);

    // What the family has no counterpart for, and what it takes one at a time.
    tw_id_list_type out;
    EXPECT_EQ(tw_split_mirror(made, 0, &out), -1);
    EXPECT_EQ(apiCode(), 2u);
    EXPECT_EQ(tw_migrate_unit(made, nullptr, 5, 4), -1);
    EXPECT_EQ(apiCode(), 2u);
    list = drives({0, 1, 2, 3});
    EXPECT_EQ(tw_create_unit_with_layout(&list, 6, 5, 2, 0, &made), -1);
    EXPECT_EQ(apiCode(), 25u);
    list = drives({0, 1, 2});
    EXPECT_EQ(tw_create_unit(&list, 6, 5, 0, &made), -1);
    EXPECT_EQ(apiCode(), 26u) << "the 7000 mirrors two or four drives";
    list = drives({0});
    EXPECT_EQ(tw_import_unit(&list, 0, &made), -1);
    EXPECT_NE(apiCode(), 37u) << "one drive is what the 7000 imports";
    list = drives({0, 1});
    EXPECT_EQ(tw_import_unit(&list, 0, &made), -1);
    EXPECT_EQ(apiCode(), 37u);

    // The family's own checks and its hot-swap command.
    EXPECT_EQ(c7000.unit_exists(made), 0);
    EXPECT_EQ(c7000.unit_exists(unitId(5)), -1);
    EXPECT_EQ(apiCode(), 43u);
    EXPECT_EQ(c7000.drive_exists(driveId(0)), 0);
    ASSERT_EQ(c7000.ioctl_hotswap(driveId(0), 0), 0);
    EXPECT_EQ(c7000.drive_exists(driveId(0)), -1);
    EXPECT_EQ(apiCode(), 30u);
    EXPECT_EQ(heldDrives(), (std::vector<int>{1, 2, 3}));
    ASSERT_EQ(c7000.ioctl_hotswap(driveId(0), 1), 0);
    EXPECT_EQ(heldDrives(), (std::vector<int>{0, 1, 2, 3}));
}

TEST(TwUnitOps, RefusalsGoOutBeforeAnyCommand)
{
    TwModule t(9, "raid1");
    ASSERT_EQ(t.created, "");
    sim::tw::twView(t.p.module()).update(0, [](sim::tw::Controller& c) {
        c.port(3)->drive.clear();
        return true;
    });
    const std::string before = controllerLog(t);
    struct Case {
        std::vector<int> ports;
        int config, stripe;
        uint32_t code;
        const char* what;
    };
    const Case cases[] = {
        {{}, 11, 0, 36, "no drives"},
        {{0, 2}, 11, 0, 31, "a drive in another unit"},
        {{2, 2}, 11, 0, 29, "a duplicate drive"},
        {{2, 3}, 11, 0, 30, "an empty port"},
        {{2}, 7, 0, 25, "a configuration that is none"},
        {{2}, 6, 5, 26, "a mirror of one drive"},
        {{2}, 5, 5, 26, "a parity unit of one"},
        {{2}, 11, 3, 27, "a stripe code outside 4 to 11"},
        {{2}, 11, 12, 27, "a stripe code outside 4 to 11"},
        {{2}, 13, 5, 60, "a spare with a stripe"},
    };
    for (const Case& c : cases) {
        tw_id_list_type list = drives(c.ports);
        tw_id_type made;
        tw_api_clear_error();
        EXPECT_EQ(tw_create_unit(&list, c.config, c.stripe, 1, &made), -1) << c.what;
        EXPECT_EQ(apiCode(), c.code) << c.what;
    }
    tw_id_list_type mixed = drives({2});
    mixed.list[mixed.length++] = driveId(1, 1);
    tw_id_type made;
    EXPECT_EQ(tw_create_unit(&mixed, 11, 0, 1, &made), -1);
    EXPECT_EQ(apiCode(), 28u);
    tw_id_list_type huge = drives({2});
    huge.length = 17;
    EXPECT_EQ(tw_create_unit(&huge, 11, 0, 1, &made), -1);
    EXPECT_EQ(apiCode(), 26u);
    huge.length = -1;
    EXPECT_EQ(tw_create_unit(&huge, 11, 0, 1, &made), -1);
    EXPECT_EQ(apiCode(), 26u);
    EXPECT_EQ(tw_destroy_unit(unitId(5), 1), -1);
    EXPECT_EQ(apiCode(), 59u);
    EXPECT_EQ(tw_export_unit(unitId(5), 1), -1);
    EXPECT_EQ(apiCode(), 43u);
    tw_id_type sub;
    const int path[] = {0};
    ASSERT_EQ(tw_create_unit_id(0, 0, path, 1, &sub), 0);
    EXPECT_EQ(tw_destroy_unit(sub, 1), -1) << "a subunit is no unit to destroy";
    EXPECT_EQ(apiCode(), 9u);
    tw_id_list_type imported = drives({2, 2});
    EXPECT_EQ(tw_import_unit(&imported, 0, &made), -1);
    EXPECT_EQ(apiCode(), 65u);
    imported = drives({0});
    EXPECT_EQ(tw_import_unit(&imported, 0, &made), -1);
    EXPECT_EQ(apiCode(), 41u) << "a member of a unit is in use";
    imported = drives({2});
    EXPECT_EQ(tw_import_unit(&imported, 0, &made), -1) << "a drive that carries nothing";
    EXPECT_TRUE(tw_api_error.valid_error_flags & TW_ERROR_FLAG_CONTROLLER);

    const std::string after = controllerLog(t);
    EXPECT_EQ(count(after, " create-unit ") + count(after, " delete-unit "), 0u) << "nothing went out";
    EXPECT_EQ(count(after, " import-unit "), 1u) << "only the firmware knows what a drive carries";
    EXPECT_EQ(unitNumbers(), (std::vector<int>{0}));
    EXPECT_EQ(kernelTargets(), (std::vector<int>{0}));
}

// The power-down of a drive and its power-up by a port rescan: the unit is
// exported with the kernel told, its drive let go; the rescan brings back
// every drive and unit, and what is not wanted is exported again.
TEST(TwUnitOps, PowerDownAndUpThroughExportAndRescan)
{
    TwModule t(9, "single");
    ASSERT_EQ(t.created, "");
    ASSERT_EQ(unitNumbers(), (std::vector<int>{0, 1, 2, 3}));
    ASSERT_EQ(kernelTargets(), (std::vector<int>{0, 1, 2, 3}));
    for (int port : {2, 3}) {
        tw_id_type unit;
        ASSERT_EQ(tw_get_unit_id_from_drive_id(driveId(port), &unit), 0);
        EXPECT_EQ(tw_remove_drive(driveId(port)), -1) << "the last copy of the unit's data";
        EXPECT_EQ(apiCode(), 48u);
        ASSERT_EQ(tw_export_unit(unit, 1), 0) << apiCode();
        ASSERT_EQ(tw_remove_drive(driveId(port)), 0) << "an exported unit's drive is free";
    }
    EXPECT_EQ(unitNumbers(), (std::vector<int>{0, 1}));
    EXPECT_EQ(kernelTargets(), (std::vector<int>{0, 1})) << "the disks left the kernel";
    EXPECT_EQ(heldDrives(), (std::vector<int>{0, 1}));

    tw_id_list_type units, found;
    ASSERT_EQ(tw_rescan_controller(controllerId(0), 1, &units, &found), 0) << apiCode();
    EXPECT_EQ(driveNumbers(found), (std::vector<int>{2, 3}));
    ASSERT_EQ(units.length, 2);
    EXPECT_EQ(units.list[0].id[4], 2) << "the number the drive carried";
    EXPECT_EQ(units.list[1].id[4], 3);
    EXPECT_EQ(kernelTargets(), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(members(2), (std::vector<int>{2}));
    EXPECT_EQ(modeOf(unitId(2)), 0xFF);

    // Port 2 was wanted; the other unit the rescan found goes again.
    ASSERT_EQ(tw_export_unit(units.list[1], 1), 0);
    ASSERT_EQ(tw_remove_drive(driveId(3)), 0);
    EXPECT_EQ(kernelTargets(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(heldDrives(), (std::vector<int>{0, 1, 2}));

    // A rescan with nothing new brings nothing, and never the healthy units.
    sim::Module& module = t.p.module();
    ASSERT_EQ(module.pull(4), "");
    ASSERT_EQ(tw_rescan_controller(controllerId(0), 1, &units, &found), 0);
    EXPECT_EQ(units.length, 0);
    EXPECT_EQ(found.length, 0);
}

TEST(TwUnitOps, ARescanFormsADegradedUnitAndFindsANewDriveWithItsOwnSerial)
{
    TwModule t(9, "raid5");
    ASSERT_EQ(t.created, "");
    ASSERT_EQ(tw_export_unit(unitId(0), 1), 0) << apiCode();
    EXPECT_EQ(heldDrives(), (std::vector<int>{0, 1, 2, 3})) << "the drives stay attached";
    EXPECT_EQ(kernelTargets(), std::vector<int>{});
    ASSERT_EQ(tw_remove_drive(driveId(3)), 0);
    char serial[TW_SERIAL_NUMBER_SIZE] = {};
    sim::Module& module = t.p.module();
    const std::string replaced = module.manifest().driveInBay(4)->serial;
    ASSERT_EQ(module.pull(4), "");
    ASSERT_EQ(module.insert(4, ""), "");

    tw_id_list_type units, found;
    ASSERT_EQ(tw_rescan_controller(controllerId(0), 1, &units, &found), 0) << apiCode();
    EXPECT_EQ(driveNumbers(found), (std::vector<int>{3})) << "the new drive";
    ASSERT_EQ(units.length, 1);
    const tw_id_type unit = units.list[0];
    EXPECT_EQ(modeOf(unit), 0xEF) << "its fourth member is missing";
    tw_event_info_type last;
    std::memset(&last, 0, sizeof last);
    ASSERT_EQ(tw_get_last_event(controllerId(0), &last), 0);
    EXPECT_EQ(last.aen_code, 22) << "the unit formed degraded";
    tw_event_info_type found_event = last;
    ASSERT_EQ(tw_get_previous_event(controllerId(0), &found_event), 0);
    EXPECT_EQ(found_event.aen_code, 21) << "the new drive found first";
    EXPECT_EQ(members(unit.id[4]), (std::vector<int>{0, 1, 2, 255}));
    tw_id_list_type subs;
    ASSERT_EQ(tw_get_subunit_id_list(unit, &subs), 0);
    ASSERT_EQ(subs.length, 4);
    EXPECT_EQ(modeOf(subs.list[3]), 0xEF);
    EXPECT_EQ(modeOf(subs.list[0]), 0xFF);
    EXPECT_EQ(kernelTargets(), std::vector<int>{0});
    ASSERT_EQ(tw_get_drive_serial_number(driveId(3), serial), 0);
    EXPECT_NE(std::string(serial), replaced) << "read anew from the drive now in the bay";
    EXPECT_EQ(std::string(serial), module.manifest().driveInBay(4)->serial);

    // The new drive is free: made a spare unit, it carries nothing else.
    tw_id_list_type spare = drives({3});
    tw_id_type made;
    ASSERT_EQ(tw_create_unit(&spare, 13, 0, 1, &made), 0) << apiCode();
    EXPECT_EQ(configOf(made.id[4]), 13);
    EXPECT_EQ(kernelTargets(), std::vector<int>{0}) << "a spare has no disk";
}

// A drive put into a bay behind the controller's back: the port keeps the
// serial number read before until the drive is let go and found anew.
TEST(TwUnitOps, ADriveReplacedBehindTheControllerIsFoundByARescan)
{
    TwModule t(9, "raid5", true);
    ASSERT_EQ(t.created, "");
    const std::string dir = t.m.dir();
    const std::string before = t.p.module().manifest().driveInBay(2)->serial;
    EXPECT_EQ(simtest::tavsim({"replace", dir, "9"}).status, 1) << "a bay the module lacks";
    EXPECT_EQ(simtest::tavsim({"replace", dir, "x"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"replace", dir, "2", "NOSUCH"}).status, 1);
    const simtest::Captured done = simtest::tavsim({"replace", dir, "2"});
    ASSERT_EQ(done.status, 0) << done.err;
    const std::string after = t.p.module().manifest().driveInBay(2)->serial;
    ASSERT_NE(after, before);
    char serial[TW_SERIAL_NUMBER_SIZE] = {};
    ASSERT_EQ(tw_get_drive_serial_number(driveId(1), serial), 0);
    EXPECT_EQ(std::string(serial), before) << "the controller noticed nothing";
    EXPECT_EQ(modeOf(unitId(0)), 0xFF);

    ASSERT_EQ(tw_remove_drive(driveId(1)), 0) << apiCode();
    EXPECT_EQ(modeOf(unitId(0)), 0xEF);
    EXPECT_EQ(members(0), (std::vector<int>{0, 255, 2, 3}));
    tw_id_list_type units, found;
    ASSERT_EQ(tw_rescan_controller(controllerId(0), 1, &units, &found), 0) << apiCode();
    EXPECT_EQ(driveNumbers(found), std::vector<int>{1});
    EXPECT_EQ(units.length, 0) << "the old drive's unit stands; the new drive carries none";
    ASSERT_EQ(tw_get_drive_serial_number(driveId(1), serial), 0);
    EXPECT_EQ(std::string(serial), after);

    // A spare unit made of the new drive: the controller rebuilds onto it by itself.
    tw_id_list_type spare = drives({1});
    tw_id_type spareUnit;
    ASSERT_EQ(tw_create_unit(&spare, 13, 0, 1, &spareUnit), 0) << apiCode();
    t.p.module().advance(60'000'000);
    EXPECT_EQ(modeOf(unitId(0)), 0xAF);
    EXPECT_EQ(modeOf(spareUnit), 0xAF);
    t.p.module().advance(100ull * 3600 * 1'000'000);
    EXPECT_EQ(modeOf(unitId(0)), 0xFF);
    EXPECT_EQ(unitNumbers(), std::vector<int>{0}) << "the spare's drive is a member now";
    EXPECT_EQ(members(0), (std::vector<int>{0, 1, 2, 3}));
}

TEST(TwUnitOps, DestroyWipesWhatExportKeeps)
{
    TwModule t(9, "raid10");
    ASSERT_EQ(t.created, "");
    const std::string image = t.m.dir() + "/sim/3ware/unit0_0.img";
    struct stat st;
    ASSERT_EQ(::stat(image.c_str(), &st), 0);
    // Export and import keep the unit, its layout and its data.
    ASSERT_EQ(tw_export_unit(unitId(0), 1), 0);
    EXPECT_NE(::stat(image.c_str(), &st), 0) << "kept aside while no unit stands";
    tw_id_list_type list = drives({1, 2});
    tw_id_type unit;
    ASSERT_EQ(tw_import_unit(&list, 1, &unit), 0) << apiCode();
    EXPECT_EQ(unit.id[4], 0);
    EXPECT_EQ(members(0), (std::vector<int>{0, 1, 2, 3})) << "every drive carrying the unit";
    int subunits = 0;
    ASSERT_EQ(tw_get_number_of_subunits(unit, &subunits), 0);
    EXPECT_EQ(subunits, 2);
    EXPECT_EQ(::stat(image.c_str(), &st), 0);
    EXPECT_EQ(kernelTargets(), std::vector<int>{0});

    ASSERT_EQ(tw_destroy_unit(unit, 1), 0);
    EXPECT_NE(::stat(image.c_str(), &st), 0) << "the data is gone";
    EXPECT_EQ(kernelTargets(), std::vector<int>{});
    tw_id_list_type units, found;
    ASSERT_EQ(tw_rescan_controller(controllerId(0), 1, &units, &found), 0);
    EXPECT_EQ(units.length, 0) << "the drives carry nothing";
    // A carried line whose key would name a file elsewhere carries nothing.
    const std::string serial = t.p.module().manifest().driveInBay(1)->serial;
    t.p.module().writeState("3ware/carried", serial + " key=..%2F..%2Fdev config=11 stripe=0 sub=0 slot=0 of=1 unit=3 capacity=8\n");
    ASSERT_EQ(tw_rescan_controller(controllerId(0), 1, &units, &found), 0);
    EXPECT_EQ(units.length, 0);
    // All spares form one unit.
    list = drives({0, 1, 2, 3});
    ASSERT_EQ(tw_create_unit(&list, 13, 0, 1, &unit), 0);
    EXPECT_EQ(unitNumbers(), std::vector<int>{0});
    EXPECT_EQ(members(0), (std::vector<int>{0, 1, 2, 3}));
}

TEST(TwUnitOps, LayoutsSplitAndMigrationOnThe9000)
{
    TwModule t(15, "none");
    ASSERT_EQ(t.created, "");
    tw_id_list_type list = drives({0, 1, 2, 3, 4, 5});
    tw_id_type unit;
    ASSERT_EQ(tw_create_unit_with_layout(&list, 5, 6, 3, 0, &unit), 0) << apiCode();
    int subunits = 0;
    ASSERT_EQ(tw_get_number_of_subunits(unit, &subunits), 0);
    EXPECT_EQ(subunits, 2) << "two parity groups of three";
    list = drives({6, 7, 8, 9});
    EXPECT_EQ(tw_create_unit_with_layout(&list, 5, 6, 3, 0, &unit), -1);
    EXPECT_EQ(apiCode(), 26u) << "four drives make no groups of three";
    list = drives({6, 7});
    ASSERT_EQ(tw_create_unit(&list, 6, 5, 1, &unit), 0) << apiCode();
    ASSERT_EQ(unit.id[4], 1);
    tw_id_list_type halves;
    ASSERT_EQ(tw_split_mirror(unit, 1, &halves), 0) << apiCode();
    ASSERT_EQ(halves.length, 2);
    EXPECT_EQ(halves.list[0].id[4], 1);
    EXPECT_EQ(halves.list[1].id[4], 2);
    EXPECT_EQ(configOf(1), 11);
    EXPECT_EQ(members(2), std::vector<int>{7});
    EXPECT_EQ(kernelTargets(), (std::vector<int>{1, 2}));
    EXPECT_EQ(tw_split_mirror(unitId(0), 1, &halves), -1);
    EXPECT_EQ(apiCode(), 81u);

    // A single unit grows into a mirror, then a parity unit, keeping its number.
    list = drives({9});
    ASSERT_EQ(tw_create_unit(&list, 11, 0, 1, &unit), 0);
    const int number = unit.id[4];
    uint64_t before = 0, after = 0;
    ASSERT_EQ(tw_get_unit_capacity(unit, &before), 0);
    list = drives({10});
    ASSERT_EQ(tw_migrate_unit(unit, &list, 6, 5), 0) << apiCode();
    EXPECT_EQ(configOf(number), 6);
    EXPECT_EQ(members(number), (std::vector<int>{9, 10}));
    EXPECT_EQ(modeOf(unit), 0xF7);
    list = drives({11});
    EXPECT_EQ(tw_migrate_unit(unit, &list, 5, 5), -1) << "not while it initialises";
    EXPECT_EQ(apiCode(), 51u);
    sim::tw::twView(t.p.module()).update(0, [&](sim::tw::Controller& c) {
        c.unit(number)->mode = "OK";
        c.unit(number)->tree.mode = "OK";
        return true;
    });
    EXPECT_EQ(tw_migrate_unit(unit, &list, 5, 0), -1);
    EXPECT_EQ(apiCode(), 60u);
    list = drives({6});
    EXPECT_EQ(tw_migrate_unit(unit, &list, 5, 5), -1);
    EXPECT_EQ(apiCode(), 31u);
    list = drives({11});
    ASSERT_EQ(tw_migrate_unit(unit, &list, 5, 5), 0) << apiCode();
    ASSERT_EQ(tw_get_unit_capacity(unit, &after), 0);
    EXPECT_EQ(after, 2 * before);
    EXPECT_EQ(unitNumbers(), (std::vector<int>{0, 1, 2, number}));
    EXPECT_EQ(kernelTargets(), (std::vector<int>{1, 2, number})) << "the kernel keeps the unit's disk";
}

} // namespace

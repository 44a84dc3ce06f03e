// Unit tasks on the controller's clock and the drives' ATA side, on both
// families of simulated controllers.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>

#include "sim/tw_ata.h"
#include "sim/tw_tasks.h"
#include "tw_api/tw_api_cont_7000.h"
#include "tw_fixture.h"

namespace {

using twtest::apiCode;

using twtest::controllerId;
using twtest::Recorder;

// A module of `platform` with `spares` ports of its parity unit kept as a
// spare unit.
struct Module {
    Module(int platform, const std::string& units, int spares)
        : m(platform, false), created(make(platform, units, spares)), p(m.dir()), scope(p)
    {
        sim::resetTwApi();
    }
    std::string make(int platform, const std::string& units, int spares)
    {
        sim::CreateOptions o;
        o.platform = platform;
        o.sectors = simtest::kSectors;
        o.units = units;
        o.spares = spares;
        return sim::createModule(m.dir(), o);
    }
    void wait(double seconds) { p.module().advance(static_cast<uint64_t>(seconds * 1e6)); }
    void edit(int index, const std::function<void(sim::tw::Controller&)>& change)
    {
        sim::tw::twView(p.module()).update(index, [&](sim::tw::Controller& c) {
            change(c);
            return true;
        });
    }
    simtest::TempModule m;
    std::string created;
    sim::SimPlatform p;
    plat::ScopedPlatform scope;
};

tw_id_type unitId(int controller, int unit, int subunit = -1)
{
    tw_id_type id;
    const int sub[1] = {subunit};
    EXPECT_EQ(tw_create_unit_id(controller, unit, subunit < 0 ? nullptr : sub, subunit < 0 ? 0 : 1, &id), 0);
    return id;
}

tw_id_type driveId(int controller, int n)
{
    tw_id_type id;
    EXPECT_EQ(tw_create_drive_id(controller, n, &id), 0);
    return id;
}

int mode(tw_id_type unit)
{
    int m = -1;
    EXPECT_EQ(tw_get_unit_mode(unit, &m), 0);
    return m;
}

int percent(tw_id_type unit)
{
    int p = -1;
    EXPECT_EQ(tw_get_unit_percentage_complete(unit, &p), 0);
    return p;
}

std::vector<int> members(tw_id_type unit)
{
    tw_id_list_type list;
    EXPECT_EQ(tw_get_drive_id_list_from_unit_id(unit, &list), 0);
    std::vector<int> out;
    for (int i = 0; i < list.length; ++i) out.push_back(list.list[i].id[2]);
    return out;
}

std::vector<int> unitNumbers(int controller)
{
    tw_id_list_type list;
    EXPECT_EQ(tw_get_unit_id_list(controllerId(controller), &list), 0);
    std::vector<int> out;
    for (int i = 0; i < list.length; ++i) out.push_back(list.list[i].id[4]);
    return out;
}

tw_id_list_type driveList(std::initializer_list<int> ports, int controller = 0)
{
    tw_id_list_type list{};
    for (int p : ports) list.list[list.length++] = driveId(controller, p);
    return list;
}

struct Seen {
    uint32_t sequence, time;
    int code;
};

// Every event from the first to the end of the queue.
std::vector<Seen> events(int controller = 0)
{
    std::vector<Seen> out;
    tw_event_info_type e;
    EXPECT_EQ(tw_get_first_event(controllerId(controller), &e), 0);
    for (int guard = 0; guard < 200 && e.aen_code != 0; ++guard) {
        out.push_back({e.sequence_id, e.time_stamp_sec, e.aen_code});
        EXPECT_EQ(tw_get_next_event(controllerId(controller), &e), 0);
    }
    return out;
}

std::vector<int> codesAfter(const std::vector<Seen>& all, uint32_t sequence)
{
    std::vector<int> out;
    for (const Seen& s : all)
        if (s.sequence > sequence) out.push_back(s.code);
    return out;
}

TEST(TwTasks, APulledMemberIsRebuiltOntoTheSpareAsTheClockMoves)
{
    Module t(9, "raid5", 1);
    const uint32_t before = events().back().sequence;
    ASSERT_EQ(unitNumbers(0), (std::vector<int>{0, 1}));
    ASSERT_EQ(t.p.module().pull(1), "");

    // Noticed at once; the rebuild waits its few seconds.
    EXPECT_EQ(mode(unitId(0, 0)), 0xEF);
    EXPECT_EQ(members(unitId(0, 0)), (std::vector<int>{255, 1, 2}));
    EXPECT_EQ(mode(unitId(0, 0, 0)), 0xEF) << "the missing slot's subunit";
    EXPECT_EQ(mode(unitId(0, 0, 1)), 0xFF) << "a healthy member's subunit";
    tw_id_list_type drives;
    ASSERT_EQ(tw_get_drive_id_list(controllerId(0), &drives), 0);
    EXPECT_EQ(drives.length, 3);

    t.wait(11);
    EXPECT_EQ(mode(unitId(0, 0)), 0xAF);
    EXPECT_EQ(mode(unitId(0, 1)), 0xAF) << "the spare unit rebuilds too";
    const int early = percent(unitId(0, 0));
    t.wait(60);
    const int later = percent(unitId(0, 0));
    EXPECT_LT(early, later);
    EXPECT_GT(later, 20);
    EXPECT_LT(later, 100);

    // 4 GiB at rate 3 (24 MiB/s): about 171 virtual seconds.
    t.wait(150);
    EXPECT_EQ(mode(unitId(0, 0)), 0xFF);
    EXPECT_EQ(members(unitId(0, 0)), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(unitNumbers(0), (std::vector<int>{0})) << "the spare unit is gone";

    const std::vector<Seen> all = events();
    EXPECT_EQ(codesAfter(all, before), (std::vector<int>{20, 22, 41, 42}));
    for (size_t i = 1; i < all.size(); ++i) {
        EXPECT_EQ(all[i].sequence, all[i - 1].sequence + 1);
        EXPECT_GE(all[i].time, all[i - 1].time);
    }
    EXPECT_EQ(all.back().time - all[all.size() - 2].time, 170u) << "the end is stamped when it happened";
}

TEST(TwTasks, PauseResumeAndTheRefusalsOfARebuild)
{
    Module t(9, "raid5", 1);
    const tw_id_type unit = unitId(0, 0);
    tw_id_list_type none{};
    EXPECT_EQ(tw_rebuild_unit(unit, &none), -1);
    EXPECT_EQ(apiCode(), 49u) << "a healthy unit";
    EXPECT_EQ(tw_pause_rebuild_unit(unit), -1);
    EXPECT_EQ(apiCode(), 64u);
    tw_id_list_type spare = driveList({3});
    EXPECT_EQ(tw_rebuild_unit(unitId(0, 1), &spare), -1);
    EXPECT_EQ(apiCode(), 52u) << "a spare unit has nothing to rebuild";

    ASSERT_EQ(tw_remove_drive(driveId(0, 1)), 0);
    EXPECT_EQ(mode(unit), 0xEF);
    EXPECT_EQ(tw_rebuild_unit(unit, &none), -1);
    EXPECT_EQ(apiCode(), 36u) << "no drives";
    tw_id_list_type member = driveList({0});
    EXPECT_EQ(tw_rebuild_unit(unit, &member), -1);
    EXPECT_EQ(apiCode(), 53u) << "a drive of another unit";
    tw_id_list_type empty = driveList({1});
    EXPECT_EQ(tw_rebuild_unit(unit, &empty), -1);
    EXPECT_EQ(apiCode(), 30u) << "a drive the controller let go";
    tw_id_list_type twice = driveList({3, 3});
    EXPECT_EQ(tw_rebuild_unit(unit, &twice), -1);
    EXPECT_EQ(apiCode(), 26u) << "more drives than missing members";

    t.wait(20);
    ASSERT_EQ(mode(unit), 0xAF);
    EXPECT_EQ(tw_rebuild_unit(unit, &spare), -1);
    EXPECT_EQ(apiCode(), 50u) << "a second rebuild";
    t.wait(30);
    ASSERT_EQ(tw_pause_rebuild_unit(unit), 0);
    EXPECT_EQ(mode(unit), 0xDF);
    EXPECT_EQ(mode(unitId(0, 1)), 0xDF);
    const int held = percent(unit);
    t.wait(3600);
    EXPECT_EQ(percent(unit), held) << "a paused rebuild keeps its place";
    EXPECT_EQ(tw_pause_rebuild_unit(unit), -1);
    EXPECT_EQ(apiCode(), 64u);
    ASSERT_EQ(tw_resume_rebuild_unit(unit), 0);
    EXPECT_EQ(mode(unit), 0xAF);
    t.wait(30);
    EXPECT_GT(percent(unit), held);
    EXPECT_EQ(tw_resume_rebuild_unit(unit), -1);
    EXPECT_EQ(apiCode(), 64u);
    t.wait(200);
    EXPECT_EQ(mode(unit), 0xFF);
    EXPECT_EQ(members(unit), (std::vector<int>{0, 3, 2}));
}

TEST(TwTasks, ARebuildOntoAGivenDriveThenVerifies)
{
    Module t(9, "raid5", 0);
    const tw_id_type unit = unitId(0, 0);
    ASSERT_EQ(tw_enable_unit_auto_verify(unit), 0);
    ASSERT_EQ(tw_remove_drive(driveId(0, 2)), 0);
    t.wait(600);
    EXPECT_EQ(mode(unit), 0xEF) << "no spare: it waits";
    EXPECT_EQ(tw_verify_unit(unit), -1);
    EXPECT_EQ(apiCode(), 72u);
    ASSERT_EQ(tw_add_drive(driveId(0, 2)), 0);
    tw_id_list_type back = driveList({2});
    t.edit(0, [](sim::tw::Controller& c) { c.port(2)->foundSectors /= 2; });
    EXPECT_EQ(tw_rebuild_unit(unit, &back), -1);
    EXPECT_EQ(apiCode(), 54u) << "a drive smaller than the members";
    t.edit(0, [](sim::tw::Controller& c) { c.port(2)->foundSectors *= 2; });
    ASSERT_EQ(tw_rebuild_unit(unit, &back), 0);
    EXPECT_EQ(mode(unit), 0xAF);
    EXPECT_EQ(members(unit), (std::vector<int>{0, 1, 2, 3})) << "the drive holds its slot while it rebuilds";

    // The rebuild's end starts the auto-verify.
    t.wait(200);
    EXPECT_EQ(mode(unit), 0xFB);
    EXPECT_EQ(tw_remove_drive(driveId(0, 0)), -1);
    EXPECT_EQ(apiCode(), 56u);
    ASSERT_EQ(tw_stop_verify_unit(unit), 0);
    EXPECT_EQ(mode(unit), 0xFF);
    EXPECT_EQ(tw_stop_verify_unit(unit), -1);
    EXPECT_EQ(apiCode(), 72u);
    ASSERT_EQ(tw_verify_unit(unit), 0);
    t.wait(30);
    const int p = percent(unit);
    EXPECT_GT(p, 0);
    EXPECT_LT(p, 100);
    t.wait(300);
    EXPECT_EQ(mode(unit), 0xFF);
    ASSERT_EQ(tw_flush_unit_write_cache(unit), 0);
    const std::vector<Seen> all = events();
    std::vector<int> codes;
    for (const Seen& s : all)
        if (s.code >= 41 && s.code <= 50) codes.push_back(s.code);
    EXPECT_EQ(codes, (std::vector<int>{41, 42, 43, 50, 43, 44}));
}

TEST(TwTasks, ASpareMadeLaterStartsTheRebuildAndAnInitialisationRunsOnTheClock)
{
    Module t(9, "raid5", 0);
    const tw_id_type unit = unitId(0, 0);
    ASSERT_EQ(tw_remove_drive(driveId(0, 2)), 0);
    ASSERT_EQ(tw_add_drive(driveId(0, 2)), 0);
    t.wait(100);
    EXPECT_EQ(mode(unit), 0xEF);
    // The controller makes a spare unit of the free drive, as its create
    // command does.
    t.edit(0, [&](sim::tw::Controller& c) {
        sim::tw::Unit s;
        s.number = 1;
        s.config = 13;
        s.ports = {2};
        s.tree.port = 2;
        s.capacity = simtest::kSectors;
        c.units.push_back(s);
    });
    t.wait(5);
    EXPECT_EQ(mode(unit), 0xEF) << "the rebuild waits its ten seconds";
    t.wait(6);
    EXPECT_EQ(mode(unit), 0xAF);
    t.wait(200);
    EXPECT_EQ(mode(unit), 0xFF);
    EXPECT_EQ(members(unit), (std::vector<int>{0, 1, 2, 3}));

    // A unit made initialising becomes healthy on the clock.
    t.edit(0, [&](sim::tw::Controller& c) { sim::tw::startInitialisation(c, *c.unit(0), t.p.module().nowUs()); });
    EXPECT_EQ(mode(unit), 0xF7);
    int initialized = -1;
    ASSERT_EQ(tw_unit_is_initialized(unit, &initialized), 0);
    EXPECT_EQ(initialized, 0);
    t.wait(85);
    EXPECT_NEAR(percent(unit), 50, 2);
    t.wait(100);
    EXPECT_EQ(mode(unit), 0xFF);
    const std::vector<int> codes = codesAfter(events(), 1);
    EXPECT_EQ(std::vector<int>(codes.end() - 2, codes.end()), (std::vector<int>{45, 46}));
}

TEST(TwTasks, AParityUnitLosingTwoMembersIsUnusableAndItsDiskFails)
{
    Module t(9, "raid5", 0);
    const int fd = plat::open("/dev/scsi/host0/bus0/target0/lun0/disc", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    char sector[512];
    EXPECT_EQ(plat::pread(fd, sector, sizeof sector, 0), 512);
    ASSERT_EQ(t.p.module().pull(1), "");
    EXPECT_EQ(plat::pread(fd, sector, sizeof sector, 0), 512) << "degraded, still usable";
    ASSERT_EQ(t.p.module().pull(2), "");
    EXPECT_EQ(mode(unitId(0, 0)), 0x00);
    errno = 0;
    EXPECT_EQ(plat::pread(fd, sector, sizeof sector, 0), -1);
    EXPECT_EQ(errno, EIO);
    plat::close(fd);
    EXPECT_EQ(codesAfter(events(), 1), (std::vector<int>{20, 22, 20, 47}));
}

TEST(TwTasks, VerifyRefusedOnAUnitWithoutRedundancyAndTasksOnAMissingUnit)
{
    twtest::TwModule t(9, "single");
    EXPECT_EQ(tw_verify_unit(unitId(0, 0)), -1);
    EXPECT_EQ(apiCode(), 73u);
    EXPECT_EQ(tw_flush_unit_write_cache(unitId(0, 9)), -1);
    EXPECT_EQ(apiCode(), 43u);
    EXPECT_EQ(tw_pause_rebuild_unit(unitId(0, 0, 1)), -1);
    EXPECT_EQ(apiCode(), 9u) << "tasks run on whole units";
    // A single unit losing its drive is not usable.
    ASSERT_EQ(t.p.module().pull(2), "");
    EXPECT_EQ(mode(unitId(0, 1)), 0x00);
    EXPECT_EQ(codesAfter(events(), 1), (std::vector<int>{20, 47}));
}

// The identify sector's serial (words 10 to 19, each byte pair swapped).
std::string identSerial(const unsigned char* b)
{
    std::string s;
    for (int i = 20; i < 40; i += 2) {
        s += static_cast<char>(b[i + 1]);
        s += static_cast<char>(b[i]);
    }
    return s.substr(0, s.find_last_not_of(' ') + 1);
}

void checkAtaSide(Module& t, int controller, int bay, int port)
{
    const tw_id_type drive = driveId(controller, port);
    unsigned char b[512];
    ASSERT_EQ(tw_get_drive_ident_data(drive, b), 0);
    char cached[TW_SERIAL_NUMBER_SIZE];
    ASSERT_EQ(tw_get_drive_serial_number(drive, cached), 0);
    EXPECT_EQ(identSerial(b), cached);

    // Another drive behind the controller's back: identify reads it, the
    // controller keeps what it read before.
    ASSERT_TRUE(t.p.module().updateManifest([&](sim::Manifest& m) {
        m.driveInBay(bay)->serial = "SWAPPED0001";
        return true;
    }));
    ASSERT_EQ(tw_get_drive_ident_data(drive, b), 0);
    EXPECT_EQ(identSerial(b), "SWAPPED0001");
    ASSERT_EQ(tw_get_drive_serial_number(drive, cached), 0);
    EXPECT_NE(std::string(cached), "SWAPPED0001");

    ASSERT_EQ(tw_get_drive_smart_data(drive, b), 0);
    uint8_t sum = 0;
    for (unsigned char c : b) sum = static_cast<uint8_t>(sum + c);
    EXPECT_EQ(sum, 0) << "the page's checksum";
    EXPECT_EQ(b[2 + 2 * 12], 5) << "the third attribute: reallocated sectors";
    EXPECT_EQ(b[2 + 2 * 12 + 3], 100);

    tw_ata_registers_type r{};
    r.feature = 0xDA;
    r.cylinder_low = 0x4F;
    r.cylinder_high = 0xC2;
    r.command = 0xB0;
    ASSERT_EQ(tw_ata_passthrough(drive, &r, nullptr), 0);
    EXPECT_EQ(r.cylinder_low, 0x4F);
    EXPECT_EQ(r.cylinder_high, 0xC2);
    EXPECT_EQ(r.command, 0x50);

    ASSERT_TRUE(sim::tw::setSmart(t.p.module(), "SWAPPED0001", "exceeded"));
    r = tw_ata_registers_type{0xDA, 0, 0, 0x4F, 0xC2, 0, 0xB0};
    ASSERT_EQ(tw_ata_passthrough(drive, &r, nullptr), 0);
    EXPECT_EQ(r.cylinder_low, 0xF4);
    EXPECT_EQ(r.cylinder_high, 0x2C);
    ASSERT_EQ(tw_get_drive_smart_data(drive, b), 0);
    unsigned char thresholds[512];
    r = tw_ata_registers_type{0xD1, 1, 0, 0x4F, 0xC2, 0, 0xB0};
    ASSERT_EQ(tw_ata_passthrough(drive, &r, thresholds), 0);
    EXPECT_LT(b[2 + 2 * 12 + 3], thresholds[2 + 2 * 12 + 1]) << "value below its threshold";

    // SMART off: reads are aborted until it is on again.
    r = tw_ata_registers_type{0xD9, 0, 0, 0x4F, 0xC2, 0, 0xB0};
    ASSERT_EQ(tw_ata_passthrough(drive, &r, nullptr), 0);
    EXPECT_EQ(tw_get_drive_smart_data(drive, b), -1);
    EXPECT_EQ(apiCode(), 32u);
    r = tw_ata_registers_type{0xD8, 0, 0, 0x4F, 0xC2, 0, 0xB0};
    ASSERT_EQ(tw_ata_passthrough(drive, &r, nullptr), 0);
    EXPECT_EQ(r.command, 0x50);
    r = tw_ata_registers_type{0xD5, 1, 0, 0x4F, 0xC2, 0, 0xB0};
    ASSERT_EQ(tw_ata_passthrough(drive, &r, b), 0);
    EXPECT_EQ(b[2], 1) << "the log directory names the summary error log";
    r = tw_ata_registers_type{0xD5, 1, 9, 0x4F, 0xC2, 0, 0xB0};
    ASSERT_EQ(tw_ata_passthrough(drive, &r, b), 0);
    EXPECT_EQ(r.command, 0x51) << "no such log";
    EXPECT_EQ(r.feature, 0x04);

    ASSERT_EQ(tw_remove_drive(driveId(controller, port)), 0);
    EXPECT_EQ(tw_get_drive_ident_data(drive, b), -1) << "a drive the controller let go";
    EXPECT_EQ(apiCode(), 30u);
}

TEST(TwTasks, IdentifyAndSmartOnThe9000)
{
    Module t(9, "none", 0);
    checkAtaSide(t, 0, 4, 3);
}

TEST(TwTasks, IdentifyAndSmartOnThe7000WithTheCommandBytes)
{
    Module t(2, "none", 0);
    // The API's controller 0 is the second node's, on host 1 (the nodes are
    // tried from the last minor down); its port 0 is target 0, bay 4.
    checkAtaSide(t, 0, 4, 0);
    Recorder rec(t.p);
    plat::ScopedPlatform scope(rec);
    unsigned char b[512];
    ASSERT_EQ(tw_get_drive_smart_data(driveId(0, 1), b), 0);
    const auto& cmd = rec.calls.back().bytes;
    EXPECT_EQ(cmd[0], 0x00);
    EXPECT_EQ(cmd[1], 0x02) << "512 bytes of data";
    EXPECT_EQ(cmd[512], 0xB1);
    EXPECT_EQ(cmd[513], 7);
    EXPECT_EQ(cmd[515] & 0x0F, 1) << "the port";
    EXPECT_EQ(cmd[517], 1);
    EXPECT_EQ(cmd[518], 13);
    EXPECT_EQ(cmd[520], 0xD0);
    EXPECT_EQ(cmd[522], 1);
    EXPECT_EQ(cmd[526], 0x4F);
    EXPECT_EQ(cmd[528], 0xC2);
    EXPECT_EQ(cmd[530], 0);
    EXPECT_EQ(cmd[531], 0xB0);
}

TEST(TwTasks, The7000ReplacesThenRebuildsAndTakesAFirmwareImage)
{
    Module t(2, "none", 0);
    // A mirror of ports 0 and 1 that lost port 1, on the API's controller 0.
    t.edit(1, [](sim::tw::Controller& c) {
        sim::tw::Unit u;
        u.number = 0;
        u.config = 6;
        u.mode = "DEGRADED";
        ASSERT_TRUE(sim::tw::parseTree("DEGRADED(OK@0,DEGRADED)", u.tree));
        u.ports = sim::tw::treePorts(u.tree);
        u.capacity = simtest::kSectors;
        c.units = {u};
    });
    tw_id_list_type one = driveList({1});
    Recorder rec(t.p);
    {
        plat::ScopedPlatform scope(rec);
        ASSERT_EQ(tw_rebuild_unit(unitId(0, 0), &one), 0);
    }
    std::vector<int> tasks;
    for (const auto& call : rec.calls)
        if ((call.bytes[512] & 0x1F) == 0x18) tasks.push_back(call.bytes[520]);
    EXPECT_EQ(tasks, (std::vector<int>{7, 1})) << "replace, then rebuild";
    EXPECT_EQ(mode(unitId(0, 0)), 0xAF);
    t.wait(400);
    EXPECT_EQ(mode(unitId(0, 0)), 0xFF);
    EXPECT_EQ(members(unitId(0, 0)), (std::vector<int>{0, 1}));

    std::vector<unsigned char> image(2500);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<unsigned char>(i * 7);
    ASSERT_EQ(c7000.firmware_download(controllerId(0), image.data(), static_cast<uint32_t>(image.size())), 0);
    std::string kept;
    for (const sim::tw::Controller& c : sim::tw::twView(t.p.module()).controllers())
        if (c.index == 1) kept = c.get("firmware-image");
    EXPECT_EQ(kept.rfind("bytes=2500 chunks=3 sum=", 0), 0u) << kept;
}

TEST(TwTasks, BatteryTestsAndTheOverdueAlarmRaiseTheirEvents)
{
    Module t(9, "raid5", 0);
    const uint32_t before = events().back().sequence;
    ASSERT_EQ(tw_bbu_test_battery(controllerId(0)), 0);
    t.wait(3601);
    int busy = -1;
    ASSERT_EQ(tw_bbu_battery_test_in_progress(controllerId(0), &busy), 0);
    EXPECT_EQ(busy, 0);
    t.edit(0, [](sim::tw::Controller& c) { c.setNum("battery-test-fails", 1); });
    ASSERT_EQ(tw_bbu_test_battery(controllerId(0)), 0);
    t.wait(3601);
    t.wait(31.0 * 24 * 3600);
    EXPECT_EQ(codesAfter(events(), before), (std::vector<int>{51, 78, 51, 80, 83}));
    t.wait(3600);
    EXPECT_EQ(codesAfter(events(), before).size(), 5u) << "one alarm for each overdue test";
}

TEST(TwTasks, TavsimWaitMovesTheClockAndSetsSmart)
{
    simtest::TempModule m(9, false);
    sim::CreateOptions o;
    o.platform = 9;
    o.sectors = simtest::kSectors;
    o.units = "raid5";
    o.spares = 1;
    ASSERT_EQ(sim::createModule(m.dir(), o), "");
    const std::string d = m.dir();
    ASSERT_EQ(simtest::tavsim({"pull", d, "1"}).status, 0);
    auto r = simtest::tavsim({"wait", d, "15"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("controller 0 unit 0: REBUILDING"), std::string::npos) << r.out;
    r = simtest::tavsim({"wait", d, "400", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\"mode\": \"OK\""), std::string::npos) << r.out;
    EXPECT_EQ(simtest::tavsim({"wait", d, "soon"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"wait", d}).status, 2);

    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "port1.smart=exceeded"}).status, 0);
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "port1.smart=maybe"}).status, 2);
    EXPECT_EQ(simtest::tavsim({"3ware", d, "set", "port0.smart=on"}).status, 2) << "bay 1 is empty";
    r = simtest::tavsim({"tw", d, "tw_ata_passthrough", "0", "1", "218", "0", "0", "79", "194", "0", "176"});
    EXPECT_NE(r.out.find("cylinder_low 244 cylinder_high 44"), std::string::npos) << r.out;
    r = simtest::tavsim({"3ware", d});
    EXPECT_NE(r.out.find("REAL-SERIAL"), std::string::npos);
}

} // namespace

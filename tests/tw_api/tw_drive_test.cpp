// The drive and port read family on both families over the simulated
// controllers.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "tw_fixture.h"

namespace {

using twtest::apiCode;

using twtest::controllerId;
using twtest::TwModule;

tw_id_type driveId(int n)
{
    tw_id_type id;
    EXPECT_EQ(tw_create_drive_id(0, n, &id), 0);
    return id;
}

std::vector<int> numbers(const tw_id_list_type& list)
{
    std::vector<int> out;
    for (int i = 0; i < list.length; ++i) out.push_back(list.list[i].id[2]);
    return out;
}

void editPort(TwModule& t, int index, int port, const std::function<void(sim::tw::Port&)>& change)
{
    sim::tw::twView(t.p.module()).update(index, [&](sim::tw::Controller& c) {
        change(*c.port(port));
        return true;
    });
}

TEST(TwDrives, ListsIdentityAndStatusOn9000)
{
    TwModule t(9, "raid10");
    editPort(t, 0, 1, [](sim::tw::Port& p) {
        p.drive.clear();
        p.foundSerial.clear();
    });
    editPort(t, 0, 2, [](sim::tw::Port& p) {
        p.status = 0;
        p.foundSerial = "  OLDSERIAL  ";
        p.foundModel = "SIM DISK";
    });
    tw_id_list_type list;
    ASSERT_EQ(tw_get_drive_id_list(controllerId(0), &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 2, 3})) << "port order, the empty port left out";
    EXPECT_EQ(list.list[0].id[0], TW_ID_KIND_DRIVE);
    ASSERT_EQ(tw_get_port_id_list(controllerId(0), &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 1, 2, 3}));

    char serial[TW_SERIAL_NUMBER_SIZE], model[TW_MODEL_SIZE], firmware[TW_VERSION_SIZE];
    ASSERT_EQ(tw_get_drive_serial_number(driveId(2), serial), 0);
    EXPECT_STREQ(serial, "OLDSERIAL") << "blanks cut";
    ASSERT_EQ(tw_get_drive_model(driveId(2), model), 0);
    EXPECT_STREQ(model, "SIM DISK");
    ASSERT_EQ(tw_get_drive_firmware_version(driveId(0), firmware), 0);
    EXPECT_STREQ(firmware, "SIM1.00");
    uint64_t sectors = 0;
    ASSERT_EQ(tw_get_drive_capacity(driveId(0), &sectors), 0);
    EXPECT_EQ(sectors, 8388608u);
    int status = -1;
    ASSERT_EQ(tw_get_drive_status(driveId(2), &status), 0);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(tw_get_drive_status(driveId(3), &status), 0);
    EXPECT_EQ(status, 0xFF);

    EXPECT_EQ(tw_get_drive_status(driveId(1), &status), -1);
    EXPECT_EQ(apiCode(), 30u) << "port empty";
    EXPECT_EQ(tw_get_drive_status(driveId(4), &status), -1);
    EXPECT_EQ(apiCode(), 10u) << "past the ports";
    tw_id_type bad = driveId(0);
    bad.id[2] = 200;
    EXPECT_EQ(tw_get_drive_model(bad, model), -1);
    EXPECT_EQ(apiCode(), 10u);

    tw_id_type port;
    ASSERT_EQ(tw_get_drive_port_id(driveId(3), &port), 0);
    int n = -1;
    ASSERT_EQ(tw_get_port_number(port, &n), 0);
    EXPECT_EQ(n, 3);
}

TEST(TwDrives, UnitMembersByTreeOrderWithMissingSlots)
{
    TwModule t(9, "raid10");
    sim::tw::twView(t.p.module()).update(0, [](sim::tw::Controller& c) {
        sim::tw::parseTree("DEGRADED(DEGRADED(OK@0,DEGRADED),OK(OK@2,OK@3))", c.units[0].tree);
        c.units[0].mode = "DEGRADED";
        return true;
    });
    tw_id_type unit, mirror;
    tw_create_unit_id(0, 0, nullptr, 0, &unit);
    const int first = 0;
    tw_create_unit_id(0, 0, &first, 1, &mirror);
    tw_id_list_type list;
    ASSERT_EQ(tw_get_drive_id_list_from_unit_id(unit, &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 255, 2, 3}));
    ASSERT_EQ(tw_get_drive_id_list_from_unit_id(mirror, &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 255}));
    const int path[2] = {1, 1};
    tw_id_type leaf;
    tw_create_unit_id(0, 0, path, 2, &leaf);
    ASSERT_EQ(tw_get_drive_id_list_from_unit_id(leaf, &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{3}));
}

TEST(TwDrives, The7000AnswersTheSameItems)
{
    TwModule t(2);
    tw_id_list_type drives, ports;
    ASSERT_EQ(tw_get_drive_id_list(controllerId(0), &drives), 0);
    ASSERT_EQ(tw_get_port_id_list(controllerId(0), &ports), 0);
    EXPECT_EQ(ports.length, 4);
    ASSERT_GT(drives.length, 0);
    char serial[TW_SERIAL_NUMBER_SIZE];
    ASSERT_EQ(tw_get_drive_serial_number(drives.list[0], serial), 0);
    EXPECT_NE(serial[0], '\0');
    tw_id_type unit;
    ASSERT_EQ(tw_get_unit_id_from_drive_id(drives.list[0], &unit), 0) << "every 7000 drive is a single unit here";
    tw_id_list_type members;
    ASSERT_EQ(tw_get_drive_id_list_from_unit_id(unit, &members), 0);
    EXPECT_EQ(numbers(members), std::vector<int>{drives.list[0].id[2]});
}

} // namespace

namespace {

TEST(TwDrives, RemovingAMemberDegradesItsUnitUntilTheLastCopy)
{
    TwModule t(9, "raid5");
    tw_id_type unit;
    tw_create_unit_id(0, 0, nullptr, 0, &unit);
    ASSERT_EQ(tw_remove_drive(driveId(1)), 0);
    int mode = -1;
    ASSERT_EQ(tw_get_unit_mode(unit, &mode), 0);
    EXPECT_EQ(mode, 0xEF);
    const int slots[2] = {1, 2};
    tw_id_type slot;
    tw_create_unit_id(0, 0, &slots[0], 1, &slot);
    ASSERT_EQ(tw_get_unit_mode(slot, &mode), 0);
    EXPECT_EQ(mode, 0xEF) << "the missing member's subunit";
    tw_create_unit_id(0, 0, &slots[1], 1, &slot);
    ASSERT_EQ(tw_get_unit_mode(slot, &mode), 0);
    EXPECT_EQ(mode, 0xFF);
    tw_id_list_type list;
    ASSERT_EQ(tw_get_drive_id_list_from_unit_id(unit, &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 255, 2, 3}));
    ASSERT_EQ(tw_get_drive_id_list(controllerId(0), &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 2, 3}));
    EXPECT_NE(t.m.get("/sim/3ware/c0").find("port 1 drive= "), std::string::npos) << "the controller let go of it";

    EXPECT_EQ(tw_remove_drive(driveId(2)), -1) << "a second loss would end the unit";
    EXPECT_EQ(apiCode(), 48u);
    EXPECT_EQ(tw_remove_drive(driveId(1)), -1);
    EXPECT_EQ(apiCode(), 30u) << "port empty";

    // The drive stayed in its bay: adding it brings it back to the list.
    tw_id_type port;
    tw_create_port_id(0, 1, &port);
    ASSERT_EQ(tw_add_drive(port), 0);
    ASSERT_EQ(tw_get_drive_id_list(controllerId(0), &list), 0);
    EXPECT_EQ(numbers(list), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(tw_add_drive(port), -1);
    EXPECT_EQ(apiCode(), 23u) << "port in use";

    // The events of it, in order with rising sequence numbers.
    tw_event_info_type e;
    ASSERT_EQ(tw_get_first_event(controllerId(0), &e), 0);
    std::vector<int> codes;
    uint32_t last = 0;
    while (e.aen_code != 0) {
        EXPECT_GT(e.sequence_id, last);
        last = e.sequence_id;
        codes.push_back(e.aen_code);
        ASSERT_EQ(tw_get_next_event(controllerId(0), &e), 0);
    }
    ASSERT_GE(codes.size(), 3u);
    EXPECT_EQ(std::vector<int>(codes.end() - 3, codes.end()), (std::vector<int>{20, 22, 21}));
}

TEST(TwDrives, ChangesWaitForTheControllersLockReadsDoNot)
{
    TwModule t(9, "raid5");
    sim::tw::twView(t.p.module()).update(0, [&](sim::tw::Controller& c) {
        c.lockHolder = "someone";
        c.lockExpires = t.p.module().nowUs() + 60000000u;
        return true;
    });
    const uint64_t before = t.ioctls("/dev/twa0");
    EXPECT_EQ(tw_remove_drive(driveId(1)), -1);
    tw_id_list_type list;
    ASSERT_EQ(tw_get_drive_id_list(controllerId(0), &list), 0);
    EXPECT_EQ(list.length, 4) << "the drive stays";
    EXPECT_GE(t.ioctls("/dev/twa0") - before, 10u) << "ten lock requests";
    tw_id_type unit;
    tw_create_unit_id(0, 0, nullptr, 0, &unit);
    EXPECT_EQ(tw_disable_unit_write_cache(unit), -1);
    int w = -1;
    ASSERT_EQ(tw_get_unit_write_cache_state(unit, &w), 0);
    EXPECT_EQ(w, 1);
}

TEST(TwDrives, RemovalRefusalsByUnitKind)
{
    {
        TwModule t(9, "raid10");
        ASSERT_EQ(tw_remove_drive(driveId(0)), 0);
        EXPECT_EQ(tw_remove_drive(driveId(1)), -1) << "the mirror's other half";
        EXPECT_EQ(apiCode(), 48u);
        ASSERT_EQ(tw_remove_drive(driveId(3)), 0) << "the other mirror still has a copy";
    }
    {
        TwModule t(9, "single");
        EXPECT_EQ(tw_remove_drive(driveId(3)), -1);
        EXPECT_EQ(apiCode(), 48u);
    }
    {
        TwModule t(9, "raid5");
        sim::tw::twView(t.p.module()).update(0, [](sim::tw::Controller& c) {
            c.units[0].mode = "VERIFYING";
            c.units[0].tree.mode = "VERIFYING";
            return true;
        });
        EXPECT_EQ(tw_remove_drive(driveId(0)), -1);
        EXPECT_EQ(apiCode(), 56u);
    }
}

} // namespace

// The unit read family on both controller families, over the simulated
// controllers, and the descriptor tree's checks over answers of any bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

#include "tw_api/tw_api_private.h"
#include "tw_fixture.h"

namespace {

using twtest::apiCode;

using twtest::controllerId;
using twtest::TwModule;

// Puts a unit into the state of the controller in file `index`.
void putUnit(TwModule& t, int number, int config, const std::string& mode, const std::string& tree, int percent = 100,
             int stripe = 5, int index = 0)
{
    sim::tw::Unit u;
    u.number = number;
    u.config = config;
    u.mode = mode;
    ASSERT_TRUE(sim::tw::parseTree(tree, u.tree)) << tree;
    u.ports = sim::tw::treePorts(u.tree);
    u.stripe = stripe;
    u.capacity = 1000;
    u.percent = percent;
    sim::tw::twView(t.p.module()).update(index, [&](sim::tw::Controller& c) {
        c.units.erase(std::remove_if(c.units.begin(), c.units.end(), [&](const sim::tw::Unit& x) { return x.number == number; }),
                      c.units.end());
        c.units.push_back(u);
        return true;
    });
}

void clearUnits(TwModule& t, int index = 0)
{
    sim::tw::twView(t.p.module()).update(index, [](sim::tw::Controller& c) {
        c.units.clear();
        return true;
    });
}

tw_id_type unitId(int unit, std::vector<int> subunits = {})
{
    tw_id_type id;
    EXPECT_EQ(tw_create_unit_id(0, unit, subunits.data(), int(subunits.size()), &id), 0);
    return id;
}

int mode(tw_id_type id)
{
    int m = -1;
    EXPECT_EQ(tw_get_unit_mode(id, &m), 0);
    return m;
}

TEST(TwUnits, ListsAndTreeOfAMirrorOfStripesOn9000)
{
    TwModule t(9, "raid10");
    tw_id_list_type list;
    ASSERT_EQ(tw_get_unit_id_list(controllerId(0), &list), 0);
    ASSERT_EQ(list.length, 1);
    EXPECT_EQ(list.list[0].id[3], 1);
    EXPECT_EQ(list.list[0].id[4], 0);

    const tw_id_type unit = list.list[0];
    int n = -1;
    ASSERT_EQ(tw_get_number_of_subunits(unit, &n), 0);
    EXPECT_EQ(n, 2);
    ASSERT_EQ(tw_get_subunit_id_list(unit, &list), 0);
    ASSERT_EQ(list.length, 2);
    EXPECT_EQ(list.list[1].id[3], 2);
    EXPECT_EQ(list.list[1].id[5], 1);
    EXPECT_EQ(list.list[1].id[6], 0xFF);

    const tw_id_type mirror = list.list[1];
    ASSERT_EQ(tw_get_subunit_id_list(mirror, &list), 0);
    ASSERT_EQ(list.length, 2);
    EXPECT_EQ(list.list[0].id[3], 3);
    EXPECT_EQ(list.list[0].id[5], 1);
    EXPECT_EQ(list.list[0].id[6], 0);
    ASSERT_EQ(tw_get_number_of_subunits(list.list[0], &n), 0);
    EXPECT_EQ(n, 0);

    int config = 0, stripe = 0, status = -1;
    EXPECT_EQ(tw_get_unit_configuration(unit, &config), 0);
    EXPECT_EQ(config, 6);
    EXPECT_EQ(tw_get_unit_configuration(mirror, &config), 0);
    EXPECT_EQ(config, 6);
    EXPECT_EQ(tw_get_unit_configuration(list.list[0], &config), 0);
    EXPECT_EQ(config, 11) << "a member slot is a single drive";
    EXPECT_EQ(tw_get_unit_stripe_size(unit, &stripe), 0);
    EXPECT_EQ(stripe, 5);
    uint64_t sectors = 0;
    EXPECT_EQ(tw_get_unit_capacity(unit, &sectors), 0);
    EXPECT_EQ(sectors, 16777216u);

    EXPECT_EQ(mode(unit), 0xFF);
    EXPECT_EQ(mode(list.list[1]), 0xFF);
    EXPECT_EQ(tw_get_unit_status(unit, &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(tw_get_unit_status(mirror, &status), 0);
    EXPECT_EQ(status, 127) << "a 9000 subunit";

    tw_id_type drive, found;
    tw_create_drive_id(0, 2, &drive);
    ASSERT_EQ(tw_get_unit_id_from_drive_id(drive, &found), 0);
    EXPECT_EQ(std::memcmp(found.id, unit.id, 8), 0);
}

TEST(TwUnits, DegradedParityUnitShowsItsMissingSlotAndPercentage)
{
    TwModule t(9, "single");
    clearUnits(t);
    putUnit(t, 2, 5, "REBUILDING", "REBUILDING(OK@0,REBUILDING,OK@2)", 40);
    const tw_id_type unit = unitId(2);
    EXPECT_EQ(mode(unit), 0xAF);
    EXPECT_EQ(mode(unitId(2, {0})), 0xFF);
    EXPECT_EQ(mode(unitId(2, {1})), 0xAF);
    int percent = -1;
    ASSERT_EQ(tw_get_unit_percentage_complete(unit, &percent), 0);
    EXPECT_EQ(percent, 40);
    EXPECT_EQ(tw_get_unit_percentage_complete(unitId(2, {0}), &percent), -1) << "a healthy slot has no task";
    EXPECT_EQ(apiCode(), 55u);

    tw_id_type drive, found;
    tw_create_drive_id(0, 3, &drive);
    EXPECT_EQ(tw_get_unit_id_from_drive_id(drive, &found), -1) << "port 3 holds no member";
    EXPECT_EQ(apiCode(), 34u);

    int active = -1, initialized = -1, local = -1;
    ASSERT_EQ(tw_unit_background_task_active(unit, &active), 0);
    EXPECT_EQ(active, 1);
    ASSERT_EQ(tw_unit_background_task_active(unitId(2, {0}), &active), 0);
    EXPECT_EQ(active, 0);
    ASSERT_EQ(tw_get_unit_local_unit_id(unitId(2, {1}), &local), 0);
    EXPECT_EQ(local, 2);

    putUnit(t, 2, 5, "INITIALIZING", "INITIALIZING(OK@0,OK@1,OK@2)", 10);
    ASSERT_EQ(tw_unit_is_initialized(unit, &initialized), 0);
    EXPECT_EQ(initialized, 0);
    ASSERT_EQ(tw_get_unit_percentage_complete(unit, &percent), 0);
    EXPECT_EQ(percent, 10);

    putUnit(t, 2, 5, "INOPERABLE", "INOPERABLE(OK@0,INOPERABLE,INOPERABLE)");
    EXPECT_EQ(mode(unit), 0x00);
    int status = -1;
    ASSERT_EQ(tw_get_unit_status(unit, &status), 0);
    EXPECT_EQ(status, 6);
}

TEST(TwUnits, PoliciesReadBackPerUnit)
{
    TwModule t(9, "single");
    sim::tw::twView(t.p.module()).update(0, [](sim::tw::Controller& c) {
        c.units[3].readCache = 0;
        c.units[3].writeCache = 1;
        c.units[3].ecc = 1;
        c.units[3].autoVerify = 1;
        return true;
    });
    const tw_id_type unit = unitId(3);
    int r = -1, w = -1, e = -1, a = -1;
    ASSERT_EQ(tw_get_unit_read_cache_state(unit, &r), 0);
    ASSERT_EQ(tw_get_unit_write_cache_state(unit, &w), 0);
    ASSERT_EQ(tw_get_unit_ecc_policy(unit, &e), 0);
    ASSERT_EQ(tw_get_unit_auto_verify_policy(unit, &a), 0);
    EXPECT_EQ(r, 0);
    EXPECT_EQ(w, 1);
    EXPECT_EQ(e, 1);
    EXPECT_EQ(a, 1);
}

TEST(TwUnits, CachesAndPoliciesAreSetAndReadBackOnBothFamilies)
{
    for (int platform : {9, 2}) {
        TwModule t(platform, platform == 9 ? "raid5" : "");
        tw_id_list_type list;
        ASSERT_EQ(tw_get_unit_id_list(controllerId(0), &list), 0);
        ASSERT_GT(list.length, 0);
        const tw_id_type unit = list.list[0];
        ASSERT_EQ(tw_disable_unit_read_cache(unit), 0);
        ASSERT_EQ(tw_disable_unit_write_cache(unit), 0);
        ASSERT_EQ(tw_enable_unit_auto_verify(unit), 0);
        ASSERT_EQ(tw_unit_set_ecc_policy_to_continue(unit), 0);
        int r = -1, w = -1, e = -1, a = -1;
        ASSERT_EQ(tw_get_unit_read_cache_state(unit, &r), 0);
        ASSERT_EQ(tw_get_unit_write_cache_state(unit, &w), 0);
        ASSERT_EQ(tw_get_unit_ecc_policy(unit, &e), 0);
        ASSERT_EQ(tw_get_unit_auto_verify_policy(unit, &a), 0);
        EXPECT_EQ((std::vector<int>{r, w, e, a}), (std::vector<int>{0, 0, 1, 1})) << platform;
        ASSERT_EQ(tw_enable_unit_write_cache(unit), 0);
        ASSERT_EQ(tw_unit_set_ecc_policy_to_halt(unit), 0);
        ASSERT_EQ(tw_disable_unit_auto_verify(unit), 0);
        ASSERT_EQ(tw_enable_unit_read_cache(unit), 0);
        ASSERT_EQ(tw_get_unit_read_cache_state(unit, &r), 0);
        ASSERT_EQ(tw_get_unit_write_cache_state(unit, &w), 0);
        ASSERT_EQ(tw_get_unit_ecc_policy(unit, &e), 0);
        ASSERT_EQ(tw_get_unit_auto_verify_policy(unit, &a), 0);
        EXPECT_EQ((std::vector<int>{r, w, e, a}), (std::vector<int>{1, 1, 0, 0})) << platform;
        if (platform == 9) {
            const int first = 0;
            tw_id_type sub;
            tw_create_unit_id(0, list.list[0].id[4], &first, 1, &sub);
            EXPECT_EQ(tw_enable_unit_write_cache(sub), -1) << "a subunit has no policies of its own";
            EXPECT_EQ(apiCode(), 9u);
        }
    }
}

TEST(TwUnits, The7000ReadsStatusBytesAndTheSameTree)
{
    TwModule t(2);
    // Both controllers alike: which file answers as controller 0 is the node scan's choice.
    for (int index : {0, 1}) {
        clearUnits(t, index);
        putUnit(t, 1, 6, "DEGRADED", "DEGRADED(DEGRADED(OK@0,DEGRADED),OK(OK@2,OK@3))", 0, 5, index);
        putUnit(t, 4, 11, "OK", "OK@1", 100, 0, index);
    }
    tw_id_list_type list;
    ASSERT_EQ(tw_get_unit_id_list(controllerId(0), &list), 0);
    ASSERT_EQ(list.length, 2);
    EXPECT_EQ(list.list[0].id[4], 1);
    EXPECT_EQ(list.list[1].id[4], 4);

    int status = -1;
    ASSERT_EQ(tw_get_unit_status(unitId(1), &status), 0);
    EXPECT_EQ(status, 4) << "the low 7 bits of the unit's byte";
    EXPECT_EQ(tw_get_unit_status(unitId(7), &status), -1);
    EXPECT_EQ(apiCode(), 16u);

    EXPECT_EQ(mode(unitId(1, {0})), 0xEF);
    EXPECT_EQ(mode(unitId(1, {1})), 0xFF);
    EXPECT_EQ(mode(unitId(1, {0, 1})), 0xEF);
    tw_id_type drive, found;
    tw_create_drive_id(0, 3, &drive);
    ASSERT_EQ(tw_get_unit_id_from_drive_id(drive, &found), 0);
    EXPECT_EQ(found.id[4], 1);
    tw_create_drive_id(0, 1, &drive);
    ASSERT_EQ(tw_get_unit_id_from_drive_id(drive, &found), 0);
    EXPECT_EQ(found.id[4], 4);
}

TEST(TwUnits, CallerIdentifiersOutOfRangeAreRefused)
{
    TwModule t(9, "raid10");
    tw_id_type bad = unitId(0, {0});
    int m = 0;
    for (uint8_t depth : {0, 5, 0xFF}) {
        bad.id[3] = depth;
        EXPECT_EQ(tw_get_unit_mode(bad, &m), -1);
        EXPECT_EQ(apiCode(), 9u);
    }
    EXPECT_EQ(tw_get_unit_mode(unitId(0, {2}), &m), -1) << "no third subunit";
    EXPECT_EQ(apiCode(), 9u);
    EXPECT_EQ(tw_get_unit_mode(unitId(0, {0, 0, 0}), &m), -1) << "below a leaf";
    EXPECT_EQ(tw_get_unit_mode(unitId(9), &m), -1) << "no such unit";
    EXPECT_EQ(tw_get_unit_mode(controllerId(0), &m), -1);
    EXPECT_EQ(apiCode(), 9u);
    tw_id_type ctrl = controllerId(0), out;
    EXPECT_EQ(tw_get_unit_id_from_drive_id(ctrl, &out), -1);
    EXPECT_EQ(apiCode(), 10u);
}

// A descriptor of nodes with the given child counts, in preorder.
std::vector<uint8_t> descriptor(std::vector<int> children, int count = -1)
{
    std::vector<uint8_t> b(twp::kUnitDescriptorSize9000, 0);
    b[0] = uint8_t(count < 0 ? int(children.size()) : count);
    for (size_t i = 0; i < children.size(); ++i)
        b[twp::kUnitHeadSize + i * sizeof(TAG_TW_Unit_Node) + 4] = uint8_t(children[i]);
    return b;
}

TEST(TwUnitTree, ControllerAnswersThatCannotBeReadAreRejected)
{
    unit_tree tree;
    auto parses = [&](const std::vector<uint8_t>& b) { return tree.parse(b.data(), b.size()); };
    EXPECT_TRUE(parses(descriptor({2, 2, 0, 0, 2, 0, 0})));
    EXPECT_EQ(tree.first_child[0], 1);
    EXPECT_EQ(tree.next_peer[1], 4);
    EXPECT_EQ(tree.depth[6], 3);
    EXPECT_TRUE(parses(descriptor({1, 1, 1, 0}))) << "four levels";

    EXPECT_FALSE(parses(descriptor({1, 1, 1, 1, 0}))) << "five levels";
    EXPECT_FALSE(parses(descriptor({3, 0, 0}))) << "children past the count";
    EXPECT_FALSE(parses(descriptor({0, 0}))) << "a second root";
    EXPECT_FALSE(parses(descriptor({}, 0)));
    EXPECT_FALSE(parses(descriptor({}, 200))) << "a count past the data";
    std::vector<uint8_t> small = descriptor({0});
    EXPECT_FALSE(tree.parse(small.data(), twp::kUnitHeadSize)) << "a node count past a short answer";

    // Bytes of any kind: a tree or a refusal, every index inside the count.
    std::mt19937 rng(7);
    for (int round = 0; round < 20000; ++round) {
        std::vector<uint8_t> b(twp::kUnitDescriptorSize9000);
        for (auto& x : b) x = uint8_t(rng() % (round % 2 ? 4 : 256));
        b[0] = uint8_t(rng() % 40);
        if (!parses(b)) continue;
        ASSERT_LE(tree.count, unit_tree::kMaxNodes);
        for (int i = 0; i < tree.count; ++i) {
            ASSERT_LT(tree.first_child[i], tree.count);
            ASSERT_LT(tree.next_peer[i], tree.count);
            ASSERT_LE(tree.depth[i], 4);
        }
    }
}

} // namespace

// Identifiers: their bytes, limits and failure codes.
#include <array>
#include <cstring>

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "sim/sim_platform.h"
#include "sim/tw_api_state.h"
#include "tests/sim/sim_fixture.h"
#include "tw_api/tw_api.h"

namespace {

using Bytes = std::array<unsigned char, 8>;

Bytes bytes(const tw_id_type& id) {
    Bytes b;
    std::memcpy(b.data(), id.id, 8);
    return b;
}

// The API code a failed call left, read from a cleared record.
uint32_t lastApiCode() {
    tw_api_error_type e;
    tw_get_error_information(&e);
    return (e.valid_error_flags & TW_ERROR_FLAG_API) ? e.api_error_code : 0;
}

class TwIds : public ::testing::Test {
protected:
    void SetUp() override { tw_api_clear_error(); }
};

TEST_F(TwIds, ConstructorsLayTheBytesOfEachKind) {
    tw_id_type id;
    ASSERT_EQ(tw_create_controller_id(16, &id), 0);  // one more than a list holds
    EXPECT_EQ(bytes(id), (Bytes{1, 16, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));

    ASSERT_EQ(tw_create_unit_id(2, 5, nullptr, 0, &id), 0);
    EXPECT_EQ(bytes(id), (Bytes{2, 2, 0xFF, 1, 5, 0xFF, 0xFF, 0xFF}));

    const int subunits[3] = {1, 0, 3};
    ASSERT_EQ(tw_create_unit_id(0, 15, subunits, 3, &id), 0);
    EXPECT_EQ(bytes(id), (Bytes{2, 0, 0xFF, 4, 15, 1, 0, 3}));
    ASSERT_EQ(tw_create_unit_id(0, 300, subunits, 1, &id), 0);  // 255 and above: none
    EXPECT_EQ(bytes(id), (Bytes{2, 0, 0xFF, 2, 0xFF, 1, 0xFF, 0xFF}));

    tw_id_type port;
    ASSERT_EQ(tw_create_drive_id(3, 7, &id), 0);
    ASSERT_EQ(tw_create_port_id(3, 7, &port), 0);
    EXPECT_EQ(bytes(id), (Bytes{3, 3, 7, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(bytes(port), bytes(id));
    ASSERT_EQ(tw_create_drive_id(0, 255, &id), 0);
    EXPECT_EQ(id.id[2], 0xFF);
    EXPECT_EQ(lastApiCode(), 0u);
}

// Clears the record, makes the call, and gives the API code it left, or
// -1 when the call did not fail.
template <typename Call>
long failureCode(Call call) {
    tw_api_clear_error();
    if (call() != -1)
        return -1;
    return static_cast<long>(lastApiCode());
}

TEST_F(TwIds, ConstructorsRefuseOutOfRangeWithTheirKindsCode) {
    tw_id_type id;
    std::memset(&id, 0xAB, sizeof id);
    const int four[4] = {0, 0, 0, 0};
    const int bad[1] = {16};
    EXPECT_EQ(failureCode([&] { return tw_create_controller_id(17, &id); }), 8);
    EXPECT_EQ(failureCode([&] { return tw_create_controller_id(-1, &id); }), 8);
    EXPECT_EQ(failureCode([&] { return tw_create_controller_id(0, nullptr); }), 8);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(16, 0, nullptr, 0, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(0, 16, nullptr, 0, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(0, 254, nullptr, 0, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(0, -1, nullptr, 0, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(0, 0, four, 4, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(0, 0, nullptr, 1, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_unit_id(0, 0, bad, 1, &id); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_create_drive_id(16, 0, &id); }), 10);
    EXPECT_EQ(failureCode([&] { return tw_create_drive_id(0, 16, &id); }), 10);
    EXPECT_EQ(failureCode([&] { return tw_create_port_id(16, 0, &id); }), 11);
    EXPECT_EQ(failureCode([&] { return tw_create_port_id(0, 200, &id); }), 11);
    EXPECT_EQ(id.id[0], 0xAB);  // nothing written on failure
}

TEST_F(TwIds, ReadersFailWithTheirOwnCodeOnAnotherKind) {
    tw_id_type controller, unit, drive;
    ASSERT_EQ(tw_create_controller_id(4, &controller), 0);
    ASSERT_EQ(tw_create_unit_id(4, 9, nullptr, 0, &unit), 0);
    ASSERT_EQ(tw_create_drive_id(4, 11, &drive), 0);

    int n = -5;
    EXPECT_EQ(tw_get_controller_number(controller, &n), 0);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(tw_get_unit_number(unit, &n), 0);
    EXPECT_EQ(n, 9);
    EXPECT_EQ(tw_get_drive_number(drive, &n), 0);
    EXPECT_EQ(n, 11);
    EXPECT_EQ(tw_get_port_number(drive, &n), 0);  // a port is a drive's bytes
    EXPECT_EQ(n, 11);

    EXPECT_EQ(failureCode([&] { return tw_get_controller_number(unit, &n); }), 8);
    EXPECT_EQ(failureCode([&] { return tw_get_unit_number(drive, &n); }), 9);
    EXPECT_EQ(failureCode([&] { return tw_get_drive_number(controller, &n); }), 10);
    EXPECT_EQ(failureCode([&] { return tw_get_port_number(unit, &n); }), 11);
    EXPECT_EQ(failureCode([&] { return tw_get_unit_number(unit, nullptr); }), 9);
}

TEST(TwApiFrame, VersionCopyrightAndMemoryHelpers) {
    EXPECT_STREQ(tw_get_api_version(), "2.00.00.063+");
    EXPECT_GT(std::strlen(tw_get_api_copyright()), 0u);

    char a[8] = "abcdefg";
    EXPECT_EQ(tw_memcpy(a + 1, a, 4), 0);  // overlapping copies are safe
    EXPECT_STREQ(a, "aabcdfg");
    EXPECT_EQ(tw_memset(a, 'z', 3), 0);
    EXPECT_STREQ(a, "zzzcdfg");
    EXPECT_EQ(tw_memcpy(nullptr, a, 1), -1);
    EXPECT_EQ(tw_memset(nullptr, 0, 1), -1);
    EXPECT_EQ(tw_memcpy(nullptr, nullptr, 0), 0);
}

} // namespace

namespace {

std::string makeModule(simtest::TempModule& m, int platform) {
    sim::CreateOptions o;
    o.platform = platform;
    o.sectors = simtest::kSectors;
    return sim::createModule(m.dir(), o);
}

TEST(TwArchitecture, EachFamilyByItsNodeAfterTheCompatibilityRead) {
    for (auto [platform, family, controllers] : {std::tuple{9, 4, 1}, std::tuple{2, 3, 2}}) {
        simtest::TempModule m(platform, false);
        ASSERT_EQ(makeModule(m, platform), "");
        sim::SimPlatform p(m.dir());
        plat::ScopedPlatform scope(p);
        sim::resetTwApi();

        tw_id_list_type list;
        ASSERT_EQ(tw_get_controller_id_list(&list), 0);
        ASSERT_EQ(list.length, controllers);
        for (int i = 0; i < list.length; ++i) {
            int architecture = 0;
            EXPECT_EQ(tw_get_architecture_id(list.list[i], &architecture), 0);
            EXPECT_EQ(architecture, family) << platform;
        }
        tw_id_type unit;
        ASSERT_EQ(tw_create_unit_id(0, 0, nullptr, 0, &unit), 0);
        tw_api_clear_error();
        int architecture = 0;
        EXPECT_EQ(tw_get_architecture_id(unit, &architecture), -1);
        EXPECT_EQ(lastApiCode(), 8u);
        tw_id_type missing;
        ASSERT_EQ(tw_create_controller_id(16, &missing), 0);
        EXPECT_EQ(tw_get_architecture_id(missing, &architecture), -1);
        EXPECT_EQ(architecture, 0);
    }
}

} // namespace

// The error record and the text built from it.
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "sim/sim_platform.h"
#include "sim/tw_api_state.h"
#include "sim/tw_state.h"
#include "tests/sim/sim_fixture.h"
#include "tw_api/tw_api.h"

namespace {

std::string errorText() {
    tw_api_error_type e;
    EXPECT_EQ(tw_get_error_information(&e), 0);
    EXPECT_EQ(e.text_length, std::strlen(e.text) & 0xFFu);
    return e.text;
}

class TwError : public ::testing::Test {
protected:
    void SetUp() override { tw_api_clear_error(); }
};

TEST_F(TwError, SetTwiceKeepsTheLatestCodesAndBothFlags) {
    tw_api_set_error(TW_ERROR_FLAG_7000 | TW_ERROR_FLAG_CONTROLLER, 0, 0, 0, 1, "first");
    tw_api_set_error(TW_ERROR_FLAG_API | TW_ERROR_FLAG_OS, 71, EIO, 0, 0, nullptr);
    tw_api_set_error(TW_ERROR_FLAG_API, 66, 0, 0, 0, nullptr);

    tw_api_error_type e;
    ASSERT_EQ(tw_get_error_information(&e), 0);
    EXPECT_EQ(e.valid_error_flags, 0x1000Bu);
    EXPECT_EQ(e.api_error_code, 66u);
    EXPECT_EQ(e.os_error_code, static_cast<uint32_t>(EIO));  // zero does not overwrite
    EXPECT_EQ(e.controller_error_code, 1u);
    EXPECT_STREQ(e.additional_data, "first");  // a null text copies nothing

    std::string longText(300, 'x');
    tw_api_set_error(0, 0, 0, 0, 0, longText.c_str());
    ASSERT_EQ(tw_get_error_information(&e), 0);
    EXPECT_EQ(std::string(e.additional_data), longText.substr(0, 127));

    tw_api_clear_error();
    ASSERT_EQ(tw_get_error_information(&e), 0);
    tw_api_error_type zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(std::memcmp(&e, &zero, sizeof e), 0);
    EXPECT_EQ(tw_get_error_information(nullptr), -1);
}

TEST_F(TwError, PartsComeInOrderEachOnItsOwnLine) {
    tw_api_set_error(TW_ERROR_FLAG_OS, 0, EIO, 0, 0, nullptr);
    tw_api_set_error(TW_ERROR_FLAG_API, 71, 0, 0, 0, nullptr);
    EXPECT_EQ(errorText(), std::string("(0x0B:0x0047): Need to upgrade controller's driver or "
                                       "firmware\n(0x09:0x0005): ") +
                               std::strerror(EIO));

    tw_api_clear_error();
    tw_api_set_error(TW_ERROR_FLAG_OS, 0, ENOENT, 0, 0, nullptr);
    EXPECT_EQ(errorText(), std::string("(0x09:0x0002): ") + std::strerror(ENOENT));

    tw_api_clear_error();
    EXPECT_EQ(errorText(), "");
}

TEST_F(TwError, EmptyAndUnknownTextsTakeTheNotFoundForms) {
    tw_api_set_error(TW_ERROR_FLAG_API, 4, 0, 0, 0, nullptr);
    EXPECT_EQ(errorText(), "(0x0B:0x0004): API message not found");
    tw_api_set_error(TW_ERROR_FLAG_API, 0x1234, 0, 0, 0, nullptr);
    EXPECT_EQ(errorText(), "(0x0B:0x1234): API message not found");
    tw_api_set_error(TW_ERROR_FLAG_API, 2, 0, 0, 0, nullptr);
    EXPECT_EQ(errorText(), "(0x0B:0x0002): Feature not supported");
}

TEST_F(TwError, FamilyFlagChoosesTheDriverAndControllerTexts) {
    // The 7000 send records controller code 1 whatever the status.
    tw_api_set_error(0x10008, 0, 0, 0, 1, nullptr);
    EXPECT_EQ(errorText(), "(0x0E:0x0001): Controller refused the command");
    tw_api_set_error(0x10004, 0, 0, 5, 0, nullptr);
    EXPECT_EQ(errorText(), "(0x11:0x0005): 7000 driver message not found\n"
                           "(0x0E:0x0001): Controller refused the command");
    tw_api_set_error(0, 0, 0, 0, 0x99, nullptr);
    EXPECT_EQ(errorText(), "(0x11:0x0005): 7000 driver message not found\n"
                           "(0x0E:0x0099): 7000 controller message not found");

    tw_api_clear_error();
    tw_api_set_error(0x20008, 0, 0, 0, 0x0001, "opcode 0x1f at byte 0");
    EXPECT_EQ(errorText(), "(0x03:0x0001): Command opcode not recognised opcode 0x1f at byte 0");
    tw_api_set_error(0x20004, 0, 0, 4097, 0x7777, nullptr);
    EXPECT_EQ(errorText(), "(0x06:0x1001): Controller lock held by another caller "
                           "opcode 0x1f at byte 0\n"
                           "(0x03:0x7777): 9000 controller message not found opcode 0x1f at byte 0");

    // Both families since the last clear, or neither: the 9000's texts.
    tw_api_set_error(0x10000, 0, 0, 0, 0, nullptr);
    EXPECT_EQ(errorText().substr(0, 15), "(0x06:0x1001): ");
    tw_api_clear_error();
    tw_api_set_error(TW_ERROR_FLAG_DRIVER, 0, 0, 0x4321, 0, nullptr);
    EXPECT_EQ(errorText(), "(0x06:0x4321): 9000 driver message not found ");
}

TEST_F(TwError, ControllerTextWithoutZeroByteIsBounded) {
    tw_api_set_error(0x20008, 0, 0, 0, 0x0001, nullptr);
    std::memset(tw_api_error.additional_data, 'q', sizeof tw_api_error.additional_data);
    std::string text = errorText();
    EXPECT_EQ(text, "(0x03:0x0001): Command opcode not recognised " + std::string(128, 'q'));
}

} // namespace

namespace {

// Arms a firmware error on the next command of every controller (both
// slots of platform 2 reach the same node, the highest that opens).
void armFirmwareError(sim::SimPlatform& p, uint16_t code, const std::string& text) {
    sim::tw::TwFault fault;
    fault.kind = sim::tw::TwFault::Kind::Firmware;
    fault.times = 1;
    fault.status = code & 0xFF;
    fault.code = code;
    fault.text = text;
    auto& view = sim::tw::twView(p.module());
    const size_t count = view.controllers().size();
    for (size_t i = 0; i < count; ++i) {
        const int index = view.controllers()[i].index;
        ASSERT_TRUE(view.update(index, [&](sim::tw::Controller& c) {
            c.faults.push_back(fault);
            return true;
        }));
    }
}

TEST(TwErrorFromTheController, FirmwareErrorsReadInEachFamilysWords) {
    struct Case {
        int platform;
        const char* expected;
    } cases[] = {
        // The 9000 family gives its code and text; the 7000's record holds 1.
        {9, "(0x03:0x000A): No battery backup unit installed battery missing"},
        {2, "(0x0E:0x0001): Controller refused the command"},
    };
    for (const Case& c : cases) {
        simtest::TempModule m(c.platform, false);
        sim::CreateOptions o;
        o.platform = c.platform;
        o.sectors = simtest::kSectors;
        ASSERT_EQ(sim::createModule(m.dir(), o), "");
        sim::SimPlatform p(m.dir());
        plat::ScopedPlatform scope(p);
        sim::resetTwApi();

        tw_id_list_type list;
        ASSERT_EQ(tw_get_controller_id_list(&list), 0);
        char model[TW_MODEL_SIZE];
        ASSERT_EQ(tw_get_model(list.list[0], model), 0);
        // The compatibility read comes first: the fault meets it, and the
        // read's failure adds API code 71 in front.
        armFirmwareError(p, 0x000A, "battery missing");
        EXPECT_EQ(tw_get_model(list.list[0], model), -1);
        EXPECT_EQ(errorText(), std::string("(0x0B:0x0047): Need to upgrade controller's driver "
                                           "or firmware\n") + c.expected)
            << c.platform;
    }
}

} // namespace

// The event getters over the simulated 9000's queue, and the 7000 without them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tw_fixture.h"

namespace {

using twtest::controllerId;
using twtest::TwModule;

void setEvents(TwModule& t, uint32_t first, int count)
{
    sim::tw::twView(t.p.module()).update(0, [&](sim::tw::Controller& c) {
        c.events.clear();
        for (int i = 0; i < count; ++i) {
            sim::tw::Event e;
            e.sequence = first + uint32_t(i);
            e.time = 1000 + uint32_t(i);
            e.code = uint16_t(10 + i);
            e.severity = uint8_t(1 + i % 4);
            e.text = "event " + std::to_string(first + uint32_t(i));
            c.events.push_back(e);
        }
        return true;
    });
}

TEST(TwEvents, WalkForwardEndsOnCodeZeroAndBackAgain)
{
    TwModule t(9);
    setEvents(t, 1, 4);
    tw_event_info_type e;
    ASSERT_EQ(tw_get_first_event(controllerId(0), &e), 0);
    std::vector<uint32_t> seen;
    for (int guard = 0; e.aen_code != 0 && guard < 20; ++guard) {
        seen.push_back(e.sequence_id);
        ASSERT_EQ(tw_get_next_event(controllerId(0), &e), 0);
    }
    EXPECT_EQ(seen, (std::vector<uint32_t>{1, 2, 3, 4}));
    EXPECT_EQ(e.sequence_id, 0u) << "an end leaves nothing of the last event";

    ASSERT_EQ(tw_get_last_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.sequence_id, 4u);
    EXPECT_EQ(e.aen_code, 13);
    EXPECT_EQ(e.severity, 4);
    EXPECT_EQ(e.time_stamp_sec, 1003u);
    EXPECT_STREQ(e.text, "event 4");
    EXPECT_EQ(e.text_len, 7);
    seen.clear();
    for (int guard = 0; e.aen_code != 0 && guard < 20; ++guard) {
        seen.push_back(e.sequence_id);
        ASSERT_EQ(tw_get_previous_event(controllerId(0), &e), 0);
    }
    EXPECT_EQ(seen, (std::vector<uint32_t>{4, 3, 2, 1}));
}

TEST(TwEvents, DroppedAndEmptyQueuesReadAsCodeZero)
{
    TwModule t(9);
    setEvents(t, 7, 2);
    tw_event_info_type e {};
    e.sequence_id = 7;
    ASSERT_EQ(tw_get_previous_event(controllerId(0), &e), 0) << "6 was overwritten";
    EXPECT_EQ(e.aen_code, 0);
    e.sequence_id = 3;
    ASSERT_EQ(tw_get_next_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.aen_code, 0);
    e.sequence_id = 7;
    ASSERT_EQ(tw_get_next_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.sequence_id, 8u);

    setEvents(t, 1, 0);
    ASSERT_EQ(tw_get_first_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.aen_code, 0);
}

TEST(TwEvents, The7000HandsOutItsAensOnceOldestFirst)
{
    TwModule t(2);
    // Which file answers as controller 0 is the node scan's choice: both alike.
    sim::tw::twView(t.p.module()).update(1, [](sim::tw::Controller& c) {
        c.events.clear();
        return true;
    });
    setEvents(t, 1, 0);
    tw_event_info_type e;
    ASSERT_EQ(tw_get_first_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.aen_code, 0) << "the queue read empty";

    setEvents(t, 3, 2);
    sim::tw::twView(t.p.module()).update(1, [&](sim::tw::Controller& c) {
        c.events = sim::tw::twView(t.p.module()).controllers()[0].events;
        return true;
    });
    ASSERT_EQ(tw_get_first_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.sequence_id, 3u);
    EXPECT_EQ(e.aen_code, 10);
    ASSERT_EQ(tw_get_next_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.sequence_id, 4u);
    ASSERT_EQ(tw_get_next_event(controllerId(0), &e), 0);
    EXPECT_EQ(e.aen_code, 0);

    EXPECT_EQ(tw_get_last_event(controllerId(0), &e), -1);
    tw_api_error_type err;
    tw_get_error_information(&err);
    EXPECT_EQ(err.api_error_code, 2u);
}

} // namespace

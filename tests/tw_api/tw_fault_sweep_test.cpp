// The fault sweep of tw_get_model and tw_set_background_rebuild_rate on both
// families: one run counts the calls on the driver nodes, then each call is
// failed in turn. Every run ends with -1 and the injected error in the
// record (a single EBUSY on the 9000 is retried and succeeds), no node left
// open, and a rate the controller never got unchanged.
#include <cerrno>
#include <cstdio>
#include <set>

#include "tw_fixture.h"

using twtest::controllerId;
using twtest::OpenNodes;
using twtest::TwModule;

namespace {

int run(bool setter, int rate)
{
    if (setter) return tw_set_background_rebuild_rate(controllerId(0), rate);
    char model[TW_MODEL_SIZE];
    return tw_get_model(controllerId(0), model);
}

std::string rateOf(TwModule& t, int family)
{
    return sim::tw::twView(t.p.module()).controllers()[family == 7000 ? 1 : 0].get(
        family == 7000 ? "background-rate" : "rebuild-rate");
}

} // namespace

TEST(TwFaultSweep, EveryDriverCallAndNodeOpenOfAGetterAndASetterFailsCleanly)
{
    int points = 0;
    for (int platform : {9, 2}) {
        const int family = platform == 9 ? 9000 : 7000;
        const std::string nodes = "/dev/tw*";
        for (bool setter : {false, true}) {
            TwModule t(platform);
            OpenNodes watch(t.p);
            plat::ScopedPlatform scope(watch);
            const std::string rate = rateOf(t, family);
            const int other = rate == "4" ? 2 : 4;

            t.p.resetCalls();
            ASSERT_EQ(run(setter, other), 0);
            const uint64_t ioctls = t.p.calls(sim::Op::Ioctl, nodes);
            const uint64_t opens = t.p.calls(sim::Op::Open, nodes);
            ASSERT_EQ(ioctls, 2u) << "the compatibility read and the command";
            ASSERT_EQ(opens, 2u);
            ASSERT_EQ(run(setter, std::stoi(rate)), 0);

            struct Injection {
                sim::Op op;
                uint64_t nth;
                int error;
            };
            std::vector<Injection> injections;
            for (uint64_t n = 1; n <= ioctls; ++n)
                for (int error : {EIO, EINTR, EBUSY})
                    injections.push_back({sim::Op::Ioctl, n, error});
            for (uint64_t n = 1; n <= opens; ++n)
                for (int error : {ENOENT, EACCES})
                    injections.push_back({sim::Op::Open, n, error});

            for (const Injection& in : injections) {
                SCOPED_TRACE(std::string(setter ? "set rate" : "get model") + " family " + std::to_string(family) +
                             " call " + std::to_string(in.nth) + " errno " + std::to_string(in.error));
                ++points;
                t.p.clearFaults();
                t.p.arm(sim::Fault::failing(in.op, nodes, in.nth, in.error));
                tw_api_clear_error();
                const int result = run(setter, other);
                EXPECT_EQ(watch.count(), 0u) << "a node left open";
                if (in.error == EBUSY && family == 9000) {
                    EXPECT_EQ(result, 0) << "a single busy answer is asked again";
                    if (setter) {
                        EXPECT_EQ(rateOf(t, family), std::to_string(other));
                        ASSERT_EQ(run(true, std::stoi(rate)), 0);
                    }
                    continue;
                }
                EXPECT_EQ(result, -1);
                EXPECT_EQ(tw_api_error.os_error_code, uint32_t(in.error));
                EXPECT_TRUE(tw_api_error.valid_error_flags & TW_ERROR_FLAG_OS);
                tw_api_error_type out;
                tw_get_error_information(&out);
                char os[32];
                std::snprintf(os, sizeof os, "(0x09:0x%04X): ", in.error);
                EXPECT_NE(std::string(out.text).find(os + std::string(std::strerror(in.error))), std::string::npos)
                    << out.text;
                if (setter) {
                    EXPECT_EQ(rateOf(t, family), rate) << "the firmware never got the command";
                }
            }
            t.p.clearFaults();
        }
    }
    EXPECT_EQ(points, 4 * (2 * 3 + 2 * 2));
    std::printf("fault sweep: %d injection points\n", points);
}

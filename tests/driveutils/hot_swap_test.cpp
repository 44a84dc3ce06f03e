// A drive swapped on an IDE cable: the bay's lock, the power operations of
// the bus against the chassis controller and the hot-swap driver, and the
// drives, arrays and stamps they leave.
#include "driveutils/hot_swap_fixture.h"

namespace hotswaptest {
namespace {

class HotSwap : public testing::Test {
protected:
    explicit HotSwap(int platform = 1) : temp_(platform, false)
    {
        shelf_ = buildModule(temp_.dir(), platform);
        app_ = std::make_unique<Appliance>(temp_.dir());
    }
    Appliance& app() { return *app_; }

    simtest::TempModule temp_;
    std::map<Shelf, std::string> shelf_;
    std::unique_ptr<Appliance> app_;
};

TEST_F(HotSwap, Smoke)
{
    ASSERT_TRUE(app().started());
    EXPECT_TRUE(app().storeRunning());
    EXPECT_TRUE(app().inRaid(3));
    EXPECT_TRUE(app().inOsMirror(3));
    int rc = app().bus(3)->powerDown(3, false);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(app().waitIdle());
    for (auto& l : app().charonRequests()) std::cout << l.time << " " << l.text << "\n";
    for (auto& l : app().dspCommands()) std::cout << l.time << " " << l.text << "\n";
    std::cout << app().array(1) << " " << app().member(1, 4) << " " << app().member(200, 4) << "\n";
}

} // namespace
} // namespace hotswaptest

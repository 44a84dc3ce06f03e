// Sessions that load the signed modules of a simulated module.
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "corvaneutils/tavmodule.h"
#include "corvaneutils/tavsession.h"
#include "platform/platform.h"
#include "sim/module_signer.h"
#include "sim/sim_fixture.h"
#include "signed_module_fixture.h"

namespace {

class SessionLoad : public SignedModuleTest {
protected:
    void keys() { writeKeys(); }
    void add(const char* built, const std::string& name) { addSigned(built, name); }
};

TEST_F(SessionLoad, KeepsTheGoodModuleAndLeavesTheOthersWithoutTheirKeys)
{
    keys();
    add(SAMPLE_GOOD, "b_good");
    add(SAMPLE_OLD, "a_old");  // registers its key, then fails its version
    add(SAMPLE_NOCLOSE, "c_noclose");
    const int own = TAVSession().getKeyRegistry().GetKeyCount();
    testing::internal::CaptureStderr();
    {
        TAVSession session(nullptr, 1);
        EXPECT_EQ(session.getModuleCount(), 1);
        EXPECT_EQ(session.getKeyRegistry().GetKeyCount(), own + 1);  // the old module's holder left with it
        ASSERT_NE(session.getModule(0), nullptr);
        EXPECT_STREQ(session.getModule(0)->GetInfo(0), "./modules/b_good.module");
        EXPECT_EQ(session.getModule(1), nullptr);
        // Only the loaded module's listener is called: the other's code is gone.
        char buffer[256];
        session.processLocalCorvaneKey("get:/tav/public/test/hello/", buffer, sizeof buffer);
    }
    log_ = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(logged("Load Session....\nLoad Session....Modules\n")) << log_;
    EXPECT_TRUE(logged("About to open: ./modules/a_old.module\n"));
    EXPECT_TRUE(logged("WARNING: Failed to load module ./modules/a_old.module:-1\n"));
    EXPECT_TRUE(logged("Module: ./modules/b_good.module\r\n  Name:    hello\r\n  Vendor:  vendorx\r\n  Version: 6.5.1\r\n"));
    EXPECT_TRUE(logged("WARNING: Failed to load module ./modules/c_noclose.module:-2\n"));
    EXPECT_TRUE(logged("TAVSession :: unloadModules()\nTAVSession :: delete module[0]\n"));
    EXPECT_LT(log_.find("a_old"), log_.find("b_good"));  // in the order of ls
}

TEST_F(SessionLoad, WithoutKeysNothingLoadsAndWithoutModulesNothingIsTried)
{
    add(SAMPLE_GOOD, "good");
    testing::internal::CaptureStderr();
    {
        TAVSession session(nullptr, 1);
        EXPECT_EQ(session.getModuleCount(), 0);
    }
    log_ = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(logged("Warning: key file ./configs/etc/marrowby/module_keys can't be opened to read\n")) << log_;
    EXPECT_TRUE(logged("WARNING: Failed to load module ./modules/good.module:-4\n"));

    // A keys file cut short is caught: nothing leaves the constructor.
    m_.put("./configs/etc/marrowby/module_keys", sim::moduleKeysFile(maker_, vendor_).substr(0, 100));
    testing::internal::CaptureStderr();
    {
        TAVSession session(nullptr, 1);
        EXPECT_EQ(session.getModuleCount(), 0);
    }
    log_ = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(logged("ERROR:  fread of dsa")) << log_;

    std::filesystem::remove(m_.map("./modules/good.module"));
    testing::internal::CaptureStderr();
    {
        TAVSession session(nullptr, 1);
        EXPECT_EQ(session.getModuleCount(), 0);
    }
    log_ = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(logged("About to open")) << log_;
}

TEST_F(SessionLoad, AHundredModulesLoadAndTheNextIsOutOfMemory)
{
    keys();
    const std::string bytes = sim::signModule(readHost(SAMPLE_GOOD), maker_, vendor_, sim::Forge::kNone, nullptr);
    for (int i = 0; i < 101; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "./modules/m%03d.module", i);
        m_.put(name, bytes);
    }
    testing::internal::CaptureStderr();
    {
        TAVSession session(nullptr, 1);
        EXPECT_EQ(session.getModuleCount(), 100);
    }
    log_ = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(logged("Failed to open: ./modules/m100.module : Out of Memory\n"));
    EXPECT_FALSE(logged("Failed to open: ./modules/m099.module"));
    EXPECT_TRUE(logged("TAVSession :: delete module[99]\n"));
}

TEST_F(SessionLoad, VerifiedInOneSessionOpenedUnverifiedInTheNext)
{
    keys();
    add(SAMPLE_GOOD, "good");
    testing::internal::CaptureStderr();
    auto* first = new TAVSession(nullptr, 1);
    EXPECT_EQ(first->getModuleCount(), 1);
    delete first;
    TAVSession second(nullptr, 0);
    EXPECT_EQ(second.getModuleCount(), 1);
    log_ = testing::internal::GetCapturedStderr();
}

TEST_F(SessionLoad, ARemoteUserGetsWhatTheModuleGrants)
{
    keys();
    add(SAMPLE_ACCESS, "access");
    testing::internal::CaptureStderr();
    TAVSession session(nullptr, 1);
    ASSERT_EQ(session.getModuleCount(), 1);
    char buffer[256];
    EXPECT_STREQ(session.processLocalCorvaneKey("get:/tav/public/security/admin/user/access-int/kim/", buffer,
                                                sizeof buffer),
                 "OK:/tav/public/test/hello/:1:");
    session.RegisterUser("kim", false);
    TAVCommand command("get:/tav/public/test/hello/");
    ASSERT_EQ(command.CheckSyntax(), 0);
    session.HandleMessage(&command);
    ASSERT_EQ(command.GetReturnCount(), 1);
    EXPECT_STREQ(command.GetReturnValue(0), "OK:hello");
    log_ = testing::internal::GetCapturedStderr();
}

} // namespace

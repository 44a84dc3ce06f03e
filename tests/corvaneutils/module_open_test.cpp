// Opening and closing signed sample modules in a simulated module.
#include <cerrno>
#include <cstdio>
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

class ModuleOpen : public SignedModuleTest {
protected:
    ModuleOpen()
    {
        writeAndReadKeys();
        sys_ = {kSystemFuncsSize, 1, &session_, nullptr};
    }
    std::string add(const char* built, const std::string& name, sim::Forge forge = sim::Forge::kNone)
    {
        return addSigned(built, name, forge);
    }
    int open(TAVModule& module, const std::string& path, int verify)
    {
        testing::internal::CaptureStderr();
        int rc = module.Open(path.c_str(), &sys_, verify, &tavKey_, &vendorKey_);
        log_ = testing::internal::GetCapturedStderr();
        return rc;
    }
    TAVSession session_;
    system_funcs sys_;
};

TEST_F(ModuleOpen, VerifiedOnceThenOpenedUnverifiedAfterTheFirstIsGone)
{
    const std::string good = add(SAMPLE_GOOD, "good");
    const std::string other = add(SAMPLE_GOOD, "other");
    const int keys = session_.getKeyRegistry().GetKeyCount();
    {
        TAVModule first(nullptr);
        ASSERT_EQ(open(first, good, 1), 0) << log_;
        EXPECT_TRUE(logged("Module ./modules/good.module is certified\n"));
        EXPECT_TRUE(logged("Loading... ./modules/good.module\n"));
        EXPECT_EQ(session_.getKeyRegistry().GetKeyCount(), keys + 1);
        EXPECT_STREQ(first.GetInfo(1), "hello");
        EXPECT_STREQ(first.GetInfo(2), "vendorx");
        EXPECT_STREQ(first.GetInfo(3), "6.5.1");
        EXPECT_EQ(sys_.global, &first);
        testing::internal::CaptureStderr();
        EXPECT_EQ(first.Close(), 0);
        EXPECT_EQ(first.Close(), 0);
        std::string closing = testing::internal::GetCapturedStderr();
        EXPECT_NE(closing.find("LOADER: Closing Module handle [./modules/good.module]\n"
                               "LOADER: ClosedSession Module handle [./modules/good.module]\n"
                               "LOADER: Closing Module handle NOT Necessary [./modules/good.module]\n"),
                  std::string::npos)
            << closing;
    }
    TAVModule second(nullptr);
    EXPECT_EQ(open(second, good, 0), 0) << log_;
    EXPECT_FALSE(logged("certified"));  // no signature read again
    TAVModule never(nullptr);
    EXPECT_EQ(open(never, other, 0), -4);
}

TEST_F(ModuleOpen, ModulesThatDoNotStayGiveTheirCodesAndTexts)
{
    TAVModule noclose(nullptr);
    EXPECT_EQ(open(noclose, add(SAMPLE_NOCLOSE, "noclose"), 1), -2);
    EXPECT_TRUE(logged("LOADER ERROR: ")) << log_;
    EXPECT_TRUE(logged("CloseSession")) << log_;

    TAVModule refuse(nullptr);
    EXPECT_EQ(open(refuse, add(SAMPLE_REFUSE, "refuse"), 1), -1);
    EXPECT_TRUE(logged("LOADER ERROR: Module Refused to Load\n")) << log_;

    TAVModule old(nullptr);
    EXPECT_EQ(open(old, add(SAMPLE_OLD, "old"), 1), -1);
    EXPECT_TRUE(logged("WARNING: version <6.4.2> should be <6.5.x>\n")) << log_;
    EXPECT_TRUE(logged("WARNING: bad version, module vendorx hello:-1\n")) << log_;
    EXPECT_FALSE(TAVModule::isCertified("./modules/old.module"));

    TAVModule noversion(nullptr);
    EXPECT_EQ(open(noversion, add(SAMPLE_NOVERSION, "noversion"), 1), -1);
    EXPECT_TRUE(logged("WARNING: version not supplied, should be <6.5.x>\n")) << log_;

    TAVModule forged(nullptr);
    EXPECT_EQ(open(forged, add(SAMPLE_GOOD, "forged", sim::Forge::kData), 1), -4);
    EXPECT_TRUE(logged("ERROR:  Module signature failed to verify\n")) << log_;
    EXPECT_FALSE(logged("Loading..."));

    // Signed, but outside "./modules": the simulation will not load it.
    m_.put("./configs/stray.module", m_.get(add(SAMPLE_GOOD, "stray")));
    TAVModule stray(nullptr);
    EXPECT_EQ(open(stray, "./configs/stray.module", 1), -1);
    EXPECT_TRUE(logged("LOADER ERROR: refused ./configs/stray.module")) << log_;

    TAVModule none(nullptr);
    EXPECT_EQ(none.Open(nullptr, &sys_, 1, &tavKey_, &vendorKey_), -4);
}

TEST_F(ModuleOpen, StructureMismatchWarnsOnlyWhenBothFieldsChanged)
{
    TAVModule both(nullptr);
    EXPECT_EQ(open(both, add(SAMPLE_MISMATCH2, "both"), 1), 0);
    EXPECT_TRUE(logged("WARNING: Open Session Returned Structure Mismatch:\n"
                       "     Struct_Version: 2 ( Should Be: 1 )\n"
                       "     Struct_Size:    40 ( Should Be: 28 )\n"))
        << log_;
    TAVModule one(nullptr);
    EXPECT_EQ(open(one, add(SAMPLE_MISMATCH1, "one"), 1), 0);
    EXPECT_FALSE(logged("Mismatch")) << log_;
}

} // namespace

namespace {

// Every open and read of the module file fails in turn: each run refuses the
// module with its text, or passes it whole where stdio read the bytes again
// (a failed read-ahead after a seek), and it passes once the fault is gone.
TEST_F(ModuleOpen, FaultSweepAcrossTheReadsOfOneCheck)
{
    const std::string path = add(SAMPLE_GOOD, "swept");
    int points = 0, refused = 0;
    for (sim::Op op : {sim::Op::Open, sim::Op::Read}) {
        for (uint64_t nth = 1;; ++nth) {
            platform_.clearFaults();
            platform_.arm(sim::Fault::failing(op, "/modules/*", nth, EIO));
            TAVModule module(nullptr);
            testing::internal::CaptureStderr();
            int rc = module.CheckSignature(path.c_str(), &tavKey_, &vendorKey_);
            log_ = testing::internal::GetCapturedStderr();
            const bool fired = platform_.faults().empty();
            platform_.clearFaults();
            if (!fired) {
                EXPECT_EQ(rc, 0) << log_;
                break;
            }
            ++points;
            SCOPED_TRACE(std::string(sim::opName(op)) + " " + std::to_string(nth));
            if (rc == 0) {
                EXPECT_TRUE(logged("Module ./modules/swept.module is certified\n")) << log_;
            } else {
                ++refused;
                EXPECT_EQ(rc, -4);
                EXPECT_TRUE(logged("Warning: Module ./modules/swept.module is NOT certified\n")) << log_;
            }
            testing::internal::CaptureStderr();
            EXPECT_EQ(module.CheckSignature(path.c_str(), &tavKey_, &vendorKey_), 0);
            testing::internal::GetCapturedStderr();
        }
    }
    // Two opens (the ELF reader, the check) and the reads of both.
    EXPECT_GE(refused, 4);
    std::printf("fault points covered: %d, refused: %d\n", points, refused);
}

} // namespace

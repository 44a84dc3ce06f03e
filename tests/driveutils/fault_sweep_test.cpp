// A fault at every read, write, lseek, fsync and ioctl of one updatemount
// run on a four-drive module: an error once, an interruption once, and a power
// cut after each write.
#include <cerrno>

#include "driveutils/store_fixture.h"
#include "driveutils/updatemount.h"

namespace storetest {
namespace {

const sim::Op kOps[] = {sim::Op::Read, sim::Op::Write, sim::Op::Lseek, sim::Op::Fsync, sim::Op::Ioctl};
char kName[] = "updatemount", kDrive[] = "2", kMount[] = "1000", kDismount[] = "2000";
char* kArgs[] = {kName, kDrive, kMount, kDismount, nullptr};

// One run in this process with `fault` armed; the count of calls per op.
int runWith(const std::string& dir, const std::optional<sim::Fault>& fault, std::map<sim::Op, uint64_t>* counts = nullptr)
{
    sim::SimPlatform platform(dir);
    platform.clearFaults();
    if (fault) platform.arm(*fault);
    plat::ScopedPlatform scope(platform);
    sim::resetDriveManager();
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    int rc = updatemount(4, kArgs);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    if (counts)
        for (sim::Op op : kOps) (*counts)[op] = platform.calls(op);
    platform.clearFaults();
    return rc;
}

// What a fresh start makes of the module: the good drives and the record of
// drive 2 in memory.
struct FreshRead {
    int good = 0;
    bool haveRecord = false;
    alignas(8) SECT_AUTO_RAID record2{};
    std::vector<SECT_AUTO_RAID> others;
};

FreshRead freshRead(const std::string& dir)
{
    sim::SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    sim::resetDriveManager();
    testing::internal::CaptureStderr();
    TavDriveMgr::init();
    FreshRead out;
    for (int p = 1; p <= 4; ++p) out.good += TavDriveMgr::checkDrive(p) == 0;
    TavDriveMgr::readSignatureIntoMemory();
    testing::internal::GetCapturedStderr();
    if (SECT_AUTO_RAID* r = TavDriveMgr::findDriveDescription(2)) {
        out.haveRecord = true;
        out.record2 = *r;
        for (int p : {1, 3, 4}) out.others.push_back(*TavDriveMgr::findDriveDescription(p));
    }
    sim::resetDriveManager();
    return out;
}

TEST(FaultSweep, EveryCallOfOneRun)
{
    StoreModule m;
    const std::vector<std::string> signedBytes = m.signatureBytes();
    const FreshRead before = freshRead(m.dir());
    ASSERT_EQ(before.good, 4);

    std::map<sim::Op, uint64_t> counts;
    ASSERT_EQ(runWith(m.dir(), std::nullopt, &counts), 0);
    const std::vector<std::string> cleanBytes = m.signatureBytes();
    ASSERT_NE(cleanBytes, signedBytes);
    const FreshRead after = freshRead(m.dir());
    ASSERT_EQ(after.good, 4);
    ASSERT_EQ(after.record2.llLastDismountTime, 2000);

    // A record of drive 2 as one of the two versions, the others untouched.
    auto oneOfTheTwo = [&](const FreshRead& r) {
        if (!r.haveRecord) return false;
        bool oldOne = std::memcmp(&r.record2, &before.record2, sizeof r.record2) == 0;
        bool newOne = std::memcmp(&r.record2, &after.record2, sizeof r.record2) == 0;
        bool others = std::memcmp(r.others.data(), before.others.data(), 3 * sizeof(SECT_AUTO_RAID)) == 0;
        return (oldOne || newOne) && others;
    };

    uint64_t points = 0, runs = 0, spoiled = 0;
    for (sim::Op op : kOps) {
        for (uint64_t n = 1; n <= counts[op]; ++n) {
            SCOPED_TRACE(std::string(sim::opName(op)) + " #" + std::to_string(n));
            ++points;
            m.restoreSignatureBytes(signedBytes);
            EXPECT_EQ(runWith(m.dir(), sim::Fault::failing(op, "*", n, EINTR)), 0);
            EXPECT_TRUE(m.signatureBytes() == cleanBytes) << "an interruption changes nothing written";

            // An error has no rule on what is written: a read error after the
            // stamp comparison leaves the records unread, and the run writes
            // them as they are. Counted, for the record.
            m.restoreSignatureBytes(signedBytes);
            EXPECT_EQ(runWith(m.dir(), sim::Fault::failing(op, "*", n, EIO)), 0);
            if (freshRead(m.dir()).good < 4) ++spoiled;
            runs += 2;

            if (op != sim::Op::Write) continue;
            m.restoreSignatureBytes(signedBytes);
            EXPECT_EQ(runWith(m.dir(), sim::Fault::powerCut("*", n)), 0);
            FreshRead r = freshRead(m.dir());
            EXPECT_EQ(r.good, 4) << "a cut between writes leaves every drive readable";
            EXPECT_TRUE(oneOfTheTwo(r));
            ++runs;
        }
    }
    std::printf("fault sweep: %llu injection points (read %llu, write %llu, lseek %llu, fsync %llu, ioctl %llu), "
                "%llu faulted runs, %llu errors left a drive unreadable\n",
                static_cast<unsigned long long>(points), static_cast<unsigned long long>(counts[sim::Op::Read]),
                static_cast<unsigned long long>(counts[sim::Op::Write]),
                static_cast<unsigned long long>(counts[sim::Op::Lseek]),
                static_cast<unsigned long long>(counts[sim::Op::Fsync]),
                static_cast<unsigned long long>(counts[sim::Op::Ioctl]), static_cast<unsigned long long>(runs),
                static_cast<unsigned long long>(spoiled));
    EXPECT_GT(counts[sim::Op::Write], 50u);
    EXPECT_GT(counts[sim::Op::Fsync], 7u);
}

} // namespace
} // namespace storetest

// updatemount run as a program on a module, its result read back from the
// drive images by the test's own reader.
#include "driveutils/store_fixture.h"
#include "driveutils/updatemount.h"

namespace storetest {
namespace {

// Checks one written copy against the format, byte by byte: header, one
// record per position, one empty device and string table.
void expectWrittenCopy(const RawCopy& c, const std::string& driveSerial, const std::vector<std::string>& serials,
                       const std::string& moduleSerial)
{
    EXPECT_TRUE(c.hashHolds(0)) << "index hash";
    EXPECT_EQ(c.u32(off::numDisk), serials.size());
    EXPECT_EQ(c.u32(off::numDevice), 1u);
    EXPECT_EQ(c.u32(off::numString), 1u);
    EXPECT_EQ(c.text(off::headerSerial, 64), driveSerial);
    EXPECT_TRUE(c.zero(off::headerSerial + driveSerial.size(), 64 - driveSerial.size()));
    EXPECT_TRUE(c.zero(off::headerPad, 412 + 8)) << "pad and llNext";
    for (size_t p = 1; p <= serials.size(); ++p) {
        size_t r = c.record(static_cast<int>(p));
        EXPECT_TRUE(c.zero(r + 16, 96)) << "unique and cpu tags";
        EXPECT_EQ(c.text(r + off::owner, 32), moduleSerial.substr(0, 32));
        EXPECT_EQ(c.u32(r + off::order), p);
        EXPECT_EQ(c.u32(r + off::clean), 0u);
        EXPECT_EQ(c.text(r + off::serial, 64), serials[p - 1]);
        EXPECT_TRUE(c.zero(r + off::recordPad, 280));
    }
    size_t tables = (serials.size() + 1) * 512;
    EXPECT_TRUE(c.zero(tables, 1024)) << "one empty device table and one empty string table";
}

TEST(Updatemount, StampsOneRecordAndWritesTheSameBlockToEveryDrive)
{
    StoreModule m;
    EXPECT_EQ(m.updatemount({"2", "-1", "1000"}), 0);
    std::vector<std::string> serials;
    for (int bay = 1; bay <= 4; ++bay) serials.push_back(m.serial(bay));
    const std::string moduleSerial = m.manifest().moduleSerial;
    for (int bay = 1; bay <= 4; ++bay) {
        SCOPED_TRACE("bay " + std::to_string(bay));
        RawCopy first = m.copy(bay, 0), second = m.copy(bay, 1);
        expectWrittenCopy(first, serials[static_cast<size_t>(bay - 1)], serials, moduleSerial);
        EXPECT_EQ(first.b, second.b) << "both copies alike";
        EXPECT_EQ(first.mountOf(2), kSignTime) << "-1 leaves the mount time";
        EXPECT_EQ(first.dismountOf(2), 1000);
        for (int other : {1, 3, 4}) {
            EXPECT_EQ(first.mountOf(other), kSignTime);
            EXPECT_EQ(first.dismountOf(other), kSignTime);
            EXPECT_TRUE(first.hashHolds(static_cast<size_t>(other)));
        }
        // The stamp leaves the record's own hash stale; nobody checks it.
        EXPECT_FALSE(first.hashHolds(2));
        // Apart from the index sector, every drive carries the same bytes.
        EXPECT_TRUE(std::equal(first.b.begin() + 512, first.b.end(), m.copy(1, 0).b.begin() + 512));
    }
    // The next run reads the stamped block back and the drive is still good.
    EXPECT_EQ(m.updatemount({"2", "1500"}), 0);
    RawCopy after = m.copy(4, 0);
    EXPECT_EQ(after.mountOf(2), 1500);
    EXPECT_EQ(after.dismountOf(2), 1000) << "the dismount time read from disk";
}

TEST(Updatemount, ParsesNumbersAsThe32BitMachineDid)
{
    StoreModule m;
    const std::vector<std::string> before = m.signatureBytes();
    EXPECT_EQ(m.updatemount({"2", "-7"}), 0);
    EXPECT_EQ(m.signatureBytes(), before) << "any negative value leaves the field, as -1 does";

    EXPECT_EQ(m.updatemount({"2x", "1000"}), 0);
    EXPECT_EQ(m.copy(3, 0).mountOf(2), 1000) << "\"2x\" is drive 2";

    EXPECT_EQ(m.updatemount({"3", "3000000000", "99999999999999"}), 0);
    EXPECT_EQ(m.copy(1, 0).mountOf(3), 2147483647);
    EXPECT_EQ(m.copy(1, 0).dismountOf(3), 2147483647);

    EXPECT_EQ(m.updatemount({"4", "abc", "-3000000000"}), 0);
    EXPECT_EQ(m.copy(1, 0).mountOf(4), 0) << "text is 0";
    EXPECT_EQ(m.copy(1, 0).dismountOf(4), kSignTime) << "saturates at the negative limit: left alone";

    EXPECT_EQ(tavStrtol32("  +12abc"), 12);
    EXPECT_EQ(tavStrtol32("-2147483649"), INT32_MIN);
}

TEST(Updatemount, WrongArgumentsPrintTheUsageAfterBringingThePlatformUp)
{
    StoreModule m;
    const std::vector<std::string> before = m.signatureBytes();
    const std::string usageText = "usage:updatemount <drivenum> <mounttime> [<unmounttime>]\n"
                                  "where <drivenum> is 1 to 8\n"
                                  "and <mounttime> and <unmounttime> are numbers.\n"
                                  "use -1 to not set mounttime\n";
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{}, {"2"}, {"2", "1", "2", "3"}, {"0", "5"}, {"5", "5"}, {"99", "5"}, {"-1", "5"}}) {
        testing::internal::CaptureStdout();
        int rc = m.updatemount(args);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, 1) << args.size();
        EXPECT_NE(out.find(usageText), std::string::npos) << out;
        EXPECT_EQ(TavDriveMgr::nDrives, 4) << "init ran first";
    }
    EXPECT_EQ(m.signatureBytes(), before) << "nothing written";

    // The text says 1 to 8 on a two-drive platform, and 3 is refused there.
    StoreModule loam(3);
    testing::internal::CaptureStdout();
    EXPECT_EQ(loam.updatemount({"3", "5"}), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("is 1 to 8"), std::string::npos);
    EXPECT_EQ(loam.updatemount({"2", "5"}), 0);
    EXPECT_EQ(loam.copy(1, 0).mountOf(2), 5);
}

TEST(Updatemount, UnwellDrivesNeverChangeTheStatus)
{
    StoreModule m;
    // Bay 3's index hash is broken: it is not read, but it is written.
    m.poke(3, 0, 100, {0xFF});
    EXPECT_EQ(m.updatemount({"1", "700"}), 0);
    EXPECT_TRUE(m.copy(3, 0).hashHolds(0));
    EXPECT_EQ(m.copy(3, 0).mountOf(1), 700);

    // Nothing readable: every drive that opens gets an empty signature.
    StoreModule blank(1, false);
    EXPECT_EQ(blank.updatemount({"2", "1000", "2000"}), 0);
    RawCopy c = blank.copy(2, 0);
    EXPECT_TRUE(c.hashHolds(0));
    EXPECT_EQ(c.u32(off::numDisk), 0u);
    EXPECT_EQ(c.u32(off::numDevice), 1u);
    EXPECT_EQ(c.u32(off::numString), 1u);

    // All drives missing still exits 0.
    sim::Module mod(m.dir());
    for (int bay = 1; bay <= 4; ++bay) EXPECT_EQ(mod.pull(bay), "");
    EXPECT_EQ(m.updatemount({"2", "1000", "2000"}), 0);
}

TEST(Updatemount, RunsFromTavsimAndShowTellsTheVerdictsAndStamps)
{
    StoreModule m;
    EXPECT_EQ(simtest::callTavsim({"run", m.dir(), "--", "updatemount", "2", "1000", "2000"}), 0);
    std::vector<sim::BayVerdict> verdicts = sim::bayVerdicts(m.dir());
    ASSERT_EQ(verdicts.size(), 4u);
    EXPECT_EQ(sim::formatVerdict(verdicts[1]), "OK 1000 2000");
    EXPECT_EQ(sim::formatVerdict(verdicts[0]), "OK 100 100");

    m.poke(4, 0, 100, {0xFF});
    m.poke(4, 1, 100, {0xFF});
    sim::Module(m.dir()).pull(3);
    verdicts = sim::bayVerdicts(m.dir());
    EXPECT_EQ(verdicts[2].verdict, "-");
    EXPECT_EQ(sim::formatVerdict(verdicts[3]), "FOREIGNUNIT - -") << "hash failure";
}

} // namespace
} // namespace storetest

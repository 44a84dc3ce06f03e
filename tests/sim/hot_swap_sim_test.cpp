// The pieces of the module that drive hot-swap tests lean on: one bay
// partitioned alone, the OS mirror script taking a drive's members out and
// back, a drive as a new one of the product arrives, and the bays' drives
// as the hot-swap driver and the chassis controller's power leave them.
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/hdreg.h>
#include <memory>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "driveutils/tavbus.h"
#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "sim_fixture.h"
#include "sim/ata.h"
#include "sim/charon.h"
#include "sim/dsp.h"
#include "sim/md_kernel.h"
#include "sim/module.h"
#include "sim/product_drive.h"
#include "sim/sign.h"
#include "tavutils/tavdrivesig.h"

using namespace simtest;

namespace {

// The bytes of an image's data extents with their offsets: a sparse image is
// compared without reading its holes.
std::string extents(const std::string& image)
{
    const int fd = ::open(image.c_str(), O_RDONLY);
    if (fd < 0) return "missing";
    std::string out;
    off_t at = 0;
    for (;;) {
        const off_t data = ::lseek(fd, at, SEEK_DATA);
        if (data < 0) break;
        const off_t hole = ::lseek(fd, data, SEEK_HOLE);
        std::string bytes(static_cast<size_t>(hole - data), '\0');
        if (::pread(fd, bytes.data(), bytes.size(), data) != static_cast<ssize_t>(bytes.size())) out += "short read";
        out += std::to_string(data) + ":" + bytes;
        at = hole;
    }
    ::close(fd);
    return out;
}

std::vector<std::string> imagesByBay(const TempModule& m)
{
    std::vector<std::string> out;
    for (const sim::Bay& b : sim::Module(m.dir()).manifest().bays) out.push_back(extents(m.map(b.device)));
    return out;
}

} // namespace

TEST(PartitionOneBay, OnlyThatBaysDriveGetsTheTableAndBadBaysAreRefused)
{
    TempModule m;
    const std::string& d = m.dir();
    const std::vector<std::string> before = imagesByBay(m);
    ASSERT_EQ(before.size(), 4u);

    Captured r = tavsim({"partition", d, "2"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "partitioned bay 2: signature, data, boot, extended, os, os2 and log\n");
    const std::vector<std::string> after = imagesByBay(m);
    for (size_t i : {0u, 2u, 3u}) EXPECT_EQ(after[i], before[i]) << "bay " << i + 1;
    EXPECT_NE(after[1], before[1]);
    Captured shown = tavsim({"show", d, "--partitions"});
    size_t unpartitioned = 0;
    for (size_t at = 0; (at = shown.out.find("no partitions\n", at)) != std::string::npos; ++at) ++unpartitioned;
    EXPECT_EQ(unpartitioned, 3u) << shown.out;
    EXPECT_NE(shown.out.find("\n7       log"), std::string::npos) << shown.out;

    // Partitioning every bay afterwards gives bay 2 the same bytes again.
    ASSERT_EQ(tavsim({"partition", d}).status, 0);
    EXPECT_EQ(imagesByBay(m)[1], after[1]);

    ASSERT_EQ(tavsim({"pull", d, "3"}).status, 0);
    const std::vector<std::string> partitioned = imagesByBay(m);
    struct Case {
        std::string bay;
        int status;
        std::string err;
    };
    for (const Case& c : {Case{"9", 1, "tavsim partition: bay 9: this module has bays 1 to 4\n"},
                          Case{"0", 1, "tavsim partition: bay 0: this module has bays 1 to 4\n"},
                          Case{"3", 1, "tavsim partition: bay 3: empty; no drive to partition\n"},
                          Case{"two", 2, "tavsim partition: bay two: not a decimal number"}}) {
        Captured bad = tavsim({"partition", d, c.bay});
        EXPECT_EQ(bad.status, c.status) << c.bay;
        EXPECT_EQ(bad.err.compare(0, c.err.size(), c.err), 0) << bad.err;
        EXPECT_EQ(bad.out, "");
    }
    EXPECT_EQ(tavsim({"partition", d, "1", "2"}).status, 2);
    EXPECT_EQ(imagesByBay(m), partitioned);
}

namespace {

constexpr const char* kBase4 = "/dev/ide/host0/bus1/target0/lun0/";  // bay 4 of platform 1

std::string osraid(const std::string& words) { return std::string("/etc/marrowby/tav_osraid ") + words; }

// The condition of array `minor` and of its member on bay `bay` ("" when out).
std::pair<std::string, std::string> mirror(const sim::MdState& s, int minor, int bay)
{
    const sim::MdArray* a = s.array(minor);
    if (!a) return {"none", ""};
    std::string member;
    for (const sim::MdMember& x : a->members)
        if (x.bay == bay) member = sim::memberCondition(*a, x, false);
    return {sim::arrayCondition(*a, false), member};
}

// What the system's IDE bus says of the OS mirrors: 1 when both are whole.
int osRaidComplete()
{
    sim::QuietOutput quiet;
    sim::resetDriveManager();
    TavDriveMgr::init();
    const int complete = TavDriveMgr::nBuses > 0 ? TavDriveMgr::buses[0]->osRaidComplete() : -1;
    sim::resetDriveManager();
    return complete;
}

// A module of platform 1 with its data array and both OS mirrors standing.
class OsMirror : public testing::Test {
protected:
    OsMirror()
    {
        for (const std::vector<std::string>& args : {std::vector<std::string>{"partition", m.dir()},
                                                     std::vector<std::string>{"sign", m.dir()},
                                                     std::vector<std::string>{"raid", m.dir(), "--level", "5"}}) {
            Captured r = tavsim(args);
            EXPECT_EQ(r.status, 0) << r.err;
        }
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
    }
    int run(const std::string& words) { return WEXITSTATUS(plat::system(osraid(words).c_str())); }
    sim::MdState md() { return sim::mdState(platform->module()); }

    TempModule m;
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;
};

} // namespace

TEST_F(OsMirror, ADriveLeavesBothMirrorsAndReturnsAsASpareThatResyncs)
{
    using P = std::pair<std::string, std::string>;
    EXPECT_EQ(mirror(md(), 200, 4), P("active", "in-sync"));
    EXPECT_EQ(osRaidComplete(), 1);

    EXPECT_EQ(run(std::string("stop ") + kBase4), 0);
    for (int minor : {200, 201}) EXPECT_EQ(mirror(md(), minor, 4), P("degraded", "")) << minor;
    EXPECT_EQ(md().array(200)->counts().nr, 3);
    EXPECT_EQ(mirror(md(), 1, 4), P("active", "in-sync"));  // the data array is not the script's
    EXPECT_EQ(osRaidComplete(), 0);
    EXPECT_EQ(run(std::string("stop ") + kBase4), 0);        // already out

    EXPECT_EQ(run(std::string("start ") + kBase4), 0);
    for (int minor : {200, 201}) EXPECT_EQ(mirror(md(), minor, 4), P("recovering", "rebuilding")) << minor;
    EXPECT_EQ(run(std::string("start ") + kBase4), 0);       // already in: no second member
    EXPECT_EQ(md().array(200)->counts().nr, 4);
    EXPECT_EQ(osRaidComplete(), 0);
    plat::sleep(2);  // a 1 GiB os partition at 200000 KiB/s takes over 5 s
    EXPECT_EQ(mirror(md(), 200, 4), P("recovering", "rebuilding"));
    plat::sleep(10);
    for (int minor : {200, 201}) EXPECT_EQ(mirror(md(), minor, 4), P("active", "in-sync")) << minor;
    EXPECT_EQ(osRaidComplete(), 1);

    const std::string log = platform->module().readState("commands.log");
    EXPECT_NE(log.find(" system 0 " + osraid("stop ") + kBase4 + "\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" system 0 " + osraid("start ") + kBase4 + "\n"), std::string::npos) << log;
}

TEST_F(OsMirror, APulledDriveIsRemovedAndANewOneInItsBayJoins)
{
    ASSERT_EQ(tavsim({"pull", m.dir(), "4"}).status, 0);
    EXPECT_EQ(mirror(md(), 200, 4), std::make_pair(std::string("degraded"), std::string("faulty")));
    EXPECT_EQ(run(std::string("start ") + kBase4), 1);  // no drive: the faulty member stays out
    EXPECT_EQ(run(std::string("stop ") + kBase4), 0);
    EXPECT_EQ(mirror(md(), 201, 4).second, "");

    ASSERT_EQ(tavsim({"insert", m.dir(), "4"}).status, 0);
    EXPECT_EQ(run(std::string("start ") + kBase4), 1);  // not partitioned yet
    ASSERT_EQ(tavsim({"partition", m.dir(), "4"}).status, 0);
    EXPECT_EQ(run(std::string("start ") + kBase4), 0);
    plat::sleep(20);
    for (int minor : {200, 201}) EXPECT_EQ(mirror(md(), minor, 4).second, "in-sync") << minor;
    EXPECT_EQ(osRaidComplete(), 1);
}

TEST_F(OsMirror, RefusalsAndTheLastMemberOfAMirror)
{
    EXPECT_EQ(run("stop /dev/x/"), 1);
    EXPECT_EQ(run("stop /dev/ide/host0/bus1/target0/lun0"), 1);  // without its slash: no bay
    EXPECT_EQ(run(std::string("restart ") + kBase4), 2);
    EXPECT_EQ(run("stop"), 2);
    EXPECT_EQ(run(std::string("stop ") + kBase4 + " " + kBase4), 2);
    EXPECT_EQ(mirror(md(), 200, 4).second, "in-sync");

    for (const char* base : {"/dev/ide/host0/bus0/target0/lun0/", "/dev/ide/host0/bus0/target1/lun0/",
                             "/dev/ide/host0/bus1/target1/lun0/"})
        EXPECT_EQ(run(std::string("stop ") + base), 0) << base;
    EXPECT_EQ(run(std::string("stop ") + kBase4), 1);
    for (int minor : {200, 201}) EXPECT_EQ(mirror(md(), minor, 4).second, "in-sync") << minor;
    EXPECT_EQ(md().array(201)->counts().nr, 1);
}

TEST(OsMirrorAbsent, AModuleWithoutMirrorsRunsTheScriptHarmlessly)
{
    TempModule m;
    sim::SimPlatform p(m.dir());
    for (const char* verb : {"stop ", "start "})
        EXPECT_EQ(p.system((osraid(verb) + kBase4).c_str()), 0) << verb;
    EXPECT_TRUE(sim::mdState(p.module()).arrays.empty());
}

namespace {

// The drive manager's verdict on the drive of `bay`.
int verdict(const std::string& dir, int bay)
{
    sim::SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    sim::QuietOutput quiet;
    sim::resetDriveManager();
    TavDriveMgr::init();
    const int code = TavDriveMgr::checkDrive(bay);
    sim::resetDriveManager();
    return code;
}

} // namespace

TEST(NewProductDrive, ArrivesPartitionedAndSignedWithNoOwnerSoItsVerdictIsNew)
{
    TempModule m;
    const std::string& d = m.dir();
    ASSERT_EQ(tavsim({"partition", d}).status, 0);
    ASSERT_EQ(tavsim({"sign", d}).status, 0);
    ASSERT_EQ(tavsim({"pull", d, "4"}).status, 0);
    ASSERT_EQ(tavsim({"pull", d, "3"}).status, 0);

    Captured r = tavsim({"insert", d, "4", "--new-product"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.find("inserted a new drive of the product "), 0u) << r.out;
    EXPECT_NE(r.out.find(" into bay 4: partitioned, signed with no owner and order 0\n"), std::string::npos) << r.out;
    ASSERT_EQ(tavsim({"insert", d, "3"}).status, 0);
    ASSERT_EQ(tavsim({"partition", d, "3"}).status, 0);

    EXPECT_EQ(verdict(d, 4), 9);
    EXPECT_EQ(verdict(d, 3), 7);
    EXPECT_EQ(verdict(d, 1), 0);
    Captured shown = tavsim({"show", d, "--signature"});
    EXPECT_NE(shown.out.find(getDriveSignatureText(9)), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find(getDriveSignatureText(7)), std::string::npos) << shown.out;

    // Both copies carry the drive's own serial number in the header.
    const sim::Manifest manifest = sim::Module(d).manifest();
    const std::string serial = manifest.driveInBay(4)->serial;
    const std::string part1 = extents(m.map("/dev/ide/host0/bus1/target0/lun0/disc"));
    const std::string block = sim::newProductSignature(serial);
    EXPECT_EQ(block.compare(28, serial.size() + 1, serial + '\0'), 0);
    EXPECT_EQ(block.compare(512 + 168, serial.size() + 1, serial + '\0'), 0);
    size_t copies = 0;
    for (size_t at = 0; (at = part1.find(block, at)) != std::string::npos; ++at) ++copies;
    EXPECT_EQ(copies, 2u);

    EXPECT_EQ(tavsim({"insert", d, "4", "--new-product"}).status, 1);  // the bay is taken
    ASSERT_EQ(tavsim({"pull", d, "4"}).status, 0);
    Captured shelf = tavsim({"insert", d, "4", serial, "--new-product"});
    EXPECT_EQ(shelf.status, 2);
    EXPECT_EQ(shelf.err.find("tavsim insert: --new-product puts a new drive, not one of the shelf"), 0u) << shelf.err;
}

namespace {

constexpr const char* kDisc4 = "/dev/ide/host0/bus1/target0/lun0/disc";
constexpr uint32_t kWhole = sim::charon::kWholeInterface;

std::string part1(const std::string& disc) { return disc.substr(0, disc.size() - 4) + "part1"; }

// A module whose hot-swap driver and chassis controller are reached through
// the platform. Power masks are the four-bay unit's wire bits: bay 1 0x01,
// 2 0x04, 3 0x08, 4 0x02.
struct Bays {
    TempModule m;
    sim::SimPlatform platform;
    plat::ScopedPlatform scope;
    int charonFd, dspFd;

    explicit Bays(int id = 1)
        : m(id), platform(m.dir()), scope(platform), charonFd(plat::open(sim::kCharonNode, O_RDONLY)),
          dspFd(plat::open(sim::kDspNode, O_RDWR))
    {
    }
    sim::Module& module() { return platform.module(); }
    int charon(unsigned long request, uint32_t interface, uint32_t device = kWhole)
    {
        sim::charon::Record r{interface, device, 0};
        EXPECT_EQ(plat::ioctl(charonFd, request, &r), 0);
        return r.iReturnCode;
    }
    // A power command (4 down, 6 up), then `wait` seconds.
    void power(int command, int powerMask, int clampMask, unsigned wait = 3)
    {
        const uint8_t cmd[10] = {static_cast<uint8_t>(command), static_cast<uint8_t>(powerMask),
                                 static_cast<uint8_t>(clampMask)};
        EXPECT_EQ(plat::write(dspFd, cmd, sizeof cmd), 10);
        plat::sleep(wait);
    }
    // 0, or the errno of a stat of the node, of a read or of a drive request.
    static int statError(const std::string& node)
    {
        struct ::stat st;
        return plat::stat(node.c_str(), &st) == 0 ? 0 : errno;
    }
    static int ioError(int fd)
    {
        char buf[512];
        if (plat::pread(fd, buf, sizeof buf, 0) != sizeof buf) return errno;
        unsigned char flush[4] = {sim::kAtaFlushCache, 0, 0, 0};
        return plat::ioctl(fd, HDIO_DRIVE_CMD, flush) == 0 ? 0 : errno;
    }
    // The kernel found the bay's drive, with this serial number.
    bool foundWithSerial(int bay)
    {
        const sim::Manifest m = module().manifest();
        const sim::Drive* d = m.driveInBay(bay);
        return d && module().discoveredIdentity(bay).find(d->serial) != std::string::npos;
    }
    std::string dspLog() { return module().readState("dsp.log"); }
};

} // namespace

TEST(BayLink, DetachTakesTheNodesAwayAndAttachRescansWithTheTableReadAgain)
{
    Bays u;
    ASSERT_EQ(tavsim({"partition", u.m.dir()}).status, 0);
    const std::string part1Of3 = part1(kDisc3);
    const int open3 = plat::open(kDisc3, O_RDWR);

    EXPECT_EQ(u.charon(sim::charon::kDeactivateIf, 1), 0);
    for (const std::string& node : {std::string(kDisc3), std::string(kDisc4), part1Of3})
        EXPECT_EQ(Bays::statError(node), ENOENT) << node;
    EXPECT_EQ(Bays::statError(kDisc1), 0);  // the other interface stays
    EXPECT_EQ(Bays::ioError(open3), EIO);

    // The table changes while the kernel does not look; the rescan reads it.
    std::fstream image(u.m.map(kDisc3), std::ios::in | std::ios::out | std::ios::binary);
    image.seekp(446).write(std::string(64, '\0').data(), 64).flush();
    EXPECT_EQ(u.charon(sim::charon::kActivateIf, 1), 0);
    EXPECT_EQ(Bays::statError(kDisc3), 0);
    EXPECT_EQ(Bays::statError(part1Of3), ENOENT);
    EXPECT_EQ(Bays::statError(part1(kDisc4)), 0);
    plat::close(open3);

    EXPECT_EQ(u.charon(sim::charon::kDeactivateDev, 1, 0), 0);  // one device alone
    EXPECT_EQ(Bays::statError(kDisc4), ENOENT);
    EXPECT_EQ(Bays::statError(kDisc3), 0);
}

TEST(BayLink, ABayWithoutPowerIsAbsentAfterTheRescanAndANewDriveWaitsForPowerAndAttach)
{
    Bays u;
    // The right order: detach, both down, the partner up, attach.
    EXPECT_EQ(u.charon(sim::charon::kDeactivateIf, 1), 0);
    u.power(4, 0x05, 0x05);
    u.power(6, 0x02, 0x02);
    EXPECT_EQ(u.charon(sim::charon::kActivateIf, 1), 0);
    EXPECT_EQ(Bays::statError(kDisc3), ENOENT);
    EXPECT_TRUE(u.foundWithSerial(4));
    EXPECT_EQ(u.module().discoveredIdentity(3), "");
    EXPECT_EQ(u.charon(sim::charon::kActivateDev, 1, 1), sim::charon::kNoDrive);

    const std::string shown = tavsim({"show", u.m.dir()}).out;
    const size_t row3 = shown.find("\n3    /dev/");
    EXPECT_NE(shown.substr(row3, shown.find('\n', row3 + 1) - row3).find(" off    on     absent "), std::string::npos) << shown;
    const std::string charon = tavsim({"charon", u.m.dir()}).out;
    EXPECT_NE(charon.find("host0/bus1  active  found    absent"), std::string::npos) << charon;

    // A new drive in the bay without power stays away until power and a
    // rescan; the tool makes it ready as on a bench all the same.
    ASSERT_EQ(u.module().pull(3), "");
    const Captured inserted = tavsim({"insert", u.m.dir(), "3", "--new-product"});
    ASSERT_EQ(inserted.status, 0) << inserted.err;
    EXPECT_EQ(Bays::statError(kDisc3), ENOENT);
    u.power(6, 0x0a, 0x0a);
    EXPECT_EQ(Bays::statError(kDisc3), ENOENT);
    EXPECT_EQ(u.charon(sim::charon::kActivateDev, 1, 1), 0);
    EXPECT_EQ(Bays::statError(kDisc3), 0);
    EXPECT_TRUE(u.foundWithSerial(3));
    EXPECT_EQ(Bays::statError(part1(kDisc3)), 0) << "its table, read at the rescan";
    EXPECT_EQ(u.dspLog().find("hazard"), std::string::npos) << u.dspLog();
}

TEST(BayLink, PowerCutUnderAnAttachedInterfaceIsAHazardAndTheDriveForgetsItsSettings)
{
    Bays u;
    u.module().updateManifest([](sim::Manifest& m) {
        for (int bay : {1, 3}) {
            m.driveInBay(bay)->writeCache = false;
            m.driveInBay(bay)->transferMode = 0x42;
        }
        return true;
    });
    const int open3 = plat::open(kDisc3, O_RDONLY);
    // Bays 3 and 4 down under the kernel: the read just after the command's
    // two seconds finds the drive gone, with nothing else asking the DSP.
    u.power(4, 0x05, 0x05, 2);
    EXPECT_EQ(Bays::ioError(open3), EIO);
    plat::close(open3);
    EXPECT_EQ(Bays::statError(kDisc3), 0);  // still found: no rescan yet
    const std::string log = u.dspLog();
    for (const char* line : {"1136073602 hazard: bay 3 lost power while interface 1 is attached\n",
                             "1136073602 hazard: bay 4 lost power while interface 1 is attached\n"})
        EXPECT_NE(log.find(line), std::string::npos) << log;
    const sim::Manifest m = u.module().manifest();
    EXPECT_EQ(std::make_pair(m.driveInBay(3)->writeCache, m.driveInBay(3)->transferMode), std::make_pair(true, -1));
    EXPECT_EQ(std::make_pair(m.driveInBay(1)->writeCache, m.driveInBay(1)->transferMode), std::make_pair(false, 0x42));

    // Cuts asked for by the critical switch, or of a device the kernel no
    // longer has, are no hazard.
    sim::dspSetSwitch(u.module(), 1, true, true);
    u.power(4, 0x04, 0x04);
    EXPECT_EQ(u.charon(sim::charon::kDeactivateDev, 0, 1), 0);
    u.power(4, 0x00, 0x00);
    EXPECT_FALSE(sim::dspState(u.module()).bays[1].powered);  // the due work runs when the DSP is asked
    EXPECT_TRUE(u.module().manifest().driveInBay(1)->writeCache);
    EXPECT_EQ(u.dspLog().rfind("hazard"), log.rfind("hazard")) << u.dspLog();
}

TEST(BayLink, PlatformThreeHasOneDriveOnEachChannel)
{
    Bays u(3);
    EXPECT_EQ(u.charon(sim::charon::kDeactivateIf, 1), 0);
    EXPECT_EQ(Bays::statError(kDisc4), ENOENT);  // bay 2: bus 1, target 0
    EXPECT_EQ(Bays::statError(kDisc1), 0);
    EXPECT_EQ(u.charon(sim::charon::kActivateIf, 1), 0);
    EXPECT_TRUE(u.foundWithSerial(2));
    EXPECT_EQ(u.charon(sim::charon::kActivateDev, 0, 1), sim::charon::kNoDrive);  // no drive on target 1
    EXPECT_EQ(sim::charonState(u.module()).interfaces[1].devices, std::vector<bool>({true, false}));
}

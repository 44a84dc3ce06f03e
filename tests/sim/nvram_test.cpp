// The simulated NVRAM card as the system meets it through the platform: the
// driver's requests, the register page mapped shared, descriptors pushed by
// a register store, the auto copy checked against a reference of its own,
// the faults, and tavsim nvram.
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "sim/nvram.h"
#include "sim_fixture.h"

using namespace simtest;

namespace {

constexpr unsigned long kIntStatus = 0x80044701, kDriverVersion = 0x80044705, kDevices = 0x80044706;
constexpr unsigned long kSetBits = 0x40044708, kClearBits = 0x40044709, kReadEe = 0x8004470b, kWriteEe = 0x4004470c;
constexpr uint32_t kSetup = 0x10;

// ---- references, bit by bit ----

uint32_t refCrc(const uint8_t* p, size_t n, uint32_t seed)
{
    uint32_t r = ~seed;
    for (size_t i = 0; i < n; ++i)
        for (int b = 7; b >= 0; --b) {
            const uint32_t in = (p[i] >> b) & 1u, top = r >> 31;
            r <<= 1;
            if (in ^ top) r ^= 0x04c11db7u;
        }
    return ~r;
}

// Each data bit set toggles its column bits and, for each bit k of its
// line number, line bit 7+2k (k set) or 6+2k (k clear).
uint32_t refEcc(const uint8_t* first)
{
    static const uint8_t cols[6] = {0x55, 0xaa, 0x33, 0xcc, 0x0f, 0xf0};  // ECC bits 0 to 5
    uint32_t e = 0;
    for (unsigned line = 0; line < 256; ++line)
        for (unsigned bit = 0; bit < 8; ++bit) {
            if (!((first[4 * line] >> bit) & 1)) continue;
            for (unsigned c = 0; c < 6; ++c)
                if ((cols[c] >> bit) & 1) e ^= 1u << c;
            for (unsigned k = 0; k < 8; ++k) e ^= 1u << ((line >> k) & 1 ? 7 + 2 * k : 6 + 2 * k);
        }
    return e;
}

uint32_t word(const std::vector<uint8_t>& page, size_t at)
{
    uint32_t v;
    std::memcpy(&v, page.data() + at, 4);
    return v;
}

// A module of platform 6 (identity only), its card open and mapped as the
// system's library maps it: registers, a descriptor area and a host page.
struct Card {
    TempModule m{6, false};
    std::unique_ptr<sim::SimPlatform> platform;
    std::unique_ptr<plat::ScopedPlatform> scope;
    int fd = -1;
    volatile uint32_t* regs = nullptr;
    uint8_t* descr = nullptr;
    uint8_t* host = nullptr;
    uint32_t descrBus = 0, hostBus = 0;

    Card()
    {
        sim::CreateOptions o;
        o.platform = 6;
        o.identityOnly = true;
        EXPECT_EQ(sim::createModule(m.dir(), o), "");
        platform = std::make_unique<sim::SimPlatform>(m.dir());
        scope = std::make_unique<plat::ScopedPlatform>(*platform);
        fd = plat::open(sim::kNvramNode, O_RDWR);
        EXPECT_GE(fd, 0);
        regs = static_cast<volatile uint32_t*>(plat::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        descr = static_cast<uint8_t*>(plat::mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 4096));
        host = static_cast<uint8_t*>(plat::mmap(nullptr, 2112, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 8192));
        EXPECT_NE(static_cast<const volatile void*>(regs), MAP_FAILED);
        EXPECT_NE(static_cast<void*>(descr), MAP_FAILED);
        EXPECT_NE(static_cast<void*>(host), MAP_FAILED);
        std::memcpy(&descrBus, descr, 4);
        std::memcpy(&hostBus, host, 4);
    }
    sim::Module& module() { return platform->module(); }
    uint32_t reg(uint32_t offset) const { return regs[offset / 4]; }
    int setBits(uint32_t bits) { return plat::ioctl(fd, kSetBits, &bits); }
    int clearBits(uint32_t bits) { return plat::ioctl(fd, kClearBits, &bits); }
    uint32_t eeprom(uint32_t address) { return sim::nvramEeprom(module(), address); }

    // Fills and pushes a descriptor; gives its status, or -1 while it has
    // not completed.
    int64_t transfer(uint16_t op, uint64_t src, uint64_t dst, uint32_t len, uint8_t crcType = 0, bool badSum = false)
    {
        std::memset(descr, 0, 64);
        std::memcpy(descr, &op, 2);
        descr[3] = crcType;
        std::memcpy(descr + 4, &len, 4);
        std::memcpy(descr + 8, &src, 8);
        std::memcpy(descr + 16, &dst, 8);
        const uint64_t sum = uint64_t{0xffffffffu} << 32 | (refCrc(descr, 56, 0) ^ (badSum ? 1u : 0u));
        std::memcpy(descr + 56, &sum, 8);
        plat::storeRegister(&regs[0], descrBus);
        uint32_t status, complete;
        std::memcpy(&status, descr + 40, 4);
        std::memcpy(&complete, descr + 44, 4);
        return (complete >> 31) ? int64_t{status & 0xffff} : -1;
    }
};

void fill(uint8_t* p, size_t n, uint8_t seed)
{
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(seed + i * 7);
}

} // namespace

// ---- the auto copy ----

TEST(NvramAutoCopy, PagesCarryDataEccGoodMarkAndTheChainedCrcAndSkipBadBlocks)
{
    Card c;
    sim::Module& mod = c.module();
    sim::nvramBadBlock(mod, 1);
    sim::nvramFill(mod, 42);
    EXPECT_EQ(c.reg(kSetup) & 0x580u, 0x580u);  // refresh, valid, cleared
    EXPECT_EQ(sim::nvramPowerFail(mod), 0u);
    EXPECT_EQ(c.eeprom(24), 2u);
    EXPECT_EQ(c.eeprom(28), 16u);
    EXPECT_EQ(c.eeprom(32), 0u);
    EXPECT_EQ(c.eeprom(36), 3900u);
    EXPECT_EQ(c.eeprom(80), 1u);   // auto_copy_succeeded
    EXPECT_EQ(c.eeprom(116), 1u);  // flash_bad_blocks
    EXPECT_EQ(c.reg(kSetup) & 0x580u, 0u);
    EXPECT_EQ(sim::nvramSdramPage(mod, 511), std::vector<uint8_t>(2048, 0));

    for (uint32_t p = 32; p < 64; ++p) EXPECT_NE(word(sim::nvramFlashPage(mod, p), 2068), 0xffffffffu) << p;
    uint32_t seed = 0;
    for (uint32_t s = 0; s < 512; ++s) {
        const uint32_t f = s < 32 ? s : s + 32;  // block 1 skipped
        const std::vector<uint8_t> page = sim::nvramFlashPage(mod, f);
        for (uint32_t i = 0; i < 2048; i += 97) ASSERT_EQ(page[i], sim::nvramPatternByte(42, s, i)) << s;
        ASSERT_EQ(word(page, 2068), 0xffffffffu) << s;
        seed = refCrc(page.data(), 2048, seed);
        ASSERT_EQ(word(page, 2108), seed) << s;
        for (unsigned g = 0; g < 8; ++g) {
            const uint32_t e = refEcc(page.data() + (g < 4 ? g : 1024 + g - 4));
            const size_t at = g < 4 ? 2048 + g : 2072 + g - 4;
            ASSERT_EQ(uint32_t{page[at]} << 16 | uint32_t{page[at + 4]} << 8 | page[at + 8], e) << s << " group " << g;
        }
        ASSERT_EQ(page[2060], 0xff);
        ASSERT_EQ(page[2100], 0xff);
    }
}

TEST(NvramAutoCopy, FailsOnTooManyBadBlocksALowBatteryAndIsUnnecessaryWithoutSdramData)
{
    Card c;
    sim::Module& mod = c.module();
    EXPECT_EQ(sim::nvramPowerFail(mod), 2u);  // unnecessary: the validity stays empty
    EXPECT_EQ(c.eeprom(24), 4u);
    EXPECT_EQ(c.eeprom(92), 1u);

    sim::nvramUpdate(mod, [](sim::NvramCard& x) { x.setReg(0x20, 3603); });
    sim::nvramFill(mod, 1);
    EXPECT_EQ(sim::nvramPowerFail(mod), 4u);
    EXPECT_EQ(c.eeprom(24), 0u);
    EXPECT_EQ(c.eeprom(76), 1u);  // nvram_power_failed

    sim::nvramUpdate(mod, [](sim::NvramCard& x) { x.setReg(0x20, 3604); });
    for (uint32_t b : {0u, 3u, 5u}) sim::nvramBadBlock(mod, b);
    sim::nvramFill(mod, 1);
    EXPECT_EQ(sim::nvramPowerFail(mod), 1u);
    EXPECT_EQ(c.eeprom(24), 0u);
    EXPECT_EQ(c.eeprom(84), 2u);  // auto_copy_failed
}

TEST(NvramAutoCopy, SetupBit17RunsItAndAPowerCycleLosesSdram)
{
    Card c;
    sim::nvramFill(c.module(), 3);
    ASSERT_EQ(c.setBits(1u << 17), 0);
    EXPECT_EQ(c.eeprom(24), 2u);
    EXPECT_EQ(c.eeprom(60), 1u);  // simulated_pci_power_down
    EXPECT_EQ(c.reg(kSetup), 4u);

    sim::nvramFill(c.module(), 3);
    sim::nvramPowerCycle(c.module());
    EXPECT_EQ(c.reg(kSetup) & 0x580u, 0u);
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults.sdramLost = true; });
    sim::nvramFill(c.module(), 3);
    sim::nvramPowerCycle(c.module());
    EXPECT_EQ(c.reg(kSetup) & 0x580u, 0x100u);  // "valid data in sdram lost" at the next open
}

// ---- descriptors ----

TEST(NvramDescriptor, MovesBytesBetweenHostSdramAndFlashAndSetsComplete)
{
    Card c;
    fill(c.host, 2112, 9);
    const std::vector<uint8_t> sent(c.host, c.host + 2112);
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 2048 * 511, 2112), 0);  // the last page and its spare
    EXPECT_EQ(c.reg(0x30) & (1u << 16), 1u << 16);
    EXPECT_EQ(c.transfer(0x42, 2048 * 511, 2048 * 7, 2112), 0);
    EXPECT_EQ(sim::nvramFlashPage(c.module(), 7), sent);
    std::memset(c.host, 0, 2112);
    EXPECT_EQ(c.transfer(0x24, 2048 * 7, 2048 * 3, 2112), 0);
    EXPECT_EQ(c.transfer(0x12, 2048 * 3, c.hostBus, 2112), 0);
    EXPECT_EQ(std::vector<uint8_t>(c.host, c.host + 2112), sent);
}

TEST(NvramDescriptor, ErrorsForChecksumOpCrcTypeSourceAndDestination)
{
    Card c;
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 0, 64, 0, true), 1);
    EXPECT_EQ(c.eeprom(48), 1u);
    EXPECT_EQ(c.transfer(0x14, 0, c.hostBus, 64), 2);
    EXPECT_EQ(c.transfer(0x41, c.hostBus, 0, 64), 2);
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 0, 64, 1), 16);
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 0, 2113), 4);                  // past the host page
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 512 * 2048 + 1, 64), 8);       // past SDRAM's spare tail
    EXPECT_EQ(c.transfer(0x12, 0, c.hostBus + 4096, 4), 8);              // no area there
    EXPECT_EQ(c.transfer(0x42, 0, 2048 * 1024, 64), 8);                  // past the last flash page
    EXPECT_EQ(c.transfer(0x24, 2048 * 5 + 100, 0, 2100), 4);             // across a flash page's end
    EXPECT_EQ(c.eeprom(52), 8u);  // descriptor_failed
}

TEST(NvramDescriptor, UnknownAddressHaltTransferFaultsAndFlashReadFaults)
{
    Card c;
    plat::storeRegister(&c.regs[0], 0x7ff00000);
    EXPECT_EQ(c.eeprom(52), 1u);

    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults.transferError = 32; });
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 0, 64), 32);
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults = {}; x.faults.transferHang = true; });
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 0, 64), -1);
    EXPECT_EQ(c.reg(0x50), 1u);
    EXPECT_TRUE(c.reg(kSetup) & (1u << 28));
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults = {}; x.faults.halted = true; });
    EXPECT_EQ(c.reg(kSetup) & 4u, 0u);
    EXPECT_EQ(c.reg(0x50), 0u);
    EXPECT_EQ(c.setBits(4), 0);
    EXPECT_EQ(c.reg(kSetup) & 4u, 0u);
    EXPECT_EQ(c.transfer(0x21, c.hostBus, 0, 64), -1);

    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) {
        x.faults = {};
        x.faults.flips.push_back({4, 10, 3, false});
        x.faults.badPages.insert(4);
    });
    ASSERT_EQ(c.setBits(4), 0);
    sim::nvramWriteFlash(c.module(), 4, 2068, {0xff, 0xff, 0xff, 0xff});
    EXPECT_EQ(c.transfer(0x24, 2048 * 4, 0, 2112), 0);
    EXPECT_EQ(sim::nvramSdramPage(c.module(), 0)[10], 8);
    EXPECT_EQ(c.transfer(0x24, 2048 * 4, 0, 2112), 0);
    EXPECT_EQ(sim::nvramSdramPage(c.module(), 0)[10], 0);  // once only
    EXPECT_EQ(c.transfer(0x12, 2068, c.hostBus, 4), 0);
    EXPECT_EQ(word(std::vector<uint8_t>(c.host, c.host + 4), 0), 0u);  // the bad page's mark
}

// ---- the driver ----

TEST(NvramDriver, AnswersItsRequestsAndRefusesBadEepromAddresses)
{
    Card c;
    struct stat st {};
    ASSERT_EQ(plat::stat(sim::kNvramNode, &st), 0);
    EXPECT_EQ(st.st_rdev, gnu_dev_makedev(241, 0));
    uint32_t v = 0;
    EXPECT_EQ(plat::ioctl(c.fd, kDriverVersion, &v), 0);
    EXPECT_EQ(v, 0x00020016u);
    EXPECT_EQ(plat::ioctl(c.fd, kDevices, &v), 0);
    EXPECT_EQ(v, 1u);

    struct { uint32_t address, value; } pair{24, 0};
    EXPECT_EQ(plat::ioctl(c.fd, kReadEe, &pair), 0);
    EXPECT_EQ(pair.value, 4u);
    for (uint32_t bad : {512u, 510u, 2u, 0xfffffffcu}) {
        pair.address = bad;
        errno = 0;
        EXPECT_EQ(plat::ioctl(c.fd, kReadEe, &pair), -1) << bad;
        EXPECT_EQ(errno, EINVAL);
    }
    pair = {508, 0x80000001};
    EXPECT_EQ(plat::ioctl(c.fd, kWriteEe, &pair), 0);
    EXPECT_EQ(c.eeprom(508), 1u);  // a written word has good parity

    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) {
        x.setWord(100, 0x80000007);
        x.faults.stuck.insert(104);
    });
    pair = {100, 0};
    EXPECT_EQ(plat::ioctl(c.fd, kReadEe, &pair), 0);
    EXPECT_EQ(pair.value, 0x80000007u);
    pair = {104, 5};
    EXPECT_EQ(plat::ioctl(c.fd, kWriteEe, &pair), 0);
    EXPECT_EQ(c.eeprom(104), 0u);
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults.eepromTimeout = true; });
    EXPECT_EQ(plat::ioctl(c.fd, kReadEe, &pair), 22);
}

TEST(NvramDriver, SetupBitsPulseStartRefreshAndKeepTheCardsStatus)
{
    Card c;
    ASSERT_EQ(c.setBits(0x41003 | (1u << 6) | (1u << 5)), 0);
    EXPECT_EQ(c.reg(kSetup), 0xa4u);  // run, write enable, refresh
    ASSERT_EQ(c.clearBits(0xa0u | (1u << 31)), 0);
    EXPECT_EQ(c.reg(kSetup), 0x84u);  // refresh is the card's to say
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) {
        x.faults.autoCopy = x.faults.slot33 = x.faults.refreshNeverStarts = true;
    });
    EXPECT_EQ(c.reg(kSetup), 0x84u | (1u << 31) | (1u << 26));
    ASSERT_EQ(c.clearBits(0x80020000u), 0);
    EXPECT_TRUE(c.reg(kSetup) & (1u << 31));
    sim::nvramPowerCycle(c.module());
    ASSERT_EQ(c.setBits(1u << 6), 0);
    EXPECT_EQ(c.reg(kSetup) & 0xc0u, 0u);
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults = {}; });
    EXPECT_EQ(c.reg(kSetup), 4u);

    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.setReg(0x30, 0x10001); });
    uint32_t v = 0;
    EXPECT_EQ(plat::ioctl(c.fd, kIntStatus, &v), 0);
    EXPECT_EQ(v, 0x10001u);
    EXPECT_EQ(c.reg(0x30), 0u);
}

TEST(NvramDriver, TheRegisterPageIsSharedWithAnotherProcessAndReadOnlyInMonitorMode)
{
    Card c;
    sim::SimPlatform other(c.m.dir());
    {
        plat::ScopedPlatform scope(other);
        const int fd = plat::open(sim::kNvramNode, O_RDONLY);
        ASSERT_GE(fd, 0);
        errno = 0;
        EXPECT_EQ(plat::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0), MAP_FAILED);
        EXPECT_EQ(errno, EACCES);
        auto* ro = static_cast<const volatile uint32_t*>(plat::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
        ASSERT_NE(static_cast<const volatile void*>(ro), MAP_FAILED);
        EXPECT_EQ(ro[0x70 / 4], 0x00050100u);
        uint32_t bits = 1u << 5;
        EXPECT_EQ(plat::ioctl(fd, kSetBits, &bits), 0);  // the driver does not check the mode
        EXPECT_EQ(c.reg(kSetup), 0x24u);
        plat::storeRegister(&c.regs[0xb0 / 4], 77);   // the first process's store
        EXPECT_EQ(ro[0xb0 / 4], 77u);
        errno = 0;
        EXPECT_EQ(plat::mmap(nullptr, (1 << 20) + 1, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 8192), MAP_FAILED);
        EXPECT_EQ(errno, ENOMEM);
        void* page = plat::mmap(nullptr, 2112, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 8192);
        uint32_t bus = 0;
        std::memcpy(&bus, page, 4);
        EXPECT_NE(bus, 0u);
        EXPECT_EQ(plat::munmap(page, 2112), 0);
        EXPECT_EQ(plat::munmap(const_cast<uint32_t*>(ro), 4096), 0);
        plat::close(fd);
    }
    // Bus addresses of live areas differ; one released is not found again.
    EXPECT_NE(c.descrBus, c.hostBus);
    ASSERT_EQ(plat::munmap(c.host, 2112), 0);
    EXPECT_EQ(c.transfer(0x12, 0, c.hostBus, 4), 8);
}

TEST(NvramDriver, PromDownloadNeedsPromModeAFileAndGivesTheFaultsAnswer)
{
    Card c;
    c.m.put("/etc/prom.xsvf", "x");
    EXPECT_EQ(plat::nvramPromDownload(c.fd, "/etc/prom.xsvf"), 3);
    ASSERT_EQ(c.setBits(1u << 24), 0);
    EXPECT_EQ(plat::nvramPromDownload(c.fd, "/etc/none.xsvf"), 1);
    EXPECT_EQ(plat::nvramPromDownload(c.fd, "/etc/prom.xsvf"), 0);
    sim::nvramUpdate(c.module(), [](sim::NvramCard& x) { x.faults.prom = 112, x.faults.promOnce = true; });
    EXPECT_EQ(plat::nvramPromDownload(c.fd, "/etc/prom.xsvf"), 112);
    EXPECT_EQ(plat::nvramPromDownload(c.fd, "/etc/prom.xsvf"), 0);
}

// ---- module creation and tavsim ----

TEST(NvramTavsim, PlatformsTwoAndSixRequireTheirOwnCardOthersHaveNone)
{
    for (int id : {2, 6, 1}) {
        TempModule m(id, id == 1);
        if (id != 1) {
            EXPECT_EQ(tavsim({"create", m.dir(), "--platform", std::to_string(id), "--no-drives"}).status, 0);
        }
        sim::Module mod(m.dir());
        EXPECT_EQ(sim::nvramPresent(mod), id != 1) << id;
        EXPECT_EQ(m.get("/etc/marrowby/hwlist.conf"), id == 1 ? "" : "PCI:NVRAM:rqdc:23063\n") << id;
    }
}

TEST(NvramTavsim, AddShowSetFaultFillAndPowerfail)
{
    TempModule m(1);
    const std::string d = m.dir();
    Captured c = tavsim({"nvram", d, "show"});
    EXPECT_EQ(c.status, 1);
    EXPECT_NE(c.err.find("has no NVRAM card"), std::string::npos);
    EXPECT_EQ(tavsim({"nvram", d, "add", "--sdram-pages", "100"}).status, 2);  // 32 does not divide 100
    c = tavsim({"nvram", d, "add", "--sdram-pages", "64", "--flash-pages", "256", "--serial", "0x1234"});
    EXPECT_EQ(c.status, 0) << c.err;
    EXPECT_EQ(tavsim({"nvram", d, "add"}).status, 1);

    EXPECT_EQ(tavsim({"nvram", d, "set", "battery=100", "eeprom.200=0x80000003", "validity=flash"}).status, 0);
    EXPECT_EQ(tavsim({"nvram", d, "set", "eeprom.201=1"}).status, 2);
    EXPECT_EQ(tavsim({"nvram", d, "set", "nosuch=1"}).status, 2);
    EXPECT_EQ(tavsim({"nvram", d, "fault", "flip", "3", "2112", "0"}).status, 2);
    EXPECT_EQ(tavsim({"nvram", d, "fault", "halted"}).status, 0);
    c = tavsim({"nvram", d, "show"});
    EXPECT_EQ(c.status, 0);
    EXPECT_NE(c.out.find("serial 4660 (0x1234)"), std::string::npos);
    EXPECT_NE(c.out.find("validity flash"), std::string::npos);
    EXPECT_NE(c.out.find("setup              0x10    0x00000000  HALTED"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("sdram_refresh_failed       176      0      ok"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("faults: halted and parity 200"), std::string::npos) << c.out;
    EXPECT_EQ(tavsim({"nvram", d, "fault", "clear"}).status, 0);
    EXPECT_EQ(tavsim({"nvram", d, "set", "battery=3900"}).status, 0);

    EXPECT_EQ(tavsim({"nvram", d, "fill", "--pattern", "0x5a"}).status, 0);
    c = tavsim({"nvram", d, "powerfail"});
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out, "auto copy done: 2 blocks written to flash; validity flash (result flags 0x00000000); SDRAM lost\n");
    sim::Module mod(d);
    EXPECT_EQ(sim::nvramFlashPage(mod, 63)[2047], 0x5a);
    c = tavsim({"nvram", d, "show", "--json"});
    EXPECT_NE(c.out.find("\"validity\": \"flash\""), std::string::npos);
    c = tavsim({"nvram", d, "fault", "--help"});
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out.rfind("usage: tavsim nvram DIR fault", 0), 0u);
}

// The system's own recovery and card class, run from the shell.
TEST(NvramTavsim, RecoverAndStatusRunTheSystemsLibrary)
{
    TempModule m(6, false);
    const std::string d = m.dir();
    ASSERT_EQ(tavsim({"create", d, "--platform", "6", "--no-drives"}).status, 0);
    ASSERT_EQ(tavsim({"nvram", d, "fill", "--seed", "4"}).status, 0);
    ASSERT_EQ(tavsim({"nvram", d, "powerfail"}).status, 0);
    Captured c = tavsim({"nvram", d, "recover"});
    EXPECT_EQ(c.status, 0) << c.err;
    EXPECT_NE(c.out.find("STATE CHANGE from flash to sdram\nrecovery: SUCCESS\nrecovered; validity sdram\n"),
              std::string::npos) << c.out;
    sim::Module mod(d);
    EXPECT_EQ(sim::nvramSdramPage(mod, 511)[100], sim::nvramPatternByte(4, 511, 100));

    c = tavsim({"nvram", d, "status"});
    EXPECT_EQ(c.status, 0);
    EXPECT_NE(c.out.find("model       Marrowby Networks RQDC Card\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("validity    sdram\nstate       normal\n"), std::string::npos) << c.out;
    EXPECT_EQ(tavsim({"nvram", d, "recover"}).status, 1);  // nothing in flash to bring back

    // SDRAM lost while it held the data: the library stops the process.
    ASSERT_EQ(tavsim({"nvram", d, "fault", "sdram-lost"}).status, 0);
    ASSERT_EQ(tavsim({"nvram", d, "power-cycle"}).status, 0);
    c = tavsim({"nvram", d, "recover"});
    EXPECT_EQ(c.status, 1);
    EXPECT_NE(c.out.find("valid data in sdram lost\n"), std::string::npos) << c.out;
    EXPECT_NE(c.err.find("the library stopped the process (signal 6); validity invalid"), std::string::npos) << c.err;
}

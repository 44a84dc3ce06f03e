// A small simulated module made ready for signatures, the updatemount program
// run on it, and a reader of the drive images that knows the signature layout
// by its own offsets (not the system's records) and checks hashes with Nettle.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nettle/md2.h>

#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "sim/create.h"
#include "sim/programs.h"
#include "sim/sign.h"
#include "sim/sim_fixture.h"
#include "sim/sim_platform.h"
#include "tavutils/tavdrivesig.h"

namespace storetest {

// Small sparse drives with the families' table on small partitions.
constexpr uint64_t kSmallSectors = 65536;
constexpr int64_t kSignTime = 100;

// Byte offsets of the layout, as the format gives them.
constexpr uint64_t kSignatureStart = 512;          // part1 starts at sector 1
constexpr uint64_t kSecondCopy = 524288;
namespace off {
constexpr size_t hash = 0, numDisk = 16, numDevice = 20, numString = 24, headerSerial = 28, headerPad = 92,
                 llNext = 504;
constexpr size_t owner = 112, mount = 144, dismount = 152, order = 160, clean = 164, serial = 168, recordPad = 232;
} // namespace off

inline std::string md2(const uint8_t* data, size_t size)
{
    md2_ctx ctx;
    md2_init(&ctx);
    md2_update(&ctx, size, data);
    uint8_t digest[MD2_DIGEST_SIZE];
    md2_digest(&ctx, sizeof digest, digest);
    return std::string(reinterpret_cast<char*>(digest), sizeof digest);
}

// One signature copy as raw bytes, read from a drive image.
struct RawCopy {
    std::vector<uint8_t> b;

    uint32_t u32(size_t at) const
    {
        return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 | uint32_t(b[at + 3]) << 24;
    }
    int64_t s64(size_t at) const
    {
        uint64_t v = 0;
        for (int i = 7; i >= 0; --i) v = v << 8 | b[at + static_cast<size_t>(i)];
        return static_cast<int64_t>(v);
    }
    std::string text(size_t at, size_t max) const
    {
        std::string s(reinterpret_cast<const char*>(&b[at]), max);
        return s.substr(0, s.find('\0'));
    }
    bool zero(size_t at, size_t size) const
    {
        for (size_t i = 0; i < size; ++i)
            if (b[at + i]) return false;
        return true;
    }
    bool hashHolds(size_t sector) const
    {
        const uint8_t* s = &b[sector * 512];
        return md2(s + 16, 496) == std::string(reinterpret_cast<const char*>(s), 16);
    }
    size_t record(int position) const { return static_cast<size_t>(position) * 512; }
    int64_t mountOf(int position) const { return s64(record(position) + off::mount); }
    int64_t dismountOf(int position) const { return s64(record(position) + off::dismount); }
};

class StoreModule {
public:
    explicit StoreModule(int platform = 1, bool sign = true) : temp_(platform, false)
    {
        sim::CreateOptions options;
        options.platform = platform;
        options.sectors = kSmallSectors;
        EXPECT_EQ(sim::createModule(temp_.dir(), options), "");
        {
            sim::SimPlatform p(temp_.dir());
            plat::ScopedPlatform scope(p);
            for (const sim::Bay& bay : p.module().manifest().bays) {
                EXPECT_EQ(buildPartitions(bay.device.c_str(), 2048, 2048, 0, 2048, 20480, false), 0);
            }
        }
        if (sign) {
            EXPECT_EQ(sim::signModule(temp_.dir(), kSignTime), "");
        }
    }

    const std::string& dir() const { return temp_.dir(); }
    simtest::TempModule& temp() { return temp_; }
    sim::Manifest manifest() { return sim::Module(dir()).manifest(); }
    std::string image(int bay) { return dir() + manifest().bay(bay)->device; }
    std::string serial(int bay) { return manifest().driveInBay(bay)->serial; }

    int updatemount(std::vector<std::string> args)
    {
        args.insert(args.begin(), "updatemount");
        return sim::runProgram(dir(), args);
    }

    // `sectors` sectors of a copy (0 the first, 1 the second) on a bay's drive.
    RawCopy copy(int bay, int which, size_t sectors = 8)
    {
        RawCopy c;
        c.b.resize(sectors * 512);
        std::ifstream in(image(bay), std::ios::binary);
        in.seekg(static_cast<std::streamoff>(kSignatureStart + (which ? kSecondCopy : 0)));
        in.read(reinterpret_cast<char*>(c.b.data()), static_cast<std::streamsize>(c.b.size()));
        return c;
    }
    // The whole signature partition of every bay, for before/after comparisons.
    std::vector<std::string> signatureBytes()
    {
        std::vector<std::string> out;
        for (const sim::Bay& bay : manifest().bays) {
            std::string bytes(2049 * 512, '\0');
            std::ifstream in(dir() + bay.device, std::ios::binary);
            in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            out.push_back(bytes);
        }
        return out;
    }
    void restoreSignatureBytes(const std::vector<std::string>& saved)
    {
        sim::Manifest m = manifest();
        for (size_t i = 0; i < saved.size(); ++i) {
            std::fstream outFile(dir() + m.bays[i].device, std::ios::binary | std::ios::in | std::ios::out);
            outFile.write(saved[i].data(), static_cast<std::streamsize>(saved[i].size()));
        }
    }
    // Overwrites bytes of a bay's first or second copy.
    void poke(int bay, int which, size_t at, const std::vector<uint8_t>& bytes)
    {
        std::fstream f(image(bay), std::ios::binary | std::ios::in | std::ios::out);
        f.seekp(static_cast<std::streamoff>(kSignatureStart + (which ? kSecondCopy : 0) + at));
        f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

    // Puts the MD2 of a copy's index sector back in place.
    void rehash(int bay, int which)
    {
        RawCopy c = copy(bay, which, 1);
        std::string h = md2(c.b.data() + 16, 496);
        poke(bay, which, 0, std::vector<uint8_t>(h.begin(), h.end()));
    }

private:
    simtest::TempModule temp_;
};

// A signed module with the drive manager brought up on it in this process.
class ManagerTest : public testing::Test {
protected:
    ManagerTest() : platform_(m_.dir()), scope_(platform_)
    {
        sim::resetDriveManager();
        TavDriveMgr::init();
    }
    ~ManagerTest() override { sim::resetDriveManager(); }

    StoreModule m_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
};

} // namespace storetest

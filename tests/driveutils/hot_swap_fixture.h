// A 1U module with md RAID 5 over four signed drives and both OS mirrors,
// the store running as a script daemon, and the system brought up on it in
// this process with the chassis controller's link running. Drives a bay
// change might meet wait on the shelf: a new drive of the product, one only
// partitioned, one of another module, one with a damaged signature, and a
// blank one.
#pragma once

#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "driveutils/drive_fixture.h"
#include "driveutils/dsp/tavdsp.h"
#include "driveutils/dsp/tavdspdiskstatus.h"
#include "driveutils/ondraComm.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/ondraProcess.h"
#include "driveutils/store_fixture.h"
#include "driveutils/tav_ide_bus.h"
#include "driveutils/tavdrivemgr.h"
#include "sim/charon.h"
#include "sim/daemons.h"
#include "sim/dsp.h"
#include "sim/md_kernel.h"
#include "sim/product_drive.h"
#include "sim/raid.h"
#include "sim/sim_platform.h"

namespace hotswaptest {

using storetest::RawCopy;

inline const char* const kDataDirs[3] = {"/var/ondra/store", "/var/ondra/vmgr", "/var/ondra/mgr"};
constexpr int kDataMd = 1;

// The drives waiting on the shelf, by what they hold.
enum class Shelf { NewProduct, PartitionedOnly, Foreign, Damaged, Blank };

// Lays a module out in `dir` (which must exist and be empty): drives
// partitioned, the shelf drives prepared in bay 3 while it is free, then the
// four drives signed, the data array and OS mirrors made and the daemons
// installed. Gives the shelf drives' serial numbers.
inline std::map<Shelf, std::string> buildModule(const std::string& dir, int platform, bool withShelf = true)
{
    std::map<Shelf, std::string> shelf;
    sim::CreateOptions options;
    options.platform = platform;
    options.sectors = storetest::kSmallSectors;
    EXPECT_EQ(sim::createModule(dir, options), "");
    sim::Module control(dir);
    auto partition = [&](int bay) {
        sim::SimPlatform p(dir);
        plat::ScopedPlatform scope(p);
        EXPECT_EQ(buildPartitions(control.manifest().bay(bay)->device.c_str(), 2048, 2048, 0, 2048, 20480, false), 0);
    };
    for (const sim::Bay& bay : control.manifest().bays) partition(bay.number);

    const std::string own3 = control.manifest().driveInBay(3)->serial;
    EXPECT_EQ(control.pull(3), "");
    std::vector<Shelf> kinds{Shelf::NewProduct, Shelf::PartitionedOnly, Shelf::Foreign, Shelf::Damaged, Shelf::Blank};
    if (!withShelf) kinds.clear();
    for (Shelf kind : kinds) {
        EXPECT_EQ(control.insert(3, ""), "");
        const std::string serial = control.manifest().driveInBay(3)->serial;
        const std::string image = dir + control.manifest().bay(3)->device;
        if (kind != Shelf::Blank) partition(3);
        if (kind == Shelf::NewProduct) {
            EXPECT_EQ(sim::signAsNewProduct(control, 3), "");
        }
        if (kind == Shelf::Foreign || kind == Shelf::Damaged) {
            std::string block = sim::newProductSignature(serial);
            if (kind == Shelf::Foreign) {
                // A drive of another module, at position 3 there: an owner and an order.
                drivetest::Block b;
                b.records.resize(3);
                b.records[2] = drivetest::record(serial, "OTHERMODULE01", 3, 100);
                const std::vector<unsigned char> bytes = b.bytes(serial);
                block.assign(bytes.begin(), bytes.end());
            } else {
                block.replace(200, 40, std::string(40, '\x5a'));  // the hash no longer holds
            }
            std::fstream f(image, std::ios::binary | std::ios::in | std::ios::out);
            for (uint64_t at : {storetest::kSignatureStart, storetest::kSignatureStart + storetest::kSecondCopy}) {
                f.seekp(static_cast<std::streamoff>(at));
                f.write(block.data(), static_cast<std::streamsize>(block.size()));
            }
        }
        EXPECT_EQ(control.pull(3), "");
        shelf[kind] = serial;
    }
    EXPECT_EQ(control.insert(3, own3), "");

    EXPECT_EQ(sim::signModule(dir, storetest::kSignTime), "");
    sim::RaidResult result;
    EXPECT_EQ(sim::configureRaid(dir, sim::RaidOptions{}, result), "");
    EXPECT_EQ(result.osMirrors.size(), 2u);
    sim::installDaemons(control);
    return shelf;
}

// The scope of the system's platform, reachable to the end of the process
// for the leak check too: a plain pointer, which nothing destroys at exit.
inline plat::ScopedPlatform* gKeptScope = nullptr;

// The system on a module, in this process: the drive manager, the store,
// and the chassis controller's link. The link's threads never end, so the
// platform is left to the end of the process and the scheduler parked when
// the object goes.
class Appliance {
public:
    explicit Appliance(const std::string& dir) : dir_(dir), control_(dir)
    {
        platform_ = new sim::SimPlatform(dir);
        scope_ = new plat::ScopedPlatform(*platform_);
        gKeptScope = scope_;
        for (int type = 0; type < 3; ++type) setDataPath(kDataDirs[type], type);
        sim::resetDriveManager();
        TavDriveMgr::init();
        TavDriveMgr::readSignatureIntoMemory();

        TavOndraComm::initialized = true;
        TavOndraComm::systemID("NO_SYSTEM_ID");
        TavString buffer, iface = "eth0", level = "5";
        // The store's init, then its daemon.
        started_ = ondraIf.initModData(buffer, iface, level) == 0 && ondraIf.processStart(buffer, 0, 0) == 0 &&
                   ondraIf.processStart(buffer, 1, 0) == 0;

        started_ = tavDspInitModData() == 0 && started_;
        // This thread holds the turn: the link's readers queue behind it as they start.
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (platform_->scheduler().threads() < 3 && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        plat::sleep(2);  // the link's first status
        started_ = started_ && TavDspDiskStatus::statusIsReady();
        // The threads that stay: this one, the link's, the store's supervisor.
        // Those of the start-up (the mount-time thread) end first.
        waitFor([] { return !TavDriveMgr::checkRebuild.load(); });
        plat::sleep(5);
        base_ = platform_->scheduler().threads();
    }

    ~Appliance()
    {
        TavString buffer;
        if (ondraIf.tavOndraProcs)
            for (int type = 0; type < 3; ++type) ondraIf.tavOndraProcs[type].stop(buffer, true);
        platform_->scheduler().park();
        sim::killDaemons(control_);
        TavOndraComm::initialized = false;
        sim::resetDriveManager();
    }

    bool started() const { return started_; }
    sim::SimPlatform& platform() { return *platform_; }
    sim::Module& control() { return control_; }
    RaidDeviceMgmt::TavBus* bus(int drive) { return TavDriveMgr::getBus(drive); }

    long long now()
    {
        timeval tv{};
        plat::gettimeofday(&tv);
        return tv.tv_sec;
    }

    // Lets virtual time pass, a second at a time, until `done` holds; false
    // when `seconds` of virtual time went by first.
    bool waitFor(const std::function<bool()>& done, int seconds = 3600)
    {
        for (int i = 0; i < seconds; ++i) {
            if (done()) return true;
            plat::sleep(1);
        }
        return done();
    }
    // Until every thread the system started has ended (a drive's power-down,
    // the mount-time thread) with the store as `store` says: the store's
    // supervising thread is one of those that stay while it runs.
    // Without `store`, the store may be either way. Without `mountTimes`
    // the mount-time thread may go on polling a rebuild.
    bool waitIdle(std::optional<bool> store = true, bool mountTimes = true)
    {
        return waitFor([&] {
            const bool running = storeRunning(), polling = TavDriveMgr::checkRebuild.load();
            const size_t stay = base_ - (running ? 0 : 1) + (!mountTimes && polling ? 1 : 0);
            return (!store || running == *store) && platform_->scheduler().threads() <= stay && (!mountTimes || !polling);
        });
    }

    bool storeRunning()
    {
        TavString state;
        return ondraIf.getRun(state, 0) == 0 && state == "TRUE";
    }

    // The lines of a log of the simulation whose text starts with `keep`,
    // each split in its time and its text.
    struct Line {
        long long time;
        std::string text;
    };
    std::vector<Line> log(const std::string& name, const std::string& keep)
    {
        std::vector<Line> out;
        std::istringstream in(control_.readState(name));
        std::string line;
        while (std::getline(in, line)) {
            const size_t space = line.find(' ');
            if (space == std::string::npos || line.compare(space + 1, keep.size(), keep) != 0) continue;
            out.push_back({std::atoll(line.c_str()), line.substr(space + 1)});
        }
        return out;
    }
    std::vector<Line> charonRequests() { return log("charon.log", "request "); }
    std::vector<Line> dspCommands() { return log("dsp.log", "command "); }
    std::vector<Line> hazards() { return log("dsp.log", "hazard"); }

    // The condition of the member on `bay` of md `minor` ("" when it is no member).
    std::string member(int minor, int bay)
    {
        sim::MdState s = sim::mdState(control_);
        const sim::MdArray* a = s.array(minor);
        if (!a) return "";
        for (const sim::MdMember& m : a->members)
            if (m.bay == bay) return sim::memberCondition(*a, m, false);
        return "";
    }
    std::string array(int minor)
    {
        sim::MdState s = sim::mdState(control_);
        const sim::MdArray* a = s.array(minor);
        return a ? sim::arrayCondition(*a, false) : "none";
    }
    // In sync in both OS mirrors.
    bool inOsMirror(int bay) { return member(200, bay) == "in-sync" && member(201, bay) == "in-sync"; }
    bool inRaid(int bay) { return member(kDataMd, bay) == "in-sync"; }

    // The first signature copy on a bay's drive, read from its image.
    RawCopy copy(int bay)
    {
        RawCopy c;
        c.b.resize(8 * 512);
        std::ifstream in(dir_ + control_.manifest().bay(bay)->device, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(storetest::kSignatureStart));
        in.read(reinterpret_cast<char*>(c.b.data()), static_cast<std::streamsize>(c.b.size()));
        return c;
    }
    // A drive's own stamp in its own record.
    int64_t dismount(int bay) { return copy(bay).dismountOf(bay); }
    int64_t mount(int bay) { return copy(bay).mountOf(bay); }
    std::string image(int bay)
    {
        std::ifstream in(dir_ + control_.manifest().bay(bay)->device, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    sim::DspBay dspBay(int bay) { return sim::dspState(control_).bays.at(static_cast<size_t>(bay - 1)); }
    bool writeCache(int bay) { return control_.manifest().driveInBay(bay)->writeCache; }

private:
    std::string dir_;
    sim::Module control_;
    sim::SimPlatform* platform_ = nullptr;
    plat::ScopedPlatform* scope_ = nullptr;
    size_t base_ = 0;
    bool started_ = false;
};

} // namespace hotswaptest

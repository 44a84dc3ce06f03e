// Modules made ready by tavsim, then read by the drive code.
#include <gtest/gtest.h>

#include "driveutils/tav_ide_drive.h"
#include "platform/platform.h"
#include "sim/sim_fixture.h"
#include "sim/tavsim.h"

namespace {

TEST(ModuleSetup, PartitionedByTavsimEveryDriveHasAValidTable)
{
    for (int id : {1, 3}) {
        SCOPED_TRACE("platform " + std::to_string(id));
        simtest::TempModule m(id);
        {
            sim::SimPlatform before(m.dir());
            plat::ScopedPlatform scope(before);
            RaidDeviceMgmt::TavIdeDrive blank(1, before.module().manifest().bays[0].device.c_str());
            EXPECT_NE(blank.validatePartitions(), 0);
        }
        ASSERT_EQ(simtest::callTavsim({"partition", m.dir()}), 0);
        sim::SimPlatform platform(m.dir());
        plat::ScopedPlatform scope(platform);
        sim::Manifest manifest = platform.module().manifest();
        for (const sim::Bay& bay : manifest.bays) {
            RaidDeviceMgmt::TavIdeDrive drive(bay.number, bay.device.c_str());
            EXPECT_EQ(drive.validatePartitions(), 0) << bay.device;
            EXPECT_EQ(platform.module().windows(bay.number).size(), 7u);
        }
    }
}

TEST(ModuleSetup, PartitionSkipsEmptyBays)
{
    simtest::TempModule m;
    ASSERT_EQ(simtest::callTavsim({"pull", m.dir(), "2"}), 0);
    EXPECT_EQ(simtest::callTavsim({"partition", m.dir()}), 0);
    sim::Module module(m.dir());
    EXPECT_TRUE(module.windows(2).empty());
    EXPECT_EQ(module.windows(1).size(), 7u);
}

TEST(ModuleSetup, DmaModeFeatureSetsTheTransferModeOfTheDrive)
{
    simtest::TempModule m(1, false);
    ASSERT_EQ(simtest::callTavsim({"create", m.dir(), "--platform", "1", "--sectors", "1000000", "--any-size", "--feature",
                          "SIM-ATA 80G:dma_mode=5"}),
              0);
    sim::SimPlatform platform(m.dir());
    plat::ScopedPlatform scope(platform);
    const char* disc = "/dev/ide/host0/bus0/target0/lun0/disc";
    RaidDeviceMgmt::TavIdeDrive drive(1, disc);
    EXPECT_EQ(drive.setDmaMode(), 0);
    EXPECT_EQ(platform.module().manifest().driveInBay(1)->transferMode, 0x45); // UDMA mode 5
    EXPECT_NE(platform.module().readState("ata.log").find("setfeatures transfer-mode 0x45"), std::string::npos);

    // The common default of -1 sends nothing.
    simtest::TempModule plain;
    sim::SimPlatform other(plain.dir());
    plat::ScopedPlatform otherScope(other);
    RaidDeviceMgmt::TavIdeDrive untouched(1, disc);
    EXPECT_EQ(untouched.setDmaMode(), 0);
    EXPECT_EQ(other.module().manifest().driveInBay(1)->transferMode, -1);
}

} // namespace

// A simulated four-drive IDE module with the system's partition layout, and
// signature blocks laid down byte by byte.
#pragma once

#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

#include "driveutils/tav_ide_drive.h"
#include "driveutils/tavdrivemgr.h"
#include "platform/platform.h"
#include "sim/sim_fixture.h"
#include "tavutils/tavdrivesig.h"
#include "tavutils/tavobxinfo.h"

namespace drivetest {

// The positions of platform 1.
inline const char* const kDiscs[] = {
    "/dev/ide/host0/bus0/target0/lun0/disc",
    "/dev/ide/host0/bus0/target1/lun0/disc",
    "/dev/ide/host0/bus1/target1/lun0/disc",
    "/dev/ide/host0/bus1/target0/lun0/disc",
};

inline std::string partition(int position, int number)
{
    std::string disc = kDiscs[position - 1];
    return disc.substr(0, disc.size() - 4) + "part" + std::to_string(number);
}

// One signature copy: the header, one record per position, one device table
// and one string table.
struct Block {
    SECT_INDEX_TABLE header{};
    std::vector<SECT_AUTO_RAID> records;
    SECT_DEVICE_TABLE devices{};
    SECT_STRING_TABLE strings{};

    std::vector<unsigned char> bytes(const std::string& driveSerial) const
    {
        SECT_INDEX_TABLE h = header;
        h.numDiskTables = static_cast<uint32_t>(records.size());
        h.numDeviceTables = 1;
        h.numStringTables = 1;
        std::memset(h.caSerialNumber, 0, sizeof h.caSerialNumber);
        std::strncpy(h.caSerialNumber, driveSerial.c_str(), sizeof h.caSerialNumber - 1);
        tavSetSectorHash(&h);
        std::vector<unsigned char> out(reinterpret_cast<unsigned char*>(&h), reinterpret_cast<unsigned char*>(&h + 1));
        for (const SECT_AUTO_RAID& r : records)
            out.insert(out.end(), reinterpret_cast<const unsigned char*>(&r), reinterpret_cast<const unsigned char*>(&r + 1));
        out.insert(out.end(), reinterpret_cast<const unsigned char*>(&devices),
                   reinterpret_cast<const unsigned char*>(&devices + 1));
        out.insert(out.end(), reinterpret_cast<const unsigned char*>(&strings),
                   reinterpret_cast<const unsigned char*>(&strings + 1));
        return out;
    }
};

inline SECT_AUTO_RAID record(const std::string& driveSerial, const std::string& owner, uint32_t order,
                             int64_t dismount = 0)
{
    SECT_AUTO_RAID r{};
    std::strncpy(r.caSerialNumber, driveSerial.c_str(), sizeof r.caSerialNumber - 1);
    std::memcpy(r.caMotherboardTag, owner.c_str(), std::min(owner.size(), sizeof r.caMotherboardTag));
    r.uLastOrder = order;
    r.llLastDismountTime = dismount;
    r.llLastMountTime = dismount - 1;
    tavSetSectorHash(&r);
    return r;
}

// A module of platform 1 whose drives carry the families' partition layout.
class DriveModule : public testing::Test {
protected:
    DriveModule() : platform_(module_.dir()), scope_(platform_)
    {
        TavDriveMgr::nDrives = 4;
        for (int position = 1; position <= 4; ++position) {
            EXPECT_EQ(buildPartitions(kDiscs[position - 1], 2097152, 2097152, 0, 98304, 20480, false), 0);
            drives_.emplace_back(position, kDiscs[position - 1]);
        }
        platform_.module().logCommand("test", 0, true, "-- setup done --");
    }

    RaidDeviceMgmt::TavIdeDrive& drive(int position) { return drives_[static_cast<size_t>(position - 1)]; }
    std::string serial(int position)
    {
        std::string s;
        EXPECT_EQ(drive(position).getSerialNo(s), 0);
        return s;
    }
    std::string moduleSerial() { return TavObxInfo::getSerialNumber(); }
    std::string commandLog() { return platform_.module().readState("commands.log"); }

    void writeAt(const std::string& path, off_t offset, const std::vector<unsigned char>& bytes)
    {
        int fd = plat::open(path.c_str(), O_WRONLY);
        ASSERT_GE(fd, 0) << path;
        ASSERT_EQ(plat::pwrite(fd, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
        plat::close(fd);
    }
    std::vector<unsigned char> readAt(const std::string& path, off_t offset, size_t size)
    {
        std::vector<unsigned char> bytes(size);
        int fd = plat::open(path.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0) << path;
        EXPECT_EQ(plat::pread(fd, bytes.data(), size, offset), static_cast<ssize_t>(size));
        plat::close(fd);
        return bytes;
    }
    // Both copies of a block on the drive at `position`.
    void writeSignature(int position, const Block& block)
    {
        std::vector<unsigned char> bytes = block.bytes(serial(position));
        writeAt(partition(position, 1), 0, bytes);
        writeAt(partition(position, 1), RaidDeviceMgmt::TavDrive::kSignatureCopyOffset, bytes);
    }
    // The module's own block: each drive at its position.
    Block ownBlock()
    {
        Block block;
        for (int p = 1; p <= 4; ++p) block.records.push_back(record(serial(p), moduleSerial(), static_cast<uint32_t>(p), 100));
        return block;
    }

    simtest::TempModule module_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
    std::vector<RaidDeviceMgmt::TavIdeDrive> drives_;
};

} // namespace drivetest

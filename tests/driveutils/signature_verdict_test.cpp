#include <cerrno>

#include "driveutils/drive_fixture.h"

namespace drivetest {
namespace {

using Verdicts = DriveModule;

TEST_F(Verdicts, OwnBlockIsGoodAndCarriesTheMountTime)
{
    Block block = ownBlock();
    for (int p = 1; p <= 4; ++p) writeSignature(p, block);
    for (int p = 1; p <= 4; ++p) {
        long long mountTime = 0;
        EXPECT_EQ(drive(p).validateSignature(&mountTime), 0) << p;
        EXPECT_EQ(mountTime, 99);
    }
}

TEST_F(Verdicts, NewRecordMovedBlockAndForeignModule)
{
    // A brand-new record: serial number and nothing else.
    Block fresh;
    fresh.records.push_back(record(serial(1), "", 0));
    writeSignature(1, fresh);
    EXPECT_EQ(drive(1).validateSignature(nullptr), 9);
    int position = -1;
    EXPECT_EQ(drive(1).getPreviousPosition(&position), 9);
    EXPECT_EQ(position, -1);   // untouched

    // The drive of slot 3 now sits in slot 2 of the same module.
    Block moved;
    moved.records = {record(serial(1), moduleSerial(), 1), record("OTHER", moduleSerial(), 2),
                     record(serial(2), moduleSerial(), 3)};
    writeSignature(2, moved);
    EXPECT_EQ(drive(2).validateSignature(nullptr), 6);
    EXPECT_EQ(drive(2).getPreviousPosition(&position), 0);
    EXPECT_EQ(position, 3);

    // A good block written by another module.
    Block foreign;
    foreign.records = {record("A", "OTHER-MODULE", 1), record("B", "OTHER-MODULE", 2),
                       record(serial(3), "OTHER-MODULE", 3)};
    writeSignature(3, foreign);
    EXPECT_EQ(drive(3).validateSignature(nullptr), 5);
    EXPECT_EQ(drive(3).getPreviousPosition(&position), 0);
    EXPECT_EQ(position, 3);
}

TEST_F(Verdicts, CopiedSignatureZeroBlockAndMissingEntry)
{
    Block block = ownBlock();
    writeSignature(1, block);
    // Sector for sector onto drive 2: the header names drive 1.
    writeAt(partition(2, 1), 0, readAt(partition(1, 1), 0, 7 * 512));
    EXPECT_EQ(drive(2).validateSignature(nullptr), 1);

    // Nothing written on drive 3.
    EXPECT_EQ(drive(3).validateSignature(nullptr), 7);
    EXPECT_STREQ(getDriveSignatureText(7), "FOREIGNUNIT: no signature");

    // A good header whose table does not hold the drive.
    Block others;
    others.records = {record("X1", moduleSerial(), 1), record("X2", moduleSerial(), 2)};
    writeSignature(4, others);
    EXPECT_EQ(drive(4).validateSignature(nullptr), 10);
    EXPECT_STREQ(getDriveSignatureText(10), "unknown");
    int position = 0;
    EXPECT_EQ(drive(4).getPreviousPosition(&position), 1);
}

TEST_F(Verdicts, WrongHashIsFinalButAReadErrorTakesTheSecondCopy)
{
    Block block = ownBlock();
    writeSignature(1, block);
    std::vector<unsigned char> header = readAt(partition(1, 1), 0, 512);
    header[100] ^= 0xFF;   // in the pad: the hash no longer holds
    writeAt(partition(1, 1), 0, header);
    EXPECT_EQ(drive(1).validateSignature(nullptr), 2);   // the good second copy is not asked

    writeSignature(2, block);
    header = readAt(partition(2, 1), 0, 512);
    header[100] ^= 0xFF;
    writeAt(partition(2, 1), 0, header);
    // The second copy is bad too and the first cannot be read: its verdict is the second's.
    platform_.arm(sim::Fault::failing(sim::Op::Read, partition(2, 1), 1, EIO));
    writeAt(partition(2, 1), RaidDeviceMgmt::TavDrive::kSignatureCopyOffset, header);
    EXPECT_EQ(drive(2).validateSignature(nullptr), 2);

    writeSignature(3, block);
    platform_.arm(sim::Fault::failing(sim::Op::Read, partition(3, 1), 1, EIO));
    EXPECT_EQ(drive(3).validateSignature(nullptr), 0);
    platform_.arm(sim::Fault::failing(sim::Op::Read, partition(3, 1), 1, EIO, 2));
    EXPECT_EQ(drive(3).validateSignature(nullptr), 3);
}

TEST_F(Verdicts, HugeRecordCountAndUnterminatedSerialsAreSafe)
{
    Block block;
    block.records = {record("X1", moduleSerial(), 1), record("X2", moduleSerial(), 2)};
    std::vector<unsigned char> bytes = block.bytes(serial(1));
    SECT_INDEX_TABLE* h = reinterpret_cast<SECT_INDEX_TABLE*>(bytes.data());
    h->numDiskTables = 0xFFFFFFFF;
    tavSetSectorHash(h);
    std::fill(bytes.begin() + 512 + 168, bytes.begin() + 1024, 'x');   // a serial number with no end
    writeAt(partition(1, 1), 0, bytes);   // the first copy only

    // The record loop runs to the end of the partition (a read failure), the
    // empty second copy then holds no entry for the drive.
    int position = 0;
    EXPECT_EQ(drive(1).getPreviousPosition(&position), 1);
    EXPECT_EQ(drive(1).validateSignature(nullptr), 10);
}

TEST_F(Verdicts, UnreadableSerialNumberGives4)
{
    writeSignature(1, ownBlock());
    platform_.arm(sim::Fault::failing(sim::Op::Ioctl, kDiscs[0], 1, EIO, -1));
    EXPECT_EQ(drive(1).validateSignature(nullptr), 4);
    EXPECT_STREQ(getDriveSignatureText(4), "UNKNOWNUNIT: a system call failed");
}

} // namespace
} // namespace drivetest

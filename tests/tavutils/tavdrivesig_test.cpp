#include <cstring>

#include <gtest/gtest.h>

#include "tavutils/tavdrivesig.h"

namespace {

TEST(SectorHash, CoversExactlyTheBytesBehindTheHashField)
{
    SECT_INDEX_TABLE header{};
    header.numDiskTables = 4;
    std::strcpy(header.caSerialNumber, "WD-123");
    EXPECT_FALSE(tavSectorHashValid(&header));   // a zero hash field is not the MD2 of anything here
    tavSetSectorHash(&header);
    EXPECT_TRUE(tavSectorHashValid(&header));

    SECT_INDEX_TABLE copy = header;
    reinterpret_cast<uint8_t*>(&copy)[511] ^= 1;   // last byte of llNext
    EXPECT_FALSE(tavSectorHashValid(&copy));
    copy = header;
    reinterpret_cast<uint8_t*>(&copy)[16] ^= 1;    // first hashed byte
    EXPECT_FALSE(tavSectorHashValid(&copy));
    copy = header;
    copy.caSectorHash[15] ^= 1;
    EXPECT_FALSE(tavSectorHashValid(&copy));

    // Different serial numbers give different hashes: the header differs per drive.
    SECT_INDEX_TABLE other = header;
    std::strcpy(other.caSerialNumber, "WD-124");
    tavSetSectorHash(&other);
    EXPECT_NE(std::memcmp(other.caSectorHash, header.caSectorHash, 16), 0);
}

TEST(Records, FieldsLandAtTheirDiskOffsetsLittleEndian)
{
    SECT_AUTO_RAID record{};
    record.llLastDismountTime = 0x0102030405060708LL;
    record.uLastOrder = 3;
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&record);
    EXPECT_EQ(bytes[152], 0x08);
    EXPECT_EQ(bytes[159], 0x01);
    EXPECT_EQ(bytes[160], 3);

    _one_sector table{};
    table.spiaPartitions[1].ucOSType = 0x83;
    table.spiaPartitions[1].ulAbsoluteSectorOffset = 22529;
    table.usSignature = PARTITION_TABLE_MAGIC;
    const uint8_t* t = reinterpret_cast<const uint8_t*>(&table);
    EXPECT_EQ(t[446 + 16 + 4], 0x83);
    EXPECT_EQ(t[446 + 16 + 8] | t[446 + 16 + 9] << 8, 22529);
    EXPECT_EQ(t[510], 0x55);
    EXPECT_EQ(t[511], 0xAA);
}

} // namespace

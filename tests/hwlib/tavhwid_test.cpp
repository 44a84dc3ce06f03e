#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "hwlib/tavhwid.h"
#include "hwlib_fixture.h"

namespace {

using tavtest::HwlibTest;

std::string modelName()
{
    char name[64];
    std::memset(name, 0, sizeof name);
    hwid_getModelName(nullptr, name, sizeof name - 1);
    return name;
}

TEST_F(HwlibTest, FirstMatchingModelLineWins)
{
    put("/etc/marrowby/hwid.conf",
               "Commented:c:9:80861237 # retired\n"
               "Both:both:8:80861237,deadbeef\n"
               "Elsewhere:e:6:10000021-0010\n"
               "Short:short:13c11001\n"
               "Empty:empty:5:\n"
               "First:first:3:10000021-0008,13c11001\n"
               "Second:second:4:80861237\n");
    EXPECT_EQ(modelName(), "First");
    EXPECT_EQ(hwid_getModelId(nullptr), 3);
    char config[64] = "";
    EXPECT_EQ(hwid_getModelConfigName(nullptr, config, sizeof config), 0);
    EXPECT_STREQ(config, "first");

    // Another table given by name.
    put("/etc/marrowby/other.conf", "Other:other:12:13c11001-10\n");
    EXPECT_EQ(hwid_getModelId("/etc/marrowby/other.conf"), 12);
}

TEST_F(HwlibTest, ConditionItemsNeedEveryDeviceAtItsLocation)
{
    pci_device* list = load_pci_list(HWID_LOCATION_PROC);
    ASSERT_NE(list, nullptr);
    char both[] = "80861237-0,13c11001";
    char wrongPlace[] = "10000021-0010";
    char oneMissing[] = "80861237,deadbeef";
    char garbage[] = "zz";
    EXPECT_EQ(hwid_findInList(list, both), 1);
    EXPECT_EQ(hwid_findInList(list, wrongPlace), 0);
    EXPECT_EQ(hwid_findInList(list, oneMissing), 0);
    EXPECT_EQ(hwid_findInList(list, garbage), 0);
    EXPECT_EQ(hwid_matchDevice(list, 0x10000021, 0xFFFFFFFF), 1);
    free_pci_list(list);

    char line[] = "not a device";
    EXPECT_EQ(pci_device_from_string(line, 12), nullptr);
}

TEST_F(HwlibTest, NoPciListOrTableMeansUnknown)
{
    put("/proc/bus/pci/devices", "header only\n");
    EXPECT_EQ(hwid_getModelId(nullptr), 0);
    char name[16];
    EXPECT_EQ(hwid_getModelName(nullptr, name, sizeof name), -1);
    EXPECT_STREQ(name, "UNKNOWN");
    char location[256];
    EXPECT_EQ(hwid_getConfigsLocation(location, sizeof location), -1);
    EXPECT_STREQ(location, "/etc/marrowby/brand/UNKNOWN/");

    put("/proc/bus/pci/devices", kPci);
    put("/etc/marrowby/hwid.conf", std::string("\xff\xfe\x00:::\n", 7) + std::string(3000, ':'));
    EXPECT_EQ(hwid_getModelId(nullptr), 0);
}

TEST_F(HwlibTest, ConfigFilesAreFoundInTheModelThenTheCommonDirectory)
{
    char path[256] = "";
    EXPECT_EQ(hwid_getConfigFileWithPath(path, sizeof path, "x.cfg"), -1);
    put("/etc/marrowby/brand/common/x.cfg", "");
    EXPECT_EQ(hwid_getConfigFileWithPath(path, sizeof path, "x.cfg"), 1);
    EXPECT_STREQ(path, "/etc/marrowby/brand/common/x.cfg");
    put("/etc/marrowby/brand/testbox/x.cfg", "");
    EXPECT_EQ(hwid_getConfigFileWithPath(path, sizeof path, "x.cfg"), 0);
    EXPECT_STREQ(path, "/etc/marrowby/brand/testbox/x.cfg");

    char shortPath[30] = "/etc/marrowby/brand/common/";
    EXPECT_EQ(hwid_TestFile(shortPath, sizeof shortPath, "x.cfg"), -1);
    EXPECT_STREQ(shortPath, "/etc/marrowby/brand/common/");

    // An unknown model does not reach the common directory.
    put("/etc/marrowby/hwid.conf", "");
    EXPECT_EQ(hwid_getConfigFileWithPath(path, sizeof path, "x.cfg"), -1);
}

struct FeatureRow {
    const char* name;
    bool model;   // the model's features.conf exists
    bool common;  // the common one exists
    const char* deflt;
    bool keyInModel;
    bool keyInCommon;
    int result;
    const char* value;
    bool notice;
};

TEST_F(HwlibTest, FeatureSettingFallsBackAsTheTableSays)
{
    const FeatureRow rows[] = {
        {"both files, key in M", true, true, nullptr, true, true, 0, "from-m", false},
        {"both files, key only in C", true, true, nullptr, false, true, 0, "from-c", true},
        {"both files, key in neither", true, true, nullptr, false, false, -1, "before", true},
        {"both files, with default", true, true, "dflt", false, true, 1, "dflt", false},
        {"common only", false, true, nullptr, false, true, 0, "from-c", false},
        {"common only, with default", false, true, "dflt", false, false, 1, "dflt", false},
        {"neither file, with default", false, false, "dflt", false, false, -1, "before", false},
    };
    for (const FeatureRow& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(map("/etc/marrowby/brand"));
        if (row.model)
            put(kModelFeatures, std::string("[RAID]\n") + (row.keyInModel ? "chunk_size=from-m;\n" : "x=1;\n"));
        if (row.common)
            put(kCommonFeatures,
                       std::string("[RAID]\n") + (row.keyInCommon ? "chunk_size=from-c;\n" : "x=1;\n"));
        char value[32] = "before";
        testing::internal::CaptureStdout();
        int result = hwid_getFeatureSettingDefault("RAID", "chunk_size", value, sizeof value, row.deflt);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(result, row.result);
        EXPECT_STREQ(value, row.value);
        EXPECT_EQ(out, row.notice ? "Notice: Loaded Setting for RAID:chunk_size from common config location.\n" : "");
    }
    // With a key present in M the default does not win.
    put(kModelFeatures, "[RAID]\nchunk_size=from-m;\n");
    char value[32];
    EXPECT_EQ(hwid_getFeatureSettingDefault("RAID", "chunk_size", value, sizeof value, "dflt"), 1);
    EXPECT_STREQ(value, "from-m");
}

TEST_F(HwlibTest, UnknownModelReadsTheCommonSettingWithTheNotice)
{
    put("/etc/marrowby/hwid.conf", "Nothing:n:1:ffffffff\n");
    put(kModelFeatures, "[RAID]\nauto_rebuild=no;\n");
    put(kCommonFeatures, "[RAID]\nauto_rebuild=yes;\n");
    char value[8];
    testing::internal::CaptureStdout();
    EXPECT_EQ(hwid_getFeatureSetting("RAID", "auto_rebuild", value, sizeof value), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Notice: Loaded Setting for RAID:auto_rebuild from common config location.\n");
    EXPECT_STREQ(value, "yes");
}

TEST_F(HwlibTest, SettingsAsIntegersAndCutValues)
{
    put(kModelFeatures, "[MONITOR]\nlevel=0x10;\nword=high;\nlong=abcdefghij;\n");
    int n = 0;
    EXPECT_EQ(hwid_getFeatureSettingDefaultAsInt("MONITOR", "level", &n, 5), 0);
    EXPECT_EQ(n, 16);
    EXPECT_EQ(hwid_getFeatureSettingDefaultAsInt("MONITOR", "word", &n, 5), 1);
    EXPECT_EQ(n, 5);
    char value[5];
    EXPECT_EQ(hwid_getFeatureSetting("MONITOR", "long", value, sizeof value), 0);
    EXPECT_STREQ(value, "abcd");
}

TEST_F(HwlibTest, ResourcesAreACursorOverMatchingRows)
{
    put("/etc/marrowby/hwlist.conf", "PCI:NVRAM:card:a:b\n"
                                            ":NVRAM:no class\n"
                                            "PCI::no name\n"
                                            "PCI:NVRAM:second\n"
                                            "OTHER:NVRAM:z\n"
                                            "PCI:NVRAMX:near miss\n"
                                            "PCI:NVRAM:third\n");
    hwidResource resource;
    EXPECT_EQ(resource.Next(), -1); // nothing opened yet
    EXPECT_EQ(resource.GetNResources("PCI", "NVRAM"), 3);
    EXPECT_EQ(resource.GetNResources("PCI", "DISK"), 0);
    ASSERT_EQ(resource.Find("PCI", "NVRAM"), 0);
    EXPECT_EQ(resource.sObjectInfo, "card:a:b");
    ASSERT_EQ(resource.Next(), 0);
    EXPECT_EQ(resource.sObjectInfo, "second");
    ASSERT_EQ(resource.Next(), 0);
    EXPECT_EQ(resource.sObjectInfo, "third");
    EXPECT_EQ(resource.Next(), -1);

    put("/etc/marrowby/hwlist.conf", std::string(2500, 'x') + "\nPCI:NVRAM:after a long line\n");
    EXPECT_EQ(resource.GetNResources("PCI", "NVRAM"), 1);
    std::filesystem::remove(map("/etc/marrowby/hwlist.conf"));
    EXPECT_EQ(resource.GetNResources("PCI", "NVRAM"), 0);
}

TEST(HwidCpu, SerialNumberIsThreeHexWordsCutAtTheLength)
{
    char serial[32], cut[9];
    hwid_getCpuSerialNumber(serial, sizeof serial);
    hwid_getCpuSerialNumber(cut, sizeof cut);
    EXPECT_EQ(std::strspn(serial, "0123456789ABCDEF"), 24u);
    EXPECT_EQ(std::string(serial, 8), cut);
}

} // namespace

#include "identity.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sstream>
#include <unistd.h>

#include "module.h"
#include "nvram.h"

namespace sim {
namespace {

// Each row's conditions hold only for its own devices, so the order of the
// table does not decide between rows; tests check every identifier.
const std::vector<ModelRow> kRows = {
    {1, "OBX 1U", "obx1u", "0000 80862570 agpgart;00f9 808624db ide;0208 8086100e net", "80862570-0000,808624db-00f9",
     ""},
    {2, "OBX 2U", "obx2u",
     "0000 80862578 agpgart;00f9 808624db ide;0308 13c11001 raid;0310 13c11001 raid;0318 10b59054 nvram",
     "13c11001-0308,13c11001-0310,10b59054", "rqdc:0"},
    {3, "OBX 1U Compact", "obxcompact", "0000 80862560 agpgart;00f9 808624cb ide", "80862560-0000,808624cb-00f9", ""},
    {4, "OBX 1U Rev B", "obx1ub", "0000 80862578 agpgart;00f9 808624db ide;0210 8086107c net",
     "80862578-0000,808624db-00f9,8086107c", ""},
    {5, "OBX 3U", "obx3u", "0000 80863590 agpgart;0208 10000407 raid;0308 10000407 raid;0408 10000407 raid",
     "10000407-0208,10000407-0308,10000407-0408", "megaraid:0;megaraid:1;megaraid:2"},
    {6, "OBX 1U SATA", "obx1us", "0000 80862578 agpgart;0218 10953114 sata;0318 10b59054 nvram", "10953114,10b59054",
     "rqdc:0"},
    {7, "OBX 1U Plus", "obx1uplus", "0000 80862580 agpgart;00f9 808627df ide", "80862580-0000,808627df", ""},
    {8, "OBX 2U Hardware RAID", "obx2uhw", "0000 80863590 agpgart;0208 10000411 raid;0308 10000411 raid",
     "10000411-0208,10000411-0308", "megaraid:0;megaraid:1"},
    {9, "OBX 1U RAID", "obx1uraid", "0000 80862578 agpgart;0208 13c11002 raid", "13c11002", "3ware:0"},
    {10, "OBX 2U Array", "obx2uarray", "0000 80863590 agpgart;0208 0e11b178 raid", "0e11b178-0208", "cciss:0"},
    {11, "OBX 3U Hardware RAID", "obx3uhw", "0000 80863590 agpgart;0208 10000413 raid;0308 10000413 raid",
     "10000413-0208,10000413-0308", "megaraid:0;megaraid:1"},
    {12, "OBX Tower", "obxtower", "0000 80862580 agpgart;0208 1028000f raid", "1028000f", ""},
    {13, "OBX 1U SATA II", "obx1us2", "0000 808629c0 agpgart;00f9 808627c0 sata", "808629c0-0000,808627c0", ""},
    {14, "OBX 1U SATA III", "obx1us3", "0000 80862990 agpgart;00f9 808627c0 sata", "80862990-0000,808627c0", ""},
    {15, "OBX 2U Duo", "obx2uduo", "0000 808629c0 agpgart;0208 13c11004 raid", "13c11004", "3ware:0"},
};

std::vector<std::string> split(const std::string& text, char by)
{
    std::vector<std::string> out;
    if (text.empty()) return out;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, by)) out.push_back(part);
    return out;
}

bool writeText(const HostDir& root, const std::string& rel, const std::string& text)
{
    return root.makeDirs(rel.substr(0, rel.rfind('/'))) && root.writeFileAtomic(rel, text);
}

} // namespace

const std::vector<ModelRow>& modelRows() { return kRows; }

const ModelRow* modelRow(int platform)
{
    for (const ModelRow& r : kRows)
        if (r.id == platform) return &r;
    return nullptr;
}

bool parseFeature(const std::string& text, FeatureSetting& out, std::string& why)
{
    size_t eq = text.find('=');
    size_t colon = eq == std::string::npos ? std::string::npos : text.rfind(':', eq);
    if (colon == std::string::npos) {
        why = "a feature is SECTION:KEY=VALUE, not " + text;
        return false;
    }
    out = {text.substr(0, colon), text.substr(colon + 1, eq - colon - 1), text.substr(eq + 1)};
    if (out.section.empty() || out.key.empty()) why = "a feature needs a section and a key: " + text;
    else if (text.find_first_of("\r\n") != std::string::npos) why = "a feature is one line: " + text;
    else if (out.section.find_first_of("[]") != std::string::npos) why = "a section cannot hold brackets: " + text;
    else if (out.key.find_first_of(";[") != std::string::npos) why = "a key cannot hold \";\" or \"[\": " + text;
    else if (out.value.find(';') != std::string::npos) why = "a value cannot hold \";\": " + text;
    else return true;
    return false;
}

std::string featureFile(const std::vector<FeatureSetting>& settings)
{
    std::vector<std::string> sections;
    for (const FeatureSetting& s : settings)
        if (std::find(sections.begin(), sections.end(), s.section) == sections.end()) sections.push_back(s.section);
    std::string text;
    for (const std::string& section : sections) {
        text += "[" + section + "]\n";
        for (const FeatureSetting& s : settings)
            if (s.section == section) text += s.key + "=" + s.value + ";\n";
    }
    return text;
}

std::string writeIdentity(Module& module, const Manifest& m, const std::vector<FeatureSetting>& features,
                          const std::string& driveModel)
{
    // An identifier without a row gets a board that no row recognises.
    static const ModelRow kUnknown{0, "", "", "0000 80862570 agpgart", "", ""};
    const ModelRow* row = modelRow(m.platform);
    if (!row) row = &kUnknown;

    std::string pci;
    for (const std::string& device : split(row->devices, ';')) {
        char location[8] = "", id[12] = "", driver[32] = "";
        if (std::sscanf(device.c_str(), "%7s %11s %31s", location, id, driver) != 3) return "bad device row " + device;
        pci += std::string(location) + "\t" + id + "\t0\t" + driver + "\n";
    }
    std::string table = "# NAME:CONFIG:ID:PCI CONDITIONS, most particular first\n";
    for (const ModelRow& r : kRows)
        table += std::string(r.name) + ":" + r.config + ":" + std::to_string(r.id) + ":" + r.conditions + "\n";
    std::string hwlist;
    // The RQDC card is named by its serial number: the module's own card, so
    // that it is required, and one of another serial is foreign.
    for (std::string card : split(row->nvram, ';')) {
        if (card.compare(0, 5, "rqdc:") == 0)
            card = "rqdc:" + std::to_string(nvramPresent(module) ? nvramState(module).geometry.serial : kNvramDefaultSerial);
        hwlist += "PCI:NVRAM:" + card + "\n";
    }

    std::vector<FeatureSetting> common = {{"IOSCHED", "schedule", "deadline"},
                                          {"IOSCHED.deadline", "read_expire", "250"},
                                          {"IOSCHED.deadline", "fifo_batch", "8"},
                                          {driveModel, "dma_mode", "-1"}};
    const std::string brand = "etc/marrowby/brand/";
    const HostDir& root = module.host();
    if (!writeText(root, "proc/bus/pci/devices", pci) || !writeText(root, "etc/marrowby/hwid.conf", table) ||
        !writeText(root, "etc/marrowby/hwlist.conf", hwlist) ||
        (*row->config && !writeText(root, brand + row->config + "/features.conf", featureFile(features))) ||
        !writeText(root, brand + "common/features.conf", featureFile(common)))
        return "cannot write the identity files";

    // MACs of the locally administered range, from the module serial number.
    uint32_t h = 2166136261u;
    for (char c : m.moduleSerial) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    module.writeState("interfaces", defaultInterfaces(h));

    for (const Bay& bay : m.bays)
        if (!layDownQueue(module, bay)) return "cannot write the sysfs directory of bay " + std::to_string(bay.number);
    return "";
}

} // namespace sim

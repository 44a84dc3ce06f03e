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

struct Scheduler {
    const char* name;
    std::vector<std::pair<const char*, const char*>> tunables;
};

const Scheduler kSchedulers[] = {
    {"noop", {}},
    {"anticipatory",
     {{"antic_expire", "6"}, {"read_expire", "125"}, {"read_batch_expire", "500"}, {"write_expire", "250"},
      {"write_batch_expire", "125"}}},
    {"deadline",
     {{"read_expire", "500"}, {"write_expire", "5000"}, {"writes_starved", "2"}, {"front_merges", "1"},
      {"fifo_batch", "16"}}},
    {"cfq",
     {{"quantum", "4"}, {"fifo_expire_sync", "125"}, {"fifo_expire_async", "250"}, {"back_seek_max", "16384"},
      {"back_seek_penalty", "2"}, {"slice_sync", "100"}, {"slice_async", "40"}, {"slice_async_rq", "2"},
      {"slice_idle", "8"}}},
};
const char kDefaultScheduler[] = "cfq";

std::vector<std::string> split(const std::string& text, char by)
{
    std::vector<std::string> out;
    if (text.empty()) return out;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, by)) out.push_back(part);
    return out;
}

bool writeText(const std::string& path, const std::string& text)
{
    return makeDirs(path.substr(0, path.rfind('/'))) && writeFileAtomic(path, text);
}

const Scheduler* scheduler(const std::string& name)
{
    for (const Scheduler& s : kSchedulers)
        if (name == s.name) return &s;
    return nullptr;
}

// The scheduler file names every scheduler, the chosen one in brackets; its
// tuning directory holds the chosen one's files only.
bool selectScheduler(const std::string& queueDir, const Scheduler& chosen)
{
    std::string line;
    for (const Scheduler& s : kSchedulers)
        line += std::string(line.empty() ? "" : " ") + (&s == &chosen ? "[" + std::string(s.name) + "]" : s.name);
    if (!writeText(queueDir + "/scheduler", line + "\n")) return false;
    std::string tuning = queueDir + "/iosched";
    if (DIR* d = ::opendir(tuning.c_str())) {
        std::vector<std::string> old;
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) old.push_back(e->d_name);
        ::closedir(d);
        for (const std::string& name : old) ::unlink((tuning + "/" + name).c_str());
    }
    if (!makeDirs(tuning)) return false;
    for (const auto& [name, value] : chosen.tunables)
        if (!writeFileAtomic(tuning + "/" + name, std::string(value) + "\n")) return false;
    return true;
}

std::string macText(const unsigned char* b)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
    return text;
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
    for (const std::string& card : split(row->nvram, ';')) hwlist += "PCI:NVRAM:" + card + "\n";

    std::vector<FeatureSetting> common = {{"IOSCHED", "schedule", "deadline"},
                                          {"IOSCHED.deadline", "read_expire", "250"},
                                          {"IOSCHED.deadline", "fifo_batch", "8"},
                                          {driveModel, "dma_mode", "-1"}};
    const std::string brand = "/etc/marrowby/brand/";
    if (!writeText(module.hostPath("/proc/bus/pci/devices"), pci) ||
        !writeText(module.hostPath("/etc/marrowby/hwid.conf"), table) ||
        !writeText(module.hostPath("/etc/marrowby/hwlist.conf"), hwlist) ||
        (*row->config && !writeText(module.hostPath(brand + row->config + "/features.conf"), featureFile(features))) ||
        !writeText(module.hostPath(brand + "common/features.conf"), featureFile(common)))
        return "cannot write the identity files";

    // A MAC of the locally administered range, from the module serial number.
    uint32_t h = 2166136261u;
    for (char c : m.moduleSerial) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    auto mac = [h](unsigned last) {
        unsigned char b[6] = {0x02, 0x4F, static_cast<unsigned char>(h >> 16), static_cast<unsigned char>(h >> 8),
                              static_cast<unsigned char>(h), static_cast<unsigned char>(last)};
        return macText(b);
    };
    std::string interfaces = "lo hwaddr=00:00:00:00:00:00 flags=up mtu=16436 address=127.0.0.1 netmask=255.0.0.0\n";
    interfaces += "eth0 hwaddr=" + mac(1) +
                  " flags=up mtu=1500 address=10.0.0.5 netmask=255.255.255.0 broadcast=10.0.0.255\n";
    interfaces += "eth1 hwaddr=" + mac(2) + " flags=down mtu=1500\n";
    interfaces += "bond0 hwaddr=" + mac(3) +
                  " flags=up mtu=9000 address=192.168.50.5 netmask=255.255.255.0 broadcast=192.168.50.255\n";
    module.writeState("interfaces", interfaces);

    for (const Bay& bay : m.bays)
        if (!selectScheduler(module.hostPath("/sys/block/" + blockName(bay) + "/queue"), *scheduler(kDefaultScheduler)))
            return "cannot write the sysfs directory of bay " + std::to_string(bay.number);
    return "";
}

std::vector<Interface> parseInterfaces(const std::string& text)
{
    std::vector<Interface> out;
    auto ip = [](const std::string& v, uint32_t& to) { return ::inet_pton(AF_INET, v.c_str(), &to) == 1; };
    for (const std::string& line : split(text, '\n')) {
        std::stringstream in(line);
        Interface i;
        if (!(in >> i.name) || i.name.size() >= 16) continue;
        bool ok = true, haveDestination = false;
        std::string field;
        while (ok && in >> field) {
            size_t eq = field.find('=');
            std::string key = field.substr(0, eq), value = eq == std::string::npos ? "" : field.substr(eq + 1);
            unsigned b[6];
            char end;
            if (key == "hwaddr")
                ok = std::sscanf(value.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
                                 &end) == 6;
            if (key == "hwaddr" && ok)
                for (int k = 0; k < 6; ++k) i.hwaddr[k] = static_cast<unsigned char>(b[k]);
            else if (key == "flags") i.up = value == "up";
            else if (key == "mtu") ok = std::sscanf(value.c_str(), "%d%c", &i.mtu, &end) == 1;
            else if (key == "metric") ok = std::sscanf(value.c_str(), "%d%c", &i.metric, &end) == 1;
            else if (key == "address") ok = i.hasAddress = ip(value, i.address);
            else if (key == "netmask") ok = ip(value, i.netmask);
            else if (key == "broadcast") ok = ip(value, i.broadcast);
            else if (key == "destination") ok = haveDestination = ip(value, i.destination);
        }
        if (!ok) continue;
        if (!haveDestination) i.destination = i.address;
        out.push_back(i);
    }
    return out;
}

std::string blockName(const Bay& bay)
{
    static const unsigned kIdeMajors[] = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
    for (unsigned k = 0; k < 10; ++k)
        if (bay.major == kIdeMajors[k]) return std::string("hd") + static_cast<char>('a' + 2 * k + bay.minor / 64);
    unsigned index = bay.major == 8 ? bay.minor / 16 : (bay.major - 64) * 16 + bay.minor / 16;
    std::string letters;
    for (unsigned n = index + 1; n > 0; n = (n - 1) / 26) letters.insert(letters.begin(), static_cast<char>('a' + (n - 1) % 26));
    return "sd" + letters;
}

std::string busBlockPath(const Bay& bay)
{
    unsigned host = 0, bus = 0, target = 0, lun = 0;
    char path[96];
    if (std::sscanf(bay.device.c_str(), "/dev/ide/host%u/bus%u/target%u/lun%u/", &host, &bus, &target, &lun) == 4) {
        std::snprintf(path, sizeof path, "/sys/bus/ide/devices/%u.%u/block", host * 2 + bus, target);
        return path;
    }
    if (std::sscanf(bay.device.c_str(), "/dev/scsi/host%u/bus%u/target%u/lun%u/", &host, &bus, &target, &lun) == 4) {
        std::snprintf(path, sizeof path, "/sys/bus/scsi/devices/%u:%u:%u:%u/block", host, bus, target, lun);
        return path;
    }
    return "";
}

std::string sysfsCanonical(const Manifest& m, const std::string& vpath)
{
    for (const Bay& bay : m.bays) {
        std::string bus = busBlockPath(bay);
        if (!bus.empty() && vpath.compare(0, bus.size(), bus) == 0 &&
            (vpath.size() == bus.size() || vpath[bus.size()] == '/'))
            return "/sys/block/" + blockName(bay) + vpath.substr(bus.size());
    }
    return vpath;
}

int sysfsStore(const std::string& vpath, const std::string& host, const std::string& text)
{
    std::string value = text;
    while (!value.empty() && (value.back() == '\n' || value.back() == ' ')) value.pop_back();
    const std::string schedulerTail = "/queue/scheduler";
    if (vpath.size() > schedulerTail.size() &&
        vpath.compare(vpath.size() - schedulerTail.size(), schedulerTail.size(), schedulerTail) == 0) {
        const Scheduler* chosen = scheduler(value);
        if (!chosen) return EINVAL;
        return selectScheduler(host.substr(0, host.size() - std::strlen("/scheduler")), *chosen) ? 0 : EIO;
    }
    if (vpath.find("/queue/iosched/") != std::string::npos) {
        char* end = nullptr;
        errno = 0;
        long long n = std::strtoll(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || errno != 0 || n < 0) return EINVAL;
    }
    return writeFileAtomic(host, value + "\n") ? 0 : EIO;
}

} // namespace sim

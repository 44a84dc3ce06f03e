#include "create.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {
namespace {

const Layout kHd{"ide",
                 {"/dev/ide/host0/bus0/target0/lun0/disc", "/dev/ide/host0/bus0/target1/lun0/disc",
                  "/dev/ide/host0/bus1/target1/lun0/disc", "/dev/ide/host0/bus1/target0/lun0/disc"}};
const Layout kLoam{"ide", {"/dev/ide/host0/bus0/target0/lun0/disc", "/dev/ide/host0/bus1/target0/lun0/disc"}};

struct OtherFamily {
    int id;
    const char* family;
};
// Platform identifiers with layouts of their own, whose families come later.
const OtherFamily kLater[] = {{2, "3ware"}, {5, "LSI"},   {6, "Silicon Image"}, {8, "LSI hardware RAID"},
                              {9, "3ware"}, {10, "HP"},   {11, "LSI hardware RAID"}, {12, "Pd"},
                              {15, "3ware"}};

std::vector<ModuleGenerator>& generators()
{
    static std::vector<ModuleGenerator> list;
    return list;
}

bool isEmptyDir(const std::string& dir, bool& exists)
{
    DIR* d = ::opendir(dir.c_str());
    exists = d != nullptr;
    if (!d) return errno == ENOENT;
    bool empty = true;
    while (dirent* e = ::readdir(d))
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) empty = false;
    ::closedir(d);
    return empty;
}

bool writeText(const std::string& path, const std::string& text)
{
    size_t slash = path.rfind('/');
    return makeDirs(path.substr(0, slash)) && writeFileAtomic(path, text);
}

bool makeImage(const std::string& path, uint64_t sectors)
{
    size_t slash = path.rfind('/');
    if (!makeDirs(path.substr(0, slash))) return false;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate(fd, static_cast<off_t>(sectors * 512)) == 0;
    ::close(fd);
    return ok;
}

} // namespace

const Layout* layoutFor(int platform, std::string& why)
{
    for (const OtherFamily& o : kLater)
        if (o.id == platform) {
            why = "platform " + std::to_string(platform) + " (" + o.family + " family) is not simulated yet";
            return nullptr;
        }
    return platform == 3 ? &kLoam : &kHd;
}

bool hasLayoutRow(int platform)
{
    for (const OtherFamily& o : kLater)
        if (o.id == platform) return true;
    return platform == 1 || platform == 3 || platform == 4;
}

bool deviceNumbers(const std::string& device, int scsiIndex, Bay& bay)
{
    unsigned host = 0, bus = 0, target = 0, lun = 0;
    char tail[16] = "";
    if (std::sscanf(device.c_str(), "/dev/ide/host%u/bus%u/target%u/lun%u/%15s", &host, &bus, &target, &lun, tail) == 5 &&
        std::strcmp(tail, "disc") == 0 && target < 2 && host < 5 && bus < 2) {
        static const unsigned majors[] = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
        bay.major = majors[host * 2 + bus];
        bay.minor = 64 * target;
        bay.maxPartitions = 63;
        return true;
    }
    if (device.compare(0, 10, "/dev/scsi/") == 0 && scsiIndex >= 0 && scsiIndex < 128) {
        bay.major = scsiIndex < 16 ? 8 : 64 + static_cast<unsigned>(scsiIndex / 16);
        bay.minor = 16 * static_cast<unsigned>(scsiIndex % 16);
        bay.maxPartitions = 15;
        return true;
    }
    return false;
}

void addModuleGenerator(ModuleGenerator generator) { generators().push_back(std::move(generator)); }

std::string createModule(const std::string& dir, const CreateOptions& options)
{
    std::string why;
    static const Layout kNone{"none", {}};
    const Layout* layout = options.identityOnly ? &kNone : layoutFor(options.platform, why);
    if (!layout) return why;
    if (options.identityOnly && !modelRow(options.platform))
        return "platform " + std::to_string(options.platform) + " has no model (1 to 15)";
    if (!options.features.empty() && !modelRow(options.platform))
        return "platform " + std::to_string(options.platform) + " has no model to take feature settings";
    if (options.sectors < kMinDriveSectors || options.sectors > kMaxDriveSectors) return "drive size out of range";
    bool exists = false;
    if (!isEmptyDir(dir, exists)) return dir + " exists and is not an empty directory";
    if (!exists && !makeDirs(dir)) return "cannot make " + dir + ": " + std::strerror(errno);
    if (!makeDirs(dir + "/sim")) return "cannot make the state directory";

    Module module(dir);
    Manifest m;
    m.platform = options.platform;
    m.moduleSerial = options.moduleSerial;
    if (m.moduleSerial.empty()) {
        uint32_t h = 2166136261u;
        for (char c : module.dir()) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
        char serial[32];
        std::snprintf(serial, sizeof serial, "OBXSIM%08X", h);
        m.moduleSerial = serial;
    }
    int scsi = 0;
    for (size_t i = 0; i < layout->devices.size(); ++i) {
        Bay bay;
        bay.number = static_cast<int>(i) + 1;
        bay.device = layout->devices[i];
        if (!deviceNumbers(bay.device, scsi, bay)) return "no device numbers for " + bay.device;
        if (bay.device.compare(0, 10, "/dev/scsi/") == 0) ++scsi;
        m.bays.push_back(bay);
        Drive d;
        d.kind = std::string(layout->family) == "ide" ? "ata" : "scsi";
        d.bay = bay.number;
        d.sectors = options.sectors;
        d.model = options.model;
        d.firmware = options.firmware;
        d.serial = module.newDriveSerial(m, bay.number);
        m.drives.push_back(d);
        if (!makeImage(module.hostPath(bay.device), d.sectors)) return "cannot make the image of bay " + std::to_string(bay.number);
    }
    for (const char* sub : {"dev", "etc/marrowby/system", "proc", "sys", "var/log", "tmp", "mnt",
                            "configs/etc/marrowby/system", "modules", "sim/tables", "sim/shelf"})
        if (!makeDirs(dir + "/" + sub)) return std::string("cannot make ") + sub;
    bool ok = writeText(module.hostPath("/configs/etc/marrowby/system/.serialnumber"), m.moduleSerial + "\n") &&
              writeText(module.statePath("clock"), "1136073600 0\n") && writeText(module.statePath("faults"), "") &&
              writeText(module.statePath("commands.log"), "") && writeText(module.statePath("ata.log"), "") &&
              writeText(module.statePath("mounts"), "") &&
              writeText(module.statePath("services"), "syslog running\ncrond running\n");
    if (!ok) return "cannot write the files of the module";
    module.writeManifest(m);
    for (const Bay& bay : m.bays) module.rereadPartitions(bay.number);
    if (std::string err = writeIdentity(module, m, options.features, options.model); !err.empty()) return err;
    for (const ModuleGenerator& g : generators()) {
        std::string err = g(module, m);
        if (!err.empty()) return err;
    }
    return "";
}

} // namespace sim

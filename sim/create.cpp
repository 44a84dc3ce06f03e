#include "create.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "charon.h"
#include "dsp.h"
#include "md_kernel.h"
#include "mgmt_keys.h"
#include "nvram.h"
#include "tw_kernel.h"

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
const OtherFamily kLater[] = {{5, "LSI"}, {6, "Silicon Image"}, {8, "LSI hardware RAID"},
                              {10, "HP"}, {11, "LSI hardware RAID"}, {12, "Pd"}};

// The eight-bay platform: its bays are the kernel's disks of the two
// controllers' single units, host 1 first, targets from 3 down.
const Layout kTw7000{"3ware",
                     {"/dev/scsi/host1/bus0/target3/lun0/disc", "/dev/scsi/host1/bus0/target2/lun0/disc",
                      "/dev/scsi/host1/bus0/target1/lun0/disc", "/dev/scsi/host1/bus0/target0/lun0/disc",
                      "/dev/scsi/host0/bus0/target3/lun0/disc", "/dev/scsi/host0/bus0/target2/lun0/disc",
                      "/dev/scsi/host0/bus0/target1/lun0/disc", "/dev/scsi/host0/bus0/target0/lun0/disc"}};

// The 9000 platforms: a bay is a port, whose drive the system never sees
// but through the controller; its image lies where no system path leads.
Layout twPorts(int ports)
{
    Layout l{"3ware", {}};
    static std::vector<std::string> names;
    if (names.empty())
        for (int p = 0; p < 12; ++p) names.push_back("/sim/3ware/ports/c0p" + std::to_string(p));
    for (int p = 0; p < ports; ++p) l.devices.push_back(names[static_cast<size_t>(p)].c_str());
    return l;
}
const Layout kTw9000Four = twPorts(4);
const Layout kTw9000Twelve = twPorts(12);

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

bool writeText(const HostDir& root, const std::string& rel, const std::string& text)
{
    size_t slash = rel.rfind('/');
    return root.makeDirs(rel.substr(0, slash)) && root.writeFileAtomic(rel, text);
}

bool makeImage(const HostDir& root, const std::string& rel, uint64_t sectors)
{
    size_t slash = rel.rfind('/');
    if (!root.makeDirs(rel.substr(0, slash))) return false;
    int fd = root.open(rel, O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate(fd, static_cast<off_t>(sectors * 512)) == 0;
    ::close(fd);
    return ok;
}

// Makes `dir` and the directories above it that are missing.
std::string makeHostDirs(const std::string& dir)
{
    std::string sofar;
    for (size_t pos = 0; pos != std::string::npos;) {
        size_t next = dir.find('/', pos + 1);
        sofar = dir.substr(0, next);
        pos = next;
        if (sofar.empty()) continue;
        if (::mkdir(sofar.c_str(), 0755) != 0 && errno != EEXIST) return "cannot make " + sofar + ": " + std::strerror(errno);
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return "cannot make " + dir + ": not a directory";
    return "";
}

struct DeviceAddress {
    unsigned host = 0, bus = 0, target = 0, lun = 0;
    auto operator<=>(const DeviceAddress&) const = default;
};

// "/dev/KIND/hostH/busB/targetT/lunL/disc", numbers in decimal.
bool parseDeviceAddress(const std::string& device, const char* kind, DeviceAddress& a)
{
    const std::string format = std::string("/dev/") + kind + "/host%u/bus%u/target%u/lun%u/%15s%n";
    char tail[16] = "";
    int used = 0;
    return std::sscanf(device.c_str(), format.c_str(), &a.host, &a.bus, &a.target, &a.lun, tail, &used) == 5 &&
           std::strcmp(tail, "disc") == 0 && static_cast<size_t>(used) == device.size();
}

} // namespace

const Layout* layoutFor(int platform, std::string& why)
{
    for (const OtherFamily& o : kLater)
        if (o.id == platform) {
            why = "platform " + std::to_string(platform) + " (" + o.family + " family) is not simulated yet";
            return nullptr;
        }
    if (platform == 2) return &kTw7000;
    if (platform == 9) return &kTw9000Four;
    if (platform == 15) return &kTw9000Twelve;
    return platform == 3 ? &kLoam : &kHd;
}

bool hasLayoutRow(int platform)
{
    for (const OtherFamily& o : kLater)
        if (o.id == platform) return true;
    return platform == 1 || platform == 2 || platform == 3 || platform == 4 || platform == 9 || platform == 15;
}

bool deviceNumbers(const std::string& device, int scsiIndex, Bay& bay)
{
    DeviceAddress a;
    if (parseDeviceAddress(device, "ide", a) && a.target < 2 && a.host < 5 && a.bus < 2) {
        static const unsigned majors[] = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
        bay.major = majors[a.host * 2 + a.bus];
        bay.minor = 64 * a.target;
        bay.maxPartitions = 63;
        return true;
    }
    // The sd driver: 16 disks a major (8, 65 to 71, 128 to 135), 16 minors a disk.
    if (parseDeviceAddress(device, "scsi", a) && scsiIndex >= 0 && scsiIndex < 256) {
        const unsigned group = static_cast<unsigned>(scsiIndex) / 16;
        bay.major = group == 0 ? 8 : group < 8 ? 64 + group : 120 + group;
        bay.minor = 16 * (static_cast<unsigned>(scsiIndex) % 16);
        bay.maxPartitions = 15;
        return true;
    }
    return false;
}

bool ideUnit(const std::string& device, unsigned& interface, unsigned& unit)
{
    DeviceAddress a;
    if (!parseDeviceAddress(device, "ide", a) || a.host != 0 || a.lun != 0) return false;
    interface = a.bus;
    unit = a.target;
    return true;
}

std::vector<int> scsiProbeOrder(const std::vector<std::string>& devices)
{
    std::vector<std::pair<DeviceAddress, size_t>> scsi;
    for (size_t i = 0; i < devices.size(); ++i) {
        DeviceAddress a;
        if (parseDeviceAddress(devices[i], "scsi", a)) scsi.emplace_back(a, i);
    }
    std::stable_sort(scsi.begin(), scsi.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
    std::vector<int> index(devices.size(), -1);
    for (size_t k = 0; k < scsi.size(); ++k) index[scsi[k].second] = static_cast<int>(k);
    return index;
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
    if (isHostRoot(dir)) return "the host's root directory is never a module";
    bool exists = false;
    if (!isEmptyDir(dir, exists)) return dir + " exists and is not an empty directory";
    if (!exists)
        if (std::string err = makeHostDirs(dir); !err.empty()) return err;

    try {
        Module module(dir, Module::Creating{});
        const HostDir& root = module.host();
        if (!root.makeDirs("sim")) return "cannot make the state directory";
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
        const std::vector<int> scsiIndex =
            scsiProbeOrder(std::vector<std::string>(layout->devices.begin(), layout->devices.end()));
        for (size_t i = 0; i < layout->devices.size(); ++i) {
            Bay bay;
            bay.number = static_cast<int>(i) + 1;
            bay.device = layout->devices[i];
            const bool port = bay.device.compare(0, 5, "/dev/") != 0;  // a port of a controller
            if (!port && !deviceNumbers(bay.device, scsiIndex[i], bay)) return "no device numbers for " + bay.device;
            m.bays.push_back(bay);
            Drive d;
            const std::string family = layout->family;
            d.kind = family == "ide" || family == "3ware" ? "ata" : "scsi";
            d.bay = bay.number;
            d.sectors = options.sectors;
            d.model = options.model;
            d.firmware = options.firmware;
            d.serial = module.newDriveSerial(m, bay.number);
            m.drives.push_back(d);
            if (!makeImage(root, bay.device, d.sectors))
                return "cannot make the image of bay " + std::to_string(bay.number);
        }
        for (const char* sub : {"dev", "etc/marrowby/system", "proc", "sys", "var/log", "tmp", "mnt",
                                "configs/etc/marrowby/system", "modules", "sim/tables", "sim/shelf", "sim/identify",
                                "sim/locks"})
            if (!root.makeDirs(sub)) return std::string("cannot make ") + sub;
        bool ok = writeText(root, "configs/etc/marrowby/system/.serialnumber", m.moduleSerial + "\n") &&
                  writeText(root, Module::stateFile("clock"), "1136073600 0\n") &&
                  writeText(root, Module::stateFile("faults"), "") &&
                  writeText(root, Module::stateFile("commands.log"), "") &&
                  writeText(root, Module::stateFile("ata.log"), "") && writeText(root, Module::stateFile("mounts"), "") &&
                  writeText(root, Module::stateFile("md"), freshMdState()) &&
                  writeText(root, Module::stateFile("md.log"), "") &&
                  writeText(root, Module::stateFile("services"), "syslog running\ncrond running\n") &&
                  writeText(root, Module::stateFile("keys"), defaultKeys(m.platform)) &&
                  writeText(root, Module::stateFile("hostname"), hostnameOf(m.moduleSerial) + "\n");
        if (!ok) return "cannot write the files of the module";
        module.writeManifest(m);
        if (const std::string dsp = freshDspState(m, options.identityOnly); !dsp.empty())
            if (!writeText(root, Module::stateFile("dsp"), dsp) || !writeText(root, Module::stateFile("dsp.log"), ""))
                return "cannot write the chassis controller's files";
        if (const std::string charon = freshCharonState(m); !charon.empty())
            if (!writeText(root, Module::stateFile("charon"), charon) || !writeText(root, Module::stateFile("charon.log"), ""))
                return "cannot write the hot-swap driver's files";
        // The platforms whose layout has the RQDC card get one.
        if (m.platform == 2 || m.platform == 6)
            if (std::string err = nvramAdd(module); !err.empty()) return "cannot add the NVRAM card: " + err;
        for (const Bay& bay : m.bays) {
            module.rereadPartitions(bay.number);
            module.discover(bay.number);
        }
        if (std::string err = writeIdentity(module, m, options.features, options.model); !err.empty()) return err;
        if (std::string(layout->family) == "3ware")
            if (std::string err = tw::createControllers(module, m, options.units, options.spares, options.procScsi);
                !err.empty())
                return err;
        for (const ModuleGenerator& g : generators()) {
            std::string err = g(module, m);
            if (!err.empty()) return err;
        }
        module.stateWritten();  // the files above were written around Module
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

} // namespace sim

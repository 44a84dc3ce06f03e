#include "module.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clock.h"

namespace sim {
namespace {

std::string dirName(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// A serial number as a file name.
std::string fileSafe(const std::string& text)
{
    std::string out;
    for (char c : percentEncode(text)) out += c == '/' ? '_' : c;
    return out;
}

} // namespace

bool readFile(const std::string& path, std::string& out)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    out.clear();
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            return n == 0;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

bool writeFileAtomic(const std::string& path, const std::string& text)
{
    std::string tmp = path + ".new";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            ::unlink(tmp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    return ::rename(tmp.c_str(), path.c_str()) == 0;
}

bool makeDirs(const std::string& path)
{
    std::string sofar;
    size_t pos = 0;
    while (pos != std::string::npos) {
        size_t next = path.find('/', pos + 1);
        sofar = path.substr(0, next);
        pos = next;
        if (sofar.empty()) continue;
        if (::mkdir(sofar.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Module::Cached::changed()
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        bool was = size != -1;
        size = -1;
        return was;
    }
    bool differs = st.st_mtim.tv_sec != mtime.tv_sec || st.st_mtim.tv_nsec != mtime.tv_nsec ||
                   st.st_size != size || st.st_ino != ino;
    mtime = st.st_mtim;
    size = st.st_size;
    ino = st.st_ino;
    return differs;
}

Module::Module(const std::string& dir)
{
    char resolved[PATH_MAX];
    dir_ = ::realpath(dir.c_str(), resolved) ? resolved : dir;
    while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
    manifestStamp_.path = statePath("manifest");
    manifestStamp_.size = -2;  // forces the first read
}

bool Module::isModule(const std::string& dir)
{
    struct stat st;
    return ::stat((dir + "/sim/manifest").c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

Module::Lock::Lock(Module& m)
{
    fd_ = ::open(m.statePath("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd_ >= 0)
        while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
}

Module::Lock::~Lock()
{
    if (fd_ >= 0) ::close(fd_);
}

Manifest Module::manifest()
{
    if (manifestStamp_.changed()) {
        std::string text;
        manifest_ = readFile(manifestStamp_.path, text) ? Manifest::parse(text) : Manifest{};
        tables_.clear();
    }
    return manifest_;
}

void Module::writeManifest(const Manifest& m)
{
    writeFileAtomic(statePath("manifest"), m.format());
    manifestStamp_.size = -2;
}

bool Module::updateManifest(const std::function<bool(Manifest&)>& change)
{
    Lock lock(*this);
    manifestStamp_.size = -2;
    Manifest m = manifest();
    if (!change(m)) return false;
    writeManifest(m);
    return true;
}

std::optional<DeviceNode> Module::device(const std::string& vpath, bool& present)
{
    present = false;
    if (vpath.compare(0, 5, "/dev/") != 0) return std::nullopt;
    const Manifest& m = manifest();
    const std::string dir = dirName(vpath);
    const std::string leaf = vpath.substr(dir.size() + 1);
    for (const Bay& bay : m.bays) {
        if (dirName(bay.device) != dir) continue;
        DeviceNode node;
        node.bay = bay.number;
        node.image = hostPath(bay.device);
        node.major = bay.major;
        node.minor = bay.minor;
        if (vpath == bay.device) {
            node.partition = 0;
        } else if (leaf.compare(0, 4, "part") == 0 && leaf.size() > 4 && leaf.size() <= 7 &&
                   leaf.find_first_not_of("0123456789", 4) == std::string::npos && leaf[4] != '0') {
            node.partition = std::atoi(leaf.c_str() + 4);
            if (static_cast<unsigned>(node.partition) > bay.maxPartitions) return std::nullopt;
            node.minor = bay.minor + static_cast<unsigned>(node.partition);
        } else if (leaf == "generic") {
            const Drive* d = m.driveInBay(bay.number);
            if (!d || d->kind != "scsi") return std::nullopt;
            node.partition = -1;
            node.character = true;
            node.major = 21;  // sg
            node.minor = static_cast<unsigned>(bay.number - 1);
        } else {
            continue;
        }
        const Drive* drive = m.driveInBay(bay.number);
        struct stat st;
        if (!drive || ::stat(node.image.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return node;
        uint64_t diskBytes = static_cast<uint64_t>(st.st_size);
        if (node.partition <= 0) {
            node.size = diskBytes;
            present = true;
            return node;
        }
        for (const Window& w : windows(bay.number))
            if (w.number == node.partition) {
                node.offset = w.start * 512;
                node.size = w.size * 512;
                present = node.offset + node.size <= diskBytes;
            }
        return node;
    }
    return std::nullopt;
}

std::vector<Window> Module::windows(int bay)
{
    manifest();
    if (bay <= 0 || bay > 4096) return {};
    if (tables_.size() < static_cast<size_t>(bay) + 1) tables_.resize(static_cast<size_t>(bay) + 1);
    TableCache& t = tables_[static_cast<size_t>(bay)];
    if (t.stamp.path.empty()) {
        t.stamp.path = statePath("tables/bay" + std::to_string(bay));
        t.stamp.size = -2;
    }
    if (t.stamp.changed()) {
        std::string text;
        t.windows = readFile(t.stamp.path, text) ? parseWindows(text) : std::vector<Window>{};
    }
    return t.windows;
}

std::vector<Window> Module::rereadPartitions(int bay)
{
    Manifest m = manifest();
    const Bay* b = m.bay(bay);
    std::vector<Window> found;
    if (b && m.driveInBay(bay)) {
        int fd = ::open(hostPath(b->device).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        struct stat st;
        if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
            found = readPartitionTable(static_cast<uint64_t>(st.st_size) / 512, b->maxPartitions,
                                       [fd](uint64_t sector, unsigned char* buf) {
                                           if (sector > (1ULL << 40)) return false;
                                           return ::pread(fd, buf, 512, static_cast<off_t>(sector * 512)) == 512;
                                       });
        }
        if (fd >= 0) ::close(fd);
    }
    makeDirs(statePath("tables"));
    writeFileAtomic(statePath("tables/bay" + std::to_string(bay)), formatWindows(found));
    return found;
}

timeval Module::now()
{
    std::string text;
    timeval tv{kClockStart, 0};
    // A clock that cannot be read counts from the start; tavsim reports it.
    if (readFile(statePath("clock"), text)) parseClock(text, tv);
    return tv;
}

void Module::advance(uint64_t microseconds)
{
    Lock lock(*this);
    timeval tv = now();
    uint64_t us = static_cast<uint64_t>(tv.tv_usec) + microseconds % 1000000;
    long long secs = static_cast<long long>(tv.tv_sec) + static_cast<long long>(microseconds / 1000000 + us / 1000000);
    char text[64];
    std::snprintf(text, sizeof text, "%lld %llu\n", secs, static_cast<unsigned long long>(us % 1000000));
    writeFileAtomic(statePath("clock"), text);
}

std::string Module::readState(const std::string& name)
{
    std::string text;
    readFile(statePath(name), text);
    return text;
}

void Module::writeState(const std::string& name, const std::string& text)
{
    writeFileAtomic(statePath(name), text);
}

void Module::appendState(const std::string& name, const std::string& line)
{
    int fd = ::open(statePath(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return;
    std::string text = line + "\n";
    ssize_t n;
    do n = ::write(fd, text.data(), text.size());
    while (n < 0 && errno == EINTR);
    ::close(fd);
}

void Module::logCommand(const std::string& kind, int status, bool known, const std::string& command)
{
    std::string flat = command;
    for (char& c : flat)
        if (c == '\n' || c == '\r') c = ' ';
    appendState("commands.log", std::to_string(now().tv_sec) + " " + kind + " " + std::to_string(status) +
                                    (known ? " " : " unknown ") + flat);
}

void Module::logAta(const std::string& device, const std::string& what)
{
    appendState("ata.log", std::to_string(now().tv_sec) + " " + device + " " + what);
}

std::string Module::shelfImage(const std::string& serial) const { return statePath("shelf/" + fileSafe(serial) + ".img"); }

std::string Module::newDriveSerial(const Manifest& m, int hint)
{
    // Derived from the module serial, so that drives of two modules differ.
    uint32_t h = 2166136261u;
    for (char c : m.moduleSerial) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    for (int i = 0;; ++i) {
        char serial[32];
        std::snprintf(serial, sizeof serial, "SIM%06X%03d", h & 0xffffff, (hint + i) % 1000);
        if (!const_cast<Manifest&>(m).drive(serial)) return serial;
    }
}

std::string Module::pull(int bay)
{
    std::string err;
    std::string image;
    updateManifest([&](Manifest& m) {
        const Bay* b = m.bay(bay);
        Drive* d = m.driveInBay(bay);
        if (!b) err = "no bay " + std::to_string(bay);
        else if (!d) err = "bay " + std::to_string(bay) + " is empty";
        if (!err.empty()) return false;
        makeDirs(statePath("shelf"));
        if (::rename(hostPath(b->device).c_str(), shelfImage(d->serial).c_str()) != 0) {
            err = std::string("cannot move the image: ") + std::strerror(errno);
            return false;
        }
        d->bay = 0;
        return true;
    });
    if (err.empty()) rereadPartitions(bay);
    return err;
}

std::string Module::insert(int bay, const std::string& serial)
{
    std::string err;
    updateManifest([&](Manifest& m) {
        const Bay* b = m.bay(bay);
        if (!b) err = "no bay " + std::to_string(bay);
        else if (m.driveInBay(bay)) err = "bay " + std::to_string(bay) + " is occupied";
        if (!err.empty()) return false;
        Drive* d = nullptr;
        if (serial.empty()) {
            // A blank drive like the others of the module.
            Drive fresh;
            for (const Drive& other : m.drives) {
                fresh = other;
                break;
            }
            fresh.serial = newDriveSerial(m, bay + static_cast<int>(m.drives.size()));
            fresh.bay = 0;
            fresh.writeCache = true;
            fresh.transferMode = -1;
            fresh.flushes = 0;
            if (fresh.sectors == 0) fresh.sectors = 156301488;
            if (fresh.model.empty()) fresh.model = "SIM-ATA 80G";
            int fd = ::open(shelfImage(fresh.serial).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (fd < 0 && makeDirs(statePath("shelf")))
                fd = ::open(shelfImage(fresh.serial).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(fresh.sectors * 512)) != 0) {
                err = std::string("cannot make an image: ") + std::strerror(errno);
                if (fd >= 0) ::close(fd);
                return false;
            }
            ::close(fd);
            m.drives.push_back(fresh);
            d = &m.drives.back();
        } else {
            d = m.drive(serial);
            if (!d) err = "no drive " + serial;
            else if (d->bay != 0) err = "drive " + serial + " is in bay " + std::to_string(d->bay);
            if (!err.empty()) return false;
        }
        makeDirs(dirName(hostPath(b->device)));
        if (::rename(shelfImage(d->serial).c_str(), hostPath(b->device).c_str()) != 0) {
            err = std::string("cannot move the image: ") + std::strerror(errno);
            return false;
        }
        d->bay = bay;
        return true;
    });
    if (err.empty()) rereadPartitions(bay);
    return err;
}

std::string Module::swap(int bayA, int bayB)
{
    std::string err;
    updateManifest([&](Manifest& m) {
        const Bay* a = m.bay(bayA);
        const Bay* b = m.bay(bayB);
        if (!a || !b || bayA == bayB) {
            err = "need two different bays";
            return false;
        }
        Drive* da = m.driveInBay(bayA);
        Drive* db = m.driveInBay(bayB);
        std::string pa = hostPath(a->device), pb = hostPath(b->device), tmp = statePath("swap.img");
        makeDirs(dirName(pa));
        makeDirs(dirName(pb));
        if ((da && ::rename(pa.c_str(), tmp.c_str()) != 0) || (db && ::rename(pb.c_str(), pa.c_str()) != 0) ||
            (da && ::rename(tmp.c_str(), pb.c_str()) != 0)) {
            err = std::string("cannot move the images: ") + std::strerror(errno);
            return false;
        }
        if (da) da->bay = bayB;
        if (db) db->bay = bayA;
        return true;
    });
    if (err.empty()) {
        rereadPartitions(bayA);
        rereadPartitions(bayB);
    }
    return err;
}

std::string Module::overwrite(const std::string& vpath, uint64_t offset, const std::string& bytes)
{
    bool present = false;
    std::optional<DeviceNode> node = device(vpath, present);
    if (!node || node->partition < 0) return vpath + " is no disk or partition of the module";
    if (!present) return vpath + " is not present";
    if (offset > node->size || bytes.size() > node->size - offset) return "the bytes run past the end of " + vpath;
    int fd = ::open(node->image.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return std::string("cannot open the image: ") + std::strerror(errno);
    ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(node->offset + offset));
    ::close(fd);
    if (n != static_cast<ssize_t>(bytes.size())) return "short write to the image";
    return "";
}

} // namespace sim

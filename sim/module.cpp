#include "module.h"
#include "tw_kernel.h"
#include "tw_state.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <map>
#include <mutex>
#include <unistd.h>

#include "ata.h"
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

// One lock per module directory and process: threads take the mutex, the
// process holds the flock while any of its threads is inside. The lock file
// stays open between holds, unlocked, and is opened anew only in another
// process (a child shares its parent's open file, and so its flock) or when
// the descriptor is no longer the lock file (closed behind our back, or the
// file gone with its directory).
struct Module::Lock::Shared {
    std::recursive_mutex mutex;
    int depth = 0;
    int fd = -1;
    pid_t pid = 0;
    dev_t dev = 0;
    ino_t ino = 0;
};

namespace {

Module::Lock::Shared* sharedLock(const std::string& dir)
{
    static std::mutex registryMutex;
    static std::map<std::string, Module::Lock::Shared*>* registry = new std::map<std::string, Module::Lock::Shared*>;
    std::lock_guard<std::mutex> guard(registryMutex);
    auto& slot = (*registry)[dir];
    if (!slot) slot = new Module::Lock::Shared;
    return slot;
}

void openLockFile(Module& m, Module::Lock::Shared& s)
{
    struct stat st;
    if (s.fd >= 0 && s.pid == ::getpid()) {
        const bool ours = ::fstat(s.fd, &st) == 0 && st.st_dev == s.dev && st.st_ino == s.ino;
        if (ours && st.st_nlink > 0) return;
        if (ours) ::close(s.fd);
    }
    s.fd = m.host().open(Module::stateFile("lock"), O_RDWR | O_CREAT, 0644);
    s.pid = ::getpid();
    if (s.fd >= 0 && ::fstat(s.fd, &st) == 0) {
        s.dev = st.st_dev;
        s.ino = st.st_ino;
    }
}

} // namespace

Module::Lock::Lock(Module& m) : shared_(sharedLock(m.dir()))
{
    shared_->mutex.lock();
    if (shared_->depth++ > 0) return;
    openLockFile(m, *shared_);
    if (shared_->fd >= 0)
        while (::flock(shared_->fd, LOCK_EX) != 0 && errno == EINTR) {
        }
}

Module::Lock::~Lock()
{
    if (--shared_->depth == 0 && shared_->fd >= 0) ::flock(shared_->fd, LOCK_UN);
    shared_->mutex.unlock();
}

bool Module::changed(const std::string& rel, Stamp& stamp)
{
    // Read before the file, so that a write meanwhile shows next time.
    const uint64_t generation = this->generation(rel);
    if (generation != kNoGeneration && generation == stamp.generation) return false;
    stamp.generation = generation;
    struct stat st;
    if (root_.stat(rel, &st) != 0) {
        bool was = stamp.size != -1;
        stamp.size = -1;
        return was;
    }
    bool differs = st.st_mtim.tv_sec != stamp.mtime.tv_sec || st.st_mtim.tv_nsec != stamp.mtime.tv_nsec ||
                   st.st_size != stamp.size || st.st_ino != stamp.ino;
    stamp.mtime = st.st_mtim;
    stamp.size = st.st_size;
    stamp.ino = st.st_ino;
    return differs;
}

bool Module::stateChanged(const std::string& name, Stamp& stamp) { return changed(stateFile(name), stamp); }

namespace {
std::atomic<uint64_t> writesOfState{0};
} // namespace

uint64_t Module::stateWrites() { return writesOfState.load(std::memory_order_acquire); }

namespace {

constexpr size_t kGenerations = 64;

size_t generationSlot(const std::string& rel)
{
    uint32_t h = 2166136261u;
    for (unsigned char c : rel) h = (h ^ c) * 16777619u;
    return h % kGenerations;
}

} // namespace

// Words of a file mapped shared: a load is all a view pays to learn that its
// file did not change, in this process or another. A counter per file (or a
// few) keeps the clock, which moves all the time, from staling other views.
uint64_t* Module::mapGenerations()
{
    if (generations_) return generations_;
    const int fd = root_.open(stateFile("generation"), O_RDWR | O_CREAT, 0644);
    if (fd < 0) return nullptr;
    const off_t bytes = kGenerations * sizeof(uint64_t);
    struct stat st;
    void* map = MAP_FAILED;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_size >= bytes || ::ftruncate(fd, bytes) == 0))
        map = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map != MAP_FAILED) generations_ = static_cast<uint64_t*>(map);
    return generations_;
}

uint64_t Module::generation(const std::string& rel)
{
    uint64_t* g = mapGenerations();
    return g ? __atomic_load_n(&g[generationSlot(rel)], __ATOMIC_ACQUIRE) : kNoGeneration;
}

// After the file is in place: a view that sees the new generation reads it.
void Module::stateWritten(const std::string& rel)
{
    writesOfState.fetch_add(1, std::memory_order_release);
    if (uint64_t* g = mapGenerations()) __atomic_fetch_add(&g[generationSlot(rel)], 1, __ATOMIC_RELEASE);
}

void Module::stateWritten()
{
    writesOfState.fetch_add(1, std::memory_order_release);
    if (uint64_t* g = mapGenerations())
        for (size_t i = 0; i < kGenerations; ++i) __atomic_fetch_add(&g[i], 1, __ATOMIC_RELEASE);
}

Module::~Module()
{
    tw_.reset();  // its log lines go out while the logs are open
    for (auto& [name, log] : logs_) {
        struct stat st;
        // Only a descriptor that is still the log's own is closed.
        if (log.fd >= 0 && ::fstat(log.fd, &st) == 0 && st.st_dev == log.dev && st.st_ino == log.ino) ::close(log.fd);
    }
    if (generations_) ::munmap(generations_, kGenerations * sizeof(uint64_t));
}

namespace {

// `dir` when it can be a module's directory.
const std::string& usableDir(const std::string& dir)
{
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw NotAModule(dir + " is no directory");
    if (isHostRoot(dir)) throw NotAModule(dir + " is the host's root directory, never a module");
    return dir;
}

} // namespace

Module::Module(const std::string& dir, Creating) : root_(usableDir(dir)) {}

Module::Module(const std::string& dir) : Module(dir, Creating{})
{
    struct stat st;
    if (root_.stat(stateFile("manifest"), &st) != 0 || !S_ISREG(st.st_mode))
        throw NotAModule(dir + " is no simulated module (it has no sim/manifest)");
}

bool Module::isModule(const std::string& dir)
{
    try {
        Module m(dir);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

Manifest Module::manifest()
{
    if (changed(stateFile("manifest"), manifestStamp_)) {
        std::string text;
        manifest_ = root_.readFile(stateFile("manifest"), text) ? Manifest::parse(text) : Manifest{};
        tables_.clear();
    }
    return manifest_;
}

void Module::writeManifest(const Manifest& m)
{
    Lock lock(*this);
    const std::string text = m.format();
    const bool written = root_.writeFileAtomic(stateFile("manifest"), text);
    stateWritten(stateFile("manifest"));
    manifestStamp_.size = -2;
    // The lock is held, so the file is the text just written: the view is
    // parsed from it, as a read would, and the stamp taken without a read.
    if (written && changed(stateFile("manifest"), manifestStamp_)) {
        manifest_ = Manifest::parse(text);
        tables_.clear();
    }
}

bool Module::updateManifest(const std::function<bool(Manifest&)>& change)
{
    Lock lock(*this);
    // Under the lock the generation tells for sure; stamps alone may not.
    if (generation(stateFile("manifest")) == kNoGeneration) manifestStamp_.size = -2;
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
        node.image = bay.device.substr(1);
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
        if (!drive || !imageStat(node.image, st) || !S_ISREG(st.st_mode)) return node;
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
    // The kernel's disks of the tw controllers' units.
    return tw::unitNode(*this, vpath, present);
}

// Images are moved and made only with a write of the manifest (pull, insert,
// swap): while its generation stands, an image's stat stands too.
bool Module::imageStat(const std::string& image, struct stat& st)
{
    const uint64_t generation = this->generation(stateFile("manifest"));
    ImageStat& kept = images_[image];
    if (generation == kNoGeneration || generation != kept.generation) {
        kept.found = root_.stat(image, &kept.st) == 0;
        kept.generation = generation;
    }
    st = kept.st;
    return kept.found;
}

std::vector<Window> Module::windows(int bay)
{
    manifest();
    if (bay <= 0 || bay > 4096) return {};
    if (tables_.size() < static_cast<size_t>(bay) + 1) tables_.resize(static_cast<size_t>(bay) + 1);
    TableCache& t = tables_[static_cast<size_t>(bay)];
    const std::string file = stateFile("tables/bay" + std::to_string(bay));
    if (changed(file, t.stamp)) {
        std::string text;
        t.windows = root_.readFile(file, text) ? parseWindows(text) : std::vector<Window>{};
    }
    return t.windows;
}

std::vector<Window> Module::rereadPartitions(int bay, bool answering)
{
    Manifest m = manifest();
    const Bay* b = m.bay(bay);
    std::vector<Window> found;
    // A unit of a tw controller stands where no bay is (tw_kernel.h).
    const std::string unit = b ? "" : tw::unitImage(*this, bay);
    if (answering && ((b && m.driveInBay(bay)) || !unit.empty())) {
        int fd = root_.open(b ? b->device : unit, O_RDONLY);
        struct stat st;
        if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
            found = readPartitionTable(static_cast<uint64_t>(st.st_size) / 512, b ? b->maxPartitions : 15,
                                       [fd](uint64_t sector, unsigned char* buf) {
                                           if (sector > (1ULL << 40)) return false;
                                           return ::pread(fd, buf, 512, static_cast<off_t>(sector * 512)) == 512;
                                       });
        }
        if (fd >= 0) ::close(fd);
    }
    Lock lock(*this);
    root_.makeDirs(stateFile("tables"));
    root_.writeFileAtomic(stateFile("tables/bay" + std::to_string(bay)), formatWindows(found));
    stateWritten(stateFile("tables/bay" + std::to_string(bay)));
    return found;
}

void Module::discover(int bay, bool answering)
{
    Manifest m = manifest();
    const Drive* d = m.driveInBay(bay);
    std::string text;
    if (answering && d && d->kind == "ata") {
        static const char hex[] = "0123456789abcdef";
        IdentifyBlock id = identifyData(*d, IdentifyForm::KernelFixed);
        for (size_t i = 0; i < id.size(); ++i) {
            text += hex[id[i] >> 4];
            text += hex[id[i] & 15];
            if (i % 32 == 31) text += '\n';
        }
    }
    Lock lock(*this);
    root_.makeDirs(stateFile("identify"));
    root_.writeFileAtomic(stateFile("identify/bay" + std::to_string(bay)), text);
    stateWritten(stateFile("identify/bay" + std::to_string(bay)));
}

std::string Module::discoveredIdentity(int bay)
{
    std::string text, bytes;
    if (!root_.readFile(stateFile("identify/bay" + std::to_string(bay)), text)) return "";
    int high = -1;
    for (char c : text) {
        int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (v < 0) continue;
        if (high < 0) {
            high = v;
        } else {
            bytes += static_cast<char>(high * 16 + v);
            high = -1;
        }
    }
    return bytes.size() == sizeof(IdentifyBlock) ? bytes : "";
}

uint64_t Module::nowUs()
{
    const timeval tv = now();
    return static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec);
}

timeval Module::now()
{
    if (!changed(stateFile("clock"), clockStamp_)) return clock_;
    std::string text;
    timeval tv{kClockStart, 0};
    // A clock that cannot be read counts from the start; tavsim reports it.
    if (root_.readFile(stateFile("clock"), text)) parseClock(text, tv);
    // Stamps alone can miss a change within one tick of the file system's clock.
    if (generation(stateFile("clock")) == kNoGeneration) clockStamp_.size = -2;
    clock_ = tv;
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
    root_.writeFileAtomic(stateFile("clock"), text);
    stateWritten(stateFile("clock"));
}

std::string Module::readState(const std::string& name)
{
    std::string text;
    root_.readFile(stateFile(name), text);
    return text;
}

void Module::writeState(const std::string& name, const std::string& text)
{
    Lock lock(*this);
    root_.writeFileAtomic(stateFile(name), text);
    stateWritten(stateFile(name));
}

bool Module::updateState(const std::string& name, const std::function<bool(std::string&)>& change)
{
    Lock lock(*this);
    std::string text = readState(name);
    if (!change(text)) return false;
    const bool written = root_.writeFileAtomic(stateFile(name), text);
    stateWritten(stateFile(name));
    return written;
}

// Logs stay open for appending, so that a line costs a check and a write.
// One replaced or removed (no link left), linked again (more than one), or a
// descriptor no longer the log's (closed behind our back) is opened again,
// through the sealed open that refuses what it must.
void Module::appendState(const std::string& name, const std::string& line)
{
    std::lock_guard<std::mutex> guard(logsMutex_);
    LogFile& log = logs_[name];
    struct stat st;
    const bool same = log.fd >= 0 && ::fstat(log.fd, &st) == 0 && st.st_dev == log.dev && st.st_ino == log.ino;
    if (!same || st.st_nlink != 1) {
        if (same) ::close(log.fd);
        log.fd = root_.open(stateFile(name), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (log.fd < 0 || ::fstat(log.fd, &st) != 0) return;
        log.dev = st.st_dev;
        log.ino = st.st_ino;
    }
    writeAll(log.fd, line + "\n");
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

std::string Module::shelfImage(const std::string& serial) const { return stateFile("shelf/" + fileSafe(serial) + ".img"); }

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

std::string Module::pull(int bay, bool noticed)
{
    std::string err;
    updateManifest([&](Manifest& m) {
        const Bay* b = m.bay(bay);
        Drive* d = m.driveInBay(bay);
        if (!b) err = "no bay " + std::to_string(bay);
        else if (!d) err = "bay " + std::to_string(bay) + " is empty";
        if (!err.empty()) return false;
        root_.makeDirs(stateFile("shelf"));
        if (root_.rename(b->device, shelfImage(d->serial)) != 0) {
            err = std::string("cannot move the image: ") + std::strerror(errno);
            return false;
        }
        d->bay = 0;
        return true;
    });
    if (err.empty()) {
        rereadPartitions(bay);
        discover(bay);
        // A tw controller notices at once that a port's drive left (tw_tasks.h).
        if (noticed) tw::twView(*this).settle();
    }
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
            if (fresh.sectors == 0) fresh.sectors = 156301488;
            if (fresh.model.empty()) fresh.model = "SIM-ATA 80G";
            root_.makeDirs(stateFile("shelf"));
            int fd = root_.open(shelfImage(fresh.serial), O_WRONLY | O_CREAT | O_EXCL, 0644);
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
        root_.makeDirs(dirName(b->device));
        if (root_.rename(shelfImage(d->serial), b->device) != 0) {
            err = std::string("cannot move the image: ") + std::strerror(errno);
            return false;
        }
        d->bay = bay;
        return true;
    });
    if (err.empty()) {
        rereadPartitions(bay);
        discover(bay);
    }
    return err;
}

// The drives change places behind the kernel's back: their tables are read
// again, but each bay keeps the identity found when its drive was found.
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
        const std::string tmp = stateFile("swap.img");
        root_.makeDirs(dirName(a->device));
        root_.makeDirs(dirName(b->device));
        if ((da && root_.rename(a->device, tmp) != 0) || (db && root_.rename(b->device, a->device) != 0) ||
            (da && root_.rename(tmp, b->device) != 0)) {
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
    int fd = root_.open(node->image, O_WRONLY);
    if (fd < 0) return std::string("cannot open the image: ") + std::strerror(errno);
    ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(node->offset + offset));
    ::close(fd);
    if (n != static_cast<ssize_t>(bytes.size())) return "short write to the image";
    return "";
}

} // namespace sim

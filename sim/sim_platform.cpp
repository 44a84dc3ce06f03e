#include "sim_platform.h"

#include <algorithm>
#include <cerrno>
#include <dlfcn.h>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bay_link.h"
#include "processes.h"
#include "sysfs.h"

static int giDebug_simplatform = 0;
#define TAV_DEBUG_FLAG giDebug_simplatform
#include "driveutils/tavlog.h"

namespace sim {
namespace {

struct StreamCookie {
    SimPlatform* self;
    int fd;
};

bool isDirectoryPrefixOf(const std::string& dir, const std::string& path)
{
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

// A fault's identity in the file: all but its remaining count.
std::string faultKey(const Fault& f)
{
    Fault k = f;
    k.times = 0;
    return k.format();
}


// The live platforms of the process, for the fork handlers. The handlers are
// installed once for the process (they cannot be removed) and act on
// whichever platforms live at the fork.
std::mutex& liveMutex()
{
    static std::mutex m;
    return m;
}

std::vector<SimPlatform*>& livePlatforms()
{
    static std::vector<SimPlatform*> all;
    return all;
}

void prepareAllForFork()
{
    liveMutex().lock();
    for (SimPlatform* p : livePlatforms()) p->forkPrepare();
}

void resumeAllInParent()
{
    auto& all = livePlatforms();
    for (auto it = all.rbegin(); it != all.rend(); ++it) (*it)->forkParent();
    liveMutex().unlock();
}

void resetAllInChild()
{
    for (SimPlatform* p : livePlatforms()) p->forkChild();
    new (&liveMutex()) std::mutex;
}

} // namespace

const std::vector<std::string>& mappedRoots()
{
    static const std::vector<std::string> roots = {"dev", "etc",  "proc",    "sys",    "var",
                                                   "tmp", "mnt", "configs", "modules"};
    return roots;
}

void SimPlatform::forkPrepare()
{
    sched_.forkPrepare();  // the scheduler's lock is taken before the platform's
    mu_.lock();
}

void SimPlatform::forkParent()
{
    mu_.unlock();
    sched_.forkParent();
}

void SimPlatform::forkChild()
{
    // Taken by the forking thread in the prepare handler; a recursive lock
    // checks its owner's thread id, which the child's thread does not have,
    // so it is made anew.
    new (&mu_) std::recursive_mutex;
    sched_.forkChild();
}

SimPlatform::SimPlatform(const std::string& dir)
    : module_(dir),
      registry_(DeviceRegistry::standard()),
      commands_(CommandTable::standard()),
      sched_(Scheduler::Clock{[this] { return nowMicros(); },
                              [this](uint64_t to) {
                                  std::lock_guard<std::recursive_mutex> guard(mu_);
                                  uint64_t now = nowMicros();
                                  if (to > now) module_.advance(to - now);
                              },
                              [this] { return nextDeviceEvent(); }})
{
    refreshFaults();
    static const int installed = ::pthread_atfork(prepareAllForFork, resumeAllInParent, resetAllInChild);
    (void)installed;
    std::lock_guard<std::mutex> lock(liveMutex());
    livePlatforms().push_back(this);
}

SimPlatform::~SimPlatform()
{
    {
        std::lock_guard<std::mutex> lock(liveMutex());
        auto& all = livePlatforms();
        all.erase(std::remove(all.begin(), all.end(), this), all.end());
    }
    for (auto& [fd, h] : handles_) {
        if (h.model) {
            DeviceContext ctx = context();
            h.model->close(ctx, h);
        }
        ::close(fd);
    }
    for (auto& [stream, pipe] : pipes_) delete pipe;
}

// ---- faults and counts ----

void SimPlatform::arm(const Fault& fault)
{
    Call call(*this);
    module_.updateState("faults", [&](std::string& text) {
        text += fault.format() + "\n";
        return true;
    });
    refreshFaults();
}

void SimPlatform::clearFaults()
{
    Call call(*this);
    module_.writeState("faults", "");
    refreshFaults();
}

std::vector<Fault> SimPlatform::faults()
{
    Call call(*this);
    refreshFaults();
    return faults_;
}

bool SimPlatform::powerIsCut()
{
    Call call(*this);
    return powerCut_;
}

uint64_t SimPlatform::calls(Op op, const std::string& pattern)
{
    Call call(*this);
    uint64_t n = 0;
    for (const auto& [key, count] : counts_)
        if (key.first == op && pathMatches(pattern, key.second)) n += count;
    return n;
}

void SimPlatform::resetCalls()
{
    Call call(*this);
    counts_.clear();
    for (Fault& f : faults_) f.seen = 0;
}

// The file is read again when it changed, by any process; a fault keeps the
// calls this process has seen of it.
void SimPlatform::refreshFaults()
{
    if (!module_.stateChanged("faults", faultStamp_)) return;
    std::vector<std::string> warnings;
    std::vector<Fault> fresh = parseFaults(module_.readState("faults"), &warnings);
    for (const std::string& w : warnings) TAV_LOG(0, "tavsim: %s\n", w.c_str());
    std::vector<bool> taken(faults_.size(), false);
    for (Fault& f : fresh)
        for (size_t i = 0; i < faults_.size(); ++i)
            if (!taken[i] && faultKey(faults_[i]) == faultKey(f)) {
                f.seen = faults_[i].seen;
                taken[i] = true;
                break;
            }
    faults_ = fresh;
}

// A fault that hit counts one call less in the file; the last call removes
// it. Other lines, armed meanwhile by anyone, stay.
void SimPlatform::spendFault(const Fault& fired)
{
    module_.updateState("faults", [&](std::string& text) {
        std::vector<Fault> all = parseFaults(text);
        for (size_t i = 0; i < all.size(); ++i) {
            if (faultKey(all[i]) != faultKey(fired)) continue;
            if (all[i].times > 0 && --all[i].times == 0) all.erase(all.begin() + static_cast<long>(i));
            text = formatFaults(all);
            return true;
        }
        return false;
    });
    refreshFaults();
}

SimPlatform::Hit SimPlatform::checkFault(Op op, const std::string& vpath, unsigned long request)
{
    ++counts_[{op, vpath}];
    refreshFaults();
    Hit hit;
    const Fault* fired = nullptr;
    for (Fault& f : faults_) {
        if (!f.matches(op, vpath, request)) continue;
        ++f.seen;
        if (!fired && f.times != 0 && f.seen >= std::max<uint64_t>(f.nth, 1)) {
            hit = Hit{true, f.action, f.error, f.shortCount};
            fired = &f;
        }
    }
    if (!fired) return hit;
    TAV_LOG(5, "tavsim: fault %s hits %s call %llu\n", fired->format().c_str(), vpath.c_str(),
            static_cast<unsigned long long>(fired->seen));
    if (fired->times > 0) spendFault(*fired);
    if (hit.action == Fault::Action::PowerCut) powerCut_ = true;
    return hit;
}

// ---- paths ----

bool SimPlatform::normalize(const char* path, std::string& vpath)
{
    Call call(*this);
    std::string full = path[0] == '/' ? std::string(path) : cwd_ + "/" + path;
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= full.size()) {
        size_t slash = full.find('/', pos);
        if (slash == std::string::npos) slash = full.size();
        std::string part = full.substr(pos, slash - pos);
        pos = slash + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (parts.empty()) return false;
            parts.pop_back();
        } else {
            parts.push_back(part);
        }
    }
    vpath.clear();
    for (const std::string& p : parts) vpath += "/" + p;
    if (vpath.empty()) vpath = "/";
    return true;
}

bool SimPlatform::refuse(const char* path, const char* why)
{
    TAV_LOG(0, "tavsim: refused %s: %s %s:%d\n", path, why, TAV_FILE, __LINE__);
    errno = EACCES;
    return false;
}

const HostDir& SimPlatform::procDir()
{
    // A child of the process (tav_system forks) has a directory of its own.
    if (!proc_ || procPid_ != ::getpid()) {
        procPid_ = ::getpid();
        proc_ = std::make_unique<HostDir>("/proc/" + std::to_string(procPid_));
    }
    return *proc_;
}

bool SimPlatform::resolve(const char* path, Resolved& out, bool forWriting)
{
    if (!path) {
        errno = EFAULT;
        return false;
    }
    if (!*path) {
        errno = ENOENT;
        return false;
    }
    if (!normalize(path, out.vpath)) return refuse(path, "leaves the module directory");
    const std::string self = "/proc/" + std::to_string(::getpid());
    for (const std::string& own : {std::string("/proc/self"), self})
        if (out.vpath == own || isDirectoryPrefixOf(own, out.vpath)) {
            // Read through, beneath the process's own directory: its links
            // (root, cwd, exe, fd/N, ...) lead anywhere on the host and are refused.
            if (forWriting) return refuse(path, "the process's own /proc entries are read-only");
            out.kind = Resolved::Proc;
            out.rel = out.vpath.substr(own.size());
            return true;
        }
    out.kind = Resolved::Mapped;
    // The bus directories of sysfs are links to /sys/block in the kernel.
    if (out.vpath.compare(0, 9, "/sys/bus/") == 0) out.vpath = sysfsCanonical(module_.manifest(), out.vpath);
    if (out.vpath == "/") return forWriting ? refuse(path, "the module root is read-only") : true;
    std::string root = out.vpath.substr(1, out.vpath.find('/', 1) - 1);
    const auto& roots = mappedRoots();
    if (std::find(roots.begin(), roots.end(), root) == roots.end()) return refuse(path, "not a mapped path");
    return true;
}

SimPlatform::Target SimPlatform::target(const Resolved& r)
{
    Target t;
    if (r.kind != Resolved::Mapped) return t;
    if ((t.model = registry_.prefixModel(r.vpath))) return t;
    if (std::optional<TableNode> made = nodes_.find(module_, r.vpath)) {
        DeviceNode node;
        node.character = made->character;
        node.major = made->major;
        node.minor = made->minor;
        t.node = node;
        t.present = true;
        t.tableNode = true;
        t.perm = made->perm;
        t.model = registry_.majorModel(made->character, made->major);
        return t;
    }
    t.node = module_.device(r.vpath, t.present);
    // Devfs keeps no node of a device the kernel has not found.
    if (t.node && t.present && !bench_ && !bayFound(module_, t.node->bay)) t.present = false;
    if (t.node) t.model = registry_.majorModel(t.node->character, t.node->major);
    return t;
}

SimPlatform::Handle* SimPlatform::handle(int fd)
{
    auto it = handles_.find(fd);
    return it == handles_.end() ? nullptr : &it->second;
}

// ---- descriptors ----

int SimPlatform::open(const char* path, int flags, mode_t mode)
{
    Call call(*this);
    const int accmode = flags & O_ACCMODE;
    Resolved r;
    if (!resolve(path, r, accmode != O_RDONLY || (flags & (O_CREAT | O_TRUNC)))) return -1;
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    Handle h;
    h.vpath = r.vpath;
    h.accmode = accmode;
    h.nonblocking = (flags & O_NONBLOCK) != 0;
    Target t = target(r);
    int fd = -1;
    if (r.kind == Resolved::Proc) {
        h.kind = Kind::Proc;
        fd = procDir().open(r.rel, flags);
    } else if (t.node) {
        if (!t.present) return fail(ENOENT);
        if ((flags & O_CREAT) && (flags & O_EXCL)) return fail(EEXIST);
        if (!t.model) return fail(ENXIO);  // a node of no driver
        h.kind = Kind::Node;
        h.model = t.model;
        h.node = *t.node;
        DeviceContext ctx = context();
        fd = t.model->open(ctx, h, flags);
    } else if (t.model) {
        h.kind = Kind::Node;
        h.model = t.model;
        DeviceContext ctx = context();
        fd = t.model->open(ctx, h, flags);
    } else {
        fd = module_.host().open(r.vpath, flags, mode);
    }
    if (fd < 0) return -1;
    h.hostFd = fd;
    handles_[fd] = h;
    return fd;
}

int SimPlatform::close(int fd)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (h && h->model) {
        DeviceContext ctx = context();
        h->model->close(ctx, *h);
    }
    // Not one we handed out: it may be one of the simulation's own.
    if (!h) HostDir::descriptorsChanged();
    handles_.erase(fd);
    return ::close(fd);
}

// read, write, pread and pwrite: `at` null for the descriptor's position.
ssize_t SimPlatform::transfer(int fd, void* buf, size_t count, const uint64_t* at, bool writing, bool again,
                              bool* wouldBlock)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h) {
        if (writing) return at ? ::pwrite(fd, buf, count, static_cast<off_t>(*at)) : ::write(fd, buf, count);
        return at ? ::pread(fd, buf, count, static_cast<off_t>(*at)) : ::read(fd, buf, count);
    }
    Hit hit = again ? Hit{} : checkFault(writing ? Op::Write : Op::Read, h->vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (hit.fires && hit.action == Fault::Action::Short) count = std::min<uint64_t>(count, hit.shortCount);
    if (h->model) {
        DeviceContext ctx = context();
        uint64_t where = at ? *at : h->pos;
        if (writing) return h->model->write(ctx, *h, buf, count, where, !at);
        ssize_t got = h->model->read(ctx, *h, buf, count, where, !at);
        if (got < 0 && errno == EWOULDBLOCK && !h->nonblocking && wouldBlock) *wouldBlock = true;
        return got;
    }
    if (!writing) return at ? ::pread(fd, buf, count, static_cast<off_t>(*at)) : ::read(fd, buf, count);
    if (powerCut_) {
        // Lost on the way: the call reports success and nothing reaches the file.
        if (h->accmode == O_RDONLY) return fail(EBADF);
        if (!at) ::lseek(fd, static_cast<off_t>(count), SEEK_CUR);
        return static_cast<ssize_t>(count);
    }
    return at ? ::pwrite(fd, buf, count, static_cast<off_t>(*at)) : ::write(fd, buf, count);
}

ssize_t SimPlatform::blockingRead(int fd, void* buf, size_t count, const uint64_t* at)
{
    Turn turn(sched_);
    bool wouldBlock = false;
    ssize_t got = transfer(fd, buf, count, at, false, false, &wouldBlock);
    while (wouldBlock) {
        wouldBlock = false;
        sched_.waitFor([this, fd] { return readReady(fd); });
        got = transfer(fd, buf, count, at, false, true, &wouldBlock);
    }
    return got;
}

// Asked by the scheduler while the reader waits; a descriptor closed
// meanwhile ends the wait, and the read then fails.
bool SimPlatform::readReady(int fd)
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    Handle* h = handle(fd);
    if (!h || !h->model) return true;
    DeviceContext ctx = context();
    return h->model->readReady(ctx, *h);
}

ssize_t SimPlatform::read(int fd, void* buf, size_t count) { return blockingRead(fd, buf, count, nullptr); }

ssize_t SimPlatform::write(int fd, const void* buf, size_t count)
{
    return transfer(fd, const_cast<void*>(buf), count, nullptr, true);
}

ssize_t SimPlatform::pread(int fd, void* buf, size_t count, off_t offset)
{
    if (offset < 0) return fail(EINVAL);
    uint64_t at = static_cast<uint64_t>(offset);
    return blockingRead(fd, buf, count, &at);
}

ssize_t SimPlatform::pwrite(int fd, const void* buf, size_t count, off_t offset)
{
    if (offset < 0) return fail(EINVAL);
    uint64_t at = static_cast<uint64_t>(offset);
    return transfer(fd, const_cast<void*>(buf), count, &at, true);
}

off_t SimPlatform::lseek(int fd, off_t offset, int whence)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h) return ::lseek(fd, offset, whence);
    Hit hit = checkFault(Op::Lseek, h->vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (!h->model) return ::lseek(fd, offset, whence);
    DeviceContext ctx = context();
    return h->model->seek(ctx, *h, offset, whence);
}

int SimPlatform::fsync(int fd)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h) return ::fsync(fd);
    Hit hit = checkFault(Op::Fsync, h->vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (!h->model) return ::fsync(fd);
    DeviceContext ctx = context();
    return h->model->fsync(ctx, *h);
}

int SimPlatform::ioctl(int fd, unsigned long request, void* arg)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h) {
        TAV_LOG(0, "tavsim: refused ioctl 0x%lx on descriptor %d opened outside the module %s:%d\n", request, fd,
                TAV_FILE, __LINE__);
        return fail(ENOTTY);
    }
    Hit hit = checkFault(Op::Ioctl, h->vpath, request);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    DeviceModel* model = h->kind == Kind::Socket ? registry_.socketModel() : h->model;
    if (!model) return fail(ENOTTY);
    DeviceContext ctx = context();
    return model->ioctl(ctx, *h, request, arg);
}

int SimPlatform::fstat(int fd, struct ::stat* st)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h) return ::fstat(fd, st);
    Hit hit = checkFault(Op::Stat, h->vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (!h->model) return ::fstat(fd, st);
    DeviceContext ctx = context();
    return h->model->fstat(ctx, *h, st);
}

void* SimPlatform::mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    Call call(*this);
    Handle* h = handle(fd);
    if ((flags & MAP_ANONYMOUS) || (h && h->kind == Kind::File)) return ::mmap(addr, length, prot, flags, fd, offset);
    if (!h || !h->model) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    Hit hit = checkFault(Op::Mmap, h->vpath);
    if (hit.fires && hit.action == Fault::Action::Error) {
        errno = hit.error;
        return MAP_FAILED;
    }
    DeviceContext ctx = context();
    void* p = h->model->mapRegion(ctx, *h, length, prot, offset);
    if (p != MAP_FAILED) mappings_[reinterpret_cast<uintptr_t>(p)] = Mapping{h->model, length, h->vpath};
    return p;
}

SimPlatform::Mapping* SimPlatform::mappingAt(const volatile void* addr, uintptr_t& base)
{
    auto a = reinterpret_cast<uintptr_t>(const_cast<const void*>(addr));
    auto it = mappings_.upper_bound(a);
    if (it == mappings_.begin()) return nullptr;
    --it;
    if (a >= it->first + it->second.length) return nullptr;
    base = it->first;
    return &it->second;
}

int SimPlatform::munmap(void* addr, size_t length)
{
    Call call(*this);
    auto it = mappings_.find(reinterpret_cast<uintptr_t>(addr));
    if (it == mappings_.end()) return ::munmap(addr, length);
    DeviceModel* model = it->second.model;
    mappings_.erase(it);
    DeviceContext ctx = context();
    return model->unmapRegion(ctx, addr, length);
}

void SimPlatform::storeRegister(volatile uint32_t* reg, uint32_t value)
{
    Call call(*this);
    uintptr_t base = 0;
    Mapping* m = mappingAt(reg, base);
    if (!m) {
        *reg = value;
        return;
    }
    size_t offset = reinterpret_cast<uintptr_t>(const_cast<uint32_t*>(reg)) - base;
    Hit hit = checkFault(Op::Store, m->vpath);
    if (hit.fires) {
        TAV_LOG(5, "tavsim: store of 0x%08x at 0x%zx of %s lost %s:%d\n", value, offset, m->vpath.c_str(), TAV_FILE,
                __LINE__);
        return;
    }
    DeviceContext ctx = context();
    m->model->storeRegister(ctx, reinterpret_cast<void*>(base), offset, value);
}

int SimPlatform::nvramPromDownload(int fd, const char* filename)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h || !h->model) return 1;
    // A broken run of the player reads as a failed verification.
    Hit hit = checkFault(Op::Prom, h->vpath);
    if (hit.fires) return 2;
    DeviceContext ctx = context();
    return h->model->promDownload(ctx, *h, filename ? filename : "");
}

// ---- paths ----

// Links are refused in the module, so stat and lstat are one.
int SimPlatform::pathStat(const char* path, struct ::stat* st)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, false)) return -1;
    Hit hit = checkFault(Op::Stat, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (r.kind == Resolved::Proc) return procDir().stat(r.rel, st);
    Target t = target(r);
    if (t.tableNode) {
        *st = {};
        st->st_mode = (t.node->character ? S_IFCHR : S_IFBLK) | (t.perm & 07777);
        st->st_rdev = makedev(t.node->major, t.node->minor);
        st->st_nlink = 1;
        st->st_atim.tv_sec = st->st_mtim.tv_sec = st->st_ctim.tv_sec = module_.now().tv_sec;
        return 0;
    }
    if (t.node && !t.present) return fail(ENOENT);
    if (t.model) {
        DeviceContext ctx = context();
        return t.model->stat(ctx, r.vpath, t.node ? *t.node : DeviceNode{}, st);
    }
    return module_.host().stat(r.vpath, st);
}

int SimPlatform::stat(const char* path, struct ::stat* st) { return pathStat(path, st); }

int SimPlatform::lstat(const char* path, struct ::stat* st) { return pathStat(path, st); }

int SimPlatform::access(const char* path, int mode)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, false)) return -1;
    Hit hit = checkFault(Op::Stat, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    if (r.kind == Resolved::Proc) return (mode & W_OK) ? fail(EACCES) : (procDir().exists(r.rel) ? 0 : -1);
    Target t = target(r);
    if (t.node) return t.present ? 0 : fail(ENOENT);
    if (t.model) {
        // Nodes and files of a model's own exist as the model tells.
        struct ::stat st;
        DeviceContext ctx = context();
        return t.model->stat(ctx, r.vpath, DeviceNode{}, &st);
    }
    return module_.host().exists(r.vpath) ? 0 : -1;
}

int SimPlatform::mkdir(const char* path, mode_t mode)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    bool present = false;
    if (module_.device(r.vpath, present)) return fail(present ? EEXIST : EPERM);
    if (nodes_.find(module_, r.vpath)) return fail(EEXIST);
    return module_.host().mkdir(r.vpath, mode);
}

// No real node is ever made: the node goes into the module's node table,
// after the checks of the kernel (the path free, its directory there).
int SimPlatform::mknod(const char* path, mode_t mode, dev_t dev)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    if (r.kind != Resolved::Mapped) return fail(EACCES);
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    bool present = false;
    if (module_.device(r.vpath, present)) return fail(present ? EEXIST : EPERM);
    if (registry_.prefixModel(r.vpath)) return fail(EEXIST);
    if (!S_ISCHR(mode) && !S_ISBLK(mode)) return fail(EINVAL);
    struct ::stat st;
    if (module_.host().stat(r.vpath, &st) == 0) return fail(EEXIST);
    const size_t slash = r.vpath.rfind('/');
    if (slash > 0) {
        if (module_.host().stat(r.vpath.substr(0, slash), &st) != 0) return fail(ENOENT);
        if (!S_ISDIR(st.st_mode)) return fail(ENOTDIR);
    }
    TableNode node{r.vpath, S_ISCHR(mode), major(dev), minor(dev), static_cast<mode_t>(mode & 07777)};
    return nodes_.add(module_, node) ? 0 : -1;
}

int SimPlatform::unlink(const char* path)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    Target t = target(r);
    if (t.tableNode) {
        Hit hit = checkFault(Op::Unlink, r.vpath);
        if (hit.fires) return fail(hit.action == Fault::Action::Error ? hit.error : EIO);
        return nodes_.remove(module_, r.vpath) ? 0 : -1;
    }
    if (t.node || t.model) {
        refuse(path, "device nodes and attributes are not removed by the system");
        return fail(EPERM);
    }
    Hit hit = checkFault(Op::Unlink, r.vpath);
    if (hit.fires) return fail(hit.action == Fault::Action::Error ? hit.error : EIO);
    return module_.host().unlink(r.vpath);
}

int SimPlatform::remove(const char* path)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, true)) return -1;
    Target t = target(r);
    if (t.tableNode) return nodes_.remove(module_, r.vpath) ? 0 : -1;
    if (t.node || t.model) {
        refuse(path, "device nodes and attributes are not removed by the system");
        return fail(EPERM);
    }
    return module_.host().remove(r.vpath);
}

int SimPlatform::rename(const char* from, const char* to)
{
    Call call(*this);
    Resolved a, b;
    if (!resolve(from, a, true) || !resolve(to, b, true)) return -1;
    Target ta = target(a), tb = target(b);
    if (ta.node || ta.model || tb.node || tb.model) {
        refuse(from, "device nodes and attributes are not renamed by the system");
        return fail(EPERM);
    }
    Hit hit = checkFault(Op::Rename, a.vpath);
    if (hit.fires) return fail(hit.action == Fault::Action::Error ? hit.error : EIO);
    return module_.host().rename(a.vpath, b.vpath);
}

int SimPlatform::mkstemp(char* templ)
{
    Call call(*this);
    Resolved r;
    if (!resolve(templ, r, true)) return -1;
    size_t len = std::strlen(templ);
    if (len < 6 || std::strcmp(templ + len - 6, "XXXXXX") != 0) return fail(EINVAL);
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    std::string rel = r.vpath;
    int fd = module_.host().mkstemp(rel);
    if (fd < 0) return -1;
    std::memcpy(templ + len - 6, rel.data() + rel.size() - 6, 6);
    Handle h;
    h.vpath = rel;
    h.accmode = O_RDWR;
    h.hostFd = fd;
    handles_[fd] = h;
    return fd;
}

DIR* SimPlatform::opendir(const char* path)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, false)) return nullptr;
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) {
        errno = hit.error;
        return nullptr;
    }
    if (r.kind == Resolved::Proc) return procDir().opendir(r.rel);
    Target t = target(r);
    if (t.node) {
        errno = t.present ? ENOTDIR : ENOENT;
        return nullptr;
    }
    return module_.host().opendir(r.vpath);
}

// Every stream of the module goes through the platform's own calls, so that
// faults and power cuts reach what is written by stdio too.
FILE* SimPlatform::streamOf(int fd, const char* mode)
{
    auto* cookie = new StreamCookie{this, fd};
    cookie_io_functions_t io{
        [](void* c, char* buf, size_t size) -> ssize_t {
            auto* s = static_cast<StreamCookie*>(c);
            return s->self->read(s->fd, buf, size);
        },
        [](void* c, const char* buf, size_t size) -> ssize_t {
            auto* s = static_cast<StreamCookie*>(c);
            ssize_t n = s->self->write(s->fd, buf, size);
            return n < 0 ? 0 : n;  // stdio takes 0 as the error of a write
        },
        [](void* c, off64_t* offset, int whence) -> int {
            auto* s = static_cast<StreamCookie*>(c);
            off_t at = s->self->lseek(s->fd, static_cast<off_t>(*offset), whence);
            if (at < 0) return -1;
            *offset = at;
            return 0;
        },
        [](void* c) -> int {
            auto* s = static_cast<StreamCookie*>(c);
            int rc = s->self->close(s->fd);
            delete s;
            return rc;
        }};
    FILE* f = ::fopencookie(cookie, mode, io);
    if (!f) {
        delete cookie;
        close(fd);
    }
    return f;
}

FILE* SimPlatform::fopen(const char* path, const char* mode)
{
    if (!mode || !*mode) {
        errno = EINVAL;
        return nullptr;
    }
    bool plus = std::strchr(mode, '+') != nullptr;
    int flags = 0;
    switch (mode[0]) {
    case 'r': flags = plus ? O_RDWR : O_RDONLY; break;
    case 'w': flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
    case 'a': flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND; break;
    default: errno = EINVAL; return nullptr;
    }
    Call call(*this);
    int fd = open(path, flags, 0666);
    return fd < 0 ? nullptr : streamOf(fd, mode);
}

int SimPlatform::chdir(const char* path)
{
    Call call(*this);
    Resolved r;
    if (!resolve(path, r, false)) return -1;
    if (r.kind == Resolved::Proc) {
        refuse(path, "no working directory in /proc");
        return -1;
    }
    struct stat st;
    if (module_.host().stat(r.vpath, &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) return fail(ENOTDIR);
    cwd_ = r.vpath;
    return 0;
}

// Images are written straight through: there is nothing to flush.
void SimPlatform::sync() {}

// ---- commands ----

int SimPlatform::runCommand(const std::string& kind, const std::string& command, const std::string& input,
                            std::string& output)
{
    // Redirected output lands in files of the module, opened as the system's own.
    struct Files : OutputFiles {
        explicit Files(SimPlatform& p) : platform(p) {}
        int open(const std::string& path, bool append) override
        {
            return platform.open(path.c_str(), O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0666);
        }
        bool write(int fd, const std::string& data) override
        {
            for (size_t done = 0; done < data.size();) {
                ssize_t n = platform.write(fd, data.data() + done, data.size() - done);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) return false;
                done += static_cast<size_t>(n);
            }
            return true;
        }
        void close(int fd) override { platform.close(fd); }
        SimPlatform& platform;
    } files(*this);
    bool known = false;
    CommandResult result = commands_.run(module_, command, input, known, &files);
    module_.logCommand(kind, result.status, known, command);
    if (!known) TAV_LOG(0, "tavsim: no handler for command: %s %s:%d\n", command.c_str(), TAV_FILE, __LINE__);
    output = result.output;
    return result.status;
}

int SimPlatform::system(const char* command)
{
    Call call(*this);
    if (!command) return 1;  // a shell is there
    std::string output;
    int status = runCommand("system", command, "", output);
    return W_EXITCODE(status & 0xff, 0);
}

FILE* SimPlatform::popen(const char* command, const char* mode)
{
    Call call(*this);
    if (!command || !mode || (mode[0] != 'r' && mode[0] != 'w')) {
        errno = EINVAL;
        return nullptr;
    }
    const std::string program(command, std::strcspn(command, " \t|"));
    Hit hit = checkFault(Op::Popen, program);
    if (hit.fires && hit.action == Fault::Action::Error) {
        errno = hit.error;
        return nullptr;
    }
    auto* pipe = new Pipe;
    pipe->command = command;
    pipe->writing = mode[0] == 'w';
    if (!pipe->writing) pipe->status = runCommand("popen", command, "", pipe->buffer);
    struct Io {
        static ssize_t read(void* cookie, char* buf, size_t size)
        {
            auto* p = static_cast<Pipe*>(cookie);
            size_t n = std::min(size, p->buffer.size() - p->pos);
            std::memcpy(buf, p->buffer.data() + p->pos, n);
            p->pos += n;
            return static_cast<ssize_t>(n);
        }
        static ssize_t write(void* cookie, const char* buf, size_t size)
        {
            static_cast<Pipe*>(cookie)->buffer.append(buf, size);
            return static_cast<ssize_t>(size);
        }
        static int close(void*) { return 0; }
    };
    cookie_io_functions_t io{Io::read, Io::write, nullptr, Io::close};
    FILE* f = ::fopencookie(pipe, pipe->writing ? "w" : "r", io);
    if (!f) {
        delete pipe;
        return nullptr;
    }
    pipes_[f] = pipe;
    return f;
}

int SimPlatform::pclose(FILE* stream)
{
    Call call(*this);
    auto it = pipes_.find(stream);
    if (it == pipes_.end()) return fail(ECHILD);
    Pipe* pipe = it->second;
    pipes_.erase(it);
    ::fclose(stream);  // flushes what was written into the pipe's buffer
    int status = pipe->status;
    if (pipe->writing) {
        std::string output;
        status = runCommand("popen", pipe->command, pipe->buffer, output);
    }
    delete pipe;
    return W_EXITCODE(status & 0xff, 0);
}

int SimPlatform::kill(pid_t pid, int signal)
{
    Call call(*this);
    const std::string command = "kill -" + std::to_string(signal) + " " + std::to_string(pid);
    // Only the module's own processes (processes.h) are ever signalled: a
    // process of the host, this process, or a group with a stranger in it
    // answers ESRCH, as if it were not there.
    auto refuse = [&](int error) {
        module_.logCommand("kill", error, true, command);
        return fail(error);
    };
    if (pid == 0 || pid == -1 || pid == ::getpid() || pid == -::getpgrp()) return refuse(ESRCH);
    const std::string& root = module_.dir();
    if (pid > 0) {
        HostProcess p;
        if (!readHostProcess(pid, p) || !belongsToModule(p, root)) return refuse(ESRCH);
    } else {
        bool any = false;
        for (const HostProcess& p : hostProcesses()) {
            if (p.pgid != -pid) continue;
            if (p.pid == ::getpid() || !belongsToModule(p, root)) return refuse(ESRCH);
            any = true;
        }
        if (!any) return refuse(ESRCH);
    }
    int rc = ::kill(pid, signal);
    module_.logCommand("kill", rc == 0 ? 0 : errno, true, command);
    return rc;
}

int SimPlatform::nullDevice(bool writing)
{
    if (writing) return module_.host().open(Module::stateFile("null"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
    ::close(ends[1]);
    return ends[0];
}

int SimPlatform::daemon(int nochdir, int noclose)
{
    Call call(*this);
    module_.logCommand("daemon", 0, true, "daemon " + std::to_string(nochdir) + " " + std::to_string(noclose));
    if (!nochdir) cwd_ = "/";
    if (!noclose) {
        for (int fd = 0; fd < 3; ++fd) {
            int null = nullDevice(fd != 0);
            if (null < 0) return -1;
            ::dup2(null, fd);
            ::close(null);
            HostDir::descriptorsChanged();
        }
    }
    return 0;
}

FILE* SimPlatform::freopen(const char* path, const char* mode, FILE* stream)
{
    Call call(*this);
    if (!path || !mode || !stream) {
        errno = EINVAL;
        return nullptr;
    }
    const bool writing = mode[0] != 'r' || std::strchr(mode, '+');
    int target = ::fileno(stream);
    std::string vpath;
    int fd = -1;
    if (normalize(path, vpath) && vpath == "/dev/null") {
        fd = nullDevice(writing);
    } else {
        int flags = writing ? (O_WRONLY | O_CREAT | (mode[0] == 'a' ? O_APPEND : O_TRUNC)) : O_RDONLY;
        fd = open(path, flags, 0666);
        if (fd >= 0 && handles_[fd].kind != Kind::File) {
            close(fd);  // a device node cannot back a standard stream here
            errno = EINVAL;
            return nullptr;
        }
        if (fd >= 0) handles_.erase(fd);  // the stream's own descriptor from now on
    }
    if (fd < 0 || target < 0) {
        if (fd >= 0) ::close(fd);
        if (target < 0) errno = EBADF;
        return nullptr;
    }
    ::fflush(stream);
    int rc = ::dup2(fd, target);
    ::close(fd);
    HostDir::descriptorsChanged();
    if (rc < 0) return nullptr;
    ::clearerr(stream);
    return stream;
}

void SimPlatform::openlog(const char* ident, int /*option*/, int facility)
{
    Call call(*this);
    syslogIdent_ = ident ? ident : "";
    syslogFacility_ = facility;
}

void SimPlatform::syslog(int priority, const char* text)
{
    Call call(*this);
    std::string flat = text ? text : "";
    while (!flat.empty() && flat.back() == '\n') flat.pop_back();
    for (char& c : flat)
        if (c == '\n' || c == '\r') c = ' ';
    module_.appendState("syslog.log", std::to_string(module_.now().tv_sec) + " " +
                                          (syslogIdent_.empty() ? "-" : syslogIdent_) + " " +
                                          std::to_string(::getpid()) + " " + std::to_string(syslogFacility_) + " " +
                                          std::to_string(priority) + " " + flat);
}

void SimPlatform::closelog()
{
    Call call(*this);
    syslogIdent_.clear();
    syslogFacility_ = 8;
}

// ---- shared objects ----

void* SimPlatform::dlopen(const char* path, int flags)
{
    Call call(*this);
    Resolved r;
    if (!path || !resolve(path, r, false)) {
        dlError_ = std::string("refused ") + (path ? path : "(null)") + ": outside the module";
        return nullptr;
    }
    if (r.kind != Resolved::Mapped || (r.vpath.rfind("/modules/", 0) != 0 && r.vpath.rfind("modules/", 0) != 0)) {
        refuse(path, "no module's shared object");
        dlError_ = std::string("refused ") + path + ": no module's shared object";
        return nullptr;
    }
    Hit hit = checkFault(Op::Open, r.vpath);
    if (hit.fires && hit.action == Fault::Action::Error) {
        dlError_ = std::string(path) + ": " + std::strerror(hit.error);
        return nullptr;
    }
    int fd = module_.host().open(r.vpath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        dlError_ = std::string(path) + ": " + std::strerror(errno);
        return nullptr;
    }
    const std::string opened = "/proc/self/fd/" + std::to_string(fd);
    void* handle = ::dlopen(opened.c_str(), flags);
    if (!handle) {
        const char* text = ::dlerror();
        dlError_ = text ? text : "dlopen failed";
        ::close(fd);
        return nullptr;
    }
    dlFds_.emplace_back(handle, fd);
    return handle;
}

void* SimPlatform::dlsym(void* handle, const char* symbol) { return ::dlsym(handle, symbol); }

int SimPlatform::dlclose(void* handle)
{
    Call call(*this);
    int rc = ::dlclose(handle);
    for (auto it = dlFds_.rbegin(); it != dlFds_.rend(); ++it) {
        if (it->first != handle) continue;
        ::close(it->second);
        dlFds_.erase(std::next(it).base());
        break;
    }
    return rc;
}

char* SimPlatform::dlerror()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    if (dlError_.empty()) return ::dlerror();
    dlShown_.swap(dlError_);
    dlError_.clear();
    return dlShown_.data();
}

// ---- time ----

time_t SimPlatform::time(time_t* out)
{
    Call call(*this);
    time_t now = module_.now().tv_sec;
    if (out) *out = now;
    return now;
}

int SimPlatform::gettimeofday(struct timeval* tv)
{
    Call call(*this);
    if (!tv) return fail(EFAULT);
    *tv = module_.now();
    return 0;
}

uint64_t SimPlatform::nowMicros()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    return module_.nowUs();
}

std::optional<uint64_t> SimPlatform::nextDeviceEvent()
{
    std::lock_guard<std::recursive_mutex> guard(mu_);
    DeviceContext ctx = context();
    std::optional<uint64_t> next;
    for (DeviceModel* model : registry_.all()) {
        std::optional<uint64_t> t = model->nextEvent(ctx);
        if (t && (!next || *t < *next)) next = t;
    }
    return next;
}

// Holds the turn and no lock of the platform while it waits.
void SimPlatform::waitFor(uint64_t micros)
{
    sched_.waitUntil(nowMicros() + micros);
}

unsigned int SimPlatform::sleep(unsigned int seconds)
{
    Turn turn(sched_);
    waitFor(static_cast<uint64_t>(seconds) * 1000000);
    return 0;
}

int SimPlatform::usleep(useconds_t usec)
{
    Turn turn(sched_);
    waitFor(usec);
    return 0;
}

int SimPlatform::nanosleep(const struct timespec* req, struct timespec* rem)
{
    Turn turn(sched_);
    if (!req) return fail(EFAULT);
    if (req->tv_sec < 0 || req->tv_nsec < 0 || req->tv_nsec >= 1000000000) return fail(EINVAL);
    waitFor(static_cast<uint64_t>(req->tv_sec) * 1000000 + static_cast<uint64_t>(req->tv_nsec) / 1000);
    if (rem) *rem = timespec{0, 0};
    return 0;
}

int SimPlatform::waitTimeout(struct timeval* timeout)
{
    Turn turn(sched_);
    {
        std::lock_guard<std::recursive_mutex> guard(mu_);
        if (!timeout) {
            TAV_LOG(0, "tavsim: a wait without a time-out would never end %s:%d\n", TAV_FILE, __LINE__);
            return fail(EINVAL);
        }
        if (timeout->tv_sec < 0 || timeout->tv_usec < 0) return fail(EINVAL);
        // A fault cuts the wait short at once (EINTR) or refuses it.
        Hit hit = checkFault(Op::Wait, "-");
        if (hit.fires) return fail(hit.error);
    }
    waitFor(static_cast<uint64_t>(timeout->tv_sec) * 1000000 + static_cast<uint64_t>(timeout->tv_usec));
    *timeout = timeval{0, 0};
    return 0;
}

// ---- sockets and the controller library ----

int SimPlatform::socket(int domain, int type, int protocol)
{
    Call call(*this);
    int fd = ::socket(domain, type, protocol);
    if (fd >= 0) {
        Handle h;
        h.kind = Kind::Socket;
        h.vpath = "socket";
        h.hostFd = fd;
        handles_[fd] = h;
    }
    return fd;
}

int SimPlatform::setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h || h->kind != Kind::Socket) return fail(ENOTSOCK);
    return ::setsockopt(fd, level, name, value, length);
}

// A unix-family path is a path of the module; an internet-family socket
// binds to loopback for all addresses and is refused any other than a
// loopback one, so no test ever opens a port to the network.
int SimPlatform::bind(int fd, const struct sockaddr* address, socklen_t length)
{
    Call call(*this);
    Handle* h = handle(fd);
    if (!h || h->kind != Kind::Socket) return fail(ENOTSOCK);
    if (!address || length < sizeof(sa_family_t)) return fail(EINVAL);
    if (address->sa_family == AF_UNIX) {
        sockaddr_un un{};
        std::memcpy(&un, address, std::min<size_t>(length, sizeof un));
        const size_t pathMax = sizeof un.sun_path;
        std::string path(un.sun_path, strnlen(un.sun_path, pathMax));
        Resolved r;
        if (!resolve(path.c_str(), r, true)) return -1;
        if (r.kind != Resolved::Mapped) return fail(EACCES);
        std::string host = module_.dir() + r.vpath;
        if (host.size() >= pathMax) {
            TAV_LOG(0, "tavsim: refused bind of %s: its module path %s is longer than %zu %s:%d\n", path.c_str(),
                    host.c_str(), pathMax - 1, TAV_FILE, __LINE__);
            return fail(ENAMETOOLONG);
        }
        std::memset(un.sun_path, 0, pathMax);
        std::memcpy(un.sun_path, host.data(), host.size());
        return ::bind(fd, reinterpret_cast<const sockaddr*>(&un), sizeof un);
    }
    if (address->sa_family == AF_INET) {
        if (length < sizeof(sockaddr_in)) return fail(EINVAL);
        sockaddr_in in{};
        std::memcpy(&in, address, sizeof in);
        // All addresses become loopback; a loopback address stays; any other
        // is one the host does not have, as inside a test's namespace.
        const uint32_t asked = ntohl(in.sin_addr.s_addr);
        if (asked == INADDR_ANY)
            in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else if ((asked >> 24) != 127)
            return fail(EADDRNOTAVAIL);
        return ::bind(fd, reinterpret_cast<const sockaddr*>(&in), sizeof in);
    }
    return fail(EAFNOSUPPORT);
}

int SimPlatform::gethostname(char* name, size_t length)
{
    Call call(*this);
    Hit hit = checkFault(Op::Read, "/proc/sys/kernel/hostname");
    if (hit.fires && hit.action == Fault::Action::Error) return fail(hit.error);
    // Read again only when the file changed: the agent asks at every reply.
    if (module_.stateChanged("hostname", hostnameStamp_)) {
        hostname_ = module_.readState("hostname");
        while (!hostname_.empty() && (hostname_.back() == '\n' || hostname_.back() == '\r')) hostname_.pop_back();
    }
    const std::string& host = hostname_;
    if (!name || host.size() + 1 > length) return fail(ENAMETOOLONG);
    std::memcpy(name, host.c_str(), host.size() + 1);
    return 0;
}

// No controllers in the IDE family: the answers of an absent library.
int SimPlatform::InitMegaLib() { return 0; }

int SimPlatform::GetDllVersion(char* major, char* minor)
{
    if (major) std::strcpy(major, "0");
    if (minor) std::strcpy(minor, "0");
    return -1;
}

int SimPlatform::MegaLibCommand(int, int, int, int, int, void*) { return -1; }

} // namespace sim

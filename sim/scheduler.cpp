#include "scheduler.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <cstdlib>
#include <fcntl.h>
#include <sys/syscall.h>
#include <map>
#include <new>
#include <unistd.h>
#include <utility>

namespace sim {

using RealClock = std::chrono::steady_clock;

namespace {

enum class State { Ready, Running, Waiting, Outside };

struct Slot {
    State state = State::Outside;
    int depth = 0;                       // 1 while a call of the platform is under way
    uint64_t calls = 0;                  // calls since the turn was taken
    uint64_t deadline = 0;               // a timed wait's end
    std::function<bool()> ready;         // a wait for a device, else empty
    uint64_t seq = 0;                    // order of waits begun
    RealClock::time_point lastCall{};
    pid_t tid = ::gettid();              // the thread, as the kernel knows it
};

// A file of one of this process's threads under /proc, as text; false when
// the thread is gone or the file cannot be read.
bool readTaskFile(pid_t tid, const char* name, char* text, size_t size)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/%s", static_cast<int>(tid), name);
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    ssize_t got = ::read(fd, text, size - 1);
    ::close(fd);
    if (got <= 0) return false;
    text[got] = '\0';
    return true;
}

// True when the kernel has the thread asleep (on a lock, a pipe, a timer) or
// stopped, rather than running or ready to run: a thread that is only slow
// or waiting for a core keeps its turn and holds the clock. A thread that is
// gone counts as asleep. Reads the process's own /proc, nothing of the module.
bool asleepInKernel(pid_t tid)
{
    char text[512];
    if (!readTaskFile(tid, "stat", text, sizeof text)) return true;
    // "TID (NAME) STATE ...": the name may hold anything, so look after its last ')'.
    const char* end = std::strrchr(text, ')');
    if (!end || end[1] != ' ') return true;
    char state = end[2];
    return state == 'S' || state == 'T' || state == 't' || state == 'Z' || state == 'X';
}

// The thread sleeps in a wait for a child process: a daemon, a command. It
// waits on the host, and its child runs on the host's clock, so the virtual
// clock need not wait for it.
bool waitingForChild(pid_t tid)
{
    char text[64];
    if (!readTaskFile(tid, "syscall", text, sizeof text)) return false;
    // "NR ARGS..." while in a system call; "running" or "-1 ..." otherwise.
    char* end = nullptr;
    const long nr = std::strtol(text, &end, 10);
    return end != text && (nr == SYS_wait4 || nr == SYS_waitid) && asleepInKernel(tid);
}

// The threads of this process, from its /proc stat; 0 when it cannot be read.
int threadsOfProcess()
{
    int fd = ::open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char text[1024];
    ssize_t got = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (got <= 0) return 0;
    text[got] = '\0';
    // Field 20, num_threads, is the 18th after the name's last ')'.
    const char* p = std::strrchr(text, ')');
    for (int field = 0; p && field < 18; ++field) p = std::strchr(p + 1, ' ');
    return p ? std::atoi(p + 1) : 0;
}

} // namespace

struct Scheduler::Core {
    explicit Core(Clock c) : clock(std::move(c)) {}

    Clock clock;
    std::mutex m;
    std::condition_variable cv;
    std::vector<std::unique_ptr<Slot>> slots;
    std::deque<Slot*> queue;             // threads that asked for the turn
    Slot* owner = nullptr;
    uint64_t seq = 0;
    bool pacing = false;
    bool dead = false;                   // the platform is gone
    std::map<pid_t, RealClock::time_point> strangers;  // threads not counted yet, first seen
    std::atomic<int> arriving{0};        // threads in enter, not yet holding the lock
    bool parked = false;                 // no other thread gets a turn again
    Slot* parkedBy = nullptr;            // the thread that parked the others
    RealClock::time_point lastCall = RealClock::now();
    RealClock::time_point lastMove = RealClock::now();

    Slot* add()
    {
        slots.push_back(std::make_unique<Slot>());
        return slots.back().get();
    }

    void remove(Slot* s)
    {
        queue.erase(std::remove(queue.begin(), queue.end(), s), queue.end());
        bool held = owner == s;
        if (parkedBy == s) parkedBy = nullptr;
        slots.erase(std::remove_if(slots.begin(), slots.end(), [s](const auto& p) { return p.get() == s; }),
                    slots.end());
        if (held) {
            owner = nullptr;
            handOff();
        }
        cv.notify_all();
    }

    void give(Slot* s)
    {
        owner = s;
        s->state = State::Running;
        s->calls = 0;
        s->ready = nullptr;
        s->lastCall = RealClock::now();  // the grace runs from the turn's start
        cv.notify_all();
    }

    // The waiter to run next at virtual time `now`, if any is due.
    Slot* due(uint64_t now)
    {
        Slot* best = nullptr;
        uint64_t bestKey = 0;
        for (const auto& p : slots) {
            Slot* s = p.get();
            if (s->state != State::Waiting) continue;
            uint64_t key;
            if (s->ready) {
                if (!s->ready()) continue;
                key = now;
            } else {
                if (s->deadline > now) continue;
                key = s->deadline;
            }
            if (!best || key < bestKey || (key == bestKey && s->seq < best->seq)) {
                best = s;
                bestKey = key;
            }
        }
        return best;
    }

    // The next virtual time anything can happen, after `now`.
    std::optional<uint64_t> nextTime(uint64_t now)
    {
        std::optional<uint64_t> next;
        auto consider = [&](uint64_t t) {
            if (t > now && (!next || t < *next)) next = t;
        };
        for (const auto& p : slots)
            if (p->state == State::Waiting && !p->ready) consider(p->deadline);
        if (auto event = clock.nextEvent()) consider(*event);
        return next;
    }

    // A thread outside may call at any moment, so the clock moves slowly
    // for it; one that waits for a child process does not hold it back.
    bool anyOutside() const
    {
        return std::any_of(slots.begin(), slots.end(),
                           [](const auto& p) { return p->state == State::Outside && !waitingForChild(p->tid); });
    }

    // A thread of the process that is not waiting here and that the kernel
    // has running may call the platform at any moment: one outside it, or
    // one just started that has not made its first call yet. The clock
    // waits for it. A thread never seen calling counts as starting for a
    // grace period from when it was first seen (it may sleep on a lock of the
    // runtime before its first call); after that, like a thread outside, only
    // while it runs. Threads that never call and sleep do not count.
    bool anyOtherRunning()
    {
        if (threadsOfProcess() == 1) {  // the common case, at the cost of one read
            strangers.clear();
            return false;
        }
        DIR* tasks = ::opendir("/proc/self/task");
        if (!tasks) return false;
        const pid_t self = ::gettid();
        const auto real = RealClock::now();
        std::map<pid_t, RealClock::time_point> seen;
        bool running = false;
        while (const dirent* entry = ::readdir(tasks)) {
            pid_t tid = static_cast<pid_t>(std::atoi(entry->d_name));
            if (tid <= 0 || tid == self) continue;
            auto slot = std::find_if(slots.begin(), slots.end(), [tid](const auto& p) { return p->tid == tid; });
            if (slot != slots.end()) {
                if ((*slot)->state == State::Outside && !asleepInKernel(tid)) running = true;
                continue;
            }
            auto known = strangers.find(tid);
            auto first = known == strangers.end() ? real : known->second;
            seen.emplace(tid, first);
            if (real - first < kGrace || !asleepInKernel(tid)) running = true;
        }
        ::closedir(tasks);
        strangers = std::move(seen);
        return running;
    }

    // With the turn free: hand it on, moving the clock when every thread waits.
    // Leaves it free when the clock may not move yet; waiters look again later.
    void handOff()
    {
        if (owner || dead || parked) return;
        for (;;) {
            if (!queue.empty()) {
                Slot* s = queue.front();
                queue.pop_front();
                give(s);
                return;
            }
            uint64_t now = clock.now();
            if (Slot* s = due(now)) {
                give(s);
                return;
            }
            std::optional<uint64_t> next = nextTime(now);
            if (!next) return;
            if (anyOutside()) {
                auto real = RealClock::now();
                if (real - lastCall < kGrace || real - lastMove < kGrace) return;
                if (pacing && real - lastMove < std::chrono::microseconds(*next - now)) return;
            }
            // A thread about to ask for the turn sleeps on this lock: wait for it.
            if (arriving.load() > 0 || anyOtherRunning()) return;
            clock.moveTo(*next);
            lastMove = RealClock::now();
        }
    }

    // An owner that made no call for the grace period loses the turn.
    void revokeIdle()
    {
        if (!owner || owner->depth > 0) return;
        if (RealClock::now() - owner->lastCall < kGrace) return;
        if (!asleepInKernel(owner->tid)) return;  // busy, or waiting for a core
        owner->state = State::Outside;
        owner = nullptr;
        lastMove = RealClock::now();
        handOff();
    }

    void awaitTurn(std::unique_lock<std::mutex>& lock, Slot* s)
    {
        while (owner != s) {
            cv.wait_for(lock, kGrace);
            if (owner == s) break;
            // A turn given while this thread was slow to wake may have been
            // taken back: ask again.
            if (s->state == State::Outside) {
                s->state = State::Ready;
                queue.push_back(s);
            }
            revokeIdle();
            if (!owner) handOff();
        }
    }

    void beginWait(Slot* s)
    {
        s->state = State::Waiting;
        s->seq = ++seq;
        if (owner == s) owner = nullptr;
        handOff();
    }
};

namespace {

// The slots of the calling thread, one per scheduler; a thread that ends
// leaves. `nested` counts the thread's calls under way: a call within a call
// (made holding the platform's lock) keeps the turn without the scheduler's lock.
struct Entry {
    std::shared_ptr<Scheduler::Core> core;
    Slot* slot;
    int nested = 0;
};

// Set when the thread's slots are gone: a scheduler destroyed after them (a
// static platform at process exit, whose thread-locals go first) must not
// reach them. Trivially destructible, so it can be read to the end.
thread_local bool tlsGone = false;

struct ThreadSlots {
    std::vector<Entry> entries;

    ~ThreadSlots()
    {
        for (Entry& e : entries) {
            std::lock_guard<std::mutex> lock(e.core->m);
            e.core->remove(e.slot);
        }
        entries.clear();
        tlsGone = true;
    }

    Entry* find(const Scheduler::Core* core)
    {
        for (Entry& e : entries)
            if (e.core.get() == core) return &e;
        return nullptr;
    }

    void forget(const Scheduler::Core* core)
    {
        entries.erase(std::remove_if(entries.begin(), entries.end(), [core](const Entry& e) { return e.core.get() == core; }),
                      entries.end());
    }
};

thread_local ThreadSlots tls;

} // namespace

Scheduler::Scheduler(Clock clock) : core_(std::make_shared<Core>(std::move(clock))) {}

Scheduler::~Scheduler()
{
    {
        std::lock_guard<std::mutex> lock(core_->m);
        core_->dead = true;
        if (tlsGone) return;
        if (Entry* e = tls.find(core_.get())) core_->remove(e->slot);
    }
    tls.forget(core_.get());
}

void Scheduler::enter()
{
    // A call from a static destructor at process exit, after this thread's
    // slots went: it runs outside the turns, under the platform's own lock.
    if (tlsGone) return;
    Core& c = *core_;
    Entry* e = tls.find(&c);
    if (e && e->nested > 0) {
        ++e->nested;
        return;
    }
    ++c.arriving;
    std::unique_lock<std::mutex> lock(c.m);
    --c.arriving;
    if (!e) {
        tls.entries.push_back(Entry{core_, c.add()});
        e = &tls.entries.back();
    }
    Slot* s = e->slot;
    c.lastCall = RealClock::now();
    if (c.parked && c.parkedBy == s) {
        // Alone from now on.
    } else if (c.owner == s) {
        // A thread that never waits gives others their turn now and then.
        if (++s->calls >= kSlice && !c.queue.empty()) {
            s->state = State::Ready;
            c.queue.push_back(s);
            c.owner = nullptr;
            c.handOff();
            c.awaitTurn(lock, s);
        }
    } else if (!c.owner && c.queue.empty()) {
        c.give(s);
    } else {
        s->state = State::Ready;
        c.queue.push_back(s);
        c.cv.notify_all();
        c.awaitTurn(lock, s);
    }
    s->depth = 1;
    e->nested = 1;
    s->lastCall = RealClock::now();
}

void Scheduler::leave()
{
    if (tlsGone) return;
    Core& c = *core_;
    Entry* e = tls.find(&c);
    if (!e || e->nested == 0) return;
    if (--e->nested > 0) return;
    std::lock_guard<std::mutex> lock(c.m);
    e->slot->depth = 0;
    e->slot->lastCall = c.lastCall = RealClock::now();
}

void Scheduler::waitUntil(uint64_t deadline)
{
    if (tlsGone) return;
    Core& c = *core_;
    Entry* e = tls.find(&c);
    if (!e) return;
    Slot* s = e->slot;
    std::unique_lock<std::mutex> lock(c.m);
    if (c.parked && c.parkedBy == s) {
        if (deadline > c.clock.now()) c.clock.moveTo(deadline);
        return;
    }
    s->deadline = deadline;
    s->ready = nullptr;
    c.beginWait(s);
    c.awaitTurn(lock, s);
    s->lastCall = RealClock::now();
}

void Scheduler::waitFor(std::function<bool()> ready)
{
    if (tlsGone) return;
    Core& c = *core_;
    Entry* e = tls.find(&c);
    if (!e) return;
    Slot* s = e->slot;
    std::unique_lock<std::mutex> lock(c.m);
    if (c.parked && c.parkedBy == s) {
        if (auto event = c.clock.nextEvent(); event && *event > c.clock.now()) c.clock.moveTo(*event);
        return;
    }
    s->ready = std::move(ready);
    c.beginWait(s);
    c.awaitTurn(lock, s);
    s->lastCall = RealClock::now();
}

void Scheduler::park()
{
    if (tlsGone) return;
    enter();
    {
        std::lock_guard<std::mutex> lock(core_->m);
        core_->parked = true;
        core_->parkedBy = tls.find(core_.get())->slot;
    }
    leave();
}

void Scheduler::forkPrepare() { core_->m.lock(); }

void Scheduler::forkParent() { core_->m.unlock(); }

void Scheduler::forkChild()
{
    Core& c = *core_;
    // The lock and the condition were copied in whatever state the other
    // threads left them: build them again rather than unlock.
    new (&c.m) std::mutex;
    new (&c.cv) std::condition_variable;
    Entry* e = tls.find(&c);
    Slot* own = e ? e->slot : nullptr;
    c.slots.erase(std::remove_if(c.slots.begin(), c.slots.end(), [own](const auto& p) { return p.get() != own; }),
                  c.slots.end());
    c.queue.clear();
    c.strangers.clear();
    c.arriving = 0;
    if (!own) {
        tls.entries.push_back(Entry{core_, c.add()});
        own = tls.entries.back().slot;
    }
    own->tid = ::gettid();
    own->state = State::Running;
    own->ready = nullptr;
    c.owner = own;
    c.parked = true;
    c.parkedBy = own;
}

void Scheduler::setPacing(bool on)
{
    std::lock_guard<std::mutex> lock(core_->m);
    core_->pacing = on;
}

size_t Scheduler::threads()
{
    std::lock_guard<std::mutex> lock(core_->m);
    return core_->slots.size();
}

} // namespace sim

// Turns and virtual time for the threads of one process that use the
// simulated platform.
//
// One thread at a time holds the turn: a thread takes it at its first call
// of the platform and keeps it until it waits (a timed wait, or a read the
// device cannot answer yet) or ends. The next turn goes to the oldest thread
// that asked for it, else to the waiter whose wait is over (the earliest end,
// then the one that began to wait first). When every thread waits and none
// is due, the clock moves to the earliest end of a wait or device event. So
// a lone thread's sleep returns at once, threads that wait on each other
// through device time stay in order, and the same run gives the same results
// and the same virtual durations every time.
//
// A thread that holds the turn, has made no call for a grace period of real
// time (kGrace) and that the kernel has asleep is blocked outside the
// platform (on a lock of the program, on a real child, on a person at a
// console): it loses the turn and asks for it again at its next call. A
// thread that is running or ready to run (busy with its own work, or only
// waiting for a core on a loaded machine) keeps its turn, so a slow machine
// changes no order. While a thread is outside, the clock moves one step per
// grace period at most, only while every thread outside is asleep, and, when
// pacing is on (a person at the console), no faster than real time; a thread
// asleep in a wait for a child process (a daemon it supervises) waits on the
// host and does not slow the clock. A thread
// that holds the turn for kSlice calls while others ask for it gives it up in
// between, so that a thread that never waits cannot starve the others. A
// thread that ends leaves. Waiting threads look again every grace period, for
// changes made by other processes; they never spin.
//
// A thread counts from its first call. The clock moves only while every
// other thread of the process that is not waiting here is asleep in the
// kernel: so a thread just started, which has not made its first call yet,
// is waited for (a thread never seen calling counts as starting for a grace
// period from when it is first seen, whatever it does), and none can run
// ahead of a sibling still starting; threads that never call the platform
// and sleep do not hold the clock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace sim {

class Scheduler {
public:
    static constexpr std::chrono::milliseconds kGrace{20};
    static constexpr uint64_t kSlice = 1000;

    // The clock and device events, called with the scheduler's lock held.
    struct Clock {
        std::function<uint64_t()> now;                        // virtual microseconds
        std::function<void(uint64_t)> moveTo;                 // to a later virtual time
        std::function<std::optional<uint64_t>()> nextEvent;   // the earliest device event
    };

    explicit Scheduler(Clock clock);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // Around every call of the platform: enter returns once the calling
    // thread holds the turn.
    void enter();
    void leave();

    // Waits that give up the turn; called between enter and leave, holding
    // no lock of the platform. `ready` is asked while its caller's thread
    // waits, by whichever thread then holds the scheduler.
    void waitUntil(uint64_t deadline);
    void waitFor(std::function<bool()> ready);

    // For the end of a process whose threads never end (the chassis
    // controller's readers): the calling thread takes the turn and keeps it
    // for good. Every other thread stays where it waits, in the scheduler or
    // blocked outside it, and never runs again; the caller's own waits end at
    // once, as a lone thread's. Keep the platform alive after it: a thread
    // blocked outside may still come to call it (and then waits for ever).
    void park();

    // Around a fork of the process: prepare takes the scheduler's lock, the
    // parent's handler gives it back; in the child, where the forking thread is
    // the only thread left, the scheduler starts anew with that thread holding
    // the turn for good (as after park), so the child's calls never wait for
    // a thread that did not come along.
    void forkPrepare();
    void forkParent();
    void forkChild();

    // No faster than real time while a thread is blocked outside.
    void setPacing(bool on);

    // Threads counted now (for tests and tavsim).
    size_t threads();

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

// Enter and leave for a scope.
class Turn {
public:
    explicit Turn(Scheduler& s) : s_(s) { s_.enter(); }
    ~Turn() { s_.leave(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    Scheduler& s_;
};

} // namespace sim

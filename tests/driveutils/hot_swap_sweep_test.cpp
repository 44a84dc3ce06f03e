// One powerDown(3) and powerUp(3) cycle, run once clean to count its calls,
// then once for each point where a fault can strike: each request to the
// hot-swap driver (an error code; a failed ioctl), each command to the
// chassis controller (lost), each read, write and ioctl on the drives of
// interface 1 (EIO). Each run is a child process on a module of its own, so
// that a hang or a crash shows as that run's failure and nothing of one run
// is left to the next.
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "driveutils/hot_swap_fixture.h"
#include "hotswap/libcharon.h"

namespace hotswaptest {
namespace {

constexpr const char* kInterface1 = "/dev/ide/host0/bus1/*";
constexpr int kRealSecondsPerRun = 300;
const sim::Op kDriveOps[] = {sim::Op::Read, sim::Op::Write, sim::Op::Ioctl};

enum class Phase { Down, Up };

// One fault, armed as its phase begins and cleared as it ends.
struct Injection {
    enum class Kind { None, CharonCode, CharonIoctl, DspLost, DriveEio } kind = Kind::None;
    Phase phase = Phase::Down;
    unsigned long request = 0;  // CharonCode
    sim::Op op = sim::Op::Read; // DriveEio
    uint64_t nth = 0;           // CharonIoctl, DspLost, DriveEio

    std::string name() const
    {
        const std::string where = phase == Phase::Down ? "powerDown: " : "powerUp: ";
        switch (kind) {
        case Kind::None: return "none";
        case Kind::CharonCode: return where + "code 5 for request " + std::to_string(request);
        case Kind::CharonIoctl: return where + "charon ioctl " + std::to_string(nth) + " fails";
        case Kind::DspLost: return where + "DSP command " + std::to_string(nth) + " lost";
        case Kind::DriveEio: return where + sim::opName(op) + " " + std::to_string(nth) + " on interface 1 EIO";
        }
        return "?";
    }
};

// The calls of one phase of a clean cycle.
struct PhaseCount {
    std::vector<unsigned long> charon;  // requests with a record, in order
    uint64_t dsp = 0;                   // commands that reached the DSP
    std::map<sim::Op, uint64_t> drive;  // calls on interface 1
};

// What a child reports, one "key value" a line.
using Report = std::map<std::string, std::string>;

void arm(Appliance& app, const Injection& inj, Phase phase)
{
    if (inj.kind == Injection::Kind::None || inj.phase != phase) return;
    switch (inj.kind) {
    case Injection::Kind::CharonCode: sim::charonInject(app.control(), 1, inj.request, 5); break;
    case Injection::Kind::CharonIoctl: app.platform().arm(sim::Fault::failing(sim::Op::Ioctl, CHARON_DEVICE, inj.nth, EIO)); break;
    case Injection::Kind::DspLost:
        sim::dspUpdate(app.control(), [&](sim::DspState& s) { s.behaviours.loseNth = static_cast<unsigned>(inj.nth); });
        break;
    case Injection::Kind::DriveEio: app.platform().arm(sim::Fault::failing(inj.op, kInterface1, inj.nth, EIO)); break;
    case Injection::Kind::None: break;
    }
}

void disarm(Appliance& app)
{
    app.platform().clearFaults();
    sim::charonClearInjections(app.control());
    sim::dspUpdate(app.control(), [](sim::DspState& s) { s.behaviours.loseNth = 0; });
}

// Where their power and the interface allow, drives 3 and 4 are in the
// array and both OS mirrors as they were (`was`: in both before).
bool asTheyWere(Appliance& app, const std::map<int, bool>& was)
{
    const bool attached = sim::charonState(app.control()).interfaces.at(1).active;
    for (const auto& [bay, in] : was) {
        if (!attached || !app.dspBay(bay).powered) continue;
        if ((app.inRaid(bay) && app.inOsMirror(bay)) != in) return false;
    }
    return true;
}

// The child: the system on the module, one cycle with `inj`; never returns.
[[noreturn]] void cycle(const std::string& dir, const Injection& inj, int out)
{
    Report r;
    {
        sim::QuietOutput quiet;
        Appliance app(dir);
        r["started"] = app.started() ? "1" : "0";
        auto& bus = *dynamic_cast<RaidDeviceMgmt::TavIdeBus*>(app.bus(3));
        auto run = [&](Phase phase, const char* name, const std::function<int()>& call) {
            const std::map<int, bool> was{{3, app.inRaid(3) && app.inOsMirror(3)}, {4, app.inRaid(4) && app.inOsMirror(4)}};
            const size_t charonBefore = app.charonRequests().size(), dspBefore = app.dspCommands().size();
            app.platform().resetCalls();
            arm(app, inj, phase);
            const int rc = call();
            std::string counts;
            for (sim::Op op : kDriveOps) counts += std::to_string(app.platform().calls(op, kInterface1)) + " ";
            disarm(app);
            r[std::string(name) + ".rc"] = std::to_string(rc);
            // The bus and the power-down are done; the mount-time thread polls
            // as long as an array counts as rebuilding, which a fault may leave.
            r[std::string(name) + ".idle"] = app.waitIdle(std::nullopt, false) ? "1" : "0";
            r[std::string(name) + ".polling"] = app.waitIdle(std::nullopt) ? "0" : "1";
            r[std::string(name) + ".back"] = (rc != 1 && rc != 3) || asTheyWere(app, was) ? "1" : "0";
            std::string charon;
            const std::vector<Appliance::Line> lines = app.charonRequests();
            for (size_t i = charonBefore; i < lines.size(); ++i) charon += lines[i].text.substr(8, 3) + " ";
            r[std::string(name) + ".charon"] = charon;
            r[std::string(name) + ".dsp"] = std::to_string(app.dspCommands().size() - dspBefore);
            r[std::string(name) + ".drive"] = counts;
        };
        run(Phase::Down, "down", [&] { return bus.powerDown(3, false); });
        run(Phase::Up, "up", [&] { return bus.powerUp(3); });
        std::string text;
        for (const auto& [k, v] : r) text += k + " " + v + "\n";
        (void)!::write(out, text.data(), text.size());
    }
    std::fflush(nullptr);
    ::_exit(0);
}

// Runs a cycle in a child on a new module; "" in `why` or what went wrong.
Report runCycle(const Injection& inj, std::string& why, bool& hazard, bool& attached)
{
    simtest::TempModule temp(1, false);
    buildModule(temp.dir(), 1, false);
    int fds[2];
    if (::pipe(fds) != 0) {
        why = "pipe";
        return {};
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        cycle(temp.dir(), inj, fds[1]);
    }
    ::close(fds[1]);
    std::string text;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kRealSecondsPerRun);
    for (;;) {
        pollfd p{fds[0], POLLIN, 0};
        const int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count());
        if (left <= 0) {
            why = "hung";
            ::kill(child, SIGKILL);
            break;
        }
        if (::poll(&p, 1, left) <= 0) continue;
        char buf[4096];
        const ssize_t n = ::read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    sim::Module control(temp.dir());
    sim::killDaemons(control);
    if (why.empty() && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) why = "crashed: status " + std::to_string(status);
    Report r;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const size_t space = line.find(' ');
        if (space != std::string::npos) r[line.substr(0, space)] = line.substr(space + 1);
    }
    hazard = control.readState("dsp.log").find(" hazard") != std::string::npos;
    attached = sim::charonState(control).interfaces.at(1).active;
    return r;
}

PhaseCount phaseCount(const Report& r, const std::string& phase)
{
    PhaseCount c;
    std::istringstream charon(r.at(phase + ".charon"));
    unsigned long request = 0;
    while (charon >> request) c.charon.push_back(request);
    c.dsp = std::stoull(r.at(phase + ".dsp"));
    std::istringstream drive(r.at(phase + ".drive"));
    for (sim::Op op : kDriveOps) drive >> c.drive[op];
    return c;
}

// A slice of the sweep: the injections of one kind in one phase.
struct Slice {
    Phase phase;
    Injection::Kind kind;
    sim::Op op = sim::Op::Read;  // of DriveEio

    std::string name() const
    {
        std::string n = phase == Phase::Down ? "PowerDown" : "PowerUp";
        switch (kind) {
        case Injection::Kind::CharonCode: return n + "CharonCodes";
        case Injection::Kind::CharonIoctl: return n + "CharonIoctls";
        case Injection::Kind::DspLost: return n + "DspCommandsLost";
        case Injection::Kind::DriveEio: return n + "Drive" + (op == sim::Op::Read ? "Reads" : op == sim::Op::Write ? "Writes" : "Ioctls");
        case Injection::Kind::None: break;
        }
        return n;
    }
};

void PrintTo(const Slice& slice, std::ostream* out) { *out << slice.name(); }

// The AddressSanitizer build runs every TAV_SWEEP_STRIDE-th point of each
// slice, the first included, to stay within the suite's time.
#ifndef TAV_SWEEP_STRIDE
#define TAV_SWEEP_STRIDE 1
#endif

std::vector<Injection> injections(const Slice& slice, const PhaseCount& c)
{
    std::vector<Injection> out;
    using K = Injection::Kind;
    switch (slice.kind) {
    case K::CharonCode:
        for (unsigned long request : c.charon) out.push_back({K::CharonCode, slice.phase, request, sim::Op::Read, 0});
        return out;
    case K::CharonIoctl:
        for (uint64_t n = 1; n <= c.charon.size(); ++n) out.push_back({K::CharonIoctl, slice.phase, 0, sim::Op::Read, n});
        return out;
    case K::DspLost:
        for (uint64_t n = 1; n <= c.dsp; ++n) out.push_back({K::DspLost, slice.phase, 0, sim::Op::Read, n});
        return out;
    case K::DriveEio:
        for (uint64_t n = 1; n <= c.drive.at(slice.op); n += TAV_SWEEP_STRIDE)
            out.push_back({K::DriveEio, slice.phase, 0, slice.op, n});
        return out;
    case K::None: break;
    }
    return out;
}

bool partsCode(const std::string& rc)
{
    for (const char* code : {"0", "1", "2", "3", "4", "5", "9"})
        if (rc == code) return true;
    return false;
}

class HotSwapSweep : public testing::TestWithParam<Slice> {};

TEST_P(HotSwapSweep, EveryFaultLeavesTheModuleInServiceOrSaysWhy)
{
#ifdef TAV_SWEEP_SKIPPED
    // Each run is a child that forks again (the store's supervisor). The
    // thread checker keeps the fork lock of the simulation, which a child
    // makes anew, as still held, and reports a double lock in the grandchild.
    // The scenarios run under it in this process instead.
    GTEST_SKIP() << "not under the thread checker";
#endif
    std::string why;
    bool hazard = false, attached = false;
    const Report clean = runCycle(Injection{}, why, hazard, attached);
    ASSERT_EQ(why, "");
    ASSERT_EQ(clean.count("started") ? clean.at("started") : "", "1");
    ASSERT_EQ(clean.at("down.rc"), "0");
    ASSERT_EQ(clean.at("up.rc"), "0");
    ASSERT_FALSE(hazard);
    const Slice slice = GetParam();
    const PhaseCount count = phaseCount(clean, slice.phase == Phase::Down ? "down" : "up");
    ASSERT_EQ(count.charon, (std::vector<unsigned long>{161, 160}));

    const std::vector<Injection> points = injections(slice, count);
    ASSERT_FALSE(points.empty());
    std::map<std::string, int> results;
    int polling = 0;
    for (const Injection& inj : points) {
        SCOPED_TRACE(inj.name());
        const Report r = runCycle(inj, why, hazard, attached);
        ASSERT_EQ(why, "");
        for (const char* phase : {"down", "up"}) {
            const std::string p(phase);
            ASSERT_TRUE(r.count(p + ".rc"));
            EXPECT_TRUE(partsCode(r.at(p + ".rc"))) << p << " gave " << r.at(p + ".rc");
            EXPECT_EQ(r.at(p + ".idle"), "1") << p;
            EXPECT_EQ(r.at(p + ".back"), "1") << p << " gave " << r.at(p + ".rc") << " without putting the drives back";
            ++results[p + " " + r.at(p + ".rc")];
            polling += r.at(p + ".polling") == "1";
        }
        EXPECT_FALSE(hazard);
        EXPECT_EQ(attached, r.at("up.rc") != "2");
    }
    std::string summary;
    for (const auto& [k, n] : results) summary += " " + k + ":" + std::to_string(n);
    std::cout << "fault sweep " << slice.name() << ": " << points.size() << " injection points;" << summary << "; "
              << polling << " phases left the mount-time thread polling a rebuild\n";
    RecordProperty("injection_points", static_cast<int>(points.size()));
}

using K = Injection::Kind;
INSTANTIATE_TEST_SUITE_P(
    Cycle, HotSwapSweep,
    testing::Values(Slice{Phase::Down, K::CharonCode}, Slice{Phase::Down, K::CharonIoctl}, Slice{Phase::Down, K::DspLost},
                    Slice{Phase::Down, K::DriveEio, sim::Op::Read}, Slice{Phase::Down, K::DriveEio, sim::Op::Write},
                    Slice{Phase::Down, K::DriveEio, sim::Op::Ioctl}, Slice{Phase::Up, K::CharonCode},
                    Slice{Phase::Up, K::CharonIoctl}, Slice{Phase::Up, K::DspLost}, Slice{Phase::Up, K::DriveEio, sim::Op::Read},
                    Slice{Phase::Up, K::DriveEio, sim::Op::Write}, Slice{Phase::Up, K::DriveEio, sim::Op::Ioctl}),
    [](const testing::TestParamInfo<Slice>& i) { return i.param.name(); });

} // namespace
} // namespace hotswaptest

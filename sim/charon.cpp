#include "charon.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <sys/sysmacros.h>

#include "create.h"
#include "dsp.h"
#include "md.h"

static int giDebug_charon = 0;
#define TAV_DEBUG_FLAG giDebug_charon
#include "driveutils/tavlog.h"

namespace sim {
namespace charon {

const char* requestName(unsigned long request)
{
    switch (request) {
    case kDebugOn: return "debug-on";
    case kDebugOff: return "debug-off";
    case kActivateIf: return "activate-if";
    case kDeactivateIf: return "deactivate-if";
    case kActivateDev: return "activate-dev";
    case kDeactivateDev: return "deactivate-dev";
    default: return nullptr;
    }
}

bool takesRecord(unsigned long request)
{
    return request == kActivateIf || request == kDeactivateIf || request == kActivateDev || request == kDeactivateDev;
}

} // namespace charon

namespace {

const char kStateName[] = "charon";
const char kLogName[] = "charon.log";

std::string hex(uint32_t v)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", v);
    return text;
}

// Runs `visit` on the state under the module's lock; saves it when it
// changed and logs `log`'s lines at the virtual time. False when the module
// has no node.
using Visit = std::function<void(CharonState&, std::vector<std::string>& log)>;

bool visitCharon(Module& module, const Visit& visit)
{
    bool present = true;
    module.updateState(kStateName, [&](std::string& text) {
        if (!module.host().exists(Module::stateFile(kStateName))) {
            present = false;
            return false;
        }
        CharonState s;
        std::string why;
        if (!CharonState::parse(text, s, why)) {
            thread_local std::string reported;
            if (why != reported) TAV_LOG(0, "tavsim: %s; the hot-swap driver starts afresh\n", why.c_str());
            reported = why;
            s = freshCharon();
        }
        std::vector<std::string> log;
        visit(s, log);
        const std::string stamp = std::to_string(module.now().tv_sec) + " ";
        for (const std::string& line : log) module.appendState(kLogName, stamp + line);
        std::string after = s.format();
        // Written back only when the text changed.
        if (after == text) return false;
        text = after;
        return true;
    });
    return present;
}

void requirePresent(bool present)
{
    if (!present) throw std::runtime_error("the module has no hot-swap driver (" + std::string(kCharonNode) + ")");
}

// A device the driver can probe: the bay whose node lies on it, and whether
// a drive there answers (the bay holds one and has power).
struct Probe {
    int bay;
    unsigned interface, unit;
    bool answers;
};

// The DSP is brought up to the virtual clock first: power work already due
// happens before the request, and is judged against the driver as it stood.
std::vector<Probe> probes(Module& module)
{
    const DspState dsp = dspState(module);
    Manifest m = module.manifest();
    std::vector<Probe> out;
    for (const Bay& b : m.bays) {
        Probe p{b.number, 0, 0, false};
        if (!ideUnit(b.device, p.interface, p.unit)) continue;
        // A module without a chassis controller, or a bay it lacks, has power.
        const bool powered = b.number < 1 || static_cast<size_t>(b.number) > dsp.bays.size() ||
                             dsp.bays[static_cast<size_t>(b.number - 1)].powered;
        p.answers = m.driveInBay(b.number) && powered;
        out.push_back(p);
    }
    return out;
}

// What the driver does with a request that carries a record. An attach
// rescans: each device is found iff a drive answers the probe, and the bays
// probed go to `rescanned`.
int answer(CharonState& s, unsigned long request, const charon::Record& r, const std::vector<Probe>& probes,
           std::vector<Probe>& rescanned)
{
    using namespace charon;
    const bool whole = request == kActivateIf || request == kDeactivateIf;
    if (r.uInterface >= s.interfaces.size()) return kNoSuchUnit;
    CharonInterface& i = s.interfaces[r.uInterface];
    auto probed = [&](size_t unit) {
        bool found = false;
        for (const Probe& p : probes)
            if (p.interface == r.uInterface && p.unit == unit) {
                found = p.answers;
                rescanned.push_back(p);
            }
        return found;
    };
    if (whole) {
        if (r.uDevice != kWholeInterface) return kNotWhole;
        if (request == kDeactivateIf) {
            if (!i.active) return kAlreadyDown;
            i.active = false;
            for (size_t d = 0; d < i.devices.size(); ++d) i.devices[d] = false;
            return kDone;
        }
        i.active = true;
        for (size_t d = 0; d < i.devices.size(); ++d) i.devices[d] = probed(d);
        return kDone;
    }
    if (r.uDevice >= i.devices.size()) return kNoSuchUnit;
    if (request == kDeactivateDev) {
        if (!i.devices[r.uDevice]) return kAlreadyDown;
        i.devices[r.uDevice] = false;
        return kDone;
    }
    if (!i.active) return kInterfaceDown;
    i.devices[r.uDevice] = probed(r.uDevice);
    return i.devices[r.uDevice] ? kDone : kNoDrive;
}

} // namespace

// ---- the API ----

bool charonPresent(Module& module) { return module.host().exists(Module::stateFile(kStateName)); }

CharonState charonState(Module& module)
{
    CharonState out;
    visitCharon(module, [&](CharonState& s, std::vector<std::string>&) { out = s; });
    return out;
}

void charonInject(Module& module, unsigned interface, unsigned long request, int code, int64_t times)
{
    if (!charon::takesRecord(request))
        throw std::invalid_argument("request " + std::to_string(request) +
                                    ": codes are injected for 160, 161, 208 and 209, the requests with a record");
    if (times == 0 || times < -1) throw std::invalid_argument("times " + std::to_string(times) + ": give 1 or more, or -1");
    requirePresent(visitCharon(module, [&](CharonState& s, std::vector<std::string>& log) {
        if (interface >= s.interfaces.size())
            throw std::out_of_range("interface " + std::to_string(interface) + ": the driver has interfaces 0 to " +
                                    std::to_string(s.interfaces.size() - 1));
        s.injections.push_back({interface, request, code, times});
        log.push_back("inject interface " + std::to_string(interface) + " request " + std::to_string(request) + " code " +
                      std::to_string(code) + " times " + std::to_string(times));
    }));
}

size_t charonClearInjections(Module& module)
{
    size_t n = 0;
    requirePresent(visitCharon(module, [&](CharonState& s, std::vector<std::string>& log) {
        n = s.injections.size();
        s.injections.clear();
        if (n) log.push_back("injected codes cleared");
    }));
    return n;
}

std::string freshCharonState(const Manifest& manifest)
{
    std::string why;
    const Layout* layout = layoutFor(manifest.platform, why);
    if (!layout || std::string(layout->family) != "ide") return "";
    return freshCharon().format();
}

// ---- the node ----

int CharonDevice::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    if (n.vpath != kCharonNode || !charonPresent(ctx.module)) return fail((flags & O_CREAT) ? EACCES : ENOENT);
    return memoryFile("charon", "");
}

ssize_t CharonDevice::read(DeviceContext&, OpenNode&, void*, size_t, uint64_t, bool) { return fail(EINVAL); }

ssize_t CharonDevice::write(DeviceContext&, OpenNode&, const void*, size_t, uint64_t, bool) { return fail(EINVAL); }

off_t CharonDevice::seek(DeviceContext&, OpenNode&, off_t, int) { return fail(ESPIPE); }

int CharonDevice::ioctl(DeviceContext& ctx, OpenNode&, unsigned long request, void* arg)
{
    const char* name = charon::requestName(request);
    const std::string head = "request " + std::to_string(request) + (name ? std::string(" (") + name + ")" : "");
    const std::string stamp = std::to_string(ctx.module.now().tv_sec) + " ";
    if (!name) {
        ctx.module.appendState(kLogName, stamp + head + " refused: ENOTTY");
        return fail(ENOTTY);
    }
    if (charon::takesRecord(request) && !arg) {
        ctx.module.appendState(kLogName, stamp + head + " refused: EFAULT");
        return fail(EFAULT);
    }
    Module::Lock lock(ctx.module);
    const std::vector<Probe> probing = charon::takesRecord(request) ? probes(ctx.module) : std::vector<Probe>{};
    std::vector<Probe> rescanned;
    const bool present = visitCharon(ctx.module, [&](CharonState& s, std::vector<std::string>& log) {
        if (!charon::takesRecord(request)) {
            s.debug = request == charon::kDebugOn;
            log.push_back(head + " -> 0");
            return;
        }
        charon::Record r;
        std::memcpy(&r, arg, sizeof r);
        std::string line = head + " uInterface=" + std::to_string(r.uInterface) + " uDevice=" + hex(r.uDevice) +
                           " iReturnCode=" + std::to_string(r.iReturnCode) + " -> ";
        int code = 0;
        auto j = s.injections.begin();
        while (j != s.injections.end() && !(j->interface == r.uInterface && j->request == request)) ++j;
        if (j != s.injections.end()) {
            code = j->code;
            if (j->times > 0 && --j->times == 0) s.injections.erase(j);
            line += std::to_string(code) + " injected";
        } else {
            code = answer(s, request, r, probing, rescanned);
            line += std::to_string(code);
        }
        r.iReturnCode = code;
        std::memcpy(arg, &r, sizeof r);
        log.push_back(line);
    });
    // As on insert: a found drive shows its table and identity as they are
    // now, one that did not answer shows none.
    for (const Probe& p : rescanned) {
        ctx.module.rereadPartitions(p.bay, p.answers);
        ctx.module.discover(p.bay, p.answers);
    }
    return present ? 0 : fail(EIO);
}

int CharonDevice::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) { return stat(ctx, n.vpath, n.node, st); }

int CharonDevice::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (vpath != kCharonNode || !charonPresent(ctx.module)) return fail(ENOENT);
    nodeStat(ctx.module, S_IFCHR | 0660, gnu_dev_makedev(kCharonMajor, kCharonMinor), st);
    return 0;
}

void addCharonModel(DeviceRegistry& registry) { registry.byPrefix(kCharonNode, std::make_shared<CharonDevice>()); }

} // namespace sim

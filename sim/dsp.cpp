#include "dsp.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/sysmacros.h>

#include "bay_link.h"
#include "create.h"
#include "dsp_firmware.h"
#include "dsp_state.h"
#include "md.h"

static int giDebug_dsp = 0;
#define TAV_DEBUG_FLAG giDebug_dsp
#include "driveutils/tavlog.h"

namespace sim {
namespace {

const char kStateName[] = "dsp";
const char kLogName[] = "dsp.log";

int bayCount(const Manifest& m) { return m.platform == 2 ? 8 : 4; }

// A module made without bays stands for drives of a family not simulated:
// its bays hold drives. Otherwise a bay holds one when the manifest says so.
std::vector<bool> occupancy(const Manifest& m, size_t bays)
{
    std::vector<bool> out(bays, m.bays.empty());
    if (!m.bays.empty())
        for (size_t i = 0; i < bays; ++i) out[i] = m.driveInBay(static_cast<int>(i) + 1) != nullptr;
    return out;
}

std::string spaced(const uint8_t* bytes, size_t n)
{
    std::string out;
    for (size_t i = 0; i < n; ++i) out += (i ? " " : "") + hexText(std::string(1, static_cast<char>(bytes[i])));
    return out;
}

std::string charText(uint8_t c)
{
    return std::isprint(c) ? std::string(1, static_cast<char>(c)) : "\\x" + hexText(std::string(1, static_cast<char>(c)));
}

std::string recordLine(const dsp::RecordBytes& bytes)
{
    dsp::Record r;
    std::memcpy(&r, bytes.data(), sizeof r);
    const size_t shown = r.length < 0 ? 0 : std::min<size_t>(static_cast<size_t>(r.length), dsp::kPayloadMax);
    return "record type " + std::to_string(r.type) + " (" + dsp::typeName(r.type) + ") length " + std::to_string(r.length) +
           " change " + spaced(reinterpret_cast<const uint8_t*>(&r.change), 1) + " pwrDwn " +
           spaced(reinterpret_cast<const uint8_t*>(&r.pwrDwn), 1) + " version " + charText(r.version) + " status " +
           spaced(r.status, 8) + " buff " + hexText(std::string(r.buff, shown));
}

// A drive the kernel still has on an attached interface is cut from under
// it: a hazard, unless the bay's critical switch stands open (the cut then
// is one the hardware was asked for). Logged at the time the cut was due.
void logHazards(Module& module, const std::vector<dsp::PowerLoss>& losses)
{
    for (const dsp::PowerLoss& l : losses) {
        if (l.criticalOpen) continue;
        if (const std::optional<unsigned> interface = attachedInterface(module, l.bay))
            module.appendState(kLogName, std::to_string(l.atUs / 1000000) + " hazard: bay " + std::to_string(l.bay) +
                                             " lost power while interface " + std::to_string(*interface) +
                                             " is attached");
    }
}

// A drive that lost power forgets its settings.
void forgetSettings(Module& module, const std::vector<dsp::PowerLoss>& losses)
{
    if (losses.empty()) return;
    module.updateManifest([&](Manifest& m) {
        bool changed = false;
        for (const dsp::PowerLoss& l : losses)
            if (Drive* d = m.driveInBay(l.bay); d && (!d->writeCache || d->transferMode != -1)) {
                d->writeCache = true;  // the drive's default
                d->transferMode = -1;
                changed = true;
            }
        return changed;
    });
}

using Visit = std::function<void(DspUnit&, dsp::Firmware&, std::vector<std::string>& log)>;

} // namespace

// The unit as last read or written, kept per Module so that a visit reads and
// parses the file only after its generation moved.
struct DspCache {
    uint64_t generation = Module::kNoGeneration;
    bool present = false;
    bool readable = false;
    std::string why;
    DspUnit unit;
    std::string before;  // the unit's text as the file has it
};

namespace {

// Runs `visit` on the unit under the module's lock, brought up to the virtual
// clock; saves it when it changed and logs `log`'s lines. False when the
// module has no chassis controller. A power loss's hazard is logged before
// the visit's lines (it was due before them); the drive forgets its settings
// after the unit is saved, under the same lock. The hot-swap driver's state
// is only read here, never visited: the lock order is the DSP first, then
// the driver.
bool visitDsp(Module& module, const Visit& visit)
{
    Module::Lock lock(module);
    std::shared_ptr<DspCache>& slot = module.dspCache();
    if (!slot) slot = std::make_shared<DspCache>();
    DspCache& c = *slot;
    const uint64_t generation = module.generation(Module::stateFile(kStateName));
    if (generation == Module::kNoGeneration || generation != c.generation) {
        c.generation = generation;
        const std::string text = module.readState(kStateName);
        c.present = module.host().exists(Module::stateFile(kStateName));
        c.unit = DspUnit{};
        c.readable = c.present && DspUnit::parse(text, c.unit, c.why);
        if (c.readable) c.before = c.unit.format();
    }
    if (!c.present) return false;
    const Manifest m = module.manifest();
    DspUnit unit = c.unit;
    if (!c.readable) {
        thread_local std::string reported;
        if (c.why != reported) TAV_LOG(0, "tavsim: %s; the chassis controller starts afresh\n", c.why.c_str());
        reported = c.why;
        unit = freshDspUnit(bayCount(m), occupancy(m, static_cast<size_t>(bayCount(m))));
    }
    const std::string before = c.readable ? c.before : unit.format();
    const uint64_t now = module.nowUs();
    dsp::Firmware firmware(unit, occupancy(m, unit.state.bays.size()), now);
    firmware.catchUp();
    std::vector<std::string> log;
    visit(unit, firmware, log);
    const std::vector<dsp::PowerLoss> losses = firmware.powerLosses();
    logHazards(module, losses);
    const std::string stamp = std::to_string(now / 1000000) + " ";
    for (const std::string& line : log) module.appendState(kLogName, stamp + line);
    std::string after = unit.format();
    if (after != before) {
        module.writeState(kStateName, after);
        c.generation = Module::kNoGeneration;  // read back once: the write may have failed
    }
    forgetSettings(module, losses);
    return true;
}

void requirePresent(bool present)
{
    if (!present) throw std::runtime_error("the module has no chassis controller (" + std::string(kDspNode) + ")");
}

} // namespace

// ---- the API ----

bool dspPresent(Module& module) { return module.host().exists(Module::stateFile(kStateName)); }

DspState dspState(Module& module)
{
    DspState out;
    visitDsp(module, [&](DspUnit& u, dsp::Firmware&, std::vector<std::string>&) { out = u.state; });
    return out;
}

void dspUpdate(Module& module, const std::function<void(DspState&)>& change)
{
    requirePresent(visitDsp(module, [&](DspUnit& u, dsp::Firmware&, std::vector<std::string>&) {
        DspState s = u.state;
        change(s);
        if (s.bays.size() != u.state.bays.size())
            throw std::invalid_argument("the chassis controller has " + std::to_string(u.state.bays.size()) + " bays");
        s.behaviours.lateSeconds = std::min(s.behaviours.lateSeconds, kDspMaxLateSeconds);
        s.numDrives = std::clamp(s.numDrives, 0, dsp::kMaxConfigDrives);
        if (s.source != 'P' && s.source != 'S') s.source = u.state.source;
        u.state = s;
    }));
}

void dspSetSwitch(Module& module, int bay, bool critical, bool open)
{
    requirePresent(visitDsp(module, [&](DspUnit& u, dsp::Firmware& fw, std::vector<std::string>& log) {
        if (bay < 1 || static_cast<size_t>(bay) > u.state.bays.size())
            throw std::out_of_range("bay " + std::to_string(bay) + ": the chassis controller has bays 1 to " +
                                    std::to_string(u.state.bays.size()));
        if (fw.switchMoved(bay, critical, open))
            log.push_back("bay " + std::to_string(bay) + (critical ? " critical " : " lock ") + (open ? "open" : "closed") +
                          (u.state.behaviours.silent ? " (not reported: silent)" : ""));
    }));
}

void dspInject(Module& module, const uint8_t (&record)[112])
{
    requirePresent(visitDsp(module, [&](DspUnit&, dsp::Firmware& fw, std::vector<std::string>& log) {
        dsp::RecordBytes r;
        std::memcpy(r.data(), record, r.size());
        fw.inject(r);
        log.push_back("injected " + hexText(std::string(reinterpret_cast<const char*>(record), sizeof record)));
    }));
}

DspPending dspPending(Module& module)
{
    DspPending p;
    visitDsp(module, [&](DspUnit& u, dsp::Firmware&, std::vector<std::string>&) {
        p.events = u.events.size();
        if (!u.events.empty()) p.nextUs = u.events.front().dueUs;
        for (const std::string& f : u.line) p.lineBytes += f.size();
        p.records = u.records.size();
        p.outcome = u.outcome;
    });
    return p;
}

std::string freshDspState(const Manifest& manifest, bool /*identityOnly*/)
{
    std::string why;
    int bays = 0;
    const Layout* layout = layoutFor(manifest.platform, why);
    if (manifest.platform == 2) bays = 8;
    else if (layout && std::string(layout->family) == "ide") bays = 4;
    if (!bays) return "";
    return freshDspUnit(bays, occupancy(manifest, static_cast<size_t>(bays))).format();
}

// ---- the node ----

struct DspDevice::View {
    bool present = false;
    DspUnit unit;
};

// Compared by content: two changes within one tick of the file system's
// clock may leave the file's time, size and even inode number as they were.
const DspDevice::View* DspDevice::view(Module& module)
{
    // While the file's generation stands, the view needs no read at all.
    const uint64_t generation = module.generation(Module::stateFile(kStateName));
    if (view_ && generation != Module::kNoGeneration && generation == viewGeneration_) return view_.get();
    viewGeneration_ = generation;
    std::string text = module.readState(kStateName);
    if (view_ && text == viewText_ && (!text.empty() || !view_->present)) return view_.get();
    auto v = std::make_shared<View>();
    v->present = !text.empty() || dspPresent(module);
    std::string why;
    if (v->present && !DspUnit::parse(text, v->unit, why)) v->unit = DspUnit{};
    view_ = v;
    viewText_ = std::move(text);
    return view_.get();
}

int DspDevice::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    if (n.vpath != kDspNode || !dspPresent(ctx.module)) return fail((flags & O_CREAT) ? EACCES : ENOENT);
    return memoryFile("tav_dsp", "");
}

// The driver's receive side: what the firmware sent becomes records.
ssize_t DspDevice::read(DeviceContext& ctx, OpenNode&, void* buf, size_t count, uint64_t, bool)
{
    if (count == 0) return 0;
    ssize_t got = -1;
    int error = EWOULDBLOCK;
    const bool present = visitDsp(ctx.module, [&](DspUnit& u, dsp::Firmware&, std::vector<std::string>&) {
        if (u.line.empty()) return;
        std::string bytes;
        for (const std::string& f : u.line) bytes += f;
        u.line.clear();
        dsp::recordsOfLine(u.driverConfig(), bytes, u.records);
        const size_t n = std::min(count, bytes.size());
        std::memcpy(buf, bytes.data(), n);
        got = static_cast<ssize_t>(n);
    });
    if (!present) error = EIO;
    return got >= 0 ? got : fail(error);
}

ssize_t DspDevice::write(DeviceContext& ctx, OpenNode&, const void* buf, size_t count, uint64_t, bool)
{
    if (ctx.powerCut) return static_cast<ssize_t>(count);
    const auto* bytes = static_cast<const uint8_t*>(buf);
    const bool present = visitDsp(ctx.module, [&](DspUnit& u, dsp::Firmware& fw, std::vector<std::string>& log) {
        if (count != dsp::kCommandBytes) {
            log.push_back("refused a write of " + std::to_string(count) + " bytes: EINVAL");
            return;
        }
        const bool silent = u.state.behaviours.silent;
        const bool lost = !fw.command(bytes);
        log.push_back("command " + spaced(bytes, count) + " (" + dsp::describeCommand(bytes) + ")" +
                      (silent ? " lost: the DSP is silent" : lost ? " lost" : ""));
    });
    if (!present) return fail(EIO);
    return count == dsp::kCommandBytes ? static_cast<ssize_t>(count) : fail(EINVAL);
}

off_t DspDevice::seek(DeviceContext&, OpenNode&, off_t, int) { return fail(ESPIPE); }

int DspDevice::ioctl(DeviceContext& ctx, OpenNode&, unsigned long request, void* arg)
{
    if (request != dsp::kFirmwareVersion && request != dsp::kNextMsg && request != dsp::kDeviceConfig) {
        ctx.module.appendState(kLogName, std::to_string(ctx.module.now().tv_sec) + " refused request " +
                                             std::to_string(request) + ": EINVAL");
        return fail(EINVAL);
    }
    if (!arg) return fail(EFAULT);
    int result = 0, error = 0;
    const bool present = visitDsp(ctx.module, [&](DspUnit& u, dsp::Firmware&, std::vector<std::string>& log) {
        switch (request) {
        case dsp::kFirmwareVersion: {
            const int version = static_cast<unsigned char>(u.state.firmware);
            std::memcpy(arg, &version, sizeof version);
            break;
        }
        case dsp::kNextMsg:
            if (u.records.empty()) break;
            std::memcpy(arg, u.records.front().data(), dsp::kRecordBytes);
            log.push_back(recordLine(u.records.front()));
            u.records.erase(u.records.begin());
            result = 1;
            break;
        case dsp::kDeviceConfig: {
            dsp::Config c;
            std::memcpy(&c, arg, sizeof c);
            if (c.numDrives < 1 || c.numDrives > dsp::kMaxConfigDrives) {
                log.push_back("refused a configuration of " + std::to_string(c.numDrives) + " drives: EINVAL");
                error = EINVAL;
                break;
            }
            DspState& s = u.state;
            s.configured = true;
            s.numDrives = c.numDrives;
            std::memcpy(s.masks, c.driveMasks, sizeof s.masks);
            std::memcpy(s.bytes, c.driveBytes, sizeof s.bytes);
            s.serialDevice.assign(c.serialDeviceName, strnlen(c.serialDeviceName, sizeof c.serialDeviceName));
            log.push_back("config drives " + std::to_string(c.numDrives) + " masks " + spaced(s.masks, 16) + " bytes " +
                          spaced(s.bytes, 16) + " serial " + (s.serialDevice.empty() ? "-" : s.serialDevice));
            break;
        }
        }
    });
    if (!present) return fail(EIO);
    return error ? fail(error) : result;
}

int DspDevice::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) { return stat(ctx, n.vpath, n.node, st); }

int DspDevice::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (vpath != kDspNode || !dspPresent(ctx.module)) return fail(ENOENT);
    nodeStat(ctx.module, S_IFCHR | 0660, gnu_dev_makedev(kDspMajor, kDspMinor), st);
    return 0;
}

// Something for the driver now: bytes on the line, or work due that may send some.
bool DspDevice::readReady(DeviceContext& ctx, OpenNode&)
{
    const View* v = view(ctx.module);
    if (!v->present) return true;  // the read fails
    if (!v->unit.line.empty()) return true;
    return !v->unit.events.empty() && v->unit.events.front().dueUs <= ctx.module.nowUs();
}

std::optional<uint64_t> DspDevice::nextEvent(DeviceContext& ctx)
{
    const View* v = view(ctx.module);
    if (!v->present || v->unit.events.empty()) return std::nullopt;
    const uint64_t now = ctx.module.nowUs();
    for (const DspEvent& e : v->unit.events)
        if (e.dueUs > now) return e.dueUs;
    return std::nullopt;
}

void addDspModel(DeviceRegistry& registry) { registry.byPrefix(kDspNode, std::make_shared<DspDevice>()); }

} // namespace sim

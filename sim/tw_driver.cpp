#include "tw_driver.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "md.h"
#include "module.h"
#include "tw_config.h"
#include "tw_firmware.h"
#include "tw_state.h"
#include "tw_ata.h"
#include "tw_tasks.h"

namespace sim::tw {
namespace {

// Offsets of the records, as the drivers lay them out.
constexpr size_t k7Length = 0;
constexpr size_t k7Command = 512;
constexpr size_t k7Data = 1024;
constexpr size_t kCmdByte0 = 0, kCmdSize = 1, kCmdUnit = 3, kCmdStatus = 4, kCmdFlags = 5, kCmdMask = 8;
constexpr unsigned long k7Request = 0x1F;

constexpr size_t k9Control = 0, k9Status = 4, k9Length = 20;
constexpr size_t k9Full = 512;
constexpr size_t k9ErrorCode = k9Full + 22, k9ErrorText = k9Full + 26, k9HeaderDesc = k9Full + 124;
constexpr size_t k9ErrorTextSize = 124 - 26;
constexpr size_t k9Byte0 = k9Full + 128, k9Unit = k9Full + 129, k9CmdStatus = k9Full + 132, k9SglEntries = k9Full + 134;
constexpr size_t k9Data = 1536;
constexpr uint8_t k9HeaderSize = 128;
constexpr uint16_t k9TableFlag = 0x8000;
// The unit byte of a parameter command holds the scatter list's size plus 2.
constexpr unsigned kMinSglUnit = 3, kMaxSglUnit = 34;

constexpr uint32_t kLock = 262, kUnlock = 263, kPassThrough = 264, kVersion = 265;
constexpr uint32_t kFirstEvent = 266, kLastEvent = 267, kNextEvent = 268, kPreviousEvent = 269;
constexpr size_t k9Sequence = 12;
constexpr size_t kEventSize = 112, kEventParamSize = 98;
constexpr uint8_t kOpPortscan = 0x06, kOpGet = 0x12, kOpSet = 0x13, kOpDiagnostic = 0x1D;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24); }
void put16(uint8_t* p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void put32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

std::string hex(const uint8_t* p, size_t n)
{
    static const char d[] = "0123456789abcdef";
    std::string out(2 * n, '0');
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = d[p[i] >> 4];
        out[2 * i + 1] = d[p[i] & 15];
    }
    return out;
}

std::string stamp(Module& m)
{
    const uint64_t us = m.nowUs();
    char t[40];
    std::snprintf(t, sizeof t, "%llu.%06llu", static_cast<unsigned long long>(us / 1000000),
                  static_cast<unsigned long long>(us % 1000000));
    return t;
}

const char* opName(uint8_t op)
{
    switch (op) {
    case kOpGet: return "get-param";
    case kOpSet: return "set-param";
    case kOpPortscan: return "portscan";
    case kOpDiagnostic: return "diagnostic-log";
    default: return unitOpName(op);
    }
}

// A rule-breaking answer over `data` of a parameter read.
void breakRules(const std::string& how, uint8_t* data, size_t n)
{
    if (how == "unterminated") {
        for (size_t i = 0; i < n; ++i)
            if (data[i] == 0 || data[i] == ' ') data[i] = 'X';
    } else if (how == "garbage") {
        uint32_t x = 2463534242u;
        for (size_t i = 0; i < n; ++i) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            data[i] = static_cast<uint8_t>(x);
        }
    }
}

int controllerOf(Module& module, int family, unsigned minor)
{
    const Controller* c = twView(module).byMinor(family, minor);
    if (!c || c->num("driver-loaded", 1) != 1 || c->num("controller-found", 1) != 1) return -1;
    return c->index;
}

bool driverLoaded(Module& module, int family)
{
    bool any = false;
    for (const Controller& c : twView(module).controllers())
        if (c.family == family && c.num("driver-loaded", 1) == 1) any = true;
    return any;
}

} // namespace

int TwDriver::open(DeviceContext& ctx, OpenNode& n, int)
{
    if (!driverLoaded(ctx.module, family_)) return fail(ENXIO);
    if (controllerOf(ctx.module, family_, n.node.minor) < 0) return fail(ENODEV);
    // The descriptor has nothing behind it; reads and writes are refused.
    return ::memfd_create(family_ == 7000 ? "twe" : "twa", MFD_CLOEXEC);
}

void TwDriver::close(DeviceContext& ctx, OpenNode&) { flushLog(ctx.module); }

ssize_t TwDriver::read(DeviceContext&, OpenNode&, void*, size_t, uint64_t, bool) { return fail(EINVAL); }

ssize_t TwDriver::write(DeviceContext&, OpenNode&, const void*, size_t, uint64_t, bool) { return fail(EINVAL); }

int TwDriver::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st)
{
    nodeStat(ctx.module, S_IFCHR | 0600, makedev(n.node.major, n.node.minor), st);
    return 0;
}

int TwDriver::ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg)
{
    TwView::Pin pin(twView(ctx.module));
    if (!driverLoaded(ctx.module, family_)) return fail(ENXIO);
    const int index = controllerOf(ctx.module, family_, n.node.minor);
    if (index < 0) return fail(ENODEV);
    if (!arg) return fail(EFAULT);
    auto* buf = static_cast<uint8_t*>(arg);
    return family_ == 7000 ? call7000(ctx, n, index, request, buf) : call9000(ctx, n, index, request, buf);
}

int TwDriver::call7000(DeviceContext& ctx, OpenNode& n, int index, unsigned long request, uint8_t* buf)
{
    Module& module = ctx.module;
    std::string line = stamp(module) + " " + n.vpath + " " + std::to_string(request);
    if (request != k7Request) {
        logCall(module, line + " -> EINVAL");
        return fail(EINVAL);
    }
    const uint32_t length = le32(buf + k7Length);
    if (length > k7000MaxData) {
        logCall(module, line + " length=" + std::to_string(length) + " -> EINVAL");
        return fail(EINVAL);
    }
    const std::string in = hex(buf + k7Command, 16) + " " + hex(buf + k7Data, std::min<size_t>(length, 32));
    uint8_t* cmd = buf + k7Command;
    uint8_t* data = buf + k7Data;
    const uint8_t op = cmd[kCmdByte0] & 0x1F;
    const unsigned unit = cmd[kCmdUnit] & 0x0F;
    line += " " + std::string(opName(op));
    if (op != kOpGet && op != kOpSet && op != kOpPortscan && op != kOpDiagnostic && !isUnitOpcode(op))
        line += "=" + std::to_string(op);
    line += " unit=" + std::to_string(unit);
    // Unit tasks, the ATA pass-through and the firmware download (tw_tasks.h, tw_ata.h).
    if (isTaskOpcode(op)) {
        const FwAnswer a = cmd[kCmdSize] != (op == kOpAtaPassThrough ? 7 : 4)
                               ? fwError(kErrSize)
                               : runTaskOpcode(module, index, op, unit, cmd + 8, data, length);
        cmd[kCmdStatus] = a.status;
        cmd[kCmdFlags] = 0;
        logCall(module, line + " task=" + std::to_string(op) + " -> status " + std::to_string(a.status) +
                            (a.ok() ? "" : " code " + std::to_string(a.code)) + "\n  in  " + in + "\n  out " +
                            hex(cmd, 20) + " " + hex(data, std::min<size_t>(length, 32)));
        return 0;
    }
    FwAnswer answer;
    const uint8_t wantSize = op == kOpPortscan ? 3 : 4;
    int table = -1, parameter = -1;
    std::string rules;
    if (op != kOpGet && op != kOpSet && op != kOpPortscan && op != kOpDiagnostic && !isUnitOpcode(op)) {
        answer = fwError(kErrOpcode);
    } else if (cmd[kCmdSize] != wantSize) {
        answer = fwError(kErrSize);
    } else if (unit != 0 && !twView(module).controllers().empty() && [&] {
                   for (const Controller& c : twView(module).controllers())
                       if (c.index == index) return !c.unit(static_cast<int>(unit));
                   return true;
               }()) {
        answer = fwError(kErrUnit);
    } else if ((op == kOpGet || op == kOpSet) && length < 4) {
        answer = fwError(kErrParamSize);
    } else {
        if (op == kOpGet || op == kOpSet) {
            table = le16(data);
            parameter = data[2];
            line += " table=" + std::to_string(table) + " param=" + std::to_string(parameter) +
                    " size=" + std::to_string(data[3]);
        }
        if (op == kOpGet) rules = takeAnswerFault(module, index);
        if (!takeFirmwareFault(module, index, op, table, parameter, answer)) {
            if (op == kOpGet || op == kOpSet) {
                ParamRequest r;
                r.family = 7000;
                r.unit = unit;
                r.table = static_cast<uint16_t>(table);
                r.parameter = static_cast<uint16_t>(parameter);
                r.size = data[3];
                r.set = op == kOpSet;
                if (4u + r.size > length) {
                    answer = fwError(kErrParamSize);
                } else {
                    if (r.set) r.value.assign(data + 4, data + 4 + r.size);
                    std::vector<uint8_t> out;
                    uint16_t declared = r.size;
                    answer = runParam(module, index, r, out, declared);
                    if (answer.ok() && !r.set) {
                        std::memcpy(data + 4, out.data(), std::min<size_t>(out.size(), length - 4));
                        if (!rules.empty()) breakRules(rules, data + 4, std::min<size_t>(out.size(), length - 4));
                        if (rules == "oversize") data[3] = static_cast<uint8_t>(std::min(255, data[3] + 16));
                    }
                }
            } else if (isUnitOpcode(op)) {
                // Unit configuration (tw_config.h).
                answer = runUnitCommand(module, index, op, data, length);
            } else if (op == kOpPortscan) {
                const uint32_t mask = le32(cmd + kCmdMask);
                line += " mask=0x" + hex(cmd + kCmdMask, 4);
                unsigned port = 0;
                while (port < 32 && !(mask & (1u << port))) ++port;
                answer = port < 32 && mask == (1u << port) ? runPortscan(module, index, port) : fwError(kErrPort);
            } else {
                std::vector<uint8_t> out;
                answer = runDiagnosticLog(module, index, static_cast<uint16_t>(std::min<uint32_t>(length, 0xffff)), out);
                if (answer.ok() && !out.empty()) std::memcpy(data, out.data(), std::min<size_t>(out.size(), length));
            }
        }
    }
    cmd[kCmdStatus] = answer.status;
    cmd[kCmdFlags] = 0;
    line += " -> status " + std::to_string(answer.status);
    if (!answer.ok()) line += " code " + std::to_string(answer.code);
    if (!rules.empty()) line += " (" + rules + ")";
    logCall(module, line + "\n  in  " + in + "\n  out " + hex(cmd, 16) + " " + hex(data, std::min<size_t>(length, 32)));
    return 0;
}

int TwDriver::call9000(DeviceContext& ctx, OpenNode& n, int index, unsigned long request, uint8_t* buf)
{
    Module& module = ctx.module;
    std::string line = stamp(module) + " " + n.vpath + " " + std::to_string(request);
    const bool event = request >= kFirstEvent && request <= kPreviousEvent;
    if (request != kLock && request != kUnlock && request != kPassThrough && request != kVersion && !event) {
        logCall(module, line + " -> EINVAL");
        return fail(EINVAL);
    }
    const uint32_t length = le32(buf + k9Length);
    if (le32(buf + k9Control) != request || length > k9000MaxData) {
        logCall(module, line + " control=" + std::to_string(le32(buf + k9Control)) + " length=" + std::to_string(length) +
                            " -> EINVAL");
        return fail(EINVAL);
    }
    // The bytes kept: the driver command, the header's size byte, the
    // command's first 16 bytes and the data's first 32.
    const std::string in = hex(buf, 24) + " " + hex(buf + k9HeaderDesc, 1) + " " + hex(buf + k9Byte0, 16) + " " +
                           hex(buf + k9Data, std::min<size_t>(length, 32));
    uint8_t* data = buf + k9Data;
    uint32_t driverStatus = 0;
    FwAnswer answer;
    std::string rules;
    bool firmware = false;
    if (takeDriverFault(module, index, driverStatus)) {
        line += " (driver status armed)";
    } else if (request == kVersion) {
        line += " driver-version";
        if (length < 64) {
            logCall(module, line + " length=" + std::to_string(length) + " -> EINVAL");
            return fail(EINVAL);
        }
        std::string version;
        for (const Controller& c : twView(module).controllers())
            if (c.index == index) version = c.get("driver-version");
        std::memset(data, 0, 64);
        std::memcpy(data, version.data(), std::min<size_t>(version.size(), 31));
        unsigned v[4] = {};
        std::sscanf(version.c_str(), "%u.%u.%u.%u", &v[0], &v[1], &v[2], &v[3]);
        std::memcpy(data + 32, "3w-9xxx", 7);
        for (int i = 0; i < 4; ++i) put16(data + 48 + 2 * i, static_cast<uint16_t>(v[i]));
    } else if (event) {
        twView(module).settle();  // what the clock brought first (tw_tasks.h)
        // The queue by sequence number: 4100 past either end, 4099 for a
        // number the queue no longer keeps (dropped as the oldest).
        const uint32_t from = le32(buf + k9Sequence);
        static const char* const kNames[] = {"first", "last", "next", "previous"};
        line += std::string(" event ") + kNames[request - kFirstEvent] + " from=" + std::to_string(from);
        if (length < kEventSize) {
            logCall(module, line + " length=" + std::to_string(length) + " -> EINVAL");
            return fail(EINVAL);
        }
        const Controller* c = nullptr;
        for (const Controller& each : twView(module).controllers())
            if (each.index == index) c = &each;
        const std::vector<Event> none;
        const std::vector<Event>& q = c ? c->events : none;
        const Event* hit = nullptr;
        if (q.empty()) driverStatus = kDriverStatusOutOfRange;
        else if (request == kFirstEvent) hit = &q.front();
        else if (request == kLastEvent) hit = &q.back();
        else {
            const int64_t want = static_cast<int64_t>(from) + (request == kNextEvent ? 1 : -1);
            if (want < 1 || want > static_cast<int64_t>(q.back().sequence)) driverStatus = kDriverStatusOutOfRange;
            else if (want < static_cast<int64_t>(q.front().sequence)) driverStatus = kDriverStatusNotKept;
            else
                for (const Event& e : q)
                    if (e.sequence == static_cast<uint32_t>(want)) hit = &e;
            if (!hit && !driverStatus) driverStatus = kDriverStatusNotKept;
        }
        if (hit) {
            std::memset(data, 0, kEventSize);
            put32(data, hit->sequence);
            put32(data + 4, hit->time);
            put16(data + 8, hit->code);
            data[10] = hit->severity;
            const size_t n = std::min(hit->text.size(), kEventParamSize - 1);
            data[13] = static_cast<uint8_t>(n + 1);
            std::memcpy(data + 14, hit->text.data(), n);
            line += " seq=" + std::to_string(hit->sequence);
        }
    } else if (request == kLock || request == kUnlock) {
        if (length < 12) {
            logCall(module, line + " length=" + std::to_string(length) + " -> EINVAL");
            return fail(EINVAL);
        }
        const uint32_t timeout = le32(data), force = le32(data + 8);
        const std::string me = "pid" + std::to_string(::getpid());
        const uint64_t now = module.nowUs();
        line += request == kLock ? " lock timeout=" + std::to_string(timeout) + " force=" + std::to_string(force)
                                 : " unlock";
        twView(module).update(index, [&](Controller& c) {
            const bool held = !c.lockHolder.empty() && c.lockExpires > now;
            if (request == kUnlock) {
                if (held && c.lockHolder != me) return false;
                c.lockHolder.clear();
                c.lockExpires = 0;
                return true;
            }
            if (held && c.lockHolder != me && !force) {
                driverStatus = kDriverStatusLockBusy;
                put32(data + 4, static_cast<uint32_t>((c.lockExpires - now) / 1000));
                return false;
            }
            c.lockHolder = me;
            c.lockExpires = now + static_cast<uint64_t>(timeout) * 1000;
            put32(data + 4, timeout);
            return true;
        });
    } else {
        firmware = true;
        rules = takeAnswerFault(module, index);
        const uint8_t op = buf[k9Byte0] & 0x1F;
        const unsigned unit = buf[k9Unit];
        line += " " + std::string(opName(op)) + " unit=" + std::to_string(unit);
        uint16_t table = 0, parameter = 0, size = 0;
        // Unit tasks and the ATA pass-through (tw_tasks.h, tw_ata.h): the
        // registers in the cdb, the unit or port in the unit byte.
        const bool task = isTaskOpcode(op) && op != kOpFirmwareDownload;
        if (task) line += " task=" + std::to_string(op);
        if (task && buf[k9HeaderDesc] == k9HeaderSize)
            answer = runTaskOpcode(module, index, op, unit, buf + k9Byte0 + 8, data, length);
        else if (buf[k9HeaderDesc] != k9HeaderSize) answer = fwError(kErrHeader);
        else if (op != kOpGet && op != kOpSet && !isUnitOpcode(op)) answer = fwError(kErrOpcode);
        else if (le16(buf + k9SglEntries) != 1 || unit < kMinSglUnit || unit > kMaxSglUnit) answer = fwError(kErrSgl);
        else if (isUnitOpcode(op)) {
            // Unit configuration (tw_config.h).
            if (!takeFirmwareFault(module, index, op, -1, -1, answer))
                answer = runUnitCommand(module, index, op, data, length);
        } else if (length < 8) answer = fwError(kErrParamSize);
        else {
            table = le16(data);
            parameter = le16(data + 2);
            size = le16(data + 4);
            line += " table=0x" + hex(data + 1, 1) + hex(data, 1) + " param=" + std::to_string(parameter) +
                    " size=" + std::to_string(size);
            if (!(table & k9TableFlag)) answer = fwError(kErrTableFlag);
            else if (8u + size > length) answer = fwError(kErrParamSize);
            else if (!takeFirmwareFault(module, index, op, table & ~k9TableFlag, parameter, answer)) {
                ParamRequest r;
                r.family = 9000;
                r.table = static_cast<uint16_t>(table & ~k9TableFlag);
                r.parameter = parameter;
                r.size = size;
                r.set = op == kOpSet;
                if (r.set) r.value.assign(data + 8, data + 8 + size);
                std::vector<uint8_t> out;
                uint16_t declared = size;
                answer = runParam(module, index, r, out, declared);
                if (answer.ok() && !r.set) {
                    std::memcpy(data + 8, out.data(), std::min<size_t>(out.size(), size));
                    if (!rules.empty()) breakRules(rules, data + 8, size);
                    put16(data + 6, rules == "oversize" ? static_cast<uint16_t>(size + 16) : declared);
                }
            }
        }
        buf[k9CmdStatus] = answer.status;
        if (!answer.ok()) {
            put16(buf + k9ErrorCode, answer.code);
            std::memset(buf + k9ErrorText, 0, k9ErrorTextSize);
            std::string text = answer.text;
            if (rules == "unterminated") text.resize(k9ErrorTextSize, '!');
            std::memcpy(buf + k9ErrorText, text.data(), std::min(text.size(), k9ErrorTextSize));
        }
    }
    put32(buf + k9Status, driverStatus);
    line += " -> ";
    if (driverStatus) line += "driver status " + std::to_string(driverStatus);
    else if (firmware) line += "status " + std::to_string(answer.status) + (answer.ok() ? "" : " code " + std::to_string(answer.code));
    else line += "ok";
    if (!rules.empty()) line += " (" + rules + ")";
    // Given back: the driver command, the error code and text's start, the
    // command's status and the data's first 32 bytes.
    logCall(module, line + "\n  in  " + in + "\n  out " + hex(buf, 24) + " " + hex(buf + k9ErrorCode, 12) + " " +
                        hex(buf + k9CmdStatus, 1) + " " + hex(data, std::min<size_t>(length, 32)));
    return 0;
}

void addTwModels(DeviceRegistry& registry)
{
    registry.byMajor(true, kMajor7000, std::make_shared<TwDriver>(7000));
    registry.byMajor(true, kMajor9000, std::make_shared<TwDriver>(9000));
}

} // namespace sim::tw

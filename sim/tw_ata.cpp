#include "tw_ata.h"

#include <cstring>
#include <sstream>

#include "ata.h"
#include "manifest.h"
#include "module.h"
#include "tw_state.h"

namespace sim::tw {
namespace {

constexpr const char* kSmartFile = "3ware/ata";
constexpr uint8_t kSmart = 0xB0;
constexpr uint8_t kReadData = 0xD0, kReadThresholds = 0xD1, kOffline = 0xD4, kReadLog = 0xD5, kEnable = 0xD8,
                  kDisable = 0xD9, kReturnStatus = 0xDA;

void sealChecksum(std::array<uint8_t, 512>& page)
{
    uint8_t sum = 0;
    for (size_t i = 0; i < 511; ++i) sum = static_cast<uint8_t>(sum + page[i]);
    page[511] = static_cast<uint8_t>(0x100 - sum);
}

// The attributes: id, flags, value, worst, threshold, raw.
struct Attribute {
    uint8_t id;
    uint16_t flags;
    uint8_t value, worst, threshold;
    uint64_t raw;
};

// The drive's line in the SMART file: "SERIAL enabled=0|1 exceeded=0|1".
bool parseLine(const std::string& line, std::string& serial, SmartState& s)
{
    std::istringstream in(line);
    std::string word;
    if (!(in >> serial)) return false;
    while (in >> word) {
        if (word == "enabled=0") s.enabled = false;
        if (word == "enabled=1") s.enabled = true;
        if (word == "exceeded=0") s.exceeded = false;
        if (word == "exceeded=1") s.exceeded = true;
    }
    return true;
}

} // namespace

SmartState smartState(Module& module, const std::string& serial)
{
    std::istringstream in(module.readState(kSmartFile));
    std::string line, name;
    while (std::getline(in, line)) {
        SmartState s;
        if (parseLine(line, name, s) && name == percentEncode(serial)) return s;
    }
    return SmartState{};
}

bool setSmart(Module& module, const std::string& serial, const std::string& how)
{
    if (how != "on" && how != "off" && how != "exceeded" && how != "ok") return false;
    module.updateState(kSmartFile, [&](std::string& text) {
        std::istringstream in(text);
        std::string line, name, out;
        SmartState mine;
        while (std::getline(in, line)) {
            SmartState s;
            if (!parseLine(line, name, s)) continue;
            if (name == percentEncode(serial)) mine = s;
            else out += line + "\n";
        }
        if (how == "on" || how == "off") mine.enabled = how == "on";
        else mine.exceeded = how == "exceeded";
        out += percentEncode(serial) + " enabled=" + (mine.enabled ? "1" : "0") + " exceeded=" + (mine.exceeded ? "1" : "0") + "\n";
        text = out;
        return true;
    });
    return true;
}

std::array<uint8_t, 512> smartPage(const std::string& serial, const SmartState& s, uint8_t feature, uint8_t sector,
                                   uint64_t nowUs, bool& ok)
{
    std::array<uint8_t, 512> page{};
    ok = true;
    // A drive's counters differ a little by its serial; the power-on hours
    // follow the clock.
    uint32_t seed = 0;
    for (char ch : serial) seed = seed * 31 + static_cast<uint8_t>(ch);
    const Attribute attrs[] = {
        {1, 0x000F, 100, 100, 16, seed % 7},
        {3, 0x0003, 95, 94, 24, 0},
        {5, 0x0033, static_cast<uint8_t>(s.exceeded ? 5 : 100), static_cast<uint8_t>(s.exceeded ? 5 : 100), 36,
         s.exceeded ? 2000u : 0u},
        {9, 0x0032, 99, 99, 0, nowUs / 3600000000ull},
        {12, 0x0032, 100, 100, 0, 1 + seed % 40},
        {194, 0x0022, 36, 45, 0, 36},
    };
    if (feature == kReadData || feature == kReadThresholds) {
        page[0] = 0x10;  // revision
        size_t at = 2;
        for (const Attribute& a : attrs) {
            page[at] = a.id;
            if (feature == kReadData) {
                page[at + 1] = static_cast<uint8_t>(a.flags);
                page[at + 2] = static_cast<uint8_t>(a.flags >> 8);
                page[at + 3] = a.value;
                page[at + 4] = a.worst;
                for (int i = 0; i < 6; ++i) page[at + 5 + static_cast<size_t>(i)] = static_cast<uint8_t>(a.raw >> (8 * i));
            } else {
                page[at + 1] = a.threshold;
            }
            at += 12;
        }
        if (feature == kReadData) {
            page[362] = 0x82;  // off-line collection done
            page[364] = 0x00;
            page[365] = 0x01;  // 256 seconds for an off-line collection
            page[367] = 0x5B;  // off-line capabilities
            page[368] = 0x03;  // saves attributes, auto-save
            page[370] = 0x01;  // error logging
        }
    } else if (feature == kReadLog) {
        page[0] = 1;
        if (sector == 0) {
            page[2 * 1] = 1;  // the summary error log: one sector
            page[2 * 6] = 1;  // the self-test log: one sector
        } else if (sector != 1 && sector != 6) {
            ok = false;
            return page;
        }
    } else {
        ok = false;
        return page;
    }
    sealChecksum(page);
    return page;
}

FwAnswer runAtaPassThrough(Module& module, int index, unsigned port, uint8_t* r, uint8_t* data, uint32_t length)
{
    TwView& view = twView(module);
    view.settle();
    const Controller* c = nullptr;
    for (const Controller& each : view.controllers())
        if (each.index == index) c = &each;
    const Port* p = c ? c->port(static_cast<int>(port)) : nullptr;
    if (!p || p->drive.empty()) return fwError(kErrPort);
    const Manifest m = module.manifest();
    const Bay* bay = bayOfPort(m, *c, static_cast<int>(port));
    const Drive* d = bay ? m.driveInBay(bay->number) : nullptr;
    if (!d) return fwError(kErrPort);
    const uint8_t feature = r[0], sector = r[4], cylLow = r[6], cylHigh = r[8], command = r[11];
    auto answer = [&](bool good) {
        r[0] = good ? 0 : kAtaErrorAbort;
        r[11] = good ? kAtaStatusGood : kAtaStatusError;
        return FwAnswer{};
    };
    const bool wantsData = command == kAtaIdentify ||
                           (command == kSmart && (feature == kReadData || feature == kReadThresholds || feature == kReadLog));
    if (wantsData && length < 512) return fwError(kErrParamSize);
    if (command == kAtaIdentify) {
        const IdentifyBlock b = identifyData(*d, IdentifyForm::Raw);
        std::memcpy(data, b.data(), b.size());
        return answer(true);
    }
    if (command != kSmart || cylLow != 0x4F || cylHigh != 0xC2) return answer(false);
    SmartState s = smartState(module, d->serial);
    if (feature == kEnable || feature == kDisable) {
        setSmart(module, d->serial, feature == kEnable ? "on" : "off");
        return answer(true);
    }
    if (!s.enabled) return answer(false);
    if (feature == kOffline) return answer(true);
    if (feature == kReturnStatus) {
        r[6] = s.exceeded ? 0xF4 : 0x4F;
        r[8] = s.exceeded ? 0x2C : 0xC2;
        return answer(true);
    }
    bool ok = false;
    const std::array<uint8_t, 512> page = smartPage(d->serial, s, feature, sector, module.nowUs(), ok);
    if (!ok) return answer(false);
    std::memcpy(data, page.data(), page.size());
    return answer(true);
}

} // namespace sim::tw

#include "dsp_firmware.h"

#include <algorithm>
#include <cstdio>

namespace sim::dsp {
namespace {

// The wire bit of bay 1, 2, ... of each unit.
constexpr uint8_t kWire8[8] = {0x10, 0x40, 0x80, 0x20, 0x01, 0x04, 0x08, 0x02};
constexpr uint8_t kWire4[4] = {0x01, 0x04, 0x08, 0x02};
// Where bay 1, 2, ... reports its temperature.
constexpr int kTemp8[8] = {4, 5, 6, 7, 0, 1, 3, 2};
constexpr int kTemp4[4] = {0, 1, 3, 2};

bool isPowerCommand(int c) { return c == 3 || c == 4 || c == 6; }

std::string hex2(unsigned v)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", v & 0xff);
    return text;
}

} // namespace

uint8_t wireBit(int bays, int bay)
{
    if (bay < 1 || bay > bays) return 0;
    return bays == 8 ? kWire8[bay - 1] : kWire4[bay - 1];
}

void nibblePlace(int bays, int bay, int& byte, bool& high)
{
    // An eight-bay unit reports bays 5 to 8 first, in bytes 0 and 1.
    const int index = bays == 8 ? (bay <= 4 ? bay + 3 : bay - 5) : bay - 1;
    byte = index / 2;
    high = index % 2 != 0;
}

uint8_t nibble(const DspBay& b, bool occupied)
{
    return static_cast<uint8_t>((b.powered && occupied ? 0 : 8) | (b.criticalOpen ? 0 : 4) | (b.clamped ? 2 : 0) |
                                (b.lockOpen ? 0 : 1));
}

void rawBytes(const std::vector<DspBay>& bays, const std::vector<bool>& occupied, uint8_t raw[kRawBytes])
{
    std::fill(raw, raw + kRawBytes, 0);
    const int count = static_cast<int>(bays.size());
    for (int bay = 1; bay <= count; ++bay) {
        int byte = 0;
        bool high = false;
        nibblePlace(count, bay, byte, high);
        const bool there = static_cast<size_t>(bay) <= occupied.size() && occupied[static_cast<size_t>(bay - 1)];
        const uint8_t n = nibble(bays[static_cast<size_t>(bay - 1)], there);
        raw[byte] = static_cast<uint8_t>(raw[byte] | (high ? n << 4 : n));
    }
}

int temperatureIndex(int bays, int bay)
{
    if (bay < 1 || bay > bays) return -1;
    return bays == 8 ? kTemp8[bay - 1] : kTemp4[bay - 1];
}

std::string describeCommand(const uint8_t* c)
{
    const std::string masks = "power " + hex2(c[1]) + " clamp " + hex2(c[2]);
    switch (c[0]) {
    case 0: return "reset";
    case 1: return "command size";
    case 2:
        switch (c[1]) {
        case 0: return "status: last command";
        case 1: return "status: power and clamp";
        case 2: return "status: temperatures";
        case 3: return "status: voltages";
        case 4: return "status: switch the power source";
        case 5: return "status: temperature limit " + std::to_string(c[2]);
        case 6: return "status: fan speed";
        case 7: return "status: fan speed maximum";
        case 8: return "status: date version";
        default: return "status: unknown sub-command " + std::to_string(c[1]);
        }
    case 3: return "power sequence: " + masks;
    case 4: return "power down: " + masks;
    case 5: return "abort";
    case 6: return "power up: " + masks;
    default: return "unknown command " + std::to_string(c[0]);
    }
}

const char* typeName(int type)
{
    switch (type) {
    case 0: return "echo";
    case 1: return "command size";
    case 2: return "last command";
    case 3: return "drive status";
    case 4: return "switch moved";
    case 5: return "power board";
    case 6: return "temperatures";
    case 7: return "voltages";
    case 8: return "source changed";
    case 9: return "over temperature";
    case 10: return "vibration";
    case 11: return "busy";
    case 12: return "done";
    case 13: return "off";
    case 14: return "halted";
    case 15: return "date version";
    default: return "unknown";
    }
}

Firmware::Firmware(DspUnit& unit, std::vector<bool> occupied, uint64_t nowUs)
    : unit_(unit), occupied_(std::move(occupied)), now_(nowUs)
{
    occupied_.resize(unit_.state.bays.size(), false);
}

void Firmware::catchUp()
{
    while (!unit_.events.empty() && unit_.events.front().dueUs <= now_) {
        const DspEvent e = unit_.events.front();
        unit_.events.erase(unit_.events.begin());
        run(e);
    }
}

DspEvent& Firmware::schedule(uint64_t after, int command)
{
    DspEvent e;
    e.dueUs = now_ + after;
    e.seq = unit_.seq++;
    e.command = command;
    auto at = std::upper_bound(unit_.events.begin(), unit_.events.end(), e, [](const DspEvent& x, const DspEvent& y) {
        return x.dueUs != y.dueUs ? x.dueUs < y.dueUs : x.seq < y.seq;
    });
    return *unit_.events.insert(at, e);
}

void Firmware::answer(uint64_t after, int command, int type, std::optional<std::string> payload)
{
    DspEvent& e = schedule(after, command);
    e.frame = type;
    e.payload = std::move(payload);
}

bool Firmware::command(const uint8_t* c)
{
    catchUp();
    DspBehaviours& b = unit_.state.behaviours;
    if (b.silent) return false;
    if (b.loseNth && --b.loseNth == 0) return false;
    const uint64_t late = seconds(b.lateSeconds);
    const std::string one(1, static_cast<char>(c[0]));
    if (c[0] == 0) {
        unit_.events.clear();
        answer(late, 0, kOff, one);
        answer(late + seconds(kDspResetSeconds), 0, b.halt ? kHalted : kDone, one);
        catchUp();
        return true;
    }
    std::string echo(reinterpret_cast<const char*>(c), kCommandBytes);
    if (b.wrongEcho)
        for (char& ch : echo) ch = static_cast<char>(~ch);
    answer(late, c[0], kEcho, echo);
    switch (c[0]) {
    case 2:
        switch (c[1]) {
        case 0: answer(late, 2, kLastCommand); break;
        case 1: answer(late, 2, kDriveStatus); break;
        case 2: answer(late, 2, kTemperatures); break;
        case 3: answer(late, 2, kVoltages); break;
        case 4:
            unit_.state.source = unit_.state.source == 'P' ? 'S' : 'P';
            answer(late, 2, kSourceChanged);
            answer(late, 2, kPowerBoard);
            break;
        case 5: unit_.state.limit = c[2]; break;
        case 8: answer(late, 2, kDateVersion); break;
        default: break;  // fans are not modelled
        }
        break;
    case 3:
    case 4:
    case 6: power(c, late); break;
    case 5: {
        const size_t before = unit_.events.size();
        unit_.events.erase(std::remove_if(unit_.events.begin(), unit_.events.end(),
                                          [](const DspEvent& e) { return isPowerCommand(e.command) && e.frame != kEcho; }),
                           unit_.events.end());
        if (unit_.events.size() != before) {
            unit_.outcome = "HALT";
            unit_.outcomeCommand = 5;
        }
        answer(late, 5, b.halt ? kHalted : kDone, one);
        break;
    }
    default: break;
    }
    catchUp();
    return true;
}

void Firmware::power(const uint8_t* c, uint64_t late)
{
    const int command = c[0];
    const int count = static_cast<int>(unit_.state.bays.size());
    const std::string one(1, static_cast<char>(command));
    if (unit_.state.behaviours.halt) {
        DspEvent& e = schedule(late, command);
        e.frame = kHalted;
        e.payload = one;
        e.outcome = "HALT";
        return;
    }
    struct Change {
        int bay;
        bool power, clamp;
    };
    std::vector<Change> changes;
    for (int bay = 1; bay <= count; ++bay) {
        const DspBay& now = unit_.state.bays[static_cast<size_t>(bay - 1)];
        const uint8_t bit = wireBit(count, bay);
        Change to{bay, now.powered, now.clamped};
        if (command == 4) {
            if (!(c[1] & bit)) to.power = false;
            if (!(c[2] & bit)) to.clamp = true;
        } else {
            if (c[1] & bit) to.power = true;
            if (c[2] & bit) to.clamp = false;
        }
        if (to.power != now.powered || to.clamp != now.clamped) changes.push_back(to);
    }
    const uint64_t perBay = seconds(kDspSecondsPerBay);
    const uint64_t end = perBay * changes.size();
    if (!unit_.state.behaviours.powerNoop)
        for (size_t i = 0; i < changes.size(); ++i) {
            DspEvent& e = schedule(command == 3 ? perBay * (i + 1) : end, command);
            e.bay = changes[i].bay;
            e.power = changes[i].power;
            e.clamp = changes[i].clamp;
        }
    DspEvent& done = schedule(end + late, command);
    done.frame = kDone;
    done.payload = one;
    done.outcome = command == 4 ? "OFF" : "DONE";
}

bool Firmware::switchMoved(int bay, bool critical, bool open)
{
    catchUp();
    DspBay& b = unit_.state.bays.at(static_cast<size_t>(bay - 1));
    bool& sw = critical ? b.criticalOpen : b.lockOpen;
    if (sw == open) return false;
    sw = open;
    const uint8_t bit = static_cast<uint8_t>(1u << (bay - 1));
    DspEvent& e = schedule(0, 0);
    e.frame = kSwitchMoved;
    e.payload = std::string{static_cast<char>(bay), static_cast<char>(critical ? 2 : 1), static_cast<char>(open ? 1 : 0)};
    e.change = bit;
    if (!critical && open && b.powered && occupied_[static_cast<size_t>(bay - 1)]) e.pwrDwn = bit;
    catchUp();
    return true;
}

void Firmware::inject(const RecordBytes& record)
{
    catchUp();
    unit_.line.push_back(encodeRawRecord(record));
}

std::string Firmware::payloadOf(int type) const
{
    const DspState& s = unit_.state;
    auto bytes = [](std::initializer_list<unsigned> values) {
        std::string out;
        for (unsigned v : values) out += static_cast<char>(v);
        return out;
    };
    switch (type) {
    case kLastCommand:
        return bytes({2, 0, static_cast<unsigned>(unit_.outcomeCommand), 0}) + unit_.outcome;
    case kDriveStatus:
        return bytes({2, 1, static_cast<unsigned>(s.bays.size()), static_cast<unsigned char>(s.source)});
    case kPowerBoard: return bytes({2, 4, 0, static_cast<unsigned char>(s.source)});
    case kTemperatures: {
        std::string out = bytes({2, s.limit});
        std::string temps(8, '\0');
        const int count = static_cast<int>(s.bays.size());
        for (int bay = 1; bay <= count; ++bay)
            temps[static_cast<size_t>(temperatureIndex(count, bay))] =
                static_cast<char>(s.bays[static_cast<size_t>(bay - 1)].temperature);
        return out + temps;
    }
    case kVoltages: return bytes({2, 3, s.volts[0], s.volts[3], 0, 0, s.volts[2], s.volts[1]});
    case kSourceChanged: return bytes({2, 4});
    case kDateVersion: return std::string(s.date, sizeof s.date);
    default: return "";
    }
}

void Firmware::run(const DspEvent& e)
{
    if (e.bay) {
        DspBay& b = unit_.state.bays.at(static_cast<size_t>(e.bay - 1));
        if (b.powered && !e.power && occupied_[static_cast<size_t>(e.bay - 1)])
            losses_.push_back({e.bay, e.dueUs, b.criticalOpen});
        b.powered = e.power;
        b.clamped = e.clamp;
    }
    if (!e.outcome.empty()) {
        unit_.outcome = e.outcome;
        unit_.outcomeCommand = e.command;
    }
    if (e.frame < 0 || unit_.state.behaviours.silent) return;
    Frame f;
    f.type = static_cast<uint8_t>(e.frame);
    f.version = static_cast<uint8_t>(unit_.state.firmware);
    f.change = e.change;
    f.pwrDwn = e.pwrDwn;
    rawBytes(unit_.state.bays, occupied_, f.raw);
    f.payload = e.payload ? *e.payload : payloadOf(e.frame);
    unit_.line.push_back(encodeFrame(f));
}

} // namespace sim::dsp

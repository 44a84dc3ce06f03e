// The parsers of the simulated module's files and of command lines.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sim/charon_state.h"
#include "sim/clock.h"
#include "sim/commands.h"
#include "sim/dsp_firmware.h"
#include "sim/dsp_state.h"
#include "sim/faults.h"
#include "sim/identity.h"
#include "sim/json.h"
#include "sim/manifest.h"
#include "sim/md.h"
#include "sim/md_superblock.h"
#include "sim/partitions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    switch (data[0] % 12) {
    case 0: {
        sim::Manifest m = sim::Manifest::parse(text);
        sim::Manifest again = sim::Manifest::parse(m.format());
        if (again.format() != m.format()) __builtin_trap();
        break;
    }
    case 1: sim::parseFaults(text); break;
    case 2: sim::parseWindows(text); break;
    case 3: {
        // The input is the disk, sector after sector.
        const uint64_t sectors = (size - 1) / 512 + 1;
        sim::readPartitionTable(sectors, 63, [&](uint64_t s, unsigned char* buf) {
            std::memset(buf, 0, 512);
            if (s * 512 < text.size()) std::memcpy(buf, text.data() + s * 512, std::min<size_t>(512, text.size() - s * 512));
            return s < sectors;
        });
        break;
    }
    case 4: {
        // The clock file, and the words of a fault as tavsim's command line gives them.
        timeval tv{};
        sim::parseClock(text, tv);
        std::vector<std::string> words;
        for (size_t at = 0; at <= text.size();) {
            size_t end = std::min(text.find('\0', at), text.size());
            words.push_back(text.substr(at, end - at));
            at = end + 1;
        }
        sim::Fault f;
        std::string why;
        if (sim::Fault::parseWords(words, f, why)) {
            sim::Fault again;
            if (!sim::Fault::parse(f.format(), again, why) || again.format() != f.format()) __builtin_trap();
        }
        const std::string quoted = sim::jsonQuote(text);
        if (quoted.size() < 2 || quoted.front() != '"' || quoted.back() != '"') __builtin_trap();
        break;
    }
    case 5: sim::parseInterfaces(text); break;
    case 6: {
        sim::FeatureSetting f;
        std::string why;
        if (sim::parseFeature(text, f, why)) sim::featureFile({f});
        break;
    }
    case 8: {
        // The kernel's md state: what it reads it writes back alike, and runs on.
        sim::MdState s;
        std::string why;
        if (!sim::MdState::parse(text, s, why)) break;
        sim::MdState again;
        if (!sim::MdState::parse(s.format(), again, why) || again.format() != s.format()) __builtin_trap();
        sim::mdstatText(s);
        for (sim::MdArray& a : s.arrays) {
            a.bytes();
            sim::startRecovery(a, a.recovery.sinceUs);
            sim::advanceRecovery(a, a.recovery.sinceUs + 86400000000ULL, s.speedMax, false);
        }
        sim::mdstatText(s);
        break;
    }
    case 9: {
        // A member's superblock, padded to its size.
        std::string bytes = text.substr(0, sim::kMdSuperblockBytes);
        bytes.resize(sim::kMdSuperblockBytes, '\0');
        sim::SuperblockView view;
        std::string why;
        sim::readSuperblock(bytes, view, why);
        break;
    }
    case 10: {
        // The chassis controller's state: what it reads it writes back alike;
        // the firmware runs on it and the driver takes the line.
        sim::DspUnit u;
        std::string why;
        if (!sim::DspUnit::parse(text, u, why)) break;
        sim::DspUnit again;
        if (!sim::DspUnit::parse(u.format(), again, why) || again.format() != u.format()) __builtin_trap();
        std::vector<bool> occupied(u.state.bays.size());
        for (size_t i = 0; i < occupied.size(); ++i) occupied[i] = i % 3 != 2;
        sim::dsp::Firmware firmware(u, occupied, UINT64_MAX / 4);
        firmware.catchUp();
        const uint8_t commands[][10] = {{2, 0}, {2, 1}, {2, 2}, {2, 3}, {2, 4}, {2, 8}, {6, 0xff, 0xff}, {3, 0x0f, 0}, {4, 0, 0}, {5}, {0}};
        for (const uint8_t* c : commands) firmware.command(c);
        firmware.switchMoved(1, false, !u.state.bays[0].lockOpen);
        std::string line;
        for (const std::string& f : u.line) line += f;
        sim::dsp::recordsOfLine(u.driverConfig(), line, u.records);
        break;
    }
    case 11: {
        // The hot-swap driver's state: what it reads it writes back alike.
        sim::CharonState s;
        std::string why;
        if (!sim::CharonState::parse(text, s, why)) break;
        if (s.interfaces.size() != sim::kCharonInterfaces) __builtin_trap();
        sim::CharonState again;
        if (!sim::CharonState::parse(s.format(), again, why) || again.format() != s.format()) __builtin_trap();
        break;
    }
    default: {
        std::vector<sim::Words> stages;
        sim::splitPipeline(text, stages);
        break;
    }
    }
    return 0;
}

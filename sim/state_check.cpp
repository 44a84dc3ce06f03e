#include "state_check.h"

#include <algorithm>
#include <cstdlib>
#include <sys/stat.h>

#include "clock.h"
#include "create.h"
#include "charon_state.h"
#include "dsp_state.h"
#include "faults.h"
#include "md_state.h"
#include "module.h"
#include "table.h"

namespace sim {
namespace {

std::string at(int line) { return "sim/manifest:" + std::to_string(line) + ": "; }

void checkLayout(const Manifest& m, std::vector<std::string>& out)
{
    std::string why;
    const Layout* layout = layoutFor(m.platform, why);
    if (!layout) return;  // a family not simulated yet: its modules have no bays
    const size_t count = layout->devices.size();
    for (const Bay& b : m.bays) {
        const size_t index = static_cast<size_t>(b.number - 1);
        if (index >= count)
            out.push_back(at(b.line) + "bay " + std::to_string(b.number) + " is beyond the layout of platform " +
                          std::to_string(m.platform) + " (bays 1 to " + std::to_string(count) + ")");
        else if (b.device != layout->devices[index])
            out.push_back(at(b.line) + "bay " + std::to_string(b.number) + " is " + b.device + "; the layout has " +
                          layout->devices[index]);
    }
}

// The image of a drive agrees with the manifest's size.
void checkImage(Module& module, const Drive& d, const std::string& where, const std::string& image,
                std::vector<std::string>& out)
{
    struct stat st;
    if (module.host().stat(image, &st) != 0 || !S_ISREG(st.st_mode)) {
        out.push_back(at(d.line) + "drive " + d.serial + " " + where + ": its image " + image + " is missing");
        return;
    }
    const uint64_t bytes = static_cast<uint64_t>(st.st_size);
    if (bytes != d.sectors * 512)
        out.push_back(at(d.line) + "drive " + d.serial + " " + where + ": the manifest says " + std::to_string(d.sectors) +
                      " sectors, its image holds " + std::to_string(bytes / 512) + " sectors" +
                      (bytes % 512 ? " and " + std::to_string(bytes % 512) + " bytes" : "") + " (" + image + ")");
}

void checkDrives(Module& module, const Manifest& m, std::vector<std::string>& out)
{
    for (const Drive& d : m.drives) {
        if (d.bay == 0) {
            checkImage(module, d, "on the shelf", module.shelfImage(d.serial), out);
            continue;
        }
        const Bay* b = m.bay(d.bay);
        if (!b)
            out.push_back(at(d.line) + "drive " + d.serial + " is in bay " + std::to_string(d.bay) +
                          ", which the module does not have");
        else
            checkImage(module, d, "in bay " + std::to_string(d.bay), b->device, out);
    }
}

void checkClock(Module& module, std::vector<std::string>& out)
{
    std::string text;
    timeval tv{};
    const std::string reads = "; the clock reads " + isoTime(kClockStart) + ", its start";
    if (!module.host().readFile(Module::stateFile("clock"), text)) out.push_back("sim/clock: missing" + reads);
    else if (!parseClock(text, tv))
    {
        std::string shown = text.substr(0, 40);
        while (!shown.empty() && (shown.back() == '\n' || shown.back() == ' ')) shown.pop_back();
        out.push_back("sim/clock:1: " + (shown.empty() ? std::string("an empty line") : cell(shown)) +
                      " is not SECONDS MICROSECONDS" + reads);
    }
}

} // namespace

std::vector<std::string> checkModuleState(Module& module, bool faults)
{
    std::vector<std::string> out;
    Manifest m = Manifest::parse(module.readState("manifest"), &out);
    checkLayout(m, out);
    checkDrives(module, m, out);
    // The manifest's sentences in the order of its lines.
    std::stable_sort(out.begin(), out.end(), [](const std::string& a, const std::string& b) {
        return std::atoi(a.c_str() + 13) < std::atoi(b.c_str() + 13);
    });
    checkClock(module, out);
    MdState md;
    std::string why;
    if (!MdState::parse(module.readState("md"), md, why)) out.push_back(why + "; the kernel knows no md arrays");
    if (module.host().exists(Module::stateFile("dsp"))) {
        DspUnit dsp;
        if (!DspUnit::parse(module.readState("dsp"), dsp, why))
            out.push_back(why + "; the chassis controller starts afresh at its next use");
    }
    if (module.host().exists(Module::stateFile("charon"))) {
        CharonState charon;
        if (!CharonState::parse(module.readState("charon"), charon, why))
            out.push_back(why + "; the hot-swap driver starts afresh at its next use");
    }
    if (faults) parseFaults(module.readState("faults"), &out);
    return out;
}

} // namespace sim

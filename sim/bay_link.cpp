#include "bay_link.h"

#include <algorithm>

#include "charon_state.h"
#include "create.h"
#include "dsp.h"
#include "dsp_state.h"
#include "tw_kernel.h"
#include "tw_tasks.h"

namespace sim {

struct BayLinkCache {
    uint64_t writes = ~uint64_t{0};
    Module::Stamp charon, dsp;
    std::vector<bool> found, powered;   // by bay number
    std::optional<uint64_t> powerDueUs;  // the earliest power work of the DSP not yet run
};

namespace {

// The parsed driver, or none when the module has no node. A file that
// cannot be read stands for the fresh state, as the driver starts from it.
std::optional<CharonState> charonAsItStands(Module& module)
{
    const std::string text = module.readState("charon");
    if (text.empty() && !module.host().exists(Module::stateFile("charon"))) return std::nullopt;
    CharonState s;
    std::string why;
    if (!CharonState::parse(text, s, why)) s = freshCharon();
    return s;
}

bool foundIn(const CharonState& s, const std::string& device, unsigned& interface)
{
    unsigned unit = 0;
    if (!ideUnit(device, interface, unit)) return true;
    if (interface >= s.interfaces.size()) return false;
    const CharonInterface& i = s.interfaces[interface];
    return i.active && unit < i.devices.size() && i.devices[unit];
}

void rebuild(Module& module, BayLinkCache& c)
{
    Manifest m = module.manifest();
    int bays = 0;
    for (const Bay& b : m.bays) bays = std::max(bays, b.number);
    c.found.assign(static_cast<size_t>(bays) + 1, true);
    c.powered.assign(static_cast<size_t>(bays) + 1, true);
    c.powerDueUs.reset();
    if (const std::optional<CharonState> s = charonAsItStands(module))
        for (const Bay& b : m.bays) {
            unsigned interface = 0;
            if (b.number > 0) c.found[static_cast<size_t>(b.number)] = foundIn(*s, b.device, interface);
        }
    const std::string text = module.readState("dsp");
    DspUnit unit;
    std::string why;
    // An unreadable unit starts afresh, with its drives' bays powered.
    if (text.empty() || !DspUnit::parse(text, unit, why)) return;
    for (size_t bay = 1; bay < c.powered.size() && bay <= unit.state.bays.size(); ++bay)
        c.powered[bay] = unit.state.bays[bay - 1].powered;
    for (const DspEvent& e : unit.events)
        if (e.bay && (!c.powerDueUs || e.dueUs < *c.powerDueUs)) c.powerDueUs = e.dueUs;
}

BayLinkCache& view(Module& module)
{
    std::shared_ptr<BayLinkCache>& slot = module.bayLinkCache();
    if (!slot) slot = std::make_shared<BayLinkCache>();
    BayLinkCache& c = *slot;
    const uint64_t writes = Module::stateWrites();
    const bool charonChanged = module.stateChanged("charon", c.charon);
    const bool dspChanged = module.stateChanged("dsp", c.dsp);
    // With generations the stamps are sure; without, any write of ours counts.
    const bool sure = module.generation(Module::stateFile("dsp")) != Module::kNoGeneration;
    if (charonChanged || dspChanged || (!sure && writes != c.writes)) {
        // Counted before the files are read: a write meanwhile shows next time.
        c.writes = writes;
        rebuild(module, c);
    }
    return c;
}

bool at(const std::vector<bool>& v, int bay) { return bay <= 0 || static_cast<size_t>(bay) >= v.size() || v[static_cast<size_t>(bay)]; }

// The view with the DSP's power work that is due run: the DSP's visit runs
// it (and what a power loss does) and saves the unit, which is read again.
const BayLinkCache& current(Module& module)
{
    const BayLinkCache* c = &view(module);
    if (c->powerDueUs && *c->powerDueUs <= module.nowUs()) {
        dspState(module);
        c = &view(module);
    }
    return *c;
}

} // namespace

bool bayFound(Module& module, int bay) { return at(view(module).found, bay); }

bool bayAnswers(Module& module, int bay)
{
    // The disk of a tw unit answers while the unit is usable (tw_tasks.h).
    if (bay >= tw::kUnitBayBase) return tw::unitUsable(module, bay);
    const BayLinkCache& c = current(module);
    return at(c.found, bay) && at(c.powered, bay);
}

std::optional<unsigned> attachedInterface(Module& module, int bay)
{
    const std::optional<CharonState> s = charonAsItStands(module);
    Manifest m = module.manifest();
    const Bay* b = m.bay(bay);
    unsigned interface = 0, unit = 0;
    if (!s || !b || !ideUnit(b->device, interface, unit) || !foundIn(*s, b->device, interface)) return std::nullopt;
    return interface;
}

} // namespace sim

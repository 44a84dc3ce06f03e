// tavsim wait: the virtual clock moved on, and what the tw controllers'
// tasks made of it.
#include <iostream>

#include "module.h"
#include "tavsim_cli.h"
#include "tw_state.h"
#include "tw_tasks.h"

namespace sim::cli {

int runWait(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}}, 2, 2, w, status);
    if (!module) return status;
    uint64_t seconds = 0;
    std::string why;
    // Up to ten years of virtual time in one step.
    if (!decimal("SECONDS", w.positional[1], 0, 10ull * 366 * 24 * 3600, seconds, why)) return badUsage(call, why);
    module->advance(seconds * 1000000);
    const uint64_t now = module->nowUs();
    tw::TwView& view = tw::twView(*module);
    view.settle();
    if (w.has("--json")) {
        JsonWriter j(std::cout);
        j.beginObject();
        j.key("clock").unsignedNumber(now / 1000000);
        j.key("units").beginArray();
        for (const tw::Controller& c : view.controllers())
            for (const tw::Unit& u : c.units) {
                j.beginObject();
                j.key("controller").number(c.index).key("unit").number(u.number).key("config").number(u.config);
                j.key("mode").string(u.mode).key("percent").number(tw::livePercent(c, u, now));
                j.endObject();
            }
        j.endArray();
        j.key("events").number([&] {
            int64_t n = 0;
            for (const tw::Controller& c : view.controllers()) n += static_cast<int64_t>(c.events.size());
            return n;
        }());
        j.endObject();
        return kDone;
    }
    report("clock at " + std::to_string(now / 1000000) + " s");
    for (const tw::Controller& c : view.controllers())
        for (const tw::Unit& u : c.units)
            report("controller " + std::to_string(c.index) + " unit " + std::to_string(u.number) + ": " + u.mode + " " +
                   std::to_string(tw::livePercent(c, u, now)) + "%");
    return kDone;
}

} // namespace sim::cli

// tavsim hp: the HP array controller of slot 0 as its tool shows it, and its
// properties set or the controller taken out.
#include <iostream>

#include "hp_cli.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

const char kHpHelp[] =
    "Without more arguments, prints what \"/usr/sbin/hpacucli ctrl slot=0 show\" prints\n"
    "on the module: the controller's properties as \"   Label: Value\" lines, or the\n"
    "tool's error when the slot holds no controller (status 1).\n"
    "\n"
    "set LABEL=VALUE...  sets properties, in the order given; a new label goes at\n"
    "                    the end, and the controller comes to exist. The label is\n"
    "                    the text before the first \"=\", as the tool spells it\n"
    "                    (\"Total Cache Size=256 MB\"; quote the words).\n"
    "remove              takes the controller out of the slot.\n";

int runHp(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 1, SIZE_MAX, w, status);
    if (!module) return status;
    if (w.positional.size() == 1) {
        int shown = 0;
        std::string out = hpCliShow(*module, 0, shown);
        (shown ? std::cerr : std::cout) << out;
        return shown ? kRefused : kDone;
    }
    const std::string& verb = w.positional[1];
    if (verb == "remove" && w.positional.size() == 2) {
        hpCliRemove(*module);
        report("the controller of slot 0 is taken out");
        return kDone;
    }
    if (verb != "set") return badUsage(call, "unexpected argument " + cell(verb) + "; give set LABEL=VALUE... or remove");
    if (w.positional.size() < 3) return badUsage(call, "set: give LABEL=VALUE");
    for (size_t i = 2; i < w.positional.size(); ++i) {
        const std::string& pair = w.positional[i];
        size_t eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) return badUsage(call, cell(pair) + ": give LABEL=VALUE");
        if (std::string why = hpCliSet(*module, pair.substr(0, eq), pair.substr(eq + 1)); !why.empty())
            return refused(call, cell(pair) + ": " + why);
    }
    report("set " + std::to_string(w.positional.size() - 2) + " propert" + (w.positional.size() == 3 ? "y" : "ies") +
           " of the controller of slot 0");
    return kDone;
}

} // namespace sim::cli

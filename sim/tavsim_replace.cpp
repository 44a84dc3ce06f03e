// tavsim replace: another drive put into a bay behind the controller's back.
#include <string>
#include <vector>

#include "module.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

// The drive of BAY goes to the shelf and SERIAL (a shelf drive) or a new
// blank drive takes its place in one step. Nothing tells a controller: a
// tw controller keeps the port listed with the serial number it read before,
// while the bay answers as the new drive, until the controller finds the
// drive anew (a rescan, or a remove and an add).
int runReplace(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {}, 2, 3, w, status);
    if (!module) return status;
    int bay = 0;
    Manifest m = module->manifest();
    if ((status = bayArgument(call, m, w.positional[1], bay))) return status;
    const std::string bayText = "bay " + std::to_string(bay);
    const Drive* held = m.driveInBay(bay);
    if (!held) return refused(call, bayText + ": empty, nothing to replace (tavsim insert fills an empty bay)");
    const std::string old = held->serial;
    const std::string serial = w.positional.size() == 3 ? w.positional[2] : "";
    if (!serial.empty()) {
        const Drive* d = m.drive(serial);
        std::vector<std::string> shelf;
        for (const Drive& each : m.drives)
            if (each.bay == 0) shelf.push_back(each.serial);
        if (d && d->bay != 0)
            return refused(call, "drive " + serial + ": in bay " + std::to_string(d->bay) + ", not on the shelf");
        if (!d)
            return refused(call, "drive " + cell(serial) + ": not on the shelf; " +
                                     (shelf.empty() ? "the shelf is empty" : "the shelf holds " + listed(shelf)));
    }
    // The controller must not see the bay empty in between.
    if (std::string err = module->pull(bay, false); !err.empty()) return refused(call, err);
    if (std::string err = module->insert(bay, serial); !err.empty()) {
        // The old drive goes back: a replace is whole or not at all.
        module->insert(bay, old);
        return refused(call, err);
    }
    const Manifest after = module->manifest();
    const Drive* now = after.driveInBay(bay);
    report("replaced drive " + old + " in " + bayText + " by " + (serial.empty() ? "a new blank drive " : "drive ") +
           (now ? now->serial : serial) + "; " + old + " is on the shelf, and a controller still lists it until it finds the drive anew");
    return kDone;
}

} // namespace sim::cli

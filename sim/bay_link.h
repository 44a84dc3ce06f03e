// What the kernel and the chassis controller say of a bay, for the drive's
// block nodes: whether the hot-swap driver has the bay's device found on an
// attached interface (charon.h), and whether the DSP has the bay powered
// (dsp.h). A bay's device is its whole-disk node's interface and target
// ("/dev/ide/host0/busB/targetT/..."), never its number.
//
// Every block read and write asks, so the answers come from a view kept per
// Module and parsed again only when "sim/charon" or "sim/dsp" changed (their
// generations, or stamps and a write of state by this process). Power work of the DSP that is
// already due on the virtual clock is caught up first, so that a read right
// after a power-down has completed sees the drive gone.
#pragma once

#include <optional>

#include "module.h"

namespace sim {

// The kernel has found the bay's device: always, on a module without the
// hot-swap driver or for a bay that is no IDE unit.
bool bayFound(Module& module, int bay);
// The drive answers the kernel: its device is found, and the DSP has the bay
// powered at the virtual clock (always, on a module without a chassis
// controller or for a bay it lacks).
bool bayAnswers(Module& module, int bay);

// The interface on which the kernel has the bay's device found, read afresh
// from "sim/charon" as it stands (no view, no DSP catch-up: the DSP's own
// visit asks while it applies power work); none without the driver.
std::optional<unsigned> attachedInterface(Module& module, int bay);

} // namespace sim

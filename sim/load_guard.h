// The load guard: linked into every test executable, tavsim and fuzz target,
// it installs before any other static object is built a platform that
// refuses every call, so that nothing built at load time (the controller
// API's scan of its drivers) reaches the host. A test executable releases it
// when its tests begin, tavsim at the start of main, a fuzz target when
// fuzzing begins.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace sim {

// Puts back the platform the guard replaced. Later calls do nothing.
void releaseLoadGuard();
// Whether the guard is still in force.
bool loadGuardArmed();
// The calls the guard refused, as "call path" ("fopen /proc/devices"), the
// first 32 of them.
std::vector<std::string> loadGuardRefusals();
// How many calls it refused in all.
size_t loadGuardRefusalCount();

} // namespace sim

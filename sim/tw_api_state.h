// The controller API's state made anew against the platform now in force:
// the record cleared, then a freshly built linux_os (which makes the nodes
// and finds the controllers, as at the start of a process) put in the place
// of the global `os`. For tests, `tavsim run` and `tavsim tw`, after their
// platform is installed.
#pragma once

namespace sim {

void resetTwApi();

} // namespace sim

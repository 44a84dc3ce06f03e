// The module's virtual clock as kept in "sim/clock": "SECONDS MICROSECONDS",
// two decimal numbers, microseconds below 1000000.
#pragma once

#include <ctime>
#include <string>
#include <sys/time.h>

namespace sim {

constexpr time_t kClockStart = 1136073600;  // 2006-01-01 00:00:00 UTC

// False, leaving `tv` as it was, when the text is not a clock.
bool parseClock(const std::string& text, timeval& tv);

// "2006-01-01T00:00:00Z".
std::string isoTime(time_t seconds);

} // namespace sim

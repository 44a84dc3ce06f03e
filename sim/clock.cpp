#include "clock.h"

#include <sstream>

#include "manifest.h"

namespace sim {

bool parseClock(const std::string& text, timeval& tv)
{
    std::istringstream in(text);
    std::string s, us, extra;
    uint64_t seconds = 0, micros = 0;
    if (!(in >> s >> us) || (in >> extra) || !parseNumber(s, seconds) || !parseNumber(us, micros) ||
        seconds > 253402300799ULL || micros >= 1000000)  // up to the end of year 9999
        return false;
    tv.tv_sec = static_cast<time_t>(seconds);
    tv.tv_usec = static_cast<suseconds_t>(micros);
    return true;
}

std::string isoTime(time_t seconds)
{
    struct tm t {};
    char text[32] = "?";
    if (gmtime_r(&seconds, &t)) strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &t);
    return text;
}

} // namespace sim

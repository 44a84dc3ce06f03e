#include "charon_state.h"

#include <climits>
#include <sstream>

namespace sim {
namespace {

// A decimal integer of the whole word within [min, max]: an optional minus
// sign, digits, no leading zero.
bool integer(const std::string& word, int64_t min, int64_t max, int64_t& out)
{
    const bool negative = !word.empty() && word[0] == '-';
    const std::string digits = negative ? word.substr(1) : word;
    if (digits.empty() || digits.size() > 18 || (digits.size() > 1 && digits[0] == '0')) return false;
    if (negative && digits == "0") return false;
    int64_t n = 0;  // 18 digits fit
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + (c - '0');
    }
    const int64_t v = negative ? -n : n;
    if (v < min || v > max) return false;
    out = v;
    return true;
}

bool attachment(const std::string& word, bool& active)
{
    if (word != "active" && word != "detached") return false;
    active = word == "active";
    return true;
}

const char* attachmentText(bool active) { return active ? "active" : "detached"; }

} // namespace

bool CharonState::parse(const std::string& text, CharonState& out, std::string& why)
{
    CharonState s;
    bool sawDebug = false;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        std::istringstream in(line);
        std::vector<std::string> w;
        for (std::string word; in >> word;) w.push_back(word);
        const std::string where = "sim/charon:" + std::to_string(number) + ": ";
        if (w.empty()) continue;
        int64_t a = 0, b = 0, c = 0, d = 0;
        if (w[0] == "debug" && w.size() == 2 && !sawDebug && integer(w[1], 0, 1, a)) {
            s.debug = a == 1;
            sawDebug = true;
        } else if (w[0] == "interface" && w.size() == 3 + kCharonDevicesPerInterface &&
                   integer(w[1], 0, kCharonInterfaces - 1, a) && static_cast<size_t>(a) == s.interfaces.size()) {
            CharonInterface i;
            bool ok = attachment(w[2], i.active);
            for (unsigned dev = 0; ok && dev < kCharonDevicesPerInterface; ++dev) {
                bool on = false;
                ok = attachment(w[3 + dev], on);
                i.devices[dev] = on;
            }
            if (!ok) {
                why = where + "an interface is active or detached, and so is each of its devices";
                return false;
            }
            s.interfaces.push_back(i);
        } else if (w[0] == "inject" && w.size() == 5 && integer(w[1], 0, kCharonInterfaces - 1, a) &&
                   integer(w[2], 0, UINT32_MAX, b) && integer(w[3], INT_MIN, INT_MAX, c) &&
                   integer(w[4], -1, INT_MAX, d) && d != 0) {
            s.injections.push_back({static_cast<unsigned>(a), static_cast<unsigned long>(b), static_cast<int>(c), d});
        } else {
            why = where + "cannot read \"" + line.substr(0, 60) + "\"";
            return false;
        }
    }
    if (!sawDebug || s.interfaces.size() != kCharonInterfaces) {
        why = "sim/charon: the debug flag and interfaces 0 to " + std::to_string(kCharonInterfaces - 1) + " are wanted";
        return false;
    }
    out = std::move(s);
    return true;
}

std::string CharonState::format() const
{
    std::string out = "debug " + std::string(debug ? "1" : "0") + "\n";
    for (size_t i = 0; i < interfaces.size(); ++i) {
        out += "interface " + std::to_string(i) + " " + attachmentText(interfaces[i].active);
        for (bool dev : interfaces[i].devices) out += std::string(" ") + attachmentText(dev);
        out += "\n";
    }
    for (const CharonInjection& j : injections)
        out += "inject " + std::to_string(j.interface) + " " + std::to_string(j.request) + " " + std::to_string(j.code) +
               " " + std::to_string(j.times) + "\n";
    return out;
}

CharonState freshCharon()
{
    CharonState s;
    s.interfaces.resize(kCharonInterfaces);
    return s;
}

} // namespace sim

// The hot-swap driver's state file "sim/charon": which IDE interfaces and
// which devices on them are attached, the debug flag, and the return codes
// injected for coming requests. One record a line, numbers in decimal:
//
//   debug 0|1
//   interface 0 active|detached DEVICE0 DEVICE1   each device active (the
//                                                 kernel has found it) or detached
//   interface 1 active|detached DEVICE0 DEVICE1
//   inject INTERFACE REQUEST CODE TIMES           TIMES -1: without end
//
// Interfaces come in order from 0, each once. A file that cannot be read in
// full is no state: the model then starts from the fresh state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

constexpr unsigned kCharonInterfaces = 2;        // the two channels of the IDE chip
constexpr unsigned kCharonDevicesPerInterface = 2;  // master and slave, by target

struct CharonInterface {
    bool active = true;
    std::vector<bool> devices = std::vector<bool>(kCharonDevicesPerInterface, true);
};

// A code the driver answers instead of doing the request.
struct CharonInjection {
    unsigned interface = 0;
    unsigned long request = 0;
    int code = 0;
    int64_t times = 1;
};

struct CharonState {
    std::vector<CharonInterface> interfaces;
    bool debug = false;
    std::vector<CharonInjection> injections;  // in the order armed; the first match is spent

    // False, with `out` untouched and `why` naming the line, when the text
    // is not a state in full.
    static bool parse(const std::string& text, CharonState& out, std::string& why);
    std::string format() const;
};

// Every interface and device attached, debug off, nothing injected.
CharonState freshCharon();

} // namespace sim

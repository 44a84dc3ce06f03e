// The chassis controller's state file "sim/dsp": the firmware's bays, sensors
// and behaviours, the work it has scheduled on the virtual clock, the frames
// it has sent that the driver has not taken yet, the driver's configuration
// and its records not yet handed up. One record a line, numbers in decimal
// but where hex is said:
//
//   bays 4
//   bay 1 power=1 clamp=0 lock=closed critical=closed temp=32
//   volts 168 170 168 203          raw bytes of 3.3V, 5V, 5V standby, 12V
//   source P                       P primary, S secondary
//   firmware A                     one character, percent-encoded
//   date A107112801                ten bytes, percent-encoded
//   limit 50
//   behaviours silent=0 late=0 wrong-echo=0 halt=0 power-noop=0 [lose=N]
//   outcome DONE 6                 of the last power command, and its number
//   config drives=4 masks=HEX bytes=HEX serial=/dev/ttyS1   (16 bytes each in hex;
//                                  absent until the driver is configured)
//   seq 12                         work scheduled so far
//   event due=US seq=N cmd=C [bay=B power=0|1 clamp=0|1] [frame=T [payload=HEX]
//         [change=HEX] [pwrdwn=HEX]] [outcome=DONE|OFF|HALT]
//   line HEX                       a frame on the line (dsp_driver.h)
//   record HEX                     a record for TAV_DSP_NEXT_MSG, 112 bytes
//
// (an event is one line). A file that cannot be read in full is no state:
// the model then starts from the fresh state of the module.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dsp.h"
#include "dsp_driver.h"

namespace sim {

constexpr unsigned kDspMaxLateSeconds = 86400;
constexpr unsigned kDspMaxLose = 1000000;

// Work of the firmware at a virtual time. With a bay, that bay takes the
// power and clamp; with a frame type, a frame is sent (its payload made when
// it is sent unless given); with an outcome, the last command's outcome.
struct DspEvent {
    uint64_t dueUs = 0;
    uint64_t seq = 0;
    int command = 0;
    int bay = 0;
    bool power = false;
    bool clamp = false;
    int frame = -1;
    std::optional<std::string> payload;
    uint8_t change = 0;
    uint8_t pwrDwn = 0;
    std::string outcome;
};

struct DspUnit {
    DspState state;
    std::string outcome = "DONE";
    int outcomeCommand = 0;
    uint64_t seq = 0;
    std::vector<DspEvent> events;            // by due time, then seq
    std::vector<std::string> line;           // frames, in the order sent
    std::vector<dsp::RecordBytes> records;   // in the order made

    // False, with `out` untouched and `why` naming the line, when the text
    // is not a state in full.
    static bool parse(const std::string& text, DspUnit& out, std::string& why);
    std::string format() const;

    dsp::DriverConfig driverConfig() const;
};

// A unit of `bays` bays with the defaults: the bays of drives powered,
// unclamped, switches closed, 32 to 39 degrees; nominal voltages.
DspUnit freshDspUnit(int bays, const std::vector<bool>& occupied);

// Two hex digits a byte, lower case.
std::string hexText(const std::string& bytes);
// False for an odd count or a character that is no hex digit.
bool hexBytes(const std::string& text, std::string& out);

} // namespace sim

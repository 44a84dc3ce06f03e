// The chassis controller's firmware, as the hardware has it: the wiring of
// its bays (the status nibble of each bay in the raw drive bytes, the wire
// bit of each bay in a command's masks, the order of its temperatures) and
// what it does with a command, on the virtual clock.
//
// Every command but a reset is echoed at once as a type 0 frame. Then:
//   2,0  type 2, the last power command's outcome word from byte 4
//   2,1  type 3, the power source letter in byte 3
//   2,2  type 6, the limit in byte 1, the temperatures from byte 2
//   2,3  type 7, raw voltages: 3.3V at 2, 12V at 3, 5V standby at 6, 5V at 7
//   2,4  the source changes: type 8, then type 5 with the new letter in byte 3
//   2,5  the limit becomes byte 2; no answer
//   2,8  type 15, the ten date bytes
//   3, 4, 6  power by the first mask, clamp by the second: 6 powers and
//        unclamps the bays whose bits are set, 4 powers off and clamps the
//        bays whose bits are clear, all at once after kDspSecondsPerBay a
//        bay changed; 3 does as 6, one bay after another. Type 12 when done,
//        outcome DONE (OFF for 4).
//   5    abort: power work not done yet is dropped (outcome HALT); type 12
//   0    reset: work not done yet is dropped; type 13, and type 12
//        kDspResetSeconds later
// Anything else is echoed only. A switch moved is reported unasked as type
// 4 (payload: bay, 1 lock or 2 critical, 1 open or 0 closed).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dsp_driver.h"
#include "dsp_state.h"

namespace sim::dsp {

// The wire bit of a bay (1-based) in a command's masks.
uint8_t wireBit(int bays, int bay);
// Where a bay's status nibble lies in the raw drive bytes.
void nibblePlace(int bays, int bay, int& byte, bool& high);
// Bit 3 no power, bit 2 critical switch closed, bit 1 clamped, bit 0 lock
// closed: a well bay is 5. A bay without a drive has no power.
uint8_t nibble(const DspBay& bay, bool occupied);
void rawBytes(const std::vector<DspBay>& bays, const std::vector<bool>& occupied, uint8_t raw[kRawBytes]);
// The index of a bay's temperature among the eight temperature bytes.
int temperatureIndex(int bays, int bay);

// "status: voltages", "power up: power 0x0f clamp 0x00", ...
std::string describeCommand(const uint8_t* command);
// "echo", "drive status", ...
const char* typeName(int type);

// A bay holding a drive whose power went off, as the firmware applied it.
struct PowerLoss {
    int bay = 0;
    uint64_t atUs = 0;           // when the event was due
    bool criticalOpen = false;   // the bay's critical switch at that moment
};

class Firmware {
public:
    // `occupied`: which bays hold a drive.
    Firmware(DspUnit& unit, std::vector<bool> occupied, uint64_t nowUs);

    // Runs the work due by now, in order.
    void catchUp();
    // A command of kCommandBytes arrived; false when it was lost (silent).
    bool command(const uint8_t* bytes);
    // False when the switch already stood so.
    bool switchMoved(int bay, bool critical, bool open);
    // A record that the driver hands up as it stands.
    void inject(const RecordBytes& record);
    // The power losses of the work run so far, in order.
    const std::vector<PowerLoss>& powerLosses() const { return losses_; }

private:
    uint64_t seconds(uint64_t s) const { return s * 1000000; }
    // Schedules work `after` microseconds from now.
    DspEvent& schedule(uint64_t after, int command);
    void answer(uint64_t after, int command, int type, std::optional<std::string> payload = std::nullopt);
    void power(const uint8_t* bytes, uint64_t late);
    void run(const DspEvent& e);
    std::string payloadOf(int type) const;

    DspUnit& unit_;
    std::vector<bool> occupied_;
    uint64_t now_;
    std::vector<PowerLoss> losses_;
};

} // namespace sim::dsp

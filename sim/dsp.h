// The chassis controller of a simulated module: the DSP that powers, clamps
// and watches the drive bays, and its kernel driver, at "/dev/tav_dsp_1".
//
//   DspDevice   the character node 240:1. A write of ten bytes is a command
//               to the firmware (any other count is EINVAL); a read waits
//               until the firmware has sent something, turns it into records
//               and gives the count of bytes taken; the requests are those of
//               dsp_driver.h. Present while the module has "sim/dsp".
//
// The firmware answers on the virtual clock (dsp_firmware.h); its state, the
// driver's configuration and the records not yet handed up live in
// "sim/dsp" (dsp_state.h), so that tavsim in another process moves a switch
// that a running host sees. Every command as it arrived and every record
// handed up is logged in "sim/dsp.log":
//   "TIME command HEX (WHAT)", "TIME record type T (NAME) ... buff HEX",
//   "TIME config ...", "TIME bay N lock|critical open|closed", "TIME refused ...".
//
// Bay power reaches the drives (bay_link.h): a drive whose bay has no power
// answers nothing. When the firmware takes the power of a bay holding a
// drive, the drive forgets what a real one forgets (its write cache goes back
// to on, its transfer mode is cleared, in the manifest), and if the hot-swap
// driver still has that drive found on an attached interface and the bay's
// critical switch is closed, the cut is logged, at the time it was due:
//   "TIME hazard: bay N lost power while interface I is attached".
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device_model.h"
#include "module.h"

namespace sim {

constexpr unsigned kDspSecondsPerBay = 1;   // a power command's time per bay changed
constexpr unsigned kDspResetSeconds = 3;    // from the type 13 record to the type 12
constexpr const char* kDspNode = "/dev/tav_dsp_1";
constexpr unsigned kDspMajor = 240;         // of the local range: the driver is the appliance's own
constexpr unsigned kDspMinor = 1;

struct DspBay {
    bool powered = false;
    bool clamped = false;
    bool lockOpen = false;       // the warning switch
    bool criticalOpen = false;
    int8_t temperature = 0;      // degrees, as the DSP gives them
};

struct DspBehaviours {
    bool silent = false;         // no echo, no answer; commands are lost
    unsigned lateSeconds = 0;    // echoes and answers come this late
    bool wrongEcho = false;      // the echo's bytes are inverted: they match no command
    bool halt = false;           // type 14 and "HALT" where a command would finish
    bool powerNoop = false;      // power commands answer done and change nothing
    unsigned loseNth = 0;        // the Nth command from now is lost, as when silent; 0 none
};

struct DspState {
    std::vector<DspBay> bays;            // 4 or 8
    uint8_t volts[4] = {};               // raw: 3.3V, 5V, 5V standby, 12V
    char source = 'P';
    char firmware = 'A';
    char date[10] = {};
    uint8_t limit = 0;
    DspBehaviours behaviours;
    // The driver's configuration.
    bool configured = false;
    int numDrives = 0;
    uint8_t masks[16] = {};
    uint8_t bytes[16] = {};
    std::string serialDevice;
};

bool dspPresent(Module& module);                                   // the module has the node
// The state at the virtual clock; bays empty when there is no node.
DspState dspState(Module& module);
// Sensors, behaviours and anything else of the state; the bay count stays.
// Throws std::runtime_error when the module has no node.
void dspUpdate(Module& module, const std::function<void(DspState&)>& change);
// A switch of `bay` (1-based) moved: reported as a type 4 record, with the
// bay's power-down bit when the lock of a powered bay opens. Throws
// std::runtime_error without a node, std::out_of_range for a bay it lacks.
void dspSetSwitch(Module& module, int bay, bool critical, bool open);
// A record handed up as it stands (at the next read).
void dspInject(Module& module, const uint8_t (&record)[112]);

// What the model keeps beside the state: work the firmware has scheduled,
// bytes on the line and records waiting (for tavsim).
struct DspPending {
    size_t events = 0;
    std::optional<uint64_t> nextUs;      // the earliest scheduled work
    size_t lineBytes = 0;
    size_t records = 0;
    std::string outcome;                 // of the last power command: DONE, OFF or HALT
};
DspPending dspPending(Module& module);

// The text of "sim/dsp" for a new module, or "" when the platform has no
// chassis controller: the IDE platforms have four bays (with drives or
// without), a module of platform 2 made without drives eight.
std::string freshDspState(const Manifest& manifest, bool identityOnly);

class DspDevice : public DeviceModel {
public:
    int open(DeviceContext& ctx, OpenNode& n, int flags) override;
    ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance) override;
    ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance) override;
    off_t seek(DeviceContext& ctx, OpenNode& n, off_t offset, int whence) override;
    int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg) override;
    int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) override;
    int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st) override;
    bool readReady(DeviceContext& ctx, OpenNode& n) override;
    std::optional<uint64_t> nextEvent(DeviceContext& ctx) override;

private:
    struct View;
    // The state as last read, parsed again when the file changed.
    const View* view(Module& module);

    std::string viewText_;
    uint64_t viewGeneration_ = Module::kNoGeneration;  // of sim/dsp when viewText_ was read
    std::shared_ptr<View> view_;
};

void addDspModel(DeviceRegistry& registry);

} // namespace sim

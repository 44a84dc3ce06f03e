// The firmware of the simulated tw controllers: parameter reads and writes
// by table and parameter number, the port scan and the diagnostic log,
// answered from the controller's state (tw_state.h). The table and
// parameter numbers and sizes of the items are the families' tables of the
// API's private header, read here as data only; what each item holds is the
// firmware's own.
//
// Errors come back as a status byte and a 16-bit code with a text; the
// codes are the firmware's own (kErr...), the status byte is the code's low
// byte. A fault of the controller (TwFault) takes the place of the answer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tw_state.h"

namespace sim {
class Module;
namespace tw {

constexpr uint16_t kErrOpcode = 0x0001;      // "Invalid opcode"
constexpr uint16_t kErrSize = 0x0002;        // "Invalid command size"
constexpr uint16_t kErrUnit = 0x0003;        // "Invalid unit"
constexpr uint16_t kErrTable = 0x0004;       // "Invalid table"
constexpr uint16_t kErrParameter = 0x0005;   // "Invalid parameter"
constexpr uint16_t kErrParamSize = 0x0006;   // "Parameter size mismatch"
constexpr uint16_t kErrReadOnly = 0x0007;    // "Parameter is read-only"
constexpr uint16_t kErrValue = 0x0008;       // "Value out of range"
constexpr uint16_t kErrPort = 0x0009;        // "Invalid port"
constexpr uint16_t kErrNoBattery = 0x000A;   // "No battery backup unit"
constexpr uint16_t kErrHeader = 0x000B;      // "Invalid command header"
constexpr uint16_t kErrSgl = 0x000C;         // "Invalid scatter list"
constexpr uint16_t kErrTableFlag = 0x000D;   // "Table number lacks its flag"
// The unit commands' (tw_config.h) and the tasks' (tw_tasks.h).
constexpr uint16_t kErrUnitConfig = 0x0020;  // "Invalid unit configuration"
constexpr uint16_t kErrDriveInUse = 0x0021;  // "Drive belongs to a unit"
constexpr uint16_t kErrNoDrive = 0x0022;     // "No drive on port"
constexpr uint16_t kErrNoUnitRoom = 0x0023;  // "No free unit number"
constexpr uint16_t kErrNotCarried = 0x0024;  // "Drive carries no unit to form"
constexpr uint16_t kErrUnitState = 0x0025;   // "Unit state does not allow the task"
constexpr uint16_t kErrTaskConfig = 0x0026;  // "Unit configuration does not allow the task"
constexpr uint16_t kErrDriveSmall = 0x0027;  // "Drive too small"

struct FwAnswer {
    uint8_t status = 0;
    uint16_t code = 0;
    std::string text;
    bool ok() const { return status == 0; }
};

FwAnswer fwError(uint16_t code);
const char* fwErrorText(uint16_t code);

struct ParamRequest {
    int family = 9000;
    unsigned unit = 0;       // the 7000's unit bits
    uint16_t table = 0;      // without the 9000's flag
    uint16_t parameter = 0;
    uint16_t size = 0;       // the size asked
    bool set = false;
    std::vector<uint8_t> value;  // set: the bytes given
};

// A parameter command on controller `index`: the answer, and for a read the
// bytes (exactly `size`, unless a fault of the controller breaks the rule;
// `declared` is then the size it claims).
FwAnswer runParam(Module& module, int index, const ParamRequest& r, std::vector<uint8_t>& out, uint16_t& declared);
// The port scan of port `port` (7000): the controller reads the drive's identity anew.
FwAnswer runPortscan(Module& module, int index, unsigned port);
// The diagnostic log, at most `size` bytes.
FwAnswer runDiagnosticLog(Module& module, int index, uint16_t size, std::vector<uint8_t>& out);

// The firmware fault armed for the next command of this kind, if any, spent.
bool takeFirmwareFault(Module& module, int index, int opcode, int table, int parameter, FwAnswer& answer);
// The driver status armed for the next call, if any, spent (9000).
bool takeDriverFault(Module& module, int index, uint32_t& status);
// The rule-breaking answer armed, if any, spent: "unterminated", "oversize", "garbage".
std::string takeAnswerFault(Module& module, int index);

} // namespace tw
} // namespace sim

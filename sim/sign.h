// What tavsim does with the system's own signature code: sign a module as a
// freshly installed one of its serial number is signed, and tell per bay the
// verdict of the drive manager and the drive's own stamps.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// The process's standard output and error go nowhere for the life of the
// scope: the drive manager logs on both.
class QuietOutput {
public:
    QuietOutput();
    ~QuietOutput();
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    static void flushAll();
    int saved_[2] = {-1, -1};
};

// Brings the drive manager back to the state of a process that has just
// started, so that in-process runs of the system's programs see no state of
// an earlier run. What the manager owned is freed.
void resetDriveManager();

// Every drive in a bay gets the signature of a freshly installed module: a
// record per position with owner and order, both stamps `time` (the module's
// virtual clock when absent), empty device and string tables, both copies.
// "" or the reason it could not.
std::string signModule(const std::string& dir, std::optional<int64_t> time);

// The drive manager's own diagnostic tables of the module, as it logs them:
// the in-memory signature (a row a position) and the RAID tree (a row a
// node), each under its titles and a dashed line, with a blank line between.
std::string managerTables(const std::string& dir);

struct BayVerdict {
    int bay = 0;
    std::string verdict;     // the word of the drive manager's verdict, "-" for an empty bay
    std::optional<int64_t> mount;     // the drive's own record, when it can be read
    std::optional<int64_t> dismount;
};

// The drive manager's view of every bay, its log lines kept out of the way.
std::vector<BayVerdict> bayVerdicts(const std::string& dir);
// "VERDICT MOUNT DISMOUNT", "-" for what is not known.
std::string formatVerdict(const BayVerdict& v);

} // namespace sim

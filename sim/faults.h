// Faults armed on the calls of the simulated platform. A fault names an
// operation, a path pattern (a path, or a prefix ending in "*", or "*"), the
// first matching call it hits (counted from when it was armed in the process)
// and how many calls it hits; it makes them fail with an errno, transfer only a
// short count, or cut the power of the module. Kept one a line in "sim/faults":
//
//   write /dev/ide/host0/bus0/target0/lun0/part1 nth=3 times=1 errno=EIO
//   read * nth=1 times=-1 short=100
//   ioctl /dev/ide/host0/bus0/target0/lun0/disc nth=1 times=1 request=0x31f errno=EIO
//   write * nth=5 times=1 powercut
//
// PATH is absolute (the module's view), a prefix ending in "*", "*", or
// "socket" for the interface queries on every socket (ioctl).
// Numbers are decimal; a request is a name (BLKRRPART, HDIO_GETGEO, ...), a
// decimal number or 0x and hex, and is written in hex. Words that could never
// fire are refused: times=0, request= on another operation than ioctl, short=
// on another than read or write, errno= together with short= or powercut.
//
// A power cut with nth=N lets the first N-1 matching writes through and loses
// the Nth and every later write of the process, to any path: the calls report
// success and nothing reaches the module. A fault that has hit its last call
// leaves the file, so the next process (the module after the power came back)
// runs normally.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

// Rename faults match the source path.
// A wait is the platform's waitTimeout (its path is "-").
// Mmap: a mapping of a device node; Store: a register store into one (a
// failed store is lost on the bus); Prom: a PROM download on a node.
// Popen: a command opened as a stream; its path is the command's first word
// (a program path, or "*" for every command).
enum class Op { Open, Read, Write, Lseek, Fsync, Ioctl, Stat, Unlink, Rename, Wait, Mmap, Store, Prom, Popen };

const char* opName(Op op);
bool parseOp(const std::string& name, Op& op);

const char* errnoName(int error);
bool parseErrno(const std::string& name, int& error);

// The names errno= takes, in the order tavsim lists them.
std::vector<std::string> errnoNames();

// The ioctl requests known by name; null or false for others.
const char* requestName(unsigned long request);
bool parseRequest(const std::string& word, unsigned long& request);
std::vector<std::string> requestNames();

bool pathMatches(const std::string& pattern, const std::string& path);

struct Fault {
    enum class Action { Error, Short, PowerCut };

    Op op = Op::Read;
    std::string path = "*";
    uint64_t nth = 1;          // 1-based; 0 hits from the first call on
    int64_t times = 1;         // -1: without end
    unsigned long request = 0; // ioctl request, 0 any
    Action action = Action::Error;
    int error = 0;
    uint64_t shortCount = 0;
    uint64_t seen = 0;         // matching calls so far in this process (not saved)

    static Fault failing(Op op, const std::string& path, uint64_t nth, int error, int64_t times = 1);
    static Fault shortening(Op op, const std::string& path, uint64_t nth, uint64_t count, int64_t times = 1);
    // The power goes after `writes` matching writes; later writes are lost.
    static Fault powerCut(const std::string& path, uint64_t writes);

    bool matches(Op o, const std::string& p, unsigned long req) const;
    std::string format() const;
    static bool parse(const std::string& line, Fault& out, std::string& why);
    // The same from words: operation, path (not encoded), then key=value words.
    static bool parseWords(const std::vector<std::string>& words, Fault& out, std::string& why);
};

// Lines that cannot be read are skipped; each gives a warning "sim/faults:LINE: why".
std::vector<Fault> parseFaults(const std::string& text, std::vector<std::string>* warnings = nullptr);
std::string formatFaults(const std::vector<Fault>& faults);

} // namespace sim

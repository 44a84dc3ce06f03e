#include "faults.h"

#include <cerrno>
#include <iterator>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <scsi/sg.h>
#include <sstream>

#include "manifest.h"

namespace sim {
namespace {

const char* const kOpNames[] = {"open", "read", "write", "lseek", "fsync", "ioctl", "stat", "unlink", "rename", "wait",
                                "mmap", "store", "prom", "popen"};

struct ErrnoName {
    int value;
    const char* name;
};

const ErrnoName kErrnos[] = {
    {EIO, "EIO"},       {EINTR, "EINTR"},   {ENOSPC, "ENOSPC"}, {ENODEV, "ENODEV"},     {ENOENT, "ENOENT"},
    {EACCES, "EACCES"}, {EPERM, "EPERM"},   {EBUSY, "EBUSY"},   {ENXIO, "ENXIO"},       {EAGAIN, "EAGAIN"},
    {EINVAL, "EINVAL"}, {ENOMEM, "ENOMEM"}, {EROFS, "EROFS"},   {ETIMEDOUT, "ETIMEDOUT"}, {EFAULT, "EFAULT"},
    {ENOTTY, "ENOTTY"}, {EMFILE, "EMFILE"}, {E2BIG, "E2BIG"},   {EEXIST, "EEXIST"},
};

struct RequestName {
    unsigned long value;
    const char* name;
};

const RequestName kRequests[] = {
    {BLKRRPART, "BLKRRPART"},         {BLKGETSIZE, "BLKGETSIZE"},       {BLKGETSIZE64, "BLKGETSIZE64"},
    {BLKFLSBUF, "BLKFLSBUF"},         {HDIO_GETGEO, "HDIO_GETGEO"},     {HDIO_GET_IDENTITY, "HDIO_GET_IDENTITY"},
    {HDIO_DRIVE_CMD, "HDIO_DRIVE_CMD"}, {SG_IO, "SG_IO"},
    {SET_ARRAY_INFO, "SET_ARRAY_INFO"}, {GET_ARRAY_INFO, "GET_ARRAY_INFO"}, {GET_DISK_INFO, "GET_DISK_INFO"},
    {ADD_NEW_DISK, "ADD_NEW_DISK"},     {RUN_ARRAY, "RUN_ARRAY"},           {STOP_ARRAY, "STOP_ARRAY"},
    {HOT_ADD_DISK, "HOT_ADD_DISK"},     {HOT_REMOVE_DISK, "HOT_REMOVE_DISK"}, {SET_DISK_FAULTY, "SET_DISK_FAULTY"},
    // The NVRAM card's driver.
    {0x80044701, "NVRAM_GET_INTERRUPT_STATUS"}, {0x80044705, "NVRAM_GET_DRIVER_VERSION"},
    {0x80044706, "NVRAM_GET_NUMBER_OF_DEVICES"}, {0x40044707, "NVRAM_SET_INTERRUPT_MASK"},
    {0x40044708, "NVRAM_SET_SETUP_BITS"},       {0x40044709, "NVRAM_CLEAR_SETUP_BITS"},
    {0x8004470b, "NVRAM_READ_EEPROM"},          {0x4004470c, "NVRAM_WRITE_EEPROM"},
};

std::string joined(const std::vector<std::string>& names)
{
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : " ") + n;
    return out;
}

} // namespace

const char* opName(Op op) { return kOpNames[static_cast<int>(op)]; }

bool parseOp(const std::string& name, Op& op)
{
    for (int i = 0; i < static_cast<int>(std::size(kOpNames)); ++i)
        if (name == kOpNames[i]) {
            op = static_cast<Op>(i);
            return true;
        }
    return false;
}

const char* errnoName(int error)
{
    for (const ErrnoName& e : kErrnos)
        if (e.value == error) return e.name;
    return nullptr;
}

bool parseErrno(const std::string& name, int& error)
{
    for (const ErrnoName& e : kErrnos)
        if (name == e.name) {
            error = e.value;
            return true;
        }
    uint64_t n = 0;
    if (parseNumber(name, n) && n > 0 && n < 4096) {
        error = static_cast<int>(n);
        return true;
    }
    return false;
}

std::vector<std::string> errnoNames()
{
    std::vector<std::string> names;
    for (const ErrnoName& e : kErrnos) names.push_back(e.name);
    return names;
}

const char* requestName(unsigned long request)
{
    for (const RequestName& r : kRequests)
        if (r.value == request) return r.name;
    return nullptr;
}

bool parseRequest(const std::string& word, unsigned long& request)
{
    for (const RequestName& r : kRequests)
        if (word == r.name) {
            request = r.value;
            return true;
        }
    uint64_t n = 0;
    if (!(parseHexNumber(word, n) || parseNumber(word, n)) || n == 0 || n > 0xffffffffULL) return false;
    request = static_cast<unsigned long>(n);
    return true;
}

std::vector<std::string> requestNames()
{
    std::vector<std::string> names;
    for (const RequestName& r : kRequests) names.push_back(r.name);
    return names;
}

bool pathMatches(const std::string& pattern, const std::string& path)
{
    if (!pattern.empty() && pattern.back() == '*')
        return path.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
    return pattern == path;
}

Fault Fault::failing(Op op, const std::string& path, uint64_t nth, int error, int64_t times)
{
    Fault f;
    f.op = op;
    f.path = path;
    f.nth = nth;
    f.times = times;
    f.action = Action::Error;
    f.error = error;
    return f;
}

Fault Fault::shortening(Op op, const std::string& path, uint64_t nth, uint64_t count, int64_t times)
{
    Fault f = failing(op, path, nth, 0, times);
    f.action = Action::Short;
    f.shortCount = count;
    return f;
}

Fault Fault::powerCut(const std::string& path, uint64_t writes)
{
    Fault f = failing(Op::Write, path, writes + 1, 0, 1);
    f.action = Action::PowerCut;
    return f;
}

bool Fault::matches(Op o, const std::string& p, unsigned long req) const
{
    return o == op && (request == 0 || request == req) && pathMatches(path, p);
}

std::string Fault::format() const
{
    std::ostringstream out;
    out << opName(op) << " " << percentEncode(path) << " nth=" << nth << " times=" << times;
    if (request) out << " request=0x" << std::hex << request << std::dec;
    switch (action) {
    case Action::Error: {
        const char* name = errnoName(error);
        if (name) out << " errno=" << name;
        else out << " errno=" << error;
        break;
    }
    case Action::Short: out << " short=" << shortCount; break;
    case Action::PowerCut: out << " powercut"; break;
    }
    return out.str();
}

bool Fault::parse(const std::string& line, Fault& out, std::string& why)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    std::string word;
    while (in >> word) words.push_back(words.size() == 1 ? percentDecode(word) : word);
    return parseWords(words, out, why);
}

namespace {

// One key=value word into `f`; false, with `why`, for a word that is wrong
// by itself. `seen` collects the keys so that none is given twice.
bool applyWord(const std::string& word, Fault& f, std::string& seen, std::string& why)
{
    size_t eq = word.find('=');
    std::string key = word.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : word.substr(eq + 1);
    const bool action = key == "errno" || key == "short" || word == "powercut";
    const std::string slot = " " + (action ? std::string("action") : key) + " ";
    if (seen.find(slot) != std::string::npos) {
        why = word + ": " + (action ? "a fault either fails with errno=, moves short= or cuts the power; give one"
                                    : key + "= given twice");
        return false;
    }
    seen += slot;
    uint64_t n = 0;
    if (key == "nth" && parseNumber(value, n)) f.nth = n;
    else if (key == "nth") why = word + ": N is a decimal number (0 and 1 both mean the first call)";
    else if (key == "times" && value == "-1") f.times = -1;
    else if (key == "times" && parseNumber(value, n) && n > 0 && n < (1ULL << 62)) f.times = static_cast<int64_t>(n);
    else if (key == "times") why = word + ": a fault hits 1 or more calls, or every call from the Nth on (-1)";
    else if (key == "request" && parseRequest(value, f.request)) {
    } else if (key == "request") {
        why = word + ": not a request; give a number (decimal, or 0x and hex) or one of " + joined(requestNames());
    } else if (key == "errno" && parseErrno(value, f.error)) f.action = Fault::Action::Error;
    else if (key == "errno") why = word + ": unknown; known: " + joined(errnoNames()) + ", or a number 1 to 4095";
    else if (key == "short" && parseNumber(value, n)) {
        f.action = Fault::Action::Short;
        f.shortCount = n;
    } else if (key == "short") why = word + ": N is a decimal count of bytes";
    else if (word == "powercut") f.action = Fault::Action::PowerCut;
    else why = word + ": unknown word; a fault takes nth=N times=K request=R errno=E short=N powercut";
    return why.empty();
}

} // namespace

bool Fault::parseWords(const std::vector<std::string>& words, Fault& out, std::string& why)
{
    why.clear();
    if (words.size() < 2) {
        why = "expected: OP PATH [nth=N] [times=K] [request=R] errno=E|short=N|powercut";
        return false;
    }
    Fault f;
    const std::string& path = words[1];
    if (!parseOp(words[0], f.op)) {
        why = "unknown operation " + words[0] + "; the operations: open read write lseek fsync ioctl stat unlink rename";
        return false;
    }
    // "socket" names every socket, for the interface queries made on one.
    if (path.empty() || (path[0] != '/' && path != "*" && path != "socket")) {
        why = "path " + path + ": give an absolute path of the module (/dev/...), a prefix ending in *, *, or socket";
        return false;
    }
    f.path = path;
    std::string seen;
    for (size_t i = 2; i < words.size(); ++i)
        if (!applyWord(words[i], f, seen, why)) return false;
    if (seen.find(" action ") == std::string::npos) why = "no errno=, short= or powercut";
    else if (f.action == Action::PowerCut && f.op != Op::Write) why = std::string("powercut: a power cut counts writes, not ") + opName(f.op);
    else if (f.action == Action::Short && f.op != Op::Read && f.op != Op::Write)
        why = std::string("short=: only a read or a write moves a count, not ") + opName(f.op);
    else if (f.request != 0 && f.op != Op::Ioctl)
        why = std::string("request=: only an ioctl has a request, not ") + opName(f.op);
    if (!why.empty()) return false;
    out = f;
    return true;
}

std::vector<Fault> parseFaults(const std::string& text, std::vector<std::string>* warnings)
{
    std::vector<Fault> out;
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
        ++lineNo;
        if (line.find_first_not_of(" \t") == std::string::npos || line[line.find_first_not_of(" \t")] == '#')
            continue;
        Fault f;
        std::string why;
        if (Fault::parse(line, f, why)) out.push_back(f);
        else if (warnings) warnings->push_back("sim/faults:" + std::to_string(lineNo) + ": " + why);
    }
    return out;
}

std::string formatFaults(const std::vector<Fault>& faults)
{
    std::string out;
    for (const Fault& f : faults) out += f.format() + "\n";
    return out;
}

} // namespace sim

#include "faults.h"

#include <cerrno>
#include <iterator>
#include <sstream>

#include "manifest.h"

namespace sim {
namespace {

const char* const kOpNames[] = {"open", "read", "write", "lseek", "fsync", "ioctl", "stat", "unlink", "rename"};

struct ErrnoName {
    int value;
    const char* name;
};

const ErrnoName kErrnos[] = {
    {EIO, "EIO"},       {EINTR, "EINTR"},   {ENOSPC, "ENOSPC"}, {ENODEV, "ENODEV"},     {ENOENT, "ENOENT"},
    {EACCES, "EACCES"}, {EPERM, "EPERM"},   {EBUSY, "EBUSY"},   {ENXIO, "ENXIO"},       {EAGAIN, "EAGAIN"},
    {EINVAL, "EINVAL"}, {ENOMEM, "ENOMEM"}, {EROFS, "EROFS"},   {ETIMEDOUT, "ETIMEDOUT"}, {EFAULT, "EFAULT"},
    {ENOTTY, "ENOTTY"}, {EMFILE, "EMFILE"}, {E2BIG, "E2BIG"},
};

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
    std::string opWord, path, word;
    if (!(in >> opWord >> path)) {
        why = "expected: OP PATH [nth=N] [times=K] [request=R] errno=E|short=N|powercut";
        return false;
    }
    Fault f;
    if (!parseOp(opWord, f.op)) {
        why = "unknown operation " + opWord;
        return false;
    }
    f.path = percentDecode(path);
    bool haveAction = false;
    while (in >> word) {
        size_t eq = word.find('=');
        std::string key = word.substr(0, eq);
        std::string value = eq == std::string::npos ? "" : word.substr(eq + 1);
        uint64_t n = 0;
        if (key == "nth" && parseNumber(value, n)) f.nth = n;
        else if (key == "times" && value == "-1") f.times = -1;
        else if (key == "times" && parseNumber(value, n) && n < (1ULL << 62)) f.times = static_cast<int64_t>(n);
        else if (key == "request" && parseNumber(value, n)) f.request = static_cast<unsigned long>(n);
        else if (key == "errno" && parseErrno(value, f.error)) {
            f.action = Action::Error;
            haveAction = true;
        } else if (key == "short" && parseNumber(value, n)) {
            f.action = Action::Short;
            f.shortCount = n;
            haveAction = true;
        } else if (word == "powercut") {
            f.action = Action::PowerCut;
            haveAction = true;
        } else {
            why = "bad word " + word;
            return false;
        }
    }
    if (!haveAction) {
        why = "no errno=, short= or powercut";
        return false;
    }
    if (f.action == Action::PowerCut && f.op != Op::Write) {
        why = "a power cut counts writes";
        return false;
    }
    out = f;
    return true;
}

std::vector<Fault> parseFaults(const std::string& text, std::vector<std::string>* warnings)
{
    std::vector<Fault> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t") == std::string::npos || line[line.find_first_not_of(" \t")] == '#')
            continue;
        Fault f;
        std::string why;
        if (Fault::parse(line, f, why)) out.push_back(f);
        else if (warnings) warnings->push_back("faults: " + why);
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

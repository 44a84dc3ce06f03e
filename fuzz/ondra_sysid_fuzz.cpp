// The system id file with arbitrary bytes: read by getSystemIdFromFile and
// readFromFile from a simulated module, and by ondraFirstNonEmptyLine from
// memory. Each result is checked against a plain model of the reading: lines
// of at most 1023 characters, a NUL ending a line's text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "driveutils/ondraComm.h"
#include "fuzz_module.h"
#include "platform/platform.h"

namespace {

constexpr size_t kPiece = 1023;

// The lines as the system reads them, in order.
template <typename Each>
void modelLines(const uint8_t* data, size_t size, Each each)
{
    size_t at = 0;
    while (at < size) {
        size_t end = at;
        while (end < size && end - at < kPiece && data[end] != '\n') ++end;
        size_t next = end < size && data[end] == '\n' && end - at < kPiece ? end + 1 : end;
        std::string line(reinterpret_cast<const char*>(data + at), end - at);
        line.resize(std::strlen(line.c_str()));
        if (each(line)) return;
        at = next;
    }
}

std::string withoutWhiteSpace(const std::string& s)
{
    std::string out;
    for (char c : s)
        if (!std::strchr(" \f\n\r\t\v", c)) out += c;
    return out;
}

void check(bool ok)
{
    if (!ok) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzmodule::install("ondra-sysid-fuzz", 65536);
    plat::mkdir("/etc/marrowby/comm", 0755);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string first, firstStripped;
    bool found = false, foundStripped = false;
    modelLines(data, size, [&](const std::string& line) {
        if (!found && !line.empty()) {
            first = line;
            found = true;
        }
        if (!foundStripped && !withoutWhiteSpace(line).empty()) {
            firstStripped = withoutWhiteSpace(line);
            foundStripped = true;
        }
        return found && foundStripped;
    });

    int fd = plat::open(ONDRA_SYSTEM_ID_FILE, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    check(fd >= 0);
    check(size == 0 || plat::write(fd, data, size) == static_cast<ssize_t>(size));
    plat::close(fd);

    TavString buffer;
    TavOndraComm::systemID("NO_SYSTEM_ID");
    int rc = TavOndraComm::getSystemIdFromFile(buffer);
    check(rc == (found ? 0 : -1));
    check(TavOndraComm::systemID() == (found ? first : std::string("NO_SYSTEM_ID")));

    buffer = "unchanged";
    rc = TavOndraComm::readFromFile(buffer, ONDRA_SYSTEM_ID_FILE);
    check(rc == (foundStripped ? 0 : -1));
    check(buffer == (foundStripped ? firstStripped : std::string("unchanged")));

    if (size > 0) {
        FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "r");
        check(in != nullptr);
        TavString line;
        check(ondraFirstNonEmptyLine(in, line) == found);
        if (found) check(line == first);
        std::fclose(in);
    }
    return 0;
}

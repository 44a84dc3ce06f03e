#include "driveutils/ondraInterface.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include "tavstring/tavparseutil.h"

// The service layer writes to tav_logstream; the flag is there for TAV_FILE's header.
[[maybe_unused]] static int giDebug_ondraInterface = 0;
#define TAV_DEBUG_FLAG giDebug_ondraInterface
#include "driveutils/tavlog.h"

TavOndraInterface ondraIf;

namespace {

constexpr int kProcessTypes = 3;

// The service layer's log line: the text, then where it was said.
int fail(TavString& buffer, const char* log, const char* reason, int line)
{
    tav_logstream << "Ondra module: " << log << "; " << TAV_FILE << ":" << line << std::endl;
    buffer = reason;
    return -1;
}

} // namespace

bool TavOndraInterface::validType(TavString& buffer, int type, int line)
{
    if (type >= 0 && type < kProcessTypes) return true;
    fail(buffer, "invalid type", "Invalid type", line);
    return false;
}

// With no process table yet, no process runs.
int TavOndraInterface::getRun(TavString& buffer, int type)
{
    if (!validType(buffer, type, __LINE__)) return -1;
    buffer = "FALSE";
    return 0;
}

int TavOndraInterface::processStop(TavString& buffer, int type)
{
    if (!validType(buffer, type, __LINE__)) return -1;
    return fail(buffer, "unable to stop process", "Unable to stop process", __LINE__);
}

int TavOndraInterface::processStart(TavString& buffer, int /*state*/, int type)
{
    if (!validType(buffer, type, __LINE__)) return -1;
    return fail(buffer, "unable to start process", "Unable to start process", __LINE__);
}

void tavOndraErrno(int errNumber)
{
    // Errors that are not survivable: the module's own supervisor starts it anew.
    static const auto errArray = [] {
        struct Table {
            unsigned char fatal[125] = {};
        } t;
        t.fatal[ENOMEM] = 1;
        t.fatal[ENOSPC] = 1;
        return t;
    }();
    TAV_LOG(TAV_LOG_ALWAYS, "%s: %s, %s:%d\n", "Ondra module: error string", std::strerror(errno), TAV_FILE,
            __LINE__);
    tav_logstream << "Ondra module: (problem follows) errno = " << errNumber << std::endl;
    // A number outside the table is reported and survived.
    if (errNumber < 0 || errNumber >= static_cast<int>(sizeof errArray.fatal)) return;
    if (errArray.fatal[errNumber]) {
        tav_logstream.flush();
        std::exit(errNumber);
    }
}

void tavOndraStripWhiteSpace(char* str)
{
    if (str) clean(str, " \f\n\r\t\v");
}

#include "tavstring/tavstrtokenize.h"

#include <cstring>

static int giDebug_strtokenize = 0;
#define TAV_DEBUG_FLAG giDebug_strtokenize
#include "driveutils/tavlog.h"

namespace {

// Ends the token that starts at token; its end is the first delimiter or the
// end of the text.
char* endToken(char* token, const char* delims, char** state)
{
    char* end = token + std::strcspn(token, delims);
    if (*end == '\0') {
        *state = nullptr;
    } else {
        *end = '\0';
        *state = end + 1;
    }
    return token;
}

} // namespace

char* tavStrTok_r(char* s, const char* delims, char** state)
{
    if (s) *state = s;
    if (*state == nullptr || **state == '\0') {
        *state = nullptr;
        return nullptr;
    }
    char* token = *state + std::strspn(*state, delims);
    if (*token == '\0') {
        *state = nullptr;
        return nullptr;
    }
    return endToken(token, delims, state);
}

char* tavTokenize_r(char* s, const char* delims, char** state)
{
    if (s) *state = s;
    if (*state == nullptr || **state == '\0') {
        *state = nullptr;
        return nullptr;
    }
    return endToken(*state, delims, state);
}

char* tavStrTok(char* s, const char* delims)
{
    static char* state = nullptr;
    TAV_LOG(99, "WARNING:  tavStrTok() is not thread safe\n");
    return tavStrTok_r(s, delims, &state);
}

char* tavTokenize(char* s, const char* delims)
{
    static char* state = nullptr;
    TAV_LOG(99, "WARNING:  tavTokenize() is not thread safe\n");
    return tavTokenize_r(s, delims, &state);
}

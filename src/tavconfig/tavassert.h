// An assertion that stays in release builds: a null argument or a failed
// allocation that the callers must never cause ends the process with the
// failed expression, file and line, as assert() prints it.
#pragma once

#include <cstdio>
#include <cstdlib>

#define TAV_ASSERT(expr)                                                                   \
    do {                                                                                   \
        if (!(expr)) {                                                                     \
            std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", __FILE__, __LINE__, \
                         __func__, #expr);                                                 \
            std::abort();                                                                  \
        }                                                                                  \
    } while (0)

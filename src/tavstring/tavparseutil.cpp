#include "tavstring/tavparseutil.h"

#include <algorithm>
#include <cstring>

int clean(char* s, const char* chars)
{
    if (!s || !chars) return 0;
    char* out = s;
    for (char* in = s; *in; ++in)
        if (!std::strchr(chars, *in)) *out++ = *in;
    *out = '\0';
    return 0;
}

// The caller's line ends at the separator afterwards, although it is declared
// constant: kept, since callers rely on the cut.
int split(const char* line, const char* separator, char* left, char* right)
{
    if (!line || !separator || !left || !right) return 0;
    left[0] = '\0';
    right[0] = '\0';
    char* at = const_cast<char*>(std::strstr(line, separator));
    if (!at) return 0;
    *at = '\0';
    std::strcpy(left, line);
    std::strcpy(right, at + std::strlen(separator));
    clean(right, "\r\n");
    clean(left, " \n\r");
    return 0;
}

int cleanleading(char* s, unsigned int max)
{
    if (!s) return -1;
    size_t n = std::min<size_t>(std::strlen(s), max);
    size_t skip = 0;
    while (skip < n && s[skip] == ' ') ++skip;
    size_t kept = n - skip;
    std::memmove(s, s + skip, kept);
    if (kept > 0 && s[kept - 1] == '\n')
        s[kept - 1] = '\0';
    else
        s[kept] = '\0';
    return 0;
}

int cleantrailing(char* s, unsigned int max)
{
    if (!s) return -1;
    size_t n = std::min<size_t>(std::strlen(s), max);
    size_t end = n;
    while (end > 0 && s[end - 1] == ' ') --end;
    if (end > 0) s[end] = '\0';
    return 0;
}

int readChars(char* buf, int size, const char* stopChars, FILE* stream)
{
    if (!buf || size <= 0 || !stream) return -1;
    int count = 0;
    while (count < size - 1) {
        int c = fgetc(stream);
        if (c == EOF || c == '\n') break;
        // A zero byte stops too: the search finds the terminator of stopChars.
        if (stopChars ? std::strchr(stopChars, c) != nullptr : c == '\0') break;
        buf[count++] = static_cast<char>(c);
    }
    buf[count] = '\0';
    return count == size - 1 ? -1 : count;
}

#include "infr/string.h"

#include <cstring>
#include <strings.h>

#include "infr/sys.h"

bool string_eq(const char* a, const char* b) { return std::strcmp(a, b) == 0; }

bool string_n_eq(const char* a, const char* b, size_t n) { return std::strncmp(a, b, n) == 0; }

bool string_eq_case(const char* a, const char* b) { return ::strcasecmp(a, b) == 0; }

size_t string_length(const char* s) { return std::strlen(s); }

char* string_ncopy(const char* s, size_t n)
{
    size_t len = ::strnlen(s, n);
    char* copy = static_cast<char*>(sys_alloc_help(len + 1));
    std::memcpy(copy, s, len);
    copy[len] = '\0';
    return copy;
}

char* string_copy(const char* s) { return string_ncopy(s, std::strlen(s)); }

bool string_empty(const char* s) { return !s || !*s; }

void string_free(char* s)
{
    if (s) sys_free_help(s, std::strlen(s) + 1);
}

int string_to_hex_digit(int c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

char* string_replace(const char* text, const char* from, const char* to)
{
    const size_t fromLen = std::strlen(from), toLen = std::strlen(to);
    if (fromLen == 0) return string_copy(text);
    size_t count = 0;
    for (const char* p = text; (p = std::strstr(p, from)); p += fromLen) ++count;
    const size_t len = std::strlen(text) - count * fromLen + count * toLen;
    char* out = static_cast<char*>(sys_alloc_help(len + 1));
    char* w = out;
    for (const char* p = text;;) {
        const char* hit = std::strstr(p, from);
        size_t keep = hit ? static_cast<size_t>(hit - p) : std::strlen(p);
        std::memcpy(w, p, keep);
        w += keep;
        if (!hit) break;
        std::memcpy(w, to, toLen);
        w += toLen;
        p = hit + fromLen;
    }
    *w = '\0';
    return out;
}

const char* string_str(const char* haystack, const char* needle) { return std::strstr(haystack, needle); }

void string_chomp(char* s)
{
    size_t n = std::strlen(s);
    while (n > 0 && (s[n - 1] == '\n' || s[n - 1] == '\r')) s[--n] = '\0';
}

void string_ascii_lower(char* s)
{
    for (; *s; ++s)
        if (*s >= 'A' && *s <= 'Z') *s = static_cast<char>(*s - 'A' + 'a');
}

void string_ascii_upper(char* s)
{
    for (; *s; ++s)
        if (*s >= 'a' && *s <= 'z') *s = static_cast<char>(*s - 'a' + 'A');
}

int string_cmp(const char* a, const char* b) { return std::strcmp(a, b); }

int string_ncmp(const char* a, const char* b, size_t n) { return std::strncmp(a, b, n); }

int string_cmp_case(const char* a, const char* b) { return ::strcasecmp(a, b); }

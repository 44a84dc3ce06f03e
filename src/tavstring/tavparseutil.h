// Line cleaning and small parsers of text read from files.
#pragma once

#include <cstdio>

// Deletes in place every character of s that occurs in chars. Returns 0.
int clean(char* s, const char* chars);

// Splits line at the first occurrence of separator into left and right; the
// line itself is cut at the separator. Spaces and line ends leave left, line
// ends leave right. Both outputs are empty when the separator is absent.
int split(const char* line, const char* separator, char* left, char* right);

// Drops leading spaces within the first max characters, and a newline that
// then ends them. -1 for a null s, else 0.
int cleanleading(char* s, unsigned int max);

// Drops trailing spaces within the first max characters. -1 for a null s, else 0.
int cleantrailing(char* s, unsigned int max);

// Reads up to size-1 characters, stopping at a newline, EOF, a zero byte or any
// of stopChars (consumed, not stored). The count stored, or -1 when it is
// exactly size-1: the value did not fit.
int readChars(char* buf, int size, const char* stopChars, FILE* stream);

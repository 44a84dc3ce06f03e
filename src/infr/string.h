// Thin string routines; copies come from the runtime's allocator and go back
// with string_free.
#pragma once

#include <cstddef>

bool string_eq(const char* a, const char* b);
bool string_n_eq(const char* a, const char* b, size_t n);
bool string_eq_case(const char* a, const char* b);
size_t string_length(const char* s);
char* string_copy(const char* s);
// A copy of at most n characters, terminated.
char* string_ncopy(const char* s, size_t n);
// True for null and for "".
bool string_empty(const char* s);
// Frees a copy made here by its present length: a string shortened in place
// goes back to a class no larger than its block, never a larger one.
void string_free(char* s);
// 0 to 15 for a hex digit, -1 otherwise.
int string_to_hex_digit(int c);
// A copy of `text` with every occurrence of `from` replaced by `to` ("" for
// `from` copies the text unchanged).
char* string_replace(const char* text, const char* from, const char* to);
const char* string_str(const char* haystack, const char* needle);
// Removes the line ends at the end of s, in place.
void string_chomp(char* s);
void string_ascii_lower(char* s);
void string_ascii_upper(char* s);
int string_cmp(const char* a, const char* b);
int string_ncmp(const char* a, const char* b, size_t n);
int string_cmp_case(const char* a, const char* b);

// Tokenisers. The _r forms keep their position in *state; the plain forms keep
// one hidden static state each and are not thread safe.
#pragma once

// The next token after skipping delimiters, or null when none is left.
char* tavStrTok_r(char* s, const char* delims, char** state);
// The text up to the next delimiter, empty between adjacent delimiters.
char* tavTokenize_r(char* s, const char* delims, char** state);

char* tavStrTok(char* s, const char* delims);
char* tavTokenize(char* s, const char* delims);

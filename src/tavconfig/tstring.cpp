#include "tavconfig/tstring.h"

#include <cstdlib>
#include <cstring>

TString::TString() : string(nullptr) {}

TString::TString(const char* text) : string(nullptr) { Modify(text); }

TString::~TString() { std::free(string); }

TString& TString::operator=(const char* text)
{
    Modify(text);
    return *this;
}

bool TString::Modify(const char* text)
{
    // The new text may be our own: copy before freeing.
    char* copy = text ? strdup(text) : nullptr;
    std::free(string);
    string = copy;
    return string != nullptr;
}

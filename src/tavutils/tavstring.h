// The code base's string: a std::string with the constructors it uses.
#pragma once

#include <string>

class TavString : public std::string {
public:
    TavString() = default;
    TavString(const char* text) : std::string(text ? text : "") {}
    TavString(const TavString& other) : std::string(other) {}
    TavString(TavString& other) : std::string(other) {}
    TavString& operator=(const TavString& other) = default;
};

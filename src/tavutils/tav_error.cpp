#include "tavutils/tav_error.h"

#include <cstring>

namespace {

char* copyText(const char* text)
{
    if (!text) return nullptr;
    size_t length = std::strlen(text) + 1;
    char* copy = new char[length];
    std::memcpy(copy, text, length);
    return copy;
}

} // namespace

tav_error::tav_error() : msg(nullptr) {}

tav_error::tav_error(const char* text) : msg(copyText(text)) {}

tav_error::tav_error(const tav_error& other) : msg(copyText(other.msg)) {}

tav_error::~tav_error() { delete[] msg; }

tav_enomem::~tav_enomem() = default;

#include "tavutils/tavmodparam.h"

#include <climits>
#include <cstring>
#include <string>

#include "tavstring/tavstrtokenize.h"
#include "tavutils/tav_error.h"

namespace {

char* copyText(const char* text)
{
    size_t length = text ? std::strlen(text) : 0;
    char* copy = new char[length + 1];
    if (length) std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void freeParts(char** parts, int count)
{
    if (!parts) return;
    for (int i = 0; i < count; ++i) delete[] parts[i];
    delete[] parts;
}

} // namespace

// Positions that no non-empty token fills stay null; the count stays as
// computed from the slashes.
char** parseString(const char* str, int length, int* count)
{
    if (count) *count = 0;
    if (!str || length < 0) return nullptr;
    std::string text(str, static_cast<size_t>(length));
    text.resize(std::strlen(text.c_str()));   // nothing past a zero byte
    int n = 0;
    for (char c : text)
        if (c == '/') ++n;
    if (text.empty() || text.front() != '/') ++n;
    if (!text.empty() && text.back() == '/') --n;
    if (count) *count = n;
    if (n < 1) return nullptr;

    char** parts = new char*[static_cast<size_t>(n)]();
    try {
        int filled = 0;
        char* state = nullptr;
        for (char* token = tavTokenize_r(text.data(), "/", &state); token && filled < n;
             token = tavTokenize_r(nullptr, "/", &state)) {
            if (*token) parts[filled++] = copyText(token);
        }
    } catch (...) {
        freeParts(parts, n);
        throw;
    }
    return parts;
}

TavModParam::TavModParam(const char* keyText, const char* valueText, int allocSize)
    : key(nullptr), keyParts(nullptr), numKeyParts(0), value(nullptr), valueParts(nullptr), numValueParts(0),
      msg(nullptr), msgSize(0), msgUsed(0), msgAllocSize(1), msgID(0)
{
    // The growth unit is the allocation size; below 1 it is 1, so that the
    // growth step never divides by zero.
    if (allocSize < 1) allocSize = 1;
    msgAllocSize = static_cast<unsigned int>(allocSize);
    try {
        key = copyText(keyText);
        keyParts = parseString(key, static_cast<int>(std::strlen(key)), &numKeyParts);
        value = copyText(valueText);
        valueParts = parseString(value, static_cast<int>(std::strlen(value)), &numValueParts);
        msg = new char[static_cast<size_t>(allocSize)];
    } catch (...) {
        freeParts(keyParts, numKeyParts);
        freeParts(valueParts, numValueParts);
        delete[] key;
        delete[] value;
        throw tav_enomem("TavModParam::TavModParam");
    }
    msg[0] = '\0';
    msgSize = allocSize;
}

TavModParam::~TavModParam()
{
    freeParts(keyParts, numKeyParts);
    freeParts(valueParts, numValueParts);
    delete[] key;
    delete[] value;
    delete[] msg;
}

void TavModParam::growTo(long long size, const char* failure)
{
    if (size <= msgSize) return;
    if (size > INT_MAX) throw tav_enomem(failure);
    char* grown;
    try {
        grown = new char[static_cast<size_t>(size)];
    } catch (...) {
        throw tav_enomem(failure);
    }
    std::memcpy(grown, msg, static_cast<size_t>(msgUsed));
    if (msgUsed < size) grown[msgUsed] = '\0';
    delete[] msg;
    msg = grown;
    msgSize = static_cast<int>(size);
}

int TavModParam::appendData(const void* data, int length, int id)
{
    msgID = id;
    if (!data || length < 0) return -1;
    long long needed = static_cast<long long>(msgUsed) + length;
    if (needed > msgSize) {
        // The one growth step, kept as it stands: the unit times
        // (length modulo the unit, plus one).
        long long step = static_cast<long long>(msgAllocSize) * (length % msgAllocSize + 1);
        long long size = msgSize + step;
        // Data that still does not fit grows the buffer to what it needs.
        if (size < needed) size = needed;
        growTo(size, "TavModParam");
    }
    if (length) std::memcpy(msg + msgUsed, data, static_cast<size_t>(length));
    msgUsed += length;
    return 0;
}

int TavModParam::appendData(const void* data, int length) { return appendData(data, length, msgID); }

int TavModParam::appendMessage(const char* text, int id)
{
    if (!text) {
        msgID = id;
        return -1;
    }
    // Step back over the terminator of the text before, so the texts join;
    // raw bytes appended with appendData are not a terminator and stay.
    if (msgUsed > 0 && msg[msgUsed - 1] == '\0') --msgUsed;
    size_t length = std::strlen(text) + 1;
    if (length > INT_MAX) throw tav_enomem("TavModParam");
    return appendData(text, static_cast<int>(length), id);
}

int TavModParam::appendMessage(const char* text) { return appendMessage(text, msgID); }

const char* TavModParam::getKey(int index) const
{
    if (index == 0) return key;
    if (index < 1 || index > numKeyParts || !keyParts) return nullptr;
    return keyParts[index - 1];
}

const char* TavModParam::getValue(int index) const
{
    if (index == 0) return value;
    if (index < 1 || index > numValueParts || !valueParts) return nullptr;
    return valueParts[index - 1];
}

// Returns the buffer itself, with the bytes in use in size.
const char* TavModParam::getMessage(int* size) const
{
    if (size) *size = msgUsed;
    return msg;
}

// Replaces the contents with size bytes of text and sets the bytes in use;
// a terminator follows when the buffer has room for it.
int TavModParam::setMessage(const char* text, int size)
{
    if (size < 0 || (!text && size > 0)) return -1;
    growTo(size, "TavModParam::setMessageSize");
    if (size) std::memmove(msg, text, static_cast<size_t>(size));
    msgUsed = size;
    if (msgUsed < msgSize) msg[msgUsed] = '\0';
    return 0;
}

int TavModParam::setMessageSize(int size)
{
    growTo(size, "TavModParam::setMessageSize");
    return 0;
}

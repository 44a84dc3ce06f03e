// A listener's parameter object under arbitrary keys, values and sequences
// of appends: the bytes in use never pass the buffer, and what was appended
// is what the buffer ends with.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tavutils/tavmodparam.h"

int modparamFuzzOne(const uint8_t* data, size_t size)
{
    if (size < 3) return 0;
    int allocSize = static_cast<int>(data[0]) - 8;   // a few below 1 too
    std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    size_t split = rest.find('\n');
    std::string key = rest.substr(0, split == std::string::npos ? rest.size() : split);
    std::string ops = split == std::string::npos ? std::string() : rest.substr(split + 1);
    size_t split2 = ops.find('\n');
    std::string value = ops.substr(0, split2 == std::string::npos ? ops.size() : split2);
    ops = split2 == std::string::npos ? std::string() : ops.substr(split2 + 1);

    TavModParam param(key.c_str(), value.c_str(), allocSize);
    for (int i = 0; i <= param.getNumKeyParts() + 1; ++i) {
        const char* part = param.getKey(i);
        if (part && i > 0 && (std::strchr(part, '/') || !*part)) std::abort();
    }
    for (int i = 0; i <= param.getNumValueParts() + 1; ++i) {
        const char* part = param.getValue(i);
        if (part && i > 0 && (std::strchr(part, '/') || !*part)) std::abort();
    }

    size_t at = 0;
    while (at + 2 <= ops.size()) {
        int op = static_cast<unsigned char>(ops[at]) % 5;
        size_t length = static_cast<unsigned char>(ops[at + 1]) * 3u;
        at += 2;
        if (length > ops.size() - at) length = ops.size() - at;
        std::string piece = ops.substr(at, length);
        at += length;
        int before = param.getMessageUsed();
        switch (op) {
        case 0:
            param.appendData(piece.data(), static_cast<int>(piece.size()), static_cast<int>(at));
            if (param.getMessageUsed() != before + static_cast<int>(piece.size())) std::abort();
            if (std::memcmp(param.getMessage(nullptr) + before, piece.data(), piece.size()) != 0) std::abort();
            break;
        case 1:
            param.appendMessage(piece.c_str());
            break;
        case 2:
            param.setMessage(piece.data(), static_cast<int>(piece.size()));
            if (param.getMessageUsed() != static_cast<int>(piece.size())) std::abort();
            break;
        case 3:
            param.setMessageSize(static_cast<int>(length) * 7);
            break;
        default:
            param.appendData(piece.data(), -static_cast<int>(length));
            if (param.getMessageUsed() != before) std::abort();
            break;
        }
        if (param.getMessageUsed() > param.getMessageSize()) std::abort();
    }
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return modparamFuzzOne(data, size); }
#endif

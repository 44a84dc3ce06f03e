// Key and signature records of fuzzed bytes. The first byte picks the reader;
// a key read whole is written back, read again and written again: the two
// writings agree and the two keys compare equal.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tavutils/tav_cryptokey.h"
#include "tavutils/tav_error.h"

int cryptoKeyFuzzOne(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const int which = data[0] % 4;
    const unsigned char* body = data + 1;
    const unsigned int length = static_cast<unsigned int>(size - 1);
    tav_cryptoKey key;
    try {
        if (which == 3) {
            std::string copy(reinterpret_cast<const char*>(body), length);
            copy.push_back('\0');
            FILE* stream = fmemopen(copy.data(), copy.size(), "r");
            if (!stream) return 0;
            try {
                key.readSignature(stream);
            } catch (const tav_error&) {
                std::fclose(stream);
                return 0;
            }
            std::fclose(stream);
            if (key.signatureLength() > length) std::abort();
            const unsigned char digest[20] = {};
            try {
                key.verify(digest, sizeof digest);  // no key: verifies nothing
            } catch (const tav_error&) {
                std::abort();
            }
            return 0;
        }
        if (which == 0) key.readBothKeys(body, length);
        if (which == 1) key.readDecoderKey(body, length);
        if (which == 2) key.readEncoderKey(body, length);
    } catch (const tav_error&) {
        return 0;
    }
    const unsigned int room = key.decoderKeySize() + key.encoderKeySize();
    // Each half is no larger than the bytes it was read from.
    if (room > 2ull * length) std::abort();
    std::string first(room, '\0'), second(room, '\0');
    unsigned char* out1 = reinterpret_cast<unsigned char*>(first.data());
    unsigned char* out2 = reinterpret_cast<unsigned char*>(second.data());
    tav_cryptoKey again;
    if (which == 0) {
        key.writeBothKeys(out1, room);
        again.readBothKeys(out1, room);
        again.writeBothKeys(out2, room);
    } else if (which == 1) {
        key.writeDecoderKey(out1, room);
        again.readDecoderKey(out1, room);
        again.writeDecoderKey(out2, room);
    } else {
        key.writeEncoderKey(out1, room);
        again.readEncoderKey(out1, room);
        again.writeEncoderKey(out2, room);
    }
    if (first != second || !(key == again)) std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return cryptoKeyFuzzOne(data, size); }
#endif

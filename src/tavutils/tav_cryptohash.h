// SHA-1 of the module checks. One object serves for several digests: final()
// starts the context anew.
#pragma once

#include <openssl/sha.h>

class tav_cryptoHash {
public:
    tav_cryptoHash();

    void update(const void* data, unsigned int length);
    // Finishes the digest, copies its first `length` bytes (at most
    // maxHashSize()) to `digest`, and starts again.
    void final(unsigned char* digest, unsigned int length);
    static unsigned int maxHashSize() { return SHA_DIGEST_LENGTH; }

private:
    SHA_CTX ctxt;
};

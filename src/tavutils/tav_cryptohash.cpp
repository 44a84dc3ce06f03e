// The SHA1_* calls are deprecated in OpenSSL 3 and the build treats warnings
// as errors: this unit alone silences that.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "tavutils/tav_cryptohash.h"

#include <cstring>

tav_cryptoHash::tav_cryptoHash() { SHA1_Init(&ctxt); }

void tav_cryptoHash::update(const void* data, unsigned int length) { SHA1_Update(&ctxt, data, length); }

void tav_cryptoHash::final(unsigned char* digest, unsigned int length)
{
    unsigned char full[SHA_DIGEST_LENGTH];
    SHA1_Final(full, &ctxt);
    std::memcpy(digest, full, length < sizeof full ? length : sizeof full);
    SHA1_Init(&ctxt);
}

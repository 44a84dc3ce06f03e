// A DSA key of the module checks, with the signature last read or made. The
// encoder key is the private half, the decoder key the public half.
//
// Files and buffers hold big numbers as a 32-bit little-endian length and
// that many bytes, big-endian: p, q, g, then the public and/or private key.
// A signature is a 32-bit length and the DER bytes that DSA_sign writes.
// Every failure throws tav_error.
#pragma once

#include <cstdio>
#include <openssl/types.h>

class tav_cryptoKey {
public:
    tav_cryptoKey();
    // A copy shares the DSA (one more reference) and owns a copy of the signature.
    tav_cryptoKey(const tav_cryptoKey& other);
    tav_cryptoKey& operator=(const tav_cryptoKey&) = delete;
    ~tav_cryptoKey();

    // New parameters (512 bits, q of 160) and a new key pair.
    void initDSA();
    // A new key pair on the present parameters.
    void buildKeys();

    void signData(const unsigned char* data, unsigned int length);
    // DSA_verify of `signature`: 1 valid, 0 not; anything else throws with
    // the library's text. A key never read or made verifies nothing.
    int verify(const unsigned char* data, unsigned int length);

    unsigned int decoderKeySize() const;
    unsigned int encoderKeySize() const;

    void readBothKeys(FILE* stream);
    void readDecoderKey(FILE* stream);
    void readEncoderKey(FILE* stream);
    void writeBothKeys(FILE* stream) const;
    void writeDecoderKey(FILE* stream) const;
    void writeEncoderKey(FILE* stream) const;

    void readBothKeys(const char* filename);
    void readDecoderKey(const char* filename);
    void readEncoderKey(const char* filename);
    void writeBothKeys(const char* filename) const;
    void writeDecoderKey(const char* filename) const;
    void writeEncoderKey(const char* filename) const;

    void readBothKeys(const unsigned char* buffer, unsigned int size);
    void readDecoderKey(const unsigned char* buffer, unsigned int size);
    void readEncoderKey(const unsigned char* buffer, unsigned int size);
    void writeBothKeys(unsigned char* buffer, unsigned int size) const;
    void writeDecoderKey(unsigned char* buffer, unsigned int size) const;
    void writeEncoderKey(unsigned char* buffer, unsigned int size) const;

    void readPQG(FILE* stream);
    void writePQG(FILE* stream) const;
    void readSignature(FILE* stream);
    void writeSignature(FILE* stream) const;

    // p, q, g and both halves equal by BN_cmp; a cleared half equals zero.
    bool operator==(tav_cryptoKey other) const;

    unsigned int signatureLength() const { return length; }
    const unsigned char* signatureBytes() const { return signature; }

private:
    unsigned int length;
    unsigned char* signature;
    DSA* dsa;
};

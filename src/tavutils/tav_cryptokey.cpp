// The DSA_* calls are deprecated in OpenSSL 3 and the build treats warnings
// as errors: this unit alone silences that.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "tavutils/tav_cryptokey.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/dsa.h>
#include <openssl/err.h>

#include "platform/platform.h"
#include "tavutils/tav_error.h"

namespace {

// The byte sources and sinks of the readers and writers: a stream or a
// bounded buffer.
struct Source {
    virtual ~Source() = default;
    virtual bool read(void* to, size_t n) = 0;
};

struct StreamSource : Source {
    explicit StreamSource(FILE* f) : file(f) {}
    bool read(void* to, size_t n) override { return n == 0 || std::fread(to, n, 1, file) == 1; }
    FILE* file;
};

struct BufferSource : Source {
    BufferSource(const unsigned char* b, size_t s) : bytes(b), size(s) {}
    bool read(void* to, size_t n) override
    {
        if (n > size - at) return false;
        if (n) std::memcpy(to, bytes + at, n);
        at += n;
        return true;
    }
    const unsigned char* bytes;
    size_t size;
    size_t at = 0;
};

struct Sink {
    virtual ~Sink() = default;
    virtual bool write(const void* from, size_t n) = 0;
};

struct StreamSink : Sink {
    explicit StreamSink(FILE* f) : file(f) {}
    bool write(const void* from, size_t n) override { return n == 0 || std::fwrite(from, n, 1, file) == 1; }
    FILE* file;
};

struct BufferSink : Sink {
    BufferSink(unsigned char* b, size_t s) : bytes(b), size(s) {}
    bool write(const void* from, size_t n) override
    {
        if (n > size - at) return false;
        if (n) std::memcpy(bytes + at, from, n);
        at += n;
        return true;
    }
    unsigned char* bytes;
    size_t size;
    size_t at = 0;
};

struct BnFree {
    void operator()(BIGNUM* bn) const { BN_free(bn); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;

struct DsaFree {
    void operator()(DSA* d) const { DSA_free(d); }
};
using Dsa = std::unique_ptr<DSA, DsaFree>;

struct FileCloser {
    FILE* f;
    ~FileCloser() { std::fclose(f); }
};

bool readLength(Source& in, uint32_t& value)
{
    unsigned char b[4];
    if (!in.read(b, 4)) return false;
    value = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    return true;
}

bool writeLength(Sink& out, uint32_t value)
{
    unsigned char b[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                          static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    return out.write(b, 4);
}

// A length comes from outside: read in steps, so that a length beyond what
// the source holds fails having allocated no more than it held and a step.
bool readBytes(Source& in, uint32_t length, std::vector<unsigned char>& bytes)
{
    constexpr size_t kStep = 64 * 1024;
    bytes.clear();
    while (bytes.size() < length) {
        size_t at = bytes.size();
        size_t step = std::min<size_t>(length - at, kStep);
        bytes.resize(at + step);
        if (!in.read(bytes.data() + at, step)) return false;
    }
    return true;
}

Bn readNumber(Source& in, const char* failure)
{
    uint32_t length;
    std::vector<unsigned char> bytes;
    if (!readLength(in, length) || !readBytes(in, length, bytes)) throw tav_error(failure);
    static const unsigned char none = 0;
    Bn bn(BN_bin2bn(length ? bytes.data() : &none, static_cast<int>(length), nullptr));
    if (!bn) throw tav_enomem("new failed");
    return bn;
}

// A missing number (a cleared half) is written as length 0.
void writeNumber(Sink& out, const BIGNUM* bn)
{
    int length = bn ? BN_num_bytes(bn) : 0;
    std::vector<unsigned char> bytes(static_cast<size_t>(length));
    if (length) BN_bn2bin(bn, bytes.data());
    if (!writeLength(out, static_cast<uint32_t>(length)) || !out.write(bytes.data(), bytes.size()))
        throw tav_error("fwrite of dsa failed");
}

unsigned int numberSize(const BIGNUM* bn) { return bn ? static_cast<unsigned int>(BN_num_bytes(bn)) : 0; }

enum Halves { kPublic = 1, kPrivate = 2, kBoth = 3 };

// A key read fills a fresh DSA with the numbers it reads; generating
// parameters first, only to replace them, would cost tens of milliseconds.
DSA* readKey(Source& in, int halves)
{
    Bn p = readNumber(in, "fread of dsa p failed");
    Bn q = readNumber(in, "fread of dsa q failed");
    Bn g = readNumber(in, "fread of dsa g failed");
    // The cleared public half is held as zero: OpenSSL keeps no key without one.
    Bn pub = (halves & kPublic) ? readNumber(in, "fread of dsa pub_key failed") : Bn(BN_new());
    Bn priv = (halves & kPrivate) ? readNumber(in, "fread of dsa priv_key failed") : nullptr;
    Dsa fresh(DSA_new());
    if (!fresh || !pub) throw tav_enomem("new failed");
    if (DSA_set0_pqg(fresh.get(), p.get(), q.get(), g.get()) != 1) throw tav_enomem("new failed");
    p.release();
    q.release();
    g.release();
    if (DSA_set0_key(fresh.get(), pub.get(), priv.get()) != 1) throw tav_enomem("new failed");
    pub.release();
    priv.release();
    return fresh.release();
}

void writeKey(Sink& out, const DSA* dsa, int halves)
{
    const BIGNUM *p = nullptr, *q = nullptr, *g = nullptr, *pub = nullptr, *priv = nullptr;
    if (dsa) {
        DSA_get0_pqg(dsa, &p, &q, &g);
        DSA_get0_key(dsa, &pub, &priv);
    }
    writeNumber(out, p);
    writeNumber(out, q);
    writeNumber(out, g);
    if (halves & kPublic) writeNumber(out, pub);
    if (halves & kPrivate) writeNumber(out, priv);
}

FILE* openFile(const char* filename, const char* mode, const char* failure)
{
    FILE* file = filename ? plat::fopen(filename, mode) : nullptr;
    if (!file) {
        char text[600];
        std::snprintf(text, sizeof text, failure, filename ? filename : "(null)");
        throw tav_error(text);
    }
    return file;
}

// A missing number compares as zero.
bool sameNumber(const BIGNUM* a, const BIGNUM* b)
{
    if (!a || !b) return (!a || BN_is_zero(a)) && (!b || BN_is_zero(b));
    return BN_cmp(a, b) == 0;
}

BIGNUM* dup(const BIGNUM* bn)
{
    if (!bn) return nullptr;
    BIGNUM* copy = BN_dup(bn);
    if (!copy) throw tav_enomem("new failed");
    return copy;
}

} // namespace

tav_cryptoKey::tav_cryptoKey() : length(0), signature(nullptr), dsa(nullptr) {}

// A deep copy: the copy owns its DSA, so that each side frees its own.
tav_cryptoKey::tav_cryptoKey(const tav_cryptoKey& other) : length(other.length), signature(nullptr), dsa(nullptr)
{
    if (other.signature) {
        signature = new unsigned char[length];
        if (length) std::memcpy(signature, other.signature, length);
    }
    if (!other.dsa) return;
    Dsa copy(DSA_new());
    if (!copy) throw tav_enomem("new failed");
    const BIGNUM *p, *q, *g, *pub, *priv;
    DSA_get0_pqg(other.dsa, &p, &q, &g);
    DSA_get0_key(other.dsa, &pub, &priv);
    if (p && q && g) DSA_set0_pqg(copy.get(), dup(p), dup(q), dup(g));
    if (pub) DSA_set0_key(copy.get(), dup(pub), dup(priv));
    dsa = copy.release();
}

tav_cryptoKey::~tav_cryptoKey()
{
    delete[] signature;
    DSA_free(dsa);
}

// OpenSSL 3 refuses 160-bit parameters; older libraries raised any request
// under 512 bits to 512, which is what is asked here (q stays 160 bits).
void tav_cryptoKey::initDSA()
{
    Dsa fresh(DSA_new());
    if (!fresh) throw tav_enomem("new failed");
    if (DSA_generate_parameters_ex(fresh.get(), 512, nullptr, 0, nullptr, nullptr, nullptr) != 1)
        throw tav_error("DSA_generate_parameters failed");
    if (DSA_generate_key(fresh.get()) != 1) throw tav_error("DSA_generate_key failed");
    DSA_free(dsa);
    dsa = fresh.release();
}

void tav_cryptoKey::buildKeys()
{
    if (!dsa || DSA_generate_key(dsa) != 1) throw tav_error("DSA_generate_key failed");
}

void tav_cryptoKey::signData(const unsigned char* data, unsigned int size)
{
    int room = dsa ? DSA_size(dsa) : 0;
    if (room <= 0 || size > INT_MAX) throw tav_error("DSA_sign failed");
    std::unique_ptr<unsigned char[]> made(new unsigned char[static_cast<size_t>(room)]);
    unsigned int made_length = 0;
    if (DSA_sign(0, data, static_cast<int>(size), made.get(), &made_length, dsa) != 1) throw tav_error("DSA_sign failed");
    delete[] signature;
    signature = made.release();
    length = made_length;
}

int tav_cryptoKey::verify(const unsigned char* data, unsigned int size)
{
    // Nothing read: no key, no signature, nothing verifies.
    if (!dsa || !signature || size > INT_MAX || length > INT_MAX) return 0;
    ERR_clear_error();
    int result = DSA_verify(0, data, static_cast<int>(size), signature, static_cast<int>(length), dsa);
    if (result != 0 && result != 1) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        throw tav_error(text);
    }
    return result;
}

unsigned int tav_cryptoKey::decoderKeySize() const
{
    const BIGNUM *p = nullptr, *q = nullptr, *g = nullptr, *pub = nullptr, *priv = nullptr;
    if (dsa) {
        DSA_get0_pqg(dsa, &p, &q, &g);
        DSA_get0_key(dsa, &pub, &priv);
    }
    return 16 + numberSize(p) + numberSize(q) + numberSize(g) + numberSize(pub);
}

unsigned int tav_cryptoKey::encoderKeySize() const
{
    const BIGNUM *p = nullptr, *q = nullptr, *g = nullptr, *pub = nullptr, *priv = nullptr;
    if (dsa) {
        DSA_get0_pqg(dsa, &p, &q, &g);
        DSA_get0_key(dsa, &pub, &priv);
    }
    return 16 + numberSize(p) + numberSize(q) + numberSize(g) + numberSize(priv);
}

#define TAV_KEY_READERS(name, halves)                                                      \
    void tav_cryptoKey::name(FILE* stream)                                                 \
    {                                                                                      \
        StreamSource in(stream);                                                           \
        DSA* fresh = readKey(in, halves);                                                  \
        DSA_free(dsa);                                                                     \
        dsa = fresh;                                                                       \
    }                                                                                      \
    void tav_cryptoKey::name(const char* filename)                                         \
    {                                                                                      \
        FILE* file = openFile(filename, "r", "can't open %s to read");                     \
        FileCloser closer{file};                                                           \
        name(file);                                                                        \
    }                                                                                      \
    void tav_cryptoKey::name(const unsigned char* buffer, unsigned int size)               \
    {                                                                                      \
        BufferSource in(buffer, buffer ? size : 0);                                        \
        DSA* fresh = readKey(in, halves);                                                  \
        DSA_free(dsa);                                                                     \
        dsa = fresh;                                                                       \
    }

#define TAV_KEY_WRITERS(name, halves)                                                      \
    void tav_cryptoKey::name(FILE* stream) const                                           \
    {                                                                                      \
        StreamSink out(stream);                                                            \
        writeKey(out, dsa, halves);                                                        \
    }                                                                                      \
    void tav_cryptoKey::name(const char* filename) const                                   \
    {                                                                                      \
        FILE* file = openFile(filename, "w", "can't open %s to write");                    \
        FileCloser closer{file};                                                           \
        name(file);                                                                        \
    }                                                                                      \
    void tav_cryptoKey::name(unsigned char* buffer, unsigned int size) const               \
    {                                                                                      \
        BufferSink out(buffer, buffer ? size : 0);                                         \
        writeKey(out, dsa, halves);                                                        \
    }

TAV_KEY_READERS(readBothKeys, kBoth)
TAV_KEY_READERS(readDecoderKey, kPublic)
TAV_KEY_READERS(readEncoderKey, kPrivate)
TAV_KEY_WRITERS(writeBothKeys, kBoth)
TAV_KEY_WRITERS(writeDecoderKey, kPublic)
TAV_KEY_WRITERS(writeEncoderKey, kPrivate)

void tav_cryptoKey::readPQG(FILE* stream)
{
    StreamSource in(stream);
    Bn p = readNumber(in, "fread of dsa p failed");
    Bn q = readNumber(in, "fread of dsa q failed");
    Bn g = readNumber(in, "fread of dsa g failed");
    Dsa fresh(DSA_new());
    if (!fresh || DSA_set0_pqg(fresh.get(), p.get(), q.get(), g.get()) != 1) throw tav_enomem("new failed");
    p.release();
    q.release();
    g.release();
    DSA_free(dsa);
    dsa = fresh.release();
}

void tav_cryptoKey::writePQG(FILE* stream) const
{
    StreamSink out(stream);
    writeKey(out, dsa, 0);
}

void tav_cryptoKey::readSignature(FILE* stream)
{
    StreamSource in(stream);
    uint32_t size;
    std::vector<unsigned char> bytes;
    if (!readLength(in, size)) throw tav_error("fread of length failed");
    if (!readBytes(in, size, bytes)) throw tav_error("fread of signature failed");
    unsigned char* fresh = new unsigned char[size ? size : 1];
    if (size) std::memcpy(fresh, bytes.data(), size);
    delete[] signature;
    signature = fresh;
    length = size;
}

void tav_cryptoKey::writeSignature(FILE* stream) const
{
    StreamSink out(stream);
    if (!writeLength(out, length)) throw tav_error("fwrite of length failed");
    if (length && !out.write(signature, length)) throw tav_error("fwrite of signature failed");
}

bool tav_cryptoKey::operator==(tav_cryptoKey other) const
{
    const BIGNUM *p = nullptr, *q = nullptr, *g = nullptr, *pub = nullptr, *priv = nullptr;
    const BIGNUM *op = nullptr, *oq = nullptr, *og = nullptr, *opub = nullptr, *opriv = nullptr;
    if (dsa) {
        DSA_get0_pqg(dsa, &p, &q, &g);
        DSA_get0_key(dsa, &pub, &priv);
    }
    if (other.dsa) {
        DSA_get0_pqg(other.dsa, &op, &oq, &og);
        DSA_get0_key(other.dsa, &opub, &opriv);
    }
    return sameNumber(p, op) && sameNumber(q, oq) && sameNumber(g, og) && sameNumber(pub, opub) &&
           sameNumber(priv, opriv);
}

// The DSA_* and SHA1 calls are deprecated in OpenSSL 3 and the build treats
// warnings as errors: this unit alone silences that.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "sim/module_signer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <openssl/bn.h>
#include <openssl/dsa.h>
#include <openssl/sha.h>

namespace sim {

namespace {

std::string le32(uint32_t v)
{
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

std::string number(const BIGNUM* bn)
{
    std::string bytes(static_cast<size_t>(BN_num_bytes(bn)), '\0');
    BN_bn2bin(bn, reinterpret_cast<unsigned char*>(bytes.data()));
    return le32(static_cast<uint32_t>(bytes.size())) + bytes;
}

// A length-prefixed number at `at`, moved past; null when it runs past the bytes.
BIGNUM* readNumber(const std::string& b, size_t& at)
{
    if (b.size() - std::min(at, b.size()) < 4) return nullptr;
    uint32_t n = 0;
    for (int i = 3; i >= 0; --i) n = n << 8 | static_cast<unsigned char>(b[at + static_cast<size_t>(i)]);
    at += 4;
    if (n > b.size() - at) return nullptr;
    BIGNUM* bn = BN_bin2bn(reinterpret_cast<const unsigned char*>(b.data() + at), static_cast<int>(n), nullptr);
    at += n;
    return bn;
}

// The public numbers p, q, g, y at `at` as a DSA key (and x with `priv`);
// null when they can't be read.
DSA* readKey(const std::string& b, size_t& at, bool priv)
{
    BIGNUM* n[5] = {};
    const int count = priv ? 5 : 4;
    bool whole = true;
    for (int i = 0; i < count && whole; ++i) whole = (n[i] = readNumber(b, at)) != nullptr;
    DSA* dsa = whole ? DSA_new() : nullptr;
    if (!dsa || !DSA_set0_pqg(dsa, n[0], n[1], n[2])) {
        for (BIGNUM* bn : n) BN_free(bn);
        DSA_free(dsa);
        return nullptr;
    }
    DSA_set0_key(dsa, n[3], n[4]);
    return dsa;
}

uint64_t get(const std::string& b, size_t at, size_t n)
{
    uint64_t v = 0;
    for (size_t i = n; i > 0; --i) v = v << 8 | static_cast<unsigned char>(b[at + i - 1]);
    return v;
}

void set(std::string& b, size_t at, uint64_t v, size_t n)
{
    for (size_t i = 0; i < n; ++i) b[at + i] = static_cast<char>(v >> (8 * i));
}

std::string sha1(const std::string& data)
{
    unsigned char d[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), d);
    return std::string(reinterpret_cast<char*>(d), sizeof d);
}

// Grows the section that ends last (of those with file bytes) to the end of
// the file, so that the section table falls inside the data; returns the
// new end, or 0 when the tables can't be read.
uint64_t coverTable(std::string& object, bool grow)
{
    if (object.size() < 64 || object.compare(0, 4, "\x7f" "ELF") != 0) return 0;
    const bool wide = object[4] == 2;
    const uint64_t shoff = wide ? get(object, 40, 8) : get(object, 32, 4);
    const uint64_t shnum = wide ? get(object, 60, 2) : get(object, 48, 2);
    const size_t ent = wide ? 64 : 40;
    if (shoff > object.size() || shnum > (object.size() - shoff) / ent) return 0;
    uint64_t end = 0;
    size_t last = 0;
    for (uint64_t i = 0; i < shnum; ++i) {
        const size_t at = shoff + i * ent;
        if (get(object, at + 4, 4) == 8) continue;
        const uint64_t off = wide ? get(object, at + 24, 8) : get(object, at + 16, 4);
        const uint64_t size = wide ? get(object, at + 32, 8) : get(object, at + 20, 4);
        if (off + size > end) {
            end = off + size;
            last = at;
        }
    }
    if (!grow || end == 0 || end >= object.size()) return end;
    const uint64_t off = wide ? get(object, last + 24, 8) : get(object, last + 16, 4);
    set(object, last + (wide ? 32 : 20), object.size() - off, wide ? 8 : 4);
    return object.size();
}

} // namespace

SignerKey::SignerKey() : dsa_(DSA_new())
{
    DSA_generate_parameters_ex(dsa_, 512, nullptr, 0, nullptr, nullptr, nullptr);
    DSA_generate_key(dsa_);
}

SignerKey::SignerKey(const std::string& allNumbers)
{
    size_t at = 0;
    dsa_ = readKey(allNumbers, at, true);
}

SignerKey::~SignerKey() { DSA_free(dsa_); }

std::string SignerKey::publicNumbers() const
{
    return number(DSA_get0_p(dsa_)) + number(DSA_get0_q(dsa_)) + number(DSA_get0_g(dsa_)) +
           number(DSA_get0_pub_key(dsa_));
}

std::string SignerKey::allNumbers() const { return publicNumbers() + number(DSA_get0_priv_key(dsa_)); }

std::string moduleKeysFile(const SignerKey& maker, const SignerKey& vendor)
{
    return maker.allNumbers() + vendor.publicNumbers();
}

std::string signatureRecord(const SignerKey& key, const std::string& data)
{
    std::string sig(static_cast<size_t>(DSA_size(key.dsa())), '\0');
    unsigned int length = 0;
    DSA_sign(0, reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()),
             reinterpret_cast<unsigned char*>(sig.data()), &length, key.dsa());
    sig.resize(length);
    return le32(length) + sig;
}

std::string blockDigest(const std::string& data)
{
    SHA_CTX ctx;
    SHA1_Init(&ctx);
    unsigned char block[1024] = {};
    for (size_t at = 0; at < data.size(); at += sizeof block) {
        const size_t n = std::min(sizeof block, data.size() - at);
        std::memcpy(block, data.data() + at, n);  // the tail keeps the block before
        SHA1_Update(&ctx, block, sizeof block);
    }
    unsigned char d[SHA_DIGEST_LENGTH];
    SHA1_Final(d, &ctx);
    return std::string(reinterpret_cast<char*>(d), sizeof d);
}

std::string signModule(const std::string& object, const SignerKey& maker, const SignerKey& vendor, Forge forge,
                       std::string* error)
{
    std::string data = object;
    const uint64_t end = coverTable(data, forge != Forge::kNoCover);
    if (end == 0) {
        if (error) *error = "not a shared object with readable section headers";
        return "";
    }
    if (forge == Forge::kNoTrailer) return data;

    const std::string elf = data.substr(0, end);
    const std::string digest = forge == Forge::kExactDigest ? sha1(elf) : blockDigest(elf);
    SignerKey other;  // a stranger: a second vendor, or a false maker
    const SignerKey& signer = forge == Forge::kVendor ? other : vendor;
    const SignerKey& certifier = forge == Forge::kMaker ? other : maker;

    std::string dataSig = signatureRecord(signer, digest);
    const std::string key = signer.publicNumbers();
    std::string keySig = signatureRecord(certifier, sha1(key));
    // The last byte of a DER signature is a value byte of s.
    if (forge == Forge::kDataSig) dataSig.back() ^= 1;
    if (forge == Forge::kKeySig) keySig.back() ^= 1;

    std::string out = data + dataSig + key + keySig;
    if (forge == Forge::kData) out[end / 2] ^= 0x10;
    if (forge == Forge::kTruncate) out.resize(out.size() - keySig.size() / 2);
    return out;
}

namespace {

// A length-prefixed signature at `at`, moved past; false when it runs past.
bool readSignature(const std::string& b, size_t& at, std::string& out)
{
    if (b.size() - std::min(at, b.size()) < 4) return false;
    const uint32_t n = static_cast<uint32_t>(get(b, at, 4));
    at += 4;
    if (n > b.size() - at) return false;
    out = b.substr(at, n);
    at += n;
    return true;
}

bool verifies(DSA* key, const std::string& digest, const std::string& sig)
{
    return key && DSA_verify(0, reinterpret_cast<const unsigned char*>(digest.data()), static_cast<int>(digest.size()),
                             reinterpret_cast<const unsigned char*>(sig.data()), static_cast<int>(sig.size()), key) == 1;
}

bool sameKey(const DSA* a, const DSA* b)
{
    return a && b && BN_cmp(DSA_get0_p(a), DSA_get0_p(b)) == 0 && BN_cmp(DSA_get0_q(a), DSA_get0_q(b)) == 0 &&
           BN_cmp(DSA_get0_g(a), DSA_get0_g(b)) == 0 && BN_cmp(DSA_get0_pub_key(a), DSA_get0_pub_key(b)) == 0;
}

} // namespace

ModuleReport inspectModule(const std::string& file, const std::string& keysFile)
{
    ModuleReport r;
    r.size = file.size();
    std::string copy = file;
    r.end = coverTable(copy, false);
    if (r.end == 0) return r;
    r.elfClass = file[4] == 2 ? 64 : 32;
    r.trailer = r.end < file.size();
    if (!r.trailer) return r;

    size_t at = r.end;
    std::string dataSig, keySig;
    const bool sigRead = readSignature(file, at, dataSig);
    const size_t keyAt = at;
    DSA* vendor = sigRead ? readKey(file, at, false) : nullptr;
    const std::string keyBytes = file.substr(keyAt, at - keyAt);
    r.trailerRead = vendor && readSignature(file, at, keySig);

    size_t keysAt = 0;
    DSA* maker = readKey(keysFile, keysAt, true);
    DSA* known = maker ? readKey(keysFile, keysAt, false) : nullptr;
    if (r.trailerRead) {
        r.dataSignature = verifies(vendor, blockDigest(file.substr(0, r.end)), dataSig);
        r.keySignature = verifies(maker, sha1(keyBytes), keySig);
        r.vendorKnown = sameKey(vendor, known);
    }
    DSA_free(vendor);
    DSA_free(maker);
    DSA_free(known);
    return r;
}

} // namespace sim

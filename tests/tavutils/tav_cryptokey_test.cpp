// The key files, signatures and digests against a signer of the test's own
// that calls libcrypto directly and writes the format from its description.
// The DSA_* and SHA1 calls are deprecated in OpenSSL 3; the warning is
// silenced here as in the units under test.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/dsa.h>
#include <openssl/sha.h>

#include "platform/platform.h"
#include "sim/sim_fixture.h"
#include "tavutils/tav_cryptohash.h"
#include "tavutils/tav_cryptokey.h"
#include "tavutils/tav_error.h"

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

// The test's own signer: a 512-bit DSA key and its numbers in file order.
struct Signer {
    Signer()
    {
        dsa = DSA_new();
        EXPECT_EQ(DSA_generate_parameters_ex(dsa, 512, nullptr, 0, nullptr, nullptr, nullptr), 1);
        EXPECT_EQ(DSA_generate_key(dsa), 1);
    }
    ~Signer() { DSA_free(dsa); }
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    // Numbers in order p, q, g, public, private; `which` picks them.
    std::vector<std::string> numbers() const
    {
        return {number(DSA_get0_p(dsa)), number(DSA_get0_q(dsa)), number(DSA_get0_g(dsa)), number(DSA_get0_pub_key(dsa)),
                number(DSA_get0_priv_key(dsa))};
    }
    std::string both() const
    {
        auto n = numbers();
        return n[0] + n[1] + n[2] + n[3] + n[4];
    }
    std::string decoder() const
    {
        auto n = numbers();
        return n[0] + n[1] + n[2] + n[3];
    }
    std::string sign(const std::string& data) const
    {
        std::string sig(static_cast<size_t>(DSA_size(dsa)), '\0');
        unsigned int length = 0;
        EXPECT_EQ(DSA_sign(0, reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()),
                           reinterpret_cast<unsigned char*>(sig.data()), &length, dsa),
                  1);
        sig.resize(length);
        return sig;
    }

    DSA* dsa;
};

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// Runs `read` on a stream over `data`; the text thrown, or "".
template <class Read>
std::string readFailure(const std::string& data, Read read)
{
    std::string copy = data + '\0';  // fmemopen wants a size above 0
    FILE* stream = fmemopen(copy.data(), data.size() ? data.size() : 1, "r");
    if (data.empty()) std::fgetc(stream);
    try {
        read(stream);
    } catch (const tav_error& e) {
        std::fclose(stream);
        return e.getMsg();
    }
    std::fclose(stream);
    return "";
}

class CryptoKey : public ::testing::Test {
protected:
    CryptoKey() : platform_(m_.dir()), scope_(platform_) {}
    simtest::TempModule m_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
};

TEST_F(CryptoKey, KeyFilesReadAndWriteTheFormatByteForByte)
{
    Signer maker;
    m_.put("./configs/etc/marrowby/module_keys", maker.both());
    tav_cryptoKey key;
    key.readBothKeys("./configs/etc/marrowby/module_keys");

    std::string out(maker.both().size(), '\0');
    key.writeBothKeys(reinterpret_cast<unsigned char*>(out.data()), static_cast<unsigned int>(out.size()));
    EXPECT_EQ(out, maker.both());
    ASSERT_EQ(key.decoderKeySize(), maker.decoder().size());
    auto n = maker.numbers();
    EXPECT_EQ(key.encoderKeySize(), n[0].size() + n[1].size() + n[2].size() + n[4].size());
    std::string pub(key.decoderKeySize(), '\0');
    key.writeDecoderKey(reinterpret_cast<unsigned char*>(pub.data()), key.decoderKeySize());
    EXPECT_EQ(pub, maker.decoder());
    try {
        key.writeDecoderKey(reinterpret_cast<unsigned char*>(pub.data()), key.decoderKeySize() - 1);
        ADD_FAILURE() << "a short buffer took the key";
    } catch (const tav_error& e) {
        EXPECT_STREQ(e.getMsg(), "fwrite of dsa failed");
    }

    // Each half read alone clears the other, and so compares unequal to the whole.
    tav_cryptoKey decoder, encoder, again;
    decoder.readDecoderKey(bytes(maker.decoder()), static_cast<unsigned int>(maker.decoder().size()));
    encoder.readEncoderKey(bytes(n[0] + n[1] + n[2] + n[4]), static_cast<unsigned int>(key.encoderKeySize()));
    again.readBothKeys(bytes(maker.both()), static_cast<unsigned int>(maker.both().size()));
    EXPECT_TRUE(key == again);
    EXPECT_FALSE(key == decoder);
    EXPECT_FALSE(key == encoder);
    EXPECT_FALSE(decoder == encoder);
    EXPECT_TRUE(decoder == decoder);  // the copy owns its DSA: no double free
    std::string written(key.encoderKeySize(), '\0');
    encoder.writeEncoderKey(reinterpret_cast<unsigned char*>(written.data()), encoder.encoderKeySize());
    EXPECT_EQ(written, n[0] + n[1] + n[2] + n[4]);

    Signer other;
    again.readDecoderKey(bytes(other.decoder()), static_cast<unsigned int>(other.decoder().size()));
    EXPECT_FALSE(decoder == again);

    tav_cryptoKey none;
    try {
        none.readBothKeys("./configs/etc/marrowby/absent");
        ADD_FAILURE() << "no throw";
    } catch (const tav_error& e) {
        EXPECT_STREQ(e.getMsg(), "can't open ./configs/etc/marrowby/absent to read");
    }
}

TEST_F(CryptoKey, EveryCutOfAKeyOrSignatureFailsWithItsFieldsText)
{
    Signer maker;
    const auto n = maker.numbers();
    const char* texts[] = {"fread of dsa p failed", "fread of dsa q failed", "fread of dsa g failed",
                           "fread of dsa pub_key failed", "fread of dsa priv_key failed"};
    const std::string whole = maker.both();
    size_t field = 0, end = n[0].size();
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        while (cut >= end) end += n[++field].size();
        std::string part = whole.substr(0, cut);
        tav_cryptoKey key;
        ASSERT_EQ(readFailure(part, [&](FILE* f) { key.readBothKeys(f); }), texts[field]) << cut;
        ASSERT_EQ([&] {
            try {
                key.readBothKeys(bytes(part), static_cast<unsigned int>(cut));
            } catch (const tav_error& e) {
                return std::string(e.getMsg());
            }
            return std::string();
        }(), texts[field]) << cut;
    }
    // A length beyond what the file holds fails the same way, allocating nothing of it.
    tav_cryptoKey key;
    EXPECT_EQ(readFailure(n[0] + le32(0xFFFFFFFF) + "abc", [&](FILE* f) { key.readBothKeys(f); }), texts[1]);
    EXPECT_EQ(readFailure(n[0] + n[1] + n[2] + le32(0x7FFFFFFF), [&](FILE* f) { key.readDecoderKey(f); }), texts[3]);

    EXPECT_EQ(readFailure("", [&](FILE* f) { key.readSignature(f); }), "fread of length failed");
    EXPECT_EQ(readFailure("\x01\x02\x03", [&](FILE* f) { key.readSignature(f); }), "fread of length failed");
    EXPECT_EQ(readFailure(le32(46) + std::string(45, 'x'), [&](FILE* f) { key.readSignature(f); }),
              "fread of signature failed");
    EXPECT_EQ(readFailure(le32(0xFFFFFFFF) + "xyz", [&](FILE* f) { key.readSignature(f); }), "fread of signature failed");
}

TEST_F(CryptoKey, VerifiesTheSignersSignaturesAndTheSignerVerifiesItsOwn)
{
    Signer vendor;
    const std::string digest(20, '\x42');
    const std::string sig = vendor.sign(digest);

    tav_cryptoKey never;
    EXPECT_EQ(never.verify(bytes(digest), 20), 0);  // no keys file: verifies nothing

    tav_cryptoKey key;
    key.readDecoderKey(bytes(vendor.decoder()), static_cast<unsigned int>(vendor.decoder().size()));
    EXPECT_EQ(key.verify(bytes(digest), 20), 0);  // no signature read yet
    auto withSignature = [&](const std::string& s) {
        EXPECT_EQ(readFailure(le32(static_cast<uint32_t>(s.size())) + s, [&](FILE* f) { key.readSignature(f); }), "");
    };
    withSignature(sig);
    EXPECT_EQ(key.verify(bytes(digest), 20), 1);
    std::string otherDigest = digest;
    otherDigest[19] ^= 1;
    EXPECT_EQ(key.verify(bytes(otherDigest), 20), 0);

    // A flipped value byte is invalid; a flipped DER frame is an error with the library's text.
    std::string flipped = sig;
    flipped.back() ^= 1;
    withSignature(flipped);
    EXPECT_EQ(key.verify(bytes(digest), 20), 0);
    flipped = sig;
    flipped[0] ^= 1;
    withSignature(flipped);
    try {
        key.verify(bytes(digest), 20);
        ADD_FAILURE() << "a broken frame verified";
    } catch (const tav_error& e) {
        EXPECT_NE(std::string(e.getMsg()).find("error:"), std::string::npos) << e.getMsg();
    }

    // The system's own keys: 512-bit parameters with a 160-bit q, and
    // signatures that plain libcrypto verifies with the key as written out.
    tav_cryptoKey made;
    made.initDSA();
    std::string written(made.decoderKeySize(), '\0');
    made.writeDecoderKey(reinterpret_cast<unsigned char*>(written.data()), made.decoderKeySize());
    auto field = [&](size_t& at) {
        uint32_t len = uint8_t(written[at]) | uint8_t(written[at + 1]) << 8 | uint8_t(written[at + 2]) << 16 |
                       uint32_t(uint8_t(written[at + 3])) << 24;
        BIGNUM* bn = BN_bin2bn(bytes(written) + at + 4, static_cast<int>(len), nullptr);
        at += 4 + len;
        return bn;
    };
    size_t at = 0;
    BIGNUM *p = field(at), *q = field(at), *g = field(at), *pub = field(at);
    EXPECT_EQ(at, written.size());
    EXPECT_EQ(BN_num_bits(p), 512);
    EXPECT_EQ(BN_num_bits(q), 160);
    DSA* plain = DSA_new();
    DSA_set0_pqg(plain, p, q, g);
    DSA_set0_key(plain, pub, nullptr);
    made.signData(bytes(digest), 20);
    EXPECT_EQ(DSA_verify(0, bytes(digest), 20, made.signatureBytes(), static_cast<int>(made.signatureLength()), plain), 1);
    made.buildKeys();
    made.signData(bytes(digest), 20);
    EXPECT_EQ(DSA_verify(0, bytes(digest), 20, made.signatureBytes(), static_cast<int>(made.signatureLength()), plain), 0);
    DSA_free(plain);
}

TEST(CryptoHash, FinalCopiesThePrefixAndStartsAgain)
{
    const std::string data = "the module's data";
    unsigned char plain[20];
    SHA1(bytes(data), data.size(), plain);
    tav_cryptoHash hash;
    EXPECT_EQ(tav_cryptoHash::maxHashSize(), 20u);
    unsigned char digest[20] = {}, shorter[20] = {};
    hash.update(data.data(), 5);
    hash.update(data.data() + 5, static_cast<unsigned int>(data.size() - 5));
    hash.final(digest, 20);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(digest), 20), std::string(reinterpret_cast<char*>(plain), 20));
    hash.update(data.data(), static_cast<unsigned int>(data.size()));
    hash.final(shorter, 8);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(shorter), 8), std::string(reinterpret_cast<char*>(plain), 8));
    EXPECT_EQ(shorter[8], 0);
}

} // namespace

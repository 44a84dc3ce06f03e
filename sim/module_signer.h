// The signer of simulated modules: makes maker and vendor keys, and signs a
// shared object into a ".module" file, or forges one. Written from the file
// format with libcrypto alone, apart from the system's readers, so that a
// misreading of the format on either side fails a test.
#pragma once

#include <string>

#include <openssl/types.h>

namespace sim {

// A 512-bit DSA key pair, owned.
class SignerKey {
public:
    SignerKey();  // generates one
    // A key of the numbers `allNumbers` gives back; `ok()` false when they
    // can't be read.
    explicit SignerKey(const std::string& allNumbers);
    bool ok() const { return dsa_ != nullptr; }
    ~SignerKey();
    SignerKey(const SignerKey&) = delete;
    SignerKey& operator=(const SignerKey&) = delete;

    DSA* dsa() const { return dsa_; }
    // Big numbers as the key files hold them.
    std::string publicNumbers() const;  // p, q, g, public key
    std::string allNumbers() const;     // p, q, g, public key, private key

private:
    DSA* dsa_;
};

// Ways to sign a module wrongly; kNone signs it right.
enum class Forge {
    kNone,
    kData,         // one bit of the ELF data flipped after signing
    kDataSig,      // one bit of a value byte of the data signature flipped
    kKeySig,       // one bit of a value byte of the key signature flipped
    kVendor,       // signed by another vendor key, itself signed by the maker
    kMaker,        // the vendor key signed by a key other than the maker's
    kTruncate,     // the trailer cut short
    kNoCover,      // the section table left behind the sections
    kExactDigest,  // the digest over exactly E bytes, not whole blocks
    kNoTrailer,    // the object grown to end at E, nothing appended
};

// The contents of the keys file: the maker's five numbers, the vendor's four.
std::string moduleKeysFile(const SignerKey& maker, const SignerKey& vendor);

// The 32-bit length and bytes of a DSA signature of `data` by `key`.
std::string signatureRecord(const SignerKey& key, const std::string& data);

// SHA-1 of `data` by 1024-byte blocks, the last one filled from the block
// before it (with zeros under 1024 bytes).
std::string blockDigest(const std::string& data);

// `object` (a 64- or 32-bit shared object) made to end at its last section
// and signed; "" with `error` set when the object can't be read.
std::string signModule(const std::string& object, const SignerKey& maker, const SignerKey& vendor, Forge forge,
                       std::string* error);

// What a ".module" file holds, read from its bytes alone. `keysFile` is the
// module's keys file (the maker's five numbers, the vendor's four); the
// signatures are checked against what it holds, "" verifying nothing.
struct ModuleReport {
    int elfClass = 0;         // 32 or 64; 0 not an ELF file that can be read
    uint64_t end = 0;         // E: the end of the last section with file bytes
    uint64_t size = 0;
    bool trailer = false;     // bytes behind E
    bool trailerRead = false; // the three fields read whole
    bool dataSignature = false;  // by the trailer's vendor key, over the block digest
    bool keySignature = false;   // of that vendor key, by the maker's key
    bool vendorKnown = false;    // the trailer's vendor key is the keys file's
};
ModuleReport inspectModule(const std::string& file, const std::string& keysFile);

} // namespace sim

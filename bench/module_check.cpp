// The signature check of a signed module against a baseline of the same
// work done plainly, on one simulated module (run by module_check_bench.sh):
//   check     TAVModule::CheckSignature of ./modules/big.module
//   baseline  the same file's bytes read through the same platform, SHA-1
//             over its ELF data and over the vendor key, and the same two
//             DSA_verify calls with keys and signatures prepared beforehand
// Each side is the best of RUNS runs of CALLS calls, the sides in turn. Then, for information,
// a session loading the modules of a second simulated module with verify 1
// against the same session with verify 0 (the modules then certified).
//
//     module_check DIR CALLS RUNS [LOAD_DIR]
#define OPENSSL_SUPPRESS_DEPRECATED  // DSA_* and SHA1 are deprecated in OpenSSL 3; -Werror
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <openssl/bn.h>
#include <openssl/dsa.h>
#include <openssl/sha.h>

#include "corvaneutils/tavmodule.h"
#include "corvaneutils/tavsession.h"
#include "tavutils/tav_elf.h"
#include "platform/platform.h"
#include "sim/sim_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void die(const std::string& why)
{
    std::fprintf(stderr, "module_check: %s\n", why.c_str());
    std::exit(1);
}

std::string readAll(const char* path)
{
    FILE* in = plat::fopen(path, "r");
    if (!in) die(std::string("cannot open ") + path);
    std::string bytes;
    char buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) bytes.append(buffer, n);
    std::fclose(in);
    return bytes;
}

uint32_t le32(const std::string& b, size_t at)
{
    if (at + 4 > b.size()) die("short file");
    return static_cast<uint32_t>(static_cast<unsigned char>(b[at])) |
           static_cast<uint32_t>(static_cast<unsigned char>(b[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(b[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(b[at + 3])) << 24;
}

std::string field(const std::string& b, size_t& at)
{
    const uint32_t n = le32(b, at);
    if (n > b.size() - at - 4) die("short field");
    std::string out = b.substr(at + 4, n);
    at += 4 + n;
    return out;
}

BIGNUM* bn(const std::string& bytes)
{
    return BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), nullptr);
}

// p, q, g and y as a DSA public key.
DSA* publicKey(const std::string& b, size_t& at)
{
    DSA* dsa = DSA_new();
    BIGNUM* p = bn(field(b, at));
    BIGNUM* q = bn(field(b, at));
    BIGNUM* g = bn(field(b, at));
    DSA_set0_pqg(dsa, p, q, g);
    DSA_set0_key(dsa, bn(field(b, at)), nullptr);
    return dsa;
}

// What the baseline needs, taken from the files once.
struct Prepared {
    uint64_t end = 0;  // E, where the trailer starts
    std::string dataSig, keySig;
    size_t keyAt = 0, keySize = 0;
    DSA* vendor = nullptr;
    DSA* maker = nullptr;
};

Prepared prepare(const std::string& module, const std::string& keys, uint64_t end)
{
    Prepared p;
    p.end = end;
    size_t at = end;
    p.dataSig = field(module, at);
    p.keyAt = at;
    p.vendor = publicKey(module, at);
    p.keySize = at - p.keyAt;
    p.keySig = field(module, at);
    size_t k = 0;
    p.maker = publicKey(keys, k);
    return p;
}

bool verify(DSA* key, const unsigned char* digest, const std::string& sig)
{
    return DSA_verify(0, digest, SHA_DIGEST_LENGTH, reinterpret_cast<const unsigned char*>(sig.data()),
                      static_cast<int>(sig.size()), key) == 1;
}

bool baseline(const Prepared& p, std::string& bytes)
{
    FILE* in = plat::fopen("./modules/big.module", "r");
    if (!in) die("cannot open ./modules/big.module");
    const size_t got = std::fread(bytes.data(), 1, bytes.size(), in);
    std::fclose(in);
    if (got != bytes.size()) die("short read");
    unsigned char d1[SHA_DIGEST_LENGTH], d2[SHA_DIGEST_LENGTH];
    // The digest the signer made: whole 1024-byte blocks, the last one
    // filled up from the block before it.
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t whole = p.end / 1024 * 1024, rest = p.end - whole;
    SHA_CTX ctx;
    SHA1_Init(&ctx);
    SHA1_Update(&ctx, data, whole);
    if (rest) {
        unsigned char last[1024] = {};
        if (whole) std::memcpy(last, data + whole - 1024, 1024);
        std::memcpy(last, data + whole, rest);
        SHA1_Update(&ctx, last, sizeof last);
    }
    SHA1_Final(d1, &ctx);
    SHA1(reinterpret_cast<const unsigned char*>(bytes.data() + p.keyAt), p.keySize, d2);
    return verify(p.vendor, d1, p.dataSig) && verify(p.maker, d2, p.keySig);
}

// Seconds per call of `f` over `calls` calls.
template <typename F>
double timed(int calls, F&& f)
{
    const auto start = Clock::now();
    for (int c = 0; c < calls; ++c)
        if (!f()) die("a check failed");
    return std::chrono::duration<double>(Clock::now() - start).count() / calls;
}

// Standard error (the loader's log) to /dev/null while `f` runs.
template <typename F>
auto quietly(F&& f)
{
    std::fflush(stderr);
    const int saved = ::dup(2);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 2);
    auto result = f();
    std::fflush(stderr);
    ::dup2(saved, 2);
    ::close(saved);
    ::close(null);
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) die("usage: module_check DIR CALLS RUNS [LOAD_DIR]");
    const int calls = std::max(1, std::atoi(argv[2]));
    const int runs = std::max(1, std::atoi(argv[3]));
    double check = 0, base = 0;
    uint64_t size = 0;
    {
        sim::SimPlatform platform(argv[1]);
        plat::ScopedPlatform scope(platform);
        tav_cryptoKey tavKey, vendorKey;
        FILE* keys = plat::fopen("./configs/etc/marrowby/module_keys", "r");
        if (!keys) die("no keys file");
        tavKey.readBothKeys(keys);
        vendorKey.readDecoderKey(keys);
        std::fclose(keys);
        const std::string module = readAll("./modules/big.module");
        size = module.size();
        tav_elf elf;
        elf.init("./modules/big.module");
        const Prepared p = prepare(module, readAll("./configs/etc/marrowby/module_keys"), elf.size());
        std::string buffer(module.size(), '\0');  // made once, as the check's block buffer is
        // The sides take turns, so that a busy machine slows both alike; the
        // best run of each counts.
        check = base = 1e30;
        for (int r = 0; r < runs; ++r) {
            check = std::min(check, quietly([&] {
                return timed(calls, [&] {
                    TAVModule m(nullptr);
                    return m.CheckSignature("./modules/big.module", &tavKey, &vendorKey) == 0;
                });
            }));
            base = std::min(base, timed(calls, [&] { return baseline(p, buffer); }));
        }
        DSA_free(p.vendor);
        DSA_free(p.maker);
    }
    std::printf("check of a %.1f MiB signed module: %.3f ms\n", size / 1048576.0, check * 1e3);
    std::printf("baseline (read, SHA-1, two DSA_verify): %.3f ms\n", base * 1e3);
    std::printf("ratio: %.2f (target <= 1.5)\n", check / base);

    if (argc > 4) {
        sim::SimPlatform platform(argv[4]);
        plat::ScopedPlatform scope(platform);
        int loaded = 0;
        auto session = [&](int verify) {
            return quietly([&] {
                const auto start = Clock::now();
                {
                    TAVSession s(nullptr, verify);
                    loaded = s.getModuleCount();
                }
                return std::chrono::duration<double>(Clock::now() - start).count();
            });
        };
        const double verified = session(1);  // certifies them for verify 0
        const int count = loaded;
        const double unverified = session(0);
        std::printf("session loading %d signed modules, verify 1: %.1f ms\n", count, verified * 1e3);
        std::printf("the same, verify 0: %.1f ms (%d loaded)\n", unverified * 1e3, loaded);
    }
    return 0;
}

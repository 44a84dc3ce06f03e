// The bucket allocator against malloc and free on one mixed sequence of
// allocations and frees of 1 to 2048 bytes, in alternating rounds of the
// same run (sys_alloc_bench.sh).
//
//     sys_alloc [OPERATIONS] [ROUNDS]
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "infr/sys.h"

namespace {

constexpr size_t kSlots = 4096;

struct Op {
    uint32_t slot;
    uint32_t len;  // 0: free the slot
};

std::vector<Op> sequence(size_t count)
{
    std::mt19937 random(12345);
    std::vector<uint32_t> held(kSlots, 0);
    std::vector<Op> ops;
    ops.reserve(count + kSlots);
    for (size_t i = 0; i < count; ++i) {
        uint32_t slot = random() % kSlots;
        if (held[slot]) {
            ops.push_back({slot, 0});
            held[slot] = 0;
        } else {
            uint32_t len = 1 + random() % 2048;
            ops.push_back({slot, len});
            held[slot] = len;
        }
    }
    for (uint32_t slot = 0; slot < kSlots; ++slot)
        if (held[slot]) ops.push_back({slot, 0});
    return ops;
}

template <class Alloc, class Free>
double run(const std::vector<Op>& ops, Alloc alloc, Free release)
{
    static void* block[kSlots];
    static uint32_t length[kSlots];
    auto start = std::chrono::steady_clock::now();
    for (const Op& op : ops) {
        if (op.len) {
            char* p = static_cast<char*>(alloc(op.len));
            p[0] = 1;
            block[op.slot] = p;
            length[op.slot] = op.len;
        } else {
            release(block[op.slot], length[op.slot]);
        }
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 2000000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const std::vector<Op> ops = sequence(count);
    auto bucketAlloc = [](size_t len) { return sys_alloc_help(len); };
    auto bucketFree = [](void* p, size_t len) { sys_free_help(p, len); };
    auto libcAlloc = [](size_t len) { return std::malloc(len); };
    auto libcFree = [](void* p, size_t) { std::free(p); };
    // One round each first: the bucket lists fill to their peak, malloc's heap grows.
    run(ops, bucketAlloc, bucketFree);
    run(ops, libcAlloc, libcFree);
    double bucket = 0, libc = 0;
    for (int r = 0; r < rounds; ++r) {
        bucket += run(ops, bucketAlloc, bucketFree);
        libc += run(ops, libcAlloc, libcFree);
    }
    const double perOp = 1e9 / static_cast<double>(ops.size() * static_cast<size_t>(rounds));
    std::printf("operations: %zu x %d rounds, 1 to 2048 bytes\n", ops.size(), rounds);
    std::printf("sys_alloc/sys_free: %.3f s (%.1f ns/op)\n", bucket, bucket * perOp);
    std::printf("malloc/free: %.3f s (%.1f ns/op)\n", libc, libc * perOp);
    std::printf("sys_alloc / malloc: %.3f (target: at most 0.5)\n", bucket / libc);
    return 0;
}

#include <arpa/inet.h>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "infr/string.h"
#include "infr/sys.h"
#include "infr_fixture.h"

namespace {

uint64_t stat(SysAllocStat which)
{
    uint64_t words[SYS_NUM_STATS];
    sys_alloc_stats(words);
    return words[which];
}

TEST(SysAlloc, SizeClassesAndReuse)
{
    EXPECT_EQ(sys_bucket_index(0), 0u);
    EXPECT_EQ(sys_bucket_index(16), 0u);
    EXPECT_EQ(sys_bucket_index(17), 1u);
    EXPECT_EQ(sys_bucket_index(32), 1u);
    EXPECT_EQ(sys_bucket_index(33), 2u);
    EXPECT_EQ(sys_bucket_index(SYS_BUCKET_LEN(SYS_NUM_BUCKETS - 1)), SYS_NUM_BUCKETS - 1);
    EXPECT_EQ(sys_bucket_index(SYS_BUCKET_LEN(SYS_NUM_BUCKETS - 1) + 1), SYS_NUM_BUCKETS);
    EXPECT_EQ(sys_bucket_index(SIZE_MAX), SYS_NUM_BUCKETS);

    // A block of 16 bytes goes back to class 0 and is the next one of that
    // class, not of class 1; every block is aligned to 32.
    void* a = sys_alloc_help(16);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 32, 0u);
    std::memset(a, 0xab, 16);
    sys_free_help(a, 10);
    void* b = sys_alloc_help(17);
    EXPECT_NE(a, b);
    std::memset(b, 0xcd, 32);
    EXPECT_EQ(sys_alloc_help(1), a);
    sys_free_help(b, 32);
    EXPECT_EQ(sys_alloc_bucket(1), b);
    sys_free_bucket(b, 1);
    sys_free_help(a, 1);

    // Lists are last in, first out; the system is asked only when one is empty.
    const uint64_t fromSystem = stat(SYS_STAT_SYSTEM_BLOCKS), bytes = stat(SYS_STAT_SYSTEM_BYTES);
    void* c = sys_alloc_help(100);
    void* d = sys_alloc_help(100);
    sys_free_help(c, 100);
    sys_free_help(d, 128);
    EXPECT_EQ(sys_alloc_help(120), d);
    EXPECT_EQ(sys_alloc_help(65), c);
    EXPECT_EQ(stat(SYS_STAT_SYSTEM_BLOCKS), fromSystem + 2);
    EXPECT_EQ(stat(SYS_STAT_SYSTEM_BYTES) - bytes, 2u * (128 + 4));
    sys_free_help(c, 65);
    sys_free_help(d, 120);
}

TEST(SysAlloc, ZeroReallocTryAndStats)
{
    char* dirty = static_cast<char*>(sys_alloc_help(64));
    std::memset(dirty, 'x', 64);
    sys_free_help(dirty, 64);
    char* zero = static_cast<char*>(sys_alloc_zero(50));
    EXPECT_EQ(zero, dirty);
    for (int i = 0; i < 50; ++i) ASSERT_EQ(zero[i], 0);

    std::memcpy(zero, "0123456789", 10);
    const uint64_t inUse = stat(SYS_STAT_BLOCKS_IN_USE);
    char* grown = static_cast<char*>(sys_realloc(zero, 10, 200));
    EXPECT_EQ(std::string(grown, 10), "0123456789");
    EXPECT_EQ(grown[10], 0);
    char* shrunk = static_cast<char*>(sys_realloc(grown, 200, 4));
    EXPECT_EQ(std::string(shrunk, 4), "0123");
    EXPECT_EQ(stat(SYS_STAT_BLOCKS_IN_USE), inUse);
    EXPECT_EQ(stat(SYS_STAT_REALLOCS), 2u);
    sys_free_help(shrunk, 4);

    const uint64_t failures = stat(SYS_STAT_FAILURES);
    EXPECT_EQ(sys_alloc_try(SIZE_MAX), nullptr);
    EXPECT_EQ(sys_alloc_try(SYS_BUCKET_LEN(SYS_NUM_BUCKETS - 1) + 1), nullptr);
    EXPECT_EQ(stat(SYS_STAT_FAILURES), failures + 2);
    void* small = sys_alloc_try(5);
    EXPECT_NE(small, nullptr);
    sys_free_help(small, 5);
    EXPECT_EQ(stat(SYS_STAT_ALLOCS) - stat(SYS_STAT_FREES), stat(SYS_STAT_BLOCKS_IN_USE));
}

TEST(SysAlloc, RequestBeyondEveryClassPanics)
{
    simtest::TempModule m;
    auto o = infrtest::run(m, [] { sys_alloc_help(size_t{1} << 40); });
    EXPECT_TRUE(infrtest::aborted(o.status));
    EXPECT_NE(o.err.find("SYS:alloc:failed bucket_len=4294967295\nSYS:aborting\n"), std::string::npos) << o.err;
}

TEST(SysNumbers, Suffixes)
{
    struct Case {
        const char* text;
        int ok;
        uint64_t value;
    } cases[] = {
        {"1k", 1, 1024},
        {"1K", 0, 0},
        {"2MG", 1, uint64_t{2} << 50},
        {"3T", 1, uint64_t{3} << 40},
        {"1P", 1, uint64_t{1} << 50},
        {"  42  ", 1, 42},
        {"7 k", 1, 7 << 10},
        {"0x10k", 1, 16 << 10},
        {"010", 1, 8},
        {"-1", 1, UINT64_MAX},
        {"1kkkkkk", 1, uint64_t{1} << 50},      // five letters are read, no more
        {"1kkkkz", 0, 0},
        {"16PP", 1, 0},                           // wraps as unsigned arithmetic
        {"99999999999999999999999", 1, 0x7fffffffffffffffULL},   // saturates as the C library does
        {"-99999999999999999999999", 1, 0x8000000000000000ULL},
        {"", 0, 0},
        {"k", 0, 0},
        {"12b", 0, 0},
        {"09", 0, 0},
    };
    for (const Case& c : cases) {
        uint64_t value = 12345;
        EXPECT_EQ(sys_string_to_uint64(c.text, &value), c.ok) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
    }

    uint32_t u32 = 1;
    EXPECT_EQ(sys_string_to_uint32("4G", &u32), 0);
    EXPECT_EQ(u32, 0u);
    EXPECT_EQ(sys_string_to_uint32("4294967295", &u32), 1);
    EXPECT_EQ(u32, 4294967295u);
    uint16_t u16 = 1;
    EXPECT_EQ(sys_string_to_uint16("64k", &u16), 0);
    EXPECT_EQ(sys_string_to_uint16("63k", &u16), 1);
    EXPECT_EQ(u16, 63 * 1024);
    uint16_t port = 0;
    EXPECT_EQ(sys_string_to_net_port("27491", &port), 1);
    EXPECT_EQ(port, htons(27491));
    EXPECT_EQ(sys_string_to_net_port("65536", &port), 0);
}

std::string sizeText(uint64_t value)
{
    char* text = sys_uint64_to_string_alloc(value);
    std::string s = text;
    string_free(text);
    return s;
}

TEST(SysNumbers, SizeTexts)
{
    EXPECT_EQ(sizeText(0), "0B");
    EXPECT_EQ(sizeText(1023), "1023B");
    EXPECT_EQ(sizeText(1024), "1.00KB");
    EXPECT_EQ(sizeText(10 * 1024 - 1), "10.00KB");  // under ten: two decimals, rounded
    EXPECT_EQ(sizeText(uint64_t{10} << 30), "10.0GB");
    EXPECT_EQ(sizeText(uint64_t{3} << 19), "1.50MB");
    EXPECT_EQ(sizeText(uint64_t{1} << 50), "1024.0TB");
    EXPECT_EQ(sizeText(uint64_t{20} << 50), "20480.0TB");
    EXPECT_EQ(sizeText(UINT64_MAX), "16777216.0TB");
}

TEST(SysStrings, CopiesAndRoutines)
{
    char* copy = string_copy("Hello, World\r\n");
    string_chomp(copy);
    EXPECT_STREQ(copy, "Hello, World");
    string_ascii_upper(copy);
    EXPECT_STREQ(copy, "HELLO, WORLD");
    string_ascii_lower(copy);
    EXPECT_TRUE(string_eq(copy, "hello, world"));
    EXPECT_TRUE(string_eq_case(copy, "HELLO, world"));
    EXPECT_TRUE(string_n_eq(copy, "help", 3));
    EXPECT_EQ(string_str(copy, "wor"), copy + 7);
    char* replaced = string_replace(copy, "l", "LL");
    EXPECT_STREQ(replaced, "heLLLLo, worLLd");
    char* same = string_replace("abc", "", "x");
    EXPECT_STREQ(same, "abc");
    char* cut = string_ncopy("abcdef", 3);
    EXPECT_STREQ(cut, "abc");
    EXPECT_TRUE(string_empty(nullptr));
    EXPECT_TRUE(string_empty(""));
    EXPECT_FALSE(string_empty(" "));
    EXPECT_EQ(string_to_hex_digit('f'), 15);
    EXPECT_EQ(string_to_hex_digit('A'), 10);
    EXPECT_EQ(string_to_hex_digit('g'), -1);
    EXPECT_LT(string_cmp("a", "b"), 0);
    EXPECT_EQ(string_cmp_case("ABC", "abc"), 0);
    EXPECT_EQ(string_ncmp("abcx", "abcy", 3), 0);

    // Copies come from the allocator: a freed copy is the next block of its class.
    string_free(cut);
    EXPECT_EQ(sys_alloc_help(4), cut);
    sys_free_help(cut, 4);
    string_free(copy);
    string_free(replaced);
    string_free(same);

    char* formatted = sys_sprintf("%s=%d", "x", 42);
    EXPECT_STREQ(formatted, "x=42");
    string_free(formatted);
}

TEST(SysAddresses, TextsAndComparisons)
{
    sockaddr_in a, b;
    sys_inet_any(&a, htons(80));
    EXPECT_FALSE(sys_addr_is_zero(&a));
    sys_inet_any(&b, 0);
    EXPECT_TRUE(sys_addr_is_zero(&b));
    EXPECT_FALSE(sys_addr_eq(&a, &b));
    EXPECT_TRUE(sys_interface_eq(&a, &b));
    a.sin_addr.s_addr = htonl(0x0a000102);
    char* text = sys_addr_to_string_alloc(&a);
    EXPECT_STREQ(text, "{inet=10.0.1.2;port=80}");
    string_free(text);
    text = sys_inet_to_string_alloc(a.sin_addr);
    EXPECT_STREQ(text, "10.0.1.2");
    string_free(text);
}

TEST(SysTime, ClockAndDates)
{
    simtest::TempModule m;
    sim::SimPlatform platform(m.dir());
    plat::ScopedPlatform scope(platform);
    const uint64_t before = sys_gettime();
    plat::sleep(3);
    EXPECT_EQ(sys_gettime() - before, 3000000u);  // the module's virtual clock

    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    EXPECT_EQ(sys_time_of_ymd(2001, 9, 9), 999993600);
    EXPECT_EQ(sys_time_of_ymd(1970, 1, 2), 86400);
}

} // namespace

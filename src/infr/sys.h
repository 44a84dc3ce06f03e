// The system runtime: a bucket allocator, output to standard error or the
// system log, process exit with a hook for a debugger, signal handling, the
// runtime's per-thread error number, threads, and number and size texts.
// Every failure is fatal: a panic prints and never returns.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>

// ---- allocator ----

// Class i holds blocks of 16 << i bytes; the largest class is 2 GiB.
constexpr unsigned SYS_NUM_BUCKETS = 28;
constexpr size_t SYS_BUCKET_LEN(unsigned index) { return size_t{16} << index; }
// The class of a request of `len` bytes: the smallest that fits, or
// SYS_NUM_BUCKETS when none does.
unsigned sys_bucket_index(size_t len);

// The words of sys_alloc_stats, each counting since the start.
enum SysAllocStat {
    SYS_STAT_ALLOCS = 0,       // blocks handed out
    SYS_STAT_FREES,            // blocks given back
    SYS_STAT_SYSTEM_BLOCKS,    // blocks taken from the system (memalign)
    SYS_STAT_SYSTEM_BYTES,     // bytes taken from the system
    SYS_STAT_BLOCKS_IN_USE,    // blocks now held by callers
    SYS_STAT_BYTES_IN_USE,     // class bytes now held by callers
    SYS_STAT_FAILURES,         // requests that could not be met
    SYS_STAT_REALLOCS,         // sys_realloc calls
    SYS_NUM_STATS
};

void* sys_alloc_help(size_t len);
void* sys_alloc_zero(size_t len);
void* sys_alloc_try(size_t len);
void sys_free_help(void* ptr, size_t len);
void* sys_realloc(void* ptr, size_t oldLength, size_t newLength);
void* sys_alloc_bucket(unsigned index);
void sys_free_bucket(void* ptr, unsigned index);
void sys_alloc_stats(uint64_t buffer[SYS_NUM_STATS]);

// ---- output ----

void sys_eprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void sys_veprintf(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
void sys_stdout_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void sys_stdout_flush();
void sys_syslog(const char* ident, const char* facility);
void sys_syslog_priority_critical();
void sys_daemon(const char* ident);
bool sys_have_console();
bool sys_am_superuser();

// ---- exits and signals ----

[[noreturn]] void sys_exit(int code);
[[noreturn]] void sys_exit_really(int code);
[[noreturn]] void sys_do_abort();
void sys_dont_really_exit();
void sys_catch_sigint();
[[noreturn]] void sys_do_panic(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void sys_do_panic_perror(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void sys_suicide(int argc, char** argv);
void sys_garbage_detect();

// ---- threads ----

constexpr unsigned SYS_MAX_THREADS = 256;
constexpr unsigned SYS_ERRNO_SLOTS = 256;

// The runtime's error number of the calling thread.
int* sys_errno_location();
// Runs function(arg) in a new thread on [stack, stack + stackLength - 128).
void sys_clone(int (*function)(void*), void* arg, void* stack, size_t stackLength, int flag);

// The spinlock: a word that is 1 when free.
void spinlock_acquire(std::atomic<long>* lock);
void spinlock_release(std::atomic<long>* lock);

// ---- commands ----

int sys_system(const char* command);
int sys_sprintf_system(const char* format, ...) __attribute__((format(printf, 1, 2)));

// ---- numbers, texts, time ----

int sys_string_to_uint64(const char* text, uint64_t* out);
int sys_string_to_uint32(const char* text, uint32_t* out);
int sys_string_to_uint16(const char* text, uint16_t* out);
// The port is stored in network byte order.
int sys_string_to_net_port(const char* text, uint16_t* out);
char* sys_uint64_to_string_alloc(uint64_t value);
// Strings made here are freed with string_free.
char* sys_sprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
uint64_t sys_gettime();
int sys_getpid();
const char* sys_getenv(const char* name);
const char* sys_strerror(int n);
time_t sys_time_of_ymd(int year, int month, int day);
long sys_random();
uint64_t sys_random64();
void sys_seed(unsigned n);
void sys_random_seed();

// ---- addresses (ports and addresses in network byte order) ----

bool sys_addr_eq(const struct sockaddr_in* a, const struct sockaddr_in* b);
bool sys_interface_eq(const struct sockaddr_in* a, const struct sockaddr_in* b);
bool sys_addr_is_zero(const struct sockaddr_in* a);
void sys_inet_any(struct sockaddr_in* a, uint16_t port);
char* sys_addr_to_string_alloc(const struct sockaddr_in* a);
char* sys_inet_to_string_alloc(struct in_addr a);

char* sys_getpassword(const char* prompt);

#include "infr/sys.h"

#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#define SYSLOG_NAMES
#include <syslog.h>

#include "infr/stacktrace.h"
#include "infr/string.h"
#include "platform/platform.h"

extern char** environ;

// ---- allocator ----
//
// No lock: the lists are shared and unguarded, so their users run as one
// thread or guard them from outside. No header: the caller gives the length
// back at free time. Memory is never returned to the system.

namespace {

void* bucket[SYS_NUM_BUCKETS];
uint64_t stats[SYS_NUM_STATS];

void* pop(unsigned index)
{
    void* block = bucket[index];
    if (block) {
        void* next;
        std::memcpy(&next, block, sizeof next);  // the link is the block's first word
        bucket[index] = next;
    } else {
        const size_t len = SYS_BUCKET_LEN(index);
        block = ::memalign(32, len + 4);
        if (!block) {
            ++stats[SYS_STAT_FAILURES];
            return nullptr;
        }
        ++stats[SYS_STAT_SYSTEM_BLOCKS];
        stats[SYS_STAT_SYSTEM_BYTES] += len + 4;
    }
    ++stats[SYS_STAT_ALLOCS];
    ++stats[SYS_STAT_BLOCKS_IN_USE];
    stats[SYS_STAT_BYTES_IN_USE] += SYS_BUCKET_LEN(index);
    return block;
}

// The length in the panic text of a request no class holds: %u cannot say
// more than UINT_MAX.
unsigned reportedLen(size_t len) { return len > UINT_MAX ? UINT_MAX : static_cast<unsigned>(len); }

} // namespace

unsigned sys_bucket_index(size_t len)
{
    if (len <= 16) return 0;
    if (len > SYS_BUCKET_LEN(SYS_NUM_BUCKETS - 1)) return SYS_NUM_BUCKETS;
    return static_cast<unsigned>(std::bit_width(len - 1)) - 4;
}

void* sys_alloc_bucket(unsigned index)
{
    if (index >= SYS_NUM_BUCKETS) {
        ++stats[SYS_STAT_FAILURES];
        sys_do_panic("SYS:alloc:failed bucket_len=%u", UINT_MAX);
    }
    void* block = pop(index);
    if (!block) sys_do_panic("SYS:alloc:failed bucket_len=%u", reportedLen(SYS_BUCKET_LEN(index)));
    return block;
}

void sys_free_bucket(void* ptr, unsigned index)
{
    if (!ptr) return;
    if (index >= SYS_NUM_BUCKETS) sys_do_panic("SYS:free:bad bucket index=%u", index);
    std::memcpy(ptr, &bucket[index], sizeof(void*));
    bucket[index] = ptr;
    ++stats[SYS_STAT_FREES];
    --stats[SYS_STAT_BLOCKS_IN_USE];
    stats[SYS_STAT_BYTES_IN_USE] -= SYS_BUCKET_LEN(index);
}

void* sys_alloc_help(size_t len)
{
    unsigned index = sys_bucket_index(len);
    if (index >= SYS_NUM_BUCKETS) {
        ++stats[SYS_STAT_FAILURES];
        sys_do_panic("SYS:alloc:failed bucket_len=%u", reportedLen(len));
    }
    return sys_alloc_bucket(index);
}

void* sys_alloc_try(size_t len)
{
    unsigned index = sys_bucket_index(len);
    if (index >= SYS_NUM_BUCKETS) {
        ++stats[SYS_STAT_FAILURES];
        return nullptr;
    }
    return pop(index);
}

void* sys_alloc_zero(size_t len)
{
    void* block = sys_alloc_help(len);
    std::memset(block, 0, len);
    return block;
}

void sys_free_help(void* ptr, size_t len)
{
    if (!ptr) return;
    sys_free_bucket(ptr, sys_bucket_index(len));
}

void* sys_realloc(void* ptr, size_t oldLength, size_t newLength)
{
    ++stats[SYS_STAT_REALLOCS];
    void* block = sys_alloc_zero(newLength);
    if (ptr) {
        std::memcpy(block, ptr, oldLength < newLength ? oldLength : newLength);
        sys_free_help(ptr, oldLength);
    }
    return block;
}

void sys_alloc_stats(uint64_t buffer[SYS_NUM_STATS]) { std::memcpy(buffer, stats, sizeof stats); }

// ---- output ----
//
// Relaxed atomics: the flags are read by every thread that prints.

namespace {

constexpr int kDefaultPriority = LOG_INFO;
constexpr int kDefaultFacility = 40;  // LOG_SYSLOG
constexpr int kOpenlogOptions = 11;   // LOG_PID | LOG_CONS | LOG_NDELAY

std::atomic<bool> use_syslog{false};
std::atomic<int> syslog_priority{kDefaultPriority};
std::atomic<bool> dont_really_exit{false};
std::atomic<bool> got_signal{false};
std::atomic<bool> buffering_set{false};
std::atomic<bool> syslog_called{false};
std::atomic<bool> daemon_called{false};
char syslog_ident[256];

void do_openlog(const char* ident, const char* name)
{
    if (use_syslog.load(std::memory_order_relaxed)) return;
    int facility = kDefaultFacility;
    bool found = false;
    for (const CODE* c = facilitynames; c->c_name; ++c) {
        if (std::strcmp(c->c_name, name) == 0) {
            facility = c->c_val;
            found = true;
            break;
        }
    }
    // openlog keeps the pointer: a copy of our own outlives the caller's.
    std::snprintf(syslog_ident, sizeof syslog_ident, "%s", ident ? ident : "");
    use_syslog.store(true, std::memory_order_relaxed);
    plat::openlog(syslog_ident, kOpenlogOptions, facility);
    if (!found) sys_eprintf("SYS: cannot find facility %s, using syslog\n", name);
}

} // namespace

void sys_veprintf(const char* format, va_list args)
{
    if (use_syslog.load(std::memory_order_relaxed)) {
        char text[4096];
        std::vsnprintf(text, sizeof text, format, args);
        plat::syslog(syslog_priority.load(std::memory_order_relaxed), text);
        return;
    }
    if (!buffering_set.exchange(true)) {
        // Streams may have been written already: flush first, glibc then
        // changes the buffering of a stream in use.
        std::fflush(stderr);
        std::fflush(stdout);
        std::setvbuf(stderr, nullptr, _IOLBF, BUFSIZ);
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    }
    std::vfprintf(stderr, format, args);
    std::fflush(stderr);
}

void sys_eprintf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    sys_veprintf(format, args);
    va_end(args);
}

void sys_stdout_printf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
}

void sys_stdout_flush() { std::fflush(stdout); }

void sys_syslog(const char* ident, const char* facility)
{
    if (syslog_called.exchange(true)) sys_do_panic("SYS:syslog:has already been called");
    if (!plat::freopen("/dev/null", "r", stdin)) sys_do_panic_perror("SYS:syslog:freopen:stdin");
    if (!plat::freopen("/dev/null", "w", stdout)) sys_do_panic_perror("SYS:syslog:freopen:stdout");
    if (!plat::freopen("/dev/null", "w", stderr)) sys_do_panic_perror("SYS:syslog:freopen:stderr");
    if (plat::chdir("/") != 0) sys_do_panic_perror("SYS:syslog:chdir:trying to chdir to root directory");
    do_openlog(ident, facility);
}

void sys_syslog_priority_critical()
{
    if (syslog_priority.load(std::memory_order_relaxed) == LOG_CRIT) return;
    if (use_syslog.load(std::memory_order_relaxed))
        sys_eprintf("SYS:syslog_priority_critical:setting priority to critical\n");
    syslog_priority.store(LOG_CRIT, std::memory_order_relaxed);
}

void sys_daemon(const char* ident)
{
    if (daemon_called.exchange(true)) sys_do_panic("SYS:daemon:has already been called");
    if (plat::daemon(0, 0) != 0) sys_do_panic_perror("SYS:daemon");
    do_openlog(ident, "daemon");
}

bool sys_have_console() { return ::isatty(STDIN_FILENO) == 1; }

bool sys_am_superuser() { return ::geteuid() == 0; }

// ---- exits ----

void sys_garbage_detect() {}

namespace {

// With dont_really_exit set the process stays alive for a debugger: it runs
// one every 10 seconds until its parent is gone.
void pre_exit()
{
    sys_syslog_priority_critical();
    if (!dont_really_exit.load(std::memory_order_relaxed)) return;
    sys_eprintf("SYS:pre_exit:stopping rather than exiting\n");
    pcset trace[STACKTRACE_FRAMES];
    stacktrace_get(trace);
    stacktrace_dump(trace);
    stacktrace_close();
    sys_garbage_detect();
    const char* debugger = sys_getenv("DEBUGGER");
    if (!debugger) debugger = "/usr/bin/gdb";
    const unsigned pid = static_cast<unsigned>(::getpid());
    for (;;) {
        if (::getppid() == 1) {
            sys_eprintf("SYS:pre_exit:orphaned, exiting\n");
            std::exit(0);
        }
        char command[1024];
        std::snprintf(command, sizeof command, "%s /proc/%u/exe %u", debugger, pid, pid);
        if (plat::system(command) == -1) std::abort();
        plat::sleep(10);
    }
}

} // namespace

void sys_dont_really_exit() { dont_really_exit.store(true, std::memory_order_relaxed); }

void sys_exit(int code)
{
    sys_syslog_priority_critical();
    sys_eprintf("SYS:exit code=%d\n", code);
    pre_exit();
    std::exit(code);
}

void sys_exit_really(int code)
{
    sys_eprintf("SYS:exit (really) code=%d\n", code);
    std::exit(code);
}

void sys_do_abort()
{
    sys_syslog_priority_critical();
    sys_eprintf("SYS:aborting\n");
    pre_exit();
    pcset trace[STACKTRACE_FRAMES];
    stacktrace_get(trace);
    stacktrace_dump(trace);
    stacktrace_close();
    std::abort();
}

// A panic's text is one line: a line end follows it, and in the perror form
// ": " and the error's text come first.
void sys_do_panic(const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    sys_eprintf("%s\n", text);
    sys_do_abort();
}

void sys_do_panic_perror(const char* format, ...)
{
    const int error = errno;
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    sys_eprintf("%s: %s\n", text, std::strerror(error));
    sys_do_abort();
}

void sys_suicide(int /*argc*/, char** argv)
{
    sys_eprintf("SYS:suicide\n");
    ::execve(argv[0], argv, environ);
    sys_do_panic_perror("SYS:suicide:execve");
}

// ---- signals ----
//
// The handlers print and abort from the signal: deliberate, the process is
// going down anyway and the text is what is wanted.

namespace {

void signal_handler(const char* name)
{
    sys_syslog_priority_critical();
    sys_eprintf("SYS:caught %s\n", name);
    if (got_signal.exchange(true)) {
        sys_eprintf("SYS:2nd signal, immediately aborting\n");
        std::abort();
    }
    sys_do_abort();
}

void on_sigint(int) { signal_handler("SIGINT"); }
void on_sighup(int) { signal_handler("SIGHUP"); }
void on_sigfpe(int) { signal_handler("SIGFPE"); }
void on_sigsegv(int) { signal_handler("SIGSEGV"); }
void on_sigbus(int) { signal_handler("SIGBUS"); }
void on_exit_signal(int) { std::exit(0); }

void install(int signo, void (*handler)(int), const char* name)
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    if (::sigaction(signo, &action, nullptr) != 0) sys_do_panic_perror("SYS:signal(%s)", name);
}

} // namespace

void sys_catch_sigint()
{
    install(SIGINT, on_sigint, "SIGINT");
    install(SIGHUP, on_sighup, "SIGHUP");
    install(SIGFPE, on_sigfpe, "SIGFPE");
    install(SIGSEGV, on_sigsegv, "SIGSEGV");
    install(SIGBUS, on_sigbus, "SIGBUS");
    install(SIGPIPE, SIG_IGN, "SIGPIPE");
    install(SIGTTIN, SIG_IGN, "SIGTTIN");
    install(12, on_exit_signal, "SIGUSR2");
}

// ---- threads ----
//
// The runtime once replaced the C library's __errno_location for threads
// made by a raw clone. Today's C library keeps errno per thread itself, and a
// raw clone shares its parent's thread-local storage, so no C library call is
// safe from such a thread. So the error number here is the runtime's own
// (sys_errno_location, beside errno, which stays the library's), and
// sys_clone makes a POSIX thread that runs on the caller's stack. The 256
// slots, their unlocked search and their fill under the spinlock stay; the
// search reads the thread ids atomically.

namespace {

struct ErrnoSlot {
    std::atomic<pid_t> tid{0};
    int number = 0;  // only ever touched by its own thread
};

ErrnoSlot cl_errno[SYS_ERRNO_SLOTS];
std::atomic<long> cl_errno_lock{1};
std::atomic<unsigned> sys_num_clones{0};

struct CloneRecord {
    int (*function)(void*);
    void* arg;
};

void* sys_clone_errno(void* p)
{
    // The record comes from the C library's heap: it is freed here, in the
    // new thread, and the bucket lists have no lock.
    CloneRecord* record = static_cast<CloneRecord*>(p);
    *sys_errno_location() = 0;
    errno = 0;
    int (*function)(void*) = record->function;
    void* arg = record->arg;
    delete record;
    function(arg);
    return nullptr;
}

} // namespace

void spinlock_acquire(std::atomic<long>* lock)
{
    uint64_t failures = 0;
    for (;;) {
        if (lock->load(std::memory_order_relaxed) == 1 && lock->fetch_sub(1, std::memory_order_acquire) == 1)
            return;
        if (++failures == uint64_t{1} << 63) sys_do_panic("SYS:could not acquire the spinlock");
    }
}

void spinlock_release(std::atomic<long>* lock) { lock->store(1, std::memory_order_release); }

int* sys_errno_location()
{
    const pid_t me = static_cast<pid_t>(::syscall(SYS_gettid));
    for (ErrnoSlot& slot : cl_errno)
        if (slot.tid.load(std::memory_order_acquire) == me) return &slot.number;
    spinlock_acquire(&cl_errno_lock);
    for (ErrnoSlot& slot : cl_errno) {
        if (slot.tid.load(std::memory_order_relaxed) == 0) {
            slot.number = 0;
            slot.tid.store(me, std::memory_order_release);
            spinlock_release(&cl_errno_lock);
            return &slot.number;
        }
    }
    spinlock_release(&cl_errno_lock);
    sys_do_panic("SYS:exhausted all the ERRNO slots");
}

// `flag` (the clone flags) is not used: the thread shares everything a POSIX
// thread shares. The stack must hold PTHREAD_STACK_MIN bytes below the 128
// kept free at its top; the C library keeps its thread data there too.
void sys_clone(int (*function)(void*), void* arg, void* stack, size_t stackLength, int /*flag*/)
{
    const unsigned count = sys_num_clones.fetch_add(1, std::memory_order_relaxed) + 1;
    if (count >= SYS_MAX_THREADS) sys_do_panic("SYS:clone exceeded SYS_MAX_THREADS(%u)", SYS_MAX_THREADS);
    auto* record = new CloneRecord{function, arg};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int rc = stackLength > 128 ? pthread_attr_setstack(&attr, stack, stackLength - 128) : EINVAL;
    if (rc == 0) {
        pthread_t thread;
        do {
            rc = pthread_create(&thread, &attr, sys_clone_errno, record);
        } while (rc == EINTR);
    }
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete record;
        errno = rc;
        sys_do_panic_perror("SYS:clone");
    }
}

// ---- commands ----

namespace {

// A formatted text from the allocator (a format error gives "").
char* vformat(const char* format, va_list args)
{
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(nullptr, 0, format, args);
    if (n < 0) n = 0;
    char* text = static_cast<char*>(sys_alloc_help(static_cast<size_t>(n) + 1));
    text[0] = '\0';
    std::vsnprintf(text, static_cast<size_t>(n) + 1, format, again);
    va_end(again);
    return text;
}

} // namespace

int sys_system(const char* command)
{
    int status = plat::system(command);
    if (status == -1) sys_do_panic_perror("SYS:system");
    return WEXITSTATUS(status);
}

int sys_sprintf_system(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* command = vformat(format, args);
    va_end(args);
    int status = sys_system(command);
    string_free(command);
    return status;
}

// ---- numbers ----

namespace {

bool isSpace(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

int digitValue(unsigned char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 99;
}

} // namespace

// The scan of "%qi%5s", written out: sscanf's result for a number beyond the
// range of long long is undefined, the C library's conversion saturates, and
// so does this one. The suffix letters then multiply as unsigned arithmetic.
int sys_string_to_uint64(const char* text, uint64_t* out)
{
    *out = 0;
    if (!text) return 0;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    while (isSpace(*p)) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    unsigned base = 10;
    if (*p == '0') {
        base = 8;
        if ((p[1] == 'x' || p[1] == 'X') && digitValue(p[2]) < 16) {
            base = 16;
            p += 2;
        }
    }
    bool any = false, over = false;
    uint64_t magnitude = 0;
    for (int d; (d = digitValue(*p)) < static_cast<int>(base); ++p) {
        any = true;
        if (magnitude > (UINT64_MAX - static_cast<unsigned>(d)) / base)
            over = true;
        else
            magnitude = magnitude * base + static_cast<unsigned>(d);
    }
    if (!any) return 0;
    const uint64_t limit = negative ? uint64_t{1} << 63 : static_cast<uint64_t>(LLONG_MAX);
    if (over || magnitude > limit) magnitude = limit;
    uint64_t value = negative ? 0 - magnitude : magnitude;

    while (isSpace(*p)) ++p;
    for (int n = 0; n < 5 && *p && !isSpace(*p); ++n, ++p) {
        switch (*p) {
        case 'k': value *= uint64_t{1} << 10; break;
        case 'M': value *= uint64_t{1} << 20; break;
        case 'G': value *= uint64_t{1} << 30; break;
        case 'T': value *= uint64_t{1} << 40; break;
        case 'P': value *= uint64_t{1} << 50; break;
        default: return 0;
        }
    }
    *out = value;
    return 1;
}

int sys_string_to_uint32(const char* text, uint32_t* out)
{
    uint64_t value;
    *out = 0;
    if (!sys_string_to_uint64(text, &value) || value > UINT32_MAX) return 0;
    *out = static_cast<uint32_t>(value);
    return 1;
}

int sys_string_to_uint16(const char* text, uint16_t* out)
{
    uint64_t value;
    *out = 0;
    if (!sys_string_to_uint64(text, &value) || value > UINT16_MAX) return 0;
    *out = static_cast<uint16_t>(value);
    return 1;
}

int sys_string_to_net_port(const char* text, uint16_t* out)
{
    uint16_t port;
    *out = 0;
    if (!sys_string_to_uint16(text, &port)) return 0;
    *out = htons(port);
    return 1;
}

// Sizes of a petabyte and more are formatted in PB and then printed in TB:
// kept as it always was. The PB text is made on the stack and dropped.
char* sys_uint64_to_string_alloc(uint64_t value)
{
    const double v = static_cast<double>(value);
    const double kb = v / 1024, mb = kb / 1024, gb = mb / 1024, tb = gb / 1024, pb = tb / 1024;
    char discarded[64];
    if (pb >= 10)
        std::snprintf(discarded, sizeof discarded, "%.1fPB", pb);
    else if (pb >= 1)
        std::snprintf(discarded, sizeof discarded, "%.2fPB", pb);
    if (tb >= 10) return sys_sprintf("%.1fTB", tb);
    if (tb >= 1) return sys_sprintf("%.2fTB", tb);
    if (gb >= 10) return sys_sprintf("%.1fGB", gb);
    if (gb >= 1) return sys_sprintf("%.2fGB", gb);
    if (mb >= 10) return sys_sprintf("%.1fMB", mb);
    if (mb >= 1) return sys_sprintf("%.2fMB", mb);
    if (kb >= 10) return sys_sprintf("%.1fKB", kb);
    if (kb >= 1) return sys_sprintf("%.2fKB", kb);
    return sys_sprintf("%lluB", static_cast<unsigned long long>(value));
}

char* sys_sprintf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* text = vformat(format, args);
    va_end(args);
    return text;
}

// ---- time and thin wrappers ----

uint64_t sys_gettime()
{
    struct timeval tv;
    if (plat::gettimeofday(&tv) != 0) sys_do_panic_perror("SYS:gettimeofday");
    return static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec);
}

int sys_getpid() { return static_cast<int>(::getpid()); }

const char* sys_getenv(const char* name) { return std::getenv(name); }

const char* sys_strerror(int n) { return std::strerror(n); }

time_t sys_time_of_ymd(int year, int month, int day)
{
    // Fields the C library's int cannot hold count as mktime's own failure.
    if (year < INT_MIN + 1900 || month == INT_MIN || day == INT_MIN) sys_do_panic("SYS:time_of_ymd:mktime error");
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_isdst = -1;
    time_t t = std::mktime(&tm);
    if (t == static_cast<time_t>(-1)) sys_do_panic("SYS:time_of_ymd:mktime error");
    return t;
}

long sys_random() { return ::random(); }

uint64_t sys_random64()
{
    uint64_t high = static_cast<uint64_t>(::random());
    uint64_t low = static_cast<uint64_t>(::random());
    return (high << 33) ^ (low << 2) ^ static_cast<uint64_t>(::random());
}

void sys_seed(unsigned n) { ::srandom(n); }

void sys_random_seed() { sys_seed(static_cast<unsigned>(sys_gettime() ^ (static_cast<uint64_t>(::getpid()) << 16))); }

// ---- addresses ----

bool sys_addr_eq(const struct sockaddr_in* a, const struct sockaddr_in* b)
{
    return a->sin_addr.s_addr == b->sin_addr.s_addr && a->sin_port == b->sin_port;
}

bool sys_interface_eq(const struct sockaddr_in* a, const struct sockaddr_in* b)
{
    return a->sin_addr.s_addr == b->sin_addr.s_addr;
}

bool sys_addr_is_zero(const struct sockaddr_in* a) { return a->sin_addr.s_addr == 0 && a->sin_port == 0; }

void sys_inet_any(struct sockaddr_in* a, uint16_t port)
{
    std::memset(a, 0, sizeof *a);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_ANY);
    a->sin_port = port;
}

char* sys_inet_to_string_alloc(struct in_addr a)
{
    char text[INET_ADDRSTRLEN];
    ::inet_ntop(AF_INET, &a, text, sizeof text);
    return string_copy(text);
}

char* sys_addr_to_string_alloc(const struct sockaddr_in* a)
{
    char text[INET_ADDRSTRLEN];
    ::inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
    return sys_sprintf("{inet=%s;port=%u}", text, static_cast<unsigned>(ntohs(a->sin_port)));
}

// Reads a line from the terminal with echo off; the text is a copy made here.
char* sys_getpassword(const char* prompt)
{
    int fd = plat::open("/dev/tty", O_RDWR | O_NOCTTY);
    if (fd < 0) sys_do_panic_perror("SYS:getpass");
    struct termios saved, quiet;
    if (plat::ioctl(fd, TCGETS, &saved) != 0) {
        plat::close(fd);
        sys_do_panic_perror("SYS:getpass");
    }
    quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    plat::ioctl(fd, TCSETSF, &quiet);
    plat::write(fd, prompt, std::strlen(prompt));
    char text[128];
    size_t n = 0;
    for (char c; plat::read(fd, &c, 1) == 1 && c != '\n';)
        if (n + 1 < sizeof text) text[n++] = c;
    text[n] = '\0';
    plat::ioctl(fd, TCSETSF, &saved);
    plat::write(fd, "\n", 1);
    plat::close(fd);
    return string_copy(text);
}

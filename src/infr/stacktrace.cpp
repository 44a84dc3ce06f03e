#include "infr/stacktrace.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <sys/wait.h>
#include <unistd.h>

#include "infr/sys.h"
#include "platform/platform.h"

namespace {

constexpr size_t kPathMax = 256;
constexpr size_t kLineMax = 512;

int child_read = -1;
int child_write = -1;
pid_t child_pid = 0;
bool child_failed = false;

pcset map[STACKTRACE_MAPS];
uintptr_t map_end[STACKTRACE_MAPS];
char map_path[STACKTRACE_MAPS][kPathMax];
int nmaps = -1;  // -1: not read yet

// The program's load bias: what addr2line's addresses are offset by (0 for
// a program linked at a fixed address, the load address for a PIE).
int firstObject(struct dl_phdr_info* info, size_t, void* out)
{
    *static_cast<uintptr_t*>(out) = info->dlpi_addr;
    return 1;
}

uintptr_t programBias()
{
    uintptr_t bias = 0;
    ::dl_iterate_phdr(firstObject, &bias);
    return bias;
}

// Keeps at most `size` - 1 bytes of a line and drops the rest of it; false at
// the end of the stream before any byte.
bool readLine(int fd, char* line, size_t size)
{
    size_t n = 0;
    bool any = false;
    for (char c;;) {
        ssize_t got = plat::read(fd, &c, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got != 1) break;
        any = true;
        if (c == '\n') break;
        if (n + 1 < size) line[n++] = c;
    }
    line[n] = '\0';
    return any;
}

bool readStreamLine(FILE* f, char* line, size_t size)
{
    if (!std::fgets(line, static_cast<int>(size), f)) return false;
    size_t n = std::strlen(line);
    if (n > 0 && line[n - 1] == '\n') {
        line[n - 1] = '\0';
    } else {
        for (int c; (c = std::fgetc(f)) != EOF && c != '\n';) {
        }
    }
    return true;
}

int readmapsInto(pcset* buffer, uintptr_t* ends, char (*paths)[kPathMax], int max)
{
    char name[64];
    std::snprintf(name, sizeof name, "/proc/%d/maps", static_cast<int>(::getpid()));
    FILE* f = plat::fopen(name, "r");
    if (!f) return 0;
    int n = 0;
    char line[kLineMax];
    while (n < max && readStreamLine(f, line, sizeof line)) {
        unsigned long start = 0, end = 0, offset = 0;
        char perms[5] = "";
        if (std::sscanf(line, "%lx-%lx %4s %lx", &start, &end, perms, &offset) != 4) continue;
        if (std::strcmp(perms, "r-xp") != 0) continue;
        const char* path = std::strchr(line, '/');
        if (!path) continue;  // [vdso] and the like: nothing addr2line can read
        std::snprintf(paths[n], kPathMax, "%s", path);
        buffer[n].pc = start;
        // A shared object's addresses count from the file's start.
        buffer[n].start = start - offset;
        buffer[n].obj = paths[n];
        ends[n] = end;
        ++n;
    }
    std::fclose(f);
    if (n > 0) {
        // The program's mapping comes first, at the lowest address.
        buffer[0].obj = nullptr;
        buffer[0].start = programBias();
    }
    return n;
}

const pcset* objectOf(uintptr_t pc)
{
    for (int i = 0; i < nmaps; ++i)
        if (pc >= map[i].pc && pc < map_end[i]) return &map[i];
    return nullptr;
}

} // namespace

int readmaps(pcset* buffer, int max)
{
    static uintptr_t ends[STACKTRACE_MAPS];
    static char paths[STACKTRACE_MAPS][kPathMax];
    if (max > STACKTRACE_MAPS) max = STACKTRACE_MAPS;
    return readmapsInto(buffer, ends, paths, max);
}

// The frames come from the C library's unwinder, not from a walk of frame
// pointers: the code is not built to keep them.
void stacktrace_get(pcset* buffer)
{
    void* frames[STACKTRACE_FRAMES];
    int n = ::backtrace(frames, STACKTRACE_FRAMES);
    if (nmaps < 0) nmaps = readmapsInto(map, map_end, map_path, STACKTRACE_MAPS);
    for (int i = 0; i < STACKTRACE_FRAMES; ++i) {
        buffer[i] = pcset{0, 0, nullptr};
        if (i >= n) continue;
        buffer[i].pc = reinterpret_cast<uintptr_t>(frames[i]);
        if (const pcset* object = objectOf(buffer[i].pc)) {
            buffer[i].start = object->start;
            buffer[i].obj = object->obj;
        } else {
            buffer[i].start = programBias();
        }
    }
}

bool addr2line_init()
{
    if (child_pid > 0) return true;
    if (child_failed) return false;
    int toChild[2], fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0) {
        child_failed = true;
        return false;
    }
    if (::pipe2(fromChild, O_CLOEXEC) != 0) {
        ::close(toChild[0]);
        ::close(toChild[1]);
        child_failed = true;
        return false;
    }
    char exe[64];
    std::snprintf(exe, sizeof exe, "/proc/%d/exe", static_cast<int>(::getpid()));
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(toChild[0], STDIN_FILENO);
        ::dup2(fromChild[1], STDOUT_FILENO);
        ::execl("/usr/bin/addr2line", "addr2line", "--functions", "-e", exe, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    if (pid < 0) {
        ::close(toChild[1]);
        ::close(fromChild[0]);
        child_failed = true;
        return false;
    }
    child_pid = pid;
    child_write = toChild[1];
    child_read = fromChild[0];
    return true;
}

namespace {

// "place function", or false for addr2line's unknown answer.
bool joined(const char* function, const char* place, char* text, size_t length)
{
    std::snprintf(text, length, "%s %s", place, function);
    return std::strcmp(text, "??:0 ??") != 0;
}

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = plat::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool addr2line_dump(uintptr_t pc, char* text, size_t length)
{
    text[0] = '\0';
    if (!addr2line_init()) return false;
    char request[32];
    int n = std::snprintf(request, sizeof request, "0x%08lx\n", static_cast<unsigned long>(pc));
    // A child that died would end us by SIGPIPE: hold the signal for the write.
    sigset_t pipe, old;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &old);
    bool sent = writeAll(child_write, request, static_cast<size_t>(n));
    if (!sent) {
        struct timespec none {};
        while (::sigtimedwait(&pipe, nullptr, &none) == SIGPIPE) {
        }
    }
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (!sent) return false;
    char function[kLineMax], place[kLineMax];
    if (!readLine(child_read, function, sizeof function) || !readLine(child_read, place, sizeof place)) return false;
    return joined(function, place, text, length);
}

namespace {

bool askObject(const char* obj, uintptr_t address, char* function, char* place)
{
    char command[kPathMax + 96];
    std::snprintf(command, sizeof command, "/usr/bin/addr2line --functions -e %s 0x%lx", obj,
                  static_cast<unsigned long>(address));
    FILE* f = plat::popen(command, "r");
    if (!f) return false;
    bool ok = readStreamLine(f, function, kLineMax) && readStreamLine(f, place, kLineMax);
    plat::pclose(f);
    if (!ok) function[0] = place[0] = '\0';
    return ok;
}

} // namespace

int addr2line_obj_dump(const pcset* entry, char* text, size_t length)
{
    text[0] = '\0';
    if (!entry->obj) return 0;
    char function[kLineMax], place[kLineMax];
    bool ok = askObject(entry->obj, entry->pc - entry->start, function, place);
    if (!ok || (std::strcmp(place, "??:0") == 0 && std::strcmp(function, "??") == 0))
        ok = askObject(entry->obj, entry->pc, function, place);
    if (!ok) return 0;
    if (std::strcmp(place, "sigaction.c:149") == 0 && std::strcmp(entry->obj, "/lib/libc-2.2.4.so") == 0 &&
        std::strcmp(function, "__restore") == 0) {
        std::snprintf(text, length, "%s %s", place, function);
        return 2;
    }
    return joined(function, place, text, length) ? 1 : 0;
}

// An unknown frame prints addr2line's own unknown answer; a signal frame
// prints "<signal frame>".
void stacktrace_dump(const pcset* buffer)
{
    char text[2 * kLineMax + 2];
    const uintptr_t self = reinterpret_cast<uintptr_t>(&stacktrace_dump);
    if (!addr2line_dump(self - programBias(), text, sizeof text)) return;
    sys_eprintf("STACKTRACE:dump\n");
    for (int i = 0; i < STACKTRACE_FRAMES && buffer[i].pc; ++i) {
        int known;
        if (buffer[i].obj)
            known = addr2line_obj_dump(&buffer[i], text, sizeof text);
        else
            known = addr2line_dump(buffer[i].pc - buffer[i].start, text, sizeof text) ? 1 : 0;
        const char* shown = known == 2 ? "<signal frame>" : known == 1 ? text : "??:0 ??";
        sys_eprintf("  frame=%02d pc=%08lx %s\n", i, static_cast<unsigned long>(buffer[i].pc), shown);
    }
}

void stacktrace_close()
{
    nmaps = -1;
    if (child_write >= 0) ::close(child_write);
    if (child_read >= 0) ::close(child_read);
    child_write = child_read = -1;
    if (child_pid > 0) {
        plat::kill(child_pid, 9);
        while (::waitpid(child_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    child_pid = 0;
    child_failed = false;
}

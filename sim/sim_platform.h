// The platform of the simulated module: every call of the system lands in the
// module directory (module.h). It is a dispatcher: paths are mapped under the
// directory and refused, with EACCES and a log line, when they would leave it
// or name no mapped root (the seal: hostfs.h); a call on a device node goes to
// the node's device model (device_model.h); plain files are files of the
// module; commands are logged and answered by the command table; sleeps
// advance the virtual clock; armed faults (faults.h, read again whenever the
// file changed) hit the calls they name, streams of fopen included.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "device_model.h"
#include "faults.h"
#include "module.h"
#include "node_table.h"
#include "platform/platform.h"
#include "scheduler.h"

namespace sim {

class SimPlatform : public plat::Platform {
public:
    // `dir` holds a module made by createModule; throws NotAModule otherwise.
    explicit SimPlatform(const std::string& dir);
    ~SimPlatform() override;

    Module& module() { return module_; }
    CommandTable& commands() { return commands_; }
    // The turns of this process's threads and their virtual time (scheduler.h).
    Scheduler& scheduler() { return sched_; }

    // The drives as a technician reaches them on a bench, out of the
    // module: every drive in a bay answers, whatever the kernel has found
    // and whatever power its bay has (tavsim partition, insert --new-product).
    void setBench(bool on) { bench_ = on; }

    // Faults: armed here they are also saved in the module's file.
    void arm(const Fault& fault);
    void clearFaults();
    std::vector<Fault> faults();
    bool powerIsCut();

    // Calls of an operation on paths matching `pattern`, since creation or the
    // last resetCalls: the count of a fault sweep.
    uint64_t calls(Op op, const std::string& pattern = "*");
    void resetCalls();

    // The path the system means, made absolute against the virtual working
    // directory and cleaned of "." and ".."; false when it leaves the module.
    bool normalize(const char* path, std::string& vpath);

    // plat::Platform
    int open(const char* path, int flags, mode_t mode) override;
    int close(int fd) override;
    ssize_t read(int fd, void* buf, size_t count) override;
    ssize_t write(int fd, const void* buf, size_t count) override;
    ssize_t pread(int fd, void* buf, size_t count, off_t offset) override;
    ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) override;
    off_t lseek(int fd, off_t offset, int whence) override;
    int fsync(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int fstat(int fd, struct ::stat* st) override;
    void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) override;
    int munmap(void* addr, size_t length) override;
    // A store into a mapping of a device node goes to its model; any other
    // address takes the plain store.
    void storeRegister(volatile uint32_t* reg, uint32_t value) override;
    int nvramPromDownload(int fd, const char* filename) override;
    int stat(const char* path, struct ::stat* st) override;
    int lstat(const char* path, struct ::stat* st) override;
    int access(const char* path, int mode) override;
    int mkdir(const char* path, mode_t mode) override;
    int mknod(const char* path, mode_t mode, dev_t dev) override;
    int unlink(const char* path) override;
    int rename(const char* from, const char* to) override;
    int remove(const char* path) override;
    int mkstemp(char* templ) override;
    DIR* opendir(const char* path) override;
    FILE* fopen(const char* path, const char* mode) override;
    int chdir(const char* path) override;
    void sync() override;
    int system(const char* command) override;
    FILE* popen(const char* command, const char* mode) override;
    int pclose(FILE* stream) override;
    // Only the module's own processes are signalled (processes.h): any other
    // pid, or a group holding another, is ESRCH. Logged as a command
    // ("kill -SIG PID") with its error.
    int kill(pid_t pid, int signal) override;
    // The process stays as it is, attached (a test goes on in it): the call
    // is logged as a command ("daemon NOCHDIR NOCLOSE"), the working directory
    // becomes "/" of the module and, unless `noclose`, the three standard
    // descriptors go to the module's null device, as freopen below.
    int daemon(int nochdir, int noclose) override;
    // "/dev/null" is the module's null device: for reading, a pipe that is
    // at its end; for writing, the file sim/null. Any other path is opened
    // as the system's own (mapped and refused as open does).
    FILE* freopen(const char* path, const char* mode, FILE* stream) override;
    // Each message is a line of sim/syslog.log (module.h).
    void openlog(const char* ident, int option, int facility) override;
    void syslog(int priority, const char* text) override;
    void closelog() override;
    // A module's shared object, by its path under "./modules": opened beneath
    // the module directory, links refused, and loaded through its descriptor.
    void* dlopen(const char* path, int flags) override;
    void* dlsym(void* handle, const char* symbol) override;
    int dlclose(void* handle) override;
    char* dlerror() override;
    time_t time(time_t* out) override;
    int gettimeofday(struct timeval* tv) override;
    unsigned int sleep(unsigned int seconds) override;
    int usleep(useconds_t usec) override;
    int nanosleep(const struct timespec* req, struct timespec* rem) override;
    int waitTimeout(struct timeval* timeout) override;
    int socket(int domain, int type, int protocol) override;
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override;
    // A unix path lands in the module (refused, with a log line, when the
    // module's path does not fit sun_path); an internet listener gets loopback.
    int bind(int fd, const struct sockaddr* address, socklen_t length) override;
    // The module's name, sim/hostname; faults as reads of "/proc/sys/kernel/hostname".
    int gethostname(char* name, size_t length) override;

    // The process's fork handlers call these (see the scheduler's).
    void forkPrepare();
    void forkParent();
    void forkChild();
    int InitMegaLib() override;
    int GetDllVersion(char* major, char* minor) override;
    int MegaLibCommand(int opcode, int adapter, int channel, int target, int size, void* buffer) override;

private:
    enum class Kind { File, Proc, Node, Socket };
    struct Handle : OpenNode {
        Kind kind = Kind::File;
        bool nonblocking = false;
    };
    struct Resolved {
        enum { Mapped, Proc } kind = Mapped;
        std::string vpath;  // the system's path, cleaned
        std::string rel;    // Proc: relative to the process's own /proc directory
    };
    struct Pipe {
        std::string command;
        std::string buffer;
        size_t pos = 0;
        bool writing = false;
        int status = 0;
    };
    struct Hit {
        bool fires = false;
        Fault::Action action = Fault::Action::Error;
        int error = 0;
        uint64_t shortCount = 0;
    };
    // A mapping that a device model gave, by its base address.
    struct Mapping {
        DeviceModel* model = nullptr;
        size_t length = 0;
        std::string vpath;
    };
    // Where a path leads: a model of its own, a bay node, or a plain file.
    struct Target {
        DeviceModel* model = nullptr;
        std::optional<DeviceNode> node;
        bool present = false;
        bool tableNode = false;  // a node mknod made (node_table.h)
        mode_t perm = 0;
    };

    // Every call holds the turn, then the platform's lock.
    struct Call {
        explicit Call(SimPlatform& p) : turn(p.sched_), guard(p.mu_) {}
        Turn turn;
        std::lock_guard<std::recursive_mutex> guard;
    };

    uint64_t nowMicros();
    std::optional<uint64_t> nextDeviceEvent();
    // A timed wait of `micros` from now on the virtual clock.
    void waitFor(uint64_t micros);

    bool resolve(const char* path, Resolved& out, bool forWriting);
    bool refuse(const char* path, const char* why);
    Target target(const Resolved& r);
    const HostDir& procDir();
    DeviceContext context() { return DeviceContext{module_, powerCut_, bench_}; }
    Handle* handle(int fd);
    // The model's mapping that holds `addr`, and its base; null for others.
    Mapping* mappingAt(const volatile void* addr, uintptr_t& base);

    void refreshFaults();
    Hit checkFault(Op op, const std::string& vpath, unsigned long request = 0);
    void spendFault(const Fault& fired);
    // `again`: a read retried after a wait, which its first try counted;
    // `wouldBlock` set when a model has nothing yet for a blocking read.
    ssize_t transfer(int fd, void* buf, size_t count, const uint64_t* at, bool writing, bool again = false,
                     bool* wouldBlock = nullptr);
    // A read that waits while the model has nothing yet (EWOULDBLOCK).
    ssize_t blockingRead(int fd, void* buf, size_t count, const uint64_t* at);
    bool readReady(int fd);
    int pathStat(const char* path, struct ::stat* st);
    // A descriptor of the null device, for reading or for writing.
    int nullDevice(bool writing);
    int runCommand(const std::string& kind, const std::string& command, const std::string& input, std::string& output);
    FILE* streamOf(int fd, const char* mode);

    std::recursive_mutex mu_;
    Module module_;
    NodeTable nodes_;
    DeviceRegistry registry_;
    CommandTable commands_;
    std::unique_ptr<HostDir> proc_;
    pid_t procPid_ = 0;
    std::string cwd_ = "/";
    std::map<int, Handle> handles_;
    std::map<uintptr_t, Mapping> mappings_;
    std::map<FILE*, Pipe*> pipes_;
    std::vector<Fault> faults_;
    std::string dlError_;   // a refusal of dlopen, for the next dlerror
    std::string dlShown_;   // what dlerror gave last
    // The descriptors that loaded objects were opened by, held while they
    // are loaded: the loader knows an object by its "/proc/self/fd/N" name,
    // which must not be reused for another file in the meantime.
    std::vector<std::pair<void*, int>> dlFds_;
    Module::Stamp faultStamp_;
    Module::Stamp hostnameStamp_;
    std::string hostname_;  // sim/hostname as last read
    std::map<std::pair<Op, std::string>, uint64_t> counts_;
    bool powerCut_ = false;
    bool bench_ = false;
    std::string syslogIdent_;
    int syslogFacility_ = 8;  // LOG_USER, the C library's default
    // Last: it goes first, before the state its clock reads.
    Scheduler sched_;
};

// The first components that map into the module; others are refused.
const std::vector<std::string>& mappedRoots();

} // namespace sim

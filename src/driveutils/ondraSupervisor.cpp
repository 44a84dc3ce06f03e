// Running a daemon: the "ok" file, the Init, Daemon and Deinit commands, the
// supervising thread with its restart rule, the stop and the killing of strays.
#include "driveutils/ondraProcess.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "driveutils/ondraInterface.h"
#include "platform/platform.h"

[[maybe_unused]] static int giDebug_ondraSupervisor = 0;
#define TAV_DEBUG_FLAG giDebug_ondraSupervisor
#include "driveutils/tavlog.h"
#include "driveutils/ondraLog.h"

namespace {

constexpr int kDefaultRetries = 5;
constexpr int kDefaultRetryTime = 60;  // seconds
constexpr unsigned kRestartPause = 5;  // seconds between a death and the next start
constexpr useconds_t kPollMicroseconds = 100;
constexpr int kPidPolls = 50000;  // 5 seconds
constexpr int kThreadCreateTries = 10;
constexpr int kRetryLineSize = 128;
constexpr int kPsLineSize = 1024;
constexpr size_t kPsPidColumn = 9;
constexpr size_t kPsCommandColumn = 48;

long threadId(pthread_t thread) { return static_cast<long>(thread); }
long self() { return threadId(pthread_self()); }

// "errno = N text; " for a log line.
std::string errnoText(int error) { return "errno = " + std::to_string(error) + " " + std::strerror(error) + "; "; }

// An int after optional blanks, within the int range; advances `p`.
bool scanInt(const char*& p, int& out)
{
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(p, &end, 10);
    if (end == p || errno == ERANGE || value < INT_MIN || value > INT_MAX) return false;
    out = static_cast<int>(value);
    p = end;
    return true;
}

// What sscanf(line, "number=%d time=%d") would match, with a number outside
// the int range taken as no match.
bool matchRetryLine(const char* line, int& number, int& time)
{
    const char* p = line;
    if (std::strncmp(p, "number=", 7) != 0) return false;
    p += 7;
    int n = 0;
    if (!scanInt(p, n)) return false;
    while (*p && std::isspace(static_cast<unsigned char>(*p))) ++p;
    if (std::strncmp(p, "time=", 5) != 0) return false;
    p += 5;
    int t = 0;
    if (!scanInt(p, t)) return false;
    number = n;
    time = t;
    return true;
}

// Real waits: they wait for a real thread and a real process, not for the clock.
void pollPause() { ::usleep(kPollMicroseconds); }

} // namespace

bool ondraReadRetryLimits(FILE* stream, int& number, int& time)
{
    char line[kRetryLineSize];
    while (std::fgets(line, sizeof line, stream)) {
        if (line[0] == '#') continue;
        if (matchRetryLine(line, number, time)) return true;
    }
    return false;
}

bool ondraPsLineMatches(const char* line, const char* name, int& pid, bool& error)
{
    error = false;
    const size_t length = std::strlen(line);
    if (length <= kPsCommandColumn) return false;
    const char* command = line + kPsCommandColumn;
    const char* blank = std::strchr(command, ' ');
    if (!blank) return false;  // started without any argument
    const std::string program(command, blank);
    const size_t slash = program.rfind('/');
    if (slash == std::string::npos) return false;
    if (std::strncmp(program.c_str() + slash + 1, name, std::strlen(name)) != 0) return false;
    if (length - kPsPidColumn < 6) {
        error = true;
        return false;
    }
    char digits[7] = {};
    std::memcpy(digits, line + kPsPidColumn, 5);
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(digits, &end, 10);
    // A pid of 0 or below would signal a process group: it is no pid.
    if (end == digits || errno == ERANGE || value <= 0) {
        error = true;
        return false;
    }
    pid = static_cast<int>(value);
    return true;
}

void TavOndraProcess::lockRunState(TavOndraProcess* process, const char*, int)
{
    pthread_mutex_lock(&process->runStateMutex);
}

void TavOndraProcess::unlockRunState(TavOndraProcess* process, const char*, int)
{
    pthread_mutex_unlock(&process->runStateMutex);
}

int TavOndraProcess::okFileExists(TavString& buffer, int procType)
{
    if (procType < 0 || procType > 2) return -1;
    if (!getDataPath(procType))
        loadArgs(nullptr, ONDRA_MAX_ARGS, ondraCfgFiles[ONDRA_RUN_DAEMON][procType], ondraSections[procType],
                 procType);
    const char* dir = getDataPath(procType);
    if (!dir) return -1;
    const std::string ok = std::string(dir) + "/ok";
    struct ::stat st;
    if (plat::stat(ok.c_str(), &st) == 0) return 1;
    const int error = errno;
    if (error == ENOENT) return 0;
    tav_logstream << "Ondra module: unable to stat ok file; " << errnoText(error) << ONDRA_END;
    buffer = "Unable to stat ok file";
    return -1;
}

int TavOndraProcess::init(TavString& buffer)
{
    const int ok = okFileExists(buffer, typ);
    if (ok == 1) return 0;
    if (ok != 0) {
        tav_logstream << "Ondra module: check for ok file failed; " << ONDRA_END;
        return -1;
    }
    return runOnce(buffer, ONDRA_RUN_INIT, "init failed; ", "Init failed");
}

int TavOndraProcess::deinit(TavString& buffer)
{
    // Nothing to undo; a failed test goes on.
    if (okFileExists(buffer, typ) == 0) return 0;
    return runOnce(buffer, ONDRA_RUN_DEINIT, "deinit failed; ", "Deinit failed");
}

// Init and Deinit: the command runs to its end in a joined thread.
int TavOndraProcess::runOnce(TavString& buffer, int state, const char* failure, const char* reason)
{
    lockRunState(this, TAV_FILE, __LINE__);
    runState = state;
    unlockRunState(this, TAV_FILE, __LINE__);
    int result = setArgs(buffer);
    if (result != 0) {
        tav_logstream << "Ondra module: unable to set args; " << ONDRA_END;
        buffer = "Unable to set args";
        return result;
    }
    buffer.clear();
    result = start(buffer, nullptr);
    if (result != 0) {
        tav_logstream << "Ondra module: " << failure << ONDRA_END;
        buffer = reason;
    }
    return result;
}

int TavOndraProcess::daemon(TavString& buffer)
{
    if (pid >= 0) return 0;
    const int ok = okFileExists(buffer, typ);
    if (ok == 0) {
        tav_logstream << "Ondra module: ok file does not exist; " << ONDRA_END;
        buffer = "Ok file does not exist";
        return -1;
    }
    if (ok != 1) {
        tav_logstream << "Ondra module: check for ok file failed; " << ONDRA_END;
        return -1;
    }
    lockRunState(this, TAV_FILE, __LINE__);
    runState = ONDRA_RUN_DAEMON;
    unlockRunState(this, TAV_FILE, __LINE__);
    int result = setArgs(buffer);
    if (result != 0) {
        tav_logstream << "Ondra module: unable to set args; " << ONDRA_END;
        buffer = "Unable to set args";
        return result;
    }
    buffer.clear();
    int wait = -1;
    result = start(buffer, &wait);
    if (result != 0) {
        TAV_LOG(TAV_LOG_ALWAYS, "Ondra module: %d daemon start failed;%s:%d\n ", typ, TAV_FILE, __LINE__);
        buffer = "Daemon start failed";
    }
    return result;
}

int TavOndraProcess::newargs(TavString& buffer)
{
    int result = setArgs(buffer);
    if (result != 0) {
        tav_logstream << "Ondra module: unable to set args; " << ONDRA_END;
        buffer = "Unable to set args";
        return result;
    }
    const int child = pid;
    if (child > 0) {
        tav_logstream << "Ondra module: RECONFIGURE pid " << child << " " << ONDRA_END;
        plat::kill(child, SIGHUP);
    }
    return 0;
}

int TavOndraProcess::start(TavString& buffer, int* wait)
{
    TAV_LOG(TAV_LOG_L10, "pthread:%ld, entering start %s:%d\n", self(), TAV_FILE, __LINE__);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, wait ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    pthread_t thread{};
    int created = -1;
    // pthread_create reports its error as the result; the retry on -1 with
    // EINTR is kept for a library that would report it through errno.
    for (int tries = 0; tries < kThreadCreateTries; ++tries) {
        created = pthread_create(&thread, &attr, waitForChild, this);
        if (!(created == -1 && errno == EINTR)) break;
    }
    pthread_attr_destroy(&attr);
    if (created != 0) {
        const int error = created == -1 ? errno : created;
        tav_logstream << "Ondra module: unable to start the process thread; " << errnoText(error) << ONDRA_END;
        buffer = "Unable to start the process thread";
        return -1;
    }
    newPthread = thread;
    TAV_LOG(TAV_LOG_L10, "pthread:%ld, started newPthread:%ld %s:%d\n", self(), threadId(thread), TAV_FILE,
            __LINE__);
    TAV_LOG(TAV_LOG_L10, "pthread:%ld waiting for thread:%ld, pid:%d type:%d %s:%d\n", self(), threadId(thread),
            pid.load(), typ, TAV_FILE, __LINE__);
    bool started = true;
    if (!wait) {
        started = pthread_join(thread, nullptr) == 0;
    } else if (*wait < 0) {
        for (int polls = 0; pid < 0 && polls < kPidPolls; ++polls) pollPause();
        started = pid > 0;
    } else {
        // Reserved: no caller waits a number of seconds.
        unsigned left = static_cast<unsigned>(*wait);
        while (left > 0) left = plat::sleep(left);
    }
    if (!started) {
        TAV_LOG(TAV_LOG_ALWAYS, "Ondra module: pid:%d unable to run process;%s:%d\n ", pid.load(), TAV_FILE,
                __LINE__);
        buffer = "Unable to run process";
        return -1;
    }
    TAV_LOG(TAV_LOG_L10, "pthread:%ld, leaving start %s:%d\n", self(), TAV_FILE, __LINE__);
    return 0;
}

void* TavOndraProcess::waitForChild(void* args)
{
    auto* process = static_cast<TavOndraProcess*>(args);
    bool hasProgram = false;
    if (process) {
        std::lock_guard<std::recursive_mutex> lock(process->argvMutex);
        hasProgram = process->argv[0] != nullptr;
    }
    if (!hasProgram) {
        tav_logstream << "Ondra module: NULL argv to wait thread; " << ONDRA_END;
        return nullptr;
    }
    process->supervise();
    return nullptr;
}

// The reaping of one child: waitpid until it reports this child. ECHILD means
// that it can never be reaped here (someone else did): it is taken as gone,
// where repeating would spin for ever.
int TavOndraProcess::waitForExit(pid_t kid, int& status)
{
    for (;;) {
        const pid_t reaped = waitpid(kid, &status, 0);
        if (reaped == kid) return reaped;
        const int error = errno;
        if (reaped == -1 && error == ECHILD) {
            status = 0;
            return reaped;
        }
        if (reaped == -1 && error != EINTR) {
            tav_logstream << "Ondra module: wait failed; " << errnoText(error) << ONDRA_END;
        } else {
            tav_logstream << "Ondra module: wait received an unexpected death; kidPid = " << reaped
                          << "pid = " << kid << "status = " << status << " " << ONDRA_END;
        }
    }
}

void TavOndraProcess::supervise()
{
    int maxRetries = kDefaultRetries;
    int maxRetryTime = kDefaultRetryTime;
    int nStarts = 0;
    time_t firstStartTime = 0;

    tav_logstream << "pthread:" << self() << " starting" << std::endl;
    {
        std::lock_guard<std::recursive_mutex> lock(argvMutex);
        tav_logstream << "Ondra module: start process: ";
        for (int i = 0; i < argc && argv[i]; ++i) tav_logstream << argv[i] << " ";
        tav_logstream << ONDRA_END;
    }

    lockRunState(this, TAV_FILE, __LINE__);
    if (runState == ONDRA_RUN_DAEMON) {
        if (FILE* cfg = plat::fopen(ONDRA_RETRY_CFG, "r")) {
            if (!ondraReadRetryLimits(cfg, maxRetries, maxRetryTime))
                TAV_LOG(TAV_LOG_ALWAYS, "invalid contents of %s  expected number=N time=M %s:%d\n", ONDRA_RETRY_CFG,
                        TAV_FILE, __LINE__);
            std::fclose(cfg);
        } else {
            TAV_LOG(TAV_LOG_ALWAYS, "cannot open %s %s:%d\n", ONDRA_RETRY_CFG, TAV_FILE, __LINE__);
        }
    }
    stoppedByCommand = false;

    for (;;) {
        if (runState == ONDRA_RUN_DAEMON) {
            TavString ignored;
            if (okFileExists(ignored, typ) == 0) break;  // an error goes on as if it were there
        }
        const time_t now = plat::time(nullptr);
        if (nStarts == 0) firstStartTime = now;

        pid_t kid;
        {
            std::lock_guard<std::recursive_mutex> lock(argvMutex);
            tav_logstream << " top cmd=" << (argv[0] ? argv[0] : "") << " , pid=" << pid.load() << std::endl;
            // The child must not repeat what is still buffered here.
            tav_logstream.flush();
            std::fflush(nullptr);
            kid = fork();
            if (kid == 0) {
                errno = 0;
                closeFileDescriptors(getpid());
                execv(argv[0], argv);
                const int error = errno;
                tav_logstream << "Ondra module: execv failed for " << argv[0] << "; " << errnoText(error)
                              << ONDRA_END;
                tav_logstream.flush();
                std::fflush(nullptr);
                // Not exit: the parent's static objects (the daemons of the
                // interface among them) must not be torn down in the child.
                _exit(1);
            }
        }
        const int state = runState;
        if (state == ONDRA_RUN_INIT || state == ONDRA_RUN_DEINIT) stoppedByCommand = true;
        if (kid < 0) {
            const int error = errno;
            tav_logstream << "Ondra module: unable to fork proc; " << errnoText(error) << ONDRA_END;
            unlockRunState(this, TAV_FILE, __LINE__);
            return;
        }
        tav_logstream << " started kidpid=" << kid << ", pid=" << pid.load() << std::endl;
        if (state == ONDRA_RUN_DAEMON) {
            pid = kid;
            TAV_LOG(TAV_LOG_L10, "pthread:%ld pid:%d type:%d %s:%d\n", self(), static_cast<int>(kid), typ, TAV_FILE,
                    __LINE__);
        }
        int status = 0;
        const pid_t reaped = waitForExit(kid, status);
        tav_logstream << " waitpid=" << reaped << " exited, pid=" << pid.load() << ", status=" << status
                      << std::endl;
        if (state == ONDRA_RUN_DAEMON) {
            pid = -1;
            tav_logstream << "Ondra module: wait received a death; pid = " << kid << " status = " << status
                          << " thread = " << self() << " " << ONDRA_END;
            TAV_LOG(TAV_LOG_L10, "pid:%d type:%d %s:%d\n", static_cast<int>(kid), typ, TAV_FILE, __LINE__);
        }

        // The restart rule; `now` is the time of the last start.
        ++nStarts;
        const time_t delta = now - firstStartTime;
        if (nStarts > maxRetries && delta < maxRetryTime) {
            stoppedByCommand = true;
            std::lock_guard<std::recursive_mutex> lock(argvMutex);
            TAV_LOG(TAV_LOG_ALWAYS, "pthread:%ld tried to start %s %d times in %lu seconds, giving up. %s:%d\n",
                    self(), argv[0] ? argv[0] : "", nStarts, static_cast<unsigned long>(delta), TAV_FILE,
                    __LINE__);
        } else if (delta > maxRetryTime) {
            nStarts = 0;
        }
        if (!stoppedByCommand) plat::sleep(kRestartPause);
        if (stoppedByCommand) break;
    }
    runState = ONDRA_RUN_IDLE;
    stoppedByCommand = false;
    unlockRunState(this, TAV_FILE, __LINE__);
    tav_logstream << " exiting, pid=" << pid.load() << std::endl;
}

int TavOndraProcess::stop(TavString& buffer, bool dont_restart)
{
    TAV_LOG(TAV_LOG_L10, "pthread:%ld, entering stop %s %s:%d\n", self(), dont_restart ? "no restart" : "restart",
            TAV_FILE, __LINE__);
    if (runState == ONDRA_RUN_DAEMON) stoppedByCommand = dont_restart;
    const int child = pid;
    if (child <= 0) {
        buffer = "Process is not running";
    } else {
        TAV_LOG(TAV_LOG_ALWAYS, "Ondra module: stopping pid:%d;%s:%d\n ", child, TAV_FILE, __LINE__);
        for (pid_t target : {static_cast<pid_t>(child), static_cast<pid_t>(-child)})
            if (plat::kill(target, SIGKILL) != 0 && errno != ESRCH) tavOndraErrno(errno);
        // The supervising thread writes -1 once it has reaped the child.
        while (pid != -1) pollPause();
    }
    TAV_LOG(TAV_LOG_L10, "pid:%d %s:%d\n", child, TAV_FILE, __LINE__);
    if (dont_restart) {
        lockRunState(this, TAV_FILE, __LINE__);
        runState = ONDRA_RUN_IDLE;
        unlockRunState(this, TAV_FILE, __LINE__);
    }
    TAV_LOG(TAV_LOG_L10, "pthread:%ld, leaving stop %s:%d\n", self(), TAV_FILE, __LINE__);
    return 0;
}

int TavOndraProcess::killSameProcessName(TavString& buffer)
{
    int result = -1;
    buffer.clear();
    std::string name;
    {
        std::lock_guard<std::recursive_mutex> lock(argvMutex);
        if (!argv[0]) return 0;
        const char* slash = std::strrchr(argv[0], '/');
        if (slash) name = slash + 1;
    }
    if (name.empty()) {
        tav_logstream << "Ondra module: unable to find process name; " << ONDRA_END;
        buffer = "Unable to find process name";
    } else {
        result = killListed(buffer, name);
        if (result == -2) return -1;  // the listing did not open: nothing to remove
    }
    if (plat::remove(ONDRA_RUNNING_FILE) != 0 && errno != ENOENT) {
        const int error = errno;
        tav_logstream << "Ondra module: unable to remove " << ONDRA_RUNNING_FILE << " " << errnoText(error)
                      << ONDRA_END;
        buffer = (std::string("Unable to remove ") + ONDRA_RUNNING_FILE).c_str();
    }
    return result;
}

// Lists the processes of `name` into the running file and kills each: the
// result of the last kill (or -1), or -2 when the listing cannot be opened.
int TavOndraProcess::killListed(TavString& buffer, const std::string& name)
{
    char command[kPsLineSize];
    const int n =
        std::snprintf(command, sizeof command, "ps -ewf | grep \"%s\" > %s", name.c_str(), ONDRA_RUNNING_FILE);
    if (n < 0 || n >= static_cast<int>(sizeof command)) {
        tav_logstream << "Ondra module: unable to snprintf; " << ONDRA_END;
        buffer = "Unable to snprintf";
        return -1;
    }
    const int status = plat::system(command);
    if ((status & 0xff) != 0) {
        tav_logstream << "Ondra module: unable to make system call; " << ONDRA_END;
        buffer = "Unable to make system call";
        return -1;
    }
    int result = 0;
    FILE* listing = plat::fopen(ONDRA_RUNNING_FILE, "r");
    if (!listing) {
        tav_logstream << "Ondra module: unable to open " << ONDRA_RUNNING_FILE << " " << ONDRA_END;
        buffer = (std::string("Unable to open ") + ONDRA_RUNNING_FILE).c_str();
        return -2;
    }
    char line[kPsLineSize];
    while (std::fgets(line, sizeof line, listing)) {
        int target = 0;
        bool error = false;
        if (!ondraPsLineMatches(line, name.c_str(), target, error)) {
            if (error) {
                tav_logstream << "Ondra module: unable to strtol; " << ONDRA_END;
                buffer = "Unable to strtol";
                result = -1;
            }
            continue;
        }
        TAV_LOG(TAV_LOG_ALWAYS, "Ondra module: killSameProcessName pid:%d;%s:%d\n ", target, TAV_FILE, __LINE__);
        result = plat::kill(target, SIGKILL);
        if (result != 0 && errno != ESRCH) {
            const int killError = errno;
            std::lock_guard<std::recursive_mutex> lock(argvMutex);
            const char* program = argv[0] ? argv[0] : "";
            tav_logstream << "Ondra module: unable to kill " << program << "; " << errnoText(killError) << ONDRA_END;
            buffer = (std::string("Unable to kill ") + program).c_str();
            result = -1;
        }
    }
    std::fclose(listing);
    return result;
}

int TavOndraProcess::killLeftOverProcess()
{
    lockRunState(this, TAV_FILE, __LINE__);
    runState = ONDRA_RUN_DAEMON;
    unlockRunState(this, TAV_FILE, __LINE__);
    TavString buffer;
    int result = setArgs(buffer);
    if (result != 0) {
        tav_logstream << "Ondra module: unable to set args; " << ONDRA_END;
        return result;
    }
    TAV_LOG(TAV_LOG_ALWAYS, "Ondra module: killLeftOverProcess buffer:%s;%s:%d\n ", buffer.c_str(), TAV_FILE,
            __LINE__);
    result = killSameProcessName(buffer);
    if (result != 0) tav_logstream << "Ondra module: unable to kill process with same name; " << ONDRA_END;
    clearArgv();
    return result;
}

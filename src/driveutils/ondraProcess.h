// One of the module's three daemons (the store, the virtual manager, the
// manager) as the module sees it: the argument vector it is started with, the
// configuration files that vector comes from, the child process, and the
// supervising thread that waits for the child and starts it again.
//
// Each daemon has three commands: Init prepares its data directory once and
// leaves a file "ok" there, Daemon is the long-running server (restarted when
// it dies), Deinit undoes the preparation. The "ok" file is the only record
// of whether a data directory is prepared.
#pragma once

#include <atomic>
#include <cstdio>
#include <mutex>
#include <pthread.h>
#include <string>

#include "tavutils/tavstring.h"

// Process types: also the index into every per-type table.
enum {
    ONDRA_PROC_STORE = 0,
    ONDRA_PROC_VIRTUALMANAGER = 1,
    ONDRA_PROC_MANAGER = 2,
    ONDRA_PROC_NONE = 3,  // a new object's type; type() refuses to set it
};

// Run states.
enum {
    ONDRA_RUN_INIT = 0,
    ONDRA_RUN_DAEMON = 1,
    ONDRA_RUN_DEINIT = 2,
    ONDRA_RUN_IDLE = 3,
};

constexpr int ONDRA_MAX_ARGS = 64;          // arguments of a vector
constexpr int ONDRA_ARGV_SIZE = 65;         // ...and the null that ends it
constexpr int ONDRA_DATA_PATH_SIZE = 1025;

// [run state Init..Deinit][process type]
extern const char* const ondraCfgFiles[3][3];
// By process type: "STORAGE", "VIRTUALMANAGER", "MANAGER".
extern const char* const ondraSections[3];

// The retry limits of the supervisor, and the files it reads.
constexpr const char* ONDRA_RETRY_CFG = "/etc/marrowby/ondraretry.cfg";
constexpr const char* ONDRA_UDP_ARGS_CFG = "/etc/marrowby/comm/udpargs.cfg";
constexpr const char* ONDRA_RUNNING_FILE = "/etc/marrowby/store/ondraRunningFile.dat";

// The data directory per process type, learnt from the "--dir" line of a
// configuration; only setDataPath and getDataPath reach it.
namespace _don_t_use_this_data_directly {
extern char* newdataPaths[3];
}
// Ignores an index above 2; frees the old entry and keeps a copy.
void setDataPath(const char* path, int index);
// The entry, null when unset; no bounds test.
const char* getDataPath(int index);

// The identity of the last supervising thread started, for all three objects.
extern std::atomic<pthread_t> newPthread;

// Loads the section `startStr` of `fname` into args (strdup'd lines): the
// count loaded, or -1 when the file does not open or has no such section. A
// null args stores nothing and returns 0, but still learns the data path.
int loadArgs(char** args, int maxArgs, const char* fname, const char* startStr, int index);
// Makes every directory of `dir` before its last slash (sync after each).
void makedir(const char* dir);

// The retry limits from the text of "ondraretry.cfg": true when a line
// "number=%d time=%d" was found (and number and time set), false when the
// stream ended first. "#" lines are comments; lines are read 127 characters
// at a time; a number outside the int range is no match.
bool ondraReadRetryLimits(FILE* stream, int& number, int& time);

// One line of the "ps -ewf" listing: true, with its pid, when the command at
// column 48 (cut at its first blank; a command with no blank or no slash is
// never matched) names the executable `name`. `error` is set, with a false
// result, when the line matched but its pid column (9, five characters) is
// not a number. Sends no signal.
bool ondraPsLineMatches(const char* line, const char* name, int& pid, bool& error);

class TavOndraProcess {
public:
    TavOndraProcess();
    ~TavOndraProcess();
    TavOndraProcess(const TavOndraProcess&) = delete;
    TavOndraProcess& operator=(const TavOndraProcess&) = delete;

    // Accessors.
    int pId() const { return pid; }
    const TavString& mgrName() const { return manager; }
    void mgrName(const TavString& name) { manager = name; }
    const TavString& initMd5() const { return initmd5; }
    void initMd5(const TavString& md5) { initmd5 = md5; }
    const TavString& ipAddressString() const { return ipAddress; }
    void ipAddressString(const TavString& address) { ipAddress = address; }
    const TavString& raidLevelString() const { return raidLevel; }
    void raidLevelString(const TavString& level) { raidLevel = level; }
    const TavString& storeName() const { return store; }
    void storeName(const TavString& name) { store = name; }
    bool first() const { return firstMgr; }
    void first(bool isFirst) { firstMgr = isFirst; }
    int type() const { return typ; }
    // Sets the type for 0, 1 or 2; any other value is ignored.
    void type(int t);
    int state() const { return runState.load(); }

    // The commands: 0, or -1 with a short sentence in buffer. Where a command
    // takes run-time arguments they come in through buffer.
    int init(TavString& buffer);
    int daemon(TavString& buffer);
    int deinit(TavString& buffer);
    int stop(TavString& buffer, bool dont_restart);
    int newargs(TavString& buffer);
    int addArg(TavString& buffer, TavString& daemonArgs);
    int deleteArg(TavString& buffer, TavString& daemonArgs);
    int getArgs(TavString& buffer);
    int path();
    int killLeftOverProcess();
    // 1 when the type's "ok" file exists, 0 when not, -1 on an error.
    static int okFileExists(TavString& buffer, int procType);
    static int readUdpArgs(TavString& buffer);
    static int writeUdpArgs(TavString& buffer);

    // The inner operations.
    int setArgs(TavString& buffer);
    int setArgsFromFile(TavString& buffer, const char* filename);
    int addArgs(TavString& buffer);
    void writeArgsToFile(char** args, int nargs);
    int killSameProcessName(TavString& buffer);
    void clearArgv();
    // wait null: join the thread; *wait < 0: poll for the pid up to 5 seconds.
    int start(TavString& buffer, int* wait);
    static void* waitForChild(void* args);
    static void lockRunState(TavOndraProcess* process, const char* file, int line);
    static void unlockRunState(TavOndraProcess* process, const char* file, int line);

    // The data directory copied by path().
    const char* dataPathText() const { return dataPath; }
    int argCount() const { return argc; }
    const char* arg(int i) const { return i >= 0 && i < ONDRA_ARGV_SIZE ? argv[i] : nullptr; }

private:
    int pushArg(TavString& buffer, const char* text);
    void addStoreDevices();
    int loadDaemonSection(char** args);
    void applyDaemonChange(const char* word, TavString& daemonArgs);
    int runOnce(TavString& buffer, int state, const char* failure, const char* reason);
    int killListed(TavString& buffer, const std::string& name);
    int waitForExit(pid_t kid, int& status);
    void supervise();

    char* argv[ONDRA_ARGV_SIZE];
    char dataPath[ONDRA_DATA_PATH_SIZE];
    int argc;
    std::atomic<int> pid;
    int typ;
    std::atomic<int> runState;
    TavString initmd5;
    TavString ipAddress;
    TavString raidLevel;
    TavString manager;
    TavString store;
    bool firstMgr;
    std::atomic<bool> stoppedByCommand;
    pthread_mutex_t runStateMutex;
    // Guards argv and argc: the caller's thread rebuilds the vector while the
    // supervising thread may read it to start the daemon again.
    std::recursive_mutex argvMutex;
};

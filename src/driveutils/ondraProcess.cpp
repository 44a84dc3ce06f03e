// A daemon's argument vector and the files it is built from.
#include "driveutils/ondraProcess.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>

#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevices.h"
#include "hwlib/tavhwid.h"
#include "platform/platform.h"
#include "tavstring/tavstrtokenize.h"

[[maybe_unused]] static int giDebug_ondraProcess = 0;
#define TAV_DEBUG_FLAG giDebug_ondraProcess
#include "driveutils/tavlog.h"
#include "driveutils/ondraLog.h"

const char* const ondraCfgFiles[3][3] = {
    {"/etc/marrowby/store/ondraStoreInit.cfg", "/etc/marrowby/virtualmanager/ondraVMgrInit.cfg",
     "/etc/marrowby/manager/ondraMgrInit.cfg"},
    {"/etc/marrowby/store/ondraStoreDaemon.cfg", "/etc/marrowby/virtualmanager/ondraVMgrDaemon.cfg",
     "/etc/marrowby/manager/ondraMgrDaemon.cfg"},
    {"/etc/marrowby/store/ondraStoreDeinit.cfg", "/etc/marrowby/virtualmanager/ondraVMgrDeinit.cfg",
     "/etc/marrowby/manager/ondraMgrDeinit.cfg"},
};

const char* const ondraSections[3] = {"STORAGE", "VIRTUALMANAGER", "MANAGER"};

std::atomic<pthread_t> newPthread{};

namespace _don_t_use_this_data_directly {
char* newdataPaths[3] = {nullptr, nullptr, nullptr};
}

namespace {

// The supervising thread learns the data path while the caller's thread may
// reload it: changes are serialised, and an unchanged path is kept in place so
// that a pointer handed out earlier stays valid.
std::mutex dataPathMutex;

constexpr int kMakedirSize = 245;
constexpr int kArgLineSize = 1024;  // a line of at most 1023 characters
constexpr int kUdpLineSize = 512;

bool validType(int type) { return type >= 0 && type <= 2; }

// One line of an argument file, its newline removed. A longer line comes in
// pieces of 1023 characters, each taken as a line; a NUL ends the text of a
// line. False at the end of the stream or on an error.
bool readArgLine(FILE* in, char (&line)[kArgLineSize])
{
    if (!std::fgets(line, sizeof line, in)) return false;
    line[std::strcspn(line, "\n")] = '\0';
    return true;
}

void freeArgs(char** args, int count)
{
    for (int i = 0; i < count; ++i) {
        std::free(args[i]);
        args[i] = nullptr;
    }
}

} // namespace

void setDataPath(const char* path, int index)
{
    if (index < 0 || index > 2 || !path) return;
    std::lock_guard<std::mutex> lock(dataPathMutex);
    char*& entry = _don_t_use_this_data_directly::newdataPaths[index];
    if (entry && std::strcmp(entry, path) == 0) return;
    char* copy = strdup(path);
    if (!copy) return;  // the old path stays
    std::free(entry);
    entry = copy;
}

// Null for an index outside the table as for an unset entry.
const char* getDataPath(int index)
{
    if (index < 0 || index > 2) return nullptr;
    std::lock_guard<std::mutex> lock(dataPathMutex);
    return _don_t_use_this_data_directly::newdataPaths[index];
}

void makedir(const char* dir)
{
    if (!dir) return;
    char prefix[kMakedirSize];
    for (const char* slash = dir[0] ? std::strchr(dir + 1, '/') : nullptr; slash;
         slash = std::strchr(slash + 1, '/')) {
        size_t length = static_cast<size_t>(slash - dir);
        int result = -1;
        int error = ENAMETOOLONG;  // a prefix that does not fit is not made
        if (length < sizeof prefix) {
            std::memcpy(prefix, dir, length);
            prefix[length] = '\0';
            result = plat::mkdir(prefix, 0755);
            error = errno;
        }
        if (result == 0) {
            plat::sync();
        } else if (error != EEXIST) {
            TAV_LOG(TAV_LOG_ALWAYS, "mkdir failed: %s %s:%d\n", std::strerror(error), TAV_FILE, __LINE__);
        }
    }
}

int loadArgs(char** args, int maxArgs, const char* fname, const char* startStr, int index)
{
    FILE* in = plat::fopen(fname, "r");
    if (!in) return -1;
    char line[kArgLineSize];
    bool found = false;
    while (readArgLine(in, line))
        if (std::strcmp(line, startStr) == 0) {
            found = true;
            break;
        }
    if (!found) {
        std::fclose(in);
        return -1;
    }
    int count = 0;
    bool afterDir = false;
    bool afterTransDir = false;
    while (count < maxArgs && readArgLine(in, line)) {
        if (std::strcmp(line, "END") == 0) break;
        if (args) {
            args[count] = strdup(line);
            if (args[count]) ++count;
        }
        if (afterDir) {
            makedir(line);
            setDataPath(line, index);
        }
        if (afterTransDir) makedir(line);
        afterDir = std::strcmp(line, "--dir") == 0;
        afterTransDir = std::strcmp(line, "--trans_dir") == 0;
    }
    std::fclose(in);
    return count;
}

TavOndraProcess::TavOndraProcess()
    : argv{}, dataPath{}, argc(0), pid(-1), typ(ONDRA_PROC_NONE), runState(ONDRA_RUN_IDLE), initmd5("NO_MD5"),
      ipAddress("127.0.0.1"), raidLevel("unknown"), manager("NO_PROCESS_NAME"), store("NO_PROCESS_NAME"),
      firstMgr(false), stoppedByCommand(false)
{
    pthread_mutex_init(&runStateMutex, nullptr);
}

TavOndraProcess::~TavOndraProcess()
{
    // A supervising thread may still hold the mutex: then it is left alive.
    if (pthread_mutex_destroy(&runStateMutex) == EBUSY) pthread_mutex_unlock(&runStateMutex);
    clearArgv();
}

void TavOndraProcess::type(int t)
{
    if (validType(t)) typ = t;
}

void TavOndraProcess::clearArgv()
{
    std::lock_guard<std::recursive_mutex> lock(argvMutex);
    freeArgs(argv, ONDRA_ARGV_SIZE);
    argc = 0;
}

int TavOndraProcess::path()
{
    // An unset path copies as empty text and succeeds: no configuration has
    // been read yet. An object with no type yet has no path at all.
    const char* current = validType(typ) ? getDataPath(typ) : nullptr;
    int n = std::snprintf(dataPath, sizeof dataPath, "%s", current ? current : "");
    if (n < 0 || n >= static_cast<int>(sizeof dataPath)) {
        tav_logstream << "Ondra module: unable to snprintf; " << ONDRA_END;
        dataPath[0] = '\0';
        return -1;
    }
    return validType(typ) ? 0 : -1;
}

// One more argument, or -1 with the reason when strdup fails.
int TavOndraProcess::pushArg(TavString& buffer, const char* text)
{
    char* copy = strdup(text);
    if (!copy) {
        tav_logstream << "Ondra module: unable to strdup; " << ONDRA_END;
        buffer = "strdup failed";
        return -1;
    }
    argv[argc++] = copy;
    return 0;
}

int TavOndraProcess::addArgs(TavString& buffer)
{
    if (buffer.empty()) return 0;
    char work[ONDRA_DATA_PATH_SIZE];
    int n = std::snprintf(work, sizeof work, "%s", buffer.c_str());
    if (n < 0 || n >= static_cast<int>(sizeof work)) {
        int error = n < 0 ? errno : EOVERFLOW;
        tav_logstream << "Ondra module: unable to snprintf; errno = " << error << " " << std::strerror(error) << "; "
                      << ONDRA_END;
        buffer = "snprintf failed";
        return -1;
    }
    std::lock_guard<std::recursive_mutex> lock(argvMutex);
    // 0 once any argument went in; a text that adds nothing fails.
    int ret = -1;
    char* outer = nullptr;
    bool quoted = false;  // the first piece counts as unquoted, whatever the text begins with
    for (char* piece = tavStrTok_r(work, "\"", &outer); piece;
         piece = tavStrTok_r(nullptr, "\"", &outer), quoted = !quoted) {
        if (quoted) {
            if (!*piece || argc >= ONDRA_MAX_ARGS) continue;  // dropped without a word
            if (pushArg(buffer, piece) != 0) return -1;
            ret = 0;
            continue;
        }
        char* inner = nullptr;
        for (char* token = tavStrTok_r(piece, " \t", &inner); token; token = tavStrTok_r(nullptr, " \t", &inner)) {
            if (argc >= ONDRA_MAX_ARGS) {
                tav_logstream << "Ondra module: unable to add arg; limit exceeded; " << ONDRA_END;
                buffer = "Unable to add arg; limit exceeded";
                continue;
            }
            if (pushArg(buffer, token) != 0) return -1;
            ret = 0;
        }
    }
    return ret;
}

int TavOndraProcess::setArgsFromFile(TavString& buffer, const char* filename)
{
    std::lock_guard<std::recursive_mutex> lock(argvMutex);
    int loaded = loadArgs(argv + argc, ONDRA_MAX_ARGS - argc, filename, ondraSections[typ], typ);
    if (loaded < 0) return -1;
    argc += loaded;
    int result = addArgs(buffer);
    if (result != 0) {
        tav_logstream << "Ondra module: unable to add args; " << ONDRA_END;
        buffer = "Unable to add args";
    }
    return result;
}

int TavOndraProcess::setArgs(TavString& buffer)
{
    const int state = runState.load();
    if (state > ONDRA_RUN_DEINIT || state < 0) {
        tav_logstream << "Ondra module: invalid state; " << ONDRA_END;
        buffer = "Invalid state";
        return -1;
    }
    if (!validType(typ)) {
        tav_logstream << "Ondra module: invalid type; " << ONDRA_END;
        buffer = "Invalid type";
        return -1;
    }
    std::lock_guard<std::recursive_mutex> lock(argvMutex);
    clearArgv();
    const int result = setArgsFromFile(buffer, ondraCfgFiles[state][typ]);
    if (state == ONDRA_RUN_DAEMON) {
        TavString none;
        if (typ == ONDRA_PROC_STORE) {
            char location[255];
            if (hwid_getConfigsLocation(location, sizeof location) == 0) {
                const std::string modelFile = std::string(location) + "ondraStoreDaemon.cfg";
                setArgsFromFile(none, modelFile.c_str());
            }
        }
        setArgsFromFile(none, ONDRA_UDP_ARGS_CFG);
    }
    if (state == ONDRA_RUN_INIT && typ == ONDRA_PROC_STORE) addStoreDevices();
    return result;
}

// The store's Init learns the top-level RAID devices as "--device" pairs.
void TavOndraProcess::addStoreDevices()
{
    TavRaidDevices* devices = TavDriveMgr::getRaidDevices();
    if (!devices) {
        TAV_LOG(TAV_LOG_ALWAYS, "no devices to pass to store %s:%d\n", TAV_FILE, __LINE__);
        return;
    }
    TavString ignored;
    for (int i = 0; i < devices->getNTopLevelDevs() && argc <= ONDRA_MAX_ARGS - 2; ++i) {
        const char* name = devices->getNthTopLevelDev(i)->getStoreName();
        if (pushArg(ignored, "--device") != 0 || pushArg(ignored, name ? name : "") != 0) break;
    }
    delete devices;
}

int TavOndraProcess::getArgs(TavString& buffer)
{
    buffer.clear();
    std::lock_guard<std::recursive_mutex> lock(argvMutex);
    int result = -1;
    if (argc == 0) {
        tav_logstream << "Ondra module: Process arguments have not been set; " << ONDRA_END;
        buffer = "Process arguments have not been set";
    }
    for (int i = 0; i < argc; ++i) {
        if (!argv[i]) {
            tav_logstream << "Ondra module: No arg for index = " << i << "; " << ONDRA_END;
            buffer = "Unable to get args (bad arg at index)";
            continue;
        }
        buffer += argv[i];
        buffer += " ";
        result = 0;
    }
    return result;
}

// The Daemon section of the object's type into `args` (65 entries): the count, or -1.
int TavOndraProcess::loadDaemonSection(char** args)
{
    if (!validType(typ)) return -1;
    return loadArgs(args, ONDRA_MAX_ARGS, ondraCfgFiles[ONDRA_RUN_DAEMON][typ], ondraSections[typ], typ);
}

// The changed Daemon file reaches a running daemon: the vector is rebuilt and
// every process of the name is killed, so that the supervisor restarts it.
void TavOndraProcess::applyDaemonChange(const char* word, TavString& daemonArgs)
{
    if (pid <= 0) return;
    clearArgv();
    setArgs(daemonArgs);
    tav_logstream << word << daemonArgs << std::endl;
    killSameProcessName(daemonArgs);
}

int TavOndraProcess::addArg(TavString& buffer, TavString& daemonArgs)
{
    char* local[ONDRA_ARGV_SIZE] = {};
    int count = loadDaemonSection(local);
    if (count < 0) return -1;
    // Position 0 is skipped unread; an empty text adds nothing.
    for (size_t begin = 1; begin <= buffer.size();) {
        size_t slash = buffer.find('/', begin);
        size_t end = slash == TavString::npos ? buffer.size() : slash;
        if (count >= ONDRA_MAX_ARGS) {
            freeArgs(local, count);
            return -1;
        }
        char* copy = strdup(buffer.substr(begin, end - begin).c_str());
        if (!copy) {
            freeArgs(local, count);
            return -1;
        }
        local[count++] = copy;
        if (slash == TavString::npos) break;
        begin = slash + 1;
    }
    writeArgsToFile(local, count);
    freeArgs(local, count);
    applyDaemonChange("addArg ", daemonArgs);
    return 0;
}

int TavOndraProcess::deleteArg(TavString& buffer, TavString& daemonArgs)
{
    char* local[ONDRA_ARGV_SIZE] = {};
    int count = loadDaemonSection(local);
    if (count < 0) return -1;
    size_t slash = buffer.size() > 1 ? buffer.find('/', 1) : TavString::npos;
    if (slash == TavString::npos) {
        freeArgs(local, count);
        return -1;
    }
    const std::string name = buffer.substr(1, slash - 1);
    long values = std::strtol(buffer.c_str() + slash + 1, nullptr, 0);
    int at = 0;
    while (at < count && name != local[at]) ++at;
    if (at == count) {
        freeArgs(local, count);
        return -1;
    }
    // The count is not checked against the vector by the callers: at most the
    // arguments that exist behind the name go, and a negative count takes the
    // name alone.
    long available = count - at - 1;
    int remove = 1 + static_cast<int>(values < 0 ? 0 : (values > available ? available : values));
    for (int i = at; i < at + remove; ++i) std::free(local[i]);
    for (int i = at + remove; i < count; ++i) local[i - remove] = local[i];
    for (int i = count - remove; i < count; ++i) local[i] = nullptr;
    count -= remove;
    writeArgsToFile(local, count);
    freeArgs(local, count);
    applyDaemonChange("deleteArg ", daemonArgs);
    return 0;
}

void TavOndraProcess::writeArgsToFile(char** args, int nargs)
{
    if (!validType(typ)) return;
    FILE* out = plat::fopen(ondraCfgFiles[ONDRA_RUN_DAEMON][typ], "w");
    if (!out) return;  // nothing to write to; the file is as the open left it
    std::fprintf(out, "%s\n", ondraSections[typ]);
    for (int i = 0; i < nargs; ++i) std::fprintf(out, "%s\n", args[i] ? args[i] : "");
    std::fprintf(out, "END\n");
    std::fclose(out);
}

int TavOndraProcess::writeUdpArgs(TavString& buffer)
{
    if (buffer.empty()) {
        plat::unlink(ONDRA_UDP_ARGS_CFG);
        return 0;
    }
    char name[] = "/etc/marrowby/comm/XXXXXX";
    int fd = plat::mkstemp(name);
    if (fd < 0) return -1;
    FILE* out = plat::fopen(name, "w");
    bool written = out != nullptr;
    for (int i = 0; written && i < 3; ++i) {
        const size_t lengths[] = {std::strlen(ondraSections[i]) + 1, buffer.size(), 4};
        written = std::fprintf(out, "%s\n", ondraSections[i]) == static_cast<int>(lengths[0]) &&
                  std::fwrite(buffer.data(), 1, lengths[1], out) == lengths[1] &&
                  std::fwrite("END\n", 1, lengths[2], out) == lengths[2];
    }
    // A failure of the last flush is a short write as well.
    if (out && std::fclose(out) != 0) written = false;
    if (!written) {
        plat::close(fd);
        plat::unlink(name);
        return -1;
    }
    plat::fsync(fd);
    plat::close(fd);
    plat::rename(name, ONDRA_UDP_ARGS_CFG);
    return 0;
}

int TavOndraProcess::readUdpArgs(TavString& buffer)
{
    buffer.clear();
    FILE* in = plat::fopen(ONDRA_UDP_ARGS_CFG, "r");
    if (!in) return 0;
    char line[kUdpLineSize];
    bool inSection = false;
    while (std::fgets(line, sizeof line, in)) {
        if (!inSection) {
            inSection = std::strstr(line, "STORAGE") != nullptr;
            continue;
        }
        if (std::strstr(line, "END")) break;
        buffer += line;
    }
    std::fclose(in);
    return 0;
}

#include "driveutils/ondraInterface.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <net/if.h>
#include <new>
#include <ostream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "driveutils/ondraComm.h"
#include "driveutils/ondraProcess.h"
#include "driveutils/tav_nvram.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevice.h"
#include "hwlib/tavhwid.h"
#include "platform/platform.h"
#include "tavstring/tavparseutil.h"
#include "tavstring/tavstrtokenize.h"
#include "tavutils/tavobxinfo.h"

[[maybe_unused]] static int giDebug_ondraInterface = 0;
#define TAV_DEBUG_FLAG giDebug_ondraInterface
#include "driveutils/tavlog.h"
#include "driveutils/ondraLog.h"

using RaidDeviceMgmt::TavNVRam;

TavOndraInterface ondraIf;

namespace {

constexpr int kProcessTypes = 3;
constexpr const char* kNoSystemId = "NO_SYSTEM_ID";
constexpr const char* kNoMd5 = "NO_MD5";
constexpr const char* kMd5TimeoutCfg = "/etc/marrowby/md5timeout.cfg";
constexpr const char* kUmemDevice = "/dev/umem/disc0/disc";
constexpr const char* kNvramDevices[2] = {"/dev/tav_nvram0", "/dev/tav_nvram1"};
// The words of getMd5's listing: at most this many from the udp arguments.
constexpr int kMd5MaxWords = 64;

// The long sentences an operator reads when a daemon does not start.
constexpr const char* kSaveLogs = "First, save the log files ";
constexpr const char* kSaveHow =
    "using the instructions for \"Saving log files\" in the online help. Then call customer support for further "
    "assistance.";

std::string storeFailure()
{
    return std::string("the storage server could not be started. ") + kSaveLogs + "store.info and store.error " +
           kSaveHow;
}

// Logs "Ondra module: <log>" with where it was said, sets `reason`: -1.
int fail(TavString& buffer, const char* log, const std::string& reason, const char* file, int line)
{
    tav_logstream << "Ondra module: " << log << file << " " << line << std::endl;
    buffer = reason.c_str();
    return -1;
}
#define ONDRA_FAIL(buffer, log, reason) fail(buffer, log, reason, TAV_FILE, __LINE__)

bool modelFlushesDrives()
{
    const int model = hwid_getModelId(nullptr);
    return model == 2 || model == 6;
}

// The words of the manager types, which differ only in their texts.
struct ManagerWords {
    int type;
    const char* initLog;
    const char* runLog;
    const char* deinitLog;
    const char* tooManyLog;
    const char* tokenizeLog;
    const char* tokenizeReason;
    const char* stopLog;
    const char* stopReason;
};

const ManagerWords kManagerWords[] = {
    {ONDRA_PROC_MANAGER, "unable to initialize manager; ", "unable to run manager; ", "unable to deinit manager; ",
     "too many tokens to start mgr; ", "unable to tokenize args to start mgr; ",
     "Unable to tokenize args to start manager", "unable to stop manager; ", "Unable to stop manager"},
    {ONDRA_PROC_VIRTUALMANAGER, "unable to initialize virtual manager; ", "unable to run virtual manager; ",
     "unable to deinit virtual manager; ", "too many tokens to start vmgr; ",
     "unable to tokenize args to start vmgr; ", "Unable to tokenize args to start virtual manager",
     "unable to stop virtual manager; ", "Unable to stop virtual manager"},
};

const ManagerWords& wordsOf(int type) { return type == ONDRA_PROC_MANAGER ? kManagerWords[0] : kManagerWords[1]; }

// getMd5's time-out in seconds: the file's number, 15 without one or for 0.
int readTimeout()
{
    int value = 0;
    if (FILE* in = plat::fopen(kMd5TimeoutCfg, "r")) {
        if (std::fscanf(in, "%d", &value) != 1) value = 0;
        std::fclose(in);
    }
    return value == 0 ? 15 : value;
}

} // namespace

TavOndraInterface::TavOndraInterface() : bManagerCommStarted(0), tavOndraProcs(nullptr), tavOndraComm(nullptr) {}

TavOndraInterface::~TavOndraInterface()
{
    delete[] tavOndraProcs;  // the elements go in reverse order
    tavOndraProcs = nullptr;
    delete tavOndraComm;
    tavOndraComm = nullptr;
    TavOndraComm::closeSockets();
}

TavOndraProcess* TavOndraInterface::process(int type) const
{
    return tavOndraProcs && type >= 0 && type < kProcessTypes ? &tavOndraProcs[type] : nullptr;
}

// Before initModData there are no processes: a command on one says so.
TavOndraProcess* TavOndraInterface::checked(TavString& buffer, int type, int line)
{
    if (type < 0 || type >= kProcessTypes) {
        fail(buffer, "invalid type; ", "Invalid type", TAV_FILE, line);
        return nullptr;
    }
    if (!tavOndraProcs) {
        fail(buffer, "process data not initialized; ", "Process data not initialized", TAV_FILE, line);
        return nullptr;
    }
    return &tavOndraProcs[type];
}

int TavOndraInterface::runTimeArgs(TavString& buffer, int state, int type)
{
    if (type < 0 || type >= kProcessTypes) {
        tav_logstream << "Ondra module: invalid process type " << ONDRA_END;
        buffer = "Invalid process type";
        return -1;
    }
    if (state < ONDRA_RUN_INIT || state > ONDRA_RUN_DEINIT) {
        tav_logstream << "Ondra module: invalid process state " << ONDRA_END;
        buffer = "Invalid process state";
        return -1;
    }
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;

    std::string text;
    const std::string quotedId = "\"" + std::string(TavOndraComm::systemID()) + "\"";
    const int cacheCards = hwidResource().GetNResources("PCI", "NVRAM");
    if (state == ONDRA_RUN_DEINIT) {
        // nothing
    } else if (type == ONDRA_PROC_STORE && state == ONDRA_RUN_INIT) {
        text = " --name " + p->storeName() + " --system_id " + quotedId + " --ip_address " + p->ipAddressString();
        if (cacheCards > 0) {
            if (devExists(kNvramDevices[0])) text += std::string(" --cache ") + kNvramDevices[0];
            if (cacheCards > 1 && devExists(kNvramDevices[1])) text += std::string(" --cache ") + kNvramDevices[1];
        } else if (devExists(kUmemDevice)) {
            text += std::string(" --cache ") + kUmemDevice + " --cacheio_clone";
        }
    } else if (type == ONDRA_PROC_STORE) {
        text = std::string(" --serial_number ") + TavObxInfo::getSerialNumber() +
               TavObxInfo::getPartnerSerialNumber() + " --ip_address " + p->ipAddressString() + " --raid_type " +
               p->raidLevelString();
        if (modelFlushesDrives()) text += " --flush_drives ";
        if (cacheCards > 0) {
            // The second card is looked at only when the first is missing.
            for (const char* device : kNvramDevices)
                if (devExists(device)) {
                    text += std::string(" --pinned_memory ") + device;
                    break;
                }
        } else if (devExists(kUmemDevice)) {
            text += " --cacheio_umem";
        }
    } else if (state == ONDRA_RUN_INIT) {
        text = " --name " + p->mgrName() + " --system_id " + quotedId + " --ip_address " + p->ipAddressString();
        if (p->initMd5() != kNoMd5) text += " --md5 " + p->initMd5();
        if (p->first()) text += " --first";
    } else {
        const int port = type == ONDRA_PROC_MANAGER ? TavOndraComm::port2Mgr() : TavOndraComm::port2VMgr();
        char portText[20];
        int n = std::snprintf(portText, sizeof portText, "%d", port);
        if (n < 0 || n >= static_cast<int>(sizeof portText)) {
            tav_logstream << "Ondra module: unable to snprintf; " << ONDRA_END;
            buffer = "Unable to snprintf";
            return -1;
        }
        text = std::string(" --server_bin ") + portText + " --serial_number " + TavObxInfo::getSerialNumber() +
               " --ip_address " + p->ipAddressString();
        if (modelFlushesDrives()) text += " --flush_drives ";
        char location[255];
        const int rc = hwid_getConfigsLocation(location, sizeof location);
        if (rc == 0)
            text += std::string(" --brand_dir ") + location;
        else
            TAV_LOG(TAV_LOG_ALWAYS, "hwid_getConfigsLocation failed with rc:%d %s:%d\n", rc, TAV_FILE, __LINE__);
    }
    buffer = text.c_str();
    return 0;
}

int TavOndraInterface::processStart(TavString& buffer, int state, int type)
{
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;
    if (runTimeArgs(buffer, state, type) != 0)
        return ONDRA_FAIL(buffer, "unable to get runtime args; ", "Unable to get runtime args");
    int result = -1;
    switch (state) {
    case ONDRA_RUN_INIT: result = p->init(buffer); break;
    case ONDRA_RUN_DAEMON: result = p->daemon(buffer); break;
    case ONDRA_RUN_DEINIT: result = p->deinit(buffer); break;
    default: return ONDRA_FAIL(buffer, "invalid state; ", "Invalid state");
    }
    if (result != 0) return ONDRA_FAIL(buffer, "unable to start process; ", "Unable to start process");
    return 0;
}

int TavOndraInterface::processStop(TavString& buffer, int type)
{
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;
    if (p->stop(buffer, true) != 0) return ONDRA_FAIL(buffer, "unable to stop process; ", "Unable to stop process");
    return 0;
}

// Stops a running daemon and starts it anew with its run-time arguments and `extra`.
int TavOndraInterface::restartDaemon(TavString& buffer, TavOndraProcess& p, int type, const char* extra)
{
    if (p.pId() > 0 && p.stop(buffer, true) != 0)
        return ONDRA_FAIL(buffer, "unable to stop process; ", "Unable to cycle process");
    if (runTimeArgs(buffer, ONDRA_RUN_DAEMON, type) != 0) return -1;
    buffer += extra;
    return p.daemon(buffer);
}

// A process that wasn't running is started.
int TavOndraInterface::processCycle(TavString& buffer, int type)
{
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    return p ? restartDaemon(buffer, *p, type, "") : -1;
}

// The daemon starts anew in its shut-down form; a stopped one is left alone.
int TavOndraInterface::processShutdown(TavString& buffer, int type)
{
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;
    if (p->pId() <= 0) return 0;
    return restartDaemon(buffer, *p, type, " --shutdownhack");
}

int TavOndraInterface::updateArgs(TavString& buffer, int type)
{
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;
    if (runTimeArgs(buffer, ONDRA_RUN_DAEMON, type) != 0) return -1;
    return p->newargs(buffer);
}

// A bad type has a line of its own here; the reply is the common one. The
// Daemon file changes, and a running daemon restarts with the new vector.
int TavOndraInterface::changeDaemonArgs(TavString& buffer, int type,
                                        int (TavOndraProcess::*change)(TavString&, TavString&))
{
    if (type < 0 || type >= kProcessTypes) {
        TAV_LOG(TAV_LOG_ALWAYS, "%s:%d addArgs invalid type:%d\n", TAV_FILE, __LINE__, type);
        buffer = "Invalid type";
        return -1;
    }
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;
    TavString args;
    runTimeArgs(args, ONDRA_RUN_DAEMON, type);
    return (p->*change)(buffer, args);
}

int TavOndraInterface::addArgs(TavString& buffer, int type)
{
    return changeDaemonArgs(buffer, type, &TavOndraProcess::addArg);
}

int TavOndraInterface::deleteArgs(TavString& buffer, int type)
{
    return changeDaemonArgs(buffer, type, &TavOndraProcess::deleteArg);
}

int TavOndraInterface::getArgs(TavString& buffer, int type)
{
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    return p ? p->getArgs(buffer) : -1;
}

// Before initModData no process runs.
int TavOndraInterface::getRun(TavString& buffer, int type)
{
    if (type < 0 || type >= kProcessTypes) return ONDRA_FAIL(buffer, "invalid type; ", "Invalid type");
    const TavOndraProcess* p = process(type);
    buffer = p && p->pId() > 0 ? "TRUE" : "FALSE";
    return 0;
}

int TavOndraInterface::initModData(TavString& buffer, TavString& devIface, TavString& devRaidLevel)
{
    // A second call keeps the table: its processes may be running.
    if (!tavOndraProcs) {
        tavOndraProcs = new (std::nothrow) TavOndraProcess[kProcessTypes];
        if (!tavOndraProcs) {
            tav_logstream << "Ondra module: unable to get new memory; errno = " << ENOMEM << " "
                          << std::strerror(ENOMEM) << "; " << ONDRA_END;
            buffer = "Unable to get new memory";
            return -1;
        }
    }
    for (int type : {ONDRA_PROC_MANAGER, ONDRA_PROC_VIRTUALMANAGER, ONDRA_PROC_STORE}) {
        TavOndraProcess& p = tavOndraProcs[type];
        p.type(type);
        if (p.path() != 0) return ONDRA_FAIL(buffer, "unable to set data path; ", "Unable to set data path");
        if (p.killLeftOverProcess() != 0)
            return ONDRA_FAIL(buffer, "unable to kill other process; ", "Unable to kill other process");
    }
    writeIfaceIpAddress(devIface);
    writeRaidLevel(devRaidLevel);
    startManagerComm();
    return 0;
}

int TavOndraInterface::startManagerComm()
{
    if (bManagerCommStarted) return 0;
    TavString local;
    if (!tavOndraComm) tavOndraComm = new (std::nothrow) TavOndraComm;
    if (tavOndraProcs && !TavOndraComm::initialized && TavOndraComm::init(local) == -1)
        return ONDRA_FAIL(local, "unable to init Comm object; ", "Unable to init Comm object");
    // The log text of a unit that has not joined yet is the historical one.
    if (TavOndraComm::systemID() == kNoSystemId)
        return ONDRA_FAIL(local, "unable to obtain iface ip; ", "Unable to obtain iface ip");

    const int raidStatus = TavDriveMgr::checkRaid();
    int nvramStatus = TavNVRam::normal;
    const int required = TavDriveMgr::getNRequiredNVRams();
    // The i-th card object answers for the i-th required card; a missing one is unavailable.
    for (int i = 0; i < required && nvramStatus == TavNVRam::normal; ++i) {
        TavNVRam* card = TavDriveMgr::getNVRam(i);
        nvramStatus = card ? card->getState() : TavNVRam::unavailable;
    }
    if (raidStatus != TavRaidDevice::OFF && nvramStatus == TavNVRam::normal &&
        processStart(local, ONDRA_RUN_DAEMON, ONDRA_PROC_STORE) != 0)
        ONDRA_FAIL(local, "unable to start storage server; ", "Unable to start storage server");
    if (processStart(local, ONDRA_RUN_DAEMON, ONDRA_PROC_MANAGER) != 0)
        ONDRA_FAIL(local, "unable to start database manager; ", "Unable to start database manager");
    if (processStart(local, ONDRA_RUN_DAEMON, ONDRA_PROC_VIRTUALMANAGER) != 0)
        ONDRA_FAIL(local, "unable to start database virtual manager; ", "Unable to start database virtual manager");
    bManagerCommStarted = 1;
    return 0;
}

int TavOndraInterface::join(TavString& buffer)
{
    if (TavOndraComm::systemID() != kNoSystemId) {
        // A member already: the store starts, whatever id the text names;
        // a failure reaches the caller through the text alone.
        if (storeStart(buffer) != 0) ONDRA_FAIL(buffer, "unable to start storage server; ", storeFailure());
        return 0;
    }
    try {
        TavString copy = buffer;
        char* state = nullptr;
        int index = 0;
        for (char* token = tavTokenize_r(copy.data(), "/", &state); token;
             token = tavTokenize_r(nullptr, "/", &state), ++index) {
            if (index == 0) {
                if (TavOndraProcess* store = process(ONDRA_PROC_STORE)) store->storeName(token);
            } else if (index == 1) {
                TavString id = token;
                if (TavOndraComm::systemID() == kNoSystemId) {
                    if (setSystemId(id) != 0)
                        ONDRA_FAIL(buffer, "unable to set system id; ", "Unable to set system id");
                } else if (id != TavOndraComm::systemID()) {
                    ONDRA_FAIL(buffer, "different system id; ", "Different system id");
                }
            }
        }
    } catch (const std::exception&) {
        return ONDRA_FAIL(buffer, "unable to tokenize args to join; ", "Unable to tokenize args to join");
    }
    buffer.clear();
    if (storeStart(buffer) != 0) {
        ONDRA_FAIL(buffer, "unable to start storage server; ", storeFailure());
        TavString none = kNoSystemId;
        setSystemId(none);
        return -1;
    }
    return 0;
}

// A failed Init ends the start: the Daemon would find no "ok" file.
int TavOndraInterface::storeStart(TavString& buffer)
{
    if (processStart(buffer, ONDRA_RUN_INIT, ONDRA_PROC_STORE) != 0)
        return ONDRA_FAIL(buffer, "unable to initialize storage server; ", "Unable to initialize storage server");
    if (processStart(buffer, ONDRA_RUN_DAEMON, ONDRA_PROC_STORE) != 0)
        return ONDRA_FAIL(buffer, "unable to start storage server; ", storeFailure());
    return 0;
}

// Tokens 2 and 3 of "store/systemid/name/word": the manager's name, and
// "first" or "not_first" for the manager, the md5 for the virtual manager.
int TavOndraInterface::takeStartTokens(TavString& buffer, const TavString& text, int type)
{
    const ManagerWords& words = wordsOf(type);
    TavOndraProcess* p = checked(buffer, type, __LINE__);
    if (!p) return -1;
    try {
        TavString copy = text;
        char* state = nullptr;
        int index = 0;
        for (char* token = tavTokenize_r(copy.data(), "/", &state); token;
             token = tavTokenize_r(nullptr, "/", &state), ++index) {
            if (index < 2) continue;
            if (index == 2) {
                p->mgrName(token);
            } else if (index == 3 && type == ONDRA_PROC_VIRTUALMANAGER) {
                p->initMd5(token);
            } else if (index == 3 && (std::strcmp(token, "first") == 0 || std::strcmp(token, "not_first") == 0)) {
                p->first(std::strcmp(token, "first") == 0);
            } else if (index == 3) {
                tav_logstream << "Ondra module: invalid token in start mgr; token = " << token << " " << ONDRA_END;
                buffer = (std::string("Invalid token in start manager") + token).c_str();
                return -1;
            } else {
                return ONDRA_FAIL(buffer, words.tooManyLog, "Too many tokens to start manager");
            }
        }
    } catch (const std::exception&) {
        return ONDRA_FAIL(buffer, words.tokenizeLog, words.tokenizeReason);
    }
    return 0;
}

int TavOndraInterface::startManagerType(TavString& buffer, int type)
{
    const ManagerWords& words = wordsOf(type);
    const TavString text = buffer;
    const int joined = join(buffer);
    if (joined != 0) {
        tav_logstream << "Ondra module: " << buffer << " " << ONDRA_END;
        return joined;
    }
    if (takeStartTokens(buffer, text, type) != 0) return -1;
    buffer.clear();
    if (processStart(buffer, ONDRA_RUN_INIT, type) != 0)
        return ONDRA_FAIL(buffer, words.initLog, "Unable to initialize manager");
    if (processStart(buffer, ONDRA_RUN_DAEMON, type) != 0) {
        tav_logstream << "Ondra module: " << words.runLog << ONDRA_END;
        if (processStart(buffer, ONDRA_RUN_DEINIT, type) != 0)
            tav_logstream << "Ondra module: " << words.deinitLog << ONDRA_END;
        buffer += std::string(kSaveLogs) + "manager.info and manager.error " + kSaveHow;
        return -1;
    }
    return 0;
}

int TavOndraInterface::managerStart(TavString& buffer) { return startManagerType(buffer, ONDRA_PROC_MANAGER); }

int TavOndraInterface::virtualmanagerStart(TavString& buffer)
{
    return startManagerType(buffer, ONDRA_PROC_VIRTUALMANAGER);
}

int TavOndraInterface::stopManagerType(TavString& buffer, int type)
{
    const ManagerWords& words = wordsOf(type);
    if (processStop(buffer, type) != 0) return ONDRA_FAIL(buffer, words.stopLog, words.stopReason);
    if (processStart(buffer, ONDRA_RUN_DEINIT, type) != 0)
        return ONDRA_FAIL(buffer, words.deinitLog, "Unable to deinit manager");
    return 0;
}

int TavOndraInterface::managerStop(TavString& buffer) { return stopManagerType(buffer, ONDRA_PROC_MANAGER); }

int TavOndraInterface::virtualmanagerStop(TavString& buffer)
{
    return stopManagerType(buffer, ONDRA_PROC_VIRTUALMANAGER);
}

int TavOndraInterface::removeFromSystem(TavString& buffer)
{
    buffer = kNoSystemId;
    if (setSystemId(buffer) != 0) return ONDRA_FAIL(buffer, "unable to set system id; ", "Unable to set system id");
    if (managerStop(buffer) != 0)
        return ONDRA_FAIL(buffer, "unable to stop database manager; ", "Unable to stop database manager");
    if (virtualmanagerStop(buffer) != 0)
        return ONDRA_FAIL(buffer, "unable to stop virtual manager; ", "Unable to stop virtual manager");
    TavOndraProcess* store = checked(buffer, ONDRA_PROC_STORE, __LINE__);
    if (!store || store->stop(buffer, true) != 0)
        return ONDRA_FAIL(buffer, "unable to stop storage server; ", "Unable to stop storage server");
    if (processStart(buffer, ONDRA_RUN_DEINIT, ONDRA_PROC_STORE) != 0)
        return ONDRA_FAIL(buffer, "unable to remove storage server from the system; ",
                          "Unable to remove storage server from the system");
    return 0;
}

// The id moves only through "NO_SYSTEM_ID"; even an equal id is refused.
int TavOndraInterface::setSystemId(TavString& buffer)
{
    const TavString old = TavOndraComm::systemID();
    if (buffer != kNoSystemId && old != kNoSystemId) {
        tav_logstream << "Ondra module: system id exists; " << old << "; tmp = buffer = " << buffer << " "
                      << ONDRA_END;
        buffer = "System id exists";
        return -1;
    }
    TavOndraComm::systemID(buffer);
    return TavOndraComm::writeSystemIdToFile(buffer);
}

int TavOndraInterface::getSystemId(TavString& buffer)
{
    buffer = TavOndraComm::systemID();
    return 0;
}

// The relay's port goes only to a unit with an id and a prepared manager.
int TavOndraInterface::getPort(TavString& buffer)
{
    const TavString& id = TavOndraComm::systemID();
    TavString ignored;
    int port = -1;
    if (!id.empty() && id != kNoSystemId && TavOndraProcess::okFileExists(ignored, ONDRA_PROC_MANAGER) == 1)
        port = TavOndraComm::portFromGuis();
    char text[20];
    int n = std::snprintf(text, sizeof text, "%d", port);
    if (n < 0 || n >= static_cast<int>(sizeof text))
        return ONDRA_FAIL(buffer, "unable to snprintf port; ", "Unable to snprintf port");
    buffer = text;
    return 0;
}

int TavOndraInterface::getMd5(TavString& buffer)
{
    const TavString id = TavOndraComm::systemID();
    if (id.empty() || id == kNoSystemId) {
        buffer.clear();
        return 0;
    }
    static const int timeout = readTimeout();
    std::string command = "/etc/marrowby/system/dbd_manager ";
    // The store's udp arguments become the manager's; a listing that fails adds none.
    if (FILE* words = plat::popen("awk '/STORAGE/ {x=1; next} /END/ {if (x == 1) exit} {if (x == 1) print $1}' "
                                  "/etc/marrowby/comm/udpargs.cfg",
                                  "r")) {
        char word[1024];
        for (int i = 0; i < kMd5MaxWords && std::fscanf(words, "%1023s", word) == 1; ++i)
            command += std::string(word) + " ";
        plat::pclose(words);
    }
    command += "--system_id " + id + " --list" + " --terminate " + std::to_string(timeout) +
               "|awk '/md5/ {print $3 ;exit}' | awk -F\\' '{print $2}'";
    TAV_LOG(TAV_LOG_ALWAYS, "command:%s\n", command.c_str());
    buffer.clear();
    FILE* listing = plat::popen(command.c_str(), "r");
    if (!listing) {
        tav_logstream << "Ondra module: unable to popen; errno = " << errno << "; " << ONDRA_END;
        return -1;
    }
    char md5[1024];
    if (std::fscanf(listing, "%1023s", md5) == 1) buffer = md5;
    plat::pclose(listing);
    return 0;
}

int TavOndraInterface::getVmgrConfigured(TavString& buffer)
{
    const int ok = TavOndraProcess::okFileExists(buffer, ONDRA_PROC_VIRTUALMANAGER);
    if (ok < 0) return -1;
    buffer = ok == 1 ? "TRUE" : "FALSE";
    return 0;
}

int TavOndraInterface::getUnixDomain(TavString& buffer) { return TavOndraComm::unixDomainGet(buffer); }
int TavOndraInterface::readUdpArgs(TavString& buffer) { return TavOndraProcess::readUdpArgs(buffer); }
int TavOndraInterface::writeUdpArgs(TavString& buffer) { return TavOndraProcess::writeUdpArgs(buffer); }

int TavOndraInterface::writeIfaceIpAddress(TavString& buffer)
{
    TavString address;
    const int result = resolveIfaceName(buffer, address);
    if (result != 0) return result;
    for (int type : {ONDRA_PROC_MANAGER, ONDRA_PROC_VIRTUALMANAGER, ONDRA_PROC_STORE})
        if (TavOndraProcess* p = process(type)) p->ipAddressString(address);
    return 0;
}

int TavOndraInterface::writeRaidLevel(TavString& raidLevel)
{
    if (TavOndraProcess* store = process(ONDRA_PROC_STORE)) store->raidLevelString(raidLevel);
    return 0;
}

// The interface list holds eight entries: a ninth interface is out of reach.
int TavOndraInterface::resolveIfaceName(const TavString& iface, TavString& ifIpAddress)
{
    const int fd = plat::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        tav_logstream << "Cannot obtain socket  errno " << errno << " " << ONDRA_END;
        return -1;
    }
    ifreq entries[8] = {};
    ifconf conf{};
    conf.ifc_len = sizeof entries;
    conf.ifc_req = entries;
    int result = -1;
    if (plat::ioctl(fd, SIOCGIFCONF, &conf) < 0) {
        tav_logstream << "Cannot obtain (ioctl) interface information for " << iface << " errno " << errno << " "
                      << ONDRA_END;
    } else {
        const int count = std::min<int>(conf.ifc_len / static_cast<int>(sizeof(ifreq)), 8);
        for (int i = 0; i < count; ++i) {
            if (std::strncmp(entries[i].ifr_name, iface.c_str(), IFNAMSIZ) != 0) continue;
            sockaddr_in address;
            std::memcpy(&address, &entries[i].ifr_addr, sizeof address);
            const uint32_t a = ntohl(address.sin_addr.s_addr);
            char text[16];
            std::snprintf(text, sizeof text, "%d.%d.%d.%d", (a >> 24) & 0xff, (a >> 16) & 0xff, (a >> 8) & 0xff,
                          a & 0xff);
            ifIpAddress = text;
            result = 0;
            break;
        }
    }
    while (plat::close(fd) != 0 && errno == EINTR) {
    }
    return result;
}

bool TavOndraInterface::devExists(const char* device)
{
    struct ::stat st;
    return device && plat::stat(device, &st) == 0;
}

void TavOndraInterface::closeSockets() { TavOndraComm::closeSockets(); }

void tavOndraErrno(int errNumber)
{
    // Errors that are not survivable: the module's own supervisor starts it anew.
    static const auto errArray = [] {
        struct Table {
            unsigned char fatal[125] = {};
        } t;
        t.fatal[ENOMEM] = 1;
        t.fatal[ENOSPC] = 1;
        return t;
    }();
    TAV_LOG(TAV_LOG_ALWAYS, "%s: %s, %s:%d\n", "Ondra module: error string", std::strerror(errno), TAV_FILE,
            __LINE__);
    tav_logstream << "Ondra module: (problem follows) errno = " << errNumber << std::endl;
    // A number outside the table is reported and survived.
    if (errNumber < 0 || errNumber >= static_cast<int>(sizeof errArray.fatal)) return;
    if (errArray.fatal[errNumber]) {
        tav_logstream.flush();
        std::exit(errNumber);
    }
}

void tavOndraStripWhiteSpace(char* str)
{
    if (str) clean(str, " \f\n\r\t\v");
}

// The facade through which the management plane and the hot-swap path drive
// the module's three daemons (store, virtual manager, manager): joining a
// management group, starting and stopping the daemons in order with their
// run-time arguments, and leaving the group again. One object, `ondraIf`,
// serves the program.
//
// Every command returns 0 or -1 and carries its input in `buffer` on entry
// and a sentence or reply in it on exit. The commands are serialised by their
// caller; only getRun, processStart and processStop on the store also come
// from the hot-swap thread, and they end in the process's own lock.
#pragma once

#include <cstdint>

#include "tavutils/tavstring.h"

class TavOndraProcess;
class TavOndraComm;
struct TavModParam;

// Logs the current error and, for ENOMEM and ENOSPC, ends the program with the
// error as its status (the module's supervisor starts it anew).
void tavOndraErrno(int errNumber);
// Removes blanks, form feeds, newlines, carriage returns and tabs; null does nothing.
void tavOndraStripWhiteSpace(char* str);
// Host order to wire order: the wire is the host's own little-endian order.
inline uint64_t tav_htorn64(uint64_t v) { return v; }
inline uint32_t tav_htorn32(uint32_t v) { return v; }
inline uint16_t tav_htorn16(uint16_t v) { return v; }

// One row of a key table that offers these commands to the management plane.
struct tavOndraRegisterKey {
    const char* keyName;
    int keyId;
    int (*cback)(TavModParam* param, int keyId, int action, void* session);
    int type;
    void* instance;
};

class TavOndraInterface {
public:
    TavOndraInterface();
    ~TavOndraInterface();
    TavOndraInterface(const TavOndraInterface&) = delete;
    TavOndraInterface& operator=(const TavOndraInterface&) = delete;

    // Start-up: the process table, strays killed, the address and RAID level
    // stored, then startManagerComm.
    int initModData(TavString& buffer, TavString& devIface, TavString& devRaidLevel);
    // Starts what may run: nothing before a join, the store only while the
    // RAID runs and the required NVRAM cards are normal.
    int startManagerComm();

    // "store/systemid"; "store/systemid/manager/first|not_first";
    // "store/systemid/manager/md5".
    int join(TavString& buffer);
    int storeStart(TavString& buffer);
    int managerStart(TavString& buffer);
    int virtualmanagerStart(TavString& buffer);
    int managerStop(TavString& buffer);
    int virtualmanagerStop(TavString& buffer);
    int removeFromSystem(TavString& buffer);

    int processStart(TavString& buffer, int state, int type);
    int processStop(TavString& buffer, int type);
    int processCycle(TavString& buffer, int type);
    int processShutdown(TavString& buffer, int type);
    int updateArgs(TavString& buffer, int type);
    int addArgs(TavString& buffer, int type);
    int deleteArgs(TavString& buffer, int type);
    int getArgs(TavString& buffer, int type);
    // "TRUE" when the process of `type` runs, else "FALSE".
    int getRun(TavString& buffer, int type);

    int getPort(TavString& buffer);
    int getSystemId(TavString& buffer);
    int setSystemId(TavString& buffer);
    int getMd5(TavString& buffer);
    int getVmgrConfigured(TavString& buffer);
    int getUnixDomain(TavString& buffer);
    int readUdpArgs(TavString& buffer);
    int writeUdpArgs(TavString& buffer);
    int writeIfaceIpAddress(TavString& buffer);
    int writeRaidLevel(TavString& raidLevel);
    // The dotted address of interface `iface` into ifIpAddress: 0, or -1.
    int resolveIfaceName(const TavString& iface, TavString& ifIpAddress);
    bool devExists(const char* device);
    int isManagerCommStarted() const { return bManagerCommStarted; }
    void closeSockets();
    // The run-time argument text of `type` in run state `state`, into buffer.
    int runTimeArgs(TavString& buffer, int state, int type);

    // The process of `type`, null before initModData (or for a bad type).
    TavOndraProcess* process(int type) const;

    int bManagerCommStarted;
    TavOndraProcess* tavOndraProcs;
    TavOndraComm* tavOndraComm;

private:
    // The process of `type`, or null with the log and the sentence in buffer.
    TavOndraProcess* checked(TavString& buffer, int type, int line);
    // Splits the copy of a start command and sets the fields of `type`: 0 or -1.
    int takeStartTokens(TavString& buffer, const TavString& text, int type);
    // Runs Init and then Daemon of a manager type after a join.
    int startManagerType(TavString& buffer, int type);
    int stopManagerType(TavString& buffer, int type);
    int restartDaemon(TavString& buffer, TavOndraProcess& p, int type, const char* extra);
    int changeDaemonArgs(TavString& buffer, int type, int (TavOndraProcess::*change)(TavString&, TavString&));
};

extern TavOndraInterface ondraIf;

// The switchboard of the management plane: listeners register keys, a
// command names a key, and every listener whose key is a prefix of the
// command's key answers, as far as the user's grants allow.
#pragma once

#include <string>

#include "tavutils/tavkeymode.h"
#include "tavutils/tavtree.h"
#include "tavutils/tavvectorp.h"

class TavModParam;
class TAVCommand;

// Listener action bits.
enum {
    LISTEN_COMMIT = 1,
    LISTEN_SET = 2,
    LISTEN_GET = 4,
    LISTEN_ADD = 8,
    LISTEN_DEL = 16,
};

// Key ids of the registry's own keys.
enum {
    TAVKEYREG_COUNT = 4096,
    TAVKEYREG_ITEM = 4097,
    TAVKEYREG_NOPERM = 4098,
};

// 0 for success.
typedef int (*module_callback)(TavModParam* param, int keyId, int action, void* session);

class TavKeyHolder {
public:
    TavKeyHolder(const char* key, int keyId, int action, module_callback callback, void* sessionData);
    TavKeyHolder(const TavKeyHolder&) = delete;
    TavKeyHolder& operator=(const TavKeyHolder&) = delete;
    virtual ~TavKeyHolder();

    void setMode(TavCmd mode) { keyMode->setMode(mode); }
    const char* getKey() const { return keyMode->getKey(); }
    TavCmd getMode() const { return keyMode->getMode(); }
    // The listener takes action, and with checkMode the merged mode holds mode.
    bool shouldCall(TavCmd mode, int action, bool checkMode) const;

    TavKeyMode* keyMode;
    int iKeyId;
    int iAction;
    module_callback modCB;
    void* pvSessionData;
};

struct STRUCT_SECURITY_LIST {
    char pcKey[1025];
    char pcDescription[1025];
    int iModifier;
};

constexpr int NUM_BANNED_KEYS = 2;
extern const char l_banned[NUM_BANNED_KEYS][255];

// False when the key contains a banned text: such keys never reach the log.
bool isAllowed(const char* key);

class TAVKeyRegistry {
public:
    TAVKeyRegistry();
    TAVKeyRegistry(const TAVKeyRegistry&) = delete;
    TAVKeyRegistry& operator=(const TAVKeyRegistry&) = delete;
    virtual ~TAVKeyRegistry();

    // 0; -4 for a null key; -3 for a second LISTEN_GET holder of the key.
    int Add(const char* key, int keyId, int action, module_callback callback, void* sessionData);
    bool Exists(const char* key, int action) const;
    void Clear();
    // 0, or -4 when a text is null. The modifier is not kept.
    int AddSecurityKey(const char* key, const char* description, int modifier);
    // 0; -1 for a null key or a key of no segment, which adds nothing.
    int AddUserSecurityKey(const char* key, TavCmd mode);
    int MergeKeys();
    // Takes out the holders and security entries added after there were
    // `keyCount` and `secCount` of them, merged references included: what a
    // module registered before it was refused and unloaded.
    void RemoveSince(int keyCount, int secCount);

    int GetSecurityEntCount() const { return sec->size(); }
    const char* GetSecurityEntKey(int index) const;
    const char* GetSecurityEntDescription(int index) const;

    int Dispatch(TAVCommand* command);
    int KeySet(TAVCommand* command, int action);
    int KeySet(TAVCommand* command, int action, TavVectorP<TavKeyHolder>* vector, bool checkMode);
    int KeyGet(TAVCommand* command, int action);
    int KeyGet(TAVCommand* command, int action, TavVectorP<TavKeyHolder>* vector, bool checkMode, bool trace);
    // Past the user's grants, for the system's own use.
    int KeyGetAll(TAVCommand* command, int action);
    int KeyCommit(TAVCommand* command);

    // Registrations, and those live for the current user.
    int GetKeyCount() const { return key->size(); }
    int GetMergedKeyCount() const { return mergedkey->size(); }
    TavKeyHolder* GetMergedKey(int index) const { return (*mergedkey)[index]; }

private:
    int callListener(TAVCommand* command, TavKeyHolder* holder, const char* key, const char* value, int action,
                     std::string* reply = nullptr);
    // The second walk when no listener answered: permission or absence.
    int refuse(TAVCommand* command, TavVectorP<TavKeyHolder>* vector);

    TavVectorP<TavKeyHolder>* key;
    TavVectorP<TavKeyHolder>* mergedkey;
    TavVectorP<STRUCT_SECURITY_LIST>* sec;
    TavTree* usersec;
    int iSecurityKeyCount;
};

// The callback of the registry's own keys; instance is the registry.
int tav_gethandler(TavModParam* param, int keyId, int action, void* instance);

// A session: what a management client is attached to. It owns the key
// registry, lets modules register keys in it, and answers commands.
#pragma once

#include "corvaneutils/tavcommand.h"
#include "corvaneutils/tavkeyregistry.h"
#include "tavutils/tav_cryptokey.h"

class TAVModule;

struct CORE_EXPORT_STRUCT {
    char* cpKey;
    int szKeyLength;
    char* cpValue;
    int szValueLength;
    unsigned long ulOptions;
};

struct CORE_CALLBACK_STRUCT {
    char* pcKey;
    char* pcValue;
    int iKeyId;
    int iCallbackFlags;
    void* pvInstance;
    char* pcErrorMessage;
};

// The face that a module or the host shows to the others.
class TAVExport {
public:
    virtual int Import(CORE_EXPORT_STRUCT* data) = 0;
    virtual int Export(CORE_EXPORT_STRUCT* data) = 0;
    virtual ~TAVExport();
};

// The face that a session shows to its modules.
class TAVListener {
public:
    virtual int RegisterListener(const char* key, int keyId, module_callback callback, int action,
                                 void* sessionData) = 0;
    virtual int RegisterSecurity(const char* key, const char* description, int modifier) = 0;
    // The third slot, which has no name and no body in the modules' view of a
    // session: kept so that the slots after it stay in place. Does nothing.
    virtual int ReservedSlot();
    virtual char* processLocalCorvaneKey(const char* keyStr, char* returnBuff, int buffSize) = 0;
    virtual ~TAVListener();
};

// What a module gets at its opening.
struct system_funcs {
    unsigned int iStructSize;
    int iStructVersion;
    TAVListener* session;
    TAVExport* global;
};

class TAVSession : public TAVListener {
public:
    static constexpr int kModuleSlots = 101;
    static constexpr int kPathSize = 4096;

    // Builds without loading modules; the path is "./modules".
    TAVSession();
    // Builds and loads the modules of "./modules"; `verify` as loadModules.
    TAVSession(TAVExport* globalExport, int verify);
    TAVSession(const TAVSession&) = delete;
    TAVSession& operator=(const TAVSession&) = delete;
    ~TAVSession() override;

    // Loads every "*.module" of `path` (null: "./modules"), with their
    // signatures checked unless `verify` is 0; 1 if the listing failed.
    int loadModules(const char* path, int verify);
    // The result of TAVModule::Open; a module that fails is deleted.
    int loadModule(const char* name, int verify);
    int unloadModules();
    // Reads the maker's and the vendor's keys when `verify` is 1.
    void initCryptoKeys(int verify);

    void setpModulePath(const char* path);
    const char* getpModulePath() const { return pModulePath; }
    void setCpGlobalExport(TAVExport* globalExport);

    // The registry's Add, with action and callback in its order.
    int RegisterListener(const char* key, int keyId, module_callback callback, int action, void* sessionData) override;
    int RegisterSecurity(const char* key, const char* description, int modifier) override;
    // A local user may get every public key; another user gets what the
    // answer of "/tav/public/security/admin/user/access-int/<uname>/" grants.
    int RegisterUser(const char* uname, bool localUser);

    // -1 for a null command, else the registry's Dispatch.
    int HandleMessage(TAVCommand* command);
    // -1 for a null command, else KeyGetAll: past the user's grants.
    int HandleAllMessage(TAVCommand* command, int action);
    int HandleAllMessage(TAVCommand* command);

    // Asks any key without security; the reply, or a note, lands in
    // returnBuff, terminated within buffSize. Returns returnBuff.
    char* processLocalCorvaneKey(const char* keyStr, char* returnBuff, int buffSize) override;

    TAVKeyRegistry& getKeyRegistry() { return keyregistry; }
    int getModuleCount() const { return iModuleCount; }
    TAVModule* getModule(int index) const
    {
        return index >= 0 && index < kModuleSlots ? module[index] : nullptr;
    }

private:
    int iModuleCount;
    TAVModule* module[kModuleSlots];
    TAVKeyRegistry keyregistry;
    char pModulePath[kPathSize];
    system_funcs sys_funcs;
    TAVExport* CpGlobalExport;
    tav_cryptoKey tavKey;     // the maker's
    tav_cryptoKey vendorKey;  // the one known vendor's public key
};

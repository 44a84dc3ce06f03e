// Signed management modules: the check of a module file's signatures and
// version, and the module object's tables.
#pragma once

#include "corvaneutils/tavsession.h"
#include "tavutils/tav_cryptokey.h"

// What a module fills in at its opening. The sizes the modules check are
// those of the 32-bit machine they were first built for (28 here, 16 for
// system_funcs), not sizeof on this host.
struct module_funcs {
    unsigned int iStructSize;
    int iStructVersion;
    char* pModuleName;
    char* pModuleVendor;
    char* pModuleVersion;
    void* private_data;
    int iPrivateDataSize;
};

constexpr unsigned int kModuleFuncsSize = 28;
constexpr unsigned int kSystemFuncsSize = 16;

struct TAVMODULE_ERROR_TABLE {
    int iErrorCode;
    char pcErrorMessage[255];
};

extern const TAVMODULE_ERROR_TABLE tavmodule_errors[5];

// The vendor key of a module whose data signature and key signature both
// verify (the latter under `tavKey`, the maker's key), as a new key; null
// otherwise, with the reason logged.
tav_cryptoKey* checkModule(const char* name, tav_cryptoKey* tavKey);

// 0 if `version` is 6.5.x, or at least what "./configs/etc/sysconfig/module_versions"
// requires of "vendor.name"; -1 otherwise, logged.
int checkVersion(const char* version, const char* vendor, const char* name);

class TAVModule : public TAVExport {
public:
    explicit TAVModule(TAVExport* globalExport);
    // Closes the module, no more.
    ~TAVModule() override;
    TAVModule(const TAVModule&) = delete;
    TAVModule& operator=(const TAVModule&) = delete;

    // Verifies (`verify` non-zero) or finds certified before (`verify` 0),
    // loads, and opens the module's session; a code of the table, or the
    // version check's -1.
    int Open(const char* name, system_funcs* sysFuncs, int verify, tav_cryptoKey* tavKey, tav_cryptoKey* vendorKey);
    // Closes the module's session and unloads it; 0.
    int Close();

    // True if a module of this very file name has passed Open before.
    static bool isCertified(const char* name);

    // 0 if the module is signed by a key equal to `vendorKey`, which the
    // maker's `tavKey` has signed; -4 otherwise.
    int CheckSignature(const char* name, tav_cryptoKey* tavKey, tav_cryptoKey* vendorKey);

    // 0 the file name, 1 to 3 the module's name, vendor and version.
    const char* GetInfo(int index) const;
    // The text of a code of the table, or null.
    const char* GetError(int code) const;
    const char* GetExtendedError() const { return error; }

    // Handed on to the global export; -1 without one.
    int Import(CORE_EXPORT_STRUCT* data) override;
    int Export(CORE_EXPORT_STRUCT* data) override;

private:
    // A module's two exported functions. CloseSession's result is not used;
    // modules declare it int, as OpenSession.
    typedef int (*OpenSessionFn)(module_funcs*, system_funcs*);
    typedef int (*CloseSessionFn)(module_funcs*);

    void* handle;
    char* error;
    module_funcs my_funcs;
    char pModule[513];
    OpenSessionFn OpenSession;
    CloseSessionFn CloseSession;
    TAVExport* CpGlobalExport;
};

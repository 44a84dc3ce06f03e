#include "corvaneutils/tavmodule.h"

#include <climits>
#include <dlfcn.h>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "platform/platform.h"
#include "tavstring/tavstrtokenize.h"
#include "tavutils/tav_cryptohash.h"
#include "tavutils/tav_elf.h"
#include "tavutils/tav_error.h"

static int giDebug_tavmodule = 0;
#define TAV_DEBUG_FLAG giDebug_tavmodule
#include "driveutils/tavlog.h"

const TAVMODULE_ERROR_TABLE tavmodule_errors[5] = {
    {0, "No Error."},
    {-1, "Could not load dynamic module."},
    {-2, "Module is missing a required function."},
    {-3, "Could not unload dynamic module."},
    {-4, "Module has an invalid signature."},
};

namespace {

constexpr int kMajor = 6;
constexpr int kMinor = 5;
constexpr size_t kBlock = 1024;
constexpr const char* kVersionsFile = "./configs/etc/sysconfig/module_versions";

struct FileCloser {
    FILE* f;
    ~FileCloser() { std::fclose(f); }
};

// One "%d" of sscanf: blanks, a sign, digits. Saturates where sscanf's
// overflow would be undefined.
bool scanInt(const char*& p, int& out)
{
    const char* s = p;
    while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
    bool negative = *s == '-';
    if (*s == '-' || *s == '+') ++s;
    if (*s < '0' || *s > '9') return false;
    long long value = 0;
    for (; *s >= '0' && *s <= '9'; ++s)
        if (value <= INT_MAX) value = value * 10 + (*s - '0');
    if (negative) value = -value;
    out = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    p = s;
    return true;
}

// "%d.%d.%d": numbers not reached stay as they were.
void scanVersion(const char* text, int numbers[3])
{
    const char* p = text;
    for (int i = 0; i < 3; ++i) {
        if (i > 0 && *p++ != '.') return;
        if (!scanInt(p, numbers[i])) return;
    }
}

bool atLeast(const int have[3], const int want[3])
{
    for (int i = 0; i < 3; ++i)
        if (have[i] != want[i]) return have[i] > want[i];
    return true;
}

// The digest of the ELF data: whole 1024-byte blocks at every update; the
// last one keeps, behind its new bytes, the tail of the block before (zeros
// when there is none), as the modules in the field were signed.
void hashData(FILE* file, unsigned int size, tav_cryptoHash& hash)
{
    unsigned char block[kBlock] = {};
    for (unsigned int done = 0; done < size;) {
        size_t n = size - done < kBlock ? size - done : kBlock;
        // A short read of the data has no text of its own: it is one of the readers'.
        if (std::fread(block, n, 1, file) != 1) throw tav_error("fread of elf data failed");
        hash.update(block, kBlock);
        done += static_cast<unsigned int>(n);
    }
}

} // namespace

tav_cryptoKey* checkModule(const char* name, tav_cryptoKey* tavKey)
{
    tav_cryptoKey unread;  // no maker's key: no key signature verifies
    if (!tavKey) tavKey = &unread;
    try {
        tav_elf elf;
        elf.init(name);
        if (!elf.isElfFormat()) {
            TAV_LOG(0, "ERROR:  %s is not Elf Format\n", name);
            return nullptr;
        }
        if (!elf.isSharedObject()) {
            TAV_LOG(0, "ERROR:  %s is not SharedObject\n", name);
            return nullptr;
        }
        struct ::stat st;
        if (plat::stat(name, &st) != 0) {
            TAV_LOG(0, "ERROR:  stat failed on %s\n", name);
            return nullptr;
        }
        const int data = static_cast<int>(elf.size());
        const int fileSize = static_cast<int>(st.st_size);
        if (static_cast<off_t>(elf.size()) == st.st_size) {
            TAV_LOG(0, "ERROR:  elf data:%d == file size:%d => can't be signed\n", data, fileSize);
            return nullptr;
        }
        if (static_cast<off_t>(elf.size()) > st.st_size) {
            TAV_LOG(0, "ERROR:  elf data:%d < file size:%d => don't know what to do\n", data, fileSize);
            return nullptr;
        }
        // Worded the wrong way round, as it always was.
        TAV_LOG(0, "elf data:%d >  file size:%d => %s\n", data, fileSize, name);

        FILE* file = plat::fopen(name, "r");
        if (!file) {
            TAV_LOG(0, "ERROR:  can't open %s for reading\n", name);
            return nullptr;
        }
        FileCloser closer{file};
        tav_cryptoHash hash;
        hashData(file, elf.size(), hash);
        unsigned char digest[20];
        hash.final(digest, sizeof digest);
        TAV_LOG(51, "messageDigest:\n\t");
        for (unsigned char byte : digest) TAV_LOG(51, "%x", byte);

        auto key = std::make_unique<tav_cryptoKey>();
        key->readSignature(file);
        key->readDecoderKey(file);
        tavKey->readSignature(file);

        if (key->verify(digest, sizeof digest) != 1) {
            TAV_LOG(0, "ERROR:  data signature isn't valid\n");
            return nullptr;
        }
        TAV_LOG(0, "data signature is valid\n");

        std::vector<unsigned char> decoder(key->decoderKeySize());
        key->writeDecoderKey(decoder.data(), static_cast<unsigned int>(decoder.size()));
        TAV_LOG(0, "decoderkey size:%d\n", static_cast<int>(decoder.size()));
        hash.update(decoder.data(), static_cast<unsigned int>(decoder.size()));
        hash.final(digest, sizeof digest);
        if (tavKey->verify(digest, sizeof digest) != 1) {
            TAV_LOG(0, "ERROR:  key signature isn't valid\n");
            return nullptr;
        }
        TAV_LOG(0, "key signature is valid\n");
        return key.release();
    } catch (const tav_error& e) {
        TAV_LOG(0, "ERROR:  %s\n", e.getMsg() ? e.getMsg() : "");
    }
    return nullptr;
}

int checkVersion(const char* version, const char* vendor, const char* name)
{
    if (!version) {
        TAV_LOG(0, "WARNING: version not supplied, should be <%d.%d.x>\n", kMajor, kMinor);
        return -1;
    }
    int have[3] = {-1, -1, -1};
    scanVersion(version, have);
    if (have[0] == kMajor && have[1] == kMinor) return 0;

    // Without a line for the module, 6.5 is required with any third number.
    int want[3] = {kMajor, kMinor, -1};
    bool passed = false;
    FILE* file = vendor && name ? plat::fopen(kVersionsFile, "r") : nullptr;
    if (file) {
        FileCloser closer{file};
        const std::string wanted = std::string(vendor) + "." + name;
        char line[1024];
        // The first line of the module decides; a longer line is read in pieces.
        while (std::fgets(line, sizeof line, file)) {
            char* state = nullptr;
            char* first = tavStrTok_r(line, ":", &state);
            if (!first || wanted != first) continue;
            want[0] = want[1] = want[2] = -1;
            if (state) scanVersion(state, want);
            passed = atLeast(have, want);
            break;
        }
    }
    if (passed) return 0;
    if (want[2] < 0)
        TAV_LOG(0, "WARNING: version <%s> should be <%d.%d.x>\n", version, want[0], want[1]);
    else
        TAV_LOG(0, "WARNING: version <%s> should be <%d.%d.%d>\n", version, want[0], want[1], want[2]);
    return -1;
}

namespace {

// The modules that passed, by file name. Kept as names rather than pointers
// to the modules, which are deleted while the list lives on; the answer of
// isCertified is the same. No lock: sessions load modules one at a time.
std::vector<std::string>& certified()
{
    static std::vector<std::string>* names = new std::vector<std::string>;
    return *names;
}

const char* orNull(const char* text) { return text ? text : "(null)"; }

} // namespace

TAVModule::TAVModule(TAVExport* globalExport)
    : handle(nullptr), error(nullptr), my_funcs{}, pModule{}, OpenSession(nullptr), CloseSession(nullptr),
      CpGlobalExport(globalExport)
{
}

TAVModule::~TAVModule() { Close(); }

bool TAVModule::isCertified(const char* name)
{
    if (!name) return false;
    for (const std::string& passed : certified())
        if (passed == name) return true;
    return false;
}

int TAVModule::Open(const char* name, system_funcs* sysFuncs, int verify, tav_cryptoKey* tavKey,
                    tav_cryptoKey* vendorKey)
{
    if (!name || !sysFuncs) {
        TAV_LOG(0, "Received NULL parameters to TAVModule :: Open()");
        return -4;
    }
    handle = nullptr;
    std::strncpy(pModule, name, sizeof pModule - 1);
    pModule[sizeof pModule - 1] = '\0';
    sysFuncs->global = this;

    if (verify == 0) {
        if (!isCertified(name)) return -4;
    } else if (CheckSignature(name, tavKey, vendorKey) != 0) {
        TAV_LOG(0, "ERROR:  Module signature failed to verify\n");
        return -4;
    }

    TAV_LOG(0, "Loading... %s\n", name);
    handle = plat::dlopen(name, RTLD_NOW);
    error = plat::dlerror();
    if (!handle) {
        TAV_LOG(0, "LOADER ERROR: %s\n", orNull(error));
        return -1;
    }
    // Both functions or neither: without CloseSession there is nothing to
    // close the session with, so the object is only unloaded.
    OpenSession = reinterpret_cast<OpenSessionFn>(plat::dlsym(handle, "OpenSession"));
    if (OpenSession) CloseSession = reinterpret_cast<CloseSessionFn>(plat::dlsym(handle, "CloseSession"));
    if (!OpenSession || !CloseSession) {
        error = plat::dlerror();
        TAV_LOG(0, "LOADER ERROR: %s\n", orNull(error));
        plat::dlclose(handle);
        handle = nullptr;
        OpenSession = nullptr;
        CloseSession = nullptr;
        return -2;
    }

    my_funcs.iStructVersion = 1;
    my_funcs.iStructSize = kModuleFuncsSize;
    if (OpenSession(&my_funcs, sysFuncs) != 0) {
        TAV_LOG(0, "LOADER ERROR: Module Refused to Load\n");
        Close();
        return -1;
    }
    if (my_funcs.iStructVersion != 1 && my_funcs.iStructSize != kModuleFuncsSize) {
        TAV_LOG(0, "WARNING: Open Session Returned Structure Mismatch:\n");
        TAV_LOG(0, "     Struct_Version: %i ( Should Be: %i )\n", my_funcs.iStructVersion, 1);
        TAV_LOG(0, "     Struct_Size:    %i ( Should Be: %i )\n", static_cast<int>(my_funcs.iStructSize),
                static_cast<int>(kModuleFuncsSize));
    }
    if (verify == 0) return isCertified(name) ? 0 : -1;

    int rc = checkVersion(my_funcs.pModuleVersion, my_funcs.pModuleVendor, my_funcs.pModuleName);
    if (rc == 0) {
        if (!isCertified(pModule)) certified().push_back(pModule);
        return 0;
    }
    TAV_LOG(0, "WARNING: bad version, module %s %s:%d\n", orNull(my_funcs.pModuleVendor),
            orNull(my_funcs.pModuleName), rc);
    return rc;
}

int TAVModule::Close()
{
    if (!handle) {
        TAV_LOG(0, "LOADER: Closing Module handle NOT Necessary [%s]\n", pModule);
        return 0;
    }
    TAV_LOG(0, "LOADER: Closing Module handle [%s]\n", pModule);
    if (CloseSession) CloseSession(&my_funcs);
    TAV_LOG(0, "LOADER: ClosedSession Module handle [%s]\n", pModule);
    plat::dlclose(handle);
    handle = nullptr;
    return 0;
}

int TAVModule::CheckSignature(const char* name, tav_cryptoKey* tavKey, tav_cryptoKey* vendorKey)
{
    if (!name) return -4;
    try {
        std::unique_ptr<tav_cryptoKey> key(checkModule(name, tavKey));
        if (!key) {
            TAV_LOG(0, "Warning: Module %s is NOT certified\n", name);
            return -4;
        }
        if (vendorKey && *key == *vendorKey) {
            TAV_LOG(0, "Module %s is certified\n", name);
            return 0;
        }
        TAV_LOG(0, "Warning: Key for Module %s is unknown\n", name);
    } catch (const tav_error& e) {
        TAV_LOG(0, "Warning: %s\n", e.getMsg() ? e.getMsg() : "");
    }
    return -4;
}

const char* TAVModule::GetInfo(int index) const
{
    switch (index) {
    case 0: return pModule;
    case 1: return my_funcs.pModuleName;
    case 2: return my_funcs.pModuleVendor;
    case 3: return my_funcs.pModuleVersion;
    default: return "No Such Key";
    }
}

const char* TAVModule::GetError(int code) const
{
    for (const auto& row : tavmodule_errors)
        if (row.iErrorCode == code) return row.pcErrorMessage;
    return nullptr;
}

int TAVModule::Import(CORE_EXPORT_STRUCT* data) { return CpGlobalExport ? CpGlobalExport->Import(data) : -1; }

int TAVModule::Export(CORE_EXPORT_STRUCT* data) { return CpGlobalExport ? CpGlobalExport->Export(data) : -1; }

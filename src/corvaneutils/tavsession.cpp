#include "corvaneutils/tavsession.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "corvaneutils/tav_msg.h"
#include "corvaneutils/tavmodule.h"
#include "platform/platform.h"
#include "tavstring/tavstrtokenize.h"
#include "tavutils/tav_error.h"

static int giDebug_tavsession = 0;
#define TAV_DEBUG_FLAG giDebug_tavsession
#include "driveutils/tavlog.h"

TAVExport::~TAVExport() = default;

TAVListener::~TAVListener() = default;

int TAVListener::ReservedSlot() { return 0; }

TAVSession::TAVSession() : iModuleCount(0), module{}, pModulePath{}, sys_funcs{}, CpGlobalExport(nullptr)
{
    sys_funcs.session = this;
    setpModulePath("./modules");
}

TAVSession::TAVSession(TAVExport* globalExport, int verify)
    : iModuleCount(0), module{}, pModulePath{}, sys_funcs{}, CpGlobalExport(globalExport)
{
    TAV_LOG(0, "Load Session....\n");
    sys_funcs.session = this;
    sys_funcs.global = globalExport;
    TAV_LOG(0, "Load Session....Modules\n");
    setpModulePath("./modules");
    loadModules("./modules", verify);
}

TAVSession::~TAVSession()
{
    if (unloadModules() != 0) TAV_LOG(0, "WARNING: TAVSession->unloadModules in ~TAVSession FAILED\n");
}

void TAVSession::initCryptoKeys(int verify)
{
    if (verify != 1) return;
    static const char* const keyFile = "./configs/etc/marrowby/module_keys";
    FILE* keys = plat::fopen(keyFile, "r");
    if (!keys) {
        TAV_LOG(0, "Warning: key file %s can't be opened to read\n", keyFile);
        return;
    }
    // A short or garbled file leaves a key unread, or of numbers that verify
    // nothing: every module then fails its check, and the session goes on.
    try {
        tavKey.readBothKeys(keys);
        vendorKey.readDecoderKey(keys);
    } catch (const tav_error& e) {
        TAV_LOG(0, "ERROR:  %s\n", e.getMsg() ? e.getMsg() : "");
    }
    std::fclose(keys);
}

int TAVSession::loadModules(const char* path, int verify)
{
    setpModulePath(path ? path : "./modules");
    initCryptoKeys(verify);
    const std::string command = std::string("ls ") + pModulePath + "/*.module";
    FILE* listing = plat::popen(command.c_str(), "r");
    if (!listing) return 1;
    iModuleCount = 0;
    char line[kPathSize];
    while (std::fgets(line, sizeof line, listing)) {
        line[std::strcspn(line, "\n")] = '\0';
        TAV_LOG(0, "About to open: %s\n", line);
        if (iModuleCount >= kModuleSlots - 1) {
            TAV_LOG(0, "Failed to open: %s : Out of Memory\n", line);
            continue;
        }
        try {
            loadModule(line, verify);
        } catch (...) {
            TAV_LOG(0, "WARNING: TAVModule threw an unhandled exception\n");
        }
    }
    plat::pclose(listing);
    keyregistry.AddUserSecurityKey("/tav/public/security/admin/user/access-int/", TavCmd::GET);
    keyregistry.MergeKeys();
    return 0;
}

int TAVSession::loadModule(const char* name, int verify)
{
    sys_funcs.iStructSize = kSystemFuncsSize;
    sys_funcs.iStructVersion = 1;
    const int keys = keyregistry.GetKeyCount();
    const int security = keyregistry.GetSecurityEntCount();
    TAVModule* loaded = new TAVModule(CpGlobalExport);
    module[iModuleCount] = loaded;
    int rc = loaded->Open(name, &sys_funcs, verify, &tavKey, &vendorKey);
    if (rc == 0) {
        TAV_LOG(0, "Module: %s\r\n", name);
        if (loaded->GetInfo(1)) TAV_LOG(0, "  Name:    %s\r\n", loaded->GetInfo(1));
        if (loaded->GetInfo(2)) TAV_LOG(0, "  Vendor:  %s\r\n", loaded->GetInfo(2));
        if (loaded->GetInfo(3)) TAV_LOG(0, "  Version: %s\r\n", loaded->GetInfo(3));
        ++iModuleCount;
        return 0;
    }
    // Its listeners would call into unloaded code: they leave with it.
    keyregistry.RemoveSince(keys, security);
    delete loaded;
    module[iModuleCount] = nullptr;
    TAV_LOG(0, "WARNING: Failed to load module %s:%i\n", name, rc);
    return rc;
}

int TAVSession::unloadModules()
{
    TAV_LOG(0, "TAVSession :: unloadModules()\n");
    for (int i = kModuleSlots - 2; i >= 0; --i) {
        if (!module[i]) continue;
        TAV_LOG(0, "TAVSession :: delete module[%i]\n", i);
        delete module[i];
        module[i] = nullptr;
    }
    iModuleCount = 0;
    keyregistry.Clear();
    return 0;
}

void TAVSession::setpModulePath(const char* path)
{
    if (!path) return;
    snprintf(pModulePath, sizeof pModulePath, "%s", path);   // truncates silently
}

void TAVSession::setCpGlobalExport(TAVExport* globalExport)
{
    CpGlobalExport = globalExport;
    sys_funcs.global = globalExport;
}

int TAVSession::RegisterListener(const char* key, int keyId, module_callback callback, int action, void* sessionData)
{
    return keyregistry.Add(key, keyId, action, callback, sessionData);
}

int TAVSession::RegisterSecurity(const char* key, const char* description, int modifier)
{
    return keyregistry.AddSecurityKey(key, description, modifier);
}

namespace {

// A decimal mode of a grant reply, saturating instead of overflowing.
TavCmd parseMode(const char* text)
{
    long long value = std::strtoll(text, nullptr, 10);
    if (value > INT_MAX) value = INT_MAX;
    if (value < INT_MIN) value = INT_MIN;
    return TavCmd(static_cast<unsigned int>(static_cast<int>(value)));
}

} // namespace

int TAVSession::RegisterUser(const char* uname, bool localUser)
{
    if (localUser) {
        keyregistry.AddUserSecurityKey("/tav/public/", TavCmd(1));
        keyregistry.MergeKeys();
        return 0;
    }
    std::string text = "get:/tav/public/security/admin/user/access-int/";
    text += uname ? uname : "";
    text += "/";
    auto* message = new tav_msg();
    message->SetData(text.size() + 1, text.c_str());
    auto* command = new TAVCommand(message);
    command->CheckSyntax();
    HandleMessage(command);
    if (command->GetReturnCount() == 1) {
        // The reply need not end in a terminator: only its size is read.
        std::string reply(command->GetReturnValue(0), static_cast<size_t>(command->GetReturnValueSize(0)));
        reply.resize(std::strlen(reply.c_str()));
        char* state = nullptr;
        tavTokenize_r(reply.data(), ":", &state);   // the word "OK"
        for (;;) {
            char* grantKey = tavTokenize_r(nullptr, ":", &state);
            if (!grantKey) break;
            char* mode = tavTokenize_r(nullptr, ":", &state);
            if (!mode) break;   // a last key without its mode is ignored
            keyregistry.AddUserSecurityKey(grantKey, parseMode(mode));
        }
        keyregistry.MergeKeys();
    }
    delete command;
    return 0;
}

int TAVSession::HandleMessage(TAVCommand* command)
{
    if (!command) return -1;
    return keyregistry.Dispatch(command);
}

int TAVSession::HandleAllMessage(TAVCommand* command, int action)
{
    if (!command) return -1;
    return keyregistry.KeyGetAll(command, action);
}

int TAVSession::HandleAllMessage(TAVCommand* command) { return HandleAllMessage(command, LISTEN_GET); }

char* TAVSession::processLocalCorvaneKey(const char* keyStr, char* returnBuff, int buffSize)
{
    if (!returnBuff || buffSize < 1) return returnBuff;
    returnBuff[0] = '\0';
    const size_t size = static_cast<size_t>(buffSize);
    const char* shown = keyStr ? keyStr : "";
    TAVCommand command(keyStr);
    if (command.CheckSyntax() != 0) {
        snprintf(returnBuff, size, "SYNTAX FAILURE, key='%s'\n", shown);
        return returnBuff;
    }
    HandleAllMessage(&command, std::strstr(keyStr, "set:") ? LISTEN_SET : LISTEN_GET);
    int count = command.GetReturnCount();
    if (count == 0) {
        snprintf(returnBuff, size, "No Response, key='%s'\n", shown);
    } else if (count > 1) {
        snprintf(returnBuff, size, "Extended Response, key='%s'\n", shown);
    } else {
        // Within the reply's size and the buffer, and always terminated.
        size_t length = static_cast<size_t>(command.GetReturnValueSize(0));
        if (length > size - 1) length = size - 1;
        std::strncpy(returnBuff, command.GetReturnValue(0), length);
        returnBuff[length] = '\0';
    }
    return returnBuff;
}

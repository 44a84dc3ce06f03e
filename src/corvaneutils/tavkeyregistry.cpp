#include "corvaneutils/tavkeyregistry.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "corvaneutils/tavcommand.h"
#include "tavutils/tav_error.h"
#include "tavutils/tavkeymodenode.h"
#include "tavutils/tavmodparam.h"

static int giDebug_tavkeyregistry = 0;
#define TAV_DEBUG_FLAG giDebug_tavkeyregistry
#include "driveutils/tavlog.h"

// The per-command and per-key lines are trace; refusals and failures are
// always logged.
#define KEYREG_TRACE TAV_LOG_L5

const char l_banned[NUM_BANNED_KEYS][255] = {
    "global/security",
    "tav/private/security/admin",
};

bool isAllowed(const char* key)
{
    if (!key) return false;
    for (int i = 0; i < NUM_BANNED_KEYS; ++i)
        if (std::strstr(key, l_banned[i])) return false;
    return true;
}

namespace {

template <typename T, typename... Args>
T* make(Args&&... args)
{
    try {
        return new T(std::forward<Args>(args)...);
    } catch (...) {
        throw tav_enomem("new failed");
    }
}

void copyField(char* to, const char* from)
{
    size_t length = strnlen(from, 1023);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

} // namespace

TavKeyHolder::TavKeyHolder(const char* key, int keyId, int action, module_callback callback, void* sessionData)
    : keyMode(make<TavKeyMode>(key, TavCmd::NONE)), iKeyId(keyId), iAction(action), modCB(callback),
      pvSessionData(sessionData)
{
}

TavKeyHolder::~TavKeyHolder() { delete keyMode; }

bool TavKeyHolder::shouldCall(TavCmd mode, int action, bool checkMode) const
{
    if (checkMode && !getMode().has(mode)) return false;
    return (iAction & action) != 0;
}

TAVKeyRegistry::TAVKeyRegistry() : key(nullptr), mergedkey(nullptr), sec(nullptr), usersec(nullptr), iSecurityKeyCount(0)
{
    usersec = make<TavTree>(make<TavKeyModeNode>());
    key = make<TavVectorP<TavKeyHolder>>(100);
    mergedkey = make<TavVectorP<TavKeyHolder>>(100);
    sec = make<TavVectorP<STRUCT_SECURITY_LIST>>(100);

    if (AddUserSecurityKey("/global/", TavCmd::SET | TavCmd::GET | TavCmd::ADD | TavCmd::DEL) != 0)
        TAV_LOG(0, " AddUserSecurityKey(/global/,0) != 0 \n");
    if (AddUserSecurityKey("/noperm/", TavCmd::SET) != 0) TAV_LOG(0, " AddUserSecurityKey(/noperm/,0) != 0 \n");
    if (Add("/global/security/entries/count/", TAVKEYREG_COUNT, LISTEN_GET, &tav_gethandler, this) != 0)
        TAV_LOG(0, "Add(/global/security/entries/count/, TAVKEYREG_COUNT, LISTEN_GET, &tav_gethandler, this) != 0\n");
    if (Add("/global/security/entries/item/", TAVKEYREG_ITEM, LISTEN_GET, &tav_gethandler, this) != 0)
        TAV_LOG(0, "Add(/global/security/entries/item/, TAVKEYREG_ITEM, LISTEN_GET, &tav_gethandler, this) != 0\n");
    if (Add("/noperm/test/", TAVKEYREG_NOPERM, LISTEN_GET, &tav_gethandler, this) != 0)
        TAV_LOG(0, "Add(/noperm/test/, TAVKEYREG_NOPERM, LISTEN_GET, &tav_gethandler, this) != 0\n");
}

TAVKeyRegistry::~TAVKeyRegistry()
{
    for (int i = 0; i < key->size(); ++i) delete (*key)[i];
    for (int i = 0; i < sec->size(); ++i) delete (*sec)[i];
    delete key;
    delete mergedkey;
    delete sec;
    delete usersec;
}

int TAVKeyRegistry::Add(const char* keyText, int keyId, int action, module_callback callback, void* sessionData)
{
    if (!keyText) return -4;
    if ((action & LISTEN_GET) && Exists(keyText, LISTEN_GET)) return -3;
    key->add(make<TavKeyHolder>(keyText, keyId, action, callback, sessionData));
    return 0;
}

bool TAVKeyRegistry::Exists(const char* keyText, int action) const
{
    if (!keyText) return false;
    for (int i = 0; i < key->size(); ++i) {
        TavKeyHolder* holder = (*key)[i];
        if (holder->getKey() && std::strncmp(holder->getKey(), keyText, 500) == 0 && (holder->iAction & action))
            return true;
    }
    return false;
}

void TAVKeyRegistry::Clear()
{
    while (key->size() > 0) delete key->remove(key->size() - 1);
    while (mergedkey->size() > 0) mergedkey->remove(mergedkey->size() - 1);
    while (sec->size() > 0) delete sec->remove(sec->size() - 1);
    iSecurityKeyCount = 0;
    usersec->setRoot(make<TavKeyModeNode>());
}

void TAVKeyRegistry::RemoveSince(int keyCount, int secCount)
{
    while (key->size() > keyCount && key->size() > 0) {
        TavKeyHolder* holder = key->remove(key->size() - 1);
        for (int i = mergedkey->size() - 1; i >= 0; --i)
            if ((*mergedkey)[i] == holder) mergedkey->remove(i);
        delete holder;
    }
    while (sec->size() > secCount && sec->size() > 0) {
        delete sec->remove(sec->size() - 1);
        --iSecurityKeyCount;
    }
}

int TAVKeyRegistry::AddSecurityKey(const char* keyText, const char* description, int /*modifier*/)
{
    if (!keyText || !description) return -4;
    auto* entry = make<STRUCT_SECURITY_LIST>();
    copyField(entry->pcKey, keyText);
    copyField(entry->pcDescription, description);
    entry->iModifier = 0;
    sec->add(entry);
    ++iSecurityKeyCount;
    return 0;
}

const char* TAVKeyRegistry::GetSecurityEntKey(int index) const
{
    STRUCT_SECURITY_LIST* entry = (*sec)[index];
    return entry ? entry->pcKey : "NULL";
}

const char* TAVKeyRegistry::GetSecurityEntDescription(int index) const
{
    STRUCT_SECURITY_LIST* entry = (*sec)[index];
    return entry ? entry->pcDescription : "NULL";
}

int TAVKeyRegistry::AddUserSecurityKey(const char* keyText, TavCmd mode)
{
    if (!keyText) {
        TAV_LOG(0, "Did not add security key pcKey==NULL\n");
        return -1;
    }
    TavKeyMode grant(keyText, mode);
    // A key of no segment ("", "/", no leading slash) would give the tree a
    // null segment: it is refused and adds nothing.
    if (static_cast<TavKeyModeNode*>(usersec->getRoot())->addNode(&grant, 0) != 0) return -1;
    TAV_LOG(KEYREG_TRACE, "Added security key: [%s][%d]\n", keyText, static_cast<int>(mode.flags));
    return 0;
}

int TAVKeyRegistry::MergeKeys()
{
    for (int i = 0; i < key->size(); ++i) {
        TavKeyHolder* holder = (*key)[i];
        TAV_LOG(KEYREG_TRACE, "Check Acceptance:[%s][%d]\n", holder->getKey(), holder->iKeyId);
        TavKeyModeNode probe(holder->keyMode);
        TavVectorP<TavTreeNode>* path = usersec->getPath(&probe);
        TavCmd mode = TavCmd::NONE;
        for (int n = 0; path && n < path->size(); ++n) mode = mode | static_cast<TavKeyModeNode*>((*path)[n])->getMode();
        delete path;
        if (mode == TavCmd::NONE) {
            TAV_LOG(0, "Reject Key:[%s][%d]\n", holder->getKey(), holder->iKeyId);
            continue;
        }
        // Run twice, this adds a holder twice: kept, the unique list of
        // replies hides it.
        holder->setMode(mode);
        mergedkey->add(holder);
    }
    TAV_LOG(KEYREG_TRACE, "************************ Merging Keys!! *********************************\n");
    for (int i = 0; i < mergedkey->size(); ++i) {
        TavKeyHolder* holder = (*mergedkey)[i];
        TAV_LOG(KEYREG_TRACE, "Key Accepted:[%s][%d]\n", holder->getKey(), static_cast<int>(holder->getMode().flags));
    }
    TAV_LOG(KEYREG_TRACE, "************************ Merging Complete!! *********************************\n");
    return 0;
}

int TAVKeyRegistry::Dispatch(TAVCommand* command)
{
    if (!command) return -2;
    switch (command->GetCommand()) {
    case 0: KeyGet(command, LISTEN_GET); break;
    case 1: KeySet(command, LISTEN_SET); break;
    case 2: KeyCommit(command); break;
    case 3: KeySet(command, LISTEN_ADD); break;
    case 4: KeySet(command, LISTEN_DEL); break;
    default: command->AddReturnValue("FAILED: Functionality NOT Implemented"); break;
    }
    return 0;
}

int TAVKeyRegistry::KeyGet(TAVCommand* command, int action) { return KeyGet(command, action, mergedkey, true, true); }

int TAVKeyRegistry::KeySet(TAVCommand* command, int action) { return KeySet(command, action, mergedkey, true); }

int TAVKeyRegistry::KeyGetAll(TAVCommand* command, int action)
{
    if (action == LISTEN_GET) return KeyGet(command, LISTEN_GET, key, false, false);
    return KeySet(command, action, key, false);
}

int TAVKeyRegistry::callListener(TAVCommand* command, TavKeyHolder* holder, const char* keyText, const char* value,
                                 int action, std::string* replyOut)
{
    TavModParam param(keyText, value, 1024);
    int result = holder->modCB(&param, holder->iKeyId, action, holder->pvSessionData);
    const char* word = result == 0 ? "OK:" : "FAILED:";
    int used = 0;
    const char* message = param.getMessage(&used);
    // The word directly followed by the bytes in use, or by a terminator
    // when there are none.
    std::string reply(word);
    if (used > 0)
        reply.append(message, static_cast<size_t>(used));
    else
        reply.push_back('\0');
    command->AddReturnValue(reply.data(), static_cast<int>(reply.size()));
    if (replyOut) *replyOut = std::move(reply);
    return result;
}

int TAVKeyRegistry::refuse(TAVCommand* command, TavVectorP<TavKeyHolder>* vector)
{
    const char* commandKey = command->GetKey();
    for (int i = 0; i < vector->size(); ++i) {
        TavKeyHolder* holder = (*vector)[i];
        TAV_LOG(KEYREG_TRACE, "Checking: %s\n", holder->getKey());
        if (command->IsSubKey(holder->getKey())) {
            command->AddReturnValue("FAILED: Permission denied.");
            return -1;
        }
    }
    command->AddReturnValue("FAILED: attribute not available.");
    TAV_LOG(0, "SET FAILED: ATTR NA (%s)\n", commandKey ? commandKey : "");
    return -1;
}

int TAVKeyRegistry::KeyGet(TAVCommand* command, int action, TavVectorP<TavKeyHolder>* vector, bool checkMode,
                           bool trace)
{
    if (!command) return -2;
    if (!vector) return -1;
    const char* commandKey = command->GetKey();
    if (trace && isAllowed(commandKey)) TAV_LOG(KEYREG_TRACE, "Get:[%s]\n", commandKey);
    int result = 0;
    for (int i = 0; i < vector->size(); ++i) {
        TavKeyHolder* holder = (*vector)[i];
        if (!holder->modCB || !command->IsSubKey(holder->getKey())) continue;
        if (!holder->shouldCall(TavCmd::GET, action, checkMode)) continue;
        result = callListener(command, holder, commandKey, "", action);
    }
    if (command->GetReturnCount() == 0) return refuse(command, vector);
    return result;
}

int TAVKeyRegistry::KeySet(TAVCommand* command, int action, TavVectorP<TavKeyHolder>* vector, bool checkMode)
{
    if (!command) return -2;
    if (!vector) return -1;
    TavCmd needed = action == LISTEN_SET ? TavCmd::SET
                    : action == LISTEN_ADD ? TavCmd::ADD
                    : action == LISTEN_DEL ? TavCmd::DEL
                                           : TavCmd::NONE;
    const char* commandKey = command->GetKey();
    int result = 0;
    for (int i = 0; i < vector->size(); ++i) {
        TavKeyHolder* holder = (*vector)[i];
        TAV_LOG(KEYREG_TRACE, "Test: %s\n", holder->getKey());
        if (!holder->modCB || !command->IsSubKey(holder->getKey())) continue;
        if (!holder->shouldCall(needed, action, checkMode)) continue;
        // The listener gets the rest of the command's key as its value.
        const char* value = commandKey + std::strlen(holder->getKey());
        result = callListener(command, holder, commandKey, value, action);
    }
    if (command->GetReturnCount() == 0) return refuse(command, vector);
    return result;
}

int TAVKeyRegistry::KeyCommit(TAVCommand* command)
{
    if (!command) return -2;
    int result = 0;
    for (int i = 0; i < mergedkey->size(); ++i) {
        TavKeyHolder* holder = (*mergedkey)[i];
        if (!holder->modCB || !(holder->iAction & LISTEN_COMMIT)) continue;
        TAV_LOG(KEYREG_TRACE, "Committing %s\n", holder->getKey());
        std::string reply;
        result = callListener(command, holder, holder->getKey(), "", LISTEN_COMMIT, &reply);
        TAV_LOG(KEYREG_TRACE, "COMMIT RETURNED: %.*s\n", static_cast<int>(strnlen(reply.c_str(), reply.size())),
                reply.c_str());
    }
    return result;
}

namespace {

// "/global/security/entries/item/%i/" as sscanf read it, without its
// undefined overflow: the number saturates at the int range.
bool readItemIndex(const char* keyText, int* index)
{
    static const char prefix[] = "/global/security/entries/item/";
    if (!keyText || std::strncmp(keyText, prefix, sizeof prefix - 1) != 0) return false;
    const char* start = keyText + sizeof prefix - 1;
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(start, &end, 0);
    if (end == start) return false;
    if (value > INT_MAX) value = INT_MAX;
    if (value < INT_MIN) value = INT_MIN;
    *index = static_cast<int>(value);
    return true;
}

} // namespace

int tav_gethandler(TavModParam* param, int keyId, int /*action*/, void* instance)
{
    if (!instance || !param) return -3;
    auto* registry = static_cast<TAVKeyRegistry*>(instance);
    switch (keyId) {
    case TAVKEYREG_COUNT:
        param->setMessage("", 0);
        param->appendMessage(std::to_string(registry->GetSecurityEntCount()).c_str());
        return 0;
    case TAVKEYREG_ITEM:
    case TAVKEYREG_NOPERM: {
        int index = 0;
        if (keyId == TAVKEYREG_NOPERM || !readItemIndex(param->getKey(0), &index)) {
            param->setMessage("", 0);
            param->appendMessage("Bad Code");
            return 0;
        }
        // "%s/%s/", limited to 1023 characters.
        std::string item = std::string(registry->GetSecurityEntKey(index)) + "/" +
                           registry->GetSecurityEntDescription(index) + "/";
        if (item.size() > 1023) item.resize(1023);
        param->appendMessage(item.c_str());
        return 0;
    }
    default:
        return -3;
    }
}

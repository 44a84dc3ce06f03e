#include "corvaneutils/tavcommand.h"

#include <cstdlib>
#include <cstring>

static int giDebug_tavcommand = 0;
#define TAV_DEBUG_FLAG giDebug_tavcommand
#include "driveutils/tavlog.h"

const char* const pcValidCmds[11] = {
    "get:", "set:", "commit:", "add:", "del:", "refresh:", "core:", "exec:", "login:", "cookie:", "error:",
};

const char* const pcSyntaxErrors[10] = {
    "OK: No Errors",
    "ERR: Bad Error Number",
    "ERR: Bad or Malformed Message",
    "ERR: Bad or Unknown Command",
    "ERR: Bad Tree Format (Missing leading '/')",
    "ERR: No Value Parameter on set command",
    "ERR: Non terminated key in get message",
    "ERR: Invalid Character in Key or Value",
    "ERR: Internal Error",
    "ERR: Invalid Login Request",
};

namespace {

enum CommandNumber { CMD_GET, CMD_SET, CMD_COMMIT, CMD_ADD, CMD_DEL, CMD_REFRESH, CMD_CORE, CMD_EXEC, CMD_LOGIN, CMD_COOKIE };

char* copyPlus5(const char* text)
{
    size_t length = std::strlen(text);
    char* copy = static_cast<char*>(malloc(length + 5));
    if (copy) std::memcpy(copy, text, length + 1);
    return copy;
}

} // namespace

TAVCommand::TAVCommand(const char* text)
    : iCommand(-1), pKey(nullptr), pValue(nullptr), pReturn(nullptr), pData(text), msg(nullptr)
{
}

TAVCommand::TAVCommand(tav_msg* message)
    : iCommand(-1), pKey(nullptr), pValue(nullptr), pReturn(nullptr),
      pData(message ? static_cast<const char*>(message->GetData()) : nullptr), msg(message)
{
}

TAVCommand::~TAVCommand()
{
    if (msg) {
        delete msg;
        TAV_LOG(999, "MSG_DELETE\n");
    }
    free(pKey);
    free(pValue);
    free(pReturn);
}

int TAVCommand::CheckSyntax()
{
    if (!pData) return -8;
    iCommand = -1;
    size_t wordLength = 0;
    for (int i = 0; i < NUM_VALID_CMDS; ++i) {
        size_t length = std::strlen(pcValidCmds[i]);
        if (std::strncmp(pData, pcValidCmds[i], length) == 0) {
            iCommand = i;
            wordLength = length;
            break;
        }
    }
    size_t textLength = std::strlen(pData);
    bool trailingSlash = textLength > 0 && pData[textLength - 1] == '/';
    switch (iCommand) {
    case CMD_GET:
    case CMD_COMMIT:
    case CMD_COOKIE:
        if (!trailingSlash) return -6;
        break;
    case CMD_SET:
    case CMD_ADD:
    case CMD_DEL:
    case CMD_EXEC:
        if (trailingSlash) return -5;
        break;
    case CMD_LOGIN:
        if (trailingSlash) return -9;
        break;
    case CMD_REFRESH:
    case CMD_CORE:
        break;
    default:
        return -3;
    }
    if (pData[wordLength] != '/') return -4;
    SetKey(pData + wordLength);
    return 0;
}

const char* TAVCommand::GetSyntaxError(int code)
{
    if (code > 0 || code < -9) return pcSyntaxErrors[1];
    return pcSyntaxErrors[-code];
}

const char* TAVCommand::GetCommandString() const
{
    if (iCommand < 0 || iCommand >= NUM_VALID_CMDS) return pcValidCmds[10];
    return pcValidCmds[iCommand];
}

int TAVCommand::SetKey(const char* text)
{
    free(pKey);
    pKey = text ? copyPlus5(text) : nullptr;   // a failed allocation is silent
    return 0;
}

int TAVCommand::SetValue(const char* text)
{
    free(pValue);
    pValue = text ? copyPlus5(text) : nullptr;
    if (!pValue) TAV_LOG(TAV_LOG_L10, "STACK SMASH 1\n");
    return 0;
}

int TAVCommand::AddReturnValue(const char* text) { return CpReturnValues.Add(text); }

int TAVCommand::AddReturnValue(const void* data, int size)
{
    if (!data) return 0;
    return CpReturnValues.Add(data, size);
}

const char* TAVCommand::GetReturnValue(int index) const
{
    const char* value = CpReturnValues.Get(index);
    return value ? value : pcSyntaxErrors[8];
}

bool TAVCommand::IsSubKey(const char* key) const
{
    if (!key || !pKey) return false;
    // strncmp over strlen(key), in one pass that stops at the first difference.
    for (const char* own = pKey; *key; ++own, ++key)
        if (*own != *key) return false;
    return true;
}

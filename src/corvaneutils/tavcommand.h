// One command in flight: its text, the key it names and the replies it
// gathers, and the two tables of command words and syntax errors.
#pragma once

#include "corvaneutils/tav_msg.h"
#include "tavstring/tavuniquestringlist.h"

// The command words, indexed by the command number; only the first ten are
// looked for, "error:" is what a bad number prints as.
extern const char* const pcValidCmds[11];
constexpr int NUM_VALID_CMDS = 10;
// The syntax texts, indexed by the negated syntax result.
extern const char* const pcSyntaxErrors[10];

class TAVCommand {
public:
    // The text is not copied, and no message is owned.
    explicit TAVCommand(const char* text);
    // Takes the message over; its data is the text.
    explicit TAVCommand(tav_msg* message);
    TAVCommand(const TAVCommand&) = delete;
    TAVCommand& operator=(const TAVCommand&) = delete;
    ~TAVCommand();

    // 0, or the negative code of pcSyntaxErrors; sets the number and the key.
    int CheckSyntax();
    static const char* GetSyntaxError(int code);

    int GetCommand() const { return iCommand; }
    const char* GetCommandString() const;

    int SetKey(const char* text);
    const char* GetKey() const { return pKey; }
    int SetValue(const char* text);
    const char* GetValue() const { return pValue; }
    const char* GetData() const { return pData; }

    // The text with its terminator.
    int AddReturnValue(const char* text);
    int AddReturnValue(const void* data, int size);
    // The value, or "ERR: Internal Error" for a bad index. A value need not
    // end in a terminator: read it within GetReturnValueSize.
    const char* GetReturnValue(int index) const;
    int GetReturnCount() const { return CpReturnValues.Count(); }
    int GetReturnValueSize(int index) const { return CpReturnValues.GetSize(index); }

    // Both set, and the command's key begins with key.
    bool IsSubKey(const char* key) const;

private:
    int iCommand;
    char* pKey;
    char* pValue;
    char* pReturn;
    const char* pData;
    tav_msg* msg;
    TAVUniqueStringList CpReturnValues;
};

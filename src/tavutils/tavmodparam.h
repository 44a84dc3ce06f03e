// What a key's listener receives: the key and value, whole and split at
// slashes, and a reply buffer that grows as the listener appends to it.
#pragma once

// Splits text (length bytes) at slashes into new copies of its non-empty
// segments; *count gets the number of positions. Null for a count below 1.
char** parseString(const char* str, int length, int* count);

class TavModParam {
public:
    TavModParam(const char* key, const char* value, int allocSize);
    TavModParam(const TavModParam&) = delete;
    TavModParam& operator=(const TavModParam&) = delete;
    virtual ~TavModParam();

    // Copies length bytes behind the message and sets the reply's id.
    int appendData(const void* data, int length, int id);
    int appendData(const void* data, int length);
    // Appends a text with its terminator, joining it to the text before.
    int appendMessage(const char* text, int id);
    int appendMessage(const char* text);

    // 0 gives the whole text, 1 to the part count a part, else null.
    const char* getKey(int index) const;
    int getNumKeyParts() const { return numKeyParts; }
    const char* getValue(int index) const;
    int getNumValueParts() const { return numValueParts; }

    // The message and, in size, the bytes in use.
    const char* getMessage(int* size) const;
    int getMessageID() const { return msgID; }
    int getMessageUsed() const { return msgUsed; }
    int getMessageSize() const { return msgSize; }
    // Replaces the contents with size bytes of text.
    int setMessage(const char* text, int size);
    // Grows the buffer to size, keeping the contents; never shrinks.
    int setMessageSize(int size);

private:
    void growTo(long long size, const char* failure);

    char* key;
    char** keyParts;
    int numKeyParts;
    char* value;
    char** valueParts;
    int numValueParts;
    char* msg;
    int msgSize;
    int msgUsed;
    unsigned int msgAllocSize;
    int msgID;
};

// A fixed list of at most 1000 distinct byte strings, held inline.
#pragma once

struct STRING_CONTAINER {
    int iLength;   // bytes as stored, the terminator of a text included
    char* pData;   // from malloc, owned by the list
};

class TAVUniqueStringList {
public:
    static constexpr int kCapacity = 1000;

    TAVUniqueStringList();
    ~TAVUniqueStringList();
    TAVUniqueStringList(const TAVUniqueStringList&) = delete;
    TAVUniqueStringList& operator=(const TAVUniqueStringList&) = delete;

    // 0; -4 null data or no memory; -3 full; -2 the same bytes are held.
    int Add(const char* text);
    int Add(const void* data, int size);

    int Exists(int i) const;
    int Exists(const char* text) const;
    int Count() const { return iStringCount; }
    char* Get(int i) const;
    char* GetCopy(int i) const;
    int GetSize(int i) const;
    int IndexOf(const char* text) const;
    int IndexOf(const void* data, int len) const;
    int Delete(const char* text);
    int Delete(int i);
    int Set(int i, const char* text);

private:
    bool inRange(int i) const { return i >= 0 && i < iStringCount; }
    void release(int slot);

    int iStringCount;
    STRING_CONTAINER pcString[kCapacity];
    // Slots whose data Set freed while leaving the pointer in place: never
    // read or freed again.
    bool stale[kCapacity];
};

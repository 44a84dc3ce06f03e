#include "tavstring/tavuniquestringlist.h"

#include <cstdlib>
#include <cstring>

static int giDebug_tavuniquestringlist = 0;
#define TAV_DEBUG_FLAG giDebug_tavuniquestringlist
#include "driveutils/tavlog.h"

TAVUniqueStringList::TAVUniqueStringList() : iStringCount(0), pcString(), stale()
{
    TAV_LOG(99, "TAVUniqueStringList::TAVUniqueStringList() %s:%d\n", TAV_FILE, __LINE__);
}

TAVUniqueStringList::~TAVUniqueStringList()
{
    // Every slot, not only the counted ones: Set may leave data past the
    // count. Empty slots are passed over: a list lives as long as a command.
    for (int slot = 0; slot < kCapacity; ++slot)
        if (pcString[slot].pData) release(slot);
}

void TAVUniqueStringList::release(int slot)
{
    if (!stale[slot]) std::free(pcString[slot].pData);
    pcString[slot].pData = nullptr;
    pcString[slot].iLength = 0;
    stale[slot] = false;
}

int TAVUniqueStringList::Add(const char* text)
{
    if (!text) return -4;
    return Add(text, static_cast<int>(std::strlen(text)) + 1);
}

int TAVUniqueStringList::Add(const void* data, int size)
{
    if (!data || size < 0) return -4;
    if (iStringCount > kCapacity - 1) return -3;
    if (IndexOf(data, size) >= 0) return -2;
    char* copy = static_cast<char*>(std::malloc(size > 0 ? static_cast<size_t>(size) : 1));
    if (!copy) return -4;
    std::memcpy(copy, data, static_cast<size_t>(size));
    release(iStringCount);   // data a Set left past the count
    pcString[iStringCount].pData = copy;
    pcString[iStringCount].iLength = size;
    ++iStringCount;
    return 0;
}

int TAVUniqueStringList::Exists(int i) const { return (inRange(i) && pcString[i].pData) ? 1 : 0; }

int TAVUniqueStringList::Exists(const char* text) const
{
    if (!text) return -1;
    return IndexOf(text) >= 0 ? 1 : 0;
}

char* TAVUniqueStringList::Get(int i) const { return inRange(i) ? pcString[i].pData : nullptr; }

char* TAVUniqueStringList::GetCopy(int i) const
{
    if (!inRange(i) || !pcString[i].pData || stale[i]) return nullptr;
    const char* text = pcString[i].pData;
    // Taken with strcpy: stored bytes that are not a terminated text are bounded
    // by their stored length instead of being read past.
    size_t length = strnlen(text, static_cast<size_t>(pcString[i].iLength));
    char* copy = static_cast<char*>(std::malloc(length + 5));
    if (!copy) return nullptr;
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

int TAVUniqueStringList::GetSize(int i) const { return inRange(i) ? pcString[i].iLength : 0; }

int TAVUniqueStringList::IndexOf(const char* text) const
{
    if (!text) return -1;
    return IndexOf(text, static_cast<int>(std::strlen(text)) + 1);
}

int TAVUniqueStringList::IndexOf(const void* data, int len) const
{
    if (!data) return -1;
    for (int i = 0; i < iStringCount; ++i) {
        const STRING_CONTAINER& entry = pcString[i];
        if (stale[i] || !entry.pData || entry.iLength != len) continue;
        if (std::memcmp(entry.pData, data, static_cast<size_t>(len)) == 0) return i;
    }
    return -1;
}

int TAVUniqueStringList::Delete(const char* text)
{
    if (!text) return -1;
    int index = IndexOf(text);
    if (index < 0) return index;
    return Delete(index);
}

int TAVUniqueStringList::Delete(int i)
{
    if (!inRange(i)) return -1;
    if (!stale[i]) std::free(pcString[i].pData);
    for (int slot = i; slot < iStringCount - 1; ++slot) {
        pcString[slot] = pcString[slot + 1];
        stale[slot] = stale[slot + 1];
    }
    --iStringCount;
    pcString[iStringCount] = STRING_CONTAINER{0, nullptr};
    stale[iStringCount] = false;
    return 0;
}

// Kept with its original outcome, odd as it is: slot i's data is freed but
// its pointer and length stay, and the new text goes to the slot past the
// count, which is not raised. The freed slot is marked stale so that nothing
// reads or frees it again.
int TAVUniqueStringList::Set(int i, const char* text)
{
    if (!text) return -1;
    if (IndexOf(text) >= 0) return -2;
    if (!inRange(i)) return -1;
    if (!stale[i]) std::free(pcString[i].pData);
    stale[i] = true;
    if (iStringCount > kCapacity - 1) return -3;
    size_t length = std::strlen(text);
    char* copy = static_cast<char*>(std::malloc(length + 1));
    if (!copy) return -4;
    std::memcpy(copy, text, length);   // without a terminator
    release(iStringCount);
    pcString[iStringCount].pData = copy;
    pcString[iStringCount].iLength = static_cast<int>(length) + 1;
    return 0;
}

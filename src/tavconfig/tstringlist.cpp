#include "tavconfig/tstringlist.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "tavconfig/tavassert.h"

TStringList::TStringList() : Count(0) {}

int TStringList::Add(const char* text)
{
    if (Count >= kMaxLines) return -1;
    Strings[Count].Modify(text);
    return Count++;
}

void TStringList::Delete(int i)
{
    if (i < 0 || i >= Count) return;
    for (int j = i; j < Count - 1; ++j)
        Strings[j].Modify(Strings[j + 1].c_str());
    Strings[Count - 1].Modify(nullptr);
    --Count;
}

void TStringList::Insert(int i, const char* text)
{
    // The original did not check for a full list and wrote past the array
    // once the spare slot was used; here an insert into a list that fills
    // every slot is dropped.
    if (Count > kMaxLines) return;
    if (i > Count) i = Count;
    if (i < 0) i = 0;
    for (int j = Count; j > i; --j)
        Strings[j].Modify(Strings[j - 1].c_str());
    if (Strings[i].Modify(text)) ++Count;
}

bool TStringList::LoadFromFile(const char* path)
{
    TAV_ASSERT(path);
    FILE* file = plat::fopen(path, "r");
    if (!file) {
        std::string backup = std::string(path) + ".backup";
        file = plat::fopen(backup.c_str(), "r");
        if (!file) return false;
    }
    while (Count > 0) Strings[--Count].Modify(nullptr);

    char line[kMaxLineLength + 1];
    int length = 0;
    while (Count < kMaxLines) {
        int c = std::fgetc(file);
        // Only the low eight bits were compared with EOF: a 0xFF byte ends
        // the file. Kept.
        if (static_cast<unsigned char>(c) == 0xFF) break;
        if (c == '\n' || c == '\r') {
            line[length] = '\0';
            Add(line);
            length = 0;
            continue;
        }
        // Lines were not checked against the buffer in the original; the
        // text beyond kMaxLineLength characters is dropped here.
        if (length < kMaxLineLength) line[length++] = static_cast<char>(c);
    }
    // Text behind the last line end is not loaded (deliberately kept).
    std::fclose(file);
    return true;
}

bool TStringList::SaveToFile(const char* path)
{
    TAV_ASSERT(path);
    std::string backup = std::string(path) + ".backup";
    FILE* file = plat::fopen(backup.c_str(), "w");
    if (!file) return false;
    for (int i = 0; i < Count; ++i)
        std::fprintf(file, "%s\n", Strings[i].c_str() ? Strings[i].c_str() : "");
    std::fflush(file);
    plat::fsync(fileno(file));
    if (std::fclose(file) != 0) return false;
    // From here to the rename only the backup exists; loading falls back to it.
    plat::unlink(path);
    bool renamed = plat::rename(backup.c_str(), path) == 0;
    plat::sync();
    return renamed;
}

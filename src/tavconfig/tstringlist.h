// The lines of a configuration file in a fixed array, with loading and a
// save that never writes the file in place.
#pragma once

#include "tavconfig/tstring.h"

class TStringList {
public:
    static constexpr int kMaxLines = 1000;
    // Characters kept of one line when loading.
    static constexpr int kMaxLineLength = 999;

    TStringList();

    // Appends; the new index, or -1 when the list holds kMaxLines lines.
    int Add(const char* text);
    // Removes line i, moving the later lines down; out of range does nothing.
    void Delete(int i);
    // Stores text in front of line i (clamped to Count).
    void Insert(int i, const char* text);
    // Replaces the lines with those of path, or of path".backup" when path
    // cannot be opened. False, and the list unchanged, when neither opens.
    bool LoadFromFile(const char* path);
    // Writes path".backup", then puts it in the place of path. True when the
    // file stands under its name.
    bool SaveToFile(const char* path);

    // Text of line i, null when empty or out of range.
    const char* Line(int i) const { return (i >= 0 && i < Count) ? Strings[i].c_str() : nullptr; }

    // Slot kMaxLines stays empty so that Delete can copy from the slot behind.
    TString Strings[kMaxLines + 1];
    int Count;
};

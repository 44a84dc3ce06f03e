// A key, a path of segments between slashes, with the commands it permits.
#pragma once

#include <cstdio>

#include "tavutils/tavcmd.h"

class TavKeyMode {
public:
    explicit TavKeyMode(const char* key = nullptr, TavCmd mode = TavCmd::NONE);
    TavKeyMode(const TavKeyMode& other);
    TavKeyMode& operator=(const TavKeyMode&) = delete;
    virtual ~TavKeyMode();

    const char* getKey() const { return _key; }
    // A new array copy of segment index (from 0), which the caller deletes;
    // null for a negative index, a key without slash, or an index past the end.
    char* getKeySegment(int index) const;
    int numKeySegments() const { return _numKeySegments; }
    TavCmd getMode() const { return _mode; }
    void setMode(TavCmd mode) { _mode = mode; }

    // One line "<mode>:<key>\n". read gives 1 for a key of at least one segment.
    int read(FILE* stream);
    void write(FILE* stream) const;

    // Equal with a trailing slash added to either side that lacks one.
    bool equals(const char* key) const;
    // This key, with its slash, is a prefix of the other: an ancestor or the same.
    bool lessThanOrEquals(const char* key) const;
    // The slashes of the key, less one for a trailing slash.
    int countKeySegments() const;

private:
    char* _key;
    TavCmd _mode;
    int _numKeySegments;
};

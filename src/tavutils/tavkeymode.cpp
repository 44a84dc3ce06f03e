#include "tavutils/tavkeymode.h"

#include <cstring>
#include <string_view>

#include "tavstring/tavparseutil.h"
#include "tavutils/tav_error.h"

namespace {

constexpr int kLineBuffer = 256;

char* copyKey(const char* key, const char* failure)
{
    if (!key) return nullptr;
    size_t length = std::strlen(key) + 1;
    char* copy;
    try {
        copy = new char[length];
    } catch (...) {
        throw tav_enomem(failure);
    }
    std::memcpy(copy, key, length);
    return copy;
}

// A key as the comparisons see it: the text and whether a slash is added.
// The original copied both sides into 1024-character buffers; comparing the
// texts in place gives the same answer for keys that fit and never overflows.
struct SlashedKey {
    std::string_view text;
    bool addSlash;

    explicit SlashedKey(const char* key) : text(key), addSlash(text.empty() || text.back() != '/') {}
    size_t size() const { return text.size() + (addSlash ? 1 : 0); }
    char at(size_t i) const { return i < text.size() ? text[i] : '/'; }
};

// a is a prefix of b.
bool isPrefix(const SlashedKey& a, const SlashedKey& b)
{
    if (a.size() > b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a.at(i) != b.at(i)) return false;
    return true;
}

} // namespace

TavKeyMode::TavKeyMode(const char* key, TavCmd mode)
    : _key(copyKey(key, "TavKeyMode() new failed")), _mode(mode), _numKeySegments(0)
{
    _numKeySegments = countKeySegments();
}

TavKeyMode::TavKeyMode(const TavKeyMode& other)
    : _key(copyKey(other._key, "TavKeyMode(TavKeyMode &) new failed")), _mode(other._mode),
      _numKeySegments(other._numKeySegments)
{
}

TavKeyMode::~TavKeyMode() { delete[] _key; }

int TavKeyMode::countKeySegments() const
{
    if (!_key) return 0;
    size_t length = std::strlen(_key);
    int slashes = 0;
    for (size_t i = 0; i < length; ++i)
        if (_key[i] == '/') ++slashes;
    if (length > 0 && _key[length - 1] == '/') --slashes;
    return slashes;
}

char* TavKeyMode::getKeySegment(int index) const
{
    if (!_key || index < 0) return nullptr;
    const char* slash = std::strchr(_key, '/');
    for (int i = 0; slash && i < index; ++i) slash = std::strchr(slash + 1, '/');
    if (!slash) return nullptr;
    const char* start = slash + 1;
    size_t length = std::strcspn(start, "/");
    char* segment;
    try {
        segment = new char[length + 1];
    } catch (...) {
        throw tav_enomem("TavKeyMode::getKeySegment alloc failed");
    }
    std::memcpy(segment, start, length);
    segment[length] = '\0';
    return segment;
}

int TavKeyMode::read(FILE* stream)
{
    delete[] _key;
    _key = nullptr;
    _numKeySegments = 0;
    if (!stream) return 0;
    if (_mode.read(stream) == 0) return 0;
    fgetc(stream);   // the colon
    char buffer[kLineBuffer];
    int count = readChars(buffer, kLineBuffer, ":", stream);
    if (count < 0) throw tav_enomem("TavKeyMode::read buffer filled");
    if (count == 0) return 0;
    _key = copyKey(buffer, "TavKeyMode() new failed");
    _numKeySegments = countKeySegments();
    if (_numKeySegments < 1) {
        delete[] _key;
        _key = nullptr;
        _numKeySegments = 0;
        return 0;
    }
    return 1;
}

void TavKeyMode::write(FILE* stream) const
{
    if (!stream) return;
    _mode.write(stream);
    if (_key) fprintf(stream, ":%s\n", _key);
}

bool TavKeyMode::equals(const char* key) const
{
    if (!_key || !key) return false;
    SlashedKey own(_key), other(key);
    return own.size() == other.size() && isPrefix(own, other);
}

bool TavKeyMode::lessThanOrEquals(const char* key) const
{
    if (!_key || !key) return false;
    return isPrefix(SlashedKey(_key), SlashedKey(key));
}

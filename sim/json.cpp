#include "json.h"

#include <cstdio>

namespace sim {
namespace {

// Length of the UTF-8 sequence at `i`, or 0 when the bytes there are not one.
size_t utf8Length(const std::string& s, size_t i)
{
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char c = byte(i);
    size_t n = c >= 0xf0 && c <= 0xf4 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 ? 2 : 0;
    if (c >= 0xf5 || n == 0 || i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k)
        if ((byte(i + k) & 0xc0) != 0x80) return 0;
    // Overlong forms, surrogates and code points past U+10FFFF.
    unsigned char c1 = byte(i + 1);
    if ((c == 0xe0 && c1 < 0xa0) || (c == 0xed && c1 >= 0xa0) || (c == 0xf0 && c1 < 0x90) || (c == 0xf4 && c1 >= 0x90))
        return 0;
    return n;
}

} // namespace

std::string jsonQuote(const std::string& text)
{
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            size_t n = utf8Length(text, i);
            if (n) {
                out.append(text, i, n);
                i += n;
                continue;
            }
        }
        ++i;
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
                out += esc;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

JsonWriter::~JsonWriter()
{
    if (empty_.empty()) out_ << "\n";
}

void JsonWriter::newline() { out_ << "\n" << std::string(2 * empty_.size(), ' '); }

void JsonWriter::beforeValue()
{
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (empty_.empty()) return;
    if (!empty_.back()) out_ << ",";
    empty_.back() = false;
    newline();
}

JsonWriter& JsonWriter::key(const std::string& name)
{
    beforeValue();
    out_ << jsonQuote(name) << ": ";
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::open(char bracket)
{
    beforeValue();
    out_ << bracket;
    empty_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::close(char bracket)
{
    bool wasEmpty = empty_.back();
    empty_.pop_back();
    if (!wasEmpty) newline();
    out_ << bracket;
    return *this;
}

JsonWriter& JsonWriter::string(const std::string& text)
{
    beforeValue();
    out_ << jsonQuote(text);
    return *this;
}

JsonWriter& JsonWriter::number(int64_t n)
{
    beforeValue();
    out_ << n;
    return *this;
}

JsonWriter& JsonWriter::unsignedNumber(uint64_t n)
{
    beforeValue();
    out_ << n;
    return *this;
}

JsonWriter& JsonWriter::boolean(bool b)
{
    beforeValue();
    out_ << (b ? "true" : "false");
    return *this;
}

JsonWriter& JsonWriter::null()
{
    beforeValue();
    out_ << "null";
    return *this;
}

} // namespace sim

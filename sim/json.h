// A small JSON writer: one document, indented by two blanks. Strings are
// escaped as JSON requires; bytes that are not UTF-8 are written as the code
// points of the same value (\u00XX), so that the document is always valid.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace sim {

class JsonWriter {
public:
    explicit JsonWriter(std::ostream& out) : out_(out) {}
    ~JsonWriter();

    JsonWriter& beginObject() { return open('{'); }
    JsonWriter& endObject() { return close('}'); }
    JsonWriter& beginArray() { return open('['); }
    JsonWriter& endArray() { return close(']'); }
    // The key of the next value in an object.
    JsonWriter& key(const std::string& name);

    JsonWriter& string(const std::string& text);
    JsonWriter& number(int64_t n);
    JsonWriter& unsignedNumber(uint64_t n);
    JsonWriter& boolean(bool b);
    JsonWriter& null();

private:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    void beforeValue();
    void newline();

    std::ostream& out_;
    std::vector<bool> empty_;  // per open container: nothing in it yet
    bool afterKey_ = false;
};

std::string jsonQuote(const std::string& text);

} // namespace sim

// Text output that both people and awk read: aligned tables under a header
// line, cells without blanks (quoted when they hold any) except the last
// column, which takes free text, and sizes as lsblk gives them.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace sim {

class Table {
public:
    explicit Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}

    // Cells in the order of the headers; each goes through cell() but the last,
    // which goes through lastCell().
    void add(std::vector<std::string> cells);
    void print(std::ostream& out) const;

private:
    std::vector<std::string> headers_;
    std::vector<std::vector<std::string>> rows_;
};

// One field: "-" when empty; in double quotes, with \" \\ and \xNN escapes,
// when it holds blanks, quotes or control characters.
std::string cell(const std::string& text);
// The free-text last field: blanks kept, control characters escaped.
std::string lastCell(const std::string& text);

// Bytes in 1024-based units with one decimal, as lsblk: "74.5G", "1M", "512B".
std::string humanSize(uint64_t bytes);

} // namespace sim

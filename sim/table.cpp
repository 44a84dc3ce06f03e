#include "table.h"

#include <algorithm>
#include <cstdio>

namespace sim {
namespace {

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

std::string escaped(const std::string& text, bool escapeQuotes)
{
    std::string out;
    for (unsigned char c : text) {
        if (isControl(c)) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else if (escapeQuotes && (c == '"' || c == '\\')) {
            out += '\\';
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

} // namespace

std::string cell(const std::string& text)
{
    if (text.empty()) return "-";
    bool plain = std::none_of(text.begin(), text.end(), [](unsigned char c) {
        return c == ' ' || c == '"' || c == '\\' || isControl(c);
    });
    return plain ? text : "\"" + escaped(text, true) + "\"";
}

std::string lastCell(const std::string& text) { return text.empty() ? "-" : escaped(text, false); }

void Table::add(std::vector<std::string> cells)
{
    cells.resize(headers_.size());
    for (size_t i = 0; i < cells.size(); ++i) cells[i] = i + 1 < cells.size() ? cell(cells[i]) : lastCell(cells[i]);
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const
{
    std::vector<size_t> width(headers_.size());
    for (size_t i = 0; i < headers_.size(); ++i) {
        width[i] = headers_[i].size();
        for (const auto& row : rows_) width[i] = std::max(width[i], row[i].size());
    }
    auto line = [&](const std::vector<std::string>& cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i) {
            text += cells[i];
            if (i + 1 < cells.size()) text += std::string(width[i] - cells[i].size() + 2, ' ');
        }
        out << text << "\n";
    };
    line(headers_);
    for (const auto& row : rows_) line(row);
}

std::string humanSize(uint64_t bytes)
{
    static const char units[] = "BKMGTPE";
    int exp = 0;
    // The value in units of 1024^exp, in tenths, rounded.
    uint64_t whole = bytes;
    uint64_t scale = 1;
    while (whole >= 1024 && exp < 6) {
        scale *= 1024;
        whole = bytes / scale;
        ++exp;
    }
    const uint64_t rest = bytes - whole * scale;
    uint64_t tenths = exp == 0 ? 0 : (rest * 10 + scale / 2) / scale;
    if (tenths == 10) {
        ++whole;
        tenths = 0;
    }
    if (whole == 1024 && exp < 6) {  // rounded up into the next unit
        whole = 1;
        ++exp;
    }
    std::string text = std::to_string(whole);
    if (tenths) text += "." + std::to_string(tenths);
    return text + units[exp];
}

} // namespace sim

#include "manifest.h"

#include <cstdio>
#include <sstream>

namespace sim {

bool parseNumber(const std::string& word, uint64_t& out)
{
    if (word.empty() || word.size() > 20 || (word[0] == '0' && word.size() > 1)) return false;
    uint64_t v = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return false;
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (v > (UINT64_MAX - digit) / 10) return false;
        v = v * 10 + digit;
    }
    out = v;
    return true;
}

std::vector<std::string> textLines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

bool parseSigned(const std::string& word, int64_t min, int64_t max, int64_t& out)
{
    const bool negative = !word.empty() && word[0] == '-';
    uint64_t n = 0;
    if (!parseNumber(negative ? word.substr(1) : word, n) || (negative && n == 0)) return false;
    if (negative ? n > static_cast<uint64_t>(-(min + 1)) + 1 : n > static_cast<uint64_t>(max)) return false;
    out = negative ? -static_cast<int64_t>(n - 1) - 1 : static_cast<int64_t>(n);
    return out >= min && out <= max;
}

bool parseHexNumber(const std::string& word, uint64_t& out)
{
    if (word.size() < 3 || word.size() > 18 || word[0] != '0' || (word[1] != 'x' && word[1] != 'X')) return false;
    uint64_t v = 0;
    for (size_t i = 2; i < word.size(); ++i) {
        char c = word[i];
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0) return false;
        v = v << 4 | static_cast<uint64_t>(digit);
    }
    out = v;
    return true;
}

std::string percentEncode(const std::string& value)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : value) {
        if (c <= ' ' || c == '%' || c == '=' || c >= 0x7f) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string percentDecode(const std::string& value)
{
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '%' && i + 2 < value.size()) {
            int hi = digit(value[i + 1]), lo = digit(value[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += value[i];
    }
    return out;
}

const Bay* Manifest::bay(int number) const
{
    for (const Bay& b : bays)
        if (b.number == number) return &b;
    return nullptr;
}

const Bay* Manifest::bayOfDevice(const std::string& device) const
{
    for (const Bay& b : bays)
        if (b.device == device) return &b;
    return nullptr;
}

Drive* Manifest::driveInBay(int number)
{
    if (number <= 0) return nullptr;
    for (Drive& d : drives)
        if (d.bay == number) return &d;
    return nullptr;
}

const Drive* Manifest::driveInBay(int number) const
{
    return const_cast<Manifest*>(this)->driveInBay(number);
}

Drive* Manifest::drive(const std::string& serial)
{
    for (Drive& d : drives)
        if (d.serial == serial) return &d;
    return nullptr;
}

namespace {

std::vector<std::string> words(const std::string& line)
{
    std::vector<std::string> out;
    std::istringstream in(line);
    std::string w;
    while (in >> w) out.push_back(w);
    return out;
}

// A numeric field of a drive line: `limit` is its largest value.
bool driveNumber(const std::string& key, const std::string& value, uint64_t limit, uint64_t& n, std::string& why)
{
    bool hex = key == "udma";
    if (!(hex ? parseHexNumber(value, n) : parseNumber(value, n)))
        why = key + "=" + value + ": not a " + (hex ? "hex number (0x...)" : "decimal number");
    else if (n > limit)
        why = key + "=" + value + ": out of range 0 to " + std::to_string(limit);
    else
        return true;
    return false;
}

// Reads a drive line. The serial number, kind and bay decide whether the
// drive can be kept at all (false, with `why`); another bad field is left at
// its default and named in `fieldWarnings`.
bool parseDrive(const std::vector<std::string>& w, Drive& d, std::string& why, std::vector<std::string>& fieldWarnings)
{
    for (size_t i = 1; i < w.size(); ++i) {
        size_t eq = w[i].find('=');
        if (eq == std::string::npos) {
            why = "field without '=': " + w[i];
            return false;
        }
        std::string key = w[i].substr(0, eq);
        std::string value = percentDecode(w[i].substr(eq + 1));
        std::string bad;
        uint64_t n = 0;
        if (key == "serial") d.serial = value;
        else if (key == "kind") d.kind = value;
        else if (key == "model") d.model = value;
        else if (key == "firmware") d.firmware = value;
        else if (key == "vendor") d.vendor = value;
        else if (key == "bay") {
            if (!driveNumber(key, value, 4096, n, why)) return false;
            d.bay = static_cast<int>(n);
        } else if (key == "sectors") {
            if (driveNumber(key, value, (1ULL << 40) - 1, n, bad)) d.sectors = n;
        } else if (key == "udma") {
            if (driveNumber(key, value, 0xffff, n, bad)) d.udma = static_cast<uint16_t>(n);
        } else if (key == "wcache") {
            if (driveNumber(key, value, 1, n, bad)) d.writeCache = n != 0;
        } else if (key == "xfer") {
            if (value == "-1") d.transferMode = -1;
            else if (driveNumber(key, value, 0xff, n, bad)) d.transferMode = static_cast<int>(n);
        } else if (key == "flushes") {
            // Modules of older versions counted flushes here; the count is
            // sim/ata.log's now.
        } else {
            bad = "unknown field " + w[i];
        }
        if (!bad.empty()) fieldWarnings.push_back(bad);
    }
    if (d.serial.empty()) {
        why = "drive without serial";
        return false;
    }
    if (d.kind != "ata" && d.kind != "scsi") {
        why = "drive " + d.serial + ": unknown kind " + d.kind + " (ata or scsi)";
        return false;
    }
    return true;
}

// Reads a bay line "bay N DEVICE MAJOR MINOR [PARTITIONS]"; false, with `why`.
bool parseBay(const std::vector<std::string>& w, Bay& bay, std::string& why)
{
    uint64_t number = 0, major = 0, minor = 0, parts = 15;
    if (w.size() != 5 && w.size() != 6) why = "a bay line is: bay N DEVICE MAJOR MINOR [PARTITIONS]";
    else if (!parseNumber(w[1], number) || number == 0 || number > 4096) why = "bay " + w[1] + ": not a bay number 1 to 4096";
    else if (w[2].empty() || w[2][0] != '/') why = "bay " + w[1] + ": device " + w[2] + " is not an absolute path";
    else if (!parseNumber(w[3], major) || major > 4095) why = "bay " + w[1] + ": major " + w[3] + " is not 0 to 4095";
    else if (!parseNumber(w[4], minor) || minor > 0xfffff) why = "bay " + w[1] + ": minor " + w[4] + " is not 0 to 1048575";
    else if (w.size() == 6 && (!parseNumber(w[5], parts) || parts > 255))
        why = "bay " + w[1] + ": partitions " + w[5] + " is not 0 to 255";
    else {
        bay.number = static_cast<int>(number);
        bay.device = percentDecode(w[2]);
        bay.major = static_cast<unsigned>(major);
        bay.minor = static_cast<unsigned>(minor);
        bay.maxPartitions = static_cast<unsigned>(parts);
        return true;
    }
    return false;
}

} // namespace

Manifest Manifest::parse(const std::string& text, std::vector<std::string>* warnings)
{
    Manifest m;
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    auto warnAt = [&](int at, const std::string& what) {
        if (warnings) warnings->push_back("sim/manifest:" + std::to_string(at) + ": " + what);
    };
    auto warn = [&](const std::string& what) { warnAt(lineNo, what); };
    bool havePlatform = false;
    while (std::getline(in, line)) {
        ++lineNo;
        std::vector<std::string> w = words(line);
        if (w.empty() || w[0][0] == '#') continue;
        uint64_t a = 0;
        if (w[0] == "platform" && w.size() == 2) {
            havePlatform = true;
            if (w[1] == "-1") m.platform = -1;
            else if (parseNumber(w[1], a) && a < 1000000) m.platform = static_cast<int>(a);
            else warn("platform " + w[1] + ": not a platform id (0 to 999999, or -1)");
        } else if (w[0] == "module-serial" && w.size() == 2) {
            m.moduleSerial = percentDecode(w[1]);
        } else if (w[0] == "bay") {
            Bay bay;
            std::string why;
            if (!parseBay(w, bay, why)) warn(why);
            else if (const Bay* first = m.bay(bay.number))
                warn("bay " + w[1] + " again (first on line " + std::to_string(first->line) + ")");
            else {
                bay.line = lineNo;
                m.bays.push_back(bay);
            }
        } else if (w[0] == "drive") {
            Drive d;
            std::string why;
            std::vector<std::string> fieldWarnings;
            if (!parseDrive(w, d, why, fieldWarnings)) warn(why);
            else if (const Drive* first = m.drive(d.serial))
                warn("drive " + d.serial + " again (first on line " + std::to_string(first->line) + ")");
            else {
                for (const std::string& f : fieldWarnings) warn("drive " + d.serial + ": " + f + ", left at its default");
                d.line = lineNo;
                m.drives.push_back(d);
            }
        } else {
            warn("unknown line: " + percentEncode(line.substr(0, 60)));
        }
    }
    if (!havePlatform) warnAt(lineNo, "no platform line");
    // Two drives in one bay: the later one goes to the shelf.
    for (size_t i = 0; i < m.drives.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (m.drives[i].bay != 0 && m.drives[i].bay == m.drives[j].bay) {
                warnAt(m.drives[i].line, "drive " + m.drives[i].serial + ": bay " + std::to_string(m.drives[i].bay) +
                                             " already holds drive " + m.drives[j].serial + " (line " +
                                             std::to_string(m.drives[j].line) + "); taken as on the shelf");
                m.drives[i].bay = 0;
            }
    return m;
}

std::string Manifest::format() const
{
    std::ostringstream out;
    out << "# tavsim module manifest\n";
    out << "platform " << platform << "\n";
    out << "module-serial " << percentEncode(moduleSerial) << "\n";
    for (const Bay& b : bays)
        out << "bay " << b.number << " " << percentEncode(b.device) << " " << b.major << " " << b.minor << " "
            << b.maxPartitions << "\n";
    for (const Drive& d : drives) {
        out << "drive serial=" << percentEncode(d.serial) << " bay=" << d.bay << " kind=" << d.kind
            << " sectors=" << d.sectors << " model=" << percentEncode(d.model)
            << " firmware=" << percentEncode(d.firmware);
        if (!d.vendor.empty()) out << " vendor=" << percentEncode(d.vendor);
        char udma[16];
        snprintf(udma, sizeof udma, "0x%04x", d.udma);
        out << " udma=" << udma << " wcache=" << (d.writeCache ? 1 : 0) << " xfer=" << d.transferMode << "\n";
    }
    return out.str();
}

} // namespace sim

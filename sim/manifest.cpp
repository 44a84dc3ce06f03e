#include "manifest.h"

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <sstream>

namespace sim {

bool parseNumber(const std::string& word, uint64_t& out)
{
    if (word.empty() || word[0] == '-' || word[0] == '+' || word[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(word.c_str(), &end, 0);
    if (errno != 0 || end == word.c_str() || *end != '\0') return false;
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

bool parseDrive(const std::vector<std::string>& w, Drive& d, std::string& why)
{
    for (size_t i = 1; i < w.size(); ++i) {
        size_t eq = w[i].find('=');
        if (eq == std::string::npos) {
            why = "field without '=': " + w[i];
            return false;
        }
        std::string key = w[i].substr(0, eq);
        std::string value = percentDecode(w[i].substr(eq + 1));
        uint64_t n = 0;
        bool numeric = parseNumber(value, n);
        if (key == "serial") d.serial = value;
        else if (key == "kind") d.kind = value;
        else if (key == "model") d.model = value;
        else if (key == "firmware") d.firmware = value;
        else if (key == "vendor") d.vendor = value;
        else if (key == "bay" && numeric && n < 4096) d.bay = static_cast<int>(n);
        else if (key == "sectors" && numeric && n < (1ULL << 40)) d.sectors = n;
        else if (key == "udma" && numeric && n <= 0xffff) d.udma = static_cast<uint16_t>(n);
        else if (key == "wcache" && numeric) d.writeCache = n != 0;
        else if (key == "xfer" && value == "-1") d.transferMode = -1;
        else if (key == "xfer" && numeric && n <= 0xff) d.transferMode = static_cast<int>(n);
        else if (key == "flushes" && numeric && n <= 0xffffffffULL) d.flushes = static_cast<unsigned>(n);
        else {
            why = "bad field " + w[i];
            return false;
        }
    }
    if (d.serial.empty()) {
        why = "drive without serial";
        return false;
    }
    if (d.kind != "ata" && d.kind != "scsi") {
        why = "unknown drive kind " + d.kind;
        return false;
    }
    return true;
}

} // namespace

Manifest Manifest::parse(const std::string& text, std::vector<std::string>* warnings)
{
    Manifest m;
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    auto warn = [&](const std::string& what) {
        if (warnings) warnings->push_back("manifest line " + std::to_string(lineNo) + ": " + what);
    };
    while (std::getline(in, line)) {
        ++lineNo;
        std::vector<std::string> w = words(line);
        if (w.empty() || w[0][0] == '#') continue;
        uint64_t a = 0, b = 0, c = 0;
        if (w[0] == "platform" && w.size() == 2) {
            if (w[1] == "-1") m.platform = -1;
            else if (parseNumber(w[1], a) && a < 1000000) m.platform = static_cast<int>(a);
            else warn("bad platform");
        } else if (w[0] == "module-serial" && w.size() == 2) {
            m.moduleSerial = percentDecode(w[1]);
        } else if (w[0] == "bay" && (w.size() == 5 || w.size() == 6)) {
            Bay bay;
            uint64_t parts = 15;
            if (!parseNumber(w[1], a) || a == 0 || a > 4096 || !parseNumber(w[3], b) || b > 4095 ||
                !parseNumber(w[4], c) || c > 0xfffff || w[2].empty() || w[2][0] != '/' ||
                (w.size() == 6 && (!parseNumber(w[5], parts) || parts > 255)) || m.bay(static_cast<int>(a))) {
                warn("bad bay");
                continue;
            }
            bay.number = static_cast<int>(a);
            bay.device = percentDecode(w[2]);
            bay.major = static_cast<unsigned>(b);
            bay.minor = static_cast<unsigned>(c);
            bay.maxPartitions = static_cast<unsigned>(parts);
            m.bays.push_back(bay);
        } else if (w[0] == "drive") {
            Drive d;
            std::string why;
            if (!parseDrive(w, d, why)) warn(why);
            else if (m.drive(d.serial)) warn("duplicate drive " + d.serial);
            else m.drives.push_back(d);
        } else {
            warn("unknown line");
        }
    }
    // Two drives in one bay: the later one goes to the shelf.
    for (size_t i = 0; i < m.drives.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (m.drives[i].bay != 0 && m.drives[i].bay == m.drives[j].bay) {
                warn("two drives in bay " + std::to_string(m.drives[i].bay));
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
        out << " udma=" << udma << " wcache=" << (d.writeCache ? 1 : 0) << " xfer=" << d.transferMode
            << " flushes=" << d.flushes << "\n";
    }
    return out.str();
}

} // namespace sim

#include "tavconfig/regfile.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <strings.h>

#include "tavconfig/scan32.h"
#include "tavconfig/tavassert.h"

namespace {

const char* const kBlanks = "\n\r\t ";

bool isBlank(char c) { return c != '\0' && std::strchr(kBlanks, c) != nullptr; }

// Copies text into out, cut at max characters (the original had no check).
void copyCut(char* out, const std::string& text, size_t max)
{
    size_t n = text.size() < max ? text.size() : max;
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

std::string cut(const char* text, size_t max)
{
    std::string s(text ? text : "");
    if (s.size() > max) s.resize(max);
    return s;
}

std::string trimmed(const std::string& s)
{
    size_t b = 0, e = s.size();
    while (b < e && isBlank(s[b])) ++b;
    while (e > b && isBlank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

std::string bracketed(const char* section)
{
    return "[" + cut(section, URegFile::kMaxName) + "]";
}

bool isComment(const char* line)
{
    while (isBlank(*line)) ++line;
    return *line == '#' || *line == '/' || *line == ';';
}

} // namespace

URegFile::URegFile() : pList(new TStringList), iLastLoc(0), iBadKeyCount(0), bOpen(false)
{
    pFileName[0] = '\0';
    std::memset(pBadKeyList, 0, sizeof pBadKeyList);
}

URegFile::~URegFile() { delete pList; }

const char* URegFile::line(int i) const
{
    const char* text = pList->Line(i);
    return text ? text : "";
}

bool URegFile::Open(const char* path)
{
    TAV_ASSERT(path);
    std::string name = cut(path, kMaxPath); // path lengths were unchecked; cut here
    copyCut(pFileName, name, kMaxPath);
    iLastLoc = 0;
    iBadKeyCount = 0;
    try {
        bOpen = pList->LoadFromFile(pFileName);
    } catch (...) {
        bOpen = false;
    }
    return bOpen;
}

bool URegFile::Open(const char* name, const char* dir)
{
    TAV_ASSERT(name);
    TAV_ASSERT(dir);
    // The backslash is the separator on every system, on purpose. The whole
    // path is cut at kMaxOpenPath characters, which the original did not check.
    std::string path = cut((std::string(dir) + "\\" + name).c_str(), kMaxOpenPath);
    return Open(path.c_str());
}

bool URegFile::Close()
{
    bOpen = false;
    return true;
}

bool URegFile::Reload()
{
    Close();
    std::string path(pFileName);
    Open(path.c_str());
    return true;
}

bool URegFile::SaveNow()
{
    // The outcome of the save is not reported here, only by SaveToFile.
    pList->SaveToFile(pFileName);
    return true;
}

bool URegFile::SaveAs(const char* path)
{
    TAV_ASSERT(path);
    copyCut(pFileName, cut(path, kMaxPath), kMaxPath);
    return SaveNow();
}

bool URegFile::GoTo(const char* section)
{
    TAV_ASSERT(section);
    std::string header = bracketed(section);
    for (int i = 0; i < pList->Count; ++i) {
        if (std::strncmp(line(i), header.c_str(), header.size()) == 0) {
            iLastLoc = i + 1;
            return true;
        }
    }
    return false;
}

bool URegFile::getNextSection(char* name)
{
    TAV_ASSERT(name);
    for (int i = firstLine(); i < pList->Count; ++i) {
        const char* text = line(i);
        const char* open = std::strchr(text, '[');
        if (!open || isComment(text)) continue;
        const char* begin = open + 1;
        const char* end = std::strchr(begin, '[');
        std::string found(begin, end ? static_cast<size_t>(end - begin) : std::strlen(begin));
        if (!found.empty()) found.pop_back(); // the "]" of a well-formed line
        copyCut(name, found, kMaxName);
        iLastLoc = i + 1;
        return true;
    }
    iLastLoc = 0;
    return false;
}

void URegFile::noteBadKey(const char* pKey)
{
    copyCut(pBadKeyList[iBadKeyCount], cut(pKey, kMaxBadKey), kMaxBadKey);
    // Stops at 19: the last row is overwritten from then on.
    if (iBadKeyCount <= kBadKeyRows - 2) ++iBadKeyCount;
}

const char* URegFile::getBadKey(int i) const
{
    return (i >= 0 && i < kBadKeyRows) ? pBadKeyList[i] : nullptr;
}

bool URegFile::getValue(const char* pKey, char* pValue, int strip)
{
    TAV_ASSERT(pKey);
    TAV_ASSERT(pValue);
    for (int i = firstLine(); i < pList->Count; ++i) {
        const char* text = line(i);
        if (std::strchr(text, '[')) {
            noteBadKey(pKey);
            return false;
        }
        const char* eq = std::strchr(text, '=');
        std::string key = trimmed(std::string(text, eq ? static_cast<size_t>(eq - text) : std::strlen(text)));
        if (key.size() > kMaxValue) key.resize(kMaxValue);
        if (key != pKey) continue;

        std::string value;
        if (eq) {
            const char* v = eq + 1;
            while (*v == ';') ++v;
            const char* semi = std::strchr(v, ';');
            value.assign(v, semi ? static_cast<size_t>(semi - v) : std::strlen(v));
        }
        if (value.size() > kMaxValue) value.resize(kMaxValue);

        if (strip & STRIP_LEADING) {
            size_t b = 0;
            while (b < value.size() && isBlank(value[b])) ++b;
            value.erase(0, b);
        }
        if (strip & STRIP_TRAILING) {
            while (!value.empty() && isBlank(value.back())) value.pop_back();
        }
        if (strip & STRIP_ALL) {
            std::string kept;
            for (char c : value)
                if (!isBlank(c)) kept += c;
            value = kept;
        }
        // Quotes come off whatever strip says.
        size_t first = value.find('"');
        size_t last = value.rfind('"');
        if (first != std::string::npos && last != first) value = value.substr(first + 1, last - first - 1);

        copyCut(pValue, value, kMaxValue);
        return true;
    }
    return false;
}

bool URegFile::getValue(const char* pKey, char* pValue, const char* fallback, int strip)
{
    if (getValue(pKey, pValue, strip)) return true;
    copyCut(pValue, cut(fallback, kMaxValue), kMaxValue);
    return false;
}

bool URegFile::getValue(const char* pKey, unsigned int* v)
{
    char text[kMaxValue + 1];
    uint32_t n;
    if (!getValue(pKey, text, 0) || !tavscan::scanUnsigned32(text, 10, &n)) return false;
    *v = n;
    return true;
}

// "%lu" on the 32-bit machine: a 32-bit unsigned long.
bool URegFile::getValue(const char* pKey, unsigned long* v)
{
    char text[kMaxValue + 1];
    uint32_t n;
    if (!getValue(pKey, text, 0) || !tavscan::scanUnsigned32(text, 10, &n)) return false;
    *v = n;
    return true;
}

bool URegFile::getValue(const char* pKey, int* v)
{
    char text[kMaxValue + 1];
    int32_t n;
    if (!getValue(pKey, text, 0) || !tavscan::scanInt32(text, &n)) return false;
    *v = n;
    return true;
}

bool URegFile::getValue(const char* pKey, float* v)
{
    char text[kMaxValue + 1];
    return getValue(pKey, text, 0) && std::sscanf(text, "%f", v) == 1;
}

bool URegFile::getValue(const char* pKey, double* v)
{
    char text[kMaxValue + 1];
    return getValue(pKey, text, 0) && std::sscanf(text, "%lf", v) == 1;
}

bool URegFile::getValue(const char* pKey, unsigned int* v, unsigned int fallback)
{
    if (getValue(pKey, v)) return true;
    *v = fallback;
    return false;
}

bool URegFile::getValue(const char* pKey, unsigned long* v, unsigned long fallback)
{
    if (getValue(pKey, v)) return true;
    *v = fallback;
    return false;
}

bool URegFile::getValue(const char* pKey, int* v, int fallback)
{
    if (getValue(pKey, v)) return true;
    *v = fallback;
    return false;
}

bool URegFile::getValue(const char* pKey, float* v, float fallback)
{
    if (getValue(pKey, v)) return true;
    *v = fallback;
    return false;
}

bool URegFile::getValue(const char* pKey, double* v, double fallback)
{
    if (getValue(pKey, v)) return true;
    *v = fallback;
    return false;
}

bool URegFile::getValue(const char* pKey, bool* v)
{
    char text[kMaxValue + 1];
    if (!getValue(pKey, text, STRIP_ALL)) return false;
    if (strcasecmp(text, "TRUE") == 0 || strcasecmp(text, "T") == 0) {
        *v = true;
        return true;
    }
    if (strcasecmp(text, "FALSE") == 0 || strcasecmp(text, "F") == 0) {
        *v = false;
        return true;
    }
    return false;
}

bool URegFile::getValue(const char* pKey, bool* v, bool fallback)
{
    if (getValue(pKey, v)) return true;
    *v = fallback;
    return false;
}

bool URegFile::getNextValue(const char* pKey, int* v) { return getValue(pKey, v); }

bool URegFile::getNextValue(const char* pKey, float* v) { return getValue(pKey, v); }

bool URegFile::getNextValue(const char* pKey, char* pValue)
{
    TAV_ASSERT(pKey);
    TAV_ASSERT(pValue);
    for (int i = firstLine(); i < pList->Count; ++i) {
        const char* text = line(i);
        if (std::strchr(text, '[')) return false;
        if (!std::strstr(text, pKey)) continue;
        const char* eq = std::strchr(text, '=');
        copyCut(pValue, eq ? std::string(eq + 1) : std::string(), kMaxValue);
        // One line on from where the cursor was, not behind the line found.
        ++iLastLoc;
        return true;
    }
    return false;
}

bool URegFile::isKey(const char* pKey)
{
    char value[kMaxValue + 1];
    return getValue(pKey, value, 0);
}

bool URegFile::setValue(const char* pKey, const char* pValue)
{
    TAV_ASSERT(pKey);
    TAV_ASSERT(pValue);
    // A whole line is cut at kMaxKeyLine characters; the original did not check.
    std::string entry = cut((std::string(pKey) + "=" + pValue + ";").c_str(), kMaxKeyLine);
    for (int i = firstLine(); i < pList->Count; ++i) {
        const char* text = line(i);
        if (std::strchr(text, '[')) {
            // Stored at the head of the section, yet reported as false: kept.
            pList->Insert(iLastLoc, entry.c_str());
            return false;
        }
        // A substring match: a key that is part of an earlier key replaces it.
        if (std::strstr(text, pKey)) {
            pList->Strings[i].Modify(entry.c_str());
            return true;
        }
    }
    pList->Insert(iLastLoc, entry.c_str());
    return true;
}

namespace {

// Numeric text is cut at kMaxNumber characters (a double printed with "%f"
// can be longer; the original did not check).
template <typename T>
std::string number(const char* format, T v)
{
    char text[URegFile::kMaxNumber + 1];
    std::snprintf(text, sizeof text, format, v);
    return text;
}

} // namespace

bool URegFile::setValue(const char* pKey, int v)
{
    setValue(pKey, number("%i", v).c_str());
    return true;
}

bool URegFile::setValue(const char* pKey, unsigned int v)
{
    setValue(pKey, number("%u", v).c_str());
    return true;
}

bool URegFile::setValue(const char* pKey, float v)
{
    setValue(pKey, number("%f", static_cast<double>(v)).c_str());
    return true;
}

bool URegFile::setValue(const char* pKey, double v)
{
    setValue(pKey, number("%f", v).c_str());
    return true;
}

bool URegFile::setValue(const char* pKey, bool v)
{
    setValue(pKey, v ? "TRUE" : "FALSE");
    return true;
}

bool URegFile::addKey(const char* pKey, const char* pValue)
{
    TAV_ASSERT(pKey);
    TAV_ASSERT(pValue);
    std::string entry = cut((std::string(pKey) + "=" + pValue).c_str(), kMaxKeyLine);
    pList->Insert(iLastLoc, entry.c_str());
    ++iLastLoc;
    return true;
}

bool URegFile::addKey(const char* pKey, int v) { return addKey(pKey, number("%i", v).c_str()); }

bool URegFile::addKey(const char* pKey, float v) { return addKey(pKey, number("%f", static_cast<double>(v)).c_str()); }

bool URegFile::addKey(const char* pKey, double v) { return addKey(pKey, number("%f", v).c_str()); }

bool URegFile::addSection(const char* section)
{
    TAV_ASSERT(section);
    if (pList->Add(bracketed(section).c_str()) < 0) return false;
    int empty = pList->Add("");
    if (empty < 0) return false;
    iLastLoc = empty;
    return true;
}

bool URegFile::renameSection(const char* from, const char* to)
{
    TAV_ASSERT(from);
    TAV_ASSERT(to);
    std::string old = bracketed(from);
    for (int i = 0; i < pList->Count; ++i) {
        if (old == line(i)) {
            pList->Strings[i].Modify(bracketed(to).c_str());
            return true;
        }
    }
    return false;
}

bool URegFile::removeSection(const char* section)
{
    TAV_ASSERT(section);
    std::string header = bracketed(section);
    for (int i = 0; i < pList->Count; ++i) {
        if (!std::strstr(line(i), header.c_str())) continue;
        pList->Delete(i);
        while (i < pList->Count && !std::strchr(line(i), '[')) pList->Delete(i);
        return true;
    }
    return false;
}

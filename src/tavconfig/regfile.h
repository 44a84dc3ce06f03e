// A line editor for small section-and-key files:
//
//     [SECTION]
//     key=value;  remark
//
// The file is held as its lines, kept exactly as they were except those that
// are changed, and every call searches the lines again from the cursor. The
// first line holding "[" anywhere ends a section.
//
// Value buffers given to the reads must hold kMaxValue + 1 characters;
// section names kMaxName + 1.
#pragma once

#include "tavconfig/tstringlist.h"

class URegFile {
public:
    static constexpr int kMaxPath = 999;       // pFileName
    static constexpr int kMaxOpenPath = 511;   // dir, backslash and name of Open(name, dir)
    static constexpr int kMaxValue = 99;       // keys and values at reads
    static constexpr int kMaxName = 99;        // section names
    static constexpr int kMaxKeyLine = 255;    // a line built by setValue or addKey
    static constexpr int kMaxNumber = 199;     // numeric text of setValue and addKey
    static constexpr int kBadKeyRows = 20;
    static constexpr int kMaxBadKey = 49;

    // The bits of strip: leading, trailing and all characters of "\n\r\t ".
    enum { STRIP_LEADING = 1, STRIP_TRAILING = 2, STRIP_ALL = 4 };

    URegFile();
    ~URegFile();
    URegFile(const URegFile&) = delete;
    URegFile& operator=(const URegFile&) = delete;

    bool Open(const char* path);
    // Opens dir + "\" + name: the backslash on every system, on purpose.
    bool Open(const char* name, const char* dir);
    bool Close();
    bool isOpen() const { return bOpen; }
    bool Reload();
    bool SaveNow();
    bool SaveAs(const char* path);

    void goHead() { iLastLoc = 0; }
    void goTail() { iLastLoc = pList->Count - 1; }
    bool GoTo(const char* section);
    bool getNextSection(char* name);

    bool getValue(const char* pKey, char* pValue, int strip);
    bool getValue(const char* pKey, char* pValue, const char* fallback, int strip);
    bool getValue(const char* pKey, unsigned int* v);
    bool getValue(const char* pKey, unsigned long* v);
    bool getValue(const char* pKey, int* v);
    bool getValue(const char* pKey, float* v);
    bool getValue(const char* pKey, double* v);
    bool getValue(const char* pKey, unsigned int* v, unsigned int fallback);
    bool getValue(const char* pKey, unsigned long* v, unsigned long fallback);
    bool getValue(const char* pKey, int* v, int fallback);
    bool getValue(const char* pKey, float* v, float fallback);
    bool getValue(const char* pKey, double* v, double fallback);
    bool getValue(const char* pKey, bool* v);
    bool getValue(const char* pKey, bool* v, bool fallback);

    bool getNextValue(const char* pKey, int* v);
    bool getNextValue(const char* pKey, float* v);
    bool getNextValue(const char* pKey, char* pValue);

    bool isKey(const char* pKey);

    bool setValue(const char* pKey, const char* pValue);
    bool setValue(const char* pKey, int v);
    bool setValue(const char* pKey, unsigned int v);
    bool setValue(const char* pKey, float v);
    bool setValue(const char* pKey, double v);
    bool setValue(const char* pKey, bool v);

    bool addKey(const char* pKey, const char* pValue);
    bool addKey(const char* pKey, int v);
    bool addKey(const char* pKey, float v);
    bool addKey(const char* pKey, double v);

    bool addSection(const char* section);
    bool renameSection(const char* from, const char* to);
    bool removeSection(const char* section);

    int getBadKeyCount() const { return iBadKeyCount; }
    // Row i of the bad-key list, null outside the rows.
    const char* getBadKey(int i) const;

    TStringList* pList;
    char pFileName[kMaxPath + 1];
    int iLastLoc;
    char pBadKeyList[kBadKeyRows][kMaxBadKey + 1];
    int iBadKeyCount;
    bool bOpen;

private:
    const char* line(int i) const;
    int firstLine() const { return iLastLoc < 0 ? 0 : iLastLoc; }
    void noteBadKey(const char* pKey);
};

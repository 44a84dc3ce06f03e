// The ELF facts a module check needs: is it ELF, is it a shared object, and
// where its data ends (E, the end of the last section that has file bytes).
#pragma once

class tav_elf {
public:
    tav_elf();

    // Reads the header and the section table of `filename`; throws tav_error
    // with "fopen error", "fread elf_hdr error" or "failed reading elf tables".
    void init(const char* filename);

    int isElfFormat() const { return _isElfFormat; }
    int isSharedObject() const { return _isSharedObject; }
    unsigned int size() const { return _size; }

private:
    int _isElfFormat;
    int _isSharedObject;
    unsigned int _size;
};

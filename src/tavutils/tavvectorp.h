// A growable array of pointers that does not own its elements: whoever
// removes an element deletes it. Grows by a constant chunksize.
#pragma once

#include <cstring>

#include "tavutils/tav_error.h"

template <typename T>
class TavVectorP {
public:
    explicit TavVectorP(int chunk) : nitems(0), chunksize(chunk), arraysize(chunk), array(nullptr)
    {
        try {
            array = new T*[arraysize]();
        } catch (...) {
            throw tav_enomem("new failed");
        }
    }
    TavVectorP(const TavVectorP&) = delete;
    TavVectorP& operator=(const TavVectorP&) = delete;
    virtual ~TavVectorP() { delete[] array; }

    void add(T* item)
    {
        if (nitems < arraysize) {
            array[nitems++] = item;
            return;
        }
        T** grown;
        try {
            grown = new T*[arraysize + chunksize]();
        } catch (...) {
            throw tav_enomem("new failed");
        }
        std::memcpy(grown, array, sizeof(T*) * static_cast<size_t>(arraysize));
        delete[] array;
        array = grown;
        arraysize += chunksize;
        add(item);
    }

    T* operator[](int i) const { return (i < 0 || i >= nitems) ? nullptr : array[i]; }

    int size() const { return nitems; }
    int capacity() const { return arraysize; }

    // Takes element i out and closes the gap. The move covers the tail of the
    // whole allocated array, not only the used part; the last slot, left
    // holding a copy by the move, is cleared so the array stays zero beyond
    // nitems.
    T* remove(int i)
    {
        if (i < 0 || i >= nitems) return nullptr;
        T* item = array[i];
        std::memmove(array + i, array + i + 1, sizeof(T*) * static_cast<size_t>(arraysize - i - 1));
        array[arraysize - 1] = nullptr;
        --nitems;
        return item;
    }

private:
    int nitems;
    int chunksize;
    int arraysize;
    T** array;
};

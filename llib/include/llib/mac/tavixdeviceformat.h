// Format records: one pixel format and frame size, or one audio format; a set that collects
// distinct records and sorts them largest frame first; ready-made enumerators that collect or
// check what TavixDeviceFormatEnumerate reports; and the nodes of the library's per-device
// format caches. Plain data and logic, usable by a C++ host.
#pragma once

#include <strings.h>

#include <cstring>

#include "llib/gen/list.h"
#include "llib/mac/tavix.h"

class TavixDeviceFormat {
public:
    TavixDeviceFormat() : dwFormat(0), dwWidth(0), dwHeight(0), dwBytesPerRow(0) {}
    TavixDeviceFormat(unsigned int format, unsigned int width, unsigned int height,
                      unsigned int bytesPerRow)
        : dwFormat(format), dwWidth(width), dwHeight(height), dwBytesPerRow(bytesPerRow) {}
    TavixDeviceFormat(const TavixDeviceFormat&) = default;
    TavixDeviceFormat& operator=(const TavixDeviceFormat&) = default;
    bool operator==(const TavixDeviceFormat& other) const {
        return dwFormat == other.dwFormat && dwWidth == other.dwWidth &&
               dwHeight == other.dwHeight && dwBytesPerRow == other.dwBytesPerRow;
    }

    unsigned int dwFormat;
    unsigned int dwWidth;
    unsigned int dwHeight;
    unsigned int dwBytesPerRow;
};

// Up to 64 distinct records (room for 65), sortable largest frame first.
class TavixDeviceFormatSet {
public:
    enum { kCapacity = 65, kMaxRecords = 64 };
    TavixDeviceFormatSet() : dwCount(0) {}
    // False when an equal record is present or the set is full.
    bool Add(const TavixDeviceFormat& format);
    void Sort();
    static int CompareFunc(const void* a, const void* b);
    const TavixDeviceFormat& operator[](unsigned long index) const { return Formats[index]; }

    TavixDeviceFormat Formats[kCapacity];
    unsigned int dwCount;
};

class TavixDeviceFormatEnumeratorVoid : public ITavixDeviceFormatEnumerator {
public:
    bool OnDeviceFormatAudio(unsigned long) override { return true; }
    bool OnDeviceFormatVideo(unsigned long, unsigned long, unsigned long) override { return true; }
};

class TavixDeviceFormatChecker : public TavixDeviceFormatEnumeratorVoid {
public:
    bool OnDeviceFormatAudio(unsigned long) override {
        bHasAudio = true;
        return true;
    }
    bool OnDeviceFormatVideo(unsigned long, unsigned long, unsigned long) override {
        bHasVideo = true;
        return true;
    }
    bool bHasVideo = false;
    bool bHasAudio = false;
};

class TavixDeviceVideoFormatChecker : public TavixDeviceFormatEnumeratorVoid {
public:
    TavixDeviceVideoFormatChecker(unsigned int format, unsigned int width, unsigned int height)
        : dwFormat(format), dwWidth(width), dwHeight(height) {}
    bool OnDeviceFormatVideo(unsigned long, unsigned long width, unsigned long height) override {
        if (width == dwWidth && height == dwHeight)
            bFound = true;
        return true;
    }
    unsigned int dwFormat, dwWidth, dwHeight;
    bool bFound = false;
};

class TavixDeviceFormatHolder : public ITavixDeviceFormatEnumerator {
public:
    bool OnDeviceFormatAudio(unsigned long format) override;
    bool OnDeviceFormatVideo(unsigned long format, unsigned long width,
                             unsigned long height) override;
    void Sort();
    bool IsValid() const { return AudioFormats.dwCount > 0 || VideoFormats.dwCount > 0; }
    void EnumerateFormats(ITavixDeviceFormatEnumerator& enumerator) const;

    TavixDeviceFormatSet AudioFormats;
    TavixDeviceFormatSet VideoFormats;
};

// A node of a per-device cache.
template <class T>
class TavixDeviceData : public LListable {
public:
    explicit TavixDeviceData(const char* deviceID) : Data() {
        szDeviceID[0] = 0;
        if (deviceID != nullptr) {
            strncpy(szDeviceID, deviceID, sizeof szDeviceID - 1);
            szDeviceID[sizeof szDeviceID - 1] = 0;
        }
    }
    char szDeviceID[260];
    T Data;
};

// The Data of the first node whose id equals deviceID ignoring ASCII case; null if none.
template <class T>
T* TavixFindDeviceData(LList<TavixDeviceData<T>>& list, const char* deviceID) {
    for (LListIterator<TavixDeviceData<T>> it(list); TavixDeviceData<T>* node = it.Next();)
        if (deviceID != nullptr && strcasecmp(node->szDeviceID, deviceID) == 0)
            return &node->Data;
    return nullptr;
}

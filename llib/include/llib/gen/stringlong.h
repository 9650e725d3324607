// Growable strings and the writers through which the formatted-output engine and the encoders
// put characters into a fixed buffer or a growable string. Not thread-safe: each object belongs
// to one thread at a time.
#pragma once

#include <cstddef>
#include <cstring>

// A growable, NUL-terminated string of T: char (UTF-8 or a single-byte code page), unsigned
// short (UTF-16 units) or wchar_t (UTF-32). Whenever pData is set, nLength < nSize and
// pData[nLength] is 0. Grows only when asked, to exactly the size asked, and never shrinks.
template <class T>
class LStringLongTemplate {
public:
    LStringLongTemplate() = default;
    // Allocates exactly `capacity` characters (at least 1) holding an empty text.
    explicit LStringLongTemplate(unsigned int capacity) {
        if (capacity < 1)
            capacity = 1;
        pData = new T[capacity];
        pData[0] = 0;
        nSize = capacity;
    }
    ~LStringLongTemplate() { delete[] pData; }
    LStringLongTemplate(const LStringLongTemplate&) = delete;
    LStringLongTemplate& operator=(const LStringLongTemplate&) = delete;

    // Makes room for `size` characters, the terminator included; keeps the text. Does nothing
    // when the string is that large already. The new buffer is installed only once it is
    // allocated and filled, so on an allocation failure the string keeps its old buffer.
    void GrowToSize(unsigned int size) {
        if (nSize >= size)
            return;
        T* grown = new T[size];
        if (pData != nullptr)
            memcpy(grown, pData, nLength * sizeof(T));
        grown[nLength] = 0;
        T* old = pData;
        pData = grown;
        nSize = size;
        delete[] old;
    }

    // Takes over other's buffer without copying characters; other is left empty (null, 0, 0).
    void Assign(LStringLongTemplate& other) {
        if (&other == this)
            return;
        delete[] pData;
        pData = other.pData;
        nLength = other.nLength;
        nSize = other.nSize;
        other.pData = nullptr;
        other.nLength = 0;
        other.nSize = 0;
    }

    // Copies a NUL-terminated text into a buffer of exactly its length + 1 (also when the text
    // lies inside this string's own buffer). A null text makes the string an empty text.
    LStringLongTemplate& operator=(const T* text) {
        unsigned int length = 0;
        if (text != nullptr)
            while (text[length] != 0)
                ++length;
        T* copy = new T[length + 1];
        if (length > 0)
            memcpy(copy, text, length * sizeof(T));
        copy[length] = 0;
        delete[] pData;
        pData = copy;
        nLength = length;
        nSize = length + 1;
        return *this;
    }

    // Takes a new length when it fits the buffer (length < nSize) and terminates the text
    // there; a larger length leaves the string unchanged.
    void SetLength(unsigned int length) {
        if (pData == nullptr || length >= nSize)
            return;
        nLength = length;
        pData[length] = 0;
    }

    unsigned int GetLength() const { return nLength; }
    // The text, or an empty text when there is no buffer.
    const T* GetText() const {
        static const T empty[1] = {0};
        return pData != nullptr ? pData : empty;
    }

    T* pData = nullptr;
    unsigned int nLength = 0;
    unsigned int nSize = 0;
};

typedef LStringLongTemplate<char> LStringLong;
typedef LStringLongTemplate<unsigned short> LStringLongUnicode;
typedef LStringLongTemplate<wchar_t> LStringLongUTF32;

// Lets a growable string stand where a UTF-8 C string is expected.
class LUTF8StringLongRef {
public:
    explicit LUTF8StringLongRef(const LStringLongTemplate<char>& string)
        : pText(string.pData != nullptr ? string.pData : "") {}
    operator const char*() const { return pText; }
    const char* pText;
};

// Writes into a caller's fixed buffer, dropping what does not fit. Never writes the terminator:
// whoever set it up writes 0 at pBuffer[nPos] when done.
template <class T>
class LFixedLengthStringWriterTemplate {
public:
    // bufferSize counts the terminator: at most bufferSize - 1 characters are stored.
    LFixedLengthStringWriterTemplate(T* buffer, unsigned int bufferSize)
        : pBuffer(buffer), nPos(0), nMax(bufferSize > 0 ? bufferSize - 1 : 0) {}

    void Put(T c) {
        if (nPos < nMax)
            pBuffer[nPos++] = c;
    }
    // Puts count characters at once; the same as count Puts.
    void PutRun(const T* text, size_t count) {
        const size_t room = nMax - nPos;
        if (count > room)
            count = room;
        memcpy(pBuffer + nPos, text, count * sizeof(T));
        nPos += static_cast<unsigned int>(count);
    }
    unsigned int GetCount() const { return nPos; }
    void Terminate() { pBuffer[nPos] = 0; }

    T* pBuffer;
    unsigned int nPos;
    unsigned int nMax;
};

// Shared by the two growable-string writers: each put stores at pData[nLength] and grows the
// string fourfold when its length reaches the allocated size.
template <class T>
class LStringLongTemplateWriterBase {
public:
    explicit LStringLongTemplateWriterBase(LStringLongTemplate<T>& string) : String(string) {}

    void Put(T c) {
        String.pData[String.nLength++] = c;
        if (String.nLength >= String.nSize)
            Grow();
    }
    void PutRun(const T* text, size_t count) {
        while (count > 0) {
            // Room before the length reaches the size: the last slot is kept for the growth
            // step a single Put would have taken.
            size_t room = String.nSize - String.nLength;
            size_t step = count < room ? count : room;
            memcpy(String.pData + String.nLength, text, step * sizeof(T));
            String.nLength += static_cast<unsigned int>(step);
            text += step;
            count -= step;
            if (String.nLength >= String.nSize)
                Grow();
        }
    }
    unsigned int GetCount() const { return String.nLength; }
    void Terminate() { String.pData[String.nLength] = 0; }

    LStringLongTemplate<T>& String;

private:
    void Grow() { String.GrowToSize(String.nSize > 0x3FFFFFFFu ? 0xFFFFFFFFu : String.nSize * 4); }
};

// Replaces the string's contents. The caller grows the string to at least 260 characters and
// sets its length to 0 before writing.
template <class T>
class LStringLongTemplateWriter : public LStringLongTemplateWriterBase<T> {
public:
    explicit LStringLongTemplateWriter(LStringLongTemplate<T>& string)
        : LStringLongTemplateWriterBase<T>(string) {}
};

// Appends to the string: grows it to at least 260 characters and keeps its text.
template <class T>
class LStringLongTemplateAppender : public LStringLongTemplateWriterBase<T> {
public:
    explicit LStringLongTemplateAppender(LStringLongTemplate<T>& string)
        : LStringLongTemplateWriterBase<T>(string) {
        string.GrowToSize(260);
    }
};

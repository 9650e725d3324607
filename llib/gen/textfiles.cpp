#include "llib/gen/textfiles.h"

#include <sys/stat.h>

#include <cstring>
#include <vector>

#include "llib/gen/charsets.h"
#include "llib/gen/file.h"
#include "llib/unix/filehandle.h"

namespace {

constexpr unsigned int kReadWaitMs = 1000;
constexpr unsigned int kWriteWaitMs = 500;

unsigned int FileSize(const LFileRef& file) {
    struct stat info {};
    return fstat(file.hFile, &info) == 0 ? static_cast<unsigned int>(info.st_size) : 0;
}

unsigned short Swapped(unsigned short unit) {
    return static_cast<unsigned short>((unit << 8) | (unit >> 8));
}

// The units of a UTF-16 file, terminated; honouring the mark when asked.
bool LoadUnits(const char* path, LStringLongTemplate<char>& text, bool honourMark) {
    LReadFile file(path, kReadWaitMs);
    if (!file.IsValid())
        return false;
    const unsigned int count = FileSize(file) / 2; // an odd last byte is ignored
    std::vector<unsigned short> units(static_cast<size_t>(count) + 1, 0);
    file._Read(units.data(), count * 2);
    units[count] = 0;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(units.data());
    size_t start = 0;
    if (honourMark && count >= 1 && bytes[0] == 0xFE && bytes[1] == 0xFF) {
        for (unsigned int i = 1; i < count; ++i)
            units[i] = Swapped(units[i]);
        start = 1;
    } else if (honourMark && count >= 1 && bytes[0] == 0xFF && bytes[1] == 0xFE) {
        start = 1;
    }
    LCopyFromUnicode(text, units.data() + start);
    return true;
}

void WriteAll(LWriteFileRef& file, const char* bytes, unsigned int length) {
    if (length > 0)
        file._Write(bytes, length);
}

} // namespace

bool LLoadText(const char* path, LStringLongTemplate<char>& text) {
    LReadFile file(path, kReadWaitMs);
    if (!file.IsValid())
        return false;
    const unsigned int size = FileSize(file);
    text.GrowToSize(size + 1);
    file._Read(text.pData, size);
    text.pData[size] = 0;
    text.nLength = size;
    return true;
}

bool LLoadTextUnicode(const char* path, LStringLongTemplate<char>& text) {
    return LoadUnits(path, text, true);
}

bool LLoadTextAsUTF16(const char* path, LStringLongTemplate<char>& text) {
    return LoadUnits(path, text, false);
}

bool LLoadTextAutoChar(const char* path, LStringLongTemplate<char>& text) {
    LStringLongTemplate<char> raw;
    if (!LLoadText(path, raw))
        return false;
    const auto* bytes = reinterpret_cast<unsigned char*>(raw.pData);
    const unsigned int length = raw.nLength;
    if (length >= 2 &&
        ((bytes[0] == 0xFE && bytes[1] == 0xFF) || (bytes[0] == 0xFF && bytes[1] == 0xFE))) {
        const bool bigEndian = bytes[0] == 0xFE; // read before growing moves the buffer
        // Two zero bytes end the last unit, also for an odd byte count.
        raw.GrowToSize(length + 3);
        raw.pData[length] = 0;
        raw.pData[length + 1] = 0;
        raw.pData[length + 2] = 0;
        const size_t unitCount = (length + 2 - 2) / 2;
        std::vector<unsigned short> units(unitCount + 1, 0);
        memcpy(units.data(), raw.pData + 2, unitCount * 2);
        if (bigEndian)
            for (size_t i = 0; i < unitCount; ++i)
                units[i] = Swapped(units[i]);
        LCopyFromUnicode(text, units.data());
        return true;
    }
    if (length > 2 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
        text.SetLength(0);
        text.GrowToSize(length - 3 + 1);
        memcpy(text.pData, raw.pData + 3, length - 3);
        text.pData[length - 3] = 0;
        text.nLength = length - 3;
        return true;
    }
    text.Assign(raw);
    return true;
}

int LSaveText(const char* path, const char* text) {
    {
        LWriteFile file(path, kWriteWaitMs);
        WriteAll(file, text, text != nullptr ? static_cast<unsigned int>(strlen(text)) : 0);
    }
    return LFile::SetFileAttributeTextEncodingUTF8(path);
}

int LSaveText(const char* path, const LStringLongTemplate<char>& text) {
    {
        LWriteFile file(path, kWriteWaitMs);
        WriteAll(file, text.pData, text.nLength);
    }
    return LFile::SetFileAttributeTextEncodingUTF8(path);
}

int LSaveAppendText(const char* path, const char* text) {
    {
        LWriteFile file;
        file.OpenAppendAlways(path, kWriteWaitMs);
        WriteAll(file, text, text != nullptr ? static_cast<unsigned int>(strlen(text)) : 0);
    }
    return LFile::SetFileAttributeTextEncodingUTF8(path);
}

int LSaveAppendText(const char* path, const LStringLongTemplate<char>& text) {
    {
        LWriteFile file;
        file.OpenAppendAlways(path, kWriteWaitMs);
        WriteAll(file, text.pData, text.nLength);
    }
    return LFile::SetFileAttributeTextEncodingUTF8(path);
}

void LSaveTextAsUnicodeBOM(const char* path, const LStringLongTemplate<char>& text) {
    LWriteFile file(path, kWriteWaitMs);
    if (!file.IsValid())
        return;
    const unsigned char mark[2] = {0xFF, 0xFE};
    file._Write(mark, 2);
    std::vector<unsigned short> units(static_cast<size_t>(text.nLength) + 1, 0);
    LCopyUnicodeFromUTF8(units.data(), text.pData != nullptr ? text.pData : "", text.nLength + 1);
    size_t count = 0;
    while (count < units.size() && units[count] != 0)
        ++count;
    if (count > 0)
        file._Write(units.data(), static_cast<unsigned int>(count * 2));
}

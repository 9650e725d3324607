// LCFString and LUnicodeString: UTF-8, UTF-16 and UTF-32 text through the platform's strings.
#include <cstring>
#include <vector>

#include "llib/gen/charsets.h"
#include "llib/mac/cfutils.h"
#include "platform/cfstring.h"

namespace {

// Joins the surrogate pairs of 16-bit text into single characters; a surrogate without its
// partner is kept as it is. The library's plain widening copies unit by unit.
void JoinSurrogates(LStringLongTemplate<wchar_t>& out, const std::vector<UniChar>& units) {
    out.GrowToSize(static_cast<unsigned int>(units.size()) + 1);
    unsigned int length = 0;
    for (size_t i = 0; i < units.size(); ++i) {
        wchar_t character = units[i];
        if (units[i] >= 0xD800 && units[i] <= 0xDBFF && i + 1 < units.size() &&
            units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
            character = 0x10000 + ((units[i] - 0xD800) << 10) + (units[i + 1] - 0xDC00);
            ++i;
        }
        out.pData[length++] = character;
    }
    out.SetLength(length);
}

void CopyWide(wchar_t* destination, const wchar_t* source, unsigned long size) {
    if (size == 0)
        return;
    unsigned long i = 0;
    for (; i + 1 < size && source[i] != 0; ++i)
        destination[i] = source[i];
    destination[i] = 0;
}

unsigned long UnitCount(const unsigned short* text) {
    unsigned long count = 0;
    while (text[count] != 0)
        ++count;
    return count;
}

} // namespace

LCFString::LCFString(const unsigned short* text) {
    if (text != nullptr)
        String = CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(text),
                                         static_cast<CFIndex>(UnitCount(text) * 2),
                                         kCFStringEncodingUnicode, false);
}

void LCFString::SetString(const char* utf8) {
    // A string already held is released rather than leaked.
    Release();
    if (utf8 == nullptr)
        return;
    const size_t length = strlen(utf8);
    String = CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(utf8),
                                     static_cast<CFIndex>(length), kCFStringEncodingUTF8, false);
    if (String == nullptr)
        String = CFStringCreateWithCString(nullptr, utf8, kCFStringEncodingUTF8);
    if (String != nullptr)
        return;
    // Not valid UTF-8: decoded leniently, so the caller still gets the readable part.
    std::vector<unsigned short> units(length + 1);
    LCopyUnicodeFromUTF8(units.data(), utf8, static_cast<unsigned long>(length + 1));
    String = CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(units.data()),
                                     static_cast<CFIndex>(UnitCount(units.data()) * 2),
                                     kCFStringEncodingUnicode, false);
}

void LCFString::GetString(LStringLongTemplate<char>& out) const {
    out.SetLength(0);
    if (String == nullptr)
        return;
    const unsigned int size = static_cast<unsigned int>(CFStringGetLength(String)) * 6 + 1;
    out.GrowToSize(size);
    if (CFStringGetCString(String, out.pData, size, kCFStringEncodingUTF8))
        out.SetLength(static_cast<unsigned int>(strlen(out.pData)));
    else
        out.SetLength(0);
}

void LCFString::GetString(char* out, unsigned long size) const {
    if (size == 0)
        return;
    out[0] = 0;
    if (String == nullptr)
        return;
    LStringLongTemplate<char> text;
    GetString(text);
    utf8strlcpy(out, text.GetText(), size);
}

void LCFString::GetString(LStringLongTemplate<wchar_t>& out) const {
    out.SetLength(0);
    if (String == nullptr)
        return;
    const CFIndex length = CFStringGetLength(String);
    std::vector<UniChar> units(static_cast<size_t>(length));
    if (length > 0)
        CFStringGetCharacters(String, CFRange{0, length}, units.data());
    JoinSurrogates(out, units);
}

void LCFString::GetString(wchar_t* out, unsigned long size) const {
    if (size == 0)
        return;
    out[0] = 0;
    if (String == nullptr)
        return;
    LStringLongTemplate<wchar_t> text;
    GetString(text);
    CopyWide(out, text.GetText(), size);
}

void LCFString::Release() {
    CFRelease(String);
    String = nullptr;
}

void LUnicodeString::GetString(LStringLongTemplate<char>& out) const {
    out.SetLength(0);
    if (pText == nullptr || pText[0] == 0)
        return;
    LCFString(pText).GetString(out);
}

void LUnicodeString::GetString(LStringLongTemplate<wchar_t>& out) const {
    out.SetLength(0);
    if (pText == nullptr || pText[0] == 0)
        return;
    LCFString(pText).GetString(out);
}

#include "platform/cfstring.h"

#include <cstring>
#include <new>
#include <string>

#include "cfruntime.h"

struct __CFString : __CFRuntimeBase {
    std::u16string units;
};

namespace {

// Code page 1252 from 0x80 to 0x9F; the rest of the code page is Latin-1. The five undefined
// bytes map to the control characters of the same value, as Windows' own conversion does.
const char16_t kWindowsLatin1High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// Strict UTF-8: every sequence in its shortest form, no surrogates, nothing above U+10FFFF.
bool DecodeUTF8(const UInt8* bytes, CFIndex count, std::u16string& out) {
    out.clear();
    CFIndex i = 0;
    while (i < count) {
        const UInt8 lead = bytes[i];
        int extra;
        char32_t value, minimum;
        if (lead < 0x80) {
            extra = 0, value = lead, minimum = 0;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            extra = 1, value = lead & 0x1F, minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            extra = 2, value = lead & 0x0F, minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            extra = 3, value = lead & 0x07, minimum = 0x10000;
        } else {
            return false;
        }
        if (count - i <= extra)
            return false;
        for (int k = 1; k <= extra; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80)
                return false;
            value = value << 6 | (bytes[i + k] & 0x3F);
        }
        if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
            return false;
        if (value >= 0x10000) {
            value -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(value));
        }
        i += extra + 1;
    }
    return true;
}

// UTF-16 to UTF-8, pairing surrogates; false for a surrogate without its partner.
bool EncodeUTF8(const std::u16string& units, std::string& out) {
    out.clear();
    for (size_t i = 0; i < units.size(); ++i) {
        char32_t value = units[i];
        if (value >= 0xD800 && value <= 0xDFFF) {
            if (value > 0xDBFF || i + 1 >= units.size() || units[i + 1] < 0xDC00 ||
                units[i + 1] > 0xDFFF)
                return false;
            value = 0x10000 + ((value - 0xD800) << 10) + (units[++i] - 0xDC00);
        }
        if (value < 0x80) {
            out.push_back(static_cast<char>(value));
        } else if (value < 0x800) {
            out.push_back(static_cast<char>(0xC0 | value >> 6));
            out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
        } else if (value < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | value >> 12));
            out.push_back(static_cast<char>(0x80 | (value >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | value >> 18));
            out.push_back(static_cast<char>(0x80 | (value >> 12 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (value >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
        }
    }
    return true;
}

// The string in a single-byte encoding or UTF-8, without terminator; false when a character
// cannot be represented or the encoding is not one of those.
bool EncodeBytes(const std::u16string& units, CFStringEncoding encoding, std::string& out) {
    switch (encoding) {
    case kCFStringEncodingUTF8:
        return EncodeUTF8(units, out);
    case kCFStringEncodingISOLatin1:
        out.resize(units.size());
        for (size_t i = 0; i < units.size(); ++i) {
            if (units[i] > 0xFF)
                return false;
            out[i] = static_cast<char>(units[i]);
        }
        return true;
    case kCFStringEncodingWindowsLatin1:
        out.resize(units.size());
        for (size_t i = 0; i < units.size(); ++i) {
            const char16_t unit = units[i];
            if (unit < 0x80 || (unit >= 0xA0 && unit <= 0xFF)) {
                out[i] = static_cast<char>(unit);
                continue;
            }
            int found = -1;
            for (int b = 0; b < 32 && found < 0; ++b)
                if (kWindowsLatin1High[b] == unit)
                    found = b;
            if (found < 0)
                return false;
            out[i] = static_cast<char>(0x80 + found);
        }
        return true;
    default:
        return false;
    }
}

bool Decode(const UInt8* bytes, CFIndex count, CFStringEncoding encoding, std::u16string& out) {
    switch (encoding) {
    case kCFStringEncodingUTF8:
        return DecodeUTF8(bytes, count, out);
    case kCFStringEncodingISOLatin1:
        out.resize(static_cast<size_t>(count));
        for (CFIndex i = 0; i < count; ++i)
            out[i] = bytes[i];
        return true;
    case kCFStringEncodingWindowsLatin1:
        out.resize(static_cast<size_t>(count));
        for (CFIndex i = 0; i < count; ++i)
            out[i] = bytes[i] >= 0x80 && bytes[i] < 0xA0 ? kWindowsLatin1High[bytes[i] - 0x80]
                                                         : char16_t(bytes[i]);
        return true;
    case kCFStringEncodingUnicode: {
        if (count % 2 != 0)
            return false;
        size_t n = static_cast<size_t>(count) / 2;
        out.resize(n);
        if (n > 0)
            memcpy(&out[0], bytes, n * 2);
        bool swapped = false;
        if (n > 0 && (out[0] == 0xFEFF || out[0] == 0xFFFE)) {
            swapped = out[0] == 0xFFFE;
            out.erase(0, 1);
        }
        if (swapped)
            for (char16_t& unit : out)
                unit = static_cast<char16_t>(unit << 8 | unit >> 8);
        return true;
    }
    default:
        return false;
    }
}

} // namespace

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex numBytes,
                                    CFStringEncoding encoding, Boolean) {
    if (numBytes < 0 || (bytes == nullptr && numBytes > 0))
        return nullptr;
    __CFString* string = new (std::nothrow) __CFString;
    if (string == nullptr)
        return nullptr;
    if (!Decode(bytes, numBytes, encoding, string->units)) {
        delete string;
        return nullptr;
    }
    return string;
}

Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) {
    if (string == nullptr || buffer == nullptr || bufferSize <= 0)
        return false;
    const std::u16string& units = string->units;
    const size_t n = units.size();
    if (encoding == kCFStringEncodingUnicode) {
        if ((n + 1) * 2 > static_cast<size_t>(bufferSize))
            return false;
        if (n > 0)
            memcpy(buffer, units.data(), n * 2);
        buffer[n * 2] = 0;
        buffer[n * 2 + 1] = 0;
        return true;
    }
    std::string bytes;
    if (!EncodeBytes(units, encoding, bytes) || bytes.size() + 1 > static_cast<size_t>(bufferSize))
        return false;
    memcpy(buffer, bytes.data(), bytes.size());
    buffer[bytes.size()] = 0;
    return true;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding) {
    if (text == nullptr || encoding == kCFStringEncodingUnicode)
        return nullptr;
    return CFStringCreateWithBytes(allocator, reinterpret_cast<const UInt8*>(text),
                                   static_cast<CFIndex>(strlen(text)), encoding, false);
}

void CFStringGetCharacters(CFStringRef string, CFRange range, UniChar* buffer) {
    if (string == nullptr || buffer == nullptr || range.location < 0 || range.length <= 0 ||
        static_cast<size_t>(range.location + range.length) > string->units.size())
        return;
    memcpy(buffer, string->units.data() + range.location,
           static_cast<size_t>(range.length) * sizeof(UniChar));
}

Boolean CFStringGetPascalString(CFStringRef string, StringPtr buffer, CFIndex bufferSize,
                                CFStringEncoding encoding) {
    std::string bytes;
    if (string == nullptr || buffer == nullptr || !EncodeBytes(string->units, encoding, bytes) ||
        bytes.size() > 255 || bytes.size() + 1 > static_cast<size_t>(bufferSize))
        return false;
    buffer[0] = static_cast<unsigned char>(bytes.size());
    memcpy(buffer + 1, bytes.data(), bytes.size());
    return true;
}

CFStringEncoding CFStringGetSystemEncoding() {
    return kCFStringEncodingUTF8;
}

CFIndex CFStringGetLength(CFStringRef string) {
    return string != nullptr ? static_cast<CFIndex>(string->units.size()) : 0;
}

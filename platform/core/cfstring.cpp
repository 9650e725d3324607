#include "platform/cfstring.h"

#include <cstring>
#include <new>
#include <string>

struct __CFString {
    std::u16string units;
};

namespace {

// Code page 1252 from 0x80 to 0x9F; the rest of the code page is Latin-1. The five undefined
// bytes map to the control characters of the same value, as Windows' own conversion does.
const char16_t kWindowsLatin1High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

bool Decode(const UInt8* bytes, CFIndex count, CFStringEncoding encoding, std::u16string& out) {
    switch (encoding) {
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
    switch (encoding) {
    case kCFStringEncodingISOLatin1:
        if (n + 1 > static_cast<size_t>(bufferSize))
            return false;
        for (char16_t unit : units)
            if (unit > 0xFF)
                return false;
        for (size_t i = 0; i < n; ++i)
            buffer[i] = static_cast<char>(units[i]);
        buffer[n] = 0;
        return true;
    case kCFStringEncodingWindowsLatin1: {
        if (n + 1 > static_cast<size_t>(bufferSize))
            return false;
        std::string bytes(n, '\0');
        for (size_t i = 0; i < n; ++i) {
            const char16_t unit = units[i];
            if (unit < 0x80 || (unit >= 0xA0 && unit <= 0xFF)) {
                bytes[i] = static_cast<char>(unit);
                continue;
            }
            int found = -1;
            for (int b = 0; b < 32 && found < 0; ++b)
                if (kWindowsLatin1High[b] == unit)
                    found = b;
            if (found < 0)
                return false;
            bytes[i] = static_cast<char>(0x80 + found);
        }
        memcpy(buffer, bytes.data(), n);
        buffer[n] = 0;
        return true;
    }
    case kCFStringEncodingUnicode:
        if ((n + 1) * 2 > static_cast<size_t>(bufferSize))
            return false;
        if (n > 0)
            memcpy(buffer, units.data(), n * 2);
        buffer[n * 2] = 0;
        buffer[n * 2 + 1] = 0;
        return true;
    default:
        return false;
    }
}

CFIndex CFStringGetLength(CFStringRef string) {
    return string != nullptr ? static_cast<CFIndex>(string->units.size()) : 0;
}

void CFRelease(CFStringRef string) {
    delete string;
}

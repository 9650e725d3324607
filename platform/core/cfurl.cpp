#include "platform/cfurl.h"

#include <unistd.h>

#include <cctype>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "cfruntime.h"

struct __CFURL : __CFRuntimeBase {
    ~__CFURL() override { CFRelease(base); }

    std::string text;        // percent-encoded
    CFURLRef base = nullptr; // what a relative text is resolved against
};

namespace {

bool IsHexDigit(char c) {
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

int HexValue(char c) {
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

// Printable ASCII other than the space: what may stand in URL text unescaped.
bool IsURLCharacter(unsigned char c) {
    return c > 0x20 && c < 0x7F;
}

bool EscapeAt(const std::string& text, size_t i) {
    return text[i] == '%' && i + 2 < text.size() && IsHexDigit(text[i + 1]) &&
           IsHexDigit(text[i + 2]);
}

void AppendEscaped(std::string& out, unsigned char c) {
    static const char kDigits[] = "0123456789ABCDEF";
    out.push_back('%');
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0x0F]);
}

std::string PercentDecode(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (EscapeAt(text, i)) {
            out.push_back(static_cast<char>(HexValue(text[i + 1]) << 4 | HexValue(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

// The length of the scheme (before its ':'), or 0 when the text has none.
size_t SchemeLength(const std::string& text) {
    if (text.empty() || !isalpha(static_cast<unsigned char>(text[0])))
        return 0;
    for (size_t i = 1; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == ':')
            return i;
        if (!isalnum(c) && c != '+' && c != '-' && c != '.')
            return 0;
    }
    return 0;
}

// Splits absolute or relative URL text into what comes before the path (scheme and
// authority), the path, and what follows it (query and fragment).
struct URLParts {
    std::string prefix, path, suffix;
};

URLParts Split(const std::string& text) {
    URLParts parts;
    size_t start = SchemeLength(text);
    if (start > 0)
        ++start;
    if (text.compare(start, 2, "//") == 0) {
        const size_t slash = text.find('/', start + 2);
        start = slash == std::string::npos ? text.size() : slash;
    }
    size_t end = text.find_first_of("?#", start);
    if (end == std::string::npos)
        end = text.size();
    parts.prefix = text.substr(0, start);
    parts.path = text.substr(start, end - start);
    parts.suffix = text.substr(end);
    return parts;
}

// Removes "." and ".." segments; ".." at the root stays at the root. A path that ends with
// '/', "." or ".." names a folder and keeps a final '/'.
std::string RemoveDotSegments(const std::string& path) {
    const bool absolute = !path.empty() && path[0] == '/';
    std::vector<std::string> segments;
    std::string segment;
    bool folder = false;
    for (size_t i = absolute ? 1 : 0; i <= path.size(); ++i) {
        if (i < path.size() && path[i] != '/') {
            segment.push_back(path[i]);
            continue;
        }
        if (!segment.empty())
            folder = segment == "." || segment == "..";
        if (segment == "..") {
            if (!segments.empty())
                segments.pop_back();
        } else if (segment != "." && !segment.empty()) {
            segments.push_back(segment);
        }
        segment.clear();
    }
    folder = folder || (!path.empty() && path.back() == '/');
    std::string out = absolute ? "/" : "";
    for (size_t i = 0; i < segments.size(); ++i)
        out += segments[i] + (i + 1 < segments.size() || folder ? "/" : "");
    return out;
}

std::string AbsoluteText(CFURLRef url) {
    if (url->base == nullptr || SchemeLength(url->text) > 0)
        return url->text;
    const URLParts base = Split(AbsoluteText(url->base));
    const URLParts relative = Split(url->text);
    std::string path;
    if (!relative.path.empty() && relative.path[0] == '/')
        path = relative.path;
    else
        path = base.path.substr(0, base.path.rfind('/') + 1) + relative.path;
    return base.prefix + RemoveDotSegments(path) + relative.suffix;
}

CFURLRef NewURL(std::string text, CFURLRef base) {
    __CFURL* url = new (std::nothrow) __CFURL;
    if (url == nullptr)
        return nullptr;
    url->text = std::move(text);
    url->base = static_cast<CFURLRef>(CFRetain(base));
    return url;
}

// The string as UTF-8 bytes; false when it does not convert.
bool UTF8Bytes(CFStringRef string, std::string& out) {
    const CFIndex room = CFStringGetLength(string) * 3 + 1;
    std::vector<char> buffer(static_cast<size_t>(room));
    if (!CFStringGetCString(string, buffer.data(), room, kCFStringEncodingUTF8))
        return false;
    out = buffer.data();
    return true;
}

CFStringRef StringFromUTF8(const std::string& bytes) {
    return CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(bytes.data()),
                                   static_cast<CFIndex>(bytes.size()), kCFStringEncodingUTF8,
                                   false);
}

// The path of a URL that names a file: a file: URL or a bare path; false for other schemes.
bool FilePath(CFURLRef url, std::string& path) {
    if (url == nullptr)
        return false;
    const std::string text = AbsoluteText(url);
    const size_t scheme = SchemeLength(text);
    if (scheme > 0 && strncasecmp(text.c_str(), "file", scheme) != 0)
        return false;
    if (scheme > 0 && scheme != 4)
        return false;
    path = Split(text).path;
    return true;
}

} // namespace

CFURLRef CFURLCreateWithString(CFAllocatorRef, CFStringRef string, CFURLRef baseURL) {
    std::string text;
    if (string == nullptr || !UTF8Bytes(string, text) || text.empty())
        return nullptr;
    for (size_t i = 0; i < text.size(); ++i) {
        if (!IsURLCharacter(static_cast<unsigned char>(text[i])))
            return nullptr;
        if (text[i] == '%' && !EscapeAt(text, i))
            return nullptr;
    }
    return NewURL(std::move(text), baseURL);
}

CFURLRef CFURLCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex length,
                              CFStringEncoding encoding, CFURLRef baseURL) {
    CFStringRef string = CFStringCreateWithBytes(nullptr, bytes, length, encoding, false);
    std::string decoded;
    const bool converted = string != nullptr && UTF8Bytes(string, decoded);
    CFRelease(string);
    if (!converted || decoded.empty())
        return nullptr;
    std::string text;
    for (size_t i = 0; i < decoded.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(decoded[i]);
        if (!IsURLCharacter(c) || (c == '%' && !EscapeAt(decoded, i)))
            AppendEscaped(text, c);
        else
            text.push_back(static_cast<char>(c));
    }
    return NewURL(std::move(text), baseURL);
}

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef filePath, CFURLPathStyle,
                                       Boolean isDirectory) {
    std::string path;
    if (filePath == nullptr || !UTF8Bytes(filePath, path) || path.empty())
        return nullptr;
    if (path[0] != '/') {
        char folder[4096];
        if (getcwd(folder, sizeof folder) == nullptr)
            return nullptr;
        path = std::string(folder) + (folder[1] != 0 ? "/" : "") + path;
    }
    if (isDirectory && path.back() != '/')
        path += '/';
    std::string text = "file://";
    for (char character : path) {
        const unsigned char c = static_cast<unsigned char>(character);
        if (isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~')
            text.push_back(character);
        else
            AppendEscaped(text, c);
    }
    return NewURL(std::move(text), nullptr);
}

CFURLRef CFURLCopyAbsoluteURL(CFURLRef url) {
    if (url == nullptr)
        return nullptr;
    if (url->base == nullptr)
        return static_cast<CFURLRef>(CFRetain(url));
    return NewURL(AbsoluteText(url), nullptr);
}

CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFURLPathStyle) {
    std::string path;
    if (!FilePath(url, path))
        return nullptr;
    path = PercentDecode(path);
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path.empty() ? nullptr : StringFromUTF8(path);
}

CFURLRef CFURLCreateCopyDeletingLastPathComponent(CFAllocatorRef, CFURLRef url) {
    if (url == nullptr)
        return nullptr;
    URLParts parts = Split(AbsoluteText(url));
    std::string& path = parts.path;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const size_t slash = path.rfind('/');
    if (path == "/" || slash == std::string::npos)
        return nullptr;
    return NewURL(parts.prefix + path.substr(0, slash + 1), nullptr);
}

CFStringRef CFURLCopyLastPathComponent(CFURLRef url) {
    if (url == nullptr)
        return nullptr;
    std::string path = Split(AbsoluteText(url)).path;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (path.empty())
        return nullptr;
    if (path != "/")
        path = path.substr(path.rfind('/') + 1);
    return StringFromUTF8(PercentDecode(path));
}

CFIndex CFURLGetBytes(CFURLRef url, UInt8* buffer, CFIndex bufferLength) {
    if (url == nullptr)
        return -1;
    const CFIndex length = static_cast<CFIndex>(url->text.size());
    if (buffer == nullptr)
        return length;
    if (bufferLength < length)
        return -1;
    memcpy(buffer, url->text.data(), url->text.size());
    return length;
}

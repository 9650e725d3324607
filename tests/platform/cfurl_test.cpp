// The platform's strings and URLs below the utility layer's wrappers: strict UTF-8, which URL
// text is accepted, resolution against a base, and the path pieces the file calls take apart.
#include "platform/cfurl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

CFStringRef Make(const char* text) {
    return CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8);
}

std::string Utf8(CFStringRef string) {
    char buffer[512] = "not converted";
    if (string == nullptr ||
        !CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8))
        return "(none)";
    return buffer;
}

// Takes over a string a Copy call returned.
std::string Take(CFStringRef string) {
    const std::string text = Utf8(string);
    CFRelease(string);
    return text;
}

std::string Bytes(CFURLRef url) {
    char buffer[512];
    const CFIndex length = CFURLGetBytes(url, reinterpret_cast<UInt8*>(buffer), sizeof buffer);
    return length >= 0 ? std::string(buffer, static_cast<size_t>(length)) : "(none)";
}

CFURLRef FromText(const char* text, CFURLRef base = nullptr) {
    CFStringRef string = Make(text);
    CFURLRef url = CFURLCreateWithString(nullptr, string, base);
    CFRelease(string);
    return url;
}

} // namespace

TEST(CFStringUtf8, MalformedBytesAreRefusedAndLoneSurrogatesDoNotWriteOut) {
    for (const char* bad : {"\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "ab\xE2\x82", "\x80", "\xFF"})
        EXPECT_EQ(nullptr, Make(bad)) << "bytes " << static_cast<unsigned>(bad[0] & 0xFF);

    CFStringRef face = Make("\xF0\x9F\x98\x80");
    EXPECT_EQ(2, CFStringGetLength(face)) << "a surrogate pair";
    EXPECT_EQ("\xF0\x9F\x98\x80", Utf8(face));
    char small[4];
    EXPECT_FALSE(CFStringGetCString(face, small, sizeof small, kCFStringEncodingUTF8));
    CFRelease(face);

    const UniChar lone[] = {'a', 0xD800};
    CFStringRef string = CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(lone),
                                                 sizeof lone, kCFStringEncodingUnicode, false);
    EXPECT_EQ("(none)", Utf8(string));
    CFRelease(string);
}

TEST(CFURL, UrlTextMustBeEncodedAlready) {
    EXPECT_EQ(nullptr, FromText("/a b"));
    EXPECT_EQ(nullptr, FromText("/100%"));
    EXPECT_EQ(nullptr, FromText("/%G1"));
    EXPECT_EQ(nullptr, FromText(""));

    // Text given as bytes is encoded instead of refused.
    const char* raw = "http://host/a b/100%/\xC3\xA9";
    CFURLRef url =
        CFURLCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(raw),
                             static_cast<CFIndex>(strlen(raw)), kCFStringEncodingUTF8, nullptr);
    EXPECT_EQ("http://host/a%20b/100%25/%C3%A9", Bytes(url));
    EXPECT_EQ(nullptr, CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle)) << "not a file";
    CFRelease(url);
}

TEST(CFURL, RelativeUrlsResolveAgainstTheirBase) {
    CFURLRef base = FromText("file:///opt/app/bin/");
    struct Case {
        const char* relative;
        const char* absolute;
    } cases[] = {{"./", "file:///opt/app/bin/"},
                 {"../share/x%20y", "file:///opt/app/share/x%20y"},
                 {"../../../..", "file:///"},
                 {"/etc/./hosts", "file:///etc/hosts"}};
    for (const Case& c : cases) {
        CFURLRef relative = FromText(c.relative, base);
        EXPECT_EQ(c.relative, Bytes(relative)) << "keeps its own text";
        CFURLRef absolute = CFURLCopyAbsoluteURL(relative);
        EXPECT_EQ(c.absolute, Bytes(absolute)) << c.relative;
        CFRelease(absolute);
        CFRelease(relative); // the base outlives the URLs that held it
    }
    CFRelease(base);
}

TEST(CFURL, FileUrlsComeApartIntoFolderAndName) {
    CFStringRef path = Make("/tmp/a folder/r\xC3\xA9sum\xC3\xA9.txt");
    CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, path, kCFURLPOSIXPathStyle, false);
    CFRelease(path);
    EXPECT_EQ("file:///tmp/a%20folder/r%C3%A9sum%C3%A9.txt", Bytes(url));
    EXPECT_EQ("r\xC3\xA9sum\xC3\xA9.txt", Take(CFURLCopyLastPathComponent(url)));
    CFURLRef folder = CFURLCreateCopyDeletingLastPathComponent(nullptr, url);
    EXPECT_EQ("/tmp/a folder", Take(CFURLCopyFileSystemPath(folder, kCFURLPOSIXPathStyle)));
    CFURLRef tmp = CFURLCreateCopyDeletingLastPathComponent(nullptr, folder);
    CFURLRef root = CFURLCreateCopyDeletingLastPathComponent(nullptr, tmp);
    CFRelease(tmp);
    EXPECT_EQ("file:///", Bytes(root));
    EXPECT_EQ(nullptr, CFURLCreateCopyDeletingLastPathComponent(nullptr, root));
    EXPECT_EQ("/", Take(CFURLCopyLastPathComponent(root)));
    CFRelease(root);
    CFRelease(folder);
    CFRelease(url);
}

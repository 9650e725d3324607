// LCFURL and LCFBundle: paths, web addresses and the application bundle through the platform's
// URL and bundle objects.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "llib/gen/stringparse.h"
#include "llib/mac/cfutils.h"
#include "llib/mac/launcher.h"
#include "platform/cfbundle.h"
#include "platform/cfurl.h"

bool LCFURL::CreateFromFullPath(const char* path) {
    Release();
    if (path == nullptr)
        return false;
    char encoded[260];
    LURIEncode(encoded, path);
    LCFString text;
    text.SetString(encoded);
    URL = CFURLCreateWithString(nullptr, text.String, nullptr);
    return URL != nullptr;
}

bool LCFURL::CreateFromWebURL(const char* url) {
    Release();
    if (url == nullptr)
        return false;
    URL = CFURLCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(url),
                               static_cast<CFIndex>(strlen(url)), kCFStringEncodingUTF8, nullptr);
    return URL != nullptr;
}

bool LCFURL::CreateFromApplicationBundle() {
    Release();
    URL = CFBundleCopyBundleURL(CFBundleGetMainBundle());
    return URL != nullptr;
}

bool LCFURL::CreateFromApplicationBundleResourcesFolder() {
    Release();
    CFURLRef relative = CFBundleCopyResourcesDirectoryURL(CFBundleGetMainBundle());
    if (relative == nullptr)
        return false;
    URL = CFURLCopyAbsoluteURL(relative);
    CFRelease(relative);
    return URL != nullptr;
}

void LCFURL::GetString(char* out, unsigned long size) const {
    if (size == 0)
        return;
    out[0] = 0;
    if (URL == nullptr)
        return;
    LCFString path;
    path.String = CFURLCopyFileSystemPath(URL, kCFURLPOSIXPathStyle);
    path.GetString(out, size);
}

void LCFURL::GotoURL(const char* url) {
    if (CreateFromWebURL(url)) {
        const CFIndex length = CFURLGetBytes(URL, nullptr, 0);
        std::vector<char> text(static_cast<size_t>(length) + 1, '\0');
        if (CFURLGetBytes(URL, reinterpret_cast<UInt8*>(text.data()), length) == length)
            RunOpenLauncher(text.data());
    }
    Release();
}

void LCFURL::Release() {
    CFRelease(URL);
    URL = nullptr;
}

LCFBundle::LCFBundle() : Bundle(CFBundleGetMainBundle()) {}

bool LCFBundle::GetVersionNumber(int& major, int& minor) const {
    CFTypeRef value = CFBundleGetValueForInfoDictionaryKey(Bundle, kCFBundleVersionKey);
    if (value == nullptr)
        return false;
    // Held while it is read, as the bundle owns it.
    LCFString version;
    version.String = static_cast<CFStringRef>(CFRetain(value));
    char text[260];
    version.GetString(text, sizeof text);
    if (text[0] == 0)
        return false;
    const char* number = text;
    if (number[0] == 'V') {
        const char* blank = strchr(number, ' ');
        number = blank != nullptr ? blank + 1 : number + 1;
    }
    major = static_cast<int>(strtol(number, nullptr, 10));
    const char* point = strchr(number, '.');
    minor = point != nullptr ? static_cast<int>(strtol(point + 1, nullptr, 10)) : 0;
    return true;
}

#include "platform/cfbundle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <string>

#include "cfruntime.h"

namespace {

// The information file in a bundle's folder.
constexpr const char* kInfoFileName = "Info.txt";

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

CFStringRef StringFromUTF8(const std::string& text) {
    return CFStringCreateWithCString(nullptr, text.c_str(), kCFStringEncodingUTF8);
}

std::string UTF8FromString(CFStringRef string) {
    std::string bytes(static_cast<size_t>(CFStringGetLength(string)) * 3 + 1, '\0');
    if (!CFStringGetCString(string, &bytes[0], static_cast<CFIndex>(bytes.size()),
                            kCFStringEncodingUTF8))
        return std::string();
    return bytes.c_str();
}

} // namespace

struct __CFBundle : __CFRuntimeBase {
    ~__CFBundle() override {
        for (auto& entry : info)
            CFRelease(entry.second);
        CFRelease(url);
    }

    // Reads folder/Info.txt; a missing or unreadable file leaves the dictionary empty.
    void ReadInfo(const std::string& folder) {
        std::ifstream file(folder + kInfoFileName);
        std::string line;
        while (std::getline(file, line)) {
            const size_t equals = line.find('=');
            const std::string key = Trim(line.substr(0, equals));
            if (equals == std::string::npos || key.empty() || key[0] == '#' || info.count(key))
                continue;
            CFStringRef value = StringFromUTF8(Trim(line.substr(equals + 1)));
            if (value != nullptr)
                info[key] = value;
        }
    }

    CFURLRef url = nullptr;                  // the folder's URL, ending with '/'
    std::map<std::string, CFStringRef> info; // the information dictionary
};

const CFStringRef kCFBundleVersionKey = StringFromUTF8("CFBundleVersion");

namespace {

CFBundleRef NewBundle(const std::string& folderPath) {
    struct stat status;
    if (folderPath.empty() || stat(folderPath.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return nullptr;
    CFStringRef path = StringFromUTF8(folderPath);
    CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, path, kCFURLPOSIXPathStyle, true);
    CFRelease(path);
    if (url == nullptr)
        return nullptr;
    __CFBundle* bundle = new (std::nothrow) __CFBundle;
    if (bundle == nullptr) {
        CFRelease(url);
        return nullptr;
    }
    bundle->url = url;
    CFStringRef absolute = CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle);
    std::string folder = UTF8FromString(absolute);
    CFRelease(absolute);
    bundle->ReadInfo(folder == "/" ? folder : folder + "/");
    return bundle;
}

std::string ExecutableFolder() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return std::string();
    path[length] = 0;
    char* slash = strrchr(path, '/');
    if (slash == nullptr)
        return std::string();
    slash[slash == path ? 1 : 0] = 0;
    return path;
}

} // namespace

CFBundleRef CFBundleGetMainBundle() {
    // Kept for the life of the process, like the platform's own main bundle.
    static CFBundleRef main = NewBundle(ExecutableFolder());
    return main;
}

CFBundleRef CFBundleCreate(CFAllocatorRef, CFURLRef bundleURL) {
    CFStringRef path = CFURLCopyFileSystemPath(bundleURL, kCFURLPOSIXPathStyle);
    if (path == nullptr)
        return nullptr;
    const std::string folder = UTF8FromString(path);
    CFRelease(path);
    return NewBundle(folder);
}

CFURLRef CFBundleCopyBundleURL(CFBundleRef bundle) {
    return bundle != nullptr ? static_cast<CFURLRef>(CFRetain(bundle->url)) : nullptr;
}

CFURLRef CFBundleCopyResourcesDirectoryURL(CFBundleRef bundle) {
    if (bundle == nullptr)
        return nullptr;
    CFStringRef here = StringFromUTF8("./");
    CFURLRef url = CFURLCreateWithString(nullptr, here, bundle->url);
    CFRelease(here);
    return url;
}

CFTypeRef CFBundleGetValueForInfoDictionaryKey(CFBundleRef bundle, CFStringRef key) {
    if (bundle == nullptr || key == nullptr)
        return nullptr;
    const auto found = bundle->info.find(UTF8FromString(key));
    return found != bundle->info.end() ? found->second : nullptr;
}

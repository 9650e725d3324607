// The folder manager over the XDG base and user directories.
#include "platform/folders.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string Environment(const char* name) {
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

std::string HomeFolder() {
    std::string home = Environment("HOME");
    if (home.empty()) {
        struct passwd entry;
        struct passwd* found = nullptr;
        char buffer[4096];
        if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
            home = found->pw_dir;
    }
    return home;
}

// An absolute path from an XDG variable; relative values are invalid and ignored.
std::string XdgFolder(const char* variable, const std::string& fallback) {
    const std::string value = Environment(variable);
    return !value.empty() && value[0] == '/' ? value : fallback;
}

// The value of key (XDG_DESKTOP_DIR, ...) in user-dirs.dirs, with $HOME expanded; empty when the
// file does not name it, or names the home folder itself, which there means "none".
std::string UserDirectory(const char* key) {
    const std::string home = HomeFolder();
    const std::string file = XdgFolder("XDG_CONFIG_HOME", home + "/.config") + "/user-dirs.dirs";
    FILE* in = fopen(file.c_str(), "re");
    if (in == nullptr)
        return "";
    std::string result;
    char line[4096];
    const size_t keyLength = strlen(key);
    while (fgets(line, sizeof line, in) != nullptr) {
        if (strncmp(line, key, keyLength) != 0 || line[keyLength] != '=' ||
            line[keyLength + 1] != '"')
            continue;
        const char* value = line + keyLength + 2;
        const char* end = strchr(value, '"');
        if (end == nullptr)
            continue;
        std::string text(value, end);
        if (text.compare(0, 5, "$HOME") == 0)
            text = home + text.substr(5);
        if (!text.empty() && text[0] == '/')
            result = text;
    }
    fclose(in);
    while (result.size() > 1 && result.back() == '/')
        result.pop_back();
    return result == home ? "" : result;
}

// Makes path and the folders leading to it.
bool MakeFolders(const std::string& path) {
    for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
        const std::string part = at == std::string::npos ? path : path.substr(0, at);
        if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
            return false;
        if (at == std::string::npos)
            break;
    }
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string Resolve(SInt16 domain, OSType type) {
    if (domain == kUserDomain) {
        switch (type) {
        case kApplicationSupportFolderType:
            return XdgFolder("XDG_DATA_HOME", HomeFolder() + "/.local/share");
        case kDesktopFolderType:
            return UserDirectory("XDG_DESKTOP_DIR");
        case kDownloadsFolderType:
            return UserDirectory("XDG_DOWNLOAD_DIR");
        case kDocumentsFolderType:
            return UserDirectory("XDG_DOCUMENTS_DIR");
        case kPictureDocumentsFolderType:
            return UserDirectory("XDG_PICTURES_DIR");
        case kMovieDocumentsFolderType:
            return UserDirectory("XDG_VIDEOS_DIR");
        case kMusicDocumentsFolderType:
            return UserDirectory("XDG_MUSIC_DIR");
        case kCurrentUserFolderType:
            return HomeFolder();
        case kSharedUserDataFolderType: {
            std::string first = Environment("XDG_DATA_DIRS");
            first = first.substr(0, first.find(':'));
            return !first.empty() && first[0] == '/' ? first : "/usr/local/share";
        }
        }
    } else if (domain == kOnSystemDisk) {
        switch (type) {
        case kApplicationsFolderType:
            return "/usr/share/applications";
        case kServersFolderType:
            return "/media";
        }
    }
    return "";
}

} // namespace

OSErr FSFindFolder(SInt16 domain, OSType folderType, Boolean createFolder, FSRef* ref) {
    if (ref == nullptr)
        return paramErr;
    std::string path = Resolve(domain, folderType);
    if (path.empty() || path.size() >= sizeof ref->path)
        return fnfErr;
    struct stat info;
    const bool present = stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    if (!present && !(createFolder && MakeFolders(path)))
        return fnfErr;
    memcpy(ref->path, path.c_str(), path.size() + 1);
    return noErr;
}

OSStatus FSFindFolderPath(SInt16 domain, OSType folderType, UInt8* path, UInt32 maxPathSize) {
    if (path == nullptr)
        return paramErr;
    const std::string resolved = Resolve(domain, folderType);
    if (resolved.empty())
        return fnfErr;
    if (resolved.size() >= maxPathSize)
        return paramErr;
    memcpy(path, resolved.c_str(), resolved.size() + 1);
    return noErr;
}

OSStatus FSRefMakePath(const FSRef* ref, UInt8* path, UInt32 maxPathSize) {
    if (ref == nullptr || path == nullptr)
        return paramErr;
    const size_t length = strnlen(ref->path, sizeof ref->path);
    if (length >= maxPathSize)
        return paramErr;
    memcpy(path, ref->path, length + 1);
    return noErr;
}

#include "platform/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

namespace {

// The process's catalogue: every id handed out, with the path it stands for.
struct Catalogue {
    std::mutex lock;
    std::unordered_map<std::string, SInt32> idsByPath;
    std::unordered_map<SInt32, std::string> pathsById;
};

Catalogue& TheCatalogue() {
    // Never destroyed: ids stay valid for the life of the process.
    static Catalogue* catalogue = new Catalogue;
    return *catalogue;
}

// The id of the item at an absolute path, recorded on first use.
SInt32 IdForPath(const std::string& path, ino_t inode) {
    if (path == "/")
        return fsRtDirID;
    Catalogue& catalogue = TheCatalogue();
    std::lock_guard<std::mutex> hold(catalogue.lock);
    const auto known = catalogue.idsByPath.find(path);
    if (known != catalogue.idsByPath.end())
        return known->second;
    SInt32 id = static_cast<SInt32>(inode & 0x7FFFFFFF);
    while (id <= fsRtDirID || catalogue.pathsById.count(id) != 0)
        id = id >= 0x7FFFFFFF ? fsRtDirID + 1 : id + 1;
    catalogue.idsByPath[path] = id;
    catalogue.pathsById[id] = path;
    return id;
}

bool PathForId(SInt32 id, std::string& path) {
    if (id == fsRtDirID) {
        path = "/";
        return true;
    }
    Catalogue& catalogue = TheCatalogue();
    std::lock_guard<std::mutex> hold(catalogue.lock);
    const auto known = catalogue.pathsById.find(id);
    if (known == catalogue.pathsById.end())
        return false;
    path = known->second;
    return true;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
    return path == "/" ? std::string() : path.substr(path.rfind('/') + 1);
}

// The item's absolute path with its folder resolved and its own name kept as given, so that a
// link is named as itself; empty when the folder does not resolve.
std::string ResolvedPath(const char* path) {
    std::string text = path;
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    const size_t slash = text.rfind('/');
    const std::string name = slash == std::string::npos ? text : text.substr(slash + 1);
    char resolved[PATH_MAX];
    if (name == "." || name == ".." || text == "/")
        return realpath(text.c_str(), resolved) != nullptr ? resolved : std::string();
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : text.substr(0, slash);
    if (realpath(folder.c_str(), resolved) == nullptr)
        return std::string();
    const std::string base = resolved;
    return (base == "/" ? base : base + "/") + name;
}

bool SetPath(FSRef* ref, const std::string& path) {
    if (path.size() >= sizeof ref->path)
        return false;
    memcpy(ref->path, path.c_str(), path.size() + 1);
    return true;
}

// The id of the folder at path, or 0 when it is not there.
SInt32 FolderId(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return 0;
    return IdForPath(path, status.st_ino);
}

} // namespace

OSStatus FSPathMakeRef(const UInt8* path, FSRef* ref, Boolean* isDirectory) {
    if (path == nullptr || path[0] == 0 || ref == nullptr)
        return paramErr;
    const std::string resolved = ResolvedPath(reinterpret_cast<const char*>(path));
    struct stat status;
    if (resolved.empty() || stat(resolved.c_str(), &status) != 0)
        return fnfErr;
    if (!SetPath(ref, resolved))
        return paramErr;
    if (isDirectory != nullptr)
        *isDirectory = S_ISDIR(status.st_mode);
    return noErr;
}

OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap whichInfo, FSCatalogInfo* info,
                       HFSUniStr255* outName, FSSpec* spec, FSRef* parentRef) {
    if (ref == nullptr || (whichInfo != kFSCatInfoNone && info == nullptr))
        return paramErr;
    const std::string path = ref->path;
    struct stat status;
    if (path.empty() || path[0] != '/' || stat(path.c_str(), &status) != 0)
        return fnfErr;
    const bool root = path == "/";
    const std::string name = NameOf(path);
    if (spec != nullptr && name.size() > 63)
        return bdNamErr;
    if (whichInfo & kFSCatInfoNodeFlags)
        info->nodeFlags = S_ISDIR(status.st_mode) ? kFSNodeIsDirectoryMask : 0;
    if (whichInfo & kFSCatInfoNodeID)
        info->nodeID = static_cast<UInt32>(IdForPath(path, status.st_ino));
    if (outName != nullptr) {
        CFStringRef string =
            CFStringCreateWithCString(nullptr, name.c_str(), kCFStringEncodingUTF8);
        const CFIndex length =
            string != nullptr && CFStringGetLength(string) <= 255 ? CFStringGetLength(string) : 0;
        CFStringGetCharacters(string, CFRange{0, length}, outName->unicode);
        outName->length = static_cast<UInt16>(length);
        CFRelease(string);
    }
    if (spec != nullptr) {
        const SInt32 parent = root ? fsRtParID : FolderId(FolderOf(path));
        if (parent == 0)
            return fnfErr;
        spec->vRefNum = kLinuxVolumeRefNum;
        spec->parID = parent;
        spec->name[0] = static_cast<unsigned char>(name.size());
        memcpy(spec->name + 1, name.data(), name.size());
    }
    if (parentRef != nullptr && !SetPath(parentRef, root ? std::string() : FolderOf(path)))
        return paramErr;
    return noErr;
}

Boolean CFURLGetFSRef(CFURLRef url, FSRef* ref) {
    CFStringRef path = CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle);
    if (path == nullptr)
        return false;
    std::string bytes(static_cast<size_t>(CFStringGetLength(path)) * 3 + 1, '\0');
    const bool converted = CFStringGetCString(path, &bytes[0], static_cast<CFIndex>(bytes.size()),
                                              kCFStringEncodingUTF8);
    CFRelease(path);
    return converted &&
           FSPathMakeRef(reinterpret_cast<const UInt8*>(bytes.c_str()), ref, nullptr) == noErr;
}

OSErr PBGetCatInfoSync(CInfoPBRec* pb) {
    if (pb == nullptr || pb->dirInfo.ioFDirIndex != -1)
        return paramErr;
    DirInfo& request = pb->dirInfo;
    if (request.ioVRefNum != kLinuxVolumeRefNum && request.ioVRefNum != 0)
        return nsvErr;
    std::string path;
    struct stat status;
    if (!PathForId(request.ioDrDirID, path) || stat(path.c_str(), &status) != 0 ||
        !S_ISDIR(status.st_mode))
        return dirNFErr;
    const std::string name = NameOf(path);
    if (request.ioNamePtr != nullptr) {
        const size_t length = name.size() > 255 ? 255 : name.size();
        request.ioNamePtr[0] = static_cast<unsigned char>(length);
        memcpy(request.ioNamePtr + 1, name.data(), length);
    }
    request.ioDrParID = path == "/" ? fsRtParID : FolderId(FolderOf(path));
    return request.ioDrParID != 0 ? OSErr(noErr) : OSErr(dirNFErr);
}

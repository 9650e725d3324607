// LToFSSpec: FSSpec file records from paths and back, through the platform's catalogue.
#include <cstring>
#include <string>

#include "llib/gen/charsets.h"
#include "llib/mac/cfutils.h"
#include "platform/files.h"

namespace {

// Releases a platform object when the scope ends, so every path out of a conversion frees
// what it made.
class Releaser {
public:
    explicit Releaser(CFTypeRef object) : Object(object) {}
    ~Releaser() { CFRelease(Object); }
    Releaser(const Releaser&) = delete;
    Releaser& operator=(const Releaser&) = delete;
    CFTypeRef Object;
};

// The FSSpec of a name not yet used in an existing folder: the folder's id and the
// name, both taken through URLs as the platform resolves them.
int RecordForNewItem(const char* path, FSSpec* spec) {
    CFStringRef string = CFStringCreateWithCString(nullptr, path, CFStringGetSystemEncoding());
    Releaser releaseString(string);
    if (string == nullptr)
        return fnfErr; // not text in the system encoding, so no such name can exist
    CFURLRef url = CFURLCreateWithFileSystemPath(nullptr, string, kCFURLPOSIXPathStyle, false);
    Releaser releaseURL(url);
    if (url == nullptr)
        return memFullErr;
    CFURLRef parent = CFURLCreateCopyDeletingLastPathComponent(nullptr, url);
    Releaser releaseParent(parent);
    if (parent == nullptr)
        return memFullErr;
    FSRef parentRef;
    if (!CFURLGetFSRef(parent, &parentRef))
        return fnfErr;
    FSCatalogInfo info;
    FSSpec parentSpec;
    const OSErr status = FSGetCatalogInfo(&parentRef, kFSCatInfoNodeFlags | kFSCatInfoNodeID, &info,
                                          nullptr, &parentSpec, nullptr);
    if (status != noErr)
        return status;
    // A file cannot hold anything.
    if ((info.nodeFlags & kFSNodeIsDirectoryMask) == 0)
        return fnfErr;
    CFStringRef name = CFURLCopyLastPathComponent(url);
    Releaser releaseName(name);
    if (name == nullptr)
        return memFullErr;
    if (!CFStringGetPascalString(name, spec->name, sizeof spec->name, CFStringGetSystemEncoding()))
        return fnfErr;
    spec->vRefNum = parentSpec.vRefNum;
    spec->parID = static_cast<int32_t>(info.nodeID);
    return noErr;
}

} // namespace

int LToFSSpec::CStringToFSSpec(const char* path, FSSpec* spec) {
    if (path == nullptr || path[0] == 0 || spec == nullptr)
        return paramErr;
    FSRef ref;
    if (FSPathMakeRef(reinterpret_cast<const UInt8*>(path), &ref, nullptr) == noErr)
        return FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, spec, nullptr);
    return RecordForNewItem(path, spec);
}

void LToFSSpec::GetString(char* out, unsigned long size) const {
    if (size == 0)
        return;
    out[0] = 0;
    if (!bValid)
        return;
    // Linux names may hold ':', so the path is put together with '/' directly rather than
    // built with ':' and converted.
    std::string path(reinterpret_cast<const char*>(Spec.name + 1), Spec.name[0]);
    SInt32 folder = Spec.parID;
    while (folder != fsRtParID) {
        unsigned char name[256];
        CInfoPBRec pb = {};
        pb.dirInfo.ioNamePtr = name;
        pb.dirInfo.ioVRefNum = Spec.vRefNum;
        pb.dirInfo.ioFDirIndex = -1;
        pb.dirInfo.ioDrDirID = folder;
        if (PBGetCatInfoSync(&pb) != noErr)
            break;
        path = std::string(reinterpret_cast<const char*>(name + 1), name[0]) + "/" + path;
        if (folder == fsRtDirID)
            break;
        folder = pb.dirInfo.ioDrParID;
    }
    // The volume's name (empty for the Linux tree) goes with everything before the first '/'.
    const size_t slash = path.find('/');
    path = slash == std::string::npos ? "/" : path.substr(slash);
    // Folders nest far deeper here than 260 bytes: a longer path is cut to the caller's buffer,
    // between characters.
    utf8strlcpy(out, path.c_str(), size);
}

// The file manager's catalogue, as far as the utility layer names items by FSSpec.
//
// Linux has one tree and no catalogue that finds a folder by id, so the platform keeps one for
// the process: whenever it hands out the id of an item, it records the item's path under that
// id, and PBGetCatInfoSync looks folders up there. An item's id is its inode number (cut to 31
// bits); when that is 1 or 2, or already stands for another path, the next free number is used.
// The root folder "/" is the volume's root, id 2, whose parent id is 1; its name is empty. Every
// item is on the one volume kLinuxVolumeRefNum. Paths are UTF-8, the system encoding. The
// catalogue is guarded by a lock; any thread may call.
#pragma once

#include "llib/mac/filerecord.h"
#include "platform/cfurl.h"

enum : int32_t {
    nsvErr = -35,      // no such volume
    bdNamErr = -37,    // a name the record cannot hold
    fnfErr = -43,      // file not found
    memFullErr = -108, // out of memory
    dirNFErr = -120,   // folder not found
};

// The volume reference number of the Linux tree.
constexpr SInt16 kLinuxVolumeRefNum = -100;
// The parent id of a volume's root, and the root's own id.
constexpr SInt32 fsRtParID = 1;
constexpr SInt32 fsRtDirID = 2;

// A reference to an existing item: its absolute path, with the folder part resolved (links
// followed, "." and ".." removed).
struct FSRef {
    char path[4096];
};

typedef UInt32 FSCatalogInfoBitmap;
enum : FSCatalogInfoBitmap {
    kFSCatInfoNone = 0,
    kFSCatInfoNodeFlags = 0x00000002,
    kFSCatInfoNodeID = 0x00000010,
};
enum : UInt16 {
    kFSNodeIsDirectoryMask = 0x0010,
};

struct FSCatalogInfo {
    UInt16 nodeFlags; // kFSNodeIsDirectoryMask for a folder
    UInt32 nodeID;    // the item's catalogue id
};

struct HFSUniStr255 {
    UInt16 length;
    UniChar unicode[255];
};

// A reference to the item at path (absolute, or relative to the current folder); fnfErr when
// nothing is there. isDirectory, when given, tells whether it is a folder.
OSStatus FSPathMakeRef(const UInt8* path, FSRef* ref, Boolean* isDirectory);

// What whichInfo asks of the item (info may be null when nothing is asked), and optionally its
// name, its FSSpec and a reference to its parent folder (the root has none: parentRef's path is
// emptied). fnfErr when the item is gone; bdNamErr when spec is asked and the name is longer
// than 63 bytes.
OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap whichInfo, FSCatalogInfo* info,
                       HFSUniStr255* outName, FSSpec* spec, FSRef* parentRef);

// A reference to the item a file: URL or bare path names; false when nothing is there.
Boolean CFURLGetFSRef(CFURLRef url, FSRef* ref);

// A catalogue request about a folder.
struct DirInfo {
    StringPtr ioNamePtr; // receives the folder's name (a length byte, then up to 255 bytes)
    SInt16 ioVRefNum;    // the volume
    SInt16 ioFDirIndex;  // -1: ask by ioDrDirID
    SInt32 ioDrDirID;    // the folder's id
    SInt32 ioDrParID;    // receives the id of its parent folder
};
union CInfoPBRec {
    DirInfo dirInfo;
};

// Asks the catalogue for the folder with the id ioDrDirID (with ioFDirIndex -1, the only form
// supported: paramErr otherwise). nsvErr for another volume; dirNFErr when no folder has that
// id or the folder is gone.
OSErr PBGetCatInfoSync(CInfoPBRec* pb);

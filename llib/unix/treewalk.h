// What the tree operations (deleting, copying, permissions) share: joining an entry to its folder
// without ever cutting the result, and telling folders from links without following links.
#pragma once

#include <cstring>
#include <sys/stat.h>

#include "llib/gen/file.h"

namespace llib_tree {

// folder + '/' + name into a 260-byte buffer; false when that would not fit. A cut path could
// name another file, so the tree operations skip such entries instead.
inline bool MakeChildPath(char* out, const char* folder, const char* name) {
    const size_t folderLength = strlen(folder);
    const bool separator =
        folderLength > 0 && (folder[folderLength - 1] == '/' || folder[folderLength - 1] == '\\');
    if (folderLength + (separator ? 0 : 1) + strlen(name) >= 260)
        return false;
    LFile::_MakeFilePath(out, folder, name, "");
    return true;
}

// The entry itself is a folder: a symbolic link, even to a folder, is not.
inline bool IsRealFolder(const char* path) {
    struct stat info;
    return lstat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

inline bool IsSymbolicLink(const char* path) {
    struct stat info;
    return lstat(path, &info) == 0 && S_ISLNK(info.st_mode);
}

} // namespace llib_tree

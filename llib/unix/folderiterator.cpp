// Reading a folder's entries that match a wildcard.
#include <cstdio>
#include <cstring>

#include "llib/gen/file.h"

LFile::FolderIterator::~FolderIterator() {
    Close();
}

void LFile::FolderIterator::Close() {
    if (dir != nullptr) {
        closedir(dir);
        dir = nullptr;
    }
    entry.d_name[0] = 0;
}

bool LFile::FolderIterator::Open(const char* folder, const char* pattern) {
    Close();
    if (folder == nullptr || pattern == nullptr || !TestFolderExists(folder) ||
        !LFile::IsFolder(folder))
        return false;
    dir = opendir(folder);
    if (dir == nullptr)
        return false;
    snprintf(szFolder, sizeof szFolder, "%s", folder);
    snprintf(szPattern, sizeof szPattern, "%s", pattern);
    return Next();
}

bool LFile::FolderIterator::Open(const char* path) {
    if (path == nullptr || !IsFile(path))
        return Open(path, "*");
    char folder[260];
    char file[260];
    _GetFolderFromPath(folder, path);
    _GetFileFromPath(file, path);
    return Open(folder, file[0] != 0 ? file : "*");
}

bool LFile::FolderIterator::Next() {
    while (dir != nullptr) {
        // readdir's entry lives in the stream; the copy outlives the next read. Names are at
        // most 255 bytes, which d_name holds.
        const struct dirent* read = readdir(dir);
        if (read == nullptr)
            break;
        if (_Matches(read->d_name)) {
            entry = *read;
            return true;
        }
    }
    Close();
    return false;
}

bool LFile::FolderIterator::IsFolder() const {
    if (entry.d_name[0] == 0)
        return false;
    char path[260];
    _MakeFilePath(path, szFolder, entry.d_name, "");
    return LFile::IsFolder(path);
}

bool LFile::FolderIterator::_Matches(const char* name) const {
    return name[0] != '.' && IsMatchInsensitive(szPattern, name);
}

bool LFile::FolderIteratorAllFiles::_Matches(const char*) const {
    return true;
}

bool LFile::FolderIteratorAllFiles::IsDotFolder() const {
    return strcmp(entry.d_name, ".") == 0 || strcmp(entry.d_name, "..") == 0;
}

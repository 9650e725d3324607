// Existence tests, creating folders, deleting trees and old files, and opening permissions.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "llib/gen/datetime.h"
#include "llib/gen/file.h"
#include "llib/unix/treewalk.h"

using llib_tree::IsRealFolder;
using llib_tree::MakeChildPath;

long LDateTime::Now() {
    return static_cast<long>(time(nullptr));
}

// access() is all Linux needs: a location that access cannot reach does not resolve as a URL
// either.
bool LFile::TestFolderExists(const char* path) {
    return path != nullptr && access(path, F_OK) == 0;
}

bool LFile::TestFileExists(const char* path) {
    return TestFolderExists(path);
}

bool LFile::IsFolder(const char* path) {
    struct stat info;
    return path != nullptr && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool LFile::IsFile(const char* path) {
    struct stat info;
    return path != nullptr && stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

bool LFile::CreateFolder(const char* path) {
    if (path == nullptr || TestFolderExists(path))
        return false;
    return mkdir(path, 0777) == 0;
}

bool LFile::CreateFolderTree(const char* path) {
    if (path == nullptr)
        return false;
    char parent[260];
    _GetFolderFromPath(parent, path);
    if (parent[0] != 0 && strcmp(parent, path) != 0 && !TestFolderExists(parent) &&
        !CreateFolderTree(parent))
        return false;
    return CreateFolder(path);
}

namespace {

// Clears the immutable and append-only flags, which keep even the owner from deleting a file;
// only a privileged process may, and otherwise nothing changes.
void ClearFileFlags(const char* path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL))) {
        flags &= ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
        ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    close(fd);
}

bool DeleteTree(const char* path, bool clearFlags) {
    if (path == nullptr || path[0] == 0)
        return false;
    LFile::FolderIteratorAllFiles entries(path);
    char child[260];
    for (; entries.szName()[0] != 0; entries.Next()) {
        if (entries.IsDotFolder() || !MakeChildPath(child, path, entries.szName()))
            continue;
        if (IsRealFolder(child)) {
            DeleteTree(child, clearFlags);
        } else {
            if (clearFlags)
                ClearFileFlags(child);
            unlink(child);
        }
    }
    return rmdir(path) == 0;
}

} // namespace

bool LFile::DeleteFolderTree(const char* path) {
    return DeleteTree(path, false);
}

bool LFile::DeleteFolderTreeAlways(const char* path) {
    return DeleteTree(path, true);
}

bool LFile::DeleteFolderAndFiles(const char* path) {
    if (path == nullptr)
        return false;
    FolderIteratorAllFiles entries(path);
    char child[260];
    for (; entries.szName()[0] != 0; entries.Next())
        if (!entries.IsDotFolder() && MakeChildPath(child, path, entries.szName()) &&
            !IsRealFolder(child))
            unlink(child);
    return rmdir(path) == 0;
}

void LFile::DeleteOldFiles(const char* folder, const char* pattern, int days) {
    if (days < 1)
        return;
    // now - days * 86400 in 32-bit arithmetic, wrapping as the stored times do.
    const int32_t limit = static_cast<int32_t>(static_cast<uint32_t>(LDateTime::Now()) -
                                               static_cast<uint32_t>(days) * 86400u);
    FolderIterator entries;
    char child[260];
    for (bool more = entries.Open(folder, pattern); more; more = entries.Next()) {
        if (!MakeChildPath(child, folder, entries.szName()))
            continue;
        if (limit > static_cast<int32_t>(GetFileCreateTime(child)))
            unlink(child);
    }
}

void LFile::SetFolderSecurityAllAccess(const char* path) {
    if (path == nullptr)
        return;
    chmod(path, 0777);
    if (!IsFolder(path))
        return;
    FolderIteratorAllFiles entries(path);
    char child[260];
    for (; entries.szName()[0] != 0; entries.Next()) {
        if (entries.IsDotFolder() || !MakeChildPath(child, path, entries.szName()))
            continue;
        // chmod would follow a link to wherever it points, outside the tree perhaps; a link's
        // own permissions mean nothing on Linux.
        if (llib_tree::IsSymbolicLink(child))
            continue;
        SetFolderSecurityAllAccess(child);
    }
}

bool LFile::GetFileCreateTime(long& time, const char* path) {
    struct stat info;
    if (path == nullptr || stat(path, &info) != 0)
        return false;
    time = static_cast<long>(info.st_ctime);
    return true;
}

long LFile::GetFileCreateTime(const char* path) {
    long time = 0;
    return GetFileCreateTime(time, path) ? time : 0;
}

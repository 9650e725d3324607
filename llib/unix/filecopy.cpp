// Copying files and folder trees, and the copy of one file under a process interface.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <unistd.h>

#include "llib/gen/filecopy.h"
#include "llib/unix/filehandle.h"
#include "llib/unix/treewalk.h"

namespace {

// A symbolic link is copied as the same link, as `cp -R` would, without handing the names to a
// shell. Something other than a folder already at destination is replaced.
bool CopyLink(const char* source, const char* destination) {
    char target[PATH_MAX];
    const ssize_t length = readlink(source, target, sizeof target - 1);
    if (length < 0)
        return false;
    target[length] = 0;
    if (symlink(target, destination) == 0)
        return true;
    if (errno != EEXIST || llib_tree::IsRealFolder(destination) || unlink(destination) != 0)
        return false;
    return symlink(target, destination) == 0;
}

bool SameFile(const char* a, const char* b) {
    struct stat first, second;
    return stat(a, &first) == 0 && stat(b, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

bool LFile::CopyFile(const char* source, const char* destination) {
    if (source == nullptr || destination == nullptr)
        return false;
    if (llib_tree::IsSymbolicLink(source))
        return CopyLink(source, destination);
    LReadFile in(source);
    if (!in.IsValid())
        return false;
    LWriteFile out(destination);
    if (!out.IsValid())
        return false;
    char buffer[8192];
    for (;;) {
        const unsigned int count = in._Read(buffer, sizeof buffer);
        if (count == 0)
            break;
        out._Write(buffer, count);
    }
    struct stat info;
    const bool known = fstat(in.hFile, &info) == 0;
    if (known)
        out.SetFileModifiedTime(info.st_mtime);
    in.Close();
    out.Close();
    if (known)
        chmod(destination, info.st_mode & 07777);
    return true;
}

void LFile::CopyFolderFiles(const char* source, const char* destination) {
    if (source == nullptr || destination == nullptr || !IsFolder(source))
        return;
    if (!IsFolder(destination) && !CreateFolderTree(destination))
        return;
    FolderIteratorAllFiles entries(source);
    char from[260];
    char to[260];
    for (; entries.szName()[0] != 0; entries.Next()) {
        if (entries.IsDotFolder() || !llib_tree::MakeChildPath(from, source, entries.szName()) ||
            !llib_tree::MakeChildPath(to, destination, entries.szName()))
            continue;
        if (llib_tree::IsRealFolder(from)) {
            CreateFolder(to);
            CopyFolderFiles(from, to);
        } else {
            CopyFile(from, to);
        }
    }
}

int Process(LProcessInterface& process, const LProcessCopyFile& request) {
    constexpr unsigned int kChunk = 32768;
    if (request.source == nullptr || request.destination == nullptr)
        return 2;
    char text[260];
    process.SetStatus("Copy File", 0);
    LFile::_GetFileFromPath(text, request.destination);
    process.SetStatus(text, 1);
    process.SetProgress(0.0);

    LFile::_GetFolderFromPath(text, request.destination);
    if (!LFile::TestFolderExists(text))
        return 2;
    // Opening the source itself for writing would empty it, and the clean-up would delete it.
    if (SameFile(request.source, request.destination))
        return 2;
    LReadFile in(request.source, 1000);
    if (!in.IsValid())
        return 2;
    LWriteFile out(request.destination, 1000);
    if (!out.IsValid())
        return 2;

    struct stat info;
    if (fstat(in.hFile, &info) != 0)
        info.st_size = 0, info.st_mtime = 0;
    unsigned long long remaining = static_cast<unsigned long long>(info.st_size);
    const double step = kChunk / std::max(static_cast<double>(info.st_size), double(kChunk));
    double progress = 0.0;
    int result = 0;
    static_assert(kChunk <= 65536, "the chunk lives on the stack");
    char buffer[kChunk];
    while (remaining > 0) {
        if (process.IsToStop()) {
            result = 1;
            break;
        }
        const unsigned int chunk =
            static_cast<unsigned int>(std::min<unsigned long long>(remaining, kChunk));
        if (in._Read(buffer, chunk) != chunk || out._Write(buffer, chunk) != chunk) {
            result = 2;
            break;
        }
        remaining -= chunk;
        process.SetProgress(progress);
        progress += step;
    }
    if (result == 0) {
        out.SetFileModifiedTime(info.st_mtime);
        return 0;
    }
    out.Close();
    unlink(request.destination);
    return result;
}

// Lock files that mark a document as in use, and the tests whether another holder's lock is in
// the way of a file.
#include "llib/unix/filehandle.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

LLockFile::~LLockFile() {
    if (hFile == -1)
        return;
    close(hFile);
    unlink(szPath);
}

bool LLockFile::Lock(const char* path) {
    if (hFile != -1) {
        close(hFile);
        unlink(szPath);
        hFile = -1;
    }
    LFile::_ApplyNewFileExtension(szPath, path, ".lck");
    const int fd = open(szPath, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0777);
    if (fd < 0)
        return errno != EAGAIN && errno != EWOULDBLOCK;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return error != EWOULDBLOCK;
    }
    if (ftruncate(fd, 0) != 0) {
        // The lock is what counts; stale contents do no harm.
    }
    hFile = fd;
    return true;
}

namespace {

// Another holder's lock keeps the file from being locked exclusively.
bool IsLockedByAnother(const char* path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == EAGAIN;
    const bool blocked = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);
    return blocked;
}

} // namespace

bool LFile::TestFileShareReadBlocked(const char* path) {
    return IsLockedByAnother(path);
}

bool LFile::TestFileShareWriteBlocked(const char* path) {
    return IsLockedByAnother(path);
}

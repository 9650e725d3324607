#include "llib/unix/filehandle.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "llib/gen/mutex.h"
#include "llib/gen/stringtools.h"

namespace {

constexpr mode_t kFileMode = 0666;

// Opens and takes a lock without waiting, as an open with a share-mode lock does: when another
// holder's lock is in the way, nothing is kept open and errno is EAGAIN. The lock comes before
// any truncation, so a file another holder has locked is left as it is.
int OpenLocked(const char* path, int flags, int lock) {
    const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC, kFileMode);
    if (fd < 0)
        return -1;
    if (flock(fd, lock | LOCK_NB) != 0) {
        const int error = errno;
        close(fd);
        errno = error == EWOULDBLOCK ? EAGAIN : error;
        return -1;
    }
    return fd;
}

// Closes fd keeping the thread's error number, which a failed open left for IsError*.
void CloseKeepingError(int& fd) {
    if (fd == -1)
        return;
    const int error = errno;
    close(fd);
    errno = error;
    fd = -1;
}

// Repeats _Read or _Write until length bytes are through or a call moves nothing.
unsigned int ReadFully(LFileRef file, void* buffer, unsigned int length) {
    unsigned int done = 0;
    while (done < length) {
        const unsigned int got = file._Read(static_cast<char*>(buffer) + done, length - done);
        if (got == 0)
            break;
        done += got;
    }
    return done;
}

unsigned int WriteFully(LFileRef file, const void* buffer, unsigned int length) {
    unsigned int done = 0;
    while (done < length) {
        const unsigned int put =
            file._Write(static_cast<const char*>(buffer) + done, length - done);
        if (put == 0)
            break;
        done += put;
    }
    return done;
}

unsigned int TextLength(const char* text) {
    const size_t length = text != nullptr ? strlen(text) : 0;
    return length > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned int>(length);
}

} // namespace

int flocktimed(int fd, int operation, unsigned int timeoutMs) {
    unsigned long long wait = timeoutMs / 32 + 1;
    for (;;) {
        const int result = flock(fd, operation | LOCK_NB);
        if (result == 0 || errno != EWOULDBLOCK)
            return result;
        Sleep(static_cast<unsigned int>(wait));
        wait *= 2;
        if (wait >= timeoutMs) {
            errno = EWOULDBLOCK;
            return -1;
        }
    }
}

int LFile::_OpenRead(const char* path, unsigned int timeoutMs) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0)
        flocktimed(fd, LOCK_SH, timeoutMs);
    return fd;
}

int LFile::_OpenWrite(const char* path, unsigned int timeoutMs) {
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd >= 0) {
        flocktimed(fd, LOCK_EX, timeoutMs);
        if (ftruncate(fd, 0) != 0) {
            // Opened all the same, as a failed lock would be; the caller's writes will tell.
        }
    }
    return fd;
}

int LFile::_OpenAppendAlways(const char* path, unsigned int timeoutMs) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd >= 0) {
        flocktimed(fd, LOCK_EX, timeoutMs);
        lseek(fd, 0, SEEK_END);
    }
    return fd;
}

bool LFile::IsErrorSharingViolation() {
    return errno == EACCES || errno == EAGAIN;
}

bool LFile::IsErrorAlreadyExists() {
    return errno == EEXIST;
}

bool LFile::IsErrorPermissionDenied() {
    return errno == EACCES;
}

bool LFile::IsErrorFileNotFound() {
    return errno == ENOENT;
}

unsigned int LFileRef::_Read(void* buffer, unsigned int length) {
    if (hFile == -1)
        return 0;
    ssize_t got;
    do
        got = read(hFile, buffer, length);
    while (got < 0 && errno == EINTR);
    return got < 0 ? 0 : static_cast<unsigned int>(got);
}

unsigned int LFileRef::_Write(const void* buffer, unsigned int length) {
    if (hFile == -1)
        return 0;
    ssize_t put;
    do
        put = write(hFile, buffer, length);
    while (put < 0 && errno == EINTR);
    return put < 0 ? 0 : static_cast<unsigned int>(put);
}

bool LFileRef::SetFileModifiedTime(time_t time) {
    if (hFile == -1)
        return false;
    const timespec times[2] = {{0, UTIME_OMIT}, {time, 0}};
    return futimens(hFile, times) == 0;
}

bool LReadFileRef::ReadLine(char* text, unsigned int size) {
    unsigned int stored = 0;
    bool any = false;
    bool ended = false;
    char c;
    while (_Read(&c, 1) == 1) {
        if (c == '\r' || c == '\n') {
            char next;
            if (_Read(&next, 1) == 1 && next != (c == '\r' ? '\n' : '\r'))
                lseek(hFile, -1, SEEK_CUR);
            ended = true;
            break;
        }
        any = true;
        if (stored + 1 < size)
            text[stored++] = c;
    }
    if (size > 0)
        text[stored] = 0;
    return ended || any;
}

bool LReadFileRef::ReadLine(LStringLongTemplate<char>& text) {
    if (text.pData == nullptr)
        text.GrowToSize(64);
    text.SetLength(0);
    bool any = false;
    char c;
    while (_Read(&c, 1) == 1) {
        if (c == '\r' || c == '\n') {
            char next;
            if (_Read(&next, 1) == 1 && next != (c == '\r' ? '\n' : '\r'))
                lseek(hFile, -1, SEEK_CUR);
            return true;
        }
        any = true;
        if (text.nLength + 1 >= text.nSize)
            text.GrowToSize(text.nSize > 0x7FFFFFFFu ? 0xFFFFFFFFu : text.nSize * 2);
        if (text.nLength + 1 >= text.nSize)
            break; // 4 GB on one line: keep what fits
        text.pData[text.nLength++] = c;
        text.pData[text.nLength] = 0;
    }
    return any;
}

unsigned int LReadFileRef::ReadStringUTF8(char* text, unsigned int length) {
    const unsigned int got = ReadFully(*this, text, length);
    text[got] = 0;
    return got;
}

bool LReadFileRef::ReadStringLenUTF8(char* text) {
    constexpr unsigned int kKept = 519;
    text[0] = 0;
    unsigned char prefix[4];
    if (ReadFully(*this, prefix, 1) != 1)
        return false;
    unsigned int length = prefix[0];
    if (length == 0xFF) {
        if (ReadFully(*this, prefix, 4) != 4)
            return false;
        length = prefix[0] | prefix[1] << 8 | prefix[2] << 16 |
                 static_cast<unsigned int>(prefix[3]) << 24;
    }
    const unsigned int wanted = length < kKept ? length : kKept;
    const unsigned int got = ReadFully(*this, text, wanted);
    text[got] = 0;
    if (got < length)
        lseek(hFile, static_cast<off_t>(length - got), SEEK_CUR);
    return got == wanted;
}

bool LWriteFileRef::WriteString(const char* text) {
    const unsigned int length = TextLength(text);
    return WriteFully(*this, text, length) == length;
}

bool LWriteFileRef::WriteStringUTF8(const char* text) {
    return WriteString(text);
}

unsigned int LWriteFileRef::WriteLineCRLF(const char* text) {
    WriteString(text);
    return WriteFully(*this, "\r\n", 2);
}

unsigned int LWriteFileRef::WriteLineLF(const char* text) {
    WriteString(text);
    return WriteFully(*this, "\n", 1);
}

bool LWriteFileRef::WriteStringLenUTF8(const char* text) {
    const unsigned int length = TextLength(text);
    unsigned char prefix[5];
    unsigned int prefixLength = 1;
    if (length < 255) {
        prefix[0] = static_cast<unsigned char>(length);
    } else {
        prefix[0] = 0xFF;
        for (int i = 0; i < 4; ++i)
            prefix[1 + i] = static_cast<unsigned char>(length >> (8 * i));
        prefixLength = 5;
    }
    return WriteFully(*this, prefix, prefixLength) == prefixLength &&
           WriteFully(*this, text, length) == length;
}

LReadFile::LReadFile(const char* path) : LReadFileRef(OpenLocked(path, O_RDONLY, LOCK_SH)) {}

LReadFile::LReadFile(const char* path, unsigned int timeoutMs)
    : LReadFileRef(LFile::_OpenRead(path, timeoutMs)) {}

LReadFile::~LReadFile() {
    Close();
}

void LReadFile::Close() {
    CloseKeepingError(hFile);
}

LWriteFile::LWriteFile(const char* path)
    : LWriteFileRef(OpenLocked(path, O_RDWR | O_CREAT, LOCK_EX)) {
    if (hFile != -1 && ftruncate(hFile, 0) != 0)
        CloseKeepingError(hFile);
}

LWriteFile::LWriteFile(const char* path, unsigned int timeoutMs)
    : LWriteFileRef(LFile::_OpenWrite(path, timeoutMs)) {}

LWriteFile::~LWriteFile() {
    Close();
}

void LWriteFile::Close() {
    CloseKeepingError(hFile);
}

bool LWriteFile::OpenNew(const char* path) {
    Close();
    hFile = OpenLocked(path, O_RDWR | O_CREAT | O_EXCL, LOCK_EX);
    return hFile != -1;
}

bool LWriteFile::OpenAppendAlways(const char* path, unsigned int timeoutMs) {
    Close();
    hFile = LFile::_OpenAppendAlways(path, timeoutMs);
    return hFile != -1;
}

unsigned long fprintf(LWriteFileRef file, const char* format, ...) {
    LStringLongTemplate<char> text(260);
    LStringLongTemplateWriter<char> writer(text);
    va_list arguments;
    va_start(arguments, format);
    tplprintf(writer, format, arguments);
    va_end(arguments);
    writer.Terminate();
    WriteFully(file, text.pData, text.nLength);
    return text.nLength;
}

namespace {

template <class File, class Buffer, class Transfer>
int ProcessTransfer(LProcessInterface& process, File file, Buffer* buffer, unsigned int length,
                    Transfer transfer) {
    constexpr unsigned int kStep = 10240;
    unsigned int done = 0;
    while (done < length) {
        if (process.IsToStop())
            return kLProcessStopped;
        const unsigned int step = length - done < kStep ? length - done : kStep;
        if (transfer(file, buffer + done, step) < step)
            return kLProcessFailed;
        done += step;
        process.SetProgress(static_cast<double>(done) / length);
    }
    return kLProcessDone;
}

} // namespace

int LProcessFileRead(LProcessInterface& process, LReadFileRef file, void* buffer,
                     unsigned int length) {
    return ProcessTransfer(process, file, static_cast<char*>(buffer), length,
                           [](LReadFileRef& f, char* b, unsigned int n) { return f._Read(b, n); });
}

int LProcessFileWrite(LProcessInterface& process, LWriteFileRef file, const void* buffer,
                      unsigned int length) {
    return ProcessTransfer(
        process, file, static_cast<const char*>(buffer), length,
        [](LWriteFileRef& f, const char* b, unsigned int n) { return f._Write(b, n); });
}

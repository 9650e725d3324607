// File handles over POSIX descriptors, with advisory flock locks standing in for share modes: a
// reader holds a shared lock, a writer an exclusive one, so a file is not read by one holder
// while another rewrites it, within one process or across processes (each open takes its own
// lock). On top of the handles: a buffered reader, little-endian and length-prefixed records for
// small binary files, line writers, formatted writing, chunked transfers that a process
// interface can stop, and lock files that mark a document as in use.
//
// Handles carry no lock of their own: one handle is used by one thread at a time. Failures are
// reported by counts (0 or short) and bool results; after a failed open, LFile's IsError* tests
// classify the thread's error number.
#pragma once

#include <ctime>

#include "llib/gen/file.h"
#include "llib/gen/process.h"
#include "llib/gen/stringlong.h"

// Takes a flock lock (operation LOCK_SH or LOCK_EX; it is always tried without blocking),
// retrying while another holder has it: the first wait is timeoutMs / 32 + 1 ms, each wait is
// twice the one before, and no try follows a wait that reaches timeoutMs (1000 gives waits of
// 32, 64, 128, 256 and 512 ms, five tries). 0 when taken; -1 with errno EWOULDBLOCK when the
// time ran out; flock's result and errno at once for any other failure.
int flocktimed(int fd, int operation, unsigned int timeoutMs);

// One descriptor, -1 for none. Not owning: copies share the number and nothing closes it.
class LFileRef {
public:
    LFileRef() = default;
    explicit LFileRef(int fd) : hFile(fd) {}

    bool IsValid() const { return hFile != -1; }
    // One read or write call (repeated only when a signal interrupts it); the count
    // transferred, 0 on an error or without a file.
    unsigned int _Read(void* buffer, unsigned int length);
    unsigned int _Write(const void* buffer, unsigned int length);
    // Sets the modification time (seconds since 1970, no fraction) and keeps the access time;
    // false without a file or when the system refuses.
    bool SetFileModifiedTime(time_t time);

    int hFile = -1;
};

class LReadFileRef : public LFileRef {
public:
    LReadFileRef() = default;
    explicit LReadFileRef(int fd) : LFileRef(fd) {}

    // Reads a line a byte at a time. CR, LF, CR LF and LF CR each end a line (CR CR and LF LF
    // are two); the byte after a line end is given back (the position moves back) unless it
    // completes the pair. Stores at most size - 1 bytes (the rest of the line is read and
    // dropped), terminated. At the end of the file, true only when the line has a byte.
    bool ReadLine(char* text, unsigned int size);
    // The same into a growable string, without a length limit.
    bool ReadLine(LStringLongTemplate<char>& text);
    // Reads length bytes into text (which holds length + 1) and terminates what was read;
    // returns the count read.
    unsigned int ReadStringUTF8(char* text, unsigned int length);
    // Reads a length-prefixed string record (see WriteStringLenUTF8) into text, which holds 520
    // bytes: at most 519 bytes are kept, and the position moves past the whole record so the
    // next one is read aligned. False when the record is cut short by the end of the file.
    bool ReadStringLenUTF8(char* text);
    // A little-endian unsigned value of sizeof(T) bytes; bytes not read count as 0.
    template <class T>
    T ReadIntLE();
};

class LWriteFileRef : public LFileRef {
public:
    LWriteFileRef() = default;
    explicit LWriteFileRef(int fd) : LFileRef(fd) {}

    // Writes the text without its terminator; true when every byte was written.
    bool WriteString(const char* text);
    // The text is UTF-8 already: WriteString.
    bool WriteStringUTF8(const char* text);
    // Write the text and then "\r\n" or "\n"; return the count written of the line end.
    unsigned int WriteLineCRLF(const char* text);
    unsigned int WriteLineLF(const char* text);
    // The record of small settings files: the byte length L of the text, as one byte when below
    // 255, else as 0xFF and L in four little-endian bytes; then the L bytes (no terminator).
    bool WriteStringLenUTF8(const char* text);
    // value in sizeof(T) bytes, least significant first; true when all were written.
    template <class T>
    bool WriteIntLE(T value);
};

// Owning read handle: opens in its constructor, closes when destroyed.
class LReadFile : public LReadFileRef {
public:
    LReadFile() = default;
    // Read-only with a shared lock taken at open; fails at once (EAGAIN) while another holder
    // has an exclusive lock.
    explicit LReadFile(const char* path);
    // Read-only; waits up to timeoutMs for the shared lock and opens without it after that.
    LReadFile(const char* path, unsigned int timeoutMs);
    ~LReadFile();
    LReadFile(const LReadFile&) = delete;
    LReadFile& operator=(const LReadFile&) = delete;

    void Close();
};

// Owning write handle.
class LWriteFile : public LWriteFileRef {
public:
    LWriteFile() = default;
    // Read-write, created when missing (mode 0666 less the umask), with an exclusive lock taken
    // at open, then emptied; fails at once (EAGAIN), leaving the file alone, while another
    // holder has any lock.
    explicit LWriteFile(const char* path);
    // LFile::_OpenWrite: waits up to timeoutMs for the lock and opens without it after that.
    LWriteFile(const char* path, unsigned int timeoutMs);
    ~LWriteFile();
    LWriteFile(const LWriteFile&) = delete;
    LWriteFile& operator=(const LWriteFile&) = delete;

    // Close what the handle holds and open anew. OpenNew creates the file, failing (EEXIST)
    // when it exists, with an exclusive lock; OpenAppendAlways is LFile::_OpenAppendAlways.
    bool OpenNew(const char* path);
    bool OpenAppendAlways(const char* path, unsigned int timeoutMs);
    void Close();
};

// A read handle with an 8192-byte buffer, for reading lines and small pieces. The buffered bytes
// (nCount - nIndex) lie just before the descriptor's position, so the logical position is the
// file position less that count.
class LReadFileBuffered {
public:
    // As LReadFile.
    explicit LReadFileBuffered(const char* path);
    LReadFileBuffered(const char* path, unsigned int timeoutMs);
    LReadFileBuffered(const LReadFileBuffered&) = delete;
    LReadFileBuffered& operator=(const LReadFileBuffered&) = delete;

    bool IsValid() const { return File.IsValid(); }
    // Delivers up to length bytes; short only at the end of the file or on an error. With the
    // buffer empty, a request above 256 bytes is read straight from the file.
    unsigned int Read(void* buffer, unsigned int length);
    // Delivers the next length bytes without consuming them: a later Read returns the same.
    unsigned int Peek(void* buffer, unsigned int length);
    // Reads a line: LF, CR or CR LF ends it (CR CR is two lines). Stores at most size - 1
    // bytes (the rest of the line is read and dropped), terminated. At the end of the file,
    // true only when the line has a byte; a line ended by CR or LF is true even when empty.
    bool ReadLine(char* text, unsigned int size);
    // Positioning from the start, or by offset from the logical position; each empties the
    // buffer. False when the system refuses the position.
    bool Seek(unsigned int position);
    bool Seek64(long long position);
    bool SeekOffset64(long long offset);
    // The logical position (a failing position query counts as 0).
    long long Tell64();
    // The size from fstat; 0 without a file or when the query fails.
    unsigned long long GetFileSizeBytes64();

    LReadFile File;
    unsigned char Buffer[8192];
    unsigned int nIndex = 0; // next unread byte
    unsigned int nCount = 0; // valid bytes

private:
    bool Refill();
};

// Marks a document as in use by a lock file next to it (the document's path with the extension
// .lck), held open with an exclusive lock.
class LLockFile {
public:
    LLockFile() = default;
    // Closes and deletes the lock file held.
    ~LLockFile();
    LLockFile(const LLockFile&) = delete;
    LLockFile& operator=(const LLockFile&) = delete;

    // Releases the lock file held (closes and deletes it), then opens and locks the one for
    // path (created with mode 0777 less the umask, emptied). False only when another holder has
    // it locked; true when locked, and also when it could not be opened for any other reason.
    bool Lock(const char* path);

    int hFile = -1;
    char szPath[260] = {};
};

// Formats with the library's formatter and writes the text; returns its length.
unsigned long fprintf(LWriteFileRef file, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Transfer length bytes in steps of 10240, asking process.IsToStop() before each step and
// reporting SetProgress(done / length) after it: 0 done (at once for 0 bytes), 1 stopped,
// 2 a step transferred less than asked.
int LProcessFileRead(LProcessInterface& process, LReadFileRef file, void* buffer,
                     unsigned int length);
int LProcessFileWrite(LProcessInterface& process, LWriteFileRef file, const void* buffer,
                      unsigned int length);

template <class T>
T LReadFileRef::ReadIntLE() {
    unsigned char bytes[sizeof(T)] = {};
    _Read(bytes, sizeof(T));
    T value = 0;
    for (size_t i = sizeof(T); i-- > 0;)
        value = static_cast<T>(static_cast<unsigned long long>(value) << 8 | bytes[i]);
    return value;
}

template <class T>
bool LWriteFileRef::WriteIntLE(T value) {
    unsigned char bytes[sizeof(T)];
    unsigned long long v = value;
    for (size_t i = 0; i < sizeof(T); ++i, v >>= 8)
        bytes[i] = static_cast<unsigned char>(v);
    return _Write(bytes, sizeof(T)) == sizeof(T);
}

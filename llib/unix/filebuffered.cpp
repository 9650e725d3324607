#include "llib/unix/filehandle.h"

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A request of more than this, met with an empty buffer, is read straight from the file.
constexpr unsigned int kDirectReadAbove = 256;

} // namespace

LReadFileBuffered::LReadFileBuffered(const char* path) : File(path) {}

LReadFileBuffered::LReadFileBuffered(const char* path, unsigned int timeoutMs)
    : File(path, timeoutMs) {}

bool LReadFileBuffered::Refill() {
    nIndex = 0;
    nCount = File._Read(Buffer, sizeof Buffer);
    return nCount > 0;
}

unsigned int LReadFileBuffered::Read(void* buffer, unsigned int length) {
    unsigned char* out = static_cast<unsigned char*>(buffer);
    unsigned int total = 0;
    while (total < length) {
        if (nIndex == nCount) {
            const unsigned int wanted = length - total;
            if (wanted > kDirectReadAbove)
                return total + File._Read(out + total, wanted);
            if (!Refill())
                return total;
        }
        const unsigned int buffered = nCount - nIndex;
        const unsigned int step = buffered < length - total ? buffered : length - total;
        memcpy(out + total, Buffer + nIndex, step);
        nIndex += step;
        total += step;
    }
    return total;
}

unsigned int LReadFileBuffered::Peek(void* buffer, unsigned int length) {
    if (length == 0)
        return 0;
    unsigned char* out = static_cast<unsigned char*>(buffer);
    const unsigned int buffered = nCount - nIndex;
    off_t position = lseek(File.hFile, 0, SEEK_CUR);
    if (position < 0)
        position = 0;
    const off_t logical = position - buffered;
    unsigned int delivered = buffered < length ? buffered : length;
    memcpy(out, Buffer + nIndex, delivered);
    if (delivered < length)
        delivered += File._Read(out + delivered, length - delivered);
    if (buffered == 0) {
        // What was read becomes the buffer, so the next Read need not read it again.
        nIndex = 0;
        nCount = delivered < sizeof Buffer ? delivered : static_cast<unsigned int>(sizeof Buffer);
        memcpy(Buffer, out, nCount);
    }
    lseek(File.hFile, logical + (nCount - nIndex), SEEK_SET);
    return delivered;
}

bool LReadFileBuffered::ReadLine(char* text, unsigned int size) {
    const unsigned int limit = size > 0 ? size - 1 : 0;
    unsigned int stored = 0;
    bool any = false;
    for (;;) {
        if (nIndex == nCount && !Refill()) {
            if (size > 0)
                text[stored] = 0;
            return any;
        }
        // The run up to the first line end in the buffer, or all of it.
        const unsigned char* start = Buffer + nIndex;
        const unsigned char* end = Buffer + nCount;
        const unsigned char* stop = static_cast<const unsigned char*>(
            memchr(start, '\n', static_cast<size_t>(end - start)));
        if (stop == nullptr)
            stop = end;
        const void* cr = memchr(start, '\r', static_cast<size_t>(stop - start));
        if (cr != nullptr)
            stop = static_cast<const unsigned char*>(cr);
        const unsigned int run = static_cast<unsigned int>(stop - start);
        if (run > 0) {
            any = true;
            const unsigned int kept = run < limit - stored ? run : limit - stored;
            memcpy(text + stored, start, kept);
            stored += kept;
        }
        nIndex += run;
        if (stop == end)
            continue;
        ++nIndex; // the line end
        if (*stop == '\r') {
            if (nIndex == nCount)
                Refill(); // the LF of a CR LF may start the next block
            if (nIndex < nCount && Buffer[nIndex] == '\n')
                ++nIndex;
        }
        if (size > 0)
            text[stored] = 0;
        return true;
    }
}

bool LReadFileBuffered::Seek(unsigned int position) {
    return Seek64(position);
}

bool LReadFileBuffered::Seek64(long long position) {
    if (lseek(File.hFile, static_cast<off_t>(position), SEEK_SET) < 0)
        return false;
    nIndex = nCount = 0;
    return true;
}

bool LReadFileBuffered::SeekOffset64(long long offset) {
    const long long fromFilePosition = offset - static_cast<long long>(nCount - nIndex);
    if (lseek(File.hFile, static_cast<off_t>(fromFilePosition), SEEK_CUR) < 0)
        return false;
    nIndex = nCount = 0;
    return true;
}

long long LReadFileBuffered::Tell64() {
    off_t position = lseek(File.hFile, 0, SEEK_CUR);
    if (position < 0)
        position = 0;
    return static_cast<long long>(position) - (nCount - nIndex);
}

unsigned long long LReadFileBuffered::GetFileSizeBytes64() {
    struct stat status {};
    if (File.hFile == -1 || fstat(File.hFile, &status) != 0)
        return 0;
    return static_cast<unsigned long long>(status.st_size);
}

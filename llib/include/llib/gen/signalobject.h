// Signal objects: manual-reset, level-triggered events built on a non-blocking pipe, so a thread
// can wait for several of them at once with select, together with sockets and files.
// Signal writes one byte, Reset drains the pipe, a wait waits for the read end to be readable.
// No wait clears the object. Signal, Reset and the waits may be called from any thread.
// Time-outs are milliseconds; 0xFFFFFFFF means none.
#pragma once

#include <sys/select.h>

// A non-owning handle to a signal object, copied by value. filedes[0] is the pipe's read end,
// filedes[1] its write end.
class LSignalObjectRef {
public:
    LSignalObjectRef() = default;
    LSignalObjectRef(int readFd, int writeFd) {
        filedes[0] = readFd;
        filedes[1] = writeFd;
    }

    // select() on readSet up to maxFd with the time-out: true when something is ready, and also
    // when the wait was interrupted by a signal (EINTR), as if signalled; false on time-out or
    // any other failure.
    bool Select(int maxFd, fd_set& readSet, unsigned int timeoutMs) const;

    // Waits until this object is set; false on time-out.
    bool WaitSignal(unsigned int timeoutMs) const;
    // Polls: true while the object is set.
    bool IsSignaled() const;
    // Waits until this object or other is set.
    bool WaitSignalDual(LSignalObjectRef other, unsigned int timeoutMs) const;
    // Waits until this object, a or b is set.
    bool WaitSignalTriple(LSignalObjectRef a, LSignalObjectRef b, unsigned int timeoutMs) const;
    bool WaitSignalDualForever(LSignalObjectRef other) const;

    // Sets the object: one more byte in the pipe. Fails silently on a full pipe (the object then
    // is set anyway) and on an object whose pipe could not be made.
    void Signal() const;
    // Clears the object: reads until the pipe is empty.
    void Reset() const;

    int GetReadFd() const { return filedes[0]; }
    int GetWriteFd() const { return filedes[1]; }

    int filedes[2] = {-1, -1};
};

// Owns the pipe of a signal object; clear when constructed. When the pipe cannot be made both
// descriptors stay -1: waits then fail (false) and Signal does nothing.
class LSignalObject : public LSignalObjectRef {
public:
    LSignalObject();
    ~LSignalObject();
    LSignalObject(const LSignalObject&) = delete;
    LSignalObject& operator=(const LSignalObject&) = delete;
};

// Up to 255 signal objects (or any readable descriptors below 1024) waited on at once.
class LSignalObjectGroup {
public:
    enum { kMaxAdditions = 255 };

    LSignalObjectGroup();

    // Adds the read end of signal; ignored after 255 additions (or for a descriptor select
    // cannot watch).
    void Add(LSignalObjectRef signal);
    // Adds the other group's descriptors in ascending order until 255 additions were made; a
    // descriptor already present is counted again.
    void Add(LSignalObjectGroup& other);

    // Waits on a copy of the set: true only when something is ready; an interrupted wait reports
    // false. The group is unchanged and can be waited on again. Does not say which member is set.
    bool Select(unsigned int timeoutMs) const;

    fd_set fdSet;
    int nMaxFd;
    unsigned int nAdded;
};

// Builds the select() time-out for timeoutMs; null for 0xFFFFFFFF (no time-out).
struct timeval* LMakeSelectTimeout(unsigned int timeoutMs, struct timeval& storage);

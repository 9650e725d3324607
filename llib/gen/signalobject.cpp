#include "llib/gen/signalobject.h"

#include "signalsync.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

struct timeval* LMakeSelectTimeout(unsigned int timeoutMs, struct timeval& storage) {
    if (timeoutMs == 0xFFFFFFFFu)
        return nullptr;
    storage.tv_sec = timeoutMs / 1000;
    storage.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
    return &storage;
}

// select() cannot watch a negative descriptor or one at or above FD_SETSIZE; FD_SET on such a
// descriptor would write outside the set.
static bool IsSelectable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

bool LSignalObjectRef::Select(int maxFd, fd_set& readSet, unsigned int timeoutMs) const {
    timeval storage{};
    int ready =
        select(maxFd + 1, &readSet, nullptr, nullptr, LMakeSelectTimeout(timeoutMs, storage));
    if (ready > 0) {
        signalsync::AcquiredReady(maxFd, readSet);
        return true;
    }
    if (ready == 0)
        return false;
    return errno == EINTR;
}

bool LSignalObjectRef::WaitSignal(unsigned int timeoutMs) const {
    if (!IsSelectable(filedes[0]))
        return false;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(filedes[0], &readSet);
    return Select(filedes[0], readSet, timeoutMs);
}

bool LSignalObjectRef::IsSignaled() const {
    return WaitSignal(0);
}

bool LSignalObjectRef::WaitSignalDual(LSignalObjectRef other, unsigned int timeoutMs) const {
    return WaitSignalTriple(other, other, timeoutMs);
}

bool LSignalObjectRef::WaitSignalTriple(LSignalObjectRef a, LSignalObjectRef b,
                                        unsigned int timeoutMs) const {
    const int fds[3] = {filedes[0], a.filedes[0], b.filedes[0]};
    fd_set readSet;
    FD_ZERO(&readSet);
    int maxFd = -1;
    for (int fd : fds) {
        if (!IsSelectable(fd))
            return false;
        FD_SET(fd, &readSet);
        if (fd > maxFd)
            maxFd = fd;
    }
    return Select(maxFd, readSet, timeoutMs);
}

bool LSignalObjectRef::WaitSignalDualForever(LSignalObjectRef other) const {
    return WaitSignalDual(other, 0xFFFFFFFFu);
}

void LSignalObjectRef::Signal() const {
    if (filedes[1] < 0)
        return;
    signalsync::Released(filedes[0]);
    const unsigned char one = 1;
    ssize_t written;
    do
        written = write(filedes[1], &one, 1);
    while (written < 0 && errno == EINTR);
}

void LSignalObjectRef::Reset() const {
    if (filedes[0] < 0)
        return;
    unsigned char drained[64];
    for (;;) {
        ssize_t got = read(filedes[0], drained, sizeof drained);
        if (got >= 1)
            continue;
        if (got < 0 && errno == EINTR)
            continue;
        break;
    }
}

LSignalObject::LSignalObject() {
    int ends[2];
    if (pipe(ends) != 0)
        return;
    for (int fd : ends) {
        fcntl(fd, F_SETFL, O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    filedes[0] = ends[0];
    filedes[1] = ends[1];
}

LSignalObject::~LSignalObject() {
    for (int fd : filedes)
        if (fd >= 0)
            close(fd);
}

LSignalObjectGroup::LSignalObjectGroup() : nMaxFd(-1), nAdded(0) {
    FD_ZERO(&fdSet);
}

void LSignalObjectGroup::Add(LSignalObjectRef signal) {
    const int fd = signal.filedes[0];
    if (nAdded >= kMaxAdditions || !IsSelectable(fd))
        return;
    FD_SET(fd, &fdSet);
    if (fd > nMaxFd)
        nMaxFd = fd;
    ++nAdded;
}

void LSignalObjectGroup::Add(LSignalObjectGroup& other) {
    for (int fd = 0; fd <= other.nMaxFd; ++fd) {
        if (!FD_ISSET(fd, &other.fdSet))
            continue;
        if (nAdded >= kMaxAdditions)
            return;
        FD_SET(fd, &fdSet);
        if (fd > nMaxFd)
            nMaxFd = fd;
        ++nAdded;
    }
}

bool LSignalObjectGroup::Select(unsigned int timeoutMs) const {
    fd_set copy = fdSet;
    timeval storage{};
    if (select(nMaxFd + 1, &copy, nullptr, nullptr, LMakeSelectTimeout(timeoutMs, storage)) < 1)
        return false;
    signalsync::AcquiredReady(nMaxFd, copy);
    return true;
}

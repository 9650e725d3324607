// TCP operations in 200 ms slices under a process interface, and the TCP listener thread.
#include "llib/net/tcp.h"

#include "llib/gen/debug.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned int kSliceMs = 200;
constexpr int kSendBufferSize = 32768;
constexpr int kListenBacklog = 50;

enum Result { kDone = 0, kStopped = 1, kFailed = 2 };

void SetNonBlocking(int fd) {
    int on = 1;
    ioctl(fd, FIONBIO, &on);
}

void SetCloseOnExec(int fd) {
    fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
}

// Sending on a socket whose peer has gone must give an error, not SIGPIPE: every send passes
// MSG_NOSIGNAL (there is no per-socket switch here), and SIGPIPE is ignored process-wide too.
constexpr int kSendFlags = MSG_NOSIGNAL;

void PrepareSocket(int fd) {
    SetNonBlocking(fd);
    int size = kSendBufferSize;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    SetCloseOnExec(fd);
}

// The time-out rule after an empty slice: false when it is used up, else one slice less.
bool ConsumeSlice(unsigned int& remainingMs) {
    if (remainingMs <= kSliceMs)
        return false;
    remainingMs -= kSliceMs;
    return true;
}

enum class Wait { kRead, kWrite, kConnect };

// One slice of select on fd: > 0 ready, 0 nothing, < 0 failure. writable (optional) tells
// whether fd came back in the write set. A descriptor beyond the set's room fails.
int WaitSlice(int fd, Wait what, bool* writable = nullptr) {
    if (fd < 0 || fd >= FD_SETSIZE)
        return -1;
    fd_set readSet, writeSet, exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    if (what == Wait::kRead)
        FD_SET(fd, &readSet);
    else
        FD_SET(fd, &writeSet);
    if (what == Wait::kConnect)
        FD_SET(fd, &exceptSet);
    timeval slice{0, static_cast<suseconds_t>(kSliceMs * 1000)};
    int ready = select(fd + 1, &readSet, &writeSet, &exceptSet, &slice);
    // An interrupted slice counts as an empty one.
    if (ready < 0 && errno == EINTR)
        return 0;
    if (writable != nullptr)
        *writable = ready > 0 && FD_ISSET(fd, &writeSet);
    return ready;
}

} // namespace

LIPAddressWithPort::LIPAddressWithPort() : LIPAddressWithPort(LIPADDRESS_NONE, 0) {}

LIPAddressWithPort::LIPAddressWithPort(LIPAddress address, unsigned short port) : sockaddr_in{} {
    sin_family = AF_INET;
    sin_port = htons(port);
    sin_addr.s_addr = address;
}

bool LIPAddressMultiHomedWithPort::AddAddress(LIPAddress address) {
    if (nAddresses >= kMaxAddresses)
        return false;
    Addresses[nAddresses++] = address;
    return true;
}

LIPAddressWithPort LIPAddressMultiHomedWithPort::GetHost(unsigned int index) const {
    if (index >= nAddresses || index >= kMaxAddresses)
        return LIPAddressWithPort(LIPADDRESS_NONE, wPort);
    return LIPAddressWithPort(Addresses[index], wPort);
}

LIPSocket::LIPSocket(int fd) : hSocket(fd) {
    if (fd >= 0)
        SetNonBlocking(fd);
}

void LIPSocket::Close() {
    if (hSocket >= 0)
        close(hSocket);
    hSocket = -1;
}

void LIPSocket::Attach(int fd) {
    Close();
    hSocket = fd;
}

int ProcessConnect(LProcessInterface& process, LIPSocketTCP& socket,
                   const LIPAddressWithPort& address, unsigned int timeoutMs) {
    socket.Close();
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return kFailed;
    socket.Attach(fd);
    PrepareSocket(fd);
    if (address.GetAddress() == LIPADDRESS_NONE) {
        socket.Close();
        return kFailed;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(sockaddr_in)) == 0)
        return kDone;
    if (errno != EINPROGRESS) {
        socket.Close();
        return kFailed;
    }
    unsigned int remaining = timeoutMs;
    bool writable = false;
    for (;;) {
        int ready = WaitSlice(fd, Wait::kConnect, &writable);
        if (ready > 0)
            break;
        if (ready < 0) {
            socket.Close();
            return kFailed;
        }
        if (process.IsToStop()) {
            socket.Close();
            return kStopped;
        }
        if (!ConsumeSlice(remaining)) {
            socket.Close();
            return kFailed;
        }
    }
    if (writable)
        return kDone;
    socket.Close();
    return kFailed;
}

int ProcessConnect(LProcessInterface& process, LIPSocketTCP& socket,
                   const LIPAddressMultiHomedWithPort& addresses, unsigned int timeoutMs) {
    for (unsigned int i = 0; i < addresses.nAddresses && i < addresses.kMaxAddresses; ++i) {
        int result = ProcessConnect(process, socket, addresses.GetHost(i), timeoutMs);
        if (result != kFailed)
            return result;
    }
    return kFailed;
}

int ProcessSend(LProcessInterface& process, LIPSocketTCPRef socket, const void* data,
                unsigned long length, unsigned int timeoutMs) {
    const char* next = static_cast<const char*>(data);
    unsigned long left = length;
    unsigned int remaining = timeoutMs;
    for (;;) {
        if (process.IsToStop())
            return kStopped;
        ssize_t sent = send(socket.hSocket, next, left, kSendFlags);
        if (sent >= 0 && static_cast<unsigned long>(sent) == left)
            return kDone;
        if (sent > 0) {
            next += sent;
            left -= static_cast<unsigned long>(sent);
        } else if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            return kFailed;
        }
        int ready = WaitSlice(socket.hSocket, Wait::kWrite);
        if (ready < 0)
            return kFailed;
        if (ready == 0 && !ConsumeSlice(remaining))
            return kFailed;
    }
}

int ProcessWaitForDataOrClose(LProcessInterface& process, LIPSocketTCPRef socket,
                              unsigned int timeoutMs) {
    unsigned int remaining = timeoutMs;
    for (;;) {
        if (process.IsToStop())
            return kStopped;
        if (socket.hSocket == -1)
            return kFailed;
        if (WaitSlice(socket.hSocket, Wait::kRead) != 0)
            return kDone;
        if (!ConsumeSlice(remaining))
            return kFailed;
    }
}

int ProcessWaitForRecvReady(LProcessInterface& process, LIPSocketTCPRef socket,
                            unsigned int timeoutMs) {
    return ProcessWaitForDataOrClose(process, socket, timeoutMs);
}

int ProcessRecvReady(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                     unsigned long size, unsigned long& received, unsigned int timeoutMs) {
    received = 0;
    if (size == 0)
        return kDone;
    int result = ProcessWaitForDataOrClose(process, socket, timeoutMs);
    if (result != kDone)
        return result;
    ssize_t count = recv(socket.hSocket, buffer, size, 0);
    if (count <= 0)
        return kFailed;
    received = static_cast<unsigned long>(count);
    return kDone;
}

int ProcessRecvBytes(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                     unsigned long length, unsigned long& received, unsigned int timeoutMs) {
    received = 0;
    char* next = static_cast<char*>(buffer);
    while (received < length) {
        unsigned long arrived = 0;
        int result = ProcessRecvReady(process, socket, next, length - received, arrived, timeoutMs);
        if (result != kDone)
            return result;
        next += arrived;
        received += arrived;
    }
    return kDone;
}

int ProcessRecvBytes(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                     unsigned long length, unsigned int timeoutMs) {
    unsigned long received = 0;
    return ProcessRecvBytes(process, socket, buffer, length, received, timeoutMs);
}

bool ProcessRecvAll(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                    unsigned long length, unsigned long& received, unsigned int timeoutMs) {
    return ProcessRecvBytes(process, socket, buffer, length, received, timeoutMs) == kStopped;
}

int ProcessRecvByte(LProcessInterface& process, LIPSocketTCPRef socket, unsigned char& byte,
                    unsigned int timeoutMs) {
    for (;;) {
        unsigned long received = 0;
        int result = ProcessRecvReady(process, socket, &byte, 1, received, timeoutMs);
        if (result != kDone)
            return result;
        if (received == 1)
            return kDone;
    }
}

int ProcessRecvToCharacter(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                           unsigned long size, unsigned long& received, const char* delimiters,
                           unsigned int timeoutMs) {
    received = 0;
    int result = ProcessWaitForRecvReady(process, socket, timeoutMs);
    if (result != kDone)
        return result;
    if (size == 0)
        return kFailed;
    ssize_t peeked = recv(socket.hSocket, buffer, size, MSG_PEEK);
    if (peeked < 1)
        return kFailed;
    const unsigned char* bytes = static_cast<const unsigned char*>(buffer);
    size_t take = static_cast<size_t>(peeked);
    for (size_t i = 0; i < static_cast<size_t>(peeked); ++i) {
        if (bytes[i] != 0 && delimiters != nullptr &&
            strchr(delimiters, static_cast<char>(bytes[i])) != nullptr) {
            take = i + 1;
            break;
        }
    }
    ssize_t consumed = recv(socket.hSocket, buffer, take, 0);
    if (consumed < 1)
        return kFailed;
    received = static_cast<unsigned long>(consumed);
    return kDone;
}

LTCPListener::~LTCPListener() {
    StopThreadNow();
}

void LTCPListener::ThreadFunction() {
    LDebugThreadSetName("LTCPListener");
    for (;;) {
        LIPSocket listener(::socket(AF_INET, SOCK_STREAM, 0));
        const int fd = listener.GetSocket();
        const int stopFd = StopSignal.filedes[0];
        if (fd >= 0) {
            PrepareSocket(fd);
            int on = 1;
            setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            LIPAddressWithPort any(htonl(INADDR_ANY), wPort);
            bool listening =
                bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof(sockaddr_in)) == 0 &&
                listen(fd, kListenBacklog) == 0 && fd < FD_SETSIZE && stopFd >= 0 &&
                stopFd < FD_SETSIZE;
            while (listening) {
                fd_set readSet;
                FD_ZERO(&readSet);
                FD_SET(fd, &readSet);
                FD_SET(stopFd, &readSet);
                int ready =
                    select((fd > stopFd ? fd : stopFd) + 1, &readSet, nullptr, nullptr, nullptr);
                if (ready < 0 && errno == EINTR)
                    continue;
                if (ready < 0 || !FD_ISSET(fd, &readSet))
                    break;
                int connectionFd = accept(fd, nullptr, nullptr);
                if (connectionFd >= 0) {
                    SetCloseOnExec(connectionFd);
                    LIPSocketTCP connection(connectionFd);
                    ProcessConnection(connection);
                } else if (errno != ECONNABORTED && errno != EAGAIN && errno != EINTR) {
                    // A connection that went away before accept leaves nothing to take
                    // (EAGAIN on a non-blocking socket); anything else restarts the listener.
                    break;
                }
                if (IsToStop())
                    break;
            }
        }
        listener.Close();
        if (ProcessWait(nRestartPauseMs))
            return;
    }
}

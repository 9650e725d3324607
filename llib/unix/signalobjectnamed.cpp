// Named signal objects over Unix-domain stream sockets.
#include "llib/gen/signalobjectnamed.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <vector>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "llib/gen/file.h"

namespace {

int StreamSocket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int ConnectTo(const sockaddr_un& address) {
    const int fd = StreamSocket();
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A socket file nobody listens on is what a process that died in a wait leaves behind; it would
// make every later bind fail. A live waiter's file, or anything that is not a socket, stays.
void RemoveStaleSocket(const sockaddr_un& address) {
    struct stat info;
    if (lstat(address.sun_path, &info) != 0 || !S_ISSOCK(info.st_mode))
        return;
    const int fd = ConnectTo(address);
    if (fd >= 0)
        close(fd);
    else if (errno == ECONNREFUSED)
        unlink(address.sun_path);
}

// Connections accepted but not yet known to be a signaller's; the oldest goes when more come.
constexpr size_t kMaxPending = 16;

// Milliseconds left until deadline, for poll: -1 for no time-out.
int RemainingMs(bool forever, std::chrono::steady_clock::time_point deadline) {
    if (forever)
        return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    return left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

// Waits on listener for a connection that carries the signal byte and returns it, with the
// byte still unread; -1 on time-out or failure. A connection that closes without a byte is
// someone checking whether this waiter is alive (a second wait on the name, removing a stale
// file), not a signal: it is dropped and the wait goes on.
int AwaitSignaller(int listener, unsigned int timeoutMs) {
    const bool forever = timeoutMs == 0xFFFFFFFF;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    // poll rather than select: a descriptor number above FD_SETSIZE is fine here.
    std::vector<struct pollfd> waits = {{listener, POLLIN, 0}};
    int signaller = -1;
    while (signaller < 0) {
        const int ready = poll(waits.data(), waits.size(), RemainingMs(forever, deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            break;
        for (size_t i = waits.size(); i-- > 1;) {
            if (waits[i].revents == 0)
                continue;
            char byte;
            const ssize_t got = recv(waits[i].fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
            if (got > 0 && signaller < 0) {
                signaller = waits[i].fd;
                waits.erase(waits.begin() + static_cast<std::ptrdiff_t>(i));
            } else if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
                close(waits[i].fd);
                waits.erase(waits.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (signaller < 0 && (waits[0].revents & POLLIN) != 0) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                if (waits.size() > kMaxPending) {
                    close(waits[1].fd);
                    waits.erase(waits.begin() + 1);
                }
                waits.push_back({fd, POLLIN, 0});
            }
        }
    }
    for (size_t i = 1; i < waits.size(); ++i)
        close(waits[i].fd);
    return signaller;
}

} // namespace

LSignalObjectNamed::LSignalObjectNamed(const char* name) {
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    char folder[260];
    char path[260];
    LFile::GetUserDataFolder(folder);
    LFile::_MakeFilePath(path, folder, name != nullptr ? name : "", "");
    if (strlen(path) < sizeof address.sun_path)
        memcpy(address.sun_path, path, strlen(path) + 1);
}

LSignalObjectNamed::~LSignalObjectNamed() {
    if (connection != -1) {
        close(connection);
        unlink(address.sun_path);
    }
}

bool LSignalObjectNamed::WaitSignal(unsigned int timeoutMs) {
    if (address.sun_path[0] == 0)
        return false;
    const int listener = StreamSocket();
    if (listener < 0)
        return false;
    RemoveStaleSocket(address);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(listener);
        return false;
    }
    const int signaller = listen(listener, 5) == 0 ? AwaitSignaller(listener, timeoutMs) : -1;
    close(listener);
    const bool accepted = signaller >= 0;
    if (accepted) {
        if (connection != -1)
            close(connection);
        connection = signaller;
    }
    if (!accepted)
        unlink(address.sun_path);
    return accepted;
}

void LSignalObjectNamed::Signal() {
    if (address.sun_path[0] == 0)
        return;
    const int fd = ConnectTo(address);
    if (fd < 0)
        return;
    const char one = 1;
    while (send(fd, &one, 1, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
    close(fd);
}

void LSignalObjectNamed::Reset() {
    if (connection == -1)
        return;
    char byte;
    for (;;) {
        const ssize_t count = read(connection, &byte, 1);
        if (count < 1 && !(count < 0 && errno == EINTR))
            break;
    }
}

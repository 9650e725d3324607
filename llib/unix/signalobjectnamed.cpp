// Named signal objects over Unix-domain stream sockets.
#include "llib/gen/signalobjectnamed.h"

#include <cerrno>
#include <climits>
#include <cstring>
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
    bool accepted = false;
    if (listen(listener, 5) == 0) {
        // poll rather than select: a descriptor number above FD_SETSIZE is fine here.
        struct pollfd wait = {listener, POLLIN, 0};
        const int ms = timeoutMs == 0xFFFFFFFF ? -1
                       : timeoutMs > INT_MAX   ? INT_MAX
                                               : static_cast<int>(timeoutMs);
        if (poll(&wait, 1, ms) > 0) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                if (connection != -1)
                    close(connection);
                connection = fd;
                accepted = true;
            }
        }
    }
    close(listener);
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

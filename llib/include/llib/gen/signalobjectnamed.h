// A one-shot signal between processes, found by name: the waiting process listens on a
// Unix-domain socket in the user's data folder (GetUserDataFolder joined with the name), the
// signalling process connects to it and writes one byte. Same calls as LSignalObject.
// Time-outs are milliseconds; 0xFFFFFFFF means none.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

class LSignalObjectNamed {
public:
    // The socket's path is formed here (so the data folder is made here when missing); a path
    // too long for a socket address (107 bytes) is left empty, and then waits fail and Signal
    // does nothing.
    explicit LSignalObjectNamed(const char* name);
    // Closes the accepted connection, if any, and deletes the socket file.
    ~LSignalObjectNamed();
    LSignalObjectNamed(const LSignalObjectNamed&) = delete;
    LSignalObjectNamed& operator=(const LSignalObjectNamed&) = delete;

    // Listens under the name (backlog 5) until another process signals or the time runs out;
    // true when a signaller's connection was accepted, which is kept until Reset and the
    // destructor. Only a connection that carries the signal's byte counts: one that closes
    // without writing (another process checking that this waiter is alive) is dropped and the
    // wait goes on. A socket file left by a process that ended while waiting is replaced; one
    // another process is waiting on is not, and the wait fails. The listening socket, and its
    // file unless a connection was accepted, are gone when this returns.
    bool WaitSignal(unsigned int timeoutMs);
    // Connects to the process waiting under the name and writes one byte; nothing happens when
    // none is waiting.
    void Signal();
    // Reads the accepted connection until the signaller has closed it.
    void Reset();

    struct sockaddr_un address;
    int connection = -1;
};

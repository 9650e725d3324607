// Owning and non-owning IPv4 socket handles.
#pragma once

// Owns one socket descriptor (-1 for none) and closes it when destroyed.
class LIPSocket {
public:
    LIPSocket() : hSocket(-1) {}
    // Takes ownership of fd and switches it to non-blocking mode (fd may be -1).
    explicit LIPSocket(int fd);
    ~LIPSocket() { Close(); }
    LIPSocket(const LIPSocket&) = delete;
    LIPSocket& operator=(const LIPSocket&) = delete;

    int GetSocket() const { return hSocket; }
    bool IsValid() const { return hSocket >= 0; }
    // Closes the descriptor (if any) and holds none.
    void Close();
    // Replaces the held descriptor with fd (the old one is closed); fd is taken as it is.
    void Attach(int fd);

protected:
    int hSocket;
};

// A TCP socket: the connection that ProcessConnect makes or the listener hands out.
class LIPSocketTCP : public LIPSocket {
public:
    LIPSocketTCP() = default;
    explicit LIPSocketTCP(int fd) : LIPSocket(fd) {}
};

// A descriptor passed by value to the TCP operations; it owns nothing.
struct LIPSocketTCPRef {
    LIPSocketTCPRef(int fd) : hSocket(fd) {}
    LIPSocketTCPRef(const LIPSocketTCP& socket) : hSocket(socket.GetSocket()) {}

    int hSocket;
};

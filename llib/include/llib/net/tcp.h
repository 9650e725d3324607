// TCP client operations that never block for long, and a TCP listener thread.
//
// Every socket is non-blocking; each operation waits in slices of 200 ms and asks the caller's
// LProcessInterface between slices whether it is to stop, so a worker thread abandons a
// connect, send or receive within one slice of a stop request. The time-out (milliseconds)
// counts only the slices in which nothing happened: a time-out of t allows about t / 200 empty
// slices (at least one), and a slow but steady peer never times out.
//
// Results: 0 done, 1 stopped, 2 timed out or failed. Writing to a closed connection returns an
// error (2), never SIGPIPE. IPv4 only. A socket must not be used by two operations at once; the
// operations run on the caller's thread.
#pragma once

#include "llib/gen/thread.h"
#include "llib/net/netbase.h"
#include "llib/net/sockets.h"

// Connects socket (closing what it held first) to address. A refused connection may report
// itself as connected; the failure then shows at the first send or receive. On failure or stop
// the socket is left closed.
int ProcessConnect(LProcessInterface& process, LIPSocketTCP& socket,
                   const LIPAddressWithPort& address, unsigned int timeoutMs);
// Tries each address in order with the full time-out; returns the first result that is not 2,
// or 2 when all failed or there are none.
int ProcessConnect(LProcessInterface& process, LIPSocketTCP& socket,
                   const LIPAddressMultiHomedWithPort& addresses, unsigned int timeoutMs);
// Sends all length bytes.
int ProcessSend(LProcessInterface& process, LIPSocketTCPRef socket, const void* data,
                unsigned long length, unsigned int timeoutMs);
// Waits until the socket is readable (data or end of stream).
int ProcessWaitForDataOrClose(LProcessInterface& process, LIPSocketTCPRef socket,
                              unsigned int timeoutMs);
// The same wait.
int ProcessWaitForRecvReady(LProcessInterface& process, LIPSocketTCPRef socket,
                            unsigned int timeoutMs);
// One wait and one receive of what is there, up to size bytes, counted in received. A size of
// 0 returns 0 at once; a closed peer gives 2.
int ProcessRecvReady(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                     unsigned long size, unsigned long& received, unsigned int timeoutMs);
// Receives exactly length bytes (each wait with the full time-out).
int ProcessRecvBytes(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                     unsigned long length, unsigned int timeoutMs);
// The same, counting in received how many bytes arrived (also when it fails).
int ProcessRecvBytes(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                     unsigned long length, unsigned long& received, unsigned int timeoutMs);
// ProcessRecvBytes reduced to a bool: true only when it was stopped (1); complete reception and
// failure both give false. Use ProcessRecvBytes to tell those apart.
bool ProcessRecvAll(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                    unsigned long length, unsigned long& received, unsigned int timeoutMs);
// Receives one byte.
int ProcessRecvByte(LProcessInterface& process, LIPSocketTCPRef socket, unsigned char& byte,
                    unsigned int timeoutMs);
// Receives, from what is available now, up to and including the first byte that occurs in
// delimiters (a 0 byte never does), at most size bytes. It does not wait for more once some
// data is there: the caller repeats until received ends with a delimiter.
int ProcessRecvToCharacter(LProcessInterface& process, LIPSocketTCPRef socket, void* buffer,
                           unsigned long size, unsigned long& received, const char* delimiters,
                           unsigned int timeoutMs);

// A worker thread that accepts TCP connections on wPort on every local IPv4 address and hands
// them, one after another, to ProcessConnection on its own thread. Errors are answered by
// closing the listening socket, pausing nRestartPauseMs and starting over (a port in use is
// retried for as long as the thread runs). A stop request ends the thread at once while it
// waits for a connection or pauses, and after the current handler returns otherwise. Start it
// with Start(priority) after setting wPort.
class LTCPListener : public LThread {
public:
    explicit LTCPListener(unsigned short port = 0) : wPort(port) {}
    // Stops the thread (waiting for a running handler) before the derived parts go away.
    ~LTCPListener() override;

    // Handles one accepted connection; the listener closes it when this returns. Use the
    // operations above with the listener as the process interface, so a stop request also ends
    // the conversation in progress.
    virtual void ProcessConnection(LIPSocketTCP& connection) = 0;

    unsigned short wPort; // host byte order; set before Start
    // Pause before listening again after an error.
    unsigned int nRestartPauseMs = 30000;

protected:
    void ThreadFunction() override;
};

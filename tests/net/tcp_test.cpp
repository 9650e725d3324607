// TCP operations and the listener thread against real peers on the loopback interface: one that
// accepts, one that refuses, one that never answers, one that closes, one that never reads.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <atomic>
#include <memory>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "llib/net/tcp.h"
#include "support/elapsed.h"
#include "support/process.h"
#include "support/tavix_helpers.h"

namespace {

const LIPAddress kLoopback = htonl(INADDR_LOOPBACK);

sockaddr_in LoopbackAddress(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = kLoopback;
    address.sin_port = htons(port);
    return address;
}

// A caller that stops when told to.
struct Caller : LProcessInterfaceVoid {
    std::atomic<bool> stop{false};
    bool IsToStop() override { return stop.load(); }
};

// Asks caller to stop once the calling thread sleeps in its wait.
std::thread StopDuringTheWait(Caller& caller) {
    return std::thread([&caller, waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        caller.stop = true;
    });
}

// Waits until `count` bytes can be read from socket without waiting.
bool Arrived(const LIPSocketTCP& socket, int count) {
    return WaitUntil([&] {
        int ready = 0;
        return ioctl(socket.GetSocket(), FIONREAD, &ready) == 0 && ready >= count;
    });
}

// A listening socket on a free loopback port; it accepts only when asked.
struct Peer {
    int listener = -1;
    unsigned short port = 0;
    explicit Peer(int backlog = 8) {
        listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = LoopbackAddress(0);
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener, backlog);
        socklen_t length = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~Peer() { close(listener); }
    int Accept() { return accept(listener, nullptr, nullptr); }
};

// A loopback port nobody listens on: the peer's, closed when it goes.
unsigned short ClosedPort() {
    return Peer().port;
}

// A connected pair: ours (through ProcessConnect) and the peer's accepted end.
struct Connection {
    Peer peer;
    LIPSocketTCP ours;
    int theirs = -1;
    Caller caller;
    Connection() {
        EXPECT_EQ(0, ProcessConnect(caller, ours, LIPAddressWithPort(kLoopback, peer.port), 2000));
        theirs = peer.Accept();
    }
    ~Connection() {
        if (theirs >= 0)
            close(theirs);
    }
};

TEST(TcpConnect, ConnectsRefusesAndTriesEachAddressInTurn) {
    Peer peer;
    Caller caller;
    LIPSocketTCP socket;
    EXPECT_EQ(0, ProcessConnect(caller, socket, LIPAddressWithPort(kLoopback, peer.port), 1000));

    // A refused connection reports itself writable and so counts as connected; the failure
    // shows at the first receive.
    LIPSocketTCP refused;
    EXPECT_EQ(0,
              ProcessConnect(caller, refused, LIPAddressWithPort(kLoopback, ClosedPort()), 1000));
    char byte;
    unsigned long received = 0;
    EXPECT_EQ(2, ProcessRecvReady(caller, refused, &byte, 1, received, 1000));

    EXPECT_EQ(2, ProcessConnect(caller, refused, LIPAddressWithPort(LIPADDRESS_NONE, 80), 1000));
    EXPECT_FALSE(refused.IsValid());

    // The first address fails, the second accepts.
    Peer everywhere;
    LIPAddressMultiHomedWithPort addresses(everywhere.port);
    LIPSocketTCP multi;
    EXPECT_EQ(2, ProcessConnect(caller, multi, LIPAddressMultiHomedWithPort(80), 500))
        << "no addresses";
    addresses.AddAddress(LIPADDRESS_NONE);
    addresses.AddAddress(kLoopback);
    EXPECT_EQ(0, ProcessConnect(caller, multi, addresses, 500));
    EXPECT_TRUE(multi.IsValid());
}

// A listener whose queue is full drops new handshakes: a connect to it never completes.
struct Unanswering {
    Peer peer{0};
    std::vector<int> fillers;
    Unanswering() {
        for (int i = 0; i < 4; ++i) {
            const int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            sockaddr_in address = LoopbackAddress(peer.port);
            connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
            fillers.push_back(filler);
        }
        // Once the first handshake is done the queue is full.
        pollfd first{fillers[0], POLLOUT, 0};
        poll(&first, 1, 10000);
    }
    ~Unanswering() {
        for (int filler : fillers)
            close(filler);
    }
};

TEST(TcpConnect, GivesUpAfterItsTimeOutAndHonoursAStopWithinASlice) {
    Unanswering silent;
    Caller caller;
    LIPSocketTCP socket;
    auto start = Clock::now();
    EXPECT_EQ(
        2, ProcessConnect(caller, socket, LIPAddressWithPort(kLoopback, silent.peer.port), 1000));
    EXPECT_GE(MillisecondsSince(start), 950);
    EXPECT_FALSE(socket.IsValid());

    Caller stopping;
    std::thread stopper = StopDuringTheWait(stopping);
    EXPECT_EQ(1, ProcessConnect(stopping, socket, LIPAddressWithPort(kLoopback, silent.peer.port),
                                60000));
    stopper.join();
    EXPECT_FALSE(socket.IsValid());
}

TEST(TcpTransfer, SendsAndReceivesExactCountsAndLines) {
    Connection c;
    const std::string message = "hello, peer";
    EXPECT_EQ(0, ProcessSend(c.caller, c.ours, message.data(), message.size(), 1000));
    char got[64] = {};
    ASSERT_EQ(static_cast<ssize_t>(message.size()),
              recv(c.theirs, got, message.size(), MSG_WAITALL));
    EXPECT_EQ(message, std::string(got, message.size()));

    ASSERT_EQ(6, send(c.theirs, "abcdef", 6, 0));
    unsigned long received = 99;
    EXPECT_EQ(0, ProcessRecvReady(c.caller, c.ours, got, 0, received, 1000));
    EXPECT_EQ(0u, received) << "size 0 returns at once";
    unsigned char byte = 0;
    EXPECT_EQ(0, ProcessRecvByte(c.caller, c.ours, byte, 1000));
    EXPECT_EQ('a', byte);
    EXPECT_EQ(0, ProcessRecvBytes(c.caller, c.ours, got, 3, 1000));
    EXPECT_EQ("bcd", std::string(got, 3));

    // Bytes arriving in two pieces still make one exact count.
    std::thread later([&, waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        send(c.theirs, "ghij", 4, 0);
    });
    EXPECT_EQ(0, ProcessRecvBytes(c.caller, c.ours, got, 6, received, 2000));
    EXPECT_EQ(6u, received);
    EXPECT_EQ("efghij", std::string(got, 6));
    later.join();

    // Lines come up to the delimiter from what is there; a zero byte is never a delimiter.
    ASSERT_EQ(8, send(c.theirs, "ab\ncdx\0y", 8, 0));
    ASSERT_TRUE(Arrived(c.ours, 8));
    EXPECT_EQ(0, ProcessRecvToCharacter(c.caller, c.ours, got, sizeof got, received, "\n", 1000));
    EXPECT_EQ("ab\n", std::string(got, received));
    EXPECT_EQ(0, ProcessRecvToCharacter(c.caller, c.ours, got, sizeof got, received, "", 1000));
    EXPECT_EQ(std::string("cdx\0y", 5), std::string(got, received))
        << "no delimiter: what is there";

    // Nothing arrives: a wait of 400 ms is two empty slices.
    auto start = Clock::now();
    EXPECT_EQ(2, ProcessRecvBytes(c.caller, c.ours, got, 1, received, 400));
    EXPECT_GE(MillisecondsSince(start), 350);
    EXPECT_FALSE(ProcessRecvAll(c.caller, c.ours, got, 1, received, 200))
        << "a time-out reduces to false";
}

TEST(TcpTransfer, APeerThatClosesEndsTheNextReceive) {
    Connection c;
    close(c.theirs);
    c.theirs = -1;
    char got[8];
    unsigned long received = 0;
    EXPECT_EQ(0, ProcessWaitForDataOrClose(c.caller, c.ours, 1000)) << "the end is readable";
    EXPECT_EQ(2, ProcessRecvReady(c.caller, c.ours, got, sizeof got, received, 1000));
    EXPECT_EQ(2, ProcessRecvByte(c.caller, c.ours, *reinterpret_cast<unsigned char*>(got), 1000));
    // Sending into a closed connection fails without raising SIGPIPE.
    std::vector<char> block(1 << 20, 'z');
    int result = 0;
    for (int i = 0; i < 5 && result == 0; ++i)
        result = ProcessSend(c.caller, c.ours, block.data(), block.size(), 1000);
    EXPECT_EQ(2, result);
}

TEST(TcpTransfer, ASendToAPeerThatNeverReadsTimesOutOrStops) {
    Connection c;
    std::vector<char> block(16 << 20, 'q'); // far more than both socket buffers hold
    auto start = Clock::now();
    EXPECT_EQ(2, ProcessSend(c.caller, c.ours, block.data(), block.size(), 600));
    EXPECT_GE(MillisecondsSince(start), 550);

    std::thread stopper = StopDuringTheWait(c.caller);
    EXPECT_EQ(1, ProcessSend(c.caller, c.ours, block.data(), block.size(), 60000));
    stopper.join();
    char got;
    unsigned long received;
    EXPECT_EQ(1, ProcessRecvReady(c.caller, c.ours, &got, 1, received, 60000));
    EXPECT_TRUE(ProcessRecvAll(c.caller, c.ours, &got, 1, received, 60000))
        << "only a stop reduces to true";
}

TEST(TcpTransfer, ASlowButSteadyReaderNeverTimesOut) {
    Connection c;
    std::vector<char> block(8 << 20, 'r');
    std::atomic<size_t> read{0};
    std::thread reader([&] {
        std::vector<char> buffer(1 << 16);
        while (read < block.size()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            const ssize_t got = recv(c.theirs, buffer.data(), buffer.size(), 0);
            if (got <= 0)
                break;
            read += static_cast<size_t>(got);
        }
    });
    EXPECT_EQ(0, ProcessSend(c.caller, c.ours, block.data(), block.size(), 200));
    reader.join();
    EXPECT_EQ(block.size(), read.load());
}

// The listener.

struct EchoListener : LTCPListener {
    // A derived listener stops the thread before its own parts go.
    ~EchoListener() override { StopThreadNow(); }
    std::atomic<int> served{0};
    std::atomic<bool> handlerRunning{false};
    int holdMs = 0;
    std::atomic<bool>* stoppedHold = nullptr; // set as the handler returns: a stop ended the hold
    void ProcessConnection(LIPSocketTCP& connection) override {
        handlerRunning = true;
        char line[64];
        unsigned long received = 0;
        if (ProcessRecvToCharacter(*this, connection, line, sizeof line, received, "\n", 2000) == 0)
            ProcessSend(*this, connection, line, received, 2000);
        const bool stopped = holdMs > 0 && ProcessWait(static_cast<unsigned int>(holdMs));
        ++served;
        handlerRunning = false;
        if (stoppedHold != nullptr)
            *stoppedHold = stopped;
    }
};

std::string Ask(unsigned short port, const std::string& line) {
    Caller caller;
    LIPSocketTCP socket;
    if (ProcessConnect(caller, socket, LIPAddressWithPort(kLoopback, port), 2000) != 0)
        return "";
    ProcessSend(caller, socket, line.data(), line.size(), 2000);
    char got[64];
    unsigned long received = 0;
    if (ProcessRecvToCharacter(caller, socket, got, sizeof got, received, "\n", 2000) != 0)
        return "";
    return std::string(got, received);
}

// The ports of this process's listening sockets.
std::set<unsigned short> ListeningPorts() {
    std::set<unsigned short> ports;
    for (int fd = 0; fd < 1024; ++fd) {
        int listening = 0;
        socklen_t size = sizeof listening;
        sockaddr_in address{};
        socklen_t length = sizeof address;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            ports.insert(ntohs(address.sin_port));
    }
    return ports;
}

// Starts a listener on a port the kernel picks; returns that port once it listens (0 if never).
unsigned short StartOnAnyPort(LTCPListener& listener) {
    const std::set<unsigned short> before = ListeningPorts();
    listener.wPort = 0;
    listener.Start();
    unsigned short port = 0;
    WaitUntil([&] {
        for (unsigned short candidate : ListeningPorts())
            if (!before.count(candidate))
                port = candidate;
        return port != 0;
    });
    return port;
}

TEST(TcpListener, ServesConnectionsOneAfterAnotherAndStopsPromptly) {
    EchoListener listener;
    const unsigned short port = StartOnAnyPort(listener);
    ASSERT_NE(0, port);
    EXPECT_EQ("one\n", Ask(port, "one\n"));
    EXPECT_EQ("two\n", Ask(port, "two\n"));
    EXPECT_TRUE(WaitUntil([&] { return listener.served == 2; }));
    listener.StopThreadNow(); // the accept wait has no time-out: only the stop signal ends it
}

TEST(TcpListener, ASecondListenerOnTheSamePortWaitsAndRetries) {
    auto first = std::make_unique<EchoListener>();
    const unsigned short port = StartOnAnyPort(*first);
    ASSERT_NE(0, port);
    EchoListener second;
    second.wPort = port;
    second.nRestartPauseMs = 100; // the 30-second pause, shortened for the test
    second.Start();
    ASSERT_TRUE(second.StartSignal.WaitSignal(10000));
    ASSERT_TRUE(WaitUntilAsleep(__atomic_load_n(&second.dwThreadId, __ATOMIC_ACQUIRE)))
        << "its first try failed; it pauses";
    EXPECT_EQ("a\n", Ask(port, "a\n"));
    EXPECT_EQ(0, second.served.load());
    first.reset(); // the first goes away; the second binds on its next try
    EXPECT_TRUE(WaitUntil([&] { return Ask(port, "b\n") == "b\n" && second.served > 0; },
                          std::chrono::milliseconds(10000)));
}

TEST(TcpListener, DestroyingItWaitsForTheHandlerInProgress) {
    auto listener = std::make_unique<EchoListener>();
    std::atomic<bool> stoppedHold{false};
    listener->holdMs = 60000;
    listener->stoppedHold = &stoppedHold;
    const unsigned short port = StartOnAnyPort(*listener);
    ASSERT_NE(0, port);
    std::thread client([port] { Ask(port, "x\n"); });
    ASSERT_TRUE(WaitUntil([&] { return listener->handlerRunning.load(); }));
    listener.reset(); // stops the thread; the handler's wait ends with the stop request
    EXPECT_TRUE(stoppedHold) << "the stop ended the handler's wait, and it returned before the "
                                "listener went";
    client.join();
}

} // namespace

// TCP throughput over loopback: ProcessSend and ProcessRecvBytes (non-blocking, in 200 ms select
// slices, asking a process interface between them) against a plain blocking send/recv loop
// moving the same data in the same chunks.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "bench.h"
#include "llib/net/tcp.h"

namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kTotal = 512u * 1024 * 1024;

struct NeverStop : LProcessInterface {
    bool IsToStop() override { return false; }
    bool ProcessWait(unsigned int) override { return false; }
    int ProcessWaitSignal(LSignalObjectRef, unsigned int) override { return 2; }
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup&, unsigned int) override { return 2; }
};

// A connected loopback pair of blocking sockets.
bool Pair(int& a, int& b) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return false;
    a = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(a, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return false;
    b = accept(listener, nullptr, nullptr);
    close(listener);
    return b >= 0;
}

double PlainLoop() {
    int a, b;
    if (!Pair(a, b))
        return 0;
    const double begin = bench::Now();
    std::thread receiver([b] {
        std::vector<char> buffer(kChunk);
        for (size_t got = 0; got < kTotal;) {
            size_t want = kChunk;
            char* at = buffer.data();
            while (want > 0) {
                const ssize_t n = recv(b, at, want, 0);
                if (n <= 0)
                    return;
                at += n;
                want -= static_cast<size_t>(n);
            }
            got += kChunk;
        }
    });
    std::vector<char> data(kChunk, 'p');
    for (size_t sent = 0; sent < kTotal; sent += kChunk) {
        const char* at = data.data();
        size_t left = kChunk;
        while (left > 0) {
            const ssize_t n = send(a, at, left, 0);
            if (n <= 0)
                break;
            at += n;
            left -= static_cast<size_t>(n);
        }
    }
    receiver.join();
    const double seconds = bench::Now() - begin;
    close(a);
    close(b);
    return kTotal / seconds / 1e6;
}

double ProcessOperations() {
    int a, b;
    if (!Pair(a, b))
        return 0;
    LIPSocketTCP sender(a), receiverSocket(b); // non-blocking from here on
    NeverStop process;
    const double begin = bench::Now();
    std::thread receiver([&] {
        NeverStop receiving;
        std::vector<char> buffer(kChunk);
        for (size_t got = 0; got < kTotal; got += kChunk)
            if (ProcessRecvBytes(receiving, receiverSocket, buffer.data(), kChunk, 5000) != 0)
                return;
    });
    std::vector<char> data(kChunk, 'p');
    for (size_t sent = 0; sent < kTotal; sent += kChunk)
        if (ProcessSend(process, sender, data.data(), kChunk, 5000) != 0)
            break;
    receiver.join();
    return kTotal / (bench::Now() - begin) / 1e6;
}

// Best of three alternating runs each: the machine's other load only ever slows a run down.
void Throughput() {
    double plain = 0, ours = 0;
    for (int round = 0; round < 3; ++round) {
        plain = std::max(plain, PlainLoop());
        ours = std::max(ours, ProcessOperations());
    }
    bench::Print("plain blocking send/recv loop", plain, "MB/s");
    bench::Print("ProcessSend / ProcessRecvBytes", ours, "MB/s");
    bench::Print("ratio (goal: at least 0.8)", plain > 0 ? ours / plain : 0, "x");
}

bench::Section section("tcp", Throughput);

} // namespace

// Wake-up latency of a signal object across threads, and how long LThread::Start takes until
// the new thread runs.
#include <algorithm>
#include <thread>
#include <vector>

#include "bench.h"
#include "llib/gen/signalobject.h"
#include "llib/gen/thread.h"

namespace {

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void SignalWakeUp() {
    LSignalObject ping, pong;
    const int rounds = 5000;
    // Ping-pong: each round trip is two wake-ups across threads.
    std::thread echo([&] {
        for (int i = 0; i < rounds; ++i) {
            ping.WaitSignal(0xFFFFFFFFu);
            ping.Reset();
            pong.Signal();
        }
    });
    std::vector<double> trips;
    trips.reserve(rounds);
    for (int i = 0; i < rounds; ++i) {
        const double begin = bench::Now();
        ping.Signal();
        pong.WaitSignal(0xFFFFFFFFu);
        pong.Reset();
        trips.push_back(bench::Now() - begin);
    }
    echo.join();
    bench::Print("signal object wake-up latency (median, one way)", Median(trips) / 2 * 1e6, "us");
}

class Starter : public LThread {
public:
    ~Starter() override { StopThreadNow(); }
    void ThreadFunction() override {}
};

void ThreadStart() {
    Starter thread;
    std::vector<double> starts;
    for (int i = 0; i < 500; ++i) {
        const double begin = bench::Now();
        thread.Start();
        starts.push_back(bench::Now() - begin);
        thread.StopThreadNow();
    }
    bench::Print("LThread Start until running (median)", Median(starts) * 1e6, "us");
}

bench::Section signalSection("signalobject", &SignalWakeUp);
bench::Section threadSection("thread", &ThreadStart);

} // namespace

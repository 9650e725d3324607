// Main-thread dispatch: how many work items posted from a worker the main thread runs per
// second, and the round trip from a worker's post until the main thread has run the item.
#include <atomic>
#include <thread>
#include <vector>

#include "bench.h"
#include "llib/gen/mainthread.h"
#include "llib/mac/process.h"

namespace {

std::atomic<long> ran{0};

struct Tick : LThreadRunOnMainThreadData {
    void MainThreadFunction() override { ++ran; }
};

void Dispatch() {
    LThreadRunOnMainThread::Init();
    LThreadRunOnMainThread runner;

    // Throughput: a worker posts; the main thread pumps until all have run.
    const long posts = 200000;
    ran = 0;
    double begin = bench::Now();
    std::thread worker([&] {
        for (long i = 0; i < posts; ++i)
            runner.RunOnMainThread(new Tick);
    });
    while (ran < posts)
        ProcessWaitAndProcessEvents(1);
    worker.join();
    bench::Print("posts run on the main thread", posts / (bench::Now() - begin), "per second");

    // Round trip: the worker posts one item and waits until the main thread has run it.
    const int trips = 2000;
    std::atomic<bool> done{false};
    ran = 0;
    begin = bench::Now();
    std::thread pinger([&] {
        for (int i = 0; i < trips; ++i) {
            const long before = ran;
            runner.RunOnMainThread(new Tick);
            while (ran == before)
                std::this_thread::yield();
        }
        done = true;
    });
    while (!done)
        ProcessWaitAndProcessEvents(1);
    pinger.join();
    bench::Print("post to run, round trip", (bench::Now() - begin) * 1e6 / trips, "us");

    runner.ThreadRunOnMainThreadDestroy();
    LThreadRunOnMainThread::Destroy();
}

bench::Section section("dispatch", Dispatch);

} // namespace

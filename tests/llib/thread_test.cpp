#include "llib/gen/thread.h"
#include "support/elapsed.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

// Waits in ProcessWaitSignal until asked to stop or Go is set; counts its runs.
class Worker : public LThread {
public:
    ~Worker() override { StopThreadNow(); }
    void ThreadFunction() override {
        ++runs;
        threadId = dwThreadId;
        result = ProcessWaitSignal(Go, 0xFFFFFFFFu);
    }
    LSignalObject Go;
    std::atomic<int> runs{0};
    std::atomic<int> result{-1};
    std::atomic<unsigned int> threadId{0};
};

// Returns at once.
class Quick : public LThread {
public:
    ~Quick() override { StopThreadNow(); }
    void ThreadFunction() override { ++runs; }
    std::atomic<int> runs{0};
};

class Recorder : public LProcessInterfaceVoid {
public:
    void SetStatus(const char* text, int) override { status = text; }
    void SetError(const char* text) override { error = text; }
    std::string status, error;
};

// Counts the living instances; waits for a stop request or ends at once.
class Sleeper : public LDetachedThread {
public:
    explicit Sleeper(std::atomic<int>& alive, bool waitForStop)
        : alive(alive), waitForStop(waitForStop) {
        ++alive;
    }
    ~Sleeper() override {
        StopThreadNow();
        --alive;
    }
    void ThreadFunction() override {
        if (waitForStop)
            ProcessWait(0xFFFFFFFFu);
    }
    std::atomic<int>& alive;
    bool waitForStop;
};

} // namespace

TEST(WorkerThread, RunsOnItsOwnThreadOnceAtATimeAndRestarts) {
    Worker worker;
    EXPECT_FALSE(worker.IsRunning());
    worker.Start();
    worker.Start(); // already running: nothing
    EXPECT_TRUE(worker.IsRunning());
    EXPECT_TRUE(worker.StartSignal.IsSignaled());
    worker.Go.Signal();
    ASSERT_TRUE(worker.EndSignal.WaitSignal(5000));
    EXPECT_EQ(kLProcessDone, worker.result.load());
    EXPECT_EQ(1, worker.runs.load());
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_NE(0u, worker.threadId.load());
    EXPECT_NE(static_cast<unsigned int>(getpid()), worker.threadId.load());
    worker.Start(); // the function returned: a new thread runs
    EXPECT_TRUE(worker.EndSignal.WaitSignal(5000)) << "Go is still set, so it ends again";
    EXPECT_EQ(2, worker.runs.load());
}

TEST(WorkerThread, StopRequestWakesAWaitAndWinsOverTheAwaitedSignal) {
    Worker worker;
    worker.Start();
    worker.StopThreadSoon();
    ASSERT_TRUE(worker.EndSignal.WaitSignal(5000));
    EXPECT_EQ(kLProcessStopped, worker.result.load());

    // A stop request set before the wait begins, together with the signal: the stop wins.
    worker.Go.Signal();
    worker.StopSignal.Signal();
    EXPECT_EQ(kLProcessStopped, worker.ProcessWaitSignal(worker.Go, 0));
    worker.StopSignal.Reset();
    EXPECT_EQ(kLProcessDone, worker.ProcessWaitSignal(worker.Go, 0));
    worker.Go.Reset();
    EXPECT_EQ(kLProcessFailed, worker.ProcessWaitSignal(worker.Go, 20));
}

TEST(WorkerThread, PlainAndGroupWaitsTimeOutOrEndOnAStopRequest) {
    Quick thread;
    LSignalObject a, b;
    LSignalObjectGroup group;
    group.Add(a);
    EXPECT_EQ(kLProcessFailed, thread.ProcessWaitSignalObjectGroup(group, 10));
    LSignalObjectGroup ready;
    ready.Add(b);
    b.Signal();
    EXPECT_EQ(kLProcessDone, thread.ProcessWaitSignalObjectGroup(ready, 1000));
    auto begin = Clock::now();
    EXPECT_FALSE(thread.ProcessWait(200));
    EXPECT_GE(MillisecondsSince(begin), 195);

    // A stop request ends the waits at once: with a minute to wait they answer "stopped".
    thread.StopThreadSoon();
    EXPECT_TRUE(thread.ProcessWait(60000));
    EXPECT_TRUE(thread.IsToStop());
    LSignalObjectGroup idle, both;
    idle.Add(a);
    EXPECT_EQ(kLProcessStopped, thread.ProcessWaitSignalObjectGroup(idle, 60000))
        << "the stop request joins the group";
    both.Add(b);
    EXPECT_EQ(kLProcessStopped, thread.ProcessWaitSignalObjectGroup(both, 1000));
}

TEST(WorkerThread, StopThreadNowJoinsIsSafeToRepeatAndSurvivesManyCycles) {
    Worker worker;
    worker.Start();
    worker.StopThreadNow();
    EXPECT_FALSE(worker.IsRunning());
    worker.StopThreadNow();
    Quick quick;
    quick.StopThreadNow(); // never started
    for (int i = 0; i < 200; ++i) {
        quick.Start(i % 2 ? kLThreadPriorityRealTime : kLThreadPriorityNormal);
        if (i % 3 == 0)
            quick.StopThreadNow();
        else
            ASSERT_TRUE(quick.EndSignal.WaitSignal(5000));
    }
    EXPECT_EQ(200, quick.runs.load());
}

TEST(ProcessInterfaceVoid, NeverStopsAndGroupWaitsSelectPlainly) {
    LProcessInterfaceVoid none;
    EXPECT_FALSE(none.IsToStop());
    LSignalObject signal;
    LSignalObjectGroup group;
    group.Add(signal);
    EXPECT_EQ(kLProcessFailed, none.ProcessWaitSignalObjectGroup(group, 10));
    signal.Signal();
    LSignalObjectGroup again;
    again.Add(signal);
    EXPECT_EQ(kLProcessDone, none.ProcessWaitSignalObjectGroup(again, 100));
}

TEST(ProcessInterface, FormattedReportsAreTruncatedTo8191Bytes) {
    Recorder recorder;
    recorder.SetStatusF(7, "%d files", 3);
    EXPECT_EQ("3 files", recorder.status);
    const std::string longText(10000, 'x');
    recorder.SetStatusF(1, "%s", longText.c_str());
    EXPECT_EQ(8191u, recorder.status.size());
    recorder.SetErrorF("%s!", longText.c_str());
    EXPECT_EQ(8191u, recorder.error.size());
}

TEST(DetachedThreads, EndedThreadsDeleteThemselvesAndTheOwnerStopsTheRestButNoStranger) {
    std::atomic<int> alive{0};
    {
        LDetachedThreadsOwner owner;
        for (int i = 0; i < 30; ++i) {
            Sleeper* thread = new Sleeper(alive, i >= 20);
            owner.AddThread(thread);
            thread->StartDetached(owner);
        }
        const auto begin = Clock::now();
        while (alive.load() > 10 && MillisecondsSince(begin) < 10000)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(10, alive.load()) << "the 20 that ended deleted themselves";
        owner.StopThreadsNow();
        EXPECT_EQ(0, alive.load());
        EXPECT_TRUE(owner.Threads.IsEmpty());
        Sleeper stranger(alive, false);
        EXPECT_FALSE(owner.Destruct(&stranger));
        EXPECT_EQ(1, alive.load());
    }
    EXPECT_EQ(0, alive.load());
}

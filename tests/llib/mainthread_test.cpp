// Work carried to the main thread through its event queue: posting from workers, withdrawal,
// reference counts, a worker's reports, and how the waits that keep the queue flowing end.
#include <gtest/gtest.h>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "llib/gen/mainthread.h"
#include "llib/gen/signalobject.h"
#include "llib/mac/process.h"
#include "platform/events.h"
#include "support/elapsed.h"
#include "support/process.h"

namespace {

class MainThreadTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { LThreadRunOnMainThread::Init(); }
    static void TearDownTestSuite() { LThreadRunOnMainThread::Destroy(); }
    void TearDown() override { LProcessClearEventQueue(); }
};

struct Recorded : LThreadRunOnMainThreadData {
    Recorded(std::vector<int>& log, int value, std::atomic<int>* deleted = nullptr)
        : log(log), value(value), deleted(deleted) {}
    ~Recorded() override {
        if (deleted != nullptr)
            ++*deleted;
    }
    void MainThreadFunction() override {
        EXPECT_TRUE(LIsMainThread());
        log.push_back(value);
    }
    std::vector<int>& log;
    int value;
    std::atomic<int>* deleted;
};

TEST_F(MainThreadTest, WorkPostedFromWorkersRunsOnTheMainThreadInOrder) {
    LThreadRunOnMainThread runner;
    std::vector<int> log;
    std::thread worker([&] {
        EXPECT_FALSE(LIsMainThread());
        for (int i = 0; i < 5; ++i)
            runner.RunOnMainThread(new Recorded(log, i));
    });
    worker.join();
    EXPECT_EQ(5, runner.GetRefCount()) << "posted, not yet run";
    EXPECT_TRUE(LProcessClearEventQueue());
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), log);
    EXPECT_EQ(0, runner.GetRefCount());
    EXPECT_FALSE(LProcessClearEventQueue()) << "nothing left";
    runner.ThreadRunOnMainThreadDestroy();
}

TEST_F(MainThreadTest, DestroyWithdrawsPendingWorkUnrunAndRefusesMore) {
    std::vector<int> log;
    std::atomic<int> deleted{0};
    LThreadRunOnMainThread runner, other;
    for (int i = 0; i < 3; ++i)
        runner.RunOnMainThread(new Recorded(log, i, &deleted));
    other.RunOnMainThread(new Recorded(log, 99, &deleted));
    runner.ThreadRunOnMainThreadDestroy();
    EXPECT_EQ(3, deleted.load()) << "withdrawn items are deleted at once";
    EXPECT_EQ(0, runner.GetRefCount());

    runner.RunOnMainThread(new Recorded(log, 7, &deleted));
    EXPECT_EQ(4, deleted.load()) << "a post after destroy is deleted unrun";

    LProcessClearEventQueue();
    EXPECT_EQ((std::vector<int>{99}), log) << "only the other owner's work runs";
    other.ThreadRunOnMainThreadDestroy();
}

struct NotifyCounter : LThreadQueuedNotify {
    int calls = 0;
    void OnQueuedNotify() override { ++calls; }
};

// Records each notification as "code text size", "-" for no data.
struct DataLog : LQueuedNotifyDataHandler {
    std::vector<std::string> entries;
    void EvQueuedNotifyData(unsigned int code, const void* data, unsigned long size) override {
        entries.push_back(std::to_string(code) + " " +
                          (data != nullptr ? static_cast<const char*>(data) : "-") + " " +
                          std::to_string(size));
    }
};

TEST_F(MainThreadTest, NotificationsCarryACopyOfTheirData) {
    NotifyCounter counter;
    counter.PostQueueNotify();
    counter.PostQueueNotify();
    DataLog handler;
    std::string text = "block";
    handler.PostNotifyFromSender(3, text.c_str(), text.size() + 1);
    text = "changed"; // the copy was made when posting
    handler.PostNotifyFromSender(7, nullptr, 42);
    LProcessClearEventQueue();
    EXPECT_EQ(2, counter.calls);
    EXPECT_EQ((std::vector<std::string>{"3 block 6", "7 - 42"}), handler.entries);
    counter.ThreadQueuedNotifyDestroy();
    handler.QueuedNotifyDataHandlerDestroy();
}

// What a progress window on the main thread is told.
struct ProgressWindow : LProcessInterfaceVoid {
    std::vector<std::string> calls;
    void SetError(const char* text) override { calls.push_back(std::string("error ") + text); }
    void SetStatus(const char* text, int line) override {
        calls.push_back("status" + std::to_string(line) + " " + text);
    }
    void SetProgress(double value) override {
        calls.push_back("progress " + std::to_string(value).substr(0, 4));
    }
    void SetProgressIndeterminateOn() override { calls.push_back("spin on"); }
    void SetProgressIndeterminateOff() override { calls.push_back("spin off"); }
};

struct Job : LThreadNotifyInterface {
    explicit Job(ProgressWindow* window) : LThreadNotifyInterface(window) {}
    std::string longError = std::string(300, 'e');
    void ThreadFunction() override {
        SetStatus("first", 0);
        SetStatus("latest", 0); // texts are not queued: both reports show the latest
        SetStatus("second line", 1);
        SetStatus("ignored", 2);
        SetProgress(0.505);
        SetProgress(1.0);
        SetProgressIndeterminateOn();
        SetProgressIndeterminateOff();
        SetError(longError.c_str());
    }
};

TEST_F(MainThreadTest, AWorkersReportsReachItsTargetOnTheMainThread) {
    ProgressWindow window;
    {
        Job job(&window);
        job.Start();
        EXPECT_FALSE(job.WaitToStop(5000)) << "the job ended";
        LProcessClearEventQueue();
        LProcessClearEventQueue();
    }
    const std::vector<std::string> expected = {"status0 latest",
                                               "status0 latest",
                                               "status1 second line",
                                               "progress 0.50",
                                               "progress 1.00",
                                               "spin on",
                                               "spin off",
                                               "error " + std::string(300, 'e')};
    EXPECT_EQ(expected, window.calls);
}

struct StopAfter : LProcessEventsHandler {
    explicit StopAfter(int turns) : turns(turns) {}
    bool IsProcessEventHandlerToStop() const override { return ++asked > turns; }
    int turns;
    mutable int asked = 0;
};

TEST_F(MainThreadTest, TimedWaitsEndWhenTheTimeIsUp) {
    EXPECT_EQ(0, ProcessWaitAndProcessEvents(0));
    auto start = Clock::now();
    EXPECT_EQ(0, ProcessWaitAndProcessEvents(60));
    EXPECT_GE(MillisecondsSince(start), 55);

    LSignalObject signal;
    signal.Signal();
    StopAfter never(1000000);
    EXPECT_EQ(2, never.ProcessWaitSignalAndProcessEvents(signal, 0))
        << "the time is checked before the signal";
    EXPECT_EQ(0, never.ProcessWaitSignalAndProcessEvents(signal, 100));
    EXPECT_EQ(0, ProcessWaitSignalObjectAndProcessEvents(signal));
    signal.Reset();
    start = Clock::now();
    EXPECT_EQ(2, never.ProcessWaitSignalAndProcessEvents(signal, 80));
    EXPECT_GE(MillisecondsSince(start), 75);
}

TEST_F(MainThreadTest, AHandlerThatStopsEndsEveryWaitWithoutDispatching) {
    LThreadRunOnMainThread runner;
    std::vector<int> log;
    runner.RunOnMainThread(new Recorded(log, 1));
    LSignalObject signal;
    StopAfter stopAtOnce(0);
    EXPECT_EQ(1, stopAtOnce.ProcessWaitForeverAndProcessEvents());
    EXPECT_EQ(1, stopAtOnce.ProcessWaitAndProcessEvents(1000));
    EXPECT_TRUE(log.empty());
    // The signal waits clear the queue on their way out.
    EXPECT_EQ(1, stopAtOnce.ProcessWaitSignalAndProcessEvents(signal, 1000));
    EXPECT_EQ((std::vector<int>{1}), log);
    EXPECT_EQ(1, stopAtOnce.ProcessWaitSignalForeverAndProcessEvents(signal));
    runner.ThreadRunOnMainThreadDestroy();
}

// The wait ends as the worker signals, long before its minute is up; work posted meanwhile runs
// during the wait; the private wake-up events never reach the application's handlers.
TEST_F(MainThreadTest, AWorkersSignalEndsALongSignalWaitAtOnce) {
    static std::atomic<int> wakeUpsSeen{0};
    wakeUpsSeen = 0;
    EventTypeSpec wakeUp{kLWakeUpEventClass, kLWakeUpEventKind};
    EventHandlerRef spy = nullptr;
    ASSERT_EQ(noErr, InstallEventHandler(
                         GetApplicationEventTarget(),
                         [](EventHandlerCallRef, EventRef, void*) -> OSStatus {
                             ++wakeUpsSeen;
                             return noErr;
                         },
                         1, &wakeUp, nullptr, &spy));

    LThreadRunOnMainThread runner;
    std::vector<int> log;
    LSignalObject signal;
    std::atomic<int> ran{0};
    std::thread worker([&, waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        runner.RunOnMainThread(new Recorded(log, 5, &ran));
        // The work has run (and its data is gone) before the signal comes.
        for (int i = 0; i < 30000 && ran == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        signal.Signal();
    });
    StopAfter never(1000000);
    EXPECT_EQ(0, never.ProcessWaitSignalAndProcessEvents(signal, 60000)) << "the signal ended it";
    worker.join();
    EXPECT_EQ(1, ran.load());
    EXPECT_EQ((std::vector<int>{5}), log);
    EXPECT_EQ(0, wakeUpsSeen.load());
    RemoveEventHandler(spy);
    runner.ThreadRunOnMainThreadDestroy();
}

} // namespace

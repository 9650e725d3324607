// The main event queue: ordering, parameters, withdrawal, receiving across threads, handlers and
// run-loop sockets.
#include "platform/cfrunloop.h"
#include "platform/events.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/process.h"

namespace {

constexpr OSType kTestClass = 0x54657374; // 'Test'
constexpr EventParamName kNumber = 0x4E756D62;

EventRef MakeEvent(uint32_t kind, int number) {
    EventRef event = nullptr;
    EXPECT_EQ(noErr, CreateEvent(nullptr, kTestClass, kind, 0, kEventAttributeNone, &event));
    EXPECT_EQ(noErr, SetEventParameter(event, kNumber, typeSInt32, sizeof number, &number));
    return event;
}

void Post(uint32_t kind, int number, EventPriority priority) {
    EventRef event = MakeEvent(kind, number);
    EXPECT_EQ(noErr, PostEventToQueue(GetMainEventQueue(), event, priority));
    ReleaseEvent(event);
}

int NumberOf(EventRef event) {
    int number = -1;
    EXPECT_EQ(noErr, GetEventParameter(event, kNumber, typeSInt32, nullptr, sizeof number, nullptr,
                                       &number));
    return number;
}

// Pulls every waiting event and returns their numbers in the order received.
std::vector<int> Drain() {
    std::vector<int> numbers;
    EventRef event = nullptr;
    while (ReceiveNextEvent(0, nullptr, kEventDurationNoWait, true, &event) == noErr) {
        numbers.push_back(NumberOf(event));
        ReleaseEvent(event);
    }
    return numbers;
}

class EventQueue : public ::testing::Test {
protected:
    void SetUp() override { Drain(); }
    void TearDown() override { Drain(); }
};

} // namespace

TEST_F(EventQueue, HigherPrioritiesComeFirstAndEachPriorityKeepsPostingOrder) {
    Post(1, 1, kEventPriorityLow);
    Post(1, 2, kEventPriorityStandard);
    Post(1, 3, kEventPriorityHigh);
    Post(1, 4, kEventPriorityStandard);
    Post(1, 5, kEventPriorityHigh);
    EXPECT_EQ(5u, GetNumEventsInQueue(GetMainEventQueue()));
    EXPECT_EQ((std::vector<int>{3, 5, 2, 4, 1}), Drain());
    EXPECT_EQ(0u, GetNumEventsInQueue(GetMainEventQueue()));
}

TEST_F(EventQueue, ParametersAreCopiedTypedAndReplaceable) {
    EventRef event = MakeEvent(1, 7);
    int replaced = 9;
    EXPECT_EQ(noErr, SetEventParameter(event, kNumber, typeSInt32, sizeof replaced, &replaced));
    replaced = 0; // the event holds its own copy
    EXPECT_EQ(9, NumberOf(event));
    EventParamType type = 0;
    ByteCount size = 0;
    EXPECT_EQ(noErr, GetEventParameter(event, kNumber, typeWildCard, &type, 0, &size, nullptr));
    EXPECT_EQ(typeSInt32, type);
    EXPECT_EQ(sizeof(int), size);
    void* pointer = nullptr;
    EXPECT_EQ(errAECoercionFail, GetEventParameter(event, kNumber, typeVoidPtr, nullptr,
                                                   sizeof pointer, nullptr, &pointer));
    EXPECT_EQ(eventParameterNotFoundErr,
              GetEventParameter(event, 0x4E6F6E65, typeWildCard, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(paramErr, SetEventParameter(event, kNumber, typeSInt32, 4, nullptr));
    ReleaseEvent(event);
}

TEST_F(EventQueue, AnEventIsQueuedOnceAndKeepsItselfAliveWhileQueued) {
    EventRef event = MakeEvent(1, 1);
    EXPECT_EQ(noErr, PostEventToQueue(GetMainEventQueue(), event, kEventPriorityStandard));
    EXPECT_EQ(eventAlreadyPostedErr,
              PostEventToQueue(GetMainEventQueue(), event, kEventPriorityHigh));
    ReleaseEvent(event); // the queue's reference keeps it
    EXPECT_EQ((std::vector<int>{1}), Drain());
}

TEST_F(EventQueue, FlushRemovesExactlyTheEventsThePredicateChooses) {
    for (int i = 0; i < 6; ++i)
        Post(1, i, i % 2 == 0 ? kEventPriorityHigh : kEventPriorityLow);
    auto odd = [](EventRef event, void* seen) -> bool {
        ++*static_cast<int*>(seen);
        return NumberOf(event) % 2 == 1;
    };
    int seen = 0;
    EXPECT_EQ(noErr, FlushSpecificEventsFromQueue(GetMainEventQueue(), odd, &seen));
    EXPECT_EQ(6, seen);
    EXPECT_EQ((std::vector<int>{0, 2, 4}), Drain());
}

TEST_F(EventQueue, ReceiveFiltersByTypeAndCanPeekWithoutPulling) {
    Post(1, 10, kEventPriorityHigh);
    Post(2, 20, kEventPriorityStandard);
    EventTypeSpec kindTwo{kTestClass, 2};
    EventRef event = nullptr;
    ASSERT_EQ(noErr, ReceiveNextEvent(1, &kindTwo, kEventDurationNoWait, false, &event));
    EXPECT_EQ(20, NumberOf(event));
    EXPECT_EQ(2u, GetNumEventsInQueue(GetMainEventQueue()));
    ASSERT_EQ(noErr, ReceiveNextEvent(1, &kindTwo, kEventDurationNoWait, true, &event));
    ReleaseEvent(event);
    EXPECT_EQ(eventLoopTimedOutErr, ReceiveNextEvent(1, &kindTwo, 0.05, true, &event));
    EXPECT_EQ((std::vector<int>{10}), Drain());
}

TEST_F(EventQueue, ReceiveWaitsForTheTimeoutOrForAPostFromAnotherThread) {
    EventRef event = nullptr;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(eventLoopTimedOutErr, ReceiveNextEvent(0, nullptr, 0.2, true, &event));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));
    EXPECT_EQ(nullptr, event);

    std::thread poster([waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        Post(1, 42, kEventPriorityStandard);
    });
    ASSERT_EQ(noErr, ReceiveNextEvent(0, nullptr, 60.0, true, &event)) << "the post ended it";
    EXPECT_EQ(42, NumberOf(event));
    ReleaseEvent(event);
    poster.join();
}

TEST_F(EventQueue, ManyPostersLoseNothing) {
    constexpr int kThreads = 4, kEach = 2000;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([t] {
            for (int i = 0; i < kEach; ++i)
                Post(1, t * kEach + i, kEventPriorityStandard);
        });
    }
    std::vector<int> seen(kThreads * kEach, 0);
    for (int received = 0; received < kThreads * kEach; ++received) {
        EventRef event = nullptr;
        ASSERT_EQ(noErr, ReceiveNextEvent(0, nullptr, 10.0, true, &event));
        ++seen[NumberOf(event)];
        ReleaseEvent(event);
    }
    for (auto& poster : posters)
        poster.join();
    for (int count : seen)
        ASSERT_EQ(1, count);
}

TEST_F(EventQueue, QuitEndsOneReceive) {
    ASSERT_EQ(noErr, QuitEventLoop(GetMainEventLoop()));
    EventRef event = nullptr;
    EXPECT_EQ(eventLoopQuitErr, ReceiveNextEvent(0, nullptr, 5.0, true, &event));
    EXPECT_EQ(eventLoopTimedOutErr,
              ReceiveNextEvent(0, nullptr, kEventDurationNoWait, true, &event));
}

namespace {

using Calls = std::vector<char>;

OSStatus HandlerA(EventHandlerCallRef, EventRef, void* data) {
    static_cast<Calls*>(data)->push_back('A');
    return noErr;
}

OSStatus HandlerPass(EventHandlerCallRef, EventRef, void* data) {
    static_cast<Calls*>(data)->push_back('P');
    return eventNotHandledErr;
}

} // namespace

TEST_F(EventQueue, HandlersAreAskedNewestFirstUntilOneTakesTheEvent) {
    Calls calls;
    EventTypeSpec type{kTestClass, 5};
    EventHandlerRef a = nullptr, pass = nullptr;
    ASSERT_EQ(noErr,
              InstallEventHandler(GetApplicationEventTarget(), HandlerA, 1, &type, &calls, &a));
    ASSERT_EQ(noErr, InstallEventHandler(GetApplicationEventTarget(), HandlerPass, 1, &type, &calls,
                                         &pass));

    EventRef event = MakeEvent(5, 0);
    EXPECT_EQ(noErr, SendEventToEventTarget(event, GetEventDispatcherTarget()));
    EXPECT_EQ((std::vector<char>{'P', 'A'}), calls);

    EventRef other = MakeEvent(6, 0); // a type nobody asked for
    EXPECT_EQ(eventNotHandledErr, SendEventToEventTarget(other, GetEventDispatcherTarget()));

    EXPECT_EQ(noErr, RemoveEventHandler(a));
    EXPECT_EQ(paramErr, RemoveEventHandler(a));
    calls.clear();
    EXPECT_EQ(eventNotHandledErr, SendEventToEventTarget(event, GetEventDispatcherTarget()));
    EXPECT_EQ((std::vector<char>{'P'}), calls);
    EXPECT_EQ(noErr, RemoveEventHandler(pass));
    ReleaseEvent(event);
    ReleaseEvent(other);
}

namespace {

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(0, pipe2(fds, O_NONBLOCK | O_CLOEXEC)); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
    void Write() { EXPECT_EQ(1, write(fds[1], "x", 1)); }
};

std::atomic<int> gSocketCalls{0};

void PostOnReadable(CFSocketRef socket, CFSocketCallBackType type, CFDataRef, const void*, void*) {
    ++gSocketCalls;
    if (type == kCFSocketReadCallBack)
        Post(9, CFSocketGetNative(socket), kEventPriorityStandard);
}

} // namespace

TEST_F(EventQueue, AReadableRunLoopSocketEndsAWaitAtOnce) {
    Pipe signal;
    CFSocketRef socket = CFSocketCreateWithNative(kCFAllocatorDefault, signal.fds[0],
                                                  kCFSocketReadCallBack, PostOnReadable, nullptr);
    ASSERT_NE(nullptr, socket);
    CFRunLoopSourceRef source = CFSocketCreateRunLoopSource(kCFAllocatorDefault, socket, 0);
    CFRunLoopAddSource(GetCFRunLoopFromEventLoop(GetMainEventLoop()), source,
                       kCFRunLoopDefaultMode);

    gSocketCalls = 0;
    std::thread writer([&, waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        signal.Write();
    });
    EventRef event = nullptr;
    ASSERT_EQ(noErr, ReceiveNextEvent(0, nullptr, 60.0, true, &event)) << "the socket ended it";
    EXPECT_EQ(signal.fds[0], NumberOf(event));
    ReleaseEvent(event);
    writer.join();
    EXPECT_GE(gSocketCalls.load(), 1);

    // Once removed, a still-readable descriptor calls nobody.
    CFRunLoopRemoveSource(CFRunLoopGetMain(), source, kCFRunLoopDefaultMode);
    EXPECT_FALSE(CFRunLoopContainsSource(CFRunLoopGetMain(), source, kCFRunLoopDefaultMode));
    Drain();
    gSocketCalls = 0;
    EXPECT_EQ(eventLoopTimedOutErr, ReceiveNextEvent(0, nullptr, 0.05, true, &event));
    EXPECT_EQ(0, gSocketCalls.load());
    CFRelease(source);
    CFRelease(socket);
}

TEST(MainEventLoopThread, IsTheThreadThatLoadedTheLibrary) {
    EXPECT_TRUE(platform::IsMainEventLoopThread());
    bool onWorker = true;
    std::thread([&] { onWorker = platform::IsMainEventLoopThread(); }).join();
    EXPECT_FALSE(onWorker);
}

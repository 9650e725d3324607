// Events, the process's one event queue, and the receive that waits on it while running the
// main run loop's socket callbacks.
#include "platform/events.h"

#include "eventloop_internal.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

struct OpaqueEventRef {
    struct Parameter {
        EventParamName name;
        EventParamType type;
        std::vector<unsigned char> bytes;
    };

    std::atomic<int> references{1};
    OSType eventClass = 0;
    uint32_t eventKind = 0;
    EventTime time = 0;
    // Guarded by the queue's lock: an event sits in at most one queue, once.
    bool queued = false;
    std::vector<Parameter> parameters;
};

struct OpaqueEventQueueRef {
    std::mutex lock;
    // One first-in-first-out list per priority, indexed by the priority value.
    std::deque<EventRef> events[3];
    size_t count = 0;
    // Threads inside ReceiveNextEvent between their look at the queue and the end of their poll;
    // a post writes to wakeFd only when there is one.
    int waiters = 0;
    bool quitRequested = false;
    int wakeFd = -1;
};

struct OpaqueEventLoopRef {};

namespace {

// The thread that runs the library's static initialisers, before any of the library's own
// globals are built.
struct MainThreadRecord {
    pthread_t thread = pthread_self();
};
MainThreadRecord gMainEventLoopThread __attribute__((init_priority(1000)));

OpaqueEventLoopRef gMainEventLoop;

EventQueueRef MainQueue() {
    // Never destroyed: exit-time destructors of other modules may still post or withdraw.
    static EventQueueRef queue = [] {
        auto* created = new OpaqueEventQueueRef;
        created->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        return created;
    }();
    return queue;
}

void SignalWakeFd(EventQueueRef queue) {
    uint64_t one = 1;
    while (write(queue->wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void DrainWakeFd(EventQueueRef queue) {
    uint64_t value = 0;
    while (read(queue->wakeFd, &value, sizeof value) < 0 && errno == EINTR) {
    }
}

bool Matches(EventRef event, ItemCount numTypes, const EventTypeSpec* list) {
    if (numTypes == 0 || list == nullptr)
        return true;
    for (ItemCount i = 0; i < numTypes; ++i) {
        if (list[i].eventClass == event->eventClass && list[i].eventKind == event->eventKind)
            return true;
    }
    return false;
}

// The first matching event in priority order, unlinked when pull is set. Queue lock held.
EventRef TakeFirstMatching(EventQueueRef queue, ItemCount numTypes, const EventTypeSpec* list,
                           bool pull) {
    for (int priority = kEventPriorityHigh; priority >= kEventPriorityLow; --priority) {
        auto& events = queue->events[priority];
        for (auto it = events.begin(); it != events.end(); ++it) {
            EventRef event = *it;
            if (!Matches(event, numTypes, list))
                continue;
            if (pull) {
                events.erase(it);
                --queue->count;
                event->queued = false;
            }
            return event;
        }
    }
    return nullptr;
}

OpaqueEventRef::Parameter* FindParameter(EventRef event, EventParamName name) {
    for (auto& parameter : event->parameters) {
        if (parameter.name == name)
            return &parameter;
    }
    return nullptr;
}

timespec ToTimespec(double seconds) {
    if (seconds < 0)
        seconds = 0;
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds);
    result.tv_nsec = static_cast<long>((seconds - static_cast<double>(result.tv_sec)) * 1e9);
    if (result.tv_nsec >= 1000000000L)
        result.tv_nsec = 999999999L;
    return result;
}

} // namespace

EventTime GetCurrentEventTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

OSStatus CreateEvent(CFAllocatorRef, OSType eventClass, uint32_t eventKind, EventTime when,
                     EventAttributes, EventRef* outEvent) {
    if (outEvent == nullptr)
        return paramErr;
    auto* event = new OpaqueEventRef;
    event->eventClass = eventClass;
    event->eventKind = eventKind;
    event->time = when == 0 ? GetCurrentEventTime() : when;
    *outEvent = event;
    return noErr;
}

EventRef RetainEvent(EventRef event) {
    if (event != nullptr)
        event->references.fetch_add(1, std::memory_order_relaxed);
    return event;
}

void ReleaseEvent(EventRef event) {
    if (event != nullptr && event->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete event;
}

OSType GetEventClass(EventRef event) {
    return event != nullptr ? event->eventClass : 0;
}
uint32_t GetEventKind(EventRef event) {
    return event != nullptr ? event->eventKind : 0;
}
EventTime GetEventTime(EventRef event) {
    return event != nullptr ? event->time : 0;
}

OSStatus SetEventParameter(EventRef event, EventParamName name, EventParamType type, ByteCount size,
                           const void* data) {
    if (event == nullptr || (data == nullptr && size != 0))
        return paramErr;
    auto* parameter = FindParameter(event, name);
    if (parameter == nullptr) {
        event->parameters.push_back({name, type, {}});
        parameter = &event->parameters.back();
    }
    parameter->type = type;
    const auto* bytes = static_cast<const unsigned char*>(data);
    parameter->bytes.assign(bytes, bytes + size);
    return noErr;
}

OSStatus GetEventParameter(EventRef event, EventParamName name, EventParamType desiredType,
                           EventParamType* actualType, ByteCount bufferSize, ByteCount* actualSize,
                           void* data) {
    if (event == nullptr)
        return paramErr;
    const auto* parameter = FindParameter(event, name);
    if (parameter == nullptr)
        return eventParameterNotFoundErr;
    if (desiredType != typeWildCard && desiredType != parameter->type)
        return errAECoercionFail;
    if (actualType != nullptr)
        *actualType = parameter->type;
    if (actualSize != nullptr)
        *actualSize = parameter->bytes.size();
    if (data != nullptr && !parameter->bytes.empty())
        memcpy(data, parameter->bytes.data(),
               std::min<ByteCount>(bufferSize, parameter->bytes.size()));
    return noErr;
}

EventQueueRef GetMainEventQueue() {
    return MainQueue();
}

OSStatus PostEventToQueue(EventQueueRef queue, EventRef event, EventPriority priority) {
    if (queue == nullptr || event == nullptr)
        return paramErr;
    if (priority < kEventPriorityLow || priority > kEventPriorityHigh)
        priority = kEventPriorityStandard;
    bool wake = false;
    {
        std::lock_guard<std::mutex> hold(queue->lock);
        if (event->queued)
            return eventAlreadyPostedErr;
        RetainEvent(event);
        event->queued = true;
        queue->events[priority].push_back(event);
        ++queue->count;
        wake = queue->waiters > 0;
    }
    if (wake)
        SignalWakeFd(queue);
    return noErr;
}

ItemCount GetNumEventsInQueue(EventQueueRef queue) {
    if (queue == nullptr)
        return 0;
    std::lock_guard<std::mutex> hold(queue->lock);
    return queue->count;
}

OSStatus RemoveEventFromQueue(EventQueueRef queue, EventRef event) {
    if (queue == nullptr || event == nullptr)
        return paramErr;
    {
        std::lock_guard<std::mutex> hold(queue->lock);
        bool found = false;
        for (auto& events : queue->events) {
            for (auto it = events.begin(); it != events.end(); ++it) {
                if (*it == event) {
                    events.erase(it);
                    found = true;
                    break;
                }
            }
            if (found)
                break;
        }
        if (!found)
            return eventNotInQueueErr;
        --queue->count;
        event->queued = false;
    }
    ReleaseEvent(event);
    return noErr;
}

OSStatus FlushSpecificEventsFromQueue(EventQueueRef queue, EventComparatorUPP comparator,
                                      void* data) {
    if (queue == nullptr || comparator == nullptr)
        return paramErr;
    std::vector<EventRef> removed;
    {
        std::lock_guard<std::mutex> hold(queue->lock);
        for (int priority = kEventPriorityHigh; priority >= kEventPriorityLow; --priority) {
            auto& events = queue->events[priority];
            for (auto it = events.begin(); it != events.end();) {
                if (comparator(*it, data)) {
                    (*it)->queued = false;
                    removed.push_back(*it);
                    it = events.erase(it);
                    --queue->count;
                } else {
                    ++it;
                }
            }
        }
    }
    for (EventRef event : removed)
        ReleaseEvent(event);
    return noErr;
}

OSStatus ReceiveNextEvent(ItemCount numTypes, const EventTypeSpec* list, EventTimeout timeout,
                          bool pullEvent, EventRef* outEvent) {
    if (outEvent == nullptr)
        return paramErr;
    *outEvent = nullptr;
    EventQueueRef queue = MainQueue();
    const bool forever = timeout < 0;
    const EventTime deadline = forever ? 0 : GetCurrentEventTime() + timeout;
    bool timeIsUp = false;
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(queue->lock);
            if (queue->quitRequested) {
                queue->quitRequested = false;
                return eventLoopQuitErr;
            }
            EventRef event = TakeFirstMatching(queue, numTypes, list, pullEvent);
            if (event != nullptr) {
                // Another receiver may have slept through the wake meant for what is left.
                if (queue->count > 0 && queue->waiters > 0)
                    SignalWakeFd(queue);
                *outEvent = event;
                return noErr;
            }
            if (timeIsUp)
                return eventLoopTimedOutErr;
            ++queue->waiters;
        }

        platform::RunLoopPass pass;
        pass.fds.push_back({queue->wakeFd, POLLIN, 0});
        platform::MainRunLoopPrepare(pass);
        timespec wait{};
        const timespec* waitPointer = nullptr;
        if (!forever) {
            wait = ToTimespec(deadline - GetCurrentEventTime());
            waitPointer = &wait;
        }
        int ready = ppoll(pass.fds.data(), pass.fds.size(), waitPointer, nullptr);
        {
            std::lock_guard<std::mutex> hold(queue->lock);
            --queue->waiters;
        }
        if (ready > 0 && (pass.fds[0].revents & POLLIN) != 0)
            DrainWakeFd(queue);
        if (ready <= 0) {
            for (auto& fd : pass.fds)
                fd.revents = 0;
        }
        platform::MainRunLoopFinish(pass, 1);
        if (!forever && GetCurrentEventTime() >= deadline)
            timeIsUp = true;
    }
}

EventLoopRef GetMainEventLoop() {
    return &gMainEventLoop;
}

OSStatus QuitEventLoop(EventLoopRef loop) {
    if (loop == nullptr)
        return paramErr;
    EventQueueRef queue = MainQueue();
    {
        std::lock_guard<std::mutex> hold(queue->lock);
        queue->quitRequested = true;
    }
    SignalWakeFd(queue);
    return noErr;
}

namespace platform {

bool IsMainEventLoopThread() {
    return pthread_equal(gMainEventLoopThread.thread, pthread_self()) != 0;
}

void WakeMainEventLoop() {
    SignalWakeFd(MainQueue());
}

} // namespace platform

// Event-pumping waits on the main event queue.
#include "llib/mac/process.h"

#include "llib/gen/llibbase.h"

#include "platform/cfrunloop.h"
#include "platform/events.h"

#include <cstdint>

namespace {

constexpr EventTimeout kForeverSlice = 0.01;

// Pulls the next event (waiting up to timeout seconds) and sends it to the dispatcher target;
// wake-up events are released unseen when skipWakeUps is set. Returns ReceiveNextEvent's result.
OSStatus DispatchOneEvent(EventTargetRef dispatcher, EventTimeout timeout, bool skipWakeUps) {
    EventRef event = nullptr;
    OSStatus status = ReceiveNextEvent(0, nullptr, timeout, true, &event);
    if (status != noErr)
        return status;
    if (!skipWakeUps || GetEventClass(event) != kLWakeUpEventClass)
        SendEventToEventTarget(event, dispatcher);
    ReleaseEvent(event);
    return noErr;
}

// Watches a signal's read end from the main run loop while a wait runs.
class SignalWatch {
public:
    explicit SignalWatch(LSignalObjectRef signal) : fd(signal.filedes[0]) {
        socket = CFSocketCreateWithNative(kCFAllocatorDefault, fd, kCFSocketReadCallBack,
                                          LProcessEventsHandler::SocketCallBack, nullptr);
        source = CFSocketCreateRunLoopSource(kCFAllocatorDefault, socket, 0);
        CFRunLoopAddSource(GetCFRunLoopFromEventLoop(GetMainEventLoop()), source,
                           kCFRunLoopDefaultMode);
    }

    ~SignalWatch() {
        CFRunLoopRemoveSource(GetCFRunLoopFromEventLoop(GetMainEventLoop()), source,
                              kCFRunLoopDefaultMode);
        CFRelease(source);
        CFRelease(socket);
        // Wake-ups posted for this descriptor and not yet pulled are private: drop them
        // before the clearing pass dispatches the queue.
        FlushSpecificEventsFromQueue(GetMainEventQueue(), IsOwnWakeUp, &fd);
    }

private:
    static bool IsOwnWakeUp(EventRef event, void* data) {
        if (GetEventClass(event) != kLWakeUpEventClass || GetEventKind(event) != kLWakeUpEventKind)
            return false;
        int32_t descriptor = -1;
        GetEventParameter(event, kLWakeUpParamSocket, typeSInt32, nullptr, sizeof descriptor,
                          nullptr, &descriptor);
        return descriptor == *static_cast<int*>(data);
    }

    int fd;
    CFSocketRef socket = nullptr;
    CFRunLoopSourceRef source = nullptr;
};

} // namespace

int LProcessEventsHandler::ProcessWaitForeverAndProcessEvents() {
    EventTargetRef dispatcher = GetEventDispatcherTarget();
    for (;;) {
        if (IsProcessEventHandlerToStop())
            return 1;
        DispatchOneEvent(dispatcher, kForeverSlice, false);
    }
}

int LProcessEventsHandler::ProcessWaitAndProcessEvents(unsigned int timeoutMs) {
    if (timeoutMs == 0xFFFFFFFF)
        return ProcessWaitForeverAndProcessEvents();
    EventTargetRef dispatcher = GetEventDispatcherTarget();
    const unsigned int start = GetTickCount();
    unsigned int now = start;
    for (;;) {
        if (IsProcessEventHandlerToStop())
            return 1;
        int32_t remaining = static_cast<int32_t>(timeoutMs - (now - start));
        if (remaining < 1)
            return 0;
        if (DispatchOneEvent(dispatcher, remaining * 0.001, false) == eventLoopQuitErr)
            return 1;
        now = GetTickCount();
    }
}

int LProcessEventsHandler::ProcessWaitSignalAndProcessEvents(LSignalObjectRef signal,
                                                             unsigned int timeoutMs) {
    EventTargetRef dispatcher = GetEventDispatcherTarget();
    int result = 2;
    {
        SignalWatch watch(signal);
        const unsigned int start = GetTickCount();
        unsigned int now = start;
        for (;;) {
            int64_t remaining = static_cast<int64_t>(timeoutMs) -
                                (static_cast<int64_t>(now) - static_cast<int64_t>(start));
            if (remaining <= 0) {
                result = 2;
                break;
            }
            if (signal.IsSignaled()) {
                result = 0;
                break;
            }
            if (IsProcessEventHandlerToStop()) {
                result = 1;
                break;
            }
            if (DispatchOneEvent(dispatcher, static_cast<double>(remaining) * 0.001, true) ==
                eventLoopTimedOutErr) {
                result = 2;
                break;
            }
            now = GetTickCount();
        }
    }
    LProcessClearEventQueue();
    return result;
}

int LProcessEventsHandler::ProcessWaitSignalForeverAndProcessEvents(LSignalObjectRef signal) {
    EventTargetRef dispatcher = GetEventDispatcherTarget();
    int result = 1;
    {
        SignalWatch watch(signal);
        for (;;) {
            if (signal.IsSignaled()) {
                result = 0;
                break;
            }
            if (IsProcessEventHandlerToStop()) {
                result = 1;
                break;
            }
            DispatchOneEvent(dispatcher, kForeverSlice, true);
        }
    }
    LProcessClearEventQueue();
    return result;
}

void LProcessEventsHandler::SocketCallBack(__CFSocket* socket, unsigned long, const __CFData*,
                                           const void*, void*) {
    EventRef event = nullptr;
    if (CreateEvent(nullptr, kLWakeUpEventClass, kLWakeUpEventKind, 0, kEventAttributeNone,
                    &event) != noErr)
        return;
    int32_t descriptor = CFSocketGetNative(socket);
    SetEventParameter(event, kLWakeUpParamSocket, typeSInt32, sizeof descriptor, &descriptor);
    PostEventToQueue(GetMainEventQueue(), event, kEventPriorityStandard);
    ReleaseEvent(event);
}

void LProcessEventsHandler::ClearEventQueue() {
    LProcessClearEventQueue();
}

int ProcessWaitAndProcessEvents(unsigned int timeoutMs) {
    LWaitProcessEventsHandler handler;
    return handler.ProcessWaitAndProcessEvents(timeoutMs);
}

int ProcessWaitSignalObjectAndProcessEvents(LSignalObjectRef signal) {
    LWaitProcessEventsHandler handler;
    return handler.ProcessWaitSignalForeverAndProcessEvents(signal);
}

bool LProcessClearEventQueue() {
    EventTargetRef dispatcher = GetEventDispatcherTarget();
    EventQueueRef queue = GetMainEventQueue();
    bool dispatched = false;
    ItemCount turns = GetNumEventsInQueue(queue) + 1;
    if (turns > 4)
        turns = 4;
    for (ItemCount i = 0; i < turns; ++i)
        dispatched =
            DispatchOneEvent(dispatcher, kEventDurationNoWait, false) == noErr || dispatched;
    turns = GetNumEventsInQueue(queue) + 1;
    for (ItemCount i = 0; i < turns; ++i)
        dispatched =
            DispatchOneEvent(dispatcher, kEventDurationNoWait, false) == noErr || dispatched;
    return dispatched;
}

// The platform's main event queue and main run loop, under the event-manager names the utility
// layer calls.
//
// One process-wide queue carries events from any thread to the main thread: an event has a
// class, a kind and typed parameters; it is posted with a priority (high before standard before
// low, first in first out within one priority); the main thread pulls the next event with a
// time-out and sends it to the handlers installed on the application target. Queued events can
// be withdrawn by a predicate. The main run loop watches descriptors: while a thread waits in
// ReceiveNextEvent, the callback of every run-loop socket whose descriptor is readable runs on
// that thread, so a callback that posts an event ends the wait at once.
//
// The main thread is the thread that loaded the library. All functions may be called from any
// thread unless a comment says otherwise; nothing here throws.
#pragma once

#include <cstdint>

#include "platform/mactypes.h"

typedef uint32_t EventParamName;
typedef uint32_t EventParamType;
typedef uint32_t EventAttributes;
typedef unsigned long ItemCount;
typedef unsigned long ByteCount;
// Seconds. Time-outs: kEventDurationNoWait polls, kEventDurationForever waits without limit.
typedef double EventTime;
typedef double EventTimeout;

enum : OSStatus {
    errAECoercionFail = -1700,
    eventParameterNotFoundErr = -9870,
    eventNotHandledErr = -9874,
    eventLoopTimedOutErr = -9875,
    eventLoopQuitErr = -9876,
    eventNotInQueueErr = -9877,
    eventInternalErr = -9868,
    eventAlreadyPostedErr = -9860,
};

constexpr EventTimeout kEventDurationNoWait = 0.0;
constexpr EventTimeout kEventDurationForever = -1.0;
constexpr EventAttributes kEventAttributeNone = 0;

// Parameter types. typeWildCard accepts a parameter of any type when reading.
constexpr EventParamType typeVoidPtr = 0x766F6964;  // 'void': one pointer
constexpr EventParamType typeSInt32 = 0x6C6F6E67;   // 'long': a signed 32-bit value
constexpr EventParamType typeWildCard = 0x2A2A2A2A; // '****'

typedef int16_t EventPriority;
constexpr EventPriority kEventPriorityLow = 0;
constexpr EventPriority kEventPriorityStandard = 1;
constexpr EventPriority kEventPriorityHigh = 2;

struct EventTypeSpec {
    OSType eventClass;
    uint32_t eventKind;
};

struct OpaqueEventRef;
struct OpaqueEventQueueRef;
struct OpaqueEventTargetRef;
struct OpaqueEventHandlerRef;
struct OpaqueEventHandlerCallRef;
struct OpaqueEventLoopRef;
typedef OpaqueEventRef* EventRef;
typedef OpaqueEventQueueRef* EventQueueRef;
typedef OpaqueEventTargetRef* EventTargetRef;
typedef OpaqueEventHandlerRef* EventHandlerRef;
typedef OpaqueEventHandlerCallRef* EventHandlerCallRef;
typedef OpaqueEventLoopRef* EventLoopRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef struct __CFRunLoop* CFRunLoopRef;

// A handler returns noErr when it handled the event, eventNotHandledErr to pass it on to the
// next handler.
typedef OSStatus (*EventHandlerProcPtr)(EventHandlerCallRef callRef, EventRef event,
                                        void* userData);
typedef EventHandlerProcPtr EventHandlerUPP;
// A withdrawal predicate: true removes the event from the queue (and releases the queue's
// reference).
typedef bool (*EventComparatorProcPtr)(EventRef event, void* data);
typedef EventComparatorProcPtr EventComparatorUPP;

inline EventHandlerUPP NewEventHandlerUPP(EventHandlerProcPtr proc) {
    return proc;
}
inline void DisposeEventHandlerUPP(EventHandlerUPP) {}
inline EventComparatorUPP NewEventComparatorUPP(EventComparatorProcPtr proc) {
    return proc;
}
inline void DisposeEventComparatorUPP(EventComparatorUPP) {}

// Seconds since an arbitrary fixed point (the monotonic clock).
EventTime GetCurrentEventTime();

// --- Events. An event is reference-counted; CreateEvent returns it with one reference. ---

// Creates an event of the given class and kind; a time of 0 stamps it with the current time.
// Returns noErr and the event in *outEvent, paramErr when outEvent is null.
OSStatus CreateEvent(CFAllocatorRef allocator, OSType eventClass, uint32_t eventKind,
                     EventTime when, EventAttributes flags, EventRef* outEvent);
EventRef RetainEvent(EventRef event);
// Drops one reference; the last one frees the event. Null is ignored.
void ReleaseEvent(EventRef event);
OSType GetEventClass(EventRef event);
uint32_t GetEventKind(EventRef event);
EventTime GetEventTime(EventRef event);

// Sets (or replaces) a parameter: a copy of size bytes at data, tagged with type.
// paramErr for a null event, or null data with a non-zero size.
OSStatus SetEventParameter(EventRef event, EventParamName name, EventParamType type, ByteCount size,
                           const void* data);
// Reads a parameter. desiredType must equal the stored type or be typeWildCard
// (errAECoercionFail otherwise); eventParameterNotFoundErr when the event has no such
// parameter. Copies at most bufferSize bytes into data (data may be null); reports the stored
// type and size through the optional out-parameters.
OSStatus GetEventParameter(EventRef event, EventParamName name, EventParamType desiredType,
                           EventParamType* actualType, ByteCount bufferSize, ByteCount* actualSize,
                           void* data);

// --- The queue. ---

// The process's one event queue, built on first use and never torn down (so exit-time code may
// still post to it).
EventQueueRef GetMainEventQueue();
// The queue takes its own reference; the caller still releases its own. An event that sits in a
// queue already gives eventAlreadyPostedErr.
OSStatus PostEventToQueue(EventQueueRef queue, EventRef event, EventPriority priority);
// Number of events waiting.
ItemCount GetNumEventsInQueue(EventQueueRef queue);
// Removes a queued event (releasing the queue's reference); eventNotInQueueErr when absent.
OSStatus RemoveEventFromQueue(EventQueueRef queue, EventRef event);
// Calls the predicate for every queued event, in queue order, and removes those it accepts.
// The predicate runs with the queue locked: it may read and change the event's parameters and
// free what they point to, but must not call the queue functions.
OSStatus FlushSpecificEventsFromQueue(EventQueueRef queue, EventComparatorUPP comparator,
                                      void* data);

// Waits up to timeout seconds for the first queued event whose class and kind are in the list
// (any event when numTypes is 0), running the main run loop's socket callbacks meanwhile.
// noErr: *outEvent is the event; with pullEvent it is removed from the queue and the caller
// releases it, without it stays queued and the caller must not release it.
// eventLoopTimedOutErr when the time ran out, eventLoopQuitErr when QuitEventLoop was called
// (the request is consumed). Meant for the main thread.
OSStatus ReceiveNextEvent(ItemCount numTypes, const EventTypeSpec* list, EventTimeout timeout,
                          bool pullEvent, EventRef* outEvent);

// --- Targets and handlers. ---

EventTargetRef GetApplicationEventTarget();
// The target the event loop sends events to; it hands them to the application target.
EventTargetRef GetEventDispatcherTarget();
// Installs a handler for the listed event types on a target; the newest handler is asked
// first. Returns noErr and the handler's reference (for RemoveEventHandler) in *outRef when
// outRef is not null; paramErr for a null target or handler.
OSStatus InstallEventHandler(EventTargetRef target, EventHandlerUPP handler, ItemCount numTypes,
                             const EventTypeSpec* list, void* userData, EventHandlerRef* outRef);
// Removes an installed handler; it is not called afterwards (a call already running on another
// thread finishes). paramErr for an unknown reference.
OSStatus RemoveEventHandler(EventHandlerRef handlerRef);
// Sends an event to the target's handlers on the calling thread, newest first, until one
// returns something other than eventNotHandledErr; returns that result, or eventNotHandledErr
// when no handler took it.
OSStatus SendEventToEventTarget(EventRef event, EventTargetRef target);

// --- Event loops. ---

EventLoopRef GetMainEventLoop();
// Makes the current or next ReceiveNextEvent return eventLoopQuitErr once.
OSStatus QuitEventLoop(EventLoopRef loop);
// The run loop whose sources ReceiveNextEvent watches.
CFRunLoopRef GetCFRunLoopFromEventLoop(EventLoopRef loop);

namespace platform {
// True on the thread that loaded the library.
bool IsMainEventLoopThread();
} // namespace platform

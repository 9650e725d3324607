// Waits for the main thread that keep pulling and dispatching the main event queue's events, so
// the user interface stays alive while the main thread waits for a time or for a signal object.
//
// A signal wait watches the signal's pipe from the main run loop: as soon as the pipe becomes
// readable a private wake-up event (class 'LSnc', kind 'LSnk', parameter 'LSso' holding the
// descriptor) is posted, which ends the event wait at once; the waits release those events
// without dispatching them, and withdraw any left over when they end, so no handler sees one.
//
// Results of the signal waits are the process result codes: 0 signalled, 1 the handler asked to
// stop, 2 timed out. All functions here are for the main thread.
#pragma once

#include "llib/gen/signalobject.h"

#include <cstdint>

struct __CFSocket;
struct __CFData;

constexpr uint32_t kLWakeUpEventClass = 0x4C536E63;  // 'LSnc'
constexpr uint32_t kLWakeUpEventKind = 0x4C536E6B;   // 'LSnk'
constexpr uint32_t kLWakeUpParamSocket = 0x4C53736F; // 'LSso', type 'long'

// Decides, once per turn of a wait, whether the wait is to be abandoned.
class LProcessEventsHandler {
public:
    virtual bool IsProcessEventHandlerToStop() const = 0;

    // Pumps events in 10 ms slices until the handler says stop; returns 1.
    int ProcessWaitForeverAndProcessEvents();
    // Pumps events for timeoutMs milliseconds (0xFFFFFFFF: forever, as above). 0 when the time
    // is up, 1 when the handler asked to stop or the event loop was told to quit. A stop request
    // is noticed when an event arrives or when the time is up.
    int ProcessWaitAndProcessEvents(unsigned int timeoutMs);
    // Pumps events until signal is set (0), the handler says stop (1) or timeoutMs has passed
    // (2; checked first, so a time-out of 0 gives 2 even for a set signal). 0xFFFFFFFF is a
    // plain, very long time-out here. Ends within milliseconds of the signal being set. Leaves
    // the signal set; then dispatches what is left in the queue.
    int ProcessWaitSignalAndProcessEvents(LSignalObjectRef signal, unsigned int timeoutMs);
    // As above without a time-out: 0 once signal is set, 1 when the handler says stop.
    int ProcessWaitSignalForeverAndProcessEvents(LSignalObjectRef signal);

    // The run-loop callback of a watched signal: posts the wake-up event for its descriptor.
    static void SocketCallBack(__CFSocket* socket, unsigned long type, const __CFData* address,
                               const void* data, void* info);
    // LProcessClearEventQueue().
    static void ClearEventQueue();

protected:
    ~LProcessEventsHandler() = default;
};

// The handler of the free functions below: never asks to stop.
class LWaitProcessEventsHandler : public LProcessEventsHandler {
public:
    bool IsProcessEventHandlerToStop() const override { return false; }
};

// Pumps events for timeoutMs: 0 when the time is up, 1 when the event loop was told to quit;
// with 0xFFFFFFFF it does not return.
int ProcessWaitAndProcessEvents(unsigned int timeoutMs);
// Pumps events until signal is set; returns 0.
int ProcessWaitSignalObjectAndProcessEvents(LSignalObjectRef signal);
// Dispatches the events waiting in the main queue (a few first, then as many as are queued at
// that moment); true when it dispatched any.
bool LProcessClearEventQueue();

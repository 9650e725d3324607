// Work carried from any thread to the main thread through the main event queue, and the
// notifications built on it: a simple "call me back on the main thread", coded notifications
// with a copied data block, and a worker thread whose status, progress and error reports reach
// a process interface on the main thread.
//
// Each work item travels as an application event (class 'LNot', kind 'LNdk') posted with high
// priority; the handler that LThreadRunOnMainThread::Init installs runs the item when the main
// thread's event loop dispatches the event (for instance inside ProcessWaitAndProcessEvents).
#pragma once

#include "llib/gen/mutex.h"
#include "llib/gen/thread.h"

#include <atomic>
#include <cstdint>

struct OpaqueEventRef;
struct OpaqueEventQueueRef;
struct OpaqueEventHandlerRef;
struct OpaqueEventHandlerCallRef;

// Event codes of the work event and its two pointer parameters.
constexpr uint32_t kLThreadNotifyEventClass = 0x4C4E6F74;  // 'LNot'
constexpr uint32_t kLThreadNotifyEventKind = 0x4C4E646B;   // 'LNdk'
constexpr uint32_t kLThreadNotifyParamRunner = 0x4C4E7468; // 'LNth': the LThreadRunOnMainThread
constexpr uint32_t kLThreadNotifyParamData = 0x4C4E6461;   // 'LNda': the item

// A piece of work for the main thread. Once posted, the dispatcher owns it and deletes it after
// running it or when withdrawing it.
class LThreadRunOnMainThreadData {
public:
    virtual ~LThreadRunOnMainThreadData() {}
    // Runs on the main thread.
    virtual void MainThreadFunction() = 0;
};

// Posts work items to the main thread and keeps count of those still outstanding.
class LThreadRunOnMainThread {
public:
    LThreadRunOnMainThread();
    // Withdraws whatever of this object is still queued, so no event outlives it, then destroys
    // the lock. An item already running on the main thread must have finished (GetRefCount 0).
    virtual ~LThreadRunOnMainThread();
    LThreadRunOnMainThread(const LThreadRunOnMainThread&) = delete;
    LThreadRunOnMainThread& operator=(const LThreadRunOnMainThread&) = delete;

    // Installs the work event's handler on the application target; call once at application
    // start, on the main thread, before items are expected to run.
    static void Init();
    // Removes the handler; call at application end.
    static void Destroy();

    // Takes ownership of item (null is ignored). Refused (item deleted unrun) after
    // ThreadRunOnMainThreadDestroy; otherwise counted and posted. Any thread.
    void RunOnMainThread(LThreadRunOnMainThreadData* item);
    // Withdraws this object's queued items (deleted unrun, each counted back) and refuses later
    // posts. Any thread; the second call does nothing.
    void ThreadRunOnMainThreadDestroy();

    // Items posted and neither run nor withdrawn yet. Any thread.
    int GetRefCount() const;
    void IncRefCount();
    void DecRefCount();

    // The installed handler: runs and deletes the event's item. Main thread.
    static int32_t EventHandler(OpaqueEventHandlerCallRef* callRef, OpaqueEventRef* event,
                                void* userData);
    // The withdrawal predicate; owner is the LThreadRunOnMainThread being withdrawn.
    static bool FlushEventFromQueueCallBack(OpaqueEventRef* event, void* owner);
    // True (withdraw) for this object's events: deletes the item and counts it back.
    bool FlushEventFromQueue(OpaqueEventRef* event);

    std::atomic<bool> bEnabled; // read by posting threads while the owner may be destroying it
    std::atomic<bool> bDestroyed;
    mutable LLockObject RefCountLock;
    int nRefCount;

    static OpaqueEventQueueRef* eventQueue;
    static int32_t (*eventHandlerUPP)(OpaqueEventHandlerCallRef*, OpaqueEventRef*, void*);
    static OpaqueEventHandlerRef* installedHandler;
};

// Asks to be called back on the main thread.
class LThreadQueuedNotify {
public:
    virtual ~LThreadQueuedNotify() {}
    // Runs on the main thread, once per PostQueueNotify.
    virtual void OnQueuedNotify() = 0;

    // Queues one call of OnQueuedNotify. Any thread.
    void PostQueueNotify();
    // Withdraws the queued calls and refuses later ones.
    void ThreadQueuedNotifyDestroy();

    LThreadRunOnMainThread Runner;
};

class LThreadQueuedNotifyData : public LThreadRunOnMainThreadData {
public:
    explicit LThreadQueuedNotifyData(LThreadQueuedNotify& notify) : pNotify(&notify) {}
    void MainThreadFunction() override;

    LThreadQueuedNotify* pNotify;
};

// Receives coded notifications, each with a private copy of the sender's data block.
class LQueuedNotifyDataHandler {
public:
    virtual ~LQueuedNotifyDataHandler() {}
    // Runs on the main thread; data (null when the sender gave none) is valid during the call.
    virtual void EvQueuedNotifyData(unsigned int code, const void* data, unsigned long size) = 0;

    // Copies size bytes of data (when data is not null) and queues the notification; size is
    // passed on as given (as a 32-bit value) even without data. Any thread.
    void PostNotifyFromSender(unsigned int code, const void* data, unsigned long size);
    // Withdraws the queued notifications and refuses later ones.
    void QueuedNotifyDataHandlerDestroy();

    LThreadRunOnMainThread Runner;
};

class LQueuedNotifyDataHandlerData : public LThreadRunOnMainThreadData {
public:
    // Copies size bytes of data when data is not null.
    LQueuedNotifyDataHandlerData(LQueuedNotifyDataHandler& handler, unsigned int code,
                                 const void* data, unsigned long size);
    ~LQueuedNotifyDataHandlerData() override;
    void MainThreadFunction() override;

    LQueuedNotifyDataHandler* pHandler;
    unsigned int dwCode;
    void* pData;
    unsigned int dwSize;
};

// A worker thread whose reports reach a process interface on the main thread (a progress
// window, say): SetError, SetStatus (lines 0 and 1), SetProgress and the indeterminate switches
// called on the worker are posted as notifications and replayed on pTarget by the main thread.
// Status texts are not queued: the main thread shows the latest text of each line.
// The derived class implements ThreadFunction and stops the thread in its own destructor.
class LThreadNotifyInterface : public LThread, public LQueuedNotifyDataHandler {
public:
    // target receives the reports on the main thread; the object's own handler part carries
    // them (SetNotifyHandler changes that, null drops reports).
    explicit LThreadNotifyInterface(LProcessInterface* target = nullptr);
    // Stops the thread and withdraws the reports still queued.
    ~LThreadNotifyInterface() override;

    void SetTarget(LProcessInterface* target) { pTarget = target; }
    void SetNotifyHandler(LQueuedNotifyDataHandler* handler) { pNotifyHandler = handler; }

    // Notification codes.
    enum : unsigned int {
        kNotifyError = 0,
        kNotifyStatusLine0 = 1,
        kNotifyStatusLine1 = 2,
        kNotifyProgress = 3,
        kNotifyIndeterminateOn = 4,
        kNotifyIndeterminateOff = 5,
    };

    // Worker side.
    void SetError(const char* text) override;
    void SetStatus(const char* text, int line) override;
    void SetProgress(double value) override;
    void SetProgressIndeterminateOn() override;
    void SetProgressIndeterminateOff() override;
    // Main-thread side: replays one report on pTarget.
    void EvQueuedNotifyData(unsigned int code, const void* data, unsigned long size) override;

    LProcessInterface* pTarget;
    LQueuedNotifyDataHandler* pNotifyHandler;
    LLockObject TextLock;
    char szStatusLine0[260];
    char szStatusLine1[260];
};

// True on the process's main (initial) thread.
bool LIsMainThread();

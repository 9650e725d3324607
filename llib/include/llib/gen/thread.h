// Worker threads behind the process interface. A worker's stop request is a signal object, so
// every process wait inside its thread function also wakes on a stop request. Detached threads
// delete themselves when done and are tracked by an owner that can stop them all.
#pragma once

#include <pthread.h>

#include "llib/gen/list.h"
#include "llib/gen/mutex.h"
#include "llib/gen/process.h"
#include "llib/gen/signalobject.h"

// Thread priorities understood by Start and SetPriority; other values ask for round-robin
// scheduling at that priority.
class LDetachedThreadsOwner;

enum { kLThreadPriorityNormal = 0, kLThreadPriorityRealTime = 91 };

class LThread : public LProcessInterface {
public:
    LThread();
    // The name is not kept.
    explicit LThread(const char* name);
    // Stops the thread (StopThreadNow). A derived class must stop it in its own destructor
    // before its members go away, since ThreadFunction belongs to it.
    virtual ~LThread();
    LThread(const LThread&) = delete;
    LThread& operator=(const LThread&) = delete;

    bool IsToStop() override;
    // True when a stop was requested or the thread function has ended.
    bool ProcessWait(unsigned int timeoutMs) override;
    int ProcessWaitSignal(LSignalObjectRef signal, unsigned int timeoutMs) override;
    // Adds StopSignal to group for good; on return the group's set holds only the ready
    // descriptors, so a caller that waits again rebuilds its group.
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int timeoutMs) override;

    // The body of the thread.
    virtual void ThreadFunction() = 0;

    // Starts the thread and returns once it runs. Does nothing while it runs already; joins a
    // thread whose function has returned and starts a new one. Serialised by StartLock; returns
    // at once when the thread cannot be created.
    void Start(int priority = kLThreadPriorityNormal);
    // Applies a priority class to the running thread, quietly keeping the current scheduling
    // where the system does not permit the change.
    void SetPriority(int priority);
    // Asks the thread to stop; does not wait.
    void StopThreadSoon();
    // Waits up to ms: true when the time ran out with no stop request and the thread function
    // still running; false when either signal is set.
    bool WaitToStop(unsigned int ms);
    bool WaitToStop();
    // Asks the thread to stop and waits until it has.
    void StopThreadNow();
    bool IsRunning() const { return __atomic_load_n(&bRunning, __ATOMIC_ACQUIRE); }

    // The fields below are written by the thread itself as well as by its owner; read them
    // through the accessors above or with atomic loads.
    pthread_t hThread;
    unsigned int dwThreadId;
    int nPriority;
    bool bRunning;
    LSignalObject StopSignal;
    LSignalObject EndSignal;
    LSignalObject StartSignal;
    LLockObject StartLock;

protected:
    // Creates the system thread running entry(this) and records it; false when it cannot be
    // created.
    bool CreateThread(void* (*entry)(void*));
    // Runs in the new thread around ThreadFunction: records the thread, applies the priority,
    // and afterwards clears hThread and dwThreadId and sets EndSignal.
    void EnterThread();
    void LeaveThread();
    // Joins a system thread that is over but not yet joined, so its resources are released
    // and this object is not deleted while its thread is still leaving ThreadCallback.
    void JoinFinishedThread();

    pthread_mutex_t stateLock = PTHREAD_MUTEX_INITIALIZER; // guards joinable and hThread writes
    pthread_t joinable = 0;                                // the thread still to be joined, if any
    bool bJoinable = false;

private:
    friend class LDetachedThreadsOwner; // detaches a thread that deletes itself
    static void* ThreadCallback(void* thread);
};

// A worker that deletes itself through its owner when its thread function returns. The creator
// adds it to the owner's Threads list (under ThreadsLock) before StartDetached.
class LDetachedThread : public LThread, public LListable {
public:
    LDetachedThread();
    explicit LDetachedThread(const char* name);

    // Starts the thread without waiting for it to begin. Creation failure is not reported; the
    // thread then stays in its owner's list until the owner stops its threads.
    void StartDetached(LDetachedThreadsOwner& owner, int priority = kLThreadPriorityNormal);

    LDetachedThreadsOwner* pOwner;

private:
    static void* ThreadCallback(void* thread);
};

class LDetachedThreadsOwner {
public:
    LDetachedThreadsOwner() = default;
    // Stops and deletes every thread still listed.
    ~LDetachedThreadsOwner();
    LDetachedThreadsOwner(const LDetachedThreadsOwner&) = delete;
    LDetachedThreadsOwner& operator=(const LDetachedThreadsOwner&) = delete;

    // Adds a thread before it is started detached.
    void AddThread(LDetachedThread* thread);
    // Unlinks thread and deletes it; false (and nothing done) when it is not listed.
    bool Destruct(LDetachedThread* thread);
    // Asks every listed thread to stop.
    void StopThreadsSoon();
    // Asks every listed thread to stop, then stops and deletes them one by one; returns once no
    // thread is left, including threads that were deleting themselves meanwhile.
    void StopThreadsNow();

    LList<LDetachedThread> Threads;
    LLockObject ThreadsLock;

private:
    unsigned int nSelfDeleting = 0; // threads between unlinking and deleting themselves
};

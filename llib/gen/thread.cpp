#include "llib/gen/thread.h"

#include "signalsync.h"

#include <cerrno>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

unsigned int CurrentKernelThreadId() {
    return static_cast<unsigned int>(syscall(SYS_gettid));
}

// Linux has no Mach thread policies: 0 is ordinary time-sharing, 91 real-time round-robin at
// priority 91, other values round-robin at that priority (clamped to what the system accepts).
// Real-time scheduling needs a privilege most processes lack; then the thread keeps running
// with ordinary scheduling.
void ApplyPriority(pthread_t thread, int priority) {
    sched_param parameters{};
    if (priority == kLThreadPriorityNormal) {
        parameters.sched_priority = 0;
        pthread_setschedparam(thread, SCHED_OTHER, &parameters);
        return;
    }
    const int lowest = sched_get_priority_min(SCHED_RR);
    const int highest = sched_get_priority_max(SCHED_RR);
    parameters.sched_priority = priority < lowest    ? lowest
                                : priority > highest ? highest
                                                     : priority;
    pthread_setschedparam(thread, SCHED_RR, &parameters);
}

} // namespace

LThread::LThread() : hThread(0), dwThreadId(0xFFFFFFFFu), nPriority(0), bRunning(false) {}

LThread::LThread(const char*) : LThread() {}

LThread::~LThread() {
    StopThreadNow();
    pthread_mutex_destroy(&stateLock);
}

bool LThread::CreateThread(void* (*entry)(void*)) {
    // The lock keeps the new thread from clearing hThread before it has been recorded here.
    pthread_mutex_lock(&stateLock);
    pthread_t created;
    const bool ok = pthread_create(&created, nullptr, entry, this) == 0;
    if (ok) {
        __atomic_store_n(&hThread, created, __ATOMIC_RELEASE);
        joinable = created;
        bJoinable = true;
    }
    pthread_mutex_unlock(&stateLock);
    return ok;
}

void LThread::EnterThread() {
    __atomic_store_n(&dwThreadId, CurrentKernelThreadId(), __ATOMIC_RELEASE);
    ApplyPriority(pthread_self(), __atomic_load_n(&nPriority, __ATOMIC_ACQUIRE));
}

void LThread::LeaveThread() {
    pthread_mutex_lock(&stateLock);
    __atomic_store_n(&bRunning, false, __ATOMIC_RELEASE);
    __atomic_store_n(&hThread, static_cast<pthread_t>(0), __ATOMIC_RELEASE);
    __atomic_store_n(&dwThreadId, 0xFFFFFFFFu, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&stateLock);
}

void LThread::JoinFinishedThread() {
    pthread_mutex_lock(&stateLock);
    const bool mustJoin = bJoinable && !pthread_equal(joinable, pthread_self());
    const pthread_t thread = joinable;
    if (mustJoin)
        bJoinable = false;
    pthread_mutex_unlock(&stateLock);
    if (!mustJoin)
        return;
    pthread_join(thread, nullptr);
    pthread_mutex_lock(&stateLock);
    if (pthread_equal(__atomic_load_n(&hThread, __ATOMIC_ACQUIRE), thread)) {
        __atomic_store_n(&hThread, static_cast<pthread_t>(0), __ATOMIC_RELEASE);
        __atomic_store_n(&dwThreadId, 0xFFFFFFFFu, __ATOMIC_RELEASE);
    }
    pthread_mutex_unlock(&stateLock);
}

void* LThread::ThreadCallback(void* data) {
    LThread* thread = static_cast<LThread*>(data);
    thread->EnterThread();
    thread->StartSignal.Signal();
    thread->ThreadFunction();
    thread->LeaveThread();
    thread->EndSignal.Signal();
    return nullptr;
}

void LThread::Start(int priority) {
    LLockObjectLocker locked(StartLock);
    if (__atomic_load_n(&hThread, __ATOMIC_ACQUIRE) != 0 && IsRunning())
        return;
    // The previous run is over (or never was): release its system thread before starting anew.
    JoinFinishedThread();
    StopSignal.Reset();
    EndSignal.Reset();
    StartSignal.Reset();
    __atomic_store_n(&bRunning, true, __ATOMIC_RELEASE);
    __atomic_store_n(&nPriority, priority, __ATOMIC_RELEASE);
    if (!CreateThread(&LThread::ThreadCallback)) {
        __atomic_store_n(&bRunning, false, __ATOMIC_RELEASE);
        return;
    }
    ProcessWaitSignal(StartSignal, 0xFFFFFFFFu);
}

void LThread::SetPriority(int priority) {
    const pthread_t thread = __atomic_load_n(&hThread, __ATOMIC_ACQUIRE);
    if (thread == 0)
        return;
    ApplyPriority(thread, priority);
}

bool LThread::IsToStop() {
    return StopSignal.IsSignaled();
}

void LThread::StopThreadSoon() {
    StopSignal.Signal();
}

bool LThread::WaitToStop(unsigned int ms) {
    return !EndSignal.WaitSignalDual(StopSignal, ms);
}

bool LThread::WaitToStop() {
    return WaitToStop(0xFFFFFFFFu);
}

bool LThread::ProcessWait(unsigned int timeoutMs) {
    return !WaitToStop(timeoutMs);
}

int LThread::ProcessWaitSignal(LSignalObjectRef signal, unsigned int timeoutMs) {
    const int stopFd = StopSignal.filedes[0];
    const int signalFd = signal.filedes[0];
    if (stopFd < 0 || stopFd >= FD_SETSIZE || signalFd < 0 || signalFd >= FD_SETSIZE)
        return kLProcessFailed;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(stopFd, &readSet);
    FD_SET(signalFd, &readSet);
    timeval storage{};
    const int maxFd = stopFd > signalFd ? stopFd : signalFd;
    if (select(maxFd + 1, &readSet, nullptr, nullptr, LMakeSelectTimeout(timeoutMs, storage)) < 1)
        return kLProcessFailed;
    signalsync::AcquiredReady(maxFd, readSet);
    return FD_ISSET(stopFd, &readSet) ? kLProcessStopped : kLProcessDone;
}

int LThread::ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int timeoutMs) {
    group.Add(StopSignal);
    timeval storage{};
    if (select(group.nMaxFd + 1, &group.fdSet, nullptr, nullptr,
               LMakeSelectTimeout(timeoutMs, storage)) < 1)
        return kLProcessFailed;
    signalsync::AcquiredReady(group.nMaxFd, group.fdSet);
    const int stopFd = StopSignal.filedes[0];
    if (stopFd >= 0 && stopFd < FD_SETSIZE && FD_ISSET(stopFd, &group.fdSet))
        return kLProcessStopped;
    return kLProcessDone;
}

void LThread::StopThreadNow() {
    if (__atomic_load_n(&hThread, __ATOMIC_ACQUIRE) != 0) {
        StopSignal.Signal();
        WaitToStop();
    }
    // Joins the thread whether it is still ending or ended by itself earlier.
    JoinFinishedThread();
}

LDetachedThread::LDetachedThread() : pOwner(nullptr) {}

LDetachedThread::LDetachedThread(const char* name) : LThread(name), pOwner(nullptr) {}

void LDetachedThread::StartDetached(LDetachedThreadsOwner& owner, int priority) {
    pOwner = &owner;
    StopSignal.Reset();
    EndSignal.Reset();
    __atomic_store_n(&bRunning, true, __ATOMIC_RELEASE);
    __atomic_store_n(&nPriority, priority, __ATOMIC_RELEASE);
    if (!CreateThread(&LDetachedThread::ThreadCallback))
        __atomic_store_n(&bRunning, false, __ATOMIC_RELEASE);
}

void* LDetachedThread::ThreadCallback(void* data) {
    LDetachedThread* thread = static_cast<LDetachedThread*>(data);
    thread->EnterThread();
    thread->ThreadFunction();
    thread->LeaveThread();
    thread->StopSignal.Signal();
    thread->EndSignal.Signal();
    // Whoever unlinks the thread owns its end: Destruct deletes it here (the system thread then
    // releases itself); when the owner unlinked it first, the owner joins and deletes it.
    thread->pOwner->Destruct(thread);
    return nullptr;
}

LDetachedThreadsOwner::~LDetachedThreadsOwner() {
    StopThreadsNow();
}

void LDetachedThreadsOwner::AddThread(LDetachedThread* thread) {
    LLockObjectLocker locked(ThreadsLock);
    Threads.Add(thread);
}

bool LDetachedThreadsOwner::Destruct(LDetachedThread* thread) {
    ThreadsLock.Lock();
    const bool found = Threads.Remove(thread);
    // A thread deleting itself detaches its system thread, since nobody will join it, and is
    // counted so StopThreadsNow does not return before it is gone.
    pthread_mutex_lock(&thread->stateLock);
    const bool self = found && thread->bJoinable && pthread_equal(thread->joinable, pthread_self());
    if (self)
        thread->bJoinable = false;
    pthread_mutex_unlock(&thread->stateLock);
    if (self)
        ++nSelfDeleting;
    ThreadsLock.Unlock();
    if (!found)
        return false;
    if (self)
        pthread_detach(pthread_self());
    delete thread;
    if (self) {
        LLockObjectLocker locked(ThreadsLock);
        --nSelfDeleting;
    }
    return true;
}

void LDetachedThreadsOwner::StopThreadsSoon() {
    LLockObjectLocker locked(ThreadsLock);
    for (LListIterator<LDetachedThread> it(Threads); LDetachedThread* thread = it.Next();)
        thread->StopThreadSoon();
}

void LDetachedThreadsOwner::StopThreadsNow() {
    StopThreadsSoon();
    for (;;) {
        ThreadsLock.Lock();
        LDetachedThread* thread = Threads.RemoveHead();
        const bool othersDeleting = nSelfDeleting > 0;
        ThreadsLock.Unlock();
        if (thread != nullptr) {
            thread->StopThreadNow();
            delete thread;
        } else if (othersDeleting) {
            Sleep(1);
        } else {
            return;
        }
    }
}

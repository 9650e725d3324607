// The in-process recursive lock every shared table, thread object and capture delegate embeds,
// and the millisecond sleep used throughout the utility layer.
#pragma once

#include <pthread.h>

// A recursive POSIX mutex: the thread that holds it may lock it again and must unlock it as often
// as it locked it. Lock and Unlock report nothing. Any thread.
class LLockObject {
public:
    LLockObject();
    ~LLockObject();
    LLockObject(const LLockObject&) = delete;
    LLockObject& operator=(const LLockObject&) = delete;

    void Lock();
    void Unlock();

    pthread_mutex_t mutex;
};

// Holds an LLockObject for the life of a scope.
class LLockObjectLocker {
public:
    explicit LLockObjectLocker(LLockObject& lock) : lock(lock) { lock.Lock(); }
    ~LLockObjectLocker() { lock.Unlock(); }
    LLockObjectLocker(const LLockObjectLocker&) = delete;
    LLockObjectLocker& operator=(const LLockObjectLocker&) = delete;

private:
    LLockObject& lock;
};

// Sleeps for ms milliseconds in all, sleeping again for the rest when a signal handler interrupts
// the sleep. Any thread.
void Sleep(unsigned int ms);

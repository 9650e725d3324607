// The readers/writer lock and the machine-wide System V semaphore lock.
#include "llib/gen/sharedlock.h"

#include <cerrno>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

void LLockObjectShared::LockShared() {
    lock.Lock();
    readersGone.Reset();
    readers.fetch_add(1);
    lock.Unlock();
}

void LLockObjectShared::UnlockShared() {
    // No inner lock here: an upgrading or exclusive waiter may be holding it.
    if (readers.fetch_sub(1) == 1)
        readersGone.Signal();
}

void LLockObjectShared::LockExclusive() {
    for (;;) {
        lock.Lock();
        if (readers.load() < 1)
            return;
        lock.Unlock();
        readersGone.WaitSignal(0xFFFFFFFF);
    }
}

void LLockObjectShared::UpgradeLock() {
    lock.Lock();
    // The caller's own share goes; then the others are waited out while new readers stay out.
    readers.fetch_sub(1);
    while (readers.load() >= 1)
        readersGone.WaitSignal(0xFFFFFFFF);
}

void LLockObjectShared::DowngradeLock() {
    readersGone.Reset();
    readers.fetch_add(1);
    lock.Unlock();
}

namespace {

union SemaphoreArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

bool SemaphoreOperation(int semId, short delta, short flags) {
    sembuf operation{};
    operation.sem_num = 0;
    operation.sem_op = delta;
    operation.sem_flg = flags;
    return semop(semId, &operation, 1) == 0;
}

} // namespace

key_t LSystemLockMutex::KeyFromName(const char* name) {
    uint32_t value = 11223;
    for (const char* c = name; *c != 0; ++c)
        value =
            value * 32u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*c)));
    if (value == 0)
        value = 1;
    return static_cast<key_t>(value);
}

LSystemLockMutex::LSystemLockMutex(const char* name) : key(KeyFromName(name)), semId(-1) {
    int created = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    if (created >= 0) {
        SemaphoreArgument argument{};
        argument.val = 1;
        semctl(created, 0, SETVAL, argument);
        semId = created;
    } else if (errno == EEXIST) {
        semId = semget(key, 0, 0);
    }
}

LSystemLockMutex::~LSystemLockMutex() {
    if (semId != -1)
        semctl(semId, 0, IPC_RMID);
}

bool LSystemLockMutex::Lock(unsigned int timeoutMs) {
    unsigned int remaining = timeoutMs;
    for (;;) {
        if (SemaphoreOperation(semId, -1, SEM_UNDO | IPC_NOWAIT))
            return true;
        if (errno != EAGAIN)
            return false;
        Sleep(10);
        if (remaining <= 10)
            return false;
        remaining -= 10;
    }
}

void LSystemLockMutex::LockForever() {
    if (semId == -1)
        return;
    // A blocking semop is never restarted after a signal handler, so EINTR is retried too.
    while (!SemaphoreOperation(semId, -1, SEM_UNDO) && (errno == EAGAIN || errno == EINTR)) {
    }
}

void LSystemLockMutex::Unlock() {
    // Value above 0 and last touched by this process: this process already gave it back.
    if (semctl(semId, 0, GETVAL) > 0 && semctl(semId, 0, GETPID) == getpid())
        return;
    if (SemaphoreOperation(semId, 1, SEM_UNDO))
        semId = -1;
}

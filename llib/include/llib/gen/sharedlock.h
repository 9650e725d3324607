// Two locks beside the recursive LLockObject: a readers/writer lock inside one process, and a
// lock shared by every process of the machine.
#pragma once

#include "llib/gen/mutex.h"
#include "llib/gen/signalobject.h"

#include <atomic>
#include <sys/types.h>

// Readers/writer lock: many shared holders or one exclusive holder. A shared holder can upgrade
// to exclusive and the exclusive holder can downgrade to shared. Exclusive waiters do not block
// new readers, so a steady stream of readers can delay a writer without bound; an upgrading
// reader, in contrast, keeps new readers out while it waits. Two readers must not upgrade at the
// same time (each would wait for the other's share). Not recursive for exclusive-after-shared.
class LLockObjectShared {
public:
    // Takes a shared hold; waits only while a thread holds the lock exclusively or upgrades.
    void LockShared();
    // Gives up a shared hold; the last reader out wakes an exclusive or upgrading waiter.
    void UnlockShared();
    // Takes the lock exclusively once no reader holds it; returns holding it.
    void LockExclusive();
    // Gives up an exclusive hold.
    void Unlock() { lock.Unlock(); }
    // Turns the caller's shared hold into an exclusive one, waiting for the other readers.
    void UpgradeLock();
    // Turns the caller's exclusive hold into a shared one.
    void DowngradeLock();

    // Readers currently holding the lock (for diagnostics and tests).
    int GetReaderCount() const { return readers.load(); }
    // True when the last reader has left since the lock was last taken shared.
    bool IsReaderFreeSignaled() const { return readersGone.IsSignaled(); }

private:
    LLockObject lock;
    LSignalObject readersGone; // set when the reader count falls to zero
    std::atomic<int> readers{0};
};

// A named lock shared by all processes of the machine, on a System V semaphore whose key is
// derived from the name. Not recursive. The system releases the hold of a process that dies
// (every operation uses SEM_UNDO). Meant for one use per object: construct, lock, unlock,
// destroy. After a successful Unlock the object forgets the semaphore (it stays for the next
// user): further Lock calls fail, LockForever returns at once and Unlock does nothing. An object
// destroyed without a successful Unlock removes the semaphore from the system.
class LSystemLockMutex {
public:
    // Creates the semaphore (value 1) or opens the existing one; on failure the object holds
    // none and every lock attempt fails. name must not be null.
    explicit LSystemLockMutex(const char* name);
    ~LSystemLockMutex();
    LSystemLockMutex(const LSystemLockMutex&) = delete;
    LSystemLockMutex& operator=(const LSystemLockMutex&) = delete;

    // Tries every 10 ms until timeoutMs has passed; the last failed try is followed by one more
    // 10 ms sleep (a time-out of 0 tries once and returns after 10 ms). True when acquired.
    bool Lock(unsigned int timeoutMs);
    // Waits without a time-out; returns at once when the object holds no semaphore.
    void LockForever();
    // Releases the lock (nothing when this process did not take it, see above).
    void Unlock();

    // The key for a name: 11223, then key * 32 + each byte (taken as signed), wrapping at 32
    // bits; 0 becomes 1.
    static key_t KeyFromName(const char* name);

    key_t key;
    int semId; // -1 when the object holds no semaphore
};

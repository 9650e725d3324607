// The readers/writer lock with real threads, and the machine-wide lock across real processes,
// including a holder that dies.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>
#include <atomic>
#include <string>
#include <thread>

#include "llib/gen/sharedlock.h"
#include "support/elapsed.h"
#include "support/process.h"

namespace {

TEST(SharedLock, ReadersShareAndTheLastOneLetsTheWriterIn) {
    LLockObjectShared lock;
    lock.LockShared();
    lock.LockShared(); // readers never wait for each other
    EXPECT_EQ(2, lock.GetReaderCount());
    lock.UnlockShared();
    std::atomic<pid_t> writerId{0};
    std::atomic<bool> writing{false};
    std::thread writer([&] {
        writerId = CurrentThreadId();
        lock.LockExclusive();
        writing = true;
        lock.Unlock();
    });
    while (writerId == 0)
        std::this_thread::yield();
    ASSERT_TRUE(WaitUntilAsleep(writerId, [&] { return writing.load(); }));
    EXPECT_FALSE(writing) << "one reader is still in";
    lock.UnlockShared();
    writer.join();
    EXPECT_TRUE(writing);
    EXPECT_EQ(0, lock.GetReaderCount());
}

TEST(SharedLock, UpgradeWaitsForOtherReadersAndKeepsNewOnesOut) {
    LLockObjectShared lock;
    lock.LockShared(); // the other reader
    const pid_t mainId = CurrentThreadId();
    std::atomic<pid_t> upgraderId{0};
    std::atomic<int> stage{0};
    std::atomic<bool> readerComing{false}, readerIn{false};
    std::thread upgrader([&] {
        upgraderId = CurrentThreadId();
        lock.LockShared();
        lock.UpgradeLock();
        stage = 1; // exclusive now, and kept until the new reader below waits
        while (!readerComing)
            std::this_thread::yield();
        WaitUntilAsleep(mainId, [&] { return readerIn.load(); });
        stage = 2; // set while still exclusive, so a reader let in by the downgrade sees it
        lock.DowngradeLock();
        lock.UnlockShared();
    });
    while (upgraderId == 0)
        std::this_thread::yield();
    ASSERT_TRUE(WaitUntilAsleep(upgraderId, [&] { return stage > 0; }));
    EXPECT_EQ(0, stage.load()) << "waits for the other reader";
    lock.UnlockShared();
    while (stage == 0)
        std::this_thread::yield();
    // While the upgrader holds the lock, a new reader waits.
    readerComing = true;
    lock.LockShared();
    readerIn = true;
    EXPECT_EQ(2, stage.load());
    lock.UnlockShared();
    upgrader.join();
    EXPECT_EQ(0, lock.GetReaderCount());
    EXPECT_TRUE(lock.IsReaderFreeSignaled()) << "downgrade then unlock leaves it free";
}

TEST(SharedLock, ManyReadersAndWritersKeepACounterConsistent) {
    LLockObjectShared lock;
    long value = 0, readsSeen = 0;
    std::atomic<bool> torn{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                if (t % 2 == 0) {
                    lock.LockExclusive();
                    ++value;
                    ++value;
                    lock.Unlock();
                } else {
                    lock.LockShared();
                    if (value % 2 != 0)
                        torn = true;
                    __atomic_add_fetch(&readsSeen, 1, __ATOMIC_RELAXED);
                    lock.UnlockShared();
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(torn);
    EXPECT_EQ(2 * 2 * 2000, value);
    EXPECT_EQ(2 * 2000, readsSeen);
}

// A unique name per run, so tests never meet a semaphore left by another run.
std::string UniqueName(const char* what) {
    return std::string("tavix-test-") + what + "-" + std::to_string(getpid());
}

TEST(SystemLock, ANameIsOneLockForEveryHolderAndOtherNamesAreOthers) {
    // Key 0 would make a private semaphore that excludes nobody.
    EXPECT_NE(IPC_PRIVATE, LSystemLockMutex::KeyFromName("\x01\xe0\x01\xe0\x01\xe0\x01\xe0"));
    const std::string name = UniqueName("names");
    LSystemLockMutex holder(name.c_str()), same(name.c_str()), other((name + "x").c_str());
    ASSERT_TRUE(holder.Lock(0));
    EXPECT_FALSE(same.Lock(0)) << "not recursive, not even within its own process";
    EXPECT_TRUE(other.Lock(0));
    // Destroyed without an unlock, each removes its semaphore.
}

TEST(SystemLock, ExcludesOtherProcessesAndIsFreedWhenTheHolderDies) {
    const std::string name = UniqueName("dies");
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t holder = StartChild([&] {
        LSystemLockMutex lock(name.c_str());
        if (!lock.Lock(1000))
            _exit(1);
        char byte = 1;
        (void)!write(ready[1], &byte, 1);
        pause(); // holds the lock until killed
    });
    char byte = 0;
    ASSERT_EQ(1, read(ready[0], &byte, 1));

    LSystemLockMutex lock(name.c_str());
    ASSERT_NE(-1, lock.semId);
    auto start = Clock::now();
    EXPECT_FALSE(lock.Lock(0)) << "held by the other process";
    EXPECT_GE(MillisecondsSince(start), 9) << "one try, then one 10 ms sleep";
    start = Clock::now();
    EXPECT_FALSE(lock.Lock(25));
    EXPECT_GE(MillisecondsSince(start), 29);

    kill(holder, SIGKILL);
    EXPECT_EQ(-SIGKILL, WaitForChild(holder));
    EXPECT_TRUE(lock.Lock(1000)) << "the system released the dead holder's lock";
    lock.Unlock();
    EXPECT_FALSE(lock.Lock(0)) << "a released object forgets the semaphore";
    lock.LockForever(); // returns at once
    lock.Unlock();      // does nothing

    // The semaphore stays for the next user, who removes it by not unlocking.
    {
        LSystemLockMutex last(name.c_str());
        EXPECT_TRUE(last.Lock(100));
    }
    close(ready[0]);
    close(ready[1]);
}

TEST(SystemLock, SerialisesWorkAcrossProcesses) {
    const std::string name = UniqueName("serial");
    char path[] = "/tmp/tavix-systemlock-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    // Each child appends "<" and ">" around a pause inside the lock; interleaving would show.
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i)
        children.push_back(StartChild([&] {
            LSystemLockMutex lock(name.c_str());
            lock.LockForever();
            FILE* file = fopen(path, "a");
            fputc('<', file);
            fflush(file);
            usleep(20000);
            fputc('>', file);
            fclose(file);
            lock.Unlock();
        }));
    for (pid_t child : children)
        EXPECT_EQ(0, WaitForChild(child));
    FILE* file = fopen(path, "r");
    char text[16] = {};
    ASSERT_NE(nullptr, fgets(text, sizeof text, file));
    fclose(file);
    unlink(path);
    EXPECT_STREQ("<><><>", text);
    // Clean up the semaphore the children left for the next user.
    LSystemLockMutex cleanup(name.c_str());
}

} // namespace

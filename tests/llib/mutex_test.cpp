#include "llib/gen/mutex.h"
#include "support/elapsed.h"
#include "support/process.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>

TEST(RecursiveLock, SameThreadLocksAgainAndFreesAfterAsManyUnlocks) {
    LLockObject lock;
    lock.Lock();
    lock.Lock();
    lock.Unlock();
    // Still held once: another thread cannot take it.
    std::atomic<int> tried{-1};
    std::thread([&] { tried = pthread_mutex_trylock(&lock.mutex); }).join();
    EXPECT_EQ(EBUSY, tried.load());
    lock.Unlock();
    std::thread([&] {
        tried = pthread_mutex_trylock(&lock.mutex);
        if (tried == 0)
            lock.Unlock();
    }).join();
    EXPECT_EQ(0, tried.load());
}

TEST(RecursiveLock, SerialisesThreads) {
    LLockObject lock;
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            LLockObjectLocker outer(lock);
            LLockObjectLocker inner(lock);
            ++counter;
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(40000, counter);
}

namespace {
void IgnoreAlarm(int) {}
} // namespace

TEST(Sleep, SleepsTheWholeTimeEvenWhenInterrupted) {
    struct sigaction action {};
    action.sa_handler = IgnoreAlarm;
    struct sigaction previous {};
    sigaction(SIGALRM, &action, &previous);
    const auto begin = Clock::now();
    {
        Interrupter interrupter(SIGALRM);
        Sleep(500);
    }
    const double elapsed = MillisecondsSince(begin);
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_GE(elapsed, 495);
}

#include "llib/gen/signalobject.h"
#include "support/elapsed.h"
#include "support/process.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Signals once the calling thread sleeps, so that it is signalled during its wait.
std::thread SignalDuringTheWait(LSignalObjectRef signal) {
    return std::thread([signal, waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        signal.Signal();
    });
}

} // namespace

TEST(SignalObject, IsLevelTriggeredManualResetAndNeverBlocksOnAFullPipe) {
    LSignalObject signal;
    for (int fd : signal.filedes) {
        ASSERT_GE(fd, 0);
        EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_FALSE(signal.IsSignaled());
    for (int i = 0; i < 100000; ++i) // far more than a pipe holds
        signal.Signal();
    EXPECT_TRUE(signal.WaitSignal(0));
    EXPECT_TRUE(signal.IsSignaled()) << "a wait must not clear the object";
    signal.Reset();
    EXPECT_FALSE(signal.IsSignaled());
}

TEST(SignalObject, WaitsTimeOutOrEndWhenSignalledBeforeOrDuring) {
    LSignalObject signal;
    auto begin = Clock::now();
    EXPECT_FALSE(signal.WaitSignal(250));
    EXPECT_GE(MillisecondsSince(begin), 245);

    std::thread signaller = SignalDuringTheWait(signal);
    EXPECT_TRUE(signal.WaitSignal(0xFFFFFFFFu));
    signaller.join();
    EXPECT_TRUE(signal.WaitSignal(60000)) << "still set from before the wait";
}

TEST(SignalObject, DualAndTripleWakeOnAnyMember) {
    LSignalObject first, second, third;
    EXPECT_FALSE(first.WaitSignalDual(second, 0));
    second.Signal();
    EXPECT_TRUE(first.WaitSignalDual(second, 0));
    EXPECT_TRUE(first.WaitSignalDualForever(second));
    second.Reset();
    EXPECT_FALSE(first.WaitSignalTriple(second, third, 50));
    std::thread signaller = SignalDuringTheWait(third);
    EXPECT_TRUE(first.WaitSignalTriple(second, third, 0xFFFFFFFFu));
    signaller.join();
}

TEST(SignalObject, AnInterruptedWaitReportsTrue) {
    struct sigaction action {};
    action.sa_handler = [](int) {}; // no SA_RESTART: select fails with EINTR
    struct sigaction previous {};
    sigaction(SIGUSR1, &action, &previous);
    LSignalObject signal;
    bool woke = false;
    {
        Interrupter interrupter(SIGUSR1);
        woke = signal.WaitSignal(60000); // a wait that went on would time out and answer false
    }
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(woke);
    EXPECT_FALSE(signal.IsSignaled());
}

TEST(SignalObject, WithoutAPipeWaitsFailAndSignalDoesNothing) {
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    // Use up the descriptors so pipe() fails.
    rlimit tight = saved;
    tight.rlim_cur = 64;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    std::vector<int> hogs;
    for (int fd; (fd = dup(0)) >= 0;)
        hogs.push_back(fd);
    {
        LSignalObject broken;
        EXPECT_EQ(-1, broken.filedes[0]);
        broken.Signal();
        broken.Reset();
        EXPECT_FALSE(broken.IsSignaled());
        EXPECT_FALSE(broken.WaitSignal(10));
        EXPECT_FALSE(broken.WaitSignalDual(broken, 10));
        LSignalObjectGroup group;
        group.Add(broken);
        EXPECT_EQ(0u, group.nAdded);
    }
    for (int fd : hogs)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);
}

TEST(SignalObjectGroup, WakesOnAnyMemberAndCanBeWaitedAgain) {
    LSignalObject a, b;
    LSignalObjectGroup group;
    group.Add(a);
    group.Add(b);
    EXPECT_FALSE(group.Select(20));
    b.Signal();
    EXPECT_TRUE(group.Select(0));
    EXPECT_TRUE(group.Select(0)) << "the group must be unchanged by a wait";
    b.Reset();
    std::thread signaller = SignalDuringTheWait(a);
    EXPECT_TRUE(group.Select(0xFFFFFFFFu));
    signaller.join();

    // A descriptor added twice counts twice; adding a group merges descriptors already there.
    LSignalObjectGroup twice, copy;
    twice.Add(a);
    twice.Add(a);
    EXPECT_EQ(2u, twice.nAdded);
    copy.Add(twice);
    copy.Add(twice);
    EXPECT_EQ(2u, copy.nAdded);
    EXPECT_EQ(a.filedes[0], copy.nMaxFd);
}

TEST(SignalObjectGroup, Holds255MembersAndMergesGroupsByAscendingDescriptor) {
    std::vector<std::unique_ptr<LSignalObject>> big, small;
    for (int i = 0; i < 250; ++i)
        big.push_back(std::make_unique<LSignalObject>());
    for (int i = 0; i < 10; ++i)
        small.push_back(std::make_unique<LSignalObject>());
    ASSERT_LT(small.back()->filedes[0], FD_SETSIZE) << "test needs descriptors select can watch";
    LSignalObjectGroup direct;
    for (auto& signal : big)
        direct.Add(*signal);
    for (auto& signal : small)
        direct.Add(*signal);
    EXPECT_EQ(255u, direct.nAdded);
    small[5]->Signal();
    EXPECT_FALSE(direct.Select(0)) << "the 256th member was not added";
    small[4]->Signal();
    EXPECT_TRUE(direct.Select(0));

    LSignalObjectGroup target, source;
    for (auto& signal : big)
        target.Add(*signal);
    // Added in descending order: the group must still be walked by ascending descriptor.
    for (auto it = small.rbegin(); it != small.rend(); ++it)
        source.Add(**it);
    target.Add(source);
    EXPECT_EQ(255u, target.nAdded);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(i < 5, FD_ISSET(small[i]->filedes[0], &target.fdSet) != 0) << i;
}

// Named signal objects between two real processes, under a temporary data folder.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "llib/gen/signalobjectnamed.h"
#include "support/tempfolder.h"
#include "support/process.h"

namespace {

class NamedSignal : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = getenv("XDG_DATA_HOME");
        saved = old != nullptr ? old : "";
        setenv("XDG_DATA_HOME", temp.path.c_str(), 1);
    }
    void TearDown() override { setenv("XDG_DATA_HOME", saved.c_str(), 1); }
    bool Exists(const char* name) {
        struct stat info;
        return lstat((temp / name).c_str(), &info) == 0;
    }

    TempFolder temp{"tavix-named"};
    std::string saved;
};

// A child process that signals name every 20 ms until killed (the waiter may not be listening
// yet when it starts).
pid_t StartSignaller(const char* name) {
    return StartChild([name] {
        LSignalObjectNamed signal(name);
        for (;;) {
            signal.Signal();
            usleep(20000);
        }
    });
}

} // namespace

TEST_F(NamedSignal, AnotherProcessWakesTheWaiter) {
    LSignalObjectNamed waiter("capture-ready");
    const pid_t child = StartSignaller("capture-ready");
    ASSERT_GT(child, 0);
    EXPECT_TRUE(waiter.WaitSignal(10000));
    waiter.Reset(); // returns once the signaller has closed its end
    KillChild(child);
    EXPECT_TRUE(Exists("capture-ready")) << "the socket file lies in the data folder";
}

TEST_F(NamedSignal, TimeOutsAndStaleFilesLeaveNothingBehind) {
    {
        LSignalObjectNamed waiter("nobody");
        EXPECT_FALSE(waiter.WaitSignal(50));
        EXPECT_FALSE(Exists("nobody"));
        waiter.Signal(); // nobody listens: nothing happens
        waiter.Reset();
    }

    // A socket file left by a process that died while waiting.
    const std::string stale = temp / "stale";
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, stale.c_str(), stale.size() + 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(fd);
    ASSERT_TRUE(Exists("stale"));
    {
        LSignalObjectNamed waiter("stale");
        const pid_t child = StartSignaller("stale");
        EXPECT_TRUE(waiter.WaitSignal(10000));
        KillChild(child);
    }
    EXPECT_FALSE(Exists("stale"));

    // A name that makes the path too long for a socket address.
    LSignalObjectNamed tooLong(std::string(200, 'n').c_str());
    EXPECT_FALSE(tooLong.WaitSignal(0xFFFFFFFF));
    tooLong.Signal();
}

// A second wait on a name that is in use first checks whether the waiter is alive by connecting
// to it; that check must not count as the signal.
TEST_F(NamedSignal, CheckingAWaiterIsAliveDoesNotWakeIt) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t waiter = StartChild([&] {
        close(report[0]);
        LSignalObjectNamed named("in-use");
        const char answer = named.WaitSignal(20000) ? 'T' : 'F';
        (void)!write(report[1], &answer, 1);
    });
    ASSERT_GE(waiter, 0);
    close(report[1]);
    auto Answer = [&](int ms) {
        struct pollfd wait = {report[0], POLLIN, 0};
        char answer = 0;
        if (poll(&wait, 1, ms) == 1 && read(report[0], &answer, 1) != 1)
            answer = '?';
        return answer;
    };
    // The socket file appears before the waiter listens; it listens once it sleeps in its wait.
    ASSERT_TRUE(WaitUntilAsleep(waiter));
    ASSERT_TRUE(Exists("in-use"));

    {
        LSignalObjectNamed second("in-use");
        EXPECT_FALSE(second.WaitSignal(50)) << "the name belongs to a live waiter";
    }
    EXPECT_TRUE(Exists("in-use")) << "the live waiter's file stays";
    // A wrongly woken waiter answers at once; half a second is a wide margin.
    EXPECT_EQ(Answer(500), 0) << "the waiter still waits";

    LSignalObjectNamed("in-use").Signal();
    EXPECT_EQ(Answer(10000), 'T') << "a real signal still wakes it";
    KillChild(waiter);
    close(report[0]);
}

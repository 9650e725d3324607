// The hang detector's marker across real processes: created and held by a live process, left
// alone by a second one, cleared after a killed run, deleted at exit even after a fault.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "llib/gen/hangdetector.h"
#include "support/process.h"

namespace {

class HangDetectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        // A login name of our own, so the marker in /var/tmp belongs to this test alone.
        user = "tavix-test-" + std::to_string(getpid());
        setenv("LOGNAME", user.c_str(), 1);
        marker = "/var/tmp/_LTavix_rl_" + user;
        unlink(marker.c_str());
    }
    void TearDown() override {
        LDebugHangDetectorDestroy();
        unlink(marker.c_str());
    }
    off_t MarkerSize() const {
        struct stat info {};
        return stat(marker.c_str(), &info) == 0 ? info.st_size : -1;
    }
    bool MarkerExists() const { return MarkerSize() >= 0; }
    // A child that creates and holds the marker, then tells the parent (pipe) and waits.
    pid_t HoldingChild() {
        int ready[2];
        if (pipe(ready) != 0)
            return -1;
        const pid_t child = StartChild([&] {
            gLHangDetector.file.Close(); // not the parent's handle
            LDebugHangDetectorInit();
            const char held = gLHangDetector.file.IsValid() ? 1 : 0;
            (void)!write(ready[1], &held, 1);
            pause();
        });
        char held = 0;
        if (read(ready[0], &held, 1) != 1 || held != 1)
            ADD_FAILURE() << "the child could not create the marker";
        close(ready[0]);
        close(ready[1]);
        return child;
    }
    std::string user, marker;
};

TEST_F(HangDetectorTest, ALiveRunHoldsAnEightByteMarkerUntilShutdown) {
    LDebugHangDetectorInit();
    EXPECT_TRUE(gLHangDetector.file.IsValid());
    EXPECT_EQ(8, MarkerSize());
    LDebugHangDetectorDestroy();
    EXPECT_FALSE(MarkerExists());
    EXPECT_FALSE(gLHangDetector.file.IsValid());
}

TEST_F(HangDetectorTest, AKilledRunLeavesAMarkerTheNextRunClears) {
    KillChild(HoldingChild());
    EXPECT_TRUE(MarkerExists()) << "a killed run never reaches exit";

    LDebugHangDetectorInit();
    EXPECT_FALSE(MarkerExists()) << "stale: cleared";
    EXPECT_FALSE(gLHangDetector.file.IsValid()) << "and none is held this run";
    LDebugHangDetectorInit();
    EXPECT_TRUE(MarkerExists()) << "the run after that holds a fresh one";
    EXPECT_TRUE(gLHangDetector.file.IsValid());
}

TEST_F(HangDetectorTest, ASecondProcessLeavesALiveMarkerAlone) {
    const pid_t child = HoldingChild();
    gLHangDetector.file.Close();
    LDebugHangDetectorInit();
    EXPECT_TRUE(MarkerExists());
    EXPECT_FALSE(gLHangDetector.file.IsValid());
    gLHangDetector.szPath[0] = 0; // not ours to delete at the end of the test
    KillChild(child);
}

TEST_F(HangDetectorTest, ExitDeletesTheMarkerEvenAfterAFault) {
    for (bool fault : {false, true}) {
        const int status = ForkAndWait([fault] {
            gLHangDetector.file.Close();
            LDebugHangDetectorInit();
            if (!gLHangDetector.file.IsValid())
                _exit(3);
            if (fault) // a real fault: the crash handler ends the process through exit()
                *static_cast<volatile int*>(
                    mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
            exit(0);
        });
        ASSERT_GE(status, 0) << "ended by signal " << -status;
        EXPECT_NE(3, status);
        EXPECT_FALSE(MarkerExists()) << (fault ? "after a fault" : "after exit");
    }
}

} // namespace

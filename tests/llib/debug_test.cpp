// Diagnostics: the thread table and its tags, the status line, bug-report scopes, trace output,
// and the crash-signal handling, which is tested in child processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "llib/gen/debug.h"

namespace {

// The record of the calling thread, or null.
const LDebugThreadData* OwnRecord() {
    const unsigned int port = LDebugCurrentThreadPort();
    for (unsigned int i = 0; i < gnDebugThreads; ++i)
        if (gDebugThreadData[i].dwThreadId == port)
            return &gDebugThreadData[i];
    return nullptr;
}

std::string DefaultTag(unsigned int port) {
    char tag[8];
    snprintf(tag, sizeof tag, "%.4u", port % 10000);
    return tag;
}

std::string NamedTag(const char* name, unsigned int port) {
    char tag[8];
    snprintf(tag, sizeof tag, "%.4s%u%u%u", name, port % 10, port % 100 / 10, port % 1000 / 100);
    return tag;
}

// Threads that enter the table, then wait until released, then leave it.
class Crew {
public:
    void Enter(int count) {
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this] {
                LDebugThreadDataStartThread(nullptr);
                ++entered;
                while (!released)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                LDebugThreadDataStopThread();
            });
        while (entered < count)
            std::this_thread::yield();
    }
    ~Crew() {
        released = true;
        for (std::thread& thread : threads)
            thread.join();
    }

private:
    std::vector<std::thread> threads;
    std::atomic<int> entered{0};
    std::atomic<bool> released{false};
};

void OnOwnThread(const std::function<void()>& body) {
    std::thread thread(body);
    thread.join();
}

TEST(DebugThreads, TagsAndRecordsOfOneThread) {
    OnOwnThread([] {
        const unsigned int port = LDebugCurrentThreadPort();
        LDebugThreadDataStartThread(nullptr);
        ASSERT_NE(nullptr, OwnRecord());
        EXPECT_EQ(DefaultTag(port), OwnRecord()->szTag);

        LDebugThreadSetName("LTCPListener");
        EXPECT_EQ(NamedTag("LTCP", port), OwnRecord()->szTag);
        LDebugThreadSetLastDialog("Preferences");
        EXPECT_EQ("Preferences" + NamedTag("", port), OwnRecord()->szLastDialog);
        LDebugThreadSetLastDialog(std::string(100, 'd').c_str());
        EXPECT_EQ(31u, strlen(OwnRecord()->szLastDialog)) << "cut to the field";
        LDebugThreadDataStopThread();
        EXPECT_EQ(nullptr, OwnRecord());

        LDebugThreadDataStartThread("Worker");
        EXPECT_STREQ("Work", OwnRecord()->szTag);
        {
            LBugReportBlockScope save("Save");
            EXPECT_EQ(NamedTag("Save", port), OwnRecord()->szTag);
            {
                LBugReportBlockScope inner("Load");
                EXPECT_EQ(NamedTag("Load", port), OwnRecord()->szTag);
            }
            EXPECT_EQ(NamedTag("Save", port), OwnRecord()->szTag);
        }
        EXPECT_STREQ("Work", OwnRecord()->szTag);
        LDebugThreadDataStopThread();
    });
    // A thread that is not in the table changes nothing.
    OnOwnThread([] {
        const unsigned int before = gnDebugThreads;
        LDebugThreadSetName("Ghost");
        LDebugThreadSetLastDialog("Ghost");
        LBugReportBlockScope scope("Ghost");
        EXPECT_EQ(0xFFFFFFFFu, scope.nIndex);
        LDebugThreadDataStopThread();
        EXPECT_EQ(before, gnDebugThreads);
    });
}

TEST(DebugThreads, SixtyFourRecordsAreReusedAndTrimmedFromTheEnd) {
    ASSERT_EQ(0u, gnDebugThreads);
    {
        Crew crew;
        crew.Enter(64);
        EXPECT_EQ(64u, gnDebugThreads);
        OnOwnThread([] {
            LDebugThreadDataStartThread("Late");
            EXPECT_EQ(nullptr, OwnRecord()) << "the 65th thread stays out";
        });
    }
    EXPECT_EQ(0u, gnDebugThreads) << "all left: trimmed to nothing";

    // A, B, C: B leaving frees record 1 and keeps the count; a newcomer reuses record 1.
    std::atomic<int> entered{0}, leave{-1}; // leave: which thread may leave now (3: all)
    std::atomic<bool> bGone{false};
    std::vector<std::thread> abc;
    for (int i = 0; i < 3; ++i) {
        abc.emplace_back([&, i] {
            LDebugThreadDataStartThread(nullptr);
            ++entered;
            while (leave != i && leave != 3)
                std::this_thread::yield();
            LDebugThreadDataStopThread();
            if (i == 1)
                bGone = true;
        });
        while (entered < i + 1) // in order: records 0, 1, 2
            std::this_thread::yield();
    }
    leave = 1;
    while (!bGone)
        std::this_thread::yield();
    EXPECT_EQ(3u, gnDebugThreads);
    EXPECT_EQ(0xFFFFFFFFu, gDebugThreadData[1].dwThreadId);
    OnOwnThread([] {
        LDebugThreadDataStartThread("Reuse");
        EXPECT_EQ(&gDebugThreadData[1], OwnRecord());
        LDebugThreadDataStopThread();
    });
    leave = 3;
    for (std::thread& thread : abc)
        thread.join();
    EXPECT_EQ(0u, gnDebugThreads);
}

TEST(DebugStatus, OnlyItsOwnerClearsTheStatusLineAndTracesAreCut) {
    LDebugThreadStatusSet(std::string(400, 's').c_str());
    EXPECT_EQ(259u, strlen(debugAS.szStatus));
    EXPECT_EQ(LDebugCurrentThreadPort(), debugAS.dwThreadId);
    OnOwnThread([] { LDebugThreadStatusClear(); });
    EXPECT_EQ(LDebugCurrentThreadPort(), debugAS.dwThreadId) << "another thread cannot clear it";
    LDebugThreadStatusClear();
    EXPECT_EQ(0u, debugAS.dwThreadId);

    EXPECT_EQ(1u, gwDebugCurrentCommand);
    EXPECT_EQ(0u, gwDebugLastCommand);
    EXPECT_EQ(static_cast<unsigned int>(getpid()), gdwMainThreadId)
        << "the loading thread is the main thread";
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, OutputDebugStringF("%s %d", "trace", 42));
    OutputDebugStringF("%s", std::string(600, 'x').c_str());
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ("trace 42" + std::string(511, 'x'), written) << "no newline; cut to 511";
}

std::string Identity(const char* first, const char* second) {
    char line[260];
    LDebugGenerateXIString(line, first, second);
    return line;
}

TEST(DebugIdentity, NamesThePlatformTheThreadAndWhatItDoes) {
    ASSERT_EQ(gdwMainThreadId, LDebugCurrentThreadPort()) << "tests run on the main thread";
    EXPECT_EQ("X1-MacIntel1068-Y2-UnknownGloIni1", Identity("X1", "Y2"));
    gwDebugCurrentCommand = 0;
    gwDebugLastCommand = 17;
    EXPECT_EQ("a-MacIntel1068-b-UnknownUkn0(LstCmd17)", Identity("a", "b"));
    gwDebugCurrentCommand = 250;
    EXPECT_EQ("a-MacIntel1068-b-Unknown(Cmd250)", Identity("a", "b"));
    gwDebugCurrentCommand = 1;
    gwDebugLastCommand = 0;
    EXPECT_EQ(259u, Identity(std::string(300, 'l').c_str(), "b").size());

    OnOwnThread([] {
        LDebugThreadDataStartThread(nullptr);
        if (OwnRecord()->szTag[0] < '0' || OwnRecord()->szTag[0] > '9')
            FAIL() << "a default tag is numeric";
        LDebugThreadSetLastDialog("Options");
        const std::string dialog = OwnRecord()->szLastDialog; // "Options" and three digits
        EXPECT_EQ("a-MacIntel1068-b-" + dialog, Identity("a", "b")) << "no tag, no activity";

        LDebugThreadSetName("Save");
        LDebugThreadStatusSet("Saving");
        EXPECT_EQ("a-MacIntel1068-b-" + std::string(OwnRecord()->szTag) + dialog + "Saving",
                  Identity("a", "b"));
        LDebugThreadStatusClear();
        LDebugThreadDataStopThread();
    });
}

// Signals, in child processes.

int ExitStatusOf(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// A real memory fault: a store into a page that may not be touched (not a null pointer, which
// the undefined-behaviour checker would catch first).
void Fault() {
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}

TEST(CrashSignals, QuitIsSwallowedAndPipeIgnored) {
    EXPECT_EQ(3, ExitStatusOf([] {
                  raise(SIGQUIT);
                  _exit(bLLibExceptionAlreadyTrapped == 1 ? 3 : 4);
              }));
    EXPECT_EQ(5, ExitStatusOf([] {
                  int ends[2];
                  if (pipe(ends) != 0)
                      _exit(1);
                  close(ends[0]);
                  const ssize_t written = write(ends[1], "x", 1);
                  _exit(written < 0 && errno == EPIPE ? 5 : 6);
              }));
}

// exit(666) reaches the parent as 666 & 0xFF, the 8 bits an exit status keeps.
TEST(CrashSignals, AFaultEndsTheProcessThroughExitSoExitHandlersRun) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    static int reportTo;
    reportTo = ends[1];
    EXPECT_EQ(666 & 0xFF, ExitStatusOf([] {
                  atexit([] { (void)!write(reportTo, "x", 1); });
                  Fault(); // SIGSEGV
              }));
    close(ends[1]); // so the read below ends when the child wrote nothing
    char byte = 0;
    EXPECT_EQ(1, read(ends[0], &byte, 1)) << "the exit handler ran";
    close(ends[0]);
    EXPECT_EQ(666 & 0xFF, ExitStatusOf([] { raise(SIGFPE); }));
    EXPECT_EQ(666 & 0xFF, ExitStatusOf([] { raise(SIGBUS); }));
}

TEST(CrashSignals, OnlyTheFirstSignalIsActedOnAndAFaultNeverSpins) {
    // After a swallowed SIGQUIT, a real fault is not trapped again: the process dies of it
    // instead of repeating the faulting instruction for ever.
    EXPECT_EQ(1000 + SIGSEGV, ExitStatusOf([] {
                  raise(SIGQUIT);
                  Fault();
              }));
    // SIGILL is trapped but not in the exit set: the faulting instruction repeats once and the
    // second fault ends the process.
    EXPECT_EQ(1000 + SIGILL, ExitStatusOf([] { __builtin_trap(); }));
}

} // namespace

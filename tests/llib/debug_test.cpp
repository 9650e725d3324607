// Diagnostics: the thread table and its tags, the status line, bug-report scopes, trace output,
// and the crash-signal handling, which is tested in child processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "llib/gen/debug.h"
#include "support/process.h"

namespace {

std::string Identity(const char* first, const char* second) {
    char line[260];
    LDebugGenerateXIString(line, first, second);
    return line;
}

// What the identity line says of the calling thread: all that follows "a-MacIntel1068-b-".
std::string Tail() {
    const std::string text = Identity("a", "b"), head = "a-MacIntel1068-b-";
    return text.compare(0, head.size(), head) == 0 ? text.substr(head.size()) : "?" + text;
}

void OnOwnThread(const std::function<void()>& body) {
    std::thread thread(body);
    thread.join();
}

// Threads that enter the table and stay until let go, the first ones first.
class Crew {
public:
    explicit Crew(int count) {
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this, i] {
                LDebugThreadDataStartThread(nullptr);
                ++entered;
                while (i >= leaving)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                LDebugThreadDataStopThread();
                ++left;
            });
        while (entered < count)
            std::this_thread::yield();
    }
    void LetGo(int count) {
        leaving = count;
        while (left < count)
            std::this_thread::yield();
    }
    ~Crew() {
        LetGo(static_cast<int>(threads.size()));
        for (std::thread& thread : threads)
            thread.join();
    }

private:
    std::vector<std::thread> threads;
    std::atomic<int> entered{0}, leaving{0}, left{0};
};

TEST(DebugThreads, TagDialogAndStatusDescribeTheirOwnThread) {
    OnOwnThread([] {
        EXPECT_EQ("Unknown", Tail()) << "not in the table";
        LDebugThreadDataStartThread(nullptr);
        EXPECT_EQ("", Tail()) << "a numbered thread has no name to show";
        LDebugThreadSetLastDialog("Preferences");
        const std::string dialog = Tail();
        ASSERT_EQ(14u, dialog.size()) << dialog;
        // A name or dialog is followed by the units, tens and hundreds digits of the thread.
        const std::string digits = dialog.substr(11);
        const unsigned int port = LDebugCurrentThreadPort();
        EXPECT_EQ(std::to_string(port % 10) + std::to_string(port / 10 % 10) +
                      std::to_string(port / 100 % 10),
                  digits);
        LDebugThreadSetName("LTCPListener");
        EXPECT_EQ("LTCP" + digits + dialog, Tail());
        LDebugThreadStatusSet("Saving");
        EXPECT_EQ("LTCP" + digits + dialog + "Saving", Tail());
        LDebugThreadStatusClear();
        LDebugThreadSetLastDialog(std::string(100, 'd').c_str());
        EXPECT_EQ("LTCP" + digits + std::string(31, 'd'), Tail()) << "cut to the field";
        LDebugThreadDataStopThread();
        EXPECT_EQ("Unknown", Tail());

        LDebugThreadDataStartThread("Worker");
        EXPECT_EQ("Work", Tail());
        {
            LBugReportBlockScope save("Save");
            EXPECT_EQ("Save" + digits, Tail());
            {
                LBugReportBlockScope inner("Load");
                EXPECT_EQ("Load" + digits, Tail());
            }
            EXPECT_EQ("Save" + digits, Tail());
        }
        EXPECT_EQ("Work", Tail());
        LDebugThreadDataStopThread();

        // Out of the table, nothing puts the thread back.
        LDebugThreadSetName("Ghost");
        LDebugThreadSetLastDialog("Ghost");
        LBugReportBlockScope scope("Ghost");
        LDebugThreadDataStopThread();
        EXPECT_EQ("Unknown", Tail());
    });
}

TEST(DebugThreads, SixtyFourThreadsFitAndOneLeavingMakesRoom) {
    std::string late, next;
    {
        Crew crew(64);
        OnOwnThread([&] {
            LDebugThreadDataStartThread("Late");
            late = Tail();
        });
        crew.LetGo(1);
        OnOwnThread([&] {
            LDebugThreadDataStartThread("Next");
            next = Tail();
            LDebugThreadDataStopThread();
        });
    }
    EXPECT_EQ("Unknown", late) << "the 65th thread stays out";
    EXPECT_EQ("Next", next) << "the record the first thread left is taken again";
}

TEST(DebugStatus, OnlyItsOwnerClearsTheStatusLineAndTracesAreCut) {
    LDebugThreadStatusSet(std::string(400, 's').c_str());
    EXPECT_EQ(259u, strlen(debugAS.szStatus));
    LDebugThreadStatusSet("Saving");
    EXPECT_EQ("UnknownSaving", Tail());
    OnOwnThread([] {
        EXPECT_EQ("Unknown", Tail()) << "the status belongs to the thread that set it";
        LDebugThreadStatusClear();
    });
    EXPECT_EQ("UnknownSaving", Tail()) << "another thread cannot clear it";
    LDebugThreadStatusClear();
    EXPECT_EQ("UnknownGloIni1", Tail());

    testing::internal::CaptureStderr();
    EXPECT_EQ(0, OutputDebugStringF("%s %d", "trace", 42));
    OutputDebugStringF("%s", std::string(600, 'x').c_str());
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ("trace 42" + std::string(511, 'x'), written) << "no newline; cut to 511";
}

TEST(DebugIdentity, NamesThePlatformAndWhatTheMainThreadDoes) {
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
}

// Signals, in child processes.

// A real memory fault: a store into a page that may not be touched (not a null pointer, which
// the undefined-behaviour checker would catch first).
void Fault() {
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}

// exit(666) reaches the parent as 666 & 0xFF, the 8 bits an exit status keeps. That exit() (not
// _exit) ends it, running the exit handlers, shows in the hang detector's test: its marker goes.
TEST(CrashSignals, AFaultEndsTheProcessThroughExit) {
    EXPECT_EQ(666 & 0xFF, ForkAndWait([] { Fault(); })); // SIGSEGV
    EXPECT_EQ(666 & 0xFF, ForkAndWait([] { raise(SIGFPE); }));
    EXPECT_EQ(666 & 0xFF, ForkAndWait([] { raise(SIGBUS); }));
}

TEST(CrashSignals, OnlyTheFirstSignalIsActedOnAndAFaultNeverSpins) {
    // SIGQUIT is swallowed (the process lives on), and after it a real fault is not trapped
    // again: the process dies of it instead of repeating the faulting instruction for ever.
    EXPECT_EQ(-SIGSEGV, ForkAndWait([] {
        raise(SIGQUIT);
        Fault();
    }));
    // SIGILL is trapped but not in the exit set: the faulting instruction repeats once and the
    // second fault ends the process.
    EXPECT_EQ(-SIGILL, ForkAndWait([] { __builtin_trap(); }));
}

} // namespace

// Every way the library starts another program gives it the signal state a program expects at
// its start: SIGPIPE at its default action (this process ignores it) and no signal blocked.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "llib/gen/processrun.h"
#include "llib/mac/cfutils.h"
#include "llib/unix/commands.h"
#include "support/tempfolder.h"

namespace {

// Prints the process's ignored and blocked signal sets: the command the shell entry points run.
const std::string kReport = "grep -E '^(SigIgn|SigBlk)' /proc/self/status";

// What is wrong with the signal state a child reported; empty when it is clean.
std::string Problems(const std::string& report) {
    auto Mask = [&](const char* key) -> long long {
        const size_t at = report.find(key);
        return at == std::string::npos ? -1
                                       : strtoll(report.c_str() + at + strlen(key), nullptr, 16);
    };
    const long long ignored = Mask("SigIgn:"), blocked = Mask("SigBlk:");
    if (ignored < 0 || blocked < 0)
        return "no report: \"" + report + "\"";
    std::string problems;
    if ((ignored & (1LL << (SIGPIPE - 1))) != 0)
        problems += "SIGPIPE ignored; ";
    if (blocked != 0)
        problems += "signals blocked; ";
    return problems;
}

class ChildProcess : public ::testing::Test {
protected:
    // The library ignores SIGPIPE at load; a host thread may well block signals of its own.
    void SetUp() override {
        ASSERT_FALSE(temp.path.empty());
        struct sigaction current {};
        sigaction(SIGPIPE, nullptr, &current);
        ASSERT_EQ(current.sa_handler, SIG_IGN) << "the library's own set-up";
        sigset_t block;
        sigemptyset(&block);
        sigaddset(&block, SIGUSR2);
        pthread_sigmask(SIG_BLOCK, &block, &saved);
    }
    void TearDown() override {
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        gLPrivilegeLauncher = "pkexec";
        gLOpenLauncher = "xdg-open";
        gLRevealLauncher = "gdbus";
    }
    // A program that writes the report of its own start into its log. It is run directly, not
    // through a shell (the shell clears the blocked set itself), so it sees both sets as its
    // parent left them.
    std::string ReportingProgram(const std::string& name) {
        const std::string path = temp / name;
        std::ofstream(path) << "#!/usr/bin/perl\n"
                            << "open(my $in, '<', '/proc/self/status') or die;\n"
                            << "open(my $out, '>', '" << path << ".log') or die;\n"
                            << "print $out grep { /^Sig(Ign|Blk):/ } <$in>;\n";
        chmod(path.c_str(), 0755);
        return path;
    }

    TempFolder temp{"tavix-child"};
    const std::string log = temp / "report";
    sigset_t saved;
};

// Runs scenario in a child process of its own (with its own process group, so that whatever it
// starts can be ended too); true when it finished within the time. A generous limit: a scenario
// that hangs never finishes at all.
bool FinishesInTime(const std::function<void()>& scenario) {
    int done[2];
    if (pipe(done) != 0)
        return false;
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        close(done[0]);
        scenario();
        (void)!write(done[1], "x", 1);
        _exit(0);
    }
    close(done[1]);
    struct pollfd wait = {done[0], POLLIN, 0};
    char byte = 0;
    const bool finished = poll(&wait, 1, 20000) == 1 && read(done[0], &byte, 1) == 1;
    close(done[0]);
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return finished;
}

} // namespace

TEST_F(ChildProcess, EveryEntryPointStartsItsChildWithCleanSignals) {
    EXPECT_TRUE(RunCommandLineProcess((kReport + " > '" + log + "'").c_str()));
    EXPECT_EQ("", Problems(ReadFile(log))) << "RunCommandLineProcess";

    {
        LPipeIn in;
        ASSERT_TRUE(in._Open(kReport.c_str()));
        char buffer[512];
        const size_t got = in.Read(buffer, sizeof buffer);
        EXPECT_EQ(0, in.Close());
        EXPECT_EQ("", Problems(std::string(buffer, got))) << "LPipeIn";
    }
    {
        LPipeOut out;
        ASSERT_TRUE(out._Open((kReport + " > '" + log + "2'").c_str()));
        EXPECT_EQ(0, out.Close());
        EXPECT_EQ("", Problems(ReadFile(log + "2"))) << "LPipeOut";
    }
    {
        LPipeInOut both;
        ASSERT_TRUE(both._Open(kReport.c_str(), 0, 0));
        both.CloseWrite();
        std::string report;
        char buffer[512];
        for (ssize_t got; (got = both.Read(buffer, sizeof buffer)) > 0;)
            report.append(buffer, static_cast<size_t>(got));
        EXPECT_EQ(0, both.Close());
        EXPECT_EQ("", Problems(report)) << "LPipeInOut";
    }

    ProcessRunData* run = new ProcessRunData;
    run->Command = (kReport + " > '" + log + "3'").c_str();
    run->ReleaseSignal.Signal(); // the worker deletes the data when it is done
    ProcessRunThreadCallback(run);
    EXPECT_EQ("", Problems(ReadFile(log + "3"))) << "ProcessRunThreadCallback";

    // "env" runs the tool as the privilege launcher would once authorised.
    gLPrivilegeLauncher = "env";
    const std::string tool = ReportingProgram("tool");
    EXPECT_TRUE(
        LRunCommandWithPrivilege(tool.c_str(), static_cast<const char* const*>(nullptr), false));
    EXPECT_EQ("", Problems(ReadFile(tool + ".log"))) << "LRunCommandWithPrivilege";

    const std::string opener = ReportingProgram("opener");
    const std::string revealer = ReportingProgram("revealer");
    gLOpenLauncher = opener.c_str();
    gLRevealLauncher = revealer.c_str();
    EXPECT_TRUE(LOpenFile(temp.path.c_str()));
    EXPECT_EQ("", Problems(ReadFile(opener + ".log"))) << "the open launcher";
    LRevealInFinder(opener.c_str());
    EXPECT_EQ("", Problems(ReadFile(revealer + ".log"))) << "the reveal launcher";
}

// A command that writes forever ends once the parent stops reading: SIGPIPE ends it, as it
// would under a shell. The shell loop ignores its write errors, so nothing else could.
TEST_F(ChildProcess, AnEndlessWriterEndsWhenThePipeIsClosed) {
    for (const char* command : {"yes", "while :; do echo y; done 2>/dev/null"}) {
        EXPECT_TRUE(FinishesInTime([command] {
            LPipeIn in;
            char buffer[64];
            if (in._Open(command) && in.Read(buffer, sizeof buffer) == sizeof buffer)
                in.Close();
        })) << "LPipeIn of "
            << command;
        EXPECT_TRUE(FinishesInTime([command] {
            LPipeInOut both;
            char buffer[64];
            if (both._Open(command, 0, 0) && both.Read(buffer, sizeof buffer) > 0)
                both.Close();
        })) << "LPipeInOut of "
            << command;
    }
}

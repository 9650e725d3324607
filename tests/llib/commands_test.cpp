// Running other programs: exit statuses, the three pipes, and privileged execution with a
// stand-in launcher (the real one asks a person for a password).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "support/tempfolder.h"
#include "llib/unix/commands.h"

namespace {

class CommandsTest : public ::testing::Test {
protected:
    void TearDown() override { gLPrivilegeLauncher = "pkexec"; }
    TempFolder temp{"tavix-commands"};
    std::string folder = temp.path;
};

TEST_F(CommandsTest, ACommandSucceedsOnlyWithExitStatusZero) {
    EXPECT_TRUE(RunCommandLineProcess("true"));
    EXPECT_FALSE(RunCommandLineProcess("exit 3"));
    EXPECT_FALSE(RunCommandLineProcess("kill -9 $$")) << "ended by a signal";
    EXPECT_FALSE(RunCommandLineProcess("no-such-program-tavix 2>/dev/null"));
    EXPECT_FALSE(RunCommandLineProcess(nullptr));
}

TEST_F(CommandsTest, OneWayPipesReadAndWriteACommand) {
    LPipeIn in;
    ASSERT_TRUE(in._Open("printf 'one\\ntwo\\n'"));
    EXPECT_NE(0, fcntl(in.hFile, F_GETFD) & FD_CLOEXEC) << "later children do not inherit it";
    char buffer[64] = {};
    const size_t got = in.Read(buffer, sizeof buffer - 1);
    EXPECT_EQ("one\ntwo\n", std::string(buffer, got));
    EXPECT_EQ(0, in.Close());
    EXPECT_EQ(-1, in.hFile);

    LPipeOut out;
    const std::string path = folder + "/written";
    ASSERT_TRUE(out._Open(("cat > '" + path + "'").c_str()));
    EXPECT_TRUE(out.Write("through the pipe", 16));
    out.Close();
    EXPECT_EQ("through the pipe", ReadFile(path));
}

TEST_F(CommandsTest, ATwoWayPipeFeedsAChildAndReadsItsAnswer) {
    LPipeInOut cat;
    ASSERT_TRUE(cat._Open("cat", 0, 0));
    ASSERT_EQ(5, cat.Write("hello", 5));
    char buffer[16] = {};
    EXPECT_EQ(5, cat.Read(buffer, sizeof buffer));
    EXPECT_STREQ("hello", buffer);
    cat.CloseWrite();
    EXPECT_EQ(0, cat.Read(buffer, sizeof buffer)) << "cat ends when its input does";
    EXPECT_EQ(0, cat.Close()) << "the wait status of a clean exit";
    EXPECT_EQ(-1, cat.Close()) << "nothing left to wait for";
}

TEST_F(CommandsTest, PrivilegedRunsSplitTheCommandLineAndReportTheLauncher) {
    EXPECT_FALSE(LRunCommandWithPrivilege("", true)) << "no tool: nobody is asked";
    EXPECT_FALSE(LRunCommandWithPrivilege(static_cast<const char*>(nullptr),
                                          static_cast<const char* const*>(nullptr), false));

    // "env" runs the tool as pkexec would once authorised, without asking anyone.
    gLPrivilegeLauncher = "env";
    const std::string target = folder + "/a b";
    EXPECT_TRUE(LRunCommandWithPrivilege(("/usr/bin/touch \"" + target + "\"").c_str(), false));
    struct stat info {};
    EXPECT_EQ(0, stat(target.c_str(), &info)) << "one argument with a space in it";
    const std::string escaped = folder + "/c\\ d";
    EXPECT_TRUE(LRunCommandWithPrivilege(("/usr/bin/touch " + escaped).c_str(), false));
    EXPECT_EQ(0, stat((folder + "/c d").c_str(), &info));

    const char* arguments[] = {"-c", "echo echoed", nullptr};
    testing::internal::CaptureStdout();
    EXPECT_TRUE(LRunCommandWithPrivilege("/bin/sh", arguments, true));
    EXPECT_EQ("echoed\n", testing::internal::GetCapturedStdout());
    const char* failing[] = {"-c", "exit 5", nullptr};
    EXPECT_TRUE(LRunCommandWithPrivilege("/bin/sh", failing, false))
        << "the tool's own status does not count";

    // What pkexec answers for a dismissed or refused authorisation, and a missing launcher.
    gLPrivilegeLauncher = "/bin/sh";
    const char* dismissed[] = {"exit 126", nullptr};
    EXPECT_FALSE(LRunCommandWithPrivilege("-c", dismissed, false));
    gLPrivilegeLauncher = "no-such-launcher-tavix";
    EXPECT_FALSE(LRunCommandWithPrivilege("/usr/bin/true", arguments, false));
}

} // namespace

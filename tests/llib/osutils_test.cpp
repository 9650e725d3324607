// The system, user and process questions, against this machine's real state: environment,
// groups, the process list with a real child process, resource limits.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <grp.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "llib/mac/genutils.h"
#include "platform/gestalt.h"
#include "support/process.h"

namespace {

// Puts an environment variable back as it was, set or not, at the end of a scope.
class EnvironmentScope {
public:
    explicit EnvironmentScope(const char* name) : name(name) {
        if (const char* value = getenv(name))
            saved = value;
    }
    ~EnvironmentScope() {
        if (saved)
            setenv(name, saved->c_str(), 1);
        else
            unsetenv(name);
    }

private:
    const char* name;
    std::optional<std::string> saved;
};

TEST(OSInfo, VersionAsTwoDecimalNumbers) {
    unsigned char first = 0, second = 0;
    LGetOSVersion(first, second);
    EXPECT_EQ(10, first);
    EXPECT_EQ(68, second) << "10.6.8: minor and bug-fix digits together";
    PlatformSetSystemVersion(0x1045);
    LGetOSVersion(first, second);
    EXPECT_EQ(45, second);
    PlatformSetSystemVersion(0x1068);
}

TEST(Users, NamesComeFromTheEnvironment) {
    EnvironmentScope logname("LOGNAME"), user("USER");
    char name[260];
    setenv("LOGNAME", "alice", 1);
    setenv("USER", "bob", 1);
    LGetUserName(name);
    EXPECT_STREQ("alice", name);
    unsetenv("LOGNAME");
    LGetUserName(name);
    EXPECT_STREQ("bob", name);
    unsetenv("USER");
    LGetUserName(name);
    EXPECT_STREQ("", name);
    setenv("USER", std::string(400, 'u').c_str(), 1);
    LGetUserName(name);
    EXPECT_EQ(259u, strlen(name));

    setenv("USER", "root", 1);
    EXPECT_TRUE(LIsUserRoot());
    EXPECT_TRUE(LIsUserAdministrator()) << "root administers";
    EXPECT_TRUE(LIsUserRunningAsAdministrator());
    setenv("USER", "nobody-in-particular", 1);
    EXPECT_EQ(getuid() == 0, LIsUserRoot());

    setenv("LOGNAME", "no-such-user-tavix", 1);
    EXPECT_FALSE(LSwitchToUser()) << "an unknown user";
}

TEST(Users, AnOrdinaryUserWithoutTheAdminGroupIsNeitherRootNorAdministrator) {
    // A child that drops root and every supplementary group; each answer is one bit.
    EXPECT_EQ(0, ForkAndWait([] {
                  if (getuid() == 0 && (setgroups(0, nullptr) != 0 || setuid(65534) != 0))
                      _exit(8);
                  setenv("USER", "nobody", 1);
                  _exit(LIsUserRoot() | (LIsUserAdministrator() << 1) |
                        (LIsUserRunningAsAdministrator() << 2));
              }));
}

TEST(Processes, FindsARealChildByItsCommandName) {
    const pid_t child = StartChild([] { execlp("sleep", "sleep", "30", nullptr); });
    ASSERT_GT(child, 0);
    // The child's command name changes to "sleep" once exec has run.
    bool found = false;
    for (int i = 0; i < 200 && !found; ++i) {
        kinfo_proc* list = nullptr;
        const int count = LGetBSDProcessList(&list);
        for (int j = 0; j < count; ++j)
            found = found || (list[j].p_pid == child && strcmp(list[j].p_comm, "sleep") == 0);
        free(list);
        if (!found)
            usleep(10000);
    }
    ASSERT_TRUE(found);
    EXPECT_NE(-1, LGetBSDProcessUid("SLEEP")) << "case does not matter here";
    EXPECT_TRUE(LIsApplicationRunning("sleep"));
    EXPECT_FALSE(LIsApplicationRunning("SLEEP")) << "but does here";
    EXPECT_EQ(-1, LGetBSDProcessUid("no-such-command"));
    EXPECT_FALSE(LIsApplicationRunning(std::string(300, 's').c_str()));
    KillChild(child);

    // The cached look-up: a miss is not kept, a hit is.
    gGuiUid = -1;
    EXPECT_EQ(-1, LGetProcessUid("no-such-command"));
    // This program (or a copy running in another build) is found: command names are cut at 15.
    const int self = LGetProcessUid("test_llib_osuti");
    EXPECT_GT(self, 0);
    EXPECT_EQ(self, LGetProcessUid("anything")) << "kept for the process";
    gGuiUid = -1;
}

TEST(Processes, TheOpenFilesLimitIsRaisedTo1024) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    if (before.rlim_max >= 1024) {
        EXPECT_EQ(0, LSetMaximumNumberOfOpenFiles());
        rlimit after{};
        getrlimit(RLIMIT_NOFILE, &after);
        EXPECT_EQ(1024u, after.rlim_cur);
        EXPECT_EQ(before.rlim_max, after.rlim_max);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace

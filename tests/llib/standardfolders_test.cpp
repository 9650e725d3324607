// Standard folders, this library's data folders and the settings migration, with $HOME and the
// XDG variables pointed at a temporary tree.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "llib/gen/file.h"
#include "llib/mac/genutils.h"
#include "support/tempfolder.h"
#include "support/process.h"

namespace {

bool IsFolder(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

class StandardFolders : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(temp.path.empty());
        for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_DATA_DIRS"}) {
            const char* value = getenv(name);
            saved.push_back({name, value != nullptr ? value : ""});
        }
        mkdir(home.c_str(), 0777);
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_DATA_HOME", data.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (temp / "config").c_str(), 1);
        setenv("XDG_DATA_DIRS", (shared + ":/usr/share").c_str(), 1);
    }
    void TearDown() override {
        for (const auto& [name, value] : saved)
            setenv(name.c_str(), value.c_str(), 1);
    }
    std::string Get(void (*getter)(char*)) {
        char out[260];
        getter(out);
        return out;
    }

    TempFolder temp{"tavix-folders"};
    const std::string home = temp / "home";
    const std::string data = temp / "data";
    const std::string shared = temp / "shared";
    std::vector<std::pair<std::string, std::string>> saved;
};

// In the child started by OldLocationAnswerIsKeptFromTheFirstCall, before any test runs: the
// first question names an older application, and that answer stays; the data folders then lie
// in the maker's folder.
const int kOldLocationChild = [] {
    if (getenv("TAVIX_OLD_LOCATION_CHILD") == nullptr)
        return 0;
    const std::string data = getenv("XDG_DATA_HOME");
    const std::string home = getenv("HOME");
    char out[260];
    const bool first = LApplicationIsOldApplicationDataLocation("OrvelCapture");
    const bool later = LApplicationIsOldApplicationDataLocation("Anything") &&
                       LApplicationIsOldApplicationDataLocation();
    const bool created = LFile::GetUserDataFolderApp(out);
    const bool inMakerFolder = created && std::string(out) == data + "/Orvel Software/LTavix";
    LFileGetUserDataFolderAppDoNotCreate(out);
    const bool formed = std::string(out) == data + "/Orvel Software/LTavix";
    _exit(first && later && inMakerFolder && formed ? 0 : 1);
}();

} // namespace

TEST_F(StandardFolders, UserFoldersComeFromXdgWithHomeFallBacks) {
    mkdir((temp / "config").c_str(), 0777);
    std::ofstream(temp / "config/user-dirs.dirs")
        << "# written by xdg-user-dirs-update\n"
        << "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
        << "XDG_VIDEOS_DIR=\"" << temp.path << "/clips/\"\n"
        << "XDG_MUSIC_DIR=\"$HOME/\"\n";

    EXPECT_EQ(Get(LFile::GetUserDesktopFolder), home + "/Schreibtisch");
    EXPECT_TRUE(IsFolder(home + "/Schreibtisch"));
    EXPECT_EQ(Get(LFile::GetUserVideoFolder), temp / "clips");
    EXPECT_EQ(Get(LFile::GetUserDataFolder), data);
    EXPECT_TRUE(IsFolder(data));
    EXPECT_EQ(Get(LFile::GetUserFolder), home);
    EXPECT_EQ(Get(LFile::GetUserApplicationsFolder), home + "/Applications");

    // Unnamed, or named as the home folder itself (which means none): the login name's home
    // folder from the password database, not created.
    char name[260];
    LGetUserName(name);
    const struct passwd* entry = name[0] != 0 ? getpwnam(name) : nullptr;
    if (entry == nullptr)
        entry = getpwuid(getuid());
    const std::string passwdHome = entry != nullptr ? entry->pw_dir : "/home/" + std::string(name);
    EXPECT_EQ(Get(LFile::GetUserMusicFolder), passwdHome + "/Music");
    EXPECT_EQ(Get(LFile::GetUserDownloadFolder), passwdHome + "/Downloads");

    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(Get(LFile::GetUserDataFolder), home + "/.local/share");
    EXPECT_EQ(Get(LFile::GetMountedDrivesFolder), IsFolder("/media") ? "/media" : "/Volumes");
    EXPECT_EQ(Get(LFile::GetSharedDataFolder), shared + "/Library/Application Support");
    EXPECT_TRUE(IsFolder(shared + "/Library/Application Support"));
}

// The path alone, with every folder on the way missing, the home folder included: the same as
// the creating getter's, and nothing made for it.
TEST_F(StandardFolders, TheDataFolderPathWithoutCreationCreatesNothing) {
    const std::string missingHome = temp / "gone/home";
    const std::string missingData = temp / "gone/data";
    setenv("HOME", missingHome.c_str(), 1);
    setenv("XDG_DATA_HOME", missingData.c_str(), 1);
    char formed[260], created[260];
    LFileGetUserDataFolderAppDoNotCreate(formed);
    EXPECT_EQ(std::string(formed), missingData + "/LTavix");
    EXPECT_FALSE(IsFolder(temp / "gone"));
    LFile::GetUserDataFolderApp(created);
    EXPECT_STREQ(created, formed);
    ASSERT_TRUE(LFile::DeleteFolderTree((temp / "gone").c_str()));

    unsetenv("XDG_DATA_HOME");
    LFileGetUserDataFolderAppDoNotCreate(formed);
    EXPECT_EQ(std::string(formed), missingHome + "/.local/share/LTavix");
    EXPECT_FALSE(IsFolder(temp / "gone")) << "not even the home folder";
    LFile::GetUserDataFolderApp(created);
    EXPECT_STREQ(created, formed);
}

TEST_F(StandardFolders, DataFoldersAreCreatedOnTheWay) {
    char out[260];
    EXPECT_TRUE(LFile::GetUserDataFolderApp(out));
    EXPECT_EQ(std::string(out), data + "/LTavix");
    EXPECT_FALSE(LFile::GetUserDataFolderApp(out));
    EXPECT_TRUE(LFile::GetUserDataFolderAppSubFolder("Presets", out));
    EXPECT_TRUE(IsFolder(data + "/LTavix/Presets"));
    EXPECT_FALSE(LFile::GetUserDataFolderAppSubFolder("Presets", out));

    // The user's own Shared folder, until the sandboxed application's exists.
    EXPECT_EQ(Get(LFile::GetSharedDataFolderApp), data + "/LTavix/Shared");
    const std::string container =
        home + "/.var/app/com.orvelsoftware.tavixcapture/data/LTavix/Shared";
    ASSERT_TRUE(LFile::CreateFolderTree(container.c_str()));
    EXPECT_EQ(Get(LFile::GetSharedDataFolderApp), container);
    LFile::GetSharedDataFolderAppSubFolder("Devices", out);
    EXPECT_EQ(std::string(out), container + "/Devices");
    struct stat info;
    ASSERT_EQ(stat(out, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0777u);

    EXPECT_EQ(Get(LFile::GetOldSharedDataFolderAppWithNoCreation),
              shared + "/Library/Application Support/LTavix");
    EXPECT_FALSE(IsFolder(shared + "/Library/Application Support/LTavix"));
}

TEST_F(StandardFolders, SharedSettingsMigrateOnce) {
    // Nothing to migrate: no Shared folder, so no marker either.
    LFileMigrateSharedSettings();
    char marker[260];
    LFileMigrateGetMigrationPerformedFile(marker);
    EXPECT_EQ(std::string(marker), data + "/LTavix/Shared/.SharedFolderMigrated");
    EXPECT_FALSE(LFile::TestFileExists(marker));

    const std::string old = shared + "/Library/Application Support/LTavix";
    ASSERT_TRUE(LFile::CreateFolderTree((old + "/Profiles").c_str()));
    std::ofstream(old + "/settings.ini") << "a=1";
    std::ofstream(old + "/.hidden") << "h";
    std::ofstream(old + "/Profiles/p1") << "p";
    LFileMigrateSharedSettings();
    EXPECT_TRUE(LFile::TestFileExists(marker));
    EXPECT_EQ(ReadFile(data + "/LTavix/Shared/settings.ini"), "a=1");
    EXPECT_EQ(ReadFile(data + "/LTavix/Shared/.hidden"), "h");
    EXPECT_EQ(ReadFile(data + "/LTavix/Shared/Profiles/p1"), "p");
    EXPECT_EQ(ReadFile(old + "/settings.ini"), "a=1");

    // Run again: the marker stops it.
    std::ofstream(old + "/later.ini") << "b=2";
    LFileMigrateSharedSettings();
    EXPECT_FALSE(LFile::TestFileExists((data + "/LTavix/Shared/later.ini").c_str()));
}

TEST_F(StandardFolders, OldLocationAnswerIsKeptFromTheFirstCall) {
    // The answer lives for the process, and this one has asked already: a fresh copy of the
    // test program answers (see kOldLocationChild) and exits.
    EXPECT_FALSE(LApplicationIsOldApplicationDataLocation("OrvelCapture"));
    EXPECT_EQ(0, ForkAndWait([] {
                  setenv("TAVIX_OLD_LOCATION_CHILD", "1", 1);
                  execl("/proc/self/exe", "old-location-child", static_cast<char*>(nullptr));
                  _exit(127);
              }));
}

TEST_F(StandardFolders, TheBundleIsTheProgramsFolder) {
    char executable[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", executable, sizeof executable - 1), 0);
    char folder[260];
    LFile::_GetFolderFromPath(folder, executable);
    EXPECT_EQ(Get(LFile::GetProgramExecutablePath), folder);
    char resources[260];
    LGetInstalledApplicationResourcesFolder(resources, sizeof resources);
    EXPECT_STREQ(resources, folder);
}

// Opening and revealing items and web addresses, with stand-in launchers that record their
// arguments (the real ones would start a file browser or a web browser).
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "llib/mac/cfutils.h"
#include "support/tempfolder.h"

namespace {

class FinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        char resolved[PATH_MAX];
        ASSERT_NE(nullptr, realpath(temp.path.c_str(), resolved));
        folder = resolved;
        opener = MakeLauncher("opener", 0);
        revealer = MakeLauncher("revealer", 0);
        gLOpenLauncher = opener.c_str();
        gLRevealLauncher = revealer.c_str();
    }
    void TearDown() override {
        gLOpenLauncher = "xdg-open";
        gLRevealLauncher = "gdbus";
    }

    // A script that appends its arguments, one per line, to NAME.log and exits with status.
    std::string MakeLauncher(const std::string& name, int status) {
        const std::string path = folder + "/" + name;
        std::ofstream(path) << "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >> '"
                            << path << ".log'\nexit " << status << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }
    // The arguments of every run of the launcher, in order.
    std::vector<std::string> Calls(const std::string& launcher) {
        std::vector<std::string> lines;
        std::ifstream log(launcher + ".log");
        for (std::string line; std::getline(log, line);)
            lines.push_back(line);
        return lines;
    }

    TempFolder temp{"tavix-finder"};
    std::string folder, opener, revealer;
};

} // namespace

TEST_F(FinderTest, OpeningRunsTheOpenerOnExistingItemsOnly) {
    const std::string file = folder + "/a file.txt";
    std::ofstream(file) << "x";
    EXPECT_TRUE(LOpenFile(file.c_str()));
    EXPECT_FALSE(LOpenFile((folder + "/missing").c_str()));
    EXPECT_EQ(std::vector<std::string>{file}, Calls(opener));

    const std::string failing = MakeLauncher("failing", 3);
    gLOpenLauncher = failing.c_str();
    EXPECT_FALSE(LOpenFile(file.c_str())) << "an opener that fails";
    gLOpenLauncher = "no-such-opener-tavix";
    EXPECT_FALSE(LOpenFile(file.c_str())) << "an opener that is not there";
}

TEST_F(FinderTest, RevealingAFileAsksTheFileManagerToShowIt) {
    const std::string file = folder + "/it's here.txt";
    std::ofstream(file) << "x";
    LRevealInFinder(file.c_str());
    const std::vector<std::string> expected = {"call",
                                               "--session",
                                               "--dest",
                                               "org.freedesktop.FileManager1",
                                               "--object-path",
                                               "/org/freedesktop/FileManager1",
                                               "--method",
                                               "org.freedesktop.FileManager1.ShowItems",
                                               "['file://" + folder + "/it%27s%20here.txt']",
                                               ""};
    EXPECT_EQ(expected, Calls(revealer));
    EXPECT_TRUE(Calls(opener).empty());
}

TEST_F(FinderTest, WhenTheFileManagerCallFailsTheContainingFolderIsOpened) {
    const std::string file = folder + "/file";
    std::ofstream(file) << "x";
    const std::string failing = MakeLauncher("failing", 1);
    gLRevealLauncher = failing.c_str();
    LRevealInFinder(file.c_str());
    EXPECT_EQ(10u, Calls(failing).size());
    EXPECT_EQ(std::vector<std::string>{folder}, Calls(opener));

    // Nothing is done for an item that does not exist.
    LRevealInFinder((folder + "/missing").c_str());
    EXPECT_EQ(10u, Calls(failing).size());
    EXPECT_EQ(1u, Calls(opener).size());
}

TEST_F(FinderTest, AFolderIsOpenedOrWhenThatFailsShownByTheFileManager) {
    LRevealInFinder(folder.c_str());
    EXPECT_EQ(std::vector<std::string>{folder}, Calls(opener));
    EXPECT_TRUE(Calls(revealer).empty());

    const std::string failing = MakeLauncher("failing", 1);
    gLOpenLauncher = failing.c_str();
    LRevealInFinder(folder.c_str());
    const std::vector<std::string> calls = Calls(revealer);
    ASSERT_EQ(10u, calls.size());
    EXPECT_EQ("['file://" + folder + "/']", calls[8]);
}

TEST_F(FinderTest, WebPagesAreHandedToTheOpener) {
    OpenKBWebPage(7);
    OpenOrvelWebPage("+buy now");
    OpenOrvelWebPage("help");
    LCFURL url;
    url.GotoURL("https://example.com/a%20b?q=1");
    const std::vector<std::string> expected = {
        "http://support.orvelsoftware.com/kb/7.html", "http://www.orvelsoftware.com/buy%20now.html",
        "http://support.orvelsoftware.com/help.html", "https://example.com/a%20b?q=1"};
    EXPECT_EQ(expected, Calls(opener));
}

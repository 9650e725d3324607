// Folder iteration and the tree operations, on real trees in a temporary folder.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <set>
#include <string>
#include <vector>

#include "llib/gen/file.h"
#include "llib/gen/filecopy.h"
#include "support/process.h"
#include "support/tempfolder.h"

namespace {

bool Exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

// The names an iterator lists, each folder's with a "/" after it.
std::set<std::string> Names(LFile::FolderIterator& entries) {
    std::set<std::string> names;
    for (; entries.szName()[0] != 0; entries.Next())
        names.insert(std::string(entries.szName()) + (entries.IsFolder() ? "/" : ""));
    return names;
}

// The immutable flag, which only a privileged process may set; false where it cannot be.
bool SetImmutable(const std::string& path, bool on) {
    const int fd = open(path.c_str(), O_RDONLY);
    int flags = 0;
    bool done = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    done = done && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0)
        close(fd);
    return done;
}

// Records what the copy reports and stops it after a number of chunks.
class CopyProcess : public LProcessInterfaceVoid {
public:
    explicit CopyProcess(int stopAfter = -1) : stopAfter(stopAfter) {}
    bool IsToStop() override { return stopAfter >= 0 && int(progress.size()) > stopAfter; }
    void SetStatus(const char* text, int line) override { status.push_back({text, line}); }
    void SetProgress(double value) override { progress.push_back(value); }

    int stopAfter;
    std::vector<std::pair<std::string, int>> status;
    std::vector<double> progress;
};

} // namespace

TEST(FolderIterator, MatchesHidesDotNamesAndOpensOnAFile) {
    TempFolder temp{"tavix-folders"};
    WriteFile(temp / ".hidden", "");
    WriteFile(temp / "a.TXT", "");
    WriteFile(temp / "b.dat", "");
    mkdir((temp / "sub.txt").c_str(), 0777);

    LFile::FolderIterator entries;
    ASSERT_TRUE(entries.Open(temp.path.c_str(), "*.txt"));
    EXPECT_EQ(Names(entries), (std::set<std::string>{"a.TXT", "sub.txt/"}));
    LFile::FolderIteratorAllFiles all(temp.path.c_str());
    EXPECT_EQ(Names(all),
              (std::set<std::string>{"./", "../", ".hidden", "a.TXT", "b.dat", "sub.txt/"}));

    // On the path of a file: that file only, or every entry of its folder for AllFiles.
    EXPECT_FALSE(entries.Open((temp / "a.txt").c_str())) << "a file's name is matched exactly";
    ASSERT_TRUE(entries.Open((temp / "a.TXT").c_str()));
    EXPECT_EQ(Names(entries), std::set<std::string>{"a.TXT"});
    LFile::FolderIteratorAllFiles onFile((temp / "b.dat").c_str());
    EXPECT_EQ(Names(onFile).size(), 6u);

    EXPECT_FALSE(entries.Open((temp / "missing").c_str(), "*"));
    EXPECT_FALSE(entries.Open((temp / "b.dat").c_str(), "*"));
    EXPECT_FALSE(entries.Open(temp.path.c_str(), "*.none"));
    EXPECT_STREQ(entries.szName(), "");
}

TEST(Folders, CreateFolderTreeReportsTheLastStep) {
    TempFolder temp{"tavix-folders"};
    const std::string deep = temp / "x/y/z";
    EXPECT_TRUE(LFile::CreateFolderTree(deep.c_str()));
    EXPECT_TRUE(LFile::IsFolder(deep.c_str()));
    EXPECT_FALSE(LFile::CreateFolderTree(deep.c_str()));
    // With a trailing separator the folders are made, and the last step finds its folder.
    EXPECT_FALSE(LFile::CreateFolderTree((temp / "p/q/").c_str()));
    EXPECT_TRUE(LFile::IsFolder((temp / "p/q").c_str()));
    EXPECT_FALSE(LFile::CreateFolder((temp / "p").c_str()));
}

TEST(Folders, TreeDeletionStaysInsideTheTree) {
    TempFolder temp{"tavix-folders"};
    const std::string tree = temp / "tree";
    const std::string outside = temp / "outside";
    LFile::CreateFolderTree((tree + "/a/b").c_str());
    mkdir(outside.c_str(), 0777);
    WriteFile(outside + "/keep", "k");
    WriteFile(tree + "/.hidden", "h");
    WriteFile(tree + "/a/b/file", "f");
    symlink(outside.c_str(), (tree + "/a/link").c_str());
    symlink((outside + "/keep").c_str(), (tree + "/filelink").c_str());

    EXPECT_TRUE(LFile::DeleteFolderTree(tree.c_str()));
    EXPECT_FALSE(Exists(tree));
    EXPECT_EQ(ReadFile(outside + "/keep"), "k");

    EXPECT_FALSE(LFile::DeleteFolderTree(""));

    // Not recursive: the files go, the sub-folder keeps the folder.
    LFile::CreateFolderTree((tree + "/sub").c_str());
    WriteFile(tree + "/file", "");
    EXPECT_FALSE(LFile::DeleteFolderAndFiles(tree.c_str()));
    EXPECT_FALSE(Exists(tree + "/file"));
    EXPECT_TRUE(Exists(tree + "/sub"));
}

TEST(Folders, EntriesTooLongToNameAreLeftAlone) {
    TempFolder temp{"tavix-folders"};
    // A folder whose entries' full paths pass 259 characters: a cut path would name the
    // sibling whose name is the cut one.
    std::string folder = temp.path;
    while (folder.size() < 230)
        folder += "/" + std::string(std::min<size_t>(60, 230 - folder.size()), 'd');
    ASSERT_TRUE(LFile::CreateFolderTree(folder.c_str()));
    const std::string longName = std::string(39, 'L') + "x";
    const std::string cutName = longName.substr(0, 259 - folder.size() - 1);
    WriteFile(folder + "/" + longName, "long");
    WriteFile(folder + "/" + cutName, "cut");
    ASSERT_TRUE(Exists(folder + "/" + longName));

    // Only the long name matches; its cut path must not delete the sibling.
    LFile::DeleteOldFiles(folder.c_str(), "*x", 49710);
    EXPECT_TRUE(Exists(folder + "/" + cutName));
    EXPECT_TRUE(Exists(folder + "/" + longName));
    EXPECT_FALSE(LFile::DeleteFolderTree(folder.c_str()));
    EXPECT_FALSE(Exists(folder + "/" + cutName));
}

TEST(Folders, DeleteFolderTreeAlwaysClearsImmutableFiles) {
    TempFolder temp{"tavix-folders"};
    const std::string tree = temp / "tree";
    mkdir(tree.c_str(), 0777);
    WriteFile(tree + "/locked", "");
    if (!SetImmutable(tree + "/locked", true))
        GTEST_SKIP() << "this process may not set the immutable flag";
    EXPECT_FALSE(LFile::DeleteFolderTree(tree.c_str()));
    EXPECT_TRUE(Exists(tree + "/locked"));
    const bool deleted = LFile::DeleteFolderTreeAlways(tree.c_str());
    if (!deleted)
        SetImmutable(tree + "/locked", false);
    EXPECT_TRUE(deleted);
}

TEST(Folders, DeleteOldFilesWithThirtyTwoBitLimit) {
    TempFolder temp{"tavix-folders"};
    WriteFile(temp / "old.log", "");
    WriteFile(temp / ".old.log", "");
    WriteFile(temp / "old.txt", "");
    LFile::DeleteOldFiles(temp.path.c_str(), "*.log", 0);
    LFile::DeleteOldFiles(temp.path.c_str(), "*.log", 1);
    EXPECT_TRUE(Exists(temp / "old.log"));
    // 49710 days are 2^32 - 23296 seconds: the limit wraps to a time after now, so even fresh
    // files count as old. Hidden files and other names stay.
    LFile::DeleteOldFiles(temp.path.c_str(), "*.log", 49710);
    EXPECT_FALSE(Exists(temp / "old.log"));
    EXPECT_TRUE(Exists(temp / ".old.log"));
    EXPECT_TRUE(Exists(temp / "old.txt"));
    EXPECT_GT(LFile::GetFileCreateTime((temp / "old.txt").c_str()), 0);
    EXPECT_EQ(LFile::GetFileCreateTime((temp / "missing").c_str()), 0);
}

TEST(Folders, CopyFileKeepsContentTimeAndPermissions) {
    TempFolder temp{"tavix-folders"};
    const std::string source = temp / "src";
    struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    // More than two 8192-byte pieces, and nothing at all.
    for (const std::string& content : {std::string(20000, 'c'), std::string()}) {
        const std::string copy = temp / ("dst" + std::to_string(content.size()));
        WriteFile(source, content);
        chmod(source.c_str(), 0640);
        utimensat(AT_FDCWD, source.c_str(), times, 0);
        ASSERT_TRUE(LFile::CopyFile(source.c_str(), copy.c_str()));
        EXPECT_EQ(ReadFile(copy), content);
        struct stat info;
        stat(copy.c_str(), &info);
        EXPECT_EQ(info.st_mode & 07777, 0640u);
        EXPECT_EQ(info.st_mtime, 1000000000);
    }

    symlink("src", (temp / "link").c_str());
    ASSERT_TRUE(LFile::CopyFile((temp / "link").c_str(), (temp / "link2").c_str()));
    char target[16] = {};
    EXPECT_EQ(readlink((temp / "link2").c_str(), target, sizeof target - 1), 3);
    EXPECT_STREQ(target, "src");

    EXPECT_FALSE(LFile::CopyFile((temp / "src").c_str(), (temp / "no/x").c_str()));
}

TEST(Folders, CopyFolderFilesCopiesHiddenFilesAndLinksAsLinks) {
    TempFolder temp{"tavix-folders"};
    const std::string from = temp / "from";
    const std::string outside = temp / "outside";
    LFile::CreateFolderTree((from + "/sub").c_str());
    mkdir(outside.c_str(), 0777);
    WriteFile(outside + "/big", std::string(1000, 'b'));
    WriteFile(from + "/.settings", "s");
    WriteFile(from + "/sub/file", "f");
    symlink(outside.c_str(), (from + "/sub/out").c_str());

    LFile::CopyFolderFiles(from.c_str(), (temp / "to/deep").c_str());
    EXPECT_EQ(ReadFile(temp / "to/deep/.settings"), "s");
    EXPECT_EQ(ReadFile(temp / "to/deep/sub/file"), "f");
    struct stat info;
    ASSERT_EQ(lstat((temp / "to/deep/sub/out").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));

    // Opening permissions stops at the link as well.
    chmod((outside + "/big").c_str(), 0600);
    chmod((from + "/sub/file").c_str(), 0600);
    LFile::SetFolderSecurityAllAccess(from.c_str());
    stat((from + "/sub/file").c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0777u);
    stat((outside + "/big").c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(ProcessCopyFile, ReportsProgressAndCopies) {
    TempFolder temp{"tavix-folders"};
    const std::string content(3 * 32768 + 5, 'p');
    WriteFile(temp / "src", content);
    const std::string destination = temp / "dst.bin";
    CopyProcess process;
    ASSERT_EQ(Process(process, {(temp / "src").c_str(), destination.c_str()}), 0);
    EXPECT_EQ(ReadFile(destination), content);
    ASSERT_EQ(process.status.size(), 2u);
    EXPECT_EQ(process.status[0], (std::pair<std::string, int>{"Copy File", 0}));
    EXPECT_EQ(process.status[1], (std::pair<std::string, int>{"dst.bin", 1}));
    // From 0, rising with the chunks, never past the whole.
    ASSERT_GE(process.progress.size(), 3u);
    EXPECT_EQ(process.progress.front(), 0.0);
    EXPECT_TRUE(std::is_sorted(process.progress.begin(), process.progress.end()));
    EXPECT_GT(process.progress.back(), 0.5);
    EXPECT_LE(process.progress.back(), 1.0);

    EXPECT_EQ(Process(process, {(temp / "src").c_str(), (temp / "no/dst").c_str()}), 2);
    EXPECT_EQ(Process(process, {(temp / "missing").c_str(), (temp / "dst2").c_str()}), 2);
    EXPECT_FALSE(Exists(temp / "dst2"));
    // Copying a file onto itself must not empty (and then delete) it.
    EXPECT_EQ(Process(process, {destination.c_str(), destination.c_str()}), 2);
    EXPECT_EQ(ReadFile(destination), content);
}

TEST(ProcessCopyFile, StoppedOrFailedCopyLeavesNoFile) {
    TempFolder temp{"tavix-folders"};
    WriteFile(temp / "src", std::string(10 * 32768, 's'));
    CopyProcess stopping(2);
    EXPECT_EQ(Process(stopping, {(temp / "src").c_str(), (temp / "stopped").c_str()}), 1);
    EXPECT_FALSE(Exists(temp / "stopped"));

    // A full disk, made by a file-size limit in a child process: the write falls short.
    EXPECT_EQ(2, ForkAndWait([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  struct rlimit limit = {65536, 65536};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  CopyProcess process;
                  _exit(Process(process, {(temp / "src").c_str(), (temp / "full").c_str()}));
              }));
    EXPECT_FALSE(Exists(temp / "full"));
}

TEST(Folders, ArchiveAttributeFollowsTheBackupDate) {
    TempFolder temp{"tavix-folders"};
    const std::string file = temp / "doc";
    WriteFile(file, "x");
    EXPECT_TRUE(LFile::IsSetFileAttributeArchive(file.c_str())); // never backed up
    for (bool set : {false, true}) {
        ASSERT_EQ(LFile::SetFileAttributeArchive(file.c_str(), set), 0);
        EXPECT_EQ(set, LFile::IsSetFileAttributeArchive(file.c_str()));
    }
    EXPECT_NE(LFile::SetFileAttributeArchive((temp / "missing").c_str(), true), 0);
    EXPECT_FALSE(LFile::IsSetFileAttributeArchive((temp / "missing").c_str()));
}

TEST(Folders, BadPathsGiveDefinedAnswers) {
    TempFolder temp{"tavix-folders"};
    // Every character other systems forbid is an ordinary name character here.
    const std::string odd = temp / "a\"*:<>?\\| \x01.txt";
    ASSERT_TRUE(LFile::CreateFolder(odd.c_str()));
    WriteFile(odd + "/x", "x");
    EXPECT_TRUE(LFile::DeleteFolderTree(odd.c_str()));

    // A path far beyond 259 characters, and one that names nothing.
    const std::string huge = temp.path + "/" + std::string(10000, 'h');
    EXPECT_FALSE(LFile::CreateFolderTree(huge.c_str()));
    for (const std::string& path : {huge, temp / "missing"}) {
        EXPECT_FALSE(LFile::TestFolderExists(path.c_str()));
        EXPECT_FALSE(LFile::IsFile(path.c_str()));
        EXPECT_FALSE(LFile::DeleteFolderTree(path.c_str()));
        EXPECT_FALSE(LFile::DeleteFolderAndFiles(path.c_str()));
        EXPECT_FALSE(LFile::CopyFile(path.c_str(), (temp / "copy").c_str()));
        LFile::CopyFolderFiles(path.c_str(), (temp / "copies").c_str());
        LFile::DeleteOldFiles(path.c_str(), "*", 49710);
        LFile::SetFolderSecurityAllAccess(path.c_str());
        LFile::FolderIteratorAllFiles entries(path.c_str());
        EXPECT_STREQ(entries.szName(), "");
    }
    EXPECT_FALSE(Exists(temp / "copy"));
    EXPECT_FALSE(Exists(temp / "copies"));

    // An unreadable folder (for a user other than root): its entries cannot be listed, so the
    // tree keeps them and reports that the folder stayed.
    const std::string locked = temp / "locked";
    mkdir(locked.c_str(), 0777);
    WriteFile(locked + "/inside", "");
    chmod(temp.path.c_str(), 0777);
    chmod(locked.c_str(), 0333);
    EXPECT_EQ(0, ForkAndWait([&] {
                  if (getuid() == 0 && setuid(65534) != 0)
                      _exit(3);
                  const bool removed = LFile::DeleteFolderTree(locked.c_str());
                  _exit(!removed && Exists(locked + "/inside") ? 0 : 1);
              }));
    chmod(locked.c_str(), 0777);
}

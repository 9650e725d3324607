#include "llib/gen/file.h"

#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fuzz/reference_match.h"

namespace {

// A 260-byte path buffer followed by guard bytes.
struct PathBuffer {
    char bytes[260 + 32];
    PathBuffer() { memset(bytes, 0x5A, sizeof bytes); }
    bool GuardIntact() const {
        for (size_t i = 260; i < sizeof bytes; ++i)
            if (bytes[i] != 0x5A)
                return false;
        return memchr(bytes, 0, 260) != nullptr;
    }
    operator char*() { return bytes; }
    std::string str() const { return bytes; }
};

std::string Call(void (*operation)(char*, const char*), const std::string& path) {
    PathBuffer out;
    operation(out, path.c_str());
    EXPECT_TRUE(out.GuardIntact()) << path.size();
    return out.str();
}

std::string Absolute(const char* base, const char* path, const char* extension = "") {
    PathBuffer out;
    LFile::MakeAbsoluteFilePath(out, base, path, extension);
    EXPECT_TRUE(out.GuardIntact());
    return out.str();
}

std::string Relative(const char* base, const char* path) {
    PathBuffer out;
    EXPECT_TRUE(LFile::MakeRelativeFilePath(out, base, path));
    EXPECT_TRUE(out.GuardIntact());
    return out.str();
}

std::string FromAbsolute(const std::string& base, const std::string& path, bool* fits = nullptr) {
    PathBuffer out;
    const bool result = LFile::GetRelativePathFromAbsolutePath(out, base.c_str(), path.c_str());
    if (fits != nullptr)
        *fits = result;
    else
        EXPECT_TRUE(result);
    EXPECT_TRUE(out.GuardIntact());
    return out.str();
}

// Every text of length up to maxLength over the alphabet.
std::vector<std::string> AllTexts(const std::string& alphabet, size_t maxLength) {
    std::vector<std::string> texts{""};
    for (size_t begin = 0, length = 1; length <= maxLength; ++length) {
        const size_t end = texts.size();
        for (size_t i = begin; i < end; ++i)
            for (char c : alphabet)
                texts.push_back(texts[i] + c);
        begin = end;
    }
    return texts;
}

} // namespace

TEST(PathSplitting, FolderBaseFileNameExtensionAndDrive) {
    using Operation = void (*)(char*, const char*);
    // Each operation with its inputs, each input followed by the expected output.
    const std::pair<Operation, std::vector<const char*>> cases[] = {
        {&LFile::_GetFolderFromPath,
         {"/a/b/c.txt", "/a/b", "/c.txt", "/", "c.txt", "", "C:\\dir\\x.wav", "C:\\dir", "a/b\\c/",
          "a/b\\c"}},
        {&LFile::_GetBaseFolderFromPath,
         {"/Volumes/Disk/x", "/Volumes", "C:\\dir\\x", "C:", "//server/share", "//server", "name",
          "name"}},
        {&LFile::_GetFileFromPath, {"/a\\b/c.txt", "c.txt", "/a/b/", ""}},
        {&LFile::_GetFileNameFromPath, {"x/c.tar.gz", "c.tar", "/home/.hidden", ".hidden"}},
        {&LFile::_GetFileExtensionFromPath,
         {"c.txt", ".txt", "/a/.profile", ".profile", "/a.d/file", "", "C:\\a.d\\file", ""}},
        {&LFile::GetHumanReadableDriveFromPath, {"C:\\dir", "C:\\", "/home/me", "/", "~/x", ""}}};
    for (const auto& c : cases)
        for (size_t i = 0; i < c.second.size(); i += 2)
            EXPECT_EQ(c.second[i + 1], Call(c.first, c.second[i])) << c.second[i];

    // Replacing the extension, also in place and at the buffer's end.
    PathBuffer out;
    const char* const extensions[] = {"song.wav", "song.mp3",    "a.d/file", "a.d/file.mp3",
                                      ".profile", ".profile.mp3"}; // a leading dot is kept
    for (size_t i = 0; i < 6; i += 2) {
        LFile::_ApplyNewFileExtension(out, extensions[i], ".mp3");
        EXPECT_EQ(extensions[i + 1], out.str());
    }
    strcpy(out, "/doc/report.pages");
    LFile::_ApplyNewFileExtension(out, out, ".lck");
    EXPECT_EQ("/doc/report.lck", out.str());
    const std::string longName(258, 'n');
    LFile::_ApplyNewFileExtension(out, longName.c_str(), ".lck");
    EXPECT_EQ(longName + ".", out.str());
    EXPECT_TRUE(out.GuardIntact());
}

TEST(PathSplitting, EveryOperationStaysWithinItsBufferAtTheBounds) {
    void (*const operations[])(char*, const char*) = {
        &LFile::_GetFolderFromPath,        &LFile::_GetBaseFolderFromPath,
        &LFile::_GetFileFromPath,          &LFile::_GetFileNameFromPath,
        &LFile::_GetFileExtensionFromPath, &LFile::GetHumanReadableDriveFromPath};
    std::vector<std::string> paths;
    for (size_t length : {258u, 259u, 260u, 261u, 10000u}) {
        paths.push_back(std::string(length, 'x'));
        paths.push_back("/" + std::string(length, 'x'));
        paths.push_back(std::string(length, '/'));
        paths.push_back(std::string(length - 1, 'x') + "/");
        std::string components;
        while (components.size() < length)
            components += "/dir\\name.ext";
        paths.push_back(components);
        paths.push_back("." + std::string(length, 'e'));
    }
    for (const auto& path : paths)
        for (auto operation : operations)
            Call(operation, path);
    const std::string longPath = "/" + std::string(300, 'f') + "/x";
    EXPECT_EQ(std::string(259, 'f'), Call(&LFile::_GetFileFromPath, longPath))
        << "a component longer than 259 characters ends the scan";
    EXPECT_EQ("/", Call(&LFile::_GetFolderFromPath, longPath))
        << "a separator beyond the buffer is not seen";
}

TEST(PathJoining, SeparatorsAreAddedOnlyWhenMissing) {
    PathBuffer out;
    EXPECT_EQ(5u, LFile::_MakeFilePath(out, "/tmp/", "a", ".txt"));
    EXPECT_EQ("/tmp/a.txt", out.str());
    LFile::_MakeFilePath(out, "/tmp", "a", nullptr);
    EXPECT_EQ("/tmp/a", out.str());
    LFile::_MakeFilePath(out, "", "name", ".ext");
    EXPECT_EQ("name.ext", out.str());
    strcpy(out, "/folder");
    LFile::_MakeFilePath(out, out, "in-place", "");
    EXPECT_EQ("/folder/in-place", out.str());

    const std::string longFolder(10000, 'd');
    LFile::_MakeFilePath(out, longFolder.c_str(), "name", ".ext");
    EXPECT_EQ(std::string(258, 'd') + "/", out.str());
    const std::string longName(10000, 'n');
    LFile::_MakeFilePath(out, "/f", longName.c_str(), ".ext");
    EXPECT_EQ(259u, out.str().size());
    EXPECT_TRUE(out.GuardIntact());
}

TEST(PathJoining, AbsolutePathsFromABaseFolder) {
    EXPECT_EQ("/a/c.txt", Absolute("/a/b/", "../c.txt"));
    EXPECT_EQ("/a/c.txt", Absolute("/a/bb", "../c.txt"));
    EXPECT_EQ("/a/b/c.txt", Absolute("/a/b", ".\\.\\c.txt"));
    EXPECT_EQ("/c.txt", Absolute("/a/b", "../../c.txt"));
    EXPECT_EQ("/a/a", Absolute("/a/b", "../a")) << "a single-character last folder is climbed too";
    EXPECT_EQ("/../x", Absolute("/a", "../../x"))
        << "the root stays, and a further climb stays in the path";
    EXPECT_EQ("D:stuff", Absolute("/a", "D:stuff"));
    EXPECT_EQ("/abs.wav", Absolute("/a", "/abs", ".wav"));
    EXPECT_EQ("C:/y", Absolute("C:\\x", "..\\y"));
    EXPECT_EQ("name/x", Absolute("name", "../x")) << "no separator to climb to";

    PathBuffer out;
    strcpy(out, "../x.txt");
    LFile::MakeAbsoluteFilePath(out, "/base/sub", out, ""); // out may be the path
    EXPECT_EQ("/base/x.txt", out.str());
    const std::string deep(10000, 'x');
    Absolute(deep.c_str(), ("../" + deep).c_str(), ".ext");
    Absolute("/b", deep.c_str(), ".ext");
}

TEST(RelativePaths, FromAFolderAndFromAnAbsolutePath) {
    EXPECT_EQ("c/d.txt", Relative("/a/b/", "/a/b/c/d.txt"));
    EXPECT_EQ("c/d.txt", Relative("/a/b", "/a/b/c/d.txt"));
    EXPECT_EQ("../c/d", Relative("/a/b/", "/a/c/d"));
    EXPECT_EQ("../bd/e", Relative("/a/bc/", "/a/bd/e")) << "names are compared whole";
    EXPECT_EQ("../../x", Relative("/a/b/c", "/a/x"));
    EXPECT_EQ("../b", Relative("/a/b/", "/a/b"));
    PathBuffer out;
    EXPECT_TRUE(LFile::MakeRelativeFolder(out, "/m/", "/m/n/"));
    EXPECT_EQ("n/", out.str());
    std::string deepBase, climbs;
    for (int i = 0; i < 200; ++i)
        deepBase += "/d";
    for (int i = 0; i < 86; ++i)
        climbs += "../";
    EXPECT_EQ(climbs + "e", Relative(deepBase.c_str(), "/elsewhere/file"))
        << "whole ../ steps while they fit, then the path, cut";

    EXPECT_EQ("../Movies/x.mov", FromAbsolute("/Users/me/Music", "/Users/me/Movies/x.mov"));
    EXPECT_EQ("a.wav", FromAbsolute("/Users/me/Music/", "/Users/me/Music/a.wav"));
    EXPECT_EQ("..\\..\\z\\f", FromAbsolute("C:\\x\\y\\w", "C:\\x\\z\\f"));
    EXPECT_EQ("../bc/x", FromAbsolute("/a/b", "/a/bc/x"));
    EXPECT_EQ("elsewhere/f", FromAbsolute("nothing", "elsewhere/f"));
    EXPECT_EQ("x", FromAbsolute("C:", "C:\\x"));
    // Climbing 86 levels and the rest: 3 x 86 + 2 = 260 characters do not fit, 259 do.
    std::string base = "/r";
    for (int i = 0; i < 86; ++i)
        base += "/d";
    bool fits = true;
    EXPECT_EQ("", FromAbsolute(base + "/", "/r/xy", &fits));
    EXPECT_FALSE(fits);
    EXPECT_EQ(259u, FromAbsolute(base + "/", "/r/x", &fits).size());
    EXPECT_TRUE(fits);
    FromAbsolute(std::string(10000, 'a'), std::string(10000, 'a') + "/b/" + std::string(500, 'c'));
}

TEST(NameCleaning, ForbiddenCharactersAreDroppedAndQuotesEscaped) {
    PathBuffer out;
    EXPECT_TRUE(LFile::PreprocessName("a/b:c*d?\"e<f>g|h\\i\tj\x01", out));
    EXPECT_EQ("abcdefghij", out.str());
    EXPECT_TRUE(LFile::PreprocessName("   ", out)) << "spaces are a name";
    EXPECT_FALSE(LFile::PreprocessName("/:*", out));
    EXPECT_TRUE(LFile::PreprocessPath("/a/b:c\\d", out));
    EXPECT_EQ("/a/bc\\d", out.str());
    EXPECT_FALSE(LFile::PreprocessPath("   ", out)) << "spaces are not a path";
    EXPECT_FALSE(LFile::PreprocessPath(" ?* ", out));
    const std::string longName(10000, 'q');
    EXPECT_TRUE(LFile::PreprocessName(longName.c_str(), out));
    EXPECT_EQ(259u, out.str().size());
    EXPECT_TRUE(out.GuardIntact());

    EXPECT_STREQ("say \\\"hi\\\" \\`x\\` $y", LFile::EscapeFilePath("say \"hi\" `x` $y", out));
    const std::string quotes(300, '"');
    LFile::EscapeFilePath(quotes.c_str(), out);
    EXPECT_EQ(259u, out.str().size());
    EXPECT_EQ('\\', out.str().back()) << "the escape may end the text when room runs out";
    EXPECT_FALSE(LFileIsLetterOrNumber('\xE9'));
}

TEST(Wildcards, AgreeWithTryingEverySplitOnAllShortTexts) {
    EXPECT_TRUE(LFile::IsMatch(L"*.wav", L"take 1.wav"));
    EXPECT_TRUE(LFile::IsMatchInsensitive("*.TXT", "Notes.txt"));
    EXPECT_FALSE(LFile::IsMatch("*.TXT", "Notes.txt"));
    const auto texts = AllTexts("ab*?", 5);
    for (const auto& pattern : texts)
        for (const auto& name : texts)
            ASSERT_EQ(ReferenceMatch(pattern.c_str(), name.c_str()),
                      LFile::IsMatch(pattern.c_str(), name.c_str()))
                << "pattern " << pattern << " name " << name;
}

TEST(Wildcards, PatternsThatWouldExplodeAnswerQuickly) {
    std::string pattern;
    for (int i = 0; i < 40; ++i)
        pattern += "*a";
    pattern += "b";
    const std::string name(10000, 'a');
    EXPECT_FALSE(LFile::IsMatch(pattern.c_str(), name.c_str()));
    EXPECT_TRUE(LFile::IsMatch(pattern.c_str(), (name + "b").c_str()));
    const std::string hugePattern(10000, '*');
    EXPECT_TRUE(LFile::IsMatch((hugePattern + "?").c_str(), name.c_str()));
    EXPECT_FALSE(LFile::IsMatchInsensitive(pattern.c_str(), name.c_str()));
}

TEST(DisplayHelpers, SizesDrivesAndSuffixes) {
    PathBuffer out;
    const struct {
        unsigned long long bytes;
        const char* text;
    } sizes[] = {{0, "0 Bytes"},       {1023, "1023 Bytes"},  {1024, "1 KB"},
                 {2047, "1 KB"},       {5ull << 20, "5 MB"},  {(5ull << 30) + 7, "5 GB"},
                 {1ull << 40, "1 TB"}, {~0ull, "16777215 TB"}};
    for (const auto& size : sizes) {
        LFile::GetSizeFormattedBytes(size.bytes, out);
        EXPECT_EQ(size.text, out.str());
    }

    EXPECT_EQ(0, tstrcmpend("movie.mov", ".mov"));
    EXPECT_NE(0, tstrcmpend("movie.mp4", ".mov"));
    EXPECT_EQ(-1, tstrcmpend("ov", ".mov"));
    EXPECT_EQ(0, tstrcmpend("x", ""));
}

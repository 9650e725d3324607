// Text, paths and versions through the platform's strings, URLs and bundles, FSSpec file
// records and back, and the maker's web page addresses.
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "llib/mac/cfutils.h"
#include "platform/cfbundle.h"
#include "support/tempfolder.h"

namespace {

// What an object copies into a buffer of N bytes that held other text.
template <size_t N, class Object>
std::string Copied(const Object& object) {
    char out[N] = "left over";
    object.GetString(out, N);
    return out;
}

std::string Text(const LCFString& string) {
    return Copied<260>(string);
}

std::wstring WideText(const LCFString& string) {
    LStringLongTemplate<wchar_t> out;
    out = L"left over";
    string.GetString(out);
    return std::wstring(out.GetText(), out.GetLength());
}

} // namespace

TEST(CFString, Utf8RoundTripsAndCopiesCutBetweenCharacters) {
    LCFString string;
    EXPECT_EQ("", Text(string));
    EXPECT_EQ(L"", WideText(string));
    wchar_t wide[8] = L"left";
    string.GetString(wide, 8);
    EXPECT_EQ(0, wide[0]);

    string.SetString("h\xC3\xA9llo \xE2\x82\xAC");
    EXPECT_EQ("h\xC3\xA9llo \xE2\x82\xAC", Text(string));
    EXPECT_EQ(L"h\u00E9llo \u20AC", WideText(string));

    // A buffer copy leaves out a character that does not fit whole.
    string.SetString("ab\xC3\xA9z");
    char out[4];
    string.GetString(out, sizeof out);
    EXPECT_STREQ("ab", out);
    LStringLongTemplate<char> whole;
    string.GetString(whole);
    EXPECT_EQ(5u, whole.GetLength());
    EXPECT_STREQ("ab\xC3\xA9z", whole.GetText());

    // The lenient decoder keeps what precedes malformed UTF-8: a stray or invalid byte, an
    // overlong form, an encoded surrogate, a code point past U+10FFFF, a cut sequence.
    for (const char* bad : {"\xFF", "\x80", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                            "\xF4\x90\x80\x80", "\xE2\x82"}) {
        string.SetString((std::string("ab") + bad + "cd").c_str());
        ASSERT_NE(nullptr, string.String);
        EXPECT_EQ("ab", Text(string)) << static_cast<unsigned>(bad[0] & 0xFF);
    }
}

TEST(CFString, SurrogatePairsBecomeOneWideCharacter) {
    const unsigned short units[] = {0xD83D, 0xDE00, 'x', 0};
    LCFString string(units);
    EXPECT_EQ(std::wstring(L"\U0001F600x"), WideText(string));
    EXPECT_EQ("\xF0\x9F\x98\x80x", Text(string));

    wchar_t out[2];
    string.GetString(out, 2);
    EXPECT_EQ(std::wstring(L"\U0001F600"), out);

    const unsigned short lone[] = {'a', 0xD800, 0};
    LStringLongTemplate<char> utf8;
    LUnicodeString(lone).GetString(utf8);
    EXPECT_STREQ("", utf8.GetText()) << "a lone surrogate does not convert";
    utf8 = "left over";
    LUnicodeString(nullptr).GetString(utf8);
    EXPECT_STREQ("", utf8.GetText());
}

TEST(CFURL, PathsRoundTripAndOnlyFileAddressesNameAFile) {
    for (const char* path : {"/tmp/a b/100% sure.txt",
                             "/home/\xC3\xBC"
                             "ber/r\xC3\xA9sum\xC3\xA9",
                             "/x/a+b=c&d?e#f;g'h\"i", "/"}) {
        LCFURL url;
        ASSERT_TRUE(url.CreateFromFullPath(path)) << path;
        EXPECT_EQ(path, Copied<1024>(url));
    }
    LCFURL url;
    EXPECT_EQ("", Copied<1024>(url));
    url.CreateFromFullPath("/first");
    url.Release();
    EXPECT_EQ("", Copied<1024>(url));

    // A web address names a file only with the file scheme; what it leaves unencoded is encoded.
    ASSERT_TRUE(url.CreateFromWebURL("file:///tmp/two%20words/x"));
    EXPECT_EQ("/tmp/two words/x", Copied<1024>(url));
    ASSERT_TRUE(url.CreateFromWebURL("file:///tmp/a b/100%/\xC3\xA9"));
    EXPECT_EQ("/tmp/a b/100%/\xC3\xA9", Copied<1024>(url));
    ASSERT_TRUE(url.CreateFromWebURL("http://example.com/page.html"));
    EXPECT_EQ("", Copied<1024>(url));
}

TEST(CFBundle, VersionNumbersComeFromTheBundlesInfoFile) {
    struct Case {
        const char* line;
        bool found;
        int major, minor;
    } cases[] = {
        {"CFBundleVersion = 1.23", true, 1, 23}, {"CFBundleVersion=V 2.05", true, 2, 5},
        {"CFBundleVersion = 3", true, 3, 0},     {"CFBundleVersion = V4.1", true, 4, 1},
        {"CFBundleVersion =", false, -1, -1},    {"CFBundleShortVersion = 4.5", false, -1, -1},
    };
    for (const Case& c : cases) {
        TempFolder folder("tavix-bundle");
        std::ofstream(folder / "Info.txt") << "# made by the test\n" << c.line << "\n";
        LCFString path;
        path.SetString(folder.path.c_str());
        CFURLRef url =
            CFURLCreateWithFileSystemPath(nullptr, path.String, kCFURLPOSIXPathStyle, true);
        CFBundleRef made = CFBundleCreate(nullptr, url);
        CFRelease(url);
        ASSERT_NE(nullptr, made);
        int major = -1, minor = -1;
        EXPECT_EQ(c.found, LCFBundle(made).GetVersionNumber(major, minor)) << c.line;
        EXPECT_EQ(c.major, major) << c.line;
        EXPECT_EQ(c.minor, minor) << c.line;
        CFRelease(made);
    }
}

class FSSpecTest : public ::testing::Test {
protected:
    void SetUp() override {
        char resolved[PATH_MAX];
        ASSERT_NE(nullptr, realpath(temp.path.c_str(), resolved));
        folder = resolved;
        ASSERT_EQ(0, mkdir((folder + "/Docs").c_str(), 0755));
        std::ofstream(folder + "/Docs/report") << "text";
    }
    TempFolder temp{"tavix-filerecord"};
    std::string folder;
};

// Existing items and a new name in an existing folder turn back into their paths, the folder
// named through its resolved path.
TEST_F(FSSpecTest, ItemsTurnBackIntoTheirPaths) {
    const std::string fresh = folder + "/Docs/not yet \xC3\xA9"
                                       "crit";
    for (const std::string& path :
         {folder + "/Docs/report", folder + "/Docs", std::string("/"), fresh}) {
        LToFSSpec spec(path.c_str());
        ASSERT_TRUE(spec.bValid) << path;
        EXPECT_EQ(path, Copied<PATH_MAX>(spec));
    }
    EXPECT_EQ(folder + "/Docs/report",
              Copied<PATH_MAX>(LToFSSpec((folder + "/Docs/../Docs/./report").c_str())));
}

// Linux paths run far deeper than 260 bytes, so the copy out must keep to the size it is given.
TEST_F(FSSpecTest, APathIsCutToTheBufferItIsGiven) {
    std::string path = folder;
    for (int level = 0; level < 6; ++level) {
        path += "/" + std::string(60, static_cast<char>('a' + level));
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    }
    path += "/\xC3\xA9t\xC3\xA9";
    std::ofstream(path) << "";
    LToFSSpec spec(path.c_str());
    ASSERT_TRUE(spec.bValid);
    ASSERT_GT(path.size(), 260u);
    EXPECT_EQ("", Copied<PATH_MAX>(LToFSSpec())) << "an invalid record gives nothing";

    // 32 bytes with guards on both sides, the one after long enough to take a whole path.
    std::vector<char> guarded(8 + 32 + path.size() + 8, '#');
    char* out = guarded.data() + 8;
    spec.GetString(out, 32);
    EXPECT_EQ(path.substr(0, 31), std::string(out, strnlen(out, 32)));
    EXPECT_EQ(std::string(8, '#'), std::string(guarded.data(), 8));
    EXPECT_EQ(std::string(guarded.size() - 40, '#'),
              std::string(guarded.data() + 40, guarded.size() - 40))
        << "written past the size";

    // The end of the path: a character is left out whole rather than cut in two.
    std::vector<char> tight(path.size() + 8, '#');
    spec.GetString(tight.data(), path.size());
    EXPECT_EQ(path.substr(0, path.size() - 2), std::string(tight.data()));
    EXPECT_EQ('#', tight[path.size()]);
    spec.GetString(tight.data(), path.size() + 1);
    EXPECT_EQ(path, std::string(tight.data()));

    guarded.assign(guarded.size(), '#');
    spec.GetString(out, 0);
    EXPECT_EQ('#', out[0]) << "nothing at all for a size of 0";
}

TEST_F(FSSpecTest, MissingFoldersAndOverlongNamesAreRefused) {
    const std::string longName = folder + "/" + std::string(64, 'n');
    FSSpec spec;
    // A missing folder, a file taken for a folder, a name too long to record.
    for (const std::string& path :
         {folder + "/Nowhere/file", folder + "/Docs/report/inside", longName})
        EXPECT_EQ(-43, LToFSSpec::CStringToFSSpec(path.c_str(), &spec)) << path;
    std::ofstream(longName) << "";
    EXPECT_EQ(-37, LToFSSpec::CStringToFSSpec(longName.c_str(), &spec));
    EXPECT_FALSE(LToFSSpec((folder + "/Nowhere/file").c_str()).bValid);
}

// The addresses themselves are checked where the opener receives them.
TEST(WebPages, AnAddressStaysWithinTheBound) {
    char out[260];
    EXPECT_EQ(259, GetOrvelWebPageURL(out, std::string(400, 'p').c_str()));
    EXPECT_EQ(259u, strlen(out));
}

// Whole text files with each byte-order mark, odd and empty files, saving, appending and the
// UTF-8 tag, on real files.
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cstdlib>
#include <string>

#include "support/tempfolder.h"
#include "llib/gen/textfiles.h"

namespace {

class TextFilesTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        const std::string path = folder + "/" + name;
        WriteFile(path, bytes);
        return path;
    }
    // The text as a C string: the UTF-16 loaders leave the length field at 0 and the text is
    // read through the buffer.
    static std::string Text(const LStringLongTemplate<char>& text) {
        return text.pData != nullptr ? text.pData : "";
    }
    // What a loader reads into a string that held other text.
    using Loader = bool (*)(const char*, LStringLongTemplate<char>&);
    static std::string Load(Loader load, const std::string& path) {
        LStringLongTemplate<char> text;
        text = "stale";
        return load(path.c_str(), text) ? Text(text) : "(not loaded)";
    }
    TempFolder temp{"tavix-textfiles"};
    std::string folder = temp.path;
};

TEST_F(TextFilesTest, EachLoaderReadsMarksItsOwnWay) {
    const std::string bigEndian = Write("be", std::string("\xFE\xFF\x00\x41\x00\x42", 6));
    const std::string littleEndian = Write("le", std::string("\xFF\xFE\x41\x00\x42\x00", 6));
    const std::string utf8 = Write("u8", "\xEF\xBB\xBF"
                                         "a");
    const std::string markOnly = Write("mark", "\xEF\xBB\xBF");
    const std::string plain = Write("plain", "caf\xC3\xA9");
    for (Loader load : {LLoadTextUnicode, LLoadTextAutoChar}) {
        EXPECT_EQ("AB", Load(load, bigEndian));
        EXPECT_EQ("AB", Load(load, littleEndian));
    }
    // Native order, mark kept: FFFE, 4100, 4200 as UTF-8.
    EXPECT_EQ("\xEF\xBF\xBE\xE4\x84\x80\xE4\x88\x80", Load(LLoadTextAsUTF16, bigEndian));
    EXPECT_EQ("\xEF\xBB\xBF"
              "AB",
              Load(LLoadTextAsUTF16, littleEndian))
        << "the mark stays as U+FEFF";

    EXPECT_EQ("a", Load(LLoadTextAutoChar, utf8));
    EXPECT_EQ("\xEF\xBB\xBF"
              "a",
              Load(LLoadText, utf8));
    EXPECT_EQ("", Load(LLoadTextAutoChar, markOnly));
    EXPECT_EQ("caf\xC3\xA9", Load(LLoadTextAutoChar, plain)) << "no mark: the bytes as they are";
}

TEST_F(TextFilesTest, EmptyOddAndMissingFiles) {
    const std::string empty = Write("empty", "");
    const std::string single = Write("single", "x");
    const std::string odd = Write("odd", std::string("\xFE\xFF\x00\x41\x00", 5));
    for (Loader load : {LLoadText, LLoadTextUnicode, LLoadTextAsUTF16, LLoadTextAutoChar})
        EXPECT_EQ("", Load(load, empty));
    EXPECT_EQ("", Load(LLoadTextUnicode, single));
    EXPECT_EQ("A", Load(LLoadTextUnicode, odd)) << "an odd last byte is ignored";
    EXPECT_EQ("A", Load(LLoadTextAutoChar, odd))
        << "the odd byte pairs with a zero: U+0000 ends the text";

    LStringLongTemplate<char> text;
    LSaveText((folder + "/keep").c_str(), "kept");
    ASSERT_TRUE(LLoadText((folder + "/keep").c_str(), text));
    for (Loader load : {LLoadText, LLoadTextUnicode, LLoadTextAsUTF16, LLoadTextAutoChar}) {
        EXPECT_FALSE(load((folder + "/missing").c_str(), text));
        EXPECT_EQ("kept", Text(text)) << "untouched on failure";
        EXPECT_FALSE(load(std::string(10000, 'p').c_str(), text));
    }
}

TEST_F(TextFilesTest, SavingAppendingAndTheUtf8Tag) {
    const std::string path = folder + "/saved.txt";
    const int tagged = LSaveText(path.c_str(), "first");
    EXPECT_EQ("first", ReadFile(path));
    LStringLongTemplate<char> more;
    more = " second";
    LSaveAppendText(path.c_str(), more);
    EXPECT_EQ("first second", ReadFile(path));
    LSaveText(path.c_str(), more);
    EXPECT_EQ(" second", ReadFile(path)) << "saving replaces";

    const std::string created = folder + "/appended";
    LSaveAppendText(created.c_str(), "new");
    EXPECT_EQ("new", ReadFile(created)) << "appending creates a missing file";

    char value[64] = {};
    const ssize_t got = getxattr(path.c_str(), "user.com.apple.TextEncoding", value, sizeof value);
    if (tagged == 0) {
        EXPECT_EQ("utf-8;134217984", std::string(value, got > 0 ? got : 0));
    } else {
        EXPECT_EQ(-1, got) << "a file system without user attributes: the tag fails";
    }
    EXPECT_NE(0, LSaveText((folder + "/no/such/folder.txt").c_str(), "x")) << "nothing to tag";
}

TEST_F(TextFilesTest, Utf16WithAMarkRoundTrips) {
    const std::string path = folder + "/unicode.txt";
    LStringLongTemplate<char> text;
    text = "abc";
    LSaveTextAsUnicodeBOM(path.c_str(), text);
    EXPECT_EQ(std::string("\xFF\xFE"
                          "a\0b\0c\0",
                          8),
              ReadFile(path));

    const std::string mixed = "gr\xC3\xBC\xC3\x9F\xE6\x97\xA5";
    text = mixed.c_str();
    LSaveTextAsUnicodeBOM(path.c_str(), text);
    EXPECT_EQ(mixed, Load(LLoadTextAutoChar, path));
}

} // namespace

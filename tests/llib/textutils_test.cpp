#include "llib/gen/commandlineparser.h"
#include "llib/gen/endian.h"
#include "llib/gen/llibbase.h"
#include "llib/gen/stringparse.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string Stripped(void (*strip)(char*, const char*), const char* source) {
    std::vector<char> out(strlen(source) + 1, 'x');
    strip(out.data(), source);
    return out.data();
}

std::vector<std::string> CSVItems(const char* line, std::vector<unsigned long>* positions = nullptr,
                                  unsigned long size = 64) {
    std::vector<std::string> items;
    unsigned long position = 0;
    while (line[position] != 0 && line[position] != '\n' && line[position] != '\r') {
        std::vector<char> item(size + 1, 'x');
        GetCSVListItem(line, position, item.data(), size);
        items.push_back(size > 0 ? item.data() : "");
        if (positions != nullptr)
            positions->push_back(position);
    }
    return items;
}

std::vector<std::string> Arguments(const char* commandLine) {
    std::vector<std::string> arguments;
    LCommandLineArgumentStringExpander expander(commandLine);
    if (expander.Argument.nLength == 0)
        return arguments;
    do
        arguments.push_back(expander.Argument.GetText());
    while (expander.NextArgument());
    return arguments;
}

} // namespace

TEST(Labels, MnemonicMarkersAndShortcutsAreStripped) {
    EXPECT_EQ("Save & Exit", Stripped(&LStripAmpersand, "&Save && Exit&"));
    EXPECT_EQ("a&b", Stripped(&LPrepareForDisplay, "&a&&&b"));
    EXPECT_EQ("\xE3\x83\x95", Stripped(&LStripJPStyleAmpersand, "\xE3\x83\x95(&F)"));
    EXPECT_EQ("Save & Exit (x)", Stripped(&LStripJPStyleAmpersand, "Save & Exit (x)"));
    EXPECT_EQ("ab", Stripped(&LStripJPStyleAmpersand, "a(&B)b"));
    EXPECT_EQ("a", Stripped(&LStripJPStyleAmpersand, "a(&unclosed"));
    char out[260] = "junk";
    LStripJPStyleAmpersand(out, nullptr);
    EXPECT_STREQ("", out);
    LPrepareForMenuItem(out, "&Open\tCtrl+O");
    EXPECT_STREQ("Open", out);
    LPrepareForMenuItem(out, std::string(1000, 'm').c_str());
    EXPECT_EQ(259u, strlen(out));
}

TEST(URIEncoding, KeepsUnreservedCharactersAndEscapesTheRest) {
    char out[260];
    LURIEncode(out, "a b/\xC3\xA9");
    EXPECT_STREQ("a%20b%2F%C3%A9", out);
    LURIEncode(out, "AZaz09-_.!~*'()");
    EXPECT_STREQ("AZaz09-_.!~%2A%27%28%29", out);
    // A long text is cut at 259 characters, escapes included.
    const std::string spaces(200, ' ');
    LURIEncode(out, spaces.c_str());
    EXPECT_EQ(259u, strlen(out));
    EXPECT_STREQ("0%", out + 257) << "the last escape is cut short";
}

TEST(QueryStrings, RemovingAnItemKeepsTheOthers) {
    struct Case {
        const char* name;
        const char* query;
        const char* expected;
    } cases[] = {{"b", "a=1&b=2&c=3", "a=1&c=3"},
                 {"a", "a=1&b=2&c=3", "&b=2&c=3"},
                 {"c", "a=1&b=2&c=3", "a=1&b=2"},
                 {"d", "a=1&b=2", "a=1&b=2"},
                 {"b", "ab=1&c=3", "a&c=3"}, // the key is found inside a longer name
                 {"a", "a=", ""}};
    for (const Case& c : cases) {
        char query[64];
        strcpy(query, c.query);
        LRemoveHTTPItem(c.name, query);
        EXPECT_STREQ(c.expected, query) << c.name << " in " << c.query;
    }
}

TEST(TextFields, FoundBetweenMarkersAndCutToTheSize) {
    char out[8];
    EXPECT_TRUE(FindTextField("<a>one</a><a>two</a>", "<a>", "</a>", out, sizeof out));
    EXPECT_STREQ("one", out);
    EXPECT_TRUE(FindTextField("[0123456789]", "[", "]", out, sizeof out));
    EXPECT_STREQ("0123456", out);
    EXPECT_FALSE(FindTextField("nothing here", "<a>", "</a>", out, sizeof out));
    EXPECT_STREQ("", out);
}

TEST(CSV, ItemsAreTrimmedQuotedAndAdvancePastTheirComma) {
    std::vector<unsigned long> positions;
    const char* line = " x , y, \"z, \" ,w";
    EXPECT_EQ((std::vector<std::string>{"x", "y", "z, ", "w"}), CSVItems(line, &positions));
    EXPECT_EQ((std::vector<unsigned long>{4, 7, 15, 16}), positions);
    EXPECT_EQ((std::vector<std::string>{"ab", "", "c"}), CSVItems("\"a\"\"b\",,c"))
        << "doubled quotes store nothing";
    EXPECT_EQ((std::vector<std::string>{"  padded  "}), CSVItems("\"  padded  \""));
    EXPECT_EQ((std::vector<std::string>{"ab", "x"}), CSVItems("abcdef,x", nullptr, 3));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), CSVItems("a,b\r\nc,d"));

    unsigned long position = 3;
    char item[8];
    EXPECT_FALSE(GetCSVListItem("a,b\nc", position, item, sizeof item));
    EXPECT_EQ(3u, position) << "a line end is not consumed";
    position = 0;
    EXPECT_FALSE(GetCSVListItem(" , x", position, item, sizeof item));
    EXPECT_EQ(2u, position);
    EXPECT_STREQ("", item);
    position = 0;
    EXPECT_FALSE(GetCSVListItem("abc", position, item, 0)) << "nothing is kept in no room";
    EXPECT_EQ(3u, position);
}

TEST(CommandLine, BlanksSeparateQuotesGroupAndBackslashKeepsASpace) {
    EXPECT_EQ((std::vector<std::string>{"a b", "c d", "e"}), Arguments("a\\ b \"c d\" e"));
    EXPECT_EQ((std::vector<std::string>{"tool", "C:\\dir\\x", "-v"}),
              Arguments("  \t tool   C:\\dir\\x -v  "));
    EXPECT_EQ((std::vector<std::string>{"a\tb", "c"}), Arguments("a\tb c"));
    EXPECT_EQ((std::vector<std::string>{"abcd", "e"}), Arguments("ab\"cd\"e"))
        << "a quote opens inside an argument, and its closing quote ends it";
    EXPECT_EQ((std::vector<std::string>{"unclosed quote"}), Arguments("\"unclosed quote"));
    EXPECT_EQ((std::vector<std::string>{"end\\"}), Arguments("end\\"));
    EXPECT_TRUE(Arguments("   ").empty());
    EXPECT_TRUE(Arguments(nullptr).empty());
    EXPECT_TRUE(Arguments("\"\" a").empty()) << "an empty argument reads as the end";
    const std::string p(10000, 'p'), q(5000, 'q');
    EXPECT_EQ((std::vector<std::string>{p, q}), Arguments((p + " \"" + q + "\"").c_str()))
        << "long arguments grow the string";
}

TEST(Numbers, HexadecimalCaseAndByteOrder) {
    EXPECT_EQ(0x1Fu, atoh("1fZ"));
    EXPECT_EQ(0u, atoh("0x10")) << "no prefix";
    EXPECT_EQ(0xDEADBEEFu, atoh("DeadBeef"));
    EXPECT_EQ(0x23456789u, atoh("123456789")) << "wraps at 32 bits";
    EXPECT_EQ(0xABCu, wtoh(L"abc-"));

    char text[] = "MiXeD 1\xC3\xA9";
    EXPECT_STREQ("MIXED 1\xC3\xA9", strupr(text));
    EXPECT_STREQ("mixed 1\xC3\xA9", strlwr(text));

    uint16_t u16 = 0x1234; // the wider sizes are the compiler's byte swaps
    LEndianReverse(u16);
    EXPECT_EQ(0x3412, u16);
}

TEST(Strings, ThinHelpersAndThePrefixComparison) {
    EXPECT_EQ(0, wstrcmp(L"abc", L"ab"));
    EXPECT_EQ(0, wstrcmp(L"ab", L"abc"));
    EXPECT_EQ(-1, wstrcmp(L"abd", L"abc")) << "never positive";

    char password[17];
    EXPECT_EQ(16u, LGenerateRandomPassword(password, 16));
    EXPECT_EQ(16u, strlen(password));
    EXPECT_EQ(16u, strspn(password, "abcdefghijklmnopqrstuvwxyz"));
}

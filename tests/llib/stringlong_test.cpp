#include "llib/gen/array.h"
#include "llib/gen/stringlong.h"
#include "llib/gen/stringtools.h"

#include <gtest/gtest.h>
#include <string>

TEST(StringLong, GrowsOnRequestNeverShrinksAndBoundsTheLength) {
    LStringLongTemplate<char> text;
    EXPECT_STREQ("", text.GetText()) << "no buffer yet";
    text.GrowToSize(10);
    EXPECT_STREQ("", text.pData);
    char* before = text.pData;
    text.GrowToSize(5);
    EXPECT_EQ(before, text.pData);
    EXPECT_EQ(10u, text.nSize);
    text = "hello";
    text.GrowToSize(100);
    EXPECT_STREQ("hello", text.pData);
    EXPECT_EQ(5u, text.nLength);

    LStringLongTemplate<unsigned short> units(8);
    for (int i = 0; i < 7; ++i)
        units.pData[i] = static_cast<unsigned short>('a' + i);
    units.SetLength(7);
    EXPECT_EQ(0, units.pData[7]);
    units.SetLength(8); // would leave no room for the terminator
    EXPECT_EQ(7u, units.nLength);
    LStringLongTemplate<wchar_t> empty;
    empty.SetLength(0); // no buffer: nothing happens
    EXPECT_EQ(nullptr, empty.pData);
}

TEST(StringLong, AssignmentSurvivesItsOwnTextAndAssignMovesTheBuffer) {
    LStringLongTemplate<char> text;
    text = "abcdef";
    text = text.pData; // the source lies in the string's own buffer
    EXPECT_STREQ("abcdef", text.pData);
    text = text.pData + 2;
    EXPECT_STREQ("cdef", text.pData);
    EXPECT_EQ(4u, text.nLength);
    text = static_cast<const char*>(nullptr);
    EXPECT_STREQ("", text.pData);

    LStringLongTemplate<char> source, target;
    source = "moved";
    target = "old";
    char* buffer = source.pData;
    target.Assign(source);
    EXPECT_EQ(buffer, target.pData);
    EXPECT_EQ(5u, target.nLength);
    EXPECT_EQ(nullptr, source.pData);
    EXPECT_EQ(0u, source.nSize);
    target.Assign(target); // harmless
    EXPECT_STREQ("moved", LUTF8StringLongRef(target));
    EXPECT_STREQ("", LUTF8StringLongRef(source));
    // Both destructors run; AddressSanitizer would report a double free.
}

TEST(StringWriters, GrowableWritersGrowFourfoldFrom260) {
    LStringLongTemplate<char> text;
    text.GrowToSize(260);
    LStringLongTemplateWriter<char> writer(text);
    for (int i = 0; i < 260; ++i)
        writer.Put('a');
    EXPECT_EQ(1040u, text.nSize) << "the 260th fills the last slot and grows";
    const std::string run(1000, 'c');
    writer.PutRun(run.data(), run.size());
    writer.Terminate();
    EXPECT_EQ(std::string(260, 'a') + run, text.pData);
}

TEST(StringParser, SplitsAtDelimitersAndBoundsPieces) {
    char piece[260];
    LStringParserTemplate<char> parser("key=value;next");
    parser.GetToCharacterAndSkip("=", piece);
    EXPECT_STREQ("key", piece);
    EXPECT_STREQ("value;next", parser.pCursor);
    parser.SkipToCharacterAndSkip(";");
    parser.SkipToCharacterAndSkip(";");
    EXPECT_EQ('\0', *parser.pCursor) << "no delimiter: the cursor ends on the terminator";
    parser.GetToCharacterAndSkip(";", piece);
    EXPECT_STREQ("", piece);

    const std::string longText(1000, 'z');
    EXPECT_EQ(1000u, LParseGetToCharacters((longText + ",x").c_str(), ",", piece));
    EXPECT_EQ(259u, strlen(piece));

    char text[] = "a/b/c";
    EXPECT_EQ(text, LStringReplaceChar(text, '/', '\\'));
    EXPECT_STREQ("a\\b\\c", text);
    EXPECT_STREQ("a\\b\\c", LStringReplaceChar(text, '\0', 'x'));
}

TEST(Containers, VectorResizesKeepingItsHead) {
    LVector<char*> items;
    char a[] = "a", b[] = "b";
    items.SetSize(2);
    items[0] = a;
    items[1] = b;
    items.SetSize(5);
    EXPECT_EQ(b, items[1]);
    items.SetSize(1);
    EXPECT_EQ(a, items[0]);
    items.SetSize(0);
    EXPECT_EQ(nullptr, items.pItems);
}

#include "llib/gen/array.h"
#include "llib/gen/stringlong.h"
#include "llib/gen/stringtools.h"

#include <gtest/gtest.h>
#include <string>

TEST(StringLong, GrowsExactlyOnRequestAndNeverShrinks) {
    LStringLongTemplate<char> text;
    EXPECT_EQ(nullptr, text.pData);
    EXPECT_STREQ("", text.GetText());
    text.GrowToSize(10);
    ASSERT_NE(nullptr, text.pData);
    EXPECT_EQ(10u, text.nSize);
    EXPECT_EQ(0u, text.nLength);
    EXPECT_STREQ("", text.pData);
    char* before = text.pData;
    text.GrowToSize(5);
    EXPECT_EQ(before, text.pData);
    EXPECT_EQ(10u, text.nSize);
    text = "hello";
    text.GrowToSize(100);
    EXPECT_STREQ("hello", text.pData);
    EXPECT_EQ(5u, text.nLength);
    EXPECT_EQ(100u, text.nSize);
}

TEST(StringLong, CapacityConstructorAndLengthSetting) {
    LStringLongTemplate<unsigned short> units(8);
    EXPECT_EQ(8u, units.nSize);
    EXPECT_EQ(0, units.pData[0]);
    for (int i = 0; i < 7; ++i)
        units.pData[i] = static_cast<unsigned short>('a' + i);
    units.SetLength(7);
    EXPECT_EQ(7u, units.nLength);
    EXPECT_EQ(0, units.pData[7]);
    units.SetLength(8); // would leave no room for the terminator
    EXPECT_EQ(7u, units.nLength);
    units.SetLength(2);
    EXPECT_EQ(0, units.pData[2]);
    LStringLongTemplate<wchar_t> empty;
    empty.SetLength(0); // no buffer: nothing happens
    EXPECT_EQ(nullptr, empty.pData);
}

TEST(StringLong, AssignmentCopiesExactlyAndSurvivesItsOwnText) {
    LStringLongTemplate<char> text;
    text = "abcdef";
    EXPECT_EQ(7u, text.nSize);
    text = text.pData; // the source lies in the string's own buffer
    EXPECT_STREQ("abcdef", text.pData);
    text = text.pData + 2;
    EXPECT_STREQ("cdef", text.pData);
    EXPECT_EQ(4u, text.nLength);
    EXPECT_EQ(5u, text.nSize);
    text = static_cast<const char*>(nullptr);
    EXPECT_STREQ("", text.pData);
}

TEST(StringLong, AssignTakesOverTheBufferWithoutCopying) {
    LStringLongTemplate<char> source, target;
    source = "moved";
    target = "old";
    char* buffer = source.pData;
    target.Assign(source);
    EXPECT_EQ(buffer, target.pData);
    EXPECT_EQ(5u, target.nLength);
    EXPECT_EQ(6u, target.nSize);
    EXPECT_EQ(nullptr, source.pData);
    EXPECT_EQ(0u, source.nLength);
    EXPECT_EQ(0u, source.nSize);
    target.Assign(target); // harmless
    EXPECT_STREQ("moved", target.pData);
    EXPECT_STREQ("", LUTF8StringLongRef(source));
    EXPECT_STREQ("moved", LUTF8StringLongRef(target));
    // Both destructors run; AddressSanitizer would report a double free.
}

TEST(StringWriters, FixedWriterKeepsWhatFitsAndCountsIt) {
    char buffer[4] = {'x', 'x', 'x', 'x'};
    LFixedLengthStringWriterTemplate<char> writer(buffer, sizeof buffer);
    for (char c : std::string("abcde"))
        writer.Put(c);
    EXPECT_EQ(3u, writer.nPos);
    EXPECT_EQ('x', buffer[3]) << "the writer never writes the terminator";
    writer.Terminate();
    EXPECT_STREQ("abc", buffer);
    // Runs are cut the same way, at every boundary.
    for (unsigned int size = 1; size <= 8; ++size) {
        char out[8];
        LFixedLengthStringWriterTemplate<char> run(out, size);
        run.PutRun("abcdefg", 7);
        run.Terminate();
        EXPECT_EQ(std::string("abcdefg").substr(0, size - 1), out);
    }
}

TEST(StringWriters, GrowableWritersGrowFourfoldFrom260) {
    LStringLongTemplate<char> text;
    text.GrowToSize(260);
    LStringLongTemplateWriter<char> writer(text);
    for (int i = 0; i < 259; ++i)
        writer.Put('a');
    EXPECT_EQ(260u, text.nSize);
    writer.Put('b'); // the 260th fills the last slot and grows
    EXPECT_EQ(1040u, text.nSize);
    EXPECT_EQ(260u, text.nLength);
    const std::string run(1000, 'c');
    writer.PutRun(run.data(), run.size());
    EXPECT_EQ(4160u, text.nSize);
    EXPECT_EQ(1260u, text.nLength);
    writer.Terminate();
    EXPECT_EQ(1260u, strlen(text.pData));

    LStringLongTemplate<char> kept;
    kept = "ab";
    LStringLongTemplateAppender<char> appender(kept);
    EXPECT_EQ(260u, kept.nSize);
    EXPECT_EQ(2u, kept.nLength);
    appender.Put('c');
    appender.Terminate();
    EXPECT_STREQ("abc", kept.pData);
}

TEST(StringParser, SplitsAtDelimitersAndBoundsPieces) {
    char piece[260];
    EXPECT_EQ(3u, LParseGetToCharacters("key=value", "=", piece));
    EXPECT_STREQ("key", piece);
    LStringParserTemplate<char> parser("key=value;next");
    parser.GetToCharacterAndSkip("=", piece);
    EXPECT_STREQ("key", piece);
    EXPECT_STREQ("value;next", parser.pCursor);
    parser.SkipToCharacterAndSkip(";");
    EXPECT_STREQ("next", parser.pCursor);
    parser.SkipToCharacterAndSkip(";");
    EXPECT_EQ('\0', *parser.pCursor) << "no delimiter: the cursor ends on the terminator";
    parser.GetToCharacterAndSkip(";", piece);
    EXPECT_STREQ("", piece);

    const std::string longText(1000, 'z');
    EXPECT_EQ(1000u, LParseGetToCharacters((longText + ",x").c_str(), ",", piece));
    EXPECT_EQ(259u, strlen(piece));
}

TEST(StringReplaceChar, ReplacesInPlaceAndIgnoresNoOps) {
    char text[] = "a/b/c";
    EXPECT_EQ(text, LStringReplaceChar(text, '/', '\\'));
    EXPECT_STREQ("a\\b\\c", text);
    EXPECT_STREQ("a\\b\\c", LStringReplaceChar(text, 'b', 'b'));
    EXPECT_STREQ("a\\b\\c", LStringReplaceChar(text, '\0', 'x'));
}

TEST(Containers, VectorResizesKeepingItsHead) {
    LVector<char*> items;
    EXPECT_EQ(nullptr, items.pItems);
    char a[] = "a", b[] = "b";
    items.SetSize(2);
    items[0] = a;
    items[1] = b;
    items.SetSize(5);
    EXPECT_EQ(a, items[0]);
    EXPECT_EQ(b, items[1]);
    items.SetSize(1);
    EXPECT_EQ(1u, items.nCount);
    EXPECT_EQ(a, items[0]);
    items.SetSize(0);
    EXPECT_EQ(nullptr, items.pItems);
    LArray<wchar_t> wide(3);
    wide[2] = L'x';
    EXPECT_EQ(L'x', wide.pItems[2]);
}

#include "llib/gen/stringtools.h"

#include <climits>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

// These tests hand the engine malformed formats and null texts on purpose.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wformat-overflow"
#endif

// What the engine writes with room to spare; the count it returns must be the text's length.
template <class... Arguments>
std::string Formatted(const char* format, Arguments... arguments) {
    char out[300] = "not written";
    const unsigned long n = tplsnprintf(out, sizeof out, format, arguments...);
    EXPECT_EQ(strlen(out), n) << (format != nullptr ? format : "(null)");
    return out;
}

// The engine's own conversions must agree with the C library's.
template <class... Arguments>
void ExpectLikeSnprintf(const char* format, Arguments... arguments) {
    char theirs[300];
    snprintf(theirs, sizeof theirs, format, arguments...);
    EXPECT_EQ(theirs, Formatted(format, arguments...)) << format;
}

TEST(FormattedOutput, ConversionsAgreeWithTheCLibrary) {
    ExpectLikeSnprintf("%d|%i|%u", -42, 7, 3000000000u);
    ExpectLikeSnprintf("%x|%X|%o", 255, 0xBEEF, 8);
    ExpectLikeSnprintf("%05d|%8.3d|%c", 42, 7, 'z');
    ExpectLikeSnprintf("%e|%f|%g", 12345.678, 3.14159, 0.0001);
    ExpectLikeSnprintf("%.2f|%10.4f|%012.3e", 3.14159, -2.5, 1e10);
    ExpectLikeSnprintf("%d %d", INT_MIN, INT_MAX);
    ExpectLikeSnprintf("literal text only%s", "");
    ExpectLikeSnprintf("100%% of %s", "it");
    int local = 0;
    ExpectLikeSnprintf("%p", static_cast<void*>(&local));
}

// A character of 0 would end the text early: it is left out, and only the padding a width asks
// for remains, in every writer.
TEST(FormattedOutput, ACharacterOfZeroPutsOnlyItsPadding) {
    char out[64];
    unsigned long n = tplsnprintf(out, sizeof out, "%c%c", 0, 'x');
    EXPECT_EQ("x", std::string(out, n));
    n = tplsnprintf(out, sizeof out, "a%3cb", 0);
    EXPECT_EQ("a  b", std::string(out, n));
    n = tplsnprintf(out, sizeof out, "a%-3cb", 0);
    EXPECT_EQ("a  b", std::string(out, n));

    LStringLongTemplate<char> text;
    EXPECT_EQ(4u, sprintf(text, "a%3cb", 0));
    EXPECT_EQ("a  b", std::string(text.pData, text.nLength));
    LStringLongTemplate<char> appended;
    appended = "<";
    EXPECT_EQ(3u, tsprintfappend(appended, "%2c>", 0));
    EXPECT_EQ("< >", std::string(appended.pData)) << "the count and the text agree";
}

TEST(FormattedOutput, FixedBufferIsBoundedAndTerminated) {
    char out[5];
    EXPECT_EQ(4u, tplsnprintf(out, sizeof out, "%s", "abcdef"));
    EXPECT_STREQ("abcd", out);
    EXPECT_EQ(4u, tplsnprintf(out, sizeof out, "%d", 123456));
    EXPECT_STREQ("1234", out);
    // Every size from 1 to the full length stores exactly the prefix that fits.
    const std::string full = "abc12.50xyz";
    for (unsigned long size = 1; size <= full.size() + 2; ++size) {
        char buffer[32];
        memset(buffer, '#', sizeof buffer);
        const unsigned long n = tplsnprintf(buffer, size, "abc%.2fxyz", 12.5);
        EXPECT_EQ(std::min(size - 1, full.size()), n);
        EXPECT_EQ(full.substr(0, n), buffer);
        EXPECT_EQ('#', buffer[size]) << "nothing written past the buffer";
    }
}

TEST(FormattedOutput, WritersContinueReplaceAndAppend) {
    char buffer[16];
    LFixedLengthStringWriterTemplate<char> writer(buffer, sizeof buffer);
    sprintf(writer, "%d-", 1);
    EXPECT_EQ(6u, sprintf(writer, "%s-%d", "ab", 2));
    writer.Terminate();
    EXPECT_STREQ("1-ab-2", buffer) << "no terminator in between, so the output continues";

    // A string's width is ignored, and a null string puts nothing.
    LStringLongTemplate<char> text;
    text = "previous";
    EXPECT_EQ(18u, sprintf(text, "%05d|%.2f|%x|%10s|%s%%", 42, 3.14159, 255, "ab",
                           static_cast<const char*>(nullptr)));
    EXPECT_STREQ("00042|3.14|ff|ab|%", text.pData);

    LStringLongTemplate<char> big;
    const std::string chunk(1000, 'q');
    for (int i = 0; i < 10; ++i)
        tsprintfappend(big, "%s", chunk.c_str());
    EXPECT_EQ(10000u, big.nLength);
    EXPECT_EQ(std::string(10000, 'q'), big.pData);
}

TEST(FormattedOutput, NullAndUnfinishedFormats) {
    EXPECT_EQ("", Formatted(nullptr));
    EXPECT_EQ("abc", Formatted("abc%"));
    EXPECT_EQ("abc", Formatted("abc%12"));
    EXPECT_EQ("a", Formatted("a%l"));
    LStringLongTemplate<char> text;
    EXPECT_EQ(0u, sprintf(text, nullptr));
    EXPECT_STREQ("", text.pData);
}

TEST(FormattedOutput, OutsideTheSyntaxTheArgumentsStayAligned) {
    // Flags, '*' and length modifiers read exactly the arguments the C library would, so the
    // %s after them gets its own argument.
    EXPECT_EQ("[42   ]ok", Formatted("[%-5d]%s", 42, "ok"));
    EXPECT_EQ("1099511627776|-1125899906842624|7|ok",
              Formatted("%ld|%lld|%zu|%s", 1L << 40, -(1LL << 50), static_cast<size_t>(7), "ok"));
    EXPECT_EQ("[    42]ok", Formatted("[%*d]%s", 6, 42, "ok"));
    EXPECT_EQ("1.500000E+00|ok", Formatted("%E|%s", 1.5, "ok"));
    EXPECT_EQ("+5|0xff| 3|1", Formatted("%+d|%#x|% d|%hhd", 5, 255, 3, 257));
    // An unknown conversion reads one int and is put as written.
    EXPECT_EQ("%5y|ok", Formatted("%5y|%s", 99, "ok"));
    int target = 1234;
    EXPECT_EQ("abcd", Formatted("ab%ncd", &target));
    EXPECT_EQ(1234, target) << "%n stores nothing";
}

TEST(FormattedOutput, HugeWidthsAndPrecisionsAreCutAt259) {
    LStringLongTemplate<char> text;
    // Up to the cap the conversion is whole; from there on it is cut, and never holds a 0.
    for (const unsigned long width : {258ul, 259ul, 260ul, 261ul, 500ul}) {
        const std::string format = "%" + std::to_string(width) + "d";
        const unsigned long n = sprintf(text, format.c_str(), 1);
        EXPECT_EQ(std::min(width, 259ul), n) << format;
        EXPECT_EQ(n, strlen(text.pData)) << format;
    }
    EXPECT_EQ(259u + 2, sprintf(text, "%.400f|%s", 1.0, "x")) << text.pData;
    const std::string digits(1000, '9');
    const std::string format = "%" + digits + "d|%s";
    sprintf(text, format.c_str(), 1, "x"); // a width the C library refuses
    EXPECT_EQ(std::string("|x"), text.pData + text.nLength - 2);
}

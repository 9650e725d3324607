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

// The engine's own conversions must agree with the C library's.
#define EXPECT_LIKE_SNPRINTF(format, ...)                                                          \
    do {                                                                                           \
        char ours[300], theirs[300];                                                               \
        const unsigned long n = tplsnprintf(ours, sizeof ours, format, __VA_ARGS__);               \
        snprintf(theirs, sizeof theirs, format, __VA_ARGS__);                                      \
        EXPECT_STREQ(theirs, ours) << format;                                                      \
        EXPECT_EQ(strlen(theirs), n) << format;                                                    \
    } while (0)

TEST(FormattedOutput, ConversionsAgreeWithTheCLibrary) {
    EXPECT_LIKE_SNPRINTF("%d|%i|%u", -42, 7, 3000000000u);
    EXPECT_LIKE_SNPRINTF("%x|%X|%o", 255, 0xBEEF, 8);
    EXPECT_LIKE_SNPRINTF("%05d|%8.3d|%c", 42, 7, 'z');
    EXPECT_LIKE_SNPRINTF("%e|%f|%g", 12345.678, 3.14159, 0.0001);
    EXPECT_LIKE_SNPRINTF("%.2f|%10.4f|%012.3e", 3.14159, -2.5, 1e10);
    EXPECT_LIKE_SNPRINTF("%d %d", INT_MIN, INT_MAX);
    EXPECT_LIKE_SNPRINTF("literal text only%s", "");
    EXPECT_LIKE_SNPRINTF("100%% of %s", "it");
    int local = 0;
    EXPECT_LIKE_SNPRINTF("%p", static_cast<void*>(&local));
}

TEST(FormattedOutput, StringsIgnoreWidthAndNullPutsNothing) {
    char out[64];
    EXPECT_EQ(2u, tplsnprintf(out, sizeof out, "%10s", "ab"));
    EXPECT_STREQ("ab", out);
    EXPECT_EQ(2u, tplsnprintf(out, sizeof out, "[%s]", static_cast<const char*>(nullptr)));
    EXPECT_STREQ("[]", out);
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
    char one[1] = {'x'};
    EXPECT_EQ(0u, tplsnprintf(one, 1, "anything %d", 5));
    EXPECT_EQ('\0', one[0]);
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

    LStringLongTemplate<char> text;
    text = "previous";
    EXPECT_EQ(15u, sprintf(text, "%05d|%.2f|%x|%s%%", 42, 3.14159, 255,
                           static_cast<const char*>(nullptr)));
    EXPECT_STREQ("00042|3.14|ff|%", text.pData);

    LStringLongTemplate<char> appended;
    appended = "ab";
    EXPECT_EQ(3u, tsprintfappend(appended, "%d", 7));
    EXPECT_STREQ("ab7", appended.pData);

    LStringLongTemplate<char> big;
    const std::string chunk(1000, 'q');
    for (int i = 0; i < 10; ++i)
        tsprintfappend(big, "%s", chunk.c_str());
    EXPECT_EQ(10000u, big.nLength);
    EXPECT_EQ(std::string(10000, 'q'), big.pData);
}

TEST(FormattedOutput, NullAndUnfinishedFormats) {
    char out[32] = "untouched";
    EXPECT_EQ(0u, tplsnprintf(out, sizeof out, nullptr));
    EXPECT_STREQ("", out);
    EXPECT_EQ(3u, tplsnprintf(out, sizeof out, "abc%"));
    EXPECT_STREQ("abc", out);
    EXPECT_EQ(3u, tplsnprintf(out, sizeof out, "abc%12"));
    EXPECT_STREQ("abc", out);
    EXPECT_EQ(1u, tplsnprintf(out, sizeof out, "a%l"));
    EXPECT_STREQ("a", out);
    LStringLongTemplate<char> text;
    EXPECT_EQ(0u, sprintf(text, nullptr));
    EXPECT_STREQ("", text.pData);
}

TEST(FormattedOutput, OutsideTheSyntaxTheArgumentsStayAligned) {
    char out[128];
    // Flags, '*' and length modifiers read exactly the arguments the C library would, so the
    // %s after them gets its own argument.
    tplsnprintf(out, sizeof out, "[%-5d]%s", 42, "ok");
    EXPECT_STREQ("[42   ]ok", out);
    tplsnprintf(out, sizeof out, "%ld|%lld|%zu|%s", 1L << 40, -(1LL << 50), static_cast<size_t>(7),
                "ok");
    EXPECT_STREQ("1099511627776|-1125899906842624|7|ok", out);
    tplsnprintf(out, sizeof out, "[%*d]%s", 6, 42, "ok");
    EXPECT_STREQ("[    42]ok", out);
    tplsnprintf(out, sizeof out, "%E|%s", 1.5, "ok");
    EXPECT_STREQ("1.500000E+00|ok", out);
    tplsnprintf(out, sizeof out, "%+d|%#x|% d|%hhd", 5, 255, 3, 257);
    EXPECT_STREQ("+5|0xff| 3|1", out);
    // An unknown conversion reads one int and is put as written.
    tplsnprintf(out, sizeof out, "%5y|%s", 99, "ok");
    EXPECT_STREQ("%5y|ok", out);
    int target = 1234;
    tplsnprintf(out, sizeof out, "ab%ncd", &target);
    EXPECT_STREQ("abcd", out);
    EXPECT_EQ(1234, target) << "%n stores nothing";
}

TEST(FormattedOutput, HugeWidthsAndPrecisionsAreCutAt259) {
    LStringLongTemplate<char> text;
    EXPECT_EQ(259u, sprintf(text, "%500d", 1));
    EXPECT_EQ(259u + 2, sprintf(text, "%.400f|%s", 1.0, "x")) << text.pData;
    const std::string digits(1000, '9');
    const std::string format = "%" + digits + "d|%s";
    sprintf(text, format.c_str(), 1, "x"); // a width the C library refuses
    EXPECT_EQ(std::string("|x"), text.pData + text.nLength - 2);
}

#include "llib/gen/charsets.h"
#include "llib/gen/utf8blocks.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr wchar_t kCanaryWide = 0x5A5A5A5A;
constexpr char kCanary = 0x5A;

// Decodes into a buffer of exactly `size` characters followed by canaries.
int Decode(const std::string& source, unsigned long size, std::u32string& out) {
    std::vector<wchar_t> buffer(size + 4, kCanaryWide);
    const int result = LCopyUTF32FromUTF8(buffer.data(), source.c_str(), size);
    for (unsigned long i = size; i < size + 4; ++i)
        EXPECT_EQ(kCanaryWide, buffer[i]) << "written past the destination, size " << size;
    out.clear();
    if (size > 0)
        out.assign(buffer.begin(), std::find(buffer.begin(), buffer.end(), 0));
    return result;
}

int Encode(const std::u32string& source, unsigned long size, std::string& out) {
    std::vector<wchar_t> wide(source.begin(), source.end());
    wide.push_back(0);
    std::vector<char> buffer(size + 4, kCanary);
    const int result = LCopyUTF8FromUTF32(buffer.data(), wide.data(), size);
    for (unsigned long i = size; i < size + 4; ++i)
        EXPECT_EQ(kCanary, buffer[i]) << "written past the destination, size " << size;
    out = size > 0 ? std::string(buffer.data()) : std::string();
    return result;
}

std::vector<unsigned short> Units(std::initializer_list<unsigned short> units) {
    std::vector<unsigned short> v(units);
    v.push_back(0);
    return v;
}

// The decoder as the algorithm states it, one step at a time, to hold the fast paths against.
int ReferenceDecode(const std::string& text, unsigned long size, std::u32string& out) {
    static const unsigned int offsets[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                            0x03C82080u, 0xFA082080u, 0x82082080u};
    out.clear();
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text.c_str());
    unsigned long total = 0;
    int result = kLCopyDone;
    while (*s != 0) {
        const unsigned int c = *s;
        unsigned int t = 0; // trailing bytes: the leads C0, E0, F0, F8 and FC each add one
        for (unsigned int lead = 0xC0; t < 5 && c >= lead; lead = 0x80 | lead >> 1)
            ++t;
        total += t + 1;
        if (total >= size)
            return kLCopyTruncated;
        if ((c >= 0x80 && c <= 0xC1) || c > 0xF4)
            return kLCopyIllegalInput;
        for (unsigned int i = 1; i <= t; ++i) {
            const unsigned int b = s[i];
            if (b < 0x80 || b > 0xBF)
                return kLCopyIllegalInput;
            if (i == 1 && ((c == 0xE0 && b < 0xA0) || (c == 0xED && b > 0x9F) ||
                           (c == 0xF0 && b < 0x90) || (c == 0xF4 && b > 0x8F)))
                return kLCopyIllegalInput;
        }
        unsigned int value = 0;
        for (unsigned int i = 0; i <= t; ++i)
            value = value * 64 + s[i];
        value -= offsets[t];
        if (value > 0x10FFFF) {
            value = 0xFFFD;
            result = kLCopyIllegalInput;
        } else if (value >= 0xD800 && value <= 0xDFFF) {
            value = 0xFFFD;
        }
        out.push_back(value);
        s += t + 1;
    }
    return result;
}

// Text of ASCII runs and characters of every length, long enough to cross the coders' blocks
// and windows, with now and then a malformed byte.
std::string RandomText(std::mt19937& random, bool malformed) {
    static const char* const pieces[] = {
        "\xC3\xA9",         "\xD0\xB6", "\xE2\x82\xAC", "\xE6\x97\xA5", "\xF0\x9F\x98\x80",
        "\xF4\x8F\xBF\xBF", " "};
    static const char* const bad[] = {"\x80",     "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                                      "\xE2\x82", "\xFF",     "\xC3"};
    std::string text;
    const int count = static_cast<int>(random() % 60);
    for (int i = 0; i < count; ++i) {
        const unsigned int kind = random() % 10;
        if (kind < 4)
            text.append(random() % 40, static_cast<char>('a' + random() % 26));
        else
            text += pieces[random() % 7];
        if (malformed && random() % 80 == 0)
            text += bad[random() % 7];
    }
    return text;
}

// Runs a test at each level of vector instructions (up to what the processor has), the plain
// code included.
class EachBlockLevel : public ::testing::TestWithParam<llib_utf8::BlockLevel> {
protected:
    void SetUp() override { llib_utf8::LimitBlockLevel(GetParam()); }
    void TearDown() override { llib_utf8::LimitBlockLevel(llib_utf8::kBlocksAvx512); }
};

INSTANTIATE_TEST_SUITE_P(Levels, EachBlockLevel,
                         ::testing::Values(llib_utf8::kBlocksNone, llib_utf8::kBlocksAvx2,
                                           llib_utf8::kBlocksAvx512));

} // namespace

TEST(UTF8Decoder, StopsBeforeTheSizeAndAtMalformedInputKeepingWhatCameBefore) {
    std::u32string out;
    EXPECT_EQ(kLCopyTruncated, Decode("\xC3\xA9", 2, out));
    EXPECT_EQ(U"", out);
    EXPECT_EQ(kLCopyDone, Decode("\xC3\xA9", 3, out));
    EXPECT_EQ(U"\u00E9", out);
    EXPECT_EQ(kLCopyTruncated, Decode("abc", 0, out));

    // The kinds the step-by-step comparison below does not insert: the others are held there
    // against the reference at every block level.
    const char* const malformed[] = {
        "x\xC0\xAF",             // overlong 2-byte form
        "x\xED\xBF\xBF",         // encoded low surrogate
        "x\xF8\x88\x80\x80\x80", // lead byte above F4
        "x\xFF",
        "x\xC3",  // cut short by the terminator
        "x\xC3(", // trailing byte missing
    };
    for (const char* text : malformed) {
        EXPECT_EQ(kLCopyIllegalInput, Decode(text, 64, out)) << text;
        EXPECT_EQ(U"x", out);
    }
    EXPECT_EQ(kLCopyDone, Decode("\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", 64, out));
    EXPECT_EQ(U"\uD7FF\uE000\U0010FFFF", out) << "the neighbours of the excluded ranges";
}

TEST_P(EachBlockLevel, DecoderAgreesWithTheStepByStepAlgorithm) {
    // Runs of each length crossing the decoder's blocks, cut at every size.
    std::string twoByte, threeByte;
    for (int i = 0; i < 8; ++i)
        twoByte += "\xC3\xA9";
    for (int i = 0; i < 6; ++i)
        threeByte += "\xE2\x82\xAC";
    std::vector<std::string> texts = {
        twoByte + "x" + twoByte + "yz" + twoByte,
        std::string(15, 'a') + threeByte + "b" + threeByte + std::string(20, 'c'),
        "\xF0\x9F\x98\x80" + std::string(16, 'd') + "\xF0\x9F\x98\x80" + "e\xF0\x9F\x98\x80",
    };
    std::vector<std::pair<std::string, unsigned long>> cases;
    for (const std::string& text : texts)
        for (unsigned long size = 0; size <= text.size() + 2; ++size)
            cases.emplace_back(text, size);
    // Texts without ASCII runs, with and without four-byte characters, with each kind of
    // malformed sequence at every place in and just after a 32- and a 64-byte block: inserted
    // into the text (often splitting a character), and after that many bytes of whole
    // characters, so the whole-block checks meet it at every position.
    std::string dense, denseBmp;
    for (int i = 0; i < 12; ++i) {
        dense += "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z\xD0\xB6";
        denseBmp += "\xE0\xA0\x80\xC3\xA9\xE2\x82\xACz\xD0\xB6\xEF\xBF\xBD";
    }
    for (const std::string& text : {dense, denseBmp})
        for (const char* bad :
             {"\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
              "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xF0\x9F\x98", "\xC3"})
            for (size_t at = 0; at <= 70; ++at) {
                std::string whole(at % 2, 'z');
                for (size_t i = 0; i < at / 2; ++i)
                    whole += "\xC3\xA9";
                cases.emplace_back(text.substr(0, at) + bad + text.substr(at), text.size() + 8);
                cases.emplace_back(whole + bad + text, text.size() + 80);
            }
    // Random texts, some malformed, some longer than the decoder's look-ahead window.
    std::mt19937 random(20240611);
    std::string longText;
    while (longText.size() < 20000)
        longText += RandomText(random, false);
    for (int round = 0; round < 3000; ++round) {
        std::string text = round < 2900 ? RandomText(random, round % 2 == 1) : longText;
        if (round >= 2900 && round % 2 == 1)
            text.insert(random() % text.size(), "\xE0\x80\x80");
        unsigned long size = text.size() + 1;
        if (random() % 3 != 0)
            size = random() % (text.size() + 3) + 1;
        cases.emplace_back(text, size);
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        std::u32string expected, out;
        const int expectedResult = ReferenceDecode(cases[i].first, cases[i].second, expected);
        ASSERT_EQ(expectedResult, Decode(cases[i].first, cases[i].second, out)) << "case " << i;
        ASSERT_TRUE(expected == out) << "case " << i;
    }
}

TEST_P(EachBlockLevel, EncoderAgreesWithTheDecoderAndStopsAtEveryBoundary) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        const std::string text = RandomText(random, false);
        std::u32string characters;
        ASSERT_EQ(kLCopyDone, Decode(text, text.size() + 1, characters));
        // Now and then a value past the range, also one that is negative as a wchar_t.
        if (round % 10 == 0 && !characters.empty())
            characters[random() % characters.size()] =
                (round % 20 == 0 ? 0x80000000u : 0x110000u) + random() % 1000;
        const unsigned long size = random() % (text.size() + 3) + 1;
        std::string out;
        const int result = Encode(characters, size, out);
        // The encoding of the longest prefix of whole characters that fits.
        std::string whole;
        unsigned long fitting = 0;
        bool replaced = false;
        for (char32_t c : characters) {
            std::string one;
            Encode(std::u32string(1, c), 5, one);
            if (whole.size() + one.size() > size - 1)
                break;
            whole += one;
            replaced = replaced || c > 0x10FFFF;
            ++fitting;
        }
        ASSERT_EQ(whole, out) << round;
        const int expected = fitting < characters.size() ? kLCopyTruncated
                             : replaced                  ? kLCopyIllegalInput
                                                         : kLCopyDone;
        ASSERT_EQ(expected, result) << round;
    }
}

TEST_P(EachBlockLevel, EncoderEncodesSurrogatesAsIsAndReplacesValuesPastTheRange) {
    std::string out;
    EXPECT_EQ(kLCopyDone, Encode(std::u32string{0xD83D, 0xDE00}, 16, out));
    EXPECT_EQ("\xED\xA0\xBD\xED\xB8\x80", out);
    EXPECT_EQ(kLCopyTruncated, Encode(U"a", 0, out));
    // Out-of-range values elsewhere are placed at random in the comparison above.
    EXPECT_EQ(kLCopyIllegalInput, Encode(U"a" + std::u32string(1, 0x80000000u) + U"b", 16, out));
    EXPECT_EQ("a\xEF\xBF\xBD"
              "b",
              out);
}

TEST_P(EachBlockLevel, EveryScalarValueRoundTrips) {
    std::u32string all;
    for (char32_t c = 1; c <= 0x10FFFF; ++c)
        if (c < 0xD800 || c > 0xDFFF)
            all.push_back(c);
    std::string utf8;
    ASSERT_EQ(kLCopyDone, Encode(all, all.size() * 4 + 1, utf8));
    std::u32string back;
    ASSERT_EQ(kLCopyDone, Decode(utf8, utf8.size() + 1, back));
    EXPECT_TRUE(all == back);
}

TEST(UnicodeText, SurrogatesAreCarriedUnitByUnitAndUnsizedFormsStopAt260) {
    char utf8[260];
    const auto pair = Units({0xD83D, 0xDE00});
    LCopyUTF8FromUnicode(utf8, pair.data(), sizeof utf8);
    EXPECT_STREQ("\xED\xA0\xBD\xED\xB8\x80", utf8);
    unsigned short units[260];
    LCopyUnicodeFromUTF8(units, "\xF0\x9F\x98\x80!", 8);
    EXPECT_EQ(0xF600, units[0]) << "cut to 16 bits";
    EXPECT_EQ('!', units[1]);

    const std::string source(1000, 'x');
    std::vector<unsigned short> longUnits(300, 0x5A5A);
    LCopyUnicodeFromUTF8(longUnits.data(), source.c_str());
    EXPECT_EQ(0, longUnits[259]);
    EXPECT_EQ(0x5A5A, longUnits[260]);
    std::vector<unsigned short> wide(1000, 0xE9);
    wide.push_back(0);
    std::vector<char> out(300, kCanary);
    LCopyUTF8FromUnicode(out.data(), wide.data());
    EXPECT_EQ(258u, strlen(out.data())) << "129 whole two-byte characters";
    EXPECT_EQ(kCanary, out[260]);
}

TEST(InvalidUTF8, EveryConverterStopsAtTheBadByteAndStaysTerminated) {
    const char* bad = "ok\xE0\x80\x80tail";
    unsigned short units[16];
    LCopyUnicodeFromUTF8(units, bad, 16);
    EXPECT_EQ(0, units[2]);
    char out[16];
    LCopyAnsiFromUTF8(out, bad, sizeof out);
    EXPECT_STREQ("ok", out);
    LCopyToISO88591(out, bad, sizeof out);
    EXPECT_STREQ("ok", out);
    LStringLongTemplate<unsigned short> string16;
    LStringLongTemplate<char> string8;
    string8 = bad;
    LCopyUnicodeFromUTF8(string16, string8);
    EXPECT_EQ(2u, string16.nLength);
}

TEST(ISO88591, ConvertsWholeCharactersOnlyAndStopsOutsideLatin1) {
    char out[16];
    LCopyToISO88591(out,
                    "a\xC3\xA9\xE2\x82\xAC"
                    "b",
                    sizeof out);
    EXPECT_STREQ("a\xE9", out);
    LCopyToWIN1252(out, "\xC3\xA9t\xC3\xA9", sizeof out);
    EXPECT_STREQ("\xE9t\xE9", out);
    LCopyFromWIN1252(out, "\xE9", sizeof out);
    EXPECT_STREQ("\xC3\xA9", out);
    LCopyFromISO88591(out, "caf\xE9");
    EXPECT_STREQ("caf", out) << "the unsized form holds strlen + 1 bytes: no room for the last";

    // Every size keeps the whole characters that fit, and the terminator.
    const std::string whole = "ab\xC3\xA9\xC3\xA9";
    const size_t fitting[] = {0, 0, 1, 2, 2, 4, 4, 6, 6};
    for (unsigned long size = 1; size <= 8; ++size) {
        std::vector<char> buffer(size + 4, kCanary);
        LCopyFromISO88591(buffer.data(), "ab\xE9\xE9", size);
        EXPECT_EQ(kCanary, buffer[size]) << size;
        EXPECT_EQ(whole.substr(0, fitting[size]), buffer.data()) << size;
    }
    LCopyIconvFixedLength(out, "abc", 4, "NO-SUCH-ENCODING", "UTF-8");
    EXPECT_STREQ("", out);
}

TEST(Ansi, ReadsWindowsLatin1AndWritesISOLatin1AllOrNothing) {
    unsigned short units[8];
    LCopyUnicodeFromAnsi(units, "\x80\xE9", 8);
    EXPECT_EQ(0x20AC, units[0]);
    EXPECT_EQ(0xE9, units[1]);
    char ansi[8] = "junk";
    LCopyAnsiFromUnicode(ansi, units, sizeof ansi);
    EXPECT_STREQ("", ansi) << "the euro sign is not ISO Latin-1";
    const auto e = Units({'c', 0xE9});
    LCopyAnsiFromUnicode(ansi, e.data(), sizeof ansi);
    EXPECT_STREQ("c\xE9", ansi);
    LCopyAnsiFromUnicode(ansi, e.data(), 2);
    EXPECT_STREQ("", ansi) << "does not fit: nothing";

    char utf8[16];
    LCopyUTF8FromAnsi(utf8, "caf\xE9 \x80", sizeof utf8);
    EXPECT_STREQ("caf\xC3\xA9 \xE2\x82\xAC", utf8);
    LCopyAnsiFromUTF8(ansi, "\xE2\x82\xAC", sizeof ansi);
    EXPECT_STREQ("", ansi);
    // Larger than the stack temporary.
    std::string big(5000, 'q');
    std::vector<char> bigOut(5001);
    LCopyAnsiFromUTF8(bigOut.data(), big.c_str(), bigOut.size());
    EXPECT_EQ(big, bigOut.data());
}

TEST(OtherForms, ShiftJISIsCopiedAndBigEndianUnitsAreSwapped) {
    char out[4];
    LCopyToSHIFTJIS932(out, "\x82\xA0\x82\xA2", sizeof out);
    EXPECT_STREQ("\x82\xA0\x82", out);

    unsigned short units[5];
    const auto ab = Units({'A', 'B'});
    EXPECT_EQ(2u, LCopyToBigEndianUnicode(units, ab.data(), 4, false));
    const unsigned char expected[8] = {0x00, 0x41, 0x00, 0x42, 0x00, 0x20, 0x00, 0x20};
    EXPECT_EQ(0, memcmp(expected, units, 8)) << "padded with spaces";
    EXPECT_EQ(1u, LCopyToBigEndianUnicode(units, ab.data(), 1, true));
    EXPECT_EQ(0, units[1]);
}

TEST(UTF8Length, CountsLeadBytesAndCopiesWholeCharacters) {
    EXPECT_EQ(4u, utf8strlen("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_EQ(2u, utf8strlen("a\xF0\x9F")) << "stops at the terminator inside a character";
    char out[8];
    EXPECT_EQ(1u, utf8strlcpy(out, "a\xC3\xA9", 3));
    EXPECT_STREQ("a", out);
    EXPECT_EQ(3u, utf8strlcpy(out, "a\xC3\xA9", 4));
    EXPECT_EQ(1u, utf8strlcpy(out, "a\xE2\x82", sizeof out));
    EXPECT_STREQ("a", out);
    out[0] = 'z';
    EXPECT_EQ(0u, utf8strlcpy(out, "abc", 0));
    EXPECT_EQ('z', out[0]);
    EXPECT_EQ(0u, utf8strlcpy(out, "abc", 1));
    EXPECT_STREQ("", out);
}

TEST(GrowableStrings, LengthsFollowEachConversion) {
    const auto e = Units({'d', 0xE9, 0x20AC});
    LStringLongTemplate<unsigned short> units;
    units = e.data();
    LStringLongTemplate<char> utf8;
    LCopyUTF8FromUnicode(utf8, units);
    EXPECT_STREQ("d\xC3\xA9\xE2\x82\xAC", utf8.pData) << "grown for three bytes a unit";
    EXPECT_EQ(6u, utf8.nLength);
    LStringLongTemplate<unsigned short> back;
    LCopyUnicodeFromUTF8(back, LStringLongTemplate<char>());
    EXPECT_EQ(0u, back.nLength);
    EXPECT_EQ(0, back.pData[0]);
}

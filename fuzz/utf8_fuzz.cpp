// The UTF-8 coder and the converters built on it, on arbitrary bytes and code points, with
// destinations of exactly the size given (so AddressSanitizer sees any write past them).
#include <cstring>
#include <cwchar>
#include <memory>

#include "fuzz_input.h"
#include "llib/gen/charsets.h"
#include "llib/gen/utf8blocks.h"

namespace {

// The coders with each level of the processor's vector instructions give the same result code
// and the same text as without them.
void CheckVectorLevelsAgree(const std::string& text, const std::vector<wchar_t>& points,
                            unsigned long size) {
    std::unique_ptr<wchar_t[]> wideFast(new wchar_t[size]), widePlain(new wchar_t[size]);
    std::unique_ptr<char[]> narrowFast(new char[size]), narrowPlain(new char[size]);
    llib_utf8::LimitBlockLevel(llib_utf8::kBlocksNone);
    const int decodedPlain = LCopyUTF32FromUTF8(widePlain.get(), text.c_str(), size);
    const int encodedPlain = LCopyUTF8FromUTF32(narrowPlain.get(), points.data(), size);
    for (llib_utf8::BlockLevel level : {llib_utf8::kBlocksAvx2, llib_utf8::kBlocksAvx512}) {
        llib_utf8::LimitBlockLevel(level);
        const int decodedFast = LCopyUTF32FromUTF8(wideFast.get(), text.c_str(), size);
        const int encodedFast = LCopyUTF8FromUTF32(narrowFast.get(), points.data(), size);
        FUZZ_CHECK(decodedFast == decodedPlain && wcscmp(wideFast.get(), widePlain.get()) == 0);
        FUZZ_CHECK(encodedFast == encodedPlain && strcmp(narrowFast.get(), narrowPlain.get()) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const unsigned long destinationSize = input.Number() % 600;
    const std::string text = input.Text();

    // Decoding: a prefix is kept; well-formed text decodes completely and encodes back as it was.
    const unsigned long wideSize = destinationSize > 0 ? destinationSize : 1;
    std::unique_ptr<wchar_t[]> wide(new wchar_t[wideSize]);
    const int decoded = LCopyUTF32FromUTF8(wide.get(), text.c_str(), wideSize);
    FUZZ_CHECK(decoded >= kLCopyDone && decoded <= kLCopyIllegalInput);
    FUZZ_CHECK(wcslen(wide.get()) < wideSize);
    if (decoded == kLCopyDone) {
        std::unique_ptr<char[]> back(new char[text.size() + 1]);
        FUZZ_CHECK(LCopyUTF8FromUTF32(back.get(), wide.get(), text.size() + 1) == kLCopyDone);
        FUZZ_CHECK(text == back.get());
        FUZZ_CHECK(utf8strlen(text.c_str()) == wcslen(wide.get()));
    }

    // Whole-character copies and lengths.
    std::unique_ptr<char[]> copy(new char[destinationSize + 1]);
    const unsigned long copied = utf8strlcpy(copy.get(), text.c_str(), destinationSize);
    if (destinationSize > 0) {
        FUZZ_CHECK(copied < destinationSize && copied == strlen(copy.get()));
        FUZZ_CHECK(memcmp(copy.get(), text.data(), copied) == 0);
    }
    utf8strlen(text.c_str());

    // Every converter from UTF-8 stays within its destination and terminated.
    const unsigned long room = destinationSize > 0 ? destinationSize : 1;
    std::unique_ptr<unsigned short[]> units(new unsigned short[room]);
    LCopyUnicodeFromUTF8(units.get(), text.c_str(), room);
    std::unique_ptr<char[]> narrow(new char[room]);
    LCopyAnsiFromUTF8(narrow.get(), text.c_str(), room);
    FUZZ_CHECK(strlen(narrow.get()) < room);
    LCopyToISO88591(narrow.get(), text.c_str(), room);
    FUZZ_CHECK(strlen(narrow.get()) < room);
    LCopyFromISO88591(narrow.get(), text.c_str(), room);
    FUZZ_CHECK(strlen(narrow.get()) < room);
    LCopyUTF8FromAnsi(narrow.get(), text.c_str(), room);
    FUZZ_CHECK(strlen(narrow.get()) < room);

    // Encoding arbitrary code points: the output is well-formed UTF-8 unless surrogates were in.
    std::vector<wchar_t> points = input.Units<wchar_t>();
    bool surrogates = false;
    for (wchar_t& point : points) {
        if (point == 0)
            point = 'x';
        const unsigned int value = static_cast<unsigned int>(point);
        surrogates = surrogates || (value >= 0xD800 && value <= 0xDFFF);
    }
    points.push_back(0);
    CheckVectorLevelsAgree(text, points, room);
    std::unique_ptr<char[]> encoded(new char[room]);
    const int result = LCopyUTF8FromUTF32(encoded.get(), points.data(), room);
    FUZZ_CHECK(strlen(encoded.get()) < room);
    if (!surrogates) {
        std::unique_ptr<wchar_t[]> again(new wchar_t[room]);
        FUZZ_CHECK(LCopyUTF32FromUTF8(again.get(), encoded.get(), room) == kLCopyDone);
        if (result == kLCopyDone)
            FUZZ_CHECK(wcscmp(again.get(), points.data()) == 0);
    }

    // 16-bit text, surrogates and all.
    std::vector<unsigned short> sixteen;
    for (size_t i = 0; i + 1 < points.size(); ++i) {
        const unsigned short unit = static_cast<unsigned short>(points[i]);
        sixteen.push_back(unit != 0 ? unit : 1);
    }
    sixteen.push_back(0);
    LCopyUTF8FromUnicode(encoded.get(), sixteen.data(), room);
    FUZZ_CHECK(strlen(encoded.get()) < room);
    LCopyAnsiFromUnicode(encoded.get(), sixteen.data(), room);
    FUZZ_CHECK(strlen(encoded.get()) < room);
    return 0;
}

#include "llib/gen/charsets.h"

#include <climits>
#include <cstring>
#include <cwchar>
#include <iconv.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "llib/gen/array.h"
#include "platform/cfstring.h"
#include "utf8blocks.h"

const unsigned short szEmptyStringUTF16[1] = {0};

namespace {

// The published UTF-8 constants: trailing bytes by lead byte, the lead-byte mark by sequence
// length, and the offset that undoes the marks after the bytes of a sequence have been summed.
struct TrailingTable {
    unsigned char count[256];
    constexpr TrailingTable() : count() {
        for (int c = 0; c < 256; ++c)
            count[c] = c < 0xC0 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : c < 0xF8 ? 3 : c < 0xFC ? 4 : 5;
    }
};
constexpr TrailingTable kTrailing;
constexpr unsigned char kLeadMark[7] = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
constexpr unsigned int kOffsets[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                      0x03C82080u, 0xFA082080u, 0x82082080u};

template <class T>
unsigned long TextLength(const T* text) {
    unsigned long n = 0;
    while (text[n] != 0)
        ++n;
    return n;
}

// A growable string's size for n source characters at `factor` bytes each, plus the terminator,
// held to what an unsigned int can count.
unsigned int GrowthSize(unsigned long n, unsigned long factor) {
    const unsigned long long size = static_cast<unsigned long long>(n) * factor + 1;
    return size > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(size);
}

// The size a temporary needs to stand for a destination of `size` characters when the source
// has sourceLength characters: the conversion never produces more than one character per source
// character, so a larger temporary would hold the same result.
unsigned long TemporarySize(unsigned long size, unsigned long sourceLength) {
    return sourceLength < size ? sourceLength + 1 : size;
}

CFIndex ByteBound(unsigned long count, unsigned long unitBytes) {
    return count > static_cast<unsigned long>(LONG_MAX) / unitBytes
               ? LONG_MAX
               : static_cast<CFIndex>(count * unitBytes);
}

// A growable string's text, or the empty text when it has no buffer. (LStringLongTemplate's
// GetText keeps its empty text in a function-local static, which in a shared library is a
// unique symbol that keeps the library from ever being unloaded.)
const char* TextOf(const LStringLongTemplate<char>& string) {
    return string.pData != nullptr ? string.pData : "";
}

const unsigned short* TextOf(const LStringLongTemplate<unsigned short>& string) {
    return string.pData != nullptr ? string.pData : szEmptyStringUTF16;
}

// Up to 4096 16-bit units on the stack, more on the heap.
class UnitsTemporary {
public:
    explicit UnitsTemporary(unsigned long size)
        : heap(size > kStackUnits ? new unsigned short[size] : nullptr) {}
    ~UnitsTemporary() { delete[] heap; }
    UnitsTemporary(const UnitsTemporary&) = delete;
    UnitsTemporary& operator=(const UnitsTemporary&) = delete;
    unsigned short* Units() { return heap != nullptr ? heap : stack; }

private:
    static constexpr unsigned long kStackUnits = 4096;
    unsigned short stack[kStackUnits];
    unsigned short* heap;
};

// How far ahead the coders look for the source's terminator at a time (a window that stays in
// the first-level cache while it is converted).
constexpr unsigned long kWindow = 4096;

enum class Step { Continue, Full, Illegal };

// Decodes the sequence led by the byte at `in` (at least 0x80), checking first that its bytes
// fit the allowance and then that it is well formed: a lead byte from 0xC2 to 0xF4, trailing
// bytes from 0x80 to 0xBF, no overlong form (after 0xE0 and 0xF0), no encoded surrogate (after
// 0xED) and nothing above U+10FFFF (after 0xF4). The trailing bytes are read one by one and the
// first bad one stops, so a terminator inside the sequence is never read past. Validation leaves
// no value above U+10FFFF or in the surrogate range to replace.
inline Step DecodeSequence(const unsigned char*& in, wchar_t*& out, unsigned long& allowance) {
    const unsigned int lead = in[0];
    const unsigned int trailing = kTrailing.count[lead];
    if (trailing + 1 > allowance)
        return Step::Full;
    allowance -= trailing + 1;
    unsigned int value;
    switch (trailing) {
    case 1: {
        const unsigned int b1 = in[1];
        if (lead < 0xC2 || (b1 ^ 0x80) > 0x3F)
            return Step::Illegal;
        value = (lead << 6) + b1 - kOffsets[1];
        break;
    }
    case 2: {
        const unsigned int b1 = in[1];
        if ((b1 ^ 0x80) > 0x3F || (lead == 0xE0 && b1 < 0xA0) || (lead == 0xED && b1 > 0x9F))
            return Step::Illegal;
        const unsigned int b2 = in[2];
        if ((b2 ^ 0x80) > 0x3F)
            return Step::Illegal;
        value = (lead << 12) + (b1 << 6) + b2 - kOffsets[2];
        break;
    }
    case 3: {
        const unsigned int b1 = in[1];
        if (lead > 0xF4 || (b1 ^ 0x80) > 0x3F || (lead == 0xF0 && b1 < 0x90) ||
            (lead == 0xF4 && b1 > 0x8F))
            return Step::Illegal;
        const unsigned int b2 = in[2];
        if ((b2 ^ 0x80) > 0x3F)
            return Step::Illegal;
        const unsigned int b3 = in[3];
        if ((b3 ^ 0x80) > 0x3F)
            return Step::Illegal;
        value = (lead << 18) + (b1 << 12) + (b2 << 6) + b3 - kOffsets[3];
        break;
    }
    default: // a stray trailing byte, or a lead byte of the 5- and 6-byte forms
        return Step::Illegal;
    }
    in += trailing + 1;
    *out++ = static_cast<wchar_t>(value);
    return Step::Continue;
}

#ifdef __SSE2__

// Converts while the source is known to go on for 16 bytes: ASCII blocks are widened 16 at a
// time; other characters are decoded one by one, staying on that path while the text does not
// go back to ASCII for at least two bytes. Returns when the careful path is to take the next
// character.
inline void DecodeFast(const unsigned char* first, const unsigned char*& in, wchar_t*& out,
                       unsigned long& allowance, const unsigned char* known) {
    const __m128i zero = _mm_setzero_si128();
    while (known - in >= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const unsigned int high = static_cast<unsigned int>(_mm_movemask_epi8(bytes));
        // Widen all 16 (known lies within the allowance, so there is room); the ASCII ones
        // before the first other byte are kept.
        const __m128i low8 = _mm_unpacklo_epi8(bytes, zero);
        const __m128i high8 = _mm_unpackhi_epi8(bytes, zero);
        __m128i* o = reinterpret_cast<__m128i*>(out);
        _mm_storeu_si128(o, _mm_unpacklo_epi16(low8, zero));
        _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(low8, zero));
        _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(high8, zero));
        _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(high8, zero));
        const unsigned int ascii = high == 0 ? 16 : static_cast<unsigned int>(__builtin_ctz(high));
        in += ascii;
        out += ascii;
        allowance -= ascii;
        if (ascii == 16)
            continue;
        // Other characters one by one, each length in its own branch (text in one script keeps
        // them predictable). Anything unusual (malformed input, the allowance running out, the
        // end of the text) is left to the careful path, which takes the character again.
        for (;;) {
            const unsigned int c = *in;
            if (c < 0x80) {
                if (c == 0 || in[1] < 0x80 || allowance == 0)
                    break;
                *out++ = static_cast<wchar_t>(c);
                ++in;
                --allowance;
            } else if (c < 0xE0) {
                const unsigned int b1 = in[1];
                if (c < 0xC2 || (b1 ^ 0x80) > 0x3F || allowance < 2)
                    break;
                *out++ = static_cast<wchar_t>((c << 6) + b1 - kOffsets[1]);
                in += 2;
                allowance -= 2;
            } else if (c < 0xF0) {
                const unsigned int b1 = in[1];
                if ((b1 ^ 0x80) > 0x3F || (c == 0xE0 && b1 < 0xA0) || (c == 0xED && b1 > 0x9F))
                    break;
                const unsigned int b2 = in[2];
                if ((b2 ^ 0x80) > 0x3F || allowance < 3)
                    break;
                *out++ = static_cast<wchar_t>((c << 12) + (b1 << 6) + b2 - kOffsets[2]);
                in += 3;
                allowance -= 3;
            } else {
                const unsigned int b1 = in[1];
                if (c > 0xF4 || (b1 ^ 0x80) > 0x3F || (c == 0xF0 && b1 < 0x90) ||
                    (c == 0xF4 && b1 > 0x8F))
                    break;
                const unsigned int b2 = in[2];
                if ((b2 ^ 0x80) > 0x3F)
                    break;
                const unsigned int b3 = in[3];
                if ((b3 ^ 0x80) > 0x3F || allowance < 4)
                    break;
                *out++ =
                    static_cast<wchar_t>((c << 18) + (b1 << 12) + (b2 << 6) + b3 - kOffsets[3]);
                in += 4;
                allowance -= 4;
            }
        }
        if (*in >= 0x80 || *in == 0 || allowance == 0)
            return;
    }
    // Fewer than 16 bytes are left before `known`: take them as the end of a block that ends
    // there and overlaps what is converted already. When the whole block is ASCII, the
    // overlapped bytes were converted one character each just before `out`, so writing the
    // block again there changes nothing before `out` and converts the rest.
    const long rest = known - in;
    if (rest > 0 && in - first >= 16 - rest) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(known - 16));
        if (_mm_movemask_epi8(bytes) == 0) {
            const __m128i low8 = _mm_unpacklo_epi8(bytes, zero);
            const __m128i high8 = _mm_unpackhi_epi8(bytes, zero);
            __m128i* o = reinterpret_cast<__m128i*>(out - (16 - rest));
            _mm_storeu_si128(o, _mm_unpacklo_epi16(low8, zero));
            _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(low8, zero));
            _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(high8, zero));
            _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(high8, zero));
            in = known;
            out += rest;
            allowance -= static_cast<unsigned long>(rest);
        }
    }
}
#endif

} // namespace

int LCopyUTF32FromUTF8Native(wchar_t* destination, const char* source, unsigned long size) {
    if (size == 0)
        return kLCopyTruncated;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    wchar_t* out = destination;
    // Source bytes that may still be consumed: never more than size - 1 in all, and the output
    // has at most one character per byte consumed, so it always fits with its terminator.
    unsigned long allowance = size - 1;
    // The bytes before `known` are not the terminator (found with strnlen a window at a time,
    // never beyond the allowance), so the fast path may read ahead there.
    const unsigned char* known = in;
    bool more = true;
    const llib_utf8::DecodeBlocksFunction decodeBlocks = llib_utf8::BlockDecoder();
    for (;;) {
#ifdef __SSE2__
        if (known - in < 64 && more) {
            const unsigned long limit = allowance < kWindow ? allowance : kWindow;
            known = in + strnlen(reinterpret_cast<const char*>(in), limit);
            more = static_cast<unsigned long>(known - in) == kWindow;
        }
        if (decodeBlocks != nullptr) {
            const llib_utf8::DecodePosition at = decodeBlocks({in, out}, allowance, known);
            allowance -= static_cast<unsigned long>(at.in - in);
            in = at.in;
            out = at.out;
        }
        DecodeFast(reinterpret_cast<const unsigned char*>(source), in, out, allowance, known);
#endif
        // The careful path: one character.
        const unsigned int c = *in;
        if (c == 0)
            break;
        if (c < 0x80) {
            if (allowance == 0) {
                *out = 0;
                return kLCopyTruncated;
            }
            --allowance;
            *out++ = static_cast<wchar_t>(c);
            ++in;
            continue;
        }
        const Step step = DecodeSequence(in, out, allowance);
        if (step != Step::Continue) {
            *out = 0;
            return step == Step::Full ? kLCopyTruncated : kLCopyIllegalInput;
        }
    }
    *out = 0;
    return kLCopyDone;
}

int LCopyUTF32FromUTF8(wchar_t* destination, const char* source, unsigned long size) {
    return LCopyUTF32FromUTF8Native(destination, source, size);
}

namespace {

// Encodes one code point of 0x80 or above, when it fits the room left; false when it does not.
// A value above U+10FFFF is encoded as U+FFFD and makes the result kLCopyIllegalInput.
inline bool EncodeCharacter(unsigned int value, unsigned char*& out, unsigned long& room,
                            int& result) {
    if (value < 0x800) {
        if (room < 2)
            return false;
        out[0] = static_cast<unsigned char>(kLeadMark[2] | value >> 6);
        out[1] = static_cast<unsigned char>(0x80 | (value & 0x3F));
        out += 2;
        room -= 2;
        return true;
    }
    if (value > 0x10FFFF) {
        value = 0xFFFD;
        result = kLCopyIllegalInput;
    }
    if (value < 0x10000) {
        if (room < 3)
            return false;
        out[0] = static_cast<unsigned char>(kLeadMark[3] | value >> 12);
        out[1] = static_cast<unsigned char>(0x80 | (value >> 6 & 0x3F));
        out[2] = static_cast<unsigned char>(0x80 | (value & 0x3F));
        out += 3;
        room -= 3;
        return true;
    }
    if (room < 4)
        return false;
    out[0] = static_cast<unsigned char>(kLeadMark[4] | value >> 18);
    out[1] = static_cast<unsigned char>(0x80 | (value >> 12 & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (value >> 6 & 0x3F));
    out[3] = static_cast<unsigned char>(0x80 | (value & 0x3F));
    out += 4;
    room -= 4;
    return true;
}

#ifdef __SSE2__

// Reads 16 characters: their low bytes packed (meaningful where the character is ASCII), and a
// mask whose bit i is set when character i is below 0x80.
inline unsigned int LoadAscii16(const wchar_t* source, __m128i& packed) {
    const __m128i* s = reinterpret_cast<const __m128i*>(source);
    const __m128i a = _mm_loadu_si128(s);
    const __m128i b = _mm_loadu_si128(s + 1);
    const __m128i c = _mm_loadu_si128(s + 2);
    const __m128i d = _mm_loadu_si128(s + 3);
    const __m128i above = _mm_set1_epi32(~0x7F);
    const __m128i zero = _mm_setzero_si128();
    const auto asciiLanes = [&](__m128i v) {
        return static_cast<unsigned int>(
            _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(_mm_and_si128(v, above), zero))));
    };
    packed = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
    return asciiLanes(a) | asciiLanes(b) << 4 | asciiLanes(c) << 8 | asciiLanes(d) << 12;
}

#endif

} // namespace

int LCopyUTF8FromUTF32Native(char* destination, const wchar_t* source, unsigned long size) {
    if (size == 0)
        return kLCopyTruncated;
    unsigned char* out = reinterpret_cast<unsigned char*>(destination);
    const wchar_t* const first = source;
    unsigned long room = size - 1; // bytes left before the terminator's
    int result = kLCopyDone;
    // As in the decoder: the characters before `known` are not the terminator, so blocks of 16
    // can be read there.
    const wchar_t* known = source;
    bool more = true;
    const llib_utf8::EncodeBlocksFunction encodeBlocks = llib_utf8::BlockEncoder();
    for (;;) {
#ifdef __SSE2__
        if (known - source < 16 && more) {
            known = source + wcsnlen(source, kWindow);
            more = known - source == static_cast<long>(kWindow);
        }
        if (encodeBlocks != nullptr) {
            const llib_utf8::EncodePosition at = encodeBlocks({source, out}, room, known);
            room -= static_cast<unsigned long>(at.out - out);
            source = at.source;
            out = at.out;
        }
        while (known - source >= 16 && room >= 16) {
            // Store all 16 (there is room); the ASCII ones before the first other character are
            // kept.
            __m128i packed;
            const unsigned int ascii = LoadAscii16(source, packed);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), packed);
            const unsigned int prefix =
                ascii == 0xFFFF ? 16 : static_cast<unsigned int>(__builtin_ctz(~ascii));
            out += prefix;
            source += prefix;
            room -= prefix;
            if (prefix == 16)
                continue;
            // The rest of the block character by character.
            for (const wchar_t* end = source - prefix + 16; source < end; ++source) {
                const unsigned int value = static_cast<unsigned int>(*source);
                if (value < 0x80) {
                    if (room == 0)
                        break;
                    --room;
                    *out++ = static_cast<unsigned char>(value);
                } else if (!EncodeCharacter(value, out, room, result)) {
                    *out = 0;
                    return kLCopyTruncated;
                }
            }
        }
        // The last characters before `known`, fewer than 16, as in the decoder: a block that
        // ends at `known` and overlaps characters already encoded one byte each.
        const long rest = known - source;
        if (rest > 0 && rest < 16 && source - first >= 16 - rest &&
            room >= static_cast<unsigned long>(rest)) {
            __m128i packed;
            if (LoadAscii16(known - 16, packed) == 0xFFFF) {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out - (16 - rest)), packed);
                out += rest;
                source += rest;
                room -= static_cast<unsigned long>(rest);
            }
        }
#endif
        const unsigned int value = static_cast<unsigned int>(*source);
        if (value == 0)
            break;
        if (value < 0x80) {
            if (room == 0) {
                *out = 0;
                return kLCopyTruncated;
            }
            --room;
            *out++ = static_cast<unsigned char>(value);
        } else if (!EncodeCharacter(value, out, room, result)) {
            *out = 0;
            return kLCopyTruncated;
        }
        ++source;
    }
    *out = 0;
    return result;
}

int LCopyUTF8FromUTF32(char* destination, const wchar_t* source, unsigned long size) {
    return LCopyUTF8FromUTF32Native(destination, source, size);
}

void LCopyUnicodeFromUTF8(unsigned short* destination, const char* source, unsigned long size) {
    if (size == 0)
        return;
    const unsigned long wideSize = TemporarySize(size, strlen(source));
    LArray<wchar_t> wide(static_cast<unsigned int>(wideSize));
    LCopyUTF32FromUTF8Native(wide, source, wideSize);
    wide.pItems[wideSize - 1] = 0;
    unsigned long i = 0;
    for (; i < wideSize - 1 && wide.pItems[i] != 0; ++i)
        destination[i] = static_cast<unsigned short>(wide.pItems[i] & 0xFFFF);
    destination[i] = 0;
}

void LCopyUnicodeFromUTF8(unsigned short* destination, const char* source) {
    constexpr unsigned long kSize = 260;
    wchar_t wide[kSize];
    LCopyUTF32FromUTF8Native(wide, source, kSize);
    wide[kSize - 1] = 0;
    unsigned long i = 0;
    for (; i < kSize - 1 && wide[i] != 0; ++i)
        destination[i] = static_cast<unsigned short>(wide[i] & 0xFFFF);
    destination[i] = 0;
}

void LCopyUTF8FromUnicode(char* destination, const unsigned short* source, unsigned long size) {
    if (size == 0)
        return;
    const unsigned long wideSize = TemporarySize(size, TextLength(source));
    LArray<wchar_t> wide(static_cast<unsigned int>(wideSize));
    LCopyUTF32FromUnicode(wide, source, wideSize);
    LCopyUTF8FromUTF32Native(destination, wide, size);
    destination[size - 1] = 0;
}

void LCopyUTF8FromUnicode(char* destination, const unsigned short* source) {
    LCopyUTF8FromUnicode(destination, source, 260);
}

void LCopyUTF32FromUnicode(wchar_t* destination, const unsigned short* source, unsigned long size) {
    if (size == 0)
        return;
    unsigned long i = 0;
    for (; i < size - 1 && source[i] != 0; ++i)
        destination[i] = static_cast<wchar_t>(source[i]);
    destination[i] = 0;
}

void LCopyUnicodeFromUTF32(unsigned short* destination, const wchar_t* source, unsigned long size) {
    if (size == 0)
        return;
    unsigned long i = 0;
    for (; i < size - 1 && source[i] != 0; ++i)
        destination[i] = static_cast<unsigned short>(static_cast<unsigned int>(source[i]) & 0xFFFF);
    destination[i] = 0;
}

void LCopyUnicodeFromAnsi(unsigned short* destination, const char* source, unsigned long size) {
    if (size == 0)
        return;
    destination[0] = 0;
    CFStringRef string = CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(source),
                                                 static_cast<CFIndex>(strlen(source)),
                                                 kCFStringEncodingWindowsLatin1, false);
    if (string == nullptr)
        return;
    CFStringGetCString(string, reinterpret_cast<char*>(destination), ByteBound(size, 2),
                       kCFStringEncodingUnicode);
    CFRelease(string);
}

void LCopyAnsiFromUnicode(char* destination, const unsigned short* source, unsigned long size) {
    if (size == 0)
        return;
    destination[0] = 0;
    CFStringRef string =
        CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(source),
                                ByteBound(TextLength(source), 2), kCFStringEncodingUnicode, false);
    if (string == nullptr)
        return;
    CFStringGetCString(string, destination, ByteBound(size, 1), kCFStringEncodingISOLatin1);
    CFRelease(string);
}

void LCopyUTF8FromAnsi(char* destination, const char* source, unsigned long size) {
    if (size == 0)
        return;
    const unsigned long unitsSize = TemporarySize(size, strlen(source));
    UnitsTemporary units(unitsSize);
    LCopyUnicodeFromAnsi(units.Units(), source, unitsSize);
    LCopyUTF8FromUnicode(destination, units.Units(), size);
}

void LCopyAnsiFromUTF8(char* destination, const char* source, unsigned long size) {
    if (size == 0)
        return;
    const unsigned long unitsSize = TemporarySize(size, strlen(source));
    UnitsTemporary units(unitsSize);
    LCopyUnicodeFromUTF8(units.Units(), source, unitsSize);
    LCopyAnsiFromUnicode(destination, units.Units(), size);
}

template <class TD, class TS>
void LCopyIconvFixedLength(TD* destination, const TS* source, unsigned long size,
                           const char* toEncoding, const char* fromEncoding) {
    if (size == 0)
        return;
    destination[0] = 0;
    iconv_t converter = iconv_open(toEncoding, fromEncoding);
    if (converter == reinterpret_cast<iconv_t>(-1))
        return;
    // One call over the whole source, its terminator included. The output allowance keeps one
    // character back for the terminator written below, so the result is terminated whether the
    // conversion ended at the source's end, at a character it could not convert, or because
    // the output was full; iconv writes only whole characters, so none is cut.
    char* in = reinterpret_cast<char*>(const_cast<TS*>(source));
    size_t inLeft = (TextLength(source) + 1) * sizeof(TS);
    char* out = reinterpret_cast<char*>(destination);
    size_t outLeft = (size - 1) * sizeof(TD);
    iconv(converter, &in, &inLeft, &out, &outLeft);
    iconv_close(converter);
    *reinterpret_cast<TD*>(out) = 0;
}

template <class TD, class TS>
void LCopyIconvFixedLength(TD* destination, const TS* source, const char* toEncoding,
                           const char* fromEncoding) {
    LCopyIconvFixedLength(destination, source, TextLength(source) + 1, toEncoding, fromEncoding);
}

template void LCopyIconvFixedLength<char, char>(char*, const char*, unsigned long, const char*,
                                                const char*);
template void LCopyIconvFixedLength<char, char>(char*, const char*, const char*, const char*);

namespace {
const char kUTF8[] = "UTF-8";
const char kISO88591[] = "ISO-8859-1";
} // namespace

void LCopyToISO88591(char* destination, const char* source, unsigned long size) {
    LCopyIconvFixedLength(destination, source, size, kISO88591, kUTF8);
}

void LCopyToISO88591(char* destination, const char* source) {
    LCopyIconvFixedLength(destination, source, kISO88591, kUTF8);
}

void LCopyFromISO88591(char* destination, const char* source, unsigned long size) {
    LCopyIconvFixedLength(destination, source, size, kUTF8, kISO88591);
}

void LCopyFromISO88591(char* destination, const char* source) {
    LCopyIconvFixedLength(destination, source, kUTF8, kISO88591);
}

void LCopyToWIN1252(char* destination, const char* source, unsigned long size) {
    LCopyIconvFixedLength(destination, source, size, kISO88591, kUTF8);
}

void LCopyFromWIN1252(char* destination, const char* source, unsigned long size) {
    LCopyIconvFixedLength(destination, source, size, kUTF8, kISO88591);
}

void LCopyToSHIFTJIS932(char* destination, const char* source, unsigned long size) {
    if (size == 0)
        return;
    unsigned long i = 0;
    for (; i < size - 1 && source[i] != 0; ++i)
        destination[i] = source[i];
    destination[i] = 0;
}

void LCopyFromSHIFTJIS932(char* destination, const char* source, unsigned long size) {
    LCopyToSHIFTJIS932(destination, source, size);
}

unsigned long LCopyToBigEndianUnicode(unsigned short* destination, const unsigned short* source,
                                      unsigned long size, bool terminate) {
    unsigned long copied = 0;
    for (; copied < size && source[copied] != 0; ++copied)
        destination[copied] =
            static_cast<unsigned short>(source[copied] << 8 | source[copied] >> 8);
    if (terminate) {
        destination[copied] = 0;
    } else {
        for (unsigned long i = copied; i < size; ++i)
            destination[i] = 0x2000; // a space, byte-swapped
    }
    return copied;
}

unsigned long utf8strlen(const char* text) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    unsigned long count = 0;
    while (*p != 0) {
        unsigned int trailing = kTrailing.count[*p++];
        ++count;
        while (trailing-- > 0 && *p != 0)
            ++p;
    }
    return count;
}

unsigned long utf8strlcpy(char* destination, const char* source, unsigned long size) {
    if (size == 0)
        return 0;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(source);
    unsigned long copied = 0;
    while (in[copied] != 0) {
        const unsigned long length = kTrailing.count[in[copied]] + 1ul;
        if (length > size - 1 - copied)
            break;
        unsigned long i = 1;
        while (i < length && in[copied + i] != 0)
            ++i;
        if (i < length)
            break; // cut short by the terminator
        memcpy(destination + copied, in + copied, length);
        copied += length;
    }
    destination[copied] = 0;
    return copied;
}

void LCopyFromUnicode(LStringLongTemplate<char>& destination, const unsigned short* source) {
    if (destination.pData != nullptr)
        destination.pData[0] = 0;
    destination.nLength = 0;
    if (source == nullptr)
        source = szEmptyStringUTF16;
    const unsigned int size = GrowthSize(TextLength(source), 6);
    destination.GrowToSize(size);
    LCopyUTF8FromUnicode(destination.pData, source, size);
}

namespace {

// Grows destination to n * factor + 1 bytes for the source's n characters and converts with
// that size; the length is left as it was.
void ConvertIntoString(LStringLongTemplate<char>& destination, const char* source,
                       unsigned long factor, void (*convert)(char*, const char*, unsigned long)) {
    if (source == nullptr)
        source = "";
    const unsigned int size = GrowthSize(strlen(source), factor);
    destination.GrowToSize(size);
    convert(destination.pData, source, size);
}

} // namespace

void LCopyFromISO88591(LStringLongTemplate<char>& destination, const char* source) {
    ConvertIntoString(destination, source, 6, &LCopyFromISO88591);
}

void LCopyFromWIN1252(LStringLongTemplate<char>& destination, const char* source) {
    ConvertIntoString(destination, source, 6, &LCopyFromWIN1252);
}

void LCopyFromSHIFTJIS932(LStringLongTemplate<char>& destination, const char* source) {
    ConvertIntoString(destination, source, 6, &LCopyFromSHIFTJIS932);
}

void LCopyToISO88591(LStringLongTemplate<char>& destination, const char* source) {
    ConvertIntoString(destination, source, 1, &LCopyToISO88591);
}

void LCopyToWIN1252(LStringLongTemplate<char>& destination, const char* source) {
    ConvertIntoString(destination, source, 1, &LCopyToWIN1252);
}

void LCopyToSHIFTJIS932(LStringLongTemplate<char>& destination, const char* source) {
    ConvertIntoString(destination, source, 1, &LCopyToSHIFTJIS932);
}

void LCopyUTF8FromUnicode(LStringLongTemplate<char>& destination,
                          const LStringLongTemplate<unsigned short>& source) {
    const unsigned int size = GrowthSize(TextLength(TextOf(source)), 6);
    destination.GrowToSize(size);
    LCopyUTF8FromUnicode(destination.pData, TextOf(source), size);
    destination.SetLength(static_cast<unsigned int>(strlen(destination.pData)));
}

void LCopyAnsiFromUnicode(LStringLongTemplate<char>& destination,
                          const LStringLongTemplate<unsigned short>& source) {
    const unsigned int size = GrowthSize(TextLength(TextOf(source)), 1);
    destination.GrowToSize(size);
    LCopyAnsiFromUnicode(destination.pData, TextOf(source), size);
    destination.SetLength(static_cast<unsigned int>(strlen(destination.pData)));
}

void LCopyUnicodeFromAnsi(LStringLongTemplate<unsigned short>& destination,
                          const LStringLongTemplate<char>& source) {
    const unsigned int size = GrowthSize(strlen(TextOf(source)), 1);
    destination.GrowToSize(size);
    LCopyUnicodeFromAnsi(destination.pData, TextOf(source), size);
    destination.SetLength(static_cast<unsigned int>(TextLength(destination.pData)));
}

void LCopyUnicodeFromUTF8(LStringLongTemplate<unsigned short>& destination,
                          const LStringLongTemplate<char>& source) {
    const unsigned int size = GrowthSize(strlen(TextOf(source)), 1);
    destination.GrowToSize(size);
    LCopyUnicodeFromUTF8(destination.pData, TextOf(source), size);
    destination.SetLength(static_cast<unsigned int>(TextLength(destination.pData)));
}
